// The messages that the store writes itself: the welcome message of a new
// user and the quota warning. A template is one line of text in the
// configuration or the directory, in UTF-8, with "$" for its line breaks.
// It is found in the user's (or the domain's) language, expanded into an
// RFC 822 message in the charset that suits that language, and delivered
// into the user's folder like any other message.
#include "store/autocreate.h"

#include <prerror.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "store/append.h"
#include "store/mailbox.h"
#include "support/charset.h"
#include "support/config.h"
#include "support/log.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"

namespace {

// A heap string that grows as text is appended; p is always terminated.
struct msgbuf {
    char *p;
    size_t len;
    size_t size;
};

void buf_add(msgbuf *b, const char *s, size_t n) {
    if (b->len + n + 1 > b->size) {
        size_t want = b->size * 2;
        if (want < b->len + n + 1) want = b->len + n + 1;
        b->p = (char *)xrealloc(b->p, want);
        b->size = want;
    }
    memcpy(b->p + b->len, s, n);
    b->len += n;
    b->p[b->len] = '\0';
}

void buf_adds(msgbuf *b, const char *s) { buf_add(b, s, strlen(s)); }

void buf_init(msgbuf *b, size_t size) {
    b->p = (char *)xmalloc(size);
    b->len = 0;
    b->size = size;
    b->p[0] = '\0';
}

int hexval(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The placeholders of a body line, in the order in which they are tried.
enum placeholder { PH_URL, PH_ID, PH_DISKUSAGE, PH_NUMMSG, PH_PERCENT, PH_QUOTA, PH_MSGQUOTA };
const struct {
    const char *name;
    placeholder kind;
} kPlaceholders[] = {
    {"[URL]", PH_URL},         {"[ID]", PH_ID},           {"[DISKUSAGE]", PH_DISKUSAGE},
    {"[NUMMSG]", PH_NUMMSG},   {"[PERCENT]", PH_PERCENT}, {"[QUOTA]", PH_QUOTA},
    {"[MSGQUOTA]", PH_MSGQUOTA},
};

// The replacement of the placeholder that text (n bytes, starting at a "[")
// begins with, and its length in *namelen; null when it begins with none.
// Without quota figures the quota placeholders stay as they are written.
const char *expand(const char *text, size_t n, const char *userid, const struct quotadata *quota,
                   char *number, size_t numsize, size_t *namelen) {
    for (const auto &ph : kPlaceholders) {
        size_t len = strlen(ph.name);
        if (len > n || memcmp(text, ph.name, len) != 0) continue;
        int needs_quota = ph.kind != PH_URL && ph.kind != PH_ID && ph.kind != PH_PERCENT;
        if (needs_quota && !quota) return nullptr;
        *namelen = len;
        switch (ph.kind) {
        case PH_URL:
            return config_get_string(config_getdefaultcache(), "gen.accounturl", "[UNKNOWN]");
        case PH_ID:
            return userid ? userid : "";
        case PH_DISKUSAGE: {
            uint64_t kb = quotadata_used(quota) / 1024;
            snprintf(number, numsize, "%uKB", kb > UINT32_MAX ? UINT32_MAX : (unsigned)kb);
            return number;
        }
        case PH_NUMMSG:
            snprintf(number, numsize, "%u", quota->used_messages);
            return number;
        case PH_PERCENT:
            snprintf(number, numsize, "%d%%",
                     config_get_int(config_getdefaultcache(), "store.quotawarn", 90));
            return number;
        case PH_QUOTA:
            if (quota->limit == QUOTA_UNLIMITED) return "no limit";
            snprintf(number, numsize, "%uKB", quota->limit);
            return number;
        case PH_MSGQUOTA:
            if (quota->limit_messages == QUOTA_UNLIMITED) return "no limit";
            snprintf(number, numsize, "%u", quota->limit_messages);
            return number;
        }
    }
    return nullptr;
}

int starts_with_nocase(const char *line, size_t n, const char *prefix) {
    size_t len = strlen(prefix);
    return n >= len && strncasecmp(line, prefix, len) == 0;
}

// The header ends at the first line that is empty or has a space before
// any colon ("Dear user," is body text; "X-Flag" without either is not).
int ends_header(const char *line, size_t n) {
    if (n == 0) return 1;
    const char *colon = (const char *)memchr(line, ':', n);
    const char *space = (const char *)memchr(line, ' ', n);
    return space && (!colon || space < colon);
}

// Copies a header line: its name, the colon and at most one blank as they
// stand, then the value encoded for lang. A line without a colon is copied
// as it is. -1 when the value can't be encoded.
int copy_header_line(msgbuf *out, const char *line, size_t n, const char *lang) {
    const char *colon = (const char *)memchr(line, ':', n);
    if (!colon) {
        buf_add(out, line, n);
        return 0;
    }
    size_t head = (size_t)(colon + 1 - line);
    if (head < n && (line[head] == ' ' || line[head] == '\t')) head++;
    buf_add(out, line, head);
    char *value = xstrndup(line + head, n - head);
    int need = MCV_UTF8ToInternetMessageHeader(lang, value, nullptr, -1);
    int got = -1;
    if (need >= 0 && need < 0x3FFFFFFF) {
        // Room for twice the length: the converter is told the size it has.
        char local[1024];
        int size = need * 2 + 1;
        char *enc = size <= 1023 ? local : (char *)xmalloc((size_t)size);
        got = MCV_UTF8ToInternetMessageHeader(lang, value, enc, size);
        if (got >= 0) buf_add(out, enc, (size_t)got);
        if (enc != local) free(enc);
    }
    free(value);
    return got < 0 ? -1 : 0;
}

// What the walk over a template's lines has seen.
struct header_state {
    int have_to, have_date, have_from, have_type, have_mime, have_encoding;
    int ended;     // the header has ended
    int has_body;  // the line that ended it starts a body, or a line follows it
};

// One line of the header; -1 when it can't be encoded.
int header_line(msgbuf *out, header_state *hs, const char *line, size_t n, const char *userid,
                const char *date, const char *lang) {
    // The message goes to the user whatever the template names, and is
    // dated when it is made.
    int to = starts_with_nocase(line, n, "To:"), dated = starts_with_nocase(line, n, "Date:");
    if (to && !hs->have_to) {
        hs->have_to = 1;
        buf_adds(out, "To: ");
        buf_adds(out, userid);
        buf_adds(out, "\r\n");
        return 0;
    }
    if (dated && !hs->have_date) {
        hs->have_date = 1;
        buf_adds(out, "Date: ");
        buf_adds(out, date);
        buf_adds(out, "\r\n");
        return 0;
    }
    hs->have_from |= starts_with_nocase(line, n, "From:");
    hs->have_type |= starts_with_nocase(line, n, "Content-Type:");
    hs->have_mime |= starts_with_nocase(line, n, "MIME-Version:");
    hs->have_encoding |= starts_with_nocase(line, n, "Content-Transfer-Encoding:");
    if (copy_header_line(out, line, n, lang) != 0) return -1;
    buf_adds(out, "\r\n");
    return 0;
}

// The headers that the template left out, and the empty line that ends the
// header. The charset and the transfer encoding are chosen from the body as
// expanded, the very text that the body's conversion will see, so that they
// agree also when a placeholder brings in characters or line lengths that
// the template itself doesn't have.
void missing_headers(msgbuf *out, const header_state *hs, const char *userid, const char *mail,
                     const char *date, const char *lang, const char *body) {
    char line[512];
    if (!hs->have_to) {
        buf_adds(out, "To: ");
        buf_adds(out, mail ? mail : userid);
        buf_adds(out, "\r\n");
    }
    if (!hs->have_date) {
        snprintf(line, sizeof line, "Date: %s\r\n", date);
        buf_adds(out, line);
    }
    if (!hs->have_from) {
        // local.hostname must be set; a store without it still signs with
        // the name of the machine.
        char host[256] = "localhost";
        const char *name = config_get_string(config_getdefaultcache(), "local.hostname", nullptr);
        if (!name && gethostname(host, sizeof host - 1) == 0) host[sizeof host - 1] = '\0';
        buf_adds(out, "From: Mail Administrator <Postmaster@");
        buf_adds(out, name ? name : host);
        buf_adds(out, ">\r\n");
    }
    if (!hs->have_mime) buf_adds(out, "MIME-Version: 1.0\r\n");
    if (hs->has_body && !hs->have_type) {
        snprintf(line, sizeof line, "Content-Type: text/plain; charset=%s\r\n",
                 MCV_InternetMessageCharset(lang, body, "utf-8", 0));
        buf_adds(out, line);
    }
    if (hs->has_body && !hs->have_encoding) {
        snprintf(line, sizeof line, "Content-Transfer-Encoding: %s\r\n",
                 MCV_InternetMessageContentTransferEncoding(lang, body, "utf-8"));
        buf_adds(out, line);
    }
    buf_adds(out, "\r\n");
}

pthread_once_t tz_once = PTHREAD_ONCE_INIT;
void tz_init(void) { tzset(); }

const char *lang_text(const char *lang) { return lang ? lang : "[NONE]"; }

// Copies lang into out (AUTOCREATE_LANG_SIZE bytes); a null, empty or
// longer language gives "" (no language has a name that long).
void bounded_lang(const char *lang, char *out) {
    out[0] = '\0';
    if (lang && strlen(lang) < AUTOCREATE_LANG_SIZE) strcpy(out, lang);
}

// The language of domain's node in the directory (into out), "" for none.
void domain_language(dmap_domain *dom, char *out) {
    out[0] = '\0';
    char **values = nullptr;
    if (dmap_get_values(dom, "preferredLanguage", &values, 1, 0) == 0 && values && values[0])
        bounded_lang(values[0], out);
    if (values) ldap_value_free(values);
}

}  // namespace

char *DecodeMultiLineMsg(const char *text) {
    if (!text) return nullptr;
    size_t n = strlen(text), breaks = 0;
    for (const char *p = text; *p; p++) breaks += *p == '$';
    char *out = (char *)xmalloc(n + breaks + 1);
    char *o = out;
    for (const char *p = text; *p; p++) {
        int hi, lo;
        if (*p == '$') {
            *o++ = '\r';
            *o++ = '\n';
        } else if (*p == '\\' && p[1] && p[2] && (hi = hexval(p[1])) >= 0 &&
                   (lo = hexval(p[2])) >= 0) {
            // A NUL can't stand in a message: it would end the text here.
            if (hi || lo) *o++ = (char)(hi * 16 + lo);
            p += 2;
        } else {
            *o++ = *p;
        }
    }
    *o = '\0';
    return out;
}

void copy_line(char **out, size_t *len, size_t *size, const char *line, size_t linelen,
               const char *userid, const struct quotadata *quota) {
    msgbuf b = {*out, *len, *size};
    const char *end = line + linelen, *done = line, *p = line;
    while (p < end) {
        const char *open = (const char *)memchr(p, '[', (size_t)(end - p));
        if (!open) break;
        char number[32];
        size_t namelen = 0;
        const char *value =
            expand(open, (size_t)(end - open), userid, quota, number, sizeof number, &namelen);
        if (!value) {
            p = open + 1;
            continue;
        }
        buf_add(&b, done, (size_t)(open - done));
        buf_adds(&b, value);
        p = done = open + namelen;
    }
    buf_add(&b, done, (size_t)(end - done));
    *out = b.p;
    *len = b.len;
    *size = b.size;
}

char *GetRFC822Date(char *buf, time_t t) {
    if (!buf) return nullptr;
    pthread_once(&tz_once, tz_init);
    struct tm local, utc;
    if (!mtlocaltime(&t, &local) || !mtgmtime(&t, &utc)) return nullptr;
    if (strftime(buf, 64, "%a, %d %b %Y %H:%M:%S ", &local) == 0) return nullptr;
    if (buf[5] == '0') memmove(buf + 5, buf + 6, strlen(buf + 6) + 1);
    // The zone from the difference of the two clocks, whatever the TZ
    // variable looks like; a day apart when they stand on different dates.
    long offset = (local.tm_hour - utc.tm_hour) * 3600L + (local.tm_min - utc.tm_min) * 60L;
    if (local.tm_year != utc.tm_year)
        offset += local.tm_year > utc.tm_year ? 86400 : -86400;
    else if (local.tm_yday != utc.tm_yday)
        offset += local.tm_yday > utc.tm_yday ? 86400 : -86400;
    char sign = '+';
    if (offset < 0) {
        sign = '-';
        offset = -offset;
    }
    if (offset > 86400) offset %= 86400;
    size_t n = strlen(buf);
    snprintf(buf + n, 64 - n, "%c%02ld%02ld", sign, offset / 3600, offset % 3600 / 60);
    return buf;
}

char *ParseMsg(const char *userid, const char *mail, const char *text, const char *lang,
               const struct quotadata *quota) {
    char date[64];
    if (!GetRFC822Date(date, time(nullptr))) {
        svclog(nullptr, 3, "Bad date specification in message");
        return nullptr;
    }
    char *decoded = DecodeMultiLineMsg(text);
    if (!decoded) {
        svclog(nullptr, 3, "Failed to decode greeting message (out of memory?)");
        return nullptr;
    }
    size_t dlen = strlen(decoded);
    msgbuf head = {(char *)malloc(dlen * 7 + 1024), 0, dlen * 7 + 1024};
    if (!head.p) {
        svclog(nullptr, 3, "Failed to allocate memory while parsing message");
        free(decoded);
        return nullptr;
    }
    head.p[0] = '\0';
    msgbuf body;
    buf_init(&body, dlen + 256);
    if (!userid) userid = "";
    header_state hs = {};
    int failed = 0;
    // Lines end at LF; a CR before it belongs to the line break.
    for (const char *line = decoded; line && !failed;) {
        const char *lf = strchr(line, '\n');
        size_t n = lf ? (size_t)(lf - line) : strlen(line);
        const char *next = lf ? lf + 1 : nullptr;
        if (lf && n > 0 && line[n - 1] == '\r') n--;
        if (!hs.ended && ends_header(line, n)) {
            hs.ended = 1;
            hs.has_body = n > 0 || next != nullptr;
            if (n == 0) {  // the empty line is the separator, not body
                line = next;
                continue;
            }
        }
        if (!hs.ended) {
            failed = header_line(&head, &hs, line, n, userid, date, lang);
        } else {
            copy_line(&body.p, &body.len, &body.size, line, n, userid, quota);
            if (next) buf_adds(&body, "\r\n");
        }
        line = next;
    }
    free(decoded);
    if (!hs.ended || failed) {
        if (failed)
            svclog(nullptr, 3, "Failed to encode a header of the message");
        else
            svclog(nullptr, 3, "Incomplete message");
        free(head.p);
        free(body.p);
        return nullptr;
    }
    missing_headers(&head, &hs, userid, mail, date, lang, body.p);
    buf_add(&head, body.p, body.len);
    free(body.p);
    return head.p;
}

int CreateMessage_from_text(const char *userid, const char *folder, const char *mail,
                            const char *lang, const char *text, struct append_state *as,
                            const struct quotadata *quota) {
    if (!text || !*text) return -1;
    if (!userid) userid = "";
    char *msg = ParseMsg(userid, mail, text, lang, quota);
    if (!msg) {
        svclog(nullptr, 3,
               "Failed to parse message for %s. Please check (lang=%s) configuration option",
               userid, lang_text(lang));
        return -1;
    }
    const char *sep = strstr(msg, "\r\n\r\n");
    const char *body = sep ? sep + 4 : msg;
    size_t headlen = (size_t)(body - msg);
    int need = MCV_UTF8ToInternetMessageBody(lang, body, nullptr, -1, 0, 0);
    char *full = nullptr;
    int got = -1;
    if (need > 0) {
        full = (char *)xmalloc(headlen + (size_t)need + 1);
        memcpy(full, msg, headlen);
        got = MCV_UTF8ToInternetMessageBody(lang, body, full + headlen, need + 1, 0, 0);
    }
    free(msg);
    if (got < 0) {
        svclog(nullptr, 3, "Failed to convert message for %s (lang=%s).", userid, lang_text(lang));
        free(full);
        return -1;
    }
    struct appendmsg m = zeroappendmsg;
    m.base = full;
    m.size = (unsigned)(headlen + (size_t)got);
    int r;
    if (as) {
        r = append_msg(as, &m, time(nullptr), nullptr, 0, userid, 0, 0, 0, 0);
    } else {
        struct mailbox mb = zeromailbox;
        struct append_state own;
        own.mailbox = &mb;
        r = append_setup(&own, folder, 0, MAILBOX_VERSION, nullptr, 0, 0);
        if (!r) {
            r = append_msg(&own, &m, time(nullptr), nullptr, 0, userid, 0, 0, 0, 0);
            append_finish(&own);
        }
        mailbox_close(&mb);
    }
    free(full);
    if (r)
        svclog(nullptr, 59, "Unable to deliver message to %s: %s", userid, PR_ErrorToString(r, 0));
    return r;
}

int CreateMessage(const char *userid, const char *folder, const char *mail, const char *lang,
                  const char *key, struct append_state *as, const struct quotadata *quota) {
    if (!key) return -1;
    char user_lang[AUTOCREATE_LANG_SIZE], dom_lang[AUTOCREATE_LANG_SIZE] = "";
    char lang_out[AUTOCREATE_LANG_SIZE] = "";
    bounded_lang(lang, user_lang);
    const char *at = userid ? strrchr(userid, '@') : nullptr;
    const char *domain =
        at ? at + 1 : config_get_string(config_getdefaultcache(), "service.defaultdomain", nullptr);
    // Without a directory there is neither a domain's language nor its
    // welcome text; the templates of the configuration still serve.
    dmap_domain *dom = nullptr;
    if (dmap && domain) {
        int r = dmap_locate_domain(dmap, domain, &dom);
        if (r) {
            svclog(nullptr, 3, "Couldn't get preferred language for domain %s: %d", domain, r);
            dom = nullptr;
        } else {
            domain_language(dom, dom_lang);
        }
    }
    char *text = nullptr;
    if (dmap && domain && strcmp(key, "gen.newuserforms") == 0)
        text = get_welcome_message(domain, user_lang, dom_lang, lang_out);
    if (!text) {
        char languages[2 * AUTOCREATE_LANG_SIZE];
        if (*user_lang && *dom_lang && strcasecmp(user_lang, dom_lang) != 0)
            snprintf(languages, sizeof languages, "%s,%s", user_lang, dom_lang);
        else
            snprintf(languages, sizeof languages, "%s", *user_lang ? user_lang : dom_lang);
        char *found = nullptr;
        text = configmsg_getstringcopywlang(key, 0, *languages ? languages : nullptr, &found);
        bounded_lang(found, lang_out);
        free(found);
    }
    int r = -1;
    if (text && *text)
        r = CreateMessage_from_text(userid, folder, mail, *lang_out ? lang_out : nullptr, text, as,
                                    quota);
    free(text);
    if (dom) dmap_release_domain(dom, 0);
    return r;
}

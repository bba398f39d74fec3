// The MIME parser: reads a message once, as it enters a folder, into a
// temporary tree of body nodes, fills the message's index record, has the
// cache record written and frees the tree.
//
// The message is a mapped range that is not NUL-terminated. Content is
// only scanned, never copied, and every scan stops at the end of the
// range. The header of each entity is copied once into a buffer of its
// own that is NUL-terminated, and all field parsers work on that copy.
#include "store/message.h"

#include <errno.h>
#include <stddef.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

svcplugin *msgtype_plugin = nullptr;
msgtype_examine_fn msgtype_examineMessage = nullptr;
const char *msgtype_flag_name[MSGTYPE_MAX_FLAGS] = {nullptr};

namespace {

// The header buffer starts at this size, doubles when less than
// HEADER_MIN_ROOM bytes are free, and a header that still needs room once
// the buffer is larger than HEADER_GIVE_UP is not read at all.
const size_t HEADER_FIRST_SIZE = 1000;
const size_t HEADER_MIN_ROOM = 100;
const size_t HEADER_GIVE_UP = 100000;

// Highest number of a continuation of a split parameter.
const int MAX_CONTINUATION = 99;

const int BOUNDARY_GROWTH = 20;

// Characters that can't stand in a token: ( ) < > @ , ; : \ " / [ ] ? =
bool is_special(unsigned char c) {
    switch (c) {
    case '(': case ')': case '<': case '>': case '@': case ',': case ';': case ':':
    case '\\': case '"': case '/': case '[': case ']': case '?': case '=':
        return true;
    default:
        return false;
    }
}

bool is_lws(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Scans a token from p: it runs up to white space, "(", the end of the text
// or delim (0 for none). Returns its end, or null when a control byte, an
// 8-bit byte or a special character other than delim stands in it.
const char *scan_token(const char *p, char delim) {
    for (;; p++) {
        char c = *p;
        if (c == '\0' || is_lws(c) || c == '(') return p;
        if (delim && c == delim) return p;
        if ((signed char)c < 32) return nullptr;
        if (is_special((unsigned char)c)) return nullptr;
    }
}

// Reads a token behind white space and comments at *p, up to delim (0 for
// none): *token and *len tell where it stands, and *p moves behind the
// white space after it, to null when the field ends there. false when the
// field ends before the token or a byte stands in it that a token can't
// hold.
bool next_token(const char **p, char delim, const char **token, size_t *len) {
    message_parse_rfc822space(p);
    if (!*p) return false;
    *token = *p;
    *p = scan_token(*p, delim);
    if (!*p) return false;
    *len = (size_t)(*p - *token);
    message_parse_rfc822space(p);
    return true;
}

char *upper_copy(const char *s, size_t n) { return str_toupper(xstrndup(s, n)); }

void free_params(struct param *p) {
    while (p) {
        struct param *next = p->next;
        free(p->attribute);
        free(p->value);
        free(p);
        p = next;
    }
}

struct param *new_param(char *attribute, char *value) {
    struct param *p = (struct param *)xmalloc(sizeof(*p));
    p->next = nullptr;
    p->attribute = attribute;
    p->value = value;
    return p;
}

// The number of LF bytes in text[0..len); *dot is set when a line of the
// text (the first, or one behind an LF) begins with ".". One pass over a
// body, 16 bytes at a time where the machine has SSE2, instead of a search
// call per line.
size_t count_lines(const char *text, size_t len, int32_t *dot) {
    size_t n = 0, i = 0;
    if (len && text[0] == '.') *dot = 1;
#ifdef __SSE2__
    const __m128i lf = _mm_set1_epi8('\n'), period = _mm_set1_epi8('.');
    __m128i dots = _mm_setzero_si128();
    // Byte counters of LF, summed before any can pass 255.
    while (len - i > 16) {
        size_t rounds = (len - i - 1) / 16;
        if (rounds > 255) rounds = 255;
        __m128i counts = _mm_setzero_si128();
        for (size_t r = 0; r < rounds; r++, i += 16) {
            __m128i here = _mm_loadu_si128((const __m128i *)(text + i));
            __m128i after = _mm_loadu_si128((const __m128i *)(text + i + 1));
            __m128i isLf = _mm_cmpeq_epi8(here, lf);
            counts = _mm_sub_epi8(counts, isLf);
            dots = _mm_or_si128(dots, _mm_and_si128(isLf, _mm_cmpeq_epi8(after, period)));
        }
        __m128i sums = _mm_sad_epu8(counts, _mm_setzero_si128());
        n += (size_t)_mm_cvtsi128_si32(sums) + (size_t)_mm_extract_epi16(sums, 4);
    }
    if (_mm_movemask_epi8(dots)) *dot = 1;
#endif
    for (; i < len; i++) {
        if (text[i] != '\n') continue;
        n++;
        if (i + 1 < len && text[i + 1] == '.') *dot = 1;
    }
    return n;
}

// Copies a line of the message into buffer: up to and including the next
// LF, at most size - 1 bytes, never past the end of the message. A NUL
// follows the copy. Returns the number of bytes copied.
size_t message_getline(char *buffer, size_t size, struct msgrange *msg) {
    if (size == 0) return 0;
    size_t avail = msg->len - msg->offset;
    size_t max = size - 1 < avail ? size - 1 : avail;
    const char *src = msg->base + msg->offset;
    const char *lf = (const char *)memchr(src, '\n', max);
    size_t n = lf ? (size_t)(lf - src) + 1 : max;
    memcpy(buffer, src, n);
    buffer[n] = '\0';
    msg->offset += (uint32_t)n;
    return n;
}

// Is the line of n bytes a delimiter of one of the open boundaries? It
// begins with "--" and the boundary follows; the outermost boundary is
// tried first. A closing delimiter (boundary and "--") closes its boundary
// and every boundary inside it.
int message_pendingboundary(const char *line, size_t n, struct boundary_stack *boundaries) {
    if (n < 2 || line[0] != '-' || line[1] != '-') return 0;
    const char *s = line + 2;
    size_t rest = n - 2;
    for (int i = 0; i < boundaries->count; i++) {
        const char *id = boundaries->ids[i];
        size_t idlen = strlen(id);
        if (idlen <= rest && memcmp(s, id, idlen) == 0) {
            if (rest - idlen >= 2 && s[idlen] == '-' && s[idlen + 1] == '-') boundaries->count = i;
            return 1;
        }
    }
    return 0;
}

// A string field: the text of the field behind the colon, leading blanks
// dropped, line ends of folded lines removed (the white space behind them
// stays). A field that is set already stays as it is.
void message_parse_string(const char *hdr, char **field) {
    if (*field) return;
    while (*hdr == ' ' || *hdr == '\t') hdr++;
    // The search for the end starts at the second byte of the value.
    const char *end = hdr;
    if (*end) {
        end++;
        for (;;) {
            end = strchr(end, '\n');
            if (!end) {
                end = hdr + 1 + strlen(hdr + 1);
                break;
            }
            if (end[1] != ' ' && end[1] != '\t') break;
            end++;
        }
    }
    if (end > hdr && end[-1] == '\r') end--;
    size_t n = (size_t)(end - hdr);
    char *copy = (char *)xmalloc(n + 1);
    size_t k = 0;
    for (size_t i = 0; i < n; i++) {
        if (hdr[i] == '\n') {
            if (k > 0 && copy[k - 1] == '\r') k--;
            continue;
        }
        copy[k++] = hdr[i];
    }
    copy[k] = '\0';
    *field = copy;
}

// Appends "attribute=value" pairs separated by ";" to *list. Stops at the
// first thing it can't read; what was stored before stays.
void message_parse_params(const char *hdr, struct param **list) {
    struct param **tail = list;
    while (*tail) tail = &(*tail)->next;
    const char *p = hdr;
    for (;;) {
        const char *name;
        size_t namelen;
        if (!next_token(&p, '=', &name, &namelen) || !p || *p != '=') return;
        p++;
        message_parse_rfc822space(&p);
        if (!p) return;

        const char *value = p;
        bool quoted = *p == '"';
        if (quoted) {
            p++;
            for (;;) {
                char c = *p;
                if (c == '"') break;
                if (c == '\0') return;
                if (c == '\\') {
                    if (p[1] == '\0') return;
                    p += 2;
                } else if (c == '\r') {
                    // Only a folded line end may stand in a quoted value.
                    if (p[1] != '\n' || (p[2] != ' ' && p[2] != '\t')) return;
                    p += 2;
                } else {
                    p++;
                }
            }
            p++;
        } else {
            p = scan_token(p, ';');
            if (!p) return;
        }
        const char *value_end = p;

        message_parse_rfc822space(&p);
        if (p && *p != ';') return;

        char *v;
        if (quoted) {
            const char *s = value + 1;
            const char *e = value_end - 1;  // the closing quote
            v = (char *)xmalloc((size_t)(e - s) + 1);
            size_t k = 0;
            while (s < e) {
                if (*s == '\\') {
                    v[k++] = s[1];
                    s += 2;
                } else if (*s == '\r' && s + 1 < e && s[1] == '\n') {
                    s += 2;
                } else {
                    v[k++] = *s++;
                }
            }
            v[k] = '\0';
        } else {
            v = xstrndup(value, (size_t)(value_end - value));
        }
        *tail = new_param(upper_copy(name, namelen), v);
        tail = &(*tail)->next;
        if (!p) return;
        p++;  // the ";"
    }
}

// Appends s to the string *dst, escaped when escape is set: bytes that are
// control characters, 8-bit, DEL, "*", "'", "%" or specials become "%XX".
void append_value(char **dst, const char *s, bool escape) {
    size_t old = strlen(*dst);
    size_t n = strlen(s);
    char *out = (char *)xrealloc(*dst, old + (escape ? 3 * n : n) + 1);
    char *o = out + old;
    static const char hex[] = "0123456789ABCDEF";
    for (const char *p = s; *p; p++) {
        unsigned char c = (unsigned char)*p;
        if (escape && ((signed char)c <= 32 || c == 127 || c == '*' || c == '\'' || c == '%' ||
                       is_special(c))) {
            *o++ = '%';
            *o++ = hex[c >> 4];
            *o++ = hex[c & 15];
        } else {
            *o++ = (char)c;
        }
    }
    *o = '\0';
    *dst = out;
}

// If name continues a split value whose head has the name base (of
// length baselen) as number num (in decimal, numlen digits), returns 1 and
// tells in *encoded whether the continuation is encoded (ends in "*").
int is_continuation(const char *name, const char *base, size_t baselen, const char *num,
                    size_t numlen, bool *encoded) {
    if (strncmp(name, base, baselen) != 0 || name[baselen] != '*') return 0;
    const char *p = name + baselen + 1;
    if (strncmp(p, num, numlen) != 0) return 0;
    p += numlen;
    if (*p == '\0') {
        *encoded = false;
        return 1;
    }
    if (p[0] == '*' && p[1] == '\0') {
        *encoded = true;
        return 1;
    }
    return 0;
}

// Joins the parts of split parameters: "NAME*0", "NAME*1", ... (each
// possibly ending in "*" for an encoded part) become one "NAME" or, when
// any part was encoded, "NAME*" with the value in the encoded form.
void message_fold_params(struct param **list) {
    // Elements whose name has a "*" and a digit behind it may be
    // continuations; only they are searched, in list order.
    size_t ncand = 0;
    for (struct param *p = *list; p; p = p->next) {
        const char *star = strchr(p->attribute, '*');
        if (star && star[1] >= '1' && star[1] <= '9') ncand++;
    }
    struct param **cand = nullptr;
    if (ncand) {
        cand = (struct param **)xmalloc(ncand * sizeof(*cand));
        size_t k = 0;
        for (struct param *p = *list; p; p = p->next) {
            const char *star = strchr(p->attribute, '*');
            if (star && star[1] >= '1' && star[1] <= '9') cand[k++] = p;
        }
    }

    size_t first = 0;  // cand[first] is the first one not used yet
    for (struct param *head = *list; head; head = head->next) {
        char *star = strchr(head->attribute, '*');
        if (!star || star[1] != '0') continue;
        bool encoded;
        if (star[2] == '\0')
            encoded = false;
        else if (star[2] == '*' && star[3] == '\0')
            encoded = true;
        else
            continue;
        *star = '\0';
        size_t baselen = (size_t)(star - head->attribute);

        for (int n = 1; n <= MAX_CONTINUATION && first < ncand; n++) {
            char num[8];
            size_t numlen = (size_t)snprintf(num, sizeof(num), "%d", n);
            size_t found = ncand;
            bool cont_encoded = false;
            for (size_t k = first; k < ncand; k++) {
                if (cand[k] && is_continuation(cand[k]->attribute, head->attribute, baselen, num,
                                               numlen, &cont_encoded)) {
                    found = k;
                    break;
                }
            }
            if (found == ncand) break;
            struct param *cont = cand[found];
            cand[found] = nullptr;
            while (first < ncand && !cand[first]) first++;

            if (encoded && cont_encoded) {
                append_value(&head->value, cont->value, false);
            } else if (!encoded && cont_encoded) {
                char *v = xstrdup("''");
                append_value(&v, head->value, true);
                append_value(&v, cont->value, false);
                free(head->value);
                head->value = v;
                encoded = true;
            } else if (encoded) {
                append_value(&head->value, cont->value, true);
            } else {
                append_value(&head->value, cont->value, false);
            }

            // Used up; it leaves the list once the walk is over.
            free(cont->value);
            cont->value = nullptr;
        }

        if (encoded) {
            head->attribute[baselen] = '*';
            head->attribute[baselen + 1] = '\0';
        }
    }
    free(cand);

    for (struct param **pp = list; *pp;) {
        struct param *p = *pp;
        if (p->value) {
            pp = &p->next;
        } else {
            *pp = p->next;
            p->next = nullptr;
            free_params(p);
        }
    }
}

// The parameters behind the ";" at p into *list; nothing when p is null.
void parse_params_behind(const char *p, struct param **list) {
    if (!p) return;
    message_parse_params(p + 1, list);
    message_fold_params(list);
}

void message_parse_disposition(const char *hdr, struct body *body) {
    if (body->disposition) return;
    const char *p = hdr, *token;
    size_t len;
    if (!next_token(&p, ';', &token, &len) || (p && *p != ';')) return;
    body->disposition = upper_copy(token, len);
    parse_params_behind(p, &body->disposition_params);
}

// A token alone in its field ("7bit (comment)" is one, "7bit x" is not).
void message_parse_encoding(const char *hdr, char **field) {
    if (*field) return;
    const char *p = hdr, *token;
    size_t len;
    if (!next_token(&p, 0, &token, &len) || p) return;
    *field = upper_copy(token, len);
}

// Tags separated by ","; the list of the last header that holds a tag wins.
void message_parse_language(const char *hdr, struct param **list) {
    bool started = false;
    struct param **tail = list;
    const char *p = hdr;
    for (;;) {
        message_parse_rfc822space(&p);
        if (!p) return;
        const char *tag = p;
        while (*p && !is_lws(*p) && *p != ',' && *p != '(') {
            if (*p != '-' && !is_letter(*p)) return;
            p++;
        }
        size_t len = (size_t)(p - tag);
        message_parse_rfc822space(&p);
        if (p && *p != ',') return;
        if (!started) {
            free_params(*list);
            *list = nullptr;
            started = true;
        }
        *tail = new_param(nullptr, upper_copy(tag, len));
        tail = &(*tail)->next;
        if (!p) return;
        p++;
    }
}

// The header fields that are read, by name with its colon, matched without
// regard to case; every other field is passed over. The text behind the
// colon goes to the parser of the field's kind, with the node's member at
// offset: a string, an address list, or (for the kinds that fill several
// members) just the first of them.
enum field_kind { FIELD_STRING, FIELD_ADDRESS, FIELD_TYPE, FIELD_DISPOSITION, FIELD_ENCODING,
                  FIELD_LANGUAGE };
struct header_field {
    const char *name;  // lower-case
    size_t len;
    field_kind kind;
    size_t offset;
};
#define FIELD(name, kind, member) {name, sizeof(name) - 1, kind, offsetof(struct body, member)}
const header_field header_fields[] = {
    FIELD("bcc:", FIELD_ADDRESS, bcc),
    FIELD("cc:", FIELD_ADDRESS, cc),
    FIELD("content-description:", FIELD_STRING, description),
    FIELD("content-disposition:", FIELD_DISPOSITION, disposition),
    FIELD("content-id:", FIELD_STRING, id),
    FIELD("content-language:", FIELD_LANGUAGE, language),
    FIELD("content-md5:", FIELD_STRING, md5),
    FIELD("content-transfer-encoding:", FIELD_ENCODING, encoding),
    FIELD("content-type:", FIELD_TYPE, type),
    FIELD("date:", FIELD_STRING, date),
    FIELD("from:", FIELD_ADDRESS, from),
    FIELD("in-reply-to:", FIELD_STRING, in_reply_to),
    FIELD("message-id:", FIELD_STRING, message_id),
    FIELD("reply-to:", FIELD_ADDRESS, reply_to),
    FIELD("sender:", FIELD_ADDRESS, sender),
    FIELD("subject:", FIELD_STRING, subject),
    FIELD("to:", FIELD_ADDRESS, to),
};
#undef FIELD
const size_t NFIELDS = sizeof(header_fields) / sizeof(header_fields[0]);

// Whether text begins with name (lower-case) in any case. Only letters
// fold: a CR is no "-". Stops at a NUL of text, which no name holds.
inline bool is_field_name(const char *text, const char *name, size_t len) {
    for (size_t k = 0; k < len; k++) {
        char c = text[k], want = name[k];
        if (c != want && !(want >= 'a' && want <= 'z' && (c | 0x20) == want)) return false;
    }
    return true;
}

// Walks the header copy: every line start that names a known field hands
// the text behind its colon to the field's parser. A field that occurs
// again adds its addresses behind those of the first; tails[i] is where
// the list of header_fields[i] goes on.
void message_scan_fields(const char *buf, size_t used, struct body *body) {
    struct address **tails[NFIELDS] = {};
    const char *end = buf + used;
    for (const char *lf = buf; lf && lf < end;) {
        const char *s = lf + 1;
        lf = (const char *)memchr(s, '\n', (size_t)(end - s));
        if (*s == '.') body->dotlines = 1;
        const char first = (char)(*s | 0x20);
        for (size_t i = 0; i < NFIELDS; i++) {
            const header_field *f = &header_fields[i];
            if (f->name[0] > first) break;  // the table is in name order
            if (f->name[0] != first || !is_field_name(s + 1, f->name + 1, f->len - 1)) continue;
            const char *text = s + f->len;
            void *member = (char *)body + f->offset;
            switch (f->kind) {
            case FIELD_STRING: message_parse_string(text, (char **)member); break;
            case FIELD_TYPE: message_parse_type(text, body); break;
            case FIELD_DISPOSITION: message_parse_disposition(text, body); break;
            case FIELD_ENCODING: message_parse_encoding(text, (char **)member); break;
            case FIELD_LANGUAGE: message_parse_language(text, (struct param **)member); break;
            case FIELD_ADDRESS:
                if (!tails[i]) tails[i] = (struct address **)member;
                parseaddr_list(text, tails[i]);
                while (*tails[i]) tails[i] = &(*tails[i])->next;
                break;
            }
            break;
        }
    }
}

// Most entities name no type and get one of the two default types; those
// are parsed once, and each such entity gets a copy.
struct body default_text, default_digest_part;
pthread_once_t defaults_once = PTHREAD_ONCE_INIT;

void parse_defaults() {
    message_parse_type(MESSAGE_DEFAULT_TYPE, &default_text);
    message_parse_type(MESSAGE_DIGEST_PART_TYPE, &default_digest_part);
}

void copy_type(const struct body *from, struct body *to) {
    to->type = xstrdup(from->type);
    to->subtype = xstrdup(from->subtype);
    struct param **tail = &to->params;
    for (const struct param *p = from->params; p; p = p->next) {
        *tail = new_param(xstrdup(p->attribute), xstrdup(p->value));
        tail = &(*tail)->next;
    }
}

void message_default_type(const char *default_type, struct body *body) {
    pthread_once(&defaults_once, parse_defaults);
    if (strcmp(default_type, MESSAGE_DEFAULT_TYPE) == 0)
        copy_type(&default_text, body);
    else if (strcmp(default_type, MESSAGE_DIGEST_PART_TYPE) == 0)
        copy_type(&default_digest_part, body);
    else
        message_parse_type(default_type, body);
}

// Reads the header of an entity and fills the node's fields. Returns 1
// when a delimiter of an open boundary ended the header, else 0.
int message_parse_headers(struct msgrange *msg, struct body *body, const char *default_type,
                          struct boundary_stack *boundaries) {
    body->header_offset = msg->offset;
    size_t size = HEADER_FIRST_SIZE;
    char *buf = (char *)xmalloc(size);
    // Every line, the first included, stands behind an LF.
    buf[0] = '\n';
    buf[1] = '\0';
    size_t used = 1;
    size_t left = size - 3;  // free room: size - used - 2
    int sawboundary = 0;

    for (;;) {
        char *next = buf + used;
        size_t n = message_getline(next, left, msg);
        if (n == 0) break;

        // Only the start of a line is looked at; a line too long for the
        // free room arrives in pieces.
        if (next[-1] == '\n') {
            size_t i = 0;
            while (i < n && is_lws(next[i])) i++;
            if (i == n) {
                used += n;  // the blank line belongs to the header
                break;
            }
            if (next[0] == '-' && message_pendingboundary(next, n, boundaries)) {
                body->boundary_size = (uint32_t)n;
                body->boundary_lines++;
                if (used > 1) {
                    // The line end in front of the delimiter belongs to it.
                    size_t cut = used - 1 >= 2 ? 2 : used - 1;
                    body->boundary_size += (uint32_t)cut;
                    body->boundary_lines++;
                    used -= cut;
                }
                buf[used] = '\0';
                sawboundary = 1;
                break;
            }
            if (!is_lws(next[0])) {
                size_t j = 0;
                while (j < n && next[j] != ':' && next[j] != '\0' && !is_lws(next[j])) j++;
                if (j == n || next[j] != ':') {
                    // Not a header line: the content starts here.
                    msg->offset -= (uint32_t)n;
                    next[0] = '\0';
                    break;
                }
            }
        }

        // A NUL cuts what is kept of the line; its bytes are consumed.
        size_t kept = strlen(next);
        used += kept;
        left -= kept;
        if (left < HEADER_MIN_ROOM) {
            if (size > HEADER_GIVE_UP) {
                // Too large to be a header: the entity is all content.
                buf[1] = '\0';
                used = 1;
                msg->offset = body->header_offset;
                break;
            }
            buf = (char *)xrealloc(buf, size * 2);
            left += size;
            size *= 2;
        }
    }

    body->content_offset = msg->offset;
    body->header_size = (uint32_t)(used - 1);
    int32_t ignored = 0;
    body->header_lines = (int32_t)count_lines(buf, used, &ignored) - 1;

    message_scan_fields(buf, used, body);
    if (!body->type) message_default_type(default_type, body);
    free(buf);
    return sawboundary;
}

// Scans content up to a delimiter of an open boundary or the end of the
// message, counting bytes and lines.
void message_parse_content(struct msgrange *msg, struct body *body,
                           struct boundary_stack *boundaries) {
    const char *base = msg->base;
    uint32_t len = msg->len;
    uint32_t offset = msg->offset;
    uint32_t size = body->content_size;
    uint32_t lines = body->content_lines;
    if (boundaries->count == 0 && offset < len) {
        // No delimiter can end this content: it runs to the end of the
        // message, and its lines are counted without walking them one by one.
        size_t avail = len - offset;
        size += (uint32_t)avail;
        lines += (uint32_t)count_lines(base + offset, avail, &body->dotlines);
        offset = len;
    }
    while (offset < len) {
        const char *line = base + offset;
        size_t avail = len - offset;
        const char *lf = (const char *)memchr(line, '\n', avail);
        uint32_t n = lf ? (uint32_t)(lf - line) + 1 : (uint32_t)avail;
        offset += n;
        if (line[0] == '.') body->dotlines = 1;
        if (line[0] == '-' && n >= 2 && line[1] == '-' && boundaries->count &&
            message_pendingboundary(line, n, boundaries)) {
            body->boundary_size = n;
            body->boundary_lines++;
            if (lines) {
                lines--;
                body->boundary_lines++;
            }
            if (size) {
                // The CR LF before the delimiter is part of it.
                uint32_t cut = size >= 2 ? 2 : size;
                size -= cut;
                body->boundary_size += cut;
            }
            break;
        }
        size += n;
        if (lf) lines++;
    }
    msg->offset = offset;
    body->content_size = size;
    body->content_lines = lines;
}

void message_parse_multipart(struct msgrange *msg, struct body *body, int depth,
                             struct boundary_stack *boundaries) {
    const char *part_type = body->subtype && strcmp(body->subtype, "DIGEST") == 0
                                ? MESSAGE_DIGEST_PART_TYPE
                                : MESSAGE_DEFAULT_TYPE;
    struct param *boundary = body->params;
    while (boundary && strcmp(boundary->attribute, "BOUNDARY") != 0) boundary = boundary->next;
    if (!boundary) {
        message_parse_content(msg, body, boundaries);
        return;
    }

    if (boundaries->count == boundaries->alloc) {
        boundaries->alloc += BOUNDARY_GROWTH;
        boundaries->ids = (const char **)xrealloc(
            boundaries->ids, (size_t)boundaries->alloc * sizeof(*boundaries->ids));
    }
    boundaries->ids[boundaries->count++] = boundary->value;
    int mycount = boundaries->count;

    struct body preamble, epilogue;
    memset(&preamble, 0, sizeof(preamble));
    memset(&epilogue, 0, sizeof(epilogue));
    message_parse_content(msg, &preamble, boundaries);

    int alloc = 0;
    while (boundaries->count == mycount) {
        if (body->numparts == alloc) {
            alloc = alloc ? alloc * 2 : 4;
            body->subpart =
                (struct body *)xrealloc(body->subpart, (size_t)alloc * sizeof(*body->subpart));
        }
        struct body *part = &body->subpart[body->numparts++];
        message_parse_body(msg, part, part_type, depth, boundaries);
        // The message ended inside this multipart: nothing is open any more.
        if (msg->offset == msg->len && part->boundary_size == 0) boundaries->count = 0;
    }

    if (boundaries->count != mycount - 1) {
        // Not our closing delimiter: the one that ended us is the parent's.
        struct body *last = body->numparts ? &body->subpart[body->numparts - 1] : &preamble;
        body->boundary_size = last->boundary_size;
        body->boundary_lines = last->boundary_lines;
        last->boundary_size = 0;
        last->boundary_lines = 0;
    } else {
        message_parse_content(msg, &epilogue, boundaries);
    }

    uint32_t size = preamble.boundary_size + preamble.content_size;
    uint32_t lines = preamble.boundary_lines + preamble.content_lines;
    int32_t dots = preamble.dotlines;
    for (int i = 0; i < body->numparts; i++) {
        const struct body *p = &body->subpart[i];
        size += p->boundary_size + p->header_size + p->content_size;
        lines += p->boundary_lines + (uint32_t)p->header_lines + p->content_lines;
        dots += p->dotlines;
    }
    size += epilogue.content_size;
    lines += epilogue.content_lines;
    dots += epilogue.dotlines;
    body->content_size += size;
    body->content_lines += lines;
    body->dotlines += dots;
    body->boundary_size += epilogue.boundary_size;
    body->boundary_lines += epilogue.boundary_lines;
}

}  // namespace

bool message_istype(const struct body *body, const char *type, const char *subtype) {
    return body->type && strcmp(body->type, type) == 0 &&
           (!subtype || (body->subtype && strcmp(body->subtype, subtype) == 0));
}

void message_parse_type(const char *hdr, struct body *body) {
    if (body->type) return;
    const char *p = hdr, *type, *subtype;
    size_t typelen, sublen;
    if (!next_token(&p, '/', &type, &typelen) || !p || *p != '/') return;
    p++;
    if (!next_token(&p, ';', &subtype, &sublen) || (p && *p != ';')) return;
    body->type = upper_copy(type, typelen);
    body->subtype = upper_copy(subtype, sublen);
    parse_params_behind(p, &body->params);
}

void message_parse_body(struct msgrange *msg, struct body *body, const char *default_type,
                        int depth, struct boundary_stack *boundaries) {
    memset(body, 0, sizeof(*body));
    int sawboundary = message_parse_headers(msg, body, default_type, boundaries);

    // With the budget spent, containers are read as text.
    if (depth <= 0 &&
        (message_istype(body, "MULTIPART", nullptr) || message_istype(body, "MESSAGE", "RFC822"))) {
        free(body->type);
        body->type = xstrdup("TEXT");
    }

    if (message_istype(body, "MULTIPART", nullptr)) {
        if (!sawboundary) message_parse_multipart(msg, body, depth - 1, boundaries);
    } else if (message_istype(body, "MESSAGE", "RFC822")) {
        struct body *sub = (struct body *)xcalloc(1, sizeof(*sub));
        body->subpart = sub;
        if (sawboundary)
            message_default_type(MESSAGE_DEFAULT_TYPE, sub);
        else
            message_parse_body(msg, sub, MESSAGE_DEFAULT_TYPE, depth - 1, boundaries);
        body->content_size = sub->header_size + sub->content_size;
        body->content_lines = (uint32_t)sub->header_lines + sub->content_lines;
        body->dotlines += sub->dotlines;
        body->boundary_size = sub->boundary_size;
        body->boundary_lines = sub->boundary_lines;
    } else if (!sawboundary) {
        message_parse_content(msg, body, boundaries);
    }
}

void message_free_body(struct body *body) {
    free(body->type);
    free(body->subtype);
    free_params(body->params);
    free(body->id);
    free(body->description);
    free(body->encoding);
    free(body->md5);
    free(body->disposition);
    free_params(body->disposition_params);
    free_params(body->language);
    free(body->date);
    free(body->subject);
    parseaddr_free(body->from);
    parseaddr_free(body->sender);
    parseaddr_free(body->reply_to);
    parseaddr_free(body->to);
    parseaddr_free(body->cc);
    parseaddr_free(body->bcc);
    free(body->in_reply_to);
    free(body->message_id);
    if (body->subpart) {
        if (body->numparts) {
            for (int i = 0; i < body->numparts; i++) message_free_body(&body->subpart[i]);
        } else {
            message_free_body(body->subpart);  // the message of a "MESSAGE/RFC822"
        }
        free(body->subpart);
    }
    memset(body, 0, sizeof(*body));
}

namespace {
// The parse shared by both entries: the tree of base/len in *body, and the
// record's fields that come from it.
void parse_for_record(const char *base, size_t len, struct msgrange *msg, struct body *body,
                      struct index_record *record) {
    msg->base = base;
    msg->len = len > UINT32_MAX ? UINT32_MAX : (uint32_t)len;
    msg->offset = 0;

    struct boundary_stack boundaries = {nullptr, 0, 0};
    message_parse_body(msg, body, MESSAGE_DEFAULT_TYPE, MESSAGE_NESTING_BUDGET, &boundaries);
    free(boundaries.ids);

    record->sentdate = (uint32_t)message_parse_date(body->date);
    record->size = body->header_size + body->content_size;
    record->header_size = body->header_size;
    record->content_offset = body->content_offset;
    record->system_flags &= ~FLAG_NODOTS_CRLF;
    if (!body->dotlines && msg->len >= 2 && base[msg->len - 2] == '\r' &&
        base[msg->len - 1] == '\n')
        record->system_flags |= FLAG_NODOTS_CRLF;
}

// The message type plug-in's bits for the parsed message.
void examine_type(const char *base, const struct msgrange *msg, struct body *body,
                  struct index_record *record) {
    if (!msgtype_examineMessage) return;
    void *context = msgtype_plugin ? *(void **)msgtype_plugin : nullptr;
    uint32_t bits = msgtype_examineMessage(context, base, msg->len, body);
    record->system_flags |= bits & FLAG_MSGTYPE_MASK;
}
}  // namespace

void message_parse_cache(const char *base, size_t len, const char *cache_text,
                         struct index_record *record, struct message_cachebuf *out) {
    struct msgrange msg;
    struct body body;
    parse_for_record(base, len, &msg, &body, record);
    message_encode_cache(&body, &msg, cache_text, out);
    examine_type(base, &msg, &body, record);
    message_free_body(&body);
}

int message_parse_mapped(const char *base, size_t len, struct mailbox *mailbox,
                         const char *cache_text, struct index_record *record) {
    struct msgrange msg;
    struct body body;
    parse_for_record(base, len, &msg, &body, record);
    off_t pos = lseek(mailbox->index_fd, 0, SEEK_CUR);
    record->rec_cache_offset = (uint32_t)(pos - (off_t)mailbox->hdr.cache_offset);
    ssize_t r = message_write_cache(mailbox->index_fd, &body, &msg, cache_text);
    int saved_errno = errno;
    examine_type(base, &msg, &body, record);  // whatever the write gave
    message_free_body(&body);
    if (r == -1) {
        errno = saved_errno;
        svclog(0, 59, "Unable to append cache for %s: %m", mailbox->name ? mailbox->name : "");
        return IMAP_IOERROR;
    }
    return 0;
}

int message_parse_file(int fd, struct mailbox *mailbox, const char *cache_text,
                       struct index_record *record) {
    struct map *m = map_refresh(fd, nullptr, MAP_ONCE, -1);
    if (!m) {
        svclog(0, 59, "Unable to map message file for %s: %m",
               mailbox->name ? mailbox->name : "");
        return IMAP_IOERROR;
    }
    int r = message_parse_mapped(m->base, m->size, mailbox, cache_text, record);
    map_free(m);
    return r;
}

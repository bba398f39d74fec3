// The cache record of a message: envelope, body structure in two forms,
// the binary section table, the raw header, the search forms of the
// address fields, the decoded subject and the caller's text, built from the
// parsed tree into the caller's buffer in its file form.
//
// The items are written one after the other; each gets a 4-byte hole in
// front for its length word, filled with its padding when the item ends.
// The buffer is the caller's and lives across messages, so a message
// costs no allocation once the buffer has grown to its messages' size.
#include <arpa/inet.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "store/message.h"
#include "support/charset.h"
#include "support/retry.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

const char *const message_cache_item_name[MESSAGE_CACHE_ITEMS] = {
    "envelope", "bodystructure", "body", "section", "headers", "from",
    "to",       "cc",            "bcc",  "subject", "cache_text"};

void message_cachebuf_reserve(struct message_cachebuf *b, size_t n) {
    if (b->alloc - b->len >= n) return;
    size_t alloc = b->alloc ? b->alloc : 4096;
    while (alloc - b->len < n) alloc *= 2;
    b->base = (char *)xrealloc(b->base, alloc);
    b->alloc = alloc;
}

void message_cachebuf_free(struct message_cachebuf *b) {
    free(b->base);
    b->base = nullptr;
    b->len = b->alloc = 0;
}

namespace {

// Longest string written in quotes; longer ones are literals.
const size_t MAX_QUOTED = 1023;

// The item being written: the record's buffer, and where the item's text
// begins (its length word stands in the 4 bytes in front).
struct ibuf {
    struct message_cachebuf *out;
    size_t item;
};

void begin_item(ibuf *b) {
    message_cachebuf_reserve(b->out, 4);
    b->out->len += 4;
    b->item = b->out->len;
}

// Fills the item's length word and pads the text with NUL bytes up to the
// next multiple of 4.
void end_item(ibuf *b) {
    struct message_cachebuf *out = b->out;
    uint32_t len = (uint32_t)(out->len - b->item);
    size_t pad = (4 - (len & 3)) & 3;
    message_cachebuf_reserve(out, pad);
    memset(out->base + out->len, 0, pad);
    out->len += pad;
    uint32_t be = htonl(len);
    memcpy(out->base + b->item - 4, &be, 4);
}

inline void put_char(ibuf *b, char c) {
    message_cachebuf_reserve(b->out, 1);
    b->out->base[b->out->len++] = c;
}

inline void put_bytes(ibuf *b, const char *s, size_t n) {
    message_cachebuf_reserve(b->out, n);
    memcpy(b->out->base + b->out->len, s, n);
    b->out->len += n;
}

void message_write_text(ibuf *b, const char *s) { put_bytes(b, s, strlen(s)); }

// Decimal, as "%u" writes it.
void message_write_number(ibuf *b, unsigned n) {
    char buf[16];
    char *p = buf + sizeof(buf);
    do {
        *--p = (char)('0' + n % 10);
        n /= 10;
    } while (n);
    put_bytes(b, p, (size_t)(buf + sizeof(buf) - p));
}

void message_write_bit32(ibuf *b, uint32_t v) {
    uint32_t be = htonl(v);
    put_bytes(b, (const char *)&be, 4);
}

// Bytes that may stand in a quoted string: all but NUL, CR, LF, '"', '%',
// backslash and the 8-bit bytes.
struct QuotableTable {
    bool ok[256];
    constexpr QuotableTable() : ok() {
        for (int c = 1; c < 128; c++)
            ok[c] = c != '\r' && c != '\n' && c != '"' && c != '%' && c != '\\';
    }
    bool operator[](unsigned char c) const { return ok[c]; }
};
constexpr QuotableTable kQuotable;

// NIL, a quoted string, or a literal for strings that quotes can't hold.
void message_write_nstring(ibuf *b, const char *s) {
    if (!s) {
        put_bytes(b, "NIL", 3);
        return;
    }
    // Plain strings are scanned once; the first byte that needs a literal
    // ends the test, and the length is taken from there.
    const unsigned char *p = (const unsigned char *)s;
    while (kQuotable[*p]) p++;
    bool plain = *p == '\0';
    size_t n = (size_t)((const char *)p - s);
    if (!plain) n += strlen((const char *)p);
    if (plain && n <= MAX_QUOTED) {
        message_cachebuf_reserve(b->out, n + 2);
        char *dst = b->out->base + b->out->len;
        dst[0] = '"';
        memcpy(dst + 1, s, n);
        dst[n + 1] = '"';
        b->out->len += n + 2;
    } else {
        char head[32];
        int len = snprintf(head, sizeof(head), "{%u}\r\n", (unsigned)n);
        put_bytes(b, head, (size_t)len);
        put_bytes(b, s, n);
    }
}

void message_write_address(ibuf *b, const struct address *a) {
    if (!a) {
        put_bytes(b, "NIL", 3);
        return;
    }
    put_char(b, '(');
    for (; a; a = a->next) {
        put_char(b, '(');
        message_write_nstring(b, a->name);
        put_char(b, ' ');
        message_write_nstring(b, a->route);
        put_char(b, ' ');
        message_write_nstring(b, a->mailbox);
        put_char(b, ' ');
        message_write_nstring(b, a->domain);
        put_char(b, ')');
    }
    put_char(b, ')');
}

void message_write_envelope(ibuf *b, const struct body *body) {
    put_char(b, '(');
    message_write_nstring(b, body->date);
    put_char(b, ' ');
    message_write_nstring(b, body->subject);
    put_char(b, ' ');
    message_write_address(b, body->from);
    put_char(b, ' ');
    message_write_address(b, body->sender ? body->sender : body->from);
    put_char(b, ' ');
    message_write_address(b, body->reply_to ? body->reply_to : body->from);
    put_char(b, ' ');
    message_write_address(b, body->to);
    put_char(b, ' ');
    message_write_address(b, body->cc);
    put_char(b, ' ');
    message_write_address(b, body->bcc);
    put_char(b, ' ');
    message_write_nstring(b, body->in_reply_to);
    put_char(b, ' ');
    message_write_nstring(b, body->message_id);
    put_char(b, ')');
}

// A parameter list, "(" name SP value SP name SP value ... ")", or with
// names false a language list, "(" value SP value ... ")"; NIL when empty.
void write_param_list(ibuf *b, const struct param *p, bool names = true) {
    if (!p) {
        put_bytes(b, "NIL", 3);
        return;
    }
    put_char(b, '(');
    for (bool first = true; p; p = p->next, first = false) {
        if (!first) put_char(b, ' ');
        if (names) {
            message_write_nstring(b, p->attribute);
            put_char(b, ' ');
        }
        message_write_nstring(b, p->value);
    }
    put_char(b, ')');
}

void write_disposition(ibuf *b, const struct body *body) {
    if (!body->disposition) {
        put_bytes(b, "NIL", 3);
        return;
    }
    put_char(b, '(');
    message_write_nstring(b, body->disposition);
    put_char(b, ' ');
    write_param_list(b, body->disposition_params);
    put_char(b, ')');
}

// A multipart without parts is written as this node: plain text, no sizes.
struct body empty_text;
pthread_once_t empty_text_once = PTHREAD_ONCE_INIT;
void fill_empty_text() { message_parse_type(MESSAGE_DEFAULT_TYPE, &empty_text); }

// The last two fields of the extended form: SP disposition SP language.
void write_disposition_language(ibuf *b, const struct body *body) {
    put_char(b, ' ');
    write_disposition(b, body);
    put_char(b, ' ');
    write_param_list(b, body->language, false);
}

void message_write_body(ibuf *b, const struct body *body, int newformat) {
    if (message_istype(body, "MULTIPART", nullptr)) {
        if (body->numparts == 0) {
            pthread_once(&empty_text_once, fill_empty_text);
            message_write_body(b, &empty_text, newformat);
            return;
        }
        put_char(b, '(');
        for (int i = 0; i < body->numparts; i++) message_write_body(b, &body->subpart[i], newformat);
        put_char(b, ' ');
        message_write_nstring(b, body->subtype);
        if (newformat) {
            put_char(b, ' ');
            write_param_list(b, body->params);
            write_disposition_language(b, body);
        }
        put_char(b, ')');
        return;
    }

    put_char(b, '(');
    message_write_nstring(b, body->type);
    put_char(b, ' ');
    message_write_nstring(b, body->subtype);
    put_char(b, ' ');
    write_param_list(b, body->params);
    put_char(b, ' ');
    message_write_nstring(b, body->id);
    put_char(b, ' ');
    message_write_nstring(b, body->description);
    put_char(b, ' ');
    message_write_nstring(b, body->encoding ? body->encoding : "7BIT");
    put_char(b, ' ');
    message_write_number(b, body->content_size);
    if (message_istype(body, "TEXT", nullptr)) {
        put_char(b, ' ');
        message_write_number(b, body->content_lines);
    }
    if (message_istype(body, "MESSAGE", "RFC822") && body->subpart) {
        put_char(b, ' ');
        message_write_envelope(b, body->subpart);
        put_char(b, ' ');
        message_write_body(b, body->subpart, newformat);
        put_char(b, ' ');
        message_write_number(b, body->content_lines);
    }
    if (newformat) {
        put_char(b, ' ');
        message_write_nstring(b, body->md5);
        write_disposition_language(b, body);
    }
    put_char(b, ')');
}

uint32_t encoding_number(const char *encoding) {
    if (!encoding || !strcmp(encoding, "7BIT") || !strcmp(encoding, "8BIT") ||
        !strcmp(encoding, "BINARY"))
        return 0;
    if (!strcmp(encoding, "QUOTED-PRINTABLE")) return 1;
    if (!strcmp(encoding, "BASE64")) return 2;
    return 255;
}

// Charset number in the high half, encoding number in the low half.
uint32_t charset_word(const struct body *body) {
    if (!body->type || message_istype(body, "TEXT", nullptr)) {
        int charset = 0;
        for (const struct param *p = body->params; p; p = p->next) {
            if (p->attribute && strcasecmp(p->attribute, "charset") == 0) {
                charset = charset_lookupname(p->value);
                break;
            }
        }
        return ((uint32_t)charset & 0xFFFF) << 16 | encoding_number(body->encoding);
    }
    if (message_istype(body, "MESSAGE", nullptr))
        return message_istype(body, "MESSAGE", "RFC822") ? 0xFFFF0000u : 0;
    return 0xFFFF0000u | encoding_number(body->encoding);
}

void write_entry(ibuf *b, uint32_t header_offset, uint32_t header_size, uint32_t content_offset,
                 uint32_t content_size, uint32_t word) {
    message_write_bit32(b, header_offset);
    message_write_bit32(b, header_size);
    message_write_bit32(b, content_offset);
    message_write_bit32(b, content_size);
    message_write_bit32(b, word);
}

// The entry of a part in its parent's level: a multipart without parts
// has no size and no charset.
void write_part_entry(ibuf *b, const struct body *p, bool multipart_word) {
    bool empty = p->numparts == 0 && message_istype(p, "MULTIPART", nullptr);
    write_entry(b, p->header_offset, p->header_size, p->content_offset, empty ? 0 : p->content_size,
                empty && multipart_word ? 0xFFFF0000u : charset_word(p));
}

// The places of the sections, level by level: the count of a level, its
// entries, then the tables of its entities in order.
void message_write_section(ibuf *b, const struct body *body) {
    if (message_istype(body, "MESSAGE", "RFC822") && body->subpart) {
        const struct body *s = body->subpart;
        if (s->numparts == 0) {
            message_write_bit32(b, 2);
            write_entry(b, s->header_offset, s->header_size, s->content_offset, s->content_size,
                        0xFFFF0000u);
            write_part_entry(b, s, true);
            message_write_section(b, s);
        } else {
            message_write_bit32(b, (uint32_t)s->numparts + 1);
            write_entry(b, s->header_offset, s->header_size, s->content_offset, s->content_size,
                        0xFFFF0000u);
            for (int i = 0; i < s->numparts; i++) write_part_entry(b, &s->subpart[i], false);
            for (int i = 0; i < s->numparts; i++) message_write_section(b, &s->subpart[i]);
        }
    } else if (body->numparts) {
        message_write_bit32(b, (uint32_t)body->numparts + 1);
        write_entry(b, 0, 0xFFFFFFFFu, 0, 0xFFFFFFFFu, 0xFFFF0000u);
        for (int i = 0; i < body->numparts; i++) write_part_entry(b, &body->subpart[i], true);
        for (int i = 0; i < body->numparts; i++) message_write_section(b, &body->subpart[i]);
    } else {
        message_write_bit32(b, 0);
    }
}

void write_decoded(ibuf *b, const char *text) {
    char buf[256];
    char *d = charset_decode1522(text, buf, sizeof(buf));
    if (!d) return;
    message_write_text(b, d);
    if (d != buf) free(d);
}

// Addresses as searches see them: "Name <route:local@domain>", groups as
// "name:" ... ";", the address parts lower-cased in place.
void message_write_searchaddr(ibuf *b, struct address *a) {
    bool need_comma = false;
    for (; a; a = a->next) {
        if (a->domain) {
            if (need_comma) put_char(b, ',');
            if (a->name) {
                write_decoded(b, a->name);
                put_char(b, ' ');
            }
            put_char(b, '<');
            if (a->route) {
                message_write_text(b, lcase(a->route));
                put_char(b, ':');
            }
            if (a->mailbox) message_write_text(b, lcase(a->mailbox));
            put_char(b, '@');
            message_write_text(b, lcase(a->domain));
            put_char(b, '>');
            need_comma = true;
        } else if (a->mailbox) {
            if (need_comma) put_char(b, ',');
            write_decoded(b, a->mailbox);
            put_char(b, ':');
            need_comma = false;
        } else {
            put_char(b, ';');
            need_comma = true;
        }
    }
}

}  // namespace

void message_encode_cache(struct body *body, const struct msgrange *msg, const char *cache_text,
                          struct message_cachebuf *out) {
    ibuf b = {out, 0};
    // The envelope first: the search forms lower-case the addresses.
    begin_item(&b);
    message_write_envelope(&b, body);
    end_item(&b);
    begin_item(&b);
    message_write_body(&b, body, 1);
    end_item(&b);
    begin_item(&b);
    message_write_body(&b, body, 0);
    end_item(&b);

    struct body toplevel;
    memset(&toplevel, 0, sizeof(toplevel));
    toplevel.type = (char *)"MESSAGE";
    toplevel.subtype = (char *)"RFC822";
    toplevel.subpart = body;
    begin_item(&b);
    message_write_section(&b, &toplevel);
    end_item(&b);

    begin_item(&b);
    put_bytes(&b, msg->base + body->header_offset, body->header_size);
    end_item(&b);

    struct address *lists[] = {body->from, body->to, body->cc, body->bcc};
    for (struct address *list : lists) {
        begin_item(&b);
        message_write_searchaddr(&b, list);
        end_item(&b);
    }

    begin_item(&b);
    char *subject = charset_decode1522(body->subject, nullptr, 0);
    message_write_nstring(&b, subject);
    free(subject);
    end_item(&b);

    begin_item(&b);
    if (cache_text) message_write_text(&b, cache_text);
    end_item(&b);
}

ssize_t message_write_cache(int fd, struct body *body, const struct msgrange *msg,
                            const char *cache_text) {
    struct message_cachebuf out = {nullptr, 0, 0};
    message_encode_cache(body, msg, cache_text, &out);
    ssize_t r = retry_write(fd, out.base, out.len);
    int saved_errno = errno;
    message_cachebuf_free(&out);
    errno = saved_errno;
    return r;
}

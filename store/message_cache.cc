// The cache record of a message: envelope, body structure in two forms,
// the binary section table, the raw header, the search forms of the
// address fields, the decoded subject and the caller's text, built from the
// parsed tree and written with one gather write.
//
// Each item is built in a growing buffer (ibuf) that keeps 4 bytes in
// front of the text for the item's length word, so that the item, with its
// padding, goes to the file straight from the buffer. The raw header is
// written from the message itself.
#include <arpa/inet.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>

#include "store/message.h"
#include "support/charset.h"
#include "support/retry.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

const char *const message_cache_item_name[MESSAGE_CACHE_ITEMS] = {
    "envelope", "bodystructure", "body", "section", "headers", "from",
    "to",       "cc",            "bcc",  "subject", "cache_text"};

namespace {

const size_t IBUF_SIZE = 1000;
// Longest string written in quotes; longer ones are literals.
const size_t MAX_QUOTED = 1023;

struct ibuf {
    char *start;  // the text; the 4 bytes before it hold the length word
    char *last;   // next byte to write
    char *end;    // end of the room
};

void message_ibuf_init(ibuf *b) {
    char *block = (char *)xmalloc(IBUF_SIZE);
    b->start = b->last = block + 4;
    b->end = block + IBUF_SIZE;
}

void message_ibuf_ensure(ibuf *b, size_t n) {
    if ((size_t)(b->end - b->last) >= n) return;
    char *block = b->start - 4;
    size_t grow = n > IBUF_SIZE ? n : IBUF_SIZE;
    size_t total = (size_t)(b->end - block) + grow;
    size_t used = (size_t)(b->last - block);
    block = (char *)xrealloc(block, total);
    b->start = block + 4;
    b->last = block + used;
    b->end = block + total;
}

// Makes the gather entry of the finished item: length word, text and NUL
// bytes up to the next multiple of 4.
void message_ibuf_iov(struct iovec *iov, ibuf *b) {
    message_ibuf_ensure(b, 3);
    memset(b->last, 0, 3);
    uint32_t len = (uint32_t)(b->last - b->start);
    uint32_t be = htonl(len);
    memcpy(b->start - 4, &be, 4);
    iov->iov_base = b->start - 4;
    iov->iov_len = ((size_t)len + 7) & ~(size_t)3;
}

void message_ibuf_free(ibuf *b) {
    free(b->start - 4);
    b->start = b->last = b->end = nullptr;
}

void put_char(ibuf *b, char c) {
    message_ibuf_ensure(b, 1);
    *b->last++ = c;
}

void put_bytes(ibuf *b, const char *s, size_t n) {
    message_ibuf_ensure(b, n);
    memcpy(b->last, s, n);
    b->last += n;
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
        message_ibuf_ensure(b, n + 2);
        *b->last++ = '"';
        memcpy(b->last, s, n);
        b->last += n;
        *b->last++ = '"';
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

ssize_t message_write_cache(int fd, struct body *body, const struct msgrange *msg,
                            const char *cache_text) {
    // Items in record order, without the header, which comes from msg.
    enum { ENV, BODYSTRUCTURE, BODY, SECTION, FROM, TO, CC, BCC, SUBJECT, TEXT, NBUF };
    ibuf bufs[NBUF];
    for (int i = 0; i < NBUF; i++) message_ibuf_init(&bufs[i]);

    // The envelope first: the search forms lower-case the addresses.
    message_write_envelope(&bufs[ENV], body);
    message_write_body(&bufs[BODYSTRUCTURE], body, 1);
    message_write_body(&bufs[BODY], body, 0);

    struct body toplevel;
    memset(&toplevel, 0, sizeof(toplevel));
    toplevel.type = (char *)"MESSAGE";
    toplevel.subtype = (char *)"RFC822";
    toplevel.subpart = body;
    message_write_section(&bufs[SECTION], &toplevel);

    message_write_searchaddr(&bufs[FROM], body->from);
    message_write_searchaddr(&bufs[TO], body->to);
    message_write_searchaddr(&bufs[CC], body->cc);
    message_write_searchaddr(&bufs[BCC], body->bcc);

    char *subject = charset_decode1522(body->subject, nullptr, 0);
    message_write_nstring(&bufs[SUBJECT], subject);
    free(subject);

    if (cache_text) message_write_text(&bufs[TEXT], cache_text);

    static const char zeros[4] = {0, 0, 0, 0};
    struct iovec iov[15];
    int n = 0;
    for (int i = ENV; i <= SECTION; i++) message_ibuf_iov(&iov[n++], &bufs[i]);
    uint32_t header_len = htonl(body->header_size);
    iov[n].iov_base = &header_len;
    iov[n++].iov_len = 4;
    iov[n].iov_base = (void *)(msg->base + body->header_offset);
    iov[n++].iov_len = body->header_size;
    iov[n].iov_base = (void *)zeros;
    iov[n++].iov_len = (4 - (body->header_size & 3)) & 3;
    for (int i = FROM; i < NBUF; i++) message_ibuf_iov(&iov[n++], &bufs[i]);

    ssize_t r = retry_writev(fd, iov, n);
    for (int i = 0; i < NBUF; i++) message_ibuf_free(&bufs[i]);
    return r;
}

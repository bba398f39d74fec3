// Parsing of the addresses of one header field.
//
// The text handed in runs on past the field (to the end of the whole
// header), so the field's end is found first: the first line end (LF, with
// a CR before it or not) that no space or tab follows, or the NUL. A
// folded field is unfolded into a private copy; the parser works on the
// field's bytes only, by their count, so no input can make it read past
// the field.
//
// What the records hold:
//   ordinary address  name (display name, or null), route (the source
//                     route without its ":", as "@a,@b", or null),
//                     mailbox (local part), domain (never null: an address
//                     written without a domain has the empty string)
//   group start       mailbox = the group's name, domain null
//   group end         mailbox and domain null
// Display names are unquoted (quotes and backslashes of quoted strings go,
// runs of white space and comments become one space). Encoded words stay
// as they are written; decoding them is up to the reader. A quoted local
// part keeps its quotes, since without them it would be another address.
// When an address has no display name, the text of a comment written with
// it ("user@host (Real Name)") is taken as its name.
//
// Broken input gives whatever addresses can be read from it: an unclosed
// quoted string, comment, domain literal or angle address runs to the end
// of the field; a group that isn't closed is closed at the end of the
// field, so that starts and ends always pair; stray characters are skipped.
// New records go to the end of the list handed in, which may hold records
// of an earlier field already.

#include "support/parseaddr.h"

#include <stdlib.h>
#include <string.h>

#include "support/xmalloc.h"

namespace {

// A growing text. The first bytes live in the structure itself, so the
// short texts of ordinary addresses never touch the heap; an sbuf is
// therefore never copied.
struct sbuf {
    char *p;
    size_t len;
    size_t cap;
    int set;  // something has been stored, possibly an empty text
    char small[96];
};

void sb_init(sbuf *b)
{
    b->p = b->small;
    b->len = 0;
    b->cap = sizeof b->small;
    b->set = 0;
    b->small[0] = '\0';
}

void sb_add(sbuf *b, const char *s, size_t n)
{
    if (b->len + n + 1 > b->cap) {
        size_t want = b->cap * 2;
        while (want < b->len + n + 1) want *= 2;
        if (b->p == b->small) {
            b->p = (char *)xmalloc(want);
            memcpy(b->p, b->small, b->len);
        } else {
            b->p = (char *)xrealloc(b->p, want);
        }
        b->cap = want;
    }
    memcpy(b->p + b->len, s, n);
    b->len += n;
    b->p[b->len] = '\0';
    b->set = 1;
}

void sb_addc(sbuf *b, char c) { sb_add(b, &c, 1); }

void sb_clear(sbuf *b)
{
    b->len = 0;
    b->set = 0;
    b->p[0] = '\0';
}

void sb_free(sbuf *b)
{
    if (b->p != b->small) free(b->p);
    sb_init(b);
}

enum toktype { T_END, T_ATOM, T_QUOTED, T_LITERAL, T_SPECIAL };

struct token {
    toktype type;
    const char *start;  // raw text of the token in the field copy
    size_t len;
    char ch;            // the character of a T_SPECIAL
    int space_before;   // white space or a comment stood before it
};

struct parser {
    const char *s;  // the unfolded field, n bytes (not NUL-terminated)
    size_t n;
    size_t i;
    int have_peek;
    token peek;
    sbuf comment;  // text of the last comment read
    struct address **tail;
};

int is_space(unsigned char c) { return c <= ' '; }

// The specials of RFC 822, and the bytes that go on an atom (neither
// space nor special), as tables: these tests run for every byte of every
// address field.
struct SpecialTable {
    bool special[256];
    bool atom[256];
    constexpr SpecialTable() : special(), atom() {
        for (const char *p = "()<>@,;:\".[]"; *p; p++) special[(unsigned char)*p] = true;
        for (int c = ' ' + 1; c < 256; c++) atom[c] = !special[c];
    }
};
constexpr SpecialTable specials;

int is_special(unsigned char c) { return specials.special[c]; }

// Reads a comment that starts at p->s[p->i] == '('; nested comments and
// backslashes are honoured, an unclosed comment ends with the field.
void read_comment(parser *p)
{
    int depth = 0;
    size_t start = p->i + 1;
    size_t end = p->n;
    while (p->i < p->n) {
        char c = p->s[p->i];
        if (c == '\\') {
            p->i += (p->i + 1 < p->n) ? 2 : 1;
            continue;
        }
        if (c == '(') {
            depth++;
        } else if (c == ')') {
            if (--depth == 0) {
                end = p->i;
                p->i++;
                break;
            }
        }
        p->i++;
    }
    // Keep the comment's text, trimmed, for use as a display name.
    while (start < end && is_space((unsigned char)p->s[start])) start++;
    while (end > start && is_space((unsigned char)p->s[end - 1])) end--;
    sb_clear(&p->comment);
    sb_add(&p->comment, p->s + start, end - start);
}

void lex(parser *p, token *t)
{
    t->space_before = 0;
    for (;;) {
        if (p->i >= p->n) {
            t->type = T_END;
            t->start = p->s + p->n;
            t->len = 0;
            t->ch = 0;
            return;
        }
        unsigned char c = (unsigned char)p->s[p->i];
        if (is_space(c)) {
            p->i++;
            t->space_before = 1;
        } else if (c == '(') {
            read_comment(p);
            t->space_before = 1;
        } else {
            break;
        }
    }
    size_t start = p->i;
    char c = p->s[p->i];
    t->start = p->s + start;
    t->ch = 0;
    if (c == '"' || c == '[') {
        char close = c == '"' ? '"' : ']';
        p->i++;
        while (p->i < p->n && p->s[p->i] != close) {
            if (p->s[p->i] == '\\' && p->i + 1 < p->n) p->i++;
            p->i++;
        }
        if (p->i < p->n) p->i++;  // the closing character
        t->type = c == '"' ? T_QUOTED : T_LITERAL;
    } else if (is_special((unsigned char)c)) {
        p->i++;
        t->type = T_SPECIAL;
        t->ch = c;
    } else {
        while (p->i < p->n && specials.atom[(unsigned char)p->s[p->i]]) p->i++;
        t->type = T_ATOM;
    }
    t->len = p->i - start;
}

const token *peek(parser *p)
{
    if (!p->have_peek) {
        lex(p, &p->peek);
        p->have_peek = 1;
    }
    return &p->peek;
}

void consume(parser *p) { p->have_peek = 0; }

int is_ch(const token *t, char c) { return t->type == T_SPECIAL && t->ch == c; }

// Appends the content of a quoted string without its quotes and
// backslashes. The token ends behind its closing quote, or at the end of
// the field for an unclosed string.
void add_unquoted(sbuf *b, const token *t)
{
    sb_add(b, "", 0);
    for (size_t i = 1; i < t->len; i++) {
        char c = t->start[i];
        if (c == '\\' && i + 1 < t->len) {
            sb_addc(b, t->start[++i]);
            continue;
        }
        if (c == '"') break;
        sb_addc(b, c);
    }
}

// Appends one word of a display name: one space where the input had white
// space or a comment.
void add_name_word(sbuf *b, const token *t)
{
    if (t->space_before && b->len > 0) sb_addc(b, ' ');
    if (t->type == T_QUOTED)
        add_unquoted(b, t);
    else
        sb_add(b, t->start, t->len);
}

// Appends one word of a local part as written (quotes kept). White space
// around dots goes; white space between two words is kept as one space, so
// a broken "john doe" stays readable.
void add_local_word(sbuf *b, const token *t)
{
    if (t->space_before && b->len > 0 && b->p[b->len - 1] != '.') sb_addc(b, ' ');
    sb_add(b, t->start, t->len);
}

void emit(parser *p, const sbuf *name, const sbuf *route, const sbuf *mailbox,
          const sbuf *domain)
{
    const sbuf *parts[4] = {name, route, mailbox, domain};
    size_t total = 0;
    for (int k = 0; k < 4; k++)
        if (parts[k] && parts[k]->set) total += parts[k]->len + 1;
    // The record and its strings are one block.
    struct address *a = (struct address *)xmalloc(sizeof(*a) + total);
    memset(a, 0, sizeof(*a));
    char *store = (char *)(a + 1);
    char **fields[4] = {&a->name, &a->route, &a->mailbox, &a->domain};
    for (int k = 0; k < 4; k++) {
        if (!parts[k] || !parts[k]->set) continue;
        memcpy(store, parts[k]->len ? parts[k]->p : "", parts[k]->len);
        store[parts[k]->len] = '\0';
        *fields[k] = store;
        store += parts[k]->len + 1;
    }
    *p->tail = a;
    p->tail = &a->next;
}

void emit_group_end(parser *p) { emit(p, NULL, NULL, NULL, NULL); }

// Reads domain tokens (atoms, dots, domain literals) into d.
void read_domain(parser *p, sbuf *d)
{
    sb_add(d, "", 0);
    for (;;) {
        const token *t = peek(p);
        if (t->type == T_ATOM || t->type == T_LITERAL || is_ch(t, '.')) {
            sb_add(d, t->start, t->len);
            consume(p);
        } else {
            return;
        }
    }
}

// Reads a local part (atoms, quoted strings kept with their quotes, dots).
void read_local(parser *p, sbuf *l)
{
    sb_add(l, "", 0);
    for (;;) {
        const token *t = peek(p);
        if (t->type == T_ATOM || t->type == T_QUOTED || is_ch(t, '.')) {
            sb_add(l, t->start, t->len);
            consume(p);
        } else {
            return;
        }
    }
}

// After "<": an optional route "@a,@b:", the address, and ">". A missing
// ">" is tolerated: the address ends at the next "," or ";" or the end.
void read_angle(parser *p, sbuf *route, sbuf *mailbox, sbuf *domain)
{
    if (is_ch(peek(p), '@')) {
        sbuf r;
        sb_init(&r);
        int done = 0;
        for (;;) {
            const token *t = peek(p);
            if (is_ch(t, ':')) {
                consume(p);
                done = 1;
                break;
            }
            if (t->type == T_ATOM || t->type == T_LITERAL || is_ch(t, '.') || is_ch(t, '@') ||
                is_ch(t, ',')) {
                sb_add(&r, t->start, t->len);
                consume(p);
                continue;
            }
            break;
        }
        // A route that never reaches its ":" is no route; what followed
        // its last "@" is taken as the domain of an address without a
        // local part.
        if (done && r.len > 0) sb_add(route, r.p, r.len);
        sb_free(&r);
    }
    read_local(p, mailbox);
    if (is_ch(peek(p), '@')) {
        consume(p);
        read_domain(p, domain);
    } else {
        sb_add(domain, "", 0);
    }
    // Skip to the closing bracket, but not across a separator.
    for (;;) {
        const token *t = peek(p);
        if (t->type == T_END || is_ch(t, ',') || is_ch(t, ';')) return;
        consume(p);
        if (t->type == T_SPECIAL && t->ch == '>') return;
    }
}

// Skips what is left of an address up to the next "," or ";" or the end.
void skip_rest(parser *p)
{
    for (;;) {
        const token *t = peek(p);
        if (t->type == T_END || is_ch(t, ',') || is_ch(t, ';')) return;
        consume(p);
    }
}

void take_comment_as_name(parser *p, sbuf *name)
{
    if (!name->set && p->comment.set && p->comment.len > 0)
        sb_add(name, p->comment.p, p->comment.len);
}

// One element of the list: an address, a group start, or nothing (an empty
// element or junk).
void read_element(parser *p, int *in_group)
{
    sbuf phrase, local, name, route, mailbox, domain;
    sb_init(&phrase);
    sb_init(&local);
    sb_init(&name);
    sb_init(&route);
    sb_init(&mailbox);
    sb_init(&domain);

    // Words up to the first character that says what they were.
    for (;;) {
        const token *t = peek(p);
        if (t->type == T_END) break;
        if (t->type == T_SPECIAL) {
            char c = t->ch;
            if (c == '<' || c == ':' || c == '@' || c == ',' || c == ';' || c == '>') break;
            if (c == '.') {
                if (phrase.len > 0 && t->space_before) sb_addc(&phrase, ' ');
                sb_addc(&phrase, '.');
                sb_addc(&local, '.');
            }
            consume(p);  // a dot, or a stray ")" or "]"
            continue;
        }
        add_name_word(&phrase, t);
        add_local_word(&local, t);
        consume(p);
    }

    const token *t = peek(p);
    if (is_ch(t, '<')) {
        consume(p);
        if (phrase.set) sb_add(&name, phrase.p, phrase.len);
        read_angle(p, &route, &mailbox, &domain);
        skip_rest(p);
        take_comment_as_name(p, &name);
        emit(p, &name, &route, &mailbox, &domain);
    } else if (is_ch(t, ':')) {
        consume(p);
        if (!*in_group) {
            sb_add(&mailbox, phrase.set ? phrase.p : "", phrase.len);
            emit(p, NULL, NULL, &mailbox, NULL);
            *in_group = 1;
        }
        // Groups don't nest: the name of a group inside a group is dropped,
        // and its members count as members of the outer one.
    } else if (is_ch(t, '@')) {
        consume(p);
        sb_add(&mailbox, local.set ? local.p : "", local.len);
        read_domain(p, &domain);
        skip_rest(p);
        take_comment_as_name(p, &name);
        emit(p, &name, NULL, &mailbox, &domain);
    } else {
        // A local part with no domain, or nothing at all.
        if (local.len > 0) {
            sb_add(&mailbox, local.p, local.len);
            sb_add(&domain, "", 0);
            skip_rest(p);
            take_comment_as_name(p, &name);
            emit(p, &name, NULL, &mailbox, &domain);
        } else if (t->type != T_END && !is_ch(t, ',') && !is_ch(t, ';')) {
            consume(p);  // a stray ">" or ":"
        }
    }
    // A comment is the name of the address it stands with (before its
    // first word or behind it); it doesn't carry over to the next one.
    sb_clear(&p->comment);
    sb_free(&phrase);
    sb_free(&local);
    sb_free(&name);
    sb_free(&route);
    sb_free(&mailbox);
    sb_free(&domain);
}

}  // namespace

void parseaddr_list(const char *text, struct address **list)
{
    if (!list) return;
    struct address **tail = list;
    while (*tail) tail = &(*tail)->next;
    if (!text) return;

    // The field ends at a line end that isn't followed by white space.
    const char *end = text;
    bool folded = false;
    for (;;) {
        end = strchrnul(end, '\n');
        if (!*end || (end[1] != ' ' && end[1] != '\t')) break;
        folded = true;
        end++;
    }
    size_t len = (size_t)(end - text);
    if (len > 0 && text[len - 1] == '\r' && *end == '\n') len--;

    // Unfold into a copy: drop CR LF or LF before white space. A field on
    // one line is read where it stands.
    char *copy = nullptr;
    size_t n = len;
    if (folded) {
        copy = (char *)xmalloc(len + 1);
        n = 0;
        for (size_t i = 0; i < len; i++) {
            if (text[i] == '\r' && i + 1 < len && text[i + 1] == '\n') continue;
            if (text[i] == '\n') continue;
            copy[n++] = text[i];
        }
        copy[n] = '\0';
    }

    parser p;
    p.s = folded ? copy : text;
    p.n = n;
    p.i = 0;
    p.have_peek = 0;
    sb_init(&p.comment);
    p.tail = tail;

    int in_group = 0;
    for (;;) {
        const token *t = peek(&p);
        if (t->type == T_END) break;
        if (is_ch(t, ',')) {
            consume(&p);
            sb_clear(&p.comment);
            continue;
        }
        if (is_ch(t, ';')) {
            consume(&p);
            sb_clear(&p.comment);
            if (in_group) {
                emit_group_end(&p);
                in_group = 0;
            }
            continue;
        }
        read_element(&p, &in_group);
    }
    if (in_group) emit_group_end(&p);

    sb_free(&p.comment);
    free(copy);
}

void parseaddr_free(struct address *list)
{
    while (list) {
        struct address *next = list->next;
        free(list);
        list = next;
    }
}

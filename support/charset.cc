// Character set conversion through iconv, decoding of encoded words in
// header fields, time zone names, and the encoding of generated messages.
//
// The local character set of the store is UTF-8: folder names, templates
// and object ids are UTF-8 inside the store.

#include "support/charset.h"

#include <ctype.h>
#include <errno.h>
#include <iconv.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "support/log.h"
#include "support/xmalloc.h"

namespace {

// Growing output buffer of one conversion.
struct obuf {
    char *p;
    size_t len;
    size_t cap;
};

void ob_init(obuf *b, size_t hint)
{
    b->cap = hint < 64 ? 64 : hint;
    b->p = (char *)xmalloc(b->cap);
    b->len = 0;
    b->p[0] = '\0';
}

void ob_room(obuf *b, size_t n)
{
    if (b->len + n + 1 <= b->cap) return;
    size_t want = b->cap * 2;
    if (want < b->len + n + 1) want = b->len + n + 1;
    b->p = (char *)xrealloc(b->p, want);
    b->cap = want;
}

void ob_add(obuf *b, const char *s, size_t n)
{
    ob_room(b, n);
    memcpy(b->p + b->len, s, n);
    b->len += n;
    b->p[b->len] = '\0';
}

void ob_addc(obuf *b, char c) { ob_add(b, &c, 1); }

void ob_adds(obuf *b, const char *s) { ob_add(b, s, strlen(s)); }

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

// A charset name from a message goes to iconv_open only if it is made of
// the characters that real charset names use: this keeps iconv's own
// suffix syntax ("//IGNORE" and the like) and odd bytes away from it.
int charset_name_ok(const char *name, size_t len)
{
    if (len == 0 || len > 64) return 0;
    for (size_t i = 0; i < len; i++) {
        unsigned char c = (unsigned char)name[i];
        if (!isalnum(c) && c != '-' && c != '_' && c != '.' && c != ':' && c != '+') return 0;
    }
    return 1;
}

// Converts inlen bytes from the charset "from" to UTF-8 and appends them.
// With lenient set, bytes that are invalid in the source charset become
// U+FFFD; otherwise they make the call fail. Returns 0, -1 for a charset
// that iconv doesn't know, -2 for invalid input (nothing appended then).
int to_utf8(const char *from, const char *in, size_t inlen, obuf *out, int lenient)
{
    iconv_t cd = iconv_open("UTF-8", from);
    if (cd == (iconv_t)-1) return -1;

    size_t start_len = out->len;
    char *src = (char *)in;
    size_t left = inlen;
    int rc = 0;
    while (left > 0) {
        ob_room(out, left * 4 + 16);
        char *dst = out->p + out->len;
        size_t room = out->cap - out->len - 1;
        size_t r = iconv(cd, &src, &left, &dst, &room);
        out->len = (size_t)(dst - out->p);
        if (r != (size_t)-1) break;
        if (errno == E2BIG) continue;
        if (!lenient) {
            rc = -2;
            break;
        }
        ob_adds(out, kReplacement);
        if (errno == EINVAL) break;  // incomplete sequence at the end
        src++;
        left--;
        iconv(cd, NULL, NULL, NULL, NULL);  // back to the initial shift state
    }
    if (rc == 0) {
        // Flush a final shift sequence (stateful encodings).
        ob_room(out, 16);
        char *dst = out->p + out->len;
        size_t room = out->cap - out->len - 1;
        iconv(cd, NULL, NULL, &dst, &room);
        out->len = (size_t)(dst - out->p);
    } else {
        out->len = start_len;
    }
    out->p[out->len] = '\0';
    iconv_close(cd);
    return rc;
}

// Length of the valid UTF-8 prefix of s (n bytes); equal to n if all of it
// is valid. Overlong forms, surrogates and values above U+10FFFF are invalid.
size_t utf8_valid_prefix(const unsigned char *s, size_t n)
{
    size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        size_t k;
        unsigned int cp;
        if (c < 0x80) {
            i++;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            k = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            k = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            k = 3;
            cp = c & 0x07;
        } else {
            return i;
        }
        if (i + k >= n) return i;
        for (size_t j = 1; j <= k; j++) {
            if ((s[i + j] & 0xC0) != 0x80) return i;
            cp = (cp << 6) | (s[i + j] & 0x3F);
        }
        if ((k == 2 && cp < 0x800) || (k == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return i;
        i += k + 1;
    }
    return n;
}

int is_ascii(const char *s)
{
    for (; *s; s++)
        if ((unsigned char)*s >= 0x80) return 0;
    return 1;
}

int hexval(int c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

int b64val(int c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Decodes the text of a "B" word. Returns 0, or -1 if it isn't base64.
// Padding is optional; nothing but padding may follow a "=".
int decode_b(const char *s, size_t n, obuf *out)
{
    unsigned int acc = 0;
    int bits = 0;
    size_t i = 0;
    for (; i < n && s[i] != '='; i++) {
        int v = b64val((unsigned char)s[i]);
        if (v < 0) return -1;
        acc = (acc << 6) | (unsigned int)v;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            ob_addc(out, (char)((acc >> bits) & 0xFF));
        }
    }
    for (; i < n; i++)
        if (s[i] != '=') return -1;
    return 0;
}

// Decodes the text of a "Q" word: "_" is a space, "=" and two hex digits a
// byte. Returns 0, or -1 for a "=" without two hex digits behind it.
int decode_q(const char *s, size_t n, obuf *out)
{
    for (size_t i = 0; i < n; i++) {
        char c = s[i];
        if (c == '_') {
            ob_addc(out, ' ');
        } else if (c == '=') {
            if (i + 2 >= n) return -1;
            int h = hexval((unsigned char)s[i + 1]), l = hexval((unsigned char)s[i + 2]);
            if (h < 0 || l < 0) return -1;
            ob_addc(out, (char)(h * 16 + l));
            i += 2;
        } else {
            ob_addc(out, c);
        }
    }
    return 0;
}

// Tries to read an encoded word "=?charset?X?text?=" at p (p[0..1] is
// "=?"). On success the decoded UTF-8 text is appended to out, *end points
// behind the word, and 1 is returned. 0 means: not a word that can be
// decoded here (malformed, or a charset iconv doesn't know); out is
// unchanged then.
int encoded_word(const char *p, obuf *out, const char **end)
{
    const char *cs = p + 2;
    const char *q = cs;
    while (*q && *q != '?' && (unsigned char)*q > ' ' && (unsigned char)*q < 0x7F) q++;
    if (*q != '?' || q == cs) return 0;
    size_t cslen = (size_t)(q - cs);
    // A language tag ("utf-8*de") is not part of the charset.
    const char *star = (const char *)memchr(cs, '*', cslen);
    if (star) cslen = (size_t)(star - cs);
    char enc = q[1];
    if ((enc != 'B' && enc != 'b' && enc != 'Q' && enc != 'q') || q[2] != '?') return 0;
    const char *text = q + 3;
    const char *t = text;
    while (*t && !(t[0] == '?' && t[1] == '=') && (unsigned char)*t > ' ' &&
           (unsigned char)*t < 0x7F)
        t++;
    if (!(t[0] == '?' && t[1] == '=')) return 0;
    if (!charset_name_ok(cs, cslen)) return 0;

    char csname[65];
    memcpy(csname, cs, cslen);
    csname[cslen] = '\0';

    obuf raw;
    ob_init(&raw, (size_t)(t - text) + 1);
    int bad = (enc == 'B' || enc == 'b') ? decode_b(text, (size_t)(t - text), &raw)
                                         : decode_q(text, (size_t)(t - text), &raw);
    int rc = 0;
    if (bad == 0 && to_utf8(csname, raw.p, raw.len, out, 1) == 0) {
        *end = t + 2;
        rc = 1;
    }
    free(raw.p);
    return rc;
}

// Skips linear white space, folded line ends included, from p; returns
// where it stops.
const char *skip_lwsp(const char *p)
{
    for (;;) {
        if (*p == ' ' || *p == '\t') {
            p++;
        } else if (p[0] == '\r' && p[1] == '\n' && (p[2] == ' ' || p[2] == '\t')) {
            p += 2;
        } else if (p[0] == '\n' && (p[1] == ' ' || p[1] == '\t')) {
            p++;
        } else {
            return p;
        }
    }
}

char *hand_out(obuf *b, char *buf, size_t size)
{
    if (buf && b->len + 1 <= size) {
        memcpy(buf, b->p, b->len + 1);
        free(b->p);
        return buf;
    }
    return b->p;
}

}  // namespace

// Decodes the encoded words of a header text into UTF-8. Folded lines are
// joined (the line end before the white space goes, the white space stays).
// White space between two encoded words that both decode is dropped. Words
// that are malformed, or in a charset iconv doesn't know, stay as they are;
// bytes that are invalid in the word's charset become U+FFFD.
// The result is buf when it fits there with its NUL, else a heap string;
// a null text gives null.
char *charset_decode1522(const char *text, char *buf, size_t size)
{
    if (!text) return NULL;
    size_t n = strlen(text);
    // Most header texts have neither encoded words nor line ends.
    if (!strstr(text, "=?") && !memchr(text, '\n', n)) {
        if (buf && n + 1 <= size) {
            memcpy(buf, text, n + 1);
            return buf;
        }
        return xstrdup(text);
    }
    obuf out;
    ob_init(&out, n + 1);

    const char *p = text;
    while (*p) {
        if (p[0] == '=' && p[1] == '?') {
            const char *end;
            if (encoded_word(p, &out, &end)) {
                p = end;
                // Join a run of encoded words: the white space between
                // adjacent words is not part of the text.
                for (;;) {
                    const char *w = skip_lwsp(p);
                    if (w == p || w[0] != '=' || w[1] != '?') break;
                    if (!encoded_word(w, &out, &end)) break;
                    p = end;
                }
                continue;
            }
            ob_add(&out, p, 2);
            p += 2;
            continue;
        }
        if (p[0] == '\r' && p[1] == '\n' && (p[2] == ' ' || p[2] == '\t')) {
            p += 2;
            continue;
        }
        if (p[0] == '\n' && (p[1] == ' ' || p[1] == '\t')) {
            p++;
            continue;
        }
        ob_addc(&out, *p++);
    }
    return hand_out(&out, buf, size);
}

// Numbers of character sets, as the cache stores them in the high half of
// a section's charset word. The numbers are written into folders' cache
// records, so entries may only be added at the end of the table.
// 0 is US-ASCII, which is also what a text part without a charset has.
// A name that isn't known gives -1 (which the cache keeps as 0xFFFF).
namespace {
struct csname {
    const char *name;
    int number;
};

const csname kCharsets[] = {
    {"us-ascii", 0},      {"ascii", 0},          {"ansi_x3.4-1968", 0}, {"iso646-us", 0},
    {"us", 0},            {"utf-8", 1},          {"utf8", 1},           {"iso-8859-1", 2},
    {"iso8859-1", 2},     {"iso_8859-1", 2},     {"latin1", 2},         {"latin-1", 2},
    {"l1", 2},            {"cp819", 2},          {"iso-8859-2", 3},     {"iso8859-2", 3},
    {"iso_8859-2", 3},    {"latin2", 3},         {"iso-8859-3", 4},     {"iso_8859-3", 4},
    {"latin3", 4},        {"iso-8859-4", 5},     {"iso_8859-4", 5},     {"latin4", 5},
    {"iso-8859-5", 6},    {"iso_8859-5", 6},     {"cyrillic", 6},       {"iso-8859-6", 7},
    {"iso_8859-6", 7},    {"arabic", 7},         {"iso-8859-7", 8},     {"iso_8859-7", 8},
    {"greek", 8},         {"iso-8859-8", 9},     {"iso_8859-8", 9},     {"hebrew", 9},
    {"iso-8859-9", 10},   {"iso_8859-9", 10},    {"latin5", 10},        {"iso-8859-10", 11},
    {"latin6", 11},       {"iso-8859-13", 12},   {"latin7", 12},        {"iso-8859-14", 13},
    {"latin8", 13},       {"iso-8859-15", 14},   {"iso8859-15", 14},    {"iso_8859-15", 14},
    {"latin9", 14},       {"latin-9", 14},       {"iso-8859-16", 15},   {"latin10", 15},
    {"windows-1250", 16}, {"cp1250", 16},        {"windows-1251", 17},  {"cp1251", 17},
    {"windows-1252", 18}, {"cp1252", 18},        {"windows-1253", 19},  {"cp1253", 19},
    {"windows-1254", 20}, {"cp1254", 20},        {"windows-1255", 21},  {"cp1255", 21},
    {"windows-1256", 22}, {"cp1256", 22},        {"windows-1257", 23},  {"cp1257", 23},
    {"windows-1258", 24}, {"cp1258", 24},        {"koi8-r", 25},        {"koi8-u", 26},
    {"iso-2022-jp", 27},  {"euc-jp", 28},        {"shift_jis", 29},     {"shift-jis", 29},
    {"sjis", 29},         {"cp932", 29},         {"gb2312", 30},        {"euc-cn", 30},
    {"gbk", 31},          {"cp936", 31},         {"gb18030", 32},       {"big5", 33},
    {"big5-hkscs", 34},   {"euc-kr", 35},        {"ks_c_5601-1987", 35}, {"iso-2022-kr", 36},
    {"utf-7", 37},        {"utf-16", 38},        {"utf-16be", 39},      {"utf-16le", 40},
    {"iso-2022-cn", 41},  {"tis-620", 42},       {"windows-874", 43},   {"cp874", 43},
    {"cp850", 44},        {"ibm850", 44},        {"cp437", 45},         {"ibm437", 45},
    {"viscii", 46},       {"utf-32", 47},
};
}  // namespace

int charset_lookupname(const char *name)
{
    if (!name) return -1;
    for (size_t i = 0; i < sizeof(kCharsets) / sizeof(kCharsets[0]); i++)
        if (strcasecmp(name, kCharsets[i].name) == 0) return kCharsets[i].number;
    return -1;
}

// Local text to UTF-8. With a charset, iconv converts from it. A charset
// iconv doesn't know, or text that isn't valid in it, is logged and then
// handled as text of the local default: UTF-8 that is valid is copied as it
// is, anything else is taken as ISO-8859-1. So the result is always valid
// UTF-8. A null text gives null.
char *MCV_LocalToUTF8(const char *text, const char *charset)
{
    if (!text) return NULL;
    size_t n = strlen(text);
    obuf out;
    ob_init(&out, n + 1);
    if (charset && *charset) {
        int rc = charset_name_ok(charset, strlen(charset)) ? to_utf8(charset, text, n, &out, 0)
                                                            : -1;
        if (rc == 0) return out.p;
        if (rc == -1)
            svclog(0, 60, "Unknown character set %s; text taken as UTF-8 or ISO-8859-1",
                   charset);
        else
            svclog(0, 60, "Text is not valid in character set %s; taken as UTF-8 or ISO-8859-1",
                   charset);
    }
    if (utf8_valid_prefix((const unsigned char *)text, n) == n) {
        ob_add(&out, text, n);
        return out.p;
    }
    if (to_utf8("ISO-8859-1", text, n, &out, 1) != 0) {
        // iconv without ISO-8859-1 can't happen with glibc; keep the bytes.
        out.len = 0;
        ob_add(&out, text, n);
    }
    return out.p;
}

// The local character set is UTF-8: a copy.
char *MCV_UTF8ToLocal(const char *text, int flags)
{
    (void)flags;
    return text ? xstrdup(text) : NULL;
}

// Time zone names. sign '-' means behind (west of) Universal Time.
namespace {
struct zone {
    const char *name;
    char sign;
    int hours;
    int minutes;
};

const zone kZones[] = {
    // Universal
    {"UT", '+', 0, 0},
    {"UTC", '+', 0, 0},
    {"GMT", '+', 0, 0},
    {"Z", '+', 0, 0},
    // North America
    {"NST", '-', 3, 30},
    {"NDT", '-', 2, 30},
    {"AST", '-', 4, 0},
    {"ADT", '-', 3, 0},
    {"EST", '-', 5, 0},
    {"EDT", '-', 4, 0},
    {"CST", '-', 6, 0},
    {"CDT", '-', 5, 0},
    {"MST", '-', 7, 0},
    {"MDT", '-', 6, 0},
    {"PST", '-', 8, 0},
    {"PDT", '-', 7, 0},
    {"AKST", '-', 9, 0},
    {"AKDT", '-', 8, 0},
    {"HST", '-', 10, 0},
    {"HDT", '-', 9, 0},
    {"HAST", '-', 10, 0},
    {"HADT", '-', 9, 0},
    // Europe and Africa
    {"WET", '+', 0, 0},
    {"WEST", '+', 1, 0},
    {"BST", '+', 1, 0},
    {"CET", '+', 1, 0},
    {"CEST", '+', 2, 0},
    {"MET", '+', 1, 0},
    {"MEST", '+', 2, 0},
    {"MEZ", '+', 1, 0},
    {"MESZ", '+', 2, 0},
    {"EET", '+', 2, 0},
    {"EEST", '+', 3, 0},
    {"MSK", '+', 3, 0},
    {"MSD", '+', 4, 0},
    {"WAT", '+', 1, 0},
    {"CAT", '+', 2, 0},
    {"SAST", '+', 2, 0},
    {"EAT", '+', 3, 0},
    // Asia and Australia
    {"IST", '+', 5, 30},
    {"PKT", '+', 5, 0},
    {"ICT", '+', 7, 0},
    {"WIB", '+', 7, 0},
    {"HKT", '+', 8, 0},
    {"SGT", '+', 8, 0},
    {"PHT", '+', 8, 0},
    {"AWST", '+', 8, 0},
    {"JST", '+', 9, 0},
    {"KST", '+', 9, 0},
    {"ACST", '+', 9, 30},
    {"ACDT", '+', 10, 30},
    {"AEST", '+', 10, 0},
    {"AEDT", '+', 11, 0},
    {"NZST", '+', 12, 0},
    {"NZDT", '+', 13, 0},
};
}  // namespace

// Knows the names of the table above, in any case, and numeric offsets
// "+hhmm" / "-hhmm". The zone is the leading word of the text: what follows
// it (a year, a comment, the line end) is not looked at. 0 if unknown.
int MCV_TimeZoneToOffset(const char *zone, char *sign, int *hours, int *minutes)
{
    if (!zone) return 0;
    const char *p = zone;
    while (*p == ' ' || *p == '\t') p++;
    if ((*p == '+' || *p == '-') && isdigit((unsigned char)p[1]) &&
        isdigit((unsigned char)p[2]) && isdigit((unsigned char)p[3]) &&
        isdigit((unsigned char)p[4]) && !isdigit((unsigned char)p[5])) {
        int h = (p[1] - '0') * 10 + (p[2] - '0');
        int m = (p[3] - '0') * 10 + (p[4] - '0');
        if (m > 59) return 0;
        if (sign) *sign = p[0];
        if (hours) *hours = h;
        if (minutes) *minutes = m;
        return 1;
    }
    size_t n = 0;
    while (isalpha((unsigned char)p[n])) n++;
    if (n == 0 || n > 5) return 0;
    for (size_t i = 0; i < sizeof(kZones) / sizeof(kZones[0]); i++) {
        if (strlen(kZones[i].name) == n && strncasecmp(p, kZones[i].name, n) == 0) {
            if (sign) *sign = kZones[i].sign;
            if (hours) *hours = kZones[i].hours;
            if (minutes) *minutes = kZones[i].minutes;
            return 1;
        }
    }
    return 0;
}

// Generated messages. Their texts are UTF-8; they go out in the charset that
// mail in the reader's language customarily uses, so that older readers
// show them: plain ASCII as "us-ascii", text that the language's charset
// can represent in that charset, anything else as UTF-8. One function
// (choose) makes that decision from the text alone, and the charset name,
// the transfer encoding and both converters all ask it, so a header and a
// body made from the same text always agree.
namespace {
const size_t kMaxLine = 998;  // longest line a transport must take

enum mail_encoding { ENC_7BIT, ENC_QP, ENC_BASE64 };

// A language's mail charset (the MIME name, which iconv also knows), the
// encoding of its header words ('Q' where most characters are ASCII, 'B'
// where few are) and of a body in it. ISO-2022-JP is a 7-bit charset and
// travels as it is; the 8-bit charsets of the East Asian languages are
// mostly non-ASCII bytes, where base64 is the smaller encoding.
struct lang_charset {
    const char *lang;  // lower case, "-" between the parts
    const char *charset;
    char header;
    mail_encoding body;
};

const lang_charset kLangCharsets[] = {
    {"en", "iso-8859-1", 'Q', ENC_QP},     {"de", "iso-8859-1", 'Q', ENC_QP},
    {"fr", "iso-8859-1", 'Q', ENC_QP},     {"es", "iso-8859-1", 'Q', ENC_QP},
    {"it", "iso-8859-1", 'Q', ENC_QP},     {"nl", "iso-8859-1", 'Q', ENC_QP},
    {"pt", "iso-8859-1", 'Q', ENC_QP},     {"sv", "iso-8859-1", 'Q', ENC_QP},
    {"da", "iso-8859-1", 'Q', ENC_QP},     {"no", "iso-8859-1", 'Q', ENC_QP},
    {"nb", "iso-8859-1", 'Q', ENC_QP},     {"nn", "iso-8859-1", 'Q', ENC_QP},
    {"fi", "iso-8859-1", 'Q', ENC_QP},     {"is", "iso-8859-1", 'Q', ENC_QP},
    {"ca", "iso-8859-1", 'Q', ENC_QP},     {"gl", "iso-8859-1", 'Q', ENC_QP},
    {"eu", "iso-8859-1", 'Q', ENC_QP},     {"pl", "iso-8859-2", 'Q', ENC_QP},
    {"cs", "iso-8859-2", 'Q', ENC_QP},     {"sk", "iso-8859-2", 'Q', ENC_QP},
    {"hu", "iso-8859-2", 'Q', ENC_QP},     {"sl", "iso-8859-2", 'Q', ENC_QP},
    {"hr", "iso-8859-2", 'Q', ENC_QP},     {"ro", "iso-8859-2", 'Q', ENC_QP},
    {"el", "iso-8859-7", 'B', ENC_QP},     {"tr", "iso-8859-9", 'Q', ENC_QP},
    {"ru", "koi8-r", 'B', ENC_QP},         {"uk", "koi8-u", 'B', ENC_QP},
    {"bg", "windows-1251", 'B', ENC_QP},   {"ja", "iso-2022-jp", 'B', ENC_7BIT},
    {"zh", "gb2312", 'B', ENC_BASE64},     {"zh-cn", "gb2312", 'B', ENC_BASE64},
    {"zh-sg", "gb2312", 'B', ENC_BASE64},  {"zh-hans", "gb2312", 'B', ENC_BASE64},
    {"zh-tw", "big5", 'B', ENC_BASE64},    {"zh-hk", "big5", 'B', ENC_BASE64},
    {"zh-hant", "big5", 'B', ENC_BASE64},  {"ko", "euc-kr", 'B', ENC_BASE64},
};

// The entry of a language, in any case, "_" taken as "-"; a tag that has
// none falls back to its shorter forms ("de-CH" to "de"). Null for none.
const lang_charset *lang_lookup(const char *lang)
{
    if (!lang) return NULL;
    char tag[32];
    size_t n = 0;
    for (; lang[n] && n < sizeof tag - 1; n++)
        tag[n] = lang[n] == '_' ? '-' : (char)tolower((unsigned char)lang[n]);
    if (lang[n]) return NULL;  // no language tag is that long
    tag[n] = '\0';
    for (;;) {
        for (const lang_charset &e : kLangCharsets)
            if (strcmp(tag, e.lang) == 0) return &e;
        char *dash = strrchr(tag, '-');
        if (!dash) return NULL;
        *dash = '\0';
    }
}

// Converts inlen bytes of UTF-8 to charset and appends them to out,
// ending in the charset's initial shift state. 0, or -1 when iconv doesn't
// know the charset or the text has a character it can't represent (or
// isn't valid UTF-8); out is as before then.
int from_utf8(const char *charset, const char *in, size_t inlen, obuf *out)
{
    iconv_t cd = iconv_open(charset, "UTF-8");
    if (cd == (iconv_t)-1) return -1;
    size_t start_len = out->len;
    char *src = (char *)in;
    size_t left = inlen;
    int rc = 0, flushing = 0;
    ob_room(out, left * 4 + 16);
    for (;;) {
        char *dst = out->p + out->len;
        size_t room = out->cap - out->len - 1;
        size_t r = flushing ? iconv(cd, NULL, NULL, &dst, &room)
                            : iconv(cd, &src, &left, &dst, &room);
        out->len = (size_t)(dst - out->p);
        if (r == (size_t)-1 && errno == E2BIG) {
            ob_room(out, out->cap - out->len + 64);  // forces growth
            continue;
        }
        // iconv counts characters it could only approximate: not lossless.
        if (r != 0) {
            rc = -1;
            break;
        }
        if (flushing) break;
        flushing = 1;  // all input taken: back to the initial shift state
    }
    if (rc) out->len = start_len;
    out->p[out->len] = '\0';
    iconv_close(cd);
    return rc;
}

int has_long_line(const char *text)
{
    size_t line = 0;
    for (const char *p = text; *p; p++) {
        if (*p == '\n')
            line = 0;
        else if (*p != '\r' && ++line > kMaxLine)
            return 1;
    }
    return 0;
}

// How a text goes out in a language. With conv set, the text is converted
// to charset first; converted (when asked for) gets the converted bytes.
struct choice {
    const char *charset;
    mail_encoding body;
    char header;
    int conv;
};

choice choose(const char *lang, const char *text, obuf *converted)
{
    if (!text || is_ascii(text))
        return {"us-ascii", text && has_long_line(text) ? ENC_QP : ENC_7BIT, 'Q', 0};
    const lang_charset *e = lang_lookup(lang);
    if (e) {
        obuf raw;
        ob_init(&raw, strlen(text) + 16);
        if (from_utf8(e->charset, text, strlen(text), &raw) == 0) {
            choice c = {e->charset, e->body, e->header, 1};
            // A 7-bit charset still has to respect the transport's lines.
            if (c.body == ENC_7BIT && has_long_line(raw.p)) c.body = ENC_BASE64;
            if (converted)
                *converted = raw;
            else
                free(raw.p);
            return c;
        }
        free(raw.p);
    }
    return {"utf-8", ENC_QP, 'Q', 0};
}

// Characters that stand for themselves in a "Q" word of a header.
int q_plain(unsigned char c)
{
    return isalnum(c) || c == '!' || c == '*' || c == '+' || c == '-' || c == '/';
}

const char kHex[] = "0123456789ABCDEF";
const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void add_base64(const unsigned char *s, size_t n, obuf *out)
{
    for (size_t i = 0; i < n; i += 3) {
        unsigned int v = (unsigned int)s[i] << 16;
        if (i + 1 < n) v |= (unsigned int)s[i + 1] << 8;
        if (i + 2 < n) v |= s[i + 2];
        char q[4] = {kB64[v >> 18], kB64[(v >> 12) & 63], i + 1 < n ? kB64[(v >> 6) & 63] : '=',
                     i + 2 < n ? kB64[v & 63] : '='};
        ob_add(out, q, 4);
    }
}

// Length of the UTF-8 character that starts with c (1 for stray bytes).
size_t utf8_len(unsigned char c)
{
    if (c >= 0xF0 && c <= 0xF7) return 4;
    if (c >= 0xE0) return 3;
    if (c >= 0xC0) return 2;
    return 1;
}

// One encoded word of the UTF-8 text s[0..n) in the choice's charset,
// converted on its own so that it ends in the initial shift state, as a
// word of a stateful charset must.
void encoded_word_of(const choice &c, const char *s, size_t n, obuf *out)
{
    obuf raw;
    ob_init(&raw, n * 4 + 16);
    if (!c.conv || from_utf8(c.charset, s, n, &raw) != 0) ob_add(&raw, s, n);
    ob_adds(out, "=?");
    ob_adds(out, c.charset);
    ob_addc(out, '?');
    ob_addc(out, c.header);
    ob_addc(out, '?');
    if (c.header == 'B') {
        add_base64((const unsigned char *)raw.p, raw.len, out);
    } else {
        for (size_t i = 0; i < raw.len; i++) {
            unsigned char b = (unsigned char)raw.p[i];
            if (b == ' ') {
                ob_addc(out, '_');
            } else if (q_plain(b)) {
                ob_addc(out, (char)b);
            } else {
                char hex[3] = {'=', kHex[b >> 4], kHex[b & 15]};
                ob_add(out, hex, 3);
            }
        }
    }
    ob_adds(out, "?=");
    free(raw.p);
}

// Writes s[0..n) as encoded words of at most 75 bytes, separated by a
// space; a word ends between characters. Each word takes as many
// characters as fit, found by encoding one more at a time (words are short,
// and a stateful charset gives no other measure).
void encode_words(const choice &c, const char *s, size_t n, obuf *out)
{
    const size_t maxword = 75;
    size_t i = 0;
    while (i < n) {
        obuf best;
        ob_init(&best, 80);
        size_t end = i;
        while (end < n) {
            size_t next = end + utf8_len((unsigned char)s[end]);
            if (next > n) next = n;
            obuf cand;
            ob_init(&cand, 80);
            encoded_word_of(c, s + i, next - i, &cand);
            if (cand.len > maxword && end > i) {
                free(cand.p);
                break;
            }
            free(best.p);
            best = cand;
            end = next;
        }
        if (i > 0) ob_addc(out, ' ');
        ob_add(out, best.p, best.len);
        free(best.p);
        i = end;
    }
}

// A word of a header value must be encoded if it has 8-bit bytes, or if it
// would otherwise be read as an encoded word.
int word_needs_encoding(const char *s, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        if ((unsigned char)s[i] >= 0x80) return 1;
        if (s[i] == '=' && i + 1 < n && s[i + 1] == '?') return 1;
    }
    return 0;
}

void header_value(const choice &c, const char *text, obuf *out)
{
    const char *p = text;
    while (*p) {
        // White space between words is copied, unless it lies between two
        // words that are encoded: then it goes inside the encoded run.
        const char *ws = p;
        while (*p == ' ' || *p == '\t') p++;
        const char *w = p;
        while (*p && *p != ' ' && *p != '\t') p++;
        if (w == p) {
            ob_add(out, ws, (size_t)(p - ws));
            break;
        }
        if (!word_needs_encoding(w, (size_t)(p - w))) {
            ob_add(out, ws, (size_t)(p - ws));
            continue;
        }
        ob_add(out, ws, (size_t)(w - ws));
        // Extend the run over the following words that need encoding too.
        const char *run_end = p;
        for (;;) {
            const char *q = run_end;
            while (*q == ' ' || *q == '\t') q++;
            const char *w2 = q;
            while (*q && *q != ' ' && *q != '\t') q++;
            if (w2 == q || !word_needs_encoding(w2, (size_t)(q - w2))) break;
            run_end = q;
        }
        encode_words(c, w, (size_t)(run_end - w), out);
        p = run_end;
    }
}

// Quoted-printable body with CRLF line ends: at most 76 bytes a line, soft
// breaks "=" where a line is longer, white space before a line end encoded.
void body_qp(const char *text, obuf *out)
{
    size_t col = 0;
    const char *p = text;
    while (*p) {
        unsigned char c = (unsigned char)*p;
        if (c == '\r' && p[1] == '\n') {
            p++;
            continue;
        }
        if (c == '\n' || c == '\r') {
            ob_adds(out, "\r\n");
            col = 0;
            p++;
            continue;
        }
        int at_eol = p[1] == '\0' || p[1] == '\n' || (p[1] == '\r');
        char enc[3];
        size_t elen;
        if ((c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !at_eol)) {
            enc[0] = (char)c;
            elen = 1;
        } else {
            enc[0] = '=';
            enc[1] = kHex[c >> 4];
            enc[2] = kHex[c & 15];
            elen = 3;
        }
        // Room for a soft break "=" at the end of the line, unless this is
        // the last character of the line.
        size_t limit = at_eol ? 76 : 75;
        if (col + elen > limit) {
            ob_adds(out, "=\r\n");
            col = 0;
        }
        ob_add(out, enc, elen);
        col += elen;
        p++;
    }
}

// Text with CRLF line ends (a CR or LF alone counts as a line end too).
void body_7bit(const char *text, obuf *out)
{
    for (const char *p = text; *p; p++) {
        if (*p == '\r' && p[1] == '\n') continue;
        if (*p == '\n' || *p == '\r')
            ob_adds(out, "\r\n");
        else
            ob_addc(out, *p);
    }
}

// Base64 of the text with CRLF line ends (the canonical form of text),
// in lines of 76 characters, each ended by CRLF.
void body_base64(const char *text, obuf *out)
{
    obuf canon;
    ob_init(&canon, strlen(text) + 16);
    body_7bit(text, &canon);
    for (size_t i = 0; i < canon.len; i += 57) {
        size_t n = canon.len - i < 57 ? canon.len - i : 57;
        add_base64((const unsigned char *)canon.p + i, n, out);
        ob_adds(out, "\r\n");
    }
    free(canon.p);
}

// Size protocol of the two converters: with buf null and size -1 the length
// of the result (without a NUL) is returned; otherwise the result is
// written when it fits into size bytes, with a NUL behind it when there is
// room for one, and its length is returned; -1 if it doesn't fit.
int deliver(obuf *out, char *buf, int size)
{
    int len = out->len > (size_t)0x7FFFFFFF ? -1 : (int)out->len;
    if (len < 0) {
        free(out->p);
        return -1;
    }
    if (!buf) {
        free(out->p);
        return size == -1 ? len : -1;
    }
    if (size < len) {
        free(out->p);
        return -1;
    }
    memcpy(buf, out->p, out->len);
    if (size > len) buf[len] = '\0';
    free(out->p);
    return len;
}

const char *encoding_name(mail_encoding e)
{
    return e == ENC_7BIT ? "7bit" : e == ENC_BASE64 ? "base64" : "quoted-printable";
}
}  // namespace

const char *MCV_InternetMessageCharset(const char *lang, const char *text, const char *def,
                                       int flags)
{
    (void)def;
    (void)flags;
    return choose(lang, text, NULL).charset;
}

const char *MCV_InternetMessageContentTransferEncoding(const char *lang, const char *text,
                                                       const char *def)
{
    (void)def;
    return encoding_name(choose(lang, text, NULL).body);
}

int MCV_UTF8ToInternetMessageHeader(const char *lang, const char *text, char *buf, int size)
{
    obuf out;
    ob_init(&out, text ? strlen(text) * 3 + 16 : 16);
    if (text) header_value(choose(lang, text, NULL), text, &out);
    return deliver(&out, buf, size);
}

int MCV_UTF8ToInternetMessageBody(const char *lang, const char *text, char *buf, int size,
                                  int flags, int reserved)
{
    (void)flags;
    (void)reserved;
    obuf out;
    ob_init(&out, text ? strlen(text) * 3 + 16 : 16);
    if (text) {
        obuf raw = {NULL, 0, 0};
        choice c = choose(lang, text, &raw);
        const char *bytes = c.conv ? raw.p : text;
        if (c.body == ENC_QP)
            body_qp(bytes, &out);
        else if (c.body == ENC_BASE64)
            body_base64(bytes, &out);
        else
            body_7bit(bytes, &out);
        free(raw.p);
    }
    return deliver(&out, buf, size);
}

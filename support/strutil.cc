// String helpers: ASCII case changes, bounded copies, IMAP atoms, UTF-8
// decoding and the modified UTF-7 encoding of folder names.
#include "support/strutil.h"

#include <string.h>

char *lcase(char *s) {
    for (char *p = s; *p; p++)
        if (*p >= 'A' && *p <= 'Z') *p = (char)(*p - 'A' + 'a');
    return s;
}

char *str_toupper(char *s) {
    for (char *p = s; *p; p++)
        if (*p >= 'a' && *p <= 'z') *p = (char)(*p - 'a' + 'A');
    return s;
}

size_t store_strlcpy(char *dst, const char *src, size_t size) {
    size_t len = strlen(src);
    if (size > 0) {
        size_t n = len < size - 1 ? len : size - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

int imparse_isatom(const char *s) {
    if (!s || !*s) return 0;
    for (const unsigned char *p = (const unsigned char *)s; *p; p++) {
        unsigned char c = *p;
        if (c < 0x20 || c >= 0x7f) return 0;
        switch (c) {
            case '(': case ')': case '{': case ' ': case '%':
            case '*': case '"': case '\\': case ']':
                return 0;
            default:
                break;
        }
    }
    return 1;
}

// Decodes one UTF-8 sequence strictly: no overlong forms, no encoded
// surrogates, nothing above U+10FFFF. Returns the length of the sequence
// and stores the code point, or returns 0 if the bytes at s are not a
// valid sequence (the NUL terminator included).
static int utf8_decode(const unsigned char *s, unsigned long *cp) {
    unsigned char c = s[0];
    if (c < 0x80) {
        *cp = c;
        return c ? 1 : 0;
    }
    int len;
    unsigned long v, min;
    if ((c & 0xe0) == 0xc0) {
        len = 2; v = c & 0x1f; min = 0x80;
    } else if ((c & 0xf0) == 0xe0) {
        len = 3; v = c & 0x0f; min = 0x800;
    } else if ((c & 0xf8) == 0xf0) {
        len = 4; v = c & 0x07; min = 0x10000;
    } else {
        return 0;
    }
    for (int i = 1; i < len; i++) {
        if ((s[i] & 0xc0) != 0x80) return 0;
        v = (v << 6) | (s[i] & 0x3f);
    }
    if (v < min || v > 0x10ffff || (v >= 0xd800 && v <= 0xdfff)) return 0;
    *cp = v;
    return len;
}

int UtfToUniChar(const char *src, uint16_t *out) {
    const unsigned char *s = (const unsigned char *)src;
    if (*s == 0) {
        *out = 0;
        return 0;
    }
    unsigned long cp;
    int len = utf8_decode(s, &cp);
    if (len > 0) {
        *out = cp > 0xffff ? (uint16_t)0xfffd : (uint16_t)cp;
        return len;
    }
    // Malformed: skip the lead byte and any continuation bytes that
    // directly follow it, so that one bad sequence gives one U+FFFD.
    int n = 1;
    while (n < 4 && (s[n] & 0xc0) == 0x80) n++;
    *out = 0xfffd;
    return n;
}

// ---------------------------------------------------------------------
// Modified UTF-7: printable ASCII stands for itself, "&" is written "&-",
// everything else is UTF-16 in a base64 variant (with "," for "/") between
// "&" and "-". The decoder accepts only the one canonical form, so that
// each folder name has exactly one encoding.

static const char b64chars[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

static int b64value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == ',') return 63;
    return -1;
}

// Output cursor that remembers overflow; the last byte is kept for the NUL.
struct outbuf {
    char *p;
    size_t left;  // bytes still free, the terminator's byte excluded
    int overflow;
};

static void out_byte(struct outbuf *o, char c) {
    if (o->left == 0) {
        o->overflow = 1;
        return;
    }
    *o->p++ = c;
    o->left--;
}

int mutf7_fromutf8(const char *utf8, char *buf, size_t size) {
    if (size == 0) return -1;
    struct outbuf o = {buf, size - 1, 0};
    const unsigned char *s = (const unsigned char *)utf8;
    int inbase64 = 0;
    unsigned long bits = 0;
    int nbits = 0;

    while (*s) {
        unsigned long cp;
        int len = utf8_decode(s, &cp);
        if (len == 0) {
            buf[0] = '\0';
            return -1;
        }
        s += len;
        if (cp >= 0x20 && cp <= 0x7e) {
            if (inbase64) {
                if (nbits > 0) out_byte(&o, b64chars[(bits << (6 - nbits)) & 0x3f]);
                out_byte(&o, '-');
                inbase64 = 0;
                bits = 0;
                nbits = 0;
            }
            out_byte(&o, (char)cp);
            if (cp == '&') out_byte(&o, '-');
            continue;
        }
        if (!inbase64) {
            out_byte(&o, '&');
            inbase64 = 1;
        }
        unsigned units[2];
        int nunits = 0;
        if (cp > 0xffff) {
            cp -= 0x10000;
            units[nunits++] = 0xd800 + (unsigned)(cp >> 10);
            units[nunits++] = 0xdc00 + (unsigned)(cp & 0x3ff);
        } else {
            units[nunits++] = (unsigned)cp;
        }
        for (int i = 0; i < nunits; i++) {
            bits = (bits << 16) | units[i];
            nbits += 16;
            while (nbits >= 6) {
                nbits -= 6;
                out_byte(&o, b64chars[(bits >> nbits) & 0x3f]);
            }
            bits &= (1UL << nbits) - 1;
        }
    }
    if (inbase64) {
        if (nbits > 0) out_byte(&o, b64chars[(bits << (6 - nbits)) & 0x3f]);
        out_byte(&o, '-');
    }
    *o.p = '\0';
    if (o.overflow) return -1;
    return 0;
}

static void out_utf8(struct outbuf *o, unsigned long cp) {
    if (cp < 0x80) {
        out_byte(o, (char)cp);
    } else if (cp < 0x800) {
        out_byte(o, (char)(0xc0 | (cp >> 6)));
        out_byte(o, (char)(0x80 | (cp & 0x3f)));
    } else if (cp < 0x10000) {
        out_byte(o, (char)(0xe0 | (cp >> 12)));
        out_byte(o, (char)(0x80 | ((cp >> 6) & 0x3f)));
        out_byte(o, (char)(0x80 | (cp & 0x3f)));
    } else {
        out_byte(o, (char)(0xf0 | (cp >> 18)));
        out_byte(o, (char)(0x80 | ((cp >> 12) & 0x3f)));
        out_byte(o, (char)(0x80 | ((cp >> 6) & 0x3f)));
        out_byte(o, (char)(0x80 | (cp & 0x3f)));
    }
}

int mutf7_toutf8(const char *mutf7, char *buf, size_t size) {
    if (size == 0) return -1;
    struct outbuf o = {buf, size - 1, 0};
    const unsigned char *s = (const unsigned char *)mutf7;

    while (*s) {
        unsigned char c = *s;
        if (c < 0x20 || c > 0x7e) goto bad;
        if (c != '&') {
            out_byte(&o, (char)c);
            s++;
            continue;
        }
        s++;
        if (*s == '-') {  // "&-" is the ampersand itself
            out_byte(&o, '&');
            s++;
            continue;
        }
        // A shifted run: base64 up to "-", which must be there.
        {
            unsigned long bits = 0;
            int nbits = 0;
            unsigned long high = 0;  // pending high surrogate, 0 if none
            int nchars = 0;
            int v;
            while ((v = b64value(*s)) >= 0) {
                bits = (bits << 6) | (unsigned long)v;
                nbits += 6;
                nchars++;
                s++;
                if (nbits >= 16) {
                    nbits -= 16;
                    unsigned long u = (bits >> nbits) & 0xffff;
                    bits &= (1UL << nbits) - 1;
                    if (high) {
                        if (u < 0xdc00 || u > 0xdfff) goto bad;
                        out_utf8(&o, 0x10000 + ((high - 0xd800) << 10) + (u - 0xdc00));
                        high = 0;
                    } else if (u >= 0xd800 && u <= 0xdbff) {
                        high = u;
                    } else if (u >= 0xdc00 && u <= 0xdfff) {
                        goto bad;  // low surrogate without a high one
                    } else if (u == 0 || (u >= 0x20 && u <= 0x7e)) {
                        goto bad;  // NUL, or ASCII that must stand as itself
                    } else {
                        out_utf8(&o, u);
                    }
                }
            }
            if (*s != '-') goto bad;  // unterminated run or a foreign byte
            s++;
            // The run must hold whole UTF-16 units: fewer than 6 bits may
            // be left over, and they must be zero. A pair may not be split.
            if (nchars == 0 || nbits >= 6 || bits != 0 || high) goto bad;
        }
    }
    *o.p = '\0';
    if (o.overflow) return -1;
    return 0;

bad:
    buf[0] = '\0';
    return -1;
}

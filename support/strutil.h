// String helpers: case changes, bounded copies, IMAP atoms, UTF-8 decoding
// and modified UTF-7 (the folder name encoding of RFC 3501).
#ifndef SUPPORT_STRUTIL_H
#define SUPPORT_STRUTIL_H

#include <stddef.h>
#include <stdint.h>

char *lcase(char *s);
char *str_toupper(char *s);

// Copies at most size-1 bytes and always terminates (if size > 0).
// Returns strlen(src), so a result >= size means truncation.
size_t store_strlcpy(char *dst, const char *src, size_t size);
#ifndef strlcpy
#define strlcpy store_strlcpy
#endif

// Non-zero if s is a valid IMAP atom: not empty, no control characters,
// no 8-bit bytes, none of the specials ( ) { SPACE % * " \ ].
int imparse_isatom(const char *s);

// Decodes one UTF-8 sequence at src into *out (UTF-16 code unit; characters
// beyond the basic plane and malformed sequences give U+FFFD). Returns the
// number of bytes consumed; at the terminating NUL it stores 0 and returns 0.
int UtfToUniChar(const char *src, uint16_t *out);

// UTF-8 -> modified UTF-7. Returns 0 on success, -1 if the result does not
// fit into size bytes (terminator included) or the input is not UTF-8.
int mutf7_fromutf8(const char *utf8, char *buf, size_t size);

// Modified UTF-7 -> UTF-8. Returns 0 on success, -1 if the input is not
// valid modified UTF-7 or the result does not fit.
int mutf7_toutf8(const char *mutf7, char *buf, size_t size);

#endif

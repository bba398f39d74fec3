// Character set conversion (through iconv), decoding of encoded words in
// headers (RFC 2047), time zone names, and the encoding of the messages
// that the store generates. The local character set is UTF-8.
#ifndef SUPPORT_CHARSET_H
#define SUPPORT_CHARSET_H

#include <stddef.h>

// Decodes the encoded words of a header text into UTF-8 and unfolds it.
// Returns buf if the result fits there (NUL included), else a heap string
// (always with a null buf); null for a null text.
char *charset_decode1522(const char *text, char *buf, size_t size);
// Stable number of a character set name, in any case, aliases included:
// 0 is US-ASCII; -1 for a name that isn't known.
int charset_lookupname(const char *name);

// Heap UTF-8 copy of text in charset (null: the local default, UTF-8, with
// bytes that aren't UTF-8 taken as ISO-8859-1). Null for a null text.
char *MCV_LocalToUTF8(const char *text, const char *charset);
// Heap copy in the local character set (UTF-8, so a plain copy).
char *MCV_UTF8ToLocal(const char *text, int flags);
// Non-zero if the zone (a name such as "EST" or "+0130", possibly followed
// by other text) is known; sign '-' means behind Universal Time.
int MCV_TimeZoneToOffset(const char *zone, char *sign, int *hours, int *minutes);
// "us-ascii" for plain ASCII text, else "utf-8".
const char *MCV_InternetMessageCharset(const char *lang, const char *text,
                                       const char *def, int flags);
// "7bit" for plain ASCII text with lines of at most 998 bytes, else
// "quoted-printable"; the body converter makes the same choice.
const char *MCV_InternetMessageContentTransferEncoding(const char *lang, const char *text,
                                                       const char *def);
// Header value with encoded words for the words that need them. With buf
// null and size -1: the length of the result. Otherwise the length written
// (a NUL follows when there is room), or -1 if it doesn't fit.
int MCV_UTF8ToInternetMessageHeader(const char *lang, const char *text, char *buf, int size);
// Body in the transfer encoding chosen above, CRLF line ends; the same size
// protocol as the header converter.
int MCV_UTF8ToInternetMessageBody(const char *lang, const char *text, char *buf, int size,
                                  int a, int b);

#endif

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
// ---- generated messages ----------------------------------------------
//
// A generated message (its text is UTF-8) goes out in the charset that mail
// in the reader's language customarily uses: "us-ascii" for plain ASCII
// text; the language's charset when it can represent every character of
// the text (German in "iso-8859-1", Russian in "koi8-r", Japanese in
// "iso-2022-jp", ...); otherwise "utf-8". lang is a language tag in any
// case ("de", "de-CH", "zh_TW"); a tag without an entry of its own takes
// that of its first part, and a null or unknown one has none. The decision
// depends on lang and text alone, so the charset, the transfer encoding and
// the converted body agree when they are given the same text. def and
// flags are accepted for the callers' sake; the fallback is always UTF-8.

// The charset name for a body of text in lang (static string).
const char *MCV_InternetMessageCharset(const char *lang, const char *text,
                                       const char *def, int flags);
// The transfer encoding of that body (static string): "7bit" for ASCII text
// with lines of at most 998 bytes and for ISO-2022-JP text, "base64" for the
// 8-bit charsets of Chinese and Korean, else "quoted-printable".
const char *MCV_InternetMessageContentTransferEncoding(const char *lang, const char *text,
                                                       const char *def);
// Header value with encoded words of at most 75 bytes, in the charset
// chosen for the value, for the words that need them (8-bit bytes, or text
// that would read as an encoded word); "Q" words, or "B" for the languages
// whose text is mostly non-ASCII. Each word of a stateful charset ends in
// its initial state. With buf null and size -1: the length of the result.
// Otherwise the length written (a NUL follows when there is room), or -1 if
// it doesn't fit.
int MCV_UTF8ToInternetMessageHeader(const char *lang, const char *text, char *buf, int size);
// Body converted to the chosen charset and transfer encoding, CRLF line
// ends; the same size protocol as the header converter. Callers pass 0 for
// flags and reserved.
int MCV_UTF8ToInternetMessageBody(const char *lang, const char *text, char *buf, int size,
                                  int flags, int reserved);

#endif

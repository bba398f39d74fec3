// The message module: parsing of messages and of their header fields.
#ifndef STORE_MESSAGE_H
#define STORE_MESSAGE_H

#include <time.h>

// Moves *text past white space and comments of a header field; sets it to
// null when the field ends (a line end not followed by blank, or a NUL).
void message_parse_rfc822space(const char **text);

// Reads an RFC 822 date ("Tue, 5 Nov 2002 10:20:30 -0800") up to the end of
// its field. Never fails: a date that can't be read gives the current time.
time_t message_parse_date(const char *text);

#endif

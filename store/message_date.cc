// Dates and white space of header fields.
#include <ctype.h>
#include <string.h>
#include <time.h>

#include "store/message.h"
#include "support/charset.h"
#include "support/timeutil.h"

void message_parse_rfc822space(const char **text) {
    const char *p = *text;
    if (!p) return;
    for (;;) {
        char c = *p;
        if (c == ' ' || c == '\t' || c == '\r') {
            p++;
        } else if (c == '\n') {
            if (p[1] == ' ' || p[1] == '\t') {
                p += 2;
            } else {
                *text = nullptr;
                return;
            }
        } else if (c == '(') {
            int depth = 1;
            p++;
            while (depth) {
                c = *p;
                if (c == '\0') {
                    *text = nullptr;
                    return;
                }
                if (c == '(') {
                    depth++;
                } else if (c == ')') {
                    depth--;
                } else if (c == '\\') {
                    if (p[1] == '\0') {
                        *text = nullptr;
                        return;
                    }
                    p++;
                } else if (c == '\n') {
                    if (p[1] != ' ' && p[1] != '\t') {
                        *text = nullptr;
                        return;
                    }
                }
                p++;
            }
        } else if (c == '\0') {
            *text = nullptr;
            return;
        } else {
            *text = p;
            return;
        }
    }
}

// Reads one or two digits; returns -1 if there is no digit at p.
static int read_small(const char *&p) {
    if (!isdigit((unsigned char)*p)) return -1;
    int v = *p++ - '0';
    if (isdigit((unsigned char)*p)) v = v * 10 + (*p++ - '0');
    return v;
}

time_t message_parse_date(const char *text) {
    static const char months[12][4] = {"jan", "feb", "mar", "apr", "may", "jun",
                                       "jul", "aug", "sep", "oct", "nov", "dec"};
    struct tm tm;
    memset(&tm, 0, sizeof(tm));
    const char *p = text;
    int zone_hours = 0, zone_minutes = 0;

    message_parse_rfc822space(&p);
    if (!p) return time(nullptr);

    if (isalpha((unsigned char)*p)) {
        // Day of the week: three letters and a comma.
        if (!isalpha((unsigned char)p[1]) || !isalpha((unsigned char)p[2])) return time(nullptr);
        p += 3;
        message_parse_rfc822space(&p);
        if (!p || *p != ',') return time(nullptr);
        p++;
        message_parse_rfc822space(&p);
        if (!p) return time(nullptr);
    }

    tm.tm_mday = read_small(p);
    if (tm.tm_mday < 0) return time(nullptr);
    message_parse_rfc822space(&p);
    if (!p) return time(nullptr);

    char mon[4];
    for (int i = 0; i < 3; i++) {
        if (!isalpha((unsigned char)p[i])) return time(nullptr);
        mon[i] = (char)tolower((unsigned char)p[i]);
    }
    mon[3] = '\0';
    p += 3;
    int m;
    for (m = 0; m < 12 && strcmp(mon, months[m]) != 0; m++) {
    }
    if (m == 12) return time(nullptr);
    tm.tm_mon = m;
    message_parse_rfc822space(&p);
    if (!p) return time(nullptr);

    int ndigits = 0, year = 0;
    while (ndigits < 4 && isdigit((unsigned char)p[ndigits])) year = year * 10 + (p[ndigits++] - '0');
    if (ndigits < 2) return time(nullptr);
    if (ndigits == 2) {
        tm.tm_year = year < 50 ? year + 100 : year;
    } else if (ndigits == 3) {
        tm.tm_year = year;
    } else {
        if (year / 10 < 190) return time(nullptr);
        tm.tm_year = year - 1900;
    }
    p += ndigits;
    while (isdigit((unsigned char)*p)) p++;  // digits behind the fourth are not read

    tm.tm_hour = 12;
    tm.tm_isdst = -1;
    message_parse_rfc822space(&p);
    if (!p) return mktime(&tm);

    if ((tm.tm_hour = read_small(p)) < 0) return time(nullptr);
    if (*p) p++;  // the separator, normally ":"
    if ((tm.tm_min = read_small(p)) < 0) return time(nullptr);
    if (*p) p++;
    if ((tm.tm_sec = read_small(p)) < 0) return time(nullptr);

    message_parse_rfc822space(&p);
    if (!p) return mktime(&tm);

    if (*p == '-' || *p == '+' || isdigit((unsigned char)*p)) {
        int sign = 1;
        if (*p == '-') sign = -1;
        if (*p == '-' || *p == '+') p++;
        for (int i = 0; i < 4; i++)
            if (!isdigit((unsigned char)p[i])) return time(nullptr);
        zone_hours = sign * ((p[0] - '0') * 10 + (p[1] - '0'));
        zone_minutes = sign * ((p[2] - '0') * 10 + (p[3] - '0'));
    } else if (!strncasecmp(p, "EDT", 3)) {
        zone_hours = -4;
    } else if (!strncasecmp(p, "EST", 3) || !strncasecmp(p, "CDT", 3)) {
        zone_hours = -5;
    } else if (!strncasecmp(p, "CST", 3) || !strncasecmp(p, "MDT", 3)) {
        zone_hours = -6;
    } else if (!strncasecmp(p, "MST", 3) || !strncasecmp(p, "PDT", 3)) {
        zone_hours = -7;
    } else if (!strncasecmp(p, "PST", 3)) {
        zone_hours = -8;
    } else if (!strncasecmp(p, "GMT", 3) || !strncasecmp(p, "UT", 2)) {
        zone_hours = 0;
    } else {
        // The zone name ends at the end of its word.
        char name[32];
        size_t n = 0;
        while (n < sizeof(name) - 1 && p[n] && !isspace((unsigned char)p[n]) && p[n] != '(') {
            name[n] = p[n];
            n++;
        }
        name[n] = '\0';
        char sign = '+';
        int h = 0, mi = 0;
        if (MCV_TimeZoneToOffset(name, &sign, &h, &mi)) {
            zone_hours = sign == '-' ? -h : h;
            zone_minutes = mi;
        }
    }

    tm.tm_hour -= zone_hours;
    tm.tm_min -= zone_minutes;
    mktime(&tm);
    return mkgmtime(&tm);
}

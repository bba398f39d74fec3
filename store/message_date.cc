// Dates and white space of header fields.
#include <ctype.h>
#include <string.h>
#include <strings.h>
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

int message_parse_zone(const char *text, size_t len, int *minutes) {
    // Zones of North America and Universal Time by their first letters, as
    // mail programs have long written them.
    static const struct {
        const char *name;
        size_t n;
        int hours;
    } table[] = {{"EDT", 3, -4}, {"EST", 3, -5}, {"CDT", 3, -5}, {"CST", 3, -6},
                 {"MDT", 3, -6}, {"MST", 3, -7}, {"PDT", 3, -7}, {"PST", 3, -8},
                 {"GMT", 3, 0},  {"UT", 2, 0}};
    *minutes = 0;
    if (len == 0 || !*text) return 1;

    size_t i = 0;
    int sign = 1;
    if (*text == '+' || *text == '-') {
        sign = *text == '-' ? -1 : 1;
        i = 1;
    }
    if (i == 1 || isdigit((unsigned char)*text)) {
        if (len < i + 4) return 0;
        for (size_t k = i; k < i + 4; k++)
            if (!isdigit((unsigned char)text[k])) return 0;
        int hours = (text[i] - '0') * 10 + (text[i + 1] - '0');
        *minutes = sign * (hours * 60 + (text[i + 2] - '0') * 10 + (text[i + 3] - '0'));
        return 1;
    }

    for (const auto &z : table) {
        if (len >= z.n && !strncasecmp(text, z.name, z.n)) {
            *minutes = z.hours * 60;
            return 1;
        }
    }
    // Any other name is the word up to a blank or a comment.
    char name[32];
    size_t n = 0;
    while (n < len && n < sizeof(name) - 1 && text[n] && !isspace((unsigned char)text[n]) &&
           text[n] != '(') {
        name[n] = text[n];
        n++;
    }
    name[n] = '\0';
    char zsign = '+';
    int h = 0, m = 0;
    if (MCV_TimeZoneToOffset(name, &zsign, &h, &m)) *minutes = (zsign == '-' ? -1 : 1) * (h * 60 + m);
    return 1;
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

    int zone;
    if (!message_parse_zone(p, (size_t)-1, &zone)) return time(nullptr);
    // The fields hold Universal Time now, out of range at times; mkgmtime
    // brings them into range by calendar arithmetic. mktime would apply the
    // local zone's daylight saving rules to them.
    tm.tm_min -= zone;
    return mkgmtime(&tm);
}

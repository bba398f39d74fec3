// Time helpers. mkgmtime works by calendar arithmetic alone, so it neither
// reads nor changes the process's time zone.
#include "support/timeutil.h"

// Days from 1970-01-01 to the given date of the proleptic Gregorian
// calendar (month 1..12, day 1..31; negative before 1970).
static long long days_from_civil(long long y, unsigned m, unsigned d) {
    y -= m <= 2;
    long long era = (y >= 0 ? y : y - 399) / 400;
    unsigned yoe = (unsigned)(y - era * 400);                      // [0, 399]
    unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;  // [0, 365]
    unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;           // [0, 146096]
    return era * 146097 + (long long)doe - 719468;
}

static long long floor_div(long long a, long long b) {
    long long q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) q--;
    return q;
}

time_t mkgmtime(struct tm *tm) {
    // Months beyond 0..11 move the year; every other field is added as a
    // plain count of its unit, which normalises days, hours, minutes and
    // seconds at once.
    long long mon = tm->tm_mon;
    long long year = (long long)tm->tm_year + 1900 + floor_div(mon, 12);
    mon -= floor_div(mon, 12) * 12;
    long long days = days_from_civil(year, (unsigned)mon + 1, 1) + (long long)tm->tm_mday - 1;
    long long t = days * 86400 + (long long)tm->tm_hour * 3600 + (long long)tm->tm_min * 60 +
                  (long long)tm->tm_sec;
    time_t result = (time_t)t;
    if ((long long)result != t) return (time_t)-1;
    // Like timegm, leave the fields normalised, with weekday and day of year.
    struct tm norm;
    if (gmtime_r(&result, &norm)) *tm = norm;
    return result;
}

struct tm *mtgmtime(const time_t *t, struct tm *buf) { return gmtime_r(t, buf); }

struct tm *mtlocaltime(const time_t *t, struct tm *buf) { return localtime_r(t, buf); }

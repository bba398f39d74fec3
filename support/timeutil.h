// Time helpers that are safe to call from several threads.
#ifndef SUPPORT_TIMEUTIL_H
#define SUPPORT_TIMEUTIL_H

#include <time.h>

// Seconds since the epoch, taking the fields of tm as Universal Time.
// Out-of-range fields are normalised the way mktime does.
time_t mkgmtime(struct tm *tm);
struct tm *mtgmtime(const time_t *t, struct tm *buf);
struct tm *mtlocaltime(const time_t *t, struct tm *buf);

#endif

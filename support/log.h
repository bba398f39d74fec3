// The store's log: one file per log in the instance's log directory, one
// line per entry: time, program name, process id, level, text.
// Levels: the low three bits are a syslog severity (2 critical, 3 error,
// 4 warning, 5 notice, 6 information, 7 debug); the bits above are 0 or the
// store's facility 7 (so 59 is an error of the store).
#ifndef SUPPORT_LOG_H
#define SUPPORT_LOG_H

#include <stdarg.h>

#define SVCLOG_ECHO_ERRORS 2  // also copy entries of severity 3 or worse to stderr

typedef struct svclog_handle svclog_handle;

void svclog(svclog_handle *h, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void svclogv(svclog_handle *h, int level, const char *fmt, va_list ap);
void svclog_setoptions(int flags);
// Entries with a severity number above maxseverity are dropped; 7 keeps all.
// configmsg_initlog sets it from the key local.loglevel.
void svclog_setlevel(int maxseverity);
svclog_handle *svclog_getdefault(void);
// Opens a second log named name ("msgtrace"): <logdir>/<name>.log. Asking
// again for the same name gives the same handle. Null if it can't be opened
// (entries for a null handle go to the default log).
svclog_handle *config_initlog_auxiliary(const char *name, const char *progname);

// Opens the default log on an explicit file (configmsg_initlog calls this).
int svclog_open(const char *path, const char *progname);
// Closes the default log and the auxiliary logs; entries go to standard
// error until a log is opened again.
void svclog_close(void);

#endif

// Signal handling: signals are recorded when they arrive and polled by the
// program at safe points. While a critical operation runs
// (signals_critical_begin/end), an arriving signal prints the text given at
// installation to standard error, to tell that it takes effect later.
#ifndef SUPPORT_SIGNALS_H
#define SUPPORT_SIGNALS_H

#include <sys/types.h>

// 0 for success, -1 for a signal that can't be caught.
int set_signal_handler(int sig, const char *text);
int check_signal_handler(int sig);
void signals_critical_begin(void);
void signals_critical_end(void);
void signals_reset(int sig);  // forget an arrival (tests, daemons)
// Runs fn and gives its result. If the fault signal sig (such as SIGBUS)
// arrives while fn runs, fn is abandoned: the result is -1 and *faulted is
// set. Whatever fn was building is then in an unknown state; the caller
// logs and ends the process without using it. The former handling of sig
// is in place again when this returns.
int signals_run_guarded(int sig, int (*fn)(void), int *faulted);
// Raises the soft limit of open descriptors to count, or to the hard limit
// if that is lower; never lowers it. 0 for success, -1 if refused.
int setmaxfd(int count);
pid_t process_id(void);

#endif

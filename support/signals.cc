// Signal handling by recording: a handler only notes that its signal came,
// and the program polls check_signal_handler at points where stopping is
// safe. Handlers are installed with SA_RESTART, so a blocking read or write
// goes on after a signal instead of failing with EINTR; the program sees
// the signal at its next poll.
//
// While a critical section is open, an arriving signal also writes the
// text given at installation to standard error (with write(2), which is
// async-signal-safe), to tell the operator that it takes effect later.
#include "support/signals.h"

#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#define DELAYED_TEXT_MAX 256

static volatile sig_atomic_t arrived[NSIG];
static volatile sig_atomic_t critical_depth;
// The texts live in fixed buffers, so that installing a handler needs no
// allocation; a text is changed only while its signal is blocked, so a
// handler never sees a half-written one.
static char delayed_text[NSIG][DELAYED_TEXT_MAX];
static volatile size_t delayed_len[NSIG];

static void record_signal(int sig) {
    int saved = errno;
    if (sig > 0 && sig < NSIG) {
        arrived[sig] = 1;
        if (critical_depth > 0 && delayed_len[sig] > 0) {
            ssize_t r = write(2, delayed_text[sig], delayed_len[sig]);
            (void)r;
        }
    }
    errno = saved;
}

int set_signal_handler(int sig, const char *text) {
    if (sig <= 0 || sig >= NSIG) return -1;
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, sig);
    sigprocmask(SIG_BLOCK, &block, &old);
    size_t len = text ? strlen(text) : 0;
    if (len >= DELAYED_TEXT_MAX) len = DELAYED_TEXT_MAX - 1;
    if (len) memcpy(delayed_text[sig], text, len);
    delayed_text[sig][len] = '\0';
    delayed_len[sig] = len;

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = record_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    int rc = sigaction(sig, &sa, nullptr) == 0 ? 0 : -1;
    int err = errno;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return rc;
}

int check_signal_handler(int sig) {
    if (sig <= 0 || sig >= NSIG) return 0;
    return arrived[sig] != 0;
}

void signals_reset(int sig) {
    if (sig > 0 && sig < NSIG) arrived[sig] = 0;
}

void signals_critical_begin(void) { critical_depth = critical_depth + 1; }

void signals_critical_end(void) {
    if (critical_depth > 0) critical_depth = critical_depth - 1;
}

// A fault raised by the guarded code returns from the fault at the point
// where signals_run_guarded began, instead of killing the process.
static sigjmp_buf guard_jump;

static void jump_out(int) { siglongjmp(guard_jump, 1); }

int signals_run_guarded(int sig, int (*fn)(void), int *faulted) {
    *faulted = 0;
    struct sigaction sa, old;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = jump_out;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, &old) != 0) return fn();
    int r;
    if (sigsetjmp(guard_jump, 1) == 0) {
        r = fn();
    } else {
        *faulted = 1;
        r = -1;
    }
    sigaction(sig, &old, nullptr);
    return r;
}

int setmaxfd(int count) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return -1;
    if (count <= 0 || rl.rlim_cur == RLIM_INFINITY) return 0;
    rlim_t want = (rlim_t)count;
    if (rl.rlim_max != RLIM_INFINITY && want > rl.rlim_max) want = rl.rlim_max;
    if (rl.rlim_cur >= want) return 0;
    rl.rlim_cur = want;
    return setrlimit(RLIMIT_NOFILE, &rl) == 0 ? 0 : -1;
}

pid_t process_id(void) { return getpid(); }

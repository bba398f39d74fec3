// stored: the store daemon. It brings the folder database up through its
// recovery, declares the store ready for the store's other programs, runs
// the database maintenance on its periods, and on SIGTERM or SIGINT ends
// cleanly: final checkpoint, databases closed, ready mark removed.
//
//   stored [-d]
//
// Without -d it runs in the foreground. With -d it detaches, and the
// command returns once the store is ready (status 0), or with the status of
// the failed start.
//
// Exit statuses: 0 clean end; 64 usage; 75 another daemon runs, or the
// store could not start for want of a resource, or its database directory
// went away while it ran; 78 configuration; 74 the final checkpoint or a
// close failed at the end (the next start recovers from the logs).
#include <errno.h>
#include <stdarg.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "support/config.h"
#include "support/log.h"
#include "support/signals.h"
#include "support/watch.h"

static const char USAGE[] = "USAGE: %s [-d]\n";

// Periods of the maintenance entry points, in seconds.
static const int DEADLOCK_PERIOD = 0;  // every tick
static const int DIRCHECK_PERIOD = 1;
static const int TRICKLE_PERIOD = 15;
static const int CHECKPOINT_PERIOD = 60;
static const int ARCHIVE_PERIOD = 300;

static int ready_pipe = -1;

// Logs a line and, while the caller's terminal is still ours, shows it.
static void tell(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void tell(int level, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    svclogv(nullptr, level, fmt, ap);
    va_end(ap);
    if ((level & 7) <= 3) return;  // the log echoes errors to standard error itself
    fprintf(stderr, "stored: ");
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
}

// With -d: the parent waits until the child is ready or gone, and then
// ends with 0 or with what ended the child.
static int detach(void) {
    int fds[2];
    if (pipe(fds) != 0) {
        perror("stored: pipe");
        return -1;
    }
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        perror("stored: fork");
        return -1;
    }
    if (pid > 0) {
        close(fds[1]);
        char c;
        ssize_t n;
        do {
            n = read(fds[0], &c, 1);
        } while (n < 0 && errno == EINTR);
        if (n == 1) _exit(0);
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFSIGNALED(status)) {
            // Nothing in the child could log this.
            svclog(nullptr, 2, "stored: the store daemon (process %d) died of signal %d (%s) "
                   "before the store was ready", (int)pid, WTERMSIG(status),
                   strsignal(WTERMSIG(status)));
            _exit(70);
        }
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
        fprintf(stderr, "stored: the store daemon could not start (status %d); see the log\n", code);
        _exit(code ? code : 1);
    }
    close(fds[0]);
    ready_pipe = fds[1];
    setsid();
    return 0;
}

static void announce_ready(void) {
    if (ready_pipe < 0) return;
    // The daemon's standard streams no longer belong to the caller.
    if (write(ready_pipe, "r", 1) != 1) {
        // The parent has gone; the daemon runs on all the same.
    }
    close(ready_pipe);
    ready_pipe = -1;
    FILE *null = freopen("/dev/null", "r", stdin);
    (void)null;
    null = freopen("/dev/null", "w", stdout);
    null = freopen("/dev/null", "w", stderr);
}

static int stop_requested(void) {
    return check_signal_handler(SIGTERM) || check_signal_handler(SIGINT);
}

// Takes the one-daemon lock; 0, or the exit status.
static int lock_store(void) {
    const char *store = configmsg_get_storedir();
    if (!store || mailbox_makedirs(store) != 0) {
        tell(2, "cannot create the store directory %s", store ? store : "(none)");
        return 75;
    }
    if (store_daemon_lock("stored") == 0) return 0;
    if (errno == EWOULDBLOCK) {
        tell(3, "another store daemon runs for this store (%s)", config_getinstancedir());
    } else {
        tell(2, "cannot take the daemon lock in %s: %s", store, strerror(errno));
    }
    return 75;
}

// Recovers the folder database. The environment's regions are mapped
// files: a page that finds no room on the file system raises SIGBUS, which
// becomes a refusal to start instead of a crash without a word.
static int recover(void) {
    int live = mboxlist_session_sweep();
    if (live > 0) tell(4, "%d programs of the store still run from before this start", live);
    tell(6, "recovering the folder database of %s", config_getinstancedir());
    int faulted = 0;
    int r = signals_run_guarded(SIGBUS, mboxlist_recover, &faulted);
    if (faulted) {
        tell(2, "the database environment of %s could not be mapped (bus error): its file system "
             "has no room for the region files", config_getinstancedir());
        _exit(75);
    }
    if (r != 0) {
        tell(2, "the folder database of %s could not be brought up", config_getinstancedir());
        return 75;
    }
    // The short-lived processes put their session lock files here.
    char sessions[1100];
    snprintf(sessions, sizeof(sessions), "%s/session", configmsg_get_storedir());
    if (mailbox_makedirs(sessions) != 0) {
        tell(2, "cannot create the session directory %s", sessions);
        return 75;
    }
    if (store_session_ready_declare("stored") != 0) {
        tell(2, "cannot declare the store ready in %s: %s", configmsg_get_storedir(), strerror(errno));
        return 75;
    }
    return 0;
}

// Runs the maintenance until a stop is asked for (0) or the database
// directory goes away (75).
static int serve(void) {
    time_t last_deadlock = time(nullptr), last_dircheck = last_deadlock,
           last_trickle = last_deadlock, last_checkpoint = last_deadlock,
           last_archive = last_deadlock;
    while (!stop_requested()) {
        struct timespec ts = {0, 200 * 1000 * 1000};
        nanosleep(&ts, nullptr);
        time_t now = time(nullptr);
        if (now - last_dircheck >= DIRCHECK_PERIOD) {
            if (!mboxlist_dbdir_intact()) return 75;
            // A program killed inside a transaction holds its locks until
            // its transaction is aborted here; one killed inside the
            // library leaves the environment to a recovery, which only a
            // new start of the daemon may run.
            if (mboxlist_failchk() == DB_RUNRECOVERY) {
                tell(2, "a program of the store died inside the folder database; start the "
                     "store daemon again to recover it");
                // Closing would wait on what the dead program holds.
                store_session_ready_withdraw("stored");
                _exit(75);
            }
            last_dircheck = now;
        }
        if (now - last_deadlock >= DEADLOCK_PERIOD) {
            mboxlist_deadlockcheck();
            last_deadlock = now;
        }
        if (now - last_trickle >= TRICKLE_PERIOD) {
            mboxlist_trickle();
            last_trickle = now;
        }
        if (now - last_checkpoint >= CHECKPOINT_PERIOD) {
            if (mboxlist_checkpoint() == 0) mboxlist_set_last_checkpoint((uint32_t)now);
            last_checkpoint = now;
        }
        if (now - last_archive >= ARCHIVE_PERIOD) {
            mboxlist_archive_logs();
            last_archive = now;
        }
    }
    return 0;
}

int main(int argc, char **argv) {
    int detached = 0, c;
    while ((c = getopt(argc, argv, "d")) != -1) {
        if (c == 'd') {
            detached = 1;
        } else {
            fprintf(stderr, USAGE, argv[0]);
            return 64;
        }
    }
    if (optind != argc) {
        fprintf(stderr, USAGE, argv[0]);
        return 64;
    }
    if (configmsg_init(nullptr, 16, "stored") != 0) {
        fputs("ERROR: Could not initialize config system\n", stderr);
        return 78;
    }
    if (configmsg_initlog(nullptr, "stored") != 0) {
        fputs("ERROR: Could not initialize log system\n", stderr);
        return 78;
    }
    svclog_setoptions(SVCLOG_ECHO_ERRORS);
    set_signal_handler(SIGTERM, "SIGTERM signal delayed while performing critical operations\n");
    set_signal_handler(SIGINT, "interupt signal delayed while performing critical operations\n");
    signal(SIGPIPE, SIG_IGN);

    // Before anything else touches the store: two daemons recovering one
    // environment at once delete its regions under each other.
    int status = lock_store();
    if (status != 0) return status;
    if (detached && detach() != 0) return 71;
    if ((status = recover()) != 0) {
        mboxlist_close();
        return status;
    }
    tell(6, "store ready (process %d)", (int)getpid());
    announce_ready();

    status = serve();
    store_session_ready_withdraw("stored");
    if (status != 0) {
        // The databases are gone from under the environment: nothing to
        // checkpoint into.
        mboxlist_set_final_checkpoint(0);
        mboxlist_close();
        return status;
    }
    svclog(nullptr, 6, "stored: shutting down on signal");
    int r = mboxlist_close();
    if (r != 0) {
        svclog(nullptr, 3, "stored: the store was not closed cleanly (%s); the next start "
               "recovers from the logs", db_strerror(r));
        return 74;
    }
    svclog(nullptr, 6, "stored: store closed");
    return 0;
}

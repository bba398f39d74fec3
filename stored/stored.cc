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
#include <errno.h>
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
static const int TRICKLE_PERIOD = 15;
static const int CHECKPOINT_PERIOD = 60;
static const int ARCHIVE_PERIOD = 300;

static int ready_pipe = -1;

static void tell(int level, const char *fmt, const char *arg) {
    svclog(nullptr, level, fmt, arg);
    fprintf(stderr, "stored: ");
    fprintf(stderr, fmt, arg);
    fputc('\n', stderr);
}

// With -d: the parent waits until the child is ready or gone.
static int detach(void) {
    int fds[2];
    if (pipe(fds) != 0) {
        perror("stored: pipe");
        return -1;
    }
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
        waitpid(pid, &status, 0);
        _exit(WIFEXITED(status) && WEXITSTATUS(status) ? WEXITSTATUS(status) : 1);
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
    if (detached && detach() != 0) return 71;

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

    if (store_session_ready_test("stored")) {
        tell(3, "another store daemon runs for this store (%s)", config_getinstancedir());
        return 75;
    }
    tell(6, "recovering the folder database of %s", config_getinstancedir());
    if (mboxlist_recover() != 0) {
        tell(2, "the folder database of %s could not be brought up", config_getinstancedir());
        return 75;
    }
    // The short-lived processes put their session lock files here.
    char sessions[1100];
    snprintf(sessions, sizeof(sessions), "%s/session", configmsg_get_storedir());
    if (mailbox_makedirs(sessions) != 0) {
        tell(2, "cannot create the session directory %s", sessions);
        mboxlist_close();
        return 75;
    }
    if (store_session_ready_declare("stored") != 0) {
        tell(2, "cannot declare the store ready in %s: %m", configmsg_get_storedir());
        mboxlist_close();
        return 75;
    }
    char state[64];
    snprintf(state, sizeof(state), "%d", (int)getpid());
    tell(6, "store ready (process %s)", state);
    announce_ready();

    time_t last_deadlock = time(nullptr), last_trickle = last_deadlock,
           last_checkpoint = last_deadlock, last_archive = last_deadlock;
    while (!stop_requested()) {
        struct timespec ts = {0, 200 * 1000 * 1000};
        nanosleep(&ts, nullptr);
        time_t now = time(nullptr);
        if (now - last_deadlock >= DEADLOCK_PERIOD) {
            mboxlist_deadlockcheck();
            last_deadlock = now;
        }
        if (now - last_trickle >= TRICKLE_PERIOD) {
            mboxlist_checkpoint15();
            last_trickle = now;
        }
        if (now - last_checkpoint >= CHECKPOINT_PERIOD) {
            if (mboxlist_checkpoint60() == 0) stored_last_checkpoint = (uint32_t)now;
            last_checkpoint = now;
        }
        if (now - last_archive >= ARCHIVE_PERIOD) {
            mboxlist_checkpoint300();
            last_archive = now;
        }
    }

    svclog(nullptr, 6, "stored: shutting down on signal");
    store_session_ready_withdraw("stored");
    mboxlist_close();
    svclog(nullptr, 6, "stored: store closed");
    return 0;
}

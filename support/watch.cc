// The watcher connection and the ready mark of the store daemon.
#include "support/watch.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/config.h"
#include "support/log.h"
#include "support/retry.h"

static int watch_fd = -1;
static int ready_fd = -1;
static int daemon_fd = -1;

int watch_connect(void *, const char *host, int port, const char *procname, int flags) {
    if (!host || !*host || port <= 0 || port > 65535) {
        svclog(nullptr, 3, "watcher: no address configured (%s:%d)", host ? host : "", port);
        return -1;
    }
    char service[16];
    snprintf(service, sizeof(service), "%d", port);
    struct addrinfo hints, *res = nullptr;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    int r = getaddrinfo(host, service, &hints, &res);
    if (r != 0) {
        svclog(nullptr, 3, "watcher: cannot resolve %s: %s", host, gai_strerror(r));
        return -1;
    }
    int fd = -1;
    for (struct addrinfo *ai = res; ai; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) continue;
        if (connect(fd, ai->ai_addr, ai->ai_addrlen) == 0) break;
        close(fd);
        fd = -1;
    }
    freeaddrinfo(res);
    if (fd < 0) {
        svclog(nullptr, 3, "watcher: cannot connect to %s:%d: %m", host, port);
        return -1;
    }
    if (flags & 1) {
        char line[512];
        int n = snprintf(line, sizeof(line), "register %s %ld\n", procname ? procname : "unknown",
                         (long)getpid());
        if (n < 0 || (size_t)n >= sizeof(line) || retry_write(fd, line, (size_t)n) != n) {
            svclog(nullptr, 3, "watcher: cannot register with %s:%d: %m", host, port);
            close(fd);
            return -1;
        }
    }
    if (watch_fd >= 0) close(watch_fd);
    watch_fd = fd;
    return 0;
}

void watch_shutdown(void) {
    if (watch_fd >= 0) {
        close(watch_fd);
        watch_fd = -1;
    }
}

static int mark_path(const char *name, const char *suffix, char *buf, size_t size) {
    const char *dir = configmsg_get_storedir();
    if (!dir || !name || !*name || strchr(name, '/')) return -1;
    int n = snprintf(buf, size, "%s/%s.%s", dir, name, suffix);
    return n < 0 || (size_t)n >= size ? -1 : 0;
}

static int ready_path(const char *name, char *buf, size_t size) {
    return mark_path(name, "ready", buf, size);
}

// Opens (making it) and locks the mark "<storedir>/<name>.<suffix>"
// exclusively without waiting. The descriptor, or -1 with errno
// (EWOULDBLOCK: another process holds the lock).
static int lock_mark(const char *name, const char *suffix, int flags) {
    char path[1024];
    if (mark_path(name, suffix, path, sizeof(path)) != 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = open(path, flags | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

int store_daemon_lock(const char *name) {
    // Read-only: a lock wants no writing, and a daemon on a read-only file
    // system must get as far as telling what it can't do.
    int fd = lock_mark(name, "lock", O_RDONLY);
    if (fd < 0) return -1;
    if (daemon_fd >= 0) close(daemon_fd);
    daemon_fd = fd;
    return 0;
}

int store_session_ready_test(const char *name) {
    char path[1024];
    if (ready_path(name, path, sizeof(path)) != 0) return 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    // The daemon holds an exclusive lock for as long as it runs; if a
    // shared lock can be had, the mark was left behind by a daemon that
    // has gone.
    int ready = 0;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
        ready = errno == EWOULDBLOCK;
    } else {
        flock(fd, LOCK_UN);
    }
    close(fd);
    return ready;
}

int store_session_ready_declare(const char *name) {
    int fd = lock_mark(name, "ready", O_RDWR);
    if (fd < 0) {
        if (errno == EWOULDBLOCK) errno = EBUSY;  // another daemon of this name holds the mark
        return -1;
    }
    char pid[32];
    int n = snprintf(pid, sizeof(pid), "%ld\n", (long)getpid());
    if (ftruncate(fd, 0) != 0 || retry_write(fd, pid, (size_t)n) != n) {
        close(fd);
        return -1;
    }
    if (ready_fd >= 0) close(ready_fd);
    ready_fd = fd;
    return 0;
}

void store_session_ready_withdraw(const char *name) {
    char path[1024];
    if (ready_fd < 0) return;
    if (ready_path(name, path, sizeof(path)) == 0) unlink(path);
    close(ready_fd);
    ready_fd = -1;
}

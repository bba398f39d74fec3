// Careful writes: complete writes across interruptions and short writes,
// flushes to stable storage by level, and file copies.

#include "support/retry.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#ifndef IOV_MAX
#define IOV_MAX 1024
#endif

// Reads at the current offset (offset < 0) or at offset.
static ssize_t read_whole(int fd, void *buf, size_t count, off_t offset) {
    size_t done = 0;
    while (done < count) {
        char *p = static_cast<char *>(buf) + done;
        ssize_t n = offset < 0 ? read(fd, p, count - done)
                               : pread(fd, p, count - done, offset + (off_t)done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += (size_t)n;
    }
    return (ssize_t)done;
}

ssize_t retry_read(int fd, void *buf, size_t count) { return read_whole(fd, buf, count, -1); }

ssize_t retry_pread(int fd, void *buf, size_t count, off_t offset) {
    return offset < 0 ? (errno = EINVAL, -1) : read_whole(fd, buf, count, offset);
}

// Writes all of iov, at most IOV_MAX entries per system call. The caller's
// array is left alone: each call gets a copy of the entries still due, the
// first one trimmed by what an earlier short write already took.
ssize_t retry_writev(int fd, const struct iovec *iov, int iovcnt) {
    if (iovcnt < 0 || (iovcnt > 0 && !iov)) {
        errno = EINVAL;
        return -1;
    }
    size_t total = 0;
    for (int i = 0; i < iovcnt; i++) {
        if (iov[i].iov_len > (size_t)SSIZE_MAX - total) {
            errno = EINVAL;
            return -1;
        }
        total += iov[i].iov_len;
    }

    struct iovec chunk[IOV_MAX];
    int idx = 0;        // first entry not written whole
    size_t offset = 0;  // bytes of iov[idx] already written
    size_t done = 0;
    while (done < total) {
        while (idx < iovcnt && offset == iov[idx].iov_len) {
            idx++;
            offset = 0;
        }
        int n = 0;
        for (int i = idx; i < iovcnt && n < IOV_MAX; i++) {
            size_t skip = (i == idx) ? offset : 0;
            if (iov[i].iov_len == skip) continue;
            chunk[n].iov_base = (char *)iov[i].iov_base + skip;
            chunk[n].iov_len = iov[i].iov_len - skip;
            n++;
        }
        ssize_t w = writev(fd, chunk, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (w == 0) {
            errno = ENOSPC;
            return -1;
        }
        done += (size_t)w;
        size_t left = (size_t)w;
        while (left > 0) {
            size_t avail = iov[idx].iov_len - offset;
            if (left < avail) {
                offset += left;
                left = 0;
            } else {
                left -= avail;
                idx++;
                offset = 0;
            }
        }
    }
    return (ssize_t)done;
}

ssize_t retry_write(int fd, const void *buf, size_t count) {
    struct iovec one;
    one.iov_base = const_cast<void *>(buf);
    one.iov_len = count;
    return retry_writev(fd, &one, 1);
}

ssize_t retry_pwrite(int fd, const void *buf, size_t count, off_t offset) {
    if (offset < 0 || count > (size_t)SSIZE_MAX) {
        errno = EINVAL;
        return -1;
    }
    size_t done = 0;
    while (done < count) {
        ssize_t n = pwrite(fd, (const char *)buf + done, count - done, offset + (off_t)done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += (size_t)n;
    }
    return (ssize_t)done;
}

// ---------------------------------------------------------------------------
// sync_file
//
// Level 1 writes nothing now and remembers the file's file system.
// The file system is remembered by a descriptor of the file's directory,
// not of the file itself: closing any descriptor of a file drops every
// record lock that the process holds on it (lock.h), and the files synced
// here are often the ones that carry the index lock. The barrier flushes
// each remembered file system once with syncfs and forgets it. A file whose
// directory can't be found (it was removed, or /proc is missing), or one
// more file system than the table holds, is flushed at once instead.

#define SYNC_MAXFS 16

struct syncfs_entry {
    dev_t dev;
    int dirfd;
};

static pthread_mutex_t sync_table_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t sync_barrier_lock = PTHREAD_MUTEX_INITIALIZER;
static syncfs_entry sync_table[SYNC_MAXFS];
static int sync_count;
static pthread_once_t sync_atexit_once = PTHREAD_ONCE_INIT;
static std::atomic<sync_observer_fn> sync_observer{nullptr};

sync_observer_fn sync_set_observer(sync_observer_fn observer) {
    return sync_observer.exchange(observer);
}

static void sync_tell(enum sync_event event, const char *path) {
    sync_observer_fn fn = sync_observer.load();
    if (fn) fn(event, path);
}

static void sync_atexit(void) { sync_file_barrier(); }
static void sync_register_atexit(void) { atexit(sync_atexit); }

// A descriptor of the directory that holds the file open on fd, on the
// same file system, or -1.
static int open_parent_dir(int fd, dev_t dev) {
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    char target[PATH_MAX + 1];
    ssize_t n = readlink(link, target, PATH_MAX);
    if (n <= 0 || target[0] != '/') return -1;
    target[n] = 0;
    static const char deleted[] = " (deleted)";
    size_t dl = sizeof(deleted) - 1;
    if ((size_t)n > dl && strcmp(target + n - dl, deleted) == 0) return -1;
    char *slash = strrchr(target, '/');
    if (slash == target)
        target[1] = 0;
    else
        *slash = 0;
    int dfd = open(target, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return -1;
    struct stat st;
    if (fstat(dfd, &st) < 0 || st.st_dev != dev) {
        close(dfd);
        return -1;
    }
    return dfd;
}

// 0 if the file system of dev is (now) remembered, -1 if not. fd is a
// file, or with is_dir a directory, which is remembered by a copy of fd.
static int sync_remember(int fd, dev_t dev, int is_dir) {
    pthread_mutex_lock(&sync_table_lock);
    for (int i = 0; i < sync_count; i++) {
        if (sync_table[i].dev == dev) {
            pthread_mutex_unlock(&sync_table_lock);
            return 0;
        }
    }
    int r = -1;
    if (sync_count < SYNC_MAXFS) {
        int dfd = is_dir ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : open_parent_dir(fd, dev);
        if (dfd >= 0) {
            sync_table[sync_count].dev = dev;
            sync_table[sync_count].dirfd = dfd;
            sync_count++;
            r = 0;
        }
    }
    pthread_mutex_unlock(&sync_table_lock);
    if (r == 0) pthread_once(&sync_atexit_once, sync_register_atexit);
    return r;
}

static int retry_fdatasync(int fd) {
    for (;;) {
        if (fdatasync(fd) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

static int retry_fsync(int fd) {
    for (;;) {
        if (fsync(fd) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

int sync_file_on(int fd, int level, dev_t dev) {
    if (level < 0) level = 1;
    if (level == 0) return 0;
    if (level == 2) return retry_fdatasync(fd);
    if (level >= 3) return retry_fsync(fd);

    int is_dir = 0;
    if (dev == 0) {
        struct stat st;
        if (fstat(fd, &st) < 0) return -1;
        dev = st.st_dev;
        is_dir = S_ISDIR(st.st_mode);
    }
    // Nothing is written now: a run of deliveries touches the same index
    // pages with every message, and starting writeback for each would write
    // those pages once per message. The barrier flushes each page once.
    if (sync_remember(fd, dev, is_dir) == 0) return 0;
    return retry_fdatasync(fd);
}

int sync_file(int fd, int level) { return sync_file_on(fd, level, 0); }

// Barriers run one at a time, and the table is emptied at the start of a
// barrier: a barrier that finds the table empty has waited for the one
// that took the entries to finish its flushes, so whatever was registered
// before either call is durable when it returns.
int sync_file_barrier(void) {
    pthread_mutex_lock(&sync_barrier_lock);
    pthread_mutex_lock(&sync_table_lock);
    syncfs_entry todo[SYNC_MAXFS];
    int n = sync_count;
    memcpy(todo, sync_table, sizeof(syncfs_entry) * (size_t)n);
    sync_count = 0;
    pthread_mutex_unlock(&sync_table_lock);

    int err = 0;
    for (int i = 0; i < n; i++) {
        int r;
        do {
            r = syncfs(todo[i].dirfd);
        } while (r < 0 && errno == EINTR);
        if (r < 0 && !err) err = errno;
        close(todo[i].dirfd);
    }
    pthread_mutex_unlock(&sync_barrier_lock);
    if (err) {
        errno = err;
        return -1;
    }
    sync_tell(SYNC_EVENT_BARRIER, nullptr);
    return 0;
}

// A descriptor of the directory that holds path, or -1.
static int open_dir_of(const char *path) {
    std::string dir(path);
    size_t slash = dir.rfind('/');
    if (slash == std::string::npos)
        dir = ".";
    else
        dir.resize(slash == 0 ? 1 : slash);
    int dfd;
    do {
        dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (dfd < 0 && errno == EINTR);
    return dfd;
}

int sync_rename(const char *from, const char *to, int level) {
    if (level < 0) level = 1;
    if (sync_file_barrier() != 0) return -1;
    if (rename(from, to) != 0) return -1;
    sync_tell(SYNC_EVENT_RENAME, to);
    if (level == 0) return 0;
    int dfd = open_dir_of(to);
    if (dfd < 0) return 1;
    // Level 1 hands the directory to the next barrier (or flushes it now
    // when the table is full); levels 2 and 3 flush it now, with fsync,
    // since a directory's entries are its metadata.
    struct stat st;
    int r = level == 1 && fstat(dfd, &st) == 0 && sync_remember(dfd, st.st_dev, 1) == 0
                ? 0
                : retry_fsync(dfd);
    int e = errno;
    close(dfd);
    errno = e;
    return r == 0 ? 0 : 1;
}

// ---------------------------------------------------------------------------
// copy_file

static int copy_bytes_rw(int in, int out) {
    static const size_t bufsize = 65536;
    char *buf = (char *)malloc(bufsize);
    if (!buf) return -1;
    for (;;) {
        ssize_t n = read(in, buf, bufsize);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (n == 0) {
            free(buf);
            return 0;
        }
        if (retry_write(out, buf, (size_t)n) < 0) break;
    }
    int e = errno;
    free(buf);
    errno = e;
    return -1;
}

static int copy_bytes(int in, int out) {
    size_t copied = 0;
    for (;;) {
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (n > 0) {
            copied += (size_t)n;
            continue;
        }
        if (n == 0) {
            // Some files report no length and copy nothing this way; a read
            // confirms the end.
            if (copied == 0) return copy_bytes_rw(in, out);
            return 0;
        }
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
            errno == EBADF || errno == ETXTBSY || errno == EPERM)
            // Not supported between these files; the offsets stand where
            // the last successful call left them.
            return copy_bytes_rw(in, out);
        return -1;
    }
}

int copy_file(const char *source, const char *target, int flag) {
    if (flag == 1) return link(source, target) == 0 ? 0 : -1;
    if (flag != 0) {
        errno = EINVAL;
        return -1;
    }
    int in;
    do {
        in = open(source, O_RDONLY | O_CLOEXEC);
    } while (in < 0 && errno == EINTR);
    if (in < 0) return -1;
    int out;
    do {
        out = open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    } while (out < 0 && errno == EINTR);
    if (out < 0) {
        int e = errno;
        close(in);
        errno = e;
        return -1;
    }
    int r = copy_bytes(in, out);
    int e = errno;
    close(in);
    if (close(out) < 0 && r == 0) {
        r = -1;
        e = errno;
    }
    if (r < 0) {
        unlink(target);
        errno = e;
        return -1;
    }
    return 0;
}

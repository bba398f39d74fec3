// Whole-file locks on open descriptors, and named mutexes between processes.
//
// Two kinds of file lock are used here, and they do not interact on Linux:
//
// - lock_blocking, lock_nonblocking, lock_unlock and lock_reopen take POSIX
//   record locks (fcntl F_SETLK / F_SETLKW) over the whole file. Such a lock
//   belongs to the process and the file (the inode), not to the descriptor:
//   a process never conflicts with itself, taking the lock again through a
//   second descriptor of the same file succeeds at once, and closing ANY
//   descriptor of the file in this process drops the lock. Code that holds
//   an index lock must therefore never open and close the same file through
//   another descriptor. A child made by fork does not inherit the locks.
//
// - lock_nonblocking_fs, lock_unlock_fs and the named mutexes use flock
//   locks, which belong to the open file description: two separate opens of
//   one file conflict even inside one process, and the lock goes when the
//   last descriptor of that description is closed.

#include "support/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/config.h"
#include "support/xmalloc.h"

// ---------------------------------------------------------------------------
// Record locks over the whole file

static int setlock(int fd, short type, int wait) {
    struct flock fl;
    memset(&fl, 0, sizeof(fl));
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // to the end of the file, however large it grows
    for (;;) {
        if (fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

int lock_blocking(int fd) { return setlock(fd, F_WRLCK, 1); }

// Fails with EAGAIN or EACCES (depending on the system) while another
// process holds the lock.
int lock_nonblocking(int fd) { return setlock(fd, F_WRLCK, 0); }

int lock_unlock(int fd) { return setlock(fd, F_UNLCK, 0); }

// Locks fd and makes sure that path still names the locked file. When
// another process has replaced the file (rename of a new version over it)
// or removed it while we waited, the path is opened again and the new file
// locked, until the lock is held on the file that the path names.
//
// The descriptor number does not change: the new file is put in place of
// the old one with dup2, so the old file is closed and a caller that keeps
// its descriptor, or closes it after a failure, is right in every case. The
// result is fd on success; on failure it is -1, *failaction names the step
// ("locking", "stating", "opening"), errno tells why (ENOENT: the file is
// gone), and fd is still open but not locked.
int lock_reopen(int fd, const char *path, struct stat *sbuf, const char **failaction) {
    struct stat fst, pst;
    const char *dummy;
    if (!failaction) failaction = &dummy;

    for (;;) {
        if (lock_blocking(fd) < 0) {
            *failaction = "locking";
            return -1;
        }
        if (fstat(fd, &fst) < 0) {
            int e = errno;
            lock_unlock(fd);
            *failaction = "stating";
            errno = e;
            return -1;
        }
        if (stat(path, &pst) == 0) {
            if (pst.st_ino == fst.st_ino && pst.st_dev == fst.st_dev) {
                if (sbuf) *sbuf = fst;
                return fd;
            }
        } else if (errno != ENOENT) {
            int e = errno;
            lock_unlock(fd);
            *failaction = "stating";
            errno = e;
            return -1;
        }

        // The path leads elsewhere or nowhere: open it again. Our lock on
        // the old file is dropped first; nobody is served by keeping it.
        lock_unlock(fd);
        int fl = fcntl(fd, F_GETFL);
        int cloexec = fcntl(fd, F_GETFD);
        int oflags = O_RDWR;
        if (fl != -1) oflags = (fl & O_ACCMODE) | (fl & O_APPEND);
        if (cloexec != -1 && (cloexec & FD_CLOEXEC)) oflags |= O_CLOEXEC;
        int nfd;
        do {
            nfd = open(path, oflags);
        } while (nfd < 0 && errno == EINTR);
        if (nfd < 0) {
            *failaction = "opening";
            return -1;
        }
        // The new descriptor is moved to fd before it is locked: closing nfd
        // afterwards would drop a record lock taken through it.
        int r;
        do {
            r = dup3(nfd, fd, oflags & O_CLOEXEC);
        } while (r < 0 && (errno == EINTR || errno == EBUSY));
        int e = errno;
        close(nfd);
        if (r < 0) {
            *failaction = "opening";
            errno = e;
            return -1;
        }
    }
}

// ---------------------------------------------------------------------------
// Locks of the open file description

int lock_nonblocking_fs(int fd) {
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

int lock_unlock_fs(int fd) {
    for (;;) {
        if (flock(fd, LOCK_UN) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

// ---------------------------------------------------------------------------
// Named mutexes
//
// A mutex is a lock file "<instance>/data/lock/<name>.mutex", held with an
// exclusive flock. Every handle opens the file for itself, so two handles of
// one name exclude each other whether they live in different processes or
// in different threads of one process. A handle used from several threads
// is serialised by its pthread mutex, which is held from hold to release;
// hold and release must therefore happen in the same thread. A second hold
// of the same handle by the thread that holds it fails with EDEADLK; a
// thread that holds a name through two handles at once waits for itself,
// as with any mutex. The file is opened again in a process that inherited the handle
// through fork, because a shared open file description would share the lock
// with the parent. The lock files stay in place when released: removing a
// lock file while others may be waiting on it would let two holders in.

struct db_globalmutex {
    pthread_mutex_t mu;
    char *path;
    int fd;        // -1 until the file could be opened
    pid_t owner;   // process that opened fd
    int held;      // written only by the holding thread
};

// Bytes that appear in a lock file name as they are; everything else,
// including "/" and a leading ".", is written as "%XX".
static int plain_byte(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '_' || c == '.' || c == '@' || c == '+' || c == '=';
}

static uint64_t fnv1a(const char *s) {
    uint64_t h = 14695981039346656037ULL;
    for (; *s; s++) {
        h ^= (unsigned char)*s;
        h *= 1099511628211ULL;
    }
    return h;
}

// A file name for the mutex name that is unique for it and fits in a
// directory entry. A long name keeps an escaped prefix and gets a hash of
// the whole name behind a "#", which no escaped name contains.
static std::string mutex_file_name(const char *name) {
    static const char hex[] = "0123456789ABCDEF";
    const size_t maxlen = 200;  // leaves room for the hash and ".mutex"
    std::string out;
    bool cut = false;
    for (const unsigned char *p = (const unsigned char *)name; *p; p++) {
        bool plain = plain_byte(*p) && !(*p == '.' && p == (const unsigned char *)name);
        size_t need = plain ? 1 : 3;
        if (out.size() + need > maxlen) {
            cut = true;
            break;
        }
        if (plain) {
            out += (char)*p;
        } else {
            out += '%';
            out += hex[*p >> 4];
            out += hex[*p & 15];
        }
    }
    if (out.empty()) out = "%";
    if (cut) {
        char h[24];
        snprintf(h, sizeof(h), "#%016llx", (unsigned long long)fnv1a(name));
        out += h;
    }
    return out + ".mutex";
}

static int mutex_openfile(db_globalmutex *m) {
    int fd = open(m->path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 && errno == ENOENT) {
        // The lock directory of a fresh instance may not exist yet.
        std::string dir(m->path, strrchr(m->path, '/') - m->path);
        if (mkdir(dir.c_str(), 0777) < 0 && errno != EEXIST) return -1;
        fd = open(m->path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    if (fd < 0) return -1;
    m->fd = fd;
    m->owner = getpid();
    return 0;
}

// Never null for a non-null name: a lock file that can't be made now is
// tried again at the next hold, which then reports the error.
db_globalmutex *db_globalmutex_open(const char *name) {
    if (!name) {
        errno = EINVAL;
        return nullptr;
    }
    const char *inst = config_getinstancedir();
    std::string path = std::string(inst ? inst : ".") + "/data/lock/" + mutex_file_name(name);
    db_globalmutex *m = (db_globalmutex *)xmalloc(sizeof(db_globalmutex));
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&m->mu, &attr);
    pthread_mutexattr_destroy(&attr);
    m->path = xstrdup(path.c_str());
    m->fd = -1;
    m->owner = 0;
    m->held = 0;
    int e = errno;
    mutex_openfile(m);
    errno = e;
    return m;
}

int db_globalmutex_hold(db_globalmutex *m) {
    if (!m) return EINVAL;
    int r = pthread_mutex_lock(&m->mu);
    if (r != 0) return r;
    if (m->fd >= 0 && m->owner != getpid()) {
        // Inherited through fork: the parent shares that description.
        close(m->fd);
        m->fd = -1;
    }
    if (m->fd < 0 && mutex_openfile(m) < 0) {
        int e = errno;
        pthread_mutex_unlock(&m->mu);
        return e ? e : EIO;
    }
    for (;;) {
        if (flock(m->fd, LOCK_EX) == 0) {
            m->held = 1;
            return 0;
        }
        if (errno != EINTR) break;
    }
    int e = errno;
    pthread_mutex_unlock(&m->mu);
    return e ? e : EIO;
}

int db_globalmutex_release(db_globalmutex *m) {
    if (!m) return EINVAL;
    if (!m->held) return EPERM;
    m->held = 0;
    int e = 0;
    if (m->fd >= 0) {
        while (flock(m->fd, LOCK_UN) < 0) {
            if (errno != EINTR) {
                e = errno;
                break;
            }
        }
    }
    pthread_mutex_unlock(&m->mu);
    return e;
}

// Closing a held mutex releases it.
void db_globalmutex_close(db_globalmutex *m) {
    if (!m) return;
    if (m->fd >= 0) close(m->fd);
    if (m->held) pthread_mutex_unlock(&m->mu);
    pthread_mutex_destroy(&m->mu);
    free(m->path);
    free(m);
}

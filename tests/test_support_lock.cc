// Whole-file locks, lock_reopen and the named mutexes, between real
// processes.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/lock.h"
#include "tests/testutil.h"

namespace {

// One byte from fd, or -1 if nothing arrives within ms milliseconds.
int read_byte(int fd, int ms) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
    if (select(fd + 1, &set, nullptr, nullptr, &tv) <= 0) return -1;
    unsigned char c;
    if (read(fd, &c, 1) != 1) return -1;
    return c;
}

void send_byte(int fd, char c) { ASSERT_EQ(1, write(fd, &c, 1)); }

int wait_child(pid_t pid) {
    int st = 0;
    if (waitpid(pid, &st, 0) != pid) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

std::string fd_content(int fd) {
    std::string s;
    char buf[256];
    ssize_t n;
    off_t off = 0;
    while ((n = pread(fd, buf, sizeof(buf), off)) > 0) {
        s.append(buf, (size_t)n);
        off += n;
    }
    return s;
}

struct Pipe {
    int r = -1, w = -1;
    Pipe() {
        int p[2];
        if (pipe(p) == 0) {
            r = p[0];
            w = p[1];
        }
    }
    ~Pipe() {
        if (r >= 0) close(r);
        if (w >= 0) close(w);
    }
};

}  // namespace

// A second process waits in lock_blocking until the first unlocks, and then
// reads what the first wrote under the lock; lock_nonblocking fails at once
// while the lock is held elsewhere and succeeds once it is free.
TEST(SupportLock, BlockingAndNonblockingBetweenProcesses) {
    testutil::TempDir tmp;
    std::string path = tmp.file("store.idx");
    testutil::write_file(path, "old");
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, lock_blocking(fd));

    Pipe ready, got;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int cfd = open(path.c_str(), O_RDWR);
        if (cfd < 0) _exit(10);
        if (lock_nonblocking(cfd) == 0) _exit(11);
        if (errno != EAGAIN && errno != EACCES) _exit(12);
        if (write(ready.w, "r", 1) != 1) _exit(13);
        if (lock_blocking(cfd) != 0) _exit(14);
        if (write(got.w, "g", 1) != 1) _exit(15);
        if (fd_content(cfd) != "new content") _exit(16);
        lock_unlock(cfd);
        _exit(0);
    }
    ASSERT_EQ('r', read_byte(ready.r, 5000));
    // The child is in lock_blocking now and must stay there.
    EXPECT_EQ(-1, read_byte(got.r, 300));
    ASSERT_EQ(0, ftruncate(fd, 0));
    ASSERT_EQ(11, pwrite(fd, "new content", 11, 0));
    ASSERT_EQ(0, lock_unlock(fd));
    EXPECT_EQ('g', read_byte(got.r, 5000));
    EXPECT_EQ(0, wait_child(pid));

    // Free again: a non-waiting lock succeeds.
    EXPECT_EQ(0, lock_nonblocking(fd));
    EXPECT_EQ(0, lock_unlock(fd));
    close(fd);
}

// The waiter starts on the old file; another process renames a new version
// over the path and holds the lock of the new file for a while. lock_reopen
// must end holding the lock of the new file, after its holder let go, with
// the same descriptor number and a stat buffer of the new file.
TEST(SupportLock, ReopenFollowsReplacedFile) {
    testutil::TempDir tmp;
    std::string path = tmp.file("store.exp");
    std::string newpath = tmp.file("expunge.new");
    testutil::write_file(path, "first");
    int oldfd = open(path.c_str(), O_RDWR);
    ASSERT_GE(oldfd, 0);
    ASSERT_EQ(0, lock_blocking(oldfd));
    struct stat oldst;
    ASSERT_EQ(0, fstat(oldfd, &oldst));

    Pipe ready, done, release;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int cfd = open(path.c_str(), O_RDWR);
        if (cfd < 0) _exit(10);
        if (write(ready.w, "r", 1) != 1) _exit(11);
        struct stat sb;
        const char *action = nullptr;
        int r = lock_reopen(cfd, path.c_str(), &sb, &action);
        if (r < 0) _exit(12);
        if (r != cfd) _exit(13);
        struct stat fst, pst;
        if (fstat(r, &fst) != 0 || stat(path.c_str(), &pst) != 0) _exit(14);
        if (fst.st_ino != pst.st_ino || sb.st_ino != pst.st_ino) _exit(15);
        if (fst.st_ino == oldst.st_ino) _exit(16);
        if (fd_content(r) != "second, rewritten") _exit(17);
        if (write(done.w, "d", 1) != 1) _exit(18);
        // Hold the lock until the parent has looked.
        char c;
        if (read(release.r, &c, 1) != 1) _exit(19);
        _exit(0);
    }
    ASSERT_EQ('r', read_byte(ready.r, 5000));
    usleep(100 * 1000);  // let the child reach the lock

    // Replace the file: the new version is locked before it is renamed in.
    testutil::write_file(newpath, "second");
    int newfd = open(newpath.c_str(), O_RDWR);
    ASSERT_GE(newfd, 0);
    ASSERT_EQ(0, lock_blocking(newfd));
    ASSERT_EQ(0, rename(newpath.c_str(), path.c_str()));
    ASSERT_EQ(0, lock_unlock(oldfd));
    close(oldfd);

    // The child now wakes up on the old file and must move to the new one,
    // where it waits again.
    EXPECT_EQ(-1, read_byte(done.r, 300));
    const char *more = ", rewritten";
    ASSERT_EQ((ssize_t)strlen(more), pwrite(newfd, more, strlen(more), 6));
    ASSERT_EQ(0, lock_unlock(newfd));
    EXPECT_EQ('d', read_byte(done.r, 5000));

    // The child holds the new file's lock now.
    EXPECT_LT(lock_nonblocking(newfd), 0);
    send_byte(release.w, 'x');
    EXPECT_EQ(0, wait_child(pid));
    EXPECT_EQ(0, lock_nonblocking(newfd));
    close(newfd);
}

// A file removed while a process waits for its lock: lock_reopen fails at
// the open with ENOENT, and the descriptor stays open for the caller to
// close. A descriptor that can't be locked fails at "locking".
TEST(SupportLock, ReopenReportsGoneFileAndFailedSteps) {
    testutil::TempDir tmp;
    std::string path = tmp.file("store.exp");
    testutil::write_file(path, "x");
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, lock_blocking(fd));

    Pipe ready;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int cfd = open(path.c_str(), O_RDWR);
        if (cfd < 0) _exit(10);
        if (write(ready.w, "r", 1) != 1) _exit(11);
        struct stat sb;
        const char *action = nullptr;
        errno = 0;
        int r = lock_reopen(cfd, path.c_str(), &sb, &action);
        if (r != -1) _exit(12);
        if (errno != ENOENT) _exit(13);
        if (!action || strcmp(action, "opening") != 0) _exit(14);
        if (fcntl(cfd, F_GETFD) < 0) _exit(15);  // still open
        _exit(0);
    }
    ASSERT_EQ('r', read_byte(ready.r, 5000));
    usleep(100 * 1000);
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, lock_unlock(fd));
    EXPECT_EQ(0, wait_child(pid));
    close(fd);

    // Read-only descriptor: the lock itself fails.
    testutil::write_file(path, "y");
    int rfd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(rfd, 0);
    struct stat sb;
    const char *action = nullptr;
    EXPECT_EQ(-1, lock_reopen(rfd, path.c_str(), &sb, &action));
    ASSERT_NE(nullptr, action);
    EXPECT_STREQ("locking", action);
    EXPECT_EQ(EBADF, errno);
    close(rfd);
}

// The session lock: a second process, and a second open in this process,
// are told that the lock is taken; after the unlock it can be had.
TEST(SupportLock, SessionLockSeesOtherHolders) {
    testutil::TempDir tmp;
    std::string path = tmp.file("session.lock");
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, lock_nonblocking_fs(fd));

    int fd2 = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd2, 0);
    EXPECT_NE(0, lock_nonblocking_fs(fd2));

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int cfd = open(path.c_str(), O_RDWR);
        if (cfd < 0) _exit(10);
        _exit(lock_nonblocking_fs(cfd) != 0 ? 0 : 11);
    }
    EXPECT_EQ(0, wait_child(pid));

    ASSERT_EQ(0, lock_unlock_fs(fd));
    EXPECT_EQ(0, lock_nonblocking_fs(fd2));
    close(fd2);
    close(fd);
}

namespace {

int read_counter(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return -1;
    char buf[32] = {0};
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    return n > 0 ? atoi(buf) : 0;
}

int bump_counter(const std::string &path) {
    int v = read_counter(path);
    if (v < 0) return -1;
    sched_yield();  // widen the window between read and write
    char buf[32];
    int len = snprintf(buf, sizeof(buf), "%d", v + 1);
    int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) return -1;
    ssize_t n = write(fd, buf, (size_t)len);
    close(fd);
    return n == len ? 0 : -1;
}

const char *kMutexName = "user/joe/Sent Items\tjoe peruser";

struct ThreadArg {
    db_globalmutex *shared;  // null: each thread opens its own handle
    int *counter;
    int rounds;
    int failures;
};

void *counter_thread(void *p) {
    ThreadArg *a = (ThreadArg *)p;
    db_globalmutex *m = a->shared ? a->shared : db_globalmutex_open(kMutexName);
    for (int i = 0; i < a->rounds; i++) {
        if (db_globalmutex_hold(m) != 0) {
            a->failures++;
            continue;
        }
        int v = *(volatile int *)a->counter;
        sched_yield();
        *(volatile int *)a->counter = v + 1;
        if (db_globalmutex_release(m) != 0) a->failures++;
    }
    if (!a->shared) db_globalmutex_close(m);
    return nullptr;
}

}  // namespace

// Four processes bump a counter file 150 times each under the mutex; no
// update is lost. The handle is opened before fork, so each child has to
// get a lock file description of its own. The lock file lies in the
// instance's lock directory under a name without "/".
TEST(SupportLock, GlobalMutexBetweenProcesses) {
    testutil::Instance inst;
    std::string counter = inst.path("counter");
    testutil::write_file(counter, "0");

    db_globalmutex *m = db_globalmutex_open(kMutexName);
    ASSERT_NE(nullptr, m);
    const int kProcs = 4, kRounds = 150;
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcs; p++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kRounds; i++) {
                if (db_globalmutex_hold(m) != 0) _exit(10);
                if (bump_counter(counter) != 0) _exit(11);
                if (db_globalmutex_release(m) != 0) _exit(12);
            }
            _exit(0);
        }
        pids.push_back(pid);
    }
    for (pid_t pid : pids) EXPECT_EQ(0, wait_child(pid));
    EXPECT_EQ(kProcs * kRounds, read_counter(counter));

    // While this process holds it, another process can't get in.
    ASSERT_EQ(0, db_globalmutex_hold(m));
    EXPECT_EQ(EDEADLK, db_globalmutex_hold(m));
    Pipe got;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        db_globalmutex *cm = db_globalmutex_open(kMutexName);
        if (db_globalmutex_hold(cm) != 0) _exit(10);
        if (write(got.w, "g", 1) != 1) _exit(11);
        db_globalmutex_release(cm);
        db_globalmutex_close(cm);
        _exit(0);
    }
    EXPECT_EQ(-1, read_byte(got.r, 300));
    ASSERT_EQ(0, db_globalmutex_release(m));
    EXPECT_EQ('g', read_byte(got.r, 5000));
    EXPECT_EQ(0, wait_child(pid));
    EXPECT_NE(0, db_globalmutex_release(m));  // not held
    db_globalmutex_close(m);

    std::vector<std::string> files;
    DIR *d = opendir(inst.path("data/lock").c_str());
    ASSERT_NE(nullptr, d);
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') files.push_back(e->d_name);
    closedir(d);
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(std::string::npos, files[0].find('/'));
    EXPECT_NE(std::string::npos, files[0].find(".mutex"));
}

// Threads of one process are excluded too, whether they share a handle or
// each has its own; distinct names, also long ones and ones that differ
// only in characters that are escaped, are distinct mutexes.
TEST(SupportLock, GlobalMutexBetweenThreadsAndNames) {
    testutil::Instance inst;
    int counter = 0;
    db_globalmutex *shared = db_globalmutex_open(kMutexName);
    ASSERT_NE(nullptr, shared);
    const int kThreads = 6, kRounds = 300;
    ThreadArg args[kThreads];
    pthread_t th[kThreads];
    for (int i = 0; i < kThreads; i++) {
        args[i] = ThreadArg{i % 2 ? shared : nullptr, &counter, kRounds, 0};
        ASSERT_EQ(0, pthread_create(&th[i], nullptr, counter_thread, &args[i]));
    }
    for (int i = 0; i < kThreads; i++) {
        pthread_join(th[i], nullptr);
        EXPECT_EQ(0, args[i].failures);
    }
    EXPECT_EQ(kThreads * kRounds, counter);
    db_globalmutex_close(shared);

    std::string longa(400, 'a'), longb = longa;
    longb[399] = 'b';
    const char *names[] = {"a/b", "a%2Fb", "..", longa.c_str(), longb.c_str()};
    const int n = sizeof(names) / sizeof(names[0]);
    // One process holds all of them at once: had two names shared a lock
    // file, the second hold would wait for ever (the alarm ends that).
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(10);
        db_globalmutex *ms[n];
        for (int i = 0; i < n; i++) {
            ms[i] = db_globalmutex_open(names[i]);
            if (!ms[i]) _exit(10);
            if (db_globalmutex_hold(ms[i]) != 0) _exit(11);
        }
        for (int i = 0; i < n; i++) {
            if (db_globalmutex_release(ms[i]) != 0) _exit(12);
            db_globalmutex_close(ms[i]);
        }
        _exit(0);
    }
    EXPECT_EQ(0, wait_child(pid));

    int count = 0;
    DIR *d = opendir(inst.path("data/lock").c_str());
    ASSERT_NE(nullptr, d);
    while (struct dirent *e = readdir(d)) {
        std::string s = e->d_name;
        if (s == "." || s == "..") continue;
        EXPECT_LT(s.size(), 256u);
        count++;
    }
    closedir(d);
    EXPECT_EQ(n + 1, count);  // the names above and kMutexName

    EXPECT_EQ(EINVAL, db_globalmutex_hold(nullptr));
    db_globalmutex_close(nullptr);
}

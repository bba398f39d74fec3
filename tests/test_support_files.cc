// File maps, careful writes, sync levels, file copies and buffered output.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/lock.h"
#include "support/map.h"
#include "support/prot.h"
#include "support/retry.h"
#include "tests/testutil.h"

namespace {

// Deterministic bytes that differ from one position to the next.
std::string pattern(size_t n, unsigned seed) {
    std::string s(n, 0);
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) {
        x = x * 1103515245u + 12345u;
        s[i] = (char)(x >> 16);
    }
    return s;
}

int wait_child(pid_t pid) {
    int st = 0;
    if (waitpid(pid, &st, 0) != pid) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

int count_open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (!d) return -1;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n;
}

// Interrupts blocking writes every millisecond while it lives, so that
// writes into a full pipe come back short or with EINTR.
class Interrupter {
  public:
    Interrupter() {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = [](int) {};
        sa.sa_flags = 0;  // no SA_RESTART
        sigemptyset(&sa.sa_mask);
        sigaction(SIGALRM, &sa, &old_);
        struct itimerval it = {{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &it, nullptr);
    }
    ~Interrupter() {
        struct itimerval it = {{0, 0}, {0, 0}};
        setitimer(ITIMER_REAL, &it, nullptr);
        sigaction(SIGALRM, &old_, nullptr);
    }

  private:
    struct sigaction old_;
};

// Forks a reader that drains the pipe slowly and compares what it gets
// with expect; returns its pid. The reader exits 0 on a match.
pid_t slow_reader(int rfd, int wfd, const std::string &expect) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    close(wfd);
    std::string got;
    char buf[4096];
    int round = 0;
    for (;;) {
        ssize_t n = read(rfd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got.append(buf, (size_t)n);
        if (++round % 16 == 0) usleep(2000);
    }
    _exit(got == expect ? 0 : 1);
}

}  // namespace

TEST(SupportMap, MapsOfFiles) {
    testutil::TempDir tmp;

    // Empty file: a usable base and nothing in it.
    testutil::write_file(tmp.file("empty"), "");
    struct map *m = map_open(tmp.file("empty").c_str(), -1, 0, 0);
    ASSERT_NE(nullptr, m);
    EXPECT_NE(nullptr, m->base);
    EXPECT_EQ(0u, m->size);
    EXPECT_EQ(0u, m->len);
    map_free(m);

    // Small and large files mapped whole.
    std::string small = "From someone\r\nSubject: hi\r\n\r\nbody\r\n";
    testutil::write_file(tmp.file("small"), small);
    m = map_open(tmp.file("small").c_str(), -1, 0, 0);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(small.size(), m->size);
    EXPECT_EQ(small.size(), m->len);
    EXPECT_EQ(small, std::string(m->base, m->size));
    map_free(m);

    std::string large = pattern(6 * 1024 * 1024 + 123, 7);
    testutil::write_file(tmp.file("large"), large);
    m = map_open(tmp.file("large").c_str(), -1, 0, 0);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(large.size(), m->size);
    map_advise(m->base, m->size, MAP_ADVISE_ONCE);
    EXPECT_EQ(0, memcmp(large.data(), m->base, large.size()));
    map_free(m);


    // More than the file has: the bytes behind its end read as zeros, far
    // beyond the page that holds the end.
    m = map_open(tmp.file("small").c_str(), 3 * 65536, 0, 0);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(small.size(), m->size);
    EXPECT_EQ(3u * 65536, m->len);
    EXPECT_EQ(small, std::string(m->base, small.size()));
    size_t nonzero = 0;
    for (size_t i = small.size(); i < m->len; i++) nonzero += m->base[i] != 0;
    EXPECT_EQ(0u, nonzero);
    map_free(m);

    // Failures set errno.
    errno = 0;
    EXPECT_EQ(nullptr, map_open(tmp.file("missing").c_str(), -1, 0, 0));
    EXPECT_EQ(ENOENT, errno);
    map_free(nullptr);
}

TEST(SupportMap, RefreshFollowsGrowth) {
    testutil::TempDir tmp;
    std::string path = tmp.file("store.idx");
    std::string first = pattern(5000, 1);
    testutil::write_file(path, first);
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);

    struct map *m = map_refresh(fd, nullptr, 0, -1);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(5000u, m->size);

    // Nothing changed: a refresh for growth keeps the map as it is, and a
    // write in place shows through it.
    const char *base = m->base;
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(base, m->base);
    ASSERT_EQ(1, pwrite(fd, "Z", 1, 10));
    EXPECT_EQ('Z', m->base[10]);

    // Grown by a lot more than a page: the new bytes are seen.
    std::string more = pattern(300000, 2);
    ASSERT_EQ((ssize_t)more.size(), pwrite(fd, more.data(), more.size(), 5000));
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(305000u, m->size);
    EXPECT_EQ(305000u, m->len);
    EXPECT_EQ(0, memcmp(more.data(), m->base + 5000, more.size()));


    // Shrunk below the map: mapped again, not left pointing past the end.
    ASSERT_EQ(0, ftruncate(fd, 0));
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(0u, m->size);
    EXPECT_NE(nullptr, m->base);

    // A failed refresh uses up the old map and reports the error.
    errno = 0;
    EXPECT_EQ(nullptr, map_refresh(-1, m, 0, -1));
    EXPECT_EQ(EBADF, errno);
    close(fd);
}

TEST(SupportRetry, WritesSurviveInterruptsAndShortWrites) {
    std::string data = pattern(3 * 1024 * 1024, 3);
    int p[2];
    ASSERT_EQ(0, pipe(p));
    pid_t pid = slow_reader(p[0], p[1], data);
    ASSERT_GE(pid, 0);
    close(p[0]);
    {
        Interrupter intr;
        EXPECT_EQ((ssize_t)data.size(), retry_write(p[1], data.data(), data.size()));
    }
    close(p[1]);
    EXPECT_EQ(0, wait_child(pid));

    // Gather write of more entries than one system call takes, of uneven
    // lengths, some empty.
    std::vector<std::string> parts;
    std::string all;
    for (int i = 0; i < 3000; i++) {
        parts.push_back(i % 7 == 0 ? std::string() : pattern((size_t)(i * 37) % 1500 + 1, i));
        all += parts.back();
    }
    std::vector<struct iovec> iov(parts.size());
    for (size_t i = 0; i < parts.size(); i++) {
        iov[i].iov_base = (void *)parts[i].data();
        iov[i].iov_len = parts[i].size();
    }
    std::vector<struct iovec> saved = iov;
    ASSERT_EQ(0, pipe(p));
    pid = slow_reader(p[0], p[1], all);
    ASSERT_GE(pid, 0);
    close(p[0]);
    {
        Interrupter intr;
        EXPECT_EQ((ssize_t)all.size(), retry_writev(p[1], iov.data(), (int)iov.size()));
    }
    close(p[1]);
    EXPECT_EQ(0, wait_child(pid));
    for (size_t i = 0; i < iov.size(); i++) {  // the caller's array is untouched
        EXPECT_EQ(saved[i].iov_base, iov[i].iov_base);
        EXPECT_EQ(saved[i].iov_len, iov[i].iov_len);
    }
}

TEST(SupportRetry, SyncLevels) {
    testutil::TempDir tmp;
    std::string path = tmp.file("msg");
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "hello", 5));
    ASSERT_EQ(0, sync_file_barrier());  // start from an empty table

    // Level 1 remembers the file system once, however many files; the
    // barrier flushes and forgets it.
    int before = count_open_fds();
    EXPECT_EQ(0, sync_file(fd, 1));
    int fd2 = open(tmp.file("msg2").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd2, 0);
    EXPECT_EQ(0, sync_file(fd2, -1));
    EXPECT_EQ(before + 2, count_open_fds());
    EXPECT_EQ(0, sync_file_barrier());
    EXPECT_EQ(before + 1, count_open_fds());
    EXPECT_EQ(0, sync_file_barrier());
    close(fd2);

    for (int level : {0, 1, 2, 3, 9, -1}) EXPECT_EQ(0, sync_file(fd, level)) << level;

    // Remembering the file system must not cost the process its lock on a
    // synced file (a record lock goes with any close of the file).
    ASSERT_EQ(0, lock_blocking(fd));
    EXPECT_EQ(0, sync_file_barrier());
    EXPECT_EQ(0, sync_file(fd, 1));
    EXPECT_EQ(0, sync_file_barrier());
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int cfd = open(path.c_str(), O_RDWR);
        _exit(cfd >= 0 && lock_nonblocking(cfd) != 0 ? 0 : 1);
    }
    EXPECT_EQ(0, wait_child(pid));
    close(fd);

    for (int level : {1, 2, 3, -1}) {
        errno = 0;
        EXPECT_NE(0, sync_file(-1, level)) << level;
        EXPECT_EQ(EBADF, errno);
    }
}

TEST(SupportRetry, CopyFile) {
    testutil::TempDir tmp;
    std::string src = tmp.file("src");
    std::string content = pattern(3 * 1024 * 1024 + 17, 5);
    testutil::write_file(src, content);

    // Hard link.
    ASSERT_EQ(0, copy_file(src.c_str(), tmp.file("linked").c_str(), 1));
    struct stat a, b;
    ASSERT_EQ(0, stat(src.c_str(), &a));
    ASSERT_EQ(0, stat(tmp.file("linked").c_str(), &b));
    EXPECT_EQ(a.st_ino, b.st_ino);
    EXPECT_EQ(2u, (unsigned)a.st_nlink);
    EXPECT_NE(0, copy_file(src.c_str(), tmp.file("nodir/x").c_str(), 1));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_NE(0, copy_file(src.c_str(), tmp.file("linked").c_str(), 1));
    EXPECT_EQ(EEXIST, errno);

    // Byte copy: a file of its own with the same content.
    ASSERT_EQ(0, copy_file(src.c_str(), tmp.file("copy").c_str(), 0));
    ASSERT_EQ(0, stat(tmp.file("copy").c_str(), &b));
    EXPECT_NE(a.st_ino, b.st_ino);
    EXPECT_EQ(0600u, b.st_mode & 0777);
    EXPECT_EQ(content, testutil::read_file(tmp.file("copy")));

    // An existing target is refused and left as it was.
    testutil::write_file(tmp.file("exists"), "keep");
    EXPECT_NE(0, copy_file(src.c_str(), tmp.file("exists").c_str(), 0));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ("keep", testutil::read_file(tmp.file("exists")));

    // No source, or no directory for the target: nothing is left behind.
    EXPECT_NE(0, copy_file(tmp.file("missing").c_str(), tmp.file("t1").c_str(), 0));
    EXPECT_NE(0, access(tmp.file("t1").c_str(), F_OK));
    EXPECT_NE(0, copy_file(src.c_str(), tmp.file("nodir/t2").c_str(), 0));


    // A file that reports no length still has its bytes copied.
    ASSERT_EQ(0, copy_file("/proc/self/status", tmp.file("status").c_str(), 0));
    EXPECT_NE(std::string::npos, testutil::read_file(tmp.file("status")).find("Pid:"));

    // Across file systems, when there is a second one.
    struct stat shm;
    if (stat("/dev/shm", &shm) == 0 && shm.st_dev != a.st_dev && access("/dev/shm", W_OK) == 0) {
        std::string other = "/dev/shm/copytest." + std::to_string(getpid());
        unlink(other.c_str());
        EXPECT_NE(0, copy_file(src.c_str(), other.c_str(), 1));
        EXPECT_EQ(EXDEV, errno);
        EXPECT_EQ(0, copy_file(src.c_str(), other.c_str(), 0));
        EXPECT_EQ(content, testutil::read_file(other));
        unlink(other.c_str());
    }
}

TEST(SupportProt, StreamsWriteWhatTheyAreGiven) {
    testutil::TempDir tmp;
    std::string path = tmp.file("store.sub");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    struct protstream *s = prot_file(fd, 1);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(fd, s->fd);
    EXPECT_EQ(nullptr, prot_error(s));

    // Small writes and single bytes that cross the buffer's end many
    // times, then blocks larger than the buffer, then small ones again.
    std::string expect;
    std::string src = pattern(400000, 9);
    size_t pos = 0;
    for (int i = 0; pos < 150000; i++) {
        size_t n = (size_t)(i * 7919) % 300;
        if (i % 3 == 0) {
            ASSERT_EQ(0, prot_putc(src[pos], s));
            expect += src[pos];
            pos++;
        } else {
            ASSERT_EQ(0, prot_write(s, src.data() + pos, n));
            expect.append(src, pos, n);
            pos += n;
        }
    }
    auto put = [&](size_t n) {
        ASSERT_EQ(0, prot_write(s, src.data() + pos, n));
        expect.append(src, pos, n);
        pos += n;
    };
    put((size_t)s->maxplain);  // a buffer's worth goes out directly
    put(100000);
    put(5);
    put((size_t)s->cnt);       // exactly fills the buffer
    EXPECT_EQ(s->maxplain, s->cnt);
    put(3);
    EXPECT_EQ((long)expect.size(), prot_numbytes(s));
    ASSERT_EQ(0, prot_flush(s));
    EXPECT_EQ((long)expect.size(), prot_numbytes(s));
    EXPECT_EQ(0, prot_flush(s));
    prot_free(s);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);  // prot_free leaves the descriptor open
    close(fd);
    EXPECT_EQ(expect, testutil::read_file(path));

    EXPECT_EQ(nullptr, prot_file(fd, 0));
}

TEST(SupportProt, WriteErrorsAreReported) {
    testutil::TempDir tmp;
    std::string path = tmp.file("ro");
    testutil::write_file(path, "");
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    struct protstream *s = prot_file(fd, 1);
    ASSERT_NE(nullptr, s);
    ASSERT_EQ(0, prot_write(s, "abc", 3));  // buffered, no error yet
    EXPECT_EQ(nullptr, prot_error(s));
    EXPECT_LT(prot_flush(s), 0);
    ASSERT_NE(nullptr, prot_error(s));
    EXPECT_STREQ(strerror(EBADF), prot_error(s));
    // A failed stream takes nothing more, however much is put.
    EXPECT_LT(prot_putc('x', s), 0);
    EXPECT_LT(prot_write(s, "abc", 3), 0);
    EXPECT_LT(prot_flush(s), 0);
    prot_free(s);
    close(fd);

    // A pipe whose reader has gone, with SIGPIPE ignored as a server does.
    struct sigaction ign, old;
    memset(&ign, 0, sizeof(ign));
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old);
    int p[2];
    ASSERT_EQ(0, pipe(p));
    close(p[0]);
    s = prot_file(p[1], 1);
    ASSERT_NE(nullptr, s);
    int rc = 0;
    for (int i = 0; i < s->maxplain + 10 && rc == 0; i++) rc = prot_putc('y', s);
    EXPECT_LT(rc, 0);  // the filling byte flushed, and failed
    ASSERT_NE(nullptr, prot_error(s));
    EXPECT_STREQ(strerror(EPIPE), prot_error(s));
    std::string big(100000, 'z');
    EXPECT_LT(prot_write(s, big.data(), big.size()), 0);
    prot_free(s);
    close(p[1]);
    sigaction(SIGPIPE, &old, nullptr);
}

// File maps, careful writes, sync levels and renames into place, file
// copies and buffered output.
#include <dirent.h>
#include <sys/time.h>
#include <sys/uio.h>

#include "support/lock.h"
#include "support/map.h"
#include "support/prot.h"
#include "support/retry.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// Deterministic bytes that differ from one position to the next.
std::string pattern(size_t n, unsigned seed) {
    std::string s(n, 0);
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) s[i] = (char)((x = x * 1103515245u + 12345u) >> 16);
    return s;
}

int count_open_fds() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (struct dirent *e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

// Writes with writer into a pipe that a child drains slowly, while a timer
// interrupts every millisecond (no SA_RESTART), so that writes come back
// short or with EINTR. Gives what writer returned; the child's status is 0
// when it read exactly expect.
template <typename W> ssize_t write_to_slow_reader(const std::string &expect, int *reader_status, W writer) {
    Pipe p;
    pid_t pid = spawn([&] {
        close(p.w);
        std::string got;
        char buf[4096];
        for (int round = 1;; round++) {
            ssize_t n = read(p.r, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got.append(buf, (size_t)n);
            if (round % 16 == 0) usleep(2000);
        }
        return got == expect ? 0 : 1;
    });
    close(p.r);  // a reader that died gives EPIPE, not a writer blocked for ever
    p.r = -1;
    struct sigaction sa = {}, old;
    sa.sa_handler = [](int) {};
    sigaction(SIGALRM, &sa, &old);
    struct itimerval on = {{0, 1000}, {0, 1000}}, off = {};
    setitimer(ITIMER_REAL, &on, nullptr);
    ssize_t r = writer(p.w);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    close(p.w);
    p.w = -1;
    *reader_status = wait_child(pid);
    return r;
}

}  // namespace

TEST(SupportMap, MapsOfFilesAndTheirGrowth) {
    TempDir tmp;
    // Whole files, and more than the file has: the bytes behind its end
    // read as zeros, far beyond the page that holds the end.
    struct { std::string content; long ask; size_t len; } cases[] = {
        {"", -1, 0}, {pattern((6 << 20) + 123, 7), -1, (6 << 20) + 123}, {"small", 3 * 65536, 3 * 65536}};
    for (const auto &c : cases) {
        write_file(tmp.file("f"), c.content);
        struct map *m = map_open(tmp.file("f").c_str(), c.ask, 0, 0);
        ASSERT_TRUE(m && m->base);  // also for an empty file
        ASSERT_TRUE(m->size == c.content.size() && m->len == c.len);
        EXPECT_EQ(0, memcmp(c.content.data(), m->base, m->size)) << c.len;
        EXPECT_EQ(std::string(m->len - m->size, '\0'), std::string(m->base + m->size, m->len - m->size));
        map_free(m);
    }
    EXPECT_EQ(nullptr, map_open(tmp.file("missing").c_str(), -1, 0, 0));
    write_file(tmp.file("store.idx"), pattern(5000, 1));
    int fd = open(tmp.file("store.idx").c_str(), O_RDWR);
    struct map *m = map_refresh(fd, nullptr, 0, -1);
    ASSERT_NE(nullptr, m);
    // Unchanged: a refresh for growth keeps the map, and a write in place
    // shows through it.
    const char *base = m->base;
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_TRUE(m && m->base == base);
    ASSERT_EQ(1, pwrite(fd, "Z", 1, 10));
    EXPECT_EQ('Z', m->base[10]);
    // Grown by a lot more than a page: the new bytes are seen.
    std::string more = pattern(300000, 2);
    ASSERT_EQ((ssize_t)more.size(), pwrite(fd, more.data(), more.size(), 5000));
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_TRUE(m && m->size == 305000u && m->len == 305000u);
    EXPECT_EQ(0, memcmp(more.data(), m->base + 5000, more.size()));
    // Shrunk below the map: mapped again, not left pointing past the end.
    ASSERT_EQ(0, ftruncate(fd, 0));
    m = map_refresh(fd, m, MAP_GROWN, -1);
    ASSERT_TRUE(m && m->size == 0 && m->base);
    // A failed refresh uses up the old map and reports the error.
    EXPECT_EQ(nullptr, map_refresh(-1, m, 0, -1));
    EXPECT_EQ(EBADF, errno);
    close(fd);
}

TEST(SupportRetry, WritesSurviveInterruptsAndShortWrites) {
    std::string data = pattern(3 << 20, 3);
    int status = -1;
    EXPECT_EQ((ssize_t)data.size(), write_to_slow_reader(data, &status, [&](int fd) {
                  return retry_write(fd, data.data(), data.size());
              }));
    EXPECT_EQ(0, status);
    // A gather write of more entries than one system call takes, of
    // uneven lengths, some empty; the caller's array stays as it was.
    std::vector<std::string> parts;
    std::string all;
    for (int i = 0; i < 3000; i++) {
        parts.push_back(i % 7 == 0 ? std::string() : pattern((size_t)(i * 37) % 1500 + 1, i));
        all += parts.back();
    }
    std::vector<struct iovec> iov(parts.size());
    for (size_t i = 0; i < parts.size(); i++) iov[i] = {(void *)parts[i].data(), parts[i].size()};
    std::vector<struct iovec> saved = iov;
    EXPECT_EQ((ssize_t)all.size(), write_to_slow_reader(all, &status, [&](int fd) {
                  return retry_writev(fd, iov.data(), (int)iov.size());
              }));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, memcmp(saved.data(), iov.data(), iov.size() * sizeof(struct iovec)));
}

TEST(SupportRetry, SyncLevelsAndRenamesIntoPlace) {
    TempDir tmp;
    std::string path = tmp.file("msg");
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    int fd2 = open(tmp.file("msg2").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(0, sync_file_barrier());  // start from an empty table
    // Level 1 remembers the file system once, however many files; the
    // barrier flushes and forgets it.
    int before = count_open_fds();
    EXPECT_EQ(0, sync_file(fd, 1));
    EXPECT_EQ(0, sync_file(fd2, -1));
    EXPECT_EQ(before + 1, count_open_fds());
    EXPECT_EQ(0, sync_file_barrier());
    EXPECT_EQ(before, count_open_fds());
    close(fd2);
    for (int level : {0, 1, 2, 3, 9, -1}) EXPECT_EQ(0, sync_file(fd, level)) << level;
    for (int level : {1, 2, 3}) EXPECT_NE(0, sync_file(-1, level)) << level;
    // Remembering the file system must not cost the process its lock on a
    // synced file (a record lock goes with any close of the file).
    ASSERT_EQ(0, lock_blocking(fd));
    EXPECT_EQ(0, sync_file(fd, 1));
    EXPECT_EQ(0, sync_file_barrier());
    EXPECT_EQ(0, in_child([&] {
                  int cfd = open(path.c_str(), O_RDWR);
                  return cfd >= 0 && lock_nonblocking(cfd) != 0 ? 0 : 1;
              }));
    close(fd);
    // Level 1 leaves the directory of a rename to the next barrier, levels 2
    // and 3 flush it at once (the barrier before each rename:
    // MailboxIndex.VariableHeaderGrowsThroughIndexNew).
    std::string from = tmp.file("x.new"), to = tmp.file("x");
    for (int level : {0, 1, 2, 3}) {
        write_file(from, std::to_string(level));
        int fds = count_open_fds();
        ASSERT_EQ(0, sync_rename(from.c_str(), to.c_str(), level));
        EXPECT_EQ(fds + (level == 1), count_open_fds()) << level;
        EXPECT_EQ(std::to_string(level), read_file(to));
        ASSERT_EQ(0, sync_file_barrier());
    }
    EXPECT_EQ(-1, sync_rename(from.c_str(), to.c_str(), 1));
    EXPECT_EQ(ENOENT, errno);
}

TEST(SupportRetry, CopyFile) {
    TempDir tmp;
    std::string src = tmp.file("src"), content = pattern((3 << 20) + 17, 5);
    write_file(src, content);
    // A byte copy is a file of its own with the same content (hard links:
    // MailboxFiles.CopyingMessageFiles); a file that reports no length still
    // has its bytes copied.
    ASSERT_EQ(0, copy_file(src.c_str(), tmp.file("copy").c_str(), 0));
    EXPECT_NE(inode_of(src), inode_of(tmp.file("copy")));
    EXPECT_EQ(content, read_file(tmp.file("copy")));
    ASSERT_EQ(0, copy_file("/proc/self/status", tmp.file("status").c_str(), 0));
    EXPECT_NE(std::string::npos, read_file(tmp.file("status")).find("Pid:"));
    // Refusals: an existing target is left as it was, and nothing is left
    // behind for a missing source or target directory.
    write_file(tmp.file("exists"), "keep");
    struct { std::string from, to; int flag, err; } bad[] = {
        {src, "nodir/x", 1, ENOENT}, {src, "exists", 1, EEXIST},  {src, "exists", 0, EEXIST},
        {tmp.file("missing"), "t1", 0, ENOENT}, {src, "nodir/t2", 0, ENOENT}};
    for (const auto &b : bad) {
        EXPECT_NE(0, copy_file(b.from.c_str(), tmp.file(b.to).c_str(), b.flag)) << b.to;
        EXPECT_EQ(b.err, errno) << b.to;
    }
    EXPECT_EQ("keep", read_file(tmp.file("exists")));
    EXPECT_FALSE(file_exists(tmp.file("t1")));
    // Across file systems: MailboxFiles.CopyingMessageFiles.
}

TEST(SupportProt, StreamsWriteWhatTheyAreGivenAndReportErrors) {
    TempDir tmp;
    std::string path = tmp.file("store.sub"), expect, src = pattern(400000, 9);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    struct protstream *s = prot_file(fd, 1);
    ASSERT_NE(nullptr, s);
    size_t pos = 0;
    auto put = [&](size_t n) {
        ASSERT_EQ(0, prot_write(s, src.data() + pos, n));
        expect.append(src, pos, n);
        pos += n;
    };
    // Small writes and single bytes that cross the buffer's end many times;
    // a buffer's worth and more, which go out directly; one that exactly
    // fills the buffer.
    for (int i = 0; pos < 150000; i++) put(i % 3 == 0 ? 1 : (size_t)(i * 7919) % 300);
    for (size_t n : {(size_t)s->maxplain, (size_t)100000, (size_t)5}) put(n);
    put((size_t)s->cnt);
    put(3);
    ASSERT_EQ(0, prot_flush(s));
    EXPECT_EQ((long)expect.size(), prot_numbytes(s));
    prot_free(s);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);  // prot_free leaves the descriptor open
    close(fd);
    EXPECT_EQ(expect, read_file(path));
    EXPECT_EQ(nullptr, prot_file(fd, 0));
    // A descriptor that takes no writes: the error shows at the flush, and
    // a failed stream takes nothing more.
    fd = open(path.c_str(), O_RDONLY);
    s = prot_file(fd, 1);
    ASSERT_EQ(0, prot_write(s, "abc", 3));  // buffered, no error yet
    EXPECT_LT(prot_flush(s), 0);
    EXPECT_TRUE(prot_write(s, "abc", 3) < 0 && prot_flush(s) < 0);
    prot_free(s);
    close(fd);
    // A pipe whose reader has gone, with SIGPIPE ignored as a server does:
    // the write that fills the buffer flushes, and fails.
    struct sigaction ign = {}, old;
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old);
    Pipe p;
    close(p.r);
    p.r = -1;
    s = prot_file(p.w, 1);
    int rc = 0;
    for (int i = 0; i < s->maxplain + 10 && rc == 0; i++) rc = prot_write(s, "y", 1);
    EXPECT_LT(rc, 0);
    prot_free(s);
    sigaction(SIGPIPE, &old, nullptr);
}

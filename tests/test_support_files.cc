// Files of the support layer: configuration, stored state files, option
// files and the log; file maps, careful writes, sync levels and renames into
// place, file copies and buffered output.
#include <pwd.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <thread>

#include "support/lock.h"
#include "support/log.h"
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

int count_open_fds() { return (int)dir_entries("/proc/self/fd").size(); }

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
    Pipe::shut(p.r);  // a reader that died gives EPIPE, not a writer blocked for ever
    struct sigaction sa = {}, old;
    sa.sa_handler = [](int) {};
    sigaction(SIGALRM, &sa, &old);
    struct itimerval on = {{0, 1000}, {0, 1000}}, off = {};
    setitimer(ITIMER_REAL, &on, nullptr);
    ssize_t r = writer(p.w);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    Pipe::shut(p.w);
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
    EXPECT_FALSE(lockable_by_other(path));
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
    // Append.OneFileForTwoFolders); a file that reports no length still has
    // its bytes copied.
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
    // Across file systems: Append.FailedMessagesLeaveNoTrace.
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
    Pipe::shut(p.r);
    s = prot_file(p.w, 1);
    int rc = 0;
    for (int i = 0; i < s->maxplain + 10 && rc == 0; i++) rc = prot_write(s, "y", 1);
    EXPECT_LT(rc, 0);
    prot_free(s);
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(Config, ParsesLinesOverridesBadLinesAndValueForms) {
    Instance inst;
    size_t before = split_lines(read_file(inst.path("config/store.conf"))).size();
    inst.addConfig("  # an indented comment: with a colon\n\nlocal.a:   first value  \n local.b : x:y : z\n"
        "this line has no separator\nlocal.a: second value\nlocal.empty:\n\tlocal.tab:\t7\t\r\n"
        "#local.c: commented out\n: no key\ns.on: On\ns.false: False\ns.bad: maybe\ns.empty:\ni.neg: -17\n"
        "i.plus: +5\ni.junk: 12abc\ni.big: 99999999999\ni.empty:\ni.space: 4 2\n");
    StderrCapture err;
    ASSERT_EQ(configmsg_init(nullptr, 16, "/usr/local/bin/testprog"), 0);
    for (size_t bad : {before + 5, before + 10})  // each bad line is reported with its number
        EXPECT_NE(err.text().find("line " + std::to_string(bad)), std::string::npos) << err.text();
    err.restore();
    config_cache *c = config_getdefaultcache();
    struct { const char *key, *dflt, *want; } strings[] = {
        {"local.a", "dflt", "second value"}, {"local.b", nullptr, "x:y : z"}, {"local.empty", "dflt", ""},
        {"local.c", "dflt", "dflt"}, {"this line has no separator", "d", "d"}, {"local.missing", nullptr, nullptr}};
    for (const auto &k : strings) {
        EXPECT_EQ(str(config_get_string(c, k.key, k.dflt)), str(k.want)) << k.key;
        EXPECT_EQ(take(config_get_stringcopy(c, k.key, k.dflt)), str(k.want)) << k.key;
    }
    EXPECT_EQ(str(config_get_string(nullptr, "local.a", nullptr)), "second value");  // the same cache
    // Switches; -1: the default comes back.
    struct { const char *key; int want; } switches[] = {
        {"s.on", 1}, {"s.false", 0}, {"s.bad", -1}, {"s.empty", -1}, {"s.missing", -1}};
    for (const auto &k : switches)
        for (int dflt : {0, 1}) EXPECT_EQ(config_get_switch(c, k.key, dflt), k.want < 0 ? dflt : k.want) << k.key;
    // Integers; 99: the default comes back.
    struct { const char *key; int want; } ints[] = {{"local.tab", 7}, {"i.neg", -17}, {"i.plus", 5}, {"i.junk", 99},
                                                    {"i.big", 99}, {"i.empty", 99}, {"i.space", 99}, {"i.no", 99}};
    for (const auto &k : ints) EXPECT_EQ(config_get_int(c, k.key, 99), k.want) << k.key;
}

TEST(Config, DefaultsPartitionsStoredFilesAndModes) {
    Instance inst;
    write_file(inst.path("config/store.conf"), "");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);  // an empty file is no error
    EXPECT_EQ(str(configmsg_get_storedir()), inst.path("data/store"));
    write_file(inst.path("config/store.conf"),
               "local.store.dir: " + inst.path("data/elsewhere") + "\nstore.partition.zeta.path: /p/zeta\n"
               "store.partition.alpha.path: /p/alpha\nstore.partition.alpha.messagepath: /m/alpha\n"
               "store.partition.orphan.messagepath: /m/orphan\nstore.partition.mid.path: /p/mid-old\n"
               "store.partition.mid.path: /p/mid\n");
    configmsg_reset();
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    ASSERT_EQ(mkdir(inst.path("data/elsewhere").c_str(), 0700), 0);
    EXPECT_EQ(str(configmsg_get_storedir()), inst.path("data/elsewhere"));
    // "primary" keeps its default place even when others are configured.
    struct { const char *name; std::string dir, msgdir; } parts[] = {
        {"alpha", "/p/alpha", "/m/alpha"}, {"mid", "/p/mid", "<null>"}, {"orphan", "<null>", "<null>"},
        {"primary", inst.path("partitions/primary"), "<null>"}};
    for (const auto &p : parts)
        EXPECT_EQ(take(configmsg_partitiondir(p.name)) + take(configmsg_partitionmsgdir(p.name)),
                  p.dir + p.msgdir);
    // Stored numbers: 2 for a missing file, written through "<name>.new";
    // a malformed file is an error that leaves the value alone.
    long v = 777;
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 2);
    for (long n : {1718000000L, -5L})
        EXPECT_TRUE(configmsg_writestoredfile("eve", n) == 0 && configmsg_readstoredfile("eve", &v) == 0 &&
                    v == n);
    EXPECT_NE(access(inst.path("data/elsewhere/eve.new").c_str(), F_OK), 0);
    write_file(inst.path("data/elsewhere/eve"), "12 junk\n");
    int rc = configmsg_readstoredfile("eve", &v);
    EXPECT_TRUE(rc != 0 && rc != 2 && v == -5) << rc;
    // File modes: the store's own, for a file and a directory.
    std::string f = inst.path("data/elsewhere/somefile"), d = inst.path("data/elsewhere/somedir");
    write_file(f, "x");
    chmod(f.c_str(), 0644);
    mkdir(d.c_str(), 0755);
    EXPECT_NE(configmsg_fixfilemode(inst.path("data/elsewhere/absent").c_str(), 0), 0);
    struct stat st, sd;
    EXPECT_TRUE(configmsg_fixfilemode(f.c_str(), 0) == 0 && configmsg_fixfilemode(d.c_str(), 0) == 0);
    ASSERT_TRUE(stat(f.c_str(), &st) == 0 && stat(d.c_str(), &sd) == 0);
    EXPECT_TRUE((st.st_mode & 07777) == 0600 && (sd.st_mode & 07777) == 0700);
    uid_t me = getuid();
    EXPECT_TRUE(configmsg_setuid() == 0 && getuid() == me);  // without a server user nothing changes
    if (geteuid() != 0) GTEST_SKIP() << "changes of owner and user need root";
    struct passwd *pw = getpwnam("nobody");
    if (!pw) GTEST_SKIP() << "no user nobody";
    uid_t nobody = pw->pw_uid, nogroup = pw->pw_gid;
    inst.addConfig("local.serveruser: nobody\n");
    configmsg_reset();
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_TRUE(configmsg_fixfilemode(f.c_str(), 0) == 0 && stat(f.c_str(), &st) == 0);
    EXPECT_TRUE(st.st_uid == nobody && st.st_gid == nogroup);
    // Changing the user is for good, so it happens in a child.
    EXPECT_EQ(in_child([&] {
                  if (configmsg_setuid() != 0) return 1;
                  if (getuid() != nobody || geteuid() != nobody || getgid() != nogroup) return 2;
                  return setuid(0) == 0 ? 3 : 0;  // no way back
              }), 0);
}

TEST(Config, MissingInstanceFailsAndFirstReadersLoadTheCache) {
    TempDir tmp;
    setenv("STORE_INSTANCEDIR", tmp.file("no-such-instance").c_str(), 1);
    configmsg_reset();
    StderrCapture err;
    EXPECT_NE(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_NE(err.text().find(tmp.file("no-such-instance")), std::string::npos) << err.text();
    err.restore();
    // Readers still get their defaults, and nothing that isn't known.
    EXPECT_TRUE(config_get_int(nullptr, "x", 5) == 5 && !configmsg_get_storedir() &&
                !configmsg_partitiondir("primary"));
    // The instance appears; nobody calls configmsg_init: the first readers
    // load it, all at once.
    Instance inst("local.n: 31\n");
    std::vector<int> seen(8, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &seen] { seen[t] = config_get_int(nullptr, "local.n", -1); });
    for (auto &t : threads) t.join();
    EXPECT_EQ(seen, std::vector<int>(8, 31));
    EXPECT_TRUE(configmsg_init(nullptr, 16, "late") == 0 && str(config_processname()) == "late");
}

TEST(Log, EntriesLevelsFilterAndEcho) {
    TempDir tmp;
    std::string logdir = tmp.file("deep/logs");  // made when missing
    Instance inst("local.loglevel: 4\nlocal.logdir: " + logdir + "\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "/opt/bin/logprog"), 0);
    StderrCapture early;  // before the log is open, entries go to standard error
    svclog(0, 3, "early %d", 1);
    EXPECT_TRUE(matches("logprog\\[[0-9]+\\] error: early 1\n$", early.text())) << early.text();
    early.restore();
    ASSERT_EQ(configmsg_initlog(nullptr, "/opt/bin/logprog"), 0);
    svclog_setoptions(SVCLOG_ECHO_ERRORS);
    StderrCapture err;
    time_t start = time(nullptr);
    errno = ENOENT;
    svclog(0, 59, "open %s: %m", "folder/x");
    EXPECT_EQ(errno, ENOENT);  // kept for the caller
    errno = EACCES;
    svclog(svclog_getdefault(), 2, "100%% sure, literal %%m, real %m");
    for (int level : {60, 61, 62, 63, 3, 7}) svclog(0, level, "level %d%s", level, level == 60 ? "\nsecond line" : "");
    std::string echoed = err.text();
    err.restore();
    // Severities above the configured level are dropped; errors and worse
    // are echoed to standard error; a line end in the text is a blank.
    std::vector<std::string> lines = split_lines(read_file(logdir + "/store.log"));
    ASSERT_EQ(lines.size(), 4u);
    std::string head = "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4} logprog\\[" +
                       std::to_string(getpid()) + "\\] ";
    const char *tails[] = {"error: open folder/x: No such file or directory",
                           "critical: 100% sure, literal %m, real Permission denied", "warning: level 60 second line",
                           "error: level 3"};
    for (size_t i = 0; i < 4; i++) EXPECT_TRUE(matches(head + tails[i] + "$", lines[i])) << lines[i];
    EXPECT_EQ(split_lines(echoed).size(), 3u) << echoed;
    // The time stamp is the local time of the entry, with its offset.
    struct tm tm = {};
    ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%d %H:%M:%S %z", &tm), nullptr);
    EXPECT_LE(std::abs(timegm(&tm) - tm.tm_gmtoff - start), 2) << lines[0];
    // An auxiliary log is a file of its own; asking again gives the same handle.
    svclog_handle *trace = config_initlog_auxiliary("msgtrace", "tracer");
    ASSERT_TRUE(trace && trace != svclog_getdefault() && config_initlog_auxiliary("msgtrace", "tracer") == trace);
    svclog(trace, 60, "append:%s", "u");
    EXPECT_TRUE(matches("tracer\\[[0-9]+\\] warning: append:u\n$", read_file(logdir + "/msgtrace.log")) &&
                split_lines(read_file(logdir + "/store.log")).size() == 4);
}

// Writers in several processes, each with several threads, all on one
// log: every entry is a whole line, and each writer's come in its order.
TEST(Log, ConcurrentProcessesAndThreadsWriteWholeLines) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "conc"), 0);
    ASSERT_EQ(configmsg_initlog(nullptr, "conc"), 0);
    const int kids = 3, threads = 3, n = 500;
    std::string filler(700, 'x');
    std::vector<pid_t> pids;
    for (int k = 0; k < kids; k++)
        pids.push_back(spawn([&] {
            std::vector<std::thread> ts;
            for (int t = 0; t < threads; t++)
                ts.emplace_back([&, t] {
                    for (int i = 0; i < n; i++)
                        svclog(0, 62, "writer %d entry %d %s end", k * threads + t, i, filler.c_str());
                });
            for (auto &t : ts) t.join();
            return 0;
        }));
    for (pid_t p : pids) EXPECT_EQ(wait_child(p), 0);
    std::vector<std::string> lines = split_lines(read_file(inst.path("log/store.log")));
    ASSERT_EQ(lines.size(), (size_t)(kids * threads * n));
    std::string re = "^[0-9-]{10} [0-9:]{8} [+-][0-9]{4} conc\\[[0-9]+\\] info: writer [0-9]+ entry [0-9]+ x{700} end$";
    std::vector<int> next(kids * threads, 0);
    for (const std::string &l : lines) {
        int w = -1, i = -1;
        ASSERT_TRUE(matches(re, l) && sscanf(l.c_str() + l.find("writer"), "writer %d entry %d", &w, &i) == 2 &&
                    w < kids * threads) << l.substr(0, 200);
        EXPECT_EQ(i, next[w]++);
    }
}

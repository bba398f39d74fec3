// Configuration, stored state files, option files and the log.
#include <gtest/gtest.h>

#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/config.h"
#include "support/log.h"
#include "tests/testutil.h"

using testutil::matches;
using testutil::split_lines;
using testutil::take;

namespace {

std::string str(const char *s) { return s ? s : "<null>"; }

}  // namespace

TEST(Config, ParsesLinesOverridesBadLinesAndValueForms) {
    testutil::Instance inst;
    size_t before = split_lines(testutil::read_file(inst.path("config/store.conf"))).size();
    inst.addConfig(
        "  # an indented comment: with a colon\n"
        "\n"
        "local.a:   first value  \n"
        " local.b : x:y : z\n"
        "this line has no separator\n"
        "local.a: second value\n"
        "local.empty:\n"
        "\tlocal.tab:\t7\t\r\n"
        "#local.c: commented out\n"
        ": no key\n"
        "s.1: 1\ns.yes: YES\ns.on: On\ns.true: true\n"
        "s.0: 0\ns.no: no\ns.off: OFF\ns.false: False\ns.bad: maybe\ns.empty:\n"
        "i.plain: 42\ni.neg: -17\ni.junk: 12abc\ni.big: 99999999999\ni.empty:\n"
        "i.space: 4 2\ni.plus: +5\n");
    testutil::StderrCapture err;
    ASSERT_EQ(configmsg_init(nullptr, 16, "/usr/local/bin/testprog"), 0);
    std::string msgs = err.text();
    err.restore();
    // Each bad line is reported with its number.
    for (size_t bad : {before + 5, before + 10})
        EXPECT_NE(msgs.find("line " + std::to_string(bad)), std::string::npos) << msgs;
    EXPECT_EQ(str(config_processname()), "testprog");
    EXPECT_EQ(str(configmsg_getconfigroot()), inst.path("config"));

    config_cache *c = config_getdefaultcache();
    struct { const char *key, *dflt, *want; bool set; } strings[] = {
        {"local.a", "dflt", "second value", true}, {"local.b", nullptr, "x:y : z", true},
        {"local.empty", "dflt", "", true},          {"local.c", "dflt", "dflt", false},
        {"this line has no separator", "d", "d", false}, {"local.missing", nullptr, nullptr, false}};
    for (const auto &k : strings) {
        EXPECT_EQ(str(config_get_string(c, k.key, k.dflt)), str(k.want)) << k.key;
        EXPECT_EQ(take(config_get_stringcopy(c, k.key, k.dflt)), str(k.want)) << k.key;
        EXPECT_EQ(config_get_status(c, k.key) != 0, k.set) << k.key;
    }
    EXPECT_EQ(str(config_get_string(nullptr, "local.a", nullptr)), "second value");  // the same cache
    EXPECT_EQ(config_get_int(c, "local.tab", 0), 7);

    // -1: the default comes back.
    struct { const char *key; int want; } switches[] = {
        {"s.1", 1}, {"s.yes", 1}, {"s.on", 1}, {"s.true", 1},  {"s.0", 0}, {"s.no", 0},
        {"s.off", 0}, {"s.false", 0}, {"s.bad", -1}, {"s.empty", -1}, {"s.missing", -1}};
    for (const auto &k : switches)
        for (int dflt : {0, 1}) EXPECT_EQ(config_get_switch(c, k.key, dflt), k.want < 0 ? dflt : k.want) << k.key;
    EXPECT_EQ(config_get_int(c, "i.plain", 0), 42);
    EXPECT_EQ(config_get_int(c, "i.neg", 0), -17);
    EXPECT_EQ(config_get_int(c, "i.plus", 0), 5);
    for (const char *k : {"i.junk", "i.big", "i.empty", "i.space", "i.missing"})
        EXPECT_EQ(config_get_int(c, k, 2147483647), 2147483647) << k;
}

TEST(Config, EmptyFileWorksAndMissingInstanceFails) {
    {
        testutil::Instance inst;
        testutil::write_file(inst.path("config/store.conf"), "");
        ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
        EXPECT_EQ(config_get_int(nullptr, "store.quotawarn", 90), 90);
        EXPECT_EQ(str(configmsg_get_storedir()), inst.path("data/store"));
        EXPECT_EQ(take(configmsg_partitiondir("primary")), inst.path("partitions/primary"));
        EXPECT_EQ(configmsg_partitiondir("other"), nullptr);
        EXPECT_EQ(configmsg_partitionmsgdir("primary"), nullptr);

        // No configuration file: the message names it.
        unlink(inst.path("config/store.conf").c_str());
        configmsg_reset();
        testutil::StderrCapture err;
        EXPECT_NE(configmsg_init(nullptr, 16, "t"), 0);
        EXPECT_NE(err.text().find(inst.path("config/store.conf")), std::string::npos) << err.text();
    }
    testutil::TempDir tmp;
    std::string missing = tmp.file("no-such-instance");
    setenv("STORE_INSTANCEDIR", missing.c_str(), 1);
    configmsg_reset();
    {
        testutil::StderrCapture err;
        EXPECT_NE(configmsg_init(nullptr, 16, "t"), 0);
        EXPECT_NE(err.text().find(missing), std::string::npos) << err.text();
        // Readers still get their defaults, and nothing that isn't known.
        EXPECT_EQ(config_get_int(nullptr, "local.x", 5), 5);
        EXPECT_EQ(str(config_get_string(nullptr, "local.x", "d")), "d");
        EXPECT_EQ(configmsg_get_storedir(), nullptr);
        EXPECT_EQ(configmsg_partitiondir("primary"), nullptr);
    }
    // The instance appears later: a second attempt reads it.
    testutil::Instance inst("local.late: yes\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_EQ(config_get_switch(nullptr, "local.late", 0), 1);
}

TEST(Config, PartitionsAndStoreDirectory) {
    // Gathers "name dir" of each partition scanned; stops after stop_after.
    struct Seen {
        std::vector<std::string> seen;
        size_t stop_after = 0;
    };
    auto cb = [](const char *name, const char *dir, void *rock) -> int {
        Seen *s = (Seen *)rock;
        s->seen.push_back(std::string(name) + " " + dir);
        return s->seen.size() == s->stop_after ? 99 : 0;
    };
    {
        testutil::Instance inst;
        testutil::write_file(inst.path("config/store.conf"), "# nothing\n");
        Seen s;
        EXPECT_EQ(configmsg_scanpartition(cb, &s), 0);
        EXPECT_EQ(s.seen, std::vector<std::string>{"primary " + inst.path("partitions/primary")});
    }
    testutil::Instance inst;
    testutil::write_file(inst.path("config/store.conf"),
                         "local.store.dir: /srv/store/data\n"
                         "store.partition.zeta.path: /p/zeta\n"
                         "store.partition.alpha.path: /p/alpha\n"
                         "store.partition.alpha.messagepath: /m/alpha\n"
                         "store.partition.orphan.messagepath: /m/orphan\n"
                         "store.partition.mid.path: /p/mid-old\n"
                         "store.partition.mid.path: /p/mid\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_EQ(str(configmsg_get_storedir()), "/srv/store/data");
    // "primary" keeps its default place even when others are configured.
    struct { const char *name; std::string dir, msgdir; } parts[] = {
        {"alpha", "/p/alpha", "/m/alpha"}, {"zeta", "/p/zeta", "<null>"}, {"mid", "/p/mid", "<null>"},
        {"orphan", "<null>", "<null>"},    {"nope", "<null>", "<null>"},
        {"primary", inst.path("partitions/primary"), "<null>"}};
    for (const auto &p : parts) {
        EXPECT_EQ(take(configmsg_partitiondir(p.name)), p.dir) << p.name;
        EXPECT_EQ(take(configmsg_partitionmsgdir(p.name)), p.msgdir) << p.name;
    }
    Seen s, early;
    EXPECT_EQ(configmsg_scanpartition(cb, &s), 0);
    EXPECT_EQ(s.seen, (std::vector<std::string>{"alpha /p/alpha", "mid /p/mid", "zeta /p/zeta"}));
    early.stop_after = 2;
    EXPECT_EQ(configmsg_scanpartition(cb, &early), 99);
    EXPECT_EQ(early.seen.size(), 2u);
}

TEST(Config, StoredFilesOptionFilesAndLanguages) {
    testutil::Instance inst(
        "gen.greeting: plain\ngen.greeting.de: deutsch\ngen.greeting.fr: francais\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);

    // Stored numbers: 2 for a missing file, written through "<name>.new";
    // a malformed file is an error that leaves the value alone.
    long v = 777;
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 2);
    EXPECT_EQ(v, 777);
    for (long n : {1718000000L, -5L}) {
        EXPECT_EQ(configmsg_writestoredfile("eve", n), 0);
        EXPECT_EQ(testutil::read_file(inst.path("data/store/eve")), std::to_string(n) + "\n");
        EXPECT_EQ(configmsg_readstoredfile("eve", &v), 0);
        EXPECT_EQ(v, n);
    }
    EXPECT_NE(access(inst.path("data/store/eve.new").c_str(), F_OK), 0);
    testutil::write_file(inst.path("data/store/eve"), "12 junk\n");
    int rc = configmsg_readstoredfile("eve", &v);
    EXPECT_TRUE(rc != 0 && rc != 2 && v == -5) << rc;

    testutil::write_file(inst.path("config/opts.dat"),
                         "# schema options\n  LDAP_SCHEMALEVEL = 2 \n\nNAME=first\nNAME = a=b\n"
                         "garbage without equals\nBAD_INT=4x\n");
    optfile *o = optfile_read(configmsg_getconfigroot(), "opts.dat", svclog_getdefault(), 0, 0,
                              0, 0, 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(optfile_int(o, "LDAP_SCHEMALEVEL", 1), 2);
    EXPECT_EQ(str(optfile_get(o, "NAME", "d")), "a=b");
    for (const char *k : {"BAD_INT", "MISSING"}) EXPECT_EQ(optfile_int(o, k, 9), 9) << k;
    for (const char *k : {"MISSING", "garbage without equals"}) EXPECT_EQ(str(optfile_get(o, k, "d")), "d") << k;
    optfile_dispose(o);
    EXPECT_EQ(optfile_read(configmsg_getconfigroot(), "absent.dat", nullptr, 0, 0, 0, 0, 0), nullptr);
    // The instance's own option file is readable as made.
    o = optfile_read(configmsg_getconfigroot(), "option.dat", nullptr, 0, 0, 0, 0, 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(optfile_int(o, "LDAP_SCHEMALEVEL", 0), 1);
    optfile_dispose(o);

    // Texts by language: the first listed language that has one.
    struct { const char *key, *langs, *text, *lang; } cases[] = {
        {"gen.greeting", "it, fr de", "francais", "fr"}, {"gen.greeting", "de,fr", "deutsch", "de"},
        {"gen.greeting", "it,es", "plain", nullptr},     {"gen.greeting", nullptr, "plain", nullptr},
        {"gen.nothing", "de", nullptr, nullptr}};
    for (const auto &c : cases) {
        char *lang = (char *)"unset";
        EXPECT_EQ(take(configmsg_getstringcopywlang(c.key, 0, c.langs, &lang)), str(c.text)) << c.langs;
        EXPECT_EQ(take(lang), str(c.lang)) << c.langs;
    }
}

TEST(Config, FileModesAndServerUser) {
    testutil::Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    std::string f = inst.path("data/store/somefile"), d = inst.path("data/store/somedir");
    testutil::write_file(f, "x");
    chmod(f.c_str(), 0644);
    mkdir(d.c_str(), 0755);
    ASSERT_EQ(symlink(f.c_str(), inst.path("data/store/link").c_str()), 0);
    EXPECT_EQ(configmsg_fixfilemode(inst.path("data/store/link").c_str(), 0), 0);
    EXPECT_NE(configmsg_fixfilemode(inst.path("data/store/absent").c_str(), 0), 0);
    struct stat st;
    for (const auto &fm : {std::make_pair(f, 0600u), std::make_pair(d, 0700u)}) {
        EXPECT_EQ(configmsg_fixfilemode(fm.first.c_str(), 0), 0);
        ASSERT_EQ(stat(fm.first.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, fm.second) << fm.first;
    }
    // Without a server user nothing changes identity.
    uid_t me = getuid();
    EXPECT_EQ(configmsg_setuid(), 0);
    EXPECT_EQ(getuid(), me);

    if (geteuid() != 0) GTEST_SKIP() << "changes of owner and user need root";
    struct passwd *pw = getpwnam("nobody");
    if (!pw) GTEST_SKIP() << "no user nobody";
    uid_t nobody = pw->pw_uid;
    gid_t nogroup = pw->pw_gid;
    inst.addConfig("local.serveruser: nobody\n");
    configmsg_reset();
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_EQ(configmsg_fixfilemode(f.c_str(), 0), 0);
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, nobody);
    EXPECT_EQ(st.st_gid, nogroup);
    // Changing the user is for good, so it happens in a child.
    EXPECT_EQ(testutil::in_child([&] {
                  if (configmsg_setuid() != 0) return 1;
                  if (getuid() != nobody || geteuid() != nobody || getgid() != nogroup) return 2;
                  return setuid(0) == 0 ? 3 : 0;  // no way back
              }),
              0);

    inst.addConfig("local.serveruser: no-such-user-here\n");
    configmsg_reset();
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    testutil::StderrCapture err;
    EXPECT_EQ(testutil::in_child([&] { return configmsg_setuid() != 0 && getuid() == 0 ? 0 : 1; }), 0);
    EXPECT_NE(configmsg_fixfilemode(f.c_str(), 0), 0);
}

TEST(Config, FirstReadersLoadTheCacheTogether) {
    testutil::Instance inst("local.n: 31\n");
    // Nobody called configmsg_init: the first readers load it, all at once.
    std::vector<int> seen(8, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &seen] { seen[t] = config_get_int(nullptr, "local.n", -1); });
    for (auto &t : threads) t.join();
    EXPECT_EQ(seen, std::vector<int>(8, 31));
    EXPECT_EQ(config_processname(), nullptr);
    ASSERT_EQ(configmsg_init(nullptr, 16, "late"), 0);
    EXPECT_EQ(str(config_processname()), "late");
}

// ---------------------------------------------------------------------
// The log.

TEST(Log, EntryFormatLevelsAndErrnoText) {
    testutil::Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "/opt/bin/logprog"), 0);
    ASSERT_EQ(configmsg_initlog(nullptr, "/opt/bin/logprog"), 0);
    time_t start = time(nullptr);
    errno = ENOENT;
    svclog(0, 59, "open %s: %m", "folder/x");
    EXPECT_EQ(errno, ENOENT);  // kept for the caller
    errno = EACCES;
    svclog(svclog_getdefault(), 2, "100%% sure, literal %%m, real %m");
    struct { int level; const char *text, *tail; } plain[] = {
        {60, "w", "warning: w"}, {61, "n", "notice: n"},     {6, "info 6\n", "info: info 6"},
        {63, "two\nlines", "debug: two lines"}, {0, "e", "emergency: e"}, {1, "a", "alert: a"}};
    for (const auto &p : plain) svclog(0, p.level, "%s", p.text);
    time_t end = time(nullptr);

    std::vector<std::string> lines = split_lines(testutil::read_file(inst.path("log/store.log")));
    ASSERT_EQ(lines.size(), 8u);
    std::string head = "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4} logprog\\[" +
                       std::to_string(getpid()) + "\\] ";
    EXPECT_TRUE(matches(head + "error: open folder/x: No such file or directory$", lines[0])) << lines[0];
    EXPECT_TRUE(matches(head + "critical: 100% sure, literal %m, real Permission denied$", lines[1]))
        << lines[1];
    for (size_t i = 0; i < 6; i++)
        EXPECT_TRUE(matches(head + plain[i].tail + "$", lines[i + 2])) << lines[i + 2];

    // The time stamp is the local time of the entry.
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%d %H:%M:%S %z", &tm), nullptr);
    time_t t = timegm(&tm) - tm.tm_gmtoff;
    EXPECT_GE(t, start - 1);
    EXPECT_LE(t, end + 1);

    // An auxiliary log is a file of its own; asking again gives the same handle.
    svclog_handle *trace = config_initlog_auxiliary("msgtrace", "tracer");
    ASSERT_NE(trace, nullptr);
    EXPECT_NE(trace, svclog_getdefault());
    EXPECT_EQ(config_initlog_auxiliary("msgtrace", "tracer"), trace);
    svclog(trace, 62, "append:%s", "u");
    std::string tl = testutil::read_file(inst.path("log/msgtrace.log"));
    EXPECT_TRUE(matches("tracer\\[[0-9]+\\] info: append:u\n$", tl)) << tl;
    EXPECT_EQ(split_lines(testutil::read_file(inst.path("log/store.log"))).size(), 8u);
}

TEST(Log, LevelFilterEchoAndStderrBeforeOpen) {
    // The log directory is made when missing.
    testutil::TempDir tmp;
    std::string logdir = tmp.file("deep/logs");
    testutil::Instance inst("local.loglevel: 4\nlocal.logdir: " + logdir + "\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "filt"), 0);
    {
        // Before the log is open, entries go to standard error.
        testutil::StderrCapture err;
        svclog(0, 3, "early %d", 1);
        EXPECT_TRUE(matches("filt\\[[0-9]+\\] error: early 1\n$", err.text())) << err.text();
    }
    ASSERT_EQ(configmsg_initlog(nullptr, "filt"), 0);
    svclog_setoptions(SVCLOG_ECHO_ERRORS);
    testutil::StderrCapture err;
    for (int level : {58, 59, 60, 61, 62, 63, 3, 7}) svclog(0, level, "level %d", level);
    std::string echoed = err.text();
    err.restore();
    std::string log = testutil::read_file(logdir + "/store.log");
    for (int level : {58, 59, 60, 61, 62, 63, 3, 7}) {
        bool kept = level == 58 || level == 59 || level == 60 || level == 3;
        EXPECT_EQ(log.find("level " + std::to_string(level) + "\n") != std::string::npos, kept) << level;
    }
    EXPECT_EQ(echoed, "filt: level 58\nfilt: level 59\nfilt: level 3\n");
}

// The log file holds n whole entries "<who> K entry I <filler> end" of each
// of k writers, each writer's in its own order.
static void expect_whole_entries(const std::string &path, const std::string &who, int k, int n) {
    std::vector<std::string> lines = split_lines(testutil::read_file(path));
    ASSERT_EQ(lines.size(), (size_t)(k * n));
    std::string re = "^[0-9-]{10} [0-9:]{8} [+-][0-9]{4} conc\\[[0-9]+\\] info: " + who + " [0-9]+ entry [0-9]+ x+ end$";
    std::string tail = " " + std::string(700, 'x') + " end";
    std::vector<int> next(k, 0);
    for (const std::string &l : lines) {
        int w = -1, i = -1;
        ASSERT_TRUE(matches(re, l) && l.find(tail) != std::string::npos &&
                    sscanf(l.c_str() + l.find(who), (who + " %d entry %d").c_str(), &w, &i) == 2 && w < k)
            << l.substr(0, 200);
        EXPECT_EQ(i, next[w]);
        next[w] = i + 1;
    }
}

TEST(Log, ConcurrentProcessesAndThreadsWriteWholeLines) {
    testutil::Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "conc"), 0);
    ASSERT_EQ(configmsg_initlog(nullptr, "conc"), 0);
    std::string filler(700, 'x');
    std::vector<pid_t> kids;
    for (int k = 0; k < 3; k++)
        kids.push_back(testutil::spawn([&] {
            for (int i = 0; i < 1500; i++) svclog(0, 62, "child %d entry %d %s end", k, i, filler.c_str());
            return 0;
        }));
    for (pid_t p : kids) EXPECT_EQ(testutil::wait_child(p), 0);
    expect_whole_entries(inst.path("log/store.log"), "child", 3, 1500);

    svclog_handle *h = config_initlog_auxiliary("threads", "conc");
    ASSERT_NE(h, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([h, t, &filler] {
            for (int i = 0; i < 500; i++) svclog(h, 62, "thread %d entry %d %s end", t, i, filler.c_str());
        });
    for (auto &t : threads) t.join();
    expect_whole_entries(inst.path("log/threads.log"), "thread", 4, 500);
}

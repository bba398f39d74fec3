// Configuration, stored state files, option files and the log.
#include <pwd.h>

#include <thread>

#include "support/log.h"
#include "tests/testutil.h"

using namespace testutil;

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

TEST(Config, EmptyFileWorksAndMissingInstanceFails) {
    {
        Instance inst;
        write_file(inst.path("config/store.conf"), "");
        ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
        EXPECT_EQ(str(configmsg_get_storedir()) + " " + take(configmsg_partitiondir("primary")),
                  inst.path("data/store") + " " + inst.path("partitions/primary"));
    }
    TempDir tmp;
    setenv("STORE_INSTANCEDIR", tmp.file("no-such-instance").c_str(), 1);
    configmsg_reset();
    StderrCapture err;
    EXPECT_NE(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_NE(err.text().find(tmp.file("no-such-instance")), std::string::npos) << err.text();
    err.restore();
    // Readers still get their defaults, and nothing that isn't known.
    EXPECT_TRUE(config_get_int(nullptr, "x", 5) == 5 && !configmsg_get_storedir() && !configmsg_partitiondir("primary"));
    // The instance appears later: a second attempt reads it.
    Instance inst("local.late: yes\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_EQ(config_get_switch(nullptr, "local.late", 0), 1);
}

TEST(Config, PartitionsAndStoredFiles) {
    Instance inst;
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
        EXPECT_EQ(take(configmsg_partitiondir(p.name)) + take(configmsg_partitionmsgdir(p.name)), p.dir + p.msgdir);
    // Stored numbers: 2 for a missing file, written through "<name>.new";
    // a malformed file is an error that leaves the value alone.
    long v = 777;
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 2);
    for (long n : {1718000000L, -5L})
        EXPECT_TRUE(configmsg_writestoredfile("eve", n) == 0 && configmsg_readstoredfile("eve", &v) == 0 && v == n);
    EXPECT_NE(access(inst.path("data/elsewhere/eve.new").c_str(), F_OK), 0);
    write_file(inst.path("data/elsewhere/eve"), "12 junk\n");
    int rc = configmsg_readstoredfile("eve", &v);
    EXPECT_TRUE(rc != 0 && rc != 2 && v == -5) << rc;
}

TEST(Config, FileModesAndServerUser) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    std::string f = inst.path("data/store/somefile"), d = inst.path("data/store/somedir");
    write_file(f, "x");
    chmod(f.c_str(), 0644);
    mkdir(d.c_str(), 0755);
    EXPECT_NE(configmsg_fixfilemode(inst.path("data/store/absent").c_str(), 0), 0);
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

TEST(Config, FirstReadersLoadTheCacheTogether) {
    Instance inst("local.n: 31\n");
    // Nobody called configmsg_init: the first readers load it, all at once.
    std::vector<int> seen(8, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) threads.emplace_back([t, &seen] { seen[t] = config_get_int(nullptr, "local.n", -1); });
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

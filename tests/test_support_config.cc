// Configuration, stored state files, option files and the log.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <regex.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "support/config.h"
#include "support/log.h"
#include "tests/testutil.h"

namespace {


int count_lines(const std::string &s) {
    int n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

std::vector<std::string> split_lines(const std::string &s) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < s.size()) {
        size_t nl = s.find('\n', start);
        if (nl == std::string::npos) {
            lines.push_back(s.substr(start) + "<no newline>");
            break;
        }
        lines.push_back(s.substr(start, nl - start));
        start = nl + 1;
    }
    return lines;
}

bool matches(const std::string &re, const std::string &text) {
    regex_t r;
    if (regcomp(&r, re.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
    bool ok = regexec(&r, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&r);
    return ok;
}

std::string str(const char *s) { return s ? s : "<null>"; }

std::string take(char *s) {
    std::string r = str(s);
    free(s);
    return r;
}

// Runs fn in a child process and gives its exit status (-1 if it died).
template <typename F>
int in_child(F fn) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

}  // namespace

TEST(Config, ParsesLinesCommentsOverridesAndBadLines) {
    testutil::Instance inst;
    int before = count_lines(testutil::read_file(inst.path("config/store.conf")));
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
        ": no key\n");
    testutil::StderrCapture err;
    ASSERT_EQ(configmsg_init(nullptr, 16, "/usr/local/bin/testprog"), 0);
    std::string msgs = err.text();
    err.restore();
    // The bad line is reported with its number.
    EXPECT_NE(msgs.find("line " + std::to_string(before + 5)), std::string::npos) << msgs;
    EXPECT_NE(msgs.find("line " + std::to_string(before + 10)), std::string::npos) << msgs;

    config_cache *c = config_getdefaultcache();
    EXPECT_EQ(str(config_get_string(c, "local.a", "dflt")), "second value");
    EXPECT_EQ(str(config_get_string(c, "local.b", nullptr)), "x:y : z");
    EXPECT_EQ(str(config_get_string(c, "local.empty", "dflt")), "");
    EXPECT_TRUE(config_get_status(c, "local.empty"));
    EXPECT_EQ(config_get_int(c, "local.tab", 0), 7);
    EXPECT_EQ(str(config_get_string(c, "local.c", "dflt")), "dflt");
    EXPECT_FALSE(config_get_status(c, "local.c"));
    EXPECT_FALSE(config_get_status(c, "this line has no separator"));
    EXPECT_EQ(config_get_stringcopy(c, "local.missing", nullptr), nullptr);
    EXPECT_EQ(take(config_get_stringcopy(c, "local.missing", "d")), "d");
    EXPECT_EQ(take(config_get_stringcopy(c, "local.a", "d")), "second value");
    // The same default cache is used for a null handle.
    EXPECT_EQ(str(config_get_string(nullptr, "local.a", nullptr)), "second value");
    EXPECT_EQ(str(config_processname()), "testprog");
    EXPECT_EQ(str(config_getinstancedir()), inst.dir());
    EXPECT_EQ(str(configmsg_getconfigroot()), inst.path("config"));
}

TEST(Config, SwitchAndIntegerForms) {
    testutil::Instance inst(
        "s.1: 1\ns.yes: YES\ns.on: On\ns.true: true\n"
        "s.0: 0\ns.no: no\ns.off: OFF\ns.false: False\ns.bad: maybe\ns.empty:\n"
        "i.plain: 42\ni.neg: -17\ni.junk: 12abc\ni.big: 99999999999\ni.empty:\n"
        "i.space: 4 2\ni.plus: +5\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    config_cache *c = config_getdefaultcache();
    for (const char *k : {"s.1", "s.yes", "s.on", "s.true"}) {
        EXPECT_EQ(config_get_switch(c, k, 0), 1) << k;
        EXPECT_EQ(config_get_switch(c, k, 1), 1) << k;
    }
    for (const char *k : {"s.0", "s.no", "s.off", "s.false"}) {
        EXPECT_EQ(config_get_switch(c, k, 1), 0) << k;
        EXPECT_EQ(config_get_switch(c, k, 0), 0) << k;
    }
    for (const char *k : {"s.bad", "s.empty", "s.missing"}) {
        EXPECT_EQ(config_get_switch(c, k, 1), 1) << k;
        EXPECT_EQ(config_get_switch(c, k, 0), 0) << k;
    }
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
    unsetenv("STORE_INSTANCEDIR");
    configmsg_reset();
}

TEST(Config, PartitionsAndStoreDirectory) {
    struct Seen {
        std::vector<std::string> names, dirs;
        int stop_after = -1;
    };
    auto cb = [](const char *name, const char *dir, void *rock) -> int {
        Seen *s = (Seen *)rock;
        s->names.push_back(name);
        s->dirs.push_back(dir);
        return (int)s->names.size() == s->stop_after ? 99 : 0;
    };
    {
        testutil::Instance inst;
        testutil::write_file(inst.path("config/store.conf"), "# nothing\n");
        Seen s;
        EXPECT_EQ(configmsg_scanpartition(cb, &s), 0);
        ASSERT_EQ(s.names.size(), 1u);
        EXPECT_EQ(s.names[0], "primary");
        EXPECT_EQ(s.dirs[0], inst.path("partitions/primary"));
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
    EXPECT_EQ(take(configmsg_partitiondir("alpha")), "/p/alpha");
    EXPECT_EQ(take(configmsg_partitionmsgdir("alpha")), "/m/alpha");
    EXPECT_EQ(configmsg_partitionmsgdir("zeta"), nullptr);
    EXPECT_EQ(take(configmsg_partitiondir("mid")), "/p/mid");
    EXPECT_EQ(configmsg_partitiondir("orphan"), nullptr);
    EXPECT_EQ(configmsg_partitiondir("nope"), nullptr);
    // "primary" keeps its default place even when others are configured.
    EXPECT_EQ(take(configmsg_partitiondir("primary")), inst.path("partitions/primary"));

    Seen s;
    EXPECT_EQ(configmsg_scanpartition(cb, &s), 0);
    EXPECT_EQ(s.names, (std::vector<std::string>{"alpha", "mid", "zeta"}));
    EXPECT_EQ(s.dirs, (std::vector<std::string>{"/p/alpha", "/p/mid", "/p/zeta"}));
    Seen early;
    early.stop_after = 2;
    EXPECT_EQ(configmsg_scanpartition(cb, &early), 99);
    EXPECT_EQ(early.names.size(), 2u);
}

TEST(Config, StoredFilesOptionFilesAndLanguages) {
    testutil::Instance inst(
        "gen.greeting: plain\ngen.greeting.de: deutsch\ngen.greeting.fr: francais\n");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);

    long v = 777;
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 2);
    EXPECT_EQ(v, 777);
    EXPECT_EQ(configmsg_writestoredfile("eve", 1718000000L), 0);
    EXPECT_EQ(testutil::read_file(inst.path("data/store/eve")), "1718000000\n");
    EXPECT_NE(access(inst.path("data/store/eve.new").c_str(), F_OK), 0);
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 0);
    EXPECT_EQ(v, 1718000000L);
    EXPECT_EQ(configmsg_writestoredfile("eve", -5), 0);
    EXPECT_EQ(configmsg_readstoredfile("eve", &v), 0);
    EXPECT_EQ(v, -5);
    testutil::write_file(inst.path("data/store/eve"), "12 junk\n");
    int rc = configmsg_readstoredfile("eve", &v);
    EXPECT_NE(rc, 0);
    EXPECT_NE(rc, 2);
    EXPECT_EQ(v, -5);

    // Option file.
    testutil::write_file(inst.path("config/opts.dat"),
                         "# schema options\n"
                         "  LDAP_SCHEMALEVEL = 2 \n"
                         "\n"
                         "NAME=first\n"
                         "NAME = a=b\n"
                         "garbage without equals\n"
                         "BAD_INT=4x\n");
    optfile *o = optfile_read(configmsg_getconfigroot(), "opts.dat", svclog_getdefault(), 0, 0,
                              0, 0, 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(optfile_int(o, "LDAP_SCHEMALEVEL", 1), 2);
    EXPECT_EQ(str(optfile_get(o, "NAME", "d")), "a=b");
    EXPECT_EQ(optfile_int(o, "BAD_INT", 9), 9);
    EXPECT_EQ(optfile_int(o, "MISSING", 9), 9);
    EXPECT_EQ(str(optfile_get(o, "MISSING", "d")), "d");
    EXPECT_EQ(optfile_get(o, "garbage without equals", nullptr), nullptr);
    optfile_dispose(o);
    EXPECT_EQ(optfile_read(configmsg_getconfigroot(), "absent.dat", nullptr, 0, 0, 0, 0, 0),
              nullptr);
    // The instance's own option file is readable as made.
    o = optfile_read(configmsg_getconfigroot(), "option.dat", nullptr, 0, 0, 0, 0, 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(optfile_int(o, "LDAP_SCHEMALEVEL", 0), 1);
    optfile_dispose(o);

    // Texts by language.
    char *lang = (char *)"unset";
    EXPECT_EQ(take(configmsg_getstringcopywlang("gen.greeting", 0, "it, fr de", &lang)), "francais");
    EXPECT_EQ(take(lang), "fr");
    lang = (char *)"unset";
    EXPECT_EQ(take(configmsg_getstringcopywlang("gen.greeting", 0, "de,fr", &lang)), "deutsch");
    EXPECT_EQ(take(lang), "de");
    lang = (char *)"unset";
    EXPECT_EQ(take(configmsg_getstringcopywlang("gen.greeting", 0, "it,es", &lang)), "plain");
    EXPECT_EQ(lang, nullptr);
    lang = (char *)"unset";
    EXPECT_EQ(take(configmsg_getstringcopywlang("gen.greeting", 0, nullptr, &lang)), "plain");
    EXPECT_EQ(lang, nullptr);
    lang = (char *)"unset";
    EXPECT_EQ(configmsg_getstringcopywlang("gen.nothing", 0, "de", &lang), nullptr);
    EXPECT_EQ(lang, nullptr);
}

TEST(Config, FileModesAndServerUser) {
    testutil::Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    std::string f = inst.path("data/store/somefile");
    std::string d = inst.path("data/store/somedir");
    testutil::write_file(f, "x");
    chmod(f.c_str(), 0644);
    mkdir(d.c_str(), 0755);
    ASSERT_EQ(symlink(f.c_str(), inst.path("data/store/link").c_str()), 0);
    EXPECT_EQ(configmsg_fixfilemode(f.c_str(), 0), 0);
    EXPECT_EQ(configmsg_fixfilemode(d.c_str(), 0), 0);
    EXPECT_EQ(configmsg_fixfilemode(inst.path("data/store/link").c_str(), 0), 0);
    EXPECT_NE(configmsg_fixfilemode(inst.path("data/store/absent").c_str(), 0), 0);
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(d.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
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
    int status = in_child([&] {
        if (configmsg_setuid() != 0) return 1;
        if (getuid() != nobody || geteuid() != nobody || getgid() != nogroup) return 2;
        if (setuid(0) == 0) return 3;  // no way back
        return 0;
    });
    EXPECT_EQ(status, 0);

    inst.addConfig("local.serveruser: no-such-user-here\n");
    configmsg_reset();
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    testutil::StderrCapture err;
    status = in_child([&] { return configmsg_setuid() != 0 && getuid() == 0 ? 0 : 1; });
    EXPECT_EQ(status, 0);
    EXPECT_NE(configmsg_fixfilemode(f.c_str(), 0), 0);
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
    svclog(0, 60, "w");
    svclog(0, 61, "n");
    svclog(0, 6, "info %d\n", 6);
    svclog(0, 63, "two\nlines");
    svclog(0, 0, "e");
    svclog(0, 1, "a");
    time_t end = time(nullptr);

    std::vector<std::string> lines = split_lines(testutil::read_file(inst.path("log/store.log")));
    ASSERT_EQ(lines.size(), 8u);
    std::string head = "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4} logprog\\[" +
                       std::to_string(getpid()) + "\\] ";
    const char *tails[] = {
        "error: open folder/x: No such file or directory$",
        "critical: 100% sure, literal %m, real Permission denied$",
        "warning: w$",
        "notice: n$",
        "info: info 6$",
        "debug: two lines$",
        "emergency: e$",
        "alert: a$",
    };
    for (size_t i = 0; i < lines.size(); i++)
        EXPECT_TRUE(matches(head + tails[i], lines[i])) << lines[i];

    // The time stamp is the local time of the entry.
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%d %H:%M:%S %z", &tm), nullptr);
    long off = tm.tm_gmtoff;
    time_t t = timegm(&tm) - off;
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
    testutil::Instance inst("local.loglevel: 4\nlocal.logdir: " + std::string("LOGDIR") + "\n");
    // The log directory is made when missing.
    testutil::TempDir tmp;
    std::string logdir = tmp.file("deep/logs");
    std::string conf = testutil::read_file(inst.path("config/store.conf"));
    conf.replace(conf.find("LOGDIR"), 6, logdir);
    testutil::write_file(inst.path("config/store.conf"), conf);

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
    for (int level : {58, 59, 60, 3})
        EXPECT_NE(log.find("level " + std::to_string(level) + "\n"), std::string::npos) << level;
    for (int level : {61, 62, 63, 7})
        EXPECT_EQ(log.find("level " + std::to_string(level) + "\n"), std::string::npos) << level;
    EXPECT_EQ(echoed, "filt: level 58\nfilt: level 59\nfilt: level 3\n");
}

TEST(Log, ConcurrentProcessesWriteWholeLines) {
    testutil::Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "conc"), 0);
    ASSERT_EQ(configmsg_initlog(nullptr, "conc"), 0);
    const int per_child = 1500;
    std::string filler(700, 'x');
    std::vector<pid_t> kids;
    for (int k = 0; k < 3; k++) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < per_child; i++)
                svclog(0, 62, "child %d entry %d %s end", k, i, filler.c_str());
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t p : kids) {
        int st;
        waitpid(p, &st, 0);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    std::vector<std::string> lines = split_lines(testutil::read_file(inst.path("log/store.log")));
    ASSERT_EQ(lines.size(), (size_t)(3 * per_child));
    std::vector<int> next(3, 0);
    regex_t re;
    ASSERT_EQ(regcomp(&re,
                      "^[0-9-]{10} [0-9:]{8} [+-][0-9]{4} conc\\[[0-9]+\\] info: child [0-2] "
                      "entry [0-9]+ x+ end$",
                      REG_EXTENDED | REG_NOSUB),
              0);
    for (const std::string &l : lines) {
        bool whole = regexec(&re, l.c_str(), 0, nullptr, 0) == 0 &&
                     l.find(" " + filler + " end") != std::string::npos;
        EXPECT_TRUE(whole) << l.substr(0, 200);
        if (!whole) break;
        int k, i;
        if (sscanf(l.c_str() + l.find("child "), "child %d entry %d", &k, &i) != 2) {
            ADD_FAILURE() << l.substr(0, 200);
            break;
        }
        // Each process's entries appear whole and in its own order.
        EXPECT_EQ(i, next[k]);
        next[k] = i + 1;
    }
    regfree(&re);

    // Threads of one process share a log the same way.
    svclog_handle *h = config_initlog_auxiliary("threads", "conc");
    ASSERT_NE(h, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([h, t, &filler] {
            for (int i = 0; i < 500; i++) svclog(h, 62, "thread %d entry %d %s end", t, i, filler.c_str());
        });
    for (auto &t : threads) t.join();
    lines = split_lines(testutil::read_file(inst.path("log/threads.log")));
    ASSERT_EQ(lines.size(), 2000u);
    for (const std::string &l : lines) {
        bool whole = l.find("] info: thread ") != std::string::npos &&
                     l.size() > filler.size() + 4 &&
                     l.compare(l.size() - filler.size() - 4, std::string::npos, filler + " end") == 0 &&
                     l.find(" " + filler + " end") != std::string::npos;
        EXPECT_TRUE(whole) << l.substr(0, 200);
        if (!whole) break;
    }
}

TEST(Config, FirstReadersLoadTheCacheTogether) {
    testutil::Instance inst("local.n: 31\n");
    // Nobody called configmsg_init: the first readers load it, all at once.
    std::vector<int> seen(8, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &seen] { seen[t] = config_get_int(nullptr, "local.n", -1); });
    for (auto &t : threads) t.join();
    for (int v : seen) EXPECT_EQ(v, 31);
    EXPECT_EQ(config_processname(), nullptr);
    ASSERT_EQ(configmsg_init(nullptr, 16, "late"), 0);
    EXPECT_EQ(config_get_int(nullptr, "local.n", -1), 31);
    EXPECT_EQ(str(config_processname()), "late");
}

// Start-up and recovery of the folder database: database directories are
// built in each state, a child process recovers them as the daemon does,
// and the log tells the state judged, the repairs in order and the
// recovery of the first open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "store/mboxlist.h"
#include "support/config.h"
#include "support/log.h"
#include "tests/testutil.h"

using testutil::Instance;

namespace {

std::string dbdir(const Instance &inst) { return inst.path("data/store/mboxlist"); }

bool exists(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0;
}

void sh(const std::string &cmd) { ASSERT_EQ(testutil::run_command(cmd), 0) << cmd; }

// Runs a recovery in a child process as the daemon does; with a name, the
// child then reports whether that folder has a row (exit 10) or not (11).
// Returns the child's exit status.
int recover_in_child(const char *putName = nullptr, const char *askName = nullptr) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        configmsg_reset();
        if (configmsg_init(nullptr, 16, "stored") != 0 || configmsg_initlog(nullptr, "stored") != 0)
            _exit(90);
        if (mboxlist_recover() != 0) _exit(91);
        if (putName) {
            struct mboxdata mbd;
            memset(&mbd, 0, sizeof(mbd));
            mbd.version = MAILBOX_VERSION;
            DBT key, data;
            mboxlist_create_struct(&key, &data, nullptr, putName, &mbd, "primary", "", nullptr);
            int r;
            do {
                DB_TXN *txn;
                if (mboxlist_trans_setup(&txn, "test", putName)) _exit(92);
                r = mboxlist_trans_finish(txn, mbl->put(mbl, txn, &key, &data, 0));
            } while (r == DB_LOCK_DEADLOCK);
            if (r) _exit(93);
        }
        int code = 0;
        if (askName) code = mboxlist_lookup_data(askName, nullptr, nullptr) == 0 ? 10 : 11;
        mboxlist_close();
        _exit(code);
    }
    int st;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// The lines of the log written since mark, and the new mark.
std::string log_since(const Instance &inst, size_t *mark) {
    std::string all = testutil::read_file(inst.path("log/store.log"));
    std::string part = all.substr(*mark < all.size() ? *mark : all.size());
    *mark = all.size();
    return part;
}

// Each text must stand in the log, in this order.
void expect_in_order(const std::string &log, const std::vector<std::string> &texts) {
    size_t pos = 0;
    for (const auto &t : texts) {
        size_t at = log.find(t, pos);
        EXPECT_NE(at, std::string::npos) << "missing or out of order: " << t << "\n" << log;
        if (at == std::string::npos) return;
        pos = at + t.size();
    }
}

const char *STATE = "mboxlist_init: DB initial state = ";
const char *NORMAL = "with normal recovery";
const char *FATAL = "with catastrophic recovery";
const char *SUCCESS = "stored mboxlist_init: mboxlist database startup successful";

// A store that has been brought up once and holds the row "user/keep".
class RecoveryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(recover_in_child("user/keep", "user/keep"), 10);
        log_since(inst, &mark);
    }
    std::string logNow() { return log_since(inst, &mark); }
    void copyDatabases(const std::string &to, bool withLogs) {
        sh("mkdir -p '" + to + "' && cp '" + dbdir(inst) + "'/*.db '" + to + "'/");
        if (withLogs) sh("cp '" + dbdir(inst) + "'/log.* '" + to + "'/");
    }
    Instance inst;
    size_t mark = 0;
};

}  // namespace

TEST(RecoveryStates, EmptyStoreComesUpWithEveryDatabase) {
    Instance inst;
    size_t mark = 0;
    ASSERT_EQ(recover_in_child(nullptr, "user/none"), 11);
    std::string log = log_since(inst, &mark);
    expect_in_order(log, {std::string(STATE) + "2", NORMAL, SUCCESS});
    EXPECT_EQ(log.find("Removing database and initializing"), std::string::npos);
    for (const char *f : {"folder.db", "quota.db", "subscr.db", "lright.db", "peruser.db"})
        EXPECT_TRUE(exists(dbdir(inst) + "/" + f)) << f;
    // The silent try of the template wrote the event.
    long eve = 0;
    ASSERT_EQ(configmsg_readstoredfile("eve", &eve), 0);
    EXPECT_GT(eve, 0);
    // Every database passes the library's own check.
    for (const char *f : {"folder.db", "quota.db", "subscr.db", "lright.db", "peruser.db"}) {
        std::string out, err;
        EXPECT_EQ(testutil::run_command("cd '" + dbdir(inst) + "' && db5.3_verify -q " + f, &out,
                                        &err),
                  0)
            << f << err;
    }
}

TEST(RecoveryStates, OnlySessionsAndFolderlockIsEmpty) {
    Instance inst;
    sh("mkdir -p '" + dbdir(inst) + "/sessions' '" + dbdir(inst) + "/folderlock'");
    size_t mark = 0;
    ASSERT_EQ(recover_in_child(), 0);
    expect_in_order(log_since(inst, &mark), {std::string(STATE) + "2", SUCCESS});
}

TEST_F(RecoveryTest, GoodStoreOpensWithItsRows) {
    sh("touch '" + dbdir(inst) + "/sessions'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    std::string log = logNow();
    expect_in_order(log, {std::string(STATE) + "1", NORMAL, SUCCESS});
    EXPECT_EQ(log.find("Removing"), std::string::npos);
}

TEST_F(RecoveryTest, LightRightsDatabaseMissingIsStillGood) {
    sh("rm '" + dbdir(inst) + "/lright.db'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {std::string(STATE) + "1", SUCCESS});
    EXPECT_TRUE(exists(dbdir(inst) + "/lright.db"));
}

TEST_F(RecoveryTest, MissingLogsAreDroppedAndDataKept) {
    sh("rm '" + dbdir(inst) + "'/log.*");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {std::string(STATE) + "3", "Removing extra database logs.", NORMAL,
                               SUCCESS});
}

TEST_F(RecoveryTest, GapOrTooManyLogsAreDropped) {
    std::string d = dbdir(inst);
    sh("cp '" + d + "/log.0000000001' '" + d + "/log.0000000003'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {std::string(STATE) + "4", "Removing extra database logs.", SUCCESS});

    for (int i = 2; i <= 9; i++) {
        char name[32];
        snprintf(name, sizeof(name), "/log.%010d", i);
        sh("cp '" + d + "/log.0000000001' '" + d + name + "'");
    }
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {std::string(STATE) + "4", "Removing extra database logs.", SUCCESS});
}

TEST_F(RecoveryTest, MissingDatabaseStartsOverAndKeepsTheOldOne) {
    sh("rm '" + dbdir(inst) + "/quota.db'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 11);
    std::string log = logNow();
    expect_in_order(log, {std::string(STATE) + "5",
                          "Removing database and initializing with template.",
                          "Could not initialize database with templates",
                          "Removing database and initializing.", NORMAL, SUCCESS});
    EXPECT_TRUE(exists(dbdir(inst) + "/removed/folder.db"));
    EXPECT_NE(log.find("Previous version of store database moved for analysis"), std::string::npos);
}

TEST_F(RecoveryTest, SnapshotIsPutInPlaceWithCatastrophicRecovery) {
    inst.addConfig("local.store.snapshotpath: snaps");
    std::string snap = inst.path("data/store/snaps/s1");
    copyDatabases(snap, true);
    sh("touch '" + snap + "/.snaptime'");
    // An older snapshot and a directory without a time mark are passed over.
    copyDatabases(inst.path("data/store/snaps/s0"), true);
    sh("touch -d '2 days ago' '" + inst.path("data/store/snaps/s0/.snaptime") + "'");
    sh("mkdir -p '" + inst.path("data/store/snaps/bad") + "'");
    sh("rm '" + dbdir(inst) + "/quota.db'");

    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    std::string log = logNow();
    expect_in_order(log, {"Best mboxlist db snapshot", ":s1: n = 2", std::string(STATE) + "5",
                          "Recovering database from snapshot.", FATAL, SUCCESS});
    EXPECT_EQ(log.find("Removing database and initializing"), std::string::npos);
}

TEST_F(RecoveryTest, TemplateIsPutInPlace) {
    std::string tmpl = inst.path("data/store/dbdata/templates");
    copyDatabases(tmpl, false);
    for (const char *f : {"folder.db", "subscr.db", "peruser.db", "lright.db"})
        ASSERT_EQ(zero_lsn((tmpl + "/" + f).c_str(), 4096), 0);
    ASSERT_EQ(zero_lsn((tmpl + "/quota.db").c_str(), 512), 0);
    sh("rm '" + dbdir(inst) + "/subscr.db'");

    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    std::string log = logNow();
    expect_in_order(log, {std::string(STATE) + "5",
                          "Removing database and initializing with template.", NORMAL, SUCCESS});
    EXPECT_EQ(log.find("Could not initialize"), std::string::npos);

    // A template that also holds a configuration file is refused.
    sh("touch '" + tmpl + "/DB_CONFIG'");
    EXPECT_EQ(insert_template(), -2);
}

TEST_F(RecoveryTest, SequenceFilesChooseTheRepairs) {
    inst.addConfig("local.store.snapshotpath: snaps");
    std::string snap = inst.path("data/store/snaps/s1");
    copyDatabases(snap, true);
    sh("touch '" + snap + "/.snaptime'");
    sh("mkdir -p '" + inst.path("data/store/dbdata") + "'");
    std::string ph2 = inst.path("data/store/dbdata/stored.ph2");

    // A good file naming 4 first removes the database without a snapshot.
    testutil::write_file(ph2, std::string("functi\0\1\0\4", 10));
    sh("rm '" + dbdir(inst) + "/quota.db'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 11);
    std::string log = logNow();
    expect_in_order(log, {std::string(STATE) + "5", "Removing database and initializing.", SUCCESS});
    EXPECT_EQ(log.find("Recovering database from snapshot"), std::string::npos);

    // A count of 11 is refused in silence: the default takes the snapshot.
    std::string bad = std::string("functi\0\x0b", 8);
    for (int i = 0; i < 11; i++) bad += std::string("\0\4", 2);
    testutil::write_file(ph2, bad);
    sh("rm '" + dbdir(inst) + "/quota.db'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {"Recovering database from snapshot.", FATAL, SUCCESS});

    unsigned count = 0;
    uint32_t nums[10];
    EXPECT_EQ(get_phase_sequence(&count, nums, ph2.c_str()), 4);
    std::string p = inst.path("seq");
    testutil::write_file(p, "funct");
    EXPECT_EQ(get_phase_sequence(&count, nums, p.c_str()), 1);
    testutil::write_file(p, std::string("foncti\0\1\0\1", 10));
    EXPECT_EQ(get_phase_sequence(&count, nums, p.c_str()), 2);
    testutil::write_file(p, std::string("functi\0\2\0\1", 10));
    EXPECT_EQ(get_phase_sequence(&count, nums, p.c_str()), 3);
    testutil::write_file(p, std::string("functi\0\1\0\5", 10));
    EXPECT_EQ(get_phase_sequence(&count, nums, p.c_str()), 5);
    testutil::write_file(p, std::string("functi\0\2\0\3\0\1", 12));
    ASSERT_EQ(get_phase_sequence(&count, nums, p.c_str()), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(nums[0], 3u);
    EXPECT_EQ(nums[1], 1u);
    EXPECT_EQ(get_phase_sequence(&count, nums, inst.path("nofile").c_str()), ENOENT);
}

TEST_F(RecoveryTest, CatrecovFileForcesCatastrophicRecovery) {
    sh("touch '" + dbdir(inst) + "/.catrecov'");
    ASSERT_EQ(recover_in_child(nullptr, "user/keep"), 10);
    expect_in_order(logNow(), {std::string(STATE) + "1", FATAL, SUCCESS});
}

TEST_F(RecoveryTest, ForeignLogVersionRemovesTheEnvironment) {
    std::string d = dbdir(inst);
    sh("rm '" + d + "'/log.*");
    ASSERT_TRUE(exists(d + "/__db.001"));
    // A log head with the library's magic and another version.
    std::string head(20, '\0');
    uint32_t magic = DB_LOGMAGIC, version = 8;
    if (version == DB_LOGVERSION) version = 7;
    memcpy(&head[12], &magic, 4);
    memcpy(&head[16], &version, 4);
    testutil::write_file(d + "/log.0000000001", head);
    EXPECT_EQ(db_log_version(d.c_str(), "log.0000000001"), (int)version);

    ASSERT_EQ(recover_in_child(), 0);
    std::string log = logNow();
    expect_in_order(log, {"Removing database environment", std::string(STATE) + "1", SUCCESS});
}

TEST(RecoveryFiles, GroupsSnapshotsAndPages) {
    testutil::TempDir t;
    std::string d = t.path();
    for (const char *f : {"log.1", "log.0000000001", "x.db", ".db", "__db.001", "__db", "DB_CONFIG",
                          "other"})
        testutil::write_file(d + "/" + f, "x");
    EXPECT_EQ(db_rm(d.c_str(), DBGROUP_LOGS), 0);
    EXPECT_TRUE(exists(d + "/log.1"));
    EXPECT_FALSE(exists(d + "/log.0000000001"));
    EXPECT_EQ(db_rm(d.c_str(), DBGROUP_DATABASES | DBGROUP_REGIONS), 0);
    EXPECT_FALSE(exists(d + "/x.db"));
    EXPECT_TRUE(exists(d + "/.db"));
    EXPECT_FALSE(exists(d + "/__db.001"));
    EXPECT_TRUE(exists(d + "/__db"));
    EXPECT_TRUE(exists(d + "/DB_CONFIG"));
    EXPECT_EQ(db_rm(d.c_str(), 15), 0);
    EXPECT_FALSE(exists(d + "/DB_CONFIG"));
    EXPECT_TRUE(exists(d + "/other"));
    EXPECT_EQ(db_rm((d + "/missing").c_str(), 15), 0);

    // Snapshots: newest first, equal times with the later one first, five at most.
    std::string snaps = d + "/snaps";
    const char *names[] = {"a", "b", "c", "d", "e", "f", "g"};
    // Fixed times, so that f and g are equal to the second.
    const char *ages[] = {"2020-01-01 00:00", "2020-01-02 00:00", "2020-01-03 00:00",
                          "2020-01-04 00:00", "2020-01-05 00:00", "2020-01-06 00:00",
                          "2020-01-06 00:00"};
    for (int i = 0; i < 7; i++) {
        std::string s = snaps + "/" + names[i];
        sh("mkdir -p '" + s + "' && touch -d '" + ages[i] + "' '" + s + "/.snaptime'");
    }
    sh("mkdir -p '" + snaps + "/nots' '" + snaps + "/toolong' && touch '" + snaps + "/.snaplock'");
    int n;
    uint32_t times[5];
    char dirs[5][5];
    ASSERT_EQ(analyse_snapshots(snaps.c_str(), &n, times, dirs), 0);
    ASSERT_EQ(n, 5);
    EXPECT_EQ(times[0], times[1]);
    std::string firstTwo = std::string(dirs[0]) + dirs[1];
    EXPECT_TRUE(firstTwo == "fg" || firstTwo == "gf") << firstTwo;
    EXPECT_STREQ(dirs[2], "e");
    EXPECT_STREQ(dirs[4], "c");
    EXPECT_EQ(analyse_snapshots((d + "/none").c_str(), &n, times, dirs), 1);

    // zero_lsn clears the first 8 bytes of each whole page only.
    std::string pages(4096 * 2 + 100, '\x55');
    testutil::write_file(d + "/p.db", pages);
    ASSERT_EQ(zero_lsn((d + "/p.db").c_str(), 4096), 0);
    std::string after = testutil::read_file(d + "/p.db");
    ASSERT_EQ(after.size(), pages.size());
    EXPECT_EQ(after.substr(0, 8), std::string(8, '\0'));
    EXPECT_EQ(after[8], '\x55');
    EXPECT_EQ(after.substr(4096, 8), std::string(8, '\0'));
    EXPECT_EQ(after.substr(8192), std::string(100, '\x55'));

    // Copies and moves take the groups only.
    std::string src = d + "/src", dst = d + "/dst";
    sh("mkdir -p '" + src + "/sub' '" + dst + "'");
    testutil::write_file(src + "/folder.db", "folders");
    testutil::write_file(src + "/log.0000000004", "log");
    testutil::write_file(src + "/notes.txt", "no");
    ASSERT_EQ(db_copy(dst.c_str(), src.c_str()), 0);
    EXPECT_EQ(testutil::read_file(dst + "/folder.db"), "folders");
    EXPECT_TRUE(exists(dst + "/log.0000000004"));
    EXPECT_FALSE(exists(dst + "/notes.txt"));
    EXPECT_EQ(db_file_copy((dst + "/x").c_str(), (src + "/missing").c_str()), 1);
    EXPECT_EQ(db_file_copy((d + "/nodir/x").c_str(), (src + "/folder.db").c_str()), 2);
    ASSERT_EQ(db_rm(dst.c_str(), 15), 0);
    ASSERT_EQ(rename_db(dst.c_str(), src.c_str()), 0);
    EXPECT_FALSE(exists(src + "/folder.db"));
    EXPECT_TRUE(exists(dst + "/folder.db"));
    EXPECT_EQ(rename_db(dst.c_str(), (d + "/missing").c_str()), -1);

    ASSERT_EQ(write_db_config("/data/dir", dst.c_str()), 0);
    EXPECT_EQ(testutil::read_file(dst + "/DB_CONFIG"), "DB_DATA_DIR /data/dir\nDB_LOG_DIR /data/dir\n");
}

TEST(RecoveryFiles, RepairsRunOnceAndPathsAreChecked) {
    Instance inst("local.store.snapshotpath: ../up");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    char buf[1024];
    EXPECT_EQ(mboxlist_snapshot_path(buf), -1);
    configmsg_reset();
    inst.addConfig("local.store.snapshotpath: /abs/snaps");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    ASSERT_EQ(mboxlist_snapshot_path(buf), 0);
    EXPECT_STREQ(buf, "/abs/snaps/");
    configmsg_reset();
    inst.addConfig("local.store.snapshotpath: rel");
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    ASSERT_EQ(mboxlist_snapshot_path(buf), 0);
    EXPECT_EQ(std::string(buf), inst.path("data/store") + "/rel/");
    ASSERT_EQ(mboxlist_mboxlist_path(buf), 0);
    EXPECT_EQ(std::string(buf), inst.path("data/store") + "/mboxlist/");

    mboxlist_reset_for_tests();
    EXPECT_EQ(phase_function_execute(3), 1);
    EXPECT_EQ(phase_function_execute(3), 0);
    for (uint32_t i = 10; i < 19; i++) EXPECT_EQ(phase_function_execute(i), 1);
    // The list is full: a new number runs, but is not noted.
    EXPECT_EQ(phase_function_execute(99), 1);
    EXPECT_EQ(phase_function_execute(99), 1);
    mboxlist_reset_for_tests();
}

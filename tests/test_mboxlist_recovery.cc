// Start-up and recovery of the folder database: database directories are
// built in each state, a child process recovers them as the daemon does,
// and the log tells the state judged, the repairs in order and the
// recovery of the first open.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "store/mboxlist.h"
#include "support/config.h"
#include "tests/testutil.h"

using testutil::Instance;
using testutil::file_exists;

namespace {

const char *const DBFILES[] = {"folder.db", "quota.db", "subscr.db", "lright.db", "peruser.db"};

// Recovers the store in a child as the daemon does. With put, that folder's
// row is written; with ask, the result is 10 if that folder has a row, else
// 11. 91 if the recovery failed.
int recover_in_child(const char *put = nullptr, const char *ask = nullptr) {
    return testutil::in_child([&] {
        if (testutil::start_store("stored") != 0) return 91;
        if (put) testutil::put_row(put, MAILBOX_VERSION, 0, "");
        int found = ask ? (testutil::has_row(ask) ? 10 : 11) : 0;
        return mboxlist_close() == 0 ? found : 92;
    });
}

// The log written since *mark; moves the mark.
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
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << t << "\n" << log;
        pos = at + t.size();
    }
}

const std::string STATE = "mboxlist_init: DB initial state = ";
const char *NORMAL = "with normal recovery";
const char *FATAL = "with catastrophic recovery";
const char *SUCCESS = "stored mboxlist_init: mboxlist database startup successful";
const char *FROM_SNAPSHOT = "Recovering database from snapshot.";
const char *TEMPLATE = "Removing database and initializing with template.";
const char *EMPTY = "Removing database and initializing.";
const char *DROP_LOGS = "Removing extra database logs.";

// A snapshot s1 of the store as it is, an older s0 and a directory without
// a time mark, which are passed over.
const char *SNAPSHOTS =
    "mkdir -p $S/snaps/s1 $S/snaps/s0 $S/snaps/bad && cp $D/*.db $D/log.* $S/snaps/s1 && "
    "cp $D/*.db $D/log.* $S/snaps/s0 && touch $S/snaps/s1/.snaptime && "
    "touch -d '2 days ago' $S/snaps/s0/.snaptime && ";

struct Case {
    const char *name;
    std::string setup;  // shell, with $D the database and $S the store directory
    bool snapshots_configured;
    int found;  // 10: the row "user/keep" is there afterwards; 11: it isn't
    std::vector<std::string> log;
    const char *never;  // a text that must not be logged
};

}  // namespace

TEST(Recovery, EmptyStoreComesUpWithEveryDatabase) {
    Instance inst;
    std::string d = inst.path("data/store/mboxlist");
    ASSERT_EQ(testutil::run_command("mkdir -p '" + d + "/sessions' '" + d + "/folderlock'"), 0);
    size_t mark = 0;
    ASSERT_EQ(recover_in_child(nullptr, "user/none"), 11);
    std::string log = log_since(inst, &mark);
    expect_in_order(log, {STATE + "2", NORMAL, SUCCESS});
    EXPECT_EQ(log.find(EMPTY), std::string::npos);
    long eve = 0;  // the silent try of the template is an event
    ASSERT_EQ(configmsg_readstoredfile("eve", &eve), 0);
    EXPECT_GT(eve, 0);
    for (const char *f : DBFILES) {  // every database passes the library's own check
        std::string err;
        EXPECT_EQ(testutil::run_command("cd '" + d + "' && db5.3_verify -q " + f, nullptr, &err), 0)
            << f << err;
    }
}

TEST(Recovery, EachStateTakesItsRepairs) {
    const Case cases[] = {
        {"good", "touch $D/sessions", false, 10, {STATE + "1", NORMAL, SUCCESS}, "Removing"},
        {"no lright.db", "rm $D/lright.db", false, 10, {STATE + "1", SUCCESS}, "Removing"},
        {"no logs", "rm $D/log.*", false, 10, {STATE + "3", DROP_LOGS, NORMAL, SUCCESS}, EMPTY},
        {"gap in the logs", "cp $D/log.0000000001 $D/log.0000000003", false, 10,
         {STATE + "4", DROP_LOGS, SUCCESS}, EMPTY},
        {"nine logs", "for i in 2 3 4 5 6 7 8 9; do cp $D/log.0000000001 $D/log.000000000$i; done",
         false, 10, {STATE + "4", DROP_LOGS, SUCCESS}, EMPTY},
        {"missing database", "rm $D/quota.db", false, 11,
         {STATE + "5", TEMPLATE, "Could not initialize database with templates", EMPTY,
          "Previous version of store database moved for analysis", NORMAL, SUCCESS},
         nullptr},
        {"snapshot", std::string(SNAPSHOTS) + "rm $D/quota.db", true, 10,
         {"Best mboxlist db snapshot", ":s1: n = 2", STATE + "5", FROM_SNAPSHOT, FATAL, SUCCESS},
         EMPTY},
        {"ph2 naming 4 first", std::string(SNAPSHOTS) +
         "mkdir -p $S/dbdata && printf 'functi\\000\\001\\000\\004' >$S/dbdata/stored.ph2 && "
         "rm $D/quota.db", true, 11, {STATE + "5", EMPTY, SUCCESS}, FROM_SNAPSHOT},
        {"ph2 with a count of 11", std::string(SNAPSHOTS) +
         "mkdir -p $S/dbdata && printf 'functi\\000\\013' >$S/dbdata/stored.ph2 && "
         "for i in 1 2 3 4 5 6 7 8 9 10 11; do printf '\\000\\004' >>$S/dbdata/stored.ph2; done && "
         "rm $D/quota.db", true, 10, {FROM_SNAPSHOT, FATAL, SUCCESS}, EMPTY},
        {"template", "mkdir -p $S/dbdata/templates && cp $D/*.db $S/dbdata/templates && "
         "rm $D/subscr.db", false, 10, {STATE + "5", TEMPLATE, NORMAL, SUCCESS}, "Could not"},
        {".catrecov", "touch $D/.catrecov", false, 10, {STATE + "1", FATAL, SUCCESS}, nullptr},
        // A log head with the library's magic and version 7.
        {"foreign log version", "rm $D/log.* && printf '\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0"
         "\\210\\011\\004\\0\\007\\0\\0\\0' >$D/log.0000000001", false, 0,
         {"Removing database environment", STATE + "1", SUCCESS}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Instance inst(c.snapshots_configured ? "local.store.snapshotpath: snaps" : "");
        ASSERT_EQ(recover_in_child("user/keep", "user/keep"), 10);
        std::string s = inst.path("data/store");
        ASSERT_EQ(testutil::run_command("S='" + s + "'; D=$S/mboxlist; " + c.setup), 0) << c.setup;
        // A template must make no work for recovery: its pages point at no log.
        if (c.setup.find("templates") != std::string::npos) {
            ASSERT_EQ(zero_logs((s + "/dbdata/templates").c_str()), 0);
        }
        size_t mark = 0;
        log_since(inst, &mark);
        int status = recover_in_child(nullptr, "user/keep");
        EXPECT_TRUE(!c.found || status == c.found) << status;
        std::string log = log_since(inst, &mark);
        expect_in_order(log, c.log);
        EXPECT_TRUE(!c.never || log.find(c.never) == std::string::npos) << c.never << "\n" << log;
    }
}

TEST(Recovery, FileGroupsSnapshotsAndPages) {
    testutil::TempDir t;
    std::string d = t.path();
    for (const char *f : {"log.1", "log.0000000001", "x.db", ".db", "__db.001", "__db", "DB_CONFIG"})
        testutil::write_file(d + "/" + f, "x");
    EXPECT_EQ(db_rm(d.c_str(), DBGROUP_LOGS | DBGROUP_DATABASES | DBGROUP_REGIONS), 0);
    for (const char *f : {"log.1", ".db", "__db", "DB_CONFIG"}) EXPECT_TRUE(file_exists(d + "/" + f)) << f;
    for (const char *f : {"log.0000000001", "x.db", "__db.001"}) EXPECT_FALSE(file_exists(d + "/" + f)) << f;

    // Snapshots: newest first, equal times side by side, five at most.
    std::string snaps = d + "/snaps";
    const char *days[] = {"01", "02", "03", "04", "05", "06", "06"};
    for (int i = 0; i < 7; i++) {
        std::string s = snaps + "/" + std::string(1, (char)('a' + i));
        ASSERT_EQ(testutil::run_command("mkdir -p " + s + " && touch -d '2020-01-" + days[i] +
                                        " 00:00' " + s + "/.snaptime"),
                  0);
    }
    ASSERT_EQ(testutil::run_command("mkdir -p " + snaps + "/nots " + snaps + "/toolong"), 0);
    int n;
    uint32_t times[5];
    char dirs[5][5];
    ASSERT_EQ(analyse_snapshots(snaps.c_str(), &n, times, dirs), 0);
    ASSERT_EQ(n, 5);
    EXPECT_EQ(times[0], times[1]);
    std::string order;
    for (auto &name : dirs) order += name;
    EXPECT_TRUE(order == "fgedc" || order == "gfedc") << order;

    // zero_lsn clears the first 8 bytes of each whole page only.
    std::string pages(4096 * 2 + 100, '\x55'), expect = pages;
    expect.replace(0, 8, 8, '\0');
    expect.replace(4096, 8, 8, '\0');
    testutil::write_file(d + "/p.db", pages);
    ASSERT_EQ(zero_lsn((d + "/p.db").c_str(), 4096), 0);
    EXPECT_EQ(testutil::read_file(d + "/p.db"), expect);
}

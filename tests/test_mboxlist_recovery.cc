// Start-up and recovery of the folder database: database directories are
// built in each state, a child process recovers them as the daemon does,
// and the log tells the state judged, the repairs in order and the
// recovery of the first open.
#include "tests/testutil.h"

using namespace testutil;

namespace {

// Recovers the store in a child as the daemon does and gives what it
// logged. With put, that folder's row is written; with ask, *status is 10 if
// that folder has a row, else 11; 91 if the recovery failed.
std::string recover_in_child(Instance &inst, int *status, const char *put = nullptr, const char *ask = nullptr) {
    inst.newLog();
    *status = in_child([&] {
        if (start_store("stored") != 0) return 91;
        if (put) put_row(put, MAILBOX_VERSION, 0, "");
        int found = ask ? (has_row(ask) ? 10 : 11) : 0;
        return mboxlist_close() == 0 ? found : 92;
    });
    return inst.newLog();
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
const char *SNAPSHOTS = "mkdir -p $S/snaps/s1 $S/snaps/s0 $S/snaps/bad && cp $D/*.db $D/log.* $S/snaps/s1 && "
    "cp $D/*.db $D/log.* $S/snaps/s0 && touch $S/snaps/s1/.snaptime && "
    "touch -d '2 days ago' $S/snaps/s0/.snaptime && ";

// A damage made by setup (shell, $D the database and $S the store directory),
// and what the next recovery does: the row "user/keep" found (10) or not
// (11), texts logged in this order, and a text never logged.
struct Case {
    const char *name;
    std::string setup;
    bool snapshots_configured;
    int found;
    std::vector<std::string> log;
    const char *never;
};

}  // namespace

TEST(Recovery, EmptyStoreComesUpWithEveryDatabase) {
    Instance inst;
    std::string d = inst.path("data/store/mboxlist");
    int status;
    std::string log = recover_in_child(inst, &status, nullptr, "user/none");
    EXPECT_EQ(status, 11);
    expect_in_order(log, {STATE + "2", NORMAL, SUCCESS});
    EXPECT_EQ(log.find(EMPTY), std::string::npos);
    long eve = 0;  // the silent try of the template is an event
    ASSERT_EQ(configmsg_readstoredfile("eve", &eve), 0);
    EXPECT_GT(eve, 0);
    for (const char *f : {"folder.db", "quota.db", "subscr.db", "lright.db", "peruser.db"}) {
        std::string err;
        EXPECT_EQ(run_command("cd '" + d + "' && db5.3_verify -q " + f, nullptr, &err), 0) << f << err;
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
          "Previous version of store database moved for analysis", NORMAL, SUCCESS}, nullptr},
        {"snapshot", std::string(SNAPSHOTS) + "rm $D/quota.db", true, 10,
         {"Best mboxlist db snapshot", ":s1: n = 2", STATE + "5", FROM_SNAPSHOT, FATAL, SUCCESS}, EMPTY},
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
        {"databases gone", "rm -rf $D && mkdir -p $D/sessions $D/folderlock", false, 11,
         {STATE + "2", "critical: mboxlist_init: the folder database in", "has vanished", SUCCESS}, EMPTY},
        // A log head with the library's magic and version 7.
        {"foreign log version", "rm $D/log.* && printf '\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0"
         "\\210\\011\\004\\0\\007\\0\\0\\0' >$D/log.0000000001", false, 0,
         {"Removing database environment", STATE + "1", SUCCESS}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Instance inst(c.snapshots_configured ? "local.store.snapshotpath: snaps" : "");
        int status;
        recover_in_child(inst, &status, "user/keep", "user/keep");
        ASSERT_EQ(status, 10);
        std::string s = inst.path("data/store");
        ASSERT_EQ(run_command("S='" + s + "'; D=$S/mboxlist; " + c.setup), 0) << c.setup;
        // A template must make no work for recovery: its pages point at no log.
        if (c.setup.find("templates") != std::string::npos) {
            ASSERT_EQ(zero_logs((s + "/dbdata/templates").c_str()), 0);
        }
        std::string log = recover_in_child(inst, &status, nullptr, "user/keep");
        EXPECT_TRUE(!c.found || status == c.found) << status;
        expect_in_order(log, c.log);
        EXPECT_TRUE(!c.never || log.find(c.never) == std::string::npos) << c.never << "\n" << log;
    }
}

TEST(Recovery, ZeroLsnClearsWholePagesOnly) {
    TempDir t;
    std::string pages(4096 * 2 + 100, '\x55'), expect = pages;
    expect.replace(0, 8, 8, '\0');
    expect.replace(4096, 8, 8, '\0');
    write_file(t.file("p.db"), pages);
    ASSERT_EQ(zero_lsn(t.file("p.db").c_str(), 4096), 0);
    EXPECT_EQ(read_file(t.file("p.db")), expect);
}

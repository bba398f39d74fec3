// Subscriptions: changes and membership, the repair of a user's rows, the
// text copy "store.sub", and the loading of lost rows from that copy.
#include <utime.h>

#include "objects/bkobj.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_subs.h"
#include "store/mboxname.h"
#include "tests/testutil.h"

using namespace testutil;

namespace {

DB *subs() { return mboxlist_db(MBOXLIST_SUBSDB); }
std::string key(const char *userid, const char *name = nullptr) {
    return std::string(userid) + '\0' + (name ? std::string(name) + '\0' : "");
}

// The time in userid's change row, or -1 when there is none.
int64_t change_time(const char *userid) {
    uint32_t t = 0;
    DBT k, data = {};
    mboxlist_set_key(userid, &k);
    data.data = &t, data.ulen = sizeof t, data.flags = DB_DBT_USERMEM;
    return subs()->get(subs(), nullptr, &k, &data, 0) == 0 ? (int64_t)t : -1;
}

// fred with an inbox; sub() is fred's copy written afresh from the rows.
class Subs : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_EQ(mboxlist_createmailbox("user/fred", MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                         QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
        dir = folder_dir("user/fred");
    }
    std::string sub(bool write = true) {
        if (write) mboxlist_checkpointSubs("fred", 0, 0);
        return read_file(dir + "/store.sub");
    }
    std::string dir;
};

}  // namespace

TEST_F(Subs, ChangesMembershipAndTheCopy) {
    // Each change gives 0; then whether the change row moved (it is set back
    // to 1000 before), and the copy. The same request again with the raw
    // flag changes nothing and says why.
    struct Step { const char *name; int flags; bool moved; const char *copy; };
    const Step steps[] = {
        {"user/fred/b", MBOXLIST_SUB_ADD, true, "user/fred/b\n"},
        {"user/fred/b", MBOXLIST_SUB_ADD, false, "user/fred/b\n"},
        {"user/fred/a-b", MBOXLIST_SUB_ADD, true, "user/fred/a-b\nuser/fred/b\n"},
        {"user/fred/a/b", MBOXLIST_SUB_ADD, true, "user/fred/a/b\nuser/fred/a-b\nuser/fred/b\n"},
        {"user/fred/b", 0, true, "user/fred/a/b\nuser/fred/a-b\n"},
        {"user/fred/b", 0, false, "user/fred/a/b\nuser/fred/a-b\n"},
    };
    ASSERT_EQ(mboxlist_changesub("user/nobody/x", "fredx", nullptr, MBOXLIST_SUB_ADD), 0);
    const uint32_t past = 1000;
    for (const Step &s : steps) {
        SCOPED_TRACE(std::string(s.name) + " flags " + std::to_string(s.flags));
        ASSERT_TRUE(db_put(subs(), key("fred"), std::string((const char *)&past, 4)));
        EXPECT_EQ(mboxlist_changesub(s.name, "fred", nullptr, s.flags), 0);
        EXPECT_EQ(mboxlist_lookup_subs("fred", s.name), s.flags ? 0 : DB_NOTFOUND);
        EXPECT_EQ(change_time("fred") != 1000, s.moved);
        EXPECT_EQ(mboxlist_changesub(s.name, "fred", nullptr, s.flags | MBOXLIST_SUB_RAWERROR),
                  s.flags ? DB_KEYEXIST : DB_NOTFOUND);
        EXPECT_EQ(sub(), s.copy);
    }
    EXPECT_EQ(mboxlist_lookup_subs("fred", "user/nobody/x"), DB_NOTFOUND);
    // A pass keeps a copy newer than a change older than before; with the
    // change not older than before, or a failure, neither rename nor leftover.
    const std::string copy = sub(), path = dir + "/store.sub";
    struct utimbuf later = {(time_t)change_time("fred") + 5, (time_t)change_time("fred") + 5};
    write_file(path, "old\n");
    ASSERT_EQ(utime(path.c_str(), &later), 0);
    mboxlist_checkpointSubs("fred", 0, later.modtime + 1);
    mboxlist_checkpointSubs("fred", later.modtime, later.modtime);  // nothing changed since
    EXPECT_EQ(sub(false), "old\n");
    ASSERT_EQ(mkdir((dir + "/subscr.new").c_str(), 0700), 0);
    EXPECT_EQ(sub(), "old\n");
    ASSERT_EQ(rmdir((dir + "/subscr.new").c_str()), 0);
    mboxlist_checkpointSubs("fred", 0, later.modtime - 5);
    EXPECT_EQ(sub(false), copy);
    EXPECT_FALSE(file_exists(dir + "/subscr.new"));
}

TEST_F(Subs, RepairKeepsTheValidRowsOfOneUser) {
    const std::string damaged[] = {
        std::string("fred\0user/fred/long\0junk", 25), std::string("fred\0user/fred/short", 20),
        std::string("fred\0user/fred/dup\0x", 20),  key("fred", "user/fred/dup"),
        key("fred", "user/fred/bad*"), key("fredx", "user/fred/bad*"), key("fred", "user/fred/ok")};
    for (const std::string &k : damaged) ASSERT_TRUE(db_put(subs(), k, ""));
    for (int want : {1, 0}) {
        int changed = -1;
        ASSERT_EQ(mboxlist_fixsub("fred", &changed), 0);
        EXPECT_EQ(changed, want);
    }
    std::set<std::string> kept = {key("fredx", "user/fred/bad*"), key("fred", "user/fred/ok"),
                                  key("fred", "user/fred/dup"), key("fred", "user/fred/long"),
                                  key("fred", "user/fred/short")};
    for (const std::string &k : damaged) EXPECT_EQ(db_has(subs(), k), kept.count(k) == 1) << k;
    for (const std::string &k : kept) EXPECT_TRUE(db_has(subs(), k)) << k;
}

TEST_F(Subs, SubscriptionsSurviveTheLossOfTheDatabase) {
    for (const char *n : {"user/fred/a", "user/fred/b", "user/fred"})
        ASSERT_EQ(mboxlist_changesub(n, "fred", nullptr, MBOXLIST_SUB_ADD), 0);
    const std::string copy = sub();
    write_file(dir + "/store.sub", copy + "user/fred/cut");  // an unfinished line
    mboxlist_reset_for_tests();
    std::string d = inst.path("data/store/mboxlist");
    ASSERT_EQ(run_command("rm -rf '" + d + "' && mkdir -p '" + d + "/sessions' '" + d + "/folderlock'"), 0);
    ASSERT_EQ(start_store("storetest"), 0);
    EXPECT_EQ(change_time("fred"), -1);
    // The inbox's row comes back from its files, as a rebuild from disk
    // makes it; the first change loads the rest from the copy, at time 0.
    ASSERT_NO_FATAL_FAILURE(put_row("user/fred", MAILBOX_VERSION, 0, ""));
    ASSERT_EQ(mboxlist_changesub("user/fred/a", "fred", nullptr, MBOXLIST_SUB_ADD | 2), DB_KEYEXIST);
    EXPECT_EQ(change_time("fred"), 0);
    EXPECT_EQ(sub(), copy);
    // Loaded once: a user with a change row and no name rows stays so.
    for (const char *n : {"user/fred/a", "user/fred/b", "user/fred"})
        ASSERT_EQ(mboxlist_changesub(n, "fred", nullptr, 0), 0);
    write_file(dir + "/store.sub", copy);
    mboxlist_maybeRecoverSubsFromFile("fred");
    EXPECT_EQ(sub(), "");
    // Without an inbox, the old file (lines may end in TAB) at the time of loading.
    char hash[MBOXNAME_HASH_SIZE];
    mboxname_tohash("ann", 0, hash);
    std::string old = inst.path("data/store/user") + hash;
    ASSERT_EQ(mailbox_makedirs(old.c_str()), 0);
    write_file(old + "ann.sub", "user/ann/a\t\nuser/ann/b\n");
    time_t start = time(nullptr);
    mboxlist_maybeRecoverSubsFromFile("ann");
    EXPECT_TRUE(mboxlist_lookup_subs("ann", "user/ann/a") == 0 && mboxlist_lookup_subs("ann", "user/ann/b") == 0);
    EXPECT_GE(change_time("ann"), start);
}

TEST_F(Subs, FolderObjectCarriesTheOwnersSubscription) {
    ASSERT_EQ(mboxlist_changesub("user/fred", "fred", nullptr, MBOXLIST_SUB_ADD), 0);
    BkContext ctx("subtest", 0);
    char inbox[] = "/export/user/fred/inbox", copy[] = "/export/user/fred/copy";
    BkObj *from = ctx.getSession(BkModePlain, 0, 1)->createBkObj(inbox, 4);
    ASSERT_TRUE(from && from->getAttr() && from->getAttr()->attrData.size >= 5);
    BkObj::BkAttr attr = *from->getAttr();
    EXPECT_EQ(((const unsigned char *)attr.attrData.data)[4], 1);
    // Restored under another name, the folder is subscribed for its owner.
    BkObj *to = ctx.getSession(BkModeRestore, 1, 1)->createBkObj(copy, 4);
    ASSERT_TRUE(to && to->setAttr(attr) && to->restoreData(nullptr));
    EXPECT_EQ(mboxlist_lookup_subs("fred", "user/fred/copy"), 0);
    delete to;
    delete from;
}

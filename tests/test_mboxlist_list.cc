// Folder listing: own folders by glob and regular expression, implicit
// parents and child information, folders shared through "lright.db" under
// the other-users and public prefixes (a stale entry gives no access),
// subscriptions, the refused listing from disk, and the partition report
// that rests on the listing.
#include "store/mboxlist_list.h"
#include "store/storeutil.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

std::string nul(const std::string &s) { return s + std::string(1, '\0'); }

// Entries as "name cut at the match length:info", with "!" for no row.
int collect(const char *name, int len, int info, const char *row, void *rock)
{
    static_cast<std::vector<std::string> *>(rock)->push_back(std::string(name, (size_t)len) + ":" +
                                                            std::to_string(info) + (row ? "" : "!"));
    return 0;
}

using Entries = std::vector<std::string>;

// Three users and a public folder. bob sees two of ann's folders (and a
// third that "lright.db" lists, but whose ACL says no), cat's inbox through
// the group staff, and the public folder through anyone.
class MboxlistList : public StoreTest {
  protected:
    void SetUp() override {
        inst.addConfig("store.partition.spool.path: " + inst.path("partitions/spool"));
        StoreTest::SetUp();
        const std::string own = "bob\tall\t", ann = "ann\tall\t";
        struct { const char *name, *acl, *partition; uint32_t bytes; } tree[] = {
            {"user/bob", own.c_str(), "primary", 100},       {"user/bob/Sent", own.c_str(), "primary", 20},
            {"user/bob/a/b", own.c_str(), "primary", 3},     {"user/bob/inbound", own.c_str(), "primary", 0},
            {"user/bob/work", own.c_str(), "primary", 0},    {"user/bob/work/2004", own.c_str(), "primary", 0},
            {"user/bobby", "bobby\tall\t", "primary", 0},    {"user/ann", ann.c_str(), "primary", 7},
            {"user/ann/secret", ann.c_str(), "primary", 0},  {"user/ann/x", "ann\tall\tbob\tlr\t", "primary", 0},
            {"user/ann/y", "ann\tall\tbob\tlr\t", "primary", 0},
            {"user/ann/y/z", "ann\tall\tbob\tlrc\t", "primary", 0},
            {"user/cat", "cat\tall\tstaff\tl\t", "spool", 50}, {"public/news", "anyone\tlr\t", "primary", 5},
        };
        for (const auto &f : tree) {
            mboxdata mbd = {};
            mbd.version = MAILBOX_VERSION, mbd.quota_used[0] = f.bytes;
            DBT key, data;
            mboxlist_create_struct(&key, &data, nullptr, f.name, &mbd, f.partition, f.acl, nullptr);
            std::string row((const char *)data.data, data.size);
            free(data.data);
            ASSERT_TRUE(db_put(mboxlist_db(MBOXLIST_FOLDERDB), nul(f.name), row)) << f.name;
        }
        DB *lright = mboxlist_db(MBOXLIST_LRIGHTDB);
        ASSERT_TRUE(db_put(lright, nul("bob"), nul("user/ann/y/z") + nul("user/ann/secret") +
                                                   nul("user/ann/x") + nul("user/ann/y")));
        ASSERT_TRUE(db_put(lright, nul("staff"), nul("user/cat")));
        ASSERT_TRUE(db_put(lright, nul("anyone"), nul("public/news")));
    }
    ~MboxlistList() override { auth_freestate(bob); }
    Entries list(const char *pattern, int flags, int view = 0, const char *userid = "bob",
                 const auth_state *auth = nullptr, int want = 0) {
        Entries got;
        EXPECT_EQ(mboxlist_findall(pattern, flags, view, userid, auth ? auth : bob, collect, &got), want)
            << (pattern ? pattern : "<null>");
        return got;
    }
    const char *const staff[2] = {"staff", nullptr};
    auth_state *bob = auth_newstate("bob", staff, AUTH_ADMIN_NONE);
};

TEST_F(MboxlistList, PatternsStagesAndChildInformation)
{
    const int CI = MBOXLIST_FIND_CHILDINFO;
    const char *const SF = "Shared Folders/User/";
    struct Case { const char *pattern; int flags, view; const char *userid; Entries want; } cases[] = {
        {"*", CI, 0, "bob",
         {"INBOX:2", "Sent:3", "a/b:3", "inbound:3", "work:4", "work/2004:3", "Shared Folders/Public/news:2",
          std::string(SF) + "ann/x:2", std::string(SF) + "ann/y:4", std::string(SF) + "ann/y/z:3",
          std::string(SF) + "cat/INBOX:2"}},
        // An implicit parent comes once, with no row, after a real folder of that name too.
        {"%", 0, 0, "bob", {"INBOX:2", "Sent:1", "a:4!", "inbound:1", "work:1", "Shared Folders:4!"}},
        {"%", CI, 0, "bob", {"INBOX:2", "Sent:3", "a:4!", "inbound:3", "work:4", "Shared Folders:4!"}},
        {"Shared Folders/User/%", 0, 0, "bob", {std::string(SF) + "ann:4!", std::string(SF) + "cat:4!"}},
        {"Shared Folders/User/ann/*", 0, 0, "bob",
         {std::string(SF) + "ann/x:1", std::string(SF) + "ann/y:1", std::string(SF) + "ann/y/z:1"}},
        {"inb*", 0, 0, "bob", {"INBOX:2", "inbound:1"}},
        {"INBOX", 0, 0, "bob", {"INBOX:2"}},
        {"work/*", 0, 0, "bob", {"work/2004:1"}},
        {nullptr, 0, -1, "bob", {"INBOX:2", "Sent:1", "a/b:1", "inbound:1", "work:1", "work/2004:1"}},
        {"*", MBOXLIST_FIND_NOSHARED, 0, "ann", {"INBOX:2", "secret:1", "x:1", "y:1", "y/z:1"}},
        {"(Sent|w.*)", MBOXLIST_FIND_REGEX, 0, "bob", {"Sent:1", "work:1", "work/2004:1"}},
        {"(unclosed", MBOXLIST_FIND_REGEX, 0, "bob", {}},
        // The administrative listing by internal names.
        {"user/bob*", 0, -1, nullptr,
         {"user/bob/INBOX:2", "user/bob/Sent:1", "user/bob/a/b:1", "user/bob/inbound:1", "user/bob/work:1",
          "user/bob/work/2004:1", "user/bobby/INBOX:2"}},
        {"user/ann/%", CI, -1, nullptr, {"user/ann/INBOX:2", "user/ann/secret:3", "user/ann/x:3", "user/ann/y:4"}},
        {"user/b%", 0, -1, nullptr, {"user/bob:4!", "user/bobby:4!"}},
        {"Shared Folders/User/ann/%", MBOXLIST_FIND_ALLUSERS, 0, nullptr,
         {std::string(SF) + "ann/INBOX:2", std::string(SF) + "ann/secret:1", std::string(SF) + "ann/x:1",
          std::string(SF) + "ann/y:1"}},
    };
    for (const Case &c : cases)
        EXPECT_EQ(list(c.pattern, c.flags, c.view, c.userid, c.userid ? bob : auth_dontCheckAcl), c.want)
            << (c.pattern ? c.pattern : "<null>") << " for " << str(c.userid);

    // The three answers about children, and the stages a pattern reaches.
    EXPECT_EQ(mboxlist_getchildinfo("user/bob/work", 0), CHILD_SOME);
    EXPECT_EQ(mboxlist_getchildinfo("user/bob/Sent", ACL_CREATE), CHILD_NONE);
    EXPECT_EQ(mboxlist_getchildinfo("user/bob/Sent", ACL_LOOKUP), CHILD_NOINFERIORS);
    EXPECT_EQ(mboxlist_findall_type("Shared Folders/User/ann"), MBOXLIST_FIND_NOFIRST);
    EXPECT_EQ(mboxlist_findall_type("Sh*"), 0);
    EXPECT_EQ(mboxlist_findall_type("Sent"), MBOXLIST_FIND_NOSHARED);
    int count;
    ASSERT_EQ(mboxlist_count_folders("bob", &count), 0);
    EXPECT_EQ(count, 6);

    // A callback may stop the listing, and change the database as it goes.
    Entries got;
    auto stop = [](const char *name, int, int, const char *, void *rock) {
        static_cast<Entries *>(rock)->push_back(name);
        return strcmp(name, "Sent") == 0 ? 7 : 0;
    };
    EXPECT_EQ(mboxlist_findall("*", 0, 0, "bob", bob, stop, &got), 7);
    EXPECT_EQ(got, (Entries{"INBOX", "Sent"}));
    auto remove_next = [](const char *name, int, int, const char *, void *rock) {
        static_cast<Entries *>(rock)->push_back(name);
        if (strcmp(name, "Sent") == 0) { EXPECT_EQ(mboxlist_delete("user/bob/a/b"), 0); }
        return 0;
    };
    got.clear();
    EXPECT_EQ(mboxlist_findall("*", MBOXLIST_FIND_NOSHARED, 0, "bob", bob, remove_next, &got), 0);
    EXPECT_EQ(got, (Entries{"INBOX", "Sent", "inbound", "work", "work/2004"}));

    // The listing from disk is refused, not faked.
    got.clear();
    EXPECT_EQ(mboxlist_findall_plus("*", 0, 0, "bob", bob, collect, &got, 2), IMAP_MAILBOX_NOTSUPPORTED);
    EXPECT_EQ(mboxlist_findall("*", 0x40, 0, "bob", bob, collect, &got), IMAP_MAILBOX_NOTSUPPORTED);
    EXPECT_EQ(mboxlist_findall_plus("*", 0, 0, "", bob, collect, &got, 1), -1);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(mboxlist_findall_plus("INBOX", 0, 0, "bob", bob, collect, &got, 1), 0);
    EXPECT_EQ(got, (Entries{"INBOX:2"}));
}

TEST_F(MboxlistList, Subscriptions)
{
    DB *subs = mboxlist_db(MBOXLIST_SUBSDB);
    ASSERT_TRUE(db_put(subs, nul("bob"), std::string(4, '\1')));  // the change row: nothing to load
    for (const char *f : {"user/bob", "user/bob/Sent", "user/bob/gone", "user/bob/work", "user/ann/x",
                          "user/ann/secret", "user/ann/old", "public/news"})
        ASSERT_TRUE(db_put(subs, nul("bob") + nul(f), ""));
    ASSERT_TRUE(db_put(subs, nul("bobby") + nul("user/bobby"), ""));
    const char *SN = "Shared Folders/Public/news", *SA = "Shared Folders/User/ann/";
    struct Case { const char *pattern; int flags; const auth_state *auth; Entries want; } cases[] = {
        {"*", MBOXLIST_FIND_CHILDINFO, bob,
         {std::string(SN) + ":2", std::string(SA) + "old:2!", std::string(SA) + "x:2", "INBOX:2", "Sent:3",
          "work:4"}},
        // Without a state nothing is checked and gone folders of one's own show.
        {"*", 0, nullptr,
         {std::string(SN) + ":1", std::string(SA) + "old:2!", std::string(SA) + "secret:1", std::string(SA) + "x:1",
          "INBOX:2", "Sent:1", "gone:2!", "work:1"}},
        {"S%", 0, bob, {"Shared Folders:4!", "Sent:1"}},
    };
    for (const Case &c : cases) {
        Entries got;
        EXPECT_EQ(mboxlist_findsub(c.pattern, c.flags, 0, "bob", c.auth, collect, &got), 0);
        EXPECT_EQ(got, c.want) << c.pattern;
    }
    Entries got;
    EXPECT_EQ(mboxlist_findsub("*", 0, 0, "bob/x", bob, collect, &got), 0);
    EXPECT_EQ(mboxlist_findsub("*", 0, 0, nullptr, bob, collect, &got), 0);
    EXPECT_TRUE(got.empty());
}

TEST_F(MboxlistList, SwitchesOfTheSharedStage)
{
    restart("local.store.sharedfolders: 0\n");
    EXPECT_EQ(list("Shared*", 0), Entries{});
    restart("local.store.sharedfolders: 1\nlocal.service.proxy.serverlist: a b\n");
    EXPECT_EQ(list("Shared%", 0), Entries{"Shared Folders:4!"});
    EXPECT_EQ(list("Shared%", MBOXLIST_FIND_NOIMPLICIT), Entries{});
    restart("local.store.listimplicit: 1\nlocal.store.ensureownerrights: 0\n");
    auth_state *root = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
    EXPECT_EQ(list("Shared Folders/User/bob%", 0, 0, "root", root),
              (Entries{"Shared Folders/User/bob:4!", "Shared Folders/User/bobby:4!"}));
    // Without ensured owner rights the first stage asks the ACL too.
    EXPECT_EQ(list("INBOX", 0, 0, "bobby"), Entries{});
    EXPECT_EQ(list("INBOX", 0), Entries{"INBOX:2"});
    auth_freestate(root);
}

TEST_F(MboxlistList, PartitionReport)
{
    ASSERT_TRUE(db_put(mboxlist_db(MBOXLIST_QUOTADB), nul("user/cat"),
                       std::string("\xd0\x07\0\0", 4) + std::string(52, '\0')));  // 2000 KB
    store_partinfo *report;
    ASSERT_EQ(store_getpartitions(&report), 0);
    std::map<std::string, std::vector<uint32_t>> got;
    for (store_partinfo *p = report; p->name[0]; p++) {
        got[p->name] = {p->users, p->folders, p->bytes, p->quota};
        EXPECT_GT(p->total, 0u) << p->name;
        EXPECT_STRNE(p->directory, STORE_PARTITION_NOPATH) << p->name;
    }
    free(report);
    // bob, bobby and ann have no quota row: no limit known, so none is added.
    EXPECT_EQ(got, (std::map<std::string, std::vector<uint32_t>>{{"primary", {3, 13, 135, 0}},
                                                                 {"spool", {1, 1, 50, 2000}}}));
}

}  // namespace

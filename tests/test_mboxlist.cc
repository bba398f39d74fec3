// The folder database: rows, key order and lookups, and what lookups answer
// when the database fails them; folder create and delete: rights, limits,
// ACL defaults, partitions, named locks, and the order of files and rows
// that keeps a store whole when a process dies at any point; per-user flag
// records of "peruser.db": the record text, the locked read-modify-write of
// one pair of folder and user (also between processes), folder create and
// delete, the range form with its lookups, and the rebuild from "store.usr".
#include <chrono>
#include <future>
#include <random>

#include "store/mboxlist_create.h"
#include "store/mboxname.h"
#include "store/seen_db.h"
#include "support/lock.h"
#include "tests/testutil.h"

using Keys = std::vector<std::string>;

namespace {

using namespace testutil;

const uint32_t NOQUOTA = QUOTA_UNLIMITED;

int opens(const char *name) {
    mailbox mb;
    int r = mailbox_open(name, 0, auth_dontCheckAcl, &mb);
    if (r == 0) mailbox_close(&mb);
    return r;
}

int create(const char *name, const char *userid, const auth_state *auth, const char *acl = nullptr,
           const char *partition = nullptr, unsigned version = MAILBOX_VERSION) {
    return mboxlist_createmailbox(name, version, partition, userid, auth, NOQUOTA, NOQUOTA, 0, acl);
}

class MboxlistCreate : public StoreTest {
  protected:
    void SetUp() override {
        inst.addConfig("store.partition.spool.path: " + inst.path("partitions/spool"));
        StoreTest::SetUp();
    }
    ~MboxlistCreate() override { for (auth_state *a : {fred, bob, site, boss}) auth_freestate(a); }
    auth_state *fred = auth_newstate("fred", nullptr, AUTH_ADMIN_NONE),
               *bob = auth_newstate("bob", nullptr, AUTH_ADMIN_NONE),
               *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE),
               *boss = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);
};

// One attempt: who creates or deletes what, with which outcome; for a
// create, the ACL, partition and version asked for, and the row's ACL and
// partition afterwards.
struct Attempt {
    const char *name, *userid;
    const auth_state *auth;
    int want;
    const char *given = nullptr, *acl = nullptr, *partition = nullptr;
    unsigned version = MAILBOX_VERSION;
    const char *row_partition = "primary";
};

std::string who(const Attempt &a) { return std::string(a.name) + " by " + (a.userid ? a.userid : "-"); }

// A create in a thread of its own.
std::future<int> creator(const char *name) {
    return std::async(std::launch::async, [name] { return create(name, nullptr, auth_dontCheckAcl); });
}
// Whether it is done within ms milliseconds, with result 0.
bool created(std::future<int> &f, int ms) {
    return f.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready && f.get() == 0;
}

// The check after a crash, as an exit code: every row of names has its
// index and opens (31, 32); every name whose files lie there without a row
// is taken over by a create (33; names list roots first, and a user's
// folders wait for their root's row); then the rows are checked again.
// found and rows count for the report.
int check_store(const std::vector<std::string> &names, int *found, int *rows) {
    for (int pass = 0; pass < 2; pass++) {
        *rows = 0;
        for (const std::string &s : names) {
            if (!has_row(s.c_str())) continue;
            (*rows)++;
            if (!file_exists(folder_dir(s.c_str()) + "/store.idx")) return 31;
            if (opens(s.c_str()) != 0) return 32;
        }
        for (const std::string &s : names) {
            const char *n = s.c_str();
            std::string root = s.substr(0, s.find('/', 5));
            if (pass || has_row(n) || !file_exists(folder_dir(n) + "/store.idx")) continue;
            if (!s.compare(0, 5, "user/") && root != s && !has_row(root.c_str())) continue;
            (*found)++;
            int c = create(n, nullptr, auth_dontCheckAcl);
            if ((c != 0 && c != IMAP_MAILBOX_EXISTS) || !has_row(n) || opens(n) != 0) return 33;
        }
    }
    return 0;
}

// A full disk under the database: its log can't be written.
class FullDisk : public ::testing::Test {
  protected:
    void SetUp() override {
        if (fs.error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(fs.error);
    }
    void TearDown() override { mboxlist_reset_for_tests(); }
    Instance inst{"store.dbcachesize: 262144"};
    Tmpfs fs{inst.path("data/store/mboxlist"), "size=64m"};
    const std::string &dir = fs.dir;
};

int cmp(const std::string &a, const std::string &b) {
    DBT x = {}, y = {};
    x.data = const_cast<char *>(a.data()), x.size = (uint32_t)a.size();
    y.data = const_cast<char *>(b.data()), y.size = (uint32_t)b.size();
    return mboxlist_key_compare(nullptr, &x, &y);
}

std::string key(const char *s) { return std::string(s, strlen(s) + 1); }

using OpenStore = StoreTest;

// An open folder as the records see it: name, directory, last_uid, exists.
struct Folder {
    Folder(const std::string &n, const std::string &dir, uint32_t last_uid, uint32_t exists = 0)
        : name(n), path(dir) {
        if (!dir.empty()) run_command("mkdir -p '" + dir + "'");
        mb = zeromailbox;
        mb.name = const_cast<char *>(name.c_str()), mb.path = const_cast<char *>(path.c_str());
        mb.mbd.last_uid = last_uid, mb.mbd.exists = exists;
    }
    std::string name, path;
    struct mailbox mb;
};

// The records whose keys begin with prefix, in database order, as
// "key=value"; a folder's own record (a key without TAB) shows its word.
Keys records(const std::string &prefix) {
    Keys out;
    DBC *c;
    DBT k = {}, v = {};
    k.flags = v.flags = DB_DBT_MALLOC;
    if (userflagdb->cursor(userflagdb, nullptr, &c, 0) != 0) return out;
    while (c->c_get(c, &k, &v, DB_NEXT) == 0) {
        std::string key(static_cast<char *>(k.data), k.size), val(static_cast<char *>(v.data), v.size);
        uint32_t word = 0;
        memcpy(&word, val.data(), std::min<size_t>(val.size(), 4));
        if (key.find('\t') == std::string::npos) val = "#" + std::to_string(word);
        if (key.compare(0, prefix.size(), prefix) == 0) out.push_back(key + "=" + val);
        free(k.data);
        free(v.data);
    }
    c->c_close(c);
    return out;
}
// The value of one record as records() shows it, or "<none>".
std::string raw(const std::string &key) {
    for (const std::string &r : records(key))
        if (r.compare(0, key.size() + 1, key + "=") == 0) return r.substr(key.size() + 1);
    return "<none>";
}
void put(const std::string &k, const std::string &v) { ASSERT_TRUE(db_put(userflagdb, k, v)); }
std::string word(uint32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); }

// What seen_lockread gives: "rc lastread recentuid lastchange|text".
std::string lockread(struct seen *h) {
    time_t lastread = 99, lastchange = 99;
    unsigned recent = 99;
    char *text = nullptr;
    int rc = seen_lockread(h, &lastread, &recent, &lastchange, &text);
    return std::to_string(rc) + " " + std::to_string(lastread) + " " + std::to_string(recent) +
           " " + std::to_string(lastchange) + "|" + take(text);
}

using RangeList = std::vector<std::pair<uint32_t, uint32_t>>;
const std::pair<uint32_t, uint32_t> kEnd(SEEN_RANGE_END, SEEN_RANGE_END);
RangeList ranges(const seen_range *a, int n) {
    RangeList v;
    for (int i = 0; a && i < n; i++) v.emplace_back(a[i].low, a[i].high);
    return v;
}

// Folder "user/bob/a" with 20 messages, as the records see it.
class SeenStore : public StoreTest {
  protected:
    std::string dir(const std::string &rel) { return inst.path("partitions/primary/" + rel); }
    Folder a{"user/bob/a", dir("bob/a"), 20};
};

}  // namespace

TEST_F(MboxlistCreate, RightsInheritancePartitionsVersionsAndLeftoverFiles) {
    // A new user's root with the uidvalidity given; its quota row:
    // Append.SetupRefusals.
    ASSERT_EQ(mboxlist_createmailbox("user/fred", MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                     1000, 50, 4711, nullptr), 0);
    std::string part;
    mboxdata mbd;
    std::string a = row_acl("user/fred", &part, &mbd);
    EXPECT_TRUE(a + part == "fred\tlrswipcda\tprimary" && mbd.uidvalidity == 4711u) << a << part;
    const char *all = "fred\tlrswipcda\t", *pub = "fred\tlrswipcda\tanyone\tl\t",
               *shared = "fred\tlrswipcda\tbob\tlc\t";
    const int DENIED = IMAP_PERMISSION_DENIED, EXISTS = IMAP_MAILBOX_EXISTS,
              NOTSUPPORTED = IMAP_MAILBOX_NOTSUPPORTED, DBONLY = MAILBOX_VERSION_DBONLY;
    const Attempt cases[] = {
        // Creating it again: existing, or denied for who may not see it;
        // boss administers fred.
        {"user/fred", "fred", fred, EXISTS}, {"user/fred", "bob", bob, DENIED},
        {"user/fred", nullptr, boss, EXISTS},
        // The owner's folders inherit the nearest parent's ACL; a given ACL
        // is taken as it is.
        {"user/fred/x", "fred", fred, 0, nullptr, all}, {"user/fred/x/y/z", "fred", fred, 0, nullptr, all},
        {"user/fred/pub", "fred", fred, 0, pub, pub}, {"user/fred/shared", "fred", fred, 0, shared, shared},
        // Others need "c" on the parent, and see existing folders only with "l".
        {"user/fred/pub/bobs", "bob", bob, DENIED}, {"user/fred/pub", "bob", bob, EXISTS},
        {"user/fred/x", "bob", bob, DENIED}, {"user/fred/shared/bobs", "bob", bob, 0, nullptr, shared},
        // No parent: administrators and the owner only, roots before folders;
        // the owner of a new root gets all rights.
        {"user/bob", "fred", fred, DENIED}, {"user/joe/x", "joe", site, DENIED},
        {"user/bob", "bob", bob, 0, nullptr, "bob\tlrswipcda\t"},
        {"user/carl", nullptr, boss, 0, nullptr, "carl\tlrswipcda\t"},
        {"user/joe", "root", site, 0, nullptr, "joe\tlrswipcda\t"},
        // Public folders: a site administrator's, with a default ACL that
        // gives nobody "c".
        {"public/news", "fred", fred, DENIED}, {"public/news", "root", site, 0, nullptr, "anyone\tlrs\t"},
        {"public/news/sub", "fred", fred, DENIED},
        // Only a site administrator picks the partition, which wins over the
        // parent's (the ACL still comes from there); children follow the
        // parent's partition.
        {"user/fred/a", "boss", boss, DENIED, nullptr, nullptr, "spool"},
        {"user/fred/a", "root", site, IMAP_PARTITION_UNKNOWN, nullptr, nullptr, "nowhere"},
        {"user/fred/shared/a", "root", site, 0, nullptr, shared, "spool", MAILBOX_VERSION, "spool"},
        {"user/fred/shared/a/b", "fred", fred, 0, nullptr, shared, nullptr, MAILBOX_VERSION, "spool"},
        // Versions: only the current one, or a row without files.
        {"user/fred/v", "fred", fred, NOTSUPPORTED, nullptr, nullptr, nullptr, MAILBOX_VERSION_OLD},
        {"user/fred/v", "root", site, NOTSUPPORTED, nullptr, nullptr, "primary", DBONLY},
        {"user/fred/v", "root", site, 0, nullptr, all, "version3", DBONLY, "version3"},
        {"user/fred/w", "fred", fred, 0, nullptr, all, nullptr, DBONLY}};
    for (const auto &c : cases) {
        SCOPED_TRACE(who(c));
        bool had = has_row(c.name);
        EXPECT_EQ(create(c.name, c.userid, c.auth, c.given, c.partition, c.version), c.want);
        if (c.want) {
            EXPECT_EQ(has_row(c.name), had);
            continue;
        }
        a = row_acl(c.name, &part, &mbd);
        EXPECT_EQ(a + "|" + part, std::string(c.acl) + "|" + c.row_partition);
        EXPECT_EQ(mbd.version, c.version);
        EXPECT_TRUE(c.version != DBONLY || mbd.uidvalidity == 0);  // no files, none yet
        // Files only for the current version, on the row's partition only.
        for (const char *p : {"primary", "spool"}) {
            bool want = c.version == MAILBOX_VERSION && part == p;
            EXPECT_EQ(file_exists(folder_dir(c.name, p) + (want ? "/store.idx" : "")), want) << p;
        }
    }
    EXPECT_FALSE(has_row("user/fred/x/y"));  // no rows for the levels between
    for (size_t len : {70, 71})  // the longest partition name
        EXPECT_EQ(mboxlist_createmailboxcheck("user/fred/a", MAILBOX_VERSION,
                                              std::string(len, 'p').c_str(), "root", site, nullptr, nullptr),
                  len == 70 ? 0 : IMAP_PARTITION_UNKNOWN);
    // Rows without files are deleted all the same.
    for (const char *n : {"user/fred/v", "user/fred/w"}) {
        EXPECT_EQ(mboxlist_deletemailbox(n, "fred", fred), 0) << n;
        EXPECT_FALSE(has_row(n)) << n;
    }
    // Names that fail the policy check.
    for (const char *bad : {"user/fred/a%b", "user/fred/INBOX", "other/x", "user/fred//x"}) {
        EXPECT_EQ(create(bad, "fred", auth_dontCheckAcl), IMAP_MAILBOX_BADNAME) << bad;
        EXPECT_FALSE(has_row(bad)) << bad;
    }
    // Files with messages and no row are registered with their counters
    // (empty ones are made new: MailboxFiles.CreateOverExistingFiles).
    make_folder("user/fred/old", folder_dir("user/fred/old"), "stale\tl\t", 999, 3);
    EXPECT_EQ(create("user/fred/old", "fred", fred), IMAP_MAILBOX_EXISTS);
    a = row_acl("user/fred/old", nullptr, &mbd);
    EXPECT_EQ(mbd.exists + mbd.last_uid + mbd.uidvalidity, 3u + 3u + 999u);
    EXPECT_EQ(acl_myrights(fred, a.c_str()), ACL_ALL);  // the owner holds all rights
    EXPECT_EQ(opens("user/fred/old"), 0);
}

TEST_F(MboxlistCreate, PublicFoldersAndDefaultAcl) {
    // The configured default ACL and partition of folders without a parent.
    restart("store.defaultacl:  anyone lr\tgroup:staff  lrswi bob\nstore.defaultpartition: spool");
    EXPECT_EQ(create("public/odd", nullptr, auth_dontCheckAcl), 0);
    std::string part;
    EXPECT_EQ(row_acl("public/odd", &part), "anyone\tlr\tgroup:staff\tlrswi\t");  // the lone last word is dropped
    EXPECT_EQ(part, "spool");
    EXPECT_TRUE(file_exists(folder_dir("public/odd", "spool") + "/store.idx"));
    restart("store.defaultacl:");
    EXPECT_EQ(create("public/empty", nullptr, auth_dontCheckAcl), 0);
    EXPECT_EQ(row_acl("public/empty"), "");
}

TEST_F(MboxlistCreate, DeleteRightsPinsAndWholeUsers) {
    ASSERT_EQ(create("user/fred", "fred", auth_dontCheckAcl), 0);
    for (const char *n : {"user/fred/x", "user/fred/x/y", "user/fred/sent", "user/fred/sent/old"})
        ASSERT_EQ(create(n, "fred", fred), 0) << n;
    ASSERT_EQ(create("user/fred/pub", "fred", fred, "fred\tlrswipcda\tanyone\tl\t"), 0);
    for (const Attempt &a : {Attempt{"user/fred", "fred", fred, IMAP_MAILBOX_NOTSUPPORTED},
                             Attempt{"user/fred", "bob", bob, IMAP_PERMISSION_DENIED},
                             Attempt{"user/fred/pub", "bob", bob, IMAP_PERMISSION_DENIED},
                             Attempt{"user/fred/x", "bob", bob, IMAP_MAILBOX_NONEXISTENT},
                             Attempt{"user/fred/none", "fred", fred, IMAP_MAILBOX_NONEXISTENT},
                             Attempt{"user/fred/none", nullptr, auth_dontCheckAcl, IMAP_MAILBOX_NONEXISTENT}}) {
        EXPECT_EQ(mboxlist_deletemailbox(a.name, a.userid, a.auth), a.want) << who(a);
        EXPECT_EQ(has_row(a.name), strcmp(a.name, "user/fred/none") != 0) << who(a);
    }
    // A folder goes, rows first and files after; its children stay.
    std::string xd = folder_dir("user/fred/x");
    EXPECT_EQ(mboxlist_deletemailbox("user/fred/x", "fred", fred), 0);
    EXPECT_FALSE(has_row("user/fred/x") || file_exists(xd + "/store.idx"));
    EXPECT_TRUE(has_row("user/fred/x/y") && file_exists(folder_dir("user/fred/x/y") + "/store.idx"));
    // Pinned folders: only a site administrator deletes them.
    restart("local.store.pin: Trash%sent");
    for (const Attempt &a : {Attempt{"user/fred/sent", nullptr, fred, IMAP_MAILBOX_PINNED},
                             Attempt{"user/fred/sent", nullptr, site, 0},
                             Attempt{"user/fred/sent/old", nullptr, fred, 0},
                             Attempt{"user/fred/Sent", nullptr, fred, 0}, Attempt{"user/fred", nullptr, fred, 0}})
        EXPECT_EQ(mboxlist_deletemailboxcheck(a.name, a.auth), a.want) << who(a);
    EXPECT_EQ(mboxlist_deletemailbox("user/fred/sent", "fred", fred), IMAP_MAILBOX_PINNED);
    // A user whose subfolder is pinned can't be deleted by a tenant
    // administrator; the folders before the pinned one in key order stay
    // gone. That order is not plain byte order: the children of a/ sort
    // before a-b, a.b and ab.
    const char *early[] = {"user/carl/a",   "user/carl/a/b", "user/carl/a/b/c",
                           "user/carl/a-b", "user/carl/a.b", "user/carl/ab"};
    const char *late[] = {"user/carl/sent", "user/carl/z", "user/carl"};
    ASSERT_EQ(create("user/carl", "carl", auth_dontCheckAcl, "carl\tlrswipcda\tboss\tlc\t"), 0);
    for (const char *n : early) ASSERT_EQ(create(n, "carl", auth_dontCheckAcl), 0) << n;
    for (const char *n : {"user/carl/sent", "user/carl/z", "user/carl2", "user/carl2/a"})
        ASSERT_EQ(create(n, nullptr, auth_dontCheckAcl), 0) << n;
    EXPECT_EQ(mboxlist_deletemailbox("user/carl", "bob", bob), IMAP_PERMISSION_DENIED);
    EXPECT_EQ(mboxlist_deletemailbox("user/carl", "boss", boss), IMAP_MAILBOX_PINNED);
    for (const char *n : early) EXPECT_FALSE(has_row(n) || file_exists(folder_dir(n))) << n;
    for (const char *n : late) EXPECT_TRUE(has_row(n)) << n;
    // A site administrator deletes the whole user: folders, quota row,
    // subscriptions and the old subscription file; a neighbour whose name
    // starts alike stays.
    const std::string own("carl\0", 5), sub("carl\0user/carl/z", 16), other("carl2\0user/carl/z", 17);
    DB *subs = mboxlist_db(MBOXLIST_SUBSDB);
    for (const std::string &k : {own, sub, other}) ASSERT_TRUE(db_put(subs, k, "x"));
    char hash[MBOXNAME_HASH_SIZE];
    mboxname_tohash("carl", 0, hash);
    std::string subdir = inst.path("data/store/user") + hash;
    ASSERT_EQ(mailbox_makedirs(subdir.c_str()), 0);
    write_file(subdir + "carl.sub", "user/carl/z\n");
    std::string rootdir = folder_dir("user/carl");
    EXPECT_EQ(mboxlist_deletemailbox("user/carl", "root", site), 0);
    for (const char *n : late) EXPECT_FALSE(has_row(n)) << n;
    quotadata qd;
    EXPECT_EQ(mboxlist_lookup_quota("user/carl", &qd, nullptr), DB_NOTFOUND);
    EXPECT_FALSE(db_has(subs, own) || db_has(subs, sub));
    EXPECT_TRUE(db_has(subs, other));
    for (const std::string &gone : {subdir + "carl.sub", subdir, rootdir})
        EXPECT_FALSE(file_exists(gone)) << gone;
    for (const char *n : {"user/fred", "user/carl2", "user/carl2/a"}) EXPECT_TRUE(has_row(n)) << n;
    EXPECT_TRUE(file_exists(folder_dir("user/carl2/a") + "/store.idx"));
    EXPECT_TRUE(file_exists(inst.path("partitions/primary")));
}

TEST_F(MboxlistCreate, NamedLocks) {
    ASSERT_EQ(create("user/fred", "fred", auth_dontCheckAcl), 0);
    // A whole-user lock holds back every create of that user, a single
    // folder's lock that folder only.
    struct { const char *name; int wholeuser; const char *held, *free; } cases[] = {
        {"user/fred", 1, "user/fred/a", "user/carl"}, {"user/fred/b", 0, "user/fred/b", "user/fred/c"}};
    for (const auto &c : cases) {
        uint32_t locker;
        ASSERT_EQ(mboxlist_lock_create(&locker, c.name, nullptr, c.wholeuser), 0);
        std::future<int> held = creator(c.held), other = creator(c.free);
        EXPECT_TRUE(created(other, 10000)) << c.free;
        EXPECT_EQ(held.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout) << c.held;
        EXPECT_FALSE(has_row(c.held)) << c.held;
        mboxlist_unlock_create(locker);
        EXPECT_TRUE(created(held, 10000)) << c.held;
    }
}

// A delete whose rows' removal can't reach the log on disk keeps the files:
// the host may crash before the log is written, and recovery brings the
// rows back, which must find their files.
TEST_F(FullDisk, DeleteKeepsTheFilesWhileTheLogCantBeWritten) {
    std::vector<std::string> names;
    for (int i = 0; i < 40; i++) names.push_back("user/fred/f" + std::to_string(i));
    Pipe results;
    pid_t pid = spawn([&] {
        if (start_store("fulltest") != 0 || create("user/fred", nullptr, auth_dontCheckAcl))
            return 1;
        for (const std::string &n : names)
            if (create(n.c_str(), nullptr, auth_dontCheckAcl) != 0) return 1;
        // Commits don't write the log; the flush before the files go does,
        // and fails once it needs a page that the file system hasn't got.
        if (mboxlist_env()->log_flush(mboxlist_env(), nullptr) != 0) return 1;
        fs.fill();
        for (const std::string &n : names) {
            int r = mboxlist_deletemailbox(n.c_str(), nullptr, auth_dontCheckAcl);
            char c = r == 0 ? '0' : r == IMAP_IOERROR ? 'E' : '?';
            if (!send_byte(results.w, c)) return 1;
        }
        raise(SIGKILL);  // the end of the host: no exit handler writes the log
        return 1;
    });
    ASSERT_GT(pid, 0);
    std::string got;
    for (size_t i = 0; i < names.size(); i++) got += (char)read_byte(results.r, 30000);
    EXPECT_EQ(wait_child(pid), 128 + SIGKILL);
    EXPECT_NE(got.find('E'), std::string::npos) << got;
    EXPECT_EQ(got.find_first_not_of("0E"), std::string::npos) << got;
    // The host's memory goes with it: the environment's regions, and with
    // them the part of the log that never reached the disk. Recovery with
    // room again: every row has its files, and a create takes over files
    // left without a row.
    unlink((dir + "/filler").c_str());
    ASSERT_EQ(run_command("rm -f '" + dir + "'/__db.*"), 0);
    ASSERT_EQ(start_store("fulltest"), 0);
    for (size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(file_exists(folder_dir(names[i].c_str()) + "/store.idx"), got[i] == 'E') << names[i];
    int found = 0, rows = 0;
    EXPECT_EQ(check_store(names, &found, &rows), 0);
}

// Crash safety: a child creates and deletes folders at random and is killed
// at a random moment, again and again; after every kill the store checks out.
const std::vector<std::string> CRASH_NAMES = {"user/crash",   "user/crash/a", "user/crash/a/b", "user/crash/b",
                                              "user/crash/c", "user/crash/d", "user/crash/e",   "user/crash/f",
                                              "public/crash", "public/crash/x"};

TEST(MboxlistCrash, KilledCreatesAndDeletesLeaveRowsWithFiles) {
    Instance inst;
    // Each round ends with a recovery from scratch, as after a crash of the
    // host: commits still in the log buffer are lost, the order must hold.
    unsigned seed = (unsigned)time(nullptr);
    std::mt19937 rng(seed);
    RecordProperty("seed", (int)seed);
    const int rounds = 40;
    int leftovers = 0, maxrows = 0;
    for (int round = 0; round <= rounds; round++) {
        Pipe ready;
        unsigned childseed = rng();
        pid_t pid = spawn([&] {
            int rows = 0, found = 0;
            if (start_store("crashtest") != 0) return 30;
            if (int r = check_store(CRASH_NAMES, &found, &rows)) return r;
            char report[2] = {(char)found, (char)rows};
            if (write(ready.w, report, 2) != 2) return 30;
            if (round == rounds) return 0;  // the last one only checks
            std::mt19937 crng(childseed);
            for (;;) {
                const char *n = CRASH_NAMES[crng() % CRASH_NAMES.size()].c_str();
                int res = has_row(n) ? mboxlist_deletemailbox(n, nullptr, auth_dontCheckAcl)
                                     : create(n, nullptr, auth_dontCheckAcl);
                // Only a user's folder before its root is refused.
                if (res != 0 && res != IMAP_MAILBOX_EXISTS && res != IMAP_PERMISSION_DENIED)
                    return 50;
            }
        });
        ASSERT_GT(pid, 0);
        Pipe::shut(ready.w);  // a child that ends early closes the pipe for good
        int found = read_byte(ready.r, 60000);
        int rows = read_byte(ready.r, 1000);
        if (found < 0 || rows < 0) {
            int st = wait_child(pid);
            FAIL() << "round " << round << ": check failed with status " << st << " (seed " << seed << ")";
        }
        leftovers += found;
        if (rows > maxrows) maxrows = rows;
        if (round == rounds) {
            EXPECT_EQ(wait_child(pid), 0);
            break;
        }
        // Let it work for a while, then kill it wherever it is.
        usleep((useconds_t)(rng() % 40000));
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_child(pid), 128 + SIGKILL) << "round " << round << " (seed " << seed << ")";
    }
    // The loop did real work, and some kills fell between files and rows.
    EXPECT_GT(maxrows, 2);
    EXPECT_GT(leftovers, 0) << "no kill left files without a row (seed " << seed << ")";
}

TEST(MboxlistKeys, OrderAndNameComparison) {
    // Children follow their folder at once; NUL before TAB before "/", and
    // bytes of 0x80 and up before plain ASCII.
    std::vector<std::string> sorted = {std::string("user/a\0", 7), std::string("user/a\0x", 8),
                                       "user/a\t", "user/a/b", "user/a/b/c", "user/a\x80",
                                       "user/a-b", "user/a.b", "user/ab"};
    for (size_t i = 0; i + 1 < sorted.size(); i++) {
        EXPECT_LT(cmp(sorted[i], sorted[i + 1]), 0) << i;
        EXPECT_GT(cmp(sorted[i + 1], sorted[i]), 0) << i;
    }
    EXPECT_EQ(cmp("abc", "abc"), 0);
    EXPECT_LT(mboxlist_name_comparen("user/a/x", "user/a-x", 100), 0);
    EXPECT_EQ(mboxlist_name_comparen("user/a", "user/b", 5), 0);
    EXPECT_GT(mboxlist_name_comparen("a\t", "a/", 100), 0);  // TAB has no special place here
    char root[256];
    ASSERT_EQ(mboxlist_quotaroot("user/fred/sent/2004", root), 0);
    EXPECT_STREQ(root, "user/fred");
    EXPECT_EQ(mboxlist_quotaroot("fred", root), IMAP_QUOTAROOT_NONEXISTENT);
}

TEST_F(OpenStore, LookupsPathsDamagedRowsAndQuotaRows) {
    // A missing row is not found; "version3" is no partition: the row
    // reads, a path doesn't.
    put_row("user/fred/old", MAILBOX_VERSION, 0, "", 77, "version3");
    struct mboxdata mbd;
    char *part = nullptr, *path = nullptr, *acl = nullptr;
    EXPECT_EQ(mboxlist_lookup("user/nobody", nullptr, &part, nullptr, nullptr, nullptr), IMAP_MAILBOX_NONEXISTENT);
    EXPECT_EQ(mboxlist_lookup("user/fred/old", &mbd, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(mboxlist_lookup("user/fred/old", nullptr, nullptr, &path, nullptr, nullptr), IMAP_PARTITION_UNKNOWN);
    // Rows too short for their fields, or without their NULs, are damage,
    // reported as such and never read beyond their end.
    std::string summary(60, '\0');
    for (const std::string &bad : {summary, summary + "p", summary + "primary\0acl" + "x", std::string(20, 'x')}) {
        ASSERT_TRUE(db_put(mboxlist_db(MBOXLIST_FOLDERDB), key("user/bad"), bad));
        char *row = nullptr;
        EXPECT_EQ(mboxlist_lookup_data("user/bad", &row, nullptr), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(row, nullptr);
        EXPECT_EQ(mboxlist_lookup("user/bad", &mbd, nullptr, nullptr, nullptr, &acl), IMAP_MAILBOX_BADFORMAT);
    }
    // Quota rows of every size.
    struct quotadata full = {};
    full.used_low = 77, full.limit_messages = 50, full.last_dbrepair = 99;
    DB *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    std::string bytes((char *)&full, 56);
    // A short row of 36 bytes: the message limit reads as none. A longer
    // row reads its first 56 bytes.
    ASSERT_TRUE(db_put(quotas, key("user/full"), bytes));
    ASSERT_TRUE(db_put(quotas, key("user/short"), bytes.substr(0, 36)));
    ASSERT_TRUE(db_put(quotas, key("user/long"), bytes + std::string(20, 'x')));
    struct quotadata q;
    for (const char *root : {"user/full", "user/short", "user/long"}) {
        ASSERT_EQ(mboxlist_lookup_quota(root, &q, nullptr), 0) << root;
        bool shrt = strcmp(root, "user/short") == 0;
        EXPECT_TRUE(q.used_low == 77u && q.limit_messages == (shrt ? QUOTA_UNLIMITED : 50u) &&
                    q.last_dbrepair == (shrt ? 0u : 99u)) << root;
    }
    EXPECT_EQ(mboxlist_lookup_quota("user/none", &q, nullptr), DB_NOTFOUND);
}

// A read that the database refuses is no missing folder. Another process
// holds a write lock on the rows' page while lock requests here time out
// (the daemon's deadlock detector expires them): lookups and creates must
// fail, not report the folder missing and act on it.
TEST(MboxlistFailedReads, AreNoMissingFolders) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    auto join = [] { return join_store("rowtest"); };
    auto lookup = [] { return mboxlist_lookup("user/bob", nullptr, nullptr, nullptr, nullptr, nullptr); };
    ASSERT_EQ(in_child([&] { return join() && create("user/bob", nullptr, auth_dontCheckAcl) == 0 ? 0 : 1; }), 0);
    Pipe held, done;
    pid_t holder = spawn([&] {
        DB_TXN *txn;
        if (!join() || mboxlist_trans_setup(&txn, "hold", "user/bob")) return 1;
        if (put_row(txn, "user/bob") || !send_byte(held.w, 'h')) return 2;
        read_byte(done.r, 60000);
        txn->abort(txn);
        return 0;
    });
    ASSERT_EQ(read_byte(held.r, 30000), 'h');
    int asked = in_child([&] {
        if (!join()) return 1;
        DB_ENV *env = mboxlist_env();
        env->set_timeout(env, 300000, DB_SET_LOCK_TIMEOUT);
        env->set_flags(env, DB_TIME_NOTGRANTED, 1);
        auth_state *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
        std::string dir = folder_dir("user/bob/x");
        int found = lookup();
        int created = create("user/bob/x", "root", site);
        // A delete is left out here: its writes wait as long as the lock is
        // held and are repeated while the library calls them deadlocked, so
        // on a loaded host it may rightly succeed once the holder gives up.
        fprintf(stderr, "lookup %d, create %d\n", found, created);
        if (found != IMAP_IOERROR || created != IMAP_IOERROR) return 2;
        return file_exists(dir) ? 3 : 0;
    });
    EXPECT_EQ(asked, 0);
    send_byte(done.w, 'd');
    EXPECT_EQ(wait_child(holder), 0);
    // Once the lock is gone, the same calls work.
    EXPECT_EQ(in_child([&] { return join() && lookup() == 0 ? 0 : 1; }), 0);
}

TEST_F(SeenStore, RecordTextLockedReadWriteAndRanges) {
    struct seen *h = nullptr;
    ASSERT_EQ(seen_open(&a.mb, "fred", &h), 0);
    EXPECT_EQ(raw("user/bob/a"), "#1");  // no record, no "store.usr": made new
    EXPECT_EQ(lockread(h), "0 0 0 0| ");  // a user without a record: two empty lists
    EXPECT_EQ(a.mb.peruser_lock_count, 1u);
    time_t before = time(nullptr);
    ASSERT_EQ(seen_write(h, 5, 3, 9, "1:3,7 "), 0);
    EXPECT_EQ(raw("user/bob/a\tfred"), "5 3 9 1:3,7 ");  // no terminators anywhere
    uint32_t t = (uint32_t)atol(raw("user/bob/a").c_str() + 1);
    EXPECT_TRUE(t >= (uint32_t)before && t <= (uint32_t)time(nullptr));
    // The mutex stays held: a second read must not take it again.
    EXPECT_EQ(lockread(h), "0 5 3 9|1:3,7 ");
    seen_unlock(h);
    EXPECT_EQ(a.mb.peruser_lock_count, 0u);
    seen_close(h);
    // The text is the two lists and the white space between them only; a
    // record cut short is read within its size.
    put("user/bob/a\tjoe", "12 4 4000000001 ,,2:4,9 ,5:6 tail\nmore");
    ASSERT_EQ(seen_open(&a.mb, "joe", &h), 0);
    EXPECT_EQ(lockread(h), "0 12 4 4000000001|,,2:4,9 ,5:6");
    put("user/bob/a\tjoe", "7 1");
    EXPECT_EQ(lockread(h), "0 7 1 0|");
    seen_close(h);
    PerUserFlags fl;
    ASSERT_EQ(getPerUserFlags(&a.mb, "nobody", &fl), 0);  // never used
    EXPECT_EQ(ranges(fl.seen, fl.nseen), RangeList({kEnd}));
    EXPECT_FALSE(fl.deleted || isSeen(&fl, 1) || isDeleted(&fl, 1) || isSeen(&fl, SEEN_RANGE_END));
    freeUserFlags(&fl);
    // Leading and doubled commas, and a ":" without a high end, are
    // skipped; a garbled list keeps what came before the bad place, with a
    // warning.
    const struct { const char *stored; RangeList seen, deleted; bool warned; } cases[] = {
        {"5 3 9 1:3,7 ", {{1, 3}, {7, 7}, kEnd}, {}, false},  // an empty list: no array
        {"5 3 9 ,,2:4,,9,11: ,5:6", {{2, 4}, {9, 9}, {11, 11}, kEnd}, {{5, 6}, kEnd}, false},
        {"0 0 0 1,5,3,8 ", {{1, 1}, {5, 5}, kEnd}, {}, true},  // out of order
        {"0 0 0 1,2:500 ", {{1, 1}, kEnd}, {}, true},          // above last_uid
        {"0 0 0 6:3 ", {kEnd}, {}, true}, {"0 0 0 1,x,3 ", {{1, 1}, kEnd}, {}, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.stored);
        inst.newLog();
        put("user/bob/a\tfred", c.stored);
        ASSERT_EQ(getPerUserFlags(&a.mb, "fred", &fl), 0);
        EXPECT_EQ(std::to_string(fl.lastread) + " " + std::to_string(fl.recentuid) + " " +
                      std::to_string(fl.lastchange), std::string(c.stored).substr(0, 5));
        EXPECT_EQ(ranges(fl.seen, fl.nseen), c.seen);
        EXPECT_EQ(ranges(fl.deleted, fl.ndeleted), c.deleted);
        freeUserFlags(&fl);
        EXPECT_TRUE(fl.seen == nullptr && fl.nseen == 0);
        EXPECT_EQ(!inst.newLog().empty(), c.warned);
    }
    // A growing range array, every uid looked up: SeenProcesses.ConcurrentWritersLoseNoRange.
}

TEST_F(SeenStore, MutexIsPerPairAndReleasedByClose) {
    struct seen *h;
    ASSERT_EQ(seen_open(&a.mb, "fred", &h), 0);
    ASSERT_EQ(seen_lockread(h, nullptr, nullptr, nullptr, nullptr), 0);
    // Another process asks for the mutex of a pair by its name and says on
    // the pipe when it has it.
    auto contender = [](Pipe &p, const char *name) {
        return spawn([&p, name]() {
            return db_globalmutex_hold(db_globalmutex_open(name)) == 0 && write(p.w, "x", 1) == 1 ? 0 : 1;
        });
    };
    Pipe other, same;
    pid_t o = contender(other, "user/bob/a\tjoe peruser");
    EXPECT_EQ(read_byte(other.r, 5000), 'x');  // another user: no wait
    EXPECT_EQ(wait_child(o), 0);
    pid_t s = contender(same, "user/bob/a\tfred peruser");
    EXPECT_EQ(read_byte(same.r, 400), -1);
    seen_close(h);  // without seen_unlock
    EXPECT_EQ(a.mb.peruser_lock_count, 0u);
    int got = read_byte(same.r, 5000);
    EXPECT_EQ(got, 'x');
    if (got != 'x') kill(s, SIGKILL);
    EXPECT_EQ(wait_child(s), 0);
}

TEST_F(SeenStore, CreateDeleteAndRebuildFromCheckpointFile) {
    Folder ab("user/bob/ab", dir("bob/ab"), 20), o("user/bob/o", dir("bob/o"), 20);
    ASSERT_EQ(seen_create(&a.mb), 0);
    EXPECT_EQ(raw("user/bob/a"), "#1");
    // The user records of a/b and o are left without their folder's record.
    for (const auto &r : std::map<std::string, std::string>{
             {"user/bob/a\tbob", "1 2 3 1:2 "}, {"user/bob/a\tbobby", "7 8 9  "}, {"user/bob/ab", word(1)},
             {"user/bob/ab\tbob", "1 1 1 1 "}, {"user/bob/a/b\tbob", "2 2 2 2 "}, {"user/bob/o\tbob", "3 3 3 3 "}})
        put(r.first, r.second);
    // Delete takes the folder with its users, not its neighbours nor
    // records without a folder, and the checkpoint file only when asked.
    write_file(a.path + "/store.usr", "bob\t1 2 3 1:2 \n");
    write_file(ab.path + "/store.usr", "bob\t1 1 1 1 \n");
    ASSERT_EQ(seen_delete(&a.mb, 1), 0);
    ASSERT_EQ(seen_delete(&o.mb, 1), 0);
    EXPECT_EQ(records("user/bob/"), Keys({"user/bob/a/b\tbob=2 2 2 2 ", "user/bob/ab=#1",
                                          "user/bob/ab\tbob=1 1 1 1 ", "user/bob/o\tbob=3 3 3 3 "}));
    EXPECT_FALSE(file_exists(a.path + "/store.usr"));
    ASSERT_EQ(seen_delete(&ab.mb, 0), 0);
    EXPECT_EQ(records("user/bob/ab"), Keys());
    EXPECT_TRUE(file_exists(ab.path + "/store.usr"));
    EXPECT_EQ(seen_delete(&a.mb, 1), 0);  // nothing left: no failure
    // A folder without records is rebuilt from its checkpoint file.
    Folder r("user/bob/r", dir("bob/r"), 50);
    write_file(r.path + "/store.usr", "fred\t5 3 9 1:3,7 \nno tab here 1 2 3\n"
                         "joe\t1 2 3 1:2:3,0,60 ,4\ngone\t1 99 3  \n"  // recentuid above last_uid
                         "last\t1 2 3  ");   // no line feed
    struct seen *h;
    ASSERT_EQ(seen_open(&r.mb, "fred", &h), 0);
    seen_close(h);
    EXPECT_EQ(records("user/bob/r"),
              Keys({"user/bob/r=#0", "user/bob/r\tfred=5 3 9 1:3,7 ", "user/bob/r\tjoe=1 2 3 1:2,3 4"}));
}

TEST(SeenFixdata, RepairsAndRemovals) {
    const char *cases[][2] = {
        // value, repaired text ("=": good as it is, "-": removed)
        // "1:2:3", a 0 and a recentuid above last_uid: CreateDeleteAndRebuildFromCheckpointFile.
        {"5 3 9 1:3,7 4:6", "="}, {"5 3 9  ", "="}, {"1 2 3 3:99 ", "1 2 3 3 "},
        {"1 2 3 ,5 8: junk", "1 2 3 5 8"}, {"1 2 3 1:3", "-"}, {"1 2 3 1x 4", "-"}, {"1 2 3", "-"}};
    for (const auto &c : cases) {
        char *out = nullptr;
        int r = seen_fixdata(&out, c[0], c[0] + strlen(c[0]), 50, 1000000, 0, 0, "u", nullptr, nullptr);
        std::string want = c[1];
        EXPECT_EQ(r, want == "=" ? 0 : 1) << c[0];
        EXPECT_EQ(take(out), want == "=" || want == "-" ? "<null>" : want) << c[0];
    }
    // A clock far ahead counts as now for the age tests, and stays.
    Keys active;
    auto cb = [](void *r, const char *u) { static_cast<Keys *>(r)->push_back(u); };
    const time_t now = 1000000;
    const char *future = "2000000 1 1 1 ", *old = "500 1 1 1 ";
    char *out = nullptr;
    EXPECT_EQ(seen_fixdata(&out, future, future + 14, 50, now, now - 1, now - 10, "ann", cb, &active), 0);
    EXPECT_EQ(seen_fixdata(&out, old, old + 10, 50, now, 500, 501, "bea", cb, &active), 1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(seen_fixdata(&out, old, old + 10, 50, now, 499, 500, "cid", cb, &active), 0);
    EXPECT_EQ(active, Keys({"ann", "cid"}));
}

TEST(SeenProcesses, ConcurrentWritersLoseNoRange) {
    Instance inst;
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/stored.out"));
    const int rounds = 150;
    const std::string path = inst.path("partitions/primary/share/inbox");
    // Each writer adds its own uids to the seen list, kept ascending, one
    // read-modify-write at a time.
    pid_t pids[2];
    for (int w = 0; w < 2; w++) {
        pids[w] = spawn([&, w]() {
            if (!join_store(w ? "writer-b" : "writer-a")) return 10;
            Folder f("user/share/inbox", path, 2 * rounds);
            for (int i = 0; i < rounds; i++) {
                struct seen *h;
                time_t lastread, lastchange;
                unsigned recent;
                char *text = nullptr;
                seen_open(&f.mb, "pat", &h);
                if (seen_lockread(h, &lastread, &recent, &lastchange, &text) != 0) return 11;
                std::string t = take(text), list;
                std::set<unsigned long> uids = {(unsigned long)(2 * i + 1 + w)};
                for (const char *p = t.c_str(); *p && *p != ' '; p += *p == ',')
                    uids.insert(strtoul(p, const_cast<char **>(&p), 10));
                for (unsigned long u : uids) list += (list.empty() ? "" : ",") + std::to_string(u);
                t.replace(0, t.find(' '), list);
                usleep(200);  // widen the window between read and write
                if (seen_write(h, lastread, recent, time(nullptr), t.c_str()) != 0) return 13;
                seen_close(h);
            }
            mboxlist_close();
            return 0;
        });
    }
    for (pid_t p : pids) EXPECT_EQ(wait_child(p), 0);
    // A fresh reader finds every uid of both writers.
    EXPECT_EQ(in_child([&]() {
                  if (!join_store("reader")) return 19;
                  Folder f("user/share/inbox", path, 2 * rounds);
                  PerUserFlags fl;
                  if (getPerUserFlags(&f.mb, "pat", &fl) != 0) return 20;
                  for (uint32_t uid = 1; uid <= 2 * rounds; uid++)
                      if (!isSeen(&fl, uid)) return 21;
                  return fl.nseen == 2 * rounds + 1 && !fl.deleted ? 0 : 22;
              }), 0);
}

// Folder rename: a folder with its children, a move to another partition,
// an inbox into a new folder, a whole user; every message, record,
// per-user flag, quota charge and subscription follows. A rename killed at
// random moments leaves each folder whole under one of its names, and the
// same rename again completes it.
#include "store/append.h"
#include "store/mailbox_create.h"
#include "store/mboxlist_acl.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_quota.h"
#include "store/mboxlist_rename.h"
#include "store/mboxlist_subs.h"
#include "store/seen_db.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// Delivers n messages into name, seen by the owner.
void fill(const char *name, unsigned n) {
    mailbox mb = zeromailbox;
    append_state as;
    as.mailbox = &mb;
    ASSERT_EQ(append_setup(&as, name, 0, MAILBOX_VERSION, auth_dontCheckAcl, 0, 0), 0) << name;
    for (unsigned i = 0; i < n; i++) {
        std::string text = "Subject: " + std::string(name) + " " + std::to_string(i) + "\r\n\r\nbody\r\n";
        appendmsg m = zeroappendmsg;
        m.flags = APPENDMSG_STATIC, m.base = text.data(), m.size = (unsigned)text.size();
        const char *seen[] = {"\\seen"};
        ASSERT_EQ(append_msg(&as, &m, 1000, seen, 1, "fred", 0, 0, 0, 0), 0);
    }
    append_finish(&as);
    mailbox_close(&mb);
}

void create(const char *name, const char *partition = nullptr) {
    ASSERT_EQ(mboxlist_createmailbox(name, MAILBOX_VERSION, partition, nullptr, auth_dontCheckAcl,
                                     QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0) << name;
}

// "<partition> <messages> <subjects of the files>" of a folder, or "none".
std::string folder(const char *name) {
    char *part = nullptr;
    if (mboxlist_lookup(name, nullptr, &part, nullptr, nullptr, nullptr) != 0) return "none";
    mailbox mb = zeromailbox;
    if (mailbox_open(name, 0, auth_dontCheckAcl, &mb) != 0) return take(part) + " unopenable";
    std::string out = take(part) + " " + std::to_string(mb.mbd.exists);
    for (const auto &e : index_entries(mb.path)) {
        std::string text = read_file(message_file(mb, e.rec.uid));
        out += "|" + text.substr(9, text.find('\r') - 9);
    }
    mailbox_close(&mb);
    return out;
}

uint64_t used(const char *root) {
    quotadata q;
    return mboxlist_getquotaroot(root, &q, nullptr) ? 0 : ((uint64_t)q.used_high << 32) | q.used_low;
}

class Rename : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        mkdir(inst.path("partitions/second").c_str(), 0777);
        write_file(inst.path("config/store.parts"), "2\nprimary\nsecond\n");
        restart("store.partition.second.path: " + inst.path("partitions/second") + "\n");
    }
};

TEST_F(Rename, FoldersPartitionsInboxAndUser) {
    for (const char *f : {"user/fred", "user/fred/a", "user/fred/a/b", "user/fred/ab", "user/bob"}) create(f);
    fill("user/fred", 2), fill("user/fred/a", 3), fill("user/fred/a/b", 1), fill("user/fred/ab", 1);
    ASSERT_EQ(mboxlist_changesub("user/fred/a/b", "fred", nullptr, 1), 0);
    ASSERT_EQ(mboxlist_changesub("user/bob", "fred", nullptr, 1), 0);
    ASSERT_EQ(mboxlist_setacl("user/bob", "fred", "lr", nullptr, auth_dontCheckAcl), 0);
    ASSERT_EQ(mboxlist_setacl("user/bob", "-fred", "r", nullptr, auth_dontCheckAcl), 0);
    const uint64_t charged = used("user/fred");
    auth_state *fred = auth_newstate("fred", nullptr, 0), *bob = auth_newstate("bob", nullptr, 0);

    // A folder with its child, not its namesake with a longer name.
    ASSERT_EQ(mboxlist_renamemailbox("user/fred/a", "user/fred/c", nullptr, "fred", fred), 0);
    EXPECT_EQ(folder("user/fred/a"), "none");
    EXPECT_EQ(folder("user/fred/a/b"), "none");
    EXPECT_EQ(folder("user/fred/c"), "primary 3|user/fred/a 0|user/fred/a 1|user/fred/a 2");
    EXPECT_EQ(folder("user/fred/c/b"), "primary 1|user/fred/a/b 0");
    EXPECT_EQ(folder("user/fred/ab"), "primary 1|user/fred/ab 0");
    EXPECT_EQ(used("user/fred"), charged);
    // Refusals change nothing.
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/c", "user/fred/c", nullptr, "fred", fred), IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/c", "user/fred/c", "second", "fred", fred), IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/zz", "user/fred/y", nullptr, "fred", fred),
              IMAP_MAILBOX_NONEXISTENT);
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/c", "user/bob/c", nullptr, "bob", bob), IMAP_MAILBOX_NONEXISTENT);
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/ab", "user/carl", nullptr, nullptr, auth_dontCheckAcl),
              IMAP_MAILBOX_NOTSUPPORTED);
    EXPECT_EQ(mboxlist_renamemailbox("user/fred/c", "user/fred/c", "nowhere", nullptr, auth_dontCheckAcl),
              IMAP_PARTITION_UNKNOWN);

    // A partition move by a site administrator: each folder by its own row.
    ASSERT_EQ(mboxlist_renamemailbox("user/fred/c", "user/fred/c", "second", nullptr, auth_dontCheckAcl), 0);
    EXPECT_EQ(folder("user/fred/c"), "second 3|user/fred/a 0|user/fred/a 1|user/fred/a 2");
    EXPECT_EQ(folder("user/fred/c/b"), "second 1|user/fred/a/b 0");

    // The inbox into a new folder: the inbox stays, empty; its children stay.
    ASSERT_EQ(mboxlist_renamemailbox("user/fred", "user/fred/old", nullptr, "fred", fred), 0);
    EXPECT_EQ(folder("user/fred"), "primary 0");
    EXPECT_EQ(folder("user/fred/old"), "primary 2|user/fred 0|user/fred 1");
    EXPECT_EQ(folder("user/fred/ab"), "primary 1|user/fred/ab 0");
    EXPECT_EQ(used("user/fred"), charged);
    fill("user/fred", 1);  // the emptied inbox takes mail again

    // A whole user: folders, quota, subscriptions (own folders renamed,
    // others' kept), per-user flags.
    const uint64_t before = used("user/fred");
    ASSERT_EQ(mboxlist_renamemailbox("user/fred", "user/george", nullptr, nullptr, auth_dontCheckAcl), 0);
    for (const char *f : {"user/fred", "user/fred/old", "user/fred/c", "user/fred/ab"})
        EXPECT_EQ(folder(f), "none") << f;
    // Each folder goes where the create check puts it: below its new parent.
    EXPECT_EQ(folder("user/george/c/b"), "primary 1|user/fred/a/b 0");
    EXPECT_EQ(folder("user/george"), "primary 1|user/fred 0");
    EXPECT_EQ(used("user/george"), before);
    quotadata q;
    EXPECT_EQ(mboxlist_getquotaroot("user/fred", &q, nullptr), IMAP_QUOTAROOT_NONEXISTENT);
    // A folder rename leaves subscriptions by name; a user rename moves
    // those to the user's own folders.
    EXPECT_EQ(mboxlist_lookup_subs("george", "user/george/a/b"), 0);
    EXPECT_EQ(mboxlist_lookup_subs("george", "user/bob"), 0);
    EXPECT_EQ(mboxlist_lookup_subs("fred", "user/fred/a/b"), DB_NOTFOUND);
    mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_open("user/george/old", 0, auth_dontCheckAcl, &mb), 0);
    struct seen *h;
    char *text = nullptr;
    ASSERT_EQ(seen_open(&mb, "george", &h), 0);
    ASSERT_EQ(seen_lockread(h, nullptr, nullptr, nullptr, &text), 0);
    seen_close(h);
    EXPECT_EQ(take(text), "1:2 ");
    EXPECT_NE(std::string(mb.acl).find("george\t"), std::string::npos) << mb.acl;
    mailbox_close(&mb);
    // The rights that bob's folder gave fred are george's now, both entries.
    char *acl = nullptr, *list = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(mboxlist_lookup("user/bob", nullptr, nullptr, nullptr, nullptr, &acl), 0);
    EXPECT_TRUE(matches("(^|\t)george\tlr\t.*-george\tr\t", str(acl))) << acl;
    free(acl);
    ASSERT_EQ(mboxlist_lookup_lright("george", &list, &size, nullptr), 0);
    EXPECT_EQ(std::string(list, size), std::string("user/bob", 9));
    free(list);
    EXPECT_EQ(mboxlist_lookup_lright("fred", &list, &size, nullptr), DB_NOTFOUND);
    // The rename of an identifier: a leading "-" stays; an absent one is 1.
    const struct { const char *in, *out; int r; } acls[] = {
        {"-fred\tr\tann\tl\tfred\tlr\t", "-george\tr\tann\tl\tgeorge\tlr\t", 0},
        {"fredx\tl\t", "fredx\tl\t", 1}, {"", "", 1}};
    for (const auto &c : acls) {
        char *text = xstrdup(c.in);
        EXPECT_EQ(acl_renameuser(&text, "fred", "george"), c.r) << c.in;
        EXPECT_EQ(take(text), c.out);
    }
    // The copy that a rename stopped before its transaction left behind is
    // made anew by the same rename again.
    create("user/bob/s"), fill("user/bob/s", 2);
    mailbox *copy = nullptr;
    ASSERT_EQ(mailbox_open("user/bob/s", 0, auth_dontCheckAcl, &mb), 0);
    ASSERT_EQ(mailbox_rename_start(&mb, "user/bob/t", "primary", folder_dir("user/bob/t").c_str(), nullptr, 0,
                                   &copy), 0);
    mailbox_close(copy), free(copy), mailbox_close(&mb);
    ASSERT_EQ(mboxlist_renamemailbox("user/bob/s", "user/bob/t", nullptr, nullptr, auth_dontCheckAcl), 0);
    EXPECT_EQ(folder("user/bob/t"), "primary 2|user/bob/s 0|user/bob/s 1");
    auth_freestate(fred), auth_freestate(bob);
}

// A tree rename killed at random moments: each folder is whole under its
// old or its new name, never neither; the same rename again completes it.
TEST(RenameCrash, KilledTreeRenameLeavesOneWholeCopy) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    std::vector<std::string> kids = {"", "/1", "/2", "/2/x", "/3", "/4", "/5"};
    srand(7);
    int midway = 0;
    for (int round = 0; round < 10; round++) {
        std::string from = "user/k/t" + std::to_string(round), to = "user/k/u" + std::to_string(round);
        ASSERT_EQ(in_child([&] {
            if (!join_store("setup")) return 1;
            if (round == 0) create("user/k");
            for (const auto &k : kids) create((from + k).c_str()), fill((from + k).c_str(), 3);
            return ::testing::Test::HasFailure() ? 2 : 0;
        }), 0);
        // The kill comes at a random moment after the renamer has joined
        // the store, however long that took.
        Pipe joined;
        pid_t pid = spawn([&] {
            if (!join_store("renamer") || !send_byte(joined.w, 'j')) return 1;
            return mboxlist_renamemailbox(from.c_str(), to.c_str(), nullptr, nullptr, auth_dontCheckAcl);
        });
        ASSERT_EQ(read_byte(joined.r, 30000), 'j');
        usleep((useconds_t)(rand() % 20000));
        kill(pid, SIGKILL);
        wait_child(pid);
        // The named locks of the killed program go with the lock
        // environment, which a new start of the daemon makes anew.
        inst.killStored();
        ASSERT_TRUE(inst.startStored());
        int status = in_child([&] {
            if (!join_store("checker")) return 1;
            int moved = 0;
            for (const auto &k : kids) moved += folder((to + k).c_str()) != "none";
            for (const auto &k : kids) {
                std::string o = folder((from + k).c_str()), n = folder((to + k).c_str());
                bool whole_old = o.rfind("primary 3|", 0) == 0, whole_new = n.rfind("primary 3|", 0) == 0;
                EXPECT_TRUE(whole_old || whole_new) << k << ": " << o << " / " << n;
            }
            int r = mboxlist_renamemailbox(from.c_str(), to.c_str(), nullptr, nullptr, auth_dontCheckAcl);
            EXPECT_TRUE(r == 0 || r == IMAP_MAILBOX_NONEXISTENT) << r;
            for (const auto &k : kids) {
                EXPECT_EQ(folder((from + k).c_str()), "none") << k;
                EXPECT_EQ(folder((to + k).c_str()).substr(0, 10), "primary 3|") << k;
            }
            return ::testing::Test::HasFailure() ? 2 : 10 + moved;
        });
        ASSERT_GE(status, 10) << "round " << round;
        midway += status > 10 && status < 10 + (int)kids.size();
    }
    EXPECT_GT(midway, 0);  // some kills came in the middle of the tree
}

}  // namespace

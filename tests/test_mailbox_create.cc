// The files of a folder as a whole: create (also against a second creator,
// and flushed before the row that counts it) and delete, on a store that this
// process brings up.
#include "store/mailbox_create.h"
#include "store/mboxlist_create.h"
#include "store/seen_db.h"
#include "support/lock.h"
#include "support/map.h"
#include "support/retry.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// The uidvalidity in the index of the folder at dir (0 if unreadable).
uint32_t uidvalidity_of(const std::string &dir) {
    std::string s = read_file(dir + "/store.idx");
    mboxdata mbd = {};
    if (s.size() >= sizeof mbd) memcpy(&mbd, s.data(), sizeof mbd);
    return mbd.uidvalidity;
}

bool has_peruser(const char *name) { return db_has(userflagdb, name); }

// Partition "spool" keeps its messages apart from its folder directories.
class MailboxFiles : public StoreTest {
  protected:
    void SetUp() override {
        inst.addConfig("store.partition.spool.path: " + inst.path("partitions/spool") +
                       "\nstore.partition.spool.messagepath: " + inst.path("messages/spool"));
        StoreTest::SetUp();
    }
    std::string dir(const char *name, const char *partition = "primary") {
        return folder_dir(name, partition);
    }
    // The message directory of name on "spool"; "" elsewhere.
    std::string mdir(const char *name, const char *partition = "spool") {
        char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
        if (strcmp(partition, "spool")) return "";
        EXPECT_EQ(mboxlist_getpath(name, "spool", path, mpath), 0);
        return mpath;
    }
    // Creates, or opens from its files, name at the directories its
    // partition gives it.
    int create(const char *name, mailbox *mb, uint32_t uidvalidity = 1, const char *acl = "",
               const char *partition = "primary") {
        std::string m = mdir(name, partition);
        return mailbox_create(name, partition, dir(name, partition).c_str(),
                              m.empty() ? nullptr : m.c_str(), acl, MAILBOX_VERSION, mb, uidvalidity);
    }
    int openFolder(const char *name, mailbox *mb, const char *partition = "primary") {
        return mailbox_open_path(name, 0, partition, dir(name, partition).c_str(),
                                 mdir(name, partition).c_str(), "", auth_dontCheckAcl, mb);
    }
};

// At each barrier: the size of "store.idx" of user/fred/new and whether
// the folder has its row yet.
std::vector<std::string> barriers;
void note_barrier(sync_event e, const char *) {
    if (e != SYNC_EVENT_BARRIER) return;
    std::string idx = folder_dir("user/fred/new") + "/store.idx";
    barriers.push_back(std::to_string(file_size(idx)) + (has_row("user/fred/new") ? " row" : " no row"));
}

}  // namespace

// The path and 16 bytes more may reach 1024: 1008 bytes is the longest.
TEST_F(MailboxFiles, LongestFolderPath) {
    std::string ok = inst.path("partitions/primary");
    while (ok.size() < 900) ok += "/" + std::string(100, 'x');
    ok += "/" + std::string(1007 - ok.size(), 'y');
    for (const std::string &p : {ok + "z", ok})
        EXPECT_EQ(mailbox_create("user/x", "primary", p.c_str(), nullptr, "", MAILBOX_VERSION, nullptr, 1),
                  p == ok ? 0 : IMAP_MAILBOX_BADNAME);
    EXPECT_FALSE(file_exists(ok + "z"));
}

TEST_F(MailboxFiles, FilesAreFlushedBeforeTheRowCountsThem) {
    for (const char *name : {"user/fred", "user/fred/new"}) {
        barriers.clear();
        sync_set_observer(note_barrier);
        int r = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                       QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr);
        sync_set_observer(nullptr);
        ASSERT_EQ(r, 0) << name;
    }
    EXPECT_TRUE(has_row("user/fred/new"));
    ASSERT_FALSE(barriers.empty());
    EXPECT_EQ(barriers.back(), "7856 no row");
}

TEST_F(MailboxFiles, CreateOverExistingFiles) {
    const char *name = "user/fred/box";
    std::string d = dir(name), idx = d + "/store.idx";
    mailbox mb;
    ASSERT_EQ(create(name, nullptr, 100), 0);
    // A folder without messages is replaced, with a new uidvalidity.
    ASSERT_EQ(create(name, &mb, 200, "x\tl\t"), 0);
    EXPECT_TRUE(uidvalidity_of(d) == 200u && mb.index_lock_count == 0 && mb.mpath == mb.path);
    deliver(&mb, 3);
    mailbox_close(&mb);
    std::string before = read_file(idx);
    // A live folder is not touched, and the handle is usable on it.
    ASSERT_EQ(create(name, &mb, 300, "y\tlr\t"), IMAP_MAILBOX_EXISTS);
    EXPECT_TRUE(mb.mbd.exists == 3 && mb.mbd.uidvalidity == 200 && mb.index_lock_count == 0);
    EXPECT_TRUE(mb.myrights == (unsigned long)ACL_ALL && !strcmp(mb.acl, "y\tlr\t"));
    EXPECT_EQ(mb.index_size, (unsigned)before.size());
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    index_record rec;
    EXPECT_TRUE(mailbox_read_index_record(&mb, 3, &rec) == 0 && rec.uid == 3);
    mailbox_close(&mb);
    ASSERT_EQ(create(name, nullptr, 300), IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(read_file(idx), before);
    // 80 bytes or less, or a summary that counts nothing, is no folder.
    for (size_t len : {0, 40, 80}) {
        write_file(idx, before.substr(0, len));
        ASSERT_EQ(create(name, nullptr, 400 + len), 0) << len;
        EXPECT_TRUE(uidvalidity_of(d) == 400u + len && file_size(idx) == 7856) << len;
    }
    // An index shared with another folder by a hard link is replaced by a
    // file of its own; the other folder's file stays whole.
    std::string other = dir("user/fred/other") + "/store.idx";
    ASSERT_EQ(create("user/fred/other", nullptr, 500), 0);
    std::string otherbytes = read_file(other);
    ASSERT_EQ(unlink(idx.c_str()), 0);
    ASSERT_EQ(link(other.c_str(), idx.c_str()), 0);
    write_file(d + "/store.exp", "x");
    ASSERT_EQ(create(name, nullptr, 600), 0);
    EXPECT_TRUE(inode_of(idx) != inode_of(other) && !file_exists(d + "/store.exp"));
    EXPECT_EQ(read_file(other), otherbytes);
    EXPECT_EQ(uidvalidity_of(d), 600u);
}

TEST_F(MailboxFiles, SecondCreatorWaitsAndDoesNotCutTheFirst) {
    // The first creator holds the lock of a file it is still writing; the
    // second must wait for it, leave its bytes alone and report the folder
    // as existing.
    const char *name = "user/race/a";
    std::string d = dir(name), idx = d + "/store.idx";
    ASSERT_EQ(mailbox_makedirs(d.c_str()), 0);
    int fd = open(idx.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_EQ(lock_blocking(fd), 0);
    struct {
        mboxdata mbd;
        index_header hdr;
    } h = {};
    h.mbd.version = MAILBOX_VERSION;
    h.mbd.uidvalidity = 4242;
    h.hdr.start_offset = 256;
    h.hdr.cache_offset = 256 + 7600;
    ASSERT_EQ(write(fd, &h, sizeof h), (ssize_t)sizeof h);
    Pipe done;
    pid_t pid = spawn([&] {
        int r = create(name, nullptr);
        return send_byte(done.w, r == IMAP_MAILBOX_EXISTS ? 'E' : 'X') ? 0 : 2;
    });
    EXPECT_EQ(read_byte(done.r, 400), -1);  // it waits for the lock
    std::string rest(7856 - sizeof h, '\0');
    ASSERT_EQ(write(fd, rest.data(), rest.size()), (ssize_t)rest.size());
    std::string written = read_file(idx);
    ASSERT_EQ(lock_unlock(fd), 0);
    EXPECT_EQ(read_byte(done.r, 5000), 'E');
    EXPECT_EQ(wait_child(pid), 0);
    close(fd);
    EXPECT_EQ(read_file(idx), written);
}

TEST_F(MailboxFiles, DeleteRemovesEverything) {
    const char *name = "user/fred/gone", *child = "user/fred/gone/child";
    std::string d = dir(name, "spool"), m = mdir(name);
    mailbox mb;
    ASSERT_EQ(create("user/fred", nullptr, 1, "", "spool"), 0);
    ASSERT_EQ(create(name, &mb, 1, "", "spool"), 0);
    deliver(&mb, 100);  // message directories 00 and 01
    ASSERT_TRUE(file_exists(m + "/01/100.msg"));
    ASSERT_EQ(create(child, nullptr, 1, "", "spool"), 0);
    write_file(d + "/store.usr", "x");
    write_file(d + "/stray", "x");
    EXPECT_EQ(mailbox_delete(&mb, 0), 0);
    EXPECT_TRUE(mb.index_fd == -1 && mb.name == nullptr);
    for (const std::string &gone : {m + "/00", m + "/01", d + "/store.idx", d + "/store.usr", d + "/stray"})
        EXPECT_FALSE(file_exists(gone)) << gone;
    EXPECT_FALSE(has_peruser(name));
    // The child's directory keeps the folder's directories in place.
    EXPECT_TRUE(file_exists(dir(child, "spool") + "/store.idx") && has_peruser(child));
    // Deleting the child (keeping its per-user data) and the root empties
    // the trees, but the partition directories stay.
    ASSERT_EQ(openFolder(child, &mb, "spool"), 0);
    mailbox_delete(&mb, 1);
    EXPECT_TRUE(has_peruser(child) && !file_exists(d));
    ASSERT_EQ(openFolder("user/fred", &mb, "spool"), 0);
    mailbox_delete(&mb, 0);
    EXPECT_FALSE(file_exists(inst.path("partitions/spool/=user")) ||
                 file_exists(inst.path("messages/spool/=user")));
    EXPECT_TRUE(file_exists(inst.path("partitions/spool")) && file_exists(inst.path("messages/spool")));
    // A folder whose directories are gone already is no failure.
    mailbox ghost = zeromailbox;
    ghost.name = strdup("user/ghost");
    ghost.path = ghost.mpath = strdup(dir("user/ghost").c_str());
    EXPECT_EQ(mailbox_delete(&ghost, 0), 0);
}

// The files of a folder: create (also against a second creator, and flushed
// before the row that counts it), open from the folder database and from the
// disk, the open modes, the index lock between real processes, delete, ACL
// cleaning, and the sync levels of the configuration.
#include <sys/syscall.h>

#include "store/mailbox_create.h"
#include "store/mboxlist_create.h"
#include "store/seen_db.h"
#include "support/lock.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

// The flushes of sync_file and of the barrier, counted: the level in force
// shows in which of them a write of "store.idx" and the next barrier call.
static int n_fdatasync, n_fsync, n_syncfs;
extern "C" int fdatasync(int fd) { return n_fdatasync++, (int)syscall(SYS_fdatasync, fd); }
extern "C" int fsync(int fd) { return n_fsync++, (int)syscall(SYS_fsync, fd); }
extern "C" int syncfs(int fd) { return n_syncfs++, (int)syscall(SYS_syncfs, fd); }

namespace {

using namespace testutil;

// A handle as zeromailbox leaves it.
bool is_zero(const mailbox &mb) {
    return mb.index_fd == -1 && !mb.index_map && !mb.name && !mb.path && !mb.acl &&
           mb.index_lock_count + mb.open_mode + mb.myrights == 0;
}

// The ACL of a folder's row, its summary into mbd; "<no row>" if none.
std::string row_acl(const char *name, mboxdata *mbd) {
    char *acl = nullptr;
    if (mboxlist_lookup(name, mbd, nullptr, nullptr, nullptr, &acl) != 0) return "<no row>";
    return take(acl);
}

// A store brought up in this process; folder "test/box" lives at dir_
// without a row.
class FolderOpen : public StoreTest {
  protected:
    ~FolderOpen() override { auth_freestate(fred_), auth_freestate(bob_); }
    int openBox(mailbox *mb, unsigned mode = 0) {
        return mailbox_open_path("test/box", mode, "primary", dir_.c_str(), nullptr,
                                 "anyone\tlr\t", auth_dontCheckAcl, mb);
    }
    // A child that opens the folder, takes its lock, writes 'L' to p, runs
    // fn and closes the folder (dropping the lock); exits with fn's result.
    pid_t holder(Pipe &p, std::function<int(mailbox &)> fn) {
        return spawn([&, fn] {
            mailbox other;
            if (openBox(&other) || mailbox_lock_index(&other) || !send_byte(p.w, 'L')) return 1;
            int r = fn(other);
            mailbox_close(&other);
            return r;
        });
    }
    // The lock is held against other processes until the last unlock.
    void expectHeldUntilUnlock(mailbox *mb) {
        EXPECT_FALSE(lockable_by_other(idx_));
        mailbox_unlock_index(mb);
        EXPECT_TRUE(lockable_by_other(idx_));
    }
    const std::string dir_ = inst.path("partitions/primary/box"), idx_ = dir_ + "/store.idx";
    auth_state *fred_ = auth_newstate("fred", nullptr, 0), *bob_ = auth_newstate("bob", nullptr, 0);
};

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

// At each barrier: the size of the watched folder's "store.idx" and the
// version in its row ("-" for none), as a write of the row would find them.
std::vector<std::string> barriers;
const char *watched;
void note_barrier(sync_event e, const char *) {
    mboxdata row = {};
    if (e == SYNC_EVENT_BARRIER)
        barriers.push_back(std::to_string(file_size(folder_dir(watched) + "/store.idx")) + " " +
                           (mboxlist_lookup(watched, &row, 0, 0, 0, 0) ? "-" : std::to_string(row.version)));
}

}  // namespace

TEST_F(FolderOpen, LockWaitsForTheHolderNestsAndIsTried) {
    make_folder("test/box", dir_, "", 4242, 1);
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    Pipe p;
    pid_t pid = holder(p, [&](mailbox &other) {
        usleep(300 * 1000);
        other.mbd.last_uid = 77;
        other.flagname[3] = xstrdup("Urgent");
        if (mailbox_write_index_variable_header(&other) || mailbox_write_index_fixed_header(&other))
            return 2;
        return send_byte(p.w, 'W') ? 0 : 3;
    });
    ASSERT_EQ(read_byte(p.r, 5000), 'L');
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    EXPECT_EQ(read_byte(p.r, 0), 'W');  // the lock came only after the holder's writes
    EXPECT_TRUE(mb.mbd.last_uid == 77 && mb.flagname[3] && !strcmp(mb.flagname[3], "Urgent"));
    EXPECT_EQ(wait_child(pid), 0);
    // An inner lock touches no file and needs its own unlock.
    mb.mbd.last_uid = 999;
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    EXPECT_TRUE(mb.index_lock_count == 2 && mb.mbd.last_uid == 999);
    mailbox_unlock_index(&mb);
    expectHeldUntilUnlock(&mb);
    mailbox_close(&mb);
    // Another process holds the lock: a try fails at once, silently.
    Pipe q, go;
    pid = holder(q, [&](mailbox &) { return read_byte(go.r, 10000) == 'G' ? 0 : 2; });
    ASSERT_EQ(read_byte(q.r, 5000), 'L');
    ASSERT_EQ(openBox(&mb, OPEN_NOWAIT), 0);
    inst.newLog();
    EXPECT_EQ(mailbox_lock_index(&mb), IMAP_MAILBOX_LOCKED);
    EXPECT_TRUE(mb.index_lock_count == 0 && inst.newLog().empty());
    send_byte(go.w, 'G');
    EXPECT_EQ(wait_child(pid), 0);
    EXPECT_EQ(mailbox_lock_index(&mb), 0);
    // Closing a locked handle releases the lock and leaves a zero handle.
    EXPECT_FALSE(lockable_by_other(idx_));
    mailbox_close(&mb);
    EXPECT_TRUE(is_zero(mb) && lockable_by_other(idx_));
}

TEST_F(FolderOpen, LockFollowsAReplacedIndex) {
    // Replaced by the holder while this process waits on the old file: a
    // long ACL moves the index to a new file, which the holder keeps locked
    // for a while.
    make_folder("test/box", dir_, "", 4242, 2);
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    ino_t old_ino = mb.index_ino;
    std::string longacl;
    for (int i = 0; i < 40; i++) longacl += "user" + std::to_string(i) + "\tlrs\t";
    Pipe p;
    pid_t pid = holder(p, [&](mailbox &other) {
        usleep(300 * 1000);
        free(other.acl);
        other.acl = xstrdup(longacl.c_str());
        if (mailbox_write_index_variable_header(&other) || other.generation != 1) return 2;
        send_byte(p.w, 'R');
        usleep(300 * 1000);
        return send_byte(p.w, 'W') ? 0 : 3;
    });
    ASSERT_EQ(read_byte(p.r, 5000), 'L');
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    // Through both holds: the old file's, then the new one's.
    EXPECT_EQ(read_byte(p.r, 0), 'R');
    EXPECT_EQ(read_byte(p.r, 0), 'W');
    EXPECT_EQ(wait_child(pid), 0);
    EXPECT_EQ(mb.index_lock_count, 1u);
    struct stat st;
    EXPECT_TRUE(fstat(mb.index_fd, &st) == 0 && st.st_ino == inode_of(idx_) &&
                st.st_ino != old_ino && mb.index_ino == st.st_ino);
    EXPECT_STREQ(mb.acl, longacl.c_str());
    index_record r;
    EXPECT_TRUE(mailbox_read_index_record(&mb, 2, &r) == 0 && r.uid == 2);
    expectHeldUntilUnlock(&mb);  // held on the new file
    mailbox_close(&mb);
}

TEST_F(FolderOpen, OpenModesAndRepair) {
    make_folder("test/box", dir_, "", 4242, 3);
    mailbox mb;
    // A version that no reader knows: logged unless silent; a repair open
    // gives a handle without a file and leaves the file alone.
    std::string bad = read_file(idx_);
    bad[0] = 9;
    write_file(idx_, bad);
    inst.newLog();
    EXPECT_EQ(openBox(&mb), IMAP_MAILBOX_BADFORMAT);
    EXPECT_TRUE(is_zero(mb));
    size_t loud = split_lines(inst.newLog()).size();
    EXPECT_EQ(openBox(&mb, OPEN_SILENT), IMAP_MAILBOX_BADFORMAT);
    EXPECT_LT(split_lines(inst.newLog()).size(), loud);  // one entry fewer
    ASSERT_EQ(openBox(&mb, OPEN_REPAIR), 0);
    EXPECT_TRUE(mb.index_fd == -1 && mb.name != nullptr);
    EXPECT_EQ(mailbox_lock_index(&mb), IMAP_IOERROR);  // nothing to lock
    EXPECT_EQ(mb.index_lock_count, 0u);
    mailbox_close(&mb);
    EXPECT_EQ(read_file(idx_), bad);
    // No index at all; a repair open creates nothing.
    unlink(idx_.c_str());
    EXPECT_EQ(openBox(&mb), IMAP_IOERROR);
    ASSERT_EQ(openBox(&mb, OPEN_REPAIR), 0);
    EXPECT_EQ(mb.index_fd, -1);
    mailbox_close(&mb);
    EXPECT_FALSE(file_exists(idx_));
    // The old two-file layout (version 257, generation 31): a repair open
    // looks at it, a plain open converts it.
    std::string old = std::string("\x01\x01\0\0", 4) + std::string(56, '\0') + "\x1f" +
                      std::string(3, '\0') + std::string("\0\x01\0\0", 4) + std::string(16, '\0') + "\n";
    write_file(idx_, old + std::string(256 - old.size(), '\0'));
    write_file(dir_ + "/store.cch", std::string("\x1f\0\0\0", 4));
    for (unsigned mode : {(unsigned)OPEN_REPAIR, 0u}) {
        ASSERT_EQ(openBox(&mb, mode), 0);
        EXPECT_EQ(mb.mbd.version, mode ? MAILBOX_VERSION_OLD : MAILBOX_VERSION);
        mailbox_close(&mb);
    }
    EXPECT_FALSE(file_exists(dir_ + "/store.cch"));
}

TEST(FolderAcl, CleanAclForcesTheOwnersRights) {
    const char *cases[][3] = {
        // An entry without its closing TAB is dropped.
        {"bob\tlr\tjoe\tlrs\tmax\tlr", "user/fred/x", "fred\tlrswipcda\tbob\tlr\tjoe\tlrs\t"},
        // The owner may lower its rights, not below lookup, create and
        // administer; fred2 is somebody else.
        {"fred\tr\tfred2\tr\t", "user/fred", "fred\tlrca\tfred2\tr\t"},
        {"fred\t\tanyone\tl\t", "public/news", "anyone\tl\t"},  // no owner
        {nullptr, "public/news", ""}};
    for (const auto &c : cases) EXPECT_EQ(take(cleanacl(c[0], c[1])), c[2]) << c[1];
}

TEST_F(FolderOpen, FolderOnDiskOnlyIsTakenUpAgain) {
    make_folder("user/fred/found", folder_dir("user/fred/found"), "bob\tlr\t", 9, 2);
    mailbox mb;
    // Without the owner's inbox in the database the disk is not looked at;
    // with it, a name without files is still nothing.
    for (const char *name : {"user/fred/found", "public/x", "user/fred/gone"}) {
        if (!strcmp(name, "user/fred/gone")) put_row("user/fred", MAILBOX_VERSION, 0, "");
        EXPECT_EQ(mailbox_open(name, 0, fred_, &mb), IMAP_MAILBOX_NONEXISTENT) << name;
        EXPECT_TRUE(is_zero(mb));
    }
    const char *acl = "fred\tlrswipcda\tbob\tlr\t";  // the owner holds all rights
    ASSERT_EQ(mailbox_open("user/fred/found", OPEN_NOWAIT, fred_, &mb), 0);
    EXPECT_STREQ(mb.acl, acl);
    EXPECT_TRUE(mb.myrights == (unsigned long)ACL_ALL && mb.open_mode == (unsigned)OPEN_NOWAIT);
    EXPECT_EQ(mb.mbd.exists, 2u);
    mailbox_close(&mb);
    mboxdata row;
    EXPECT_EQ(row_acl("user/fred/found", &row), acl);
    EXPECT_EQ(row.exists, 2u);
}

TEST_F(FolderOpen, RowWithoutFilesOpensAsANewFolder) {
    std::string longacl = "fred\tlrswipcda\t";
    for (int i = 0; i < 30; i++) longacl += "reader" + std::to_string(i) + "\tlr\t";
    put_row("user/fred", MAILBOX_VERSION_DBONLY, 0, longacl.c_str());
    uint32_t t0 = (uint32_t)time(nullptr);
    mailbox mb;
    // A repair open looks and makes nothing.
    ASSERT_EQ(mailbox_open("user/fred", OPEN_REPAIR, bob_, &mb), 0);
    EXPECT_EQ(mb.index_fd, -1);
    mailbox_close(&mb);
    EXPECT_FALSE(file_exists(folder_dir("user/fred")));
    watched = "user/fred";
    sync_set_observer(note_barrier);
    ASSERT_EQ(mailbox_open("user/fred", OPEN_APPEND, bob_, &mb), 0);
    sync_set_observer(nullptr);
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_TRUE(mb.mbd.uidvalidity >= t0 && mb.mbd.uidvalidity <= (uint32_t)time(nullptr));
    EXPECT_TRUE(mb.index_lock_count == 0 && mb.open_mode == (unsigned)OPEN_APPEND);
    EXPECT_EQ(mb.myrights, 0u);  // bob has no entry
    // The ACL needed more than the 176 bytes of a new variable header.
    EXPECT_GT(mb.hdr.start_offset, 256u);
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 7600);
    std::string idx = folder_dir("user/fred") + "/store.idx";
    EXPECT_EQ(file_size(idx), (off_t)mb.hdr.cache_offset);
    // The whole file was flushed while the row still said it had none.
    ASSERT_FALSE(barriers.empty());
    EXPECT_EQ(barriers.back(), std::to_string(mb.hdr.cache_offset) + " " +
                                   std::to_string(MAILBOX_VERSION_DBONLY));
    EXPECT_TRUE(lockable_by_other(idx));
    uint32_t uidvalidity = mb.mbd.uidvalidity;
    mailbox_close(&mb);
    mboxdata row;
    EXPECT_EQ(row_acl("user/fred", &row), longacl);
    EXPECT_TRUE(row.version == MAILBOX_VERSION && row.uidvalidity == uidvalidity);
    // The next open finds the file and makes nothing new.
    ASSERT_EQ(mailbox_open("user/fred", 0, fred_, &mb), 0);
    EXPECT_TRUE(mb.mbd.uidvalidity == uidvalidity && mb.myrights == (unsigned long)ACL_ALL);
    mailbox_close(&mb);
}

// The sync levels are read once per process: each case runs this test again
// with MAILBOX_SYNC_CHILD set, printing the flushes of one index header write
// and the barrier behind it twice (the second after a configuration that
// says otherwise changed nothing).
TEST(MailboxSync, GeneralAndSpecificKeys) {
    if (getenv("MAILBOX_SYNC_CHILD")) {
        TempDir tmp;
        mailbox mb = zeromailbox;
        mb.index_fd = open(tmp.file("store.idx").c_str(), O_RDWR | O_CREAT, 0600);
        mb.index_lock_count = 1;
        for (const char *more : {"", "local.store.indexsynclevel: 3\nlocal.store.synclevel: 3\n"}) {
            std::string conf = std::string(getenv("STORE_INSTANCEDIR")) + "/config/store.conf";
            write_file(conf, read_file(conf) + more);
            configmsg_reset();
            ASSERT_EQ(configmsg_init(nullptr, 16, "synctest"), 0);
            mailbox_loadconfig();
            int d = n_fdatasync, f = n_fsync, g = n_syncfs;
            ASSERT_EQ(mailbox_write_index_fixed_header(&mb), 0);
            ASSERT_EQ(sync_file_barrier(), 0);
            printf("SYNC %d %d %d\n", n_fdatasync - d, n_fsync - f, n_syncfs - g);
        }
        return;
    }
    std::string self = binary_dir() + "/bin/test_mailbox_files";
    const char *cases[][2] = {  // configuration; fdatasync, fsync, file system flush
        {"local.store.synclevel: 0\nlocal.store.indexsynclevel: 2\n", "1 0 0"},
        {"local.store.synclevel: 3\n", "0 1 0"},
        {"", "0 0 1"}};
    for (const auto &c : cases) {
        Instance inst(c[0]);
        std::string out, lines, want = std::string("SYNC ") + c[1] + "\n";
        std::string cmd = std::string("MAILBOX_SYNC_CHILD=1 ") + self + " --gtest_filter=MailboxSync.*";
        EXPECT_EQ(run_command(cmd, &out), 0) << out;
        for (const std::string &l : split_lines(out))
            if (l.rfind("SYNC ", 0) == 0) lines += l + "\n";
        EXPECT_EQ(lines, want + want) << c[0];
    }
}

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
        watched = name;
        sync_set_observer(note_barrier);
        int r = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                       QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr);
        sync_set_observer(nullptr);
        ASSERT_EQ(r, 0) << name;
    }
    EXPECT_TRUE(has_row("user/fred/new"));
    ASSERT_FALSE(barriers.empty());
    EXPECT_EQ(barriers.back(), "7856 -");
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
    struct { mboxdata mbd; index_header hdr; } h = {};
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

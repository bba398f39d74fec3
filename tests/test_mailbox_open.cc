// Opening folders and the index lock: the open from the folder database and
// from the disk, the open modes, the lock between real processes (waiting,
// a file replaced under a waiter, nesting, trying), ACL cleaning, and the
// sync levels of the configuration.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "store/mboxname.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/map.h"
#include "support/log.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

// The flushes of sync_file, counted: the level in force shows in which of
// them a write of "store.idx" calls.
static int n_fdatasync, n_fsync, n_range;
extern "C" int fdatasync(int fd) {
    n_fdatasync++;
    return (int)syscall(SYS_fdatasync, fd);
}
extern "C" int fsync(int fd) {
    n_fsync++;
    return (int)syscall(SYS_fsync, fd);
}
extern "C" int sync_file_range(int fd, off64_t offset, off64_t count, unsigned int flags) {
    n_range++;
    return (int)syscall(SYS_sync_file_range, fd, offset, count, flags);
}

namespace {

using testutil::read_byte;

ino_t inode_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

void signal_byte(int fd, char c) { ASSERT_EQ(write(fd, &c, 1), 1); }

// Whether a process other than this one can take the lock of the file now.
bool lockable_by_other(const std::string &idx) {
    return testutil::in_child([&] {
               int fd = open(idx.c_str(), O_RDWR);
               return fd >= 0 && lock_nonblocking(fd) == 0 ? 0 : 1;
           }) == 0;
}

void expect_zero(const mailbox &mb) {
    EXPECT_EQ(mb.index_fd, -1);
    EXPECT_EQ(mb.index_map, nullptr);
    EXPECT_EQ(mb.index_lock_count + mb.open_mode + mb.generation + mb.index_size, 0u);
    EXPECT_TRUE(!mb.name && !mb.partition && !mb.path && !mb.mpath && !mb.acl);
    EXPECT_EQ(mb.myrights, 0u);
    EXPECT_EQ(memcmp(&mb.mbd, &zeromailbox.mbd, sizeof mb.mbd + sizeof mb.hdr), 0);
    for (char *f : mb.flagname) EXPECT_EQ(f, nullptr);
}

// A folder at dir made through the index writers: an empty index as a
// create leaves it, then n messages, each with an 11-item cache entry.
void make_folder(const std::string &dir, const char *acl, unsigned n) {
    static const index_record slots[100] = {};
    ASSERT_EQ(mailbox_makedirs(dir.c_str()), 0);
    mailbox mb = zeromailbox;
    mb.name = xstrdup("folder");
    mb.path = xstrdup(dir.c_str());
    mb.acl = xstrdup(acl);
    mb.index_fd = open((dir + "/store.idx").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
    ASSERT_GE(mb.index_fd, 0);
    ASSERT_EQ(lock_blocking(mb.index_fd), 0);
    mb.index_lock_count = 1;
    mb.mbd.version = MAILBOX_VERSION;
    mb.mbd.uidvalidity = 4242;
    mb.hdr.start_offset = 256;
    mb.hdr.cache_offset = 256 + 7600;
    ASSERT_EQ(mailbox_write_index_fixed_header(&mb), 0);
    ASSERT_EQ(mailbox_write_index_variable_header(&mb), 0);
    ASSERT_EQ(mailbox_append_index(&mb, slots, 1, 100), 0);
    for (unsigned uid = 1; uid <= n; uid++) {
        off_t end = lseek(mb.index_fd, 0, SEEK_END);
        char entry[44] = {};  // 11 empty items
        ASSERT_EQ(write(mb.index_fd, entry, sizeof entry), (ssize_t)sizeof entry);
        index_record r = {};
        r.uid = uid;
        r.rec_cache_offset = (uint32_t)(end - mb.hdr.cache_offset);
        ASSERT_EQ(mailbox_append_index(&mb, &r, uid, 1), 0);
    }
    mb.mbd.exists = mb.mbd.last_uid = n;
    ASSERT_EQ(mailbox_write_index_fixed_header(&mb), 0);
    close(mb.index_fd);
    free(mb.name);
    free(mb.path);
    free(mb.acl);
}

// An instance with its log, and a folder directory outside any database.
class FolderFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(configmsg_init(nullptr, 16, "opentest"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "opentest"), 0);
        dir_ = inst_.path("partitions/primary/box");
        idx_ = dir_ + "/store.idx";
    }
    int openBox(mailbox *mb, unsigned mode = 0) {
        return mailbox_open_path("test/box", mode, "primary", dir_.c_str(), nullptr,
                                 "anyone\tlr\t", auth_dontCheckAcl, mb);
    }
    std::string newlog() {
        std::string all = testutil::read_file(inst_.path("log/store.log"));
        std::string r = all.size() > mark_ ? all.substr(mark_) : "";
        mark_ = all.size();
        return r;
    }
    testutil::Instance inst_;
    std::string dir_, idx_;
    size_t mark_ = 0;
};

}  // namespace

TEST_F(FolderFiles, SecondProcessWaitsThenSeesTheChanges) {
    make_folder(dir_, "", 1);
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    testutil::Pipe p;
    pid_t pid = testutil::spawn([&] {
        mailbox other;
        if (openBox(&other) || mailbox_lock_index(&other)) return 1;
        signal_byte(p.w, 'L');
        usleep(300 * 1000);
        other.mbd.last_uid = 77;
        other.flagname[3] = xstrdup("Urgent");
        if (mailbox_write_index_variable_header(&other) ||
            mailbox_write_index_fixed_header(&other))
            return 2;
        signal_byte(p.w, 'W');
        mailbox_close(&other);  // drops the lock
        return 0;
    });
    ASSERT_EQ(read_byte(p.r, 5000), 'L');
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    EXPECT_EQ(read_byte(p.r, 0), 'W');  // the lock came only after the holder's writes
    EXPECT_EQ(mb.index_lock_count, 1u);
    EXPECT_EQ(mb.mbd.last_uid, 77u);
    EXPECT_STREQ(mb.flagname[3], "Urgent");
    EXPECT_EQ(testutil::wait_child(pid), 0);
    EXPECT_FALSE(lockable_by_other(idx_));
    mailbox_unlock_index(&mb);
    EXPECT_TRUE(lockable_by_other(idx_));
    mailbox_close(&mb);
}

TEST_F(FolderFiles, LockFollowsAReplacedIndex) {
    make_folder(dir_, "", 2);
    // Replaced while the handle was idle, both with waiting and trying.
    for (unsigned mode : {0u, (unsigned)OPEN_NOWAIT}) {
        mailbox mb;
        ASSERT_EQ(openBox(&mb, mode), 0);
        std::string bytes = testutil::read_file(idx_);
        uint32_t last_uid = 500 + mode;
        memcpy(&bytes[offsetof(mboxdata, last_uid)], &last_uid, 4);
        testutil::write_file(dir_ + "/index.new", bytes);
        ASSERT_EQ(rename((dir_ + "/index.new").c_str(), idx_.c_str()), 0);
        ASSERT_EQ(mailbox_lock_index(&mb), 0);
        EXPECT_EQ(mb.index_lock_count, 1u);
        EXPECT_EQ(mb.mbd.last_uid, last_uid);
        EXPECT_EQ(mb.index_ino, inode_of(idx_));
        struct stat st;
        ASSERT_EQ(fstat(mb.index_fd, &st), 0);
        EXPECT_EQ(st.st_ino, inode_of(idx_));
        mailbox_close(&mb);
    }

    // Replaced by the holder while this process waits on the old file: the
    // holder rewrites the index for a long ACL and keeps the new file locked
    // for a while.
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    ino_t old_ino = mb.index_ino;
    std::string longacl;
    for (int i = 0; i < 40; i++) longacl += "user" + std::to_string(i) + "\tlrs\t";
    testutil::Pipe p;
    pid_t pid = testutil::spawn([&] {
        mailbox other;
        if (openBox(&other) || mailbox_lock_index(&other)) return 1;
        signal_byte(p.w, 'L');
        usleep(300 * 1000);
        free(other.acl);
        other.acl = xstrdup(longacl.c_str());
        if (mailbox_write_index_variable_header(&other) || other.generation != 1) return 2;
        signal_byte(p.w, 'R');
        usleep(300 * 1000);
        signal_byte(p.w, 'W');
        mailbox_close(&other);
        return 0;
    });
    ASSERT_EQ(read_byte(p.r, 5000), 'L');
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    // Through both holds: the old file's, then the new one's.
    EXPECT_EQ(read_byte(p.r, 0), 'R');
    EXPECT_EQ(read_byte(p.r, 0), 'W');
    EXPECT_EQ(testutil::wait_child(pid), 0);
    EXPECT_EQ(mb.index_lock_count, 1u);
    EXPECT_NE(mb.index_ino, old_ino);
    EXPECT_EQ(mb.index_ino, inode_of(idx_));
    EXPECT_STREQ(mb.acl, longacl.c_str());
    EXPECT_GT(mb.hdr.start_offset, 256u);
    EXPECT_EQ(mb.mbd.exists, 2u);
    index_record r;
    ASSERT_EQ(mailbox_read_index_record(&mb, 2, &r), 0);
    EXPECT_EQ(r.uid, 2u);
    EXPECT_FALSE(lockable_by_other(idx_));  // held on the new file
    mailbox_unlock_index(&mb);
    EXPECT_TRUE(lockable_by_other(idx_));
    mailbox_close(&mb);
}

TEST_F(FolderFiles, NestingTryingAndClosing) {
    make_folder(dir_, "", 0);
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    mb.mbd.last_uid = 999;  // not written: an inner lock must not read the file
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    EXPECT_EQ(mb.index_lock_count, 2u);
    EXPECT_EQ(mb.mbd.last_uid, 999u);
    mailbox_unlock_index(&mb);
    EXPECT_EQ(mb.index_lock_count, 1u);
    EXPECT_FALSE(lockable_by_other(idx_));
    mailbox_unlock_index(&mb);
    EXPECT_TRUE(lockable_by_other(idx_));

    // Another process holds the lock: a try fails at once, silently.
    testutil::Pipe held, go;
    pid_t pid = testutil::spawn([&] {
        mailbox other;
        if (openBox(&other) || mailbox_lock_index(&other)) return 1;
        signal_byte(held.w, 'L');
        read_byte(go.r, 10000);
        mailbox_close(&other);
        return 0;
    });
    ASSERT_EQ(read_byte(held.r, 5000), 'L');
    mailbox nw;
    ASSERT_EQ(openBox(&nw, OPEN_NOWAIT), 0);
    newlog();
    EXPECT_EQ(mailbox_lock_index(&nw), IMAP_MAILBOX_LOCKED);
    EXPECT_EQ(nw.index_lock_count, 0u);
    EXPECT_EQ(newlog(), "");
    signal_byte(go.w, 'G');
    EXPECT_EQ(testutil::wait_child(pid), 0);
    EXPECT_EQ(mailbox_lock_index(&nw), 0);
    EXPECT_EQ(nw.index_lock_count, 1u);

    // Closing a locked handle releases the lock and leaves a zero handle.
    EXPECT_FALSE(lockable_by_other(idx_));
    mailbox_close(&nw);
    expect_zero(nw);
    EXPECT_TRUE(lockable_by_other(idx_));
    mailbox_close(&mb);
}

TEST_F(FolderFiles, OpenModesAndRepair) {
    make_folder(dir_, "", 3);
    off_t size = (off_t)testutil::read_file(idx_).size();
    for (unsigned mode : {0u, (unsigned)OPEN_PARTIAL, (unsigned)OPEN_APPEND}) {
        mailbox mb;
        ASSERT_EQ(openBox(&mb, mode), 0) << mode;
        EXPECT_EQ(mb.mbd.exists, 3u);
        EXPECT_EQ(mb.mpath, mb.path);
        EXPECT_EQ(mb.myrights, (unsigned long)ACL_ALL);
        EXPECT_EQ(mb.index_map->len, mode ? 256u + 3 * 76 : (size_t)size) << mode;
        ASSERT_EQ(mailbox_lock_index(&mb), 0);
        EXPECT_EQ(mb.index_map->len, mode ? 256u + 3 * 76 : (size_t)size) << mode;
        index_record r;
        EXPECT_EQ(mailbox_read_index_record(&mb, 3, &r), 0);
        EXPECT_EQ(r.uid, 3u);
        mailbox_close(&mb);
    }

    // A separate message directory is a string of its own; "" means none.
    mailbox mm;
    ASSERT_EQ(mailbox_open_path("test/box", 0, "primary", dir_.c_str(), "/msgs/box", "",
                                auth_dontCheckAcl, &mm),
              0);
    EXPECT_STREQ(mm.mpath, "/msgs/box");
    EXPECT_NE(mm.mpath, mm.path);
    mailbox_close(&mm);
    ASSERT_EQ(mailbox_open_path("test/box", 0, nullptr, dir_.c_str(), "", nullptr,
                                auth_dontCheckAcl, &mm),
              0);
    EXPECT_EQ(mm.mpath, mm.path);
    EXPECT_STREQ(mm.acl, "");
    mailbox_close(&mm);

    // A version that no reader knows.
    std::string good = testutil::read_file(idx_);
    std::string bad = good;
    bad[0] = 9;
    testutil::write_file(idx_, bad);
    mailbox mb;
    newlog();
    EXPECT_EQ(openBox(&mb), IMAP_MAILBOX_BADFORMAT);
    expect_zero(mb);
    std::string log = newlog();
    EXPECT_NE(log.find("Mailbox corrupted, Version not recognized: test/box"), std::string::npos);
    EXPECT_NE(log.find("Unable to read index file for test/box: Mailbox has an invalid format"),
              std::string::npos)
        << log;
    EXPECT_EQ(openBox(&mb, OPEN_SILENT), IMAP_MAILBOX_BADFORMAT);
    EXPECT_EQ(newlog().find("Unable to read index file"), std::string::npos);
    ASSERT_EQ(openBox(&mb, OPEN_REPAIR), 0);
    EXPECT_EQ(mb.index_fd, -1);
    EXPECT_STREQ(mb.name, "test/box");
    EXPECT_EQ(mailbox_lock_index(&mb), IMAP_IOERROR);  // nothing to lock
    EXPECT_EQ(mb.index_lock_count, 0u);
    mailbox_close(&mb);
    EXPECT_EQ(testutil::read_file(idx_), bad);

    // No index at all.
    unlink(idx_.c_str());
    newlog();
    EXPECT_EQ(openBox(&mb), IMAP_IOERROR);
    EXPECT_NE(newlog().find("open failed for index file " + idx_ + " : No such file"),
              std::string::npos);
    ASSERT_EQ(openBox(&mb, OPEN_REPAIR), 0);
    EXPECT_EQ(mb.index_fd, -1);
    mailbox_close(&mb);
    EXPECT_NE(access(idx_.c_str(), F_OK), 0);  // a repair open creates nothing
}

TEST_F(FolderFiles, OldLayoutIsConvertedAtOpen) {
    // The conversion writes the folder's row: this process brings the folder
    // database up as the daemon does.
    ASSERT_EQ(mboxlist_recover(), 0);
    struct StoreDown {
        ~StoreDown() { mboxlist_reset_for_tests(); }
    } storeDown;
    ASSERT_EQ(mailbox_makedirs(dir_.c_str()), 0);
    mboxdata mbd = {};
    mbd.version = MAILBOX_VERSION_OLD;
    mbd.uidvalidity = 9;
    index_header hdr = {};
    hdr.cache_offset = 31;  // the generation of the pair
    hdr.start_offset = 256;
    std::string idx((const char *)&mbd, sizeof mbd);
    idx.append((const char *)&hdr, sizeof hdr);
    idx += std::string("\nfred\tlrs\t", 11);
    idx.resize(256, '\0');
    testutil::write_file(idx_, idx);
    testutil::write_file(dir_ + "/store.cch", std::string("\x1f\0\0\0", 4));

    mailbox mb;
    ASSERT_EQ(openBox(&mb, OPEN_REPAIR), 0);  // a repair looks, converts nothing
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION_OLD);
    mailbox_close(&mb);
    ASSERT_EQ(openBox(&mb), 0);
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(mb.hdr.cache_offset, 256u + 7600);
    EXPECT_EQ(mb.index_lock_count, 0u);
    EXPECT_EQ(mb.index_ino, inode_of(idx_));
    EXPECT_NE(access((dir_ + "/store.cch").c_str(), F_OK), 0);
    mailbox_close(&mb);
    struct mboxdata row;
    ASSERT_EQ(mboxlist_lookup("test/box", &row, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(row.version, (uint32_t)MAILBOX_VERSION);
}

TEST_F(FolderFiles, CleanAclForcesTheOwnersRights) {
    const char *in = "bob\tlr\tjoe\tlrs\tmax\tlr";  // the last entry has no closing TAB
    std::string copy = in;
    char *acl = cleanacl(in, "user/fred/x");
    EXPECT_STREQ(acl, "fred\tlrswipcda\tbob\tlr\tjoe\tlrs\t");
    EXPECT_EQ(copy, in);
    free(acl);
    // The owner's own entry may lower its rights, but not below lookup,
    // create and administer; fred2 is somebody else.
    acl = cleanacl("fred\tr\tfred2\tr\t", "user/fred");
    EXPECT_STREQ(acl, "fred\tlrca\tfred2\tr\t");
    free(acl);
    acl = cleanacl("fred\t\tanyone\tl\t", "public/news");  // no owner
    EXPECT_STREQ(acl, "anyone\tl\t");
    free(acl);
    acl = cleanacl(nullptr, "public/news");
    EXPECT_STREQ(acl, "");
    free(acl);
}

namespace {

// A store whose folder database this process brings up as the daemon would.
class FolderDb : public FolderFiles {
  protected:
    void SetUp() override {
        FolderFiles::SetUp();
        ASSERT_EQ(mboxlist_recover(), 0);
        fred_ = auth_newstate("fred", nullptr, 0);
        bob_ = auth_newstate("bob", nullptr, 0);
    }
    void TearDown() override {
        auth_freestate(fred_);
        auth_freestate(bob_);
        mboxlist_reset_for_tests();
    }
    void putRow(const char *name, uint32_t version, uint32_t exists, const char *acl) {
        mboxdata mbd = {};
        mbd.version = version;
        mbd.exists = exists;
        mbd.uidvalidity = 77;
        DBT key, data;
        mboxlist_create_struct(&key, &data, nullptr, name, &mbd, "primary", acl, nullptr);
        int r;
        do {
            DB_TXN *txn;
            ASSERT_EQ(mboxlist_trans_setup(&txn, "test", name), 0);
            r = mboxlist_trans_finish(txn, mbl->put(mbl, txn, &key, &data, 0));
        } while (r == DB_LOCK_DEADLOCK);
        free(data.data);
        ASSERT_EQ(r, 0);
    }
    std::string pathOf(const char *name) {
        char path[MAX_MAILBOX_PATH], mpath[MAX_MAILBOX_PATH];
        EXPECT_EQ(mboxlist_getpath(name, "primary", path, mpath), 0);
        return path;
    }
    auth_state *fred_ = nullptr, *bob_ = nullptr;
};

}  // namespace

TEST_F(FolderDb, MissingFoldersAreNonexistent) {
    mailbox mb;
    EXPECT_EQ(mailbox_open("user/nobody/x", 0, fred_, &mb), IMAP_MAILBOX_NONEXISTENT);
    expect_zero(mb);
    EXPECT_EQ(mailbox_open("public/x", 0, fred_, &mb), IMAP_MAILBOX_NONEXISTENT);
    expect_zero(mb);
    // The owner's inbox is known, the folder is on no disk either.
    putRow("user/fred", MAILBOX_VERSION_DBONLY, 0, "fred\tlrswipcda\t");
    EXPECT_EQ(mailbox_open("user/fred/gone", 0, fred_, &mb), IMAP_MAILBOX_NONEXISTENT);
    expect_zero(mb);
}

TEST_F(FolderDb, RowWithoutFilesOpensAsANewFolder) {
    std::string longacl = "fred\tlrswipcda\t";
    for (int i = 0; i < 30; i++) longacl += "reader" + std::to_string(i) + "\tlr\t";
    putRow("user/fred", MAILBOX_VERSION_DBONLY, 0, longacl.c_str());
    uint32_t t0 = (uint32_t)time(nullptr);
    mailbox mb;
    ASSERT_EQ(mailbox_open("user/fred", OPEN_APPEND, bob_, &mb), 0);
    uint32_t t1 = (uint32_t)time(nullptr);
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_GE(mb.mbd.uidvalidity, t0);
    EXPECT_LE(mb.mbd.uidvalidity, t1);
    EXPECT_EQ(mb.index_lock_count, 0u);
    EXPECT_EQ(mb.open_mode, (unsigned)OPEN_APPEND);
    EXPECT_EQ(mb.myrights, 0u);  // bob has no entry
    // The ACL needed more than the 176 bytes of a new variable header.
    EXPECT_GT(mb.hdr.start_offset, 256u);
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 7600);
    std::string idx = pathOf("user/fred") + "/store.idx";
    EXPECT_EQ(testutil::read_file(idx).size(), mb.hdr.cache_offset);
    EXPECT_TRUE(lockable_by_other(idx));
    uint32_t uidvalidity = mb.mbd.uidvalidity;
    mailbox_close(&mb);

    mboxdata row;
    char *acl = nullptr;
    ASSERT_EQ(mboxlist_lookup("user/fred", &row, nullptr, nullptr, nullptr, &acl), 0);
    EXPECT_EQ(row.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(row.uidvalidity, uidvalidity);
    EXPECT_EQ(testutil::take(acl), longacl);

    // The next open finds the file and makes nothing new.
    ASSERT_EQ(mailbox_open("user/fred", 0, fred_, &mb), 0);
    EXPECT_EQ(mb.mbd.uidvalidity, uidvalidity);
    EXPECT_EQ(mb.myrights, (unsigned long)ACL_ALL);
    EXPECT_STREQ(mb.acl, longacl.c_str());
    mailbox_close(&mb);

    // A folder whose files were lost starts again, empty.
    putRow("user/fred/lost", MAILBOX_VERSION, 5, "fred\tlrswipcda\t");
    ASSERT_EQ(mailbox_open("user/fred/lost", 0, fred_, &mb), 0);
    EXPECT_EQ(mb.mbd.exists, 0u);
    mailbox_close(&mb);
    ASSERT_EQ(mboxlist_lookup("user/fred/lost", &row, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(row.exists, 0u);
}

TEST_F(FolderDb, FolderOnDiskOnlyIsTakenUpAgain) {
    putRow("user/fred", MAILBOX_VERSION, 0, "fred\tlrswipcda\t");
    make_folder(pathOf("user/fred/found"), "bob\tlr\t", 2);
    mailbox mb;
    ASSERT_EQ(mailbox_open("user/fred/found", OPEN_NOWAIT, fred_, &mb), 0);
    EXPECT_STREQ(mb.acl, "fred\tlrswipcda\tbob\tlr\t");
    EXPECT_EQ(mb.myrights, (unsigned long)ACL_ALL);
    EXPECT_EQ(mb.open_mode, (unsigned)OPEN_NOWAIT);
    EXPECT_STREQ(mb.partition, "primary");
    EXPECT_EQ(mb.mbd.exists, 2u);
    mailbox_close(&mb);
    mboxdata row;
    char *acl = nullptr;
    ASSERT_EQ(mboxlist_lookup("user/fred/found", &row, nullptr, nullptr, nullptr, &acl), 0);
    EXPECT_EQ(row.exists, 2u);
    EXPECT_EQ(testutil::take(acl), "fred\tlrswipcda\tbob\tlr\t");
}

TEST_F(FolderDb, LazyOpenBadIndexAndAclFromTheRow) {
    putRow("user/fred", MAILBOX_VERSION, 0, "bob\tlr\t");
    mailbox mb;
    ASSERT_EQ(mailbox_open("user/fred", OPEN_LAZY, bob_, &mb), 0);
    EXPECT_EQ(mb.index_fd, -1);
    EXPECT_EQ(mb.mbd.uidvalidity, 77u);  // the row's copy
    EXPECT_EQ(mb.myrights, (unsigned long)(ACL_LOOKUP | ACL_READ));
    EXPECT_NE(access(pathOf("user/fred").c_str(), F_OK), 0);  // no file was made
    putRow("user/fred", MAILBOX_VERSION, 0, "bob\tlrsw\t");
    ASSERT_EQ(mailbox_read_acl(&mb, bob_), 0);
    EXPECT_STREQ(mb.acl, "bob\tlrsw\t");
    EXPECT_EQ(mb.myrights, (unsigned long)(ACL_LOOKUP | ACL_READ | ACL_SEEN | ACL_WRITE));
    mailbox_close(&mb);
    ASSERT_EQ(mailbox_open("user/fred", OPEN_REPAIR, bob_, &mb), 0);  // creates nothing
    EXPECT_EQ(mb.index_fd, -1);
    mailbox_close(&mb);
    EXPECT_NE(access(pathOf("user/fred").c_str(), F_OK), 0);

    // A folder with messages in the row opens its file even when lazy.
    std::string dir = pathOf("user/fred");
    make_folder(dir, "", 1);
    putRow("user/fred", MAILBOX_VERSION, 1, "bob\tlr\t");
    ASSERT_EQ(mailbox_open("user/fred", OPEN_LAZY, bob_, &mb), 0);
    EXPECT_NE(mb.index_fd, -1);
    EXPECT_EQ(mb.mbd.uidvalidity, 4242u);
    mailbox_close(&mb);

    // An index that exists and can't be read is an error and stays.
    std::string bad = testutil::read_file(dir + "/store.idx");
    bad[0] = 9;
    testutil::write_file(dir + "/store.idx", bad);
    EXPECT_EQ(mailbox_open("user/fred", 0, bob_, &mb), IMAP_MAILBOX_BADFORMAT);
    expect_zero(mb);
    EXPECT_EQ(testutil::read_file(dir + "/store.idx"), bad);
}

// The sync levels are read from the configuration at the first open of a
// process, so each case runs in a fresh process: this test again, run by
// itself with MAILBOX_SYNC_CHILD set, prints the flushes of one write of
// the index header.
TEST(MailboxSync, GeneralAndSpecificKeys) {
    if (getenv("MAILBOX_SYNC_CHILD")) {
        ASSERT_EQ(configmsg_init(nullptr, 16, "synctest"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "synctest"), 0);
        ASSERT_EQ(mboxlist_recover(), 0);
        mboxdata mbd = {};
        mbd.version = MAILBOX_VERSION_DBONLY;
        DBT key, data;
        mboxlist_create_struct(&key, &data, nullptr, "user/fred", &mbd, "primary", "", nullptr);
        DB_TXN *txn;
        ASSERT_EQ(mboxlist_trans_setup(&txn, "test", "user/fred"), 0);
        ASSERT_EQ(mboxlist_trans_finish(txn, mbl->put(mbl, txn, &key, &data, 0)), 0);
        free(data.data);
        for (int round = 0; round < 2; round++) {
            if (round == 1) {
                // Configuration read again later changes nothing.
                configmsg_reset();
                std::string conf = std::string(getenv("STORE_INSTANCEDIR")) + "/config/store.conf";
                testutil::write_file(conf, testutil::read_file(conf) +
                                               "\nlocal.store.indexsynclevel: 3\n"
                                               "local.store.synclevel: 3\n");
                ASSERT_EQ(configmsg_init(nullptr, 16, "synctest"), 0);
            }
            mailbox mb;
            ASSERT_EQ(mailbox_open("user/fred", 0, auth_dontCheckAcl, &mb), 0);
            int d = n_fdatasync, f = n_fsync, g = n_range;
            ASSERT_EQ(mailbox_lock_index(&mb), 0);
            ASSERT_EQ(mailbox_write_index_fixed_header(&mb), 0);
            mailbox_unlock_index(&mb);
            printf("SYNC %d %d %d\n", n_fdatasync - d, n_fsync - f, n_range - g);
            mailbox_close(&mb);
        }
        mboxlist_reset_for_tests();
        return;
    }
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    ASSERT_GT(n, 0);
    self[n] = '\0';
    struct Case {
        const char *config;
        const char *want;  // fdatasync, fsync, writeback start, twice
    } cases[] = {
        {"local.store.synclevel: 0\nlocal.store.indexsynclevel: 2\n", "SYNC 1 0 0\nSYNC 1 0 0\n"},
        {"local.store.synclevel: 3\n", "SYNC 0 1 0\nSYNC 0 1 0\n"},
        {"local.store.indexsynclevel: 2\n", "SYNC 1 0 0\nSYNC 1 0 0\n"},
        {"", "SYNC 0 0 1\nSYNC 0 0 1\n"},
    };
    for (const Case &c : cases) {
        testutil::Instance inst(c.config);
        std::string out, err;
        int status = testutil::run_command(
            std::string("MAILBOX_SYNC_CHILD=1 ") + self +
                " --gtest_filter=MailboxSync.GeneralAndSpecificKeys",
            &out, &err);
        EXPECT_EQ(status, 0) << out << err;
        std::string lines;
        for (const std::string &l : testutil::split_lines(out))
            if (l.rfind("SYNC ", 0) == 0) lines += l + "\n";
        EXPECT_EQ(lines, c.want) << c.config;
    }
}

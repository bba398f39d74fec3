// The files of a folder: create (also against a second creator, and flushed
// before the row that counts it), open from the folder database and from the
// disk, the open modes, the index lock between real processes, delete, ACL
// cleaning, and the sync levels of the configuration; the index file written
// and read back, damage refused, the one repair, the conversion of the old
// two-file layout, the growth of the variable header with the flush before
// each rename, message files and header values.
#include <limits.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include "store/mailbox_create.h"
#include "store/mboxlist_create.h"
#include "store/message.h"
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

// The uidvalidity in the index of the folder at dir (0 if unreadable).
uint32_t uidvalidity_of(const std::string &dir) {
    mboxdata mbd = {};
    return index_entries(dir, &mbd), mbd.uidvalidity;
}

using Events = std::vector<std::string>;

// The flushes and renames of the careful writes, in order: "rename FILE",
// and "barrier SIZE" with the size that "index.new" had when the barrier
// had flushed (-1: no such file). While a folder is watched, barriers gets
// at each barrier the size of its "store.idx" and the version in its row
// ("-" for none), as a write of the row would find them.
Events events, barriers;
std::string index_new;
const char *watched;
void note_event(sync_event e, const char *path) {
    events.push_back(e == SYNC_EVENT_RENAME ? "rename " + std::string(strrchr(path, '/') + 1)
                                            : "barrier " + std::to_string(file_size(index_new)));
    mboxdata row = {};
    if (e == SYNC_EVENT_BARRIER && watched)
        barriers.push_back(std::to_string(file_size(folder_dir(watched) + "/store.idx")) + " " +
                           (mboxlist_lookup(watched, &row, 0, 0, 0, 0) ? "-" : std::to_string(row.version)));
}
// The whole new file of size flushed, then renamed into place: the last
// events of a replacement of "store.idx".
void expect_flushed_then_renamed(off_t size) {
    Events want = {"barrier " + std::to_string(size), "rename store.idx"};
    EXPECT_EQ(Events(events.end() - std::min<size_t>(2, events.size()), events.end()), want);
}

// A store brought up in this process, the careful writes observed.
// Partition "spool" keeps its messages apart from its folder directories;
// folder "test/box" lives at dir_ without a row (a conversion of the old
// layout writes one).
class MailboxFiles : public StoreTest {
  protected:
    void SetUp() override {
        inst.addConfig("store.partition.spool.path: " + inst.path("partitions/spool") +
                       "\nstore.partition.spool.messagepath: " + inst.path("messages/spool"));
        StoreTest::SetUp();
        inst.newLog();
        ASSERT_EQ(mailbox_makedirs(dir_.c_str()), 0);
        index_new = dir_ + "/index.new";
        events.clear(), barriers.clear(), watched = nullptr;
        sync_set_observer(note_event);
    }
    void TearDown() override { sync_set_observer(nullptr), StoreTest::TearDown(); }
    ~MailboxFiles() override { auth_freestate(fred_), auth_freestate(bob_); }
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
        return mailbox_create(name, partition, folder_dir(name, partition).c_str(),
                              m.empty() ? nullptr : m.c_str(), acl, MAILBOX_VERSION, mb, uidvalidity);
    }
    int openFolder(const char *name, mailbox *mb, const char *partition = "primary") {
        return mailbox_open_path(name, 0, partition, folder_dir(name, partition).c_str(),
                                 mdir(name, partition).c_str(), "", auth_dontCheckAcl, mb);
    }
    const std::string dir_ = inst.path("partitions/primary/fred/box"), idx_ = dir_ + "/store.idx";
    auth_state *fred_ = auth_newstate("fred", nullptr, 0), *bob_ = auth_newstate("bob", nullptr, 0);
};
// The same store: opening folders and their index lock; the index file alone.
using FolderOpen = MailboxFiles;
using MailboxIndex = MailboxFiles;

template <typename T> std::string bytes_of(const T &v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

// The 11 cache items of a message: different lengths, empty ones, ones
// that need padding.
std::vector<std::string> sample_items(unsigned uid) {
    std::string u = std::to_string(uid);
    return {"(\"s" + u + "\")", "(\"TEXT\")", "", std::string("\0\0\0\1\0", 5), "Subject: " + u,
            "fred", "bob" + u, "", "x", "\"s" + u + "\"", "text"};
}
index_record make_record(uint32_t uid, uint32_t rec_cache_offset) {
    index_record r = {};
    r.uid = r.orig_uid = uid, r.internaldate = (int32_t)(1000000 + uid), r.size = r.header_size = 500 + uid;
    r.rec_cache_offset = rec_cache_offset;
    r.system_flags = (uid & 1) ? FLAG_ANSWERED : FLAG_FLAGGED | 0x05000000u;
    r.user_flags[2] = 0x80000000u | uid, r.orig_uidvalidity = 1234;
    return r;
}

// A version 258 "store.idx" put together byte by byte.
struct IndexFile {
    mboxdata mbd = {};
    uint32_t start_offset = 256;
    std::string varhdr = std::string("\nfred\tlrswipcda\t\0", 17);
    std::vector<index_record> records;
    unsigned reserve = 100;  // free record slots behind the records
    std::string cache;
    explicit IndexFile(unsigned messages = 0) {
        mbd.version = MAILBOX_VERSION, mbd.uidvalidity = 1234;
        for (uint32_t uid = 1; uid <= messages; uid++) {
            records.push_back(make_record(uid, (uint32_t)cache.size()));
            cache += cache_entry(sample_items(uid));
            mbd.last_uid = uid;
        }
    }
    uint32_t cache_offset() const {
        return start_offset + (uint32_t)(records.size() + reserve) * INDEX_RECORD_SIZE;
    }
    std::string build() const {
        mboxdata m = mbd;
        m.exists = (uint32_t)records.size();
        index_header hdr = {};
        hdr.start_offset = start_offset, hdr.cache_offset = cache_offset();
        std::string s = bytes_of(m) + bytes_of(hdr) + varhdr;
        s.resize(start_offset, '\0');
        for (const index_record &r : records) s += bytes_of(r);
        return s + std::string((size_t)reserve * INDEX_RECORD_SIZE, '\0') + cache;
    }
};

// A version 257 folder: "store.idx" with 68-byte records whose word at
// offset 60 is a generation number, and "store.cch" that starts with it;
// records as they must read after conversion.
struct OldFolder {
    std::string idx, cch;
    std::vector<index_record> records;
    OldFolder(uint32_t generation, unsigned count) {
        mboxdata mbd = {};
        mbd.version = MAILBOX_VERSION_OLD, mbd.exists = count, mbd.uidvalidity = 777;
        mbd.last_uid = 10 * count;
        index_header hdr = {};
        hdr.cache_offset = generation, hdr.start_offset = 256;
        idx = bytes_of(mbd) + bytes_of(hdr) + std::string("old1\0\0old3\0\nfred\tlrs\t\0", 22);
        idx.resize(256, '\0');
        cch = bytes_of(generation);
        for (unsigned uid = 10; uid <= 10 * count; uid += 10) {
            index_record r = make_record(uid, (uint32_t)cch.size());
            idx += bytes_of(r).substr(0, INDEX_RECORD_SIZE_OLD);
            cch += cache_entry(sample_items(uid));
            r.rec_cache_offset -= 4;
            r.orig_uidvalidity = 777;
            records.push_back(r);
        }
    }
};

// A handle over "<dir>/store.idx" filled the way the open code fills it.
struct Handle {
    mailbox mb;
    Handle(const std::string &dir, unsigned mode = 0) {
        mb = zeromailbox;
        mb.path = mb.mpath = xstrdup(dir.c_str()), mb.name = xstrdup("user/fred/box"), mb.open_mode = mode;
        mb.index_fd = open((dir + "/store.idx").c_str(), O_RDWR);
    }
    ~Handle() { mb.mpath = nullptr; mailbox_close(&mb); }
    int read() { return mailbox_read_index_fixed_header(&mb); }
};

// Every record of h equals want, and every cache item reads back.
void expect_messages(Handle &h, const std::vector<index_record> &want, bool check_cache = true) {
    ASSERT_EQ(h.mb.mbd.exists, want.size());
    for (unsigned n = 1; n <= want.size(); n++) {
        index_record r;
        ASSERT_EQ(mailbox_read_index_record(&h.mb, n, &r), 0) << "record " << n;
        EXPECT_EQ(memcmp(&r, &want[n - 1], sizeof r), 0) << "record " << n;
        std::vector<std::string> items = sample_items(r.uid);
        for (int i = 0; check_cache && i < MAILBOX_CACHE_ITEMS; i++) {
            const char *p = mailbox_cache_item(h.mb.index_map, h.mb.name, n, i);
            ASSERT_NE(p, nullptr) << "message " << n << " item " << i;
            EXPECT_EQ(std::string(p + 4, be32_at(std::string(p, 4), 0)), items[i]);
        }
    }
}

}  // namespace

TEST_F(FolderOpen, LockWaitsForTheHolderNestsAndIsTried) {
    make_folder("test/box", dir_, "", 4242, 1);
    mailbox mb;
    ASSERT_EQ(openBox(&mb), 0);
    Pipe p;
    pid_t pid = holder(p, [&](mailbox &other) {
        usleep(300 * 1000);
        other.mbd.last_uid = 77, other.flagname[3] = xstrdup("Urgent");
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
    // An empty folder of the old two-file layout: a repair open looks at
    // it, a plain open converts it.
    OldFolder old(31, 0);
    write_file(idx_, old.idx);
    write_file(dir_ + "/store.cch", old.cch);
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

// Files without a row are taken up again; a row without files opens as a
// new folder, and a create makes one: either way the whole file is on disk
// before the row counts it.
TEST_F(FolderOpen, FilesOrRowAloneBecomeAWholeFolder) {
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
    EXPECT_EQ(row_acl("user/fred/found", nullptr, &row), acl);
    EXPECT_EQ(row.exists, 2u);
    // A row alone, with an ACL too long for a new variable header.
    std::string longacl = "fred\tlrswipcda\t";
    for (int i = 0; i < 30; i++) longacl += "reader" + std::to_string(i) + "\tlr\t";
    put_row("user/joe", MAILBOX_VERSION_DBONLY, 0, longacl.c_str());
    uint32_t t0 = (uint32_t)time(nullptr);
    // A repair open looks and makes nothing.
    ASSERT_EQ(mailbox_open("user/joe", OPEN_REPAIR, bob_, &mb), 0);
    EXPECT_EQ(mb.index_fd, -1);
    mailbox_close(&mb);
    EXPECT_FALSE(file_exists(folder_dir("user/joe")));
    watched = "user/joe";
    ASSERT_EQ(mailbox_open("user/joe", OPEN_APPEND, bob_, &mb), 0);
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_TRUE(mb.mbd.uidvalidity >= t0 && mb.mbd.uidvalidity <= (uint32_t)time(nullptr));
    EXPECT_TRUE(mb.index_lock_count == 0 && mb.open_mode == (unsigned)OPEN_APPEND);
    EXPECT_EQ(mb.myrights, 0u);  // bob has no entry
    EXPECT_GT(mb.hdr.start_offset, 256u);  // the header grew for the ACL
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 7600);
    std::string idx = folder_dir("user/joe") + "/store.idx";
    EXPECT_EQ(file_size(idx), (off_t)mb.hdr.cache_offset);
    // The whole file was flushed while the row still said it had none.
    ASSERT_FALSE(barriers.empty());
    EXPECT_EQ(barriers.back(), std::to_string(mb.hdr.cache_offset) + " " + std::to_string(MAILBOX_VERSION_DBONLY));
    EXPECT_TRUE(lockable_by_other(idx));
    uint32_t uidvalidity = mb.mbd.uidvalidity;
    mailbox_close(&mb);
    EXPECT_EQ(row_acl("user/joe", nullptr, &row), longacl);
    EXPECT_TRUE(row.version == MAILBOX_VERSION && row.uidvalidity == uidvalidity);
    // The next open finds the file and makes nothing new.
    ASSERT_EQ(mailbox_open("user/joe", 0, fred_, &mb), 0);
    EXPECT_TRUE(mb.mbd.uidvalidity == uidvalidity && mb.myrights == (unsigned long)ACL_ALL);
    mailbox_close(&mb);
    // A create through the folder database.
    watched = "user/fred/new";
    ASSERT_EQ(mboxlist_createmailbox("user/fred/new", MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                     QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
    EXPECT_EQ(barriers.back(), std::to_string(file_size(folder_dir("user/fred/new") + "/store.idx")) + " -");
}

// The sync levels are read once per process: each case runs this test again
// with MAILBOX_SYNC_CHILD set, printing the flushes of one index header write
// and the barrier behind it twice (the second after a configuration that
// says otherwise changed nothing).
TEST(MailboxSync, GeneralAndSpecificKeys) {
    if (getenv("MAILBOX_SYNC_CHILD")) {
        TempDir tmp;
        mailbox mb = zeromailbox;
        mb.index_fd = open(tmp.file("store.idx").c_str(), O_RDWR | O_CREAT, 0600), mb.index_lock_count = 1;
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

TEST_F(MailboxFiles, CreateOverExistingFiles) {
    // The path and 16 bytes more may reach 1024: 1008 bytes is the longest.
    std::string ok = inst.path("partitions/primary");
    while (ok.size() < 900) ok += "/" + std::string(100, 'x');
    ok += "/" + std::string(1007 - ok.size(), 'y');
    for (const std::string &p : {ok + "z", ok})
        EXPECT_EQ(mailbox_create("user/x", "primary", p.c_str(), nullptr, "", MAILBOX_VERSION, nullptr, 1),
                  p == ok ? 0 : IMAP_MAILBOX_BADNAME);
    EXPECT_FALSE(file_exists(ok + "z"));
    const char *name = "user/fred/box";
    std::string d = folder_dir(name), idx = d + "/store.idx";
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
    std::string other = folder_dir("user/fred/other") + "/store.idx";
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
    std::string d = folder_dir(name), idx = d + "/store.idx";
    ASSERT_EQ(mailbox_makedirs(d.c_str()), 0);
    int fd = open(idx.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_EQ(lock_blocking(fd), 0);
    const std::string whole = IndexFile().build();
    ASSERT_EQ(write(fd, whole.data(), INDEX_HEADER_SIZE), INDEX_HEADER_SIZE);  // the fixed header first
    Pipe done;
    pid_t pid = spawn([&] {
        int r = create(name, nullptr);
        return send_byte(done.w, r == IMAP_MAILBOX_EXISTS ? 'E' : 'X') ? 0 : 2;
    });
    EXPECT_EQ(read_byte(done.r, 400), -1);  // it waits for the lock
    ASSERT_EQ(write(fd, whole.data() + INDEX_HEADER_SIZE, whole.size() - INDEX_HEADER_SIZE),
              (ssize_t)(whole.size() - INDEX_HEADER_SIZE));
    ASSERT_EQ(lock_unlock(fd), 0);
    EXPECT_EQ(read_byte(done.r, 5000), 'E');
    EXPECT_EQ(wait_child(pid), 0);
    close(fd);
    EXPECT_EQ(read_file(idx), whole);
}

TEST_F(MailboxFiles, DeleteRemovesEverything) {
    const char *name = "user/fred/gone", *child = "user/fred/gone/child";
    std::string d = folder_dir(name, "spool"), m = mdir(name);
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
    EXPECT_FALSE(db_has(userflagdb, name));
    // The child's directory keeps the folder's directories in place.
    EXPECT_TRUE(file_exists(folder_dir(child, "spool") + "/store.idx") && db_has(userflagdb, child));
    // Deleting the child (keeping its per-user data) and the root empties
    // the trees, but the partition directories stay.
    ASSERT_EQ(openFolder(child, &mb, "spool"), 0);
    mailbox_delete(&mb, 1);
    EXPECT_TRUE(db_has(userflagdb, child) && !file_exists(d));
    ASSERT_EQ(openFolder("user/fred", &mb, "spool"), 0);
    mailbox_delete(&mb, 0);
    EXPECT_FALSE(file_exists(inst.path("partitions/spool/=user")) ||
                 file_exists(inst.path("messages/spool/=user")));
    EXPECT_TRUE(file_exists(inst.path("partitions/spool")) && file_exists(inst.path("messages/spool")));
    // A folder whose directories are gone already is no failure.
    mailbox ghost = zeromailbox;
    ghost.name = strdup("user/ghost"), ghost.path = ghost.mpath = strdup(folder_dir("user/ghost").c_str());
    EXPECT_EQ(mailbox_delete(&ghost, 0), 0);
}

TEST_F(MailboxIndex, VariableHeaderMostEntriesAndReservedNames) {
    // Names in the even slots and the last one: the most entries the
    // gather write can need, each name with its NUL, each gap one NUL.
    mailbox mb = zeromailbox;
    mb.index_lock_count = 1, mb.acl = const_cast<char *>("a\tl\t");
    std::string want;
    for (int i = 0; i < MAX_USER_FLAGS; i++)
        want += (mb.flagname[i] = const_cast<char *>(i % 2 && i < MAX_USER_FLAGS - 1 ? nullptr : "f"))
                    ? std::string("f\0", 2) : std::string(1, '\0');
    struct iovec iov[MAILBOX_VARHDR_IOV + 1] = {{const_cast<char *>("X"), 1}};
    int n = 1;
    mailbox_format_index_variable_header(&mb, iov, &n);
    std::string got;
    for (int i = 0; i < n; i++) got.append((const char *)iov[i].iov_base, iov[i].iov_len);
    EXPECT_EQ(got, "X" + want + std::string("\na\tl\t\0", 6));  // entries before n stay
    // Reading: the names of the message type plug-in get no slot, in any
    // case; an empty slot stays empty; the slot numbers stay.
    IndexFile f;
    f.varhdr = std::string("seen1\0$JUNK\0\0later\0\nacl\0", 24);
    write_file(idx_, f.build());
    const char *saved = msgtype_flag_name[3];
    msgtype_flag_name[3] = "$Junk";
    Handle h(dir_);
    int r = h.read();
    msgtype_flag_name[3] = saved;
    ASSERT_EQ(r, 0);
    for (int i = 0; i < MAX_USER_FLAGS; i++)
        EXPECT_STREQ(h.mb.flagname[i], i == 0 ? "seen1" : i == 3 ? "later" : nullptr) << i;
    EXPECT_STREQ(h.mb.acl, "acl");
    // A later read frees names that are gone, and takes those no longer reserved.
    h.mb.flagname[50] = xstrdup("stale");
    ASSERT_EQ(mailbox_read_index_variable_header(&h.mb), 0);
    EXPECT_TRUE(h.mb.flagname[50] == nullptr && h.mb.flagname[1] != nullptr);
}

TEST_F(MailboxIndex, VariableHeaderGrowsThroughIndexNew) {
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND}) {
        SCOPED_TRACE(mode);
        IndexFile f(2);
        f.reserve = 3;
        const std::string before = f.build();
        write_file(idx_, before);
        Handle h(dir_, mode);
        ASSERT_EQ(h.read(), 0);
        ASSERT_EQ(lock_blocking(h.mb.index_fd), 0);
        h.mb.index_lock_count = 1;
        ino_t old_ino = h.mb.index_ino;
        // 20 names of 19 bytes and the ACL: far more than 176 bytes.
        uint64_t total = 1 + strlen(h.mb.acl) + 1 + 20 * 20;
        for (int i = 0; i < 20; i++)
            h.mb.flagname[i] = xstrdup(("keyword-number-" + std::to_string(1000 + i)).c_str());
        events.clear();
        ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);
        expect_flushed_then_renamed(file_size(idx_));  // the whole new file, before the rename
        // The smallest room of 176 + k * 256 bytes that leaves 50 free.
        uint64_t room = h.mb.hdr.start_offset - 80;
        EXPECT_TRUE(room >= total + 50 && (room - 176) % 256 == 0 && room - 256 < total + 50);
        EXPECT_EQ(h.mb.hdr.cache_offset - f.cache_offset(), h.mb.hdr.start_offset - 256);
        EXPECT_TRUE(h.mb.generation == 1 && !file_exists(index_new));
        struct stat fst;
        ASSERT_EQ(fstat(h.mb.index_fd, &fst), 0);
        EXPECT_TRUE(fst.st_ino != old_ino && fst.st_ino == inode_of(idx_));
        EXPECT_TRUE(h.mb.index_ino == fst.st_ino && h.mb.index_size == fst.st_size);
        // That the new file is held locked: FolderOpen.LockFollowsAReplacedIndex.
        // Records and cache moved unchanged; the handle and a fresh reader agree.
        EXPECT_EQ(read_file(idx_).substr(h.mb.hdr.start_offset), before.substr(256));
        expect_messages(h, f.records, mode == 0);
        Handle r(dir_);
        ASSERT_EQ(r.read(), 0);
        for (int i = 0; i < 20; i++) EXPECT_STREQ(r.mb.flagname[i], h.mb.flagname[i]);
        EXPECT_STREQ(r.mb.acl, "fred\tlrswipcda\t");
        expect_messages(r, f.records);
        // With a name less, the header fits and is written in place; what
        // the fixed header counts is flushed before it is written.
        free(h.mb.flagname[0]);
        h.mb.flagname[0] = nullptr;
        ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);
        EXPECT_EQ(inode_of(idx_), h.mb.index_ino);
        events.clear();
        ASSERT_EQ(mailbox_write_index_fixed_header(&h.mb), 0);
        EXPECT_EQ(events, Events({"barrier -1"}));
        // A partial map ends with the records: the cache needs a whole map.
        Handle r2(dir_, mode);
        EXPECT_TRUE(r2.read() == 0 && r2.mb.flagname[0] == nullptr && r2.mb.flagname[1] != nullptr);
        EXPECT_EQ(r2.mb.index_map->len, mode ? r2.mb.hdr.start_offset + 2 * INDEX_RECORD_SIZE : r2.mb.index_size);
        EXPECT_EQ(inst.newLog(), "");
    }
}

TEST_F(MailboxIndex, DamagedIndexesAreRefused) {
    IndexFile good(2);
    const std::string whole = good.build();
    std::string bad_version = whole, overlap = whole;
    bad_version[0] = 3;  // 259
    uint32_t co = 256 + INDEX_RECORD_SIZE;  // 2 messages announced, the cache after 1 record
    memcpy(&overlap[60], &co, 4);
    // The variable header without its line feed, and without the ACL's NUL.
    IndexFile noflags, noacl, empty, one(1);
    noflags.varhdr = std::string(176, 'x');
    noacl.varhdr = "\n" + std::string(175, 'a');
    const int logs = -1;  // in repair mode too: a bad version, or a variable header error
    // repair: the result under OPEN_REPAIR, which logs nothing.
    const struct { std::string bytes; unsigned mode; int repair; } cases[] = {
        {whole.substr(0, 79), 0, IMAP_MAILBOX_BADFORMAT},  // no fixed header
        {whole.substr(0, 80), 0, logs},                    // start_offset beyond the end
        {bad_version, 0, logs}, {overlap, 0, IMAP_MAILBOX_BADFORMAT},
        {overlap, OPEN_PARTIAL, IMAP_MAILBOX_BADFORMAT},
        // A partial map that misses even the room of the last entry's lengths
        // (a cut entry in a whole map: fuzz_index's last-entry check).
        {whole.substr(0, good.cache_offset() + cache_entry(sample_items(1)).size() + 43), OPEN_APPEND,
         IMAP_MAILBOX_BADFORMAT},
        {noflags.build(), 0, logs}, {noacl.build(), 0, logs},
        // Cut below start_offset, or with a message: no partial create.
        {empty.build().substr(0, 255), 0, logs},
        {one.build().substr(0, one.cache_offset() - 1), 0, IMAP_MAILBOX_BADFORMAT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        write_file(idx_, c.bytes);
        inst.newLog();
        EXPECT_EQ(Handle(dir_, c.mode).read(), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(file_size(idx_), (off_t)c.bytes.size());  // damage is refused, not repaired
        std::string log = inst.newLog();  // one entry, naming the folder
        EXPECT_TRUE(matches("^[^\n]* critical: [^\n]*user/fred/box\n$", log)) << log;
        if (c.repair == logs) continue;
        EXPECT_EQ(Handle(dir_, c.mode | OPEN_REPAIR).read(), c.repair);
        EXPECT_EQ(inst.newLog(), "");
    }
    // In repair mode a variable header error is no error.
    write_file(idx_, noacl.build());
    EXPECT_EQ(Handle(dir_, OPEN_REPAIR).read(), 0);
    // Records behind exists are free slots, readable up to the file's end.
    write_file(idx_, whole);
    Handle h(dir_);
    ASSERT_EQ(h.read(), 0);
    index_record r;
    EXPECT_EQ(mailbox_read_index_record(&h.mb, 102, &r), 0);
    EXPECT_EQ(mailbox_read_index_record(&h.mb, (h.mb.index_size - 256) / 76 + 1, &r), IMAP_IOERROR);
}

TEST_F(MailboxIndex, PartlyCreatedEmptyFolderIsExtended) {
    // A create cut anywhere from start_offset up to the end of the reserve,
    // whatever the reserve's size; a second reader finds it whole.
    for (unsigned reserve : {100u, 1000u}) {
        IndexFile f;
        f.reserve = reserve;
        const std::string full = f.build();
        for (unsigned mode : {0u, (unsigned)OPEN_APPEND, (unsigned)OPEN_REPAIR}) {
            for (uint32_t cut : {f.start_offset, f.start_offset + 100, f.cache_offset() - 1}) {
                SCOPED_TRACE(std::to_string(reserve) + " " + std::to_string(mode) + " " + std::to_string(cut));
                write_file(idx_, full.substr(0, cut));
                inst.newLog();
                Handle h(dir_, mode);
                ASSERT_EQ(h.read(), 0);
                EXPECT_NE(inst.newLog().find("notice: "), std::string::npos);
                EXPECT_EQ(h.mb.index_size, f.cache_offset());
                EXPECT_EQ(read_file(idx_), full);
                EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
                EXPECT_EQ(Handle(dir_).read(), 0);
                EXPECT_EQ(inst.newLog(), "");
            }
        }
    }
    // A file that may not grow is no damaged folder: the failure is one of
    // resources, and the file stays as it was.
    IndexFile f;
    write_file(idx_, f.build().substr(0, 300));
    EXPECT_EQ(in_child([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  struct rlimit small = {4096, 4096};
                  if (setrlimit(RLIMIT_FSIZE, &small) != 0) return 2;
                  return Handle(dir_).read() == IMAP_IOERROR ? 0 : 1;
              }), 0);
    EXPECT_EQ(file_size(idx_), 300);
}

TEST_F(MailboxIndex, Version257ConvertsTo258) {
    OldFolder o(42, 3);
    write_file(idx_, o.idx);
    // A cache of another generation, one of fewer than 4 bytes, none: the
    // folder stays as it was, unlocked.
    for (std::string cch : {"+" + o.cch.substr(1), std::string("ab"), std::string()}) {
        SCOPED_TRACE(cch.size());
        cch.empty() ? (void)unlink((dir_ + "/store.cch").c_str()) : write_file(dir_ + "/store.cch", cch);
        Handle h(dir_);
        ASSERT_EQ(h.read(), 0);
        EXPECT_EQ(mailbox_convertfromv1(&h.mb), cch.empty() ? IMAP_IOERROR : IMAP_MAILBOX_BADFORMAT);
        EXPECT_TRUE(h.mb.mbd.version == MAILBOX_VERSION_OLD && h.mb.hdr.cache_offset == 42);
        EXPECT_EQ(read_file(idx_), o.idx);
        EXPECT_FALSE(file_exists(index_new));
        EXPECT_TRUE(lockable_by_other(idx_)) << "the index lock was kept";
    }
    write_file(dir_ + "/store.cch", o.cch);
    write_file(index_new, "left over from a crash");
    Handle h(dir_);
    ASSERT_EQ(h.read(), 0);
    events.clear();
    ASSERT_EQ(mailbox_convertfromv1(&h.mb), 0);
    const size_t cache = 256 + 3 * 76 + 7600;  // records, then a reserve of 100
    expect_flushed_then_renamed((off_t)(cache + o.cch.size() - 4));
    EXPECT_TRUE(h.mb.mbd.version == MAILBOX_VERSION && h.mb.hdr.cache_offset == cache);
    EXPECT_EQ(h.mb.index_lock_count, 0u);
    EXPECT_FALSE(file_exists(dir_ + "/store.cch") || file_exists(index_new));
    EXPECT_EQ(h.mb.index_ino, inode_of(idx_));
    expect_messages(h, o.records);
    Handle r(dir_);
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.mb.mbd.uidvalidity, 777u);
    EXPECT_TRUE(!strcmp(r.mb.flagname[0], "old1") && !r.mb.flagname[1] && !strcmp(r.mb.flagname[2], "old3"));
    EXPECT_STREQ(r.mb.acl, "fred\tlrs\t");
    expect_messages(r, o.records);
    struct mboxdata row;
    ASSERT_EQ(mboxlist_lookup(r.mb.name, &row, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(memcmp(&row, &r.mb.mbd, sizeof row), 0);
    // A zeroed reserve, and the cache entries moved byte for byte.
    EXPECT_EQ(read_file(idx_).substr(256 + 3 * 76), std::string(7600, '\0') + o.cch.substr(4));
    // An empty old folder converts on open: FolderOpen.OpenModesAndRepair.
}

TEST(MessageFiles, MapsAndDirectories) {
    TempDir t;
    std::string mdir = t.path() + "/msgs";
    ASSERT_EQ(mailbox_makedirs((mdir + "//23/").c_str()), 0);  // doubled and trailing "/"
    write_file(mdir + "/23/12345.msg", "Subject: hi\r\n");
    // Maps under the message directory, with or without a "/" at its end,
    // else under the folder directory; a missing file is its errno.
    mailbox mb = zeromailbox;
    mb.mbd.version = MAILBOX_VERSION, mb.path = const_cast<char *>(mdir.c_str());
    for (std::string mp : {mdir + "/", std::string()}) {
        mb.mpath = mp.empty() ? nullptr : const_cast<char *>(mp.c_str());
        struct map *m = nullptr;
        ASSERT_EQ(mailbox_map_message(&mb, 12345, nullptr, &m), 0);
        EXPECT_EQ(std::string(m->base, m->size), "Subject: hi\r\n");
        mailbox_unmap_message(&mb, nullptr, &m);
        EXPECT_EQ(mailbox_map_message(&mb, 12346, nullptr, &m), ENOENT);
    }
    // Directories too long as a whole or in one component; a file in the way.
    std::string longpath = t.path();
    while (longpath.size() < PATH_MAX + 10) longpath += "/abcdefghij";
    EXPECT_EQ(mailbox_makedirs(longpath.c_str()), IMAP_MAILBOX_BADNAME);
    EXPECT_EQ(mailbox_makedirs((t.path() + "/" + std::string(300, 'n')).c_str()), IMAP_MAILBOX_BADNAME);
    EXPECT_EQ(mailbox_makedirs((mdir + "/23/12345.msg/x").c_str()), IMAP_IOERROR);
}

TEST(MailboxText, HeaderValues) {
    const std::string h = "Received: from a\r\n\tby b\r\nsubject:   Hello\r\n   folded\r\n"
                          "X-Empty:\r\n\r\nBody-Header: no header\r\n";
    const char *cases[][2] = {{"Subject", "Hello   folded"}, {"Received", "from a\tby b"},
                              {"X-Empty", ""}, {"Body-Header", "<null>"},
                              {"Receive", "<null>"}};  // a prefix is no match
    for (const auto &c : cases)
        EXPECT_EQ(take(mailbox_getheadervalue(c[0], h.data(), h.size())), c[1]) << c[0];
    // Only the first 10000 bytes count; without a NUL the value ends with the block.
    std::string late = "X-Pad: " + std::string(9990, 'p') + "\r\nSubject: late\r\n";
    EXPECT_EQ(mailbox_getheadervalue("Subject", late.data(), late.size()), nullptr);
    EXPECT_EQ(take(mailbox_getheadervalue("Subject", "Subject: abc", 11)), "ab");
}

// The index file of a folder: written and read back, damage refused, the one
// repair, the conversion of the old two-file layout, the growth of the
// variable header with the flush before each rename, message files and
// header values.
#include <limits.h>
#include <sys/resource.h>
#include <sys/uio.h>

#include "store/message.h"
#include "support/lock.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;
using Events = std::vector<std::string>;

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
    r.uid = r.orig_uid = uid;
    r.internaldate = (int32_t)(1000000 + uid);
    r.size = r.header_size = 500 + uid;
    r.rec_cache_offset = rec_cache_offset;
    r.system_flags = (uid & 1) ? FLAG_ANSWERED : FLAG_FLAGGED | 0x05000000u;
    r.user_flags[2] = 0x80000000u | uid;
    r.orig_uidvalidity = 1234;
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
        mbd.version = MAILBOX_VERSION;
        mbd.uidvalidity = 1234;
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
        hdr.start_offset = start_offset;
        hdr.cache_offset = cache_offset();
        std::string s = bytes_of(m) + bytes_of(hdr) + varhdr;
        s.resize(start_offset, '\0');
        for (const index_record &r : records) s += bytes_of(r);
        return s + std::string((size_t)reserve * INDEX_RECORD_SIZE, '\0') + cache;
    }
};

// A handle over "<dir>/store.idx" filled the way the open code fills it.
struct Handle {
    mailbox mb;
    Handle(const std::string &dir, unsigned mode = 0) {
        mb = zeromailbox;
        mb.path = mb.mpath = xstrdup(dir.c_str());
        mb.name = xstrdup("user/fred/box");
        mb.open_mode = mode;
        mb.index_fd = open((dir + "/store.idx").c_str(), O_RDWR);
    }
    ~Handle() {
        mb.mpath = nullptr;
        mailbox_close(&mb);
    }
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

// The flushes and renames of the careful writes, in order: "rename FILE",
// and "barrier SIZE" with the size that "index.new" had when the barrier
// had flushed (-1: no such file).
Events events;
std::string index_new;
void note_event(sync_event e, const char *path) {
    events.push_back(e == SYNC_EVENT_RENAME ? "rename " + std::string(strrchr(path, '/') + 1)
                                            : "barrier " + std::to_string(file_size(index_new)));
}
// The whole new file of size flushed, then renamed into place: the last
// events of a replacement of "store.idx".
void expect_flushed_then_renamed(off_t size) {
    Events want = {"barrier " + std::to_string(size), "rename store.idx"};
    EXPECT_EQ(Events(events.end() - std::min<size_t>(2, events.size()), events.end()), want);
}

class MailboxIndex : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(configmsg_init(nullptr, 0, "test_mailbox_index"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "test_mailbox_index"), 0);
        ASSERT_EQ(mailbox_makedirs(dir_.c_str()), 0);
        index_new = dir_ + "/index.new";
        events.clear();
        sync_set_observer(note_event);
    }
    void TearDown() override { sync_set_observer(nullptr); }
    Instance inst_;
    const std::string dir_ = inst_.path("partitions/primary/fred/box"), idx_ = dir_ + "/store.idx";
};

}  // namespace

TEST_F(MailboxIndex, VariableHeaderMostEntriesAndReservedNames) {
    // Names in the even slots and the last one: the most entries the
    // gather write can need, each name with its NUL, each gap one NUL.
    mailbox mb = zeromailbox;
    mb.index_lock_count = 1;
    mb.acl = const_cast<char *>("a\tl\t");
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
        EXPECT_EQ(inst_.newLog(), "");
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
    IndexFile noflags, noacl;
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
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        write_file(idx_, c.bytes);
        inst_.newLog();
        EXPECT_EQ(Handle(dir_, c.mode).read(), IMAP_MAILBOX_BADFORMAT);
        std::string log = inst_.newLog();  // one entry, naming the folder
        EXPECT_TRUE(matches("^[^\n]* critical: [^\n]*user/fred/box\n$", log)) << log;
        if (c.repair == logs) continue;
        EXPECT_EQ(Handle(dir_, c.mode | OPEN_REPAIR).read(), c.repair);
        EXPECT_EQ(inst_.newLog(), "");
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
                SCOPED_TRACE(std::to_string(reserve) + " " + std::to_string(mode) + " " +
                             std::to_string(cut));
                write_file(idx_, full.substr(0, cut));
                inst_.newLog();
                Handle h(dir_, mode);
                ASSERT_EQ(h.read(), 0);
                EXPECT_NE(inst_.newLog().find("notice: "), std::string::npos);
                EXPECT_EQ(h.mb.index_size, f.cache_offset());
                EXPECT_EQ(read_file(idx_), full);
                EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
                EXPECT_EQ(Handle(dir_).read(), 0);
                EXPECT_EQ(inst_.newLog(), "");
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
    // Cut below start_offset, or with a message, it is no partial create.
    IndexFile one(1);
    for (const std::string &cut :
         {f.build().substr(0, 255), one.build().substr(0, one.cache_offset() - 1)}) {
        write_file(idx_, cut);
        EXPECT_EQ(Handle(dir_).read(), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(file_size(idx_), (off_t)cut.size());
    }
}

// A version 257 folder: "store.idx" with 68-byte records whose word at
// offset 60 is a generation number, and "store.cch" that starts with it;
// records as they must read after conversion.
struct OldFolder {
    std::string idx, cch;
    std::vector<index_record> records;
    OldFolder(uint32_t generation, unsigned count) {
        mboxdata mbd = {};
        mbd.version = MAILBOX_VERSION_OLD;
        mbd.exists = count;
        mbd.uidvalidity = 777;
        mbd.last_uid = 10 * count;
        index_header hdr = {};
        hdr.cache_offset = generation;
        hdr.start_offset = 256;
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

TEST_F(MailboxIndex, Version257ConvertsTo258) {
    // The conversion writes the folder's row too: this process brings the
    // folder database up as the daemon does.
    ASSERT_EQ(mboxlist_recover(), 0);
    struct StoreDown {
        ~StoreDown() { mboxlist_reset_for_tests(); }
    } storeDown;
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

TEST(MailboxFiles, MessageFileMapsAndDirectories) {
    TempDir t;
    std::string mdir = t.path() + "/msgs";
    ASSERT_EQ(mailbox_makedirs((mdir + "//23/").c_str()), 0);  // doubled and trailing "/"
    write_file(mdir + "/23/12345.msg", "Subject: hi\r\n");
    // Maps under the message directory, with or without a "/" at its end,
    // else under the folder directory; a missing file is its errno.
    mailbox mb = zeromailbox;
    mb.mbd.version = MAILBOX_VERSION;
    mb.path = const_cast<char *>(mdir.c_str());
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

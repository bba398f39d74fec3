// The index file of a folder: written and read back, every kind of damage
// refused with its code and log entry, the one repair, the conversion of
// the old two-file layout, the growth of the variable header, and the small
// helpers (message file names, header values, sequences, directories).
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "store/message.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/map.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

using testutil::be32;
using testutil::file_exists;
using testutil::file_size;

const char *const kName = "user/fred/box";

template <typename T>
std::string bytes_of(const T &v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

// A cache entry: per item a network-order length, the bytes, NULs up to a
// multiple of 4.
std::string cache_entry(const std::vector<std::string> &items) {
    std::string s;
    for (const std::string &it : items)
        s += be32({(uint32_t)it.size()}) + it + std::string((4 - it.size() % 4) % 4, '\0');
    return s;
}

// Items of different lengths, empty ones and ones that need padding.
std::vector<std::string> sample_items(unsigned uid) {
    std::string u = std::to_string(uid);
    return {"(\"date\" \"subject " + u + "\")", "(\"TEXT\" \"PLAIN\")", "",
            std::string("\0\0\0\1\0\0\0\2", 8),
            "Message-ID: <" + u + "@example.test>\r\nSubject: s" + u + "\r\n\r\n",
            "fred", "bob" + u, "", "x", "\"subject " + u + "\"", "text"};
}

index_record make_record(uint32_t uid, uint32_t rec_cache_offset) {
    index_record r;
    memset(&r, 0, sizeof r);
    r.uid = uid;
    r.internaldate = (int32_t)(1000000 + uid);
    r.sentdate = 2000000 + uid;
    r.size = 500 + uid;
    r.header_size = r.content_offset = 60 + uid;
    r.rec_cache_offset = rec_cache_offset;
    r.last_updated = 3000000 + uid;
    r.system_flags = (uid & 1) ? FLAG_ANSWERED : FLAG_FLAGGED | 0x05000000u;
    r.user_flags[0] = 1u << (uid % 32);
    r.user_flags[2] = 0x80000000u;
    r.orig_uid = uid;
    r.orig_uidvalidity = 1234;
    return r;
}

// A version 258 "store.idx" put together byte by byte.
struct IndexFile {
    mboxdata mbd;
    uint32_t start_offset = 256;
    std::string varhdr = std::string("\nfred\tlrswipcda\t\0", 17);
    std::vector<index_record> records;
    unsigned reserve = 100;  // free record slots behind the records
    std::string cache;

    IndexFile() {
        memset(&mbd, 0, sizeof mbd);
        mbd.version = MAILBOX_VERSION;
        mbd.uidvalidity = 1234;
    }
    void add_message(uint32_t uid) {
        records.push_back(make_record(uid, (uint32_t)cache.size()));
        cache += cache_entry(sample_items(uid));
        mbd.last_uid = uid;
    }
    uint32_t cache_offset() const {
        return start_offset + (uint32_t)(records.size() + reserve) * INDEX_RECORD_SIZE;
    }
    std::string build() const {
        mboxdata m = mbd;
        m.exists = (uint32_t)records.size();
        index_header hdr;
        memset(&hdr, 0, sizeof hdr);
        hdr.start_offset = start_offset;
        hdr.cache_offset = cache_offset();
        std::string s = bytes_of(m) + bytes_of(hdr) + varhdr;
        s.resize(start_offset, '\0');
        for (const index_record &r : records) s += bytes_of(r);
        s.append((size_t)reserve * INDEX_RECORD_SIZE, '\0');
        return s + cache;
    }
};

// A handle over "<dir>/store.idx" filled the way the open code fills it.
struct Handle {
    mailbox mb;
    Handle(const std::string &dir, const char *name = kName, unsigned mode = 0) {
        mb = zeromailbox;
        mb.path = mb.mpath = xstrdup(dir.c_str());
        mb.name = xstrdup(name);
        mb.open_mode = mode;
        mb.index_fd = open((dir + "/store.idx").c_str(), O_RDWR);
    }
    ~Handle() {
        if (mb.index_fd >= 0) close(mb.index_fd);
        map_free(mb.index_map);
        free(mb.name);
        free(mb.path);
        free(mb.acl);
        for (char *f : mb.flagname) free(f);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    int read() { return mailbox_read_index_fixed_header(&mb); }
};

std::string item_text(const char *item) {
    uint32_t len;
    memcpy(&len, item, 4);
    return std::string(item + 4, ntohl(len));
}

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
            EXPECT_EQ(item_text(p), items[i]) << "message " << n << " item " << i;
        }
    }
}

// Whether another process can take the index lock of path now.
bool lockable_elsewhere(const std::string &path) {
    return testutil::in_child([&path]() {
               int fd = open(path.c_str(), O_RDWR);
               return fd >= 0 && lock_nonblocking(fd) == 0 ? 0 : 1;
           }) == 0;
}

// The variable header bytes that the format function produces.
std::string formatted_varhdr(mailbox *mb) {
    struct iovec iov[MAILBOX_VARHDR_IOV + 1];
    iov[0].iov_base = const_cast<char *>("X");
    iov[0].iov_len = 1;
    int n = 1;
    mailbox_format_index_variable_header(mb, iov, &n);
    EXPECT_LE(n, MAILBOX_VARHDR_IOV + 1);
    EXPECT_EQ(iov[0].iov_len, 1u);  // entries before *num_iov stay
    std::string s;
    for (int i = 1; i < n; i++) s.append((const char *)iov[i].iov_base, iov[i].iov_len);
    return s;
}

class MailboxIndex : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(configmsg_init(nullptr, 0, "test_mailbox_index"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "test_mailbox_index"), 0);
        ASSERT_EQ(mailbox_makedirs(dir_.c_str()), 0);
    }

    // What the log received since the last call.
    std::string newlog() {
        std::string all = testutil::read_file(inst_.path("log/store.log"));
        std::string r = all.size() > mark_ ? all.substr(mark_) : "";
        mark_ = all.size();
        return r;
    }

    testutil::Instance inst_;
    const std::string dir_ = inst_.path("partitions/primary/fred/box"), idx_ = dir_ + "/store.idx";
    size_t mark_ = 0;
};

TEST_F(MailboxIndex, WrittenIndexReadsBackWhole) {
    testutil::write_file(idx_, IndexFile().build());  // an empty folder as a create leaves it
    Handle h(dir_);
    ASSERT_GE(h.mb.index_fd, 0);
    ASSERT_EQ(h.read(), 0);
    EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
    EXPECT_EQ(h.mb.hdr.cache_offset, 256u + 7600u);
    h.mb.index_lock_count = 1;

    // Deliveries: the cache entry goes to the end of the file, then the
    // records into the free slots (one alone, then two in one write).
    std::vector<index_record> recs;
    for (uint32_t uid = 1; uid <= 3; uid++) {
        off_t end = lseek(h.mb.index_fd, 0, SEEK_END);
        std::string entry = cache_entry(sample_items(uid));
        ASSERT_EQ(write(h.mb.index_fd, entry.data(), entry.size()), (ssize_t)entry.size());
        recs.push_back(make_record(uid, (uint32_t)(end - h.mb.hdr.cache_offset)));
    }
    ASSERT_EQ(mailbox_append_index(&h.mb, &recs[0], 1, 1), 0);
    ASSERT_EQ(mailbox_append_index(&h.mb, &recs[1], 2, 2), 0);
    recs[1].system_flags |= FLAG_DRAFT;
    ASSERT_EQ(mailbox_write_index_record(&h.mb, 2, &recs[1]), 0);

    h.mb.flagname[0] = xstrdup("work");
    h.mb.flagname[1] = xstrdup("$Label1");
    h.mb.flagname[5] = xstrdup("todo");
    free(h.mb.acl);
    h.mb.acl = xstrdup("fred\tlrswipcda\tbob\tlr\t");
    ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);
    EXPECT_EQ(h.mb.hdr.start_offset, 256u);  // it fitted

    h.mb.mbd.exists = h.mb.mbd.last_uid = 3;
    h.mb.mbd.first_uid = 1;
    h.mb.mbd.max_size = 503;
    h.mb.mbd.quota_used[0] = 1506;
    h.mb.mbd.last_appenddate = 4000000;
    ASSERT_EQ(mailbox_write_index_fixed_header(&h.mb), 0);

    std::string bytes = testutil::read_file(idx_);
    EXPECT_EQ(bytes.substr(80, 256 - 80),
              std::string("work\0$Label1\0\0\0\0todo\0\nfred\tlrswipcda\tbob\tlr\t\0", 45) +
                  std::string(256 - 125, '\0'));

    // A second handle, in both mapping modes, sees the same folder.
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND}) {
        SCOPED_TRACE(mode);
        Handle r(dir_, kName, mode);
        ASSERT_EQ(r.read(), 0);
        EXPECT_EQ(memcmp(&r.mb.mbd, &h.mb.mbd, sizeof(mboxdata)), 0);
        EXPECT_EQ(memcmp(&r.mb.hdr, &h.mb.hdr, sizeof(index_header)), 0);
        for (int i = 0; i < MAX_USER_FLAGS; i++)
            EXPECT_STREQ(r.mb.flagname[i], h.mb.flagname[i]) << "slot " << i;
        EXPECT_STREQ(r.mb.acl, "fred\tlrswipcda\tbob\tlr\t");
        EXPECT_EQ(r.mb.index_size, (unsigned)file_size(idx_));
        // A partial map ends with the records: the cache needs a whole map.
        expect_messages(r, recs, mode == 0);
        if (mode == OPEN_APPEND) {
            EXPECT_EQ(r.mb.index_map->len, 256u + 3 * INDEX_RECORD_SIZE);
        }
    }
    EXPECT_EQ(newlog().find("critical"), std::string::npos);
}

TEST_F(MailboxIndex, VariableHeaderLayoutAndReservedNames) {
    mailbox mb = zeromailbox;
    mb.index_lock_count = 1;
    mb.acl = const_cast<char *>("a\tl\t");
    EXPECT_EQ(formatted_varhdr(&mb), std::string("\na\tl\t\0", 6));  // no names
    // Only slot 95: 95 free slots, the name, its NUL and the line feed.
    const std::string tail("last\0\na\tl\t\0", 11);
    mb.flagname[95] = const_cast<char *>("last");
    EXPECT_EQ(formatted_varhdr(&mb), std::string(95, '\0') + tail);
    // Names in the even slots and slot 95: the most entries it can need.
    std::string expect;
    for (int i = 0; i < MAX_USER_FLAGS - 1; i++) {
        if (i % 2 == 0) mb.flagname[i] = const_cast<char *>("f");
        expect += i % 2 == 0 ? std::string("f\0", 2) : std::string(1, '\0');
    }
    EXPECT_EQ(formatted_varhdr(&mb), expect + tail);

    // Reading: the names of the message type plug-in get no slot, in any
    // case; an empty slot stays empty; the slot numbers stay.
    IndexFile f;
    f.varhdr = std::string("seen1\0$JUNK\0\0later\0\nacl\0", 24);
    testutil::write_file(idx_, f.build());
    const char *saved = msgtype_flag_name[3];
    msgtype_flag_name[3] = "$Junk";
    Handle h(dir_);
    int r = h.read();
    msgtype_flag_name[3] = saved;
    ASSERT_EQ(r, 0);
    for (int i = 0; i < MAX_USER_FLAGS; i++)
        EXPECT_STREQ(h.mb.flagname[i], i == 0 ? "seen1" : i == 3 ? "later" : nullptr) << i;
    EXPECT_STREQ(h.mb.acl, "acl");

    // A later read frees names that are gone.
    h.mb.flagname[50] = xstrdup("stale");
    ASSERT_EQ(mailbox_read_index_variable_header(&h.mb), 0);
    EXPECT_EQ(h.mb.flagname[50], nullptr);
    EXPECT_STREQ(h.mb.flagname[1], "$JUNK");  // no longer reserved
}

TEST_F(MailboxIndex, VariableHeaderGrowsThroughIndexNew) {
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND}) {
        SCOPED_TRACE(mode);
        IndexFile f;
        f.add_message(7);
        f.add_message(9);
        f.reserve = 3;
        testutil::write_file(idx_, f.build());
        std::string before = testutil::read_file(idx_);

        Handle h(dir_, kName, mode);
        ASSERT_EQ(h.read(), 0);
        ASSERT_EQ(lock_blocking(h.mb.index_fd), 0);
        h.mb.index_lock_count = 1;
        ino_t old_ino = h.mb.index_ino;
        unsigned old_gen = h.mb.generation;
        uint32_t old_cache = h.mb.hdr.cache_offset;

        // 20 names of 19 bytes and the ACL: far more than 176 bytes.
        uint64_t total = 1 + strlen(h.mb.acl) + 1;
        for (int i = 0; i < 20; i++) {
            char name[32];
            snprintf(name, sizeof name, "keyword-number-%04d", i);
            h.mb.flagname[i] = xstrdup(name);
            total += strlen(name) + 1;
        }
        ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);

        // The smallest room of 176 + k * 256 bytes that leaves 50 free.
        uint64_t room = h.mb.hdr.start_offset - 80;
        EXPECT_GE(room, total + 50);
        EXPECT_EQ((room - 176) % 256, 0u);
        EXPECT_LT(room - 256, total + 50);
        EXPECT_EQ(h.mb.hdr.cache_offset - old_cache, h.mb.hdr.start_offset - 256);
        EXPECT_EQ(h.mb.generation, old_gen + 1);
        EXPECT_FALSE(file_exists(dir_ + "/index.new"));
        struct stat st, fst;
        ASSERT_EQ(stat(idx_.c_str(), &st), 0);
        ASSERT_EQ(fstat(h.mb.index_fd, &fst), 0);
        EXPECT_NE(st.st_ino, old_ino);
        EXPECT_EQ(fst.st_ino, st.st_ino);
        EXPECT_EQ(h.mb.index_ino, st.st_ino);
        EXPECT_EQ(h.mb.index_size, (unsigned)st.st_size);
        EXPECT_EQ((uint64_t)st.st_size, before.size() + (h.mb.hdr.start_offset - 256));
        // The handle holds the new file locked. (Reading the file through
        // another descriptor of this process would drop the lock, so this
        // comes first.)
        EXPECT_FALSE(lockable_elsewhere(idx_)) << "new index not locked";

        // Records and cache moved unchanged; the handle and a fresh reader agree.
        EXPECT_EQ(testutil::read_file(idx_).substr(h.mb.hdr.start_offset), before.substr(256));
        expect_messages(h, f.records, mode == 0);
        Handle r(dir_);
        ASSERT_EQ(r.read(), 0);
        for (int i = 0; i < 20; i++) EXPECT_STREQ(r.mb.flagname[i], h.mb.flagname[i]);
        EXPECT_STREQ(r.mb.acl, "fred\tlrswipcda\t");
        expect_messages(r, f.records);

        // With a name less, the header fits and is written in place.
        free(h.mb.flagname[0]);
        h.mb.flagname[0] = nullptr;
        ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);
        ASSERT_EQ(stat(idx_.c_str(), &st), 0);
        EXPECT_EQ(st.st_ino, h.mb.index_ino);
        EXPECT_EQ(h.mb.generation, old_gen + 1);
        Handle r2(dir_);
        ASSERT_EQ(r2.read(), 0);
        EXPECT_EQ(r2.mb.flagname[0], nullptr);
        EXPECT_STREQ(r2.mb.flagname[1], "keyword-number-0001");
        EXPECT_STREQ(r2.mb.acl, "fred\tlrswipcda\t");
        unlink(idx_.c_str());
    }
}

TEST_F(MailboxIndex, DamagedIndexesAreRefusedWithTheirMessage) {
    IndexFile good;
    good.add_message(1);
    good.add_message(2);
    const std::string whole = good.build();
    std::string bad_version = whole;
    bad_version[0] = 3;  // 259

    // 5 messages announced, the cache starting after 4 records.
    IndexFile overlap;
    for (uint32_t u = 1; u <= 5; u++) overlap.add_message(u);
    overlap.reserve = 0;
    std::string overlap_bytes = overlap.build();
    uint32_t co = overlap.start_offset + 4 * INDEX_RECORD_SIZE;
    memcpy(&overlap_bytes[60], &co, 4);

    // The variable header without its line feed, and without the ACL's NUL.
    IndexFile noflags, noacl;
    noflags.varhdr = std::string(176, 'x');
    noacl.varhdr = "\n" + std::string(175, 'a');

    size_t entry1 = cache_entry(sample_items(1)).size();
    const int quiet = 1;  // repair mode isn't run: it reports, or it repairs
    struct Case {
        const char *what;
        std::string bytes;
        unsigned mode;
        const char *message;  // "critical: <message>: user/fred/box"
        int repair_code;      // the silent result in repair mode
    } cases[] = {
        {"79 bytes", whole.substr(0, 79), 0, "Mailbox corrupted, missing fixed headers",
         IMAP_MAILBOX_BADFORMAT},
        {"80 bytes", whole.substr(0, 80), 0, "Mailbox corrupted, start_offset beyond EOF", quiet},
        {"cut below start_offset", IndexFile().build().substr(0, 255), 0,
         "Mailbox corrupted, start_offset beyond EOF", quiet},
        {"version 259", bad_version, 0, "Mailbox corrupted, Version not recognized", quiet},
        {"version 259, repair mode", bad_version, OPEN_REPAIR,
         "Mailbox corrupted, Version not recognized", quiet},
        {"overlap", overlap_bytes, 0, "Mailbox corrupted, cache and idxrec overlap",
         IMAP_MAILBOX_BADFORMAT},
        {"overlap, partial", overlap_bytes, OPEN_PARTIAL,
         "Mailbox corrupted, cache and idxrec overlap", IMAP_MAILBOX_BADFORMAT},
        // The last entry's item 10 ends beyond the file.
        {"cut cache entry", whole.substr(0, whole.size() - 3), 0,
         "Mailbox corrupted, appears truncated", IMAP_MAILBOX_BADFORMAT},
        {"no cache entry, partial", whole.substr(0, good.cache_offset() + entry1 + 43),
         OPEN_APPEND, "Mailbox corrupted, appears truncated", IMAP_MAILBOX_BADFORMAT},
        {"no line feed", noflags.build(), 0, "Flags corrupted", quiet},
        {"no ACL end", noacl.build(), 0, "ACLs corrupted", quiet},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        testutil::write_file(idx_, c.bytes);
        newlog();
        {
            Handle h(dir_, kName, c.mode);
            EXPECT_EQ(h.read(), IMAP_MAILBOX_BADFORMAT);
            std::string log = newlog();
            EXPECT_NE(log.find(std::string("critical: ") + c.message + ": user/fred/box\n"),
                      std::string::npos)
                << log;
            EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
        }
        if (c.repair_code == quiet) continue;
        Handle h(dir_, kName, c.mode | OPEN_REPAIR);
        EXPECT_EQ(h.read(), c.repair_code);
        EXPECT_EQ(newlog(), "");
    }
    // A variable header error is no error in repair mode (it is logged).
    testutil::write_file(idx_, noacl.build());
    {
        Handle h(dir_, kName, OPEN_REPAIR);
        EXPECT_EQ(h.read(), 0);
        EXPECT_NE(newlog().find("ACLs corrupted"), std::string::npos);
    }
    // start_offset beyond the end is cut back to the end in repair mode;
    // the records still lie beyond it.
    testutil::write_file(idx_, whole.substr(0, 200));
    {
        Handle h(dir_, kName, OPEN_REPAIR);
        EXPECT_EQ(h.read(), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(h.mb.hdr.start_offset, 200u);
        EXPECT_EQ(newlog(), "");
    }

    // Records past the end, and a handle with no map.
    testutil::write_file(idx_, whole);
    {
        Handle h(dir_);
        ASSERT_EQ(h.read(), 0);
        index_record r;
        newlog();
        // Records behind exists are free slots, readable up to the file's end.
        EXPECT_EQ(mailbox_read_index_record(&h.mb, 102, &r), 0);
        EXPECT_EQ(r.uid, 0u);
        unsigned past = (h.mb.index_size - 256) / INDEX_RECORD_SIZE + 1;
        EXPECT_EQ(mailbox_read_index_record(&h.mb, past, &r), IMAP_IOERROR);
        EXPECT_NE(newlog().find("critical: Index record " + std::to_string(past) +
                                " for user/fred/box past end of file"),
                  std::string::npos);
        EXPECT_EQ(mailbox_read_index_record(&h.mb, 0, &r), IMAP_IOERROR);
        h.mb.open_mode = OPEN_REPAIR;
        newlog();
        EXPECT_EQ(mailbox_read_index_record(&h.mb, past, &r), IMAP_IOERROR);
        EXPECT_EQ(newlog(), "");
        h.mb.open_mode = 0;
        map_free(h.mb.index_map);
        h.mb.index_map = nullptr;
        EXPECT_EQ(mailbox_read_index_record(&h.mb, 1, &r), IMAP_IOERROR);
        EXPECT_NE(newlog().find("Index record not read because mailbox user/fred/box not mapped"),
                  std::string::npos);
        EXPECT_EQ(mailbox_read_index_variable_header(&h.mb), IMAP_MAILBOX_BADFORMAT);
        EXPECT_NE(newlog().find("unable to read index variable header: user/fred/box"),
                  std::string::npos);
    }

    // A damaged entry that isn't the last one passes the open; its items
    // up to the damage read, the rest are refused.
    std::string broken = whole;
    size_t item5 = good.cache_offset();
    std::vector<std::string> items = sample_items(1);
    for (int i = 0; i < 5; i++) item5 += 4 + (items[i].size() + 3) / 4 * 4;
    broken.replace(item5, 4, be32({0x7FFFFFF0u}));
    testutil::write_file(idx_, broken);
    Handle h(dir_);
    ASSERT_EQ(h.read(), 0);
    newlog();
    EXPECT_NE(mailbox_cache_item(h.mb.index_map, kName, 1, 4), nullptr);
    EXPECT_EQ(mailbox_cache_item(h.mb.index_map, kName, 1, 5), nullptr);
    EXPECT_EQ(mailbox_cache_item(h.mb.index_map, kName, 1, 10), nullptr);
    EXPECT_NE(mailbox_cache_item(h.mb.index_map, kName, 2, 10), nullptr);
    EXPECT_EQ(mailbox_cache_item(h.mb.index_map, kName, 3000, 0), nullptr);
    std::string log = newlog();
    EXPECT_NE(log.find("error: Invalid cache data for msg 1 in mailbox user/fred/box. Needs "
                       "reconstruct\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("Invalid cache data for msg 3000 in"), std::string::npos);
}

TEST_F(MailboxIndex, PartlyCreatedEmptyFolderIsExtended) {
    IndexFile f;
    std::string full = f.build();
    uint32_t cache = f.cache_offset();
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND, (unsigned)OPEN_REPAIR}) {
        for (uint32_t cut : {f.start_offset, f.start_offset + 100, cache - 1}) {
            SCOPED_TRACE(std::to_string(mode) + " cut at " + std::to_string(cut));
            testutil::write_file(idx_, full.substr(0, cut));
            newlog();
            Handle h(dir_, "user/fred/new", mode);
            ASSERT_EQ(h.read(), 0);
            EXPECT_NE(newlog().find("notice: Fixed partially created mailbox: user/fred/new\n"),
                      std::string::npos);
            EXPECT_EQ(h.mb.index_size, cache);
            EXPECT_EQ(testutil::read_file(idx_), full);
            EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
            // Now whole: a second reader has nothing to say.
            Handle again(dir_, "user/fred/new");
            EXPECT_EQ(again.read(), 0);
            EXPECT_EQ(newlog(), "");
        }
    }
    // A gap wider than the record reserve of a create is a damaged header,
    // and with a message a short file is no partial create: not grown.
    IndexFile wide, one;
    wide.reserve = 1000;
    one.add_message(1);
    for (const std::string &cut : {wide.build().substr(0, wide.start_offset + 50),
                                   one.build().substr(0, one.cache_offset() - 1)}) {
        testutil::write_file(idx_, cut);
        newlog();
        Handle h(dir_, "user/fred/new", OPEN_REPAIR);
        EXPECT_EQ(h.read(), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(file_size(idx_), (off_t)cut.size());
    }
    Handle h(dir_, "user/fred/new");
    EXPECT_EQ(h.read(), IMAP_MAILBOX_BADFORMAT);
    EXPECT_NE(newlog().find("appears truncated"), std::string::npos);
}

// A version 257 folder: "store.idx" with 68-byte records whose word at
// offset 60 is a generation number, and "store.cch" that starts with it.
struct OldFolder {
    std::string idx, cch;
    std::vector<index_record> records;  // as they must read after conversion
};

OldFolder make_old_folder(uint32_t generation, unsigned count) {
    OldFolder o;
    mboxdata mbd;
    memset(&mbd, 0, sizeof mbd);
    mbd.version = MAILBOX_VERSION_OLD;
    mbd.exists = count;
    mbd.uidvalidity = 777;
    mbd.last_uid = 10 * count;
    index_header hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.cache_offset = generation;
    hdr.start_offset = 256;
    o.idx = bytes_of(mbd) + bytes_of(hdr) + std::string("old1\0\0old3\0\nfred\tlrs\t\0", 22);
    o.idx.resize(256, '\0');
    o.cch = bytes_of(generation);
    for (unsigned i = 1; i <= count; i++) {
        uint32_t uid = 10 * i;
        index_record r = make_record(uid, (uint32_t)o.cch.size());
        o.idx += std::string(reinterpret_cast<const char *>(&r), INDEX_RECORD_SIZE_OLD);
        o.cch += cache_entry(sample_items(uid));
        r.rec_cache_offset -= 4;
        r.orig_uidvalidity = 777;  // orig_uid: the uid itself
        o.records.push_back(r);
    }
    return o;
}

TEST_F(MailboxIndex, Version257ConvertsTo258) {
    // The conversion writes the folder's row too: this process brings the
    // folder database up as the daemon does.
    ASSERT_EQ(mboxlist_recover(), 0);
    struct StoreDown {
        ~StoreDown() { mboxlist_reset_for_tests(); }
    } storeDown;
    OldFolder o = make_old_folder(42, 3);
    testutil::write_file(idx_, o.idx);
    // A cache of another generation, one of fewer than 4 bytes, none: the
    // folder stays as it was, unlocked.
    std::string other = o.cch;
    other[0] = 43;
    struct {
        std::string cch;
        bool present;
        int code;
        const char *logged;  // null: nothing
    } failures[] = {
        {other, true, IMAP_MAILBOX_BADFORMAT, nullptr},
        {"ab", true, IMAP_MAILBOX_BADFORMAT, nullptr},
        {"", false, IMAP_IOERROR,
         "critical: Unable to open cache file for user/fred/box: No such file or directory"},
    };
    for (const auto &c : failures) {
        SCOPED_TRACE(c.cch.size());
        if (c.present)
            testutil::write_file(dir_ + "/store.cch", c.cch);
        else
            unlink((dir_ + "/store.cch").c_str());
        Handle h(dir_);
        ASSERT_EQ(h.read(), 0);
        newlog();
        EXPECT_EQ(mailbox_convertfromv1(&h.mb), c.code);
        std::string log = newlog();
        EXPECT_TRUE(c.logged ? log.find(c.logged) != std::string::npos : log.empty()) << log;
        EXPECT_EQ(h.mb.mbd.version, (uint32_t)MAILBOX_VERSION_OLD);
        EXPECT_EQ(h.mb.hdr.cache_offset, 42u);
        EXPECT_EQ(h.mb.index_lock_count, 0u);
        EXPECT_EQ(testutil::read_file(idx_), o.idx);
        EXPECT_EQ(file_exists(dir_ + "/store.cch"), c.present);
        EXPECT_FALSE(file_exists(dir_ + "/index.new"));
        EXPECT_TRUE(lockable_elsewhere(idx_)) << "the index lock was kept";
    }

    testutil::write_file(dir_ + "/store.cch", o.cch);
    testutil::write_file(dir_ + "/index.new", "left over from a crash");
    Handle h(dir_);
    ASSERT_EQ(h.read(), 0);
    ASSERT_EQ(mailbox_convertfromv1(&h.mb), 0);
    const size_t cache = 256 + 3 * 76 + 7600;  // records, then a reserve of 100
    EXPECT_EQ(h.mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(h.mb.hdr.cache_offset, cache);
    EXPECT_EQ(h.mb.hdr.start_offset, 256u);
    EXPECT_EQ(h.mb.index_lock_count, 0u);
    EXPECT_FALSE(file_exists(dir_ + "/store.cch"));
    EXPECT_FALSE(file_exists(dir_ + "/index.new"));
    struct stat st, fst;
    ASSERT_EQ(stat(idx_.c_str(), &st), 0);
    ASSERT_EQ(fstat(h.mb.index_fd, &fst), 0);
    EXPECT_EQ(st.st_ino, fst.st_ino);
    expect_messages(h, o.records);

    Handle r(dir_);
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(r.mb.mbd.uidvalidity, 777u);
    EXPECT_EQ(r.mb.mbd.last_uid, 30u);
    EXPECT_STREQ(r.mb.flagname[0], "old1");
    EXPECT_EQ(r.mb.flagname[1], nullptr);
    EXPECT_STREQ(r.mb.flagname[2], "old3");
    EXPECT_STREQ(r.mb.acl, "fred\tlrs\t");
    expect_messages(r, o.records);
    struct mboxdata row;
    ASSERT_EQ(mboxlist_lookup(r.mb.name, &row, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(row.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(row.last_uid, 30u);
    // A zeroed reserve, and the cache entries moved byte for byte.
    EXPECT_EQ(testutil::read_file(idx_).substr(256 + 3 * 76),
              std::string(7600, '\0') + o.cch.substr(4));
    EXPECT_EQ(newlog().find("critical"), std::string::npos);

    // An empty old folder converts too.
    OldFolder e = make_old_folder(5, 0);
    testutil::write_file(idx_, e.idx);
    testutil::write_file(dir_ + "/store.cch", e.cch);
    Handle he(dir_);
    ASSERT_EQ(he.read(), 0);
    ASSERT_EQ(mailbox_convertfromv1(&he.mb), 0);
    EXPECT_EQ(he.mb.hdr.cache_offset, 256u + 7600);
    EXPECT_EQ(file_size(idx_), 256 + 7600);
}

TEST(MailboxDeath, BrokenRulesAbortWithTheExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    mailbox mb = zeromailbox;
    char buf[MAILBOX_FNAME_SIZE];
    EXPECT_DEATH(mailbox_message_fname(&mb, 1, buf),
                 "Assertion failed: \\(mailbox->mbd.version & 0x0000FF00\\)\\|\\| "
                 "\\(mailbox->mbd.version == 0x01000001\\)");
    mb.mbd.version = MAILBOX_VERSION;
    EXPECT_DEATH(mailbox_write_index_fixed_header(&mb), "mailbox->index_lock_count != 0");
    EXPECT_DEATH(mailbox_read_index_fixed_header(&mb), "mailbox->index_fd != -1");
}

TEST(MailboxFiles, MessageFileNamesAndMaps) {
    mailbox mb = zeromailbox;
    mb.mbd.version = MAILBOX_VERSION;
    char buf[MAILBOX_FNAME_SIZE];
    const std::pair<unsigned long, const char *> names[] = {
        {12345, "23/12345.msg"}, {99, "00/99.msg"},      {100, "01/100.msg"},
        {9999, "99/9999.msg"},   {10000, "00/10000.msg"}, {4294967295ul, "72/4294967295.msg"}};
    for (const auto &n : names) EXPECT_STREQ(mailbox_message_fname(&mb, n.first, buf), n.second);
    mb.mbd.version = MAILBOX_VERSION_DBONLY;
    EXPECT_STREQ(mailbox_message_fname(&mb, 1, buf), "00/1.msg");

    testutil::TempDir t;
    std::string mdir = t.path() + "/msgs";
    ASSERT_EQ(mailbox_makedirs((mdir + "/23").c_str()), 0);
    testutil::write_file(mdir + "/23/12345.msg", "Subject: hi\r\n\r\nbody\r\n");
    mb.path = const_cast<char *>("/nonexistent");
    for (std::string mp : {mdir, mdir + "/"}) {
        mb.mpath = const_cast<char *>(mp.c_str());
        int fd = -2;
        struct map *m = nullptr;
        ASSERT_EQ(mailbox_map_message(&mb, 12345, &fd, &m), 0);
        ASSERT_GE(fd, 0);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(std::string(m->base, m->size), "Subject: hi\r\n\r\nbody\r\n");
        int oldfd = fd;
        mailbox_unmap_message(&mb, &fd, &m);
        EXPECT_TRUE(fd == -1 && m == nullptr);
        EXPECT_EQ(fcntl(oldfd, F_GETFD), -1);
    }
    // Without a descriptor pointer the file is closed again.
    mb.mpath = const_cast<char *>(mdir.c_str());
    struct map *m = nullptr;
    ASSERT_EQ(mailbox_map_message(&mb, 12345, nullptr, &m), 0);
    EXPECT_EQ(m->size, 21u);
    mailbox_unmap_message(&mb, nullptr, &m);
    int fd = 7;
    EXPECT_EQ(mailbox_map_message(&mb, 12346, &fd, nullptr), ENOENT);
    EXPECT_EQ(fd, -1);
    // The message directory is the folder directory when mpath is unset.
    mb.mpath = nullptr;
    mb.path = const_cast<char *>(mdir.c_str());
    EXPECT_EQ(mailbox_map_message(&mb, 12345, nullptr, nullptr), 0);
}

TEST(MailboxFiles, MakeDirs) {
    testutil::TempDir t;
    std::string deep = t.path() + "/a/b/c/d";
    EXPECT_EQ(mailbox_makedirs(deep.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(mailbox_makedirs(deep.c_str()), 0);                    // exists already
    EXPECT_EQ(mailbox_makedirs((t.path() + "/a//x/").c_str()), 0);  // doubled and trailing "/"
    EXPECT_TRUE(file_exists(t.path() + "/a/x"));

    // Too long as a whole, or in one component; a file in the way.
    std::string longpath = t.path();
    while (longpath.size() < PATH_MAX + 10) longpath += "/abcdefghij";
    EXPECT_EQ(mailbox_makedirs(longpath.c_str()), IMAP_MAILBOX_BADNAME);
    EXPECT_EQ(mailbox_makedirs((t.path() + "/" + std::string(300, 'n') + "/x").c_str()),
              IMAP_MAILBOX_BADNAME);
    testutil::write_file(t.path() + "/file", "x");
    EXPECT_EQ(mailbox_makedirs((t.path() + "/file/sub").c_str()), IMAP_IOERROR);
    EXPECT_EQ(mailbox_makedirs((t.path() + "/file").c_str()), IMAP_IOERROR);
}

TEST(MailboxText, HeaderValues) {
    std::string h =
        "Received: from a\r\n\tby b\r\n"
        "subject:   Hello\r\n   folded  world\r\n"
        "X-Empty:\r\n"
        "Message-Id: <1@x>\r\n"
        "To:\r\n bob@x\r\n"
        "\r\n"
        "Body-Header: not a header\r\n";
    auto value = [](const char *name, const std::string &block, size_t size = std::string::npos) {
        return testutil::take(
            mailbox_getheadervalue(name, block.data(), std::min(size, block.size())));
    };
    const char *cases[][2] = {
        {"Subject", "Hello   folded  world"}, {"Received", "from a\tby b"},
        {"message-id", "<1@x>"},              {"X-Empty", ""},
        {"To", "bob@x"},                      {"Cc", "<null>"},
        {"Body-Header", "<null>"},  // behind the blank line
        {"Message", "<null>"},      // a prefix is no match
        {"Received:", "<null>"},
    };
    for (const auto &c : cases) EXPECT_EQ(value(c[0], h), c[1]) << c[0];

    // Only the first 10000 bytes count.
    EXPECT_EQ(value("Subject", "X-Pad: " + std::string(9990, 'p') + "\r\nSubject: late\r\n\r\n"),
              "<null>");
    // The block needs room for the name, the colon and a few bytes more.
    EXPECT_EQ(value("Cc", "Cc: a"), "<null>");
    EXPECT_EQ(value("Cc", "Cc: ab"), "ab");
    // Not NUL-terminated: the value ends with the block.
    EXPECT_EQ(value("Subject", "Subject: abc", 11), "ab");

    // hdrend keeps folded lines with their header and stops at the end.
    const char *s = h.data(), *end = s + h.size();
    const char *n1 = hdrend(s, end);
    EXPECT_EQ(std::string(n1, 7), "subject");
    EXPECT_EQ(std::string(hdrend(n1, end), 7), "X-Empty");
    EXPECT_EQ(hdrend(s, s + 5), s + 5);
}

TEST(MailboxText, Sequences) {
    const struct {
        unsigned num;
        const char *seq;
        unsigned max;
        int in;
    } cases[] = {
        {1, "1:5,7,20:*", 30, 1},  {5, "1:5,7,20:*", 30, 1},  {6, "1:5,7,20:*", 30, 0},
        {7, "1:5,7,20:*", 30, 1},  {19, "1:5,7,20:*", 30, 0}, {25, "1:5,7,20:*", 30, 1},
        {31, "1:5,7,20:*", 30, 0}, {5, "7:3", 9, 1},          {8, "7:3", 9, 0},
        {5, "*", 5, 1},            {4, "*", 5, 0},
        {3, "*:2", 5, 1},  // "*" first, then ordered
        {0, "", 5, 1},             {1, "", 5, 0},
        {12, "3 12", 20, 1},  // any other character ends an element
        {4000000000u, "4000000000", 0, 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(is_insequence(c.num, c.seq, c.max), c.in) << c.num << " in " << c.seq;
}

}  // namespace

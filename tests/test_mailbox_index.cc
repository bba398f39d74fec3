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
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/message.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

template <typename T>
std::string bytes_of(const T &v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

std::string be32(uint32_t v) {
    uint32_t n = htonl(v);
    return std::string(reinterpret_cast<const char *>(&n), 4);
}

// A cache entry: 11 items, each a network-order length, the bytes, and
// zeros up to a multiple of 4.
std::string cache_entry(const std::vector<std::string> &items) {
    std::string s;
    for (const std::string &it : items) {
        s += be32((uint32_t)it.size());
        s += it;
        s.append((4 - it.size() % 4) % 4, '\0');
    }
    return s;
}

// Items of different lengths (0 and ones that need padding among them).
std::vector<std::string> sample_items(unsigned uid) {
    std::string u = std::to_string(uid);
    return {"(\"date\" \"subject " + u + "\")",
            "(\"TEXT\" \"PLAIN\")",
            "",
            std::string("\0\0\0\1\0\0\0\2", 8),
            "Message-ID: <" + u + "@example.test>\r\nSubject: s" + u + "\r\n\r\n",
            "fred",
            "bob" + u,
            "",
            "x",
            "\"subject " + u + "\"",
            "text"};
}

index_record make_record(uint32_t uid, uint32_t rec_cache_offset) {
    index_record r;
    memset(&r, 0, sizeof r);
    r.uid = uid;
    r.internaldate = (int32_t)(1000000 + uid);
    r.sentdate = 2000000 + uid;
    r.size = 500 + uid;
    r.header_size = 60 + uid;
    r.content_offset = 60 + uid;
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
    Handle(const std::string &dir, const char *name, unsigned mode = 0) {
        mb = zeromailbox;
        mb.path = xstrdup(dir.c_str());
        mb.mpath = mb.path;
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
        if (!check_cache) continue;
        std::vector<std::string> items = sample_items(r.uid);
        for (int i = 0; i < MAILBOX_CACHE_ITEMS; i++) {
            const char *p = mailbox_cache_item(h.mb.index_map, h.mb.name, n, i);
            ASSERT_NE(p, nullptr) << "message " << n << " item " << i;
            EXPECT_EQ(item_text(p), items[i]) << "message " << n << " item " << i;
        }
    }
}

off_t file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
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
        inst_ = std::make_unique<testutil::Instance>();
        ASSERT_EQ(configmsg_init(nullptr, 0, "test_mailbox_index"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "test_mailbox_index"), 0);
        dir_ = inst_->path("partitions/primary/fred/box");
        ASSERT_EQ(mailbox_makedirs(dir_.c_str()), 0);
        idx_ = dir_ + "/store.idx";
    }
    void TearDown() override { inst_.reset(); }

    // What the log received since the last call.
    std::string newlog() {
        std::string all = testutil::read_file(inst_->path("log/store.log"));
        std::string r = all.size() > mark_ ? all.substr(mark_) : "";
        mark_ = all.size();
        return r;
    }

    std::unique_ptr<testutil::Instance> inst_;
    std::string dir_, idx_;
    size_t mark_ = 0;
};

TEST_F(MailboxIndex, WrittenIndexReadsBackWhole) {
    // An empty folder as a create leaves it.
    IndexFile f;
    testutil::write_file(idx_, f.build());

    Handle h(dir_, "user/fred/box");
    ASSERT_GE(h.mb.index_fd, 0);
    ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
    EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
    EXPECT_EQ(h.mb.hdr.cache_offset, 256u + 7600u);
    h.mb.index_lock_count = 1;

    // Deliveries: the cache entry goes to the end of the file, then the
    // records into the free slots (one alone, then two in one write).
    std::vector<index_record> recs;
    int fd = h.mb.index_fd;
    for (uint32_t uid = 1; uid <= 3; uid++) {
        off_t end = lseek(fd, 0, SEEK_END);
        std::string entry = cache_entry(sample_items(uid));
        ASSERT_EQ(write(fd, entry.data(), entry.size()), (ssize_t)entry.size());
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

    h.mb.mbd.exists = 3;
    h.mb.mbd.last_uid = 3;
    h.mb.mbd.first_uid = 1;
    h.mb.mbd.max_size = 503;
    h.mb.mbd.quota_used[0] = 1506;
    h.mb.mbd.last_appenddate = 4000000;
    ASSERT_EQ(mailbox_write_index_fixed_header(&h.mb), 0);

    std::string bytes = testutil::read_file(idx_);
    EXPECT_EQ(bytes.substr(80, 45),
              std::string("work\0$Label1\0\0\0\0todo\0\nfred\tlrswipcda\tbob\tlr\t\0", 45));
    EXPECT_EQ(bytes.substr(125, 256 - 125), std::string(256 - 125, '\0'));

    // A second handle, in both mapping modes, sees the same folder.
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND}) {
        SCOPED_TRACE(mode);
        Handle r(dir_, "user/fred/box", mode);
        ASSERT_EQ(mailbox_read_index_fixed_header(&r.mb), 0);
        EXPECT_EQ(memcmp(&r.mb.mbd, &h.mb.mbd, sizeof(mboxdata)), 0);
        EXPECT_EQ(memcmp(&r.mb.hdr, &h.mb.hdr, sizeof(index_header)), 0);
        for (int i = 0; i < MAX_USER_FLAGS; i++) {
            if (h.mb.flagname[i])
                EXPECT_STREQ(r.mb.flagname[i], h.mb.flagname[i]) << "slot " << i;
            else
                EXPECT_EQ(r.mb.flagname[i], nullptr) << "slot " << i;
        }
        EXPECT_STREQ(r.mb.acl, "fred\tlrswipcda\tbob\tlr\t");
        EXPECT_EQ(r.mb.index_size, (unsigned)file_size(idx_));
        // A partial map ends with the records: the cache is read only
        // through a whole map.
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
    // No names: the line feed comes first.
    EXPECT_EQ(formatted_varhdr(&mb), std::string("\na\tl\t\0", 6));
    // Only slot 95: 95 free slots, the name, its NUL and the line feed.
    mb.flagname[95] = const_cast<char *>("last");
    EXPECT_EQ(formatted_varhdr(&mb), std::string(95, '\0') + std::string("last\0\na\tl\t\0", 11));
    // Names in the even slots and in slot 95: the most entries the list
    // can need.
    for (int i = 0; i < MAX_USER_FLAGS - 1; i += 2) mb.flagname[i] = const_cast<char *>("f");
    std::string expect;
    for (int i = 0; i < MAX_USER_FLAGS - 1; i++)
        expect += (i % 2 == 0) ? std::string("f\0", 2) : std::string(1, '\0');
    expect += std::string("last\0\na\tl\t\0", 11);
    EXPECT_EQ(formatted_varhdr(&mb), expect);

    // Reading: the names of the message type plug-in get no slot, in any
    // case; an empty slot stays empty; the slot numbers stay.
    IndexFile f;
    f.varhdr = std::string("seen1\0$JUNK\0\0later\0\nacl\0", 24);
    testutil::write_file(idx_, f.build());
    const char *saved = msgtype_flag_name[3];
    msgtype_flag_name[3] = "$Junk";
    Handle h(dir_, "user/fred/box");
    int r = mailbox_read_index_fixed_header(&h.mb);
    msgtype_flag_name[3] = saved;
    ASSERT_EQ(r, 0);
    EXPECT_STREQ(h.mb.flagname[0], "seen1");
    EXPECT_EQ(h.mb.flagname[1], nullptr);
    EXPECT_EQ(h.mb.flagname[2], nullptr);
    EXPECT_STREQ(h.mb.flagname[3], "later");
    for (int i = 4; i < MAX_USER_FLAGS; i++) EXPECT_EQ(h.mb.flagname[i], nullptr);
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

        Handle h(dir_, "user/fred/box", mode);
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        ASSERT_EQ(lock_blocking(h.mb.index_fd), 0);
        h.mb.index_lock_count = 1;
        ino_t old_ino = h.mb.index_ino;
        unsigned old_gen = h.mb.generation;
        uint32_t old_cache = h.mb.hdr.cache_offset;

        // 20 names of 19 bytes and the ACL: far more than 176 bytes.
        uint64_t total = 0;
        for (int i = 0; i < 20; i++) {
            char name[32];
            snprintf(name, sizeof name, "keyword-number-%04d", i);
            h.mb.flagname[i] = xstrdup(name);
            total += strlen(name) + 1;
        }
        total += 1 + strlen(h.mb.acl) + 1;
        ASSERT_EQ(mailbox_write_index_variable_header(&h.mb), 0);

        uint64_t room = h.mb.hdr.start_offset - 80;
        EXPECT_GE(room, total + 50);
        EXPECT_EQ((room - 176) % 256, 0u);
        EXPECT_LT(room - 256, total + 50);  // the smallest such room
        EXPECT_EQ(h.mb.hdr.cache_offset - old_cache, h.mb.hdr.start_offset - 256);
        EXPECT_EQ(h.mb.generation, old_gen + 1);
        EXPECT_FALSE(exists(dir_ + "/index.new"));
        struct stat st;
        ASSERT_EQ(stat(idx_.c_str(), &st), 0);
        EXPECT_NE(st.st_ino, old_ino);
        EXPECT_EQ(h.mb.index_ino, st.st_ino);
        EXPECT_EQ(h.mb.index_size, (unsigned)st.st_size);
        EXPECT_EQ((uint64_t)st.st_size, before.size() + (h.mb.hdr.start_offset - 256));
        // The handle works on the new file, which it holds locked: another
        // process can't take the lock.
        struct stat fst;
        ASSERT_EQ(fstat(h.mb.index_fd, &fst), 0);
        EXPECT_EQ(fst.st_ino, st.st_ino);
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(idx_.c_str(), O_RDWR);
            _exit(fd >= 0 && lock_nonblocking(fd) != 0 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "new index not locked";

        // (Reading the file through another descriptor drops this process's
        // lock when that descriptor is closed, so it comes after the check.)
        // Records and cache moved unchanged.
        std::string after = testutil::read_file(idx_);
        EXPECT_EQ(after.substr(h.mb.hdr.start_offset), before.substr(256));

        // The handle's own map and a fresh reader agree.
        expect_messages(h, f.records, mode == 0);
        Handle r(dir_, "user/fred/box");
        ASSERT_EQ(mailbox_read_index_fixed_header(&r.mb), 0);
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
        Handle r2(dir_, "user/fred/box");
        ASSERT_EQ(mailbox_read_index_fixed_header(&r2.mb), 0);
        EXPECT_EQ(r2.mb.flagname[0], nullptr);
        EXPECT_STREQ(r2.mb.flagname[1], "keyword-number-0001");
        EXPECT_STREQ(r2.mb.acl, "fred\tlrswipcda\t");
        unlink(idx_.c_str());
    }
}

TEST_F(MailboxIndex, DamagedIndexesAreRefusedWithTheirMessage) {
    const char *name = "user/fred/box";
    IndexFile good;
    good.add_message(1);
    good.add_message(2);
    std::string whole = good.build();

    IndexFile empty;
    std::string empty_bytes = empty.build();

    std::string bad_version = whole;
    uint32_t v = 259;
    memcpy(&bad_version[0], &v, 4);

    // 5 messages announced, the cache starting after 4 records.
    IndexFile overlap;
    for (uint32_t u = 1; u <= 5; u++) overlap.add_message(u);
    overlap.reserve = 0;
    std::string overlap_bytes = overlap.build();
    uint32_t co = overlap.start_offset + 4 * INDEX_RECORD_SIZE;
    memcpy(&overlap_bytes[60], &co, 4);

    // The last entry's item 10 ends beyond the file.
    std::string cut_entry = whole.substr(0, whole.size() - 3);

    // The variable header without its line feed, and without the NUL of
    // its ACL.
    IndexFile noflags;
    noflags.varhdr = std::string(176, 'x');
    IndexFile noacl;
    noacl.varhdr = "\n" + std::string(175, 'a');

    size_t entry1 = cache_entry(sample_items(1)).size();
    const int skip = 1;  // no repair mode run
    struct Case {
        const char *what;
        std::string bytes;
        unsigned mode;
        int code;
        const char *message;  // with the level's name
        int repair_code;      // the silent result in repair mode
    } cases[] = {
        {"79 bytes", whole.substr(0, 79), 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, missing fixed headers: user/fred/box\n",
         IMAP_MAILBOX_BADFORMAT},
        {"80 bytes", whole.substr(0, 80), 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, start_offset beyond EOF: user/fred/box\n", skip},
        {"cut below start_offset", empty_bytes.substr(0, 255), 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, start_offset beyond EOF: user/fred/box\n", skip},
        {"version 259", bad_version, 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, Version not recognized: user/fred/box\n", skip},
        {"version 259, repair mode", bad_version, OPEN_REPAIR, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, Version not recognized: user/fred/box\n", skip},
        {"overlap", overlap_bytes, 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, cache and idxrec overlap: user/fred/box\n",
         IMAP_MAILBOX_BADFORMAT},
        {"overlap, partial", overlap_bytes, OPEN_PARTIAL, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, cache and idxrec overlap: user/fred/box\n",
         IMAP_MAILBOX_BADFORMAT},
        {"cut cache entry", cut_entry, 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, appears truncated: user/fred/box\n",
         IMAP_MAILBOX_BADFORMAT},
        {"no cache entry, partial", whole.substr(0, good.cache_offset() + entry1 + 43),
         OPEN_APPEND, IMAP_MAILBOX_BADFORMAT,
         "critical: Mailbox corrupted, appears truncated: user/fred/box\n",
         IMAP_MAILBOX_BADFORMAT},
        {"no line feed", noflags.build(), 0, IMAP_MAILBOX_BADFORMAT,
         "critical: Flags corrupted: user/fred/box\n", skip},
        {"no ACL end", noacl.build(), 0, IMAP_MAILBOX_BADFORMAT,
         "critical: ACLs corrupted: user/fred/box\n", skip},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        testutil::write_file(idx_, c.bytes);
        newlog();
        Handle h(dir_, name, c.mode);
        EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), c.code);
        std::string log = newlog();
        EXPECT_NE(log.find(c.message), std::string::npos) << log;
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    }

    // Repair mode keeps quiet about damage it only reports.
    for (const Case &c : cases) {
        if (c.repair_code == skip) continue;
        SCOPED_TRACE(std::string("repair mode: ") + c.what);
        testutil::write_file(idx_, c.bytes);
        newlog();
        Handle h(dir_, name, c.mode | OPEN_REPAIR);
        EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), c.repair_code);
        EXPECT_EQ(newlog(), "");
    }
    // A variable header error is no error in repair mode (it is logged).
    testutil::write_file(idx_, noacl.build());
    {
        Handle h(dir_, name, OPEN_REPAIR);
        EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        EXPECT_NE(newlog().find("ACLs corrupted"), std::string::npos);
    }
    // start_offset beyond the end is cut back to the end in repair mode.
    testutil::write_file(idx_, whole.substr(0, 200));
    {
        Handle h(dir_, name, OPEN_REPAIR);
        // Cut back, the records still lie beyond the end.
        EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(h.mb.hdr.start_offset, 200u);
        EXPECT_EQ(newlog(), "");
    }

    // Records past the end, and a handle with no map.
    testutil::write_file(idx_, whole);
    {
        Handle h(dir_, name);
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
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
    std::string huge = be32(0x7FFFFFF0u);
    broken.replace(item5, 4, huge);
    testutil::write_file(idx_, broken);
    {
        Handle h(dir_, name);
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        newlog();
        EXPECT_NE(mailbox_cache_item(h.mb.index_map, name, 1, 4), nullptr);
        EXPECT_EQ(mailbox_cache_item(h.mb.index_map, name, 1, 5), nullptr);
        EXPECT_EQ(mailbox_cache_item(h.mb.index_map, name, 1, 10), nullptr);
        EXPECT_NE(mailbox_cache_item(h.mb.index_map, name, 2, 10), nullptr);
        EXPECT_EQ(mailbox_cache_item(h.mb.index_map, name, 3000, 0), nullptr);
        std::string log = newlog();
        EXPECT_NE(log.find("error: Invalid cache data for msg 1 in mailbox user/fred/box. Needs "
                           "reconstruct\n"),
                  std::string::npos)
            << log;
        EXPECT_NE(log.find("Invalid cache data for msg 3000 in"), std::string::npos);
    }
}

TEST_F(MailboxIndex, PartlyCreatedEmptyFolderIsExtended) {
    IndexFile f;
    std::string full = f.build();
    uint32_t start = f.start_offset, cache = f.cache_offset();
    for (unsigned mode : {0u, (unsigned)OPEN_APPEND, (unsigned)OPEN_REPAIR}) {
        for (uint32_t cut : {start, start + 100, cache - 1}) {
            SCOPED_TRACE(std::to_string(mode) + " cut at " + std::to_string(cut));
            testutil::write_file(idx_, full.substr(0, cut));
            newlog();
            Handle h(dir_, "user/fred/new", mode);
            ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
            EXPECT_NE(newlog().find("notice: Fixed partially created mailbox: user/fred/new\n"),
                      std::string::npos);
            EXPECT_EQ(file_size(idx_), (off_t)cache);
            EXPECT_EQ(h.mb.index_size, cache);
            EXPECT_EQ(testutil::read_file(idx_), full);
            EXPECT_STREQ(h.mb.acl, "fred\tlrswipcda\t");
            // Now whole: a second reader has nothing to say.
            Handle again(dir_, "user/fred/new");
            EXPECT_EQ(mailbox_read_index_fixed_header(&again.mb), 0);
            EXPECT_EQ(newlog(), "");
        }
    }
    // A gap wider than the record reserve of a create is a damaged header:
    // the file is refused, not grown.
    IndexFile wide;
    wide.reserve = 1000;
    std::string wide_cut = wide.build().substr(0, wide.start_offset + 50);
    testutil::write_file(idx_, wide_cut);
    newlog();
    {
        Handle h(dir_, "user/fred/new", OPEN_REPAIR);
        EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(file_size(idx_), (off_t)wide_cut.size());
    }
    // With a message, a short file is no partial create.
    IndexFile one;
    one.add_message(1);
    testutil::write_file(idx_, one.build().substr(0, one.cache_offset() - 1));
    newlog();
    Handle h(dir_, "user/fred/new");
    EXPECT_EQ(mailbox_read_index_fixed_header(&h.mb), IMAP_MAILBOX_BADFORMAT);
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
        r.orig_uid = uid;
        r.orig_uidvalidity = 777;
        o.records.push_back(r);
    }
    return o;
}

TEST_F(MailboxIndex, Version257ConvertsTo258) {
    OldFolder o = make_old_folder(42, 3);
    testutil::write_file(idx_, o.idx);
    testutil::write_file(dir_ + "/store.cch", o.cch);
    testutil::write_file(dir_ + "/index.new", "left over from a crash");

    Handle h(dir_, "user/fred/box");
    ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
    EXPECT_EQ(h.mb.mbd.version, (uint32_t)MAILBOX_VERSION_OLD);
    ASSERT_EQ(mailbox_convertfromv1(&h.mb), 0);

    EXPECT_EQ(h.mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(h.mb.hdr.cache_offset, 3u * 76 + 256 + 7600);
    EXPECT_EQ(h.mb.hdr.start_offset, 256u);
    EXPECT_EQ(h.mb.index_lock_count, 0u);
    EXPECT_FALSE(exists(dir_ + "/store.cch"));
    EXPECT_FALSE(exists(dir_ + "/index.new"));
    struct stat st, fst;
    ASSERT_EQ(stat(idx_.c_str(), &st), 0);
    ASSERT_EQ(fstat(h.mb.index_fd, &fst), 0);
    EXPECT_EQ(st.st_ino, fst.st_ino);
    EXPECT_EQ((size_t)st.st_size, 3u * 76 + 256 + 7600 + o.cch.size() - 4);
    expect_messages(h, o.records);

    Handle r(dir_, "user/fred/box");
    ASSERT_EQ(mailbox_read_index_fixed_header(&r.mb), 0);
    EXPECT_EQ(r.mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(r.mb.mbd.uidvalidity, 777u);
    EXPECT_EQ(r.mb.mbd.last_uid, 30u);
    EXPECT_STREQ(r.mb.flagname[0], "old1");
    EXPECT_EQ(r.mb.flagname[1], nullptr);
    EXPECT_STREQ(r.mb.flagname[2], "old3");
    EXPECT_STREQ(r.mb.acl, "fred\tlrs\t");
    expect_messages(r, o.records);
    // The record reserve is zero.
    std::string bytes = testutil::read_file(idx_);
    EXPECT_EQ(bytes.substr(256 + 3 * 76, 7600), std::string(7600, '\0'));
    // The cache entries moved byte for byte.
    EXPECT_EQ(bytes.substr(256 + 3 * 76 + 7600), o.cch.substr(4));
    EXPECT_EQ(newlog().find("critical"), std::string::npos);

    // An empty old folder converts too.
    OldFolder e = make_old_folder(5, 0);
    testutil::write_file(idx_, e.idx);
    testutil::write_file(dir_ + "/store.cch", e.cch);
    Handle he(dir_, "user/fred/box");
    ASSERT_EQ(mailbox_read_index_fixed_header(&he.mb), 0);
    ASSERT_EQ(mailbox_convertfromv1(&he.mb), 0);
    EXPECT_EQ(he.mb.hdr.cache_offset, 256u + 7600);
    EXPECT_EQ(file_size(idx_), 256 + 7600);
}

TEST_F(MailboxIndex, Version257ConversionFailuresLeaveTheFolder) {
    OldFolder o = make_old_folder(42, 2);
    testutil::write_file(idx_, o.idx);
    // A cache of another generation.
    std::string other = o.cch;
    other[0] = 43;
    testutil::write_file(dir_ + "/store.cch", other);
    {
        Handle h(dir_, "user/fred/box");
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        newlog();
        EXPECT_EQ(mailbox_convertfromv1(&h.mb), IMAP_MAILBOX_BADFORMAT);
        EXPECT_EQ(newlog(), "");
        EXPECT_EQ(h.mb.mbd.version, (uint32_t)MAILBOX_VERSION_OLD);
        EXPECT_EQ(h.mb.hdr.cache_offset, 42u);
        EXPECT_EQ(h.mb.index_lock_count, 0u);
        EXPECT_EQ(testutil::read_file(idx_), o.idx);
        EXPECT_TRUE(exists(dir_ + "/store.cch"));
        EXPECT_FALSE(exists(dir_ + "/index.new"));
        // The lock was released: another process can take it.
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(idx_.c_str(), O_RDWR);
            _exit(fd >= 0 && lock_nonblocking(fd) == 0 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    // A cache of fewer than 4 bytes.
    testutil::write_file(dir_ + "/store.cch", "ab");
    {
        Handle h(dir_, "user/fred/box");
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        EXPECT_EQ(mailbox_convertfromv1(&h.mb), IMAP_MAILBOX_BADFORMAT);
    }
    // No cache file.
    unlink((dir_ + "/store.cch").c_str());
    {
        Handle h(dir_, "user/fred/box");
        ASSERT_EQ(mailbox_read_index_fixed_header(&h.mb), 0);
        newlog();
        EXPECT_EQ(mailbox_convertfromv1(&h.mb), IMAP_IOERROR);
        EXPECT_NE(newlog().find("critical: Unable to open cache file for user/fred/box: No such "
                                "file or directory"),
                  std::string::npos);
        EXPECT_EQ(testutil::read_file(idx_), o.idx);
    }
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
    EXPECT_STREQ(mailbox_message_fname(&mb, 12345, buf), "23/12345.msg");
    EXPECT_STREQ(mailbox_message_fname(&mb, 99, buf), "00/99.msg");
    EXPECT_STREQ(mailbox_message_fname(&mb, 100, buf), "01/100.msg");
    EXPECT_STREQ(mailbox_message_fname(&mb, 9999, buf), "99/9999.msg");
    EXPECT_STREQ(mailbox_message_fname(&mb, 10000, buf), "00/10000.msg");
    EXPECT_STREQ(mailbox_message_fname(&mb, 4294967295ul, buf), "72/4294967295.msg");
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
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(m, nullptr);
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
    EXPECT_TRUE(exists(t.path() + "/a/x"));

    // Too long as a whole, or in one component.
    std::string longpath = t.path();
    while (longpath.size() < PATH_MAX + 10) longpath += "/abcdefghij";
    EXPECT_EQ(mailbox_makedirs(longpath.c_str()), IMAP_MAILBOX_BADNAME);
    EXPECT_EQ(mailbox_makedirs((t.path() + "/" + std::string(300, 'n') + "/x").c_str()),
              IMAP_MAILBOX_BADNAME);
    // A file in the way.
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
    auto value = [&](const char *name) -> std::string {
        char *v = mailbox_getheadervalue(name, h.data(), h.size());
        std::string s = v ? v : "<null>";
        free(v);
        return s;
    };
    EXPECT_EQ(value("Subject"), "Hello   folded  world");
    EXPECT_EQ(value("Received"), "from a\tby b");
    EXPECT_EQ(value("message-id"), "<1@x>");
    EXPECT_EQ(value("X-Empty"), "");
    EXPECT_EQ(value("To"), "bob@x");
    EXPECT_EQ(value("Cc"), "<null>");
    EXPECT_EQ(value("Body-Header"), "<null>");  // behind the blank line
    EXPECT_EQ(value("Message"), "<null>");      // a prefix is no match
    EXPECT_EQ(value("Received:"), "<null>");

    // Only the first 10000 bytes count.
    std::string big = "X-Pad: " + std::string(9990, 'p') + "\r\nSubject: late\r\n\r\n";
    EXPECT_EQ(mailbox_getheadervalue("Subject", big.data(), big.size()), nullptr);
    // The block needs room for the name, the colon and a few bytes more.
    std::string tight = "Cc: a";
    EXPECT_EQ(mailbox_getheadervalue("Cc", tight.data(), tight.size()), nullptr);
    tight = "Cc: ab";
    char *v = mailbox_getheadervalue("Cc", tight.data(), tight.size());
    EXPECT_STREQ(v, "ab");
    free(v);
    // Not NUL-terminated: the value ends with the block.
    std::string block = "Subject: abc";
    v = mailbox_getheadervalue("Subject", block.data(), 11);
    EXPECT_STREQ(v, "ab");
    free(v);

    // hdrend keeps folded lines with their header and stops at the end.
    const char *s = h.data();
    const char *end = s + h.size();
    const char *n1 = hdrend(s, end);
    EXPECT_EQ(std::string(n1, 7), "subject");
    EXPECT_EQ(std::string(hdrend(n1, end), 7), "X-Empty");
    EXPECT_EQ(hdrend(s, s + 5), s + 5);
}

TEST(MailboxText, Sequences) {
    const char *seq = "1:5,7,20:*";
    EXPECT_EQ(is_insequence(1, seq, 30), 1);
    EXPECT_EQ(is_insequence(5, seq, 30), 1);
    EXPECT_EQ(is_insequence(6, seq, 30), 0);
    EXPECT_EQ(is_insequence(7, seq, 30), 1);
    EXPECT_EQ(is_insequence(19, seq, 30), 0);
    EXPECT_EQ(is_insequence(25, seq, 30), 1);
    EXPECT_EQ(is_insequence(31, seq, 30), 0);
    EXPECT_EQ(is_insequence(5, "7:3", 9), 1);
    EXPECT_EQ(is_insequence(8, "7:3", 9), 0);
    EXPECT_EQ(is_insequence(5, "*", 5), 1);
    EXPECT_EQ(is_insequence(4, "*", 5), 0);
    EXPECT_EQ(is_insequence(3, "*:2", 5), 1);  // "*" first, then ordered
    EXPECT_EQ(is_insequence(0, "", 5), 1);
    EXPECT_EQ(is_insequence(1, "", 5), 0);
    EXPECT_EQ(is_insequence(12, "3 12", 20), 1);  // any other character ends an element
    EXPECT_EQ(is_insequence(4000000000u, "4000000000", 0), 1);
}

}  // namespace

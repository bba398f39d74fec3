// Expunge on real mail: folders whose records and cache entries the parser
// made from the corpus, rewritten by mailbox_expunge; "store.exp" and its
// cleaning; failed rewrites on a file system of their own.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>

#include "store/imap_err.h"
#include "store/mailbox_create.h"
#include "store/mboxlist.h"
#include "store/mboxlist_create.h"
#include "store/message.h"
#include "support/auth.h"
#include "support/lock.h"
#include "tests/testutil.h"

namespace {

using testutil::file_exists;
using testutil::inode_of;
using testutil::read_file;
using testutil::write_file;

// The messages of two corpus files, with CRLF line ends.
const std::vector<std::string> &corpus() {
    static std::vector<std::string> msgs;
    for (const char *f : {"list-archive.mbox", "kernel-list.mbox"}) {
        if (msgs.size() > 60) break;
        std::string s = read_file(testutil::corpus_path(f));
        for (size_t p = 0; p < s.size();) {
            size_t start = s.find('\n', p) + 1, next = s.find("\n\nFrom ", start);
            size_t end = next == std::string::npos ? s.size() : next + 1;
            msgs.push_back(testutil::crlf(s.substr(start, end - start)));
            p = next == std::string::npos ? s.size() : next + 2;
        }
    }
    return msgs;
}

struct Entry {
    index_record rec;
    std::string cache;  // the bytes of its 11 cache items
};

// The records of the folder at dir by uid, each with its cache entry.
std::map<uint32_t, Entry> entries(const std::string &dir, mboxdata *mbd = nullptr,
                                  index_header *hdr = nullptr) {
    std::string f = read_file(dir + "/store.idx");
    mboxdata m;
    index_header h;
    memcpy(&m, f.data(), sizeof m);
    memcpy(&h, f.data() + sizeof m, sizeof h);
    std::map<uint32_t, Entry> out;
    for (unsigned i = 0; i < m.exists; i++) {
        Entry e;
        memcpy(&e.rec, f.data() + h.start_offset + i * INDEX_RECORD_SIZE, sizeof e.rec);
        size_t p = std::min(f.size(), (size_t)h.cache_offset + e.rec.rec_cache_offset), q = p;
        for (int k = 0; k < MAILBOX_CACHE_ITEMS && q + 4 <= f.size(); k++)
            q += 4 + ((testutil::be32_at(f, q) + 3) & ~3u);
        e.cache = f.substr(p, std::min(q, f.size()) - p);
        out[e.rec.uid] = e;
    }
    if (mbd) *mbd = m;
    if (hdr) *hdr = h;
    return out;
}

uint64_t used(const mboxdata &m) { return ((uint64_t)m.quota_used[1] << 32) | m.quota_used[0]; }
int keep(void *, const index_record *) { return 0; }
int none(void *, const index_record *) { return -1; }
int in_set(void *rock, const index_record *r) {
    return (int)static_cast<std::set<uint32_t> *>(rock)->count(r->uid);
}

class Expunge : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(testutil::start_store("expungetest"), 0); }
    void TearDown() override {
        mailbox_close(&mb);
        mboxlist_reset_for_tests();
    }
    // Creates user/<user> with n corpus messages (uid i, internaldate
    // 1000000 + i, a message file each) and leaves it open in mode.
    void make(const std::string &user, unsigned n, unsigned mode = 0,
              const char *partition = nullptr) {
        mailbox_close(&mb);
        name = "user/" + user;
        ASSERT_EQ(mboxlist_createmailbox(name.c_str(), MAILBOX_VERSION, partition, user.c_str(),
                                         auth_dontCheckAcl, QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0,
                                         nullptr), 0);
        ASSERT_EQ(mailbox_open(name.c_str(), mode, auth_dontCheckAcl, &mb), 0);
        ASSERT_EQ(mailbox_lock_index(&mb), 0);
        // An empty folder grows to room for n records.
        if (n > 100) {
            ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_LOCKED, (int)n, none, nullptr), 0);
        }
        std::vector<index_record> recs(n);
        for (unsigned i = 0; i < n; i++) {
            const std::string &text = corpus()[i % corpus().size()];
            index_record &rec = recs[i];
            memset(&rec, 0, sizeof rec);
            ASSERT_GE(lseek(mb.index_fd, 0, SEEK_END), 0);
            ASSERT_EQ(message_parse_mapped(text.data(), text.size(), &mb, nullptr, &rec), 0);
            rec.uid = rec.orig_uid = i + 1;
            rec.internaldate = 1000000 + (int)i;
            char fname[MAILBOX_FNAME_SIZE];
            std::string file = std::string(mb.mpath) + "/" + mailbox_message_fname(&mb, rec.uid, fname);
            mkdir(file.substr(0, file.rfind('/')).c_str(), 0777);
            write_file(file, text);
            mb.mbd.quota_used[0] += rec.size;
        }
        ASSERT_EQ(mailbox_append_index(&mb, recs.data(), 1, n), 0);
        mb.mbd.exists = mb.mbd.last_uid = n;
        ASSERT_EQ(mboxlist_updatedata(&mb, 1), 0);
        mailbox_unlock_index(&mb);
        dir = mb.path;
    }
    testutil::Instance inst;
    mailbox mb = zeromailbox;
    std::string name, dir;
};

}  // namespace

TEST_F(Expunge, RemovesTheChosenMessagesAndCompactsTheCache) {
    const std::set<uint32_t> cases[] = {{2}, {1, 2}, {5, 6}, {1, 3, 5}, {1, 2, 3, 4, 5, 6}};
    int c = 0;
    for (std::set<uint32_t> gone : cases) {
        SCOPED_TRACE(c);
        make("c" + std::to_string(c++), 6);
        auto before = entries(dir);
        time_t t0 = time(nullptr);
        ASSERT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
        mboxdata mbd, row;
        index_header hdr;
        auto after = entries(dir, &mbd, &hdr);
        EXPECT_EQ(mbd.exists, 6 - gone.size());
        EXPECT_EQ(hdr.cache_offset, hdr.start_offset + (6 + 100) * INDEX_RECORD_SIZE);
        // Each survivor's entry moved down by the entries removed before it.
        uint64_t below = 0, cache = 0, bytes = 0;
        uint32_t first = 0, maxsize = 0;
        for (auto &[uid, e] : before) {
            if (gone.count(uid)) {
                EXPECT_FALSE(after.count(uid));
                below += e.cache.size();
                continue;
            }
            ASSERT_TRUE(after.count(uid));
            EXPECT_EQ(after[uid].rec.rec_cache_offset, e.rec.rec_cache_offset - below);
            EXPECT_EQ(after[uid].cache, e.cache);
            cache += e.cache.size();
            bytes += e.rec.size;
            if (!first) first = uid;
            maxsize = std::max(maxsize, e.rec.size);
        }
        EXPECT_EQ(testutil::file_size(dir + "/store.idx"), (off_t)(hdr.cache_offset + cache));
        EXPECT_EQ(used(mbd), bytes);
        EXPECT_EQ(mbd.first_uid, first);
        EXPECT_EQ(mbd.oldest_internaldate, first ? 1000000 + first - 1 : 0);
        EXPECT_EQ(mbd.max_size, maxsize);
        EXPECT_EQ(mbd.mbd_flags & 1, 1u);
        ASSERT_EQ(mboxlist_lookup(name.c_str(), &row, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(memcmp(&row, &mbd, sizeof mbd), 0);
        // "store.exp" holds (time, uid) of each removed message; the files stay.
        std::string exp = read_file(dir + "/store.exp");
        ASSERT_EQ(exp.size(), 8 + 8 * gone.size());
        EXPECT_EQ(exp.substr(0, 8), "EXPVER01");
        size_t k = 8;
        for (uint32_t uid : gone) {
            int32_t t;
            uint32_t u;
            memcpy(&t, exp.data() + k, 4);
            memcpy(&u, exp.data() + k + 4, 4);
            EXPECT_EQ(u, uid);
            EXPECT_TRUE(t >= t0 && t <= time(nullptr));
            EXPECT_TRUE(file_exists(dir + "/00/" + std::to_string(uid) + ".msg"));
            k += 8;
        }
    }
}

TEST_F(Expunge, KeepingEverythingRewritesOnlyWhenAskedOrToGrow) {
    make("keep", 3);
    ino_t ino = inode_of(dir + "/store.idx");
    auto before = entries(dir);
    EXPECT_EQ(mailbox_expunge(&mb, 0, 0, keep, nullptr), 0);
    EXPECT_EQ(mailbox_expunge(&mb, 0, 0, none, nullptr), 0);
    EXPECT_EQ(inode_of(dir + "/store.idx"), ino);
    ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_FORCE, 0, keep, nullptr), 0);
    EXPECT_NE(inode_of(dir + "/store.idx"), ino);
    auto after = entries(dir);
    ASSERT_EQ(after.size(), 3u);
    for (auto &[uid, e] : before)
        EXPECT_TRUE(memcmp(&after[uid].rec, &e.rec, sizeof e.rec) == 0 && after[uid].cache == e.cache);
    EXPECT_FALSE(file_exists(dir + "/store.exp"));
    // An empty folder: only a forced rewrite, which ends at the cache offset.
    make("empty", 0);
    ino = inode_of(dir + "/store.idx");
    EXPECT_EQ(mailbox_expunge(&mb, 0, 0, expungeall, nullptr), 0);
    EXPECT_EQ(inode_of(dir + "/store.idx"), ino);
    ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_FORCE, 0, expungeall, nullptr), 0);
    EXPECT_NE(inode_of(dir + "/store.idx"), ino);
    EXPECT_EQ(testutil::file_size(dir + "/store.idx"), (off_t)mb.hdr.cache_offset);
    // Growth under the caller's lock, as delivery asks for it: the handle
    // moves to the new file and keeps it locked against other processes.
    make("big", 300);
    mb.open_mode |= OPEN_APPEND;
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_LOCKED, 1, none, nullptr), 0);
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 601 * INDEX_RECORD_SIZE);
    EXPECT_EQ(mb.index_lock_count, 1u);
    struct stat st;
    ASSERT_EQ(fstat(mb.index_fd, &st), 0);
    EXPECT_EQ(st.st_ino, inode_of(dir + "/store.idx"));
    auto other_locks = [&] {
        return testutil::in_child([&] {
            int fd = open((dir + "/store.idx").c_str(), O_RDWR);
            return fd >= 0 && lock_nonblocking(fd) == 0 ? 0 : 1;
        });
    };
    EXPECT_EQ(other_locks(), 1);
    mailbox_unlock_index(&mb);
    EXPECT_EQ(other_locks(), 0);
    EXPECT_EQ(entries(dir).size(), 300u);
}

TEST_F(Expunge, DamagedRecordIsDroppedWithoutQuotaChange) {
    make("bad", 3);
    auto before = entries(dir);
    index_record rec = before[2].rec;
    rec.rec_cache_offset = 0x7fffffff;  // beyond the cache
    std::string idx = read_file(dir + "/store.idx");
    idx.replace(mb.hdr.start_offset + INDEX_RECORD_SIZE, sizeof rec, (const char *)&rec, sizeof rec);
    write_file(dir + "/store.idx", idx);
    // A torn block behind the magic: the next one starts at offset 16.
    write_file(dir + "/store.exp", "EXPVER01xyz");
    std::set<uint32_t> gone = {3};
    ASSERT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
    mboxdata mbd;
    auto after = entries(dir, &mbd);
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[1].cache, before[1].cache);
    EXPECT_EQ(used(mbd), before[1].rec.size + before[2].rec.size);
    std::string exp = read_file(dir + "/store.exp");
    ASSERT_EQ(exp.size(), 24u);
    EXPECT_EQ(exp[20], 3);
    EXPECT_TRUE(file_exists(dir + "/00/2.msg"));
}

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

// The messages of a corpus file, with CRLF line ends.
const std::vector<std::string> &corpus() {
    static std::vector<std::string> msgs;
    std::string s = read_file(testutil::corpus_path("list-archive.mbox"));
    for (size_t p = 0, next = msgs.empty() ? 0 : std::string::npos; next != std::string::npos; p = next + 2) {
        size_t start = s.find('\n', p) + 1;
        next = s.find("\n\nFrom ", start);
        msgs.push_back(testutil::crlf(s.substr(start, next == std::string::npos ? next : next + 1 - start)));
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
// A record of "store.exp".
std::string rec8(int32_t t, uint32_t uid) {
    return std::string((const char *)&t, 4) + std::string((const char *)&uid, 4);
}
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
        EXPECT_EQ(hdr.cache_offset, hdr.start_offset + (6 + 100) * INDEX_RECORD_SIZE);
        // Each survivor's entry moved down by the entries removed before it.
        uint64_t below = 0, cache = 0, bytes = 0;
        uint32_t first = 0, maxsize = 0;
        for (auto &[uid, e] : before) {
            if (gone.count(uid)) below += e.cache.size();
            if (gone.count(uid) || !after.count(uid)) continue;
            EXPECT_EQ(after[uid].rec.rec_cache_offset, e.rec.rec_cache_offset - below);
            EXPECT_EQ(after[uid].cache, e.cache);
            cache += e.cache.size();
            bytes += e.rec.size;
            first = first ? first : uid;
            maxsize = std::max(maxsize, e.rec.size);
        }
        EXPECT_EQ(after.size() + gone.size(), 6u);
        EXPECT_EQ(testutil::file_size(dir + "/store.idx"), (off_t)(hdr.cache_offset + cache));
        EXPECT_EQ(used(mbd), bytes);
        EXPECT_EQ(mbd.first_uid, first);
        EXPECT_EQ(mbd.oldest_internaldate, first ? 1000000 + first - 1 : 0);
        EXPECT_EQ(mbd.max_size, maxsize);
        EXPECT_EQ(mbd.mbd_flags, 1u);
        ASSERT_EQ(mboxlist_lookup(name.c_str(), &row, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(memcmp(&row, &mbd, sizeof mbd), 0);
        // "store.exp" holds (time, uid) of each removed message; the files stay.
        std::string exp = read_file(dir + "/store.exp"), want = "EXPVER01";
        int32_t t = exp.size() >= 12 ? *(const int32_t *)(exp.data() + 8) : 0;
        EXPECT_TRUE(t >= t0 && t <= time(nullptr));
        for (uint32_t uid : gone) {
            want += rec8(t, uid);
            EXPECT_TRUE(file_exists(dir + "/00/" + std::to_string(uid) + ".msg"));
        }
        EXPECT_EQ(exp, want);
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
    for (auto &[uid, e] : before) EXPECT_EQ(after[uid].cache, e.cache);
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
    struct stat st;
    ASSERT_EQ(fstat(mb.index_fd, &st), 0);
    EXPECT_TRUE(st.st_ino == inode_of(dir + "/store.idx") && mb.index_lock_count == 1);
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
    std::string idx = read_file(dir + "/store.idx");
    uint32_t beyond = 0x7fffffff;  // record 2's cache entry lies beyond the cache
    idx.replace(mb.hdr.start_offset + INDEX_RECORD_SIZE + offsetof(index_record, rec_cache_offset), 4,
                (const char *)&beyond, 4);
    write_file(dir + "/store.idx", idx);
    // A torn block behind the magic: the next one starts at offset 16.
    write_file(dir + "/store.exp", "EXPVER01xyz");
    std::set<uint32_t> gone = {3};
    ASSERT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
    mboxdata mbd;
    auto after = entries(dir, &mbd);
    EXPECT_TRUE(after.size() == 1 && after[1].cache == before[1].cache);
    EXPECT_EQ(used(mbd), before[1].rec.size + before[2].rec.size);
    std::string exp = read_file(dir + "/store.exp");
    EXPECT_EQ(exp.substr(0, 16) + exp.substr(20), std::string("EXPVER01xyz\0\0\0\0\0", 16) + rec8(0, 3).substr(4));
    EXPECT_TRUE(file_exists(dir + "/00/2.msg"));
}

TEST_F(Expunge, CleaningRemovesTheFilesOfOldRecords) {
    testutil::TempDir tmp;
    std::string path = tmp.file("f"), mpath = tmp.file("m"), exp = path + "/store.exp";
    time_t now = time(nullptr);
    // uid 6 is listed nowhere; the record of uid 7 lies in the future.
    const std::string recs = rec8(now - 100, 5) + rec8(now - 100, 150) + rec8(now - 50, 160) +
                             rec8(now + 1000, 7) + rec8(now - 10, 8);
    struct Case {
        time_t limit;
        size_t done;  // records whose files go
    } cases[] = {{now - 200, 0}, {now - 75, 2}, {now, 3}};
    const uint32_t uids[] = {5, 150, 160, 7, 8, 6};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.limit - now);
        mkdir(path.c_str(), 0777);
        for (const char *d : {"/m", "/m/00", "/m/01"}) mkdir(tmp.file(d + 1).c_str(), 0777);
        for (uint32_t uid : uids) write_file(mpath + (uid < 100 ? "/00/" : "/01/") + std::to_string(uid) + ".msg", "x");
        write_file(exp, "EXPVER01" + recs);
        ASSERT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), c.limit), 0);
        for (size_t i = 0; i < 6; i++)
            EXPECT_EQ(file_exists(mpath + (uids[i] < 100 ? "/00/" : "/01/") + std::to_string(uids[i]) + ".msg"), i >= c.done) << uids[i];
        EXPECT_EQ(read_file(exp), "EXPVER01" + recs.substr(8 * c.done));
    }
    // Everything done (a torn block at the end): the file and the emptied
    // directory go; the directory with an unlisted file stays.
    write_file(exp, "EXPVER01" + rec8(now - 100, 150) + rec8(now - 100, 160) + "xyz");
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), now), 0);
    EXPECT_TRUE(!file_exists(exp) && !file_exists(mpath + "/01") && file_exists(mpath + "/00/6.msg"));
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), now), IMAP_MAILBOX_NONEXISTENT);
    write_file(exp, "EXPVER02" + recs);
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), nullptr, now), IMAP_MAILBOX_BADFORMAT);
}

// The folder of user "small" on a tmpfs of its own.
class ExpungeOnSmallFs : public Expunge {
  protected:
    void SetUp() override {
        mkdir(mnt.c_str(), 0777);
        if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=2m,nr_inodes=64") != 0)
            GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
        mounted = true;
        inst.addConfig("store.partition.small.path: " + mnt);
        Expunge::SetUp();
    }
    void TearDown() override {
        Expunge::TearDown();
        if (mounted) umount2(mnt.c_str(), MNT_DETACH);
    }
    std::string mnt = inst.path("small");
    bool mounted = false;
};

TEST_F(ExpungeOnSmallFs, FailedRewriteLeavesTheFolderAsItWas) {
    make("small", 3, 0, "small");
    std::string idx = dir + "/store.idx", old = read_file(idx);
    ino_t ino = inode_of(idx);
    mboxdata mbd = mb.mbd, row;
    std::set<uint32_t> gone = {2};
    // A stale "index.new" and a reserve file hold inodes; no other is left.
    write_file(dir + "/index.new", "stale");
    int filler = open((mnt + "/filler").c_str(), O_CREAT | O_WRONLY, 0666);
    for (int i = 0, fd; (fd = open((mnt + "/i" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0666)) >= 0; i++) close(fd);
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        // Round 0: "store.exp" can't be made, after the row was written.
        // Round 1: no room for the new index.
        std::string block(65536, 'x');
        while (round == 1 && write(filler, block.data(), block.size()) > 0) {}
        EXPECT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), IMAP_IOERROR);
        EXPECT_TRUE(read_file(idx) == old && inode_of(idx) == ino && mb.index_lock_count == 0);
        EXPECT_EQ(memcmp(&mb.mbd, &mbd, sizeof mbd), 0);
        ASSERT_EQ(mboxlist_lookup(name.c_str(), &row, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(memcmp(&row, &mbd, sizeof mbd), 0);
        EXPECT_FALSE(file_exists(dir + "/index.new"));
    }
    // With room again the same expunge goes through.
    close(filler);
    unlink((mnt + "/filler").c_str());
    EXPECT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
    EXPECT_EQ(entries(dir).size(), 2u);
}

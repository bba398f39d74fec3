// Expunge on real mail: folders delivered from the corpus, rewritten by
// mailbox_expunge; "store.exp" and its cleaning; failed rewrites on a file
// system of their own.
#include <numeric>

#include "store/append.h"
#include "store/mailbox_create.h"
#include "store/mailbox_log.h"
#include "store/mboxlist_create.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// The records of the folder at dir by uid, each with its cache entry.
std::map<uint32_t, IndexEntry> entries(const std::string &dir, mboxdata *mbd = nullptr) {
    std::map<uint32_t, IndexEntry> out;
    for (const IndexEntry &e : index_entries(dir, mbd)) out[e.rec.uid] = e;
    return out;
}

std::string rec8(int32_t t, uint32_t uid) {  // a record of "store.exp"
    return std::string((const char *)&t, 4) + std::string((const char *)&uid, 4);
}
int keep(void *, const index_record *) { return 0; }
int none(void *, const index_record *) { return -1; }
int in_set(void *rock, const index_record *r) { return (int)((std::set<uint32_t> *)rock)->count(r->uid); }

class Expunge : public StoreTest {
  protected:
    Expunge() : StoreTest("local.msgtrace.active: yes") {}
    void SetUp() override { StoreTest::SetUp(), mailbox_init_svclog_msgtrace("expungetest"); }
    void TearDown() override { mailbox_close(&mb), StoreTest::TearDown(); }
    // Opens a new user/<user> with n corpus messages delivered: uid i,
    // internaldate 1000000 + i.
    void make(const std::string &user, unsigned n, const char *partition = nullptr) {
        mailbox_close(&mb);
        name = "user/" + user;
        ASSERT_EQ(mboxlist_createmailbox(name.c_str(), MAILBOX_VERSION, partition, user.c_str(),
                                         auth_dontCheckAcl, QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
        append_state as;
        as.mailbox = &mb;
        ASSERT_EQ(append_setup(&as, name.c_str(), 0, MAILBOX_VERSION, auth_dontCheckAcl, 0, 0), 0);
        for (unsigned i = 0; i < n; i++) {
            const std::string &text = corpus[i % corpus.size()];
            appendmsg m = zeroappendmsg;
            m.flags = APPENDMSG_STATIC, m.base = text.data(), m.size = (unsigned)text.size();
            ASSERT_EQ(append_msg(&as, &m, 1000000 + i, nullptr, 0, nullptr, 0, 0, 0, 0), 0);
        }
        append_finish(&as);
        dir = mb.path;
    }
    // The folder's row and the handle hold the summary of the file.
    void summaries_agree(const mboxdata &file) {
        mboxdata row;
        ASSERT_EQ(mboxlist_lookup(name.c_str(), &row, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(memcmp(&row, &file, sizeof row) == 0 && memcmp(&mb.mbd, &file, sizeof row) == 0);
    }
    const std::vector<std::string> corpus = corpus_messages("list-archive.mbox");
    mailbox mb = zeromailbox;
    std::string name, dir;
};

}  // namespace

TEST_F(Expunge, RemovesTheChosenMessagesAndCompactsTheCache) {
    // The uids to remove, and a record whose cache offset lies beyond the
    // cache: dropped without a quota change, its entry kept only inside a
    // run of kept messages. Then "store.exp" has a block cut short behind
    // the magic, and the new block starts at offset 16.
    struct { std::set<uint32_t> gone; uint32_t bad; } cases[] = {{{2}, 0}, {{1, 2}, 0}, {{5, 6}, 0}, {{1, 3, 5}, 0}, {{1, 2, 3, 4, 5, 6}, 0},
                 {{3}, 2}, {{2}, 3}};
    int n = 0;
    for (auto &[gone, bad] : cases) {
        SCOPED_TRACE(n);
        make("c" + std::to_string(n++), 6);
        auto before = entries(dir);
        std::string want = "EXPVER01";
        if (bad) {
            std::string idx = read_file(dir + "/store.idx");
            idx.replace(mb.hdr.start_offset + (bad - 1) * INDEX_RECORD_SIZE + 40, 4, "\xff\xff\xff\x7f");
            write_file(dir + "/store.idx", idx);
            write_file(dir + "/store.exp", want += "xyz");
            want += std::string(5, '\0');
        }
        time_t t0 = time(nullptr);
        ASSERT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
        mboxdata mbd;
        auto after = entries(dir, &mbd);
        EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + (6 + 100) * INDEX_RECORD_SIZE);
        // Each survivor's entry moved down by the entries dropped before it.
        uint64_t below = 0, cache = 0, bytes = 0;
        uint32_t first = 0, maxsize = 0;
        bool copying = false;
        for (auto &[uid, e] : before) {
            if (uid == bad) {
                (copying ? cache : below) += e.cache.size();
                bytes += e.rec.size;
            } else if (!(copying = !gone.count(uid))) {
                below += e.cache.size();
            } else if (after.count(uid)) {
                EXPECT_EQ(after[uid].rec.rec_cache_offset, e.rec.rec_cache_offset - below);
                EXPECT_EQ(after[uid].cache, e.cache);
                cache += e.cache.size();
                bytes += e.rec.size;
                first = first ? first : uid;
                maxsize = std::max(maxsize, e.rec.size);
            }
        }
        EXPECT_EQ(after.size() + gone.size() + (bad ? 1 : 0), 6u);
        EXPECT_EQ(file_size(dir + "/store.idx"), (off_t)(mb.hdr.cache_offset + cache));
        EXPECT_TRUE(mbd.quota_used[0] == bytes && mbd.first_uid == first && mbd.max_size == maxsize);
        EXPECT_EQ(mbd.oldest_internaldate, first ? 1000000 + first - 1 : 0);
        EXPECT_EQ(mbd.mbd_flags, 1u);
        summaries_agree(mbd);
        // "store.exp" holds (time, uid) of each removed message.
        std::string exp = read_file(dir + "/store.exp");
        int32_t t = exp.size() >= want.size() + 4 ? *(const int32_t *)(exp.data() + want.size()) : 0;
        EXPECT_TRUE(t >= t0 && t <= time(nullptr));
        EXPECT_EQ(exp, want + std::accumulate(gone.begin(), gone.end(), std::string(),
                                              [&](std::string a, uint32_t uid) { return a + rec8(t, uid); }));
        // The message trace names each by its Message-ID.
        std::string trace = read_file(inst.path("log/msgtrace.log"));
        for (uint32_t uid : gone) {
            const std::string &text = corpus[uid - 1];
            std::string id = take(mailbox_getheadervalue("Message-ID", text.data(), text.size()));
            EXPECT_NE(trace.find("expunge:" + name + ":" + id + "\n"), std::string::npos) << id;
        }
    }
}

TEST_F(Expunge, KeepingEverythingRewritesOnlyWhenAskedOrToGrow) {
    for (unsigned n : {3, 0}) {  // a folder with messages, an empty one
        make("keep" + std::to_string(n), n);
        std::string idx = dir + "/store.idx", old = read_file(idx);
        ino_t ino = inode_of(idx);
        uint32_t oldcache = mb.hdr.cache_offset;
        for (mailbox_decideproc_t decide : {keep, none, n ? none : expungeall})
            EXPECT_EQ(mailbox_expunge(&mb, 0, 0, decide, nullptr), 0);
        EXPECT_EQ(inode_of(idx), ino);
        ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_FORCE, 0, n ? keep : expungeall, nullptr), 0);
        EXPECT_NE(inode_of(idx), ino);
        EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + (n + 100) * INDEX_RECORD_SIZE);
        EXPECT_EQ(read_file(idx).substr(mb.hdr.cache_offset), old.substr(oldcache));
        EXPECT_FALSE(file_exists(dir + "/store.exp"));
    }
    // Growth under the caller's lock, as delivery asks for it: the handle
    // moves to the new file and keeps it locked against other processes.
    make("big", 300);
    std::string idx = dir + "/store.idx";
    mb.open_mode |= OPEN_APPEND;
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    ASSERT_EQ(mailbox_expunge(&mb, EXPUNGE_LOCKED, 1, none, nullptr), 0);
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 601 * INDEX_RECORD_SIZE);
    struct stat st;
    ASSERT_EQ(fstat(mb.index_fd, &st), 0);
    EXPECT_TRUE(st.st_ino == inode_of(idx) && mb.index_lock_count == 1);
    EXPECT_FALSE(lockable_by_other(idx));
    mailbox_unlock_index(&mb);
    EXPECT_TRUE(lockable_by_other(idx));
    EXPECT_EQ(index_entries(dir).size(), 300u);
}

TEST_F(Expunge, CleaningRemovesTheFilesOfOldRecords) {
    TempDir tmp;
    std::string path = tmp.file("f"), mpath = tmp.file("m"), exp = path + "/store.exp";
    auto msg = [&](uint32_t uid) { return mpath + (uid < 100 ? "/00/" : "/01/") + std::to_string(uid) + ".msg"; };
    time_t now = time(nullptr);
    // uid 6 is listed nowhere; the record of uid 7 lies in the future.
    const std::string recs = rec8(now - 100, 5) + rec8(now - 100, 150) + rec8(now - 50, 160) +
                             rec8(now + 1000, 7) + rec8(now - 10, 8);
    const uint32_t uids[] = {5, 150, 160, 7, 8, 6};
    // The limits, and how many records have their files removed.
    struct { time_t limit; size_t done; } cases[] = {{now - 200, 0}, {now - 75, 2}, {now, 3}};
    for (auto &c : cases) {
        SCOPED_TRACE(c.limit - now);
        for (std::string d : {path, mpath, mpath + "/00", mpath + "/01"}) mkdir(d.c_str(), 0777);
        for (uint32_t uid : uids) write_file(msg(uid), "x");
        write_file(exp, "EXPVER01" + recs);
        ASSERT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), c.limit), 0);
        for (size_t i = 0; i < 6; i++) EXPECT_EQ(file_exists(msg(uids[i])), i >= c.done) << uids[i];
        EXPECT_EQ(read_file(exp), "EXPVER01" + recs.substr(8 * c.done));
    }
    // All done (a block cut short at the end): the file and the emptied
    // directory go; the directory with an unlisted file stays.
    write_file(exp, "EXPVER01" + rec8(now - 100, 150) + rec8(now - 100, 160) + "xyz");
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), now), 0);
    EXPECT_TRUE(!file_exists(exp) && !file_exists(mpath + "/01") && file_exists(msg(6)));
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), mpath.c_str(), now), IMAP_MAILBOX_NONEXISTENT);
    write_file(exp, "EXPVER02" + recs);
    EXPECT_EQ(mailbox_clean_expunge(path.c_str(), nullptr, now), IMAP_MAILBOX_BADFORMAT);
}

// Partition "small" lies on a tmpfs of its own, with few inodes.
TEST_F(Expunge, FailedRewriteLeavesTheFolderAsItWas) {
    Tmpfs fs(inst.path("small"), "size=2m,nr_inodes=64");
    if (fs.error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(fs.error);
    restart("store.partition.small.path: " + fs.dir);
    make("small", 3, "small");
    std::string idx = dir + "/store.idx", old = read_file(idx);
    ino_t ino = inode_of(idx);
    mboxdata mbd = mb.mbd;
    std::set<uint32_t> gone = {2};
    // A stale "index.new" and a reserve file hold inodes; no other is left.
    write_file(dir + "/index.new", "stale");
    int filler = open((fs.dir + "/filler").c_str(), O_CREAT | O_WRONLY, 0666);
    for (int i = 0, fd; (fd = open((fs.dir + "/" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0666)) >= 0; i++)
        close(fd);
    // Round 0: "store.exp" can't be made, after the row was written.
    // Round 1: no room for the new index.
    std::string block(65536, 'x');
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        while (round == 1 && write(filler, block.data(), block.size()) > 0) {}
        EXPECT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), IMAP_IOERROR);
        EXPECT_TRUE(read_file(idx) == old && inode_of(idx) == ino && mb.index_lock_count == 0);
        EXPECT_FALSE(file_exists(dir + "/index.new"));
        summaries_agree(mbd);
    }
    // With room again the same expunge goes through.
    close(filler);
    unlink((fs.dir + "/filler").c_str());
    EXPECT_EQ(mailbox_expunge(&mb, 0, 0, in_set, &gone), 0);
    EXPECT_EQ(index_entries(dir).size(), 2u);
}

// Delivery into folders on a store that this process brings up: uids,
// header texts and per-user flags before each header, flag names, refusals
// of the session set-up and of the quota, the stream form, single copies,
// and failures on a small file system of its own.
#include "store/append.h"
#include "store/mboxlist_create.h"
#include "store/seen_db.h"
#include "support/retry.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// The per-user text of user in the open folder mb.
std::string peruser(mailbox *mb, const char *user) {
    struct seen *h;
    char *text = nullptr;
    seen_open(mb, user, &h);
    int r = seen_lockread(h, nullptr, nullptr, nullptr, &text);
    seen_close(h);
    return r ? "error" : take(text);
}

// At each barrier (before a header that counts messages is written): the
// last uid of fred's seen list in the watched folder, and its last_uid.
std::vector<std::pair<unsigned long, unsigned>> at_barrier;
mailbox *watched;
void note_barrier(sync_event e, const char *) {
    if (e != SYNC_EVENT_BARRIER) return;
    std::string seen = peruser(watched, "fred");
    seen.resize(seen.find(' '));
    size_t p = seen.find_last_of(",:");
    at_barrier.emplace_back(strtoul(seen.c_str() + (p == std::string::npos ? 0 : p + 1), nullptr, 10),
                            watched->mbd.last_uid);
}

// A description of text that append_freemsg leaves in place.
appendmsg desc(const std::string &text, unsigned flags = APPENDMSG_STATIC, char *fname = nullptr) {
    appendmsg m = zeroappendmsg;
    m.flags = flags, m.base = text.data(), m.size = (unsigned)text.size(), m.fname = fname;
    return m;
}

class Append : public StoreTest {
  protected:
    void SetUp() override { restart(""); }
    void TearDown() override { mailbox_close(&mb), mailbox_close(&mb2), StoreTest::TearDown(); }
    // The store again with extra configuration lines; user/fred exists.
    void restart(const std::string &extra) {
        mailbox_close(&mb);
        mboxlist_reset_for_tests();
        if (base.empty()) base = read_file(inst.path("config/store.conf"));
        write_file(inst.path("config/store.conf"), base + extra);
        StoreTest::SetUp();
        if (!has_row("user/fred")) create("user/fred");
    }
    void create(const char *name, const char *partition = nullptr, uint32_t kb = QUOTA_UNLIMITED,
                uint32_t msgs = QUOTA_UNLIMITED, const char *acl = nullptr) {
        ASSERT_EQ(mboxlist_createmailbox(name, MAILBOX_VERSION, partition, nullptr, auth_dontCheckAcl,
                                         kb, msgs, 0, acl), 0) << name;
    }
    int begin(const char *name, long quotasize = 0, const auth_state *auth = auth_dontCheckAcl,
              unsigned long rights = 0, append_state *s = nullptr, mailbox *m = nullptr) {
        s = s ? s : &as;
        s->mailbox = m ? m : &mb;
        return append_setup(s, name, 0, MAILBOX_VERSION, auth, rights, quotasize);
    }
    int put(const std::string &text, std::vector<const char *> flags = {}, const char *user = "fred",
            unsigned wanted = 0) {
        appendmsg m = desc(text);
        return append_msg(&as, &m, 1000, flags.data(), (int)flags.size(), user, 0, 0, 0, wanted);
    }
    std::string base;
    mailbox mb = zeromailbox, mb2 = zeromailbox;
    append_state as, as2;
};

}  // namespace

// 210 messages, more than the first record area holds, with internal
// dates out of order, uids asked for below and above last_uid, a text put
// before one of them and a stale file where the first goes; fred's seen
// flags are in before each header that counts them. (Records and cache
// entries of real mail are checked end to end by the importmail tests.)
TEST_F(Append, UidsHeaderTextsAndSeenFlagsBeforeEachHeader) {
    std::vector<std::string> msgs = corpus_messages("kernel-list.mbox");
    ASSERT_EQ(msgs.size(), 210u);
    ASSERT_EQ(begin("user/fred"), 0);
    mkdir((std::string(mb.mpath) + "/00").c_str(), 0777);
    write_file(message_file(mb, 1), "stale");
    const std::map<size_t, unsigned> wanted = {{3, 2}, {4, 4}, {9, 50}, {150, 500}};
    const append_header prefix = {"X-Loaded: yes\r\n", 15};
    const char *seen[] = {"\\seen"};
    std::vector<unsigned> uids;
    std::vector<int32_t> dates;
    watched = &mb;
    sync_set_observer(note_barrier);
    for (size_t i = 0; i < msgs.size(); i++) {
        appendmsg m = desc(msgs[i]);
        m.header = i == 7 ? &prefix : nullptr;
        unsigned w = wanted.count(i) ? wanted.at(i) : 0;
        uids.push_back(std::max(w, mb.mbd.last_uid + 1));
        dates.push_back(1100000000 + (int)((i * 7919) % 1000) * 60);
        ASSERT_EQ(append_msg(&as, &m, dates[i], seen, 1, "fred", 0, 0, 0, w), 0) << i;
        append_freemsg(&m);
    }
    append_finish(&as);
    sync_set_observer(nullptr);
    msgs[7] = prefix.base + msgs[7];
    mboxdata mbd;
    std::vector<IndexEntry> got = index_entries(mb.path, &mbd);
    ASSERT_EQ(got.size(), 210u);
    for (size_t i = 0; i < got.size(); i++) {
        const index_record &r = got[i].rec;
        EXPECT_TRUE(r.uid == uids[i] && r.orig_uid == r.uid && r.orig_uidvalidity == mbd.uidvalidity &&
                    r.internaldate == dates[i] && r.size == msgs[i].size()) << i;
        EXPECT_EQ(read_file(message_file(mb, r.uid)), msgs[i]) << i;
    }
    EXPECT_TRUE(mbd.exists == 210 && mbd.last_uid == uids.back() && uids[9] == 50);
    EXPECT_EQ(mbd.oldest_internaldate, (uint32_t)*std::min_element(dates.begin(), dates.end()));
    EXPECT_EQ(mb.index_lock_count, 0u);
    ASSERT_GE(at_barrier.size(), 2u);  // the growth and the finish
    for (const auto &b : at_barrier) EXPECT_EQ(b.first, b.second);
}

// Seen and deleted runs with gaps, two users and no user: the ranges that
// the session gathers are written to peruser.db as one list each.
TEST_F(Append, PerUserRangesWithGapsAndUsers) {
    ASSERT_EQ(begin("user/fred"), 0);
    const struct { unsigned wanted; bool seen, deleted; const char *user; } msgs[] = {
        {0, 1, 0, "fred"}, {0, 1, 1, "fred"}, {0, 1, 0, "fred"}, {0, 0, 0, "fred"},   {0, 1, 0, "fred"},
        {0, 1, 1, "bob"},  {0, 1, 0, "fred"}, {10, 1, 1, "fred"}, {0, 0, 1, "fred"}, {0, 1, 1, nullptr},
        {0, 1, 0, "fred"}, {0, 1, 0, "fred"}};
    for (const auto &m : msgs) {
        std::vector<const char *> flags;
        if (m.seen) flags.push_back("\\seen");
        if (m.deleted) flags.push_back("\\deleted");
        ASSERT_EQ(put("Subject: x\r\n\r\n", flags, m.user, m.wanted), 0);
    }
    append_finish(&as);
    EXPECT_EQ(peruser(&mb, "fred"), "1:3,5,7,10,13:14 ,2,10:11");
    EXPECT_EQ(peruser(&mb, "bob"), "6 ,6");
    EXPECT_EQ(append_addperuser(&mb, "fred", 3, 1, 1), IMAP_MAILBOX_BADFORMAT);
}

// Standard flags and user flag names under the write right; names in
// another case share a slot; the 97th name is dropped with its message
// stored; without the write and delete rights only seen remains.
TEST_F(Append, FlagsAndUserFlagNames) {
    ASSERT_EQ(begin("user/fred"), 0);
    ASSERT_EQ(put("Subject: a\r\n\r\n", {"\\answered", "\\flagged", "\\draft", "Work", "$Label1"}), 0);
    ASSERT_EQ(put("Subject: b\r\n\r\n", {"WORK", "\\Flagged", "$label1"}), 0);
    for (int i = 2; i < 97; i++) ASSERT_EQ(put("Subject: c\r\n\r\n", {("name" + std::to_string(i)).c_str()}), 0);
    mb.myrights = 0x1FF & ~0x88u;  // no write, no delete
    ASSERT_EQ(put("Subject: d\r\n\r\n", {"\\seen", "\\deleted", "\\answered", "Work"}), 0);
    append_finish(&as), mailbox_close(&mb);
    ASSERT_EQ(mailbox_open("user/fred", 0, auth_dontCheckAcl, &mb), 0);
    std::vector<IndexEntry> e = index_entries(mb.path);
    ASSERT_EQ(e.size(), 98u);
    auto flags = [&](int i) { return e[i].rec.system_flags & 0xFF; };
    EXPECT_EQ(flags(0), FLAG_ANSWERED | FLAG_FLAGGED | FLAG_DRAFT | FLAG_NODOTS_CRLF);
    EXPECT_EQ(flags(1), FLAG_NODOTS_CRLF);  // "\Flagged" is no standard name
    EXPECT_EQ(e[0].rec.user_flags[0], 3u);
    EXPECT_EQ(e[1].rec.user_flags[0], 3u | 4u);  // "\Flagged" became a user flag
    EXPECT_TRUE(mb.flagname[0] && !strcmp(mb.flagname[0], "Work") && !strcmp(mb.flagname[2], "\\Flagged"));
    EXPECT_EQ(e[94].rec.user_flags[2], 1u << 31);  // the 96th slot
    for (int i : {95, 96})
        EXPECT_TRUE(e[i].rec.user_flags[0] == 0 && e[i].rec.user_flags[1] == 0 && e[i].rec.user_flags[2] == 0);
    EXPECT_TRUE(flags(97) == FLAG_NODOTS_CRLF && e[97].rec.user_flags[0] == 0);
    EXPECT_EQ(peruser(&mb, "fred"), "98 ");
}

// Set-up refusals by quota (and its three switches), rights, format, the
// folder's message limit and the partition full byte; a refused set-up has
// closed the folder.
TEST_F(Append, SetupRefusals) {
    create("user/q0", nullptr, 0);
    create("user/q1", nullptr, 1);
    create("user/qm", nullptr, QUOTA_UNLIMITED, 0);
    create("user/fred/shared", nullptr, QUOTA_UNLIMITED, QUOTA_UNLIMITED, "fred\tlrswipcda\tbob\tl\t");
    auth_state *bob = auth_newstate("bob", nullptr, 0), *carol = auth_newstate("carol", nullptr, 0);
    const auth_state *all = auth_dontCheckAcl;
    const struct { const char *config, *name; long quotasize; const auth_state *auth; unsigned long rights;
                   int result; uint64_t reserved; } cases[] = {
        {"", "user/q0", 0, all, 0, 0, 0},  // no test at all
        {"", "user/q0", 1, all, 0, IMAP_QUOTA_EXCEEDED, 0}, {"", "user/qm", 1, all, 0, IMAP_QUOTA_EXCEEDED, 0},
        {"", "user/q1", -2048, all, 0, IMAP_MESSAGE_TOO_LARGE, 0},
        {"", "user/q1", 2048, all, 0, IMAP_QUOTA_EXCEEDED, 0}, {"", "user/q1", -1024, all, 0, 0, 1024},
        {"", "user/fred/shared", 0, bob, 0x10, IMAP_PERMISSION_DENIED, 0},
        {"", "user/fred/shared", 0, carol, 0x10, IMAP_MAILBOX_NONEXISTENT, 0},
        {"", "user/fred/shared", 0, carol, APPEND_NO_RIGHTS, 0, 0},
        {"store.quotagraceperiod: 0\n", "user/q0", 1, all, 0, IMAP_QUOTA_EXCEEDED_PERSISTENT, 0},
        {"store.quotaenforcement: 0\n", "user/q0", 5000, all, 0, 0, 0},
        {"local.store.quotaoverdraft: 1\n", "user/q1", 5000, all, 0, 0, 0},
        {"local.store.overquotastatus: 1\nstore.quotaenforcement: 0\n", "user/q0", 5, all, 0, IMAP_QUOTA_EXCEEDED, 0},
    };
    std::string config;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.config) + c.name + " " + std::to_string(c.quotasize));
        if (c.config != config) restart(config = c.config);
        ASSERT_EQ(begin(c.name, c.quotasize, c.auth, c.rights), c.result);
        EXPECT_EQ(mb.index_lock_count, c.result ? 0u : 1u);
        EXPECT_EQ(mb.index_fd == -1, c.result != 0);
        if (c.result) continue;
        EXPECT_EQ(as.reserved_bytes, c.reserved);
        append_finish(&as), mailbox_close(&mb);
    }
    auth_freestate(bob), auth_freestate(carol);
    EXPECT_EQ(append_setup(&as, "user/fred", 0, MAILBOX_VERSION_OLD, auth_dontCheckAcl, 0, 0),
              IMAP_MAILBOX_NOTSUPPORTED);
    // One below the limit takes one more message, then no more.
    restart("local.store.maxmessages: 2\n");
    for (int r : {0, 0, IMAP_MESSAGE_EXHAUSTED}) {
        ASSERT_EQ(begin("user/fred"), r);
        if (r) break;
        ASSERT_EQ(put("Subject: x\r\n\r\n"), 0);
        append_finish(&as), mailbox_close(&mb);
    }
    // "partition.lck" holds one byte per partition id ("other" 0,
    // "primary" 1); the check is set up once, until append_exit. (A quota
    // warning above may have set it up already, for the directory.)
    append_exit();
    const struct { const char *parts, *lck; bool exit_first; int result; } steps[] = {
        {"2\nother\nprimary\n", "10", false, 0}, {nullptr, "11", false, IMAP_PARTITION_FULL},
        {"1\nother\n", nullptr, false, IMAP_PARTITION_FULL}, {nullptr, nullptr, true, IMAP_PARTITION_UNKNOWN}};
    for (const auto &step : steps) {
        if (step.parts) write_file(inst.path("config/store.parts"), step.parts);
        if (step.lck) write_file(inst.path("data/lock/partition.lck"), step.lck);
        if (step.exit_first) append_exit();
        ASSERT_EQ(append_init(), 0);
        EXPECT_EQ(begin("user/fred/shared"), step.result);
        if (step.result == 0) append_finish(&as), mailbox_close(&mb);
    }
    append_exit();
}

// The quota decision at its edges: 64-bit byte counts, a message limit of
// "none", and the grace period from the first going over.
TEST_F(Append, QuotaDecision) {
    const uint32_t none = QUOTA_UNLIMITED, now = (uint32_t)time(nullptr);
    const struct { uint64_t used, limit; uint32_t messages, limit_messages, over_since; int result; } cases[] = {{1024, 1024, 10, 10, 0, 0}, {1025, 1024, 1, none, 0, IMAP_QUOTA_EXCEEDED},
                 {0, 1024, 11, 10, 0, IMAP_QUOTA_EXCEEDED}, {5ull << 32, 4ull << 32, none, none, 0, IMAP_QUOTA_EXCEEDED},
                 {4ull << 32, 5ull << 32, none, none, 0, 0}, {2, 1, 1, none, now - 3600, IMAP_QUOTA_EXCEEDED},
                 {2, 1, 1, none, now - 121 * 3600, IMAP_QUOTA_EXCEEDED_PERSISTENT}};
    for (const auto &c : cases) {
        quotadata q = {};
        q.limit_messages = c.limit_messages, q.over_since = c.over_since;
        EXPECT_EQ(append_quota_eval(c.used, c.limit, c.messages, &q), c.result) << c.used << " " << c.messages;
    }
}

// The stream form: header blocks completed where the message ended, bad
// bytes refused in any chunk (the file removed), one stream object used
// for message after message.
TEST_F(Append, StreamRepairsAndRefusals) {
    const std::string x = "Subject: x\r\n", nul("Subj\0ect", 8);
    const struct { std::vector<std::string> chunks; int result; std::string stored; } cases[] = {
        {{"Subject: x"}, 0, x + "\r\n"}, {{"Subject"}, 0, "Subject:\r\n\r\n"}, {{""}, 0, "\r\n"},
        {{"Subject: x\r"}, 0, x + "\r\n"}, {{x}, 0, x + "\r\n"}, {{x + "\r"}, 0, x + "\r\n"},
        {{"Sub", "ject: x\r", "\n folded\r\n\r", "\nbody"}, 0, "Subject: x\r\n folded\r\n\r\nbody"},
        {{"Subject: x\n"}, IMAP_MESSAGE_CONTAINSNL, ""}, {{x + "\r\n", "body\nmore"}, IMAP_MESSAGE_CONTAINSNL, ""},
        {{x, nul}, IMAP_MESSAGE_CONTAINSNULL, ""}, {{" folded first"}, IMAP_MESSAGE_BADHEADER, ""},
        {{"No colon\r\n"}, IMAP_MESSAGE_BADHEADER, ""}, {{x + "\r\n\r\nbody\r\n"}, 0, x + "\r\n\r\nbody\r\n"},
    };
    ASSERT_EQ(begin("user/fred"), 0);
    astream st = {};
    st.state = &as, st.destfd = -1;
    std::vector<size_t> sizes;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.chunks[0]);
        unsigned size = 0, last = mb.mbd.last_uid;
        for (const std::string &k : c.chunks) size += (unsigned)k.size();
        ASSERT_EQ(append_stream_start(&st, size), 0);
        int r = 0;
        for (const std::string &k : c.chunks)
            if (!r) r = append_stream_data(&st, k.data(), (unsigned)k.size());
        if (!r) r = append_stream_finish(&st, 1000, nullptr, 0, "fred", 0);
        EXPECT_EQ(r, c.result);
        EXPECT_EQ(mb.mbd.last_uid, last + (r ? 0 : 1));
        EXPECT_EQ(read_file(message_file(mb, last + 1)), c.stored);
        if (!r) sizes.push_back(c.stored.size());
    }
    append_finish(&as);
    std::vector<IndexEntry> e = index_entries(mb.path);
    ASSERT_EQ(e.size(), sizes.size());
    for (size_t i = 0; i < e.size(); i++) EXPECT_EQ(e[i].rec.size, sizes[i]);
}

// One message delivered to two folders of a partition is one file.
TEST_F(Append, OneFileForTwoFolders) {
    create("user/fred/other");
    ASSERT_EQ(begin("user/fred"), 0);
    ASSERT_EQ(begin("user/fred/other", 0, auth_dontCheckAcl, 0, &as2, &mb2), 0);
    std::string text = corpus_messages("list-archive.mbox")[0];
    appendmsg *m = new (malloc(sizeof(appendmsg))) appendmsg(desc(text, 0));  // freed by append_freemsg
    m->singlecopy_key = "primary";
    for (append_state *s : {&as, &as2}) ASSERT_EQ(append_msg(s, m, 1000, nullptr, 0, nullptr, 0, 0, 0, 0), 0);
    EXPECT_EQ(read_file(message_file(mb2, 1)), text);
    EXPECT_EQ(inode_of(message_file(mb, 1)), inode_of(message_file(mb2, 1)));
    EXPECT_EQ(std::string(append_locate_singlecopy(m, "primary")), message_file(mb, 1));
    append_freemsg(m), append_finish(&as), append_finish(&as2);
}

// A message that fails for want of room, in its file or in the rewrite
// of the flag names behind its record, leaves no file, no cache entry and
// no count; the session goes on and its header counts what was delivered.
// A message whose file lies on another file system is copied. Partition
// "small" lies on a tmpfs of its own.
TEST_F(Append, FailedMessagesLeaveNoTrace) {
    Tmpfs fs(inst.path("small"), "size=2m");
    if (fs.error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(fs.error);
    restart("store.partition.small.path: " + fs.dir + "\n");
    create("user/sm", "small");
    ASSERT_EQ(begin("user/sm"), 0);
    ASSERT_EQ(put("Subject: 1\r\n\r\none\r\n"), 0);
    append_flush_peruser(&as);  // the first message's index data waits no longer
    const std::string idx = std::string(mb.path) + "/store.idx", flag(200, 'f'), text = "Subject: 2\r\n\r\ntwo\r\n";
    const mboxdata before = mb.mbd;
    const off_t idxsize = file_size(idx);
    int filler = open((fs.dir + "/filler").c_str(), O_CREAT | O_WRONLY, 0666);
    for (size_t chunk : {65536, 4096})
        for (std::string block(chunk, 'x'); write(filler, block.data(), chunk) == (ssize_t)chunk;) {}
    off_t full = lseek(filler, 0, SEEK_END);
    // Round 0: no room for the file; round 1: room for file and cache
    // entry, none for the new flag name's header.
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        EXPECT_EQ(round == 1 ? ftruncate(filler, full - 8192) : 0, 0);
        EXPECT_EQ(put(text, {flag.c_str()}), IMAP_IOERROR);
        EXPECT_FALSE(file_exists(message_file(mb, 2)));
        EXPECT_EQ(file_size(idx), idxsize);
        EXPECT_EQ(memcmp(&mb.mbd, &before, sizeof before), 0);
        EXPECT_TRUE(as.added_messages == 1 && mb.flagname[0] == nullptr);
    }
    ASSERT_EQ(ftruncate(filler, 0), 0);
    close(filler);
    ASSERT_EQ(put(text, {flag.c_str()}), 0);
    std::string outside = inst.path("outside.msg"), three = "Subject: 3\r\n\r\n";
    write_file(outside, three);
    appendmsg m = desc(three, APPENDMSG_STATIC | APPENDMSG_FNAME_BORROWED, &outside[0]);
    ASSERT_EQ(append_msg(&as, &m, 1000, nullptr, 0, nullptr, 0, 0, 0, 0), 0);
    append_finish(&as);
    mboxdata mbd;
    std::vector<IndexEntry> e = index_entries(mb.path, &mbd);
    ASSERT_EQ(e.size(), 3u);
    EXPECT_TRUE(e[1].rec.uid == 2 && e[1].rec.user_flags[0] == 1 && mbd.last_uid == 3);
    EXPECT_EQ(read_file(message_file(mb, 2)), text);
    EXPECT_EQ(read_file(message_file(mb, 3)), three);
    EXPECT_NE(inode_of(message_file(mb, 3)), inode_of(outside));
}

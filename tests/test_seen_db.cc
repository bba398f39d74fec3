// Per-user flag records of "peruser.db": the record text, the locked
// read-modify-write of one pair of folder and user (also between
// processes), folder create and delete, the range form with its lookups,
// and the rebuild from "store.usr".
#include "store/seen_db.h"
#include "support/lock.h"
#include "tests/testutil.h"

using namespace testutil;
using Keys = std::vector<std::string>;

namespace {

// An open folder as the records see it: name, directory, last_uid, exists.
struct Folder {
    Folder(const std::string &n, const std::string &dir, uint32_t last_uid, uint32_t exists = 0)
        : name(n), path(dir) {
        if (!dir.empty()) run_command("mkdir -p '" + dir + "'");
        mb = zeromailbox;
        mb.name = const_cast<char *>(name.c_str());
        mb.path = const_cast<char *>(path.c_str());
        mb.mbd.last_uid = last_uid;
        mb.mbd.exists = exists;
    }
    std::string name, path;
    struct mailbox mb;
};

// The records whose keys begin with prefix, in database order, as
// "key=value"; a folder's own record (a key without TAB) shows its word.
Keys records(const std::string &prefix) {
    Keys out;
    DBC *c;
    DBT k = {}, v = {};
    k.flags = v.flags = DB_DBT_MALLOC;
    if (userflagdb->cursor(userflagdb, nullptr, &c, 0) != 0) return out;
    while (c->c_get(c, &k, &v, DB_NEXT) == 0) {
        std::string key(static_cast<char *>(k.data), k.size), val(static_cast<char *>(v.data), v.size);
        uint32_t word = 0;
        memcpy(&word, val.data(), std::min<size_t>(val.size(), 4));
        if (key.find('\t') == std::string::npos) val = "#" + std::to_string(word);
        if (key.compare(0, prefix.size(), prefix) == 0) out.push_back(key + "=" + val);
        free(k.data);
        free(v.data);
    }
    c->c_close(c);
    return out;
}
// The value of one record as records() shows it, or "<none>".
std::string raw(const std::string &key) {
    for (const std::string &r : records(key))
        if (r.compare(0, key.size() + 1, key + "=") == 0) return r.substr(key.size() + 1);
    return "<none>";
}
void put(const std::string &k, const std::string &v) { ASSERT_TRUE(db_put(userflagdb, k, v)); }
std::string word(uint32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); }

// What seen_lockread gives: "rc lastread recentuid lastchange|text".
std::string lockread(struct seen *h) {
    time_t lastread = 99, lastchange = 99;
    unsigned recent = 99;
    char *text = nullptr;
    int rc = seen_lockread(h, &lastread, &recent, &lastchange, &text);
    return std::to_string(rc) + " " + std::to_string(lastread) + " " + std::to_string(recent) +
           " " + std::to_string(lastchange) + "|" + take(text);
}

using RangeList = std::vector<std::pair<uint32_t, uint32_t>>;
const std::pair<uint32_t, uint32_t> kEnd(SEEN_RANGE_END, SEEN_RANGE_END);
RangeList ranges(const seen_range *a, int n) {
    RangeList v;
    for (int i = 0; a && i < n; i++) v.emplace_back(a[i].low, a[i].high);
    return v;
}

class SeenStore : public StoreTest {
  protected:
    std::string dir(const std::string &rel) { return inst.path("partitions/primary/" + rel); }
};

}  // namespace

TEST_F(SeenStore, RecordTextAndLockedReadWrite) {
    Folder f("user/bob/a", dir("bob/a"), 20);
    struct seen *h = nullptr;
    ASSERT_EQ(seen_open(&f.mb, "fred", &h), 0);
    EXPECT_EQ(raw("user/bob/a"), "#1");  // no record, no "store.usr": made new
    EXPECT_EQ(lockread(h), "0 0 0 0| ");  // a user without a record: two empty lists
    EXPECT_EQ(f.mb.peruser_lock_count, 1u);
    time_t before = time(nullptr);
    ASSERT_EQ(seen_write(h, 5, 3, 9, "1:3,7 "), 0);
    EXPECT_EQ(raw("user/bob/a\tfred"), "5 3 9 1:3,7 ");  // no terminators anywhere
    uint32_t t = (uint32_t)atol(raw("user/bob/a").c_str() + 1);
    EXPECT_TRUE(t >= (uint32_t)before && t <= (uint32_t)time(nullptr));
    // The mutex stays held: a second read must not take it again.
    EXPECT_EQ(lockread(h), "0 5 3 9|1:3,7 ");
    seen_unlock(h);
    EXPECT_EQ(f.mb.peruser_lock_count, 0u);
    seen_close(h);
    // The text is the two lists and the white space between them only; a
    // record cut short is read within its size.
    put("user/bob/a\tjoe", "12 4 4000000001 ,,2:4,9 ,5:6 tail\nmore");
    ASSERT_EQ(seen_open(&f.mb, "joe", &h), 0);
    EXPECT_EQ(lockread(h), "0 12 4 4000000001|,,2:4,9 ,5:6");
    put("user/bob/a\tjoe", "7 1");
    EXPECT_EQ(lockread(h), "0 7 1 0|");
    seen_close(h);
}

TEST_F(SeenStore, MutexIsPerPairAndReleasedByClose) {
    Folder f("user/bob/a", dir("bob/a"), 20);
    struct seen *h;
    ASSERT_EQ(seen_open(&f.mb, "fred", &h), 0);
    ASSERT_EQ(seen_lockread(h, nullptr, nullptr, nullptr, nullptr), 0);
    // Another process asks for the mutex of a pair by its name and says on
    // the pipe when it has it.
    auto contender = [](Pipe &p, const char *name) {
        return spawn([&p, name]() {
            return db_globalmutex_hold(db_globalmutex_open(name)) == 0 && write(p.w, "x", 1) == 1 ? 0 : 1;
        });
    };
    Pipe other, same;
    pid_t o = contender(other, "user/bob/a\tjoe peruser");
    EXPECT_EQ(read_byte(other.r, 5000), 'x');  // another user: no wait
    EXPECT_EQ(wait_child(o), 0);
    pid_t s = contender(same, "user/bob/a\tfred peruser");
    EXPECT_EQ(read_byte(same.r, 400), -1);
    seen_close(h);  // without seen_unlock
    EXPECT_EQ(f.mb.peruser_lock_count, 0u);
    int got = read_byte(same.r, 5000);
    EXPECT_EQ(got, 'x');
    if (got != 'x') kill(s, SIGKILL);
    EXPECT_EQ(wait_child(s), 0);
}

TEST_F(SeenStore, RangesAndLookups) {
    Folder f("user/bob/a", dir("bob/a"), 20);
    PerUserFlags fl;
    ASSERT_EQ(getPerUserFlags(&f.mb, "nobody", &fl), 0);  // never used
    EXPECT_EQ(ranges(fl.seen, fl.nseen), RangeList({kEnd}));
    EXPECT_FALSE(fl.deleted || isSeen(&fl, 1) || isDeleted(&fl, 1) || isSeen(&fl, SEEN_RANGE_END));
    freeUserFlags(&fl);
    // Leading and doubled commas, and a ":" without a high end, are
    // skipped; a garbled list keeps what came before the bad place, with a
    // warning.
    const struct { const char *stored; RangeList seen, deleted; bool warned; } cases[] = {
        {"5 3 9 1:3,7 ", {{1, 3}, {7, 7}, kEnd}, {}, false},  // an empty list: no array
        {"5 3 9 ,,2:4,,9,11: ,5:6", {{2, 4}, {9, 9}, {11, 11}, kEnd}, {{5, 6}, kEnd}, false},
        {"0 0 0 1,5,3,8 ", {{1, 1}, {5, 5}, kEnd}, {}, true},  // out of order
        {"0 0 0 1,2:500 ", {{1, 1}, kEnd}, {}, true},          // above last_uid
        {"0 0 0 6:3 ", {kEnd}, {}, true}, {"0 0 0 1,x,3 ", {{1, 1}, kEnd}, {}, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.stored);
        inst.newLog();
        put("user/bob/a\tfred", c.stored);
        ASSERT_EQ(getPerUserFlags(&f.mb, "fred", &fl), 0);
        EXPECT_EQ(std::to_string(fl.lastread) + " " + std::to_string(fl.recentuid) + " " +
                      std::to_string(fl.lastchange), std::string(c.stored).substr(0, 5));
        EXPECT_EQ(ranges(fl.seen, fl.nseen), c.seen);
        EXPECT_EQ(ranges(fl.deleted, fl.ndeleted), c.deleted);
        freeUserFlags(&fl);
        EXPECT_TRUE(fl.seen == nullptr && fl.nseen == 0);
        EXPECT_EQ(!inst.newLog().empty(), c.warned);
    }
    // A growing range array, every uid looked up: SeenProcesses.ConcurrentWritersLoseNoRange.
}

TEST_F(SeenStore, CreateAndDeleteTouchTheFolderOnly) {
    Folder a("user/bob/a", dir("bob/a"), 20), ab("user/bob/ab", dir("bob/ab"), 20);
    Folder o("user/bob/o", dir("bob/o"), 20);
    ASSERT_EQ(seen_create(&a.mb), 0);
    EXPECT_EQ(raw("user/bob/a"), "#1");
    put("user/bob/a\tbob", "1 2 3 1:2 ");
    put("user/bob/a\tbobby", "7 8 9  ");
    put("user/bob/ab", word(1));
    put("user/bob/ab\tbob", "1 1 1 1 ");
    put("user/bob/a/b\tbob", "2 2 2 2 ");  // user records left without their folder's record
    put("user/bob/o\tbob", "3 3 3 3 ");
    // Delete takes the folder with its users, not its neighbours nor
    // records without a folder, and the checkpoint file only when asked.
    write_file(a.path + "/store.usr", "bob\t1 2 3 1:2 \n");
    write_file(ab.path + "/store.usr", "bob\t1 1 1 1 \n");
    ASSERT_EQ(seen_delete(&a.mb, 1), 0);
    ASSERT_EQ(seen_delete(&o.mb, 1), 0);
    EXPECT_EQ(records("user/bob/"), Keys({"user/bob/a/b\tbob=2 2 2 2 ", "user/bob/ab=#1",
                                          "user/bob/ab\tbob=1 1 1 1 ", "user/bob/o\tbob=3 3 3 3 "}));
    EXPECT_FALSE(file_exists(a.path + "/store.usr"));
    ASSERT_EQ(seen_delete(&ab.mb, 0), 0);
    EXPECT_EQ(records("user/bob/ab"), Keys());
    EXPECT_TRUE(file_exists(ab.path + "/store.usr"));
    EXPECT_EQ(seen_delete(&a.mb, 1), 0);  // nothing left: no failure
}

TEST_F(SeenStore, RebuildFromCheckpointFile) {
    Folder f("user/bob/r", dir("bob/r"), 50);
    write_file(f.path + "/store.usr", "fred\t5 3 9 1:3,7 \nno tab here 1 2 3\n"
                         "joe\t1 2 3 1:2:3,0,60 ,4\ngone\t1 99 3  \n"  // recentuid above last_uid
                         "last\t1 2 3  ");   // no line feed
    struct seen *h;
    ASSERT_EQ(seen_open(&f.mb, "fred", &h), 0);
    seen_close(h);
    EXPECT_EQ(records("user/bob/r"),
              Keys({"user/bob/r=#0", "user/bob/r\tfred=5 3 9 1:3,7 ", "user/bob/r\tjoe=1 2 3 1:2,3 4"}));
}

TEST(SeenFixdata, RepairsAndRemovals) {
    const char *cases[][2] = {
        // value, repaired text ("=": good as it is, "-": removed)
        // "1:2:3", a 0 and a recentuid above last_uid: RebuildFromCheckpointFile.
        {"5 3 9 1:3,7 4:6", "="}, {"5 3 9  ", "="}, {"1 2 3 3:99 ", "1 2 3 3 "},
        {"1 2 3 ,5 8: junk", "1 2 3 5 8"}, {"1 2 3 1:3", "-"}, {"1 2 3 1x 4", "-"}, {"1 2 3", "-"}};
    for (const auto &c : cases) {
        char *out = nullptr;
        int r = seen_fixdata(&out, c[0], c[0] + strlen(c[0]), 50, 1000000, 0, 0, "u", nullptr, nullptr);
        std::string want = c[1];
        EXPECT_EQ(r, want == "=" ? 0 : 1) << c[0];
        EXPECT_EQ(take(out), want == "=" || want == "-" ? "<null>" : want) << c[0];
    }
    // A clock far ahead counts as now for the age tests, and stays.
    Keys active;
    auto cb = [](void *r, const char *u) { static_cast<Keys *>(r)->push_back(u); };
    const time_t now = 1000000;
    const char *future = "2000000 1 1 1 ", *old = "500 1 1 1 ";
    char *out = nullptr;
    EXPECT_EQ(seen_fixdata(&out, future, future + 14, 50, now, now - 1, now - 10, "ann", cb, &active), 0);
    EXPECT_EQ(seen_fixdata(&out, old, old + 10, 50, now, 500, 501, "bea", cb, &active), 1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(seen_fixdata(&out, old, old + 10, 50, now, 499, 500, "cid", cb, &active), 0);
    EXPECT_EQ(active, Keys({"ann", "cid"}));
}

TEST(SeenProcesses, ConcurrentWritersLoseNoRange) {
    Instance inst;
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/stored.out"));
    const int rounds = 150;
    const std::string path = inst.path("partitions/primary/share/inbox");
    // Each writer adds its own uids to the seen list, kept ascending, one
    // read-modify-write at a time.
    pid_t pids[2];
    for (int w = 0; w < 2; w++) {
        pids[w] = spawn([&, w]() {
            if (!join_store(w ? "writer-b" : "writer-a")) return 10;
            Folder f("user/share/inbox", path, 2 * rounds);
            for (int i = 0; i < rounds; i++) {
                struct seen *h;
                time_t lastread, lastchange;
                unsigned recent;
                char *text = nullptr;
                seen_open(&f.mb, "pat", &h);
                if (seen_lockread(h, &lastread, &recent, &lastchange, &text) != 0) return 11;
                std::string t = take(text), list;
                std::set<unsigned long> uids = {(unsigned long)(2 * i + 1 + w)};
                for (const char *p = t.c_str(); *p && *p != ' '; p += *p == ',')
                    uids.insert(strtoul(p, const_cast<char **>(&p), 10));
                for (unsigned long u : uids) list += (list.empty() ? "" : ",") + std::to_string(u);
                t.replace(0, t.find(' '), list);
                usleep(200);  // widen the window between read and write
                if (seen_write(h, lastread, recent, time(nullptr), t.c_str()) != 0) return 13;
                seen_close(h);
            }
            mboxlist_close();
            return 0;
        });
    }
    for (pid_t p : pids) EXPECT_EQ(wait_child(p), 0);
    // A fresh reader finds every uid of both writers.
    EXPECT_EQ(in_child([&]() {
                  if (!join_store("reader")) return 19;
                  Folder f("user/share/inbox", path, 2 * rounds);
                  PerUserFlags fl;
                  if (getPerUserFlags(&f.mb, "pat", &fl) != 0) return 20;
                  for (uint32_t uid = 1; uid <= 2 * rounds; uid++)
                      if (!isSeen(&fl, uid)) return 21;
                  return fl.nseen == 2 * rounds + 1 && !fl.deleted ? 0 : 22;
              }), 0);
}

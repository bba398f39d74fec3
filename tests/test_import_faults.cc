// Delivery under faults: importmail killed at random moments, two loaders
// into one folder at once, input and disks that fail part way. After each
// fault the folder opens without complaint, counts only whole messages,
// and holds everything that was stored before.
#include <sys/mount.h>
#include <sys/resource.h>

#include <chrono>
#include <random>

#include "tests/testutil.h"

namespace {

using Texts = std::vector<std::string>;
using namespace testutil;
const std::string list = read_file(corpus_path("list-archive.mbox"));

// Whether texts is leading parts of want, one behind the other; *tail gets
// the length of the last.
bool prefixRuns(const Texts &texts, const Texts &want, size_t *tail) {
    size_t j = 0;
    for (const std::string &t : texts) {
        if (!(j < want.size() && t == want[j]) && t != want[0]) return false;
        j = j < want.size() && t == want[j] ? j + 1 : 1;
    }
    *tail = j;
    return true;
}

class ImportFaults : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(inst.startStored()); }
    std::string bin(const char *prog) { return binary_dir() + "/bin/" + prog; }
    int run(const std::string &args, std::string *err = nullptr) {
        return inst.run("importmail", "-v 0 -c y " + args, nullptr, err, 120);
    }
    // importmail -c y of file into folder of user, as a child of this process.
    pid_t start(const std::string &user, const char *folder, const std::string &file) {
        std::string prog = bin("importmail");
        return spawn([&] {
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1), dup2(null, 2);
            execl(prog.c_str(), "importmail", "-v", "0", "-c", "y", "-u", user.c_str(), "-d",
                  folder, "-s", file.c_str(), (char *)nullptr);
            return 127;
        });
    }
    std::string input(const std::string &name, const std::string &data) {
        write_file(inst.path(name), data);
        return inst.path(name);
    }
    // Error and critical lines of the store's programs (not of the daemon
    // clearing up after them) logged since the last call.
    std::string newErrors() {
        std::string bad;
        for (const std::string &l : split_lines(inst.newLog()))
            if (l.find(" stored[") == std::string::npos && matches("\\] (error|critical): ", l)) bad += l + "\n";
        return bad;
    }
    Texts folder(const std::string &user, const std::string &name, std::string *dir = nullptr);

    Instance inst;
};

// Opens the folder through showfolder, which must not complain, and checks
// its index against its files: the header counts exactly the records
// shown, uids ascend, each record's message file has the record's size,
// and each cache entry lies whole in the cache area behind the one before.
// The texts of the messages in record order.
Texts ImportFaults::folder(const std::string &user, const std::string &name, std::string *dir) {
    std::string out, err;
    EXPECT_EQ(inst.run("showfolder", "-m " + user + " " + name, &out, &err, 30), 0) << err;
    EXPECT_EQ(err, "") << user << " " << name;
    std::vector<std::string> files;
    unsigned shown = ~0u;
    for (const std::string &l : split_lines(out)) {
        if (l.compare(0, 14, "Messages    : ") == 0) shown = (unsigned)std::stoul(l.substr(14));
        if (l.compare(0, 14, "File Name   : ") == 0) files.push_back(l.substr(14));
    }
    EXPECT_EQ(shown, files.size()) << out.substr(0, 1000);
    Texts texts;
    if (files.empty()) return texts;
    std::string d = files[0].substr(0, files[0].rfind('/', files[0].rfind('/') - 1));
    if (dir) *dir = d;
    mboxdata mbd;
    std::vector<IndexEntry> e = index_entries(d, &mbd);
    EXPECT_TRUE(mbd.exists == files.size() && e.size() == files.size()) << d << ": " << e.size() << " records";
    uint64_t total = 0, cacheEnd = 0;
    for (size_t i = 0; i < e.size() && i < files.size(); i++) {
        const index_record &rec = e[i].rec;
        EXPECT_TRUE(i == 0 || rec.uid > e[i - 1].rec.uid) << d << " record " << i + 1;
        texts.push_back(read_file(files[i]));
        EXPECT_EQ(texts.back().size(), rec.size) << files[i];
        total += rec.size;
        EXPECT_GE(rec.rec_cache_offset, cacheEnd) << d << " uid " << rec.uid << ": cache entries overlap";
        EXPECT_EQ(cache_items(e[i].cache).size(), 11u) << d << " uid " << rec.uid << ": cache entry cut short";
        cacheEnd = rec.rec_cache_offset + e[i].cache.size();
    }
    EXPECT_LE(e.empty() ? 0 : e.back().rec.uid, mbd.last_uid) << d;
    EXPECT_EQ(mbd.quota_used[0] | (uint64_t)mbd.quota_used[1] << 32, total) << d;
    return texts;
}

}  // namespace

// A loader killed at random moments while the record area grows several
// times: after each kill the folder holds leading parts of the file, and
// the next whole load adds the whole file.
TEST_F(ImportFaults, KilledLoaderLeavesWholeMessages) {
    std::string big = input("big.mbox", corpus_all(6));
    Texts want = scan_texts(read_file(big));
    ASSERT_GT(want.size(), 1600u);
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(wait_child(start("joe", "Whole", big)), 0);
    auto full = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0);
    EXPECT_TRUE(folder("joe", "Whole") == want);
    ASSERT_EQ(run("-u joe -d Crash -s " + input("empty.mbox", "")), 0);  // makes the folder
    unsigned seed = (unsigned)time(nullptr);
    std::mt19937 rng(seed);
    RecordProperty("seed", (int)seed);
    size_t before = 0, tail = 0;
    int kills = 0, restarts = 0;
    for (int round = 0; round < 15; round++) {
        pid_t pid = start("joe", "Crash", big);
        ASSERT_GT(pid, 0);
        usleep((useconds_t)(rng() % (unsigned long)full.count()));
        kills += kill(pid, SIGKILL) == 0;
        int st = wait_child(pid);
        ASSERT_TRUE(st == 0 || st == 128 + SIGKILL) << st;
        // The daemon clears up after the dead loader within a second; one
        // that died inside the database library makes the daemon end, and
        // a new start recovers the database.
        usleep(1100 * 1000);
        if (inst.waitStored(0) >= 0) {
            ASSERT_TRUE(inst.storedStatus() == 75 && inst.startStored() && ++restarts);
        }
        Texts now = folder("joe", "Crash");
        ASSERT_FALSE(HasFailure()) << "round " << round << " (seed " << seed << ")";
        EXPECT_GE(now.size(), before);
        before = now.size();
        EXPECT_TRUE(prefixRuns(now, want, &tail)) << "round " << round << " (seed " << seed << ")";
        EXPECT_EQ(newErrors(), "") << "round " << round;
    }
    EXPECT_GT(kills, 10);
    RecordProperty("restarts", restarts);
    ASSERT_EQ(wait_child(start("joe", "Crash", big)), 0);
    Texts end = folder("joe", "Crash");
    EXPECT_EQ(end.size(), before + want.size());
    EXPECT_TRUE(prefixRuns(end, want, &tail) && tail == want.size());
    EXPECT_EQ(newErrors(), "");
}

// Two loaders of different files into one new folder of a new user: both
// succeed, and the folder holds each message once.
// What was committed stays when the daemon dies and a new start recovers:
// commits without a log sync must still reach the log file.
TEST_F(ImportFaults, CommitsSurviveAKilledDaemon) {
    std::string some = input("some.mbox", corpus_all(1));
    ASSERT_EQ(run("-u joe -d Made -s " + input("empty.mbox", "")), 0);
    ASSERT_EQ(run("-u joe -d Filled -s " + some), 0);
    inst.killStored();
    ASSERT_TRUE(inst.startStored());
    EXPECT_TRUE(folder("joe", "Made").empty());
    EXPECT_EQ(folder("joe", "Filled"), scan_texts(read_file(some)));
}

TEST_F(ImportFaults, TwoLoadersAtOnce) {
    std::string a = input("a.mbox", corpus_all(2)), b = input("b.mbox", list + list + list);
    Texts want = scan_texts(corpus_all(2)), fromB = scan_texts(list + list + list);  // each file on its own
    want.insert(want.end(), fromB.begin(), fromB.end());
    std::sort(want.begin(), want.end());
    for (std::string user : {"ann", "bob", "cy"}) {
        pid_t p1 = start(user, "Both", a), p2 = start(user, "Both", b);
        EXPECT_EQ(wait_child(p1), 0);
        EXPECT_EQ(wait_child(p2), 0);
        Texts got = folder(user, "Both");
        std::sort(got.begin(), got.end());
        EXPECT_TRUE(got == want) << user << ": " << got.size() << " of " << want.size();
    }
    EXPECT_EQ(newErrors(), "");
}

// Input and conditions that make a load fail, or look as if they might:
// each is told on standard error, the tool ends with its status, and the
// folder keeps what it held.
TEST_F(ImportFaults, BadInputLosesNothing) {
    const std::string F = "From a Tue Nov  5 10:20:30 2002\n", lck = inst.path("data/lock/partition.lck");
    std::string path = input("kept.mbox", list), dir, err, good, damaged;
    ASSERT_EQ(run("-u joe -d Kept -s " + path), 0);
    Texts want = scan_texts(list);
    ASSERT_TRUE(folder("joe", "Kept", &dir) == want);
    const std::string idx = dir + "/store.idx";
    const struct { const char *what; std::string data; std::function<void()> before, after; const char *say; }
    cases[] = {
        // The scanner gives a message at least the blank line that ends
        // its header, so bare separators make no empty message.
        {"bare separators", F + "\n" + F + F + "Subject: b\n\nbody\n\n" + F, [] {}, [] {}, ""},
        {"partition marked full", list, [&] { write_file(lck, "1"); },
         [&] { unlink(lck.c_str()); }, "partition is full"},
        {"garbage in the index", list, [&] {
             damaged = good = read_file(idx);
             for (size_t i = 0; i < 300; i++) damaged[i] = (char)(i * 37 + 11);
             write_file(idx, damaged);
         }, [&] {
             EXPECT_TRUE(read_file(idx) == damaged) << "the damaged index was changed";
             write_file(idx, good);
         }, "invalid format"},
    };
    for (const auto &c : cases) {
        c.before();
        EXPECT_EQ(run("-u joe -d Kept -s " + input("in.mbox", c.data), &err), 0) << c.what;
        EXPECT_NE(err.find(c.say), std::string::npos) << c.what << ": " << err;
        c.after();
        Texts added = *c.say ? Texts() : scan_texts(c.data);
        for (const std::string &t : added) EXPECT_FALSE(t.empty()) << c.what;
        want.insert(want.end(), added.begin(), added.end());
        EXPECT_TRUE(folder("joe", "Kept") == want) << c.what;
    }
    // User names that can own no folder: a usage error, nothing loaded
    // (the slash once made joe's folder "Kept/Kept").
    for (std::string user : std::vector<std::string>{"''", "joe/Kept", "'a*b'", std::string(140, 'u')}) {
        EXPECT_EQ(run("-u " + user + " -d Kept -s " + path, &err), 64) << user << ": " << err;
        EXPECT_NE(err.find("not a valid user name"), std::string::npos) << user << ": " << err;
    }
    EXPECT_TRUE(folder("joe", "Kept") == want);
    EXPECT_EQ(run_command(bin("showfolder") + " joe Kept/Kept"), 66);
}

// The partition fills up in the middle of a run: the messages before stay,
// the folder opens without complaint, and with room again a load works.
// With -c y a later message that still fits is stored behind the failed
// ones, so the second load leaves an ordered selection of its messages.
TEST_F(ImportFaults, PartitionFillsUp) {
    Tmpfs fs(inst.path("small"), "size=2m");
    if (fs.error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(fs.error);
    std::string part = fs.dir, err;
    inst.addConfig("store.partition.primary.path: " + part);
    std::string big = input("big.mbox", corpus_all(3));
    Texts first = scan_texts(list), more = scan_texts(read_file(big));
    ASSERT_EQ(run("-u joe -d Full -s " + input("list.mbox", list)), 0);
    EXPECT_EQ(run("-u joe -d Full -s " + big, &err), 0);  // -c y: on past each failure
    EXPECT_NE(err.find("No space left on device"), std::string::npos) << err.substr(0, 1000);
    Texts got = folder("joe", "Full");
    ASSERT_GT(got.size(), first.size());
    ASSERT_LT(got.size(), first.size() + more.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end(), got.begin()));
    EXPECT_EQ(got[first.size()], more[0]);
    auto next = more.begin();  // each stored message is the next of the file's that matches
    for (size_t i = first.size(); i < got.size(); i++) {
        next = std::find(next, more.end(), got[i]);
        ASSERT_TRUE(next != more.end()) << "message " << i << " is no message of the file, or out of order";
        ++next;
    }
    ASSERT_EQ(mount("tmpfs", part.c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
    EXPECT_EQ(run("-u joe -d Full -s " + big, &err), 0) << err;
    Texts after = folder("joe", "Full");
    ASSERT_EQ(after.size(), got.size() + more.size());
    EXPECT_TRUE(std::equal(more.begin(), more.end(), after.begin() + (long)got.size()));
}

// store.idx meets a file size limit in the middle of a run: the index data
// that waits in a batch can't be written, and the batch's messages are
// taken back whole, files included. The folder opens cleanly with the
// messages written before, and without the limit the whole file loads.
TEST_F(ImportFaults, IndexAtItsSizeLimitTakesBackItsBatch) {
    std::string file = input("all.mbox", corpus_all(1)), prog = bin("importmail"), log = inst.path("limit.err");
    Texts all = scan_texts(read_file(file)), dir;
    int status = in_child([&] {
        struct rlimit lim = {400 * 1024, 400 * 1024};  // above any message, below the index
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, 2) < 0 || setrlimit(RLIMIT_FSIZE, &lim) != 0) return 126;
        execl(prog.c_str(), "importmail", "-v", "0", "-c", "y", "-u", "joe", "-d", "Limited", "-s",
              file.c_str(), (char *)nullptr);
        return 127;
    });
    EXPECT_EQ(status, 0) << read_file(log);
    EXPECT_NE(read_file(log).find("are taken back"), std::string::npos) << read_file(log);
    std::string where;
    Texts kept = folder("joe", "Limited", &where);
    ASSERT_LT(kept.size(), all.size());
    auto next = all.begin();  // with -c y, messages behind a failed batch may still fit
    for (size_t i = 0; i < kept.size(); i++) {
        next = std::find(next, all.end(), kept[i]);
        ASSERT_TRUE(next != all.end()) << "message " << i << " is no message of the file, or out of order";
        ++next;
    }
    if (!where.empty()) {  // no message file outlives its taken-back record
        std::string out;
        run_command("find " + where + " -name '*.msg' | wc -l", &out);
        EXPECT_EQ(std::stoul(out), kept.size());
    }
    EXPECT_EQ(run("-u joe -d Limited -s " + file), 0);
    Texts after = folder("joe", "Limited");
    ASSERT_EQ(after.size(), kept.size() + all.size());
    EXPECT_TRUE(std::equal(all.begin(), all.end(), after.begin() + (long)kept.size()));
}

// What importmail leaves in the store, end to end over real mail: the
// program runs as a child against a real instance, and the folder's files,
// its row and the owner's per-user flags are read back afterwards and
// compared with the messages as the scanner cuts them, with what showcache
// parses from each message file, and with what showfolder prints.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "import/importmail.h"
#include "objects/bkobj.h"
#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "store/mboxlist_startup.h"
#include "store/seen_db.h"
#include "support/auth.h"
#include "tests/testutil.h"

namespace {

struct Expected {
    std::string text;
    time_t date;
    unsigned status, xstatus;
};

// The messages of a mail file as the scanner cuts them.
std::vector<Expected> scan(const std::string &data) {
    std::vector<Expected> r;
    FromLine first;
    if (!check_fromline(data.data(), data.data() + data.size(), &first)) return r;
    auto add = [](void *rock, const ScannedMessage *m, int *) {
        static_cast<std::vector<Expected> *>(rock)->push_back(
            {std::string(m->text, m->size), m->internalDate, m->statusFlags, m->xStatusFlags});
        return 1;
    };
    ScanHooks hooks = {add, nullptr, &r, 0};
    scan_messages(data.data(), data.size(), -1, &first, &hooks);
    return r;
}

// A mail file with Status and X-Status headers put in front of the headers
// of its messages in turn: none, "RO", "D", "X-Status: A", "RD" with "A".
std::string with_flags(const std::string &data) {
    static const char *const add[] = {"", "Status: RO\n", "Status: D\n", "X-Status: A\n",
                                      "Status: RD\nX-Status: A\n"};
    std::string out;
    FromLine fl;
    int n = 0;
    for (size_t pos = 0; pos < data.size();) {
        size_t nl = data.find('\n', pos);
        size_t end = nl == std::string::npos ? data.size() : nl + 1;
        out.append(data, pos, end - pos);
        if (data.compare(pos, 5, "From ") == 0 &&
            check_fromline(data.data() + pos, data.data() + data.size(), &fl))
            out += add[n++ % 5];
        pos = end;
    }
    return out;
}

std::string flag_text(unsigned status, unsigned xstatus) {
    std::string s = "00000";
    s[0] = (status & 2) ? '1' : '0';
    s[1] = (status & 1) ? '1' : '0';
    s[2] = (xstatus & 1) ? '1' : '0';
    return s;
}

// The 11 items of the cache entry at off of the folder's "store.idx".
std::vector<std::string> cache_items(const std::string &idx, size_t off) {
    std::vector<std::string> items;
    for (int i = 0; i < MAILBOX_CACHE_ITEMS && off + 4 <= idx.size(); i++) {
        uint32_t len = testutil::be32_at(idx, off);
        if (off + 4 + len > idx.size()) break;
        items.push_back(idx.substr(off + 4, len));
        off += 4 + ((len + 3) & ~3u);
    }
    return items;
}

// showcache's items for each file it was given, in order.
std::vector<std::vector<std::string>> showcache_items(const std::string &out) {
    std::vector<std::vector<std::string>> r;
    size_t pos = 0;
    while (pos < out.size()) {
        size_t nl = out.find('\n', pos);
        if (nl == std::string::npos) break;
        std::string line = out.substr(pos, nl - pos);
        pos = nl + 1;
        int num;
        unsigned len;
        char name[64];
        if (line.compare(0, 5, "FILE ") == 0) {
            r.emplace_back();
        } else if (!r.empty() && sscanf(line.c_str(), "ITEM %d %63s %u", &num, name, &len) == 3) {
            r.back().push_back(out.substr(pos, len));
            pos += len + 1;
        }
    }
    return r;
}

class ImportmailStore : public ::testing::Test {
  protected:
    ~ImportmailStore() override {
        delete ctx;
        mboxlist_reset_for_tests();
    }
    int run(const std::string &prog, const std::string &args, std::string *out = nullptr,
            std::string *err = nullptr) {
        return testutil::run_command("STORE_INSTANCEDIR='" + inst.dir() + "' timeout -s KILL 300 " +
                                         testutil::binary_dir() + "/bin/" + prog + " " + args,
                                     out, err);
    }
    // Joins the store in this process, once the children are done.
    void join() {
        if (!ctx) ctx = new BkContext("storetest", 0);
        ASSERT_TRUE(ctx->isvalid());
    }
    // Checks folder name against the messages its records must hold, uid
    // 1 onwards; dir gets the folder's directory.
    void check_folder(const char *name, const std::vector<Expected> &want, std::string *dir);

    testutil::Instance inst;
    BkContext *ctx = nullptr;
};

void ImportmailStore::check_folder(const char *name, const std::vector<Expected> &want,
                                   std::string *dir) {
    struct mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_open(name, 0, auth_dontCheckAcl, &mb), 0) << name;
    *dir = mb.path;
    std::string idx = testutil::read_file(*dir + "/store.idx");
    ASSERT_GE(idx.size(), (size_t)INDEX_HEADER_SIZE) << name;
    struct mboxdata head, row;
    struct index_header ih;
    memcpy(&head, idx.data(), sizeof(head));
    memcpy(&ih, idx.data() + sizeof(head), sizeof(ih));
    ASSERT_EQ(mboxlist_lookup(name, &row, nullptr, nullptr, nullptr, nullptr), 0) << name;
    EXPECT_EQ(memcmp(&head, &row, sizeof(head)), 0) << name << ": row and header differ";
    ASSERT_EQ(head.exists, want.size()) << name;
    EXPECT_EQ(head.last_uid, want.size()) << name;

    struct PerUserFlags pf;
    memset(&pf, 0, sizeof(pf));
    ASSERT_EQ(getPerUserFlags(&mb, "joe", &pf), 0) << name;
    uint64_t total = 0;
    uint32_t largest = 0;
    std::string files;
    std::vector<index_record> records(want.size());
    for (size_t i = 0; i < want.size(); i++) {
        index_record &r = records[i];
        ASSERT_LE(ih.start_offset + (i + 1) * INDEX_RECORD_SIZE, idx.size()) << name;
        memcpy(&r, idx.data() + ih.start_offset + i * INDEX_RECORD_SIZE, sizeof(r));
        const Expected &e = want[i];
        EXPECT_EQ(r.uid, i + 1) << name << " record " << i + 1;
        EXPECT_EQ(r.internaldate, (int32_t)e.date) << name << " uid " << r.uid;
        EXPECT_EQ(r.size, e.text.size()) << name << " uid " << r.uid;
        EXPECT_EQ(flag_text(isSeen(&pf, r.uid) | isDeleted(&pf, r.uid) << 1,
                            r.system_flags & FLAG_ANSWERED),
                  flag_text(e.status, e.xstatus))
            << name << " uid " << r.uid;
        char fname[MAILBOX_FNAME_SIZE];
        std::string file = *dir + "/" + mailbox_message_fname(&mb, r.uid, fname);
        EXPECT_TRUE(testutil::read_file(file) == e.text) << file << " differs from the message";
        files += " " + file;
        total += r.size;
        largest = r.size > largest ? r.size : largest;
    }
    EXPECT_EQ(head.quota_used[0] | (uint64_t)head.quota_used[1] << 32, total) << name;
    EXPECT_EQ(head.max_size, largest) << name;
    freeUserFlags(&pf);
    mailbox_close(&mb);

    // Each cache entry is what the parser makes of the message file.
    std::string out, err;
    ASSERT_EQ(run("showcache", files, &out, &err), 0) << err;
    std::vector<std::vector<std::string>> parsed = showcache_items(out);
    ASSERT_EQ(parsed.size(), want.size()) << name;
    for (size_t i = 0; i < want.size(); i++)
        EXPECT_TRUE(cache_items(idx, (size_t)ih.cache_offset + records[i].rec_cache_offset) == parsed[i])
            << name << " uid " << i + 1 << ": cache entry differs from showcache";
}

}  // namespace

// Each corpus file, and one with status flags, into a folder of its own.
TEST_F(ImportmailStore, CorpusFilesLandAsTheScannerCutsThem) {
    ASSERT_TRUE(inst.startStored());
    const struct {
        const char *file, *folder;
        size_t count;
    } cases[] = {{"list-archive.mbox", "Lists", 53},
                 {"kernel-list.mbox", "Kernel", 210},
                 {"broken.mbox", "INBOX", 20},
                 {"list-archive.mbox", "Flagged", 53}};
    std::vector<std::vector<Expected>> wants;
    for (const auto &c : cases) {
        std::string data = testutil::read_file(testutil::corpus_path(c.file)), path;
        if (strcmp(c.folder, "Flagged") == 0) {
            data = with_flags(data);
            testutil::write_file(path = inst.path("flagged.mbox"), data);
        } else {
            path = testutil::corpus_path(c.file);
        }
        wants.push_back(scan(data));
        ASSERT_EQ(wants.back().size(), c.count) << c.file;
        std::string err;
        ASSERT_EQ(run("importmail", "-v 0 -c y -u joe -d " + std::string(c.folder) + " -s " + path,
                      nullptr, &err),
                  0)
            << err;
    }
    join();
    const char *names[] = {"user/joe/Lists", "user/joe/Kernel", "user/joe", "user/joe/Flagged"};
    std::string dir;
    for (size_t i = 0; i < wants.size(); i++) check_folder(names[i], wants[i], &dir);
}

// A second load goes on behind the first; with -n a load into an existing
// folder goes into a new time-stamped one; showfolder shows what is there.
TEST_F(ImportmailStore, LoadsAppendRenameAndShow) {
    ASSERT_TRUE(inst.startStored());
    std::string data = with_flags(testutil::read_file(testutil::corpus_path("list-archive.mbox")));
    std::string path = inst.path("in.mbox"), err, out;
    testutil::write_file(path, data);
    std::vector<Expected> once = scan(data), twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(run("importmail", "-v 0 -c y -u joe -d Lists -s " + path, nullptr, &err), 0) << err;
    time_t before = time(nullptr);
    ASSERT_EQ(run("importmail", "-n -v 1 -c y -u joe -d Lists -s " + path, nullptr, &err), 0) << err;
    time_t after = time(nullptr);

    join();
    std::string dir, newDir;
    check_folder("user/joe/Lists", twice, &dir);
    std::string renamed;
    for (time_t t = before; t <= after && renamed.empty(); t++) {
        char suffix[32];
        struct tm tm;
        strftime(suffix, sizeof(suffix), ".%m%d%y.%H%M%S", localtime_r(&t, &tm));
        std::string name = std::string("user/joe/Lists") + suffix;
        if (mboxlist_lookup(name.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr) == 0)
            renamed = name;
    }
    ASSERT_FALSE(renamed.empty()) << "no time-stamped folder; progress said: " << err;
    EXPECT_NE(err.find("  -> /export/user/joe/" + renamed.substr(9)), std::string::npos) << err;
    check_folder(renamed.c_str(), once, &newDir);

    // showfolder -m: the folder, then each message in uid order with its
    // date, size, flags and file.
    ASSERT_EQ(run("showfolder", "-m joe Lists", &out, &err), 0) << err;
    std::vector<std::string> want = {"Object Id   : /export/user/joe/Lists",
                                     "Last Uid    : " + std::to_string(twice.size()),
                                     "Messages    : " + std::to_string(twice.size())};
    for (size_t i = 0; i < twice.size(); i++) {
        char date[64];
        unsigned uid = (unsigned)i + 1;
        std::string d = time2str((long)twice[i].date, date);
        want.push_back("UID         : " + std::to_string(uid));
        want.push_back("InternalDate: " + d.substr(0, d.size() - 1));
        want.push_back("Size        : " + std::to_string(twice[i].text.size()));
        want.push_back("System Flags: " + flag_text(twice[i].status, twice[i].xstatus));
        char fname[40];
        snprintf(fname, sizeof(fname), "/%02u/%u.msg", (uid / 100) % 100, uid);
        want.push_back("File Name   : " + dir + fname);
    }
    size_t at = 0;
    for (const std::string &line : testutil::split_lines(out))
        if (at < want.size() && line == want[at]) at++;
    EXPECT_EQ(at, want.size()) << "missing in order: " << (at < want.size() ? want[at] : "") << "\n"
                               << out.substr(0, 2000);

    // A folder that isn't there, and a wrong call.
    EXPECT_EQ(run("showfolder", "joe Nowhere", nullptr, &err), 66);
    EXPECT_NE(err.find("Nowhere"), std::string::npos) << err;
    EXPECT_EQ(run("showfolder", "-x joe Lists", nullptr, &err), 64);
    EXPECT_EQ(run("showfolder", "joe", nullptr, &err), 64);
}

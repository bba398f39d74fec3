// What importmail leaves in the store, end to end over real mail: the
// folders' files, rows and the owner's per-user flags, read back and compared
// with the messages as the scanner cuts them, with what showcache parses from
// each message file, and with what showfolder prints.
#include "import/importmail.h"
#include "objects/bkobj.h"
#include "store/mboxlist_startup.h"
#include "store/seen_db.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

using Expected = Scanned;

// The messages of a mail file as the scanner cuts them; each must end its
// lines in CRLF.
std::vector<Expected> scan(const std::string &data) {
    std::vector<Expected> r = scan_mbox(data);
    for (const Expected &e : r) {
        size_t crlf = 0;
        for (size_t p = 0; (p = e.text.find("\r\n", p)) != std::string::npos; p += 2) crlf++;
        EXPECT_EQ(crlf, (size_t)std::count(e.text.begin(), e.text.end(), '\n')) << e.offset;
    }
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
    for (size_t pos = 0, end; pos < data.size(); pos = end) {
        end = std::min(data.find('\n', pos), data.size() - 1) + 1;
        out.append(data, pos, end - pos);
        if (!data.compare(pos, 5, "From ") && check_fromline(data.data() + pos, data.data() + data.size(), &fl))
            out += add[n++ % 5];
    }
    return out;
}

std::string flag_text(unsigned status, unsigned xstatus) {
    return std::string() + "01"[(status >> 1) & 1] + "01"[status & 1] + "01"[xstatus & 1] + "00";
}

// What showcache prints for each file it was given, in order: the record
// fields, and the cache entry laid out as "store.idx" keeps it.
struct Parsed { std::map<std::string, unsigned long> fields; std::string cache; };
std::vector<Parsed> showcache_output(const std::string &out) {
    std::vector<Parsed> r;
    char name[64];
    unsigned long n;
    long v;
    for (size_t pos = 0, nl; (nl = out.find('\n', pos)) != std::string::npos;) {
        std::string line = out.substr(pos, nl - pos);
        pos = nl + 1;
        if (line.compare(0, 5, "FILE ") == 0) {
            r.emplace_back();
        } else if (!r.empty() && sscanf(line.c_str(), "ITEM %*d %63s %lu", name, &n) == 2) {
            r.back().cache += be32({(uint32_t)n}) + out.substr(pos, n) + std::string((4 - n % 4) % 4, '\0');
            pos += n + 1;
        } else if (!r.empty() && sscanf(line.c_str(), "%63[a-z_]: %li", name, &v) == 2) {
            r.back().fields[name] = (unsigned long)v;
        }
    }
    return r;
}

class ImportmailStore : public ::testing::Test {
  protected:
    ~ImportmailStore() override { delete ctx; mboxlist_reset_for_tests(); }
    // Checks folder name against the messages its records must hold, uid
    // 1 onwards; gives the folder's directory.
    std::string check_folder(const std::string &name, const std::vector<Expected> &want);

    Instance inst;
    BkContext *ctx = nullptr;
    const time_t started = time(nullptr);
};

std::string ImportmailStore::check_folder(const std::string &name, const std::vector<Expected> &want) {
    SCOPED_TRACE(name);
    struct mailbox mb = zeromailbox;
    EXPECT_EQ(mailbox_open(name.c_str(), 0, auth_dontCheckAcl, &mb), 0);
    std::string dir = mb.path;
    struct mboxdata head, row;
    std::vector<IndexEntry> entries = index_entries(dir, &head);
    EXPECT_EQ(mboxlist_lookup(name.c_str(), &row, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(memcmp(&head, &row, sizeof(head)), 0) << "row and header differ";
    EXPECT_EQ(head.last_uid, want.size());
    struct PerUserFlags pf = {};
    EXPECT_EQ(getPerUserFlags(&mb, "joe", &pf), 0);
    uint64_t total = 0;
    uint32_t largest = 0;
    std::string files;
    for (size_t i = 0; i < entries.size() && i < want.size(); i++) {
        const index_record &r = entries[i].rec;
        const Expected &e = want[i];
        EXPECT_TRUE(r.uid == i + 1 && r.internaldate == (int32_t)e.date && r.size == e.text.size()) << i + 1;
        EXPECT_EQ(flag_text(isSeen(&pf, r.uid) | isDeleted(&pf, r.uid) << 1, r.system_flags & FLAG_ANSWERED),
                  flag_text(e.status, e.xstatus)) << "uid " << r.uid;
        std::string file = message_file(mb, r.uid);
        EXPECT_TRUE(read_file(file) == e.text) << file << " differs from the message";
        files += " " + file;
        total += r.size;
        largest = std::max(largest, r.size);
    }
    EXPECT_EQ(entries.size(), want.size());
    EXPECT_EQ(head.quota_used[0] | (uint64_t)head.quota_used[1] << 32, total);
    EXPECT_EQ(head.max_size, largest);
    freeUserFlags(&pf);
    mailbox_close(&mb);

    // Each record and cache entry is what the parser makes of the message file.
    std::string out, err;
    EXPECT_EQ(inst.run("showcache", files, &out, &err), 0) << err;
    std::vector<Parsed> parsed = showcache_output(out);
    EXPECT_EQ(parsed.size(), want.size());
    for (size_t i = 0; i < parsed.size() && i < want.size(); i++) {
        const index_record &r = entries[i].rec;
        std::map<std::string, unsigned long> &f = parsed[i].fields;
        if (f["sentdate"] >= (unsigned long)started && r.sentdate >= started) f["sentdate"] = r.sentdate;  // unreadable: now
        EXPECT_EQ(std::vector<unsigned long>({f["sentdate"], f["size"], f["header_size"], f["content_offset"],
                                              f["system_flags"] & ~FLAG_ANSWERED}),
                  std::vector<unsigned long>({r.sentdate, r.size, r.header_size, r.content_offset,
                                              r.system_flags & ~FLAG_ANSWERED}))
            << "uid " << i + 1 << ": record differs from showcache";
        EXPECT_TRUE(entries[i].cache == parsed[i].cache) << "uid " << i + 1 << ": cache entry differs from showcache";
    }
    return dir;
}

}  // namespace

// Each corpus file into a folder of its own, and all of them four times
// into one; the file with status flags
// added twice into one folder (the second load goes on behind the first),
// and once more with -n, which loads into a new time-stamped folder. The
// debug output counts each message as the scanner cuts it, and showfolder
// shows what is there.
TEST_F(ImportmailStore, CorpusFilesLandAsTheScannerCutsThem) {
    ASSERT_TRUE(inst.startStored());
    std::string flagged = inst.path("flagged.mbox");
    write_file(flagged, with_flags(read_file(corpus_path("list-archive.mbox"))));
    // Over 1,000 messages in one folder, in four loads: a load makes room
    // for the messages it expects when the record area is full, so the
    // area grows in several loads.
    std::string big = inst.path("big.mbox");
    write_file(big, corpus_all(1));
    const struct { std::string path; const char *args, *folder; size_t count; } loads[] = {
        {corpus_path("list-archive.mbox"), "-d Lists", "user/joe/Lists", 53},
        {corpus_path("kernel-list.mbox"), "-d Kernel", "user/joe/Kernel", 210},
        {corpus_path("broken.mbox"), "-d INBOX", "user/joe", 20},
        {flagged, "-d Flagged", "user/joe/Flagged", 53}, {flagged, "-d Flagged", "user/joe/Flagged", 53},
        {big, "-d Big", "user/joe/Big", 283}, {big, "-d Big", "user/joe/Big", 283},
        {big, "-d Big", "user/joe/Big", 283}, {big, "-d Big", "user/joe/Big", 283},
        {flagged, "-n -d Flagged", "", 53}};
    std::map<std::string, std::vector<Expected>> wants;
    std::string out, err;
    time_t before = time(nullptr);
    for (const auto &l : loads) {
        std::string data = read_file(l.path);
        std::vector<Expected> msgs = scan(data);
        ASSERT_EQ(msgs.size(), l.count) << l.path;
        ASSERT_EQ(inst.run("importmail", "-g -v 1 -c y -u joe -s " + l.path + " " + l.args, &out, &err), 0) << err;
        EXPECT_NE(out.find("filesize: " + std::to_string(data.size()) + "\n"), std::string::npos);
        std::string sizes, want;
        for (const Expected &m : msgs) want += "msg size: " + std::to_string(m.text.size()) + " offset: " + std::to_string(m.offset) + "\n";
        for (const std::string &line : split_lines(out))
            if (line.compare(0, 10, "msg size: ") == 0) sizes += line + "\n";
        EXPECT_EQ(sizes, want) << l.path;
        std::vector<Expected> &w = wants[l.folder];
        w.insert(w.end(), msgs.begin(), msgs.end());
    }
    time_t after = time(nullptr);
    ctx = new BkContext("storetest", 0);
    ASSERT_TRUE(ctx->isvalid());
    std::map<std::string, std::string> dirs;
    for (const auto &w : wants)
        if (!w.first.empty()) dirs[w.first] = check_folder(w.first, w.second);
    std::string renamed;
    for (time_t t = before; t <= after && renamed.empty(); t++) {
        char suffix[32];
        struct tm tm;
        strftime(suffix, sizeof(suffix), ".%m%d%y.%H%M%S", localtime_r(&t, &tm));
        std::string name = "user/joe/Flagged" + std::string(suffix);
        if (mboxlist_lookup(name.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr) == 0) renamed = name;
    }
    ASSERT_FALSE(renamed.empty()) << "no time-stamped folder; progress said: " << err;
    EXPECT_NE(err.find("  -> /export/user/joe/" + renamed.substr(9)), std::string::npos) << err;
    check_folder(renamed, wants[""]);
    // showfolder -m: the folder, then each message in uid order with its
    // date, size, flags and file.
    const std::vector<Expected> &twice = wants["user/joe/Flagged"];
    ASSERT_EQ(inst.run("showfolder", "-m joe Flagged", &out, &err), 0) << err;
    std::vector<std::string> want = {"Object Id   : /export/user/joe/Flagged",
                                     "Last Uid    : " + std::to_string(twice.size()),
                                     "Messages    : " + std::to_string(twice.size())};
    for (unsigned uid = 1; uid <= twice.size(); uid++) {
        const Expected &m = twice[uid - 1];
        char date[64], fname[40];
        std::string d = time2str((long)m.date, date);
        snprintf(fname, sizeof(fname), "/%02u/%u.msg", (uid / 100) % 100, uid);
        want.insert(want.end(), {"UID         : " + std::to_string(uid), "InternalDate: " + d.substr(0, d.size() - 1),
                                 "Size        : " + std::to_string(m.text.size()),
                                 "System Flags: " + flag_text(m.status, m.xstatus),
                                 "File Name   : " + dirs["user/joe/Flagged"] + fname});
    }
    size_t at = 0;
    for (const std::string &line : split_lines(out))
        if (at < want.size() && line == want[at]) at++;
    EXPECT_EQ(at, want.size()) << "missing in order: " << (at < want.size() ? want[at] : "") << "\n"
                               << out.substr(0, 2000);
    // A folder that isn't there, and wrong calls.
    EXPECT_EQ(inst.run("showfolder", "joe Nowhere", nullptr, &err), 66);
    EXPECT_NE(err.find("Nowhere"), std::string::npos) << err;
    EXPECT_EQ(inst.run("showfolder", "-x joe Lists", nullptr, &err), 64);
    EXPECT_EQ(inst.run("showfolder", "joe", nullptr, &err), 64);
}

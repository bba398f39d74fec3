// The import tool: the mail file scanner (separator lines, internal dates
// under Universal Time and under a zone with daylight saving, message
// cutting, flags, the content-length rule, line ends, messages too large
// for the store), and the importmail program as an operator runs it
// (options, exit statuses, the input checks, folder names, the debug output).
#include "import/importmail.h"
#include "store/message.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

const std::string F = "From a Tue Nov  5 10:20:30 2002\n";

class ImportmailCli : public ::testing::Test {
  protected:
    int run(const std::string &args, std::string *out = nullptr, std::string *err = nullptr, int limit = 120) {
        return inst.run("importmail", args, out, err, limit);
    }
    std::string mbox(const std::string &name, const std::string &content) {
        write_file(inst.path(name), content);
        return inst.path(name);
    }
    Instance inst;
};

typedef std::vector<std::pair<unsigned long, unsigned long>> Sizes;

// The "msg size: N offset: M" lines of the debug output.
Sizes debug_sizes(const std::string &out) {
    Sizes r;
    unsigned long size, offset;
    for (const std::string &line : split_lines(out))
        if (sscanf(line.c_str(), "msg size: %lu offset: %lu", &size, &offset) == 2) r.push_back({size, offset});
    return r;
}

// The date of a separator line in a buffer of its exact size (a read
// beyond it shows under the address sanitizer); -1 if it is no separator.
time_t date_of(const std::string &line) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\n');
    FromLine fl;
    if (!check_fromline(buf.data(), buf.data() + buf.size(), &fl)) return -1;
    return get_internaldate(fl.lineEnd, fl.timeOffset, fl.zoneOffset, fl.dateOffset);
}

bool is_now(time_t t, time_t before) { return t >= before && t <= time(nullptr); }

}  // namespace

// Usage errors and unusable input end the run before the store is touched:
// no daemon runs here.
TEST_F(ImportmailCli, RefusedBeforeTheStoreIsTouched) {
    std::string in = mbox("in.mbox", F + "\nx\n"), err;
    const char *bad[] = {"-c yes", "-c x", "-v 3", "-v -1", "-s %s", "-u ann", "-d a -d a", "-e utf-8 -e utf-8", "-x"};
    for (const char *b : bad) {
        std::string args = std::string("-u joe -s %s ") + b;
        for (size_t pos; (pos = args.find("%s")) != std::string::npos;) args.replace(pos, 2, in);
        EXPECT_EQ(run(args, nullptr, &err), 64) << args;
        EXPECT_NE(err.find("USAGE:"), std::string::npos) << args;
    }
    EXPECT_EQ(run("-s /nonexistent/file"), 64);  // a missing -u is found before the file
    EXPECT_EQ(run("-u joe -s /nonexistent/file.mbox"), 66);
    EXPECT_EQ(run("-u joe -s " + inst.path("config")), 66);  // a directory
    // A FIFO without a writer: refused at once, not waited on.
    std::string fifo = inst.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(run("-u joe -s " + fifo, nullptr, &err, 10), 66) << "killed after 10 s: " << err;
    EXPECT_NE(err.find(fifo), std::string::npos) << err;
    EXPECT_EQ(run_command("STORE_INSTANCEDIR=/nonexistent/instance " + binary_dir() +
                                    "/bin/importmail -u joe -s " + in), 69);
}

TEST_F(ImportmailCli, FormatChecksAndFolderNames) {
    ASSERT_TRUE(inst.startStored());
    std::string err;
    // Not in the mail file format: no separator first, a first line without
    // LF, a date form outside the tables.
    for (const char *bad : {"Subject: no separator\n\nbody\n", "From joe Tue Nov  5 10:20:30 2002",
                            "From joe 2002-11-05 10:20:30 +0000 somewhere\n\nx\n"})
        EXPECT_EQ(run("-u joe -s " + mbox("bad.mbox", bad)), 65) << bad;
    EXPECT_EQ(run("-v 0 -u joe -s " + mbox("empty.mbox", "")), 0);
    std::string in = mbox("in.mbox", F + "\nx\n\n" + F + "\ny\n");
    EXPECT_EQ(run("-v 0 -u joe -d " + std::string(1100, 'f') + " -s " + in, nullptr, &err), 64);
    EXPECT_NE(err.find("too long"), std::string::npos) << err;
    // Progress names the folder (leading slashes dropped) and each message;
    // without -d the file name is the folder name.
    ASSERT_EQ(run("-u joe -d //Archive/2002 -s " + in, nullptr, &err), 0) << err;
    for (const char *p : {"/export/user/joe/Archive/2002\n", "/export/user/joe/Archive/2002/1\n",
                          "/export/user/joe/Archive/2002/2\n"})
        EXPECT_NE(err.find(p), std::string::npos) << err;
    ASSERT_EQ(run("-v 1 -u joe -s " + in, nullptr, &err), 0);
    EXPECT_EQ(err, "/export/user/joe" + in + "\n");
}

// A message too large for the store's 32-bit sizes: the middle one of three,
// a hole of more than 4 GB in a sparse file. It is refused without being
// copied or even read; -c y goes on with the next message, -c n stops.
TEST_F(ImportmailCli, MessageTooLargeForTheStore) {
    ASSERT_TRUE(inst.startStored());
    std::string path = inst.path("big.mbox");
    std::string head = F + "Subject: one\n\nfirst\n\n" + F + "Subject: big\n\n", tail = "\n\n" + F + "\nlast\n";
    off_t tailAt = (off_t)head.size() + ((off_t)4 << 30) + 4096;
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    struct stat st;
    ASSERT_TRUE(fd >= 0 && write(fd, head.data(), head.size()) == (ssize_t)head.size() &&
                pwrite(fd, tail.data(), tail.size(), tailAt) == (ssize_t)tail.size() && fstat(fd, &st) == 0);
    close(fd);
    if (st.st_blocks > 1024) GTEST_SKIP() << "the file system here keeps no sparse files";
    std::string out, err;
    EXPECT_EQ(run("-g -c y -v 0 -u joe -d inbox -s " + path, &out, &err), 0) << err;
    // "Subject: one" CRLF CRLF "first" CRLF, and a blank line and "last".
    EXPECT_EQ(debug_sizes(out), (Sizes{{23, head.find("From", 1)}, {7, (unsigned long)st.st_size}})) << out << err;
    EXPECT_NE(err.find("message 2 "), std::string::npos) << err;
    EXPECT_NE(err.find(std::to_string(MESSAGE_SIZE_MAX)), std::string::npos) << err;
    EXPECT_EQ(run("-g -c n -v 0 -u joe -d inbox -s " + path, &out, &err), 65) << err;
    EXPECT_EQ(debug_sizes(out).size(), 1u) << out;
}

// Each table runs under Universal Time and under New York's zone: a date
// with a zone must not move with the local zone, also in the hour that a
// change to daylight saving leaves out; a date without one is local time.
TEST(ScannerDates, SeparatorAndHeaderDatesUnderTwoZones) {
    const time_t t0 = 1036491630;  // Tue Nov  5 10:20:30 2002 UTC
    struct { const char *text; time_t utc, newYork; } lines[] = {
        {"From j Tue Nov  5 10:20:30 2002", t0, t0 + 18000}, {"From j Tue Nov  5 10:20 2002", t0 - 30, t0 + 17970},
        {"From a b c d Sun Dec 15 00:00:00 2002", 1039910400, 1039928400},
        {"From j Tue Nov  5 10:20:30 PST 2002", t0 + 28800, 0},
        {"From j Tue Nov  5 10:20:30 -0800 2002", t0 + 28800, 0},
        {"From j Tue Nov  5 10:20:30 2002 PST", t0 + 28800, 0},
        {"From j Tue Nov  5 10:20:30 2002 -0800", t0 + 28800, 0},
        {"From j Tue Nov  5 10:20:30 2002 +0130", t0 - 5400, 0}, {"From j Tue Nov  5 10:20:30 2002 EDT", t0 + 14400, 0},
        {"From j Tue Nov  5 10:20:30 2002 QQQ", t0, 0},  // unknown: Universal Time
        {"From j Fri Jan  3 10:00:00 2003 NST", 1041600600, 0},
        {"From j Tue, 5 Nov 2002 10:20:30 -0800", t0 + 28800, 0},
        {"From j Tue, 05 Nov 2002 10:20:30 PST", t0 + 28800, 0}, {"From j Tue Nov  5 10:20:30 2002 +0000\r", t0, 0},
        {"From j Sun Apr  7 02:30:00 2002 +0000", 1018146600, 0},  // an hour New York skips
        // No separators; the " remote from" tail is cut only from lines of
        // 41 bytes or more.
        {"From joe Tue Nov  5 10:20 2002 remote from xy", t0 - 30, t0 + 17970},
        {"From Tue Nov  5 10:20 2002 remote from x", -1, 0},  {"from joe Tue Nov  5 10:20:30 2002", -1, 0},
        {"From: joe@example.com Tue Nov  5", -1, 0},           {"From joe Tue Nov 5 10:20:30 2002", -1, 0},
        {"From joe Tue Nov  5 10-20-30 2002", -1, 0},          {"From joe 2002-11-05T10:20:30Z and then", -1, 0},
        {"From                                       ", -1, 0}, {"From joe Tue Nov  5 10:20:30 UT 2002", -1, 0},
        {"From 5 10:20:30 2002 -0800", -1, 0},                 {"From :0:00:00 0000 +0000 2002", -1, 0},
    };
    struct { const char *text; time_t utc, newYork; } fields[] = {
        {"Fri, 3 Jan 03 10:00:00 +0100", 1041584400, 0}, {"3 Jan 49 10:00:00 +0000", 2493280800, 0},
        {"3 Jan 50 10:00:00 +0000", -630943200, 0},       {"3 Jan 101 10:00:00 GMT", 978516000, 0},
        {"Fri, 3 Jan 2003 10:00:00 NST", 1041600600, 0},  {"Sun, 7 Apr 2002 02:30:00 (comment) +0000", 1018146600, 0},
        {"Fri, 3 Jan 2003", 1041595200, 1041613200},  // no time: local noon
        {"Wed, 10 Jul 2002 12:00:00", 1026302400, 1026316800},
    };
    for (const char *zone : {"UTC", "America/New_York"}) {
        ScopedTZ tz(zone);
        bool utc = strcmp(zone, "UTC") == 0;
        for (const auto &l : lines)
            EXPECT_EQ(date_of(l.text), utc || !l.newYork ? l.utc : l.newYork) << zone << ": " << l.text;
        for (const auto &f : fields)
            EXPECT_EQ(message_parse_date(f.text), utc || !f.newYork ? f.utc : f.newYork) << zone << ": " << f.text;
        // Dates that are no good: the separator gives none (and reads no
        // byte beyond its line), the header parser gives the current time.
        for (const char *bad : {"From joe Tue NOV  5 10:20:30 2002", "From bob Tue Mar  7 17:42:10 2002 -T0",
                                "From joe Tue Nov  5 10:20:30 2002 +01x0"}) EXPECT_LE(date_of(bad), 0) << bad;
        time_t before = time(nullptr);
        for (const char *bad : {"Fri, 3 Jan 2003 10:00 +0000", (const char *)nullptr, "3 Foo 2003",
                                "3 Jan 1899 10:00:00 +0000", "3 Jan 2003 10:00:00 +01"})
            EXPECT_TRUE(is_now(message_parse_date(bad), before)) << (bad ? bad : "null");
    }
}

TEST(Scanner, CutsMessagesAndRewritesLineEnds) {
    struct { std::string file; std::vector<std::string> texts; } cases[] = {
        // LF and CRLF input; a "From " line without a blank line before it
        // is text; a last line without LF.
        {F + "Subject: one\n\nbody one\n\nFrom b Tue Nov  5 10:20:31 2002\r\nSubject: two\r\n\r\nbody two\r\n"
             "From c no blank line before\n\n" + F + "Subject: three\n\nlast line without LF",
         {"Subject: one\r\n\r\nbody one\r\n", "Subject: two\r\n\r\nbody two\r\nFrom c no blank line before\r\n",
          "Subject: three\r\n\r\nlast line without LF\r\n"}},
        // A header-only message keeps one blank line; a blank first line is a
        // bare LF and gives up no more than it has to the separator; the last
        // message keeps its trailing blank lines; a separator as last line
        // is a message of 2 bytes.
        {F + "Subject: h\n\n" + F + "Subject: b\n\ntext\n\n" + F + "\n" + F + "Subject: d\n\ntext\n\n\n" + F,
         {"Subject: h\r\n\r\n", "Subject: b\r\n\r\ntext\r\n", "\r\n", "Subject: d\r\n\r\ntext\r\n\r\n", "\r\n"}},
        {F + "Subject: x\n", {"Subject: x\r\n\r\n"}}, {F + "\nsmall\n", {"\nsmall\r\n"}},
        // The space rule, and header bytes cut to 7 bits.
        {F + "Status: RO\nFrom a second From line\n:colon\n continued\n\tcontinued\nBad Name: x\n"
             "Caf\xc3\xa9: y\n\nStatus: D\n",
         {"Status: RO\r\n From a second From line\r\n :colon\r\n continued\r\n\tcontinued\r\n"
          " Bad Name: x\r\n CafC): y\r\n\r\nStatus: D\r\n"}},
        // A content length protects a separator inside the body; one too
        // small does no harm; a negative one counts as none, the last counts.
        {F + "Content-Length: 43\n\nline\n\nFrom x Tue Nov  5 10:20:30 2002\nmore\n\n" + F + "\nb\n",
         {"Content-Length: 43\r\n\r\nline\r\n\r\nFrom x Tue Nov  5 10:20:30 2002\r\nmore\r\n", "\nb\r\n"}},
        {F + "Content-Length: 3\n\nabcdef\n\n" + F + "\nb\n", {"Content-Length: 3\r\n\r\nabcdef\r\n", "\nb\r\n"}},
        {F + "Content-Length: 500\ncontent-length: -4\n\nx\n\n" + F + "\nb\n",
         {"Content-Length: 500\r\ncontent-length: -4\r\n\r\nx\r\n", "\nb\r\n"}},
    };
    for (const auto &c : cases) EXPECT_EQ(scan_texts(c.file), c.texts) << c.file;
    noContentLen = 1;
    EXPECT_EQ(scan_mbox(cases[5].file).size(), 3u);
    noContentLen = 0;
    // Flags in any case, the last header of a kind counting, and dates.
    std::string file = F + "Status: RO\nX-Status: A\n\nx\n\nFrom b Tue Nov  5 10:20:31 2002\nstatus: D\n"
                           "x-status: r\n\n\nFrom c Tue Nov  5 10:20:30 2999\nStatus:R\nSTATUS: rd\n\n";
    time_t before = time(nullptr);
    auto cuts = scan_mbox(file);
    ASSERT_EQ(cuts.size(), 3u);
    unsigned flags[] = {0x11, 0x02, 0x00};  // xstatus, status
    for (int i = 0; i < 3; i++) EXPECT_EQ(cuts[i].xstatus << 4 | cuts[i].status, flags[i]) << i;
    EXPECT_TRUE(cuts[1].date == 1036491631 && is_now(cuts[2].date, before));  // a date in the future: now
}

// The poll hook (an interrupt) ends the run before the next message, with
// the last delivery's result. (A failed delivery that stops the run is the
// importmail tests' "-c n".)
TEST(Scanner, PollHookEndsTheRun) {
    std::string file;
    for (int i = 0; i < 5; i++) file += F + "\nx\n\n";
    FromLine first;
    ASSERT_TRUE(check_fromline(file.data(), file.data() + file.size(), &first));
    int calls = 0;
    ScanHooks polled = {[](void *r, const ScannedMessage *, int *) { return ++*(int *)r, 1; },
                        [](void *r) { return *(int *)r >= 3 ? 1 : 0; }, &calls, 0};
    EXPECT_EQ(scan_messages(file.data(), file.size(), -1, &first, &polled), 1);
    EXPECT_EQ(calls, 3);
}

// Messages larger than the first buffer are measured before it grows: the
// measure must give the size the cut gives, so that a message of exactly
// the limit is cut and one byte more is refused, and the scan goes on with
// the right next message.
TEST(Scanner, RefusesMessagesOverTheLimitExactly) {
    std::string line(500, 'a'), lines, crlf, header;
    for (int i = 0; i < 30; i++, lines += line + "\n", crlf += line + "\r\n")
        header += (i % 3 ? "X-" + std::to_string(i) + ": " : "no field ") + line + (i % 2 ? "\x8d\n" : "\n");
    std::string protectedSep = "Content-Length: " + std::to_string(lines.size() * 2 + 1 + F.size()) + "\n\n" +
                               lines + "\n" + F + lines;
    const std::string shapes[] = {
        "Subject: lf\n\n" + lines,  "Subject: crlf\r\n\r\n" + crlf, header, "\n" + lines,
        "Subject: long\n\n" + std::string(20000, 'b') + "\n", protectedSep,
    };
    const std::string next = "Subject: next\n\nafter\n";
    for (const std::string &shape : shapes) {
        std::string file = F + shape + "\n" + F + next;
        auto whole = scan_mbox(file);
        ASSERT_EQ(whole.size(), 2u);
        size_t size = whole[0].size;
        ASSERT_GT(size, 8192u);
        for (size_t limit : {size, size - 1}) {
            auto cuts = scan_mbox(file, limit);
            ASSERT_EQ(cuts.size(), 2u) << limit;
            EXPECT_TRUE(cuts[0].text == (limit == size ? whole[0].text : "<refused>")) << shape.substr(0, 20);
            EXPECT_TRUE(cuts[0].size == size && cuts[0].offset == whole[0].offset) << shape.substr(0, 20);
            EXPECT_EQ(cuts[1].text, whole[1].text);
        }
    }
    // Past the limit by the blank line that a header-only message gets.
    auto cuts = scan_mbox(F + "Subject: x\n", 12);
    EXPECT_TRUE(cuts.size() == 1 && cuts[0].text == "<refused>");
}

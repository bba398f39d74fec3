// The mail file scanner: separator lines, internal dates, message cutting,
// flags, the content-length rule and the line end rewriting.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "import/importmail.h"
#include "tests/testutil.h"

namespace {

struct Cut {
    std::string text;
    time_t date;
    unsigned status;
    unsigned xstatus;
    long offset;
};

int collect(void *rock, const ScannedMessage *m, int *) {
    auto *out = static_cast<std::vector<Cut> *>(rock);
    EXPECT_EQ(m->text[m->size], '\0');
    out->push_back({std::string(m->text, m->size), m->internalDate, m->statusFlags,
                    m->xStatusFlags, m->offset});
    return 1;
}

std::vector<Cut> scan(const std::string &file) {
    std::vector<Cut> out;
    FromLine first;
    if (!check_fromline(file.data(), file.data() + file.size(), &first)) {
        ADD_FAILURE() << "first line is no separator";
        return out;
    }
    ScanHooks hooks = {collect, nullptr, &out};
    EXPECT_EQ(scan_messages(file.data(), file.size(), &first, &hooks), 1);
    return out;
}

bool is_sep(const std::string &line) {
    FromLine fl;
    std::string l = line + "\n";
    return check_fromline(l.data(), l.data() + l.size(), &fl) != 0;
}

time_t date_of(const std::string &line) {
    FromLine fl;
    std::string l = line + "\n";
    if (!check_fromline(l.data(), l.data() + l.size(), &fl)) return -12345;
    return get_internaldate(fl.lineEnd, fl.timeOffset, fl.zoneOffset, fl.dateOffset);
}

class ScannerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char *tz = getenv("TZ");
        if (tz) oldTz = tz;
        hadTz = tz != nullptr;
        // Dates without a zone count as local time; pin it.
        setenv("TZ", "UTC", 1);
        tzset();
        noContentLen = 0;
    }
    void TearDown() override {
        if (hadTz)
            setenv("TZ", oldTz.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
        noContentLen = 0;
    }
    std::string oldTz;
    bool hadTz = false;
};

}  // namespace

TEST_F(ScannerTest, SeparatorFormsAndTheirDates) {
    const time_t base = 1036491630;  // Tue Nov  5 10:20:30 2002 UTC
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002"), base);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20 2002"), base - 30);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 PST 2002"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 -0800 2002"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 PST"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 -0800"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 +0130"), base - 90 * 60);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 EDT"), base + 4 * 3600);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 gmt"), base);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 GMT 2002"), base);
    // A zone of two letters between time and year fits no row.
    EXPECT_FALSE(is_sep("From joe Tue Nov  5 10:20:30 UT 2002"));
    EXPECT_EQ(date_of("From joe Tue, 5 Nov 2002 10:20:30 -0800"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue, 05 Nov 2002 10:20:30 PST"), base + 8 * 3600);
    EXPECT_EQ(date_of("From joe Tue, 05 Nov 2002 10:20:30 +0000"), base);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 remote from hosta"), base);
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002\r"), base);
    // Two-digit days and the sender is not looked at.
    EXPECT_EQ(date_of("From a b c d Sun Dec 15 00:00:00 2002"), 1039910400);

    // A " remote from" tail is cut only on lines of 41 bytes or more.
    EXPECT_FALSE(is_sep("From Tue Nov  5 10:20 2002 remote from x"));
    EXPECT_TRUE(is_sep("From joe Tue Nov  5 10:20 2002 remote from xy"));

    // Not separators.
    EXPECT_FALSE(is_sep("from joe Tue Nov  5 10:20:30 2002"));
    EXPECT_FALSE(is_sep("From joe"));
    EXPECT_FALSE(is_sep("From: joe@example.com Tue Nov  5"));
    EXPECT_FALSE(is_sep("From joe Tue Nov 5 10:20:30 2002"));
    EXPECT_FALSE(is_sep("From joe Tue Nov  5 10-20-30 2002"));
    EXPECT_FALSE(is_sep("From joe 2002-11-05T10:20:30Z and then some"));
    EXPECT_FALSE(is_sep("From                                       "));
    // No line end: the end of the input is no line end.
    {
        std::string l = "From joe Tue Nov  5 10:20:30 2002";
        FromLine fl;
        EXPECT_FALSE(check_fromline(l.data(), l.data() + l.size(), &fl));
    }
    // Short lines never read in front of the line.
    EXPECT_FALSE(is_sep("From 5 10:20:30 2002 -0800"));
    EXPECT_FALSE(is_sep("From :0:00:00 0000 +0000 2002"));

    // A month in the wrong case is a separator but gives no date.
    EXPECT_LE(date_of("From joe Tue NOV  5 10:20:30 2002"), 0);
}

TEST_F(ScannerTest, ShortNumericZoneReadsNothingBeyondTheLine) {
    // A zone behind the year of sign and two bytes: the digits that aren't
    // there read as "0". The line sits in a buffer of its exact size, so a
    // read past it is caught by the address sanitizer.
    const char text[] = "From bob Tue Mar  7 17:42:10 2002 -T0\n";
    size_t n = sizeof(text) - 1;
    char *buf = new char[n];
    memcpy(buf, text, n);
    FromLine fl;
    ASSERT_TRUE(check_fromline(buf, buf + n, &fl));
    // "T0" as digits: 10 * 'T' + '0' - 528 = 360 hours west of UTC.
    EXPECT_EQ(get_internaldate(fl.lineEnd, fl.timeOffset, fl.zoneOffset, fl.dateOffset),
              1015522930 + 360 * 3600);
    delete[] buf;
}

TEST_F(ScannerTest, UnknownZonesAndTheLibraryTable) {
    // A zone name outside the fixed table goes to the conversion library;
    // one it doesn't know leaves the date as Universal Time.
    EXPECT_EQ(date_of("From joe Tue Nov  5 10:20:30 2002 QQQ"), 1036491630);
}

TEST_F(ScannerTest, CutsMessagesAndRewritesLineEnds) {
    std::string file =
        "From a Tue Nov  5 10:20:30 2002\n"
        "Subject: one\n"
        "\n"
        "body one\n"
        "\n"
        "From b Tue Nov  5 10:20:31 2002\r\n"
        "Subject: two\r\n"
        "\r\n"
        "body two\r\n"
        "From c not a separator, no blank line before\n"
        "\n"
        "From c Tue Nov  5 10:20:32 2002\n"
        "Subject: three\n"
        "\n"
        "last line without LF";
    auto cuts = scan(file);
    ASSERT_EQ(cuts.size(), 3u);
    EXPECT_EQ(cuts[0].text, "Subject: one\r\n\r\nbody one\r\n");
    EXPECT_EQ(cuts[0].date, 1036491630);
    EXPECT_EQ(cuts[1].text,
              "Subject: two\r\n\r\nbody two\r\nFrom c not a separator, no blank line before\r\n");
    EXPECT_EQ(cuts[1].date, 1036491631);
    EXPECT_EQ(cuts[2].text, "Subject: three\r\n\r\nlast line without LF\r\n");
    EXPECT_EQ(cuts[2].offset, (long)file.size());
    EXPECT_EQ(cuts[0].offset, (long)file.find("From b"));
}

TEST_F(ScannerTest, BlankLinesAtMessageEnds) {
    // A header-only message keeps one blank line at its end; the last
    // message of the file keeps its trailing blank line; a separator as the
    // last line gives a message of 2 bytes.
    std::string file =
        "From a Tue Nov  5 10:20:30 2002\n"
        "Subject: header only\n"
        "\n"
        "From b Tue Nov  5 10:20:30 2002\n"
        "Subject: b\n"
        "\n"
        "text\n"
        "\n"
        "From c Tue Nov  5 10:20:30 2002\n"
        "\n"
        "From d Tue Nov  5 10:20:30 2002\n"
        "Subject: d\n"
        "\n"
        "text\n"
        "\n"
        "\n"
        "From e Tue Nov  5 10:20:30 2002\n";
    auto cuts = scan(file);
    ASSERT_EQ(cuts.size(), 5u);
    EXPECT_EQ(cuts[0].text, "Subject: header only\r\n\r\n");
    EXPECT_EQ(cuts[1].text, "Subject: b\r\n\r\ntext\r\n");
    // A blank first line is stored as a bare LF; removing the blank line in
    // front of the next separator must not go below zero.
    EXPECT_EQ(cuts[2].text, "\r\n");
    EXPECT_EQ(cuts[3].text, "Subject: d\r\n\r\ntext\r\n\r\n");
    EXPECT_EQ(cuts[4].text, "\r\n");

    std::string tail =
        "From a Tue Nov  5 10:20:30 2002\n"
        "Subject: x\n"
        "\n"
        "text\n"
        "\n";
    cuts = scan(tail);
    ASSERT_EQ(cuts.size(), 1u);
    EXPECT_EQ(cuts[0].text, "Subject: x\r\n\r\ntext\r\n\r\n");

    // A message without a body gets the blank line that ends its header.
    cuts = scan("From a Tue Nov  5 10:20:30 2002\nSubject: x\n");
    ASSERT_EQ(cuts.size(), 1u);
    EXPECT_EQ(cuts[0].text, "Subject: x\r\n\r\n");
}

TEST_F(ScannerTest, HeaderFlagsAndTheSpaceRule) {
    std::string file =
        "From a Tue Nov  5 10:20:30 2002\n"
        "Status: RO\n"
        "X-Status: A\n"
        "From a second From line in the header\n"
        ":starts with colon\n"
        " continued\n"
        "\tcontinued\n"
        "Bad Name: x\n"
        "Caf\xc3\xa9: y\n"
        "\n"
        "Status: D\n"
        "\n"
        "From b Tue Nov  5 10:20:30 2002\n"
        "status: D\n"
        "x-status: r\n"
        "\n"
        "\n"
        "From c Tue Nov  5 10:20:30 2002\n"
        "Status:R\n"
        "STATUS: rd\n"
        "\n";
    auto cuts = scan(file);
    ASSERT_EQ(cuts.size(), 3u);
    EXPECT_EQ(cuts[0].status, 1u);
    EXPECT_EQ(cuts[0].xstatus, 1u);
    EXPECT_EQ(cuts[0].text,
              "Status: RO\r\nX-Status: A\r\n From a second From line in the header\r\n"
              " :starts with colon\r\n continued\r\n\tcontinued\r\n Bad Name: x\r\n"
              " Caf\x43\x29: y\r\n\r\nStatus: D\r\n");
    EXPECT_EQ(cuts[1].status, 2u);
    EXPECT_EQ(cuts[1].xstatus, 0u);
    // "status:R" has no blank after the colon, lower-case letters don't count.
    EXPECT_EQ(cuts[2].status, 0u);
}

TEST_F(ScannerTest, ContentLengthProtectsSeparatorsInsideTheBody) {
    std::string body = "line\n\nFrom x Tue Nov  5 10:20:30 2002\nmore\n";
    std::string file = "From a Tue Nov  5 10:20:30 2002\n"
                       "Content-Length: " + std::to_string(body.size()) + "\n"
                       "\n" + body + "\n"
                       "From b Tue Nov  5 10:20:30 2002\n"
                       "Subject: b\n"
                       "\n"
                       "x\n";
    auto cuts = scan(file);
    ASSERT_EQ(cuts.size(), 2u);
    EXPECT_NE(cuts[0].text.find("\r\nFrom x Tue"), std::string::npos);

    noContentLen = 1;
    cuts = scan(file);
    EXPECT_EQ(cuts.size(), 3u);
    noContentLen = 0;

    // A length that is too small does no harm: checking resumes once it is
    // reached.
    std::string small = "From a Tue Nov  5 10:20:30 2002\n"
                        "Content-Length: 3\n"
                        "\n"
                        "abcdef\n"
                        "\n"
                        "From b Tue Nov  5 10:20:30 2002\n"
                        "\n"
                        "x\n";
    EXPECT_EQ(scan(small).size(), 2u);

    // A negative length counts as none; the last value counts.
    std::string neg = "From a Tue Nov  5 10:20:30 2002\n"
                      "Content-Length: 500\n"
                      "content-length: -4\n"
                      "\n"
                      "x\n"
                      "\n"
                      "From b Tue Nov  5 10:20:30 2002\n"
                      "\n";
    EXPECT_EQ(scan(neg).size(), 2u);
}

TEST_F(ScannerTest, DatesThatAreNoGoodBecomeNow) {
    std::string file =
        "From a Tue Nov  5 10:20:30 2999\n"
        "\n"
        "x\n"
        "\n"
        "From b Tue NOV  5 10:20:30 2002\n"
        "\n"
        "y\n";
    time_t before = time(nullptr);
    auto cuts = scan(file);
    time_t after = time(nullptr);
    ASSERT_EQ(cuts.size(), 2u);
    for (auto &c : cuts) {
        EXPECT_GE(c.date, before);
        EXPECT_LE(c.date, after);
    }
}

TEST_F(ScannerTest, StopAndFailureHooks) {
    std::string file;
    for (int i = 0; i < 5; i++) file += "From a Tue Nov  5 10:20:30 2002\n\nx\n\n";
    FromLine first;
    ASSERT_TRUE(check_fromline(file.data(), file.data() + file.size(), &first));

    // A delivery that fails and ends the run: the result is 0.
    struct Rock {
        int calls = 0;
    } rock;
    ScanHooks stopAtTwo = {[](void *r, const ScannedMessage *, int *more) {
                               Rock *k = static_cast<Rock *>(r);
                               if (++k->calls == 2) {
                                   *more = 0;
                                   return 0;
                               }
                               return 1;
                           },
                           nullptr, &rock};
    EXPECT_EQ(scan_messages(file.data(), file.size(), &first, &stopAtTwo), 0);
    EXPECT_EQ(rock.calls, 2);

    // The stop hook ends the run before the next message; the result is that
    // of the last delivery.
    rock.calls = 0;
    ScanHooks polled = {[](void *r, const ScannedMessage *, int *) {
                            static_cast<Rock *>(r)->calls++;
                            return 1;
                        },
                        [](void *r) { return static_cast<Rock *>(r)->calls >= 3 ? 1 : 0; },
                        &rock};
    EXPECT_EQ(scan_messages(file.data(), file.size(), &first, &polled), 1);
    EXPECT_EQ(rock.calls, 3);
}

TEST_F(ScannerTest, LargeMessagesGrowTheBuffer) {
    std::string line(1000, 'a');
    std::string file = "From a Tue Nov  5 10:20:30 2002\nSubject: big\n\n";
    for (int i = 0; i < 3000; i++) file += line + "\n";
    file += "\nFrom b Tue Nov  5 10:20:30 2002\n\nsmall\n";
    auto cuts = scan(file);
    ASSERT_EQ(cuts.size(), 2u);
    EXPECT_EQ(cuts[0].text.size(), 14u + 2u + 3000u * 1002u);
    // A blank first line is stored as a bare LF.
    EXPECT_EQ(cuts[1].text, "\nsmall\r\n");
}

TEST_F(ScannerTest, CorpusFilesCutIntoTheirMessages) {
    struct {
        const char *name;
        size_t count;
    } files[] = {{"list-archive.mbox", 53}, {"kernel-list.mbox", 210}, {"broken.mbox", 20}};
    for (auto &f : files) {
        std::string data = testutil::read_file(testutil::corpus_path(f.name));
        ASSERT_FALSE(data.empty()) << f.name;
        auto cuts = scan(data);
        EXPECT_EQ(cuts.size(), f.count) << f.name;
        size_t lfs = 0;
        for (auto &c : cuts) {
            // Every line ends in CRLF, and no bare LF is left.
            for (size_t i = 0; i < c.text.size(); i++) {
                if (c.text[i] == '\n') {
                    lfs++;
                    ASSERT_TRUE(i > 0 && c.text[i - 1] == '\r') << f.name;
                }
            }
            EXPECT_GT(c.date, 0);
        }
        EXPECT_GT(lfs, f.count);
    }
}

TEST(PromptAndPaths, GetNewPathAppendsATimeStamp) {
    char path[1024] = "/export/user/joe/old";
    char out[1024];
    EXPECT_EQ(getNewPath(path, out), out);
    EXPECT_STREQ(path, "/export/user/joe/old");
    ASSERT_EQ(strlen(out), strlen(path) + 14);
    EXPECT_EQ(out[20], '.');
    EXPECT_EQ(out[27], '.');
    EXPECT_EQ(getNewPath(path, nullptr), nullptr);
    EXPECT_EQ(strlen(path), 20u + 14u);
}

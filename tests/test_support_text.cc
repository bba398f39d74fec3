// Text services: encoded words, character sets, time zones, the encoding of
// generated messages, and folder patterns.

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>

#include "support/charset.h"
#include "support/storeglob.h"

namespace {

std::string decode(const char *text)
{
    char *r = charset_decode1522(text, nullptr, 0);
    std::string s = r ? r : "<null>";
    free(r);
    return s;
}

TEST(Decode1522, WordsAndTheTextAroundThem)
{
    EXPECT_EQ(decode("=?utf-8?B?VGFjayBhbGxhIHRyYWZpa2FudGVyIG9jaCBmb3Rnw6RuZ2FyZSE=?="),
              "Tack alla trafikanter och fotg\xC3\xA4ngare!");
    EXPECT_EQ(decode("=?UTF-8?q?Antoine_Beaupr=C3=A9?="), "Antoine Beaupr\xC3\xA9");
    EXPECT_EQ(decode("=?ISO-8859-1?Q?Nicolas_de_Peslo=FCan?="), "Nicolas de Peslo\xC3\xBC" "an");
    EXPECT_EQ(decode("=?latin1?b?5Q==?="), "\xC3\xA5");
    EXPECT_EQ(decode("=?windows-1252?Q?=80?="), "\xE2\x82\xAC");
    EXPECT_EQ(decode("=?utf-8*de?Q?=C3=A4?="), "\xC3\xA4");  // language tag
    // Adjacent words are joined, also across a folded line; text between
    // words and around them keeps its spaces.
    EXPECT_EQ(decode("=?utf-8?Q?a?= =?utf-8?Q?b?=\r\n\t=?utf-8?Q?_c?="), "ab c");
    EXPECT_EQ(decode("Essai =?iso-8859-1?Q?accentu=E9?= done"), "Essai accentu\xC3\xA9 done");
    EXPECT_EQ(decode("=?utf-8?Q?a?= and =?utf-8?Q?b?="), "a and b");
    EXPECT_EQ(decode("Re:=?utf-8?Q?x?="), "Re:x");
    // Folding without encoded words.
    EXPECT_EQ(decode("plain\r\n text\n\tmore"), "plain text\tmore");
    EXPECT_EQ(decode(""), "");
    EXPECT_EQ(decode(nullptr), "<null>");
}

TEST(Decode1522, BrokenOrUnknownWordsStayAsTheyAre)
{
    const char *raw[] = {
        "=?x-no-such-charset?Q?abc?=",  // charset iconv doesn't know
        "=?utf-8?X?abc?=",              // unknown encoding
        "=?utf-8?Q?abc",                // no end
        "=?utf-8?B?###?=",              // not base64
        "=?utf-8?Q?a=ZZ?=",             // bad hex
        "=?utf-8?Q?a=4?=",              // hex cut short
        "=??Q?abc?=",                   // no charset
        "=?utf-8//IGNORE?Q?abc?=",      // iconv suffixes are no charset
        "=?",
        "=?utf-8?Q?",
    };
    for (const char *r : raw) EXPECT_EQ(decode(r), r) << r;
    // A broken word doesn't join with its neighbours, and the space stays.
    EXPECT_EQ(decode("=?utf-8?Q?a?= =?bogus-cs?Q?b?= =?utf-8?Q?c?="), "a =?bogus-cs?Q?b?= c");
    // Bytes that are invalid in the charset become U+FFFD.
    EXPECT_EQ(decode("=?utf-8?Q?x=FFy?="), "x\xEF\xBF\xBDy");
    EXPECT_EQ(decode("=?us-ascii?Q?=E9?="), "\xEF\xBF\xBD");
}

TEST(Decode1522, CallerBufferOrHeap)
{
    char buf[8];
    char *r = charset_decode1522("=?utf-8?Q?abc?=", buf, sizeof buf);
    EXPECT_EQ(r, buf);
    EXPECT_STREQ(buf, "abc");
    // 7 bytes and a NUL fit exactly; 8 bytes don't.
    r = charset_decode1522("1234567", buf, sizeof buf);
    EXPECT_EQ(r, buf);
    r = charset_decode1522("=?utf-8?Q?12345678?=", buf, sizeof buf);
    ASSERT_NE(r, buf);
    EXPECT_STREQ(r, "12345678");
    free(r);
    // Too small a buffer for the folded input too; buffer of size 0.
    r = charset_decode1522("x", buf, 0);
    ASSERT_NE(r, buf);
    EXPECT_STREQ(r, "x");
    free(r);
}

TEST(Charset, NumbersOfNames)
{
    EXPECT_EQ(charset_lookupname("us-ascii"), 0);
    EXPECT_EQ(charset_lookupname("US-ASCII"), 0);
    EXPECT_EQ(charset_lookupname("iso-8859-1"), charset_lookupname("Latin1"));
    EXPECT_EQ(charset_lookupname("utf-8"), charset_lookupname("UTF8"));
    EXPECT_NE(charset_lookupname("utf-8"), charset_lookupname("iso-8859-1"));
    EXPECT_NE(charset_lookupname("iso-8859-15"), charset_lookupname("iso-8859-1"));
    EXPECT_GT(charset_lookupname("koi8-r"), 0);
    EXPECT_EQ(charset_lookupname("x-unknown"), -1);
    EXPECT_EQ(charset_lookupname(""), -1);
    EXPECT_EQ(charset_lookupname(nullptr), -1);
}

std::string to_utf8(const char *text, const char *cs)
{
    char *r = MCV_LocalToUTF8(text, cs);
    std::string s = r ? r : "<null>";
    free(r);
    return s;
}

TEST(Charset, LocalTextToUtf8AndBack)
{
    EXPECT_EQ(to_utf8("Gr\xFC\xDF" "e", "iso-8859-1"), "Gr\xC3\xBC\xC3\x9F" "e");
    EXPECT_EQ(to_utf8("\xA4", "ISO-8859-15"), "\xE2\x82\xAC");
    EXPECT_EQ(to_utf8("\xC1", "koi8-r"), "\xD0\xB0");
    EXPECT_EQ(to_utf8("\x1B$B$\"\x1B(B", "iso-2022-jp"), "\xE3\x81\x82");
    // Without a charset: valid UTF-8 is kept, other bytes are Latin-1.
    EXPECT_EQ(to_utf8("Sent/\xC3\xA4", nullptr), "Sent/\xC3\xA4");
    EXPECT_EQ(to_utf8("Sent/\xE4", nullptr), "Sent/\xC3\xA4");
    EXPECT_EQ(to_utf8("\xED\xA0\x80", nullptr), "\xC3\xAD\xC2\xA0\xC2\x80");  // surrogate
    EXPECT_EQ(to_utf8("\xC3", nullptr), "\xC3\x83");                       // cut short
    // An unknown charset or input invalid in the charset: as without one.
    EXPECT_EQ(to_utf8("\xE4", "x-no-such"), "\xC3\xA4");
    EXPECT_EQ(to_utf8("\xE4", "utf-8"), "\xC3\xA4");
    EXPECT_EQ(to_utf8(nullptr, nullptr), "<null>");

    const char *names[] = {"INBOX", "Entw\xC3\xBC" "rfe/\xE2\x82\xAC", ""};
    for (const char *n : names) {
        char *u = MCV_LocalToUTF8(n, nullptr);
        char *l = MCV_UTF8ToLocal(u, 0);
        EXPECT_STREQ(l, n);
        EXPECT_NE(l, n);
        free(u);
        free(l);
    }
}

TEST(Charset, TimeZones)
{
    struct {
        const char *zone;
        char sign;
        int hours, minutes;
    } known[] = {
        {"EST", '-', 5, 0},   {"edt", '-', 4, 0},    {"PST", '-', 8, 0},
        {"CET", '+', 1, 0},   {"cest", '+', 2, 0},   {"JST", '+', 9, 0},
        {"IST", '+', 5, 30},  {"NST", '-', 3, 30},   {"AEDT", '+', 11, 0},
        {"GMT", '+', 0, 0},   {"+0530", '+', 5, 30}, {"-0800", '-', 8, 0},
        {"MEZ 2004", '+', 1, 0}, {" BST\r\n", '+', 1, 0}, {"UTC (x)", '+', 0, 0},
    };
    for (auto &k : known) {
        char sign = 0;
        int h = -1, m = -1;
        ASSERT_NE(MCV_TimeZoneToOffset(k.zone, &sign, &h, &m), 0) << k.zone;
        EXPECT_EQ(sign, k.sign) << k.zone;
        EXPECT_EQ(h, k.hours) << k.zone;
        EXPECT_EQ(m, k.minutes) << k.zone;
    }
    const char *unknown[] = {"XYZ", "ESTX", "+05", "+12345", "-0popo", "", "2004", "+0099"};
    for (const char *u : unknown) {
        char sign = 'x';
        int h = 0, m = 0;
        EXPECT_EQ(MCV_TimeZoneToOffset(u, &sign, &h, &m), 0) << u;
    }
    EXPECT_EQ(MCV_TimeZoneToOffset(nullptr, nullptr, nullptr, nullptr), 0);
}

// Renders a header value as a greeting would: first the size, then the
// conversion into a buffer of exactly that size and one of one byte less.
std::string header(const char *text)
{
    int need = MCV_UTF8ToInternetMessageHeader("en", text, nullptr, -1);
    EXPECT_GE(need, 0);
    std::string out(need + 1, '\0');
    EXPECT_EQ(MCV_UTF8ToInternetMessageHeader("en", text, &out[0], need + 1), need);
    EXPECT_EQ(out[need], '\0');
    if (need > 0) {
        std::string small(need, 'x');
        EXPECT_EQ(MCV_UTF8ToInternetMessageHeader("en", text, &small[0], need - 1), -1);
    }
    out.resize(need);
    return out;
}

TEST(GeneratedMessage, HeaderValuesRoundTrip)
{
    EXPECT_EQ(header("Welcome to the store"), "Welcome to the store");
    EXPECT_EQ(header(""), "");
    EXPECT_EQ(header("Willkommen, M\xC3\xBCller!"), "Willkommen, =?utf-8?Q?M=C3=BCller!?=");

    std::string longtext;
    for (int i = 0; i < 40; i++) longtext += "\xC3\xA9t\xC3\xA9 ";
    const char *texts[] = {
        "Willkommen bei M\xC3\xBCller und S\xC3\xB6hne",
        "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xE3\x81\xAE \xE4\xBB\xB6\xE5\x90\x8D",
        "a =?utf-8?Q?looks_encoded?= b",
        " lead and trail \xC3\xA9 ",
        "tab\there \xC3\xA9\t\xC3\xA9",
        longtext.c_str(),
    };
    for (const char *t : texts) {
        std::string enc = header(t);
        for (char c : enc) EXPECT_LT((unsigned char)c, 0x80) << t;
        // Every encoded word is at most 75 bytes long.
        size_t pos = 0;
        while ((pos = enc.find("=?", pos)) != std::string::npos) {
            size_t end = enc.find("?=", pos + 10);
            ASSERT_NE(end, std::string::npos);
            EXPECT_LE(end + 2 - pos, 75u) << enc;
            pos = end + 2;
        }
        EXPECT_EQ(decode(enc.c_str()), t) << enc;
    }
}

std::string qp_decode(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '=' && i + 2 < s.size() && s[i + 1] == '\r' && s[i + 2] == '\n') {
            i += 2;
        } else if (s[i] == '=' && i + 2 < s.size()) {
            out += (char)strtol(s.substr(i + 1, 2).c_str(), nullptr, 16);
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string body(const char *text)
{
    int need = MCV_UTF8ToInternetMessageBody("de", text, nullptr, -1, 0, 0);
    EXPECT_GE(need, 0);
    std::string out(need, '\0');
    // A buffer of exactly the length is enough (the caller adds the NUL).
    EXPECT_EQ(MCV_UTF8ToInternetMessageBody("de", text, &out[0], need, 0, 0), need);
    if (need > 0) {
        EXPECT_EQ(MCV_UTF8ToInternetMessageBody("de", text, &out[0], need - 1, 0, 0), -1);
    }
    return out;
}

TEST(GeneratedMessage, BodyInTheAnnouncedEncoding)
{
    const char *ascii = "Hello bob,\nyour quota is 90%.\r\n= ok";
    EXPECT_STREQ(MCV_InternetMessageCharset("en", ascii, "utf-8", 0), "us-ascii");
    EXPECT_STREQ(MCV_InternetMessageContentTransferEncoding("en", ascii, "utf-8"), "7bit");
    EXPECT_EQ(body(ascii), "Hello bob,\r\nyour quota is 90%.\r\n= ok");

    std::string text = "Gr\xC3\xBC\xC3\x9F" "e, trailing space \r\nline=2\t\r\n";
    text += std::string(200, 'x') + "\r\n\xE2\x82\xAC";
    EXPECT_STREQ(MCV_InternetMessageCharset("de", text.c_str(), "utf-8", 0), "utf-8");
    EXPECT_STREQ(MCV_InternetMessageContentTransferEncoding("de", text.c_str(), "utf-8"),
                 "quoted-printable");
    std::string qp = body(text.c_str());
    size_t start = 0;
    while (start < qp.size()) {
        size_t end = qp.find("\r\n", start);
        if (end == std::string::npos) end = qp.size();
        std::string line = qp.substr(start, end - start);
        EXPECT_LE(line.size(), 76u) << line;
        for (char c : line) EXPECT_TRUE(c >= 33 || c == ' ' || c == '\t') << line;
        if (!line.empty()) {
            EXPECT_NE(line.back(), ' ') << line;
        }
        EXPECT_EQ(qp.find('\n', start), end == qp.size() ? std::string::npos : end + 1);
        start = end + 2;
    }
    EXPECT_EQ(qp_decode(qp), text);

    // An ASCII line too long for a transport needs quoted-printable too.
    std::string longline(1200, 'a');
    EXPECT_STREQ(MCV_InternetMessageContentTransferEncoding("en", longline.c_str(), "utf-8"),
                 "quoted-printable");
    EXPECT_EQ(qp_decode(body(longline.c_str())), longline);
    EXPECT_EQ(body(""), "");
}

int match(const char *pattern, int flags, const char *text, const char *suppress = nullptr)
{
    storeglob *g = glob_init_suppress(pattern, flags, suppress);
    int r = glob_test(g, text, 0, nullptr);
    glob_free(&g);
    EXPECT_EQ(g, nullptr);
    return r;
}

TEST(Glob, WildcardsAndWholeMatches)
{
    EXPECT_EQ(match("*", 0, "a/b/c"), 5);
    EXPECT_EQ(match("%", 0, "abc"), 3);
    EXPECT_EQ(match("%", 0, "a/b"), -1);
    EXPECT_EQ(match("a/%", 0, "a/b"), 3);
    EXPECT_EQ(match("a*c", 0, "abbbc"), 5);
    EXPECT_EQ(match("a*c", 0, "abbbcd"), -1);
    EXPECT_EQ(match("a%c", 0, "ab/c"), -1);
    EXPECT_EQ(match("*%*", 0, "x/y"), 3);
    EXPECT_EQ(match("Sent", 0, "sent"), -1);
    EXPECT_EQ(match("Sent", GLOB_ICASE, "sEnT"), 4);
    // The refused names of the folder name policy.
    EXPECT_EQ(match("", 0, ""), 0);
    EXPECT_EQ(match("", 0, "x"), -1);
    EXPECT_EQ(match("*\t*", 0, "a\tb"), 3);
    EXPECT_EQ(match("*\t*", 0, "ab"), -1);
    EXPECT_EQ(match("/*", 0, "/x"), 2);
    EXPECT_EQ(match("*/", 0, "user/x/"), 7);
    EXPECT_EQ(match("*//*", 0, "user/a//b"), 9);
    EXPECT_EQ(match("*//*", 0, "user/a/b"), -1);
    EXPECT_EQ(match("user", 0, "user"), 4);
    EXPECT_EQ(match("user", 0, "user/bob"), -1);
    EXPECT_EQ(match("user", 0, "users"), -1);
    // Length argument: only that much of the text is looked at.
    storeglob *g = glob_init_suppress("abc", 0, nullptr);
    EXPECT_EQ(glob_test(g, "abcdef", 3, nullptr), 3);
    EXPECT_EQ(glob_test(g, "abcdef", 4, nullptr), -1);
    glob_free(&g);
    // Many stars against a long text that fails at the very end.
    std::string as(400, 'a');
    EXPECT_EQ(match("*a*a*a*a*a*a*a*a*b", 0, as.c_str()), -1);
    EXPECT_EQ(match("*a*a*a*a*a*a*a*a*", 0, as.c_str()), 400);
}

TEST(Glob, ListingMatchesParentsAndInbox)
{
    const int list = GLOB_HIERARCHY | GLOB_INBOXCASE;
    EXPECT_EQ(list, 12);
    // A pattern ending in "%" reaches down to a "/" of a deeper name.
    EXPECT_EQ(match("%", list, "a/b"), 1);
    EXPECT_EQ(match("%", list, "a"), 1);
    EXPECT_EQ(match("a/%", list, "a/b/c"), 3);
    EXPECT_EQ(match("Shared%", list, "Shared Folders/User"), 14);
    EXPECT_EQ(match("*", list, "a/b/c"), 5);
    EXPECT_EQ(match("a", list, "a/b"), -1);  // only a trailing "%" does this
    EXPECT_EQ(match("b%", list, "a/b"), -1);
    // A whole match wins over a partial one.
    EXPECT_EQ(match("*%", list, "a/b/c"), 5);
    // The inbox matches in any case, other names do not.
    EXPECT_EQ(match("inbox", list, "INBOX"), 5);
    EXPECT_EQ(match("inb*", list, "INBOX"), 5);
    EXPECT_EQ(match("Inbox/%", list, "INBOX/Drafts"), 12);
    EXPECT_EQ(match("inbox", list, "INBOXES"), -1);
    EXPECT_EQ(match("inbox*", list, "INBOXES"), -1);
    EXPECT_EQ(match("drafts", list, "Drafts"), -1);
    EXPECT_EQ(match("inbox", 0, "INBOX"), -1);
    // A suppressed leading part is skipped, but counted in the result.
    EXPECT_EQ(match("%", list, "user/bob/a/b", "user/bob/"), 10);
    EXPECT_EQ(match("a", list, "user/bob/a", "user/bob/"), 10);
    EXPECT_EQ(match("inbox", list, "user/bob/INBOX", "user/bob/"), 14);
    EXPECT_EQ(match("a", list, "a", "user/bob/"), 1);
}

TEST(Glob, StateGoesThroughAllMatches)
{
    storeglob *g = glob_init_suppress("*%", GLOB_HIERARCHY, nullptr);
    long state = 0;
    EXPECT_EQ(glob_test(g, "a/bc/d", 0, &state), 6);
    EXPECT_EQ(state, 6);
    EXPECT_EQ(glob_test(g, "a/bc/d", 0, &state), 4);
    EXPECT_EQ(glob_test(g, "a/bc/d", 0, &state), 1);
    EXPECT_EQ(glob_test(g, "a/bc/d", 0, &state), -1);
    EXPECT_EQ(state, -1);
    EXPECT_EQ(glob_test(g, "a/bc/d", 0, &state), -1);
    state = 0;
    EXPECT_EQ(glob_test(g, "zz", 0, &state), 2);
    EXPECT_EQ(glob_test(g, "zz", 0, &state), -1);
    glob_free(&g);
    glob_free(&g);  // a freed handle is null and may be freed again
}

}  // namespace

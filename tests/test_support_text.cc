// Text services: encoded words, character sets, time zones and folder
// patterns.
#include "support/charset.h"
#include "support/storeglob.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

std::string decode(const char *text) { return take(charset_decode1522(text, nullptr, 0)); }

TEST(Decode1522, WordsTextAroundThemAndBrokenWords) {
    struct { const char *in, *out; } cases[] = {
        {"=?latin1?b?5Q==?=", "\xC3\xA5"}, {"=?ISO-8859-1?Q?Peslo=FCan?=", "Peslo\xC3\xBC" "an"},
        {"=?utf-8*de?Q?=C3=A4?=", "\xC3\xA4"},  // language tag
        // Adjacent words are joined, also across a folded line; text between
        // and around words keeps its spaces; a broken word joins with none.
        {"=?utf-8?Q?a?= =?utf-8?Q?b?=\r\n\t=?utf-8?Q?_c?=", "ab c"},
        {"Essai =?iso-8859-1?Q?accentu=E9?= done", "Essai accentu\xC3\xA9 done"},
        {"plain\r\n text\n\tmore", "plain text\tmore"},
        {"=?utf-8?Q?a?= =?bogus-cs?Q?b?= =?utf-8?Q?c?=", "a =?bogus-cs?Q?b?= c"},
        {"", ""}, {nullptr, "<null>"},
        {"=?utf-8?Q?x=FFy?=", "x\xEF\xBF\xBDy"},  // invalid in the charset: U+FFFD
    };
    for (const auto &c : cases) EXPECT_EQ(decode(c.in), c.out) << (c.in ? c.in : "null");
    // Unknown charset or encoding, no end, bad base64 or hex, no charset,
    // iconv suffixes: the words stay as they are.
    for (const char *r : {"=?x-no-such-charset?Q?abc?=", "=?utf-8?X?abc?=", "=?utf-8?Q?abc", "=?utf-8?B?###?=",
                          "=?utf-8?Q?a=ZZ?=", "=?utf-8?Q?a=4?=", "=??Q?abc?=", "=?utf-8//IGNORE?Q?abc?=", "=?"})
        EXPECT_EQ(decode(r), r) << r;
    // Into the caller's buffer when the result and its NUL fit, else on the heap.
    char buf[8];
    char *r = charset_decode1522("=?utf-8?Q?12345678?=", buf, sizeof buf);
    EXPECT_TRUE(charset_decode1522("1234567", buf, sizeof buf) == buf && r != buf && take(r) == "12345678");
}

TEST(Charset, NamesLocalTextAndTimeZones) {
    for (const char *n : {"x-unknown", "", (const char *)nullptr}) EXPECT_EQ(charset_lookupname(n), -1);
    struct { const char *in, *cs, *out; } cases[] = {
        {"\xA4", "ISO-8859-15", "\xE2\x82\xAC"},
        // Without a charset: valid UTF-8 is kept, other bytes are Latin-1.
        {"Sent/\xC3\xA4", nullptr, "Sent/\xC3\xA4"}, {"\xC3", nullptr, "\xC3\x83"},  // the latter cut short
        {"\xED\xA0\x80", nullptr, "\xC3\xAD\xC2\xA0\xC2\x80"},  // a surrogate
        // An unknown charset or input invalid in the charset: as without one.
        {"\xE4", "x-no-such", "\xC3\xA4"}, {"\xE4", "utf-8", "\xC3\xA4"}, {nullptr, nullptr, "<null>"},
    };
    for (const auto &c : cases) EXPECT_EQ(take(MCV_LocalToUTF8(c.in, c.cs)), c.out) << (c.cs ? c.cs : "none");
    // Zones as "+hhmm", or "-" when not known: what may follow a name, and
    // numbers that are no zone.
    auto zone = [](const char *z) {
        char sign = 'x', buf[16] = "-";
        int h = -1, m = -1;
        if (MCV_TimeZoneToOffset(z, &sign, &h, &m)) snprintf(buf, sizeof buf, "%c%02d%02d", sign, h, m);
        return std::string(buf);
    };
    struct { const char *zone, *offset; } zones[] = {
        {"-0800", "-0800"},    {"MEZ 2004", "+0100"}, {" BST\r\n", "+0100"}, {"UTC (x)", "+0000"},
        {"XYZ", "-"},          {"ESTX", "-"},         {"+05", "-"},          {"+12345", "-"},
        {"-0popo", "-"},       {"", "-"},             {"2004", "-"},         {"+0099", "-"}};
    for (const auto &z : zones) EXPECT_EQ(zone(z.zone), z.offset) << z.zone;
    EXPECT_EQ(MCV_TimeZoneToOffset(nullptr, nullptr, nullptr, nullptr), 0);
}

// The patterns as the folder name policy uses them: whole names, "*"
// across "/", "%" not.
TEST(Glob, MatchesOfPatterns) {
    std::string as(400, 'a');
    struct { const char *pattern, *text; int want; } cases[] = {
        {"%", "a/b", -1}, {"a%c", "ab/c", -1}, {"*%*", "x/y", 3}, {"", "", 0}, {"", "x", -1},
        {"*//*", "a//b", 4}, {"*/", "a/b", -1}, {"/*", "/a", 2},
        // Many stars against a long text that fails at the very end.
        {"*a*a*a*a*a*a*a*a*b", as.c_str(), -1}, {"*a*a*a*a*a*a*a*a*", as.c_str(), 400},
    };
    for (const auto &c : cases) {
        storeglob *g = glob_init_suppress(c.pattern, 0, nullptr);
        EXPECT_EQ(glob_test(g, c.text, 0, nullptr), c.want) << c.pattern << " " << c.text;
        glob_free(&g);
    }
}

}  // namespace

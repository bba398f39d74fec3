// String, time and memory helpers of the support layer.
#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <random>
#include <string>
#include <vector>

#include "support/strutil.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

typedef int (*convert_fn)(const char *, char *, size_t);

// The result of a conversion into a buffer of the given size, "<error>" if
// it fails.
std::string conv(convert_fn fn, const std::string &in, size_t size = 1024) {
    std::vector<char> buf(size ? size : 1, 'X');
    return fn(in.c_str(), buf.data(), size) == 0 ? std::string(buf.data()) : "<error>";
}

void append_utf8(std::string &s, uint32_t cp) {
    if (cp < 0x80) {
        s += (char)cp;
        return;
    }
    static const unsigned char lead[] = {0, 0xc0, 0xe0, 0xf0};
    int extra = cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
    s += (char)(lead[extra] | (cp >> (6 * extra)));
    for (int i = extra - 1; i >= 0; i--) s += (char)(0x80 | ((cp >> (6 * i)) & 0x3f));
}

}  // namespace

TEST(ModifiedUtf7, KnownEncodingsBothWays) {
    struct { const char *utf8, *mutf7; } cases[] = {
        {"", ""},
        {"INBOX", "INBOX"},
        {"Entw\xc3\xbcrfe", "Entw&APw-rfe"},
        {"&", "&-"},
        {"A&B&&", "A&-B&-&-"},
        {"~peter/mail/\xe5\x8f\xb0\xe5\x8c\x97/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e",
         "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
        {"\xf0\x9f\x98\x80", "&2D3eAA-"},                        // U+1F600, a surrogate pair
        {"a\xf4\x8f\xbf\xbf" "b", "a&2,,f,w-b"},                 // U+10FFFF
        {"a\t\xc3\xa9", "a&AAkA6Q-"},                            // a control character is encoded
        {"\xc3\x84\xc3\x96\xc3\x9c\xc3\xa4\xc3\xb6\xc3\xbc\xc3\x9f", "&AMQA1gDcAOQA9gD8AN8-"},
        {"x\xc2\x80y", "x&AIA-y"},
        {"\xc3\xa4&\xc3\xa4", "&AOQ-&-&AOQ-"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(conv(mutf7_fromutf8, c.utf8), c.mutf7) << c.utf8;
        EXPECT_EQ(conv(mutf7_toutf8, c.mutf7), c.utf8) << c.mutf7;
    }
}

TEST(ModifiedUtf7, RandomRoundTrips) {
    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t lo, uint32_t hi) {
        return std::uniform_int_distribution<uint32_t>(lo, hi)(rng);
    };
    for (int n = 0; n < 3000; n++) {
        std::string s;
        int len = (int)pick(0, 24);
        for (int i = 0; i < len; i++) {
            uint32_t cp;
            switch (pick(0, 6)) {
                case 0: cp = pick(0x20, 0x7e); break;                   // printable ASCII
                case 1: cp = pick(0, 1) ? '&' : '-'; break;             // the shift characters
                case 2: cp = pick(0, 1) ? pick(1, 0x1f) : 0x7f; break;  // controls
                case 3: cp = pick(0x80, 0x7ff); break;
                case 4:
                    do cp = pick(0x800, 0xffff);
                    while (cp >= 0xd800 && cp <= 0xdfff);
                    break;
                default: cp = pick(0x10000, 0x10ffff); break;  // astral
            }
            append_utf8(s, cp);
        }
        std::string m = conv(mutf7_fromutf8, s);
        ASSERT_NE(m, "<error>") << "encoding failed for case " << n;
        for (unsigned char c : m) ASSERT_TRUE(c >= 0x20 && c <= 0x7e) << m;
        ASSERT_EQ(conv(mutf7_toutf8, m), s) << m;
    }
}

TEST(ModifiedUtf7, RefusesMalformedInputAndOverflow) {
    const char *bad[] = {
        "&", "&AOQ", "a&AOQ",              // a run never started or never ended
        "&AOR-", "&AOQA-", "&A-",          // padding bits not zero, a character too many or too few
        "&AGE-", "&AGEA5A-", "&ACY-",      // ASCII ("a", "&") that must stand as itself
        "&AAA-", "&2D0-", "&3gA-",         // NUL, lone high and low surrogates
        "&2D0-&3gA-", "&2D3YPQ-",          // a pair split across runs, two high surrogates
        "&A/Q-", "&AOQ=-", "\xc3\xa4", "a\tb",  // "/" and "=" in a run, raw 8-bit and control bytes
    };
    for (const char *b : bad) EXPECT_EQ(conv(mutf7_toutf8, b), "<error>") << "accepted: " << b;
    for (const char *s : {"\xc3", "a\xc3(", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff", "\x80"})
        EXPECT_EQ(conv(mutf7_fromutf8, s), "<error>") << "accepted invalid UTF-8";

    // Buffers of exactly the size needed, and one byte less.
    EXPECT_EQ(conv(mutf7_fromutf8, "\xc3\xa4", 6), "&AOQ-");
    EXPECT_EQ(conv(mutf7_fromutf8, "\xc3\xa4", 5), "<error>");
    EXPECT_EQ(conv(mutf7_fromutf8, "&", 2), "<error>");  // "&-" needs 3
    EXPECT_EQ(conv(mutf7_toutf8, "&AOQ-", 3), "\xc3\xa4");
    EXPECT_EQ(conv(mutf7_toutf8, "&AOQ-", 2), "<error>");
    EXPECT_EQ(conv(mutf7_toutf8, "abc", 3), "<error>");
    // The terminator stays inside the buffer even when the result doesn't fit.
    char small[4];
    memset(small, 'X', sizeof small);
    EXPECT_EQ(mutf7_toutf8("abcdef", small, sizeof small), -1);
    EXPECT_EQ(strlen(small), 3u);
}

TEST(StringHelpers, UtfToUniCharWalksAString) {
    // a, U+00E4, U+20AC, U+1F600 (outside the basic plane), a stray byte, z;
    // then a truncated sequence (one replacement, the next character goes
    // through) and an overlong form.
    const char *s = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\xff" "z\xe2\x82" "x\xc0\xaf";
    uint16_t expect_units[] = {'a', 0xe4, 0x20ac, 0xfffd, 0xfffd, 'z', 0xfffd, 'x', 0xfffd, 0};
    int expect_lens[] = {1, 2, 3, 4, 1, 1, 2, 1, 2, 0};
    const char *p = s;
    for (size_t i = 0; i < sizeof expect_lens / sizeof expect_lens[0]; i++) {
        uint16_t u = 0x1234;
        int n = UtfToUniChar(p, &u);
        EXPECT_EQ(u, expect_units[i]) << i;
        EXPECT_EQ(n, expect_lens[i]) << i;
        p += n;
    }
}

TEST(StringHelpers, AtomsCaseAndCopies) {
    for (const char *a : {"INBOX", "a.b-c_d", "x[1", "$Label", "~", "1234"})
        EXPECT_TRUE(imparse_isatom(a)) << a;
    for (const char *a : {"", "a b", "(x", "x)", "{3}", "50%", "a*", "\"q\"", "\\Seen", "x]",
                          "tab\there", "del\x7f", "\xc3\xa4"})
        EXPECT_FALSE(imparse_isatom(a)) << a;

    char s[] = "MiXeD \xc3\x84 Case 9";
    EXPECT_STREQ(lcase(s), "mixed \xc3\x84 case 9");  // bytes above ASCII untouched
    EXPECT_STREQ(str_toupper(s), "MIXED \xc3\x84 CASE 9");

    char buf[6];
    EXPECT_EQ(store_strlcpy(buf, "abcdefgh", sizeof buf), 8u);
    EXPECT_STREQ(buf, "abcde");
    EXPECT_EQ(store_strlcpy(buf, "ab", sizeof buf), 2u);
    EXPECT_STREQ(buf, "ab");
    buf[0] = 'Q';
    EXPECT_EQ(store_strlcpy(buf, "xyz", 0), 3u);
    EXPECT_EQ(buf[0], 'Q');
}

TEST(TimeHelpers, MkgmtimeKnownValuesAndNormalisation) {
    auto mk = [](int y, int mon, int mday, int h, int mi, int s) {
        return tm{s, mi, h, mday, mon, y - 1900, 0, 0, -1, 0, nullptr};
    };
    struct { struct tm tm; long long expect; } cases[] = {
        {mk(1970, 0, 1, 0, 0, 0), 0},
        {mk(2000, 1, 29, 12, 34, 56), 951827696},
        {mk(2038, 0, 19, 3, 14, 7), 2147483647LL},
        {mk(1969, 11, 31, 23, 59, 59), -1},
        {mk(2100, 2, 1, 0, 0, 0), 4107542400LL},       // 2100 is not a leap year
        {mk(1999, 12, 1, 0, 0, 0), 946684800},         // month 12 is January of 2000
        {mk(2000, 2, 0, 0, 0, 0), 951782400},          // day 0 is 29 February
        {mk(2001, 0, 366, 0, 0, 0), 1009843200},       // day 366 of 2001 is 2002-01-01
        {mk(2000, 0, 1, -1, 0, 0), 946681200},         // hour -1
        {mk(2000, 0, 1, 0, 0, 86400 * 2), 946857600},  // seconds spill over into days
        {mk(2000, -1, 1, 0, 0, 0), 944006400},         // month -1 is December of 1999
    };
    for (auto &c : cases) EXPECT_EQ((long long)mkgmtime(&c.tm), c.expect);

    // The result doesn't depend on the process's time zone; it and the
    // normalised fields agree with the C library's timegm on wildly
    // out-of-range fields, and mtgmtime gives those fields back.
    testutil::ScopedTZ tz("America/New_York");
    std::mt19937 rng(7);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int i = 0; i < 20000; i++) {
        struct tm a = mk(pick(1800, 2300), pick(-40, 40), pick(-400, 400), pick(-100, 100),
                         pick(-3000, 3000), pick(-200000, 200000));
        struct tm b = a, back;
        time_t ours = mkgmtime(&a);
        ASSERT_EQ((long long)ours, (long long)timegm(&b)) << "case " << i;
        ASSERT_TRUE(mtgmtime(&ours, &back));
        for (const struct tm *o : {&b, &back})
            ASSERT_TRUE(a.tm_year == o->tm_year && a.tm_mon == o->tm_mon && a.tm_mday == o->tm_mday &&
                        a.tm_hour == o->tm_hour && a.tm_min == o->tm_min && a.tm_sec == o->tm_sec &&
                        a.tm_wday == o->tm_wday && a.tm_yday == o->tm_yday)
                << "case " << i;
    }
}

TEST(Memory, CopiesAndExhaustion) {
    EXPECT_EQ("abc", testutil::take(xstrndup("abcdef", 3)));
    int *z = (int *)xcalloc(16, sizeof(int));
    EXPECT_EQ(std::vector<int>(z, z + 16), std::vector<int>(16, 0));
    free(xrealloc(z, 1024 * sizeof(int)));
#if !defined(__SANITIZE_ADDRESS__)
    // An impossible request ends the process with status 75 and a message.
    EXPECT_EXIT(free(xmalloc(SIZE_MAX / 2)), ::testing::ExitedWithCode(75), "Out of memory");
#endif
}

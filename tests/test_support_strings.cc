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

typedef int (*convert_fn)(const char *, char *, size_t);

// The result of a conversion into a buffer of the given size, "<error>" if
// it fails.
static std::string conv(convert_fn fn, const std::string &in, size_t size = 1024) {
    std::vector<char> buf(size ? size : 1, 'X');
    return fn(in.c_str(), buf.data(), size) == 0 ? std::string(buf.data()) : "<error>";
}

TEST(ModifiedUtf7, EncodingsRoundTripsAndRefusals) {
    // A surrogate pair outside the basic plane; a control character is encoded.
    struct { const char *utf8, *mutf7; } cases[] = {
        {"", ""}, {"A&B&&", "A&-B&-&-"}, {"\xf0\x9f\x98\x80", "&2D3eAA-"}, {"a\t\xc3\xa9", "a&AAkA6Q-"},
        {"~peter/mail/\xe5\x8f\xb0\xe5\x8c\x97/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"}};
    for (const auto &c : cases) {
        EXPECT_EQ(conv(mutf7_fromutf8, c.utf8), c.mutf7) << c.utf8;
        EXPECT_EQ(conv(mutf7_toutf8, c.mutf7), c.utf8) << c.mutf7;
    }

    // Random text of every kind of code point: printable 7-bit, the shift
    // characters, controls, two-, three- and four-byte sequences.
    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    const uint32_t ranges[][2] = {{0x20, 0x7e}, {'&', '&'}, {'-', '-'}, {1, 0x1f}, {0x7f, 0x7f}, {0x80, 0x7ff},
                                  {0x800, 0xd7ff},                                  {0xe000, 0xffff}, {0x10000, 0x10ffff}};
    for (int n = 0; n < 3000; n++) {
        std::string s;
        for (int i = (int)pick(0, 24); i > 0; i--) {
            const uint32_t *r = ranges[pick(0, 8)];
            uint32_t cp = pick(r[0], r[1]);
            int extra = cp < 0x80 ? 0 : cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
            s += (char)((0xf0e0c000u >> (8 * extra) & 0xff) | (cp >> (6 * extra)));
            for (int k = extra - 1; k >= 0; k--) s += (char)(0x80 | ((cp >> (6 * k)) & 0x3f));
        }
        std::string m = conv(mutf7_fromutf8, s);
        ASSERT_NE(m, "<error>") << "case " << n;
        for (unsigned char c : m) ASSERT_TRUE(c >= 0x20 && c <= 0x7e) << m;
        ASSERT_EQ(conv(mutf7_toutf8, m), s) << m;
    }

    // Refused: runs not ended, bad padding, ASCII or NUL encoded, bad
    // surrogates, "/" and "=" in a run, raw 8-bit and control bytes.
    for (const char *b : {"&", "&AOQ", "a&AOQ", "&AOR-", "&AOQA-", "&A-", "&AGE-", "&AGEA5A-", "&ACY-", "&AAA-",
                          "&2D0-", "&3gA-", "&2D0-&3gA-", "&2D3YPQ-", "&A/Q-", "&AOQ=-", "\xc3\xa4", "a\tb"})
        EXPECT_EQ(conv(mutf7_toutf8, b), "<error>") << "accepted: " << b;
    for (const char *s : {"\xc3", "a\xc3(", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff", "\x80"})
        EXPECT_EQ(conv(mutf7_fromutf8, s), "<error>") << "accepted invalid UTF-8";

    // Buffers of exactly the size needed, and one byte less; the terminator
    // stays inside the buffer even when the result doesn't fit.
    struct { convert_fn fn; const char *in; size_t size; const char *out; } sizes[] = {
        {mutf7_fromutf8, "\xc3\xa4", 6, "&AOQ-"}, {mutf7_fromutf8, "\xc3\xa4", 5, "<error>"},
        {mutf7_fromutf8, "&", 2, "<error>"},      {mutf7_toutf8, "&AOQ-", 3, "\xc3\xa4"},
        {mutf7_toutf8, "&AOQ-", 2, "<error>"},    {mutf7_toutf8, "abc", 3, "<error>"}};
    for (const auto &z : sizes) EXPECT_EQ(conv(z.fn, z.in, z.size), z.out) << z.in << " in " << z.size;
    char small[4] = {'X', 'X', 'X', 'X'};
    EXPECT_TRUE(mutf7_toutf8("abcdef", small, sizeof small) == -1 && strlen(small) == 3);
}

TEST(StringHelpers, CharactersAtomsCaseAndCopies) {
    // a, U+00E4, U+20AC, U+1F600 (outside the basic plane), a stray byte, z;
    // then a truncated sequence (one replacement, the next character goes
    // through) and an overlong form.
    const char *p = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\xff" "z\xe2\x82" "x\xc0\xaf";
    uint16_t units[] = {'a', 0xe4, 0x20ac, 0xfffd, 0xfffd, 'z', 0xfffd, 'x', 0xfffd, 0};
    int lens[] = {1, 2, 3, 4, 1, 1, 2, 1, 2, 0};
    for (size_t i = 0, n; i < 10; i++, p += n) {
        uint16_t u = 0x1234;
        EXPECT_TRUE((n = UtfToUniChar(p, &u)) == (size_t)lens[i] && u == units[i]) << i << ": " << u << " " << n;
    }

    for (const char *a : {"INBOX", "x[1", "$Label"}) EXPECT_TRUE(imparse_isatom(a)) << a;
    for (const char *a : {"", "a b", "{3}", "50%", "\"q\"", "\\Seen", "x]", "del\x7f", "\xc3\xa4"})
        EXPECT_FALSE(imparse_isatom(a)) << a;
    char mixed[] = "MiXeD \xc3\x84 Case 9";
    EXPECT_STREQ(lcase(mixed), "mixed \xc3\x84 case 9");  // bytes above ASCII untouched

    char buf[6] = "";
    EXPECT_TRUE(store_strlcpy(buf, "abcdefgh", sizeof buf) == 8 && !strcmp(buf, "abcde"));
    EXPECT_TRUE(store_strlcpy(buf, "xyz", 0) == 3 && buf[0] == 'a');  // nothing written into no room
}

// mkgmtime agrees with the C library's timegm, also on wildly out-of-range
// fields and with a local zone that has daylight saving, and leaves the
// fields normalised as mtgmtime gives them back.
TEST(TimeHelpers, MkgmtimeNormalisesAsUniversalTime) {
    testutil::ScopedTZ tz("America/New_York");
    std::mt19937 rng(7);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int i = 0; i < 20000; i++) {
        struct tm a = {pick(-200000, 200000), pick(-3000, 3000), pick(-100, 100), pick(-400, 400),
                       pick(-40, 40), pick(1800, 2300) - 1900, 0, 0, -1, 0, nullptr};
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

TEST(Memory, Exhaustion) {
#if !defined(__SANITIZE_ADDRESS__)
    // An impossible request ends the process with status 75.
    EXPECT_EXIT(free(xmalloc(SIZE_MAX / 2)), ::testing::ExitedWithCode(75), "");
#endif
}

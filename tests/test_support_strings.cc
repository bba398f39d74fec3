// String, time and memory helpers of the support layer.
#include <random>

#include "support/strutil.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

TEST(StringHelpers, LowerCaseLeavesEightBitBytes) {
    char mixed[] = "MiXeD \xc3\x84 Case 9";
    EXPECT_STREQ(lcase(mixed), "mixed \xc3\x84 case 9");
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
                        a.tm_wday == o->tm_wday && a.tm_yday == o->tm_yday) << "case " << i;
    }
}

typedef int (*convert_fn)(const char *, char *, size_t);

// The result of a conversion into a buffer of the given size, "<error>" if
// it fails.
static std::string conv(convert_fn fn, const std::string &in, size_t size = 1024) {
    std::vector<char> buf(size ? size : 1, 'X');
    return fn(in.c_str(), buf.data(), size) == 0 ? std::string(buf.data()) : "<error>";
}

// Folder names from the command line go through this codec on their way to
// the store: random text of every kind of code point round-trips and comes
// out as printable 7-bit text; broken input on either side is refused.
TEST(ModifiedUtf7, RoundTripsAndRefusals) {
    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    const uint32_t ranges[][2] = {{0x20, 0x7e}, {'&', '&'}, {'-', '-'}, {1, 0x1f}, {0x7f, 0x7f}, {0x80, 0x7ff},
                                  {0x800, 0xd7ff}, {0xe000, 0xffff}, {0x10000, 0x10ffff}};
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
    EXPECT_EQ(conv(mutf7_fromutf8, "A&B\xc3\xa9"), "A&-B&AOk-");
    for (const char *b : {"&", "&AOQ", "&AOR-", "&A-", "&AAA-", "&2D0-", "&A/Q-", "\xc3\xa4", "a\tb"})
        EXPECT_EQ(conv(mutf7_toutf8, b), "<error>") << "accepted: " << b;
    for (const char *s : {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"})
        EXPECT_EQ(conv(mutf7_fromutf8, s), "<error>") << "accepted invalid UTF-8";
    // A result one byte too long for the buffer is refused, not cut.
    EXPECT_EQ(conv(mutf7_fromutf8, "\xc3\xa4", 5), "<error>");
}

TEST(Memory, Exhaustion) {
#if !defined(__SANITIZE_ADDRESS__)
    // An impossible request ends the process with status 75.
    EXPECT_EXIT(free(xmalloc(SIZE_MAX / 2)), ::testing::ExitedWithCode(75), "");
#endif
}

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

namespace {

std::string to_mutf7(const std::string &utf8, size_t size = 1024, int *rc = nullptr) {
    std::vector<char> buf(size ? size : 1, 'X');
    int r = mutf7_fromutf8(utf8.c_str(), buf.data(), size);
    if (rc) *rc = r;
    return r == 0 ? std::string(buf.data()) : std::string("<error>");
}

std::string from_mutf7(const std::string &m, size_t size = 1024, int *rc = nullptr) {
    std::vector<char> buf(size ? size : 1, 'X');
    int r = mutf7_toutf8(m.c_str(), buf.data(), size);
    if (rc) *rc = r;
    return r == 0 ? std::string(buf.data()) : std::string("<error>");
}

void append_utf8(std::string &s, uint32_t cp) {
    if (cp < 0x80) {
        s += (char)cp;
    } else if (cp < 0x800) {
        s += (char)(0xc0 | (cp >> 6));
        s += (char)(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
        s += (char)(0xe0 | (cp >> 12));
        s += (char)(0x80 | ((cp >> 6) & 0x3f));
        s += (char)(0x80 | (cp & 0x3f));
    } else {
        s += (char)(0xf0 | (cp >> 18));
        s += (char)(0x80 | ((cp >> 12) & 0x3f));
        s += (char)(0x80 | ((cp >> 6) & 0x3f));
        s += (char)(0x80 | (cp & 0x3f));
    }
}

}  // namespace

TEST(ModifiedUtf7, KnownEncodingsBothWays) {
    struct {
        const char *utf8, *mutf7;
    } cases[] = {
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
        EXPECT_EQ(to_mutf7(c.utf8), c.mutf7) << c.utf8;
        EXPECT_EQ(from_mutf7(c.mutf7), c.utf8) << c.mutf7;
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
                case 0: cp = pick(0x20, 0x7e); break;               // printable ASCII
                case 1: cp = pick(0, 1) ? '&' : '-'; break;         // the shift characters
                case 2: cp = pick(0, 1) ? pick(1, 0x1f) : 0x7f; break;  // controls
                case 3: cp = pick(0x80, 0x7ff); break;
                case 4:
                    do cp = pick(0x800, 0xffff);
                    while (cp >= 0xd800 && cp <= 0xdfff);
                    break;
                default: cp = pick(0x10000, 0x10ffff); break;       // astral
            }
            append_utf8(s, cp);
        }
        int rc;
        std::string m = to_mutf7(s, 1024, &rc);
        ASSERT_EQ(rc, 0) << "encoding failed for case " << n;
        for (unsigned char c : m) ASSERT_TRUE(c >= 0x20 && c <= 0x7e) << m;
        std::string back = from_mutf7(m, 1024, &rc);
        ASSERT_EQ(rc, 0) << "decoder refused its own encoding " << m;
        ASSERT_EQ(back, s) << m;
    }
}

TEST(ModifiedUtf7, DecoderRefusesMalformedInput) {
    const char *bad[] = {
        "&",            // run never started
        "&AOQ",         // run not terminated
        "a&AOQ",
        "&AOR-",        // padding bits not zero
        "&AOQA-",       // a superfluous base64 character
        "&A-",          // fewer bits than one UTF-16 unit
        "&AGE-",        // encodes "a", which must stand as itself
        "&AGEA5A-",     // ASCII inside a run with other characters
        "&ACY-",        // encodes "&", which must be "&-"
        "&AAA-",        // NUL
        "&2D0-",        // high surrogate alone
        "&3gA-",        // low surrogate alone
        "&2D0-&3gA-",   // a pair split across two runs
        "&2D3YPQ-",     // high surrogate followed by another high one
        "&A/Q-",        // "/" is not in the alphabet of the folder encoding
        "&AOQ=-",       // no "=" padding either
        "\xc3\xa4",     // raw 8-bit bytes
        "a\tb",         // raw control character
    };
    for (const char *b : bad) {
        int rc = 0;
        from_mutf7(b, 1024, &rc);
        EXPECT_EQ(rc, -1) << "accepted: " << b;
    }
}

TEST(ModifiedUtf7, ReportsOverflowAndInvalidUtf8) {
    int rc;
    // "&AOQ-" and its terminator take 6 bytes exactly.
    EXPECT_EQ(to_mutf7("\xc3\xa4", 6, &rc), "&AOQ-");
    to_mutf7("\xc3\xa4", 5, &rc);
    EXPECT_EQ(rc, -1);
    to_mutf7("&", 2, &rc);  // "&-" needs 3
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(from_mutf7("&AOQ-", 3, &rc), "\xc3\xa4");
    from_mutf7("&AOQ-", 2, &rc);
    EXPECT_EQ(rc, -1);
    from_mutf7("abc", 3, &rc);
    EXPECT_EQ(rc, -1);
    // The terminator stays inside the buffer even when the result doesn't fit.
    char small[4];
    memset(small, 'X', sizeof small);
    EXPECT_EQ(mutf7_toutf8("abcdef", small, sizeof small), -1);
    EXPECT_EQ(strlen(small), 3u);

    const char *not_utf8[] = {"\xc3", "a\xc3(", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80",
                              "\xf4\x90\x80\x80", "\xff", "\x80"};
    for (const char *s : not_utf8) {
        to_mutf7(s, 1024, &rc);
        EXPECT_EQ(rc, -1) << "accepted invalid UTF-8";
    }
}

TEST(StringHelpers, UtfToUniCharWalksAString) {
    // a, U+00E4, U+20AC, U+1F600 (outside the basic plane), a stray byte, z
    const char *s = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\xff" "z";
    uint16_t expect_units[] = {'a', 0xe4, 0x20ac, 0xfffd, 0xfffd, 'z', 0};
    int expect_lens[] = {1, 2, 3, 4, 1, 1, 0};
    const char *p = s;
    for (size_t i = 0; i < sizeof expect_units / sizeof expect_units[0]; i++) {
        uint16_t u = 0x1234;
        int n = UtfToUniChar(p, &u);
        EXPECT_EQ(u, expect_units[i]) << i;
        EXPECT_EQ(n, expect_lens[i]) << i;
        p += n;
    }
    // A truncated sequence gives one replacement and lets the next
    // character through; an overlong form is refused.
    uint16_t u;
    EXPECT_EQ(UtfToUniChar("\xe2\x82" "x", &u), 2);
    EXPECT_EQ(u, 0xfffd);
    EXPECT_EQ(UtfToUniChar("\xc0\xaf", &u), 2);
    EXPECT_EQ(u, 0xfffd);
}

TEST(StringHelpers, AtomsCaseAndCopies) {
    const char *atoms[] = {"INBOX", "a.b-c_d", "x[1", "$Label", "~", "1234"};
    for (const char *a : atoms) EXPECT_TRUE(imparse_isatom(a)) << a;
    const char *not_atoms[] = {"", "a b", "(x", "x)", "{3}", "50%", "a*", "\"q\"", "\\Seen",
                               "x]", "tab\there", "del\x7f", "\xc3\xa4"};
    for (const char *a : not_atoms) EXPECT_FALSE(imparse_isatom(a)) << a;

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
        struct tm tm;
        memset(&tm, 0, sizeof tm);
        tm.tm_year = y - 1900;
        tm.tm_mon = mon;
        tm.tm_mday = mday;
        tm.tm_hour = h;
        tm.tm_min = mi;
        tm.tm_sec = s;
        tm.tm_isdst = -1;
        return tm;
    };
    struct {
        struct tm tm;
        long long expect;
    } cases[] = {
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
    for (auto &c : cases) {
        struct tm tm = c.tm;
        EXPECT_EQ((long long)mkgmtime(&tm), c.expect);
        struct tm ref;
        time_t t = (time_t)c.expect;
        ASSERT_TRUE(mtgmtime(&t, &ref));
        EXPECT_EQ(tm.tm_year, ref.tm_year);
        EXPECT_EQ(tm.tm_mon, ref.tm_mon);
        EXPECT_EQ(tm.tm_mday, ref.tm_mday);
        EXPECT_EQ(tm.tm_hour, ref.tm_hour);
        EXPECT_EQ(tm.tm_wday, ref.tm_wday);
        EXPECT_EQ(tm.tm_yday, ref.tm_yday);
    }

    // The result doesn't depend on the process's time zone, and it agrees
    // with the C library's timegm on wildly out-of-range fields.
    const char *oldtz = getenv("TZ");
    std::string saved = oldtz ? oldtz : "";
    setenv("TZ", "America/New_York", 1);
    tzset();
    std::mt19937 rng(7);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int i = 0; i < 20000; i++) {
        struct tm a = mk(pick(1800, 2300), pick(-40, 40), pick(-400, 400), pick(-100, 100),
                         pick(-3000, 3000), pick(-200000, 200000));
        struct tm b = a;
        time_t ours = mkgmtime(&a);
        time_t theirs = timegm(&b);
        ASSERT_EQ((long long)ours, (long long)theirs) << "case " << i;
        ASSERT_EQ(a.tm_mday, b.tm_mday);
        ASSERT_EQ(a.tm_wday, b.tm_wday);
    }
    if (oldtz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(Memory, CopiesAndExhaustion) {
    char *a = xstrndup("abcdef", 3);
    EXPECT_STREQ(a, "abc");
    char *b = xstrdup("");
    EXPECT_STREQ(b, "");
    int *z = (int *)xcalloc(16, sizeof(int));
    for (int i = 0; i < 16; i++) EXPECT_EQ(z[i], 0);
    z = (int *)xrealloc(z, 1024 * sizeof(int));
    z[1023] = 5;
    free(a);
    free(b);
    free(z);
#if !defined(__SANITIZE_ADDRESS__)
    // An impossible request ends the process with status 75 and a message.
    EXPECT_EXIT(
        {
            void *volatile p = xmalloc(SIZE_MAX / 2);
            (void)p;
        },
        ::testing::ExitedWithCode(75), "Out of memory");
#endif
}

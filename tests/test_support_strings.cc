// String, time and memory helpers of the support layer.
#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

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

// Rows, key order and lookups of the folder database, on a real Berkeley DB
// environment that this process recovers and opens as the daemon would.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "store/seen_db.h"
#include "support/config.h"
#include "support/log.h"
#include "tests/testutil.h"

namespace {

DBT key_of(const std::string &s) {
    DBT k;
    memset(&k, 0, sizeof(k));
    k.data = const_cast<char *>(s.data());
    k.size = (uint32_t)s.size();
    k.flags = DB_DBT_READONLY;
    return k;
}

int cmp(const std::string &a, const std::string &b) {
    DBT x = key_of(a), y = key_of(b);
    return mboxlist_key_compare(nullptr, &x, &y);
}

// A store opened in this process through recovery.
class OpenStore : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(testutil::start_store("rowtest"), 0);
        ASSERT_NE(mboxlist_db(MBOXLIST_FOLDERDB), nullptr);
    }
    void TearDown() override { mboxlist_reset_for_tests(); }

    testutil::Instance inst;
};

}  // namespace

TEST(MboxlistKeys, OrderPrefixAndNameComparison) {
    // Children follow their folder at once; NUL before TAB before "/".
    std::vector<std::string> sorted = {std::string("user/a\0", 7), std::string("user/a\0x", 8),
                                       std::string("user/a\t", 7), "user/a/b", "user/a/b/c",
                                       "user/a\x80", "user/a-b", "user/a.b", "user/ab"};
    for (size_t i = 0; i + 1 < sorted.size(); i++) {
        EXPECT_LT(cmp(sorted[i], sorted[i + 1]), 0) << i;
        EXPECT_GT(cmp(sorted[i + 1], sorted[i]), 0) << i;
    }
    EXPECT_EQ(cmp("abc", "abc"), 0);
    EXPECT_LT(cmp(std::string("ab\0", 3), std::string("abc\0", 4)), 0);

    std::string sa = "abcd", sb = "abxy", sc = "ab", sd = "abcd";
    DBT a = key_of(sa), b = key_of(sb), c = key_of(sc), d = key_of(sd);
    EXPECT_EQ(mboxlist_key_prefix(nullptr, &a, &b), 3u);
    EXPECT_EQ(mboxlist_key_prefix(nullptr, &c, &a), 3u);
    EXPECT_EQ(mboxlist_key_prefix(nullptr, &a, &d), 4u);

    EXPECT_EQ(mboxlist_name_comparen("user/a", "user/b", 5), 0);
    EXPECT_LT(mboxlist_name_comparen("user/a/x", "user/a-x", 100), 0);
    EXPECT_GT(mboxlist_name_comparen("user/a-x", "user/a/x", 100), 0);
    EXPECT_LT(mboxlist_name_comparen("user/a", "user/b", 100), 0);
    EXPECT_GT(mboxlist_name_comparen("a\t", "a/", 100), 0);  // TAB has no special place here

    char root[256];
    EXPECT_EQ(mboxlist_quotaroot("user/fred/sent/2004", root), 0);
    EXPECT_STREQ(root, "user/fred");
    EXPECT_EQ(mboxlist_quotaroot("user/fred", root), 0);
    EXPECT_STREQ(root, "user/fred");
    EXPECT_EQ(mboxlist_quotaroot("fred", root), IMAP_QUOTAROOT_NONEXISTENT);
}

TEST(MboxlistKeys, FolderRowBytes) {
    struct mboxdata mbd;
    memset(&mbd, 0, sizeof(mbd));
    mbd.version = 258;
    mbd.exists = 7;
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, "user/fred", &mbd, "primary", "", nullptr);
    EXPECT_EQ(key.size, 10u);
    ASSERT_EQ(data.size, 60u + 8u + 1u);
    const char *row = static_cast<const char *>(data.data);
    EXPECT_EQ(memcmp(row, &mbd, 60), 0);
    EXPECT_STREQ(mboxlist_partition(row), "primary");
    EXPECT_STREQ(mboxlist_acl(row), "");
    EXPECT_EQ(row[data.size - 2], '\0');
    EXPECT_EQ(row[data.size - 1], '\0');
    free(data.data);
}

TEST_F(OpenStore, LookupsAndPaths) {
    testutil::put_row("user/fred", MAILBOX_VERSION, 3, "fred\tlrswipcda\t", 77, "primary");
    testutil::put_row("user/fred/old", MAILBOX_VERSION, 0, "", 77, "version3");

    struct mboxdata mbd;
    char *part = nullptr, *path = nullptr, *mpath = nullptr, *acl = nullptr;
    ASSERT_EQ(mboxlist_lookup("user/fred", &mbd, &part, &path, &mpath, &acl), 0);
    EXPECT_EQ(mbd.exists, 3u);
    EXPECT_STREQ(part, "primary");
    EXPECT_STREQ(acl, "fred\tlrswipcda\t");
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(std::string(path).find(inst.path("partitions/primary")), 0u) << path;
    EXPECT_EQ(mpath, nullptr);  // no separate message directory
    free(part);
    free(path);
    free(acl);

    EXPECT_EQ(mboxlist_lookup("user/nobody", nullptr, nullptr, nullptr, nullptr, nullptr),
              IMAP_MAILBOX_NONEXISTENT);
    EXPECT_EQ(mboxlist_lookup_data("user/fred", nullptr, nullptr), 0);
    EXPECT_EQ(mboxlist_lookup_data("user/nobody", nullptr, nullptr), IMAP_MAILBOX_NONEXISTENT);
    char *row = nullptr;
    EXPECT_EQ(mboxlist_lookup_data("user/fred", &row, nullptr), 0);
    free(row);

    // "version3" is no partition: the row reads, a path doesn't.
    EXPECT_EQ(mboxlist_lookup("user/fred/old", &mbd, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(mboxlist_lookup("user/fred/old", nullptr, nullptr, &path, nullptr, nullptr),
              IMAP_PARTITION_UNKNOWN);
    char p1[1040], p2[1040];
    EXPECT_EQ(mboxlist_getpath("user/fred", "nowhere", p1, p2), IMAP_PARTITION_UNKNOWN);
    ASSERT_EQ(mboxlist_getpath("user/fred", "primary", p1, p2), 0);
    EXPECT_STREQ(p2, "");
}

TEST_F(OpenStore, QuotaRowsOfEverySize) {
    struct quotadata full;
    memset(&full, 0, sizeof(full));
    full.limit = 1000;
    full.used_low = 77;
    full.limit_messages = 50;
    full.last_dbrepair = 99;
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_QUOTADB), std::string("user/full\0", 10), std::string((char *)&full, 56)));
    // A short row of 36 bytes: the message limit reads as none.
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_QUOTADB), std::string("user/short\0", 11), std::string((char *)&full, 36)));
    // A longer row reads its first 56 bytes.
    std::string longer((char *)&full, 56);
    longer += std::string(20, 'x');
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_QUOTADB), std::string("user/long\0", 10), longer));

    struct quotadata q;
    ASSERT_EQ(mboxlist_lookup_quota("user/full", &q, nullptr), 0);
    EXPECT_EQ(q.limit, 1000u);
    EXPECT_EQ(q.limit_messages, 50u);
    EXPECT_EQ(q.last_dbrepair, 99u);
    ASSERT_EQ(mboxlist_lookup_quota("user/short", &q, nullptr), 0);
    EXPECT_EQ(q.used_low, 77u);
    EXPECT_EQ(q.limit_messages, QUOTA_UNLIMITED);
    EXPECT_EQ(q.used_messages, 0u);
    EXPECT_EQ(q.last_dbrepair, 0u);
    ASSERT_EQ(mboxlist_lookup_quota("user/long", &q, nullptr), 0);
    EXPECT_EQ(q.last_dbrepair, 99u);
    EXPECT_EQ(mboxlist_lookup_quota("user/none", &q, nullptr), DB_NOTFOUND);
}

TEST_F(OpenStore, DeleteRemovesRowsByOwner) {
    testutil::put_row("user/fred", MAILBOX_VERSION, 0, "", 77, "primary");
    testutil::put_row("user/fred/sent", MAILBOX_VERSION, 0, "", 77, "primary");
    testutil::put_row("user/freda", MAILBOX_VERSION, 0, "", 77, "primary");
    struct quotadata q;
    memset(&q, 0, sizeof(q));
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_QUOTADB), std::string("user/fred\0", 10), std::string((char *)&q, 56)));
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0", 5), std::string(4, '\0')));
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0user/fred/sent\0", 20), ""));
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0user/other\0", 16), ""));
    ASSERT_TRUE(testutil::db_put(mboxlist_db(MBOXLIST_SUBSDB), std::string("freda\0", 6), std::string(4, '\0')));

    // A folder that is no quota root: only its row goes.
    ASSERT_EQ(mboxlist_delete("user/fred/sent"), 0);
    EXPECT_FALSE(testutil::db_has(mboxlist_db(MBOXLIST_FOLDERDB), std::string("user/fred/sent\0", 15)));
    EXPECT_TRUE(testutil::db_has(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0user/fred/sent\0", 20)));

    // The inbox: its row, the quota row and all of fred's subscriptions.
    ASSERT_EQ(mboxlist_delete("user/fred"), 0);
    EXPECT_FALSE(testutil::db_has(mboxlist_db(MBOXLIST_FOLDERDB), std::string("user/fred\0", 10)));
    EXPECT_FALSE(testutil::db_has(mboxlist_db(MBOXLIST_QUOTADB), std::string("user/fred\0", 10)));
    EXPECT_FALSE(testutil::db_has(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0", 5)));
    EXPECT_FALSE(testutil::db_has(mboxlist_db(MBOXLIST_SUBSDB), std::string("fred\0user/other\0", 16)));
    EXPECT_TRUE(testutil::db_has(mboxlist_db(MBOXLIST_SUBSDB), std::string("freda\0", 6)));
    EXPECT_TRUE(testutil::db_has(mboxlist_db(MBOXLIST_FOLDERDB), std::string("user/freda\0", 11)));

    // A folder without a row is no failure.
    EXPECT_EQ(mboxlist_delete("user/ghost"), 0);
}

TEST_F(OpenStore, LogCountsAndLimits) {
    EXPECT_GE(mboxlist_log_count(), 1);
    EXPECT_GE(mboxlist_log_count_nodb(), 1);
    EXPECT_EQ(mboxlist_maxlog_check(8), 1);
    EXPECT_EQ(mboxlist_maxlog_check(9), 0);
    EXPECT_EQ(mboxlist_checkpoint(), 0);
    EXPECT_EQ(mboxlist_trickle(), 0);
    EXPECT_EQ(mboxlist_archive_logs(), 0);
    EXPECT_EQ(mboxlist_deadlockcheck(), 0);
}

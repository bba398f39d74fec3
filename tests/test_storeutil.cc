// Store utilities: canonical ids and folder names, the partition id table,
// file system sizes and time formatting.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "store/storeutil.h"
#include "support/config.h"
#include "tests/testutil.h"

namespace {

std::string canonid(const char *id)
{
    std::vector<char> buf(id, id + strlen(id) + 1);
    EXPECT_EQ(buf.data(), store_canonifyid(buf.data()));
    return buf.data();
}

std::string canonname(const char *name)
{
    std::vector<char> buf(name, name + strlen(name) + 1);
    EXPECT_EQ(buf.data(), store_canonifymboxname(buf.data()));
    return buf.data();
}

}  // namespace

TEST(StoreUtil, CanonicalIdsAndFolderNames)
{
    {
        testutil::Instance inst("service.defaultdomain: Example.COM\n");
        // The default domain goes, whatever its case.
        EXPECT_EQ("Bob", canonid("Bob@example.com"));
        EXPECT_EQ("Bob", canonid("Bob@EXAMPLE.COM"));
        // Other domains stay, lower-cased; the local part keeps its case.
        EXPECT_EQ("Bob@other.org", canonid("Bob@Other.ORG"));
        EXPECT_EQ("Bob@example.com.evil", canonid("Bob@Example.Com.EVIL"));
        EXPECT_EQ("Bob@sub.example.com", canonid("Bob@sub.Example.com"));
        // The last "@" separates the domain.
        EXPECT_EQ("A@B", canonid("A@B@example.com"));
        EXPECT_EQ("A@B@c.d", canonid("A@B@C.D"));
        EXPECT_EQ("NoDomain", canonid("NoDomain"));
        EXPECT_EQ("Bob@", canonid("Bob@"));
        EXPECT_EQ("", canonid("@example.com"));

        // The folder closes up behind a shortened id.
        EXPECT_EQ("user/Bob/Sent/Sub", canonname("user/Bob@EXAMPLE.com/Sent/Sub"));
        EXPECT_EQ("user/Bob/x", canonname("user/Bob@example.com/x"));
        EXPECT_EQ("user/Bob", canonname("user/Bob@example.com"));
        EXPECT_EQ("user/Bob/", canonname("user/Bob@example.com/"));
        EXPECT_EQ("user/Bob@other.com/X@Example.COM",
                  canonname("user/Bob@Other.COM/X@Example.COM"));
        // Only the id is touched, and only in "user/" names.
        EXPECT_EQ("user/Bob/a@Example.com/b", canonname("user/Bob/a@Example.com/b"));
        EXPECT_EQ("public/A@Example.com", canonname("public/A@Example.com"));
        EXPECT_EQ("userx/Bob@Example.com", canonname("userx/Bob@Example.com"));
        EXPECT_EQ("User/Bob@Example.com", canonname("User/Bob@Example.com"));
    }
    {
        // Without a default domain every domain is kept, lower-cased.
        testutil::Instance inst;
        EXPECT_EQ("Bob@example.com", canonid("Bob@Example.COM"));
        EXPECT_EQ("user/Bob@example.com/Sent", canonname("user/Bob@Example.COM/Sent"));
    }
    {
        // An empty value is no default domain.
        testutil::Instance inst("service.defaultdomain:\n");
        EXPECT_EQ("Bob@", canonid("Bob@"));
        EXPECT_EQ("Bob@x.y", canonid("Bob@X.Y"));
    }
}

TEST(StoreUtil, Inboxes)
{
    EXPECT_EQ(1, store_isInbox("user/bob"));
    EXPECT_EQ(1, store_isInbox("user/bob/INBOX"));
    EXPECT_EQ(0, store_isInbox("user/bob/inbox"));
    EXPECT_EQ(0, store_isInbox("user/bob/INBOX/x"));
    EXPECT_EQ(0, store_isInbox("user/bob/INBOXes"));
    EXPECT_EQ(0, store_isInbox("user/bob/Sent"));
    EXPECT_EQ(0, store_isInbox("public/x"));
    EXPECT_EQ(0, store_isInbox("user"));
    EXPECT_EQ(0, store_isInbox("userbob"));
}

TEST(StoreUtil, TimeToString)
{
    const char *old = getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", "EST5", 1);
    tzset();

    char buf[32];
    EXPECT_EQ(buf, store_time2str(0, "%Y%m%d%H%M%S", buf, sizeof buf));
    EXPECT_STREQ("19691231190000", buf);  // local time, five hours behind
    store_time2str(1700000000, "%Y-%m-%d %H:%M", buf, sizeof buf);
    EXPECT_STREQ("2023-11-14 17:13", buf);
    // A result that doesn't fit leaves the buffer empty.
    EXPECT_EQ(buf, store_time2str(0, "%Y%m%d%H%M%S", buf, 8));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(nullptr, store_time2str(0, "%Y", nullptr, 10));

    if (old)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(StoreUtil, PathInfo)
{
    testutil::TempDir tmp;
    struct statvfs vfs;
    ASSERT_EQ(0, statvfs(tmp.path().c_str(), &vfs));
    uint32_t want_total = (uint32_t)((double)vfs.f_frsize * (double)vfs.f_blocks / 1024);

    // A missing file, or a missing tree, in an existing directory reports
    // that directory's file system.
    struct {
        std::string path;
        bool same_fs;  // on the file system of the temporary directory
    } cases[] = {{tmp.path(), true},
                 {tmp.file("missing"), true},
                 {tmp.file("a/b/c/d"), true},
                 {tmp.file("a\\b/c\\d"), true},
                 {"/no-such-dir-xyz/f", false}};  // cut back to the root directory
    for (const auto &c : cases) {
        uint32_t total = 7, free_kb = 7;
        EXPECT_EQ(0, store_getpathinfo(c.path.c_str(), &total, &free_kb)) << c.path;
        EXPECT_GT(total, 0u) << c.path;
        EXPECT_LE(free_kb, total) << c.path;
        if (c.same_fs) {
            EXPECT_EQ(want_total, total) << c.path;
        }
    }

    // Nothing of the path exists, and no separator is left to cut at.
    testutil::StderrCapture err;
    uint32_t total = 7, free_kb = 7;
    EXPECT_EQ(-1, store_getpathinfo("no-such-relative-xyz", &total, &free_kb));
    EXPECT_EQ(0u, total);
    EXPECT_EQ(0u, free_kb);
    err.restore();
    EXPECT_NE(std::string::npos, err.text().find("storeutil_getpathinfo(no-such-relative-xyz)"));
}

TEST(StoreUtil, PartitionTable)
{
    testutil::Instance inst;
    std::string file = inst.path("config/store.parts");

    // The table of a new instance.
    char **names = nullptr;
    ASSERT_EQ(1, store_readpartitionId(&names));
    ASSERT_NE(nullptr, names);
    EXPECT_STREQ("primary", names[0]);
    store_freepartition(names, 1);

    // Written sorted without regard to case, read back in that order.
    const char *list[] = {"beta", "Alpha", "gamma", "DELTA"};
    ASSERT_EQ(0, store_writepartitionId(list, 4));
    EXPECT_EQ("4\nAlpha\nbeta\nDELTA\ngamma\n", testutil::read_file(file));
    EXPECT_STREQ("Alpha", list[0]);  // the caller's array is sorted too
    struct stat st;
    EXPECT_NE(0, stat((file + ".new").c_str(), &st));

    ASSERT_EQ(4, store_readpartitionId(&names));
    EXPECT_STREQ("Alpha", names[0]);
    EXPECT_STREQ("beta", names[1]);
    EXPECT_STREQ("DELTA", names[2]);
    EXPECT_STREQ("gamma", names[3]);
    EXPECT_EQ(0, store_partitionId(names, 4, "alpha"));
    EXPECT_EQ(1, store_partitionId(names, 4, "BETA"));
    EXPECT_EQ(2, store_partitionId(names, 4, "delta"));
    EXPECT_EQ(3, store_partitionId(names, 4, "Gamma"));
    EXPECT_EQ(-1, store_partitionId(names, 4, "epsilon"));
    EXPECT_EQ(-1, store_partitionId(names, 4, "alph"));
    EXPECT_EQ(-1, store_partitionId(names, 0, "alpha"));
    EXPECT_EQ(-1, store_partitionId(nullptr, 0, "alpha"));
    store_freepartition(names, 4);

    // A table with fewer names than it announces gives no names at all.
    testutil::write_file(file, "3\nalpha\nbeta\n");
    names = (char **)1;
    EXPECT_EQ(0, store_readpartitionId(&names));
    EXPECT_EQ(nullptr, names);
    testutil::write_file(file, "2000000000\nalpha\n");
    EXPECT_EQ(0, store_readpartitionId(&names));
    EXPECT_EQ(nullptr, names);
    for (const char *content : {"", "0\n", "-3\nalpha\n", "x\nalpha\n"}) {
        testutil::write_file(file, content);
        EXPECT_EQ(0, store_readpartitionId(&names)) << content;
        EXPECT_EQ(nullptr, names);
    }
    // The last line needs no line feed; lines behind the count are ignored.
    testutil::write_file(file, "2\nalpha\nbeta");
    ASSERT_EQ(2, store_readpartitionId(&names));
    EXPECT_STREQ("beta", names[1]);
    store_freepartition(names, 2);
    testutil::write_file(file, "1\nalpha\nbeta\n");
    ASSERT_EQ(1, store_readpartitionId(&names));
    EXPECT_STREQ("alpha", names[0]);
    store_freepartition(names, 1);
    // A long name is one name.
    std::string longname(3000, 'n');
    testutil::write_file(file, "1\n" + longname + "\n");
    ASSERT_EQ(1, store_readpartitionId(&names));
    EXPECT_EQ(longname, names[0]);
    store_freepartition(names, 1);

    // No file.
    ASSERT_EQ(0, unlink(file.c_str()));
    names = (char **)1;
    EXPECT_EQ(-1, store_readpartitionId(&names));
    EXPECT_EQ(nullptr, names);

    // A file that can't be written leaves the table as it was.
    const char *one[] = {"solo"};
    ASSERT_EQ(0, store_writepartitionId(one, 1));
    ASSERT_EQ(0, mkdir((file + ".new").c_str(), 0700));
    const char *two[] = {"b", "a"};
    EXPECT_EQ(-1, store_writepartitionId(two, 2));
    EXPECT_EQ("1\nsolo\n", testutil::read_file(file));
    rmdir((file + ".new").c_str());

    ASSERT_EQ(0, store_writepartitionId(nullptr, 0));
    EXPECT_EQ("0\n", testutil::read_file(file));
}

// Store utilities: canonical ids and folder names, and the partition id table.
#include "store/storeutil.h"
#include "tests/testutil.h"

namespace {

// store_canonifyid or store_canonifymboxname on a copy, which must be
// changed in place.
std::string canon(char *(*fn)(char *), const char *text)
{
    std::vector<char> buf(text, text + strlen(text) + 1);
    EXPECT_EQ(buf.data(), fn(buf.data()));
    return buf.data();
}

// The names of the partition table, or "-" for none; checks the count.
std::string read_table(int want_count)
{
    char **names = (char **)1;
    int n = store_readpartitionId(&names);
    EXPECT_EQ(want_count, n);
    if (n <= 0) {
        EXPECT_EQ(nullptr, names);
        return "-";
    }
    std::string out;
    for (int i = 0; i < n; i++) out += (i ? "," : "") + std::string(names[i]);
    store_freepartition(names, n);
    return out;
}

}  // namespace

TEST(StoreUtil, CanonicalIdsAndFolderNames)
{
    {
        testutil::Instance inst("service.defaultdomain: Example.COM\n");
        const char *ids[][2] = {
            // The default domain goes, whatever its case; other domains
            // stay, lower-cased; the local part keeps its case; the last
            // "@" separates the domain.
            {"Bob@example.com", "Bob"},       {"Bob@EXAMPLE.COM", "Bob"},
            {"Bob@Other.ORG", "Bob@other.org"}, {"Bob@Example.Com.EVIL", "Bob@example.com.evil"},
            {"Bob@sub.Example.com", "Bob@sub.example.com"},
            {"A@B@example.com", "A@B"},       {"A@B@C.D", "A@B@c.d"},
            {"NoDomain", "NoDomain"},         {"Bob@", "Bob@"},
            {"@example.com", ""},
        };
        for (const auto &c : ids) EXPECT_EQ(c[1], canon(store_canonifyid, c[0])) << c[0];
        const char *names[][2] = {
            // The folder closes up behind a shortened id; only the id is
            // touched, and only in "user/" names.
            {"user/Bob@EXAMPLE.com/Sent/Sub", "user/Bob/Sent/Sub"},
            {"user/Bob@example.com/x", "user/Bob/x"},
            {"user/Bob@example.com", "user/Bob"},
            {"user/Bob@example.com/", "user/Bob/"},
            {"user/Bob@Other.COM/X@Example.COM", "user/Bob@other.com/X@Example.COM"},
            {"user/Bob/a@Example.com/b", "user/Bob/a@Example.com/b"},
            {"public/A@Example.com", "public/A@Example.com"},
            {"userx/Bob@Example.com", "userx/Bob@Example.com"},
            {"User/Bob@Example.com", "User/Bob@Example.com"},
        };
        for (const auto &c : names) EXPECT_EQ(c[1], canon(store_canonifymboxname, c[0])) << c[0];
    }
    // Without a default domain, or with an empty one, every domain is
    // kept, lower-cased.
    for (const char *conf : {"", "service.defaultdomain:\n"}) {
        testutil::Instance inst(conf);
        EXPECT_EQ("Bob@example.com Bob@", canon(store_canonifyid, "Bob@Example.COM") + " " +
                                              canon(store_canonifyid, "Bob@"));
        EXPECT_EQ("user/Bob@example.com/Sent", canon(store_canonifymboxname, "user/Bob@Example.COM/Sent"));
    }
}

TEST(StoreUtil, PartitionTable)
{
    testutil::Instance inst;
    std::string file = inst.path("config/store.parts");
    EXPECT_EQ("primary", read_table(1));  // the table of a new instance

    // Names are looked up without regard to case.
    testutil::write_file(file, "4\nAlpha\nbeta\nDELTA\ngamma\n");
    char **names = nullptr;
    ASSERT_EQ(4, store_readpartitionId(&names));
    const std::pair<const char *, int> lookups[] = {{"alpha", 0}, {"BETA", 1}, {"Gamma", 3},
                                                    {"epsilon", -1}, {"alph", -1}};
    for (const auto &l : lookups) EXPECT_EQ(l.second, store_partitionId(names, 4, l.first));
    EXPECT_EQ(-1, store_partitionId(names, 0, "alpha") + store_partitionId(nullptr, 0, "alpha") + 1);
    store_freepartition(names, 4);

    // A table with fewer names than it announces, or no count, gives no
    // names at all. The last line needs no line feed; lines behind the
    // count are ignored; a long name is one name.
    std::string longname(3000, 'n');
    const struct {
        std::string content;
        int count;
        std::string names;
    } files[] = {
        {"3\nalpha\nbeta\n", 0, "-"},    {"2000000000\nalpha\n", 0, "-"}, {"", 0, "-"},
        {"0\n", 0, "-"},                 {"-3\nalpha\n", 0, "-"},         {"x\nalpha\n", 0, "-"},
        {"2\nalpha\nbeta", 2, "alpha,beta"}, {"1\nalpha\nbeta\n", 1, "alpha"},
        {"1\n" + longname + "\n", 1, longname},
    };
    for (const auto &f : files) {
        testutil::write_file(file, f.content);
        EXPECT_EQ(f.names, read_table(f.count)) << f.content.substr(0, 20);
    }

    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ("-", read_table(-1));  // no file
}

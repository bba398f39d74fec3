// Folder names: internal forms, directories and back, owners, the policy on
// names; canonical ids and folder names, and the partition id table.
#include "store/mboxname.h"
#include "store/storeutil.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

const int BAD = IMAP_MAILBOX_BADNAME;

// tointernal and toexternal as a string, or "<bad>".
std::string internal(const std::string &name, int view, const char *userid)
{
    char out[MAX_MAILBOX_NAME];
    memset(out, 'X', sizeof out);
    int rc = mboxname_tointernal(name.c_str(), view, userid, out);
    if (rc == 0) return out;
    EXPECT_EQ(BAD, rc) << name;
    return "<bad>";
}

// getpath into a buffer of exactly MAX_MAILBOX_PATH bytes on the heap, so
// that the sanitizer build sees any write beyond it; "<bad>" on failure.
std::string getpath(const std::string &name, const std::string &root)
{
    std::vector<char> out(MAX_MAILBOX_PATH);
    int rc = mboxname_getpath(name.c_str(), root.c_str(), out.data());
    EXPECT_TRUE(rc == 0 || rc == BAD) << rc;
    return rc == 0 ? std::string(out.data()) : "<bad>";
}

std::string frompath(const std::string &path)
{
    std::vector<char> out(MAX_MAILBOX_NAME);
    int rc = mboxname_frompath(path.c_str(), out.data());
    EXPECT_TRUE(rc == 0 || rc == BAD) << rc;
    return rc == 0 ? std::string(out.data()) : "<bad>";
}

// Encodes name under root and decodes it again as the store's directory
// walkers do: strip the root, and for a user's folder the "=user" marker
// and the fan-out, which must be the hash of the id.
void expect_roundtrip(const std::string &name, const std::string &root)
{
    std::string path = getpath(name, root);
    ASSERT_EQ(root + "/", path.substr(0, root.size() + 1)) << name;
    std::string encoded = path.substr(root.size() + 1), front;
    if (name.compare(0, 5, "user/") == 0) {
        ASSERT_EQ("=user", encoded.substr(0, 5)) << name;
        std::string id = name.substr(5, name.find('/', 5) - 5);
        char hash[MBOXNAME_HASH_SIZE];
        mboxname_tohash(id.c_str(), 0, hash);
        EXPECT_EQ(hash, encoded.substr(5, 7)) << name;
        encoded = encoded.substr(12);
        front = "user/";
    }
    // How each character is written: the directory table in PathsAndBack.
    EXPECT_EQ(name, front + frompath(encoded)) << path;
}

struct NameCase {
    std::string name;
    int view;
    const char *userid;
    std::string want;
};

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

TEST(Mboxname, ToInternal)
{
    Instance inst("service.defaultdomain: example.com\n");
    std::string id250(250, 'u'), id251(251, 'u'), n247(247, 'n'), n248(248, 'n');
    std::string p248 = "public/" + std::string(248, 'p'), u255 = "user/b/" + std::string(248, 'x');
    std::vector<NameCase> cases = {
        // Inboxes: the id canonified, a usable id needed. Personal folders
        // keep the id as given.
        {"inbox", 0, id250.c_str(), "user/" + id250}, {"inbox", 0, id251.c_str(), "<bad>"},
        {"Sent", 0, "bob", "user/bob/Sent"}, {"a/b", 0, "Bob@EXAMPLE.com", "user/Bob@EXAMPLE.com/a/b"},
        {"a#b~c", 0, "bob", "user/bob/a#b~c"}, {"#news", 0, "bob", "<bad>"}, {"~bob", 0, "bob", "<bad>"},
        {"Sent", 0, nullptr, "<bad>"}, {"Sent", 0, "a/b", "<bad>"},
        // "user/" + id + "/" + name must fit 256 bytes.
        {n247, 0, "me", "user/me/" + n247}, {n248, 0, "me", "<bad>"},
        // Administrative view: "user" and "public" are the prefixes.
        {"user/bob", -1, nullptr, "<bad>"}, {"user/bob/INBOX", -1, nullptr, "user/bob"},
        {"user/bob/inbox", -1, nullptr, "user/bob"}, {"user/bob/INBOX/x", -1, nullptr, "user/bob/INBOX/x"},
        {"user/Bob@Example.COM/Sent", -1, nullptr, "user/Bob/Sent"},
        {"user/x@Other.ORG/INBOX", -1, nullptr, "user/x@other.org"},
        {"user", -1, "bob", "<bad>"}, {"public/news", -1, nullptr, "public/news"},
        {"public", -1, nullptr, "public"},
        // The prefix must be a whole component, and case counts.
        {"users/x", -1, "bob", "user/bob/users/x"}, {"User/x/y", -1, "bob", "user/bob/User/x/y"},
        {"publicity", -1, "bob", "user/bob/publicity"},
        // Lengths of the prefixed forms: the result must fit 256 bytes.
        {p248, -1, nullptr, p248}, {p248 + "p", -1, nullptr, "<bad>"},
        {u255, -1, nullptr, u255}, {u255 + "x", -1, nullptr, "<bad>"},
        // User view: the same strings are personal folders of the caller.
        {"user/bob", 0, "me", "user/me/user/bob"}, {"user/bob/INBOX", 0, "me", "user/me/user/bob/INBOX"},
        {"Shared Folders/User/bob/INBOX", 0, "me", "user/bob"},
        {"Shared Folders/User/bob/x", 7, "me", "user/bob/x"},
        {"Shared Folders/User/bob", 0, "me", "<bad>"}, {"Shared Folders/User", 0, "me", "<bad>"},
        {"Shared Folders", 0, "me", "<bad>"}, {"Shared Folders/Users/x", 0, "me", "<bad>"},
        {"Shared Folders/Public", 0, "me", "public"},
        {"Shared Folders/Public/news", 0, "me", "public/news"}, {"Shared", 0, "me", "user/me/Shared"},
    };
    for (const char *inbox : {"INBOX", "inbox", "InBoX"}) {
        cases.push_back({inbox, 0, "bob", "user/bob"});
        cases.push_back({inbox, -1, "Bob@EXAMPLE.com", "user/Bob"});
        cases.push_back({inbox, 0, "bob@Other.ORG", "user/bob@other.org"});
        cases.push_back({inbox, 0, nullptr, "<bad>"});
    }
    for (const NameCase &c : cases)
        EXPECT_EQ(c.want, internal(c.name, c.view, c.userid))
            << c.name << " view " << c.view << " user " << (c.userid ? c.userid : "null");
    // A failure before any copying leaves the buffer empty.
    char out[MAX_MAILBOX_NAME] = "junk";
    EXPECT_EQ(BAD, mboxname_tointernal("#news", 0, "bob", out));
    EXPECT_STREQ("", out);
    EXPECT_EQ(nullptr, mboxname_prefix(3, 0));  // no such kind of prefix
}

TEST(Mboxname, PathsAndBack)
{
    // Folder directories: users fanned out by the hash of their id, each
    // component behind "=", capitals behind "+", the characters that file
    // systems or the store's own file names use written as "%" codes.
    const char *paths[][3] = {
        {"user/alice/Sent.2005", "/store/p1", "/store/p1/=user/00/d2/=alice/=+Sent%d2005"},
        {"public/news", "/store/p1", "/store/p1/=public/=news"},
        {"public/a+b\\c:d.e%f~g&AOk-", "/p", "/p/=public/=a%ab%bc%cd%de%pf%tg&+A+Ok-"},
    };
    for (const auto &p : paths) EXPECT_EQ(p[2], getpath(p[0], p[1])) << p[0];
    // The length limit counts the root; a character written at the limit
    // may take two places.
    std::string r989(989, 'r');
    EXPECT_EQ(1000u, getpath("public/x", "/" + r989.substr(1)).size());
    EXPECT_EQ("<bad>", getpath("public/x", r989 + "r"));
    EXPECT_EQ(1001u, getpath("public/X", r989).size());
    EXPECT_EQ("<bad>", getpath("user/alice/" + std::string(200, 'S'), std::string(998, 'r')));
    EXPECT_EQ("<bad>", getpath("public/" + std::string(255, '.'), std::string(600, 'r')));
    // Every character that the directory encoding rewrites comes back from
    // its directory (decoded as the directory walkers decode it), under a
    // short and a deep root. Random valid names round-trip under the name
    // fuzzer's invariants.
    for (const std::string &name : {std::string("public/+\\:.~ ABCXYZ&-&AOk-&-x"),
                                    std::string("user/Al.ice+x/&AOkA6Q-/&AOkA6QDp-/&AOkA6QDpAOk-&-"),
                                    "public/" + std::string(248, 'Q'), "user/" + std::string(250, 'z')}) {
        ASSERT_EQ(0, mboxname_policycheck(name.c_str())) << name;
        expect_roundtrip(name, "/srv/store/p1");
        expect_roundtrip(name, "/" + std::string(300, 'd'));
    }
}

TEST(Mboxname, PolicyCheck)
{
    const std::string n256 = "public/" + std::string(249, 'x');
    const std::string accepted[] = {
        "user/bob", "user/bob/inboxes", "user/bob/x/inbox", "public/news", n256,
        "public/ !\"#$'()+,-.0189:;<=>@AZ[\\]^_`az{|}~", "public/&-",  // the escaped "&" alone
        "public/&AOk-", "public/&AOk-&-", "public/&-&AOk-",  // "&-" beside a run
        "public/&AOk-x&AOk-", "public/&AOk-/&AOk-",         // runs apart
        // Runs of two, three and four units, the last closed with no
        // padding check; the last characters before and the first behind
        // the surrogates.
        "public/&AOkA6Q-", "public/&AOkA6QDp-", "public/&AOkA6QDpAOk-", "public/&ZeVnLIqe-",
        "public/&1,8-", "public/&4AA-",
    };
    for (const std::string &name : accepted)
        EXPECT_EQ(0, mboxname_policycheck(name.c_str())) << name;
    const std::string refused[] = {
        "", "user", "public", "/public/x", "public/x/", "public//x", "public/a\tb", "public/a\nb",
        "user/bob/inbox", "user/bob/INBOX", "user/bob/InBoX/x", "other/x", "User/bob",
        "Public/x", "public/a%b", "public/a*b", "public/a?b", "public/a\x7f", "public/a\x01",
        "public/caf\xc3\xa9", n256 + "x", "public/&A.k-",
        // Modified UTF-7: two runs side by side, an encoded "A" and 0x7F, a
        // run not closed, cut inside the second unit, padding bits set after
        // one and two units, a surrogate pair, a lone low surrogate, a lone
        // "&" at the end.
        "public/&AOk-&AOk-", "public/&AEE-", "public/&AH8-", "public/&AOk", "public/&AOkA-",
        "public/&AOl-", "public/&AOkA6R-", "public/&2ADcAA-", "public/&3AA-", "public/&-AOk-&",
    };
    for (const std::string &name : refused)
        EXPECT_EQ(BAD, mboxname_policycheck(name.c_str())) << name;
}

TEST(Mboxname, Owners)
{
    char buf[MBOXNAME_OWNER_SIZE];
    const char *owners[][2] = {{"public/x", "-"}, {"userx/bob", "-"}, {"user/bob", "bob"},
                               {"user/bob/x/y", "bob"}};
    for (const auto &o : owners) {
        const char *own = mboxname_owner(o[0], buf);
        EXPECT_STREQ(own ? own : "-", o[1]) << o[0];
    }
    std::string longid = "user/" + std::string(200, 'i') + "/x";
    EXPECT_EQ(std::string(127, 'i'), mboxname_owner(longid.c_str(), buf));
    EXPECT_EQ(nullptr, mboxname_mailbox("user/bob"));
    const char *name = "user/bob/Sent/2005";
    EXPECT_EQ(name + 9, mboxname_mailbox(name));
    const std::pair<const char *, int> owned[] = {{"user/bob", 1}, {"user/bob/x", 1},
        {"user/bobby", 0}, {"user/bo", 0}, {"public/bob", 0}};
    for (const auto &o : owned) EXPECT_EQ(o.second, mboxname_userownsmailbox("bob", o.first)) << o.first;
    EXPECT_EQ(0, mboxname_userownsmailbox("bob/x", "user/bob/x"));
    char out[MAX_MAILBOX_NAME];
    EXPECT_STREQ("user/bob", mboxname_toownedmailbox(nullptr, "bob", out));
    EXPECT_STREQ("user/bob/Sent", mboxname_toownedmailbox("Sent", "bob", out));
    mboxname_toownedmailbox(std::string(400, 'p').c_str(), "bob", out);
    EXPECT_EQ(255u, strlen(out));
    EXPECT_EQ(0, strncmp(out, "user/bob/ppp", 12));
}

TEST(StoreUtil, CanonicalIdsAndFolderNames)
{
    {
        Instance inst("service.defaultdomain: Example.COM\n");
        const char *ids[][2] = {
            // The default domain goes, whatever its case; other domains
            // stay, lower-cased; the local part keeps its case; the last
            // "@" separates the domain.
            {"Bob@example.com", "Bob"},       {"Bob@EXAMPLE.COM", "Bob"},
            {"Bob@Other.ORG", "Bob@other.org"}, {"Bob@Example.Com.EVIL", "Bob@example.com.evil"},
            {"Bob@sub.Example.com", "Bob@sub.example.com"},
            {"A@B@example.com", "A@B"},       {"A@B@C.D", "A@B@c.d"},
            {"NoDomain", "NoDomain"},         {"Bob@", "Bob@"}, {"@example.com", ""},
        };
        for (const auto &c : ids) EXPECT_EQ(c[1], canon(store_canonifyid, c[0])) << c[0];
        const char *names[][2] = {
            // The folder closes up behind a shortened id; only the id is
            // touched, and only in "user/" names.
            {"user/Bob@EXAMPLE.com/Sent/Sub", "user/Bob/Sent/Sub"}, {"user/Bob@example.com/x", "user/Bob/x"},
            {"user/Bob@example.com", "user/Bob"}, {"user/Bob@example.com/", "user/Bob/"},
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
        Instance inst(conf);
        EXPECT_EQ("Bob@example.com Bob@", canon(store_canonifyid, "Bob@Example.COM") + " " +
                                              canon(store_canonifyid, "Bob@"));
        EXPECT_EQ("user/Bob@example.com/Sent", canon(store_canonifymboxname, "user/Bob@Example.COM/Sent"));
    }
}

TEST(StoreUtil, PartitionTable)
{
    Instance inst;
    std::string file = inst.path("config/store.parts");
    EXPECT_EQ("primary", read_table(1));  // the table of a new instance

    // Names are looked up without regard to case.
    write_file(file, "4\nAlpha\nbeta\nDELTA\ngamma\n");
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
    const struct { std::string content; int count; std::string names; } files[] = {
        {"3\nalpha\nbeta\n", 0, "-"},    {"2000000000\nalpha\n", 0, "-"}, {"", 0, "-"},
        {"0\n", 0, "-"},                 {"-3\nalpha\n", 0, "-"},         {"x\nalpha\n", 0, "-"},
        {"2\nalpha\nbeta", 2, "alpha,beta"}, {"1\nalpha\nbeta\n", 1, "alpha"},
        {"1\n" + longname + "\n", 1, longname},
    };
    for (const auto &f : files) {
        write_file(file, f.content);
        EXPECT_EQ(f.names, read_table(f.count)) << f.content.substr(0, 20);
    }

    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ("-", read_table(-1));  // no file
}

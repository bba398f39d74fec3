// Folder names and identities: internal forms, directories and back, owners,
// the policy on names; canonical ids and folder names, and the partition id
// table; auth states, identifiers, rights masks and ACL edits.
#include "store/mboxname.h"
#include "store/storeutil.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

const int BAD = IMAP_MAILBOX_BADNAME;

// tointernal and toexternal as a string, or "<bad>".
std::string internal(const std::string &name, int view, const char *userid) {
    char out[MAX_MAILBOX_NAME];
    memset(out, 'X', sizeof out);
    int rc = mboxname_tointernal(name.c_str(), view, userid, out);
    if (rc == 0) return out;
    EXPECT_EQ(BAD, rc) << name;
    return "<bad>";
}

// getpath into a buffer of exactly MAX_MAILBOX_PATH bytes on the heap, so
// that the sanitizer build sees any write beyond it; "<bad>" on failure.
std::string getpath(const std::string &name, const std::string &root) {
    std::vector<char> out(MAX_MAILBOX_PATH);
    int rc = mboxname_getpath(name.c_str(), root.c_str(), out.data());
    EXPECT_TRUE(rc == 0 || rc == BAD) << rc;
    return rc == 0 ? std::string(out.data()) : "<bad>";
}

std::string frompath(const std::string &path) {
    std::vector<char> out(MAX_MAILBOX_NAME);
    int rc = mboxname_frompath(path.c_str(), out.data());
    EXPECT_TRUE(rc == 0 || rc == BAD) << rc;
    return rc == 0 ? std::string(out.data()) : "<bad>";
}

// Encodes name under root and decodes it again as the store's directory
// walkers do: strip the root, and for a user's folder the "=user" marker
// and the fan-out, which must be the hash of the id.
void expect_roundtrip(const std::string &name, const std::string &root) {
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

struct NameCase { std::string name; int view; const char *userid; std::string want; };

// store_canonifyid or store_canonifymboxname on a copy, which must be
// changed in place.
std::string canon(char *(*fn)(char *), const char *text) {
    std::vector<char> buf(text, text + strlen(text) + 1);
    EXPECT_EQ(buf.data(), fn(buf.data()));
    return buf.data();
}

// The names of the partition table, or "-" for none; checks the count.
std::string read_table(int want_count) {
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

// Configuration with a default domain, so that canonical forms can differ.
class AuthTest : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.addConfig("service.defaultdomain: Example.COM");
        ASSERT_EQ(configmsg_init(nullptr, 16, "authtest"), 0);
        const char *groups[] = {"group:staff", "bad id", "anyone", "group:staff", nullptr};
        fred = auth_newstate("fred@EXAMPLE.com", groups, AUTH_ADMIN_NONE);
        bob = auth_newstate("bob@other.org", nullptr, AUTH_ADMIN_NONE);
        site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
        tenant = auth_newstate("boss@other.org", nullptr, AUTH_ADMIN_TENANT);
        local = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);
    }
    void TearDown() override { for (auth_state *a : {fred, bob, site, tenant, local}) auth_freestate(a); }
    Instance inst;
    auth_state *fred, *bob, *site, *tenant, *local;
};

// The owner of user/<owner>[/...] keeps lookup, create and administer.
int owner_keeps(void *rock, const char *identifier, int mask) {
    const char *name = static_cast<const char *>(rock);
    size_t n = strlen(identifier);
    if (strchr(identifier, '/') || strncmp(name + 5, identifier, n) != 0) return mask;
    return (name[5 + n] == '/' || name[5 + n] == '\0') ? (mask | ACL_OWNER) : mask;
}

}  // namespace

TEST(Mboxname, ToInternal) {
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

TEST(Mboxname, PathsAndBack) {
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

TEST(Mboxname, PolicyCheck) {
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

TEST(Mboxname, Owners) {
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

TEST(StoreUtil, CanonicalIdsAndFolderNames) {
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
            {"public/A@Example.com", "public/A@Example.com"}, {"userx/Bob@Example.com", "userx/Bob@Example.com"},
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

TEST(StoreUtil, PartitionTable) {
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

TEST_F(AuthTest, RightsTextsAndCanonicalIdentifiers) {
    // Unknown letters are ignored, order doesn't matter, and every mask
    // survives the way to letters and back.
    const std::pair<const char *, int> masks[] = {
        {"all", ACL_ALL}, {"none", 0}, {"", 0}, {"lxyz0r", ACL_LOOKUP | ACL_READ}, {"acl", ACL_OWNER}};
    for (const auto &c : masks) EXPECT_EQ(acl_strtomask(c.first), c.second) << c.first;
    char rights[ACL_MAXRIGHTS];
    for (int m = 0; m <= ACL_ALL; m++) ASSERT_EQ(acl_strtomask(acl_masktostr(m, rights)), m) << m;
    // The default domain is dropped, another one lowered; null: refused.
    std::string longest(AUTH_MAXIDENTIFIER - 1, 'a'), toolong = longest + "a";
    const std::pair<const char *, const char *> ids[] = {
        {"fred", "fred"}, {"Fred@example.com", "Fred"}, {"Fred@Other.ORG", "Fred@other.org"},
        {longest.c_str(), longest.c_str()}, {toolong.c_str(), nullptr}, {"", nullptr},
        {"-fred", nullptr}, {"fr ed", nullptr}, {"fr\ted", nullptr}, {"fr\xc3\xa9" "d", nullptr},
        {"fred@", nullptr}, {"@x.org", nullptr}};
    char buf[AUTH_MAXIDENTIFIER];
    for (const auto &c : ids) EXPECT_EQ(str(auth_canonifyid(c.first, buf)), str(c.second)) << c.first;
}

TEST_F(AuthTest, StatesAdministratorsAndGroups) {
    ASSERT_NE(fred, nullptr);
    std::string g = auth_userid(fred);  // invalid and repeated names are left out
    for (const char *const *p = auth_getgroups(fred); *p; p++) g += std::string(",") + *p;
    EXPECT_EQ(g, "fred,fred,group:staff,anyone");
    EXPECT_FALSE(auth_newstate("bad id", nullptr, 0) || auth_newstate(nullptr, nullptr, 0) ||
                 auth_newstate("x", nullptr, 3));
    // Without an owner: the level. With one: the site administers all, a
    // tenant its own domain; owning folders makes nobody an administrator.
    const struct { const auth_state *who; const char *owner; int level; } cases[] = {
        {site, nullptr, AUTH_ADMIN_SITE}, {auth_dontCheckAcl, nullptr, AUTH_ADMIN_SITE},
        {tenant, nullptr, AUTH_ADMIN_TENANT}, {fred, nullptr, 0}, {site, "anybody@other.org", 1},
        {tenant, "joe@OTHER.org", 1}, {tenant, "joe", 0}, {local, "joe", 1}, {local, "joe@example.com", 1},
        {local, "joe@other.org", 0}, {fred, "fred", 0}, {nullptr, "fred", 0}};
    for (const auto &c : cases) {
        int got = auth_adminFor(c.who, c.owner);
        EXPECT_EQ(c.owner ? got != 0 : got, c.level) << str(auth_userid(c.who)) << str(c.owner);
    }
    auth_freestate(auth_dontCheckAcl);  // the sentinel stays
    EXPECT_EQ(acl_myrights(auth_dontCheckAcl, "x\tl\t"), ACL_ALL);
}

TEST_F(AuthTest, MyRights) {
    const char *acl = "anyone\tl\tgroup:staff\trs\tfred@Example.com\tiw\tbob@OTHER.ORG\tc\t";
    const struct { const auth_state *who; const char *acl, *rights; } cases[] = {
        {fred, acl, "lrsiw"}, {bob, acl, "lc"}, {site, acl, "lrswipcda"},
        {nullptr, acl, "l"}, {tenant, acl, "l"},  // anyone's; a tenant gets what the ACL says
        {fred, nullptr, ""}, {fred, "", ""},
        // Negative entries take away, whatever their place.
        {fred, "-group:staff\tsl\tfred\tlrs\t", "r"}, {fred, "fred\tlrs\t-anyone\tr\t", "ls"},
        // An entry without its TAB ends the walk, a missing last TAB doesn't;
        // invalid identifiers are passed over.
        {fred, "fred\tl\tfred", "l"}, {fred, "fred\tlr", "lr"},
        {fred, "bad id\tlrswipcda\tfred\tl\t", "l"}};
    for (const auto &c : cases)
        EXPECT_EQ(acl_myrights(c.who, c.acl), acl_strtomask(c.rights))
            << str(auth_userid(c.who)) << " in " << str(c.acl);
}

TEST_F(AuthTest, AclEditsKeepTheOwnersRights) {
    // want null: refused, nothing changes.
    const struct { const char *start, *id; int mode, mask; const char *want; } cases[] = {
        // Replace, add, take away; a new entry goes to the end, a known one
        // keeps its place, one left without rights goes.
        {nullptr, "fred", ACL_MODE_SET, ACL_ALL, "fred\tlrswipcda\t"},
        {"anyone\tlrs\tbob\tlr\t", "anyone", ACL_MODE_SET, ACL_LOOKUP, "anyone\tl\tbob\tlr\t"},
        {"a\tl\tbob\tlr\tc\tl\t", "bob", ACL_MODE_ADD, ACL_READ | ACL_WRITE, "a\tl\tbob\tlrw\tc\tl\t"},
        {"a\tl\tbob\tl\t", "bob", ACL_MODE_REMOVE, ACL_LOOKUP, "a\tl\t"},
        {"a\tl\t", "bob", ACL_MODE_SET, 0, "a\tl\t"},
        // Identifiers are matched in canonical form and written so; two
        // entries of one become one; negative entries are entries of their own.
        {"Fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ, "Fred@EXAMPLE.com\tl\tfred\tr\t"},
        {"fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ, "fred\tlr\t"},
        {"x\tl\t", "joe@OTHER.org", ACL_MODE_SET, ACL_LOOKUP, "x\tl\tjoe@other.org\tl\t"},
        {"fred\tl\tx\tl\tfred\tr\t", "fred", ACL_MODE_ADD, ACL_SEEN, "fred\tlrs\tx\tl\t"},
        {"fred\tlr\t", "-fred", ACL_MODE_SET, ACL_READ, "fred\tlr\t-fred\tr\t"},
        {"fred\tlr\t-fred\tr\t", "-fred", ACL_MODE_REMOVE, ACL_READ, "fred\tlr\t"},
        {"a\tl\t", "bad id", ACL_MODE_SET, ACL_ALL, nullptr}, {"a\tl\t", "--x", ACL_MODE_SET, ACL_ALL, nullptr},
        {"a\tl\t", "b", 3, ACL_ALL, nullptr}};
    for (const auto &c : cases) {
        char *acl = c.start ? strdup(c.start) : nullptr;
        EXPECT_EQ(acl_modify(&acl, c.id, c.mode, c.mask, nullptr, nullptr) == 0, c.want != nullptr)
            << c.id << " on " << str(c.start);
        EXPECT_EQ(take(acl), c.want ? c.want : c.start) << c.id << " on " << str(c.start);
    }
    // Through the callback the owner keeps lookup, create and administer,
    // whether lowered or taken away, named in canonical form or not; others
    // (fred isn't the owner of fred2's folders) are not protected.
    char name[] = "user/fred/x", other[] = "user/fred2/x";
    char *acl = strdup("fred\tlrswipcda\tbob\tl\t");
    ASSERT_EQ(acl_modify(&acl, "fred", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\tbob\tl\t");
    ASSERT_EQ(acl_modify(&acl, "fred", ACL_MODE_REMOVE, ACL_ALL, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlca\tbob\tl\t");
    ASSERT_EQ(acl_modify(&acl, "fred", ACL_MODE_SET, 0, owner_keeps, other), 0);
    EXPECT_STREQ(acl, "bob\tl\t");
    ASSERT_EQ(acl_modify(&acl, "fred@example.com", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "bob\tl\tfred\tlrca\t");
    free(acl);
}

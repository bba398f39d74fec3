// Folder names: external and internal forms, directories and back, owners,
// and the policy on names.
#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "store/imap_err.h"
#include "store/mboxname.h"
#include "support/strutil.h"
#include "tests/testutil.h"

namespace {

const int BAD = IMAP_MAILBOX_BADNAME;

// tointernal as a string, or "<bad>".
std::string internal(const char *name, int view, const char *userid)
{
    char out[MAX_MAILBOX_NAME];
    memset(out, 'X', sizeof out);
    int rc = mboxname_tointernal(name, view, userid, out);
    if (rc == 0) return out;
    EXPECT_EQ(BAD, rc) << name;
    return "<bad>";
}

std::string external(const char *name, int view, const char *userid)
{
    char out[MAX_MAILBOX_EXTERNAL];
    int rc = mboxname_toexternal(name, view, userid, out);
    if (rc == 0) return out;
    EXPECT_EQ(BAD, rc) << name;
    EXPECT_STREQ("", out);
    return "<bad>";
}

// getpath into a buffer of exactly MAX_MAILBOX_PATH bytes on the heap, so
// that the sanitizer build sees any write beyond it.
std::string getpath(const std::string &name, const std::string &root, int *rc)
{
    std::vector<char> out(MAX_MAILBOX_PATH);
    *rc = mboxname_getpath(name.c_str(), root.c_str(), out.data());
    return *rc == 0 ? std::string(out.data()) : std::string();
}

std::string frompath(const std::string &path, int *rc)
{
    std::vector<char> out(MAX_MAILBOX_NAME);
    *rc = mboxname_frompath(path.c_str(), out.data());
    return *rc == 0 ? std::string(out.data()) : std::string();
}

std::string hash(const char *text, size_t len = 0)
{
    char out[MBOXNAME_HASH_SIZE];
    mboxname_tohash(text, len, out);
    return out;
}

void append_utf8(std::string &s, uint32_t cp)
{
    if (cp < 0x800) {
        s += (char)(0xc0 | (cp >> 6));
        s += (char)(0x80 | (cp & 0x3f));
    } else {
        s += (char)(0xe0 | (cp >> 12));
        s += (char)(0x80 | ((cp >> 6) & 0x3f));
        s += (char)(0x80 | (cp & 0x3f));
    }
}

// Random names that the policy must accept: plain characters with a bias
// towards upper case and the characters the directory encoding rewrites,
// escaped ampersands, and encoded runs of one to five characters made by
// the support layer's modified UTF-7 encoder (never two runs side by side).
class NameGen {
  public:
    explicit NameGen(unsigned seed) : rng_(seed) {}

    std::string component()
    {
        std::string c;
        bool after_run = false;
        int pieces = 1 + pick(10);
        for (int i = 0; i < pieces; i++) {
            int kind = pick(100);
            if (kind < 12) {
                if (after_run) c += plain();
                c += run();
                after_run = true;
                continue;
            }
            if (kind < 17)
                c += "&-";
            else
                c += plain();
            after_run = false;
        }
        return c;
    }

    std::string id()
    {
        static const char chars[] = "abcdefghijklmnopqrstuvwxyzABCXYZ0123456789._-+";
        std::string s;
        int n = 1 + pick(12);
        for (int i = 0; i < n; i++) s += chars[pick(sizeof chars - 1)];
        return s;
    }

    // A whole internal name of at most 255 characters.
    std::string name()
    {
        for (;;) {
            bool user = pick(3) != 0;
            std::string s = user ? "user/" + id() : "public";
            int comps = (user ? 0 : 1) + pick(5);
            for (int i = 0; i < comps; i++) {
                std::string c = component();
                // A user's root is the inbox; no folder of that name below it.
                if (user && i == 0 && strncasecmp(c.c_str(), "inbox", 5) == 0 &&
                    c.size() == 5)
                    c += "x";
                s += "/" + c;
            }
            if (s.size() < MAX_MAILBOX_NAME) return s;
        }
    }

    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

  private:
    char plain()
    {
        static const char special[] = "+\\:.~ /";
        int k = pick(10);
        if (k < 2) return (char)('A' + pick(26));
        if (k < 4) {
            char c = special[pick(sizeof special - 1)];
            return c == '/' ? '_' : c;
        }
        for (;;) {
            char c = (char)(0x20 + pick(0x5F));
            if (c != '%' && c != '*' && c != '?' && c != '&' && c != '/') return c;
        }
    }

    std::string run()
    {
        std::string utf8;
        int n = 1 + pick(5);
        for (int i = 0; i < n; i++) {
            uint32_t cp;
            do cp = 0x80 + (uint32_t)pick(0xFFFE - 0x80);
            while (cp >= 0xD800 && cp <= 0xDFFF);
            append_utf8(utf8, cp);
        }
        char buf[128];
        EXPECT_EQ(0, mutf7_fromutf8(utf8.c_str(), buf, sizeof buf));
        EXPECT_EQ('&', buf[0]);
        return buf;
    }

    std::mt19937 rng_;
};

// Encodes name under root and decodes it again as the store's directory
// walkers do: strip the root, and for a user's folder the "=user" marker
// and the fan-out, which must be the hash of the id.
void expect_roundtrip(const std::string &name, const std::string &root)
{
    int rc;
    std::string path = getpath(name, root, &rc);
    ASSERT_EQ(0, rc) << name;
    ASSERT_EQ(root + "/", path.substr(0, root.size() + 1)) << name;
    std::string rest = path.substr(root.size() + 1);

    std::string encoded = rest;
    std::string front;
    if (name.compare(0, 5, "user/") == 0) {
        ASSERT_EQ("=user", rest.substr(0, 5)) << name;
        std::string id = name.substr(5, name.find('/', 5) - 5);
        EXPECT_EQ(hash(id.c_str()), rest.substr(5, 7)) << name;
        encoded = rest.substr(12);
        front = "user/";
    }
    // The encoded directories hold no characters that file systems or the
    // store's own file names give a meaning, and upper case only behind "+".
    for (size_t i = 0; i < encoded.size(); i++) {
        char c = encoded[i];
        EXPECT_TRUE(strchr(".:\\~", c) == nullptr) << name << " -> " << path;
        if (c >= 'A' && c <= 'Z') {
            EXPECT_TRUE(i > 0 && encoded[i - 1] == '+') << path;
        }
    }
    EXPECT_EQ(name, front + frompath(encoded, &rc)) << path;
    EXPECT_EQ(0, rc) << path;
}

}  // namespace

TEST(Mboxname, ToInternalInboxAndPersonalFolders)
{
    testutil::Instance inst("service.defaultdomain: example.com\n");

    for (const char *inbox : {"INBOX", "inbox", "InBoX"}) {
        EXPECT_EQ("user/bob", internal(inbox, 0, "bob"));
        EXPECT_EQ("user/Bob", internal(inbox, -1, "Bob@EXAMPLE.com"));
        EXPECT_EQ("user/bob@other.org", internal(inbox, 0, "bob@Other.ORG"));
        EXPECT_EQ("<bad>", internal(inbox, 0, nullptr));
        EXPECT_EQ("<bad>", internal(inbox, 0, "a/b"));
    }
    std::string id250(250, 'u'), id251(251, 'u');
    EXPECT_EQ("user/" + id250, internal("inbox", 0, id250.c_str()));
    EXPECT_EQ("<bad>", internal("inbox", 0, id251.c_str()));

    // Personal folders keep the id as given: only inboxes are canonified.
    EXPECT_EQ("user/bob/Sent", internal("Sent", 0, "bob"));
    EXPECT_EQ("user/bob/sent", internal("sent", 0, "bob"));
    EXPECT_EQ("user/Bob@EXAMPLE.com/a/b", internal("a/b", 0, "Bob@EXAMPLE.com"));
    EXPECT_EQ("user/bob/a#b~c", internal("a#b~c", 0, "bob"));
    EXPECT_EQ("<bad>", internal("#news", 0, "bob"));
    EXPECT_EQ("<bad>", internal("~bob", 0, "bob"));
    EXPECT_EQ("<bad>", internal("Sent", 0, nullptr));
    EXPECT_EQ("<bad>", internal("Sent", 0, "a/b"));
    // Length: "user/" + id + "/" + name must fit 256 bytes.
    std::string n247(247, 'n'), n248(248, 'n');
    EXPECT_EQ("user/me/" + n247, internal(n247.c_str(), 0, "me"));
    EXPECT_EQ("<bad>", internal(n248.c_str(), 0, "me"));

    // A failure before any copying leaves the buffer empty.
    char out[MAX_MAILBOX_NAME];
    strcpy(out, "junk");
    EXPECT_EQ(BAD, mboxname_tointernal("#news", 0, "bob", out));
    EXPECT_STREQ("", out);
}

TEST(Mboxname, ToInternalNamespaces)
{
    testutil::Instance inst("service.defaultdomain: example.com\n");

    // Administrative view: "user" and "public" are the prefixes.
    EXPECT_EQ("<bad>", internal("user/bob", -1, nullptr));
    EXPECT_EQ("user/bob", internal("user/bob/INBOX", -1, nullptr));
    EXPECT_EQ("user/bob", internal("user/bob/inbox", -1, nullptr));
    EXPECT_EQ("user/bob/sent", internal("user/bob/sent", -1, nullptr));
    EXPECT_EQ("user/bob/INBOX/x", internal("user/bob/INBOX/x", -1, nullptr));
    EXPECT_EQ("user/Bob/Sent", internal("user/Bob@Example.COM/Sent", -1, nullptr));
    EXPECT_EQ("user/x@other.org", internal("user/x@Other.ORG/INBOX", -1, nullptr));
    EXPECT_EQ("<bad>", internal("user", -1, nullptr));
    EXPECT_EQ("<bad>", internal("user", -1, "bob"));
    EXPECT_EQ("public/news", internal("public/news", -1, nullptr));
    EXPECT_EQ("public", internal("public", -1, nullptr));
    // The prefix must be a whole component, and case counts.
    EXPECT_EQ("user/bob/users/x", internal("users/x", -1, "bob"));
    EXPECT_EQ("user/bob/User/x/y", internal("User/x/y", -1, "bob"));
    EXPECT_EQ("user/bob/publicity", internal("publicity", -1, "bob"));

    // User view: the same strings are personal folders of the caller.
    EXPECT_EQ("user/me/user/bob", internal("user/bob", 0, "me"));
    EXPECT_EQ("user/me/user/bob/INBOX", internal("user/bob/INBOX", 0, "me"));
    EXPECT_EQ("user/me/user/bob/sent", internal("user/bob/sent", 0, "me"));
    EXPECT_EQ("user/bob", internal("Shared Folders/User/bob/INBOX", 0, "me"));
    EXPECT_EQ("user/bob/x", internal("Shared Folders/User/bob/x", 7, "me"));
    EXPECT_EQ("<bad>", internal("Shared Folders/User/bob", 0, "me"));
    EXPECT_EQ("<bad>", internal("Shared Folders/User", 0, "me"));
    EXPECT_EQ("<bad>", internal("Shared Folders", 0, "me"));
    EXPECT_EQ("<bad>", internal("Shared Folders/Other", 0, "me"));
    EXPECT_EQ("<bad>", internal("Shared Folders/Users/x", 0, "me"));
    EXPECT_EQ("public", internal("Shared Folders/Public", 0, "me"));
    EXPECT_EQ("public/news", internal("Shared Folders/Public/news", 0, "me"));
    EXPECT_EQ("user/me/Shared", internal("Shared", 0, "me"));
    EXPECT_EQ("user/me/public/x", internal("public/x", 0, "me"));

    // Lengths of the prefixed forms: the result must fit 256 bytes.
    std::string p248 = "public/" + std::string(248, 'p');
    std::string p249 = "public/" + std::string(249, 'p');
    EXPECT_EQ(p248, internal(p248.c_str(), -1, nullptr));
    EXPECT_EQ("<bad>", internal(p249.c_str(), -1, nullptr));
    std::string u255 = "user/b/" + std::string(248, 'x');
    std::string u256 = "user/b/" + std::string(249, 'x');
    EXPECT_EQ(u255, internal(u255.c_str(), -1, nullptr));
    EXPECT_EQ("<bad>", internal(u256.c_str(), -1, nullptr));

    EXPECT_STREQ("", mboxname_prefix(0, -1));
    EXPECT_STREQ("Shared Folders/Public", mboxname_prefix(2, 3));
    EXPECT_EQ(nullptr, mboxname_prefix(3, 0));
    EXPECT_EQ(nullptr, mboxname_prefix(-1, -1));
}

TEST(Mboxname, ToExternal)
{
    testutil::Instance inst("service.defaultdomain: example.com\n");

    EXPECT_EQ("user/bob/INBOX", external("user/bob", -1, nullptr));
    EXPECT_EQ("user/bob/Sent", external("user/bob/Sent", -1, "bob"));
    EXPECT_EQ("public/news", external("public/news", -1, nullptr));

    EXPECT_EQ("INBOX", external("user/bob", 0, "bob"));
    EXPECT_EQ("Sent/2005", external("user/bob/Sent/2005", 0, "bob"));
    EXPECT_EQ("Shared Folders/User/al/INBOX", external("user/al", 0, "bob"));
    EXPECT_EQ("Shared Folders/User/al/x", external("user/al/x", 0, "bob"));
    EXPECT_EQ("Shared Folders/User/bobby/x", external("user/bobby/x", 0, "bob"));
    EXPECT_EQ("Shared Folders/Public/news", external("public/news", 0, "bob"));
    EXPECT_EQ("Shared Folders/User/bob/x", external("user/bob/x", 0, nullptr));

    // Names without an external form in that view.
    EXPECT_EQ("<bad>", external("user/bob/Shared Folders", 0, "bob"));
    EXPECT_EQ("<bad>", external("user/bob/#news", 0, "bob"));
    EXPECT_EQ("<bad>", external("user/bob/~x", 0, "bob"));
    EXPECT_EQ("<bad>", external("user/bob/INBOX", -1, nullptr));
    EXPECT_EQ("<bad>", external("user/al@example.com/x", -1, nullptr));
    EXPECT_EQ("<bad>", external("other/x", -1, nullptr));
    EXPECT_EQ("<bad>", external("user", -1, nullptr));
}

TEST(Mboxname, HashAndPathsOfTheWorkedExamples)
{
    EXPECT_EQ("/00/d2/", hash("alice"));
    EXPECT_EQ("/53/b7/", hash("bob"));
    EXPECT_EQ("/00/d2/", hash("alice/Sent", 5));
    // Bytes above 0x7F count as negative numbers.
    EXPECT_EQ("/e0/c4/", hash("caf\xc3\xa9"));

    int rc;
    EXPECT_EQ("/store/p1/=user/00/d2/=alice/=+Sent%d2005",
              getpath("user/alice/Sent.2005", "/store/p1", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_EQ("/store/p1/=public/=news", getpath("public/news", "/store/p1", &rc));
    EXPECT_EQ("/store/p1/=user/00/d2/=alice", getpath("user/alice", "/store/p1", &rc));
    EXPECT_EQ("/p/=user/53/b7/=bob/=x/=y", getpath("user/bob/x/y", "/p", &rc));
    EXPECT_EQ("/p/=public/=+Sent", getpath("public/Sent", "/p", &rc));
    EXPECT_EQ("/p/=public/=sent", getpath("public/sent", "/p", &rc));
    EXPECT_EQ("/p/=public/=a%ab%bc%cd%de%pf%tg&+A+Ok-",
              getpath("public/a+b\\c:d.e%f~g&AOk-", "/p", &rc));

    EXPECT_EQ("alice/Sent.2005", frompath("=alice/=+Sent%d2005", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_EQ("public/news", frompath("=public/=news", &rc));
    EXPECT_EQ("a+b\\c:d.e%f~g", frompath("=a%ab%bc%cd%de%pf%tg", &rc));
    EXPECT_EQ("a=b/=c", frompath("=a=b/==c", &rc));
    EXPECT_EQ("SS+", frompath("=+s+S%a", &rc));  // the letter behind "+" in upper case
    for (const char *bad : {"", "alice", "store.idx", "=a/b", "=a/", "=a%x", "=a%", "=a+"}) {
        frompath(bad, &rc);
        EXPECT_EQ(BAD, rc) << bad;
    }
    // 255 characters of result fit, 256 don't.
    EXPECT_EQ(std::string(255, 'a'), frompath("=" + std::string(255, 'a'), &rc));
    frompath("=" + std::string(256, 'a'), &rc);
    EXPECT_EQ(BAD, rc);
    frompath("=" + std::string(255, 'a') + "%d", &rc);
    EXPECT_EQ(BAD, rc);

    // The length limit counts the root; a character written at the limit
    // may take two places.
    std::string r989(989, 'r'), r990(990, 'r');
    std::string p = getpath("public/x", "/" + r989.substr(1), &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1000u, p.size());
    getpath("public/x", r990, &rc);
    EXPECT_EQ(BAD, rc);
    p = getpath("public/X", r989, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1001u, p.size());
    getpath("user/alice/" + std::string(200, 'S'), std::string(998, 'r'), &rc);
    EXPECT_EQ(BAD, rc);
    getpath("public/" + std::string(255, '.'), std::string(600, 'r'), &rc);
    EXPECT_EQ(BAD, rc);
    getpath("public/x", std::string(5000, 'r'), &rc);
    EXPECT_EQ(BAD, rc);
}

TEST(Mboxname, PathRoundTripOfRandomValidNames)
{
    // Every character that the directory encoding rewrites, in one name,
    // and runs of one, two, three and four units, with "&-" beside them.
    std::vector<std::string> names = {
        "public/+\\:.~ ABCXYZ&-&AOk-&-x",
        "user/Al.ice+x/&AOkA6Q-/&AOkA6QDp-/&AOkA6QDpAOk-&-",
        "user/b/Sent.2005/a:b/c~d",
        "public/&ZeVnLIqe-,+",
        std::string("public/") + std::string(248, 'Q'),
        "user/" + std::string(250, 'z'),
    };
    NameGen gen(20240611);
    for (int i = 0; i < 5000; i++) names.push_back(gen.name());

    for (const std::string &name : names) {
        ASSERT_EQ(0, mboxname_policycheck(name.c_str())) << name;
        expect_roundtrip(name, "/srv/store/p1");
        if (::testing::Test::HasFailure()) return;
    }
    // And against a deep root.
    for (int i = 0; i < 200; i++) expect_roundtrip(gen.name(), "/" + std::string(300, 'd'));
}

TEST(Mboxname, ExternalFormsOfRandomValidNames)
{
    testutil::Instance inst;
    NameGen gen(77);
    for (int i = 0; i < 2000; i++) {
        std::string name = gen.name();
        char owner[MBOXNAME_OWNER_SIZE];
        const char *own = mboxname_owner(name.c_str(), owner);
        // The administrative view names every such folder.
        std::string ext = external(name.c_str(), -1, nullptr);
        ASSERT_NE("<bad>", ext) << name;
        EXPECT_EQ(name, internal(ext.c_str(), -1, nullptr));
        // The user view: the owner sees a personal folder, unless its
        // name starts with a character the personal namespace refuses.
        const char *me = own ? own : "someone";
        ext = external(name.c_str(), 0, me);
        const char *sub = mboxname_mailbox(name.c_str());
        if (own && sub && (sub[0] == '#' || sub[0] == '~')) {
            EXPECT_EQ("<bad>", ext) << name;
        } else {
            ASSERT_NE("<bad>", ext) << name;
            EXPECT_EQ(name, internal(ext.c_str(), 0, me)) << ext;
            if (own) {
                EXPECT_EQ(sub ? std::string(sub) : "INBOX", ext);
            }
        }
        // Another user sees it under the shared prefixes.
        ext = external(name.c_str(), 0, "zz-other");
        ASSERT_NE("<bad>", ext) << name;
        EXPECT_EQ(0u, ext.find("Shared Folders/")) << ext;
        EXPECT_EQ(name, internal(ext.c_str(), 0, "zz-other"));
    }
}

TEST(Mboxname, PolicyCheck)
{
    const char *accepted[] = {
        "user/bob",
        "user/bob/inboxes",
        "user/bob/x/inbox",
        "public/news",
        "public/ !\"#$'()+,-.0189:;<=>@AZ[\\]^_`az{|}~",
        "public/&-",               // the escaped "&" alone
        "public/&AOk-",
        "public/&AOk-&-",          // "&-" right behind a run
        "public/&-&AOk-",
        "public/&AOk-x&AOk-",      // runs apart
        "public/&AOk-/&AOk-",
        "public/&AOkA6Q-",         // two units
        "public/&AOkA6QDp-",       // three units, closed with no padding check
        "public/&AOkA6QDpAOk-",    // four
        "public/&ZeVnLIqe-",
        "public/&1,8-",            // U+D7FF, the last before the surrogates
        "public/&4AA-",            // U+E000, the first behind them
    };
    for (const char *name : accepted) EXPECT_EQ(0, mboxname_policycheck(name)) << name;

    const char *refused[] = {
        "",
        "user",
        "public",
        "/public/x",
        "public/x/",
        "public//x",
        "public/a\tb",
        "public/a\nb",
        "user/bob/inbox",
        "user/bob/INBOX",
        "user/bob/InBoX/x",
        "other/x",
        "User/bob",
        "Public/x",
        "public/a%b",
        "public/a*b",
        "public/a?b",
        "public/a\x7f",
        "public/a\x01",
        "public/caf\xc3\xa9",
        "public/&AOk-&AOk-",       // two runs side by side
        "public/&AEE-",            // an encoded "A"
        "public/&AH8-",            // an encoded 0x7F
        "public/&AOk",             // not closed
        "public/&AOkA-",           // cut inside the second unit
        "public/&AOl-",            // padding bits set after one unit
        "public/&AOkA6R-",         // padding bits set after two units
        "public/&2ADcAA-",         // a surrogate pair
        "public/&3AA-",            // a lone low surrogate
        "public/&-AOk-&",          // a lone "&" at the end
        "public/&A.k-",
    };
    for (const char *name : refused) EXPECT_EQ(BAD, mboxname_policycheck(name)) << name;

    std::string n256 = "public/" + std::string(249, 'x');
    std::string n257 = n256 + "x";
    EXPECT_EQ(0, mboxname_policycheck(n256.c_str()));
    EXPECT_EQ(BAD, mboxname_policycheck(n257.c_str()));

    // Whatever the support layer's encoder makes of non-ASCII text passes.
    NameGen gen(5);
    for (int i = 0; i < 1000; i++) {
        std::string c = gen.component();
        EXPECT_EQ(0, mboxname_policycheck(("public/" + c).c_str())) << c;
    }
}

TEST(Mboxname, Owners)
{
    char buf[MBOXNAME_OWNER_SIZE];
    EXPECT_EQ(nullptr, mboxname_owner("public/x", buf));
    EXPECT_EQ(nullptr, mboxname_owner("userx/bob", buf));
    EXPECT_STREQ("bob", mboxname_owner("user/bob", buf));
    EXPECT_STREQ("bob", mboxname_owner("user/bob/x/y", buf));
    std::string longid(200, 'i');
    EXPECT_EQ(std::string(127, 'i'), mboxname_owner(("user/" + longid + "/x").c_str(), buf));

    EXPECT_EQ(nullptr, mboxname_mailbox("public/x"));
    EXPECT_EQ(nullptr, mboxname_mailbox("user/bob"));
    const char *name = "user/bob/Sent/2005";
    EXPECT_EQ(name + 9, mboxname_mailbox(name));

    EXPECT_EQ(1, mboxname_userownsmailbox("bob", "user/bob"));
    EXPECT_EQ(1, mboxname_userownsmailbox("bob", "user/bob/x"));
    EXPECT_EQ(0, mboxname_userownsmailbox("bob", "user/bobby"));
    EXPECT_EQ(0, mboxname_userownsmailbox("bob", "user/bo"));
    EXPECT_EQ(0, mboxname_userownsmailbox("bob", "public/bob"));
    EXPECT_EQ(0, mboxname_userownsmailbox("bob/x", "user/bob/x"));

    char out[MAX_MAILBOX_NAME];
    EXPECT_STREQ("user/bob", mboxname_toownedmailbox(nullptr, "bob", out));
    EXPECT_STREQ("user/bob", mboxname_toownedmailbox("", "bob", out));
    EXPECT_STREQ("user/bob/Sent", mboxname_toownedmailbox("Sent", "bob", out));
    std::string longpath(400, 'p');
    mboxname_toownedmailbox(longpath.c_str(), "bob", out);
    EXPECT_EQ(255u, strlen(out));
    EXPECT_EQ(0, strncmp(out, "user/bob/ppp", 12));
}

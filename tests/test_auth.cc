// Identity and rights: auth states, identifiers, rights masks and ACL edits.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "support/auth.h"
#include "support/config.h"
#include "tests/testutil.h"

namespace {

// Configuration with a default domain, so that canonical forms can differ.
class AuthTest : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.addConfig("service.defaultdomain: Example.COM");
        ASSERT_EQ(configmsg_init(nullptr, 16, "authtest"), 0);
    }
    testutil::Instance inst;
};

std::string str(const char *s) { return s ? s : "<null>"; }

// The owner of user/<owner>[/...] keeps lookup, create and administer.
int owner_keeps(void *rock, const char *identifier, int mask) {
    const char *name = static_cast<const char *>(rock);
    size_t n = strlen(identifier);
    if (strchr(identifier, '/') || strncmp(name + 5, identifier, n) != 0) return mask;
    return (name[5 + n] == '/' || name[5 + n] == '\0') ? (mask | ACL_OWNER) : mask;
}

}  // namespace

TEST_F(AuthTest, RightsLettersAndMasks) {
    // Unknown letters are ignored, and their order doesn't matter.
    const std::pair<const char *, int> cases[] = {
        {"l", 0x001},    {"c", 0x040},      {"a", 0x100}, {"lca", ACL_OWNER},
        {"all", ACL_ALL}, {"none", 0},      {"", 0},      {"lrswipcda", ACL_ALL},
        {"lxyz0r", ACL_LOOKUP | ACL_READ},  {"sl", ACL_LOOKUP | ACL_SEEN}};
    for (const auto &c : cases) EXPECT_EQ(acl_strtomask(c.first), c.second) << c.first;
    char buf[ACL_MAXRIGHTS];
    EXPECT_STREQ(acl_masktostr(ACL_ALL, buf), "lrswipcda");
    EXPECT_STREQ(acl_masktostr(0x141, buf), "lca");
    EXPECT_STREQ(acl_masktostr(0, buf), "");
    for (int m = 0; m <= ACL_ALL; m++) ASSERT_EQ(acl_strtomask(acl_masktostr(m, buf)), m) << m;
}

TEST_F(AuthTest, CanonicalIdentifiers) {
    std::string longest(AUTH_MAXIDENTIFIER - 1, 'a'), toolong = longest + "a";
    // The default domain is dropped, another one lowered; null: refused.
    const std::pair<const char *, const char *> cases[] = {
        {"fred", "fred"}, {"Fred@example.com", "Fred"}, {"Fred@Other.ORG", "Fred@other.org"},
        {"anyone", "anyone"}, {longest.c_str(), longest.c_str()}, {toolong.c_str(), nullptr},
        {"", nullptr}, {"-fred", nullptr}, {"fr ed", nullptr}, {"fr\ted", nullptr},
        {"fr\xc3\xa9" "d", nullptr}, {"fred@", nullptr}, {"@x.org", nullptr}};
    char buf[AUTH_MAXIDENTIFIER];
    for (const auto &c : cases)
        EXPECT_EQ(str(auth_canonifyid(c.first, buf)), str(c.second)) << c.first;
}

TEST_F(AuthTest, StatesAdministratorsAndGroups) {
    const char *groups[] = {"group:staff", "bad id", "anyone", "group:staff", nullptr};
    auth_state *fred = auth_newstate("fred@EXAMPLE.com", groups, AUTH_ADMIN_NONE);
    ASSERT_NE(fred, nullptr);
    EXPECT_STREQ(auth_userid(fred), "fred");
    std::string g;  // invalid and repeated names are left out
    for (const char *const *p = auth_getgroups(fred); *p; p++) g += std::string(*p) + ",";
    EXPECT_EQ(g, "fred,group:staff,anyone,");
    EXPECT_EQ(auth_newstate("bad id", nullptr, 0), nullptr);
    EXPECT_EQ(auth_newstate(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(auth_newstate("x", nullptr, 3), nullptr);

    auth_state *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
    auth_state *tenant = auth_newstate("boss@other.org", nullptr, AUTH_ADMIN_TENANT);
    auth_state *local = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);
    // Without an owner: the level. With one: the site administers all, a
    // tenant its own domain; owning folders makes nobody an administrator.
    EXPECT_EQ(auth_adminFor(site, nullptr), AUTH_ADMIN_SITE);
    EXPECT_EQ(auth_adminFor(auth_dontCheckAcl, nullptr), AUTH_ADMIN_SITE);
    EXPECT_EQ(auth_adminFor(tenant, nullptr), AUTH_ADMIN_TENANT);
    EXPECT_EQ(auth_adminFor(fred, nullptr), 0);
    const struct {
        const auth_state *who;
        const char *owner;
        bool admin;
    } cases[] = {{site, "anybody@other.org", true}, {tenant, "joe@OTHER.org", true},
                 {tenant, "joe", false},            {local, "joe", true},
                 {local, "joe@example.com", true},  {local, "joe@other.org", false},
                 {fred, "fred", false},             {nullptr, "fred", false}};
    for (const auto &c : cases)
        EXPECT_EQ(auth_adminFor(c.who, c.owner) != 0, c.admin) << str(auth_userid(c.who)) << c.owner;
    EXPECT_TRUE(auth_isSiteorTenantAdmin(site) && auth_isSiteorTenantAdmin(tenant));
    EXPECT_FALSE(auth_isSiteorTenantAdmin(fred) || auth_isSiteorTenantAdmin(nullptr));

    for (auth_state *a : {fred, site, tenant, local, auth_dontCheckAcl, (auth_state *)nullptr})
        auth_freestate(a);
    EXPECT_EQ(acl_myrights(auth_dontCheckAcl, "x\tl\t"), ACL_ALL);  // the sentinel stays
}

TEST_F(AuthTest, MyRightsAndSharing) {
    const char *groups[] = {"group:staff", nullptr};
    auth_state *fred = auth_newstate("fred", groups, AUTH_ADMIN_NONE);
    auth_state *bob = auth_newstate("bob@other.org", nullptr, AUTH_ADMIN_NONE);
    auth_state *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
    auth_state *tenant = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);
    const char *acl = "anyone\tl\tgroup:staff\trs\tfred@Example.com\tiw\tbob@OTHER.ORG\tc\t";
    const struct {
        const auth_state *who;
        const char *acl, *rights;
    } cases[] = {
        {fred, acl, "lrsiw"}, {bob, acl, "lc"}, {site, acl, "lrswipcda"},
        {nullptr, acl, "l"}, {tenant, acl, "l"},  // anyone's; a tenant gets what the ACL says
        {fred, nullptr, ""}, {fred, "", ""},
        // Negative entries take away, whatever their place.
        {fred, "-group:staff\tsl\tfred\tlrs\t", "r"}, {fred, "fred\tlrs\t-anyone\tr\t", "ls"},
        {bob, "fred\tlrs\t-fred\tlrs\t", ""},
        // An entry without its TAB ends the walk, a missing last TAB doesn't;
        // invalid identifiers are passed over.
        {fred, "fred\tl\tfred", "l"}, {fred, "fred\tlr", "lr"},
        {fred, "bad id\tlrswipcda\tfred\tl\t", "l"}};
    for (const auto &c : cases)
        EXPECT_EQ(acl_myrights(c.who, c.acl), acl_strtomask(c.rights))
            << str(auth_userid(c.who)) << " in " << str(c.acl);
    for (auth_state *a : {fred, bob, site, tenant}) auth_freestate(a);

    // Shared: somebody other than the owner may look the folder up.
    const struct {
        const char *acl, *owner;
        bool shared;
    } shares[] = {{"fred\tlrswipcda\t", "fred", false},
                  {"fred@example.com\tlrswipcda\t", "fred", false},
                  {"fred\tlrswipcda\tanyone\tlrs\t", "fred", true},
                  {"fred\tlrswipcda\tbob\tl\t", "fred", true},
                  {"fred\tlrswipcda\tbob\trs\t", "fred", false},   // no lookup
                  {"fred\tlrswipcda\t-bob\tl\t", "fred", false},  // negative
                  {"fred\tlrswipcda\tbob", "fred", false},        // cut entry
                  {"fred\tl\t", nullptr, true},                   // no owner
                  {"", "fred", false}, {nullptr, "fred", false}};
    for (const auto &c : shares) EXPECT_EQ(acl_isshared(c.acl, c.owner) != 0, c.shared) << str(c.acl);
}

TEST_F(AuthTest, AclEditsKeepTheOwnersRights) {
    const struct {
        const char *start, *id;
        int mode, mask;
        const char *want;  // null: refused, nothing changes
    } cases[] = {
        // Replace, add, take away; a new entry goes to the end, a known one
        // keeps its place, one left without rights goes.
        {nullptr, "fred", ACL_MODE_SET, ACL_ALL, "fred\tlrswipcda\t"},
        {"anyone\tlrs\t", "bob", ACL_MODE_SET, ACL_LOOKUP | ACL_READ, "anyone\tlrs\tbob\tlr\t"},
        {"anyone\tlrs\tbob\tlr\t", "anyone", ACL_MODE_SET, ACL_LOOKUP, "anyone\tl\tbob\tlr\t"},
        {"a\tl\tbob\tlr\tc\tl\t", "bob", ACL_MODE_ADD, ACL_READ | ACL_WRITE, "a\tl\tbob\tlrw\tc\tl\t"},
        {"a\tl\tbob\tlrw\tc\tl\t", "bob", ACL_MODE_REMOVE, ACL_READ | ACL_WRITE, "a\tl\tbob\tl\tc\tl\t"},
        {"a\tl\tbob\tl\t", "bob", ACL_MODE_REMOVE, ACL_LOOKUP, "a\tl\t"},
        {"a\tl\t", "bob", ACL_MODE_SET, 0, "a\tl\t"},
        {"a\tl\t", "b", ACL_MODE_SET, ACL_LOOKUP, "a\tl\tb\tl\t"},
        // Identifiers are matched in canonical form and written so; two
        // entries of one become one; negative entries are entries of their own.
        {"Fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ, "Fred@EXAMPLE.com\tl\tfred\tr\t"},
        {"fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ, "fred\tlr\t"},
        {"x\tl\t", "joe@OTHER.org", ACL_MODE_SET, ACL_LOOKUP, "x\tl\tjoe@other.org\tl\t"},
        {"fred\tl\tx\tl\tfred\tr\t", "fred", ACL_MODE_ADD, ACL_SEEN, "fred\tlrs\tx\tl\t"},
        {"fred\tlr\t", "-fred", ACL_MODE_SET, ACL_READ, "fred\tlr\t-fred\tr\t"},
        {"fred\tlr\t-fred\tr\t", "-fred", ACL_MODE_REMOVE, ACL_READ, "fred\tlr\t"},
        {"a\tl\t", "bad id", ACL_MODE_SET, ACL_ALL, nullptr},
        {"a\tl\t", "--x", ACL_MODE_SET, ACL_ALL, nullptr},
        {"a\tl\t", "b", 3, ACL_ALL, nullptr}};
    for (const auto &c : cases) {
        char *acl = c.start ? strdup(c.start) : nullptr;
        EXPECT_EQ(acl_modify(&acl, c.id, c.mode, c.mask, nullptr, nullptr) == 0, c.want != nullptr)
            << c.id << " on " << str(c.start);
        EXPECT_EQ(testutil::take(acl), c.want ? c.want : c.start) << c.id << " on " << str(c.start);
    }
    char *acl = strdup("anyone\tlrs\tbob\tlr\tfred\tlrswipcda\t");
    EXPECT_EQ(acl_remove(&acl, "bob", nullptr, nullptr), 0);
    EXPECT_EQ(acl_remove(&acl, "nobody", nullptr, nullptr), 0);
    EXPECT_NE(acl_remove(&acl, "", nullptr, nullptr), 0);
    EXPECT_STREQ(acl, "anyone\tlrs\tfred\tlrswipcda\t");

    // Through the callback the owner keeps lookup, create and administer,
    // whether removed or lowered, named in canonical form or not; others
    // (fred isn't the owner of fred2's folders) are not protected.
    char name[] = "user/fred/x", other[] = "user/fred2/x";
    free(acl);
    acl = strdup("fred\tlrswipcda\tbob\tl\t");
    ASSERT_EQ(acl_remove(&acl, "fred", owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlca\tbob\tl\t");
    ASSERT_EQ(acl_modify(&acl, "fred", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\tbob\tl\t");
    ASSERT_EQ(acl_remove(&acl, "bob", owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\t");
    ASSERT_EQ(acl_remove(&acl, "fred", owner_keeps, other), 0);
    EXPECT_STREQ(acl, "");
    ASSERT_EQ(acl_modify(&acl, "fred@example.com", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\t");
    free(acl);
}

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

std::string edit(const char *start, const char *id, int mode, int mask,
                 acl_canonproc_t *proc = nullptr, void *rock = nullptr, int *result = nullptr) {
    char *acl = start ? strdup(start) : nullptr;
    int r = acl_modify(&acl, id, mode, mask, proc, rock);
    if (result) *result = r;
    std::string s = acl ? acl : "<null>";
    free(acl);
    return s;
}

// The owner of user/<owner>[/...] keeps lookup, create and administer.
int owner_keeps(void *rock, const char *identifier, int mask) {
    const char *name = static_cast<const char *>(rock);
    size_t n = strlen(identifier);
    if (strchr(identifier, '/') || strncmp(name + 5, identifier, n) != 0) return mask;
    char next = name[5 + n];
    return (next == '/' || next == '\0') ? (mask | ACL_OWNER) : mask;
}

}  // namespace

TEST_F(AuthTest, RightsLettersAndMasks) {
    EXPECT_EQ(acl_strtomask("l"), 0x001);
    EXPECT_EQ(acl_strtomask("c"), 0x040);
    EXPECT_EQ(acl_strtomask("a"), 0x100);
    EXPECT_EQ(acl_strtomask("lca"), ACL_OWNER);
    EXPECT_EQ(acl_strtomask("lrswipcda"), ACL_ALL);
    EXPECT_EQ(acl_strtomask("all"), ACL_ALL);
    EXPECT_EQ(acl_strtomask("none"), 0);
    EXPECT_EQ(acl_strtomask(""), 0);
    EXPECT_EQ(acl_strtomask("lxyz0r"), ACL_LOOKUP | ACL_READ);  // unknown letters ignored
    EXPECT_EQ(acl_strtomask("sl"), ACL_LOOKUP | ACL_SEEN);       // order doesn't matter
    char buf[ACL_MAXRIGHTS];
    EXPECT_STREQ(acl_masktostr(ACL_ALL, buf), "lrswipcda");
    EXPECT_STREQ(acl_masktostr(0x141, buf), "lca");
    EXPECT_STREQ(acl_masktostr(0, buf), "");
    for (int m = 0; m <= ACL_ALL; m++) ASSERT_EQ(acl_strtomask(acl_masktostr(m, buf)), m) << m;
}

TEST_F(AuthTest, CanonicalIdentifiers) {
    char buf[AUTH_MAXIDENTIFIER];
    EXPECT_STREQ(auth_canonifyid("fred", buf), "fred");
    EXPECT_STREQ(auth_canonifyid("Fred@example.com", buf), "Fred");  // default domain dropped
    EXPECT_STREQ(auth_canonifyid("Fred@Other.ORG", buf), "Fred@other.org");
    EXPECT_STREQ(auth_canonifyid("anyone", buf), "anyone");
    EXPECT_EQ(auth_canonifyid("", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("-fred", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("fr ed", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("fr\ted", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("fr\xc3\xa9" "d", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("fred@", buf), nullptr);
    EXPECT_EQ(auth_canonifyid("@x.org", buf), nullptr);
    std::string longest(AUTH_MAXIDENTIFIER - 1, 'a');
    EXPECT_STREQ(auth_canonifyid(longest.c_str(), buf), longest.c_str());
    EXPECT_EQ(auth_canonifyid((longest + "a").c_str(), buf), nullptr);
}

TEST_F(AuthTest, StatesAdministratorsAndGroups) {
    const char *groups[] = {"group:staff", "bad id", "anyone", "group:staff", nullptr};
    auth_state *fred = auth_newstate("fred@EXAMPLE.com", groups, AUTH_ADMIN_NONE);
    ASSERT_NE(fred, nullptr);
    EXPECT_STREQ(auth_userid(fred), "fred");
    const char *const *g = auth_getgroups(fred);
    ASSERT_NE(g[0], nullptr);
    EXPECT_STREQ(g[0], "fred");
    ASSERT_NE(g[1], nullptr);
    EXPECT_STREQ(g[1], "group:staff");
    ASSERT_NE(g[2], nullptr);
    EXPECT_STREQ(g[2], "anyone");
    EXPECT_EQ(g[3], nullptr);  // invalid and repeated names are left out

    auth_state *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
    auth_state *tenant = auth_newstate("boss@other.org", nullptr, AUTH_ADMIN_TENANT);
    auth_state *localtenant = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);
    EXPECT_EQ(auth_newstate("bad id", nullptr, 0), nullptr);
    EXPECT_EQ(auth_newstate(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(auth_newstate("x", nullptr, 3), nullptr);

    // Without an owner: the level; above 1 only for the site.
    EXPECT_EQ(auth_adminFor(site, nullptr), AUTH_ADMIN_SITE);
    EXPECT_EQ(auth_adminFor(tenant, nullptr), AUTH_ADMIN_TENANT);
    EXPECT_EQ(auth_adminFor(fred, nullptr), 0);
    EXPECT_EQ(auth_adminFor(auth_dontCheckAcl, nullptr), AUTH_ADMIN_SITE);
    // With an owner: the site administers all, a tenant its own domain.
    EXPECT_NE(auth_adminFor(site, "anybody@other.org"), 0);
    EXPECT_NE(auth_adminFor(tenant, "joe@OTHER.org"), 0);
    EXPECT_EQ(auth_adminFor(tenant, "joe"), 0);
    EXPECT_NE(auth_adminFor(localtenant, "joe"), 0);
    EXPECT_NE(auth_adminFor(localtenant, "joe@example.com"), 0);
    EXPECT_EQ(auth_adminFor(localtenant, "joe@other.org"), 0);
    // Owning folders doesn't make a user their administrator.
    EXPECT_EQ(auth_adminFor(fred, "fred"), 0);
    EXPECT_EQ(auth_adminFor(nullptr, "fred"), 0);

    EXPECT_TRUE(auth_isSiteorTenantAdmin(site));
    EXPECT_TRUE(auth_isSiteorTenantAdmin(tenant));
    EXPECT_FALSE(auth_isSiteorTenantAdmin(fred));
    EXPECT_FALSE(auth_isSiteorTenantAdmin(nullptr));

    auth_freestate(fred);
    auth_freestate(site);
    auth_freestate(tenant);
    auth_freestate(localtenant);
    auth_freestate(auth_dontCheckAcl);  // the sentinel stays
    auth_freestate(nullptr);
    EXPECT_EQ(acl_myrights(auth_dontCheckAcl, "x\tl\t"), ACL_ALL);
}

TEST_F(AuthTest, MyRights) {
    const char *groups[] = {"group:staff", nullptr};
    auth_state *fred = auth_newstate("fred", groups, AUTH_ADMIN_NONE);
    auth_state *bob = auth_newstate("bob@other.org", nullptr, AUTH_ADMIN_NONE);
    auth_state *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
    auth_state *tenant = auth_newstate("boss", nullptr, AUTH_ADMIN_TENANT);

    const char *acl = "anyone\tl\tgroup:staff\trs\tfred@Example.com\tiw\tbob@OTHER.ORG\tc\t";
    EXPECT_EQ(acl_myrights(fred, acl), acl_strtomask("lrsiw"));
    EXPECT_EQ(acl_myrights(bob, acl), acl_strtomask("lc"));
    EXPECT_EQ(acl_myrights(nullptr, acl), ACL_LOOKUP);  // anyone only
    EXPECT_EQ(acl_myrights(tenant, acl), ACL_LOOKUP);   // a tenant gets what the ACL says
    EXPECT_EQ(acl_myrights(site, acl), ACL_ALL);
    EXPECT_EQ(acl_myrights(fred, nullptr), 0);
    EXPECT_EQ(acl_myrights(fred, ""), 0);

    // Negative entries take away, whatever their place.
    EXPECT_EQ(acl_myrights(fred, "-group:staff\tsl\tfred\tlrs\t"), ACL_READ);
    EXPECT_EQ(acl_myrights(fred, "fred\tlrs\t-anyone\tr\t"), ACL_LOOKUP | ACL_SEEN);
    EXPECT_EQ(acl_myrights(bob, "fred\tlrs\t-fred\tlrs\t"), 0);

    // An entry without its TAB ends the walk; a missing last TAB doesn't.
    EXPECT_EQ(acl_myrights(fred, "fred\tl\tfred"), ACL_LOOKUP);
    EXPECT_EQ(acl_myrights(fred, "fred\tlr"), ACL_LOOKUP | ACL_READ);
    // Invalid identifiers in the text are passed over.
    EXPECT_EQ(acl_myrights(fred, "bad id\tlrswipcda\tfred\tl\t"), ACL_LOOKUP);

    auth_freestate(fred);
    auth_freestate(bob);
    auth_freestate(site);
    auth_freestate(tenant);
}

TEST_F(AuthTest, ModifyAndRemove) {
    int r = -5;
    // Modes: replace, add, take away; a new entry goes to the end.
    EXPECT_EQ(edit(nullptr, "fred", ACL_MODE_SET, ACL_ALL), "fred\tlrswipcda\t");
    EXPECT_EQ(edit("anyone\tlrs\t", "bob", ACL_MODE_SET, acl_strtomask("lr")),
              "anyone\tlrs\tbob\tlr\t");
    EXPECT_EQ(edit("anyone\tlrs\tbob\tlr\t", "anyone", ACL_MODE_SET, ACL_LOOKUP),
              "anyone\tl\tbob\tlr\t");  // keeps its place
    EXPECT_EQ(edit("a\tl\tbob\tlr\tc\tl\t", "bob", ACL_MODE_ADD, acl_strtomask("rw")),
              "a\tl\tbob\tlrw\tc\tl\t");
    EXPECT_EQ(edit("a\tl\tbob\tlrw\tc\tl\t", "bob", ACL_MODE_REMOVE, acl_strtomask("rwx")),
              "a\tl\tbob\tl\tc\tl\t");
    // An entry left with no rights goes.
    EXPECT_EQ(edit("a\tl\tbob\tl\t", "bob", ACL_MODE_REMOVE, ACL_LOOKUP), "a\tl\t");
    EXPECT_EQ(edit("a\tl\t", "bob", ACL_MODE_SET, 0), "a\tl\t");
    // The identifier is matched in canonical form and written so.
    EXPECT_EQ(edit("Fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ), "Fred@EXAMPLE.com\tl\tfred\tr\t");
    EXPECT_EQ(edit("fred@EXAMPLE.com\tl\t", "fred", ACL_MODE_ADD, ACL_READ), "fred\tlr\t");
    EXPECT_EQ(edit("x\tl\t", "joe@OTHER.org", ACL_MODE_SET, ACL_LOOKUP), "x\tl\tjoe@other.org\tl\t");
    // Two entries of one identifier become one.
    EXPECT_EQ(edit("fred\tl\tx\tl\tfred\tr\t", "fred", ACL_MODE_ADD, ACL_SEEN), "fred\tlrs\tx\tl\t");
    // Negative entries are entries of their own.
    EXPECT_EQ(edit("fred\tlr\t", "-fred", ACL_MODE_SET, ACL_READ), "fred\tlr\t-fred\tr\t");
    EXPECT_EQ(edit("fred\tlr\t-fred\tr\t", "-fred", ACL_MODE_REMOVE, ACL_READ), "fred\tlr\t");
    // A refused identifier or mode changes nothing.
    EXPECT_EQ(edit("a\tl\t", "bad id", ACL_MODE_SET, ACL_ALL, nullptr, nullptr, &r), "a\tl\t");
    EXPECT_NE(r, 0);
    EXPECT_EQ(edit("a\tl\t", "--x", ACL_MODE_SET, ACL_ALL, nullptr, nullptr, &r), "a\tl\t");
    EXPECT_NE(r, 0);
    EXPECT_EQ(edit("a\tl\t", "b", 3, ACL_ALL, nullptr, nullptr, &r), "a\tl\t");
    EXPECT_NE(r, 0);
    EXPECT_EQ(edit("a\tl\t", "b", ACL_MODE_SET, ACL_LOOKUP, nullptr, nullptr, &r), "a\tl\tb\tl\t");
    EXPECT_EQ(r, 0);

    // acl_remove
    char *acl = strdup("anyone\tlrs\tbob\tlr\tfred\tlrswipcda\t");
    EXPECT_EQ(acl_remove(&acl, "bob", nullptr, nullptr), 0);
    EXPECT_STREQ(acl, "anyone\tlrs\tfred\tlrswipcda\t");
    EXPECT_EQ(acl_remove(&acl, "nobody", nullptr, nullptr), 0);
    EXPECT_STREQ(acl, "anyone\tlrs\tfred\tlrswipcda\t");
    EXPECT_NE(acl_remove(&acl, "", nullptr, nullptr), 0);
    EXPECT_STREQ(acl, "anyone\tlrs\tfred\tlrswipcda\t");
    free(acl);
}

TEST_F(AuthTest, OwnerRightsSurviveThroughTheCallback) {
    char name[] = "user/fred/x";
    char other[] = "user/fred2/x";
    // Removing the owner leaves lookup, create and administer.
    char *acl = strdup("fred\tlrswipcda\tbob\tl\t");
    ASSERT_EQ(acl_remove(&acl, "fred", owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlca\tbob\tl\t");
    // Taking rights away can't go below them either.
    ASSERT_EQ(acl_modify(&acl, "fred", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_EQ(acl_myrights(nullptr, acl), 0);
    EXPECT_EQ(std::string(acl), "fred\tlrca\tbob\tl\t");
    // Other identifiers are not protected; fred isn't the owner of fred2's.
    ASSERT_EQ(acl_remove(&acl, "bob", owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\t");
    ASSERT_EQ(acl_remove(&acl, "fred", owner_keeps, other), 0);
    EXPECT_STREQ(acl, "");
    free(acl);
    // The callback gets the canonical identifier.
    acl = strdup("");
    ASSERT_EQ(acl_modify(&acl, "fred@example.com", ACL_MODE_SET, ACL_READ, owner_keeps, name), 0);
    EXPECT_STREQ(acl, "fred\tlrca\t");
    free(acl);
}

TEST_F(AuthTest, SharedFolders) {
    EXPECT_FALSE(acl_isshared("fred\tlrswipcda\t", "fred"));
    EXPECT_FALSE(acl_isshared("fred@example.com\tlrswipcda\t", "fred"));
    EXPECT_TRUE(acl_isshared("fred\tlrswipcda\tanyone\tlrs\t", "fred"));
    EXPECT_TRUE(acl_isshared("fred\tlrswipcda\tbob\tl\t", "fred"));
    EXPECT_FALSE(acl_isshared("fred\tlrswipcda\tbob\trs\t", "fred"));   // no lookup
    EXPECT_FALSE(acl_isshared("fred\tlrswipcda\t-bob\tl\t", "fred"));  // negative
    EXPECT_FALSE(acl_isshared("fred\tlrswipcda\tbob", "fred"));        // cut entry
    EXPECT_TRUE(acl_isshared("fred\tl\t", nullptr));                   // no owner
    EXPECT_FALSE(acl_isshared("", "fred"));
    EXPECT_FALSE(acl_isshared(nullptr, "fred"));
}

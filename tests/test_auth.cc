// Identity and rights: auth states, identifiers, rights masks and ACL edits.
#include "tests/testutil.h"

namespace {

using namespace testutil;

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
        {"a\tl\t", "bad id", ACL_MODE_SET, ACL_ALL, nullptr},
        {"a\tl\t", "--x", ACL_MODE_SET, ACL_ALL, nullptr},
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

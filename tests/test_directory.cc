// The directory pool and the domain map against a real slapd: reads and
// writes, refused and unreachable servers, a stalled and a restarted server,
// several threads on one pool, and both layouts of domain nodes.
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/domainmap.h"
#include "support/ldappool.h"
#include "tests/testslapd.h"

namespace {

using namespace testutil;

// Domain a.example (alias a-alias.example) keeps its users under
// ou=people; b.example has none there, so its node is their base, and
// b-alias.example is an alias node of the dc layout. cn=defaults holds the
// defaults of all domains.
const char *kTree = R"(dn: dc=example,o=store
objectClass: domain
dc: example

dn: dc=a,dc=example,o=store
objectClass: domain
objectClass: mailStoreDomain
dc: a
mailDomainName: a.example
mailDomainAlias: a-alias.example
mailDomainAlias: a-other.example
mailDomainBaseDN: ou=people,dc=a,dc=example,o=store
preferredLanguage: de
mailDomainWelcomeMessage: Hello
mailDomainWelcomeMessage;lang-de: Hallo

dn: ou=people,dc=a,dc=example,o=store
objectClass: organizationalUnit
ou: people

dn: uid=fred,ou=people,dc=a,dc=example,o=store
objectClass: inetOrgPerson
objectClass: mailStoreUser
uid: fred
cn: Fred
sn: Fred
mailhost: mail1.a.example
mailhost: mail2.a.example
mailquota: 10M
mailuserstatus: active

dn: uid=wilma,ou=people,dc=a,dc=example,o=store
objectClass: inetOrgPerson
uid: wilma
cn: Wilma
sn: Wilma

dn: dc=b,dc=example,o=store
objectClass: domain
objectClass: mailStoreDomain
dc: b
mailDomainName: b.example

dn: dc=b-alias,dc=example,o=store
objectClass: domain
objectClass: mailStoreDomain
dc: b-alias
mailDomainName: b-alias.example
mailDomainCanonicalName: b.example

dn: cn=defaults,o=store
objectClass: organizationalRole
objectClass: mailStoreDomain
cn: defaults
mailDomainName: defaults.invalid
preferredLanguage: fr
domainUidSeparator: _
)";

LdPoolCtx *open_pool(const Slapd &s, int maxconns = 4, int timeout = 2, const char *cred = Slapd::kRootPW,
                     int *rc = nullptr) {
    LdPoolCtx *pool = nullptr;
    int r = LdPoolCtx_New(Slapd::kRootDN, cred, "127.0.0.1", Slapd::kSuffix, nullptr, s.port(), 1,
                          maxconns, -1, -1, timeout, 3, 3, 0, &pool);
    if (rc) *rc = r;
    return pool;
}

// The values of attr of the single entry that filter finds under the
// pool's base, joined by "|"; "<rc N>" or "<N entries>" otherwise.
std::string lookup(LdPoolCtx *pool, const char *filter, const char *attr) {
    LDAPMessage *res = nullptr, *entry = nullptr;
    int rc = LdPool_Search_S(pool, nullptr, LDAP_SCOPE_SUBTREE, filter, nullptr, 0, &res);
    if (rc != 0) return "<rc " + std::to_string(rc) + ">";
    int count = -1;
    LdPool_Count_Entries(res, &count);
    std::string out = "<" + std::to_string(count) + " entries>";
    char **values = nullptr;
    if (count == 1 && LdPool_First_Entry(res, &entry) == 0 && LdPool_Get_Values(entry, attr, &values) == 0) {
        out.clear();
        for (char **v = values; *v; v++) out += (out.empty() ? "" : "|") + std::string(*v);
        ldap_value_free(values);
    }
    ldap_msgfree(res);
    return out;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Sockets that this process holds open.
int open_sockets() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    for (struct dirent *e; d && (e = readdir(d));) {
        char link[64] = "";
        std::string path = std::string("/proc/self/fd/") + e->d_name;
        if (readlink(path.c_str(), link, sizeof link - 1) > 0 && strncmp(link, "socket:", 7) == 0) n++;
    }
    if (d) closedir(d);
    return n;
}

}  // namespace

TEST(DirectoryPool, ReadsAndWritesEntries) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    LdPoolCtx *pool = open_pool(slapd);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ("mail1.a.example|mail2.a.example", lookup(pool, "(uid=fred)", "mailhost"));
    EXPECT_EQ("<0 entries>", lookup(pool, "(uid=nobody)", "mailhost"));
    EXPECT_EQ("<2 entries>", lookup(pool, "(objectClass=inetOrgPerson)", "uid"));
    EXPECT_EQ("<rc " + std::to_string(LDAP_FILTER_ERROR) + ">", lookup(pool, "(uid=fred", "uid"));

    LDAPMessage *res = nullptr, *entry = nullptr;
    char **values = nullptr;
    char *dn = nullptr;
    ASSERT_EQ(0, LdPool_Search_S(pool, "uid=wilma,ou=people,dc=a,dc=example,o=store", LDAP_SCOPE_BASE,
                                 nullptr, nullptr, 0, &res));
    ASSERT_EQ(0, LdPool_First_Entry(res, &entry));
    EXPECT_EQ(LDAP_NO_RESULTS_RETURNED, LdPool_Next_Entry(entry, &entry));
    ASSERT_EQ(0, LdPool_First_Entry(res, &entry));
    ASSERT_EQ(0, LdPool_Get_DN(entry, &dn));
    EXPECT_STREQ("uid=wilma,ou=people,dc=a,dc=example,o=store", dn);
    ldap_memfree(dn);
    EXPECT_EQ(LDAP_NO_SUCH_ATTRIBUTE, LdPool_Get_Values(entry, "mailhost", &values));
    EXPECT_EQ(nullptr, values);
    ldap_msgfree(res);
    EXPECT_EQ(LDAP_NO_SUCH_OBJECT,
              LdPool_Search_S(pool, "ou=none,o=store", LDAP_SCOPE_SUBTREE, nullptr, nullptr, 0, &res));
    EXPECT_EQ(nullptr, res);
    EXPECT_EQ(LDAP_NO_RESULTS_RETURNED, LdPool_First_Entry(nullptr, &entry));

    // The one write of the store: replacing a user's status.
    char status[] = "overquota", attr[] = "mailuserstatus", bogus[] = "noSuchAttribute";
    char *vals[] = {status, nullptr};
    LDAPMod mod = {LDAP_MOD_REPLACE, attr, {vals}};
    LDAPMod *mods[] = {&mod, nullptr};
    EXPECT_EQ(0, LdPool_Modify_S(pool, "uid=fred,ou=people,dc=a,dc=example,o=store", mods));
    EXPECT_EQ("overquota", lookup(pool, "(uid=fred)", "mailuserstatus"));
    mod.mod_type = bogus;
    EXPECT_EQ(LDAP_UNDEFINED_TYPE, LdPool_Modify_S(pool, "uid=fred,ou=people,dc=a,dc=example,o=store", mods));
    mod.mod_type = attr;
    EXPECT_EQ(LDAP_NO_SUCH_OBJECT, LdPool_Modify_S(pool, "uid=nobody,o=store", mods));
    LdPoolCtx_Delete(pool);
}

// A pool that can't bind is not made, and says why.
TEST(DirectoryPool, CreationFailsOnBadCredentialsOrNoServer) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    int rc = 0;
    EXPECT_EQ(nullptr, open_pool(slapd, 4, 2, "wrong", &rc));
    EXPECT_EQ(LDAP_INVALID_CREDENTIALS, rc);
    LdPoolCtx *anon = nullptr;
    ASSERT_EQ(0, LdPoolCtx_New(nullptr, nullptr, "127.0.0.1", Slapd::kSuffix, nullptr, slapd.port(), 1, 2, -1,
                               -1, 2, 3, 3, 0, &anon));
    EXPECT_EQ("Fred", lookup(anon, "(uid=fred)", "cn"));
    LdPoolCtx_Delete(anon);
    EXPECT_EQ(LDAP_PARAM_ERROR, LdPoolCtx_New(nullptr, nullptr, nullptr, nullptr, nullptr, 389, 1, 2, -1, -1, 2, 3,
                                              3, 0, &anon));
    slapd.stop();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, open_pool(slapd, 4, 2, Slapd::kRootPW, &rc));
    EXPECT_EQ(LDAP_SERVER_DOWN, rc);
    EXPECT_LT(seconds_since(t0), 1.0);
}

// With a certificate directory the pool speaks ldaps and trusts only the
// CAs found there.
TEST(DirectoryPool, LdapsChecksTheServerCertificate) {
    Slapd slapd(kTree, true);
    ASSERT_TRUE(slapd.ok());
    TempDir strangers;
    for (std::string certdir : {slapd.caDir(), strangers.path()}) {
        LdPoolCtx *pool = nullptr;
        int rc = LdPoolCtx_New(Slapd::kRootDN, Slapd::kRootPW, "127.0.0.1", Slapd::kSuffix, certdir.c_str(),
                               slapd.port(), 1, 2, -1, -1, 2, 3, 3, 0, &pool);
        EXPECT_EQ(certdir == slapd.caDir() ? 0 : LDAP_SERVER_DOWN, rc) << certdir;
        if (pool) { EXPECT_EQ("Fred", lookup(pool, "(uid=fred)", "cn")); }
        LdPoolCtx_Delete(pool);
    }
}

// A stopped server accepts connections and never answers: every step gives
// LDAP_TIMEOUT within the time-out (here local.ugldaptimeout, as the store
// passes -1), and the pool serves again once the server goes on.
TEST(DirectoryPool, StalledServerTimesOut) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    configmsg_reset();
    Instance inst("local.ugldaptimeout: 1\n");
    LdPoolCtx *pool = open_pool(slapd, 4, -1);
    ASSERT_NE(pool, nullptr);
    slapd.pause();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ("<rc " + std::to_string(LDAP_TIMEOUT) + ">", lookup(pool, "(uid=fred)", "uid"));
    double search_s = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    LdPoolCtx *second = nullptr;
    int rc = 0;
    second = open_pool(slapd, 4, -1, Slapd::kRootPW, &rc);
    double new_s = seconds_since(t0);
    EXPECT_EQ(nullptr, second);
    EXPECT_EQ(LDAP_TIMEOUT, rc);
    slapd.resume();
    EXPECT_EQ("Fred", lookup(pool, "(uid=fred)", "cn"));
    for (double s : {search_s, new_s}) {
        EXPECT_GE(s, 0.9);
        EXPECT_LT(s, 1.9);
    }
    LdPoolCtx_Delete(pool);
    configmsg_reset();
}

// Connections to a server that went away and came back are replaced by
// the pool itself; while it is away, operations fail at once.
TEST(DirectoryPool, RestartedServerIsUsedAgain) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    LdPoolCtx *pool = open_pool(slapd);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ("Fred", lookup(pool, "(uid=fred)", "cn"));
    slapd.stop();
    ASSERT_TRUE(slapd.start());
    EXPECT_EQ("Fred", lookup(pool, "(uid=fred)", "cn"));
    slapd.stop();
    EXPECT_EQ("<rc " + std::to_string(LDAP_SERVER_DOWN) + ">", lookup(pool, "(uid=fred)", "cn"));
    ASSERT_TRUE(slapd.start());
    EXPECT_EQ("Fred", lookup(pool, "(uid=fred)", "cn"));
    LdPoolCtx_Delete(pool);
}

// Threads share a pool of two connections: each search gets a connection
// of its own, and no more than two are ever open.
TEST(DirectoryPool, ThreadsShareBoundedConnections) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    int before = open_sockets();
    LdPoolCtx *pool = open_pool(slapd, 2);
    ASSERT_NE(pool, nullptr);
    std::atomic<int> wrong{0}, most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; t++)
        threads.emplace_back([&, t] {
            const char *uid = t % 2 ? "(uid=fred)" : "(uid=wilma)";
            for (int i = 0; i < 30; i++) {
                if (lookup(pool, uid, "cn") != (t % 2 ? "Fred" : "Wilma")) wrong++;
                int n = open_sockets() - before;
                for (int m = most; n > m && !most.compare_exchange_weak(m, n);) {
                }
            }
        });
    for (std::thread &th : threads) th.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_GE(most.load(), 1);
    EXPECT_LE(most.load(), 2);
    LdPoolCtx_Delete(pool);
}

namespace {

// A domain map over a pool of the server, with the parameters changed by fn.
struct Map : NoCopy {
    explicit Map(const Slapd &s, const std::function<void(dmap_params *)> &fn = nullptr) {
        pool = open_pool(s);
        dmap_params *p = dmap_initialize_parameters();
        p->pool = pool;
        dmap_set_parameter(&p->root, Slapd::kSuffix);
        if (fn) fn(p);
        map = dmap_initialize_domain_map(p, 0);
        dmap_free_parameters(p);
    }
    ~Map() {
        dmap_dispose_domain_map(map, 0);
        LdPoolCtx_Delete(pool);
    }
    // "canonical base" of the domain, or "<rc N>".
    std::string locate(const char *domain) const {
        dmap_domain *d = nullptr;
        int rc = dmap_locate_domain(map, domain, &d);
        if (rc != 0) return "<rc " + std::to_string(rc) + ">";
        std::string out = str(dmap_get_canonical_name(d)) + " " + str(dmap_get_base_dn(d, 0));
        dmap_release_domain(d, 0);
        return out;
    }
    // The values of attr (up to max) of the domain, joined by "|", or "<rc N>".
    std::string values(const char *domain, const char *attr, int max = 0) const {
        dmap_domain *d = nullptr;
        char **v = nullptr;
        int rc = dmap_locate_domain(map, domain, &d);
        if (rc == 0) rc = dmap_get_values(d, attr, &v, max, 0);
        dmap_release_domain(d, 0);
        if (rc != 0) return "<rc " + std::to_string(rc) + ">";
        std::string out;
        for (char **p = v; *p; p++) out += (out.empty() ? "" : "|") + std::string(*p);
        ldap_value_free(v);
        return out;
    }
    LdPoolCtx *pool = nullptr;
    domain_map *map = nullptr;
};

const std::string kNoSuchObject = "<rc " + std::to_string(LDAP_NO_SUCH_OBJECT) + ">";
const std::string kNoSuchAttr = "<rc " + std::to_string(LDAP_NO_SUCH_ATTRIBUTE) + ">";

}  // namespace

TEST(DomainMap, LocatesDomainsInBothLayouts) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    Map one(slapd), two(slapd, [](dmap_params *p) { p->schema_level = 2; });
    ASSERT_NE(one.map, nullptr);
    ASSERT_NE(two.map, nullptr);
    const std::string a = "a.example ou=people,dc=a,dc=example,o=store";
    const std::string b = "b.example dc=b,dc=example,o=store";
    struct { const char *domain; std::string schema1, schema2; } cases[] = {
        {"a.example", a, a},
        {"A.Example", a, a},
        {"a-alias.example", a, kNoSuchObject},  // schema 2 knows only alias nodes
        {"b.example", b, b},
        {"b-alias.example", "b-alias.example dc=b-alias,dc=example,o=store", b},
        {"example", kNoSuchObject, kNoSuchObject},  // a node, but not a domain's
        {"c.example", kNoSuchObject, kNoSuchObject},
        {"*", kNoSuchObject, kNoSuchObject},
        {"a.example)(mailDomainName=*", kNoSuchObject, kNoSuchObject},
        {"a..example", kNoSuchObject, kNoSuchObject},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.schema1, one.locate(c.domain)) << c.domain;
        EXPECT_EQ(c.schema2, two.locate(c.domain)) << c.domain;
    }
    EXPECT_EQ(nullptr, dmap_initialize_domain_map(nullptr, 0));
    slapd.stop();
    std::string dead = one.locate("a.example");
    EXPECT_NE(kNoSuchObject, dead);
    EXPECT_EQ(dead.substr(0, 4), "<rc ");
}

TEST(DomainMap, ReadsAttributesOptionsAndDefaults) {
    Slapd slapd(kTree);
    ASSERT_TRUE(slapd.ok());
    Map plain(slapd), defaults(slapd, [](dmap_params *p) {
        dmap_set_parameter(&p->global_config_templates, "cn=defaults,o=store");
    });
    struct { const char *domain, *attr; int max; std::string without, with; } cases[] = {
        {"a.example", "mailDomainWelcomeMessage", 0, "Hello", "Hello"},
        {"a.example", "MAILDOMAINWELCOMEMESSAGE;LANG-DE", 0, "Hallo", "Hallo"},
        {"a.example", "mailDomainWelcomeMessage;lang-fr", 0, kNoSuchAttr, kNoSuchAttr},
        {"a-alias.example", "mailDomainAlias", 0, "a-alias.example|a-other.example",
         "a-alias.example|a-other.example"},
        {"a.example", "mailDomainAlias", 1, "a-alias.example", "a-alias.example"},
        {"a.example", "preferredLanguage", 0, "de", "de"},
        {"b.example", "preferredLanguage", 0, kNoSuchAttr, "fr"},
        {"b.example", "domainUidSeparator", 0, kNoSuchAttr, "_"},
        {"nowhere.example", "preferredLanguage", 0, kNoSuchObject, kNoSuchObject},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.without, plain.values(c.domain, c.attr, c.max)) << c.domain << " " << c.attr;
        EXPECT_EQ(c.with, defaults.values(c.domain, c.attr, c.max)) << c.domain << " " << c.attr;
    }
    // A located domain is a snapshot: a later change of the node shows in
    // the next location only.
    dmap_domain *d = nullptr;
    ASSERT_EQ(0, dmap_locate_domain(plain.map, "b.example", &d));
    ASSERT_TRUE(slapd.modify("dn: dc=b,dc=example,o=store\nchangetype: modify\nadd: preferredLanguage\n"
                             "preferredLanguage: it\n"));
    char **v = nullptr;
    EXPECT_EQ(LDAP_NO_SUCH_ATTRIBUTE, dmap_get_values(d, "preferredLanguage", &v, 1, 0));
    dmap_release_domain(d, 0);
    EXPECT_EQ("it", plain.values("b.example", "preferredLanguage"));
}

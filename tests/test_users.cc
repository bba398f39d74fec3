// Users and their quota: usage that follows every delivery, expunge and
// delete, thresholds and the over-quota state, rebuilds of damaged rows;
// and, against a directory server of the test's own, provisioning of new
// users, mail host checks, welcome and warning messages, the directory
// status, and a directory that is down or stalled.
#include <random>

#include "store/append.h"
#include "store/autocreate.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_quota.h"
#include "tests/testslapd.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

quotadata row_of(const char *root) {
    quotadata q;
    EXPECT_EQ(mboxlist_getquotaroot(root, &q, nullptr), 0) << root;
    return q;
}

uint64_t used(const quotadata &q) { return ((uint64_t)q.used_high << 32) | q.used_low; }

// Delivers texts into name in one session: the result of the set-up.
int deliver_texts(const char *name, const std::vector<std::string> &texts, long quotasize = 0) {
    mailbox mb = zeromailbox;
    append_state as;
    as.mailbox = &mb;
    int r = append_setup(&as, name, 0, MAILBOX_VERSION, auth_dontCheckAcl, 0, quotasize);
    if (r) return r;
    for (const auto &t : texts) {
        appendmsg m = zeroappendmsg;
        m.flags = APPENDMSG_STATIC, m.base = t.data(), m.size = (unsigned)t.size();
        EXPECT_EQ(append_msg(&as, &m, 1000, nullptr, 0, "fred", 0, 0, 0, 0), 0);
    }
    append_finish(&as);
    mailbox_close(&mb);
    return 0;
}

// The sums over the folder rows of root: bytes and messages.
std::pair<uint64_t, uint32_t> folder_sums(const std::vector<std::string> &folders, const std::string &root) {
    uint64_t bytes = 0;
    uint32_t messages = 0;
    for (const auto &f : folders) {
        if (f != root && f.compare(0, root.size() + 1, root + "/") != 0) continue;
        mboxdata mbd;
        if (mboxlist_lookup(f.c_str(), &mbd, nullptr, nullptr, nullptr, nullptr) != 0) continue;
        bytes += ((uint64_t)mbd.quota_used[1] << 32) | mbd.quota_used[0];
        messages += mbd.exists;
    }
    return {bytes, messages};
}

int remove_every_other(void *, const index_record *rec) { return rec->uid % 2 == 0; }

class Quota : public StoreTest {};

// A random mix of deliveries, expunges, creates and deletes over two users:
// after each step every root's row counts what its folders' rows hold. Then
// rows damaged on purpose are rebuilt, and a hard limit refuses a delivery.
TEST_F(Quota, UsageFollowsEveryChange) {
    const std::vector<std::string> corpus = corpus_messages("list-archive.mbox");
    ASSERT_GT(corpus.size(), 20u);
    std::vector<std::string> folders = {"user/fred", "user/bob"};
    for (const auto &f : folders)
        ASSERT_EQ(mboxlist_createmailbox(f.c_str(), MAILBOX_VERSION, nullptr, nullptr, auth_dontCheckAcl,
                                         QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
    std::mt19937 rng(11);
    auto pick = [&](size_t n) { return (size_t)(rng() % n); };
    int created = 0;
    for (int step = 0; step < 60; step++) {
        const std::string f = folders[pick(folders.size())];
        switch (pick(5)) {
        case 0: case 1: {  // a delivery of a few messages
            std::vector<std::string> texts;
            for (size_t i = 0, n = 1 + pick(4); i < n; i++) texts.push_back(corpus[pick(corpus.size())]);
            ASSERT_EQ(deliver_texts(f.c_str(), texts), 0);
            break;
        }
        case 2: {  // an expunge of every other message
            mailbox mb = zeromailbox;
            ASSERT_EQ(mailbox_open(f.c_str(), 0, auth_dontCheckAcl, &mb), 0);
            ASSERT_EQ(mailbox_expunge(&mb, 0, 0, remove_every_other, nullptr), 0);
            mailbox_close(&mb);
            break;
        }
        case 3: {  // a new folder with a message
            std::string name = folders[pick(2)] + "/f" + std::to_string(created++);
            ASSERT_EQ(mboxlist_createmailbox(name.c_str(), MAILBOX_VERSION, nullptr, nullptr, auth_dontCheckAcl,
                                             QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
            ASSERT_EQ(deliver_texts(name.c_str(), {corpus[pick(corpus.size())]}), 0);
            folders.push_back(name);
            break;
        }
        default:  // a delete of a folder below a root, with its messages
            if (f.find('/', 5) == std::string::npos) break;
            ASSERT_EQ(mboxlist_deletemailbox(f.c_str(), nullptr, auth_dontCheckAcl), 0);
            folders.erase(std::find(folders.begin(), folders.end(), f));
        }
        for (const char *root : {"user/fred", "user/bob"}) {
            auto sums = folder_sums(folders, root);
            quotadata q = row_of(root);
            ASSERT_EQ(used(q), sums.first) << "step " << step << " " << root;
            ASSERT_EQ(q.used_messages, sums.second) << "step " << step << " " << root;
        }
    }
    auto sums = folder_sums(folders, "user/fred");
    ASSERT_GT(sums.second, 0u);

    // A damaged row is rebuilt from the folder rows; a second run has
    // nothing to do. New limits are taken, the keep value keeps them.
    quotadata q;
    ASSERT_EQ(mboxlist_changequota("user/fred", nullptr, 12345, 1, 7, 0, &q), 0);
    int changed = -1;
    ASSERT_EQ(mboxlist_fixquota("user/fred", &changed, QUOTA_KEEP, QUOTA_KEEP, 0), 0);
    EXPECT_EQ(changed, 1);
    q = row_of("user/fred");
    EXPECT_EQ(used(q), sums.first);
    EXPECT_EQ(q.used_messages, sums.second);
    ASSERT_EQ(mboxlist_fixquota("user/fred", &changed, QUOTA_KEEP, QUOTA_KEEP, 0), 0);
    EXPECT_EQ(changed, 0);
    ASSERT_EQ(mboxlist_fixquota("user/fred", &changed, 5000, QUOTA_KEEP, 0), 0);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(row_of("user/fred").limit, 5000u);
    EXPECT_EQ(row_of("user/fred").limit_messages, QUOTA_UNLIMITED);
    // A root whose quota row is gone gets one; a root without a folder row
    // has nothing to rebuild.
    DBT key;
    mboxlist_set_key("user/bob", &key);
    DB *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    ASSERT_EQ(quotas->del(quotas, nullptr, &key, 0), 0);
    ASSERT_EQ(mboxlist_fixquota("user/bob", &changed, QUOTA_KEEP, QUOTA_KEEP, 0), 0);
    q = row_of("user/bob");
    EXPECT_EQ(used(q), folder_sums(folders, "user/bob").first);
    EXPECT_EQ(q.limit_messages, 0xFFFFFFFEu);
    EXPECT_EQ(mboxlist_fixquota("user/nobody", &changed, QUOTA_KEEP, QUOTA_KEEP, 0), IMAP_MAILBOX_NONEXISTENT);

    // A delivery over the hard limit is refused and stores nothing.
    ASSERT_EQ(mboxlist_setquota("user/fred", (uint32_t)(sums.first >> 10), QUOTA_UNLIMITED), 0);
    mboxdata before, after;
    ASSERT_EQ(mboxlist_lookup("user/fred", &before, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(deliver_texts("user/fred", {corpus[0]}, (long)corpus[0].size()), IMAP_QUOTA_EXCEEDED);
    ASSERT_EQ(mboxlist_lookup("user/fred", &after, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(after.exists, before.exists);
    EXPECT_EQ(used(row_of("user/fred")), sums.first);
    EXPECT_NE(row_of("user/fred").over_since, 0u);  // the new limit put it over at once
}

// Thresholds: store.quotawarn percent of either limit, or the limit itself
// with the overdraft or directory status switch; crossings both ways.
TEST_F(Quota, Thresholds) {
    const struct {
        const char *config;
        uint32_t limit, limit_messages;
        uint64_t bytes;
        uint32_t messages;
        int over;
    } cases[] = {
        {"", 1000, QUOTA_UNLIMITED, 921600, 0, 1}, {"", 1000, QUOTA_UNLIMITED, 921599, 0, 0},
        {"", 0, QUOTA_UNLIMITED, 0, 0, 1},  // a zero limit is over at once
        {"", QUOTA_UNLIMITED, 10, 1ull << 40, 9, 1}, {"", QUOTA_UNLIMITED, 10, 1ull << 40, 8, 0},
        {"", QUOTA_UNLIMITED, 0xFFFFFFFE, 0, 4000000000u, 1}, {"", QUOTA_UNLIMITED, 0xFFFFFFFE, 0, 3000000000u, 0},
        {"", QUOTA_UNLIMITED, 200000000, 0, 170000000, 0},  // no 32-bit wrap of the percentage
        {"store.quotawarn: 50\n", 1000, QUOTA_UNLIMITED, 512000, 0, 1},
        {"store.quotawarn: 50\nlocal.store.overquotastatus: 1\n", 1000, QUOTA_UNLIMITED, 1023999, 0, 0},
        {"store.quotawarn: 50\nlocal.store.quotaoverdraft: 1\n", 1000, QUOTA_UNLIMITED, 1024000, 0, 1},
    };
    std::string config = "-";
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.config) + std::to_string(c.bytes) + " " + std::to_string(c.messages));
        if (c.config != config) restart(config = c.config);
        quotadata q = {};
        q.limit = c.limit, q.limit_messages = c.limit_messages, q.used_messages = c.messages;
        q.used_low = (uint32_t)c.bytes, q.used_high = (uint32_t)(c.bytes >> 32);
        EXPECT_EQ(mboxlist_setqwhen(&q), c.over);
        EXPECT_EQ(q.over_since != 0, c.over == 1);
        q.warned = 5;
        EXPECT_EQ(mboxlist_setqwhen(&q), 0);  // no second crossing
        if (!c.over) continue;
        q.limit = QUOTA_UNLIMITED, q.limit_messages = QUOTA_UNLIMITED;
        EXPECT_EQ(mboxlist_setqwhen(&q), -1);
        EXPECT_EQ(q.over_since | q.warned, 0u);
    }
    // The stored state follows a limit change both ways; a subtraction
    // beyond the usage stops at zero.
    ASSERT_EQ(mboxlist_createmailbox("user/ann", MAILBOX_VERSION, nullptr, nullptr, auth_dontCheckAcl, 1, 1, 0,
                                     nullptr), 0);
    quotadata q;
    ASSERT_EQ(mboxlist_changequota("user/ann/x", nullptr, 4096, 0, 2, 0, &q), 0);
    EXPECT_EQ(used(q), 4096u);
    ASSERT_EQ(mboxlist_setquota("user/ann", 100, 100), 0);
    EXPECT_EQ(row_of("user/ann").over_since, 0u);
    ASSERT_EQ(mboxlist_setquota("user/ann", 2, 100), 0);
    EXPECT_NE(row_of("user/ann").over_since, 0u);
    ASSERT_EQ(mboxlist_changequota("user/ann", nullptr, 9999, 0, 9, 1, &q), 0);
    EXPECT_EQ(used(q), 0u);
    EXPECT_EQ(q.used_messages, 0u);
    ASSERT_EQ(mboxlist_adjustquotastatus("user/ann/x", nullptr, nullptr, 0, nullptr), 0);
    EXPECT_EQ(row_of("user/ann").over_since, 0u);
    EXPECT_EQ(mboxlist_setquota("user/nobody", 1, 1), IMAP_QUOTAROOT_NONEXISTENT);
    EXPECT_EQ(mboxlist_setquota("nouser", 1, 1), IMAP_QUOTAROOT_NONEXISTENT);
    // lastuse: a changes always, b only upwards for the same a.
    for (auto ab : {std::pair<uint32_t, uint32_t>{3, 10}, {3, 5}, {4, 1}, {0, 99}})
        ASSERT_EQ(mboxlist_setlastuse("ann", ab.first, ab.second), 0);
    q = row_of("user/ann");
    EXPECT_EQ(q.lastuse_a, 4u);
    EXPECT_EQ(q.lastuse_b, 1u);
    EXPECT_GE(q.access_other, (uint32_t)time(nullptr) - 5);
}

// Quota texts of the directory, the names of this host, partition names
// from paths.
TEST_F(Quota, TextsHostsAndPaths) {
    restart("local.hostname: store1.a.example\nlocal.relay.hostnamealiases: mx.a.example,MX2\n"
            "store.defaultmailboxquota: 2M\n");
    const struct { const char *text; uint32_t kb; } quotas[] = {
        {"10M", 10240}, {"10mb", 10240}, {"10240K", 10240}, {" +5G", 5242880}, {"7kB", 7}, {"1000", 1}, {"0", 0},
        {"-1", QUOTA_UNLIMITED}, {"", 2048}, {nullptr, 2048}, {"-2", 2048}, {"4294967294", 2048},
        {"10 M", QUOTA_UNLIMITED}, {"1.5M", QUOTA_UNLIMITED}, {"3Mx", QUOTA_UNLIMITED}, {"M", QUOTA_UNLIMITED},
    };
    for (const auto &c : quotas) EXPECT_EQ(quota_to_kb(c.text), c.kb) << str(c.text);
    const struct { const char *a, *b; int result; } hosts[] = {
        {"MAIL1", "mail1.a.test", 0}, {"mail1.a.test", "mail1.b.test", IMAP_WRONG_MAILHOST},
        {"store1.a.example", "MX.A.EXAMPLE", 0}, {"mx2", "store1.a.example", 0},
        {"mx", "mx.a.example", 0},  // the short name of a local one
        {"localhost", "127.0.0.1", 0},  // neither local: the same address
        {"mx.a.example", "localhost", IMAP_WRONG_MAILHOST},  // one local, one not
        {"nothing.invalid", "localhost", IMAP_WRONG_MAILHOST},
    };
    for (const auto &c : hosts) EXPECT_EQ(compare_mailhosts(c.a, c.b), c.result) << c.a << " " << c.b;
    EXPECT_EQ(islocalhost("mx.a.example,MX2"), 0);
    using Path = std::pair<const char *, const char *>;
    for (auto p : {Path{"/var/store/Part_1/", "part1"}, Path{"Plain", "plain"}, Path{"/a/b", "b"}}) {
        char out[64];
        UPGetPNameFromPath(p.first, out);
        EXPECT_STREQ(out, p.second);
    }
}

}  // namespace

namespace {

// The directory of the tests: the domain a.example (alias alias.example,
// German, with welcome texts) whose users live below its node, and
// b.example, whose user ids carry the domain behind a separator.
const char *const kTree = R"(dn: dc=example,o=store
objectClass: domain
dc: example

dn: dc=a,dc=example,o=store
objectClass: domain
objectClass: mailStoreDomain
dc: a
mailDomainName: a.example
mailDomainAlias: alias.example
preferredLanguage: de
mailDomainWelcomeMessage: Subject: Welcome$$Hello [ID].
mailDomainWelcomeMessage;lang-de: Subject: Willkommen$$Hallo [ID], Gr\C3\BC\C3\9Fe.

dn: dc=b,dc=example,o=store
objectClass: domain
objectClass: mailStoreDomain
dc: b
mailDomainName: b.example
domainUidSeparator: _
)";

std::string user_entry(const std::string &uid, const std::string &domain_dn, const std::string &attrs) {
    return "\ndn: uid=" + uid + "," + domain_dn +
           "\nobjectClass: inetOrgPerson\nobjectClass: mailStoreUser\nuid: " + uid + "\ncn: " + uid +
           "\nsn: " + uid + "\n" + attrs;
}

const std::string kUsers =
    user_entry("fred", "dc=a,dc=example,o=store",
               "mail: fred@a.example\nmailhost: store1\nmailmessagestore: /srv/Second_Part/\nmailquota: 100K\n"
               "mailmsgquota: 30\nmailuserstatus: active\npreferredLanguage: DE\n") +
    user_entry("far", "dc=a,dc=example,o=store", "mailhost: elsewhere.invalid\nmailuserstatus: active\n") +
    user_entry("plain", "dc=a,dc=example,o=store", "mailhost: store1.a.example\n") +
    user_entry("bob_b.example", "dc=b,dc=example,o=store", "mailhost: store1.a.example\nmailquota: 2M\n");

const char *const kStoreConfig =
    "local.hostname: store1.a.example\nlocal.relay.hostnamealiases: mx.a.example\n"
    "service.defaultdomain: a.example\n"
    "store.partition.secondpart.path: %s/partitions/secondpart\nstore.defaultmailboxquota: 5M\n";

std::string store_config(const Slapd &ldap, const std::string &dir) {
    char buf[1024];
    snprintf(buf, sizeof(buf), kStoreConfig, dir.c_str());
    return ldap.storeConfig() + buf;
}

void add_second_partition(const Instance &inst) {
    write_file(inst.path("config/store.parts"), "2\nprimary\nsecondpart\n");
    mkdir(inst.path("partitions/secondpart").c_str(), 0777);
}

// The texts of the messages of folder name, by uid; with acl, its ACL.
std::vector<std::string> message_texts(const char *name, std::string *acl = nullptr) {
    std::vector<std::string> texts;
    mailbox mb = zeromailbox;
    EXPECT_EQ(mailbox_open(name, 0, auth_dontCheckAcl, &mb), 0) << name;
    for (const auto &e : index_entries(mb.path)) texts.push_back(read_file(message_file(mb, e.rec.uid)));
    if (acl) *acl = str(mb.acl);
    mailbox_close(&mb);
    return texts;
}

std::string partition_of(const char *name) {
    char *part = nullptr;
    mboxlist_lookup(name, nullptr, &part, nullptr, nullptr, nullptr);
    return take(part);
}

std::string status_of(const char *user) {
    userattr_block attrs = nullptr;
    if (userattr_get(user, &attrs, nullptr) != 0) return "<no entry>";
    std::string s = str(userattr_first(attrs, USERATTR_STATUS));
    userattr_free(attrs, nullptr);
    return s;
}

// A store of its own per test, with the suite's directory adopted by the
// provisioning module of this process.
class Users : public StoreTest {
  protected:
    static void SetUpTestSuite() {
        ldap = new Slapd(kTree + kUsers);
        ASSERT_TRUE(ldap->ok());
        LdPoolCtx *pool = nullptr;
        ASSERT_EQ(LdPoolCtx_New(Slapd::kRootDN, Slapd::kRootPW, "127.0.0.1", Slapd::kSuffix, nullptr, ldap->port(),
                                1, 8, -1, -1, 2, 3, 3, 0, &pool), 0);
        dmap_params *p = dmap_initialize_parameters();
        p->pool = pool;
        dmap_set_parameter(&p->root, Slapd::kSuffix);
        domain_map *map = dmap_initialize_domain_map(p, 0);
        dmap_free_parameters(p);
        ASSERT_EQ(autocreate_init(pool, map), 0);
    }
    static void TearDownTestSuite() { autocreate_exit(), delete ldap; }
    void SetUp() override {
        StoreTest::SetUp();
        add_second_partition(inst);
        restart(store_config(*ldap, inst.dir()));
    }
    static Slapd *ldap;
};
Slapd *Users::ldap = nullptr;

// A user with an entry and no inbox gets one on the directory's partition
// with its quotas and the welcome message in the user's language; users of
// other hosts, without entries or of other domains are told apart.
TEST_F(Users, ProvisionedFromTheDirectory) {
    userattr_block attrs = nullptr;
    ASSERT_EQ(userattr_get("fred", &attrs, nullptr), 0);
    char *part = nullptr;
    ASSERT_EQ(autocreate("fred", "STORE1", nullptr, &part, attrs, 0, nullptr), 0);
    EXPECT_EQ(take(part), "secondpart");
    quotadata q = row_of("user/fred");
    EXPECT_EQ(q.limit, 100u);
    EXPECT_EQ(q.limit_messages, 30u);
    std::string acl;
    auto texts = message_texts("user/fred", &acl);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_NE(texts[0].find("Subject: Willkommen\r\n"), std::string::npos) << texts[0];
    EXPECT_NE(texts[0].find("To: fred@a.example\r\n"), std::string::npos) << texts[0];
    EXPECT_NE(texts[0].find("Hallo fred, Gr=FC=DFe."), std::string::npos) << texts[0];
    EXPECT_NE(texts[0].find("charset=iso-8859-1"), std::string::npos) << texts[0];
    EXPECT_NE(acl.find("fred\t"), std::string::npos) << acl;

    // An existing user: the limits follow the directory, no second message.
    ASSERT_TRUE(ldap->modify("dn: uid=fred,dc=a,dc=example,o=store\nchangetype: modify\nreplace: mailquota\n"
                             "mailquota: 1G\n"));
    userattr_free(attrs, nullptr);
    ASSERT_EQ(userattr_get("fred", &attrs, nullptr), 0);
    ASSERT_EQ(autocreate("fred", nullptr, nullptr, nullptr, attrs, 0, nullptr), 0);
    userattr_free(attrs, nullptr);
    EXPECT_EQ(row_of("user/fred").limit, 1024u * 1024u);
    EXPECT_EQ(message_texts("user/fred").size(), 1u);

    // Refusals create nothing.
    ASSERT_EQ(userattr_get("far", &attrs, nullptr), 0);
    EXPECT_EQ(autocreate("far", "mx.a.example", nullptr, nullptr, attrs, 0, nullptr), IMAP_WRONG_MAILHOST);
    userattr_free(attrs, nullptr);
    EXPECT_EQ(autocreate("ghost", nullptr, nullptr, nullptr, nullptr, 0, nullptr), IMAP_MAILBOX_NONEXISTENT);
    EXPECT_FALSE(has_row("user/far") || has_row("user/ghost"));
    // Entries by the default domain, an alias, another domain's separator;
    // a user id that would widen the search is no user.
    auto lookup = [&](const char *id) {
        char *dn = nullptr;
        int r = userattr_get(id, &attrs, &dn);
        std::string out = "<" + std::to_string(r) + ">";
        if (!r) out = str(dn) + " " + str(userattr_first(attrs, USERATTR_MAILQUOTA));
        userattr_free(attrs, dn);
        return out;
    };
    const std::string none = "<" + std::to_string(LDAP_NO_SUCH_OBJECT) + ">";
    for (const auto &c : {std::pair<const char *, std::string>{"ghost", none}, {"fred@nowhere.example", none},
                          {"*", none}, {"fred@alias.example", "uid=fred,dc=a,dc=example,o=store 1G"},
                          {"bob@b.example", "uid=bob_b.example,dc=b,dc=example,o=store 2M"}})
        EXPECT_EQ(lookup(c.first), c.second) << c.first;
    // Without a language of its own, the user gets the domain's text.
    ASSERT_EQ(autocreate("plain", nullptr, nullptr, nullptr, nullptr, 0, nullptr), 0);
    EXPECT_EQ(row_of("user/plain").limit, 5u * 1024u);  // store.defaultmailboxquota
    texts = message_texts("user/plain");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_NE(texts[0].find("Subject: Willkommen"), std::string::npos);
    EXPECT_EQ(partition_of("user/plain"), "primary");
}

// Passing the threshold: over_since, one warning message per interval, the
// directory status both ways; a delivery over the hard limit is refused.
TEST_F(Users, QuotaWarningAndDirectoryStatus) {
    restart("local.store.overquotastatus: 1\n"
            "store.quotaexceededmsg: Subject: Over quota$$[ID]: [DISKUSAGE] of [QUOTA], "
            "[NUMMSG] of [MSGQUOTA] messages.\n");
    ASSERT_EQ(autocreate("fred", nullptr, nullptr, nullptr, nullptr, 1, nullptr), 0);
    ASSERT_EQ(mboxlist_setquota("user/fred", 100, 30), 0);
    const std::vector<std::string> corpus = corpus_messages("kernel-list.mbox");
    std::vector<std::string> batch;
    size_t bytes = 0;
    for (size_t i = 0; bytes < 100 * 1024; i++) batch.push_back(corpus[i]), bytes += corpus[i].size();
    ASSERT_EQ(deliver_texts("user/fred", batch), 0);
    quotadata q = row_of("user/fred");
    EXPECT_NE(q.over_since, 0u);
    EXPECT_NE(q.warned, 0u);
    EXPECT_EQ(status_of("fred"), "overquota");
    auto texts = message_texts("user/fred");
    ASSERT_EQ(texts.size(), batch.size() + 1);
    EXPECT_TRUE(matches("Subject: Over quota\r\n(.|\r|\n)*\r\n\r\nfred: [0-9]+KB of 100KB, [0-9]+ of 30 messages",
                        texts.back())) << texts.back();
    // The warning is charged like any message.
    EXPECT_EQ(row_of("user/fred").used_messages, batch.size() + 1);

    // No second warning inside the interval; a hard limit refuses.
    ASSERT_EQ(deliver_texts("user/fred", {corpus[50]}), 0);
    EXPECT_EQ(deliver_texts("user/fred", {corpus[51]}, (long)corpus[51].size()), IMAP_QUOTA_EXCEEDED);
    EXPECT_EQ(message_texts("user/fred").size(), batch.size() + 2);
    mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_open("user/fred", 0, auth_dontCheckAcl, &mb), 0);
    // Below the threshold again: the state, the stamp and the status go back.
    ASSERT_EQ(mailbox_expunge(&mb, 0, 0, remove_every_other, nullptr), 0);
    ASSERT_EQ(mailbox_expunge(&mb, 0, 0, remove_every_other, nullptr), 0);
    mailbox_close(&mb);
    q = row_of("user/fred");
    if (used(q) >= 90 * 1024 || q.used_messages >= 27) GTEST_SKIP() << "corpus too dense for the test";
    EXPECT_EQ(q.over_since | q.warned, 0u);
    EXPECT_EQ(status_of("fred"), "active");

    // A directory that can't be reached leaves the state changed and a log line.
    inst.newLog();
    ldap->stop();
    ASSERT_EQ(mboxlist_setquota("user/fred", 1, 30), 0);
    EXPECT_NE(row_of("user/fred").over_since, 0u);
    EXPECT_TRUE(matches("set_overquotastatus: cannot get ldap attributes for user: fred", inst.newLog()));
    ASSERT_TRUE(ldap->start());
    ASSERT_EQ(mboxlist_setquota("user/fred", 100, 30), 0);
    EXPECT_EQ(status_of("fred"), "active");
}

// The tool end to end: a new user's inbox comes from the directory, with
// the welcome message first when the import goes to another folder; a
// directory that is down or stalled stops the tool before it stores
// anything, within the time-out.
TEST(UsersImport, ProvisioningAndADeadDirectory) {
    Slapd ldap(kTree + kUsers);
    ASSERT_TRUE(ldap.ok());
    Instance inst;
    add_second_partition(inst);
    inst.addConfig(store_config(ldap, inst.dir()));
    ASSERT_TRUE(inst.startStored());
    const std::string mbox = corpus_path("list-archive.mbox");
    const size_t count = scan_texts(read_file(mbox)).size();
    std::string err;
    // Two imports into two new folders of one new user at once: one of them
    // provisions the inbox, and the root is charged for both.
    pid_t kids[2];
    for (int i = 0; i < 2; i++)
        kids[i] = spawn([&, i] {
            return inst.run("importmail", std::string("-u fred -d ") + (i ? "Lists" : "Archive") + " -s " + mbox);
        });
    for (pid_t k : kids) ASSERT_EQ(wait_child(k), 0);
    ASSERT_EQ(inst.run("importmail", "-u plain -d INBOX -s " + mbox, nullptr, &err), 0) << err;
    ASSERT_EQ(inst.run("importmail", "-u ghost -d INBOX -s " + mbox, nullptr, &err), 0) << err;
    EXPECT_TRUE(matches("ghost LDAP entry is missing", inst.newLog()));

    for (const auto &c : {std::pair<const char *, int>{"stop", 0}, {"pause", 1}}) {
        SCOPED_TRACE(c.first);
        c.second ? ldap.pause() : ldap.stop();
        time_t t0 = time(nullptr);
        EXPECT_EQ(inst.run("importmail", "-u newbie -d INBOX -s " + mbox, nullptr, &err, 60), 1);
        EXPECT_LE(time(nullptr) - t0, 12);
        EXPECT_TRUE(matches("autocreate_init failed", err)) << err;
        c.second ? ldap.resume() : (void)ldap.start();
    }

    ASSERT_TRUE(join_store("usersimport"));
    EXPECT_FALSE(has_row("user/newbie"));
    quotadata q = row_of("user/fred");
    EXPECT_EQ(q.limit, 100u);
    EXPECT_EQ(q.used_messages, 2 * count + 1);
    EXPECT_EQ(row_of("user/plain").limit, 5u * 1024u);
    EXPECT_EQ(row_of("user/ghost").limit, QUOTA_UNLIMITED);
    EXPECT_EQ(partition_of("user/fred"), "secondpart");
    for (const auto &f : {std::pair<const char *, size_t>{"user/fred", 1}, {"user/fred/Archive", count},
                          {"user/fred/Lists", count}, {"user/plain", count}}) {
        auto texts = message_texts(f.first);
        EXPECT_EQ(texts.size(), f.second) << f.first;
        if (f.second == 1) { EXPECT_NE(texts[0].find("Subject: Willkommen"), std::string::npos); }
    }
    mboxlist_reset_for_tests();
}

}  // namespace

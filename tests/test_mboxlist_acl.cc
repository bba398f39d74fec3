// Access control of folders and the rights list: ACL changes by owners,
// administrators and others, the owner's rights that no change takes away,
// and "lright.db" following every change of an ACL or of the folders, as
// its own repair from scratch would build it.
#include "store/mboxlist_acl.h"
#include "store/mboxlist_create.h"
#include "store/mboxname.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;
using Rows = std::map<std::string, std::set<std::string>>;

// Every key and value of one of the store's databases, read with a cursor.
std::vector<std::pair<std::string, std::string>> all_rows(DB *db) {
    std::vector<std::pair<std::string, std::string>> rows;
    DBC *cursor;
    if (db->cursor(db, nullptr, &cursor, 0) != 0) return rows;
    DBT key, data;
    memset(&key, 0, sizeof key), memset(&data, 0, sizeof data);
    while (cursor->c_get(cursor, &key, &data, DB_NEXT) == 0)
        rows.emplace_back(std::string((char *)key.data, key.size - 1),
                          std::string((char *)data.data, data.size));
    cursor->c_close(cursor);
    return rows;
}

// The rows of "lright.db", each list split at its NULs.
Rows lright_rows() {
    Rows rows;
    for (auto &[id, list] : all_rows(mboxlist_db(MBOXLIST_LRIGHTDB))) {
        std::set<std::string> &names = rows[id];
        for (size_t at = 0; at < list.size(); at = list.find('\0', at) + 1) names.insert(list.c_str() + at);
    }
    return rows;
}

// What "lright.db" must hold by the ACLs of "folder.db": a folder in the
// row of each identifier with a plain entry holding "l" that doesn't own it.
Rows rows_by_acls() {
    Rows rows;
    for (auto &[name, ignored] : all_rows(mboxlist_db(MBOXLIST_FOLDERDB))) {
        std::string acl = row_acl(name.c_str());
        for (size_t at = 0; acl.find('\t', at) != std::string::npos;) {
            size_t tab = acl.find('\t', at), end = acl.find('\t', tab + 1);
            std::string id = acl.substr(at, tab - at), rights = acl.substr(tab + 1, end - tab - 1);
            if (id[0] != '-' && rights.find('l') != std::string::npos &&
                !mboxname_userownsmailbox(id.c_str(), name.c_str()))
                rows[id].insert(name);
            at = end + 1;
        }
    }
    return rows;
}

class MboxlistAcl : public StoreTest {
  protected:
    ~MboxlistAcl() override { for (auth_state *a : {fred, bob, ann, site}) auth_freestate(a); }
    int create(const char *name, const char *userid, const auth_state *auth, const char *acl = nullptr) {
        return mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, userid, auth, QUOTA_UNLIMITED,
                                      QUOTA_UNLIMITED, 0, acl);
    }
    // The index header holds the row's ACL, and lright.db is what the ACLs say.
    void expect_in_line(const char *name, const std::string &step) {
        mailbox mb;
        ASSERT_EQ(mailbox_open(name, 0, auth_dontCheckAcl, &mb), 0) << step;
        ASSERT_EQ(mailbox_read_index_header_acl(&mb), 0) << step;
        EXPECT_EQ(str(mb.acl), row_acl(name)) << step;
        mailbox_close(&mb);
        EXPECT_EQ(lright_rows(), rows_by_acls()) << step;
    }
    auth_state *fred = auth_newstate("fred", nullptr, AUTH_ADMIN_NONE),
               *bob = auth_newstate("bob", nullptr, AUTH_ADMIN_NONE),
               *ann = auth_newstate("ann", nullptr, AUTH_ADMIN_NONE),
               *site = auth_newstate("root", nullptr, AUTH_ADMIN_SITE);
};

TEST_F(MboxlistAcl, ChangesKeepOwnerRightsAndTheRightsList) {
    for (const char *user : {"user/fred", "user/bob", "user/ann"})
        ASSERT_EQ(create(user, nullptr, auth_dontCheckAcl), 0);
    for (const char *name : {"user/fred/shared", "user/fred/private", "user/bob/x"})
        ASSERT_EQ(create(name, nullptr, auth_dontCheckAcl), 0);  // the owner's ACL, inherited
    ASSERT_EQ(create("public/news", nullptr, auth_dontCheckAcl), 0);  // default ACL: anyone may look
    ASSERT_EQ(create("user/ann/team", nullptr, auth_dontCheckAcl, "ann\tlrswipcda\tbob\tlr\t"), 0);
    expect_in_line("user/ann/team", "after create");
    EXPECT_EQ(lright_rows()["anyone"], std::set<std::string>{"public/news"});

    struct Step { const char *name, *userid; const auth_state *auth; const char *id, *rights; int want; };
    const Step steps[] = {
        {"user/fred/shared", "fred", fred, "bob", "lr", 0},
        {"user/fred/shared", "fred", fred, "ann", "l", 0},
        {"user/fred/shared", "bob", bob, "ann", "lra", IMAP_PERMISSION_DENIED},   // bob sees, can't administer
        {"user/fred/private", "ann", ann, "ann", "lra", IMAP_MAILBOX_NONEXISTENT},  // ann doesn't see it
        {"user/fred/shared", "fred", fred, "bob", "-l", 0},    // bob loses lookup: leaves his row
        {"user/fred/shared", "fred", fred, "bob", "+l", 0},    // and comes back
        {"user/fred/shared", "fred", fred, "-bob", "l", 0},    // a negative entry leaves the row alone
        {"user/fred/shared", "fred", fred, "fred", nullptr, 0},  // the owner can't lose lca
        {"user/fred/shared", "fred", fred, "fred", "r", 0},
        {"user/fred/private", "fred", fred, "fred", "-lca", 0},
        {"user/fred/private", "fred", fred, "bob", "all", 0},
        {"user/fred/private", "bob", bob, "ann", "+la", 0},    // bob administers now
        {"user/fred/private", "bob", bob, "fred", "", 0},      // bob can't take fred's rights either
        {"user/fred/private", "fred", fred, "bad id", "l", IMAP_INVALID_IDENTIFIER},
        {"user/bob/x", nullptr, site, "anyone", "l", 0},
        {"user/bob/x", "bob", bob, "fred", "lr", 0},
        {"user/bob/x", "bob", bob, "bob", "l", 0},             // own folder: never in bob's row
        {"public/news", "fred", fred, "fred", "l", IMAP_PERMISSION_DENIED},
        {"public/news", nullptr, site, "fred", "lrs", 0},
        {"user/nobody/x", nullptr, site, "fred", "l", IMAP_MAILBOX_NONEXISTENT},
    };
    for (const Step &s : steps) {
        std::string step = std::string(s.name) + " " + s.id + " " + str(s.rights);
        std::string before = row_acl(s.name);
        ASSERT_EQ(mboxlist_setacl(s.name, s.id, s.rights, s.userid, s.auth), s.want) << step;
        if (s.want) {
            EXPECT_EQ(row_acl(s.name), before) << step;
        }
        if (has_row(s.name)) expect_in_line(s.name, step);
        for (const char *owned : {"user/fred/shared", "user/fred/private"})
            EXPECT_EQ(acl_myrights(fred, row_acl(owned).c_str()) & ACL_OWNER, ACL_OWNER) << step;
    }
    Rows rows = lright_rows();
    EXPECT_EQ(rows["bob"], (std::set<std::string>{"user/ann/team", "user/fred/private", "user/fred/shared"}));
    EXPECT_EQ(rows["ann"], (std::set<std::string>{"user/fred/private", "user/fred/shared"}));
    EXPECT_EQ(rows.count("fred"), 1u);  // for user/bob/x and public/news, never for fred's own
    EXPECT_EQ(rows["fred"], (std::set<std::string>{"public/news", "user/bob/x"}));

    // Without the owner's guarantee the owner is one identifier among others.
    restart("local.store.ensureownerrights: 0");
    ASSERT_EQ(mboxlist_setacl("user/fred/private", "fred", nullptr, "fred", fred), 0);
    EXPECT_EQ(acl_myrights(fred, row_acl("user/fred/private").c_str()), 0);
    EXPECT_EQ(mboxlist_setacl("user/fred/private", "fred", "all", "fred", fred), IMAP_MAILBOX_NONEXISTENT);
    expect_in_line("user/fred/private", "owner rights off");

    // Deletes take the folders out of every row; a whole user as well.
    ASSERT_EQ(mboxlist_deletemailbox("user/fred/shared", nullptr, auth_dontCheckAcl), 0);
    ASSERT_EQ(mboxlist_deletemailbox("user/bob", nullptr, auth_dontCheckAcl), 0);
    EXPECT_EQ(lright_rows(), rows_by_acls());
    EXPECT_EQ(lright_rows()["fred"], std::set<std::string>{"public/news"});
    const Rows settled = lright_rows();

    // Repair from scratch gives the same rows; so does a repair of rows with
    // stale names (a folder gone, one without the right, one's own), a row
    // with nothing valid, and a row that lost a name.
    DB *db = mboxlist_db(MBOXLIST_LRIGHTDB);
    for (auto &[id, ignored] : settled) {
        DBT key;
        mboxlist_set_key(id.c_str(), &key);
        ASSERT_EQ(db->del(db, nullptr, &key, 0), 0);
    }
    int changed = 0;
    ASSERT_EQ(mboxlist_repair_lright(&changed), 0);
    EXPECT_EQ(lright_rows(), settled);
    EXPECT_GT(changed, 0);
    ASSERT_TRUE(db_put(db, std::string("ann", 4), std::string("user/fred/private\0user/gone\0public/news\0user/ann/team\0", 54)));
    ASSERT_TRUE(db_put(db, std::string("zed", 4), std::string("user/fred/private\0", 18)));
    ASSERT_TRUE(db_put(db, std::string("anyone", 7), ""));
    ASSERT_EQ(mboxlist_repair_lright(&changed), 0);
    EXPECT_EQ(lright_rows(), settled);
    EXPECT_EQ(changed, 3);  // public/news for anyone, and the rows of ann and zed
    ASSERT_EQ(mboxlist_repair_lright(&changed), 0);
    EXPECT_EQ(changed, 0);
    // A row that is gone by the time the repair reads it.
    EXPECT_EQ(mboxlist_fixlright_sub("ghost", "user/gone", 10), DB_NOTFOUND);
}

TEST_F(MboxlistAcl, ListsAndOwnerRights) {  // the fixture reads the default configuration
    // op, name, new name, list before, list after, whether it changed
    struct Case { int op; const char *name, *newname; std::string before, after; int changed; };
    const std::string ab("a\0b\0", 4);
    const Case cases[] = {
        {MBOXLIST_LRIGHT_ADD, "a", nullptr, ab, ab, 0},
        {MBOXLIST_LRIGHT_ADD, "c", nullptr, ab, std::string("a\0b\0c\0", 6), 1},
        {MBOXLIST_LRIGHT_REMOVE, "a", nullptr, ab, std::string("b\0", 2), 1},
        {MBOXLIST_LRIGHT_REMOVE, "b", nullptr, std::string("b\0", 2), "", 1},
        {MBOXLIST_LRIGHT_REMOVE, "c", nullptr, ab, ab, 0},
        {MBOXLIST_LRIGHT_RENAME, "a", "b", ab, std::string("b\0", 2), 1},
        {MBOXLIST_LRIGHT_RENAME, "a", "c", ab, std::string("b\0c\0", 4), 1},
        {MBOXLIST_LRIGHT_RENAME, "z", "b", ab, ab, 0},
    };
    for (const Case &c : cases) {
        char *list = (char *)malloc(c.before.size() + 1);
        memcpy(list, c.before.data(), c.before.size());
        uint32_t size = (uint32_t)c.before.size();
        EXPECT_EQ(mboxlist_modifylright(c.name, c.newname, c.op, &list, &size), c.changed) << c.name;
        EXPECT_EQ(std::string(list, size), c.after) << c.name;
        free(list);
    }
    struct Owner { const char *name, *id; int mask; };
    const Owner owners[] = {
        {"user/fred", "fred", ACL_OWNER | ACL_READ}, {"user/fred/x", "fred", ACL_OWNER | ACL_READ},
        {"user/fred2/x", "fred", ACL_READ}, {"user/fred/x", "user/fred", ACL_READ},
        {"abcdefred", "fred", ACL_READ}, {"user/fred/x", "bob", ACL_READ},
    };
    for (const Owner &o : owners)
        EXPECT_EQ(mboxlist_ensureOwnerRights((void *)o.name, o.id, ACL_READ), o.mask) << o.name << " " << o.id;
    const char *acl = "fred\tlr\t-bob\tl\tann\tr\tanyone\tl";
    for (auto [id, want] : std::vector<std::pair<const char *, int>>{
             {"fred", 1}, {"bob", 0}, {"-bob", 1}, {"ann", 0}, {"anyone", 1}, {"fre", 0}})
        EXPECT_EQ(acl_lookup_right(id, acl), want) << id;
}

}  // namespace

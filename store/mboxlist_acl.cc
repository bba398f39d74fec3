// Access control of folders and the rights list "lright.db"; see
// mboxlist_acl.h.
#include "store/mboxlist_acl.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "store/mboxname.h"
#include "store/storeassert.h"
#include "support/auth.h"
#include "support/log.h"
#include "support/xmalloc.h"

// ---------------------------------------------------------------------------
// The owner's rights

int mboxlist_ensureOwnerRights(void *rock, const char *identifier, int mask)
{
    const char *name = static_cast<const char *>(rock);
    if (!mboxlist_ensure_owner_rights() || !name || !identifier || strchr(identifier, '/'))
        return mask;
    // Only a user's folder has an owner: "abcdefred" must not count as fred's.
    if (strncmp(name, "user/", 5) != 0) return mask;
    size_t n = strlen(identifier);
    if (strncmp(name + 5, identifier, n) != 0) return mask;
    char behind = name[5 + n];
    return (behind == '/' || behind == '\0') ? (mask | ACL_OWNER) : mask;
}

// ---------------------------------------------------------------------------
// A row's list of names: each name with its NUL, one behind the other

static char *find_name(char *list, uint32_t size, const char *name)
{
    size_t want = strlen(name) + 1;
    for (uint32_t at = 0; at < size;) {
        char *p = list + at;
        size_t len = strnlen(p, size - at) + 1;
        if (len == want && memcmp(p, name, want) == 0) return p;
        at += (uint32_t)len;
    }
    return nullptr;
}

static void remove_name(char *list, uint32_t *size, char *at)
{
    size_t len = strlen(at) + 1;
    memmove(at, at + len, *size - (size_t)(at - list) - len);
    *size -= (uint32_t)len;
}

static void append_name(char **list, uint32_t *size, const char *name)
{
    size_t len = strlen(name) + 1;
    *list = static_cast<char *>(xrealloc(*list, *size + len));
    memcpy(*list + *size, name, len);
    *size += (uint32_t)len;
}

int mboxlist_modifylright(const char *name, const char *newname, int op, char **list,
                          uint32_t *size)
{
    char *at = find_name(*list, *size, name);
    switch (op) {
    case MBOXLIST_LRIGHT_ADD:
        if (at) return 0;
        append_name(list, size, name);
        return 1;
    case MBOXLIST_LRIGHT_REMOVE:
        if (!at) return 0;
        remove_name(*list, size, at);
        return 1;
    case MBOXLIST_LRIGHT_RENAME: {
        STORE_ASSERT(newname);
        int changed = 0;
        if (at) remove_name(*list, size, at), changed = 1;
        if (!find_name(*list, *size, newname)) append_name(list, size, newname), changed = 1;
        return changed;
    }
    default:
        return 0;
    }
}

// ---------------------------------------------------------------------------
// Rows of "lright.db"

static DB *lrightdb(void) { return mboxlist_db(MBOXLIST_LRIGHTDB); }

int mboxlist_lookup_lright(const char *identifier, char **list, uint32_t *size, DB_TXN *txn)
{
    *list = nullptr;
    *size = 0;
    int r = mboxlist_init();
    if (r) return r;
    DB *db = lrightdb();
    DBT key, data;
    mboxlist_set_key(identifier, &key);
    memset(&data, 0, sizeof data);
    data.flags = DB_DBT_MALLOC;
    do {
        r = db->get(db, txn, &key, &data, txn ? DB_RMW : 0);
    } while (r == DB_LOCK_DEADLOCK && !txn);
    if (r == DB_KEYEMPTY) r = DB_NOTFOUND;
    if (r) return r;
    // A torn last name would be compared and extended as if whole: drop it.
    char *value = static_cast<char *>(data.data);
    uint32_t n = data.size;
    while (n > 0 && value[n - 1] != '\0') n--;
    *list = value;
    *size = n;
    return 0;
}

// Writes identifier's row with list, or deletes it when the list is empty.
static int put_row(const char *identifier, const char *list, uint32_t size, DB_TXN *txn)
{
    DB *db = lrightdb();
    DBT key, data;
    mboxlist_set_key(identifier, &key);
    if (size == 0) {
        int r = db->del(db, txn, &key, 0);
        return r == DB_NOTFOUND || r == DB_KEYEMPTY ? 0 : r;
    }
    memset(&data, 0, sizeof data);
    data.data = const_cast<char *>(list);
    data.size = size;
    return db->put(db, txn, &key, &data, 0);
}

int mboxlist_changelright(const char *identifier, const char *name, const char *newname, int op,
                          DB_TXN *txn)
{
    char *list;
    uint32_t size;
    int r = mboxlist_lookup_lright(identifier, &list, &size, txn);
    if (r == 0) {
        if (!mboxlist_modifylright(name, newname, op, &list, &size)) {
            free(list);
            return 0;
        }
    } else if (r == DB_NOTFOUND) {
        if (op == MBOXLIST_LRIGHT_REMOVE) return 0;
        append_name(&list, &size, op == MBOXLIST_LRIGHT_RENAME ? newname : name);
        r = 0;
    }
    if (!r) r = put_row(identifier, list, size, txn);
    free(list);
    // A deadlock is no failure of the database: the caller's loop runs its
    // whole transaction again.
    if (r == DB_LOCK_DEADLOCK) return r;
    if (r) {
        svclog(nullptr, 59, "Unable to set lright for %s: %s", identifier, mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

struct shared_change {
    const char *owner, *name, *newname;
    int op;
    DB_TXN *txn;
};

static int change_shared_one(const char *identifier, void *rock)
{
    const shared_change *c = static_cast<const shared_change *>(rock);
    if (c->owner && strcmp(identifier, c->owner) == 0) return 0;
    if (c->op == MBOXLIST_LRIGHT_RENAME) {
        // The folder becomes the identifier's own: it leaves the row.
        if (mboxname_userownsmailbox(identifier, c->newname))
            return mboxlist_changelright(identifier, c->name, nullptr, MBOXLIST_LRIGHT_REMOVE,
                                         c->txn);
    } else if (mboxname_userownsmailbox(identifier, c->name)) {
        return 0;
    }
    return mboxlist_changelright(identifier, c->name, c->newname, c->op, c->txn);
}

int mboxlist_changeshared(const char *acl, const char *owner, const char *name,
                          const char *newname, int op, DB_TXN *txn)
{
    STORE_ASSERT(op != MBOXLIST_LRIGHT_RENAME || newname);
    shared_change c = {owner, name, op == MBOXLIST_LRIGHT_RENAME ? newname : nullptr, op, txn};
    return acl_foreach_lookup(acl, change_shared_one, &c);
}

int mboxlist_addlright(const char *identifier, const char *name)
{
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "lright", name);
        if (r) break;
        r = mboxlist_changelright(identifier, name, nullptr, MBOXLIST_LRIGHT_ADD, txn);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    return r ? IMAP_IOERROR : 0;
}

// ---------------------------------------------------------------------------
// Walks that hold no cursor between steps

// One step of a walk over db: the first row when *key is null, else the
// first row behind *key (a malloc'ed key of *keysize bytes, which is
// replaced). The cursor lives only for the step, so that a long walk holds
// no lock while its caller works, and the caller may change db. With
// value, the row's value comes too (malloc'ed, the caller frees it).
// The Berkeley DB code; DB_NOTFOUND at the end.
static int walk_step(DB *db, char **key, uint32_t *keysize, char **value, uint32_t *valuesize)
{
    int r;
    DBT k, v;
    do {
        DBC *cursor;
        r = db->cursor(db, nullptr, &cursor, 0);
        if (r) return r;
        memset(&k, 0, sizeof k);
        memset(&v, 0, sizeof v);
        char none;
        if (value) {
            v.flags = DB_DBT_MALLOC;
        } else {
            v.data = &none;
            v.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        }
        k.flags = DB_DBT_MALLOC;
        if (!*key) {
            r = cursor->c_get(cursor, &k, &v, DB_FIRST);
        } else {
            k.data = *key;
            k.size = *keysize;
            r = cursor->c_get(cursor, &k, &v, DB_SET_RANGE);
            if (r == 0 && k.size == *keysize && memcmp(k.data, *key, *keysize) == 0) {
                // The key seen last is still there: step over it.
                free(k.data);
                if (value) free(v.data);
                memset(&k, 0, sizeof k);
                k.flags = DB_DBT_MALLOC;
                if (value) v.data = nullptr, v.size = 0;
                r = cursor->c_get(cursor, &k, &v, DB_NEXT);
            }
        }
        cursor->c_close(cursor);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == DB_KEYEMPTY) r = DB_NOTFOUND;
    if (r) return r;
    free(*key);
    *key = static_cast<char *>(k.data);
    *keysize = k.size;
    if (value) {
        *value = static_cast<char *>(v.data);
        *valuesize = v.size;
    }
    return 0;
}

// The text of a key as a NUL-ended string: keys are stored with their NUL,
// but a damaged one might lack it.
static char *key_text(const char *key, uint32_t size)
{
    char *text = static_cast<char *>(xmalloc(size + 1));
    memcpy(text, key, size);
    text[size] = '\0';
    return text;
}

int mboxlist_findlright(mboxlist_lright_cb *callback, void *rock)
{
    int r = mboxlist_init();
    if (r) return IMAP_IOERROR;
    char *key = nullptr, *value = nullptr;
    uint32_t keysize = 0, valuesize = 0;
    while ((r = walk_step(lrightdb(), &key, &keysize, &value, &valuesize)) == 0) {
        char *identifier = key_text(key, keysize);
        callback(identifier, value ? value : "", valuesize, rock);
        free(identifier);
        free(value);
        value = nullptr;
    }
    free(key);
    if (r == DB_NOTFOUND) return 0;
    svclog(nullptr, 59, "Unable to list lright.db: %s", mboxlist_strerror(r));
    return IMAP_IOERROR;
}

// ---------------------------------------------------------------------------
// Repairs

struct fix_add {
    const char *name;
    char owner[MBOXNAME_OWNER_SIZE];
    int has_owner;
    int result;
};

static int fix_add_one(const char *identifier, void *rock)
{
    fix_add *f = static_cast<fix_add *>(rock);
    if ((f->has_owner && strcmp(identifier, f->owner) == 0) ||
        mboxname_userownsmailbox(identifier, f->name))
        return 0;
    char *list;
    uint32_t size;
    int r = mboxlist_lookup_lright(identifier, &list, &size, nullptr);
    int present = r == 0 && find_name(list, size, f->name);
    free(list);
    if (present) return 0;
    if ((r == 0 || r == DB_NOTFOUND) && mboxlist_addlright(identifier, f->name) == 0) {
        if (f->result == 0) f->result = 1;
    } else {
        f->result = -1;
    }
    return 0;
}

int mboxlist_fixlright_add(const char *name)
{
    // A user's inbox may come by its external name: user/fred/INBOX is user/fred.
    char folder[MAX_MAILBOX_NAME];
    snprintf(folder, sizeof folder, "%s", name);
    const char *rest = mboxname_mailbox(folder);
    if (rest && strcasecmp(rest, "INBOX") == 0) folder[rest - folder - 1] = '\0';

    char *row;
    int r = mboxlist_lookup_data(folder, &row, nullptr);
    if (r == IMAP_MAILBOX_NONEXISTENT) return 0;
    if (r) return -1;
    fix_add f;
    f.name = folder;
    f.has_owner = mboxname_owner(folder, f.owner) != nullptr;
    f.result = 0;
    acl_foreach_lookup(mboxlist_acl(row), fix_add_one, &f);
    free(row);
    return f.result;
}

// Whether name is stale in identifier's row, read under txn (may be null):
// into *stale. 0, or the failure of the lookup (DB_LOCK_DEADLOCK under txn).
// A damaged folder row can't tell: the name stays.
static int name_is_stale(const char *identifier, const char *name, DB_TXN *txn, int *stale)
{
    *stale = 0;
    if (mboxname_userownsmailbox(identifier, name)) return *stale = 1, 0;
    char *row;
    int r = mboxlist_lookup_data(name, &row, txn);
    if (r == IMAP_MAILBOX_NONEXISTENT) return *stale = 1, 0;
    if (r == IMAP_MAILBOX_BADFORMAT) return 0;
    if (r) return r;
    *stale = !acl_lookup_right(identifier, mboxlist_acl(row));
    free(row);
    return 0;
}

// Whether the list (size bytes) needs repair: empty, or holding a stale
// name. 0 no, 1 yes, or a failure of a lookup.
static int needs_repair(const char *identifier, const char *list, uint32_t size)
{
    if (size == 0) return 1;
    for (uint32_t at = 0; at < size;) {
        const char *name = list + at;
        size_t len = strnlen(name, size - at);
        if (len == size - at) return 1;  // a torn last name
        int stale, r = name_is_stale(identifier, name, nullptr, &stale);
        if (r) return r;
        if (stale) return 1;
        at += (uint32_t)len + 1;
    }
    return 0;
}

// Rewrites identifier's row without its stale names, under txn.
static int drop_stale(const char *identifier, DB_TXN *txn)
{
    char *list;
    uint32_t size;
    int r = mboxlist_lookup_lright(identifier, &list, &size, txn);
    if (r) return r;
    uint32_t at = 0;
    while (!r && at < size) {
        int stale;
        r = name_is_stale(identifier, list + at, txn, &stale);
        if (!r && stale)
            remove_name(list, &size, list + at);
        else
            at += (uint32_t)strlen(list + at) + 1;
    }
    if (!r) r = put_row(identifier, list, size, txn);
    free(list);
    return r;
}

int mboxlist_fixlright_sub(const char *identifier, const char *list, uint32_t size)
{
    int r = needs_repair(identifier, list, size);
    if (r == 0) return 0;
    if (r != 1) return IMAP_IOERROR;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "lright repair", identifier);
        if (r) break;
        r = mboxlist_trans_finish(txn, drop_stale(identifier, txn));
    } while (r == DB_LOCK_DEADLOCK);
    if (r == 0) return 1;
    if (r == DB_NOTFOUND) return r;
    svclog(nullptr, 59, "Unable to set lright for %s: %s", identifier, mboxlist_strerror(r));
    return IMAP_IOERROR;
}

struct repair_count {
    int changed;
    int failed;
};

static int repair_row(const char *identifier, const char *list, uint32_t size, void *rock)
{
    repair_count *c = static_cast<repair_count *>(rock);
    int r = mboxlist_fixlright_sub(identifier, list, size);
    if (r == 1) c->changed++;
    // A row that went away meanwhile needs no repair.
    if (r != 0 && r != 1 && r != DB_NOTFOUND) c->failed = 1;
    return 0;
}

int mboxlist_repair_lright(int *changed)
{
    repair_count c = {0, 0};
    if (changed) *changed = 0;
    if (mboxlist_init() != 0) return IMAP_IOERROR;
    char *key = nullptr;
    uint32_t keysize = 0;
    int r;
    while ((r = walk_step(mboxlist_db(MBOXLIST_FOLDERDB), &key, &keysize, nullptr, nullptr)) == 0) {
        char *name = key_text(key, keysize);
        int added = mboxlist_fixlright_add(name);
        if (added == 1) c.changed++;
        if (added < 0) c.failed = 1;
        free(name);
    }
    free(key);
    if (r != DB_NOTFOUND) {
        svclog(nullptr, 59, "Unable to list mailboxes for lright repair: %s", mboxlist_strerror(r));
        c.failed = 1;
    }
    if (mboxlist_findlright(repair_row, &c) != 0) c.failed = 1;
    if (changed) *changed = c.changed;
    return c.failed ? IMAP_IOERROR : 0;
}

// ---------------------------------------------------------------------------
// Changing an ACL

// Whether the caller of mboxlist_setacl administers the folder whatever
// its ACL says: the owner itself while the owner's rights are ensured, an
// administrator of the owner, or of the site for a folder without owner.
static int setacl_isadmin(const char *owner, const char *userid, const struct auth_state *auth)
{
    if (!owner) return auth_adminFor(auth, nullptr) >= AUTH_ADMIN_SITE;
    if (mboxlist_ensure_owner_rights() && userid && strcmp(userid, owner) == 0) return 1;
    return auth_adminFor(auth, owner);
}

// The ACL text acl changed as mboxlist_setacl describes, into *newacl (a
// new string). 0 or IMAP_INVALID_IDENTIFIER.
static int change_acl(const char *name, int has_owner, const char *acl, const char *identifier,
                      const char *rights, char **newacl)
{
    *newacl = xstrdup(acl);
    acl_canonproc_t *check = has_owner ? mboxlist_ensureOwnerRights : nullptr;
    void *rock = const_cast<char *>(name);
    int r;
    if (!rights) {
        r = acl_remove(newacl, identifier, check, rock);
    } else {
        int mode = ACL_MODE_SET;
        if (rights[0] == '+') mode = ACL_MODE_ADD, rights++;
        else if (rights[0] == '-') mode = ACL_MODE_REMOVE, rights++;
        r = acl_modify(newacl, identifier, mode, acl_strtomask(rights), check, rock);
    }
    if (r == 0) return 0;
    free(*newacl);
    *newacl = nullptr;
    return IMAP_INVALID_IDENTIFIER;
}

// Puts the folder's new row and its rights list entry for identifier in
// one transaction, and writes the new ACL into the open folder's index
// header inside it. 0 or the Berkeley DB failure.
static int setacl_write(struct mailbox *mb, const char *row, const char *newacl,
                        const char *identifier, int listed)
{
    struct mboxdata mbd;
    memcpy(&mbd, row, sizeof mbd);
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, mb->name, &mbd, mboxlist_partition(row), newacl,
                           nullptr);
    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "setacl", mb->name);
        if (r) break;
        r = folders->put(folders, txn, &key, &data, 0);
        if (!r)
            r = mboxlist_changelright(identifier, mb->name, nullptr,
                                      listed ? MBOXLIST_LRIGHT_ADD : MBOXLIST_LRIGHT_REMOVE, txn);
        if (!r) {
            free(mb->acl);
            mb->acl = xstrdup(newacl);
            // The row is what readers of the ACL go by; an index header
            // that can't take the ACL is put right by the next change.
            if (mailbox_write_index_variable_header(mb) != 0)
                svclog(nullptr, 59, "Unable to write acl into the index of %s", mb->name);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    free(data.data);
    return r;
}

int mboxlist_setacl(const char *name, const char *identifier, const char *rights,
                    const char *userid, const struct auth_state *auth)
{
    char owner[MBOXNAME_OWNER_SIZE];
    int has_owner = mboxname_owner(name, owner) != nullptr;
    int isadmin = setacl_isadmin(has_owner ? owner : nullptr, userid, auth);

    struct mailbox mb;
    int r = mailbox_open(name, 0, auth, &mb);
    if (r) return r;
    r = mailbox_lock_index(&mb);
    if (r) {
        mailbox_close(&mb);
        return r;
    }
    char *row = nullptr, *newacl = nullptr;
    r = mboxlist_lookup_data(name, &row, nullptr);
    if (!r && !isadmin) {
        int myrights = acl_myrights(auth, mboxlist_acl(row));
        // Who can't see the folder doesn't learn that it exists.
        if (!(myrights & ACL_ADMIN))
            r = (myrights & ACL_LOOKUP) ? IMAP_PERMISSION_DENIED : IMAP_MAILBOX_NONEXISTENT;
    }
    char canonical[AUTH_MAXIDENTIFIER];
    if (!r && !auth_canonifyid(identifier + (identifier[0] == '-'), canonical))
        r = IMAP_INVALID_IDENTIFIER;
    if (!r) r = change_acl(name, has_owner, mboxlist_acl(row), identifier, rights, &newacl);
    if (!r) {
        // The folder stands in the identifier's row while the plain entry
        // gives lookup: a negative entry takes nothing out of the list.
        int listed = acl_lookup_right(canonical, newacl) &&
                     !mboxname_userownsmailbox(canonical, name);
        r = setacl_write(&mb, row, newacl, canonical, listed);
        if (r) {
            svclog(nullptr, 59, "Unable to set acl for %s: %s", name, mboxlist_strerror(r));
            r = IMAP_IOERROR;
        } else {
            svclog(nullptr, 6, "%s changed rights on %s. Was: %s. Now: %s",
                   userid ? userid : "Admin", name, mboxlist_acl(row), newacl);
        }
    }
    mailbox_close(&mb);
    free(row);
    free(newacl);
    return r;
}

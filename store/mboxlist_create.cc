// Folder create and delete in the folder database; see mboxlist_create.h.
#include "store/mboxlist_create.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mailbox_create.h"
#include "store/mboxlist.h"
#include "store/mboxlist_acl.h"
#include "store/mboxlist_list.h"
#include "store/mboxlist_quota.h"
#include "store/mboxlist_subs.h"
#include "store/mboxname.h"
#include "store/seen_db.h"
#include "store/storeassert.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/log.h"
#include "support/retry.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

// ---------------------------------------------------------------------------
// Named locks

// The text of the user object of name ("user_" + id) or the shared object.
static void user_object(const char *name, char *buf)
{
    if (strncmp(name, "user/", 5) == 0) {
        const char *id = name + 5;
        const char *slash = strchr(id, '/');
        size_t n = slash ? (size_t)(slash - id) : strlen(id);
        if (n > MBOXLIST_LOCK_OBJECT_SIZE - 6) n = MBOXLIST_LOCK_OBJECT_SIZE - 6;
        memcpy(buf, "user_", 5);
        memcpy(buf + 5, id, n);
        buf[5 + n] = '\0';
    } else {
        strcpy(buf, "sharedfolders");
    }
}

static void set_object(DBT *obj, const char *text)
{
    memset(obj, 0, sizeof *obj);
    obj->data = const_cast<char *>(text);
    obj->size = (uint32_t)strlen(text);
}

int mboxlist_lock_create(uint32_t *locker, const char *name, const char *name2, int wholeuser)
{
    STORE_ASSERT(!name2 || wholeuser);
    DB_ENV *lockenv = mboxlist_lockenv();
    if (!lockenv) return EINVAL;
    int r = lockenv->lock_id(lockenv, locker);
    if (r) return r;

    char obj1[MBOXLIST_LOCK_OBJECT_SIZE], obj2[MBOXLIST_LOCK_OBJECT_SIZE];
    DBT dbt1, dbt2;
    DB_LOCKREQ req[4];
    memset(req, 0, sizeof req);
    req[0].op = DB_LOCK_PUT_ALL;
    int n = 1;

    user_object(name, obj1);
    set_object(&dbt1, obj1);
    req[n].op = DB_LOCK_GET;
    req[n].obj = &dbt1;
    req[n].mode = wholeuser ? DB_LOCK_WRITE : DB_LOCK_READ;
    n++;
    if (wholeuser) {
        if (name2) {
            user_object(name2, obj2);
            set_object(&dbt2, obj2);
            req[n].op = DB_LOCK_GET;
            req[n].obj = &dbt2;
            req[n].mode = DB_LOCK_WRITE;
            n++;
        }
    } else {
        snprintf(obj2, sizeof obj2, "mbox_%s", name);
        set_object(&dbt2, obj2);
        req[n].op = DB_LOCK_GET;
        req[n].obj = &dbt2;
        req[n].mode = DB_LOCK_WRITE;
        n++;
    }

    DB_LOCKREQ *failed = nullptr;
    r = lockenv->lock_vec(lockenv, *locker, 0, req + 1, n - 1, &failed);
    // A deadlock victim gives back what it holds and asks for all again.
    while (r == DB_LOCK_DEADLOCK) r = lockenv->lock_vec(lockenv, *locker, 0, req, n, &failed);
    if (r) {
        svclog(nullptr, 59, "Unable to lock %s: %s", name, db_strerror(r));
        DB_LOCKREQ put;
        memset(&put, 0, sizeof put);
        put.op = DB_LOCK_PUT_ALL;
        lockenv->lock_vec(lockenv, *locker, 0, &put, 1, nullptr);
        lockenv->lock_id_free(lockenv, *locker);
    }
    return r;
}

void mboxlist_unlock_create(uint32_t locker)
{
    DB_ENV *lockenv = mboxlist_lockenv();
    DB_LOCKREQ put;
    memset(&put, 0, sizeof put);
    put.op = DB_LOCK_PUT_ALL;
    int r;
    do {
        r = lockenv->lock_vec(lockenv, locker, 0, &put, 1, nullptr);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == 0) r = lockenv->lock_id_free(lockenv, locker);
    if (r) {
        svclog(nullptr, 58, "Unable to release folder locks: %s", db_strerror(r));
        abort();
    }
}

// ---------------------------------------------------------------------------
// Create

// Fills *acl from store.defaultacl: pairs of identifier and rights,
// separated by blanks; a last identifier without rights is dropped.
static void default_acl(char **acl)
{
    const char *p = config_get_string(config_getdefaultcache(), "store.defaultacl", "anyone lrs");
    for (;;) {
        while (*p && isspace((unsigned char)*p)) p++;
        if (!*p) return;
        const char *id = p;
        while (*p && !isspace((unsigned char)*p)) p++;
        char *ident = xstrndup(id, (size_t)(p - id));
        while (*p && isspace((unsigned char)*p)) p++;
        if (!*p) {
            free(ident);
            return;
        }
        const char *rt = p;
        while (*p && !isspace((unsigned char)*p)) p++;
        char *rights = xstrndup(rt, (size_t)(p - rt));
        acl_modify(acl, ident, ACL_MODE_SET, acl_strtomask(rights), nullptr, nullptr);
        free(ident);
        free(rights);
    }
}

int mboxlist_createmailboxcheck(const char *name, unsigned version, const char *partition,
                                const char *userid, const struct auth_state *auth,
                                char **newacl, char **newpartition)
{
    if (newacl) *newacl = nullptr;
    if (newpartition) *newpartition = nullptr;

    if (partition && strlen(partition) > MBOXLIST_PARTITION_MAX) return IMAP_PARTITION_UNKNOWN;
    int r = mboxname_policycheck(name);
    if (r) return r;
    if (version == MAILBOX_VERSION_DBONLY) {
        if (partition && strcmp(partition, "version3") != 0) return IMAP_MAILBOX_NOTSUPPORTED;
    } else if (version != MAILBOX_VERSION) {
        return IMAP_MAILBOX_NOTSUPPORTED;
    }
    // Choosing the partition is the site administrator's business.
    if (partition && auth_adminFor(auth, nullptr) <= AUTH_ADMIN_TENANT)
        return IMAP_PERMISSION_DENIED;

    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);
    int isadmin = auth_adminFor(auth, owner) != 0 || mboxname_userownsmailbox(userid, name);

    // Only a database that says "no such row" lets the create go on: a
    // row that could not be read may well exist.
    char *row;
    r = mboxlist_lookup_data(name, &row, nullptr);
    if (r == 0) {
        // Who may not see the folder doesn't learn that it exists.
        int rights = acl_myrights(auth, mboxlist_acl(row));
        free(row);
        return (!isadmin && !(rights & ACL_LOOKUP)) ? IMAP_PERMISSION_DENIED
                                                    : IMAP_MAILBOX_EXISTS;
    }
    if (r != IMAP_MAILBOX_NONEXISTENT) return r;

    int maxfolders = config_get_int(config_getdefaultcache(), "local.store.maxfolders", 0);
    if (maxfolders > 0 && owner) {
        int count = 0;
        r = mboxlist_count_folders(owner, &count);
        if (r) return r;
        if (count >= maxfolders) {
            svclog(nullptr, 62, "create folder %s failed: max folders exceeded", name);
            return IMAP_MAILBOX_EXHAUSTED;
        }
    }

    // The nearest existing parent decides rights, ACL and partition.
    char parent[MAX_MAILBOX_NAME];
    strlcpy(parent, name, sizeof parent);
    row = nullptr;
    for (;;) {
        char *slash = strrchr(parent, '/');
        if (!slash) break;
        *slash = '\0';
        if (!strchr(parent, '/')) break;
        r = mboxlist_lookup_data(parent, &row, nullptr);
        if (r == 0) break;
        // An unreadable parent must not turn into a default ACL.
        if (r != IMAP_MAILBOX_NONEXISTENT) return r;
    }
    if (row) {
        const char *pacl = mboxlist_acl(row);
        if (!isadmin && !(acl_myrights(auth, pacl) & ACL_CREATE)) {
            free(row);
            return IMAP_PERMISSION_DENIED;
        }
        if (newacl) *newacl = xstrdup(pacl);
        if (newpartition) *newpartition = xstrdup(partition ? partition : mboxlist_partition(row));
        free(row);
        return 0;
    }

    if (!isadmin) return IMAP_PERMISSION_DENIED;
    if (strncmp(name, "user/", 5) == 0) {
        // A user's folders come after the user's root.
        if (strchr(name + 5, '/')) return IMAP_PERMISSION_DENIED;
        if (strpbrk(name, "*%?")) return IMAP_MAILBOX_BADNAME;
        if (newacl) {
            // The root belongs to the user it is named for, whoever makes it.
            char *acl = xstrdup("");
            acl_modify(&acl, owner, ACL_MODE_SET, ACL_ALL, nullptr, nullptr);
            *newacl = acl;
        }
    } else if (newacl) {
        char *acl = xstrdup("");
        default_acl(&acl);
        *newacl = acl;
    }
    if (newpartition)
        *newpartition = xstrdup(
            partition ? partition
                      : config_get_string(config_getdefaultcache(), "store.defaultpartition",
                                          "primary"));
    return 0;
}

// Makes the folder's files and gives their summary in *mbd; for a row
// without files (MAILBOX_VERSION_DBONLY) only the summary. 0,
// IMAP_MAILBOX_EXISTS when files with messages were found and taken over
// (their counters in *mbd), or the failure of mailbox_create, which has
// cleaned up after itself.
static int create_files(const char *name, unsigned version, const char *part, const char *path,
                        const char *mpath, const char *acl, time_t uidvalidity,
                        struct mboxdata *mbd)
{
    memset(mbd, 0, sizeof *mbd);
    if (version == MAILBOX_VERSION_DBONLY) {
        mbd->version = version;
        return 0;
    }
    struct mailbox mb = zeromailbox;
    int r = mailbox_create(name, part, path, mpath[0] ? mpath : nullptr, acl, version, &mb,
                           uidvalidity);
    if (r != 0 && r != IMAP_MAILBOX_EXISTS) return r;
    *mbd = mb.mbd;
    mailbox_close(&mb);
    // The files must be on disk before the row makes them count.
    if (sync_file_barrier() != 0) {
        svclog(nullptr, 59, "Unable to add new mailbox entry %s: %m", name);
        return IMAP_IOERROR;
    }
    return r;
}

// Puts the folder's row, with qd (a new user's root) its quota row, and
// its entries of lright.db in one transaction. 0 or IMAP_IOERROR (logged;
// nothing written then).
static int create_rows(const char *name, const struct mboxdata *mbd, const char *part,
                       const char *acl, struct quotadata *qd)
{
    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);
    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB), *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    DBT key, data, quota;
    mboxlist_create_struct(&key, &data, &quota, name, mbd, part, acl, qd);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "create", name);
        if (r) break;
        r = folders->put(folders, txn, &key, &data, 0);
        if (!r && qd) r = quotas->put(quotas, txn, &key, &quota, 0);
        // The identifiers that may look the folder up get it in their rows
        // of lright.db, a user's root as well: the rights list follows
        // every ACL, or a repair would find rows missing.
        if (!r) r = mboxlist_changeshared(acl, owner, name, nullptr, MBOXLIST_LRIGHT_ADD, txn);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    free(data.data);
    if (r) {
        svclog(nullptr, 59, "Unable to add new mailbox entry %s: %s", name, mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

int mboxlist_createmailbox(const char *name, unsigned version, const char *partition,
                           const char *userid, const struct auth_state *auth,
                           uint32_t storagequota, uint32_t msgquota, time_t uidvalidity,
                           const char *acl)
{
    uint32_t locker;
    if (mboxlist_init() != 0) return IMAP_IOERROR;
    if (mboxlist_lock_create(&locker, name, nullptr, 0) != 0) return IMAP_IOERROR;

    char *checkacl = nullptr, *part = nullptr;
    int r = mboxlist_createmailboxcheck(name, version, partition, userid, auth,
                                        acl ? nullptr : &checkacl, &part);
    const char *useacl = acl ? acl : checkacl;
    char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
    path[0] = mpath[0] = '\0';
    if (!r) {
        r = mboxlist_getpath(name, part, path, mpath);
        // A row without files needs no path: its partition may be "version3".
        if (version == MAILBOX_VERSION_DBONLY) r = 0;
    }

    struct mboxdata mbd;
    int created = 0;
    if (!r) {
        created = create_files(name, version, part, path, mpath, useacl, uidvalidity, &mbd);
        if (created != IMAP_MAILBOX_EXISTS) r = created;
    }
    if (!r) {
        // A new user's root gets its quota row with the limits given.
        struct quotadata qd;
        memset(&qd, 0, sizeof qd);
        qd.limit = storagequota;
        qd.limit_messages = msgquota;
        char ownerbuf[MBOXNAME_OWNER_SIZE];
        int newuser = mboxname_owner(name, ownerbuf) && !strchr(name + 5, '/');
        // Should this fail, the files stay: the next create of this name
        // takes them over.
        r = create_rows(name, &mbd, part, useacl, newuser ? &qd : nullptr);
    }
    mboxlist_unlock_create(locker);
    free(checkacl);
    free(part);
    return r ? r : created;
}

// ---------------------------------------------------------------------------
// Delete

int mboxlist_deletemailboxcheck(const char *name, const struct auth_state *auth)
{
    if (auth_adminFor(auth, nullptr) > AUTH_ADMIN_TENANT) return 0;
    const char *pins = config_get_string(config_getdefaultcache(), "local.store.pin", nullptr);
    const char *own = mboxname_mailbox(name);
    if (!pins || !*pins || !own) return 0;
    size_t ownlen = strlen(own);
    for (const char *p = pins;;) {
        const char *end = strchr(p, '%');
        size_t len = end ? (size_t)(end - p) : strlen(p);
        if (len == ownlen && strncmp(p, own, len) == 0) return IMAP_MAILBOX_PINNED;
        if (!end) break;
        p = end + 1;
    }
    return 0;
}

// The first folder behind name + "/" in key order, into child; 1 if it is
// one of name's children, 0 if none is left, or IMAP_IOERROR.
static int next_child(const char *name, char *child)
{
    size_t nlen = strlen(name);
    if (nlen + 1 > MAX_MAILBOX_NAME) return 0;
    for (;;) {
        memcpy(child, name, nlen);
        child[nlen] = '/';
        DBT key, data;
        memset(&key, 0, sizeof key);
        key.data = child;
        key.size = (uint32_t)nlen + 1;
        key.ulen = MAX_MAILBOX_NAME;
        key.flags = DB_DBT_USERMEM;
        char none;
        memset(&data, 0, sizeof data);
        data.data = &none;
        data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        DB *folders = mboxlist_db(MBOXLIST_FOLDERDB);
        DBC *cursor;
        int r = folders->cursor(folders, nullptr, &cursor, 0);
        if (r) {
            svclog(nullptr, 59, "Unable to open cursor on mailbox list: %s", db_strerror(r));
            return IMAP_IOERROR;
        }
        r = cursor->c_get(cursor, &key, &data, DB_SET_RANGE);
        cursor->c_close(cursor);
        if (r == DB_LOCK_DEADLOCK) continue;
        if (r == DB_NOTFOUND || r == DB_KEYEMPTY) return 0;
        if (r) {
            svclog(nullptr, 59, "Unable to read mailbox list: %s", db_strerror(r));
            return IMAP_IOERROR;
        }
        child[key.size < MAX_MAILBOX_NAME ? key.size : MAX_MAILBOX_NAME - 1] = '\0';
        return mboxlist_name_comparen(child, name, (int)nlen) == 0 && child[nlen] == '/';
    }
}

// The old subscription file of a user and the two fan-out directories
// above it, when they are empty.
static void remove_subscription_file(const char *owner)
{
    char path[MBOXLIST_PATH_BUFFER];
    if (mboxlist_oldsub_path(owner, path, sizeof path) != 0) return;
    unlink(path);
    for (int i = 0; i < 2; i++) {
        char *cut = strrchr(path, '/');
        char *bs = strrchr(path, '\\');
        if (bs > cut) cut = bs;
        if (!cut) return;
        *cut = '\0';
        rmdir(path);
    }
}

// The checks of a delete before anything changes: rights on the row that
// *row receives (the caller frees it). 0 or the result of the delete.
static int delete_rights(const char *name, int deleteuser, int isadmin, const char *userid,
                         const struct auth_state *auth, int checkacl, char **row)
{
    int r = mboxlist_lookup_data(name, row, nullptr);
    // An unreadable row is no missing one: the failure is the answer.
    if (r) return r;
    if (isadmin == -1 || (!deleteuser && !checkacl)) return 0;
    int rights = acl_myrights(auth, mboxlist_acl(*row));
    if (rights & ACL_CREATE) return 0;
    // Who may not see the folder doesn't learn that it exists.
    if (deleteuser || isadmin || mboxname_userownsmailbox(userid, name) || (rights & ACL_LOOKUP))
        return IMAP_PERMISSION_DENIED;
    return IMAP_MAILBOX_NONEXISTENT;
}

// Deletes every folder below a user's root, under the caller's locks.
static int delete_children(const char *name, int isadmin, const char *userid,
                           const struct auth_state *auth, char *path, char *mpath, char *child)
{
    // Children sort right behind their parent: take the first one again
    // and again until none is left.
    for (;;) {
        int found = next_child(name, child);
        if (found == IMAP_IOERROR) return found;
        if (!found) return 0;
        char *childname = xstrdup(child);
        int r = mboxlist_deletemailbox_internal(childname, isadmin, userid, auth, 0, path, mpath,
                                                child, 1);
        free(childname);
        if (r) return r;
    }
}

// Removes the folder's rows in one transaction: its folder.db row, and for
// a user's root the quota row and the owner's subscriptions as well.
// 0 or IMAP_IOERROR (logged); nothing changed then.
static int delete_rows(const char *name, const char *owner, int deleteuser, const char *row,
                       struct quotadata *quota)
{
    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB), *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    struct mboxdata mbd;
    memset(&mbd, 0, sizeof(mbd));
    if (row) memcpy(&mbd, row, sizeof(mbd));
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "delete", name);
        if (r) break;
        // A folder of a user who stays gives its usage back to the root.
        r = 0;
        if (!deleteuser && row) {
            r = mboxlist_changequota_internal(name, mbd.quota_used[0], mbd.quota_used[1],
                                              mbd.exists, txn, 1, quota);
            if (r == IMAP_QUOTAROOT_NONEXISTENT) r = 0;  // a name with no root
        }
        // The folder leaves the rows of lright.db that list it; a user's
        // root too, so that no row names a folder that is gone.
        if (!r && row)
            r = mboxlist_changeshared(mboxlist_acl(row), owner, name, nullptr,
                                      MBOXLIST_LRIGHT_REMOVE, txn);
        DBT key;
        mboxlist_set_key(name, &key);
        if (!r) r = folders->del(folders, txn, &key, 0);
        if (!r && deleteuser) {
            r = quotas->del(quotas, txn, &key, 0);
            if (r == DB_NOTFOUND || r == DB_KEYEMPTY) r = 0;
            if (!r && owner) r = mboxlist_delete_subscriptions(txn, owner);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to delete mailbox list entry of %s: %s", name,
               mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

// Removes the files and per-user data of a folder whose rows are gone.
// Failures are logged and change nothing for the caller: the rows are gone.
static void delete_files(const char *name, const char *row, char *path, char *mpath)
{
    struct mailbox mb = zeromailbox;
    const char *part = mboxlist_partition(row);
    int r = mboxlist_getpath(name, part, path, mpath);
    if (!r)
        r = mailbox_open_path(name, 0, part, path, mpath[0] ? mpath : nullptr, mboxlist_acl(row),
                              auth_dontCheckAcl, &mb);
    if (!r) {
        mailbox_delete(&mb, 0);
        return;
    }
    svclog(nullptr, 59, "Unable to remove mailbox %s: %s", name, mboxlist_strerror(r));
    // No folder on disk to remove; its per-user rows go all the same.
    struct mailbox bare = zeromailbox;
    bare.name = const_cast<char *>(name);
    if (seen_delete(&bare, 0) != 0)
        svclog(nullptr, 59, "Unable to remove per-user data of %s", name);
}

int mboxlist_deletemailbox_internal(const char *name, int isadmin, const char *userid,
                                    const struct auth_state *auth, int checkacl, char *path,
                                    char *mpath, char *child, int recursive)
{
    int r = mboxlist_deletemailboxcheck(name, auth);
    if (r) return r;
    int deleteuser = strncmp(name, "user/", 5) == 0 && !strchr(name + 5, '/');
    if (deleteuser) {
        // Nobody deletes their own root.
        if (mboxname_userownsmailbox(userid, name)) return IMAP_MAILBOX_NOTSUPPORTED;
        if (isadmin == 0) return IMAP_PERMISSION_DENIED;
    }
    // Without checks a folder that isn't there takes no lock.
    char *row = nullptr;
    if (!deleteuser && !checkacl) {
        r = mboxlist_lookup_data(name, nullptr, nullptr);
        if (r) return r;
    }
    uint32_t locker = 0;
    if (!recursive && mboxlist_lock_create(&locker, name, nullptr, deleteuser) != 0)
        return IMAP_IOERROR;

    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);
    r = delete_rights(name, deleteuser, isadmin, userid, auth, checkacl, &row);
    if (!r && deleteuser) r = delete_children(name, isadmin, userid, auth, path, mpath, child);
    // The rows go first: a crash from here on leaves only files, which a
    // later create of the name takes over.
    struct quotadata quota;
    memset(&quota, 0, sizeof(quota));
    if (!r) r = delete_rows(name, owner, deleteuser, row, &quota);
    if (!r && !deleteuser && row)
        mboxlist_adjustquotastatus(name, nullptr, &quota, 0, nullptr);
    if (!r) {
        // The removal of the rows must be on disk before the files go:
        // commits don't sync the database log by default, and a machine
        // that crashed now must not find a row whose files are gone. If
        // the log can't be written (a full disk), the files stay; should
        // the rows then be gone for good, the files are leftovers without
        // a row, which the next create of the name takes over with their
        // messages.
        DB_ENV *env = mboxlist_env();
        int f = env ? env->log_flush(env, nullptr) : EINVAL;
        if (f) {
            svclog(nullptr, 59, "Unable to remove mailbox %s: database log not written: %s", name,
                   db_strerror(f));
            r = IMAP_IOERROR;
        }
    }
    if (!r) {
        // Nothing can stop the deletion now; a failure only leaves files.
        delete_files(name, row, path, mpath);
        if (deleteuser && owner) remove_subscription_file(owner);
    }
    if (!recursive) mboxlist_unlock_create(locker);
    free(row);
    return r;
}

int mboxlist_deletemailbox(const char *name, const char *userid, const struct auth_state *auth)
{
    if (mboxlist_init() != 0) return IMAP_IOERROR;
    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);
    int isadmin = auth == auth_dontCheckAcl ? -1 : auth_adminFor(auth, owner);
    char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
    char child[MBOXLIST_CHILD_BUFFER];
    return mboxlist_deletemailbox_internal(name, isadmin, userid, auth, isadmin != -1, path, mpath,
                                           child, 0);
}

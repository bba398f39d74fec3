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
    if (!mboxlockenv) return EINVAL;
    int r = mboxlockenv->lock_id(mboxlockenv, locker);
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
    r = mboxlockenv->lock_vec(mboxlockenv, *locker, 0, req + 1, n - 1, &failed);
    // A deadlock victim gives back what it holds and asks for all again.
    while (r == DB_LOCK_DEADLOCK) r = mboxlockenv->lock_vec(mboxlockenv, *locker, 0, req, n, &failed);
    if (r) {
        svclog(nullptr, 59, "Unable to lock %s: %s", name, db_strerror(r));
        DB_LOCKREQ put;
        memset(&put, 0, sizeof put);
        put.op = DB_LOCK_PUT_ALL;
        mboxlockenv->lock_vec(mboxlockenv, *locker, 0, &put, 1, nullptr);
        mboxlockenv->lock_id_free(mboxlockenv, *locker);
    }
    return r;
}

void mboxlist_unlock_create(uint32_t locker)
{
    DB_LOCKREQ put;
    memset(&put, 0, sizeof put);
    put.op = DB_LOCK_PUT_ALL;
    int r;
    do {
        r = mboxlockenv->lock_vec(mboxlockenv, locker, 0, &put, 1, nullptr);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == 0) r = mboxlockenv->lock_id_free(mboxlockenv, locker);
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

    // A lookup tells only whether a row could be read.
    char *row = nullptr;
    int n = mboxlist_lookup_data(name, &row, nullptr);
    if (n > 0 && row) {
        // Who may not see the folder doesn't learn that it exists.
        int rights = acl_myrights(auth, mboxlist_acl(row));
        free(row);
        return (!isadmin && !(rights & ACL_LOOKUP)) ? IMAP_PERMISSION_DENIED
                                                    : IMAP_MAILBOX_EXISTS;
    }
    free(row);
    row = nullptr;

    if (config_get_int(config_getdefaultcache(), "local.store.maxfolders", 0) > 0) {
        // The limit counts the owner's folders through the folder listing
        // (mboxlist_findall with mbox_count), which the store doesn't have
        // yet; until it lands the limit isn't enforced.
    }

    // The nearest existing parent decides rights, ACL and partition.
    char parent[MAX_MAILBOX_NAME];
    strlcpy(parent, name, sizeof parent);
    for (;;) {
        char *slash = strrchr(parent, '/');
        if (!slash) break;
        *slash = '\0';
        if (!strchr(parent, '/')) break;
        n = mboxlist_lookup_data(parent, &row, nullptr);
        if (n > 0 && row) break;
        free(row);
        row = nullptr;
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
            char *acl = xstrdup("");
            acl_modify(&acl, userid ? userid : owner, ACL_MODE_SET, ACL_ALL, nullptr, nullptr);
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
    if (r) {
        mboxlist_unlock_create(locker);
        return r;
    }
    const char *useacl = acl ? acl : checkacl;

    char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
    path[0] = mpath[0] = '\0';
    r = mboxlist_getpath(name, part, path, mpath);
    if (r && version != MAILBOX_VERSION_DBONLY) {
        free(checkacl);
        free(part);
        mboxlist_unlock_create(locker);
        return r;
    }

    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);
    int newuser = 0, shared = 0;
    struct quotadata qd;
    memset(&qd, 0, sizeof qd);
    if (owner) {
        if (!strchr(name + 5, '/')) {
            newuser = 1;
            qd.limit = storagequota;
            qd.limit_messages = msgquota;
        }
        shared = acl_isshared(useacl, owner);
    }

    struct mboxdata mbd;
    memset(&mbd, 0, sizeof mbd);
    int created = 0;
    if (version == MAILBOX_VERSION_DBONLY) {
        mbd.version = version;
    } else {
        struct mailbox mb = zeromailbox;
        created = mailbox_create(name, part, path, mpath[0] ? mpath : nullptr, useacl, version,
                                 &mb, uidvalidity);
        if (created == 0 || created == IMAP_MAILBOX_EXISTS) {
            mbd = mb.mbd;
            mailbox_close(&mb);
        } else {
            free(checkacl);
            free(part);
            mboxlist_unlock_create(locker);
            return created;
        }
    }

    // The files must be on disk before the row makes them count.
    if (sync_file_barrier() != 0) {
        svclog(nullptr, 59, "Unable to add new mailbox entry %s: %m", name);
        free(checkacl);
        free(part);
        mboxlist_unlock_create(locker);
        return IMAP_IOERROR;
    }

    DBT key, data, quota;
    mboxlist_create_struct(&key, &data, &quota, name, &mbd, part, useacl, &qd);
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "create", name);
        if (r) break;
        r = mbl->put(mbl, txn, &key, &data, 0);
        if (!r && newuser) r = quotadb->put(quotadb, txn, &key, &quota, 0);
        if (!r && !newuser && shared) {
            // Entering the folder into lright.db for the identifiers that
            // may see it (mboxlist_changeshared) belongs to the access
            // control module, which the store doesn't have yet; the listing
            // of shared folders reads the ACLs in any case.
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    mboxlist_unlock_create(locker);
    if (r) {
        svclog(nullptr, 59, "Unable to add new mailbox entry %s: %s", name,
               r > 0 || (r >= -30999 && r <= -30800) ? db_strerror(r) : "System I/O error");
        r = IMAP_IOERROR;
    }
    free(data.data);
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
        DBC *cursor;
        int r = mbl->cursor(mbl, nullptr, &cursor, 0);
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
        return name_comparen(child, name, (int)nlen) == 0 && child[nlen] == '/';
    }
}

// The old subscription file of a user and the two fan-out directories
// above it, when they are empty.
static void remove_subscription_file(const char *owner)
{
    const char *dir = configmsg_get_storedir();
    if (!dir) return;
    char hash[MBOXNAME_HASH_SIZE];
    mboxname_tohash(owner, 0, hash);
    char path[MBOXLIST_PATH_BUFFER];
    int n = snprintf(path, sizeof path, "%s/user%s%s.sub", dir, hash, owner);
    if (n < 0 || (size_t)n >= sizeof path) return;
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

int mboxlist_deletemailbox_internal(const char *name, int isadmin, const char *userid,
                                    const struct auth_state *auth, int checkacl, char *path,
                                    char *mpath, char *child, int recursive)
{
    int r = mboxlist_deletemailboxcheck(name, auth);
    if (r) return r;

    uint32_t locker = 0;
    int locked = 0;
    char *row = nullptr;
    int deleteuser = strncmp(name, "user/", 5) == 0 && !strchr(name + 5, '/');

    if (deleteuser) {
        // Nobody deletes their own root.
        if (mboxname_userownsmailbox(userid, name)) return IMAP_MAILBOX_NOTSUPPORTED;
        if (isadmin == 0) return IMAP_PERMISSION_DENIED;
        if (!recursive) {
            if (mboxlist_lock_create(&locker, name, nullptr, 1) != 0) return IMAP_IOERROR;
            locked = 1;
        }
        if (mboxlist_lookup_data(name, &row, nullptr) <= 0 || !row) {
            r = IMAP_MAILBOX_NONEXISTENT;
        } else if (isadmin != -1 && !(acl_myrights(auth, mboxlist_acl(row)) & ACL_CREATE)) {
            r = IMAP_PERMISSION_DENIED;
        }
    } else if (checkacl) {
        if (!recursive) {
            if (mboxlist_lock_create(&locker, name, nullptr, 0) != 0) return IMAP_IOERROR;
            locked = 1;
        }
        if (mboxlist_lookup_data(name, &row, nullptr) <= 0 || !row) {
            r = IMAP_MAILBOX_NONEXISTENT;
        } else {
            int rights = acl_myrights(auth, mboxlist_acl(row));
            if (!(rights & ACL_CREATE)) {
                // Who may not see the folder doesn't learn that it exists.
                r = (isadmin || mboxname_userownsmailbox(userid, name) || (rights & ACL_LOOKUP))
                        ? IMAP_PERMISSION_DENIED
                        : IMAP_MAILBOX_NONEXISTENT;
            }
        }
    } else {
        if (mboxlist_lookup_data(name, &row, nullptr) <= 0 || !row) {
            free(row);
            return IMAP_MAILBOX_NONEXISTENT;
        }
        if (!recursive) {
            if (mboxlist_lock_create(&locker, name, nullptr, 0) != 0) {
                free(row);
                return IMAP_IOERROR;
            }
            locked = 1;
        }
    }
    if (r) {
        free(row);
        if (locked) mboxlist_unlock_create(locker);
        return r;
    }

    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(name, ownerbuf);

    if (deleteuser) {
        // Children sort right behind their parent: take the first one
        // again and again until none is left.
        for (;;) {
            int found = next_child(name, child);
            if (found < 0 || found == IMAP_IOERROR) {
                r = IMAP_IOERROR;
                break;
            }
            if (!found) break;
            char *childname = xstrdup(child);
            r = mboxlist_deletemailbox_internal(childname, isadmin, userid, auth, 0, path, mpath,
                                                child, 1);
            free(childname);
            if (r) break;
        }
        if (r) {
            free(row);
            if (locked) mboxlist_unlock_create(locker);
            return r;
        }
    }

    int shared = !deleteuser && owner && acl_isshared(mboxlist_acl(row), owner);

    // The rows go first: a crash from here on leaves only files, which a
    // later create of the name takes over.
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "delete", name);
        if (r) break;
        if (!deleteuser) {
            // Taking the folder's usage off its quota root
            // (mboxlist_changequota_internal) comes with the quota module,
            // and removing it from lright.db (mboxlist_changeshared) with
            // the access control module; the store has neither yet.
            (void)shared;
        }
        DBT key;
        mboxlist_set_key(name, &key);
        r = mbl->del(mbl, txn, &key, 0);
        if (!r && deleteuser) {
            r = quotadb->del(quotadb, txn, &key, 0);
            if (r == DB_NOTFOUND || r == DB_KEYEMPTY) r = 0;
            if (!r && owner) r = mboxlist_delete_subscriptions(txn, owner);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        free(row);
        if (locked) mboxlist_unlock_create(locker);
        return r;
    }
    // The quota status of the root (mboxlist_adjustquotastatus) is judged
    // again once the quota module is part of the store.

    // The removal of the row must be on disk before the files go: commits
    // don't sync the database log by default, and a machine that crashed
    // now must not find a row whose files are gone.
    if (mboxlist_dbenv) mboxlist_dbenv->log_flush(mboxlist_dbenv, nullptr);

    // Nothing can stop the deletion now; a failure only leaves files.
    struct mailbox mb = zeromailbox;
    r = mboxlist_getpath(name, mboxlist_partition(row), path, mpath);
    if (!r)
        r = mailbox_open_path(name, 0, mboxlist_partition(row), path, mpath[0] ? mpath : nullptr,
                              mboxlist_acl(row), auth_dontCheckAcl, &mb);
    if (!r) {
        mailbox_delete(&mb, 0);
    } else {
        // No folder on disk to remove; its per-user rows go all the same.
        struct mailbox bare = zeromailbox;
        bare.name = const_cast<char *>(name);
        seen_delete(&bare, 0);
        svclog(nullptr, 59, "Unable to remove mailbox %s: %s", name,
               r > 0 || (r >= -30999 && r <= -30800) ? db_strerror(r) : PR_ErrorToString(r, 0));
        r = 0;
    }

    if (deleteuser && owner) remove_subscription_file(owner);
    if (locked) mboxlist_unlock_create(locker);
    free(row);
    return 0;
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

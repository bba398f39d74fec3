// Folder rename: collects the folders under the old name, then renames one
// folder at a time (new files, rows in one transaction, old files). See the
// header for the four kinds of rename and the crash order.
#include "store/mboxlist_rename.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mailbox_create.h"
#include "store/mboxlist.h"
#include "store/mboxlist_acl.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_quota.h"
#include "store/mboxname.h"
#include "store/seen_db.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/log.h"
#include "support/xmalloc.h"

namespace {

// The names of folder.db from oldname on that are oldname or below it, in
// key order. 0, IMAP_MAILBOX_NONEXISTENT, IMAP_MAILBOX_BADNAME (a child's
// new name would be too long) or IMAP_IOERROR.
int collect(const char *oldname, const char *newname, char ***list, int *count) {
    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB);
    size_t oldlen = strlen(oldname), newlen = strlen(newname);
    for (;;) {
        *list = nullptr;
        *count = 0;
        DBC *cursor = nullptr;
        if (folders->cursor(folders, nullptr, &cursor, 0) != 0) return IMAP_IOERROR;
        DBT key, data;
        memset(&key, 0, sizeof(key));
        memset(&data, 0, sizeof(data));
        // DB_SET_RANGE hands back the key it found: the search key is a
        // copy in a buffer of the largest key's size.
        char first[MAX_MAILBOX_NAME + 1];
        snprintf(first, sizeof(first), "%s", oldname);
        key.data = first;
        key.size = (uint32_t)oldlen + 1;
        key.ulen = sizeof(first);
        key.flags = DB_DBT_USERMEM;
        data.flags = DB_DBT_PARTIAL | DB_DBT_USERMEM;  // names only
        // From the first key at or after the old name: after a rename that
        // stopped between folders the old name itself is gone, and the same
        // rename again finds the children that are left and completes it.
        int r = cursor->get(cursor, &key, &data, DB_SET_RANGE);
        int result = 0;
        while (r == 0) {
            const char *name = (const char *)key.data;
            size_t len = strnlen(name, key.size);
            if (len < oldlen || mboxlist_name_comparen(name, oldname, (int)oldlen) != 0 ||
                (name[oldlen] != '\0' && name[oldlen] != '/'))
                break;
            if (len - oldlen + newlen >= MAX_MAILBOX_NAME) result = IMAP_MAILBOX_BADNAME;
            *list = (char **)xrealloc(*list, sizeof(char *) * (size_t)(*count + 1));
            (*list)[(*count)++] = xstrndup(name, len);
            if (result) break;
            r = cursor->get(cursor, &key, &data, DB_NEXT);
        }
        cursor->close(cursor);
        if (r == DB_LOCK_DEADLOCK) {
            for (int i = 0; i < *count; i++) free((*list)[i]);
            free(*list);
            continue;
        }
        if (*count == 0 && !result) result = r == 0 || r == DB_NOTFOUND ? IMAP_MAILBOX_NONEXISTENT : IMAP_IOERROR;
        return result;
    }
}

// True for "user/<id>" with nothing behind the id.
int is_user_root(const char *name) { return strncmp(name, "user/", 5) == 0 && !strchr(name + 5, '/'); }

// The state of a rename, kept across its folders.
struct rename_run {
    const char *oldbase, *newbase, *partition, *userid;
    const struct auth_state *auth;
    int owner_change;
    int user_rename;  // 1 for the root of a renamed user, -1 for its children
    int keep_old;
    char oldowner[MBOXNAME_OWNER_SIZE], newowner[MBOXNAME_OWNER_SIZE];
    struct quotadata oldquota, newquota;  // rows of the last transaction
};

// Who may do what with folder (its row given); the partition move's own
// checks. 0 to go on, 1 when there is nothing to do, or an error.
int decide(struct rename_run *x, const char *folder, const char *newfolder, const char *row,
           const char *owner) {
    const char *acl = mboxlist_acl(row);
    int siteadmin = x->auth == auth_dontCheckAcl || auth_adminFor(x->auth, nullptr) >= AUTH_ADMIN_SITE;
    if (strcmp(folder, newfolder) == 0) {
        if (!x->partition || !siteadmin) return IMAP_MAILBOX_EXISTS;
        if (strcmp(x->partition, mboxlist_partition(row)) == 0) return 1;
        char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
        int r = mboxlist_getpath(folder, mboxlist_partition(row), path, mpath);
        if (r) return r;
        char *root = configmsg_partitiondir(x->partition);
        if (!root) return IMAP_PARTITION_UNKNOWN;
        size_t n = strlen(root);
        int inside = strncmp(path, root, n) == 0 && (path[n] == '/' || path[n] == '\\');
        free(root);
        return inside ? IMAP_MAILBOX_NOTSUPPORTED : 0;
    }
    if (is_user_root(folder) && x->userid && mboxname_userownsmailbox(x->userid, folder)) {
        if (!(acl_myrights(x->auth, acl) & ACL_CREATE)) return IMAP_PERMISSION_DENIED;
        x->keep_old = 1;
        return 0;
    }
    if (is_user_root(folder)) {
        if (!siteadmin) return IMAP_MAILBOX_NOTSUPPORTED;
        if (strchr(newfolder + 5, '/')) {
            // The contents go to a folder of the same user.
            x->userid = owner;
            x->keep_old = 1;
        } else {
            x->user_rename = 1;
        }
        return 0;
    }
    if (x->auth != auth_dontCheckAcl) {
        int rights = acl_myrights(x->auth, acl);
        if (!(rights & ACL_CREATE))
            return (rights & ACL_LOOKUP) || auth_adminFor(x->auth, owner) ? IMAP_PERMISSION_DENIED
                                                                         : IMAP_MAILBOX_NONEXISTENT;
    }
    return 0;
}

// The rows of one folder's rename, under txn.
int rename_rows(struct rename_run *x, DB_TXN *txn, const char *folder, const char *newfolder,
                const char *rowacl, const char *owner, struct mailbox *mb, struct mailbox *newmb,
                const char *newpart) {
    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB), *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, newfolder, &mb->mbd, newpart, mb->acl, nullptr);
    int r = folders->put(folders, txn, &key, &data, 0);
    free(data.data);
    if (!r) r = seen_copy(txn, mb, newmb, x->user_rename != 0, x->oldowner, x->newowner);
    if (!r) r = mboxlist_changeshared(rowacl, owner, folder, newfolder, 2, txn);
    uint32_t low = mb->mbd.quota_used[0], high = mb->mbd.quota_used[1], exists = mb->mbd.exists;
    if (!r && x->user_rename == 1) {
        // The user's root: the quota row goes to the new name. Its usage
        // counts all the user's folders, which all move along, so it stays;
        // only a root without a row starts from the root folder's figures.
        struct quotadata q;
        r = mboxlist_lookup_quota(folder, &q, txn);
        if (r == DB_NOTFOUND) {
            r = 0;
            q.used_low = low, q.used_high = high, q.used_messages = exists;
        }
        if (!r) {
            DBT qkey, qdata;
            mboxlist_create_struct(&qkey, nullptr, &qdata, newfolder, nullptr, nullptr, nullptr, &q);
            r = quotas->put(quotas, txn, &qkey, &qdata, 0);
            x->newquota = q;
        }
        DBT oldkey;
        mboxlist_set_key(folder, &oldkey);
        if (!r) r = folders->del(folders, txn, &oldkey, 0);
        if (!r) {
            r = quotas->del(quotas, txn, &oldkey, 0);
            if (r == DB_NOTFOUND) r = 0;
        }
        if (!r) r = mboxlist_renamesub(txn, x->oldowner, x->newowner);
        if (!r) r = mboxlist_renameacl(txn, x->oldowner, x->newowner);
        return r;
    }
    if (!r && x->user_rename == 0 && x->owner_change) {
        r = mboxlist_changequota_internal(folder, low, high, exists, txn, 1, &x->oldquota);
        if (r == IMAP_QUOTAROOT_NONEXISTENT) r = 0;
        if (!r) r = mboxlist_changequota_internal(newfolder, low, high, exists, txn, 0, &x->newquota);
        if (r == IMAP_QUOTAROOT_NONEXISTENT) r = 0;
        if (!r && x->oldowner[0]) r = mboxlist_changelright(x->oldowner, newfolder, nullptr, 1, txn);
    }
    if (!r && !x->keep_old && strcmp(folder, newfolder) != 0) {
        DBT oldkey;
        mboxlist_set_key(folder, &oldkey);
        r = folders->del(folders, txn, &oldkey, 0);
    }
    return r;
}

// Renames one folder: 0 or an error (the rename stops then).
int rename_one(struct rename_run *x, const char *folder) {
    char newfolder[MAX_MAILBOX_NAME];
    snprintf(newfolder, sizeof(newfolder), "%s%s", x->newbase, folder + strlen(x->oldbase));
    char *row = nullptr;
    int r = mboxlist_lookup_data(folder, &row, nullptr);
    if (r) return r;
    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *owner = mboxname_owner(folder, ownerbuf);
    struct mboxdata mbd;
    memcpy(&mbd, row, sizeof(mbd));
    if (mbd.version == MAILBOX_VERSION_DBONLY) {
        // A folder with a row and no files yet gets them by being opened.
        free(row);
        row = nullptr;
        struct mailbox mb = zeromailbox;
        if (mailbox_open(folder, 0, auth_dontCheckAcl, &mb) == 0) mailbox_close(&mb);
        r = mboxlist_lookup_data(folder, &row, nullptr);
        if (r) return r;
        memcpy(&mbd, row, sizeof(mbd));
        if (mbd.version == MAILBOX_VERSION_DBONLY) {
            free(row);
            return 0;
        }
    }

    r = decide(x, folder, newfolder, row, owner);
    char *newpart = nullptr;
    if (r == 0 && strcmp(folder, newfolder) != 0) {
        if (is_user_root(newfolder) && !x->user_rename) r = IMAP_MAILBOX_NOTSUPPORTED;
        if (!r) r = mboxlist_deletemailboxcheck(folder, x->auth);
        if (!r)
            r = mboxlist_createmailboxcheck(newfolder, 0x102, x->partition, x->userid, x->auth,
                                            nullptr, &newpart);
    } else if (r == 0) {
        newpart = xstrdup(x->partition);
    }
    if (r) {
        free(row);
        return r == 1 ? 0 : r;
    }

    char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
    struct mailbox mb = zeromailbox;
    const char *part = mboxlist_partition(row);
    r = mboxlist_getpath(folder, part, path, mpath);
    if (!r)
        r = mailbox_open_path(folder, 0, part, path, mpath[0] ? mpath : path, mboxlist_acl(row),
                              x->auth, &mb);
    if (r) {
        svclog(nullptr, 59, "Unable to open old mailbox %s: %s", folder, PR_ErrorToString(r, 0));
        free(row), free(newpart);
        return r;
    }
    if (x->user_rename) {
        acl_renameuser(&mb.acl, x->oldowner, x->newowner);
    } else if (x->owner_change) {
        char *acl = cleanacl(mb.acl, newfolder);
        free(mb.acl);
        mb.acl = acl;
    }
    struct mailbox *newmb = nullptr;
    r = mboxlist_getpath(newfolder, newpart, path, mpath);
    if (!r) r = mailbox_rename_start(&mb, newfolder, newpart, path, mpath[0] ? mpath : nullptr,
                                     x->owner_change, &newmb);
    if (r) {
        svclog(nullptr, 59, "Unable to rename mailbox %s", folder);
        mailbox_close(&mb);
        free(row), free(newpart);
        return r == IMAP_MAILBOX_BADNAME ? r : IMAP_IOERROR;
    }
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "rename", folder);
        if (r) break;
        r = rename_rows(x, txn, folder, newfolder, mboxlist_acl(row), owner, &mb, newmb, newpart);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        mailbox_rename_abort(newmb);
        mailbox_close(&mb);
        free(row), free(newpart);
        return IMAP_IOERROR;
    }
    mailbox_rename_commit(&mb, newmb, x->keep_old);
    mailbox_close(&mb);
    // Children were permitted with their parent.
    x->auth = auth_dontCheckAcl;
    if (x->user_rename == 1) x->user_rename = -1;
    free(row), free(newpart);
    return 0;
}

}  // namespace

int mboxlist_renamemailbox(const char *oldname, const char *newname, const char *partition,
                           const char *userid, const struct auth_state *auth) {
    uint32_t locker = 0;
    if (mboxlist_init() != 0 || mboxlist_lock_create(&locker, oldname, newname, 1) != 0)
        return IMAP_IOERROR;
    struct rename_run x;
    memset(&x, 0, sizeof(x));
    x.oldbase = oldname, x.newbase = newname, x.partition = partition, x.userid = userid;
    x.auth = auth;
    if (!mboxname_owner(oldname, x.oldowner)) x.oldowner[0] = '\0';
    if (!mboxname_owner(newname, x.newowner)) x.newowner[0] = '\0';
    x.owner_change = strcmp(x.oldowner, x.newowner) != 0;

    char **list = nullptr;
    int count = 0;
    int r = collect(oldname, newname, &list, &count);
    char lastold[MAX_MAILBOX_NAME] = "", lastnew[MAX_MAILBOX_NAME] = "";
    for (int i = 0; r == 0 && i < count && !x.keep_old; i++) {
        r = rename_one(&x, list[i]);
        snprintf(lastold, sizeof(lastold), "%s", list[i]);
        snprintf(lastnew, sizeof(lastnew), "%s%s", newname, list[i] + strlen(oldname));
    }
    if (r == 0 && x.user_rename == 0 && x.owner_change && lastold[0]) {
        mboxlist_adjustquotastatus(lastold, nullptr, &x.oldquota, 0, nullptr);
        mboxlist_adjustquotastatus(lastnew, nullptr, &x.newquota, 0, nullptr);
    }
    mboxlist_unlock_create(locker);
    for (int i = 0; i < count; i++) free(list[i]);
    free(list);
    return r;
}

int acl_renameuser(char **acl, const char *oldid, const char *newid) {
    size_t oldlen = strlen(oldid);
    // A quick test first: a text that never names the identifier stays.
    const char *p = *acl;
    int found = 0;
    for (const char *e = p; e && *e;) {
        const char *tab = strchr(e, '\t');
        if (!tab) break;
        const char *id = *e == '-' ? e + 1 : e;
        if ((size_t)(tab - id) == oldlen && strncmp(id, oldid, oldlen) == 0) found = 1;
        const char *end = strchr(tab + 1, '\t');
        e = end ? end + 1 : nullptr;
    }
    if (!found) return 1;
    size_t size = strlen(p) + 2 * strlen(newid) + 1;
    char *out = (char *)xmalloc(size), *o = out;
    int renamed = 0;
    for (const char *e = p; *e;) {
        const char *tab = strchr(e, '\t');
        const char *end = tab ? strchr(tab + 1, '\t') : nullptr;
        if (!tab || !end || renamed == 2) {
            // The rest (or a damaged tail) is copied as it stands.
            strcpy(o, e);
            o += strlen(o);
            break;
        }
        const char *id = *e == '-' ? e + 1 : e;
        if ((size_t)(tab - id) == oldlen && strncmp(id, oldid, oldlen) == 0) {
            if (*e == '-') *o++ = '-';
            o += sprintf(o, "%s", newid);
            memcpy(o, tab, (size_t)(end - tab + 1));
            o += end - tab + 1;
            renamed++;
        } else {
            memcpy(o, e, (size_t)(end - e + 1));
            o += end - e + 1;
        }
        e = end + 1;
    }
    *o = '\0';
    free(*acl);
    *acl = out;
    return 0;
}

int mboxlist_renamesub(DB_TXN *txn, const char *olduser, const char *newuser) {
    DB *subs = mboxlist_db(MBOXLIST_SUBSDB);
    DBC *cursor = nullptr;
    int r = subs->cursor(subs, txn, &cursor, 0);
    if (r) return r;
    size_t oldlen = strlen(olduser);
    DBT key, data;
    memset(&key, 0, sizeof(key));
    memset(&data, 0, sizeof(data));
    key.data = const_cast<char *>(olduser);
    key.size = (uint32_t)oldlen + 1;
    key.flags = DB_DBT_READONLY;
    data.flags = DB_DBT_MALLOC;
    r = cursor->get(cursor, &key, &data, DB_SET | DB_RMW);
    key.flags = DB_DBT_MALLOC;
    while (r == 0) {
        const char *k = (const char *)key.data;
        if (key.size < oldlen + 1 || memcmp(k, olduser, oldlen + 1) != 0) {
            if (key.data != olduser) free(key.data);
            free(data.data);
            break;
        }
        // The new key: the new user, NUL, and for a subscription the
        // folder and its NUL.
        char newkey[MBOXNAME_OWNER_SIZE + MAX_MAILBOX_NAME + 2];
        size_t newlen = (size_t)snprintf(newkey, sizeof(newkey), "%s", newuser) + 1;
        uint32_t now = (uint32_t)time(nullptr);
        DBT nk, nd;
        memset(&nk, 0, sizeof(nk));
        memset(&nd, 0, sizeof(nd));
        if (key.size > oldlen + 1) {
            // A subscription: a folder of the old user's own becomes the
            // same folder of the new user; others keep their names.
            const char *folder = k + oldlen + 1;
            char moved[MAX_MAILBOX_NAME];
            if (mboxname_userownsmailbox(olduser, folder)) {
                const char *rest = folder + 5 + oldlen;
                mboxname_toownedmailbox(*rest == '/' ? rest + 1 : nullptr, newuser, moved);
                folder = moved;
            }
            newlen += (size_t)snprintf(newkey + newlen, sizeof(newkey) - newlen, "%s", folder) + 1;
        } else {
            nd.data = &now;
            nd.size = sizeof(now);
        }
        nk.data = newkey;
        nk.size = (uint32_t)newlen;
        r = subs->put(subs, txn, &nk, &nd, DB_NOOVERWRITE);
        if (r == DB_KEYEXIST) r = 0;
        if (!r) r = cursor->del(cursor, 0);
        if (key.data != olduser) free(key.data);
        free(data.data);
        key.data = nullptr;
        data.data = nullptr;
        if (!r) r = cursor->get(cursor, &key, &data, DB_NEXT | DB_RMW);
    }
    cursor->close(cursor);
    return r == DB_NOTFOUND || r == DB_KEYEMPTY ? 0 : r;
}

int mboxlist_renameacl(DB_TXN *txn, const char *olduser, const char *newuser) {
    char *list = nullptr;
    uint32_t size = 0;
    int r = mboxlist_lookup_lright(olduser, &list, &size, txn);
    if (r == DB_NOTFOUND) return 0;
    if (r) return r;
    for (uint32_t off = 0; r == 0 && off < size; off += (uint32_t)strlen(list + off) + 1) {
        const char *folder = list + off;
        char *row = nullptr;
        if (mboxlist_lookup_data(folder, &row, txn) == 0) {
            char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
            struct mailbox mb = zeromailbox;
            const char *part = mboxlist_partition(row);
            if (mboxlist_getpath(folder, part, path, mpath) == 0 &&
                mailbox_open_path(folder, 0, part, path, mpath[0] ? mpath : nullptr,
                                  mboxlist_acl(row), nullptr, &mb) == 0) {
                if (mailbox_lock_index(&mb) == 0 && acl_renameuser(&mb.acl, olduser, newuser) == 0) {
                    r = mailbox_write_index_variable_header(&mb);
                    DBT key, data;
                    struct mboxdata mbd;
                    memcpy(&mbd, row, sizeof(mbd));
                    mboxlist_create_struct(&key, &data, nullptr, folder, &mbd, part, mb.acl, nullptr);
                    DB *folders = mboxlist_db(MBOXLIST_FOLDERDB);
                    if (!r) r = folders->put(folders, txn, &key, &data, 0);
                    free(data.data);
                    if (!r) r = mboxlist_changelright(newuser, folder, nullptr, 1, txn);
                }
                mailbox_close(&mb);
            }
        }
        free(row);
        if (!r) r = mboxlist_changelright(olduser, folder, nullptr, 0, txn);
    }
    free(list);
    return r;
}

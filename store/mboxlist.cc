// The rows of the folder database, their key order, the lookups, and the
// one shape of every write: a transaction that is repeated whole while
// Berkeley DB answers with a deadlock.
#include "store/mboxlist.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "store/imap_err.h"
#include "store/mboxname.h"
#include "support/config.h"
#include "support/log.h"
#include "support/osl.h"
#include "support/xmalloc.h"

DB *mbl = nullptr;
DB *quotadb = nullptr;
DB *subsdb = nullptr;
DB *lrightdb = nullptr;

// ---- key order ----------------------------------------------------------

// NUL sorts before TAB, TAB before "/", and "/" before every other byte, so
// that a folder is followed at once by its children, and the first part of
// a two-part key keeps its rows together.
int key_compare(DB *, const DBT *a, const DBT *b) {
    const signed char *x = static_cast<const signed char *>(a->data);
    const signed char *y = static_cast<const signed char *>(b->data);
    uint32_t n = a->size < b->size ? a->size : b->size;
    for (uint32_t i = 0; i < n; i++) {
        signed char c = x[i], d = y[i];
        if (c == d) continue;
        if (c == 0) return -1;
        if (d == 0) return 1;
        if (c == '\t') return -1;
        if (d == '\t') return 1;
        if (c == '/') return -1;
        if (d == '/') return 1;
        return (int)c - (int)d;
    }
    return (int)a->size - (int)b->size;
}

size_t key_prefix(DB *, const DBT *a, const DBT *b) {
    const char *x = static_cast<const char *>(a->data);
    const char *y = static_cast<const char *>(b->data);
    uint32_t n = a->size < b->size ? a->size : b->size;
    for (uint32_t i = 0; i < n; i++)
        if (x[i] != y[i]) return i + 1;
    return a->size < b->size ? a->size + 1 : a->size;
}

int name_comparen(const char *a, const char *b, int n) {
    while (n > 0 && *a && *a == *b) {
        a++;
        b++;
        n--;
    }
    if (n == 0) return 0;
    if (*a == '/' && *b) return -1;
    if (*b == '/' && *a) return 1;
    return (int)(signed char)*a - (int)(signed char)*b;
}

// ---- opening ------------------------------------------------------------

static int open_btree(DB **handle, DB_ENV *env, const char *file, uint32_t pagesize,
                      key_compare_fn cmp, key_prefix_fn prefix, int level, const char *what) {
    int r = db_create(handle, env, 0);
    if (r == 0) r = (*handle)->set_pagesize(*handle, pagesize);
    if (r == 0) r = (*handle)->set_bt_compare(*handle, cmp);
    if (r == 0) r = (*handle)->set_bt_prefix(*handle, prefix);
    if (r == 0)
        r = (*handle)->open(*handle, nullptr, file, nullptr, DB_BTREE,
                            DB_CREATE | DB_THREAD | DB_AUTO_COMMIT, 0600);
    if (r != 0) {
        if (r > 0) errno = r;
        svclog(nullptr, level, "Unable to open %s database: %s", what, db_strerror(r));
        return -1;
    }
    return 0;
}

int folder_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix) {
    return open_btree(&mbl, env, file, 4096, cmp, prefix, 59, "mboxlist");
}

int quota_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix) {
    return open_btree(&quotadb, env, file, 512, cmp, prefix, 58, "quota");
}

int sub_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix) {
    return open_btree(&subsdb, env, file, 4096, cmp, prefix, 58, "subscription");
}

int lright_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix) {
    return open_btree(&lrightdb, env, file, 4096, cmp, prefix, 58, "lright");
}

// ---- rows ---------------------------------------------------------------

void mboxlist_set_key(const char *name, DBT *key) {
    memset(key, 0, sizeof(*key));
    key->data = const_cast<char *>(name);
    key->size = (uint32_t)strlen(name) + 1;
    // Handles opened for threads want to know who owns a key's memory: the
    // caller's name, which the library must not write to.
    key->flags = DB_DBT_READONLY;
}

void mboxlist_create_struct(DBT *key, DBT *data, DBT *quota, const char *name,
                            const struct mboxdata *mbd, const char *partition, const char *acl,
                            struct quotadata *qd) {
    if (key) mboxlist_set_key(name, key);
    if (data) {
        if (!partition) partition = "";
        if (!acl) acl = "";
        size_t p = strlen(partition), a = strlen(acl);
        size_t size = sizeof(struct mboxdata) + p + 1 + a + 1;
        char *row = static_cast<char *>(xmalloc(size));
        memcpy(row, mbd, sizeof(struct mboxdata));
        memcpy(row + sizeof(struct mboxdata), partition, p + 1);
        memcpy(row + sizeof(struct mboxdata) + p + 1, acl, a + 1);
        memset(data, 0, sizeof(*data));
        data->data = row;
        data->size = (uint32_t)size;
    }
    if (quota) {
        memset(quota, 0, sizeof(*quota));
        quota->data = qd;
        quota->size = sizeof(struct quotadata);
    }
}

const char *mboxlist_partition(const char *row) { return row + sizeof(struct mboxdata); }

const char *mboxlist_acl(const char *row) {
    const char *p = mboxlist_partition(row);
    return p + strlen(p) + 1;
}

// ---- lookups ------------------------------------------------------------

int mboxlist_lookup_data(const char *name, char **row, DB_TXN *txn) {
    if (mboxlist_init() != 0) return -1;
    DBT key, data;
    mboxlist_set_key(name, &key);
    memset(&data, 0, sizeof(data));
    char none;
    if (row) {
        data.flags = DB_DBT_MALLOC;
    } else {
        // Only existence is asked: a partial read of nothing.
        data.data = &none;
        data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        data.ulen = 0;
        data.dlen = 0;
    }
    for (;;) {
        int r = mbl->get(mbl, txn, &key, &data, 0);
        if (r == 0) {
            if (row) *row = static_cast<char *>(data.data);
            return (int)data.size;
        }
        if (r == DB_LOCK_DEADLOCK) {
            if (txn) return 0;
            continue;
        }
        return -1;
    }
}

int mboxlist_lookup_quota(const char *root, struct quotadata *qd, DB_TXN *txn) {
    if (mboxlist_init() != 0) return -1;
    memset(qd, 0, sizeof(*qd));
    qd->limit_messages = QUOTA_UNLIMITED;
    DBT key, data;
    mboxlist_set_key(root, &key);
    memset(&data, 0, sizeof(data));
    data.data = qd;
    data.ulen = data.dlen = sizeof(*qd);
    data.doff = 0;
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    for (;;) {
        int r = quotadb->get(quotadb, txn, &key, &data, txn ? DB_RMW : 0);
        if (r == DB_LOCK_DEADLOCK && !txn) continue;
        return r;
    }
}

int mboxlist_getpath(const char *name, const char *partition, char *path, char *mpath) {
    if (!partition || strcmp(partition, "version3") == 0) return IMAP_PARTITION_UNKNOWN;
    char *root = configmsg_partitiondir(partition);
    if (!root) return IMAP_PARTITION_UNKNOWN;
    int r = mboxname_getpath(name, root, path);
    free(root);
    if (mpath) {
        char *mroot = configmsg_partitionmsgdir(partition);
        if (mroot) {
            if (r == 0) r = mboxname_getpath(name, mroot, mpath);
            free(mroot);
        } else {
            mpath[0] = '\0';
        }
    }
    return r;
}

int mboxlist_lookup(const char *name, struct mboxdata *mbd, char **partition, char **path,
                    char **mpath, char **acl) {
    char *row = nullptr;
    if (mboxlist_lookup_data(name, &row, nullptr) <= 0 || !row) {
        free(row);
        return IMAP_MAILBOX_NONEXISTENT;
    }
    const char *part = mboxlist_partition(row);
    if (path || mpath) {
        char pbuf[1040], mbuf[1040];
        int r = mboxlist_getpath(name, part, pbuf, mbuf);
        if (r) {
            free(row);
            return r;
        }
        if (path) *path = xstrdup(pbuf);
        if (mpath) *mpath = mbuf[0] ? xstrdup(mbuf) : nullptr;
    }
    if (mbd) memcpy(mbd, row, sizeof(*mbd));
    if (partition) *partition = xstrdup(part);
    if (acl) *acl = xstrdup(mboxlist_acl(row));
    free(row);
    return 0;
}

int mboxlist_quotaroot(const char *name, char *out) {
    const char *first = strchr(name, '/');
    if (!first) return IMAP_QUOTAROOT_NONEXISTENT;
    const char *second = strchr(first + 1, '/');
    size_t n = second ? (size_t)(second - name) : strlen(name);
    memcpy(out, name, n);
    out[n] = '\0';
    return 0;
}

// ---- transactions -------------------------------------------------------

int mboxlist_trans_setup(DB_TXN **txn, const char *, const char *) {
    if (mboxlist_init() != 0 || !mboxlist_dbenv) return IMAP_IOERROR;
    for (;;) {
        int r = mboxlist_dbenv->txn_begin(mboxlist_dbenv, nullptr, txn, 0);
        if (r == 0) return 0;
        if (r == DB_LOCK_DEADLOCK || r == ENOSPC) {
            osl_sleep(0);
            continue;
        }
        return IMAP_IOERROR;
    }
}

int mboxlist_trans_finish(DB_TXN *txn, int r) {
    if (r != 0) {
        txn->abort(txn);
        return r;
    }
    r = txn->commit(txn, 0);
    if (r == 0 || r == DB_LOCK_DEADLOCK) return r;
    svclog(nullptr, 59, "Mailbox list commit error: %s", db_strerror(r));
    return IMAP_IOERROR;
}

// ---- updates ------------------------------------------------------------

// Text of a failure that is a Berkeley DB code, a system error or a code
// of the store's error table.
static const char *mboxlist_errtext(int r) {
    if (r > 0 || (r >= -30999 && r <= -30800)) return db_strerror(r);
    return "System I/O error";
}

int mboxlist_updatedata(struct mailbox *mailbox, int write_index_header) {
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, mailbox->name, &mailbox->mbd,
                           mailbox->partition, mailbox->acl, nullptr);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "update", mailbox->name);
        if (r) break;
        r = mbl->put(mbl, txn, &key, &data, 0);
        if (r == 0 && write_index_header) {
            // The index header is written inside the transaction, so that
            // the row and the header count the same messages.
            if (mailbox_write_index_fixed_header(mailbox) != 0) r = IMAP_IOERROR;
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    free(data.data);
    if (r) {
        svclog(nullptr, 59, "Unable to update mailbox list entry of %s: %s", mailbox->name,
               mboxlist_errtext(r));
        return IMAP_IOERROR;
    }
    return 0;
}

int mboxlist_delete_subscriptions(DB_TXN *txn, const char *owner) {
    DBC *cursor;
    int r = subsdb->cursor(subsdb, txn, &cursor, 0);
    if (r) return r;
    char keybuf[514];
    size_t olen = strlen(owner);
    if (olen + 1 > sizeof(keybuf)) olen = sizeof(keybuf) - 1;
    memcpy(keybuf, owner, olen);
    keybuf[olen] = '\0';
    DBT key, data;
    memset(&key, 0, sizeof(key));
    key.data = keybuf;
    key.size = (uint32_t)olen + 1;
    key.ulen = sizeof(keybuf);
    key.flags = DB_DBT_USERMEM;
    char none;
    memset(&data, 0, sizeof(data));
    data.data = &none;
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    r = cursor->c_get(cursor, &key, &data, DB_SET | DB_RMW);
    while (r == 0 && key.size > olen && strncmp(keybuf, owner, olen) == 0 &&
           keybuf[olen] == '\0') {
        r = cursor->c_del(cursor, 0);
        if (r) break;
        r = cursor->c_get(cursor, &key, &data, DB_NEXT | DB_RMW);
    }
    if (r == DB_NOTFOUND || r == DB_KEYEMPTY) r = 0;
    int c = cursor->c_close(cursor);
    return r ? r : c;
}

int mboxlist_delete(const char *name) {
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "delete", name);
        if (r) break;
        DBT key;
        mboxlist_set_key(name, &key);
        r = mbl->del(mbl, txn, &key, 0);
        if (r == DB_NOTFOUND || r == DB_KEYEMPTY) r = 0;
        if (r == 0) {
            r = quotadb->del(quotadb, txn, &key, 0);
            if (r == DB_NOTFOUND || r == DB_KEYEMPTY) {
                // No quota root, so no user's rows to remove either.
                r = 0;
            } else if (r == 0) {
                char owner[128];
                if (mboxname_owner(name, owner)) r = mboxlist_delete_subscriptions(txn, owner);
            }
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to delete mailbox list entry of %s: %s", name,
               mboxlist_errtext(r));
        return IMAP_IOERROR;
    }
    return 0;
}

int mbox_count(const char *, int, int, void *, void *counter) {
    (*static_cast<int *>(counter))++;
    return 0;
}

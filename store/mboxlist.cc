// The rows of the folder database, their key order, the lookups, and the
// one shape of every write: a transaction that is repeated whole while
// Berkeley DB answers with a deadlock.
#include "store/mboxlist.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <prerror.h>

#include "store/imap_err.h"
#include "store/mboxname.h"
#include "support/config.h"
#include "support/log.h"
#include "support/xmalloc.h"

static DB *mbl = nullptr;       // folder.db
static DB *quotadb = nullptr;   // quota.db
static DB *subsdb = nullptr;    // subscr.db
static DB *lrightdb = nullptr;  // lright.db

// ---- key order ----------------------------------------------------------

// NUL sorts before TAB, TAB before "/", and "/" before every other byte, so
// that a folder is followed at once by its children, and the first part of
// a two-part key keeps its rows together.
int mboxlist_key_compare(DB *, const DBT *a, const DBT *b) {
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

size_t mboxlist_key_prefix(DB *, const DBT *a, const DBT *b) {
    const char *x = static_cast<const char *>(a->data);
    const char *y = static_cast<const char *>(b->data);
    uint32_t n = a->size < b->size ? a->size : b->size;
    for (uint32_t i = 0; i < n; i++)
        if (x[i] != y[i]) return i + 1;
    return a->size < b->size ? a->size + 1 : a->size;
}

int mboxlist_name_comparen(const char *a, const char *b, int n) {
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

struct dbfile {
    DB **handle;
    const char *file;
    uint32_t pagesize;
    int level;         // of the log line when the open fails
    const char *what;  // the database's name in that line
};

// quota.db has small pages for its 56-byte rows.
static const struct dbfile dbfiles[] = {
    {&mbl, "folder.db", 4096, 59, "mboxlist"},
    {&quotadb, "quota.db", 512, 58, "quota"},
    {&subsdb, "subscr.db", 4096, 58, "subscription"},
    {&lrightdb, "lright.db", 4096, 58, "lright"},
};

int mboxlist_db_open(enum mboxlist_dbid which, DB_ENV *env) {
    const struct dbfile *f = &dbfiles[which];
    DB *db = nullptr;
    int r = db_create(&db, env, 0);
    if (r == 0) r = db->set_pagesize(db, f->pagesize);
    if (r == 0) r = db->set_bt_compare(db, mboxlist_key_compare);
    if (r == 0) r = db->set_bt_prefix(db, mboxlist_key_prefix);
    if (r == 0)
        r = db->open(db, nullptr, f->file, nullptr, DB_BTREE,
                     DB_CREATE | DB_THREAD | DB_AUTO_COMMIT, 0600);
    if (r != 0) {
        if (db) db->close(db, 0);
        if (r > 0) errno = r;
        svclog(nullptr, f->level, "Unable to open %s database: %s", f->what, db_strerror(r));
        return -1;
    }
    *f->handle = db;
    return 0;
}

DB *mboxlist_db(enum mboxlist_dbid which) { return *dbfiles[which].handle; }

int mboxlist_db_close_all(uint32_t flags) {
    int result = 0;
    for (const struct dbfile &f : dbfiles) {
        DB *db = *f.handle;
        if (!db) continue;
        // Forgotten first: nobody may borrow a handle that is going away.
        *f.handle = nullptr;
        int r = db->close(db, flags);
        if (result == 0) result = r;
    }
    return result;
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

const char *mboxlist_strerror(int r) {
    if (r >= IMAP_ERR_BASE && r < IMAP_ERR_BASE + IMAP_ERR_COUNT) return PR_ErrorToString(r, 0);
    // Berkeley DB's own codes and system error numbers alike.
    return db_strerror(r);
}

// ---- lookups ------------------------------------------------------------

// Whether a row of size bytes holds its summary, then a partition and an
// ACL each ended by a NUL, so that mboxlist_partition and mboxlist_acl
// stay inside it.
static int row_is_whole(const char *row, uint32_t size) {
    const uint32_t fixed = sizeof(struct mboxdata);
    if (size < fixed + 2 || row[size - 1] != '\0') return 0;
    return memchr(row + fixed, '\0', size - fixed - 1) != nullptr;
}

int mboxlist_lookup_data(const char *name, char **row, DB_TXN *txn) {
    if (row) *row = nullptr;
    int r = mboxlist_init();
    if (r) return r;
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
    do {
        r = mbl->get(mbl, txn, &key, &data, 0);
    } while (r == DB_LOCK_DEADLOCK && !txn);
    if (r == DB_NOTFOUND || r == DB_KEYEMPTY) return IMAP_MAILBOX_NONEXISTENT;
    if (r == DB_LOCK_DEADLOCK) return r;
    if (r) {
        // Not "no such folder": the caller must not act as if there were none.
        svclog(nullptr, 59, "Unable to read mailbox list entry of %s: %s", name, db_strerror(r));
        return IMAP_IOERROR;
    }
    if (!row) return 0;
    char *text = static_cast<char *>(data.data);
    if (!row_is_whole(text, data.size)) {
        svclog(nullptr, 59, "Mailbox list entry of %s is damaged: %u bytes", name, data.size);
        free(text);
        return IMAP_MAILBOX_BADFORMAT;
    }
    *row = text;
    return 0;
}

int mboxlist_lookup_quota(const char *root, struct quotadata *qd, DB_TXN *txn) {
    memset(qd, 0, sizeof(*qd));
    qd->limit_messages = QUOTA_UNLIMITED;
    int r = mboxlist_init();
    if (r) return r;
    DBT key, data;
    mboxlist_set_key(root, &key);
    memset(&data, 0, sizeof(data));
    data.data = qd;
    data.ulen = data.dlen = sizeof(*qd);
    data.doff = 0;
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    do {
        r = quotadb->get(quotadb, txn, &key, &data, txn ? DB_RMW : 0);
    } while (r == DB_LOCK_DEADLOCK && !txn);
    return r;
}

int mboxlist_getpath(const char *name, const char *partition, char *path, char *mpath) {
    if (!partition || strcmp(partition, "version3") == 0) return IMAP_PARTITION_UNKNOWN;
    char *root = configmsg_partitiondir(partition);
    if (!root) return IMAP_PARTITION_UNKNOWN;
    int r = mboxname_getpath(name, root, path);
    free(root);
    if (mpath) {
        mpath[0] = '\0';
        char *mroot = configmsg_partitionmsgdir(partition);
        if (mroot) {
            if (r == 0) r = mboxname_getpath(name, mroot, mpath);
            free(mroot);
        }
    }
    return r;
}

int mboxlist_lookup(const char *name, struct mboxdata *mbd, char **partition, char **path,
                    char **mpath, char **acl) {
    char *row;
    int r = mboxlist_lookup_data(name, &row, nullptr);
    if (r) return r;
    const char *part = mboxlist_partition(row);
    char pbuf[1040], mbuf[1040];
    if (path || mpath) {
        r = mboxlist_getpath(name, part, pbuf, mbuf);
        if (r) {
            free(row);
            return r;
        }
    }
    if (path) *path = xstrdup(pbuf);
    if (mpath) *mpath = mbuf[0] ? xstrdup(mbuf) : nullptr;
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

// Pauses between the tries of a transaction that finds no room: 10 ms,
// doubled each time, 2.5 s in all. Room comes back when other processes
// end their transactions; a full disk seldom clears within seconds, and a
// caller that holds folder locks must not hold them much longer than that.
#define TRANS_ROOM_TRIES 8
#define TRANS_ROOM_FIRST_PAUSE_MS 10

static void pause_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

int mboxlist_trans_setup(DB_TXN **txn, const char *label, const char *name) {
    DB_ENV *env = mboxlist_init() == 0 ? mboxlist_env() : nullptr;
    if (!env) {
        svclog(nullptr, 59, "Unable to begin %s transaction of %s: no mailbox list", label, name);
        return IMAP_IOERROR;
    }
    long pause = TRANS_ROOM_FIRST_PAUSE_MS;
    int tries = 0;
    for (;;) {
        int r = env->txn_begin(env, nullptr, txn, 0);
        if (r == 0) return 0;
        if (r == DB_LOCK_DEADLOCK) continue;
        if ((r == ENOSPC || r == ENOMEM) && tries < TRANS_ROOM_TRIES) {
            tries++;
            pause_ms(pause);
            pause *= 2;
            continue;
        }
        svclog(nullptr, 59, "Unable to begin %s transaction of %s: %s", label, name,
               db_strerror(r));
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
               mboxlist_strerror(r));
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
               mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

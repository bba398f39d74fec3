// The folder database: five Berkeley DB B-trees in one transactional
// environment ("folder.db", "quota.db", "subscr.db", "lright.db",
// "peruser.db") and a lock-only environment for folder locks.
//
// The module has three parts, each with a header of its own:
//   store/mboxlist.h          rows, lookups and transactions (this file)
//   store/mboxlist_env.h      the environments, session locks and the
//                             daemon's periodic maintenance
//   store/mboxlist_startup.h  start-up, recovery and the repairs of the
//                             database directory
// Including this header brings in the other two, because no row can be read
// before the store has been started and its environment joined.
//
// Answers are told apart: a lookup says "no such row" only when the
// database said so. Any other failure of the database is IMAP_IOERROR
// (logged once, where it is found, with the name it concerned), and every
// caller hands it on rather than acting on a row it could not read.
//
// Every write has one shape: mboxlist_trans_setup, the work under that
// transaction, mboxlist_trans_finish, and all of it again while the result
// is DB_LOCK_DEADLOCK.
//
// DIAGNOSTICS: nothing declared here ends the process, but the first use
// of the database in a process runs mboxlist_init, which may.
#ifndef STORE_MBOXLIST_H
#define STORE_MBOXLIST_H

#include <db.h>
#include <stdint.h>
#include <time.h>

#include "store/mailbox.h"
#include "store/mboxlist_env.h"
#include "store/mboxlist_startup.h"

// The row of "quota.db": fourteen host-order words.
struct quotadata {
    uint32_t limit;  // kilobytes; 0xFFFFFFFF: no limit
    uint32_t used_low;
    uint32_t used_high;
    uint32_t over_since;
    uint32_t warned;
    uint32_t access_other;
    uint32_t lastuse_a;
    uint32_t lastuse_b;
    uint32_t reserved;
    uint32_t limit_messages;  // 0xFFFFFFFF: no limit
    uint32_t used_messages;
    uint32_t access_imap;
    uint32_t access_http;
    uint32_t last_dbrepair;
};
static_assert(sizeof(quotadata) == 56, "quotadata is 56 bytes");

// The bytes in use of a quota row, and setting them.
inline uint64_t quotadata_used(const struct quotadata *q) {
    return ((uint64_t)q->used_high << 32) | q->used_low;
}
inline void quotadata_set_used(struct quotadata *q, uint64_t used) {
    q->used_low = (uint32_t)used;
    q->used_high = (uint32_t)(used >> 32);
}

#define QUOTA_UNLIMITED 0xFFFFFFFFu

// ---- the four databases of this module ----------------------------------
//
// The handles belong to this module from their opening at start-up to
// mboxlist_close at process exit; other modules borrow them through
// mboxlist_db and never close them.

enum mboxlist_dbid {
    MBOXLIST_FOLDERDB,  // "folder.db": one row per folder
    MBOXLIST_QUOTADB,   // "quota.db": one quotadata per quota root
    MBOXLIST_SUBSDB,    // "subscr.db": subscriptions and their change times
    MBOXLIST_LRIGHTDB,  // "lright.db": folders an identifier may see, not owning them
};

// The key order of all five databases, and its B-tree prefix function:
// NUL before TAB before "/" before every other byte, so that a folder is
// followed at once by its children.
int mboxlist_key_compare(DB *db, const DBT *a, const DBT *b);
size_t mboxlist_key_prefix(DB *db, const DBT *a, const DBT *b);
typedef int (*mboxlist_key_compare_fn)(DB *, const DBT *, const DBT *);
typedef size_t (*mboxlist_key_prefix_fn)(DB *, const DBT *, const DBT *);

// Opens one database in env (its file, page size and key order are this
// module's business). 0, or -1 after a log line that names the database,
// with errno set to the cause; the handle stays null then. For start-up.
int mboxlist_db_open(enum mboxlist_dbid which, DB_ENV *env);
// The open handle, or null while it isn't open.
DB *mboxlist_db(enum mboxlist_dbid which);
// Closes every open handle of the four with the flags of DB->close (0 or
// DB_NOSYNC) and forgets them, all of them even after a failure. 0 or the
// first failure of DB->close. For mboxlist_close and start-up.
int mboxlist_db_close_all(uint32_t flags);

// ---- names and rows -----------------------------------------------------

// Folder names compared over at most n bytes, "/" before every other byte
// (TAB has no special place here). <0, 0 or >0.
int mboxlist_name_comparen(const char *a, const char *b, int n);
// The quota root of name (its first two components) into out, which must
// hold strlen(name) + 1 bytes. 0, or IMAP_QUOTAROOT_NONEXISTENT for a name
// without "/".
int mboxlist_quotaroot(const char *name, char *out);

// Points key at name (with its NUL); the key borrows name.
void mboxlist_set_key(const char *name, DBT *key);
// Fills whichever of key, data and quota is not null: key as by
// mboxlist_set_key; data with a new buffer holding the folder.db row of
// mbd, partition and acl (null counts as ""), which the caller frees
// (data->data); quota pointing at the caller's qd.
void mboxlist_create_struct(DBT *key, DBT *data, DBT *quota, const char *name,
                            const struct mboxdata *mbd, const char *partition, const char *acl,
                            struct quotadata *qd);
// The partition and the ACL inside a row that mboxlist_lookup_data gave;
// they point into the row.
const char *mboxlist_partition(const char *row);
const char *mboxlist_acl(const char *row);

// Text of a failure: a code of the store's error table, of Berkeley DB, or
// a system error number. A static string.
const char *mboxlist_strerror(int r);

// ---- lookups ------------------------------------------------------------

// Reads the folder.db row of name under txn (null: none). With row, *row
// gets a new buffer with the whole row (the caller frees it; null whenever
// the result isn't 0); without, only existence is asked. 0 found;
// IMAP_MAILBOX_NONEXISTENT no row; DB_LOCK_DEADLOCK only under txn (the
// caller redoes its transaction; without txn a deadlock is retried);
// IMAP_MAILBOX_BADFORMAT for a row too short to hold its fields;
// IMAP_IOERROR for any other failure of the database; or the failure of
// mboxlist_init. Failures other than a deadlock are logged here.
int mboxlist_lookup_data(const char *name, char **row, DB_TXN *txn);
// Reads the quota row of root into *qd: zeros and no message limit first,
// then at most 56 stored bytes over them, so that a short row reads as
// having no message limit. Under txn the read is for update and a deadlock
// comes back; without, it is retried. The Berkeley DB code (0, DB_NOTFOUND,
// DB_LOCK_DEADLOCK, ...) or the failure of mboxlist_init.
int mboxlist_lookup_quota(const char *root, struct quotadata *qd, DB_TXN *txn);
// Looks a folder up. Every out argument may be null; on success each gets
// a copy that the caller frees (mbd: the 60 bytes). *mpath is null where
// the partition has no separate message directory. 0, or the failure of
// mboxlist_lookup_data, or IMAP_PARTITION_UNKNOWN when a path is asked of
// a row whose partition is "version3" or unknown. The outs are untouched
// on failure.
int mboxlist_lookup(const char *name, struct mboxdata *mbd, char **partition, char **path,
                    char **mpath, char **acl);
// The folder's directory on partition into path, and into mpath (may be
// null) its message directory, or "" if the partition has none. Both
// buffers hold MBOXLIST_PATH_BUFFER (1040) bytes. 0, IMAP_PARTITION_UNKNOWN,
// or the failure of mboxname_getpath.
int mboxlist_getpath(const char *name, const char *partition, char *path, char *mpath);

// ---- transactions -------------------------------------------------------

// Begins a transaction of the main environment; label and name say what it
// is for in the log. While the environment has no room for one more
// transaction (ENOSPC: the file system of its regions is full; ENOMEM: too
// many are open) it waits with growing pauses, a few seconds in all. 0 with
// *txn set; IMAP_IOERROR (logged once) when the database can't be started,
// the room doesn't come, or the library fails otherwise.
int mboxlist_trans_setup(DB_TXN **txn, const char *label, const char *name);
// Ends txn: with r non-zero it aborts and gives r back; with r 0 it commits
// and gives 0, DB_LOCK_DEADLOCK, or IMAP_IOERROR for any other failure of
// the commit (logged). txn is gone afterwards in every case.
int mboxlist_trans_finish(DB_TXN *txn, int r);

// ---- updates ------------------------------------------------------------

// Writes the open folder's row (its name, mbd, partition and ACL) in one
// transaction; with write_index_header the fixed header of "store.idx" is
// written inside that transaction, so that row and header count the same
// messages. 0 or IMAP_IOERROR (logged).
int mboxlist_updatedata(struct mailbox *mailbox, int write_index_header);
// Removes a folder's rows: its folder.db row and, if it is a quota root,
// the quota row and all subscription rows of its owner. No files are
// touched. A folder without rows is no failure. 0 or IMAP_IOERROR (logged).
int mboxlist_delete(const char *name);
// Removes the change-time row and all subscription rows of owner from
// subscr.db under txn. The Berkeley DB code; "none there" is 0.
int mboxlist_delete_subscriptions(DB_TXN *txn, const char *owner);

#endif

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

#define QUOTA_UNLIMITED 0xFFFFFFFFu

// ---- process-wide state ------------------------------------------------

extern DB *mbl;       // folder.db
extern DB *quotadb;   // quota.db
extern DB *subsdb;    // subscr.db
extern DB *lrightdb;  // lright.db

// ---- rows and lookups ---------------------------------------------------

int key_compare(DB *db, const DBT *a, const DBT *b);
size_t key_prefix(DB *db, const DBT *a, const DBT *b);
int name_comparen(const char *a, const char *b, int n);

typedef int (*key_compare_fn)(DB *, const DBT *, const DBT *);
typedef size_t (*key_prefix_fn)(DB *, const DBT *, const DBT *);
int folder_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix);
int quota_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix);
int sub_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix);
int lright_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix);

void mboxlist_set_key(const char *name, DBT *key);
void mboxlist_create_struct(DBT *key, DBT *data, DBT *quota, const char *name,
                            const struct mboxdata *mbd, const char *partition, const char *acl,
                            struct quotadata *qd);
const char *mboxlist_partition(const char *row);
const char *mboxlist_acl(const char *row);

int mboxlist_lookup_data(const char *name, char **row, DB_TXN *txn);
int mboxlist_lookup_quota(const char *root, struct quotadata *qd, DB_TXN *txn);
int mboxlist_lookup(const char *name, struct mboxdata *mbd, char **partition, char **path,
                    char **mpath, char **acl);
int mboxlist_getpath(const char *name, const char *partition, char *path, char *mpath);
int mboxlist_quotaroot(const char *name, char *out);

int mboxlist_trans_setup(DB_TXN **txn, const char *label, const char *name);
int mboxlist_trans_finish(DB_TXN *txn, int r);

int mboxlist_updatedata(struct mailbox *mailbox, int write_index_header);
int mboxlist_delete(const char *name);
// Removes a user's change-time row and subscription rows of subscr.db under
// the transaction; the Berkeley DB result.
int mboxlist_delete_subscriptions(DB_TXN *txn, const char *owner);
int mbox_count(const char *name, int matchlen, int maycreate, void *row, void *counter);

#endif

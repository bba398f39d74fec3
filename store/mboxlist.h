// The folder database: five Berkeley DB B-trees in one transactional
// environment ("folder.db", "quota.db", "subscr.db", "lright.db",
// "peruser.db"), a lock-only environment for folder locks, the start-up and
// recovery of the store, and the repairs of the database directory.
#ifndef STORE_MBOXLIST_H
#define STORE_MBOXLIST_H

#include <db.h>
#include <stdint.h>
#include <time.h>

#include "store/mailbox.h"

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
extern DB_ENV *mboxlist_dbenv;
extern DB_ENV *mboxlockenv;

extern uint32_t do_recovery;
extern int mboxlist_dont_check_stored;
extern int mboxlist_do_final_checkpoint;
extern int mboxlist_db_memp_fsync;
extern int ensureownerrights;
extern int mboxlist_listrecover;
extern uint32_t mboxlist_last_catastrophic_event;
extern uint32_t mboxlist_last_catastrophic_check;
extern int db_state;
extern int catrecov;
extern int catrecov_forced;
extern char mboxlistdir[1024];

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

// ---- environment and sessions ------------------------------------------

// Asks mboxlist_open_env for commits that don't sync the log. The request
// travels in a bit of its own among the open flags: the library gives
// DB_TXN_NOSYNC the same value as DB_CREATE.
#define MBOXLIST_TXN_NOSYNC 0x40000000u

int mboxlist_session_lock(void);
void mboxlist_session_unlock(void);
int register_with_watcher(void);
int mboxlist_open_env(uint32_t flags, const char *home);
int mboxlist_remove_env(int only_tmpfiles);
void mboxlist_close(void);
int mboxlist_recover(void);
void mboxlist_err(const DB_ENV *env, const char *prefix, const char *message);

int mboxlist_deadlockcheck(void);
int mboxlist_checkpoint15(void);
int mboxlist_checkpoint60(void);
int mboxlist_checkpoint300(void);

int mboxlist_log_archive_obsolete(char ***list);
int mboxlist_log_archive_current(char ***list);
int mboxlist_log_count(void);
int mboxlist_log_count_nodb(void);
int mboxlist_maxlog_check(int count);

// ---- start-up and recovery ----------------------------------------------

int mboxlist_init(void);
int mboxlist_initactual(void);
int mboxlist_mboxlist_path(char *buf);
int check_db_dir(const char *dir, uint32_t *exists, int *nfiles, int *nfiles_u, int *logs,
                 long *lowest, long *highest);
int db_log_version(const char *dir, const char *file);
int get_phase_sequence(unsigned *count, uint32_t *numbers, const char *file);
int phase_function_execute(uint32_t number);
int storestartup_phaseI(const char *dir, int have_cache, const char *cachedir);
int storestartup_phaseII(const char *dir, int have_cache, const char *cachedir);
int storestartup_phaseIII(uint32_t flags);
// Forgets what start-up did, so that a test can start the store again in
// the same process after mboxlist_close.
void mboxlist_reset_for_tests(void);

// Bits of check_db_dir's exists mask.
#define DBDIR_FOLDER 0x00001
#define DBDIR_QUOTA 0x00002
#define DBDIR_PERUSER 0x00004
#define DBDIR_SUBSCR 0x00008
#define DBDIR_LRIGHT 0x00010
#define DBDIR_DB_CONFIG 0x00100
#define DBDIR_FOLDERLOCK 0x00200
#define DBDIR_SESSIONS 0x00400
#define DBDIR_REGION1 0x00800  // "__db.001"; the next four bits are 002 to 005
#define DBDIR_CATRECOV 0x10000

// ---- database files and snapshots ---------------------------------------

extern int nsnaps;
extern uint32_t snaptimes[5];
extern char snapdirs[5][5];
extern char snapPath[1024];
extern uint32_t stored_last_snapshot;
extern uint32_t stored_last_checkpoint;

#define DBGROUP_LOGS 1
#define DBGROUP_DATABASES 2
#define DBGROUP_REGIONS 4
#define DBGROUP_CONFIG 8

int db_rm(const char *dir, int mask);
int db_file_copy(const char *target, const char *source);
int db_copy(const char *target, const char *source);
int rename_db(const char *target, const char *source);
int backup_rename_db(void);
int write_db_config(const char *dbdir, const char *cachedir);
int zero_lsn(const char *path, int pagesize);
int zero_logs(const char *dir);
int recover_snapshot(const char *dbdir, int have_cache, const char *cachedir, const char *snapdir);
int remove_db(const char *dbdir, const char *cachedir);
int insert_template(void);
int mboxlist_snapshot_path(char *buf);
int analyse_snapshots(const char *place, int *count, uint32_t *times, char (*names)[5]);
int snapshot_abort(void);

#endif

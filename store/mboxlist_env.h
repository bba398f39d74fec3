// The folder database's environments: the shared transactional environment
// that holds the five databases, the lock-only environment of the named
// folder locks, the session lock file that every program of the store holds
// while it uses them, and the periodic maintenance that the daemon runs.
#ifndef STORE_MBOXLIST_ENV_H
#define STORE_MBOXLIST_ENV_H

#include <db.h>
#include <stdint.h>

// ---- process-wide state ------------------------------------------------

extern DB_ENV *mboxlist_dbenv;
extern DB_ENV *mboxlockenv;
extern uint32_t do_recovery;
extern int mboxlist_dont_check_stored;
extern int mboxlist_do_final_checkpoint;
extern int mboxlist_db_memp_fsync;

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

#endif

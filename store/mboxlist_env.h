// The folder database's environments: the shared transactional environment
// that holds the five databases, the lock-only environment of the named
// folder locks, the session lock file that every program of the store holds
// while it uses them, and the periodic maintenance that the daemon runs.
//
// Ownership: both environment handles belong to this module for the life of
// the process. Callers borrow them through mboxlist_env and mboxlist_lockenv
// and never close them; mboxlist_close does, at process exit.
//
// DIAGNOSTICS: nothing declared here ends the process. Failures are logged
// once, where they are found, and handed to the caller.
#ifndef STORE_MBOXLIST_ENV_H
#define STORE_MBOXLIST_ENV_H

#include <db.h>
#include <stdint.h>

// ---- the handles ----------------------------------------------------------

// The main environment, or null before it is opened and after mboxlist_close.
DB_ENV *mboxlist_env(void);
// The lock environment of the named folder locks, null likewise.
DB_ENV *mboxlist_lockenv(void);
// The flags with which database handles are closed: 0 when local.store.dbsync
// asks for the caches to be written out at close, else DB_NOSYNC.
uint32_t mboxlist_db_close_flags(void);
// Set by the start-up from its configuration: final_checkpoint makes
// mboxlist_close checkpoint and archive the logs first, db_sync makes it write
// out the caches (see mboxlist_db_close_flags).
void mboxlist_set_final_checkpoint(int on);
void mboxlist_set_db_sync(int on);

// ---- environments ---------------------------------------------------------

// Asks mboxlist_open_env for commits that don't sync the log. The request
// travels in a bit of its own among the open flags: the library gives
// DB_TXN_NOSYNC the same value as DB_CREATE.
#define MBOXLIST_TXN_NOSYNC 0x40000000u

// Opens the main environment at home with the library's open flags (plus
// MBOXLIST_TXN_NOSYNC). With DB_CREATE the region files are written out in
// full when they are made, so that a file system without room for them gives
// ENOSPC here instead of a bus error at the first touch of a page.
// 0, or -1 with errno set to the cause (the library's code for its own
// failures); the library's message has gone to the log.
int mboxlist_open_env(uint32_t flags, const char *home);
// Closes the main environment without closing any database handle: for a
// start-up attempt that failed after the open. Nothing happens without one.
void mboxlist_close_env(void);
// Opens the lock environment at home (made if missing). With recreate, any
// environment left there is removed first: only the recovering daemon may ask
// for that. 0, or the library's code (an errno value for system failures).
int mboxlist_open_lockenv(const char *home, int recreate);
// Closes, in this order: the final checkpoint and log archive (if asked
// for), the databases, both environments, the session lock and the watcher.
// Runs at process exit and may run again. 0, or the first failure of the
// checkpoint, the archive or a close (logged at level 59).
int mboxlist_close(void);
// Removes the environments. With only_tmpfiles the region files ("__db*")
// of both homes are unlinked and nothing else happens; else the store is
// recovered, checkpointed, closed and its environments removed in order.
// 0, -1 or the library's code.
int mboxlist_remove_env(int only_tmpfiles);
// The error callback of both environments: logs the library's message at 58.
void mboxlist_err(const DB_ENV *env, const char *prefix, const char *message);

// ---- sessions and watcher -------------------------------------------------

// Creates and locks "<storedir>/session/<program>.<pid>", held until
// mboxlist_session_unlock or the end of the process. The descriptor, or -1
// (logged at 58 unless the path was too long).
int mboxlist_session_lock(void);
// Unlinks, unlocks and closes this process's session lock file, if any.
void mboxlist_session_unlock(void);
// Removes the session lock files whose programs are gone (their lock can be
// had); files of running programs stay. For the daemon before it recovers.
// The number of running programs found, or -1 if the directory can't be read.
int mboxlist_session_sweep(void);
// Connects this process to the watcher configured by service.listenaddr and
// local.watcher.port. 1 on success, 0 on failure (logged by the watcher code).
int register_with_watcher(void);

// ---- periodic maintenance of the daemon -----------------------------------
// Each returns 0 or the library's code; failures other than of
// mboxlist_deadlockcheck are logged at level 59. Without an environment they
// do nothing and give 0.

// Breaks deadlocks of the main environment (the oldest locker loses).
int mboxlist_deadlockcheck(void);
// Clears up after processes that died attached to the main environment:
// aborts their transactions and drops their locks. DB_RUNRECOVERY (logged
// at level 58) if one died inside the library: only a recovery helps then.
int mboxlist_failchk(void);
// Writes dirty pages of the cache until 10 percent are clean.
int mboxlist_trickle(void);
// Checkpoints the main environment if a minute of work has gone by.
int mboxlist_checkpoint(void);
// Removes the log files that no recovery needs any more.
int mboxlist_archive_logs(void);

// ---- log files ------------------------------------------------------------

// The log files no longer needed / all log files, as the library lists them:
// *list is a single block that the caller frees with free (null for none).
// The library's code, EINVAL without an environment.
int mboxlist_log_archive_obsolete(char ***list);
int mboxlist_log_archive_current(char ***list);
// The number of log files in use (all minus the obsolete ones).
int mboxlist_log_count(void);
// The number of "log.*" entries of the database directory; needs no
// environment. 0 if the directory can't be read.
int mboxlist_log_count_nodb(void);
// 1 if count is not above local.store.maxlog (default 8), else 0.
int mboxlist_maxlog_check(int count);

#endif

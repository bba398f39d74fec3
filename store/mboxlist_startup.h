// Start-up and recovery of the folder database: the once-per-process start
// of a program (mboxlist_init), the daemon's recovery of the database
// directory through its ordered phases of repairs, and the files of the
// database directory (snapshots, templates, "DB_CONFIG", log files).
//
// A repair needs evidence that the database is damaged: a missing file, a
// gap in the logs, an open that the library refuses. A failure for want of
// a resource (no space, no memory, no descriptors, no permission, a
// read-only file system) is no such evidence: the start-up then stops with
// status 75 and leaves the database as it found it.
//
// DIAGNOSTICS: only mboxlist_init and mboxlist_recover end the process. A
// failed start exits with 78 (no server user, no store directory), 75 (no
// watcher, daemon not ready, no session lock, a resource failure) or 1 (the
// database can't be analysed or repaired, or a short-lived process can't
// open it). Every other function returns its failure.
#ifndef STORE_MBOXLIST_STARTUP_H
#define STORE_MBOXLIST_STARTUP_H

#include <stddef.h>
#include <stdint.h>

// ---- start-up and recovery ----------------------------------------------

// The state of the database directory as the daemon's analysis judges it.
enum mboxlist_dbstate {
    DBSTATE_UNJUDGED = 0,  // every process but the recovering one
    DBSTATE_GOOD = 1,      // ready for a normal recovery and open
    DBSTATE_EMPTY = 2,     // no database, region or log file: a new store
    DBSTATE_NOLOGS = 3,    // the four required databases, but no log file
    DBSTATE_BADLOGS = 4,   // the databases, but a gap in the logs or too many
    DBSTATE_BROKEN = 5,    // a required database is missing, or a repair failed
};

// Results of the start-up steps besides 0: MBOXLIST_START_NODB when the
// daemon's repairs are used up (the process goes on without databases), else
// the exit status of a failed start.
#define MBOXLIST_START_NODB (-1)
#define MBOXLIST_START_FAILED 1
#define MBOXLIST_START_TEMPFAIL 75
#define MBOXLIST_START_CONFIG 78

// Starts the folder database once per process (mboxlist_initactual through
// PR_CallOnce); later calls wait for the first and give its result.
// 0, or IMAP_MAILBOXLIST_NONEXISTENT when no database is open (the store is
// disabled, or the daemon's repairs are used up).
// DIAGNOSTICS: ends the process with the exit status of a failed start.
int mboxlist_init(void);
// The daemon's entry: recovers the database directory, opens everything and
// asks for a final checkpoint at close. Must come before any other use of
// the databases in the process. 0 or IMAP_MAILBOXLIST_NONEXISTENT.
// DIAGNOSTICS: ends the process as mboxlist_init does.
int mboxlist_recover(void);
// The start-up itself, for mboxlist_init: 0, MBOXLIST_START_NODB or an exit
// status; the cause has been logged. Never ends the process.
int mboxlist_initactual(void);
// Writes the database directory, ending in "/", into buf (1024 bytes).
// 0, or -1 (logged at level 2) without a usable store directory.
int mboxlist_mboxlist_path(char *buf);
// The database directory as the start-up found it, ending in "/"; "" before.
const char *mboxlist_dir(void);
// Whether the database directory is still the one the daemon opened: the
// same directory (device and inode) and a "folder.db" in it. On the first
// finding that it is not, logs it at level 2. 1 intact, 0 gone.
int mboxlist_dbdir_intact(void);
// Time of the last repair (the stored file "eve"), 0 if none.
uint32_t mboxlist_last_event(void);
// The mode of local.store.listrecover, 0 to 6.
int mboxlist_listrecover_mode(void);
// local.store.ensureownerrights: 1 if the owner of a folder always keeps
// the administer right.
int mboxlist_ensure_owner_rights(void);

// Describes a directory: bits of known entries in *exists (DBDIR_*), the
// count of all entries and of unknown ones, and the number and range of log
// files. Without a log file of this library's version, removes the region
// files of both environments. 0; 1 for no name; 2 if it can't be opened.
int check_db_dir(const char *dir, uint32_t *exists, int *nfiles, int *nfiles_u, int *logs,
                 long *lowest, long *highest);
// The version in the head of a log file, -1 if it can't be told.
int db_log_version(const char *dir, const char *file);
// Reads a sequence file of repair numbers into numbers (10 slots). 0; the
// errno of the open; 1 short, 2 bad head, 3 bad size, 4 count, 5 a number.
int get_phase_sequence(unsigned *count, uint32_t *numbers, const char *file);
// 1 if repair number may run (noted, unless ten are noted), 0 if it ran.
int phase_function_execute(uint32_t number);
// The daemon's phases: analysis, repairs before the open, opening with
// fallback. 0, -1, or MBOXLIST_START_TEMPFAIL for a resource failure, after
// which nothing more may be changed.
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
#define DBDIR_REQUIRED 0x0000F  // the four databases a good store must have
#define DBDIR_ANYDATA 0x0F81F   // databases and region files
#define DBDIR_FROM_DATADIR 0x1001F  // with a cache directory: bits of the data
#define DBDIR_FROM_CACHEDIR 0x0FF00  // ... and of the environment's home

// ---- database files and snapshots ---------------------------------------
// These work on plain files while no environment is open.

#define DBGROUP_LOGS 1       // "log." and ten digits
#define DBGROUP_DATABASES 2  // "*.db"
#define DBGROUP_REGIONS 4    // "__db.*"
#define DBGROUP_CONFIG 8     // "DB_CONFIG"
#define DBGROUP_ALL 15

// Unlinks the selected groups of dir. 0; -1 for a path over 998 characters
// or a failed unlink; 1 if a name was passed over for length. A directory
// that can't be opened is no failure.
int db_rm(const char *dir, int mask);
// Copies (each file flushed to disk) / renames the groups of source into
// target, which must hold none of them. Failures are logged at level 2 and
// the walk goes on. 0 or -1, with errno of the last failure.
int db_copy(const char *target, const char *source);
int rename_db(const char *target, const char *source);
// Moves the current database into "removed/" of the database directory,
// unless a copy there is younger than five days. 0 or -1; a courtesy whose
// failure stops no repair.
int backup_rename_db(void);
// Writes "DB_CONFIG" into cachedir, so that the environment at cachedir
// finds its databases and logs in dbdir. 0 or -1 with errno.
int write_db_config(const char *dbdir, const char *cachedir);
// Clears the log sequence number (first 8 bytes) of each whole page of a
// database file and flushes it. 0, or -1 with errno.
int zero_lsn(const char *path, int pagesize);
// Removes the log files of dir and clears the page LSNs of the five
// databases, so that recovery finds nothing to redo. A database that isn't
// there is passed over. 0, or -1 with errno of the first failure.
int zero_logs(const char *dir);
// The repairs: put a snapshot in place, start empty, put the template in
// place. 0 or -1 (insert_template: -2 when there is no usable template).
int recover_snapshot(const char *dbdir, int have_cache, const char *cachedir, const char *snapdir);
int remove_db(const char *dbdir, const char *cachedir);
int insert_template(void);
// Writes the place of snapshots, ending in "/", into buf (1024 bytes).
// 0, or -1 (logged) if it isn't configured or usable.
int mboxlist_snapshot_path(char *buf);
// The up to five newest snapshots of place: names (4 characters at most)
// and times, newest first. 0, or 1 if place can't be opened.
int analyse_snapshots(const char *place, int *count, uint32_t *times, char (*names)[5]);
// Looks for snapshots at the configured place and logs the best one; the
// daemon's analysis calls it. The number found (0 to 5).
int mboxlist_find_snapshots(void);
// The directory of the newest snapshot found, written into buf; null if
// none was found.
const char *mboxlist_snapshot_best(char *buf, size_t size);
// The daemon notes each checkpoint that worked, for snapshot_abort.
void mboxlist_set_last_checkpoint(uint32_t when);
// For a writer of snapshots: 1 if a snapshot newer than the last checkpoint
// exists, 3 if more log files are in use than local.store.maxlog, else 0.
int snapshot_abort(void);

#endif

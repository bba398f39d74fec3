// Start-up and recovery of the folder database: the once-per-process start
// of a program (mboxlist_init), the daemon's recovery of the database
// directory through its ordered phases of repairs, and the files of the
// database directory (snapshots, templates, "DB_CONFIG", log files).
#ifndef STORE_MBOXLIST_STARTUP_H
#define STORE_MBOXLIST_STARTUP_H

#include <stdint.h>

// ---- process-wide state ------------------------------------------------

extern int ensureownerrights;
extern int mboxlist_listrecover;
extern uint32_t mboxlist_last_catastrophic_event;
extern uint32_t mboxlist_last_catastrophic_check;
extern int db_state;
extern int catrecov;
extern int catrecov_forced;
extern char mboxlistdir[1024];

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

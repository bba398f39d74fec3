// Start-up of the folder database. A short-lived process checks that the
// store daemon has finished starting, takes its session lock and joins the
// environment. The daemon judges the database directories as plain files
// (phase I), repairs what it finds (phase II), and opens the environment,
// falling back through the repairs until it opens (phase III).
//
// The steps return their result; mboxlist_init alone ends the process when
// a start has failed, with the exit status the failing step chose.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <prinit.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mailbox_log.h"
#include "store/mboxlist.h"
#include "store/seen_db.h"
#include "support/config.h"
#include "support/log.h"
#include "support/watch.h"

// What the process asked of the start-up (mboxlist_recover sets both).
static uint32_t do_recovery = 0;  // 0 or DB_RECOVER
static int dont_check_stored = 0;

// The daemon's judgement and repairs.
static enum mboxlist_dbstate db_state = DBSTATE_UNJUDGED;
static int catrecov = 0;         // the database in place came from a snapshot
static int catrecov_forced = 0;  // a ".catrecov" file asks for catastrophic recovery
static uint32_t phase_functions_executed[10];
static unsigned phase_functions_executed_n = 0;
static const unsigned phase_functions_executed_max = 10;
static const uint32_t phaseII_default_sequence[4] = {2, 1, 3, 4};
static const uint32_t phaseIII_default_sequence[3] = {2, 3, 4};

// Where the databases are, and what the configuration said.
static char mboxlistdir[1024];
static int have_dbcache = 0;
static char mboxlistcachedir[1024];
static uint32_t last_catastrophic_event = 0;
static uint32_t last_catastrophic_check = 0;
static int listrecover = 0;
static int ensureownerrights = 1;

// The database directory the daemon opened, to notice it going away.
static int dbdir_known = 0;
static dev_t dbdir_dev;
static ino_t dbdir_ino;
static int dbdir_gone_logged = 0;

static PRCallOnceType init_once;
static int init_result = 0;
static int exit_handler_registered = 0;

static const char STORED_NOT_READY[] =
    "Unable to verify start of store daemon (stored). The store daemon process must be running "
    "and the initialization must be finished before this process starts. If the store daemon is "
    "running, do not restart it; wait until it has finished initializing, then start this "
    "process again. If the store daemon is not running, please start it.\n";

const char *mboxlist_dir(void) { return mboxlistdir; }
uint32_t mboxlist_last_event(void) { return last_catastrophic_event; }
int mboxlist_listrecover_mode(void) { return listrecover; }
int mboxlist_ensure_owner_rights(void) { return ensureownerrights; }

// ---- paths --------------------------------------------------------------

int mboxlist_mboxlist_path(char *buf) {
    const char *dir = configmsg_get_storedir();
    if (!dir || !*dir) {
        svclog(nullptr, 2, "mboxlist storedir path not found");
        return -1;
    }
    size_t room = 1022, n = strlen(dir);
    if (n + 1 > room) {
        svclog(nullptr, 2, "mboxlist storedir length too long");
        return -1;
    }
    if (n + strlen("/mboxlist") + 1 > room) {
        svclog(nullptr, 2, "mboxlist storedir length is too long");
        return -1;
    }
    snprintf(buf, 1024, "%s/mboxlist/", dir);
    return 0;
}

static void store_subdir(char *buf, size_t size, const char *sub) {
    const char *dir = configmsg_get_storedir();
    snprintf(buf, size, "%s/%s", dir ? dir : ".", sub);
}

// ---- resources are not damage ---------------------------------------------

// Whether a system error says that something is lacking (room, memory,
// descriptors, rights, a writable file system) rather than that a file is
// broken.
static int is_resource_error(int e) {
    switch (e) {
        case ENOSPC:
        case EDQUOT:
        case ENOMEM:
        case EMFILE:
        case ENFILE:
        case EACCES:
        case EPERM:
        case EROFS:
            return 1;
        default:
            return 0;
    }
}

// A file system with less than this free, or without a free inode, is full
// for the start-up.
static const unsigned long long MIN_FREE_BYTES = 1024 * 1024;

static int is_full(const char *dir) {
    struct statvfs v;
    if (!*dir || statvfs(dir, &v) != 0) return 0;
    return (unsigned long long)v.f_bavail * v.f_frsize < MIN_FREE_BYTES ||
           (v.f_files > 0 && v.f_favail == 0);
}

// The resource behind a failed step: the step's own error, else a full file
// system under the databases. The library turns a failed write during
// recovery into a panic code of its own, so the file systems are asked too.
// 0 if no resource is lacking: the failure stands as evidence of damage.
static int resource_cause(int err) {
    if (is_resource_error(err)) return err;
    if (is_full(mboxlistdir) || (have_dbcache && is_full(mboxlistcachedir))) return ENOSPC;
    return 0;
}

// Refuses the start for want of a resource, leaving the databases alone.
static int refuse_start(int cause, const char *step) {
    svclog(nullptr, 2,
           "mboxlist_init: the store cannot start: %s while %s in %s. The databases were left "
           "as they are; free the resource and start the store daemon again.",
           strerror(cause), step, mboxlistdir);
    return MBOXLIST_START_TEMPFAIL;
}

// ---- the directory check ------------------------------------------------

int db_log_version(const char *dir, const char *file) {
    char path[2048];
    snprintf(path, sizeof(path), "%s%s%s", dir, dir[0] && dir[strlen(dir) - 1] == '/' ? "" : "/",
             file);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    unsigned char head[20];
    ssize_t n = read(fd, head, sizeof(head));
    close(fd);
    if (n != (ssize_t)sizeof(head)) return -1;
    uint32_t magic, version;
    memcpy(&magic, head + 12, 4);
    memcpy(&version, head + 16, 4);
    if (magic != DB_LOGMAGIC) return -1;
    return (int)version;
}

static int is_log_name(const char *name) {
    return strlen(name) == 14 && strncmp(name, "log.", 4) == 0;
}

int check_db_dir(const char *dir, uint32_t *exists, int *nfiles, int *nfiles_u, int *logs,
                 long *lowest, long *highest) {
    static const struct {
        const char *name;
        uint32_t bit;
    } known[] = {
        {"folder.db", DBDIR_FOLDER},     {"quota.db", DBDIR_QUOTA},
        {"peruser.db", DBDIR_PERUSER},   {"subscr.db", DBDIR_SUBSCR},
        {"lright.db", DBDIR_LRIGHT},     {"DB_CONFIG", DBDIR_DB_CONFIG},
        {"folderlock", DBDIR_FOLDERLOCK}, {"sessions", DBDIR_SESSIONS},
        {"__db.001", DBDIR_REGION1},      {"__db.002", DBDIR_REGION1 << 1},
        {"__db.003", DBDIR_REGION1 << 2}, {"__db.004", DBDIR_REGION1 << 3},
        {"__db.005", DBDIR_REGION1 << 4}, {".catrecov", DBDIR_CATRECOV},
    };
    *exists = 0;
    *nfiles = *nfiles_u = *logs = 0;
    *lowest = *highest = 0;
    if (!dir || !*dir) return 1;
    DIR *d = opendir(dir);
    if (!d) return 2;
    int usable_log = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
        (*nfiles)++;
        if (is_log_name(e->d_name)) {
            if (!usable_log && db_log_version(dir, e->d_name) == DB_LOGVERSION) usable_log = 1;
            long num = strtol(e->d_name + 4, nullptr, 10);
            if (*logs == 0 || num < *lowest) *lowest = num;
            if (*logs == 0 || num > *highest) *highest = num;
            (*logs)++;
            continue;
        }
        size_t i;
        for (i = 0; i < sizeof(known) / sizeof(known[0]); i++) {
            if (strcmp(e->d_name, known[i].name) == 0) {
                *exists |= known[i].bit;
                break;
            }
        }
        if (i == sizeof(known) / sizeof(known[0])) (*nfiles_u)++;
    }
    closedir(d);
    if (!usable_log) {
        // Region files made by another release of the library, or left
        // without any log, can't be joined: make the environment anew.
        svclog(nullptr, 63, "Removing database environment");
        mboxlist_remove_env(1);
    }
    return 0;
}

// ---- sequences of repairs -----------------------------------------------

int get_phase_sequence(unsigned *count, uint32_t *numbers, const char *file) {
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    unsigned char buf[100];
    ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    if (n < 8) return 1;
    if (memcmp(buf, "functi", 6) != 0) return 2;
    unsigned c = ((unsigned)buf[6] << 8) | buf[7];
    if (c > 10) return 4;
    if ((size_t)n != 8 + 2 * (size_t)c) return 3;
    for (unsigned i = 0; i < c; i++) {
        unsigned v = ((unsigned)buf[8 + 2 * i] << 8) | buf[9 + 2 * i];
        if (v < 1 || v > 4) return 5;
        numbers[i] = v;
    }
    *count = c;
    return 0;
}

// The sequence of a phase: the site's file in "dbdata/" if it is good, else
// the default.
static unsigned phase_sequence(const char *file, const uint32_t *def, unsigned ndef,
                               uint32_t *seq) {
    char path[1100];
    char name[64];
    snprintf(name, sizeof(name), "dbdata/%s", file);
    store_subdir(path, sizeof(path), name);
    unsigned count = 0;
    if (get_phase_sequence(&count, seq, path) == 0) return count;
    memcpy(seq, def, ndef * sizeof(*def));
    return ndef;
}

int phase_function_execute(uint32_t number) {
    for (unsigned i = 0; i < phase_functions_executed_n; i++)
        if (phase_functions_executed[i] == number) return 0;
    if (phase_functions_executed_n < phase_functions_executed_max)
        phase_functions_executed[phase_functions_executed_n++] = number;
    return 1;
}

static void write_event(void) {
    time_t now = time(nullptr);
    if (configmsg_writestoredfile("eve", (long)now) != 0) {
        svclog(nullptr, 2, "Can not write Last Catastrophic Event file errno = %d", errno);
        return;
    }
    last_catastrophic_event = (uint32_t)now;
}

// ---- phase I: analysis ----------------------------------------------------

// Makes the directories; 0, -1, or MBOXLIST_START_TEMPFAIL.
static int make_db_dirs(const char *dir, int have_cache, const char *cachedir,
                        const char *cachemsg) {
    if (mailbox_makedirs(dir) != 0) {
        int cause = resource_cause(errno);
        if (cause) return refuse_start(cause, "creating the database directory");
        svclog(nullptr, 2, "mboxlist_init: cannot create mboxlist dbdir: %s", dir);
        return -1;
    }
    if (have_cache && mailbox_makedirs(cachedir) != 0) {
        int cause = resource_cause(errno);
        if (cause) return refuse_start(cause, "creating the database cache directory");
        svclog(nullptr, 2, cachemsg, cachedir);
        return -1;
    }
    return 0;
}

// Describes one directory for phase I; 0, -1 or MBOXLIST_START_TEMPFAIL.
struct dirstate {
    uint32_t exists;
    int nfiles, nfiles_u, logs;
    long lowest, highest;
};

static int check_for_phaseI(const char *dir, struct dirstate *st, const char *msg) {
    int r = check_db_dir(dir, &st->exists, &st->nfiles, &st->nfiles_u, &st->logs, &st->lowest,
                         &st->highest);
    if (r == 0) return 0;
    int cause = resource_cause(errno);
    if (cause) return refuse_start(cause, "reading the database directory");
    svclog(nullptr, 2, msg, dir, errno, r);
    return -1;
}

static enum mboxlist_dbstate judge(uint32_t joined, const struct dirstate *data) {
    if ((joined & DBDIR_ANYDATA) == 0 && data->logs == 0) return DBSTATE_EMPTY;
    // "lright.db" is not required: an open makes it anew.
    if ((joined & DBDIR_REQUIRED) != DBDIR_REQUIRED) return DBSTATE_BROKEN;
    if (data->logs == 0) return DBSTATE_NOLOGS;
    if (data->highest - data->lowest + 1 != data->logs) return DBSTATE_BADLOGS;
    if (!mboxlist_maxlog_check(data->logs)) return DBSTATE_BADLOGS;
    return DBSTATE_GOOD;
}

int storestartup_phaseI(const char *dir, int have_cache, const char *cachedir) {
    int r = make_db_dirs(dir, have_cache, cachedir,
                         "mboxlist_init: cannot create mboxlist dbcachedir: :%s:");
    if (r != 0) return r;
    char snapdir[1100];
    store_subdir(snapdir, sizeof(snapdir), "dbdata/snapshots/");
    if (mailbox_makedirs(snapdir) != 0)
        svclog(nullptr, 2, "mboxlist_init: cannot create default snapshot directory: :%s:",
               snapdir);

    const char *home = have_cache ? cachedir : dir;
    if (strlen(home) + strlen("/folderlock") > 1022) {
        svclog(nullptr, 2, "mboxlist_init: folderlock directory path too long\n");
        return -1;
    }

    struct dirstate data, cache = {};
    r = check_for_phaseI(dir, &data, "mboxlist_init: error checking mboxlist db directory :%s: %d %d");
    if (r != 0) return r;
    uint32_t joined = data.exists;
    if (have_cache) {
        r = check_for_phaseI(cachedir, &cache,
                             "mboxlist_init: error checking mboxlist db cache directory :%s %d %d:");
        if (r != 0) return r;
        joined = (data.exists & DBDIR_FROM_DATADIR) | (cache.exists & DBDIR_FROM_CACHEDIR);
    }
    catrecov_forced = (int)(joined & DBDIR_CATRECOV);

    svclog(nullptr, 62, "stored mboxlist_init: Printing Stored Database Startup Information:");
    svclog(nullptr, 62, "mboxlist_init: mboxlist db path = :%s:", dir);
    svclog(nullptr, 62,
           "mboxlist_init: mboxlist db state data:  exists = 0x%x nfiles = %d, nfiles_u = %d  "
           "logs = %d %ld - %ld  cache = %d 0x%x",
           data.exists, data.nfiles, data.nfiles_u, data.logs, data.lowest, data.highest,
           have_cache, joined);
    if (have_cache) {
        svclog(nullptr, 62, "stored: mboxlist db cache path = :%s:", cachedir);
        svclog(nullptr, 62,
               "mboxlist_init: mboxlist db cache state data:  exists = 0x%x nfiles = %d, "
               "nfiles_u = %d  logs = %d %ld - %ld",
               cache.exists, cache.nfiles, cache.nfiles_u, cache.logs, cache.lowest, cache.highest);
    }
    if (last_catastrophic_event)
        svclog(nullptr, 62, "stored: Last event id = 0x%x", last_catastrophic_event);
    mboxlist_find_snapshots();

    db_state = judge(joined, &data);
    svclog(nullptr, 62, "mboxlist_init: DB initial state = %d", db_state);
    if (db_state == DBSTATE_EMPTY && last_catastrophic_event) {
        // "eve" is written at the first start of every store: a store that
        // has it had databases, and someone removed them.
        char when[64];
        time_t t = (time_t)last_catastrophic_event;
        struct tm tm;
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", localtime_r(&t, &tm));
        svclog(nullptr, 2,
               "mboxlist_init: the folder database in %s has vanished, but the store has been in "
               "use (last database event %s); it starts with an empty folder database. Restore "
               "the databases, or run reconstruct -m once the store is up.",
               dir, when);
    }
    return 0;
}

// ---- the repairs ------------------------------------------------------------

// One repair by its number: 0, -1, or -2 when there is no usable template.
static int run_repair(uint32_t number, const char *dir, int have_cache, const char *cachedir) {
    char snap[1100];
    switch (number) {
        case 1:
            return zero_logs(dir);
        case 2:
            return recover_snapshot(dir, have_cache, cachedir,
                                    mboxlist_snapshot_best(snap, sizeof(snap)));
        case 3:
            return insert_template();
        default:
            return remove_db(dir, have_cache ? cachedir : nullptr);
    }
}

// Whether repair number has what it needs in the state judged.
static int repair_applies(uint32_t number) {
    char snap[1100];
    if (number == 1) return db_state == DBSTATE_NOLOGS || db_state == DBSTATE_BADLOGS;
    if (number == 2) return mboxlist_snapshot_best(snap, sizeof(snap)) != nullptr;
    return number == 3 || number == 4;
}

// ---- phase II: repairs before the first open -----------------------------

// The messages of phase II, by repair number.
static const char *const phaseII_before[5] = {
    nullptr,
    "Removing extra database logs.  Run reconstruct -m soon after startup to resync redundant data",
    "Recovering database from snapshot.  Run reconstruct -m soon after startup to resync "
    "redundant data",
    "Removing database and initializing with template.  Run reconstruct -m to resync data after "
    "store is up.",
    "Removing database and initializing.  Run reconstruct -m to resync data after store is up.",
};
static const char *const phaseII_failed[5] = {
    nullptr,
    "Removing extra database logs failed %d %d",
    "Recovering from snapshot failed failed %d %d",
    "Could not initialize database with templates (not necessarily needed) %d %d",
    "Could not initialize (remove) database files %d %d",
};

int storestartup_phaseII(const char *dir, int have_cache, const char *cachedir) {
    int r = make_db_dirs(dir, have_cache, cachedir,
                         "mboxlist_init: cannot create mboxlist mboxlistcachedir: %s");
    if (r != 0) return r;
    if (have_cache && (r = write_db_config(dir, cachedir)) != 0) {
        int cause = resource_cause(errno);
        if (cause) return refuse_start(cause, "writing DB_CONFIG");
        svclog(nullptr, 2, "Can not write DB_CONFIG file into :%s: %d %d", cachedir, errno, r);
        return -1;
    }
    uint32_t seq[10];
    unsigned n = phase_sequence("stored.ph2", phaseII_default_sequence, 4, seq);

    for (unsigned i = 0; i < n && db_state != DBSTATE_GOOD; i++) {
        uint32_t f = seq[i];
        if (f < 1 || f > 4 || !repair_applies(f) || !phase_function_execute(f)) continue;
        int was_empty = db_state == DBSTATE_EMPTY;
        if (f == 4 && was_empty) {
            // A new store needs no removing.
            db_state = DBSTATE_GOOD;
            catrecov = 0;
            continue;
        }
        if (!(f == 3 && was_empty)) svclog(nullptr, 2, "%s", phaseII_before[f]);
        r = run_repair(f, dir, have_cache, cachedir);
        int err = errno;
        if (r == 0) {
            db_state = DBSTATE_GOOD;
            if (f != 1) catrecov = f == 2;
        } else if (!(f == 3 && r == -2 && was_empty)) {
            int cause = r == -2 ? 0 : resource_cause(err);
            if (cause) return refuse_start(cause, "repairing the database");
            svclog(nullptr, 2, phaseII_failed[f], err, r);
            db_state = DBSTATE_BROKEN;
        }
        write_event();
    }
    return db_state == DBSTATE_GOOD ? 0 : -1;
}

// ---- phase III: opening with fallback -----------------------------------

// The five databases in the order of opening, with what is logged when one
// can't be opened: by a short-lived process (at level; it ends unless the
// database is optional), and by the daemon (which tries the next repair).
static const struct {
    int (*open)(void);
    int level;
    const char *client_msg;
    const char *daemon_msg;
    int optional;
} databases[] = {
    {[] { return mboxlist_db_open(MBOXLIST_FOLDERDB, mboxlist_env()); }, 59,
     "Unable to open mboxlist database: %m", "Could not open folder database", 0},
    {[] { return mboxlist_db_open(MBOXLIST_QUOTADB, mboxlist_env()); }, 58,
     "Unable to open quota database: %m", "Could not open quota database", 0},
    {[] { return mboxlist_db_open(MBOXLIST_SUBSDB, mboxlist_env()); }, 58,
     "Unable to open subscription database: %m", "Could not open subscription database", 0},
    {[] { return seen_init(mboxlist_env(), "peruser.db", mboxlist_key_compare, mboxlist_key_prefix); },
     58, "Unable to open peruser database: %m", "Could not open peruser database", 0},
    {[] { return mboxlist_db_open(MBOXLIST_LRIGHTDB, mboxlist_env()); }, 58,
     "Unable to open lright database: %m", "Could not open lright database", 1},
};
static const int NDATABASES = (int)(sizeof(databases) / sizeof(databases[0]));

// Opens the databases in order; the index of the first that failed (errno
// holds its cause), or NDATABASES when all are open.
static int open_databases(void) {
    for (int i = 0; i < NDATABASES; i++)
        if (databases[i].open() != 0) return i;
    return NDATABASES;
}

// Closes what one open attempt of phase III opened, newest first.
static void close_attempt(void) {
    seen_shutdown();
    mboxlist_db_close_all(0);
    mboxlist_close_env();
}

int storestartup_phaseIII(uint32_t flags) {
    uint32_t seq[10];
    unsigned n = phase_sequence("stored.ph3", phaseIII_default_sequence, 3, seq);
    const char *home = have_dbcache ? mboxlistcachedir : mboxlistdir;
    unsigned next = 0;
    static const char *const before[5] = {nullptr, nullptr, "Recovering snapshot during startup",
                                          "Initializing with template during startup",
                                          "Removing database before startup."};
    static const char *const failed[5] = {nullptr, nullptr,
                                          "Recovering snapshot during startup failed",
                                          "Initializing with template during startup failed",
                                          "Removing database before startup failed."};

    for (;;) {
        while (db_state != DBSTATE_GOOD && next < n) {
            uint32_t f = seq[next++];
            if (f < 2 || f > 4 || !repair_applies(f) || !phase_function_execute(f)) continue;
            svclog(nullptr, 2, "%s", before[f]);
            int r = run_repair(f, mboxlistdir, have_dbcache, mboxlistcachedir);
            int cause = r == 0 || r == -2 ? 0 : resource_cause(errno);
            if (cause) return refuse_start(cause, "repairing the database");
            if (r != 0) svclog(nullptr, 2, "%s", failed[f]);
            db_state = r == 0 ? DBSTATE_GOOD : DBSTATE_BROKEN;
            if (r == 0) catrecov = f == 2;
            write_event();
        }
        if (db_state != DBSTATE_GOOD) return -1;

        flags &= ~(uint32_t)(DB_RECOVER | DB_RECOVER_FATAL);
        flags |= (catrecov || catrecov_forced) ? DB_RECOVER_FATAL : DB_RECOVER;
        svclog(nullptr, 62, "stored mboxlist_init: opening the database environment with %s recovery",
               (flags & DB_RECOVER_FATAL) ? "catastrophic" : "normal");
        errno = 0;
        int bad = -1;
        if (mboxlist_open_env(flags, home) == 0 && (bad = open_databases()) == NDATABASES) break;
        int cause = resource_cause(errno);
        close_attempt();
        if (cause) {
            // The region files of this attempt hold the room the next start
            // needs; nothing is attached to them.
            mboxlist_remove_env(1);
            return refuse_start(cause, "opening the databases");
        }
        if (bad < 0)
            svclog(nullptr, 2, "Database startup: Could not open database environment  errno = %d  %d",
                   errno, -1);
        else
            svclog(nullptr, 2, "%s", databases[bad].daemon_msg);
        db_state = DBSTATE_BROKEN;
    }
    svclog(nullptr, 62, "stored mboxlist_init: mboxlist database startup successful");
    return 0;
}

// ---- the start-up -------------------------------------------------------

static void at_exit_close(void) { mboxlist_close(); }

static int listrecover_mode(const char *v) {
    static const char *const modes[] = {"AlwaysFolderDB",      "AlwaysPartition",
                                        "TestPartition",       "TestPartitionInsert",
                                        "TestPartitionInsertFull", "TestPreRecover"};
    if (!v) return 0;
    for (int i = 0; i < 6; i++)
        if (strcasecmp(v, modes[i]) == 0) return i + 1;
    return 0;
}

// Identity, error table, watcher, and for a short-lived process the daemon
// check and the session lock. 0 or an exit status.
static int check_process(config_cache *c) {
    if (configmsg_setuid() != 0) {
        svclog(nullptr, 2, "Cannot setuid to the serveruid");
        return MBOXLIST_START_CONFIG;
    }
    const char *root = config_get_string(c, "local.serverroot", ".");
    char *langs = config_get_stringcopy(c, "gen.installedlanguages", "en");
    et_install_language_plugin(root, langs);
    free(langs);
    imap_InitializePRErrorTable();
    if (config_get_switch(c, "local.watcher.enable", 0) && !register_with_watcher()) {
        svclog(nullptr, 2, "Cannot connect to the watcher process");
        return MBOXLIST_START_TEMPFAIL;
    }
    return 0;
}

static int check_daemon(void) {
    if (dont_check_stored) return 0;
    if (!store_session_ready_test("stored")) {
        svclog(nullptr, 2, "%s", STORED_NOT_READY);
        fputs(STORED_NOT_READY, stderr);
        return MBOXLIST_START_TEMPFAIL;
    }
    if (mboxlist_session_lock() < 0) {
        svclog(nullptr, 2, "Cannot create session lock");
        return MBOXLIST_START_TEMPFAIL;
    }
    return 0;
}

// Directories, the last event and the modes of the configuration; the home
// of the environment into home (1024 bytes).
static int read_places(config_cache *c, char *home) {
    if (mboxlist_mboxlist_path(mboxlistdir) != 0) return MBOXLIST_START_CONFIG;
    const char *tmp = config_get_string(c, "store.dbtmpdir", nullptr);
    have_dbcache = tmp && *tmp;
    snprintf(mboxlistcachedir, sizeof(mboxlistcachedir), "%s", have_dbcache ? tmp : "");
    if (have_dbcache)
        snprintf(home, 1024, "%s", mboxlistcachedir);
    else
        store_subdir(home, 1024, "mboxlist");

    long eve = 0;
    int r = configmsg_readstoredfile("eve", &eve);
    if (r == 0)
        last_catastrophic_event = (uint32_t)eve;
    else if (r != 2)
        svclog(nullptr, 2, "mboxlist_init: Error reading last event file errno = %d", r);
    last_catastrophic_check = (uint32_t)time(nullptr);
    listrecover = listrecover_mode(config_get_string(c, "local.store.listrecover", nullptr));
    return 0;
}

// The daemon's recovery: analysis, repairs, and the open with fallback.
static int recover_databases(uint32_t flags) {
    int r = storestartup_phaseI(mboxlistdir, have_dbcache, mboxlistcachedir);
    if (r == MBOXLIST_START_TEMPFAIL) return r;
    if (r != 0) {
        svclog(nullptr, 2, "mboxlist_init: Error analysing mboxlist database errno = %d  (%d)",
               errno, r);
        return MBOXLIST_START_FAILED;
    }
    r = storestartup_phaseII(mboxlistdir, have_dbcache, mboxlistcachedir);
    if (r == MBOXLIST_START_TEMPFAIL) return r;
    if (r != 0) {
        svclog(nullptr, 2, "mboxlist_init: Error attempting to bring up store  errno = %d  (%d)",
               errno, r);
        return MBOXLIST_START_FAILED;
    }
    r = storestartup_phaseIII(flags);
    if (r == MBOXLIST_START_TEMPFAIL) return r;
    if (r != 0) {
        svclog(nullptr, 59,
               "Unable to bring the message store up.  Analyse installation and configuration.");
        return MBOXLIST_START_NODB;
    }
    struct stat st;
    if (stat(mboxlistdir, &st) == 0) {
        dbdir_known = 1;
        dbdir_dev = st.st_dev;
        dbdir_ino = st.st_ino;
    }
    return 0;
}

// A short-lived process joins the running environment.
static int join_databases(uint32_t flags, const char *home) {
    if (mboxlist_open_env(flags, home) != 0) {
        svclog(nullptr, 59, "Unable to create mboxlist database environment: %s", db_strerror(errno));
        return MBOXLIST_START_FAILED;
    }
    int bad = open_databases();
    if (bad == NDATABASES) return 0;
    svclog(nullptr, databases[bad].level, "%s", databases[bad].client_msg);
    return databases[bad].optional ? 0 : MBOXLIST_START_FAILED;
}

int mboxlist_initactual(void) {
    config_cache *c = config_getdefaultcache();
    if (!exit_handler_registered) {
        atexit(at_exit_close);
        exit_handler_registered = 1;
    }
    int r = check_process(c);
    if (r != 0) return r;
    if (!config_get_switch(c, "local.store.enable", 1)) return 0;
    if ((r = check_daemon()) != 0) return r;
    char home[1024];
    if ((r = read_places(c, home)) != 0) return r;
    mailbox_initexpungelog();

    uint32_t flags = DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_TXN | DB_THREAD;
    if (config_get_int(c, "local.dbtxnsync", 0) <= 1) flags |= MBOXLIST_TXN_NOSYNC;
    r = do_recovery ? recover_databases(flags | DB_CREATE) : join_databases(flags, home);
    if (r != 0) return r;

    char lockhome[1100];
    snprintf(lockhome, sizeof(lockhome), "%s/folderlock", home);
    if ((r = mboxlist_open_lockenv(lockhome, do_recovery != 0)) != 0) {
        svclog(nullptr, 59, "Unable to open mboxlock database: %s", db_strerror(r));
        if (do_recovery && is_resource_error(r)) return refuse_start(r, "opening the lock environment");
        return MBOXLIST_START_FAILED;
    }

    // The message type plug-in loads here once plug-ins land.
    ensureownerrights = config_get_switch(c, "local.store.ensureownerrights", 1);
    if (config_get_switch(c, "local.store.finalcheckpoint", 0)) mboxlist_set_final_checkpoint(1);
    if (config_get_switch(c, "local.store.dbsync", 0)) mboxlist_set_db_sync(1);
    return 0;
}

static PRStatus initactual_once(void) {
    init_result = mboxlist_initactual();
    return PR_SUCCESS;
}

int mboxlist_init(void) {
    PR_CallOnce(&init_once, initactual_once);
    // The one place where a failed start ends the process.
    if (init_result > 0) exit(init_result);
    return mboxlist_db(MBOXLIST_FOLDERDB) ? 0 : IMAP_MAILBOXLIST_NONEXISTENT;
}

int mboxlist_recover(void) {
    do_recovery = DB_RECOVER;
    dont_check_stored = 1;
    if (mboxlist_init() != 0) return IMAP_MAILBOXLIST_NONEXISTENT;
    mboxlist_set_final_checkpoint(1);
    return 0;
}

int mboxlist_dbdir_intact(void) {
    if (!dbdir_known) return 1;
    struct stat st;
    char path[1100];
    snprintf(path, sizeof(path), "%sfolder.db", mboxlistdir);
    // Only an answer that the directory or its folder database is not there
    // (or is another) counts; a stat that fails otherwise tells nothing.
    int gone;
    if (stat(mboxlistdir, &st) != 0)
        gone = errno == ENOENT || errno == ENOTDIR;
    else if (st.st_dev != dbdir_dev || st.st_ino != dbdir_ino)
        gone = 1;
    else
        gone = stat(path, &st) != 0 && errno == ENOENT;
    if (gone && !dbdir_gone_logged) {
        svclog(nullptr, 2,
               "The folder database directory %s has been removed or replaced while the store "
               "ran. The store is no longer ready; restore the databases, then start the store "
               "daemon again.",
               mboxlistdir);
        dbdir_gone_logged = 1;
    }
    return !gone;
}

void mboxlist_reset_for_tests(void) {
    mboxlist_close();
    memset(&init_once, 0, sizeof(init_once));
    init_result = 0;
    do_recovery = 0;
    dont_check_stored = 0;
    mboxlist_set_final_checkpoint(0);
    mboxlist_set_db_sync(0);
    db_state = DBSTATE_UNJUDGED;
    catrecov = catrecov_forced = 0;
    phase_functions_executed_n = 0;
    dbdir_known = dbdir_gone_logged = 0;
}

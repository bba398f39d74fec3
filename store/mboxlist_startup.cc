// Start-up of the folder database. A short-lived process checks that the
// store daemon has finished starting, takes its session lock and joins the
// environment. The daemon judges the database directories as plain files
// (phase I), repairs what it finds (phase II), and opens the environment,
// falling back through the repairs until it opens (phase III).
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <prinit.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
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
#include "support/xmalloc.h"

int db_state = 0;
int catrecov = 0;
int catrecov_forced = 0;
char mboxlistdir[1024];
uint32_t mboxlist_last_catastrophic_event = 0;
uint32_t mboxlist_last_catastrophic_check = 0;
int mboxlist_listrecover = 0;
int ensureownerrights = 1;

static int have_dbcache = 0;
static char mboxlistcachedir[1024];
static uint32_t phase_functions_executed[10];
static unsigned phase_functions_executed_n = 0;
static const unsigned phase_functions_executed_max = 10;
static const uint32_t phaseII_default_sequence[4] = {2, 1, 3, 4};
static const uint32_t phaseIII_default_sequence[3] = {2, 3, 4};

static PRCallOnceType init_once;
static int exit_handler_registered = 0;

static const char STORED_NOT_READY[] =
    "Unable to verify start of store daemon (stored). The store daemon process must be running "
    "and the initialization must be finished before this process starts. If the store daemon is "
    "running, do not restart it; wait until it has finished initializing, then start this "
    "process again. If the store daemon is not running, please start it.\n";

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
    mboxlist_last_catastrophic_event = (uint32_t)now;
}

// ---- phase I: analysis ----------------------------------------------------

static int make_db_dirs(const char *dir, int have_cache, const char *cachedir,
                        const char *cachemsg) {
    if (mailbox_makedirs(dir) != 0) {
        svclog(nullptr, 2, "mboxlist_init: cannot create mboxlist dbdir: %s", dir);
        return -1;
    }
    if (have_cache && mailbox_makedirs(cachedir) != 0) {
        svclog(nullptr, 2, cachemsg, cachedir);
        return -1;
    }
    return 0;
}

int storestartup_phaseI(const char *dir, int have_cache, const char *cachedir) {
    if (make_db_dirs(dir, have_cache, cachedir,
                     "mboxlist_init: cannot create mboxlist dbcachedir: :%s:") != 0)
        return -1;
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
    if (mailbox_makedirs(home) != 0) {
        svclog(nullptr, 2, "mboxlist_init: cannot create mboxlist dbdir: %s", home);
        return -1;
    }

    uint32_t exists, cexists = 0;
    int nfiles, nfiles_u, logs, cnfiles = 0, cnfiles_u = 0, clogs;
    long lowest, highest, clowest, chighest;
    int r = check_db_dir(dir, &exists, &nfiles, &nfiles_u, &logs, &lowest, &highest);
    if (r != 0) {
        svclog(nullptr, 2, "mboxlist_init: error checking mboxlist db directory :%s: %d %d", dir,
               errno, r);
        return -1;
    }
    uint32_t joined = exists;
    int jnfiles = nfiles, jnfiles_u = nfiles_u;
    if (have_cache) {
        r = check_db_dir(cachedir, &cexists, &cnfiles, &cnfiles_u, &clogs, &clowest, &chighest);
        if (r != 0) {
            svclog(nullptr, 2, "mboxlist_init: error checking mboxlist db cache directory :%s %d %d:",
                   cachedir, errno, r);
            return -1;
        }
        joined = (exists & 0x1001F) | (cexists & 0xFF00);
        jnfiles += cnfiles;
        jnfiles_u += cnfiles_u;
    }
    catrecov_forced = (int)(joined & DBDIR_CATRECOV);

    svclog(nullptr, 62, "stored mboxlist_init: Printing Stored Database Startup Information:");
    svclog(nullptr, 62, "mboxlist_init: mboxlist db path = :%s:", dir);
    svclog(nullptr, 62,
           "mboxlist_init: mboxlist db state data:  exists = 0x%x nfiles = %d, nfiles_u = %d  "
           "logs = %d %ld - %ld  cache = %d 0x%x",
           exists, nfiles, nfiles_u, logs, lowest, highest, have_cache, joined);
    if (have_cache) {
        svclog(nullptr, 62, "stored: mboxlist db cache path = :%s:", cachedir);
        svclog(nullptr, 62,
               "mboxlist_init: mboxlist db cache state data:  exists = 0x%x nfiles = %d, "
               "nfiles_u = %d  logs = %d %ld - %ld",
               cexists, cnfiles, cnfiles_u, clogs, clowest, chighest);
    }
    if (mboxlist_last_catastrophic_event)
        svclog(nullptr, 62, "stored: Last event id = 0x%x", mboxlist_last_catastrophic_event);

    nsnaps = 0;
    if (mboxlist_snapshot_path(snapPath) != 0) {
        svclog(nullptr, 60, "stored mboxlist_init: Error while trying to determine snapshot path");
    } else if ((r = analyse_snapshots(snapPath, &nsnaps, snaptimes, snapdirs)) != 0) {
        svclog(nullptr, 60, "stored mboxlist_init: Error while examining snapshots at path :%s: %d %d",
               snapPath, errno, r);
        nsnaps = 0;
    }
    if (nsnaps > 0) {
        svclog(nullptr, 62,
               "mboxlist_init: Best mboxlist db snapshot taken at 0x%x found in :%s: :%s: n = %d",
               snaptimes[0], snapPath, snapdirs[0], nsnaps);
        stored_last_snapshot = snaptimes[0];
    } else {
        svclog(nullptr, 62, "mboxlist_init: No valid mboxlist db snapshots found.");
    }

    (void)jnfiles;
    (void)jnfiles_u;
    if ((joined & 0xF81F) == 0 && logs == 0)
        db_state = 2;
    else if ((joined & 0xF) != 0xF)
        db_state = 5;
    else if (logs == 0)
        db_state = 3;
    else if (highest - lowest + 1 != logs)
        db_state = 4;
    else if (!mboxlist_maxlog_check(logs))
        db_state = 4;
    else
        db_state = 1;
    svclog(nullptr, 62, "mboxlist_init: DB initial state = %d", db_state);
    return 0;
}

// ---- phase II: repairs before the first open -----------------------------

static const char *snapshot_dir(char *buf, size_t size) {
    snprintf(buf, size, "%s%s", snapPath, snapdirs[0]);
    return buf;
}

int storestartup_phaseII(const char *dir, int have_cache, const char *cachedir) {
    if (make_db_dirs(dir, have_cache, cachedir,
                     "mboxlist_init: cannot create mboxlist mboxlistcachedir: %s") != 0)
        return -1;
    if (have_cache) {
        int r = write_db_config(dir, cachedir);
        if (r != 0) {
            svclog(nullptr, 2, "Can not write DB_CONFIG file into :%s: %d %d", cachedir, errno, r);
            return -1;
        }
    }
    uint32_t seq[10];
    unsigned n = phase_sequence("stored.ph2", phaseII_default_sequence, 4, seq);
    if (db_state == 1) return 0;

    for (unsigned i = 0; i < n && db_state != 1; i++) {
        uint32_t f = seq[i];
        char snap[1100];
        int r;
        switch (f) {
            case 1:
                if (db_state != 3 && db_state != 4) break;
                if (!phase_function_execute(1)) break;
                svclog(nullptr, 2,
                       "Removing extra database logs.  Run reconstruct -m soon after startup to "
                       "resync redundant data");
                zero_logs(dir);
                db_state = 1;
                write_event();
                break;
            case 2:
                if (nsnaps <= 0) break;
                if (!phase_function_execute(2)) break;
                svclog(nullptr, 2,
                       "Recovering database from snapshot.  Run reconstruct -m soon after "
                       "startup to resync redundant data");
                r = recover_snapshot(dir, have_cache, cachedir, snapshot_dir(snap, sizeof(snap)));
                if (r == 0) {
                    db_state = 1;
                    catrecov = 1;
                } else {
                    svclog(nullptr, 2, "Recovering from snapshot failed failed %d %d", errno, r);
                    db_state = 5;
                }
                write_event();
                break;
            case 3: {
                if (!phase_function_execute(3)) break;
                int was_empty = db_state == 2;
                if (!was_empty)
                    svclog(nullptr, 2,
                           "Removing database and initializing with template.  Run reconstruct "
                           "-m to resync data after store is up.");
                r = insert_template();
                if (r == 0) {
                    db_state = 1;
                    catrecov = 0;
                } else if (!(r == -2 && was_empty)) {
                    svclog(nullptr, 2,
                           "Could not initialize database with templates (not necessarily "
                           "needed) %d %d",
                           errno, r);
                    db_state = 5;
                }
                write_event();
                break;
            }
            case 4:
                if (!phase_function_execute(4)) break;
                if (db_state == 2) {
                    // A new store needs no removing.
                    db_state = 1;
                    catrecov = 0;
                    break;
                }
                svclog(nullptr, 2,
                       "Removing database and initializing.  Run reconstruct -m to resync data "
                       "after store is up.");
                r = remove_db(dir, have_cache ? cachedir : nullptr);
                if (r == 0) {
                    db_state = 1;
                    catrecov = 0;
                } else {
                    svclog(nullptr, 2, "Could not initialize (remove) database files %d %d", errno,
                           r);
                    db_state = 5;
                }
                write_event();
                break;
            default:
                break;
        }
    }
    return db_state == 1 ? 0 : -1;
}

// ---- phase III: opening with fallback -----------------------------------

// Closes what one open attempt of phase III opened, newest first.
static void close_attempt(void) {
    if (lrightdb) {
        lrightdb->close(lrightdb, 0);
        lrightdb = nullptr;
    }
    seen_shutdown();
    if (subsdb) {
        subsdb->close(subsdb, 0);
        subsdb = nullptr;
    }
    if (quotadb) {
        quotadb->close(quotadb, 0);
        quotadb = nullptr;
    }
    if (mbl) {
        mbl->close(mbl, 0);
        mbl = nullptr;
    }
    if (mboxlist_dbenv) {
        mboxlist_dbenv->close(mboxlist_dbenv, 0);
        mboxlist_dbenv = nullptr;
    }
}

int storestartup_phaseIII(uint32_t flags) {
    uint32_t seq[10];
    unsigned n = phase_sequence("stored.ph3", phaseIII_default_sequence, 3, seq);
    const char *home = have_dbcache ? mboxlistcachedir : mboxlistdir;
    unsigned next = 0;

    for (;;) {
        while (db_state != 1 && next < n) {
            uint32_t f = seq[next++];
            if (f < 2 || f > 4) continue;
            if (f == 2 && nsnaps <= 0) continue;
            if (!phase_function_execute(f)) continue;
            char snap[1100];
            if (f == 2) {
                svclog(nullptr, 2, "Recovering snapshot during startup");
                if (recover_snapshot(mboxlistdir, have_dbcache, mboxlistcachedir,
                                     snapshot_dir(snap, sizeof(snap))) != 0) {
                    db_state = 5;
                    svclog(nullptr, 2, "Recovering snapshot during startup failed");
                } else {
                    db_state = 1;
                    catrecov = 1;
                }
            } else if (f == 3) {
                svclog(nullptr, 2, "Initializing with template during startup");
                if (insert_template() != 0) {
                    svclog(nullptr, 2, "Initializing with template during startup failed");
                    db_state = 5;
                } else {
                    db_state = 1;
                    catrecov = 0;
                }
            } else {
                svclog(nullptr, 2, "Removing database before startup.");
                if (remove_db(mboxlistdir, have_dbcache ? mboxlistcachedir : nullptr) != 0) {
                    svclog(nullptr, 2, "Removing database before startup failed.");
                    db_state = 5;
                } else {
                    db_state = 1;
                    catrecov = 0;
                }
            }
            write_event();
        }
        if (db_state != 1) return -1;

        flags &= ~(uint32_t)(DB_RECOVER | DB_RECOVER_FATAL);
        flags |= (catrecov || catrecov_forced) ? DB_RECOVER_FATAL : DB_RECOVER;

        svclog(nullptr, 62, "stored mboxlist_init: opening the database environment with %s recovery",
               (flags & DB_RECOVER_FATAL) ? "catastrophic" : "normal");
        const char *failed = nullptr;
        if (mboxlist_open_env(flags, home) != 0) {
            svclog(nullptr, 2, "Database startup: Could not open database environment  errno = %d  %d",
                   errno, -1);
            failed = "";
        } else if (folder_init(mboxlist_dbenv, "folder.db", key_compare, key_prefix) != 0) {
            failed = "Could not open folder database";
        } else if (quota_init(mboxlist_dbenv, "quota.db", key_compare, key_prefix) != 0) {
            failed = "Could not open quota database";
        } else if (sub_init(mboxlist_dbenv, "subscr.db", key_compare, key_prefix) != 0) {
            failed = "Could not open subscription database";
        } else if (seen_init(mboxlist_dbenv, "peruser.db", key_compare, key_prefix) != 0) {
            failed = "Could not open peruser database";
        } else if (lright_init(mboxlist_dbenv, "lright.db", key_compare, key_prefix) != 0) {
            failed = "Could not open lright database";
        }
        if (!failed) break;
        if (*failed) svclog(nullptr, 2, "%s", failed);
        close_attempt();
        db_state = 5;
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

int mboxlist_initactual(void) {
    config_cache *c = config_getdefaultcache();
    if (!exit_handler_registered) {
        atexit(at_exit_close);
        exit_handler_registered = 1;
    }
    if (configmsg_setuid() != 0) {
        svclog(nullptr, 2, "Cannot setuid to the serveruid");
        exit(78);
    }
    {
        const char *root = config_get_string(c, "local.serverroot", ".");
        char *langs = config_get_stringcopy(c, "gen.installedlanguages", "en");
        et_install_language_plugin(root, langs);
        free(langs);
        imap_InitializePRErrorTable();
    }
    if (config_get_switch(c, "local.watcher.enable", 0) && !register_with_watcher()) {
        svclog(nullptr, 2, "Cannot connect to the watcher process");
        exit(75);
    }
    if (!config_get_switch(c, "local.store.enable", 1)) return 0;

    if (!mboxlist_dont_check_stored && !store_session_ready_test("stored")) {
        svclog(nullptr, 2, "%s", STORED_NOT_READY);
        fputs(STORED_NOT_READY, stderr);
        exit(75);
    }
    if (!mboxlist_dont_check_stored && mboxlist_session_lock() < 0) {
        svclog(nullptr, 2, "Cannot create session lock");
        exit(75);
    }
    if (mboxlist_mboxlist_path(mboxlistdir) != 0) exit(78);

    const char *tmp = config_get_string(c, "store.dbtmpdir", nullptr);
    have_dbcache = tmp && *tmp;
    snprintf(mboxlistcachedir, sizeof(mboxlistcachedir), "%s", have_dbcache ? tmp : "");
    char home[1024];
    if (have_dbcache)
        snprintf(home, sizeof(home), "%s", mboxlistcachedir);
    else
        store_subdir(home, sizeof(home), "mboxlist");

    long eve = 0;
    int r = configmsg_readstoredfile("eve", &eve);
    if (r == 0)
        mboxlist_last_catastrophic_event = (uint32_t)eve;
    else if (r != 2)
        svclog(nullptr, 2, "mboxlist_init: Error reading last event file errno = %d", r);
    mboxlist_last_catastrophic_check = (uint32_t)time(nullptr);

    mboxlist_listrecover = listrecover_mode(config_get_string(c, "local.store.listrecover", nullptr));
    mailbox_initexpungelog();

    uint32_t flags = DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_TXN | DB_THREAD;
    if (do_recovery) {
        flags |= DB_CREATE;
        if ((r = storestartup_phaseI(mboxlistdir, have_dbcache, mboxlistcachedir)) != 0) {
            svclog(nullptr, 2, "mboxlist_init: Error analysing mboxlist database errno = %d  (%d)",
                   errno, r);
            exit(1);
        }
        if ((r = storestartup_phaseII(mboxlistdir, have_dbcache, mboxlistcachedir)) != 0) {
            svclog(nullptr, 2, "mboxlist_init: Error attempting to bring up store  errno = %d  (%d)",
                   errno, r);
            exit(1);
        }
    }
    if (config_get_int(c, "local.dbtxnsync", 0) <= 1) flags |= MBOXLIST_TXN_NOSYNC;

    if (do_recovery) {
        if (storestartup_phaseIII(flags) != 0) {
            svclog(nullptr, 59,
                   "Unable to bring the message store up.  Analyse installation and configuration.");
            mboxlist_dbenv = nullptr;
            mbl = nullptr;
            return -1;
        }
    } else {
        if (mboxlist_open_env(flags, home) != 0) {
            svclog(nullptr, 59, "Unable to create mboxlist database environment: %s",
                   db_strerror(errno));
            exit(1);
        }
        if (folder_init(mboxlist_dbenv, "folder.db", key_compare, key_prefix) != 0) {
            svclog(nullptr, 59, "Unable to open mboxlist database: %m");
            exit(1);
        }
        if (quota_init(mboxlist_dbenv, "quota.db", key_compare, key_prefix) != 0) {
            svclog(nullptr, 58, "Unable to open quota database: %m");
            exit(1);
        }
        if (sub_init(mboxlist_dbenv, "subscr.db", key_compare, key_prefix) != 0) {
            svclog(nullptr, 58, "Unable to open subscription database: %m");
            exit(1);
        }
        if (seen_init(mboxlist_dbenv, "peruser.db", key_compare, key_prefix) != 0) {
            svclog(nullptr, 58, "Unable to open peruser database: %m");
            exit(1);
        }
        if (lright_init(mboxlist_dbenv, "lright.db", key_compare, key_prefix) != 0)
            svclog(nullptr, 58, "Unable to open lright database: %m");
    }

    char lockhome[1100];
    snprintf(lockhome, sizeof(lockhome), "%s/folderlock", home);
    r = db_env_create(&mboxlockenv, 0);
    if (r == 0 && do_recovery) {
        // The home is made first, so that the removal of a lock environment
        // that never existed finds its directory.
        mailbox_makedirs(lockhome);
        r = mboxlockenv->remove(mboxlockenv, lockhome, DB_FORCE);
        if (r == ENOENT) r = 0;
        mboxlockenv = nullptr;
        if (r == 0) r = db_env_create(&mboxlockenv, 0);
        if (r == 0 && mailbox_makedirs(lockhome) != 0) {
            svclog(nullptr, 2, "mboxlist_init: cannot create mboxlock tmpdir: %s", lockhome);
            exit(1);
        }
    }
    if (r != 0) {
        svclog(nullptr, 59, "Unable to create mboxlock database environment: %s", db_strerror(r));
        exit(1);
    }
    mboxlockenv->set_errcall(mboxlockenv, mboxlist_err);
    mboxlockenv->set_errpfx(mboxlockenv, "mboxlock");
    mboxlockenv->set_lk_detect(mboxlockenv, DB_LOCK_OLDEST);
    mboxlockenv->set_lk_max_locks(mboxlockenv, 50000);
    mboxlockenv->set_lk_max_lockers(mboxlockenv, 50000);
    mboxlockenv->set_lk_max_objects(mboxlockenv, 50000);
    r = mboxlockenv->open(mboxlockenv, lockhome, DB_CREATE | DB_THREAD | DB_INIT_LOCK, 0);
    if (r != 0) {
        svclog(nullptr, 59, "Unable to open mboxlock database: %s", db_strerror(r));
        exit(1);
    }

    // The message type plug-in loads here once plug-ins land.
    ensureownerrights = config_get_switch(c, "local.store.ensureownerrights", 1);
    if (config_get_switch(c, "local.store.finalcheckpoint", 0)) mboxlist_do_final_checkpoint = 1;
    if (config_get_switch(c, "local.store.dbsync", 0)) mboxlist_db_memp_fsync = 1;
    return 0;
}

static PRStatus initactual_once(void) {
    mboxlist_initactual();
    return PR_SUCCESS;
}

int mboxlist_init(void) {
    PR_CallOnce(&init_once, initactual_once);
    return mbl ? 0 : IMAP_MAILBOXLIST_NONEXISTENT;
}

void mboxlist_reset_for_tests(void) {
    mboxlist_close();
    memset(&init_once, 0, sizeof(init_once));
    do_recovery = 0;
    mboxlist_dont_check_stored = 0;
    mboxlist_do_final_checkpoint = 0;
    mboxlist_db_memp_fsync = 0;
    db_state = 0;
    catrecov = catrecov_forced = 0;
    phase_functions_executed_n = 0;
    nsnaps = 0;
    stored_last_snapshot = 0;
}

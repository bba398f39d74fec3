// The two environments of the folder database, the session lock files,
// the watcher, the maintenance entry points of the daemon and the log files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/mboxlist.h"
#include "store/imap_err.h"
#include "store/seen_db.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/signals.h"
#include "support/watch.h"

static DB_ENV *mboxlist_dbenv = nullptr;
static DB_ENV *mboxlockenv = nullptr;
static int mboxlist_do_final_checkpoint = 0;
static int mboxlist_db_memp_fsync = 0;

static int sessionlockfd = -1;
static char sessionlockfile[1024];
static uint32_t ourpid;
static int watcher = 0;

DB_ENV *mboxlist_env(void) { return mboxlist_dbenv; }
DB_ENV *mboxlist_lockenv(void) { return mboxlockenv; }
uint32_t mboxlist_db_close_flags(void) { return mboxlist_db_memp_fsync ? 0 : DB_NOSYNC; }
void mboxlist_set_final_checkpoint(int on) { mboxlist_do_final_checkpoint = on != 0; }
void mboxlist_set_db_sync(int on) { mboxlist_db_memp_fsync = on != 0; }

// ---- sessions and watcher ------------------------------------------------

int mboxlist_session_lock(void) {
    const char *dir = configmsg_get_storedir();
    if (!dir) return -1;
    const char *name = config_processname();
    if (!name) name = "unknown";
    ourpid = (uint32_t)process_id();
    int n = snprintf(sessionlockfile, sizeof(sessionlockfile), "%s/session/%s.%lu", dir, name,
                     (unsigned long)ourpid);
    if (n < 0 || n > 1023) return -1;
    sessionlockfd = open(sessionlockfile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (sessionlockfd >= 0 && lock_nonblocking_fs(sessionlockfd) != 0) {
        close(sessionlockfd);
        sessionlockfd = -1;
    }
    if (sessionlockfd < 0)
        svclog(nullptr, 58, "Cannot create session lock file %s: %m", sessionlockfile);
    return sessionlockfd;
}

void mboxlist_session_unlock(void) {
    if (sessionlockfd == -1) return;
    unlink(sessionlockfile);
    lock_unlock_fs(sessionlockfd);
    close(sessionlockfd);
    sessionlockfd = -1;
}

int mboxlist_session_sweep(void) {
    const char *store = configmsg_get_storedir();
    char dir[1024];
    if (!store || snprintf(dir, sizeof(dir), "%s/session", store) >= (int)sizeof(dir)) return -1;
    DIR *d = opendir(dir);
    if (!d) return errno == ENOENT ? 0 : -1;
    int live = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (e->d_name[0] == '.') continue;
        char path[1400];
        snprintf(path, sizeof(path), "%s/%s", dir, e->d_name);
        int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) continue;
        // A program holds the lock of its file for as long as it runs: a
        // lock that can be had belongs to a program that is gone.
        if (lock_nonblocking_fs(fd) == 0) {
            unlink(path);
            lock_unlock_fs(fd);
        } else {
            live++;
        }
        close(fd);
    }
    closedir(d);
    return live;
}

int register_with_watcher(void) {
    config_cache *c = config_getdefaultcache();
    const char *addr = config_get_string(c, "service.listenaddr", "localhost");
    int port = config_get_int(c, "local.watcher.port", 0) & 0xFFFF;
    const char *name = config_processname();
    if (watch_connect(nullptr, addr, port, name ? name : "unknown", 1) != 0) return 0;
    watcher = 1;
    return 1;
}

// ---- environments -------------------------------------------------------

void mboxlist_err(const DB_ENV *, const char *, const char *message) {
    svclog(nullptr, 58, "Mailbox database error: %s", message);
}

// Threads of all processes that the environment can track at one time.
static const uint32_t FAILCHK_THREADS = 1000;

// Whether the process of a thread that the environment tracks still runs;
// its threads are taken to live as long as it does.
static int process_alive(DB_ENV *, pid_t pid, db_threadid_t, uint32_t) {
    return kill(pid, 0) == 0 || errno == EPERM;
}

int mboxlist_open_env(uint32_t flags, const char *home) {
    int r = db_env_create(&mboxlist_dbenv, 0);
    if (r != 0) {
        svclog(nullptr, 59, "Unable to create mboxlist database environment: %s", db_strerror(r));
        mboxlist_dbenv = nullptr;
        return -1;
    }
    config_cache *c = config_getdefaultcache();
    DB_ENV *env = mboxlist_dbenv;
    env->set_errcall(env, mboxlist_err);
    env->set_errpfx(env, "mboxlist");
    env->set_cachesize(env, 0, (uint32_t)config_get_int(c, "store.dbcachesize", 8388608), 0);
    env->set_lg_max(env, 10485760);
    if (config_get_switch(c, "local.store.deadlock.autodetect", 0))
        env->set_lk_detect(env, DB_LOCK_OLDEST);
    env->set_lk_max_locks(env, 50000);
    env->set_lk_max_lockers(env, 50000);
    env->set_lk_max_objects(env, 50000);
    env->set_tx_max(env, 10000);
    env->set_alloc(env, malloc, realloc, free);
    // Commits without a log sync: the log records are still written to the
    // file at commit (DB_TXN_WRITE_NOSYNC), only not flushed to the disk. Left
    // in the shared log buffer (DB_TXN_NOSYNC) they would be lost whenever a
    // recovery rebuilds the environment, as the daemon's start does after a
    // program died inside the library, and a folder created seconds before
    // would vanish. Only a crash of the host can still take them.
    if (flags & MBOXLIST_TXN_NOSYNC) env->set_flags(env, DB_TXN_WRITE_NOSYNC, 1);
    // Region files are mapped into memory. Made sparse, a page that finds no
    // room on the file system kills the process with SIGBUS when it is first
    // touched; written out in full when they are made, a full file system
    // is an ENOSPC of the open.
    if (flags & DB_CREATE) {
        env->set_flags(env, DB_REGION_INIT, 1);
        // The environment tracks the threads of every process that joins it,
        // so that the daemon can clear up after one that was killed inside
        // a transaction: its locks would otherwise block the store for good
        // (mboxlist_failchk).
        env->set_thread_count(env, FAILCHK_THREADS);
        env->set_isalive(env, process_alive);
    }
    r = env->open(env, home, flags & ~(uint32_t)MBOXLIST_TXN_NOSYNC, 0);
    if (r != 0) {
        int cause = r > 0 ? r : errno;
        env->close(env, 0);
        mboxlist_dbenv = nullptr;
        errno = cause;
        return -1;
    }
    return 0;
}

int mboxlist_open_lockenv(const char *home, int recreate) {
    int r = db_env_create(&mboxlockenv, 0);
    if (r != 0) {
        mboxlockenv = nullptr;
        return r;
    }
    if (recreate) {
        // The home is made first, so that the removal of a lock environment
        // that never existed finds its directory. remove() frees the handle.
        mailbox_makedirs(home);
        r = mboxlockenv->remove(mboxlockenv, home, DB_FORCE);
        mboxlockenv = nullptr;
        if (r != 0 && r != ENOENT) return r;
        if ((r = db_env_create(&mboxlockenv, 0)) != 0) {
            mboxlockenv = nullptr;
            return r;
        }
    }
    if (mailbox_makedirs(home) != 0) r = errno ? errno : EIO;
    DB_ENV *env = mboxlockenv;
    if (r == 0) {
        env->set_errcall(env, mboxlist_err);
        env->set_errpfx(env, "mboxlock");
        env->set_lk_detect(env, DB_LOCK_OLDEST);
        env->set_lk_max_locks(env, 50000);
        env->set_lk_max_lockers(env, 50000);
        env->set_lk_max_objects(env, 50000);
        if (recreate) env->set_flags(env, DB_REGION_INIT, 1);
        r = env->open(env, home, DB_CREATE | DB_THREAD | DB_INIT_LOCK, 0);
    }
    if (r != 0) {
        env->close(env, 0);
        mboxlockenv = nullptr;
    }
    return r;
}

static int close_env(DB_ENV **handle, const char *what) {
    if (!*handle) return 0;
    DB_ENV *env = *handle;
    *handle = nullptr;
    int r = env->close(env, 0);
    if (r) svclog(nullptr, 59, "Mailbox list %s close error: %s", what, db_strerror(r));
    return r;
}

void mboxlist_close_env(void) { close_env(&mboxlist_dbenv, "environment"); }

// Keeps the first failure of a sequence of steps that all run.
static void first_failure(int *result, int r) {
    if (*result == 0 && r != 0) *result = r;
}

int mboxlist_close(void) {
    // The message type plug-in is shut down here once plug-ins load.
    int result = 0;
    if (mboxlist_db(MBOXLIST_FOLDERDB)) {
        uint32_t flags = mboxlist_db_close_flags();
        if (mboxlist_do_final_checkpoint && mboxlist_dbenv) {
            // Recovery at the next start begins at this checkpoint: one that
            // failed leaves more log to replay, and the caller must know.
            int r = mboxlist_dbenv->txn_checkpoint(mboxlist_dbenv, 0, 0, 0);
            if (r) svclog(nullptr, 59, "Mailbox list final checkpoint error: %s", db_strerror(r));
            first_failure(&result, r);
            first_failure(&result, mboxlist_archive_logs());
        }
        seen_shutdown();
        first_failure(&result, mboxlist_db_close_all(flags));
        if (result) svclog(nullptr, 59, "Mailbox list close error: %s", db_strerror(result));
    } else {
        // Handles of a start-up that failed half-way.
        seen_shutdown();
        mboxlist_db_close_all(0);
    }
    first_failure(&result, close_env(&mboxlist_dbenv, "environment"));
    first_failure(&result, close_env(&mboxlockenv, "lock environment"));
    // The notification plug-in is shut down here once plug-ins load.
    mboxlist_session_unlock();
    if (watcher) {
        watch_shutdown();
        watcher = 0;
    }
    return result;
}

// Deletes the region files ("__db*") of one environment home.
static int remove_dbtmpfiles(const char *dir) {
    DIR *d = opendir(dir);
    if (!d) return errno == ENOENT ? 0 : -1;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (strncmp(e->d_name, "__db", 4) != 0) continue;
        char path[2048];
        snprintf(path, sizeof(path), "%s/%s", dir, e->d_name);
        unlink(path);
    }
    closedir(d);
    return 0;
}

static void env_home(char *buf, size_t size) {
    const char *tmp = config_get_string(config_getdefaultcache(), "store.dbtmpdir", nullptr);
    if (tmp && *tmp) {
        snprintf(buf, size, "%s", tmp);
    } else {
        const char *dir = configmsg_get_storedir();
        snprintf(buf, size, "%s/mboxlist", dir ? dir : ".");
    }
}

int mboxlist_remove_env(int only_tmpfiles) {
    char home[1024], lockhome[1100];
    env_home(home, sizeof(home));
    snprintf(lockhome, sizeof(lockhome), "%s/folderlock", home);
    if (only_tmpfiles) {
        if (remove_dbtmpfiles(home) != 0) return -1;
        return remove_dbtmpfiles(lockhome);
    }
    if (mboxlist_recover() != 0) return -1;
    int r = mboxlist_dbenv->txn_checkpoint(mboxlist_dbenv, 0, 0, 0);
    if (r != 0) {
        svclog(nullptr, 59, "Mailbox list checkpoint error: %d", r);
        return r;
    }
    mboxlist_archive_logs();
    mboxlist_close();

    DB_ENV *env;
    r = db_env_create(&env, 0);
    if (r != 0) return r;
    r = env->remove(env, home, DB_USE_ENVIRON);
    if (r != 0 && r != ENOENT) {
        svclog(nullptr, 59, "cannot remove mboxlist environment: %d", r);
        return r;
    }
    r = db_env_create(&env, 0);
    if (r != 0) return r;
    r = env->remove(env, lockhome, 0);
    if (r != 0 && r != ENOENT) {
        svclog(nullptr, 59, "cannot remove folderlock environment: %d", r);
        return r;
    }
    return 0;
}

// ---- maintenance --------------------------------------------------------

int mboxlist_deadlockcheck(void) {
    if (!mboxlist_dbenv) return 0;
    return mboxlist_dbenv->lock_detect(mboxlist_dbenv, 0, DB_LOCK_OLDEST, nullptr);
}

int mboxlist_failchk(void) {
    if (!mboxlist_dbenv) return 0;
    int r = mboxlist_dbenv->failchk(mboxlist_dbenv, 0);
    if (r) svclog(nullptr, 58, "Mailbox list failure check: %s", db_strerror(r));
    return r;
}

int mboxlist_trickle(void) {
    if (!mboxlist_dbenv) return 0;
    int r = mboxlist_dbenv->memp_trickle(mboxlist_dbenv, 10, nullptr);
    if (r) svclog(nullptr, 59, "Mailbox list sync error: %s", db_strerror(r));
    return r;
}

int mboxlist_checkpoint(void) {
    if (!mboxlist_dbenv) return 0;
    int r = mboxlist_dbenv->txn_checkpoint(mboxlist_dbenv, 0, 1, 0);
    if (r) svclog(nullptr, 59, "Mailbox list checkpoint error: %s", db_strerror(r));
    return r;
}

int mboxlist_archive_logs(void) {
    if (!mboxlist_dbenv) return 0;
    int r = mboxlist_dbenv->log_archive(mboxlist_dbenv, nullptr, DB_ARCH_REMOVE);
    if (r) svclog(nullptr, 59, "Mailbox list log archive error: %s", db_strerror(r));
    return r;
}

// ---- log files ----------------------------------------------------------

int mboxlist_log_archive_obsolete(char ***list) {
    *list = nullptr;
    if (!mboxlist_dbenv) return EINVAL;
    return mboxlist_dbenv->log_archive(mboxlist_dbenv, list, 0);
}

int mboxlist_log_archive_current(char ***list) {
    *list = nullptr;
    if (!mboxlist_dbenv) return EINVAL;
    return mboxlist_dbenv->log_archive(mboxlist_dbenv, list, DB_ARCH_LOG);
}

int mboxlist_log_count(void) {
    char **obsolete = nullptr, **all = nullptr;
    mboxlist_log_archive_obsolete(&obsolete);
    mboxlist_log_archive_current(&all);
    int count = 0;
    for (char **a = all; a && *a; a++) {
        int old = 0;
        for (char **o = obsolete; o && *o && !old; o++) old = strcmp(*a, *o) == 0;
        if (!old) count++;
    }
    free(obsolete);
    free(all);
    return count;
}

int mboxlist_log_count_nodb(void) {
    char dir[1024];
    if (mboxlist_mboxlist_path(dir) != 0) return 0;
    DIR *d = opendir(dir);
    if (!d) return 0;
    int count = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr)
        if (strncmp(e->d_name, "log.", 4) == 0) count++;
    closedir(d);
    return count;
}

int mboxlist_maxlog_check(int count) {
    return count <= config_get_int(config_getdefaultcache(), "local.store.maxlog", 8) ? 1 : 0;
}

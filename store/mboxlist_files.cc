// The database directory as plain files: removing, copying and moving its
// file groups, keeping the last removed database, making logs disposable,
// and finding snapshots. All of it runs while no environment is open.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "support/config.h"
#include "support/log.h"
#include "support/retry.h"

// The snapshots found by the daemon's analysis, newest first.
static int nsnaps = 0;
static uint32_t snaptimes[5];
static char snapdirs[5][5];
static char snapPath[1024];
static uint32_t stored_last_snapshot = 0;
static uint32_t stored_last_checkpoint = 0;

// Which group of the database directory a name belongs to, 0 for none.
static int file_group(const char *name) {
    size_t n = strlen(name);
    if (n == 14 && strncmp(name, "log.", 4) == 0) return DBGROUP_LOGS;
    if (n >= 4 && strcmp(name + n - 3, ".db") == 0) return DBGROUP_DATABASES;
    if (n >= 5 && strncmp(name, "__db.", 5) == 0) return DBGROUP_REGIONS;
    if (strcmp(name, "DB_CONFIG") == 0) return DBGROUP_CONFIG;
    return 0;
}

static void with_slash(char *out, size_t size, const char *dir) {
    size_t n = strlen(dir);
    snprintf(out, size, "%s%s", dir, n && dir[n - 1] == '/' ? "" : "/");
}

int db_rm(const char *dir, int mask) {
    if (strlen(dir) > 998) return -1;
    DIR *d = opendir(dir);
    if (!d) return 0;
    char base[1024];
    with_slash(base, sizeof(base), dir);
    int result = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (!(file_group(e->d_name) & mask)) continue;
        char path[1024 + 256];
        if (strlen(base) + strlen(e->d_name) >= 1024) {
            if (result == 0) result = 1;
            continue;
        }
        snprintf(path, sizeof(path), "%s%s", base, e->d_name);
        if (unlink(path) != 0) result = -1;
    }
    closedir(d);
    return result;
}

// Copies one file, flushed to disk before it counts: a repair that puts a
// snapshot or a template in place must not leave pages that a crash loses
// under a database the next start takes for whole.
static int db_file_copy(const char *target, const char *source) {
    if (copy_file(source, target, 0) != 0) return -1;
    int fd = open(target, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    int r = sync_file(fd, 3);
    int e = errno;
    close(fd);
    errno = e;
    return r == 0 ? 0 : -1;
}

// Walks the groups of source and copies or renames each file into target,
// logging failures and going on with the next file.
static int walk_groups(const char *target, const char *source, int copy) {
    char tbase[1024], sbase[1024];
    with_slash(tbase, sizeof(tbase), target);
    with_slash(sbase, sizeof(sbase), source);
    DIR *d = opendir(source);
    if (!d) return -1;
    int failure = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (!file_group(e->d_name)) continue;
        char from[2048], to[2048];
        snprintf(from, sizeof(from), "%s%s", sbase, e->d_name);
        snprintf(to, sizeof(to), "%s%s", tbase, e->d_name);
        if (copy ? db_file_copy(to, from) != 0 : rename(from, to) != 0) {
            svclog(nullptr, 2, "File %s failed :%s: to :%s: error %d", copy ? "copy" : "rename", from,
                   to, errno);
            failure = errno;
        }
    }
    closedir(d);
    errno = failure;
    return failure ? -1 : 0;
}

int db_copy(const char *target, const char *source) { return walk_groups(target, source, 1); }

int rename_db(const char *target, const char *source) { return walk_groups(target, source, 0); }

int backup_rename_db(void) {
    const char *mboxlistdir = mboxlist_dir();
    char path[1200], place[1100];
    snprintf(path, sizeof(path), "%sfolder.db", mboxlistdir);
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    snprintf(place, sizeof(place), "%sremoved", mboxlistdir);
    if (stat(place, &st) != 0) {
        if (errno != ENOENT) return -1;
        if (mailbox_makedirs(place) != 0) return -1;
    }
    snprintf(path, sizeof(path), "%s/folder.db", place);
    if (stat(path, &st) == 0) {
        // A recent copy of a healthy past is not overwritten by a later failure.
        long age = (long)(time(nullptr) - st.st_mtime);
        if (age >= 1 && age < 432000) return -1;
    }
    if (db_rm(place, DBGROUP_ALL) != 0) return -1;
    if (rename_db(place, mboxlistdir) != 0) return -1;
    svclog(nullptr, 60, "Previous version of store database moved for analysis to: %s", place);
    return 0;
}

int write_db_config(const char *dbdir, const char *cachedir) {
    char path[1100];
    snprintf(path, sizeof(path), "%s/DB_CONFIG", cachedir);
    FILE *f = fopen(path, "w");
    if (!f) return -1;
    // The names the library reads from "DB_CONFIG" are those of its
    // configuration methods: databases and logs stay in the database
    // directory while the region files live in the cache directory.
    int ok = fprintf(f, "set_data_dir %s\nset_lg_dir %s\n", dbdir, dbdir) > 0;
    int e = errno;
    if (fclose(f) != 0 && ok) {
        ok = 0;
        e = errno;
    }
    errno = e;
    return ok ? 0 : -1;
}

int zero_lsn(const char *path, int pagesize) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    int r = fstat(fd, &st);
    static const char zeros[8] = {0};
    off_t pages = r == 0 ? st.st_size / pagesize : 0;
    for (off_t i = 0; i < pages && r == 0; i++)
        if (pwrite(fd, zeros, sizeof(zeros), i * pagesize) != (ssize_t)sizeof(zeros)) r = -1;
    // The logs go once the pages are cleared: the clearing must be on disk.
    if (r == 0 && sync_file(fd, 2) != 0) r = -1;
    int e = errno;
    close(fd);
    errno = e;
    return r == 0 ? 0 : -1;
}

int zero_logs(const char *dir) {
    static const struct {
        const char *name;
        int pagesize;
    } files[] = {{"folder.db", 4096}, {"quota.db", 512}, {"subscr.db", 4096},
                 {"peruser.db", 4096}, {"lright.db", 4096}};
    char base[1024];
    with_slash(base, sizeof(base), dir);
    // Pages first, logs last: a failure half-way leaves the logs, so the
    // next start judges the same state and tries again.
    for (const auto &f : files) {
        char path[1100];
        snprintf(path, sizeof(path), "%s%s", base, f.name);
        if (zero_lsn(path, f.pagesize) != 0 && errno != ENOENT) {
            svclog(nullptr, 2, "Clearing the log sequence numbers of %s failed: %m", path);
            return -1;
        }
    }
    if (db_rm(dir, DBGROUP_LOGS) != 0) {
        svclog(nullptr, 2, "Removing the log files of %s failed: %m", dir);
        return -1;
    }
    return 0;
}

int recover_snapshot(const char *dbdir, int have_cache, const char *cachedir,
                     const char *snapdir) {
    backup_rename_db();
    if (db_rm(dbdir, DBGROUP_ALL) != 0) return -1;
    if (have_cache && db_rm(cachedir, DBGROUP_ALL & ~DBGROUP_CONFIG) != 0) return -1;
    if (db_copy(dbdir, snapdir) != 0) return -1;
    return 0;
}

int remove_db(const char *dbdir, const char *cachedir) {
    backup_rename_db();
    int r = db_rm(dbdir, DBGROUP_ALL);
    if (cachedir) r |= db_rm(cachedir, DBGROUP_ALL & ~DBGROUP_CONFIG);
    return r;
}

int insert_template(void) {
    const char *dir = configmsg_get_storedir();
    char tmpl[1100];
    snprintf(tmpl, sizeof(tmpl), "%s/dbdata/templates", dir ? dir : ".");
    uint32_t exists;
    int nfiles, nfiles_u, logs;
    long lo, hi;
    if (check_db_dir(tmpl, &exists, &nfiles, &nfiles_u, &logs, &lo, &hi) != 0 || exists != 0x1F)
        return -2;
    backup_rename_db();
    if (db_rm(mboxlist_dir(), DBGROUP_ALL) != 0) return -1;
    const char *tmp = config_get_string(config_getdefaultcache(), "store.dbtmpdir", nullptr);
    if (tmp && *tmp && db_rm(tmp, DBGROUP_ALL & ~DBGROUP_CONFIG) != 0) return -1;
    if (db_copy(mboxlist_dir(), tmpl) != 0) return -1;
    return 0;
}

// Logs why the snapshot place can't be used; -1.
static int no_snapshot_path(int level, const char *why) {
    svclog(nullptr, level, "%s", why);
    return -1;
}

int mboxlist_snapshot_path(char *buf) {
    const char *v = config_get_string(config_getdefaultcache(), "local.store.snapshotpath", nullptr);
    if (!v || !*v) return no_snapshot_path(60, "stored mboxlist_init: snapshot path not configured");
    if (strstr(v, ".."))
        return no_snapshot_path(59,
                                "stored mboxlist_init: snapshot path invalid: may not use .. in path");
    size_t vlen = strlen(v);
    if (vlen > 974) return no_snapshot_path(59, "stored mboxlist_init: snapshot path too long.");
    const char *slash = v[vlen - 1] == '/' ? "" : "/";
    if (v[0] == '/') {
        snprintf(buf, 1024, "%s%s", v, slash);
        return 0;
    }
    const char *dir = configmsg_get_storedir();
    if (!dir || !*dir) return no_snapshot_path(2, "mboxlist storedir path not found");
    size_t dlen = strlen(dir);
    if (dlen > 1021) return no_snapshot_path(2, "mboxlist storedir path too long for snapshots");
    if (dlen + vlen + 3 > 1024)
        return no_snapshot_path(59, "stored mboxlist_init: snapshot path exceeds max length");
    snprintf(buf, 1024, "%s%s%s%s", dir, dir[dlen - 1] == '/' ? "" : "/", v, slash);
    return 0;
}

int analyse_snapshots(const char *place, int *count, uint32_t *times, char (*names)[5]) {
    *count = 0;
    DIR *d = opendir(place);
    if (!d) return 1;
    char base[1024];
    with_slash(base, sizeof(base), place);
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        const char *name = e->d_name;
        // Names are kept in slots of 5 bytes: longer ones are not snapshots
        // of this store.
        if (!strcmp(name, ".") || !strcmp(name, "..") || !strcmp(name, ".snaplock") ||
            strlen(name) > 4)
            continue;
        char path[1024 + 16];
        snprintf(path, sizeof(path), "%s%.4s/.snaptime", base, name);
        struct stat st;
        if (stat(path, &st) != 0) continue;
        uint32_t t = (uint32_t)st.st_mtime;
        int pos = 0;
        while (pos < *count && times[pos] > t) pos++;
        if (pos == 5) continue;
        int last = *count < 5 ? *count : 4;
        for (int i = last; i > pos; i--) {
            times[i] = times[i - 1];
            memcpy(names[i], names[i - 1], 5);
        }
        times[pos] = t;
        size_t nlen = strlen(name);
        memcpy(names[pos], name, nlen + 1);
        if (*count < 5) (*count)++;
    }
    closedir(d);
    return 0;
}

int mboxlist_find_snapshots(void) {
    nsnaps = 0;
    stored_last_snapshot = 0;
    int r;
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
    return nsnaps;
}

const char *mboxlist_snapshot_best(char *buf, size_t size) {
    if (nsnaps <= 0) return nullptr;
    snprintf(buf, size, "%s%s", snapPath, snapdirs[0]);
    return buf;
}

void mboxlist_set_last_checkpoint(uint32_t when) { stored_last_checkpoint = when; }

int snapshot_abort(void) {
    if (stored_last_snapshot && stored_last_snapshot > stored_last_checkpoint) return 1;
    int n = mboxlist_log_count();
    if (!mboxlist_maxlog_check(n)) {
        svclog(nullptr, 2, "snapshot_abort: max log files exceeded, log count: %d", n);
        return 3;
    }
    return 0;
}

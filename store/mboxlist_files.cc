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

int nsnaps = 0;
uint32_t snaptimes[5];
char snapdirs[5][5];
char snapPath[1024];
uint32_t stored_last_snapshot = 0;
uint32_t stored_last_checkpoint = 0;

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

int db_file_copy(const char *target, const char *source) {
    int in = open(source, O_RDONLY | O_CLOEXEC);
    if (in < 0) return 1;
    int out = open(target, O_WRONLY | O_CREAT | O_SYNC | O_CLOEXEC, 0666);
    if (out < 0) {
        close(in);
        return 2;
    }
    char buf[8192];
    int result = 0;
    for (;;) {
        ssize_t n = read(in, buf, sizeof(buf));
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            result = 3;
            break;
        }
        ssize_t done = 0;
        while (done < n) {
            ssize_t w = write(out, buf + done, (size_t)(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                result = 4;
                break;
            }
            done += w;
        }
        if (result) break;
    }
    close(in);
    close(out);
    return result;
}

// Walks the groups of source and applies op to each file, logging failures.
static int walk_groups(const char *target, const char *source, int copy) {
    char tbase[1024], sbase[1024];
    with_slash(tbase, sizeof(tbase), target);
    with_slash(sbase, sizeof(sbase), source);
    DIR *d = opendir(source);
    if (!d) return -1;
    int result = 0;
    struct dirent *e;
    while ((e = readdir(d)) != nullptr) {
        if (!file_group(e->d_name)) continue;
        char from[2048], to[2048];
        snprintf(from, sizeof(from), "%s%s", sbase, e->d_name);
        snprintf(to, sizeof(to), "%s%s", tbase, e->d_name);
        if (copy) {
            int r = db_file_copy(to, from);
            if (r != 0) {
                svclog(nullptr, 2, "File copy failed :%s: to :%s: error %d %d", from, to, errno, r);
                result = -1;
            }
        } else if (rename(from, to) != 0) {
            svclog(nullptr, 2, "File rename failed :%s: to :%s: error %d", from, to, errno);
            result = -1;
        }
    }
    closedir(d);
    return result;
}

int db_copy(const char *target, const char *source) { return walk_groups(target, source, 1); }

int rename_db(const char *target, const char *source) { return walk_groups(target, source, 0); }

int backup_rename_db(void) {
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
    if (db_rm(place, 15) != 0) return -1;
    if (rename_db(place, mboxlistdir) != 0) return -1;
    svclog(nullptr, 60, "Previous version of store database moved for analysis to: %s", place);
    return 0;
}

int write_db_config(const char *dbdir, const char *cachedir) {
    char path[1100];
    snprintf(path, sizeof(path), "%s/DB_CONFIG", cachedir);
    FILE *f = fopen(path, "w");
    if (!f) return -1;
    int ok = fprintf(f, "DB_DATA_DIR %s\nDB_LOG_DIR %s\n", dbdir, dbdir) > 0;
    if (fclose(f) != 0) ok = 0;
    return ok ? 0 : -1;
}

int zero_lsn(const char *path, int pagesize) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return -1;
    }
    static const char zeros[8] = {0};
    off_t pages = st.st_size / pagesize;
    for (off_t i = 0; i < pages; i++) {
        if (pwrite(fd, zeros, sizeof(zeros), i * pagesize) != (ssize_t)sizeof(zeros)) break;
    }
    close(fd);
    return 0;
}

int zero_logs(const char *dir) {
    static const struct {
        const char *name;
        int pagesize;
    } files[] = {{"folder.db", 4096}, {"quota.db", 512}, {"subscr.db", 4096},
                 {"peruser.db", 4096}, {"lright.db", 4096}};
    db_rm(dir, DBGROUP_LOGS);
    char base[1024];
    with_slash(base, sizeof(base), dir);
    for (const auto &f : files) {
        char path[1100];
        snprintf(path, sizeof(path), "%s%s", base, f.name);
        zero_lsn(path, f.pagesize);
    }
    return 0;
}

int recover_snapshot(const char *dbdir, int have_cache, const char *cachedir,
                     const char *snapdir) {
    backup_rename_db();
    if (db_rm(dbdir, 15) != 0) return -1;
    if (have_cache && db_rm(cachedir, 7) != 0) return -1;
    if (db_copy(dbdir, snapdir) != 0) return -1;
    return 0;
}

int remove_db(const char *dbdir, const char *cachedir) {
    backup_rename_db();
    int r = db_rm(dbdir, 15);
    if (cachedir) r |= db_rm(cachedir, 7);
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
    if (db_rm(mboxlistdir, 15) != 0) return -1;
    const char *tmp = config_get_string(config_getdefaultcache(), "store.dbtmpdir", nullptr);
    if (tmp && *tmp && db_rm(tmp, 7) != 0) return -1;
    if (db_copy(mboxlistdir, tmpl) != 0) return -1;
    return 0;
}

int mboxlist_snapshot_path(char *buf) {
    const char *v = config_get_string(config_getdefaultcache(), "local.store.snapshotpath", nullptr);
    if (!v || !*v) {
        svclog(nullptr, 60, "stored mboxlist_init: snapshot path not configured");
        return -1;
    }
    if (strstr(v, "..")) {
        svclog(nullptr, 59, "stored mboxlist_init: snapshot path invalid: may not use .. in path");
        return -1;
    }
    size_t vlen = strlen(v);
    if (vlen > 974) {
        svclog(nullptr, 59, "stored mboxlist_init: snapshot path too long.");
        return -1;
    }
    const char *slash = v[vlen - 1] == '/' ? "" : "/";
    if (v[0] == '/') {
        snprintf(buf, 1024, "%s%s", v, slash);
        return 0;
    }
    const char *dir = configmsg_get_storedir();
    if (!dir || !*dir) {
        svclog(nullptr, 2, "mboxlist storedir path not found");
        return -1;
    }
    size_t dlen = strlen(dir);
    if (dlen > 1021) {
        svclog(nullptr, 2, "mboxlist storedir path too long for snapshots");
        return -1;
    }
    const char *dslash = dir[dlen - 1] == '/' ? "" : "/";
    if (dlen + vlen + 3 > 1024) {
        svclog(nullptr, 59, "stored mboxlist_init: snapshot path exceeds max length");
        return -1;
    }
    snprintf(buf, 1024, "%s%s%s%s", dir, dslash, v, slash);
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

int snapshot_abort(void) {
    if (stored_last_snapshot && stored_last_snapshot > stored_last_checkpoint) return 1;
    int n = mboxlist_log_count();
    if (!mboxlist_maxlog_check(n)) {
        svclog(nullptr, 2, "snapshot_abort: max log files exceeded, log count: %d", n);
        return 3;
    }
    return 0;
}

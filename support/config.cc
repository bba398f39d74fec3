// The configuration of an instance: one process-wide cache of the keys of
// "config/store.conf", derived paths of the instance, the partitions, the
// server's identity, small stored state files, and the option files.
//
// The cache is filled once under a mutex and only read afterwards; a flag
// with release/acquire ordering publishes it, so any number of threads may
// read keys without locking once it is loaded. A reader that comes before
// configmsg_init loads the cache itself. configmsg_reset drops everything;
// it must not run while other threads read.
#include "support/config.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "support/log.h"
#include "support/retry.h"
#include "support/xmalloc.h"

#ifndef STORE_DEFAULT_INSTANCEDIR
#define STORE_DEFAULT_INSTANCEDIR "/var/lib/mailstore"
#endif

// ---------------------------------------------------------------------
// Hash table of keys.

struct config_entry {
    char *key;
    char *value;
    unsigned hash;
    config_entry *next;
};

struct config_cache {
    config_entry **buckets;
    size_t nbuckets;
    size_t count;
};

static unsigned hash_key(const char *s) {
    unsigned h = 2166136261u;  // FNV-1a
    for (; *s; s++) {
        h ^= (unsigned char)*s;
        h *= 16777619u;
    }
    return h;
}

static config_entry *table_find(const config_cache *c, const char *key) {
    if (!c->nbuckets) return nullptr;
    unsigned h = hash_key(key);
    for (config_entry *e = c->buckets[h % c->nbuckets]; e; e = e->next)
        if (e->hash == h && strcmp(e->key, key) == 0) return e;
    return nullptr;
}

static void table_grow(config_cache *c) {
    size_t n = c->nbuckets ? c->nbuckets * 2 : 64;
    config_entry **b = (config_entry **)xcalloc(n, sizeof *b);
    for (size_t i = 0; i < c->nbuckets; i++) {
        config_entry *e = c->buckets[i];
        while (e) {
            config_entry *next = e->next;
            e->next = b[e->hash % n];
            b[e->hash % n] = e;
            e = next;
        }
    }
    free(c->buckets);
    c->buckets = b;
    c->nbuckets = n;
}

// Sets key to value; a later setting replaces an earlier one.
static void table_set(config_cache *c, const char *key, const char *value) {
    config_entry *e = table_find(c, key);
    if (e) {
        free(e->value);
        e->value = xstrdup(value);
        return;
    }
    if (c->count >= c->nbuckets) table_grow(c);
    e = (config_entry *)xmalloc(sizeof *e);
    e->key = xstrdup(key);
    e->value = xstrdup(value);
    e->hash = hash_key(key);
    e->next = c->buckets[e->hash % c->nbuckets];
    c->buckets[e->hash % c->nbuckets] = e;
    c->count++;
}

static void table_free(config_cache *c) {
    for (size_t i = 0; i < c->nbuckets; i++) {
        config_entry *e = c->buckets[i];
        while (e) {
            config_entry *next = e->next;
            free(e->key);
            free(e->value);
            free(e);
            e = next;
        }
    }
    free(c->buckets);
    c->buckets = nullptr;
    c->nbuckets = 0;
    c->count = 0;
}

// ---------------------------------------------------------------------
// Module state.

struct partition_entry {
    char *name;
    char *path;
    char *msgpath;  // null without a separate message directory
};

enum { CFG_UNLOADED = 0, CFG_LOADED = 1, CFG_FAILED = 2 };

static pthread_mutex_t cfg_lock = PTHREAD_MUTEX_INITIALIZER;
static std::atomic<int> cfg_state(CFG_UNLOADED);
static config_cache cfg_cache;
static char *cfg_instancedir;
static char *cfg_configroot;
static char *cfg_storedir;
static char *cfg_logdir;
static std::atomic<char *> cfg_processname(nullptr);
static partition_entry *cfg_parts;
static size_t cfg_nparts;

static const char *const partition_prefix = "store.partition.";

static char *path_join(const char *a, const char *b) {
    size_t la = strlen(a), lb = strlen(b);
    char *p = (char *)xmalloc(la + lb + 2);
    memcpy(p, a, la);
    p[la] = '/';
    memcpy(p + la + 1, b, lb + 1);
    return p;
}

static int is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// Trims blanks at both ends in place; returns the start of the text.
static char *trim(char *s) {
    while (is_blank(*s)) s++;
    size_t n = strlen(s);
    while (n > 0 && is_blank(s[n - 1])) s[--n] = '\0';
    return s;
}

// Strict decimal: optional blanks, sign, digits, blanks; within int range.
static int parse_int(const char *s, int *out) {
    if (!s) return 0;
    while (is_blank(*s)) s++;
    if (!*s) return 0;
    errno = 0;
    char *end;
    long v = strtol(s, &end, 10);
    if (end == s || errno == ERANGE || v < -2147483647L - 1 || v > 2147483647L) return 0;
    while (is_blank(*end)) end++;
    if (*end) return 0;
    *out = (int)v;
    return 1;
}

static void set_processname(const char *progname) {
    if (!progname) return;
    const char *base = strrchr(progname, '/');
    base = base ? base + 1 : progname;
    char *old = cfg_processname.exchange(xstrdup(base));
    free(old);
}

// The instance directory: $STORE_INSTANCEDIR if set and not empty, else
// the directory fixed at build time; trailing slashes removed.
static void resolve_instancedir_locked(void) {
    if (cfg_instancedir) return;
    const char *env = getenv("STORE_INSTANCEDIR");
    char *dir = xstrdup(env && *env ? env : STORE_DEFAULT_INSTANCEDIR);
    size_t n = strlen(dir);
    while (n > 1 && dir[n - 1] == '/') dir[--n] = '\0';
    cfg_instancedir = dir;
    cfg_configroot = path_join(dir, "config");
}

static int compare_partitions(const void *a, const void *b) {
    return strcmp(((const partition_entry *)a)->name, ((const partition_entry *)b)->name);
}

// Collects the partitions from the keys store.partition.NAME.path and
// store.partition.NAME.messagepath, sorted by name.
static void collect_partitions_locked(void) {
    size_t plen = strlen(partition_prefix);
    for (size_t i = 0; i < cfg_cache.nbuckets; i++) {
        for (config_entry *e = cfg_cache.buckets[i]; e; e = e->next) {
            if (strncmp(e->key, partition_prefix, plen) != 0) continue;
            const char *name = e->key + plen;
            size_t klen = strlen(name);
            if (klen <= 5 || strcmp(name + klen - 5, ".path") != 0) continue;
            if (!*e->value) continue;
            cfg_parts = (partition_entry *)xrealloc(cfg_parts, (cfg_nparts + 1) * sizeof *cfg_parts);
            partition_entry *p = &cfg_parts[cfg_nparts++];
            p->name = xstrndup(name, klen - 5);
            p->path = xstrdup(e->value);
            size_t mlen = plen + strlen(p->name) + sizeof ".messagepath";
            char *mkey = (char *)xmalloc(mlen);
            snprintf(mkey, mlen, "%s%s.messagepath", partition_prefix, p->name);
            config_entry *m = table_find(&cfg_cache, mkey);
            free(mkey);
            p->msgpath = m && *m->value ? xstrdup(m->value) : nullptr;
        }
    }
    if (cfg_nparts > 1) qsort(cfg_parts, cfg_nparts, sizeof *cfg_parts, compare_partitions);
}

// Reads "key<sep>value" lines into a table: blanks around key and value
// are dropped, blank lines and lines starting with '#' are skipped, a later
// line overrides an earlier one, and a line without the separator or
// without a key is reported and ignored.
static void read_pairs(FILE *f, const char *path, char sep, svclog_handle *log,
                       config_cache *table) {
    char *line = nullptr;
    size_t cap = 0;
    int lineno = 0;
    while (getline(&line, &cap, f) >= 0) {
        lineno++;
        char *s = trim(line);
        if (!*s || *s == '#') continue;
        char *mark = strchr(s, sep);
        if (!mark) {
            svclog(log, 4, "%s line %d: no '%c' in the line, ignored", path, lineno, sep);
            continue;
        }
        *mark = '\0';
        char *key = trim(s);
        if (!*key) {
            svclog(log, 4, "%s line %d: no key before '%c', ignored", path, lineno, sep);
            continue;
        }
        table_set(table, key, trim(mark + 1));
    }
    free(line);
}

// Reads the configuration file into the cache. Returns 0, or -1 after a
// message on standard error naming what could not be read.
static int load_locked(void) {
    resolve_instancedir_locked();
    struct stat st;
    int err = stat(cfg_instancedir, &st) != 0 ? errno : !S_ISDIR(st.st_mode) ? ENOTDIR : 0;
    if (err == 0 && access(cfg_instancedir, R_OK | X_OK) != 0) err = errno;
    if (err) {
        fprintf(stderr, "cannot read instance directory %s: %s\n", cfg_instancedir, strerror(err));
        return -1;
    }
    char *path = path_join(cfg_configroot, "store.conf");
    FILE *f = fopen(path, "re");
    if (!f) {
        fprintf(stderr, "cannot read configuration file %s: %s\n", path, strerror(errno));
        free(path);
        return -1;
    }
    read_pairs(f, path, ':', nullptr, &cfg_cache);
    int read_error = ferror(f);
    fclose(f);
    if (read_error) {
        fprintf(stderr, "cannot read configuration file %s: read error\n", path);
        free(path);
        table_free(&cfg_cache);
        return -1;
    }
    free(path);

    config_entry *e = table_find(&cfg_cache, "local.store.dir");
    cfg_storedir = e && *e->value ? xstrdup(e->value) : path_join(cfg_instancedir, "data/store");
    e = table_find(&cfg_cache, "local.logdir");
    cfg_logdir = e && *e->value ? xstrdup(e->value) : path_join(cfg_instancedir, "log");
    collect_partitions_locked();
    return 0;
}

// True once the cache is loaded, loading it now if nobody did yet.
static int ensure_loaded(void) {
    int st = cfg_state.load(std::memory_order_acquire);
    if (st == CFG_LOADED) return 1;
    if (st == CFG_FAILED) return 0;
    pthread_mutex_lock(&cfg_lock);
    if (cfg_state.load(std::memory_order_relaxed) == CFG_UNLOADED)
        cfg_state.store(load_locked() == 0 ? CFG_LOADED : CFG_FAILED, std::memory_order_release);
    st = cfg_state.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&cfg_lock);
    return st == CFG_LOADED;
}

// ---------------------------------------------------------------------
// Loading and reset.

int configmsg_init(void *unused, int flags, const char *progname) {
    (void)unused;
    (void)flags;  // callers' option bits; nothing here depends on them
    pthread_mutex_lock(&cfg_lock);
    set_processname(progname);
    if (cfg_state.load(std::memory_order_relaxed) != CFG_LOADED) {
        // A failed earlier attempt is retried: the instance may exist now.
        int rc = load_locked();
        cfg_state.store(rc == 0 ? CFG_LOADED : CFG_FAILED, std::memory_order_release);
    }
    int ok = cfg_state.load(std::memory_order_relaxed) == CFG_LOADED;
    pthread_mutex_unlock(&cfg_lock);
    return ok ? 0 : -1;
}

static int mkdir_p(const char *path, mode_t mode) {
    char *p = xstrdup(path);
    int rc = 0;
    for (char *s = p + 1;; s++) {
        if (*s != '/' && *s != '\0') continue;
        char c = *s;
        *s = '\0';
        if (mkdir(p, mode) != 0 && errno != EEXIST) {
            rc = -1;
            break;
        }
        *s = c;
        if (!c) break;
    }
    int saved = errno;
    free(p);
    errno = saved;
    if (rc == 0) {
        struct stat st;
        if (stat(path, &st) != 0) return -1;
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
    }
    return rc;
}

int configmsg_initlog(void *unused, const char *progname) {
    (void)unused;
    if (!ensure_loaded()) {
        fprintf(stderr, "cannot open the log: the configuration is not loaded\n");
        return -1;
    }
    if (progname && !cfg_processname.load()) set_processname(progname);
    const char *dir = cfg_logdir;
    if (mkdir_p(dir, 0700) != 0) {
        fprintf(stderr, "cannot create log directory %s: %s\n", dir, strerror(errno));
        return -1;
    }
    int level = config_get_int(nullptr, "local.loglevel", 7);
    char *path = path_join(dir, "store.log");
    int rc = svclog_open(path, progname ? progname : cfg_processname.load());
    if (rc != 0) {
        fprintf(stderr, "cannot open log file %s: %s\n", path, strerror(errno));
        free(path);
        return -1;
    }
    free(path);
    svclog_setlevel(level);
    return 0;
}

void configmsg_reset(void) {
    pthread_mutex_lock(&cfg_lock);
    table_free(&cfg_cache);
    free(cfg_instancedir);
    free(cfg_configroot);
    free(cfg_storedir);
    free(cfg_logdir);
    cfg_instancedir = cfg_configroot = cfg_storedir = cfg_logdir = nullptr;
    for (size_t i = 0; i < cfg_nparts; i++) {
        free(cfg_parts[i].name);
        free(cfg_parts[i].path);
        free(cfg_parts[i].msgpath);
    }
    free(cfg_parts);
    cfg_parts = nullptr;
    cfg_nparts = 0;
    free(cfg_processname.exchange(nullptr));
    cfg_state.store(CFG_UNLOADED, std::memory_order_release);
    pthread_mutex_unlock(&cfg_lock);
    svclog_close();
}

// ---------------------------------------------------------------------
// Reading keys.

config_cache *config_getdefaultcache(void) { return &cfg_cache; }

static const char *lookup(config_cache *c, const char *key) {
    if (!c) c = &cfg_cache;
    if (c == &cfg_cache && !ensure_loaded()) return nullptr;
    config_entry *e = table_find(c, key);
    return e ? e->value : nullptr;
}

const char *config_get_string(config_cache *c, const char *key, const char *def) {
    const char *v = lookup(c, key);
    return v ? v : def;
}

char *config_get_stringcopy(config_cache *c, const char *key, const char *def) {
    const char *v = config_get_string(c, key, def);
    return v ? xstrdup(v) : nullptr;
}

int config_get_int(config_cache *c, const char *key, int def) {
    int v;
    return parse_int(lookup(c, key), &v) ? v : def;
}

int config_get_switch(config_cache *c, const char *key, int def) {
    const char *v = lookup(c, key);
    if (!v) return def;
    static const char *const on[] = {"1", "yes", "on", "true"};
    static const char *const off[] = {"0", "no", "off", "false"};
    for (const char *w : on)
        if (strcasecmp(v, w) == 0) return 1;
    for (const char *w : off)
        if (strcasecmp(v, w) == 0) return 0;
    return def;
}

int config_get_status(config_cache *c, const char *key) { return lookup(c, key) != nullptr; }

const char *config_getinstancedir(void) {
    pthread_mutex_lock(&cfg_lock);
    resolve_instancedir_locked();
    const char *d = cfg_instancedir;
    pthread_mutex_unlock(&cfg_lock);
    return d;
}

const char *config_processname(void) { return cfg_processname.load(); }

const char *configmsg_getconfigroot(void) {
    pthread_mutex_lock(&cfg_lock);
    resolve_instancedir_locked();
    const char *d = cfg_configroot;
    pthread_mutex_unlock(&cfg_lock);
    return d;
}

const char *configmsg_get_storedir(void) { return ensure_loaded() ? cfg_storedir : nullptr; }

const char *configmsg_getlogdir(void) { return ensure_loaded() ? cfg_logdir : nullptr; }

// ---------------------------------------------------------------------
// Partitions.

static const partition_entry *find_partition(const char *name) {
    for (size_t i = 0; i < cfg_nparts; i++)
        if (strcmp(cfg_parts[i].name, name) == 0) return &cfg_parts[i];
    return nullptr;
}

char *configmsg_partitiondir(const char *partition) {
    if (!partition || !ensure_loaded()) return nullptr;
    const partition_entry *p = find_partition(partition);
    if (p) return xstrdup(p->path);
    if (strcmp(partition, "primary") == 0) return path_join(cfg_instancedir, "partitions/primary");
    return nullptr;
}

char *configmsg_partitionmsgdir(const char *partition) {
    if (!partition || !ensure_loaded()) return nullptr;
    const partition_entry *p = find_partition(partition);
    return p && p->msgpath ? xstrdup(p->msgpath) : nullptr;
}

int configmsg_scanpartition(configmsg_partition_cb cb, void *rock) {
    if (!ensure_loaded()) return -1;
    if (cfg_nparts == 0) {
        char *dir = path_join(cfg_instancedir, "partitions/primary");
        int rc = cb("primary", dir, rock);
        free(dir);
        return rc;
    }
    for (size_t i = 0; i < cfg_nparts; i++) {
        int rc = cb(cfg_parts[i].name, cfg_parts[i].path, rock);
        if (rc) return rc;
    }
    return 0;
}

// ---------------------------------------------------------------------
// The server's identity and the modes of its files.

// Looks up the configured server user; 0 and *found = 0 if none is set,
// -1 (logged) if it is set but unknown.
static int server_user(uid_t *uid, gid_t *gid, char *name, size_t namesize, int *found) {
    *found = 0;
    const char *user = config_get_string(nullptr, "local.serveruser", nullptr);
    if (!user || !*user) return 0;
    struct passwd pw, *res = nullptr;
    char buf[4096];
    int rc = getpwnam_r(user, &pw, buf, sizeof buf, &res);
    if (rc != 0 || !res) {
        svclog(0, 3, "server user %s is unknown", user);
        errno = rc ? rc : ENOENT;
        return -1;
    }
    *uid = pw.pw_uid;
    *gid = pw.pw_gid;
    snprintf(name, namesize, "%s", pw.pw_name);
    *found = 1;
    return 0;
}

int configmsg_fixfilemode(const char *path, int flags) {
    (void)flags;
    struct stat st;
    if (lstat(path, &st) != 0) return -1;
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return 0;  // links, devices: untouched
    if (geteuid() == 0) {
        uid_t uid;
        gid_t gid;
        char name[256];
        int found;
        if (server_user(&uid, &gid, name, sizeof name, &found) != 0) return -1;
        if (found && (st.st_uid != uid || st.st_gid != gid) && chown(path, uid, gid) != 0) {
            svclog(0, 3, "cannot change owner of %s to %s: %m", path, name);
            return -1;
        }
    }
    mode_t mode = S_ISDIR(st.st_mode) ? 0700 : 0600;
    if ((st.st_mode & 07777) != mode && chmod(path, mode) != 0) {
        svclog(0, 3, "cannot change mode of %s: %m", path);
        return -1;
    }
    return 0;
}

int configmsg_setuid(void) {
    if (getuid() != 0 && geteuid() != 0) return 0;
    uid_t uid;
    gid_t gid;
    char name[256];
    int found;
    if (server_user(&uid, &gid, name, sizeof name, &found) != 0) return -1;
    if (!found) return 0;
    if (setgid(gid) != 0 || initgroups(name, gid) != 0) {
        svclog(0, 2, "cannot change to the group of %s: %m", name);
        return -1;
    }
    if (setuid(uid) != 0) {
        svclog(0, 2, "cannot change to the user %s: %m", name);
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------
// Stored state files: "<storedir>/<name>", a decimal number and a newline.

int configmsg_readstoredfile(const char *name, long *value) {
    const char *dir = configmsg_get_storedir();
    if (!dir) return ENOENT;
    char *path = path_join(dir, name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    int err = errno;
    free(path);
    if (fd < 0) return err == ENOENT ? 2 : err;
    char buf[64];
    size_t len = 0;
    for (;;) {
        ssize_t n = read(fd, buf + len, sizeof buf - 1 - len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            close(fd);
            return err;
        }
        if (n == 0 || (len += (size_t)n) == sizeof buf - 1) break;
    }
    close(fd);
    buf[len] = '\0';
    char *s = buf;
    while (is_blank(*s)) s++;
    errno = 0;
    char *end;
    long v = strtol(s, &end, 10);
    if (end == s || errno == ERANGE) return EINVAL;
    while (is_blank(*end)) end++;
    if (*end) return EINVAL;
    *value = v;
    return 0;
}

int configmsg_writestoredfile(const char *name, long value) {
    const char *dir = configmsg_get_storedir();
    if (!dir) return ENOENT;
    char *path = path_join(dir, name);
    size_t tlen = strlen(path) + 5;
    char *tmp = (char *)xmalloc(tlen);
    snprintf(tmp, tlen, "%s.new", path);
    char text[32];
    int len = snprintf(text, sizeof text, "%ld\n", value);
    int err = 0;
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        err = errno;
    } else {
        if (retry_write(fd, text, (size_t)len) < 0 || sync_file(fd, 3) != 0) err = errno;
        if (close(fd) != 0 && !err) err = errno;
        // The value counts once its name is on disk: the rename and the
        // directory are flushed at once.
        if (!err && sync_rename(tmp, path, 3) != 0) err = errno;
        if (err) unlink(tmp);
    }
    if (err) {
        errno = err;
        svclog(0, 3, "cannot write %s: %m", path);
    }
    free(tmp);
    free(path);
    return err;
}

// ---------------------------------------------------------------------
// Texts by language.

char *configmsg_getstringcopywlang(const char *key, int flags, const char *languages,
                                   char **outlang) {
    (void)flags;
    if (outlang) *outlang = nullptr;
    if (languages && *languages) {
        char *list = xstrdup(languages);
        char *save = nullptr;
        size_t klen = strlen(key);
        for (char *lang = strtok_r(list, ", \t", &save); lang; lang = strtok_r(nullptr, ", \t", &save)) {
            size_t n = klen + strlen(lang) + 2;
            char *lkey = (char *)xmalloc(n);
            snprintf(lkey, n, "%s.%s", key, lang);
            const char *v = config_get_string(nullptr, lkey, nullptr);
            free(lkey);
            if (v) {
                if (outlang) *outlang = xstrdup(lang);
                free(list);
                return xstrdup(v);
            }
        }
        free(list);
    }
    return config_get_stringcopy(nullptr, key, nullptr);
}

// ---------------------------------------------------------------------
// Option files: "KEY=value" lines, '#' comments, blanks trimmed.

struct optfile {
    config_cache table;
};

optfile *optfile_read(const char *dir, const char *name, void *log, int a, int b, int c, int d,
                      int e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
    char *path = path_join(dir, name);
    FILE *f = fopen(path, "re");
    if (!f) {
        free(path);
        return nullptr;
    }
    optfile *h = (optfile *)xcalloc(1, sizeof *h);
    read_pairs(f, path, '=', (svclog_handle *)log, &h->table);
    fclose(f);
    free(path);
    return h;
}

const char *optfile_get(optfile *h, const char *key, const char *def) {
    if (!h || !key) return def;
    config_entry *e = table_find(&h->table, key);
    return e ? e->value : def;
}

int optfile_int(optfile *h, const char *key, int def) {
    int v;
    return parse_int(optfile_get(h, key, nullptr), &v) ? v : def;
}

void optfile_dispose(optfile *h) {
    if (!h) return;
    table_free(&h->table);
    free(h);
}

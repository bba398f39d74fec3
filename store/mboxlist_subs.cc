// Subscriptions in "subscr.db", their text copy "store.sub", and the
// loading of lost rows from that copy.
#include "store/mboxlist_subs.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "store/mboxlist_create.h"
#include "store/mboxname.h"
#include "support/config.h"
#include "support/log.h"
#include "support/map.h"
#include "support/prot.h"
#include "support/retry.h"

// A key is read into this many bytes: a user id and a folder name of the
// longest allowed lengths with their NULs fit. One byte more is kept behind
// it, so that a key read whole can always be ended with a NUL.
#define SUBS_KEY_BUFFER 387

// A key buffer for the cursor walks: the key is read into place, the value
// not at all (a zero-length partial read).
struct subs_walk {
    char buf[SUBS_KEY_BUFFER + 1];
    char none;
    DBT key, data;
};

static void walk_init(struct subs_walk *w, const char *userid, const char *tail, size_t tail_size) {
    size_t ulen = strlen(userid);
    size_t n = ulen + 1 + tail_size;
    if (n > SUBS_KEY_BUFFER) n = SUBS_KEY_BUFFER;
    memset(w->buf, 0, sizeof(w->buf));
    memcpy(w->buf, userid, ulen < n ? ulen : n);
    if (ulen + 1 < n) memcpy(w->buf + ulen + 1, tail, n - ulen - 1);
    memset(&w->key, 0, sizeof(w->key));
    w->key.data = w->buf;
    w->key.size = (uint32_t)n;
    w->key.ulen = SUBS_KEY_BUFFER;
    w->key.flags = DB_DBT_USERMEM;
    memset(&w->data, 0, sizeof(w->data));
    w->data.data = &w->none;
    w->data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
}

// The folder name of the key in the walk when its first part is userid,
// else null. The name ends at its NUL, or at the end of the key.
static const char *walk_name(struct subs_walk *w, const char *userid) {
    size_t ulen = strlen(userid);
    if (w->key.size <= ulen || memcmp(w->buf, userid, ulen) != 0 || w->buf[ulen] != '\0')
        return nullptr;
    w->buf[w->key.size] = '\0';
    return w->buf + ulen + 1;
}

// The key of a name row: user id, NUL, folder name, NUL.
static size_t name_key(const char *userid, const char *name, char *buf, size_t size) {
    size_t ulen = strlen(userid), nlen = strlen(name);
    if (ulen + nlen + 2 > size) return 0;
    memcpy(buf, userid, ulen + 1);
    memcpy(buf + ulen + 1, name, nlen + 1);
    return ulen + nlen + 2;
}

static void set_dbt(DBT *dbt, void *data, size_t size) {
    memset(dbt, 0, sizeof(*dbt));
    dbt->data = data;
    dbt->size = (uint32_t)size;
}

// The change row of userid under txn, with the time when.
static int put_change_row(DB_TXN *txn, const char *userid, uint32_t when) {
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    DBT key, data;
    mboxlist_set_key(userid, &key);
    set_dbt(&data, &when, sizeof(when));
    return subsdb->put(subsdb, txn, &key, &data, 0);
}

// ---- changes and membership ----------------------------------------------

int mboxlist_changesub(const char *name, const char *userid, const char *, int flags) {
    uint32_t now = (uint32_t)time(nullptr);
    mboxlist_maybeRecoverSubsFromFile(userid);
    char kbuf[SUBS_KEY_BUFFER];
    size_t klen = name_key(userid, name, kbuf, sizeof(kbuf));
    int r;
    if (klen == 0) {
        r = IMAP_MAILBOX_BADNAME;
    } else {
        do {
            DB_TXN *txn;
            r = mboxlist_trans_setup(&txn, "modify subscriptions", name);
            if (r) break;
            DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
            DBT key, data;
            set_dbt(&key, kbuf, klen);
            set_dbt(&data, nullptr, 0);
            if (flags & MBOXLIST_SUB_ADD)
                r = subsdb->put(subsdb, txn, &key, &data, DB_NOOVERWRITE);
            else
                r = subsdb->del(subsdb, txn, &key, 0);
            if (r == 0) r = put_change_row(txn, userid, now);
            r = mboxlist_trans_finish(txn, r);
        } while (r == DB_LOCK_DEADLOCK);
    }
    if (r == 0 || (flags & MBOXLIST_SUB_RAWERROR)) return r;
    // Nothing to change is no failure: the user sees what was asked for.
    if (r == DB_NOTFOUND || r == DB_KEYEXIST) return 0;
    svclog(nullptr, 59, "Unable to change subscription for %s: %s", userid, mboxlist_strerror(r));
    return IMAP_IOERROR;
}

int mboxlist_lookup_subs(const char *userid, const char *name) {
    if (mboxlist_init() != 0) return -1;
    char kbuf[SUBS_KEY_BUFFER];
    size_t klen = name_key(userid, name, kbuf, sizeof(kbuf));
    if (klen == 0) return DB_NOTFOUND;  // no such key can be stored
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    DBT key, data;
    set_dbt(&key, kbuf, klen);
    // A handle open for threads wants a partial read's key to say who owns
    // its memory, or the read fails with EINVAL.
    key.ulen = (uint32_t)klen;
    key.flags = DB_DBT_USERMEM;
    char value[4];
    set_dbt(&data, value, 0);
    data.ulen = data.dlen = sizeof(value);
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    int r;
    do {
        r = subsdb->get(subsdb, nullptr, &key, &data, 0);
    } while (r == DB_LOCK_DEADLOCK);
    return r;
}

// ---- repair ---------------------------------------------------------------

// One row of the repair walk: removed, rewritten with its right size, or
// left. 0 or the failure that ends the walk.
static int fix_row(DBC *cursor, DB_TXN *txn, struct subs_walk *w, const char *userid,
                   const char *name, int *changed) {
    if (mboxname_policycheck(name) != 0) {
        svclog(nullptr, 60, "removing invalid mailbox name %s from the subscription list of %s",
               name, userid);
        *changed = 1;
        return cursor->c_del(cursor, 0);
    }
    size_t right = strlen(userid) + strlen(name) + 2;
    if (w->key.size == right) return 0;
    svclog(nullptr, 60, "repairing subscr key size for mailbox: %s user: %s", name, userid);
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    DBT key, data;
    set_dbt(&key, w->buf, right);
    set_dbt(&data, nullptr, 0);
    int r = subsdb->put(subsdb, txn, &key, &data, DB_NOOVERWRITE);
    // The right row may be there already beside the damaged one; then the
    // damaged one only has to go.
    if (r == DB_KEYEXIST) r = 0;
    if (r == 0) r = cursor->c_del(cursor, 0);
    if (r == 0) *changed = 1;
    return r;
}

int mboxlist_fixsub(const char *userid, int *changed) {
    int r;
    do {
        *changed = 0;
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "fixsub", userid);
        if (r) return r;
        DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
        DBC *cursor;
        r = subsdb->cursor(subsdb, txn, &cursor, 0);
        if (r == 0) {
            // User id, NUL, NUL: the first row behind the change row.
            struct subs_walk w;
            walk_init(&w, userid, "", 1);
            r = cursor->c_get(cursor, &w.key, &w.data, DB_SET_RANGE | DB_RMW);
            const char *name;
            while (r == 0 && (name = walk_name(&w, userid)) != nullptr) {
                r = fix_row(cursor, txn, &w, userid, name, changed);
                if (r == 0) r = cursor->c_get(cursor, &w.key, &w.data, DB_NEXT | DB_RMW);
            }
            if (r == DB_NOTFOUND) r = 0;
            int c = cursor->c_close(cursor);
            if (r == 0) r = c;
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) svclog(nullptr, 59, "Unable to repair subscriptions of %s: %s", userid, mboxlist_strerror(r));
    return r;
}

// ---- the copy ---------------------------------------------------------------

// The directory of userid's inbox into dir (MBOXLIST_PATH_BUFFER bytes).
// 0, or the failure of the lookup.
static int inbox_dir(const char *userid, char *dir) {
    if (strchr(userid, '/')) return IMAP_MAILBOX_BADNAME;
    char inbox[MAX_MAILBOX_NAME];
    if (snprintf(inbox, sizeof(inbox), "user/%s", userid) >= (int)sizeof(inbox))
        return IMAP_MAILBOX_BADNAME;
    char *path = nullptr;
    int r = mboxlist_lookup(inbox, nullptr, nullptr, &path, nullptr, nullptr);
    if (r) return r;
    snprintf(dir, MBOXLIST_PATH_BUFFER, "%s", path);
    free(path);
    return 0;
}

// Writes the name rows that follow the change row at the cursor to out,
// one per line. 0 or the Berkeley DB failure of the walk.
static int write_names(DBC *cursor, struct subs_walk *w, const char *userid,
                       struct protstream *out) {
    int r;
    const char *name;
    while ((r = cursor->c_get(cursor, &w->key, &w->data, DB_NEXT)) == 0 &&
           (name = walk_name(w, userid)) != nullptr) {
        if (!*name) continue;
        prot_write(out, name, strlen(name));
        prot_putc('\n', out);
    }
    return r == DB_NOTFOUND ? 0 : r;
}

// Writes "subscr.new" in dir from the rows at the cursor and renames it over
// "store.sub". Logged failures; the old copy stays then.
static void write_copy(DBC *cursor, struct subs_walk *w, const char *userid, const char *dir) {
    char tmp[MBOXLIST_PATH_BUFFER + 16], copy[MBOXLIST_PATH_BUFFER + 16];
    snprintf(tmp, sizeof(tmp), "%s/subscr.new", dir);
    snprintf(copy, sizeof(copy), "%s/store.sub", dir);
    int fd = open(tmp, O_RDWR | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        svclog(nullptr, 59, "Unable to create subscription file for %s: %m", userid);
        return;
    }
    struct protstream *out = prot_file(fd, 1);
    int r = write_names(cursor, w, userid, out);
    prot_flush(out);
    const char *err = prot_error(out);
    if (!err && r) err = db_strerror(r);
    int level = mailbox_subscribe_sync_level();
    if (!err && sync_file(fd, level) != 0) err = strerror(errno);
    prot_free(out);
    close(fd);
    if (err) {
        svclog(nullptr, 59, "Unable to write subscription file for %s: %s", userid, err);
        unlink(tmp);
        return;
    }
    if (sync_rename(tmp, copy, level) < 0)
        svclog(nullptr, 59, "Unable to rename subscription file for %s: %m", userid);
}

void mboxlist_checkpointSubs(const char *userid, time_t since, time_t before) {
    if (mboxlist_init() != 0) return;
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    DBC *cursor;
    if (subsdb->cursor(subsdb, nullptr, &cursor, 0) != 0) return;
    struct subs_walk w;
    walk_init(&w, userid, "", 0);
    uint32_t changed = 0;
    DBT when;
    set_dbt(&when, &changed, 0);
    when.ulen = sizeof(changed);
    when.flags = DB_DBT_USERMEM;
    int r = cursor->c_get(cursor, &w.key, &when, DB_SET);
    char dir[MBOXLIST_PATH_BUFFER];
    if (r == 0 && when.size == sizeof(changed) && (time_t)changed >= since &&
        inbox_dir(userid, dir) == 0) {
        char copy[MBOXLIST_PATH_BUFFER + 16];
        snprintf(copy, sizeof(copy), "%s/store.sub", dir);
        struct stat st;
        bool current = (time_t)changed < before && stat(copy, &st) == 0 &&
                       st.st_mtime > (time_t)changed;
        if (!current) write_copy(cursor, &w, userid, dir);
    }
    cursor->c_close(cursor);
}

// ---- loading from the copy ----------------------------------------------------

// Whether userid has a change row: 1 yes, 0 no, -1 when it can't be read.
static int has_change_row(const char *userid) {
    if (mboxlist_init() != 0) return -1;
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    DBT key, data;
    mboxlist_set_key(userid, &key);
    char none;
    set_dbt(&data, &none, 0);
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    int r;
    do {
        r = subsdb->get(subsdb, nullptr, &key, &data, 0);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == 0) return 1;
    if (r == DB_NOTFOUND) return 0;
    svclog(nullptr, 59, "Unable to read subscriptions of %s: %s", userid, db_strerror(r));
    return -1;
}

int mboxlist_oldsub_path(const char *userid, char *path, size_t size) {
    const char *store = configmsg_get_storedir();
    if (!store) return -1;
    char hash[MBOXNAME_HASH_SIZE];
    mboxname_tohash(userid, 0, hash);
    int n = snprintf(path, size, "%s/user%s%s.sub", store, hash, userid);
    return n < 0 || (size_t)n >= size ? -1 : 0;
}

// Opens the copy of userid, or else the old subscription file, read-only;
// *when gets the change time to store: 0 for the copy, whose names are as
// old as the rows it was written from, now for the old file. -1 if neither.
static int open_copy(const char *userid, uint32_t *when) {
    char dir[MBOXLIST_PATH_BUFFER], path[MBOXLIST_PATH_BUFFER + 16];
    if (inbox_dir(userid, dir) == 0) {
        snprintf(path, sizeof(path), "%s/store.sub", dir);
        int fd = open(path, O_RDONLY);
        *when = 0;
        if (fd >= 0) return fd;
    }
    if (strchr(userid, '/') || mboxlist_oldsub_path(userid, path, sizeof(path)) != 0) return -1;
    *when = (uint32_t)time(nullptr);
    return open(path, O_RDONLY);
}

// The change row and a name row for each whole line of text under txn. A
// line may end in TAB, LF; a last line without LF is cut short and left out.
static int load_rows(DB_TXN *txn, const char *userid, uint32_t when, const char *text, size_t size) {
    int r = put_change_row(txn, userid, when);
    DB *subsdb = mboxlist_db(MBOXLIST_SUBSDB);
    const char *end = text + size;
    while (r == 0) {
        const char *lf = static_cast<const char *>(memchr(text, '\n', (size_t)(end - text)));
        if (!lf) break;
        const char *stop = lf > text && lf[-1] == '\t' ? lf - 1 : lf;
        char kbuf[SUBS_KEY_BUFFER];
        size_t ulen = strlen(userid), nlen = (size_t)(stop - text);
        // An empty line names no folder, and a line too long for a key
        // can't be one that was written from a row.
        if (nlen > 0 && ulen + nlen + 2 <= sizeof(kbuf)) {
            memcpy(kbuf, userid, ulen + 1);
            memcpy(kbuf + ulen + 1, text, nlen);
            kbuf[ulen + 1 + nlen] = '\0';
            DBT key, data;
            set_dbt(&key, kbuf, ulen + nlen + 2);
            set_dbt(&data, nullptr, 0);
            r = subsdb->put(subsdb, txn, &key, &data, 0);
        }
        text = lf + 1;
    }
    return r;
}

void mboxlist_maybeRecoverSubsFromFile(const char *userid) {
    if (has_change_row(userid) != 0) return;
    uint32_t when = 0;
    int fd = open_copy(userid, &when);
    if (fd < 0) return;
    struct map *m = map_refresh(fd, nullptr, MAP_ONCE, -1);
    if (!m) {
        svclog(nullptr, 59, "Unable to map subscription file for %s: %m", userid);
        close(fd);
        return;
    }
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "recover subscriptions", userid);
        if (r) break;
        r = load_rows(txn, userid, when, m->base, m->size);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r)
        svclog(nullptr, 59, "Unable to write subscriptions for %s: %s", userid, mboxlist_strerror(r));
    map_free(m);
    close(fd);
}

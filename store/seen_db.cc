// Per-user seen and deleted state: the database "peruser.db", the
// read-modify-write protocol of one pair of folder and user under a named
// mutex, the folder-wide create, delete and copy, the searchable range form
// of a record, and the rebuild of a folder's records from "store.usr".
#include "store/seen_db.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/storeassert.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/xmalloc.h"

DB *userflagdb = nullptr;

// The mutex name and the keys share one text: "NAME\tUSER peruser".
static const char mutex_suffix[] = " peruser";

// Value of the folder record made by seen_create and seen_copy.
#define FOLDER_RECORD_NEW 1u
// Value of the folder record made by a rebuild from "store.usr", so that
// the folder does not count as changed.
#define FOLDER_RECORD_RECOVERED 0u

// Room that seen_write adds to the lists for the three numbers and blanks.
#define RECORD_NUMBERS_ROOM 64
// Room that seen_fixdata adds to the value for a repaired text.
#define FIXDATA_EXTRA 42

static const char *seen_errtext(int r) {
    if (r >= IMAP_ERR_BASE && r < IMAP_ERR_BASE + IMAP_ERR_COUNT) return PR_ErrorToString(r, 0);
    return db_strerror(r);
}

// A key or value that the caller owns and the library only reads. The
// handles are opened with DB_THREAD, under which the library refuses a key
// that it might write into unless the key says it is read-only.
static void dbt_init(DBT *d, const void *data, size_t size) {
    memset(d, 0, sizeof(*d));
    d->data = const_cast<void *>(data);
    d->size = (uint32_t)size;
    d->flags = DB_DBT_READONLY;
}

// A value read as nothing: a partial read of zero bytes.
static void dbt_nothing(DBT *d, char *place) {
    memset(d, 0, sizeof(*d));
    d->data = place;
    d->flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
}

// 1 if key is the record of the folder (name of nlen bytes) or of one of
// its users, that is "NAME" or "NAME\t...".
static int key_in_folder(const DBT *key, const char *name, size_t nlen) {
    if (key->size < nlen || memcmp(key->data, name, nlen) != 0) return 0;
    return key->size == nlen || static_cast<const char *>(key->data)[nlen] == '\t';
}

static int is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads decimal digits from *p (bounded by end), saturating instead of
// wrapping; *p is left on the first byte that is no digit.
static uint64_t read_number(const char **p, const char *end) {
    uint64_t v = 0;
    const char *q = *p;
    while (q < end && is_digit(*q)) {
        unsigned d = (unsigned)(*q - '0');
        v = v > (UINT64_MAX - d) / 10 ? UINT64_MAX : v * 10 + d;
        q++;
    }
    *p = q;
    return v;
}

static uint32_t clamp32(uint64_t v) { return v > UINT32_MAX ? UINT32_MAX : (uint32_t)v; }

// ---------------------------------------------------------------------------
// The database

int seen_init(DB_ENV *env, const char *file, mboxlist_key_compare_fn cmp, mboxlist_key_prefix_fn prefix) {
    int r = db_create(&userflagdb, env, 0);
    if (r == 0) r = userflagdb->set_pagesize(userflagdb, 4096);
    if (r == 0) r = userflagdb->set_bt_compare(userflagdb, cmp);
    if (r == 0) r = userflagdb->set_bt_prefix(userflagdb, prefix);
    if (r == 0)
        r = userflagdb->open(userflagdb, nullptr, file, nullptr, DB_BTREE,
                             DB_CREATE | DB_THREAD | DB_AUTO_COMMIT, 0600);
    if (r != 0) {
        if (r > 0) errno = r;
        svclog(nullptr, 59, "Unable to open userflag database: %s", db_strerror(r));
        return -1;
    }
    return 0;
}

void seen_shutdown(void) {
    if (!userflagdb) return;
    DB *db = userflagdb;
    userflagdb = nullptr;
    db->close(db, mboxlist_db_close_flags());
}

// Puts the 4-byte folder record of name with value under txn.
static int put_folder_record(DB_TXN *txn, const char *name, size_t nlen, uint32_t value) {
    DBT key, data;
    dbt_init(&key, name, nlen);
    dbt_init(&data, &value, sizeof(value));
    return userflagdb->put(userflagdb, txn, &key, &data, 0);
}

// ---------------------------------------------------------------------------
// One pair of folder and user

int seen_open(struct mailbox *mailbox, const char *user, struct seen **seendb) {
    STORE_ASSERT(userflagdb != 0);
    struct seen *s = (struct seen *)xcalloc(1, sizeof(struct seen));
    s->mailbox = mailbox;
    s->user = xstrdup(user);
    size_t nlen = strlen(mailbox->name), ulen = strlen(user);
    s->keybuf = (char *)xmalloc(nlen + 1 + ulen + sizeof(mutex_suffix));
    memcpy(s->keybuf, mailbox->name, nlen);
    s->keybuf[nlen] = '\t';
    memcpy(s->keybuf + nlen + 1, user, ulen);
    memcpy(s->keybuf + nlen + 1 + ulen, mutex_suffix, sizeof(mutex_suffix));
    dbt_init(&s->folderkey, s->keybuf, nlen);
    dbt_init(&s->userkey, s->keybuf, nlen + 1 + ulen);
    s->mutex = db_globalmutex_open(s->keybuf);

    // The folder record tells whether the folder's records are in the
    // database at all; without it they are rebuilt from "store.usr".
    uint32_t value;
    DBT data;
    memset(&data, 0, sizeof(data));
    data.data = &value;
    data.ulen = data.dlen = sizeof(value);
    data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
    int r;
    do {
        r = userflagdb->get(userflagdb, nullptr, &s->folderkey, &data, 0);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == DB_NOTFOUND) seen_recoverFromFile(mailbox);

    mailbox->peruser_lock_count = 0;
    *seendb = s;
    return 0;
}

int seen_lockread(struct seen *seendb, time_t *lastread, unsigned *recentuid,
                  time_t *lastchange, char **seenuids) {
    struct mailbox *mailbox = seendb->mailbox;
    if (mailbox->peruser_lock_count == 0) {
        int r = db_globalmutex_hold(seendb->mutex);
        if (r != 0) {
            svclog(nullptr, 59, "Unable to lock peruser data for %s: %d", mailbox->name, r);
            return IMAP_MAILBOX_LOCKED;
        }
        mailbox->peruser_lock_count = 1;
    }
    if (lastread) *lastread = 0;
    if (recentuid) *recentuid = 0;
    if (lastchange) *lastchange = 0;
    if (seenuids) *seenuids = nullptr;

    DBT data;
    memset(&data, 0, sizeof(data));
    data.flags = DB_DBT_MALLOC;
    int r;
    do {
        r = userflagdb->get(userflagdb, nullptr, &seendb->userkey, &data, 0);
    } while (r == DB_LOCK_DEADLOCK);
    if (r == DB_NOTFOUND) {
        // Never used: two empty lists.
        if (seenuids) *seenuids = xstrdup(" ");
        return 0;
    }
    if (r != 0) {
        svclog(nullptr, 59, "Unable to read peruser data for %s: %s", mailbox->name,
               db_strerror(r));
        seen_unlock(seendb);
        return IMAP_IOERROR;
    }

    // "lastread recentuid lastchange seen deleted", bounded by the size.
    const char *p = static_cast<const char *>(data.data);
    const char *end = p + data.size;
    uint64_t n1 = read_number(&p, end);
    if (p < end) p++;
    uint64_t n2 = read_number(&p, end);
    if (p < end) p++;
    uint64_t n3 = read_number(&p, end);
    if (p < end) p++;
    if (lastread) *lastread = (time_t)(n1 > (uint64_t)INT64_MAX ? INT64_MAX : n1);
    if (recentuid) *recentuid = clamp32(n2);
    if (lastchange) *lastchange = (time_t)(n3 > (uint64_t)INT64_MAX ? INT64_MAX : n3);
    if (seenuids) {
        // The seen list, the white space behind it, and the deleted list:
        // whatever stands behind the deleted list is not part of the text.
        const char *t = p;
        while (p < end && !isspace((unsigned char)*p)) p++;
        if (p < end) p++;
        while (p < end && !isspace((unsigned char)*p)) p++;
        *seenuids = xstrndup(t, (size_t)(p - t));
    }
    free(data.data);
    return 0;
}

int seen_write(struct seen *seendb, time_t lastread, unsigned recentuid, time_t lastchange,
               const char *seenuids) {
    struct mailbox *mailbox = seendb->mailbox;
    if (!seenuids) seenuids = " ";
    size_t cap = strlen(seenuids) + RECORD_NUMBERS_ROOM;
    char *buf = (char *)xmalloc(cap);
    int len = snprintf(buf, cap, "%lu %u %lu %s", (unsigned long)lastread, recentuid,
                       (unsigned long)lastchange, seenuids);
    if (len < 0 || (size_t)len >= cap) len = (int)strlen(buf);
    DBT data;
    dbt_init(&data, buf, (size_t)len);

    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "write peruser", mailbox->name);
        if (r) break;
        r = userflagdb->put(userflagdb, txn, &seendb->userkey, &data, 0);
        if (r == 0)
            r = put_folder_record(txn, mailbox->name, seendb->folderkey.size,
                                  (uint32_t)time(nullptr));
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    free(buf);
    if (r) {
        svclog(nullptr, 59, "Unable to write peruser data for %s: %s", mailbox->name,
               seen_errtext(r));
        return IMAP_IOERROR;
    }
    return 0;
}

void seen_unlock(struct seen *seendb) {
    struct mailbox *mailbox = seendb->mailbox;
    if (mailbox->peruser_lock_count) {
        mailbox->peruser_lock_count = 0;
        db_globalmutex_release(seendb->mutex);
    }
}

void seen_close(struct seen *seendb) {
    if (!seendb) return;
    seen_unlock(seendb);
    free(seendb->user);
    free(seendb->keybuf);
    db_globalmutex_close(seendb->mutex);
    free(seendb);
}

// ---------------------------------------------------------------------------
// Whole folders

int seen_create(struct mailbox *mailbox) {
    size_t nlen = strlen(mailbox->name);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "create peruser", mailbox->name);
        if (r) break;
        r = put_folder_record(txn, mailbox->name, nlen, FOLDER_RECORD_NEW);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to create peruser data for %s: %s", mailbox->name,
               seen_errtext(r));
        return IMAP_IOERROR;
    }
    return 0;
}

// Positions the cursor on the folder's own record, behind which its users'
// records follow. A folder without that record has no records here:
// DB_NOTFOUND. (Positioning on the nearest key instead would take up user
// records left behind without their folder's record.) key must be a
// DB_DBT_REALLOC key whose buffer the caller frees.
static int seek_folder(DBC *cursor, DBT *key, DBT *data, const char *name, size_t nlen,
                       uint32_t flags) {
    key->data = xrealloc(key->data, nlen ? nlen : 1);
    memcpy(key->data, name, nlen);
    key->size = (uint32_t)nlen;
    return cursor->c_get(cursor, key, data, DB_SET | flags);
}

int seen_delete(struct mailbox *mailbox, int remove_file) {
    const char *name = mailbox->name;
    size_t nlen = strlen(name);
    DBT key;
    memset(&key, 0, sizeof(key));
    key.flags = DB_DBT_REALLOC;
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "delete peruser", name);
        if (r) break;
        DBC *cursor;
        r = userflagdb->cursor(userflagdb, txn, &cursor, 0);
        if (r == 0) {
            char none;
            DBT data;
            dbt_nothing(&data, &none);
            r = seek_folder(cursor, &key, &data, name, nlen, DB_RMW);
            while (r == 0 && key_in_folder(&key, name, nlen)) {
                r = cursor->c_del(cursor, 0);
                if (r == 0) r = cursor->c_get(cursor, &key, &data, DB_NEXT | DB_RMW);
            }
            if (r == DB_NOTFOUND) r = 0;
            int cr = cursor->c_close(cursor);
            if (r == 0) r = cr;
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    free(key.data);
    if (r) {
        svclog(nullptr, 59, "Unable to delete peruser data for %s: %s", name, seen_errtext(r));
        return IMAP_IOERROR;
    }
    // The rows are gone first; the file follows.
    if (remove_file && mailbox->path) {
        size_t plen = strlen(mailbox->path);
        char *path = (char *)xmalloc(plen + sizeof("/store.usr"));
        memcpy(path, mailbox->path, plen);
        memcpy(path + plen, "/store.usr", sizeof("/store.usr"));
        unlink(path);
        free(path);
    }
    return 0;
}

int seen_copy(DB_TXN *txn, struct mailbox *oldmailbox, struct mailbox *newmailbox,
              int rename_user, const char *olduser, const char *newuser) {
    const char *oldname = oldmailbox->name, *newname = newmailbox->name;
    if (strcmp(oldname, newname) == 0) return 0;
    size_t olen = strlen(oldname), nlen = strlen(newname);

    // A deadlock can't be answered inside the caller's transaction, which
    // Berkeley DB has doomed: it goes back to the caller, whose loop runs
    // the whole work again.
    int r = put_folder_record(txn, newname, nlen, FOLDER_RECORD_NEW);
    DBC *cursor = nullptr;
    if (r == 0) r = userflagdb->cursor(userflagdb, txn, &cursor, 0);
    if (r == 0) {
        DBT key, data;
        memset(&key, 0, sizeof(key));
        key.flags = DB_DBT_REALLOC;
        memset(&data, 0, sizeof(data));
        data.flags = DB_DBT_REALLOC;
        char *newkey = nullptr;
        size_t newcap = 0;
        size_t rename_len = (rename_user && olduser && newuser) ? strlen(olduser) : 0;
        r = seek_folder(cursor, &key, &data, oldname, olen, 0);
        while (r == 0 && key_in_folder(&key, oldname, olen)) {
            if (key.size > olen) {
                // A user's record: the new name, a tab, the user.
                const char *upart = static_cast<const char *>(key.data) + olen + 1;
                size_t ulen = key.size - olen - 1;
                if (rename_len && ulen == rename_len && memcmp(upart, olduser, ulen) == 0) {
                    upart = newuser;
                    ulen = strlen(newuser);
                }
                size_t need = nlen + 1 + ulen;
                if (need > newcap) {
                    newcap = need;
                    newkey = (char *)xrealloc(newkey, newcap);
                }
                memcpy(newkey, newname, nlen);
                newkey[nlen] = '\t';
                memcpy(newkey + nlen + 1, upart, ulen);
                DBT nkey, ndata;
                dbt_init(&nkey, newkey, need);
                dbt_init(&ndata, data.data, data.size);
                r = userflagdb->put(userflagdb, txn, &nkey, &ndata, 0);
                if (r) break;
            }
            r = cursor->c_get(cursor, &key, &data, DB_NEXT);
        }
        if (r == DB_NOTFOUND) r = 0;
        free(newkey);
        free(key.data);
        free(data.data);
        int cr = cursor->c_close(cursor);
        if (r == 0) r = cr;
    }
    if (r == DB_LOCK_DEADLOCK) return r;
    if (r) {
        svclog(nullptr, 59, "Unable to copy peruser data for %s: %s", oldname, seen_errtext(r));
        return IMAP_IOERROR;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// The searchable form

// Order of a uid (key) against a range: 0 inside, -1 below, 1 above.
static int compareflags(const void *key, const void *elem) {
    uint32_t uid = *static_cast<const uint32_t *>(key);
    const struct seen_range *range = static_cast<const struct seen_range *>(elem);
    if (uid < range->low) return -1;
    if (uid > range->high) return 1;
    return 0;
}

static int inSequence(const struct seen_range *array, int count, uint32_t uid) {
    // The terminator is no range.
    if (!array || count <= 1) return 0;
    return bsearch(&uid, array, (size_t)(count - 1), sizeof(struct seen_range), compareflags) !=
           nullptr;
}

int isSeen(const struct PerUserFlags *flags, uint32_t uid) {
    return inSequence(flags->seen, flags->nseen, uid);
}

int isDeleted(const struct PerUserFlags *flags, uint32_t uid) {
    return inSequence(flags->deleted, flags->ndeleted, uid);
}

const char *scanFlags(const char *text, struct seen_range **array, int *count,
                      struct mailbox *mailbox) {
    if (!text || !*text) return nullptr;
    size_t cap = mailbox->mbd.exists < 100 ? 100 : mailbox->mbd.exists;
    struct seen_range *ranges = (struct seen_range *)malloc(cap * sizeof(struct seen_range));
    if (!ranges) return nullptr;
    size_t n = 0;
    const char *p = text;
    const char *end = text + strlen(text);
    const char *next = nullptr;
    while (*p == ',') p++;
    while (p < end) {
        if (*p == ' ') {
            next = p + 1;
            break;
        }
        if (!is_digit(*p)) {
            svclog(nullptr, 60, "%s invalid peruser flags: %s\n", mailbox->name, p);
            break;
        }
        const char *element = p;
        uint32_t low = clamp32(read_number(&p, end));
        if (n > 0 && low < ranges[n - 1].high) {
            svclog(nullptr, 60, "%s peruser flags out of order: %s\n", mailbox->name, element);
            break;
        }
        uint32_t high = low;
        if (*p == ':') {
            p++;
            if (is_digit(*p)) high = clamp32(read_number(&p, end));
        }
        if (high < low || high > mailbox->mbd.last_uid) {
            svclog(nullptr, 60, "%s invalid sequence in peruser flags: %s\n", mailbox->name,
                   element);
            break;
        }
        while (*p == ',') p++;
        // Room for this range and the terminator.
        if (n + 2 > cap) {
            size_t ncap = cap * 2;
            struct seen_range *grown =
                (struct seen_range *)realloc(ranges, ncap * sizeof(struct seen_range));
            if (!grown) {
                free(ranges);
                return nullptr;
            }
            ranges = grown;
            cap = ncap;
        }
        ranges[n].low = low;
        ranges[n].high = high;
        n++;
    }
    ranges[n].low = ranges[n].high = SEEN_RANGE_END;
    *array = ranges;
    *count = (int)(n + 1);
    return next;
}

int getPerUserFlags(struct mailbox *mailbox, const char *user, struct PerUserFlags *flags) {
    memset(flags, 0, sizeof(*flags));
    struct seen *seendb;
    seen_open(mailbox, user, &seendb);
    time_t lastread, lastchange;
    unsigned recentuid;
    char *text = nullptr;
    int r = seen_lockread(seendb, &lastread, &recentuid, &lastchange, &text);
    if (r) {
        seen_close(seendb);
        return r;
    }
    seen_unlock(seendb);
    seen_close(seendb);
    flags->recentuid = recentuid;
    flags->lastread = lastread;
    flags->lastchange = lastchange;
    const char *next = scanFlags(text, &flags->seen, &flags->nseen, mailbox);
    if (next) scanFlags(next, &flags->deleted, &flags->ndeleted, mailbox);
    free(text);
    return 0;
}

void freeUserFlags(struct PerUserFlags *flags) {
    free(flags->seen);
    free(flags->deleted);
    flags->seen = flags->deleted = nullptr;
    flags->nseen = flags->ndeleted = 0;
}

// ---------------------------------------------------------------------------
// The file "store.usr"

int seen_fixdata(char **out, const char *start, const char *end, unsigned last_uid, time_t now,
                 time_t active_since, time_t cutoff, const char *user,
                 seen_active_cb active_callback, void *rock) {
    *out = nullptr;
    const char *p = start;

    uint64_t lastread = read_number(&p, end);
    if (p >= end || *p != ' ') return 1;
    p++;
    // A clock far ahead counts as now for the age tests; the text keeps it.
    int64_t seen_at = now < 0 ? 0 : (int64_t)now;
    if (lastread <= (uint64_t)seen_at + 86400) seen_at = (int64_t)lastread;
    if (active_callback && seen_at > (int64_t)active_since) active_callback(rock, user);
    if (seen_at < (int64_t)cutoff) return 1;

    uint64_t recentuid = read_number(&p, end);
    if (p >= end || *p != ' ' || recentuid > last_uid) return 1;
    p++;
    read_number(&p, end);  // lastchange
    if (p >= end || *p != ' ') return 1;
    p++;

    // The text is rebuilt as it is read; it is handed out only if it had
    // to differ from the value. Up to here it is the value itself.
    char *buf = (char *)xmalloc((size_t)(end - start) + FIXDATA_EXTRA + 1);
    size_t len = (size_t)(p - start);
    memcpy(buf, start, len);
    int changed = 0;

    for (int list = 0; list < 2; list++) {
        if (list == 1) {
            if (p >= end || *p != ' ') {
                free(buf);
                return 1;
            }
            p++;
            buf[len++] = ' ';
        }
        size_t liststart = len;
        char last = ',';
        while (p < end && *p != ' ') {
            const char *digits = p;
            uint64_t num = read_number(&p, end);
            if (p > digits && num >= 1 && num <= last_uid) {
                memcpy(buf + len, digits, (size_t)(p - digits));
                len += (size_t)(p - digits);
                if (p < end && (*p == ':' || *p == ',')) {
                    if (last == ':' && *p == ':') {
                        // "1:2:3": the second colon starts a new element.
                        buf[len++] = ',';
                        last = ',';
                        changed = 1;
                    } else {
                        buf[len++] = *p;
                        last = *p;
                    }
                    p++;
                } else {
                    break;  // a blank, the end, or anything else ends the list
                }
            } else {
                // No uid of this folder: it goes, with the separator behind
                // it, and a range that led to it ends before it.
                changed = 1;
                if (len > liststart && buf[len - 1] == ':') {
                    buf[len - 1] = ',';
                    last = ',';
                }
                if (p < end && *p != ' ') p++;
            }
        }
        if (len > liststart && (buf[len - 1] == ':' || buf[len - 1] == ',')) {
            len--;
            changed = 1;
        }
    }
    for (; p < end; p++)
        if (*p != ' ') changed = 1;

    if (!changed) {
        free(buf);
        return 0;
    }
    buf[len] = '\0';
    *out = buf;
    return 1;
}

int seen_recoverFromFile(struct mailbox *mailbox) {
    const char *name = mailbox->name;
    int fd = -1;
    if (mailbox->path) {
        size_t plen = strlen(mailbox->path);
        char *path = (char *)xmalloc(plen + sizeof("/store.usr"));
        memcpy(path, mailbox->path, plen);
        memcpy(path + plen, "/store.usr", sizeof("/store.usr"));
        do {
            fd = open(path, O_RDONLY | O_CLOEXEC);
        } while (fd < 0 && errno == EINTR);
        free(path);
    }
    if (fd < 0) return seen_create(mailbox);

    struct map *map = map_refresh(fd, nullptr, MAP_ONCE, -1);
    if (!map) {
        svclog(nullptr, 59, "Unable to map peruser file for %s: %m", name);
        close(fd);
        return IMAP_IOERROR;
    }

    size_t nlen = strlen(name);
    char *keybuf = nullptr;
    size_t keycap = 0;
    time_t now = time(nullptr);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "recover peruser", name);
        if (r) break;
        r = put_folder_record(txn, name, nlen, FOLDER_RECORD_RECOVERED);
        const char *p = map->base, *end = map->base + map->size;
        while (r == 0 && p < end) {
            const char *nl = static_cast<const char *>(memchr(p, '\n', (size_t)(end - p)));
            if (!nl) break;  // an unfinished last line is not read
            const char *tab = static_cast<const char *>(memchr(p, '\t', (size_t)(nl - p)));
            if (tab) {
                // The key "NAME\tUSER", with a terminator behind it for the
                // user id that seen_fixdata hands to its callback.
                size_t ulen = (size_t)(tab - p);
                size_t klen = nlen + 1 + ulen;
                if (klen + 1 > keycap) {
                    keycap = klen + 1;
                    keybuf = (char *)xrealloc(keybuf, keycap);
                }
                memcpy(keybuf, name, nlen);
                keybuf[nlen] = '\t';
                memcpy(keybuf + nlen + 1, p, ulen);
                keybuf[klen] = '\0';
                const char *value = tab + 1;
                char *fixed = nullptr;
                int fr = seen_fixdata(&fixed, value, nl + 1, mailbox->mbd.last_uid, now, 0, 0,
                                      keybuf + nlen + 1, nullptr, nullptr);
                DBT key, data;
                dbt_init(&key, keybuf, klen);
                if (fr == 0) {
                    dbt_init(&data, value, (size_t)(nl - value));
                    r = userflagdb->put(userflagdb, txn, &key, &data, 0);
                } else if (fixed) {
                    dbt_init(&data, fixed, strlen(fixed));
                    r = userflagdb->put(userflagdb, txn, &key, &data, 0);
                }
                free(fixed);
            }
            p = nl + 1;
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r)
        svclog(nullptr, 59, "Unable to write peruser data for %s: %s", name, seen_errtext(r));
    free(keybuf);
    map_free(map);
    close(fd);
    return r ? IMAP_IOERROR : 0;
}

// Folder listing over "folder.db", "lright.db" and "subscr.db"; see
// mboxlist_list.h.
#include "store/mboxlist_list.h"

#include <regex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "store/mboxlist_subs.h"
#include "store/mboxname.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/log.h"
#include "support/storeglob.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

// A key as the walks read it: the longest folder name with "/INBOX" behind
// it, or a subscription key (user id, NUL, folder name).
#define FIND_KEY_SIZE 387
// A name as the callbacks get it: a key behind the longest prefix.
#define FIND_NAME_SIZE (FIND_KEY_SIZE + 32)

static const char INBOX_SUFFIX[] = "/INBOX";

namespace {

// The pattern, compiled once for a listing. With neither a glob nor a
// regular expression (a null pattern) every name matches whole.
struct matcher {
    storeglob *glob;
    regex_t re;
    int isregex;
};

// 0, or -1 for a regular expression that doesn't compile.
int matcher_init(matcher *m, const char *pattern, int regex)
{
    memset(m, 0, sizeof *m);
    if (!pattern) return 0;
    if (!regex) {
        m->glob = glob_init_suppress(pattern, GLOB_HIERARCHY | GLOB_INBOXCASE, nullptr);
        return 0;
    }
    // Anchored at both ends: the expression must describe the whole name.
    size_t size = strlen(pattern) + 5;
    char *anchored = (char *)xmalloc(size);
    snprintf(anchored, size, "^(%s)$", pattern);
    int r = regcomp(&m->re, anchored, REG_EXTENDED | REG_NOSUB);
    free(anchored);
    if (r) return -1;
    m->isregex = 1;
    return 0;
}

void matcher_free(matcher *m)
{
    glob_free(&m->glob);
    if (m->isregex) regfree(&m->re);
    m->isregex = 0;
}

// The length of name that the pattern matches; 0 or below: no match.
int matcher_test(matcher *m, const char *name)
{
    int whole = (int)strlen(name);
    if (m->isregex) {
        // Names hold modified UTF-7; a person writes expressions in UTF-8.
        char utf8[FIND_NAME_SIZE * 2];
        if (mutf7_toutf8(name, utf8, sizeof utf8) != 0) return -1;
        return regexec(&m->re, utf8, 0, nullptr, 0) == 0 ? whole : -1;
    }
    if (m->glob) return glob_test(m->glob, name, 0, nullptr);
    return whole;
}

// The text of the last entry reported, up to its match length: a second
// entry with the same text is the same implicit parent (or a name given
// twice) and isn't reported again.
struct reported {
    char text[FIND_NAME_SIZE];
    int len;
};

int is_repeat(const reported *last, const char *name, int len)
{
    return last->len == len && memcmp(last->text, name, (size_t)len) == 0;
}

void remember(reported *last, const char *name, int len)
{
    memcpy(last->text, name, (size_t)len);
    last->len = len;
}

// Appends tail to the text in buf (size bytes), as much as fits.
void append(char *buf, const char *tail, size_t size)
{
    size_t len = strlen(buf);
    if (len < size) strlcpy(buf + len, tail, size - len);
}

// 1 if candidate is a child (at any depth) of name.
int is_child(const char *candidate, const char *name)
{
    size_t n = strlen(name);
    return strncmp(candidate, name, n) == 0 && candidate[n] == '/';
}

// Whether a "folder.db" row holds its summary, partition and ACL.
int row_is_whole(const char *row, uint32_t size)
{
    const uint32_t fixed = sizeof(struct mboxdata);
    if (size < fixed + 2 || row[size - 1] != '\0') return 0;
    return memchr(row + fixed, '\0', size - fixed - 1) != nullptr;
}

// Reads the first key of "folder.db" not below key (with after: above it)
// into key (FIND_KEY_SIZE bytes, NUL-terminated), and with row its value
// (a new buffer, the caller frees it; null for a row too damaged to read).
// A fresh cursor outside any transaction, closed before the return: a
// walk holds no lock between two steps, and a deadlock is simply retried.
// 0, DB_NOTFOUND behind the last key, or another Berkeley DB code.
int fetch(char *key, char **row, int after)
{
    char from[FIND_KEY_SIZE];
    strlcpy(from, key, sizeof from);
    uint32_t fromsize = (uint32_t)strlen(from) + 1;
    DB *db = mboxlist_db(MBOXLIST_FOLDERDB);
    if (!db) return IMAP_MAILBOXLIST_NONEXISTENT;
    for (;;) {
        if (row) *row = nullptr;
        memcpy(key, from, fromsize);
        DBT k, d;
        memset(&k, 0, sizeof k);
        memset(&d, 0, sizeof d);
        k.data = key;
        k.size = fromsize;
        k.ulen = FIND_KEY_SIZE - 1;  // room for the terminator of a key stored without one
        k.flags = DB_DBT_USERMEM;
        char none;
        if (row) {
            d.flags = DB_DBT_MALLOC;
        } else {
            d.data = &none;
            d.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        }
        DBC *cursor;
        int r = db->cursor(db, nullptr, &cursor, 0);
        if (r) return r;
        r = cursor->c_get(cursor, &k, &d, DB_SET_RANGE);
        if (r == 0 && after && k.size == fromsize && memcmp(key, from, fromsize) == 0) {
            if (row) free(d.data);
            d.data = row ? nullptr : &none;
            r = cursor->c_get(cursor, &k, &d, DB_NEXT);
        }
        int closed = cursor->c_close(cursor);
        if (r == 0 && closed) r = closed;
        if (r) {
            if (row && d.data) free(d.data);
            if (r == DB_LOCK_DEADLOCK) continue;
            return r == DB_KEYEMPTY ? DB_NOTFOUND : r;
        }
        key[k.size] = '\0';
        if (row) {
            if (row_is_whole((char *)d.data, d.size)) {
                *row = (char *)d.data;
            } else {
                svclog(nullptr, 59, "Mailbox list entry of %s is damaged: %u bytes", key, d.size);
                free(d.data);
            }
        }
        return 0;
    }
}

// One listing: what the caller asked, and the state the stages share.
struct listing {
    int flags;
    int view;
    const char *userid;
    const struct auth_state *auth;
    mboxlist_findall_cb *callback;
    void *rock;
    matcher match;
    reported last;
};

// What the caller asked, into a listing.
static void listing_set(listing *ls, int flags, int view, const char *userid,
                        const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock)
{
    ls->flags = flags;
    ls->view = view;
    ls->userid = userid;
    ls->auth = auth;
    ls->callback = callback;
    ls->rock = rock;
}

// Where the first stage walks and how it names what it finds: every key
// walked starts with prefix; an entry's name is shown + the key (with
// "/INBOX" behind an inbox) from byte skip on.
struct walkplan {
    char key[FIND_KEY_SIZE];
    char prefix[FIND_KEY_SIZE];
    char shown[FIND_KEY_SIZE];
    size_t skip;
};

// The length of the equal leading part of a and b.
size_t common_length(const char *a, const char *b)
{
    size_t n = 0;
    while (a[n] && a[n] == b[n]) n++;
    return n;
}

// Plans the first stage of pattern (null: everything). 0, or 1 when
// nothing can match.
int plan_walk(const listing *ls, const char *pattern, walkplan *plan)
{
    memset(plan, 0, sizeof *plan);
    int regex = (ls->flags & MBOXLIST_FIND_REGEX) != 0;
    const char *literal = pattern ? pattern : "";
    char base[FIND_KEY_SIZE];
    if (ls->userid) {
        // The user's names are relative to its root.
        snprintf(base, sizeof base, "user/%s/", ls->userid);
        plan->skip = strlen(base);
        if (regex) literal = "";
    } else if (ls->flags & MBOXLIST_FIND_ALLUSERS) {
        // Every user's folders, shown under the other-users prefix: the part
        // of the pattern that spells that prefix says nothing about the key.
        snprintf(plan->shown, sizeof plan->shown, "%s/", mboxname_prefix(1, ls->view));
        strlcpy(base, "user/", sizeof base);
        plan->skip = strlen(base);
        literal = regex ? "" : literal + common_length(literal, plan->shown);
    } else {
        base[0] = '\0';
    }

    size_t baselen = strlen(base);
    size_t litlen = strlen(literal);
    const char *wild = regexpstart(literal, regex);
    if (wild) {
        litlen = (size_t)(wild - literal);
        // A character in front of a regular expression's operator may be
        // optional ("ab?"), so it can't be part of the key.
        if (regex && litlen > 0) litlen--;
    }
    if (baselen + litlen >= FIND_KEY_SIZE) return 1;
    memcpy(plan->key, base, baselen);
    memcpy(plan->key + baselen, literal, litlen);
    plan->key[baselen + litlen] = '\0';
    strlcpy(plan->prefix, plan->key, sizeof plan->prefix);

    // An inbox's key is "user/" + id, while its name ends in "/INBOX". A
    // key that goes on behind the id only with a beginning of "/INBOX"
    // (in any case) must start at the id, and the walk must take in every
    // folder of the user, since the pattern's letters also reach ordinary
    // folders ("inb*" finds "INBOX" and "inbound").
    if (strncmp(plan->key, "user/", 5) == 0) {
        char *slash = strchr(plan->key + 5, '/');
        if (slash && slash > plan->key + 5 && strlen(slash) <= strlen(INBOX_SUFFIX) &&
            strncasecmp(slash, INBOX_SUFFIX, strlen(slash)) == 0) {
            slash[1] = '\0';
            strlcpy(plan->prefix, plan->key, sizeof plan->prefix);
            *slash = '\0';
        }
    }
    return 0;
}

// Whether the first stage may show a folder of this row.
int first_stage_may_see(const listing *ls, const char *row)
{
    // The first stage walks the user's own folders, whose lookup right the
    // owner keeps while owner rights are ensured.
    if (mboxlist_ensure_owner_rights() || ls->auth == auth_dontCheckAcl) return 1;
    return (acl_myrights(ls->auth, mboxlist_acl(row)) & ACL_LOOKUP) != 0;
}

// The first stage: walks "folder.db" from the plan's key while keys start
// with its prefix. 0, the callback's result or a Berkeley DB code.
int first_stage(listing *ls, const char *pattern)
{
    walkplan plan;
    if (plan_walk(ls, pattern, &plan)) return 0;
    size_t prefixlen = strlen(plan.prefix);
    char *row = nullptr;
    int r = fetch(plan.key, &row, 0);
    while (r == 0) {
        // The stored key stays in plan.key; text is the key as named.
        char text[FIND_KEY_SIZE + sizeof INBOX_SUFFIX];
        strlcpy(text, plan.key, sizeof text);
        int info = CHILD_UNKNOWN;
        if (strncmp(text, "user/", 5) == 0 && !strchr(text + 5, '/')) {
            append(text, INBOX_SUFFIX, sizeof text);
            info = CHILD_NOINFERIORS;
        }
        if (strncmp(text, plan.prefix, prefixlen) != 0) break;

        char name[FIND_NAME_SIZE];
        snprintf(name, sizeof name, "%s%s", plan.shown, text + plan.skip);
        int len = row ? matcher_test(&ls->match, name) : -1;
        if (len > 0 && first_stage_may_see(ls, row) && !is_repeat(&ls->last, name, len)) {
            const char *entryrow = row;
            if ((size_t)len < strlen(name)) {
                info = CHILD_SOME;  // an implicit parent: no folder, no row
                entryrow = nullptr;
            }
            remember(&ls->last, name, len);
            if ((ls->flags & MBOXLIST_FIND_CHILDINFO) && info == CHILD_UNKNOWN) {
                // The next key tells whether the folder has children.
                char folder[FIND_KEY_SIZE];
                strlcpy(folder, plan.key, sizeof folder);
                r = fetch(plan.key, nullptr, 1);
                info = (r == 0 && is_child(plan.key, folder)) ? CHILD_SOME : CHILD_NONE;
                int cr = ls->callback(name, len, info, row, ls->rock);
                free(row);
                row = nullptr;
                if (cr) return cr;
                // Read the next key's row afresh: the callback may have
                // changed the database since the look.
                if (r == 0) r = fetch(plan.key, &row, 0);
                continue;
            }
            int cr = ls->callback(name, len, info, entryrow, ls->rock);
            if (cr) {
                free(row);
                return cr;
            }
        }
        free(row);
        row = nullptr;
        r = fetch(plan.key, &row, 1);
    }
    free(row);
    return r == DB_NOTFOUND ? 0 : r;
}

// The name under which a folder of others is shown, into name
// (FIND_NAME_SIZE bytes), with its child information so far and the
// length of its namespace prefix; 0, or -1 for a name that has no such
// form (neither "user/" nor "public/").
int shared_name(const char *folder, int view, char *name, int *info, size_t *prefixlen)
{
    *info = CHILD_UNKNOWN;
    if (strncmp(folder, "user/", 5) == 0) {
        const char *prefix = mboxname_prefix(1, view);
        *prefixlen = strlen(prefix);
        snprintf(name, FIND_NAME_SIZE, "%s/%s", prefix, folder + 5);
        if (!strchr(folder + 5, '/')) {
            append(name, INBOX_SUFFIX, FIND_NAME_SIZE);
            *info = CHILD_NOINFERIORS;
        }
        return 0;
    }
    if (strncmp(folder, "public/", 7) == 0) {
        const char *prefix = mboxname_prefix(2, view);
        *prefixlen = strlen(prefix);
        snprintf(name, FIND_NAME_SIZE, "%s/%s", prefix, folder + 7);
        return 0;
    }
    return -1;
}

// Reports one folder of the shared list, if it matches and auth may look
// it up. 0 or the callback's result.
int report_shared(listing *ls, const char *folder)
{
    if (mboxname_userownsmailbox(ls->userid, folder)) return 0;
    char name[FIND_NAME_SIZE];
    int info;
    size_t prefixlen;
    if (shared_name(folder, ls->view, name, &info, &prefixlen)) return 0;
    int len = matcher_test(&ls->match, name);
    if (len <= 0) return 0;
    if ((ls->flags & MBOXLIST_FIND_NOIMPLICIT) && (size_t)len < prefixlen) return 0;
    if (is_repeat(&ls->last, name, len)) return 0;
    // The ACL decides, not the list: a stale list gives no access.
    char *row;
    if (mboxlist_lookup_data(folder, &row, nullptr) != 0) return 0;
    int rights = acl_myrights(ls->auth, mboxlist_acl(row));
    int r = 0;
    if (rights & ACL_LOOKUP) {
        int implicit = (size_t)len < strlen(name);
        if (implicit)
            info = CHILD_SOME;
        else if ((ls->flags & MBOXLIST_FIND_CHILDINFO) && info == CHILD_UNKNOWN)
            info = mboxlist_getchildinfo(folder, rights);
        remember(&ls->last, name, len);
        r = ls->callback(name, len, info, implicit ? nullptr : row, ls->rock);
    }
    free(row);
    return r;
}

// The shared stage. 0, the callback's result, or a failure.
int shared_stage(listing *ls, const char *pattern)
{
    config_cache *config = config_getdefaultcache();
    const char *prefix = mboxname_prefix(1, ls->view);
    int implicit = !(ls->flags & MBOXLIST_FIND_NOIMPLICIT);
    if (implicit && config_get_string(config, "local.service.proxy.serverlist", nullptr)) {
        // A pattern that stops above the prefix ("*", "Shared%") gets the
        // prefix itself and no more.
        int len = matcher_test(&ls->match, prefix);
        if (len > 0 && (size_t)len < strlen(prefix))
            return ls->callback(prefix, len, CHILD_SOME, nullptr, ls->rock);
    }
    if (implicit && auth_isSiteorTenantAdmin(ls->auth) &&
        config_get_switch(config, "local.store.listimplicit", 0))
        return mboxlist_findall(pattern, (ls->flags & MBOXLIST_FIND_CHILDINFO) | MBOXLIST_FIND_ALLUSERS,
                                ls->view, nullptr, ls->auth, ls->callback, ls->rock);

    char **list;
    int count = mboxlist_findall_getshared(ls->auth, &list);
    if (count < 0) return count;
    memset(&ls->last, 0, sizeof ls->last);
    int r = 0;
    for (int i = 0; i < count && r == 0; i++) r = report_shared(ls, list[i]);
    for (int i = 0; i < count; i++) free(list[i]);
    free(list);
    return r;
}

int compare_strings(const void *a, const void *b)
{
    return strcmp(*(const char *const *)a, *(const char *const *)b);
}

// Reports one subscription row of userid (the folder behind the key's
// first NUL). 0, the callback's result, or a failure to read the folder.
int report_sub(listing *ls, const char *folder)
{
    int owned = mboxname_userownsmailbox(ls->userid, folder);
    char name[FIND_NAME_SIZE];
    int info = CHILD_UNKNOWN;
    if (owned) {
        const char *rel = mboxname_mailbox(folder);
        if (!rel) info = CHILD_NOINFERIORS;
        strlcpy(name, rel ? rel : "INBOX", sizeof name);
    } else {
        size_t prefixlen;
        if (shared_name(folder, ls->view, name, &info, &prefixlen)) return 0;
    }
    int len = matcher_test(&ls->match, name);
    if (len <= 0 || is_repeat(&ls->last, name, len)) return 0;
    if ((size_t)len < strlen(name)) info = CHILD_SOME;

    char *row;
    int r = mboxlist_lookup_data(folder, &row, nullptr);
    if (r == IMAP_MAILBOX_NONEXISTENT) {
        // An own folder that is gone is no news to its owner; one of others
        // is reported, since the subscription outlives the folder.
        if (owned && ls->auth) return 0;
        remember(&ls->last, name, len);
        return ls->callback(name, len, info == CHILD_UNKNOWN ? CHILD_NOINFERIORS : info, nullptr,
                            ls->rock);
    }
    if (r) return r;
    int rights = owned ? ACL_CREATE : ACL_ALL;
    if (!owned && ls->auth) {
        rights = acl_myrights(ls->auth, mboxlist_acl(row));
        if (!(rights & ACL_LOOKUP)) {
            free(row);
            return 0;
        }
    }
    if ((ls->flags & MBOXLIST_FIND_CHILDINFO) && info == CHILD_UNKNOWN)
        info = mboxlist_getchildinfo(folder, rights);
    int implicit = (size_t)len < strlen(name);
    remember(&ls->last, name, len);
    r = ls->callback(name, len, info, implicit ? nullptr : row, ls->rock);
    free(row);
    return r;
}

}  // namespace

const char *regexpstart(const char *text, int regex)
{
    return strpbrk(text, regex ? "*%.\\+?|^$([{" : "*%");
}

int mboxlist_findall_type(const char *pattern)
{
    // Through "Shared Folders/": the kind of shared folder comes behind.
    static const char shared[] = "Shared Folders/User/";
    if (!pattern) return 0;
    for (int i = 0; i < 15; i++) {
        char c = pattern[i];
        if (c == '*' || c == '%') return 0;
        if (c != shared[i]) return MBOXLIST_FIND_NOSHARED;  // also the end of the pattern
    }
    return MBOXLIST_FIND_NOFIRST;
}

int mboxlist_findall_getshared(const struct auth_state *auth, char ***list)
{
    *list = nullptr;
    int r = mboxlist_init();
    if (r) return r;
    DB *db = mboxlist_db(MBOXLIST_LRIGHTDB);
    if (!db || auth == auth_dontCheckAcl) return 0;
    size_t room = 100, count = 0;
    char **names = (char **)xmalloc(room * sizeof *names);
    for (const char *const *id = auth_getgroups(auth); id && *id; id++) {
        DBT key, data;
        mboxlist_set_key(*id, &key);
        memset(&data, 0, sizeof data);
        data.flags = DB_DBT_MALLOC;
        do {
            r = db->get(db, nullptr, &key, &data, 0);
        } while (r == DB_LOCK_DEADLOCK);
        if (r == DB_NOTFOUND || r == DB_KEYEMPTY) continue;
        if (r) {
            svclog(nullptr, 59, "Unable to read lright entry of %s: %s", *id, db_strerror(r));
            for (size_t i = 0; i < count; i++) free(names[i]);
            free(names);
            return IMAP_IOERROR;
        }
        // A run of names, each with its NUL.
        const char *p = (const char *)data.data, *end = p + data.size;
        while (p < end) {
            size_t len = strnlen(p, (size_t)(end - p));
            if (len > 0) {
                if (count == room) names = (char **)xrealloc(names, (room *= 2) * sizeof *names);
                names[count++] = xstrndup(p, len);
            }
            p += len + 1;
        }
        free(data.data);
    }
    if (count == 0) {
        free(names);
        return 0;
    }
    qsort(names, count, sizeof *names, compare_strings);
    *list = names;
    return (int)count;
}

int mboxlist_getchildinfo(const char *name, int rights)
{
    char key[FIND_KEY_SIZE];
    if (strlen(name) < sizeof key && mboxlist_init() == 0) {
        strlcpy(key, name, sizeof key);
        if (fetch(key, nullptr, 1) == 0 && is_child(key, name)) return CHILD_SOME;
    }
    return (rights & ACL_CREATE) ? CHILD_NONE : CHILD_NOINFERIORS;
}

int mboxlist_findall(const char *pattern, int flags, int prefix_view, const char *userid,
                     const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock)
{
    if (flags & MBOXLIST_FIND_DISK) return IMAP_MAILBOX_NOTSUPPORTED;
    int r = mboxlist_init();
    if (r) return r;
    // An id is one component of a name.
    if (userid && (!*userid || strchr(userid, '/') || strlen(userid) >= MBOXNAME_OWNER_SIZE))
        return 0;
    listing ls;
    memset(&ls, 0, sizeof ls);
    int regex = (flags & MBOXLIST_FIND_REGEX) != 0;
    if (matcher_init(&ls.match, pattern, regex)) return 0;
    if (userid) {
        // The listing of a user never walks other users' trees.
        flags &= ~MBOXLIST_FIND_ALLUSERS;
        if (!regex) flags |= mboxlist_findall_type(pattern);
    }
    listing_set(&ls, flags, prefix_view, userid, auth, callback, rock);

    if (!(flags & MBOXLIST_FIND_NOFIRST)) r = first_stage(&ls, pattern);
    if (r == 0 && userid && prefix_view != -1 && auth && !(flags & MBOXLIST_FIND_NOSHARED) &&
        !regex && config_get_switch(config_getdefaultcache(), "local.store.sharedfolders", 1))
        r = shared_stage(&ls, pattern);
    matcher_free(&ls.match);
    return r;
}

int mboxlist_findall_plus(const char *pattern, int flags, int prefix_view, const char *userid,
                          const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock,
                          int recovery_mode)
{
    if (!userid || !*userid) return -1;
    if (recovery_mode == 0) recovery_mode = mboxlist_listrecover_mode();
    // Listing from the disk, and the test whether a user's rows need a
    // repair from it, belong to a rebuild this store doesn't have: refuse
    // rather than give a listing that may be short.
    if (recovery_mode >= 2 && recovery_mode <= 6) return IMAP_MAILBOX_NOTSUPPORTED;
    return mboxlist_findall(pattern, flags, prefix_view, userid, auth, callback, rock);
}

int mboxlist_findsub(const char *pattern, int flags, int prefix_view, const char *userid,
                     const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock)
{
    if (!userid || strchr(userid, '/')) return 0;
    size_t idsize = strlen(userid) + 1;
    if (idsize + 2 > FIND_KEY_SIZE) return 0;
    int r = mboxlist_init();
    if (r) return r;
    DB *db = mboxlist_db(MBOXLIST_SUBSDB);
    if (!db) return IMAP_MAILBOXLIST_NONEXISTENT;
    mboxlist_maybeRecoverSubsFromFile(userid);

    listing ls;
    memset(&ls, 0, sizeof ls);
    matcher_init(&ls.match, pattern, 0);
    listing_set(&ls, flags, prefix_view, userid, auth, callback, rock);

    DBC *cursor;
    r = db->cursor(db, nullptr, &cursor, 0);
    if (r == 0) {
        // From the user's change row on: the user's rows stand together.
        char key[FIND_KEY_SIZE];
        memcpy(key, userid, idsize);
        DBT k, d;
        char none;
        memset(&k, 0, sizeof k);
        memset(&d, 0, sizeof d);
        k.data = key;
        k.size = (uint32_t)idsize;
        k.ulen = FIND_KEY_SIZE - 1;
        k.flags = DB_DBT_USERMEM;
        d.data = &none;
        d.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        r = cursor->c_get(cursor, &k, &d, DB_SET_RANGE);
        while (r == 0 && k.size >= idsize && memcmp(key, userid, idsize) == 0) {
            key[k.size] = '\0';
            // The change row has no second string.
            if (k.size > idsize && key[idsize]) r = report_sub(&ls, key + idsize);
            if (r == 0) r = cursor->c_get(cursor, &k, &d, DB_NEXT);
        }
        cursor->c_close(cursor);
    }
    matcher_free(&ls.match);
    return (r == DB_NOTFOUND || r == DB_KEYEMPTY) ? 0 : r;
}

int mbox_count(const char *, int, int, const char *, void *rock)
{
    (*(int *)rock)++;
    return 0;
}

int mboxlist_count_folders(const char *userid, int *count)
{
    *count = 0;
    return mboxlist_findall("*", MBOXLIST_FIND_NOSHARED, -1, userid, auth_dontCheckAcl, mbox_count,
                            count);
}

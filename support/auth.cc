// Identity and rights; see auth.h.
#include "support/auth.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "support/config.h"
#include "support/xmalloc.h"

struct auth_state {
    int sentinel;        // 1 only for auth_dontCheckAcl
    char *userid;        // canonical user id
    char *domain;        // domain of the user id ("" for none)
    int adminlevel;      // AUTH_ADMIN_*
    char **names;        // user id, groups, "anyone", null
};

static const char *const anyone_only[] = {"anyone", nullptr};

static struct auth_state dontcheck_state = {1, nullptr, nullptr, AUTH_ADMIN_SITE,
                                            (char **)anyone_only};
struct auth_state *const auth_dontCheckAcl = &dontcheck_state;

// ---------------------------------------------------------------- identifiers

char *auth_canonifyid(const char *identifier, char *buf)
{
    if (!identifier || !buf) return nullptr;
    size_t len = strlen(identifier);
    if (len == 0 || len >= AUTH_MAXIDENTIFIER || identifier[0] == '-') return nullptr;
    for (size_t i = 0; i < len; i++) {
        unsigned char c = (unsigned char)identifier[i];
        if (c <= 0x20 || c >= 0x7F) return nullptr;
    }
    memcpy(buf, identifier, len + 1);
    char *at = strrchr(buf, '@');
    if (at) {
        if (at == buf || at[1] == '\0') return nullptr;  // "@x" and "x@" name nobody
        const char *defdomain = config_get_string(nullptr, "service.defaultdomain", nullptr);
        if (defdomain && *defdomain && strcasecmp(defdomain, at + 1) == 0) {
            *at = '\0';
        } else {
            for (char *p = at + 1; *p; p++)
                if (*p >= 'A' && *p <= 'Z') *p = (char)(*p - 'A' + 'a');
        }
    }
    return buf;
}

// The domain of a canonical id: behind its last "@", else the default
// domain, else "".
static const char *id_domain(const char *id)
{
    const char *at = strrchr(id, '@');
    if (at) return at + 1;
    const char *defdomain = config_get_string(nullptr, "service.defaultdomain", nullptr);
    return defdomain ? defdomain : "";
}

// ---------------------------------------------------------------- states

struct auth_state *auth_newstate(const char *userid, const char *const *groups,
                                 int adminlevel)
{
    char canon[AUTH_MAXIDENTIFIER];
    if (!auth_canonifyid(userid, canon)) return nullptr;
    if (adminlevel < AUTH_ADMIN_NONE || adminlevel > AUTH_ADMIN_SITE) return nullptr;

    size_t ngroups = 0;
    if (groups)
        while (groups[ngroups]) ngroups++;

    struct auth_state *st = (struct auth_state *)xcalloc(1, sizeof *st);
    st->userid = xstrdup(canon);
    st->adminlevel = adminlevel;
    const char *dom = id_domain(canon);
    st->domain = xstrdup(dom);
    for (char *p = st->domain; *p; p++)
        if (*p >= 'A' && *p <= 'Z') *p = (char)(*p - 'A' + 'a');

    st->names = (char **)xcalloc(ngroups + 3, sizeof(char *));
    size_t n = 0;
    st->names[n++] = xstrdup(canon);
    for (size_t i = 0; i < ngroups; i++) {
        char g[AUTH_MAXIDENTIFIER];
        if (!auth_canonifyid(groups[i], g)) continue;
        int dup = 0;
        for (size_t j = 0; j < n; j++)
            if (strcmp(st->names[j], g) == 0) dup = 1;
        if (!dup && strcmp(g, "anyone") != 0) st->names[n++] = xstrdup(g);
    }
    st->names[n++] = xstrdup("anyone");
    st->names[n] = nullptr;
    return st;
}

void auth_freestate(struct auth_state *state)
{
    if (!state || state->sentinel) return;
    for (char **p = state->names; p && *p; p++) free(*p);
    free(state->names);
    free(state->userid);
    free(state->domain);
    free(state);
}

const char *auth_userid(const struct auth_state *state)
{
    if (!state || state->sentinel) return nullptr;
    return state->userid;
}

int auth_adminFor(const struct auth_state *state, const char *owner)
{
    if (!state) return AUTH_ADMIN_NONE;
    if (!owner) return state->adminlevel;
    if (state->adminlevel >= AUTH_ADMIN_SITE) return AUTH_ADMIN_SITE;
    if (state->adminlevel == AUTH_ADMIN_TENANT) {
        char canon[AUTH_MAXIDENTIFIER];
        if (!auth_canonifyid(owner, canon)) return AUTH_ADMIN_NONE;
        if (strcasecmp(id_domain(canon), state->domain) == 0) return AUTH_ADMIN_TENANT;
    }
    return AUTH_ADMIN_NONE;
}

int auth_isSiteorTenantAdmin(const struct auth_state *state)
{
    return state && state->adminlevel >= AUTH_ADMIN_TENANT;
}

const char *const *auth_getgroups(const struct auth_state *state)
{
    if (!state) return anyone_only;
    return (const char *const *)state->names;
}

// ---------------------------------------------------------------- rights texts

int acl_strtomask(const char *rights)
{
    if (!rights) return 0;
    if (strcasecmp(rights, "all") == 0) return ACL_ALL;
    if (strcasecmp(rights, "none") == 0) return 0;
    int mask = 0;
    for (const char *p = rights; *p; p++) {
        const char *l = strchr(ACL_LETTERS, *p);
        if (l && *p) mask |= 1 << (l - ACL_LETTERS);
    }
    return mask;
}

char *acl_masktostr(int mask, char *buf)
{
    size_t n = 0;
    for (int i = 0; ACL_LETTERS[i]; i++)
        if (mask & (1 << i)) buf[n++] = ACL_LETTERS[i];
    buf[n] = '\0';
    return buf;
}

// ---------------------------------------------------------------- ACL walks

// One entry of an ACL text.
struct acl_entry {
    const char *id;      // identifier (with "-" of a negative entry)
    size_t idlen;
    const char *rights;  // rights letters
    size_t rightslen;
    const char *next;    // start of the next entry
};

// Reads the entry at p; 0 at the end of the text or at an entry without
// its TAB, which ends every walk.
static int acl_next(const char *p, struct acl_entry *e)
{
    if (!p || !*p) return 0;
    const char *tab = strchr(p, '\t');
    if (!tab) return 0;
    e->id = p;
    e->idlen = (size_t)(tab - p);
    e->rights = tab + 1;
    const char *end = strchr(e->rights, '\t');
    if (end) {
        e->rightslen = (size_t)(end - e->rights);
        e->next = end + 1;
    } else {
        e->rightslen = strlen(e->rights);
        e->next = e->rights + e->rightslen;
    }
    return 1;
}

static int entry_mask(const struct acl_entry *e)
{
    char buf[64];
    size_t n = e->rightslen < sizeof buf - 1 ? e->rightslen : sizeof buf - 1;
    memcpy(buf, e->rights, n);
    buf[n] = '\0';
    return acl_strtomask(buf);
}

// The canonical identifier of an entry, with "-" kept for a negative entry,
// into buf (AUTH_MAXIDENTIFIER + 1 bytes); null if it is invalid.
static char *entry_canon(const struct acl_entry *e, char *buf)
{
    char raw[AUTH_MAXIDENTIFIER + 1];
    if (e->idlen == 0 || e->idlen > AUTH_MAXIDENTIFIER) return nullptr;
    memcpy(raw, e->id, e->idlen);
    raw[e->idlen] = '\0';
    int neg = raw[0] == '-';
    if (neg) buf[0] = '-';
    if (!auth_canonifyid(raw + neg, buf + neg)) return nullptr;
    return buf;
}

int acl_myrights(const struct auth_state *state, const char *acl)
{
    if (state && (state->sentinel || state->adminlevel >= AUTH_ADMIN_SITE)) return ACL_ALL;
    if (!acl) return 0;
    const char *const *names = auth_getgroups(state);
    int have = 0, denied = 0;
    struct acl_entry e;
    for (const char *p = acl; acl_next(p, &e); p = e.next) {
        char canon[AUTH_MAXIDENTIFIER + 1];
        if (!entry_canon(&e, canon)) continue;
        int neg = canon[0] == '-';
        for (const char *const *n = names; *n; n++) {
            if (strcmp(*n, canon + neg) == 0) {
                if (neg)
                    denied |= entry_mask(&e);
                else
                    have |= entry_mask(&e);
                break;
            }
        }
    }
    return have & ~denied & ACL_ALL;
}

// Appends "id TAB rights TAB" to the text being built.
static void put_entry(char **out, size_t *len, size_t *cap, const char *id, size_t idlen,
                      const char *rights, size_t rightslen)
{
    size_t need = *len + idlen + rightslen + 3;
    if (need > *cap) {
        *cap = need * 2;
        *out = (char *)xrealloc(*out, *cap);
    }
    memcpy(*out + *len, id, idlen);
    *len += idlen;
    (*out)[(*len)++] = '\t';
    memcpy(*out + *len, rights, rightslen);
    *len += rightslen;
    (*out)[(*len)++] = '\t';
    (*out)[*len] = '\0';
}

// The common work of acl_modify and acl_remove: rewrites *acl with the
// entry of identifier changed by mode and mask (mode -1: removed).
static int acl_change(char **acl, const char *identifier, int mode, int mask,
                      acl_canonproc_t *canonproc, void *rock)
{
    if (!acl || !identifier) return -1;
    if (mode < -1 || mode > ACL_MODE_REMOVE) return -1;
    char target[AUTH_MAXIDENTIFIER + 1];
    int neg = identifier[0] == '-';
    if (neg) target[0] = '-';
    if (!auth_canonifyid(identifier + neg, target + neg)) return -1;
    size_t targetlen = strlen(target);

    const char *old = *acl ? *acl : "";
    size_t cap = strlen(old) + targetlen + ACL_MAXRIGHTS + 4;
    char *out = (char *)xmalloc(cap);
    size_t len = 0;
    out[0] = '\0';

    int found = 0, oldmask = 0;
    size_t at = 0;  // where the entry stood, or goes
    struct acl_entry e;
    for (const char *p = old; acl_next(p, &e); p = e.next) {
        char canon[AUTH_MAXIDENTIFIER + 1];
        if (entry_canon(&e, canon) && strcmp(canon, target) == 0) {
            if (!found) at = len;
            found = 1;
            oldmask |= entry_mask(&e);
            continue;
        }
        put_entry(&out, &len, &cap, e.id, e.idlen, e.rights, e.rightslen);
    }
    if (!found) at = len;

    int newmask;
    switch (mode) {
    case ACL_MODE_SET: newmask = mask; break;
    case ACL_MODE_ADD: newmask = oldmask | mask; break;
    case ACL_MODE_REMOVE: newmask = oldmask & ~mask; break;
    default: newmask = 0; break;  // removal
    }
    newmask &= ACL_ALL;
    if (canonproc) newmask = canonproc(rock, target, newmask) & ACL_ALL;

    if (newmask) {
        char letters[ACL_MAXRIGHTS];
        acl_masktostr(newmask, letters);
        // Build the entry at the end, then rotate it into its place.
        size_t before = len;
        put_entry(&out, &len, &cap, target, targetlen, letters, strlen(letters));
        size_t elen = len - before;
        if (at < before) {
            char *tmp = (char *)xmalloc(elen);
            memcpy(tmp, out + before, elen);
            memmove(out + at + elen, out + at, before - at);
            memcpy(out + at, tmp, elen);
            free(tmp);
        }
    }
    free(*acl);
    *acl = out;
    return 0;
}

int acl_modify(char **acl, const char *identifier, int mode, int mask,
               acl_canonproc_t *canonproc, void *rock)
{
    if (mode < ACL_MODE_SET || mode > ACL_MODE_REMOVE) return -1;
    return acl_change(acl, identifier, mode, mask, canonproc, rock);
}

int acl_remove(char **acl, const char *identifier, acl_canonproc_t *canonproc, void *rock)
{
    return acl_change(acl, identifier, -1, 0, canonproc, rock);
}

int acl_isshared(const char *acl, const char *owner)
{
    if (!acl) return 0;
    char ownercanon[AUTH_MAXIDENTIFIER];
    const char *own = owner ? auth_canonifyid(owner, ownercanon) : nullptr;
    struct acl_entry e;
    for (const char *p = acl; acl_next(p, &e); p = e.next) {
        char canon[AUTH_MAXIDENTIFIER + 1];
        if (!entry_canon(&e, canon) || canon[0] == '-') continue;
        if (own && strcmp(canon, own) == 0) continue;
        if (entry_mask(&e) & ACL_LOOKUP) return 1;
    }
    return 0;
}

int acl_lookup_right(const char *identifier, const char *acl)
{
    if (!identifier || !acl) return 0;
    size_t n = strlen(identifier);
    struct acl_entry e;
    for (const char *p = acl; acl_next(p, &e); p = e.next)
        if (e.idlen == n && memcmp(e.id, identifier, n) == 0 && (entry_mask(&e) & ACL_LOOKUP))
            return 1;
    return 0;
}

int acl_foreach_lookup(const char *acl, acl_lookupproc_t *proc, void *rock)
{
    if (!acl) return 0;
    struct acl_entry e;
    for (const char *p = acl; acl_next(p, &e); p = e.next) {
        if (e.idlen == 0 || e.idlen > AUTH_MAXIDENTIFIER || e.id[0] == '-') continue;
        if (!(entry_mask(&e) & ACL_LOOKUP)) continue;
        char id[AUTH_MAXIDENTIFIER + 1];
        memcpy(id, e.id, e.idlen);
        id[e.idlen] = '\0';
        int r = proc(id, rock);
        if (r) return r;
    }
    return 0;
}

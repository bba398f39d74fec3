// Users from the directory: the pool and the domain map, a user's
// attributes, quota texts, mail host checks, and the creation of a user's
// inbox on first use. The messages the store writes itself are in
// autocreate_message.cc.
#include "store/autocreate.h"

#include <ctype.h>
#include <errno.h>
#include <netdb.h>
#include <prinit.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "store/append.h"
#include "store/imap_err.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_quota.h"
#include "store/mboxname.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/log.h"
#include "support/osl.h"
#include "support/strutil.h"
#include "support/xmalloc.h"

LdPoolCtx *ugldappool = nullptr;
domain_map *dmap = nullptr;

const char *store_ldapattrs[USERATTR_COUNT + 1] = {
    "mailhost",    "mailmessagestore", "preferredlanguage", "mail", "mailquota",
    "mailmsgquota", "mailuserstatus",   "aclGroupAddr",      nullptr};

namespace {

// Longest user id that is looked up in the directory.
const size_t kMaxUserId = 128;
// Longest language that names a language option of an attribute.
const size_t kMaxAttrLang = 9;

PRCallOnceType init_once;
PRCallOnceType append_once;

void domainmap_debug_routine(const char *fmt, va_list ap) { svclogv(nullptr, 7, fmt, ap); }

// Fills the domain map's parameters from "option.dat"; strings the file
// doesn't have keep their defaults.
void read_options(struct dmap_params *params) {
    optfile *opt = optfile_read(configmsg_getconfigroot(), "option.dat", svclog_getdefault(), 0,
                                0, 0, 0, 0);
    params->schema_level = optfile_int(opt, "LDAP_SCHEMALEVEL", 1);
    params->timeout_ms = optfile_int(opt, "LDAP_TIMEOUT", 6000);
    static const struct {
        const char *key;
        char *dmap_params::*field;
    } strings[] = {
        {"LDAP_DOMAIN_FILTER_SCHEMA1", &dmap_params::domain_filter_schema1},
        {"LDAP_DOMAIN_FILTER_SCHEMA2", &dmap_params::domain_filter_schema2},
        {"LDAP_ATTR_DOMAIN1_SCHEMA2", &dmap_params::attr_domain1_schema2},
        {"LDAP_ATTR_DOMAIN2_SCHEMA2", &dmap_params::attr_domain2_schema2},
        {"LDAP_GLOBAL_CONFIG_TEMPLATES", &dmap_params::global_config_templates},
        {"LDAP_ATTR_DOMAIN_SEARCH_FILTER", &dmap_params::domain_search_filter},
        {"LDAP_DOMAIN_ATTR_BASEDN", &dmap_params::domain_attr_basedn},
        {"LDAP_DOMAIN_ATTR_CANONICAL", &dmap_params::domain_attr_canonical},
        {"LDAP_DOMAIN_ATTR_ALIAS", &dmap_params::domain_attr_alias},
    };
    for (const auto &s : strings) {
        const char *v = optfile_get(opt, s.key, nullptr);
        if (v) dmap_set_parameter(&(params->*s.field), v);
    }
    if (opt) optfile_dispose(opt);
}

PRStatus autocreate_initactual() {
    atexit(autocreate_exit);
    config_cache *c = config_getdefaultcache();
    const char *host = config_get_string(c, "local.ugldaphost", nullptr);
    if (!host || !*host) {
        // A store without a directory: no user is provisioned.
        svclog(nullptr, 7, "no directory configured (local.ugldaphost): users are not provisioned");
        return PR_SUCCESS;
    }
    char *certdir = nullptr;
    if (config_get_switch(c, "local.ugldapusessl", 0)) {
        const char *inst = config_get_string(c, "local.instancedir", "");
        size_t n = strlen(inst) + sizeof("/config");
        certdir = (char *)xmalloc(n);
        snprintf(certdir, n, "%s/config", inst);
    }
    LdPoolCtx *pool = nullptr;
    int r = LdPoolCtx_New(config_get_string(c, "local.ugldapbinddn", nullptr),
                          config_get_string(c, "local.ugldapbindcred", nullptr), host,
                          config_get_string(c, "local.ugldapbasedn", nullptr), certdir,
                          config_get_int(c, "local.ugldapport", 389), 1, 1024, -1, -1, -1, 3, 3,
                          0, &pool);
    free(certdir);
    if (r) {
        svclog(nullptr, 3, "Cannot initialize Users & Groups LDAP pool: %s", ldap_err2string(r));
        return PR_FAILURE;
    }
    ugldappool = pool;

    struct dmap_params *params = dmap_initialize_parameters();
    params->pool = ugldappool;
    dmap_set_parameter(&params->root, config_get_string(c, "service.dcroot", nullptr));
    read_options(params);
    params->debug_level = config_get_int(c, "local.domainmap.debuglevel", 0);
    params->debug = domainmap_debug_routine;
    dmap = dmap_initialize_domain_map(params, 0);
    dmap_free_parameters(params);
    if (!dmap) {
        svclog(nullptr, 3, "Cannot initialize domain map");
        return PR_FAILURE;
    }
    return PR_SUCCESS;
}

PRStatus append_init_once() {
    append_init();
    return PR_SUCCESS;
}

// The slots of a new attribute block of n slots, all null.
userattr_block block_new(int n) {
    // The count stands in a word of its own in front of the slots.
    char ***base = (char ***)xcalloc((size_t)n + 1, sizeof(char **));
    *(int16_t *)base = (int16_t)n;
    return base + 1;
}

int block_size(userattr_block attrs) { return *(int16_t *)(attrs - 1); }

const char *first_value(char **values) { return values && values[0] ? values[0] : nullptr; }

}  // namespace

int autocreate_have_directory(void) {
    const char *host = config_get_string(config_getdefaultcache(), "local.ugldaphost", nullptr);
    return host && *host;
}

int autocreate_init(LdPoolCtx *pool, domain_map *map) {
    if (!ugldappool || !dmap) {
        if (pool && map) {
            ugldappool = pool;
            dmap = map;
        } else {
            PR_CallOnce(&init_once, autocreate_initactual);
        }
    }
    PR_CallOnce(&append_once, append_init_once);
    if (!autocreate_have_directory() && !(pool && map)) return 0;
    return !ugldappool || !dmap;
}

void autocreate_exit(void) {
    if (dmap) dmap_dispose_domain_map(dmap, 0);
    dmap = nullptr;
    if (ugldappool) LdPoolCtx_Delete(ugldappool);
    ugldappool = nullptr;
}

int userattr_get(const char *userid, userattr_block *attrs, char **dn) {
    return userattr_get_attrs(userid, attrs, store_ldapattrs, dn);
}

int userattr_get_attrs(const char *userid, userattr_block *attrs, const char **attrlist,
                       char **dn) {
    if (attrs) *attrs = nullptr;
    if (dn) *dn = nullptr;
    const char *defdomain = config_get_string(config_getdefaultcache(), "service.defaultdomain",
                                              nullptr);
    if (autocreate_init(nullptr, nullptr) != 0 || !ugldappool || !dmap) return IMAP_CONFIG_ERROR;
    size_t idlen = strlen(userid);
    if (idlen > kMaxUserId) {
        svclog(nullptr, 7, "user id too long for the directory: %.40s...", userid);
        return LDAP_NO_SUCH_OBJECT;
    }
    const char *at = strrchr(userid, '@');
    const char *domain;
    struct berval uid;
    char separator = 0;
    dmap_domain *dom = nullptr;
    int r;
    if (at && !(defdomain && strcmp(at + 1, defdomain) == 0)) {
        domain = at + 1;
        r = dmap_locate_domain(dmap, domain, &dom);
        if (r) {
            svclog(nullptr, 7, "dmap_get_values failed for domain %s: %d", domain, r);
            return LDAP_NO_SUCH_OBJECT;
        }
        char **sep = nullptr;
        if (dmap_get_values(dom, "domainUidSeparator", &sep, 1, 0) == 0 && sep && sep[0] &&
            sep[0][0])
            separator = sep[0][0];
        if (sep) ldap_value_free(sep);
        uid.bv_val = const_cast<char *>(userid);
        uid.bv_len = (ber_len_t)(at - userid);
    } else {
        domain = defdomain ? defdomain : "";
        uid.bv_val = const_cast<char *>(userid);
        uid.bv_len = (ber_len_t)idlen;
        r = dmap_locate_domain(dmap, domain, &dom);
        if (r) {
            svclog(nullptr, 7, "dmap_locate_domain failed for domain %s: %d", domain, r);
            return r;
        }
    }

    // The id goes into the filter escaped: a "*" or ")" in a user id must
    // not widen the search.
    struct berval escaped = {0, nullptr};
    char filter[3 * (kMaxUserId + 256) + 16];
    LDAPMessage *res = nullptr;
    const char *base = dmap_get_base_dn(dom, 0);
    if (ldap_bv2escaped_filter_value(&uid, &escaped) != 0) {
        r = LDAP_NO_MEMORY;
    } else if (!base) {
        svclog(nullptr, 7, "get_basedn failed for domain %s: %d", domain, LDAP_NO_SUCH_OBJECT);
        r = LDAP_NO_SUCH_OBJECT;
    } else {
        if (separator)
            snprintf(filter, sizeof(filter), "uid=%s%c%s", escaped.bv_val, separator, domain);
        else
            snprintf(filter, sizeof(filter), "uid=%s", escaped.bv_val);
        r = LdPool_Search_S(ugldappool, base, LDAP_SCOPE_SUBTREE, filter,
                            const_cast<char **>(attrlist), 0, &res);
        if (r) svclog(nullptr, 7, "ldap_search failed for userid %s under %s: %s", userid, base,
                      ldap_err2string(r));
    }
    ber_memfree(escaped.bv_val);
    int count = 0;
    if (!r) {
        LdPool_Count_Entries(res, &count);
        if (count > 1) {
            svclog(nullptr, 7, "Multiple ldap entries for userid %s under %s", userid, base);
            r = LDAP_NO_SUCH_OBJECT;
        } else if (count == 0) {
            r = LDAP_NO_SUCH_OBJECT;
        }
    }
    if (!r) {
        LDAPMessage *entry = nullptr;
        LdPool_First_Entry(res, &entry);
        if (attrs) {
            int n = 0;
            while (attrlist[n]) n++;
            userattr_block block = block_new(n);
            for (int i = 0; i < n; i++) LdPool_Get_Values(entry, attrlist[i], &block[i]);
            *attrs = block;
        }
        if (dn) LdPool_Get_DN(entry, dn);
    }
    dmap_release_domain(dom, 0);
    if (res) ldap_msgfree(res);
    return r;
}

void userattr_free(userattr_block attrs, char *dn) {
    if (attrs) {
        int n = block_size(attrs);
        for (int i = 0; i < n; i++)
            if (attrs[i]) ldap_value_free(attrs[i]);
        free(attrs - 1);
    }
    if (dn) ldap_memfree(dn);
}

const char *userattr_first(userattr_block attrs, int i) {
    if (!attrs || i < 0 || i >= block_size(attrs)) return nullptr;
    return first_value(attrs[i]);
}

char *userattr_pref_lang(userattr_block attrs) {
    const char *v = userattr_first(attrs, USERATTR_LANGUAGE);
    return v ? lcase(xstrdup(v)) : nullptr;
}

uint32_t quota_to_kb(const char *text) {
    char *copy = nullptr;
    const char *t = text;
    uint32_t value = 0xFFFFFFFE;
    char *end = nullptr;
    for (int round = 0; round < 2; round++) {
        while (t && isspace((unsigned char)*t)) t++;
        value = 0xFFFFFFFE;
        if (t && *t) value = (uint32_t)strtoul(t, &end, 10);
        if (value != 0xFFFFFFFE || round == 1) break;
        // No value of its own: the configured default, read the same way.
        copy = config_get_stringcopy(config_getdefaultcache(), "store.defaultmailboxquota", "-1");
        t = copy;
    }
    uint32_t kb = 0xFFFFFFFF;
    if (value != 0xFFFFFFFF && value != 0xFFFFFFFE) {
        const char *p = end;
        // A unit with no digits ("M") is no number: a bad value is no
        // limit, never a limit of 0.
        int ok = end != t;
        if (ok) {
            switch (*p) {
            case '\0': kb = (uint32_t)(((uint64_t)value + 1023) / 1024); break;
            case 'K': case 'k': kb = value; p++; break;
            case 'M': case 'm': kb = value * 1024u; p++; break;
            case 'G': case 'g': kb = value * 1024u * 1024u; p++; break;
            default: ok = 0;
            }
        }
        if (ok && p != end && (*p == 'b' || *p == 'B')) p++;
        if (!ok || *p) {
            svclog(nullptr, 60, "Invalid mailquota value: %s", t);
            kb = 0xFFFFFFFF;
        }
    }
    free(copy);
    return kb;
}

void quotas_from_attrs(userattr_block attrs, uint32_t *limit, uint32_t *limit_messages) {
    const char *q = userattr_first(attrs, USERATTR_MAILQUOTA);
    *limit = quota_to_kb(q && *q ? q : nullptr);
    const char *m = userattr_first(attrs, USERATTR_MSGQUOTA);
    uint32_t messages = 0xFFFFFFFE;
    if (m && *m) messages = (uint32_t)strtoul(m, nullptr, 10);
    if (messages == 0xFFFFFFFE)
        messages = (uint32_t)config_get_int(config_getdefaultcache(), "store.defaultmessagequota", -1);
    *limit_messages = messages;
}

int update_userquota(const char *userid, userattr_block attrs) {
    char inbox[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, userid, inbox);
    uint32_t limit, limit_messages;
    quotas_from_attrs(attrs, &limit, &limit_messages);
    struct quotadata q;
    if (mboxlist_getquotaroot(inbox, &q, nullptr) != 0) return IMAP_MAILBOX_NONEXISTENT;
    if (limit != q.limit || limit_messages != q.limit_messages)
        mboxlist_setquota(inbox, limit, limit_messages);
    return 0;
}

int islocalhost(const char *host) {
    static const char *const keys[] = {"local.hostname", "local.relay.hostnamealiases"};
    for (const char *key : keys) {
        const char *list = config_get_string(config_getdefaultcache(), key, nullptr);
        if (!list) continue;
        size_t hlen = strlen(host);
        for (const char *p = list;;) {
            const char *comma = strchr(p, ',');
            size_t n = comma ? (size_t)(comma - p) : strlen(p);
            if (n == hlen && strncasecmp(p, host, n) == 0) return 1;
            if (!comma) break;
            p = comma + 1;
        }
    }
    return 0;
}

int compare_mailhosts(const char *a, const char *b) {
    if (strcasecmp(a, b) == 0) return 0;
    const char *adot = strchr(a, '.'), *bdot = strchr(b, '.');
    if (!adot || !bdot) {
        size_t an = adot ? (size_t)(adot - a) : strlen(a);
        size_t bn = bdot ? (size_t)(bdot - b) : strlen(b);
        if (an == bn && strncasecmp(a, b, an) == 0) return 0;
    }
    int la = islocalhost(a), lb = islocalhost(b);
    if (la && lb) return 0;
    if (la || lb) return IMAP_WRONG_MAILHOST;
    // Two names that aren't this host's: the same machine when they resolve
    // to the same first address.
    char bufa[2048], bufb[2048];
    struct hostent *ha = osl_gethostbyname(a, bufa);
    struct hostent *hb = ha ? osl_gethostbyname(b, bufb) : nullptr;
    if (!ha || !hb || !ha->h_addr_list[0] || !hb->h_addr_list[0]) return IMAP_WRONG_MAILHOST;
    if (ha->h_length == hb->h_length &&
        memcmp(ha->h_addr_list[0], hb->h_addr_list[0], (size_t)ha->h_length) == 0)
        return 0;
    return IMAP_WRONG_MAILHOST;
}

int check_mailhost(const char *host, userattr_block attrs) {
    char **hosts = attrs && block_size(attrs) > USERATTR_MAILHOST ? attrs[USERATTR_MAILHOST] : nullptr;
    if (!hosts || !hosts[0]) {
        svclog(nullptr, 7, "Missing mailhost attribute");
        return IMAP_WRONG_MAILHOST;
    }
    for (int i = 0; hosts[i]; i++)
        if (compare_mailhosts(host, hosts[i]) == 0) return 0;
    return IMAP_WRONG_MAILHOST;
}

void UPGetPNameFromPath(const char *path, char *out) {
    if (!path || !out) return;
    size_t n = strlen(path);
    if (n && path[n - 1] == '/') n--;
    size_t start = n;
    while (start > 0 && path[start - 1] != '/') start--;
    char *o = out;
    for (size_t i = start; i < n; i++)
        if (isalnum((unsigned char)path[i])) *o++ = (char)tolower((unsigned char)path[i]);
    *o = '\0';
}

char *get_welcome_message(const char *domain, const char *lang_a, const char *lang_b,
                          char *lang_out) {
    if (!dmap) return nullptr;
    dmap_domain *dom = nullptr;
    if (dmap_locate_domain(dmap, domain, &dom) != 0) return nullptr;
    const char *site = config_get_string(config_getdefaultcache(), "gen.sitelanguage", nullptr);
    const char *langs[] = {lang_a, lang_b, site, "en"};
    char *text = nullptr;
    for (int i = 0; i < 4 && !text; i++) {
        const char *lang = langs[i];
        if (!lang || !*lang) continue;
        char attr[64];
        if (i == 3) {
            snprintf(attr, sizeof(attr), "mailDomainWelcomeMessage");
        } else {
            // A language longer than an attribute option may be is no
            // language the directory can hold.
            if (strlen(lang) > kMaxAttrLang) continue;
            snprintf(attr, sizeof(attr), "mailDomainWelcomeMessage;lang-%s", lang);
        }
        char **values = nullptr;
        if (dmap_get_values(dom, attr, &values, 1, 0) == 0 && values && values[0]) {
            text = xstrdup(values[0]);
            if (lang_out) snprintf(lang_out, AUTOCREATE_LANG_SIZE, "%s", lang);
        }
        if (values) ldap_value_free(values);
    }
    dmap_release_domain(dom, 0);
    return text;
}

int autocreate(const char *userid, const char *host, const char *partition, char **partout,
               userattr_block attrs, int nowelcome, const char *acl) {
    // The two switches are read once per process.
    static int checkmailhost = -1, enable = -1;
    if (checkmailhost < 0) {
        checkmailhost = config_get_switch(config_getdefaultcache(), "local.store.checkmailhost", 1);
        enable = config_get_switch(config_getdefaultcache(), "local.store.enable", 1);
    }
    if (autocreate_init(nullptr, nullptr) != 0 || !ugldappool || !dmap) return IMAP_CONFIG_ERROR;
    if (partition && partition[0] == '/') partition = nullptr;
    if (partout) *partout = nullptr;
    char inbox[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, userid, inbox);

    if (checkmailhost && host && attrs) {
        if (check_mailhost(host, attrs) != 0) {
            svclog(nullptr, 63, "User %s not on this mailhost", userid);
            return IMAP_WRONG_MAILHOST;
        }
        if (!enable) {
            svclog(nullptr, 63, "User %s has local mailhost but local.store.enable is false",
                   userid);
            return IMAP_PROXY_ONLY;
        }
    }
    uint32_t limit = QUOTA_KEEP, limit_messages = QUOTA_KEEP;
    if (attrs) quotas_from_attrs(attrs, &limit, &limit_messages);

    struct quotadata row;
    if (mboxlist_getquotaroot(inbox, &row, nullptr) == 0 &&
        mboxlist_lookup(inbox, nullptr, partout, nullptr, nullptr, nullptr) == 0) {
        // An existing user: only the limits follow the directory.
        if (attrs && (limit != row.limit || limit_messages != row.limit_messages))
            mboxlist_setquota(inbox, limit, limit_messages);
        return 0;
    }

    userattr_block own = nullptr;
    if (!attrs) {
        int r = userattr_get(userid, &own, nullptr);
        if (r || !own) {
            svclog(nullptr, 7, "Autocreate user %s failed: %s", userid,
                   r == IMAP_CONFIG_ERROR ? "no directory" : ldap_err2string(r));
            userattr_free(own, nullptr);
            return IMAP_MAILBOX_NONEXISTENT;
        }
        attrs = own;
        quotas_from_attrs(attrs, &limit, &limit_messages);
    }
    const char *store = userattr_first(attrs, USERATTR_MESSAGESTORE);
    if (!partition && store && *store && strcasecmp(store, "default") != 0) partition = store;
    char *lang = userattr_pref_lang(attrs);
    char *partname = nullptr;
    if (partition && strchr(partition, '/')) {
        partname = (char *)xmalloc(strlen(partition) + 1);
        UPGetPNameFromPath(partition, partname);
        partition = partname;
    }

    int r = mboxlist_createmailbox(inbox, MAILBOX_VERSION, partition, userid, auth_dontCheckAcl,
                                   limit, limit_messages, 0, acl);
    if (r == IMAP_MAILBOX_EXISTS) {
        // Files without a row were taken over: the user was there already.
        r = 0;
        if (partout) mboxlist_lookup(inbox, nullptr, partout, nullptr, nullptr, nullptr);
    } else if (r) {
        svclog(nullptr, 59, "Unable to auto create mailbox %s: %s", inbox, PR_ErrorToString(r, 0));
    } else {
        if (!nowelcome) {
            // A user without a welcome message is a user all the same.
            memset(&row, 0, sizeof(row));
            row.limit = limit;
            row.limit_messages = limit_messages;
            CreateMessage(userid, inbox, userattr_first(attrs, USERATTR_MAIL), lang,
                          "gen.newuserforms", nullptr, &row);
        }
        if (partout) mboxlist_lookup(inbox, nullptr, partout, nullptr, nullptr, nullptr);
    }
    free(partname);
    free(lang);
    userattr_free(own, nullptr);
    return r;
}

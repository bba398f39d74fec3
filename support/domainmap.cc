// The domain map: from a mail domain to its node in the directory.
//
// A located domain holds copies of its node's attributes (and of the
// defaults node's, when one is configured), taken from one search each, so
// that the caller reads values without a round trip and without keeping a
// search result alive. The map itself is read-only once made: several
// threads may locate domains through it at once, as the pool allows.
//
// The map's time-out bounds the wait for the answer to each of its searches
// (LdPool_Search_Timed); opening a connection for them keeps the pool's
// time-out.

#include "support/domainmap.h"

#include <ctype.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>
#include <vector>

#include "support/xmalloc.h"

namespace {

struct NodeAttr {
    std::string desc;  // attribute description, options included
    std::vector<std::string> values;
};

struct Node {
    std::string dn;
    std::vector<NodeAttr> attrs;

    const NodeAttr *find(const char *desc) const {
        for (const NodeAttr &a : attrs)
            if (strcasecmp(a.desc.c_str(), desc) == 0) return &a;
        return nullptr;
    }
    // The first value of desc, or null.
    const char *first(const char *desc) const {
        const NodeAttr *a = desc ? find(desc) : nullptr;
        return a && !a->values.empty() ? a->values[0].c_str() : nullptr;
    }
};

}  // namespace

struct domain_map {
    dmap_params params;  // a deep copy of the caller's block
};

struct dmap_domain {
    Node node;
    Node defaults;      // empty without a defaults node
    std::string base_dn;
    std::string canonical;
};

// ---- parameters ------------------------------------------------------------

void dmap_set_parameter(char **field, const char *value) {
    if (!field) return;
    char *copy = value ? xstrdup(value) : nullptr;  // value may be *field itself
    free(*field);
    *field = copy;
}

// The string members of a block, which it owns.
#define DMAP_STRING_FIELDS(p)                                                       \
    {&(p)->root, &(p)->domain_filter_schema1, &(p)->domain_filter_schema2,          \
     &(p)->attr_domain1_schema2, &(p)->attr_domain2_schema2,                        \
     &(p)->global_config_templates, &(p)->domain_search_filter,                     \
     &(p)->domain_attr_basedn, &(p)->domain_attr_canonical, &(p)->domain_attr_alias}

static void free_strings(dmap_params *p) {
    char **fields[] = DMAP_STRING_FIELDS(p);
    for (char **f : fields) dmap_set_parameter(f, nullptr);
}

static void copy_params(dmap_params *to, const dmap_params *from) {
    *to = *from;
    char **fields[] = DMAP_STRING_FIELDS(to);
    for (char **f : fields) *f = *f ? xstrdup(*f) : nullptr;
}

struct dmap_params *dmap_initialize_parameters(void) {
    dmap_params *p = (dmap_params *)xcalloc(1, sizeof *p);
    p->schema_level = 1;
    p->timeout_ms = 6000;
    dmap_set_parameter(&p->domain_filter_schema1,
                       "(&(objectClass=mailStoreDomain)(|(mailDomainName=%s)(mailDomainAlias=%s)))");
    dmap_set_parameter(&p->domain_filter_schema2, "(objectClass=mailStoreDomain)");
    dmap_set_parameter(&p->attr_domain1_schema2, "mailDomainCanonicalName");
    dmap_set_parameter(&p->attr_domain2_schema2, "mailDomainBaseDN");
    dmap_set_parameter(&p->domain_search_filter, "(objectClass=mailStoreDomain)");
    dmap_set_parameter(&p->domain_attr_basedn, "mailDomainBaseDN");
    dmap_set_parameter(&p->domain_attr_canonical, "mailDomainName");
    dmap_set_parameter(&p->domain_attr_alias, "mailDomainAlias");
    return p;
}

void dmap_free_parameters(struct dmap_params *params) {
    if (!params) return;
    free_strings(params);
    free(params);
}

// ---- the map -----------------------------------------------------------------

domain_map *dmap_initialize_domain_map(const struct dmap_params *params, int flags) {
    (void)flags;
    if (!params || !params->pool || !params->root || !*params->root) return nullptr;
    if (params->schema_level != 1 && params->schema_level != 2) return nullptr;
    if (params->schema_level == 1 && !params->domain_filter_schema1) return nullptr;
    domain_map *map = new domain_map;
    copy_params(&map->params, params);
    return map;
}

void dmap_dispose_domain_map(domain_map *map, int flags) {
    (void)flags;
    if (!map) return;
    free_strings(&map->params);
    delete map;
}

static void debug(const domain_map *map, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
static void debug(const domain_map *map, const char *fmt, ...) {
    if (map->params.debug_level <= 0 || !map->params.debug) return;
    va_list ap;
    va_start(ap, fmt);
    map->params.debug(fmt, ap);
    va_end(ap);
}

// ---- reading nodes -------------------------------------------------------------

// Copies the name and all attributes of entry into node.
static int snapshot(LDAPMessage *entry, Node *node) {
    char *dn = nullptr;
    int rc = LdPool_Get_DN(entry, &dn);
    if (rc != LDAP_SUCCESS) return rc;
    node->dn = dn;
    ldap_memfree(dn);
    char **names = nullptr;
    if (LdPool_Get_Attributes(entry, &names) != LDAP_SUCCESS) return LDAP_SUCCESS;
    for (char **n = names; *n; n++) {
        char **values = nullptr;
        if (LdPool_Get_Values(entry, *n, &values) != LDAP_SUCCESS) continue;
        NodeAttr attr;
        attr.desc = *n;
        for (char **v = values; *v; v++) attr.values.push_back(*v);
        ldap_value_free(values);
        node->attrs.push_back(attr);
    }
    ldap_value_free(names);
    return LDAP_SUCCESS;
}

// Reads the entries that filter finds from base: their snapshots in
// *nodes. No entry (or no base) is LDAP_NO_SUCH_OBJECT.
static int read_nodes(const domain_map *map, const std::string &base, int scope,
                      const std::string &filter, std::vector<Node> *nodes) {
    LDAPMessage *res = nullptr;
    int rc = LdPool_Search_Timed(map->params.pool, base.c_str(), scope, filter.c_str(), nullptr, 0,
                                 map->params.timeout_ms, &res);
    debug(map, "domain map: search %s under %s (scope %d): %d", filter.c_str(), base.c_str(),
          scope, rc);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage *entry = nullptr;
    for (LdPool_First_Entry(res, &entry); entry && rc == LDAP_SUCCESS;
         LdPool_Next_Entry(entry, &entry)) {
        nodes->emplace_back();
        rc = snapshot(entry, &nodes->back());
    }
    ldap_msgfree(res);
    if (rc == LDAP_SUCCESS && nodes->empty()) rc = LDAP_NO_SUCH_OBJECT;
    return rc;
}

static std::string lower(const char *s) {
    std::string out(s);
    for (char &c : out) c = (char)tolower((unsigned char)c);
    return out;
}

// The filter with each "%s" replaced by the domain, escaped for a filter
// (RFC 4515), so a name with "*" or ")" can't widen the search.
static std::string domain_filter(const char *pattern, const std::string &domain) {
    struct berval in, out;
    in.bv_val = const_cast<char *>(domain.c_str());
    in.bv_len = domain.size();
    out.bv_val = nullptr;
    out.bv_len = 0;
    std::string escaped = domain;
    if (ldap_bv2escaped_filter_value(&in, &out) == 0 && out.bv_val) {
        escaped.assign(out.bv_val, out.bv_len);
        ber_memfree(out.bv_val);
    }
    std::string filter;
    for (const char *p = pattern; *p; p++) {
        if (p[0] == '%' && p[1] == 's') {
            filter += escaped;
            p++;
        } else {
            filter += *p;
        }
    }
    return filter;
}

// One value of a distinguished name, escaped as RFC 4514 asks.
static std::string dn_value(const std::string &v) {
    std::string out;
    for (size_t i = 0; i < v.size(); i++) {
        char c = v[i];
        bool edge_space = c == ' ' && (i == 0 || i + 1 == v.size());
        if (strchr("\"+,;<>\\=", c) || edge_space || (c == '#' && i == 0)) out += '\\';
        out += c;
    }
    return out;
}

// The node name of a domain in the dc tree: "dc=a,dc=example,<root>"; empty
// for a name with an empty label.
static std::string dc_name(const std::string &domain, const char *root) {
    std::string dn;
    size_t start = 0;
    for (;;) {
        size_t dot = domain.find('.', start);
        std::string label = domain.substr(start, dot == std::string::npos ? std::string::npos
                                                                          : dot - start);
        if (label.empty()) return std::string();
        dn += "dc=" + dn_value(label) + ",";
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    return dn + root;
}

// ---- locating ------------------------------------------------------------------

// Schema 1: the one node below the root that the filter finds for domain.
// When several match, the one whose canonical name is the domain wins;
// nodes that only share an alias are ambiguous (LDAP_MORE_RESULTS_TO_RETURN).
static int locate_schema1(const domain_map *map, const std::string &domain, dmap_domain *d) {
    std::vector<Node> nodes;
    int rc = read_nodes(map, map->params.root, LDAP_SCOPE_SUBTREE,
                        domain_filter(map->params.domain_filter_schema1, domain), &nodes);
    if (rc != LDAP_SUCCESS) return rc;
    size_t pick = 0;
    if (nodes.size() > 1) {
        size_t exact = 0;
        for (size_t i = 0; i < nodes.size(); i++) {
            const char *name = nodes[i].first(map->params.domain_attr_canonical);
            if (name && strcasecmp(name, domain.c_str()) == 0) pick = i, exact++;
        }
        if (exact != 1) {
            debug(map, "domain map: %zu nodes claim domain %s", nodes.size(), domain.c_str());
            return LDAP_MORE_RESULTS_TO_RETURN;
        }
    }
    d->node = nodes[pick];
    const char *canonical = d->node.first(map->params.domain_attr_canonical);
    d->canonical = canonical ? lower(canonical) : domain;
    const char *base = d->node.first(map->params.domain_attr_basedn);
    d->base_dn = base ? base : d->node.dn;
    return LDAP_SUCCESS;
}

static int read_dc_node(const domain_map *map, const std::string &domain, Node *node) {
    std::string dn = dc_name(domain, map->params.root);
    if (dn.empty()) return LDAP_NO_SUCH_OBJECT;
    const char *filter = map->params.domain_filter_schema2;
    std::vector<Node> nodes;
    int rc = read_nodes(map, dn, LDAP_SCOPE_BASE, filter ? filter : "(objectClass=*)", &nodes);
    if (rc == LDAP_SUCCESS) *node = nodes[0];
    return rc;
}

// Schema 2: the node of the domain in the dc tree, or the node of the
// canonical domain that an alias node names (followed once).
static int locate_schema2(const domain_map *map, const std::string &domain, dmap_domain *d) {
    int rc = read_dc_node(map, domain, &d->node);
    if (rc != LDAP_SUCCESS) return rc;
    d->canonical = domain;
    const char *target = d->node.first(map->params.attr_domain1_schema2);
    if (target && *target && strcasecmp(target, domain.c_str()) != 0) {
        d->canonical = lower(target);
        debug(map, "domain map: %s is an alias of %s", domain.c_str(), d->canonical.c_str());
        d->node = Node();
        rc = read_dc_node(map, d->canonical, &d->node);
        if (rc != LDAP_SUCCESS) return rc;
    }
    const char *base = d->node.first(map->params.attr_domain2_schema2);
    d->base_dn = base ? base : d->node.dn;
    return LDAP_SUCCESS;
}

// The defaults node; a configured one that doesn't exist gives no defaults.
static int read_defaults(const domain_map *map, Node *defaults) {
    const char *dn = map->params.global_config_templates;
    if (!dn || !*dn) return LDAP_SUCCESS;
    std::vector<Node> nodes;
    int rc = read_nodes(map, dn, LDAP_SCOPE_BASE, "(objectClass=*)", &nodes);
    if (rc == LDAP_NO_SUCH_OBJECT) {
        debug(map, "domain map: no defaults node %s", dn);
        return LDAP_SUCCESS;
    }
    if (rc == LDAP_SUCCESS) *defaults = nodes[0];
    return rc;
}

int dmap_locate_domain(domain_map *map, const char *domain, dmap_domain **out) {
    if (!out) return LDAP_PARAM_ERROR;
    *out = nullptr;
    if (!map || !domain || !*domain) return LDAP_PARAM_ERROR;
    std::string name = lower(domain);
    dmap_domain *d = new dmap_domain;
    int rc = map->params.schema_level == 2 ? locate_schema2(map, name, d)
                                           : locate_schema1(map, name, d);
    if (rc == LDAP_SUCCESS) rc = read_defaults(map, &d->defaults);
    if (rc != LDAP_SUCCESS) {
        debug(map, "domain map: domain %s not located: %s", domain, ldap_err2string(rc));
        delete d;
        return rc;
    }
    debug(map, "domain map: domain %s is %s at %s, users under %s", domain, d->canonical.c_str(),
          d->node.dn.c_str(), d->base_dn.c_str());
    *out = d;
    return LDAP_SUCCESS;
}

// ---- reading a located domain ----------------------------------------------------

int dmap_get_values(dmap_domain *domain, const char *attr, char ***values, int max, int flags) {
    (void)flags;
    if (!values) return LDAP_PARAM_ERROR;
    *values = nullptr;
    if (!domain || !attr) return LDAP_PARAM_ERROR;
    const NodeAttr *a = domain->node.find(attr);
    if (!a) a = domain->defaults.find(attr);
    if (!a || a->values.empty()) return LDAP_NO_SUCH_ATTRIBUTE;
    size_t n = a->values.size();
    if (max > 0 && (size_t)max < n) n = (size_t)max;
    // Allocated as the library allocates, so that ldap_value_free releases it.
    char **list = (char **)ldap_memcalloc(n + 1, sizeof(char *));
    if (!list) return LDAP_NO_MEMORY;
    for (size_t i = 0; i < n; i++) {
        list[i] = ldap_strdup(a->values[i].c_str());
        if (!list[i]) {
            ldap_value_free(list);
            return LDAP_NO_MEMORY;
        }
    }
    *values = list;
    return LDAP_SUCCESS;
}

const char *dmap_get_base_dn(dmap_domain *domain, int flags) {
    (void)flags;
    return domain ? domain->base_dn.c_str() : nullptr;
}

const char *dmap_get_canonical_name(dmap_domain *domain) {
    return domain ? domain->canonical.c_str() : nullptr;
}

void dmap_release_domain(dmap_domain *domain, int flags) {
    (void)flags;
    delete domain;
}

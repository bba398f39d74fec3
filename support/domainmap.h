// The domain map: finds a mail domain's node in the directory, reads the
// node's attributes, and gives the base under which the domain's users live.
//
// Two layouts of the domain nodes are understood (the schema level):
//
//   1  Domain nodes anywhere below the root, found by a subtree search with
//      domain_filter_schema1, in which each "%s" stands for the domain name
//      (escaped for a filter). The default filter matches the canonical
//      name attribute or the alias attribute, so an alias finds the node of
//      its canonical domain.
//   2  A tree of "dc" components: the domain "a.example" is the node
//      "dc=a,dc=example,<root>", read with a base search and
//      domain_filter_schema2. A node that is an alias names its canonical
//      domain in attr_domain1_schema2; that node is read instead (once: an
//      alias of an alias is not followed).
//
// Several nodes found for one name (schema 1) are settled by the canonical
// name: the one node whose domain_attr_canonical is the name wins; without
// one the name is ambiguous and gives LDAP_MORE_RESULTS_TO_RETURN.
//
// The base of the domain's users is the first value of the node's
// domain_attr_basedn (schema 1) or attr_domain2_schema2 (schema 2), and the
// node's own name when it has none; it never comes from the defaults node.
// The canonical name is, lower-cased, the node's domain_attr_canonical
// (schema 1) or what an alias node names (schema 2), else the name asked for.
// With global_config_templates set (the name of a node), attributes that a
// domain node lacks are read from that node: it holds the defaults of all
// domains. A defaults node that doesn't exist gives no defaults.
//
// A located domain is a snapshot of its node (and of the defaults node),
// read once with all its user attributes (language options such as
// "attr;lang-de" included), so that reading values needs no further round
// trip; a change in the directory shows in the next location. Directory
// operations go through the pool; timeout_ms bounds the wait for the answer
// of each search (LdPool_Search_Timed), while connecting keeps the pool's
// time-out. The map is not changed after it is made: threads may share it.
#ifndef SUPPORT_DOMAINMAP_H
#define SUPPORT_DOMAINMAP_H

#include <stdarg.h>

#include "support/ldappool.h"

// The parameters of a map. dmap_initialize_parameters fills in the
// defaults; string members are owned by the block: replace them with
// dmap_set_parameter.
struct dmap_params {
    LdPoolCtx *pool;  // the connections to use (not owned)
    char *root;       // root of the domain tree
    int schema_level;       // 1 or 2, see above; default 1
    int timeout_ms;         // time-out of each directory operation; default 6000
    char *domain_filter_schema1;
    char *domain_filter_schema2;
    char *attr_domain1_schema2;      // schema 2: canonical domain of an alias node
    char *attr_domain2_schema2;      // schema 2: base of the domain's users
    char *global_config_templates;   // name of the node of defaults, or null
    char *domain_search_filter;      // matches every domain node (kept for
                                     // listings; the map itself doesn't list)
    char *domain_attr_basedn;        // schema 1: base of the domain's users
    char *domain_attr_canonical;     // schema 1: the canonical name
    char *domain_attr_alias;         // schema 1: further names of the domain
                                     // (kept; domain_filter_schema1 names it)
    int debug_level;                 // 0: no debug output
    void (*debug)(const char *fmt, va_list ap);  // receives debug output
};

typedef struct domain_map domain_map;
typedef struct dmap_domain dmap_domain;

// A new parameter block with the defaults; free it with
// dmap_free_parameters.
struct dmap_params *dmap_initialize_parameters(void);
// Replaces the string member *field of a block with a copy of value (null
// clears it).
void dmap_set_parameter(char **field, const char *value);
void dmap_free_parameters(struct dmap_params *params);

// A map over the parameters (which are copied; flags 0), or null when they
// are unusable (no pool, no root, an unknown schema level).
domain_map *dmap_initialize_domain_map(const struct dmap_params *params, int flags);
void dmap_dispose_domain_map(domain_map *map, int flags);

// Finds the node of domain (case does not matter). 0 with *out set (release
// it with dmap_release_domain); LDAP_NO_SUCH_OBJECT for a domain that the
// directory doesn't have (or a name with an empty label, under schema 2);
// LDAP_MORE_RESULTS_TO_RETURN for an ambiguous name; LDAP_PARAM_ERROR for a
// null or empty name; another directory number when the directory can't be
// asked (LDAP_SERVER_DOWN, LDAP_TIMEOUT).
int dmap_locate_domain(domain_map *map, const char *domain, dmap_domain **out);
// *values gets up to max (0: all) values of the attribute (an attribute
// description, with options such as ";lang-de", matched whole and in any
// case: "attr" doesn't find "attr;lang-de"), as a null-terminated array
// that the caller releases with ldap_value_free. 0, or LDAP_NO_SUCH_ATTRIBUTE
// with *values null when neither the node nor the defaults have it.
int dmap_get_values(dmap_domain *domain, const char *attr, char ***values, int max, int flags);
// The base of the domain's users, owned by the domain; never null for a
// located domain.
const char *dmap_get_base_dn(dmap_domain *domain, int flags);
// The canonical name of the domain (what an alias stands for).
const char *dmap_get_canonical_name(dmap_domain *domain);
// Frees a located domain; null is allowed.
void dmap_release_domain(dmap_domain *domain, int flags);

#endif

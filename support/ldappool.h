// A pool of connections to the directory of users and groups, over the
// OpenLDAP client library.
//
// The pool hands each operation a connection that no other thread is using,
// opening one (and binding with the pool's name and credential) when none is
// free, up to a maximum. A connection that the server drops is opened and
// bound again, and the operation repeated, a bounded number of times; an
// operation never waits longer than the pool's time-out for the server, so a
// dead or stalled directory gives LDAP_SERVER_DOWN or LDAP_TIMEOUT instead of
// a hang.
//
// What the caller can count on:
//   - a lost connection (LDAP_SERVER_DOWN, LDAP_CONNECT_ERROR,
//     LDAP_UNAVAILABLE) closes it and the free ones with it (they went to
//     the same server), and the operation is repeated on a new connection;
//     a restarted server is thus used again without the caller's help
//   - a connection that can't be opened, or a time-out, ends the operation
//     at once: it is not repeated, so a stalled server costs one time-out,
//     not one per retry. A connection that timed out is closed, as its late
//     answer would be taken for the next operation's
//   - one operation waits at most: the time-out for a free connection when
//     maxconns are in use, then per attempt the time-out for connecting,
//     for the bind and for the answer
//   - SIGPIPE from a connection that the server closed is blocked in the
//     calling thread during library calls and taken off again; it never
//     reaches the program
//
// Results are the directory's own numbers (0 for success), which
// ldap_err2string turns into text. Search results are LDAPMessage chains
// that the caller releases with ldap_msgfree; value arrays are released with
// ldap_value_free.
#ifndef SUPPORT_LDAPPOOL_H
#define SUPPORT_LDAPPOOL_H

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1  // the char ** value arrays of ldap_get_values
#endif
#include <ldap.h>

typedef struct LdPoolCtx LdPoolCtx;

// Creates a pool for host:port (ldaps when certdir is given: the directory
// of the CA certificates that the server's certificate must be signed by; a
// server without a valid certificate is refused).
// binddn and bindcred may be null for an anonymous bind; basedn is kept as
// the default base of searches given a null base.
//
//   initconns  connections opened (and bound) at once; with 1 or more, a
//              server that can't be reached or refuses the bind fails the
//              creation, so a misconfigured directory is found at start
//   maxconns   most connections open at one time; a caller beyond it waits
//              for a free one (at most the time-out)
//   timelimit  seconds the server may spend on a search (-1: the time-out)
//   sizelimit  most entries of a search (-1: the server's limit); a search
//              that finds more gives LDAP_SIZELIMIT_EXCEEDED
//   timeout    seconds to wait for the server on any network step: connect,
//              bind, each operation (-1: local.ugldaptimeout, default 10,
//              read once, here)
//   retries    times an operation is tried on a fresh connection after the
//              server dropped the one it had
//   idle       free connections kept open; more are closed when returned
//   flags      0; reserved
//
// 0 and *out set, or a directory number (LDAP_PARAM_ERROR for a missing
// host, LDAP_SERVER_DOWN, LDAP_TIMEOUT, LDAP_INVALID_CREDENTIALS, ...).
int LdPoolCtx_New(const char *binddn, const char *bindcred, const char *host,
                  const char *basedn, const char *certdir, int port, int initconns,
                  int maxconns, int timelimit, int sizelimit, int timeout, int retries,
                  int idle, int flags, LdPoolCtx **out);
// Closes all connections and frees the pool. Null is allowed.
void LdPoolCtx_Delete(LdPoolCtx *pool);

// Synchronous search (scope: LDAP_SCOPE_BASE 0, ONELEVEL 1, SUBTREE 2) for
// the attributes named (null: all user attributes). 0 with *res set, or a
// directory number with *res null. A search that finds nothing is 0 with an
// empty chain; a base that doesn't exist is LDAP_NO_SUCH_OBJECT.
int LdPool_Search_S(LdPoolCtx *pool, const char *base, int scope, const char *filter,
                    char **attrs, int attrsonly, LDAPMessage **res);
// The same, waiting at most wait_ms milliseconds for the server's answer
// (0 or less: the pool's time-out) instead of the pool's time-out; opening
// a connection for it keeps the pool's time-out.
int LdPool_Search_Timed(LdPoolCtx *pool, const char *base, int scope, const char *filter,
                        char **attrs, int attrsonly, int wait_ms, LDAPMessage **res);
// The number of entries in a search result. 0, or LDAP_PARAM_ERROR for a
// null result (*count 0).
int LdPool_Count_Entries(LDAPMessage *res, int *count);
// The first entry of a search result, or null. 0, or LDAP_NO_RESULTS_RETURNED.
int LdPool_First_Entry(LDAPMessage *res, LDAPMessage **entry);
// The entry after entry in its result, or null. 0, or LDAP_NO_RESULTS_RETURNED.
int LdPool_Next_Entry(LDAPMessage *entry, LDAPMessage **next);
// The values of attribute attr of the entry, as a null-terminated array of
// strings (release with ldap_value_free), or null when the entry has none.
// 0 or LDAP_NO_SUCH_ATTRIBUTE.
int LdPool_Get_Values(LDAPMessage *entry, const char *attr, char ***values);
// The entry's distinguished name (release with ldap_memfree). 0 or an error.
int LdPool_Get_DN(LDAPMessage *entry, char **dn);
// The attribute descriptions that the entry holds, options included
// ("cn;lang-de"), as a null-terminated array (release with ldap_value_free),
// or null with LDAP_NO_SUCH_ATTRIBUTE for an entry without attributes.
int LdPool_Get_Attributes(LDAPMessage *entry, char ***names);
// Synchronous modification of the entry dn. 0 or a directory number.
int LdPool_Modify_S(LdPoolCtx *pool, const char *dn, LDAPMod **mods);

#endif

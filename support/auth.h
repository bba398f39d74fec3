// Identity and rights: auth states (who is asking) and access control lists.
//
// An auth state is an identity that the caller of the store makes: a user
// id, the groups that count for it, and whether it administers the whole
// site or its own domain (tenant). The store only reads it.
//
// An ACL is a text of entries, each "identifier" TAB "rights" TAB. An
// identifier beginning with "-" is a negative entry: its rights are taken
// away from whatever the positive entries give. The identifier "anyone"
// counts for every state.
//
// Rights are letters; each letter is one bit of a rights mask:
//
//   letter  bit    right
//   l       0x001  lookup: the folder may be seen
//   r       0x002  read messages
//   s       0x004  keep the seen state
//   w       0x008  write flags other than seen and deleted
//   i       0x010  insert (append, copy into)
//   p       0x020  post
//   c       0x040  create children, delete or rename the folder
//   d       0x080  delete messages (deleted flag, expunge)
//   a       0x100  administer: change the ACL
//
// A rights text may also be "all" (every right) or "none" (no right).
#ifndef SUPPORT_AUTH_H
#define SUPPORT_AUTH_H

#include <stddef.h>

#define ACL_LOOKUP   0x001
#define ACL_READ     0x002
#define ACL_SEEN     0x004
#define ACL_WRITE    0x008
#define ACL_INSERT   0x010
#define ACL_POST     0x020
#define ACL_CREATE   0x040
#define ACL_DELETE   0x080
#define ACL_ADMIN    0x100
// What an owner always keeps on its own folders: lookup, create, administer.
#define ACL_OWNER    (ACL_LOOKUP | ACL_CREATE | ACL_ADMIN)
#define ACL_ALL      0x1FF

// The letters of the rights, in bit order.
#define ACL_LETTERS  "lrswipcda"
// Buffer for acl_masktostr: every letter and a NUL.
#define ACL_MAXRIGHTS 16

// Buffer for auth_canonifyid; an identifier has at most
// AUTH_MAXIDENTIFIER - 1 characters.
#define AUTH_MAXIDENTIFIER 129

// Modes of acl_modify.
#define ACL_MODE_SET    0  // the entry gets exactly the given rights
#define ACL_MODE_ADD    1  // the given rights are added to the entry
#define ACL_MODE_REMOVE 2  // the given rights are taken from the entry

// Administrator levels of an auth state, and results of auth_adminFor.
#define AUTH_ADMIN_NONE   0
#define AUTH_ADMIN_TENANT 1  // administers the users of its own domain
#define AUTH_ADMIN_SITE   2  // administers everything

struct auth_state;

// The sentinel that a caller passes in place of an auth state so that no
// rights are checked: acl_myrights gives ACL_ALL and auth_adminFor
// AUTH_ADMIN_SITE. Never freed.
extern struct auth_state *const auth_dontCheckAcl;

// Makes an auth state for userid (canonified; null or invalid gives null),
// the groups that count for it (null-terminated array, may be null; invalid
// names are skipped) and its administrator level. The domain of a tenant
// administrator is the part of its id behind the last "@"; an id without
// one belongs to the default domain (service.defaultdomain).
struct auth_state *auth_newstate(const char *userid, const char *const *groups,
                                 int adminlevel);
// Frees a state made by auth_newstate; null and auth_dontCheckAcl are
// left alone.
void auth_freestate(struct auth_state *state);

// The user id of a state (null for null and for auth_dontCheckAcl).
const char *auth_userid(const struct auth_state *state);

// With a null owner: the state's administrator level (AUTH_ADMIN_SITE
// above 1 means a site administrator). With an owner id: non-zero if the
// state administers that owner's folders (a site administrator, or a
// tenant administrator of the owner's domain). Owning folders does not
// make a state their administrator here.
int auth_adminFor(const struct auth_state *state, const char *owner);

// Non-zero for an administrator of the site or of a domain.
int auth_isSiteorTenantAdmin(const struct auth_state *state);

// The canonical form of identifier into buf (AUTH_MAXIDENTIFIER bytes) and
// gives buf; null if the identifier is invalid: empty, too long, a leading
// "-", or holding a blank, a control character or a byte above 0x7E.
// The domain behind the last "@" is lower-cased, and the default domain
// (service.defaultdomain) is dropped; the part in front keeps its case.
char *auth_canonifyid(const char *identifier, char *buf);

// The names that count for the state: its user id, its groups and
// "anyone", null-terminated. The array belongs to the state.
const char *const *auth_getgroups(const struct auth_state *state);

// The rights mask that acl gives the state: the union of the positive
// entries whose identifier counts for it, less the union of its negative
// entries. A site administrator and auth_dontCheckAcl hold ACL_ALL on
// every folder; a tenant administrator holds what the ACL gives it (its
// power over its domain's folders is asked through auth_adminFor). A null
// state counts as "anyone"; a null acl gives nothing.
int acl_myrights(const struct auth_state *state, const char *acl);

// The mask of a rights text; unknown letters are ignored.
int acl_strtomask(const char *rights);
// The letters of mask into buf (ACL_MAXRIGHTS bytes); gives buf.
char *acl_masktostr(int mask, char *buf);

// Asked for the final mask of an entry that acl_modify or acl_remove is
// about to write: rock as given, the entry's canonical identifier (with
// its "-" for a negative entry) and the mask computed so far. The result
// is written; a result of 0 removes the entry.
typedef int acl_canonproc_t(void *rock, const char *identifier, int mask);

// Changes the entry of identifier (a leading "-" names the negative entry)
// in *acl: mode ACL_MODE_SET replaces its rights with mask, ACL_MODE_ADD
// adds mask, ACL_MODE_REMOVE takes mask away. canonproc (may be null)
// decides the final mask. An entry whose final mask is 0 is removed; a new
// entry goes to the end. *acl (null counts as empty) is reallocated.
// 0, or -1 if the identifier is invalid or the mode unknown (*acl stays).
int acl_modify(char **acl, const char *identifier, int mode, int mask,
               acl_canonproc_t *canonproc, void *rock);

// Removes the entry of identifier from *acl, unless canonproc, asked with
// the mask 0, gives a mask to keep. 0, or -1 if the identifier is invalid.
int acl_remove(char **acl, const char *identifier, acl_canonproc_t *canonproc,
               void *rock);

// 1 if acl has an entry of exactly identifier (compared as written, not
// canonified; a negative entry "-id" is another identifier) whose rights
// hold lookup, else 0.
int acl_lookup_right(const char *identifier, const char *acl);

// Calls back with each identifier (a NUL-ended copy, as written) of a
// positive entry of acl whose rights hold lookup, in the order of the text;
// the walk stops at the first non-zero result, which it gives back. 0 when
// every callback gave 0 (or acl is null).
typedef int acl_lookupproc_t(const char *identifier, void *rock);
int acl_foreach_lookup(const char *acl, acl_lookupproc_t *proc, void *rock);

// Non-zero if acl makes a folder of owner (a user id; null for a folder
// without owner) a shared one: a positive entry of another identifier
// (anyone included) gives lookup.
int acl_isshared(const char *acl, const char *owner);

#endif

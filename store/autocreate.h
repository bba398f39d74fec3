// Users from the directory: the attributes of a user, the question whether
// the user's mail host is this machine, the creation of a user's inbox on
// first use, and the messages that the store writes itself (the welcome
// message of a new user and the quota warning).
//
// The store doesn't keep its users. A user's home host, partition, limits,
// language and status live in an LDAP directory, and each mail domain is a
// node that the domain map finds there. The connection pool and the domain
// map are set up once per process (autocreate_init) and shared by all
// threads; they end at exit.
//
// Results of the directory calls (userattr_*) are the directory's numbers,
// not store codes: print them with ldap_err2string, or test for non-zero.
// Everything else returns 0 or a store code (imap_err.h).
#ifndef STORE_AUTOCREATE_H
#define STORE_AUTOCREATE_H

#include <stdint.h>
#include <time.h>

#include "store/mboxlist.h"
#include "support/domainmap.h"
#include "support/ldappool.h"

struct append_state;

// ---- the directory ---------------------------------------------------------

// The pool of the directory of users and the domain map, once set up.
extern LdPoolCtx *ugldappool;
extern domain_map *dmap;

// The attributes that userattr_get asks for; an attribute block has one slot
// per attribute, in this order.
enum {
    USERATTR_MAILHOST = 0,       // hosts that may hold the user's store
    USERATTR_MESSAGESTORE = 1,   // partition (name or path) of a new user
    USERATTR_LANGUAGE = 2,       // language of generated messages
    USERATTR_MAIL = 3,           // address of generated messages
    USERATTR_MAILQUOTA = 4,      // storage quota text ("10M", "-1", ...)
    USERATTR_MSGQUOTA = 5,       // message quota
    USERATTR_STATUS = 6,         // "active", "overquota", ...
    USERATTR_GROUPADDR = 7,      // fetched, not used by the store
    USERATTR_COUNT = 8
};
extern const char *store_ldapattrs[USERATTR_COUNT + 1];

// An attribute block: slot i holds the values of attribute i of the list
// asked for (a null-terminated array), or null when the entry lacks it.
// The number of slots is kept in front of the first one, so that
// userattr_free needs no count. userattr_free releases it.
typedef char ***userattr_block;

// Sets up the pool and the domain map, once per process. With both
// arguments given, those are adopted instead. Also runs append_init once.
// 0 when pool and map stand, non-zero when either is missing (logged).
//
// A store with no directory configured (local.ugldaphost unset) gets
// neither: it provisions no user, and every lookup fails as if the user
// had no entry. That is not a failure of autocreate_init: the result is 0.
int autocreate_init(LdPoolCtx *pool, domain_map *map);
// Disposes of map and pool; registered with atexit by the set-up.
void autocreate_exit(void);
// True when a directory is configured (local.ugldaphost is set).
int autocreate_have_directory(void);

// The attributes of store_ldapattrs for user (at most 128 bytes), as
// userattr_get_attrs.
int userattr_get(const char *userid, userattr_block *attrs, char **dn);
// Finds the one directory entry of user: in its domain (after the last "@",
// else service.defaultdomain), by uid. *attrs (if asked) gets one slot per
// name of attrlist; *dn (if asked) the entry's name. Release both with
// userattr_free.
// 0; LDAP_NO_SUCH_OBJECT for no entry, two entries or an unknown domain;
// another directory number when the directory can't be asked;
// IMAP_CONFIG_ERROR without a directory.
int userattr_get_attrs(const char *userid, userattr_block *attrs, const char **attrlist,
                       char **dn);
void userattr_free(userattr_block attrs, char *dn);
// A new lower-cased copy of the first preferredlanguage value, or null.
char *userattr_pref_lang(userattr_block attrs);
// The first value of slot i, or null.
const char *userattr_first(userattr_block attrs, int i);

// Kilobytes of a storage quota text: digits with an optional K, M or G (and
// an optional B) behind them, bytes without a letter (rounded up to whole
// kilobytes). "-1" is no limit (0xFFFFFFFF); null, "" and "-2" take
// store.defaultmailboxquota. An invalid text is logged and means no limit.
uint32_t quota_to_kb(const char *text);
// The storage and message limits of an attribute block, with the
// configured defaults for missing values.
void quotas_from_attrs(userattr_block attrs, uint32_t *limit, uint32_t *limit_messages);
// Brings the limits of user's quota row in line with the attributes.
// 0 or IMAP_MAILBOX_NONEXISTENT (no row).
int update_userquota(const char *userid, userattr_block attrs);

// 1 when host is local.hostname or one of local.relay.hostnamealiases
// (case does not matter), else 0.
int islocalhost(const char *host);
// 0 when a and b name the same host, else IMAP_WRONG_MAILHOST.
int compare_mailhosts(const char *a, const char *b);
// 0 when host is one of the user's mailhost values, else IMAP_WRONG_MAILHOST.
int check_mailhost(const char *host, userattr_block attrs);
// The partition name of a path: its last component, letters and digits
// only, lower-cased ("/var/store/Part_1/" gives "part1"). out holds at
// least strlen(path) + 1 bytes.
void UPGetPNameFromPath(const char *path, char *out);

// ---- automatic creation ----------------------------------------------------

// Makes sure that user's inbox exists. For a user who has one, only brings
// the quota row's limits in line with attrs (when given). For one who
// hasn't: checks the user's mail host against host (when host and attrs are
// given), fetches the attributes when attrs is null, creates the inbox on
// the partition that the argument or the directory names with the
// directory's quotas and acl, and (unless nowelcome) puts the welcome
// message into it. *partout (when given) gets the inbox's partition.
// 0 when the inbox exists on return; IMAP_CONFIG_ERROR (no directory),
// IMAP_WRONG_MAILHOST, IMAP_PROXY_ONLY (local.store.enable off),
// IMAP_MAILBOX_NONEXISTENT (no entry), or the failure of the creation.
int autocreate(const char *userid, const char *host, const char *partition, char **partout,
               userattr_block attrs, int nowelcome, const char *acl);
// The directory's welcome text of domain in the first of language a,
// language b, gen.sitelanguage and "en" that has one (new string, or null);
// *lang_out (21 bytes) gets its language.
char *get_welcome_message(const char *domain, const char *lang_a, const char *lang_b,
                          char *lang_out);

// ---- messages the store writes ---------------------------------------------

// Size of the language buffers of the message functions.
#define AUTOCREATE_LANG_SIZE 21

// Finds the template of key ("gen.newuserforms" or "store.quotaexceededmsg")
// in the user's or domain's language and delivers the message made from it
// into folder (through as when given, else a session of its own).
// 0; -1 when there is no template or it can't be expanded; or the
// delivery's store code.
int CreateMessage(const char *userid, const char *folder, const char *mail, const char *lang,
                  const char *key, struct append_state *as, const struct quotadata *quota);
// The same from the template text itself.
int CreateMessage_from_text(const char *userid, const char *folder, const char *mail,
                            const char *lang, const char *text, struct append_state *as,
                            const struct quotadata *quota);
// The RFC 822 message of a template (header, body, CR LF line ends), with
// placeholders expanded and header values encoded for lang. New string, or
// null (logged).
char *ParseMsg(const char *userid, const char *mail, const char *text, const char *lang,
               const struct quotadata *quota);
// The template with its escapes decoded: "$" a line break, a backslash and
// two hex digits that byte. New string.
char *DecodeMultiLineMsg(const char *text);
// Appends line to *out (a heap string of *size bytes, grown as needed, *len
// used) with the placeholders [URL], [ID], [DISKUSAGE], [NUMMSG], [PERCENT],
// [QUOTA] and [MSGQUOTA] replaced.
void copy_line(char **out, size_t *len, size_t *size, const char *line, size_t linelen,
               const char *userid, const struct quotadata *quota);
// The date of t in RFC 822 form with the local zone ("Fri, 3 Jan 2003
// 10:00:00 -0500") into buf (64 bytes). buf, or null for a null buf.
char *GetRFC822Date(char *buf, time_t t);

#endif

// Folder listing: which folders match a pattern for a user, with what the
// user may know of their children, and which of them the user subscribed to.
//
// mboxlist_findall walks "folder.db" in key order from the longest key
// prefix the pattern allows, so it touches only the keys that can match,
// and calls back for every folder that matches and every implicit parent
// (a name of which the pattern matched only a leading part, as "%" does
// with "a" of "a/b"). It runs in two stages:
//   1. the user's own folders, named relative to the user's root ("INBOX",
//      "Sent", "a/b"); or, with no user id, every folder by its internal
//      name ("user/bob/INBOX" for an inbox), or with
//      MBOXLIST_FIND_ALLUSERS every user's folders under the other-users
//      prefix;
//   2. the shared stage: the folders of others that "lright.db" says the
//      user, or one of its groups, may look up, under the other-users
//      prefix of the view ("Shared Folders/User/ann/x",
//      "Shared Folders/User/ann/INBOX"); a shared folder without owner
//      under the public prefix ("Shared Folders/Public/x").
// An implicit parent is reported once per stage, for the first folder that
// makes it. The walk holds no cursor across a callback, so a callback may
// change the database; the walk goes on from the key it saw.
//
// Patterns are the folder globs of support/storeglob.h ("*" anything, "%"
// anything but "/", "INBOX" in any case), or with MBOXLIST_FIND_REGEX a
// POSIX extended regular expression that must match a whole name (the name
// in UTF-8). A null pattern matches every name whole.
//
// Rights: the first stage tests the lookup right on each folder only when
// local.store.ensureownerrights is off and the state is not
// auth_dontCheckAcl (the owner keeps lookup on its own folders anyway); the
// shared stage always tests it against the folder's ACL, so a stale
// "lright.db" gives no access.
//
// Configuration: local.store.sharedfolders (switch, default on: the shared
// stage runs), local.store.listimplicit (switch, default off: an
// administrator's shared stage lists every user's folders),
// local.service.proxy.serverlist (when set, a pattern that matches only a
// leading part of the other-users prefix gives one entry for the prefix).
//
// The listing from disk (the recovery modes of local.store.listrecover and
// the disk bits MBOXLIST_FIND_DISK of the flags) is not part of this
// store: such a call lists nothing and gives IMAP_MAILBOX_NOTSUPPORTED.
//
// DIAGNOSTICS: database failures stop the walk and come back as their
// Berkeley DB numbers, unlogged; nothing here ends the process, but the
// first use of the database in a process runs mboxlist_init, which may.
#ifndef STORE_MBOXLIST_LIST_H
#define STORE_MBOXLIST_LIST_H

struct auth_state;

// Flags of mboxlist_findall.
#define MBOXLIST_FIND_CHILDINFO 0x01   // tell leaves from parents (look at the next key)
#define MBOXLIST_FIND_NOFIRST 0x02     // skip the first stage (the pattern can only be shared)
#define MBOXLIST_FIND_NOSHARED 0x04    // skip the shared stage
#define MBOXLIST_FIND_REGEX 0x08       // the pattern is a regular expression
#define MBOXLIST_FIND_NOIMPLICIT 0x10  // no entries for the shared prefix or shorter ones
#define MBOXLIST_FIND_ALLUSERS 0x20    // with no user id: all users under the other-users prefix
#define MBOXLIST_FIND_DISK 0xC0        // a walk over the disk: not supported here

// What a callback learns of an entry's children.
enum mboxlist_childinfo {
    CHILD_UNKNOWN = 1,      // a folder; no look at its children was asked for
    CHILD_NOINFERIORS = 2,  // an inbox; a leaf its reader may not create children in;
                            // a subscription to a folder that isn't there
    CHILD_NONE = 3,         // a folder without children
    CHILD_SOME = 4,         // a folder with children, or an implicit parent
};

// Called for each entry: name (a buffer of the listing, valid during the
// call), the length of name that the pattern matched (shorter than name
// for an implicit parent: the entry is name cut there), the child
// information, the folder's "folder.db" row (null for an implicit parent
// and for a subscribed folder that doesn't exist; read it with
// mboxlist_acl and mboxlist_partition), and rock. Non-zero stops the
// listing and becomes its result.
typedef int mboxlist_findall_cb(const char *name, int matchlen, int childinfo, const char *row,
                                void *rock);

// Lists the folders that match pattern (null: all) in the view prefix_view
// (-1 administrative: no shared stage) for userid (null: every folder, see
// above) as the state auth sees them. 0, the callback's non-zero result,
// a Berkeley DB code of a failed read, IMAP_MAILBOX_NOTSUPPORTED for the
// disk bits, or the failure of mboxlist_init. An invalid regular
// expression lists nothing and gives 0.
int mboxlist_findall(const char *pattern, int flags, int prefix_view, const char *userid,
                     const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock);

// mboxlist_findall with a recovery mode (0: the configured
// local.store.listrecover mode). -1 for a null or empty userid. Modes 2 to 6
// would list from the disk or repair from it first, which this store can't:
// IMAP_MAILBOX_NOTSUPPORTED, nothing listed. Any other mode lists from the
// database.
int mboxlist_findall_plus(const char *pattern, int flags, int prefix_view, const char *userid,
                          const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock,
                          int recovery_mode);

// Lists userid's subscriptions that match pattern (null: all): the user's
// own folders relative to its root, those of others under the other-users
// prefix, public ones under the public prefix, in key order. With auth, a
// subscription to an own folder that is gone is left out, and one to a
// folder of others needs the lookup right; a subscription to a folder
// that is gone is reported with no row and CHILD_NOINFERIORS. Only
// MBOXLIST_FIND_CHILDINFO of the flags counts. Loads the user's
// subscriptions from their file copy first when the database lost them.
// 0 for a null userid or one with "/", the callback's result, or a
// Berkeley DB code. The cursor stays open across the callbacks: a
// callback must not change this user's subscriptions.
int mboxlist_findsub(const char *pattern, int flags, int prefix_view, const char *userid,
                     const struct auth_state *auth, mboxlist_findall_cb *callback, void *rock);

// CHILD_SOME if folder name has children in "folder.db"; otherwise
// CHILD_NONE when rights hold the create right, else CHILD_NOINFERIORS
// (also when the database can't be read).
int mboxlist_getchildinfo(const char *name, int rights);

// The folder names that "lright.db" lists for the names of auth (its user
// id, groups and "anyone"), sorted by strcmp, duplicates kept, into *list:
// a new array of new strings (free each, then the array; *list is null
// when there are none). The number of names; or IMAP_IOERROR (logged) when
// a row can't be read, or the failure of mboxlist_init: nothing handed out.
int mboxlist_findall_getshared(const struct auth_state *auth, char ***list);

// Which stages pattern can reach, as flags to OR in: MBOXLIST_FIND_NOFIRST
// when it lies inside "Shared Folders/" (a folder of one's own can't be
// named so), MBOXLIST_FIND_NOSHARED when it can't reach that prefix, 0 for
// both (and for a null pattern).
int mboxlist_findall_type(const char *pattern);

// The first wildcard of text ("*" or "%"; with regex also one of
// . \ + ? | ^ $ ( [ {), or null.
const char *regexpstart(const char *text, int regex);

// Counts a user's folders (inbox included) into *count, for the folder
// limit local.store.maxfolders. 0 or the failure of mboxlist_findall.
int mboxlist_count_folders(const char *userid, int *count);
// A mboxlist_findall callback that adds 1 to the int at rock.
int mbox_count(const char *name, int matchlen, int childinfo, const char *row, void *rock);

#endif

// Folder create and delete in the folder database: who may, under which
// ACL, on which partition, within which limits, and in an order that a
// crash at any point leaves safe. Create writes the folder's files first
// and its row last; delete removes the rows first and the files last. So a
// row always has its files, and what a crash can leave is files without a
// row, which the next create of that name takes over.
//
// Creates and deletes are serialized by named locks in the lock
// environment (mboxlist_lockenv), taken before any transaction of the main
// environment and held across the file work and the transaction:
//   "user_" + user id   all folders of one user
//   "sharedfolders"     all folders outside "user/"
//   "mbox_" + name      one folder
// A single-folder operation takes its user (or "sharedfolders") shared and
// the folder exclusively; a whole-user operation takes the user
// exclusively.
//
// Configuration: local.store.maxfolders (largest number of folders of one
// owner, 0: no limit), store.defaultacl (ACL of a new folder outside
// "user/" without parent, pairs of identifier and rights separated by
// blanks; default "anyone lrs"), store.defaultpartition (default
// "primary"), local.store.pin (folder paths below a user's root, separated
// by "%", that only a site administrator may delete).
#ifndef STORE_MBOXLIST_CREATE_H
#define STORE_MBOXLIST_CREATE_H

#include <stdint.h>
#include <time.h>

struct auth_state;

// Buffer of a lock object's text.
#define MBOXLIST_LOCK_OBJECT_SIZE 266
// Longest partition name.
#define MBOXLIST_PARTITION_MAX 70
// Scratch buffers of mboxlist_deletemailbox_internal.
#define MBOXLIST_PATH_BUFFER 1040
#define MBOXLIST_CHILD_BUFFER 272

// Takes the named locks for name (and, for a whole-user operation, for
// name2 as well; name2 must be null otherwise) under a new locker id in
// *locker. Waits; a deadlock gives up everything held and tries again.
// 0 or the failure of the lock environment (nothing held then).
int mboxlist_lock_create(uint32_t *locker, const char *name, const char *name2, int wholeuser);
// Releases every lock of the locker and frees its id.
void mboxlist_unlock_create(uint32_t locker);

// Decides whether name may be created, changing nothing. partition (may
// be null) is a site administrator's choice. On success *newacl (if asked
// for) gets the ACL the folder would have: the nearest existing parent's;
// for a user's root the user it is named for with all rights, whoever
// asks; otherwise store.defaultacl. *newpartition (if asked for) gets the
// given partition, else the parent's, else store.defaultpartition. The
// caller frees both; both are null on failure.
// 0, IMAP_PARTITION_UNKNOWN, IMAP_MAILBOX_BADNAME, IMAP_MAILBOX_NOTSUPPORTED,
// IMAP_PERMISSION_DENIED or IMAP_MAILBOX_EXISTS; IMAP_MAILBOX_EXHAUSTED
// when the owner has local.store.maxfolders folders already; or the
// failure of a lookup (IMAP_IOERROR ...): a row that can't be read is
// never taken for a missing one.
int mboxlist_createmailboxcheck(const char *name, unsigned version, const char *partition,
                                const char *userid, const struct auth_state *auth,
                                char **newacl, char **newpartition);

// Creates folder name: the check, then the files (not for
// MAILBOX_VERSION_DBONLY, whose files come with the first open), then in
// one transaction the row and, for a new user's root, its quota row with
// the limits storagequota (kilobytes) and msgquota (0xFFFFFFFF: none).
// A null acl takes the ACL of the check; uidvalidity 0 means now.
// 0; IMAP_MAILBOX_EXISTS when the files of a folder with messages were
// found without a row and registered anew with their counters; or an
// error of the check, of the files, or IMAP_IOERROR (the files stay for
// the next create to take over). Waits for the folder's named locks.
int mboxlist_createmailbox(const char *name, unsigned version, const char *partition,
                           const char *userid, const struct auth_state *auth,
                           uint32_t storagequota, uint32_t msgquota, time_t uidvalidity,
                           const char *acl);

// The pin check: IMAP_MAILBOX_PINNED if the folder's path below its user's
// root equals an entry of local.store.pin and the state is no site
// administrator, else 0.
int mboxlist_deletemailboxcheck(const char *name, const struct auth_state *auth);

// Deletes folder name; a user's root takes all of the user's folders, its
// quota row and subscriptions with it. auth_dontCheckAcl checks nothing.
// 0, IMAP_MAILBOX_NONEXISTENT, IMAP_PERMISSION_DENIED,
// IMAP_MAILBOX_NOTSUPPORTED (a user deleting its own root),
// IMAP_MAILBOX_PINNED, or IMAP_IOERROR: the row could not be read (nothing
// changed), the rows could not be removed (nothing changed), or the
// database log could not be written after their removal (the files stay,
// and should the rows be gone, the next create takes the files over).
// Once the rows are gone for good, failures to remove files are only
// logged. Deleting a user stops at the first child that fails; the
// children deleted before it stay deleted.
int mboxlist_deletemailbox(const char *name, const char *userid, const struct auth_state *auth);

// The work of mboxlist_deletemailbox. isadmin: -1 (no checks at all), 0,
// or auth_adminFor of the state for the owner. path and mpath
// (MBOXLIST_PATH_BUFFER bytes each) and child (MBOXLIST_CHILD_BUFFER) are
// scratch shared by the recursion over a user's folders. The locks are
// taken only when recursive is 0.
int mboxlist_deletemailbox_internal(const char *name, int isadmin, const char *userid,
                                    const struct auth_state *auth, int checkacl, char *path,
                                    char *mpath, char *child, int recursive);

#endif

// Folder rename: one operation for four wishes, told apart by the names.
//
//   - a folder with all its children gets a new name ("user/fred/a" to
//     "user/fred/b" moves "user/fred/a/x" too, not "user/fred/ab");
//   - a folder moves to another partition under the same name (a site
//     administrator, with a partition given);
//   - a user's inbox hands its messages to a new folder and stays, empty
//     ("user/fred" to "user/fred/old"); its children stay where they are;
//   - a whole user gets a new id ("user/fred" to "user/george", a site
//     administrator): folders, quota row, subscriptions and the rights that
//     other users' folders give fred move with it.
//
// One folder at a time, each in a transaction of its own, in a crash-safe
// order: the new files are made first, then the rows change, then the old
// files go. A crash leaves either the old folder whole or both copies,
// never neither; between folders the rename simply stops, and renaming the
// rest (the same call again) completes it. The whole-user named locks of
// both names keep creates, deletes and other renames out meanwhile.
#ifndef STORE_MBOXLIST_RENAME_H
#define STORE_MBOXLIST_RENAME_H

#include <db.h>

struct auth_state;

// Renames oldname (and its children) to newname, on partition when given.
// userid (may be null) is the caller's id; auth its rights
// (auth_dontCheckAcl: no checks). 0, IMAP_MAILBOX_NONEXISTENT,
// IMAP_MAILBOX_EXISTS (same name without a partition move),
// IMAP_MAILBOX_BADNAME (a new name too long for a child),
// IMAP_MAILBOX_NOTSUPPORTED, IMAP_PERMISSION_DENIED,
// IMAP_PARTITION_UNKNOWN, a refusal of the create check of the new name,
// or IMAP_IOERROR. Folders renamed before a failure stay renamed.
int mboxlist_renamemailbox(const char *oldname, const char *newname, const char *partition,
                           const char *userid, const struct auth_state *auth);

// Rewrites *acl with the entries of oldid under newid (a negative entry
// keeps its "-"). 0; 1 when oldid doesn't occur (the text stays).
int acl_renameuser(char **acl, const char *oldid, const char *newid);
// Moves olduser's rows of subscr.db to newuser under txn; a subscription to
// one of olduser's own folders becomes the same folder of newuser. 0 or a
// Berkeley DB code.
int mboxlist_renamesub(DB_TXN *txn, const char *olduser, const char *newuser);
// Renames olduser to newuser in the ACL of every folder that olduser's
// lright.db row lists, and moves the row, under txn. 0 or an error.
int mboxlist_renameacl(DB_TXN *txn, const char *olduser, const char *newuser);

#endif

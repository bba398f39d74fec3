// Access control of folders and the rights list "lright.db".
//
// Every folder's ACL lives twice, in its "folder.db" row and in the
// variable header of its "store.idx"; mboxlist_setacl changes both under
// the folder's index lock, in one transaction with "lright.db". The owner
// of a user's folder (fred on user/fred and user/fred/x) always keeps
// lookup, create and administer (ACL_OWNER) while
// local.store.ensureownerrights is on: mboxlist_ensureOwnerRights is the
// check that every ACL change of such a folder passes through.
//
// "lright.db" is an inverted index of the ACLs: the row of an identifier
// lists the folders that it may look up without owning them, so that the
// listing of shared folders needn't read every ACL. A folder stands in the
// row of identifier exactly when its ACL has a positive entry of that
// identifier (as written in the ACL) whose rights hold lookup ("l"), and
// the identifier doesn't own the folder (mboxname_userownsmailbox). This
// holds for folders without owner too. The row is the identifier with its
// NUL as key and the folder names, each with its NUL, as value, in no
// order; a row never has an empty value.
//
// The index changes in the transaction that changes the folder's row:
// create and delete (mboxlist_create.cc) call mboxlist_changeshared, a
// rename calls it with MBOXLIST_LRIGHT_RENAME. It is redundant: a stale
// row gives no access (the listing tests the folder's ACL), and
// mboxlist_fixlright_add, mboxlist_fixlright_sub and mboxlist_repair_lright
// bring it back in line with the ACLs.
//
// A deadlock inside a change of "lright.db" comes back as DB_LOCK_DEADLOCK
// to the caller's transaction loop, which runs the whole transaction
// again; any other failure of the database is IMAP_IOERROR, logged once
// where it is found.
//
// DIAGNOSTICS: nothing here ends the process, but the first use of the
// database in a process runs mboxlist_init, which may.
#ifndef STORE_MBOXLIST_ACL_H
#define STORE_MBOXLIST_ACL_H

#include <db.h>
#include <stdint.h>

struct auth_state;

// Operations on the rows of "lright.db".
enum mboxlist_lright_op {
    MBOXLIST_LRIGHT_REMOVE = 0,  // the folder leaves the row
    MBOXLIST_LRIGHT_ADD = 1,     // the folder joins the row
    MBOXLIST_LRIGHT_RENAME = 2,  // the folder's old name leaves, its new name joins
};

// The canonproc of acl_modify and acl_remove for the folder named by rock
// (a const char *): mask with ACL_OWNER added when identifier owns the
// folder (name "user/" + identifier, then "/" or its end; an identifier
// with "/" never does) and local.store.ensureownerrights is on; otherwise
// mask unchanged.
int mboxlist_ensureOwnerRights(void *rock, const char *identifier, int mask);

// Changes identifier's entry ("-id": the negative entry) in the ACL of
// folder name: rights null removes it, "+letters" adds, "-letters" takes
// away, other letters replace. userid (may be null: an administrator with
// no id) and auth say who asks: the owner (with ensureownerrights on) and
// an administrator of the owner (auth_adminFor; of the site for a folder
// without owner) may always, anyone else needs ACL_ADMIN. Row, index
// header and "lright.db" change together; level 6 logs the change.
// 0; IMAP_MAILBOX_NONEXISTENT (no row, or the caller may not even look the
// folder up); IMAP_PERMISSION_DENIED; IMAP_INVALID_IDENTIFIER; the failure
// of mailbox_open or of the index lock; IMAP_IOERROR (logged, nothing
// changed).
int mboxlist_setacl(const char *name, const char *identifier, const char *rights,
                    const char *userid, const struct auth_state *auth);

// Reads identifier's row into *list (a new buffer the caller frees) and
// *size. Under txn the read is for update and a deadlock comes back;
// without, a deadlock is retried. A value whose last name lacks its NUL is
// cut back to the last whole name. The Berkeley DB code (0, DB_NOTFOUND,
// ...), or the failure of mboxlist_init; *list null and *size 0 unless 0.
int mboxlist_lookup_lright(const char *identifier, char **list, uint32_t *size, DB_TXN *txn);

// Applies op to the names in *list (*size bytes, reallocated when it
// grows): ADD appends name unless it is there; REMOVE takes name out;
// RENAME takes name out and appends newname unless it is there. 1 if the
// list changed, else 0.
int mboxlist_modifylright(const char *name, const char *newname, int op, char **list,
                          uint32_t *size);

// Applies op to identifier's row under txn: a missing row is made for ADD
// and RENAME, a row left empty is deleted, nothing is written when nothing
// changes. 0, DB_LOCK_DEADLOCK (unlogged: the caller repeats its
// transaction), or IMAP_IOERROR (logged).
int mboxlist_changelright(const char *identifier, const char *name, const char *newname, int op,
                          DB_TXN *txn);

// Applies op for folder name (renamed to newname for RENAME, else null)
// to the row of every identifier that acl lets look it up, except the
// owner (may be null) and identifiers that own the folder. On a rename
// that makes the folder an identifier's own, the identifier loses the old
// name and gains nothing. 0 or the first failure of mboxlist_changelright.
int mboxlist_changeshared(const char *acl, const char *owner, const char *name,
                          const char *newname, int op, DB_TXN *txn);

// Adds name to identifier's row in a transaction of its own. 0 or
// IMAP_IOERROR.
int mboxlist_addlright(const char *identifier, const char *name);

// Calls back for every row of "lright.db" in key order with the identifier,
// the list, its size and rock; the callback's result is not used, and it
// may change "lright.db" (no cursor is held across it). 0 or IMAP_IOERROR
// (logged).
typedef int mboxlist_lright_cb(const char *identifier, const char *list, uint32_t size,
                               void *rock);
int mboxlist_findlright(mboxlist_lright_cb *callback, void *rock);

// Repairs from the folder's side: adds name to the row of each identifier
// that its ACL lets look it up and whose row lacks it (a name such as
// user/fred/INBOX stands for user/fred). 0 nothing changed (also for a
// folder without row), 1 something added, -1 an addition failed.
int mboxlist_fixlright_add(const char *name);

// Repairs from the index's side: a name in identifier's row (list, size as
// mboxlist_findlright gives them) is stale if identifier owns it, it has no
// folder row, or its ACL doesn't let identifier look it up. Without stale
// names (and a list not empty) 0; else the row is read again and rewritten
// without them in one transaction: 1, DB_NOTFOUND when the row has gone
// meanwhile, or IMAP_IOERROR.
int mboxlist_fixlright_sub(const char *identifier, const char *list, uint32_t size);

// Brings all of "lright.db" in line with the ACLs of "folder.db":
// mboxlist_fixlright_add for every folder, then mboxlist_fixlright_sub for
// every row. *changed (may be null) gets the number of folders and rows
// that were repaired. 0, or IMAP_IOERROR (logged) when a walk or a repair
// failed; the repairs done stay.
int mboxlist_repair_lright(int *changed);

#endif

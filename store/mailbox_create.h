// The files of a folder as a whole: creating a folder's directory and
// "store.idx", removing all of a folder's files, the three steps of a
// rename (copy, then keep one side), and copying message files by hard
// link with a fallback to a real copy.
//
// Who may do these things, and the rows of the folder database, are the
// business of the callers (mboxlist_createmailbox, mboxlist_deletemailbox,
// the rename of folders); they call in here at fixed points.
#ifndef STORE_MAILBOX_CREATE_H
#define STORE_MAILBOX_CREATE_H

#include <time.h>

#include "store/mailbox.h"

// Record slots of a new "store.idx" (7600 bytes of zeros behind the
// variable header), and the first record's offset in a new file.
#define MAILBOX_CREATE_SLOTS 100
#define MAILBOX_CREATE_START 256

// Creates the folder directory path (and the message directory mpath, if
// given and not empty) and a new "store.idx" with the given ACL, version
// and uidvalidity (0: the current time), and the folder's per-user record.
// With a handle, the handle is left open on the new file (mapped, not
// locked); without one, everything is closed again.
//
// A live folder already there ("store.idx" larger than 80 bytes whose
// summary counts messages) is not touched: the result is
// IMAP_MAILBOX_EXISTS, and a given handle is open on it with the file's
// counters, the given ACL and all rights. A file that another creator is
// writing at the same time also gives IMAP_MAILBOX_EXISTS. An empty or
// partial file, or a folder without messages, is replaced.
//
// 0, IMAP_MAILBOX_EXISTS, IMAP_MAILBOX_BADNAME (path too long),
// IMAP_IOERROR, or the failure of the per-user record. A failure removes
// what was made, and the handle is closed.
int mailbox_create(const char *name, const char *partition, const char *path, const char *mpath,
                   const char *acl, unsigned version, struct mailbox *mailbox,
                   time_t uidvalidity);

// Removes the folder's files: message directories "00".."99", the per-user
// data unless keep_peruser, every file of the folder directory, then the
// emptied directories up the path (never the partition's own directory).
// Goes on over failures; closes the handle. Always 0.
int mailbox_delete(struct mailbox *mailbox, int keep_peruser);

// First step of a rename: takes the index lock of old (held until commit
// or abort), creates the new folder, and gives it old's index file and
// message files, hard-linked or copied. With owner_changed the caller has
// put the new ACL into old->acl, and the new folder's index carries it.
// *out is a new handle without open file whose mbd and hdr are valid.
// 0 or an error; on failure nothing of the new folder is left.
int mailbox_rename_start(struct mailbox *old, const char *newname, const char *partition,
                         const char *path, const char *mpath, int owner_changed,
                         struct mailbox **out);
// Second step, after the database has committed: removes the old folder's
// files (keeping its per-user data when only the partition changes) and
// old takes over the new handle, which is freed. With keep_old the old
// folder stays in being, emptied by an expunge that writes its "store.idx"
// anew (a renamed inbox: its messages moved into a folder of the same
// quota root, so the root is not charged), and keeps its ACL.
int mailbox_rename_commit(struct mailbox *old, struct mailbox *newmb, int keep_old);
// Second step after the database refused: removes the new folder's files
// and frees the handle.
int mailbox_rename_abort(struct mailbox *newmb);

// Gives target the content of source, by hard link if possible, else by a
// copy. A target that exists is replaced; a missing directory of the
// target is made. 0 or IMAP_IOERROR.
int mailbox_copymsgfile(const char *source, const char *target);
// The same for a file whose directory exists.
int mailbox_copyfile(const char *source, const char *target);

// The decision of an expunge that removes every message: always 1.
int expungeall(void *rock, const struct index_record *record);

#endif

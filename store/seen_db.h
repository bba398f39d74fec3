// Per-user seen and deleted state: the database "peruser.db".
//
// Each user of a folder has a record of their own, and each folder has one
// record that tells when any of its users last changed:
//
//   key "NAME"            value: 4 bytes, host-order 32-bit time of the last
//                         change (1 after seen_create and seen_copy, 0 after
//                         a rebuild from "store.usr")
//   key "NAME\tUSER"      value: the text "%lu %u %lu %s" of lastread,
//                         recentuid, lastchange and the two uid lists
//
// Keys carry no terminator. The two lists, seen then deleted, are separated
// by one blank; each is a comma-separated ascending run of uids and ranges
// "a:b", possibly empty, possibly led by commas that readers skip. With no
// record for a pair the lists read as " ".
//
// A change of one pair runs under a mutex shared by all processes of the
// host, named after the pair: seen_open, seen_lockread, seen_write,
// seen_close. A read is seen_open, seen_lockread, seen_unlock, seen_close.
// The mutex is taken inside the folder's index lock, never around it.
#ifndef STORE_SEEN_DB_H
#define STORE_SEEN_DB_H

#include <db.h>
#include <stdint.h>
#include <time.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"

struct db_globalmutex;

extern DB *userflagdb;

// The handle of one pair of folder and user.
struct seen {
    struct mailbox *mailbox;        // the open folder, not owned
    char *user;                     // copy of the user id
    struct db_globalmutex *mutex;   // named by keybuf
    char *keybuf;                   // "NAME\tUSER peruser"
    DBT folderkey;                  // "NAME" inside keybuf
    DBT userkey;                    // "NAME\tUSER" inside keybuf
};

// A run of uids, low to high; a single uid has both equal. Arrays of
// ranges end with SEEN_RANGE_END in both words.
struct seen_range {
    uint32_t low;
    uint32_t high;
};
#define SEEN_RANGE_END 0xFFFFFFFFu

// The whole per-user state of one user in one folder, in searchable form.
struct PerUserFlags {
    unsigned recentuid;
    time_t lastread;
    time_t lastchange;
    struct seen_range *seen;     // null or terminated array
    struct seen_range *deleted;  // null or terminated array
    int nseen;                   // entries of seen, terminator included
    int ndeleted;                // entries of deleted, terminator included
};

// ---- the database -------------------------------------------------------

int seen_init(DB_ENV *env, const char *file, mboxlist_key_compare_fn cmp, mboxlist_key_prefix_fn prefix);
void seen_shutdown(void);

// ---- one pair of folder and user ----------------------------------------

// Makes the handle; rebuilds the folder's records from "store.usr" if the
// folder has no record yet. Always 0.
int seen_open(struct mailbox *mailbox, const char *user, struct seen **seendb);
// Takes the mutex (unless held) and reads the record. Each output may be
// null; *seenuids becomes an allocated copy of the two lists and their
// separating blank, which the caller frees. 0, IMAP_MAILBOX_LOCKED or
// IMAP_IOERROR (the mutex is given up then).
int seen_lockread(struct seen *seendb, time_t *lastread, unsigned *recentuid,
                  time_t *lastchange, char **seenuids);
// Writes the record and stamps the folder's record with the current time.
// The mutex stays held. 0 or IMAP_IOERROR.
int seen_write(struct seen *seendb, time_t lastread, unsigned recentuid, time_t lastchange,
               const char *seenuids);
void seen_unlock(struct seen *seendb);
// Releases the mutex if held and frees the handle.
void seen_close(struct seen *seendb);

// ---- whole folders ------------------------------------------------------

// Puts the folder's record with the value 1. 0 or IMAP_IOERROR.
int seen_create(struct mailbox *mailbox);
// Removes the folder's record and all its users' records; with remove_file
// also "store.usr" in the folder's directory. 0 or IMAP_IOERROR.
int seen_delete(struct mailbox *mailbox, int remove_file);
// Copies the records of oldmailbox to the name of newmailbox within the
// caller's transaction; with rename_user the record of olduser goes to
// newuser. 0, IMAP_IOERROR, or DB_LOCK_DEADLOCK, which the caller's
// transaction loop answers by running its whole work again.
int seen_copy(DB_TXN *txn, struct mailbox *oldmailbox, struct mailbox *newmailbox,
              int rename_user, const char *olduser, const char *newuser);

// ---- read-only form -----------------------------------------------------

// Reads the state of user in mailbox into *flags (arrays owned by *flags,
// freed by freeUserFlags). 0 or the error of seen_lockread.
int getPerUserFlags(struct mailbox *mailbox, const char *user, struct PerUserFlags *flags);
void freeUserFlags(struct PerUserFlags *flags);
// 1 if uid lies in the seen (deleted) ranges, else 0; 0 with no array.
int isSeen(const struct PerUserFlags *flags, uint32_t uid);
int isDeleted(const struct PerUserFlags *flags, uint32_t uid);
// Turns one list of text into a terminated array of ranges (*array, with
// *count entries, terminator included). A garbled list is logged and kept
// up to the bad element. Gives the position behind the blank that ended
// the list, or null (also for a null or empty text, which leaves the
// outputs as they are).
const char *scanFlags(const char *text, struct seen_range **array, int *count,
                      struct mailbox *mailbox);

// ---- the file "store.usr" -----------------------------------------------

// Rebuilds the folder's records from "store.usr" in the folder's
// directory; with no such file only the folder's record is made.
int seen_recoverFromFile(struct mailbox *mailbox);

typedef void (*seen_active_cb)(void *rock, const char *user);
// Judges one record value [start, end) against the folder's last_uid, the
// clock now, active_since and cutoff (times; cutoff 0 is off). Result 0: the
// value is good as it is. Result 1: it must change, into the allocated
// *out (the caller frees it), or, with *out null, the record goes.
int seen_fixdata(char **out, const char *start, const char *end, unsigned last_uid, time_t now,
                 time_t active_since, time_t cutoff, const char *user,
                 seen_active_cb active_callback, void *rock);

#endif

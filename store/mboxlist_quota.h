// Quota: the rows of "quota.db", one per quota root.
//
// A folder's quota root is the first two components of its name, so all of
// a user's folders share the root "user/<id>". The row keeps the limits
// (kilobytes and messages, 0xFFFFFFFF for none), the bytes and messages in
// use, and the root's state: over_since is the time at which usage reached
// the threshold (0 while below it), warned the time of the last warning
// message.
//
// Usage follows every delivery (append_finish), expunge and folder delete;
// the refusal of a delivery over a limit is append_setup's, on the row kept
// here. Whenever usage or limits change, the caller runs
// mboxlist_adjustquotastatus, which notices a crossing of the threshold in
// either direction: it stamps over_since, notifies the plug-ins, delivers
// a warning message into the user's inbox (at most once per
// store.quotaexceededmsginterval days), and with
// local.store.overquotastatus sets the user's mailuserstatus in the
// directory to "overquota" and back to "active".
//
// The threshold is store.quotawarn percent (default 90) of either limit,
// or 100 percent when local.store.quotaoverdraft or
// local.store.overquotastatus is on.
//
// Every writer runs in a transaction of its own (or the caller's) and is
// repeated from the start on a deadlock. Results are 0 or store codes
// unless told otherwise.
#ifndef STORE_MBOXLIST_QUOTA_H
#define STORE_MBOXLIST_QUOTA_H

#include <db.h>
#include <stdint.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"

struct append_state;

// The "keep" value of a limit for mboxlist_fixquota.
#define QUOTA_KEEP 0xFFFFFFFDu

// Set by a rebuild of the folder database from disk: mboxlist_fixquota
// stores it in last_dbrepair. 0 in an ordinary run.
extern uint32_t mboxlist_fixquota_reconstructed;

// Finds the quota root of folder name and reads its row (no transaction).
// With root, *root gets the root's name as a new string (the caller frees
// it) on success. 0, IMAP_QUOTAROOT_NONEXISTENT (no root or no row), or
// IMAP_IOERROR (logged).
int mboxlist_getquotaroot(const char *name, struct quotadata *quota, char **root);
// Sets both limits of root's row and brings its state up to date, as a new
// limit may cross the threshold either way. 0, IMAP_QUOTAROOT_NONEXISTENT
// (no row), IMAP_IOERROR (logged).
int mboxlist_setquota(const char *root, uint32_t limit, uint32_t limit_messages);
// Changes the usage of name's root by delta bytes (low and high word) and
// count messages, added or (subtract) taken away with a floor of 0, in a
// transaction of its own; *quota gets the new row. A root without a row
// gets one. mbd is not used. 0, IMAP_QUOTAROOT_NONEXISTENT (a name with no
// root), IMAP_IOERROR (logged).
int mboxlist_changequota(const char *name, const struct mboxdata *mbd, uint32_t delta_low,
                         uint32_t delta_high, unsigned count, int subtract,
                         struct quotadata *quota);
// The same inside the caller's transaction txn (both txn and quota are
// required). The Berkeley DB code of the put, DB_LOCK_DEADLOCK included,
// for the caller's loop.
int mboxlist_changequota_internal(const char *name, uint32_t delta_low, uint32_t delta_high,
                                  unsigned count, DB_TXN *txn, int subtract,
                                  struct quotadata *quota);
// Brings the state of name's root up to date: decides the crossing on the
// row as stored, notifies, sends a warning when one is due (through as
// when its folder is the inbox), and sets the directory status. quota, when
// given, is the caller's copy of the row; it is updated. Mode 0 is the
// ordinary case; 1 and 2 (from mboxlist_fixquota, 2 when forced) set the
// directory status again from the row. *changed (if given) becomes 1 when
// the state or the directory status changed. 0, or IMAP_IOERROR when the
// row can't be read or written; a directory that can't be reached is only
// logged.
int mboxlist_adjustquotastatus(const char *name, struct append_state *as,
                               struct quotadata *quota, int mode, int *changed);
// Decides the state change of a row against its threshold and applies it
// to the row (not stored): 1 the root has just gone over (over_since set),
// -1 it has just fallen below (over_since and warned cleared), 0 no change.
int mboxlist_setqwhen(struct quotadata *quota);
// Sends the warning message for root when one is due: the root is over,
// store.quotanotification is on, and no warning went out within
// store.quotaexceededmsginterval days. 0 when none was due or it was
// delivered; otherwise non-zero (logged).
int mboxlist_sendquotawarning(const char *root, struct append_state *as,
                              const struct quotadata *quota);
// Stamps the time of a warning in root's row. 0, IMAP_QUOTAROOT_NONEXISTENT,
// IMAP_IOERROR.
int mboxlist_warnquota(const char *root);
// Changes the owner of root's mailuserstatus in the directory from oldstatus
// to newstatus (case does not matter); any other status is left alone.
// *changed (if given) becomes 1 on a change. 0, -1 (no entry), or the
// directory's number (logged).
int set_overquotastatus(const char *root, const char *oldstatus, const char *newstatus,
                        int *changed);
// Rebuilds root's usage from the folder rows of its folders, and takes new
// limits (QUOTA_KEEP keeps one); the row is written only when something
// differs. Then brings the state up to date (mode 2 with force, else 1).
// *changed (if given) says whether the row changed. 0,
// IMAP_MAILBOX_NONEXISTENT (the root's folder has no row), IMAP_IOERROR, or
// a Berkeley DB code.
int mboxlist_fixquota(const char *root, int *changed, uint32_t limit, uint32_t limit_messages,
                      int force);
// Records a use of user's store: access_other becomes now, and a (when not
// 0) and b are kept when a differs from the stored one or b is above it.
// 0 or IMAP_IOERROR.
int mboxlist_setlastuse(const char *userid, uint32_t a, uint32_t b);

#endif

// Subscriptions: which folders a user has subscribed to.
//
// A user's subscriptions are rows of "subscr.db", kept together by the key
// order: a change row (user id, NUL; value the 32-bit time of the last
// change) and one name row per folder (user id, NUL, folder name, NUL;
// empty value). A plain text copy, "store.sub" in the directory of the
// user's inbox, holds the folder names one per line in key order. The copy
// travels with the user's files: when the database has lost a user's rows
// (no change row), the first change or listing loads them back from it, or
// from the old subscription file (store directory + "/user" + fan-out of
// the id + id + ".sub", where a line may end in TAB, LF).
//
// A user who has a change row is never loaded again, even when every name
// row is gone: the rows are the truth, the file their copy. The copy lags
// behind the rows until the next mboxlist_checkpointSubs; a pass writes
// "subscr.new" and renames it over "store.sub", so a reader sees the old
// or the new copy whole, and a failed pass leaves the old one. The data is
// flushed and the rename made durable at the sync level of
// local.store.subscribesynclevel (or local.store.synclevel; default 1).
//
// All writes are transactions that are redone while Berkeley DB answers
// with a deadlock. The removal of a user's rows with the user is
// mboxlist_delete_subscriptions (store/mboxlist.h).
//
// DIAGNOSTICS: failures are logged at level 59 (60 for the repairs of
// mboxlist_fixsub); nothing here ends the process, but the first use of the
// database in a process runs mboxlist_init, which may.
#ifndef STORE_MBOXLIST_SUBS_H
#define STORE_MBOXLIST_SUBS_H

#include <stddef.h>

#include <time.h>

// Flags of mboxlist_changesub.
#define MBOXLIST_SUB_ADD 1        // subscribe; without it, unsubscribe
#define MBOXLIST_SUB_RAWERROR 2  // hand any failure back as the raw code

// Subscribes userid to name, or unsubscribes (the folder needn't exist; the
// name isn't checked). unused is not read. Loads the user's rows from the
// copy first when they are missing. A request that changes nothing leaves
// the change row alone. 0 (also for subscribing twice and for removing what
// isn't there), or IMAP_IOERROR (logged); with MBOXLIST_SUB_RAWERROR the
// failure itself instead: DB_KEYEXIST, DB_NOTFOUND, IMAP_IOERROR,
// IMAP_MAILBOX_BADNAME for a name and id too long for a key, or another
// Berkeley DB code, nothing logged.
int mboxlist_changesub(const char *name, const char *userid, const char *unused, int flags);

// Whether userid is subscribed to name: 0 subscribed, DB_NOTFOUND not, -1
// when the database can't be started, or another Berkeley DB code. One read
// without a transaction; a deadlock is retried. Does not load from the copy.
int mboxlist_lookup_subs(const char *userid, const char *name);

// Repairs userid's name rows in one transaction: a row whose folder name
// mboxname_policycheck refuses is removed, a row whose key is longer or
// shorter than its two NUL-terminated parts is written again with the
// right size (where that row exists already, the damaged one just goes).
// *changed is 1 when a row was removed or rewritten, else 0. 0, a Berkeley
// DB code, or IMAP_IOERROR when no transaction can be begun.
int mboxlist_fixsub(const char *userid, int *changed);

// Writes userid's copy "store.sub" from the rows, when they changed at or
// after since; when the change is older than before and "store.sub" is
// newer than the change, the copy is up to date and stays. Reads without a
// transaction. Failures are logged; "store.sub" is then as it was.
void mboxlist_checkpointSubs(const char *userid, time_t since, time_t before);

// When userid has no change row, loads the rows from "store.sub" (change
// time 0) or else from the old subscription file (change time now); with
// neither, nothing happens and the user starts with no subscriptions.
// Costs one read when the rows are there. Failures are logged.
void mboxlist_maybeRecoverSubsFromFile(const char *userid);

// The path of userid's old subscription file (store directory + "/user",
// the id's fan-out, id + ".sub") into path. 0, or -1 when the store
// directory is unknown or the path doesn't fit.
int mboxlist_oldsub_path(const char *userid, char *path, size_t size);

#endif

// Quota rows of "quota.db": reading a folder's quota root, and the calls by
// which delivery and expunge settle usage.
//
// Reading is complete. Usage accounting (changing a root's usage, the over
// and under quota state, warnings and the directory status) comes with the
// quota module; until then mboxlist_changequota reads the row and charges
// nothing, and mboxlist_adjustquotastatus changes nothing, so that callers
// already make the calls at the places where usage will change.
#ifndef STORE_MBOXLIST_QUOTA_H
#define STORE_MBOXLIST_QUOTA_H

#include <stdint.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"

struct append_state;

// Finds the quota root of folder name and reads its row (no transaction).
// With root, *root gets the root's name as a new string (the caller frees
// it) on success. 0, IMAP_QUOTAROOT_NONEXISTENT (no root or no row), or
// IMAP_IOERROR (logged).
int mboxlist_getquotaroot(const char *name, struct quotadata *quota, char **root);
// A change of usage of name's root by delta bytes (low and high word) and
// count messages, added or (subtract) taken away; *quota gets the row.
// Charges nothing yet: *quota gets the row as it stands (zeros with no
// message limit where there is none). 0 or IMAP_IOERROR.
int mboxlist_changequota(const char *name, const struct mboxdata *mbd, uint32_t delta_low,
                         uint32_t delta_high, unsigned count, int subtract,
                         struct quotadata *quota);
// Brings the root's over-quota state, warning and directory status up to
// date. Changes nothing yet: 0.
int mboxlist_adjustquotastatus(const char *name, struct append_state *as,
                               struct quotadata *quota, int mode, int *changed);

#endif

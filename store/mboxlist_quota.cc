// Quota rows: reading, and the usage calls of delivery and expunge (which
// charge nothing until the quota module accounts usage; see the header).
#include "store/mboxlist_quota.h"

#include <db.h>
#include <stdlib.h>
#include <string.h>

#include "store/imap_err.h"
#include "support/log.h"
#include "support/xmalloc.h"

int mboxlist_getquotaroot(const char *name, struct quotadata *quota, char **root) {
    char *rootname = (char *)xmalloc(strlen(name) + 1);
    int r = mboxlist_quotaroot(name, rootname);
    if (r == 0) {
        r = mboxlist_lookup_quota(rootname, quota, nullptr);
        if (r == DB_NOTFOUND) {
            r = IMAP_QUOTAROOT_NONEXISTENT;
        } else if (r != 0) {
            svclog(nullptr, 59, "Unable to get quota root %s: %s", rootname, db_strerror(r));
            r = IMAP_IOERROR;
        }
    }
    if (r == 0 && root)
        *root = rootname;
    else
        free(rootname);
    return r;
}

int mboxlist_changequota(const char *name, const struct mboxdata *, uint32_t, uint32_t, unsigned,
                         int, struct quotadata *quota) {
    int r = mboxlist_getquotaroot(name, quota, nullptr);
    if (r == IMAP_QUOTAROOT_NONEXISTENT) {
        memset(quota, 0, sizeof(*quota));
        quota->limit_messages = 0xFFFFFFFF;
        r = 0;
    }
    return r;
}

int mboxlist_adjustquotastatus(const char *, struct append_state *, struct quotadata *, int,
                               int *changed) {
    if (changed) *changed = 0;
    return 0;
}

// Notifications of store events. No plug-in is loaded in this store yet
// (the loader comes with plug-in support), so each event ends here.
#include "store/storenotify.h"

void storenotify_append(struct mailbox *, int, const unsigned *, const char *const *,
                        const unsigned *, const unsigned *, const struct quotadata *) {}

void storenotify_expunge(struct mailbox *, int, const unsigned *, const struct quotadata *) {}

void storenotify_quota(const char *, const struct quotadata *, const char *) {}

// Notifications of store events to an outside plug-in.
//
// The store modules call a storenotify function at each event (messages
// appended, messages expunged, a quota root crossing its threshold). With no plug-in loaded every call returns
// at once; the programs of this store load none, so these calls cost
// nothing on the delivery path. The plug-in loader and its entry points
// join this module with the plug-in support.
#ifndef STORE_STORENOTIFY_H
#define STORE_STORENOTIFY_H

struct mailbox;
struct quotadata;

// count messages appended to mailbox: their uids, header texts, header
// sizes and sizes (null arrays stand for one empty entry).
void storenotify_append(struct mailbox *mailbox, int count, const unsigned *uids,
                        const char *const *headers, const unsigned *header_sizes,
                        const unsigned *sizes, const struct quotadata *quota);
// count messages expunged from mailbox, by uid.
void storenotify_expunge(struct mailbox *mailbox, int count, const unsigned *uids,
                         const struct quotadata *quota);
// The quota root passed its threshold ("OverQuota") or fell below it
// ("UnderQuota"); quota is its row.
void storenotify_quota(const char *root, const struct quotadata *quota, const char *event);

#endif

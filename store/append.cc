// Delivery of messages into folders: the append session (set-up with the
// partition, rights, limit and quota checks, and its finish), one message
// (append_msg) with its file step and single-copy table, and the per-user
// seen and deleted ranges that a session collects.
//
// Order of durable writes for one message: the message file (synced at the
// message sync level, which by default only starts writeback), the cache
// entry at the end of "store.idx", the record in the slot behind `exists`
// (both usually in a batch of messages), per-user data. None of them counts
// before append_finish writes the fixed header, after one barrier that
// makes all of them durable together.
#include "store/append.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mboxlist_quota.h"
#include "store/message.h"
#include "store/seen_db.h"
#include "store/storeassert.h"
#include "store/storenotify.h"
#include "store/storeutil.h"
#include "support/config.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/xmalloc.h"

const struct appendmsg zeroappendmsg = {};

// Most record slots that a caller's expectation adds to a growth.
#define APPEND_ROOM_HINT_MAX (1u << 20)

// Rights of myrights that delivery looks at.
#define RIGHT_LOOKUP 0x01
#define RIGHT_SEEN 0x04
#define RIGHT_WRITE 0x08
#define RIGHT_DELETE 0x80

static const char *folder_name(const struct mailbox *mailbox) {
    return mailbox->name ? mailbox->name : "";
}

// ---------------------------------------------------------------------------
// The partition full check
//
// A process that watches disk use writes "data/lock/partition.lck": one
// byte per partition id, "1" for a full partition. The file is mapped
// shared, so its bytes are read as the watcher writes them, without a lock.

static pthread_mutex_t partcheck_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t partcheck_exit_once = PTHREAD_ONCE_INIT;
static int partcheck_started;  // append_init has run (and append_exit not since)
static char **partList;
static int partCount;
static struct map *partLock;

static void partcheck_register_exit(void) { atexit(append_exit); }

int append_init(void) {
    pthread_mutex_lock(&partcheck_lock);
    if (partcheck_started || !config_get_switch(config_getdefaultcache(),
                                                "local.store.checkdiskusage", 1)) {
        partcheck_started = 1;
        pthread_mutex_unlock(&partcheck_lock);
        return 0;
    }
    partcheck_started = 1;
    pthread_once(&partcheck_exit_once, partcheck_register_exit);

    char **names = nullptr;
    int count = store_readpartitionId(&names);
    if (count > 0) {
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/data/lock/partition.lck", config_getinstancedir());
        struct map *m = map_open(path, count, 0, 0);
        if (m) {
            partList = names;
            partCount = count;
            partLock = m;
        } else {
            // No watcher has written the file: nothing is known to be full.
            svclog(nullptr, 63, "no partition full check: %s: %m", path);
            store_freepartition(names, count);
        }
    }
    pthread_mutex_unlock(&partcheck_lock);
    return 0;
}

void append_exit(void) {
    pthread_mutex_lock(&partcheck_lock);
    if (partList) store_freepartition(partList, partCount);
    map_free(partLock);
    partList = nullptr;
    partCount = 0;
    partLock = nullptr;
    partcheck_started = 0;
    pthread_mutex_unlock(&partcheck_lock);
}

// 0, IMAP_PARTITION_UNKNOWN or IMAP_PARTITION_FULL for the folder's partition.
static int partition_check(const struct mailbox *mailbox) {
    if (!partLock) return 0;
    int id = mailbox->partition ? store_partitionId(partList, partCount, mailbox->partition) : -1;
    if (id < 0) return IMAP_PARTITION_UNKNOWN;
    if ((size_t)id < partLock->len && partLock->base[id] == '1') return IMAP_PARTITION_FULL;
    return 0;
}

// ---------------------------------------------------------------------------
// The batch of index data
//
// A run of deliveries writes its cache entries and records in batches of
// about APPEND_BATCH_BYTES, two writes a batch instead of two a message.
// A message joins the batch only when the file holds room for its entry
// and record already: the free record slots are allocated once, and room
// behind the end of the file is allocated ahead in steps (size kept), so
// that writing a batch never needs new space. Where the file system can't
// allocate ahead, or the disk is full, messages are written one by one as
// before, and a full disk fails the message at hand. A batch that still
// can't be written (an I/O error) is taken back whole, as if its messages
// had failed: files, counters and per-user ranges.

// What append_msg must undo when a later step fails.
struct append_undo {
    off_t index_end;              // where the message's cache entry goes in "store.idx"
    uint32_t cache_offset;        // the cache area's offset that index_end refers to
    struct mboxdata mbd;          // the folder's counters before the message
    uint64_t added_bytes;
    unsigned added_messages;
    int newflags[MAX_USER_FLAGS]; // flag name slots that this message filled
    int nnewflags;
    const char *destination;      // the message file, once written
    int entry_written;            // its cache entry is in the file (not waiting in the batch)
};

#define APPEND_BATCH_BYTES (256 * 1024)
#define APPEND_BATCH_RECORDS 1024
#define APPEND_ROOM_STEP ((off_t)1 << 20)

// After the file was cut, rewritten or replaced: its end, its room and
// its slots are asked anew.
static void forget_file(struct append_state *as) {
    as->index_end = -1;
    as->room_end = -1;
    if (as->slots_held > 0) as->slots_held = 0;
}

// Allocates the folder's free record slots, once per file. 1 when held.
// A file system that can't allocate ahead is not asked again in the
// session (slots_held -1): its messages are written one by one.
static int hold_slots(struct append_state *as) {
    struct mailbox *mailbox = as->mailbox;
    if (as->slots_held) return as->slots_held > 0;
    off_t first = (off_t)mailbox->hdr.start_offset + (off_t)mailbox->mbd.exists * INDEX_RECORD_SIZE;
    off_t end = (off_t)mailbox->hdr.cache_offset;
    if (end > first && fallocate(mailbox->index_fd, FALLOC_FL_KEEP_SIZE, first, end - first) != 0) {
        if (errno == EOPNOTSUPP) as->slots_held = -1;
        return 0;
    }
    as->slots_held = 1;
    return 1;
}

// Room in the file up to end for waiting cache entries, allocated ahead
// in steps. 1 when held.
static int hold_room(struct append_state *as, off_t end) {
    if (as->room_end < as->index_end) as->room_end = as->index_end;  // written bytes are held
    if (end <= as->room_end) return 1;
    off_t step = end - as->room_end > APPEND_ROOM_STEP ? end - as->room_end : APPEND_ROOM_STEP;
    if (fallocate(as->mailbox->index_fd, FALLOC_FL_KEEP_SIZE, as->room_end, step) != 0) return 0;
    as->room_end += step;
    return 1;
}

// Gives back the room allocated behind the end of the file.
static void release_room(struct append_state *as) {
    if (as->index_end >= 0 && as->room_end > as->index_end)
        fallocate(as->mailbox->index_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, as->index_end,
                  as->room_end - as->index_end);
    as->room_end = -1;
}

// Takes the batch back: its message files go, the counters are those
// before it, and per-user ranges end at its first message.
static void undo_batch(struct append_state *as) {
    struct mailbox *mailbox = as->mailbox;
    for (unsigned i = 0; i < as->batch_count; i++) {
        char path[PATH_MAX];
        if (mailbox_message_path(mailbox, as->batch_records[i].uid, path, sizeof path) == 0 &&
            unlink(path) < 0 && errno != ENOENT)
            svclog(nullptr, 59, "Unable to remove message file %s: %m", path);
    }
    svclog(nullptr, 59, "%u messages delivered to %s are taken back: their index data was not written",
           as->batch_count, folder_name(mailbox));
    if (ftruncate(mailbox->index_fd, as->index_end) < 0)
        svclog(nullptr, 59, "Unable to cut index file of %s back: %m", folder_name(mailbox));
    unsigned kept = as->batch_mbd.last_uid;
    for (int idx = 0; idx < 2; idx++) {
        if (as->pending_first[idx] > kept)
            as->pending_first[idx] = as->pending_last[idx] = 0;
        else if (as->pending_last[idx] > kept)
            as->pending_last[idx] = kept;
    }
    mailbox->mbd = as->batch_mbd;
    as->added_bytes = as->batch_added_bytes;
    as->added_messages = as->batch_added_messages;
    as->batch_cache.len = 0;
    as->batch_count = 0;
    as->room_end = -1;
}

// Writes the waiting entries and records. 0, or IMAP_IOERROR after the
// batch was taken back.
static int flush_batch(struct append_state *as) {
    if (!as->batch_count) return 0;
    struct mailbox *mailbox = as->mailbox;
    int r = 0;
    if (retry_pwrite(mailbox->index_fd, as->batch_cache.base, as->batch_cache.len,
                     as->index_end) < 0) {
        svclog(nullptr, 59, "Unable to append cache for %s: %m", folder_name(mailbox));
        r = IMAP_IOERROR;
    } else {
        r = mailbox_append_index(mailbox, as->batch_records, as->batch_mbd.exists + 1,
                                 as->batch_count);
    }
    if (r) {
        undo_batch(as);
        return IMAP_IOERROR;
    }
    as->index_end += (off_t)as->batch_cache.len;
    as->batch_cache.len = 0;
    as->batch_count = 0;
    return 0;
}

// The index data of a message: its cache entry (in as->cache) at entry_at
// and its record in the slot behind the counted ones. It joins the batch
// when room for it is held; otherwise the batch is written and the
// message written on its own. 0, or IMAP_IOERROR: either this message
// alone failed (*alone set; its own undo follows) or the batch with it was
// taken back.
static int store_index_data(struct append_state *as, const struct index_record *record,
                            off_t entry_at, const struct append_undo *undo, int *alone) {
    struct mailbox *mailbox = as->mailbox;
    *alone = 0;
    size_t len = as->cache.len;
    if (hold_slots(as) && hold_room(as, entry_at + (off_t)len)) {
        if (as->batch_count == 0) {
            as->batch_mbd = undo->mbd;
            as->batch_added_bytes = undo->added_bytes;
            as->batch_added_messages = undo->added_messages;
        }
        if (as->batch_count == as->batch_alloc) {
            as->batch_alloc = as->batch_alloc ? as->batch_alloc * 2 : 64;
            as->batch_records = (struct index_record *)xrealloc(
                as->batch_records, as->batch_alloc * sizeof *as->batch_records);
        }
        as->batch_records[as->batch_count++] = *record;
        message_cachebuf_reserve(&as->batch_cache, len);
        memcpy(as->batch_cache.base + as->batch_cache.len, as->cache.base, len);
        as->batch_cache.len += len;
        if (as->batch_cache.len >= APPEND_BATCH_BYTES || as->batch_count >= APPEND_BATCH_RECORDS)
            return flush_batch(as);
        return 0;
    }
    int r = flush_batch(as);
    if (r) return r;
    *alone = 1;
    if (retry_pwrite(mailbox->index_fd, as->cache.base, len, entry_at) < 0) {
        svclog(nullptr, 59, "Unable to append cache for %s: %m", folder_name(mailbox));
        return IMAP_IOERROR;
    }
    as->index_end = entry_at + (off_t)len;
    return mailbox_append_index(mailbox, record, mailbox->mbd.exists, 1);
}

// ---------------------------------------------------------------------------
// The session

int append_setup(struct append_state *as, const char *name, unsigned mode, unsigned format,
                 const struct auth_state *auth, unsigned long rights, long quotasize) {
    as->added_bytes = 0;
    as->added_messages = 0;
    as->reserved_bytes = 0;
    as->pending_user = nullptr;
    memset(as->pending_first, 0, sizeof as->pending_first);
    memset(as->pending_last, 0, sizeof as->pending_last);
    memset(&as->cache, 0, sizeof as->cache);
    as->index_end = -1;
    as->message_dev = 0;
    as->room_hint = 0;
    memset(&as->batch_cache, 0, sizeof as->batch_cache);
    as->batch_records = nullptr;
    as->batch_count = as->batch_alloc = 0;
    as->room_end = -1;
    as->slots_held = 0;

    int r = mailbox_open(name, mode | OPEN_APPEND, auth, as->mailbox);
    if (r) return r;
    r = partition_check(as->mailbox);
    if (!r) r = append_setup_mailbox(as, format, rights, quotasize);
    if (r) mailbox_close(as->mailbox);
    return r;
}

int append_quota_eval(uint64_t used, uint64_t limit, uint32_t messages,
                      const struct quotadata *quota) {
    if (used <= limit && messages <= quota->limit_messages) return 0;
    int64_t hours = config_get_int(config_getdefaultcache(), "store.quotagraceperiod", 120);
    if (hours == 0) return IMAP_QUOTA_EXCEEDED_PERSISTENT;
    if (quota->over_since == 0) return IMAP_QUOTA_EXCEEDED;  // going over now
    if ((int64_t)quota->over_since + hours * 3600 < (int64_t)time(nullptr))
        return IMAP_QUOTA_EXCEEDED_PERSISTENT;
    return IMAP_QUOTA_EXCEEDED;
}

// The quota test of append_setup_mailbox, with the index lock held. 0 or
// the refusal; the lock stays held either way.
static int setup_quota(struct append_state *as, long quotasize, int overdraft) {
    struct mailbox *mailbox = as->mailbox;
    int r = mboxlist_getquotaroot(mailbox->name, &as->quota, nullptr);
    if (r == IMAP_QUOTAROOT_NONEXISTENT) return 0;  // no root is never over
    if (r) return r;

    uint64_t size = quotasize < 0 ? (uint64_t)(-(int64_t)quotasize) : (uint64_t)quotasize;
    // An exact size above the whole quota could never fit.
    if (quotasize < 0 && (size >> 10) > as->quota.limit) return IMAP_MESSAGE_TOO_LARGE;
    if (overdraft) size = 1;

    uint64_t limit = (uint64_t)as->quota.limit << 10;
    r = append_quota_eval(quotadata_used(&as->quota) + size, limit,
                          as->quota.used_messages + 1, &as->quota);
    if (r || overdraft) return r;

    // The charge goes in first and the test runs again behind it, so that
    // two sessions under one root can't both take the last room.
    uint32_t low = (uint32_t)size, high = (uint32_t)(size >> 32);
    r = mboxlist_changequota(mailbox->name, &mailbox->mbd, low, high, 1, 0, &as->quota);
    if (r) return r;
    r = append_quota_eval(quotadata_used(&as->quota), limit, as->quota.used_messages,
                          &as->quota);
    if (r)
        mboxlist_changequota(mailbox->name, &mailbox->mbd, low, high, 1, 1, &as->quota);
    else
        as->reserved_bytes = size;
    return r;
}

int append_setup_mailbox(struct append_state *as, unsigned format, unsigned long rights,
                         long quotasize) {
    struct mailbox *mailbox = as->mailbox;
    if ((mailbox->myrights & rights) != rights && rights != APPEND_NO_RIGHTS)
        // A folder that the caller may not see seems not to exist.
        return (mailbox->myrights & RIGHT_LOOKUP) ? IMAP_PERMISSION_DENIED
                                                  : IMAP_MAILBOX_NONEXISTENT;
    if (mailbox->mbd.version != format) return IMAP_MAILBOX_NOTSUPPORTED;

    int r = mailbox_lock_index(mailbox);
    if (r) return r;

    config_cache *c = config_getdefaultcache();
    int64_t maxmessages = config_get_int(c, "local.store.maxmessages", 0x7FFFFFFF);
    if ((int64_t)mailbox->mbd.exists >= maxmessages) {
        svclog(nullptr, 62, "append to %s failed: max number of messages per folder exceeded",
               folder_name(mailbox));
        mailbox_unlock_index(mailbox);
        return IMAP_MESSAGE_EXHAUSTED;
    }

    int enforce, overdraft;
    if (config_get_switch(c, "local.store.overquotastatus", 0)) {
        enforce = overdraft = 1;
    } else {
        enforce = config_get_switch(c, "store.quotaenforcement", 1);
        overdraft = config_get_switch(c, "local.store.quotaoverdraft", 0);
    }
    as->quota.used_messages = (uint32_t)-1;
    if (quotasize == 0 || !enforce) return 0;

    r = setup_quota(as, quotasize, overdraft);
    if (r) mailbox_unlock_index(mailbox);
    return r;
}

// Clears the session's counters and lets the quota module bring the root's
// state up to date; a warning it delivers into this session is charged.
static void append_adjustquotastatus(struct append_state *as) {
    struct mailbox *mailbox = as->mailbox;
    as->added_bytes = 0;
    as->added_messages = 0;
    if (as->quota.used_messages == (uint32_t)-1 &&
        mboxlist_getquotaroot(mailbox->name, &as->quota, nullptr) != 0)
        return;  // no root, or it can't be read (logged): nothing to bring up to date
    if (mboxlist_adjustquotastatus(mailbox->name, as, &as->quota, 0, nullptr) == 0 &&
        (as->added_bytes || as->added_messages))
        mboxlist_changequota(mailbox->name, &mailbox->mbd, (uint32_t)as->added_bytes,
                             (uint32_t)(as->added_bytes >> 32), as->added_messages, 0,
                             &as->quota);
}

void append_finish(struct append_state *as) {
    struct mailbox *mailbox = as->mailbox;
    unsigned count = as->added_messages;
    uint64_t delta = as->added_bytes;
    int subtract = 0;
    if (as->reserved_bytes) {
        // One message was charged in advance with reserved_bytes.
        count -= 1;
        if (as->added_bytes < as->reserved_bytes) {
            delta = as->reserved_bytes - as->added_bytes;
            count = 0u - count;
            subtract = 1;
        } else {
            delta = as->added_bytes - as->reserved_bytes;
        }
        as->reserved_bytes = 0;
    }
    if (delta || count)
        mboxlist_changequota(mailbox->name, &mailbox->mbd, (uint32_t)delta,
                             (uint32_t)(delta >> 32), count, subtract, &as->quota);
    append_adjustquotastatus(as);

    // The per-user data of the session's messages goes in before the
    // header that counts them.
    append_flush_peruser(as);
    mboxlist_updatedata(mailbox, 1);
    release_room(as);
    mailbox_unlock_index(mailbox);
    message_cachebuf_free(&as->cache);
    message_cachebuf_free(&as->batch_cache);
    free(as->batch_records);
    as->batch_records = nullptr;
    as->batch_alloc = 0;
    as->index_end = -1;
}

// ---------------------------------------------------------------------------
// Per-user ranges

int append_addperuser(struct mailbox *mailbox, const char *userid, int kind, unsigned first_uid,
                      unsigned last_uid) {
    if (kind != APPEND_PERUSER_SEEN && kind != APPEND_PERUSER_DELETED)
        return IMAP_MAILBOX_BADFORMAT;
    struct seen *seendb = nullptr;
    int r = seen_open(mailbox, userid, &seendb);
    time_t lastread = 0, lastchange = 0;
    unsigned recentuid = 0;
    char *old = nullptr;
    if (!r) r = seen_lockread(seendb, &lastread, &recentuid, &lastchange, &old);
    if (r) {
        if (seendb) seen_close(seendb);
        return r;
    }

    // The text is the seen list, one blank, the deleted list. A text
    // without the blank is all seen list, and gets the blank back.
    if (!old || !strchr(old, ' ')) {
        size_t oldlen = old ? strlen(old) : 0;
        old = (char *)xrealloc(old, oldlen + 2);
        old[oldlen] = ' ';
        old[oldlen + 1] = '\0';
    }
    const char *text = old;
    size_t len = strlen(text);
    const char *blank = strchr(text, ' ');
    size_t seenlen = (size_t)(blank - text);
    size_t end = kind == APPEND_PERUSER_SEEN ? seenlen : len;

    // The list's last number: back over its digits, then read forward.
    size_t numstart = end;
    while (numstart > 0 && text[numstart - 1] >= '0' && text[numstart - 1] <= '9') numstart--;
    unsigned long last = numstart < end ? strtoul(text + numstart, nullptr, 10) : 0;

    char *out = (char *)xmalloc(len + 40);
    size_t n;
    if (last != 0 && last + 1 >= first_uid) {
        // The range joins the list's last element: "1:5" and 6 give "1:6",
        // "5" and 6 give "5:6".
        if (numstart > 0 && text[numstart - 1] == ':') {
            memcpy(out, text, numstart);
            n = numstart;
        } else {
            memcpy(out, text, end);
            n = end;
            out[n++] = ':';
        }
    } else {
        memcpy(out, text, end);
        n = end;
        if (end > 0) out[n++] = ',';  // so the deleted list may begin with one; readers skip it
        if (first_uid != last_uid) n += (size_t)sprintf(out + n, "%u:", first_uid);
    }
    n += (size_t)sprintf(out + n, "%u", last_uid);
    if (kind == APPEND_PERUSER_SEEN) {
        memcpy(out + n, blank, len - seenlen);
        n += len - seenlen;
    }
    out[n] = '\0';

    r = seen_write(seendb, lastread, recentuid, time(nullptr), out);
    seen_close(seendb);
    free(out);
    free(old);
    return r;
}

// Writes the pending range of one kind (0 seen, 1 deleted) and forgets it.
// The index data of its messages goes first; a batch that can't be
// written is taken back and the range cut to the messages that stay. 0,
// or the batch's error.
static int flush_pending(struct append_state *as, int idx) {
    if (!as->pending_first[idx]) return 0;
    int batch = flush_batch(as);
    if (as->pending_first[idx]) {
        int r = append_addperuser(as->mailbox, as->pending_user, idx + 1,
                                  as->pending_first[idx], as->pending_last[idx]);
        if (r)
            svclog(nullptr, 60, "per-user flags of %s for %s (uids %u to %u) not recorded: %s",
                   folder_name(as->mailbox), as->pending_user, as->pending_first[idx],
                   as->pending_last[idx], mboxlist_strerror(r));
    }
    as->pending_first[idx] = as->pending_last[idx] = 0;
    return batch;
}

static int flush_peruser(struct append_state *as) {
    int r = flush_batch(as);
    flush_pending(as, 0);
    flush_pending(as, 1);
    free(as->pending_user);
    as->pending_user = nullptr;
    return r;
}

void append_flush_peruser(struct append_state *as) { flush_peruser(as); }

// Adds uid to the session's pending range of kind for userid. A range
// grows while uids follow each other for the same user; anything else
// writes it first. 0, or the error of a batch that had to be written
// first and was taken back, uid's message with it.
static int note_peruser(struct append_state *as, int kind, const char *userid, unsigned uid) {
    int idx = kind - 1;
    if (as->pending_user && strcmp(as->pending_user, userid) != 0) {
        int r = flush_peruser(as);
        if (r) return r;
    }
    if (as->pending_first[idx] && uid == as->pending_last[idx] + 1) {
        as->pending_last[idx] = uid;
        return 0;
    }
    int r = flush_pending(as, idx);
    if (r) return r;
    if (!as->pending_user) as->pending_user = xstrdup(userid);
    as->pending_first[idx] = as->pending_last[idx] = uid;
    return 0;
}

// ---------------------------------------------------------------------------
// One message

// Frees the flag names that a failed message brought.
static void drop_new_flags(struct mailbox *mailbox, const struct append_undo *undo) {
    for (int i = 0; i < undo->nnewflags; i++) {
        free(mailbox->flagname[undo->newflags[i]]);
        mailbox->flagname[undo->newflags[i]] = nullptr;
    }
}

// Takes the files of a failed message away again. The cache entry is cut
// from the end of "store.idx"; a rewrite of the file in between moves the
// cache area, and the cut moves with it. The counters go back, so that a
// session that goes on to append_finish writes a header that counts only
// delivered messages.
static void rollback(struct append_state *as, struct append_undo *undo) {
    struct mailbox *mailbox = as->mailbox;
    if (undo->destination && unlink(undo->destination) < 0 && errno != ENOENT)
        svclog(nullptr, 59, "Unable to remove message file %s: %m", undo->destination);
    if (undo->entry_written) {
        off_t end = undo->index_end + ((off_t)mailbox->hdr.cache_offset - undo->cache_offset);
        if (ftruncate(mailbox->index_fd, end) < 0)
            svclog(nullptr, 59, "Unable to cut index file of %s back: %m", folder_name(mailbox));
        forget_file(as);
    }
    mailbox->mbd = undo->mbd;
    as->added_bytes = undo->added_bytes;
    as->added_messages = undo->added_messages;
    drop_new_flags(mailbox, undo);
    // A rewrite of the file that took its place and then reported a
    // failure (its directory could not be flushed) wrote a summary that
    // counts this message: the file gets the one without it.
    if (mailbox->hdr.cache_offset != undo->cache_offset &&
        mailbox_write_index_fixed_header(mailbox) != 0)
        svclog(nullptr, 59, "Unable to write index header of %s back", folder_name(mailbox));
}

// The slot of user flag name, filling a free one for a new name; -1 when
// the name belongs to the message type plug-in or all slots are taken.
static int user_flag_slot(struct mailbox *mailbox, const char *name, struct append_undo *undo) {
    int free_slot = -1;
    for (int i = 0; i < MAX_USER_FLAGS; i++) {
        if (!mailbox->flagname[i]) {
            if (free_slot < 0) free_slot = i;
        } else if (strcasecmp(mailbox->flagname[i], name) == 0) {
            return i;
        }
    }
    for (int i = 0; i < MSGTYPE_MAX_FLAGS; i++)
        if (msgtype_flag_name[i] && strcasecmp(msgtype_flag_name[i], name) == 0) return -1;
    if (free_slot < 0) return -1;  // all taken: the flag is dropped
    mailbox->flagname[free_slot] = xstrdup(name);
    undo->newflags[undo->nnewflags++] = free_slot;
    return free_slot;
}

// Sets the flags of the record; *seen and *deleted tell whether those two
// were asked for. Flags other than seen and deleted need the write right.
static void apply_flags(struct mailbox *mailbox, const char **flags, int nflags,
                        struct index_record *record, int *seen, int *deleted,
                        struct append_undo *undo) {
    int may_write = (mailbox->myrights & RIGHT_WRITE) != 0;
    for (int i = 0; i < nflags; i++) {
        const char *name = flags[i];
        if (strcmp(name, "\\seen") == 0) {
            *seen = 1;
        } else if (strcmp(name, "\\deleted") == 0) {
            *deleted = 1;
        } else if (!may_write) {
            continue;
        } else if (strcmp(name, "\\draft") == 0) {
            record->system_flags |= FLAG_DRAFT;
        } else if (strcmp(name, "\\flagged") == 0) {
            record->system_flags |= FLAG_FLAGGED;
        } else if (strcmp(name, "\\answered") == 0) {
            record->system_flags |= FLAG_ANSWERED;
        } else {
            int slot = user_flag_slot(mailbox, name, undo);
            if (slot >= 0) record->user_flags[slot / 32] |= 1u << (slot % 32);
        }
    }
}

// The file step: the message's bytes reach destination as a hard link of
// a file that holds them already, or as a new file.
static int write_message_file(const char *destination, const struct iovec *iov, int count,
                              dev_t *dev);

static int store_message_file(struct append_state *as, struct appendmsg *msg,
                              const char *destination, const char *partition,
                              const struct iovec *iov, int count) {
    if (msg->fname && strcmp(msg->fname, destination) == 0) return 0;  // in place
    const char *found = nullptr;
    if (msg->singlecopy_key) {
        found = append_locate_singlecopy(msg, msg->singlecopy_key);
        if (found && append_linkfile(found, destination, partition, nullptr, 0) == 0) return 0;
    }
    int r = msg->fname ? append_linkfile(msg->fname, destination, partition, iov, count)
                       : write_message_file(destination, iov, count, &as->message_dev);
    if (r) return r;
    // The table keeps the last good file for the key: a link that failed
    // above gives the new copy its turn.
    if (msg->singlecopy_key) {
        if (found)
            append_replace_singlecopy(msg, msg->singlecopy_key, destination);
        else
            append_add_singlecopy(msg, msg->singlecopy_key, destination);
    }
    return 0;
}

// Room for one more record: when the record area is full, the session's
// messages are made to count first, then "store.idx" is rewritten with
// free slots.
static int make_record_room(struct append_state *as) {
    struct mailbox *mailbox = as->mailbox;
    uint64_t needed = (uint64_t)mailbox->mbd.exists * INDEX_RECORD_SIZE +
                      mailbox->hdr.start_offset + INDEX_RECORD_SIZE;
    if (mailbox->hdr.cache_offset >= needed) return 0;
    int r = flush_peruser(as);
    if (r) return r;
    if (as->added_messages) {
        r = mboxlist_updatedata(mailbox, 1);
        if (r) return r;
    }
    // One record, and what the caller expects to come (within reason: each
    // slot takes 76 bytes of the file, held from the first delivery on).
    unsigned expected = as->room_hint < APPEND_ROOM_HINT_MAX ? as->room_hint : APPEND_ROOM_HINT_MAX;
    r = mailbox_expunge(mailbox, EXPUNGE_LOCKED, 1 + (int)expected, expungenone, nullptr);
    mailbox->open_mode |= OPEN_APPEND;
    forget_file(as);  // a new file
    return r;
}

// Steps behind the file: parse and cache entry, flags, counters, record,
// flag names, per-user data, notification. An error has rolled back.
static int index_message(struct append_state *as, struct appendmsg *msg, const char *text,
                         uint64_t full_size, struct index_record *record, const char **flags,
                         int nflags, const char *userid, int nonotify,
                         struct append_undo *undo) {
    struct mailbox *mailbox = as->mailbox;
    as->cache.len = 0;
    message_parse_cache(text, full_size, msg->cache_text, record, &as->cache);
    record->rec_cache_offset = (uint32_t)(undo->index_end - (off_t)mailbox->hdr.cache_offset);
    int r;
    int seen = 0, deleted = 0;
    apply_flags(mailbox, flags, nflags, record, &seen, &deleted, undo);

    struct mboxdata *mbd = &mailbox->mbd;
    uint64_t used = ((uint64_t)mbd->quota_used[1] << 32) | mbd->quota_used[0];
    as->added_bytes += record->size;
    as->added_messages++;
    if (mbd->exists == 0) {
        mbd->first_uid = record->uid;
        mbd->oldest_internaldate = (uint32_t)record->internaldate;
    } else if ((uint32_t)record->internaldate < mbd->oldest_internaldate) {
        mbd->oldest_internaldate = (uint32_t)record->internaldate;
    }
    if (record->size > mbd->max_size) mbd->max_size = record->size;
    mbd->exists++;
    used += record->size;
    mbd->quota_used[0] = (uint32_t)used;
    mbd->quota_used[1] = (uint32_t)(used >> 32);
    mbd->last_uid = record->uid;
    mbd->last_appenddate = record->last_updated;

    int alone;
    r = store_index_data(as, record, undo->index_end, undo, &alone);
    if (r && !alone) {
        // Taken back with its batch: only the flag names are left to undo.
        drop_new_flags(mailbox, undo);
        return r;
    }
    undo->entry_written = alone;
    if (!r && undo->nnewflags) {
        // A rewrite of the variable header writes the summary as well:
        // the index data and per-user data of the messages it counts go in
        // first. (The writer maps the whole file itself when it has to move
        // records and cache, so the partial map of the session is left as
        // it is.)
        r = flush_peruser(as);
        if (r) {
            drop_new_flags(mailbox, undo);
            return r;
        }
        undo->entry_written = 1;
        r = mailbox_write_index_variable_header(mailbox);
        forget_file(as);  // the header may have grown and moved the cache area
    }
    if (r) {
        rollback(as, undo);
        return r;
    }

    if (userid && seen && (mailbox->myrights & RIGHT_SEEN))
        r = note_peruser(as, APPEND_PERUSER_SEEN, userid, record->uid);
    if (!r && userid && deleted && (mailbox->myrights & RIGHT_DELETE))
        r = note_peruser(as, APPEND_PERUSER_DELETED, userid, record->uid);
    if (r) return r;  // taken back with its batch

    if (!nonotify) {
        unsigned uid = record->uid, header_size = record->header_size;
        unsigned size = (unsigned)full_size;
        storenotify_append(mailbox, 1, &uid, &text, &header_size, &size, &as->quota);
    }
    // (Message trace logging of the Message-Id comes with the trace log.)
    return 0;
}

int append_msg(struct append_state *as, struct appendmsg *msg, time_t internaldate,
               const char **flags, int nflags, const char *userid, unsigned orig_uid,
               unsigned orig_uidvalidity, int nonotify, unsigned wanted_uid) {
    struct mailbox *mailbox = as->mailbox;
    STORE_ASSERT((mailbox->mbd.version & 0x0000FF00) ||
                 (mailbox->mbd.version == MAILBOX_VERSION_DBONLY));
    STORE_ASSERT(msg != nullptr);
    STORE_ASSERT(msg->base != nullptr);

    if (msg->size == 0) {
        svclog(nullptr, 59, "Unable to append a zero length message file");
        return IMAP_MESSAGE_NOBLANKLINE;
    }
    size_t header_len = msg->header ? msg->header->len : 0;
    uint64_t full_size = (uint64_t)header_len + msg->size;
    if (full_size > UINT32_MAX) {
        // Sizes are 32-bit words in the record.
        svclog(nullptr, 59, "Unable to append a message of %llu bytes to %s",
               (unsigned long long)full_size, folder_name(mailbox));
        return IMAP_MESSAGE_TOO_LARGE;
    }
    int r = make_record_room(as);
    if (r) return r;

    struct append_undo undo;
    memset(&undo, 0, sizeof undo);
    if (as->index_end < 0) as->index_end = lseek(mailbox->index_fd, 0, SEEK_END);
    undo.index_end = as->index_end + (off_t)as->batch_cache.len;  // where its entry goes
    if (as->index_end < 0) {
        svclog(nullptr, 59, "Unable to seek in index file of %s: %m", folder_name(mailbox));
        return IMAP_IOERROR;
    }
    undo.cache_offset = mailbox->hdr.cache_offset;
    undo.mbd = mailbox->mbd;
    undo.added_bytes = as->added_bytes;
    undo.added_messages = as->added_messages;

    struct index_record record;
    memset(&record, 0, sizeof record);
    record.uid = wanted_uid > mailbox->mbd.last_uid ? wanted_uid : mailbox->mbd.last_uid + 1;
    record.last_updated = (uint32_t)time(nullptr);
    record.internaldate = (int32_t)internaldate;
    record.orig_uid = orig_uid ? orig_uid : record.uid;
    record.orig_uidvalidity = orig_uidvalidity ? orig_uidvalidity : mailbox->mbd.uidvalidity;

    char destination[PATH_MAX];
    if (mailbox_message_path(mailbox, record.uid, destination, sizeof destination) < 0) {
        char fname[MAILBOX_FNAME_SIZE];
        svclog(nullptr, 59, "Unable to create message file %s/%s: %m", mailbox->mpath,
               mailbox_message_fname(mailbox, record.uid, fname));
        return IMAP_IOERROR;
    }

    struct iovec iov[2];
    int count = 0;
    if (msg->header) {
        iov[count].iov_base = const_cast<char *>(msg->header->base);
        iov[count++].iov_len = header_len;
    }
    iov[count].iov_base = const_cast<char *>(msg->base);
    iov[count++].iov_len = msg->size;

    r = store_message_file(as, msg, destination, mailbox->partition, iov, count);
    if (r) return r;
    undo.destination = destination;

    const char *text = msg->base;
    if (msg->header) {
        if (!msg->map) msg->map = map_open(destination, (long)full_size, 0, 0);
        if (!msg->map) {
            svclog(nullptr, 59, "Unable to map file %s: %m", destination);
            rollback(as, &undo);
            return IMAP_IOERROR;
        }
        STORE_ASSERT(msg->map->len == full_size);
        text = msg->map->base;
    }
    return index_message(as, msg, text, full_size, &record, flags, nflags, userid, nonotify,
                         &undo);
}

int append_fromstring(struct append_state *as, const char *base, unsigned len,
                      time_t internaldate, const char **flags, int nflags, const char *userid,
                      const char *cache_text) {
    struct appendmsg msg = zeroappendmsg;
    msg.flags = APPENDMSG_STATIC;
    msg.base = base;
    msg.size = len;
    msg.cache_text = cache_text;
    int r = append_msg(as, &msg, internaldate, flags, nflags, userid, 0, 0, 0, 0);
    append_freemsg(&msg);
    return r;
}

void append_freemsg(struct appendmsg *msg) {
    if (!msg) return;
    append_free_singlecopy(msg);
    map_free(msg->map);
    msg->map = nullptr;
    if (!(msg->flags & APPENDMSG_FNAME_BORROWED)) free(msg->fname);
    msg->fname = nullptr;
    if (!(msg->flags & APPENDMSG_STATIC)) free(msg);
}

// ---------------------------------------------------------------------------
// The single-copy table

static struct singlecopy_entry *find_singlecopy(struct appendmsg *msg, const char *key) {
    for (struct singlecopy_entry *e = msg->singlecopy_list; e; e = e->next)
        if (strcmp(e->key, key) == 0) return e;
    return nullptr;
}

const char *append_locate_singlecopy(struct appendmsg *msg, const char *key) {
    struct singlecopy_entry *e = key ? find_singlecopy(msg, key) : nullptr;
    return e ? e->path : nullptr;
}

void append_add_singlecopy(struct appendmsg *msg, const char *key, const char *path) {
    if (!key || !path) return;
    struct singlecopy_entry *e = (struct singlecopy_entry *)xmalloc(sizeof *e);
    e->key = xstrdup(key);
    e->path = xstrdup(path);
    e->next = msg->singlecopy_list;
    msg->singlecopy_list = e;
}

void append_replace_singlecopy(struct appendmsg *msg, const char *key, const char *path) {
    struct singlecopy_entry *e = key && path ? find_singlecopy(msg, key) : nullptr;
    if (!e) return;
    if (strlen(path) <= strlen(e->path)) {
        strcpy(e->path, path);
    } else {
        free(e->path);
        e->path = xstrdup(path);
    }
}

void append_free_singlecopy(struct appendmsg *msg) {
    struct singlecopy_entry *e = msg->singlecopy_list;
    while (e) {
        struct singlecopy_entry *next = e->next;
        free(e->key);
        free(e->path);
        free(e);
        e = next;
    }
    msg->singlecopy_list = nullptr;
}

// ---------------------------------------------------------------------------
// Message files

size_t iovsum(const struct iovec *iov, int count) {
    size_t sum = 0;
    for (int i = 0; i < count; i++) sum += iov[i].iov_len;
    return sum;
}

int expungenone(void *, const struct index_record *) { return -1; }

// Makes the directory that holds path (one level). 0 or -1.
static int make_parent_dir(const char *path) {
    char dir[PATH_MAX];
    const char *slash = strrchr(path, '/');
    if (!slash || (size_t)(slash - path) >= sizeof dir) return -1;
    memcpy(dir, path, (size_t)(slash - path));
    dir[slash - path] = '\0';
    return mkdir(dir, 0777) == 0 || errno == EEXIST ? 0 : -1;
}

int createmsgfile(const char *path) {
    const int how = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
    int fd = open(path, how, 0666);
    // The message directory is made on demand, not looked for each time.
    if (fd < 0 && errno == ENOENT && make_parent_dir(path) == 0) fd = open(path, how, 0666);
    // A file left by an earlier delivery that did not count is stale.
    if (fd < 0 && errno == EEXIST && unlink(path) == 0) fd = open(path, how, 0666);
    if (fd < 0) svclog(nullptr, 59, "Unable to create message file %s: %m", path);
    return fd;
}

// writemsgfile, for a session that knows the device of its folder's
// message files in *dev (0 until the first file tells it): at the default
// sync level the file is then not asked for it again.
static int write_message_file(const char *destination, const struct iovec *iov, int count,
                              dev_t *dev) {
    size_t total = iovsum(iov, count);
    // (Storing by digest, append_shouldrelink, comes with the digest pool;
    // until then every new message is written.)
    int fd = createmsgfile(destination);
    if (fd < 0) return IMAP_IOERROR;
    ssize_t n = retry_writev(fd, iov, count);
    if (n >= 0 && (size_t)n != total) errno = EIO;
    int level = mailbox_message_sync_level();
    if (*dev == 0 && level == 1) {
        struct stat st;
        if (fstat(fd, &st) == 0) *dev = st.st_dev;
    }
    int failed = n < 0 || (size_t)n != total || sync_file_on(fd, level, *dev) != 0;
    if (close(fd) != 0) failed = 1;
    if (failed) {
        int e = errno;
        unlink(destination);
        errno = e;
        svclog(nullptr, 59, "Unable to write message file %s: %m", destination);
        return IMAP_IOERROR;
    }
    return 0;
}

int writemsgfile(const char *destination, const char *partition, const struct iovec *iov,
                 int count) {
    (void)partition;  // names the digest pool, which comes with relinking
    dev_t unknown = 0;
    return write_message_file(destination, iov, count, &unknown);
}

int link_mkdir(const char *source, const char *destination) {
    int r = link(source, destination);
    if (r < 0 && errno == ENOENT) {
        char dir[PATH_MAX];
        const char *slash = strrchr(destination, '/');
        if (slash && (size_t)(slash - destination) < sizeof dir && slash > destination) {
            memcpy(dir, destination, (size_t)(slash - destination));
            dir[slash - destination] = '\0';
            mailbox_makedirs(dir);
            r = link(source, destination);
        }
    }
    return r;
}

int append_linkfile(const char *source, const char *destination, const char *partition,
                    const struct iovec *iov, int count) {
    if (link(source, destination) == 0) return 0;
    if (errno == EEXIST) {
        if (unlink(destination) == 0 && link(source, destination) == 0) return 0;
    } else if (errno == ENOENT) {
        if (make_parent_dir(destination) == 0 && link(source, destination) == 0) return 0;
    }
    // No link (another file system, no room for a directory entry...): the
    // bytes are written instead.
    struct map *m = nullptr;
    struct iovec one;
    if (!iov) {
        m = map_open(source, -1, 0, 0);
        if (!m) {
            svclog(nullptr, 59, "Unable to map %s: %m", source);
            return IMAP_IOERROR;
        }
        map_advise(m->base, m->size, MAP_ADVISE_ONCE);
        one.iov_base = const_cast<char *>(m->base);
        one.iov_len = m->size;
        iov = &one;
        count = 1;
    }
    int r = writemsgfile(destination, partition, iov, count);
    map_free(m);
    return r;
}

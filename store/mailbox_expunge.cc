// Expunge: the rewrite of "store.idx" that drops records, compacts the
// cache area and lays out new free record slots; the "store.exp" log of
// removed messages and the later removal of their message files.
//
// The rewrite builds "index.new" beside the old file through two
// descriptors, one writing the header and the records from the start, the
// other the cache area from its new offset on, and renames it over
// "store.idx" under the index lock. Until the rename the folder's files
// are as they were; the folder's row, written before the rename, is
// written back if a later step fails.
#include "store/mailbox.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mailbox_log.h"
#include "store/mboxlist.h"
#include "store/mboxlist_quota.h"
#include "store/storeassert.h"
#include "store/storenotify.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/prot.h"
#include "support/retry.h"
#include "support/xmalloc.h"

#define EXPUNGE_MAGIC "EXPVER01"
#define EXPUNGE_MAGIC_LEN 8

// Free record slots of a rewritten index: at least this many, or as many
// as the folder has messages.
#define EXPUNGE_MIN_SLOTS 100

// mbd_flags: expunge has removed a message from the folder.
#define MBD_FLAG_EXPUNGED 0x01u

// Folders whose version has a low half of at least 256 (every layout with
// message files and a cache) log their removed messages in "store.exp".
#define VERSION_LOW_MASK 0xFFFFu
#define EXPUNGE_LOG_VERSION 256

// A new block of records starts at a multiple of the record size, behind
// a block that a crash may have cut short.
#define EXPUNGE_RECORD_ALIGN 8

// One record of "store.exp": when the message went, and its uid.
struct expunge_entry {
    int32_t time;
    uint32_t uid;
};
static_assert(sizeof(expunge_entry) == 8, "a store.exp record is 8 bytes");

static const char *mbname(const struct mailbox *mailbox) {
    if (mailbox->name) return mailbox->name;
    return mailbox->path ? mailbox->path : "";
}

// "<dir>/<file>" into buf; -1 with ENAMETOOLONG if it doesn't fit.
static int dir_file(const char *dir, const char *file, char *buf, size_t size) {
    int n = snprintf(buf, size, "%s/%s", dir ? dir : ".", file);
    if (n < 0 || (size_t)n >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

void log_index_record(const char *name, unsigned msgno, const struct index_record *record) {
    char hex[2 * sizeof(index_record) + 1];
    const unsigned char *p = (const unsigned char *)record;
    for (size_t i = 0; i < sizeof(index_record); i++) snprintf(hex + 2 * i, 3, "%02x", p[i]);
    svclog(nullptr, 59,
           "%s: invalid index record %u: \"%s\". This record will be removed. Please run "
           "reconstruct to check/repair this mailbox",
           name ? name : "", msgno, hex);
}

// ---------------------------------------------------------------------------
// The rewrite

// Writes through a stream, keeping the errno of the first failed write:
// later writes to a failed stream fail without touching errno.
struct outstream {
    struct protstream *s;
    int err;
};

static void out_write(struct outstream *o, const void *buf, size_t len) {
    if (prot_write(o->s, (const char *)buf, len) < 0 && !o->err) o->err = errno ? errno : EIO;
}

static int out_flush(struct outstream *o) {
    if (prot_flush(o->s) < 0 || o->err) {
        if (!o->err) o->err = errno ? errno : EIO;
        errno = o->err;
        return -1;
    }
    return 0;
}

// The message trace line of a removed message: its Message-ID from the
// cached header block.
static void trace_expunge(struct mailbox *mailbox, unsigned msgno) {
    const char *item = mailbox_cache_item(mailbox->index_map, mailbox->name, msgno, 4);
    if (!item) return;
    uint32_t len;
    memcpy(&len, item, sizeof len);
    len = ntohl(len);
    if (len == 0) return;
    char *id = mailbox_getheadervalue("Message-id", item + 4, len);
    if (id) {
        svclog(svclog_msgtrace, 62, "expunge:%s:%s", mbname(mailbox), id);
        free(id);
    }
}

// How far a rewrite got: what a failure has to undo.
enum expunge_stage {
    STAGE_FILES = 0,  // only "index.new" written
    STAGE_SUMMARY,    // mbd and hdr changed in memory
    STAGE_QUOTA,      // the quota root charged
    STAGE_ROW,        // the folder's row written
};

// One rewrite of "store.idx".
struct expunge_run {
    struct mailbox *mailbox;
    int flags;
    unsigned exists;          // records of the old file
    time_t now;
    uint64_t cachesize;       // bytes of the old cache area
    uint64_t newcacheoffset;  // cache_offset of the new file
    char newpath[PATH_MAX], idxpath[PATH_MAX], exppath[PATH_MAX];
    int fd;                   // "index.new": header and records
    int cfd;                  // "index.new" again: the cache area
    int expfd;                // "store.exp" while locked, else -1
    off_t expsize;
    int created;              // "index.new" was made by this run
    struct outstream newindex, newcache;
    enum expunge_stage stage;
    struct mboxdata oldmbd;
    struct index_header oldhdr;
    struct quotadata quota;
    unsigned removed, invalid;
    uint64_t bytes;           // sum of the sizes of the removed messages
    struct expunge_entry *explist;
    unsigned *uids;
};

// The message number of the first record that decide removes; 0 if it
// keeps them all (or says -1 first). -1 if a record can't be read.
static long expunge_first_hit(struct mailbox *mailbox, mailbox_decideproc_t decide, void *rock) {
    struct index_record rec;
    for (unsigned msgno = 1; msgno <= mailbox->mbd.exists; msgno++) {
        if (mailbox_read_index_record(mailbox, msgno, &rec) != 0) return -1;
        int d = decide(rock, &rec);
        if (d == 0) continue;
        return d == -1 ? 0 : (long)msgno;
    }
    return 0;
}

// Creates "index.new" and opens it a second time at the new cache offset,
// each with a stream, and copies the old header into it.
static int expunge_open_new(struct expunge_run *x) {
    struct mailbox *mailbox = x->mailbox;
    if (dir_file(mailbox->path, "index.new", x->newpath, sizeof x->newpath) < 0 ||
        dir_file(mailbox->path, "store.idx", x->idxpath, sizeof x->idxpath) < 0 ||
        dir_file(mailbox->path, "store.exp", x->exppath, sizeof x->exppath) < 0) {
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        return -1;
    }
    if (x->newcacheoffset > UINT32_MAX || mailbox->hdr.start_offset > mailbox->index_map->size) {
        errno = EFBIG;
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        return -1;
    }
    x->fd = open(x->newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (x->fd < 0) {
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        return -1;
    }
    x->created = 1;
    x->cfd = open(x->newpath, O_RDWR | O_CLOEXEC);
    if (x->cfd < 0) {
        svclog(nullptr, 58, "Unable to open new index for %s: %m", mbname(mailbox));
        return -1;
    }
    if (lseek(x->cfd, (off_t)x->newcacheoffset, SEEK_SET) < 0) {
        svclog(nullptr, 58, "Unable to seek index for %s: %m", mbname(mailbox));
        return -1;
    }
    x->newindex.s = prot_file(x->fd, 1);
    x->newcache.s = prot_file(x->cfd, 1);
    // The header as it stands; the fixed part is written again at the end.
    out_write(&x->newindex, mailbox->index_map->base, mailbox->hdr.start_offset);
    return 0;
}

// Walks the old records: the kept ones go to the new file with their cache
// entries moved down, the removed ones to the expunge list. Then the new
// summary is put into the handle.
static int expunge_copy(struct expunge_run *x, unsigned first_hit, mailbox_decideproc_t decide,
                        void *rock) {
    struct mailbox *mailbox = x->mailbox;
    const char *oldcache = mailbox->index_map->base + mailbox->hdr.cache_offset;
    // The cache is copied in runs of kept messages: a run that is skipped
    // (at first from offset 0) or copied, from runstart on. deleted counts
    // the bytes of the skipped runs so far.
    int copying = 0, asking = 1;
    uint64_t runstart = 0, deleted = 0, lastoffset = 0;
    unsigned kept = 0;
    uint32_t oldest = 0, firstuid = 0, maxsize = 0;
    struct index_record rec;

    for (unsigned msgno = 1; msgno <= x->exists; msgno++) {
        if (mailbox_read_index_record(mailbox, msgno, &rec) != 0) return -1;
        uint64_t off = rec.rec_cache_offset;
        // An entry beyond the cache, or before the entry of the record in
        // front (entries are written in the order of the records), can't
        // be carried over.
        if (off > x->cachesize || off < lastoffset) {
            log_index_record(mbname(mailbox), msgno, &rec);
            x->invalid++;
            continue;
        }
        lastoffset = off;

        int d = 0;
        if (msgno == first_hit) {
            d = 1;
        } else if (msgno > first_hit && asking) {
            d = decide(rock, &rec);
            if (d == -1) asking = d = 0;
        }

        if (d) {
            x->explist[x->removed].time = (int32_t)x->now;
            x->explist[x->removed].uid = rec.uid;
            x->uids[x->removed++] = rec.uid;
            x->bytes += rec.size;
            if (svclog_msgtrace_active) trace_expunge(mailbox, msgno);
            if (copying) {
                out_write(&x->newcache, oldcache + runstart, (size_t)(off - runstart));
                copying = 0;
                runstart = off;
            }
            continue;
        }
        if (!copying) {
            deleted += off - runstart;
            copying = 1;
            runstart = off;
        }
        if (kept == 0 || (uint32_t)rec.internaldate < oldest) oldest = (uint32_t)rec.internaldate;
        if (kept == 0 || rec.uid < firstuid) firstuid = rec.uid;
        if (rec.size > maxsize) maxsize = rec.size;
        kept++;
        rec.rec_cache_offset = (uint32_t)(off - deleted);
        out_write(&x->newindex, &rec, sizeof rec);
    }
    if (copying) out_write(&x->newcache, oldcache + runstart, (size_t)(x->cachesize - runstart));

    if (out_flush(&x->newcache) < 0 || out_flush(&x->newindex) < 0 ||
        lseek(x->fd, 0, SEEK_SET) < 0) {
        svclog(nullptr, 58, "Unable to write index for %s: %m", mbname(mailbox));
        return -1;
    }
    STORE_ASSERT((uint64_t)prot_numbytes(x->newindex.s) <= x->newcacheoffset);
    if (kept == 0) STORE_ASSERT(prot_numbytes(x->newcache.s) == 0);
    // With no cache bytes the file ends at the new cache offset: the free
    // slots are the file's zeros.
    if (prot_numbytes(x->newcache.s) == 0 && ftruncate(x->fd, (off_t)x->newcacheoffset) < 0) {
        svclog(nullptr, 58, "Unable to write index for %s: %m", mbname(mailbox));
        return -1;
    }
    // The cache descriptor goes before the new file is locked: closing
    // any descriptor of a file drops this process's lock on it.
    close(x->cfd);
    x->cfd = -1;

    x->stage = STAGE_SUMMARY;
    mailbox->mbd.exists = kept;
    if (x->removed) mailbox->mbd.mbd_flags |= MBD_FLAG_EXPUNGED;
    mailbox->hdr.cache_offset = (uint32_t)x->newcacheoffset;
    mailbox->mbd.max_size = maxsize;
    mailbox->mbd.oldest_internaldate = oldest;
    mailbox->mbd.first_uid = firstuid;
    return 0;
}

// Quota, the folder's row and the header of the new file get the new
// summary.
static int expunge_write_summary(struct expunge_run *x) {
    struct mailbox *mailbox = x->mailbox;
    if (!(x->flags & EXPUNGE_NOQUOTA) &&
        mboxlist_changequota(mailbox->name, &mailbox->mbd, (uint32_t)x->bytes,
                             (uint32_t)(x->bytes >> 32), x->removed, 1, &x->quota) != 0) {
        svclog(nullptr, 58, "Unable to update quota for %s: %m", mbname(mailbox));
        return -1;
    }
    x->stage = STAGE_QUOTA;
    uint64_t used = ((uint64_t)mailbox->mbd.quota_used[1] << 32) | mailbox->mbd.quota_used[0];
    used = used > x->bytes ? used - x->bytes : 0;
    mailbox->mbd.quota_used[0] = (uint32_t)used;
    mailbox->mbd.quota_used[1] = (uint32_t)(used >> 32);

    if (mboxlist_updatedata(mailbox, 0) != 0) {
        svclog(nullptr, 58, "Unable to update data for %s: %m", mbname(mailbox));
        return -1;
    }
    x->stage = STAGE_ROW;

    out_write(&x->newindex, &mailbox->mbd, sizeof(mboxdata));
    out_write(&x->newindex, &mailbox->hdr, sizeof(index_header));
    if (out_flush(&x->newindex) < 0 || sync_file(x->fd, mailbox_index_sync_level()) != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        return -1;
    }
    return 0;
}

// Locks "store.exp" and the new file and renames it over "store.idx".
// 0, 1 if the rename was done but its directory could not be flushed, -1.
static int expunge_commit(struct expunge_run *x) {
    struct mailbox *mailbox = x->mailbox;
    // "store.exp" is locked before the commit, so that every message
    // removed from the index gets its record unless the process dies.
    if (x->removed && (mailbox->mbd.version & VERSION_LOW_MASK) >= EXPUNGE_LOG_VERSION) {
        if (mailbox_lock_expunge(x->exppath, 1, &x->expfd, &x->expsize) != 0) return -1;
    }
    if (lock_blocking(x->fd) < 0) {
        svclog(nullptr, 58, "Unable to lock new index for  %s: %m", mbname(mailbox));
        return -1;
    }
    // The barrier inside makes the new file (and what it counts) durable
    // before the name does.
    int r = sync_rename(x->newpath, x->idxpath, mailbox_index_sync_level());
    if (r < 0) {
        svclog(nullptr, 58, "Unable to rename index file for %s: %m", mbname(mailbox));
        lock_unlock(x->fd);
        return -1;
    }
    if (r > 0)
        svclog(nullptr, 58, "Unable to sync directory of index file for %s: %m", mbname(mailbox));
    mailbox->generation++;
    return r;
}

// After the commit: the records of "store.exp", from which the message
// files are deleted later, the notification and the log. Failures leave
// stray message files, not a damaged folder: they are not reported.
static void expunge_announce(struct expunge_run *x) {
    struct mailbox *mailbox = x->mailbox;
    if (x->expfd != -1) {
        off_t at = (x->expsize + EXPUNGE_RECORD_ALIGN - 1) & ~(off_t)(EXPUNGE_RECORD_ALIGN - 1);
        if (pwrite(x->expfd, x->explist, x->removed * sizeof(expunge_entry), at) >= 0)
            sync_file(x->expfd, mailbox_expunge_sync_level());
        lock_unlock(x->expfd);
        close(x->expfd);
        x->expfd = -1;
    }
    if (!(x->flags & EXPUNGE_NONOTIFY))
        storenotify_expunge(mailbox, (int)x->removed, x->uids, &x->quota);
    if (svclog_expungedetails)
        svclog(nullptr, 62, "expunged %d/%d from %s", (int)x->removed, (int)x->exists,
               mbname(mailbox));
}

// A failed rewrite: quota, summary and row as they were, the new file gone.
static void expunge_unwind(struct expunge_run *x) {
    struct mailbox *mailbox = x->mailbox;
    if (x->stage >= STAGE_QUOTA && !(x->flags & EXPUNGE_NOQUOTA)) {
        struct quotadata back;
        memset(&back, 0, sizeof back);
        mboxlist_changequota(mailbox->name, &x->oldmbd, (uint32_t)x->bytes,
                             (uint32_t)(x->bytes >> 32), x->removed, 0, &back);
    }
    if (x->stage >= STAGE_SUMMARY) {
        mailbox->mbd = x->oldmbd;
        mailbox->hdr = x->oldhdr;
    }
    if (x->stage >= STAGE_ROW && mboxlist_updatedata(mailbox, 0) != 0)
        svclog(nullptr, 58, "Unable to update data for %s: %m", mbname(mailbox));
    if (!(x->flags & EXPUNGE_LOCKED)) mailbox_unlock_index(mailbox);
    if (x->fd != -1) close(x->fd);
    // The unfinished file would only take room, which may be what failed.
    if (x->created) unlink(x->newpath);
    if (x->expfd != -1) {
        lock_unlock(x->expfd);
        close(x->expfd);
    }
}

int mailbox_expunge(struct mailbox *mailbox, int flags, int extraspace,
                    mailbox_decideproc_t decide, void *rock) {
    STORE_ASSERT(extraspace >= 0);
    if (mailbox->mbd.exists == 0 && !(flags & EXPUNGE_FORCE) && extraspace == 0) return 0;

    int r;
    // The cache is copied from the map: the whole file is needed.
    if (mailbox->open_mode & (OPEN_PARTIAL | OPEN_APPEND)) {
        mailbox->open_mode &= ~(unsigned)(OPEN_PARTIAL | OPEN_APPEND);
        r = mailbox_read_index_fixed_header(mailbox);
        if (r) return r;
    }
    if (flags & EXPUNGE_LOCKED) {
        STORE_ASSERT(mailbox->index_lock_count != 0);
    } else {
        r = mailbox_lock_index(mailbox);
        if (r) return r;
    }

    // Without a forced rewrite or growth, the file stays untouched unless
    // some message is to go.
    long first_hit = 0;
    if (!(flags & EXPUNGE_FORCE) && extraspace == 0) {
        first_hit = expunge_first_hit(mailbox, decide, rock);
        if (first_hit <= 0) {
            if (!(flags & EXPUNGE_LOCKED)) mailbox_unlock_index(mailbox);
            return first_hit < 0 ? IMAP_IOERROR : 0;
        }
    }

    struct expunge_run x;
    memset(&x, 0, sizeof x);
    x.mailbox = mailbox;
    x.flags = flags;
    x.exists = mailbox->mbd.exists;
    x.now = time(nullptr);
    uint64_t filelen = mailbox->index_size;
    if (filelen > mailbox->index_map->size) filelen = mailbox->index_map->size;
    x.cachesize = filelen > mailbox->hdr.cache_offset ? filelen - mailbox->hdr.cache_offset : 0;
    uint64_t slots = (uint64_t)x.exists + (uint64_t)extraspace +
                     (x.exists > EXPUNGE_MIN_SLOTS ? x.exists : EXPUNGE_MIN_SLOTS);
    x.newcacheoffset = slots * INDEX_RECORD_SIZE + mailbox->hdr.start_offset;
    x.fd = x.cfd = x.expfd = -1;
    x.stage = STAGE_FILES;
    x.oldmbd = mailbox->mbd;
    x.oldhdr = mailbox->hdr;
    x.explist = (struct expunge_entry *)xmalloc((x.exists ? x.exists : 1) * sizeof(expunge_entry));
    x.uids = (unsigned *)xmalloc((x.exists ? x.exists : 1) * sizeof(unsigned));

    int committed = -1;
    if (expunge_open_new(&x) == 0 && expunge_copy(&x, (unsigned)first_hit, decide, rock) == 0 &&
        expunge_write_summary(&x) == 0)
        committed = expunge_commit(&x);
    if (x.cfd != -1) close(x.cfd);
    prot_free(x.newcache.s);
    prot_free(x.newindex.s);

    if (committed < 0) {
        expunge_unwind(&x);
        r = IMAP_IOERROR;
    } else {
        if (x.removed) expunge_announce(&x);
        if (flags & EXPUNGE_LOCKED) {
            // The handle moves to the new file, whose lock it holds now.
            lock_unlock(mailbox->index_fd);
            close(mailbox->index_fd);
            mailbox->index_fd = x.fd;
            map_free(mailbox->index_map);
            mailbox->index_map = nullptr;
            r = mailbox_read_index_fixed_header(mailbox);
        } else {
            mailbox_unlock_index(mailbox);
            lock_unlock(x.fd);
            close(x.fd);
            r = 0;
        }
        if (x.removed && !(flags & EXPUNGE_NOQUOTA))
            mboxlist_adjustquotastatus(mailbox->name, nullptr, &x.quota, 0, nullptr);
        // A new index whose name may not be on disk yet is reported.
        if (!r && committed > 0) r = IMAP_IOERROR;
    }
    free(x.explist);
    free(x.uids);
    return r;
}

// ---------------------------------------------------------------------------
// "store.exp"

int mailbox_lock_expunge(const char *path, int create, int *fdp, off_t *sizep) {
    for (;;) {
        int fd;
        do {
            fd = open(path, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
        } while (fd < 0 && errno == EINTR);
        if (fd < 0) {
            if (!create && (errno == ENOENT || errno == EINVAL)) return IMAP_MAILBOX_NONEXISTENT;
            svclog(nullptr, 59, "Unable to open expunge file %s: %m", path);
            return IMAP_IOERROR;
        }
        struct stat sbuf;
        const char *action = "locking";
        if (lock_reopen(fd, path, &sbuf, &action) < 0) {
            int e = errno;
            close(fd);
            if (e == ENOENT) continue;  // removed while we waited: once more
            errno = e;
            svclog(nullptr, 59, "%s %s: %m", action, path);
            return IMAP_IOERROR;
        }
        if (create && sbuf.st_size < EXPUNGE_MAGIC_LEN) {
            if (pwrite(fd, EXPUNGE_MAGIC, EXPUNGE_MAGIC_LEN, 0) != EXPUNGE_MAGIC_LEN ||
                sync_file(fd, mailbox_expunge_sync_level()) != 0) {
                if (errno == 0) errno = ENOSPC;
                svclog(nullptr, 59, "Unable to write expunge file %s: %m", path);
                lock_unlock(fd);
                close(fd);
                return IMAP_IOERROR;
            }
            sbuf.st_size = EXPUNGE_MAGIC_LEN;
        }
        *fdp = fd;
        *sizep = sbuf.st_size;
        return 0;
    }
}

// Removes the message file of uid under mpath; when uid lies in another
// directory than the file before (*lastdir), that directory is removed if
// it has become empty.
static void clean_message_file(const char *mpath, uint32_t uid, int *lastdir) {
    char file[PATH_MAX];
    int dir = (int)((uid / 100) % 100);
    if (dir != *lastdir && *lastdir != -1) {
        snprintf(file, sizeof file, "%s/%02u", mpath, (unsigned)*lastdir);
        rmdir(file);
    }
    *lastdir = dir;
    snprintf(file, sizeof file, "%s/%02u/%u%s", mpath, (unsigned)dir, uid, ".msg");
    unlink(file);
}

// Replaces "store.exp" by a file with the magic and the whole records of
// rest/len. 0 or IMAP_IOERROR.
static int clean_rewrite(const char *exppath, const char *newpath, const char *rest, size_t len,
                         size_t filelen, size_t offset) {
    int level = mailbox_expunge_sync_level();
    int fd = open(newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        svclog(nullptr, 59, "Unable to open expunge file %s: %m", newpath);
        return IMAP_IOERROR;
    }
    int failed = 1;
    len -= len % sizeof(expunge_entry);
    ssize_t n = retry_write(fd, EXPUNGE_MAGIC, EXPUNGE_MAGIC_LEN);
    if (n == EXPUNGE_MAGIC_LEN) n = retry_write(fd, rest, len);
    if (n != (ssize_t)len)
        svclog(nullptr, 59, "Unable to write expunge file %s: %m (n=%d) (l=%d) (o=%d)", newpath,
               (int)n, (int)filelen, (int)offset);
    else if (sync_file(fd, level) != 0)
        svclog(nullptr, 59, "Unable to fsync expunge file %s: %m (s=%d)", newpath, level);
    else if (sync_rename(newpath, exppath, level) < 0)
        svclog(nullptr, 59, "Unable to rename expunge file %s to %s: %m", newpath, exppath);
    else
        failed = 0;
    close(fd);
    if (failed) unlink(newpath);
    return failed ? IMAP_IOERROR : 0;
}

int mailbox_clean_expunge(const char *path, const char *mpath, time_t limit) {
    if (!mpath) mpath = path;
    char exppath[PATH_MAX], newpath[PATH_MAX];
    if (dir_file(path, "store.exp", exppath, sizeof exppath) < 0 ||
        dir_file(path, "expunge.new", newpath, sizeof newpath) < 0) {
        svclog(nullptr, 59, "Unable to open expunge file %s/store.exp: %m", path);
        return IMAP_IOERROR;
    }

    int fd;
    off_t size;
    int r = mailbox_lock_expunge(exppath, 0, &fd, &size);
    if (r) return r;
    struct map *map = nullptr;
    if (size < EXPUNGE_MAGIC_LEN) {
        unlink(exppath);
    } else if (!(map = map_refresh(fd, nullptr, 0, -1))) {
        svclog(nullptr, 59, "Unable to map expunge file %s: %m", exppath);
        r = IMAP_IOERROR;
    } else if (map->size < EXPUNGE_MAGIC_LEN ||
               memcmp(map->base, EXPUNGE_MAGIC, EXPUNGE_MAGIC_LEN) != 0) {
        svclog(nullptr, 58, "Expunge file corrupted: %s", exppath);
        r = IMAP_MAILBOX_BADFORMAT;
    } else {
        time_t now = time(nullptr);
        size_t len = map->size, offset = EXPUNGE_MAGIC_LEN;
        int lastdir = -1;
        for (; offset + sizeof(expunge_entry) <= len; offset += sizeof(expunge_entry)) {
            struct expunge_entry e;
            memcpy(&e, map->base + offset, sizeof e);
            if (e.time < 0 || (time_t)e.time > now) {
                svclog(nullptr, 59, "Invalid timestamp in store.exp file: %s", exppath);
                break;
            }
            if ((time_t)e.time > limit) break;  // this one and all behind it are younger
            clean_message_file(mpath, e.uid, &lastdir);
        }
        if (lastdir != -1) {
            char dir[PATH_MAX];
            snprintf(dir, sizeof dir, "%s/%02u", mpath, (unsigned)lastdir);
            rmdir(dir);
        }
        // Nothing done: the file stays. All done (a cut block at most
        // behind): it goes. Else the rest moves to a new file.
        if (offset > EXPUNGE_MAGIC_LEN && offset + sizeof(expunge_entry) > len)
            unlink(exppath);
        else if (offset > EXPUNGE_MAGIC_LEN)
            r = clean_rewrite(exppath, newpath, map->base + offset, len - offset, len, offset);
    }
    map_free(map);
    lock_unlock(fd);
    close(fd);
    return r;
}

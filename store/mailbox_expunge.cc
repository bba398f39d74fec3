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
    STAGE_NONE = 0,
    STAGE_SUMMARY = 14,  // mbd and hdr changed in memory
    STAGE_QUOTA = 15,    // the quota root charged
    STAGE_ROW = 17,      // the folder's row written
};

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

    const unsigned exists = mailbox->mbd.exists;
    const int index_level = mailbox_index_sync_level();
    struct index_record rec;

    // Without a forced rewrite or growth, the file stays untouched unless
    // some message is to go.
    unsigned first_hit = 0;
    if (!(flags & EXPUNGE_FORCE) && extraspace == 0) {
        for (unsigned msgno = 1; msgno <= exists; msgno++) {
            if (mailbox_read_index_record(mailbox, msgno, &rec) != 0) {
                if (!(flags & EXPUNGE_LOCKED)) mailbox_unlock_index(mailbox);
                return IMAP_IOERROR;
            }
            int d = decide(rock, &rec);
            if (d == 0) continue;
            if (d != -1) first_hit = msgno;
            break;
        }
        if (!first_hit) {
            if (!(flags & EXPUNGE_LOCKED)) mailbox_unlock_index(mailbox);
            return 0;
        }
    }

    const struct map *map = mailbox->index_map;
    uint64_t filelen = mailbox->index_size;
    if (filelen > map->size) filelen = map->size;
    const uint64_t oldcacheoffset = mailbox->hdr.cache_offset;
    const uint64_t cachesize = filelen > oldcacheoffset ? filelen - oldcacheoffset : 0;
    const uint64_t start_offset = mailbox->hdr.start_offset;
    const time_t now = time(nullptr);
    const uint64_t slots =
        (uint64_t)exists + (uint64_t)extraspace + (exists > EXPUNGE_MIN_SLOTS ? exists : EXPUNGE_MIN_SLOTS);
    const uint64_t newcacheoffset = slots * INDEX_RECORD_SIZE + start_offset;

    char newpath[PATH_MAX], idxpath[PATH_MAX], exppath[PATH_MAX];
    int fd = -1, cfd = -1, expfd = -1;
    off_t expsize = 0;
    struct outstream newindex = {nullptr, 0}, newcache = {nullptr, 0};
    enum expunge_stage stage = STAGE_NONE;
    int created = 0, dirfail = 0;
    struct mboxdata oldmbd = mailbox->mbd;
    struct index_header oldhdr = mailbox->hdr;
    struct quotadata quota;
    memset(&quota, 0, sizeof quota);

    unsigned removed = 0, invalid = 0;
    uint64_t bytes = 0;
    struct expunge_entry *explist =
        (struct expunge_entry *)xmalloc((exists ? exists : 1) * sizeof(expunge_entry));
    unsigned *uids = (unsigned *)xmalloc((exists ? exists : 1) * sizeof(unsigned));

    if (dir_file(mailbox->path, "index.new", newpath, sizeof newpath) < 0 ||
        dir_file(mailbox->path, "store.idx", idxpath, sizeof idxpath) < 0 ||
        dir_file(mailbox->path, "store.exp", exppath, sizeof exppath) < 0) {
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        goto fail;
    }
    if (newcacheoffset > UINT32_MAX || start_offset > map->size) {
        errno = EFBIG;
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        goto fail;
    }

    fd = open(newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        goto fail;
    }
    created = 1;
    cfd = open(newpath, O_RDWR | O_CLOEXEC);
    if (cfd < 0) {
        svclog(nullptr, 58, "Unable to open new index for %s: %m", mbname(mailbox));
        goto fail;
    }
    if (lseek(cfd, (off_t)newcacheoffset, SEEK_SET) < 0) {
        svclog(nullptr, 58, "Unable to seek index for %s: %m", mbname(mailbox));
        goto fail;
    }
    newindex.s = prot_file(fd, 1);
    newcache.s = prot_file(cfd, 1);

    // The header as it stands; the fixed part is written again at the end.
    out_write(&newindex, map->base, (size_t)start_offset);

    {
        // The cache is copied in runs of kept messages: a run that is
        // skipped (at first from offset 0) or copied, from runstart on.
        int copying = 0;
        uint64_t runstart = 0, deleted = 0, lastoffset = 0;
        int asking = 1;  // no -1 yet
        unsigned kept = 0;
        uint32_t oldest = 0, firstuid = 0, maxsize = 0;
        for (unsigned msgno = 1; msgno <= exists; msgno++) {
            if (mailbox_read_index_record(mailbox, msgno, &rec) != 0) goto fail;
            uint64_t off = rec.rec_cache_offset;
            // An entry beyond the cache, or before the entry of the record
            // in front (entries are written in the order of the records),
            // can't be carried over.
            if (off > cachesize || off < lastoffset) {
                log_index_record(mbname(mailbox), msgno, &rec);
                invalid++;
                continue;
            }
            lastoffset = off;

            int d;
            if (first_hit && msgno < first_hit) {
                d = 0;
            } else if (msgno == first_hit) {
                d = 1;
            } else if (!asking) {
                d = 0;
            } else {
                d = decide(rock, &rec);
                if (d == -1) {
                    asking = 0;
                    d = 0;
                }
            }

            if (d) {
                explist[removed].time = (int32_t)now;
                explist[removed].uid = rec.uid;
                uids[removed] = rec.uid;
                removed++;
                bytes += rec.size;
                if (svclog_msgtrace_active) trace_expunge(mailbox, msgno);
                if (copying) {
                    out_write(&newcache, map->base + oldcacheoffset + runstart,
                              (size_t)(off - runstart));
                    copying = 0;
                    runstart = off;
                }
            } else {
                if (!copying) {
                    deleted += off - runstart;
                    copying = 1;
                    runstart = off;
                }
                if (kept == 0 || (uint32_t)rec.internaldate < oldest)
                    oldest = (uint32_t)rec.internaldate;
                if (kept == 0 || rec.uid < firstuid) firstuid = rec.uid;
                if (rec.size > maxsize) maxsize = rec.size;
                kept++;
                rec.rec_cache_offset = (uint32_t)(off - deleted);
                out_write(&newindex, &rec, sizeof rec);
            }
        }
        if (copying)
            out_write(&newcache, map->base + oldcacheoffset + runstart,
                      (size_t)(cachesize - runstart));

        if (out_flush(&newcache) < 0 || out_flush(&newindex) < 0 ||
            lseek(fd, 0, SEEK_SET) < 0) {
            svclog(nullptr, 58, "Unable to write index for %s: %m", mbname(mailbox));
            goto fail;
        }
        STORE_ASSERT((uint64_t)prot_numbytes(newindex.s) <= newcacheoffset);
        if (kept == 0) STORE_ASSERT(prot_numbytes(newcache.s) == 0);
        // With no cache bytes the file ends at the new cache offset: the
        // free slots are the file's zeros.
        if (prot_numbytes(newcache.s) == 0 && ftruncate(fd, (off_t)newcacheoffset) < 0) {
            svclog(nullptr, 58, "Unable to write index for %s: %m", mbname(mailbox));
            goto fail;
        }
        // The cache is written. Its descriptor goes before the new file
        // is locked: closing any descriptor of a file drops our lock on it.
        close(cfd);
        cfd = -1;

        stage = STAGE_SUMMARY;
        mailbox->mbd.exists = kept;
        if (removed) mailbox->mbd.mbd_flags |= 1;
        mailbox->hdr.cache_offset = (uint32_t)newcacheoffset;
        mailbox->mbd.max_size = maxsize;
        mailbox->mbd.oldest_internaldate = oldest;
        mailbox->mbd.first_uid = firstuid;
    }

    if (mboxlist_changequota(mailbox->name, &mailbox->mbd, (uint32_t)bytes,
                             (uint32_t)(bytes >> 32), removed, 1, &quota) != 0) {
        svclog(nullptr, 58, "Unable to update quota for %s: %m", mbname(mailbox));
        goto fail;
    }
    stage = STAGE_QUOTA;
    {
        uint64_t used = ((uint64_t)mailbox->mbd.quota_used[1] << 32) | mailbox->mbd.quota_used[0];
        used = used > bytes ? used - bytes : 0;
        mailbox->mbd.quota_used[0] = (uint32_t)used;
        mailbox->mbd.quota_used[1] = (uint32_t)(used >> 32);
    }

    if (mboxlist_updatedata(mailbox, 0) != 0) {
        svclog(nullptr, 58, "Unable to update data for %s: %m", mbname(mailbox));
        goto fail;
    }
    stage = STAGE_ROW;

    out_write(&newindex, &mailbox->mbd, sizeof(mboxdata));
    out_write(&newindex, &mailbox->hdr, sizeof(index_header));
    if (out_flush(&newindex) < 0 || sync_file(fd, index_level) != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        goto fail;
    }

    // "store.exp" is locked before the commit, so that a message removed
    // from the index gets its record unless the process dies in between.
    if (removed && (mailbox->mbd.version & 0xFFFF) >= 256) {
        if (mailbox_lock_expunge(exppath, 1, &expfd, &expsize) != 0) goto fail;
    }

    if (lock_blocking(fd) < 0) {
        svclog(nullptr, 58, "Unable to lock new index for  %s: %m", mbname(mailbox));
        goto fail;
    }
    // The commit: the barrier inside makes the new file (and what it
    // counts) durable before the name does.
    r = sync_rename(newpath, idxpath, index_level);
    if (r < 0) {
        svclog(nullptr, 58, "Unable to rename index file for %s: %m", mbname(mailbox));
        lock_unlock(fd);
        goto fail;
    }
    if (r > 0) {
        svclog(nullptr, 58, "Unable to sync directory of index file for %s: %m", mbname(mailbox));
        dirfail = 1;
    }
    mailbox->generation++;

    if (removed) {
        // The files of the removed messages are deleted later, from these
        // records. Failures here leave stray message files, not a damaged
        // folder: they are not reported.
        if (expfd != -1) {
            off_t at = (expsize + 7) & ~(off_t)7;
            if (pwrite(expfd, explist, removed * sizeof(expunge_entry), at) >= 0)
                sync_file(expfd, mailbox_expunge_sync_level());
            lock_unlock(expfd);
            close(expfd);
            expfd = -1;
        }
        if (!(flags & EXPUNGE_NONOTIFY)) storenotify_expunge(mailbox, (int)removed, uids, &quota);
        if (svclog_expungedetails)
            svclog(nullptr, 62, "expunged %d/%d from %s", (int)removed, (int)exists,
                   mbname(mailbox));
    }

    if (flags & EXPUNGE_LOCKED) {
        // The handle moves to the new file, whose lock it holds now.
        lock_unlock(mailbox->index_fd);
        close(mailbox->index_fd);
        mailbox->index_fd = fd;
        fd = -1;
        map_free(mailbox->index_map);
        mailbox->index_map = nullptr;
        r = mailbox_read_index_fixed_header(mailbox);
    } else {
        mailbox_unlock_index(mailbox);
        lock_unlock(fd);
        close(fd);
        fd = -1;
        r = 0;
    }
    prot_free(newcache.s);
    prot_free(newindex.s);
    if (removed) mboxlist_adjustquotastatus(mailbox->name, nullptr, &quota, 0, nullptr);
    free(explist);
    free(uids);
    if (!r && dirfail) r = IMAP_IOERROR;
    return r;

fail:
    if (stage >= STAGE_QUOTA) {
        struct quotadata back;
        memset(&back, 0, sizeof back);
        mboxlist_changequota(mailbox->name, &oldmbd, (uint32_t)bytes, (uint32_t)(bytes >> 32),
                             removed, 0, &back);
    }
    if (stage >= STAGE_SUMMARY) {
        mailbox->mbd = oldmbd;
        mailbox->hdr = oldhdr;
    }
    if (stage >= STAGE_ROW && mboxlist_updatedata(mailbox, 0) != 0)
        svclog(nullptr, 58, "Unable to update data for %s: %m", mbname(mailbox));
    if (!(flags & EXPUNGE_LOCKED)) mailbox_unlock_index(mailbox);
    prot_free(newcache.s);
    prot_free(newindex.s);
    if (cfd != -1) close(cfd);
    if (fd != -1) close(fd);
    // The unfinished file would only take room, which may be what failed.
    if (created) unlink(newpath);
    if (expfd != -1) {
        lock_unlock(expfd);
        close(expfd);
    }
    free(explist);
    free(uids);
    return IMAP_IOERROR;
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
    if (size < EXPUNGE_MAGIC_LEN) {
        lock_unlock(fd);
        close(fd);
        unlink(exppath);
        return 0;
    }

    struct map *map = map_refresh(fd, nullptr, 0, -1);
    if (!map) {
        svclog(nullptr, 59, "Unable to map expunge file %s: %m", exppath);
        lock_unlock(fd);
        close(fd);
        return IMAP_IOERROR;
    }
    size_t len = map->size;
    if (len < EXPUNGE_MAGIC_LEN || memcmp(map->base, EXPUNGE_MAGIC, EXPUNGE_MAGIC_LEN) != 0) {
        svclog(nullptr, 58, "Expunge file corrupted: %s", exppath);
        map_free(map);
        lock_unlock(fd);
        close(fd);
        return IMAP_MAILBOX_BADFORMAT;
    }

    time_t now = time(nullptr);
    size_t offset = EXPUNGE_MAGIC_LEN;
    int lastdir = -1;
    char file[PATH_MAX];
    for (; offset + sizeof(expunge_entry) <= len; offset += sizeof(expunge_entry)) {
        struct expunge_entry e;
        memcpy(&e, map->base + offset, sizeof e);
        if (e.time < 0 || (time_t)e.time > now) {
            svclog(nullptr, 59, "Invalid timestamp in store.exp file: %s", exppath);
            break;
        }
        if ((time_t)e.time > limit) break;  // this one and all behind it are younger
        int dir = (int)((e.uid / 100) % 100);
        if (dir != lastdir && lastdir != -1) {
            // Succeeds only once the directory is empty.
            snprintf(file, sizeof file, "%s/%02u", mpath, (unsigned)lastdir);
            rmdir(file);
        }
        lastdir = dir;
        snprintf(file, sizeof file, "%s/%02u/%u%s", mpath, (unsigned)dir, e.uid, ".msg");
        unlink(file);
    }
    if (lastdir != -1) {
        snprintf(file, sizeof file, "%s/%02u", mpath, (unsigned)lastdir);
        rmdir(file);
    }

    r = 0;
    if (offset == EXPUNGE_MAGIC_LEN) {
        // Nothing was old enough: the file stays as it is.
    } else if (offset + 7 >= len) {
        unlink(exppath);
    } else {
        // The records not yet done move to a new file.
        const char *failure = nullptr;
        size_t rest = (len - offset) / sizeof(expunge_entry) * sizeof(expunge_entry);
        int level = mailbox_expunge_sync_level();
        int nfd = open(newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (nfd < 0) {
            svclog(nullptr, 59, "Unable to open expunge file %s: %m", newpath);
            r = IMAP_IOERROR;
        } else {
            ssize_t n = retry_write(nfd, EXPUNGE_MAGIC, EXPUNGE_MAGIC_LEN);
            if (n == EXPUNGE_MAGIC_LEN) n = retry_write(nfd, map->base + offset, rest);
            if (n != (ssize_t)rest) {
                svclog(nullptr, 59, "Unable to write expunge file %s: %m (n=%d) (l=%d) (o=%d)",
                       newpath, (int)n, (int)len, (int)offset);
                failure = "write";
            } else if (sync_file(nfd, level) != 0) {
                svclog(nullptr, 59, "Unable to fsync expunge file %s: %m (s=%d)", newpath, level);
                failure = "sync";
            } else if (sync_rename(newpath, exppath, level) < 0) {
                svclog(nullptr, 59, "Unable to rename expunge file %s to %s: %m", newpath,
                       exppath);
                failure = "rename";
            }
            close(nfd);
            if (failure) {
                unlink(newpath);
                r = IMAP_IOERROR;
            }
        }
    }
    map_free(map);
    lock_unlock(fd);
    close(fd);
    return r;
}

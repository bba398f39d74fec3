// Folders on disk: the bytes of "store.idx" (fixed header, variable header,
// records, cache area), their readers and writers, the conversion of the
// old two-file layout, message file names, and the small readers over
// cache entries, header blocks and sequences.
//
// Offsets are computed in 64 bits throughout: every length and offset in
// the file is a 32-bit word that a damaged file may set to anything, and
// sums of such words must neither wrap nor lead a read outside the map.
#include "store/mailbox.h"
#include "store/mboxlist.h"

#include <arpa/inet.h>
#include <prinit.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/message.h"
#include "store/storeassert.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/osl.h"
#include "support/prot.h"
#include "support/retry.h"
#include "support/xmalloc.h"

const struct mailbox zeromailbox = {-1,      nullptr, 0,       0,       0,       0,  0,  0,  0, 0,
                                    nullptr, nullptr, nullptr, nullptr, 0,  {}, {}, {}, nullptr};

// Record reserve of a new or converted index, and the source of zero bytes
// for padding.
#define INDEX_RECORD_RESERVE 100
static const char zerobuf[INDEX_RECORD_RESERVE * INDEX_RECORD_SIZE] = {0};

// Room kept free in a variable header that had to grow, and its growth step.
#define VARHDR_MIN_FREE 50
#define VARHDR_STEP 256

// Offsets of the header words in the file.
#define OFFSET_CACHE_OFFSET 60
#define OFFSET_START_OFFSET 64

// ---------------------------------------------------------------------------
// Sync levels of the store's files

static int message_sync_level = 1;
static int cache_sync_level = 1;
static int index_sync_level = 1;
static int expunge_sync_level = 1;
static int peruser_sync_level = 1;
static int subscribe_sync_level = 1;

void mailbox_reloadconfig(void) {
    config_cache *c = config_getdefaultcache();
    int all = config_get_int(c, "local.store.synclevel", -1);
    if (all != -1) {
        message_sync_level = cache_sync_level = index_sync_level = all;
        expunge_sync_level = peruser_sync_level = subscribe_sync_level = all;
    }
    message_sync_level = config_get_int(c, "local.store.messagesynclevel", message_sync_level);
    cache_sync_level = config_get_int(c, "local.store.cachesynclevel", cache_sync_level);
    index_sync_level = config_get_int(c, "local.store.indexsynclevel", index_sync_level);
    expunge_sync_level = config_get_int(c, "local.store.expungesynclevel", expunge_sync_level);
    peruser_sync_level = config_get_int(c, "local.store.perusersynclevel", peruser_sync_level);
    subscribe_sync_level =
        config_get_int(c, "local.store.subscribesynclevel", subscribe_sync_level);
}

static PRCallOnceType sync_levels_loaded;

static PRStatus load_sync_levels(void) {
    mailbox_reloadconfig();
    return PR_SUCCESS;
}

void mailbox_loadconfig(void) { PR_CallOnce(&sync_levels_loaded, load_sync_levels); }

int mailbox_index_sync_level(void) {
    mailbox_loadconfig();
    return index_sync_level;
}

int mailbox_subscribe_sync_level(void) {
    mailbox_loadconfig();
    return subscribe_sync_level;
}

int mailbox_message_sync_level(void) {
    mailbox_loadconfig();
    return message_sync_level;
}

int mailbox_expunge_sync_level(void) {
    mailbox_loadconfig();
    return expunge_sync_level;
}

// ---------------------------------------------------------------------------
// Small helpers

// The folder's name for messages; a handle filled by hand may lack it.
static const char *mbname(const struct mailbox *mailbox) {
    if (mailbox->name) return mailbox->name;
    return mailbox->path ? mailbox->path : "";
}

// "<folder directory>/<file>" into buf; -1 with ENAMETOOLONG if too long.
static int folder_file(const struct mailbox *mailbox, const char *file, char *buf, size_t size) {
    int n = snprintf(buf, size, "%s/%s", mailbox->path ? mailbox->path : ".", file);
    if (n < 0 || (size_t)n >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

static int is_partial(const struct mailbox *mailbox) {
    return (mailbox->open_mode & (OPEN_PARTIAL | OPEN_APPEND)) != 0;
}

// File offset behind the last live record.
static uint64_t records_end(const struct mailbox *mailbox) {
    return (uint64_t)mailbox->mbd.exists * INDEX_RECORD_SIZE + mailbox->hdr.start_offset;
}

static unsigned clamp_size(off_t size) {
    if (size < 0) return 0;
    return (uint64_t)size > UINT32_MAX ? UINT32_MAX : (unsigned)size;
}

// The host-order word at off of the map; the caller has checked the bounds.
static uint32_t map_word(const struct map *map, uint64_t off) {
    uint32_t v;
    memcpy(&v, map->base + off, sizeof v);
    return v;
}

static uint64_t round4(uint64_t n) { return (n + 3) & ~(uint64_t)3; }

// Writes len zero bytes at the current offset.
static int write_zeros(int fd, uint64_t len) {
    while (len > 0) {
        size_t chunk = len < sizeof zerobuf ? (size_t)len : sizeof zerobuf;
        if (retry_write(fd, zerobuf, chunk) < 0) return -1;
        len -= chunk;
    }
    return 0;
}

// Maps "store.idx": up to the end of the records with partial mapping,
// else whole.
static int map_index(struct mailbox *mailbox) {
    long size = is_partial(mailbox) ? (long)records_end(mailbox) : -1;
    mailbox->index_map = map_refresh(mailbox->index_fd, mailbox->index_map, 0, size);
    if (!mailbox->index_map) {
        svclog(nullptr, 58, "Unable to map index file for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Message files

char *mailbox_message_fname(struct mailbox *mailbox, unsigned long uid, char *buf) {
    STORE_ASSERT((mailbox->mbd.version & 0x0000FF00)|| (mailbox->mbd.version == 0x01000001));
    // "%02lu/%lu.msg", written out by hand: this runs for every message
    // delivered or read.
    unsigned long dir = (uid / 100) % 100;
    char digits[24];
    int n = 0;
    do {
        digits[n++] = (char)('0' + uid % 10);
        uid /= 10;
    } while (uid);
    char *p = buf;
    *p++ = (char)('0' + dir / 10);
    *p++ = (char)('0' + dir % 10);
    *p++ = '/';
    while (n) *p++ = digits[--n];
    memcpy(p, ".msg", 5);
    return buf;
}

int mailbox_message_path(struct mailbox *mailbox, unsigned long uid, char *buf, size_t size) {
    const char *dir = mailbox->mpath ? mailbox->mpath : (mailbox->path ? mailbox->path : "");
    char fname[MAILBOX_FNAME_SIZE];
    mailbox_message_fname(mailbox, uid, fname);
    size_t dl = strlen(dir), fl = strlen(fname);
    size_t sep = (dl > 0 && (dir[dl - 1] == '/' || dir[dl - 1] == '\\')) ? 0 : 1;
    if (dl + sep + fl >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(buf, dir, dl);
    if (sep) buf[dl] = '/';
    memcpy(buf + dl + sep, fname, fl + 1);
    return 0;
}

int mailbox_map_message(struct mailbox *mailbox, unsigned long uid, int *fdp, struct map **mapp) {
    char path[PATH_MAX];
    if (fdp) *fdp = -1;
    if (mapp) *mapp = nullptr;
    if (mailbox_message_path(mailbox, uid, path, sizeof path) < 0) return ENAMETOOLONG;
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    if (mapp) {
        *mapp = map_refresh(fd, nullptr, 0, -1);
        if (!*mapp) {
            svclog(nullptr, 59, "Unable to map message file %s for %s: %m", path, mbname(mailbox));
            close(fd);
            return IMAP_IOERROR;
        }
    }
    if (fdp)
        *fdp = fd;
    else
        close(fd);
    return 0;
}

void mailbox_unmap_message(struct mailbox *mailbox, int *fdp, struct map **mapp) {
    (void)mailbox;
    if (mapp) {
        map_free(*mapp);
        *mapp = nullptr;
    }
    if (fdp) {
        if (*fdp != -1) close(*fdp);
        *fdp = -1;
    }
}

// ---------------------------------------------------------------------------
// Reading "store.idx"

// Whether the file ends before the data that the header and the last
// record promise. See mailbox_read_index_fixed_header.
static int is_truncated(const struct mailbox *mailbox) {
    uint64_t exists = mailbox->mbd.exists;
    uint64_t index_size = mailbox->index_size;
    const struct map *map = mailbox->index_map;

    if (exists == 0) return index_size < mailbox->hdr.cache_offset;

    if (is_partial(mailbox)) {
        // Only the records are mapped: the last entry must at least have
        // room for its 11 length words.
        uint64_t rec = mailbox->hdr.start_offset + (exists - 1) * INDEX_RECORD_SIZE;
        if (rec + INDEX_RECORD_SIZE > map->len) return 1;
        uint64_t rco = map_word(map, rec + offsetof(index_record, rec_cache_offset));
        return rco + mailbox->hdr.cache_offset + 4 * MAILBOX_CACHE_ITEMS > index_size;
    }

    if (map->size < index_size) return 1;
    if (map->size < INDEX_HEADER_SIZE) return 1;
    // The walk trusts only the bytes that are mapped.
    uint64_t cache_offset = map_word(map, OFFSET_CACHE_OFFSET);
    uint64_t start_offset = map_word(map, OFFSET_START_OFFSET);
    uint64_t rec = start_offset + (exists - 1) * INDEX_RECORD_SIZE;
    if (rec + INDEX_RECORD_SIZE > map->size) return 1;
    uint64_t p = cache_offset + map_word(map, rec + offsetof(index_record, rec_cache_offset));
    for (int i = 0; i < MAILBOX_CACHE_ITEMS; i++) {
        if (p < cache_offset) return 1;
        if (p + 4 > index_size) return 1;
        uint64_t len = ntohl(map_word(map, p));
        if (p + 4 + len > index_size) return 1;
        p += 4 + round4(len);
    }
    return 0;
}

int mailbox_read_index_fixed_header(struct mailbox *mailbox) {
    STORE_ASSERT(mailbox->index_fd != -1);
    int quiet = (mailbox->open_mode & OPEN_REPAIR) != 0;
    int partial = is_partial(mailbox);
    int r;

    struct stat sbuf;
    if (fstat(mailbox->index_fd, &sbuf) < 0 || sbuf.st_size < INDEX_HEADER_SIZE) {
        if (!quiet)
            svclog(nullptr, 58, "Mailbox corrupted, missing fixed headers: %s", mbname(mailbox));
        return IMAP_MAILBOX_BADFORMAT;
    }

    if (partial) {
        char head[INDEX_HEADER_SIZE];
        if (lseek(mailbox->index_fd, 0, SEEK_SET) < 0 ||
            retry_read(mailbox->index_fd, head, sizeof head) != (ssize_t)sizeof head) {
            if (!quiet)
                svclog(nullptr, 58, "Mailbox corrupted, missing fixed headers: %s",
                       mbname(mailbox));
            return IMAP_MAILBOX_BADFORMAT;
        }
        memcpy(&mailbox->mbd, head, sizeof(mboxdata));
        memcpy(&mailbox->hdr, head + sizeof(mboxdata), sizeof(index_header));
    }
    r = map_index(mailbox);
    if (r) return r;

    mailbox->index_ino = sbuf.st_ino;
    mailbox->index_dev = sbuf.st_dev;
    mailbox->index_mtime = sbuf.st_mtime;
    mailbox->index_size = clamp_size(sbuf.st_size);

    if (!partial) {
        // The map has its own idea of the length if the file just changed.
        if (mailbox->index_map->size < INDEX_HEADER_SIZE) {
            if (!quiet)
                svclog(nullptr, 58, "Mailbox corrupted, missing fixed headers: %s",
                       mbname(mailbox));
            return IMAP_MAILBOX_BADFORMAT;
        }
        memcpy(&mailbox->mbd, mailbox->index_map->base, sizeof(mboxdata));
        memcpy(&mailbox->hdr, mailbox->index_map->base + sizeof(mboxdata), sizeof(index_header));
    }

    if (mailbox->hdr.start_offset > mailbox->index_map->len) {
        if (quiet) {
            mailbox->hdr.start_offset = (uint32_t)mailbox->index_map->len;
        } else {
            svclog(nullptr, 58, "Mailbox corrupted, start_offset beyond EOF: %s", mbname(mailbox));
            return IMAP_MAILBOX_BADFORMAT;
        }
    }

    uint32_t version = mailbox->mbd.version;
    if (version != MAILBOX_VERSION && version != MAILBOX_VERSION_OLD &&
        version != MAILBOX_VERSION_DBONLY) {
        svclog(nullptr, 58, "Mailbox corrupted, Version not recognized: %s", mbname(mailbox));
        return IMAP_MAILBOX_BADFORMAT;
    }

    if (version != MAILBOX_VERSION_OLD) {
        if (records_end(mailbox) > mailbox->hdr.cache_offset) {
            if (!quiet)
                svclog(nullptr, 58, "Mailbox corrupted, cache and idxrec overlap: %s",
                       mbname(mailbox));
            return IMAP_MAILBOX_BADFORMAT;
        }
        if (is_truncated(mailbox)) {
            // Maybe a writer was still appending: look at the file again.
            int truncated = 1;
            struct stat again;
            if (fstat(mailbox->index_fd, &again) < 0 || again.st_size < INDEX_HEADER_SIZE) {
                if (!quiet)
                    svclog(nullptr, 58, "Mailbox corrupted, missing fixed headers: %s",
                           mbname(mailbox));
                return IMAP_MAILBOX_BADFORMAT;
            }
            if (clamp_size(again.st_size) != mailbox->index_size) {
                mailbox->index_size = clamp_size(again.st_size);
                if (!partial) {
                    r = map_index(mailbox);
                    if (r) return r;
                }
                truncated = is_truncated(mailbox);
            }
            // A create that stopped before the record reserve was written:
            // the reserve is zeros, which extending the file gives. The
            // file is mapped again afterwards, so nothing is read beyond
            // what it holds. A file that can't be extended (no space, a
            // size limit) is no damaged folder.
            if (truncated && mailbox->mbd.exists == 0 &&
                mailbox->index_size >= mailbox->hdr.start_offset &&
                mailbox->index_size < mailbox->hdr.cache_offset) {
                if (ftruncate(mailbox->index_fd, (off_t)mailbox->hdr.cache_offset) != 0) {
                    svclog(nullptr, 58, "Unable to extend partially created mailbox %s: %m",
                           mbname(mailbox));
                    return IMAP_IOERROR;
                }
                r = map_index(mailbox);
                if (r) return r;
                svclog(nullptr, 61, "Fixed partially created mailbox: %s", mbname(mailbox));
                mailbox->index_size = mailbox->hdr.cache_offset;
                truncated = 0;
            }
            if (truncated) {
                if (!quiet)
                    svclog(nullptr, 58, "Mailbox corrupted, appears truncated: %s",
                           mbname(mailbox));
                return IMAP_MAILBOX_BADFORMAT;
            }
        }
    }

    r = mailbox_read_index_variable_header(mailbox);
    if (r && !quiet) return r;
    return 0;
}

// The line feed that ends the flag names, searched from offset 80 up to
// start_offset; null if there is none. The search stops at the end of the
// file's bytes: a partial map may reach further, over zeros, which hold no
// line feed.
static const char *varhdr_linefeed(const struct mailbox *mailbox, const char **end) {
    const struct map *map = mailbox->index_map;
    uint64_t stop = mailbox->hdr.start_offset;
    if (stop > map->size) stop = map->size;
    *end = map->base + stop;
    if (stop <= INDEX_HEADER_SIZE) return nullptr;
    return (const char *)memchr(map->base + INDEX_HEADER_SIZE, '\n', stop - INDEX_HEADER_SIZE);
}

// A name of the message type plug-in (msgtype_flag_name), in any case.
static int is_reserved_flag(const char *name, size_t len) {
    for (int k = 0; k < MSGTYPE_MAX_FLAGS; k++) {
        const char *r = msgtype_flag_name[k];
        if (r && strlen(r) == len && strncasecmp(r, name, len) == 0) return 1;
    }
    return 0;
}

// The line feed of the mapped variable header (and in *end the end of the
// header's bytes), or null after a log entry when there is none.
static const char *varhdr_find(const struct mailbox *mailbox, const char **end) {
    if (!mailbox->index_map || mailbox->hdr.start_offset < 60) {
        svclog(nullptr, 58, "unable to read index variable header: %s", mbname(mailbox));
        return nullptr;
    }
    const char *lf = varhdr_linefeed(mailbox, end);
    if (!lf) svclog(nullptr, 58, "Flags corrupted: %s", mbname(mailbox));
    return lf;
}

int mailbox_read_index_variable_header(struct mailbox *mailbox) {
    const char *end;
    const char *lf = varhdr_find(mailbox, &end);
    if (!lf) return IMAP_MAILBOX_BADFORMAT;

    const char *p = mailbox->index_map->base + INDEX_HEADER_SIZE;
    int i = 0;
    for (; i < MAX_USER_FLAGS && p < lf; i++) {
        const char *nul = (const char *)memchr(p, '\0', (size_t)(lf - p));
        const char *name_end = nul ? nul : lf;
        size_t len = (size_t)(name_end - p);
        free(mailbox->flagname[i]);
        mailbox->flagname[i] = nullptr;
        if (len > 0 && !is_reserved_flag(p, len)) mailbox->flagname[i] = xstrndup(p, len);
        p = nul ? nul + 1 : lf;
    }
    for (; i < MAX_USER_FLAGS; i++) {
        free(mailbox->flagname[i]);
        mailbox->flagname[i] = nullptr;
    }
    return mailbox_read_index_header_acl(mailbox);
}

int mailbox_read_index_header_acl(struct mailbox *mailbox) {
    const char *end;
    const char *lf = varhdr_find(mailbox, &end);
    if (!lf) return IMAP_MAILBOX_BADFORMAT;
    const char *acl = lf + 1;
    if (!memchr(acl, '\0', (size_t)(end - acl))) {
        svclog(nullptr, 58, "ACLs corrupted: %s", mbname(mailbox));
        return IMAP_MAILBOX_BADFORMAT;
    }
    free(mailbox->acl);
    mailbox->acl = xstrdup(acl);
    return 0;
}

int mailbox_read_index_record(struct mailbox *mailbox, unsigned msgno,
                              struct index_record *record) {
    int quiet = (mailbox->open_mode & OPEN_REPAIR) != 0;
    const struct map *map = mailbox->index_map;
    if (!map) {
        if (!quiet)
            svclog(nullptr, 58, "Index record not read because mailbox %s not mapped",
                   mbname(mailbox));
        return IMAP_IOERROR;
    }
    uint64_t limit = mailbox->index_size;
    if (limit > map->len) limit = map->len;
    uint64_t offset =
        (uint64_t)mailbox->hdr.start_offset + ((uint64_t)msgno - 1) * INDEX_RECORD_SIZE;
    if (msgno == 0 || offset + INDEX_RECORD_SIZE > limit) {
        if (!quiet)
            svclog(nullptr, 58, "Index record %u for %s past end of file", msgno, mbname(mailbox));
        return IMAP_IOERROR;
    }
    memcpy(record, map->base + offset, sizeof *record);
    return 0;
}

const char *mailbox_cache_item(const struct map *index_map, const char *name, unsigned msgno,
                               int item) {
    STORE_ASSERT(item >= 0 && item < MAILBOX_CACHE_ITEMS);
    const struct map *map = index_map;
    if (map && map->size >= INDEX_HEADER_SIZE && msgno > 0) {
        uint64_t cache_offset = map_word(map, OFFSET_CACHE_OFFSET);
        uint64_t start_offset = map_word(map, OFFSET_START_OFFSET);
        uint64_t rec = start_offset + ((uint64_t)msgno - 1) * INDEX_RECORD_SIZE;
        if (rec + INDEX_RECORD_SIZE <= map->size) {
            uint64_t p =
                cache_offset + map_word(map, rec + offsetof(index_record, rec_cache_offset));
            for (int i = 0; i <= item; i++) {
                if (p < cache_offset || p + 4 > map->size) break;
                uint64_t len = ntohl(map_word(map, p));
                if (p + 4 + len > map->size) break;
                if (i == item) return map->base + p;
                p += 4 + round4(len);
            }
        }
    }
    svclog(nullptr, 3, "Invalid cache data for msg %d in mailbox %s. Needs reconstruct", (int)msgno,
           name ? name : "");
    return nullptr;
}

// ---------------------------------------------------------------------------
// Writing "store.idx"

int mailbox_write_index_fixed_header(struct mailbox *mailbox) {
    STORE_ASSERT(mailbox->index_lock_count != 0);
    // The header counts records, cache entries and message files that may
    // have been written at sync level 1: they reach the disk before it.
    if (sync_file_barrier() != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    struct iovec iov[2];
    iov[0].iov_base = &mailbox->mbd;
    iov[0].iov_len = sizeof(mboxdata);
    iov[1].iov_base = &mailbox->hdr;
    iov[1].iov_len = sizeof(index_header);
    if (lseek(mailbox->index_fd, 0, SEEK_SET) < 0 || retry_writev(mailbox->index_fd, iov, 2) < 0 ||
        sync_file_on(mailbox->index_fd, index_sync_level, mailbox->index_dev) != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    return 0;
}

void mailbox_format_index_variable_header(struct mailbox *mailbox, struct iovec *iov,
                                          int *num_iov) {
    STORE_ASSERT(mailbox->index_lock_count != 0);
    int n = *num_iov;
    int zero_run = 0;  // the last entry counts free slots
    for (int i = 0; i < MAX_USER_FLAGS; i++) {
        if (mailbox->flagname[i]) {
            iov[n].iov_base = mailbox->flagname[i];
            iov[n].iov_len = strlen(mailbox->flagname[i]) + 1;
            n++;
            zero_run = 0;
        } else if (zero_run) {
            iov[n - 1].iov_len++;
        } else {
            iov[n].iov_base = const_cast<char *>(zerobuf);
            iov[n].iov_len = 1;
            n++;
            zero_run = 1;
        }
    }
    // Trailing free slots are left out: the line feed takes their place.
    if (!zero_run) n++;
    iov[n - 1].iov_base = const_cast<char *>("\n");
    iov[n - 1].iov_len = 1;

    const char *acl = mailbox->acl ? mailbox->acl : "";
    iov[n].iov_base = const_cast<char *>(acl);
    iov[n].iov_len = strlen(acl) + 1;
    n++;
    *num_iov = n;
}

// Replaces "store.idx" by a copy whose variable header has room for the
// entries iov[2..n) (total bytes); records and cache move behind it.
static int rewrite_index(struct mailbox *mailbox, struct iovec *iov, int n, uint64_t total,
                         uint64_t room) {
    char newpath[PATH_MAX], path[PATH_MAX];
    if (folder_file(mailbox, "index.new", newpath, sizeof newpath) < 0 ||
        folder_file(mailbox, "store.idx", path, sizeof path) < 0) {
        svclog(nullptr, 58, "Unable to create index file for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }

    uint64_t newroom = room;
    while (total + VARHDR_MIN_FREE > newroom) newroom += VARHDR_STEP;
    uint64_t oldstart = mailbox->hdr.start_offset;
    uint64_t newstart = newroom + INDEX_HEADER_SIZE;
    uint64_t newcache = (uint64_t)mailbox->hdr.cache_offset + (newstart - oldstart);
    if (newcache > UINT32_MAX) {
        errno = EFBIG;
        svclog(nullptr, 58, "Unable to write new index for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }

    // Everything behind the old variable header is carried over from the
    // file itself: a partial map holds the records but not the cache.
    struct map *whole = nullptr;
    const char *tail = nullptr;
    uint64_t taillen = 0;
    struct stat st;
    if (fstat(mailbox->index_fd, &st) < 0) {
        svclog(nullptr, 58, "Unable to write new index for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    uint64_t filesize = (uint64_t)st.st_size;
    if (filesize > oldstart) {
        const struct map *src = mailbox->index_map;
        if (!src || src->size < filesize) {
            whole = map_refresh(mailbox->index_fd, nullptr, 0, -1);
            if (!whole) {
                svclog(nullptr, 58, "Unable to map index file for %s: %m", mbname(mailbox));
                return IMAP_IOERROR;
            }
            src = whole;
            if (src->size < filesize) filesize = src->size;
        }
        if (filesize > oldstart) {
            tail = src->base + oldstart;
            taillen = filesize - oldstart;
        }
    }

    int fd = open(newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        svclog(nullptr, 58, "Unable to create index file for %s: %m", mbname(mailbox));
        map_free(whole);
        return IMAP_IOERROR;
    }
    if (lock_blocking(fd) < 0) {
        svclog(nullptr, 58, "Unable to lock new index for %s: %m", mbname(mailbox));
        close(fd);
        unlink(newpath);
        map_free(whole);
        return IMAP_IOERROR;
    }

    struct index_header newhdr = mailbox->hdr;
    newhdr.start_offset = (uint32_t)newstart;
    newhdr.cache_offset = (uint32_t)newcache;
    iov[0].iov_base = &mailbox->mbd;
    iov[0].iov_len = sizeof(mboxdata);
    iov[1].iov_base = &newhdr;
    iov[1].iov_len = sizeof(index_header);
    iov[n].iov_base = const_cast<char *>(zerobuf);  // below VARHDR_MIN_FREE + VARHDR_STEP
    iov[n].iov_len = (size_t)(newroom - total);
    n++;
    iov[n].iov_base = const_cast<char *>(tail ? tail : zerobuf);
    iov[n].iov_len = (size_t)taillen;
    n++;
    uint64_t written = INDEX_HEADER_SIZE + newroom + taillen;

    // sync_rename flushes what was written at level 1 before the new file
    // takes the name, and the directory by the level after. A directory
    // that could not be flushed leaves the new file in place: the handle
    // follows it, and the caller hears of the failure.
    const char *failure = nullptr;
    int renamed = -1;
    if (retry_writev(fd, iov, n) < 0 || sync_file(fd, index_sync_level) != 0)
        failure = "Unable to write new index for %s: %m";
    else if ((renamed = sync_rename(newpath, path, index_sync_level)) < 0)
        failure = "Unable to rename index file for %s: %m";
    else if (renamed > 0)
        svclog(nullptr, 58, "Unable to sync directory of index file for %s: %m", mbname(mailbox));
    map_free(whole);
    if (failure) {
        svclog(nullptr, 58, failure, mbname(mailbox));
        close(fd);
        unlink(newpath);
        return IMAP_IOERROR;
    }

    // The new file takes the place of the old one, its lock already held.
    if (mailbox->index_fd != -1) {
        lock_unlock(mailbox->index_fd);
        close(mailbox->index_fd);
    }
    mailbox->index_fd = fd;
    mailbox->hdr = newhdr;
    if (fstat(fd, &st) == 0) {
        mailbox->index_ino = st.st_ino;
        mailbox->index_dev = st.st_dev;
        mailbox->index_mtime = st.st_mtime;
    }
    mailbox->index_size = clamp_size((off_t)written);
    mailbox->generation++;
    long mapsize = is_partial(mailbox) ? (long)records_end(mailbox) : (long)written;
    mailbox->index_map = map_refresh(fd, mailbox->index_map, 0, mapsize);
    if (!mailbox->index_map) {
        svclog(nullptr, 58, "Unable to map index file for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    return renamed > 0 ? IMAP_IOERROR : 0;
}

int mailbox_write_index_variable_header(struct mailbox *mailbox) {
    // Two entries in front for mbd and hdr and two behind for the padding
    // and the rest of the file, used when the file is rewritten.
    struct iovec iov[2 + MAILBOX_VARHDR_IOV + 2];
    int n = 2;
    mailbox_format_index_variable_header(mailbox, iov, &n);
    uint64_t total = 0;
    for (int i = 2; i < n; i++) total += iov[i].iov_len;
    uint64_t room = mailbox->hdr.start_offset > INDEX_HEADER_SIZE
                        ? mailbox->hdr.start_offset - INDEX_HEADER_SIZE
                        : 0;

    if (total > room) return rewrite_index(mailbox, iov, n, total, room);

    if (lseek(mailbox->index_fd, INDEX_HEADER_SIZE, SEEK_SET) < 0 ||
        retry_writev(mailbox->index_fd, iov + 2, n - 2) < 0 ||
        write_zeros(mailbox->index_fd, room - total) < 0 ||
        sync_file_on(mailbox->index_fd, index_sync_level, mailbox->index_dev) != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    return 0;
}

int mailbox_write_index_record(struct mailbox *mailbox, unsigned msgno,
                               const struct index_record *record) {
    STORE_ASSERT(msgno > 0);
    off_t offset = (off_t)mailbox->hdr.start_offset + (off_t)(msgno - 1) * INDEX_RECORD_SIZE;
    if (retry_pwrite(mailbox->index_fd, record, INDEX_RECORD_SIZE, offset) < 0 ||
        sync_file_on(mailbox->index_fd, index_sync_level, mailbox->index_dev) != 0) {
        svclog(nullptr, 58, "Unable to write index record %u for %s: %m", msgno, mbname(mailbox));
        return IMAP_IOERROR;
    }
    return 0;
}

int mailbox_append_index(struct mailbox *mailbox, const struct index_record *records,
                         unsigned msgno, unsigned count) {
    STORE_ASSERT(mailbox->index_lock_count != 0);
    STORE_ASSERT(msgno > 0);
    if (count == 0) return 0;
    off_t offset = (off_t)mailbox->hdr.start_offset + (off_t)(msgno - 1) * INDEX_RECORD_SIZE;
    if (retry_pwrite(mailbox->index_fd, records, (size_t)count * INDEX_RECORD_SIZE, offset) < 0 ||
        sync_file_on(mailbox->index_fd, index_sync_level, mailbox->index_dev) != 0) {
        svclog(nullptr, 59, "Unable to append index records for %s: %m", mbname(mailbox));
        return IMAP_IOERROR;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Conversion of the old layout

int mailbox_convertfromv1(struct mailbox *mailbox) {
    STORE_ASSERT(mailbox->index_fd != -1);
    STORE_ASSERT(mailbox->index_lock_count == 0);

    // The lock reads the header again, of the file that the path names
    // once we hold it.
    int r = mailbox_lock_index(mailbox);
    if (r) return r;
    if (mailbox->mbd.version != MAILBOX_VERSION_OLD) {
        // Converted by another process while we waited for the lock.
        mailbox_unlock_index(mailbox);
        return 0;
    }

    char cchpath[PATH_MAX], newpath[PATH_MAX], idxpath[PATH_MAX];
    int cfd = -1, nfd = -1;
    struct map *cmap = nullptr;
    struct protstream *out = nullptr;
    struct mboxdata oldmbd = mailbox->mbd;
    struct index_header oldhdr = mailbox->hdr;
    const struct map *imap = mailbox->index_map;
    uint64_t exists = oldmbd.exists;
    uint64_t start = oldhdr.start_offset;
    uint64_t newcache = exists * INDEX_RECORD_SIZE + start + sizeof zerobuf;
    int renamed = 0;  // the new file holds the name

    if (folder_file(mailbox, "store.cch", cchpath, sizeof cchpath) < 0 ||
        folder_file(mailbox, "index.new", newpath, sizeof newpath) < 0 ||
        folder_file(mailbox, "store.idx", idxpath, sizeof idxpath) < 0) {
        svclog(nullptr, 58, "Unable to open cache file for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }

    do {
        cfd = open(cchpath, O_RDWR | O_CLOEXEC);
    } while (cfd < 0 && errno == EINTR);
    if (cfd < 0) {
        svclog(nullptr, 58, "Unable to open cache file for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }
    cmap = map_refresh(cfd, nullptr, 0, -1);
    if (!cmap) {
        svclog(nullptr, 58, "Unable to map cache file for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }
    // At version 257 the word at offset 60 is the generation of the pair.
    if (cmap->size < 4 || memcmp(cmap->base, &oldhdr.cache_offset, 4) != 0) {
        r = IMAP_MAILBOX_BADFORMAT;
        goto done;
    }
    if (!imap || start < INDEX_HEADER_SIZE ||
        start + exists * INDEX_RECORD_SIZE_OLD > imap->size) {
        svclog(nullptr, 58, "Mailbox corrupted, appears truncated: %s", mbname(mailbox));
        r = IMAP_MAILBOX_BADFORMAT;
        goto done;
    }
    if (newcache > UINT32_MAX) {
        errno = EFBIG;
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }

    nfd = open(newpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nfd < 0) {
        svclog(nullptr, 58, "Unable to create index for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }

    mailbox->mbd.version = MAILBOX_VERSION;
    mailbox->hdr.cache_offset = (uint32_t)newcache;

    out = prot_file(nfd, 1);
    prot_write(out, (const char *)&mailbox->mbd, sizeof(mboxdata));
    prot_write(out, (const char *)&mailbox->hdr, sizeof(index_header));
    prot_write(out, imap->base + INDEX_HEADER_SIZE, (size_t)(start - INDEX_HEADER_SIZE));
    for (uint64_t i = 0; i < exists; i++) {
        struct index_record rec;
        memset(&rec, 0, sizeof rec);
        memcpy(&rec, imap->base + start + i * INDEX_RECORD_SIZE_OLD, INDEX_RECORD_SIZE_OLD);
        // The old offsets counted the 4 bytes of the generation.
        rec.rec_cache_offset -= 4;
        rec.orig_uid = rec.uid;
        rec.orig_uidvalidity = mailbox->mbd.uidvalidity;
        prot_write(out, (const char *)&rec, sizeof rec);
    }
    prot_write(out, zerobuf, sizeof zerobuf);
    prot_write(out, cmap->base + 4, cmap->size - 4);
    if (prot_flush(out) < 0 || sync_file(nfd, index_sync_level) != 0) {
        svclog(nullptr, 58, "Unable to write index header for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }

    // The folder's row holds a copy of mbd: it gets the new summary before
    // the new file takes the place of the old one.
    if (mboxlist_updatedata(mailbox, 0) != 0) {
        svclog(nullptr, 58, "Unable to update mboxlist for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }

    // A directory that could not be flushed leaves the new file in place
    // but not surely on disk: the old cache stays beside it, unused.
    int moved;
    moved = sync_rename(newpath, idxpath, index_sync_level);
    if (moved < 0) {
        svclog(nullptr, 58, "Unable to rename index file for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
        goto done;
    }
    if (moved > 0) {
        svclog(nullptr, 58, "Unable to sync directory of index file for %s: %m", mbname(mailbox));
        r = IMAP_IOERROR;
    } else {
        unlink(cchpath);
    }
    renamed = 1;

done:
    prot_free(out);
    map_free(cmap);
    if (cfd != -1) close(cfd);
    if (!renamed) {
        mailbox->mbd = oldmbd;
        mailbox->hdr = oldhdr;
        if (nfd != -1) unlink(newpath);
    }
    mailbox_unlock_index(mailbox);
    if (nfd != -1) close(nfd);
    if (renamed) {
        int reopened = mailbox_reopen_index(mailbox);
        if (!r) r = reopened;
    }
    return r;
}

// ---------------------------------------------------------------------------
// Directories

int mailbox_makedirs(const char *path) {
    char buf[PATH_MAX];
    size_t len = strlen(path);
    if (len >= sizeof buf) return IMAP_MAILBOX_BADNAME;
    if (len == 0) {
        errno = ENOENT;
        svclog(nullptr, 59, "Unable to create directory %s: %m", path);
        return IMAP_IOERROR;
    }
    memcpy(buf, path, len + 1);
    // Each leading part, then the whole path.
    for (char *p = buf + 1;; p++) {
        if (*p != '/' && *p != '\0') continue;
        char c = *p;
        *p = '\0';
        if (osl_mkdir(buf, 0777) < 0) {
            int e = errno;
            struct stat st;
            if (e == ENAMETOOLONG) return IMAP_MAILBOX_BADNAME;
            if (stat(buf, &st) != 0 || !S_ISDIR(st.st_mode)) {
                errno = (e == EEXIST) ? ENOTDIR : e;
                svclog(nullptr, 59, "Unable to create directory %s: %m", buf);
                return IMAP_IOERROR;
            }
        }
        *p = c;
        if (!c) break;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Sequences and header blocks

// Reads a number or "*" at *seq.
static unsigned long seq_number(const char **seq, unsigned max) {
    const char *s = *seq;
    unsigned long n = 0;
    if (*s == '*') {
        n = max;
        s++;
    } else {
        while (*s >= '0' && *s <= '9') n = n * 10 + (unsigned long)(*s++ - '0');
    }
    *seq = s;
    return n;
}

int is_insequence(unsigned num, const char *seq, unsigned max) {
    for (;;) {
        unsigned long low = seq_number(&seq, max);
        unsigned long high = low;
        if (*seq == ':') {
            seq++;
            high = seq_number(&seq, max);
            if (low > high) {
                unsigned long t = low;
                low = high;
                high = t;
            }
        }
        if (num >= low && num <= high) return 1;
        if (*seq == '\0') return 0;
        seq++;  // the separator
    }
}

const char *hdrend(const char *p, const char *end) {
    for (;;) {
        while (p < end && *p != '\n' && *p != '\0') p++;
        if (p >= end) return end;
        p++;
        if (p < end && (*p == ' ' || *p == '\t')) continue;
        return p;
    }
}

char *mailbox_getheadervalue(const char *name, const char *base, unsigned long size) {
    if (!name || !base) return nullptr;
    if (size > MAILBOX_HEADER_LIMIT) size = MAILBOX_HEADER_LIMIT;
    const char *end = base + size;
    size_t namelen = strlen(name);
    const char *p = base;
    while (p < end) {
        if (*p == '\r' || *p == '\n' || *p == '\0') return nullptr;
        if ((size_t)(end - p) < namelen + 4) return nullptr;
        const char *next = hdrend(p, end);
        if (strncasecmp(p, name, namelen) == 0 && p[namelen] == ':') {
            const char *v = p + namelen + 1;
            while (v < next && (*v == ' ' || *v == '\t' || *v == '\r' || *v == '\n')) v++;
            char *value = (char *)xmalloc((size_t)(next - v) + 1);
            char *d = value;
            for (; v < next && *v != '\0'; v++)
                if (*v != '\r' && *v != '\n') *d++ = *v;
            *d = '\0';
            return value;
        }
        p = next;
    }
    return nullptr;
}

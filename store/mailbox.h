// Folders on disk: the bytes of "store.idx" and the handle of an open
// folder.
//
// "store.idx" holds the 60-byte folder summary (mboxdata), a 20-byte header,
// a variable header with the flag names and the ACL, one 76-byte record per
// message, free record slots, and the cache area with the parsed form of
// every message. Integers are written in the byte order of the host
// (little-endian), as whole structures; only the lengths inside the cache
// area are in network byte order.
#ifndef STORE_MAILBOX_H
#define STORE_MAILBOX_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

struct map;

#define MAILBOX_VERSION 258          // the current layout
#define MAILBOX_VERSION_OLD 257      // two files: "store.idx" and "store.cch"
#define MAILBOX_VERSION_DBONLY 0x01000001  // known to the database, no files yet

#define MAX_USER_FLAGS 96

// Bits of index_record.system_flags. Seen and deleted are per-user state.
#define FLAG_ANSWERED 0x00000001u
#define FLAG_FLAGGED 0x00000002u
#define FLAG_DRAFT 0x00000008u
#define FLAG_NODOTS_CRLF 0x00000010u  // no line starts with "." and the text ends in CRLF
#define FLAG_MSGTYPE_MASK 0xFF000000u

// The folder summary: at the head of "store.idx" and in the folder's row
// of the folder database.
struct mboxdata {
    uint32_t version;
    uint32_t exists;
    uint32_t mbd_flags;  // bit 0: expunge has removed a message
    uint32_t max_size;
    uint32_t last_appenddate;
    uint32_t last_uid;
    uint32_t oldest_internaldate;
    uint32_t first_uid;
    uint32_t quota_used[2];  // low word, then high word
    uint32_t reserved1;
    uint32_t uidvalidity;
    uint32_t reserved2[3];
};

// The 20 bytes behind mboxdata.
struct index_header {
    uint32_t cache_offset;  // file offset of the cache area (version 257: generation)
    uint32_t start_offset;  // file offset of record 1
    uint32_t reserved[3];
};

// The record of one message.
struct index_record {
    uint32_t uid;
    int32_t internaldate;
    uint32_t sentdate;
    uint32_t reserved1[4];
    uint32_t size;
    uint32_t header_size;
    uint32_t content_offset;
    uint32_t rec_cache_offset;
    uint32_t last_updated;
    uint32_t reserved2;
    uint32_t system_flags;
    uint32_t user_flags[MAX_USER_FLAGS / 32];
    uint32_t orig_uid;
    uint32_t orig_uidvalidity;
};

static_assert(sizeof(mboxdata) == 60, "mboxdata is 60 bytes");
static_assert(offsetof(mboxdata, quota_used) == 32, "quota_used at 32");
static_assert(offsetof(mboxdata, uidvalidity) == 44, "uidvalidity at 44");
static_assert(sizeof(index_header) == 20, "the header behind mboxdata is 20 bytes");
static_assert(sizeof(index_record) == 76, "index_record is 76 bytes");
static_assert(offsetof(index_record, size) == 28, "size at 28");
static_assert(offsetof(index_record, rec_cache_offset) == 40, "rec_cache_offset at 40");
static_assert(offsetof(index_record, system_flags) == 52, "system_flags at 52");
static_assert(offsetof(index_record, user_flags) == 56, "user_flags at 56");
static_assert(offsetof(index_record, orig_uid) == 68, "orig_uid at 68");
static_assert(offsetof(index_record, orig_uidvalidity) == 72, "orig_uidvalidity at 72");

#define INDEX_HEADER_SIZE 80           // mboxdata and index_header
#define INDEX_RECORD_SIZE 76
#define INDEX_RECORD_SIZE_OLD 68       // version 257: the record up to user_flags

// Open modes of a folder.
#define OPEN_PARTIAL 0x01   // header read with read(), only the records mapped
#define OPEN_SILENT 0x02    // no message for an unreadable index
#define OPEN_LAZY 0x04      // an empty folder gets no open file
#define OPEN_NOWAIT 0x08    // the index lock is tried, not waited for
#define OPEN_APPEND 0x10    // as OPEN_PARTIAL, for delivery
#define OPEN_REPAIR 0x20    // corruption is no error
#define OPEN_TRUNCATE 0x40  // "store.idx" is opened with truncation

// The handle of one open folder. A closed or fresh handle equals
// zeromailbox: index_fd -1, everything else zero.
struct mailbox {
    int index_fd;
    struct map *index_map;
    unsigned index_lock_count;
    unsigned peruser_lock_count;
    unsigned open_mode;
    unsigned generation;
    time_t index_mtime;
    ino_t index_ino;
    dev_t index_dev;  // device of "store.idx", 0 until known
    unsigned index_size;
    char *name;       // internal folder name
    char *partition;
    char *path;       // folder directory
    char *mpath;      // message directory; the same pointer as path without a separate root
    unsigned long myrights;
    struct mboxdata mbd;
    struct index_header hdr;
    char *flagname[MAX_USER_FLAGS];
    char *acl;
};

static_assert(offsetof(mailbox, hdr) == offsetof(mailbox, mbd) + sizeof(mboxdata),
              "mbd and hdr are read with one call");

extern const struct mailbox zeromailbox;

#define MAILBOX_FNAME_SIZE 32        // buffer of mailbox_message_fname
#define MAILBOX_CACHE_ITEMS 11       // items of one cache entry
#define MAILBOX_HEADER_LIMIT 10000   // bytes examined by mailbox_getheadervalue
// Gather entries that mailbox_format_index_variable_header may add.
#define MAILBOX_VARHDR_IOV (MAX_USER_FLAGS + 2)

struct iovec;

// Reads the sync levels of the store's files from the configuration:
// local.store.synclevel for all six, then each specific key
// (local.store.{message,cache,index,expunge,peruser,subscribe}synclevel).
void mailbox_reloadconfig(void);
// Reads them once per process, at the first call (the first open).
void mailbox_loadconfig(void);
// The sync level of "store.idx", read once per process.
int mailbox_index_sync_level(void);
// The sync level of message files, read once per process.
int mailbox_message_sync_level(void);

// "%02lu/%lu.msg" of uid into buf (MAILBOX_FNAME_SIZE bytes); gives buf.
char *mailbox_message_fname(struct mailbox *mailbox, unsigned long uid, char *buf);
// The path of uid's message file in the message directory into buf (size
// bytes). 0, or -1 with errno ENAMETOOLONG when it doesn't fit.
int mailbox_message_path(struct mailbox *mailbox, unsigned long uid, char *buf, size_t size);
// Opens the message file of uid read-only. With fdp the descriptor is handed
// out, otherwise closed; with mapp the file is mapped whole. 0, the errno of
// a failed open, or IMAP_IOERROR if the map failed.
int mailbox_map_message(struct mailbox *mailbox, unsigned long uid, int *fdp, struct map **mapp);
// Frees *mapp and closes *fdp (either may be null); stores null and -1.
void mailbox_unmap_message(struct mailbox *mailbox, int *fdp, struct map **mapp);

// Reads mbd and hdr of the open "store.idx", maps it (whole, or only up to
// the records under OPEN_PARTIAL/OPEN_APPEND), checks it and reads the
// variable header. 0, IMAP_MAILBOX_BADFORMAT or IMAP_IOERROR.
int mailbox_read_index_fixed_header(struct mailbox *mailbox);
// Flag names and ACL from the mapped variable header.
int mailbox_read_index_variable_header(struct mailbox *mailbox);
// The ACL alone from the mapped variable header.
int mailbox_read_index_header_acl(struct mailbox *mailbox);
// Copies record msgno (from 1) out of the map. 0 or IMAP_IOERROR.
int mailbox_read_index_record(struct mailbox *mailbox, unsigned msgno, struct index_record *record);

// The writers need the index lock (index_lock_count above 0) where noted,
// and sync the file at the index sync level.
int mailbox_write_index_fixed_header(struct mailbox *mailbox);  // lock
// Writes flag names and ACL; when they no longer fit below start_offset the
// file is rewritten through "index.new" with more room (index_fd, the map,
// hdr, index_size and generation change then).
int mailbox_write_index_variable_header(struct mailbox *mailbox);  // lock
// Adds the gather entries of the variable header to iov from entry *num_iov
// on (room for MAILBOX_VARHDR_IOV more is needed) and updates *num_iov.
void mailbox_format_index_variable_header(struct mailbox *mailbox, struct iovec *iov,
                                          int *num_iov);  // lock
int mailbox_write_index_record(struct mailbox *mailbox, unsigned msgno,
                               const struct index_record *record);
// Writes count records for the message numbers from msgno on in one write.
int mailbox_append_index(struct mailbox *mailbox, const struct index_record *records,
                         unsigned msgno, unsigned count);  // lock

// Converts a version 257 folder ("store.idx" and "store.cch") to one
// "store.idx" at version 258, taking and releasing the index lock itself,
// and opens the new file. 0, IMAP_MAILBOX_BADFORMAT or IMAP_IOERROR.
int mailbox_convertfromv1(struct mailbox *mailbox);

// ---- opening folders and the index lock ----------------------------------
//
// A handle is zero (zeromailbox), open, or locked. The open reads the
// header once; the index lock (a whole-file record lock on "store.idx")
// reads it again, follows a file that another process replaced while we
// waited, and nests: only the outermost lock and unlock touch the file.

struct auth_state;

// Opens folder name from its row in the folder database. A folder missing
// from the database whose owner's inbox is there is taken up from its
// files (its ACL read from the index, cleaned, and the row written); a
// folder with a row and no "store.idx" (a new folder, or one that lost its
// files) is created empty at the current version. mode: OPEN_* bits. 0 or
// an error, the handle being zeromailbox after an error.
int mailbox_open(const char *name, unsigned mode, const struct auth_state *auth,
                 struct mailbox *mailbox);
// Opens the folder at path without the database; copies every string.
// mpath null or "" means no separate message directory. A version 257
// folder is converted at once (not under OPEN_REPAIR).
int mailbox_open_path(const char *name, unsigned mode, const char *partition, const char *path,
                      const char *mpath, const char *acl, const struct auth_state *auth,
                      struct mailbox *mailbox);
// Closes and opens "store.idx" again and reads its header; the index lock
// must not be held. Under OPEN_REPAIR a missing or damaged file gives 0
// with index_fd -1.
int mailbox_reopen_index(struct mailbox *mailbox);
// Frees everything (dropping the index lock) and leaves zeromailbox.
void mailbox_close(struct mailbox *mailbox);
// Takes the index lock (waits, or under OPEN_NOWAIT gives
// IMAP_MAILBOX_LOCKED) and reads the header of the file it holds. 0,
// IMAP_MAILBOX_LOCKED, IMAP_IOERROR or the error of reading the header.
int mailbox_lock_index(struct mailbox *mailbox);
void mailbox_unlock_index(struct mailbox *mailbox);
// A new heap ACL built from the entries of acl (identifier TAB rights TAB)
// with the owner of a user's folder holding all rights and keeping the
// owner's rights; an entry without its closing TAB ends the text.
char *cleanacl(const char *acl, const char *name);
// Takes the ACL from the folder's row and recomputes myrights. 0 or the
// error of mboxlist_lookup.
int mailbox_read_acl(struct mailbox *mailbox, const struct auth_state *auth);

// The length word of cache item `item` (0..10) of message msgno, checked
// against the bounds of the map; null (and a log entry) if the entry is
// damaged.
const char *mailbox_cache_item(const struct map *index_map, const char *name, unsigned msgno,
                               int item);

// Creates the directory path and its missing parents (mode 0777).
// 0, IMAP_MAILBOX_BADNAME for a path too long, else IMAP_IOERROR.
int mailbox_makedirs(const char *path);

// ---- expunge: rewriting records and cache ------------------------------
//
// mailbox_expunge rewrites "store.idx" through "index.new": it drops the
// records that the decision function removes, compacts the cache in runs,
// and lays out free record slots (the larger of exists and 100, plus
// extraspace). Message files are not touched: each removed message gets a
// (time, uid) record in "store.exp", and mailbox_clean_expunge deletes the
// files later.

// A decision function: 0 keep, -1 keep this and all that follow, other remove.
typedef int (*mailbox_decideproc_t)(void *rock, const struct index_record *record);

// Bits of mailbox_expunge.
#define EXPUNGE_FORCE 0x02     // rewrite even when nothing goes, even an empty folder
#define EXPUNGE_LOCKED 0x04    // the caller holds the index lock and keeps the folder
#define EXPUNGE_NONOTIFY 0x08  // no notification
// The removed messages live on in another folder of the same quota root
// (the contents of a renamed inbox): the root is not charged for them.
#define EXPUNGE_NOQUOTA 0x10

// 0, IMAP_IOERROR, or the error of re-reading the header or of the lock.
int mailbox_expunge(struct mailbox *mailbox, int flags, int extraspace,
                    mailbox_decideproc_t decide, void *rock);
// Opens (with create: makes) "store.exp" at path and locks it; *fdp and
// *sizep get descriptor and size. 0, IMAP_MAILBOX_NONEXISTENT or IMAP_IOERROR.
int mailbox_lock_expunge(const char *path, int create, int *fdp, off_t *sizep);
// Deletes the message files of the "store.exp" records of folder directory
// path (messages under mpath, or path when null) that are not younger than
// limit, and shortens or removes "store.exp". 0, IMAP_MAILBOX_NONEXISTENT,
// IMAP_MAILBOX_BADFORMAT or IMAP_IOERROR.
int mailbox_clean_expunge(const char *path, const char *mpath, time_t limit);
// Logs an invalid record of a rewrite in hexadecimal.
void log_index_record(const char *name, unsigned msgno, const struct index_record *record);
// The sync level of "store.exp", read once per process.
int mailbox_expunge_sync_level(void);
// The sync level of the subscription copy "store.sub", read once per process.
int mailbox_subscribe_sync_level(void);

// (mailbox_location, which needs the folder database and the directory of
// users, comes with those.)

// 1 if num is in the sequence ("1:5,7,20:*", "*" standing for max), else 0.
int is_insequence(unsigned num, const char *seq, unsigned max);
// Start of the header behind the one at p (folded lines included), at most end.
const char *hdrend(const char *p, const char *end);
// The value of header `name` in the header block base (first 10000 bytes),
// unfolded, leading blanks dropped; a heap string or null.
char *mailbox_getheadervalue(const char *name, const char *base, unsigned long size);

#endif

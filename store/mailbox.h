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

#endif

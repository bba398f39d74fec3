// Delivery of messages into folders.
//
// All delivery into a folder runs in an append session:
//
//   struct mailbox mb = zeromailbox;
//   struct append_state as;
//   as.mailbox = &mb;
//   append_setup(&as, name, 0, 258, auth, rights, quotasize);   // index lock held
//   append_msg(&as, &msg, ...);                                  // any number
//   append_finish(&as);                                          // header + row, lock gone
//   mailbox_close(&mb);
//
// append_setup opens the folder, checks partition state, rights, format,
// the folder's message limit and quota, and takes the index lock, which
// stays held until append_finish. append_msg writes or links the message
// file, appends the cache entry and the index record, records flags, and
// undoes its own file work when it fails. append_finish settles quota and
// makes the session's messages count: one barrier, then the folder's row
// and the fixed header of "store.idx" in one transaction.
//
// Crash safety rests on order: a message file before its cache entry,
// the cache entry before its record, the records before the header that
// counts them. Cache entries and records of a run wait in batches and
// reach "store.idx" before any header, per-user data or growth that refers
// to their messages (append_flush_peruser writes them as well); a reader
// of the file sees a session's records at the latest after append_finish. A crash at any instant leaves a folder whose header counts
// only complete messages; what lies beyond is overwritten by the next
// delivery. Message files are synced at the message sync level (by default
// writeback only); the barrier before the header makes them durable.
//
// Flags "\seen" and "\deleted" go to "peruser.db" as uid ranges; a
// session collects consecutive uids of one user and writes each run once,
// before any header that counts its messages.
//
// DIAGNOSTICS: append_msg and the stream operations end the process with
// an assertion on a folder of an unknown format, a message description
// without bytes, or stream calls out of order. Failures are logged once
// where they are found (level 59) and returned as codes of the error table.
#ifndef STORE_APPEND_H
#define STORE_APPEND_H

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "store/message.h"

struct auth_state;
struct iovec;
struct map;

// Rights mask of append_setup that asks for no right at all.
#define APPEND_NO_RIGHTS 0x80000

// Kinds of per-user uid lists (append_addperuser).
#define APPEND_PERUSER_SEEN 1
#define APPEND_PERUSER_DELETED 2

// One append session. The caller owns it and sets `mailbox` before
// append_setup; everything else is filled by append_setup.
//
// Seen and deleted flags of consecutive uids for one user are collected in
// the session and written to "peruser.db" as one range each (a transaction
// per range instead of one per message); the ranges are written before any
// header that counts their messages, at the latest by append_finish.
struct append_state {
    struct mailbox *mailbox;     // handle of the session; the caller's storage
    struct quotadata quota;      // the quota root's row; used_messages is -1 until read
    uint64_t added_bytes;        // bytes of all messages added in this session
    unsigned added_messages;     // messages added in this session
    uint64_t reserved_bytes;     // bytes charged to quota in advance, 0 if none
    char *pending_user;          // owner of the pending ranges (a copy), or null
    unsigned pending_first[2];   // per kind (seen, deleted): first uid, 0 for none
    unsigned pending_last[2];    // and last uid of the pending range
    // The cache entry of the message being delivered is built here; the
    // buffer lives for the session, so messages after the first cost no
    // allocation. append_finish frees it.
    struct message_cachebuf cache;
    // End of "store.idx" as this session wrote it: asked of the file once
    // (-1 until then) and again after a rewrite or a cut of the file, not
    // per message.
    off_t index_end;
    // The batch: cache entries and records of delivered messages that wait
    // to be written together, entries to the file from index_end on,
    // records to their slots. Only messages whose entry and record fit in
    // room that the file holds already (allocated ahead) join it, so a full
    // disk shows for the message at hand; the batch is written before
    // anything that refers to its messages (per-user data, a header), or
    // when it is large. A batch that can't be written is taken back whole.
    struct message_cachebuf batch_cache;
    struct index_record *batch_records;
    unsigned batch_count, batch_alloc;
    struct mboxdata batch_mbd;       // the folder's counters before the batch
    uint64_t batch_added_bytes;      // the session's counters before the batch
    unsigned batch_added_messages;
    off_t room_end;                  // the file has room allocated up to here, -1 unknown
    int slots_held;                  // free record slots allocated: 1 yes, 0 not yet, -1 can't
    dev_t message_dev;  // device of the folder's message files, 0 until a file tells it
    // Messages the caller still expects to deliver in this session after
    // the current one, 0 when unknown. When the record area is full, the
    // rewrite that grows it makes room for them as well, so that a large
    // run rewrites "store.idx" once instead of at every doubling.
    unsigned room_hint;
};

// The stream form of delivery: a message received piecewise, whose header
// block is repaired at the end.
struct astream {
    struct append_state *state;
    unsigned size_left;      // bytes of the announced size still to come
    int destfd;              // message file being written, -1 if none
    unsigned stream_size;    // size of the current message, with fix-ups
    unsigned parse_state;    // 1 to 7, see append_stream_data
    uint64_t total_size;     // bytes over all messages of the stream
    unsigned total_messages; // messages started in this stream
};

// Entry of the single-copy table: where the message was stored last for a
// destination key (a partition name). Both strings are owned.
struct singlecopy_entry {
    char *key;
    char *path;
    struct singlecopy_entry *next;
};

// Bits of appendmsg.flags.
#define APPENDMSG_STATIC 0x01      // the description is not on the heap
#define APPENDMSG_FNAME_BORROWED 0x04  // fname is not owned

// Text put in front of the message bytes in the file.
struct append_header {
    const char *base;
    size_t len;
};

// The description of one message to deliver.
struct appendmsg {
    unsigned flags;                           // APPENDMSG_* bits
    const struct append_header *header;       // or null
    const char *base;                         // the message bytes, never null
    unsigned size;                            // their number; 0 is refused
    struct map *map;                          // map of the message, owned, or null
    char *fname;                              // a file that already holds exactly this message
    const char *cache_text;                   // last cache item, or null
    struct singlecopy_entry *singlecopy_list; // files stored for this message so far
    const char *singlecopy_key;               // destination's key (partition name), or null
};

extern const struct appendmsg zeroappendmsg;

// ---- the session ------------------------------------------------------

// Sets up the partition full check (local.store.checkdiskusage): reads the
// partition table and maps "data/lock/partition.lck" of the instance, one
// byte per partition id, "1" meaning full. Registers append_exit. Always 0;
// without the table or the file the check is off. Once set up, further
// calls do nothing until append_exit.
int append_init(void);
// Frees the partition table and the map; the check is off.
void append_exit(void);

// Opens folder name for appending (mode | OPEN_APPEND), refuses a full or
// unknown partition, then runs append_setup_mailbox. rights: the rights
// the caller needs, APPEND_NO_RIGHTS for none. quotasize: 0 no quota test,
// positive an estimate of the bytes to come, negative the exact size of
// one message. 0 with the index lock held; on an error the folder is
// closed again and no lock is held.
int append_setup(struct append_state *as, const char *name, unsigned mode, unsigned format,
                 const struct auth_state *auth, unsigned long rights, long quotasize);
// The checks of append_setup on an open folder: rights, format, message
// limit, quota (with an advance charge); takes the index lock. 0 with the
// lock held, or IMAP_PERMISSION_DENIED, IMAP_MAILBOX_NONEXISTENT,
// IMAP_MAILBOX_NOTSUPPORTED, IMAP_MESSAGE_EXHAUSTED, IMAP_MESSAGE_TOO_LARGE,
// IMAP_QUOTA_EXCEEDED(_PERSISTENT) or the error of the lock or of the quota
// row, without the lock.
int append_setup_mailbox(struct append_state *as, unsigned format, unsigned long rights,
                         long quotasize);
// The quota decision: 0 when used is within limit (bytes) and messages
// within the row's message limit; otherwise IMAP_QUOTA_EXCEEDED within the
// grace period (store.quotagraceperiod hours from over_since) and
// IMAP_QUOTA_EXCEEDED_PERSISTENT after it or without one.
int append_quota_eval(uint64_t used, uint64_t limit, uint32_t messages,
                      const struct quotadata *quota);
// Settles the advance charge, writes the pending per-user ranges, then the
// folder's row and the fixed header of "store.idx" in one transaction, and
// releases the index lock and the session's buffer. The folder stays open.
// Failures are logged, not reported. A session set up ends here.
void append_finish(struct append_state *as);
// Writes the session's waiting index data (cache entries and records) to
// "store.idx" and its pending seen and deleted ranges to "peruser.db"
// (append_addperuser), and forgets them. Failures are logged: index data
// that can't be written is taken back with its messages; a range that
// can't be written is lost, as for a single message.
void append_flush_peruser(struct append_state *as);

// ---- one message ------------------------------------------------------

// Delivers msg into the session's folder: file (or hard link), cache entry,
// record, flags ("\seen", "\deleted", "\answered", "\flagged", "\draft", or
// user flag names), per-user data of userid (may be null), notification.
// orig_uid and orig_uidvalidity 0 mean "this uid" and "this folder's".
// wanted_uid above last_uid is taken as the uid, else last_uid + 1. 0, or
// IMAP_MESSAGE_NOBLANKLINE (zero length), IMAP_MESSAGE_TOO_LARGE (above
// 4 GB - 1 bytes with its header text), IMAP_IOERROR, or the error of the
// record area's growth; on an error the files written for it are removed
// and the folder's and the session's counters are as before.
int append_msg(struct append_state *as, struct appendmsg *msg, time_t internaldate,
               const char **flags, int nflags, const char *userid, unsigned orig_uid,
               unsigned orig_uidvalidity, int nonotify, unsigned wanted_uid);
// append_msg of the bytes base/len, with cache_text as the last cache item.
int append_fromstring(struct append_state *as, const char *base, unsigned len,
                      time_t internaldate, const char **flags, int nflags, const char *userid,
                      const char *cache_text);
// Frees the single-copy table, the map, fname (unless borrowed) and the
// description itself (unless static).
void append_freemsg(struct appendmsg *msg);

// Adds the uid range first..last to the seen (kind 1) or deleted (kind 2)
// list of userid's per-user record of the folder. 0,
// IMAP_MAILBOX_BADFORMAT for another kind, or the error of peruser.db.
int append_addperuser(struct mailbox *mailbox, const char *userid, int kind, unsigned first_uid,
                      unsigned last_uid);

// ---- the stream form --------------------------------------------------
//
// The caller sets up an astream with `state` (a session), destfd -1 and
// the counters 0. A message is start, data (any number of chunks, which
// together bring exactly the announced size), then finish or abort. The
// file is written where the folder's next message belongs. After a
// finish the same astream takes the next message.

// Starts a message of the announced size: creates its file. 0 or IMAP_IOERROR.
int append_stream_start(struct astream *stream, unsigned size);
// Takes the next bytes, checking the header block as they pass. 0,
// IMAP_MESSAGE_CONTAINSNULL, IMAP_MESSAGE_CONTAINSNL, IMAP_MESSAGE_BADHEADER
// or IMAP_IOERROR; on an error the stream is aborted.
int append_stream_data(struct astream *stream, const char *bytes, unsigned len);
// Completes the header block where the message ended early, flushes the
// file and delivers it with append_msg. 0 or an error, after which the
// stream is aborted.
int append_stream_finish(struct astream *stream, time_t internaldate, const char **flags,
                         int nflags, const char *userid, int nonotify);
// Closes and removes the files of the stream.
void append_stream_abort(struct astream *stream);

// ---- files and the single-copy table ----------------------------------

// The path stored for key in msg's table, or null.
const char *append_locate_singlecopy(struct appendmsg *msg, const char *key);
// Adds key -> path at the head of the table; a null key or path does nothing.
void append_add_singlecopy(struct appendmsg *msg, const char *key, const char *path);
// Replaces the path stored for key.
void append_replace_singlecopy(struct appendmsg *msg, const char *key, const char *path);
void append_free_singlecopy(struct appendmsg *msg);

// Makes destination a hard link of source (replacing a stale destination,
// making a missing message directory); where no link can be made the bytes
// are written instead: iov/count, or the source's bytes when iov is null.
// 0 or IMAP_IOERROR.
int append_linkfile(const char *source, const char *destination, const char *partition,
                    const struct iovec *iov, int count);
// Writes a new message file from iov/count and syncs it at the message sync
// level. 0 or IMAP_IOERROR (the file is removed).
int writemsgfile(const char *destination, const char *partition, const struct iovec *iov,
                 int count);
// Creates a message file (mode 0666), making its directory (0777) and
// replacing a stale file. A descriptor or -1 (logged).
int createmsgfile(const char *path);
// link(), making the parents of destination when they are missing.
int link_mkdir(const char *source, const char *destination);
size_t iovsum(const struct iovec *iov, int count);

// The decision function of a rewrite that removes no message: always -1.
int expungenone(void *rock, const struct index_record *record);

#endif

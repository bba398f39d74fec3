// The message module: the MIME parser that reads a message once as it
// enters a folder, the encoder of the message's cache record, and the dates
// and white space of header fields.
//
// The parser builds a temporary tree of `body` nodes, one per MIME entity,
// fills the index record of the message from it, appends the cache record
// at the end of the folder's "store.idx", lets the message type plug-in
// look at the message, and frees the tree. It never refuses a message: a
// field that can't be read stays empty, a date that can't be read is the
// current time. Only input and output fail.
#ifndef STORE_MESSAGE_H
#define STORE_MESSAGE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "support/parseaddr.h"
#include "support/plugin.h"

struct mailbox;
struct index_record;

// Content type of an entity whose header names none.
#define MESSAGE_DEFAULT_TYPE "TEXT/PLAIN; CHARSET=us-ascii"
// Content type of the parts of a "MULTIPART/DIGEST" that name none.
#define MESSAGE_DIGEST_PART_TYPE "MESSAGE/RFC822"
// Levels of multipart and "MESSAGE/RFC822" that the top entity may hold;
// an entity whose budget is used up is read as a leaf of type "TEXT".
#define MESSAGE_NESTING_BUDGET 50

// The message being read. It is not NUL-terminated.
struct msgrange {
    const char *base;
    uint32_t len;
    uint32_t offset;  // next byte to read
};

// The MIME boundaries still open, outermost first. The strings belong to
// the parameters of the tree; nothing is copied.
struct boundary_stack {
    const char **ids;
    int count;  // entries in force
    int alloc;  // entries allocated
};

// One element of a parameter list, or of a language list (attribute null,
// value the upper-cased tag). Lists keep the order of the header.
struct param {
    struct param *next;
    char *attribute;  // upper-cased
    char *value;      // quotes removed, case kept
};

// One MIME entity. Strings and lists are owned by the node; they are null
// when the header was absent or could not be read.
struct body {
    char *type;  // upper-cased: "TEXT", "MULTIPART", ...
    char *subtype;
    struct param *params;
    char *id;
    char *description;
    char *encoding;  // upper-cased token
    char *md5;
    char *disposition;  // upper-cased token
    struct param *disposition_params;
    struct param *language;

    uint32_t header_offset;  // where the entity's header begins in the message
    uint32_t header_size;    // blank separator line included
    int32_t header_lines;
    uint32_t content_offset;
    uint32_t content_size;
    uint32_t content_lines;
    uint32_t boundary_size;  // the delimiter that ended the entity, with the CR LF before it
    uint32_t boundary_lines;

    int32_t numparts;       // entries of subpart for a multipart, else 0
    struct body *subpart;   // numparts nodes; one node for "MESSAGE/RFC822"

    char *date;
    char *subject;  // undecoded
    struct address *from;
    struct address *sender;
    struct address *reply_to;
    struct address *to;
    struct address *cc;
    struct address *bcc;
    char *in_reply_to;
    char *message_id;

    int32_t dotlines;  // non-zero when a line in or below this entity begins with "."
};

// Whether the node's type is type and, with subtype not null, its subtype
// is subtype; both are given upper-cased, as the parser stores them.
bool message_istype(const struct body *body, const char *type, const char *subtype);

// Maps the file open on fd and parses it as message_parse_mapped does.
// 0, or IMAP_IOERROR when the file can't be mapped or the cache record
// can't be written.
int message_parse_file(int fd, struct mailbox *mailbox, const char *cache_text,
                       struct index_record *record);

// Parses the message base/len (lines end in CR LF; at most 4 GB - 1
// bytes) for delivery: fills sentdate, size, header_size, content_offset
// and system_flags of record, and appends its cache record to out, where
// the caller keeps the records until it writes them (rec_cache_offset is
// the caller's, who knows where they go). cache_text (or null) becomes the
// last item of the record.
void message_parse_cache(const char *base, size_t len, const char *cache_text,
                         struct index_record *record, struct message_cachebuf *out);

// message_parse_cache for a single message: sets rec_cache_offset as well
// and writes the cache record at the current position of
// mailbox->index_fd, which the caller has put at the end of the file.
// Returns 0, or IMAP_IOERROR when the cache record can't be written.
int message_parse_mapped(const char *base, size_t len, struct mailbox *mailbox,
                         const char *cache_text, struct index_record *record);

// Parses one entity from msg->offset on into body (which is zeroed
// first), with default_type as its type when the header names none.
// The top entity of a message gets MESSAGE_DEFAULT_TYPE, the budget
// MESSAGE_NESTING_BUDGET and an empty boundary stack.
void message_parse_body(struct msgrange *msg, struct body *body, const char *default_type,
                        int depth, struct boundary_stack *boundaries);

// Reads a Content-Type value (text up to the end of its field, as
// "text/plain; charset=us-ascii") into type, subtype and params of body,
// unless body has a type already. A value that can't be read leaves the
// type null.
void message_parse_type(const char *text, struct body *body);

// Frees everything the node owns, recursively; not the node itself.
void message_free_body(struct body *body);

// The cache record: 11 items, each a 4-byte big-endian length, the text,
// and NUL bytes up to a multiple of 4. Readers address items by number,
// which is their place in the record, counted from 0 in the order below.
enum {
    MESSAGE_CACHE_ENVELOPE,
    MESSAGE_CACHE_BODYSTRUCTURE,
    MESSAGE_CACHE_BODY,
    MESSAGE_CACHE_SECTION,
    MESSAGE_CACHE_HEADERS,
    MESSAGE_CACHE_FROM,
    MESSAGE_CACHE_TO,
    MESSAGE_CACHE_CC,
    MESSAGE_CACHE_BCC,
    MESSAGE_CACHE_SUBJECT,
    MESSAGE_CACHE_TEXT,
    MESSAGE_CACHE_ITEMS
};

// Names of the items by number: "envelope", "bodystructure", "body",
// "section", "headers", "from", "to", "cc", "bcc", "subject", "cache_text".
extern const char *const message_cache_item_name[MESSAGE_CACHE_ITEMS];

// A growing buffer of cache records in their file form. Zeroed it is
// empty; the owner frees it with message_cachebuf_free.
struct message_cachebuf {
    char *base;
    size_t len;    // bytes in use
    size_t alloc;  // bytes allocated
};
// Makes room for n more bytes behind len.
void message_cachebuf_reserve(struct message_cachebuf *b, size_t n);
void message_cachebuf_free(struct message_cachebuf *b);

// Builds the cache record of the parsed message body (the top node; its
// address strings are lower-cased on the way) and appends it to out.
void message_encode_cache(struct body *body, const struct msgrange *msg, const char *cache_text,
                          struct message_cachebuf *out);
// The same record, written at the current position of fd with one write.
// Returns what the write returned: the record's length, or -1.
ssize_t message_write_cache(int fd, struct body *body, const struct msgrange *msg,
                            const char *cache_text);

// Moves *text past white space and comments of a header field; sets it to
// null when the field ends (a line end not followed by blank, or a NUL).
void message_parse_rfc822space(const char **text);

// Reads an RFC 822 date ("Tue, 5 Nov 2002 10:20:30 -0800") up to the end of
// its field. Never fails: a date that can't be read gives the current time.
time_t message_parse_date(const char *text);

// Reads the time zone at text (at most len bytes, or up to a NUL): a sign
// and four digits, four digits, a name by its first letters ("EST", "PDT",
// "GMT", "UT"...), or a name that MCV_TimeZoneToOffset knows, up to a blank
// or "(". Sets *minutes to the zone's offset east of Universal Time; an
// unknown name counts as Universal Time. 0 if a numeric zone has not four
// digits, else 1.
int message_parse_zone(const char *text, size_t len, int *minutes);

// The message type plug-in. With a plug-in loaded, msgtype_examineMessage
// is called on every parsed message with the plug-in's context (the first
// word of msgtype_plugin), the message and the top node of its tree; the
// top 8 bits of its result are ORed into the record's system_flags. All
// are null until a plug-in is loaded.
#define MSGTYPE_MAX_FLAGS 8
typedef uint32_t (*msgtype_examine_fn)(void *context, const char *base, uint32_t len,
                                       struct body *top);
typedef void (*msgtype_flagnames_fn)(void *context, int count, const char **names);
extern svcplugin *msgtype_plugin;
extern msgtype_examine_fn msgtype_examineMessage;
extern const char *msgtype_flag_name[MSGTYPE_MAX_FLAGS];

#endif

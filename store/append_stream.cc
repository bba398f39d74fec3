// The stream form of delivery: a message that arrives in pieces is written
// to its message file as it comes, while a small state machine checks the
// header block (lines with a colon or folded lines, each ended by CR LF;
// a line feed only after a CR; no NUL anywhere). At the end the header
// block is completed where the message stopped early, and the file, which
// already lies where the message belongs, is delivered by append_msg.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "store/append.h"
#include "store/imap_err.h"
#include "store/storeassert.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"

// Where the scan stands (astream.parse_state).
enum stream_state {
    STREAM_START = 1,   // start of the message
    STREAM_HEADER_CR,   // CR seen in the header block
    STREAM_LINE_START,  // start of a header line
    STREAM_FIELD_NAME,  // in a field name
    STREAM_FIELD_VALUE, // in a field value
    STREAM_BODY_CR,     // CR seen in the body (or the CR of the empty line)
    STREAM_BODY         // in the body
};

enum byte_class { BYTE_NUL, BYTE_BLANK, BYTE_LF, BYTE_CR, BYTE_COLON, BYTE_OTHER, BYTE_CLASSES };

// Refusals in the transition table, below the states.
#define STREAM_NUL (-1)
#define STREAM_BARE_LF (-2)
#define STREAM_BAD_HEADER (-3)

static const signed char stream_next[8][BYTE_CLASSES] = {
    {0, 0, 0, 0, 0, 0},  // no state 0
    {STREAM_NUL, STREAM_BAD_HEADER, STREAM_BARE_LF, STREAM_BODY_CR, STREAM_BAD_HEADER,
     STREAM_FIELD_NAME},
    {STREAM_NUL, STREAM_FIELD_VALUE, STREAM_LINE_START, STREAM_HEADER_CR, STREAM_BAD_HEADER,
     STREAM_FIELD_VALUE},
    {STREAM_NUL, STREAM_FIELD_VALUE, STREAM_BARE_LF, STREAM_BODY_CR, STREAM_BAD_HEADER,
     STREAM_FIELD_NAME},
    {STREAM_NUL, STREAM_BAD_HEADER, STREAM_BARE_LF, STREAM_BAD_HEADER, STREAM_FIELD_VALUE,
     STREAM_FIELD_NAME},
    {STREAM_NUL, STREAM_FIELD_VALUE, STREAM_BARE_LF, STREAM_HEADER_CR, STREAM_FIELD_VALUE,
     STREAM_FIELD_VALUE},
    {STREAM_NUL, STREAM_BODY, STREAM_BODY, STREAM_BODY_CR, STREAM_BODY, STREAM_BODY},
    {STREAM_NUL, STREAM_BODY, STREAM_BARE_LF, STREAM_BODY_CR, STREAM_BODY, STREAM_BODY},
};

// What completes the header block of a message that ended in each state.
static const char *const stream_fixup[8] = {
    "", "\r\n", "\n\r\n", "\r\n", ":\r\n\r\n", "\r\n\r\n", "\n", "",
};

static enum byte_class classify(unsigned char c) {
    switch (c) {
    case '\0': return BYTE_NUL;
    case ' ':
    case '\t': return BYTE_BLANK;
    case '\n': return BYTE_LF;
    case '\r': return BYTE_CR;
    case ':': return BYTE_COLON;
    default: return BYTE_OTHER;
    }
}

// The message file of uid in the session's folder into buf (PATH_MAX).
static void stream_path(struct astream *stream, unsigned long uid, char *buf) {
    struct mailbox *mailbox = stream->state->mailbox;
    char fname[MAILBOX_FNAME_SIZE];
    snprintf(buf, PATH_MAX, "%s/%s", mailbox->mpath, mailbox_message_fname(mailbox, uid, fname));
}

int append_stream_start(struct astream *stream, unsigned size) {
    struct mailbox *mailbox = stream->state->mailbox;
    STORE_ASSERT(mailbox->mbd.version & 0x0000FF00);
    STORE_ASSERT(stream->total_messages == 0 || stream->destfd == -1);
    stream->total_size += size;
    stream->total_messages++;
    char path[PATH_MAX];
    stream_path(stream, (unsigned long)mailbox->mbd.last_uid + stream->total_messages, path);
    stream->destfd = createmsgfile(path);
    if (stream->destfd < 0) {
        stream->total_messages--;
        append_stream_abort(stream);
        return IMAP_IOERROR;
    }
    stream->size_left = size;
    stream->stream_size = size;
    stream->parse_state = STREAM_START;
    return 0;
}

int append_stream_data(struct astream *stream, const char *bytes, unsigned len) {
    STORE_ASSERT(stream->destfd != -1);
    STORE_ASSERT(len <= stream->size_left);
    stream->size_left -= len;
    int state = (int)stream->parse_state;
    int r = 0;
    for (unsigned i = 0; i < len && !r; i++) {
        int next = stream_next[state][classify((unsigned char)bytes[i])];
        if (next == STREAM_NUL)
            r = IMAP_MESSAGE_CONTAINSNULL;
        else if (next == STREAM_BARE_LF)
            r = IMAP_MESSAGE_CONTAINSNL;
        else if (next == STREAM_BAD_HEADER)
            r = IMAP_MESSAGE_BADHEADER;
        else
            state = next;
    }
    stream->parse_state = (unsigned)state;
    if (!r && retry_write(stream->destfd, bytes, len) != (ssize_t)len) {
        svclog(nullptr, 59, "Unable to write message: %m");
        r = IMAP_IOERROR;
    }
    if (r) append_stream_abort(stream);
    return r;
}

int append_stream_finish(struct astream *stream, time_t internaldate, const char **flags,
                         int nflags, const char *userid, int nonotify) {
    STORE_ASSERT(stream->destfd != -1);
    STORE_ASSERT(stream->size_left == 0);
    struct append_state *as = stream->state;

    const char *fixup = stream_fixup[stream->parse_state & 7];
    unsigned fixlen = (unsigned)strlen(fixup);
    if (fixlen) {
        stream->stream_size += fixlen;
        stream->total_size += fixlen;
        stream->size_left += fixlen;
        int r = append_stream_data(stream, fixup, fixlen);
        if (r) return r;
    }
    // A message arriving in pieces has no batch to share a flush with.
    if (fsync(stream->destfd) != 0) {
        svclog(nullptr, 59, "Unable to fsync message: %m");
        append_stream_abort(stream);
        return IMAP_IOERROR;
    }

    char path[PATH_MAX];
    stream_path(stream, (unsigned long)as->mailbox->mbd.last_uid + 1, path);
    struct appendmsg msg = zeroappendmsg;
    msg.flags = APPENDMSG_STATIC | APPENDMSG_FNAME_BORROWED;
    msg.fname = path;
    msg.map = map_refresh(stream->destfd, nullptr, 0, stream->stream_size);
    if (!msg.map) {
        svclog(nullptr, 59, "Unable to map destination file: %m");
        append_stream_abort(stream);
        return IMAP_IOERROR;
    }
    msg.base = msg.map->base;
    msg.size = stream->stream_size;
    close(stream->destfd);
    stream->destfd = -1;
    // (The file joins the digest pool, append_relinkmsg, once there is one.)

    int r = append_msg(as, &msg, internaldate, flags, nflags, userid, 0, 0, nonotify, 0);
    append_freemsg(&msg);
    if (r)
        append_stream_abort(stream);
    else
        // The file belongs to the folder now: an abort must leave it, and
        // the next message of this stream is named behind it.
        stream->total_messages--;
    return r;
}

void append_stream_abort(struct astream *stream) {
    if (stream->destfd != -1) {
        close(stream->destfd);
        stream->destfd = -1;
    }
    char path[PATH_MAX];
    for (; stream->total_messages > 0; stream->total_messages--) {
        stream_path(stream, (unsigned long)stream->state->mailbox->mbd.last_uid +
                                stream->total_messages, path);
        unlink(path);
    }
}

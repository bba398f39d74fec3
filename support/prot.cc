// Buffered output streams over a file descriptor.
//
// The buffer holds PROT_BUFSIZE bytes; prot_putc (prot.h) flushes when it
// fills, and prot_write sends a block of at least a buffer's size straight
// to the descriptor after the buffered bytes. A failed write sets the error
// flag and keeps the system's text for prot_error; the stream then takes
// nothing more and what was still buffered is dropped.
//
// Writing to a pipe whose reader has gone raises SIGPIPE; a program that
// wants to see that case as a write error (EPIPE) ignores the signal.

#include "support/prot.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "support/retry.h"
#include "support/xmalloc.h"

#define PROT_BUFSIZE 32768

// Only the output direction exists: write must be 1.
struct protstream *prot_file(int fd, int write) {
    if (write != 1 || fd < 0) {
        errno = EINVAL;
        return nullptr;
    }
    struct protstream *s = (struct protstream *)xcalloc(1, sizeof(struct protstream));
    s->buf = (unsigned char *)xmalloc(PROT_BUFSIZE);
    s->maxplain = PROT_BUFSIZE;
    s->ptr = s->buf;
    s->cnt = s->maxplain;
    s->fd = fd;
    return s;
}

static void prot_seterror(struct protstream *s, int e) {
    s->error = 1;
    if (!s->errtext) {
        char tmp[256];
        const char *text = strerror_r(e ? e : EIO, tmp, sizeof(tmp));
        s->errtext = xstrdup(text);
    }
    s->ptr = s->buf;
    s->cnt = s->maxplain;
}

static int prot_send(struct protstream *s, const void *data, size_t len) {
    if (len == 0) return 0;
    if (retry_write(s->fd, data, len) < 0) {
        prot_seterror(s, errno);
        return -1;
    }
    s->bytes_out += (long)len;
    return 0;
}

// Writes out the buffered bytes. 0, or -1 once a write has failed.
int prot_flush(struct protstream *s) {
    if (s->error) {
        s->ptr = s->buf;
        s->cnt = s->maxplain;
        return -1;
    }
    size_t pending = (size_t)(s->ptr - s->buf);
    s->ptr = s->buf;
    s->cnt = s->maxplain;
    return prot_send(s, s->buf, pending);
}

int prot_write(struct protstream *s, const char *buf, size_t len) {
    if (s->error || s->eof) return -1;
    if (len == 0) return 0;
    if (len < (size_t)s->cnt) {
        memcpy(s->ptr, buf, len);
        s->ptr += len;
        s->cnt -= (int)len;
        return 0;
    }
    if (len >= (size_t)s->maxplain) {
        // A large block goes out directly, after what is buffered.
        if (prot_flush(s) < 0) return -1;
        return prot_send(s, buf, len);
    }
    // Fill the buffer, send it, keep the rest.
    size_t first = (size_t)s->cnt;
    memcpy(s->ptr, buf, first);
    s->ptr += first;
    s->cnt = 0;
    if (prot_flush(s) < 0) return -1;
    size_t rest = len - first;
    memcpy(s->ptr, buf + first, rest);
    s->ptr += rest;
    s->cnt -= (int)rest;
    return 0;
}

const char *prot_error(struct protstream *s) {
    if (!s || !s->error) return nullptr;
    return s->errtext ? s->errtext : "write error";
}

// Bytes handed to the stream since it started: those written out and those
// still in the buffer.
long prot_numbytes(struct protstream *s) {
    return s->bytes_out + (long)(s->ptr - s->buf);
}

// Frees the stream without flushing it and without closing its descriptor;
// a caller that wants the buffered bytes written calls prot_flush first.
void prot_free(struct protstream *s) {
    if (!s) return;
    free(s->buf);
    free(s->errtext);
    free(s);
}

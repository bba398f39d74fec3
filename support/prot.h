// Buffered output streams over a file descriptor.
#ifndef SUPPORT_PROT_H
#define SUPPORT_PROT_H

#include <stddef.h>

struct protstream {
    unsigned char *ptr;   // write pointer
    int cnt;              // bytes free in the buffer
    int fd;
    int error;            // a write failed
    int eof;              // the stream is closed for writing
    unsigned char *buf;
    int maxplain;         // buffer size
    long bytes_out;       // bytes that went through the stream
    char *errtext;
};

struct protstream *prot_file(int fd, int write);
int prot_write(struct protstream *s, const char *buf, size_t len);
int prot_flush(struct protstream *s);
const char *prot_error(struct protstream *s);
long prot_numbytes(struct protstream *s);
void prot_free(struct protstream *s);

static inline int prot_putc(int c, struct protstream *s) {
    if (s->error || s->eof) return -1;
    *s->ptr++ = (unsigned char)c;
    if (--s->cnt == 0) return prot_flush(s);
    return 0;
}

#endif

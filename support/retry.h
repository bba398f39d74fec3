// Careful writes: complete writes across interruptions and short writes,
// flushes to stable storage by level, and file copies.
#ifndef SUPPORT_RETRY_H
#define SUPPORT_RETRY_H

#include <sys/types.h>
#include <sys/uio.h>

ssize_t retry_write(int fd, const void *buf, size_t count);
// Reads until count bytes have come or the file ends, trying again after
// interruptions; returns the bytes read (short only at the end of the
// file), or -1. retry_pread does the same at a file offset.
ssize_t retry_read(int fd, void *buf, size_t count);
ssize_t retry_pread(int fd, void *buf, size_t count, off_t offset);
ssize_t retry_writev(int fd, const struct iovec *iov, int iovcnt);

// Levels of sync_file:
//   0  nothing: the system writes the data when it likes.
//   1  ordered, shared flush: writeback of the file starts now and the file
//      system is remembered; sync_file_barrier() makes everything written
//      under level 1 durable with one flush per file system. The store calls
//      the barrier before it writes a header or a database row that makes
//      such data count, so a crash never leaves a header counting data that
//      is not on disk, and a run of deliveries pays one flush, not one per file.
//   2  the file's data is flushed now (fdatasync).
//   3  the file's data and metadata are flushed now (fsync).
// Returns 0 on success, non-zero on failure with errno set.
int sync_file(int fd, int level);
int sync_file_barrier(void);

// Gives target the content of source. flag 1: a hard link is tried;
// flag 0: the bytes are copied (works across file systems). 0 on success.
int copy_file(const char *source, const char *target, int flag);

#endif

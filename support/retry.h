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
// Writes all count bytes at offset without moving the file position, trying
// again after interruptions and short writes; count or -1.
ssize_t retry_pwrite(int fd, const void *buf, size_t count, off_t offset);

// Levels of sync_file:
//   0  nothing: the system writes the data when it likes.
//   1  ordered, shared flush: the file system is remembered, nothing is
//      written yet; sync_file_barrier() makes everything written
//      under level 1 durable with one flush per file system. The store calls
//      the barrier before it writes a header or a database row that makes
//      such data count, so a crash never leaves a header counting data that
//      is not on disk, and a run of deliveries pays one flush, not one per file.
//   2  the file's data is flushed now (fdatasync).
//   3  the file's data and metadata are flushed now (fsync).
// Returns 0 on success, non-zero on failure with errno set.
int sync_file(int fd, int level);
// sync_file of a regular file whose device the caller knows already (the
// st_dev of an earlier stat): at level 1, where only the device matters,
// no fstat is made. dev 0 means unknown and does what sync_file does.
int sync_file_on(int fd, int level, dev_t dev);
int sync_file_barrier(void);

// Puts a finished file in place: rename(from, to) as the last step of a
// careful replacement of a file whose data was written at sync level level.
// Before the rename it runs sync_file_barrier(), so that everything written
// at level 1 so far (the file itself, and message files that it counts) is
// on disk before the name makes it count; a failed barrier leaves from
// where it is. After the rename, by level:
//   0  nothing more;
//   1  the directory's file system is remembered, so that the next barrier
//      (at the latest the one at exit) makes the new name durable;
//   2, 3  the directory is flushed now (fsync).
// 0; -1 with errno set when from was left where it was; 1 with errno set
// when the rename was done but the directory could not be flushed.
int sync_rename(const char *from, const char *to, int level);

// Ordering points of careful writes, told to an observer: each finished
// sync_file_barrier() and each rename of sync_rename(), with the target
// path. Meant for tests that check that data is flushed before a name or a
// row makes it count. One observer per process; null removes it. Returns
// the observer that was installed before.
enum sync_event { SYNC_EVENT_BARRIER = 1, SYNC_EVENT_RENAME = 2 };
typedef void (*sync_observer_fn)(enum sync_event event, const char *path);
sync_observer_fn sync_set_observer(sync_observer_fn observer);

// Gives target the content of source. flag 1: a hard link is tried;
// flag 0: the bytes are copied (works across file systems). 0 on success.
int copy_file(const char *source, const char *target, int flag);

#endif

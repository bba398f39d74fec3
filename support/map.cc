// Read-only maps of whole files or of their first bytes.
//
// A map is a shared, read-only mmap of the file, so writes that other
// processes make in place show through it. When the caller asks for more
// bytes than the file has, the region behind the end of the file is backed
// by zero pages instead of being left unmapped: a reader that trusts a
// length from a damaged header then reads zeros instead of dying of SIGBUS.
// In that case `size` is the number of file bytes mapped and `len` the
// number asked for; for a file mapped whole both are the file length.

#include "support/map.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/xmalloc.h"

// What an empty map points at, so that base is never null.
static const char empty_map_byte = 0;

static void map_release_region(struct map *m) {
    if (m->mapped) munmap((void *)m->base, m->mapped);
    m->base = &empty_map_byte;
    m->size = 0;
    m->len = 0;
    m->mapped = 0;
}

void map_free(struct map *m) {
    if (!m) return;
    map_release_region(m);
    free(m);
}

// Maps fd. The old map, if any, is used up in every case: it is either
// returned (a refresh with MAP_GROWN that finds nothing to change), or
// unmapped and its record reused, or freed on failure, so the usual call
// `m = map_refresh(fd, m, flags, size)` neither leaks nor dangles.
//
// Flags: MAP_ONCE tells the system that the map is read once from start to
// end; MAP_GROWN keeps the old map when the file still has the extent that
// it maps (the file may have grown since; if it has grown, or shrunk, the
// file is mapped again).
struct map *map_refresh(int fd, struct map *old, int flags, long size) {
    struct stat st;
    if (fstat(fd, &st) < 0) {
        int e = errno;
        map_free(old);
        errno = e;
        return nullptr;
    }
    if (st.st_size < 0 || (uint64_t)st.st_size > (uint64_t)SIZE_MAX) {
        map_free(old);
        errno = EFBIG;
        return nullptr;
    }
    size_t filesize = (size_t)st.st_size;
    size_t want = size < 0 ? filesize : (size_t)size;
    size_t fromfile = want < filesize ? want : filesize;

    if (old && (flags & MAP_GROWN) && old->len == want && old->size == fromfile &&
        (old->mapped || want == 0))
        return old;

    struct map *m = old;
    if (m)
        map_release_region(m);
    else {
        m = (struct map *)xmalloc(sizeof(struct map));
        m->base = &empty_map_byte;
        m->size = m->len = m->mapped = 0;
    }
    if (want == 0) return m;

    void *region;
    if (fromfile == want) {
        region = mmap(nullptr, want, PROT_READ, MAP_SHARED, fd, 0);
    } else {
        // Zero pages for the whole length, then the file over their start.
        region = mmap(nullptr, want, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (region != MAP_FAILED && fromfile > 0 &&
            mmap(region, fromfile, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
            int e = errno;
            munmap(region, want);
            errno = e;
            region = MAP_FAILED;
        }
    }
    if (region == MAP_FAILED) {
        int e = errno;
        free(m);
        errno = e;
        return nullptr;
    }
    m->base = (const char *)region;
    m->size = fromfile;
    m->len = want;
    m->mapped = want;
    if (flags & MAP_ONCE) madvise(region, want, MADV_SEQUENTIAL);
    return m;
}

// Opens path read-only, maps size bytes of it (-1: the whole file) and
// closes it again. Null with errno on failure.
struct map *map_open(const char *path, long size, int a, int b) {
    (void)a;
    (void)b;
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return nullptr;
    struct map *m = map_refresh(fd, nullptr, 0, size);
    int e = errno;
    close(fd);
    if (!m) errno = e;
    return m;
}

// The hint that callers give for a map that is read once from start to end
// (how == MAP_ADVISE_ONCE, the value 12) is sequential access: read ahead
// aggressively, and drop pages behind the reader. Any other value resets
// the hint to normal access.
void map_advise(const char *base, size_t len, int how) {
    if (!base || len == 0 || base == &empty_map_byte) return;
    long pagesize = sysconf(_SC_PAGESIZE);
    if (pagesize <= 0) pagesize = 4096;
    uintptr_t start = (uintptr_t)base & ~((uintptr_t)pagesize - 1);
    size_t span = len + ((uintptr_t)base - start);
    madvise((void *)start, span, how == MAP_ADVISE_ONCE ? MADV_SEQUENTIAL : MADV_NORMAL);
}

// Read-only maps of whole files or of their first bytes.
#ifndef SUPPORT_MAP_H
#define SUPPORT_MAP_H

#include <stddef.h>

#define MAP_ONCE 2     // the file is read once from start to end, then freed
#define MAP_GROWN 4    // refresh of a file that may have grown

// Hint of map_advise for a map that is read once from start to end.
#define MAP_ADVISE_ONCE 12

struct map {
    const char *base;  // first byte of the mapped file (a valid pointer even for an empty file)
    size_t size;       // bytes mapped
    size_t len;        // bytes asked for: the file length when mapped whole
    size_t mapped;     // length of the mmap region, 0 for none
};

struct map *map_open(const char *path, long size, int a, int b);
struct map *map_refresh(int fd, struct map *old, int flags, long size);
void map_advise(const char *base, size_t len, int how);
void map_free(struct map *m);

#endif

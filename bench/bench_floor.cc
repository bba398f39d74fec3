// The floor of an import: the least work that any loader of a mail file
// must do. It cuts the file at its separator lines and writes each message
// (separator line removed) to a file of its own, 100 files per directory,
// with the durability asked for:
//   -s 0  nothing: the system writes the data when it likes;
//   -s 1  one syncfs() of the target's file system at the end;
//   -s 2  fsync() of each file.
// The import benchmark compares the store's time at each sync level with
// this program's time at the matching durability.
//
// usage: bench_floor [-s level] FILE DIR
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/retry.h"

static void die(const char *what, const char *path) {
    fprintf(stderr, "bench_floor: %s %s: %s\n", what, path, strerror(errno));
    exit(74);
}

int main(int argc, char **argv) {
    int level = 0;
    int c;
    while ((c = getopt(argc, argv, "s:")) != -1) {
        if (c != 's') {
            fprintf(stderr, "usage: %s [-s 0|1|2] FILE DIR\n", argv[0]);
            return 64;
        }
        level = atoi(optarg);
    }
    if (argc - optind != 2 || level < 0 || level > 2) {
        fprintf(stderr, "usage: %s [-s 0|1|2] FILE DIR\n", argv[0]);
        return 64;
    }
    const char *file = argv[optind], *dir = argv[optind + 1];
    int in = open(file, O_RDONLY);
    struct stat st;
    if (in < 0 || fstat(in, &st) != 0) die("cannot open", file);
    size_t len = (size_t)st.st_size;
    const char *base = len ? (const char *)mmap(nullptr, len, PROT_READ, MAP_PRIVATE, in, 0) : "";
    if (base == MAP_FAILED) die("cannot map", file);
    if (mkdir(dir, 0777) != 0 && errno != EEXIST) die("cannot make", dir);

    const char *end = base + len, *p = base;
    unsigned uid = 0, madeDir = ~0u;
    char path[4096];
    while (p < end) {
        // p is at a separator line: the message starts behind it and ends at
        // the next line that begins with "From ".
        const char *body = (const char *)memchr(p, '\n', (size_t)(end - p));
        body = body ? body + 1 : end;
        const char *from = body - 1;  // a separator may follow at once
        const char *hit = (const char *)memmem(from, (size_t)(end - from), "\nFrom ", 6);
        const char *next = hit ? hit + 1 : end;
        uid++;
        unsigned d = (uid / 100) % 100;
        if (d != madeDir) {
            snprintf(path, sizeof(path), "%s/%02u", dir, d);
            if (mkdir(path, 0777) != 0 && errno != EEXIST) die("cannot make", path);
            madeDir = d;
        }
        snprintf(path, sizeof(path), "%s/%02u/%u.msg", dir, d, uid);
        int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
        if (fd < 0) die("cannot create", path);
        if (retry_write(fd, body, (size_t)(next - body)) < 0) die("cannot write", path);
        if (level == 2 && fsync(fd) != 0) die("cannot sync", path);
        close(fd);
        p = next;
    }
    if (level == 1) {
        int fd = open(dir, O_RDONLY | O_DIRECTORY);
        if (fd < 0 || syncfs(fd) != 0) die("cannot sync", dir);
        close(fd);
    }
    printf("%u messages\n", uid);
    return 0;
}

// What the benchmarks (and showcache) share: the command line, the clock,
// reading input files whole, a scratch folder handle for the parser, and
// the peak memory of the process.
#ifndef BENCH_BENCHUTIL_H
#define BENCH_BENCHUTIL_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "store/mailbox.h"

// The command line "[-r repeats] file...": gives the repeats (default 50)
// and leaves optind at the first file; a usage error ends the program
// with status 64.
inline int bench_repeats(int argc, char **argv) {
    int repeats = 50;
    int c;
    while ((c = getopt(argc, argv, "r:")) != -1) {
        if (c != 'r') break;
        repeats = atoi(optarg);
    }
    if (c != -1 || optind >= argc || repeats < 1) {
        fprintf(stderr, "usage: %s [-r repeats] file.mbox...\n", argv[0]);
        exit(64);
    }
    return repeats;
}

inline double bench_now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

// The whole file at path into out; false (after perror) if it can't be read.
inline bool bench_read_file(const char *path, std::string *out) {
    FILE *f = fopen(path, "rb");
    if (!f) {
        perror(path);
        return false;
    }
    out->clear();
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out->append(buf, n);
    fclose(f);
    return true;
}

// A folder handle named name for parsing outside a store: the cache
// records go to an unlinked scratch file in $TMPDIR (or /tmp), open on
// mb->index_fd. 0, or -1 with errno set when the file can't be made.
inline int bench_scratch_mailbox(struct mailbox *mb, const char *name) {
    const char *tmpdir = getenv("TMPDIR");
    std::string path = std::string(tmpdir && *tmpdir ? tmpdir : "/tmp") + "/" + name + ".XXXXXX";
    memset(mb, 0, sizeof(*mb));
    mb->index_fd = mkstemp(&path[0]);
    if (mb->index_fd < 0) return -1;
    unlink(path.c_str());
    mb->name = (char *)name;
    return 0;
}

inline double bench_peak_mb() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (double)ru.ru_maxrss / 1024.0;
}

#endif

// What the benchmarks share: the clock, reading input files whole, and the
// peak memory of the process.
#ifndef BENCH_BENCHUTIL_H
#define BENCH_BENCHUTIL_H

#include <stdio.h>
#include <sys/resource.h>
#include <time.h>

#include <string>

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

inline double bench_peak_mb() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (double)ru.ru_maxrss / 1024.0;
}

#endif

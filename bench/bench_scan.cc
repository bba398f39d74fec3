// Throughput of the mail file scanner: cuts a large mail file, built from
// the given files repeated, into messages and prints messages per second,
// megabytes per second and the peak memory of the process. Delivery is a
// no-op here, so the figures are those of the scanner alone.
//
//   bench_scan [-r repeats] file.mbox...
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "bench/benchutil.h"
#include "import/importmail.h"

static int count_deliver(void *rock, const ScannedMessage *m, int *) {
    unsigned long *counts = static_cast<unsigned long *>(rock);
    counts[0]++;
    counts[1] += m->size;
    return 1;
}

int main(int argc, char **argv) {
    int repeats = bench_repeats(argc, argv);

    std::string input;
    for (int i = optind; i < argc; i++) {
        std::string one;
        if (!bench_read_file(argv[i], &one)) return 66;
        if (!one.empty() && one.back() != '\n') one += '\n';
        input += one;
        input += '\n';
    }
    std::string big;
    big.reserve(input.size() * (size_t)repeats);
    for (int i = 0; i < repeats; i++) big += input;

    FromLine first;
    if (!check_fromline(big.data(), big.data() + big.size(), &first)) {
        fprintf(stderr, "the input does not begin with a separator line\n");
        return 65;
    }

    unsigned long counts[2] = {0, 0};
    ScanHooks hooks = {count_deliver, nullptr, counts, 0};
    double t0 = bench_now();
    scan_messages(big.data(), big.size(), -1, &first, &hooks);
    double secs = bench_now() - t0;

    double mb = (double)big.size() / (1024.0 * 1024.0);
    printf("input:        %.1f MB, %lu messages\n", mb, counts[0]);
    printf("time:         %.3f s\n", secs);
    printf("messages/s:   %.0f\n", (double)counts[0] / secs);
    printf("MB/s:         %.1f\n", mb / secs);
    printf("peak memory:  %.1f MB (the input itself is held in memory)\n",
           bench_peak_mb());
    return 0;
}

// Runs a command and reports its wall time and peak memory:
//   seconds, peak resident set (VmHWM) and peak anonymous memory (the
//   largest RssAnon seen), in kilobytes, and the command's exit status.
// The kernel keeps the peak resident set itself; the anonymous part is
// sampled from /proc every few milliseconds while the command runs, and
// VmHWM is taken from the last sample (the resource usage of the child
// gives it as well, and the larger of the two is printed).
//
// usage: bench_run COMMAND [ARG...]
// output: "seconds=S vmhwm_kb=K rssanon_kb=A status=N" on standard error.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/benchutil.h"

// The value in kilobytes of field ("VmHWM:") in /proc/PID/status, or -1.
static long status_field(const char *text, const char *field) {
    const char *p = strstr(text, field);
    return p ? strtol(p + strlen(field), nullptr, 10) : -1;
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s COMMAND [ARG...]\n", argv[0]);
        return 64;
    }
    double start = bench_now();
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return 71;
    }
    if (pid == 0) {
        execvp(argv[1], argv + 1);
        perror(argv[1]);
        _exit(127);
    }
    char path[64], text[4096];
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    long hwm = 0, anon = 0;
    int status = 0;
    for (;;) {
        FILE *f = fopen(path, "r");
        if (f) {
            size_t n = fread(text, 1, sizeof(text) - 1, f);
            text[n] = '\0';
            fclose(f);
            long h = status_field(text, "VmHWM:"), a = status_field(text, "RssAnon:");
            if (h > hwm) hwm = h;
            if (a > anon) anon = a;
        }
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        struct timespec pause = {0, 3 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    double seconds = bench_now() - start;
    struct rusage ru;
    if (getrusage(RUSAGE_CHILDREN, &ru) == 0 && ru.ru_maxrss > hwm) hwm = ru.ru_maxrss;
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    fprintf(stderr, "seconds=%.3f vmhwm_kb=%ld rssanon_kb=%ld status=%d\n", seconds, hwm, anon,
            code);
    return code;
}

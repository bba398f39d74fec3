// Allocation helpers that never return null. Callers use the results
// unchecked, so running out of memory ends the process here, in an orderly
// way: one log entry, one line on standard error, exit status 75.
#include "support/xmalloc.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "support/log.h"

static void out_of_memory(void) __attribute__((noreturn));

static void out_of_memory(void) {
    // svclog formats into a stack buffer and does not allocate, so it is
    // safe to call here.
    svclog(0, 2, "Out of memory");
    static const char msg[] = "Out of memory\n";
    ssize_t r = write(2, msg, sizeof msg - 1);
    (void)r;
    exit(75);
}

void *xmalloc(size_t size) {
    void *p = malloc(size ? size : 1);
    if (!p) out_of_memory();
    return p;
}

void *xcalloc(size_t count, size_t size) {
    if (count == 0 || size == 0) count = size = 1;
    void *p = calloc(count, size);
    if (!p) out_of_memory();
    return p;
}

void *xrealloc(void *block, size_t size) {
    void *p = realloc(block, size ? size : 1);
    if (!p) out_of_memory();
    return p;
}

char *xstrdup(const char *s) {
    size_t len = strlen(s);
    char *p = (char *)xmalloc(len + 1);
    memcpy(p, s, len + 1);
    return p;
}

char *xstrndup(const char *s, size_t len) {
    char *p = (char *)xmalloc(len + 1);
    memcpy(p, s, len);
    p[len] = '\0';
    return p;
}

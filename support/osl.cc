// Portability helpers.
#include "support/osl.h"

#include <errno.h>
#include <sched.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

int osl_mkdir(const char *path, int mode) {
    // As mkdir: 0, or -1 with errno (EEXIST included) for the caller to test.
    return mkdir(path, (mode_t)mode);
}

void osl_sleep(unsigned seconds) {
    if (seconds == 0) {
        sched_yield();
        return;
    }
    unsigned left = seconds;
    while (left > 0) left = sleep(left);
}

struct hostent *osl_gethostbyname(const char *name, char *buf) {
    // The hostent record goes at the first suitably aligned place of the
    // buffer; the rest of the buffer holds the names and addresses.
    uintptr_t start = (uintptr_t)buf;
    uintptr_t aligned = (start + alignof(struct hostent) - 1) & ~(uintptr_t)(alignof(struct hostent) - 1);
    struct hostent *he = (struct hostent *)aligned;
    size_t used = (aligned - start) + sizeof *he;
    if (used >= OSL_HOSTENT_BUFSIZE) return nullptr;
    struct hostent *result = nullptr;
    int herr = 0;
    int rc = gethostbyname_r(name, he, buf + used, OSL_HOSTENT_BUFSIZE - used, &result, &herr);
    if (rc != 0 || !result) return nullptr;
    return result;
}

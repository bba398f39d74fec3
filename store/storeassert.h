// Fatal checks of the store's internal rules. A broken rule is a bug of the
// caller, not a condition to recover from: the expression is logged as a
// critical entry (and written to standard error, where the log may not
// reach), and the process aborts.
#ifndef STORE_STOREASSERT_H
#define STORE_STOREASSERT_H

#include <stdio.h>
#include <stdlib.h>

#include "support/log.h"

[[noreturn]] inline void store_assert_failed(const char *expr, const char *file, int line) {
    svclog(nullptr, 2, "Assertion failed: %s (%s:%d)", expr, file, line);
    fprintf(stderr, "Assertion failed: %s (%s:%d)\n", expr, file, line);
    fflush(stderr);
    abort();
}

#define STORE_ASSERT(expr) ((expr) ? (void)0 : store_assert_failed(#expr, __FILE__, __LINE__))

#endif

// Memory helpers that never hand a null pointer back: running out of memory
// ends the process with a log entry and exit status 75 (temporary failure).
#ifndef SUPPORT_XMALLOC_H
#define SUPPORT_XMALLOC_H

#include <stddef.h>

void *xmalloc(size_t size);
void *xcalloc(size_t count, size_t size);
void *xrealloc(void *block, size_t size);
char *xstrdup(const char *s);
char *xstrndup(const char *s, size_t len);

#endif

// Portability helpers.
#ifndef SUPPORT_OSL_H
#define SUPPORT_OSL_H

#include <netdb.h>
#include <stddef.h>

#define OSL_HOSTENT_BUFSIZE 2048
int osl_mkdir(const char *path, int mode);
void osl_sleep(unsigned seconds);
// buf must hold OSL_HOSTENT_BUFSIZE bytes; the result lies inside it.
struct hostent *osl_gethostbyname(const char *name, char *buf);

#endif

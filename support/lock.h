// Whole-file locks on open descriptors, and named mutexes shared by all
// processes of the host.
#ifndef SUPPORT_LOCK_H
#define SUPPORT_LOCK_H

#include <sys/stat.h>

int lock_blocking(int fd);
int lock_nonblocking(int fd);
int lock_unlock(int fd);
int lock_reopen(int fd, const char *path, struct stat *sbuf, const char **failaction);
int lock_nonblocking_fs(int fd);
int lock_unlock_fs(int fd);

typedef struct db_globalmutex db_globalmutex;
db_globalmutex *db_globalmutex_open(const char *name);
int db_globalmutex_hold(db_globalmutex *m);
int db_globalmutex_release(db_globalmutex *m);
void db_globalmutex_close(db_globalmutex *m);

#endif

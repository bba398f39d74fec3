// Per-user seen and deleted state: the database "peruser.db".
#ifndef STORE_SEEN_DB_H
#define STORE_SEEN_DB_H

#include <db.h>

#include "store/mboxlist.h"

extern DB *userflagdb;

int seen_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix);
void seen_shutdown(void);

#endif

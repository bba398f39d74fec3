// Per-user seen and deleted state: opening and closing "peruser.db".
#include "store/seen_db.h"

#include <errno.h>

#include "support/log.h"

DB *userflagdb = nullptr;

int seen_init(DB_ENV *env, const char *file, key_compare_fn cmp, key_prefix_fn prefix) {
    int r = db_create(&userflagdb, env, 0);
    if (r == 0) r = userflagdb->set_pagesize(userflagdb, 4096);
    if (r == 0) r = userflagdb->set_bt_compare(userflagdb, cmp);
    if (r == 0) r = userflagdb->set_bt_prefix(userflagdb, prefix);
    if (r == 0)
        r = userflagdb->open(userflagdb, nullptr, file, nullptr, DB_BTREE,
                             DB_CREATE | DB_THREAD | DB_AUTO_COMMIT, 0600);
    if (r != 0) {
        if (r > 0) errno = r;
        svclog(nullptr, 59, "Unable to open userflag database: %s", db_strerror(r));
        return -1;
    }
    return 0;
}

void seen_shutdown(void) {
    if (!userflagdb) return;
    DB *db = userflagdb;
    userflagdb = nullptr;
    db->close(db, mboxlist_db_memp_fsync ? 0 : DB_NOSYNC);
}

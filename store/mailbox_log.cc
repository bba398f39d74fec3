#include "store/mailbox_log.h"

#include <strings.h>

#include "support/config.h"

int svclog_msgtrace_active = 0;
svclog_handle *svclog_msgtrace = nullptr;
int svclog_expungedetails = 0;

void mailbox_init_svclog_msgtrace(const char *progname) {
    const char *v = config_get_string(config_getdefaultcache(), "local.msgtrace.active", nullptr);
    if (v && strcasecmp(v, "yes") == 0) {
        svclog_msgtrace = config_initlog_auxiliary("msgtrace", progname);
        svclog_msgtrace_active = 1;
    }
}

void mailbox_initexpungelog(void) {
    const char *v =
        config_get_string(config_getdefaultcache(), "local.store.logexpungedetails", nullptr);
    svclog_expungedetails = v && strcasecmp(v, "yes") == 0;
}

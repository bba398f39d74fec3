// Switches of the folder module's logging: the message trace and the
// details of expunges.
#ifndef STORE_MAILBOX_LOG_H
#define STORE_MAILBOX_LOG_H

#include "support/log.h"

extern int svclog_msgtrace_active;
extern svclog_handle *svclog_msgtrace;
extern int svclog_expungedetails;

// Turns the message trace on when local.msgtrace.active is "yes".
void mailbox_init_svclog_msgtrace(const char *progname);
// Turns the expunge details on when local.store.logexpungedetails is "yes".
void mailbox_initexpungelog(void);

#endif

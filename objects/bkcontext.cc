// The process context and the sessions of the object tree.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "objects/bkobj.h"
#include "store/autocreate.h"
#include "store/mboxlist.h"
#include "support/config.h"
#include "support/log.h"
#include "support/signals.h"

// ---- BkContext ----------------------------------------------------------

BkContext::BkContext(const char *progname, int dbg)
    : status(69), debug(0), excludes(nullptr), sessions() {
    setmaxfd(1024);
    if (configmsg_init(nullptr, 16, progname) != 0) {
        fputs("ERROR: Could not initialize config system\n", stderr);
        return;
    }
    if (configmsg_initlog(nullptr, progname) != 0) {
        fputs("ERROR: Could not initialize log system\n", stderr);
        return;
    }
    svclog_setoptions(SVCLOG_ECHO_ERRORS);
    // A file size limit makes a write fail (EFBIG), which the store
    // reports and takes back like a full disk, instead of ending the
    // process in the middle of a delivery.
    signal(SIGXFSZ, SIG_IGN);
    set_signal_handler(SIGINT, "interupt signal delayed while performing critical operations\n");
    set_signal_handler(SIGTERM, "SIGTERM signal delayed while performing critical operations\n");

    debug = dbg;
    if (debug) {
        svclog(nullptr, 7, "started");
        const char *tmp = config_get_string(config_getdefaultcache(), "local.tmpdir", nullptr);
        if (tmp && chdir(tmp) != 0) svclog(nullptr, 4, "cannot change to directory %s: %m", tmp);
    }

    // The start of the folder database may end the process with its own
    // exit status (1, 75 or 78).
    if (mboxlist_init() != 0) {
        svclog(nullptr, 3, "mboxlist_init failed");
        return;
    }
    // The directory of users (connection pool and domain map) and, with
    // it, the check for full partitions that delivery makes. A directory
    // that is configured but can't be reached ends the program here,
    // before anything is stored.
    if (autocreate_init(nullptr, nullptr) != 0) {
        svclog(nullptr, 3, "autocreate_init failed");
        exit(1);
    }
    status = 0;
}

BkContext::~BkContext() {
    if (debug) svclog(nullptr, 7, "completed (return code: %d)", status);
    delete excludes;
    excludes = nullptr;
    sessions.removeAll();
}

BkSession *BkContext::getSession(BkMode mode, int tables, unsigned linkThreshold) {
    BkSession *s = new BkSession(this, mode, tables, linkThreshold);
    if (!sessions.insert(s)) {
        delete s;
        return nullptr;
    }
    return s;
}

int BkContext::exitCode() {
    if (status) return status;
    // The list holds the newest session first.
    sessions.rewind();
    for (BkSession *s = sessions.next(); s; s = sessions.next())
        if (s->getExitCode()) return s->getExitCode();
    return 0;
}

int BkContext::interrupted() {
    return check_signal_handler(SIGINT) || check_signal_handler(SIGTERM) ? 1 : 0;
}

int BkContext::setFileOwner(const char *path) { return configmsg_fixfilemode(path, 0); }

int BkContext::isExcluded(String *name) {
    if (!name || !name->getcstring()) return 0;
    if (!excludes) {
        excludes = new Vector<String *>(10);
        char *list =
            config_get_stringcopy(config_getdefaultcache(), "local.store.backup.exclude", nullptr);
        if (list) {
            // Every "%" ends a name, even an empty one; the text behind the
            // last "%" is a name only if it is not empty.
            char *start = list;
            for (char *p = list;; p++) {
                if (*p == '%') {
                    excludes->add(new String(start, (int)(p - start)));
                    start = p + 1;
                } else if (*p == '\0') {
                    if (p > start) excludes->add(new String(start, (int)(p - start)));
                    break;
                }
            }
            free(list);
        }
    }
    for (int i = 0; i < excludes->count(); i++)
        if (*(*excludes)[i] == *name) return 1;
    return 0;
}

// ---- BkSession ----------------------------------------------------------

BkSession::BkSession(BkContext *ctx, BkMode m, int tables, unsigned threshold)
    : context(ctx),
      mode(m),
      refTable(nullptr),
      linkTable(nullptr),
      mailbox(nullptr),
      exitCode(0),
      mailboxFixed(0),
      linkThreshold(threshold) {
    if (mode == BkModeBackup && tables) refTable = new MsgRefTable();
    if (mode == BkModeRestore && tables) linkTable = new LinkWaitTable();
}

BkSession::~BkSession() {
    // The folder's destructor finishes its deliveries: this is the point at
    // which a run's work becomes final in the store.
    Mailbox *m = mailbox;
    mailbox = nullptr;
    delete m;
    delete refTable;
    delete linkTable;
}

int BkSession::isuid(const char *text) {
    const char *slash = strrchr(text, '/');
    if (!slash) return 0;
    for (const char *p = slash + 1; *p; p++)
        if (*p < '0' || *p > '9') return 0;
    return 1;
}

BkObj *BkSession::createBkObj(char *path, unsigned short type) {
    if (path[0] && path[0] != '/') {
        svclog(nullptr, 3, "Invalid backup object name %s: must start with a /", path);
        return nullptr;
    }
    size_t len = strlen(path);
    while (len > 1 && path[len - 1] == '/') path[--len] = '\0';

    if (type == 0) {
        int depth = 0;
        for (const char *p = path; *p && depth < 4; p++)
            if (*p == '/' && p[1] && p[1] != '/') depth++;
        type = (unsigned short)depth;
    }

    BkObj *obj = nullptr;
    switch (type) {
        case BkObj::TypeMailbox: {
            Mailbox *m = new Mailbox(this, path, 0);
            if (mode == BkModeBackup && isuid(m->basename()) && m->isvalid() && !m->exists()) {
                // In a backup a path of this depth may name a message of a
                // folder one level up.
                delete m;
                if (!setMailbox(path)) return nullptr;
                obj = new Message(this, path, 0);
            } else {
                if (m->isvalid()) setMailbox(m, 0);
                obj = m;
            }
            break;
        }
        case BkObj::TypeMessage:
            if (setMailbox(path)) obj = new Message(this, path, 0);
            break;
        default:
            // Objects above the folder level (store, partition, group, user)
            // and links are made by the walks of backup and restore, which
            // this build of the store does not carry.
            svclog(nullptr, 3, "Invalid backup object name %s", path);
            return nullptr;
    }
    if (obj && !obj->isvalid()) {
        if (obj == mailbox) mailbox = nullptr;
        delete obj;
        return nullptr;
    }
    return obj;
}

int BkSession::setMailbox(const char *msgpath) {
    if (mailboxFixed) return 1;
    char buf[1024];
    size_t n = strlen(msgpath);
    if (n >= sizeof(buf)) {
        svclog(nullptr, 3, "Invalid backup object name %.64s...: path too long", msgpath);
        return 0;
    }
    memcpy(buf, msgpath, n + 1);
    char *slash = strrchr(buf, '/');
    if (!slash) return 0;
    *slash = '\0';
    if (mailbox && mailbox->getObjectId() && strcmp(mailbox->getObjectId(), buf) == 0) return 1;

    Mailbox *m = new Mailbox(this, buf, 0);
    int rc = m->isvalid();
    if (rc && !m->exists()) rc = mode == BkModeRestore ? m->restoreData(nullptr) : 0;
    if (!rc) {
        delete m;
        return 0;
    }
    setMailbox(m, 0);
    return rc;
}

void BkSession::setMailbox(Mailbox *m, int fixed) {
    if (m != mailbox) {
        Mailbox *old = mailbox;
        mailbox = m;
        delete old;
    }
    mailboxFixed = fixed;
}

void BkSession::deleteBkObj(BkObj *obj) {
    if (obj && obj != mailbox) delete obj;
}

// The object of one folder.
//
// A Mailbox turns a path of the object tree ("/partition/group/user/folder")
// into the owner's canonical id and the folder's internal name, opens the
// folder for reading when something needs it, creates a missing one, and
// runs the append session into which the Message objects of the folder
// deliver. The session holds the folder's index lock from the first
// delivery until the object is destroyed: only then do the folder's header,
// its row and the quota count the delivered messages (append_finish).
//
// A missing inbox is provisioned from the directory (autocreate), with the
// partition and quotas that the directory names for its owner.
//
// The folder's attributes carry whether its owner is subscribed to it; a
// restored folder subscribes its owner again.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include "objects/bkobj.h"
#include "store/autocreate.h"
#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_rename.h"
#include "store/mboxlist_subs.h"
#include "store/mboxname.h"
#include "store/seen_db.h"
#include "store/storeutil.h"
#include "support/auth.h"
#include "support/log.h"
#include "support/strutil.h"

static const uint32_t FLAG_LIST_END = 0xFFFFFFFFu;

Mailbox::Mailbox(BkSession *s, const char *path, int exists)
    : BkObj(s, path, TypeMailbox),
      mbox(zeromailbox),
      isOpen(0),
      nextMsgno(0),
      uidState(0),
      appending(0),
      origExists(0),
      oldUser(nullptr),
      msgIds(nullptr),
      flagsCache(nullptr),
      flagNames(nullptr),
      delivered(0),
      error(0) {
    memset(&mboxAttr, 0, sizeof(mboxAttr));
    memset(&appendState, 0, sizeof(appendState));
    userid[0] = '\0';
    name[0] = '\0';
    if (!valid) return;

    // The owner is the component in front of the folder name; a longer one
    // than the buffer is refused rather than cut.
    const char *end = basenamePtr - 1;
    const char *start = end;
    while (start > attr.objectId && start[-1] != '/') start--;
    size_t userLen = basenamePtr > attr.objectId ? (size_t)(end - start) : 0;
    char utf7[1024];
    if (userLen == 0 || userLen >= sizeof(userid) || !basenamePtr[0] ||
        mutf7_fromutf8(basenamePtr, utf7, sizeof(utf7)) != 0) {
        svclog(nullptr, 3, "Invalid mailbox name %s", basenamePtr ? basenamePtr : attr.objectId);
        valid = 0;
        return;
    }
    memcpy(userid, start, userLen);
    userid[userLen] = '\0';
    store_canonifyid(userid);
    if (mboxname_tointernal(utf7, 0, userid, name) != 0) {
        svclog(nullptr, 3, "Invalid mailbox name %s", basenamePtr);
        name[0] = '\0';
        valid = 0;
        return;
    }
    existsFlag = exists;
}

Mailbox::~Mailbox() {
    delete flagsCache;
    flagsCache = nullptr;
    if (appending) {
        setLastUid();
        // The whole run of deliveries becomes final here: header, row, quota.
        append_finish(&appendState);
        appending = 0;
    }
    if (isOpen) {
        mailbox_close(&mbox);
        isOpen = 0;
    }
    free(msgIds);
    if (session) session->forgetMailbox(this);
    if (flagNames) {
        for (int i = 0; i < MAX_USER_FLAGS; i++) free(flagNames[i]);
        free(flagNames);
    }
}

// The folder database decides, and a yes stays.
int Mailbox::exists() {
    if (!valid) return 0;
    if (!existsFlag && (isOpen || mboxlist_lookup(name, nullptr, nullptr, nullptr, nullptr,
                                                  nullptr) == 0))
        existsFlag = 1;
    return existsFlag;
}

long Mailbox::getTimestamp() {
    char *path = nullptr;
    if (!valid || mboxlist_lookup(name, nullptr, nullptr, &path, nullptr, nullptr) != 0)
        return 0;
    char file[MAX_MAILBOX_PATH + 16];
    snprintf(file, sizeof(file), "%s/store.idx", path);
    free(path);
    struct stat st;
    return stat(file, &st) == 0 ? (long)st.st_mtime : 0;
}

BkObj::BkAttr *Mailbox::getAttr() {
    if (!valid || !openMbox() || !getPerUserFlags()) return nullptr;
    attr.timestamp = (long)mbox.index_mtime;
    mboxAttr.uidvalidity = htonl(mbox.mbd.uidvalidity);
    // A subscription that can't be read counts as none.
    mboxAttr.subscribed = mboxlist_lookup_subs(userid, name) == 0;
    mboxAttr.last_uid = htonl(mbox.mbd.last_uid);
    attr.attrData.set(sizeof(mboxAttr), &mboxAttr, 0);
    return &attr;
}

int Mailbox::setAttr(BkAttr &a) {
    if (!valid) return 0;
    adoptAttr(a, &mboxAttr, sizeof(mboxAttr));
    return 1;
}

void Mailbox::printAttr(FILE *f) {
    attr.print(f);
    fprintf(f, "UID Validity: %d\n", (int)ntohl(mboxAttr.uidvalidity));
    fprintf(f, "Subscribe   : %c\n", '0' + mboxAttr.subscribed);
    fprintf(f, "Last Uid    : %d\n", (int)ntohl(mboxAttr.last_uid));
    fprintf(f, "Last Recent : %d\n", (int)ntohl(mboxAttr.recentuid));
}

// Lines of text behind a 12-character label, further lines behind 12 blanks.
static void print_lines(FILE *f, const char *label, const char *text, size_t len) {
    const char *p = text, *end = text + len;
    int first = 1;
    while (p < end) {
        const char *nl = static_cast<const char *>(memchr(p, '\n', (size_t)(end - p)));
        const char *stop = nl ? nl : end;
        fprintf(f, "%-12s: %.*s\n", first ? label : "", (int)(stop - p), p);
        first = 0;
        p = nl ? nl + 1 : end;
    }
}

void Mailbox::printData(FILE *f, Vdata *d) {
    if (!d || !d->size || !d->data) return;
    Vdata acl, rule, names;
    char *aclText = d->part(0, &acl) && acl.size ? acl.getcstring() : nullptr;
    fprintf(f, "ACL         : %s\n", aclText ? aclText : "none");
    free(aclText);
    if (d->part(2, &names) && names.size) {
        // A second chop replaces the names of an earlier one.
        if (flagNames) {
            for (int i = 0; i < MAX_USER_FLAGS; i++) free(flagNames[i]);
            free(flagNames);
        }
        flagNames = static_cast<char **>(calloc(MAX_USER_FLAGS, sizeof(char *)));
        if (flagNames) {
            names.chop(flagNames, MAX_USER_FLAGS);
            for (int i = 0; i < MAX_USER_FLAGS && flagNames[i]; i++)
                fprintf(f, "%-12s: %s\n", i == 0 ? "Flag Names" : "", flagNames[i]);
        }
    }
    if (d->part(1, &rule) && rule.size)
        print_lines(f, "Expire Rule", static_cast<const char *>(rule.data), rule.size);
}

char *Mailbox::expireRule(char *buf) {
    if (!openMbox() || !mbox.path) return nullptr;
    snprintf(buf, MAX_MAILBOX_PATH, "%s/store.expirerule", mbox.path);
    return buf;
}

Vdata *Mailbox::backupData() {
    if (!valid) return nullptr;
    if (data.size) return &data;
    if (!openMbox()) return nullptr;
    int hasNames = mbox.flagname[0] != nullptr;
    data += mbox.acl ? mbox.acl : "";
    char path[MAX_MAILBOX_PATH];
    Vdata rule;
    if (expireRule(path) && file_exists(path) && rule.load(path))
        data += rule;
    else if (hasNames)
        data += "";  // part 2 needs its place
    if (hasNames) {
        Vdata packed(mbox.flagname, MAX_USER_FLAGS);
        data += packed;
    }
    return &data;
}

int Mailbox::openMbox() {
    if (isOpen) return 1;
    if (!valid) return 0;
    if (session && session->getContext()->getDebug()) svclog(nullptr, 7, "opening %s\n", name);
    int r = mailbox_open(name, 0, nullptr, &mbox);
    if (r) {
        svclog(nullptr, 3, "cannot open mailbox %s: %s", name, mboxlist_strerror(r));
        mbox = zeromailbox;
        error = r;
        valid = 0;
        return 0;
    }
    isOpen = 1;
    if (uidState == 0 && mboxAttr.uidvalidity)
        uidState = ntohl(mboxAttr.uidvalidity) == mbox.mbd.uidvalidity ? 1 : 2;
    origExists = mbox.mbd.exists;
    return 1;
}

int Mailbox::appendSetup() {
    if (!valid) return 0;
    if (appending) return 1;
    // The session opens the folder anew, for appending.
    if (isOpen) {
        mailbox_close(&mbox);
        isOpen = 0;
    }
    memset(&appendState, 0, sizeof(appendState));
    appendState.mailbox = &mbox;
    int r = append_setup(&appendState, name, 0, MAILBOX_VERSION, nullptr, 0, 0);
    if (r) {
        svclog(nullptr, 3, "%s append setup failed: %s (%d)", name, mboxlist_strerror(r), r);
        mbox = zeromailbox;
        error = r;
        valid = 0;
        return 0;
    }
    mbox.myrights = 0x1FF;
    appending = 1;
    isOpen = 1;
    origExists = mbox.mbd.exists;
    return 1;
}

// Creates the folder: the inbox with the owner's rights, any other folder
// below an existing inbox, making the inbox first when the owner has none.
int Mailbox::createFolder(const char *acl) {
    int rc = 1;
    int isInbox = strcasecmp(basenamePtr, "INBOX") == 0;
    if (isInbox) {
        // The user is provisioned with this folder from the directory: the
        // partition and quotas are the directory's. A restored inbox gets
        // no welcome message.
        rc = autocreate(userid, nullptr, nullptr, nullptr, nullptr, 1, acl);
        if (rc != 0) svclog(nullptr, 4, "%s LDAP entry is missing", userid);
    }
    if (rc != 0)
        rc = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, userid, auth_dontCheckAcl,
                                    0xFFFFFFFFu, 0xFFFFFFFFu, 0, acl);
    if (rc == IMAP_PERMISSION_DENIED && !isInbox) {
        // The owner may not exist yet: a folder of a user comes after the
        // user's inbox, which a new user gets from the directory, with the
        // welcome message.
        char inbox[MAX_MAILBOX_NAME];
        mboxname_toownedmailbox(nullptr, userid, inbox);
        int r = mboxlist_lookup(inbox, nullptr, nullptr, nullptr, nullptr, nullptr);
        if (r == IMAP_MAILBOX_NONEXISTENT) {
            r = autocreate(userid, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
            if (r != 0) {
                svclog(nullptr, 4, "%s LDAP entry is missing", userid);
                r = mboxlist_createmailbox(inbox, MAILBOX_VERSION, nullptr, userid,
                                           auth_dontCheckAcl, 0xFFFFFFFFu, 0xFFFFFFFFu, 0,
                                           nullptr);
                if (r == IMAP_MAILBOX_EXISTS) r = 0;
            }
        }
        if (r == 0)
            rc = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, userid,
                                        auth_dontCheckAcl, 0xFFFFFFFFu, 0xFFFFFFFFu, 0, acl);
        else if (r != IMAP_MAILBOX_NONEXISTENT)
            rc = r;  // the inbox can't be read or made: that is the failure
    }
    return rc;
}

int Mailbox::restoreData(Vdata *d) {
    if (!valid) return 0;
    Vdata part;
    if (d && d->part(2, &part) && part.size && !flagNames) {
        flagNames = static_cast<char **>(calloc(MAX_USER_FLAGS, sizeof(char *)));
        if (flagNames) part.chop(flagNames, MAX_USER_FLAGS);
    }
    if (exists()) return 1;  // an existing folder is left alone

    char *acl = nullptr;
    if (d && d->part(0, &part) && part.size) {
        acl = part.getcstring();
        // A restore that renames the owner changes the owner in the ACL.
        if (acl && oldUser) acl_renameuser(&acl, oldUser, userid);
    }
    int rc = createFolder(acl);
    free(acl);
    if (rc == IMAP_MAILBOX_EXISTS) {
        // Files of a folder with messages were found without a row and
        // registered anew: the folder is there.
        rc = 0;
    }
    if (rc != 0) {
        svclog(nullptr, 3, "Cannot create mailbox %s: %s", name, mboxlist_strerror(rc));
        error = rc;
        valid = 0;
        return 0;
    }
    if (!appendSetup()) return 0;

    if (origExists == 0 && mboxAttr.uidvalidity) {
        mbox.mbd.uidvalidity = ntohl(mboxAttr.uidvalidity);
        if (mailbox_write_index_fixed_header(&mbox) == 0) uidState = 1;
    }
    existsFlag = 1;
    // The copy in "store.sub" follows at once, so that the subscription
    // survives a loss of the database.
    if (mboxAttr.subscribed && mboxlist_changesub(name, userid, nullptr, MBOXLIST_SUB_ADD) == 0)
        mboxlist_checkpointSubs(userid, 0, 0);
    char path[MAX_MAILBOX_PATH];
    if (d && d->part(1, &part) && part.size && expireRule(path) && !part.save(path))
        svclog(nullptr, 4, "%s cannot write %s: %m", name, path);
    return valid;
}

int Mailbox::readRecord(unsigned msgno, struct index_record *record, int level) {
    if (mailbox_read_index_record(&mbox, msgno, record) == 0 && record->uid != 0) return 1;
    svclog(nullptr, level, "%s Cannot read index record %d", name, (int)msgno);
    return 0;
}

BkObj *Mailbox::getFirstChild() {
    if (!valid || !openMbox() || !getPerUserFlags()) return nullptr;
    nextMsgno = 1;
    return getNextChild();
}

BkObj *Mailbox::getNextChild() {
    if (!valid) return nullptr;
    for (; nextMsgno <= mbox.mbd.exists;) {
        struct index_record record;
        if (!readRecord(nextMsgno, &record, 4)) {
            nextMsgno++;
            continue;
        }
        nextMsgno++;
        char path[1100];
        snprintf(path, sizeof(path), "%s/%u", attr.objectId, record.uid);
        DevIno devIno;
        unsigned nlink = 0;
        if (session && session->getRefTable()) {
            char file[MAX_MAILBOX_PATH + MAILBOX_FNAME_SIZE];
            if (!getMsgFile(record.uid, &devIno, &nlink, file)) {
                svclog(nullptr, 4, "Cannot open message file %s", file);
                continue;
            }
            // A file with more links than the threshold that a reference of
            // the walk already names becomes a Link; the Link object is not
            // in this build of the store, so such a file is a Message too.
        }
        Message *child = new Message(session, path, 1);
        child->setMsgInfo(&record, &devIno, nlink,
                          flagsCache ? flagsCache->getflag(record.uid) : 0);
        return child;
    }
    return nullptr;
}

int Mailbox::getMsgByUid(Message *msg, unsigned uid) {
    if (!openMbox() || !getPerUserFlags()) return 0;
    struct index_record record;
    for (unsigned msgno = 1; msgno <= mbox.mbd.exists; msgno++) {
        if (mailbox_read_index_record(&mbox, msgno, &record) != 0) {
            svclog(nullptr, 3, "%s Cannot read index record %d", name, (int)msgno);
            return 0;
        }
        if (record.uid != uid) continue;
        DevIno none;
        return msg->setMsgInfo(&record, &none, 0, flagsCache ? flagsCache->getflag(uid) : 0);
    }
    svclog(nullptr, 3, "%s: uid %lu does not exist", name, (unsigned long)uid);
    return 0;
}

int Mailbox::getMsgFile(unsigned uid, DevIno *devIno, unsigned *nlink, char *path) {
    path[0] = '\0';
    if (!mbox.mpath && !mbox.path) return 0;
    if (mailbox_message_path(&mbox, uid, path, MAX_MAILBOX_PATH + MAILBOX_FNAME_SIZE) != 0) return 0;
    struct stat st;
    if (stat(path, &st) != 0) return 0;
    *devIno = DevIno((uint64_t)st.st_dev, (uint64_t)st.st_ino);
    *nlink = (unsigned)st.st_nlink;
    return 1;
}

int Mailbox::messageExist(unsigned origUid, unsigned origUidvalidity) {
    if (origExists == 0) return 0;
    if (!msgIds) {
        msgIds = static_cast<unsigned *>(calloc((size_t)origExists * 2, sizeof(unsigned)));
        if (!msgIds) {
            svclog(nullptr, 3, "memory allocation error");
            return 0;
        }
        struct index_record record;
        for (unsigned i = 0; i < origExists; i++) {
            if (mailbox_read_index_record(&mbox, i + 1, &record) != 0) break;
            msgIds[2 * i] = record.orig_uid;
            msgIds[2 * i + 1] = record.orig_uidvalidity;
        }
    }
    for (unsigned i = 0; i < origExists; i++)
        if (msgIds[2 * i] == origUid && msgIds[2 * i + 1] == origUidvalidity) return 1;
    return 0;
}

int Mailbox::getPerUserFlags() {
    if (!valid || !isOpen) return 0;
    if (flagsCache || mbox.mbd.exists == 0) return 1;
    struct seen *handle = nullptr;
    if (seen_open(&mbox, userid, &handle) != 0) return 0;
    time_t lastread = 0, lastchange = 0;
    unsigned recentuid = 0;
    char *text = nullptr;
    if (seen_lockread(handle, &lastread, &recentuid, &lastchange, &text) != 0) {
        seen_close(handle);
        svclog(nullptr, 3, "%s Cannot get user flags", name);
        return 0;
    }
    seen_unlock(handle);
    seen_close(handle);
    if (text) flagsCache = new FlagsCache(text, mbox.mbd.exists, name);
    free(text);
    mboxAttr.recentuid = htonl(recentuid);
    return 1;
}

// In a restore that keeps the uids, the folder's last uid and the owner's
// recent uid follow the backup.
void Mailbox::setLastUid() {
    if (!valid || uidState != 1) return;
    if (ntohl(mboxAttr.last_uid) > mbox.mbd.last_uid) mbox.mbd.last_uid = ntohl(mboxAttr.last_uid);
    if (origExists != 0) return;
    struct seen *handle = nullptr;
    if (seen_open(&mbox, userid, &handle) != 0) return;
    time_t lastread = 0, lastchange = 0;
    unsigned recentuid = 0;
    char *text = nullptr;
    if (seen_lockread(handle, &lastread, &recentuid, &lastchange, &text) == 0) {
        if (recentuid != ntohl(mboxAttr.recentuid))
            seen_write(handle, lastread, ntohl(mboxAttr.recentuid), lastchange, text ? text : " ");
        seen_unlock(handle);
    }
    seen_close(handle);
    free(text);
}

// ---- FlagsCache -----------------------------------------------------------

Mailbox::FlagsCache::FlagsCache(const char *text, unsigned exists, const char *folder)
    : seen(nullptr),
      deleted(nullptr),
      capacity(exists + 2 > 1000 ? exists + 2 : 1000),
      seenCursor(0),
      deletedCursor(0),
      name(folder) {
    const char *rest = scanflags(text, &seen);
    if (rest) scanflags(rest, &deleted);
}

Mailbox::FlagsCache::~FlagsCache() {
    free(seen);
    free(deleted);
}

static uint32_t read_uid(const char **p) {
    unsigned long v = strtoul(*p, const_cast<char **>(p), 10);
    return v > 0xFFFFFFFEul ? 0xFFFFFFFEu : (uint32_t)v;
}

const char *Mailbox::FlagsCache::scanflags(const char *text, PeruserFlag **list) {
    *list = nullptr;
    if (!text || !*text) return nullptr;
    unsigned room = capacity;
    PeruserFlag *a = static_cast<PeruserFlag *>(malloc(room * sizeof(PeruserFlag)));
    if (!a) return nullptr;
    unsigned n = 0;
    const char *p = text;
    while (*p == ',') p++;
    while (*p && *p != ' ') {
        if (*p < '0' || *p > '9') {
            svclog(nullptr, 4, "%s invalid peruser flags: %s", name, p);
            break;
        }
        uint32_t first = read_uid(&p), last = first;
        if (*p == ':') {
            p++;
            if (*p >= '0' && *p <= '9') last = read_uid(&p);
        }
        while (*p == ',') p++;
        // The entries and the end record must always fit.
        if (n + 2 > room) {
            PeruserFlag *grown =
                static_cast<PeruserFlag *>(realloc(a, (size_t)room * 2 * sizeof(PeruserFlag)));
            if (!grown) break;
            a = grown;
            room *= 2;
        }
        a[n].first = first;
        a[n].last = last;
        n++;
    }
    capacity = room;
    a[n].first = a[n].last = FLAG_LIST_END;
    *list = a;
    return *p == ' ' ? p + 1 : nullptr;
}

int Mailbox::FlagsCache::inList(const PeruserFlag *list, unsigned *cursor, unsigned uid) {
    if (!list) return 0;
    unsigned c = *cursor;
    // Back up while the uid lies below the range at the cursor.
    while (c > 0 && (list[c].first == FLAG_LIST_END || uid < list[c].first)) c--;
    // Forward over the ranges that end below the uid.
    while (list[c].first != FLAG_LIST_END && list[c].last < uid) c++;
    *cursor = c;
    return list[c].first != FLAG_LIST_END && list[c].first <= uid && uid <= list[c].last;
}

unsigned Mailbox::FlagsCache::getflag(unsigned uid) {
    return (unsigned)inList(seen, &seenCursor, uid) | (unsigned)inList(deleted, &deletedCursor, uid) << 1;
}

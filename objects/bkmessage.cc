// The object of one message of a folder.
//
// Its attribute record joins three forms of a message: the folder's index
// record, the flags and date a mail file gives (setMsgInfo of the tool), and
// the fixed 52-byte record a backup carries. restoreData delivers the bytes
// into the folder through the folder's append session.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "objects/bkobj.h"
#include "store/mboxlist.h"
#include "store/storeutil.h"
#include "support/log.h"
#include "support/map.h"

Message::Message(BkSession *s, const char *path, int exists)
    : BkObj(s, path, TypeMessage), mailbox(nullptr), devIno(), nlink(0) {
    memset(&msgAttr, 0, sizeof(msgAttr));
    if (!valid) return;
    if (!session->setMailbox(attr.objectId) || !session->getMailbox() ||
        !session->getMailbox()->isvalid()) {
        valid = 0;
        return;
    }
    mailbox = session->getMailbox();
    existsFlag = exists;
}

Message::~Message() {}

// Loads the record of the uid named by the path when none is held yet.
int Message::loadAttr() {
    if (msgAttr.uid != 0 && attr.attrData.size) return 1;
    unsigned long uid = strtoul(basenamePtr, nullptr, 10);
    if (!mailbox->getMsgByUid(this, (unsigned)uid)) {
        valid = 0;
        return 0;
    }
    return 1;
}

BkObj::BkAttr *Message::getAttr() {
    if (!valid || !loadAttr()) return nullptr;
    return &attr;
}

int Message::setAttr(BkAttr &a) {
    if (!valid) return 0;
    adoptAttr(a, &msgAttr, sizeof(msgAttr));
    return valid;
}

// A message exists if its folder held the same stored message (original
// uid and uid validity) before this run added any.
int Message::exists() {
    if (!valid) return 0;
    if (existsFlag) return existsFlag;
    if (!mailbox->openMbox() || mailbox->getOrigExists() == 0) return 0;
    if (!loadAttr()) return 0;
    existsFlag = mailbox->messageExist(ntohl(msgAttr.orig_uid), ntohl(msgAttr.orig_uidvalidity));
    return existsFlag;
}

int Message::setMsgInfo(long date, unsigned size, unsigned peruserFlags, unsigned systemFlags,
                        unsigned origUidvalidity, unsigned origUid) {
    if (!valid) return 0;
    msgAttr.peruser_flags = htonl(peruserFlags);
    msgAttr.system_flags = htonl(systemFlags);
    msgAttr.uid = htonl(origUid);
    msgAttr.orig_uid = htonl(origUid);
    msgAttr.orig_uidvalidity = htonl(origUidvalidity);
    msgAttr.internaldate = htonl((uint32_t)date);
    msgAttr.last_updated = htonl((uint32_t)date);
    msgAttr.size = htonl(size);
    attr.timestamp = date;
    attr.dataSize = (int)size;
    attr.attrData.set(sizeof(msgAttr), &msgAttr, 0);
    return 1;
}

int Message::setMsgInfo(const struct index_record *r, const DevIno *di, unsigned links,
                        unsigned peruserFlags) {
    if (!valid) return 0;
    msgAttr.uid = htonl(r->uid);
    msgAttr.internaldate = htonl((uint32_t)r->internaldate);
    msgAttr.sentdate = htonl(r->sentdate);
    msgAttr.size = htonl(r->size);
    msgAttr.last_updated = htonl(r->last_updated);
    msgAttr.system_flags = htonl(r->system_flags);
    msgAttr.peruser_flags = htonl(peruserFlags);
    for (int i = 0; i < 3; i++) msgAttr.user_flags[i] = htonl(r->user_flags[i]);
    msgAttr.orig_uid = htonl(r->orig_uid);
    msgAttr.orig_uidvalidity = htonl(r->orig_uidvalidity);
    msgAttr.reserved = 0;
    devIno = *di;
    nlink = links;
    attr.timestamp = (long)r->internaldate;
    attr.dataSize = (int)r->size;
    attr.attrData.set(sizeof(msgAttr), &msgAttr, 0);
    return 1;
}

long Message::getInternalDate() const { return (long)(int32_t)ntohl(msgAttr.internaldate); }

char *Message::flagsToStr(char *buf) const {
    unsigned pf = ntohl(msgAttr.peruser_flags);
    unsigned sf = ntohl(msgAttr.system_flags);
    buf[0] = (pf & 2) ? '1' : '0';
    buf[1] = (pf & 1) ? '1' : '0';
    buf[2] = (sf & FLAG_ANSWERED) ? '1' : '0';
    buf[3] = (sf & FLAG_FLAGGED) ? '1' : '0';
    buf[4] = (sf & FLAG_DRAFT) ? '1' : '0';
    buf[5] = '\0';
    return buf;
}

int Message::setFlags(const char **names) {
    unsigned pf = ntohl(msgAttr.peruser_flags);
    unsigned sf = ntohl(msgAttr.system_flags);
    int n = 0;
    if (pf & 2) names[n++] = "\\deleted";
    if (pf & 1) names[n++] = "\\seen";
    if (sf & FLAG_ANSWERED) names[n++] = "\\answered";
    if (sf & FLAG_FLAGGED) names[n++] = "\\flagged";
    if (sf & FLAG_DRAFT) names[n++] = "\\draft";
    char **userNames = mailbox ? mailbox->getFlagNames() : nullptr;
    if (userNames) {
        for (int i = 0; i < MAX_USER_FLAGS && userNames[i]; i++)
            if (ntohl(msgAttr.user_flags[i / 32]) & (1u << (i % 32))) names[n++] = userNames[i];
    }
    return n;
}

int Message::restoreData(Vdata *msg) {
    if (!valid || !mailbox || !mailbox->isvalid()) return 0;
    if (!mailbox->isAppending() && !mailbox->appendSetup()) return 0;
    if (!msg || msg->size == 0) {
        svclog(nullptr, 4, "%s: 0 len message not restored", attr.objectId);
        return 1;
    }
    struct appendmsg desc = zeroappendmsg;
    desc.flags = APPENDMSG_STATIC;
    desc.base = static_cast<const char *>(msg->data);
    desc.size = msg->size;
    desc.singlecopy_key = mailbox->getMbox()->partition;

    const char *names[MAX_FLAG_NAMES];
    int count = setFlags(names);
    unsigned wanted = mailbox->getUidState() == 1 ? ntohl(msgAttr.uid) : 0;
    int r = append_msg(mailbox->getAppendState(), &desc, (time_t)getInternalDate(), names, count,
                       mailbox->getUserid(), ntohl(msgAttr.orig_uid),
                       ntohl(msgAttr.orig_uidvalidity), 0, wanted);
    int rc = 1;
    if (r) {
        svclog(nullptr, 3, "%s unable to append message: %s", mailbox->getName(),
               mboxlist_strerror(r));
        rc = 0;
    } else {
        mailbox->countDelivered();
    }
    append_freemsg(&desc);
    msgAttr.uid = htonl(mailbox->getMbox()->mbd.last_uid);
    return rc;
}

Vdata *Message::backupData() {
    if (!valid || !mailbox || !mailbox->isvalid() || !mailbox->openMbox()) return nullptr;
    struct map *m = nullptr;
    unsigned uid = ntohl(msgAttr.uid);
    int r = mailbox_map_message(mailbox->getMbox(), uid, nullptr, &m);
    if (r) {
        // A failed open gives its errno, a failed map a code of the store.
        svclog(nullptr, 4, "%s unable to read message for uid %d: %s", mailbox->getName(),
               (int)uid, mboxlist_strerror(r));
        data.clear();
        return &data;
    }
    data.clear();
    void *copy = malloc(m->size ? m->size : 1);
    if (!copy) {
        // The caller sees an empty object, never a size without bytes.
        svclog(nullptr, 59, "Cannot allocate memory\n");
    } else {
        memcpy(copy, m->base, m->size);
        data.set((unsigned)m->size, copy, 1);
        MsgRefTable *refs = session->getRefTable();
        if (refs && nlink > session->getLinkThreshold()) {
            MsgRef ref;
            getMsgRef(&ref);
            refs->insert(devIno, ref);
        }
    }
    mailbox_unmap_message(mailbox->getMbox(), nullptr, &m);
    return &data;
}

int Message::getMsgRef(MsgRef *ref) {
    free(ref->mboxname);
    ref->mboxname = strdup(mailbox ? mailbox->getName() : "");
    ref->uid = msgAttr.uid;
    ref->uidvalidity = mailbox ? htonl(mailbox->getMbox()->mbd.uidvalidity) : 0;
    ref->orig_uid = msgAttr.orig_uid;
    ref->orig_uidvalidity = msgAttr.orig_uidvalidity;
    return 1;
}

void Message::printAttr(FILE *f) {
    char t[64], flags[6];
    attr.print(f);
    const char *s;
    fprintf(f, "UID         : %d\n", (int)ntohl(msgAttr.uid));
    s = time2str((long)(int32_t)ntohl(msgAttr.internaldate), t);
    fprintf(f, "InternalDate: %s", s ? s : "\n");
    s = time2str((long)ntohl(msgAttr.sentdate), t);
    fprintf(f, "Sent Date   : %s", s ? s : "\n");
    fprintf(f, "Size        : %d\n", (int)ntohl(msgAttr.size));
    s = time2str((long)ntohl(msgAttr.last_updated), t);
    fprintf(f, "Last Update : %s", s ? s : "\n");
    fprintf(f, "System Flags: %s\n", flagsToStr(flags));
    fprintf(f, "User Flags  : %02x%02x%02x\n", ntohl(msgAttr.user_flags[0]),
            ntohl(msgAttr.user_flags[1]), ntohl(msgAttr.user_flags[2]));
    fprintf(f, "Original Uid: %d-%d\n", (int)ntohl(msgAttr.orig_uidvalidity),
            (int)ntohl(msgAttr.orig_uid));
}

void Message::printData(FILE *f, Vdata *d) {
    if (!d || !d->size || !d->data) return;
    char *id = mailbox_getheadervalue("message-id", static_cast<const char *>(d->data), d->size);
    fprintf(f, "Message-id  : %s\n", id ? id : "none");
    free(id);
}

void Message::dumpData(FILE *f, Vdata *d, char sep) {
    if (!d || !d->size || !d->data || !mailbox) return;
    char date[32], flags[6], fname[MAILBOX_FNAME_SIZE];
    store_time2str((time_t)getInternalDate(), "%Y%m%d%H%M%S", date, sizeof(date));
    char *id = mailbox_getheadervalue("message-id", static_cast<const char *>(d->data), d->size);
    // The file name needs only the folder's format; the folder need not be open.
    struct mailbox *mb = mailbox->getMbox();
    mb->mbd.version = MAILBOX_VERSION;
    char *dir = nullptr, *mdir = nullptr;
    if (mboxlist_lookup(mailbox->getName(), nullptr, nullptr, &dir, &mdir, nullptr) != 0)
        dir = mdir = nullptr;
    const char *msgdir = mdir ? mdir : dir;
    fprintf(f, "0%c%d%c%d%c%d-%d%c%s%c0%s%c%d%c%s%c%s/%s\n", sep,
            (int)ntohl(mailbox->getMboxAttr().uidvalidity), sep, (int)ntohl(msgAttr.uid), sep,
            (int)ntohl(msgAttr.orig_uidvalidity), (int)ntohl(msgAttr.orig_uid), sep, date, sep,
            flagsToStr(flags), sep, (int)ntohl(msgAttr.size), sep, id ? id : "", sep,
            msgdir ? msgdir : "", mailbox_message_fname(mb, ntohl(msgAttr.uid), fname));
    free(id);
    free(dir);
    free(mdir);
}

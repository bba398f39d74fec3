// The object of one message of a folder.
//
// A message is delivered through its folder's append session; until the
// store's delivery modules exist, restoreData accepts the message and
// counts it on its folder without storing it.
#include <arpa/inet.h>
#include <string.h>

#include "objects/bkobj.h"
#include "support/log.h"

Message::Message(BkSession *s, const char *path, int exists)
    : BkObj(s, path, TypeMessage), mailbox(nullptr) {
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

int Message::exists() { return valid ? existsFlag : 0; }

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

long Message::getInternalDate() const { return (long)ntohl(msgAttr.internaldate); }

char *Message::flagsToStr(char *buf) const {
    unsigned pf = ntohl(msgAttr.peruser_flags);
    unsigned sf = ntohl(msgAttr.system_flags);
    buf[0] = (pf & 2) ? '1' : '0';
    buf[1] = (pf & 1) ? '1' : '0';
    buf[2] = (sf & 1) ? '1' : '0';
    buf[3] = (sf & 2) ? '1' : '0';
    buf[4] = (sf & 8) ? '1' : '0';
    buf[5] = '\0';
    return buf;
}

Vdata *Message::backupData() { return valid ? &data : nullptr; }

int Message::restoreData(Vdata *msg) {
    if (!valid || !mailbox || !mailbox->isvalid()) return 0;
    if (!msg || msg->size == 0) {
        svclog(nullptr, 4, "%s: 0 len message not restored", attr.objectId);
        return 1;
    }
    mailbox->countDelivered();
    return 1;
}

// The object of one folder.
//
// The folder's store side (its name in the folder database, opening,
// creating, and the append session into which messages are delivered) joins
// this class once the store modules for folders and delivery exist. Until
// then a Mailbox knows its owner and folder name from its path, reports
// that the folder does not exist yet, and "creates" it by marking it as
// existing; the messages restored into it are counted, not stored.
#include <string.h>

#include "objects/bkobj.h"
#include "support/log.h"

Mailbox::Mailbox(BkSession *s, const char *path, int exists)
    : BkObj(s, path, TypeMailbox), delivered(0) {
    userid[0] = '\0';
    if (!valid) return;
    char parent[1024];
    if (!parentId(parent) || !parent[0] || !basenamePtr[0]) {
        svclog(nullptr, 3, "Invalid mailbox name %s", attr.objectId);
        valid = 0;
        return;
    }
    strcpy(userid, parent);
    existsFlag = exists;
}

Mailbox::~Mailbox() {
    if (session) session->forgetMailbox(this);
}

int Mailbox::exists() { return valid ? existsFlag : 0; }

Vdata *Mailbox::backupData() { return valid ? &data : nullptr; }

int Mailbox::restoreData(Vdata *) {
    if (!valid) return 0;
    existsFlag = 1;
    return valid;
}

BkObj *Mailbox::getFirstChild() { return nullptr; }

BkObj *Mailbox::getNextChild() { return nullptr; }

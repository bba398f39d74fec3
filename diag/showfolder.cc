// showfolder: shows a folder of a store user as the object tree sees it.
//
//   showfolder [-m] USER FOLDER
//
// Opens the folder through the object classes (a context and a plain
// session, as importmail does) and prints its attributes: object id, kind,
// time stamp of "store.idx", uid validity, subscription, last uid and the
// owner's last recent uid, then the number of messages. With -m each
// message follows, in the order of the folder's records: its attributes
// (uid, internal date, sent date, size, last update, flags as five digits
// for deleted, seen, answered, flagged and draft, user flags, original uid)
// and "File Name   : " with the path of its message file. A blank line
// stands in front of each message.
//
// FOLDER is the user's folder name as importmail takes it ("INBOX" or
// "inbox" for the inbox, leading slashes dropped). The instance is the one
// STORE_INSTANCEDIR names, and its store daemon must be running.
//
// Exit status: 0; 64 usage or a name that can't be a folder; 66 no such
// folder; 69 the store context did not come up, or the folder can't be
// read; 75 the store daemon is not ready, or the folder is locked or gave
// an I/O error (try again).
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "objects/bkobj.h"
#include "store/imap_err.h"
#include "store/mboxname.h"

static const char USAGE[] = "usage: showfolder [-m] USER FOLDER\n";

// The status for a folder that could not be read.
static int open_status(int error) {
    switch (error) {
        case IMAP_MAILBOX_NONEXISTENT:
            return 66;
        case IMAP_IOERROR:
        case IMAP_MAILBOX_LOCKED:
            return 75;
        default:
            return 69;
    }
}

static void print_message(Mailbox *folder, Message *msg) {
    putchar('\n');
    msg->printAttr(stdout);
    DevIno devIno;
    unsigned nlink = 0;
    char path[MAX_MAILBOX_PATH + MAILBOX_FNAME_SIZE];
    unsigned uid = ntohl(msg->getMsgAttr().uid);
    int found = folder->getMsgFile(uid, &devIno, &nlink, path);
    printf("File Name   : %s%s\n", path, found ? "" : " (missing)");
}

// Prints the folder (and its messages): 0 or an exit status.
static int show(BkSession *session, const char *user, const char *folderName, int messages) {
    while (*folderName == '/') folderName++;
    char path[1024];
    int n = snprintf(path, sizeof(path), "/export/user/%s/%s", user, folderName);
    if (n < 0 || (size_t)n >= sizeof(path) || !*user || strchr(user, '/') || !*folderName) {
        fprintf(stderr, "showfolder: not a folder name: user %s, folder %s\n", user, folderName);
        return 64;
    }
    BkObj *obj = session->createBkObj(path, BkObj::TypeMailbox);
    if (!obj) {
        fprintf(stderr, "showfolder: not a folder name: user %s, folder %s\n", user, folderName);
        return 64;
    }
    Mailbox *folder = static_cast<Mailbox *>(obj);
    if (!folder->exists()) {
        fprintf(stderr, "showfolder: user %s has no folder %s\n", user, folderName);
        return 66;
    }
    if (!folder->getAttr()) {
        fprintf(stderr, "showfolder: the folder %s of user %s can't be read (see the log)\n",
                folderName, user);
        return open_status(folder->getError());
    }
    folder->printAttr(stdout);
    printf("Messages    : %u\n", folder->getMbox()->mbd.exists);
    if (!messages) return 0;
    for (BkObj *child = folder->getFirstChild(); child; child = folder->getNextChild()) {
        print_message(folder, static_cast<Message *>(child));
        delete child;
    }
    if (!folder->isvalid()) {
        fprintf(stderr, "showfolder: the messages of %s of user %s can't be read\n", folderName,
                user);
        return open_status(folder->getError());
    }
    return 0;
}

int main(int argc, char **argv) {
    int messages = 0, c;
    while ((c = getopt(argc, argv, "m")) != -1) {
        if (c != 'm') {
            fputs(USAGE, stderr);
            return 64;
        }
        messages = 1;
    }
    if (argc - optind != 2) {
        fputs(USAGE, stderr);
        return 64;
    }

    // The start of the folder database may end the process with its own
    // status (75 while the store daemon is not ready).
    BkContext *context = new BkContext("showfolder", 0);
    int status = context->exitCode();
    if (context->isvalid()) {
        BkSession *session = context->getSession(BkModePlain, 0, 1);
        status = session ? show(session, argv[optind], argv[optind + 1], messages) : 69;
    } else {
        fputs("showfolder: the store context did not come up (see the log)\n", stderr);
    }
    if (fflush(stdout) != 0 && status == 0) status = 74;
    delete context;
    return status;
}

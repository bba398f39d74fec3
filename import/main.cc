// importmail: loads a Unix mail file into a folder of a store user, the way
// a delivery would.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "import/importmail.h"
#include "objects/bkobj.h"
#include "support/charset.h"

static const char USAGE[] =
    "USAGE: %s: [-g] [-v 0|1|2] [-c y|n] [-d mailbox] [-n] [-e encoding] [-i] -u user -s file\n";

// Stores a copy of optarg unless the option was given before, which counts
// as a usage error.
static void take_once(char **slot, const char *value, int *errors) {
    if (*slot)
        (*errors)++;
    else
        *slot = strdup(value);
}

int main(int argc, char **argv) {
    char *user = nullptr, *file = nullptr, *folder = nullptr, *encoding = nullptr;
    char *utf8Folder = nullptr;
    int fd = 0, errors = 0, debug = 0, result = 0, status;
    BkContext *context = nullptr;
    int c;

    while ((c = getopt(argc, argv, "ns:d:u:e:c:v:gi?")) != -1) {
        switch (c) {
            case 's':
            case 'u':
            case 'd':
            case 'e':
                take_once(c == 's' ? &file : c == 'u' ? &user : c == 'd' ? &folder : &encoding, optarg, &errors);
                break;
            case 'c':
                if ((optarg[0] == 'y' || optarg[0] == 'Y') && optarg[1] == '\0')
                    AutoAns = 1;
                else if ((optarg[0] == 'n' || optarg[0] == 'N') && optarg[1] == '\0')
                    AutoAns = 2;
                else
                    errors++;
                break;
            case 'v':
                Verbose = atoi(optarg);
                if (Verbose < 0 || Verbose > 2) errors++;
                break;
            case 'g':
                debug = 1;
                break;
            case 'n':
                RenameExist = 1;
                break;
            case 'i':
                noContentLen = 1;
                break;
            default:
                errors++;
                break;
        }
    }
    if (!user || !file) errors++;
    if (errors) {
        fprintf(stderr, USAGE, argv[0]);
        exit(64);
    }

    // Opened without waiting: a FIFO with no writer would hold the open
    // forever. Only a regular file is taken.
    fd = open64(file, O_RDONLY | O_NONBLOCK, 0);
    if (fd < 0) {
        perror(file);
        exit(66);
    }
    struct stat64 st;
    if (fstat64(fd, &st) != 0) {
        fprintf(stderr, "Invalid file permission: %s: %s\n", file, strerror(errno));
        close(fd);
        exit(66);
    }
    if (!S_ISREG(st.st_mode)) {
        fprintf(stderr, "Invalid file permission: %s is not a regular file\n", file);
        close(fd);
        exit(66);
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);

    // A separator date without a zone is local time. With TZ unset the C
    // library looks at the system's zone file again at every conversion,
    // one stat per message; naming the same file in TZ has it read once.
    if (!getenv("TZ")) setenv("TZ", ":/etc/localtime", 0);

    context = new BkContext(argv[0], debug);
    if (context->isvalid()) {
        BkSession *session = context->getSession(BkModePlain, 0, 1);
        if (session) {
            utf8Folder = MCV_LocalToUTF8(folder ? folder : file, encoding);
            if (utf8Folder) result = importmail(session, user, fd, utf8Folder);
        }
    }
    status = result ? 0 : context->exitCode();

    if (fd != 0) close(fd);
    free(user);
    free(file);
    free(encoding);
    free(folder);
    free(utf8Folder);
    // Deleting the context finishes the folder's deliveries.
    delete context;
    return status;
}

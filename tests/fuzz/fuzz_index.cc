// Arbitrary bytes as a folder's "store.idx", read in every mapping and repair
// mode with its variable header, records and cache items: nothing may read
// outside the map, and an accepted header must keep its promises.
#include <arpa/inet.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"

// Keeps the reads of every cache item from being optimised away.
static volatile unsigned touched;

static char dir[64], path[128];

static void remove_folder(void) {
    unlink(path);
    rmdir(dir);
}

static void read_folder(const uint8_t *data, size_t size, unsigned mode) {
    // Written anew for each mode: a repair may extend the file.
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || (size && retry_write(fd, data, size) < 0)) abort();
    struct mailbox mb = zeromailbox;
    mb.path = mb.mpath = dir;
    mb.name = const_cast<char *>("user/fuzz/box");
    mb.open_mode = mode;
    mb.index_fd = fd;
    int r = mailbox_read_index_fixed_header(&mb);
    // What an accepted header promises: records that can be read (the old
    // layout, read only for its conversion, has shorter ones), and with a
    // whole map all of the last cache entry.
    int accepted = r == 0 && !(mode & OPEN_REPAIR) && mb.mbd.version != MAILBOX_VERSION_OLD;
    if (mb.index_map && (r == 0 || (mode & OPEN_REPAIR))) {
        (void)mailbox_read_index_variable_header(&mb);
        // Every record and one behind the last, within a bound on run time.
        for (unsigned n = 1; n <= mb.mbd.exists + 1 && n <= 4096; n++) {
            struct index_record rec;
            int rr = mailbox_read_index_record(&mb, n, &rec);
            if (accepted && n <= mb.mbd.exists && rr != 0) abort();
            if (rr != 0) break;
            for (int item = 0; item < MAILBOX_CACHE_ITEMS; item++) {
                const char *p = mailbox_cache_item(mb.index_map, mb.name, n, item);
                if (!p) break;
                uint32_t len;  // touch the whole item: it must lie inside the map
                memcpy(&len, p, 4);
                unsigned sum = 0;
                for (uint32_t i = 0; i < ntohl(len) && i < 65536; i++) sum += (unsigned char)p[4 + i];
                touched = touched + sum;
            }
        }
        if (accepted && !(mode & (OPEN_PARTIAL | OPEN_APPEND)) && mb.mbd.exists > 0 &&
            !mailbox_cache_item(mb.index_map, mb.name, mb.mbd.exists, MAILBOX_CACHE_ITEMS - 1))
            abort();
    }
    mb.path = mb.mpath = nullptr;
    mb.name = nullptr;
    mailbox_close(&mb);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!dir[0]) {
        const char *tmp = getenv("TMPDIR");
        if (!tmp || !*tmp || strlen(tmp) >= 40) tmp = "/tmp";
        snprintf(dir, sizeof dir, "%s/fuzzindex.XXXXXX", tmp);
        if (!mkdtemp(dir)) abort();
        snprintf(path, sizeof path, "%s/store.idx", dir);
        atexit(remove_folder);
        svclog_setlevel(-1);  // the readers log every damaged file
    }
    static const unsigned modes[] = {0, OPEN_REPAIR, OPEN_PARTIAL, OPEN_APPEND | OPEN_REPAIR};
    for (unsigned mode : modes) read_folder(data, size, mode);
    return 0;
}

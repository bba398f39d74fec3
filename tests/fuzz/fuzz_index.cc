// Feeds arbitrary bytes to the readers of a folder's index file: the input
// becomes "store.idx" of a folder directory, which is read in every mapping
// and repair mode, with its variable header, its records and the cache items
// of each record. Whatever the bytes, nothing may read outside the file's
// map, and a header that the reader accepted must keep its promises.
#include <arpa/inet.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"

static char dir[64];
static char path[128];

static void remove_folder(void) {
    unlink(path);
    rmdir(dir);
}

// The folder directory, made once and used by every run.
static const char *folder_dir(void) {
    if (!dir[0]) {
        const char *tmp = getenv("TMPDIR");
        if (!tmp || !*tmp || strlen(tmp) >= 40) tmp = "/tmp";
        snprintf(dir, sizeof dir, "%s/fuzzindex.XXXXXX", tmp);
        if (!mkdtemp(dir)) abort();
        snprintf(path, sizeof path, "%s/store.idx", dir);
        atexit(remove_folder);
        // The readers log every damaged file; the fuzzer needs no such log.
        svclog_setlevel(-1);
    }
    return dir;
}

static void read_folder(const uint8_t *data, size_t size, unsigned mode) {
    // Written anew for each mode: the repair of a partly created folder
    // extends the file.
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) abort();
    if (size && retry_write(fd, data, size) < 0) abort();

    struct mailbox mb = zeromailbox;
    mb.path = const_cast<char *>(dir);
    mb.mpath = mb.path;
    mb.name = const_cast<char *>("user/fuzz/box");
    mb.open_mode = mode;
    mb.index_fd = fd;

    int r = mailbox_read_index_fixed_header(&mb);
    int quiet = (mode & OPEN_REPAIR) != 0;
    int partial = (mode & (OPEN_PARTIAL | OPEN_APPEND)) != 0;
    if (mb.index_map && (r == 0 || quiet)) {
        (void)mailbox_read_index_variable_header(&mb);
        (void)mailbox_read_index_header_acl(&mb);
        // Every record, and one behind the last; the bound keeps a huge
        // count from a damaged header from taking the run's time.
        uint64_t last = (uint64_t)mb.mbd.exists + 1;
        if (last > 4096) last = 4096;
        for (unsigned n = 1; n <= last; n++) {
            struct index_record rec;
            int rr = mailbox_read_index_record(&mb, n, &rec);
            // An accepted header counts records that can be read (the
            // old layout, read only for its conversion, has shorter ones).
            if (r == 0 && !quiet && mb.mbd.version != MAILBOX_VERSION_OLD && n <= mb.mbd.exists &&
                rr != 0)
                abort();
            if (rr != 0) break;
            for (int item = 0; item < MAILBOX_CACHE_ITEMS; item++) {
                const char *p = mailbox_cache_item(mb.index_map, mb.name, n, item);
                if (!p) break;
                // Touch the whole item: it must lie inside the map.
                uint32_t len;
                memcpy(&len, p, 4);
                len = ntohl(len);
                volatile unsigned sum = 0;
                for (uint32_t i = 0; i < len && i < 65536; i++) sum += (unsigned char)p[4 + i];
                (void)sum;
            }
        }
        // A whole map that was accepted holds all of the last entry.
        if (r == 0 && !quiet && !partial && mb.mbd.exists > 0 &&
            mb.mbd.version == MAILBOX_VERSION &&
            !mailbox_cache_item(mb.index_map, mb.name, mb.mbd.exists, MAILBOX_CACHE_ITEMS - 1))
            abort();
    }

    close(fd);
    map_free(mb.index_map);
    free(mb.acl);
    for (char *f : mb.flagname) free(f);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    folder_dir();
    static const unsigned modes[] = {0, OPEN_REPAIR, OPEN_PARTIAL, OPEN_APPEND | OPEN_REPAIR};
    for (unsigned mode : modes) read_folder(data, size, mode);
    return 0;
}

// Feeds arbitrary bytes to the message parser and the cache encoder, as a
// delivery does: the message is an exact-size heap copy with no NUL behind
// it, and the cache record goes to a scratch file. Checks that the record
// walks to its end and that the sizes of the tree stay within the input.
#include <arpa/inet.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "store/message.h"

namespace {

int scratch_fd() {
    static int fd = -1;
    if (fd < 0) {
        const char *tmpdir = getenv("TMPDIR");
        char path[4096];
        snprintf(path, sizeof(path), "%s/fuzz_message.XXXXXX", tmpdir && *tmpdir ? tmpdir : "/tmp");
        fd = mkstemp(path);
        if (fd < 0) abort();
        unlink(path);
    }
    return fd;
}

// Walks the 11 items of the record that fills the file from offset 0.
void check_record(int fd) {
    off_t size = lseek(fd, 0, SEEK_END);
    unsigned char *buf = static_cast<unsigned char *>(malloc(size ? (size_t)size : 1));
    if (pread(fd, buf, (size_t)size, 0) != size) abort();
    size_t off = 0;
    for (int i = 0; i < MESSAGE_CACHE_ITEMS; i++) {
        if (off + 4 > (size_t)size) abort();
        uint32_t len;
        memcpy(&len, buf + off, 4);
        len = ntohl(len);
        off += 4 + ((len + 3) & ~(size_t)3);
        if (off > (size_t)size) abort();
    }
    if (off != (size_t)size) abort();
    free(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int fd = scratch_fd();
    if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) abort();

    char *msg = static_cast<char *>(malloc(size));
    if (size) memcpy(msg, data, size);

    // The tree alone, with its size invariant.
    struct msgrange range = {msg, (uint32_t)size, 0};
    struct boundary_stack boundaries = {nullptr, 0, 0};
    struct body body;
    message_parse_body(&range, &body, MESSAGE_DEFAULT_TYPE, MESSAGE_NESTING_BUDGET, &boundaries);
    free(boundaries.ids);
    if (range.offset != size) abort();
    if ((uint64_t)body.header_size + body.content_size > size) abort();
    message_free_body(&body);

    // The delivery: parse, encode, write.
    struct mailbox mb;
    memset(&mb, 0, sizeof(mb));
    mb.index_fd = fd;
    mb.name = (char *)"user/fuzz";
    struct index_record record;
    memset(&record, 0, sizeof(record));
    if (message_parse_mapped(msg, size, &mb, size & 1 ? "text" : nullptr, &record) != 0) abort();
    if (record.rec_cache_offset != 0 || record.size > size) abort();
    check_record(fd);

    free(msg);
    return 0;
}

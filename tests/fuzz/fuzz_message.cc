// Feeds arbitrary bytes to the message parser and the cache encoder, as a
// delivery does: the message is an exact-size heap copy with no NUL behind
// it, parsed by message_parse_mapped into a cache record on a file. The
// file lives in memory (memfd), so that a run tests inputs rather than the
// disk. The message type hook sees the tree of that same parse: every node
// must lie within the input, and the hook's flag bits must reach the
// record. The record must walk to its end in 11 items.
#include <arpa/inet.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "store/mailbox.h"
#include "store/message.h"

namespace {

int scratch_fd() {
    static int fd = memfd_create("fuzz_message", MFD_CLOEXEC);
    if (fd < 0) abort();
    return fd;
}

void check_node(const struct body *b, uint64_t len) {
    if ((uint64_t)b->header_offset + b->header_size > len) abort();
    if ((uint64_t)b->content_offset + b->content_size > len) abort();
    if (!b->type || !b->subtype) abort();
    for (int i = 0; i < b->numparts; i++) check_node(&b->subpart[i], len);
    if (!b->numparts && b->subpart) check_node(b->subpart, len);
}

// The hook's answer: flag bits taken from the message, to be found again
// in the record.
uint32_t hook_bits(uint32_t len) { return (len * 0x9E3779B1u) & FLAG_MSGTYPE_MASK; }

uint32_t examine(void *, const char *, uint32_t len, struct body *top) {
    if (top->header_offset != 0) abort();  // the tree of the whole message
    check_node(top, len);
    return hook_bits(len);
}

// Walks the 11 items of the record that fills the file from offset 0.
void check_record(int fd) {
    off_t size = lseek(fd, 0, SEEK_CUR);
    unsigned char *buf = static_cast<unsigned char *>(malloc(size ? (size_t)size : 1));
    if (pread(fd, buf, (size_t)size, 0) != size) abort();
    size_t off = 0;
    for (int i = 0; i < MESSAGE_CACHE_ITEMS; i++) {
        if (off + 4 > (size_t)size) abort();
        uint32_t len;
        memcpy(&len, buf + off, 4);
        off += 4 + ((ntohl(len) + 3) & ~(size_t)3);
        if (off > (size_t)size) abort();
    }
    if (off != (size_t)size) abort();
    free(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int fd = scratch_fd();
    if (lseek(fd, 0, SEEK_SET) != 0) abort();
    msgtype_examineMessage = examine;

    char *msg = static_cast<char *>(malloc(size));
    if (size) memcpy(msg, data, size);

    struct mailbox mb = {};
    mb.index_fd = fd;
    mb.name = (char *)"user/fuzz";
    struct index_record record = {};
    if (message_parse_mapped(msg, size, &mb, size & 1 ? "text" : nullptr, &record) != 0) abort();
    if (record.rec_cache_offset != 0 || record.size > size) abort();
    if ((record.system_flags & FLAG_MSGTYPE_MASK) != hook_bits((uint32_t)size)) abort();
    if ((record.system_flags & FLAG_NODOTS_CRLF) &&
        (size < 2 || msg[size - 2] != '\r' || msg[size - 1] != '\n'))
        abort();
    check_record(fd);

    free(msg);
    return 0;
}

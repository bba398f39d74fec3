// showcache: parses message files as a delivery would and shows what the
// parser puts into the index record and the cache record.
//
//   showcache FILE...
//
// Each file holds one message with LF or CRLF line ends; a first line that
// begins "From " (the separator of a mail file) is dropped. The message is
// turned into the store's form (every line end CR LF) and parsed; the
// cache records of all files go one behind the other into a scratch cache
// file, as they would into a folder. For each file the output is
//
//   FILE <path>
//   sentdate: <seconds since 1970>
//   size: <n>
//   header_size: <n>
//   content_offset: <n>
//   rec_cache_offset: <n>
//   system_flags: 0x<8 hex digits>
//
// and then for each of the 11 cache items a line "ITEM <number> <name>
// <length>", the item's bytes exactly, and a newline.
//
// Exit status: 0; 64 usage; 66 a file could not be read (the others are
// still shown); 70 a record that doesn't walk to its end; 74 the scratch
// file can't be made or written.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "bench/benchutil.h"
#include "store/mailbox.h"
#include "store/message.h"

namespace {

bool read_file(const char *path, std::string *out) {
    int fd = open(path, O_RDONLY);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) < 0 || S_ISDIR(st.st_mode)) {
        int e = S_ISDIR(st.st_mode) ? EISDIR : errno;
        close(fd);
        errno = e;
        return false;
    }
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out->append(buf, (size_t)n);
    int e = errno;
    close(fd);
    errno = e;
    return n == 0;
}

// The store's form of a message: the separator line dropped, every LF
// preceded by CR.
std::string store_form(const std::string &in) {
    size_t start = 0;
    if (in.compare(0, 5, "From ") == 0) {
        size_t nl = in.find('\n');
        start = nl == std::string::npos ? in.size() : nl + 1;
    }
    std::string out;
    out.reserve(in.size() - start + in.size() / 32);
    for (size_t i = start; i < in.size(); i++) {
        if (in[i] == '\n' && (i == start || in[i - 1] != '\r')) out += '\r';
        out += in[i];
    }
    return out;
}

uint32_t get_be32(const unsigned char *p) {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

// Prints the 11 items of the record at offset of the scratch file; 0 when
// they end exactly at the file's end.
int show_record(int fd, uint32_t offset) {
    struct stat st;
    if (fstat(fd, &st) < 0) return -1;
    size_t total = (size_t)st.st_size;
    if (offset > total) return -1;
    std::string rec(total - offset, '\0');
    if (pread(fd, &rec[0], rec.size(), offset) != (ssize_t)rec.size()) return -1;
    const unsigned char *p = (const unsigned char *)rec.data();
    size_t pos = 0;
    for (int i = 0; i < MESSAGE_CACHE_ITEMS; i++) {
        if (rec.size() - pos < 4) return -1;
        uint32_t len = get_be32(p + pos);
        size_t padded = ((size_t)len + 3) & ~(size_t)3;
        if (rec.size() - pos - 4 < padded) return -1;
        printf("ITEM %d %s %u\n", i, message_cache_item_name[i], len);
        fwrite(p + pos + 4, 1, len, stdout);
        putchar('\n');
        pos += 4 + padded;
    }
    return pos == rec.size() ? 0 : -1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || (argv[1][0] == '-' && argv[1][1] != '\0')) {
        fprintf(stderr, "usage: showcache FILE...\n");
        return 64;
    }

    struct mailbox mb;
    if (bench_scratch_mailbox(&mb, "showcache") != 0) {
        const char *tmpdir = getenv("TMPDIR");
        fprintf(stderr, "showcache: can't make a scratch file in %s: %s\n",
                tmpdir && *tmpdir ? tmpdir : "/tmp", strerror(errno));
        return 74;
    }
    int cachefd = mb.index_fd;

    int status = 0;
    for (int i = 1; i < argc; i++) {
        std::string raw;
        if (!read_file(argv[i], &raw)) {
            fprintf(stderr, "showcache: %s: %s\n", argv[i], strerror(errno));
            status = 66;
            continue;
        }
        std::string msg = store_form(raw);

        struct index_record record;
        memset(&record, 0, sizeof(record));
        if (lseek(cachefd, 0, SEEK_END) < 0 ||
            message_parse_mapped(msg.data(), msg.size(), &mb, nullptr, &record) != 0) {
            fprintf(stderr, "showcache: %s: the cache record could not be written\n", argv[i]);
            close(cachefd);
            return 74;
        }

        printf("FILE %s\n", argv[i]);
        printf("sentdate: %u\n", record.sentdate);
        printf("size: %u\n", record.size);
        printf("header_size: %u\n", record.header_size);
        printf("content_offset: %u\n", record.content_offset);
        printf("rec_cache_offset: %u\n", record.rec_cache_offset);
        printf("system_flags: 0x%08x\n", record.system_flags);
        if (show_record(cachefd, record.rec_cache_offset) != 0) {
            fflush(stdout);
            fprintf(stderr, "showcache: %s: the cache record does not walk to its end\n",
                    argv[i]);
            close(cachefd);
            return 70;
        }
    }
    close(cachefd);
    if (fflush(stdout) != 0) return 74;
    return status;
}

// Throughput of the message parser and the cache encoder. The messages of
// the given mail files (cut at "From " lines that start the file or follow
// a blank line; the separator line itself is dropped) are turned into the
// store's form, CRLF line ends, once up front, and then parsed many times:
//
//   tree      message_parse_body and message_free_body: the parser alone
//   delivery  message_parse_mapped: parser, cache encoder and the write of
//             the cache record to a scratch file (cut back after each pass)
//
// For each it prints megabytes and messages per second; then the peak
// memory of the process.
//
//   bench_parse [-r repeats] file.mbox...
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/benchutil.h"
#include "store/mailbox.h"
#include "store/message.h"

namespace {

struct Msg {
    size_t offset;
    size_t size;
};

// Appends the messages of one mail file to text (in CRLF form) and their
// places to msgs.
void cut_messages(const std::string &file, std::string *text, std::vector<Msg> *msgs) {
    size_t pos = 0;
    bool open = false;
    Msg cur = {0, 0};
    bool prev_blank = true;
    while (pos < file.size()) {
        size_t nl = file.find('\n', pos);
        size_t end = nl == std::string::npos ? file.size() : nl + 1;
        size_t linelen = end - pos;
        bool is_sep = prev_blank && file.compare(pos, 5, "From ") == 0;
        if (is_sep) {
            if (open) {
                cur.size = text->size() - cur.offset;
                msgs->push_back(cur);
            }
            open = true;
            cur.offset = text->size();
        } else if (open) {
            size_t body = linelen;
            bool lf = nl != std::string::npos;
            if (lf) body--;
            if (lf && body > 0 && file[pos + body - 1] == '\r') body--;
            text->append(file, pos, body);
            if (lf) text->append("\r\n");
        }
        size_t content = linelen - (nl != std::string::npos ? 1 : 0);
        prev_blank = content == 0 || (content == 1 && file[pos] == '\r');
        pos = end;
    }
    if (open) {
        cur.size = text->size() - cur.offset;
        msgs->push_back(cur);
    }
}

void report(const char *what, double secs, size_t bytes, size_t count) {
    double mb = (double)bytes / (1024.0 * 1024.0);
    printf("%-9s %8.3f s  %9.1f MB/s  %10.0f messages/s\n", what, secs, mb / secs,
           (double)count / secs);
}

}  // namespace

int main(int argc, char **argv) {
    int repeats = bench_repeats(argc, argv);

    std::string text;
    std::vector<Msg> msgs;
    for (int i = optind; i < argc; i++) {
        std::string one;
        if (!bench_read_file(argv[i], &one)) return 66;
        cut_messages(one, &text, &msgs);
    }
    if (msgs.empty()) {
        fprintf(stderr, "no messages found\n");
        return 65;
    }
    // Each message in a heap block of its own size, as a mapped file would
    // be: nothing behind its end to lean on.
    std::vector<char *> blocks;
    for (const Msg &m : msgs) {
        char *b = (char *)malloc(m.size ? m.size : 1);
        memcpy(b, text.data() + m.offset, m.size);
        blocks.push_back(b);
    }
    std::string().swap(text);
    size_t pass_bytes = 0;
    for (const Msg &m : msgs) pass_bytes += m.size;
    printf("input:    %zu messages, %.2f MB, %d passes\n", msgs.size(),
           (double)pass_bytes / (1024.0 * 1024.0), repeats);

    double t0 = bench_now();
    for (int r = 0; r < repeats; r++) {
        for (size_t i = 0; i < msgs.size(); i++) {
            struct msgrange range = {blocks[i], (uint32_t)msgs[i].size, 0};
            struct boundary_stack boundaries = {nullptr, 0, 0};
            struct body body;
            message_parse_body(&range, &body, MESSAGE_DEFAULT_TYPE, MESSAGE_NESTING_BUDGET,
                               &boundaries);
            free(boundaries.ids);
            message_free_body(&body);
        }
    }
    report("tree", bench_now() - t0, pass_bytes * (size_t)repeats, msgs.size() * (size_t)repeats);

    struct mailbox mb;
    if (bench_scratch_mailbox(&mb, "bench_parse") != 0) {
        perror("scratch file");
        return 74;
    }
    int fd = mb.index_fd;

    off_t cache_bytes = 0;
    t0 = bench_now();
    for (int r = 0; r < repeats; r++) {
        if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) {
            perror("scratch file");
            return 74;
        }
        for (size_t i = 0; i < msgs.size(); i++) {
            struct index_record record;
            memset(&record, 0, sizeof(record));
            if (message_parse_mapped(blocks[i], msgs[i].size, &mb, nullptr, &record) != 0) {
                fprintf(stderr, "cache write failed\n");
                return 74;
            }
        }
        cache_bytes = lseek(fd, 0, SEEK_CUR);
    }
    report("delivery", bench_now() - t0, pass_bytes * (size_t)repeats,
           msgs.size() * (size_t)repeats);
    close(fd);
    printf("cache:    %.0f bytes per message\n", (double)cache_bytes / (double)msgs.size());

    for (char *b : blocks) free(b);
    printf("peak memory: %.1f MB (the input itself is held in memory)\n",
           bench_peak_mb());
    return 0;
}

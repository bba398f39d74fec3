// Feeds arbitrary bytes to the separator check and the mail file scanner.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "import/importmail.h"

// Reads every byte handed out, so that a message reaching outside the
// buffer is seen by the address sanitizer.
static int touch(void *rock, const ScannedMessage *m, int *) {
    for (size_t i = 0; m->text && i <= m->size; i++) *(unsigned *)rock += (unsigned char)m->text[i];
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A private copy with nothing behind it, so reads past the end are caught.
    char *buf = new char[size ? size : 1];
    memcpy(buf, data, size);
    const char *end = buf + size;

    for (const char *p = buf; p < end;) {
        FromLine fl;
        if (check_fromline(p, end, &fl))
            (void)get_internaldate(fl.lineEnd, fl.timeOffset, fl.zoneOffset, fl.dateOffset);
        const char *nl = static_cast<const char *>(memchr(p, '\n', (size_t)(end - p)));
        p = nl ? nl + 1 : end;
    }

    FromLine first;
    if (size && memchr(buf, '\n', size) && check_fromline(buf, end, &first)) {
        unsigned sum = 0;
        // A small limit, so that measuring and refusing are fuzzed as well.
        ScanHooks hooks = {touch, nullptr, &sum, size / 2 + 1};
        scan_messages(buf, size, -1, &first, &hooks);
    }
    delete[] buf;
    return 0;
}

// Feeds arbitrary bytes to the text services: address parsing, decoding of
// encoded words, modified UTF-7 in both directions and folder patterns.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "support/charset.h"
#include "support/parseaddr.h"
#include "support/storeglob.h"
#include "support/strutil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The services take terminated strings: an exact-size copy with a NUL.
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';

    struct address *list = nullptr;
    parseaddr_list(text, &list);
    for (struct address *a = list; a; a = a->next)  // touch every string handed out
        for (const char *s : {a->name, a->mailbox, a->domain, a->route})
            if (s) (void)strlen(s);
    parseaddr_free(list);

    char small[32];
    char *decoded = charset_decode1522(text, small, sizeof(small));
    if (decoded != small) free(decoded);

    // What was encoded decodes to the same text.
    char utf7[1024], back[1024];
    if (mutf7_fromutf8(text, utf7, sizeof(utf7)) == 0 && (mutf7_toutf8(utf7, back, sizeof(back)) != 0 || strcmp(back, text)))
        abort();
    (void)mutf7_toutf8(text, back, sizeof(back));

    // The first line is a pattern, the rest the text it is tested on.
    char *nl = strchr(text, '\n');
    if (nl) {
        *nl = '\0';
        storeglob *g = glob_init_suppress(text, GLOB_HIERARCHY | GLOB_INBOXCASE, nullptr);
        long state = 0;
        if (g) (void)glob_test(g, nl + 1, -1, &state);
        glob_free(&g);
    }
    free(text);
    return 0;
}

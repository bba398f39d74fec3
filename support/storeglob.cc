// Folder pattern matching.
//
// A pattern is literal text with two wildcards: "*" matches any run of
// characters, "%" any run that holds no hierarchy separator "/". The match
// runs as a set of pattern positions advanced over the text together, so
// its cost is bounded by the lengths of pattern and text whatever the
// number of wildcards.
//
// Flags (storeglob.h):
//   GLOB_ICASE      letters match without regard to case.
//   GLOB_HIERARCHY  a pattern that ends in "%" also matches a leading part
//                   of the text that ends before a "/": so "%" on "a/b"
//                   gives 1, and the caller knows that "a" has children
//                   that the pattern would take in at its level.
//   GLOB_INBOXCASE  a text that begins with the word "INBOX" (followed by
//                   "/" or the end) matches that word in any case, so the
//                   patterns "inbox" and "inb*" find "INBOX".
// The folder listing passes GLOB_HIERARCHY | GLOB_INBOXCASE (12); the
// name policy passes 0, for whole matches only.
//
// The suppress text, when given, is a leading part of the names tested
// that the pattern doesn't see: a text that begins with it is matched from
// behind it, and the length returned still counts from the text's start.
// Texts that don't begin with it are matched whole.

#include "support/storeglob.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "support/xmalloc.h"

struct storeglob {
    char *pattern;
    size_t plen;
    int flags;
    char *suppress;  // null if none
    size_t slen;
    int partial;  // partial matches at a "/" are wanted
};

storeglob *glob_init_suppress(const char *pattern, int flags, const char *suppress)
{
    storeglob *g = (storeglob *)xcalloc(1, sizeof(*g));
    g->pattern = xstrdup(pattern ? pattern : "");
    g->plen = strlen(g->pattern);
    g->flags = flags;
    if (suppress && *suppress) {
        g->suppress = xstrdup(suppress);
        g->slen = strlen(suppress);
    }
    g->partial = (flags & GLOB_HIERARCHY) && g->plen > 0 && g->pattern[g->plen - 1] == '%';
    return g;
}

void glob_free(storeglob **g)
{
    if (!g || !*g) return;
    free((*g)->pattern);
    free((*g)->suppress);
    free(*g);
    *g = NULL;
}

namespace {

// Adds state j and the states reachable from it without reading a
// character: a wildcard may match the empty run.
void add_state(const storeglob *g, unsigned char *set, size_t j)
{
    while (!set[j]) {
        set[j] = 1;
        if (j < g->plen && (g->pattern[j] == '*' || g->pattern[j] == '%'))
            j++;
        else
            break;
    }
}

int same_char(unsigned char pc, unsigned char tc, int fold)
{
    if (pc == tc) return 1;
    return fold && tolower(pc) == tolower(tc);
}

}  // namespace

// Matches text[0..len) (len 0 or below: the whole string). The result is
// the length of the text when the whole text matches; otherwise, for a
// partial match (see GLOB_HIERARCHY), the length of the longest leading
// part that matches; -1 if nothing matches.
//
// state, when given, lets a caller go through all the matches of one text:
// *state is 0 for a first call; after a match it holds that match's
// length, and a further call gives the next shorter match, until -1 comes
// back (and *state is -1). A caller that wants just the best match passes
// a state of 0 or none.
int glob_test(storeglob *g, const char *text, long len, long *state)
{
    if (!g || !text) return -1;
    if (state && *state < 0) return -1;
    size_t n = len > 0 ? (size_t)len : strlen(text);
    size_t limit = (state && *state > 0) ? (size_t)*state : (size_t)-1;

    size_t off = 0;
    if (g->suppress && n >= g->slen && memcmp(text, g->suppress, g->slen) == 0) off = g->slen;
    const char *t = text + off;
    size_t tn = n - off;

    // A leading "INBOX" of the text matches in any case.
    size_t inbox_end = 0;
    if ((g->flags & GLOB_INBOXCASE) && tn >= 5 && strncasecmp(t, "inbox", 5) == 0 &&
        (tn == 5 || t[5] == '/'))
        inbox_end = 5;
    int icase = (g->flags & GLOB_ICASE) != 0;

    size_t m = g->plen + 1;
    unsigned char *sets = (unsigned char *)xcalloc(2 * m, 1);
    unsigned char *cur = sets;
    unsigned char *next = sets + m;
    add_state(g, cur, 0);

    long best = -1;
    for (size_t i = 0;; i++) {
        // A partial match ends before a "/" with the whole pattern used.
        if (g->partial && i < tn && t[i] == '/' && cur[g->plen] && off + i < limit)
            best = (long)(off + i);
        if (i == tn) {
            if (cur[g->plen] && off + tn < limit) best = (long)(off + tn);
            break;
        }
        unsigned char c = (unsigned char)t[i];
        int fold = icase || i < inbox_end;
        memset(next, 0, m);
        int any = 0;
        for (size_t j = 0; j < g->plen; j++) {
            if (!cur[j]) continue;
            unsigned char pc = (unsigned char)g->pattern[j];
            if (pc == '*' || (pc == '%' && c != '/')) {
                add_state(g, next, j);  // the wildcard takes c and goes on
                any = 1;
            } else if (pc != '*' && pc != '%' && same_char(pc, c, fold)) {
                add_state(g, next, j + 1);
                any = 1;
            }
        }
        unsigned char *tmp = cur;
        cur = next;
        next = tmp;
        if (!any) break;
    }
    free(sets);

    if (state) *state = best > 0 ? best : -1;
    return best < 0 ? -1 : (int)best;
}

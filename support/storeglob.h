// Folder pattern matching: "*" matches anything, "%" anything but the
// hierarchy separator "/".
#ifndef SUPPORT_STOREGLOB_H
#define SUPPORT_STOREGLOB_H

// Flags of glob_init_suppress.
#define GLOB_ICASE 1      // letters match in any case
#define GLOB_HIERARCHY 4  // a pattern ending in "%" also matches a leading part up to a "/"
#define GLOB_INBOXCASE 8  // a leading "INBOX" of the text matches in any case

typedef struct storeglob storeglob;

// A matcher for pattern. suppress, if not null, is a leading part of the
// texts that is skipped before matching (see storeglob.cc).
storeglob *glob_init_suppress(const char *pattern, int flags, const char *suppress);
// The length of the match of text (len 0 or below: up to its NUL), or -1.
// state may be null; see storeglob.cc for going through several matches.
int glob_test(storeglob *g, const char *text, long len, long *state);
void glob_free(storeglob **g);

#endif

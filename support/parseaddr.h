// Parsing of the addresses of one header field (RFC 822/2822).
#ifndef SUPPORT_PARSEADDR_H
#define SUPPORT_PARSEADDR_H

struct address {
    char *name;     // display name, null if none
    char *route;    // source route, null if none
    char *mailbox;  // local part, or the group name at a group start
    char *domain;   // null at group start and end; "" for an address without one
    struct address *next;
};  // each record is one allocation with its strings behind it

// Parses the field starting at text, stopping at a line end that no white
// space follows, and appends the addresses to *list.
void parseaddr_list(const char *text, struct address **list);
// Frees the records of list, with their strings.
void parseaddr_free(struct address *list);

#endif

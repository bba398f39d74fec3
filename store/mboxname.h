// Folder names.
//
// Every folder has one internal name, and the store modules speak only in
// internal names:
//   "user/" + id               the inbox of user id
//   "user/" + id + "/" + path  a folder of that user
//   "public/" + path           a public folder
// at most 255 characters (MAX_MAILBOX_NAME bytes with the terminator),
// components separated by "/", non-ASCII characters held as IMAP modified
// UTF-7. The id is one component and never holds "/".
//
// External names are what a person (or a caller of the object layer)
// writes. They are read against three namespace prefixes whose text
// depends on the view selector prefix_view: -1 is the administrative view,
// any other value the user view.
//
//   kind  namespace     view -1    other views
//   0     personal      ""         ""
//   1     other users   "user"     "Shared Folders/User"
//   2     public        "public"   "Shared Folders/Public"
//
// Every operation here works on caller memory only: no files, no state, no
// logging; callable from any thread. The one failure code is
// IMAP_MAILBOX_BADNAME.
#ifndef STORE_MBOXNAME_H
#define STORE_MBOXNAME_H

#include <stddef.h>

// Longest internal name, terminator counted.
#define MAX_MAILBOX_NAME 256
// Size of the owner buffer of mboxname_owner (127 characters and a NUL).
#define MBOXNAME_OWNER_SIZE 128
// Buffer for an external name given by mboxname_toexternal: an internal
// name with the longest prefix put in front of it and "/INBOX" behind it.
#define MAX_MAILBOX_EXTERNAL 288
// Limit of the folder directory path: mboxname_getpath refuses a path when,
// before a character of the name is written, more than this many
// characters (root included) stand in the buffer.
#define MBOXNAME_PATH_LIMIT 999
// Buffer for mboxname_getpath. The root may take at most
// MBOXNAME_PATH_LIMIT - 1 characters (a longer one is refused before it is
// copied); the fixed "/=user/xx/xx/=" parts add 14, and a character of the
// name writes at most two, so no path ever reaches this size.
#define MAX_MAILBOX_PATH 1024
// Length of the fan-out text of mboxname_tohash ("/xx/xx/" and a NUL).
#define MBOXNAME_HASH_SIZE 8

// The prefix text of a namespace kind (0, 1, 2) in a view; null for any
// other kind.
const char *mboxname_prefix(int kind, int prefix_view);

// External name to internal name, into out (MAX_MAILBOX_NAME bytes, emptied
// first). userid is the caller's id, or null when the caller has none.
//   - "inbox" in any case: "user/" + userid, canonified
//     (store_canonifymboxname).
//   - prefix of kind 1 as a whole first component: "user" + the rest; the
//     rest must name a folder below an id ("/id/..."), and a final
//     "/inbox" in any case is cut off, so the inbox of another user is
//     addressed as prefix + "/id/INBOX"; canonified.
//   - prefix of kind 2 as a whole first component: "public" + the rest.
//   - anything else: a personal folder "user/" + userid + "/" + name, unless
//     the first component is a leading part of a prefix ("Shared Folders"),
//     the name starts with "#" or "~", there is no usable userid, or the
//     result would not fit.
// 0 or IMAP_MAILBOX_BADNAME. A failure after copying has begun may leave a
// partial name in out, which the caller must ignore.
int mboxname_tointernal(const char *name, int prefix_view, const char *userid, char *out);

// Internal name to the external name that mboxname_tointernal, in the same
// view and for the same userid, turns back into exactly this internal name;
// into out (MAX_MAILBOX_EXTERNAL bytes, emptied first).
//   view -1:    "user/id" gives "user/id/INBOX"; other names stay.
//   user view:  the caller's own folders are personal ("INBOX", "path");
//               other users' folders get "Shared Folders/User" in front,
//               their inboxes "/INBOX" behind; public folders
//               "Shared Folders/Public" in front.
// IMAP_MAILBOX_BADNAME for a name that has no such external form (no
// "user/" or "public/" root, a personal folder whose name the personal
// namespace can't hold such as "Shared Folders" or "#x", an id that
// canonification would change).
int mboxname_toexternal(const char *name, int prefix_view, const char *userid, char *out);

// The fan-out directories of a user's folders: a 32-bit hash h (h*31 + c
// over the bytes taken as signed chars) of the first len bytes of text
// (len 0: the whole string) gives "/" D[h&15] D[(h>>4)&7] "/"
// D[(h>>7)&15] D[(h>>11)&7] "/" with D the hex digits, written with a NUL
// into out (MBOXNAME_HASH_SIZE bytes). "alice" gives "/00/d2/".
void mboxname_tohash(const char *text, size_t len, char *out);

// The directory of a folder below the partition root:
//   root + "/=user" + fan-out of the id + "=" + encoded id and path
//   root + "/=" + encoded name                    (any other name)
// In the encoding each "/" becomes "/=", upper-case letters get a "+" in
// front, and + \ : . % ~ become %a %b %c %d %p %t. So "user/alice/Sent.2005"
// on "/store/p1" gives "/store/p1/=user/00/d2/=alice/=+Sent%d2005". out must
// hold MAX_MAILBOX_PATH bytes. 0, or IMAP_MAILBOX_BADNAME when the path
// outgrows MBOXNAME_PATH_LIMIT.
int mboxname_getpath(const char *name, const char *root, char *out);

// Undoes the encoding of mboxname_getpath from an encoded component on
// (the text must start with "="; the caller strips the root and the
// fan-out, and puts "user/" in front itself if it needs it). out holds
// MAX_MAILBOX_NAME bytes. 0, or IMAP_MAILBOX_BADNAME for a text that
// mboxname_getpath can't have written: no leading "=", a "/" without "="
// behind it, a "%" without one of a b c d p t behind it, a "+" at the end,
// or more than 255 characters of result.
int mboxname_frompath(const char *path, char *out);

// The inbox ("user/" + userid, for a null or empty path) or the folder
// "user/" + userid + "/" + path, cut to MAX_MAILBOX_NAME bytes; gives out.
char *mboxname_toownedmailbox(const char *path, const char *userid, char *out);

// 1 if name is userid's inbox or one of its folders: userid holds no "/",
// and name is "user/" + userid followed by "/" or its end. Else 0.
int mboxname_userownsmailbox(const char *userid, const char *name);

// The owner id of a "user/" name (the component behind "user/", at most
// 127 characters) in out (MBOXNAME_OWNER_SIZE bytes) and out; null for
// any other name.
char *mboxname_owner(const char *name, char *out);

// What follows "user/" + id + "/" in name, as a pointer into name; null
// for an inbox and for a name without the "user/" root.
const char *mboxname_mailbox(const char *name);

// Whether an internal name may be created (also used for subscription
// targets). Refused: more than 256 characters; the empty name, tabs, line
// feeds, a leading or trailing "/", an empty component, the bare word
// "user"; a folder "inbox" (any case) directly below a user's root; a name
// without the "user/" or "public/" root; any character outside 0x20..0x7E,
// and "%", "*", "?"; a malformed modified UTF-7 run, one that encodes a
// character below 0x80 or a surrogate, and two runs side by side ("&-",
// the escaped "&", is no run). 0 or IMAP_MAILBOX_BADNAME.
int mboxname_policycheck(const char *name);

#endif

// The mail file scanner and the import run.
#ifndef IMPORT_IMPORTMAIL_H
#define IMPORT_IMPORTMAIL_H

#include <stddef.h>
#include <time.h>

class BkSession;

// Options of the run, set by main from the command line.
extern int Verbose;       // progress text on standard error, 0 to 2
extern int AutoAns;       // after a failed message: 0 ask, 1 continue, 2 stop
extern int RenameExist;   // load into a new time-stamped folder if the target exists
extern int noContentLen;  // ignore "content-length: " header lines

// What the separator check found out about a "From " line. Offsets are
// negative and counted from lineEnd.
struct FromLine {
    const char *lineEnd;  // end of the date text
    int timeOffset;       // not 0: the line is a separator; space before the hour
    int zoneOffset;       // space before the time zone, 0 if there is none
    int dateOffset;       // 0, or first letter of the weekday of an RFC 822 date
};

// Checks whether the line at start (the input ends at end) is a message
// separator. Returns non-zero for a separator and fills *fl.
int check_fromline(const char *start, const char *end, FromLine *fl);

// The internal date of a separator line, seconds since the epoch; 0 or less
// if the date is no good.
time_t get_internaldate(const char *lineEnd, int timeOffset, int zoneOffset, int dateOffset);

// The largest message the store can hold, in bytes as stored (CRLF line
// ends): its size is a 32-bit unsigned word in the index record, in the
// folder's largest-message field, in the message object and in the
// description of a delivery. The scanner refuses larger messages.
static const size_t MESSAGE_SIZE_MAX = 0xFFFFFFFFu;

// One message as the scanner cut it: the text with CRLF line ends (a NUL
// stands behind it, not counted in size). A message larger than the limit
// is not cut: text is null, size is what it would have been.
struct ScannedMessage {
    const char *text;
    size_t size;
    time_t internalDate;
    unsigned statusFlags;   // bit 0 seen ("R"), bit 1 deleted ("D")
    unsigned xStatusFlags;  // bit 0 answered ("A")
    size_t offset;          // where the scanner stands in the file after the message
};

struct ScanHooks {
    // Delivers one message, or refuses one that is too large (text null);
    // returns the delivery's result (1 for success) and clears *more to
    // end the run.
    int (*deliver)(void *rock, const ScannedMessage *m, int *more);
    // Polled before each message: non-zero ends the run.
    int (*stop)(void *rock);
    void *rock;
    // The largest message to cut; 0 means MESSAGE_SIZE_MAX.
    size_t maxSize;
};

// Cuts the mail file at base/len into messages, starting with the separator
// line at base (checked by the caller). fd is the file mapped at base, or
// -1: with it, holes of a sparse file are passed over unread. A message is
// measured before the buffer grows for it, so one too large is refused
// without being copied. Returns the result of the last delivery, 1 if
// there was none. The buffer's memory runs out only as xrealloc's does.
int scan_messages(const char *base, size_t len, int fd, const FromLine *first,
                  const ScanHooks *hooks);

// Loads the mail file open on fd into folder of user. Returns 0 for a
// failure (with the reason in the session's exit code where one applies).
int importmail(BkSession *session, const char *user, int fd, const char *folder);

// Asks a yes/no question on the terminal; 1 for a yes.
int prompt_user(const char *question);

// Appends the time-stamp suffix ".mmddyy.HHMMSS" to path, or writes path and
// suffix into out if out is given. Returns out.
char *getNewPath(char *path, char *out);

#endif

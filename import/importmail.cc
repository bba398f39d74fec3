// The mail file scanner: proves that a file is in the Unix mail format,
// cuts it into messages with CRLF line ends, reads each message's internal
// date from its separator line and its flags from its header, and hands the
// messages to the folder's restore operation one by one.
#include "import/importmail.h"

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "objects/bkobj.h"
#include "store/mboxname.h"
#include "store/message.h"
#include "support/map.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"

int Verbose = 2;
int AutoAns = 0;
int RenameExist = 0;
int noContentLen = 0;

static const char *const monthname[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The message buffer: it lives from message to message and only grows.
static char *msg = nullptr;
static size_t msg_alloc = 8192;

// Room for the path of a message: the folder's path, "/" and a number.
static const size_t PATH_BUFSIZE = 1024;
static const size_t MSGNUM_ROOM = 12;
// What getNewPath appends: ".mmddyy.HHMMSS".
static const size_t TIMESTAMP_ROOM = 14;

// ---- separator check ------------------------------------------------

namespace {
// A view of the separator line that reads bytes by their offset from
// lineEnd; bytes in front of the line's start read as NUL, so no test can
// look outside the line.
struct LineView {
    const char *start;
    const char *end;
    char operator[](int i) const {
        const char *p = end + i;
        return p >= start && p < end ? *p : '\0';
    }
};
}  // namespace

static bool is_sign(char c) { return c == '+' || c == '-'; }

int check_fromline(const char *start, const char *inputEnd, FromLine *fl) {
    fl->timeOffset = 0;
    fl->dateOffset = 0;
    fl->zoneOffset = 0;
    fl->lineEnd = start;

    if (inputEnd - start < 5 || memcmp(start, "From ", 5) != 0) return 0;

    const char *lineEnd = start + 5;
    while (lineEnd < inputEnd && *lineEnd != '\n' && *lineEnd != '\0') lineEnd++;
    if (lineEnd >= inputEnd || *lineEnd == '\0') return 0;
    if (lineEnd > start && lineEnd[-1] == '\r') lineEnd--;

    if (lineEnd - start >= 41) {
        // A tail of " remote from host" is not part of the date.
        const char *sp = lineEnd;
        while (sp > start && *sp != ' ') sp--;
        if (sp - start >= 12 && memcmp(sp - 12, " remote from", 12) == 0) lineEnd = sp - 12;
    }
    if (lineEnd - start < 27) return 0;

    LineView l{start, lineEnd};
    int t = 0, z = 0;

    // The ctime family: "Tue Nov  5 10:20:30 2002", with a zone in one of
    // four places.
    if (l[-5] == ' ') {
        if (l[-8] == ':') {
            t = -5;
            z = 0;
        } else if (l[-9] == ' ') {
            t = -9;
            z = -9;
        } else if (l[-11] == ' ' && is_sign(l[-10])) {
            t = -11;
            z = -11;
        }
    } else if (l[-4] == ' ') {
        if (l[-9] == ' ') {
            t = -9;
            z = -4;
        }
    } else if (l[-6] == ' ' && l[-11] == ' ' && is_sign(l[-5])) {
        t = -11;
        z = -6;
    }
    if (t != 0) {
        if (l[t - 3] == ':') {
            t -= l[t - 6] == ':' ? 9 : 6;
            if (l[t] != ' ' || l[t - 3] != ' ' || l[t - 7] != ' ' || l[t - 11] != ' ') t = 0;
        } else {
            t = 0;
        }
    }
    if (t != 0) {
        fl->lineEnd = lineEnd;
        fl->timeOffset = t;
        fl->zoneOffset = z;
        return 1;
    }

    // The RFC 822 style: "Tue, 5 Nov 2002 10:20:30 -0800".
    if (l[-4] == ' ') {
        t = z = -4;
    } else if (l[-6] == ' ' && is_sign(l[-5])) {
        t = z = -6;
    } else {
        t = z = 0;
    }
    if (l[t - 3] != ':') return 0;
    t -= l[t - 6] == ':' ? 9 : 6;
    if (l[t] != ' ' || l[t - 5] != ' ' || l[t - 9] != ' ') return 0;
    int d;
    if (l[t - 11] == ' ' && l[t - 12] == ',' && l[t - 16] == ' ') {
        d = t - 15;
    } else if (l[t - 12] == ' ' && l[t - 13] == ',' && l[t - 17] == ' ') {
        d = t - 16;
    } else {
        return 0;
    }
    fl->lineEnd = lineEnd;
    fl->timeOffset = t;
    fl->zoneOffset = z;
    fl->dateOffset = d;
    return 1;
}

// ---- internal date --------------------------------------------------

static int two_digits(const char *p) {
    char scratch[3] = {p[0], p[1], '\0'};
    return atoi(scratch);
}

time_t get_internaldate(const char *lineEnd, int timeOffset, int zoneOffset, int dateOffset) {
    if (dateOffset != 0) {
        // The date text ends at lineEnd; the parser reads a terminated copy,
        // so it never looks beyond the line.
        size_t n = (size_t)(-dateOffset);
        char text[128];
        if (n >= sizeof(text)) return 0;
        memcpy(text, lineEnd + dateOffset, n);
        text[n] = '\0';
        return message_parse_date(text);
    }
    if (timeOffset == 0) return 0;

    struct tm tm;
    memset(&tm, 0, sizeof(tm));
    tm.tm_isdst = -1;
    const char *t = lineEnd + timeOffset;

    tm.tm_mday = two_digits(t - 2);
    int mon;
    for (mon = 0; mon < 12 && memcmp(t - 6, monthname[mon], 3) != 0; mon++) {
    }
    if (mon == 12) return 0;
    tm.tm_mon = mon;
    tm.tm_hour = two_digits(t + 1);
    tm.tm_min = two_digits(t + 4);
    timeOffset += 6;
    if (lineEnd[timeOffset] == ':') {
        tm.tm_sec = two_digits(lineEnd + timeOffset + 1);
        timeOffset += 3;
    }
    if (timeOffset == zoneOffset) timeOffset = -5;  // the zone stands between time and year

    char year[5];
    memcpy(year, lineEnd + timeOffset + 1, 4);
    year[4] = '\0';
    tm.tm_year = atoi(year) - 1900;

    // A date without a zone counts as local time.
    if (zoneOffset == 0) return mktime(&tm);

    // Otherwise the fields are brought to Universal Time, out of range at
    // times, and mkgmtime puts them into range. (mktime would do that by
    // the local zone's rules and shift dates near a daylight saving change.)
    const char *zone = lineEnd + zoneOffset + 1;
    int minutes;
    if (!message_parse_zone(zone, (size_t)(lineEnd - zone), &minutes)) return 0;
    tm.tm_min -= minutes;
    return mkgmtime(&tm);
}

// ---- message loop -----------------------------------------------------

namespace {
// The message being cut, as it stands after the lines taken so far.
struct Cut {
    size_t size;           // bytes of the message as stored
    size_t contentLength;  // value of the last "content-length: " header, 0 if none
    size_t bodyBytes;      // input bytes of body lines, counted while contentLength is set
    unsigned statusFlags;
    unsigned xStatusFlags;
    bool inHeader;  // until the first line after the first blank line
    bool lastBlank;
};

// The mail file: its map, and the descriptor for finding holes, or -1.
struct Input {
    const char *base;
    const char *end;
    int fd;
};
}  // namespace

// Room a line may need beyond its own bytes: a space in front, CR and LF;
// and at the end of a message a CR LF for a message without body and a NUL.
static const size_t LINE_EXTRA = 3;
static const size_t BUFFER_SLACK = 2 * LINE_EXTRA;
// A stretch without a line end after which the scanner looks for a hole.
static const size_t HOLE_PROBE = (size_t)1 << 20;

// The flags and content length of the fields "Status:", "X-Status:" and
// "Content-Length:".
static void header_flags(const char *line, size_t len, Cut *c) {
    if (len >= 8 && !strncasecmp(line, "status: ", 8)) {
        for (size_t i = 8; i < len && line[i] != '\n' && line[i] != '\0'; i++) {
            if (line[i] == 'R') c->statusFlags |= 1;
            if (line[i] == 'D') c->statusFlags |= 2;
        }
    }
    if (len >= 10 && !strncasecmp(line, "x-status: ", 10)) {
        for (size_t i = 10; i < len && line[i] != '\n' && line[i] != '\0'; i++)
            if (line[i] == 'A') c->xStatusFlags |= 1;
    }
    if (!noContentLen && len >= 16 && !strncasecmp(line, "content-length: ", 16)) {
        // The value is read up to the end of the line only.
        char num[24];
        size_t n = 0;
        while (n < sizeof(num) - 1 && 16 + n < len) {
            num[n] = line[16 + n];
            n++;
        }
        num[n] = '\0';
        long long v = strtoll(num, nullptr, 10);
        c->contentLength = v < 0 ? 0 : (size_t)v;
    }
}

// The space rule: every line of the header block becomes a field line or a
// continuation line. 1 when the line needs a space in front.
static int space_rule(const char *line, size_t len) {
    if (line[0] == ':') return 1;
    if (line[0] == ' ' || line[0] == '\t') return 0;
    size_t i = 0;
    while (i < len && line[i] != ':' && (signed char)line[i] > 32) i++;
    return i < len && line[i] == ':' ? 0 : 1;
}

// Reads the flags and the content length from one header line, and tells
// whether the line needs a space in front to be a field or a continuation.
static int header_line(const char *line, size_t len, Cut *c) {
    // Most lines name none of the three fields: their first letter tells.
    const char first = (char)(line[0] | 0x20);
    if (first == 's' || first == 'x' || first == 'c') header_flags(line, len, c);
    return space_rule(line, len);
}

// Copies len bytes with the top bit of each cleared, as header bytes are
// stored: eight at a time.
static inline void copy_7bit(char *dst, const char *src, size_t len) {
    const uint64_t mask = 0x7F7F7F7F7F7F7F7Full;
    size_t i = 0;
    for (; i + 8 <= len; i += 8) {
        uint64_t word;
        memcpy(&word, src + i, 8);
        word &= mask;
        memcpy(dst + i, &word, 8);
    }
    for (; i < len; i++) dst[i] = (char)(src[i] & 0x7f);
}

// Whether the line at line ends the message: a separator after a blank
// line, unless a content length still protects the body. The blank line in
// front of a separator belongs to the mail file: it is CR LF, or a bare LF
// when it was the message's first line.
static inline bool ends_message(Cut *c, const char *line, const char *end, FromLine *sep) {
    if (!c->lastBlank || (c->contentLength != 0 && c->bodyBytes < c->contentLength) ||
        !check_fromline(line, end, sep))
        return false;
    c->size = c->size >= 2 ? c->size - 2 : 0;
    return true;
}

// Takes the line [line, line + len) (its LF not included; hasLf tells
// whether one follows) into the message: copies it to out with Copy, or
// only counts it. Both ways give the same size.
template <bool Copy>
static inline void take_line(Cut *c, const char *line, size_t len, bool hasLf, char *out) {
    if (c->lastBlank && c->inHeader) c->inHeader = false;
    // A blank line is LF alone or CR LF.
    c->lastBlank = len == 0 || (len == 1 && line[0] == '\r' && hasLf);

    if (c->inHeader && !c->lastBlank && header_line(line, len, c)) {
        if (Copy) out[c->size] = ' ';
        c->size++;
    }
    if (Copy) {
        if (c->inHeader)
            copy_7bit(out + c->size, line, len);
        else
            memcpy(out + c->size, line, len);
    }
    if (!c->inHeader && c->contentLength != 0) c->bodyBytes += len + 1;
    c->size += len;
    // Every line ends in CR LF; a CR of the input (in the header, a byte
    // that became CR) is not doubled. What stands in front of an empty
    // line is the LF of the one before.
    bool endsInCr = len > 0 && (c->inHeader ? line[len - 1] & 0x7f : line[len - 1]) == '\r';
    if (c->size != 0 && !endsInCr) {
        if (Copy) out[c->size] = '\r';
        c->size++;
    }
    if (Copy) out[c->size] = '\n';
    c->size++;
}

// The next LF at or behind p, or null. Holes of a sparse file read as NUL
// bytes: after a stretch without a line end, the rest of a hole is passed
// over without reading its pages.
static const char *find_lf(const char *p, const Input &in) {
    for (;;) {
        size_t n = (size_t)(in.end - p) < HOLE_PROBE ? (size_t)(in.end - p) : HOLE_PROBE;
        const char *nl = static_cast<const char *>(memchr(p, '\n', n));
        if (nl || n < HOLE_PROBE) return nl;
        p += n;
        if (in.fd < 0 || p == in.end) continue;
        off_t at = (off_t)(p - in.base);
        off_t data = lseek(in.fd, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) return nullptr;  // nothing but a hole behind
        if (data > at) p = data < in.end - in.base ? in.base + data : in.end;
    }
}

// Follows the message from the line at p to its end without copying it;
// *c goes on as if the lines were cut. Returns where the message ends: at
// the separator put into *sep, or at the end of the input.
static const char *measure_rest(const char *p, const Input &in, Cut *c, FromLine *sep) {
    while (p < in.end) {
        if (ends_message(c, p, in.end, sep)) return p;
        const char *nl = find_lf(p, in);
        take_line<false>(c, p, (size_t)((nl ? nl : in.end) - p), nl != nullptr, nullptr);
        p = nl ? nl + 1 : in.end;
    }
    return in.end;
}

// Makes room for a message of size bytes, as measured. The buffer
// doubles, but never beyond what the largest message allowed needs.
static void grow_buffer(size_t size, size_t maxSize) {
    const size_t need = size + BUFFER_SLACK + LINE_EXTRA;
    const size_t cap = maxSize + BUFFER_SLACK + LINE_EXTRA;
    size_t alloc = msg_alloc;
    while (alloc < need) alloc *= 2;
    if (alloc > cap && cap >= need) alloc = cap;
    if (alloc > msg_alloc) {
        msg = static_cast<char *>(xrealloc(msg, alloc));
        msg_alloc = alloc;
    }
}

int scan_messages(const char *base, size_t len, int fd, const FromLine *first,
                  const ScanHooks *hooks) {
    const Input in = {base, base + len, fd};
    const size_t maxSize = hooks->maxSize ? hooks->maxSize : MESSAGE_SIZE_MAX;
    const char *cursor = base;
    FromLine sep = *first;
    int result = 1;

    msg_alloc = 8192;
    msg = static_cast<char *>(xmalloc(msg_alloc));

    while (cursor < in.end) {
        if (hooks->stop && hooks->stop(hooks->rock)) break;

        Cut c = {0, 0, 0, 0, 0, true, false};
        time_t internalDate =
            get_internaldate(sep.lineEnd, sep.timeOffset, sep.zoneOffset, sep.dateOffset);
        time_t now = time(nullptr);
        if (internalDate <= 0 || internalDate > now) {
            fputs("Warning: Invalid internal date, set to current time\n", stderr);
            internalDate = now;
        }

        // Behind the separator line.
        const char *nl = static_cast<const char *>(memchr(cursor, '\n', (size_t)(in.end - cursor)));
        cursor = nl ? nl + 1 : in.end;

        bool tooLarge = false;
        while (cursor < in.end) {
            if (ends_message(&c, cursor, in.end, &sep)) break;
            // The line is looked for only as far as the buffer has room.
            size_t avail = (size_t)(in.end - cursor);
            size_t room = msg_alloc - c.size > BUFFER_SLACK ? msg_alloc - c.size - BUFFER_SLACK : 0;
            nl = static_cast<const char *>(memchr(cursor, '\n', avail < room ? avail : room));
            if (!nl && avail > room) {
                // Not enough room: measure the rest of the message before
                // the buffer grows, so a message too large is never copied.
                Cut whole = c;
                FromLine next;
                const char *stop = measure_rest(cursor, in, &whole, &next);
                if (whole.inHeader) whole.size += 2;
                if (whole.size > maxSize) {
                    c.size = whole.size;
                    tooLarge = true;
                    if (stop < in.end) sep = next;
                    cursor = stop;
                    break;
                }
                grow_buffer(whole.size, maxSize);
                continue;
            }
            take_line<true>(&c, cursor, (size_t)((nl ? nl : in.end) - cursor), nl != nullptr, msg);
            cursor = nl ? nl + 1 : in.end;
        }

        if (!tooLarge) {
            // A message without a body gets the blank line that ends its
            // header.
            if (c.inHeader) {
                msg[c.size++] = '\r';
                msg[c.size++] = '\n';
            }
            msg[c.size] = '\0';
            tooLarge = c.size > maxSize;
        }

        ScannedMessage m;
        m.text = tooLarge ? nullptr : msg;
        m.size = c.size;
        m.internalDate = internalDate;
        m.statusFlags = c.statusFlags;
        m.xStatusFlags = c.xStatusFlags;
        m.offset = (size_t)(cursor - base);
        int more = 1;
        result = hooks->deliver(hooks->rock, &m, &more);
        if (!more) break;
    }

    free(msg);
    msg = nullptr;
    msg_alloc = 8192;
    return result;
}

// ---- the import run -------------------------------------------------

namespace {
struct ImportRun {
    BkSession *session;
    const char *folderPath;
    char msgPath[PATH_BUFSIZE];
    int number;
    int debug;
    size_t fileSize;  // bytes of the mail file
};
}  // namespace

static int import_stop(void *rock) {
    return static_cast<ImportRun *>(rock)->session->interrupted();
}

static int import_deliver(void *rock, const ScannedMessage *m, int *more) {
    ImportRun *run = static_cast<ImportRun *>(rock);
    run->number++;
    int rc;
    if (!m->text) {
        fprintf(stderr,
                "Error: message %d is %lu bytes, more than the %lu bytes a message of the store "
                "can hold; not loaded\n",
                run->number, (unsigned long)m->size, (unsigned long)MESSAGE_SIZE_MAX);
        run->session->setExitCode(65);
        rc = 0;
    } else {
        if (run->debug)
            printf("msg size: %lu offset: %lu\n", (unsigned long)m->size, (unsigned long)m->offset);
        snprintf(run->msgPath, sizeof(run->msgPath), "%s/%d", run->folderPath, run->number);
        if (Verbose > 1) fprintf(stderr, "%s\n", run->msgPath);

        Message *message = new Message(run->session, run->msgPath, 0);
        // The messages still to come, estimated from the bytes left and
        // the mean size so far, let the folder's record area grow once.
        Mailbox *folder = run->session->getMailbox();
        if (folder && m->offset > 0 && m->offset < run->fileSize)
            folder->expectMessages((unsigned)((run->fileSize - m->offset) /
                                              (m->offset / (size_t)run->number + 1)));
        message->setMsgInfo((long)m->internalDate, (unsigned)m->size, m->statusFlags,
                            m->xStatusFlags, 0, 0);
        Vdata text((unsigned)m->size, const_cast<char *>(m->text), 0);
        rc = message->restoreData(&text);
        delete message;
    }
    if (rc == 0) {
        if (AutoAns == 2)
            *more = 0;
        else if (AutoAns == 0 && !prompt_user("Import failed. Do you want to continue? [Y/N] "))
            *more = 0;
    }
    return rc;
}

// Whether user can own folders: one component of a folder name, no longer
// than an owner id may be, whose inbox would be a name the store accepts.
static int valid_owner(const char *user) {
    if (!*user || strchr(user, '/') || strlen(user) >= MBOXNAME_OWNER_SIZE) return 0;
    char inbox[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, user, inbox);
    return mboxname_policycheck(inbox) == 0;
}

int importmail(BkSession *session, const char *user, int fd, const char *folder) {
    int debug = session->getContext()->getDebug();
    char folderPath[PATH_BUFSIZE];
    char newPath[PATH_BUFSIZE];

    struct map *m = map_refresh(fd, nullptr, MAP_ONCE, -1);
    if (!m) {
        fprintf(stderr, "Error: Unable to read the mail file: %s\n", strerror(errno));
        session->setExitCode(74);
        return 0;
    }
    const char *base = m->base;
    size_t len = m->size;
    if (debug) printf("filesize: %lu\n", (unsigned long)len);

    FromLine first;
    memset(&first, 0, sizeof(first));
    if (len != 0) {
        if (!memchr(base, '\n', len) || !check_fromline(base, base + len, &first)) {
            fputs("Error: Invalid /var/mail format\n", stderr);
            session->setExitCode(65);
            map_free(m);
            return 0;
        }
    }

    // The user becomes one component of the folder's path: a name with a
    // "/" would make the first part the owner and the rest a folder.
    if (!valid_owner(user)) {
        fprintf(stderr, "Error: \"%s\" is not a valid user name for the store\n", user);
        session->setExitCode(64);
        map_free(m);
        return 0;
    }
    while (*folder == '/') folder++;
    int n = snprintf(folderPath, sizeof(folderPath), "/export/user/%s/%s", user, folder);
    size_t room = MSGNUM_ROOM + (RenameExist ? TIMESTAMP_ROOM : 0);
    if (n < 0 || (size_t)n + room >= sizeof(folderPath)) {
        fprintf(stderr, "Error: user and folder name are too long (at most %lu bytes)\n",
                (unsigned long)(sizeof(folderPath) - room - 1 - strlen("/export/user//")));
        session->setExitCode(64);
        map_free(m);
        return 0;
    }

    if (Verbose > 0) fprintf(stderr, "%s", folderPath);
    BkObj *obj = session->createBkObj(folderPath, BkObj::TypeMailbox);
    if (!obj) {
        if (Verbose > 0) fputc('\n', stderr);
        map_free(m);
        return 0;
    }
    if (RenameExist && obj->exists()) {
        getNewPath(folderPath, newPath);
        Mailbox *renamed = new Mailbox(session, newPath, 0);
        session->setMailbox(renamed, 1);
        obj = renamed;
        memcpy(folderPath, newPath, sizeof(folderPath));
        if (Verbose > 0) fprintf(stderr, "  -> %s", folderPath);
    }
    if (Verbose > 0) fputc('\n', stderr);

    if (!obj->exists()) obj->restoreData(nullptr);
    if (!obj->isvalid()) {
        map_free(m);
        return 0;
    }

    int result = 1;
    if (len != 0) {
        ImportRun run;
        run.session = session;
        run.folderPath = folderPath;
        run.number = 0;
        run.debug = debug;
        run.fileSize = len;
        ScanHooks hooks = {import_deliver, import_stop, &run, 0};
        result = scan_messages(base, len, fd, &first, &hooks);
    }
    map_free(m);
    return result;
}

int prompt_user(const char *question) {
    char line[512];
    fputs(question, stderr);
    fflush(stderr);
    if (!fgets(line, sizeof(line), stdin)) return 0;
    const char *p = line;
    while (isspace((unsigned char)*p)) p++;
    return (p[0] == 'y' || p[0] == 'Y') && p[1] == '\n';
}

char *getNewPath(char *path, char *out) {
    char suffix[64];
    time_t now = time(nullptr);
    struct tm tm;
    strftime(suffix, sizeof(suffix), ".%m%d%y.%H%M%S", mtlocaltime(&now, &tm));
    if (out)
        snprintf(out, PATH_BUFSIZE, "%s%s", path, suffix);
    else
        strncat(path, suffix, PATH_BUFSIZE - strlen(path) - 1);
    return out;
}

// The mail file scanner: proves that a file is in the Unix mail format,
// cuts it into messages with CRLF line ends, reads each message's internal
// date from its separator line and its flags from its header, and hands the
// messages to the folder's restore operation one by one.
#include "import/importmail.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "objects/bkobj.h"
#include "store/message.h"
#include "support/charset.h"
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
static int msg_size = 0;
static int msg_alloc = 8192;

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

    if (zoneOffset == 0) return mktime(&tm);

    const char *zone = lineEnd + zoneOffset + 1;
    if (*zone == '-' || *zone == '+') {
        // Digits are taken as they stand, with no check: the fields hold
        // Universal Time afterwards, out of range at times. A zone behind
        // the year may be shorter than sign and four digits; what would lie
        // beyond the date text reads as "0", so nothing outside the line is
        // read.
        auto digit = [&](int i) { return zone + i < lineEnd ? zone[i] : '0'; };
        int hours = 10 * digit(1) + digit(2) - 528;
        int minutes = 10 * digit(3) + digit(4) - 528;
        if (*zone == '-') {
            tm.tm_hour += hours;
            tm.tm_min += minutes;
        } else {
            tm.tm_hour -= hours;
            tm.tm_min -= minutes;
        }
    } else if (!strncasecmp(zone, "EDT", 3)) {
        tm.tm_hour += 4;
    } else if (!strncasecmp(zone, "EST", 3) || !strncasecmp(zone, "CDT", 3)) {
        tm.tm_hour += 5;
    } else if (!strncasecmp(zone, "CST", 3) || !strncasecmp(zone, "MDT", 3)) {
        tm.tm_hour += 6;
    } else if (!strncasecmp(zone, "MST", 3) || !strncasecmp(zone, "PDT", 3)) {
        tm.tm_hour += 7;
    } else if (!strncasecmp(zone, "PST", 3)) {
        tm.tm_hour += 8;
    } else if (!strncasecmp(zone, "GMT", 3) || !strncasecmp(zone, "UT", 2)) {
        // Universal Time already.
    } else {
        char name[16];
        size_t n = 0;
        while (n < sizeof(name) - 1 && zone + n < lineEnd && zone[n] != ' ') {
            name[n] = zone[n];
            n++;
        }
        name[n] = '\0';
        char sign = '+';
        int hours = 0, minutes = 0;
        if (MCV_TimeZoneToOffset(name, &sign, &hours, &minutes)) {
            if (sign == '-') {
                tm.tm_hour += hours;
                tm.tm_min += minutes;
            } else {
                tm.tm_hour -= hours;
                tm.tm_min -= minutes;
            }
        }
    }
    mktime(&tm);
    return mkgmtime(&tm);
}

// ---- message loop -----------------------------------------------------

// Reads the flags and the content length from one header line, and tells
// whether the line needs a space in front to be a field or a continuation.
static int header_line(const char *line, size_t len, unsigned *statusFlags,
                       unsigned *xStatusFlags, int *contentLength) {
    if (len >= 8 && !strncasecmp(line, "status: ", 8)) {
        for (size_t i = 8; i < len && line[i] != '\n' && line[i] != '\0'; i++) {
            if (line[i] == 'R') *statusFlags |= 1;
            if (line[i] == 'D') *statusFlags |= 2;
        }
    }
    if (len >= 10 && !strncasecmp(line, "x-status: ", 10)) {
        for (size_t i = 10; i < len && line[i] != '\n' && line[i] != '\0'; i++)
            if (line[i] == 'A') *xStatusFlags |= 1;
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
        int v = atoi(num);
        *contentLength = v < 0 ? 0 : v;
    }

    // The space rule: every line of the header block becomes a field line
    // or a continuation line.
    if (line[0] == ':') return 1;
    if (line[0] == ' ' || line[0] == '\t') return 0;
    size_t i = 0;
    while (i < len && line[i] != ':' && (signed char)line[i] > 32) i++;
    return i < len && line[i] == ':' ? 0 : 1;
}

static int grow_buffer(size_t need) {
    if (need > (size_t)0x7fffffff) return 0;
    int old = msg_alloc;
    while ((size_t)msg_alloc < need) msg_alloc *= 2;
    if (msg_alloc != old || !msg) msg = static_cast<char *>(xrealloc(msg, (size_t)msg_alloc));
    return msg != nullptr;
}

int scan_messages(const char *base, size_t len, const FromLine *first, const ScanHooks *hooks) {
    const char *end = base + len;
    const char *cursor = base;
    FromLine sep = *first;
    int result = 1;

    msg_alloc = 8192;
    msg_size = 0;
    msg = static_cast<char *>(xmalloc((size_t)msg_alloc));

    while (cursor < end) {
        if (hooks->stop && hooks->stop(hooks->rock)) break;

        unsigned statusFlags = 0, xStatusFlags = 0;
        int inHeader = 1, lastBlank = 0, contentLength = 0, bodyBytes = 0;
        msg_size = 0;

        time_t internalDate =
            get_internaldate(sep.lineEnd, sep.timeOffset, sep.zoneOffset, sep.dateOffset);
        time_t now = time(nullptr);
        if (internalDate <= 0 || internalDate > now) {
            fputs("Warning: Invalid internal date, set to current time\n", stderr);
            internalDate = now;
        }

        // Behind the separator line.
        const char *nl = static_cast<const char *>(memchr(cursor, '\n', (size_t)(end - cursor)));
        cursor = nl ? nl + 1 : end;

        int bufferFailed = 0;
        while (cursor < end) {
            nl = static_cast<const char *>(memchr(cursor, '\n', (size_t)(end - cursor)));
            size_t lineLen = (size_t)((nl ? nl : end) - cursor);

            if (!grow_buffer(lineLen + (size_t)msg_size + 10)) {
                bufferFailed = 1;
                break;
            }

            if (lastBlank && !(contentLength != 0 && bodyBytes < contentLength)) {
                FromLine cand;
                if (check_fromline(cursor, end, &cand)) {
                    // The blank line in front of a separator belongs to the
                    // mail file, not to the message.
                    if (msg_size >= 2 && msg[msg_size - 2] == '\r')
                        msg_size -= 2;
                    else if (msg_size >= 1)
                        msg_size -= 1;
                    sep = cand;
                    break;
                }
            }
            if (lastBlank && inHeader) inHeader = 0;
            // A blank line is LF alone or CR LF.
            lastBlank = lineLen == 0 || (lineLen == 1 && cursor[0] == '\r' && nl != nullptr);

            if (inHeader && !lastBlank &&
                header_line(cursor, lineLen, &statusFlags, &xStatusFlags, &contentLength))
                msg[msg_size++] = ' ';

            char *dst = msg + msg_size;
            memcpy(dst, cursor, lineLen);
            if (inHeader) {
                for (size_t i = 0; i < lineLen; i++) dst[i] &= 0x7f;
            } else if (contentLength != 0) {
                bodyBytes += (int)lineLen + 1;
            }
            msg_size += (int)lineLen;
            if (msg_size != 0 && msg[msg_size - 1] != '\r') msg[msg_size++] = '\r';
            msg[msg_size++] = '\n';

            cursor = nl ? nl + 1 : end;
        }
        if (bufferFailed) {
            result = 0;
            break;
        }

        if (inHeader) {
            msg[msg_size++] = '\r';
            msg[msg_size++] = '\n';
        }
        msg[msg_size] = '\0';

        ScannedMessage m;
        m.text = msg;
        m.size = (size_t)msg_size;
        m.internalDate = internalDate;
        m.statusFlags = statusFlags;
        m.xStatusFlags = xStatusFlags;
        m.offset = (long)(cursor - base);
        int more = 1;
        result = hooks->deliver(hooks->rock, &m, &more);
        if (!more) break;
    }

    free(msg);
    msg = nullptr;
    msg_size = 0;
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
};
}  // namespace

static int import_stop(void *rock) {
    return static_cast<ImportRun *>(rock)->session->interrupted();
}

static int import_deliver(void *rock, const ScannedMessage *m, int *more) {
    ImportRun *run = static_cast<ImportRun *>(rock);
    if (run->debug) printf("msg size: %lu offset: %d\n", (unsigned long)m->size, (int)m->offset);

    run->number++;
    snprintf(run->msgPath, sizeof(run->msgPath), "%s/%d", run->folderPath, run->number);
    if (Verbose > 1) fprintf(stderr, "%s\n", run->msgPath);

    Message *message = new Message(run->session, run->msgPath, 0);
    message->setMsgInfo((long)m->internalDate, (unsigned)m->size, m->statusFlags,
                        m->xStatusFlags, 0, 0);
    Vdata text((unsigned)m->size, const_cast<char *>(m->text), 0);
    int rc = message->restoreData(&text);
    if (rc == 0) {
        if (AutoAns == 2)
            *more = 0;
        else if (AutoAns == 0 && !prompt_user("Import failed. Do you want to continue? [Y/N] "))
            *more = 0;
    }
    delete message;
    return rc;
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
        ScanHooks hooks = {import_deliver, import_stop, &run};
        result = scan_messages(base, len, &first, &hooks);
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

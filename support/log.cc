// The store's log files. Every entry is formatted completely in memory and
// written with a single write() on a descriptor opened with O_APPEND, so
// entries of concurrent processes and threads never interleave inside a
// line. Until a log file is open, entries go to standard error.
//
// Nothing here allocates through the xmalloc family: xmalloc reports an
// exhausted heap through svclog, so this code formats into stack buffers
// and uses plain malloc only for unusually long entries, truncating when
// even that fails.
#include "support/log.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "support/config.h"
#include "support/retry.h"

struct svclog_handle {
    int fd;            // -1 while closed: entries go to standard error
    char *name;        // name of an auxiliary log, null for the default log
    char *progname;    // program name written into the entries, or null
    svclog_handle *next;
};

static pthread_mutex_t log_lock = PTHREAD_MUTEX_INITIALIZER;
static svclog_handle default_log = {-1, nullptr, nullptr, nullptr};
static svclog_handle *aux_logs;  // every auxiliary log ever opened
static int log_options;
static int log_maxseverity = 7;

static const char *const severity_names[8] = {
    "emergency", "alert", "critical", "error", "warning", "notice", "info", "debug",
};

void svclog_setoptions(int flags) {
    pthread_mutex_lock(&log_lock);
    log_options = flags;
    pthread_mutex_unlock(&log_lock);
}

void svclog_setlevel(int maxseverity) {
    pthread_mutex_lock(&log_lock);
    log_maxseverity = maxseverity;
    pthread_mutex_unlock(&log_lock);
}

svclog_handle *svclog_getdefault(void) { return &default_log; }

// Replaces every "%m" of fmt with the text of err ("%%" stays as it is).
// The result is in out (of outsize bytes) or, if it doesn't fit, in a
// malloc'd block stored in *heap. Returns the format to use.
static const char *expand_m(const char *fmt, int err, char *out, size_t outsize, char **heap) {
    *heap = nullptr;
    if (!strstr(fmt, "%m")) return fmt;
    char errbuf[256];
    const char *etext = strerror_r(err, errbuf, sizeof errbuf);
    // Each '%' of the error text is doubled so that printf prints it.
    size_t elen = 0;
    for (const char *e = etext; *e; e++) elen += (*e == '%') ? 2 : 1;
    size_t need = 1;
    for (const char *p = fmt; *p; p++) {
        if (p[0] == '%' && p[1] == 'm') {
            need += elen;
            p++;
        } else if (p[0] == '%' && p[1] == '%') {
            need += 2;
            p++;
        } else {
            need++;
        }
    }
    char *dst = out;
    if (need > outsize) {
        *heap = (char *)malloc(need);
        if (!*heap) return fmt;  // leave "%m" to printf's own handling
        dst = *heap;
    }
    char *d = dst;
    for (const char *p = fmt; *p; p++) {
        if (p[0] == '%' && p[1] == 'm') {
            for (const char *e = etext; *e; e++) {
                *d++ = *e;
                if (*e == '%') *d++ = '%';
            }
            p++;
        } else if (p[0] == '%' && p[1] == '%') {
            *d++ = '%';
            *d++ = '%';
            p++;
        } else {
            *d++ = *p;
        }
    }
    *d = '\0';
    return dst;
}

static const char *entry_progname(const svclog_handle *h) {
    if (h->progname && *h->progname) return h->progname;
    if (default_log.progname && *default_log.progname) return default_log.progname;
    const char *p = config_processname();
    if (p && *p) return p;
    return program_invocation_short_name;
}

void svclogv(svclog_handle *h, int level, const char *fmt, va_list ap) {
    int saved_errno = errno;
    int severity = level & 7;
    if (!h) h = &default_log;

    char fmtbuf[1024];
    char *fmtheap;
    const char *f = expand_m(fmt, saved_errno, fmtbuf, sizeof fmtbuf, &fmtheap);

    // Header: local time with its offset, program, process id, severity.
    char stamp[64];
    time_t now = time(nullptr);
    struct tm tm;
    if (!localtime_r(&now, &tm) || !strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S %z", &tm))
        strcpy(stamp, "0000-00-00 00:00:00 +0000");

    pthread_mutex_lock(&log_lock);
    if (severity > log_maxseverity) {
        pthread_mutex_unlock(&log_lock);
        free(fmtheap);
        errno = saved_errno;
        return;
    }
    const char *prog = entry_progname(h);
    char head[512];
    int headlen = snprintf(head, sizeof head, "%s %s[%ld] %s: ", stamp, prog,
                           (long)getpid(), severity_names[severity]);
    if (headlen < 0) headlen = 0;
    if ((size_t)headlen >= sizeof head) headlen = (int)sizeof head - 1;

    char linebuf[8192];
    char *line = linebuf;
    size_t cap = sizeof linebuf;
    va_list ap2;
    va_copy(ap2, ap);
    int textlen = vsnprintf(nullptr, 0, f, ap2);
    va_end(ap2);
    if (textlen < 0) textlen = 0;
    size_t need = (size_t)headlen + (size_t)textlen + 2;
    if (need > cap) {
        char *big = (char *)malloc(need);
        if (big) {
            line = big;
            cap = need;
        }
    }
    memcpy(line, head, (size_t)headlen);
    char *text = line + headlen;
    size_t textcap = cap - (size_t)headlen - 1;  // one byte kept for the newline
    vsnprintf(text, textcap, f, ap);
    size_t tlen = strlen(text);
    // One entry is one line: trailing line ends go, inner ones become blanks.
    while (tlen > 0 && (text[tlen - 1] == '\n' || text[tlen - 1] == '\r')) tlen--;
    for (size_t i = 0; i < tlen; i++)
        if (text[i] == '\n' || text[i] == '\r') text[i] = ' ';
    text[tlen] = '\n';
    size_t linelen = (size_t)headlen + tlen + 1;

    int fd = h->fd >= 0 ? h->fd : 2;
    (void)retry_write(fd, line, linelen);  // a log that cannot be written has no one to tell
    if (fd != 2 && (log_options & SVCLOG_ECHO_ERRORS) && severity <= 3) {
        // "progname: text\n", built in place of the header.
        char echohead[256];
        int n = snprintf(echohead, sizeof echohead, "%s: ", prog);
        if (n > 0 && (size_t)n < sizeof echohead && (size_t)n <= (size_t)headlen) {
            char *start = text - n;
            memcpy(start, echohead, (size_t)n);
            (void)retry_write(2, start, (size_t)n + tlen + 1);
        }
    }
    pthread_mutex_unlock(&log_lock);

    if (line != linebuf) free(line);
    free(fmtheap);
    errno = saved_errno;
}

void svclog(svclog_handle *h, int level, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    svclogv(h, level, fmt, ap);
    va_end(ap);
}

static int open_logfile(const char *path) {
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
}

static char *dup_or_null(const char *s) { return s ? strdup(s) : nullptr; }

static void set_progname(svclog_handle *h, const char *progname) {
    if (!progname) return;
    const char *base = strrchr(progname, '/');
    base = base ? base + 1 : progname;
    free(h->progname);
    h->progname = dup_or_null(base);
}

int svclog_open(const char *path, const char *progname) {
    int fd = open_logfile(path);
    if (fd < 0) return -1;
    pthread_mutex_lock(&log_lock);
    if (default_log.fd >= 0) close(default_log.fd);
    default_log.fd = fd;
    set_progname(&default_log, progname);
    pthread_mutex_unlock(&log_lock);
    return 0;
}

void svclog_close(void) {
    pthread_mutex_lock(&log_lock);
    if (default_log.fd >= 0) close(default_log.fd);
    default_log.fd = -1;
    free(default_log.progname);
    default_log.progname = nullptr;
    // Auxiliary handles stay allocated (callers may still hold them) but
    // lose their files; config_initlog_auxiliary reopens them.
    for (svclog_handle *a = aux_logs; a; a = a->next) {
        if (a->fd >= 0) close(a->fd);
        a->fd = -1;
    }
    log_options = 0;
    log_maxseverity = 7;
    pthread_mutex_unlock(&log_lock);
}

svclog_handle *config_initlog_auxiliary(const char *name, const char *progname) {
    const char *dir = configmsg_getlogdir();
    if (!name || !*name || !dir) return nullptr;
    size_t plen = strlen(dir) + strlen(name) + 6;
    char *path = (char *)malloc(plen);
    if (!path) return nullptr;
    snprintf(path, plen, "%s/%s.log", dir, name);
    int fd = open_logfile(path);
    if (fd < 0) {
        svclog(0, 3, "cannot open log file %s: %m", path);
        free(path);
        return nullptr;
    }
    free(path);

    pthread_mutex_lock(&log_lock);
    svclog_handle *h;
    for (h = aux_logs; h; h = h->next)
        if (strcmp(h->name, name) == 0) break;
    if (!h) {
        h = (svclog_handle *)calloc(1, sizeof *h);
        char *n = strdup(name);
        if (!h || !n) {
            free(h);
            free(n);
            pthread_mutex_unlock(&log_lock);
            close(fd);
            return nullptr;
        }
        h->fd = -1;
        h->name = n;
        h->next = aux_logs;
        aux_logs = h;
    }
    if (h->fd >= 0) close(h->fd);
    h->fd = fd;
    set_progname(h, progname);
    pthread_mutex_unlock(&log_lock);
    return h;
}

// Containers of the object layer.
#include "objects/bkutils.h"

#include <arpa/inet.h>
#include <stddef.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <prio.h>

#include "support/timeutil.h"

void bk_assert_failed(const char *expr, const char *file, int line) {
    fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expr);
    fflush(stderr);
    abort();
}

/* ---------------------------------------------------------------- Vdata */

Vdata::Vdata(char **list, unsigned max) : size(0), data(0), own(0) {
    if (!list) return;
    size_t total = 0;
    unsigned n = 0;
    while (n < max && list[n]) {
        total += 4 + strlen(list[n]);
        n++;
    }
    if (total == 0 || total > 0xffffffffu) return;
    unsigned char *buf = (unsigned char *)malloc(total);
    if (!buf) return;
    unsigned char *p = buf;
    for (unsigned i = 0; i < n; i++) {
        uint32_t len = (uint32_t)strlen(list[i]);
        uint32_t netlen = htonl(len);
        memcpy(p, &netlen, 4);
        memcpy(p + 4, list[i], len);
        p += 4 + len;
    }
    set((unsigned)total, buf, 1);
}

Vdata::~Vdata() {
    if (own && data) free(data);
}

void Vdata::clear() {
    if (own && data) free(data);
    set(0, 0, 0);
}

Vdata &Vdata::operator=(const Vdata &other) {
    // Assigning a buffer to itself must not turn an owner into a view of
    // bytes that nobody frees.
    if (this == &other) return *this;
    size = other.size;
    data = other.data;
    own = 0;
    return *this;
}

int Vdata::appendItem(const void *bytes, unsigned len) {
    size_t total = (size_t)size + len + 4;
    if (total > 0xffffffffu) return 0;
    unsigned char *buf = (unsigned char *)malloc(total);
    if (!buf) return 0;
    if (size) memcpy(buf, data, size);
    uint32_t netlen = htonl(len);
    memcpy(buf + size, &netlen, 4);
    // The bytes may be this buffer's own (v += v): they are still there,
    // since the old buffer goes only after the copy.
    if (len) memcpy(buf + size + 4, bytes, len);
    if (own && data) free(data);
    set((unsigned)total, buf, 1);
    return 1;
}

Vdata &Vdata::operator+=(const Vdata &other) {
    appendItem(other.data, other.data ? other.size : 0);
    return *this;
}

Vdata &Vdata::operator+=(const char *s) {
    if (s) appendItem(s, (unsigned)strlen(s));
    return *this;
}

// The item at offset *pos of a packed list of size bytes: its length and
// start.  0 if fewer than 4 bytes remain or the item runs past the end.
// Counting the bytes that remain before the length word, an item's length
// must be below them (so an item that claims all of them is refused), and
// the item must also fit behind its length word.
static int packed_item(const unsigned char *base, unsigned size, unsigned *pos,
                       unsigned *len, const unsigned char **start) {
    if (*pos > size || size - *pos < 4) return 0;
    unsigned remaining = size - *pos;
    uint32_t netlen;
    memcpy(&netlen, base + *pos, 4);
    uint32_t l = ntohl(netlen);
    if (l > remaining - 4) return 0;
    *len = l;
    *start = base + *pos + 4;
    *pos += 4 + l;
    return 1;
}

int Vdata::part(int index, Vdata *out) const {
    if (index < 0 || !out || !data) return 0;
    const unsigned char *base = (const unsigned char *)data;
    unsigned pos = 0, len = 0;
    const unsigned char *start = 0;
    for (int i = 0; i <= index; i++)
        if (!packed_item(base, size, &pos, &len, &start)) return 0;
    out->set(len, (void *)start, 0);
    return 1;
}

int Vdata::chop(char **out, unsigned max) const {
    if (!out || !data) return 1;
    const unsigned char *base = (const unsigned char *)data;
    unsigned pos = 0, len = 0;
    const unsigned char *start = 0;
    for (unsigned i = 0; i < max; i++) {
        if (!packed_item(base, size, &pos, &len, &start)) break;
        char *s = (char *)malloc((size_t)len + 1);
        if (!s) break;
        memcpy(s, start, len);
        s[len] = '\0';
        out[i] = s;
    }
    return 1;
}

int Vdata::load(const char *path) {
    struct stat st;
    if (!path || stat(path, &st) != 0 || st.st_size <= 0) return 0;
    if ((unsigned long long)st.st_size > 0xffffffffull) return 0;
    unsigned sz = (unsigned)st.st_size;
    void *buf = malloc(sz);
    if (!buf) return 0;
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        free(buf);
        return 0;
    }
    ssize_t n = read(fd, buf, sz);
    close(fd);
    if (n != (ssize_t)sz) {
        free(buf);
        return 0;
    }
    if (own && data) free(data);
    set(sz, buf, 1);
    return 1;
}

int Vdata::save(const char *path) const {
    if (!path) return 0;
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) return 0;
    const char *p = (const char *)data;
    size_t left = data ? size : 0;
    int ok = 1;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n <= 0) {
            ok = 0;
            break;
        }
        p += n;
        left -= (size_t)n;
    }
    if (close(fd) != 0) ok = 0;
    return ok;
}

int Vdata::setcstring(const char *s) {
    size_t len = s ? strlen(s) : 0;
    if (len > 0xffffffffu) return 0;
    // One byte more than needed, so that an empty text still has a buffer.
    char *buf = (char *)malloc(len + 1);
    if (!buf) return 0;
    if (len) memcpy(buf, s, len);
    if (own && data) free(data);
    set((unsigned)len, buf, 1);
    return 1;
}

char *Vdata::getcstring() const {
    unsigned len = data ? size : 0;
    char *s = (char *)malloc((size_t)len + 1);
    if (!s) return 0;
    if (len) memcpy(s, data, len);
    s[len] = '\0';
    return s;
}

/* --------------------------------------------------------------- String */

String::String(const char *s) : text(0), len(0) { setcstring(s); }

String::String(const char *s, int n) : text(0), len(0) {
    if (!s) return;
    if (n < 0) n = 0;
    text = (char *)malloc((size_t)n + 1);
    if (!text) return;
    memcpy(text, s, (size_t)n);
    text[n] = '\0';
    len = n;
}

String::String(const String &other) : text(0), len(0) { setcstring(other.text); }

String::~String() { free(text); }

void String::setcstring(const char *s) {
    // The argument may point into the text being replaced.
    char *copy = s ? strdup(s) : 0;
    free(text);
    text = copy;
    len = copy ? (int)strlen(copy) : 0;
}

String &String::operator=(const String &other) {
    if (this != &other) setcstring(other.text);
    return *this;
}

String &String::operator=(const char *s) {
    setcstring(s);
    return *this;
}

int String::append(const char *s) {
    if (!s) return 1;
    size_t add = strlen(s);
    // s may lie inside the text, which realloc may move.
    ptrdiff_t inside = -1;
    uintptr_t at = (uintptr_t)s, from = (uintptr_t)text;
    if (text && at >= from && at <= from + (uintptr_t)len) inside = (ptrdiff_t)(at - from);
    char *grown = (char *)realloc(text, (size_t)len + add + 1);
    if (!grown) return 0;
    if (inside >= 0) s = grown + inside;
    memmove(grown + len, s, add);
    len += (int)add;
    grown[len] = '\0';
    text = grown;
    return 1;
}

int String::append(char c) {
    char *grown = (char *)realloc(text, (size_t)len + 2);
    if (!grown) return 0;
    grown[len++] = c;
    grown[len] = '\0';
    text = grown;
    return 1;
}

int String::append(unsigned int n) {
    char num[16];
    snprintf(num, sizeof num, "%u", n);
    return append((const char *)num);
}

bool String::operator==(const String &other) const {
    if (len != other.len) return false;
    return strcmp(text ? text : "", other.text ? other.text : "") == 0;
}

/* ------------------------------------------------------- MsgRef, KeyValue */

MsgRef::MsgRef(const MsgRef &other)
    : mboxname(other.mboxname ? strdup(other.mboxname) : 0),
      uid(other.uid),
      uidvalidity(other.uidvalidity),
      orig_uid(other.orig_uid),
      orig_uidvalidity(other.orig_uidvalidity) {}

MsgRef::~MsgRef() { free(mboxname); }

MsgRef &MsgRef::operator=(const MsgRef &other) {
    if (this == &other) return *this;
    char *copy = other.mboxname ? strdup(other.mboxname) : 0;
    free(mboxname);
    mboxname = copy;
    uid = other.uid;
    uidvalidity = other.uidvalidity;
    orig_uid = other.orig_uid;
    orig_uidvalidity = other.orig_uidvalidity;
    return *this;
}

KeyValue::~KeyValue() {
    free(key);
    free(value);
}

/* ------------------------------------------------------- free functions */

unsigned int hashvalue(const String &key, unsigned long n) {
    uint32_t m = (uint32_t)n;
    if (m == 0) return 0;
    const char *s = key.getcstring();
    uint32_t h = 0;
    if (s) {
        for (; *s; s++) {
            // Bytes from 0x80 count as negative, as a signed char does.
            h = ((h << 5) + (uint32_t)(int32_t)(signed char)*s) % m;
        }
    }
    return h;
}

unsigned int hashvalue(const DevIno &key, unsigned long n) {
    uint32_t m = (uint32_t)n;
    if (m == 0) return 0;
    return (uint32_t)key.ino % m;
}

int file_exists(const char *path) {
    PRFileInfo64 info;
    if (!path || PR_GetFileInfo64(path, &info) != PR_SUCCESS) return 0;
    return info.type == PR_FILE_FILE;
}

int64_t file_size(const char *path) {
    PRFileInfo64 info;
    if (!path || PR_GetFileInfo64(path, &info) != PR_SUCCESS) return 0;
    if (info.type != PR_FILE_FILE) return 0;
    return (int64_t)info.size;
}

char *time2str(long t, char *buf) {
    if (!buf) return 0;
    time_t tt = (time_t)t;
    struct tm tm;
    buf[0] = '\0';
    if (!mtlocaltime(&tt, &tm)) return buf;
    if (strftime(buf, 64, "%a, %d %b %Y %H:%M:%S\n", &tm) == 0) buf[0] = '\0';
    return buf;
}

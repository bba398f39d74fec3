// The base class of the object tree and its attribute record.
#include "objects/bkobj.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "support/charset.h"
#include "support/retry.h"
#include "support/xmalloc.h"

// ---- BkAttr -----------------------------------------------------------

BkObj::BkAttr::BkAttr() : objectId(nullptr), type(0), timestamp(0), attrData(), dataSize(0) {}

BkObj::BkAttr::BkAttr(const BkAttr &o)
    : objectId(o.objectId ? strdup(o.objectId) : nullptr),
      type(o.type),
      timestamp(o.timestamp),
      attrData(),
      dataSize(o.dataSize) {
    attrData = o.attrData;  // a view of the same bytes
}

BkObj::BkAttr &BkObj::BkAttr::operator=(const BkAttr &o) {
    if (this == &o) return *this;
    // A record that has an id keeps it: the id names the object.
    if (!objectId && o.objectId) objectId = strdup(o.objectId);
    type = o.type;
    timestamp = o.timestamp;
    attrData = o.attrData;
    dataSize = o.dataSize;
    return *this;
}

BkObj::BkAttr::~BkAttr() { free(objectId); }

void BkObj::BkAttr::print(FILE *f) const {
    char tbuf[64];
    fputs("Object Id   : ", f);
    printId(f, 1);
    fprintf(f, "Type        : %d\n", type);
    const char *t = time2str(timestamp, tbuf);
    fprintf(f, "Timestamp   : %s", t ? t : "\n");
    fprintf(f, "Data Size   : %d\n", dataSize);
}

void BkObj::BkAttr::printId(FILE *f, int newline) const {
    char *local = MCV_UTF8ToLocal(objectId ? objectId : "", 0);
    fprintf(f, "%s%s", local ? local : "", newline ? "\n" : "");
    free(local);
}

BkObj::BkAttr *BkObj::BkAttr::getCopy() const {
    BkAttr *copy = new BkAttr(*this);
    if (attrData.size && attrData.data) {
        void *bytes = malloc(attrData.size);
        if (bytes) {
            memcpy(bytes, attrData.data, attrData.size);
            copy->attrData.set(attrData.size, bytes, 1);
        } else {
            copy->attrData.set(0, nullptr, 0);
        }
    }
    return copy;
}

static int write_all(int fd, const void *p, size_t n) {
    return retry_write(fd, p, n) == (ssize_t)n;
}

static int read_all(int fd, void *p, size_t n) { return retry_read(fd, p, n) == (ssize_t)n; }

// The binary form: length of the id (4 bytes), the id without terminator,
// type (2), timestamp (4), size of attrData (4), its bytes, dataSize (4);
// integers in host byte order and no padding. Nothing in the store reads
// streams of these records; one record is one call, so a stream is simply
// records one after the other.
int BkObj::BkAttr::save(int fd) const {
    uint32_t n = objectId ? (uint32_t)strlen(objectId) : 0;
    uint32_t ts = (uint32_t)timestamp;
    uint32_t m = attrData.size;
    int32_t ds = dataSize;
    return write_all(fd, &n, 4) && write_all(fd, objectId ? objectId : "", n) &&
           write_all(fd, &type, 2) && write_all(fd, &ts, 4) && write_all(fd, &m, 4) &&
           write_all(fd, attrData.data ? attrData.data : "", m) && write_all(fd, &ds, 4);
}

int BkObj::BkAttr::load(int fd) {
    uint32_t n, ts, m;
    int32_t ds;
    if (!read_all(fd, &n, 4)) return 0;
    char *id = static_cast<char *>(malloc((size_t)n + 1));
    if (!id) return 0;
    if (!read_all(fd, id, n)) {
        free(id);
        return 0;
    }
    id[n] = '\0';
    free(objectId);
    objectId = id;
    if (!read_all(fd, &type, 2) || !read_all(fd, &ts, 4) || !read_all(fd, &m, 4)) return 0;
    timestamp = (long)(int32_t)ts;
    void *bytes = malloc(m ? m : 1);
    if (!bytes) return 0;
    attrData.set(m, bytes, 1);
    if (!read_all(fd, bytes, m)) return 0;
    if (!read_all(fd, &ds, 4)) return 0;
    dataSize = ds;
    return type < TypeInvalid;
}

// ---- BkObj ------------------------------------------------------------

BkObj::BkObj(BkSession *s, const char *path, BkType type)
    : attr(), data(), valid(0), existsFlag(0), basenamePtr(nullptr), session(s) {
    if (!path || path[0] != '/') return;

    char fixed[1024];
    if ((type == TypeMessage || type == TypeLink) && session && session->isMailboxFixed() &&
        session->getMailbox()) {
        // Messages belong to the fixed folder, whatever folder the path names.
        const char *last = strrchr(path, '/');
        int n = snprintf(fixed, sizeof(fixed), "%s%s", session->getMailbox()->getObjectId(), last);
        if (n < 0 || (size_t)n >= sizeof(fixed)) return;
        path = fixed;
    }

    attr.objectId = strdup(path);
    if (!attr.objectId) return;
    size_t len = strlen(attr.objectId);
    if (len > 1 && attr.objectId[len - 1] == '/') attr.objectId[len - 1] = '\0';

    attr.type = type;
    char *p = attr.objectId;
    for (int slashes = 0; *p && slashes < (int)type; p++)
        if (*p == '/') slashes++;
    basenamePtr = p;
    valid = 1;
}

BkObj::~BkObj() {}

int BkObj::exists() { return existsFlag; }

long BkObj::getTimestamp() { return 0; }

BkObj::BkAttr *BkObj::getAttr() { return valid ? &attr : nullptr; }

int BkObj::setAttr(BkAttr &a) {
    attr = a;
    return valid;
}

void BkObj::adoptAttr(const BkAttr &a, void *record, size_t size) {
    attr = a;
    size_t n = a.attrData.size < size ? a.attrData.size : size;
    if (a.attrData.data && n) memcpy(record, a.attrData.data, n);
    attr.attrData.set(size, record, 0);
}

void BkObj::printAttr(FILE *f) { attr.print(f); }

void BkObj::printData(FILE *, Vdata *) {}

void BkObj::dumpData(FILE *, Vdata *, char) {}

char *BkObj::parentId(char *buf) const {
    if (!basenamePtr || !attr.objectId) return nullptr;
    if (basenamePtr - attr.objectId <= 1) return nullptr;
    // basename follows a slash; the parent component ends there and starts
    // behind the slash before it.
    const char *end = basenamePtr - 1;
    const char *start = end;
    while (start > attr.objectId && start[-1] != '/') start--;
    size_t n = (size_t)(end - start);
    if (n >= 1024) n = 1023;
    memcpy(buf, start, n);
    buf[n] = '\0';
    return buf;
}

// Helpers shared by the store modules; see storeutil.h.
#include "store/storeutil.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "store/mboxlist.h"
#include "store/mboxlist_list.h"
#include "store/mboxlist_quota.h"
#include "store/mboxname.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/log.h"
#include "support/retry.h"
#include "support/strutil.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"

#define PARTITION_FILE "store.parts"

char *store_canonifyid(char *id)
{
    if (!id) return id;
    char *at = strrchr(id, '@');
    if (!at) return id;
    const char *defdomain = config_get_string(nullptr, "service.defaultdomain", nullptr);
    if (defdomain && *defdomain && strcasecmp(defdomain, at + 1) == 0)
        *at = '\0';
    else
        lcase(at + 1);
    return id;
}

char *store_canonifymboxname(char *name)
{
    if (!name || strncmp(name, "user/", 5) != 0) return name;
    char *id = name + 5;
    char *slash = strchr(id, '/');
    if (!slash) {
        store_canonifyid(id);
        return name;
    }
    *slash = '\0';
    store_canonifyid(id);
    size_t idlen = strlen(id);
    char *rest = slash + 1;
    id[idlen] = '/';
    if (id + idlen + 1 != rest) memmove(id + idlen + 1, rest, strlen(rest) + 1);
    return name;
}

int store_isInbox(const char *name)
{
    if (!name || strncmp(name, "user/", 5) != 0) return 0;
    const char *slash = strchr(name + 5, '/');
    return !slash || strcmp(slash, "/INBOX") == 0;
}

char *store_time2str(time_t t, const char *format, char *buf, size_t size)
{
    if (!buf || size == 0) return buf;
    struct tm tm;
    if (!mtlocaltime(&t, &tm) || strftime(buf, size, format, &tm) == 0) buf[0] = '\0';
    return buf;
}

static uint32_t kilobytes(double bytes)
{
    double kb = bytes / 1024.0;
    if (kb >= 4294967295.0) return 0xFFFFFFFFu;
    return kb > 0 ? (uint32_t)kb : 0;
}

int store_getpathinfo(const char *path, uint32_t *total, uint32_t *free_kb)
{
    *total = 0;
    *free_kb = 0;
    char *work = xstrdup(path ? path : "");
    struct stat st;
    while (stat(work, &st) != 0) {
        char *slash = strrchr(work, '/');
        char *bslash = strrchr(work, '\\');
        char *cut = bslash && (!slash || bslash > slash) ? bslash : slash;
        if (!cut) break;
        // An absolute path keeps its root directory.
        if (cut == work && *cut == '/') {
            if (work[1] == '\0') break;
            cut++;
        }
        *cut = '\0';
    }
    struct statvfs vfs;
    int rc = statvfs(work, &vfs);
    free(work);
    if (rc != 0) {
        svclog(0, 3, "storeutil_getpathinfo(%s) return (%s)", path ? path : "", strerror(errno));
        return -1;
    }
    *total = kilobytes((double)vfs.f_frsize * (double)vfs.f_blocks);
    *free_kb = kilobytes((double)vfs.f_frsize * (double)vfs.f_bavail);
    return 0;
}

static char *partition_file(const char *suffix)
{
    const char *root = configmsg_getconfigroot();
    if (!root) return nullptr;
    size_t n = strlen(root) + sizeof(PARTITION_FILE) + strlen(suffix) + 1;
    char *path = (char *)xmalloc(n);
    snprintf(path, n, "%s/%s%s", root, PARTITION_FILE, suffix);
    return path;
}

int store_readpartitionId(char ***names)
{
    *names = nullptr;
    char *path = partition_file("");
    if (!path) return -1;
    FILE *f = fopen(path, "re");
    free(path);
    if (!f) return -1;

    char first[1024];
    int announced = fgets(first, sizeof first, f) ? atoi(first) : 0;
    if (announced <= 0) {
        fclose(f);
        return 0;
    }

    // The array grows with the lines read, so a wild count in a damaged
    // file costs nothing before the names run out.
    int have = 0, room = announced < 64 ? announced : 64;
    char **list = (char **)xmalloc((size_t)room * sizeof *list);
    char *line = nullptr;
    size_t linesize = 0;
    while (have < announced) {
        ssize_t len = getline(&line, &linesize, f);
        if (len < 0) break;
        if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
        if (have == room) {
            room = room > announced / 2 ? announced : room * 2;
            list = (char **)xrealloc(list, (size_t)room * sizeof *list);
        }
        list[have++] = xstrndup(line, (size_t)len);
    }
    free(line);
    fclose(f);

    if (have < announced) {
        // A short table gives no names at all: ids would be wrong.
        store_freepartition(list, have);
        return 0;
    }
    *names = list;
    return have;
}

int store_writepartitionId(const char **names, int count)
{
    if (count < 0) count = 0;
    if (count > 1) qsort(names, (size_t)count, sizeof *names, compare_names);
    char *path = partition_file("");
    char *tmp = partition_file(".new");
    if (!path || !tmp) {
        free(path);
        free(tmp);
        return -1;
    }
    int rc = -1;
    FILE *f = fopen(tmp, "we");
    if (f) {
        int bad = fprintf(f, "%d\n", count) < 0;
        for (int i = 0; i < count && !bad; i++) bad = fprintf(f, "%s\n", names[i]) < 0;
        // The table names the partitions of every folder path: it reaches
        // the disk, and then its directory entry, before the call returns.
        if (fflush(f) != 0 || sync_file(fileno(f), 3) != 0) bad = 1;
        if (fclose(f) != 0) bad = 1;
        int moved = bad ? -1 : sync_rename(tmp, path, 3);
        if (moved < 0) unlink(tmp);
        rc = moved == 0 ? 0 : -1;
    }
    free(path);
    free(tmp);
    return rc;
}

int compare_names(const void *a, const void *b)
{
    return strcasecmp(*(const char *const *)a, *(const char *const *)b);
}

int store_partitionId(const char *const *names, int count, const char *name)
{
    if (!names || count <= 0 || !name) return -1;
    const char *const *hit =
        (const char *const *)bsearch(&name, names, (size_t)count, sizeof *names, compare_names);
    return hit ? (int)(hit - names) : -1;
}

void store_freepartition(char **names, int count)
{
    if (!names) return;
    for (int i = 0; i < count; i++) free(names[i]);
    free(names);
}

// ---- the partition report ----------------------------------------------

// Adds one folder of the listing (an internal name, an inbox shown with
// "/INBOX" behind it) to the report at rock.
static int add_to_partition_report(const char *name, int matchlen, int, const char *, void *rock)
{
    if ((size_t)matchlen < strlen(name)) return 0;  // an implicit parent, no folder
    char internal[MAX_MAILBOX_NAME];
    int r = mboxname_tointernal(name, -1, nullptr, internal);
    if (r) {
        svclog(nullptr, 3, "function=storeutil_getmboxinfo|mboxname_tointernal(%s) return \"%s\"",
               name, mboxlist_strerror(r));
        return 0;
    }
    struct mboxdata mbd;
    char *partition = nullptr;
    r = mboxlist_lookup(internal, &mbd, &partition, nullptr, nullptr, nullptr);
    if (r) {
        svclog(nullptr, 3, "function=storeutil_getmboxinfo|mboxlist_lookup(%s) return \"%s\"",
               internal, mboxlist_strerror(r));
        return 0;
    }

    struct store_partinfo **report = (struct store_partinfo **)rock;
    size_t n = 0;
    while ((*report)[n].name[0] && strcmp((*report)[n].name, partition) != 0) n++;
    struct store_partinfo *part = &(*report)[n];
    if (!part->name[0]) {
        // A partition seen for the first time: a new record, and the end
        // behind it.
        *report = (struct store_partinfo *)xrealloc(*report, (n + 2) * sizeof **report);
        part = &(*report)[n];
        memset(part, 0, 2 * sizeof *part);
        strlcpy(part->name, partition, sizeof part->name);
        char *dir = configmsg_partitiondir(partition);
        strlcpy(part->directory, dir ? dir : STORE_PARTITION_NOPATH, sizeof part->directory);
        if (dir) store_getpathinfo(dir, &part->total, &part->free);
        free(dir);
    }
    free(partition);

    part->folders++;
    part->bytes += mbd.quota_used[0];
    if (store_isInbox(internal)) {
        part->users++;
        struct quotadata quota;
        if (part->quota != QUOTA_UNLIMITED && mboxlist_getquotaroot(internal, &quota, nullptr) == 0)
            part->quota = quota.limit == QUOTA_UNLIMITED ? QUOTA_UNLIMITED : part->quota + quota.limit;
    }
    return 0;
}

int store_getpartitions(struct store_partinfo **report)
{
    *report = (struct store_partinfo *)xcalloc(1, sizeof **report);
    int r = mboxlist_findall("*", 0, -1, nullptr, auth_dontCheckAcl, add_to_partition_report,
                             report);
    if (r) {
        free(*report);
        *report = nullptr;
    }
    return r;
}

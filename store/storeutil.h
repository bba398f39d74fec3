// Helpers shared by the store modules: canonical user ids and folder names,
// the table of partition ids ("store.parts"), file system sizes and time
// formatting.
#ifndef STORE_STOREUTIL_H
#define STORE_STOREUTIL_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

// The canonical form of a user id, in place; gives id. An id "user@domain"
// whose domain equals the key service.defaultdomain, in any case, loses
// "@domain": a user of the default domain has a bare name. Any other domain
// is lower-cased; the part in front of the last "@" keeps its case.
char *store_canonifyid(char *id);

// The canonical form of a folder name, in place; gives name. A "user/" name
// gets its id canonified (store_canonifyid), and the rest of the name closes
// up behind an id that became shorter. Other names stay.
char *store_canonifymboxname(char *name);

// 1 for an inbox: "user/" + an id with nothing behind it, or with exactly
// "/INBOX" behind it. Else 0.
int store_isInbox(const char *name);

// strftime of t in local time into buf (size bytes); gives buf. A result
// that doesn't fit leaves buf empty. With a null buf nothing happens.
char *store_time2str(time_t t, const char *format, char *buf, size_t size);

// Size and free space, in kilobytes, of the file system that holds path;
// a path that doesn't exist is cut back at its last "/" (or "\") until
// something exists. 0, or -1 (logged) if the file system can't be asked;
// both results are 0 then. Sizes beyond 32 bits are given as 0xFFFFFFFF.
int store_getpathinfo(const char *path, uint32_t *total, uint32_t *free_kb);

// The partition id table "store.parts" in the configuration directory:
// the number of partitions on the first line, then one name a line, sorted
// without regard to case. A partition's id is the position of its name.
//
// store_readpartitionId gives the number of names and hands the names to
// *names (free with store_freepartition); -1 if the file can't be read; 0
// and no names (*names null) if the file holds fewer names than it
// announces, or none.
int store_readpartitionId(char ***names);
// Sorts names in place (compare_names) and writes the table; 0, or -1 if
// the file can't be written. The file is replaced whole.
int store_writepartitionId(const char **names, int count);
// The id of name in a table sorted by compare_names, found without regard
// to case; -1 if it isn't there.
int store_partitionId(const char *const *names, int count, const char *name);
// Frees the names of a table and the table.
void store_freepartition(char **names, int count);
// The order of the table, for qsort and bsearch over arrays of strings:
// a and b point to the (const char *) elements; strcasecmp of the strings.
int compare_names(const void *a, const void *b);

// One record of the partition report; an array of them ends with a record
// whose name is empty.
#define STORE_PARTITION_NOPATH "<partition has no path defined>"
struct store_partinfo {
    char name[71];         // partition name
    char directory[1025];  // partition directory, or STORE_PARTITION_NOPATH
    uint32_t total;        // size of the file system in kilobytes
    uint32_t free;         // free kilobytes of the file system
    uint32_t users;        // number of inboxes
    uint32_t folders;      // number of folders
    uint32_t bytes;        // bytes of all folders
    uint32_t quota;        // sum of the users' quota limits; 0xFFFFFFFF if any has none
};

// The partition report of the whole store, from a listing of every folder:
// one record for each partition that holds a folder, in the order of first
// appearance, then a record with an empty name. *report gets a new array
// (the caller frees it; null when the listing fails). The sizes of a
// partition's file system are 0 when its directory can't be asked. A
// folder that vanishes during the listing is left out (logged at level 3).
// The bytes are a 32-bit sum of the low words of the folders' usage; a
// user without a quota row adds nothing to the quota sum. 0 or
// the failure of mboxlist_findall.
int store_getpartitions(struct store_partinfo **report);

#endif

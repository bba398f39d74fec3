// Opening folders: the handle filled from the folder database and
// "store.idx", the index lock with its nesting and its change of file under
// a waiting process, closing, and the ACL of an open folder.
//
// The index lock is a POSIX record lock over the whole of "store.idx". Such
// a lock belongs to the process and the file, and closing any descriptor of
// the file drops it (support/lock.h): nothing here opens and closes
// "store.idx" through a second descriptor while the lock is held.
#include "store/mailbox.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <prerror.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/mailbox_create.h"
#include "store/mboxlist.h"
#include "store/mboxlist_acl.h"
#include "store/mboxname.h"
#include "store/storeassert.h"
#include "support/auth.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/xmalloc.h"


// ---------------------------------------------------------------------------
// Small helpers

static const char *mbname(const struct mailbox *mailbox) {
    if (mailbox->name) return mailbox->name;
    return mailbox->path ? mailbox->path : "";
}

// "<folder directory>/<file>" into buf (PATH_MAX bytes); -1 with
// ENAMETOOLONG if it doesn't fit.
static int folder_file(const struct mailbox *mailbox, const char *file, char *buf) {
    int n = snprintf(buf, PATH_MAX, "%s/%s", mailbox->path ? mailbox->path : ".", file);
    if (n < 0 || n >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

// Text of a code of the error table, or of an errno value.
static const char *errtext(int r) {
    if (r > 0) return strerror(r);
    imap_InitializePRErrorTable();
    return PR_ErrorToString(r, PR_LANGUAGE_I_DEFAULT);
}

static void drop_file(struct mailbox *mailbox) {
    if (mailbox->index_fd != -1) close(mailbox->index_fd);
    mailbox->index_fd = -1;
    map_free(mailbox->index_map);
    mailbox->index_map = nullptr;
}

// Puts name, partition, directories, ACL and rights into a zero handle.
// Every string is copied; mpath shares the path string when the folder has
// no message directory of its own.
static void fill_handle(struct mailbox *mailbox, const char *name, unsigned mode,
                        const char *partition, const char *path, const char *mpath,
                        const char *acl, const struct auth_state *auth) {
    mailbox->open_mode = mode;
    mailbox->name = xstrdup(name);
    mailbox->partition = partition ? xstrdup(partition) : nullptr;
    mailbox->path = xstrdup(path);
    mailbox->mpath = (mpath && *mpath) ? xstrdup(mpath) : mailbox->path;
    mailbox->acl = xstrdup(acl ? acl : "");
    mailbox->myrights = (unsigned long)acl_myrights(auth, mailbox->acl);
}

// The old layout is converted as soon as it is opened, except by repairs.
static int needs_conversion(const struct mailbox *mailbox, uint32_t version) {
    return mailbox->index_fd != -1 && !(mailbox->open_mode & OPEN_REPAIR) &&
           (version == MAILBOX_VERSION_OLD || mailbox->mbd.version == MAILBOX_VERSION_OLD);
}

// ---------------------------------------------------------------------------
// Closing and reopening

void mailbox_close(struct mailbox *mailbox) {
    if (mailbox->index_fd != -1) {
        map_free(mailbox->index_map);
        mailbox->index_map = nullptr;
        if (mailbox->index_lock_count > 0) lock_unlock(mailbox->index_fd);
        close(mailbox->index_fd);
    } else {
        map_free(mailbox->index_map);
    }
    free(mailbox->name);
    free(mailbox->partition);
    if (mailbox->mpath != mailbox->path) free(mailbox->mpath);
    free(mailbox->path);
    free(mailbox->acl);
    for (char *&f : mailbox->flagname) free(f);
    *mailbox = zeromailbox;
}

int mailbox_reopen_index(struct mailbox *mailbox) {
    STORE_ASSERT(mailbox->index_lock_count == 0);
    unsigned mode = mailbox->open_mode;
    int reopen = 0;
    if (mailbox->index_fd != -1) {
        drop_file(mailbox);
        reopen = 1;
    }

    char path[PATH_MAX];
    int fd = -1;
    if (folder_file(mailbox, "store.idx", path) == 0) {
        int flags = O_RDWR | O_CLOEXEC | ((mode & OPEN_TRUNCATE) ? O_TRUNC : 0);
        do {
            fd = open(path, flags);
        } while (fd < 0 && errno == EINTR);
    }
    if (fd < 0) {
        if (mode & OPEN_REPAIR) return 0;
        svclog(nullptr, 59, "open failed for index file %s : %m", path);
        return IMAP_IOERROR;
    }
    mailbox->index_fd = fd;

    int r = mailbox_read_index_fixed_header(mailbox);
    if (r == 0) return 0;
    if ((mode & OPEN_REPAIR) && r == IMAP_MAILBOX_BADFORMAT) {
        drop_file(mailbox);
        return 0;
    }
    if (!reopen) drop_file(mailbox);
    if (!(mode & OPEN_SILENT))
        svclog(nullptr, 58, "Unable to read index file for %s: %s", mbname(mailbox), errtext(r));
    return r;
}

// ---------------------------------------------------------------------------
// The index lock

// Takes the record lock on the file that the path of "store.idx" names,
// waiting for it. A file replaced while we waited is opened again in place
// of the old one (same descriptor number), so the lock ends on the current
// file. 0 or IMAP_IOERROR; the count is left to the caller.
static int lock_current_file(struct mailbox *mailbox, const char *path) {
    const char *failaction = nullptr;
    struct stat sbuf;
    if (lock_reopen(mailbox->index_fd, path, &sbuf, &failaction) >= 0) return 0;
    if (failaction && strcmp(failaction, "stating") == 0)
        svclog(nullptr, 58, "Unable to stat index for %s: %m", mbname(mailbox));
    else if (failaction && strcmp(failaction, "opening") == 0)
        svclog(nullptr, 59, "open failed for index file %s : %m", path);
    else
        svclog(nullptr, 58, "Unable to lock index for %s: %m", mbname(mailbox));
    return IMAP_IOERROR;
}

// The same under OPEN_NOWAIT: the lock is tried, and a replaced file is
// opened again through mailbox_reopen_index before the next try. 0,
// IMAP_MAILBOX_LOCKED, or an error with the count at 0.
static int trylock_current_file(struct mailbox *mailbox, const char *path) {
    for (;;) {
        if (lock_nonblocking(mailbox->index_fd) < 0) return IMAP_MAILBOX_LOCKED;
        struct stat pst, fst;
        if (stat(path, &pst) < 0 || fstat(mailbox->index_fd, &fst) < 0) {
            svclog(nullptr, 58, "Unable to stat index for %s: %m", mbname(mailbox));
            lock_unlock(mailbox->index_fd);
            return IMAP_IOERROR;
        }
        if (pst.st_ino == fst.st_ino && pst.st_dev == fst.st_dev) return 0;

        // Another process put a new file in place: read that one.
        lock_unlock(mailbox->index_fd);
        mailbox->index_lock_count = 0;
        int r = mailbox_reopen_index(mailbox);
        mailbox->index_lock_count = 1;
        if (r) return r;
        if (mailbox->index_fd == -1) {
            errno = EBADF;
            svclog(nullptr, 58, "Unable to lock index for %s: %m", mbname(mailbox));
            return IMAP_IOERROR;
        }
    }
}

int mailbox_lock_index(struct mailbox *mailbox) {
    if (++mailbox->index_lock_count != 1) return 0;
    STORE_ASSERT(mailbox->peruser_lock_count == 0);

    char path[PATH_MAX];
    if (mailbox->index_fd == -1 || folder_file(mailbox, "store.idx", path) < 0) {
        if (mailbox->index_fd == -1) errno = EBADF;
        svclog(nullptr, 58, "Unable to lock index for %s: %m", mbname(mailbox));
        mailbox->index_lock_count--;
        return IMAP_IOERROR;
    }

    int r = (mailbox->open_mode & OPEN_NOWAIT) ? trylock_current_file(mailbox, path)
                                                : lock_current_file(mailbox, path);
    if (r) {
        mailbox->index_lock_count = 0;
        return r;
    }

    // The header, flag names and ACL of the file now held, which may be
    // another file than the one read at the open.
    r = mailbox_read_index_fixed_header(mailbox);
    if (r == 0 || (mailbox->open_mode & OPEN_REPAIR)) return 0;
    mailbox->index_lock_count = 0;
    lock_unlock(mailbox->index_fd);
    return r;
}

void mailbox_unlock_index(struct mailbox *mailbox) {
    STORE_ASSERT(mailbox->index_lock_count > 0);
    if (--mailbox->index_lock_count == 0) lock_unlock(mailbox->index_fd);
}

// ---------------------------------------------------------------------------
// ACLs

char *cleanacl(const char *acl, const char *name) {
    char owner[MBOXNAME_OWNER_SIZE];
    int has_owner = mboxname_owner(name, owner) != nullptr;
    acl_canonproc_t *check = has_owner ? mboxlist_ensureOwnerRights : nullptr;
    void *rock = const_cast<char *>(name);

    char *newacl = xstrdup("");
    if (has_owner) acl_modify(&newacl, owner, ACL_MODE_SET, ACL_ALL, check, rock);

    const char *p = acl ? acl : "";
    while (*p) {
        const char *tab = strchr(p, '\t');
        if (!tab) break;
        const char *end = strchr(tab + 1, '\t');
        if (!end) break;
        char *identifier = xstrndup(p, (size_t)(tab - p));
        char *rights = xstrndup(tab + 1, (size_t)(end - tab - 1));
        // An identifier that the ACL can't hold is dropped: that is the
        // cleaning.
        acl_modify(&newacl, identifier, ACL_MODE_SET, acl_strtomask(rights), check, rock);
        free(identifier);
        free(rights);
        p = end + 1;
    }
    return newacl;
}

int mailbox_read_acl(struct mailbox *mailbox, const struct auth_state *auth) {
    char *acl = nullptr;
    int r = mboxlist_lookup(mailbox->name, nullptr, nullptr, nullptr, nullptr, &acl);
    if (r) return r;
    free(mailbox->acl);
    mailbox->acl = acl;
    mailbox->myrights = (unsigned long)acl_myrights(auth, acl);
    return 0;
}

// Whether "store.idx" is known not to exist (any other failure of stat
// counts as existing: such a file must not be replaced).
static int index_missing(const struct mailbox *mailbox) {
    char path[PATH_MAX];
    struct stat st;
    if (folder_file(mailbox, "store.idx", path) < 0) return 0;
    return stat(path, &st) < 0 && errno == ENOENT;
}

// ---------------------------------------------------------------------------
// Opening

// Creates the files of the folder that the handle names (name, partition,
// directories and ACL filled in, no file open) at the current version,
// and writes its row, which then shows that version. The handle ends open
// on the new file, for the caller's mode and rights. IMAP_MAILBOX_EXISTS
// if another process made the folder first: the handle is then as it came
// in. Any other failure closes the handle.
static int create_folder(struct mailbox *mailbox, unsigned mode, const struct auth_state *auth) {
    struct mailbox named = *mailbox;
    *mailbox = zeromailbox;
    int r = mailbox_create(named.name, named.partition, named.path,
                           named.mpath != named.path ? named.mpath : nullptr, named.acl,
                           MAILBOX_VERSION, mailbox, 0);
    if (r == IMAP_MAILBOX_EXISTS) {
        mailbox_close(mailbox);
        *mailbox = named;
        return r;
    }
    mailbox_close(&named);
    if (r) {
        mailbox_close(mailbox);
        return r;
    }
    mailbox->open_mode = mode;
    mailbox->myrights = (unsigned long)acl_myrights(auth, mailbox->acl);
    // The row makes the new files count: they reach the disk first.
    if (sync_file_barrier() != 0) {
        svclog(nullptr, 59, "Unable to update mailbox list entry of %s: %m", mailbox->name);
        r = IMAP_IOERROR;
    } else {
        r = mboxlist_updatedata(mailbox, 0);
    }
    if (r) mailbox_close(mailbox);
    return r;
}

int mailbox_open_path(const char *name, unsigned mode, const char *partition, const char *path,
                      const char *mpath, const char *acl, const struct auth_state *auth,
                      struct mailbox *mailbox) {
    *mailbox = zeromailbox;
    fill_handle(mailbox, name, mode, partition, path, mpath, acl, auth);
    int r = mailbox_reopen_index(mailbox);
    if (r == 0 && needs_conversion(mailbox, 0)) r = mailbox_convertfromv1(mailbox);
    if (r) mailbox_close(mailbox);
    return r;
}

// A folder that the database lost and the disk still has, below an owner
// whose inbox is in the database: opened from its files, its ACL taken
// from the index and cleaned, and its row written again.
static int open_from_disk(const char *name, unsigned mode, const struct auth_state *auth,
                          struct mailbox *mailbox) {
    char owner[MBOXNAME_OWNER_SIZE];
    char inbox[MAX_MAILBOX_NAME];
    if (!mboxname_owner(name, owner)) return IMAP_MAILBOX_NONEXISTENT;
    if (snprintf(inbox, sizeof inbox, "user/%s", owner) >= (int)sizeof inbox)
        return IMAP_MAILBOX_NONEXISTENT;
    // Only a missing inbox row means there is nothing to take over; a read
    // that failed says nothing about the folder and is handed on as it is.
    char *partition = nullptr;
    int found = mboxlist_lookup(inbox, nullptr, &partition, nullptr, nullptr, nullptr);
    if (found != 0) return found;

    char path[MAX_MAILBOX_PATH + 16], mpath[MAX_MAILBOX_PATH + 16];
    int r = mboxlist_getpath(name, partition, path, mpath);
    if (r == 0)
        r = mailbox_open_path(name, OPEN_SILENT, partition, path, mpath[0] ? mpath : nullptr, "",
                              auth, mailbox);
    free(partition);
    if (r) return IMAP_MAILBOX_NONEXISTENT;

    if (mailbox->index_fd == -1 || mailbox_read_index_header_acl(mailbox) != 0) {
        mailbox_close(mailbox);
        return IMAP_MAILBOX_NONEXISTENT;
    }
    char *acl = cleanacl(mailbox->acl, name);
    free(mailbox->acl);
    mailbox->acl = acl;
    mailbox->myrights = (unsigned long)acl_myrights(auth, acl);
    // The handle serves the caller's purpose from here on.
    mailbox->open_mode = mode;
    // A row that can't be written is logged there; the folder is open and
    // the next open tries again.
    mboxlist_updatedata(mailbox, 0);
    return 0;
}

int mailbox_open(const char *name, unsigned mode, const struct auth_state *auth,
                 struct mailbox *mailbox) {
    mailbox_loadconfig();  // the sync levels, at the first open of the process
    *mailbox = zeromailbox;

    struct mboxdata dbmbd;
    char *partition = nullptr, *path = nullptr, *mpath = nullptr, *acl = nullptr;
    int r = mboxlist_lookup(name, &dbmbd, &partition, &path, &mpath, &acl);
    if (r == IMAP_MAILBOX_NONEXISTENT) return open_from_disk(name, mode, auth, mailbox);
    if (r) return r;

    fill_handle(mailbox, name, mode, partition, path, mpath, acl, auth);
    free(partition);
    free(path);
    free(mpath);
    free(acl);

    if ((mode & OPEN_LAZY) && dbmbd.exists == 0) {
        mailbox->mbd = dbmbd;
        return 0;
    }

    // A folder with a row and no index is made anew, empty: the first open
    // of a folder that so far has only its row, or a folder that lost its
    // files. A repair looks at what is there and creates nothing.
    if (!(mode & OPEN_REPAIR) && index_missing(mailbox)) {
        r = create_folder(mailbox, mode, auth);
        // IMAP_MAILBOX_EXISTS: another process made it first, and it is
        // opened below like any other.
        if (r != IMAP_MAILBOX_EXISTS) return r;
    }

    r = mailbox_reopen_index(mailbox);
    if (r == 0 && needs_conversion(mailbox, dbmbd.version)) r = mailbox_convertfromv1(mailbox);
    if (r) mailbox_close(mailbox);
    return r;
}

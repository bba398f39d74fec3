// The files of a folder as a whole: create, delete, the rename protocol and
// message file copies; see mailbox_create.h.
#include "store/mailbox_create.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/imap_err.h"
#include "store/seen_db.h"
#include "store/storeassert.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "support/retry.h"
#include "support/xmalloc.h"

#define INDEX_FILE "store.idx"
#define EXPUNGE_FILE "store.exp"

static const char create_zeros[MAILBOX_CREATE_SLOTS * INDEX_RECORD_SIZE] = {0};

static int join_path(char *buf, size_t size, const char *dir, const char *file)
{
    int n = snprintf(buf, size, "%s/%s", dir, file);
    if (n < 0 || (size_t)n >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

// Reads the summary and header at the start of fd into mbd and hdr.
// 1 if the file is a live folder: longer than the fixed header, both parts
// read whole, and messages counted.
static int read_live_header(int fd, struct mboxdata *mbd, struct index_header *hdr)
{
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size <= INDEX_HEADER_SIZE) return 0;
    if (retry_pread(fd, mbd, sizeof *mbd, 0) != (ssize_t)sizeof *mbd) return 0;
    if (mbd->exists == 0) return 0;
    return retry_pread(fd, hdr, sizeof *hdr, sizeof *mbd) == (ssize_t)sizeof *hdr;
}

// Gives the handle copies of the folder's strings and all rights.
static void fill_handle(struct mailbox *mb, const char *name, const char *partition,
                        const char *path, const char *mpath, const char *acl)
{
    mb->name = xstrdup(name ? name : "");
    mb->partition = xstrdup(partition ? partition : "");
    mb->path = xstrdup(path);
    mb->mpath = (mpath && *mpath) ? xstrdup(mpath) : mb->path;
    mb->myrights = 0x1FF;
    mb->acl = xstrdup(acl ? acl : "");
}

static void note_file(struct mailbox *mb)
{
    struct stat st;
    if (fstat(mb->index_fd, &st) == 0) {
        mb->index_ino = st.st_ino;
        mb->index_dev = st.st_dev;
        mb->index_mtime = st.st_mtime;
    }
}

// Drops the lock and the descriptor of an index that is not ours to write.
static int give_up(int fd, int result)
{
    lock_unlock(fd);
    close(fd);
    return result;
}

// Maps the whole file of a handle that the caller keeps open.
static int map_whole(struct mailbox *mb)
{
    mb->index_map = map_refresh(mb->index_fd, mb->index_map, 0, -1);
    if (!mb->index_map) {
        svclog(nullptr, 59, "Unable to map index file for %s: %m", mb->name);
        return IMAP_IOERROR;
    }
    mb->index_size = mb->index_map->size > 0xFFFFFFFFu ? 0xFFFFFFFFu
                                                        : (unsigned)mb->index_map->size;
    return 0;
}

// ---------------------------------------------------------------------------
// Create

int mailbox_create(const char *name, const char *partition, const char *path, const char *mpath,
                   const char *acl, unsigned version, struct mailbox *mailbox,
                   time_t uidvalidity)
{
    if (!path || strlen(path) + 16 > 1024) return IMAP_MAILBOX_BADNAME;
    int r = mailbox_makedirs(path);
    if (r) return r;
    if (mpath && *mpath) {
        r = mailbox_makedirs(mpath);
        if (r) return r;
    }

    struct mailbox local;
    struct mailbox *mb = mailbox ? mailbox : &local;
    *mb = zeromailbox;
    memset(&mb->mbd, 0, sizeof mb->mbd);
    mb->mbd.version = version;
    memset(&mb->hdr, 0, sizeof mb->hdr);

    char fname[PATH_MAX];
    if (join_path(fname, sizeof fname, path, INDEX_FILE) < 0) return IMAP_MAILBOX_BADNAME;

    // A live folder stays as it is; the caller takes it over.
    struct stat seen;
    int seen_file = 0;
    int fd = open(fname, O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        struct mboxdata mbd;
        struct index_header hdr;
        if (read_live_header(fd, &mbd, &hdr)) {
            if (lock_blocking(fd) < 0) {
                svclog(nullptr, 59, "Unable to lock index for %s: %m", name);
                close(fd);
                return IMAP_IOERROR;
            }
            // Read again under the lock: a writer may have been busy.
            if (!read_live_header(fd, &mbd, &hdr)) return give_up(fd, IMAP_MAILBOX_EXISTS);
            mb->index_fd = fd;
            fill_handle(mb, name, partition, path, mpath, acl);
            mb->index_lock_count = 1;
            mb->mbd = mbd;
            mb->hdr = hdr;
            note_file(mb);
            mailbox_unlock_index(mb);
            if (mb == &local)
                mailbox_close(mb);
            else if (map_whole(mb) != 0)
                mailbox_close(mb);
            return IMAP_MAILBOX_EXISTS;
        }
        seen_file = fstat(fd, &seen) == 0;
        close(fd);
    }

    // The file is opened without truncation and emptied only under its lock,
    // so that a second creator never cuts the file that the first one is
    // writing. A file that changed between the look above and the lock
    // belongs to a creator that got here first.
    fd = open(fname, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        svclog(nullptr, 59, "Unable to create index for %s: %m", name);
        mailbox_close(mb);
        return IMAP_IOERROR;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_nlink > 1) {
        // Shared with a renamed folder: this folder gets a file of its own.
        char expname[PATH_MAX];
        unlink(fname);
        if (join_path(expname, sizeof expname, path, EXPUNGE_FILE) == 0) unlink(expname);
        close(fd);
        seen_file = 0;
        fd = open(fname, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) {
            svclog(nullptr, 59, "Unable to create index for %s: %m", name);
            mailbox_close(mb);
            return IMAP_IOERROR;
        }
    }
    if (lock_blocking(fd) < 0) {
        svclog(nullptr, 59, "Unable to lock index for %s: %m", name);
        close(fd);
        return IMAP_IOERROR;
    }
    struct stat now;
    int first = fstat(fd, &now) == 0;
    if (first && now.st_size != 0) {
        // Ours to replace only if it is the very file judged above, unchanged.
        first = seen_file && seen.st_ino == now.st_ino && seen.st_dev == now.st_dev &&
                seen.st_size == now.st_size && seen.st_mtim.tv_sec == now.st_mtim.tv_sec &&
                seen.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
        struct mboxdata mbd;
        struct index_header hdr;
        if (first && read_live_header(fd, &mbd, &hdr)) first = 0;
    }
    if (first) {
        // The path must still lead to this file: a creator that replaced
        // the file (a long ACL moves it through "index.new") got here first.
        struct stat bypath;
        first = stat(fname, &bypath) == 0 && bypath.st_ino == now.st_ino &&
                bypath.st_dev == now.st_dev;
    }
    if (!first) return give_up(fd, IMAP_MAILBOX_EXISTS);
    if (now.st_size != 0 && ftruncate(fd, 0) != 0) {
        svclog(nullptr, 59, "Unable to create index for %s: %m", name);
        return give_up(fd, IMAP_IOERROR);
    }

    mb->index_fd = fd;
    fill_handle(mb, name, partition, path, mpath, acl);
    mb->index_lock_count = 1;
    mb->hdr.start_offset = MAILBOX_CREATE_START;
    mb->hdr.cache_offset = MAILBOX_CREATE_START + sizeof create_zeros;
    mb->mbd.uidvalidity = (uint32_t)(uidvalidity ? uidvalidity : time(nullptr));

    r = mailbox_write_index_fixed_header(mb);
    // May move the records further back for a long ACL.
    if (!r) r = mailbox_write_index_variable_header(mb);
    if (!r) {
        if (lseek(mb->index_fd, (off_t)mb->hdr.start_offset, SEEK_SET) < 0 ||
            retry_write(mb->index_fd, create_zeros, sizeof create_zeros) !=
                (ssize_t)sizeof create_zeros) {
            svclog(nullptr, 59, "Unable to write index for %s: %m", name);
            r = -1;
        }
    }
    if (!r && sync_file(mb->index_fd, mailbox_index_sync_level()) != 0) {
        svclog(nullptr, 59, "Unable to write index for %s: %m", name);
        r = IMAP_IOERROR;
    }
    if (!r) r = seen_create(mb);
    mailbox_unlock_index(mb);

    if (r) {
        mailbox_delete(mb, 0);
        return r;
    }
    note_file(mb);
    if (mb == &local) {
        mailbox_close(mb);
    } else {
        r = map_whole(mb);
        if (r) mailbox_close(mb);
    }
    return r;
}

// ---------------------------------------------------------------------------
// Delete

// Unlinks every entry of dir that isn't a directory.
static void unlink_all(const char *dir)
{
    DIR *d = opendir(dir);
    if (!d) return;
    struct dirent *e;
    char buf[PATH_MAX];
    while ((e = readdir(d)) != nullptr) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        if (join_path(buf, sizeof buf, dir, e->d_name) == 0) unlink(buf);
    }
    closedir(d);
}

static int is_two_digits(const char *s)
{
    return s[0] >= '0' && s[0] <= '9' && s[1] >= '0' && s[1] <= '9' && s[2] == '\0';
}

// The message directories "00".."99" of a folder, with their files.
static void remove_message_dirs(const char *mdir)
{
    DIR *d = opendir(mdir);
    if (!d) return;  // no directory: as if empty
    struct dirent *e;
    char buf[PATH_MAX];
    while ((e = readdir(d)) != nullptr) {
        if (!is_two_digits(e->d_name)) continue;
        if (join_path(buf, sizeof buf, mdir, e->d_name) != 0) continue;
        unlink_all(buf);
        rmdir(buf);
    }
    closedir(d);
}

static void strip_slashes(char *p)
{
    size_t n = strlen(p);
    while (n > 1 && p[n - 1] == '/') p[--n] = '\0';
}

// Removes dir and then its parents while they are empty, up to but not
// including stop (the partition's directory, if known).
static void remove_dir_climb(const char *dir, const char *stop)
{
    char buf[PATH_MAX];
    if (strlen(dir) >= sizeof buf) return;
    strcpy(buf, dir);
    strip_slashes(buf);
    char stopbuf[PATH_MAX];
    stopbuf[0] = '\0';
    if (stop && strlen(stop) < sizeof stopbuf) {
        strcpy(stopbuf, stop);
        strip_slashes(stopbuf);
    }
    for (;;) {
        if (stopbuf[0] && strcmp(buf, stopbuf) == 0) return;
        if (rmdir(buf) != 0) return;
        char *slash = strrchr(buf, '/');
        if (!slash || slash == buf) return;
        *slash = '\0';
    }
}

int mailbox_delete(struct mailbox *mailbox, int keep_peruser)
{
    char *proot = mailbox->partition && *mailbox->partition
                      ? configmsg_partitiondir(mailbox->partition)
                      : nullptr;
    char *mroot = mailbox->partition && *mailbox->partition
                      ? configmsg_partitionmsgdir(mailbox->partition)
                      : nullptr;
    char *path = mailbox->path ? xstrdup(mailbox->path) : nullptr;
    int separate = mailbox->mpath && mailbox->mpath != mailbox->path;
    const char *mdir = mailbox->mpath ? mailbox->mpath : mailbox->path;

    if (mdir) remove_message_dirs(mdir);
    if (separate) remove_dir_climb(mailbox->mpath, mroot);
    if (!keep_peruser) seen_delete(mailbox, 1);
    if (path) unlink_all(path);
    mailbox->generation++;
    mailbox_close(mailbox);
    if (path) remove_dir_climb(path, proot);

    free(path);
    free(proot);
    free(mroot);
    return 0;
}

// ---------------------------------------------------------------------------
// Copies of files

// Gives target the content of source through copy_file: a hard link, a
// target that exists replaced by the link, with make_dir a missing
// directory of the target made, and where no link can be had (another file
// system) a copy of the bytes.
static int copy_into_place(const char *source, const char *target, int make_dir)
{
    if (copy_file(source, target, 1) == 0) return 0;
    if (errno == EEXIST) {
        if (unlink(target) != 0) {
            svclog(nullptr, 59, "Unable to remove %s: %m", target);
            return IMAP_IOERROR;
        }
        if (copy_file(source, target, 1) == 0) return 0;
    }
    if (make_dir && errno == ENOENT) {
        char dir[PATH_MAX];
        const char *slash = strrchr(target, '/');
        size_t len = slash ? (size_t)(slash - target) : 0;
        if (len > 0 && len < sizeof dir) {
            memcpy(dir, target, len);
            dir[len] = '\0';
            mkdir(dir, 0777);
            if (copy_file(source, target, 1) == 0) return 0;
        }
    }
    if (unlink(target) != 0 && errno != ENOENT) {
        svclog(nullptr, 59, "Unable to remove %s: %m", target);
        return IMAP_IOERROR;
    }
    if (copy_file(source, target, 0) == 0) return 0;
    svclog(nullptr, 59, "Unable to copy to %s: %m", target);
    return IMAP_IOERROR;
}

int mailbox_copyfile(const char *source, const char *target)
{
    return copy_into_place(source, target, 0);
}

int mailbox_copymsgfile(const char *source, const char *target)
{
    return copy_into_place(source, target, 1);
}

int expungeall(void *, const struct index_record *) { return 1; }

// ---------------------------------------------------------------------------
// Rename

static const char *errtext(int r)
{
    const char *t = PR_ErrorToString(r, 0);
    return t && *t ? t : "unknown error";
}

// Frees a handle made by mailbox_rename_start after its files are gone.
static void free_handle(struct mailbox *mb)
{
    mailbox_close(mb);
    free(mb);
}

int mailbox_rename_start(struct mailbox *old, const char *newname, const char *partition,
                         const char *path, const char *mpath, int owner_changed,
                         struct mailbox **out)
{
    *out = nullptr;
    // The lock reads the ACL from the file again; the caller's new ACL must
    // survive that.
    char *newacl = owner_changed ? xstrdup(old->acl ? old->acl : "") : nullptr;
    int r = mailbox_lock_index(old);
    if (r) {
        free(newacl);
        return r;
    }
    char *fileacl = nullptr;
    if (owner_changed) {
        fileacl = old->acl;
        old->acl = newacl;
    }

    struct mailbox *nmb = (struct mailbox *)xmalloc(sizeof *nmb);
    *nmb = zeromailbox;
    r = mailbox_create(newname, partition, path, mpath, old->acl, old->mbd.version, nmb, 0);
    if (r == IMAP_MAILBOX_EXISTS && nmb->mbd.uidvalidity == old->mbd.uidvalidity &&
        nmb->mbd.last_uid == old->mbd.last_uid && nmb->mbd.exists == old->mbd.exists) {
        // Files without a row (the caller's create check found none) that
        // carry this very folder's uid validity and counters: the copy that
        // a rename of it left when it was stopped before its transaction.
        // It goes, and the copy is made anew. Files of any other folder are
        // taken for mail and refused below.
        svclog(nullptr, 5, "removing the copy of %s that an interrupted rename left at %s",
               old->name, newname);
        mailbox_delete(nmb, 1);
        *nmb = zeromailbox;
        r = mailbox_create(newname, partition, path, mpath, old->acl, old->mbd.version, nmb, 0);
    }
    if (r) {
        // A live folder under the new name was opened, not made: only close.
        free_handle(nmb);
        if (owner_changed) {
            free(old->acl);
            old->acl = fileacl;
        }
        return r;
    }

    for (int i = 0; i < MAX_USER_FLAGS; i++) {
        free(nmb->flagname[i]);
        nmb->flagname[i] = old->flagname[i] ? xstrdup(old->flagname[i]) : nullptr;
    }
    nmb->mbd = old->mbd;

    r = mailbox_write_index_fixed_header(old);
    if (!r && owner_changed) {
        // The file handed on below carries the new ACL; the handle goes
        // back to the text of the file.
        mailbox_write_index_variable_header(old);
        free(old->acl);
        old->acl = fileacl;
        fileacl = nullptr;
    }
    if (r) {
        if (owner_changed) {
            free(old->acl);
            old->acl = fileacl;
        }
        mailbox_delete(nmb, 1);
        free(nmb);
        return r;
    }

    // The new folder's index is the old file itself, linked or copied.
    map_free(nmb->index_map);
    nmb->index_map = nullptr;
    if (nmb->index_fd != -1) close(nmb->index_fd);
    nmb->index_fd = -1;

    char from[PATH_MAX], to[PATH_MAX];
    if (join_path(from, sizeof from, old->path, INDEX_FILE) < 0 ||
        join_path(to, sizeof to, nmb->path, INDEX_FILE) < 0) {
        mailbox_delete(nmb, 1);
        free(nmb);
        return IMAP_MAILBOX_BADNAME;
    }
    unlink(to);
    r = mailbox_copyfile(from, to);
    for (unsigned msgno = 1; !r && msgno <= old->mbd.exists; msgno++) {
        struct index_record rec;
        r = mailbox_read_index_record(old, msgno, &rec);
        if (r) break;
        char fname[MAILBOX_FNAME_SIZE];
        mailbox_message_fname(old, rec.uid, fname);
        if (join_path(from, sizeof from, old->mpath, fname) < 0 ||
            join_path(to, sizeof to, nmb->mpath, fname) < 0) {
            r = IMAP_IOERROR;
            break;
        }
        r = mailbox_copymsgfile(from, to);
    }
    if (r) {
        mailbox_delete(nmb, 1);
        free(nmb);
        return r;
    }
    *out = nmb;
    return 0;
}

int mailbox_rename_commit(struct mailbox *old, struct mailbox *newmb, int keep_old)
{
    int r;
    char *oldname = xstrdup(old->name ? old->name : "");
    if (keep_old) {
        // The old folder stays, empty. The expunge writes its "store.idx"
        // anew into a new file, so the file that the new folder shares
        // stays whole; the messages live on in the new folder, under the
        // same quota root, which is not charged for them.
        char *acl = xstrdup(old->acl ? old->acl : "");
        r = mailbox_expunge(old, EXPUNGE_FORCE | EXPUNGE_LOCKED | EXPUNGE_NOQUOTA, 0, expungeall,
                            nullptr);
        if (r) {
            svclog(nullptr, 59, "Unable to expunge mailbox %s after rename: %s", oldname,
                   errtext(r));
        } else {
            free(old->acl);
            old->acl = acl;
            acl = nullptr;
            r = mailbox_write_index_variable_header(old);
            if (r)
                svclog(nullptr, 59, "Unable to update header %s after rename: %s", oldname,
                       errtext(r));
        }
        free(acl);
        mailbox_close(old);
    } else {
        int keep = old->name && newmb->name && strlen(old->name) >= 5 &&
                   strlen(newmb->name) >= 5 && strcmp(old->name + 5, newmb->name + 5) == 0;
        r = mailbox_delete(old, keep);
    }
    if (r) svclog(nullptr, 59, "Unable to remove mailbox %s after rename: %s", oldname, errtext(r));
    free(oldname);
    *old = *newmb;
    free(newmb);
    return r;
}

int mailbox_rename_abort(struct mailbox *newmb)
{
    char *name = xstrdup(newmb->name ? newmb->name : "");
    int r = mailbox_delete(newmb, 1);
    if (r)
        svclog(nullptr, 59, "Unable to remove mailbox %s after aborting rename: %s", name,
               errtext(r));
    free(name);
    free(newmb);
    return r;
}

// The files of a folder as a whole: create (also against a second
// creator), delete, the rename steps and message file copies, on a store
// that this process recovers and opens as the daemon would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mailbox_create.h"
#include "store/mboxlist.h"
#include "store/mboxname.h"
#include "store/seen_db.h"
#include "support/auth.h"
#include "support/config.h"
#include "support/lock.h"
#include "support/log.h"
#include "support/map.h"
#include "tests/testutil.h"

namespace {

bool exists(const std::string &p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

ino_t inode(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

off_t fsize(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

struct Header {
    mboxdata mbd;
    index_header hdr;
};

Header read_header(const std::string &path) {
    Header h;
    memset(&h, 0, sizeof h);
    int fd = open((path + "/store.idx").c_str(), O_RDONLY);
    if (fd >= 0) {
        if (read(fd, &h, sizeof h) != (ssize_t)sizeof h) memset(&h, 0, sizeof h);
        close(fd);
    }
    return h;
}

bool has_peruser(const std::string &name) {
    DBT key, data;
    memset(&key, 0, sizeof key);
    memset(&data, 0, sizeof data);
    key.data = const_cast<char *>(name.data());
    key.size = (uint32_t)name.size();
    key.flags = DB_DBT_READONLY;
    data.flags = DB_DBT_MALLOC;
    int r = userflagdb->get(userflagdb, nullptr, &key, &data, 0);
    free(data.data);
    return r == 0;
}

class MailboxFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.addConfig("store.partition.spool.path: " + inst.path("partitions/spool") +
                       "\nstore.partition.spool.messagepath: " + inst.path("messages/spool"));
        ASSERT_EQ(configmsg_init(nullptr, 16, "createtest"), 0);
        ASSERT_EQ(configmsg_initlog(nullptr, "createtest"), 0);
        ASSERT_EQ(mboxlist_recover(), 0);
    }
    void TearDown() override { mboxlist_reset_for_tests(); }

    std::string dir(const char *name, const char *partition = "primary") {
        char buf[MAX_MAILBOX_PATH];
        std::string root = inst.path(std::string("partitions/") + partition);
        EXPECT_EQ(mboxname_getpath(name, root.c_str(), buf), 0);
        return buf;
    }
    std::string mdir(const char *name) {
        char buf[MAX_MAILBOX_PATH];
        EXPECT_EQ(mboxname_getpath(name, inst.path("messages/spool").c_str(), buf), 0);
        return buf;
    }

    // Delivers n messages the way the store lays them out: a message file,
    // a record, an empty cache entry, then the header that counts them.
    void deliver(struct mailbox *mb, unsigned n) {
        ASSERT_EQ(mailbox_lock_index(mb), 0);
        std::vector<index_record> recs(n);
        for (unsigned i = 0; i < n; i++) {
            index_record &rec = recs[i];
            memset(&rec, 0, sizeof rec);
            rec.uid = mb->mbd.last_uid + 1 + i;
            rec.internaldate = 1000000 + (int)rec.uid;
            std::string text = "Subject: " + std::to_string(rec.uid) + "\r\n\r\nbody\r\n";
            rec.size = (uint32_t)text.size();
            struct stat st;
            ASSERT_EQ(fstat(mb->index_fd, &st), 0);
            rec.rec_cache_offset = (uint32_t)(st.st_size - mb->hdr.cache_offset);
            char zeros[4 * MAILBOX_CACHE_ITEMS] = {0};
            ASSERT_EQ(pwrite(mb->index_fd, zeros, sizeof zeros, st.st_size), (ssize_t)sizeof zeros);
            char fname[MAILBOX_FNAME_SIZE];
            mailbox_message_fname(mb, rec.uid, fname);
            std::string file = std::string(mb->mpath) + "/" + fname;
            mkdir(file.substr(0, file.rfind('/')).c_str(), 0777);
            testutil::write_file(file, text);
        }
        ASSERT_EQ(mailbox_append_index(mb, recs.data(), mb->mbd.exists + 1, n), 0);
        mb->mbd.exists += n;
        mb->mbd.last_uid += n;
        ASSERT_EQ(mailbox_write_index_fixed_header(mb), 0);
        mailbox_unlock_index(mb);
    }

    testutil::Instance inst;
};

}  // namespace

TEST_F(MailboxFiles, CreateLaysOutANewIndex) {
    const char *name = "user/fred";
    std::string d = dir(name);
    struct mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "fred\tlrswipcda\t",
                             MAILBOX_VERSION, &mb, 12345),
              0);
    EXPECT_NE(mb.index_fd, -1);
    EXPECT_EQ(mb.index_lock_count, 0u);
    EXPECT_EQ(mb.mpath, mb.path);
    EXPECT_EQ(mb.mbd.version, (uint32_t)MAILBOX_VERSION);
    EXPECT_EQ(mb.mbd.uidvalidity, 12345u);
    EXPECT_EQ(mb.mbd.exists, 0u);
    EXPECT_EQ(mb.hdr.start_offset, 256u);
    EXPECT_EQ(mb.hdr.cache_offset, 256u + 7600u);
    EXPECT_EQ(mb.index_size, 7856u);
    ASSERT_NE(mb.index_map, nullptr);
    EXPECT_EQ(mb.index_map->size, 7856u);
    mailbox_close(&mb);

    EXPECT_EQ(fsize(d + "/store.idx"), 7856);
    Header h = read_header(d);
    EXPECT_EQ(h.mbd.uidvalidity, 12345u);
    EXPECT_EQ(h.hdr.start_offset, 256u);
    EXPECT_TRUE(has_peruser(name));

    // The file reads back as a folder, with its ACL.
    ASSERT_EQ(mailbox_open_path(name, 0, "primary", d.c_str(), nullptr, "", auth_dontCheckAcl, &mb),
              0);
    EXPECT_EQ(mb.mbd.uidvalidity, 12345u);
    mailbox_close(&mb);

    // Without a handle nothing stays open; uidvalidity 0 means now.
    time_t before = time(nullptr);
    std::string d2 = dir("user/fred/deep/er");
    ASSERT_EQ(mailbox_create("user/fred/deep/er", "primary", d2.c_str(), nullptr, "", MAILBOX_VERSION,
                             nullptr, 0),
              0);
    Header h2 = read_header(d2);
    EXPECT_GE((time_t)h2.mbd.uidvalidity, before);
    EXPECT_LE((time_t)h2.mbd.uidvalidity, time(nullptr));

    // A long ACL moves the records back, and the reserve follows them.
    std::string acl;
    for (int i = 0; i < 20; i++) acl += "someuser" + std::to_string(i) + "\tlrs\t";
    ASSERT_GT(acl.size(), 176u);
    std::string d3 = dir("user/fred/long");
    ASSERT_EQ(mailbox_create("user/fred/long", "primary", d3.c_str(), nullptr, acl.c_str(),
                             MAILBOX_VERSION, &mb, 7),
              0);
    EXPECT_GT(mb.hdr.start_offset, 256u);
    EXPECT_EQ(mb.hdr.cache_offset, mb.hdr.start_offset + 7600u);
    EXPECT_EQ(fsize(d3 + "/store.idx"), (off_t)mb.hdr.cache_offset);
    mailbox_close(&mb);
    ASSERT_EQ(mailbox_open_path("user/fred/long", 0, "primary", d3.c_str(), nullptr, "",
                                auth_dontCheckAcl, &mb),
              0);
    ASSERT_EQ(mailbox_read_index_header_acl(&mb), 0);
    EXPECT_EQ(std::string(mb.acl), acl);
    mailbox_close(&mb);

    // A separate message directory is made as well.
    std::string sd = dir("user/fred", "spool"), sm = mdir("user/fred");
    ASSERT_EQ(mailbox_create("user/fred", "spool", sd.c_str(), sm.c_str(), "", MAILBOX_VERSION, &mb,
                             1),
              0);
    EXPECT_STREQ(mb.mpath, sm.c_str());
    EXPECT_NE(mb.mpath, mb.path);
    mailbox_close(&mb);
    EXPECT_TRUE(exists(sm));
}

TEST_F(MailboxFiles, PathLengthLimit) {
    // length + 16 may reach 1024.
    std::string base = inst.path("partitions/primary");
    auto path_of = [&](size_t len) {
        std::string p = base;
        while (p.size() < len) {
            size_t room = len - p.size();
            if (room == 1) {
                p += "y";
                break;
            }
            p += "/" + std::string(room - 1 < 200 ? room - 1 : 200, 'x');
        }
        return p;
    };
    std::string ok = path_of(1008), bad = path_of(1009);
    ASSERT_EQ(ok.size(), 1008u);
    ASSERT_EQ(bad.size(), 1009u);
    EXPECT_EQ(mailbox_create("user/x", "primary", bad.c_str(), nullptr, "", MAILBOX_VERSION, nullptr,
                             1),
              IMAP_MAILBOX_BADNAME);
    EXPECT_FALSE(exists(bad));
    EXPECT_EQ(mailbox_create("user/x", "primary", ok.c_str(), nullptr, "", MAILBOX_VERSION, nullptr,
                             1),
              0);
    EXPECT_TRUE(exists(ok + "/store.idx"));
}

TEST_F(MailboxFiles, CreateOverExistingFiles) {
    const char *name = "user/fred/box";
    std::string d = dir(name);
    struct mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "fred\tlrswipcda\t", MAILBOX_VERSION,
                             &mb, 100),
              0);
    // A folder without messages is replaced, with a new uidvalidity.
    mailbox_close(&mb);
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "x\tl\t", MAILBOX_VERSION, &mb, 200),
              0);
    EXPECT_EQ(read_header(d).mbd.uidvalidity, 200u);
    deliver(&mb, 3);
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    mb.flagname[0] = strdup("$Label1");
    ASSERT_EQ(mailbox_write_index_variable_header(&mb), 0);
    mailbox_unlock_index(&mb);
    mailbox_close(&mb);
    std::string before = testutil::read_file(d + "/store.idx");

    // A live folder is not touched, and the handle shows its counters.
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "y\tlr\t", MAILBOX_VERSION, &mb, 300),
              IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(mb.mbd.exists, 3u);
    EXPECT_EQ(mb.mbd.last_uid, 3u);
    EXPECT_EQ(mb.mbd.uidvalidity, 200u);
    EXPECT_EQ(mb.myrights, (unsigned long)ACL_ALL);
    EXPECT_STREQ(mb.acl, "y\tlr\t");
    EXPECT_EQ(mb.flagname[0], nullptr);  // flag names are not read
    EXPECT_EQ(mb.index_lock_count, 0u);
    ASSERT_NE(mb.index_map, nullptr);
    EXPECT_EQ(mb.index_size, (unsigned)before.size());
    // The handle is usable: the lock reads the file.
    ASSERT_EQ(mailbox_lock_index(&mb), 0);
    index_record rec;
    ASSERT_EQ(mailbox_read_index_record(&mb, 3, &rec), 0);
    EXPECT_EQ(rec.uid, 3u);
    mailbox_unlock_index(&mb);
    mailbox_close(&mb);
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "", MAILBOX_VERSION, nullptr, 300),
              IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(testutil::read_file(d + "/store.idx"), before);

    // 80 bytes or less, or an index whose summary counts nothing, is no
    // folder: replaced.
    for (size_t len : {0, 40, 80}) {
        testutil::write_file(d + "/store.idx", before.substr(0, len));
        ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "", MAILBOX_VERSION, nullptr,
                                 400 + len),
                  0)
            << len;
        EXPECT_EQ(read_header(d).mbd.uidvalidity, 400u + len);
        EXPECT_EQ(fsize(d + "/store.idx"), 7856);
    }

    // An index shared with another folder by a hard link gets replaced by a
    // file of its own; the other folder's file stays whole.
    std::string other = dir("user/fred/other");
    ASSERT_EQ(mailbox_create("user/fred/other", "primary", other.c_str(), nullptr, "", MAILBOX_VERSION,
                             nullptr, 500),
              0);
    std::string otherbytes = testutil::read_file(other + "/store.idx");
    ASSERT_EQ(unlink((d + "/store.idx").c_str()), 0);
    ASSERT_EQ(link((other + "/store.idx").c_str(), (d + "/store.idx").c_str()), 0);
    testutil::write_file(d + "/store.exp", "x");
    ASSERT_EQ(mailbox_create(name, "primary", d.c_str(), nullptr, "", MAILBOX_VERSION, nullptr, 600),
              0);
    EXPECT_NE(inode(d + "/store.idx"), inode(other + "/store.idx"));
    EXPECT_FALSE(exists(d + "/store.exp"));
    EXPECT_EQ(testutil::read_file(other + "/store.idx"), otherbytes);
    EXPECT_EQ(read_header(d).mbd.uidvalidity, 600u);
}

TEST_F(MailboxFiles, SecondCreatorWaitsAndDoesNotCutTheFirst) {
    // The first creator holds the lock of a file it is still writing; the
    // second must wait for it, leave its bytes alone and report the folder
    // as existing.
    const char *name = "user/race/a";
    std::string d = dir(name);
    ASSERT_EQ(mailbox_makedirs(d.c_str()), 0);
    std::string idx = d + "/store.idx";
    int fd = open(idx.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(lock_blocking(fd), 0);
    Header h;
    memset(&h, 0, sizeof h);
    h.mbd.version = MAILBOX_VERSION;
    h.mbd.uidvalidity = 4242;
    h.hdr.start_offset = 256;
    h.hdr.cache_offset = 256 + 7600;
    ASSERT_EQ(write(fd, &h, sizeof h), (ssize_t)sizeof h);

    testutil::Pipe done;
    pid_t pid = testutil::spawn([&] {
        int r = mailbox_create(name, "primary", d.c_str(), nullptr, "", MAILBOX_VERSION, nullptr, 1);
        char c = r == IMAP_MAILBOX_EXISTS ? 'E' : r == 0 ? '0' : 'X';
        if (write(done.w, &c, 1) != 1) return 2;
        return 0;
    });
    ASSERT_GT(pid, 0);
    // It waits for the lock.
    EXPECT_EQ(testutil::read_byte(done.r, 400), -1);
    std::string rest(7600 + 176, '\0');
    ASSERT_EQ(write(fd, rest.data(), rest.size()), (ssize_t)rest.size());
    std::string written = testutil::read_file(idx);
    ASSERT_EQ(written.size(), 7856u);
    ASSERT_EQ(lock_unlock(fd), 0);
    EXPECT_EQ(testutil::read_byte(done.r, 5000), 'E');
    EXPECT_EQ(testutil::wait_child(pid), 0);
    close(fd);
    EXPECT_EQ(testutil::read_file(idx), written);
    EXPECT_EQ(read_header(d).mbd.uidvalidity, 4242u);
}

TEST_F(MailboxFiles, DeleteRemovesEverything) {
    const char *name = "user/fred/gone";
    std::string d = dir(name, "spool"), m = mdir(name);
    struct mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_create("user/fred", "spool", dir("user/fred", "spool").c_str(),
                             mdir("user/fred").c_str(), "", MAILBOX_VERSION, nullptr, 1),
              0);
    ASSERT_EQ(mailbox_create(name, "spool", d.c_str(), m.c_str(), "", MAILBOX_VERSION, &mb, 1), 0);
    deliver(&mb, 100);  // message directories 00 and 01
    ASSERT_TRUE(exists(m + "/00/1.msg"));
    ASSERT_TRUE(exists(m + "/01/100.msg"));
    ASSERT_EQ(mailbox_create("user/fred/gone/child", "spool", dir("user/fred/gone/child", "spool").c_str(),
                             mdir("user/fred/gone/child").c_str(), "", MAILBOX_VERSION, nullptr, 1),
              0);
    testutil::write_file(d + "/store.usr", "x");
    testutil::write_file(d + "/stray", "x");
    ASSERT_TRUE(has_peruser(name));

    EXPECT_EQ(mailbox_delete(&mb, 0), 0);
    EXPECT_EQ(mb.index_fd, -1);
    EXPECT_EQ(mb.name, nullptr);
    EXPECT_FALSE(exists(m + "/00"));
    EXPECT_FALSE(exists(m + "/01"));
    EXPECT_FALSE(exists(d + "/store.idx"));
    EXPECT_FALSE(exists(d + "/store.usr"));
    EXPECT_FALSE(exists(d + "/stray"));
    EXPECT_FALSE(has_peruser(name));
    // The child's directory keeps the folder's directories in place.
    EXPECT_TRUE(exists(dir("user/fred/gone/child", "spool") + "/store.idx"));
    EXPECT_TRUE(exists(d));
    EXPECT_TRUE(has_peruser("user/fred/gone/child"));

    // Deleting the child and the root empties the trees, but the partition
    // directories stay.
    ASSERT_EQ(mailbox_open_path("user/fred/gone/child", 0, "spool",
                                dir("user/fred/gone/child", "spool").c_str(),
                                mdir("user/fred/gone/child").c_str(), "", auth_dontCheckAcl, &mb),
              0);
    mailbox_delete(&mb, 1);
    EXPECT_TRUE(has_peruser("user/fred/gone/child"));  // kept on request
    EXPECT_FALSE(exists(d));
    ASSERT_EQ(mailbox_open_path("user/fred", 0, "spool", dir("user/fred", "spool").c_str(),
                                mdir("user/fred").c_str(), "", auth_dontCheckAcl, &mb),
              0);
    mailbox_delete(&mb, 0);
    EXPECT_FALSE(exists(inst.path("partitions/spool/=user")));
    EXPECT_FALSE(exists(inst.path("messages/spool/=user")));
    EXPECT_TRUE(exists(inst.path("partitions/spool")));
    EXPECT_TRUE(exists(inst.path("messages/spool")));

    // A folder whose directories are gone already is no failure.
    struct mailbox ghost = zeromailbox;
    ghost.name = strdup("user/ghost");
    ghost.partition = strdup("primary");
    ghost.path = strdup(dir("user/ghost").c_str());
    ghost.mpath = ghost.path;
    EXPECT_EQ(mailbox_delete(&ghost, 0), 0);
    EXPECT_EQ(ghost.name, nullptr);
}

TEST_F(MailboxFiles, CopyingMessageFiles) {
    std::string src = inst.path("src.msg");
    testutil::write_file(src, "message");
    std::string d = inst.path("copies");
    ASSERT_EQ(mkdir(d.c_str(), 0777), 0);

    // A hard link where possible.
    EXPECT_EQ(mailbox_copymsgfile(src.c_str(), (d + "/a").c_str()), 0);
    EXPECT_EQ(inode(d + "/a"), inode(src));
    // A target that exists is replaced.
    testutil::write_file(d + "/b", "old");
    EXPECT_EQ(mailbox_copymsgfile(src.c_str(), (d + "/b").c_str()), 0);
    EXPECT_EQ(inode(d + "/b"), inode(src));
    EXPECT_EQ(mailbox_copyfile(src.c_str(), (d + "/b").c_str()), 0);
    EXPECT_EQ(inode(d + "/b"), inode(src));
    // A missing message directory is made (one level).
    EXPECT_EQ(mailbox_copymsgfile(src.c_str(), (d + "/07/c").c_str()), 0);
    EXPECT_EQ(inode(d + "/07/c"), inode(src));
    // mailbox_copyfile makes no directories.
    EXPECT_EQ(mailbox_copyfile(src.c_str(), (d + "/08/c").c_str()), IMAP_IOERROR);
    // A source that is missing fails.
    EXPECT_EQ(mailbox_copymsgfile((d + "/none").c_str(), (d + "/d").c_str()), IMAP_IOERROR);
    EXPECT_FALSE(exists(d + "/d"));

    // Across file systems the file is copied.
    const char *shm = "/dev/shm";
    struct stat a, b;
    if (stat(shm, &a) == 0 && stat(d.c_str(), &b) == 0 && a.st_dev != b.st_dev &&
        access(shm, W_OK) == 0) {
        std::string target = std::string(shm) + "/mailstore-copy-" + std::to_string(getpid());
        unlink(target.c_str());
        EXPECT_EQ(mailbox_copymsgfile(src.c_str(), target.c_str()), 0);
        EXPECT_EQ(testutil::read_file(target), "message");
        EXPECT_NE(inode(target), inode(src));
        testutil::write_file(target, "older and longer");
        EXPECT_EQ(mailbox_copyfile(src.c_str(), target.c_str()), 0);
        EXPECT_EQ(testutil::read_file(target), "message");
        unlink(target.c_str());
    } else {
        ADD_FAILURE() << "no second file system at /dev/shm to copy across";
    }
}

TEST_F(MailboxFiles, RenameSteps) {
    std::string od = dir("user/fred/old"), nd = dir("user/fred/new");
    struct mailbox old = zeromailbox;
    ASSERT_EQ(mailbox_create("user/fred/old", "primary", od.c_str(), nullptr, "fred\tlrswipcda\t",
                             MAILBOX_VERSION, &old, 77),
              0);
    deliver(&old, 100);
    mailbox_close(&old);

    // Abort: the new side goes, the old one is whole.
    ASSERT_EQ(mailbox_open_path("user/fred/old", 0, "primary", od.c_str(), nullptr, "fred\tlrswipcda\t",
                                auth_dontCheckAcl, &old),
              0);
    struct mailbox *nmb = nullptr;
    ASSERT_EQ(mailbox_rename_start(&old, "user/fred/new", "primary", nd.c_str(), nullptr, 0, &nmb), 0);
    ASSERT_NE(nmb, nullptr);
    EXPECT_EQ(nmb->index_fd, -1);
    EXPECT_EQ(nmb->mbd.exists, 100u);
    EXPECT_EQ(inode(nd + "/store.idx"), inode(od + "/store.idx"));
    EXPECT_EQ(inode(nd + "/01/100.msg"), inode(od + "/01/100.msg"));
    EXPECT_TRUE(has_peruser("user/fred/new"));
    EXPECT_EQ(mailbox_rename_abort(nmb), 0);
    EXPECT_FALSE(exists(nd));
    EXPECT_TRUE(exists(od + "/00/1.msg"));
    EXPECT_EQ(old.index_lock_count, 1u);  // held until the end of the rename
    mailbox_close(&old);

    // A name taken by a live folder refuses the start.
    std::string busy = dir("user/fred/busy");
    struct mailbox b = zeromailbox;
    ASSERT_EQ(mailbox_create("user/fred/busy", "primary", busy.c_str(), nullptr, "", MAILBOX_VERSION,
                             &b, 1),
              0);
    deliver(&b, 1);
    mailbox_close(&b);
    ASSERT_EQ(mailbox_open_path("user/fred/old", 0, "primary", od.c_str(), nullptr, "", auth_dontCheckAcl,
                                &old),
              0);
    EXPECT_EQ(mailbox_rename_start(&old, "user/fred/busy", "primary", busy.c_str(), nullptr, 0, &nmb),
              IMAP_MAILBOX_EXISTS);
    EXPECT_EQ(nmb, nullptr);
    EXPECT_TRUE(exists(busy + "/00/1.msg"));
    // Keeping the old folder needs expunge's rewrite, which isn't there.
    ASSERT_EQ(mailbox_rename_start(&old, "user/fred/new", "primary", nd.c_str(), nullptr, 0, &nmb), 0);
    EXPECT_EQ(mailbox_rename_commit(&old, nmb, 1), IMAP_MAILBOX_NOTSUPPORTED);
    EXPECT_TRUE(exists(od + "/store.idx"));
    EXPECT_EQ(mailbox_rename_abort(nmb), 0);
    mailbox_close(&old);

    // Commit with a change of owner: the new index carries the new ACL,
    // the old folder is gone, and the handle is the new folder.
    ASSERT_EQ(mailbox_open_path("user/fred/old", 0, "primary", od.c_str(), nullptr, "", auth_dontCheckAcl,
                                &old),
              0);
    free(old.acl);
    old.acl = strdup("bob\tlrswipcda\t");
    std::string bd = dir("user/bob/moved");
    ASSERT_EQ(mailbox_rename_start(&old, "user/bob/moved", "primary", bd.c_str(), nullptr, 1, &nmb), 0);
    EXPECT_STREQ(old.acl, "fred\tlrswipcda\t");  // the file's text again
    EXPECT_EQ(mailbox_rename_commit(&old, nmb, 0), 0);
    EXPECT_STREQ(old.name, "user/bob/moved");
    EXPECT_FALSE(exists(od));
    EXPECT_FALSE(has_peruser("user/fred/old"));
    mailbox_close(&old);
    ASSERT_EQ(mailbox_open_path("user/bob/moved", 0, "primary", bd.c_str(), nullptr, "",
                                auth_dontCheckAcl, &old),
              0);
    EXPECT_EQ(old.mbd.exists, 100u);
    EXPECT_EQ(old.mbd.uidvalidity, 77u);
    ASSERT_EQ(mailbox_read_index_header_acl(&old), 0);
    EXPECT_STREQ(old.acl, "bob\tlrswipcda\t");
    EXPECT_EQ(testutil::read_file(bd + "/01/100.msg").substr(0, 12), "Subject: 100");

    // Moving to another partition under the same name keeps the per-user
    // data, and copies message files across directories.
    std::string sd = dir("user/bob/moved", "spool"), sm = mdir("user/bob/moved");
    ASSERT_EQ(mailbox_rename_start(&old, "user/bob/moved", "spool", sd.c_str(), sm.c_str(), 0, &nmb), 0);
    EXPECT_EQ(mailbox_rename_commit(&old, nmb, 0), 0);
    EXPECT_TRUE(has_peruser("user/bob/moved"));
    EXPECT_FALSE(exists(bd));
    EXPECT_TRUE(exists(sm + "/00/1.msg"));
    EXPECT_TRUE(exists(sd + "/store.idx"));
    mailbox_close(&old);
}

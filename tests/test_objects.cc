// The object core, the context and the session.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "objects/bkobj.h"
#include "store/mboxlist.h"
#include "support/signals.h"
#include "tests/testutil.h"

namespace {

// A concrete object over the base class, to test what the base does.
class PlainObj : public BkObj {
  public:
    PlainObj(BkSession *s, const char *path, BkType t) : BkObj(s, path, t) {}
    Vdata *backupData() override { return valid ? &data : nullptr; }
    int restoreData(Vdata *) override { return valid; }
    BkObj *getFirstChild() override { return nullptr; }
    BkObj *getNextChild() override { return nullptr; }
};

// Leaves the folder database before the instance and its daemon go away.
struct StoreSession {
    ~StoreSession() { mboxlist_reset_for_tests(); }
};

std::string capture(void (*fn)(FILE *, void *), void *arg) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    fn(f, arg);
    fclose(f);
    std::string r(buf, len);
    free(buf);
    return r;
}

}  // namespace

TEST(BkObjCore, ConstructionAndNames) {
    PlainObj bad(nullptr, "no/slash", BkObj::TypeGroup);
    EXPECT_FALSE(bad.isvalid());
    EXPECT_EQ(bad.getObjectId(), nullptr);
    EXPECT_EQ(bad.getAttr(), nullptr);

    PlainObj root(nullptr, "/", BkObj::TypeStore);
    ASSERT_TRUE(root.isvalid());
    EXPECT_STREQ(root.getObjectId(), "/");
    EXPECT_STREQ(root.basename(), "/");
    char buf[1024];
    EXPECT_EQ(root.parentId(buf), nullptr);

    PlainObj group(nullptr, "/part/grp/", BkObj::TypeGroup);
    EXPECT_STREQ(group.getObjectId(), "/part/grp");
    EXPECT_STREQ(group.basename(), "grp");
    ASSERT_NE(group.parentId(buf), nullptr);
    EXPECT_STREQ(buf, "part");

    PlainObj part(nullptr, "/primary", BkObj::TypePartition);
    EXPECT_STREQ(part.basename(), "primary");
    EXPECT_EQ(part.parentId(buf), nullptr);

    PlainObj user(nullptr, "/part/grp/joe", BkObj::TypeUser);
    EXPECT_STREQ(user.basename(), "joe");
    EXPECT_STREQ(user.parentId(buf), "grp");

    // A folder name keeps all its slashes; only one trailing slash goes.
    PlainObj folder(nullptr, "/p/g/joe/a/b/c//", BkObj::TypeMailbox);
    EXPECT_STREQ(folder.getObjectId(), "/p/g/joe/a/b/c/");
    EXPECT_STREQ(folder.basename(), "a/b/c/");
    EXPECT_STREQ(folder.parentId(buf), "joe");

    PlainObj msg(nullptr, "/p/g/joe/inbox/17", BkObj::TypeMessage);
    EXPECT_STREQ(msg.basename(), "17");
    EXPECT_EQ(msg.getAttr()->type, BkObj::TypeMessage);
}

TEST(BkObjCore, AttributeRecords) {
    BkObj::BkAttr a;
    a.objectId = strdup("/p/g/joe/inbox");
    a.type = 4;
    a.timestamp = 1036491630;
    static char bytes[20] = "abcdefghijklmnopqrs";
    a.attrData.set(20, bytes, 0);
    a.dataSize = 99;

    BkObj::BkAttr copy(a);
    EXPECT_STREQ(copy.objectId, a.objectId);
    EXPECT_NE(copy.objectId, a.objectId);
    EXPECT_EQ(copy.attrData.data, (void *)bytes);  // a view, not a copy
    EXPECT_EQ(copy.dataSize, 99);

    // Assignment onto a record with an id keeps that id.
    BkObj::BkAttr other;
    other.objectId = strdup("/other");
    other = a;
    EXPECT_STREQ(other.objectId, "/other");
    EXPECT_EQ(other.timestamp, 1036491630);
    BkObj::BkAttr empty;
    empty = a;
    EXPECT_STREQ(empty.objectId, "/p/g/joe/inbox");

    BkObj::BkAttr *deep = a.getCopy();
    ASSERT_NE(deep->attrData.data, (void *)bytes);
    EXPECT_EQ(memcmp(deep->attrData.data, bytes, 20), 0);
    delete deep;

    // Binary round trip, and a record of type 7 reads whole but fails.
    testutil::TempDir dir;
    std::string path = dir.file("attrs");
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(a.save(fd), 1);
    BkObj::BkAttr seven(a);
    seven.type = 7;
    ASSERT_EQ(seven.save(fd), 1);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 2 * (4 + 14 + 2 + 4 + 4 + 20 + 4));
    lseek(fd, 0, SEEK_SET);
    BkObj::BkAttr back;
    ASSERT_EQ(back.load(fd), 1);
    EXPECT_STREQ(back.objectId, "/p/g/joe/inbox");
    EXPECT_EQ(back.type, 4);
    EXPECT_EQ(back.timestamp, 1036491630);
    ASSERT_EQ(back.attrData.size, 20u);
    EXPECT_EQ(memcmp(back.attrData.data, bytes, 20), 0);
    EXPECT_EQ(back.dataSize, 99);
    BkObj::BkAttr bad;
    EXPECT_EQ(bad.load(fd), 0);
    EXPECT_EQ(bad.type, 7);
    EXPECT_STREQ(bad.objectId, "/p/g/joe/inbox");
    // A short record fails.
    BkObj::BkAttr none;
    EXPECT_EQ(none.load(fd), 0);
    ASSERT_EQ(ftruncate(fd, 10), 0);
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(none.load(fd), 0);
    close(fd);

    setenv("TZ", "UTC", 1);
    tzset();
    std::string text = capture([](FILE *f, void *p) { static_cast<BkObj::BkAttr *>(p)->print(f); },
                               &a);
    EXPECT_EQ(text,
              "Object Id   : /p/g/joe/inbox\n"
              "Type        : 4\n"
              "Timestamp   : Tue, 05 Nov 2002 10:20:30\n"
              "Data Size   : 99\n");
}

TEST(BkContextTest, StartsOnAnInstanceAndNotWithout) {
    {
        testutil::Instance inst("local.store.backup.exclude: Trash%%Junk%Spam");
        ASSERT_TRUE(inst.startStored());
        StoreSession store;
        BkContext ctx("objtest", 1);
        ASSERT_TRUE(ctx.isvalid());
        EXPECT_EQ(ctx.exitCode(), 0);

        String trash("Trash"), junk("Junk"), spam("Spam"), emptyName(""), other("Sent");
        EXPECT_TRUE(ctx.isExcluded(&trash));
        EXPECT_TRUE(ctx.isExcluded(&junk));
        EXPECT_TRUE(ctx.isExcluded(&spam));
        EXPECT_TRUE(ctx.isExcluded(&emptyName));  // "%%" names an empty folder
        EXPECT_FALSE(ctx.isExcluded(&other));

        // Exit codes: the newest session with a code wins.
        BkSession *s1 = ctx.getSession(BkModePlain, 0, 1);
        BkSession *s2 = ctx.getSession(BkModePlain, 0, 1);
        s1->setExitCode(65);
        EXPECT_EQ(ctx.exitCode(), 65);
        s2->setExitCode(75);
        EXPECT_EQ(ctx.exitCode(), 75);

        // Signals are recorded and polled, not fatal.
        signals_reset(SIGTERM);
        EXPECT_EQ(ctx.interrupted(), 0);
        raise(SIGTERM);
        EXPECT_EQ(ctx.interrupted(), 1);
        EXPECT_EQ(s1->interrupted(), 1);
        signals_reset(SIGTERM);

        std::string log = testutil::read_file(inst.path("log/store.log"));
        EXPECT_NE(log.find("objtest[" + std::to_string(getpid()) + "]"), std::string::npos);
        EXPECT_NE(log.find("started"), std::string::npos);
    }
    {
        testutil::Instance inst;
        std::string conf = inst.path("config/store.conf");
        ASSERT_EQ(rename(conf.c_str(), (conf + ".away").c_str()), 0);
        BkContext ctx("objtest", 0);
        EXPECT_FALSE(ctx.isvalid());
        EXPECT_EQ(ctx.exitCode(), 69);
    }
}

TEST(BkSessionTest, CreatesFoldersAndMessagesFromPaths) {
    testutil::Instance inst;
    ASSERT_TRUE(inst.startStored());
    StoreSession store;
    BkContext ctx("objtest", 0);
    ASSERT_TRUE(ctx.isvalid());
    BkSession *s = ctx.getSession(BkModePlain, 0, 1);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->getRefTable(), nullptr);
    EXPECT_EQ(s->getLinkTable(), nullptr);

    char bad[] = "relative/path";
    EXPECT_EQ(s->createBkObj(bad, 4), nullptr);
    char invalidType[] = "/a/b/c/d";
    EXPECT_EQ(s->createBkObj(invalidType, 9), nullptr);

    // Type 0 is worked out from the depth; a deeper path counts as 4.
    char deep[] = "/export/user/joe/a/b///";
    BkObj *obj = s->createBkObj(deep, 0);
    ASSERT_NE(obj, nullptr);
    EXPECT_STREQ(deep, "/export/user/joe/a/b");
    EXPECT_EQ(obj->getAttr()->type, BkObj::TypeMailbox);
    EXPECT_EQ(s->getMailbox(), obj);
    Mailbox *m = static_cast<Mailbox *>(obj);
    EXPECT_STREQ(m->getUserid(), "joe");
    EXPECT_STREQ(m->getFolder(), "a/b");

    // In the plain mode a message of a folder that doesn't exist is refused,
    // and asking never creates the folder.
    EXPECT_FALSE(m->exists());
    char msgpath[] = "/export/user/joe/other/1";
    EXPECT_EQ(s->createBkObj(msgpath, 5), nullptr);
    EXPECT_EQ(s->getMailbox(), obj);

    // Once the folder exists, messages bind to it.
    EXPECT_EQ(m->restoreData(nullptr), 1);
    EXPECT_TRUE(m->exists());
    char m1[] = "/export/user/joe/a/b/1";
    BkObj *msg = s->createBkObj(m1, 5);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(s->getMailbox(), obj);
    delete msg;

    // A fixed folder takes every message, whatever folder its path names.
    s->setMailbox(m, 1);
    Message fixed(s, "/export/user/joe/elsewhere/7", 0);
    ASSERT_TRUE(fixed.isvalid());
    EXPECT_STREQ(fixed.getObjectId(), "/export/user/joe/a/b/7");

    EXPECT_TRUE(BkSession::isuid("/a/b/123"));
    EXPECT_TRUE(BkSession::isuid("/a/b/"));
    EXPECT_FALSE(BkSession::isuid("/a/b/12x"));
    EXPECT_FALSE(BkSession::isuid("123"));

    // Tables are made only where the mode needs them.
    BkSession *backup = ctx.getSession(BkModeBackup, 1, 1);
    EXPECT_NE(backup->getRefTable(), nullptr);
    EXPECT_EQ(backup->getLinkTable(), nullptr);
    BkSession *restore = ctx.getSession(BkModeRestore, 1, 1);
    EXPECT_NE(restore->getLinkTable(), nullptr);
    BkSession *noTables = ctx.getSession(BkModeBackup, 0, 1);
    EXPECT_EQ(noTables->getRefTable(), nullptr);

    // In the restore mode a message path creates its missing folder.
    char rpath[] = "/export/user/ann/inbox/3";
    BkObj *rmsg = restore->createBkObj(rpath, 5);
    ASSERT_NE(rmsg, nullptr);
    ASSERT_NE(restore->getMailbox(), nullptr);
    EXPECT_TRUE(restore->getMailbox()->exists());
    delete rmsg;
}

TEST(MessageObject, RecordsInNetworkOrderAndFlags) {
    testutil::Instance inst;
    ASSERT_TRUE(inst.startStored());
    StoreSession store;
    BkContext ctx("objtest", 0);
    BkSession *s = ctx.getSession(BkModeRestore, 0, 1);
    Message msg(s, "/export/user/joe/inbox/1", 0);
    ASSERT_TRUE(msg.isvalid());
    ASSERT_EQ(msg.setMsgInfo(1036491630, 4242, 3, 1, 77, 0), 1);
    const Message::MsgAttr &a = msg.getMsgAttr();
    EXPECT_EQ(ntohl(a.internaldate), 1036491630u);
    EXPECT_EQ(ntohl(a.last_updated), 1036491630u);
    EXPECT_EQ(ntohl(a.size), 4242u);
    EXPECT_EQ(ntohl(a.orig_uidvalidity), 77u);
    EXPECT_EQ(a.uid, 0u);
    EXPECT_EQ(msg.getpflag(), htonl(3));
    EXPECT_EQ(msg.getInternalDate(), 1036491630);
    BkObj::BkAttr *attr = msg.getAttr();
    ASSERT_NE(attr, nullptr);
    EXPECT_EQ(attr->timestamp, 1036491630);
    EXPECT_EQ(attr->dataSize, 4242);
    EXPECT_EQ(attr->attrData.size, 52u);
    char flags[6];
    EXPECT_STREQ(msg.flagsToStr(flags), "11100");

    // An empty message is not restored but is no failure.
    Vdata empty;
    EXPECT_EQ(msg.restoreData(&empty), 1);
    char text[] = "Subject: x\r\n\r\n";
    Vdata v(sizeof(text) - 1, text, 0);
    unsigned before = s->getMailbox()->getDelivered();
    EXPECT_EQ(msg.restoreData(&v), 1);
    EXPECT_EQ(s->getMailbox()->getDelivered(), before + 1);
}

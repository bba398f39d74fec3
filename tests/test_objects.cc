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

    // Path, kind, then the id, base name and parent ("-": none) it gives.
    // A folder name keeps all its slashes; only one trailing slash goes.
    const struct {
        const char *path;
        BkObj::BkType type;
        const char *id, *base, *parent;
    } cases[] = {
        {"/", BkObj::TypeStore, "/", "/", "-"},
        {"/primary", BkObj::TypePartition, "/primary", "primary", "-"},
        {"/part/grp/", BkObj::TypeGroup, "/part/grp", "grp", "part"},
        {"/part/grp/joe", BkObj::TypeUser, "/part/grp/joe", "joe", "grp"},
        {"/p/g/joe/a/b/c//", BkObj::TypeMailbox, "/p/g/joe/a/b/c/", "a/b/c/", "joe"},
        {"/p/g/joe/inbox/17", BkObj::TypeMessage, "/p/g/joe/inbox/17", "17", "inbox"},
    };
    for (const auto &c : cases) {
        PlainObj o(nullptr, c.path, c.type);
        ASSERT_TRUE(o.isvalid()) << c.path;
        char buf[1024];
        const char *parent = o.parentId(buf);
        EXPECT_EQ(std::string(o.getObjectId()) + " " + o.basename() + " " + (parent ? parent : "-"),
                  std::string(c.id) + " " + c.base + " " + c.parent);
        EXPECT_EQ(o.getAttr()->type, c.type);
    }
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
    EXPECT_NE(copy.objectId, a.objectId);
    EXPECT_EQ(copy.attrData.data, (void *)bytes);  // a view, not a copy
    // Assignment onto a record with an id keeps that id.
    BkObj::BkAttr other, empty;
    other.objectId = strdup("/other");
    other = a;
    empty = a;
    EXPECT_EQ(std::string(other.objectId) + " " + empty.objectId, "/other /p/g/joe/inbox");
    BkObj::BkAttr *deep = a.getCopy();
    ASSERT_NE(deep->attrData.data, (void *)bytes);
    EXPECT_EQ(memcmp(deep->attrData.data, bytes, 20), 0);
    delete deep;

    // Binary round trip; a record of type 7 reads whole but fails, and so
    // does the end of the file and a short record.
    testutil::TempDir dir;
    int fd = open(dir.file("attrs").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    BkObj::BkAttr seven(a);
    seven.type = 7;
    ASSERT_EQ(a.save(fd), 1);
    ASSERT_EQ(seven.save(fd), 1);
    lseek(fd, 0, SEEK_SET);
    BkObj::BkAttr back, bad, none;
    ASSERT_EQ(back.load(fd), 1);
    EXPECT_STREQ(back.objectId, "/p/g/joe/inbox");
    EXPECT_TRUE(back.type == 4 && back.timestamp == 1036491630 && back.dataSize == 99);
    ASSERT_EQ(back.attrData.size, 20u);
    EXPECT_EQ(memcmp(back.attrData.data, bytes, 20), 0);
    EXPECT_EQ(bad.load(fd), 0);
    EXPECT_EQ(bad.type, 7);
    EXPECT_EQ(none.load(fd), 0);
    ASSERT_EQ(ftruncate(fd, 10), 0);
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(none.load(fd), 0);
    close(fd);

    testutil::ScopedTZ tz("UTC");
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

        // "%%" names an empty folder.
        for (const char *name : {"Trash", "Junk", "Spam", "", "Sent"}) {
            String n(name);
            EXPECT_EQ(ctx.isExcluded(&n), strcmp(name, "Sent") != 0) << name;
        }

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

    char bad[] = "relative/path", invalidType[] = "/a/b/c/d";
    EXPECT_EQ(s->createBkObj(bad, 4), nullptr);
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

    const std::pair<const char *, bool> uids[] = {
        {"/a/b/123", true}, {"/a/b/", true}, {"/a/b/12x", false}, {"123", false}};
    for (const auto &u : uids) EXPECT_EQ(BkSession::isuid(u.first), u.second) << u.first;

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

    // A message's record is in network order; its attribute record tells
    // date and size.
    Message one(restore, "/export/user/joe/inbox/1", 0);
    ASSERT_TRUE(one.isvalid());
    ASSERT_EQ(one.setMsgInfo(1036491630, 4242, 3, 1, 77, 0), 1);
    const Message::MsgAttr &a = one.getMsgAttr();
    EXPECT_TRUE(ntohl(a.internaldate) == 1036491630u && ntohl(a.last_updated) == 1036491630u &&
                ntohl(a.size) == 4242u && ntohl(a.orig_uidvalidity) == 77u && a.uid == 0u);
    EXPECT_EQ(one.getpflag(), htonl(3));
    EXPECT_EQ(one.getInternalDate(), 1036491630);
    BkObj::BkAttr *attr = one.getAttr();
    ASSERT_NE(attr, nullptr);
    EXPECT_TRUE(attr->timestamp == 1036491630 && attr->dataSize == 4242);
    char flags[6];
    EXPECT_STREQ(one.flagsToStr(flags), "11100");

    // An empty message is not restored but is no failure.
    Vdata empty;
    EXPECT_EQ(one.restoreData(&empty), 1);
    char text[] = "Subject: x\r\n\r\n";
    Vdata v(sizeof(text) - 1, text, 0);
    unsigned before = restore->getMailbox()->getDelivered();
    EXPECT_EQ(one.restoreData(&v), 1);
    EXPECT_EQ(restore->getMailbox()->getDelivered(), before + 1);
}

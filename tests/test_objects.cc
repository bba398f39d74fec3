// The object core, the context and the session.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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

}  // namespace

TEST(BkObjCore, ConstructionAndNames) {
    PlainObj bad(nullptr, "no/slash", BkObj::TypeGroup);
    EXPECT_FALSE(bad.isvalid() || bad.getObjectId() || bad.getAttr());
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
    // A copy has its own id and views the data; assignment onto a record
    // with an id keeps that id; getCopy copies the data too.
    BkObj::BkAttr copy(a), other, empty;
    EXPECT_TRUE(copy.objectId != a.objectId && copy.attrData.data == (void *)bytes);
    other.objectId = strdup("/other");
    other = a;
    empty = a;
    EXPECT_EQ(std::string(other.objectId) + " " + empty.objectId, "/other /p/g/joe/inbox");
    BkObj::BkAttr *deep = a.getCopy();
    EXPECT_TRUE(deep->attrData.data != (void *)bytes && !memcmp(deep->attrData.data, bytes, 20));
    delete deep;
    // Binary round trip; a record of type 7 reads whole but fails, and so
    // does the end of the file and a short record.
    testutil::TempDir dir;
    int fd = open(dir.file("attrs").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    BkObj::BkAttr seven(a), back, bad, none;
    seven.type = 7;
    ASSERT_TRUE(fd >= 0 && a.save(fd) == 1 && seven.save(fd) == 1);
    lseek(fd, 0, SEEK_SET);
    ASSERT_EQ(back.load(fd), 1);
    EXPECT_STREQ(back.objectId, "/p/g/joe/inbox");
    EXPECT_TRUE(back.type == 4 && back.timestamp == 1036491630 && back.dataSize == 99);
    EXPECT_TRUE(back.attrData.size == 20u && !memcmp(back.attrData.data, bytes, 20));
    EXPECT_EQ(bad.load(fd) + none.load(fd), 0);
    EXPECT_EQ(bad.type, 7);
    ASSERT_EQ(ftruncate(fd, 10), 0);
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(none.load(fd), 0);
    close(fd);
}

TEST(BkContextTest, ExclusionsExitCodesAndSignals) {
    // Without an instance the context is invalid with 69: ImportmailCli.RefusedBeforeTheStoreIsTouched.
    testutil::Instance inst("local.store.backup.exclude: Trash%%Junk%Spam");
    ASSERT_TRUE(inst.startStored());
    StoreSession store;
    BkContext ctx("objtest", 1);
    ASSERT_TRUE(ctx.isvalid() && ctx.exitCode() == 0);
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
    s1->setExitCode(66);
    EXPECT_EQ(ctx.exitCode(), 75);
    // Signals are recorded and polled, not fatal.
    signals_reset(SIGTERM);
    EXPECT_EQ(ctx.interrupted(), 0);
    raise(SIGTERM);
    EXPECT_TRUE(ctx.interrupted() == 1 && s1->interrupted() == 1);
    signals_reset(SIGTERM);
}

TEST(BkSessionTest, CreatesFoldersAndMessagesFromPaths) {
    testutil::Instance inst;
    ASSERT_TRUE(inst.startStored());
    StoreSession store;
    BkContext ctx("objtest", 0);
    ASSERT_TRUE(ctx.isvalid());
    // Tables are made only where the mode needs them.
    BkSession *s = ctx.getSession(BkModePlain, 0, 1), *backup = ctx.getSession(BkModeBackup, 1, 1),
              *restore = ctx.getSession(BkModeRestore, 1, 1);
    EXPECT_FALSE(s->getRefTable() || s->getLinkTable() || backup->getLinkTable() ||
                 ctx.getSession(BkModeBackup, 0, 1)->getRefTable());
    EXPECT_TRUE(backup->getRefTable() && restore->getLinkTable());
    char bad[] = "relative/path", invalidType[] = "/a/b/c/d";
    EXPECT_FALSE(s->createBkObj(bad, 4) || s->createBkObj(invalidType, 9));
    // Type 0 is worked out from the depth; a deeper path counts as 4.
    char deep[] = "/export/user/joe/a/b///";
    BkObj *obj = s->createBkObj(deep, 0);
    ASSERT_NE(obj, nullptr);
    EXPECT_STREQ(deep, "/export/user/joe/a/b");
    EXPECT_TRUE(obj->BkObj::getAttr()->type == BkObj::TypeMailbox && s->getMailbox() == obj);
    Mailbox *m = static_cast<Mailbox *>(obj);
    EXPECT_EQ(std::string(m->getUserid()) + " " + m->getFolder(), "joe a/b");
    // In the plain mode a message of a folder that doesn't exist is refused,
    // and asking never creates the folder; once it exists, messages bind to it.
    char msgpath[] = "/export/user/joe/other/1", m1[] = "/export/user/joe/a/b/1";
    EXPECT_FALSE(m->exists() || s->createBkObj(msgpath, 5));
    EXPECT_EQ(s->getMailbox(), obj);
    EXPECT_EQ(m->restoreData(nullptr), 1);
    EXPECT_TRUE(m->exists());
    BkObj *msg = s->createBkObj(m1, 5);
    EXPECT_TRUE(msg && s->getMailbox() == obj);
    delete msg;
    // A fixed folder takes every message, whatever folder its path names.
    s->setMailbox(m, 1);
    Message fixed(s, "/export/user/joe/elsewhere/7", 0);
    EXPECT_STREQ(fixed.isvalid() ? fixed.getObjectId() : "", "/export/user/joe/a/b/7");
    const std::pair<const char *, bool> uids[] = {
        {"/a/b/123", true}, {"/a/b/", true}, {"/a/b/12x", false}, {"123", false}};
    for (const auto &u : uids) EXPECT_EQ(BkSession::isuid(u.first), u.second) << u.first;
    // In the restore mode a message path creates its missing folder.
    char rpath[] = "/export/user/ann/inbox/3";
    BkObj *rmsg = restore->createBkObj(rpath, 5);
    ASSERT_TRUE(rmsg && restore->getMailbox());
    EXPECT_TRUE(restore->getMailbox()->exists());
    delete rmsg;
    // A message's record is in network order; its attribute record tells
    // date and size.
    Message one(restore, "/export/user/joe/inbox/1", 0);
    ASSERT_TRUE(one.isvalid() && one.setMsgInfo(1036491630, 4242, 3, 1, 77, 0) == 1);
    const Message::MsgAttr &a = one.getMsgAttr();
    EXPECT_TRUE(ntohl(a.internaldate) == 1036491630u && ntohl(a.last_updated) == 1036491630u &&
                ntohl(a.size) == 4242u && ntohl(a.orig_uidvalidity) == 77u && a.uid == 0u);
    EXPECT_TRUE(one.getpflag() == htonl(3) && one.getInternalDate() == 1036491630);
    EXPECT_TRUE(one.BkObj::getAttr()->timestamp == 1036491630 && one.BkObj::getAttr()->dataSize == 4242);
    char flags[6];
    EXPECT_STREQ(one.flagsToStr(flags), "11100");
    // An empty message is not restored but is no failure.
    Vdata empty;
    char text[] = "Subject: x\r\n\r\n";
    Vdata v(sizeof(text) - 1, text, 0);
    unsigned before = restore->getMailbox()->getDelivered();
    EXPECT_EQ(one.restoreData(&empty) + one.restoreData(&v), 2);
    EXPECT_EQ(restore->getMailbox()->getDelivered(), before + 1);
}

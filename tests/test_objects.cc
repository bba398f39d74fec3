// The object core, the context and the session.
#include "objects/bkobj.h"
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
struct StoreSession { ~StoreSession() { mboxlist_reset_for_tests(); } };

}  // namespace

TEST(BkObjCore, ConstructionAndNames) {
    PlainObj bad(nullptr, "no/slash", BkObj::TypeMailbox);
    EXPECT_FALSE(bad.isvalid() || bad.getObjectId() || bad.getAttr());
    // Path and kind, then the id and base name it gives. A folder name
    // keeps all its slashes; only one trailing slash goes. (Objects above
    // folders go until backups make them.)
    const struct { const char *path; BkObj::BkType type; const char *id, *base; } cases[] = {
        {"/p/g/joe/a/b/c//", BkObj::TypeMailbox, "/p/g/joe/a/b/c/", "a/b/c/"},
        {"/p/g/joe/inbox/17", BkObj::TypeMessage, "/p/g/joe/inbox/17", "17"},
    };
    for (const auto &c : cases) {
        PlainObj o(nullptr, c.path, c.type);
        ASSERT_TRUE(o.isvalid()) << c.path;
        EXPECT_EQ(std::string(o.getObjectId()) + " " + o.basename(), std::string(c.id) + " " + c.base);
        EXPECT_EQ(o.getAttr()->type, c.type);
    }
}

// Sessions make folders and messages from paths; the context gathers their
// exit codes and the signals. (A context without an instance is invalid
// with 69: ImportmailCli.RefusedBeforeTheStoreIsTouched.)
TEST(BkSessionTest, FoldersAndMessagesFromPathsExitCodesAndSignals) {
    testutil::Instance inst;
    ASSERT_TRUE(inst.startStored());
    StoreSession store;
    BkContext ctx("objtest", 0);
    ASSERT_TRUE(ctx.isvalid() && ctx.exitCode() == 0);
    BkSession *s = ctx.getSession(BkModePlain, 0, 1), *restore = ctx.getSession(BkModeRestore, 1, 1);
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
    BkObj *msg = s->createBkObj(m1, 5);
    EXPECT_TRUE(m->exists() && msg && s->getMailbox() == obj);
    delete msg;
    const std::pair<const char *, bool> uids[] = {
        {"/a/b/123", true}, {"/a/b/", true}, {"/a/b/12x", false}, {"123", false}};
    for (const auto &u : uids) EXPECT_EQ(BkSession::isuid(u.first), u.second) << u.first;
    // In the restore mode a message path creates its missing folder; an
    // empty message is not restored but is no failure.
    char rpath[] = "/export/user/ann/inbox/3";
    BkObj *rmsg = restore->createBkObj(rpath, 5);
    ASSERT_TRUE(rmsg && restore->getMailbox() && restore->getMailbox()->exists());
    Vdata empty;
    char text[] = "Subject: x\r\n\r\n";
    Vdata v(sizeof(text) - 1, text, 0);
    unsigned before = restore->getMailbox()->getDelivered();
    EXPECT_EQ(rmsg->restoreData(&empty) + rmsg->restoreData(&v), 2);
    EXPECT_EQ(restore->getMailbox()->getDelivered(), before + 1);
    delete rmsg;
    // Exit codes: the newest session with a code wins.
    s->setExitCode(65);
    EXPECT_EQ(ctx.exitCode(), 65);
    restore->setExitCode(75);
    s->setExitCode(66);
    EXPECT_EQ(ctx.exitCode(), 75);
    // Signals are recorded and polled, not fatal.
    signals_reset(SIGTERM);
    EXPECT_EQ(ctx.interrupted(), 0);
    raise(SIGTERM);
    EXPECT_TRUE(ctx.interrupted() == 1 && s->interrupted() == 1);
    signals_reset(SIGTERM);
}

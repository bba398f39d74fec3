// The object layer: the object core, the context and the session, packed
// lists and the time helper. (Lists are checked where the context keeps its
// sessions in one; vectors and hash tables go until exclusions and backups
// use them.)
#include "objects/bkobj.h"
#include "objects/bkutils.h"
#include "support/signals.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

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

std::string bytes_of(const Vdata &v) {
    return v.data ? std::string((const char *)v.data, v.size) : std::string();
}

// A hand-made packed list in an exact-size heap buffer (the sanitizer sees overreads).
struct RawList {
    unsigned char *buf;
    unsigned size;
    explicit RawList(const std::string &bytes) : size((unsigned)bytes.size()) {
        buf = (unsigned char *)malloc(size ? size : 1);
        memcpy(buf, bytes.data(), size);
    }
    ~RawList() { free(buf); }
    Vdata view() const { return Vdata(size, buf, 0); }
};

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
    Instance inst;
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

TEST(Vdata, PackedListsAndCopies) {
    Vdata v, out;
    v += "abc";
    char hello[] = "hello";
    v += Vdata(5, hello, 0);
    EXPECT_EQ(be32({3}) + "abc" + be32({5}) + "hello", bytes_of(v));
    // Appending a list to itself adds its whole bytes as one item.
    std::string before = bytes_of(v);
    v += v;
    EXPECT_TRUE(v.part(2, &out) == 1 && before == bytes_of(out) && out.own == 0);
    EXPECT_EQ(0, v.part(3, &out) + v.part(-1, &out) + Vdata().part(0, &out));
    // Lengths past the end (by one, or wildly) and cut length words, first
    // and behind a good item (null: refused).
    std::string shortword(2, '\0');
    struct { std::string bytes; int index; const char *item; } cases[] = {
        {be32({4}) + "abcd", 0, "abcd"},           {be32({5}) + "abcd", 0, nullptr},
        {be32({0xffffffffu}) + "abcd", 0, nullptr},
        {std::string(3, '\0'), 0, nullptr},        {be32({1}) + "x" + shortword, 0, "x"},
        {be32({1}) + "x" + shortword, 1, nullptr}, {be32({1}) + "x" + be32({3}) + "yz", 1, nullptr}};
    for (const auto &c : cases) {
        RawList l(c.bytes);
        int got = l.view().part(c.index, &out);
        EXPECT_EQ(c.item ? c.item : "-", got ? bytes_of(out) : "-") << c.bytes.size() << " " << c.index;
    }
    // Copies and assignments of an owner are views; assignments to itself
    // keep what was there.
    ASSERT_EQ(1, v.setcstring("owner"));
    {
        Vdata view, copy(v);
        view = v;
        view = view;
        for (const Vdata *w : {&view, &copy}) EXPECT_TRUE(w->own == 0 && w->data == v.data && w->size == 5u);
    }
    v = v;
    EXPECT_EQ("owner", bytes_of(v));
}

TEST(Helpers, TimeTextIsLocal) {
    char buf[64];
    EXPECT_EQ(nullptr, time2str(0, nullptr));
    ScopedTZ tz("EST5");  // local time, not Universal Time
    EXPECT_STREQ("Wed, 31 Dec 1969 19:00:00\n", time2str(0, buf));
}

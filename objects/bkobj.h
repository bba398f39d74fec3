// The object tree over the store: the base class of all objects, the
// process context and the session, and the object classes of folders and
// messages.
//
// Objects are named by paths like files: /partition/group/user/folder for a
// folder (the folder name may hold further slashes) and the folder's path
// followed by "/uid" for a message. Objects never throw: operations return 0
// or null, and an object that can't go on clears its valid flag.
#ifndef OBJECTS_BKOBJ_H
#define OBJECTS_BKOBJ_H

#include <stdint.h>
#include <stdio.h>

#include "objects/bkutils.h"
#include "store/append.h"
#include "store/mailbox.h"

class BkSession;
class BkContext;
class Mailbox;
class Message;

class BkObj {
  public:
    enum BkType : uint16_t {
        TypeStore = 0,
        TypePartition = 1,
        TypeGroup = 2,
        TypeUser = 3,
        TypeMailbox = 4,
        TypeMessage = 5,
        TypeLink = 6,
        TypeInvalid = 7
    };

    // The attribute record that every object has.
    class BkAttr {
      public:
        char *objectId;      // path of the object, owned
        uint16_t type;       // a BkType value
        long timestamp;      // seconds since the epoch
        Vdata attrData;      // the class's own attribute record, a view
        int dataSize;        // size of the object's data in bytes

        BkAttr();
        BkAttr(const BkAttr &other);
        BkAttr &operator=(const BkAttr &other);
        ~BkAttr();

        void print(FILE *f) const;
        void printId(FILE *f, int newline) const;
        BkAttr *getCopy() const;
        // Binary form: host byte order, no padding (see bkobj.cc).
        int save(int fd) const;
        int load(int fd);
    };

    BkObj(BkSession *session, const char *path, BkType type);
    virtual ~BkObj();

    virtual int exists();
    virtual long getTimestamp();
    virtual BkAttr *getAttr();
    virtual int setAttr(BkAttr &attr);
    virtual void printAttr(FILE *f);
    virtual void printData(FILE *f, Vdata *data);
    virtual void dumpData(FILE *f, Vdata *data, char sep);
    virtual Vdata *backupData() = 0;
    virtual int restoreData(Vdata *data) = 0;
    virtual BkObj *getFirstChild() = 0;
    virtual BkObj *getNextChild() = 0;

    int isvalid() const { return valid; }
    const char *getObjectId() const { return attr.objectId; }
    char *basename() const { return basenamePtr; }
    BkSession *getSession() const { return session; }
    void printObjectId(FILE *f) const { attr.printId(f, 1); }
    // Writes the path component above basename into buf (1024 bytes).
    char *parentId(char *buf) const;

  protected:
    // setAttr of a class with a fixed attribute record: takes a, copies as
    // much of its attrData as fits over record (size bytes), and lets
    // attrData view the record again.
    void adoptAttr(const BkAttr &a, void *record, size_t size);

    BkAttr attr;
    Vdata data;
    int valid;
    int existsFlag;
    char *basenamePtr;
    BkSession *session;

  private:
    BkObj(const BkObj &) = delete;
    BkObj &operator=(const BkObj &) = delete;
};

typedef List<BkObj::BkAttr> MsgAttrList;
typedef HashTable<String, MsgAttrList, 87641> LinkWaitTable;

enum BkMode { BkModePlain = 0, BkModeBackup = 1, BkModeRestore = 2 };

// A process's connection to the store: configuration, log, signal handling,
// and the sessions.
class BkContext {
  public:
    BkContext(const char *progname, int debug);
    ~BkContext();

    int isvalid() const { return status == 0; }
    BkSession *getSession(BkMode mode, int tables, unsigned linkThreshold);
    int exitCode();
    int interrupted();
    int setFileOwner(const char *path);
    int isExcluded(String *name);
    int getDebug() const { return debug; }

  private:
    int status;
    int debug;
    Vector<String *> *excludes;
    List<BkSession> sessions;

    BkContext(const BkContext &) = delete;
    BkContext &operator=(const BkContext &) = delete;
};

// One unit of work on the object tree.
class BkSession {
  public:
    BkSession(BkContext *context, BkMode mode, int tables, unsigned linkThreshold);
    ~BkSession();

    BkObj *createBkObj(char *path, unsigned short type);
    int setMailbox(const char *msgpath);
    void setMailbox(Mailbox *mailbox, int fixed);
    Mailbox *getMailbox() const { return mailbox; }
    int isMailboxFixed() const { return mailboxFixed; }
    void deleteBkObj(BkObj *obj);
    int interrupted() { return context->interrupted(); }
    static int isuid(const char *text);

    BkContext *getContext() const { return context; }
    BkMode getMode() const { return mode; }
    unsigned getLinkThreshold() const { return linkThreshold; }
    MsgRefTable *getRefTable() const { return refTable; }
    LinkWaitTable *getLinkTable() const { return linkTable; }
    int getExitCode() const { return exitCode; }
    void setExitCode(int code) { exitCode = code; }
    // Called by a folder's destructor when it is the current folder.
    void forgetMailbox(Mailbox *m) {
        if (mailbox == m) mailbox = nullptr;
    }

  private:
    BkContext *context;
    BkMode mode;
    MsgRefTable *refTable;
    LinkWaitTable *linkTable;
    Mailbox *mailbox;
    int exitCode;
    int mailboxFixed;
    unsigned linkThreshold;

    BkSession(const BkSession &) = delete;
    BkSession &operator=(const BkSession &) = delete;
};

// One folder of the store: its names, opening, creation, the append session
// into which its Message objects deliver, the walk over its messages, and
// the folder's own data (ACL, expire rule, flag names) for backup and
// restore.
class Mailbox : public BkObj {
  public:
    // The folder attributes a backup carries: 20 bytes, network byte order.
    struct MboxAttr {
        uint32_t uidvalidity;
        uint8_t subscribed;  // 1 if the owner is subscribed
        uint8_t reserved1[3];
        uint32_t last_uid;
        uint32_t recentuid;  // the owner's
        uint32_t reserved2;
    };

    // The owner's seen and deleted uid ranges of the folder, asked message
    // by message. Each list ends with a record of two 0xFFFFFFFF words.
    class FlagsCache {
      public:
        struct PeruserFlag {
            uint32_t first;
            uint32_t last;
        };
        // Reads the per-user text ("SEEN DELETED"); exists and the folder
        // name size the lists and label the log lines.
        FlagsCache(const char *text, unsigned exists, const char *name);
        ~FlagsCache();
        // Bit 0: uid is seen; bit 1: uid is deleted. Constant time per call
        // on a walk in ascending uid order.
        unsigned getflag(unsigned uid);
        // Scans one comma-separated list of uids and "a:b" ranges up to a
        // blank or the end into *list (a new array, or null for an empty
        // text). Gives the text behind the blank, or null.
        const char *scanflags(const char *text, PeruserFlag **list);

      private:
        static int inList(const PeruserFlag *list, unsigned *cursor, unsigned uid);
        PeruserFlag *seen;
        PeruserFlag *deleted;
        unsigned capacity;
        unsigned seenCursor;
        unsigned deletedCursor;
        const char *name;

        FlagsCache(const FlagsCache &) = delete;
        FlagsCache &operator=(const FlagsCache &) = delete;
    };

    Mailbox(BkSession *session, const char *path, int exists);
    ~Mailbox() override;

    int exists() override;
    long getTimestamp() override;
    BkAttr *getAttr() override;
    int setAttr(BkAttr &attr) override;
    void printAttr(FILE *f) override;
    void printData(FILE *f, Vdata *data) override;
    Vdata *backupData() override;
    int restoreData(Vdata *data) override;
    BkObj *getFirstChild() override;
    BkObj *getNextChild() override;

    int openMbox();
    int appendSetup();
    int getPerUserFlags();
    int getMsgByUid(Message *msg, unsigned uid);
    // Identity and link count of the message file of uid; its path goes to
    // path (MAX_MAILBOX_PATH + MAILBOX_FNAME_SIZE bytes). 0 if stat fails.
    int getMsgFile(unsigned uid, DevIno *devIno, unsigned *nlink, char *path);
    int messageExist(unsigned origUid, unsigned origUidvalidity);
    // Path of the folder's "store.expirerule" in buf (MAX_MAILBOX_PATH
    // bytes), or null if the folder can't be opened.
    char *expireRule(char *buf);
    void setLastUid();
    void setOldUser(const char *user) { oldUser = user; }

    const char *getUserid() const { return userid; }
    const char *getName() const { return name; }
    const char *getFolder() const { return basenamePtr; }
    const MboxAttr &getMboxAttr() const { return mboxAttr; }
    struct mailbox *getMbox() { return &mbox; }
    struct append_state *getAppendState() { return &appendState; }
    int isAppending() const { return appending; }
    int getUidState() const { return uidState; }
    // Messages of the folder when it was first opened here.
    unsigned getOrigExists() const { return origExists; }
    // The store's code of the open, create or append setup that made the
    // object invalid; 0 if none failed.
    int getError() const { return error; }
    char **getFlagNames() const { return flagNames; }
    // Messages delivered through this object so far.
    unsigned getDelivered() const { return delivered; }
    void countDelivered() { delivered++; }
    // The caller expects about count more messages in this run of
    // deliveries: a growth of the folder's record area makes room for them.
    void expectMessages(unsigned count) { appendState.room_hint = count; }

  private:
    int readRecord(unsigned msgno, struct index_record *record, int level);
    int createFolder(const char *acl);

    MboxAttr mboxAttr;
    struct mailbox mbox;
    int isOpen;
    unsigned nextMsgno;
    char userid[1024];
    char name[1024];
    int uidState;  // 0 not known; 1 uidvalidity kept; 2 it differs
    struct append_state appendState;
    int appending;
    unsigned origExists;
    const char *oldUser;
    unsigned *msgIds;  // orig_uid, orig_uidvalidity pairs of the first origExists records
    FlagsCache *flagsCache;
    char **flagNames;  // up to MAX_USER_FLAGS names from a backup
    unsigned delivered;
    int error;
};

static_assert(sizeof(Mailbox::MboxAttr) == 20, "folder attribute record is 20 bytes");

// One message of a folder.
class Message : public BkObj {
  public:
    // The 52-byte attribute record, all words in network byte order.
    struct MsgAttr {
        uint32_t uid;
        uint32_t internaldate;
        uint32_t sentdate;
        uint32_t size;
        uint32_t last_updated;
        uint32_t system_flags;
        uint32_t peruser_flags;
        uint32_t user_flags[3];
        uint32_t orig_uid;
        uint32_t orig_uidvalidity;
        uint32_t reserved;
    };

    // Room setFlags needs in the caller's array.
    static const int MAX_FLAG_NAMES = 5 + MAX_USER_FLAGS;

    Message(BkSession *session, const char *path, int exists);
    ~Message() override;

    int exists() override;
    BkAttr *getAttr() override;
    int setAttr(BkAttr &attr) override;
    void printAttr(FILE *f) override;
    void printData(FILE *f, Vdata *data) override;
    void dumpData(FILE *f, Vdata *data, char sep) override;
    Vdata *backupData() override;
    int restoreData(Vdata *data) override;
    BkObj *getFirstChild() override { return nullptr; }
    BkObj *getNextChild() override { return nullptr; }

    // The tool's form: the message as the mail file gives it.
    int setMsgInfo(long date, unsigned size, unsigned peruserFlags, unsigned systemFlags,
                   unsigned origUidvalidity, unsigned origUid);
    // A folder walk's form: the stored record.
    int setMsgInfo(const struct index_record *record, const DevIno *devIno, unsigned nlink,
                   unsigned peruserFlags);
    int getMsgRef(MsgRef *ref);
    long getInternalDate() const;
    unsigned getpflag() const { return msgAttr.peruser_flags; }
    // "1"/"0" for deleted, seen, answered, flagged, draft; buf holds 6 bytes.
    char *flagsToStr(char *buf) const;
    // The flag names for delivery into names (MAX_FLAG_NAMES entries): the
    // number of names.
    int setFlags(const char **names);
    const MsgAttr &getMsgAttr() const { return msgAttr; }
    const DevIno &getDevIno() const { return devIno; }
    unsigned getNlink() const { return nlink; }

  protected:
    int loadAttr();

    Mailbox *mailbox;
    MsgAttr msgAttr;
    DevIno devIno;
    unsigned nlink;
};

static_assert(sizeof(Message::MsgAttr) == 52, "message attribute record is 52 bytes");

#endif

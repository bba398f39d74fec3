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

class BkSession;
class BkContext;
class Mailbox;

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

// One folder of the store.
class Mailbox : public BkObj {
  public:
    Mailbox(BkSession *session, const char *path, int exists);
    ~Mailbox() override;

    int exists() override;
    Vdata *backupData() override;
    int restoreData(Vdata *data) override;
    BkObj *getFirstChild() override;
    BkObj *getNextChild() override;

    const char *getUserid() const { return userid; }
    const char *getFolder() const { return basenamePtr; }
    // Messages accepted by restore operations since the folder object was made.
    unsigned getDelivered() const { return delivered; }
    void countDelivered() { delivered++; }

  private:
    char userid[1024];
    unsigned delivered;
};

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

    Message(BkSession *session, const char *path, int exists);
    ~Message() override;

    int exists() override;
    Vdata *backupData() override;
    int restoreData(Vdata *data) override;
    BkObj *getFirstChild() override { return nullptr; }
    BkObj *getNextChild() override { return nullptr; }

    int setMsgInfo(long date, unsigned size, unsigned peruserFlags, unsigned systemFlags,
                   unsigned origUidvalidity, unsigned origUid);
    long getInternalDate() const;
    unsigned getpflag() const { return msgAttr.peruser_flags; }
    char *flagsToStr(char *buf) const;
    const MsgAttr &getMsgAttr() const { return msgAttr; }

  protected:
    Mailbox *mailbox;
    MsgAttr msgAttr;
};

static_assert(sizeof(Message::MsgAttr) == 52, "message attribute record is 52 bytes");

#endif

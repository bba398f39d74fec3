// Shared helpers of the tests: temporary directories, instances, corpus files.
#ifndef TESTS_TESTUTIL_H
#define TESTS_TESTUTIL_H

// Besides the helpers, the headers that most tests use, so that a test
// names only the ones that are its own.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "store/imap_err.h"
#include "store/mailbox.h"
#include "store/mboxlist.h"
#include "support/auth.h"
#include "support/config.h"

namespace testutil {

// A base for the helpers that own a resource and must not be copied.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy &) = delete;
    NoCopy &operator=(const NoCopy &) = delete;
};

// A fresh directory under $TMPDIR (or /tmp), removed with its content at the end.
class TempDir : NoCopy {
  public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A store instance made by scripts/new-instance in a temporary directory. While
// it lives, STORE_INSTANCEDIR names it, and the next configmsg_init reads it.
class Instance {
  public:
    explicit Instance(const std::string &extra_config = "");
    ~Instance();
    const std::string &dir() const { return tmp_.path(); }
    std::string path(const std::string &rel) const { return tmp_.path() + "/" + rel; }
    // Appends "key: value" lines to the configuration file.
    void addConfig(const std::string &lines) const;
    // Runs bin/prog with args for this instance, killed after limit seconds:
    // its exit status (or -1); captures output and errors if asked.
    int run(const std::string &prog, const std::string &args, std::string *out = nullptr,
            std::string *err = nullptr, int limit = 300) const;

    // Runs bin/stored for this instance as a child until it has declared the
    // store ready; false if it ended instead (its status in storedStatus()).
    bool startStored();
    int stopStored();  // ends the daemon with SIGTERM: its exit status
    void killStored();  // ends the daemon with SIGKILL, as a crash would
    // Waits up to seconds for the daemon to end by itself: its exit status, or -1.
    int waitStored(int seconds);
    int storedStatus() const { return storedStatus_; }
    // What the instance's log received since the last call.
    std::string newLog();

  private:
    TempDir tmp_;
    size_t logSeen_ = 0;
    int storedPid_ = -1;
    int storedStatus_ = -1;
};

// Sends file descriptor 2 to a file while it lives.
class StderrCapture : NoCopy {
  public:
    StderrCapture();
    ~StderrCapture() { restore(); }
    std::string text();  // what was written so far
    void restore();      // gives standard error back

  private:
    TempDir tmp_;
    std::string path_;
    int saved_ = -1;
};

std::string source_dir();
std::string binary_dir();
std::string corpus_path(const std::string &name);  // ../shared/corpus/<name>
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

// Runs a shell command: its exit status (or -1); captures output and errors if asked.
int run_command(const std::string &cmd, std::string *out = nullptr, std::string *err = nullptr);

// Waits for a child: its exit status, 128 + the signal that ended it, or -1.
int wait_child(pid_t pid);

// Forks a child that exits with fn's result; the child's pid (-1 if fork failed).
template <typename F> pid_t spawn(F fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    return pid;
}

// Runs fn in a child as spawn does and gives wait_child's result.
template <typename F> int in_child(F fn) { pid_t pid = spawn(fn); return pid < 0 ? -1 : wait_child(pid); }

// The lines of s without their ends; an unterminated last one ends in "<no newline>".
std::vector<std::string> split_lines(const std::string &s);

// POSIX extended regular expression search.
bool matches(const std::string &re, const std::string &text);

// Copies a malloc'ed string (or "<null>") and frees it; str copies without freeing.
std::string take(char *s);
inline std::string str(const char *s) { return s ? s : "<null>"; }

// One byte from fd, or -1 if none arrives within ms milliseconds.
int read_byte(int fd, int ms);

// A pipe closed when the object goes away.
struct Pipe : NoCopy {
    int r = -1, w = -1;
    Pipe();
    ~Pipe();
    static void shut(int &end) { close(end), end = -1; }  // closes one end early
};

// Sets TZ while it lives; the former value comes back afterwards.
class ScopedTZ : NoCopy {
  public:
    explicit ScopedTZ(const char *tz);
    ~ScopedTZ();

  private:
    bool had_ = false;
    std::string old_;
};

// s with every "\n" turned into "\r\n".
std::string crlf(const std::string &s);

// The words in network byte order, one behind the other.
std::string be32(std::initializer_list<uint32_t> words);
// The network-order word at byte off of s (which must hold 4 bytes there).
uint32_t be32_at(const std::string &s, size_t off);

// The names in a directory but "." and "..", sorted; none if it can't be read.
std::vector<std::string> dir_entries(const std::string &dir);

// The size of a file, or -1 if stat fails.
off_t file_size(const std::string &path);
bool file_exists(const std::string &path);

bool send_byte(int fd, char c);          // false if the byte could not be written
ino_t inode_of(const std::string &path);  // 0 if stat fails

// ---- the store in this process ---------------------------------------------

// Brings the store up in this process as the daemon does, as program prog. 0 or -1.
int start_store(const char *prog);
// Joins a store that the daemon runs as a short-lived program does
// (configuration, log, folder database); false if a step fails.
bool join_store(const char *prog);

// A store brought up in this process by start_store on an instance of its
// own with the configuration lines given; the folder database is left in
// TearDown, before the instance goes.
class StoreTest : public ::testing::Test {
  protected:
    explicit StoreTest(const std::string &config = "") : inst(config) {}
    void SetUp() override { ASSERT_EQ(start_store("storetest"), 0); }
    void TearDown() override { mboxlist_reset_for_tests(); }
    // Starts the store again with more configuration lines.
    void restart(const std::string &config) {
        mboxlist_reset_for_tests();
        inst.addConfig(config);
        ASSERT_EQ(start_store("storetest"), 0);
    }
    Instance inst;
};

// The directory of a folder on a partition as the folder database names it, or "".
std::string folder_dir(const char *name, const char *partition = "primary");

// Whether the folder database has a row for name.
bool has_row(const char *name);
// The ACL in name's row, its partition and summary where asked; "<no row>" if none.
std::string row_acl(const char *name, std::string *partition = nullptr, mboxdata *mbd = nullptr);

// Writes key with value into one of the store's databases in a transaction of its own.
bool db_put(DB *db, const std::string &key, const std::string &value);
// Whether one of the store's databases holds key.
bool db_has(DB *db, const std::string &key);

// Writes a folder's row straight into the folder database: under txn (the
// library's result), or in a transaction of its own.
int put_row(DB_TXN *txn, const char *name, uint32_t version = MAILBOX_VERSION, uint32_t exists = 0,
            const char *acl = "", uint32_t uidvalidity = 77, const char *partition = "primary");
void put_row(const char *name, uint32_t version, uint32_t exists, const char *acl,
             uint32_t uidvalidity = 77, const char *partition = "primary");

// Delivers n messages to an open folder the way the store lays them out: a
// message file "Subject: <uid>" under mpath, a record, an empty cache entry,
// then the header that counts them. Takes and drops the index lock.
void deliver(struct ::mailbox *mb, unsigned n);

// The files (no row) of a folder at dir on "primary" with n messages.
void make_folder(const char *name, const std::string &dir, const char *acl, uint32_t uidvalidity, unsigned n);

// Whether another process can take the index lock of the file at path now.
bool lockable_by_other(const std::string &path);

// A message as the scanner cuts it for delivery (CRLF line ends, no
// separator line); its text is "<refused>" if it is larger than max_size.
struct Scanned { std::string text; size_t size; time_t date; unsigned status, xstatus; size_t offset; };
// The messages of a mail file as the scanner cuts them (max_size 0: no
// limit); none if the file doesn't begin with a separator line.
std::vector<Scanned> scan_mbox(const std::string &data, size_t max_size = 0);
std::vector<std::string> scan_texts(const std::string &data);  // their texts only

// The three corpus files one behind the other, times over; the messages of one.
std::string corpus_all(int times = 1);
std::vector<std::string> corpus_messages(const std::string &name);

// A cache entry: per item a network-order length, the bytes, NULs up to a
// multiple of 4. cache_items gives the whole, well padded items at the
// start of entry (fewer than 11 if it is cut short or damaged).
std::string cache_entry(const std::vector<std::string> &items);
std::vector<std::string> cache_items(const std::string &entry);

// A record of "store.idx" and the bytes of its cache entry (the 11 items).
struct IndexEntry { index_record rec; std::string cache; };
// The records that the header of "store.idx" in dir counts (as many as the
// record area and the file hold); its summary where asked.
std::vector<IndexEntry> index_entries(const std::string &dir, mboxdata *mbd = nullptr);

// The path of the file of message uid in the open folder mb.
std::string message_file(const struct ::mailbox &mb, unsigned uid);

// A tmpfs mounted over dir (made if missing) with the mount options given
// ("size=2m", "size=2m,nr_inodes=64") while it lives; error holds the errno
// of a refused mount, and a test skips then.
class Tmpfs : NoCopy {
  public:
    Tmpfs(const std::string &dir, const std::string &options);
    ~Tmpfs();
    void fill() const;  // writes a file until no room is left
    std::string dir;
    int error = 0;
};

}  // namespace testutil

#endif

// Shared helpers of the tests: temporary directories, instances, corpus files.
#ifndef TESTS_TESTUTIL_H
#define TESTS_TESTUTIL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace testutil {

// A fresh directory under $TMPDIR (or /tmp), removed with its content when
// the object goes away.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A store instance made by scripts/new-instance in a temporary directory.
// While it lives, STORE_INSTANCEDIR names it, and the configuration of the
// process is dropped so that the next configmsg_init reads this instance.
class Instance {
  public:
    explicit Instance(const std::string &extra_config = "");
    ~Instance();
    const std::string &dir() const { return tmp_.path(); }
    std::string path(const std::string &rel) const { return tmp_.path() + "/" + rel; }
    // Appends "key: value" lines to the configuration file.
    void addConfig(const std::string &lines) const;

    // Runs the store daemon (build/bin/stored) for this instance as a child
    // and waits until it has declared the store ready. Returns false if it
    // ended instead; its exit status is then in storedStatus().
    bool startStored();
    // Ends the daemon with SIGTERM and returns its exit status.
    int stopStored();
    // Ends the daemon with SIGKILL, as a crash would.
    void killStored();
    int storedStatus() const { return storedStatus_; }
    int storedPid() const { return storedPid_; }

  private:
    TempDir tmp_;
    int storedPid_ = -1;
    int storedStatus_ = -1;
};

// Sends file descriptor 2 to a file while it lives.
class StderrCapture {
  public:
    StderrCapture();
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;
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

// Runs a shell command; returns its exit status (or -1) and captures
// standard output and standard error if the pointers are given.
int run_command(const std::string &cmd, std::string *out = nullptr, std::string *err = nullptr);

// Waits for a child: its exit status, 128 + the signal that ended it, or -1.
int wait_child(pid_t pid);

// Forks a child that runs fn (returning int) and exits with its result;
// gives the child's pid (-1 if fork failed).
template <typename F>
pid_t spawn(F fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    return pid;
}

// Runs fn in a child as spawn does and gives wait_child's result.
template <typename F>
int in_child(F fn) {
    pid_t pid = spawn(fn);
    return pid < 0 ? -1 : wait_child(pid);
}

// The lines of s without their ends; an unterminated last line is marked
// with "<no newline>".
std::vector<std::string> split_lines(const std::string &s);

// POSIX extended regular expression search.
bool matches(const std::string &re, const std::string &text);

// Copies a malloc'ed string (or "<null>") and frees it.
std::string take(char *s);

// One byte from fd, or -1 if none arrives within ms milliseconds.
int read_byte(int fd, int ms);

// A pipe closed when the object goes away.
struct Pipe {
    int r = -1, w = -1;
    Pipe();
    ~Pipe();
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
};

// Sets TZ while it lives; the former value comes back afterwards.
class ScopedTZ {
  public:
    explicit ScopedTZ(const char *tz);
    ~ScopedTZ();
    ScopedTZ(const ScopedTZ &) = delete;
    ScopedTZ &operator=(const ScopedTZ &) = delete;

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

// The size of a file, or -1 if stat fails.
off_t file_size(const std::string &path);
bool file_exists(const std::string &path);

}  // namespace testutil

#endif

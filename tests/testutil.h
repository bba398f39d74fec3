// Shared helpers of the tests: temporary directories, instances, corpus files.
#ifndef TESTS_TESTUTIL_H
#define TESTS_TESTUTIL_H

#include <string>

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

  private:
    TempDir tmp_;
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

}  // namespace testutil

#endif

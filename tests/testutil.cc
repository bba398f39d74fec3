#include "tests/testutil.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <ftw.h>

#include <fstream>
#include <sstream>

#include "support/config.h"

namespace testutil {

static std::string shell_quote(const std::string &s) {
    std::string r = "'";
    for (char c : s) {
        if (c == '\'')
            r += "'\\''";
        else
            r += c;
    }
    return r + "'";
}

TempDir::TempDir() {
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/storetest.XXXXXX";
    char *buf = strdup(tmpl.c_str());
    if (mkdtemp(buf)) path_ = buf;
    free(buf);
}

static int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}

TempDir::~TempDir() {
    if (!path_.empty()) nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

Instance::Instance(const std::string &extra_config) {
    std::string cmd = source_dir() + "/scripts/new-instance " + shell_quote(tmp_.path());
    std::string out, err;
    if (run_command(cmd, &out, &err) != 0) {
        fprintf(stderr, "new-instance failed: %s%s\n", out.c_str(), err.c_str());
        abort();
    }
    if (!extra_config.empty()) addConfig(extra_config);
    setenv("STORE_INSTANCEDIR", tmp_.path().c_str(), 1);
    configmsg_reset();
}

Instance::~Instance() {
    configmsg_reset();
    unsetenv("STORE_INSTANCEDIR");
}

void Instance::addConfig(const std::string &lines) const {
    std::ofstream f(tmp_.path() + "/config/store.conf", std::ios::app);
    f << lines;
    if (!lines.empty() && lines.back() != '\n') f << "\n";
}

StderrCapture::StderrCapture() : path_(tmp_.file("stderr")) {
    fflush(stderr);
    saved_ = dup(2);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
}

std::string StderrCapture::text() {
    fflush(stderr);
    return read_file(path_);
}

void StderrCapture::restore() {
    if (saved_ < 0) return;
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
}

std::string source_dir() {
    const char *s = getenv("STORE_SOURCE_DIR");
    return s && *s ? s : STORE_SOURCE_DIR;
}

std::string binary_dir() { return STORE_BINARY_DIR; }

std::string corpus_path(const std::string &name) {
    return source_dir() + "/../shared/corpus/" + name;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

int run_command(const std::string &cmd, std::string *out, std::string *err) {
    TempDir t;
    std::string full = "(" + cmd + ") >" + shell_quote(t.file("out")) + " 2>" +
                       shell_quote(t.file("err")) + " </dev/null";
    int st = system(full.c_str());
    if (out) *out = read_file(t.file("out"));
    if (err) *err = read_file(t.file("err"));
    if (st == -1) return -1;
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    return 128 + (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
}

}  // namespace testutil

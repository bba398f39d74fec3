#include "tests/testutil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <ftw.h>
#include <regex.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "import/importmail.h"
#include "store/mailbox_create.h"
#include "store/mboxlist_create.h"
#include "support/lock.h"

namespace testutil {

static std::string shell_quote(const std::string &s) {
    std::string r = "'";
    for (char c : s) r += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return r + "'";
}

// An exit status as the tests report it: the code, or 128 + the signal.
static int decode_status(int st) {
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
}

TempDir::TempDir() {
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/storetest.XXXXXX";
    if (mkdtemp(&tmpl[0])) path_ = tmpl;
}

TempDir::~TempDir() {
    auto remove_entry = [](const char *path, const struct stat *, int, struct FTW *) { return remove(path); };
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
    if (storedPid_ > 0) stopStored();
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

std::string StderrCapture::text() { fflush(stderr); return read_file(path_); }

void StderrCapture::restore() {
    if (saved_ < 0) return;
    fflush(stderr);
    dup2(saved_, 2), close(saved_), saved_ = -1;
}

bool Instance::startStored() {
    if (storedPid_ > 0) return true;
    std::string bin = binary_dir() + "/bin/stored", ready = path("data/store/stored.ready");
    std::string log = path("log/stored.out");
    fflush(nullptr);
    int pid = fork();
    if (pid == 0) {
        setenv("STORE_INSTANCEDIR", tmp_.path().c_str(), 1);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, 1), dup2(fd, 2);
        execl(bin.c_str(), "stored", (char *)nullptr);
        _exit(127);
    }
    if (pid < 0) return false;
    storedPid_ = pid;
    // Ready once the daemon holds the lock of its ready mark.
    for (int i = 0; i < 600; i++) {
        if (waitStored(0) >= 0) return false;
        int fd = open(ready.c_str(), O_RDONLY);
        bool held = fd >= 0 && flock(fd, LOCK_SH | LOCK_NB) != 0;
        if (fd >= 0) close(fd);  // and with it a shared lock that was had
        if (held) return true;
        usleep(50 * 1000);
    }
    killStored();
    return false;
}

int Instance::waitStored(int seconds) {
    for (int i = 0; storedPid_ > 0; i++) {
        int st;
        if (waitpid(storedPid_, &st, WNOHANG) == storedPid_) {
            storedPid_ = -1;
            storedStatus_ = decode_status(st);
        } else if (i >= seconds * 20) {
            return -1;
        } else {
            usleep(50 * 1000);
        }
    }
    return storedStatus_;
}

std::string Instance::newLog() {
    std::string all = read_file(path("log/store.log"));
    std::string r = all.size() > logSeen_ ? all.substr(logSeen_) : "";
    logSeen_ = all.size();
    return r;
}

int Instance::stopStored() {
    if (storedPid_ > 0) kill(storedPid_, SIGTERM);
    return waitStored(600);
}

void Instance::killStored() {
    if (storedPid_ > 0) kill(storedPid_, SIGKILL);
    waitStored(600);
}

std::string source_dir() {
    const char *s = getenv("STORE_SOURCE_DIR");
    return s && *s ? s : STORE_SOURCE_DIR;
}

std::string binary_dir() { return STORE_BINARY_DIR; }

std::string corpus_path(const std::string &name) { return source_dir() + "/../shared/corpus/" + name; }

std::string read_file(const std::string &path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

int Instance::run(const std::string &prog, const std::string &args, std::string *out, std::string *err,
                  int limit) const {
    return run_command("STORE_INSTANCEDIR=" + shell_quote(dir()) + " timeout -s KILL " + std::to_string(limit) +
                           " " + binary_dir() + "/bin/" + prog + " " + args, out, err);
}

int run_command(const std::string &cmd, std::string *out, std::string *err) {
    TempDir t;
    std::string full = "(" + cmd + ") >" + shell_quote(t.file("out")) + " 2>" +
                       shell_quote(t.file("err")) + " </dev/null";
    int st = system(full.c_str());
    if (out) *out = read_file(t.file("out"));
    if (err) *err = read_file(t.file("err"));
    return st == -1 ? -1 : decode_status(st);
}

int wait_child(pid_t pid) {
    int st = 0;
    return waitpid(pid, &st, 0) == pid ? decode_status(st) : -1;
}

std::vector<std::string> split_lines(const std::string &s) {
    std::vector<std::string> lines;
    for (size_t start = 0, nl; start < s.size(); start = nl + 1) {
        nl = s.find('\n', start);
        lines.push_back(nl == std::string::npos ? s.substr(start) + "<no newline>" : s.substr(start, nl - start));
        if (nl == std::string::npos) break;
    }
    return lines;
}

bool matches(const std::string &re, const std::string &text) {
    regex_t r;
    if (regcomp(&r, re.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
    bool ok = regexec(&r, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&r);
    return ok;
}

std::string take(char *s) {
    std::string r = s ? s : "<null>";
    free(s);
    return r;
}

int read_byte(int fd, int ms) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
    if (select(fd + 1, &set, nullptr, nullptr, &tv) <= 0) return -1;
    unsigned char c;
    if (read(fd, &c, 1) != 1) return -1;
    return c;
}

Pipe::Pipe() {
    int p[2];
    if (pipe(p) == 0) r = p[0], w = p[1];
}

Pipe::~Pipe() {
    if (r >= 0) close(r);
    if (w >= 0) close(w);
}

ScopedTZ::ScopedTZ(const char *tz) {
    if (const char *old = getenv("TZ")) had_ = true, old_ = old;
    setenv("TZ", tz, 1);
    tzset();
}

ScopedTZ::~ScopedTZ() { had_ ? setenv("TZ", old_.c_str(), 1) : unsetenv("TZ"); tzset(); }

std::string crlf(const std::string &s) {
    std::string out;
    for (char c : s) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out;
}

std::string be32(std::initializer_list<uint32_t> words) {
    std::string out;
    for (uint32_t w : words) {
        uint32_t n = htonl(w);
        out.append(reinterpret_cast<const char *>(&n), 4);
    }
    return out;
}

uint32_t be32_at(const std::string &s, size_t off) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(s.data()) + off;
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

std::vector<std::string> dir_entries(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

off_t file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

bool file_exists(const std::string &path) { return file_size(path) >= 0; }

bool send_byte(int fd, char c) { return write(fd, &c, 1) == 1; }

ino_t inode_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

int start_store(const char *prog) {
    configmsg_reset();
    if (configmsg_init(nullptr, 16, prog) != 0 || configmsg_initlog(nullptr, prog) != 0) return -1;
    return mboxlist_recover() == 0 ? 0 : -1;
}

bool join_store(const char *prog) {
    configmsg_reset();
    return configmsg_init(nullptr, 16, prog) == 0 && configmsg_initlog(nullptr, prog) == 0 && mboxlist_init() == 0;
}

std::string folder_dir(const char *name, const char *partition) {
    char path[MBOXLIST_PATH_BUFFER], mpath[MBOXLIST_PATH_BUFFER];
    return mboxlist_getpath(name, partition, path, mpath) == 0 ? path : "";
}

bool has_row(const char *name) {
    char *row = nullptr;
    int n = mboxlist_lookup_data(name, &row, nullptr);
    free(row);
    return n == 0;
}

std::string row_acl(const char *name, std::string *partition, mboxdata *mbd) {
    char *row = nullptr;
    if (mboxlist_lookup_data(name, &row, nullptr) != 0) return "<no row>";
    std::string acl = mboxlist_acl(row);
    if (partition) *partition = mboxlist_partition(row);
    if (mbd) memcpy(mbd, row, sizeof *mbd);
    free(row);
    return acl;
}

static void set_dbt(DBT *dbt, const std::string &s) {
    memset(dbt, 0, sizeof *dbt);
    dbt->data = const_cast<char *>(s.data()), dbt->size = (uint32_t)s.size(), dbt->flags = DB_DBT_READONLY;
}

bool db_put(DB *db, const std::string &k, const std::string &v) {
    DBT key, data;
    set_dbt(&key, k);
    set_dbt(&data, v);
    int r;
    do {
        DB_TXN *txn;
        if (mboxlist_trans_setup(&txn, "test", "raw") != 0) return false;
        r = mboxlist_trans_finish(txn, db->put(db, txn, &key, &data, 0));
    } while (r == DB_LOCK_DEADLOCK);
    return r == 0;
}

bool db_has(DB *db, const std::string &k) {
    DBT key, data;
    set_dbt(&key, k);
    memset(&data, 0, sizeof data);
    data.flags = DB_DBT_MALLOC;
    int r = db->get(db, nullptr, &key, &data, 0);
    free(data.data);
    return r == 0;
}

int put_row(DB_TXN *txn, const char *name, uint32_t version, uint32_t exists, const char *acl,
            uint32_t uidvalidity, const char *partition) {
    mboxdata mbd = {};
    mbd.version = version, mbd.exists = exists, mbd.uidvalidity = uidvalidity;
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, name, &mbd, partition, acl, nullptr);
    DB *db = mboxlist_db(MBOXLIST_FOLDERDB);
    int r = db->put(db, txn, &key, &data, 0);
    free(data.data);
    return r;
}

void put_row(const char *name, uint32_t version, uint32_t exists, const char *acl,
             uint32_t uidvalidity, const char *partition) {
    int r;
    do {
        DB_TXN *txn;
        ASSERT_EQ(mboxlist_trans_setup(&txn, "test", name), 0);
        r = mboxlist_trans_finish(txn, put_row(txn, name, version, exists, acl, uidvalidity, partition));
    } while (r == DB_LOCK_DEADLOCK);
    ASSERT_EQ(r, 0) << name;
}

void deliver(struct ::mailbox *mb, unsigned n) {
    ASSERT_EQ(mailbox_lock_index(mb), 0);
    std::vector<index_record> recs(n);
    for (unsigned i = 0; i < n; i++) {
        index_record &rec = recs[i];
        memset(&rec, 0, sizeof rec);
        rec.uid = mb->mbd.last_uid + 1 + i, rec.internaldate = 1000000 + (int)rec.uid;
        std::string text = "Subject: " + std::to_string(rec.uid) + "\r\n\r\nbody\r\n";
        rec.size = (uint32_t)text.size();
        struct stat st;
        ASSERT_EQ(fstat(mb->index_fd, &st), 0);
        rec.rec_cache_offset = (uint32_t)(st.st_size - mb->hdr.cache_offset);
        char zeros[4 * MAILBOX_CACHE_ITEMS] = {0};
        ASSERT_EQ(pwrite(mb->index_fd, zeros, sizeof zeros, st.st_size), (ssize_t)sizeof zeros);
        std::string file = message_file(*mb, rec.uid);
        mkdir(file.substr(0, file.rfind('/')).c_str(), 0777);
        write_file(file, text);
    }
    ASSERT_EQ(mailbox_append_index(mb, recs.data(), mb->mbd.exists + 1, n), 0);
    mb->mbd.exists += n;
    mb->mbd.last_uid += n;
    ASSERT_EQ(mailbox_write_index_fixed_header(mb), 0);
    mailbox_unlock_index(mb);
}

void make_folder(const char *name, const std::string &dir, const char *acl, uint32_t uidvalidity, unsigned n) {
    struct ::mailbox mb = zeromailbox;
    ASSERT_EQ(mailbox_create(name, "primary", dir.c_str(), nullptr, acl, MAILBOX_VERSION, &mb, uidvalidity),
              0) << name;
    deliver(&mb, n);
    mailbox_close(&mb);
}

bool lockable_by_other(const std::string &path) {
    return in_child([&path] {
               int fd = open(path.c_str(), O_RDWR);
               return fd >= 0 && lock_nonblocking(fd) == 0 ? 0 : 1;
           }) == 0;
}

static int add_scanned(void *rock, const ScannedMessage *m, int *) {
    if (m->text && m->text[m->size] != '\0') ADD_FAILURE() << "message at " << m->offset << " not NUL-terminated";
    static_cast<std::vector<Scanned> *>(rock)->push_back(
        {m->text ? std::string(m->text, m->size) : "<refused>", m->size, m->internalDate, m->statusFlags,
         m->xStatusFlags, m->offset});
    return m->text != nullptr;
}

std::vector<Scanned> scan_mbox(const std::string &data, size_t max_size) {
    std::vector<Scanned> out;
    FromLine first;
    if (!check_fromline(data.data(), data.data() + data.size(), &first)) return out;
    ScanHooks hooks = {add_scanned, nullptr, &out, max_size};
    scan_messages(data.data(), data.size(), -1, &first, &hooks);
    return out;
}

std::vector<std::string> scan_texts(const std::string &data) {
    std::vector<std::string> texts;
    for (const Scanned &m : scan_mbox(data)) texts.push_back(m.text);
    return texts;
}

std::string corpus_all(int times) {
    std::string all;
    for (int i = 0; i < times; i++)
        for (const char *f : {"list-archive.mbox", "kernel-list.mbox", "broken.mbox"})
            all += read_file(corpus_path(f));
    return all;
}

std::vector<std::string> corpus_messages(const std::string &name) {
    return scan_texts(read_file(corpus_path(name)));
}

std::string cache_entry(const std::vector<std::string> &items) {
    std::string s;
    for (const std::string &it : items)
        s += be32({(uint32_t)it.size()}) + it + std::string((4 - it.size() % 4) % 4, '\0');
    return s;
}

std::vector<std::string> cache_items(const std::string &entry) {
    std::vector<std::string> items;
    for (size_t p = 0, next; items.size() < MAILBOX_CACHE_ITEMS && p + 4 <= entry.size(); p = next) {
        uint32_t len = be32_at(entry, p);
        next = p + 4 + ((len + 3ull) & ~3ull);
        if (next > entry.size() || entry.find_first_not_of('\0', p + 4 + len) < next) break;
        items.push_back(entry.substr(p + 4, len));
    }
    return items;
}

std::vector<IndexEntry> index_entries(const std::string &dir, mboxdata *mbd) {
    std::string f = read_file(dir + "/store.idx");
    mboxdata m = {};
    index_header h = {};
    if (f.size() >= INDEX_HEADER_SIZE) {
        memcpy(&m, f.data(), sizeof m);
        memcpy(&h, f.data() + sizeof m, sizeof h);
    }
    std::vector<IndexEntry> out(m.exists);
    for (size_t i = 0; i < out.size(); i++) {
        if (h.start_offset + (i + 1) * INDEX_RECORD_SIZE > std::min(f.size(), (size_t)h.cache_offset)) {
            out.resize(i);
            break;
        }
        memcpy(&out[i].rec, f.data() + h.start_offset + i * INDEX_RECORD_SIZE, INDEX_RECORD_SIZE);
        size_t p = std::min(f.size(), (size_t)h.cache_offset + out[i].rec.rec_cache_offset), q = p;
        for (int k = 0; k < MAILBOX_CACHE_ITEMS && q + 4 <= f.size(); k++)
            q += 4 + ((be32_at(f, q) + 3) & ~3u);
        out[i].cache = f.substr(p, std::min(q, f.size()) - p);
    }
    if (mbd) *mbd = m;
    return out;
}

std::string message_file(const struct ::mailbox &mb, unsigned uid) {
    char fname[MAILBOX_FNAME_SIZE];
    return std::string(mb.mpath) + "/" + mailbox_message_fname(const_cast<mailbox *>(&mb), uid, fname);
}

Tmpfs::Tmpfs(const std::string &d, const std::string &options) : dir(d) {
    mkdir(dir.c_str(), 0777);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) != 0) error = errno;
}

Tmpfs::~Tmpfs() {
    if (!error) umount2(dir.c_str(), MNT_DETACH);
}

void Tmpfs::fill() const { run_command("cat /dev/zero >'" + dir + "/filler'"); }

}  // namespace testutil

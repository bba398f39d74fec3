#include "tests/testslapd.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace testutil {

static std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    int port = 0;
    if (fd >= 0 && bind(fd, (struct sockaddr *)&sa, sizeof sa) == 0 &&
        getsockname(fd, (struct sockaddr *)&sa, &len) == 0)
        port = ntohs(sa.sin_port);
    if (fd >= 0) close(fd);
    return port;
}

bool Slapd::run(const std::string &args) {
    std::string out, err, env;
    if (tls_) env = "TLS_CERT=" + quote(tmp_.file("ca/cert.pem")) + " TLS_KEY=" + quote(tmp_.file("key.pem")) + " ";
    int st = run_command(env + source_dir() + "/scripts/directory " + args, &out, &err);
    if (st != 0) ADD_FAILURE() << "scripts/directory " << args << ": status " << st << "\n" << out << err;
    return st == 0;
}

Slapd::Slapd(const std::string &ldif, bool tls) : tls_(tls) {
    if (access("/usr/sbin/slapd", X_OK) != 0 || access("/usr/bin/ldapmodify", X_OK) != 0) {
        ADD_FAILURE() << "slapd or ldap-utils is not installed (scripts/install-deps installs them)";
        return;
    }
    std::string out;
    if (tls && (mkdir(tmp_.file("ca").c_str(), 0700) != 0 ||
                run_command("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 "
                            "-addext subjectAltName=IP:127.0.0.1 -keyout " + quote(tmp_.file("key.pem")) +
                            " -out " + quote(tmp_.file("ca/cert.pem")), nullptr, &out) != 0)) {
        ADD_FAILURE() << "openssl could not make a certificate: " << out;
        return;
    }
    write_file(tmp_.file("tree.ldif"), std::string("dn: ") + kSuffix +
                                           "\nobjectClass: organization\no: store\n\n" + ldif);
    // Another program may take the port between free_port and slapd's bind: try a few.
    for (int attempt = 0; attempt < 3 && !running_; attempt++) {
        port_ = free_port();
        running_ = run("start " + quote(tmp_.file("srv")) + " " + std::to_string(port_) + " " +
                       quote(tmp_.file("tree.ldif")));
    }
    if (running_) pid_ = atoi(read_file(tmp_.file("srv/slapd.pid")).c_str());
}

// Whether every thread of process pid has stopped.
static bool all_stopped(pid_t pid) {
    std::string task = "/proc/" + std::to_string(pid) + "/task";
    std::vector<std::string> threads = dir_entries(task);
    for (const std::string &t : threads) {
        std::string stat = read_file(task + "/" + t + "/stat");
        size_t paren = stat.rfind(')');
        if (paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] != 'T') return false;
    }
    return !threads.empty();
}

// The signal takes effect a little after kill returns; the server must not
// answer once pause has returned.
void Slapd::pause() {
    if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0) return;
    for (int i = 0; i < 1000 && !all_stopped(pid_); i++) usleep(1000);
}
void Slapd::resume() { if (pid_ > 0) kill(pid_, SIGCONT); }

void Slapd::stop() {
    if (running_) run("stop " + quote(tmp_.file("srv")));
    running_ = false;
    pid_ = -1;
}

bool Slapd::start() {
    if (running_) return true;
    running_ = run("start " + quote(tmp_.file("srv")) + " " + std::to_string(port_));
    if (running_) pid_ = atoi(read_file(tmp_.file("srv/slapd.pid")).c_str());
    return running_;
}

bool Slapd::modify(const std::string &ldif) {
    write_file(tmp_.file("change.ldif"), ldif);
    std::string out, err;
    std::string env = tls_ ? "LDAPTLS_CACERTDIR=" + quote(caDir()) + " " : "";
    int st = run_command(env + "ldapmodify -x -H " + url() + " -D " + quote(kRootDN) + " -w " +
                         quote(kRootPW) + " -f " + quote(tmp_.file("change.ldif")), &out, &err);
    if (st != 0) ADD_FAILURE() << "ldapmodify: status " << st << "\n" << out << err;
    return st == 0;
}

std::string Slapd::storeConfig() const {
    return "local.ugldaphost: 127.0.0.1\nlocal.ugldapport: " + std::to_string(port_) +
           "\nlocal.ugldapbasedn: " + kSuffix + "\nlocal.ugldapbinddn: " + kRootDN +
           "\nlocal.ugldapbindcred: " + kRootPW + "\nservice.dcroot: " + kSuffix +
           "\nlocal.ugldaptimeout: 2\n";
}

}  // namespace testutil

// A private directory server for the tests: OpenLDAP's slapd started by
// scripts/directory on a free loopback port, with a tree of the test's own.
#ifndef TESTS_TESTSLAPD_H
#define TESTS_TESTSLAPD_H

#include <sys/types.h>

#include <string>

#include "tests/testutil.h"

namespace testutil {

// The server serves the suffix o=store: its entry is loaded first, then the
// entries of the LDIF text given. Anyone may read; Slapd::kRootDN with
// Slapd::kRootPW may write. The server is stopped when the object goes.
// When slapd is missing or doesn't start, the constructor fails the running
// test with the reason, and ok() is false. With tls the server speaks ldaps
// only, with a certificate for 127.0.0.1 made by openssl, which caDir()
// holds as the one trusted CA.
class Slapd : NoCopy {
  public:
    static constexpr const char *kSuffix = "o=store";
    static constexpr const char *kRootDN = "cn=admin,o=store";
    static constexpr const char *kRootPW = "store-admin";

    explicit Slapd(const std::string &ldif, bool tls = false);
    ~Slapd() { stop(); }
    bool ok() const { return running_; }
    int port() const { return port_; }
    std::string url() const {
        return (tls_ ? "ldaps" : "ldap") + std::string("://127.0.0.1:") + std::to_string(port_) + "/";
    }
    std::string caDir() const { return tls_ ? tmp_.file("ca") : ""; }

    void pause();   // SIGSTOP: connections are still accepted, nothing answers
    void resume();  // SIGCONT
    void stop();    // ends the server (a paused one too) and waits for it
    bool start();   // the same server again: same port, same data
    // Applies an LDIF of changes (ldapmodify) as the root DN; false with the
    // tool's output in the test's failure if it refuses.
    bool modify(const std::string &ldif);
    // "key: value" lines that point a store instance at this server.
    std::string storeConfig() const;

  private:
    bool run(const std::string &args);
    TempDir tmp_;
    int port_ = 0;
    bool tls_ = false;
    bool running_ = false;
    pid_t pid_ = -1;
};

// A loopback TCP port that nothing listens on at the moment of the call.
int free_port();

}  // namespace testutil

#endif

// The store daemon with its short-lived clients: readiness, clean ends,
// crashes of writers, and writers that contend.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "support/config.h"
#include "support/log.h"
#include "support/watch.h"
#include "tests/testutil.h"

using testutil::Instance;

namespace {

// Joins the store as a short-lived process would, in a forked child.
void join_store(const char *name) {
    configmsg_reset();
    if (configmsg_init(nullptr, 16, name) != 0 || configmsg_initlog(nullptr, name) != 0) _exit(90);
    if (mboxlist_init() != 0) _exit(91);
}

int put_row(const std::string &name, DB_TXN *txn) {
    struct mboxdata mbd;
    memset(&mbd, 0, sizeof(mbd));
    mbd.version = MAILBOX_VERSION;
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, name.c_str(), &mbd, "primary", "", nullptr);
    int r = mbl->put(mbl, txn, &key, &data, 0);
    free(data.data);
    return r;
}

// The folder names that have rows, read by a fresh short-lived process.
std::set<std::string> rows_in_store(const Instance &) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        join_store("reader");
        DBC *c;
        if (mbl->cursor(mbl, nullptr, &c, 0) != 0) _exit(92);
        DBT k, v;
        memset(&k, 0, sizeof(k));
        memset(&v, 0, sizeof(v));
        k.flags = v.flags = DB_DBT_MALLOC;
        std::string out;
        while (c->c_get(c, &k, &v, DB_NEXT) == 0) {
            out.append(static_cast<char *>(k.data), k.size);  // with its NUL
            free(k.data);
            free(v.data);
        }
        c->c_close(c);
        if (write(fds[1], out.data(), out.size()) != (ssize_t)out.size()) _exit(93);
        close(fds[1]);
        mboxlist_close();
        _exit(0);
    }
    close(fds[1]);
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) all.append(buf, (size_t)n);
    close(fds[0]);
    int st;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    std::set<std::string> names;
    size_t start = 0;
    for (size_t i = 0; i < all.size(); i++) {
        if (all[i] == '\0') {
            names.insert(all.substr(start, i - start));
            start = i + 1;
        }
    }
    return names;
}

std::string importmail() { return testutil::binary_dir() + "/bin/importmail"; }

}  // namespace

TEST(StoreDaemon, DeclaresReadyAndEndsCleanly) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    EXPECT_FALSE(store_session_ready_test("stored"));
    ASSERT_TRUE(inst.startStored()) << testutil::read_file(inst.path("log/stored.out"));
    EXPECT_TRUE(store_session_ready_test("stored"));
    for (const char *f : {"folder.db", "quota.db", "subscr.db", "lright.db", "peruser.db"})
        EXPECT_EQ(access(inst.path(std::string("data/store/mboxlist/") + f).c_str(), F_OK), 0) << f;
    std::string out = testutil::read_file(inst.path("log/stored.out"));
    EXPECT_NE(out.find("store ready"), std::string::npos) << out;

    // A second daemon for the same store refuses to start.
    std::string err;
    EXPECT_EQ(testutil::run_command("STORE_INSTANCEDIR='" + inst.dir() + "' " +
                                        testutil::binary_dir() + "/bin/stored",
                                    nullptr, &err),
              75);

    EXPECT_EQ(inst.stopStored(), 0);
    EXPECT_FALSE(store_session_ready_test("stored"));
    EXPECT_NE(access(inst.path("data/store/stored.ready").c_str(), F_OK), 0);
    std::string log = testutil::read_file(inst.path("log/store.log"));
    EXPECT_NE(log.find("stored: store closed"), std::string::npos);

    // A daemon that dies leaves no ready store behind.
    ASSERT_TRUE(inst.startStored());
    inst.killStored();
    EXPECT_FALSE(store_session_ready_test("stored"));

    // And the next start recovers the store that was left.
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(inst.stopStored(), 0);
}

TEST(StoreDaemon, ClientsNeedTheDaemon) {
    Instance inst;
    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox, "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    std::string cmd = "STORE_INSTANCEDIR='" + inst.dir() + "' " + importmail() + " -v 0 -u joe -s " + mbox;
    std::string err;
    EXPECT_EQ(testutil::run_command(cmd, nullptr, &err), 75);
    EXPECT_NE(err.find("Unable to verify start of store daemon (stored)."), std::string::npos) << err;
    EXPECT_NE(testutil::read_file(inst.path("log/store.log"))
                  .find("Unable to verify start of store daemon (stored)."),
              std::string::npos);

    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(testutil::run_command(cmd, nullptr, &err), 0) << err;
    // The session lock of the client is gone with it.
    std::string out;
    testutil::run_command("ls '" + inst.path("data/store/session") + "'", &out);
    EXPECT_EQ(out, "");
}

TEST(StoreDaemon, CommittedRowsSurviveAKilledWriter) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fflush(nullptr);
    pid_t writer = fork();
    if (writer == 0) {
        close(fds[0]);
        join_store("writer");
        for (int i = 0;; i++) {
            // One committed row, then one left open across the kill.
            std::string name = "user/c" + std::to_string(i);
            int r;
            do {
                DB_TXN *txn;
                if (mboxlist_trans_setup(&txn, "test", name.c_str())) _exit(94);
                r = mboxlist_trans_finish(txn, put_row(name, txn));
            } while (r == DB_LOCK_DEADLOCK);
            if (r) _exit(95);
            if (write(fds[1], &i, sizeof(i)) != (ssize_t)sizeof(i)) _exit(96);
            if (i == 200) {
                DB_TXN *open_txn;
                if (mboxlist_trans_setup(&open_txn, "test", "user/uncommitted")) _exit(97);
                put_row("user/uncommitted", open_txn);
                int done = -1;
                if (write(fds[1], &done, sizeof(done)) != (ssize_t)sizeof(done)) _exit(96);
                pause();
            }
        }
    }
    close(fds[1]);
    int last = -1, v;
    while (read(fds[0], &v, sizeof(v)) == (ssize_t)sizeof(v) && v != -1) last = v;
    ASSERT_EQ(last, 200);
    kill(writer, SIGKILL);
    int st;
    waitpid(writer, &st, 0);
    close(fds[0]);

    // The daemon ends and starts again, which recovers the store.
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_TRUE(inst.startStored());
    std::set<std::string> rows = rows_in_store(inst);
    for (int i = 0; i <= last; i++) EXPECT_TRUE(rows.count("user/c" + std::to_string(i))) << i;
    EXPECT_FALSE(rows.count("user/uncommitted"));
    EXPECT_EQ(rows.size(), (size_t)last + 1);
}

TEST(StoreDaemon, ContendingWritersBothFinish) {
    // Two writers update the same two rows in opposite orders, which makes
    // deadlocks; the daemon breaks them and the writers retry.
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    const int rounds = 150;
    pid_t pids[2];
    for (int w = 0; w < 2; w++) {
        fflush(nullptr);
        pids[w] = fork();
        if (pids[w] == 0) {
            join_store(w ? "writer-b" : "writer-a");
            const char *first = w ? "user/shared2" : "user/shared1";
            const char *second = w ? "user/shared1" : "user/shared2";
            for (int i = 0; i < rounds; i++) {
                std::string own = std::string("user/w") + (w ? "b" : "a") + std::to_string(i);
                int r;
                do {
                    DB_TXN *txn;
                    if (mboxlist_trans_setup(&txn, "test", own.c_str())) _exit(94);
                    r = put_row(first, txn);
                    if (r == 0) r = put_row(own, txn);
                    if (r == 0) r = put_row(second, txn);
                    r = mboxlist_trans_finish(txn, r);
                } while (r == DB_LOCK_DEADLOCK);
                if (r) _exit(95);
            }
            mboxlist_close();
            _exit(0);
        }
    }
    for (int w = 0; w < 2; w++) {
        int st;
        ASSERT_EQ(waitpid(pids[w], &st, 0), pids[w]);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    }
    std::set<std::string> rows = rows_in_store(inst);
    EXPECT_EQ(rows.size(), 2u + 2u * rounds);
    EXPECT_TRUE(rows.count("user/wa0") && rows.count("user/wb149"));
}

TEST(StoreDaemon, WatcherEnableAndServerUser) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    // A watcher on loopback: the client connects and registers.
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(lfd, 0);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(lfd, (struct sockaddr *)&addr, sizeof(addr)), 0);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(getsockname(lfd, (struct sockaddr *)&addr, &len), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    int port = ntohs(addr.sin_port);
    inst.addConfig("local.watcher.enable: on\nservice.listenaddr: 127.0.0.1\nlocal.watcher.port: " +
                   std::to_string(port));

    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox, "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    std::string cmd = "STORE_INSTANCEDIR='" + inst.dir() + "' " + importmail() + " -v 0 -u joe -s " + mbox;
    std::string err;
    ASSERT_EQ(testutil::run_command(cmd, nullptr, &err), 0) << err;
    int cfd = accept(lfd, nullptr, nullptr);
    ASSERT_GE(cfd, 0);
    char line[256] = {0};
    ssize_t n = read(cfd, line, sizeof(line) - 1);
    close(cfd);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(line).rfind("register importmail ", 0), 0u) << line;

    // Nobody listening: the program refuses to start.
    close(lfd);
    EXPECT_EQ(testutil::run_command(cmd, nullptr, &err), 75);
    EXPECT_NE(testutil::read_file(inst.path("log/store.log")).find("Cannot connect to the watcher process"),
              std::string::npos);

    if (geteuid() == 0) {
        Instance other("local.serveruser: no-such-user-here");
        ASSERT_TRUE(other.startStored() == false);
        EXPECT_EQ(other.storedStatus(), 78);
    }
}

TEST(StoreDaemon, StoreDisabledOpensNothing) {
    // A disabled store needs no daemon, and its programs open nothing.
    Instance inst("local.store.enable: off");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        configmsg_reset();
        if (configmsg_init(nullptr, 16, "off") != 0) _exit(90);
        int r = mboxlist_init();
        _exit(r == IMAP_MAILBOXLIST_NONEXISTENT && !mbl && !mboxlist_dbenv ? 0 : 1);
    }
    int st;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    std::string out;
    testutil::run_command("ls '" + inst.path("data/store/session") + "'", &out);
    EXPECT_EQ(out, "");
}

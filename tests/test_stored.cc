// The store daemon with its short-lived clients: readiness, clean ends,
// crashes of clients and of the daemon, daemons that race, and file systems
// that are full or pulled away.
#include <arpa/inet.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include "support/watch.h"
#include "tests/testutil.h"

using namespace testutil;

namespace {

// Commits rows prefix0 .. prefix(n-1), each in a transaction of its own;
// with first and second, each transaction writes those rows around its own
// (two writers naming them in opposite orders deadlock). 0 or the failure.
int commit_rows(const std::string &prefix, int n, const char *first = nullptr, const char *second = nullptr) {
    for (int i = 0, r = 0; i < n; i++) {
        std::string own = prefix + std::to_string(i);
        do {
            DB_TXN *txn;
            if (mboxlist_trans_setup(&txn, "test", own.c_str())) return -1;
            r = first ? put_row(txn, first) : 0;
            if (r == 0) r = put_row(txn, own.c_str());
            if (r == 0 && second) r = put_row(txn, second);
            r = mboxlist_trans_finish(txn, r);
        } while (r == DB_LOCK_DEADLOCK);
        if (r) return r;
    }
    return 0;
}

// How many of the rows prefix0 .. prefix(n-1) (n < 250) a fresh client finds.
int rows_found(const std::string &prefix, int n) {
    return in_child([&] {
        if (!join_store("reader")) return 90;
        int found = 0;
        for (int i = 0; i < n; i++) found += has_row((prefix + std::to_string(i)).c_str());
        return found;
    });
}

// Loads a one-message mail file as user joe; importmail's exit status.
int import(const Instance &inst, std::string *err = nullptr) {
    write_file(inst.path("in.mbox"), "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    return inst.run("importmail", "-v 0 -u joe -s " + inst.path("in.mbox"), nullptr, err);
}

// Whether the instance log has a line matching the regular expression.
bool logged(const Instance &inst, const std::string &re) {
    return matches(re, read_file(inst.path("log/store.log")));
}

}  // namespace

TEST(StoreDaemon, ReadinessCleanEndsAndCrashes) {
    // With the environment's region files in a directory of their own.
    Instance inst;
    inst.addConfig("store.dbtmpdir: " + inst.path("dbcache"));
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    std::string err;
    EXPECT_EQ(import(inst, &err), 75);  // no daemon, no client
    EXPECT_NE(err.find("Unable to verify start of store daemon (stored)."), std::string::npos) << err;
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_TRUE(store_session_ready_test("stored"));
    EXPECT_TRUE(file_exists(inst.path("dbcache/__db.001")));
    EXPECT_TRUE(file_exists(inst.path("data/store/mboxlist/folder.db")));
    EXPECT_EQ(import(inst, &err), 0) << err;
    EXPECT_EQ(dir_entries(inst.path("data/store/session")).size(), 0u);  // the client's session went with it
    // Clients killed while they hold sessions leave their files; the next
    // start removes them and keeps the file of the client that still runs.
    Pipe p;
    pid_t clients[4];
    for (pid_t &pid : clients) {
        pid = spawn([&] {
            if (!join_store("client")) return 90;
            send_byte(p.w, 'j');
            return pause();
        });
        ASSERT_EQ(read_byte(p.r, 30000), 'j');
    }
    for (int i = 0; i < 3; i++) kill(clients[i], SIGKILL), wait_child(clients[i]);
    EXPECT_EQ(inst.stopStored(), 0);
    EXPECT_FALSE(store_session_ready_test("stored"));
    EXPECT_TRUE(logged(inst, "stored: store closed"));
    ASSERT_TRUE(inst.startStored());
    std::vector<std::string> left = {"client." + std::to_string(clients[3])};
    EXPECT_EQ(dir_entries(inst.path("data/store/session")), left);
    kill(clients[3], SIGKILL), wait_child(clients[3]);
    // A daemon that dies leaves no ready store; the next recovers.
    inst.killStored();
    EXPECT_FALSE(store_session_ready_test("stored"));
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(import(inst), 0);
}

TEST(StoreDaemon, ClientsThatContendDieOrRegister) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    // The daemon breaks the writers' deadlocks over the shared rows.
    pid_t writers[2];
    for (int w = 0; w < 2; w++)
        writers[w] = spawn([w] {
            if (!join_store("writer")) return 90;
            return commit_rows(w ? "user/wb" : "user/wa", 150, w ? "user/shared1" : "user/shared0",
                               w ? "user/shared0" : "user/shared1");
        });
    for (pid_t pid : writers) EXPECT_EQ(wait_child(pid), 0);
    // A writer killed with a transaction open: what it committed stays.
    Pipe p;
    pid_t writer = spawn([&] {
        if (!join_store("writer")) return 90;
        if (commit_rows("user/c", 200) != 0) return 95;
        DB_TXN *open_txn;
        if (mboxlist_trans_setup(&open_txn, "test", "user/open")) return 97;
        put_row(open_txn, "user/open");
        send_byte(p.w, 'k');
        return pause();
    });
    ASSERT_EQ(read_byte(p.r, 30000), 'k');
    kill(writer, SIGKILL), wait_child(writer);
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(rows_found("user/c", 200), 200);
    EXPECT_EQ(rows_found("user/open", 1), 0);
    EXPECT_EQ(rows_found("user/wa", 150) + rows_found("user/wb", 150), 300);
    EXPECT_EQ(rows_found("user/shared", 2), 2);
    // A watcher on loopback: the client connects and registers.
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in addr = {};
    socklen_t len = sizeof(addr);
    ASSERT_EQ(listen(lfd, 4), 0);  // on a port of the system's choice
    ASSERT_EQ(getsockname(lfd, (struct sockaddr *)&addr, &len), 0);
    inst.addConfig("local.watcher.enable: on\nservice.listenaddr: 127.0.0.1\nlocal.watcher.port: " +
                   std::to_string(ntohs(addr.sin_port)));
    ASSERT_EQ(import(inst), 0);
    int cfd = accept(lfd, nullptr, nullptr);
    char line[256] = {0};
    EXPECT_GT(read(cfd, line, sizeof(line) - 1), 0);
    EXPECT_EQ(std::string(line).rfind("register importmail ", 0), 0u) << line;
    close(cfd);
    close(lfd);  // nobody listens: the program refuses to start
    EXPECT_EQ(import(inst), 75);
    if (geteuid() == 0) {
        Instance other("local.serveruser: no-such-user-here");
        EXPECT_FALSE(other.startStored());
        EXPECT_EQ(other.storedStatus(), 78);
    }
}

TEST(StoreDaemon, OneOfManySimultaneousDaemonsWins) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    const int racers = 8;
    auto race = [&](int i) { return inst.path("race." + std::to_string(i)); };
    for (int round = 0; round < 3; round++) {
        pid_t pids[racers];
        for (int i = 0; i < racers; i++)
            pids[i] = spawn([&] { return inst.run("stored", "-d 2>" + race(i), nullptr, nullptr, 60); });
        int winners = 0;
        for (int i = 0; i < racers; i++) {
            int status = wait_child(pids[i]);
            std::string err = read_file(race(i));
            winners += status == 0;
            EXPECT_TRUE(status == 0 || (status == 75 && err.find("another store daemon runs") !=
                                                            std::string::npos)) << status << err;
        }
        EXPECT_EQ(winners, 1) << "round " << round;
        EXPECT_EQ(import(inst), 0);  // the store works
        // The winner ends; its lock is free once it is gone.
        kill(atoi(read_file(inst.path("data/store/stored.ready")).c_str()), SIGTERM);
        int fd = open(inst.path("data/store/stored.lock").c_str(), O_RDONLY);
        for (int i = 0; i < 600 && flock(fd, LOCK_EX | LOCK_NB) != 0; i++) usleep(50 * 1000);
        close(fd);
    }
}

TEST(StoreFaults, DatabaseDirectoryRemovedUnderTheDaemon) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    ASSERT_TRUE(inst.startStored());
    ASSERT_EQ(run_command("rm -rf '" + inst.path("data/store/mboxlist") + "'"), 0);
    EXPECT_EQ(inst.waitStored(10), 75);
    EXPECT_FALSE(store_session_ready_test("stored"));
    EXPECT_TRUE(logged(inst, "critical: The folder database directory .* has been removed"));
}

TEST(StoreFaults, FullFileSystemIsNoDamage) {
    Instance inst;
    Tmpfs fs(inst.path("data/store"), "size=48m");
    if (fs.error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(fs.error);
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    // Committed and in the log, but their pages are still in the cache.
    ASSERT_EQ(in_child([] {
                  if (!join_store("writer")) return 90;
                  int r = commit_rows("user/keep", 250);
                  return r ? r : mboxlist_env()->log_flush(mboxlist_env(), nullptr);
              }), 0);
    // The final checkpoint has pages to write and no room for them.
    fs.fill();
    EXPECT_EQ(inst.stopStored(), 74);
    EXPECT_TRUE(logged(inst, "final checkpoint error"));
    // Without room for the environment the daemon refuses (75) and repairs nothing.
    ASSERT_EQ(run_command("cd '" + fs.dir + "'/mboxlist && rm -f __db.* folderlock/__db.*"), 0);
    fs.fill();
    EXPECT_TRUE(!inst.startStored() && inst.storedStatus() == 75) << inst.storedStatus();
    EXPECT_TRUE(logged(inst, "critical: .*the store cannot start: No space left"));
    EXPECT_FALSE(file_exists(fs.dir + "/mboxlist/removed"));
    unlink((fs.dir + "/filler").c_str());
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_EQ(rows_found("user/keep", 250), 250);
    // Logs that can't be dropped on a read-only file system: no repair runs.
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_EQ(run_command("rm '" + fs.dir + "'/mboxlist/log.*"), 0);
    ASSERT_EQ(mount(nullptr, fs.dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    inst.newLog();
    EXPECT_TRUE(!inst.startStored() && inst.storedStatus() == 75) << inst.storedStatus();
    std::string log = inst.newLog();
    EXPECT_NE(log.find("cannot start: Read-only file system while repairing"), std::string::npos) << log;
    EXPECT_FALSE(matches("Removing database (and|before)|Recovering", log)) << log;
    ASSERT_EQ(mount(nullptr, fs.dir.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_EQ(rows_found("user/keep", 250), 250);
}

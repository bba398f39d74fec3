// The store daemon with its short-lived clients: readiness, clean ends,
// crashes of clients and of the daemon, daemons that race, and file systems
// that are full, small or pulled away.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "support/config.h"
#include "support/watch.h"
#include "tests/testutil.h"

using testutil::Instance;
using testutil::in_child;
using testutil::read_file;
using testutil::run_command;

namespace {

// Joins the store as a short-lived process would, in a forked child.
void join_store(const char *name) {
    configmsg_reset();
    if (configmsg_init(nullptr, 16, name) != 0 || configmsg_initlog(nullptr, name) != 0) _exit(90);
    if (mboxlist_init() != 0) _exit(91);
}

// Writes one row of an empty folder under txn; the library's result.
int put_folder(const std::string &name, DB_TXN *txn) {
    struct mboxdata mbd = {};
    mbd.version = MAILBOX_VERSION;
    DBT key, data;
    mboxlist_create_struct(&key, &data, nullptr, name.c_str(), &mbd, "primary", "", nullptr);
    DB *db = mboxlist_db(MBOXLIST_FOLDERDB);
    int r = db->put(db, txn, &key, &data, 0);
    free(data.data);
    return r;
}

// Commits rows prefix0 .. prefix(n-1), each in a transaction of its own.
int commit_rows(const std::string &prefix, int n) {
    for (int i = 0; i < n; i++) {
        std::string name = prefix + std::to_string(i);
        int r;
        do {
            DB_TXN *txn;
            if (mboxlist_trans_setup(&txn, "test", name.c_str())) return -1;
            r = mboxlist_trans_finish(txn, put_folder(name, txn));
        } while (r == DB_LOCK_DEADLOCK);
        if (r) return r;
    }
    return 0;
}

// How many of the rows prefix0 .. prefix(n-1) a fresh client finds (at
// most 250), or 255 if it can't join the store.
int rows_found(const std::string &prefix, int n) {
    return in_child([&] {
        join_store("reader");
        int found = 0;
        for (int i = 0; i < n; i++) found += testutil::has_row((prefix + std::to_string(i)).c_str());
        return found;
    });
}

std::string env_of(const Instance &inst) { return "env STORE_INSTANCEDIR='" + inst.dir() + "' "; }
std::string bin(const char *name) { return testutil::binary_dir() + "/bin/" + name + " "; }

// Loads a one-message mail file as user joe; importmail's exit status.
int import(const Instance &inst, std::string *err = nullptr) {
    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox, "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    return run_command(env_of(inst) + bin("importmail") + "-v 0 -u joe -s " + mbox, nullptr, err);
}

std::string ls(const std::string &dir) {
    std::string out;
    run_command("ls '" + dir + "'", &out);
    return out;
}

// A tmpfs of the given size over dir while it lives (the store directory,
// with its subdirectories made again).
struct Tmpfs {
    std::string dir;
    int error = 0;
    Tmpfs(const std::string &d, const char *size) : dir(d) {
        std::string opts = std::string("size=") + size;
        if (mount("tmpfs", dir.c_str(), "tmpfs", 0, opts.c_str()) != 0) error = errno;
        mkdir((dir + "/session").c_str(), 0700);
    }
    ~Tmpfs() {
        if (!error) umount2(dir.c_str(), MNT_DETACH);
    }
    // Writes a file until the file system has no room left.
    void fill() {
        int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::string block(65536, 'f');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        while (write(fd, block.data(), 512) > 0) {
        }
        close(fd);
    }
};

#define MOUNT_OR_SKIP(fs) \
    if ((fs).error) GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror((fs).error)

}  // namespace

TEST(StoreDaemon, ReadyCleanEndAndCrash) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    std::string err;
    EXPECT_EQ(import(inst, &err), 75);  // no daemon, no client
    EXPECT_NE(err.find("Unable to verify start of store daemon (stored)."), std::string::npos) << err;

    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/stored.out"));
    EXPECT_TRUE(store_session_ready_test("stored"));
    EXPECT_EQ(import(inst, &err), 0) << err;
    EXPECT_EQ(ls(inst.path("data/store/session")), "");  // the client's session went with it
    EXPECT_EQ(inst.stopStored(), 0);
    EXPECT_FALSE(store_session_ready_test("stored"));
    EXPECT_NE(read_file(inst.path("log/store.log")).find("stored: store closed"), std::string::npos);

    // A daemon that dies leaves no ready store behind, and the next one
    // recovers what it left.
    ASSERT_TRUE(inst.startStored());
    inst.killStored();
    EXPECT_FALSE(store_session_ready_test("stored"));
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(import(inst), 0);
}

TEST(StoreDaemon, CommittedRowsSurviveAKilledWriter) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    testutil::Pipe p;
    pid_t writer = testutil::spawn([&] {
        join_store("writer");
        if (commit_rows("user/c", 200) != 0) return 95;
        DB_TXN *open_txn;  // left open across the kill
        if (mboxlist_trans_setup(&open_txn, "test", "user/open")) return 97;
        put_folder("user/open", open_txn);
        testutil::send_byte(p.w, 'k');
        pause();
        return 0;
    });
    ASSERT_EQ(testutil::read_byte(p.r, 30000), 'k');
    kill(writer, SIGKILL);
    testutil::wait_child(writer);
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(rows_found("user/c", 200), 200);
    EXPECT_EQ(rows_found("user/open", 1), 0);
}

TEST(StoreDaemon, ContendingWritersBothFinish) {
    // Two writers update the same two rows in opposite orders, which makes
    // deadlocks; the daemon breaks them and the writers retry.
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    pid_t pids[2];
    for (int w = 0; w < 2; w++) {
        pids[w] = testutil::spawn([w] {
            join_store(w ? "writer-b" : "writer-a");
            std::string first = w ? "user/shared1" : "user/shared0", second = w ? "user/shared0" : "user/shared1";
            for (int i = 0; i < 150; i++) {
                std::string own = std::string("user/w") + (w ? "b" : "a") + std::to_string(i);
                int r;
                do {
                    DB_TXN *txn;
                    if (mboxlist_trans_setup(&txn, "test", own.c_str())) return 94;
                    r = put_folder(first, txn);
                    if (r == 0) r = put_folder(own, txn);
                    if (r == 0) r = put_folder(second, txn);
                    r = mboxlist_trans_finish(txn, r);
                } while (r == DB_LOCK_DEADLOCK);
                if (r) return 95;
            }
            return 0;
        });
    }
    for (pid_t pid : pids) EXPECT_EQ(testutil::wait_child(pid), 0);
    EXPECT_EQ(rows_found("user/wa", 150), 150);
    EXPECT_EQ(rows_found("user/wb", 150), 150);
    EXPECT_EQ(rows_found("user/shared", 2), 2);
}

TEST(StoreDaemon, WatcherServerUserAndDisabledStore) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    // A watcher on loopback: the client connects and registers.
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(bind(lfd, (struct sockaddr *)&addr, sizeof(addr)), 0);
    ASSERT_EQ(getsockname(lfd, (struct sockaddr *)&addr, &len), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    inst.addConfig("local.watcher.enable: on\nservice.listenaddr: 127.0.0.1\nlocal.watcher.port: " +
                   std::to_string(ntohs(addr.sin_port)));
    ASSERT_EQ(import(inst), 0);
    int cfd = accept(lfd, nullptr, nullptr);
    char line[256] = {0};
    EXPECT_GT(read(cfd, line, sizeof(line) - 1), 0);
    close(cfd);
    EXPECT_EQ(std::string(line).rfind("register importmail ", 0), 0u) << line;
    close(lfd);  // nobody listens: the program refuses to start
    EXPECT_EQ(import(inst), 75);

    if (geteuid() == 0) {
        Instance other("local.serveruser: no-such-user-here");
        EXPECT_FALSE(other.startStored());
        EXPECT_EQ(other.storedStatus(), 78);
    }
    // A disabled store needs no daemon, and its programs open nothing.
    Instance off("local.store.enable: off");
    EXPECT_EQ(in_child([] {
                  configmsg_reset();
                  if (configmsg_init(nullptr, 16, "off") != 0) return 90;
                  int r = mboxlist_init();
                  return r == IMAP_MAILBOXLIST_NONEXISTENT && !mboxlist_env() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(ls(off.path("data/store/session")), "");
}

TEST(StoreDaemon, OneOfManySimultaneousDaemonsWins) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    const int racers = 8;
    for (int round = 0; round < 3; round++) {
        pid_t pids[racers];
        for (int i = 0; i < racers; i++) {
            std::string err = inst.path("race." + std::to_string(i));
            pids[i] = testutil::spawn([&] {
                return run_command("exec timeout 60 " + env_of(inst) + bin("stored") + "-d 2>" + err);
            });
        }
        int winners = 0;
        for (int i = 0; i < racers; i++) {
            int status = testutil::wait_child(pids[i]);
            std::string err = read_file(inst.path("race." + std::to_string(i)));
            if (status == 0) {
                winners++;
            } else {
                EXPECT_EQ(status, 75) << err;
                EXPECT_NE(err.find("another store daemon runs"), std::string::npos) << err;
            }
        }
        EXPECT_EQ(winners, 1) << "round " << round;
        EXPECT_EQ(in_child([] {
                      join_store("after-race");
                      return commit_rows("user/race", 3);
                  }),
                  0);
        EXPECT_EQ(rows_found("user/race", 3), 3);
        // The winner ends; its lock is free once it is gone.
        kill(atoi(read_file(inst.path("data/store/stored.ready")).c_str()), SIGTERM);
        int fd = open(inst.path("data/store/stored.lock").c_str(), O_RDONLY);
        for (int i = 0; i < 600 && flock(fd, LOCK_EX | LOCK_NB) != 0; i++) usleep(50 * 1000);
        close(fd);
    }
}

TEST(StoreDaemon, StaleSessionFilesGoAtTheNextStart) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    testutil::Pipe p;
    pid_t clients[4];
    for (int i = 0; i < 4; i++) {
        clients[i] = testutil::spawn([&] {
            join_store("client");
            testutil::send_byte(p.w, 'j');
            pause();
            return 0;
        });
        ASSERT_EQ(testutil::read_byte(p.r, 30000), 'j');
    }
    for (int i = 0; i < 3; i++) kill(clients[i], SIGKILL);
    for (int i = 0; i < 3; i++) testutil::wait_child(clients[i]);
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_TRUE(inst.startStored());
    EXPECT_EQ(ls(inst.path("data/store/session")), "client." + std::to_string(clients[3]) + "\n");
    kill(clients[3], SIGKILL);
    testutil::wait_child(clients[3]);
}

TEST(StoreDaemon, SeparateCacheDirectory) {
    Instance inst;
    inst.addConfig("store.dbtmpdir: " + inst.path("dbcache"));
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_TRUE(testutil::file_exists(inst.path("dbcache/__db.001")));
    EXPECT_TRUE(testutil::file_exists(inst.path("data/store/mboxlist/folder.db")));
    EXPECT_EQ(import(inst), 0);
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_EQ(import(inst), 0);
}

TEST(StoreFaults, DatabaseDirectoryRemovedUnderTheDaemon) {
    Instance inst;
    ASSERT_EQ(configmsg_init(nullptr, 16, "t"), 0);
    ASSERT_TRUE(inst.startStored());
    ASSERT_EQ(run_command("rm -rf '" + inst.path("data/store/mboxlist") + "'"), 0);
    EXPECT_EQ(inst.waitStored(10), 75);
    EXPECT_FALSE(store_session_ready_test("stored"));
    EXPECT_TRUE(testutil::matches("critical: The folder database directory .* has been removed",
                                  read_file(inst.path("log/store.log"))));
    // The next start comes up empty and says so.
    ASSERT_TRUE(inst.startStored());
    EXPECT_TRUE(testutil::matches("critical: mboxlist_init: the folder database in .* has vanished",
                                  read_file(inst.path("log/store.log"))));
}

TEST(StoreFaults, FullFileSystemIsNoDamage) {
    Instance inst;
    Tmpfs fs(inst.path("data/store"), "48m");
    MOUNT_OR_SKIP(fs);
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    // Committed and in the log, but their pages are still in the cache.
    ASSERT_EQ(in_child([] {
                  join_store("writer");
                  int r = commit_rows("user/keep", 250);
                  return r ? r : mboxlist_env()->log_flush(mboxlist_env(), nullptr);
              }),
              0);
    // The final checkpoint has pages to write and no room for them.
    fs.fill();
    EXPECT_EQ(inst.stopStored(), 74);
    EXPECT_NE(read_file(inst.path("log/store.log")).find("final checkpoint error"), std::string::npos);

    // Without room for the environment the daemon refuses and repairs nothing.
    ASSERT_EQ(run_command("rm -f '" + fs.dir + "'/mboxlist/__db.* '" + fs.dir +
                          "'/mboxlist/folderlock/__db.*"),
              0);
    fs.fill();
    EXPECT_FALSE(inst.startStored());
    EXPECT_EQ(inst.storedStatus(), 75);
    EXPECT_NE(read_file(inst.path("log/store.log")).find("the store cannot start: No space left"),
              std::string::npos);
    EXPECT_FALSE(testutil::file_exists(fs.dir + "/mboxlist/removed"));

    unlink((fs.dir + "/filler").c_str());
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_EQ(rows_found("user/keep", 250), 250);

    // Logs that can't be dropped on a read-only file system: no repair runs.
    EXPECT_EQ(inst.stopStored(), 0);
    ASSERT_EQ(run_command("rm '" + fs.dir + "'/mboxlist/log.*"), 0);
    ASSERT_EQ(mount(nullptr, fs.dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    size_t mark = read_file(inst.path("log/store.log")).size();
    EXPECT_FALSE(inst.startStored());
    EXPECT_EQ(inst.storedStatus(), 75);
    std::string log = read_file(inst.path("log/store.log")).substr(mark);
    EXPECT_NE(log.find("the store cannot start: Read-only"), std::string::npos) << log;
    EXPECT_FALSE(testutil::matches("Removing database (and|before)|Recovering", log)) << log;
    ASSERT_EQ(mount(nullptr, fs.dir.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    ASSERT_TRUE(inst.startStored()) << read_file(inst.path("log/store.log"));
    EXPECT_EQ(rows_found("user/keep", 250), 250);
}

TEST(StoreFaults, TooSmallFileSystemRefusesToStart) {
    Instance inst;
    Tmpfs fs(inst.path("data/store"), "2m");
    MOUNT_OR_SKIP(fs);
    std::string err;
    EXPECT_EQ(run_command(env_of(inst) + bin("stored") + "-d", nullptr, &err), 75) << err;
    EXPECT_NE(read_file(inst.path("log/store.log")).find("the store cannot start: No space left"),
              std::string::npos);
}

// Processes: lock_reopen's failures and the named mutexes between real
// processes, signals, descriptor limits and the process id. The blocking and
// trying locks are FolderOpen.LockWaitsForTheHolderNestsAndIsTried, a reopen
// that follows a replaced file FolderOpen.LockFollowsAReplacedIndex, the
// session lock StoreDaemon.OneOfManySimultaneousDaemonsWins.
#include <atomic>
#include <sched.h>
#include <sys/resource.h>
#include <thread>

#include "support/lock.h"
#include "support/osl.h"
#include "support/signals.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// Writes content to path and opens it read-write holding its lock.
int locked_file(const std::string &path, const std::string &content) {
    write_file(path, content);
    int fd = open(path.c_str(), O_RDWR);
    return fd >= 0 && lock_blocking(fd) == 0 ? fd : -1;
}

const char *kMutexName = "user/joe/Sent Items\tjoe peruser";

}  // namespace

// A file removed while a process waits for its lock fails at "opening" with
// the descriptor left open; one that can't be locked fails at "locking".
TEST(SupportLock, ReopenReportsGoneFileAndFailedSteps) {
    TempDir tmp;
    std::string path = tmp.file("store.exp");
    int fd = locked_file(path, "x");
    Pipe ready;
    pid_t pid = spawn([&] {
        int cfd = open(path.c_str(), O_RDWR);
        if (cfd < 0 || write(ready.w, "r", 1) != 1) return 10;
        struct stat sb;
        const char *action = nullptr;
        if (lock_reopen(cfd, path.c_str(), &sb, &action) != -1 || errno != ENOENT) return 11;
        if (!action || strcmp(action, "opening") != 0) return 12;
        return fcntl(cfd, F_GETFD) < 0 ? 13 : 0;
    });
    ASSERT_EQ('r', read_byte(ready.r, 5000));
    usleep(100 * 1000);
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, lock_unlock(fd));
    EXPECT_EQ(0, wait_child(pid));
    close(fd);
    write_file(path, "y");
    int rfd = open(path.c_str(), O_RDONLY);
    struct stat sb;
    const char *action = nullptr;
    EXPECT_EQ(-1, lock_reopen(rfd, path.c_str(), &sb, &action));
    EXPECT_STREQ("locking", action ? action : "<null>");
    EXPECT_EQ(EBADF, errno);
    close(rfd);
}

// Processes with a handle opened before fork (each needs a lock file
// description of its own) and threads sharing a handle or not lose no update.
TEST(SupportLock, GlobalMutexBetweenProcessesAndThreads) {
    Instance inst;
    std::string counter = inst.path("counter");
    write_file(counter, "0");
    db_globalmutex *m = db_globalmutex_open(kMutexName);
    ASSERT_NE(nullptr, m);
    std::vector<pid_t> pids;
    for (int p = 0; p < 4; p++)
        pids.push_back(spawn([&] {
            for (int i = 0; i < 150; i++) {
                if (db_globalmutex_hold(m) != 0) return 10;
                int v = atoi(read_file(counter).c_str());
                sched_yield();
                write_file(counter, std::to_string(v + 1));
                if (db_globalmutex_release(m) != 0) return 11;
            }
            return 0;
        }));
    for (pid_t pid : pids) EXPECT_EQ(0, wait_child(pid));
    EXPECT_EQ("600", read_file(counter));
    int count = 0;
    std::atomic<int> failures(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; t++)
        threads.emplace_back([&, t] {
            db_globalmutex *mine = t % 2 ? m : db_globalmutex_open(kMutexName);
            for (int i = 0; i < 300; i++) {
                if (db_globalmutex_hold(mine) != 0 && ++failures) continue;
                int v = *(volatile int *)&count;
                sched_yield();
                *(volatile int *)&count = v + 1;
                failures += db_globalmutex_release(mine) != 0;
            }
            if (mine != m) db_globalmutex_close(mine);
        });
    for (auto &t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(6 * 300, count);
    // Held twice by one process is refused; another process waiting on a held
    // mutex is SeenStore.MutexIsPerPairAndReleasedByClose.
    ASSERT_EQ(0, db_globalmutex_hold(m));
    EXPECT_EQ(EDEADLK, db_globalmutex_hold(m));
    ASSERT_EQ(0, db_globalmutex_release(m));
    EXPECT_NE(0, db_globalmutex_release(m));  // not held
    db_globalmutex_close(m);
    std::vector<std::string> files = dir_entries(inst.path("data/lock"));
    ASSERT_EQ(1u, files.size());
    EXPECT_NE(std::string::npos, files[0].find(".mutex"));
}

// Distinct names, also long ones and escaped ones, are distinct mutexes: one
// process holds all at once (a shared lock file would hang until the alarm).
TEST(SupportLock, GlobalMutexNames) {
    Instance inst;
    std::string longa(400, 'a'), longb = longa;
    longb[399] = 'b';
    const char *names[] = {"a/b", "a%2Fb", "..", longa.c_str(), longb.c_str()};
    EXPECT_EQ(0, in_child([&] {
                  alarm(10);
                  for (const char *n : names) {
                      db_globalmutex *held = db_globalmutex_open(n);
                      if (!held || db_globalmutex_hold(held) != 0) return 10;
                  }
                  return 0;
              }));
    std::vector<std::string> files = dir_entries(inst.path("data/lock"));
    EXPECT_EQ(5u, files.size());
    for (const std::string &f : files) EXPECT_LT(f.size(), 256u);
    EXPECT_EQ(EINVAL, db_globalmutex_hold(nullptr));
    db_globalmutex_close(nullptr);
}

TEST(Signals, ArrivalIsRecordedAndDoesNotKill) {
    for (int sig : {SIGTERM, SIGINT}) {
        ASSERT_EQ(set_signal_handler(sig, "delayed\n"), 0);
        signals_reset(sig);
    }
    StderrCapture err;
    ASSERT_EQ(raise(SIGTERM), 0);
    // Each signal on its own, silently; a reset forgets it.
    EXPECT_TRUE(check_signal_handler(SIGTERM) && !check_signal_handler(SIGINT) && err.text() == "");
    signals_reset(SIGTERM);
    EXPECT_FALSE(check_signal_handler(SIGTERM));
    EXPECT_TRUE(set_signal_handler(SIGKILL, "x") != 0 && set_signal_handler(0, "x") != 0 && !check_signal_handler(-3));
}

TEST(Signals, BlockingReadSurvivesASignal) {
    ASSERT_EQ(set_signal_handler(SIGUSR1, "usr1\n"), 0);
    signals_reset(SIGUSR1);
    Pipe p;
    pid_t parent = getpid(), pid = spawn([&] {
        usleep(150 * 1000);  // the parent is blocked in read by now
        kill(parent, SIGUSR1);
        usleep(150 * 1000);
        return write(p.w, "ok", 2) == 2 ? 0 : 1;
    });
    Pipe::shut(p.w);
    char buf[4];
    EXPECT_EQ(read(p.r, buf, 2), 2) << strerror(errno);  // restarted, not EINTR
    EXPECT_EQ(wait_child(pid), 0);
    EXPECT_TRUE(check_signal_handler(SIGUSR1));
    signals_reset(SIGUSR1);
}

TEST(Signals, DescriptorLimitAndProcessId) {
    struct rlimit rl, saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < 200) GTEST_SKIP() << "hard limit too low";
    rl = saved;
    rl.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    for (int want : {100, 80}) {  // raised, never lowered
        EXPECT_EQ(setmaxfd(want), 0);
        EXPECT_TRUE(getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur == 100u);
    }
    setrlimit(RLIMIT_NOFILE, &saved);
    // Not a value kept from before a fork.
    EXPECT_EQ(in_child([] { return process_id() == getpid() ? 0 : 1; }), 0);
}

// Signals, descriptor limits and the process id.
#include <sys/resource.h>

#include "support/osl.h"
#include "support/signals.h"
#include "tests/testutil.h"

TEST(Signals, ArrivalIsRecordedAndDoesNotKill) {
    for (int sig : {SIGTERM, SIGINT}) {
        ASSERT_EQ(set_signal_handler(sig, "delayed\n"), 0);
        signals_reset(sig);
    }
    testutil::StderrCapture err;
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
    testutil::Pipe p;
    pid_t parent = getpid(), pid = testutil::spawn([&] {
        usleep(150 * 1000);  // the parent is blocked in read by now
        kill(parent, SIGUSR1);
        usleep(150 * 1000);
        return write(p.w, "ok", 2) == 2 ? 0 : 1;
    });
    close(p.w);
    p.w = -1;
    char buf[4];
    EXPECT_EQ(read(p.r, buf, 2), 2) << strerror(errno);  // restarted, not EINTR
    EXPECT_EQ(testutil::wait_child(pid), 0);
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
    EXPECT_EQ(testutil::in_child([] { return process_id() == getpid() ? 0 : 1; }), 0);
}

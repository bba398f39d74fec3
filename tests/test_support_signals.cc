// Signals, descriptor limits, portability helpers and the plug-in loader.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "support/osl.h"
#include "support/plugin.h"
#include "support/signals.h"
#include "tests/testutil.h"

TEST(Signals, ArrivalIsRecordedAndDoesNotKill) {
    const char *text = "SIGTERM signal delayed while performing critical operations\n";
    ASSERT_EQ(set_signal_handler(SIGTERM, text), 0);
    ASSERT_EQ(set_signal_handler(SIGINT, "interupt signal delayed\n"), 0);
    signals_reset(SIGTERM);
    signals_reset(SIGINT);
    EXPECT_FALSE(check_signal_handler(SIGTERM));

    testutil::StderrCapture err;
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_TRUE(check_signal_handler(SIGTERM));
    EXPECT_FALSE(check_signal_handler(SIGINT));  // each signal on its own
    EXPECT_EQ(err.text(), "");                   // outside a critical section: silent

    // Inside a critical section the text is printed, once per arrival;
    // nested sections end only with the outermost.
    signals_critical_begin();
    signals_critical_begin();
    ASSERT_EQ(raise(SIGTERM), 0);
    signals_critical_end();
    ASSERT_EQ(raise(SIGINT), 0);
    signals_critical_end();
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_EQ(err.text(), std::string(text) + "interupt signal delayed\n");
    EXPECT_TRUE(check_signal_handler(SIGINT));

    signals_reset(SIGTERM);
    EXPECT_FALSE(check_signal_handler(SIGTERM));
    EXPECT_TRUE(check_signal_handler(SIGINT));
    signals_reset(SIGINT);

    EXPECT_NE(set_signal_handler(SIGKILL, "x"), 0);
    EXPECT_NE(set_signal_handler(0, "x"), 0);
    EXPECT_FALSE(check_signal_handler(-3));
}

TEST(Signals, BlockingReadSurvivesASignal) {
    ASSERT_EQ(set_signal_handler(SIGUSR1, "usr1\n"), 0);
    signals_reset(SIGUSR1);
    testutil::Pipe p;
    pid_t parent = getpid();
    pid_t pid = testutil::spawn([&] {
        usleep(150 * 1000);  // the parent is blocked in read by now
        kill(parent, SIGUSR1);
        usleep(150 * 1000);
        return write(p.w, "ok", 2) == 2 ? 0 : 1;
    });
    close(p.w);
    p.w = -1;
    char buf[4] = {0};
    ssize_t n = read(p.r, buf, 2);
    int err = errno;
    EXPECT_EQ(testutil::wait_child(pid), 0);
    EXPECT_EQ(n, 2) << strerror(err);  // restarted, not EINTR
    EXPECT_STREQ(buf, "ok");
    EXPECT_TRUE(check_signal_handler(SIGUSR1));
    signals_reset(SIGUSR1);
}

TEST(Signals, DescriptorLimitAndProcessId) {
    struct rlimit rl;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
    struct rlimit saved = rl;
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < 200) GTEST_SKIP() << "hard limit too low";
    rl.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);

    for (int want : {100, 80}) {  // raised, never lowered
        EXPECT_EQ(setmaxfd(want), 0);
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
        EXPECT_EQ(rl.rlim_cur, 100u);
    }
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < (rlim_t)1 << 30) {
        // Beyond the hard limit: raised to the hard limit.
        EXPECT_EQ(setmaxfd((int)rl.rlim_max + 1000), 0);
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
        EXPECT_EQ(rl.rlim_cur, rl.rlim_max);
    }
    setrlimit(RLIMIT_NOFILE, &saved);

    // Not a value kept from before a fork.
    EXPECT_EQ(process_id(), getpid());
    EXPECT_EQ(testutil::in_child([] { return process_id() == getpid() ? 0 : 1; }), 0);
}

TEST(Portability, MkdirAndHostLookup) {
    testutil::TempDir tmp;
    std::string d = tmp.file("sub");
    EXPECT_EQ(osl_mkdir(d.c_str(), 0777), 0);
    for (const auto &bad : {std::make_pair(d, EEXIST), std::make_pair(tmp.file(std::string(300, 'n')), ENAMETOOLONG)}) {
        errno = 0;
        EXPECT_EQ(osl_mkdir(bad.first.c_str(), 0777), -1);
        EXPECT_EQ(errno, bad.second);
    }
    osl_sleep(0);

    // An odd start address: the record must still be usable, and lie in it.
    static char buf[OSL_HOSTENT_BUFSIZE + 1];
    struct hostent *he = osl_gethostbyname("localhost", buf + 1);
    ASSERT_NE(he, nullptr);
    ASSERT_NE(he->h_addr_list[0], nullptr);
    for (const char *at : {(const char *)he, (const char *)he->h_addr_list[0]})
        EXPECT_TRUE(at >= buf + 1 && at < buf + 1 + OSL_HOSTENT_BUFSIZE);
    EXPECT_EQ(osl_gethostbyname("no-such-host.invalid", buf), nullptr);
}

TEST(Plugins, LoadLookUpAndShutDown) {
    svcplugin *p = svcpluginload("libc.so.6", "some text");
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(svcpluginload_text(p), "some text");
    EXPECT_EQ(*(void **)p, nullptr);  // no init entry: no context
    typedef size_t (*strlen_fn)(const char *);
    strlen_fn f = (strlen_fn)svcpluginload_getfunc(p, "strlen");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f("four"), 4u);
    EXPECT_EQ(svcpluginload_getfunc(p, "no_such_symbol_anywhere"), nullptr);
    svcpluginload_shutdown(p);

    p = svcpluginload("libc.so.6", nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(svcpluginload_text(p), "");
    svcpluginload_shutdown(p);

    // Failure: null, and an error entry with the loader's reason (the log
    // isn't open here, so it goes to standard error).
    testutil::StderrCapture err;
    EXPECT_EQ(svcpluginload("/nonexistent/libplug.so", "t"), nullptr);
    std::string text = err.text();
    for (const char *part : {"error: ", "/nonexistent/libplug.so", "No such file"})
        EXPECT_NE(text.find(part), std::string::npos) << text;
}

// Signals, descriptor limits, portability helpers and the plug-in loader.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

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
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t parent = getpid();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        usleep(150 * 1000);  // the parent is blocked in read by now
        kill(parent, SIGUSR1);
        usleep(150 * 1000);
        ssize_t w = write(fds[1], "ok", 2);
        _exit(w == 2 ? 0 : 1);
    }
    close(fds[1]);
    char buf[4] = {0};
    ssize_t n = read(fds[0], buf, 2);
    int err = errno;
    close(fds[0]);
    int st;
    waitpid(pid, &st, 0);
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

    EXPECT_EQ(setmaxfd(100), 0);
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
    EXPECT_EQ(rl.rlim_cur, 100u);
    EXPECT_EQ(setmaxfd(80), 0);  // never lowered
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
    EXPECT_EQ(rl.rlim_cur, 100u);
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < (rlim_t)1 << 30) {
        // Beyond the hard limit: raised to the hard limit.
        EXPECT_EQ(setmaxfd((int)rl.rlim_max + 1000), 0);
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
        EXPECT_EQ(rl.rlim_cur, rl.rlim_max);
    }
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(process_id(), getpid());
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        pid_t mine = process_id();
        ssize_t w = write(fds[1], &mine, sizeof mine);
        _exit(w == sizeof mine ? 0 : 1);
    }
    pid_t child = 0;
    ASSERT_EQ(read(fds[0], &child, sizeof child), (ssize_t)sizeof child);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(child, pid);
}

TEST(Portability, MkdirAndHostLookup) {
    testutil::TempDir tmp;
    std::string d = tmp.file("sub");
    EXPECT_EQ(osl_mkdir(d.c_str(), 0777), 0);
    errno = 0;
    EXPECT_EQ(osl_mkdir(d.c_str(), 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    std::string longname = tmp.file(std::string(300, 'n'));
    errno = 0;
    EXPECT_EQ(osl_mkdir(longname.c_str(), 0777), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    osl_sleep(0);

    static char buf[OSL_HOSTENT_BUFSIZE + 1];
    // An odd start address: the record must still be usable.
    struct hostent *he = osl_gethostbyname("localhost", buf + 1);
    ASSERT_NE(he, nullptr);
    EXPECT_GE((char *)he, buf + 1);
    EXPECT_LT((char *)he, buf + 1 + OSL_HOSTENT_BUFSIZE);
    ASSERT_NE(he->h_addr_list[0], nullptr);
    EXPECT_GE(he->h_addr_list[0], buf + 1);
    EXPECT_LT(he->h_addr_list[0], buf + 1 + OSL_HOSTENT_BUFSIZE);
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
    EXPECT_NE(text.find("error: "), std::string::npos) << text;
    EXPECT_NE(text.find("/nonexistent/libplug.so"), std::string::npos) << text;
    EXPECT_NE(text.find("No such file"), std::string::npos) << text;
}

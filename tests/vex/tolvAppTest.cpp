#include "tolv/vex/tolvApp.hpp"

#include "support/childProcess.hpp"
#include "support/expectAbort.hpp"
#include "support/fakeDispatcher.hpp"
#include "tolv/vex/tolvSctpLinkCheck.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <memory>
#include <string>
#include <vector>

using namespace tolv;

namespace
{

constexpr int SET_UP_RESULT = 4711;

bool g_forkFails = false;
std::vector<std::string> g_calls; // in the daemon, after the fork

/// What a daemon tells the test about itself.
struct Report
{
    pid_t pid;
    pid_t parent;
    pid_t session;
    pid_t kept; // App::getPid()
    int result; // of Daemonize()
    unsigned int mask;
    char folder[16];
    char calls[80];
};

Report selfReport(const App& i_app, int i_result)
{
    Report l_report = {};
    l_report.pid = getpid();
    l_report.parent = getppid();
    l_report.session = getsid(0);
    l_report.kept = i_app.getPid();
    l_report.result = i_result;
    l_report.mask = umask(0);
    if (getcwd(l_report.folder, sizeof(l_report.folder)) == nullptr)
    {
        l_report.folder[0] = '?';
    }
    std::string l_calls;
    for (const std::string& l_call : g_calls)
    {
        l_calls += (l_calls.empty() ? "" : " ") + l_call + ",";
    }
    l_calls.copy(l_report.calls, sizeof(l_report.calls) - 1);
    return l_report;
}

/// Makes the calling process's child a daemon that reports.
///
/// Returns: the status of the process that detached it.
int runDaemon(Report& o_report)
{
    int l_pipe[2] = {-1, -1};
    EXPECT_EQ(0, pipe(l_pipe));
    const pid_t l_child = startChild(
        [&]
        {
            umask(077);
            App l_app;
            atexit([] { _exit(9); }); // must not run
            const int l_result = l_app.Daemonize();
            const Report l_report = selfReport(l_app, l_result);
            const ssize_t l_written =
                write(l_pipe[1], &l_report, sizeof(l_report));
            _exit(l_written == sizeof(l_report) ? 0 : 1);
        });
    close(l_pipe[1]);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(o_report)),
              read(l_pipe[0], &o_report, sizeof(o_report)));
    close(l_pipe[0]);
    return waitForChild(l_child);
}

} // namespace

extern "C"
{
    pid_t __real_fork();
    pid_t __wrap_fork()
    {
        if (g_forkFails)
        {
            errno = EAGAIN;
            return -1;
        }
        return __real_fork();
    }

    pid_t __real_setsid();
    pid_t __wrap_setsid()
    {
        g_calls.emplace_back("setsid");
        return __real_setsid();
    }

    int __real_chdir(const char* i_path);
    int __wrap_chdir(const char* i_path)
    {
        g_calls.push_back(std::string("chdir ") + i_path);
        return __real_chdir(i_path);
    }

    // PlatformProcessSetup()
    // cppcheck-suppress constParameter; the declaration is the platform's
    int __wrap__Z20PlatformProcessSetupPvb(void* i_argument, bool i_flag)
    {
        g_calls.push_back(std::string("setup ") +
                          (i_argument == nullptr ? "null" : "?") +
                          (i_flag ? " true" : " false"));
        return SET_UP_RESULT;
    }

    mode_t __real_umask(mode_t i_mask);
    mode_t __wrap_umask(mode_t i_mask)
    {
        g_calls.push_back("umask " + std::to_string(i_mask));
        return __real_umask(i_mask);
    }
}

TEST(AppTest, RecordsTheProcessThatMadeIt)
{
    EXPECT_EQ(getpid(), App().getPid());
}

TEST(AppTest, DaemonLeadsASessionOfItsOwn)
{
    Report l_report = {};
    const int l_status = runDaemon(l_report);
    EXPECT_TRUE(WIFEXITED(l_status) && WEXITSTATUS(l_status) == 0)
        << "the parent ends at once: " << l_status;
    EXPECT_NE(getpid(), l_report.pid);
    EXPECT_EQ(l_report.pid, l_report.session);
    EXPECT_STREQ("/", l_report.folder);
    EXPECT_EQ(0U, l_report.mask);
}

TEST(AppTest, DaemonKeepsTheZeroThatForkReturned)
{
    Report l_report = {};
    runDaemon(l_report);
    EXPECT_EQ(0, l_report.kept);
}

TEST(AppTest, DaemonDetachesInTheStatedOrder)
{
    Report l_report = {};
    runDaemon(l_report);
    EXPECT_STREQ(
        "umask 63, setsid, chdir /, umask 0, setup null true, umask 0,",
        l_report.calls)
        << "the first and the last are the test's";
}

TEST(AppTest, DaemonReturnsWhatThePlatformsSetUpDoes)
{
    Report l_report = {};
    runDaemon(l_report);
    EXPECT_EQ(SET_UP_RESULT, l_report.result);
}

TEST(AppDeathTest, FailedForkAborts)
{
    EXPECT_ABORT({
        g_forkFails = true; // not before: the death test forks as well
        App().Daemonize();
    });
}

TEST(AppDeathTest, AbendAborts)
{
    EXPECT_ABORT(App().Abend());
}

TEST(AppDeathTest, ExitEndsWithStatusZeroWithoutExitHandlers)
{
    EXPECT_EXIT(
        {
            atexit([] { _exit(9); });
            App().Exit();
        },
        ::testing::ExitedWithCode(0), "^$|qemu");
}

TEST(AppTest, RunServesAsAThreadOfTheDispatcher)
{
    FakeDispatcher l_dispatcher;
    App l_app;
    l_app.Run(l_dispatcher);
    EXPECT_EQ(1, l_dispatcher.processEventsCalls);
}

TEST(AppTest, EnableSctpChecksEverySixtySeconds)
{
    FakeDispatcher l_dispatcher;
    App l_app;
    EXPECT_EQ(1U, l_app.EnableSCTP(l_dispatcher));
    ASSERT_EQ(1U, l_dispatcher.timers.size());
    EXPECT_EQ(TimeValue(60, 0), l_dispatcher.timers[0].timeOut);
    const std::unique_ptr<EventHandler> l_check(l_dispatcher.timers[0].handler);
    EXPECT_NE(nullptr, dynamic_cast<SctpLinkCheckEH*>(l_check.get()));
}

TEST(AppTest, EnableSctpTwiceAddsTwoIndependentChecks)
{
    FakeDispatcher l_dispatcher;
    App l_app;
    EXPECT_EQ(1U, l_app.EnableSCTP(l_dispatcher));
    EXPECT_EQ(2U, l_app.EnableSCTP(l_dispatcher));
    ASSERT_EQ(2U, l_dispatcher.timers.size());
    const std::unique_ptr<EventHandler> l_first(l_dispatcher.timers[0].handler);
    const std::unique_ptr<EventHandler> l_second(
        l_dispatcher.timers[1].handler);
    EXPECT_NE(l_first, l_second);
}

TEST(AppTest, DumpPrintsNothing)
{
    ::testing::internal::CaptureStdout();
    App().Dump(stdout);
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

#include "tolv/vex/tolvApp.hpp"

#include "tolv/platform/processSetup.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvSctpLinkCheck.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace
{

// How often associations are looked at, in seconds.
constexpr unsigned int LINK_CHECK_PERIOD = 60;

} // namespace

namespace tolv
{

App::App() : iv_Pid(getpid()) {}

App::~App() = default;

void App::Dump(FILE* /*o_stream*/) {}

void App::Run(Dispatcher& io_dispatcher)
{
    io_dispatcher.ProcessEvents();
}

// Deliberate: the identifier is what fork() gave, not asked for again.
// Effect: getPid() is 0 in a daemon.
// Pinned by: AppTest.DaemonKeepsTheZeroThatForkReturned
int App::Daemonize()
{
    iv_Pid = fork();
    if (iv_Pid < 0)
    {
        Abend();
    }
    if (iv_Pid > 0)
    {
        Exit();
    }
    setsid();
    // "/" can always be entered, and a daemon has nobody to tell.
    const int l_ignored = chdir("/");
    static_cast<void>(l_ignored);
    umask(0);
    return PlatformProcessSetup(nullptr, true);
}

// These take no notice of the object, but are called on one.
// NOLINTBEGIN(readability-convert-member-functions-to-static)
void App::Abend()
{
    std::abort();
}

void App::Exit()
{
    _exit(0);
}

Timer_t App::EnableSCTP(Dispatcher& io_dispatcher)
{
    SctpLinkCheckEH* l_check = new SctpLinkCheckEH(io_dispatcher);
    OS_TIMEOUT l_period(LINK_CHECK_PERIOD);
    return io_dispatcher.AddTimer(*l_check, l_period);
}
// NOLINTEND(readability-convert-member-functions-to-static)

} // namespace tolv

// Watches the size of a file with timers alone: looks often while the file
// changes and ever less often while it does not, and tells every second how
// often it has looked. Ends on SIGTERM, or when the file has gone.
//
// Usage: timerDaemon FILE
#include <tolv/tolv.hpp>

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <ctime>

#include <algorithm>

namespace
{

constexpr unsigned int SHORTEST = 10000; // between two looks, microseconds
constexpr unsigned int LONGEST = 640000;

/// One handler with two timers.
///
/// The dispatcher serves from its construction on, so a timer may tick before
/// AddTimer() has told which one it is: the lock makes it wait.
class FileWatch : public tolv::EventHandler
{
  public:
    FileWatch(tolv::Dispatcher& io_dispatcher, const char* i_path,
              const sigset_t& i_signals) :
        EventHandler(io_dispatcher),
        iv_Path(i_path), iv_Signals(i_signals)
    {
        tolv::OS_TIMEOUT l_atOnce;
        tolv::OS_TIMEOUT l_second(1);
        const tolv::MutexLock l_lock(iv_Lock);
        iv_Look = iv_Dispatcher.AddTimer(*this, l_atOnce);
        iv_Report = iv_Dispatcher.AddTimer(*this, l_second);
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "watch of %s\n", iv_Path);
    }

    /// Not called: no descriptor is registered.
    ACTION HandleEvent(tolv::OS_HANDLE, EVENT) override
    {
        return ACTION_UNREGISTER;
    }

    ACTION TimerTick(tolv::Timer_t i_timer, EVENT i_event) override
    {
        const tolv::MutexLock l_lock(iv_Lock);
        if (i_event == EVENT_SHUTDOWN)
        {
            std::printf("no more %s\n",
                        i_timer == iv_Look ? "looks" : "reports");
            return ACTION_CONTINUE;
        }
        return i_timer == iv_Look ? look() : report();
    }

  private:
    ACTION look() TOLV_REQUIRES(iv_Lock)
    {
        struct stat l_status = {};
        ++iv_Looks;
        if (stat(iv_Path, &l_status) != 0)
        {
            std::printf("gone\n");
            iv_Dispatcher.CancelTimer(iv_Report);
            iv_Dispatcher.DeferredShutdown(10);
            return ACTION_UNREGISTER; // this was the last look
        }
        if (l_status.st_size != iv_Size)
        {
            iv_Size = l_status.st_size;
            iv_Period = SHORTEST;
            std::printf("%lli bytes\n", static_cast<long long>(iv_Size));
            std::fflush(stdout);
        }
        else
        {
            iv_Period = std::min(iv_Period * 2, LONGEST);
        }
        tolv::OS_TIMEOUT l_period(0, iv_Period);
        iv_Dispatcher.UpdateTimer(*this, iv_Look, l_period);
        return ACTION_CONTINUE; // with the new period
    }

    // Signals are blocked; a daemon that waits for no descriptor asks for them
    // now and then.
    ACTION report() TOLV_REQUIRES(iv_Lock)
    {
        const timespec l_noWait = {};
        std::printf("looked %u times\n", iv_Looks);
        std::fflush(stdout);
        if (sigtimedwait(&iv_Signals, nullptr, &l_noWait) != -1)
        {
            iv_Dispatcher.DeferredShutdown(10);
        }
        return ACTION_CONTINUE;
    }

    const char* const iv_Path;
    const sigset_t iv_Signals;
    tolv::Mutex iv_Lock;
    tolv::Timer_t iv_Look TOLV_GUARDED_BY(iv_Lock) = 0;
    tolv::Timer_t iv_Report TOLV_GUARDED_BY(iv_Lock) = 0;
    unsigned int iv_Looks TOLV_GUARDED_BY(iv_Lock) = 0;
    unsigned int iv_Period TOLV_GUARDED_BY(iv_Lock) = SHORTEST;
    off_t iv_Size TOLV_GUARDED_BY(iv_Lock) = -1;
};

} // namespace

int main(int i_count, char* i_arguments[])
{
    if (i_count != 2)
    {
        std::fprintf(stderr, "usage: %s FILE\n", i_arguments[0]);
        return 2;
    }
    // Blocked before there are threads, which inherit it.
    sigset_t l_signals;
    sigemptyset(&l_signals);
    sigaddset(&l_signals, SIGTERM);
    sigaddset(&l_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &l_signals, nullptr);

    tolv::Dispatcher l_dispatcher(1, 1, false);
    // cppcheck-suppress unreadVariable ; it lives as long as the loop
    const FileWatch l_watch(l_dispatcher, i_arguments[1], l_signals);
    l_dispatcher.ProcessEvents();
    std::printf("stopped\n");
    return 0;
}

// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVAPP_HPP
#define TOLV_VEX_TOLVAPP_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"

#include <sys/types.h>

#include <cstdio>

namespace tolv
{

class Dispatcher;

/// The frame of a daemon's main program, to be used or derived from.
///
/// Threads: the main thread.
class TOLV_EXPORT App : public Base
{
  public:
    App();
    ~App() override;
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    /// Prints nothing.
    virtual void Dump(FILE* o_stream);

    /// Serves as one of the dispatcher's threads, see
    /// Dispatcher::ProcessEvents().
    ///
    /// Blocks: until the dispatcher has shut down.
    virtual void Run(Dispatcher& io_dispatcher);

    /// Goes on in a child process that leads a session of its own, has "/" as
    /// its folder, takes no rights away from new files, and has made the
    /// platform's set-up. The parent ends at once with status 0, without
    /// destructors and exit handlers.
    ///
    /// A child has none of its parent's threads: make the Dispatcher after
    /// this. Descriptors stay open, standard input and output among them.
    ///
    /// Returns: what PlatformProcessSetup() does, 0 for success.
    /// Errors:  without a child the process ends with Abend().
    int Daemonize();

    /// Ends the process with abort().
    [[noreturn]] void Abend();

    /// Ends the process at once with status 0: no destructors, no exit
    /// handlers, no shutdown of a dispatcher.
    [[noreturn]] void Exit();

    /// Keeps the local addresses of SCTP associations current: every 60
    /// seconds all handlers are asked to refresh. Each call adds a check of
    /// its own.
    ///
    /// Returns:   the timer, for Dispatcher::CancelTimer(). It is not kept
    ///            here.
    /// Ownership: the check belongs to the dispatcher, which destroys it at
    ///            shutdown; the check of a timer cancelled before stays.
    Timer_t EnableSCTP(Dispatcher& io_dispatcher);

    /// The process that made this object; 0 in a daemon.
    pid_t getPid() const
    {
        return iv_Pid;
    }

  private:
    pid_t iv_Pid;
};

} // namespace tolv

#endif

// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVEVENTHANDLER_HPP
#define TOLV_VEX_TOLVEVENTHANDLER_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <cstdint>
#include <cstdio>

namespace tolv
{

class Dispatcher;
class HandleTable;
class MTDispatcher;
class TimerProperties;

/// A descriptor.
using OS_HANDLE = std::int32_t;

/// No descriptor.
constexpr OS_HANDLE OS_INVALID = -1;

/// Identifies a timer; the first one is 1, 0 is none.
using Timer_t = std::uint32_t;

/// A span of time.
using OS_TIMEOUT = TimeValue;

/// EventHandler::EVENT bits given at registration. They are stored only: every
/// registered descriptor is watched for reading.
using EVENT_MASK = std::uint32_t;

/// What the dispatcher calls back: acceptors, services and any handler of a
/// daemon's own.
///
/// Ownership: a handler that may answer ACTION_REMOVE is made with new and
///            belongs to the dispatcher from that answer on, which destroys it
///            as soon as no thread is inside it. Any other stays its maker's,
///            who destroys it only after its descriptors are unregistered, its
///            timers cancelled and no callback of it runs.
/// Threads:   callbacks run with no lock of the dispatcher held. With more
///            than one worker, callbacks for different descriptors or timers
///            of one handler may run at once, and RefreshHandler() beside
///            any of them; what they share is the handler's to lock.
/// Errors:    destroying a handler while a thread is inside it fails an
///            assertion.
class TOLV_EXPORT EventHandler : public Base
{
  public:
    /// What happened; a callback gets exactly one.
    enum EVENT
    {
        EVENT_READ = 2,      ///< the descriptor is readable
        EVENT_REFRESH = 32,  ///< check and rebuild the handler's own state
        EVENT_SHUTDOWN = 64, ///< the dispatcher shuts down
        EVENT_TIMER = 128    ///< the timer expired
    };

    /// What the dispatcher is to do next. Any other value of 32 bits counts as
    /// ACTION_CONTINUE; once a handler has asked to be removed, every later
    /// answer counts as ACTION_REMOVE.
    enum ACTION : std::int32_t
    {
        /// Watch the descriptor again, unless another thread is inside the
        /// handler: then only after EnableCallback(). A timer: run another
        /// full period.
        ACTION_CONTINUE = 0,
        /// As ACTION_CONTINUE; from a timer: call every handler's
        /// RefreshHandler() first.
        ACTION_REFRESH = 2,
        /// Forget this descriptor or timer.
        ACTION_UNREGISTER = 4,
        /// Forget this descriptor, and with its last one the handler, which
        /// is destroyed. From a timer, and as an answer to EVENT_SHUTDOWN:
        /// forget and destroy the handler.
        ACTION_REMOVE = 8
    };

    /// Registers nothing.
    ///
    /// Ownership: io_dispatcher is kept as a reference and not owned.
    explicit EventHandler(Dispatcher& io_dispatcher);
    ~EventHandler() override;
    EventHandler(const EventHandler&) = delete;
    EventHandler& operator=(const EventHandler&) = delete;

    /// Prints the handler for people.
    virtual void Dump(FILE* o_stream) = 0;

    /// EVENT_READ for a registered descriptor, or EVENT_SHUTDOWN once for each
    /// of them; of the answers to that only ACTION_REMOVE counts.
    virtual ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) = 0;

    /// EVENT_TIMER, or EVENT_SHUTDOWN once for each timer. Unless overridden
    /// it answers ACTION_CONTINUE: the timer repeats.
    virtual ACTION TimerTick(Timer_t i_timer, EVENT i_event);

    /// EVENT_REFRESH for each registered descriptor. Unless overridden it does
    /// nothing.
    ///
    /// Threads: that of the timer which asked for it; with more than one worker
    ///          the handler's other callbacks may run meanwhile, also that for
    ///          the same descriptor.
    virtual void RefreshHandler(OS_HANDLE i_handle, EVENT i_event);

  protected:
    // Declared order is the object layout, here and below.
    // NOLINTNEXTLINE(*-non-private-member-variables-in-classes)
    Dispatcher& iv_Dispatcher;

  private:
    // For the dispatcher only, with its registration lock held.
    friend class HandleTable;
    friend class MTDispatcher;
    friend class TimerProperties;

    void IncreaseThreadCount()
    {
        ++iv_ThreadRefCount;
    }

    void DecreaseThreadCount();

    std::int32_t getThreadCount() const
    {
        return iv_ThreadRefCount;
    }

    void setRemoved()
    {
        iv_Removed = true;
    }

    bool isLive() const
    {
        return !iv_Removed;
    }

    std::int32_t iv_ThreadRefCount; // dispatcher threads inside a callback
    bool iv_Removed;                // asked to be removed; stays true
};

} // namespace tolv

#endif

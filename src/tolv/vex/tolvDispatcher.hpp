// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVDISPATCHER_HPP
#define TOLV_VEX_TOLVDISPATCHER_HPP

#include "tolv/vex/tolvCond.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"

#include <pthread.h>

#include <cstdint>

namespace tolv
{

class MTDispatcher;

/// The reactor: waits for readable descriptors and for timers and calls their
/// handlers back on one or several threads of its own.
///
/// All operations are virtual, so that a derived class can stand in for the
/// whole engine.
///
/// Threads:   any, callbacks included, unless said otherwise.
/// Ownership: handlers stay the caller's until they answer ACTION_REMOVE, see
///            EventHandler. Descriptors stay the caller's: the dispatcher
///            watches them and never closes them.
/// Errors:    there are no error results. Misuse and failing system calls end
///            the process with an assertion or abort().
class TOLV_EXPORT Dispatcher
{
  public:
    /// Starts the engine with its threads: handlers may be called from now on,
    /// before ProcessEvents().
    ///
    /// i_minThreads, i_maxThreads: how many threads serve; 0 counts as 1, and
    /// the minimum is never above the maximum. With a maximum of 1 callbacks
    /// never run at the same time.
    /// i_retireIdle: whether threads above the minimum end after a long idle
    /// time, see ThreadPool.
    Dispatcher(std::uint32_t i_minThreads, std::uint32_t i_maxThreads,
               bool i_retireIdle);

    /// No engine: for derived classes that override the operations. The
    /// argument is not used. Operations that need the engine fail their
    /// assertion, except where they say otherwise.
    explicit Dispatcher(bool i_unused);

    /// Shuts the engine down as Shutdown(30) does and destroys it.
    ///
    /// Deliberate: after a DeferredShutdown() the engine is left as it is,
    /// neither shut down nor destroyed.
    /// Effect: the engine's memory is never freed; the destructor only waits
    /// until the watchdog thread's Shutdown() has returned.
    /// Pinned by: DispatcherTest.DestructorAfterDeferredShutdownLeavesEngine
    ///
    /// Errors: after a direct Shutdown() it fails an assertion: a daemon that
    ///         shuts down directly ends without destroying the dispatcher.
    ///         So does a thread whose callback does not end within 60 seconds
    ///         after the shutdown, and the destructor in a callback.
    /// Blocks: for the shutdown, and until every caller has left
    ///         ProcessEvents(). Never from a callback.
    virtual ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    /// Watches a descriptor for io_handler. While the dispatcher shuts down
    /// it is never watched, but still gets EVENT_SHUTDOWN.
    ///
    /// Units:  i_handle, 0 to 1023, open and not yet registered; i_mask is
    ///         stored only.
    /// Errors: abort() for any other descriptor.
    virtual void Register(OS_HANDLE i_handle, EventHandler& io_handler,
                          EVENT_MASK i_mask);

    /// Forgets a descriptor; the handler is not called. A callback that runs
    /// for it comes to its end, and its answer counts as ACTION_UNREGISTER.
    /// An unknown descriptor is ignored. Unregister before you close.
    virtual void Unregister(OS_HANDLE i_handle);

    /// Calls the handler's TimerTick() after every io_timeout, counted from the
    /// end of the call before. Zero is due at once and again after each call;
    /// with one thread no descriptor is served meanwhile.
    ///
    /// Units:   io_timeout, a span, read only.
    /// Returns: the timer's identifier, never 0. A timer that is added during
    ///          a shutdown gets EVENT_SHUTDOWN only.
    virtual Timer_t AddTimer(EventHandler& io_handler, OS_TIMEOUT& io_timeout);

    /// Gives a timer a new period, which begins now. io_handler is not used;
    /// an unknown timer is ignored. A timer whose callback runs stays disabled
    /// until it ends, and the new period begins again there, unless
    /// EnableCallback() lets the timer fire before.
    virtual void UpdateTimer(EventHandler& io_handler, Timer_t i_timer,
                             OS_TIMEOUT& io_timeout);

    /// Ends a timer; from inside its own callback too. A callback that runs on
    /// another thread comes to its end, and is not waited for.
    ///
    /// Returns: whether there was such a timer.
    virtual bool CancelTimer(Timer_t i_timer);

    /// Tells whether a timer exists.
    ///
    /// Deliberate: it expires nothing; the timer fires at its own time.
    /// Effect: only the result tells that it was called.
    /// Pinned by: DispatcherTimerTest.ExpireTimerOnlyTells
    virtual bool ExpireTimer(Timer_t i_timer);

    /// Serves as one of the dispatcher's threads while there are fewer than
    /// the maximum, and returns when the dispatcher has shut down; at once when
    /// it has been shut down already or has no engine.
    ///
    /// Blocks: for the life of the daemon, until Shutdown() returns. Never from
    ///         a callback.
    virtual void ProcessEvents();

    /// Watches a descriptor again that was left disabled because its handler
    /// was busy on another thread. A descriptor whose own callback runs is
    /// watched again when that ends.
    virtual void EnableCallback(OS_HANDLE i_handle);

    /// Lets a timer fire whose own callback is still running. With several
    /// threads the next callback may then run at the same time.
    virtual void EnableCallback(Timer_t i_timer);

    /// Stops the threads, sends EVENT_SHUTDOWN to every descriptor and timer,
    /// forgets them all and lets the callers of ProcessEvents() go. Threads
    /// that do not stop in time are written to the error log; then the
    /// shutdown goes on.
    ///
    /// Units:  i_seconds, whole seconds, bounds the wait for the threads.
    /// Errors: a second call fails an assertion.
    /// Blocks: at least two seconds, one before and one after, and up to
    ///         i_seconds in between. From a callback it always runs into its
    ///         limit, for it waits for its own thread: use DeferredShutdown()
    ///         there. From EVENT_SHUTDOWN it never returns.
    virtual void Shutdown(std::uint32_t i_seconds);

    /// Lets a thread of its own call Shutdown(i_seconds). A second call, and
    /// one while a Shutdown() runs, does nothing else than to take its time.
    ///
    /// Errors: after a Shutdown() that has returned, the thread's one fails an
    ///         assertion as any second call of it does.
    /// Blocks: one second.
    virtual void DeferredShutdown(std::uint32_t i_seconds);

    /// Sends a signal to every thread of the dispatcher.
    ///
    /// Returns: what the last pthread_kill() returned; -1 without threads or
    ///          engine.
    virtual int RaiseSignal(int i_signal);

  private:
    static void* WatchDogThread(void* i_dispatcher);

    void checkEngine(unsigned int i_line, const char* i_function) const;
    void waitForOthers() TOLV_EXCLUDES(iv_Lock);
    void beginShutdown() TOLV_REQUIRES(iv_Lock);
    void waitForShutdown() TOLV_REQUIRES(iv_Lock);
    void runShutdown(std::uint32_t i_seconds) TOLV_EXCLUDES(iv_Lock);
    bool isShutDown() TOLV_EXCLUDES(iv_Lock);
    void runWatchDog() TOLV_EXCLUDES(iv_Lock);

    // Declared order is the object layout: append only.
    MTDispatcher* pImpl; // owned; changes only in constructor and destructor
    std::uint32_t iv_WatchDogTimeOut TOLV_GUARDED_BY(iv_Lock);
    pthread_t iv_WatchDogTid TOLV_GUARDED_BY(iv_Lock); // 0: none
    Mutex iv_Lock;
    bool iv_Shutdown TOLV_GUARDED_BY(iv_Lock); // Shutdown() has been called
    Condition iv_Changed;                      // one of the next three changed
    bool iv_ShuttingDown TOLV_GUARDED_BY(iv_Lock); // inside Shutdown()
    bool iv_WatchDogDone TOLV_GUARDED_BY(iv_Lock); // its Shutdown() ended
    std::uint32_t iv_Processing TOLV_GUARDED_BY(iv_Lock); // ProcessEvents()
};

} // namespace tolv

#endif

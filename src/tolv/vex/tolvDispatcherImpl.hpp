// Private header: the engine behind Dispatcher.
#ifndef TOLV_VEX_TOLVDISPATCHERIMPL_HPP
#define TOLV_VEX_TOLVDISPATCHERIMPL_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvCond.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvFdSet.hpp"
#include "tolv/vex/tolvHandleTable.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvThPool.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"
#include "tolv/vex/tolvTimerQueue.hpp"

#include <sys/time.h>

#include <cstdint>
#include <cstdio>

#include <atomic>
#include <memory>
#include <vector>

namespace tolv
{

/// Waits with select() for readable descriptors and for timers and calls their
/// handlers back in the threads of a pool.
///
/// With one thread a pass serves every ready descriptor, one of each handler.
/// With more, one thread at a time waits; when it finds work it hands the
/// waiting on to the next thread and serves one event itself.
///
/// The operations are those of Dispatcher, which says what they do.
///
/// Threads: any. Callbacks, destructors of handlers, joins and close() run
///          with no lock held; docs/threading.md has the order of the locks.
class MTDispatcher : private Base
{
  public:
    /// Errors: no socket pair, or one that select() cannot hold, ends the
    ///         process.
    MTDispatcher(std::uint32_t i_minThreads, std::uint32_t i_maxThreads,
                 bool i_retireIdle);

    /// After Shutdown() and Finish(). Joins the threads first, as Join() does.
    ~MTDispatcher() override;
    MTDispatcher(const MTDispatcher&) = delete;
    MTDispatcher& operator=(const MTDispatcher&) = delete;

    /// Does nothing.
    virtual void Dump(FILE* o_stream);

    void Register(OS_HANDLE i_handle, EventHandler& io_handler,
                  EVENT_MASK i_mask) TOLV_EXCLUDES(iv_RegLock);
    void Unregister(OS_HANDLE i_handle) TOLV_EXCLUDES(iv_RegLock);
    void EnableCallback(OS_HANDLE i_handle) TOLV_EXCLUDES(iv_RegLock);
    int RaiseSignal(int i_signal) TOLV_EXCLUDES(iv_RegLock);

    Timer_t AddTimer(EventHandler& io_handler, const OS_TIMEOUT& i_timeout)
        TOLV_EXCLUDES(iv_RegLock);
    void UpdateTimer(EventHandler& io_handler, Timer_t i_timer,
                     const OS_TIMEOUT& i_timeout) TOLV_EXCLUDES(iv_RegLock);
    bool CancelTimer(Timer_t i_timer) TOLV_EXCLUDES(iv_RegLock);
    bool ExpireTimer(Timer_t i_timer) TOLV_EXCLUDES(iv_RegLock);
    void EnableCallback(Timer_t i_timer) TOLV_EXCLUDES(iv_RegLock);

    void ProcessEvents() TOLV_EXCLUDES(iv_FinishLock);

    /// Stops the loops and the pool's threads.
    ///
    /// Returns: true when the wait TIMED OUT.
    bool Shutdown(std::uint32_t i_seconds);

    /// Tears down what Shutdown() has stopped: sends EVENT_SHUTDOWN, forgets
    /// all handlers and timers, destroys those that answer ACTION_REMOVE, and
    /// lets the callers of ProcessEvents() go. What a thread is still inside
    /// is left for that thread to finish.
    ///
    /// Blocks: one second and as long as the handlers take.
    void Finish() TOLV_EXCLUDES(iv_RegLock);

    /// After Finish(): waits until every thread of the pool has left it, those
    /// inside ProcessEvents() too.
    ///
    /// Errors: threads that are still there after 60 seconds fail the pool's
    ///         assertion.
    void Join();

  private:
    // Handlers that have been taken out of the tables; destroyed unlocked.
    using Doomed = std::unique_ptr<EventHandler>;

    // What one select() waits for and what it found.
    struct Wait
    {
        FdSet iv_Handles;                 // to watch, then ready
        OS_HANDLE iv_WakeUp = OS_INVALID; // that of the wake-up bytes
        std::uint64_t iv_Number = 0;      // among the waits of the table
        std::uint64_t iv_Version = 0;     // of the table
        bool iv_HasTimer = false;
        timeval iv_TimeOut = {}; // then what was left of it

        bool areTimersDue() const;
        bool isWakenUp() const;
    };

    void ThreadMainSingle() TOLV_EXCLUDES(iv_RegLock);
    void ThreadMain() TOLV_EXCLUDES(iv_RegLock);

    bool waitForEvents(Wait& o_wait) TOLV_EXCLUDES(iv_RegLock);
    bool prepareWait(Wait& o_wait) TOLV_EXCLUDES(iv_RegLock);
    bool hasChanged(const Wait& i_wait) TOLV_EXCLUDES(iv_RegLock);

    void servePass(const Wait& i_wait) TOLV_EXCLUDES(iv_RegLock);
    void ServiceEvents(const Wait& i_wait) TOLV_EXCLUDES(iv_RegLock);
    void ServiceTimers() TOLV_EXCLUDES(iv_RegLock);
    Doomed serve(EventRecord& io_record) TOLV_REQUIRES(iv_RegLock);
    Doomed serve(TimerProperties& io_timer) TOLV_REQUIRES(iv_RegLock);
    Doomed settle(EventRecord& io_record, EventHandler::ACTION i_action)
        TOLV_REQUIRES(iv_RegLock);
    Doomed settle(TimerProperties& io_timer, EventHandler::ACTION i_action)
        TOLV_REQUIRES(iv_RegLock);
    void refreshAll() TOLV_REQUIRES(iv_RegLock);
    Doomed refresh(EventRecord& io_record) TOLV_REQUIRES(iv_RegLock);

    EventHandler::ACTION callBack(EventHandler& io_handler, OS_HANDLE i_handle,
                                  EventHandler::EVENT i_event)
        TOLV_REQUIRES(iv_RegLock);
    void setRemoved(EventHandler& io_handler) TOLV_REQUIRES(iv_RegLock);
    bool isBusy(const EventHandler& i_handler) TOLV_REQUIRES(iv_RegLock);
    Doomed takeIfRemoved(EventHandler& io_handler) TOLV_REQUIRES(iv_RegLock);
    void destroy(Doomed i_handler) TOLV_REQUIRES(iv_RegLock);
    Timer_t nextTimer() TOLV_REQUIRES(iv_RegLock);

    void sendShutdown(HandleTable& io_table) TOLV_REQUIRES(iv_RegLock);
    void sendShutdown(TimerQueue& io_queue) TOLV_REQUIRES(iv_RegLock);
    Doomed settleShutdown(EventHandler& io_handler,
                          EventHandler::ACTION i_action)
        TOLV_REQUIRES(iv_RegLock);
    bool hasAny(const EventHandler& i_handler) TOLV_REQUIRES(iv_RegLock);
    void forget(HandleTable& io_table, std::vector<Doomed>& io_doomed)
        TOLV_REQUIRES(iv_RegLock);
    void forget(TimerQueue& io_queue, std::vector<Doomed>& io_doomed)
        TOLV_REQUIRES(iv_RegLock);
    void forgetAll() TOLV_EXCLUDES(iv_RegLock);

    void Interrupt() TOLV_EXCLUDES(iv_OutgoingLock);
    void interruptLoop() TOLV_EXCLUDES(iv_OutgoingLock);
    void ServicePipe() TOLV_EXCLUDES(iv_OutgoingLock);
    void openPipe();
    void closePipe() TOLV_EXCLUDES(iv_OutgoingLock);

    ThreadPool* const iv_Pool; // owned; the destructor ends it first
    HandleTable iv_Handles TOLV_GUARDED_BY(iv_RegLock);
    HandleTable iv_PendingHandles TOLV_GUARDED_BY(iv_RegLock); // never watched
    TimerQueue iv_Timers TOLV_GUARDED_BY(iv_RegLock);
    TimerQueue iv_PendingTimers TOLV_GUARDED_BY(iv_RegLock); // never served
    std::atomic<bool> iv_Shutdown; // no lock; the loops stop
    bool iv_Finished TOLV_GUARDED_BY(iv_FinishLock);
    Mutex iv_RegLock; // guards the counts and flags of all handlers too
    Condition iv_FinishedCond; // iv_Finished has been set
    Mutex iv_FinishLock;
    // Wake-up bytes go in at the first and come out at the second; sent and
    // received under iv_OutgoingLock. The loops read the number of the second
    // under iv_RegLock, and only while iv_Shutdown is not set.
    int iv_Outgoing[2];
    bool iv_Changed TOLV_GUARDED_BY(iv_RegLock); // since the pass began
    Mutex iv_OutgoingLock;   // keeps the pair open while a byte is under way
    const bool iv_HandsOver; // more than one thread
};

} // namespace tolv

#endif

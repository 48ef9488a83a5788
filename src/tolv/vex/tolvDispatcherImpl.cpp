#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "tolv/vex/tolvAssert.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <sys/select.h>

#include <cerrno>
#include <cstdlib>

#include <algorithm>

namespace
{

const char* const SOURCE = "tolv/vex/tolvDispatcherImpl";

// The longest time-out of a wait, in seconds: some systems refuse longer ones,
// and a pass that finds nothing is harmless.
constexpr std::uint32_t LONGEST_WAIT = 24 * 60 * 60;

constexpr std::uint32_t MICROSECONDS = 1000000;

// The span from i_now to i_expiry, zero when that has passed.
timeval timeUntil(const tolv::TimeValue& i_expiry, const tolv::TimeValue& i_now)
{
    timeval l_span = {};
    if (i_expiry > i_now)
    {
        std::uint32_t l_seconds = i_expiry.getSeconds() - i_now.getSeconds();
        std::uint32_t l_micros = i_expiry.getMicroSeconds();
        if (l_micros < i_now.getMicroSeconds())
        {
            --l_seconds;
            l_micros += MICROSECONDS;
        }
        l_micros -= i_now.getMicroSeconds();
        if (l_seconds >= LONGEST_WAIT)
        {
            l_seconds = LONGEST_WAIT;
            l_micros = 0;
        }
        l_span.tv_sec = static_cast<time_t>(l_seconds);
        l_span.tv_usec = static_cast<suseconds_t>(l_micros);
    }
    return l_span;
}

} // namespace

namespace tolv
{

MTDispatcher::MTDispatcher(std::uint32_t i_minThreads,
                           std::uint32_t i_maxThreads, bool i_retireIdle) :
    iv_Pool(new ThreadPool),
    iv_Handles(), iv_PendingHandles(), iv_Timers(), iv_PendingTimers(),
    iv_Shutdown(false), iv_Finished(false), iv_RegLock(), iv_FinishedCond(),
    iv_FinishLock(), iv_Outgoing{-1, -1}, iv_Changed(false), iv_OutgoingLock(),
    iv_HandsOver(i_maxThreads > 1)
{
    openPipe();
    const std::uint32_t l_max = std::max(i_maxThreads, 1U);
    const std::uint32_t l_min = std::min(std::max(i_minThreads, 1U), l_max);
    using Loop = FunctionRef<MTDispatcher>;
    if (iv_HandsOver)
    {
        iv_Pool->StartUp(l_min, l_max, Loop(this, &MTDispatcher::ThreadMain),
                         i_retireIdle);
    }
    else
    {
        iv_Pool->StartUp(l_min, l_max,
                         Loop(this, &MTDispatcher::ThreadMainSingle), false);
    }
    iv_Pool->Dispatch();
}

// The pool fails its assertion while a thread still uses the members; until
// then such a thread may still use the pool.
MTDispatcher::~MTDispatcher()
{
    delete iv_Pool;
}

void MTDispatcher::Dump(FILE*) {}

void MTDispatcher::Register(OS_HANDLE i_handle, EventHandler& io_handler,
                            EVENT_MASK i_mask)
{
    const MutexLock l_lock(iv_RegLock);
    const bool l_pending = iv_Shutdown;
    HandleTable& l_table = l_pending ? iv_PendingHandles : iv_Handles;
    if (i_handle < 0 || i_handle >= FdSet::SIZE ||
        l_table.find(i_handle) != nullptr)
    {
        abort();
    }
    l_table.add(i_handle, io_handler, i_mask);
    if (!l_pending)
    {
        iv_Changed = true;
    }
    Interrupt();
}

void MTDispatcher::Unregister(OS_HANDLE i_handle)
{
    const MutexLock l_lock(iv_RegLock);
    EventRecord* const l_record = iv_Handles.find(i_handle);
    if (l_record != nullptr)
    {
        iv_Handles.remove(*l_record);
        Interrupt();
        iv_Changed = true;
    }
}

void MTDispatcher::EnableCallback(OS_HANDLE i_handle)
{
    const MutexLock l_lock(iv_RegLock);
    EventRecord* const l_record = iv_Handles.find(i_handle);
    if (l_record != nullptr)
    {
        iv_Handles.enable(*l_record);
    }
    Interrupt();
}

int MTDispatcher::RaiseSignal(int i_signal)
{
    const MutexLock l_lock(iv_RegLock);
    return iv_Pool->signalAll(i_signal);
}

Timer_t MTDispatcher::AddTimer(EventHandler& io_handler,
                               const OS_TIMEOUT& i_timeout)
{
    const MutexLock l_lock(iv_RegLock);
    const Timer_t l_timer = nextTimer();
    TimerQueue& l_queue = iv_Shutdown ? iv_PendingTimers : iv_Timers;
    l_queue.add(l_timer, io_handler, i_timeout, TimeValue::getUptime());
    Interrupt();
    return l_timer;
}

// After a wrap the counter passes 0 and identifiers that are still in use.
Timer_t MTDispatcher::nextTimer()
{
    Timer_t l_timer = 0;
    do
    {
        l_timer = nextIdentifier();
    } while (l_timer == 0 || iv_Timers.contains(l_timer) ||
             iv_PendingTimers.contains(l_timer));
    return l_timer;
}

void MTDispatcher::UpdateTimer(EventHandler&, Timer_t i_timer,
                               const OS_TIMEOUT& i_timeout)
{
    const MutexLock l_lock(iv_RegLock);
    TimerProperties* const l_timer = iv_Timers.find(i_timer);
    if (l_timer != nullptr)
    {
        iv_Timers.update(*l_timer, i_timeout, TimeValue::getUptime());
    }
    Interrupt();
}

bool MTDispatcher::CancelTimer(Timer_t i_timer)
{
    const MutexLock l_lock(iv_RegLock);
    TimerProperties* const l_timer = iv_Timers.find(i_timer);
    if (l_timer == nullptr)
    {
        return false;
    }
    iv_Timers.cancel(*l_timer);
    Interrupt();
    return true;
}

bool MTDispatcher::ExpireTimer(Timer_t i_timer)
{
    const MutexLock l_lock(iv_RegLock);
    return iv_Timers.contains(i_timer);
}

void MTDispatcher::EnableCallback(Timer_t i_timer)
{
    const MutexLock l_lock(iv_RegLock);
    TimerProperties* const l_timer = iv_Timers.find(i_timer);
    if (l_timer != nullptr)
    {
        iv_Timers.enable(*l_timer);
    }
    Interrupt();
}

// Deliberate: one wait that does not test iv_Finished again.
// Effect: should the wait end without a notification, this returns before the
// engine is torn down. Dispatcher::ProcessEvents() waits for the shutdown then.
// Pinned by: DispatcherImplTest.ProcessEventsWaitsOnce
void MTDispatcher::ProcessEvents()
{
    if (!iv_Shutdown)
    {
        iv_Pool->JoinPool();
    }
    const MutexLock l_lock(iv_FinishLock);
    if (!iv_Finished)
    {
        iv_FinishedCond.Wait(iv_FinishLock);
    }
}

bool MTDispatcher::Shutdown(std::uint32_t i_seconds)
{
    iv_Shutdown = true;
    Interrupt();
    return iv_Pool->Shutdown(i_seconds);
}

void MTDispatcher::Join()
{
    iv_Pool->stop();
}

// The loop of the only thread: ends with the shutdown.
//
// Deliberate: while a timer is due, ready descriptors wait.
// Effect: a timer with a period of zero lets no descriptor be served, until it
// gets another period or ends.
// Pinned by: DispatcherTimerTest.ZeroPeriodLetsNoDescriptorBeServed
void MTDispatcher::ThreadMainSingle()
{
    Wait l_wait;
    while (waitForEvents(l_wait))
    {
        if (l_wait.areTimersDue())
        {
            ServiceTimers();
            continue;
        }
        if (l_wait.isWakenUp())
        {
            ServicePipe();
        }
        servePass(l_wait);
    }
}

// One turn as the waiting thread, which ends with one event served or with the
// shutdown. A wake-up only means that there is more to wait for.
void MTDispatcher::ThreadMain()
{
    Wait l_wait;
    while (waitForEvents(l_wait))
    {
        if (l_wait.areTimersDue())
        {
            ServiceTimers();
            return;
        }
        if (!l_wait.isWakenUp())
        {
            ServiceEvents(l_wait);
            return;
        }
        ServicePipe();
    }
}

// Waits until there is something to do. Returns false when there is a shutdown
// instead.
bool MTDispatcher::waitForEvents(Wait& o_wait)
{
    while (prepareWait(o_wait))
    {
        const int l_urc = select(
            o_wait.iv_Handles.highest() + 1, o_wait.iv_Handles.view(), nullptr,
            nullptr, o_wait.iv_HasTimer ? &o_wait.iv_TimeOut : nullptr);
        if (l_urc >= 0)
        {
            return true;
        }
        // A descriptor may be unregistered and closed before the wait begins,
        // and the wake-up pair by the teardown.
        if (errno != EINTR && !(errno == EBADF && hasChanged(o_wait)))
        {
            assertFailed("l_urc >= 0", SOURCE, 300,
                         "void tolv::MTDispatcher::ThreadMain()");
        }
    }
    return false;
}

bool MTDispatcher::prepareWait(Wait& o_wait)
{
    const MutexLock l_lock(iv_RegLock);
    if (iv_Shutdown)
    {
        return false;
    }
    o_wait.iv_Number = iv_Handles.startWait(o_wait.iv_Handles);
    o_wait.iv_Version = iv_Handles.version();
    o_wait.iv_WakeUp = iv_Outgoing[1];
    o_wait.iv_Handles.set(o_wait.iv_WakeUp);
    const TimerProperties* const l_timer = iv_Timers.first();
    o_wait.iv_HasTimer = l_timer != nullptr;
    if (l_timer != nullptr)
    {
        o_wait.iv_TimeOut =
            timeUntil(l_timer->getExpiry(), TimeValue::getUptime());
    }
    return true;
}

bool MTDispatcher::hasChanged(const Wait& i_wait)
{
    const MutexLock l_lock(iv_RegLock);
    return iv_Shutdown || iv_Handles.version() != i_wait.iv_Version;
}

// select() leaves in its time-out what was not slept of it, and nothing when
// it was the time-out that ended the wait.
bool MTDispatcher::Wait::areTimersDue() const
{
    return iv_HasTimer && iv_TimeOut.tv_sec == 0 && iv_TimeOut.tv_usec == 0;
}

bool MTDispatcher::Wait::isWakenUp() const
{
    return iv_Handles.isSet(iv_WakeUp);
}

// Serves the ready descriptors in order, one of each handler.
//
// Deliberate: a change of the table ends the pass. What else is ready is found
// by the next wait, which watches the changed table.
// Effect: handlers behind one that registers or unregisters something at every
// event, as an acceptor does, wait until it has no more events.
// Pinned by: DispatcherImplTest.RegisterInACallbackEndsThePass,
// DispatcherImplTest.UnregisterInACallbackEndsThePass
void MTDispatcher::servePass(const Wait& i_wait)
{
    const MutexLock l_lock(iv_RegLock);
    iv_Changed = false;
    const std::size_t l_count =
        iv_Handles.findReady(i_wait.iv_Handles, i_wait.iv_Number);
    for (std::size_t l_index = 0;
         l_index != l_count && !iv_Changed && !iv_Shutdown; ++l_index)
    {
        destroy(serve(iv_Handles.ready(l_index).activeRecord()));
    }
}

// Serves one ready descriptor; the others stay readable, so the next waiting
// thread finds them again.
//
// Deliberate: the first handler in order of registration is served, however
// long the others have been ready.
// Effect: as many handlers as there are threads, when they always have
// something to read, leave nothing to those behind them.
// Pinned by: DispatcherThreadsTest.EventsAreTakenInListOrder,
// DispatcherThreadsTest.TheFirstHandlerWinsAsLongAsItIsReady
void MTDispatcher::ServiceEvents(const Wait& i_wait)
{
    Doomed l_doomed; // goes after the lock
    bool l_reap = false;
    {
        const MutexLock l_lock(iv_RegLock);
        // The next thread can wait from here on, but it needs the lock to
        // build its set: not before this one has claimed its descriptor. So
        // two threads never see the same readiness.
        l_reap = iv_Pool->request();
        EventProperties* const l_entry =
            iv_Handles.firstReady(i_wait.iv_Handles, i_wait.iv_Number);
        if (l_entry != nullptr)
        {
            if (l_entry->getActiveHandle(i_wait.iv_Number) == OS_INVALID)
            {
                assertFailed("l_itr->getActiveHandle(&i_rd) != OS_INVALID",
                             SOURCE, 380,
                             "void tolv::MTDispatcher::ServiceEvents("
                             "tolv::FdSet&)");
            }
            l_doomed = serve(l_entry->activeRecord());
        }
    }
    if (l_reap)
    {
        iv_Pool->reap();
    }
}

// Serves the timer that is due first; the next waits find the others.
void MTDispatcher::ServiceTimers()
{
    Doomed l_doomed; // goes after the lock
    bool l_reap = false;
    {
        const MutexLock l_lock(iv_RegLock);
        l_reap = iv_Pool->request();
        TimerProperties* const l_timer = iv_Timers.first();
        if (l_timer != nullptr &&
            l_timer->getExpiry() <= TimeValue::getUptime())
        {
            l_doomed = serve(*l_timer);
        }
    }
    if (l_reap)
    {
        iv_Pool->reap();
    }
}

MTDispatcher::Doomed MTDispatcher::serve(EventRecord& io_record)
{
    iv_Handles.enter(io_record);
    const EventHandler::ACTION l_action =
        callBack(io_record.iv_Entry.handler(), io_record.iv_Handle,
                 EventHandler::EVENT_READ);
    iv_Handles.leave(io_record);
    return settle(io_record, l_action);
}

// The raised counts keep the handler and its record, which may change
// meanwhile.
EventHandler::ACTION MTDispatcher::callBack(EventHandler& io_handler,
                                            OS_HANDLE i_handle,
                                            EventHandler::EVENT i_event)
{
    iv_RegLock.Unlock();
    const EventHandler::ACTION l_action =
        io_handler.HandleEvent(i_handle, i_event);
    iv_RegLock.Lock();
    return l_action;
}

// Acts on the answer of a callback that this thread has left.
//
// Deliberate: with several threads, a descriptor whose handler another thread
// is still inside stays disabled.
// Effect: a handler that is busy takes no further read events for it until it
// calls EnableCallback().
// Pinned by: DispatcherThreadsTest.BusyHandlerKeepsItsDescriptorDisabled
MTDispatcher::Doomed MTDispatcher::settle(EventRecord& io_record,
                                          EventHandler::ACTION i_action)
{
    EventHandler& l_handler = io_record.iv_Entry.handler();
    if (i_action == EventHandler::ACTION_REMOVE || !l_handler.isLive())
    {
        if (io_record.iv_Entry.isLast(io_record))
        {
            setRemoved(l_handler);
        }
        iv_Handles.remove(io_record);
        interruptLoop();
        return takeIfRemoved(l_handler);
    }
    if (i_action == EventHandler::ACTION_UNREGISTER || io_record.iv_Removed)
    {
        iv_Handles.remove(io_record);
        interruptLoop();
        return Doomed();
    }
    if (l_handler.getThreadCount() == 0)
    {
        iv_Handles.enable(io_record);
    }
    if (iv_HandsOver && io_record.isWatched())
    {
        interruptLoop(); // another thread waits without it
    }
    return Doomed();
}

MTDispatcher::Doomed MTDispatcher::serve(TimerProperties& io_timer)
{
    iv_Timers.enter(io_timer);
    iv_RegLock.Unlock();
    const EventHandler::ACTION l_action = io_timer.IssueCallback();
    iv_RegLock.Lock();
    io_timer.DecreaseThreadCount();
    return settle(io_timer, l_action);
}

// Deliberate: the next period begins with the end of the callback, not with
// the expiry that led to it.
// Effect: a timer drifts by the time its callback takes and never fires in a
// burst.
// Pinned by: DispatcherTimerTest.PeriodBeginsAfterTheCallback
MTDispatcher::Doomed MTDispatcher::settle(TimerProperties& io_timer,
                                          EventHandler::ACTION i_action)
{
    EventHandler& l_handler = *io_timer.getHandler();
    if (i_action == EventHandler::ACTION_REMOVE || !l_handler.isLive())
    {
        setRemoved(l_handler);
        interruptLoop();
        return takeIfRemoved(l_handler);
    }
    if (i_action == EventHandler::ACTION_UNREGISTER || io_timer.isRemoved())
    {
        iv_Timers.cancel(io_timer);
        interruptLoop();
        return Doomed();
    }
    TimerProperties* l_timer = &io_timer;
    if (i_action == EventHandler::ACTION_REFRESH)
    {
        // Nothing keeps the timer during the refresh.
        const Timer_t l_id = io_timer.getId();
        refreshAll();
        interruptLoop();
        l_timer = iv_Timers.find(l_id);
    }
    if (l_timer != nullptr)
    {
        iv_Timers.rearm(*l_timer, TimeValue::getUptime());
        interruptLoop();
    }
    return Doomed();
}

// What is registered meanwhile is not refreshed, what is unregistered is
// skipped.
void MTDispatcher::refreshAll()
{
    for (const HandleTable::Registration& l_registration : iv_Handles.list())
    {
        EventRecord* const l_record = iv_Handles.find(l_registration);
        if (l_record != nullptr && l_record->iv_Entry.handler().isLive())
        {
            destroy(refresh(*l_record));
        }
    }
}

// A pin keeps the handler: a thread count would leave descriptors disabled
// whose callbacks end meanwhile.
MTDispatcher::Doomed MTDispatcher::refresh(EventRecord& io_record)
{
    EventProperties& l_entry = io_record.iv_Entry;
    EventHandler& l_handler = l_entry.handler();
    const OS_HANDLE l_handle = io_record.iv_Handle;
    l_entry.pin();
    iv_RegLock.Unlock();
    l_handler.RefreshHandler(l_handle, EventHandler::EVENT_REFRESH);
    iv_RegLock.Lock();
    l_entry.unpin();
    Doomed l_doomed = takeIfRemoved(l_handler);
    if (l_doomed == nullptr)
    {
        iv_Handles.eraseIfEmpty(l_entry);
    }
    return l_doomed;
}

// From now on nothing of the handler is watched, fires or is called.
void MTDispatcher::setRemoved(EventHandler& io_handler)
{
    io_handler.setRemoved();
    iv_Handles.hide(io_handler);
    iv_PendingHandles.hide(io_handler);
    iv_Timers.hide(io_handler);
    iv_PendingTimers.hide(io_handler);
}

// Whether a thread is inside the handler.
bool MTDispatcher::isBusy(const EventHandler& i_handler)
{
    const EventProperties* const l_entry = iv_Handles.find(i_handler);
    return i_handler.getThreadCount() != 0 ||
           (l_entry != nullptr && l_entry->isPinned());
}

// Takes a handler that asked to be removed out of the tables, unless a thread
// is inside it, which will be here again when it leaves. The caller destroys
// it.
MTDispatcher::Doomed MTDispatcher::takeIfRemoved(EventHandler& io_handler)
{
    if (io_handler.isLive() || isBusy(io_handler))
    {
        return Doomed();
    }
    iv_Timers.erase(io_handler);
    iv_PendingTimers.erase(io_handler);
    iv_Handles.remove(io_handler);
    iv_PendingHandles.remove(io_handler);
    return Doomed(&io_handler);
}

// Unlocked: a destructor may call the dispatcher.
void MTDispatcher::destroy(Doomed i_handler)
{
    if (i_handler != nullptr)
    {
        iv_RegLock.Unlock();
        i_handler.reset();
        iv_RegLock.Lock();
    }
}

} // namespace tolv

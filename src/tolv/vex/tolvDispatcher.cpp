#include "tolv/vex/tolvDispatcher.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/vex/tolvAssert.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"
#include "tolv/vex/tolvSleep.hpp"

#include <cerrno>

// Tells a leak checker, in programs that have one, what is left on purpose.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" __attribute__((weak)) void __lsan_ignore_object(const void*);

namespace
{

const char* const SOURCE = "tolv/vex/tolvDispatcher";

// How long the destructor lets the threads come to their end, in seconds.
constexpr std::uint32_t DESTRUCTOR_LIMIT = 30;

// Threads did not stop within the limit of a shutdown.
constexpr unsigned int REASON_LATE_STOP = 0x4424;

// The component and what the platform's error log wants besides reason and
// errno; their meaning is the platform's.
constexpr unsigned int COMPONENT = 0x4400;

void logLateStop()
{
    errno = ETIMEDOUT;
    ErrorLogEntry l_entry(COMPONENT, 0, 1, 0xB1, 0, 0x17, 0x43FF,
                          REASON_LATE_STOP, static_cast<unsigned int>(errno), 0,
                          0, 0, 0x81, 0, 0xF0);
    l_entry.AddTrace("TOLV", 256);
    l_entry.commit(COMPONENT, 0, 0xFF, 0);
}

} // namespace

namespace tolv
{

Dispatcher::Dispatcher(std::uint32_t i_minThreads, std::uint32_t i_maxThreads,
                       bool i_retireIdle) :
    Dispatcher(i_retireIdle)
{
    const MutexLock l_lock(iv_Lock);
    pImpl = new MTDispatcher(i_minThreads, i_maxThreads, i_retireIdle);
}

Dispatcher::Dispatcher(bool) :
    pImpl(nullptr), iv_WatchDogTimeOut(0), iv_WatchDogTid(0), iv_Lock(),
    iv_Shutdown(false), iv_Changed(), iv_ShuttingDown(false),
    iv_WatchDogDone(false), iv_Processing(0)
{
}

Dispatcher::~Dispatcher()
{
    bool l_shutDown = false;
    bool l_deferred = false;
    {
        // One look at both: a shutdown that is deferred from now on finds this
        // one.
        const MutexLock l_lock(iv_Lock);
        l_deferred = iv_WatchDogTid != 0;
        l_shutDown = pImpl != nullptr && !l_deferred;
        if (l_shutDown)
        {
            beginShutdown();
        }
    }
    if (l_shutDown)
    {
        runShutdown(DESTRUCTOR_LIMIT);
        // A caller of ProcessEvents() whose callback does not end fails the
        // pool's assertion, as any of its threads does: no waiting for it.
        pImpl->Join();
    }
    waitForOthers();
    if (!l_deferred)
    {
        delete pImpl;
    }
    else if (__lsan_ignore_object != nullptr)
    {
        __lsan_ignore_object(pImpl);
    }
    pImpl = nullptr;
}

// Until no other thread is inside the object.
void Dispatcher::waitForOthers()
{
    const MutexLock l_lock(iv_Lock);
    while (iv_Processing != 0 || (iv_WatchDogTid != 0 && !iv_WatchDogDone))
    {
        iv_Changed.Wait(iv_Lock);
    }
}

void Dispatcher::Register(OS_HANDLE i_handle, EventHandler& io_handler,
                          EVENT_MASK i_mask)
{
    checkEngine(60, "virtual void tolv::Dispatcher::Register(tolv::OS_HANDLE, "
                    "tolv::EventHandler&, tolv::EVENT_MASK)");
    pImpl->Register(i_handle, io_handler, i_mask);
}

void Dispatcher::Unregister(OS_HANDLE i_handle)
{
    checkEngine(70,
                "virtual void tolv::Dispatcher::Unregister(tolv::OS_HANDLE)");
    pImpl->Unregister(i_handle);
}

Timer_t Dispatcher::AddTimer(EventHandler& io_handler, OS_TIMEOUT& io_timeout)
{
    checkEngine(80, "virtual tolv::Timer_t tolv::Dispatcher::AddTimer("
                    "tolv::EventHandler&, tolv::OS_TIMEOUT&)");
    return pImpl->AddTimer(io_handler, io_timeout);
}

void Dispatcher::UpdateTimer(EventHandler& io_handler, Timer_t i_timer,
                             OS_TIMEOUT& io_timeout)
{
    checkEngine(90, "virtual void tolv::Dispatcher::UpdateTimer("
                    "tolv::EventHandler&, tolv::Timer_t, tolv::OS_TIMEOUT&)");
    pImpl->UpdateTimer(io_handler, i_timer, io_timeout);
}

bool Dispatcher::CancelTimer(Timer_t i_timer)
{
    checkEngine(100,
                "virtual bool tolv::Dispatcher::CancelTimer(tolv::Timer_t)");
    return pImpl->CancelTimer(i_timer);
}

bool Dispatcher::ExpireTimer(Timer_t i_timer)
{
    checkEngine(110,
                "virtual bool tolv::Dispatcher::ExpireTimer(tolv::Timer_t)");
    return pImpl->ExpireTimer(i_timer);
}

// A caller that comes or goes during a shutdown stays for its end: handlers are
// still called until the teardown, and the last second counts as well.
void Dispatcher::ProcessEvents()
{
    const MutexLock l_lock(iv_Lock);
    ++iv_Processing;
    waitForShutdown();
    if (!iv_Shutdown && pImpl != nullptr)
    {
        iv_Lock.Unlock();
        pImpl->ProcessEvents();
        iv_Lock.Lock();
        waitForShutdown();
    }
    --iv_Processing;
    iv_Changed.NotifyAll();
}

void Dispatcher::EnableCallback(OS_HANDLE i_handle)
{
    checkEngine(
        140, "virtual void tolv::Dispatcher::EnableCallback(tolv::OS_HANDLE)");
    pImpl->EnableCallback(i_handle);
}

void Dispatcher::EnableCallback(Timer_t i_timer)
{
    checkEngine(150,
                "virtual void tolv::Dispatcher::EnableCallback(tolv::Timer_t)");
    pImpl->EnableCallback(i_timer);
}

// Deliberate: that the engine has been torn down is not looked at.
// Effect: a second shutdown, the destructor's after a direct one too, ends the
// process: the engine's wake-up byte finds no socket.
// Pinned by: DispatcherDeathTest.SecondShutdownFailsItsAssertion,
// DispatcherDeathTest.DestructorAfterAShutdownFailsItsAssertion
void Dispatcher::Shutdown(std::uint32_t i_seconds)
{
    {
        const MutexLock l_lock(iv_Lock);
        beginShutdown();
    }
    runShutdown(i_seconds);
}

// One shutdown at a time. The lock is not held meanwhile: a callback that
// defers a shutdown would wait for the end of the one that waits for it.
void Dispatcher::beginShutdown()
{
    waitForShutdown();
    iv_Shutdown = true;
    iv_ShuttingDown = true;
}

// Until none is under way.
void Dispatcher::waitForShutdown()
{
    while (iv_ShuttingDown)
    {
        iv_Changed.Wait(iv_Lock);
    }
}

// Deliberate: everything has a second to come to its end before it is stopped.
// Effect: a full shutdown takes at least two seconds, with the one after the
// teardown.
// Pinned by: DispatcherTest.ShutdownSleepsBeforeAndAfter
void Dispatcher::runShutdown(std::uint32_t i_seconds)
{
    sleepFully(1);
    if (pImpl != nullptr)
    {
        if (pImpl->Shutdown(i_seconds))
        {
            logLateStop();
        }
        pImpl->Finish();
    }
    const MutexLock l_lock(iv_Lock);
    iv_ShuttingDown = false;
    iv_Changed.NotifyAll();
}

void Dispatcher::DeferredShutdown(std::uint32_t i_seconds)
{
    const bool l_shutDown = isShutDown();
    sleepFully(1);
    const MutexLock l_lock(iv_Lock);
    // A shutdown that is under way, or was meanwhile, is the one asked for.
    const bool l_begun = iv_Shutdown && !l_shutDown;
    if (l_begun || pImpl == nullptr || iv_WatchDogTid != 0)
    {
        return;
    }
    iv_WatchDogTimeOut = i_seconds;
    if (pthread_create(&iv_WatchDogTid, nullptr, WatchDogThread, this) != 0)
    {
        assertFailed("0 == pthread_create( &iv_WatchDogTid, 0, WatchDogThread, "
                     "this )",
                     SOURCE, 220,
                     "virtual void tolv::Dispatcher::DeferredShutdown("
                     "uint32_t)");
    }
}

// Whether a shutdown has come to its end.
bool Dispatcher::isShutDown()
{
    const MutexLock l_lock(iv_Lock);
    return iv_Shutdown && !iv_ShuttingDown;
}

void* Dispatcher::WatchDogThread(void* i_dispatcher)
{
    pthread_detach(pthread_self());
    static_cast<Dispatcher*>(i_dispatcher)->runWatchDog();
    return nullptr;
}

void Dispatcher::runWatchDog()
{
    std::uint32_t l_seconds = 0;
    {
        const MutexLock l_lock(iv_Lock);
        l_seconds = iv_WatchDogTimeOut;
    }
    Shutdown(l_seconds);
    const MutexLock l_lock(iv_Lock);
    iv_WatchDogDone = true;
    iv_Changed.NotifyAll();
}

int Dispatcher::RaiseSignal(int i_signal)
{
    return pImpl != nullptr ? pImpl->RaiseSignal(i_signal) : -1;
}

void Dispatcher::checkEngine(unsigned int i_line, const char* i_function) const
{
    if (pImpl == nullptr)
    {
        assertFailed("pImpl", SOURCE, i_line, i_function);
    }
}

} // namespace tolv

#include "tolv/vex/tolvDispatcher.hpp"

#include "support/assertion.hpp"
#include "support/countingHandler.hpp"
#include "support/engineOf.hpp"
#include "support/fakePlatform.hpp"
#include "support/fakeSleep.hpp"
#include "support/privateMember.hpp"
#include "support/virtualSlot.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(FrontLock, Dispatcher, Mutex, iv_Lock);
TOLV_PRIVATE_MEMBER(ShutdownFlag, Dispatcher, bool, iv_Shutdown);
TOLV_PRIVATE_MEMBER(WatchDogTimeOut, Dispatcher, std::uint32_t,
                    iv_WatchDogTimeOut);
TOLV_PRIVATE_MEMBER(WatchDogTid, Dispatcher, pthread_t, iv_WatchDogTid);
TOLV_PRIVATE_MEMBER(WatchDogDone, Dispatcher, bool, iv_WatchDogDone);
TOLV_PRIVATE_MEMBER(Processing, Dispatcher, std::uint32_t, iv_Processing);
TOLV_PRIVATE_MEMBER(Changed, Dispatcher, Condition, iv_Changed);
TOLV_PRIVATE_MEMBER(Waiters, Condition, std::atomic<unsigned int>, iv_Waiters);
TOLV_PRIVATE_MEMBER(EngineShutdown, MTDispatcher, std::atomic<bool>,
                    iv_Shutdown);
TOLV_PRIVATE_MEMBER(RegLock, MTDispatcher, Mutex, iv_RegLock);
TOLV_PRIVATE_MEMBER(Handles, MTDispatcher, HandleTable, iv_Handles);
TOLV_PRIVATE_MEMBER(Pool, MTDispatcher, ThreadPool* const, iv_Pool);

namespace
{

using ACTION = EventHandler::ACTION;
constexpr ACTION CONTINUE = EventHandler::ACTION_CONTINUE;
constexpr ACTION UNREGISTER = EventHandler::ACTION_UNREGISTER;
constexpr ACTION REMOVE = EventHandler::ACTION_REMOVE;

// Limits of the shutdowns of pools.
std::mutex g_lock;
std::vector<unsigned int> g_limits;

// Threads that start, whether they fail to, and what the last one was to be
// started with.
std::atomic<int> g_threads(0);
std::atomic<bool> g_failThreads(false);
std::atomic<const pthread_attr_t*> g_attributes(nullptr);

// Whether waits with a limit have reached it as soon as they begin.
std::atomic<bool> g_impatient(false);

// Where callers are held when they leave the engine's ProcessEvents().
Gate* g_exit = nullptr;

std::vector<unsigned int> limits()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_limits;
}

template <class Tag>
auto valueOf(Dispatcher& io_dispatcher, Tag i_tag)
{
    Mutex& l_mutex = io_dispatcher.*get(FrontLock());
    const MutexLock l_lock(l_mutex);
    return io_dispatcher.*get(i_tag);
}

// Until so many threads wait inside the front.
bool waitForWaiters(Dispatcher& io_dispatcher, unsigned int i_threads)
{
    return waitFor(
        [&]
        {
            const Condition& l_changed = io_dispatcher.*get(Changed());
            return l_changed.*get(Waiters()) == i_threads;
        });
}

bool isRegistered(Dispatcher& io_dispatcher, OS_HANDLE i_handle)
{
    MTDispatcher& l_engine = engineOf(io_dispatcher);
    Mutex& l_mutex = l_engine.*get(RegLock());
    const MutexLock l_lock(l_mutex);
    return (l_engine.*get(Handles())).find(i_handle) != nullptr;
}

Timer_t addTimer(Dispatcher& io_dispatcher, EventHandler& io_handler,
                 std::uint32_t i_seconds)
{
    OS_TIMEOUT l_period(i_seconds);
    return io_dispatcher.AddTimer(io_handler, l_period);
}

class DispatcherTest : public testing::Test
{
  protected:
    DispatcherTest()
    {
        fakeSleep::skip();
    }
};

// Holds up the teardown of the dispatcher it is registered with.
class TeardownGate
{
  public:
    TeardownGate()
    {
        iv_Handler.iv_OnShutdown = [this]
        {
            iv_Gate.pass();
            return CONTINUE;
        };
    }

    void registerWith(Dispatcher& io_dispatcher)
    {
        io_dispatcher.Register(iv_Pair.near(), iv_Handler, 0);
    }

    bool waitUntilReached()
    {
        return iv_Gate.waitForArrived(1);
    }

    void open()
    {
        iv_Gate.open();
    }

  private:
    const SocketPair iv_Pair;
    Gate iv_Gate;
    CountingHandler iv_Handler;
};

} // namespace

extern "C"
{
    int __real_pthread_create(pthread_t*, const pthread_attr_t*,
                              void* (*)(void*), void*);
    int __wrap_pthread_create(pthread_t* o_thread, const pthread_attr_t* i_attr,
                              void* (*i_routine)(void*), void* io_argument);

    int __wrap_pthread_create(pthread_t* o_thread, const pthread_attr_t* i_attr,
                              void* (*i_routine)(void*), void* io_argument)
    {
        ++g_threads;
        g_attributes = i_attr;
        return g_failThreads ? EAGAIN
                             : __real_pthread_create(o_thread, i_attr,
                                                     i_routine, io_argument);
    }
}

bool realShutdown(ThreadPool*, unsigned int) __asm__(
    "__real__ZN4tolv10ThreadPool8ShutdownEj");
bool wrapShutdown(ThreadPool*, unsigned int) __asm__(
    "__wrap__ZN4tolv10ThreadPool8ShutdownEj");

bool wrapShutdown(ThreadPool* io_pool, unsigned int i_seconds)
{
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        g_limits.push_back(i_seconds);
    }
    return realShutdown(io_pool, i_seconds);
}

bool realTimedWait(Condition*, Mutex&, const TimeValue&) __asm__(
    "__real__ZN4tolv9Condition9TimedWaitERNS_5MutexERKNS_9TimeValueE");
bool wrapTimedWait(Condition*, Mutex&, const TimeValue&) __asm__(
    "__wrap__ZN4tolv9Condition9TimedWaitERNS_5MutexERKNS_9TimeValueE");

bool wrapTimedWait(Condition* io_condition, Mutex& io_mutex,
                   const TimeValue& i_deadline)
{
    return g_impatient || realTimedWait(io_condition, io_mutex, i_deadline);
}

void realProcessEvents(MTDispatcher*) __asm__(
    "__real__ZN4tolv12MTDispatcher13ProcessEventsEv");
void wrapProcessEvents(MTDispatcher*) __asm__(
    "__wrap__ZN4tolv12MTDispatcher13ProcessEventsEv");

void wrapProcessEvents(MTDispatcher* io_engine)
{
    realProcessEvents(io_engine);
    if (g_exit != nullptr)
    {
        g_exit->pass();
    }
}

TEST(DispatcherSlotTest, OperationsHaveTheirSlots)
{
    EXPECT_EQ(2U, virtualSlot(&Dispatcher::Register));
    EXPECT_EQ(3U, virtualSlot(&Dispatcher::Unregister));
    EXPECT_EQ(4U, virtualSlot(&Dispatcher::AddTimer));
    EXPECT_EQ(5U, virtualSlot(&Dispatcher::UpdateTimer));
    EXPECT_EQ(6U, virtualSlot(&Dispatcher::CancelTimer));
    EXPECT_EQ(7U, virtualSlot(&Dispatcher::ExpireTimer));
    EXPECT_EQ(8U, virtualSlot(&Dispatcher::ProcessEvents));
    using OnHandle = void (Dispatcher::*)(OS_HANDLE);
    using OnTimer = void (Dispatcher::*)(Timer_t);
    EXPECT_EQ(9U, virtualSlot<OnHandle>(&Dispatcher::EnableCallback));
    EXPECT_EQ(10U, virtualSlot<OnTimer>(&Dispatcher::EnableCallback));
    EXPECT_EQ(11U, virtualSlot(&Dispatcher::Shutdown));
    EXPECT_EQ(12U, virtualSlot(&Dispatcher::DeferredShutdown));
    EXPECT_EQ(13U, virtualSlot(&Dispatcher::RaiseSignal));
}

TEST_F(DispatcherTest, OperationsReachTheEngine)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(1, 1, false);
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
    l_dispatcher.EnableCallback(l_pair.near());
    l_dispatcher.Unregister(l_pair.near());
    EXPECT_FALSE(isRegistered(l_dispatcher, l_pair.near()));

    const Timer_t l_timer = addTimer(l_dispatcher, l_handler, 3600);
    EXPECT_EQ(1U, l_timer);
    EXPECT_TRUE(l_dispatcher.ExpireTimer(l_timer));
    EXPECT_FALSE(l_dispatcher.ExpireTimer(l_timer + 1));
    OS_TIMEOUT l_atOnce;
    l_dispatcher.UpdateTimer(l_handler, l_timer, l_atOnce);
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Ticks >= 1; }));
    l_dispatcher.EnableCallback(l_timer);
    EXPECT_TRUE(l_dispatcher.CancelTimer(l_timer));
    EXPECT_FALSE(l_dispatcher.CancelTimer(l_timer + 1));
    EXPECT_EQ(0, l_dispatcher.RaiseSignal(0));
}

TEST_F(DispatcherTest, HandlersAreCalledBeforeProcessEvents)
{
    CountingHandler l_handler;
    Dispatcher l_dispatcher(1, 1, false);
    addTimer(l_dispatcher, l_handler, 0);
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Ticks >= 1; }));
}

TEST_F(DispatcherTest, WithoutEngineProcessEventsReturnsAtOnce)
{
    Dispatcher l_dispatcher(true);
    l_dispatcher.ProcessEvents();
    l_dispatcher.Shutdown(1);
    l_dispatcher.ProcessEvents();
    EXPECT_EQ(1U, fakeSleep::begun().size());
}

TEST_F(DispatcherTest, WithoutEngineShutdownSetsTheFlagAndSleeps)
{
    Dispatcher l_dispatcher(false);
    EXPECT_FALSE(valueOf(l_dispatcher, ShutdownFlag()));
    l_dispatcher.Shutdown(7);
    EXPECT_TRUE(valueOf(l_dispatcher, ShutdownFlag()));
    ASSERT_EQ(1U, fakeSleep::begun().size());
    EXPECT_EQ(1, fakeSleep::begun()[0].tv_sec);
    EXPECT_EQ(0, fakeSleep::begun()[0].tv_nsec);
    l_dispatcher.Shutdown(7);
    EXPECT_EQ(2U, fakeSleep::begun().size());
    EXPECT_TRUE(limits().empty());
}

TEST_F(DispatcherTest, WithoutEngineDeferredShutdownOnlySleeps)
{
    Dispatcher l_dispatcher(false);
    l_dispatcher.DeferredShutdown(7);
    EXPECT_FALSE(valueOf(l_dispatcher, ShutdownFlag()));
    EXPECT_EQ(0U, valueOf(l_dispatcher, WatchDogTimeOut()));
    EXPECT_EQ(0U, valueOf(l_dispatcher, WatchDogTid()));
    EXPECT_EQ(0, g_threads);
    ASSERT_EQ(1U, fakeSleep::begun().size());
    EXPECT_EQ(1, fakeSleep::begun()[0].tv_sec);
}

TEST_F(DispatcherTest, RaiseSignalWithoutEngineOrThreadsReturnsMinusOne)
{
    EXPECT_EQ(-1, Dispatcher(false).RaiseSignal(0));
    ShutDownDispatcher<> l_dispatcher(2, 2, false);
    EXPECT_EQ(0, l_dispatcher.RaiseSignal(0));
    l_dispatcher.Shutdown(20);
    EXPECT_EQ(-1, l_dispatcher.RaiseSignal(0));
}

TEST_F(DispatcherTest, ShutdownSleepsBeforeAndAfter)
{
    fakeSleep::hold();
    const SocketPair l_pair;
    CountingHandler l_handler;
    std::atomic<bool> l_processed(false);
    std::atomic<bool> l_ended(false);
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    std::thread l_caller(
        [&]
        {
            l_dispatcher.ProcessEvents();
            l_processed = true;
        });
    EXPECT_TRUE(
        waitFor([&] { return valueOf(l_dispatcher, Processing()) == 1; }));
    std::thread l_shutdown(
        [&]
        {
            l_dispatcher.Shutdown(20);
            l_ended = true;
        });
    // In the first second everything goes on.
    EXPECT_TRUE(fakeSleep::waitForBegun(1));
    EXPECT_TRUE(valueOf(l_dispatcher, ShutdownFlag()));
    EXPECT_FALSE(engineOf(l_dispatcher).*get(EngineShutdown()));
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
    EXPECT_EQ(0, l_handler.iv_Shutdowns);
    EXPECT_TRUE(limits().empty());
    fakeSleep::letGo();
    // The second one begins when all is done. Callers stay for it.
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    EXPECT_EQ(std::vector<unsigned int>({20}), limits());
    EXPECT_EQ(1, l_handler.iv_Shutdowns);
    EXPECT_FALSE(isRegistered(l_dispatcher, l_pair.near()));
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    EXPECT_FALSE(l_processed);
    EXPECT_FALSE(l_ended);
    fakeSleep::letGo();
    l_shutdown.join();
    l_caller.join();
    ASSERT_EQ(2U, fakeSleep::begun().size());
    for (const timespec& l_sleep : fakeSleep::begun())
    {
        EXPECT_EQ(1, l_sleep.tv_sec);
        EXPECT_EQ(0, l_sleep.tv_nsec);
    }
}

TEST_F(DispatcherTest, ShutdownsTakePlaceOneAfterTheOther)
{
    fakeSleep::hold();
    Dispatcher l_dispatcher(false);
    std::thread l_first([&] { l_dispatcher.Shutdown(1); });
    EXPECT_TRUE(fakeSleep::waitForBegun(1));
    std::thread l_second([&] { l_dispatcher.Shutdown(1); });
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    EXPECT_EQ(1U, fakeSleep::begun().size());
    fakeSleep::letGo();
    l_first.join();
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    fakeSleep::letGo();
    l_second.join();
}

TEST_F(DispatcherTest, AnInterruptedSleepGoesOnForTheRest)
{
    Dispatcher l_dispatcher(false);
    fakeSleep::interruptNext({0, 700000000});
    l_dispatcher.Shutdown(0);
    ASSERT_EQ(2U, fakeSleep::begun().size());
    EXPECT_EQ(0, fakeSleep::begun()[1].tv_sec);
    EXPECT_EQ(700000000, fakeSleep::begun()[1].tv_nsec);
}

namespace
{

void ignore(int) {}

} // namespace

TEST(DispatcherSleepTest, SleepsLastTheirFullTimeUnderSignals)
{
    struct sigaction l_action = {};
    l_action.sa_handler = ignore;
    ASSERT_EQ(0, sigaction(SIGUSR1, &l_action, nullptr));
    std::atomic<bool> l_done(false);
    const pthread_t l_sleeper = pthread_self();
    std::thread l_disturber(
        [&]
        {
            while (!l_done)
            {
                pthread_kill(l_sleeper, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    const auto l_begin = std::chrono::steady_clock::now();
    {
        ShutDownDispatcher<> l_dispatcher(1, 1, false);
        l_dispatcher.Shutdown(20);
    }
    EXPECT_LE(std::chrono::seconds(2),
              std::chrono::steady_clock::now() - l_begin);
    l_done = true;
    l_disturber.join();
}

TEST_F(DispatcherTest, ProcessEventsAfterAShutdownReturnsAtOnce)
{
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_dispatcher.Shutdown(20);
    l_dispatcher.ProcessEvents();
}

TEST_F(DispatcherTest, ProcessEventsDuringAShutdownReturnsAtItsEnd)
{
    TeardownGate l_gate;
    std::atomic<bool> l_processed(false);
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_gate.registerWith(l_dispatcher);
    std::thread l_shutdown([&] { l_dispatcher.Shutdown(20); });
    EXPECT_TRUE(l_gate.waitUntilReached());
    std::thread l_caller(
        [&]
        {
            l_dispatcher.ProcessEvents();
            l_processed = true;
        });
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    fakeSleep::hold();
    l_gate.open();
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    EXPECT_FALSE(l_processed);
    fakeSleep::letGo();
    l_caller.join();
    l_shutdown.join();
}

TEST_F(DispatcherTest, EveryCallerOfProcessEventsReturns)
{
    constexpr int CALLERS = 4; // more than there may be threads
    std::atomic<int> l_returned(0);
    std::vector<std::thread> l_callers;
    ShutDownDispatcher<> l_dispatcher(1, 2, false);
    for (int l_caller = 0; l_caller != CALLERS; ++l_caller)
    {
        l_callers.emplace_back(
            [&]
            {
                l_dispatcher.ProcessEvents();
                ++l_returned;
            });
    }
    l_dispatcher.Shutdown(20);
    EXPECT_TRUE(waitFor([&] { return l_returned == CALLERS; }));
    for (std::thread& l_caller : l_callers)
    {
        l_caller.join();
    }
}

TEST_F(DispatcherTest, ShutdownThatEndsInTimeWritesNoErrorLogEntry)
{
    ShutDownDispatcher<> l_dispatcher(2, 2, false);
    fakePlatform::forgetCalls();
    l_dispatcher.Shutdown(20);
    EXPECT_TRUE(fakePlatform::callsOf("ErrorLogEntry").empty());
}

TEST_F(DispatcherTest, LateStopIsWrittenToTheErrorLog)
{
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        l_gate.pass();
        return CONTINUE;
    };
    std::size_t l_callsBefore = 0;
    l_handler.iv_OnShutdown = [&]
    {
        l_callsBefore = fakePlatform::calls().size();
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    fakePlatform::forgetCalls();
    l_dispatcher.Shutdown(0);

    const std::vector<fakePlatform::Call> l_calls = fakePlatform::calls();
    ASSERT_EQ(4U, l_calls.size());
    EXPECT_EQ(4U, l_callsBefore); // the teardown comes afterwards
    EXPECT_STREQ("ErrorLogEntry", l_calls[0].service);
    const unsigned int VALUES[] = {0x4400, 0,      1,      0xB1, 0,
                                   0x17,   0x43FF, 0x4424, 110,  0,
                                   0,      0,      0x81,   0,    0xF0};
    EXPECT_TRUE(std::equal(std::begin(VALUES), std::end(VALUES),
                           std::begin(l_calls[0].values),
                           std::end(l_calls[0].values)));
    EXPECT_STREQ("AddTrace", l_calls[1].service);
    EXPECT_STREQ("TOLV", l_calls[1].name);
    EXPECT_EQ(256U, l_calls[1].values[0]);
    EXPECT_STREQ("commit", l_calls[2].service);
    EXPECT_EQ(0x4400U, l_calls[2].values[0]);
    EXPECT_EQ(0U, l_calls[2].values[1]);
    EXPECT_EQ(0xFFU, l_calls[2].values[2]);
    EXPECT_EQ(0U, l_calls[2].values[3]);
    EXPECT_STREQ("~ErrorLogEntry", l_calls[3].service);
    for (const fakePlatform::Call& l_call : l_calls)
    {
        EXPECT_EQ(l_calls[0].entry, l_call.entry);
    }
    // The shutdown went on as if the thread had stopped.
    EXPECT_EQ(1, l_handler.iv_Shutdowns);
    EXPECT_FALSE(isRegistered(l_dispatcher, l_pair.near()));
    EXPECT_EQ(2U, fakeSleep::begun().size());
    l_gate.open();
}

TEST_F(DispatcherTest, ShutdownInACallbackRunsIntoItsLimit)
{
    for (const std::uint32_t l_threads : {1U, 3U})
    {
        std::atomic<bool> l_ended(false);
        CountingHandler l_handler;
        ShutDownDispatcher<> l_dispatcher(l_threads, l_threads, false);
        l_handler.iv_OnTimer = [&](Timer_t)
        {
            l_dispatcher.Shutdown(0);
            l_ended = true;
            return CONTINUE;
        };
        fakePlatform::forgetCalls();
        addTimer(l_dispatcher, l_handler, 0);
        l_dispatcher.ProcessEvents();
        EXPECT_TRUE(waitFor([&] { return l_ended.load(); }));
        EXPECT_EQ(1U, fakePlatform::callsOf("commit").size());
        EXPECT_EQ(1, l_handler.iv_Shutdowns);
    }
}

namespace
{

// A callback that comes back after the teardown.
struct Straggler
{
    bool timer; // or a descriptor
    ACTION answer;
    ACTION onShutdown;
    std::uint32_t threads;
};

std::vector<Straggler> stragglers()
{
    std::vector<Straggler> l_all;
    for (const bool l_timer : {false, true})
    {
        for (const ACTION l_answer : {CONTINUE, UNREGISTER, REMOVE})
        {
            for (const ACTION l_onShutdown : {CONTINUE, REMOVE})
            {
                l_all.push_back({l_timer, l_answer, l_onShutdown, 1});
                l_all.push_back({l_timer, l_answer, l_onShutdown, 3});
            }
        }
    }
    return l_all;
}

// The straggler's handler has both a descriptor and a timer.
void expectStragglerIsHarmless(const Straggler& i_case)
{
    const SocketPair l_pair;
    Gate l_gate;
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    const auto l_straggle = [&]
    {
        l_gate.pass();
        return i_case.answer;
    };
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE) { return l_straggle(); };
    l_handler->iv_OnTimer = [&](Timer_t) { return l_straggle(); };
    l_handler->iv_OnShutdown = [&] { return i_case.onShutdown; };
    {
        ShutDownDispatcher<> l_dispatcher(i_case.threads, i_case.threads,
                                          false);
        l_dispatcher.Register(l_pair.near(), *l_handler, 0);
        addTimer(l_dispatcher, *l_handler, i_case.timer ? 0 : 3600);
        if (!i_case.timer)
        {
            l_pair.send();
        }
        ASSERT_TRUE(l_gate.waitForArrived(1));
        l_dispatcher.Shutdown(0);
        // Once it has asked to be removed it is left to the straggler.
        EXPECT_EQ(i_case.onShutdown == REMOVE ? 1 : 2, l_handler->iv_Shutdowns);
        EXPECT_EQ(0, l_destroyed);
        l_gate.open();
    }
    // All threads have left.
    const bool l_gone = i_case.answer == REMOVE || i_case.onShutdown == REMOVE;
    EXPECT_EQ(l_gone ? 1 : 0, l_destroyed);
    if (!l_gone)
    {
        EXPECT_EQ(1, l_handler->iv_Reads + l_handler->iv_Ticks);
        delete l_handler;
    }
}

} // namespace

TEST_F(DispatcherTest, ThreadThatReturnsAfterTheTeardownDoesNoHarm)
{
    for (const Straggler& l_case : stragglers())
    {
        SCOPED_TRACE(testing::Message()
                     << (l_case.timer ? "timer" : "descriptor") << ", answers "
                     << l_case.answer << ", to the shutdown "
                     << l_case.onShutdown << ", threads " << l_case.threads);
        expectStragglerIsHarmless(l_case);
    }
}

TEST_F(DispatcherTest, ThreadThatReturnsDuringTheTeardownDoesNoHarm)
{
    for (const ACTION l_answer : {CONTINUE, UNREGISTER, REMOVE})
    {
        for (const ACTION l_onShutdown : {CONTINUE, REMOVE})
        {
            const SocketPair l_pair;
            Gate l_gate;
            Gate l_teardown;
            std::atomic<int> l_destroyed(0);
            CountingHandler* const l_handler = new CountingHandler;
            l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
            l_handler->iv_OnRead = [&](OS_HANDLE)
            {
                l_gate.pass();
                return l_answer;
            };
            l_handler->iv_OnShutdown = [&]
            {
                l_teardown.pass();
                return l_onShutdown;
            };
            {
                ShutDownDispatcher<> l_dispatcher(1, 1, false);
                l_dispatcher.Register(l_pair.near(), *l_handler, 0);
                l_pair.send();
                ASSERT_TRUE(l_gate.waitForArrived(1));
                std::thread l_shutdown([&] { l_dispatcher.Shutdown(0); });
                EXPECT_TRUE(l_teardown.waitForArrived(1));
                l_gate.open(); // the thread leaves while the handler is asked
                EXPECT_TRUE(waitFor(
                    [&]
                    {
                        return l_answer == CONTINUE ||
                               !isRegistered(l_dispatcher, l_pair.near());
                    }));
                l_teardown.open();
                l_shutdown.join();
            }
            const bool l_gone = l_answer == REMOVE || l_onShutdown == REMOVE;
            EXPECT_EQ(l_gone ? 1 : 0, l_destroyed);
            if (!l_gone)
            {
                delete l_handler;
            }
        }
    }
}

TEST_F(DispatcherTest, DestructorWithoutAShutdownShutsDownWithItsOwnLimit)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    {
        Dispatcher l_dispatcher(2, 2, false);
        l_dispatcher.Register(l_pair.near(), l_handler, 0);
    }
    ASSERT_LE(1U, limits().size());
    EXPECT_EQ(30U, limits()[0]);
    EXPECT_EQ(1, l_handler.iv_Shutdowns);
    EXPECT_EQ(2U, fakeSleep::begun().size());
}

TEST_F(DispatcherTest, DestructorWaitsForCallersOfProcessEvents)
{
    for (const bool l_deferred : {false, true})
    {
        Gate l_exit;
        g_exit = &l_exit;
        std::atomic<bool> l_destroyed(false);
        std::unique_ptr<MTDispatcher> l_engine;
        std::unique_ptr<Dispatcher> l_owner(new Dispatcher(1, 2, false));
        Dispatcher& l_dispatcher = *l_owner;
        std::thread l_caller([&] { l_dispatcher.ProcessEvents(); });
        EXPECT_TRUE(
            waitFor([&] { return valueOf(l_dispatcher, Processing()) == 1; }));
        if (l_deferred)
        {
            l_engine.reset(&engineOf(l_dispatcher));
            l_dispatcher.DeferredShutdown(20);
            EXPECT_TRUE(
                waitFor([&] { return valueOf(l_dispatcher, WatchDogDone()); }));
        }
        std::thread l_destructor(
            [&]
            {
                l_owner.reset();
                l_destroyed = true;
            });
        EXPECT_TRUE(l_exit.waitForArrived(1));
        EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
        EXPECT_FALSE(l_destroyed);
        l_exit.open();
        l_caller.join();
        l_destructor.join();
        g_exit = nullptr;
    }
}

TEST_F(DispatcherTest, DeferredShutdownDuringTheDestructorOnlySleeps)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    std::unique_ptr<Dispatcher> l_owner(new Dispatcher(1, 1, false));
    Dispatcher& l_dispatcher = *l_owner;
    l_handler.iv_OnShutdown = [&]
    {
        l_dispatcher.DeferredShutdown(5);
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    const int l_threads = g_threads;
    l_owner.reset();
    EXPECT_EQ(1, l_handler.iv_Shutdowns);
    EXPECT_EQ(3U, fakeSleep::begun().size());
    EXPECT_EQ(l_threads, g_threads);
}

TEST_F(DispatcherTest, DeferredShutdownTakesASecondAndLeavesTheRestToItsThread)
{
    fakeSleep::hold();
    const SocketPair l_pair;
    CountingHandler l_handler;
    std::unique_ptr<MTDispatcher> l_engine;
    Dispatcher l_dispatcher(1, 1, false);
    l_engine.reset(&engineOf(l_dispatcher));
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    const int l_threads = g_threads;
    std::thread l_caller([&] { l_dispatcher.DeferredShutdown(5); });
    EXPECT_TRUE(fakeSleep::waitForBegun(1));
    EXPECT_FALSE(valueOf(l_dispatcher, ShutdownFlag()));
    EXPECT_EQ(l_threads, g_threads);
    fakeSleep::letGo();
    l_caller.join();
    // The watchdog sleeps now as any shutdown does.
    EXPECT_EQ(5U, valueOf(l_dispatcher, WatchDogTimeOut()));
    EXPECT_EQ(l_threads + 1, g_threads);
    EXPECT_EQ(nullptr, g_attributes.load());
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    EXPECT_TRUE(valueOf(l_dispatcher, ShutdownFlag()));
    EXPECT_EQ(0, l_handler.iv_Shutdowns);
    fakeSleep::skip();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Shutdowns == 1; }));
    EXPECT_EQ(std::vector<unsigned int>({5}), limits());
    ASSERT_TRUE(fakeSleep::waitForBegun(3));
    for (const timespec& l_sleep : fakeSleep::begun())
    {
        EXPECT_EQ(1, l_sleep.tv_sec);
    }
}

TEST_F(DispatcherTest, DeferredShutdownInACallbackStopsInTime)
{
    for (const std::uint32_t l_threads : {1U, 3U})
    {
        CountingHandler l_handler;
        std::unique_ptr<MTDispatcher> l_engine;
        Dispatcher l_dispatcher(l_threads, l_threads, false);
        l_engine.reset(&engineOf(l_dispatcher));
        l_handler.iv_OnTimer = [&](Timer_t)
        {
            l_dispatcher.DeferredShutdown(20);
            return UNREGISTER;
        };
        fakePlatform::forgetCalls();
        addTimer(l_dispatcher, l_handler, 0);
        l_dispatcher.ProcessEvents();
        EXPECT_TRUE(fakePlatform::callsOf("commit").empty());
    }
}

TEST_F(DispatcherTest, TwoCallbacksThatDeferAtOnceStartOneWatchdog)
{
    fakeSleep::hold();
    std::atomic<int> l_deferred(0);
    CountingHandler l_handlers[2];
    std::unique_ptr<MTDispatcher> l_engine;
    Dispatcher l_dispatcher(3, 3, false);
    l_engine.reset(&engineOf(l_dispatcher));
    const int l_threads = g_threads;
    for (CountingHandler& l_handler : l_handlers)
    {
        l_handler.iv_OnTimer = [&](Timer_t)
        {
            l_dispatcher.DeferredShutdown(20);
            ++l_deferred;
            return UNREGISTER;
        };
        addTimer(l_dispatcher, l_handler, 0);
    }
    // Both sleep at once.
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    EXPECT_EQ(0, l_deferred);
    fakePlatform::forgetCalls();
    fakeSleep::skip();
    EXPECT_TRUE(waitFor([&] { return l_deferred == 2; }));
    l_dispatcher.ProcessEvents();
    EXPECT_TRUE(fakeSleep::waitForBegun(4));
    EXPECT_EQ(4U, fakeSleep::begun().size());
    EXPECT_EQ(l_threads + 1, g_threads);
    EXPECT_EQ(std::vector<unsigned int>({20}), limits());
    EXPECT_TRUE(fakePlatform::callsOf("commit").empty());
}

TEST_F(DispatcherTest, SecondDeferredShutdownOnlySleeps)
{
    TeardownGate l_gate;
    std::unique_ptr<MTDispatcher> l_engine;
    Dispatcher l_dispatcher(1, 1, false);
    l_engine.reset(&engineOf(l_dispatcher));
    l_gate.registerWith(l_dispatcher);
    fakeSleep::hold();
    std::thread l_caller([&] { l_dispatcher.DeferredShutdown(5); });
    fakeSleep::letGo();
    l_caller.join();
    EXPECT_TRUE(fakeSleep::waitForBegun(2)); // the watchdog's first one
    const int l_threads = g_threads;
    fakeSleep::skip();
    EXPECT_TRUE(l_gate.waitUntilReached());
    const std::size_t l_sleeps = fakeSleep::begun().size();
    l_dispatcher.DeferredShutdown(9);
    EXPECT_EQ(l_sleeps + 1, fakeSleep::begun().size());
    l_gate.open();
    l_dispatcher.ProcessEvents(); // until the end
    l_dispatcher.DeferredShutdown(9);
    EXPECT_EQ(5U, valueOf(l_dispatcher, WatchDogTimeOut()));
    EXPECT_EQ(l_threads, g_threads);
    EXPECT_EQ(std::vector<unsigned int>({5}), limits());
}

TEST_F(DispatcherTest, DeferredShutdownDuringAShutdownOnlySleeps)
{
    TeardownGate l_gate;
    CountingHandler l_deferring;
    const SocketPair l_pair;
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_deferring.iv_OnShutdown = [&]
    {
        l_dispatcher.DeferredShutdown(5);
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_deferring, 0);
    l_gate.registerWith(l_dispatcher);
    const int l_threads = g_threads;
    std::thread l_shutdown([&] { l_dispatcher.Shutdown(20); });
    EXPECT_TRUE(l_gate.waitUntilReached());
    EXPECT_EQ(1, l_deferring.iv_Shutdowns);
    l_dispatcher.DeferredShutdown(5);
    EXPECT_EQ(3U, fakeSleep::begun().size());
    l_gate.open();
    l_shutdown.join();
    EXPECT_EQ(4U, fakeSleep::begun().size());
    EXPECT_EQ(l_threads, g_threads);
    EXPECT_EQ(0U, valueOf(l_dispatcher, WatchDogTid()));
}

TEST_F(DispatcherTest,
       ShutdownThatBeginsWhileAnotherIsBeingDeferredIsTheOnlyOne)
{
    TeardownGate l_gate;
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    l_gate.registerWith(l_dispatcher);
    const int l_threads = g_threads;
    fakeSleep::hold();
    std::thread l_deferring([&] { l_dispatcher.DeferredShutdown(5); });
    EXPECT_TRUE(fakeSleep::waitForBegun(1));
    std::thread l_shutdown([&] { l_dispatcher.Shutdown(20); });
    EXPECT_TRUE(fakeSleep::waitForBegun(2));
    fakeSleep::letGo();
    fakeSleep::letGo();
    EXPECT_TRUE(l_gate.waitUntilReached());
    l_deferring.join();
    fakeSleep::skip();
    l_gate.open();
    l_shutdown.join();
    EXPECT_EQ(l_threads, g_threads);
    EXPECT_EQ(0U, valueOf(l_dispatcher, WatchDogTid()));
}

TEST_F(DispatcherTest, ShutdownThatEndsWhileAnotherIsBeingDeferredIsTheOnlyOne)
{
    ShutDownDispatcher<> l_dispatcher(1, 1, false);
    const int l_threads = g_threads;
    fakeSleep::replaceNext([&] { l_dispatcher.Shutdown(20); });
    l_dispatcher.DeferredShutdown(5);
    EXPECT_EQ(3U, fakeSleep::begun().size());
    EXPECT_EQ(l_threads, g_threads);
    EXPECT_EQ(0U, valueOf(l_dispatcher, WatchDogTid()));
}

namespace
{

// A derived class sees the watchdog's call.
class Overriding : public Dispatcher
{
  public:
    Overriding() : Dispatcher(1, 1, false) {}

    void Shutdown(std::uint32_t i_seconds) override
    {
        pthread_attr_t l_attributes;
        EXPECT_EQ(0, pthread_getattr_np(pthread_self(), &l_attributes));
        EXPECT_EQ(0, pthread_attr_getdetachstate(&l_attributes, &iv_Detached));
        pthread_attr_destroy(&l_attributes);
        Dispatcher::Shutdown(i_seconds);
        iv_Seconds = i_seconds;
    }

    int iv_Detached = -1;
    std::atomic<std::uint32_t> iv_Seconds{0};
};

} // namespace

TEST_F(DispatcherTest, WatchdogIsDetachedAndCallsShutdownOfADerivedClass)
{
    std::unique_ptr<MTDispatcher> l_engine;
    Overriding l_dispatcher;
    l_engine.reset(&engineOf(l_dispatcher));
    l_dispatcher.DeferredShutdown(6);
    EXPECT_TRUE(waitFor([&] { return l_dispatcher.iv_Seconds == 6; }));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, l_dispatcher.iv_Detached);
}

TEST_F(DispatcherTest, DestructorAfterDeferredShutdownLeavesEngine)
{
    CountingHandler l_handler;
    std::unique_ptr<MTDispatcher> l_engine;
    {
        Dispatcher l_dispatcher(1, 1, false);
        l_engine.reset(&engineOf(l_dispatcher));
        l_dispatcher.DeferredShutdown(5);
    }
    // Shut down once, by the watchdog, and still there.
    EXPECT_EQ(std::vector<unsigned int>({5}), limits());
    EXPECT_EQ(3U, fakeSleep::begun().size());
    EXPECT_EQ(-1, l_engine->RaiseSignal(0));
    EXPECT_FALSE(l_engine->CancelTimer(1));
}

TEST_F(DispatcherTest, DestructorWaitsForTheWatchdog)
{
    std::unique_ptr<MTDispatcher> l_engine;
    std::atomic<bool> l_destroyed(false);
    TeardownGate l_gate;
    std::unique_ptr<Dispatcher> l_owner(new Dispatcher(1, 1, false));
    Dispatcher& l_dispatcher = *l_owner;
    l_engine.reset(&engineOf(l_dispatcher));
    l_gate.registerWith(l_dispatcher);
    l_dispatcher.DeferredShutdown(5);
    std::thread l_destructor(
        [&]
        {
            l_owner.reset();
            l_destroyed = true;
        });
    EXPECT_TRUE(l_gate.waitUntilReached());
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    fakeSleep::hold();
    l_gate.open();
    EXPECT_TRUE(fakeSleep::waitForBegun(3));
    EXPECT_TRUE(waitForWaiters(l_dispatcher, 1));
    EXPECT_FALSE(l_destroyed);
    fakeSleep::letGo();
    l_destructor.join();
}

TEST(DispatcherDeathTest, OperationsWithoutEngineFailTheirAssertion)
{
    static const char* const s_file = "tolv/vex/tolvDispatcher";
    CountingHandler l_handler;
    Dispatcher l_dispatcher(false);
    OS_TIMEOUT l_timeOut(1);
    EXPECT_ASSERTION(l_dispatcher.Register(0, l_handler, 0), s_file, 60,
                     "virtual void tolv::Dispatcher::Register(tolv::OS_HANDLE, "
                     "tolv::EventHandler&, tolv::EVENT_MASK)",
                     "pImpl");
    EXPECT_ASSERTION(
        l_dispatcher.Unregister(0), s_file, 70,
        "virtual void tolv::Dispatcher::Unregister(tolv::OS_HANDLE)", "pImpl");
    EXPECT_ASSERTION(l_dispatcher.AddTimer(l_handler, l_timeOut), s_file, 80,
                     "virtual tolv::Timer_t tolv::Dispatcher::AddTimer("
                     "tolv::EventHandler&, tolv::OS_TIMEOUT&)",
                     "pImpl");
    EXPECT_ASSERTION(l_dispatcher.UpdateTimer(l_handler, 1, l_timeOut), s_file,
                     90,
                     "virtual void tolv::Dispatcher::UpdateTimer("
                     "tolv::EventHandler&, tolv::Timer_t, tolv::OS_TIMEOUT&)",
                     "pImpl");
    EXPECT_ASSERTION(
        l_dispatcher.CancelTimer(1), s_file, 100,
        "virtual bool tolv::Dispatcher::CancelTimer(tolv::Timer_t)", "pImpl");
    EXPECT_ASSERTION(
        l_dispatcher.ExpireTimer(1), s_file, 110,
        "virtual bool tolv::Dispatcher::ExpireTimer(tolv::Timer_t)", "pImpl");
    EXPECT_ASSERTION(
        l_dispatcher.EnableCallback(OS_HANDLE(0)), s_file, 140,
        "virtual void tolv::Dispatcher::EnableCallback(tolv::OS_HANDLE)",
        "pImpl");
    EXPECT_ASSERTION(
        l_dispatcher.EnableCallback(Timer_t(1)), s_file, 150,
        "virtual void tolv::Dispatcher::EnableCallback(tolv::Timer_t)",
        "pImpl");
}

TEST(DispatcherDeathTest, SecondShutdownFailsItsAssertion)
{
    const auto l_shutDown = []
    {
        fakeSleep::skip();
        Dispatcher l_dispatcher(1, 1, false);
        l_dispatcher.Shutdown(20);
        l_dispatcher.Shutdown(20);
        _exit(0);
    };
    EXPECT_ASSERTION(l_shutDown(), "tolv/vex/tolvDispatcherImpl", 560,
                     "void tolv::MTDispatcher::Interrupt()",
                     "l_urc == sizeof(tmp)");
}

TEST(DispatcherDeathTest, DestructorAfterAShutdownFailsItsAssertion)
{
    const auto l_destroy = []
    {
        fakeSleep::skip();
        Dispatcher(2, 2, false).Shutdown(20);
        _exit(0);
    };
    EXPECT_ASSERTION(l_destroy(), "tolv/vex/tolvDispatcherImpl", 560,
                     "void tolv::MTDispatcher::Interrupt()",
                     "l_urc == sizeof(tmp)");
}

TEST(DispatcherDeathTest, WatchdogThatCannotBeStartedFailsItsAssertion)
{
    const auto l_defer = []
    {
        fakeSleep::skip();
        Dispatcher l_dispatcher(1, 1, false);
        g_failThreads = true;
        l_dispatcher.DeferredShutdown(5);
        _exit(0);
    };
    EXPECT_ASSERTION(
        l_defer(), "tolv/vex/tolvDispatcher", 220,
        "virtual void tolv::Dispatcher::DeferredShutdown(uint32_t)",
        "0 == pthread_create( &iv_WatchDogTid, 0, WatchDogThread, this )");
}

TEST(DispatcherDeathTest, ShutdownAfterADeferredOneFailsItsAssertion)
{
    const auto l_shutDown = []
    {
        fakeSleep::skip();
        Dispatcher l_dispatcher(1, 1, false);
        l_dispatcher.DeferredShutdown(20);
        l_dispatcher.Shutdown(20); // whichever of the two is the second
        waitFor([] { return false; });
        _exit(0);
    };
    EXPECT_ASSERTION(l_shutDown(), "tolv/vex/tolvDispatcherImpl", 560,
                     "void tolv::MTDispatcher::Interrupt()",
                     "l_urc == sizeof(tmp)");
}

TEST(DispatcherDeathTest, DeferredShutdownAfterAShutdownFailsItsAssertion)
{
    const auto l_defer = []
    {
        fakeSleep::skip();
        Dispatcher l_dispatcher(1, 1, false);
        l_dispatcher.Shutdown(20);
        l_dispatcher.DeferredShutdown(20);
        waitFor([] { return false; });
        _exit(0);
    };
    EXPECT_ASSERTION(l_defer(), "tolv/vex/tolvDispatcherImpl", 560,
                     "void tolv::MTDispatcher::Interrupt()",
                     "l_urc == sizeof(tmp)");
}

namespace
{

[[noreturn]] void hang()
{
    for (;;)
    {
        pause();
    }
}

const char* const POOL_SOURCE = "tolv/vex/tolvThPool";
const char* const POOL_DESTRUCTOR = "tolv::ThreadPool::~ThreadPool()";
const char* const POOL_CHECK = "false == Shutdown( 60 )";

} // namespace

TEST(DispatcherDeathTest, DestructorFailsThePoolsAssertionForStuckThreads)
{
    const auto l_destroy = []
    {
        fakeSleep::skip();
        std::atomic<int> l_stuck(0);
        CountingHandler l_handlers[2];
        Dispatcher* const l_dispatcher = new Dispatcher(1, 2, false);
        // The second thread is a caller.
        std::thread([=] { l_dispatcher->ProcessEvents(); }).detach();
        const ThreadPool& l_pool = *(engineOf(*l_dispatcher).*get(Pool()));
        waitFor([&] { return l_pool.getPoolDepth() == 2; });
        for (CountingHandler& l_handler : l_handlers)
        {
            l_handler.iv_OnTimer = [&](Timer_t) -> ACTION
            {
                ++l_stuck;
                hang();
            };
            addTimer(*l_dispatcher, l_handler, 0);
        }
        waitFor([&] { return l_stuck == 2; });
        g_impatient = true;
        delete l_dispatcher;
        _exit(0);
    };
    EXPECT_ASSERTION(l_destroy(), POOL_SOURCE, 85, POOL_DESTRUCTOR, POOL_CHECK);
}

TEST(DispatcherDeathTest, DestructorInACallbackFailsThePoolsAssertion)
{
    const auto l_destroy = []
    {
        fakeSleep::skip();
        g_impatient = true;
        CountingHandler l_handler;
        Dispatcher* const l_dispatcher = new Dispatcher(1, 1, false);
        l_handler.iv_OnTimer = [=](Timer_t)
        {
            delete l_dispatcher;
            return CONTINUE;
        };
        addTimer(*l_dispatcher, l_handler, 0);
        waitFor([] { return false; });
    };
    EXPECT_ASSERTION(l_destroy(), POOL_SOURCE, 85, POOL_DESTRUCTOR, POOL_CHECK);
}

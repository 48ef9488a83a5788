#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "support/assertion.hpp"
#include "support/countingHandler.hpp"
#include "support/engineOf.hpp"
#include "support/fakeSleep.hpp"
#include "support/privateMember.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvThread.hpp"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

// The engine with more than one thread.

using namespace tolv;

using Pair = int[2];
TOLV_PRIVATE_MEMBER(Outgoing, MTDispatcher, Pair, iv_Outgoing);
TOLV_PRIVATE_MEMBER(RegLock, MTDispatcher, Mutex, iv_RegLock);
TOLV_PRIVATE_MEMBER(Handles, MTDispatcher, HandleTable, iv_Handles);
TOLV_PRIVATE_MEMBER(EngineShutdown, MTDispatcher, std::atomic<bool>,
                    iv_Shutdown);
TOLV_PRIVATE_MEMBER(Pool, MTDispatcher, ThreadPool* const, iv_Pool);
TOLV_PRIVATE_MEMBER(RetireIdle, ThreadPool, bool, iv_RetireIdle);
TOLV_PRIVATE_MEMBER(MinThreads, ThreadPool, std::uint32_t, iv_MinThreads);
TOLV_PRIVATE_MEMBER(MaxThreads, ThreadPool, std::uint32_t, iv_MaxThreads);
TOLV_PRIVATE_MEMBER(Pending, ThreadPool, std::uint32_t, iv_Pending);
TOLV_PRIVATE_MEMBER(PoolLock, ThreadPool, Mutex, iv_Lock);
TOLV_PRIVATE_MEMBER(NativeMutex, Mutex, pthread_mutex_t, iv_Mutex);
TOLV_PRIVATE_MEMBER(HandlerThreads, EventHandler, std::int32_t,
                    iv_ThreadRefCount);

namespace
{

using ACTION = EventHandler::ACTION;
constexpr ACTION CONTINUE = EventHandler::ACTION_CONTINUE;
constexpr ACTION REFRESH = EventHandler::ACTION_REFRESH;
constexpr ACTION UNREGISTER = EventHandler::ACTION_UNREGISTER;
constexpr ACTION REMOVE = EventHandler::ACTION_REMOVE;

// The waits of the engine: the one under way and how many have begun. Every
// wait asks first whether it is to fail.
std::mutex g_lock;
fd_set g_watched = {};
pthread_t g_waiter = 0;
int g_waiting = 0; // threads inside
int g_mostWaiting = 0;
int g_begun = 0;
std::function<int()> g_failure; // 0: the wait goes on, else its errno
std::function<void(const fd_set&)> g_onReady; // a wait has found so much

// Which of the pool's requests found the registration lock taken.
Mutex* g_lockOfRequests = nullptr;
std::atomic<int> g_requestsUnderLock(0);
std::atomic<int> g_requests(0);

int waitBegins(const fd_set& i_watched)
{
    std::function<int()> l_failure;
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        g_watched = i_watched;
        g_waiter = pthread_self();
        g_mostWaiting = std::max(++g_waiting, g_mostWaiting);
        ++g_begun;
        l_failure = g_failure;
    }
    return l_failure ? l_failure() : 0;
}

void waitEnds()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    --g_waiting;
}

void waitFinds(const fd_set& i_ready)
{
    std::function<void(const fd_set&)> l_onReady;
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        l_onReady = g_onReady;
    }
    if (l_onReady)
    {
        l_onReady(i_ready);
    }
}

int waitsBegun()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_begun;
}

bool isWaiting()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_waiting != 0;
}

int mostWaiting()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_mostWaiting;
}

pthread_t waiter()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_waiter;
}

void failWaits(const std::function<int()>& i_failure)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_failure = i_failure;
}

void onReady(const std::function<void(const fd_set&)>& i_onReady)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_onReady = i_onReady;
}

bool areWakeUpsDrained(Dispatcher& io_dispatcher)
{
    int l_bytes = -1;
    ioctl((engineOf(io_dispatcher).*get(Outgoing()))[1], FIONREAD, &l_bytes);
    return l_bytes == 0;
}

// Wakes the waiting thread and waits until it waits again: whatever was asked
// for before is in the set of that wait.
bool renewWait(Dispatcher& io_dispatcher)
{
    io_dispatcher.EnableCallback(OS_INVALID);
    return waitFor([&] { return areWakeUpsDrained(io_dispatcher); }) &&
           waitFor(isWaiting);
}

bool isWatched(Dispatcher& io_dispatcher, OS_HANDLE i_handle)
{
    EXPECT_TRUE(renewWait(io_dispatcher));
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return FD_ISSET(i_handle, &g_watched);
}

bool waitUntilWatched(Dispatcher& io_dispatcher, OS_HANDLE i_handle)
{
    return waitFor([&] { return isWatched(io_dispatcher, i_handle); });
}

int threadsInside(Dispatcher& io_dispatcher, const EventHandler& i_handler)
{
    Mutex& l_mutex = engineOf(io_dispatcher).*get(RegLock());
    const MutexLock l_lock(l_mutex);
    return i_handler.*get(HandlerThreads());
}

// A thread counts itself out and acts on its answer in one go.
bool waitUntilInside(Dispatcher& io_dispatcher, const EventHandler& i_handler,
                     int i_threads)
{
    return waitFor(
        [&] { return threadsInside(io_dispatcher, i_handler) == i_threads; });
}

bool isRegistered(Dispatcher& io_dispatcher, OS_HANDLE i_handle)
{
    MTDispatcher& l_engine = engineOf(io_dispatcher);
    Mutex& l_mutex = l_engine.*get(RegLock());
    const MutexLock l_lock(l_mutex);
    return (l_engine.*get(Handles())).find(i_handle) != nullptr;
}

ThreadPool& poolOf(Dispatcher& io_dispatcher)
{
    return *(engineOf(io_dispatcher).*get(Pool()));
}

template <class Tag>
auto poolValue(Dispatcher& io_dispatcher, Tag i_tag)
{
    ThreadPool& l_pool = poolOf(io_dispatcher);
    Mutex& l_mutex = l_pool.*get(PoolLock());
    const MutexLock l_lock(l_mutex);
    return l_pool.*get(i_tag);
}

Timer_t addTimer(Dispatcher& io_dispatcher, EventHandler& io_handler,
                 std::uint32_t i_seconds, std::uint32_t i_microSeconds = 0)
{
    OS_TIMEOUT l_period(i_seconds, i_microSeconds);
    return io_dispatcher.AddTimer(io_handler, l_period);
}

// For a timer that is due at once and then not again within the test.
void rest(Dispatcher& io_dispatcher, EventHandler& io_handler, Timer_t i_timer)
{
    OS_TIMEOUT l_hour(3600);
    io_dispatcher.UpdateTimer(io_handler, i_timer, l_hour);
}

class DispatcherThreadsTest : public testing::Test
{
  protected:
    DispatcherThreadsTest()
    {
        fakeSleep::skip();
    }
};

using DispatcherRemovalTest = DispatcherThreadsTest;

} // namespace

extern "C"
{
    int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
    int __wrap_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut);

    int __wrap_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut)
    {
        int l_result = -1;
        const int l_errno = waitBegins(*io_read);
        if (l_errno == 0)
        {
            l_result = __real_select(i_count, io_read, io_write, io_except,
                                     io_timeOut);
        }
        waitEnds();
        if (l_result > 0)
        {
            waitFinds(*io_read);
        }
        errno = l_errno == 0 ? errno : l_errno;
        return l_result;
    }
}

bool realRequest(ThreadPool*) __asm__("__real__ZN4tolv10ThreadPool7requestEv");
bool wrapRequest(ThreadPool*) __asm__("__wrap__ZN4tolv10ThreadPool7requestEv");

bool wrapRequest(ThreadPool* io_pool)
{
    if (g_lockOfRequests != nullptr)
    {
        ++g_requests;
        bool l_taken = false;
        std::thread(
            [&]
            {
                pthread_mutex_t& l_mutex =
                    g_lockOfRequests->*get(NativeMutex());
                l_taken = pthread_mutex_trylock(&l_mutex) == EBUSY;
                if (!l_taken)
                {
                    pthread_mutex_unlock(&l_mutex);
                }
            })
            .join();
        g_requestsUnderLock += l_taken ? 1 : 0;
    }
    return realRequest(io_pool);
}

TEST_F(DispatcherThreadsTest, TwoDescriptorsOfOneHandlerAreServedAtOnce)
{
    const SocketPair l_first;
    const SocketPair l_second;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        l_gate.pass();
        return CONTINUE;
    };
    l_dispatcher.Register(l_first.near(), l_handler, 0);
    l_dispatcher.Register(l_second.near(), l_handler, 0);
    l_first.send();
    l_second.send();
    EXPECT_TRUE(l_gate.waitForArrived(2));
    EXPECT_EQ(2, threadsInside(l_dispatcher, l_handler));
    l_gate.open();
}

TEST_F(DispatcherThreadsTest, ADescriptorIsNotWatchedWhileItsCallbackRuns)
{
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(4, 4, false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        l_gate.pass();
        takeByte(i_handle);
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    EXPECT_TRUE(isWatched(l_dispatcher, l_pair.near()));
    l_pair.send();
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    EXPECT_EQ(1, l_handler.iv_Reads);
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 2; }));
    EXPECT_TRUE(waitUntilWatched(l_dispatcher, l_pair.near()));
}

TEST_F(DispatcherThreadsTest, BusyHandlerKeepsItsDescriptorDisabled)
{
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler.iv_OnTimer = [&](Timer_t i_timer)
    {
        rest(l_dispatcher, l_handler, i_timer);
        l_gate.pass();
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    addTimer(l_dispatcher, l_handler, 0);
    ASSERT_TRUE(l_gate.waitForArrived(1));
    l_pair.send();
    l_pair.send();
    ASSERT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 1));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    // Nor does the end of the other callback watch it again.
    l_gate.open();
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    EXPECT_EQ(1, l_handler.iv_Reads);
    l_dispatcher.EnableCallback(l_pair.near());
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 2; }));
}

TEST_F(DispatcherThreadsTest, OnlyTheLastOfTwoDescriptorsToEndIsWatchedAgain)
{
    const SocketPair l_first;
    const SocketPair l_second;
    Gate l_gates[2];
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        l_gates[i_handle == l_first.near() ? 0 : 1].pass();
        return CONTINUE;
    };
    l_dispatcher.Register(l_first.near(), l_handler, 0);
    l_dispatcher.Register(l_second.near(), l_handler, 0);
    l_first.send();
    l_second.send();
    ASSERT_TRUE(l_gates[0].waitForArrived(1));
    ASSERT_TRUE(l_gates[1].waitForArrived(1));
    l_gates[0].open();
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 1));
    l_gates[1].open();
    EXPECT_TRUE(waitUntilWatched(l_dispatcher, l_second.near()));
    EXPECT_FALSE(isWatched(l_dispatcher, l_first.near()));
}

TEST_F(DispatcherThreadsTest, NewRegistrationOfABusyHandlerIsServedOnce)
{
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        if (l_handler.iv_Reads == 1)
        {
            l_gate.pass();
        }
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    l_dispatcher.Unregister(l_pair.near());
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(waitFor([&] { return l_handler.iv_Reads == 2; }));
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 1));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    // Nor does the end of the old callback watch it again.
    l_gate.open();
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    l_dispatcher.EnableCallback(l_pair.near());
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 3; }));
}

TEST_F(DispatcherThreadsTest, EnableCallbackWatchesADescriptorOfABusyHandler)
{
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler.iv_OnTimer = [&](Timer_t i_timer)
    {
        rest(l_dispatcher, l_handler, i_timer);
        l_gate.pass();
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    addTimer(l_dispatcher, l_handler, 0);
    ASSERT_TRUE(l_gate.waitForArrived(1));
    for (int l_read = 1; l_read != 4; ++l_read)
    {
        l_pair.send();
        ASSERT_TRUE(waitFor([&] { return l_handler.iv_Reads == l_read; }));
        ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 1));
        EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
        l_dispatcher.EnableCallback(l_pair.near());
        EXPECT_TRUE(isWatched(l_dispatcher, l_pair.near()));
    }
    l_gate.open();
}

TEST_F(DispatcherThreadsTest, EnableCallbackInItsOwnCallbackCountsFromItsEndOn)
{
    const SocketPair l_pair;
    Gate l_gate;
    Gate l_timerGate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(4, 4, false);
    l_handler.iv_OnTimer = [&](Timer_t i_timer)
    {
        rest(l_dispatcher, l_handler, i_timer);
        l_timerGate.pass();
        return CONTINUE;
    };
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        l_dispatcher.EnableCallback(i_handle);
        l_gate.pass();
        takeByte(i_handle);
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    addTimer(l_dispatcher, l_handler, 0);
    ASSERT_TRUE(l_timerGate.waitForArrived(1));
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    EXPECT_EQ(1, l_handler.iv_Reads);
    l_gate.open();
    // Although the handler is busy with its timer.
    EXPECT_TRUE(waitUntilWatched(l_dispatcher, l_pair.near()));
    l_timerGate.open();
}

TEST_F(DispatcherThreadsTest, TimerEnabledInItsOwnCallbackFiresMeanwhile)
{
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler.iv_OnTimer = [&](Timer_t i_timer)
    {
        if (l_handler.iv_Ticks == 1)
        {
            l_dispatcher.EnableCallback(i_timer);
        }
        else
        {
            rest(l_dispatcher, l_handler, i_timer);
        }
        l_gate.pass();
        return CONTINUE;
    };
    addTimer(l_dispatcher, l_handler, 0);
    EXPECT_TRUE(l_gate.waitForArrived(2));
    EXPECT_EQ(2, threadsInside(l_dispatcher, l_handler));
    l_gate.open();
    EXPECT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
}

TEST_F(DispatcherThreadsTest, AThreadServesOneEventATurn)
{
    const SocketPair l_pairs[3];
    Gate l_gate;
    CountingHandler l_handlers[3];
    Dispatcher l_dispatcher(2, 2, false);
    for (int l_index = 0; l_index != 3; ++l_index)
    {
        l_handlers[l_index].iv_OnRead = [&](OS_HANDLE i_handle)
        {
            takeByte(i_handle);
            l_gate.pass();
            return CONTINUE;
        };
        l_pairs[l_index].send();
        l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index], 0);
    }
    ASSERT_TRUE(l_gate.waitForArrived(2));
    // Both threads serve: nobody waits, and one run waits for a thread.
    EXPECT_FALSE(isWaiting());
    EXPECT_EQ(1U, poolValue(l_dispatcher, Pending()));
    EXPECT_EQ(2, l_gate.arrived());
    l_gate.open();
    EXPECT_TRUE(l_gate.waitForArrived(3));
}

namespace
{

// Fills both threads of a dispatcher, and lets one of them go: the other
// serves whatever is ready by then, one after the other.
class OneOfTwoThreads
{
  public:
    explicit OneOfTwoThreads(Dispatcher& io_dispatcher) :
        iv_Dispatcher(io_dispatcher)
    {
        for (int l_index = 0; l_index != 2; ++l_index)
        {
            iv_Handlers[l_index].iv_OnTimer = [this, l_index](Timer_t)
            {
                iv_Gates[l_index].pass();
                return UNREGISTER;
            };
            addTimer(iv_Dispatcher, iv_Handlers[l_index], 0);
        }
        EXPECT_TRUE(iv_Gates[0].waitForArrived(1));
        EXPECT_TRUE(iv_Gates[1].waitForArrived(1));
    }

    ~OneOfTwoThreads()
    {
        iv_Gates[1].open();
        EXPECT_TRUE(waitUntilInside(iv_Dispatcher, iv_Handlers[1], 0));
    }

    OneOfTwoThreads(const OneOfTwoThreads&) = delete;
    OneOfTwoThreads& operator=(const OneOfTwoThreads&) = delete;

    void letGo()
    {
        iv_Gates[0].open();
        EXPECT_TRUE(waitUntilInside(iv_Dispatcher, iv_Handlers[0], 0));
    }

  private:
    Dispatcher& iv_Dispatcher;
    Gate iv_Gates[2];
    CountingHandler iv_Handlers[2];
};

} // namespace

TEST_F(DispatcherThreadsTest, EventsAreTakenInListOrder)
{
    const SocketPair l_pairs[4];
    std::vector<OS_HANDLE> l_order;
    std::atomic<int> l_served(0);
    CountingHandler l_handlers[3];
    Dispatcher l_dispatcher(2, 2, false);
    OneOfTwoThreads l_threads(l_dispatcher);
    for (CountingHandler& l_handler : l_handlers)
    {
        l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
        {
            takeByte(i_handle);
            l_order.push_back(i_handle); // on the one thread
            ++l_served;
            return CONTINUE;
        };
    }
    // The numbers of the descriptors grow in the order of the pairs.
    l_dispatcher.Register(l_pairs[2].near(), l_handlers[0], 0);
    l_dispatcher.Register(l_pairs[0].near(), l_handlers[1], 0);
    l_dispatcher.Register(l_pairs[3].near(), l_handlers[2], 0);
    l_dispatcher.Register(l_pairs[1].near(), l_handlers[0], 0);
    for (const SocketPair& l_pair : l_pairs)
    {
        l_pair.send();
    }
    l_threads.letGo();
    ASSERT_TRUE(waitFor([&] { return l_served == 4; }));
    const std::vector<OS_HANDLE> l_expected = {
        l_pairs[2].near(), l_pairs[1].near(), l_pairs[0].near(),
        l_pairs[3].near()};
    EXPECT_EQ(l_expected, l_order);
}

TEST_F(DispatcherThreadsTest, TheFirstHandlerWinsAsLongAsItIsReady)
{
    const SocketPair l_pairs[2];
    std::string l_order;
    std::atomic<int> l_served(0);
    CountingHandler l_handlers[2];
    Dispatcher l_dispatcher(2, 2, false);
    OneOfTwoThreads l_threads(l_dispatcher);
    for (int l_index = 0; l_index != 2; ++l_index)
    {
        l_handlers[l_index].iv_OnRead = [&](OS_HANDLE i_handle)
        {
            l_order += takeByte(i_handle);
            ++l_served;
            return CONTINUE;
        };
        l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index], 0);
    }
    l_pairs[1].send('z');
    l_pairs[0].send('a');
    l_pairs[0].send('b');
    l_pairs[0].send('c');
    l_threads.letGo();
    ASSERT_TRUE(waitFor([&] { return l_served == 4; }));
    EXPECT_EQ("abcz", l_order);
}

TEST_F(DispatcherThreadsTest, ADueTimerIsServedBeforeReadyDescriptors)
{
    const SocketPair l_pair;
    std::string l_order;
    std::atomic<int> l_served(0);
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    OneOfTwoThreads l_threads(l_dispatcher);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        l_order += 'r';
        ++l_served;
        return CONTINUE;
    };
    l_handler.iv_OnTimer = [&](Timer_t)
    {
        l_order += 't';
        ++l_served;
        return UNREGISTER;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    addTimer(l_dispatcher, l_handler, 0);
    addTimer(l_dispatcher, l_handler, 0);
    l_threads.letGo();
    ASSERT_TRUE(waitFor([&] { return l_served == 3; }));
    EXPECT_EQ("ttr", l_order);
}

TEST_F(DispatcherThreadsTest, ATableChangeOnlyRenewsTheWait)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(3, 3, false);
    ASSERT_TRUE(renewWait(l_dispatcher));
    const pthread_t l_waiter = waiter();
    const int l_begun = waitsBegun();
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    EXPECT_TRUE(isWatched(l_dispatcher, l_pair.near()));
    l_dispatcher.Unregister(l_pair.near());
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    const Timer_t l_timer = addTimer(l_dispatcher, l_handler, 3600);
    EXPECT_TRUE(renewWait(l_dispatcher));
    EXPECT_TRUE(l_dispatcher.CancelTimer(l_timer));
    EXPECT_TRUE(renewWait(l_dispatcher));
    EXPECT_LE(l_begun + 4, waitsBegun());
    EXPECT_TRUE(pthread_equal(l_waiter, waiter()));
    EXPECT_EQ(0U, poolValue(l_dispatcher, Pending()));
    EXPECT_EQ(0, l_handler.iv_Reads);
    EXPECT_EQ(0, l_handler.iv_Ticks);
}

TEST_F(DispatcherThreadsTest, AWakeUpComesBeforeReadyDescriptors)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    {
        OneOfTwoThreads l_threads(l_dispatcher);
        l_pair.send();
        l_dispatcher.Register(l_pair.near(), l_handler, 0);
        l_dispatcher.EnableCallback(OS_INVALID);
        l_dispatcher.EnableCallback(OS_INVALID);
        const int l_begun = waitsBegun();
        l_threads.letGo();
        ASSERT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
        // One wait for each wake-up, one that finds the descriptor.
        EXPECT_LE(l_begun + 4, waitsBegun());
    }
}

TEST_F(DispatcherThreadsTest, NextThreadIsAskedForUnderTheRegistrationLock)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    g_lockOfRequests = &(engineOf(l_dispatcher).*get(RegLock()));
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
    EXPECT_EQ(1, g_requests);
    EXPECT_EQ(1, g_requestsUnderLock);
    l_handler.iv_OnTimer = [](Timer_t) { return UNREGISTER; };
    addTimer(l_dispatcher, l_handler, 0);
    ASSERT_TRUE(waitFor([&] { return l_handler.iv_Ticks == 1; }));
    ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
    EXPECT_EQ(2, g_requests);
    EXPECT_EQ(2, g_requestsUnderLock);
}

TEST_F(DispatcherThreadsTest, AThreadWithNothingLeftToServeHandsTheWaitOn)
{
    const SocketPair l_pairs[2];
    CountingHandler l_handlers[2];
    std::atomic<bool> l_unregistered(false);
    Dispatcher l_dispatcher(2, 2, false);
    l_dispatcher.Register(l_pairs[0].near(), l_handlers[0], 0);
    l_dispatcher.Register(l_pairs[1].near(), l_handlers[1], 0);
    ASSERT_TRUE(renewWait(l_dispatcher));
    onReady(
        [&](const fd_set& i_ready)
        {
            if (!l_unregistered && FD_ISSET(l_pairs[0].near(), &i_ready))
            {
                l_dispatcher.Unregister(l_pairs[0].near());
                l_unregistered = true;
            }
        });
    l_pairs[0].send();
    ASSERT_TRUE(waitFor([&] { return l_unregistered.load(); }));
    l_pairs[1].send();
    EXPECT_TRUE(waitFor([&] { return l_handlers[1].iv_Reads == 1; }));
    EXPECT_EQ(0, l_handlers[0].iv_Reads);
    onReady(nullptr);
}

TEST_F(DispatcherThreadsTest, OnlyOneThreadWaitsAtATime)
{
    constexpr int EVENTS = 200;
    const SocketPair l_pairs[4];
    CountingHandler l_handlers[4];
    Dispatcher l_dispatcher(4, 4, false);
    for (int l_index = 0; l_index != 4; ++l_index)
    {
        l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index], 0);
    }
    for (int l_event = 0; l_event != EVENTS; ++l_event)
    {
        for (const SocketPair& l_pair : l_pairs)
        {
            l_pair.send();
        }
    }
    for (const CountingHandler& l_handler : l_handlers)
    {
        EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == EVENTS; }));
    }
    EXPECT_EQ(1, mostWaiting());
}

TEST_F(DispatcherThreadsTest, AnInterruptedWaitIsRepeated)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    std::atomic<int> l_left(5);
    failWaits(
        [&]
        {
            const int l_now = l_left;
            l_left = l_now == 0 ? 0 : l_now - 1;
            return l_now == 0 ? 0 : EINTR;
        });
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
    EXPECT_TRUE(waitFor([&] { return l_left == 0; }));
    failWaits(nullptr);
}

TEST_F(DispatcherThreadsTest, AWaitInterruptedDuringAShutdownServesNothing)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    std::atomic<bool> l_interrupted(false);
    failWaits(
        [&]
        {
            engineOf(l_dispatcher).*get(EngineShutdown()) = true;
            l_interrupted = true;
            return EINTR;
        });
    l_dispatcher.EnableCallback(OS_INVALID);
    l_pair.send(); // the interrupted wait's set has its bit
    ASSERT_TRUE(waitFor([&] { return l_interrupted && !isWaiting(); }));
    const int l_begun = waitsBegun();
    l_dispatcher.EnableCallback(OS_INVALID);
    EXPECT_FALSE(poolOf(l_dispatcher).Shutdown(20));
    EXPECT_EQ(l_begun, waitsBegun());
    EXPECT_EQ(0, l_handler.iv_Reads);
}

TEST_F(DispatcherThreadsTest, ClosedDescriptorOfAChangedTableIsNoFailure)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(2, 2, false);
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    ASSERT_TRUE(isWatched(l_dispatcher, l_pair.near()));
    std::atomic<bool> l_failed(false);
    failWaits(
        [&]
        {
            if (l_failed)
            {
                return 0;
            }
            l_failed = true;
            l_dispatcher.Unregister(l_pair.near());
            return EBADF;
        });
    EXPECT_TRUE(renewWait(l_dispatcher));
    EXPECT_TRUE(waitFor([&] { return l_failed.load(); }));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
    failWaits(nullptr);
}

TEST_F(DispatcherThreadsTest, PoolGrowsOnDemandUpToTheMaximum)
{
    const SocketPair l_pairs[5];
    Gate l_gate;
    CountingHandler l_handlers[5];
    Dispatcher l_dispatcher(1, 4, false);
    EXPECT_EQ(1U, poolOf(l_dispatcher).getPoolDepth());
    for (int l_index = 0; l_index != 5; ++l_index)
    {
        l_handlers[l_index].iv_OnRead = [&](OS_HANDLE i_handle)
        {
            takeByte(i_handle);
            l_gate.pass();
            return CONTINUE;
        };
        l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index], 0);
        l_pairs[l_index].send();
    }
    EXPECT_TRUE(l_gate.waitForArrived(4));
    EXPECT_EQ(4U, poolOf(l_dispatcher).getPoolDepth());
    EXPECT_EQ(4, l_gate.arrived());
    l_gate.open();
    EXPECT_TRUE(l_gate.waitForArrived(5));
}

TEST_F(DispatcherThreadsTest, CallerOfProcessEventsServesBelowTheMaximum)
{
    const SocketPair l_pairs[2];
    Gate l_gate;
    CountingHandler l_handlers[2];
    std::mutex l_lock;
    std::set<std::thread::id> l_served;
    std::thread l_caller;
    {
        Dispatcher l_dispatcher(1, 2, false);
        l_caller = std::thread([&] { l_dispatcher.ProcessEvents(); });
        EXPECT_TRUE(
            waitFor([&] { return poolOf(l_dispatcher).getPoolDepth() == 2; }));
        for (int l_index = 0; l_index != 2; ++l_index)
        {
            l_handlers[l_index].iv_OnRead = [&](OS_HANDLE i_handle)
            {
                takeByte(i_handle);
                {
                    const std::lock_guard<std::mutex> l_hold(l_lock);
                    l_served.insert(std::this_thread::get_id());
                }
                l_gate.pass();
                return CONTINUE;
            };
            l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index],
                                  0);
            l_pairs[l_index].send();
        }
        EXPECT_TRUE(l_gate.waitForArrived(2));
        l_gate.open();
    }
    EXPECT_EQ(1U, l_served.count(l_caller.get_id()));
    EXPECT_EQ(2U, l_served.size());
    l_caller.join();
}

TEST_F(DispatcherThreadsTest, IdleThreadsRetireOnlyWhenAskedAndMoreThanOne)
{
    EXPECT_TRUE(
        poolValue(*std::make_unique<Dispatcher>(2, 4, true), RetireIdle()));
    EXPECT_FALSE(
        poolValue(*std::make_unique<Dispatcher>(2, 4, false), RetireIdle()));
    EXPECT_FALSE(
        poolValue(*std::make_unique<Dispatcher>(1, 1, true), RetireIdle()));
    EXPECT_FALSE(
        poolValue(*std::make_unique<Dispatcher>(0, 0, true), RetireIdle()));
}

TEST_F(DispatcherThreadsTest, ThreadCountsReachThePool)
{
    const struct
    {
        std::uint32_t min;
        std::uint32_t max;
        std::uint32_t poolMin;
        std::uint32_t poolMax;
    } CASES[] = {{2, 4, 2, 4}, {5, 2, 2, 2}, {0, 3, 1, 3}, {0, 0, 1, 1},
                 {3, 0, 1, 1}, {3, 1, 1, 1}, {1, 1, 1, 1}};
    for (const auto& l_case : CASES)
    {
        Dispatcher l_dispatcher(l_case.min, l_case.max, false);
        EXPECT_EQ(l_case.poolMin, poolValue(l_dispatcher, MinThreads()));
        EXPECT_EQ(l_case.poolMax, poolValue(l_dispatcher, MaxThreads()));
    }
}

namespace
{

std::atomic<int> g_signalled(0);
std::atomic<pthread_t> g_signalledThreads[8];

void noteSignal(int)
{
    g_signalledThreads[g_signalled++ % 8] = pthread_self();
}

} // namespace

TEST_F(DispatcherThreadsTest, RaiseSignalReachesTheWaiterAndThoseInCallbacks)
{
    struct sigaction l_action = {};
    l_action.sa_handler = noteSignal;
    ASSERT_EQ(0, sigaction(SIGUSR1, &l_action, nullptr));
    const SocketPair l_pair;
    Gate l_gate;
    CountingHandler l_handler;
    Dispatcher l_dispatcher(4, 4, false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        l_gate.pass();
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    EXPECT_EQ(0, l_dispatcher.RaiseSignal(SIGUSR1));
    ASSERT_TRUE(waitFor([] { return g_signalled == 4; }));
    std::set<pthread_t> l_threads;
    for (int l_index = 0; l_index != 4; ++l_index)
    {
        l_threads.insert(g_signalledThreads[l_index]);
    }
    EXPECT_EQ(4U, l_threads.size());
    l_gate.open();
    // The interrupted threads go on as before.
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 2; }));
    EXPECT_EQ(EINVAL, l_dispatcher.RaiseSignal(1000));
}

namespace
{

// Two callbacks of one handler at once: what they are for and what they
// answer.
enum class Source
{
    DESCRIPTOR,
    TIMER
};

struct Interleaving
{
    Source sources[2];
    ACTION answers[2];
    int first; // to leave
};

std::vector<Interleaving> interleavings()
{
    std::vector<Interleaving> l_all;
    for (const Source l_source : {Source::DESCRIPTOR, Source::TIMER})
    {
        for (const Source l_other : {Source::DESCRIPTOR, Source::TIMER})
        {
            for (const ACTION l_answer : {CONTINUE, UNREGISTER, REMOVE})
            {
                for (const ACTION l_second : {CONTINUE, UNREGISTER, REMOVE})
                {
                    l_all.push_back(
                        {{l_source, l_other}, {l_answer, l_second}, 0});
                    l_all.push_back(
                        {{l_source, l_other}, {l_answer, l_second}, 1});
                }
            }
        }
    }
    return l_all;
}

// What becomes of the handler and its two registrations.
struct Outcome
{
    bool destroyed;
    bool registered[2];
};

Outcome outcomeOf(const Interleaving& i_case)
{
    Outcome l_outcome = {false, {true, true}};
    for (const int l_index : {i_case.first, 1 - i_case.first})
    {
        const ACTION l_answer =
            l_outcome.destroyed ? REMOVE : i_case.answers[l_index];
        const bool l_isLast = i_case.sources[1 - l_index] == Source::TIMER ||
                              !l_outcome.registered[1 - l_index];
        if (l_answer != CONTINUE)
        {
            l_outcome.registered[l_index] = false;
        }
        if (l_answer == REMOVE &&
            (i_case.sources[l_index] == Source::TIMER || l_isLast))
        {
            l_outcome.destroyed = true;
        }
    }
    return l_outcome;
}

void expectOutcome(const Interleaving& i_case)
{
    const SocketPair l_pairs[2];
    Gate l_gates[2];
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    Timer_t l_timers[2] = {};
    std::atomic<int> l_tick(0);
    Dispatcher l_dispatcher(3, 3, false);
    const auto l_serve = [&](int i_index)
    {
        l_gates[i_index].pass();
        return i_case.answers[i_index];
    };
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        return l_serve(i_handle == l_pairs[0].near() ? 0 : 1);
    };
    l_handler->iv_OnTimer = [&](Timer_t i_timer)
    {
        rest(l_dispatcher, *l_handler, i_timer);
        const bool l_first =
            i_case.sources[0] == Source::TIMER && l_tick++ == 0;
        return l_serve(l_first ? 0 : 1);
    };
    for (int l_index = 0; l_index != 2; ++l_index)
    {
        if (i_case.sources[l_index] == Source::DESCRIPTOR)
        {
            l_dispatcher.Register(l_pairs[l_index].near(), *l_handler, 0);
            l_pairs[l_index].send();
        }
        else
        {
            // Only one of two is under way, so that the first one is served
            // first.
            l_timers[l_index] = addTimer(l_dispatcher, *l_handler, 0);
        }
        ASSERT_TRUE(l_gates[l_index].waitForArrived(1));
    }

    l_gates[i_case.first].open();
    ASSERT_TRUE(waitUntilInside(l_dispatcher, *l_handler, 1));
    EXPECT_EQ(0, l_destroyed);
    l_gates[1 - i_case.first].open();
    const Outcome l_expected = outcomeOf(i_case);
    if (l_expected.destroyed)
    {
        EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
    }
    else
    {
        ASSERT_TRUE(waitUntilInside(l_dispatcher, *l_handler, 0));
    }
    for (int l_index = 0; l_index != 2; ++l_index)
    {
        const bool l_remains =
            !l_expected.destroyed && l_expected.registered[l_index];
        if (i_case.sources[l_index] == Source::DESCRIPTOR)
        {
            EXPECT_EQ(l_remains,
                      isRegistered(l_dispatcher, l_pairs[l_index].near()));
            l_dispatcher.Unregister(l_pairs[l_index].near());
        }
        else
        {
            EXPECT_EQ(l_remains, l_dispatcher.CancelTimer(l_timers[l_index]));
        }
    }
    ASSERT_TRUE(renewWait(l_dispatcher));
    EXPECT_EQ(l_expected.destroyed ? 1 : 0, l_destroyed);
    if (!l_expected.destroyed)
    {
        delete l_handler;
    }
}

} // namespace

TEST_F(DispatcherRemovalTest, TwoCallbacksAtOnceEndAsTheirAnswersSay)
{
    for (const Interleaving& l_case : interleavings())
    {
        SCOPED_TRACE(testing::Message()
                     << "sources " << static_cast<int>(l_case.sources[0]) << ' '
                     << static_cast<int>(l_case.sources[1]) << " answers "
                     << l_case.answers[0] << ' ' << l_case.answers[1]
                     << " first " << l_case.first);
        expectOutcome(l_case);
    }
}

TEST_F(DispatcherRemovalTest, HandlerWithAnIdleDescriptorLosesTheOtherOnly)
{
    const SocketPair l_pairs[2];
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(2, 2, false);
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        return REMOVE;
    };
    addTimer(l_dispatcher, *l_handler, 3600);
    l_dispatcher.Register(l_pairs[0].near(), *l_handler, 0);
    l_dispatcher.Register(l_pairs[1].near(), *l_handler, 0);
    l_pairs[0].send();
    ASSERT_TRUE(waitFor(
        [&] { return !isRegistered(l_dispatcher, l_pairs[0].near()); }));
    EXPECT_TRUE(isWatched(l_dispatcher, l_pairs[1].near()));
    EXPECT_EQ(0, l_destroyed);
    l_pairs[1].send();
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
}

TEST_F(DispatcherRemovalTest, RemovedHandlerIsCalledNoMore)
{
    const SocketPair l_pairs[2];
    Gate l_gate;
    std::atomic<int> l_destroyed(0);
    std::atomic<int> l_reads(0);
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE i_handle)
    {
        ++l_reads;
        takeByte(i_handle);
        l_gate.pass();
        return CONTINUE;
    };
    l_handler->iv_OnTimer = [](Timer_t) { return REMOVE; };
    l_dispatcher.Register(l_pairs[0].near(), *l_handler, 0);
    l_dispatcher.Register(l_pairs[1].near(), *l_handler, 0);
    l_pairs[0].send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    const Timer_t l_other = addTimer(l_dispatcher, *l_handler, 3600);
    addTimer(l_dispatcher, *l_handler, 0);
    ASSERT_TRUE(waitFor([&] { return l_handler->iv_Ticks == 1; }));
    ASSERT_TRUE(waitUntilInside(l_dispatcher, *l_handler, 1));
    // From here on it only waits for its last callback to end.
    OS_TIMEOUT l_atOnce;
    l_dispatcher.UpdateTimer(*l_handler, l_other, l_atOnce);
    l_dispatcher.EnableCallback(l_other);
    l_dispatcher.EnableCallback(l_pairs[1].near());
    l_pairs[1].send();
    addTimer(l_dispatcher, *l_handler, 0);
    EXPECT_FALSE(isWatched(l_dispatcher, l_pairs[0].near()));
    EXPECT_FALSE(isWatched(l_dispatcher, l_pairs[1].near()));
    EXPECT_EQ(1, l_handler->iv_Ticks);
    EXPECT_EQ(1, l_reads);
    EXPECT_EQ(0, l_destroyed);
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
    EXPECT_FALSE(isRegistered(l_dispatcher, l_pairs[1].near()));
    EXPECT_FALSE(l_dispatcher.ExpireTimer(l_other));
    EXPECT_EQ(1, l_reads);
}

TEST_F(DispatcherRemovalTest, EveryDescriptorAndTimerInsideDestroysItOnce)
{
    constexpr int COUNT = 4; // descriptors, and as many timers
    const SocketPair l_pairs[COUNT];
    Gate l_gate;
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(2 * COUNT, 2 * COUNT, false);
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        l_gate.pass();
        return REMOVE;
    };
    l_handler->iv_OnTimer = [&](Timer_t)
    {
        l_gate.pass();
        return REMOVE;
    };
    for (const SocketPair& l_pair : l_pairs)
    {
        l_dispatcher.Register(l_pair.near(), *l_handler, 0);
        l_pair.send();
        addTimer(l_dispatcher, *l_handler, 0);
    }
    ASSERT_TRUE(l_gate.waitForArrived(2 * COUNT));
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
    EXPECT_TRUE(renewWait(l_dispatcher));
    EXPECT_EQ(1, l_destroyed);
}

TEST_F(DispatcherRemovalTest, AnswerAfterAnUnregisterCountsAsUnregister)
{
    for (const ACTION l_answer : {CONTINUE, REFRESH, UNREGISTER})
    {
        const SocketPair l_pair;
        Gate l_gate;
        CountingHandler l_handler;
        Dispatcher l_dispatcher(2, 2, false);
        l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
        {
            l_gate.pass();
            if (l_handler.iv_Reads == 2)
            {
                takeByte(i_handle); // it stays the first time
            }
            return l_answer;
        };
        l_dispatcher.Register(l_pair.near(), l_handler, 0);
        l_pair.send();
        ASSERT_TRUE(l_gate.waitForArrived(1));
        l_dispatcher.Unregister(l_pair.near());
        EXPECT_FALSE(isRegistered(l_dispatcher, l_pair.near()));
        l_dispatcher.EnableCallback(l_pair.near());
        EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
        l_gate.open();
        ASSERT_TRUE(waitUntilInside(l_dispatcher, l_handler, 0));
        EXPECT_FALSE(isWatched(l_dispatcher, l_pair.near()));
        EXPECT_EQ(1, l_handler.iv_Reads);
        l_dispatcher.Register(l_pair.near(), l_handler, 0);
        EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 2; }));
    }
}

TEST_F(DispatcherRemovalTest, RemovalCountsAlsoAfterAnUnregister)
{
    const SocketPair l_pair;
    Gate l_gate;
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(2, 2, false);
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE)
    {
        l_gate.pass();
        return REMOVE;
    };
    l_dispatcher.Register(l_pair.near(), *l_handler, 0);
    l_pair.send();
    ASSERT_TRUE(l_gate.waitForArrived(1));
    l_dispatcher.Unregister(l_pair.near());
    EXPECT_EQ(0, l_destroyed);
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
}

TEST_F(DispatcherRemovalTest, NumberIsReusedWhileItsOldCallbackRuns)
{
    for (const ACTION l_answer : {CONTINUE, UNREGISTER, REMOVE})
    {
        const SocketPair l_old;
        const SocketPair l_reused;
        const OS_HANDLE l_number = l_old.near();
        Gate l_gate;
        std::atomic<int> l_destroyed(0);
        CountingHandler* const l_handler = new CountingHandler;
        CountingHandler l_other;
        Dispatcher l_dispatcher(3, 3, false);
        l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
        l_handler->iv_OnRead = [&](OS_HANDLE)
        {
            l_gate.pass();
            return l_answer;
        };
        l_dispatcher.Register(l_number, *l_handler, 0);
        l_old.send();
        ASSERT_TRUE(l_gate.waitForArrived(1));
        l_dispatcher.Unregister(l_number);
        ASSERT_EQ(l_number, dup2(l_reused.near(), l_number));
        l_dispatcher.Register(l_number, l_other, 0);
        l_reused.send();
        EXPECT_TRUE(waitFor([&] { return l_other.iv_Reads == 1; }));
        ASSERT_TRUE(waitUntilInside(l_dispatcher, l_other, 0));
        EXPECT_EQ(1, threadsInside(l_dispatcher, *l_handler));
        l_gate.open();
        if (l_answer == REMOVE)
        {
            EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
        }
        else
        {
            ASSERT_TRUE(waitUntilInside(l_dispatcher, *l_handler, 0));
            delete l_handler;
        }
        EXPECT_TRUE(isWatched(l_dispatcher, l_number));
        l_reused.send();
        EXPECT_TRUE(waitFor([&] { return l_other.iv_Reads == 2; }));
    }
}

TEST_F(DispatcherRemovalTest, NumberIsReusedForTheSameHandlerMeanwhile)
{
    const SocketPair l_old;
    const SocketPair l_reused;
    const OS_HANDLE l_number = l_old.near();
    Gate l_gates[2];
    std::atomic<int> l_destroyed(0);
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(3, 3, false);
    l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
    l_handler->iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        const bool l_first = l_handler->iv_Reads == 1;
        l_gates[l_first ? 0 : 1].pass();
        return REMOVE;
    };
    l_dispatcher.Register(l_number, *l_handler, 0);
    l_old.send();
    ASSERT_TRUE(l_gates[0].waitForArrived(1));
    l_dispatcher.Unregister(l_number);
    ASSERT_EQ(l_number, dup2(l_reused.near(), l_number));
    l_dispatcher.Register(l_number, *l_handler, 0);
    l_reused.send();
    ASSERT_TRUE(l_gates[1].waitForArrived(1));
    // The old registration is not the handler's last one.
    l_gates[0].open();
    ASSERT_TRUE(waitUntilInside(l_dispatcher, *l_handler, 1));
    EXPECT_TRUE(isRegistered(l_dispatcher, l_number));
    EXPECT_EQ(0, l_destroyed);
    l_gates[1].open();
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
}

TEST_F(DispatcherRemovalTest, DestructorMayUseTheDispatcher)
{
    const SocketPair l_pair;
    std::atomic<int> l_destroyed(0);
    CountingHandler l_other;
    CountingHandler* const l_handler = new CountingHandler;
    Dispatcher l_dispatcher(2, 2, false);
    const Timer_t l_timer = addTimer(l_dispatcher, l_other, 3600);
    l_handler->iv_OnDestruction = [&]
    {
        EXPECT_TRUE(l_dispatcher.CancelTimer(l_timer));
        l_dispatcher.Register(l_pair.near(), l_other, 0);
        ++l_destroyed;
    };
    l_handler->iv_OnTimer = [](Timer_t) { return REMOVE; };
    addTimer(l_dispatcher, *l_handler, 0);
    EXPECT_TRUE(waitFor([&] { return l_destroyed == 1; }));
    EXPECT_TRUE(isWatched(l_dispatcher, l_pair.near()));
}

TEST(DispatcherThreadsDeathTest, FailedWaitFailsItsAssertion)
{
    for (const int l_errno : {EINVAL, ENOMEM, EBADF})
    {
        const auto l_wait = [=]
        {
            failWaits([=] { return l_errno; });
            const Dispatcher l_dispatcher(2, 2, false);
            waitFor([] { return false; });
        };
        EXPECT_ASSERTION(l_wait(), "tolv/vex/tolvDispatcherImpl", 300,
                         "void tolv::MTDispatcher::ThreadMain()", "l_urc >= 0");
    }
}

TEST(DispatcherThreadsDeathTest, HandlerDestroyedInItsOwnCallbackAborts)
{
    const auto l_destroy = []
    {
        CountingHandler* const l_handler = new CountingHandler;
        Dispatcher l_dispatcher(2, 2, false);
        l_handler->iv_OnTimer = [&](Timer_t)
        {
            delete l_handler;
            return CONTINUE;
        };
        addTimer(l_dispatcher, *l_handler, 0);
        waitFor([] { return false; });
    };
    EXPECT_ASSERTION(l_destroy(), "tolv/vex/tolvEventHandler", 40,
                     "virtual tolv::EventHandler::~EventHandler()",
                     "iv_ThreadRefCount == 0");
}

#include "tolv/vex/tolvThPool.hpp"

#include "support/assertion.hpp"
#include "support/fakeClock.hpp"
#include "support/privateMember.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvThread.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(Threads, ThreadPool, std::vector<Thread*>, iv_Threads);
TOLV_PRIVATE_MEMBER(Retired, ThreadPool, std::vector<Thread*>, iv_Retired);
TOLV_PRIVATE_MEMBER(Idle, ThreadPool, std::uint32_t, iv_Idle);
TOLV_PRIVATE_MEMBER(Pending, ThreadPool, std::uint32_t, iv_Pending);
TOLV_PRIVATE_MEMBER(Overflows, ThreadPool, std::uint32_t, iv_Overflows);
TOLV_PRIVATE_MEMBER(MinThreads, ThreadPool, std::uint32_t, iv_MinThreads);
TOLV_PRIVATE_MEMBER(MaxThreads, ThreadPool, std::uint32_t, iv_MaxThreads);
TOLV_PRIVATE_MEMBER(Exited, ThreadPool, std::uint32_t, iv_Exited);
TOLV_PRIVATE_MEMBER(Callers, ThreadPool, std::uint32_t, iv_Callers);
TOLV_PRIVATE_MEMBER(ShutdownFlag, ThreadPool, bool, iv_Shutdown);
TOLV_PRIVATE_MEMBER(RetireIdle, ThreadPool, bool, iv_RetireIdle);
TOLV_PRIVATE_MEMBER(LastBusy, ThreadPool, time_t, iv_LastBusy);
TOLV_PRIVATE_MEMBER(LastOverflow, ThreadPool, time_t, iv_LastOverflow);
TOLV_PRIVATE_MEMBER(Lock, ThreadPool, Mutex, iv_Lock);
TOLV_PRIVATE_MEMBER(Done, ThreadPool, Condition, iv_Done);
TOLV_PRIVATE_MEMBER(NativeMutex, Mutex, pthread_mutex_t, iv_Mutex);

// What the engine calls.
using RequestFunction = bool();
using ReapFunction = void();
using SignalFunction = int(int);
TOLV_PRIVATE_MEMBER(Request, ThreadPool, RequestFunction, request);
TOLV_PRIVATE_MEMBER(Reap, ThreadPool, ReapFunction, reap);
TOLV_PRIVATE_MEMBER(SignalAll, ThreadPool, SignalFunction, signalAll);

namespace
{

constexpr time_t NOON = 1700000000;

std::atomic<int> g_signals(0);    // calls of pthread_cond_signal()
std::atomic<int> g_broadcasts(0); // calls of pthread_cond_broadcast()

// The threads that pthread_kill() was called for while this pool was set, what
// it was to return in turn, and whether the pool's lock was held then.
Mutex* g_lockOfSignals = nullptr;
std::vector<pthread_t> g_signalled;
std::vector<int> g_signalResults;
bool g_signalledUnderLock = true;

// A job whose runs are held up until they are let go one by one.
class Gate
{
  public:
    Function function()
    {
        return FunctionRef<Gate>(this, &Gate::run);
    }

    void letGo(int i_runs)
    {
        iv_Allowed += i_runs;
    }

    void open()
    {
        iv_Allowed += 1000000;
    }

    int begun() const
    {
        return iv_Begun;
    }

    int ended() const
    {
        return iv_Ended;
    }

  private:
    void run()
    {
        const int l_number = ++iv_Begun;
        waitFor([&] { return l_number <= iv_Allowed; });
        ++iv_Ended;
    }

    std::atomic<int> iv_Begun{0};
    std::atomic<int> iv_Allowed{0};
    std::atomic<int> iv_Ended{0};
};

bool waitForTimedWaits(int i_waits)
{
    return waitFor([&] { return fakeClock::timedWaits() >= i_waits; });
}

// A pool with a gate for its job; the gate is opened before the pool goes.
class ThreadPoolTest : public testing::Test
{
  protected:
    ~ThreadPoolTest() override
    {
        iv_Gate.open();
    }

    bool startUp(unsigned int i_min, unsigned int i_max,
                 bool i_retireIdle = true)
    {
        return iv_Pool.StartUp(i_min, i_max, iv_Gate.function(), i_retireIdle);
    }

    void dispatch(int i_runs)
    {
        for (int l_run = 0; l_run != i_runs; ++l_run)
        {
            iv_Pool.Dispatch();
        }
    }

    bool waitForBegun(int i_runs)
    {
        return waitFor([&] { return iv_Gate.begun() == i_runs; });
    }

    bool waitForEnded(int i_runs)
    {
        return waitFor([&] { return iv_Gate.ended() == i_runs; });
    }

    template <class Tag>
    typename std::decay<decltype(std::declval<ThreadPool&>().*get(Tag()))>::type
    value(Tag i_tag)
    {
        Mutex& l_mutex = iv_Pool.*get(Lock());
        const MutexLock l_lock(l_mutex);
        return iv_Pool.*get(i_tag);
    }

    template <class Tag, class Value>
    bool waitForValue(Tag i_tag, Value i_value)
    {
        return waitFor([&] { return value(i_tag) == i_value; });
    }

    // Lets the pool grow to i_depth by as many runs; then all are idle again.
    void growTo(int i_depth)
    {
        for (int l_run = 1; l_run <= i_depth; ++l_run)
        {
            dispatch(1);
            ASSERT_TRUE(waitForBegun(l_run));
        }
        iv_Gate.letGo(i_depth);
        ASSERT_TRUE(waitForValue(Idle(), static_cast<std::uint32_t>(i_depth)));
        ASSERT_EQ(static_cast<unsigned int>(i_depth), iv_Pool.getPoolDepth());
    }

    template <class Tag, class Value>
    void setValue(Tag i_tag, Value i_value)
    {
        Mutex& l_mutex = iv_Pool.*get(Lock());
        const MutexLock l_lock(l_mutex);
        iv_Pool.*get(i_tag) = i_value;
    }

    bool waitForDepth(unsigned int i_depth)
    {
        return waitFor([&] { return iv_Pool.getPoolDepth() == i_depth; });
    }

    Gate iv_Gate;
    ThreadPool iv_Pool;
};

} // namespace

extern "C"
{
    int __real_pthread_cond_signal(pthread_cond_t*);
    int __real_pthread_cond_broadcast(pthread_cond_t*);
    int __real_pthread_kill(pthread_t, int);

    int __wrap_pthread_cond_signal(pthread_cond_t* io_cond)
    {
        ++g_signals;
        return __real_pthread_cond_signal(io_cond);
    }

    int __wrap_pthread_cond_broadcast(pthread_cond_t* io_cond)
    {
        ++g_broadcasts;
        return __real_pthread_cond_broadcast(io_cond);
    }

    int __wrap_pthread_kill(pthread_t i_thread, int i_signal)
    {
        if (g_lockOfSignals == nullptr)
        {
            return __real_pthread_kill(i_thread, i_signal);
        }
        pthread_mutex_t& l_mutex = g_lockOfSignals->*get(NativeMutex());
        std::thread(
            [&]
            {
                if (pthread_mutex_trylock(&l_mutex) == 0)
                {
                    g_signalledUnderLock = false;
                    pthread_mutex_unlock(&l_mutex);
                }
            })
            .join();
        g_signalled.push_back(i_thread);
        return g_signalResults.at(g_signalled.size() - 1);
    }
}

TEST_F(ThreadPoolTest, IsEmptyBeforeItIsStarted)
{
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
    EXPECT_EQ(0U, value(MinThreads()));
    EXPECT_EQ(0U, value(MaxThreads()));
    EXPECT_EQ(0U, value(Idle()));
    EXPECT_EQ(0U, value(Pending()));
    EXPECT_EQ(0U, value(Overflows()));
    EXPECT_EQ(0U, value(Exited()));
    EXPECT_FALSE(value(ShutdownFlag()));
    EXPECT_TRUE(value(RetireIdle()));
}

TEST_F(ThreadPoolTest, StartUpStartsTheMinimum)
{
    fakeClock::start(NOON);
    EXPECT_TRUE(startUp(3, 5, false));
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
    EXPECT_EQ(3U, value(MinThreads()));
    EXPECT_EQ(5U, value(MaxThreads()));
    EXPECT_EQ(3U, value(Idle()));
    EXPECT_FALSE(value(RetireIdle()));
    EXPECT_EQ(0, value(LastOverflow()));
    for (Thread* l_thread : value(Threads()))
    {
        EXPECT_EQ(reinterpret_cast<void*>(1), l_thread->getUserPtr());
    }
}

TEST_F(ThreadPoolTest, StartUpCountsAsBusyUnlessTwoWorkersAreIdle)
{
    fakeClock::start(NOON);
    EXPECT_TRUE(startUp(2, 4));
    EXPECT_EQ(0, value(LastBusy()));
    EXPECT_FALSE(iv_Pool.Shutdown(10));
    EXPECT_TRUE(startUp(1, 4));
    EXPECT_EQ(NOON, value(LastBusy()));
}

TEST_F(ThreadPoolTest, StartUpOnAStartedPoolReturnsFalseAndChangesNothing)
{
    EXPECT_TRUE(startUp(1, 2, false));
    Gate l_other;
    EXPECT_FALSE(iv_Pool.StartUp(3, 7, l_other.function(), true));
    EXPECT_EQ(1U, iv_Pool.getPoolDepth());
    EXPECT_EQ(1U, value(MinThreads()));
    EXPECT_EQ(2U, value(MaxThreads()));
    EXPECT_FALSE(value(RetireIdle()));
    dispatch(1);
    EXPECT_TRUE(waitForBegun(1));
    EXPECT_EQ(0, l_other.begun());
}

TEST_F(ThreadPoolTest, MinimumOfZeroCountsAsNotStarted)
{
    EXPECT_TRUE(startUp(0, 2));
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
    EXPECT_TRUE(startUp(0, 2));
    dispatch(1); // grows from nothing
    EXPECT_TRUE(waitForBegun(1));
    EXPECT_FALSE(startUp(0, 2));
}

TEST_F(ThreadPoolTest, MinimumAboveTheMaximumIsNotRefused)
{
    EXPECT_TRUE(startUp(3, 1));
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, EachDispatchRunsTheJobOnce)
{
    iv_Gate.open();
    startUp(2, 4);
    dispatch(100);
    EXPECT_TRUE(waitForEnded(100));
    EXPECT_EQ(0U, value(Pending()));
    EXPECT_EQ(100, iv_Gate.begun());
}

TEST_F(ThreadPoolTest, EachDispatchWakesOneWorkerAtMost)
{
    startUp(2, 3);
    dispatch(2);
    EXPECT_EQ(2, g_signals);
    ASSERT_TRUE(waitForBegun(2));
    dispatch(1); // the new worker takes the run itself
    ASSERT_TRUE(waitForBegun(3));
    dispatch(1); // nobody is idle
    EXPECT_EQ(2, g_signals);
    EXPECT_EQ(0, g_broadcasts);
}

TEST_F(ThreadPoolTest, IdleWorkersTakeRunsBeforeThePoolGrows)
{
    startUp(2, 4);
    dispatch(2);
    EXPECT_TRUE(waitForBegun(2));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
    EXPECT_EQ(0U, value(Idle()));
}

TEST_F(ThreadPoolTest, GrowsWhenWorkersAreBusyAndOverflowsAtTheMaximum)
{
    fakeClock::start(NOON);
    startUp(2, 4);
    dispatch(2);
    ASSERT_TRUE(waitForBegun(2));
    dispatch(1);
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
    ASSERT_TRUE(waitForBegun(3));
    dispatch(1);
    EXPECT_EQ(4U, iv_Pool.getPoolDepth());
    ASSERT_TRUE(waitForBegun(4));
    EXPECT_EQ(0U, value(Overflows()));
    EXPECT_EQ(0, value(LastOverflow()));

    fakeClock::advance(5);
    dispatch(2);
    EXPECT_EQ(4U, iv_Pool.getPoolDepth());
    EXPECT_EQ(2U, value(Overflows()));
    EXPECT_EQ(NOON + 5, value(LastOverflow()));
    EXPECT_EQ(2U, value(Pending()));
    EXPECT_EQ(4, iv_Gate.begun());
    iv_Gate.letGo(1); // the freed worker takes what is pending
    EXPECT_TRUE(waitForBegun(5));
    iv_Gate.open();
    EXPECT_TRUE(waitForEnded(6));
}

TEST_F(ThreadPoolTest, GrowsAtOnceForRunsThatIdleWorkersHaveNotTakenYet)
{
    startUp(1, 3);
    dispatch(3);
    EXPECT_TRUE(waitForBegun(3));
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, IdleBelowTwoIsRememberedAsBusy)
{
    fakeClock::start(NOON);
    startUp(3, 3);
    EXPECT_EQ(0, value(LastBusy()));
    dispatch(1); // leaves two idle
    ASSERT_TRUE(waitForBegun(1));
    EXPECT_EQ(0, value(LastBusy()));
    fakeClock::advance(7);
    dispatch(1); // leaves one idle
    ASSERT_TRUE(waitForBegun(2));
    EXPECT_EQ(NOON + 7, value(LastBusy()));
    fakeClock::advance(7);
    iv_Gate.letGo(1); // two idle again
    ASSERT_TRUE(waitForValue(Idle(), 2U));
    EXPECT_EQ(NOON + 7, value(LastBusy()));
}

TEST_F(ThreadPoolTest, SpareWorkersRetireDownToTheMinimum)
{
    fakeClock::start(NOON);
    startUp(1, 4);
    growTo(3);
    ASSERT_TRUE(waitForTimedWaits(3));
    EXPECT_EQ(NOON + 900, fakeClock::lastDeadline());
    fakeClock::advance(901);
    EXPECT_TRUE(waitForDepth(1));
    EXPECT_TRUE(waitForValue(Idle(), 1U));
    EXPECT_EQ(NOON + 901, value(LastBusy()));
    EXPECT_EQ(2U, value(Retired()).size());
}

TEST_F(ThreadPoolTest, SpareWorkersDoNotRetireAtExactlyFifteenMinutes)
{
    fakeClock::start(NOON);
    startUp(1, 4);
    growTo(3);
    ASSERT_TRUE(waitForTimedWaits(3));
    fakeClock::advance(900);
    EXPECT_TRUE(waitForTimedWaits(6)); // all looked and wait again
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, NobodyRetiresAtTheMinimum)
{
    fakeClock::start(NOON);
    startUp(2, 4);
    ASSERT_TRUE(waitForTimedWaits(2));
    fakeClock::advance(901);
    EXPECT_TRUE(waitForTimedWaits(4));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, NobodyRetiresWithinFifteenMinutesOfAnOverflow)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    setValue(LastOverflow(), NOON + 1);
    fakeClock::advance(901);
    EXPECT_TRUE(waitForTimedWaits(4));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
    fakeClock::advance(901);
    EXPECT_TRUE(waitForDepth(1));
}

TEST_F(ThreadPoolTest, NobodyRetiresWithinFifteenMinutesOfBeingBusy)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    setValue(LastBusy(), NOON + 1);
    fakeClock::advance(901);
    EXPECT_TRUE(waitForTimedWaits(4));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, TheOnlyIdleWorkerDoesNotRetire)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    dispatch(1);
    ASSERT_TRUE(waitForBegun(3));
    setValue(LastBusy(), 0);
    const int l_waits = fakeClock::timedWaits();
    fakeClock::advance(901);
    EXPECT_TRUE(waitForTimedWaits(l_waits + 1));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, PoolThatDoesNotRetireNeverLosesWorkers)
{
    fakeClock::start(NOON);
    startUp(1, 3, false);
    growTo(3);
    fakeClock::advance(100000);
    dispatch(1); // whoever looks at the retire test would do it now
    ASSERT_TRUE(waitForBegun(4));
    iv_Gate.letGo(1);
    ASSERT_TRUE(waitForValue(Idle(), 3U));
    EXPECT_EQ(3U, iv_Pool.getPoolDepth());
    EXPECT_EQ(0, fakeClock::timedWaits());
}

TEST_F(ThreadPoolTest, NextDispatchJoinsRetiredThreads)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    fakeClock::advance(901);
    ASSERT_TRUE(waitForDepth(1));
    EXPECT_EQ(1U, value(Retired()).size());
    dispatch(1);
    EXPECT_EQ(0U, value(Retired()).size());
}

TEST_F(ThreadPoolTest, ShutdownJoinsRetiredThreads)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    fakeClock::advance(901);
    ASSERT_TRUE(waitForDepth(1));
    EXPECT_FALSE(iv_Pool.Shutdown(10));
    EXPECT_EQ(0U, value(Retired()).size());
}

TEST_F(ThreadPoolTest, WorkerSpawnedAfterARetirementServes)
{
    fakeClock::start(NOON);
    startUp(1, 2);
    growTo(2);
    ASSERT_TRUE(waitForTimedWaits(2));
    fakeClock::advance(901);
    ASSERT_TRUE(waitForDepth(1));
    dispatch(2);
    EXPECT_TRUE(waitForBegun(4));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, ShutdownWithoutThreadsReturnsFalseAtOnce)
{
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_FALSE(value(ShutdownFlag()));
    EXPECT_TRUE(startUp(1, 1));
}

TEST_F(ThreadPoolTest, ShutdownStopsAndJoinsAllWorkers)
{
    startUp(3, 3);
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
    EXPECT_TRUE(value(ShutdownFlag()));
    EXPECT_FALSE(iv_Pool.Shutdown(60));
}

TEST_F(ThreadPoolTest, ShutdownOfZeroSecondsOnlyLooks)
{
    startUp(2, 2);
    dispatch(2);
    ASSERT_TRUE(waitForBegun(2));
    EXPECT_TRUE(iv_Pool.Shutdown(0));
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
    EXPECT_FALSE(startUp(2, 2));
    iv_Gate.open();
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, ShutdownWaitsUntilItsDeadline)
{
    fakeClock::start(NOON);
    startUp(1, 1);
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    const int l_waits = fakeClock::timedWaits();
    std::thread l_clock(
        [&]
        {
            EXPECT_TRUE(waitForTimedWaits(l_waits + 1));
            EXPECT_EQ(NOON + 40, fakeClock::lastDeadline());
            fakeClock::advance(40);
        });
    EXPECT_TRUE(iv_Pool.Shutdown(40));
    l_clock.join();
}

TEST_F(ThreadPoolTest, WorkersThatLeaveAtTheDeadlineAreNotATimeOut)
{
    fakeClock::start(NOON);
    fakeClock::reportTimeOutWhenWoken();
    startUp(1, 1);
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    const int l_waits = fakeClock::timedWaits();
    std::thread l_release(
        [&]
        {
            EXPECT_TRUE(waitForTimedWaits(l_waits + 1));
            iv_Gate.open();
        });
    EXPECT_FALSE(iv_Pool.Shutdown(40));
    l_release.join();
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, PendingRunsAreNeverMadeAfterAShutdown)
{
    startUp(1, 1);
    dispatch(5);
    ASSERT_TRUE(waitForBegun(1));
    EXPECT_TRUE(iv_Pool.Shutdown(0));
    iv_Gate.open();
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_EQ(1, iv_Gate.begun());
    EXPECT_EQ(4U, value(Pending()));
}

TEST_F(ThreadPoolTest, DispatchDuringAShutdownIsOnlyCounted)
{
    startUp(1, 3);
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    EXPECT_TRUE(iv_Pool.Shutdown(0));
    dispatch(2);
    EXPECT_EQ(2U, value(Pending()));
    EXPECT_EQ(1U, iv_Pool.getPoolDepth());
    EXPECT_EQ(0U, value(Overflows()));
}

TEST_F(ThreadPoolTest, CanBeStartedAgainAfterAShutdown)
{
    startUp(2, 2);
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    dispatch(3); // dropped by the next start
    EXPECT_TRUE(startUp(1, 2));
    EXPECT_FALSE(value(ShutdownFlag()));
    EXPECT_EQ(0U, value(Exited()));
    EXPECT_EQ(0U, value(Pending()));
    dispatch(1);
    EXPECT_TRUE(waitForBegun(1));
}

TEST_F(ThreadPoolTest, StartUpAfterAShutdownForgetsTheOverflows)
{
    fakeClock::start(NOON);
    startUp(1, 1);
    dispatch(2);
    ASSERT_TRUE(waitForBegun(1));
    dispatch(1);
    ASSERT_LT(0U, value(Overflows()));
    iv_Gate.open();
    ASSERT_TRUE(waitForEnded(3));
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_TRUE(startUp(2, 2));
    EXPECT_EQ(0U, value(Overflows()));
    EXPECT_EQ(0, value(LastOverflow()));
    EXPECT_EQ(0, value(LastBusy()));
}

TEST_F(ThreadPoolTest, DeadlineOfAShutdownDoesNotMove)
{
    fakeClock::start(NOON);
    startUp(1, 1);
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    const int l_waits = fakeClock::timedWaits();
    std::thread l_clock(
        [&]
        {
            EXPECT_TRUE(waitForTimedWaits(l_waits + 1));
            fakeClock::advance(30);
            (iv_Pool.*get(Done())).NotifyAll(); // a look, nobody has left
            EXPECT_TRUE(waitForTimedWaits(l_waits + 2));
            EXPECT_EQ(NOON + 40, fakeClock::lastDeadline());
            fakeClock::advance(10);
        });
    EXPECT_TRUE(iv_Pool.Shutdown(40));
    l_clock.join();
}

TEST_F(ThreadPoolTest, SecondShutdownFromAnotherThreadAlsoReturns)
{
    startUp(1, 1);
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    std::thread l_other([&] { EXPECT_FALSE(iv_Pool.Shutdown(60)); });
    ASSERT_TRUE(waitForValue(ShutdownFlag(), true));
    iv_Gate.open();
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    l_other.join();
}

namespace
{

// A thread that sits in JoinPool().
class Joiner
{
  public:
    explicit Joiner(ThreadPool& io_pool) :
        iv_Thread(
            [this, &io_pool]
            {
                io_pool.JoinPool();
                iv_Left = true;
            })
    {
    }

    ~Joiner()
    {
        iv_Thread.join();
    }

    bool left() const
    {
        return iv_Left;
    }

  private:
    std::atomic<bool> iv_Left{false};
    std::thread iv_Thread;
};

} // namespace

TEST_F(ThreadPoolTest, JoinedCallerServesUntilShutdown)
{
    startUp(0, 1);
    const Joiner l_joiner(iv_Pool);
    ASSERT_TRUE(waitForDepth(1));
    EXPECT_EQ(nullptr, value(Threads()).at(0)->getUserPtr());
    dispatch(2);
    EXPECT_TRUE(waitForBegun(1));
    iv_Gate.open();
    EXPECT_TRUE(waitForEnded(2));
    EXPECT_FALSE(l_joiner.left());
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_TRUE(waitFor([&] { return l_joiner.left(); }));
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, JoinedCallersNeverRetire)
{
    fakeClock::start(NOON);
    startUp(1, 3);
    const Joiner l_first(iv_Pool);
    const Joiner l_second(iv_Pool);
    ASSERT_TRUE(waitForDepth(3));
    ASSERT_TRUE(waitForValue(Idle(), 3U));
    ASSERT_TRUE(waitForTimedWaits(1));
    EXPECT_EQ(1, fakeClock::timedWaits());
    fakeClock::advance(901);
    EXPECT_TRUE(waitForDepth(2)); // the spawned one has gone
    EXPECT_FALSE(l_first.left());
    EXPECT_FALSE(l_second.left());
    EXPECT_FALSE(iv_Pool.Shutdown(60));
}

TEST_F(ThreadPoolTest, CallerBeyondTheMaximumWaitsForTheShutdown)
{
    startUp(1, 1);
    const Joiner l_joiner(iv_Pool);
    ASSERT_TRUE(waitForValue(Callers(), 1U));
    EXPECT_EQ(1U, iv_Pool.getPoolDepth());
    EXPECT_FALSE(l_joiner.left());
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_TRUE(waitFor([&] { return l_joiner.left(); }));
}

TEST_F(ThreadPoolTest, CallersBeyondTheMaximumSwallowNoRuns)
{
    iv_Gate.open();
    startUp(1, 1);
    const Joiner l_first(iv_Pool);
    const Joiner l_second(iv_Pool);
    ASSERT_TRUE(waitForValue(Callers(), 2U));
    for (int l_run = 1; l_run <= 200; ++l_run)
    {
        dispatch(1);
        ASSERT_TRUE(waitForEnded(l_run));
    }
    EXPECT_FALSE(iv_Pool.Shutdown(60));
}

TEST_F(ThreadPoolTest, CallerOfAPoolWithoutThreadsIsLetGoByShutdown)
{
    const Joiner l_joiner(iv_Pool);
    ASSERT_TRUE(waitForValue(Callers(), 1U));
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    EXPECT_TRUE(waitFor([&] { return l_joiner.left(); }));
}

TEST_F(ThreadPoolTest, LastCallerToLeaveEndsEveryShutdown)
{
    fakeClock::start(NOON); // stands still: nobody times out
    startUp(0, 1);
    const Joiner l_joiner(iv_Pool);
    ASSERT_TRUE(waitForDepth(1));
    dispatch(1);
    ASSERT_TRUE(waitForBegun(1));
    std::thread l_first([&] { EXPECT_FALSE(iv_Pool.Shutdown(60)); });
    std::thread l_second([&] { EXPECT_FALSE(iv_Pool.Shutdown(60)); });
    EXPECT_TRUE(waitForTimedWaits(2));
    iv_Gate.open();
    l_first.join();
    l_second.join();
}

TEST_F(ThreadPoolTest, StartUpIsRefusedUntilAShutdownHasSeenTheCallersLeave)
{
    std::thread l_surplus([&] { iv_Pool.JoinPool(); });
    ASSERT_TRUE(waitForValue(Callers(), 1U));
    {
        // The caller cannot leave while the lock is held; the flag is set as
        // a shutdown that has just timed out leaves it.
        Mutex& l_mutex = iv_Pool.*get(Lock());
        const MutexLock l_lock(l_mutex);
        iv_Pool.*get(ShutdownFlag()) = true;
    }
    EXPECT_FALSE(startUp(1, 1));
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    l_surplus.join();
    EXPECT_TRUE(startUp(1, 1));
}

TEST_F(ThreadPoolTest, ShutdownThatAnotherOneOvertookIsNoTimeOut)
{
    // The first to get the lock stops the pool and starts it again before the
    // second has looked.
    for (int l_round = 0; l_round != 100; ++l_round)
    {
        ThreadPool l_pool;
        Gate l_gate;
        l_pool.StartUp(1, 1, l_gate.function(), true);
        const auto l_restart = [&]
        {
            EXPECT_FALSE(l_pool.Shutdown(5));
            l_pool.StartUp(1, 1, l_gate.function(), true);
        };
        std::thread l_other(l_restart);
        l_restart();
        l_other.join();
    }
}

TEST_F(ThreadPoolTest, JoinPoolReturnsAtOnceAfterAShutdown)
{
    startUp(1, 2);
    EXPECT_FALSE(iv_Pool.Shutdown(60));
    iv_Pool.JoinPool();
    EXPECT_EQ(0U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, RequestLeavesRetiredThreadsToTheReaper)
{
    fakeClock::start(NOON);
    EXPECT_TRUE(startUp(1, 3));
    growTo(3);
    EXPECT_FALSE((iv_Pool.*get(Request()))());
    EXPECT_TRUE(waitForBegun(4));
    iv_Gate.letGo(1);
    EXPECT_TRUE(waitForValue(Idle(), 3U));
    ASSERT_TRUE(waitForTimedWaits(3));
    fakeClock::advance(901);
    EXPECT_TRUE(waitForDepth(1));
    EXPECT_EQ(2U, value(Retired()).size());
    EXPECT_TRUE((iv_Pool.*get(Request()))());
    EXPECT_EQ(2U, value(Retired()).size());
    EXPECT_TRUE(waitForBegun(5));
    (iv_Pool.*get(Reap()))();
    EXPECT_TRUE(value(Retired()).empty());
    (iv_Pool.*get(Reap()))(); // nothing to join
}

TEST_F(ThreadPoolTest, RequestDuringAShutdownIsOnlyCounted)
{
    EXPECT_TRUE(startUp(1, 2));
    dispatch(1);
    EXPECT_TRUE(waitForBegun(1));
    EXPECT_TRUE(iv_Pool.Shutdown(0));
    EXPECT_FALSE((iv_Pool.*get(Request()))());
    EXPECT_EQ(1U, value(Pending()));
    EXPECT_EQ(1U, iv_Pool.getPoolDepth());
}

TEST_F(ThreadPoolTest, SignalWithoutThreadsReturnsMinusOne)
{
    EXPECT_EQ(-1, (iv_Pool.*get(SignalAll()))(0));
    EXPECT_TRUE(startUp(1, 1));
    EXPECT_EQ(0, (iv_Pool.*get(SignalAll()))(0));
    EXPECT_FALSE(iv_Pool.Shutdown(20));
    EXPECT_EQ(-1, (iv_Pool.*get(SignalAll()))(0));
}

TEST_F(ThreadPoolTest, SignalGoesToEachThreadInOrderUnderTheLock)
{
    EXPECT_TRUE(startUp(3, 4, false));
    std::thread l_caller([&] { iv_Pool.JoinPool(); });
    EXPECT_TRUE(waitForDepth(4));
    std::vector<pthread_t> l_expected;
    for (const Thread* l_thread : value(Threads()))
    {
        l_expected.push_back(l_thread->getTid());
    }
    EXPECT_EQ(l_caller.native_handle(), l_expected.back());
    g_signalResults = {0, EINVAL, 0, ESRCH};
    g_lockOfSignals = &(iv_Pool.*get(Lock()));
    EXPECT_EQ(ESRCH, (iv_Pool.*get(SignalAll()))(SIGUSR1));
    g_lockOfSignals = nullptr;
    EXPECT_EQ(l_expected, g_signalled);
    EXPECT_TRUE(g_signalledUnderLock);
    EXPECT_FALSE(iv_Pool.Shutdown(20));
    l_caller.join();
}

TEST_F(ThreadPoolTest, SignalPassesCallersThatHaveLeft)
{
    EXPECT_TRUE(startUp(1, 2, false));
    std::thread l_caller([&] { iv_Pool.JoinPool(); });
    EXPECT_TRUE(waitForDepth(2));
    dispatch(2);
    EXPECT_TRUE(waitForBegun(2));
    EXPECT_TRUE(iv_Pool.Shutdown(0));
    const pthread_t l_callersThread = l_caller.native_handle();
    // The threads of a shutdown that timed out stay in the pool.
    iv_Gate.open();
    l_caller.join();
    EXPECT_EQ(2U, iv_Pool.getPoolDepth());
    g_signalResults = {0, 0};
    g_lockOfSignals = &(iv_Pool.*get(Lock()));
    EXPECT_EQ(0, (iv_Pool.*get(SignalAll()))(SIGUSR1));
    g_lockOfSignals = nullptr;
    ASSERT_EQ(1U, g_signalled.size());
    EXPECT_NE(l_callersThread, g_signalled[0]);
}

TEST_F(ThreadPoolTest, DestructorWaitsForCallersInsideJoinPool)
{
    for (int l_round = 0; l_round != 50; ++l_round)
    {
        ThreadPool* l_pool = new ThreadPool;
        l_pool->StartUp(1, 2, iv_Gate.function(), true);
        const Joiner l_worker(*l_pool);
        const Joiner l_surplus(*l_pool);
        ASSERT_TRUE(waitFor(
            [&]
            {
                Mutex& l_mutex = l_pool->*get(Lock());
                const MutexLock l_lock(l_mutex);
                return l_pool->*get(Callers()) == 2;
            }));
        delete l_pool;
    }
}

namespace
{

// A job that joins its own pool: one POSIX thread is then two workers.
struct NestedJoin
{
    void run()
    {
        if (++iv_Runs == 1)
        {
            iv_Pool.JoinPool();
            ++iv_Returns;
        }
    }

    ThreadPool iv_Pool;
    std::atomic<int> iv_Runs{0};
    std::atomic<int> iv_Returns{0};
};

} // namespace

TEST(ThreadPoolNestedTest, WorkerThatJoinsItsOwnPoolDoesNotRetireTwice)
{
    fakeClock::start(NOON);
    NestedJoin l_nested;
    l_nested.iv_Pool.StartUp(
        1, 3, FunctionRef<NestedJoin>(&l_nested, &NestedJoin::run), true);
    l_nested.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_nested.iv_Pool.getPoolDepth() == 2; }));
    // The inner one is a joined caller, which waits without a limit, although
    // the outer one, a worker of the pool, has the same POSIX thread.
    const int l_waits = fakeClock::timedWaits();
    l_nested.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_nested.iv_Runs == 2; }));
    ASSERT_TRUE(waitFor(
        [&]
        {
            Mutex& l_mutex = l_nested.iv_Pool.*get(Lock());
            const MutexLock l_lock(l_mutex);
            return l_nested.iv_Pool.*get(Idle()) == 1;
        }));
    EXPECT_EQ(l_waits, fakeClock::timedWaits());
    EXPECT_FALSE(l_nested.iv_Pool.Shutdown(60));
    EXPECT_EQ(1, l_nested.iv_Returns);
}

namespace
{

// Does in the destructor of a thread-local object what a thread does last.
class LastWords
{
  public:
    ~LastWords()
    {
        if (iv_Pool != nullptr)
        {
            s_begun = true;
            waitFor([] { return s_allowed.load(); });
            iv_Pool->getPoolDepth();
            ++s_spoken;
        }
    }

    void use(ThreadPool& io_pool)
    {
        iv_Pool = &io_pool;
    }

    static std::atomic<bool> s_begun;
    static std::atomic<bool> s_allowed;
    static std::atomic<int> s_spoken;

  private:
    ThreadPool* iv_Pool = nullptr;
};

std::atomic<bool> LastWords::s_begun(false);
std::atomic<bool> LastWords::s_allowed(true);
std::atomic<int> LastWords::s_spoken(0);

struct Speaker
{
    void run()
    {
        static thread_local LastWords l_words;
        l_words.use(iv_Pool);
        ++iv_Runs;
        waitFor([this] { return !iv_Hold; });
    }

    ThreadPool iv_Pool;
    std::atomic<int> iv_Runs{0};
    std::atomic<bool> iv_Hold{false};

    Function function()
    {
        return FunctionRef<Speaker>(this, &Speaker::run);
    }
};

} // namespace

TEST(ThreadPoolJoinTest, ShutdownJoinsWithoutTheLock)
{
    Speaker l_speaker;
    l_speaker.iv_Pool.StartUp(1, 1, l_speaker.function(), true);
    l_speaker.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Runs == 1; }));
    EXPECT_FALSE(l_speaker.iv_Pool.Shutdown(60));
    EXPECT_EQ(1, LastWords::s_spoken);
}

TEST(ThreadPoolJoinTest, DispatchJoinsRetiredThreadsWithoutTheLock)
{
    fakeClock::start(NOON);
    Speaker l_speaker;
    l_speaker.iv_Hold = true;
    l_speaker.iv_Pool.StartUp(1, 2, l_speaker.function(), true);
    l_speaker.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Runs == 1; }));
    l_speaker.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Runs == 2; }));
    l_speaker.iv_Hold = false;
    ASSERT_TRUE(waitForTimedWaits(2));
    fakeClock::advance(901);
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Pool.getPoolDepth() == 1; }));
    l_speaker.iv_Pool.Dispatch();
    EXPECT_EQ(1, LastWords::s_spoken);
}

TEST(ThreadPoolJoinTest, SecondShutdownReturnsOnlyWhenTheFirstHasJoined)
{
    LastWords::s_allowed = false;
    Speaker l_speaker;
    l_speaker.iv_Pool.StartUp(1, 1, l_speaker.function(), true);
    l_speaker.iv_Pool.Dispatch();
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Runs == 1; }));
    std::thread l_first([&] { EXPECT_FALSE(l_speaker.iv_Pool.Shutdown(60)); });
    ASSERT_TRUE(waitFor([] { return LastWords::s_begun.load(); }));
    ASSERT_TRUE(waitFor([&] { return l_speaker.iv_Pool.getPoolDepth() == 0; }));
    EXPECT_TRUE(l_speaker.iv_Pool.Shutdown(0)); // still one to be joined
    LastWords::s_allowed = true;
    EXPECT_FALSE(l_speaker.iv_Pool.Shutdown(60));
    EXPECT_EQ(1, LastWords::s_spoken);
    l_first.join();
}

namespace
{

struct Counter
{
    void run()
    {
        ++iv_Runs;
    }

    std::atomic<int> iv_Runs{0};
};

} // namespace

TEST(ThreadPoolStressTest, SignalsMeetOnlyLiveThreadsWhileTheyComeAndGo)
{
    fakeClock::start(NOON);
    Counter l_counter;
    ThreadPool l_pool;
    l_pool.StartUp(1, 8, FunctionRef<Counter>(&l_counter, &Counter::run), true);
    std::atomic<bool> l_done(false);
    std::thread l_signaller(
        [&]
        {
            while (!l_done)
            {
                EXPECT_EQ(0, (l_pool.*get(SignalAll()))(0));
            }
        });
    for (int l_run = 0; l_run != 5000; ++l_run)
    {
        l_pool.Dispatch();
        fakeClock::advance(1000);
    }
    l_done = true;
    l_signaller.join();
    EXPECT_FALSE(l_pool.Shutdown(60));
}

TEST(ThreadPoolStressTest, EveryRunIsMadeOnceWhileWorkersGrowAndRetire)
{
    constexpr int DISPATCHERS = 4;
    constexpr int RUNS = 5000; // each
    fakeClock::start(NOON);
    Counter l_counter;
    ThreadPool l_pool;
    l_pool.StartUp(1, 8, FunctionRef<Counter>(&l_counter, &Counter::run), true);
    const Joiner l_joiner(l_pool);
    std::atomic<bool> l_done(false);
    std::atomic<int> l_shrunk(0);
    std::thread l_clock(
        [&]
        {
            unsigned int l_depth = 0;
            while (!l_done)
            {
                fakeClock::advance(1000);
                const unsigned int l_now = l_pool.getPoolDepth();
                l_shrunk += l_now < l_depth ? 1 : 0;
                l_depth = l_now;
                std::this_thread::yield();
            }
        });
    std::vector<std::thread> l_dispatchers;
    for (int l_number = 0; l_number != DISPATCHERS; ++l_number)
    {
        l_dispatchers.emplace_back(
            [&]
            {
                for (int l_run = 1; l_run <= RUNS; ++l_run)
                {
                    l_pool.Dispatch();
                    if (l_run % 500 == 0)
                    {
                        // A pause long enough for spare workers to retire.
                        const int l_seen = l_shrunk;
                        const auto l_limit = std::chrono::steady_clock::now() +
                                             std::chrono::milliseconds(50);
                        while (l_shrunk == l_seen &&
                               std::chrono::steady_clock::now() < l_limit)
                        {
                            std::this_thread::yield();
                        }
                    }
                }
            });
    }
    for (std::thread& l_dispatcher : l_dispatchers)
    {
        l_dispatcher.join();
    }
    EXPECT_TRUE(
        waitFor([&] { return l_counter.iv_Runs == DISPATCHERS * RUNS; }));
    EXPECT_TRUE(waitFor([&] { return l_shrunk > 0; }));
    l_done = true;
    l_clock.join();
    EXPECT_FALSE(l_pool.Shutdown(60));
    EXPECT_EQ(DISPATCHERS * RUNS, l_counter.iv_Runs);
}

namespace
{

struct Failing
{
    void run()
    {
        throw std::runtime_error("job");
    }
};

} // namespace

TEST(ThreadPoolDeathTest, DestroyingAPoolThatDoesNotStopFailsItsAssertion)
{
    const auto l_destroy = []
    {
        fakeClock::start(NOON);
        Gate l_gate;
        ThreadPool l_pool;
        l_pool.StartUp(1, 1, l_gate.function(), true);
        l_pool.Dispatch();
        waitFor([&] { return l_gate.begun() == 1; });
        const int l_waits = fakeClock::timedWaits();
        std::thread(
            [=]
            {
                waitForTimedWaits(l_waits + 1);
                fakeClock::advance(60);
            })
            .detach();
    };
    EXPECT_ASSERTION(l_destroy(), "tolv/vex/tolvThPool", 85,
                     "tolv::ThreadPool::~ThreadPool()",
                     "false == Shutdown( 60 )");
}

TEST(ThreadPoolDeathTest, JobThatThrowsEndsTheProcessOnAWorker)
{
    const auto l_run = []
    {
        Failing l_job;
        ThreadPool l_pool;
        l_pool.StartUp(1, 1, FunctionRef<Failing>(&l_job, &Failing::run), true);
        l_pool.Dispatch();
        waitFor([] { return false; });
    };
    EXPECT_EXIT(l_run(), testing::KilledBySignal(SIGABRT), "runtime_error");
}

TEST(ThreadPoolDeathTest, JobThatThrowsEndsTheProcessOnAJoinedCaller)
{
    const auto l_run = []
    {
        Failing l_job;
        ThreadPool l_pool;
        l_pool.StartUp(0, 1, FunctionRef<Failing>(&l_job, &Failing::run), true);
        const auto l_join = [&]
        {
            try
            {
                l_pool.JoinPool();
            }
            catch (const std::runtime_error&)
            {
                _exit(0);
            }
        };
        std::thread l_dispatch(
            [&]
            {
                waitFor([&] { return l_pool.getPoolDepth() == 1; });
                l_pool.Dispatch();
            });
        l_join();
        l_dispatch.join();
    };
    EXPECT_EXIT(l_run(), testing::KilledBySignal(SIGABRT), "runtime_error");
}

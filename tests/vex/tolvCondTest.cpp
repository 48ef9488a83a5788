#include "tolv/vex/tolvCond.hpp"

#include "support/assertion.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include <atomic>
#include <functional>
#include <limits>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

using namespace tolv;

namespace
{

const char* const SOURCE = "tolv/vex/tolvCond";

static_assert(!std::is_copy_constructible<Condition>::value &&
                  !std::is_copy_assignable<Condition>::value,
              "waiters know it by its address");

// What the wrapped functions answer instead of doing their work; 0: they work.
int g_initResult = 0;
int g_destroyResult = 0;
int g_signalResult = 0;
int g_broadcastResult = 0;
int g_waitResult = 0;
bool g_initAttributesGiven = false;

// What the wrapped timed wait answers, one result a call, and what it saw; it
// works when there is nothing left to answer.
std::vector<int> g_timedWaitResults;
std::vector<timespec> g_deadlines;
std::atomic<int> g_realTimedWaits(0);

std::atomic<int> g_signals(0);

void countSignals(int i_signal)
{
    struct sigaction l_action = {};
    l_action.sa_handler = [](int) { ++g_signals; };
    sigaction(i_signal, &l_action, nullptr);
}

// The clock of a destructor that waits for a waiter to leave: when replaced it
// stands still and only i_afterPoll, called with the number of the sleep that
// the destructor has just made, moves it.
bool g_clockReplaced = false;
timespec g_clock = {};
int g_polls = 0;
std::function<void(int)> g_afterPoll;

void replaceClock(std::function<void(int)> i_afterPoll)
{
    g_afterPoll = i_afterPoll;
    g_clockReplaced = true;
}

void moveClock(long i_milliSeconds)
{
    g_clock.tv_sec += i_milliSeconds / 1000;
    g_clock.tv_nsec += i_milliSeconds % 1000 * 1000000;
    g_clock.tv_sec += g_clock.tv_nsec / 1000000000;
    g_clock.tv_nsec %= 1000000000;
}

// A thread that waits on a condition, is notified, and cannot leave before its
// mutex is given back to it.
class HeldWaiter
{
  public:
    HeldWaiter() : iv_Condition(new Condition), iv_Thread([this] { wait(); })
    {
        waitFor(
            [this]
            {
                const MutexLock l_lock(iv_Mutex);
                return iv_Waiting;
            });
    }

    ~HeldWaiter()
    {
        iv_Thread.join();
    }

    HeldWaiter(const HeldWaiter&) = delete;
    HeldWaiter& operator=(const HeldWaiter&) = delete;

    void notifyAndHold() TOLV_ACQUIRE(iv_Mutex)
    {
        iv_Mutex.Lock();
        iv_Condition->NotifyAll();
    }

    void letGo() TOLV_NO_THREAD_SAFETY_ANALYSIS
    {
        iv_Mutex.Unlock();
    }

    void destroyCondition()
    {
        delete iv_Condition;
    }

  private:
    void wait()
    {
        const MutexLock l_lock(iv_Mutex);
        iv_Waiting = true;
        iv_Condition->Wait(iv_Mutex);
    }

    Mutex iv_Mutex;
    bool iv_Waiting = false; // guarded by iv_Mutex
    Condition* iv_Condition;
    std::thread iv_Thread;
};

timespec deadlineFor(const TimeValue& i_deadline)
{
    Mutex l_mutex;
    Condition l_condition;
    const MutexLock l_lock(l_mutex);
    g_deadlines.clear();
    g_timedWaitResults = {0};
    l_condition.TimedWait(l_mutex, i_deadline);
    return g_deadlines.at(0);
}

TimeValue inSeconds(unsigned int i_seconds)
{
    TimeValue l_deadline(i_seconds);
    l_deadline.ConvertToAbsolute();
    return l_deadline;
}

} // namespace

extern "C"
{
    int __real_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
    int __real_pthread_cond_destroy(pthread_cond_t*);
    int __real_pthread_cond_signal(pthread_cond_t*);
    int __real_pthread_cond_broadcast(pthread_cond_t*);
    int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
    int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*,
                                      const timespec*);

    int __real_clock_gettime(clockid_t, timespec*);
    int __real_nanosleep(const timespec*, timespec*);

    int __wrap_clock_gettime(clockid_t i_clock, timespec* o_now)
    {
        if (g_clockReplaced && i_clock == CLOCK_MONOTONIC)
        {
            *o_now = g_clock;
            return 0;
        }
        return __real_clock_gettime(i_clock, o_now);
    }

    int __wrap_nanosleep(const timespec* i_span, timespec* o_left)
    {
        if (g_clockReplaced)
        {
            g_afterPoll(++g_polls);
            const timespec l_short = {0, 10000};
            return __real_nanosleep(&l_short, nullptr);
        }
        return __real_nanosleep(i_span, o_left);
    }

    int __wrap_pthread_cond_init(pthread_cond_t* io_cond,
                                 const pthread_condattr_t* i_attributes)
    {
        g_initAttributesGiven = i_attributes != nullptr;
        return g_initResult != 0
                   ? g_initResult
                   : __real_pthread_cond_init(io_cond, i_attributes);
    }

    int __wrap_pthread_cond_destroy(pthread_cond_t* io_cond)
    {
        return g_destroyResult != 0 ? g_destroyResult
                                    : __real_pthread_cond_destroy(io_cond);
    }

    int __wrap_pthread_cond_signal(pthread_cond_t* io_cond)
    {
        return g_signalResult != 0 ? g_signalResult
                                   : __real_pthread_cond_signal(io_cond);
    }

    int __wrap_pthread_cond_broadcast(pthread_cond_t* io_cond)
    {
        return g_broadcastResult != 0 ? g_broadcastResult
                                      : __real_pthread_cond_broadcast(io_cond);
    }

    int __wrap_pthread_cond_wait(pthread_cond_t* io_cond,
                                 pthread_mutex_t* io_mutex)
    {
        return g_waitResult != 0 ? g_waitResult
                                 : __real_pthread_cond_wait(io_cond, io_mutex);
    }

    int __wrap_pthread_cond_timedwait(pthread_cond_t* io_cond,
                                      pthread_mutex_t* io_mutex,
                                      const timespec* i_deadline)
    {
        if (g_timedWaitResults.empty())
        {
            ++g_realTimedWaits;
            return __real_pthread_cond_timedwait(io_cond, io_mutex, i_deadline);
        }
        g_deadlines.push_back(*i_deadline);
        const int l_result = g_timedWaitResults.front();
        g_timedWaitResults.erase(g_timedWaitResults.begin());
        return l_result;
    }
}

TEST(ConditionTest, HasDefaultAttributes)
{
    g_initAttributesGiven = true;
    const Condition l_condition;
    EXPECT_FALSE(g_initAttributesGiven);
}

TEST(ConditionTest, DeadlineIgnoresSubSecondPart)
{
    EXPECT_EQ(5, deadlineFor(TimeValue(5, 999999)).tv_sec);
    EXPECT_EQ(9999989, deadlineFor(TimeValue(5, 999999)).tv_nsec);
    EXPECT_EQ(3, deadlineFor(TimeValue(5, 0)).tv_nsec);
    EXPECT_EQ(9, deadlineFor(TimeValue(5, 1)).tv_nsec);
}

TEST(ConditionTest, LargestDeadlineLiesInTheFuture)
{
    const timespec l_deadline = deadlineFor(TimeValue(0xFFFFFFFFU, 0));
    if (sizeof(time_t) == 4)
    {
        EXPECT_EQ(std::numeric_limits<time_t>::max(), l_deadline.tv_sec);
    }
    else
    {
        EXPECT_EQ(0xFFFFFFFFU, l_deadline.tv_sec);
    }
}

TEST(ConditionTest, TimedWaitResumesAfterASignalWithTheSameDeadline)
{
    Mutex l_mutex;
    Condition l_condition;
    const MutexLock l_lock(l_mutex);
    g_timedWaitResults = {EINTR, EINTR, 0};
    EXPECT_FALSE(l_condition.TimedWait(l_mutex, TimeValue(7, 1)));
    ASSERT_EQ(3U, g_deadlines.size());
    for (const timespec& l_deadline : g_deadlines)
    {
        EXPECT_EQ(7, l_deadline.tv_sec);
        EXPECT_EQ(9, l_deadline.tv_nsec);
    }
}

TEST(ConditionTest, TimedWaitTellsATimeOutAfterASignal)
{
    Mutex l_mutex;
    Condition l_condition;
    const MutexLock l_lock(l_mutex);
    g_timedWaitResults = {EINTR, ETIMEDOUT};
    EXPECT_TRUE(l_condition.TimedWait(l_mutex, TimeValue(7, 1)));
}

TEST(ConditionTest, TimedWaitWithADeadlineInThePastTimesOutAtOnce)
{
    Mutex l_mutex;
    Condition l_condition;
    const MutexLock l_lock(l_mutex);
    EXPECT_TRUE(l_condition.TimedWait(l_mutex, TimeValue(1)));
}

TEST(ConditionTest, TimedWaitIsNotEndedByASignal)
{
    countSignals(SIGUSR1);

    Mutex l_mutex;
    Condition l_condition;
    bool l_notified = false; // guarded by l_mutex
    std::atomic<bool> l_returned(false);
    std::thread l_waiter(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            EXPECT_FALSE(l_condition.TimedWait(l_mutex, inSeconds(60)));
            EXPECT_TRUE(l_notified);
            l_returned = true;
        });
    ASSERT_TRUE(waitFor([] { return g_realTimedWaits == 1; }));
    // Sent until enough have arrived: the thread sanitizer may keep one back
    // that comes before the wait has quite begun.
    EXPECT_TRUE(waitFor(
        [&]
        {
            EXPECT_EQ(0, pthread_kill(l_waiter.native_handle(), SIGUSR1));
            return g_signals >= 20;
        }));
    {
        const MutexLock l_lock(l_mutex);
        EXPECT_FALSE(l_returned);
        l_notified = true;
        l_condition.NotifyOne();
    }
    l_waiter.join();
}

TEST(ConditionTest, NotifyOneWakesAWaiter)
{
    Mutex l_mutex;
    Condition l_condition;
    int l_waiting = 0; // guarded by l_mutex
    bool l_go = false;
    std::thread l_waiter(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            ++l_waiting;
            while (!l_go)
            {
                l_condition.Wait(l_mutex);
            }
        });
    ASSERT_TRUE(waitFor(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            return l_waiting == 1;
        }));
    {
        const MutexLock l_lock(l_mutex);
        l_go = true;
        l_condition.NotifyOne();
    }
    l_waiter.join();
}

TEST(ConditionTest, NotifyAllWakesEveryWaiter)
{
    constexpr int WAITERS = 4;
    Mutex l_mutex;
    Condition l_condition;
    int l_waiting = 0; // guarded by l_mutex
    bool l_go = false;
    std::vector<std::thread> l_waiters;
    for (int l_count = 0; l_count != WAITERS; ++l_count)
    {
        l_waiters.emplace_back(
            [&]
            {
                const MutexLock l_lock(l_mutex);
                ++l_waiting;
                while (!l_go)
                {
                    l_condition.Wait(l_mutex);
                }
            });
    }
    ASSERT_TRUE(waitFor(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            return l_waiting == WAITERS;
        }));
    {
        const MutexLock l_lock(l_mutex);
        l_go = true;
        l_condition.NotifyAll();
    }
    for (std::thread& l_waiter : l_waiters)
    {
        l_waiter.join();
    }
}

TEST(ConditionTest, DestructorLetsANotifiedWaiterLeave)
{
    Mutex l_mutex;
    alignas(Condition) unsigned char l_memory[sizeof(Condition)];
    Condition* l_condition = new (l_memory) Condition;
    bool l_waiting = false; // guarded by l_mutex
    bool l_go = false;
    std::thread l_waiter(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            l_waiting = true;
            while (!l_go)
            {
                l_condition->Wait(l_mutex);
            }
        });
    ASSERT_TRUE(waitFor(
        [&]
        {
            const MutexLock l_lock(l_mutex);
            return l_waiting;
        }));
    {
        const MutexLock l_lock(l_mutex);
        l_go = true;
        l_condition->NotifyAll();
    }
    l_condition->~Condition();
    l_waiter.join();
}

TEST(ConditionTest, DestructorGivesALeavingWaiterASecond)
TOLV_NO_THREAD_SAFETY_ANALYSIS
{
    HeldWaiter l_waiter;
    l_waiter.notifyAndHold();
    replaceClock(
        [&](int i_poll)
        {
            if (i_poll <= 999)
            {
                moveClock(1);
            }
            if (i_poll == 999)
            {
                l_waiter.letGo();
            }
        });
    l_waiter.destroyCondition();
    EXPECT_LE(999, g_polls);
}

TEST(ConditionTest, SignalsDoNotShortenThatSecond)
TOLV_NO_THREAD_SAFETY_ANALYSIS
{
    HeldWaiter l_waiter;
    l_waiter.notifyAndHold();
    replaceClock(
        [&](int i_poll)
        {
            if (i_poll == 5000) // each cut short: no time has passed
            {
                l_waiter.letGo();
            }
        });
    l_waiter.destroyCondition();
    EXPECT_LE(5000, g_polls);
}

TEST(ConditionDeathTest, FailingInitialisationFailsItsAssertion)
{
    const auto l_construct = []
    {
        g_initResult = ENOMEM;
        const Condition l_condition;
    };
    EXPECT_ASSERTION(l_construct(), SOURCE, 87, "tolv::Condition::Condition()",
                     "false");
}

TEST(ConditionDeathTest, FailingDestructionFailsItsAssertion)
{
    const auto l_destroy = []
    {
        const Condition l_condition;
        g_destroyResult = EBUSY;
    };
    EXPECT_ASSERTION(l_destroy(), SOURCE, 108, "tolv::Condition::~Condition()",
                     "false");
}

TEST(ConditionDeathTest, DestroyingItUnderAWaiterFailsItsAssertion)
{
    const auto l_destroy = []
    {
        Mutex l_mutex;
        bool l_waiting = false;
        Condition* l_condition = new Condition;
        std::thread l_waiter(
            [&]
            {
                const MutexLock l_lock(l_mutex);
                l_waiting = true;
                for (;;)
                {
                    l_condition->Wait(l_mutex);
                }
            });
        waitFor(
            [&]
            {
                const MutexLock l_lock(l_mutex);
                return l_waiting;
            });
        replaceClock(
            [](int i_poll)
            {
                moveClock(1);
                if (i_poll == 1100)
                {
                    _exit(1); // it waits too long
                }
            });
        delete l_condition;
        l_waiter.join();
    };
    EXPECT_ASSERTION(l_destroy(), SOURCE, 108, "tolv::Condition::~Condition()",
                     "false");
}

TEST(ConditionDeathTest, DestroyingItUnderATimedWaiterFailsItsAssertion)
{
    const auto l_destroy = []
    {
        Mutex l_mutex;
        Condition* l_condition = new Condition;
        std::thread l_waiter(
            [&]
            {
                const MutexLock l_lock(l_mutex);
                l_condition->TimedWait(l_mutex, inSeconds(60));
            });
        waitFor(
            [&]
            {
                const MutexLock l_lock(l_mutex);
                return g_realTimedWaits == 1;
            });
        delete l_condition;
        l_waiter.join();
    };
    EXPECT_ASSERTION(l_destroy(), SOURCE, 108, "tolv::Condition::~Condition()",
                     "false");
}

TEST(ConditionDeathTest, FailingNotifyOneFailsItsAssertion)
{
    const auto l_notify = []
    {
        Condition l_condition;
        g_signalResult = EINVAL;
        l_condition.NotifyOne();
    };
    EXPECT_ASSERTION(l_notify(), SOURCE, 133,
                     "void tolv::Condition::NotifyOne()", "false");
}

TEST(ConditionDeathTest, FailingNotifyAllFailsItsAssertion)
{
    const auto l_notify = []
    {
        Condition l_condition;
        g_broadcastResult = EINVAL;
        l_condition.NotifyAll();
    };
    EXPECT_ASSERTION(l_notify(), SOURCE, 157,
                     "void tolv::Condition::NotifyAll()", "false");
}

TEST(ConditionDeathTest, FailingWaitFailsItsAssertion)
{
    const auto l_wait = []
    {
        Mutex l_mutex;
        Condition l_condition;
        const MutexLock l_lock(l_mutex);
        g_waitResult = EPERM;
        l_condition.Wait(l_mutex);
    };
    EXPECT_ASSERTION(l_wait(), SOURCE, 188,
                     "void tolv::Condition::Wait(tolv::Mutex&)", "false");
}

TEST(ConditionDeathTest, FailingTimedWaitFailsItsAssertion)
{
    const auto l_wait = []
    {
        Mutex l_mutex;
        Condition l_condition;
        const MutexLock l_lock(l_mutex);
        g_timedWaitResults = {EINVAL};
        l_condition.TimedWait(l_mutex, TimeValue(7));
    };
    EXPECT_ASSERTION(l_wait(), SOURCE, 74,
                     "bool tolv::Condition::TimedWait(tolv::Mutex&, const "
                     "tolv::TimeValue&)",
                     "urc == 0 || urc == 110 || urc == 4");
}

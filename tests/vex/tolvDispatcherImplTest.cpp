#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "support/assertion.hpp"
#include "support/doomedEngine.hpp"
#include "support/engineTest.hpp"
#include "support/expectAbort.hpp"
#include "support/loopCalls.hpp"
#include "support/privateMember.hpp"
#include "support/virtualSlot.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvThPool.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(EnginePool, MTDispatcher, ThreadPool* const, iv_Pool);
TOLV_PRIVATE_MEMBER(PoolMinimum, ThreadPool, std::uint32_t, iv_MinThreads);
TOLV_PRIVATE_MEMBER(PoolMaximum, ThreadPool, std::uint32_t, iv_MaxThreads);
TOLV_PRIVATE_MEMBER(PoolRetires, ThreadPool, bool, iv_RetireIdle);
TOLV_PRIVATE_MEMBER(FinishedCond, MTDispatcher, Condition, iv_FinishedCond);
TOLV_PRIVATE_MEMBER(FinishedFlag, MTDispatcher, bool, iv_Finished);
TOLV_PRIVATE_MEMBER(FinishLock, MTDispatcher, Mutex, iv_FinishLock);

namespace
{

const char* const SOURCE = "tolv/vex/tolvDispatcherImpl";

std::atomic<int> g_kills(0); // calls of pthread_kill()
std::vector<pthread_t> g_killed;
std::vector<int> g_killResults; // in place of the calls

class DispatcherImplTest : public EngineTest
{
  protected:
    ThreadPool& pool()
    {
        return *(*iv_Engine.*get(EnginePool()));
    }

    void expectPool(std::uint32_t i_min, std::uint32_t i_max, bool i_retires)
    {
        EXPECT_EQ(i_min, pool().*get(PoolMinimum()));
        EXPECT_EQ(i_max, pool().*get(PoolMaximum()));
        EXPECT_EQ(i_retires, pool().*get(PoolRetires()));
        EXPECT_EQ(i_min, pool().getPoolDepth());
    }

    // A handler whose callback ends when the gate is open.
    RecordingHandler& heldHandler(Handler::ACTION i_answer)
    {
        RecordingHandler& l_handler = handler("held");
        l_handler.iv_OnRead = [=](OS_HANDLE)
        {
            iv_Gate.pass();
            return i_answer;
        };
        return l_handler;
    }
};

} // namespace

extern "C"
{
    int __real_pthread_kill(pthread_t, int);

    int __wrap_pthread_kill(pthread_t i_thread, int i_signal)
    {
        g_killed.push_back(i_thread);
        const auto l_call = static_cast<std::size_t>(g_kills++);
        return l_call < g_killResults.size()
                   ? g_killResults[l_call]
                   : __real_pthread_kill(i_thread, i_signal);
    }
}

// --- construction

TEST_F(DispatcherImplTest, MinimumIsNeverAboveTheMaximum)
{
    start(5, 2, true);
    expectPool(2, 2, true);
}

TEST_F(DispatcherImplTest, NoThreadsCountAsOne)
{
    start(0, 0, true);
    expectPool(1, 1, false);
}

TEST_F(DispatcherImplTest, NoMinimumCountsAsOne)
{
    start(0, 3);
    expectPool(1, 3, false);
}

TEST_F(DispatcherImplTest, NoMaximumCountsAsOneWhateverTheMinimum)
{
    start(4, 0);
    expectPool(1, 1, false);
}

TEST_F(DispatcherImplTest, ThreadsRetireAsToldWhenThereMayBeMore)
{
    start(2, 3, true);
    expectPool(2, 3, true);
}

TEST_F(DispatcherImplTest, OneThreadNeverRetires)
{
    start(1, 1, true);
    expectPool(1, 1, false);
}

TEST_F(DispatcherImplTest, LoopRunsFromTheStart)
{
    start();
    EXPECT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SELECT));
    EXPECT_FALSE(loopCalls::hadTimeOut());
    EXPECT_EQ(loopCalls::lastPair().handles[1] + 1, loopCalls::lastSize());
}

TEST_F(DispatcherImplTest, WakeUpPairIsOfTheUnixDomainAndClosedOnExec)
{
    start();
    const loopCalls::Pair l_pair = loopCalls::lastPair();
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SOCKETPAIR));
    EXPECT_EQ(AF_UNIX, l_pair.domain);
    EXPECT_EQ(SOCK_STREAM, l_pair.type);
    EXPECT_EQ(0, l_pair.protocol);
    EXPECT_EQ(FD_CLOEXEC, fcntl(l_pair.handles[0], F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, fcntl(l_pair.handles[1], F_GETFD));
}

TEST(DispatcherImplSlotTest, DumpFollowsThoseOfThePrivateBase)
{
    static_assert(std::is_base_of<Base, MTDispatcher>::value, "derived");
    static_assert(!std::is_convertible<MTDispatcher*, Base*>::value,
                  "privately");
    EXPECT_EQ(4U, virtualSlot(&MTDispatcher::Dump));
    EXPECT_EQ(5U, virtualSlots<MTDispatcher>());
}

TEST_F(DispatcherImplTest, DumpPrintsNothing)
{
    start();
    char* l_text = nullptr;
    size_t l_length = 0;
    FILE* const l_stream = open_memstream(&l_text, &l_length);
    iv_Engine->Dump(l_stream);
    fclose(l_stream);
    EXPECT_EQ(0U, l_length);
    free(l_text);
}

// --- registration

TEST_F(DispatcherImplTest, HandlerIsCalledWhenItsDescriptorIsReadable)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(Calls(), iv_Log.calls());
    EXPECT_EQ(std::max(l_pipe.handle(), loopCalls::lastPair().handles[1]) + 1,
              loopCalls::lastSize());
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("a", l_pipe)}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, AnyMaskIsWatchedForReadingOnly)
{
    start();
    RecordingHandler& l_handler = handler("a");
    for (const EVENT_MASK l_mask : {0U, 2U, 32U, 0xFFFFFFFFU})
    {
        const Pipe& l_pipe = addPipe();
        iv_Log.clear();
        iv_Engine->Register(l_pipe.handle(), l_handler, l_mask);
        l_pipe.write();
        ASSERT_TRUE(iv_Log.waitForCalls(1));
        ASSERT_TRUE(loopCalls::waitForIdle());
        EXPECT_EQ((Calls{read("a", l_pipe)}), iv_Log.calls());
    }
}

TEST_F(DispatcherImplTest, RegisterAndUnregisterWakeTheLoopOnce)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SEND));
    iv_Engine->Unregister(l_pipe.handle());
    EXPECT_EQ(2, loopCalls::calls(loopCalls::SEND));
}

TEST_F(DispatcherImplTest, DescriptorUnregisteredIsNotCalled)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    iv_Engine->Unregister(l_pipe.handle());
    l_pipe.write();
    ASSERT_TRUE(loopCalls::waitForIdle());
    finish();
    EXPECT_EQ(Calls(), iv_Log.calls());
}

TEST_F(DispatcherImplTest, DescriptorCanBeRegisteredAgainAfterItsEnd)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    iv_Engine->Unregister(l_pipe.handle());
    add(l_pipe, handler("b"));
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ((Calls{read("b", l_pipe)}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, UnknownDescriptorUnregisteredIsIgnored)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    for (const OS_HANDLE l_handle : {900, 0, OS_INVALID, 1024, 1000000})
    {
        iv_Engine->Unregister(l_handle);
    }
    EXPECT_EQ(0, loopCalls::calls(loopCalls::SEND));
}

TEST_F(DispatcherImplTest, UnknownDescriptorEnabledOnlyWakes)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    const int l_sent = loopCalls::calls(loopCalls::SEND);
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    iv_Engine->EnableCallback(OS_HANDLE(900));
    EXPECT_EQ(l_sent + 1, loopCalls::calls(loopCalls::SEND));
    ASSERT_TRUE(waitFor(
        [=] { return loopCalls::calls(loopCalls::SELECT) == l_waits + 1; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(l_waits + 1, loopCalls::calls(loopCalls::SELECT));
    EXPECT_EQ(Calls(), iv_Log.calls());
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, DescriptorEnabledInItsOwnCallbackIsServedAfterIt)
{
    start();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnRead = [this](OS_HANDLE i_handle)
    {
        iv_Engine->EnableCallback(i_handle);
        return Handler::ACTION_CONTINUE;
    };
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write(3);
    ASSERT_TRUE(iv_Log.waitForCalls(3));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(3U, iv_Log.calls().size());
}

TEST_F(DispatcherImplTest, HighestDescriptorIs1023)
{
    rlimit l_limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_limit));
    if (l_limit.rlim_max < 1024)
    {
        GTEST_SKIP() << "no more than " << l_limit.rlim_max << " descriptors";
    }
    l_limit.rlim_cur = std::max<rlim_t>(l_limit.rlim_cur, 1024);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_limit));
    start();
    Pipe& l_pipe = addPipe();
    l_pipe.moveTo(1023);
    add(l_pipe, handler("a"));
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ((Calls{{"a", 1023, 2}}), iv_Log.calls());
    EXPECT_EQ(1024, loopCalls::lastSize());
}

TEST_F(DispatcherImplTest, NumberOfABusyRemovedDescriptorIsFreeAgain)
{
    start();
    Pipe& l_old = addPipe(heldHandler(Handler::ACTION_CONTINUE));
    Pipe& l_new = addPipe();
    const OS_HANDLE l_handle = l_old.handle();
    l_old.write(2);
    ASSERT_TRUE(iv_Gate.waitForArrived());
    iv_Engine->Unregister(l_handle);
    l_old.close();
    l_new.moveTo(l_handle);
    add(l_new, handler("new"));
    l_new.write(2);
    iv_Gate.open();
    ASSERT_TRUE(iv_Log.waitForCalls(3));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(
        (Calls{read("held", l_new), read("new", l_new), read("new", l_new)}),
        iv_Log.calls());
}

TEST_F(DispatcherImplTest, DescriptorUnregisteredDuringItsCallbackIsForgotten)
{
    start();
    RecordingHandler& l_handler = heldHandler(Handler::ACTION_CONTINUE);
    const Pipe& l_pipe = addPipe(l_handler);
    const Pipe& l_other = addPipe(l_handler);
    l_pipe.write(2);
    ASSERT_TRUE(iv_Gate.waitForArrived());
    iv_Engine->Unregister(l_pipe.handle());
    iv_Gate.open();
    l_other.write();
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("held", l_pipe), read("held", l_other)}),
              iv_Log.calls());
}

TEST_F(DispatcherImplTest, ReusedNumberIsNotCalledForTheOldReadiness)
{
    start();
    Pipe& l_old = addPipe(handler("old"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::holdAfter();
    l_old.write();
    ASSERT_TRUE(loopCalls::waitForHeld());
    Pipe& l_new = addPipe();
    const OS_HANDLE l_handle = l_old.handle();
    iv_Engine->Unregister(l_handle);
    l_old.close();
    l_new.moveTo(l_handle);
    add(l_new, handler("new"));
    loopCalls::letGo();
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(Calls(), iv_Log.calls());
    l_new.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ((Calls{read("new", l_new)}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, DescriptorUnregisteredAfterTheWaitIsNotCalled)
{
    start();
    Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::holdAfter();
    l_pipe.write();
    ASSERT_TRUE(loopCalls::waitForHeld());
    iv_Engine->Unregister(l_pipe.handle());
    loopCalls::letGo();
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(Calls(), iv_Log.calls());
}

// --- signals

TEST_F(DispatcherImplTest, SignalIsSentToEveryThreadInOrderAndTheLastCounts)
{
    start(3, 3);
    g_killResults = {5, 6, 7};
    EXPECT_EQ(7, iv_Engine->RaiseSignal(SIGUSR1));
    ASSERT_EQ(3U, g_killed.size());
    EXPECT_EQ(3U, std::set<pthread_t>(g_killed.begin(), g_killed.end()).size());
    const std::vector<pthread_t> l_order = g_killed;
    g_killResults.clear();
    EXPECT_EQ(0, iv_Engine->RaiseSignal(0));
    EXPECT_EQ(l_order,
              std::vector<pthread_t>(g_killed.begin() + 3, g_killed.end()));
}

TEST_F(DispatcherImplTest, UnknownSignalIsTheResultOfTheCall)
{
    start();
    EXPECT_EQ(EINVAL, iv_Engine->RaiseSignal(10000));
}

TEST_F(DispatcherImplTest, SignalWithoutThreadsIsAnError)
{
    start();
    EXPECT_FALSE(iv_Engine->Shutdown(20));
    EXPECT_EQ(-1, iv_Engine->RaiseSignal(SIGUSR1));
    EXPECT_EQ(0, g_kills);
    iv_Finished = true;
    iv_Engine->Finish();
}

// --- ProcessEvents()

TEST_F(DispatcherImplTest, ProcessEventsWaitsForTheTeardown)
{
    start();
    std::atomic<bool> l_back(false);
    std::thread l_caller(
        [&]
        {
            iv_Engine->ProcessEvents();
            l_back = true;
        });
    const Pipe& l_pipe = addPipe(handler("a"));
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ(1U, pool().getPoolDepth());
    EXPECT_FALSE(iv_Engine->Shutdown(20));
    EXPECT_FALSE(l_back);
    iv_Finished = true;
    iv_Engine->Finish();
    l_caller.join();
}

TEST_F(DispatcherImplTest, ProcessEventsServesWhileThereMayBeMoreThreads)
{
    start(1, 2);
    std::thread l_caller([this] { iv_Engine->ProcessEvents(); });
    EXPECT_TRUE(waitFor([this] { return pool().getPoolDepth() == 2; }));
    finish();
    l_caller.join();
}

TEST_F(DispatcherImplTest, ProcessEventsReturnsAtOnceAfterTheTeardown)
{
    start();
    finish();
    iv_Engine->ProcessEvents();
}

TEST_F(DispatcherImplTest, ProcessEventsWaitsOnce)
{
    start();
    EXPECT_FALSE(iv_Engine->Shutdown(20));
    std::atomic<bool> l_back(false);
    std::thread l_caller(
        [&]
        {
            iv_Engine->ProcessEvents();
            l_back = true;
        });
    MTDispatcher& l_engine = *iv_Engine;
    EXPECT_TRUE(waitFor(
        [&]
        {
            // What ends the wait is no teardown.
            Mutex& l_mutex = l_engine.*get(FinishLock());
            const MutexLock l_lock(l_mutex);
            (l_engine.*get(FinishedCond())).NotifyAll();
            return l_back.load();
        }));
    l_caller.join();
    EXPECT_FALSE(l_engine.*get(FinishedFlag()));
    iv_Finished = true;
    iv_Engine->Finish();
}

// --- what ends the process

TEST(DispatcherImplDeathTest, DescriptorRegisteredTwiceForOneHandlerAborts)
{
    EXPECT_ABORT({
        Doomed l_doomed;
        RecordingHandler& l_handler = l_doomed.newHandler();
        l_doomed.engine.Register(0, l_handler, 0);
        l_doomed.engine.Register(0, l_handler, 0);
    });
}

TEST(DispatcherImplDeathTest, DescriptorRegisteredTwiceForTwoHandlersAborts)
{
    EXPECT_ABORT({
        Doomed l_doomed;
        l_doomed.engine.Register(0, l_doomed.newHandler(), 0);
        l_doomed.engine.Register(0, l_doomed.newHandler(), 0);
    });
}

TEST(DispatcherImplDeathTest, DescriptorRegisteredTwiceDuringAShutdownAborts)
{
    EXPECT_ABORT({
        Doomed l_doomed;
        l_doomed.engine.Shutdown(20);
        l_doomed.engine.Register(0, l_doomed.newHandler(), 0);
        l_doomed.engine.Register(0, l_doomed.newHandler(), 0);
    });
}

TEST(DispatcherImplDeathTest, DescriptorBelowZeroAborts)
{
    EXPECT_ABORT({
        Doomed l_doomed;
        l_doomed.engine.Register(-1, l_doomed.newHandler(), 0);
    });
}

TEST(DispatcherImplDeathTest, DescriptorThatSelectCannotHoldAborts)
{
    EXPECT_ABORT({
        Doomed l_doomed;
        l_doomed.engine.Register(1024, l_doomed.newHandler(), 0);
    });
}

TEST(DispatcherImplDeathTest, NoWakeUpPairFails)
{
    EXPECT_ASSERTION(
        {
            loopCalls::answer(loopCalls::SOCKETPAIR, -1, EMFILE);
            const MTDispatcher l_engine(1, 1, false);
        },
        SOURCE, 90,
        "tolv::MTDispatcher::MTDispatcher(uint32_t, uint32_t, bool)",
        "0 == socketpair( 1, SOCK_STREAM, 0, &iv_Outgoing )");
}

TEST(DispatcherImplDeathTest, WakeUpPairThatSelectCannotHoldAborts)
{
    rlimit l_limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_limit));
    if (l_limit.rlim_max < 1100)
    {
        GTEST_SKIP() << "no more than " << l_limit.rlim_max << " descriptors";
    }
    EXPECT_ABORT({
        l_limit.rlim_cur = 1100;
        setrlimit(RLIMIT_NOFILE, &l_limit);
        int l_highest = 0;
        while (l_highest != -1 && l_highest < 1022)
        {
            l_highest = dup(STDIN_FILENO);
        }
        const MTDispatcher l_engine(1, 1, false); // has 1023 and 1024
    });
}

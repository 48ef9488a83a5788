#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "support/assertion.hpp"
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
#include <functional>
#include <memory>
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
const char* const INTERRUPT = "void tolv::MTDispatcher::Interrupt()";
const char* const SERVICE_PIPE = "void tolv::MTDispatcher::ServicePipe()";
const char* const THREAD_MAIN = "void tolv::MTDispatcher::ThreadMain()";
const char* const ONE_BYTE = "l_urc == sizeof(tmp)";

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

    // Two handlers whose descriptors are ready at once; what the first one
    // does ends the pass or not.
    void
    expectPassEnds(bool i_ends,
                   const std::function<Handler::ACTION(OS_HANDLE)>& i_onRead)
    {
        RecordingHandler& l_first = handler("first");
        RecordingHandler& l_second = handler("second");
        const Pipe& l_one = addPipe(l_first);
        const Pipe& l_two = addPipe(l_second);
        l_first.iv_OnRead = i_onRead;
        writeAtOnce({&l_one, &l_two});
        ASSERT_TRUE(iv_Log.waitForCalls(2));
        EXPECT_EQ((Calls{read("first", l_one), read("second", l_two)}),
                  iv_Log.calls());
        EXPECT_EQ((std::vector<int>{0, i_ends ? 1 : 0}), iv_Log.waits());
        finish(); // before what the callback uses goes
    }
};

// In a process that is to die from what the engine's thread does.
[[noreturn]] void waitForTheEnd()
{
    waitFor([] { return false; });
    _exit(0);
}

// The engine of a process that is to die; nothing of it is destroyed.
struct Doomed
{
    Doomed() : engine(*new MTDispatcher(1, 1, false))
    {
        EXPECT_TRUE(loopCalls::waitForIdle());
    }

    RecordingHandler& newHandler()
    {
        return *new RecordingHandler(*new Dispatcher(false), *new CallLog, "");
    }

    MTDispatcher& engine;
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

// --- answers of HandleEvent()

class DispatcherImplAnswerTest : public DispatcherImplTest,
                                 public testing::WithParamInterface<int>
{
};

TEST_P(DispatcherImplAnswerTest, CarriesOn)
{
    start();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnRead = [](OS_HANDLE)
    { return static_cast<Handler::ACTION>(GetParam()); };
    const Pipe& l_pipe = addPipe(l_handler);
    const Pipe& l_idle = addPipe(handler("b"));
    l_pipe.write(2);
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("a", l_pipe), read("a", l_pipe)}), iv_Log.calls());
    iv_Log.clear();
    finish(); // both are registered still
    EXPECT_EQ(
        (Calls{shutdown("a", l_pipe.handle()), shutdown("b", l_idle.handle())}),
        iv_Log.calls());
}

INSTANTIATE_TEST_SUITE_P(ContinueRefreshAndUnknownAnswers,
                         DispatcherImplAnswerTest,
                         testing::Values(0, 1, 2, 3, 5, 6, 7, 9, 10, 12, 15));

TEST_F(DispatcherImplTest, DescriptorThatAnswersUnregisterIsForgotten)
{
    start();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnRead = [](OS_HANDLE) { return Handler::ACTION_UNREGISTER; };
    const Pipe& l_pipe = addPipe(l_handler);
    const Pipe& l_other = addPipe(l_handler);
    const Timer_t l_timer = addTimer(l_handler, 1000);
    l_pipe.write(2);
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    l_other.write(2);
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("a", l_pipe), read("a", l_other)}), iv_Log.calls());
    EXPECT_TRUE(iv_Engine->ExpireTimer(l_timer));
}

TEST_F(DispatcherImplTest, HandlerThatAnswersRemoveForItsOnlyDescriptorGoes)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [](OS_HANDLE) { return Handler::ACTION_REMOVE; };
    const Timer_t l_timer = addTimer(l_handler, 1000);
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write(2);
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_FALSE(iv_Engine->ExpireTimer(l_timer));
    finish();
    EXPECT_EQ((Calls{read("a", l_pipe)}), iv_Log.calls());
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherImplTest, AnswerThatEndsARegistrationWakesTheLoopOnce)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    const Pipe& l_unregistered = addPipe(l_handler);
    const Pipe& l_one = addPipe(l_handler);
    const Pipe& l_last = addPipe(l_handler);
    const OS_HANDLE l_first = l_unregistered.handle();
    l_handler.iv_OnRead = [=](OS_HANDLE i_handle)
    {
        return i_handle == l_first ? Handler::ACTION_UNREGISTER
                                   : Handler::ACTION_REMOVE;
    };
    std::size_t l_calls = 0;
    for (const Pipe* l_pipe : {&l_unregistered, &l_one, &l_last})
    {
        ASSERT_TRUE(loopCalls::waitForIdle());
        const int l_sent = loopCalls::calls(loopCalls::SEND);
        l_pipe->write();
        ASSERT_TRUE(iv_Log.waitForCalls(++l_calls));
        ASSERT_TRUE(loopCalls::waitForIdle());
        EXPECT_EQ(l_sent + 1, loopCalls::calls(loopCalls::SEND));
    }
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherImplTest, RemoveForOneOfTwoDescriptorsDropsOnlyThatOne)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [](OS_HANDLE) { return Handler::ACTION_REMOVE; };
    const Pipe& l_one = addPipe(l_handler);
    const Pipe& l_two = addPipe(l_handler);
    const Timer_t l_timer = addTimer(l_handler, 1000);
    l_one.write(2);
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(0, iv_Destroyed);
    EXPECT_TRUE(iv_Engine->ExpireTimer(l_timer));
    l_two.write();
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
    EXPECT_EQ((Calls{read("a", l_one), read("a", l_two)}), iv_Log.calls());
    EXPECT_FALSE(iv_Engine->ExpireTimer(l_timer));
}

TEST_F(DispatcherImplTest, RemoveAfterUnregisterInTheSameCallbackRemoves)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [this](OS_HANDLE i_handle)
    {
        iv_Engine->Unregister(i_handle);
        return Handler::ACTION_REMOVE;
    };
    addPipe(l_handler).write();
    EXPECT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
}

TEST_F(DispatcherImplTest, RemoveAfterUnregisterOfOneOfTwoDropsOnlyThatOne)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [this](OS_HANDLE i_handle)
    {
        iv_Engine->Unregister(i_handle);
        return Handler::ACTION_REMOVE;
    };
    const Pipe& l_one = addPipe(l_handler);
    const Pipe& l_two = addPipe(l_handler);
    l_one.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(0, iv_Destroyed);
    l_two.write();
    EXPECT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
}

TEST_F(DispatcherImplTest, RemoveAfterUnregisterOfTheOtherDescriptorRemoves)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    const Pipe& l_one = addPipe(l_handler);
    const OS_HANDLE l_two = addPipe(l_handler).handle();
    l_handler.iv_OnRead = [=](OS_HANDLE)
    {
        iv_Engine->Unregister(l_two);
        return Handler::ACTION_REMOVE;
    };
    l_one.write();
    EXPECT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
}

TEST_F(DispatcherImplTest, RemoveAfterRegisterOfAnotherDescriptorDropsOnlyOne)
{
    start();
    RecordingHandler& l_handler = ownedHandler("a");
    const Pipe& l_two = addPipe();
    const Pipe& l_one = addPipe(l_handler);
    const OS_HANDLE l_first = l_one.handle();
    l_handler.iv_OnRead = [&, l_first](OS_HANDLE i_handle)
    {
        if (i_handle == l_first)
        {
            add(l_two, l_handler);
        }
        return Handler::ACTION_REMOVE;
    };
    l_one.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(0, iv_Destroyed);
    l_two.write();
    EXPECT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
}

TEST_F(DispatcherImplTest, HandlerRemovedByItsTimerIsNotCalledForReadyEvents)
{
    start();
    hold();
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnTick = [](Timer_t) { return Handler::ACTION_REMOVE; };
    const Timer_t l_timer = addTimer(l_handler, 0);
    addTimer(l_handler, 0);
    addPipe(l_handler).write();
    addPipe(l_handler).write();
    loopCalls::letGo();
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{{"a", l_timer, 128}}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, RefreshFromATimerCallsEveryDescriptorOfEveryHandler)
{
    start();
    RecordingHandler& l_a = handler("a");
    RecordingHandler& l_b = handler("b");
    const OS_HANDLE l_one = addPipe(l_a).handle();
    const OS_HANDLE l_two = addPipe(l_b).handle();
    const OS_HANDLE l_three = addPipe(l_a).handle();
    int l_ticks = 0;
    l_b.iv_OnTick = [&](Timer_t)
    {
        return ++l_ticks == 1 ? Handler::ACTION_REFRESH
                              : Handler::ACTION_UNREGISTER;
    };
    const Timer_t l_timer = addTimer(l_b, 0);
    ASSERT_TRUE(iv_Log.waitForCalls(5));
    EXPECT_EQ((Calls{{"b", l_timer, 128},
                     {"a", l_one, 32},
                     {"a", l_three, 32},
                     {"b", l_two, 32},
                     {"b", l_timer, 128}}),
              iv_Log.calls());
}

// --- order

TEST_F(DispatcherImplTest, HandlersAreServedInOrderOfFirstRegistrationOnceAPass)
{
    start();
    const Pipe& l_low = addPipe();
    const Pipe& l_middle = addPipe();
    const Pipe& l_high = addPipe();
    RecordingHandler& l_first = handler("first");
    RecordingHandler& l_second = handler("second");
    add(l_high, l_first);
    add(l_low, l_second);
    add(l_middle, l_first);
    writeAtOnce({&l_low, &l_middle, &l_high});
    ASSERT_TRUE(iv_Log.waitForCalls(3));
    EXPECT_EQ((Calls{read("first", l_high), read("second", l_low),
                     read("first", l_middle)}),
              iv_Log.calls());
    EXPECT_EQ((std::vector<int>{0, 0, 1}), iv_Log.waits());
}

TEST_F(DispatcherImplTest, RecordsAreServedInOrderOfRegistration)
{
    start();
    const Pipe& l_low = addPipe();
    const Pipe& l_high = addPipe();
    RecordingHandler& l_handler = handler("a");
    add(l_high, l_handler);
    add(l_low, l_handler);
    writeAtOnce({&l_high, &l_high, &l_low});
    ASSERT_TRUE(iv_Log.waitForCalls(3));
    EXPECT_EQ((Calls{read("a", l_high), read("a", l_high), read("a", l_low)}),
              iv_Log.calls());
    EXPECT_EQ((std::vector<int>{0, 1, 2}), iv_Log.waits());
}

TEST_F(DispatcherImplTest, RegisterInACallbackEndsThePass)
{
    start();
    const Pipe& l_new = addPipe();
    RecordingHandler& l_handler = handler("new");
    expectPassEnds(true,
                   [&](OS_HANDLE)
                   {
                       add(l_new, l_handler);
                       return Handler::ACTION_CONTINUE;
                   });
}

TEST_F(DispatcherImplTest, UnregisterInACallbackEndsThePass)
{
    start();
    const Pipe& l_other = addPipe(handler("other"));
    expectPassEnds(true,
                   [&](OS_HANDLE)
                   {
                       iv_Engine->Unregister(l_other.handle());
                       return Handler::ACTION_CONTINUE;
                   });
}

TEST_F(DispatcherImplTest, UnregisterOfItsOwnDescriptorEndsThePass)
{
    start();
    expectPassEnds(true,
                   [&](OS_HANDLE i_handle)
                   {
                       iv_Engine->Unregister(i_handle);
                       return Handler::ACTION_CONTINUE;
                   });
}

TEST_F(DispatcherImplTest, RegisterByAnotherThreadDuringACallbackEndsThePass)
{
    start();
    const Pipe& l_new = addPipe();
    RecordingHandler& l_handler = handler("new");
    expectPassEnds(true,
                   [&](OS_HANDLE)
                   {
                       std::thread l_other([&] { add(l_new, l_handler); });
                       l_other.join();
                       return Handler::ACTION_CONTINUE;
                   });
}

TEST_F(DispatcherImplTest, ChangeBeforeThePassDoesNotEndIt)
{
    start();
    const Pipe& l_new = addPipe();
    RecordingHandler& l_first = handler("first");
    const Pipe& l_one = addPipe(l_first);
    const Pipe& l_two = addPipe(handler("second"));
    std::atomic<int> l_waits(0);
    l_first.iv_OnRead = [&](OS_HANDLE)
    {
        l_waits = loopCalls::calls(loopCalls::SELECT);
        return Handler::ACTION_CONTINUE;
    };
    hold();
    l_one.write();
    l_two.write();
    add(l_new, handler("new"));
    const int l_held = loopCalls::calls(loopCalls::SELECT);
    loopCalls::letGo();
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    EXPECT_EQ(l_held, l_waits);
    EXPECT_EQ((std::vector<int>{0, 0}), iv_Log.waits());
    finish(); // before what the callback uses goes
}

TEST_F(DispatcherImplTest, AnswersDoNotEndThePass)
{
    start();
    expectPassEnds(false, [](OS_HANDLE) { return Handler::ACTION_UNREGISTER; });
}

TEST_F(DispatcherImplTest, EnableAndTimersDoNotEndThePass)
{
    start();
    RecordingHandler& l_handler = handler("timers");
    expectPassEnds(false,
                   [&](OS_HANDLE i_handle)
                   {
                       const Timer_t l_timer = addTimer(l_handler, 1000);
                       iv_Engine->EnableCallback(i_handle);
                       iv_Engine->EnableCallback(l_timer);
                       OS_TIMEOUT l_timeOut(2000);
                       iv_Engine->UpdateTimer(l_handler, l_timer, l_timeOut);
                       iv_Engine->CancelTimer(l_timer);
                       iv_Engine->Unregister(1000); // unknown
                       return Handler::ACTION_CONTINUE;
                   });
}

TEST_F(DispatcherImplTest, HandlerRemovedDoesNotEndThePass)
{
    start();
    RecordingHandler& l_first = ownedHandler("first");
    l_first.iv_OnRead = [](OS_HANDLE) { return Handler::ACTION_REMOVE; };
    const Pipe& l_one = addPipe(l_first);
    const Pipe& l_two = addPipe(handler("second"));
    writeAtOnce({&l_one, &l_two});
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    EXPECT_EQ((Calls{read("first", l_one), read("second", l_two)}),
              iv_Log.calls());
    EXPECT_EQ((std::vector<int>{0, 0}), iv_Log.waits());
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherImplTest, ReadyDescriptorUnregisteredInThePassIsNotServed)
{
    start();
    RecordingHandler& l_first = handler("first");
    const Pipe& l_one = addPipe(l_first);
    const Pipe& l_two = addPipe(handler("second"));
    l_first.iv_OnRead = [&](OS_HANDLE)
    {
        iv_Engine->Unregister(l_two.handle());
        return Handler::ACTION_CONTINUE;
    };
    writeAtOnce({&l_one, &l_two});
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("first", l_one)}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, DueTimerIsServedBeforeReadyDescriptorsAndAlone)
{
    start();
    RecordingHandler& l_handler = handler("a");
    int l_drained[2] = {0, 0};
    l_handler.iv_OnTick = [&](Timer_t)
    {
        l_drained[0] = loopCalls::calls(loopCalls::RECV);
        return Handler::ACTION_UNREGISTER;
    };
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        l_drained[1] = loopCalls::calls(loopCalls::RECV);
        return Handler::ACTION_CONTINUE;
    };
    hold();
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    const Timer_t l_timer = addTimer(l_handler, 0);
    loopCalls::letGo();
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{{"a", l_timer, 128}, read("a", l_pipe)}), iv_Log.calls());
    EXPECT_EQ((std::vector<int>{0, 1}), iv_Log.waits());
    EXPECT_EQ(l_drained[0] + 1, l_drained[1]); // nor was the wake-up served
}

TEST_F(DispatcherImplTest, TimerThatIsNotDueLeavesDescriptorsServed)
{
    start();
    RecordingHandler& l_handler = handler("a");
    const Timer_t l_timer = addTimer(l_handler, 1000);
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("a", l_pipe)}), iv_Log.calls());
    EXPECT_TRUE(loopCalls::hadTimeOut());
    iv_Engine->CancelTimer(l_timer);
    ASSERT_TRUE(waitFor([] { return !loopCalls::hadTimeOut(); }));
}

TEST_F(DispatcherImplTest, NothingIsServedAfterTheShutdownBegan)
{
    start();
    const Pipe& l_one = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::holdAfter();
    l_one.write();
    ASSERT_TRUE(loopCalls::waitForHeld());
    EXPECT_TRUE(iv_Engine->Shutdown(0)); // the loop is held
    loopCalls::letGo();
    finish();
    EXPECT_EQ((Calls{shutdown("a", l_one.handle())}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, ShutdownInACallbackEndsThePass)
{
    start();
    RecordingHandler& l_first = handler("first");
    const Pipe& l_one = addPipe(l_first);
    const Pipe& l_two = addPipe(handler("second"));
    l_first.iv_OnRead = [this](OS_HANDLE)
    {
        EXPECT_TRUE(iv_Engine->Shutdown(0)); // waits for its own thread
        return Handler::ACTION_CONTINUE;
    };
    writeAtOnce({&l_one, &l_two});
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    finish();
    EXPECT_EQ((Calls{read("first", l_one), shutdown("first", l_one.handle()),
                     shutdown("second", l_two.handle())}),
              iv_Log.calls());
}

// --- wake-up bytes

TEST_F(DispatcherImplTest, WakeUpIsOneZeroByteThatDoesNotBlock)
{
    start();
    wake();
    const loopCalls::Transfer l_send = loopCalls::lastSend();
    EXPECT_EQ(loopCalls::lastPair().handles[0], l_send.handle);
    EXPECT_EQ(1U, l_send.length);
    EXPECT_EQ(0, l_send.byte);
    EXPECT_EQ(MSG_NOSIGNAL | MSG_DONTWAIT, l_send.flags);
}

TEST_F(DispatcherImplTest, WakeUpIsReceivedAsOneByte)
{
    start();
    wake();
    ASSERT_TRUE(waitFor([] { return loopCalls::calls(loopCalls::RECV) == 1; }));
    const loopCalls::Transfer l_recv = loopCalls::lastRecv();
    EXPECT_EQ(loopCalls::lastPair().handles[1], l_recv.handle);
    EXPECT_EQ(1U, l_recv.length);
    EXPECT_EQ(MSG_WAITALL | MSG_NOSIGNAL, l_recv.flags);
}

TEST_F(DispatcherImplTest, EveryWakeUpCausesAPassOfItsOwn)
{
    start();
    hold(); // sends the first one
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    const int l_received = loopCalls::calls(loopCalls::RECV);
    for (int l_count = 0; l_count != 5; ++l_count)
    {
        wake();
    }
    loopCalls::letGo();
    ASSERT_TRUE(waitFor(
        [=] { return loopCalls::calls(loopCalls::RECV) == l_received + 5; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(l_received + 5, loopCalls::calls(loopCalls::RECV));
    EXPECT_EQ(l_waits + 5, loopCalls::calls(loopCalls::SELECT));
}

TEST_F(DispatcherImplTest, InterruptedWakeUpIsSentAgain)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SEND, -1, EINTR, 3);
    const Pipe& l_pipe = addPipe(handler("a"));
    EXPECT_EQ(4, loopCalls::calls(loopCalls::SEND));
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, WakeUpThatDoesNotFitCountsAsSent)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SEND, -1, EAGAIN);
    wake();
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SEND));
}

TEST_F(DispatcherImplTest, InterruptedReceptionIsRepeated)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::RECV, -1, EINTR, 3);
    wake();
    ASSERT_TRUE(waitFor([] { return loopCalls::calls(loopCalls::RECV) == 4; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(4, loopCalls::calls(loopCalls::RECV));
}

TEST_F(DispatcherImplTest, CallbackThatAddsTimersByTheHundredDoesNotHang)
{
    start();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        for (int l_count = 0; l_count != 1000; ++l_count)
        {
            addTimer(l_handler, 1000);
        }
        return Handler::ACTION_CONTINUE;
    };
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_LT(0, loopCalls::failures(loopCalls::SEND, EAGAIN));
    iv_Log.clear();
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, CallbackThatRegistersByTheHundredDoesNotHang)
{
    start();
    RecordingHandler& l_handler = handler("a");
    const Pipe& l_many = addPipe();
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        for (int l_count = 0; l_count != 300; ++l_count)
        {
            Pipe& l_pipe = iv_Pipes.emplace_back(l_many);
            add(l_pipe, l_handler);
            iv_Engine->Unregister(l_pipe.handle());
            add(l_pipe, l_handler);
        }
        return Handler::ACTION_CONTINUE;
    };
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_LT(0, loopCalls::failures(loopCalls::SEND, EAGAIN));
    iv_Log.clear();
    finish();
    EXPECT_EQ(301U, iv_Log.calls().size());
}

// --- waiting

TEST_F(DispatcherImplTest, InterruptedWaitIsRepeated)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SELECT, -1, EINTR, 5);
    wake();
    ASSERT_TRUE(waitFor(
        [] { return loopCalls::failures(loopCalls::SELECT, EINTR) == 5; }));
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, WaitInterruptedByTheShutdownServesNothing)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SELECT, -1, EINTR);
    hold();
    l_pipe.write();
    EXPECT_TRUE(iv_Engine->Shutdown(0)); // the loop is held
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    loopCalls::letGo();
    finish();
    EXPECT_EQ(1, loopCalls::failures(loopCalls::SELECT, EINTR));
    EXPECT_EQ(l_waits, loopCalls::calls(loopCalls::SELECT));
    EXPECT_EQ((Calls{shutdown("a", l_pipe.handle())}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, EveryCallMayBeInterrupted)
{
    loopCalls::interruptEveryOther();
    start();
    RecordingHandler& l_handler = handler("a");
    int l_ticks = 0;
    l_handler.iv_OnTick = [&](Timer_t)
    {
        return ++l_ticks == 20 ? Handler::ACTION_UNREGISTER
                               : Handler::ACTION_CONTINUE;
    };
    addTimer(l_handler, 0, 1);
    for (int l_count = 0; l_count != 50; ++l_count)
    {
        addPipe(l_handler).write();
    }
    ASSERT_TRUE(iv_Log.waitForCalls(70));
    finish();
    EXPECT_EQ(70U + 50U, iv_Log.calls().size());
    EXPECT_LT(10, loopCalls::failures(loopCalls::SELECT, EINTR));
    EXPECT_LT(10, loopCalls::failures(loopCalls::SEND, EINTR));
    EXPECT_LT(10, loopCalls::failures(loopCalls::RECV, EINTR));
}

TEST_F(DispatcherImplTest, DescriptorClosedAfterItWasUnregisteredIsNoFailure)
{
    start();
    Pipe& l_closed = addPipe(handler("closed"));
    const Pipe& l_pipe = addPipe(handler("a"));
    hold();
    iv_Engine->Unregister(l_closed.handle());
    l_closed.close();
    loopCalls::letGo();
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ(1, loopCalls::failures(loopCalls::SELECT, EBADF));
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

TEST(DispatcherImplDeathTest, WakeUpThatCannotBeSentFails)
{
    for (const int l_errno : {EPIPE, EBADF, ENOBUFS})
    {
        EXPECT_ASSERTION(
            {
                const Doomed l_doomed;
                loopCalls::answer(loopCalls::SEND, -1, l_errno);
                l_doomed.engine.EnableCallback(OS_INVALID);
            },
            SOURCE, 560, INTERRUPT, ONE_BYTE);
    }
}

TEST(DispatcherImplDeathTest, WakeUpOfNoByteFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::SEND, 0, 0);
            l_doomed.engine.EnableCallback(OS_INVALID);
        },
        SOURCE, 560, INTERRUPT, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WakeUpThatCannotBeReceivedFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::RECV, -1, EIO);
            l_doomed.engine.EnableCallback(OS_INVALID);
            waitForTheEnd();
        },
        SOURCE, 580, SERVICE_PIPE, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WakeUpPairThatHasEndedFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::RECV, 0, 0);
            l_doomed.engine.EnableCallback(OS_INVALID);
            waitForTheEnd();
        },
        SOURCE, 580, SERVICE_PIPE, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WaitThatFailsFails)
{
    for (const int l_errno : {EINVAL, ENOMEM, EBADF})
    {
        EXPECT_ASSERTION(
            {
                const Doomed l_doomed;
                loopCalls::answer(loopCalls::SELECT, -1, l_errno);
                l_doomed.engine.EnableCallback(OS_INVALID);
                waitForTheEnd();
            },
            SOURCE, 300, THREAD_MAIN, "l_urc >= 0");
    }
}

TEST(DispatcherImplDeathTest, DescriptorClosedWhileItIsRegisteredFails)
{
    EXPECT_ASSERTION(
        {
            Doomed l_doomed;
            const int l_handle = dup(STDIN_FILENO);
            close(l_handle);
            l_doomed.engine.Register(l_handle, l_doomed.newHandler(), 0);
            waitForTheEnd();
        },
        SOURCE, 300, THREAD_MAIN, "l_urc >= 0");
}

#include "support/assertion.hpp"
#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/privateMember.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvThPool.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;

using PairOfHandles = int[2];
TOLV_PRIVATE_MEMBER(EnginePair, MTDispatcher, PairOfHandles, iv_Outgoing);
TOLV_PRIVATE_MEMBER(EngineLock, MTDispatcher, Mutex, iv_RegLock);
TOLV_PRIVATE_MEMBER(PendingHandles, MTDispatcher, HandleTable,
                    iv_PendingHandles);
TOLV_PRIVATE_MEMBER(PendingTimers, MTDispatcher, TimerQueue, iv_PendingTimers);
TOLV_PRIVATE_MEMBER(EnginePool, MTDispatcher, ThreadPool* const, iv_Pool);
TOLV_PRIVATE_MEMBER(PoolDone, ThreadPool, Condition, iv_Done);
TOLV_PRIVATE_MEMBER(Waiters, Condition, std::atomic<unsigned int>, iv_Waiters);
TOLV_PRIVATE_MEMBER(HandlerRemoved, EventHandler, bool, iv_Removed);

namespace
{

bool isOpen(int i_handle)
{
    return fcntl(i_handle, F_GETFD) != -1;
}

class DispatcherTeardownTest : public EngineTest
{
  protected:
    // Stops the loop; the teardown is still to come.
    void stop()
    {
        EXPECT_FALSE(iv_Engine->Shutdown(20));
    }

    void tearDown()
    {
        iv_Finished = true;
        iv_Engine->Finish();
    }

    static Handler::ACTION remove()
    {
        return Handler::ACTION_REMOVE;
    }

    // A handler that answers ACTION_REMOVE to the shutdown.
    RecordingHandler& goingHandler(const std::string& i_name)
    {
        RecordingHandler& l_handler = ownedHandler(i_name);
        l_handler.iv_OnShutdown = remove;
        return l_handler;
    }

    // A handler with a thread inside it, which stays there through the
    // teardown until the gate is opened, and answers i_answer then.
    void leaveStraggler(RecordingHandler& io_handler, Handler::ACTION i_answer)
    {
        io_handler.iv_OnRead = [=](OS_HANDLE)
        {
            iv_Gate.pass();
            return i_answer;
        };
        addPipe(io_handler).write();
        ASSERT_TRUE(iv_Gate.waitForArrived());
        EXPECT_TRUE(iv_Engine->Shutdown(0));
    }

    bool isToBeRemoved(const EventHandler& i_handler)
    {
        Mutex& l_mutex = (*iv_Engine).*get(EngineLock());
        const MutexLock l_lock(l_mutex);
        return i_handler.*get(HandlerRemoved());
    }

    // Lets the straggler come to its end, and its engine.
    void releaseStraggler()
    {
        const int l_sent = loopCalls::calls(loopCalls::SEND);
        iv_Gate.open();
        iv_Engine.reset();
        EXPECT_EQ(l_sent, loopCalls::calls(loopCalls::SEND));
    }
};

} // namespace

TEST_F(DispatcherTeardownTest, GoesThroughHandlesThenTimersThePendingOnesLast)
{
    start();
    RecordingHandler& l_a = handler("a");
    RecordingHandler& l_b = handler("b");
    const Pipe& l_low = addPipe();
    const OS_HANDLE l_b1 = addPipe(l_b).handle();
    const OS_HANDLE l_a1 = addPipe(l_a).handle();
    add(l_low, l_b);
    const Timer_t l_late = addTimer(l_a, 2000);
    const Timer_t l_early = addTimer(l_b, 1000);
    stop();
    const Timer_t l_pendingLate = addTimer(l_b, 500);
    const Timer_t l_pendingEarly = addTimer(l_a, 100);
    const OS_HANDLE l_a2 = addPipe(l_a).handle();
    const OS_HANDLE l_b2 = addPipe(l_b).handle();
    tearDown();
    EXPECT_EQ(
        (Calls{shutdown("b", l_b1), shutdown("b", l_low.handle()),
               shutdown("a", l_a1), shutdown("a", l_a2), shutdown("b", l_b2),
               shutdown("b", l_early), shutdown("a", l_late),
               shutdown("a", l_pendingEarly), shutdown("b", l_pendingLate)}),
        iv_Log.calls());
}

TEST_F(DispatcherTeardownTest,
       DescriptorRegisteredDuringTheShutdownIsNotWatched)
{
    start();
    stop();
    const Pipe& l_pipe = addPipe(handler("a"));
    l_pipe.write();
    tearDown();
    EXPECT_EQ((Calls{shutdown("a", l_pipe.handle())}), iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, PendingDescriptorIsNeitherUnregisteredNorEnabled)
{
    start();
    stop();
    const Pipe& l_pipe = addPipe(handler("a"));
    const int l_sent = loopCalls::calls(loopCalls::SEND);
    iv_Engine->Unregister(l_pipe.handle());
    EXPECT_EQ(l_sent, loopCalls::calls(loopCalls::SEND));
    iv_Engine->EnableCallback(l_pipe.handle());
    EXPECT_EQ(l_sent + 1, loopCalls::calls(loopCalls::SEND));
    tearDown();
    EXPECT_EQ((Calls{shutdown("a", l_pipe.handle())}), iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, DescriptorMayBeRegisteredAndPendingAtOnce)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    stop();
    add(l_pipe, handler("b"));
    tearDown();
    EXPECT_EQ(
        (Calls{shutdown("a", l_pipe.handle()), shutdown("b", l_pipe.handle())}),
        iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, DestroysThoseThatAnswerRemoveAndForgetsTheOthers)
{
    start();
    RecordingHandler& l_staying = handler("staying");
    l_staying.iv_OnDestruction = [this] { iv_Destroyed += 100; };
    addPipe(l_staying);
    addTimer(l_staying, 1000);
    addPipe(goingHandler("handle"));
    addTimer(goingHandler("timer"), 1000);
    stop();
    addPipe(goingHandler("pending handle"));
    addTimer(goingHandler("pending timer"), 1000);
    tearDown();
    EXPECT_EQ(4, iv_Destroyed);
    EXPECT_EQ(6U, iv_Log.calls().size());
    l_staying.iv_OnDestruction = nullptr;
}

TEST_F(DispatcherTeardownTest, DestroysInTheOrderOfTheTables)
{
    start();
    std::vector<std::string> l_destroyed;
    const auto l_going = [&](const std::string& i_name) -> RecordingHandler&
    {
        RecordingHandler& l_handler = goingHandler(i_name);
        l_handler.iv_OnDestruction = [&, i_name]
        { l_destroyed.push_back(i_name); };
        return l_handler;
    };
    addTimer(l_going("first timer"), 1000);
    addTimer(l_going("second timer"), 2000);
    addPipe(l_going("first handle"));
    addPipe(l_going("second handle"));
    stop();
    addTimer(l_going("pending timer"), 1000);
    addPipe(l_going("pending handle"));
    tearDown();
    EXPECT_EQ((std::vector<std::string>{"first handle", "second handle",
                                        "pending handle", "first timer",
                                        "second timer", "pending timer"}),
              l_destroyed);
}

TEST_F(DispatcherTeardownTest, OtherAnswersLeaveTheHandler)
{
    start();
    std::vector<RecordingHandler*> l_handlers;
    for (const int l_answer : {0, 2, 4, 1, 15})
    {
        RecordingHandler& l_handler = handler(std::to_string(l_answer));
        l_handler.iv_OnDestruction = [this] { ++iv_Destroyed; };
        l_handler.iv_OnShutdown = [=]
        { return static_cast<Handler::ACTION>(l_answer); };
        addPipe(l_handler);
        addTimer(l_handler, 1000);
        l_handlers.push_back(&l_handler);
    }
    finish();
    EXPECT_EQ(10U, iv_Log.calls().size());
    EXPECT_EQ(0, iv_Destroyed);
    for (RecordingHandler* l_handler : l_handlers)
    {
        l_handler->iv_OnDestruction = nullptr;
    }
}

TEST_F(DispatcherTeardownTest, HandlerThatAnsweredRemoveIsStillToldOfItsOthers)
{
    start();
    RecordingHandler& l_handler = goingHandler("a");
    const OS_HANDLE l_one = addPipe(l_handler).handle();
    const OS_HANDLE l_two = addPipe(l_handler).handle();
    const Timer_t l_timer = addTimer(l_handler, 1000);
    stop();
    const OS_HANDLE l_three = addPipe(l_handler).handle();
    const Timer_t l_pending = addTimer(l_handler, 1000);
    int l_calls = 0;
    // Only the first answer asks for the removal; the flag stays.
    l_handler.iv_OnShutdown = [&]
    {
        EXPECT_EQ(0, iv_Destroyed);
        return ++l_calls == 1 ? Handler::ACTION_REMOVE
                              : Handler::ACTION_CONTINUE;
    };
    tearDown();
    EXPECT_EQ((Calls{shutdown("a", l_one), shutdown("a", l_two),
                     shutdown("a", l_three), shutdown("a", l_timer),
                     shutdown("a", l_pending)}),
              iv_Log.calls());
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, TimersOfAHandlerThatGoesKeepTheirPlace)
{
    start();
    RecordingHandler& l_going = goingHandler("going");
    RecordingHandler& l_staying = handler("staying");
    const OS_HANDLE l_handle = addPipe(l_going).handle();
    const Timer_t l_late = addTimer(l_staying, 2000);
    const Timer_t l_early = addTimer(l_going, 1000);
    const Timer_t l_latest = addTimer(l_going, 3000);
    finish();
    EXPECT_EQ((Calls{shutdown("going", l_handle), shutdown("going", l_early),
                     shutdown("staying", l_late), shutdown("going", l_latest)}),
              iv_Log.calls());
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, HandlersByTheHundredAreDestroyed)
{
    start();
    const Pipe& l_pipe = addPipe();
    for (int l_count = 0; l_count != 300; ++l_count)
    {
        RecordingHandler& l_handler = goingHandler("a");
        add(iv_Pipes.emplace_back(l_pipe), l_handler);
        addTimer(l_handler, 1000);
    }
    finish();
    EXPECT_EQ(300, iv_Destroyed);
    EXPECT_EQ(600U, iv_Log.calls().size());
}

TEST_F(DispatcherTeardownTest, HandlerMayForgetOthersWhenItIsTold)
{
    start();
    RecordingHandler& l_first = handler("first");
    RecordingHandler& l_second = handler("second");
    const OS_HANDLE l_one = addPipe(l_first).handle();
    const OS_HANDLE l_two = addPipe(l_second).handle();
    const Timer_t l_timer = addTimer(l_second, 1000);
    l_first.iv_OnShutdown = [&]
    {
        iv_Engine->Unregister(l_one);
        iv_Engine->Unregister(l_two);
        iv_Engine->CancelTimer(l_timer);
        return Handler::ACTION_CONTINUE;
    };
    finish();
    EXPECT_EQ((Calls{shutdown("first", l_one)}), iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, HandlerMayAddOthersWhenItIsTold)
{
    start();
    RecordingHandler& l_first = handler("first");
    RecordingHandler& l_second = handler("second");
    const Pipe& l_pipe = addPipe();
    const OS_HANDLE l_one = addPipe(l_first).handle();
    Timer_t l_timer = 0;
    l_first.iv_OnShutdown = [&]
    {
        add(l_pipe, l_second);
        l_timer = addTimer(l_second, 1000);
        return Handler::ACTION_CONTINUE;
    };
    finish();
    EXPECT_EQ(
        (Calls{shutdown("first", l_one), shutdown("second", l_pipe.handle()),
               shutdown("second", l_timer)}),
        iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, HandlerThatForgetsItselfAndAnswersRemoveGoes)
{
    start();
    RecordingHandler& l_reading = ownedHandler("reading");
    const OS_HANDLE l_handle = addPipe(l_reading).handle();
    l_reading.iv_OnShutdown = [=]
    {
        iv_Engine->Unregister(l_handle);
        return remove();
    };
    RecordingHandler& l_ticking = ownedHandler("ticking");
    const Timer_t l_timer = addTimer(l_ticking, 1000);
    l_ticking.iv_OnShutdown = [=]
    {
        iv_Engine->CancelTimer(l_timer);
        return remove();
    };
    finish();
    EXPECT_EQ(
        (Calls{shutdown("reading", l_handle), shutdown("ticking", l_timer)}),
        iv_Log.calls());
    EXPECT_EQ(2, iv_Destroyed);
}

// Were the lock held, the destructors would never come to their end.
TEST_F(DispatcherTeardownTest, DestructorsMayUseTheEngineDuringTheTeardown)
{
    start();
    RecordingHandler& l_other = handler("other");
    const OS_HANDLE l_registered = addPipe(l_other).handle();
    const Timer_t l_timer = addTimer(l_other, 1000);
    const Pipe& l_new = addPipe();
    RecordingHandler& l_handler = goingHandler("a");
    l_handler.iv_OnDestruction = [&]
    {
        iv_Engine->Unregister(l_registered);
        iv_Engine->CancelTimer(l_timer);
        add(l_new, l_other);
        addTimer(l_other, 1000);
        wake();
        ++iv_Destroyed;
    };
    addPipe(l_handler);
    addTimer(l_handler, 1000);
    finish();
    EXPECT_EQ(1, iv_Destroyed);
    EXPECT_TRUE(((*iv_Engine).*get(PendingHandles())).list().empty());
    EXPECT_TRUE(((*iv_Engine).*get(PendingTimers())).list().empty());
}

TEST_F(DispatcherTeardownTest, DestructorsMayUseTheEngineWhenAHandlerIsRemoved)
{
    start();
    RecordingHandler& l_other = handler("other");
    const OS_HANDLE l_registered = addPipe(l_other).handle();
    const Timer_t l_timer = addTimer(l_other, 1000);
    const Pipe& l_new = addPipe();
    const auto l_useEngine = [&]
    {
        iv_Engine->Unregister(l_registered);
        iv_Engine->CancelTimer(l_timer);
        iv_Engine->Unregister(l_new.handle());
        add(l_new, l_other);
        addTimer(l_other, 1000);
        ++iv_Destroyed;
    };
    RecordingHandler& l_reading = ownedHandler("reading");
    l_reading.iv_OnRead = [](OS_HANDLE) { return remove(); };
    l_reading.iv_OnDestruction = l_useEngine;
    addPipe(l_reading).write();
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
    RecordingHandler& l_ticking = ownedHandler("ticking");
    l_ticking.iv_OnTick = [](Timer_t) { return remove(); };
    l_ticking.iv_OnDestruction = l_useEngine;
    addTimer(l_ticking, 0);
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 2; }));
    iv_Log.clear();
    l_new.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ((Calls{read("other", l_new)}), iv_Log.calls());
    finish();
}

TEST_F(DispatcherTeardownTest, ClosesTheWakeUpPairAndSleepsASecond)
{
    start();
    const loopCalls::Pair l_pair = loopCalls::lastPair();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnShutdown = [&]
    {
        EXPECT_TRUE(isOpen(l_pair.handles[0]));
        EXPECT_TRUE(isOpen(l_pair.handles[1]));
        EXPECT_EQ(0, loopCalls::calls(loopCalls::SLEEP));
        return Handler::ACTION_CONTINUE;
    };
    addPipe(l_handler);
    addTimer(l_handler, 1000);
    finish();
    EXPECT_EQ(2U, iv_Log.calls().size());
    EXPECT_FALSE(isOpen(l_pair.handles[0]));
    EXPECT_FALSE(isOpen(l_pair.handles[1]));
    EXPECT_EQ(-1, ((*iv_Engine).*get(EnginePair()))[0]);
    EXPECT_EQ(-1, ((*iv_Engine).*get(EnginePair()))[1]);
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SLEEP));
}

TEST_F(DispatcherTeardownTest, DestructionAloneClosesNothingAndCallsNobody)
{
    start();
    const loopCalls::Pair l_pair = loopCalls::lastPair();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnDestruction = [this] { ++iv_Destroyed; };
    addPipe(l_handler);
    addTimer(l_handler, 1000);
    stop();
    iv_Engine.reset();
    EXPECT_EQ(Calls(), iv_Log.calls());
    EXPECT_EQ(0, iv_Destroyed);
    l_handler.iv_OnDestruction = nullptr;
    EXPECT_EQ(0, close(l_pair.handles[0]));
    EXPECT_EQ(0, close(l_pair.handles[1]));
}

TEST_F(DispatcherTeardownTest, NothingIsFoundAnyMoreAfterIt)
{
    start();
    RecordingHandler& l_handler = handler("a");
    const OS_HANDLE l_handle = addPipe(l_handler).handle();
    const Timer_t l_timer = addTimer(l_handler, 1000);
    finish();
    iv_Engine->Unregister(l_handle);
    EXPECT_FALSE(iv_Engine->CancelTimer(l_timer));
    EXPECT_FALSE(iv_Engine->ExpireTimer(l_timer));
}

// --- a thread that did not stop in time

TEST_F(DispatcherTeardownTest, StragglersHandlerIsToldAndForgotten)
{
    start();
    RecordingHandler& l_handler = handler("a");
    leaveStraggler(l_handler, Handler::ACTION_CONTINUE);
    tearDown();
    EXPECT_EQ((Calls{read("a", iv_Pipes.front()),
                     shutdown("a", iv_Pipes.front().handle())}),
              iv_Log.calls());
    releaseStraggler();
    EXPECT_EQ(2U, iv_Log.calls().size());
}

TEST_F(DispatcherTeardownTest, StragglerThatAnswersRemoveHasItsHandlerDestroyed)
{
    start();
    leaveStraggler(ownedHandler("a"), Handler::ACTION_REMOVE);
    tearDown();
    EXPECT_EQ(0, iv_Destroyed);
    releaseStraggler();
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, HandlerThatGoesIsLeftToItsStraggler)
{
    start();
    RecordingHandler& l_handler = goingHandler("a");
    addTimer(l_handler, 1000);
    addPipe(l_handler);
    addPipe(goingHandler("other"));
    leaveStraggler(l_handler, Handler::ACTION_CONTINUE);
    tearDown();
    EXPECT_EQ(1, iv_Destroyed); // the other one
    releaseStraggler();
    EXPECT_EQ(2, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, PendingOnesOfAStragglersHandlerGoWithIt)
{
    start();
    RecordingHandler& l_handler = goingHandler("a");
    leaveStraggler(l_handler, Handler::ACTION_CONTINUE);
    addPipe(l_handler);
    addTimer(l_handler, 1000);
    tearDown();
    EXPECT_EQ(0, iv_Destroyed);
    releaseStraggler();
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, HandlerToBeRemovedIsNotToldWhileAThreadIsInside)
{
    start(2, 2);
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [this](OS_HANDLE)
    {
        iv_Gate.pass();
        return Handler::ACTION_CONTINUE;
    };
    l_handler.iv_OnTick = [](Timer_t) { return remove(); };
    addPipe(l_handler);
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Gate.waitForArrived());
    addTimer(l_handler, 1000);
    const Timer_t l_timer = addTimer(l_handler, 0);
    ASSERT_TRUE(waitFor([&] { return isToBeRemoved(l_handler); }));
    EXPECT_TRUE(iv_Engine->Shutdown(0));
    tearDown();
    EXPECT_EQ((Calls{read("a", l_pipe), {"a", l_timer, 128}}), iv_Log.calls());
    EXPECT_EQ(0, iv_Destroyed);
    releaseStraggler();
    EXPECT_EQ(1, iv_Destroyed);
    EXPECT_EQ(2U, iv_Log.calls().size());
}

TEST_F(DispatcherTeardownTest, StragglerInATimerIsLeftAlone)
{
    start();
    RecordingHandler& l_handler = goingHandler("a");
    l_handler.iv_OnTick = [this](Timer_t)
    {
        iv_Gate.pass();
        return Handler::ACTION_CONTINUE;
    };
    const Timer_t l_timer = addTimer(l_handler, 0);
    ASSERT_TRUE(iv_Gate.waitForArrived());
    EXPECT_TRUE(iv_Engine->Shutdown(0));
    tearDown();
    EXPECT_EQ((Calls{{"a", l_timer, 128}, shutdown("a", l_timer)}),
              iv_Log.calls());
    EXPECT_EQ(0, iv_Destroyed);
    releaseStraggler();
    EXPECT_EQ(1, iv_Destroyed);
}

TEST_F(DispatcherTeardownTest, ThreadWhoseWaitEndsAfterItLeaves)
{
    for (const std::uint32_t l_threads : {1U, 2U})
    {
        start(l_threads, l_threads);
        iv_Finished = false;
        ASSERT_TRUE(loopCalls::waitForIdle());
        loopCalls::holdAfter();
        wake();
        ASSERT_TRUE(loopCalls::waitForHeld());
        EXPECT_TRUE(iv_Engine->Shutdown(0));
        tearDown();
        const int l_received = loopCalls::calls(loopCalls::RECV);
        loopCalls::letGo();
        iv_Engine.reset();
        EXPECT_EQ(l_received, loopCalls::calls(loopCalls::RECV));
    }
}

TEST_F(DispatcherTeardownTest, ThreadMayHandOverWhileTheEngineIsDestroyed)
{
    start(2, 2);
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::holdAfter();
    l_pipe.write();
    ASSERT_TRUE(loopCalls::waitForHeld());
    EXPECT_TRUE(iv_Engine->Shutdown(0));
    tearDown();
    const Condition& l_done = *(*iv_Engine.*get(EnginePool())).*get(PoolDone());
    std::thread l_destroyer([this] { iv_Engine.reset(); });
    EXPECT_TRUE(waitFor([&] { return l_done.*get(Waiters()) != 0; }));
    loopCalls::letGo();
    l_destroyer.join();
    EXPECT_EQ((Calls{shutdown("a", l_pipe.handle())}), iv_Log.calls());
}

TEST_F(DispatcherTeardownTest, StragglerInARefreshIsLeftAlone)
{
    start();
    RecordingHandler& l_handler = goingHandler("a");
    RecordingHandler& l_ticking = handler("ticking");
    l_handler.iv_OnRefresh = [this] { iv_Gate.pass(); };
    l_ticking.iv_OnTick = [](Timer_t) { return Handler::ACTION_REFRESH; };
    const OS_HANDLE l_refreshed = addPipe(l_handler).handle();
    const OS_HANDLE l_next = addPipe(l_ticking).handle();
    const Timer_t l_timer = addTimer(l_ticking, 0);
    ASSERT_TRUE(iv_Gate.waitForArrived());
    EXPECT_TRUE(iv_Engine->Shutdown(0));
    tearDown();
    EXPECT_EQ(0, iv_Destroyed);
    releaseStraggler();
    EXPECT_EQ(1, iv_Destroyed);
    EXPECT_EQ((Calls{{"ticking", l_timer, 128},
                     {"a", l_refreshed, 32},
                     shutdown("a", l_refreshed),
                     shutdown("ticking", l_next),
                     shutdown("ticking", l_timer)}),
              iv_Log.calls());
}

// --- what ends the process

TEST(DispatcherTeardownDeathTest, WakeUpsFailAfterTheTeardown)
{
    Dispatcher l_unused(false);
    CallLog l_log;
    RecordingHandler l_handler(l_unused, l_log, "a");
    OS_TIMEOUT l_timeOut(1);
    const std::vector<std::function<void(MTDispatcher&)>> l_operations{
        [&](MTDispatcher& io_engine) { io_engine.Register(0, l_handler, 0); },
        [](MTDispatcher& io_engine) { io_engine.EnableCallback(OS_HANDLE(0)); },
        [](MTDispatcher& io_engine) { io_engine.EnableCallback(Timer_t(1)); },
        [&](MTDispatcher& io_engine)
        { io_engine.AddTimer(l_handler, l_timeOut); },
        [&](MTDispatcher& io_engine)
        { io_engine.UpdateTimer(l_handler, 1, l_timeOut); },
        [](MTDispatcher& io_engine) { io_engine.Shutdown(1); }};
    for (const auto& l_operation : l_operations)
    {
        EXPECT_ASSERTION(
            {
                MTDispatcher& l_engine = *new MTDispatcher(1, 1, false);
                l_engine.Shutdown(20);
                l_engine.Finish();
                l_operation(l_engine);
            },
            "tolv/vex/tolvDispatcherImpl", 560,
            "void tolv::MTDispatcher::Interrupt()", "l_urc == sizeof(tmp)");
    }
}

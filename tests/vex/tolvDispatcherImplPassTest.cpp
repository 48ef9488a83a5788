#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

// What a pass serves, in which order, and what the answers do.

using namespace tolv;

namespace
{

class DispatcherImplTest : public EngineTest
{
  protected:
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

} // namespace

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

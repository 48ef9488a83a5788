#include "tolv/vex/tolvEventHandler.hpp"

#include "support/assertion.hpp"
#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/privateMember.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include <atomic>
#include <type_traits>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(HandlerCount, EventHandler, std::int32_t,
                    iv_ThreadRefCount);
TOLV_PRIVATE_MEMBER(HandlerRemoved, EventHandler, bool, iv_Removed);

namespace
{

const char* const SOURCE = "tolv/vex/tolvEventHandler";
const char* const DESTRUCTOR = "virtual tolv::EventHandler::~EventHandler()";

// Overrides what it must.
struct PlainHandler : EventHandler
{
    using EventHandler::EventHandler;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        return ACTION_CONTINUE;
    }

    std::int32_t count() const
    {
        return this->*get(HandlerCount());
    }
};

// Notes the count of threads inside it whenever it is called.
struct CountingHandler : PlainHandler
{
    using PlainHandler::PlainHandler;

    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override
    {
        if (i_event == EVENT_READ)
        {
            Pipe::takeByte(i_handle);
        }
        note();
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(Timer_t /*i_timer*/, EVENT i_event) override
    {
        note();
        return i_event == EVENT_TIMER && ++iv_Ticks == 1 ? ACTION_REFRESH
                                                         : ACTION_CONTINUE;
    }

    void RefreshHandler(OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        note();
    }

    void note()
    {
        iv_Counts.push_back(count());
        ++iv_Calls;
    }

    bool waitForCalls(int i_calls) const
    {
        return waitFor([=] { return iv_Calls >= i_calls; });
    }

    std::vector<std::int32_t> iv_Counts; // read when the engine has stopped
    int iv_Ticks = 0;
    std::atomic<int> iv_Calls{0};
};

// Destroys itself when it is called.
struct SuicidalHandler : PlainHandler
{
    using PlainHandler::PlainHandler;

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        delete this;
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(Timer_t /*i_timer*/, EVENT /*i_event*/) override
    {
        delete this;
        return ACTION_CONTINUE;
    }
};

class EventHandlerTest : public EngineTest
{
};

} // namespace

TEST_F(EventHandlerTest, TypesAreThoseOfTheInterface)
{
    EXPECT_TRUE((std::is_same<std::int32_t, OS_HANDLE>::value));
    EXPECT_TRUE((std::is_same<std::uint32_t, Timer_t>::value));
    EXPECT_TRUE((std::is_same<std::uint32_t, EVENT_MASK>::value));
    EXPECT_TRUE((std::is_same<TimeValue, OS_TIMEOUT>::value));
    static_assert(OS_INVALID == -1, "no descriptor");
    EXPECT_TRUE((std::is_base_of<Base, EventHandler>::value));
    EXPECT_TRUE(std::is_abstract<EventHandler>::value);
    EXPECT_TRUE(std::has_virtual_destructor<EventHandler>::value);
}

TEST_F(EventHandlerTest, EventsHaveTheirValues)
{
    EXPECT_EQ(2, EventHandler::EVENT_READ);
    EXPECT_EQ(32, EventHandler::EVENT_REFRESH);
    EXPECT_EQ(64, EventHandler::EVENT_SHUTDOWN);
    EXPECT_EQ(128, EventHandler::EVENT_TIMER);
}

TEST_F(EventHandlerTest, ActionsHaveTheirValues)
{
    EXPECT_EQ(0, EventHandler::ACTION_CONTINUE);
    EXPECT_EQ(2, EventHandler::ACTION_REFRESH);
    EXPECT_EQ(4, EventHandler::ACTION_UNREGISTER);
    EXPECT_EQ(8, EventHandler::ACTION_REMOVE);
}

// Else an answer beyond the largest of the values would be undefined.
TEST_F(EventHandlerTest, AnyWordCanBeAnAnswer)
{
    EXPECT_TRUE((
        std::is_same<std::int32_t,
                     std::underlying_type<EventHandler::ACTION>::type>::value));
}

// The dispatcher has no engine: every use of it would end the process.
TEST_F(EventHandlerTest, NewHandlerIsLiveUncountedAndNotRegistered)
{
    const PlainHandler l_handler(iv_Unused);
    EXPECT_EQ(0, l_handler.count());
    EXPECT_FALSE(l_handler.*get(HandlerRemoved()));
}

TEST_F(EventHandlerTest, UnlessOverriddenATimerRepeatsAndRefreshDoesNothing)
{
    PlainHandler l_handler(iv_Unused);
    EXPECT_EQ(EventHandler::ACTION_CONTINUE,
              l_handler.TimerTick(1, EventHandler::EVENT_TIMER));
    EXPECT_EQ(EventHandler::ACTION_CONTINUE,
              l_handler.TimerTick(1, EventHandler::EVENT_SHUTDOWN));
    l_handler.RefreshHandler(1, EventHandler::EVENT_REFRESH);
    EXPECT_EQ(0, l_handler.count());
    EXPECT_FALSE(l_handler.*get(HandlerRemoved()));
}

TEST_F(EventHandlerTest, TimerThatIsNotOverriddenRunsUntilItIsCancelled)
{
    PlainHandler l_handler(iv_Unused);
    start();
    const Timer_t l_first = addTimer(l_handler, 0);
    const Timer_t l_second = addTimer(l_handler, 0, 1);
    // Each period that begins wakes the loop.
    EXPECT_TRUE(
        waitFor([] { return loopCalls::calls(loopCalls::SEND) >= 100; }));
    EXPECT_TRUE(iv_Engine->CancelTimer(l_first));
    EXPECT_TRUE(iv_Engine->CancelTimer(l_second));
    EXPECT_TRUE(loopCalls::waitForIdle());
    EXPECT_FALSE(loopCalls::hadTimeOut());
    finish();
}

TEST_F(EventHandlerTest, CountIsOneInEveryCallbackButTheRefresh)
{
    CountingHandler l_handler(iv_Unused);
    start();
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(l_handler.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(0, l_handler.count());
    addTimer(l_handler, 0);
    ASSERT_TRUE(l_handler.waitForCalls(3));
    finish();
    const std::vector<std::int32_t>& l_counts = l_handler.iv_Counts;
    ASSERT_LE(5U, l_counts.size());
    EXPECT_EQ(1, l_counts[0]);                   // readable
    EXPECT_EQ(1, l_counts[1]);                   // timer
    EXPECT_EQ(0, l_counts[2]);                   // refresh
    EXPECT_EQ(1, l_counts[l_counts.size() - 2]); // shutdown, the descriptor
    EXPECT_EQ(1, l_counts.back());               // shutdown, the timer
    EXPECT_EQ(0, l_handler.count());
}

TEST_F(EventHandlerTest, RemovalFlagMakesEveryLaterAnswerARemoval)
{
    start(2, 2);
    RecordingHandler& l_handler = ownedHandler("a");
    l_handler.iv_OnRead = [this](OS_HANDLE)
    {
        iv_Gate.pass();
        return Handler::ACTION_CONTINUE;
    };
    l_handler.iv_OnTick = [](Timer_t) { return Handler::ACTION_REMOVE; };
    const Pipe& l_pipe = addPipe(l_handler);
    addPipe(l_handler);
    l_pipe.write(2);
    ASSERT_TRUE(iv_Gate.waitForArrived());
    const Timer_t l_timer = addTimer(l_handler, 0);
    ASSERT_TRUE(iv_Log.waitForCalls(2));
    // The timer's answer wakes the loop when it has been acted on.
    ASSERT_TRUE(waitFor([] { return loopCalls::calls(loopCalls::SEND) == 4; }));
    EXPECT_TRUE(l_handler.*get(HandlerRemoved()));
    EXPECT_EQ(0, iv_Destroyed); // a thread is inside
    iv_Gate.open();
    ASSERT_TRUE(waitFor([this] { return iv_Destroyed == 1; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ((Calls{read("a", l_pipe), {"a", l_timer, 128}}), iv_Log.calls());
}

TEST_F(EventHandlerTest, HandlerMayGoWhenNothingOfItIsRegistered)
{
    start();
    const Pipe& l_pipe = addPipe();
    {
        PlainHandler l_handler(iv_Unused);
        add(l_pipe, l_handler);
        const Timer_t l_timer = addTimer(l_handler, 1000);
        iv_Engine->Unregister(l_pipe.handle());
        iv_Engine->CancelTimer(l_timer);
    }
    l_pipe.write();
    finish();
}

TEST(EventHandlerDeathTest, HandlerDestroyedInItsOwnCallbackFails)
{
    EXPECT_ASSERTION(
        {
            MTDispatcher& l_engine = *new MTDispatcher(1, 1, false);
            Dispatcher l_unused(false);
            Pipe l_pipe;
            l_engine.Register(l_pipe.handle(), *new SuicidalHandler(l_unused),
                              0);
            l_pipe.write();
            waitFor([] { return false; });
            _exit(0);
        },
        SOURCE, 40, DESTRUCTOR, "iv_ThreadRefCount == 0");
}

TEST(EventHandlerDeathTest, HandlerDestroyedInItsTimersCallbackFails)
{
    EXPECT_ASSERTION(
        {
            MTDispatcher& l_engine = *new MTDispatcher(1, 1, false);
            Dispatcher l_unused(false);
            OS_TIMEOUT l_now;
            l_engine.AddTimer(*new SuicidalHandler(l_unused), l_now);
            waitFor([] { return false; });
            _exit(0);
        },
        SOURCE, 40, DESTRUCTOR, "iv_ThreadRefCount == 0");
}

TEST(EventHandlerDeathTest, HandlerDestroyedWhileAThreadIsInsideFails)
{
    EXPECT_ASSERTION(
        {
            Dispatcher l_unused(false);
            PlainHandler l_handler(l_unused);
            l_handler.*get(HandlerCount()) = 1;
        },
        SOURCE, 40, DESTRUCTOR, "iv_ThreadRefCount == 0");
}

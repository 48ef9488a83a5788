#include "tolv/vex/tolvTimerProperties.hpp"

#include "support/assertion.hpp"
#include "support/privateMember.hpp"
#include "support/scriptedHandler.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace tolv;

TOLV_PRIVATE_MEMBER(HandlerThreads, EventHandler, std::int32_t,
                    iv_ThreadRefCount);
TOLV_PRIVATE_MEMBER(HandlerRemoved, EventHandler, bool, iv_Removed);

namespace
{

const char* const FILE_NAME = "tolv/vex/tolvTimerProperties";

constexpr std::uint32_t LATEST = std::numeric_limits<std::uint32_t>::max();

class TimerPropertiesTest : public testing::Test
{
  protected:
    TimerPropertiesTest() : iv_None(true), iv_Handler(iv_None), iv_Timer(7)
    {
        iv_Timer.setHandler(iv_Handler);
    }

    std::int32_t handlerThreads()
    {
        return iv_Handler.*get(HandlerThreads());
    }

    Dispatcher iv_None;
    ScriptedHandler iv_Handler;
    TimerProperties iv_Timer;
};

class TimerPropertiesDeathTest : public TimerPropertiesTest
{
};

} // namespace

TEST_F(TimerPropertiesTest, NewTimerHasItsIdentifierOnly)
{
    const TimerProperties l_timer(12);
    EXPECT_EQ(12U, l_timer.getId());
    EXPECT_EQ(nullptr, l_timer.getHandler());
    EXPECT_EQ(TimeValue(), l_timer.getExpiry());
    EXPECT_FALSE(l_timer.isRemoved());
    EXPECT_FALSE(l_timer.isBusy());
}

TEST_F(TimerPropertiesTest, IntervalIsZeroUntilItIsSet)
{
    iv_Timer.restart(TimeValue(5, 6));
    EXPECT_EQ(TimeValue(5, 6), iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, ExpiresOneIntervalFromNow)
{
    iv_Timer.setInterval(TimeValue(3, 4), TimeValue(100, 200));
    EXPECT_EQ(TimeValue(103, 204), iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, RestartKeepsTheInterval)
{
    iv_Timer.setInterval(TimeValue(3, 4), TimeValue(100, 200));
    iv_Timer.restart(TimeValue(200, 0));
    EXPECT_EQ(TimeValue(203, 4), iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, MicrosecondsCarryIntoSeconds)
{
    iv_Timer.setInterval(TimeValue(3, 999999), TimeValue(100, 1));
    EXPECT_EQ(TimeValue(104, 0), iv_Timer.getExpiry());
    iv_Timer.setInterval(TimeValue(0, 999999), TimeValue(100, 999999));
    EXPECT_EQ(TimeValue(101, 999998), iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, IntervalWithMoreThanASecondOfMicrosecondsCounts)
{
    iv_Timer.setInterval(TimeValue(0, LATEST), TimeValue(1, 0));
    EXPECT_EQ(TimeValue(1 + LATEST / 1000000, LATEST % 1000000),
              iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, ExpiryNeverWraps)
{
    iv_Timer.setInterval(TimeValue(LATEST, 999999), TimeValue(1, 0));
    EXPECT_EQ(TimeValue(LATEST, 999999), iv_Timer.getExpiry());
    iv_Timer.setInterval(TimeValue(LATEST, 999999), TimeValue(0, 1));
    EXPECT_EQ(TimeValue(LATEST, 999999), iv_Timer.getExpiry());
    iv_Timer.setInterval(TimeValue(LATEST, LATEST), TimeValue(LATEST, LATEST));
    EXPECT_EQ(TimeValue(LATEST, 999999), iv_Timer.getExpiry());
    iv_Timer.setInterval(TimeValue(LATEST - 1, 999998), TimeValue(1, 1));
    EXPECT_EQ(TimeValue(LATEST, 999999), iv_Timer.getExpiry());
}

TEST_F(TimerPropertiesTest, IsArmedFromTheStart)
{
    EXPECT_TRUE(iv_Timer.isArmed());
}

TEST_F(TimerPropertiesTest, DisabledTimerIsNotArmed)
{
    iv_Timer.setEnabled(false);
    EXPECT_FALSE(iv_Timer.isArmed());
    iv_Timer.setEnabled(true);
    EXPECT_TRUE(iv_Timer.isArmed());
}

TEST_F(TimerPropertiesTest, RemovedTimerIsNotArmed)
{
    iv_Timer.setRemoved();
    EXPECT_TRUE(iv_Timer.isRemoved());
    EXPECT_FALSE(iv_Timer.isArmed());
}

TEST_F(TimerPropertiesTest, TimerOfAHandlerToBeRemovedIsNotArmed)
{
    iv_Handler.*get(HandlerRemoved()) = true;
    EXPECT_FALSE(iv_Timer.isArmed());
}

TEST_F(TimerPropertiesTest, IssuesTheCallbackWithIdentifierAndTimerEvent)
{
    Timer_t l_timer = 0;
    int l_event = 0;
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        l_timer = i_timer;
        l_event = i_event;
        return EventHandler::ACTION_CONTINUE;
    };
    iv_Timer.IssueCallback();
    EXPECT_EQ(7U, l_timer);
    EXPECT_EQ(128, l_event);
}

TEST_F(TimerPropertiesTest, ReturnsWhatTheCallbackAnswers)
{
    for (const int l_answer : {0, 2, 4, 8, 7})
    {
        const auto l_action = static_cast<EventHandler::ACTION>(l_answer);
        iv_Handler.iv_OnTick = [&](Timer_t, EventHandler::EVENT)
        { return l_action; };
        EXPECT_EQ(l_action, iv_Timer.IssueCallback());
    }
}

TEST_F(TimerPropertiesTest, CountsThreadsInTimerAndHandler)
{
    iv_Timer.IncreaseThreadCount();
    EXPECT_TRUE(iv_Timer.isBusy());
    EXPECT_EQ(1, handlerThreads());
    iv_Timer.IncreaseThreadCount();
    EXPECT_EQ(2, handlerThreads());
    iv_Timer.DecreaseThreadCount();
    EXPECT_TRUE(iv_Timer.isBusy());
    EXPECT_EQ(1, handlerThreads());
    iv_Timer.DecreaseThreadCount();
    EXPECT_FALSE(iv_Timer.isBusy());
    EXPECT_EQ(0, handlerThreads());
}

TEST_F(TimerPropertiesDeathTest, CallbackWithoutAHandlerFails)
{
    EXPECT_ASSERTION(TimerProperties(1).IssueCallback(), FILE_NAME, 130,
                     "tolv::EventHandler::ACTION "
                     "tolv::TimerProperties::IssueCallback()",
                     "iv_pHandler != __null");
}

TEST_F(TimerPropertiesDeathTest, CountBelowZeroFails)
{
    iv_Handler.*get(HandlerThreads()) = 1;
    EXPECT_ASSERTION(iv_Timer.DecreaseThreadCount(), FILE_NAME, 150,
                     "void tolv::TimerProperties::DecreaseThreadCount()",
                     "iv_ThreadRefCount >= 0");
    iv_Handler.*get(HandlerThreads()) = 0;
}

TEST_F(TimerPropertiesDeathTest, HandlersCountBelowZeroFails)
{
    const auto l_decrease = [this]
    {
        iv_Timer.IncreaseThreadCount();
        iv_Handler.*get(HandlerThreads()) = 0;
        iv_Timer.DecreaseThreadCount();
    };
    EXPECT_ASSERTION(l_decrease(), "tolv/vex/tolvEventHandler", 150,
                     "void tolv::EventHandler::DecreaseThreadCount()",
                     "iv_ThreadRefCount >= 0");
}

#include "tolv/vex/tolvSctpLinkCheck.hpp"

#include "support/fakeDispatcher.hpp"

#include <gtest/gtest.h>

using namespace tolv;

namespace
{

class SctpLinkCheckTest : public ::testing::Test
{
  protected:
    FakeDispatcher iv_Dispatcher;
    SctpLinkCheckEH iv_Check{iv_Dispatcher};
};

} // namespace

TEST_F(SctpLinkCheckTest, ConstructorRegistersNothingAndAddsNoTimer)
{
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
    EXPECT_TRUE(iv_Dispatcher.timers.empty());
}

TEST_F(SctpLinkCheckTest, ExpiryAsksForARefresh)
{
    EXPECT_EQ(EventHandler::ACTION_REFRESH,
              iv_Check.TimerTick(1, EventHandler::EVENT_TIMER));
}

TEST_F(SctpLinkCheckTest, EveryEventButShutdownAsksForARefresh)
{
    for (const int l_event : {0, 1, 2, 32, 127, 129})
    {
        EXPECT_EQ(
            2, iv_Check.TimerTick(7, static_cast<EventHandler::EVENT>(l_event)))
            << l_event;
    }
}

TEST_F(SctpLinkCheckTest, ShutdownRemovesIt)
{
    EXPECT_EQ(EventHandler::ACTION_REMOVE,
              iv_Check.TimerTick(1, EventHandler::EVENT_SHUTDOWN));
}

TEST_F(SctpLinkCheckTest, AnyDescriptorEventRemovesIt)
{
    for (const int l_event : {2, 32, 64, 128})
    {
        EXPECT_EQ(8, iv_Check.HandleEvent(
                         5, static_cast<EventHandler::EVENT>(l_event)))
            << l_event;
    }
}

TEST_F(SctpLinkCheckTest, DumpPrintsNothing)
{
    ::testing::internal::CaptureStdout();
    iv_Check.Dump(stdout);
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

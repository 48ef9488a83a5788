#include "tolv/vex/tolvChannel.hpp"

#include "support/fakeSockets.hpp"

#include <gtest/gtest.h>

#include <optional>

using namespace tolv;

namespace
{

constexpr OS_HANDLE HANDLE = 900; // of no open file

class ChannelTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakeSockets::forget();
    }
};

class PlainChannel : public Channel
{
  public:
    using Channel::Channel;

    void Dump(FILE*) override {}
    pError_t Peek(void*, unsigned int&) override
    {
        return pError_t();
    }
    pError_t Read(void*, unsigned int&) override
    {
        return pError_t();
    }
    pError_t Write(void*, unsigned int&) override
    {
        return pError_t();
    }
    bool isAlive() override
    {
        return true;
    }
    const char* getRemoteAddress() override
    {
        return "";
    }
    int getPort() override
    {
        return 0;
    }
    int RefreshChannel() override
    {
        return 0;
    }
};

} // namespace

TEST_F(ChannelTest, NewChannelHasItsHandleAndTypeAndNoTimeOut)
{
    const PlainChannel l_channel(HANDLE, SOCK_TYPE_UNIX);
    EXPECT_EQ(HANDLE, l_channel.getHandle());
    EXPECT_EQ(SOCK_TYPE_UNIX, l_channel.getType());
    EXPECT_EQ(TimeValue(), l_channel.getTimeOut());
    EXPECT_FALSE(l_channel.isTimeOutEnabled());
    EXPECT_FALSE(l_channel.isTimedOut());
}

TEST_F(ChannelTest, SettingATimeOutTurnsItOn)
{
    PlainChannel l_channel(OS_INVALID, SOCK_TYPE_TCP);
    l_channel.setTimeOut(TimeValue(3, 4));
    EXPECT_EQ(TimeValue(3, 4), l_channel.getTimeOut());
    EXPECT_TRUE(l_channel.isTimeOutEnabled());
}

TEST_F(ChannelTest, ClearingTheTimeOutKeepsItsValue)
{
    PlainChannel l_channel(OS_INVALID, SOCK_TYPE_TCP);
    l_channel.setTimeOut(TimeValue(3, 4));
    l_channel.clearTimeOut();
    EXPECT_EQ(TimeValue(3, 4), l_channel.getTimeOut());
    EXPECT_FALSE(l_channel.isTimeOutEnabled());
}

TEST_F(ChannelTest, DestructionClosesTheHandleOnce)
{
    fakeSockets::answer("close", {0});
    std::optional<PlainChannel> l_channel(std::in_place, HANDLE, SOCK_TYPE_TCP);
    l_channel.reset();
    const auto l_calls = fakeSockets::callsOf("close");
    ASSERT_EQ(1U, l_calls.size());
    EXPECT_EQ(HANDLE, l_calls[0].handle);
}

TEST_F(ChannelTest, HandleZeroIsAHandle)
{
    fakeSockets::answer("close", {0});
    std::optional<PlainChannel> l_channel(std::in_place, 0, SOCK_TYPE_TCP);
    l_channel.reset();
    EXPECT_EQ(1U, fakeSockets::callsOf("close").size());
}

TEST_F(ChannelTest, DestructionWithoutAHandleCallsNothing)
{
    std::optional<PlainChannel> l_channel(std::in_place, OS_INVALID,
                                          SOCK_TYPE_TCP);
    l_channel.reset();
    EXPECT_TRUE(fakeSockets::calls().empty());
}

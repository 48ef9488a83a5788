#include "tolv/vex/tolvSockChannel.hpp"

#include "support/answeredChannel.hpp"

#include <netinet/sctp.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

#include <string>

using namespace tolv;
using fakeSockets::answer;
using fakeSockets::bytesOf;
using fakeSockets::Call;
using fakeSockets::calls;
using fakeSockets::failed;
using fakeSockets::received;

namespace
{

// The kernel's notification of a changed association.
std::string notification(int i_type, int i_state)
{
    sctp_assoc_change l_change = {};
    l_change.sac_type = static_cast<std::uint16_t>(i_type);
    l_change.sac_length = sizeof(l_change);
    l_change.sac_state = static_cast<std::uint16_t>(i_state);
    return bytesOf(l_change);
}

fakeSockets::Answer notified(const std::string& i_bytes,
                             int i_flags = MSG_NOTIFICATION)
{
    fakeSockets::Answer l_answer = received(i_bytes);
    l_answer.flags = i_flags;
    return l_answer;
}

class SockChannelSctpTest : public AnsweredChannelTest<SockChannel>
{
  protected:
    void SetUp() override
    {
        AnsweredChannelTest::SetUp();
        open(SOCK_TYPE_SCTP);
    }

    void expectUnreachable(const pError_t& i_error, unsigned int i_wanted)
    {
        expectError(i_error, 9, 0x440D,
                    "SockChannel::Peer unreachable, connection closed Fd[900] "
                    "Flags[00004100] Req[" +
                        std::to_string(i_wanted) + "] Recv[0]");
        ASSERT_TRUE(i_error);
        EXPECT_EQ(EHOSTDOWN, i_error->getErrno());
        EXPECT_EQ(0U, iv_Count);
    }
};

} // namespace

TEST_F(SockChannelSctpTest, MessageIsReceivedInOnePartWithRoomForItsProperties)
{
    answer("recvmsg", received("abc"));
    answer("recvmsg", received("d"));
    EXPECT_FALSE(read(4));
    EXPECT_EQ("abcd", buffer(4));
    const auto l_calls = calls();
    ASSERT_EQ(2U, l_calls.size());
    expectReceiving(l_calls[0], "recvmsg", 0, 4, 0x4100);
    expectReceiving(l_calls[1], "recvmsg", 3, 1, 0x4100);
    EXPECT_EQ("", l_calls[0].peer);
    EXPECT_EQ(1, l_calls[0].option);
    EXPECT_EQ(CMSG_SPACE(sizeof(sctp_sndrcvinfo)), l_calls[0].control.size());
    EXPECT_EQ(32U, sizeof(sctp_sndrcvinfo));
#if __SIZEOF_POINTER__ == 4
    EXPECT_EQ(44U, l_calls[0].control.size());
#endif
}

TEST_F(SockChannelSctpTest, AssociationThatEndedIsAnUnreachablePeer)
{
    for (const int l_state : {1, 2, 3})
    {
        answer("recvmsg", notified(notification(0x8001, l_state)));
        expectUnreachable(read(40), 40);
    }
}

TEST_F(SockChannelSctpTest, FailedReceivingIsNoNotification)
{
    // The answers leave the head of a notification in the buffer.
    fakeSockets::Answer l_failure = notified(notification(0x8001, 1));
    l_failure.result = -1;
    l_failure.error = EINTR;
    answer("recvmsg", l_failure); // is repeated
    l_failure.error = ECONNRESET;
    answer("recvmsg", l_failure);
    const pError_t l_error = read(40);
    expectError(l_error, 9, 0x440B,
                "SockChannel::Receive Error Fd[900] Flags[00004100] Req[40] "
                "Recv[0]");
    ASSERT_TRUE(l_error);
    EXPECT_EQ(ECONNRESET, l_error->getErrno());

    answer("recvmsg", {0});
    expectError(read(40), 9, 0x440D,
                "SockChannel::Connection Closed Fd[900] Flags[00004100] "
                "Req[40] Recv[0]");
}

TEST_F(SockChannelSctpTest, OtherNotificationsCountAsData)
{
    for (const std::string& l_bytes :
         {notification(0x8001, 0), notification(0x8001, 4),
          notification(0x8002, 1), notification(0x8005, 3), notification(1, 1)})
    {
        answer("recvmsg", notified(l_bytes));
        EXPECT_FALSE(read(sizeof(sctp_assoc_change)));
        EXPECT_EQ(l_bytes, buffer(iv_Count));
    }
}

TEST_F(SockChannelSctpTest, NotificationWithFurtherFlagsCountsAsData)
{
    // Headers that know nothing of each other declare the two.
    const int l_flags = int(MSG_NOTIFICATION) | int(MSG_EOR);
    answer("recvmsg", notified(notification(0x8001, 1), l_flags));
    EXPECT_FALSE(read(sizeof(sctp_assoc_change)));
    EXPECT_EQ(sizeof(sctp_assoc_change), iv_Count);
}

TEST_F(SockChannelSctpTest, DataThatLooksLikeANotificationIsData)
{
    answer("recvmsg", notified(notification(0x8001, 1), 0));
    EXPECT_FALSE(read(sizeof(sctp_assoc_change)));
    EXPECT_EQ(sizeof(sctp_assoc_change), iv_Count);
}

TEST_F(SockChannelSctpTest, HeadOfAShortlyReadNotificationIsLookedAtInTheSocket)
{
    const std::string l_whole = notification(0x8001, 1);
    for (const unsigned int l_part : {1U, 2U, 8U, 9U})
    {
        fakeSockets::forget();
        answer("recvmsg", notified(l_whole.substr(0, l_part)));
        answer("recv", received(l_whole.substr(l_part, 10 - l_part)));
        expectUnreachable(read(l_part), l_part);
        const Call l_look = calls().back();
        EXPECT_EQ("recv", l_look.function);
        EXPECT_EQ(10U - l_part, l_look.length);
        EXPECT_EQ(MSG_PEEK | MSG_DONTWAIT | MSG_NOSIGNAL, l_look.flags);
    }
}

TEST_F(SockChannelSctpTest, HeadOfAShortlyPeekedNotificationIsPeekedAtWhole)
{
    const std::string l_whole = notification(0x8001, 3);
    answer("recvmsg", notified(l_whole.substr(0, 2)));
    answer("recv", received(l_whole.substr(0, 10)));
    EXPECT_FALSE(iv_Channel->isAlive());
    EXPECT_EQ(10U, calls().back().length);
}

TEST_F(SockChannelSctpTest, ShortNotificationWithoutItsRestCountsAsData)
{
    const std::string l_whole = notification(0x8001, 1);
    answer("recvmsg", notified(l_whole.substr(0, 9)));
    answer("recv", failed(EAGAIN));
    EXPECT_FALSE(read(9));
    EXPECT_EQ(9U, iv_Count);
}

TEST_F(SockChannelSctpTest, TenBytesOfANotificationAreEnough)
{
    answer("recvmsg", notified(notification(0x8001, 2).substr(0, 10)));
    expectUnreachable(read(10), 10);
    EXPECT_EQ("recvmsg", fakeSockets::sequence());
}

#include "tolv/vex/tolvSockChannel.hpp"

#include "support/answeredChannel.hpp"

#include <poll.h>

#include <gtest/gtest.h>

#include <cerrno>

using namespace tolv;
using fakeSockets::answer;
using fakeSockets::bytesOf;
using fakeSockets::Call;
using fakeSockets::calls;
using fakeSockets::callsOf;
using fakeSockets::failed;
using fakeSockets::received;

namespace
{

using SockChannelPeekTest = AnsweredChannelTest<SockChannel>;

fakeSockets::Answer lasting(int i_micros, fakeSockets::Answer i_answer)
{
    i_answer.micros = i_micros;
    return i_answer;
}

} // namespace

TEST_F(SockChannelPeekTest, ShortPeekOverTcpPeeksTheWholeCountAgain)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("0123456789"));
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdef"));
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdefghijklmnopqrstuv"));
    EXPECT_FALSE(peek(32));
    EXPECT_EQ(32U, iv_Count);
    EXPECT_EQ("0123456789abcdefghijklmnopqrstuv", buffer(32));
    ASSERT_EQ("recvfrom poll recvfrom poll recvfrom", fakeSockets::sequence());
    for (const Call& l_call : callsOf("recvfrom"))
    {
        expectReceiving(l_call, "recvfrom", 0, 32, 0x4102);
    }
    const Call l_poll = callsOf("poll")[0];
    EXPECT_EQ(HANDLE, l_poll.handle);
    EXPECT_EQ(POLLRDHUP, l_poll.events);
    EXPECT_TRUE(l_poll.limited);
    EXPECT_EQ(0, l_poll.limit.tv_usec);
}

TEST_F(SockChannelPeekTest, PeekOfAStreamThatEndedIsTriedOnceMore)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("0123456789"));
    answer("poll", {1});
    answer("recvfrom", received("0123456789ab"));
    answer("getsockopt", {0, 0, bytesOf(0)});
    expectError(peek(32), 9, 0x440D,
                "SockChannel::Connection Closed Fd[900] Flags[00004102] "
                "Req[32] Recv[12]");
    EXPECT_EQ(12U, iv_Count);
    EXPECT_EQ("0123456789ab", buffer(12));

    answer("recvfrom", received("0123456789"));
    answer("poll", {1});
    answer("recvfrom", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
}

TEST_F(SockChannelPeekTest, PeekOfAStreamThatFailedReportsItsError)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("0123456789"));
    answer("poll", {1});
    answer("recvfrom", received("0123456789"));
    answer("getsockopt", {0, 0, bytesOf(int(ECONNRESET))});
    const pError_t l_error = peek(32);
    expectError(l_error, 9, 0x440B,
                "SockChannel::Receive Error Fd[900] Flags[00004102] Req[32] "
                "Recv[10]");
    EXPECT_EQ(ECONNRESET, l_error->getErrno());
    EXPECT_EQ(0U, iv_Count);
}

TEST_F(SockChannelPeekTest, PeekThatBringsNothingNewRests)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("0123456789"));
    answer("poll", {0});
    answer("recvfrom", received("0123456789"));
    answer("select", {0});
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    ASSERT_EQ("recvfrom poll recvfrom select poll recvfrom",
              fakeSockets::sequence());
    const Call l_rest = callsOf("select")[0];
    EXPECT_EQ(0, l_rest.flags);
    EXPECT_EQ(0, l_rest.limit.tv_sec);
    EXPECT_EQ(10000, l_rest.limit.tv_usec);
}

TEST_F(SockChannelPeekTest, OnlyTheWaitOfATimedPeekIsForTheWholeCount)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("0123456789"));
    answer("getsockopt", {0, 0, bytesOf(1)}); // the old mark
    answer("setsockopt", {0});
    answerReady();
    answer("setsockopt", {0});
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_EQ("0123456789abcdef", buffer(16));
    ASSERT_EQ("select getsockopt recvfrom getsockopt setsockopt select "
              "getsockopt setsockopt poll recvfrom",
              fakeSockets::sequence());
    const auto l_calls = calls();
    expectOption(l_calls[3], "getsockopt", SO_RCVLOWAT, "");
    expectOption(l_calls[4], "setsockopt", SO_RCVLOWAT, bytesOf(16));
    expectOption(l_calls[7], "setsockopt", SO_RCVLOWAT, bytesOf(1));
    expectReceiving(l_calls[9], "recvfrom", 0, 16, 0x4002);
}

TEST_F(SockChannelPeekTest, TimeOutOfAPeekPutsTheMarkBackAndKeepsErrno)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("0123456789"));
    answer("getsockopt", {0, 0, bytesOf(4)});
    answer("setsockopt", {0});
    answer("select", {0});
    answer("setsockopt", failed(EBADF));
    errno = 0;
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(10U, iv_Count);
    EXPECT_TRUE(iv_Channel->isTimedOut());
    expectOption(calls().back(), "setsockopt", SO_RCVLOWAT, bytesOf(4));
}

TEST_F(SockChannelPeekTest, TimedPeekThatCannotBeToldOfMoreEndsInTime)
{
    // The socket cannot hold the count: it is ready with what it has.
    open(SOCK_TYPE_TCP).setTimeOut(TimeValue());
    answerReady();
    answer("recvfrom", received("0123456789"));
    answer("getsockopt", {0, 0, bytesOf(1)});
    answer("setsockopt", {0});
    answerReady();
    answer("setsockopt", {0});
    answer("poll", {0});
    answer("recvfrom", received("0123456789"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(10U, iv_Count);
    EXPECT_TRUE(iv_Channel->isTimedOut());
}

TEST_F(SockChannelPeekTest, TimedPeekRestsNoLongerThanItsTimeOut)
{
    open(SOCK_TYPE_TCP).setTimeOut(TimeValue(0, 4000));
    answerReady();
    answer("recvfrom", received("0123456789"));
    answer("getsockopt", {0, 0, bytesOf(1)});
    answer("setsockopt", {0});
    answerReady();
    answer("setsockopt", {0});
    answer("poll", {0});
    answer("recvfrom", received("0123456789"));
    answer("select", lasting(3000, {0})); // the rest
    answer("getsockopt", {0, 0, bytesOf(1)});
    answer("setsockopt", {0});
    answerReady();
    answer("setsockopt", {0});
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    const auto l_waits = callsOf("select");
    ASSERT_EQ(4U, l_waits.size());
    EXPECT_EQ(0, l_waits[2].flags);
    EXPECT_EQ(4000, l_waits[2].limit.tv_usec);
    EXPECT_LE(l_waits[3].limit.tv_usec, 1000);
}

TEST_F(SockChannelPeekTest, ShortPeekOverUnixWaitsBehindTheBytesItKnows)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", received("0123456789"));
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("recv", received("a"));
    answer("setsockopt", {0});
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_EQ("0123456789abcdef", buffer(16));
    ASSERT_EQ("recv poll getsockopt setsockopt recv setsockopt recv",
              fakeSockets::sequence());
    const auto l_calls = calls();
    expectOption(l_calls[3], "setsockopt", SO_PEEK_OFF, bytesOf(10));
    EXPECT_EQ(0x4002, l_calls[4].flags);
    EXPECT_EQ(1U, l_calls[4].length);
    expectOption(l_calls[5], "setsockopt", SO_PEEK_OFF, bytesOf(-1));
    expectReceiving(l_calls[6], "recv", 0, 16, 0x4102);
}

TEST_F(SockChannelPeekTest, PeekOverUnixThatFailsWhileItWaitsReportsIt)
{
    const auto l_peekAfter = [this](const fakeSockets::Answer& i_answer)
    {
        open(SOCK_TYPE_UNIX);
        answer("recv", received("0123456789"));
        answer("poll", {0});
        answer("getsockopt", {0, 0, bytesOf(-1)});
        answer("setsockopt", {0});
        answer("recv", i_answer);
        answer("setsockopt", failed(EBADF));
        return peek(16);
    };
    expectError(l_peekAfter({0}), 9, 0x440D,
                "SockChannel::Connection Closed Fd[900] Flags[00004102] "
                "Req[16] Recv[10]");
    EXPECT_EQ(10U, iv_Count);
    const pError_t l_error = l_peekAfter(failed(ECONNRESET));
    expectError(l_error, 9, 0x440B,
                "SockChannel::Receive Error Fd[900] Flags[00004102] Req[16] "
                "Recv[10]");
    EXPECT_EQ(ECONNRESET, l_error->getErrno());
    EXPECT_EQ(0U, iv_Count);
}

TEST_F(SockChannelPeekTest, InterruptedPeekOverUnixWaitsAgain)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", received("0123456789"));
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("recv", failed(EINTR));
    answer("setsockopt", {0});
    answer("poll", {1});
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
}

TEST_F(SockChannelPeekTest, PeekOverUnixWithoutAPeekOffsetRests)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", received("0123456789"));
    answer("poll", {0});
    answer("getsockopt", failed(ENOPROTOOPT));
    answer("recv", received("0123456789"));
    answer("select", {0});
    answer("poll", {0});
    answer("getsockopt", failed(ENOPROTOOPT));
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_EQ("recv poll getsockopt recv select poll getsockopt recv",
              fakeSockets::sequence());
}

TEST_F(SockChannelPeekTest, ShortTimedPeekOverUnixWaitsWithWhatIsLeft)
{
    openTimed(SOCK_TYPE_UNIX);
    const timeval l_none = {};
    answerReady();
    answer("recv", received("0123456789"));
    answerReady();
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("getsockopt", {0, 0, bytesOf(l_none)});
    answer("setsockopt", {0});
    answer("recv", received("a"));
    answer("setsockopt", {0});
    answer("setsockopt", {0});
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_FALSE(iv_Channel->isTimedOut());
    ASSERT_EQ("select getsockopt recv select getsockopt poll getsockopt "
              "setsockopt getsockopt setsockopt recv setsockopt setsockopt "
              "recv",
              fakeSockets::sequence());
    const auto l_options = callsOf("setsockopt");
    const timeval l_limit = {7, 5};
    expectOption(l_options[0], "setsockopt", SO_PEEK_OFF, bytesOf(10));
    expectOption(l_options[1], "setsockopt", SO_RCVTIMEO, bytesOf(l_limit));
    expectOption(l_options[2], "setsockopt", SO_RCVTIMEO, bytesOf(l_none));
    expectOption(l_options[3], "setsockopt", SO_PEEK_OFF, bytesOf(-1));
}

TEST_F(SockChannelPeekTest, WaitOverUnixIsTakenOffTheTimeOut)
{
    openTimed(SOCK_TYPE_UNIX);
    const timeval l_none = {};
    answerReady();
    answer("recv", received("0123456789"));
    answerReady();
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("getsockopt", {0, 0, bytesOf(l_none)});
    answer("setsockopt", {0});
    answer("recv", lasting(3000000, received("a")));
    answer("setsockopt", {0});
    answer("setsockopt", {0});
    answer("recv", received("0123456789ab"));
    answer("select", {0});
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(12U, iv_Count);
    const auto l_waits = callsOf("select");
    ASSERT_EQ(3U, l_waits.size());
    EXPECT_GE(4, l_waits[2].limit.tv_sec); // of seven
}

TEST_F(SockChannelPeekTest, TimedPeekOverUnixThatIsToldTooSoonGoesOn)
{
    openTimed(SOCK_TYPE_UNIX);
    const timeval l_none = {};
    answerReady();
    answer("recv", received("0123456789"));
    answerReady();
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("getsockopt", {0, 0, bytesOf(l_none)});
    answer("setsockopt", {0});
    answer("recv", failed(EAGAIN)); // the socket does not block
    answer("setsockopt", {0});
    answer("setsockopt", {0});
    answer("recv", received("0123456789"));
    answer("select", {0}); // the rest
    answerReady();
    answer("poll", {1});
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_FALSE(iv_Channel->isTimedOut());
    EXPECT_EQ(10000, callsOf("select")[2].limit.tv_usec);
}

TEST_F(SockChannelPeekTest, TimedPeekOverUnixThatCannotBeLimitedRests)
{
    openTimed(SOCK_TYPE_UNIX);
    answerReady();
    answer("recv", received("0123456789"));
    answerReady();
    answer("poll", {0});
    answer("getsockopt", {0, 0, bytesOf(-1)});
    answer("setsockopt", {0});
    answer("getsockopt", failed(ENOPROTOOPT)); // of SO_RCVTIMEO
    answer("setsockopt", {0});
    answer("recv", received("0123456789"));
    answer("select", {0}); // the rest
    answerReady();
    answer("poll", {1});
    answer("recv", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_EQ(10000, callsOf("select")[2].limit.tv_usec);
}

TEST_F(SockChannelPeekTest, TimedPeekOverUnixDoesNotWaitWhenNothingIsLeft)
{
    open(SOCK_TYPE_UNIX).setTimeOut(TimeValue());
    answerReady();
    answer("recv", received("0123456789"));
    answerReady();
    answer("poll", {0});
    answer("recv", received("0123456789ab"));
    answerReady();
    answer("poll", {0});
    answer("recv", received("0123456789ab"));
    errno = 0;
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(12U, iv_Count);
    EXPECT_TRUE(iv_Channel->isTimedOut());
    EXPECT_EQ(TimeValue(), iv_Channel->getTimeOut());
}

TEST_F(SockChannelPeekTest, ShortPeekOfADatagramGoesOnAsARead)
{
    for (const SockType l_type : {SOCK_TYPE_UDP, SOCK_TYPE_SCTP})
    {
        open(l_type);
        fakeSockets::forget();
        const char* const l_function =
            l_type == SOCK_TYPE_UDP ? "recvfrom" : "recvmsg";
        answer(l_function, received("abc"));
        answer(l_function, received("a"));
        EXPECT_FALSE(peek(4));
        EXPECT_EQ("abca", buffer(4));
        const auto l_calls = calls();
        ASSERT_EQ(2U, l_calls.size());
        expectReceiving(l_calls[1], l_function, 3, 1, 0x4102);
    }
}

#include "tolv/vex/tolvSockChannel.hpp"

#include "support/answeredChannel.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

#include <limits>
#include <memory>
#include <string>
#include <vector>

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

using SockChannelCallsTest = AnsweredChannelTest<SockChannel>;

// A channel that has no memory for its errors.
class PoorChannel : public SockChannel
{
  public:
    using SockChannel::BuildLog;
    using SockChannel::SockChannel;

    pError_t BuildLog(unsigned char, unsigned short, int i_traceDesc,
                      const char*, ...) override
    {
        iv_TraceDescs.push_back(i_traceDesc);
        return pError_t();
    }

    std::vector<int> iv_TraceDescs; // that the errors were built with
};

SockAddr_t address(const char* i_host, unsigned short i_port)
{
    SockAddr_t l_addr = {};
    EXPECT_EQ(1,
              initSockAddrStruct(i_host, htons(i_port), l_addr, SOCK_TYPE_TCP));
    return l_addr;
}

} // namespace

// Receiving without a time-out.

TEST_F(SockChannelCallsTest, ReadOverTcpReceivesUntilAllIsThere)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("abc"));
    answer("recvfrom", received("defghij"));
    EXPECT_FALSE(read(10));
    EXPECT_EQ(10U, iv_Count);
    EXPECT_EQ("abcdefghij", buffer(10));
    const auto l_calls = calls();
    ASSERT_EQ(2U, l_calls.size());
    expectReceiving(l_calls[0], "recvfrom", 0, 10, 0x4100);
    expectReceiving(l_calls[1], "recvfrom", 3, 7, 0x4100);
}

TEST_F(SockChannelCallsTest, EachReceivingOfAnAddressHasTheRoomOfAnIpv4One)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP})
    {
        fakeSockets::forget();
        open(l_type);
        // A stream's receiving leaves the length 0 behind.
        answer("recvfrom", received("abc"));
        answer("recvfrom", received("d"));
        EXPECT_FALSE(read(4));
        for (const Call& l_call : callsOf("recvfrom"))
        {
            EXPECT_EQ(16U, l_call.peer.size());
            EXPECT_EQ(0x4100, l_call.flags);
        }
    }
}

TEST_F(SockChannelCallsTest, ReadOverUnixReceivesWithoutAnAddress)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", received("ab"));
    answer("recv", received("c"));
    EXPECT_FALSE(read(3));
    EXPECT_EQ("abc", buffer(3));
    const auto l_calls = calls();
    ASSERT_EQ(2U, l_calls.size());
    expectReceiving(l_calls[0], "recv", 0, 3, 0x4100);
    expectReceiving(l_calls[1], "recv", 2, 1, 0x4100);
}

TEST_F(SockChannelCallsTest, PeekThatGetsAllCostsOneCall)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("abcd"));
    EXPECT_FALSE(peek(4));
    EXPECT_EQ(4U, iv_Count);
    ASSERT_EQ("recvfrom", fakeSockets::sequence());
    expectReceiving(calls()[0], "recvfrom", 0, 4, 0x4102);

    fakeSockets::forget();
    open(SOCK_TYPE_UNIX);
    fakeSockets::forget();
    answer("recv", received("abcd"));
    EXPECT_FALSE(peek(4));
    ASSERT_EQ("recv", fakeSockets::sequence());
    expectReceiving(calls()[0], "recv", 0, 4, 0x4102);
}

TEST_F(SockChannelCallsTest, InterruptedReceivingIsRepeatedSilently)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", failed(EINTR));
    answer("recvfrom", received("a"));
    answer("recvfrom", failed(EINTR));
    answer("recvfrom", failed(EINTR));
    answer("recvfrom", received("b"));
    EXPECT_FALSE(read(2));
    EXPECT_EQ(2U, iv_Count);
    EXPECT_EQ("ab", buffer(2));
    EXPECT_EQ(5U, calls().size());
}

TEST_F(SockChannelCallsTest, EndOfTheConnectionReportsThePartReceived)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("abc"));
    answer("recvfrom", {0});
    expectError(
        read(10), 9, 0x440D,
        "SockChannel::Connection Closed Fd[900] Flags[00004100] Req[10] "
        "Recv[3]");
    EXPECT_EQ(3U, iv_Count);
}

TEST_F(SockChannelCallsTest, EndOfTheConnectionInAPeekShowsThePeeksFlags)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", {0});
    expectError(peek(5), 9, 0x440D,
                "SockChannel::Connection Closed Fd[900] Flags[00004102] Req[5] "
                "Recv[0]");
    EXPECT_EQ(0U, iv_Count);
}

TEST_F(SockChannelCallsTest, UnreachablePeerReportsThePartReceived)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("abc"));
    answer("recvfrom", failed(EHOSTDOWN));
    const pError_t l_error = read(10);
    expectError(l_error, 9, 0x440D,
                "SockChannel::Peer unreachable, connection closed Fd[900] "
                "Flags[00004100] Req[10] Recv[3]");
    EXPECT_EQ(112, l_error->getErrno());
    EXPECT_EQ(3U, iv_Count);
}

TEST_F(SockChannelCallsTest, ReceiveErrorReportsThePartAsNothing)
{
    for (const int l_errno :
         {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EFAULT, EINVAL, ENOMEM,
          ENOTCONN, ENOTSOCK, ETIMEDOUT, EHOSTUNREACH, ENETDOWN})
    {
        open(SOCK_TYPE_TCP);
        answer("recvfrom", received("abc"));
        answer("recvfrom", failed(l_errno));
        const pError_t l_error = read(10);
        expectError(l_error, 9, 0x440B,
                    "SockChannel::Receive Error Fd[900] Flags[00004100] "
                    "Req[10] Recv[3]");
        EXPECT_EQ(l_errno, l_error->getErrno());
        EXPECT_EQ(0U, iv_Count);
    }
}

TEST_F(SockChannelCallsTest, ChannelCanBeUsedAfterAnError)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", failed(ENOMEM));
    answer("recvfrom", received("ab"));
    EXPECT_TRUE(read(2));
    EXPECT_FALSE(read(2));
    EXPECT_EQ(2U, iv_Count);
}

TEST_F(SockChannelCallsTest, NoHandleReceivesNothing)
{
    iv_Channel = std::make_unique<SockChannel>(OS_INVALID, SOCK_TYPE_TCP);
    iv_Channel->setTimeOut(TimeValue(1));
    expectError(read(10), 9, 0x440E,
                "The OS_HANDLE is not currently valid, operation aborted");
    EXPECT_EQ(0U, iv_Count);
    expectError(peek(10), 9, 0x440E,
                "The OS_HANDLE is not currently valid, operation aborted");
    EXPECT_EQ(0U, iv_Count);
    EXPECT_FALSE(iv_Channel->isAlive());
    EXPECT_TRUE(calls().empty());
}

TEST_F(SockChannelCallsTest, FailureEndsTheReceivingWithoutMemoryForAnError)
{
    for (const fakeSockets::Answer& l_failure :
         {fakeSockets::Answer{0}, failed(EHOSTDOWN), failed(ENOMEM)})
    {
        fakeSockets::forget();
        iv_Channel = std::make_unique<PoorChannel>(HANDLE, SOCK_TYPE_TCP);
        fakeSockets::forget();
        answer("recvfrom", l_failure);
        answer("recvfrom", received("abcd")); // that nobody asks for
        EXPECT_FALSE(read(4));
        EXPECT_EQ(0U, iv_Count);
        EXPECT_EQ("recvfrom", fakeSockets::sequence());
    }
    fakeSockets::forget();
}

// Receiving with the time-out on.

TEST_F(SockChannelCallsTest, TimedReadWaitsThenLooksForAPendingError)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("abc"));
    answerReady();
    answer("recvfrom", received("d"));
    EXPECT_FALSE(read(4));
    EXPECT_EQ(4U, iv_Count);
    EXPECT_EQ("abcd", buffer(4));
    EXPECT_FALSE(iv_Channel->isTimedOut());
    const auto l_calls = calls();
    ASSERT_EQ("select getsockopt recvfrom select getsockopt recvfrom",
              fakeSockets::sequence());
    EXPECT_EQ(HANDLE + 1, l_calls[0].flags);
    EXPECT_EQ(7, l_calls[0].limit.tv_sec);
    EXPECT_EQ(5, l_calls[0].limit.tv_usec);
    EXPECT_EQ(SOL_SOCKET, l_calls[1].level);
    EXPECT_EQ(SO_ERROR, l_calls[1].option);
    EXPECT_EQ(sizeof(int), l_calls[1].length);
    expectReceiving(l_calls[2], "recvfrom", 0, 4, 0x4000);
    expectReceiving(l_calls[5], "recvfrom", 3, 1, 0x4000);
}

TEST_F(SockChannelCallsTest, TimedPeekPassesItsFlagAlone)
{
    openTimed(SOCK_TYPE_UNIX);
    answerReady();
    answer("recv", received("abcd"));
    EXPECT_FALSE(peek(4));
    ASSERT_EQ("select getsockopt recv", fakeSockets::sequence());
    expectReceiving(calls()[2], "recv", 0, 4, 0x4002);
}

TEST_F(SockChannelCallsTest, TimeOutIsNoErrorAndLeavesAChannelThatPolls)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("abc"));
    answer("select", {0});
    errno = 0;
    EXPECT_FALSE(read(10));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(3U, iv_Count);
    EXPECT_TRUE(iv_Channel->isTimedOut());
    EXPECT_EQ(TimeValue(), iv_Channel->getTimeOut());
    EXPECT_TRUE(iv_Channel->isTimeOutEnabled());

    fakeSockets::forget();
    answer("select", {0});
    EXPECT_FALSE(read(10));
    EXPECT_EQ(0U, iv_Count);
    ASSERT_EQ("select", fakeSockets::sequence());
    EXPECT_EQ(0, calls()[0].limit.tv_sec);
    EXPECT_EQ(0, calls()[0].limit.tv_usec);
}

TEST_F(SockChannelCallsTest, EachWaitHasWhatTheOnesBeforeHaveLeft)
{
    openTimed(SOCK_TYPE_TCP);
    const timeval l_half = {3, 4};
    const timeval l_little = {0, 2};
    answer("select", {1, 0, bytesOf(l_half)});
    answer("getsockopt", {0, 0, bytesOf(0)});
    answer("recvfrom", received("abc"));
    answer("select", {-1, EINTR, bytesOf(l_little)});
    answer("select", {0});
    EXPECT_FALSE(read(10));
    const auto l_waits = callsOf("select");
    ASSERT_EQ(3U, l_waits.size());
    EXPECT_EQ(3, l_waits[1].limit.tv_sec);
    EXPECT_EQ(4, l_waits[1].limit.tv_usec);
    EXPECT_EQ(0, l_waits[2].limit.tv_sec);
    EXPECT_EQ(2, l_waits[2].limit.tv_usec);
}

TEST_F(SockChannelCallsTest, NextReadClearsTheMarkOfATimeOut)
{
    openTimed(SOCK_TYPE_TCP);
    answer("select", {0});
    EXPECT_FALSE(read(10));
    EXPECT_TRUE(iv_Channel->isTimedOut());
    answerReady();
    answer("recvfrom", received("a"));
    EXPECT_FALSE(read(1));
    EXPECT_FALSE(iv_Channel->isTimedOut());
}

TEST_F(SockChannelCallsTest, ReadWithoutATimeOutClearsTheMarkOfOneToo)
{
    openTimed(SOCK_TYPE_TCP);
    answer("select", {0});
    EXPECT_FALSE(read(4));
    iv_Channel->clearTimeOut();
    answer("recvfrom", received("abc"));
    answer("recvfrom", received("d"));
    EXPECT_FALSE(read(4));
    EXPECT_EQ(4U, iv_Count);
    EXPECT_FALSE(iv_Channel->isTimedOut());
}

TEST_F(SockChannelCallsTest, InterruptedWaitGoesOn)
{
    openTimed(SOCK_TYPE_TCP);
    answer("select", failed(EINTR));
    answerReady();
    answer("recvfrom", failed(EINTR));
    answerReady();
    answer("recvfrom", received("a"));
    EXPECT_FALSE(read(1));
    EXPECT_EQ(1U, iv_Count);
    EXPECT_EQ("select select getsockopt recvfrom select getsockopt recvfrom",
              fakeSockets::sequence());
}

TEST_F(SockChannelCallsTest, FailedWaitReportsErrno)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("abc"));
    answer("select", failed(EBADF));
    const pError_t l_error = read(10);
    expectError(l_error, 9, 0x4426, "SockChannel::select failed, Errno[9]");
    EXPECT_EQ(EBADF, l_error->getErrno());
    EXPECT_EQ(3U, iv_Count);
    EXPECT_FALSE(iv_Channel->isTimedOut());
}

TEST_F(SockChannelCallsTest, FailedLookForAPendingErrorReportsErrno)
{
    openTimed(SOCK_TYPE_TCP);
    answerReady();
    answer("recvfrom", received("abc"));
    answer("select", {1});
    answer("getsockopt", failed(ENOTSOCK));
    const pError_t l_error = read(10);
    expectError(l_error, 9, 0x4411,
                "SockChannel::getsockopt failed, Errno[88]");
    EXPECT_EQ(ENOTSOCK, l_error->getErrno());
    EXPECT_EQ(3U, iv_Count);
}

TEST_F(SockChannelCallsTest, PendingErrorIsReportedWithTheOriginOfConnections)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        openTimed(l_type);
        answerReady();
        answer(l_type == SOCK_TYPE_UNIX ? "recv" : "recvfrom", received("abc"));
        answer("select", {1});
        answer("getsockopt", {0, 0, bytesOf(int(ECONNREFUSED))});
        const pError_t l_error = read(10);
        expectError(l_error, 5, 0x4425,
                    "SockChannel: getsockopt returned SO_ERROR[111]");
        EXPECT_EQ(ECONNREFUSED, l_error->getErrno());
        EXPECT_EQ(3U, iv_Count);
    }
}

TEST_F(SockChannelCallsTest, PendingErrorOfSctpIsLeftToTheReceiving)
{
    openTimed(SOCK_TYPE_SCTP);
    answer("select", {1});
    answer("getsockopt", {0, 0, bytesOf(int(ECONNREFUSED))});
    answer("recvmsg", received("a"));
    EXPECT_FALSE(read(1));
    EXPECT_EQ(1U, iv_Count);
}

TEST_F(SockChannelCallsTest, TimedReadReportsTheSameFourOutcomes)
{
    const auto l_readAfter = [this](const fakeSockets::Answer& i_answer)
    {
        openTimed(SOCK_TYPE_TCP);
        answerReady();
        answer("recvfrom", received("abc"));
        answerReady();
        answer("recvfrom", i_answer);
        return read(10);
    };
    expectError(l_readAfter({0}), 9, 0x440D,
                "SockChannel::Connection Closed Fd[900] Flags[00004000] "
                "Req[10] Recv[3]");
    EXPECT_EQ(3U, iv_Count);
    expectError(l_readAfter(failed(EHOSTDOWN)), 9, 0x440D,
                "SockChannel::Peer unreachable, connection closed Fd[900] "
                "Flags[00004000] Req[10] Recv[3]");
    EXPECT_EQ(3U, iv_Count);
    expectError(l_readAfter(failed(ENOMEM)), 9, 0x440B,
                "SockChannel::Receive Error Fd[900] Flags[00004000] Req[10] "
                "Recv[3]");
    EXPECT_EQ(0U, iv_Count);
}

TEST_F(SockChannelCallsTest, TimeOutBeyondTheSystemsRangeIsTheLongest)
{
    open(SOCK_TYPE_TCP)
        .setTimeOut(TimeValue(std::numeric_limits<unsigned int>::max()));
    answer("select", {0});
    EXPECT_FALSE(read(1));
    ASSERT_EQ(1U, calls().size());
    EXPECT_GE(calls()[0].limit.tv_sec,
              std::numeric_limits<std::int32_t>::max());
}

TEST_F(SockChannelCallsTest, FailedWaitEndsItWithoutMemoryForAnError)
{
    const auto l_read = [this]
    {
        iv_Channel = std::make_unique<PoorChannel>(HANDLE, SOCK_TYPE_TCP);
        iv_Channel->setTimeOut(TimeValue(7));
        answerReady(); // that nobody asks for
        answer("recvfrom", received("abcd"));
        EXPECT_FALSE(read(4));
        EXPECT_EQ(0U, iv_Count);
        EXPECT_TRUE(callsOf("recvfrom").empty());
        fakeSockets::forget();
    };
    answer("select", failed(EBADF));
    l_read();
    answer("select", {1});
    answer("getsockopt", failed(ENOTSOCK));
    l_read();
    answer("select", {1});
    answer("getsockopt", {0, 0, bytesOf(int(ECONNREFUSED))});
    l_read();
}

TEST_F(SockChannelCallsTest, EveryErrorIsBuiltWithTheLibrarysTraceDescriptor)
{
    g_TolvTraceDesc = 1234;
    char l_buffer[4] = {};
    unsigned int l_count = sizeof(l_buffer);
    PoorChannel l_none(OS_INVALID, SOCK_TYPE_TCP);
    EXPECT_FALSE(l_none.Read(l_buffer, l_count));
    EXPECT_FALSE(l_none.Write(l_buffer, l_count));
    EXPECT_EQ(std::vector<int>(2, 1234), l_none.iv_TraceDescs);

    PoorChannel l_channel(HANDLE, SOCK_TYPE_TCP);
    const auto l_read = [&]
    {
        l_count = sizeof(l_buffer);
        EXPECT_FALSE(l_channel.Read(l_buffer, l_count));
    };
    answer("recvfrom", {0});
    l_read();
    answer("recvfrom", failed(EHOSTDOWN));
    l_read();
    answer("recvfrom", failed(ENOMEM));
    l_read();
    answer("sendto", failed(EPIPE));
    EXPECT_FALSE(l_channel.Write(l_buffer, l_count));
    l_channel.setTimeOut(TimeValue(7));
    answer("select", failed(EBADF));
    l_read();
    answer("select", {1});
    answer("getsockopt", failed(ENOTSOCK));
    l_read();
    answer("select", {1});
    answer("getsockopt", {0, 0, bytesOf(int(ECONNREFUSED))});
    l_read();
    EXPECT_EQ(std::vector<int>(7, 1234), l_channel.iv_TraceDescs);
}

// Sending.

TEST_F(SockChannelCallsTest, WriteOverUnixSendsWithoutAnAddress)
{
    open(SOCK_TYPE_UNIX);
    answer("send", {4});
    EXPECT_FALSE(write("abcd"));
    EXPECT_EQ(4U, iv_Count);
    ASSERT_EQ("send", fakeSockets::sequence());
    const Call l_call = calls()[0];
    EXPECT_EQ(HANDLE, l_call.handle);
    EXPECT_EQ("abcd", l_call.bytes);
    EXPECT_EQ(0x4000, l_call.flags);
}

TEST_F(SockChannelCallsTest, WriteSendsToTheRemoteAddress)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_SCTP})
    {
        open(l_type);
        fakeSockets::forget();
        SockAddr_t l_peer = address("192.0.2.1", 4660);
        l_peer.length = 0; // as after a receiving over TCP
        iv_Channel->setRemoteAddress(l_peer);
        answer("sendto", {4});
        EXPECT_FALSE(write("abcd"));
        EXPECT_EQ(4U, iv_Count);
        ASSERT_EQ("sendto", fakeSockets::sequence());
        const Call l_call = calls()[0];
        EXPECT_EQ(HANDLE, l_call.handle);
        EXPECT_EQ("abcd", l_call.bytes);
        EXPECT_EQ(0x4000, l_call.flags);
        EXPECT_EQ(bytesOf(l_peer.addr.in), l_call.peer);
    }
}

TEST_F(SockChannelCallsTest, InterruptedSendIsRepeated)
{
    open(SOCK_TYPE_TCP);
    answer("sendto", failed(EINTR));
    answer("sendto", failed(EINTR));
    answer("sendto", {2});
    EXPECT_FALSE(write("ab"));
    EXPECT_EQ(2U, iv_Count);
    EXPECT_EQ(3U, calls().size());
}

TEST_F(SockChannelCallsTest, ShortSendIsNoError)
{
    open(SOCK_TYPE_UNIX);
    answer("send", {3});
    EXPECT_FALSE(write("abcdef"));
    EXPECT_EQ(3U, iv_Count);
    answer("send", {0});
    EXPECT_FALSE(write("abcdef"));
    EXPECT_EQ(0U, iv_Count);
    EXPECT_EQ(2U, callsOf("send").size());
}

TEST_F(SockChannelCallsTest, FailedSendTellsTheRequestedCountAndSetsItToZero)
{
    for (const int l_errno : {EPIPE, ECONNRESET, EAGAIN, EMSGSIZE, EHOSTDOWN})
    {
        open(SOCK_TYPE_TCP);
        answer("sendto", failed(l_errno));
        const pError_t l_error = write("abcdef");
        expectError(l_error, 10, 0x440F,
                    "SockChannel::Write failed fd[900] io_Bytes[6]");
        EXPECT_EQ(l_errno, l_error->getErrno());
        EXPECT_EQ(0U, iv_Count);
    }
}

TEST_F(SockChannelCallsTest, NoHandleSendsNothingAndLeavesTheCount)
{
    iv_Channel = std::make_unique<SockChannel>(OS_INVALID, SOCK_TYPE_TCP);
    expectError(write("abcdef"), 10, 0x440E,
                "The OS_HANDLE is not currently valid, write not attempted");
    EXPECT_EQ(6U, iv_Count);
    EXPECT_TRUE(calls().empty());
}

TEST_F(SockChannelCallsTest, WriteHasNoTimeOut)
{
    openTimed(SOCK_TYPE_TCP);
    answer("sendto", {2});
    EXPECT_FALSE(write("ab"));
    EXPECT_EQ("sendto", fakeSockets::sequence());
}

// Liveness.

TEST_F(SockChannelCallsTest, ChannelIsAliveWhenAByteIsThere)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("ab"));
    EXPECT_TRUE(iv_Channel->isAlive());
    EXPECT_EQ(2U, calls()[0].length);
    EXPECT_EQ(0x4102, calls()[0].flags);

    answer("recvfrom", received("a")); // the last one
    answer("poll", {1});
    answer("recvfrom", received("a"));
    answer("getsockopt", {0, 0, bytesOf(0)});
    EXPECT_TRUE(iv_Channel->isAlive());
}

TEST_F(SockChannelCallsTest, ChannelIsNotAliveWhenNothingCanBeRead)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", {0});
    EXPECT_FALSE(iv_Channel->isAlive());
    answer("recvfrom", failed(ECONNRESET));
    EXPECT_FALSE(iv_Channel->isAlive());
    iv_Channel->setTimeOut(TimeValue(1));
    answer("select", {0});
    EXPECT_FALSE(iv_Channel->isAlive());
}

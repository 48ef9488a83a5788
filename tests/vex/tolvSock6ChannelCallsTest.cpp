#include "tolv/vex/tolvSock6Channel.hpp"

#include "support/answeredChannel.hpp"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

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
using fakeSockets::valueOf;

namespace
{

using Sock6ChannelCallsTest = AnsweredChannelTest<Sock6Channel>;

// One control message as the kernel writes it, padding included.
template <class T>
std::string control(int i_level, int i_type, const T& i_content)
{
    cmsghdr l_head = {};
    l_head.cmsg_len = CMSG_LEN(sizeof(i_content));
    l_head.cmsg_level = i_level;
    l_head.cmsg_type = i_type;
    std::string l_bytes = bytesOf(l_head);
    l_bytes.resize(CMSG_LEN(0));
    l_bytes += bytesOf(i_content);
    l_bytes.resize(CMSG_SPACE(sizeof(i_content)));
    return l_bytes;
}

in_pktinfo pktInfo(const char* i_local, const char* i_destination)
{
    in_pktinfo l_info = {};
    l_info.ipi_ifindex = 3;
    EXPECT_EQ(1, inet_pton(AF_INET, i_local, &l_info.ipi_spec_dst));
    EXPECT_EQ(1, inet_pton(AF_INET, i_destination, &l_info.ipi_addr));
    return l_info;
}

in6_pktinfo pkt6Info(const char* i_address)
{
    in6_pktinfo l_info = {};
    EXPECT_EQ(1, inet_pton(AF_INET6, i_address, &l_info.ipi6_addr));
    l_info.ipi6_ifindex = 4;
    return l_info;
}

std::string v4(const char* i_local = "192.0.2.1",
               const char* i_destination = "192.0.2.255")
{
    return control(IPPROTO_IP, IP_PKTINFO, pktInfo(i_local, i_destination));
}

std::string v6(const char* i_address = "2001:db8::1")
{
    return control(IPPROTO_IPV6, IPV6_PKTINFO, pkt6Info(i_address));
}

fakeSockets::Answer arrived(const std::string& i_bytes,
                            const std::string& i_control)
{
    fakeSockets::Answer l_answer = received(i_bytes);
    l_answer.control = i_control;
    return l_answer;
}

Sock6Addr_t address(const char* i_host, unsigned short i_port)
{
    Sock6Addr_t l_addr = {};
    l_addr.addr.in6.sin6_family = AF_INET6;
    l_addr.addr.in6.sin6_port = htons(i_port);
    EXPECT_EQ(1, inet_pton(AF_INET6, i_host, &l_addr.addr.in6.sin6_addr));
    l_addr.length = sizeof(l_addr.addr.in6);
    return l_addr;
}

// What a send carries, with no padding behind.
template <class T>
void expectSource(const Call& i_call, int i_level, int i_type,
                  const T& i_content)
{
    const std::size_t l_length = CMSG_LEN(sizeof(i_content));
    ASSERT_EQ(l_length, i_call.control.size());
    const cmsghdr l_head = valueOf<cmsghdr>(i_call.control);
    EXPECT_EQ(l_length, l_head.cmsg_len);
    EXPECT_EQ(i_level, l_head.cmsg_level);
    EXPECT_EQ(i_type, l_head.cmsg_type);
    EXPECT_EQ(bytesOf(i_content), i_call.control.substr(CMSG_LEN(0)));
}

} // namespace

TEST_F(Sock6ChannelCallsTest, ReadReceivesAMessageWithItsSenderAndControl)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP})
    {
        open(l_type);
        fakeSockets::forget();
        answer("recvmsg", received("abc"));
        answer("recvmsg", received("d"));
        EXPECT_FALSE(read(4));
        EXPECT_EQ("abcd", buffer(4));
        const auto l_calls = calls();
        ASSERT_EQ(2U, l_calls.size());
        expectReceiving(l_calls[0], "recvmsg", 0, 4, 0x4100);
        expectReceiving(l_calls[1], "recvmsg", 3, 1, 0x4100);
        for (const Call& l_call : l_calls)
        {
            EXPECT_EQ(28U, l_call.peer.size());
            EXPECT_EQ(1, l_call.option);
            EXPECT_EQ(1024U, l_call.control.size());
        }
    }
}

TEST_F(Sock6ChannelCallsTest, PeekReceivesFromWithoutControl)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP})
    {
        open(l_type);
        fakeSockets::forget();
        answer("recvfrom", received("abcd"));
        EXPECT_FALSE(peek(4));
        ASSERT_EQ("recvfrom", fakeSockets::sequence());
        expectReceiving(calls()[0], "recvfrom", 0, 4, 0x4102);
        EXPECT_EQ(28U, calls()[0].peer.size());
    }
}

TEST_F(Sock6ChannelCallsTest, UnixSocketsHaveNoAddressesAndNoControl)
{
    open(SOCK_TYPE_UNIX);
    answer("recv", received("ab"));
    EXPECT_FALSE(read(2));
    answer("recv", received("ab"));
    EXPECT_FALSE(peek(2));
    answer("send", {2});
    EXPECT_FALSE(write("ab"));
    ASSERT_EQ("recv recv send", fakeSockets::sequence());
    EXPECT_EQ(0x4100, calls()[0].flags);
    EXPECT_EQ(0x4102, calls()[1].flags);
    EXPECT_EQ(0x4000, calls()[2].flags);
    EXPECT_EQ("ab", calls()[2].bytes);
}

TEST_F(Sock6ChannelCallsTest, TimedReceivingUsesTheSameCalls)
{
    openTimed(SOCK_TYPE_UDP);
    answerReady();
    answer("recvmsg", arrived("ab", v6()));
    EXPECT_FALSE(read(2));
    answerReady();
    answer("recvfrom", received("ab"));
    EXPECT_FALSE(peek(2));
    ASSERT_EQ("select getsockopt recvmsg select getsockopt recvfrom",
              fakeSockets::sequence());
    EXPECT_EQ(0x4000, calls()[2].flags);
    EXPECT_EQ(0x4002, calls()[5].flags);
    EXPECT_STREQ("2001:db8::1", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, MessagesCarryTheClass)
{
    open(SOCK_TYPE_TCP);
    answer("recvmsg", {0});
    expectError(read(5), 9, 0x440D,
                "Sock6Channel::Connection Closed Fd[900] Flags[00004100] "
                "Req[5] Recv[0]");
    answer("recvmsg", failed(EHOSTDOWN));
    expectError(read(5), 9, 0x440D,
                "Sock6Channel::Peer unreachable, connection closed Fd[900] "
                "Flags[00004100] Req[5] Recv[0]");
    answer("recvmsg", failed(ECONNRESET));
    expectError(read(5), 9, 0x440B,
                "Sock6Channel::Receive Error Fd[900] Flags[00004100] Req[5] "
                "Recv[0]");
    answer("sendmsg", failed(EPIPE));
    expectError(write("abc"), 10, 0x440F,
                "Sock6Channel::Write failed fd[900] io_Bytes[3]");
    EXPECT_EQ(0U, iv_Count);
    iv_Channel->setTimeOut(TimeValue(1));
    answer("select", failed(EINVAL));
    expectError(read(5), 9, 0x4426, "Sock6Channel::select failed, Errno[22]");
    answer("select", {1});
    answer("getsockopt", failed(EBADF));
    expectError(read(5), 9, 0x4411,
                "Sock6Channel::getsockopt failed, Errno[9]");
    answer("select", {1});
    answer("getsockopt", {0, 0, bytesOf(int(EPIPE))});
    expectError(read(5), 5, 0x4425,
                "Sock6Channel: getsockopt returned SO_ERROR[32]");
}

TEST_F(Sock6ChannelCallsTest, NoHandleHasTheSameTexts)
{
    iv_Channel = std::make_unique<Sock6Channel>(OS_INVALID, SOCK_TYPE_UDP);
    expectError(read(10), 9, 0x440E,
                "The OS_HANDLE is not currently valid, operation aborted");
    EXPECT_EQ(0U, iv_Count);
    expectError(write("abcdef"), 10, 0x440E,
                "The OS_HANDLE is not currently valid, write not attempted");
    EXPECT_EQ(6U, iv_Count);
    EXPECT_TRUE(calls().empty());
}

TEST_F(Sock6ChannelCallsTest, FirstSendCarriesEmptyIpv4PacketInformation)
{
    open(SOCK_TYPE_UDP);
    const Sock6Addr_t l_peer = address("2001:db8::7", 4660);
    iv_Channel->setRemoteAddress(l_peer);
    answer("sendmsg", {4});
    EXPECT_FALSE(write("abcd"));
    EXPECT_EQ(4U, iv_Count);
    ASSERT_EQ("sendmsg", fakeSockets::sequence());
    const Call l_call = calls()[0];
    EXPECT_EQ(HANDLE, l_call.handle);
    EXPECT_EQ("abcd", l_call.bytes);
    EXPECT_EQ(1, l_call.option);
    EXPECT_EQ(bytesOf(l_peer.addr.in6), l_call.peer);
    expectSource(l_call, 0, 8, in_pktinfo());
#if __SIZEOF_POINTER__ == 4
    EXPECT_EQ(24U, l_call.control.size());
#endif
}

TEST_F(Sock6ChannelCallsTest, SendPassesNoFlags)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP})
    {
        open(l_type);
        answer("sendmsg", {1});
        EXPECT_FALSE(write("a"));
        EXPECT_EQ(0, callsOf("sendmsg").back().flags);
    }
}

TEST_F(Sock6ChannelCallsTest, SendCarriesWhereTheLastPacketArrived)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP})
    {
        open(l_type);
        answer("recvmsg", arrived("a", v6()));
        EXPECT_FALSE(read(1));
        answer("sendmsg", {1});
        EXPECT_FALSE(write("a"));
        expectSource(calls().back(), 41, 50, pkt6Info("2001:db8::1"));
#if __SIZEOF_POINTER__ == 4
        EXPECT_EQ(32U, calls().back().control.size());
#endif

        answer("recvmsg", arrived("a", v4()));
        EXPECT_FALSE(read(1));
        answer("sendmsg", {1});
        EXPECT_FALSE(write("a"));
        expectSource(calls().back(), 0, 8, pktInfo("192.0.2.1", "192.0.2.255"));
    }
}

TEST_F(Sock6ChannelCallsTest, LastOfSeveralControlMessagesCounts)
{
    open(SOCK_TYPE_UDP);
    const std::string l_other = control(IPPROTO_IPV6, IPV6_HOPLIMIT, int(64));
    answer("recvmsg", arrived("a", v6("::ffff:192.0.2.1") + l_other + v4()));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("192.0.2.1", iv_Channel->getLocalAddress());
    answer("recvmsg", arrived("a", v4() + v6() + l_other));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("2001:db8::1", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, EachPartOfAReadMayMoveTheLocalAddress)
{
    open(SOCK_TYPE_UDP);
    answer("recvmsg", arrived("a", v6("2001:db8::1")));
    answer("recvmsg", arrived("b", v6("2001:db8::2")));
    EXPECT_FALSE(read(2));
    EXPECT_STREQ("2001:db8::2", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, EmptyOrFailedReceivingKeepsTheLocalAddress)
{
    open(SOCK_TYPE_UDP);
    answer("recvmsg", arrived("a", v6("2001:db8::1")));
    EXPECT_FALSE(read(1));
    answer("recvmsg", arrived("", v6("2001:db8::2")));
    EXPECT_TRUE(read(1));
    fakeSockets::Answer l_failed = failed(ENOMEM);
    l_failed.control = v6("2001:db8::3");
    answer("recvmsg", l_failed);
    EXPECT_TRUE(read(1));
    EXPECT_STREQ("2001:db8::1", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, ControlMessageThatIsTooShortIsNotTaken)
{
    open(SOCK_TYPE_UDP);
    const std::string l_short6 = control(IPPROTO_IPV6, IPV6_PKTINFO, int(1));
    const std::string l_short4 = control(IPPROTO_IP, IP_PKTINFO, int(1));
    answer("recvmsg", arrived("a", l_short6));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("0.0.0.0", iv_Channel->getLocalAddress());
    answer("recvmsg", arrived("a", v6()));
    EXPECT_FALSE(read(1));
    answer("recvmsg", arrived("a", l_short4));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("2001:db8::1", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, SameNumberAtAnotherLevelIsNotTaken)
{
    open(SOCK_TYPE_UDP);
    answer("recvmsg",
           arrived("a",
                   control(IPPROTO_IP, IPV6_PKTINFO, pkt6Info("2001:db8::1")) +
                       control(IPPROTO_IPV6, IP_PKTINFO,
                               pktInfo("192.0.2.1", "192.0.2.1"))));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("0.0.0.0", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, LocalAddressIsToldForUdpOnly)
{
    open(SOCK_TYPE_UDP);
    EXPECT_STREQ("0.0.0.0", iv_Channel->getLocalAddress());
    open(SOCK_TYPE_TCP);
    answer("recvmsg", arrived("a", v6()));
    EXPECT_FALSE(read(1));
    EXPECT_STREQ("", iv_Channel->getLocalAddress());
    open(SOCK_TYPE_UNIX);
    EXPECT_STREQ("", iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelCallsTest, InterruptedSendIsRepeated)
{
    open(SOCK_TYPE_TCP);
    answer("sendmsg", failed(EINTR));
    answer("sendmsg", {1});
    EXPECT_FALSE(write("ab"));
    EXPECT_EQ(1U, iv_Count);
    EXPECT_EQ(2U, calls().size());
}

TEST_F(Sock6ChannelCallsTest, NotificationsAreNothingSpecial)
{
    open(SOCK_TYPE_TCP);
    fakeSockets::Answer l_answer = received(std::string("\x80\x01\0\0\0\0", 6));
    l_answer.flags = 0x8000;
    answer("recvmsg", l_answer);
    EXPECT_FALSE(read(6));
    EXPECT_EQ("recvmsg", fakeSockets::sequence());
}

TEST_F(Sock6ChannelCallsTest, ShortPeekCountsFromTheFirstByte)
{
    open(SOCK_TYPE_TCP);
    answer("recvfrom", received("0123456789"));
    answer("poll", {0});
    answer("recvfrom", received("0123456789abcdef"));
    EXPECT_FALSE(peek(16));
    EXPECT_EQ(16U, iv_Count);
    EXPECT_EQ("0123456789abcdef", buffer(16));
}

TEST_F(Sock6ChannelCallsTest, LongAddressLeavesTheTextAsItWas)
{
    open(SOCK_TYPE_TCP);
    iv_Channel->setRemoteAddress(address("2001:db8::1:2:3:4", 1));
    EXPECT_STREQ("", iv_Channel->getRemoteAddress());
    iv_Channel->setRemoteAddress(address("2001:db8::1234", 1)); // 14
    EXPECT_STREQ("2001:db8::1234", iv_Channel->getRemoteAddress());
    iv_Channel->setRemoteAddress(address("2001:db8:1::1234", 1)); // 16
    EXPECT_STREQ("2001:db8::1234", iv_Channel->getRemoteAddress());
    iv_Channel->setRemoteAddress(address("2001:db8::1:1234", 1));
    EXPECT_STREQ("2001:db8::1234", iv_Channel->getRemoteAddress());
    iv_Channel->setRemoteAddress(address("2001:db8::12:123", 1));
    EXPECT_STREQ("2001:db8::1234", iv_Channel->getRemoteAddress());
    iv_Channel->setRemoteAddress(address("2001:db8::1:123", 1)); // 15
    EXPECT_STREQ("2001:db8::1:123", iv_Channel->getRemoteAddress());
}

TEST_F(Sock6ChannelCallsTest, UdpAlwaysTellsTheWholeAddress)
{
    open(SOCK_TYPE_UDP);
    const char* const l_long = "2001:db8:1111:2222:3333:4444:5555:6666";
    iv_Channel->setRemoteAddress(address(l_long, 1));
    EXPECT_STREQ(l_long, iv_Channel->getRemoteAddress());
}

TEST_F(Sock6ChannelCallsTest, PortIsInNetworkByteOrder)
{
    open(SOCK_TYPE_TCP);
    iv_Channel->setRemoteAddress(address("::1", 0x1234));
    EXPECT_EQ(htons(0x1234), iv_Channel->getPort());
    open(SOCK_TYPE_UNIX).setRemoteAddress(address("::1", 0x1234));
    EXPECT_EQ(0, iv_Channel->getPort());
}

TEST_F(Sock6ChannelCallsTest, UnixPeerHasItsPath)
{
    open(SOCK_TYPE_UNIX);
    Sock6Addr_t l_addr = {};
    l_addr.addr.un.sun_family = AF_UNIX;
    std::memset(l_addr.addr.un.sun_path, 'p', sizeof(l_addr.addr.un.sun_path));
    iv_Channel->setRemoteAddress(l_addr);
    EXPECT_EQ(std::string(108, 'p'), iv_Channel->getRemoteAddress());
}

TEST_F(Sock6ChannelCallsTest, ThereIsNothingToRefresh)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        open(l_type);
        fakeSockets::forget();
        EXPECT_EQ(0, iv_Channel->RefreshChannel());
        EXPECT_TRUE(calls().empty());
    }
}

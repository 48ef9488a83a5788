#include "tolv/vex/tolvSock6Channel.hpp"

#include "support/loopback.hpp"
#include "support/ownNetwork.hpp"
#include "support/waitFor.hpp"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <memory>
#include <string>
#include <utility>

using namespace tolv;

namespace
{

const std::string WHOLE = "0123456789abcdefghijklmnopqrstuv"; // 32 bytes

// What the tests of arrival add to the loopback's own addresses.
const char* const FIRST = "2001:db8::1";
const char* const SECOND = "2001:db8::2";

volatile std::sig_atomic_t g_signals = 0;

void countSignal(int)
{
    g_signals = g_signals + 1;
}

std::string taken(Channel& io_channel, unsigned int i_count)
{
    std::string l_bytes(i_count, '\0');
    unsigned int l_count = i_count;
    EXPECT_FALSE(io_channel.Read(l_bytes.data(), l_count));
    l_bytes.resize(l_count);
    return l_bytes;
}

std::string peeked(Channel& io_channel, unsigned int i_count)
{
    std::string l_bytes(i_count, '\0');
    unsigned int l_count = i_count;
    EXPECT_FALSE(io_channel.Peek(l_bytes.data(), l_count));
    l_bytes.resize(l_count);
    return l_bytes;
}

pError_t put(Channel& io_channel, std::string i_bytes)
{
    unsigned int l_count = static_cast<unsigned int>(i_bytes.size());
    return io_channel.Write(i_bytes.data(), l_count);
}

bool hasIpv6()
{
    const PeerSocket l_socket(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_in6 l_address = loopback6();
    return bind(l_socket.handle(), reinterpret_cast<sockaddr*>(&l_address),
                sizeof(l_address)) == 0;
}

#define SKIP_WITHOUT_IPV6()                                                    \
    if (!hasIpv6())                                                            \
    GTEST_SKIP() << "no IPv6 on this system's loopback"

// A UDP channel at all addresses of the system, as an acceptor makes it.
class Sock6ChannelUdpTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        const std::string l_why = enterOwnNetwork({FIRST, SECOND});
        if (!l_why.empty())
        {
            GTEST_SKIP() << l_why;
        }
        sockaddr_in6 l_any = {};
        l_any.sin6_family = AF_INET6;
        PeerSocket l_socket = boundSocket(SOCK_DGRAM, l_any);
        iv_Port = l_any.sin6_port;
        const int l_on = 1;
        ASSERT_EQ(0, setsockopt(l_socket.handle(), IPPROTO_IP, IP_PKTINFO,
                                &l_on, sizeof(l_on)));
        ASSERT_EQ(0, setsockopt(l_socket.handle(), IPPROTO_IPV6,
                                IPV6_RECVPKTINFO, &l_on, sizeof(l_on)));
        iv_Channel =
            std::make_unique<Sock6Channel>(l_socket.release(), SOCK_TYPE_UDP);
    }

    // Its sends go to the address; it takes answers from anywhere.
    void askAt(const PeerSocket& i_socket, int i_family,
               const std::string& i_host) const
    {
        sockaddr_storage l_address = {};
        socklen_t l_length = 0;
        l_address.ss_family = static_cast<sa_family_t>(i_family);
        if (i_family == AF_INET6)
        {
            auto* l_in6 = reinterpret_cast<sockaddr_in6*>(&l_address);
            l_in6->sin6_port = iv_Port;
            ASSERT_EQ(1,
                      inet_pton(AF_INET6, i_host.c_str(), &l_in6->sin6_addr));
            l_length = sizeof(*l_in6);
        }
        else
        {
            auto* l_in = reinterpret_cast<sockaddr_in*>(&l_address);
            l_in->sin_port = iv_Port;
            ASSERT_EQ(1, inet_pton(AF_INET, i_host.c_str(), &l_in->sin_addr));
            l_length = sizeof(*l_in);
        }
        ASSERT_EQ(3, sendto(i_socket.handle(), "ask", 3, 0,
                            reinterpret_cast<sockaddr*>(&l_address), l_length))
            << strerror(errno);
    }

    // Returns: the address that the next datagram comes from.
    static std::string answererOf(const PeerSocket& i_socket)
    {
        char l_bytes[8] = {};
        sockaddr_storage l_from = {};
        socklen_t l_length = sizeof(l_from);
        EXPECT_EQ(6, recvfrom(i_socket.handle(), l_bytes, sizeof(l_bytes), 0,
                              reinterpret_cast<sockaddr*>(&l_from), &l_length));
        char l_text[INET6_ADDRSTRLEN] = {};
        const void* l_address = nullptr;
        if (l_from.ss_family == AF_INET6)
        {
            l_address = &reinterpret_cast<sockaddr_in6*>(&l_from)->sin6_addr;
        }
        else
        {
            l_address = &reinterpret_cast<sockaddr_in*>(&l_from)->sin_addr;
        }
        inet_ntop(l_from.ss_family, l_address, l_text, sizeof(l_text));
        return l_text;
    }

    void expectAnswerFrom(int i_family, const std::string& i_host)
    {
        SCOPED_TRACE(i_host);
        const PeerSocket l_client(socket(i_family, SOCK_DGRAM, 0));
        askAt(l_client, i_family, i_host);
        EXPECT_EQ("ask", taken(*iv_Channel, 3));
        EXPECT_EQ(i_host, iv_Channel->getLocalAddress());
        EXPECT_FALSE(put(*iv_Channel, "answer"));
        EXPECT_EQ(i_host, answererOf(l_client));
    }

    std::unique_ptr<Sock6Channel> iv_Channel;
    in_port_t iv_Port = 0; // network byte order
};

} // namespace

TEST(Sock6ChannelTest, BytesGoBothWaysOverTcp)
{
    SKIP_WITHOUT_IPV6();
    SocketPair_t l_pair = tcpPair(loopback6());
    Sock6Channel l_channel(l_pair.first.release(), SOCK_TYPE_TCP);
    l_pair.second.put(WHOLE);
    EXPECT_EQ(WHOLE.substr(0, 10), peeked(l_channel, 10));
    EXPECT_EQ(WHOLE, taken(l_channel, 32));
    EXPECT_FALSE(put(l_channel, WHOLE));
    EXPECT_EQ(WHOLE, l_pair.second.take());
    EXPECT_STREQ("", l_channel.getLocalAddress());
    l_channel.setTimeOut(TimeValue(0, 1000));
    EXPECT_EQ("", taken(l_channel, 1));
    EXPECT_TRUE(l_channel.isTimedOut());
    l_pair.second.put("a");
    l_pair.second.shut();
    EXPECT_TRUE(l_channel.isAlive());
    EXPECT_EQ("a", taken(l_channel, 1));
    EXPECT_FALSE(l_channel.isAlive());
}

TEST(Sock6ChannelTest, BytesGoBothWaysOverUnixSockets)
{
    SocketPair_t l_pair = unixPair();
    Sock6Channel l_channel(l_pair.first.release(), SOCK_TYPE_UNIX);
    l_pair.second.put(WHOLE);
    EXPECT_EQ(WHOLE, peeked(l_channel, 32));
    EXPECT_EQ(WHOLE, taken(l_channel, 32));
    EXPECT_FALSE(put(l_channel, WHOLE));
    EXPECT_EQ(WHOLE, l_pair.second.take());
    EXPECT_STREQ("", l_channel.getRemoteAddress());
}

TEST(Sock6ChannelTest, PeerThatClosesAtAnyByteIsReportedWithThePart)
{
    SKIP_WITHOUT_IPV6();
    for (unsigned int l_part = 0; l_part != 32; ++l_part)
    {
        SocketPair_t l_pair = tcpPair(loopback6());
        Sock6Channel l_channel(l_pair.first.release(), SOCK_TYPE_TCP);
        l_pair.second.put(WHOLE.substr(0, l_part));
        l_pair.second.shut();
        char l_buffer[32] = {};
        unsigned int l_count = sizeof(l_buffer);
        const pError_t l_peekError = l_channel.Peek(l_buffer, l_count);
        ASSERT_TRUE(l_peekError);
        EXPECT_EQ(0x440D, l_peekError->getReason());
        EXPECT_EQ(l_part, l_count);
        l_count = sizeof(l_buffer);
        const pError_t l_readError = l_channel.Read(l_buffer, l_count);
        ASSERT_TRUE(l_readError);
        EXPECT_EQ(0x440D, l_readError->getReason());
        EXPECT_EQ(l_part, l_count);
        EXPECT_EQ(WHOLE.substr(0, l_part), std::string(l_buffer, l_part));
    }
}

TEST(Sock6ChannelTest, WriteToAClosedPeerRaisesSigpipe)
{
    SKIP_WITHOUT_IPV6();
    struct sigaction l_action = {};
    l_action.sa_handler = countSignal;
    ASSERT_EQ(0, sigaction(SIGPIPE, &l_action, nullptr));
    SocketPair_t l_pair = tcpPair(loopback6());
    Sock6Channel l_channel(l_pair.first.release(), SOCK_TYPE_TCP);
    l_pair.second.reset();
    pError_t l_error;
    EXPECT_TRUE(waitFor(
        [&]
        {
            l_error = put(l_channel, WHOLE);
            return l_error && l_error->getErrno() == EPIPE;
        }));
    EXPECT_EQ(0x440F, l_error->getReason());
    EXPECT_LE(1, g_signals);
}

TEST(Sock6ChannelTest, DumpPrintsNothing)
{
    char* l_text = nullptr;
    std::size_t l_length = 0;
    FILE* const l_stream = open_memstream(&l_text, &l_length);
    ASSERT_NE(nullptr, l_stream);
    Sock6Channel(OS_INVALID, SOCK_TYPE_TCP).Dump(l_stream);
    EXPECT_EQ(0, std::fclose(l_stream));
    EXPECT_EQ(0U, l_length);
    std::free(l_text);
}

TEST_F(Sock6ChannelUdpTest, AnswerLeavesFromWhereTheDatagramArrived)
{
    expectAnswerFrom(AF_INET6, SECOND);
    expectAnswerFrom(AF_INET6, FIRST);
    expectAnswerFrom(AF_INET6, "::1");
    expectAnswerFrom(AF_INET6, SECOND);
}

TEST_F(Sock6ChannelUdpTest, AnswerToAnIpv4PeerLeavesFromWhereItsDatagramArrived)
{
    expectAnswerFrom(AF_INET, "127.0.0.2");
    EXPECT_STREQ("::ffff:127.0.0.1", iv_Channel->getRemoteAddress());
    expectAnswerFrom(AF_INET, "127.0.0.1");
    expectAnswerFrom(AF_INET6, FIRST);
    expectAnswerFrom(AF_INET, "127.0.0.3");
}

TEST_F(Sock6ChannelUdpTest, PeekFollowsTheSenderButKeepsTheLocalAddress)
{
    expectAnswerFrom(AF_INET6, FIRST);
    const PeerSocket l_client(socket(AF_INET6, SOCK_DGRAM, 0));
    askAt(l_client, AF_INET6, SECOND);
    EXPECT_EQ("ask", peeked(*iv_Channel, 3));
    EXPECT_STREQ(FIRST, iv_Channel->getLocalAddress());
    sockaddr_in6 l_sender = {};
    socklen_t l_length = sizeof(l_sender);
    ASSERT_EQ(0,
              getsockname(l_client.handle(),
                          reinterpret_cast<sockaddr*>(&l_sender), &l_length));
    EXPECT_EQ(l_sender.sin6_port, iv_Channel->getPort());
    EXPECT_EQ("ask", taken(*iv_Channel, 3));
    EXPECT_STREQ(SECOND, iv_Channel->getLocalAddress());
}

TEST_F(Sock6ChannelUdpTest, FirstSendLeavesFromWhereTheSystemChooses)
{
    sockaddr_in6 l_address = loopback6();
    const PeerSocket l_peer = boundSocket(SOCK_DGRAM, l_address);
    Sock6Addr_t l_addr = {};
    l_addr.addr.in6 = l_address;
    l_addr.length = sizeof(l_address);
    iv_Channel->setRemoteAddress(l_addr);
    EXPECT_FALSE(put(*iv_Channel, "answer"));
    EXPECT_EQ("::1", answererOf(l_peer));
}

#include "tolv/vex/tolvSock6Acc.hpp"

#include "support/expectAbort.hpp"
#include "support/fakeCalls.hpp"
#include "support/fakeDispatcher.hpp"
#include "support/privateMember.hpp"
#include "support/recordingService.hpp"
#include "support/tempDir.hpp"
#include "tolv/vex/tolvSock6Channel.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <string>
#include <vector>

using namespace tolv;
using fakeCalls::bytesOf;
using fakeCalls::Call;

TOLV_PRIVATE_MEMBER(AcceptorPort, Sock6Acc, unsigned short, iv_Port);

namespace
{

// Of no open files: closing them does nothing.
constexpr int LISTENER = 500;
constexpr int ACCEPTED = 501;
constexpr int FLAGS = O_RDWR; // what fcntl(F_GETFL) tells

sockaddr_in6 address(const char* i_host, unsigned short i_port)
{
    sockaddr_in6 l_address = {};
    l_address.sin6_family = AF_INET6;
    l_address.sin6_port = htons(i_port);
    EXPECT_EQ(1, inet_pton(AF_INET6, i_host, &l_address.sin6_addr));
    return l_address;
}

Call option(int i_level, int i_name)
{
    const int l_on = 1;
    return {"setsockopt", {LISTENER, i_level, i_name, 4}, bytesOf(l_on)};
}

class Sock6AccTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakeCalls::start();
        fakeCalls::answer("socket", LISTENER);
        fakeCalls::answerAlways("fcntl", FLAGS);
        fakeCalls::answerAlways("setsockopt", 0);
        fakeCalls::answerAlways("bind", 0);
        fakeCalls::answerAlways("listen", 0);
        fakeCalls::answerAlways("close", 0);
        fakeCalls::answerAlways("unlink", 0);
    }

    void TearDown() override
    {
        fakeCalls::stop();
        RecordingService::forget();
    }

    Sock6Acc acceptor(SockType i_type)
    {
        return Sock6Acc(iv_Dispatcher, RecordingService::make, "::1", 80,
                        i_type);
    }

    static void expectError(const pError_t& i_error, unsigned short i_reason,
                            const char* i_text)
    {
        ASSERT_TRUE(i_error);
        EXPECT_EQ(2, i_error->getOrigin());
        EXPECT_EQ(i_reason, i_error->getReason());
        EXPECT_STREQ(i_text, i_error->getText());
    }

    FakeDispatcher iv_Dispatcher;
};

} // namespace

TEST_F(Sock6AccTest, TableHasTcpUdpAndUnix)
{
    static_assert(sizeof(Sock6Acc::ST6Array) == 48, "three rows of 16 bytes");
    EXPECT_EQ(3, Sock6Acc::ST6Asz);
    const std::int32_t l_expected[3][4] = {
        {0, 10, 1, 0}, {1, 10, 2, 0}, {2, 1, 1, 0}};
    EXPECT_EQ(0, std::memcmp(l_expected, Sock6Acc::ST6Array, 48));
}

TEST_F(Sock6AccTest, LookupFindsWhatSocketTakes)
{
    const std::int32_t* l_row = Sock6Acc::LookupSock6Properties(SOCK_TYPE_UDP);
    ASSERT_NE(nullptr, l_row);
    EXPECT_EQ((std::vector<std::int32_t>{10, 2, 0}),
              std::vector<std::int32_t>(l_row, l_row + 3));
    l_row = Sock6Acc::LookupSock6Properties(SOCK_TYPE_UNIX);
    ASSERT_NE(nullptr, l_row);
    EXPECT_EQ((std::vector<std::int32_t>{1, 1, 0}),
              std::vector<std::int32_t>(l_row, l_row + 3));
    EXPECT_EQ(nullptr, Sock6Acc::LookupSock6Properties(SOCK_TYPE_SCTP));
    EXPECT_EQ(nullptr,
              Sock6Acc::LookupSock6Properties(static_cast<SockType>(-1)));
}

TEST_F(Sock6AccTest, AddressIsFilled)
{
    Sock6Addr_t l_address = {};
    EXPECT_EQ(1, Sock6Acc::initSock6AddrStruct("fe80::1", htons(4567),
                                               l_address, SOCK_TYPE_TCP));
    EXPECT_EQ(28U, l_address.length);
    EXPECT_EQ(bytesOf(address("fe80::1", 4567)),
              bytesOf(l_address).substr(0, 28));
}

TEST_F(Sock6AccTest, NullHostIsEveryAddress)
{
    Sock6Addr_t l_address = {};
    EXPECT_EQ(1, Sock6Acc::initSock6AddrStruct(nullptr, htons(4567), l_address,
                                               SOCK_TYPE_UDP));
    EXPECT_EQ(28U, l_address.length);
    EXPECT_EQ(bytesOf(address("::", 4567)), bytesOf(l_address).substr(0, 28));
}

TEST_F(Sock6AccTest, TextThatIsNoAddressIsRefused)
{
    for (const char* l_host : {"", "localhost", "127.0.0.1", "::1::"})
    {
        Sock6Addr_t l_address = {};
        EXPECT_EQ(0, Sock6Acc::initSock6AddrStruct(l_host, 0, l_address,
                                                   SOCK_TYPE_TCP))
            << l_host;
    }
}

TEST_F(Sock6AccTest, UnixPathIsStoredWithItsFullLengthAtMost)
{
    Sock6Addr_t l_address = {};
    EXPECT_EQ(
        1, Sock6Acc::initSock6AddrStruct("/p", 1, l_address, SOCK_TYPE_UNIX));
    EXPECT_EQ(AF_UNIX, l_address.addr.un.sun_family);
    EXPECT_STREQ("/p", l_address.addr.un.sun_path);
    EXPECT_EQ(110U, l_address.length);
    EXPECT_EQ(1, Sock6Acc::initSock6AddrStruct(std::string(108, 'p').c_str(), 1,
                                               l_address, SOCK_TYPE_UNIX));
    EXPECT_EQ(0, Sock6Acc::initSock6AddrStruct(std::string(109, 'p').c_str(), 1,
                                               l_address, SOCK_TYPE_UNIX));
    EXPECT_EQ(0, Sock6Acc::initSock6AddrStruct(nullptr, 1, l_address,
                                               SOCK_TYPE_UNIX));
}

TEST_F(Sock6AccTest, OpenAsksForPacketInformationThenBindsAndListens)
{
    Sock6Acc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ((std::vector<Call>{
                  {"socket", {AF_INET6, SOCK_STREAM, 0}, ""},
                  {"fcntl", {LISTENER, F_SETFD, FD_CLOEXEC}, ""},
                  option(SOL_SOCKET, SO_REUSEADDR),
                  option(IPPROTO_IP, 8),
                  option(IPPROTO_IPV6, 49),
                  {"bind", {LISTENER, 28}, bytesOf(address("::1", 80))},
                  {"listen", {LISTENER, 10}, ""},
                  {"fcntl", {LISTENER, F_GETFL, 0}, ""},
                  {"fcntl", {LISTENER, F_SETFL, FLAGS | O_NONBLOCK}, ""}}),
              fakeCalls::calls());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(LISTENER, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(&l_acceptor, iv_Dispatcher.registrations[0].handler);
    EXPECT_EQ(2U, iv_Dispatcher.registrations[0].mask);
}

TEST_F(Sock6AccTest, FailedOptionsAreIgnored)
{
    fakeCalls::answerAlways("setsockopt", -1, EOPNOTSUPP);
    EXPECT_FALSE(acceptor(SOCK_TYPE_TCP).Open());
    EXPECT_EQ(1U, iv_Dispatcher.registrations.size());
}

TEST_F(Sock6AccTest, EverySocketGetsAllOptions)
{
    for (const SockType l_type : {SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        SetUp();
        EXPECT_FALSE(acceptor(l_type).socketOperation(LISTENER));
        EXPECT_EQ((std::vector<Call>{option(SOL_SOCKET, SO_REUSEADDR),
                                     option(IPPROTO_IP, 8),
                                     option(IPPROTO_IPV6, 49)}),
                  fakeCalls::callsOf("setsockopt"))
            << l_type;
    }
}

TEST_F(Sock6AccTest, PortIsKeptInNetworkByteOrderAndNoneForUnix)
{
    Sock6Acc l_tcp = acceptor(SOCK_TYPE_TCP);
    EXPECT_EQ(htons(80), l_tcp.*get(AcceptorPort()));
    Sock6Acc l_unix = acceptor(SOCK_TYPE_UNIX);
    EXPECT_EQ(0, l_unix.*get(AcceptorPort()));
}

TEST_F(Sock6AccTest, UdpMakesItsOneServiceAtOnce)
{
    Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make, 80,
                        SOCK_TYPE_UDP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ((Call{"socket", {AF_INET6, SOCK_DGRAM, 0}, ""}),
              fakeCalls::calls()[0]);
    EXPECT_TRUE(fakeCalls::callsOf("listen").empty());
    ASSERT_NE(nullptr, RecordingService::s_last);
    EXPECT_EQ((std::vector<std::string>{"setChannel :: 0", "Open :: 0"}),
              RecordingService::s_last->steps);
    Channel* l_channel = RecordingService::s_last->channel();
    EXPECT_NE(nullptr, dynamic_cast<Sock6Channel*>(l_channel));
    EXPECT_EQ(SOCK_TYPE_UDP, l_channel->getType());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(RecordingService::s_last, iv_Dispatcher.registrations[0].handler);
}

TEST_F(Sock6AccTest, EachFailureOfOpenIsReported)
{
    expectError(acceptor(SOCK_TYPE_TCP).socketOperation(OS_INVALID), 0x4403,
                "Socket Create failed");
    Sock6Acc l_host(iv_Dispatcher, RecordingService::make, "127.0.0.1", 80,
                    SOCK_TYPE_TCP);
    expectError(l_host.socketOperation(LISTENER), 0x4407,
                "Socket address structure initialization failed");
    fakeCalls::answer("bind", -1, EADDRINUSE);
    expectError(acceptor(SOCK_TYPE_TCP).socketOperation(LISTENER), 0x4404,
                "System call to bind failed");
    fakeCalls::answer("listen", -1, EOPNOTSUPP);
    expectError(acceptor(SOCK_TYPE_TCP).socketOperation(LISTENER), 0x4405,
                "System call to listen failed");
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(Sock6AccTest, ConnectionGetsAServiceWithItsChannel)
{
    Sock6Acc l_acceptor = acceptor(SOCK_TYPE_TCP);
    fakeCalls::answer("accept", -1, EINTR);
    fakeCalls::answer("accept", ACCEPTED, 0, bytesOf(address("::2", 4567)));
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    const Call l_accept = {"accept", {LISTENER, sizeof(Sock6Addr_t)}, ""};
    EXPECT_EQ(
        (std::vector<Call>{l_accept,
                           l_accept,
                           {"fcntl", {ACCEPTED, F_SETFD, FD_CLOEXEC}, ""}}),
        fakeCalls::calls());
    ASSERT_NE(nullptr, RecordingService::s_last);
    EXPECT_EQ((std::vector<std::string>{
                  "setChannel  0", "Open ::2 " + std::to_string(htons(4567))}),
              RecordingService::s_last->steps);
    Channel* l_channel = RecordingService::s_last->channel();
    EXPECT_NE(nullptr, dynamic_cast<Sock6Channel*>(l_channel));
    EXPECT_EQ(SOCK_TYPE_TCP, l_channel->getType());
    EXPECT_EQ(ACCEPTED, l_channel->getHandle());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(ACCEPTED, iv_Dispatcher.registrations[0].handle);
}

TEST_F(Sock6AccTest, FailedAcceptEndsListeningUnlessTheConnectionVanished)
{
    Sock6Acc l_acceptor = acceptor(SOCK_TYPE_TCP);
    fakeCalls::answer("accept", -1, EAGAIN);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    fakeCalls::answer("accept", -1, EMFILE);
    EXPECT_EQ(4, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
}

TEST_F(Sock6AccTest, RefreshContinuesAndShutdownUnregisters)
{
    Sock6Acc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_REFRESH));
    EXPECT_EQ(4,
              l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_SHUTDOWN));
    EXPECT_EQ(4, l_acceptor.HandleEvent(LISTENER,
                                        static_cast<EventHandler::EVENT>(1)));
}

TEST_F(Sock6AccTest, CloseAndDumpDoNothing)
{
    fakeCalls::stop();
    Sock6Acc l_acceptor = acceptor(SOCK_TYPE_TCP);
    ::testing::internal::CaptureStdout();
    l_acceptor.Dump(stdout);
    EXPECT_FALSE(l_acceptor.Close());
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

TEST_F(Sock6AccTest, OnlyAUnixAcceptorRemovesItsFile)
{
    acceptor(SOCK_TYPE_TCP);
    EXPECT_TRUE(fakeCalls::callsOf("unlink").empty());
    {
        const Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make,
                                  "/no/p", 80, SOCK_TYPE_UNIX);
        EXPECT_EQ((std::vector<Call>{{"unlink", {}, "/no/p"}}),
                  fakeCalls::callsOf("unlink"));
    }
    EXPECT_EQ(2U, fakeCalls::callsOf("unlink").size());
}

namespace
{

class Sock6AccLoopbackTest : public Sock6AccTest
{
  protected:
    void SetUp() override {} // the system's calls

    // The address of the only descriptor that is registered.
    Sock6Addr_t opened(Sock6Acc& io_acceptor)
    {
        Sock6Addr_t l_address = {};
        l_address.length = sizeof(l_address.addr);
        const pError_t l_error = io_acceptor.Open();
        EXPECT_FALSE(l_error);
        EXPECT_EQ(0, getsockname(iv_Dispatcher.registrations[0].handle,
                                 &l_address.addr.sa, &l_address.length));
        return l_address;
    }

    // Accepts a client of i_type and sends a word back to it.
    void serve(Sock6Acc& io_acceptor, int i_client)
    {
        const int l_listener = iv_Dispatcher.registrations[0].handle;
        EXPECT_EQ(
            0, io_acceptor.HandleEvent(l_listener, EventHandler::EVENT_READ));
        ASSERT_NE(nullptr, RecordingService::s_last);
        echo(i_client);
        close(l_listener);
    }

    static void echo(int i_client)
    {
        Channel& l_channel = *RecordingService::s_last->channel();
        char l_text[] = "tolv";
        unsigned int l_count = sizeof(l_text);
        EXPECT_EQ(5, send(i_client, l_text, sizeof(l_text), MSG_NOSIGNAL));
        EXPECT_FALSE(l_channel.Read(l_text, l_count));
        EXPECT_FALSE(l_channel.Write(l_text, l_count));
        EXPECT_EQ(5, recv(i_client, l_text, sizeof(l_text), MSG_WAITALL));
        EXPECT_STREQ("tolv", l_text);
        close(i_client);
    }

    static bool hasIpv6()
    {
        const int l_fd = socket(AF_INET6, SOCK_STREAM, 0);
        const sockaddr_in6 l_address = address("::1", 0);
        const bool l_has =
            bind(l_fd, reinterpret_cast<const sockaddr*>(&l_address),
                 sizeof(l_address)) == 0;
        close(l_fd);
        return l_has;
    }
};

} // namespace

TEST_F(Sock6AccLoopbackTest, TcpConnectionIsServed)
{
    if (!hasIpv6())
    {
        GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make, "::1", 0,
                        SOCK_TYPE_TCP);
    const Sock6Addr_t l_address = opened(l_acceptor);
    const int l_client = socket(AF_INET6, SOCK_STREAM, 0);
    ASSERT_EQ(0, connect(l_client, &l_address.addr.sa, l_address.length));
    serve(l_acceptor, l_client);
    EXPECT_STREQ("::1",
                 RecordingService::s_last->channel()->getRemoteAddress());
}

TEST_F(Sock6AccLoopbackTest, PeerOverIpv4IsServed)
{
    if (!hasIpv6())
    {
        GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make, 0,
                        SOCK_TYPE_TCP);
    const Sock6Addr_t l_address = opened(l_acceptor);
    sockaddr_in l_mapped = {};
    l_mapped.sin_family = AF_INET;
    l_mapped.sin_port = l_address.addr.in6.sin6_port;
    l_mapped.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int l_client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, connect(l_client, reinterpret_cast<sockaddr*>(&l_mapped),
                         sizeof(l_mapped)));
    serve(l_acceptor, l_client);
}

TEST_F(Sock6AccLoopbackTest, UdpReplyLeavesFromWhereTheRequestArrived)
{
    if (!hasIpv6())
    {
        GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make, 0,
                        SOCK_TYPE_UDP);
    Sock6Addr_t l_address = opened(l_acceptor);
    l_address.addr.in6.sin6_addr = in6addr_loopback;
    const int l_client = socket(AF_INET6, SOCK_DGRAM, 0);
    // A connected client takes replies only from the address it wrote to.
    ASSERT_EQ(0, connect(l_client, &l_address.addr.sa, l_address.length));
    echo(l_client);
    EXPECT_STREQ(
        "::1", dynamic_cast<Sock6Channel&>(*RecordingService::s_last->channel())
                   .getLocalAddress());
}

TEST_F(Sock6AccLoopbackTest, UnixConnectionIsServed)
{
    const TempDir l_folder;
    const std::string l_path = l_folder.path("socket");
    Sock6Acc l_acceptor(iv_Dispatcher, RecordingService::make, l_path.c_str(),
                        0, SOCK_TYPE_UNIX);
    opened(l_acceptor);
    Sock6Addr_t l_address = {};
    ASSERT_EQ(1, Sock6Acc::initSock6AddrStruct(l_path.c_str(), 0, l_address,
                                               SOCK_TYPE_UNIX));
    const int l_client = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(0, connect(l_client, &l_address.addr.sa, l_address.length));
    serve(l_acceptor, l_client);
    EXPECT_EQ(SOCK_TYPE_UNIX, RecordingService::s_last->channel()->getType());
}

TEST(Sock6AccDeathTest, OpenWithSctpEndsTheProcess)
{
    FakeDispatcher l_dispatcher;
    Sock6Acc l_acceptor(l_dispatcher, RecordingService::make, 80,
                        SOCK_TYPE_SCTP);
    EXPECT_ABORT(EXPECT_FALSE(l_acceptor.Open()));
}

TEST(Sock6AccDeathTest, AnyOtherEventAborts)
{
    FakeDispatcher l_dispatcher;
    Sock6Acc l_acceptor(l_dispatcher, RecordingService::make, 80,
                        SOCK_TYPE_TCP);
    EXPECT_ABORT(l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_TIMER));
}

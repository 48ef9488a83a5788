#include "tolv/vex/tolvSockConn.hpp"

#include "support/expectAbort.hpp"
#include "support/fakeCalls.hpp"
#include "support/fakeDispatcher.hpp"
#include "support/recordingService.hpp"
#include "support/tempDir.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;
using fakeCalls::bytesOf;
using fakeCalls::Call;

namespace
{

constexpr int FD = 500;       // of no open file: closing it does nothing
constexpr int FLAGS = O_RDWR; // what fcntl(F_GETFL) tells
const unsigned short PORT = htons(4567);

sockaddr_in address(const char* i_host)
{
    sockaddr_in l_address = {};
    l_address.sin_family = AF_INET;
    l_address.sin_port = PORT;
    EXPECT_EQ(1, inet_pton(AF_INET, i_host, &l_address.sin_addr));
    return l_address;
}

Call flags(int i_flags, int i_fd = FD)
{
    return {"fcntl", {i_fd, F_SETFL, i_flags}, ""};
}

Call keepAlive(int i_fd = FD)
{
    const int l_on = 1;
    return {"setsockopt", {i_fd, SOL_SOCKET, SO_KEEPALIVE, 4}, bytesOf(l_on)};
}

// What every connection begins with.
std::vector<Call> opening(int i_type, int i_protocol, const char* i_host)
{
    return {{"socket", {AF_INET, i_type, i_protocol}, ""},
            {"fcntl", {FD, F_SETFD, FD_CLOEXEC}, ""},
            {"fcntl", {FD, F_GETFL, 0}, ""},
            flags(FLAGS | O_NONBLOCK),
            {"connect", {FD, 16}, bytesOf(address(i_host))}};
}

std::vector<Call> operator+(std::vector<Call> i_calls,
                            const std::vector<Call>& i_more)
{
    i_calls.insert(i_calls.end(), i_more.begin(), i_more.end());
    return i_calls;
}

void expectCalls(const std::vector<Call>& i_expected)
{
    EXPECT_EQ(i_expected, fakeCalls::calls());
}

class SockConnTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakeCalls::start();
        fakeCalls::answerAlways("socket", FD);
        fakeCalls::answerAlways("fcntl", FLAGS);
        fakeCalls::answerAlways("setsockopt", 0);
        fakeCalls::answerAlways("getsockopt", 0);
        fakeCalls::answerAlways("close", 0);
        fakeCalls::answerAlways("nanosleep", 0);
        fakeCalls::answerAlways("connect", 0);
    }

    void TearDown() override
    {
        fakeCalls::stop();
        RecordingService::forget();
    }

    // The next connection takes its time; select() finds i_ready descriptors.
    static void inProgress(int i_ready, int i_errno = 0)
    {
        fakeCalls::answer("connect", -1, EINPROGRESS);
        fakeCalls::answer("select", i_ready, i_errno);
    }

    // Connects; an error leaves the caller's channel as it is and closes the
    // descriptor once.
    pError_t connectFails(SockConn& io_connector,
                          const char* i_host = "10.1.2.3")
    {
        SockChannel l_callers(OS_INVALID, SOCK_TYPE_TCP);
        Channel* l_channel = &l_callers;
        pError_t l_error = io_connector.Connect(i_host, PORT, l_channel);
        iv_Errno = errno;
        EXPECT_EQ(&l_callers, l_channel);
        EXPECT_EQ((std::vector<Call>{{"close", {FD}, ""}}),
                  fakeCalls::callsOf("close"));
        return l_error;
    }

    static void expectError(const pError_t& i_error, int i_origin,
                            unsigned short i_reason, const char* i_text,
                            int i_errno)
    {
        ASSERT_TRUE(i_error);
        EXPECT_EQ(i_origin, i_error->getOrigin());
        EXPECT_EQ(i_reason, i_error->getReason());
        EXPECT_STREQ(i_text, i_error->getText());
        EXPECT_EQ(i_errno, i_error->getErrno());
    }

    SockConn iv_Tcp{SOCK_TYPE_TCP};
    SockConn iv_Unix{SOCK_TYPE_UNIX};
    FakeDispatcher iv_Dispatcher;
    int iv_Errno = 0; // as connectFails() left it
};

} // namespace

TEST_F(SockConnTest, NewConnectorHasATimeOutOfFiveSeconds)
{
    EXPECT_EQ(TimeValue(5, 0), iv_Tcp.getTimeOut());
    EXPECT_TRUE(iv_Tcp.isTimeOutEnabled());
}

TEST_F(SockConnTest, TimeOutIsSetAndSwitchedOff)
{
    iv_Tcp.clearTimeOut();
    EXPECT_FALSE(iv_Tcp.isTimeOutEnabled());
    EXPECT_EQ(TimeValue(5, 0), iv_Tcp.getTimeOut());
    iv_Tcp.setTimeOut(TimeValue(7, 8));
    EXPECT_TRUE(iv_Tcp.isTimeOutEnabled());
    EXPECT_EQ(TimeValue(7, 8), iv_Tcp.getTimeOut());
}

TEST_F(SockConnTest, BareConnectorHasNoTimeOut)
{
    class Bare : public Conn
    {
      public:
        using Conn::Conn;
        void Dump(FILE*) override {}
    };
    const Bare l_connector(SOCK_TYPE_TCP);
    EXPECT_FALSE(l_connector.isTimeOutEnabled());
    EXPECT_EQ(TimeValue(0, 0), l_connector.getTimeOut());
}

TEST_F(SockConnTest, TcpConnectionMadeAtOnceIsKeptAlive)
{
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    expectCalls(opening(SOCK_STREAM, 0, "10.1.2.3") +
                std::vector<Call>{flags(FLAGS), keepAlive()});
    ASSERT_NE(nullptr, dynamic_cast<SockChannel*>(l_channel));
    EXPECT_EQ(FD, l_channel->getHandle());
    EXPECT_EQ(SOCK_TYPE_TCP, l_channel->getType());
    EXPECT_STREQ("10.1.2.3", l_channel->getRemoteAddress());
    EXPECT_EQ(PORT, l_channel->getPort());
    delete l_channel;
    EXPECT_EQ(1U, fakeCalls::callsOf("close").size());
}

TEST_F(SockConnTest, ConnectionThatTakesItsTimeIsWaitedFor)
{
    inProgress(1);
    fakeCalls::answer("getsockopt", 0, 0, bytesOf(int{0}));
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    expectCalls(
        opening(SOCK_STREAM, 0, "10.1.2.3") +
        std::vector<Call>{{"select", {FD + 1, 1, 1, 0, 5, 0}, ""},
                          {"getsockopt", {FD, SOL_SOCKET, SO_ERROR, 4}, ""},
                          flags(FLAGS),
                          keepAlive()});
    delete l_channel;
}

TEST_F(SockConnTest, WaitIsAsLongAsTheTimeOut)
{
    inProgress(1);
    iv_Tcp.setTimeOut(TimeValue(2, 345678));
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    EXPECT_EQ((Call{"select", {FD + 1, 1, 1, 0, 2, 345678}, ""}),
              fakeCalls::callsOf("select")[0]);
    delete l_channel;
}

TEST_F(SockConnTest, TimeOutThatIsOffStillBoundsTheWait)
{
    inProgress(1);
    iv_Tcp.clearTimeOut();
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    EXPECT_EQ((Call{"select", {FD + 1, 1, 1, 0, 5, 0}, ""}),
              fakeCalls::callsOf("select")[0]);
    delete l_channel;
}

TEST_F(SockConnTest, DescriptorAboveThatOfAnFdSetIsWaitedFor)
{
    constexpr int HIGH = 3000;
    fakeCalls::answer("socket", HIGH);
    inProgress(1);
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    EXPECT_EQ((Call{"select", {HIGH + 1, 1, 1, 0, 5, 0}, ""}),
              fakeCalls::callsOf("select")[0]);
    delete l_channel;
}

TEST_F(SockConnTest, UdpAndUnixGetNoOptions)
{
    SockConn l_udp(SOCK_TYPE_UDP);
    Channel* l_channel = nullptr;
    EXPECT_FALSE(l_udp.Connect("10.1.2.3", PORT, l_channel));
    expectCalls(opening(SOCK_DGRAM, 0, "10.1.2.3") +
                std::vector<Call>{flags(FLAGS)});
    delete l_channel;
    Channel* l_local = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_local));
    EXPECT_TRUE(fakeCalls::callsOf("setsockopt").empty());
    delete l_local;
}

TEST_F(SockConnTest, UdpAndSctpAreWaitedForAsTcpIs)
{
    for (const SockType l_type : {SOCK_TYPE_UDP, SOCK_TYPE_SCTP})
    {
        SockConn l_connector(l_type);
        fakeCalls::answer("connect", -1, EINPROGRESS);
        fakeCalls::answer("select", 0);
        Channel* l_channel = nullptr;
        expectError(l_connector.Connect("10.1.2.3", PORT, l_channel), 5, 0x440C,
                    "ConnectWithTimeout: Connection timed out, timer expired "
                    "on select",
                    ETIMEDOUT);
        EXPECT_EQ(nullptr, l_channel);
    }
    EXPECT_EQ(2U, fakeCalls::callsOf("connect").size());
    EXPECT_TRUE(fakeCalls::callsOf("nanosleep").empty());
}

TEST_F(SockConnTest, LongestTimeOutIsWaitedFor)
{
    inProgress(1);
    iv_Tcp.setTimeOut(TimeValue(0xFFFFFFFF, 999999));
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel));
    const Call l_select = fakeCalls::callsOf("select")[0];
    EXPECT_LE(0x7FFFFFFF, l_select.arguments[4]) << "not negative";
    EXPECT_EQ(999999, l_select.arguments[5]);
    delete l_channel;
}

TEST_F(SockConnTest, SctpConnectionIsTuned)
{
    SockConn l_sctp(SOCK_TYPE_SCTP);
    Channel* l_channel = nullptr;
    EXPECT_FALSE(l_sctp.Connect("10.1.2.3", PORT, l_channel));
    EXPECT_EQ((Call{"socket", {AF_INET, SOCK_STREAM, 132}, ""}),
              fakeCalls::calls()[0]);
    const auto l_set = fakeCalls::callsOf("setsockopt");
    ASSERT_EQ(4U, l_set.size());
    EXPECT_EQ(bytesOf(address("10.1.2.3")),
              l_set[3].bytes.substr(4, sizeof(sockaddr_in)));
    delete l_channel;
}

TEST_F(SockConnTest, ModeChangesNothing)
{
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, l_channel,
                                static_cast<Conn::ConnectMode>(1)));
    expectCalls(opening(SOCK_STREAM, 0, "10.1.2.3") +
                std::vector<Call>{flags(FLAGS), keepAlive()});
    delete l_channel;
}

TEST_F(SockConnTest, NullHostIsThisMachine)
{
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect(nullptr, PORT, l_channel));
    EXPECT_EQ(bytesOf(address("0.0.0.0")),
              fakeCalls::callsOf("connect")[0].bytes);
    delete l_channel;
}

TEST_F(SockConnTest, HostThatIsNoAddressIsReportedBeforeAnyConnect)
{
    errno = 0;
    expectError(connectFails(iv_Tcp, "localhost"), 5, 0x4407,
                "Failed to initialize socket address structure", 0);
    EXPECT_TRUE(fakeCalls::callsOf("connect").empty());
    fakeCalls::start();
    fakeCalls::answerAlways("socket", FD);
    fakeCalls::answerAlways("fcntl", 0);
    const std::string l_long(109, 'p');
    EXPECT_EQ(0x4407, connectFails(iv_Unix, l_long.c_str())->getReason());
}

TEST_F(SockConnTest, HostIsReportedBeforeAFailedSocket)
{
    fakeCalls::answerAlways("socket", -1, EMFILE);
    Channel* l_channel = nullptr;
    EXPECT_EQ(0x4407, iv_Tcp.Connect("", PORT, l_channel)->getReason());
    expectError(iv_Tcp.Connect("10.1.2.3", PORT, l_channel), 5, 0x4403,
                "System call to create socket failed", EMFILE);
    EXPECT_EQ(2U, fakeCalls::calls().size()) << "two sockets, no close";
    EXPECT_EQ(nullptr, l_channel);
}

TEST_F(SockConnTest, ConnectionRefusedAtOnceIsReported)
{
    fakeCalls::answer("connect", -1, ECONNREFUSED);
    expectError(connectFails(iv_Tcp), 5, 0x440A,
                "ConnectWithTimeout: Connection to server failed",
                ECONNREFUSED);
    expectCalls(opening(SOCK_STREAM, 0, "10.1.2.3") +
                std::vector<Call>{flags(FLAGS), {"close", {FD}, ""}});
    EXPECT_EQ(ECONNREFUSED, iv_Errno);
}

TEST_F(SockConnTest, ConnectionRefusedLaterIsReportedWithItsError)
{
    inProgress(2);
    fakeCalls::answer("getsockopt", 0, 0, bytesOf(int{ECONNREFUSED}));
    expectError(connectFails(iv_Tcp), 5, 0x4425,
                "ConnectWithTimeout: getsockopt returned SO_ERROR[111]",
                ECONNREFUSED);
    EXPECT_EQ(ECONNREFUSED, iv_Errno);
    EXPECT_EQ(flags(FLAGS), fakeCalls::callsOf("fcntl").back());
}

TEST_F(SockConnTest, TimeOutClosesTheDescriptorAndLeavesItAlone)
{
    inProgress(0);
    expectError(connectFails(iv_Tcp), 5, 0x440C,
                "ConnectWithTimeout: Connection timed out, timer expired on "
                "select",
                ETIMEDOUT);
    EXPECT_EQ("close", fakeCalls::calls().back().name)
        << "flags of a closed descriptor are another's";
    EXPECT_EQ(ETIMEDOUT, iv_Errno);
}

TEST_F(SockConnTest, FailedSelectIsReported)
{
    inProgress(-1, EINVAL);
    expectError(connectFails(iv_Tcp), 5, 0x4426,
                "ConnectWithTimeout: select failed", EINVAL);
    EXPECT_EQ(flags(FLAGS), fakeCalls::callsOf("fcntl").back());
}

TEST_F(SockConnTest, InterruptedSelectIsAnError)
{
    inProgress(-1, EINTR);
    expectError(connectFails(iv_Tcp), 5, 0x4426,
                "ConnectWithTimeout: select failed", EINTR);
    EXPECT_EQ(1U, fakeCalls::callsOf("select").size());
}

TEST_F(SockConnTest, DescriptorInNeitherSetIsReported)
{
    inProgress(1);
    fakeCalls::clearSets();
    errno = 0;
    const pError_t l_error = connectFails(iv_Tcp);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(5, l_error->getOrigin());
    EXPECT_EQ(0x4406, l_error->getReason());
    EXPECT_STREQ("ConnectWithTimeout: Socket descriptor not set",
                 l_error->getText());
    EXPECT_TRUE(fakeCalls::callsOf("getsockopt").empty());
}

TEST_F(SockConnTest, FailedGetsockoptIsReported)
{
    inProgress(1);
    fakeCalls::answer("getsockopt", -1, ENOBUFS);
    expectError(connectFails(iv_Tcp), 5, 0x4411,
                "ConnectWithTimeout: getsockopt failed, Errno[105]", ENOBUFS);
}

TEST_F(SockConnTest, FailedKeepAliveSetsTheChannelToNullAndClosesOnce)
{
    fakeCalls::answer("setsockopt", -1, ENOPROTOOPT);
    SockChannel l_callers(OS_INVALID, SOCK_TYPE_TCP);
    Channel* l_channel = &l_callers;
    expectError(iv_Tcp.Connect("10.1.2.3", PORT, l_channel), 5, 0x4413,
                "SetTcpSocketProperties: System call to activate SO_KEEPALIVE "
                "failed",
                ENOPROTOOPT);
    EXPECT_EQ(nullptr, l_channel);
    EXPECT_EQ((std::vector<Call>{{"close", {FD}, ""}}),
              fakeCalls::callsOf("close"));
}

TEST_F(SockConnTest, FailedSctpTuningSetsTheChannelToNullAndClosesOnce)
{
    SockConn l_sctp(SOCK_TYPE_SCTP);
    fakeCalls::answer("setsockopt", -1, EINVAL);
    SockChannel l_callers(OS_INVALID, SOCK_TYPE_TCP);
    Channel* l_channel = &l_callers;
    expectError(l_sctp.Connect("10.1.2.3", PORT, l_channel), 25, 0x4412,
                "SetSctpSocketProperties: setsockopt for SCTP_EVENTS failed",
                EINVAL);
    EXPECT_EQ(nullptr, l_channel);
    EXPECT_EQ((std::vector<Call>{{"close", {FD}, ""}}),
              fakeCalls::callsOf("close"));
}

TEST_F(SockConnTest, UnixServerThatNeverStartsIsTriedSixTimes)
{
    fakeCalls::answerAlways("connect", -1, ENOENT);
    expectError(connectFails(iv_Unix, "/p"), 7, 0x440C,
                "ConnectWithTimeout: Connection timed out waiting for server",
                ENOENT);
    EXPECT_EQ(6U, fakeCalls::callsOf("connect").size());
    EXPECT_EQ((std::vector<Call>(5, Call{"nanosleep", {1, 0}, ""})),
              fakeCalls::callsOf("nanosleep"));
    EXPECT_EQ(flags(FLAGS), fakeCalls::callsOf("fcntl").back());
}

TEST_F(SockConnTest, UnixSocketDoesNotBlockWhileItIsConnected)
{
    sockaddr_un l_server = {};
    l_server.sun_family = AF_UNIX;
    std::memcpy(l_server.sun_path, "/p", 2);
    const Call l_connect = {"connect", {FD, 110}, bytesOf(l_server)};
    fakeCalls::answer("connect", -1, ENOENT);
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    expectCalls({{"socket", {AF_UNIX, SOCK_STREAM, 0}, ""},
                 {"fcntl", {FD, F_SETFD, FD_CLOEXEC}, ""},
                 {"fcntl", {FD, F_GETFL, 0}, ""},
                 flags(FLAGS | O_NONBLOCK),
                 l_connect,
                 {"nanosleep", {1, 0}, ""},
                 l_connect,
                 flags(FLAGS)});
    delete l_channel;
}

TEST_F(SockConnTest, UnixConnectRetriesWhileTheServerMayAppear)
{
    for (const int l_errno :
         {EAGAIN, ENOENT, ECONNREFUSED, EINPROGRESS, EALREADY})
    {
        fakeCalls::answer("connect", -1, l_errno);
    }
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    EXPECT_EQ(6U, fakeCalls::callsOf("connect").size());
    EXPECT_EQ(5U, fakeCalls::callsOf("nanosleep").size());
    EXPECT_EQ(flags(FLAGS), fakeCalls::callsOf("fcntl").back());
    ASSERT_NE(nullptr, l_channel);
    EXPECT_STREQ("/p", l_channel->getRemoteAddress());
    delete l_channel;
}

TEST_F(SockConnTest, UnixConnectTriesAtOnceAfterASignal)
{
    for (int l_signal = 0; l_signal != 9; ++l_signal)
    {
        fakeCalls::answer("connect", -1, EINTR);
    }
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    EXPECT_EQ(10U, fakeCalls::callsOf("connect").size());
    EXPECT_TRUE(fakeCalls::callsOf("nanosleep").empty());
    delete l_channel;
}

TEST_F(SockConnTest, UnixSocketThatIsConnectedAlreadyIsSuccess)
{
    fakeCalls::answer("connect", -1, EALREADY);
    fakeCalls::answer("connect", -1, EISCONN);
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    delete l_channel;
}

TEST_F(SockConnTest, UnixConnectThatFailsOtherwiseIsReportedAtOnce)
{
    fakeCalls::answer("connect", -1, EACCES);
    expectError(connectFails(iv_Unix, "/p"), 7, 0x440A,
                "ConnectWithTimeout: System call to connect failed", EACCES);
    EXPECT_TRUE(fakeCalls::callsOf("nanosleep").empty());
    EXPECT_EQ(flags(FLAGS), fakeCalls::callsOf("fcntl").back());
}

TEST_F(SockConnTest, UnixTimeOutCountsWholeSeconds)
{
    fakeCalls::answerAlways("connect", -1, ECONNREFUSED);
    iv_Unix.setTimeOut(TimeValue(0, 999999));
    EXPECT_EQ(0x440C, connectFails(iv_Unix, "/p")->getReason());
    EXPECT_EQ(1U, fakeCalls::callsOf("connect").size());
}

TEST_F(SockConnTest, UnixWithoutATimeOutWaitsOn)
{
    iv_Unix.clearTimeOut();
    for (int l_attempt = 0; l_attempt != 1000; ++l_attempt)
    {
        fakeCalls::answer("connect", -1, ENOENT);
    }
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    EXPECT_EQ(1000U, fakeCalls::callsOf("nanosleep").size());
    delete l_channel;
}

TEST_F(SockConnTest, SleepBetweenAttemptsIsNotShortenedBySignals)
{
    fakeCalls::answer("connect", -1, ENOENT);
    const timespec l_left = {0, 700000000};
    fakeCalls::answer("nanosleep", -1, EINTR, bytesOf(l_left));
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Unix.Connect("/p", PORT, l_channel));
    EXPECT_EQ((std::vector<Call>{{"nanosleep", {1, 0}, ""},
                                 {"nanosleep", {0, 700000000}, ""}}),
              fakeCalls::callsOf("nanosleep"));
    delete l_channel;
}

TEST_F(SockConnTest, ServiceIsGivenTheChannelAndOpened)
{
    RecordingService* l_service = new RecordingService(iv_Dispatcher);
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", PORT, *l_service));
    const std::string l_port = std::to_string(PORT);
    EXPECT_EQ((std::vector<std::string>{"setChannel 10.1.2.3 " + l_port,
                                        "Open 10.1.2.3 " + l_port}),
              l_service->steps);
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(FD, iv_Dispatcher.registrations[0].handle);
}

TEST_F(SockConnTest, FailedConnectionLeavesTheServiceAlone)
{
    RecordingService* l_service = new RecordingService(iv_Dispatcher);
    fakeCalls::answerAlways("connect", -1, ECONNREFUSED);
    EXPECT_TRUE(iv_Tcp.Connect("10.1.2.3", PORT, *l_service));
    EXPECT_TRUE(iv_Tcp.Connect("10.1.2.3", "10.1.2.4", PORT, *l_service));
    EXPECT_TRUE(l_service->steps.empty());
    EXPECT_EQ(nullptr, l_service->channel());
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(SockConnTest, FirstOfTwoThatAnswersIsTaken)
{
    Channel* l_channel = nullptr;
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", "10.1.2.4", PORT, l_channel));
    EXPECT_STREQ("10.1.2.3", l_channel->getRemoteAddress());
    EXPECT_EQ(1U, fakeCalls::callsOf("connect").size());
    delete l_channel;
}

TEST_F(SockConnTest, SecondOfTwoIsTriedWhenTheFirstFails)
{
    iv_Tcp.setTimeOut(TimeValue(3));
    inProgress(0);
    RecordingService* l_service = new RecordingService(iv_Dispatcher);
    EXPECT_FALSE(iv_Tcp.Connect("10.1.2.3", "10.1.2.4", PORT, *l_service));
    EXPECT_EQ(2U, l_service->steps.size());
    EXPECT_STREQ("10.1.2.4", l_service->channel()->getRemoteAddress());
    EXPECT_EQ(TimeValue(3), iv_Tcp.getTimeOut());
    EXPECT_TRUE(iv_Tcp.isTimeOutEnabled());
}

TEST_F(SockConnTest, ErrorOfTheSecondIsReturned)
{
    fakeCalls::answer("connect", -1, ENETUNREACH);
    fakeCalls::answer("connect", -1, ECONNREFUSED);
    Channel* l_channel = nullptr;
    EXPECT_EQ(
        ECONNREFUSED,
        iv_Tcp.Connect("10.1.2.3", "10.1.2.4", PORT, l_channel)->getErrno());
    EXPECT_EQ(2U, fakeCalls::callsOf("close").size());
    EXPECT_EQ(nullptr, l_channel);
}

TEST_F(SockConnTest, TimeOutThatIsOffIsFiveSecondsForTwoAddresses)
{
    iv_Unix.setTimeOut(TimeValue(2, 3));
    iv_Unix.clearTimeOut();
    fakeCalls::answerAlways("connect", -1, ENOENT);
    Channel* l_channel = nullptr;
    EXPECT_TRUE(iv_Unix.Connect("/p", "/q", PORT, l_channel));
    EXPECT_EQ(12U, fakeCalls::callsOf("connect").size());
    EXPECT_FALSE(iv_Unix.isTimeOutEnabled());
    EXPECT_EQ(TimeValue(5, 0), iv_Unix.getTimeOut()) << "the value stays";

    fakeCalls::answerAlways("connect", 0);
    EXPECT_FALSE(iv_Unix.Connect("/p", "/q", PORT, l_channel));
    EXPECT_FALSE(iv_Unix.isTimeOutEnabled());
    delete l_channel;
}

TEST_F(SockConnTest, DumpPrintsNothing)
{
    fakeCalls::stop();
    ::testing::internal::CaptureStdout();
    iv_Tcp.Dump(stdout);
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

namespace
{

/// A socket of the test's own.
class Server
{
  public:
    explicit Server(int i_type, int i_backlog = 10) :
        fd(socket(AF_INET, i_type, 0))
    {
        sockaddr_in l_address = {};
        l_address.sin_family = AF_INET;
        l_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t l_length = sizeof(l_address);
        sockaddr* const l_generic = reinterpret_cast<sockaddr*>(&l_address);
        EXPECT_EQ(0, bind(fd, l_generic, l_length));
        if (i_type == SOCK_STREAM && i_backlog >= 0)
        {
            EXPECT_EQ(0, listen(fd, i_backlog));
        }
        EXPECT_EQ(0, getsockname(fd, l_generic, &l_length));
        port = l_address.sin_port;
    }

    ~Server()
    {
        close(fd);
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const int fd;
    unsigned short port = 0; // in network byte order
};

class SockConnLoopbackTest : public SockConnTest
{
  protected:
    void SetUp() override {} // the system's calls

    static std::size_t openDescriptors()
    {
        return namesIn("/proc/self/fd").size();
    }
};

} // namespace

TEST_F(SockConnLoopbackTest, TcpConnectionCarriesBytesAndIsBlocking)
{
    const Server l_server(SOCK_STREAM);
    Channel* l_connected = nullptr;
    ASSERT_FALSE(iv_Tcp.Connect("127.0.0.1", l_server.port, l_connected));
    const std::unique_ptr<Channel> l_channel(l_connected);
    const int l_accepted = accept(l_server.fd, nullptr, nullptr);
    char l_text[] = "tolv";
    unsigned int l_count = sizeof(l_text);
    EXPECT_FALSE(l_channel->Write(l_text, l_count));
    EXPECT_EQ(5, recv(l_accepted, l_text, sizeof(l_text), MSG_WAITALL));
    EXPECT_EQ(5, send(l_accepted, l_text, sizeof(l_text), MSG_NOSIGNAL));
    EXPECT_FALSE(l_channel->Read(l_text, l_count));
    EXPECT_STREQ("tolv", l_text);
    const int l_fd = l_channel->getHandle();
    EXPECT_EQ(0, fcntl(l_fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(l_fd, F_GETFD));
    int l_keepAlive = 0;
    socklen_t l_length = sizeof(l_keepAlive);
    EXPECT_EQ(
        0, getsockopt(l_fd, SOL_SOCKET, SO_KEEPALIVE, &l_keepAlive, &l_length));
    EXPECT_EQ(1, l_keepAlive);
    close(l_accepted);
}

TEST_F(SockConnLoopbackTest, UdpChannelTalksToItsServer)
{
    const Server l_server(SOCK_DGRAM);
    SockConn l_udp(SOCK_TYPE_UDP);
    Channel* l_connected = nullptr;
    ASSERT_FALSE(l_udp.Connect("127.0.0.1", l_server.port, l_connected));
    const std::unique_ptr<Channel> l_channel(l_connected);
    char l_text[] = "tolv";
    unsigned int l_count = sizeof(l_text);
    EXPECT_FALSE(l_channel->Write(l_text, l_count));
    EXPECT_EQ(5, recv(l_server.fd, l_text, sizeof(l_text), 0));
}

TEST_F(SockConnLoopbackTest, PortWithoutAListenerIsRefusedAndLeavesNothingOpen)
{
    const Server l_bound(SOCK_STREAM, -1);
    const std::size_t l_open = openDescriptors();
    Channel* l_channel = nullptr;
    const pError_t l_error =
        iv_Tcp.Connect("127.0.0.1", l_bound.port, l_channel);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(ECONNREFUSED, l_error->getErrno());
    EXPECT_TRUE(l_error->getReason() == 0x4425 ||
                l_error->getReason() == 0x440A)
        << l_error->getReason();
    EXPECT_EQ(l_open, openDescriptors());
}

TEST_F(SockConnLoopbackTest, ServerThatDoesNotAnswerIsATimeOut)
{
    // With its queue full the system drops what asks for a connection.
    const Server l_server(SOCK_STREAM, 0);
    Channel* l_queued = nullptr;
    ASSERT_FALSE(iv_Tcp.Connect("127.0.0.1", l_server.port, l_queued));
    const std::unique_ptr<Channel> l_first(l_queued);
    const std::size_t l_open = openDescriptors();
    iv_Tcp.setTimeOut(TimeValue(0, 100000));
    Channel* l_channel = nullptr;
    expectError(iv_Tcp.Connect("127.0.0.1", l_server.port, l_channel), 5,
                0x440C,
                "ConnectWithTimeout: Connection timed out, timer expired on "
                "select",
                ETIMEDOUT);
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(l_open, openDescriptors());
}

TEST_F(SockConnLoopbackTest, UnixServerMayStartLater)
{
    const TempDir l_folder;
    const std::string l_path = l_folder.path("socket");
    SockAddr_t l_address = {};
    ASSERT_EQ(1,
              initSockAddrStruct(l_path.c_str(), 0, l_address, SOCK_TYPE_UNIX));
    // The first attempt finds no socket, however fast the server starts.
    const int l_listener = socket(AF_UNIX, SOCK_STREAM, 0);
    fakeCalls::start();
    fakeCalls::answer("connect", -1, ENOENT);
    std::thread l_server(
        [&]
        {
            EXPECT_EQ(0,
                      bind(l_listener, &l_address.addr.sa, l_address.length));
            EXPECT_EQ(0, listen(l_listener, 1));
        });
    Channel* l_connected = nullptr;
    const pError_t l_error = iv_Unix.Connect(l_path.c_str(), 0, l_connected);
    fakeCalls::stop();
    l_server.join();
    EXPECT_FALSE(l_error);
    ASSERT_NE(nullptr, l_connected);
    EXPECT_STREQ(l_path.c_str(), l_connected->getRemoteAddress());
    delete l_connected;
    close(l_listener);
}

TEST(SockConnDeathTest, ConnectionOfAnUnknownTypeAborts)
{
    SockConn l_connector(static_cast<SockType>(4));
    Channel* l_channel = nullptr;
    EXPECT_ABORT(EXPECT_FALSE(l_connector.Connect("127.0.0.1", 0, l_channel)));
}

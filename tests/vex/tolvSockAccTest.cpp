#include "tolv/vex/tolvSockAcc.hpp"

#include "support/expectAbort.hpp"
#include "support/fakeCalls.hpp"
#include "support/fakeDispatcher.hpp"
#include "support/privateMember.hpp"
#include "support/recordingService.hpp"
#include "support/tempDir.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <algorithm>
#include <string>
#include <vector>

using namespace tolv;
using fakeCalls::bytesOf;
using fakeCalls::Call;

TOLV_PRIVATE_MEMBER(AcceptorPort, SockAcc, unsigned short, iv_Port);

namespace
{

// Of no open files: closing them does nothing.
constexpr int LISTENER = 500;
constexpr int ACCEPTED = 501;
constexpr int FLAGS = O_RDWR; // what fcntl(F_GETFL) tells

sockaddr_in address(const char* i_host, unsigned short i_port)
{
    sockaddr_in l_address = {};
    l_address.sin_family = AF_INET;
    l_address.sin_port = htons(i_port);
    EXPECT_EQ(1, inet_pton(AF_INET, i_host, &l_address.sin_addr));
    return l_address;
}

Call closeOnExec(int i_fd)
{
    return {"fcntl", {i_fd, F_SETFD, FD_CLOEXEC}, ""};
}

class SockAccTest : public ::testing::Test
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

    // A connection from a peer.
    static void arrive(int i_fd = ACCEPTED)
    {
        fakeCalls::answer("accept", i_fd, 0,
                          bytesOf(address("10.1.2.3", 4567)));
    }

    SockAcc acceptor(SockType i_type)
    {
        return SockAcc(iv_Dispatcher, RecordingService::make, "127.0.0.1", 80,
                       i_type);
    }

    static void expectError(const pError_t& i_error, unsigned short i_reason,
                            const char* i_text, int i_errno)
    {
        ASSERT_TRUE(i_error);
        EXPECT_EQ(2, i_error->getOrigin());
        EXPECT_EQ(i_reason, i_error->getReason());
        EXPECT_STREQ(i_text, i_error->getText());
        EXPECT_EQ(i_errno, i_error->getErrno());
    }

    FakeDispatcher iv_Dispatcher;
};

} // namespace

TEST_F(SockAccTest, OpenBindsListensAndRegisters)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_FALSE(l_acceptor.Open());
    const int l_on = 1;
    EXPECT_EQ((std::vector<Call>{
                  {"socket", {AF_INET, SOCK_STREAM, 0}, ""},
                  closeOnExec(LISTENER),
                  {"setsockopt",
                   {LISTENER, SOL_SOCKET, SO_REUSEADDR, 4},
                   bytesOf(l_on)},
                  {"bind", {LISTENER, 16}, bytesOf(address("127.0.0.1", 80))},
                  {"listen", {LISTENER, 10}, ""},
                  {"fcntl", {LISTENER, F_GETFL, 0}, ""},
                  {"fcntl", {LISTENER, F_SETFL, FLAGS | O_NONBLOCK}, ""}}),
              fakeCalls::calls());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(LISTENER, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(&l_acceptor, iv_Dispatcher.registrations[0].handler);
    EXPECT_EQ(2U, iv_Dispatcher.registrations[0].mask);
    EXPECT_EQ(0, RecordingService::s_made);
}

TEST_F(SockAccTest, WithoutAHostEveryAddressIsServed)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, 0x1234,
                       SOCK_TYPE_TCP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ(
        (std::vector<Call>{
            {"bind", {LISTENER, 16}, bytesOf(address("0.0.0.0", 0x1234))}}),
        fakeCalls::callsOf("bind"));
}

TEST_F(SockAccTest, SctpIsAOneToOneSocket)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_SCTP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ((Call{"socket", {AF_INET, SOCK_STREAM, 132}, ""}),
              fakeCalls::calls()[0]);
    EXPECT_EQ(1U, iv_Dispatcher.registrations.size());
}

TEST_F(SockAccTest, UdpMakesItsOneServiceAtOnce)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_UDP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ((Call{"socket", {AF_INET, SOCK_DGRAM, 0}, ""}),
              fakeCalls::calls()[0]);
    EXPECT_TRUE(fakeCalls::callsOf("listen").empty());
    EXPECT_EQ(1U, fakeCalls::callsOf("fcntl").size()) << "it stays blocking";
    ASSERT_NE(nullptr, RecordingService::s_last);
    EXPECT_EQ(
        (std::vector<std::string>{"setChannel 0.0.0.0 0", "Open 0.0.0.0 0"}),
        RecordingService::s_last->steps);
    Channel* l_channel = RecordingService::s_last->channel();
    EXPECT_NE(nullptr, dynamic_cast<SockChannel*>(l_channel));
    EXPECT_EQ(SOCK_TYPE_UDP, l_channel->getType());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(LISTENER, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(RecordingService::s_last, iv_Dispatcher.registrations[0].handler);
}

TEST_F(SockAccTest, UdpWithoutAServiceClosesItsSocket)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::refuse, "127.0.0.1", 80,
                       SOCK_TYPE_UDP);
    EXPECT_FALSE(l_acceptor.Open());
    EXPECT_EQ((std::vector<Call>{{"close", {LISTENER}, ""}}),
              fakeCalls::callsOf("close"));
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(SockAccTest, SocketThatCannotBeMadeIsReported)
{
    fakeCalls::start();
    fakeCalls::answer("socket", -1, EMFILE);
    expectError(acceptor(SOCK_TYPE_TCP).Open(), 0x4403, "Socket Create failed",
                EMFILE);
    EXPECT_EQ(1U, fakeCalls::calls().size()) << "nothing else is called";
}

TEST_F(SockAccTest, HostThatIsNoAddressIsReportedBeforeAnyOtherCall)
{
    for (const char* l_host : {"", "localhost", "1.2.3", "::1"})
    {
        fakeCalls::start();
        fakeCalls::answer("socket", LISTENER);
        fakeCalls::answerAlways("fcntl", 0);
        SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, l_host, 80,
                           SOCK_TYPE_TCP);
        errno = 0;
        expectError(l_acceptor.Open(), 0x4407,
                    "Socket address structure initialization failed", 0);
        EXPECT_EQ(2U, fakeCalls::calls().size()) << l_host;
    }
}

TEST_F(SockAccTest, UnixPathThatIsTooLongOrNullIsReported)
{
    const std::string l_long(109, 'p');
    for (const char* l_path :
         {l_long.c_str(), static_cast<const char*>(nullptr)})
    {
        fakeCalls::answer("socket", LISTENER);
        SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, l_path, 80,
                           SOCK_TYPE_UNIX);
        errno = 0;
        expectError(l_acceptor.Open(), 0x4407,
                    "Socket address structure initialization failed", 0);
    }
    EXPECT_TRUE(fakeCalls::callsOf("bind").empty());
}

TEST_F(SockAccTest, FailedBindIsReported)
{
    fakeCalls::answer("bind", -1, EADDRINUSE);
    expectError(acceptor(SOCK_TYPE_TCP).Open(), 0x4404,
                "System call to bind failed", EADDRINUSE);
    EXPECT_TRUE(fakeCalls::callsOf("listen").empty());
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(SockAccTest, FailedListenIsReported)
{
    fakeCalls::answer("listen", -1, EOPNOTSUPP);
    expectError(acceptor(SOCK_TYPE_TCP).Open(), 0x4405,
                "System call to listen failed", EOPNOTSUPP);
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(SockAccTest, FailedOpenLeavesTheDescriptorOpen)
{
    fakeCalls::answer("bind", -1, EACCES);
    EXPECT_TRUE(acceptor(SOCK_TYPE_TCP).Open());
    EXPECT_TRUE(fakeCalls::callsOf("close").empty());
}

TEST_F(SockAccTest, FailedSocketOptionIsIgnored)
{
    fakeCalls::answer("setsockopt", -1, ENOPROTOOPT);
    EXPECT_FALSE(acceptor(SOCK_TYPE_TCP).Open());
    EXPECT_EQ(1U, iv_Dispatcher.registrations.size());
}

TEST_F(SockAccTest, EverySocketMayReuseItsAddress)
{
    for (const SockType l_type :
         {SOCK_TYPE_UDP, SOCK_TYPE_UNIX, SOCK_TYPE_SCTP})
    {
        SetUp();
        EXPECT_FALSE(acceptor(l_type).socketOperation(LISTENER));
        const int l_on = 1;
        EXPECT_EQ((std::vector<Call>{{"setsockopt",
                                      {LISTENER, SOL_SOCKET, SO_REUSEADDR, 4},
                                      bytesOf(l_on)}}),
                  fakeCalls::callsOf("setsockopt"))
            << l_type;
    }
}

TEST_F(SockAccTest, PortIsKeptInNetworkByteOrderAndNoneForUnix)
{
    SockAcc l_tcp = acceptor(SOCK_TYPE_TCP);
    EXPECT_EQ(htons(80), l_tcp.*get(AcceptorPort()));
    SockAcc l_unix = acceptor(SOCK_TYPE_UNIX);
    EXPECT_EQ(0, l_unix.*get(AcceptorPort()));
    SockAcc l_nowhere(iv_Dispatcher, RecordingService::make, 80,
                      SOCK_TYPE_UNIX);
    EXPECT_EQ(0, l_nowhere.*get(AcceptorPort()));
}

TEST_F(SockAccTest, SocketOperationTakesAnyDescriptor)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_FALSE(l_acceptor.socketOperation(77));
    EXPECT_EQ(77, fakeCalls::callsOf("bind")[0].arguments[0]);
    EXPECT_TRUE(fakeCalls::callsOf("socket").empty());
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
    expectError(l_acceptor.socketOperation(OS_INVALID), 0x4403,
                "Socket Create failed", errno);
}

TEST_F(SockAccTest, CloseGoesOnListening)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_FALSE(l_acceptor.Open());
    const std::size_t l_calls = fakeCalls::calls().size();
    EXPECT_FALSE(l_acceptor.Close());
    EXPECT_EQ(l_calls, fakeCalls::calls().size());
    EXPECT_EQ(1U, iv_Dispatcher.registrations.size());
}

TEST_F(SockAccTest, ConnectionGetsAServiceWithItsChannel)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    arrive();
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ((std::vector<Call>{{"accept", {LISTENER, sizeof(SockAddr_t)}, ""},
                                 closeOnExec(ACCEPTED)}),
              fakeCalls::calls());
    ASSERT_NE(nullptr, RecordingService::s_last);
    const std::string l_port = std::to_string(htons(4567));
    EXPECT_EQ(
        (std::vector<std::string>{"setChannel  0", "Open 10.1.2.3 " + l_port}),
        RecordingService::s_last->steps);
    Channel* l_channel = RecordingService::s_last->channel();
    EXPECT_NE(nullptr, dynamic_cast<SockChannel*>(l_channel));
    EXPECT_EQ(SOCK_TYPE_TCP, l_channel->getType());
    EXPECT_EQ(ACCEPTED, l_channel->getHandle());
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(ACCEPTED, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(RecordingService::s_last, iv_Dispatcher.registrations[0].handler);
}

TEST_F(SockAccTest, AcceptIsGivenTheSizeOfTheWholeRecord)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    fakeCalls::answer("accept", -1, EINTR);
    arrive();
    l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ);
    EXPECT_EQ(
        (std::vector<Call>{{"accept", {LISTENER, sizeof(SockAddr_t)}, ""},
                           {"accept", {LISTENER, sizeof(SockAddr_t)}, ""}}),
        fakeCalls::callsOf("accept"))
        << "again after a signal, with the size given anew";
}

TEST_F(SockAccTest, ServiceMayBeGoneWhenItIsOpen)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    arrive();
    iv_Dispatcher.onRegister = [] { delete RecordingService::s_last; };
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ(1, RecordingService::s_destroyed);
}

TEST_F(SockAccTest, VanishedConnectionLeavesTheListeningAlone)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    fakeCalls::answer("accept", -1, EAGAIN);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ(0, RecordingService::s_made);
}

TEST_F(SockAccTest, FailedAcceptEndsListening)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    for (const int l_errno : {EMFILE, ENFILE, ENOMEM, ECONNABORTED, EBADF})
    {
        fakeCalls::answer("accept", -1, l_errno);
        EXPECT_EQ(4, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ))
            << l_errno;
    }
    EXPECT_EQ(0, RecordingService::s_made);
}

TEST_F(SockAccTest, ConnectionThatCannotBeWatchedIsClosed)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    arrive(1024);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ((std::vector<Call>{{"close", {1024}, ""}}),
              fakeCalls::callsOf("close"));
    EXPECT_EQ(0, RecordingService::s_made);

    arrive(1023);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ(1, RecordingService::s_made);
}

TEST_F(SockAccTest, ConnectionWithoutAServiceIsClosed)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::refuse, "127.0.0.1", 80,
                       SOCK_TYPE_TCP);
    arrive();
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_EQ((std::vector<Call>{{"close", {ACCEPTED}, ""}}),
              fakeCalls::callsOf("close"));
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(SockAccTest, SctpConnectionIsTunedBeforeItIsServed)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_SCTP);
    fakeCalls::answerAlways("getsockopt", 0);
    arrive();
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    const auto l_set = fakeCalls::callsOf("setsockopt");
    ASSERT_EQ(4U, l_set.size());
    for (const Call& l_call : l_set)
    {
        EXPECT_EQ(ACCEPTED, l_call.arguments[0]);
        EXPECT_EQ(IPPROTO_SCTP, l_call.arguments[1]);
    }
    // The peer's address, for as long as accept() said it is.
    EXPECT_EQ(bytesOf(address("10.1.2.3", 4567)),
              l_set[3].bytes.substr(4, sizeof(sockaddr_in)));
    ASSERT_EQ(1, RecordingService::s_made);
    EXPECT_EQ(SOCK_TYPE_SCTP, RecordingService::s_last->channel()->getType());
}

TEST_F(SockAccTest, FailedSctpTuningEndsListeningAndLeaksTheConnection)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_SCTP);
    fakeCalls::answer("getsockopt", -1, EINVAL);
    arrive();
    EXPECT_EQ(4, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_READ));
    EXPECT_TRUE(fakeCalls::callsOf("close").empty());
    EXPECT_EQ(0, RecordingService::s_made);
}

TEST_F(SockAccTest, RefreshContinuesAndShutdownUnregisters)
{
    SockAcc l_acceptor = acceptor(SOCK_TYPE_TCP);
    EXPECT_EQ(0, l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_REFRESH));
    EXPECT_EQ(4,
              l_acceptor.HandleEvent(LISTENER, EventHandler::EVENT_SHUTDOWN));
    EXPECT_EQ(4, l_acceptor.HandleEvent(LISTENER,
                                        static_cast<EventHandler::EVENT>(1)));
    EXPECT_TRUE(fakeCalls::calls().empty());
}

TEST_F(SockAccTest, DumpPrintsNothing)
{
    fakeCalls::stop();
    ::testing::internal::CaptureStdout();
    acceptor(SOCK_TYPE_TCP).Dump(stdout);
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

TEST_F(SockAccTest, NullPathIsPassedOnAtTheEnd)
{
    {
        const SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, 80,
                                 SOCK_TYPE_UNIX);
        EXPECT_TRUE(fakeCalls::callsOf("unlink").empty());
    }
    EXPECT_EQ((std::vector<Call>{{"unlink", {}, "(null)"}}),
              fakeCalls::callsOf("unlink"));
}

TEST_F(SockAccTest, OnlyAUnixAcceptorRemovesAFile)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_SCTP})
    {
        acceptor(l_type);
    }
    EXPECT_TRUE(fakeCalls::callsOf("unlink").empty());
}

TEST_F(SockAccTest, UnixAcceptorRemovesItsFileBeforeAndAfter)
{
    fakeCalls::stop();
    const TempDir l_folder;
    const std::string l_path = l_folder.path("socket");
    std::fclose(std::fopen(l_path.c_str(), "w")); // left by an earlier run
    {
        SockAcc l_acceptor(iv_Dispatcher, RecordingService::make,
                           l_path.c_str(), 80, SOCK_TYPE_UNIX);
        EXPECT_NE(0, access(l_path.c_str(), F_OK));
        EXPECT_FALSE(l_acceptor.Open());
        EXPECT_EQ(0, access(l_path.c_str(), F_OK));
        close(iv_Dispatcher.registrations[0].handle);
    }
    EXPECT_NE(0, access(l_path.c_str(), F_OK));
}

namespace
{

int connectedTo(int i_listener)
{
    SockAddr_t l_address = {};
    l_address.length = sizeof(l_address.addr);
    EXPECT_EQ(0,
              getsockname(i_listener, &l_address.addr.sa, &l_address.length));
    // The system counts the NUL behind a path of full length; connect() does
    // not take it.
    const socklen_t l_length =
        std::min<socklen_t>(l_address.length, sizeof(sockaddr_un));
    const int l_fd = socket(l_address.addr.sa.sa_family, SOCK_STREAM, 0);
    EXPECT_EQ(0, connect(l_fd, &l_address.addr.sa, l_length));
    return l_fd;
}

// Sends a word from the service to the client and back.
void expectBothWays(int i_client)
{
    Channel& l_channel = *RecordingService::s_last->channel();
    char l_text[] = "tolv";
    unsigned int l_count = sizeof(l_text);
    EXPECT_FALSE(l_channel.Write(l_text, l_count));
    char l_received[sizeof(l_text)] = {};
    EXPECT_EQ(static_cast<ssize_t>(sizeof(l_text)),
              recv(i_client, l_received, sizeof(l_received), MSG_WAITALL));
    EXPECT_STREQ("tolv", l_received);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(l_text)),
              send(i_client, l_text, sizeof(l_text), MSG_NOSIGNAL));
    l_count = sizeof(l_received);
    EXPECT_FALSE(l_channel.Read(l_received, l_count));
    EXPECT_EQ(sizeof(l_text), l_count);
}

class SockAccLoopbackTest : public SockAccTest
{
  protected:
    void SetUp() override {} // the system's calls

    void serveOne(SockAcc& io_acceptor)
    {
        ASSERT_FALSE(io_acceptor.Open());
        const int l_listener = iv_Dispatcher.registrations[0].handle;
        const int l_client = connectedTo(l_listener);
        EXPECT_EQ(
            0, io_acceptor.HandleEvent(l_listener, EventHandler::EVENT_READ));
        ASSERT_NE(nullptr, RecordingService::s_last);
        expectBothWays(l_client);
        const int l_accepted = RecordingService::s_last->channel()->getHandle();
        EXPECT_EQ(FD_CLOEXEC, fcntl(l_listener, F_GETFD));
        EXPECT_EQ(FD_CLOEXEC, fcntl(l_accepted, F_GETFD));
        EXPECT_EQ(0, fcntl(l_accepted, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(0,
                  io_acceptor.HandleEvent(l_listener, EventHandler::EVENT_READ))
            << "without a connection it returns at once";
        close(l_client);
        close(l_listener);
    }
};

} // namespace

TEST_F(SockAccLoopbackTest, TcpConnectionIsServed)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, "127.0.0.1", 0,
                       SOCK_TYPE_TCP);
    serveOne(l_acceptor);
    EXPECT_STREQ("127.0.0.1",
                 RecordingService::s_last->channel()->getRemoteAddress());
}

TEST_F(SockAccLoopbackTest, UnixConnectionIsServed)
{
    const TempDir l_folder;
    const std::string l_path = l_folder.path("socket");
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, l_path.c_str(), 0,
                       SOCK_TYPE_UNIX);
    serveOne(l_acceptor);
    EXPECT_EQ(SOCK_TYPE_UNIX, RecordingService::s_last->channel()->getType());
    EXPECT_STREQ("", RecordingService::s_last->channel()->getRemoteAddress());
}

TEST_F(SockAccLoopbackTest, PathOfFullLengthIsServed)
{
    const TempDir l_folder;
    const std::string l_path =
        l_folder.path(std::string(108 - l_folder.path("").size(), 'p'));
    ASSERT_EQ(108U, l_path.size());
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, l_path.c_str(), 0,
                       SOCK_TYPE_UNIX);
    serveOne(l_acceptor);
}

TEST_F(SockAccLoopbackTest, UdpDatagramsReachTheOneService)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, "127.0.0.1", 0,
                       SOCK_TYPE_UDP);
    ASSERT_FALSE(l_acceptor.Open());
    sockaddr_in l_address = {};
    socklen_t l_length = sizeof(l_address);
    sockaddr* const l_generic = reinterpret_cast<sockaddr*>(&l_address);
    ASSERT_EQ(0, getsockname(iv_Dispatcher.registrations[0].handle, l_generic,
                             &l_length));
    const int l_client = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(4, sendto(l_client, "tolv", 4, 0, l_generic, l_length));
    Channel& l_channel = *RecordingService::s_last->channel();
    char l_text[4] = {};
    unsigned int l_count = sizeof(l_text);
    EXPECT_FALSE(l_channel.Read(l_text, l_count));
    EXPECT_EQ(4U, l_count);
    EXPECT_FALSE(l_channel.Write(l_text, l_count));
    EXPECT_EQ(4, recv(l_client, l_text, sizeof(l_text), 0));
    close(l_client);
}

TEST_F(SockAccLoopbackTest, PortInUseIsReported)
{
    SockAcc l_first(iv_Dispatcher, RecordingService::make, "127.0.0.1", 0,
                    SOCK_TYPE_TCP);
    ASSERT_FALSE(l_first.Open());
    const int l_listener = iv_Dispatcher.registrations[0].handle;
    sockaddr_in l_address = {};
    socklen_t l_length = sizeof(l_address);
    ASSERT_EQ(0,
              getsockname(l_listener, reinterpret_cast<sockaddr*>(&l_address),
                          &l_length));
    SockAcc l_second(iv_Dispatcher, RecordingService::make, "127.0.0.1",
                     ntohs(l_address.sin_port), SOCK_TYPE_TCP);
    expectError(l_second.Open(), 0x4404, "System call to bind failed",
                EADDRINUSE);
    close(l_listener);
}

TEST_F(SockAccLoopbackTest, DescriptorShortageEndsListening)
{
    SockAcc l_acceptor(iv_Dispatcher, RecordingService::make, "127.0.0.1", 0,
                       SOCK_TYPE_TCP);
    ASSERT_FALSE(l_acceptor.Open());
    const int l_listener = iv_Dispatcher.registrations[0].handle;
    const int l_client = connectedTo(l_listener);
    rlimit l_old = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_old));
    rlimit l_few = l_old;
    l_few.rlim_cur = static_cast<rlim_t>(l_listener);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_few));
    const int l_action =
        l_acceptor.HandleEvent(l_listener, EventHandler::EVENT_READ);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_old));
    EXPECT_EQ(4, l_action);
    close(l_client);
    close(l_listener);
}

TEST(SockAccDeathTest, OpenOfAnUnknownTypeAborts)
{
    FakeDispatcher l_dispatcher;
    SockAcc l_acceptor(l_dispatcher, RecordingService::make, 80,
                       static_cast<SockType>(4));
    EXPECT_ABORT(EXPECT_FALSE(l_acceptor.Open()));
}

TEST(SockAccDeathTest, AnyOtherEventAborts)
{
    FakeDispatcher l_dispatcher;
    SockAcc l_acceptor(l_dispatcher, RecordingService::make, 80, SOCK_TYPE_TCP);
    for (const int l_event : {0, 3, 128})
    {
        EXPECT_ABORT(l_acceptor.HandleEvent(
            LISTENER, static_cast<EventHandler::EVENT>(l_event)));
    }
}

#include "support/childProcess.hpp"
#include "support/waitFor.hpp"
#include "tolv/tolv.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <atomic>
#include <memory>
#include <string>

using namespace tolv;

// Two machines, this one and the peer, each a network namespace, joined by two
// links: one in each internal subnet. This one listens in subnet A.

namespace
{

constexpr unsigned short PORT = 4567;
constexpr char MESSAGE[] = "tolv"; // sent with its NUL

std::string address(std::uint32_t i_subnet, std::uint32_t i_host)
{
    in_addr l_address = {};
    l_address.s_addr = htonl(i_subnet + i_host);
    char l_text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, &l_address, l_text, sizeof(l_text));
}

void run(const std::string& i_command)
{
    // NOLINTNEXTLINE(cert-env33-c): no foreign text.
    EXPECT_EQ(0, std::system(i_command.c_str())) << i_command;
}

void useLink(const std::string& i_link, const std::string& i_address)
{
    run("/sbin/ip addr add " + i_address + "/24 dev " + i_link);
    run("/sbin/ip link set " + i_link + " up");
}

void turnOn(const std::string& i_setting)
{
    run("echo 1 >/proc/sys/net/sctp/" + i_setting);
}

int localAddresses(int i_fd)
{
    sockaddr* l_list = nullptr;
    const int l_count = sctp_getladdrs(i_fd, 0, &l_list);
    if (l_count > 0)
    {
        sctp_freeladdrs(l_list);
    }
    return l_count;
}

int peerAddresses(int i_fd)
{
    sockaddr* l_list = nullptr;
    const int l_count = sctp_getpaddrs(i_fd, 0, &l_list);
    if (l_count > 0)
    {
        sctp_freepaddrs(l_list);
    }
    return l_count;
}

template <class T>
bool readOption(int i_fd, int i_name, T& io_value)
{
    socklen_t l_length = sizeof(io_value);
    return getsockopt(i_fd, IPPROTO_SCTP, i_name, &io_value, &l_length) == 0;
}

// Whether the system has what SetSctpSocketProperties() set.
bool isTuned(int i_fd)
{
    sctp_event_subscribe l_events = {};
    sctp_rtoinfo l_times = {};
    sctp_assocparams l_limits = {};
    sctp_paddrparams l_path = {};
    sockaddr_storage l_peer = {};
    socklen_t l_length = sizeof(l_peer);
    getpeername(i_fd, reinterpret_cast<sockaddr*>(&l_peer), &l_length);
    l_path.spp_address = l_peer;
    return readOption(i_fd, SCTP_EVENTS, l_events) &&
           readOption(i_fd, SCTP_RTOINFO, l_times) &&
           readOption(i_fd, SCTP_ASSOCINFO, l_limits) &&
           readOption(i_fd, SCTP_PEER_ADDR_PARAMS, l_path) &&
           l_events.sctp_association_event == 1 &&
           l_times.srto_initial == 1000 && l_times.srto_max == 1500 &&
           l_times.srto_min == 500 && l_limits.sasoc_asocmaxrxt == 10 &&
           l_path.spp_pathmaxrxt == 5;
}

/// Sends back what it receives and remembers why it ended.
class Echo : public Service
{
  public:
    explicit Echo(Dispatcher& io_dispatcher) : Service(io_dispatcher) {}

    ~Echo() override
    {
        s_fd = OS_INVALID;
    }

    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    static Service* make(Dispatcher& io_dispatcher)
    {
        return new Echo(io_dispatcher);
    }

    using Service::Open;

    void Open() override
    {
        s_fd = iv_pChannel->getHandle();
        Service::Open();
    }

    void Dump(FILE*) override {}

    ACTION HandleEvent(OS_HANDLE, EVENT i_event) override
    {
        char l_message[sizeof(MESSAGE)] = {};
        unsigned int l_count = sizeof(l_message);
        if (i_event == EVENT_SHUTDOWN)
        {
            return ACTION_REMOVE;
        }
        pError_t l_error = iv_pChannel->Read(l_message, l_count);
        if (!l_error)
        {
            l_error = iv_pChannel->Write(l_message, l_count);
        }
        if (l_error)
        {
            s_reason = l_error->getReason();
            return ACTION_REMOVE;
        }
        return ACTION_CONTINUE;
    }

    static inline std::atomic<int> s_fd{OS_INVALID}; // of the one that lives
    static inline std::atomic<int> s_reason{0};      // of the last one's end
};

/// The client, a process in the other namespace that does what it is told.
class Peer
{
  public:
    enum Command : char
    {
        SET_UP,               // the links, with new addresses allowed
        SET_UP_AUTHENTICATED, // the same, for peers that prove who they are
        SET_UP_INCOMPLETE,    // allowed, but neither with proof nor without
        SET_UP_AS_IT_COMES,   // the links, with the system's defaults
        CONNECT,              // 0 or the reason
        ECHO,                 // whether a message came back
        COUNT_ADDRESSES,      // those of this machine that it knows
        IS_TUNED,
        CLOSE,
        VANISH // without a word
    };

    Peer()
    {
        EXPECT_EQ(0, pipe(iv_Commands));
        EXPECT_EQ(0, pipe(iv_Answers));
        iv_Pid = startChild(
            [this]
            {
                close(iv_Commands[1]);
                close(iv_Answers[0]);
                const int l_moved = unshare(CLONE_NEWNET);
                answer(l_moved);
                char l_command = 0;
                while (read(iv_Commands[0], &l_command, 1) == 1)
                {
                    answer(obey(static_cast<Command>(l_command)));
                }
            });
        close(iv_Commands[0]);
        close(iv_Answers[1]);
        EXPECT_EQ(0, takeAnswer()) << "a namespace of its own";
    }

    ~Peer()
    {
        close(iv_Commands[1]);
        if (iv_Pid != 0)
        {
            EXPECT_EQ(0, waitForChild(iv_Pid));
        }
        close(iv_Answers[0]);
    }

    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int ask(Command i_command)
    {
        const char l_command = i_command;
        EXPECT_EQ(1, write(iv_Commands[1], &l_command, 1));
        return takeAnswer();
    }

    void kill()
    {
        killChild(iv_Pid);
        iv_Pid = 0;
    }

    pid_t pid() const
    {
        return iv_Pid;
    }

    // Lets associations change their addresses while they last, or not; both
    // ends need the same.
    static void allowNewAddresses(Command i_setUp)
    {
        if (i_setUp != SET_UP_AS_IT_COMES)
        {
            turnOn("addip_enable");
        }
        if (i_setUp == SET_UP)
        {
            turnOn("addip_noauth_enable");
        }
        if (i_setUp == SET_UP_AUTHENTICATED)
        {
            turnOn("auth_enable");
        }
    }

  private:
    void answer(int i_answer)
    {
        if (write(iv_Answers[1], &i_answer, sizeof(i_answer)) < 0)
        {
            _exit(1);
        }
    }

    int takeAnswer()
    {
        int l_answer = -1;
        EXPECT_EQ(static_cast<ssize_t>(sizeof(l_answer)),
                  read(iv_Answers[0], &l_answer, sizeof(l_answer)));
        return l_answer;
    }

    int obey(Command i_command)
    {
        switch (i_command)
        {
        case SET_UP:
        case SET_UP_AUTHENTICATED:
        case SET_UP_INCOMPLETE:
        case SET_UP_AS_IT_COMES:
            allowNewAddresses(i_command);
            useLink("there0", address(SCTP_SUBNET_A, 2));
            useLink("there1", address(SCTP_SUBNET_B, 2));
            return 0;
        case CONNECT:
            return connectToServer();
        case ECHO:
            return echo() ? 1 : 0;
        case COUNT_ADDRESSES:
            return peerAddresses(iv_Channel->getHandle());
        case IS_TUNED:
            return isTuned(iv_Channel->getHandle()) ? 1 : 0;
        case CLOSE:
            delete iv_Channel;
            iv_Channel = nullptr;
            return 0;
        case VANISH:
            run("/sbin/ip link set there0 down");
            run("/sbin/ip link set there1 down");
            return 0;
        }
        return -1;
    }

    int connectToServer()
    {
        SockConn l_connector(SOCK_TYPE_SCTP);
        l_connector.setTimeOut(TimeValue(20)); // the machine is slow
        const pError_t l_error = l_connector.Connect(
            address(SCTP_SUBNET_A, 1).c_str(), htons(PORT), iv_Channel);
        return l_error ? l_error->getReason() : 0;
    }

    bool echo()
    {
        char l_message[sizeof(MESSAGE)];
        std::memcpy(l_message, MESSAGE, sizeof(MESSAGE));
        unsigned int l_count = sizeof(l_message);
        pError_t l_error = iv_Channel->Write(l_message, l_count);
        std::memset(l_message, 0, sizeof(l_message));
        iv_Channel->setTimeOut(TimeValue(30));
        if (!l_error)
        {
            l_error = iv_Channel->Read(l_message, l_count);
        }
        return !l_error && l_count == sizeof(l_message) &&
               std::memcmp(l_message, MESSAGE, sizeof(MESSAGE)) == 0;
    }

    int iv_Commands[2] = {-1, -1};
    int iv_Answers[2] = {-1, -1};
    pid_t iv_Pid = 0;
    Channel* iv_Channel = nullptr; // the child's
};

class SctpServiceTest : public ::testing::Test
{
  protected:
    void join(Peer::Command i_setUp)
    {
        const std::string l_pid = std::to_string(iv_Peer.pid());
        for (const std::string l_number : {"0", "1"})
        {
            run("/sbin/ip link add name here" + l_number +
                " type veth peer name there" + l_number + " netns " + l_pid);
        }
        useLink("here0", address(SCTP_SUBNET_A, 1));
        useLink("here1", address(SCTP_SUBNET_B, 1));
        EXPECT_EQ(0, iv_Peer.ask(i_setUp));
    }

    void listen(Peer::Command i_setUp)
    {
        Peer::allowNewAddresses(i_setUp);
        join(i_setUp);
        iv_Dispatcher = std::make_unique<Dispatcher>(1U, 1U, false);
        iv_Acceptor = std::make_unique<SockAcc>(
            *iv_Dispatcher, Echo::make, iv_Host.c_str(), PORT, SOCK_TYPE_SCTP);
        const pError_t l_error = iv_Acceptor->Open();
        ASSERT_FALSE(l_error) << l_error->getText();
    }

    // An association over the first link, served here.
    void connect(Peer::Command i_setUp = Peer::SET_UP)
    {
        ASSERT_NO_FATAL_FAILURE(listen(i_setUp));
        ASSERT_EQ(0, iv_Peer.ask(Peer::CONNECT));
        ASSERT_TRUE(waitFor([] { return Echo::s_fd != OS_INVALID; }));
        ASSERT_EQ(1, iv_Peer.ask(Peer::ECHO));
    }

    // What the link check does each minute, each tenth of a second.
    void refreshOften()
    {
        OS_TIMEOUT l_period(0, 100000);
        iv_Dispatcher->AddTimer(*new SctpLinkCheckEH(*iv_Dispatcher), l_period);
    }

    static bool waitForTwoLocalAddresses()
    {
        return waitFor([] { return localAddresses(Echo::s_fd) == 2; });
    }

    // At once or later, but with no time-out.
    void expectRefused()
    {
        const int l_reason = iv_Peer.ask(Peer::CONNECT);
        EXPECT_TRUE(l_reason == 0x4425 || l_reason == 0x440A) << l_reason;
    }

    // Ten retransmissions, or as many heartbeats, take almost as long as one
    // wait lasts.
    static void expectClosed()
    {
        const auto l_gone = [] { return Echo::s_fd == OS_INVALID; };
        EXPECT_TRUE(waitFor(l_gone) || waitFor(l_gone));
        EXPECT_EQ(0x440D, Echo::s_reason);
    }

    const std::string iv_Host = address(SCTP_SUBNET_A, 1);
    Peer iv_Peer;                         // before there are threads
    std::unique_ptr<SockAcc> iv_Acceptor; // outlives the dispatcher
    std::unique_ptr<Dispatcher> iv_Dispatcher;
};

} // namespace

TEST_F(SctpServiceTest, MessagesGoBothWays)
{
    connect();
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_EQ(1, localAddresses(Echo::s_fd));
    EXPECT_EQ(1, iv_Peer.ask(Peer::COUNT_ADDRESSES));
}

TEST_F(SctpServiceTest, BothEndsAreTuned)
{
    connect();
    EXPECT_TRUE(isTuned(Echo::s_fd));
    EXPECT_EQ(1, iv_Peer.ask(Peer::IS_TUNED));
}

TEST_F(SctpServiceTest, HeartbeatIntervalStaysTheSystems)
{
    connect();
    sctp_paddrparams l_path = {};
    ASSERT_TRUE(readOption(Echo::s_fd, SCTP_PEER_ADDR_PARAMS, l_path));
    EXPECT_EQ(30000U, l_path.spp_hbinterval);
}

TEST_F(SctpServiceTest, RefreshAddsTheSecondAddressOnce)
{
    connect();
    refreshOften();
    EXPECT_TRUE(waitForTwoLocalAddresses());
    EXPECT_TRUE(
        waitFor([&] { return iv_Peer.ask(Peer::COUNT_ADDRESSES) == 2; }));
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_EQ(2, localAddresses(Echo::s_fd)) << "after more refreshes";
}

TEST_F(SctpServiceTest, WithTheSystemsDefaultsThePeerNeverLearnsTheAddress)
{
    connect(Peer::SET_UP_AS_IT_COMES);
    refreshOften();
    EXPECT_TRUE(waitForTwoLocalAddresses());
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_EQ(1, iv_Peer.ask(Peer::COUNT_ADDRESSES));
}

TEST_F(SctpServiceTest, AuthenticationLetsThePeerLearnTheAddressToo)
{
    connect(Peer::SET_UP_AUTHENTICATED);
    refreshOften();
    EXPECT_TRUE(
        waitFor([&] { return iv_Peer.ask(Peer::COUNT_ADDRESSES) == 2; }));
}

TEST_F(SctpServiceTest, NewAddressesWithNeitherSettingRefuseTheAssociation)
{
    listen(Peer::SET_UP_INCOMPLETE);
    expectRefused();
}

TEST_F(SctpServiceTest, TrafficSurvivesTheLossOfTheFirstLink)
{
    connect();
    refreshOften();
    ASSERT_TRUE(
        waitFor([&] { return iv_Peer.ask(Peer::COUNT_ADDRESSES) == 2; }));
    run("/sbin/ip link set here0 down");
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
    EXPECT_NE(OS_INVALID, Echo::s_fd) << "it is the same association";
}

TEST_F(SctpServiceTest, KilledPeerIsReportedAsClosed)
{
    connect();
    iv_Peer.kill();
    expectClosed();
}

// Ten times 1.5 seconds at most; with the system's own times it were minutes.
TEST_F(SctpServiceTest, PeerThatVanishesIsReportedAsClosedWithinSeconds)
{
    connect();
    EXPECT_EQ(0, iv_Peer.ask(Peer::VANISH));
    ASSERT_EQ(1, send(Echo::s_fd, MESSAGE, 1, 0)) << "what no peer answers";
    expectClosed();
}

TEST_F(SctpServiceTest, SilentPeerThatVanishesIsFoundByHeartbeats)
{
    run("echo 500 >/proc/sys/net/sctp/hb_interval");
    connect();
    EXPECT_EQ(0, iv_Peer.ask(Peer::VANISH));
    expectClosed();
}

TEST_F(SctpServiceTest, AssociationThatIsShutDownIsReportedAsClosed)
{
    connect();
    EXPECT_EQ(0, iv_Peer.ask(Peer::CLOSE));
    expectClosed();
}

TEST_F(SctpServiceTest, ListeningGoesOnAfterAnAssociationHasEnded)
{
    connect();
    EXPECT_EQ(0, iv_Peer.ask(Peer::CLOSE));
    EXPECT_TRUE(waitFor([] { return Echo::s_fd == OS_INVALID; }));
    EXPECT_EQ(0, iv_Peer.ask(Peer::CONNECT));
    EXPECT_EQ(1, iv_Peer.ask(Peer::ECHO));
}

TEST_F(SctpServiceTest, PortWithoutAListenerIsRefused)
{
    join(Peer::SET_UP);
    expectRefused();
}

TEST(SctpTuningTest, SocketThatIsNotSctpCannotBeTuned)
{
    SockAddr_t l_peer = {};
    ASSERT_EQ(1, initSockAddrStruct("127.0.0.1", 0, l_peer, SOCK_TYPE_SCTP));
    const int l_fd = socket(AF_INET, SOCK_STREAM, 0);
    const pError_t l_error = SetSctpSocketProperties(l_fd, l_peer);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x4411, l_error->getReason());
    EXPECT_EQ(25, l_error->getOrigin());
    close(l_fd);
}

TEST(SctpTuningTest, PeerThatIsUnknownCannotBeTuned)
{
    SockAddr_t l_peer = {};
    ASSERT_EQ(1, initSockAddrStruct("127.0.0.1", 0, l_peer, SOCK_TYPE_SCTP));
    const int l_fd = socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP);
    const pError_t l_error = SetSctpSocketProperties(l_fd, l_peer);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x4412, l_error->getReason());
    EXPECT_STREQ(
        "SetSctpSocketProperties: setsockopt for SCTP_PEER_ADDR_PARAMS failed",
        l_error->getText());
    sctp_rtoinfo l_times = {};
    EXPECT_TRUE(readOption(l_fd, SCTP_RTOINFO, l_times));
    EXPECT_EQ(1500U, l_times.srto_max) << "what came before stays set";
    close(l_fd);
}

#include "support/countingHandler.hpp"
#include "support/dataBuffBytes.hpp"
#include "support/fakeSleep.hpp"
#include "support/loopback.hpp"
#include "support/messageSocket.hpp"
#include "support/tempDir.hpp"
#include "support/waitFor.hpp"
#include "tolv/tolv.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// Acceptors, connectors and services of one dispatcher, over every transport
// of the loopback.

using namespace tolv;

namespace
{

constexpr unsigned short TALK = 1;    // message types
constexpr unsigned short GOODBYE = 2; // answered, and then the service ends
constexpr unsigned short ANSWER = 3;  // a sub-type
constexpr unsigned int ID = 77;
const std::string BODY = "there and back";

/// How peers reach an acceptor.
struct Way
{
    const char* name;
    bool acceptorOverIpv6; // Sock6Acc, else SockAcc
    SockType type;
    const char* host; // of the acceptor, unless it has a path
    bool peerOverIpv6;
};

void PrintTo(const Way& i_way, std::ostream* o_stream)
{
    *o_stream << i_way.name;
}

const Way WAYS[] = {
    {"Tcp", false, SOCK_TYPE_TCP, "127.0.0.1", false},
    {"Tcp6", true, SOCK_TYPE_TCP, "::1", true},
    {"Tcp6FromIpv4", true, SOCK_TYPE_TCP, nullptr, false},
    {"Unix", false, SOCK_TYPE_UNIX, nullptr, false},
    {"Unix6", true, SOCK_TYPE_UNIX, nullptr, false},
    {"Udp", false, SOCK_TYPE_UDP, "127.0.0.1", false},
    {"Udp6", true, SOCK_TYPE_UDP, "::1", true},
    {"Udp6FromIpv4", true, SOCK_TYPE_UDP, nullptr, false},
};

std::vector<Way> waysThat(bool (*i_have)(const Way&))
{
    std::vector<Way> l_ways;
    std::copy_if(std::begin(WAYS), std::end(WAYS), std::back_inserter(l_ways),
                 i_have);
    return l_ways;
}

bool hasConnections(const Way& i_way)
{
    return i_way.type != SOCK_TYPE_UDP;
}

bool hasNoConnections(const Way& i_way)
{
    return !hasConnections(i_way);
}

bool hasConnector(const Way& i_way)
{
    return !i_way.peerOverIpv6;
}

void ask(Channel& io_channel, unsigned short i_type)
{
    NetMessage l_message(ID, i_type, 0, 0, 0);
    l_message.setData(BODY.data(), static_cast<unsigned int>(BODY.size()));
    EXPECT_FALSE(l_message.Send(io_channel));
}

void expectAnswer(Channel& io_channel)
{
    NetMessage l_answer(0);
    io_channel.setTimeOut(TimeValue(20));
    EXPECT_FALSE(l_answer.Receive(io_channel));
    EXPECT_FALSE(io_channel.isTimedOut());
    EXPECT_EQ(ID, l_answer.getMsgId());
    EXPECT_EQ(ANSWER, l_answer.getMsgSubType());
    EXPECT_EQ(BODY, bytesOf(l_answer));
}

void expectEcho(Channel& io_channel, unsigned short i_type = TALK)
{
    ask(io_channel, i_type);
    expectAnswer(io_channel);
}

void expectClosed(Channel& io_channel)
{
    NetMessage l_message(0);
    io_channel.setTimeOut(TimeValue(20));
    const pError_t l_error = l_message.Receive(io_channel);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x440D, l_error->getReason());
}

bool isOpen(OS_HANDLE i_handle)
{
    return fcntl(i_handle, F_GETFD) != -1;
}

// The number that the next descriptor gets: the lowest that is free.
OS_HANDLE nextHandle()
{
    const PeerSocket l_next(dup(STDERR_FILENO));
    return l_next.handle();
}

int option(OS_HANDLE i_handle, int i_option)
{
    int l_value = -1;
    socklen_t l_length = sizeof(l_value);
    getsockopt(i_handle, SOL_SOCKET, i_option, &l_value, &l_length);
    return l_value;
}

// The acceptor's socket: no other one listens or takes datagrams yet.
OS_HANDLE listener()
{
    for (OS_HANDLE l_handle = 0; l_handle != 64; ++l_handle)
    {
        if (option(l_handle, SO_ACCEPTCONN) == 1 ||
            option(l_handle, SO_TYPE) == SOCK_DGRAM)
        {
            return l_handle;
        }
    }
    return OS_INVALID;
}

/// Answers every message, and ends with its peer or when it is told to.
class Echo : public Service
{
  public:
    explicit Echo(Dispatcher& io_dispatcher) : Service(io_dispatcher)
    {
        ++s_made;
    }

    ~Echo() override
    {
        ++s_ended;
    }

    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    static Service* make(Dispatcher& io_dispatcher)
    {
        return new Echo(io_dispatcher);
    }

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            return ACTION_REMOVE;
        }
        NetMessage l_message(0);
        pError_t l_error = l_message.Receive(*iv_pChannel);
        if (!l_error)
        {
            l_message.setMsgSubType(ANSWER);
            l_error = l_message.Send(*iv_pChannel);
        }
        if (l_error)
        {
            s_reason = l_error->getReason();
            return ACTION_REMOVE;
        }
        return l_message.getMsgType() == GOODBYE ? ACTION_REMOVE
                                                 : ACTION_CONTINUE;
    }

    /// Their channels may still be closing.
    static bool waitForEnded(int i_services)
    {
        return waitFor([=] { return s_ended == i_services; });
    }

    static inline std::atomic<int> s_made{0};
    static inline std::atomic<int> s_ended{0};
    static inline std::atomic<int> s_reason{0}; // of the last one's end
};

/// The other end: asks when its timer expires and counts the answers.
class Asker : public Service
{
  public:
    Asker(Dispatcher& io_dispatcher, std::atomic<int>& o_answers) :
        Service(io_dispatcher), iv_Answers(o_answers)
    {
    }

    void Dump(FILE* /*o_stream*/) override {}

    ACTION TimerTick(Timer_t /*i_timer*/, EVENT i_event) override
    {
        EXPECT_EQ(EVENT_TIMER, i_event);
        ask(*iv_pChannel, TALK);
        return ACTION_UNREGISTER;
    }

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            return ACTION_REMOVE;
        }
        expectAnswer(*iv_pChannel);
        ++iv_Answers;
        return ACTION_CONTINUE;
    }

  private:
    std::atomic<int>& iv_Answers;
};

class ServiceSystemTest : public testing::TestWithParam<Way>
{
  protected:
    void SetUp() override
    {
        fakeSleep::skip();
        Echo::s_made = 0;
        Echo::s_ended = 0;
        Echo::s_reason = 0;
        if (iv_Way.acceptorOverIpv6 && iv_Way.type != SOCK_TYPE_UNIX &&
            !isAvailable(Transport::TCP6))
        {
            GTEST_SKIP() << "this machine has no IPv6 loopback";
        }
        // One thread, so that a callback has ended when the next one begins.
        iv_Dispatcher = std::make_unique<Dispatcher>(1U, 1U, false);
        if (iv_Way.acceptorOverIpv6)
        {
            open<Sock6Acc>();
        }
        else
        {
            open<SockAcc>();
        }
    }

    void TearDown() override
    {
        iv_Dispatcher.reset();
        EXPECT_EQ(Echo::s_made, Echo::s_ended);
        if (iv_Listener != OS_INVALID && hasConnections(iv_Way))
        {
            EXPECT_EQ(0, close(iv_Listener)) << "it was closed before";
        }
    }

    // A peer's channel.
    std::unique_ptr<Channel> connect() const
    {
        if (iv_Way.peerOverIpv6)
        {
            return connectOverIpv6();
        }
        Channel* l_channel = nullptr;
        const pError_t l_error =
            SockConn(iv_Way.type).Connect(peersHost(), iv_Port, l_channel);
        EXPECT_FALSE(l_error) << l_error->getText();
        return std::unique_ptr<Channel>(l_channel);
    }

    const char* peersHost() const
    {
        return iv_Way.type == SOCK_TYPE_UNIX ? iv_Path.c_str() : "127.0.0.1";
    }

    bool hasFile() const
    {
        return access(iv_Path.c_str(), F_OK) == 0;
    }

    const Way iv_Way = GetParam();
    const TempDir iv_Folder;
    const std::string iv_Path = iv_Folder.path("socket");
    OS_HANDLE iv_Listener = OS_INVALID; // over UDP the service's
    unsigned short iv_Port = 0;         // in network byte order; not for UNIX
    std::unique_ptr<Acc> iv_Acceptor;   // outlives the dispatcher
    std::unique_ptr<Dispatcher> iv_Dispatcher;

  private:
    template <class ACCEPTOR>
    void open()
    {
        std::unique_ptr<ACCEPTOR> l_acceptor = std::make_unique<ACCEPTOR>(
            *iv_Dispatcher, Echo::make,
            iv_Way.type == SOCK_TYPE_UNIX ? iv_Path.c_str() : iv_Way.host, 0,
            iv_Way.type);
        const pError_t l_error = l_acceptor->Open();
        ASSERT_FALSE(l_error) << l_error->getText();
        iv_Acceptor = std::move(l_acceptor);
        iv_Listener = listener();
        ASSERT_NE(OS_INVALID, iv_Listener);
        LocalAddress l_address = {};
        l_address.length = sizeof(l_address.storage);
        ASSERT_EQ(0,
                  getsockname(iv_Listener, l_address.get(), &l_address.length));
        iv_Port = htons(l_address.port());
    }

    std::unique_ptr<Channel> connectOverIpv6() const
    {
        Sock6Addr_t l_address = {};
        EXPECT_EQ(1, Sock6Acc::initSock6AddrStruct("::1", iv_Port, l_address,
                                                   iv_Way.type));
        PeerSocket l_socket =
            connectedSocket(hasConnections(iv_Way) ? SOCK_STREAM : SOCK_DGRAM,
                            l_address.addr.in6);
        std::unique_ptr<Sock6Channel> l_channel =
            std::make_unique<Sock6Channel>(l_socket.release(), iv_Way.type);
        l_channel->setRemoteAddress(l_address);
        return l_channel;
    }
};

using ServiceConnectorTest = ServiceSystemTest;
using ServiceStreamTest = ServiceSystemTest;
using ServiceDatagramTest = ServiceSystemTest;

INSTANTIATE_TEST_SUITE_P(Over, ServiceSystemTest, testing::ValuesIn(WAYS),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Over, ServiceConnectorTest,
                         testing::ValuesIn(waysThat(hasConnector)),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Over, ServiceStreamTest,
                         testing::ValuesIn(waysThat(hasConnections)),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Over, ServiceDatagramTest,
                         testing::ValuesIn(waysThat(hasNoConnections)),
                         testing::PrintToStringParamName());

} // namespace

TEST_P(ServiceSystemTest, MessagesOfTwoPeersGoBothWays)
{
    const std::unique_ptr<Channel> l_first = connect();
    expectEcho(*l_first);
    expectEcho(*l_first);
    const std::unique_ptr<Channel> l_second = connect();
    expectEcho(*l_second);
    expectEcho(*l_first);
    EXPECT_EQ(hasConnections(iv_Way) ? 2 : 1, Echo::s_made);
    EXPECT_EQ(0, Echo::s_ended);
}

TEST_P(ServiceSystemTest, ServicesOutliveTheirAcceptorAndItsPathDoesNot)
{
    const std::unique_ptr<Channel> l_channel = connect();
    expectEcho(*l_channel);
    EXPECT_EQ(iv_Way.type == SOCK_TYPE_UNIX, hasFile());
    if (hasConnections(iv_Way))
    {
        iv_Dispatcher->Unregister(iv_Listener);
    }
    iv_Acceptor.reset();
    EXPECT_FALSE(hasFile());
    EXPECT_TRUE(isOpen(iv_Listener));
    expectEcho(*l_channel);
}

TEST_P(ServiceConnectorTest, BothEndsMayBeServices)
{
    std::atomic<int> l_answers(0);
    Asker& l_asker = *new Asker(*iv_Dispatcher, l_answers);
    ASSERT_FALSE(SockConn(iv_Way.type).Connect(peersHost(), iv_Port, l_asker));
    OS_TIMEOUT l_atOnce;
    iv_Dispatcher->AddTimer(l_asker, l_atOnce);
    EXPECT_TRUE(waitFor([&] { return l_answers == 1; }));
    iv_Dispatcher.reset(); // and with it l_asker
}

TEST_P(ServiceStreamTest, PeerThatClosesEndsItsServiceOnly)
{
    std::unique_ptr<Channel> l_closes = connect();
    const std::unique_ptr<Channel> l_stays = connect();
    expectEcho(*l_closes);
    expectEcho(*l_stays);
    l_closes.reset();
    EXPECT_TRUE(Echo::waitForEnded(1));
    EXPECT_EQ(0x440D, Echo::s_reason);
    expectEcho(*l_stays);
    expectEcho(*connect());
    EXPECT_EQ(3, Echo::s_made);
}

TEST_P(ServiceStreamTest, ServiceThatEndsClosesItsConnectionOnly)
{
    const std::unique_ptr<Channel> l_ends = connect();
    const std::unique_ptr<Channel> l_stays = connect();
    expectEcho(*l_stays);
    expectEcho(*l_ends, GOODBYE);
    expectClosed(*l_ends);
    EXPECT_TRUE(Echo::waitForEnded(1));
    expectEcho(*l_stays);
    expectEcho(*connect());
}

TEST_P(ServiceStreamTest, FailedAcceptEndsTheListeningAndNoService)
{
    const std::unique_ptr<Channel> l_served = connect();
    expectEcho(*l_served);
    rlimit l_old = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_old));
    std::unique_ptr<Channel> l_waits;
    std::atomic<bool> l_connected(false);
    Gate l_gate;
    CountingHandler l_handler;
    // In a callback, while this thread only waits: a sanitizer may open
    // descriptors for a moment in any code of its own.
    l_handler.iv_OnTimer = [&](Timer_t)
    {
        l_gate.pass();
        rlimit l_few = l_old;
        l_few.rlim_cur = static_cast<rlim_t>(nextHandle()) + 1; // for the peer
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_few));
        l_waits = connect();
        l_connected = true;
        return EventHandler::ACTION_UNREGISTER;
    };
    OS_TIMEOUT l_atOnce;
    iv_Dispatcher->AddTimer(l_handler, l_atOnce);
    l_gate.open();
    ASSERT_TRUE(waitFor([&] { return l_connected.load(); }));
    // The listener was registered first, so its turn is before this one.
    expectEcho(*l_served);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_old));
    EXPECT_EQ(1, Echo::s_made);
    // This aborts while the listener is registered.
    iv_Dispatcher->Register(iv_Listener, *iv_Acceptor, 2);
    expectEcho(*l_waits);
}

TEST_P(ServiceStreamTest, ShutdownClosesConnectionsAndLeavesTheListener)
{
    const std::unique_ptr<Channel> l_channel = connect();
    expectEcho(*l_channel);
    iv_Dispatcher.reset();
    EXPECT_EQ(1, Echo::s_ended);
    expectClosed(*l_channel);
    EXPECT_TRUE(isOpen(iv_Listener));
    EXPECT_EQ(iv_Way.type == SOCK_TYPE_UNIX, hasFile());
}

TEST_P(ServiceDatagramTest, PeerThatClosesLeavesTheServiceToOthers)
{
    expectEcho(*connect());
    expectEcho(*connect());
    EXPECT_EQ(1, Echo::s_made);
    EXPECT_EQ(0, Echo::s_ended);
}

TEST_P(ServiceDatagramTest, ServiceThatEndsClosesThePort)
{
    expectEcho(*connect(), GOODBYE);
    EXPECT_TRUE(waitFor([&] { return !isOpen(iv_Listener); }));
}

TEST(ServiceWithoutChannelTest, DescriptorOfItsMakerIsServedAndStaysOpen)
{
    /// Ends with the first byte.
    class OneByte : public Service
    {
      public:
        using Service::Service;

        ~OneByte() override
        {
            ++Echo::s_ended;
        }

        void Dump(FILE* /*o_stream*/) override {}

        ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override
        {
            EXPECT_EQ(EVENT_READ, i_event);
            EXPECT_EQ('x', takeByte(i_handle));
            return ACTION_REMOVE;
        }
    };
    fakeSleep::skip();
    Echo::s_ended = 0;
    const SocketPair l_pair;
    {
        Dispatcher l_dispatcher(1, 1, false);
        (new OneByte(l_dispatcher))->Open(l_pair.near());
        l_pair.send('x');
        EXPECT_TRUE(Echo::waitForEnded(1));
    }
    EXPECT_TRUE(isOpen(l_pair.near()));
}

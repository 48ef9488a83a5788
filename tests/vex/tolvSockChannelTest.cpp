#include "tolv/vex/tolvSockChannel.hpp"

#include "support/fakeSockets.hpp"
#include "support/loopback.hpp"
#include "support/waitFor.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

const std::string WHOLE = "0123456789abcdefghijklmnopqrstuv"; // 32 bytes

// A time-out that no test waits for, and one that it does.
const TimeValue LONG(60);
const TimeValue SHORT(0, 20000);

enum Waiting
{
    WITHOUT_TIME_OUT,
    WITH_TIME_OUT
};

enum Taking
{
    READ,
    PEEK
};

// A channel over a real socket and its peer. System calls are recorded.
class Connection
{
  public:
    explicit Connection(SockType i_type, Waiting i_waiting = WITHOUT_TIME_OUT) :
        Connection(i_type, i_waiting,
                   i_type == SOCK_TYPE_UNIX ? unixPair() : tcpPair(loopback4()))
    {
    }

    SockChannel& channel()
    {
        return iv_Channel;
    }

    PeerSocket& peer()
    {
        return iv_Peer;
    }

    pError_t take(Taking i_how, unsigned int i_count)
    {
        iv_Bytes.assign(i_count, '\0');
        unsigned int l_count = i_count;
        pError_t l_error = i_how == READ
                               ? iv_Channel.Read(iv_Bytes.data(), l_count)
                               : iv_Channel.Peek(iv_Bytes.data(), l_count);
        iv_Bytes.resize(l_count);
        return l_error;
    }

    // What the last take() has reported.
    const std::string& bytes() const
    {
        return iv_Bytes;
    }

  private:
    Connection(SockType i_type, Waiting i_waiting, SocketPair_t i_pair) :
        iv_Channel(i_pair.first.release(), i_type),
        iv_Peer(std::move(i_pair.second))
    {
        fakeSockets::forget();
        if (i_waiting == WITH_TIME_OUT)
        {
            iv_Channel.setTimeOut(LONG);
        }
    }

    SockChannel iv_Channel;
    PeerSocket iv_Peer;
    std::string iv_Bytes;
};

void onEachStream(const std::function<void(SockType, Waiting)>& i_check)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UNIX})
    {
        for (const Waiting l_waiting : {WITHOUT_TIME_OUT, WITH_TIME_OUT})
        {
            SCOPED_TRACE(testing::Message()
                         << "type " << l_type << ", time-out " << l_waiting);
            i_check(l_type, l_waiting);
        }
    }
}

std::size_t receivings()
{
    return fakeSockets::callsOf("recv").size() +
           fakeSockets::callsOf("recvfrom").size();
}

template <class T>
T option(int i_handle, int i_name)
{
    T l_value = {};
    socklen_t l_length = sizeof(l_value);
    EXPECT_EQ(0, getsockopt(i_handle, SOL_SOCKET, i_name, &l_value, &l_length));
    return l_value;
}

// Whether this system lets a peek begin behind known bytes; emulators do not.
bool hasPeekOffset(int i_handle)
{
    int l_value = 0;
    socklen_t l_length = sizeof(l_value);
    return getsockopt(i_handle, SOL_SOCKET, SO_PEEK_OFF, &l_value, &l_length) ==
           0;
}

// A UDP channel and a socket that sends to it.
class Datagrams
{
  public:
    Datagrams() : Datagrams(loopback4()) {}

    SockChannel& channel()
    {
        return iv_Channel;
    }

    // Another sender.
    PeerSocket sender() const
    {
        return connectedSocket(SOCK_DGRAM, iv_Address);
    }

  private:
    explicit Datagrams(sockaddr_in i_address) :
        iv_Channel(boundSocket(SOCK_DGRAM, i_address).release(), SOCK_TYPE_UDP),
        iv_Address(i_address)
    {
    }

    SockChannel iv_Channel;
    const sockaddr_in iv_Address;
};

std::string taken(SockChannel& io_channel, Taking i_how, unsigned int i_count)
{
    std::string l_bytes(i_count, '\0');
    unsigned int l_count = i_count;
    const pError_t l_error = i_how == READ
                                 ? io_channel.Read(l_bytes.data(), l_count)
                                 : io_channel.Peek(l_bytes.data(), l_count);
    EXPECT_FALSE(l_error);
    l_bytes.resize(l_count);
    return l_bytes;
}

pError_t put(SockChannel& io_channel, std::string i_bytes,
             unsigned int& o_count)
{
    o_count = static_cast<unsigned int>(i_bytes.size());
    return io_channel.Write(i_bytes.data(), o_count);
}

in_port_t portOf(const PeerSocket& i_socket)
{
    sockaddr_in l_address = {};
    socklen_t l_length = sizeof(l_address);
    EXPECT_EQ(0,
              getsockname(i_socket.handle(),
                          reinterpret_cast<sockaddr*>(&l_address), &l_length));
    return l_address.sin_port;
}

// Writes until the peer of the socket can take no more.
void fill(const PeerSocket& i_socket)
{
    EXPECT_EQ(0, fcntl(i_socket.handle(), F_SETFL, O_NONBLOCK));
    const std::string l_part(5000, 'x');
    while (::write(i_socket.handle(), l_part.data(), l_part.size()) > 0)
    {
    }
    EXPECT_EQ(EAGAIN, errno);
}

void doNothing(int) {}

} // namespace

TEST(SockChannelTest, BytesGoBothWays)
{
    onEachStream(
        [](SockType i_type, Waiting i_waiting)
        {
            Connection l_connection(i_type, i_waiting);
            l_connection.peer().put(WHOLE);
            EXPECT_FALSE(l_connection.take(PEEK, 10));
            EXPECT_EQ(WHOLE.substr(0, 10), l_connection.bytes());
            EXPECT_FALSE(l_connection.take(READ, 32));
            EXPECT_EQ(WHOLE, l_connection.bytes());
            unsigned int l_count = 0;
            EXPECT_FALSE(put(l_connection.channel(), WHOLE, l_count));
            EXPECT_EQ(32U, l_count);
            EXPECT_EQ(WHOLE, l_connection.peer().take());
        });
}

TEST(SockChannelTest, DestructionClosesTheConnection)
{
    SocketPair_t l_pair = unixPair();
    {
        const SockChannel l_channel(l_pair.first.release(), SOCK_TYPE_UNIX);
    }
    EXPECT_EQ("", l_pair.second.take());
}

TEST(SockChannelTest, SlowPeerIsPeekedAtOnce)
{
    onEachStream(
        [](SockType i_type, Waiting i_waiting)
        {
            Connection l_connection(i_type, i_waiting);
            l_connection.peer().put(WHOLE.substr(0, 10));
            std::thread l_peer(
                [&]
                {
                    EXPECT_TRUE(waitFor([] { return receivings() >= 1; }));
                    l_connection.peer().put(WHOLE.substr(10, 10));
                    l_connection.peer().put(WHOLE.substr(20));
                });
            EXPECT_FALSE(l_connection.take(PEEK, 32));
            l_peer.join();
            EXPECT_EQ(WHOLE, l_connection.bytes());
            // Some for each part that came, or one each 10 ms: no busy waiting.
            EXPECT_GE(30U, receivings());
            EXPECT_FALSE(l_connection.take(READ, 32));
            EXPECT_EQ(WHOLE, l_connection.bytes());
        });
}

TEST(SockChannelTest, TimeOutAppliesToSocketsThatDoNotBlock)
{
    onEachStream(
        [](SockType i_type, Waiting)
        {
            for (const Taking l_how : {READ, PEEK})
            {
                Connection l_connection(i_type, WITH_TIME_OUT);
                ASSERT_EQ(0, fcntl(l_connection.channel().getHandle(), F_SETFL,
                                   O_NONBLOCK));
                l_connection.peer().put(WHOLE.substr(0, 10));
                // Else the channel waits in select(), where it can.
                const bool l_looksOften =
                    i_type == SOCK_TYPE_UNIX && l_how == PEEK;
                const std::size_t l_looks = l_looksOften ? 2 : 1;
                std::thread l_peer(
                    [&]
                    {
                        EXPECT_TRUE(
                            waitFor([&] { return receivings() >= l_looks; }));
                        l_connection.peer().put(WHOLE.substr(10));
                    });
                EXPECT_FALSE(l_connection.take(l_how, 32));
                l_peer.join();
                EXPECT_EQ(WHOLE, l_connection.bytes());
                EXPECT_FALSE(l_connection.channel().isTimedOut());
            }
        });
}

TEST(SockChannelTest, PeekThatASignalInterruptsReportsNoByteTwice)
{
    struct sigaction l_action = {};
    l_action.sa_handler = doNothing;
    ASSERT_EQ(0, sigaction(SIGUSR1, &l_action, nullptr));
    Connection l_connection(SOCK_TYPE_TCP);
    l_connection.peer().put(WHOLE.substr(0, 10));
    const pthread_t l_reader = pthread_self();
    std::thread l_peer(
        [&]
        {
            // The peek has come short when it looks for the stream's end.
            EXPECT_TRUE(waitFor(
                [&]
                {
                    pthread_kill(l_reader, SIGUSR1);
                    return !fakeSockets::callsOf("poll").empty();
                }));
            l_connection.peer().put(WHOLE.substr(10));
        });
    EXPECT_FALSE(l_connection.take(PEEK, 32));
    l_peer.join();
    EXPECT_EQ(WHOLE, l_connection.bytes());
}

TEST(SockChannelTest, PeerThatClosesAtAnyByteIsReportedWithThePart)
{
    onEachStream(
        [](SockType i_type, Waiting i_waiting)
        {
            for (const Taking l_how : {READ, PEEK})
            {
                for (unsigned int l_part = 0; l_part != 32; ++l_part)
                {
                    Connection l_connection(i_type, i_waiting);
                    l_connection.peer().put(WHOLE.substr(0, l_part));
                    l_connection.peer().shut();
                    const pError_t l_error = l_connection.take(l_how, 32);
                    ASSERT_TRUE(l_error);
                    EXPECT_EQ(0x440D, l_error->getReason());
                    EXPECT_NE(std::string::npos,
                              std::string(l_error->getText())
                                  .find("Req[32] Recv[" +
                                        std::to_string(l_part) + "]"));
                    EXPECT_EQ(WHOLE.substr(0, l_part), l_connection.bytes());
                }
            }
        });
}

TEST(SockChannelTest, PeerThatClosesWhileAPeekWaitsIsReported)
{
    onEachStream(
        [](SockType i_type, Waiting i_waiting)
        {
            Connection l_connection(i_type, i_waiting);
            l_connection.peer().put(WHOLE.substr(0, 10));
            std::thread l_peer(
                [&]
                {
                    EXPECT_TRUE(waitFor([] { return receivings() >= 1; }));
                    l_connection.peer().put(WHOLE.substr(10, 5));
                    l_connection.peer().shut();
                });
            const pError_t l_error = l_connection.take(PEEK, 32);
            l_peer.join();
            ASSERT_TRUE(l_error);
            EXPECT_EQ(0x440D, l_error->getReason());
            EXPECT_EQ(WHOLE.substr(0, 15), l_connection.bytes());
        });
}

TEST(SockChannelTest, PeerThatResetsBehindAPartIsAnError)
{
    for (const Taking l_how : {READ, PEEK})
    {
        Connection l_connection(SOCK_TYPE_TCP);
        l_connection.peer().put(WHOLE.substr(0, 10));
        l_connection.peer().reset();
        const pError_t l_error = l_connection.take(l_how, 32);
        ASSERT_TRUE(l_error);
        EXPECT_EQ(0x440B, l_error->getReason());
        EXPECT_EQ(ECONNRESET, l_error->getErrno());
        EXPECT_EQ("", l_connection.bytes());

        Connection l_timed(SOCK_TYPE_TCP, WITH_TIME_OUT);
        l_timed.peer().put(WHOLE.substr(0, 10));
        l_timed.peer().reset();
        const pError_t l_pending = l_timed.take(l_how, 32);
        ASSERT_TRUE(l_pending);
        EXPECT_EQ(0x4425, l_pending->getReason());
        EXPECT_EQ(5, l_pending->getOrigin());
    }
}

TEST(SockChannelTest, TimeOutReportsThePartAndLeavesThePeekedBytes)
{
    onEachStream(
        [](SockType i_type, Waiting)
        {
            for (const Taking l_how : {READ, PEEK})
            {
                Connection l_connection(i_type);
                SockChannel& l_channel = l_connection.channel();
                l_channel.setTimeOut(SHORT);
                l_connection.peer().put(WHOLE.substr(0, 10));
                errno = 0;
                EXPECT_FALSE(l_connection.take(l_how, 32));
                EXPECT_EQ(ETIMEDOUT, errno);
                EXPECT_EQ(WHOLE.substr(0, 10), l_connection.bytes());
                EXPECT_TRUE(l_channel.isTimedOut());
                EXPECT_EQ(TimeValue(), l_channel.getTimeOut());
                EXPECT_GE(30U, receivings());
                // It polls from now on.
                EXPECT_FALSE(l_connection.take(READ, 32));
                EXPECT_EQ(l_how == READ ? "" : WHOLE.substr(0, 10),
                          l_connection.bytes());
            }
        });
}

TEST(SockChannelTest, PeekPutsTheSocketsOptionsBack)
{
    onEachStream(
        [](SockType i_type, Waiting)
        {
            Connection l_connection(i_type);
            l_connection.channel().setTimeOut(SHORT);
            l_connection.peer().put("0123");
            EXPECT_FALSE(l_connection.take(PEEK, 32));
            const int l_handle = l_connection.channel().getHandle();
            EXPECT_EQ(1, option<int>(l_handle, SO_RCVLOWAT));
            const timeval l_limit = option<timeval>(l_handle, SO_RCVTIMEO);
            EXPECT_EQ(0, l_limit.tv_sec);
            EXPECT_EQ(0, l_limit.tv_usec);
            if (i_type == SOCK_TYPE_UNIX && hasPeekOffset(l_handle))
            {
                EXPECT_EQ(-1, option<int>(l_handle, SO_PEEK_OFF));
            }
        });
}

TEST(SockChannelTest, PeekOfMoreThanTheSocketHoldsEndsInTimeAndRests)
{
    Connection l_connection(SOCK_TYPE_TCP);
    SockChannel& l_channel = l_connection.channel();
    const int l_smallest = 1;
    ASSERT_EQ(0, setsockopt(l_channel.getHandle(), SOL_SOCKET, SO_RCVBUF,
                            &l_smallest, sizeof(l_smallest)));
    ASSERT_EQ(0, fcntl(l_connection.peer().handle(), F_SETFL, O_NONBLOCK));
    const std::string l_much(4000000, 'x');
    EXPECT_LT(
        0, ::write(l_connection.peer().handle(), l_much.data(), l_much.size()));
    l_channel.setTimeOut(TimeValue(0, 200000));
    EXPECT_FALSE(l_connection.take(PEEK, 64000000));
    EXPECT_TRUE(l_channel.isTimedOut());
    EXPECT_LT(0U, l_connection.bytes().size());
    EXPECT_GE(100U, receivings());
}

// A full socket is ready, however few bytes it has.
TEST(SockChannelTest, TimedPeekOfMoreThanAFullSocketHoldsEndsInTime)
{
    for (const int l_eighths : {9, 10, 11, 12, 13, 14})
    {
        Connection l_connection(SOCK_TYPE_TCP, WITH_TIME_OUT);
        fill(l_connection.peer());
        int l_held = 0;
        ASSERT_EQ(0,
                  ioctl(l_connection.channel().getHandle(), FIONREAD, &l_held));
        l_connection.channel().setTimeOut(SHORT);
        std::atomic<bool> l_ended(false);
        std::thread l_reader(
            [&]
            {
                const int l_more = l_held / 8 * l_eighths;
                EXPECT_FALSE(
                    l_connection.take(PEEK, static_cast<unsigned int>(l_more)));
                l_ended = true;
            });
        EXPECT_TRUE(waitFor([&] { return l_ended.load(); }));
        l_connection.peer().reset(); // ends a peek that waits for ever
        l_reader.join();
    }
}

TEST(SockChannelTest, ReadOfNoBytesOverTcpReadsAsClosed)
{
    Connection l_connection(SOCK_TYPE_TCP);
    l_connection.peer().put(WHOLE);
    const pError_t l_error = l_connection.take(READ, 0);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x440D, l_error->getReason());
    EXPECT_EQ(1U, receivings());
}

TEST(SockChannelTest, HandlesBeyondTheSystemsSetAreWaitedFor)
{
#ifdef __powerpc__
    GTEST_SKIP() << "the emulator's own set ends at 1024";
#endif
    constexpr int LOWEST = 1500;
    rlimit l_limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_limit));
    l_limit.rlim_cur = l_limit.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_limit));
    SocketPair_t l_pair = tcpPair(loopback4());
    const int l_high = fcntl(l_pair.first.handle(), F_DUPFD_CLOEXEC, LOWEST);
    if (l_high == -1)
    {
        GTEST_SKIP() << "no descriptors from 1500 on: " << strerror(errno);
    }
    SockChannel l_channel(l_high, SOCK_TYPE_TCP);
    l_channel.setTimeOut(LONG);
    l_pair.second.put("abc");
    EXPECT_EQ("abc", taken(l_channel, READ, 3));
    l_channel.setTimeOut(SHORT);
    EXPECT_EQ("", taken(l_channel, READ, 3));
    EXPECT_TRUE(l_channel.isTimedOut());
}

TEST(SockChannelTest, WriteToAClosedPeerIsAnErrorWithoutASignal)
{
    onEachStream(
        [](SockType i_type, Waiting)
        {
            Connection l_connection(i_type);
            l_connection.peer().shut();
            unsigned int l_count = 0;
            pError_t l_error;
            EXPECT_TRUE(waitFor(
                [&]
                {
                    l_error = put(l_connection.channel(), WHOLE, l_count);
                    return l_error && l_error->getErrno() == EPIPE;
                }));
            EXPECT_EQ(0x440F, l_error->getReason());
            EXPECT_EQ(0U, l_count);
        });
}

TEST(SockChannelTest, WriteToAPeerThatNeverReadsBlocks)
{
    Connection l_connection(SOCK_TYPE_UNIX);
    const std::string l_much(4000000, 'x');
    std::atomic<bool> l_written(false);
    unsigned int l_count = 0;
    std::thread l_writer(
        [&]
        {
            EXPECT_FALSE(put(l_connection.channel(), l_much, l_count));
            l_written = true;
        });
    EXPECT_NE("", l_connection.peer().take(1));
    EXPECT_FALSE(l_written);
    std::size_t l_taken = 1;
    while (l_taken != l_much.size())
    {
        l_taken += l_connection.peer().take(65536).size();
    }
    l_writer.join();
    EXPECT_EQ(l_much.size(), l_count);
}

TEST(SockChannelTest, WriteOverANonBlockingSocketMayBeShort)
{
    Connection l_connection(SOCK_TYPE_UNIX);
    ASSERT_EQ(0,
              fcntl(l_connection.channel().getHandle(), F_SETFL, O_NONBLOCK));
    const std::string l_much(4000000, 'x');
    unsigned int l_count = 0;
    EXPECT_FALSE(put(l_connection.channel(), l_much, l_count));
    EXPECT_LT(0U, l_count);
    EXPECT_GT(l_much.size(), l_count);
    const pError_t l_error = put(l_connection.channel(), l_much, l_count);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(EAGAIN, l_error->getErrno());
    EXPECT_EQ(0U, l_count);
}

TEST(SockChannelTest, IsAliveBlocksUntilTwoBytesAreThere)
{
    Connection l_connection(SOCK_TYPE_UNIX);
    l_connection.peer().put("a");
    std::atomic<bool> l_done(false);
    bool l_alive = false;
    std::thread l_asker(
        [&]
        {
            l_alive = l_connection.channel().isAlive();
            l_done = true;
        });
    // It has seen the byte and goes on to wait for another one.
    EXPECT_TRUE(
        waitFor([] { return !fakeSockets::callsOf("getsockopt").empty(); }));
    EXPECT_FALSE(l_done);
    l_connection.peer().put("b");
    l_asker.join();
    EXPECT_TRUE(l_alive);
    EXPECT_EQ("ab", taken(l_connection.channel(), READ, 2));
}

TEST(SockChannelTest, ClosedConnectionIsAliveWhileBytesAreUnread)
{
    onEachStream(
        [](SockType i_type, Waiting i_waiting)
        {
            Connection l_connection(i_type, i_waiting);
            l_connection.peer().put("a");
            l_connection.peer().shut();
            EXPECT_TRUE(l_connection.channel().isAlive());
            EXPECT_EQ("a", taken(l_connection.channel(), READ, 1));
            EXPECT_FALSE(l_connection.channel().isAlive());
        });
}

TEST(SockChannelTest, PeerOfAStreamIsTheOneThatWasSet)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_SCTP})
    {
        SockChannel l_channel(OS_INVALID, l_type);
        EXPECT_STREQ("", l_channel.getRemoteAddress());
        SockAddr_t l_addr = {};
        ASSERT_EQ(1, initSockAddrStruct("255.255.255.255", htons(0xF1F2),
                                        l_addr, l_type));
        l_channel.setRemoteAddress(l_addr);
        EXPECT_STREQ("255.255.255.255", l_channel.getRemoteAddress());
        EXPECT_EQ(htons(0xF1F2), l_channel.getPort()); // with no sign
    }
}

TEST(SockChannelTest, PeerOfAUnixSocketIsItsPath)
{
    for (const std::size_t l_length : {1U, 108U})
    {
        const std::string l_path(l_length, 'p');
        SockAddr_t l_addr = {};
        ASSERT_EQ(
            1, initSockAddrStruct(l_path.c_str(), 0, l_addr, SOCK_TYPE_UNIX));
        SockChannel l_channel(OS_INVALID, SOCK_TYPE_UNIX);
        EXPECT_STREQ("", l_channel.getRemoteAddress());
        l_channel.setRemoteAddress(l_addr);
        EXPECT_EQ(l_path, l_channel.getRemoteAddress());
        EXPECT_EQ(0, l_channel.getPort());
    }
}

TEST(SockChannelTest, DumpPrintsNothing)
{
    char* l_text = nullptr;
    std::size_t l_length = 0;
    FILE* const l_stream = open_memstream(&l_text, &l_length);
    ASSERT_NE(nullptr, l_stream);
    SockChannel(OS_INVALID, SOCK_TYPE_TCP).Dump(l_stream);
    EXPECT_EQ(0, std::fclose(l_stream));
    EXPECT_EQ(0U, l_length);
    std::free(l_text);
}

TEST(SockChannelTest, PeerOverUdpIsTheLastSender)
{
    Datagrams l_datagrams;
    SockChannel& l_channel = l_datagrams.channel();
    EXPECT_STREQ("0.0.0.0", l_channel.getRemoteAddress());
    EXPECT_EQ(0, l_channel.getPort());
    const PeerSocket l_first = l_datagrams.sender();
    const PeerSocket l_second = l_datagrams.sender();
    unsigned int l_count = 0;
    for (const PeerSocket* const l_sender : {&l_first, &l_second, &l_first})
    {
        l_sender->put("ask");
        EXPECT_EQ("ask", taken(l_channel, READ, 3));
        EXPECT_STREQ("127.0.0.1", l_channel.getRemoteAddress());
        EXPECT_EQ(portOf(*l_sender), l_channel.getPort());
        EXPECT_FALSE(put(l_channel, "answer", l_count));
        EXPECT_EQ("answer", l_sender->take());
    }
    l_second.put("ask");
    EXPECT_EQ("ask", taken(l_channel, PEEK, 3));
    EXPECT_EQ(portOf(l_second), l_channel.getPort());
}

TEST(SockChannelTest, ReadBeyondADatagramGoesOnWithTheNextOne)
{
    Datagrams l_datagrams;
    const PeerSocket l_first = l_datagrams.sender();
    const PeerSocket l_second = l_datagrams.sender();
    l_first.put("abc");
    l_second.put("defghij");
    EXPECT_EQ("abcdef", taken(l_datagrams.channel(), READ, 6));
    EXPECT_EQ(portOf(l_second), l_datagrams.channel().getPort());
    l_first.put("next"); // the rest of the long one is lost
    EXPECT_EQ("next", taken(l_datagrams.channel(), READ, 4));
}

TEST(SockChannelTest, PeekBeyondADatagramRepeatsIt)
{
    Datagrams l_datagrams;
    const PeerSocket l_sender = l_datagrams.sender();
    l_sender.put("abc");
    l_sender.put("defg");
    EXPECT_EQ("abcabcab", taken(l_datagrams.channel(), PEEK, 8));
    EXPECT_EQ("abcdefg", taken(l_datagrams.channel(), READ, 7));
}

TEST(SockChannelTest, EmptyDatagramReadsAsClosed)
{
    Datagrams l_datagrams;
    const PeerSocket l_sender = l_datagrams.sender();
    l_sender.put("");
    l_sender.put("next");
    char l_buffer[4] = {};
    unsigned int l_count = sizeof(l_buffer);
    const pError_t l_error = l_datagrams.channel().Read(l_buffer, l_count);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x440D, l_error->getReason());
    EXPECT_EQ(0U, l_count);
    EXPECT_EQ("next", taken(l_datagrams.channel(), READ, 4));
}

TEST(SockChannelTest, RefreshDoesNothingWithoutSctp)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        SockChannel l_channel(OS_INVALID, l_type);
        fakeSockets::forget();
        EXPECT_EQ(0, l_channel.RefreshChannel());
        EXPECT_TRUE(fakeSockets::calls().empty());
    }
}

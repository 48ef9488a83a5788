#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace
{

/// Owns a descriptor.
class Socket
{
  public:
    explicit Socket(int i_fd) : iv_Fd(i_fd) {}
    ~Socket()
    {
        if (iv_Fd != -1)
        {
            close(iv_Fd);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const
    {
        return iv_Fd;
    }

  private:
    const int iv_Fd;
};

template <typename T>
T option(const Socket& i_socket, int i_level, int i_name)
{
    T l_value = {};
    socklen_t l_length = sizeof(l_value);
    EXPECT_EQ(0,
              getsockopt(i_socket.fd(), i_level, i_name, &l_value, &l_length))
        << strerror(errno);
    return l_value;
}

/// Two one-to-one sockets with an association over the loopback.
class SctpLoopbackTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(-1, iv_Listener.fd()) << strerror(errno);
        ASSERT_NE(-1, iv_Client.fd()) << strerror(errno);
        sockaddr_in l_address = {};
        l_address.sin_family = AF_INET;
        l_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t l_length = sizeof(l_address);
        sockaddr* const l_generic = reinterpret_cast<sockaddr*>(&l_address);
        ASSERT_EQ(0, bind(iv_Listener.fd(), l_generic, l_length));
        ASSERT_EQ(0, listen(iv_Listener.fd(), 1));
        ASSERT_EQ(0, getsockname(iv_Listener.fd(), l_generic, &l_length));
        ASSERT_EQ(0, connect(iv_Client.fd(), l_generic, l_length))
            << strerror(errno);
    }

    static int open()
    {
        return socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP);
    }

    const Socket iv_Listener{open()};
    const Socket iv_Client{open()};
};

TEST_F(SctpLoopbackTest, SocketIsOneToOneSctp)
{
    EXPECT_EQ(SOCK_STREAM, option<int>(iv_Client, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(IPPROTO_SCTP, option<int>(iv_Client, SOL_SOCKET, SO_PROTOCOL));
}

TEST_F(SctpLoopbackTest, ConnectedSocketReportsAnEstablishedAssociation)
{
    const auto l_status =
        option<sctp_status>(iv_Client, IPPROTO_SCTP, SCTP_STATUS);
    EXPECT_EQ(SCTP_ESTABLISHED, l_status.sstat_state);
    EXPECT_EQ(SCTP_ACTIVE, l_status.sstat_primary.spinfo_state);
}

TEST_F(SctpLoopbackTest, MessageArrivesWholeWithItsStreamAndProtocol)
{
    constexpr std::uint16_t STREAM = 3;
    const std::uint32_t l_protocol = htonl(0x746F6C76);
    const Socket l_server(accept(iv_Listener.fd(), nullptr, nullptr));
    ASSERT_NE(-1, l_server.fd());
    sctp_event_subscribe l_events = {};
    l_events.sctp_data_io_event = 1; // or the stream number is not delivered
    ASSERT_EQ(0, setsockopt(l_server.fd(), IPPROTO_SCTP, SCTP_EVENTS, &l_events,
                            sizeof(l_events)));

    ASSERT_EQ(5, sctp_sendmsg(iv_Client.fd(), "tolv", 5, nullptr, 0, l_protocol,
                              0, STREAM, 0, 0));
    ASSERT_EQ(5, sctp_sendmsg(iv_Client.fd(), "next", 5, nullptr, 0, l_protocol,
                              0, STREAM, 0, 0));

    char l_message[64] = {};
    sctp_sndrcvinfo l_info = {};
    int l_flags = 0;
    ASSERT_EQ(5, sctp_recvmsg(l_server.fd(), l_message, sizeof(l_message),
                              nullptr, nullptr, &l_info, &l_flags));
    EXPECT_STREQ("tolv", l_message);
    EXPECT_EQ(MSG_EOR, l_flags & MSG_EOR);
    EXPECT_EQ(STREAM, l_info.sinfo_stream);
    EXPECT_EQ(l_protocol, l_info.sinfo_ppid);
}

} // namespace

// Real sockets on the loopback for tests.
#ifndef TOLV_TESTS_SUPPORT_LOOPBACK_HPP
#define TOLV_TESTS_SUPPORT_LOOPBACK_HPP

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <string>
#include <utility>

/// Owns a descriptor. Reads and writes are those of files, which no test
/// replaces.
class PeerSocket
{
  public:
    explicit PeerSocket(int i_handle = -1) : iv_Handle(i_handle) {}

    PeerSocket(PeerSocket&& io_other) noexcept :
        iv_Handle(std::exchange(io_other.iv_Handle, -1))
    {
    }

    ~PeerSocket()
    {
        shut();
    }

    PeerSocket(const PeerSocket&) = delete;
    PeerSocket& operator=(const PeerSocket&) = delete;

    int handle() const
    {
        return iv_Handle;
    }

    /// Hands the descriptor to the caller.
    int release()
    {
        return std::exchange(iv_Handle, -1);
    }

    void put(const std::string& i_bytes) const
    {
        EXPECT_EQ(static_cast<ssize_t>(i_bytes.size()),
                  ::write(iv_Handle, i_bytes.data(), i_bytes.size()))
            << std::strerror(errno);
    }

    /// Returns: the bytes of one read of at most i_room.
    std::string take(std::size_t i_room = 4096) const
    {
        std::string l_bytes(i_room, '\0');
        const ssize_t l_urc = ::read(iv_Handle, l_bytes.data(), i_room);
        EXPECT_LE(0, l_urc) << std::strerror(errno);
        l_bytes.resize(l_urc < 0 ? 0 : static_cast<std::size_t>(l_urc));
        return l_bytes;
    }

    void shut()
    {
        if (iv_Handle != -1)
        {
            ::close(std::exchange(iv_Handle, -1));
        }
    }

    /// Closes a TCP connection by a reset.
    void reset()
    {
        const linger l_linger = {1, 0};
        EXPECT_EQ(0, setsockopt(iv_Handle, SOL_SOCKET, SO_LINGER, &l_linger,
                                sizeof(l_linger)));
        shut();
    }

  private:
    int iv_Handle;
};

/// A socket bound to a free port.
template <class ADDRESS>
PeerSocket boundSocket(int i_type, ADDRESS& io_address)
{
    sockaddr* const l_generic = reinterpret_cast<sockaddr*>(&io_address);
    socklen_t l_length = sizeof(io_address);
    PeerSocket l_socket(socket(l_generic->sa_family, i_type, 0));
    EXPECT_EQ(0, bind(l_socket.handle(), l_generic, l_length))
        << std::strerror(errno);
    EXPECT_EQ(0, getsockname(l_socket.handle(), l_generic, &l_length));
    return l_socket;
}

/// A socket connected to an address.
template <class ADDRESS>
PeerSocket connectedSocket(int i_type, const ADDRESS& i_address)
{
    const sockaddr* const l_generic =
        reinterpret_cast<const sockaddr*>(&i_address);
    PeerSocket l_socket(socket(l_generic->sa_family, i_type, 0));
    EXPECT_EQ(0, connect(l_socket.handle(), l_generic, sizeof(i_address)))
        << std::strerror(errno);
    return l_socket;
}

/// Both ends of a connection; the first is the accepted one.
using SocketPair_t = std::pair<PeerSocket, PeerSocket>;

template <class ADDRESS>
SocketPair_t tcpPair(ADDRESS i_address)
{
    const PeerSocket l_listener = boundSocket(SOCK_STREAM, i_address);
    EXPECT_EQ(0, listen(l_listener.handle(), 1));
    PeerSocket l_client = connectedSocket(SOCK_STREAM, i_address);
    PeerSocket l_server(accept(l_listener.handle(), nullptr, nullptr));
    EXPECT_NE(-1, l_server.handle()) << std::strerror(errno);
    return {std::move(l_server), std::move(l_client)};
}

inline SocketPair_t unixPair()
{
    int l_handles[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, l_handles));
    return {PeerSocket(l_handles[0]), PeerSocket(l_handles[1])};
}

inline sockaddr_in loopback4()
{
    sockaddr_in l_address = {};
    l_address.sin_family = AF_INET;
    l_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return l_address;
}

inline sockaddr_in6 loopback6()
{
    sockaddr_in6 l_address = {};
    l_address.sin6_family = AF_INET6;
    l_address.sin6_addr = in6addr_loopback;
    return l_address;
}

#endif

// Sockets that messages go over, and channels on them.
#ifndef TOLV_TESTS_SUPPORT_MESSAGESOCKET_HPP
#define TOLV_TESTS_SUPPORT_MESSAGESOCKET_HPP

#include "tolv/vex/tolvSock6Channel.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <memory>
#include <string>
#include <system_error>
#include <utility>

/// What a test is told about the way its messages take.
enum class Transport
{
    TCP,
    TCP6,
    UNIX,
    UDP
};

inline std::string nameOf(Transport i_transport)
{
    switch (i_transport)
    {
    case Transport::TCP:
        return "Tcp";
    case Transport::TCP6:
        return "Tcp6";
    case Transport::UNIX:
        return "Unix";
    default:
        return "Udp";
    }
}

/// For INSTANTIATE_TEST_SUITE_P.
inline std::string
nameOfParameter(const testing::TestParamInfo<Transport>& i_info)
{
    return nameOf(i_info.param);
}

/// Throws errno when the status is that of a failed system call.
inline int checked(int i_status)
{
    if (i_status == -1)
    {
        throw std::system_error(errno, std::generic_category());
    }
    return i_status;
}

/// An address on this machine; port 0 lets the system choose one when bound.
struct LocalAddress
{
    sockaddr_storage storage;
    socklen_t length;

    sockaddr* get()
    {
        return reinterpret_cast<sockaddr*>(&storage);
    }

    unsigned short port() const
    {
        // Port and family lie at the same place for IPv4 and IPv6.
        sockaddr_in l_in = {};
        std::memcpy(&l_in, &storage, sizeof(l_in));
        return ntohs(l_in.sin_port);
    }
};

/// i_path: for UNIX only; i_port: for all others.
inline LocalAddress localAddress(Transport i_transport,
                                 const std::string& i_path,
                                 unsigned short i_port)
{
    LocalAddress l_address = {};
    if (i_transport == Transport::UNIX)
    {
        sockaddr_un l_un = {};
        l_un.sun_family = AF_UNIX;
        i_path.copy(l_un.sun_path, sizeof(l_un.sun_path) - 1);
        l_address.length = sizeof(l_un);
        std::memcpy(&l_address.storage, &l_un, sizeof(l_un));
    }
    else if (i_transport == Transport::TCP6)
    {
        sockaddr_in6 l_in6 = {};
        l_in6.sin6_family = AF_INET6;
        l_in6.sin6_addr = in6addr_loopback;
        l_in6.sin6_port = htons(i_port);
        l_address.length = sizeof(l_in6);
        std::memcpy(&l_address.storage, &l_in6, sizeof(l_in6));
    }
    else
    {
        sockaddr_in l_in = {};
        l_in.sin_family = AF_INET;
        l_in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        l_in.sin_port = htons(i_port);
        l_address.length = sizeof(l_in);
        std::memcpy(&l_address.storage, &l_in, sizeof(l_in));
    }
    return l_address;
}

/// A new socket; the caller closes it.
inline int openSocket(Transport i_transport)
{
    const int l_family = i_transport == Transport::UNIX   ? AF_UNIX
                         : i_transport == Transport::TCP6 ? AF_INET6
                                                          : AF_INET;
    const int l_type = i_transport == Transport::UDP ? SOCK_DGRAM : SOCK_STREAM;
    return checked(socket(l_family, l_type | SOCK_CLOEXEC, 0));
}

/// A socket that is bound, and listens where it is one for streams; the caller
/// closes it. o_address becomes where it can be reached.
inline int openServer(Transport i_transport, const std::string& i_path,
                      LocalAddress& o_address)
{
    const int l_fd = openSocket(i_transport);
    o_address = localAddress(i_transport, i_path, 0);
    checked(bind(l_fd, o_address.get(), o_address.length));
    if (i_transport != Transport::UNIX)
    {
        checked(getsockname(l_fd, o_address.get(), &o_address.length));
    }
    if (i_transport != Transport::UDP)
    {
        checked(listen(l_fd, 1));
    }
    return l_fd;
}

/// A socket that is connected to the address; the caller closes it.
inline int openClient(Transport i_transport, LocalAddress i_address)
{
    const int l_fd = openSocket(i_transport);
    checked(connect(l_fd, i_address.get(), i_address.length));
    return l_fd;
}

/// The channel that the library has for this transport. It closes i_fd.
inline std::unique_ptr<tolv::Channel> channelOn(Transport i_transport, int i_fd)
{
    switch (i_transport)
    {
    case Transport::TCP6:
        return std::make_unique<tolv::Sock6Channel>(i_fd, tolv::SOCK_TYPE_TCP);
    case Transport::TCP:
        return std::make_unique<tolv::SockChannel>(i_fd, tolv::SOCK_TYPE_TCP);
    case Transport::UNIX:
        return std::make_unique<tolv::SockChannel>(i_fd, tolv::SOCK_TYPE_UNIX);
    default:
        return std::make_unique<tolv::SockChannel>(i_fd, tolv::SOCK_TYPE_UDP);
    }
}

/// Both ends of a stream; the caller closes them.
inline std::pair<int, int> openStream(Transport i_transport)
{
    if (i_transport == Transport::UNIX)
    {
        int l_ends[2];
        checked(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, l_ends));
        return {l_ends[0], l_ends[1]};
    }
    LocalAddress l_address = {};
    const int l_listener = openServer(i_transport, "", l_address);
    const int l_client = openClient(i_transport, l_address);
    const int l_accepted =
        checked(accept4(l_listener, nullptr, nullptr, SOCK_CLOEXEC));
    close(l_listener);
    return {l_client, l_accepted};
}

/// Whether this machine lets a socket be bound for the transport.
inline bool isAvailable(Transport i_transport)
{
    if (i_transport != Transport::TCP6)
    {
        return true;
    }
    try
    {
        LocalAddress l_address = {};
        close(openServer(i_transport, "", l_address));
        return true;
    }
    catch (const std::system_error&)
    {
        return false;
    }
}

#endif

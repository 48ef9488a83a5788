// A network namespace of its own for a test.
#ifndef TOLV_TESTS_SUPPORT_OWNNETWORK_HPP
#define TOLV_TESTS_SUPPORT_OWNNETWORK_HPP

#include "support/loopback.hpp"
#include "support/waitFor.hpp"

#include <arpa/inet.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <string>
#include <vector>

/// Whether a datagram sent to a local IPv6 address arrives there; for some
/// time after the address was added none does.
inline bool carriesDatagrams(const std::string& i_address)
{
    const PeerSocket l_socket(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_in6 l_self = {};
    l_self.sin6_family = AF_INET6;
    sockaddr* const l_generic = reinterpret_cast<sockaddr*>(&l_self);
    socklen_t l_length = sizeof(l_self);
    char l_byte = 'x';
    return inet_pton(AF_INET6, i_address.c_str(), &l_self.sin6_addr) == 1 &&
           bind(l_socket.handle(), l_generic, l_length) == 0 &&
           getsockname(l_socket.handle(), l_generic, &l_length) == 0 &&
           connect(l_socket.handle(), l_generic, l_length) == 0 &&
           send(l_socket.handle(), &l_byte, 1, 0) == 1 &&
           recv(l_socket.handle(), &l_byte, 1, MSG_DONTWAIT) == 1;
}

/// Moves the calling thread, and what it starts, to a network of its own in
/// which only the loopback is up, with further addresses on it. It ends with
/// the process.
///
/// i_addresses: of IPv6.
///
/// Returns: empty, or why it is not there.
inline std::string enterOwnNetwork(const std::vector<std::string>& i_addresses)
{
    if (unshare(CLONE_NEWNET) != 0)
    {
        return std::string("no network namespace: ") + std::strerror(errno);
    }
    std::string l_commands = "ip link set lo up";
    for (const std::string& l_address : i_addresses)
    {
        l_commands += " && ip addr add " + l_address + "/128 dev lo nodad";
    }
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): no foreign text.
    if (std::system((l_commands + " 2> /dev/null").c_str()) != 0)
    {
        return "cannot set up the loopback: " + l_commands;
    }
    for (const std::string& l_address : i_addresses)
    {
        if (!waitFor([&] { return carriesDatagrams(l_address); }))
        {
            return "no datagrams reach " + l_address;
        }
    }
    return "";
}

#endif

// Private header: what the address functions of both families have in common.
#ifndef TOLV_VEX_TOLVSOCKADDR_HPP
#define TOLV_VEX_TOLVSOCKADDR_HPP

#include "tolv/vex/tolvSocket.hpp"

#include <arpa/inet.h>

#include <cstddef>
#include <cstring>

namespace tolv
{

/// Where the two records differ; one overload for each.
struct InetPart_t
{
    int family;
    sa_family_t* familyField;
    in_port_t* port;
    void* address; ///< as inet_pton() writes it
    std::size_t addressSize;
    socklen_t length;
};

inline InetPart_t inetPart(SockAddr_t& io_addr)
{
    sockaddr_in& l_in = io_addr.addr.in;
    return {AF_INET,        &l_in.sin_family,      &l_in.sin_port,
            &l_in.sin_addr, sizeof(l_in.sin_addr), sizeof(l_in)};
}

inline InetPart_t inetPart(Sock6Addr_t& io_addr)
{
    sockaddr_in6& l_in6 = io_addr.addr.in6;
    return {AF_INET6,         &l_in6.sin6_family,      &l_in6.sin6_port,
            &l_in6.sin6_addr, sizeof(l_in6.sin6_addr), sizeof(l_in6)};
}

/// The path of a UNIX-domain address. Through the whole area, because the NUL
/// of a path of full length stands behind sun_path.
template <class ADDRESS>
char* unixPath(ADDRESS& io_addr)
{
    return reinterpret_cast<char*>(&io_addr.addr) +
           offsetof(sockaddr_un, sun_path);
}

/// As the address functions of both families.
template <class ADDRESS>
int initUnixAddress(const char* i_path, ADDRESS& o_addr)
{
    constexpr std::size_t LONGEST = sizeof(sockaddr_un::sun_path);
    constexpr std::size_t ROOM =
        sizeof(o_addr.addr) - offsetof(sockaddr_un, sun_path);
    static_assert(LONGEST < ROOM, "a path of full length ends");
    if (i_path == nullptr || std::strlen(i_path) > LONGEST)
    {
        return 0;
    }
    o_addr.addr.un.sun_family = AF_UNIX;
    std::strncpy(unixPath(o_addr), i_path, ROOM); // fills up with zeros
    o_addr.length = sizeof(sockaddr_un);
    return 1;
}

/// As the address functions of both families.
template <class ADDRESS>
int initAddress(const char* i_host, unsigned short i_port, ADDRESS& o_addr,
                SockType i_type)
{
    if (i_type == SOCK_TYPE_UNIX)
    {
        return initUnixAddress(i_host, o_addr);
    }
    const InetPart_t l_part = inetPart(o_addr);
    *l_part.familyField = static_cast<sa_family_t>(l_part.family);
    *l_part.port = i_port;
    o_addr.length = l_part.length;
    if (i_host == nullptr)
    {
        // Zeros are the "any" address of either family.
        std::memset(l_part.address, 0, l_part.addressSize);
        return 1;
    }
    return inet_pton(l_part.family, i_host, l_part.address);
}

/// The first row with the key.
///
/// Returns: family, type and protocol, or null.
template <std::size_t ROWS>
const std::int32_t* findSockProperties(const SockProperties_t (&i_rows)[ROWS],
                                       SockType i_key)
{
    static_assert(sizeof(SockProperties_t) == 4 * sizeof(std::int32_t),
                  "the three values follow each other");
    for (const SockProperties_t& l_row : i_rows)
    {
        if (l_row.key == i_key)
        {
            return &l_row.family;
        }
    }
    return nullptr;
}

} // namespace tolv

#endif

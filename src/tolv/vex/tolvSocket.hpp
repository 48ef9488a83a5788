// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCKET_HPP
#define TOLV_VEX_TOLVSOCKET_HPP

#include "tolv/vex/tolvExport.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>

namespace tolv
{

/// The kinds of sockets. The values stand in tables and never change.
enum SockType : std::int32_t
{
    SOCK_TYPE_TCP = 0,  ///< IPv4 or IPv6
    SOCK_TYPE_UDP = 1,  ///< IPv4 or IPv6; the only one of datagrams
    SOCK_TYPE_UNIX = 2, ///< a UNIX-domain stream; the only one without a port
    SOCK_TYPE_SCTP = 3  ///< one-to-one, IPv4 only
};

/// A row of a table of socket properties: what socket() takes for a SockType.
struct SockProperties_t
{
    std::int32_t key; ///< the SockType
    std::int32_t family;
    std::int32_t type;
    std::int32_t protocol;
};

/// An IPv4 or UNIX-domain address. Zero it before use; copy it whole.
///
/// The area is larger than a UNIX path, and zero behind it, so a path of the
/// full 108 characters still ends.
struct SockAddr_t
{
    union
    {
        sockaddr sa;
        sockaddr_in in;
        sockaddr_un un;
    } addr;
    socklen_t length; ///< 16 for IPv4, 110 for a UNIX path
};

/// An IPv6 or UNIX-domain address; otherwise as SockAddr_t.
struct Sock6Addr_t
{
    union
    {
        sockaddr sa;
        sockaddr_in6 in6;
        sockaddr_un un;
    } addr;
    socklen_t length; ///< 28 for IPv6, 110 for a UNIX path
};

/// Internal to the library, not exported: family, type and protocol of an
/// IPv4 or UNIX-domain socket as socket() takes them.
///
/// Returns: three values, or null when the table has no such type.
const std::int32_t* LookupSockProperties(SockType i_type);

/// Fills an address. No name is resolved.
///
/// Units:   i_port, in NETWORK byte order; SOCK_TYPE_UNIX takes no notice of
///          it.
/// i_host:  a dotted quad, or null for any address; for SOCK_TYPE_UNIX a path.
/// o_addr:  zeroed by the caller.
/// Returns: 1; 0 for a text that is no dotted quad, the empty one included,
///          and for a path that is null or has more than 108 characters.
/// Threads: any.
TOLV_EXPORT int initSockAddrStruct(const char* i_host, unsigned short i_port,
                                   SockAddr_t& o_addr, SockType i_type);

} // namespace tolv

#endif

// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSCTP_HPP
#define TOLV_VEX_TOLVSCTP_HPP

#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"

#include <cstdint>

namespace tolv
{

/// Internal to the library, not exported: the two internal /24 networks, over
/// both of which an association is to run. Set when the library is built
/// (TOLV_SCTP_SUBNET_A, TOLV_SCTP_SUBNET_B).
///
/// Units: IPv4 addresses in HOST byte order, the last byte 0.
extern const std::uint32_t SCTP_SUBNET_A;
extern const std::uint32_t SCTP_SUBNET_B;

/// Makes an association notice failures fast: subscribes to its changes, so
/// that the channel reports a lost peer (0x440D), and sets retransmission
/// times, retransmission limits and the path to the peer.
///
/// SockAcc and SockConn do this for every SCTP connection.
///
/// i_peer: the other end of the association, which is there already.
/// Errors: 0x4411 or 0x4412, origin 25, at the first option that cannot be
///         read or set; those after it stay as they are.
TOLV_EXPORT pError_t SetSctpSocketProperties(int i_fd,
                                             const SockAddr_t& i_peer);

} // namespace tolv

#endif

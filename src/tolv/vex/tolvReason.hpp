// Private header: the codes of the library's errors.
#ifndef TOLV_VEX_TOLVREASON_HPP
#define TOLV_VEX_TOLVREASON_HPP

namespace tolv
{

// Origins: which site reports. DO NOT CHANGE: users tell failures apart by
// origin and reason.
constexpr unsigned char ORIGIN_ACCEPTOR = 2;
constexpr unsigned char ORIGIN_CONNECTION = 5; // set-up and socket options
constexpr unsigned char ORIGIN_CONNECT = 7;    // the system call
constexpr unsigned char ORIGIN_CHANNEL_READ = 9;
constexpr unsigned char ORIGIN_CHANNEL_WRITE = 10;
constexpr unsigned char ORIGIN_SCTP = 25;

// Reasons: what failed. DO NOT CHANGE either.
constexpr unsigned short REASON_SOCKET = 0x4403;
constexpr unsigned short REASON_BIND = 0x4404;
constexpr unsigned short REASON_LISTEN = 0x4405;
constexpr unsigned short REASON_NOT_SELECTED = 0x4406;
constexpr unsigned short REASON_ADDRESS = 0x4407;
constexpr unsigned short REASON_CONNECT = 0x440A;
constexpr unsigned short REASON_RECEIVE = 0x440B;
constexpr unsigned short REASON_CONNECT_TIMED_OUT = 0x440C;
constexpr unsigned short REASON_CLOSED = 0x440D; // by the peer, or unreachable
constexpr unsigned short REASON_NO_HANDLE = 0x440E;
constexpr unsigned short REASON_WRITE = 0x440F;
constexpr unsigned short REASON_GET_OPTION = 0x4411;
constexpr unsigned short REASON_SET_OPTION = 0x4412;
constexpr unsigned short REASON_KEEPALIVE = 0x4413;
constexpr unsigned short REASON_PENDING_ERROR = 0x4425; // SO_ERROR was set
constexpr unsigned short REASON_SELECT = 0x4426;

} // namespace tolv

#endif

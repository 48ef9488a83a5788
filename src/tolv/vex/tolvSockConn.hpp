// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCKCONN_HPP
#define TOLV_VEX_TOLVSOCKCONN_HPP

#include "tolv/vex/tolvConn.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"

namespace tolv
{

class Channel;
class Service;

/// Connects to a server over TCP, UDP or SCTP on IPv4, or over a UNIX-domain
/// socket.
///
/// Hosts are dotted quads (null: INADDR_ANY, this machine) or, for
/// SOCK_TYPE_UNIX, the path of a socket. Names are not resolved.
///
/// Units:     ports are in NETWORK byte order.
/// Returns:   of every Connect(), an error or, when it is empty, success.
/// Errors:    0x4407 the host is no address, 0x4403 no socket, 0x4412 and
///            0x4411 SCTP options, 0x4413 keep-alive; then
///            other than UNIX: 0x440A refused at once, 0x4425 refused later
///            (errno is the reason), 0x440C timed out, 0x4426, 0x4406 and
///            0x4411 when waiting failed;
///            UNIX: 0x440C no server in time, 0x440A otherwise.
///            No descriptor is left open.
/// Blocks:    up to the time-out for each host, 5 seconds unless it is set.
///            UNIX waits for a server to start, a second at a time, and counts
///            whole seconds only; with the time-out off it waits for ever.
///            The others wait for getTimeOut() also while it is off.
/// Ownership: a channel belongs to the caller, or to the service it is given
///            to. After an error a service is untouched, and so is o_channel,
///            except that failed options (0x4411 to 0x4413 of a connection
///            that was made) set it to null.
class TOLV_EXPORT SockConn : public Conn
{
  public:
    /// With a time-out of 5 seconds.
    explicit SockConn(SockType i_type);
    ~SockConn() override;

    /// Prints nothing.
    void Dump(FILE* o_stream) override;

    /// i_mode is not used.
    pError_t Connect(const char* i_host, unsigned short i_port,
                     Channel*& o_channel, ConnectMode i_mode = CONNECT_DEFAULT);

    /// Gives the channel to io_service and opens it. i_mode is not used.
    pError_t Connect(const char* i_host, unsigned short i_port,
                     Service& io_service, ConnectMode i_mode = CONNECT_DEFAULT);

    /// Tries i_host1, then i_host2; the error is that of the second. A
    /// time-out that is off is on meanwhile, with 5 seconds, which stay as its
    /// value.
    pError_t Connect(const char* i_host1, const char* i_host2,
                     unsigned short i_port, Channel*& o_channel);

    /// As above; gives the channel to io_service and opens it.
    pError_t Connect(const char* i_host1, const char* i_host2,
                     unsigned short i_port, Service& io_service);

  private:
    pError_t connectWithTimeOut(OS_HANDLE& io_fd, const SockAddr_t& i_address);
    pError_t waitForConnection(OS_HANDLE& io_fd, int& o_pending);
    pError_t connectWithRetries(OS_HANDLE i_fd, const SockAddr_t& i_address);
    pError_t makeChannel(OS_HANDLE i_fd, const SockAddr_t& i_address,
                         Channel*& o_channel);
    pError_t setSocketProperties(OS_HANDLE i_fd, const SockAddr_t& i_address);
    pError_t setTcpSocketProperties(OS_HANDLE i_fd);
};

} // namespace tolv

#endif

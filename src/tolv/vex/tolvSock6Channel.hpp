// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCK6CHANNEL_HPP
#define TOLV_VEX_TOLVSOCK6CHANNEL_HPP

#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"

#include <netinet/in.h>

#include <string>

namespace tolv
{

class Sock6Io;

/// A channel over an IPv6 TCP or UDP socket or a UNIX-domain stream.
///
/// As SockChannel, with its errors, and with the local address at which the
/// last packet arrived: replies leave from there. The socket must have
/// IP_PKTINFO and IPV6_RECVPKTINFO on, else the system chooses the source.
class TOLV_EXPORT Sock6Channel : public Channel
{
  public:
    /// As the constructor of SockChannel. The packet information is zero and
    /// counts as that of IPv4.
    Sock6Channel(int i_handle, SockType i_type);
    ~Sock6Channel() override;

    /// Prints nothing.
    void Dump(FILE* o_stream) override;
    pError_t Peek(void* o_buf, unsigned int& io_Bytes) override;
    pError_t Read(void* o_buf, unsigned int& io_Bytes) override;

    /// A peer that has closed may raise SIGPIPE: a daemon ignores it.
    pError_t Write(void* i_buf, unsigned int& io_Bytes) override;
    bool isAlive() override;
    const char* getRemoteAddress() override;
    int getPort() override;

    /// Does nothing. Returns: 0.
    int RefreshChannel() override;

    /// Returns:   for SOCK_TYPE_UDP the local address at which the last
    ///            datagram arrived that was read, not only peeked at; for
    ///            other types an empty text.
    /// Ownership: the channel's, until the next operation on it.
    virtual const char* getLocalAddress();

    /// Sets the peer: where Write() sends, unless to a UNIX-domain socket, and
    /// what getRemoteAddress() and getPort() tell. Over TCP a text of more than
    /// 15 characters is NOT told: the one before it stays, at first empty.
    virtual void setRemoteAddress(const Sock6Addr_t& i_addr);

  private:
    friend class Sock6Io;

    // Declared order is the object layout.
    Sock6Addr_t iv_RemoteAddr;
    std::string iv_RemoteAddrText;
    std::string iv_LocalAddrText;
    in_pktinfo iv_PktInfo;   // where the last IPv4 packet arrived
    in6_pktinfo iv_Pkt6Info; // where the last IPv6 packet arrived
    bool iv_PktInfoIsV6;     // which of the two came last
};

} // namespace tolv

#endif

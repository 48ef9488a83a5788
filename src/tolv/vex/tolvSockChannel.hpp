// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCKCHANNEL_HPP
#define TOLV_VEX_TOLVSOCKCHANNEL_HPP

#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"

#include <netinet/in.h>

#include <string>

namespace tolv
{

class SockIo;

/// A channel over an IPv4 TCP, UDP or SCTP socket or a UNIX-domain stream.
///
/// The errors of both socket channels; io_Bytes is what Peek(), Read() and
/// Write() leave there:
///
/// | reason | origin | what                            | io_Bytes          |
/// |--------|--------|---------------------------------|-------------------|
/// | 0x440B | 9      | receiving failed                | 0, deliberately   |
/// | 0x440D | 9      | peer closed or is unreachable   | the part received |
/// | 0x440E | 9      | no descriptor to receive from   | 0                 |
/// | 0x4411 | 9      | getsockopt() failed (time-out)  | the part received |
/// | 0x4425 | 5      | an error was pending (time-out) | the part received |
/// | 0x4426 | 9      | select() failed (time-out)      | the part received |
/// | 0x440E | 10     | no descriptor to send to        | as it was         |
/// | 0x440F | 10     | sending failed                  | 0                 |
///
/// Those marked with time-out appear only while the time-out is on.
///
/// Over UDP the peer is the sender of the last datagram, also of one that was
/// only peeked at: Write() answers it. A Read() of more bytes than a datagram
/// has goes on with the next one; the rest of a longer datagram is lost.
class TOLV_EXPORT SockChannel : public Channel
{
  public:
    /// The peer's address is zero until setRemoteAddress() or a datagram.
    ///
    /// Ownership: takes the descriptor, which is connected, or bound for UDP.
    SockChannel(int i_handle, SockType i_type);
    ~SockChannel() override;

    /// Sets the peer: where Write() sends, unless to a UNIX-domain socket, and
    /// what getRemoteAddress() and getPort() tell.
    void setRemoteAddress(const SockAddr_t& i_addr);

    /// Prints nothing.
    void Dump(FILE* o_stream) override;
    pError_t Peek(void* o_buf, unsigned int& io_Bytes) override;
    pError_t Read(void* o_buf, unsigned int& io_Bytes) override;
    pError_t Write(void* i_buf, unsigned int& io_Bytes) override;
    bool isAlive() override;
    const char* getRemoteAddress() override;
    int getPort() override;

    /// For SCTP: adds a local address in the other internal subnet to an
    /// association that has exactly one local address in the two of them.
    int RefreshChannel() override;

  private:
    int FindSubnetInterfaceAddress(int i_which, in_addr_t& o_found);

    friend class SockIo;

    // Declared order is the object layout.
    SockAddr_t iv_RemoteAddr;
    std::string iv_RemoteAddrText;
};

} // namespace tolv

#endif

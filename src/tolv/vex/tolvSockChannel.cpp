#include "tolv/vex/tolvSockChannel.hpp"

#include "tolv/vex/tolvChannelIo.hpp"
#include "tolv/vex/tolvSockAddr.hpp"

#include <netinet/sctp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <algorithm>

namespace
{

// How far a notification has to be read to tell whether an association ended:
// its type (u16) stands first, the state (u16) here. Bytes, host byte order.
constexpr std::size_t OFF_STATE = 8;
constexpr std::size_t NOTIFICATION_HEAD = OFF_STATE + sizeof(std::uint16_t);
static_assert(OFF_STATE == offsetof(sctp_assoc_change, sac_state),
              "where the kernel puts the state");

} // namespace

namespace tolv
{

// The system calls of a SockChannel.
class SockIo final : public ChannelIo
{
  public:
    explicit SockIo(SockChannel& io_channel) :
        ChannelIo(io_channel, "SockChannel"), iv_Peer(io_channel.iv_RemoteAddr)
    {
    }

  private:
    ssize_t receiveInet(void* o_buf, std::size_t i_room, int i_flags) override;
    ssize_t sendInet(const void* i_buf, std::size_t i_bytes) override;
    ssize_t receiveSctp(void* o_buf, std::size_t i_room, int i_flags);
    bool endsAssociation(const void* i_part, std::size_t i_bytes, int i_flags);

    SockAddr_t& iv_Peer;
};

// Each datagram's sender becomes the peer.
ssize_t SockIo::receiveInet(void* o_buf, std::size_t i_room, int i_flags)
{
    if (type() == SOCK_TYPE_SCTP)
    {
        return receiveSctp(o_buf, i_room, i_flags);
    }
    iv_Peer.length = sizeof(iv_Peer.addr.in);
    return recvfrom(handle(), o_buf, i_room, i_flags, &iv_Peer.addr.sa,
                    &iv_Peer.length);
}

ssize_t SockIo::sendInet(const void* i_buf, std::size_t i_bytes)
{
    iv_Peer.length = sizeof(iv_Peer.addr.in);
    return sendto(handle(), i_buf, i_bytes, MSG_NOSIGNAL, &iv_Peer.addr.sa,
                  iv_Peer.length);
}

// Turns the notification that ends an association into a failure.
//
// Deliberate: only a notification whose message has no other flag is looked
// at, which is one that was not received to its end.
// Effect: a notification that fits the buffer counts as data of the peer.
// Pinned by: SockChannelSctpTest.NotificationWithFurtherFlagsCountsAsData
ssize_t SockIo::receiveSctp(void* o_buf, std::size_t i_room, int i_flags)
{
    iovec l_part = {o_buf, i_room};
    // Room for what the kernel tells of a message: without it a message that
    // carries it would be flagged as cut.
    alignas(cmsghdr) char l_control[CMSG_SPACE(sizeof(sctp_sndrcvinfo))] = {};
    msghdr l_message = {};
    l_message.msg_iov = &l_part;
    l_message.msg_iovlen = 1;
    l_message.msg_control = l_control;
    l_message.msg_controllen = sizeof(l_control);
    const ssize_t l_urc = recvmsg(handle(), &l_message, i_flags);
    if (l_urc >= 0 && l_message.msg_flags == MSG_NOTIFICATION &&
        endsAssociation(o_buf, static_cast<std::size_t>(l_urc), i_flags))
    {
        errno = EHOSTDOWN;
        return -1;
    }
    return l_urc;
}

// i_part: the first bytes of a notification. Those of its head that are
// missing are still in the socket: behind the part, or from the first byte on
// when it was only peeked at.
bool SockIo::endsAssociation(const void* i_part, std::size_t i_bytes,
                             int i_flags)
{
    unsigned char l_head[NOTIFICATION_HEAD] = {};
    std::memcpy(l_head, i_part, std::min(i_bytes, sizeof(l_head)));
    if (i_bytes < sizeof(l_head))
    {
        const std::size_t l_from = (i_flags & MSG_PEEK) != 0 ? 0 : i_bytes;
        const std::size_t l_missing = sizeof(l_head) - l_from;
        if (recv(handle(), l_head + l_from, l_missing,
                 MSG_PEEK | MSG_DONTWAIT | MSG_NOSIGNAL) !=
            static_cast<ssize_t>(l_missing))
        {
            return false;
        }
    }
    std::uint16_t l_type = 0;
    std::uint16_t l_state = 0;
    std::memcpy(&l_type, l_head, sizeof(l_type));
    std::memcpy(&l_state, l_head + OFF_STATE, sizeof(l_state));
    return l_type == SCTP_ASSOC_CHANGE &&
           (l_state == SCTP_COMM_LOST || l_state == SCTP_RESTART ||
            l_state == SCTP_SHUTDOWN_COMP);
}

SockChannel::SockChannel(int i_handle, SockType i_type) :
    Channel(i_handle, i_type), iv_RemoteAddr()
{
}

SockChannel::~SockChannel() = default;

void SockChannel::setRemoteAddress(const SockAddr_t& i_addr)
{
    iv_RemoteAddr = i_addr;
    if (iv_Type != SOCK_TYPE_UNIX)
    {
        ChannelIo::format(AF_INET, &iv_RemoteAddr.addr.in.sin_addr,
                          INET_ADDRSTRLEN, iv_RemoteAddrText);
    }
}

void SockChannel::Dump(FILE*) {}

pError_t SockChannel::Peek(void* o_buf, unsigned int& io_Bytes)
{
    return SockIo(*this).receive(o_buf, io_Bytes, MSG_PEEK);
}

pError_t SockChannel::Read(void* o_buf, unsigned int& io_Bytes)
{
    return SockIo(*this).receive(o_buf, io_Bytes, 0);
}

pError_t SockChannel::Write(void* i_buf, unsigned int& io_Bytes)
{
    return SockIo(*this).send(i_buf, io_Bytes);
}

bool SockChannel::isAlive()
{
    return ChannelIo::isAlive(*this);
}

const char* SockChannel::getRemoteAddress()
{
    if (iv_Type == SOCK_TYPE_UNIX)
    {
        return unixPath(iv_RemoteAddr);
    }
    if (iv_Type == SOCK_TYPE_UDP)
    {
        ChannelIo::format(AF_INET, &iv_RemoteAddr.addr.in.sin_addr,
                          INET_ADDRSTRLEN, iv_RemoteAddrText);
    }
    return iv_RemoteAddrText.c_str();
}

int SockChannel::getPort()
{
    return iv_Type == SOCK_TYPE_UNIX ? 0 : iv_RemoteAddr.addr.in.sin_port;
}

} // namespace tolv

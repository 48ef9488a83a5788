#include "tolv/vex/tolvSock6Channel.hpp"

#include "tolv/vex/tolvChannelIo.hpp"
#include "tolv/vex/tolvSockAddr.hpp"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstring>

namespace
{

// For all control messages that the kernel may add to a packet, in bytes.
constexpr std::size_t CONTROL_ROOM = 1024;

// Deliberate: the text of a peer that was set has the room of an IPv4 one.
// Effect: an address of 16 characters or more leaves the text as it was, at
// first empty. Over UDP getRemoteAddress() has the room it needs.
// Pinned by: Sock6ChannelCallsTest.LongAddressLeavesTheTextAsItWas
constexpr unsigned int PEER_TEXT_ROOM = 16;

// Copies the content of a control message that has the level and type.
template <class CONTENT>
bool fetchContent(const cmsghdr& i_entry, int i_level, int i_type,
                  CONTENT& o_content)
{
    if (i_entry.cmsg_level != i_level || i_entry.cmsg_type != i_type ||
        i_entry.cmsg_len < CMSG_LEN(sizeof(o_content)))
    {
        return false;
    }
    std::memcpy(&o_content, CMSG_DATA(&i_entry), sizeof(o_content));
    return true;
}

// One control message as sendmsg() takes it.
class ControlMessage
{
  public:
    template <class CONTENT>
    ControlMessage(int i_level, int i_type, const CONTENT& i_content) :
        iv_Room()
    {
        static_assert(CMSG_SPACE(sizeof(i_content)) <= sizeof(iv_Room),
                      "room for either packet information");
        cmsghdr* const l_entry = reinterpret_cast<cmsghdr*>(iv_Room);
        l_entry->cmsg_len = CMSG_LEN(sizeof(i_content));
        l_entry->cmsg_level = i_level;
        l_entry->cmsg_type = i_type;
        std::memcpy(CMSG_DATA(l_entry), &i_content, sizeof(i_content));
        iv_Length = l_entry->cmsg_len;
    }

    void attachTo(msghdr& o_message)
    {
        o_message.msg_control = iv_Room;
        o_message.msg_controllen = iv_Length;
    }

  private:
    alignas(cmsghdr) char iv_Room[CMSG_SPACE(sizeof(in6_pktinfo))];
    std::size_t iv_Length;
};

msghdr messageTo(tolv::Sock6Addr_t& io_peer, iovec& io_part)
{
    io_peer.length = sizeof(io_peer.addr.in6);
    msghdr l_message = {};
    l_message.msg_name = &io_peer.addr;
    l_message.msg_namelen = io_peer.length;
    l_message.msg_iov = &io_part;
    l_message.msg_iovlen = 1;
    return l_message;
}

} // namespace

namespace tolv
{

// The system calls of a Sock6Channel.
class Sock6Io final : public ChannelIo
{
  public:
    explicit Sock6Io(Sock6Channel& io_channel) :
        ChannelIo(io_channel, "Sock6Channel"), iv_Owner(io_channel)
    {
    }

  private:
    ssize_t receiveInet(void* o_buf, std::size_t i_room, int i_flags) override;
    ssize_t sendInet(const void* i_buf, std::size_t i_bytes) override;
    void keepArrival(msghdr& io_message);

    Sock6Channel& iv_Owner;
};

// Each datagram's sender becomes the peer.
ssize_t Sock6Io::receiveInet(void* o_buf, std::size_t i_room, int i_flags)
{
    if ((i_flags & MSG_PEEK) != 0)
    {
        Sock6Addr_t& l_peer = iv_Owner.iv_RemoteAddr;
        l_peer.length = sizeof(l_peer.addr.in6);
        return recvfrom(handle(), o_buf, i_room, i_flags, &l_peer.addr.sa,
                        &l_peer.length);
    }
    alignas(cmsghdr) char l_control[CONTROL_ROOM] = {};
    iovec l_part = {o_buf, i_room};
    msghdr l_message = messageTo(iv_Owner.iv_RemoteAddr, l_part);
    l_message.msg_control = l_control;
    l_message.msg_controllen = sizeof(l_control);
    const ssize_t l_urc = recvmsg(handle(), &l_message, i_flags);
    if (l_urc > 0)
    {
        keepArrival(l_message);
    }
    return l_urc;
}

// An IPv4 packet brings both: its address as IPv6 writes it comes first.
void Sock6Io::keepArrival(msghdr& io_message)
{
    for (cmsghdr* l_entry = CMSG_FIRSTHDR(&io_message); l_entry != nullptr;
         l_entry = CMSG_NXTHDR(&io_message, l_entry))
    {
        if (fetchContent(*l_entry, IPPROTO_IP, IP_PKTINFO, iv_Owner.iv_PktInfo))
        {
            iv_Owner.iv_PktInfoIsV6 = false;
        }
        else if (fetchContent(*l_entry, IPPROTO_IPV6, IPV6_PKTINFO,
                              iv_Owner.iv_Pkt6Info))
        {
            iv_Owner.iv_PktInfoIsV6 = true;
        }
    }
}

// Deliberate: no MSG_NOSIGNAL, unlike all other sends of the library.
// Effect: SIGPIPE when a TCP peer has closed, which ends a process that does
// not ignore it.
// Pinned by: Sock6ChannelTest.WriteToAClosedPeerRaisesSigpipe
ssize_t Sock6Io::sendInet(const void* i_buf, std::size_t i_bytes)
{
    // The same structure serves receiving.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    iovec l_part = {const_cast<void*>(i_buf), i_bytes};
    msghdr l_message = messageTo(iv_Owner.iv_RemoteAddr, l_part);
    ControlMessage l_source =
        iv_Owner.iv_PktInfoIsV6
            ? ControlMessage(IPPROTO_IPV6, IPV6_PKTINFO, iv_Owner.iv_Pkt6Info)
            : ControlMessage(IPPROTO_IP, IP_PKTINFO, iv_Owner.iv_PktInfo);
    l_source.attachTo(l_message);
    return sendmsg(handle(), &l_message, 0);
}

Sock6Channel::Sock6Channel(int i_handle, SockType i_type) :
    Channel(i_handle, i_type), iv_RemoteAddr(), iv_PktInfo(), iv_Pkt6Info(),
    iv_PktInfoIsV6(false)
{
}

Sock6Channel::~Sock6Channel() = default;

void Sock6Channel::Dump(FILE*) {}

pError_t Sock6Channel::Peek(void* o_buf, unsigned int& io_Bytes)
{
    return Sock6Io(*this).receive(o_buf, io_Bytes, MSG_PEEK);
}

pError_t Sock6Channel::Read(void* o_buf, unsigned int& io_Bytes)
{
    return Sock6Io(*this).receive(o_buf, io_Bytes, 0);
}

pError_t Sock6Channel::Write(void* i_buf, unsigned int& io_Bytes)
{
    return Sock6Io(*this).send(i_buf, io_Bytes);
}

bool Sock6Channel::isAlive()
{
    return ChannelIo::isAlive(*this);
}

const char* Sock6Channel::getRemoteAddress()
{
    if (iv_Type == SOCK_TYPE_UNIX)
    {
        return unixPath(iv_RemoteAddr);
    }
    if (iv_Type == SOCK_TYPE_UDP)
    {
        ChannelIo::format(AF_INET6, &iv_RemoteAddr.addr.in6.sin6_addr,
                          INET6_ADDRSTRLEN, iv_RemoteAddrText);
    }
    return iv_RemoteAddrText.c_str();
}

int Sock6Channel::getPort()
{
    return iv_Type == SOCK_TYPE_UNIX ? 0 : iv_RemoteAddr.addr.in6.sin6_port;
}

int Sock6Channel::RefreshChannel()
{
    return 0;
}

const char* Sock6Channel::getLocalAddress()
{
    if (iv_Type == SOCK_TYPE_UDP && iv_PktInfoIsV6)
    {
        ChannelIo::format(AF_INET6, &iv_Pkt6Info.ipi6_addr, INET6_ADDRSTRLEN,
                          iv_LocalAddrText);
    }
    else if (iv_Type == SOCK_TYPE_UDP)
    {
        ChannelIo::format(AF_INET, &iv_PktInfo.ipi_spec_dst, INET6_ADDRSTRLEN,
                          iv_LocalAddrText);
    }
    return iv_LocalAddrText.c_str();
}

void Sock6Channel::setRemoteAddress(const Sock6Addr_t& i_addr)
{
    iv_RemoteAddr = i_addr;
    if (iv_Type != SOCK_TYPE_UNIX)
    {
        ChannelIo::format(AF_INET6, &iv_RemoteAddr.addr.in6.sin6_addr,
                          PEER_TEXT_ROOM, iv_RemoteAddrText);
    }
}

} // namespace tolv

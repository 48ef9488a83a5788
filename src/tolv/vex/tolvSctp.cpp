#include "tolv/vex/tolvSctp.hpp"

#include "tolv/vex/tolvReason.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace
{

using namespace tolv;

// The lengths at which the options are passed, whatever newer systems have
// appended to their structures.
constexpr socklen_t EVENTS_LENGTH = 9;
constexpr socklen_t RTOINFO_LENGTH = 16;
constexpr socklen_t ASSOCINFO_LENGTH = 20;
constexpr socklen_t PEER_ADDR_LENGTH = 152;
static_assert(EVENTS_LENGTH <= sizeof(sctp_event_subscribe), "option");
static_assert(RTOINFO_LENGTH <= sizeof(sctp_rtoinfo), "option");
static_assert(ASSOCINFO_LENGTH <= sizeof(sctp_assocparams), "option");
static_assert(PEER_ADDR_LENGTH <= sizeof(sctp_paddrparams), "option");

// A failure is to be noticed within seconds; times in milliseconds.
constexpr std::uint32_t RTO_INITIAL = 1000;
constexpr std::uint32_t RTO_MAXIMUM = 1500;
constexpr std::uint32_t RTO_MINIMUM = 500;
constexpr std::uint16_t ASSOCIATION_RETRANSMISSIONS = 10;
constexpr std::uint16_t PATH_RETRANSMISSIONS = 5;
constexpr std::uint32_t HEARTBEAT_INTERVAL = 3000;

constexpr std::uint32_t SUBNET_MASK = 0xFFFFFF00;
static_assert((TOLV_SCTP_SUBNET_A & ~SUBNET_MASK) == 0, "a /24 network");
static_assert((TOLV_SCTP_SUBNET_B & ~SUBNET_MASK) == 0, "a /24 network");
static_assert(TOLV_SCTP_SUBNET_A != TOLV_SCTP_SUBNET_B, "two networks");

// The texts are no formats here: what stands in them stays as it is.
pError_t optionError(unsigned short i_reason, const char* i_text)
{
    return pError_t(new (std::nothrow) Error(ORIGIN_SCTP, i_reason, i_text));
}

bool getOption(int i_fd, int i_name, void* o_value, socklen_t i_length)
{
    return getsockopt(i_fd, IPPROTO_SCTP, i_name, o_value, &i_length) >= 0;
}

bool setOption(int i_fd, int i_name, const void* i_value, socklen_t i_length)
{
    return setsockopt(i_fd, IPPROTO_SCTP, i_name, i_value, i_length) >= 0;
}

pError_t subscribeToEvents(int i_fd)
{
    sctp_event_subscribe l_events = {};
    if (!getOption(i_fd, SCTP_EVENTS, &l_events, EVENTS_LENGTH))
    {
        return optionError(
            REASON_GET_OPTION,
            "SetSctpSocketProperties: getsockopt for SCTP_EVENTS failed");
    }
    l_events.sctp_association_event = 1;
    if (!setOption(i_fd, SCTP_EVENTS, &l_events, EVENTS_LENGTH))
    {
        return optionError(
            REASON_SET_OPTION,
            "SetSctpSocketProperties: setsockopt for SCTP_EVENTS failed");
    }
    return pError_t();
}

// Deliberate: the message of a failed getsockopt() is not formatted.
// Effect: it ends in "sd[%i] Errno[%i]" as it stands; the error's own errno
// tells the reason.
// Pinned by: SctpTest.UnreadableRetransmissionTimesEndTheTuning
pError_t setRetransmissionTimes(int i_fd)
{
    sctp_rtoinfo l_times = {};
    if (!getOption(i_fd, SCTP_RTOINFO, &l_times, RTOINFO_LENGTH))
    {
        return optionError(REASON_GET_OPTION,
                           "SetSctpSocketProperties: getsockopt for "
                           "SCTP_RTOINFO failed sd[%i] Errno[%i]");
    }
    l_times.srto_initial = RTO_INITIAL;
    l_times.srto_max = RTO_MAXIMUM;
    l_times.srto_min = RTO_MINIMUM;
    if (!setOption(i_fd, SCTP_RTOINFO, &l_times, RTOINFO_LENGTH))
    {
        return optionError(
            REASON_SET_OPTION,
            "SetSctpSocketProperties: setsockopt for SCTP_RTOINFO failed");
    }
    return pError_t();
}

pError_t setAssociationLimit(int i_fd)
{
    sctp_assocparams l_limits = {};
    if (!getOption(i_fd, SCTP_ASSOCINFO, &l_limits, ASSOCINFO_LENGTH))
    {
        return optionError(
            REASON_GET_OPTION,
            "SetSctpSocketProperties: getsockopt for SCTP_ASSOCINFO failed");
    }
    l_limits.sasoc_asocmaxrxt = ASSOCIATION_RETRANSMISSIONS;
    if (!setOption(i_fd, SCTP_ASSOCINFO, &l_limits, ASSOCINFO_LENGTH))
    {
        return optionError(
            REASON_SET_OPTION,
            "SetSctpSocketProperties: setsockopt for SCTP_ASSOCINFO failed");
    }
    return pError_t();
}

// Deliberate: no flag is set.
// Effect: Linux takes the limit of retransmissions and leaves the heartbeat
// interval at the system's.
// Pinned by: SctpTest.PeerAddressOptionCarriesNoFlags
pError_t setPeerPath(int i_fd, const SockAddr_t& i_peer)
{
    sctp_paddrparams l_path = {};
    std::memcpy(&l_path.spp_address, &i_peer.addr,
                std::min<std::size_t>(i_peer.length, sizeof(i_peer.addr)));
    l_path.spp_hbinterval = HEARTBEAT_INTERVAL;
    l_path.spp_pathmaxrxt = PATH_RETRANSMISSIONS;
    if (!setOption(i_fd, SCTP_PEER_ADDR_PARAMS, &l_path, PEER_ADDR_LENGTH))
    {
        return optionError(REASON_SET_OPTION,
                           "SetSctpSocketProperties: setsockopt for "
                           "SCTP_PEER_ADDR_PARAMS failed");
    }
    return pError_t();
}

bool isIn(std::uint32_t i_subnet, in_addr_t i_address)
{
    return (ntohl(i_address) & SUBNET_MASK) == i_subnet;
}

// The local addresses of an association that lie in one of the two networks.
struct InternalAddresses_t
{
    unsigned int count;
    sockaddr_in last;
};

// The list holds i_count addresses one behind the other; an SCTP association
// of this library has no others than of IPv4.
InternalAddresses_t findInternal(const sockaddr* i_list, int i_count)
{
    InternalAddresses_t l_found = {};
    const char* l_next = reinterpret_cast<const char*>(i_list);
    for (int l_left = i_count; l_left > 0; --l_left)
    {
        sockaddr_in l_address = {};
        std::memcpy(&l_address, l_next, sizeof(l_address));
        l_next += sizeof(l_address);
        if (isIn(SCTP_SUBNET_A, l_address.sin_addr.s_addr) ||
            isIn(SCTP_SUBNET_B, l_address.sin_addr.s_addr))
        {
            ++l_found.count;
            l_found.last = l_address;
        }
    }
    return l_found;
}

} // namespace

namespace tolv
{

const std::uint32_t SCTP_SUBNET_A = TOLV_SCTP_SUBNET_A;
const std::uint32_t SCTP_SUBNET_B = TOLV_SCTP_SUBNET_B;

pError_t SetSctpSocketProperties(int i_fd, const SockAddr_t& i_peer)
{
    pError_t l_error = subscribeToEvents(i_fd);
    if (!l_error)
    {
        l_error = setRetransmissionTimes(i_fd);
    }
    if (!l_error)
    {
        l_error = setAssociationLimit(i_fd);
    }
    if (!l_error)
    {
        l_error = setPeerPath(i_fd, i_peer);
    }
    return l_error;
}

// Addresses are only added; one whose interface is gone stays, for the
// interface may come back.
int SockChannel::RefreshChannel()
{
    if (iv_Type != SOCK_TYPE_SCTP)
    {
        return 0;
    }
    sctp_assocparams l_association = {};
    if (!getOption(iv_Fd, SCTP_ASSOCINFO, &l_association, ASSOCINFO_LENGTH))
    {
        return -1;
    }
    sockaddr* l_list = nullptr;
    int l_status = sctp_getladdrs(iv_Fd, l_association.sasoc_assoc_id, &l_list);
    const InternalAddresses_t l_internal = findInternal(l_list, l_status);
    if (l_internal.count == 1)
    {
        sockaddr_in l_other = {};
        l_other.sin_family = AF_INET;
        l_other.sin_port = l_internal.last.sin_port;
        l_status = FindSubnetInterfaceAddress(
            isIn(SCTP_SUBNET_A, l_internal.last.sin_addr.s_addr) ? 1 : 0,
            l_other.sin_addr.s_addr);
        if (l_status >= 0 && l_other.sin_addr.s_addr != INADDR_ANY)
        {
            l_status = sctp_bindx(iv_Fd, reinterpret_cast<sockaddr*>(&l_other),
                                  1, SCTP_BINDX_ADD_ADDR);
        }
    }
    if (l_list != nullptr)
    {
        sctp_freeladdrs(l_list);
    }
    return l_status;
}

int SockChannel::FindSubnetInterfaceAddress(int i_which, in_addr_t& o_found)
{
    o_found = INADDR_ANY;
    char l_list[2048];
    ifconf l_request = {};
    l_request.ifc_len = sizeof(l_list);
    l_request.ifc_buf = l_list;
    if (ioctl(iv_Fd, SIOCGIFCONF, &l_request) < 0)
    {
        return 0;
    }
    const std::uint32_t l_subnet = i_which == 0 ? SCTP_SUBNET_A : SCTP_SUBNET_B;
    constexpr int STEP = sizeof(ifreq);
    int l_status = 0;
    for (int l_offset = 0;
         l_offset + STEP <= l_request.ifc_len && o_found == INADDR_ANY;
         l_offset += STEP)
    {
        ifreq l_entry = {};
        std::memcpy(&l_entry, l_list + l_offset, sizeof(l_entry));
        l_status = ioctl(iv_Fd, SIOCGIFADDR, &l_entry);
        if (l_status < 0)
        {
            break;
        }
        sockaddr_in l_address = {};
        std::memcpy(&l_address, &l_entry.ifr_addr, sizeof(l_address));
        if (l_address.sin_family == AF_INET &&
            isIn(l_subnet, l_address.sin_addr.s_addr))
        {
            o_found = l_address.sin_addr.s_addr;
        }
    }
    return l_status;
}

} // namespace tolv

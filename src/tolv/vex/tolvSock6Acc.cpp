#include "tolv/vex/tolvSock6Acc.hpp"

#include "tolv/vex/tolvAccSteps.hpp"
#include "tolv/vex/tolvSock6Channel.hpp"
#include "tolv/vex/tolvSockAddr.hpp"

namespace
{

using namespace tolv;

struct Inet6
{
    using Address_t = Sock6Addr_t;
    using Channel_t = Sock6Channel;

    static const std::int32_t* lookup(SockType i_type)
    {
        return Sock6Acc::LookupSock6Properties(i_type);
    }

    static int initAddress(const char* i_host, unsigned short i_port,
                           Sock6Addr_t& o_addr, SockType i_type)
    {
        return Sock6Acc::initSock6AddrStruct(i_host, i_port, o_addr, i_type);
    }

    // Accepted sockets inherit these: a channel learns where packets arrive.
    static void setOptions(OS_HANDLE i_fd)
    {
        const int l_on = 1;
        setsockopt(i_fd, IPPROTO_IP, IP_PKTINFO, &l_on, sizeof(l_on));
        setsockopt(i_fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &l_on, sizeof(l_on));
    }

    static pError_t tune(OS_HANDLE /*i_fd*/, SockType /*i_type*/,
                         const Sock6Addr_t& /*i_peer*/)
    {
        return pError_t();
    }
};

using Steps = AccSteps<Sock6Acc, Inet6>;

} // namespace

namespace tolv
{

const SockProperties_t Sock6Acc::ST6Array[3] = {
    {SOCK_TYPE_TCP, AF_INET6, SOCK_STREAM, 0},
    {SOCK_TYPE_UDP, AF_INET6, SOCK_DGRAM, 0},
    {SOCK_TYPE_UNIX, AF_UNIX, SOCK_STREAM, 0}};

const std::int32_t Sock6Acc::ST6Asz = 3;

const std::int32_t* Sock6Acc::LookupSock6Properties(SockType i_type)
{
    return findSockProperties(ST6Array, i_type);
}

int Sock6Acc::initSock6AddrStruct(const char* i_host, unsigned short i_port,
                                  Sock6Addr_t& o_addr, SockType i_type)
{
    return initAddress(i_host, i_port, o_addr, i_type);
}

Sock6Acc::Sock6Acc(Dispatcher& io_dispatcher, Factory_t i_factory,
                   const char* i_host, unsigned short i_port, SockType i_type) :
    Acc(io_dispatcher, i_factory),
    iv_Host(i_host), iv_Port(Steps::storedPort(i_port, i_type)),
    iv_SockType(i_type)
{
    Steps::removeFile(*this);
}

Sock6Acc::Sock6Acc(Dispatcher& io_dispatcher, Factory_t i_factory,
                   unsigned short i_port, SockType i_type) :
    Acc(io_dispatcher, i_factory),
    iv_Host(nullptr), iv_Port(Steps::storedPort(i_port, i_type)),
    iv_SockType(i_type)
{
}

Sock6Acc::~Sock6Acc()
{
    Steps::removeFile(*this);
}

pError_t Sock6Acc::Open()
{
    return Steps::open(*this);
}

pError_t Sock6Acc::socketOperation(OS_HANDLE i_handle)
{
    return Steps::socketOperation(*this, i_handle);
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
pError_t Sock6Acc::Close()
{
    return pError_t();
}

void Sock6Acc::Dump(FILE* /*o_stream*/) {}

EventHandler::ACTION Sock6Acc::HandleEvent(OS_HANDLE i_handle, EVENT i_event)
{
    return Steps::handleEvent(*this, i_handle, i_event);
}

} // namespace tolv

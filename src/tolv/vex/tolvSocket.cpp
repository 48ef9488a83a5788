#include "tolv/vex/tolvSocket.hpp"

#include "tolv/vex/tolvSockAddr.hpp"

namespace
{

const tolv::SockProperties_t STArray[] = {
    {tolv::SOCK_TYPE_TCP, AF_INET, SOCK_STREAM, 0},
    {tolv::SOCK_TYPE_UDP, AF_INET, SOCK_DGRAM, 0},
    {tolv::SOCK_TYPE_SCTP, AF_INET, SOCK_STREAM, IPPROTO_SCTP},
    {tolv::SOCK_TYPE_UNIX, AF_UNIX, SOCK_STREAM, 0}};

} // namespace

namespace tolv
{

const std::int32_t* LookupSockProperties(SockType i_type)
{
    return findSockProperties(STArray, i_type);
}

int initSockAddrStruct(const char* i_host, unsigned short i_port,
                       SockAddr_t& o_addr, SockType i_type)
{
    return initAddress(i_host, i_port, o_addr, i_type);
}

} // namespace tolv

#include "tolv/vex/tolvSockAcc.hpp"

#include "tolv/vex/tolvAccSteps.hpp"
#include "tolv/vex/tolvSctp.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

namespace
{

using namespace tolv;

struct Inet
{
    using Address_t = SockAddr_t;
    using Channel_t = SockChannel;

    static const std::int32_t* lookup(SockType i_type)
    {
        return LookupSockProperties(i_type);
    }

    static int initAddress(const char* i_host, unsigned short i_port,
                           SockAddr_t& o_addr, SockType i_type)
    {
        return initSockAddrStruct(i_host, i_port, o_addr, i_type);
    }

    static void setOptions(OS_HANDLE /*i_fd*/) {}

    static pError_t tune(OS_HANDLE i_fd, SockType i_type,
                         const SockAddr_t& i_peer)
    {
        return i_type == SOCK_TYPE_SCTP ? SetSctpSocketProperties(i_fd, i_peer)
                                        : pError_t();
    }
};

using Steps = AccSteps<SockAcc, Inet>;

} // namespace

namespace tolv
{

SockAcc::SockAcc(Dispatcher& io_dispatcher, Factory_t i_factory,
                 const char* i_host, unsigned short i_port, SockType i_type) :
    Acc(io_dispatcher, i_factory),
    iv_Host(i_host), iv_Port(Steps::storedPort(i_port, i_type)),
    iv_SockType(i_type)
{
    Steps::removeFile(*this);
}

SockAcc::SockAcc(Dispatcher& io_dispatcher, Factory_t i_factory,
                 unsigned short i_port, SockType i_type) :
    Acc(io_dispatcher, i_factory),
    iv_Host(nullptr), iv_Port(Steps::storedPort(i_port, i_type)),
    iv_SockType(i_type)
{
}

SockAcc::~SockAcc()
{
    Steps::removeFile(*this);
}

pError_t SockAcc::Open()
{
    return Steps::open(*this);
}

pError_t SockAcc::socketOperation(OS_HANDLE i_handle)
{
    return Steps::socketOperation(*this, i_handle);
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
pError_t SockAcc::Close()
{
    return pError_t();
}

void SockAcc::Dump(FILE* /*o_stream*/) {}

EventHandler::ACTION SockAcc::HandleEvent(OS_HANDLE i_handle, EVENT i_event)
{
    return Steps::handleEvent(*this, i_handle, i_event);
}

} // namespace tolv

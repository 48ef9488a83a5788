#include "tolv/vex/tolvService.hpp"

#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

namespace tolv
{

Service::Service(Dispatcher& io_dispatcher) :
    EventHandler(io_dispatcher), iv_pChannel(nullptr)
{
}

Service::~Service()
{
    delete iv_pChannel;
    iv_pChannel = nullptr;
}

void Service::RefreshHandler(OS_HANDLE /*i_handle*/, EVENT /*i_event*/)
{
    if (iv_pChannel != nullptr && iv_pChannel->getType() == SOCK_TYPE_SCTP)
    {
        iv_pChannel->RefreshChannel();
    }
}

// Deliberate: an earlier channel is forgotten, not destroyed.
// Effect: a second call leaks the first channel with its connection.
// Pinned by: ServiceTest.SecondChannelLeavesTheFirstAlone
void Service::setChannel(Channel& io_channel)
{
    iv_pChannel = &io_channel;
}

void Service::Open()
{
    if (iv_pChannel != nullptr)
    {
        iv_Dispatcher.Register(iv_pChannel->getHandle(), *this, EVENT_READ);
    }
}

void Service::Open(OS_HANDLE i_handle)
{
    iv_Dispatcher.Register(i_handle, *this, EVENT_READ);
}

void Service::Close() {}

} // namespace tolv

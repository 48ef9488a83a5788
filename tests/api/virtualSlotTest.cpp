#include "support/virtualSlot.hpp"

#include "tolv/tolv.hpp"

#include <gtest/gtest.h>

#include <cstdio>

using namespace tolv;

// Daemons built against an earlier release call and override by slot. The
// destructor takes two slots; its place follows from that of the others.

namespace
{

using BuildLogText = pError_t (Base::*)(unsigned char, unsigned short,
                                        const char*);
using BuildLogFormat = pError_t (Base::*)(unsigned char, unsigned short, int,
                                          const char*, ...);

} // namespace

TEST(VirtualSlotTest, FunctionBaseHasDestructorInvokeClone)
{
    EXPECT_EQ(2U, virtualSlot(&function_base::invoke));
    EXPECT_EQ(3U, virtualSlot(&function_base::clone));
    EXPECT_EQ(4U, virtualSlots<function_base>());
}

TEST(VirtualSlotTest, BaseHasDestructorAndBothBuildLogs)
{
    EXPECT_EQ(2U, virtualSlot(BuildLogText(&Base::BuildLog)));
    EXPECT_EQ(3U, virtualSlot(BuildLogFormat(&Base::BuildLog)));
    EXPECT_EQ(4U, virtualSlots<Base>());
}

TEST(VirtualSlotTest, ErrorHasOnlyItsDestructor)
{
    EXPECT_EQ(2U, virtualSlots<Error>());
}

TEST(VirtualSlotTest, DataBuffAppendsDumpToBase)
{
    EXPECT_EQ(4U, virtualSlot(&DataBuff::Dump));
    EXPECT_EQ(5U, virtualSlots<DataBuff>());
}

TEST(VirtualSlotTest, ChannelAppendsItsEightToBase)
{
    EXPECT_EQ(4U, virtualSlot(&Channel::Dump));
    EXPECT_EQ(5U, virtualSlot(&Channel::Peek));
    EXPECT_EQ(6U, virtualSlot(&Channel::Read));
    EXPECT_EQ(7U, virtualSlot(&Channel::Write));
    EXPECT_EQ(8U, virtualSlot(&Channel::isAlive));
    EXPECT_EQ(9U, virtualSlot(&Channel::getRemoteAddress));
    EXPECT_EQ(10U, virtualSlot(&Channel::getPort));
    EXPECT_EQ(11U, virtualSlot(&Channel::RefreshChannel));
    EXPECT_EQ(12U, virtualSlots<Channel>());
}

TEST(VirtualSlotTest, SockChannelHasTheSlotsOfChannel)
{
    EXPECT_EQ(12U, virtualSlots<SockChannel>());
}

TEST(VirtualSlotTest, Sock6ChannelAppendsItsAddresses)
{
    EXPECT_EQ(12U, virtualSlot(&Sock6Channel::getLocalAddress));
    EXPECT_EQ(13U, virtualSlot(&Sock6Channel::setRemoteAddress));
    EXPECT_EQ(14U, virtualSlots<Sock6Channel>());
}

TEST(VirtualSlotTest, NetMessageAppendsSixToDataBuff)
{
    EXPECT_EQ(4U, virtualSlot(&NetMessage::Dump));
    EXPECT_EQ(5U, virtualSlot(&NetMessage::Send));
    EXPECT_EQ(6U, virtualSlot(&NetMessage::Receive));
    EXPECT_EQ(7U, virtualSlot(&NetMessage::hdrLength));
    EXPECT_EQ(8U, virtualSlot(&NetMessage::copyHeader));
    EXPECT_EQ(9U, virtualSlot(&NetMessage::PlaceHeader));
    EXPECT_EQ(10U, virtualSlot(&NetMessage::ExtractHeader));
    EXPECT_EQ(11U, virtualSlots<NetMessage>());
}

TEST(VirtualSlotTest, EventHandlerAppendsItsCallbacksToBase)
{
    EXPECT_EQ(2U,
              virtualSlot(static_cast<BuildLogText>(&EventHandler::BuildLog)));
    EXPECT_EQ(
        3U, virtualSlot(static_cast<BuildLogFormat>(&EventHandler::BuildLog)));
    EXPECT_EQ(4U, virtualSlot(&EventHandler::Dump));
    EXPECT_EQ(5U, virtualSlot(&EventHandler::HandleEvent));
    EXPECT_EQ(6U, virtualSlot(&EventHandler::TimerTick));
    EXPECT_EQ(7U, virtualSlot(&EventHandler::RefreshHandler));
    EXPECT_EQ(8U, virtualSlots<EventHandler>());
}

TEST(VirtualSlotTest, DispatcherKeepsItsOrder)
{
    using EnableHandle = void (Dispatcher::*)(OS_HANDLE);
    using EnableTimer = void (Dispatcher::*)(Timer_t);
    EXPECT_EQ(2U, virtualSlot(&Dispatcher::Register));
    EXPECT_EQ(3U, virtualSlot(&Dispatcher::Unregister));
    EXPECT_EQ(4U, virtualSlot(&Dispatcher::AddTimer));
    EXPECT_EQ(5U, virtualSlot(&Dispatcher::UpdateTimer));
    EXPECT_EQ(6U, virtualSlot(&Dispatcher::CancelTimer));
    EXPECT_EQ(7U, virtualSlot(&Dispatcher::ExpireTimer));
    EXPECT_EQ(8U, virtualSlot(&Dispatcher::ProcessEvents));
    EXPECT_EQ(9U, virtualSlot(EnableHandle(&Dispatcher::EnableCallback)));
    EXPECT_EQ(10U, virtualSlot(EnableTimer(&Dispatcher::EnableCallback)));
    EXPECT_EQ(11U, virtualSlot(&Dispatcher::Shutdown));
    EXPECT_EQ(12U, virtualSlot(&Dispatcher::DeferredShutdown));
    EXPECT_EQ(13U, virtualSlot(&Dispatcher::RaiseSignal));
    EXPECT_EQ(14U, virtualSlots<Dispatcher>());
}

TEST(VirtualSlotTest, ServiceAppendsItsFourToEventHandler)
{
    using OpenChannel = void (Service::*)();
    using OpenHandle = void (Service::*)(OS_HANDLE);
    EXPECT_EQ(7U, virtualSlot(&Service::RefreshHandler));
    EXPECT_EQ(8U, virtualSlot(&Service::setChannel));
    EXPECT_EQ(9U, virtualSlot(OpenChannel(&Service::Open)));
    EXPECT_EQ(10U, virtualSlot(OpenHandle(&Service::Open)));
    EXPECT_EQ(11U, virtualSlot(&Service::Close));
    EXPECT_EQ(12U, virtualSlots<Service>());
}

TEST(VirtualSlotTest, AcceptorsHaveTheSlotsOfEventHandler)
{
    EXPECT_EQ(8U, virtualSlots<Acc>());
    EXPECT_EQ(8U, virtualSlots<SockAcc>());
    EXPECT_EQ(8U, virtualSlots<Sock6Acc>());
    EXPECT_EQ(4U, virtualSlot(&SockAcc::Dump));
    EXPECT_EQ(5U, virtualSlot(&SockAcc::HandleEvent));
}

TEST(VirtualSlotTest, ConnAppendsDumpToBase)
{
    EXPECT_EQ(4U, virtualSlot(&Conn::Dump));
    EXPECT_EQ(5U, virtualSlots<Conn>());
    EXPECT_EQ(5U, virtualSlots<SockConn>());
}

TEST(VirtualSlotTest, LinkCheckHasTheSlotsOfEventHandler)
{
    EXPECT_EQ(8U, virtualSlots<SctpLinkCheckEH>());
}

TEST(VirtualSlotTest, AppAppendsDumpAndRunToBase)
{
    EXPECT_EQ(4U, virtualSlot(&App::Dump));
    EXPECT_EQ(5U, virtualSlot(&App::Run));
    EXPECT_EQ(6U, virtualSlots<App>());
}

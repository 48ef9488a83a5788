#include "tolv/vex/tolvEventProperties.hpp"

#include "tolv/vex/tolvAssert.hpp"

#include <tuple>
#include <utility>

namespace tolv
{

EventRecord::EventRecord(EventProperties& io_entry, std::uint64_t i_number,
                         OS_HANDLE i_handle, EVENT_MASK i_mask) :
    iv_Handle(i_handle),
    iv_ThreadRefCount(0), iv_Enabled(true), iv_Removed(false), iv_Mask(i_mask),
    iv_Entry(io_entry), iv_Number(i_number), iv_WatchedFrom(0)
{
}

void EventRecord::DecreaseThreadCount()
{
    --iv_ThreadRefCount;
    if (iv_ThreadRefCount < 0)
    {
        assertFailed("l_eItr->iv_ThreadRefCount >= 0",
                     "tolv/vex/tolvDispatcherImpl", 420,
                     "void tolv::MTDispatcher::ServiceEvents(tolv::FdSet&)");
    }
}

EventProperties::EventProperties(EventHandler& io_handler,
                                 std::uint64_t i_number) :
    iv_Records(),
    iv_Handler(io_handler), iv_Number(i_number), iv_Registered(0), iv_Pins(0),
    iv_Active(nullptr), iv_ActiveWait(0)
{
}

EventRecord& EventProperties::add(std::uint64_t i_number, OS_HANDLE i_handle,
                                  EVENT_MASK i_mask)
{
    ++iv_Registered;
    return iv_Records
        .emplace(std::piecewise_construct, std::forward_as_tuple(i_number),
                 std::forward_as_tuple(*this, i_number, i_handle, i_mask))
        .first->second;
}

void EventProperties::remove(EventRecord& io_record)
{
    if (!io_record.iv_Removed)
    {
        io_record.iv_Removed = true;
        --iv_Registered;
    }
}

void EventProperties::erase(EventRecord& io_record)
{
    iv_Records.erase(io_record.iv_Number);
}

bool EventProperties::setReady(EventRecord& io_record, std::uint64_t i_wait)
{
    const bool l_first = iv_ActiveWait != i_wait;
    if (l_first || io_record.iv_Number < iv_Active->iv_Number)
    {
        iv_Active = &io_record;
        iv_ActiveWait = i_wait;
    }
    return l_first;
}

OS_HANDLE EventProperties::getActiveHandle(std::uint64_t i_wait) const
{
    return iv_ActiveWait == i_wait ? iv_Active->iv_Handle : OS_INVALID;
}

} // namespace tolv

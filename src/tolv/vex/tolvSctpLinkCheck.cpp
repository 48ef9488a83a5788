#include "tolv/vex/tolvSctpLinkCheck.hpp"

namespace tolv
{

SctpLinkCheckEH::SctpLinkCheckEH(Dispatcher& io_dispatcher) :
    EventHandler(io_dispatcher)
{
}

SctpLinkCheckEH::~SctpLinkCheckEH() = default;

void SctpLinkCheckEH::Dump(FILE* /*o_stream*/) {}

EventHandler::ACTION SctpLinkCheckEH::HandleEvent(OS_HANDLE /*i_handle*/,
                                                  EVENT /*i_event*/)
{
    return ACTION_REMOVE;
}

EventHandler::ACTION SctpLinkCheckEH::TimerTick(Timer_t /*i_timer*/,
                                                EVENT i_event)
{
    return i_event == EVENT_SHUTDOWN ? ACTION_REMOVE : ACTION_REFRESH;
}

} // namespace tolv

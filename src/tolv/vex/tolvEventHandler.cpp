#include "tolv/vex/tolvEventHandler.hpp"

#include "tolv/vex/tolvAssert.hpp"

namespace
{

const char* const SOURCE = "tolv/vex/tolvEventHandler";

} // namespace

namespace tolv
{

EventHandler::EventHandler(Dispatcher& io_dispatcher) :
    iv_Dispatcher(io_dispatcher), iv_ThreadRefCount(0), iv_Removed(false)
{
}

EventHandler::~EventHandler()
{
    if (iv_ThreadRefCount != 0)
    {
        assertFailed("iv_ThreadRefCount == 0", SOURCE, 40,
                     "virtual tolv::EventHandler::~EventHandler()");
    }
}

EventHandler::ACTION EventHandler::TimerTick(Timer_t, EVENT)
{
    return ACTION_CONTINUE;
}

void EventHandler::RefreshHandler(OS_HANDLE, EVENT) {}

void EventHandler::DecreaseThreadCount()
{
    --iv_ThreadRefCount;
    if (iv_ThreadRefCount < 0)
    {
        assertFailed("iv_ThreadRefCount >= 0", SOURCE, 150,
                     "void tolv::EventHandler::DecreaseThreadCount()");
    }
}

} // namespace tolv

#include "tolv/vex/tolvChannel.hpp"

#include <unistd.h>

namespace tolv
{

Channel::Channel(OS_HANDLE i_handle, SockType i_type) :
    iv_Type(i_type), iv_TimeOut(), iv_TimeOutEnabled(false), iv_TimedOut(false),
    iv_Fd(i_handle)
{
}

Channel::~Channel()
{
    if (iv_Fd != OS_INVALID)
    {
        close(iv_Fd);
        iv_Fd = OS_INVALID;
    }
}

} // namespace tolv

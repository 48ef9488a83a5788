#include "tolv/vex/tolvConn.hpp"

namespace tolv
{

Conn::Conn(SockType i_type) : iv_SockType(i_type), iv_TimeOutEnabled(false) {}

Conn::~Conn() = default;

void Conn::setTimeOut(const TimeValue& i_timeOut)
{
    iv_TimeOut = i_timeOut;
    iv_TimeOutEnabled = true;
}

} // namespace tolv

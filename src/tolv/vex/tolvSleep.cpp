#include "tolv/vex/tolvSleep.hpp"

#include <cerrno>
#include <ctime>

namespace tolv
{

void sleepFully(unsigned int i_seconds)
{
    const int l_errno = errno;
    timespec l_left = {};
    l_left.tv_sec = static_cast<time_t>(i_seconds);
    while (nanosleep(&l_left, &l_left) == -1 && errno == EINTR)
    {
    }
    errno = l_errno;
}

} // namespace tolv

#include "tolv/vex/tolvDescriptor.hpp"

#include <fcntl.h>

namespace tolv
{

void setCloseOnExec(OS_HANDLE i_fd)
{
    if (i_fd != OS_INVALID)
    {
        fcntl(i_fd, F_SETFD, FD_CLOEXEC);
    }
}

int setNonBlocking(OS_HANDLE i_fd)
{
    const int l_flags = fcntl(i_fd, F_GETFL);
    fcntl(i_fd, F_SETFL, l_flags | O_NONBLOCK);
    return l_flags;
}

} // namespace tolv

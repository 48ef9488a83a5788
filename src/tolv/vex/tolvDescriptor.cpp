#include "tolv/vex/tolvDescriptor.hpp"

#include <fcntl.h>
#include <sys/socket.h>

#include <cstdlib>

namespace tolv
{

// Deliberate: a type that the table does not have is no error result.
// Effect: it ends the process, SOCK_TYPE_SCTP over IPv6 among them.
// Pinned by: Sock6AccDeathTest.OpenWithSctpEndsTheProcess
OS_HANDLE openSocket(const std::int32_t* i_row)
{
    if (i_row == nullptr)
    {
        std::abort(); // a compiler may let a read through null go on
    }
    const OS_HANDLE l_fd = socket(i_row[0], i_row[1], i_row[2]);
    setCloseOnExec(l_fd);
    return l_fd;
}

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

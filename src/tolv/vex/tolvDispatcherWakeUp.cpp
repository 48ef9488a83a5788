// The bytes that wake the engine's loop.
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "tolv/vex/tolvAssert.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <utility>

namespace
{

const char* const SOURCE = "tolv/vex/tolvDispatcherImpl";

} // namespace

namespace tolv
{

// A full pair holds wake-ups enough: the byte is not missed. Waiting for room
// would hang, for the loop needs the registration lock to drain the pair.
void MTDispatcher::Interrupt()
{
    const MutexLock l_lock(iv_OutgoingLock);
    const char l_byte = 0;
    ssize_t l_urc = 0;
    do
    {
        l_urc = send(iv_Outgoing[0], &l_byte, sizeof(l_byte),
                     MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (l_urc == -1 && errno == EINTR);
    if (l_urc != sizeof(l_byte) && !(l_urc == -1 && errno == EAGAIN))
    {
        assertFailed("l_urc == sizeof(tmp)", SOURCE, 560,
                     "void tolv::MTDispatcher::Interrupt()");
    }
}

// For the threads of the loop themselves. A thread that comes back after the
// teardown finds nobody to wake and the pair closed.
void MTDispatcher::interruptLoop()
{
    if (!iv_Shutdown)
    {
        Interrupt();
    }
}

// One byte for each wake-up: the others cause passes of their own.
void MTDispatcher::ServicePipe()
{
    const MutexLock l_lock(iv_OutgoingLock);
    if (iv_Outgoing[1] == OS_INVALID)
    {
        return; // torn down meanwhile
    }
    char l_byte = 0;
    ssize_t l_urc = 0;
    do
    {
        l_urc = recv(iv_Outgoing[1], &l_byte, sizeof(l_byte),
                     MSG_WAITALL | MSG_NOSIGNAL);
    } while (l_urc == -1 && errno == EINTR);
    if (l_urc != sizeof(l_byte))
    {
        assertFailed("l_urc == sizeof(tmp)", SOURCE, 580,
                     "void tolv::MTDispatcher::ServicePipe()");
    }
}

void MTDispatcher::openPipe()
{
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, iv_Outgoing) != 0)
    {
        assertFailed("0 == socketpair( 1, SOCK_STREAM, 0, &iv_Outgoing )",
                     SOURCE, 90,
                     "tolv::MTDispatcher::MTDispatcher(uint32_t, uint32_t, "
                     "bool)");
    }
    for (const int l_handle : iv_Outgoing)
    {
        fcntl(l_handle, F_SETFD, FD_CLOEXEC);
    }
    if (iv_Outgoing[1] >= FdSet::SIZE)
    {
        abort(); // select() cannot watch it
    }
}

void MTDispatcher::closePipe()
{
    int l_handles[2] = {-1, -1};
    {
        const MutexLock l_lock(iv_OutgoingLock);
        std::swap(l_handles, iv_Outgoing);
    }
    for (const int l_handle : l_handles)
    {
        close(l_handle);
    }
}

} // namespace tolv

#include "support/loopProbe.hpp"

#include "support/waitFor.hpp"

#include <sys/select.h>
#include <sys/socket.h>

#include <ctime>

#include <mutex>

namespace
{

// Held while a byte is sent and while the loop looks whether there is one, so
// that no byte is under way uncounted.
std::mutex g_lock;
int g_waits = 0;
int g_sent = 0;
int g_idleAfter = -1; // bytes that had been sent when the loop was idle
std::optional<tolv::TimeValue> g_timeOut;

} // namespace

namespace loopProbe
{

bool waitUntilIdle()
{
    return waitFor(
        []
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            return g_idleAfter == g_sent;
        });
}

int waits()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_waits;
}

std::optional<tolv::TimeValue> timeOut()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_timeOut;
}

int wakeUps()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_sent;
}

} // namespace loopProbe

extern "C"
{
    int __real_nanosleep(const timespec* i_span, timespec* o_left);
    int __real_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_error, timeval* io_timeOut);
    ssize_t __real_send(int i_fd, const void* i_data, size_t i_length,
                        int i_flags);

    int __wrap_nanosleep(const timespec* i_span, timespec* o_left)
    {
        return i_span->tv_sec > 0 ? 0 : __real_nanosleep(i_span, o_left);
    }

    int __wrap_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_error, timeval* io_timeOut)
    {
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            ++g_waits;
            g_timeOut.reset();
            if (io_timeOut != nullptr)
            {
                g_timeOut = tolv::TimeValue(
                    static_cast<unsigned int>(io_timeOut->tv_sec),
                    static_cast<unsigned int>(io_timeOut->tv_usec));
            }
            fd_set l_ready = *io_read;
            timeval l_none = {};
            if (g_timeOut != tolv::TimeValue() &&
                __real_select(i_count, &l_ready, nullptr, nullptr, &l_none) ==
                    0)
            {
                g_idleAfter = g_sent;
            }
        }
        return __real_select(i_count, io_read, io_write, io_error, io_timeOut);
    }

    ssize_t __wrap_send(int i_fd, const void* i_data, size_t i_length,
                        int i_flags)
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        ++g_sent;
        return __real_send(i_fd, i_data, i_length, i_flags);
    }
}

#include "support/fakeClock.hpp"

#include <pthread.h>

#include <cerrno>

#include <atomic>

namespace
{

std::atomic<time_t> g_now(0); // 0: the real clock rules
std::atomic<time_t> g_lastDeadline(0);
std::atomic<int> g_timedWaits(0);
std::atomic<bool> g_timeOutWhenWoken(false);

// How long a wait looks away from the replaced clock, in nanoseconds.
constexpr long SLICE = 2000000;

timespec realTimeInASlice()
{
    timespec l_until = {};
    clock_gettime(CLOCK_REALTIME, &l_until);
    l_until.tv_nsec += SLICE;
    if (l_until.tv_nsec >= 1000000000)
    {
        l_until.tv_nsec -= 1000000000;
        ++l_until.tv_sec;
    }
    return l_until;
}

} // namespace

extern "C"
{
    time_t __real_time(time_t*);
    int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*,
                                      const timespec*);

    time_t __wrap_time(time_t* o_time)
    {
        const time_t l_now = g_now;
        return l_now == 0 ? __real_time(o_time) : l_now;
    }

    int __wrap_pthread_cond_timedwait(pthread_cond_t* io_cond,
                                      pthread_mutex_t* io_mutex,
                                      const timespec* i_deadline)
    {
        if (g_now == 0)
        {
            return __real_pthread_cond_timedwait(io_cond, io_mutex, i_deadline);
        }
        g_lastDeadline = i_deadline->tv_sec;
        ++g_timedWaits;
        while (g_now < i_deadline->tv_sec)
        {
            const timespec l_until = realTimeInASlice();
            const int l_result =
                __real_pthread_cond_timedwait(io_cond, io_mutex, &l_until);
            if (l_result != ETIMEDOUT)
            {
                return g_timeOutWhenWoken ? ETIMEDOUT : l_result;
            }
        }
        return ETIMEDOUT;
    }
}

namespace fakeClock
{

void start(time_t i_now)
{
    g_now = i_now;
}

void advance(time_t i_seconds)
{
    g_now += i_seconds;
}

time_t now()
{
    return g_now;
}

int timedWaits()
{
    return g_timedWaits;
}

time_t lastDeadline()
{
    return g_lastDeadline;
}

void reportTimeOutWhenWoken()
{
    g_timeOutWhenWoken = true;
}

} // namespace fakeClock

#include "support/fakeClock.hpp"

#include <pthread.h>

#include <cerrno>

#include <atomic>
#include <list>
#include <mutex>

namespace
{

std::atomic<time_t> g_now(0); // 0: the real clock rules
std::atomic<time_t> g_lastDeadline(0);
std::atomic<int> g_timedWaits(0);
std::atomic<bool> g_timeOutWhenWoken(false);

// The timed waits under way. No polling: a notification between two looks at
// the clock would be lost.
struct Wait
{
    pthread_cond_t* cond;
    pthread_mutex_t* mutex;
    time_t deadline;
};
std::mutex g_lock;
std::list<Wait> g_waits;

// Lists a wait for as long as it lasts.
class Listed
{
  public:
    explicit Listed(const Wait& i_wait)
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        iv_Place = g_waits.insert(g_waits.end(), i_wait);
    }

    ~Listed()
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        g_waits.erase(iv_Place);
    }

    Listed(const Listed&) = delete;
    Listed& operator=(const Listed&) = delete;

  private:
    std::list<Wait>::iterator iv_Place;
};

std::list<Wait> currentWaits()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_waits;
}

// With its mutex, which a wait holds from its look at the clock until it
// sleeps. Others on the same condition wake too, as any waiter may.
void wake(const Wait& i_wait)
{
    pthread_mutex_lock(i_wait.mutex);
    pthread_cond_broadcast(i_wait.cond);
    pthread_mutex_unlock(i_wait.mutex);
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
        const Listed l_listed({io_cond, io_mutex, i_deadline->tv_sec});
        ++g_timedWaits;
        if (g_now >= i_deadline->tv_sec)
        {
            return ETIMEDOUT;
        }
        pthread_cond_wait(io_cond, io_mutex);
        const bool l_late = g_now >= i_deadline->tv_sec || g_timeOutWhenWoken;
        return l_late ? ETIMEDOUT : 0;
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
    const time_t l_now = g_now += i_seconds;
    for (const Wait& l_wait : currentWaits())
    {
        if (l_wait.deadline <= l_now)
        {
            wake(l_wait);
        }
    }
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

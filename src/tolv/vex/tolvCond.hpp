// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVCOND_HPP
#define TOLV_VEX_TOLVCOND_HPP

#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"

#include <pthread.h>

#include <atomic>

namespace tolv
{

class Mutex;
class TimeValue;

/// A condition variable on the wall clock, bound to a Mutex at each wait.
///
/// Errors:  a failing POSIX call is a programming fault and ends the process
///          with an assertion.
/// Threads: any; all threads that wait at one time pass the same mutex. A
///          waiter that was notified may still be on its way out when the
///          condition is destroyed; one that stays longer than a second is a
///          programming fault and ends the process.
class TOLV_EXPORT Condition
{
  public:
    Condition();

    /// Blocks: up to a second for waiters that are leaving. They need their
    ///         mutex for that: never destroy with it held.
    ~Condition();
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// Wakes one waiter, if there is any.
    void NotifyOne();

    /// Wakes all waiters.
    void NotifyAll();

    /// Waits for a notification; may also return without one, so callers test
    /// their condition in a loop.
    ///
    /// Blocks: until notified, with io_mutex released; the caller holds
    ///         io_mutex before and after.
    void Wait(Mutex& io_mutex) TOLV_REQUIRES(io_mutex);

    /// Waits as Wait() does, but not beyond a point of the wall clock.
    ///
    /// Units:   i_deadline, a wall-clock point as ConvertToAbsolute() makes
    ///          it. Only its seconds count: the part below a second is
    ///          effectively ignored.
    /// Returns: true when the wait TIMED OUT, false when it was woken.
    /// Blocks:  until notified or i_deadline, with io_mutex released; signals
    ///          do not end the wait.
    bool TimedWait(Mutex& io_mutex, const TimeValue& i_deadline)
        TOLV_REQUIRES(io_mutex);

  private:
    pthread_cond_t iv_Cond;
    std::atomic<unsigned int> iv_Waiters; // threads inside a wait, no lock
};

} // namespace tolv

#endif

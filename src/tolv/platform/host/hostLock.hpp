// Private header of the host platform.
#ifndef TOLV_PLATFORM_HOST_HOSTLOCK_HPP
#define TOLV_PLATFORM_HOST_HOSTLOCK_HPP

#include "tolv/vex/tolvThreadSafety.hpp"

#include <pthread.h>

namespace tolvhost
{

/// A lock that is ready before any constructor has run and is never destroyed.
class TOLV_CAPABILITY Lock
{
  public:
    void acquire() TOLV_ACQUIRE()
    {
        pthread_mutex_lock(&iv_Mutex);
    }

    void release() TOLV_RELEASE()
    {
        pthread_mutex_unlock(&iv_Mutex);
    }

  private:
    pthread_mutex_t iv_Mutex = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a Lock as long as it lives.
class TOLV_SCOPED_CAPABILITY LockHold
{
  public:
    explicit LockHold(Lock& io_lock) TOLV_ACQUIRE(io_lock) : iv_Lock(io_lock)
    {
        iv_Lock.acquire();
    }

    ~LockHold() TOLV_RELEASE()
    {
        iv_Lock.release();
    }

    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

  private:
    Lock& iv_Lock;
};

} // namespace tolvhost

#endif

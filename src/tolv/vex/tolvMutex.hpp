// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVMUTEX_HPP
#define TOLV_VEX_TOLVMUTEX_HPP

#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"

#include <pthread.h>

namespace tolv
{

/// A lock for one thread at a time: a POSIX mutex with default attributes, so
/// neither recursive nor checked.
///
/// Errors:  a failing POSIX call is a programming fault and ends the process
///          with an assertion; so does destroying a locked mutex.
/// Threads: any. Destroy it only when no thread holds or awaits it.
class TOLV_EXPORT TOLV_CAPABILITY Mutex
{
  public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Blocks: until the lock is free.
    void Lock() TOLV_ACQUIRE();

    /// Called by the thread that holds the lock.
    void Unlock() TOLV_RELEASE();

  private:
    friend class Condition;

    pthread_mutex_t iv_Mutex;
};

/// Holds a Mutex as long as it lives.
///
/// Ownership: the mutex is the caller's and outlives the guard.
/// Blocks:    the constructor, until the lock is free.
class TOLV_EXPORT TOLV_SCOPED_CAPABILITY MutexLock
{
  public:
    explicit MutexLock(Mutex& io_mutex) TOLV_ACQUIRE(io_mutex);
    ~MutexLock() TOLV_RELEASE();
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& iv_Mutex;
};

} // namespace tolv

#endif

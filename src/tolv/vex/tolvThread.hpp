// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVTHREAD_HPP
#define TOLV_VEX_TOLVTHREAD_HPP

#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvFunction.hpp"

#include <pthread.h>

namespace tolv
{

/// A POSIX thread that runs a Function, or a stand-in for the calling thread.
///
/// Errors:  a thread that cannot be created or joined is a programming fault
///          and ends the process with an assertion. An exception that leaves
///          the function ends the process on a thread of its own; in the form
///          for the calling thread Start() passes it on.
/// Threads: not locked; started, joined and destroyed by its owner, one
///          operation at a time.
class TOLV_EXPORT Thread
{
  public:
    /// Stands for the calling thread: running from birth, never joined.
    Thread();

    /// Will run a copy of i_function on a thread of its own, with the default
    /// attributes; Start() begins it.
    explicit Thread(Function i_function);

    /// Blocks: until the thread has ended when it has one of its own; then
    ///         never from its own function.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Creates the thread, once: on a running one this does nothing. Starting
    /// again after Join() is not guarded and creates a second thread.
    ///
    /// Blocks: in the form for the calling thread until the function has
    ///         returned, because it is run right here. No member is touched
    ///         once it runs, so another thread may destroy the object
    ///         meanwhile.
    void Start();

    /// For ThreadPool: replaces the function, then starts. Does nothing when a
    /// thread of its own is already running.
    void Start(Function i_function);

    /// Blocks: until the thread of its own has ended, so never from its own
    ///         function; returns at once when there is none or it was joined
    ///         before.
    void Join();

    /// A value that belongs to the caller, null at first.
    void setUserPtr(void* i_userPtr);
    void* getUserPtr() const;

    /// The calling thread in the form that stands for it, else the thread that
    /// Start() created: zero before that, and stale after Join().
    pthread_t getTid() const;

  private:
    friend class ThreadPool;

    static void* entry(void* i_thread);

    /// The object whose function this thread runs, the innermost one if they
    /// are nested; null outside any.
    static Thread* current();

    // Declared order is the object layout.
    Function iv_Function; // empty in the form for the calling thread
    pthread_t iv_Tid;
    bool iv_Running;
    bool iv_Spawns; // runs on a thread of its own
    void* iv_UserPtr;
};

} // namespace tolv

#endif

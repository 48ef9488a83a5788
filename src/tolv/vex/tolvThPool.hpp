// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVTHPOOL_HPP
#define TOLV_VEX_TOLVTHPOOL_HPP

#include "tolv/vex/tolvCond.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvFunction.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"

#include <cstdint>
#include <ctime>

#include <vector>

namespace tolv
{

class MTDispatcher;
class Thread;

/// Runs one job on between a minimum and a maximum number of threads.
///
/// Each Dispatch() asks for one more run of the job: an idle worker takes it,
/// or a new worker while the pool is below its maximum, or it stays pending
/// until a worker is free. Workers that the pool created retire when it is
/// above its minimum and has had two idle workers and no shortage for more
/// than 15 minutes.
///
/// Threads:   any operation from any thread; the job runs with no lock held.
///            A job that throws or ends its thread ends the process.
/// Ownership: the pool owns its Thread objects; a retired one is joined by the
///            next Dispatch() or Shutdown(), never by itself.
class TOLV_EXPORT ThreadPool
{
  public:
    /// Not started: no threads, no job.
    ThreadPool();

    /// Stops the pool as Shutdown(60) does.
    ///
    /// Errors: a pool that does not stop in time is a programming fault and
    ///         ends the process with an assertion.
    /// Blocks: up to 60 seconds. Never from the job.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Starts i_min workers. Neither i_min <= i_max nor i_min > 0 is asked
    /// for; with 0 nothing is started and the pool counts as not started.
    ///
    /// i_retireIdle: whether workers may retire.
    ///
    /// Returns:   false, with nothing changed, when the pool has threads, or a
    ///            shutdown has yet to see them or a caller of JoinPool() leave.
    /// Ownership: i_job is copied; what it refers to stays the caller's and
    ///            lives until Shutdown() has returned false.
    bool StartUp(unsigned int i_min, unsigned int i_max, Function i_job,
                 bool i_retireIdle) TOLV_EXCLUDES(iv_Lock);

    /// Asks for one run of the job. During a shutdown the request is only
    /// counted.
    ///
    /// Blocks: never on the job; joins threads that have retired.
    void Dispatch() TOLV_EXCLUDES(iv_Lock);

    /// The number of threads, joined callers included.
    unsigned int getPoolDepth() const TOLV_EXCLUDES(iv_Lock);

    /// Stops all workers and joins them and sends callers out of JoinPool().
    /// Runs still pending are never made. A pool without threads and callers
    /// is left as it is.
    ///
    /// Units:   i_seconds, whole seconds, bounds the whole wait; 0 only looks.
    ///          The wait ends on the wall clock, up to a second early.
    /// Returns: true when the wait TIMED OUT (the workers are left in place
    ///          and leave later), false when all stopped or there were none.
    /// Blocks:  up to i_seconds. Called from the job it always times out: it
    ///          waits for its own thread.
    bool Shutdown(unsigned int i_seconds) TOLV_EXCLUDES(iv_Lock);

    /// Makes the calling thread a worker that never retires. When the pool is
    /// at its maximum, or was never started, the thread just waits.
    ///
    /// Blocks: until a shutdown; returns at once when one has begun.
    void JoinPool() TOLV_EXCLUDES(iv_Lock);

  private:
    // The engine asks for runs under its registration lock, where nothing may
    // be joined, signals the threads, and stops them before it goes.
    friend class MTDispatcher;

    using ThreadList = std::vector<Thread*>;

    bool request() TOLV_EXCLUDES(iv_Lock);
    void reap() TOLV_EXCLUDES(iv_Lock);
    int signalAll(int i_signal) TOLV_EXCLUDES(iv_Lock);
    void stop() TOLV_EXCLUDES(iv_Lock);

    void workerLoop() TOLV_EXCLUDES(iv_Lock);
    bool waitForRun(bool i_mayRetire) TOLV_REQUIRES(iv_Lock);
    bool shouldRetire() const TOLV_REQUIRES(iv_Lock);
    void leave() TOLV_REQUIRES(iv_Lock);
    void retire(Thread* i_self) TOLV_REQUIRES(iv_Lock);
    void runJob() TOLV_REQUIRES(iv_Lock);
    void spawn() TOLV_REQUIRES(iv_Lock);
    void setIdle(std::uint32_t i_idle) TOLV_REQUIRES(iv_Lock);
    bool allLeft() const TOLV_REQUIRES(iv_Lock);
    bool isStopped(std::uint32_t i_run) const TOLV_REQUIRES(iv_Lock);
    void takeRetired(ThreadList& io_threads) TOLV_REQUIRES(iv_Lock);
    void join(const ThreadList& i_threads) TOLV_EXCLUDES(iv_Lock);

    // Declared order is the object layout: append only.
    ThreadList iv_Threads TOLV_GUARDED_BY(iv_Lock);       // owned
    std::uint32_t iv_MinThreads TOLV_GUARDED_BY(iv_Lock); // stay when idle
    std::uint32_t iv_MaxThreads TOLV_GUARDED_BY(iv_Lock);
    std::uint32_t iv_Idle TOLV_GUARDED_BY(iv_Lock);      // not in the job
    std::uint32_t iv_Pending TOLV_GUARDED_BY(iv_Lock);   // runs not yet taken
    std::uint32_t iv_Overflows TOLV_GUARDED_BY(iv_Lock); // all busy at maximum
    bool iv_Shutdown TOLV_GUARDED_BY(iv_Lock);
    std::uint32_t iv_Exited TOLV_GUARDED_BY(iv_Lock); // left since shutdown
    bool iv_RetireIdle TOLV_GUARDED_BY(iv_Lock);
    time_t iv_LastBusy TOLV_GUARDED_BY(iv_Lock);     // iv_Idle went below 2
    time_t iv_LastOverflow TOLV_GUARDED_BY(iv_Lock); // 0: none yet
    ThreadList iv_Retired TOLV_GUARDED_BY(iv_Lock);  // owned, to be joined
    mutable Mutex iv_Lock;
    Condition iv_Work;    // workers wait here for runs or shutdown
    Condition iv_Done;    // Shutdown() waits here for the last to leave
    Function iv_Job;      // constant while there are threads
    Condition iv_Surplus; // callers that found the pool at its maximum
    std::uint32_t iv_Callers TOLV_GUARDED_BY(iv_Lock); // inside JoinPool()
    std::uint32_t iv_Run TOLV_GUARDED_BY(iv_Lock);     // StartUp()s so far
    std::uint32_t iv_Joining TOLV_GUARDED_BY(iv_Lock); // threads inside join()
};

} // namespace tolv

#endif

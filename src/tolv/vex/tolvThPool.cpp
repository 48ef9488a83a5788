#include "tolv/vex/tolvThPool.hpp"

#include "tolv/vex/tolvAssert.hpp"
#include "tolv/vex/tolvThread.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <csignal>

#include <algorithm>

namespace
{

const char* const SOURCE = "tolv/vex/tolvThPool";

// How long a spare worker waits before it looks whether to retire, and how
// long the pool must have been without need for it, in seconds.
constexpr unsigned int RETIRE_SECONDS = 900;

// What tells a worker that the pool spawned from a caller that joined, and from
// one that has left JoinPool() again: the user pointers of their threads.
void* const SPAWNED = reinterpret_cast<void*>(1);
void* const JOINED = nullptr;
void* const DEPARTED = reinterpret_cast<void*>(2);

tolv::TimeValue secondsFromNow(unsigned int i_seconds)
{
    tolv::TimeValue l_deadline(i_seconds);
    l_deadline.ConvertToAbsolute();
    return l_deadline;
}

// An exception that left the job would leave the pool's counts wrong: it ends
// the process here, on a joined caller's thread as well as on a worker.
void run(tolv::Function& io_job) noexcept
{
    io_job();
}

} // namespace

namespace tolv
{

ThreadPool::ThreadPool() :
    iv_Threads(), iv_MinThreads(0), iv_MaxThreads(0), iv_Idle(0), iv_Pending(0),
    iv_Overflows(0), iv_Shutdown(false), iv_Exited(0), iv_RetireIdle(true),
    iv_LastBusy(0), iv_LastOverflow(0), iv_Retired(), iv_Lock(), iv_Work(),
    iv_Done(), iv_Job(), iv_Surplus(), iv_Callers(0), iv_Run(0), iv_Joining(0)
{
}

ThreadPool::~ThreadPool()
{
    stop();
}

// The destructor's part that may end the process.
void ThreadPool::stop()
{
    if (Shutdown(60))
    {
        assertFailed("false == Shutdown( 60 )", SOURCE, 85,
                     "tolv::ThreadPool::~ThreadPool()");
    }
}

bool ThreadPool::StartUp(unsigned int i_min, unsigned int i_max, Function i_job,
                         bool i_retireIdle)
{
    const MutexLock l_lock(iv_Lock);
    if (!iv_Threads.empty() || (iv_Shutdown && iv_Callers != 0))
    {
        return false;
    }
    iv_MinThreads = i_min;
    iv_MaxThreads = i_max;
    iv_Pending = 0;
    iv_Overflows = 0;
    iv_Shutdown = false;
    iv_Exited = 0;
    iv_Job = i_job;
    iv_RetireIdle = i_retireIdle;
    ++iv_Run;
    iv_LastBusy = 0;
    iv_LastOverflow = 0;
    setIdle(i_min);
    for (unsigned int l_count = 0; l_count != i_min; ++l_count)
    {
        spawn();
    }
    return true;
}

void ThreadPool::Dispatch()
{
    if (request())
    {
        reap();
    }
}

unsigned int ThreadPool::getPoolDepth() const
{
    const MutexLock l_lock(iv_Lock);
    return static_cast<unsigned int>(iv_Threads.size());
}

bool ThreadPool::Shutdown(unsigned int i_seconds)
{
    bool l_timedOut = false;
    ThreadList l_stopped;
    {
        const MutexLock l_lock(iv_Lock);
        if (!iv_Threads.empty() || iv_Callers != 0 || iv_Joining != 0)
        {
            iv_Shutdown = true;
            iv_Work.NotifyAll();
            iv_Surplus.NotifyAll();
            const std::uint32_t l_run = iv_Run;
            const TimeValue l_deadline = secondsFromNow(i_seconds);
            while (!isStopped(l_run) && !l_timedOut)
            {
                l_timedOut = iv_Done.TimedWait(iv_Lock, l_deadline);
            }
            // The last one may have left between the time-out and the lock.
            l_timedOut = !isStopped(l_run);
            // The wait lets other threads change iv_Run.
            // cppcheck-suppress knownConditionTrueFalse
            if (!l_timedOut && iv_Run == l_run)
            {
                l_stopped.swap(iv_Threads);
            }
        }
        takeRetired(l_stopped);
    }
    join(l_stopped);
    return l_timedOut;
}

void ThreadPool::JoinPool()
{
    const MutexLock l_lock(iv_Lock);
    if (iv_Shutdown)
    {
        return;
    }
    ++iv_Callers;
    if (iv_Threads.size() < iv_MaxThreads)
    {
        Thread* l_self = new Thread;
        l_self->setUserPtr(JOINED);
        iv_Threads.push_back(l_self);
        setIdle(iv_Idle + 1);
        iv_Lock.Unlock();
        // iv_Callers keeps the object until this thread is back.
        l_self->Start(FunctionRef<ThreadPool>(this, &ThreadPool::workerLoop));
        iv_Lock.Lock();
        l_self->setUserPtr(DEPARTED);
    }
    else
    {
        // Not on iv_Work: a caller that takes no runs would swallow wake-ups.
        // cppcheck-suppress knownConditionTrueFalse ; others set it meanwhile
        while (!iv_Shutdown)
        {
            iv_Surplus.Wait(iv_Lock);
        }
    }
    --iv_Callers;
    if (allLeft())
    {
        iv_Done.NotifyAll();
    }
}

// Asks for one run. Returns true when there are retired threads to reap().
bool ThreadPool::request()
{
    const MutexLock l_lock(iv_Lock);
    ++iv_Pending;
    if (iv_Shutdown)
    {
        return false;
    }
    if (iv_Idle >= iv_Pending)
    {
        iv_Work.NotifyOne();
    }
    else if (iv_Threads.size() < iv_MaxThreads)
    {
        // The new worker takes the run itself: nobody is woken.
        spawn();
        setIdle(iv_Idle + 1);
    }
    else
    {
        ++iv_Overflows;
        iv_LastOverflow = time(nullptr);
    }
    return !iv_Retired.empty();
}

void ThreadPool::reap()
{
    ThreadList l_retired;
    {
        const MutexLock l_lock(iv_Lock);
        takeRetired(l_retired);
    }
    join(l_retired);
}

// Returns what the last pthread_kill() returned, -1 without threads.
int ThreadPool::signalAll(int i_signal)
{
    const MutexLock l_lock(iv_Lock);
    int l_urc = -1;
    for (const Thread* l_thread : iv_Threads)
    {
        // A caller that has left may have ended: its thread is not the pool's.
        if (l_thread->getUserPtr() != DEPARTED)
        {
            l_urc = pthread_kill(l_thread->getTid(), i_signal);
        }
    }
    return l_urc;
}

void ThreadPool::workerLoop()
{
    const MutexLock l_lock(iv_Lock);
    Thread* const l_self = Thread::current();
    const bool l_mayRetire = iv_RetireIdle && l_self->getUserPtr() == SPAWNED;
    for (;;)
    {
        const bool l_retiring = waitForRun(l_mayRetire);
        // A shutdown comes before the runs that are still pending.
        if (iv_Shutdown)
        {
            leave();
            return;
        }
        if (l_retiring)
        {
            retire(l_self);
            return;
        }
        runJob();
    }
}

// Returns true when the worker is to retire, false when there is a run to take
// or a shutdown.
bool ThreadPool::waitForRun(bool i_mayRetire)
{
    while (!iv_Shutdown && iv_Pending == 0)
    {
        if (!i_mayRetire)
        {
            iv_Work.Wait(iv_Lock);
        }
        else if (!shouldRetire())
        {
            iv_Work.TimedWait(iv_Lock, secondsFromNow(RETIRE_SECONDS));
        }
        else
        {
            return true;
        }
    }
    return false;
}

bool ThreadPool::shouldRetire() const
{
    const time_t l_now = time(nullptr);
    return iv_Threads.size() > iv_MinThreads && iv_Idle > 1 &&
           difftime(l_now, iv_LastOverflow) > RETIRE_SECONDS &&
           difftime(l_now, iv_LastBusy) > RETIRE_SECONDS;
}

void ThreadPool::leave()
{
    ++iv_Exited;
    if (allLeft())
    {
        iv_Done.NotifyAll();
    }
}

void ThreadPool::retire(Thread* i_self)
{
    setIdle(iv_Idle - 1);
    iv_Threads.erase(std::find(iv_Threads.begin(), iv_Threads.end(), i_self));
    iv_Retired.push_back(i_self);
}

void ThreadPool::runJob()
{
    --iv_Pending;
    setIdle(iv_Idle - 1);
    iv_Lock.Unlock();
    run(iv_Job);
    iv_Lock.Lock();
    setIdle(iv_Idle + 1);
}

void ThreadPool::spawn()
{
    Thread* l_worker =
        new Thread(FunctionRef<ThreadPool>(this, &ThreadPool::workerLoop));
    l_worker->setUserPtr(SPAWNED);
    iv_Threads.push_back(l_worker);
    l_worker->Start();
}

void ThreadPool::setIdle(std::uint32_t i_idle)
{
    iv_Idle = i_idle;
    if (i_idle < 2)
    {
        iv_LastBusy = time(nullptr);
    }
}

bool ThreadPool::allLeft() const
{
    return iv_Exited >= iv_Threads.size() && iv_Callers == 0;
}

// A StartUp() that began the next run was let in because run i_run had been
// stopped, maybe by another Shutdown().
bool ThreadPool::isStopped(std::uint32_t i_run) const
{
    return (allLeft() || iv_Run != i_run) && iv_Joining == 0;
}

// Whoever takes threads has to join() them.
void ThreadPool::takeRetired(ThreadList& io_threads)
{
    io_threads.insert(io_threads.end(), iv_Retired.begin(), iv_Retired.end());
    iv_Retired.clear();
    if (!io_threads.empty())
    {
        ++iv_Joining;
    }
}

// Without the lock: what a thread does last, in the destructors of its
// thread-local objects, may use the pool.
void ThreadPool::join(const ThreadList& i_threads)
{
    if (i_threads.empty())
    {
        return;
    }
    for (Thread* l_thread : i_threads)
    {
        delete l_thread;
    }
    const MutexLock l_lock(iv_Lock);
    --iv_Joining;
    iv_Done.NotifyAll();
}

} // namespace tolv

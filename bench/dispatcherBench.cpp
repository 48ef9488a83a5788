// What an event costs when one of many descriptors is busy, who is served when
// all of them are, and what a tick costs when there are many timers.
#include "tolv/vex/tolvDispatcher.hpp"

#include <benchmark/benchmark.h>

#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace
{

constexpr int CHUNK = 256; // events of one measurement

// What all threads of the process have spent, in seconds: the one that
// measures sleeps meanwhile. Other work of the machine does not count.
double processorTime()
{
    timespec l_now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &l_now);
    return static_cast<double>(l_now.tv_sec) +
           static_cast<double>(l_now.tv_nsec) * 1e-9;
}

// Counts a chunk of events and times it: from the first to the last but one.
class Meter
{
  public:
    // Called for each event. Returns whether it is the last one of the chunk,
    // which the caller has to finish().
    bool count()
    {
        if (iv_Count == 0)
        {
            iv_Begin = processorTime();
        }
        ++iv_Count;
        return iv_Count > CHUNK;
    }

    void finish()
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        iv_End = processorTime();
        iv_Count = 0;
        iv_Finished = true;
        iv_Done.notify_one();
    }

    // Returns what one chunk took, in seconds.
    double wait()
    {
        std::unique_lock<std::mutex> l_lock(iv_Lock);
        iv_Done.wait(l_lock, [this] { return iv_Finished; });
        iv_Finished = false;
        return iv_End - iv_Begin;
    }

  private:
    std::mutex iv_Lock;
    std::condition_variable iv_Done;
    bool iv_Finished = false;
    int iv_Count = 0; // no two events of a source at once
    double iv_Begin = 0;
    double iv_End = 0;
};

// A descriptor that a handler can be called for.
class Event
{
  public:
    Event() : iv_Handle(eventfd(0, EFD_CLOEXEC))
    {
        check(iv_Handle >= 0);
    }

    ~Event()
    {
        close(iv_Handle);
    }

    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    tolv::OS_HANDLE handle() const
    {
        return iv_Handle;
    }

    // Readable from now on.
    void start() const
    {
        check(eventfd_write(iv_Handle, 1) == 0);
    }

    void stop() const
    {
        eventfd_t l_value = 0;
        check(eventfd_read(iv_Handle, &l_value) == 0);
    }

  private:
    static void check(bool i_done)
    {
        if (!i_done)
        {
            std::abort();
        }
    }

    int iv_Handle;
};

class IdleHandler : public tolv::EventHandler
{
  public:
    using EventHandler::EventHandler;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        return ACTION_CONTINUE;
    }
};

// Takes a chunk of events after each start(), or of ticks after each
// AddTimer(). Made with new; the dispatcher destroys it after a retire().
class BusyHandler : public tolv::EventHandler
{
  public:
    BusyHandler(tolv::Dispatcher& io_dispatcher, const Event& i_event,
                Meter& io_meter) :
        EventHandler(io_dispatcher),
        iv_Event(i_event), iv_Meter(io_meter), iv_Retiring(false)
    {
    }

    ~BusyHandler() override
    {
        iv_Meter.finish();
    }

    BusyHandler(const BusyHandler&) = delete;
    BusyHandler& operator=(const BusyHandler&) = delete;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        if (iv_Retiring)
        {
            iv_Event.stop();
            return ACTION_REMOVE;
        }
        if (iv_Meter.count())
        {
            iv_Event.stop(); // before the next start()
            iv_Meter.finish();
        }
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t /*i_timer*/, EVENT /*i_event*/) override
    {
        if (iv_Retiring)
        {
            return ACTION_REMOVE;
        }
        if (iv_Meter.count())
        {
            iv_Meter.finish();
            return ACTION_UNREGISTER;
        }
        return ACTION_CONTINUE;
    }

    // The next callback is the last one.
    void retire()
    {
        iv_Retiring = true;
    }

  private:
    const Event& iv_Event;
    Meter& iv_Meter;
    std::atomic<bool> iv_Retiring;
};

// What lives for the whole run. Idle handlers are never called, so they may
// serve both dispatchers.
class Rig
{
  public:
    static Rig& instance()
    {
        static Rig s_rig;
        return s_rig;
    }

    tolv::Dispatcher& single()
    {
        return iv_Single;
    }

    tolv::Dispatcher& threads()
    {
        return iv_Threads;
    }

    Event& event(std::int64_t i_index)
    {
        return iv_Events[static_cast<std::size_t>(i_index)];
    }

    IdleHandler& idle(std::int64_t i_index)
    {
        return *iv_Idle[static_cast<std::size_t>(i_index)];
    }

  private:
    static constexpr std::size_t MOST = 900;

    Rig() :
        iv_None(true), iv_Events(MOST), iv_Idle(), iv_Single(1, 1, false),
        iv_Threads(4, 4, false)
    {
        while (iv_Idle.size() < MOST)
        {
            iv_Idle.push_back(std::make_unique<IdleHandler>(iv_None));
        }
    }

    tolv::Dispatcher iv_None;
    std::vector<Event> iv_Events;
    std::vector<std::unique_ptr<IdleHandler>> iv_Idle;
    tolv::Dispatcher iv_Single; // these two go first
    tolv::Dispatcher iv_Threads;
};

// The kernel's part of an event: the wait for it. The last descriptor is the
// busy one, here and below.
void selectAlone(benchmark::State& io_state)
{
    Rig& l_rig = Rig::instance();
    const Event& l_busy = l_rig.event(io_state.range(0) - 1);
    fd_set l_watched = {};
    for (std::int64_t l_index = 0; l_index != io_state.range(0); ++l_index)
    {
        FD_SET(l_rig.event(l_index).handle(), &l_watched);
    }
    l_busy.start();
    for ([[maybe_unused]] const auto l_iteration : io_state)
    {
        fd_set l_ready = l_watched;
        if (select(l_busy.handle() + 1, &l_ready, nullptr, nullptr, nullptr) !=
            1)
        {
            io_state.SkipWithError("select");
        }
    }
    l_busy.stop();
}

double serveChunk(const Event& i_busy, Meter& io_meter)
{
    i_busy.start();
    return io_meter.wait();
}

void serveEvents(benchmark::State& io_state, tolv::Dispatcher& io_dispatcher)
{
    Rig& l_rig = Rig::instance();
    const std::int64_t l_last = io_state.range(0) - 1;
    const Event& l_event = l_rig.event(l_last);
    Meter l_meter;
    auto* const l_busy = new BusyHandler(io_dispatcher, l_event, l_meter);
    for (std::int64_t l_index = 0; l_index != l_last; ++l_index)
    {
        io_dispatcher.Register(l_rig.event(l_index).handle(),
                               l_rig.idle(l_index),
                               tolv::EventHandler::EVENT_READ);
    }
    io_dispatcher.Register(l_event.handle(), *l_busy,
                           tolv::EventHandler::EVENT_READ);
    // The registrations' wake-ups go with events that are not measured.
    serveChunk(l_event, l_meter);
    serveChunk(l_event, l_meter);
    while (io_state.KeepRunningBatch(CHUNK))
    {
        io_state.SetIterationTime(serveChunk(l_event, l_meter));
    }
    l_busy->retire();
    serveChunk(l_event, l_meter);
    for (std::int64_t l_index = 0; l_index != l_last; ++l_index)
    {
        io_dispatcher.Unregister(l_rig.event(l_index).handle());
    }
}

void event(benchmark::State& io_state)
{
    serveEvents(io_state, Rig::instance().single());
}

void eventThreads(benchmark::State& io_state)
{
    serveEvents(io_state, Rig::instance().threads());
}

// What the handlers of one measurement count together.
struct Tally
{
    std::atomic<bool> iv_Counts{false};
    std::atomic<bool> iv_Ends{false};
    std::atomic<std::int64_t> iv_Events{0};
    std::atomic<std::int64_t> iv_Live{0}; // handlers
};

// Its descriptor is always readable. Destroyed by the dispatcher at the end.
class ReadyHandler : public tolv::EventHandler
{
  public:
    ReadyHandler(tolv::Dispatcher& io_dispatcher, Tally& io_tally,
                 std::atomic<std::int64_t>& io_calls,
                 std::chrono::microseconds i_callback) :
        EventHandler(io_dispatcher),
        iv_Tally(io_tally), iv_Calls(io_calls), iv_Callback(i_callback)
    {
        ++iv_Tally.iv_Live;
    }

    ~ReadyHandler() override
    {
        --iv_Tally.iv_Live;
    }

    ReadyHandler(const ReadyHandler&) = delete;
    ReadyHandler& operator=(const ReadyHandler&) = delete;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        if (iv_Tally.iv_Ends)
        {
            return ACTION_REMOVE;
        }
        if (iv_Callback.count() != 0)
        {
            std::this_thread::sleep_for(iv_Callback); // as for a disk
        }
        if (iv_Tally.iv_Counts)
        {
            ++iv_Calls;
            ++iv_Tally.iv_Events;
        }
        return ACTION_CONTINUE;
    }

  private:
    Tally& iv_Tally;
    std::atomic<std::int64_t>& iv_Calls;
    const std::chrono::microseconds iv_Callback;
};

// Waits for what other threads do, without taking much of their time.
template <class CONDITION>
void await(CONDITION i_condition)
{
    while (!i_condition())
    {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

// Who is served while range(0) descriptors are ready all the time and each
// callback waits range(1) microseconds.
void serveReady(benchmark::State& io_state, tolv::Dispatcher& io_dispatcher)
{
    Rig& l_rig = Rig::instance();
    const auto l_count = static_cast<std::size_t>(io_state.range(0));
    std::vector<std::atomic<std::int64_t>> l_calls(l_count);
    Tally l_tally;
    for (std::size_t l_index = 0; l_index != l_count; ++l_index)
    {
        const Event& l_event = l_rig.event(static_cast<std::int64_t>(l_index));
        l_event.start();
        io_dispatcher.Register(
            l_event.handle(),
            *new ReadyHandler(io_dispatcher, l_tally, l_calls[l_index],
                              std::chrono::microseconds(io_state.range(1))),
            tolv::EventHandler::EVENT_READ);
    }
    l_tally.iv_Counts = true;
    std::int64_t l_target = 0;
    while (io_state.KeepRunningBatch(CHUNK))
    {
        l_target += CHUNK;
        await([&] { return l_tally.iv_Events >= l_target; });
    }
    l_tally.iv_Counts = false;
    std::int64_t l_served = 0;
    for (const std::atomic<std::int64_t>& l_own : l_calls)
    {
        l_served += l_own != 0 ? 1 : 0;
    }
    io_state.counters["served"] = static_cast<double>(l_served);
    l_tally.iv_Ends = true;
    await([&] { return l_tally.iv_Live == 0; });
    for (std::size_t l_index = 0; l_index != l_count; ++l_index)
    {
        l_rig.event(static_cast<std::int64_t>(l_index)).stop();
    }
}

void ready(benchmark::State& io_state)
{
    serveReady(io_state, Rig::instance().single());
}

void readyThreads(benchmark::State& io_state)
{
    serveReady(io_state, Rig::instance().threads());
}

double tickChunk(tolv::EventHandler& io_busy, Meter& io_meter)
{
    tolv::TimeValue l_none;
    Rig::instance().single().AddTimer(io_busy, l_none);
    return io_meter.wait();
}

void tick(benchmark::State& io_state)
{
    Rig& l_rig = Rig::instance();
    Meter l_meter;
    auto* const l_busy =
        new BusyHandler(l_rig.single(), l_rig.event(0), l_meter);
    for (std::int64_t l_count = 1; l_count < io_state.range(0); ++l_count)
    {
        tolv::TimeValue l_span(
            static_cast<unsigned int>(1000000 + l_count * 7919 % 10000));
        l_rig.single().AddTimer(*l_busy, l_span);
    }
    while (io_state.KeepRunningBatch(CHUNK))
    {
        io_state.SetIterationTime(tickChunk(*l_busy, l_meter));
    }
    l_busy->retire();
    tickChunk(*l_busy, l_meter);
}

BENCHMARK(selectAlone)->Arg(1)->Arg(100)->Arg(900);
BENCHMARK(event)->Arg(1)->Arg(100)->Arg(900)->UseManualTime();
BENCHMARK(eventThreads)->Arg(1)->Arg(100)->Arg(900)->UseManualTime();
BENCHMARK(ready)->Args({100, 0})->Args({100, 1000})->UseRealTime();
BENCHMARK(readyThreads)->Args({100, 0})->Args({100, 1000})->UseRealTime();
BENCHMARK(tick)->Arg(100)->Arg(10000)->Arg(100000)->UseManualTime();

} // namespace

// What an event costs when one of many descriptors is busy, and a tick when
// there are many timers.
#include "tolv/vex/tolvDispatcher.hpp"

#include <benchmark/benchmark.h>

#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

namespace
{

constexpr int CHUNK = 256; // events of one measurement

typedef std::chrono::steady_clock Clock;

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
            iv_Begin = Clock::now();
        }
        ++iv_Count;
        return iv_Count > CHUNK;
    }

    void finish()
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        iv_End = Clock::now();
        iv_Count = 0;
        iv_Finished = true;
        iv_Done.notify_one();
    }

    // Returns how long one chunk took, in seconds.
    double wait()
    {
        std::unique_lock<std::mutex> l_lock(iv_Lock);
        iv_Done.wait(l_lock, [this] { return iv_Finished; });
        iv_Finished = false;
        return std::chrono::duration<double>(iv_End - iv_Begin).count();
    }

  private:
    std::mutex iv_Lock;
    std::condition_variable iv_Done;
    bool iv_Finished = false;
    int iv_Count = 0; // no two events of a source at once
    Clock::time_point iv_Begin;
    Clock::time_point iv_End;
};

// A descriptor that stays readable until its handler has had a chunk of
// events, and a timer that is always due for as long.
class Source : public tolv::EventHandler
{
  public:
    explicit Source(tolv::Dispatcher& io_dispatcher) :
        EventHandler(io_dispatcher), iv_Event(eventfd(0, EFD_CLOEXEC))
    {
        if (iv_Event < 0)
        {
            std::abort();
        }
    }

    ~Source() override
    {
        close(iv_Event);
    }

    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE /*i_handle*/, EVENT i_event) override
    {
        if (i_event == EVENT_READ && iv_Meter.count())
        {
            stop(); // before the next start()
            iv_Meter.finish();
        }
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t /*i_timer*/, EVENT i_event) override
    {
        if (i_event == EVENT_TIMER && iv_Meter.count())
        {
            iv_Meter.finish();
            return ACTION_UNREGISTER;
        }
        return ACTION_CONTINUE;
    }

    tolv::OS_HANDLE handle() const
    {
        return iv_Event;
    }

    void start() const
    {
        if (eventfd_write(iv_Event, 1) != 0)
        {
            std::abort();
        }
    }

    void stop() const
    {
        eventfd_t l_value = 0;
        if (eventfd_read(iv_Event, &l_value) != 0)
        {
            std::abort();
        }
    }

    double wait()
    {
        return iv_Meter.wait();
    }

  private:
    int iv_Event;
    Meter iv_Meter;
};

// The dispatchers and sources of the whole run: a source is registered for one
// measurement, with one dispatcher.
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

    // The last of so many.
    Source& source(std::int64_t i_count)
    {
        while (static_cast<std::int64_t>(iv_Sources.size()) < i_count)
        {
            iv_Sources.push_back(std::make_unique<Source>(iv_Single));
        }
        return *iv_Sources[static_cast<std::size_t>(i_count - 1)];
    }

  private:
    Rig() : iv_Sources(), iv_Single(1, 1, false), iv_Threads(4, 4, false) {}

    std::vector<std::unique_ptr<Source>> iv_Sources;
    tolv::Dispatcher iv_Single; // these two go first
    tolv::Dispatcher iv_Threads;
};

// The kernel's part of an event: the wait for it.
void selectAlone(benchmark::State& io_state)
{
    Rig& l_rig = Rig::instance();
    const Source& l_busy = l_rig.source(io_state.range(0));
    fd_set l_watched = {};
    int l_highest = 0;
    for (std::int64_t l_count = 1; l_count <= io_state.range(0); ++l_count)
    {
        const int l_handle = l_rig.source(l_count).handle();
        FD_SET(l_handle, &l_watched);
        l_highest = std::max(l_highest, l_handle);
    }
    l_busy.start();
    for ([[maybe_unused]] const auto l_iteration : io_state)
    {
        fd_set l_ready = l_watched;
        if (select(l_highest + 1, &l_ready, nullptr, nullptr, nullptr) != 1)
        {
            io_state.SkipWithError("select");
        }
    }
    l_busy.stop();
}

void serveEvents(benchmark::State& io_state, tolv::Dispatcher& io_dispatcher)
{
    Rig& l_rig = Rig::instance();
    Source& l_busy = l_rig.source(io_state.range(0));
    for (std::int64_t l_count = 1; l_count <= io_state.range(0); ++l_count)
    {
        Source& l_source = l_rig.source(l_count);
        io_dispatcher.Register(l_source.handle(), l_source,
                               tolv::EventHandler::EVENT_READ);
    }
    // The registrations' wake-ups go with events that are not measured.
    for (int l_count = 0; l_count != 2; ++l_count)
    {
        l_busy.start();
        l_busy.wait();
    }
    while (io_state.KeepRunningBatch(CHUNK))
    {
        l_busy.start();
        io_state.SetIterationTime(l_busy.wait());
    }
    for (std::int64_t l_count = 1; l_count <= io_state.range(0); ++l_count)
    {
        io_dispatcher.Unregister(l_rig.source(l_count).handle());
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

void tick(benchmark::State& io_state)
{
    Rig& l_rig = Rig::instance();
    Source& l_busy = l_rig.source(1);
    std::vector<tolv::Timer_t> l_timers;
    for (std::int64_t l_count = 1; l_count < io_state.range(0); ++l_count)
    {
        tolv::TimeValue l_span(
            static_cast<unsigned int>(1000000 + l_count * 7919 % 10000));
        l_timers.push_back(l_rig.single().AddTimer(l_busy, l_span));
    }
    while (io_state.KeepRunningBatch(CHUNK))
    {
        tolv::TimeValue l_none;
        l_rig.single().AddTimer(l_busy, l_none);
        io_state.SetIterationTime(l_busy.wait());
    }
    for (const tolv::Timer_t l_timer : l_timers)
    {
        l_rig.single().CancelTimer(l_timer);
    }
}

BENCHMARK(selectAlone)->Arg(1)->Arg(100)->Arg(900);
BENCHMARK(event)->Arg(1)->Arg(100)->Arg(900)->UseManualTime();
BENCHMARK(eventThreads)->Arg(1)->Arg(100)->Arg(900)->UseManualTime();
BENCHMARK(tick)->Arg(100)->Arg(10000)->Arg(100000)->UseManualTime();

} // namespace

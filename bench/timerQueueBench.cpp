// What one operation on one of many timers costs, without the wake-up that the
// dispatcher sends with it.
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvTimerQueue.hpp"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace
{

constexpr int CHUNK = 64; // operations between two looks at the clock

const tolv::TimeValue NOW(1000); // NOLINT(cert-err58-cpp): throws nothing

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

// A queue of timers with random spans, the same in every run.
class Queue
{
  public:
    explicit Queue(std::int64_t i_count)
    {
        while (static_cast<std::int64_t>(iv_Ids.size()) < i_count)
        {
            add();
        }
    }

    void add()
    {
        iv_Ids.push_back(++iv_LastId);
        iv_Queue.add(iv_LastId, iv_Handler, span(), NOW);
    }

    void update()
    {
        iv_Queue.update(*iv_Queue.find(iv_Ids[any()]), span(), NOW);
    }

    void cancel()
    {
        std::swap(iv_Ids[any()], iv_Ids.back());
        iv_Queue.cancel(*iv_Queue.find(iv_Ids.back()));
        iv_Ids.pop_back();
    }

  private:
    tolv::TimeValue span()
    {
        return tolv::TimeValue(
            static_cast<std::uint32_t>(iv_Random() % 3600),
            static_cast<std::uint32_t>(iv_Random() % 1000000));
    }

    std::size_t any()
    {
        return iv_Random() % iv_Ids.size();
    }

    tolv::Dispatcher iv_None{true};
    IdleHandler iv_Handler{iv_None};
    tolv::TimerQueue iv_Queue;
    std::vector<tolv::Timer_t> iv_Ids;
    tolv::Timer_t iv_LastId = 0;
    std::mt19937 iv_Random{1}; // NOLINT(cert-msc32-c,cert-msc51-cpp)
};

// The number of timers stays within a chunk of what was asked for.
void addTimer(benchmark::State& io_state)
{
    Queue l_queue(io_state.range(0));
    while (io_state.KeepRunningBatch(CHUNK))
    {
        for (int l_count = 0; l_count != CHUNK; ++l_count)
        {
            l_queue.add();
        }
        io_state.PauseTiming();
        for (int l_count = 0; l_count != CHUNK; ++l_count)
        {
            l_queue.cancel();
        }
        io_state.ResumeTiming();
    }
}

void cancelTimer(benchmark::State& io_state)
{
    Queue l_queue(io_state.range(0));
    while (io_state.KeepRunningBatch(CHUNK))
    {
        io_state.PauseTiming();
        for (int l_count = 0; l_count != CHUNK; ++l_count)
        {
            l_queue.add();
        }
        io_state.ResumeTiming();
        for (int l_count = 0; l_count != CHUNK; ++l_count)
        {
            l_queue.cancel();
        }
    }
}

void updateTimer(benchmark::State& io_state)
{
    Queue l_queue(io_state.range(0));
    for ([[maybe_unused]] const auto l_iteration : io_state)
    {
        l_queue.update();
    }
}

BENCHMARK(addTimer)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(updateTimer)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(cancelTimer)->Arg(100)->Arg(10000)->Arg(100000);

} // namespace

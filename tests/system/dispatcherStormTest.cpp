#include "support/countingHandler.hpp"
#include "support/fakeSleep.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

// More changes of the tables at once than the wake-up pair has room for.

using namespace tolv;

namespace
{

using ACTION = EventHandler::ACTION;
constexpr ACTION CONTINUE = EventHandler::ACTION_CONTINUE;
constexpr ACTION REMOVE = EventHandler::ACTION_REMOVE;

// The pair holds 278 wake-ups.
constexpr int MANY = 300;

// Descriptors that never become readable.
class QuietHandles
{
  public:
    explicit QuietHandles(int i_count = 40) : iv_Pair(), iv_Handles()
    {
        for (int l_count = 0; l_count != i_count; ++l_count)
        {
            iv_Handles.push_back(dup(iv_Pair.near()));
            EXPECT_LE(0, iv_Handles.back());
        }
    }

    ~QuietHandles()
    {
        for (const OS_HANDLE l_handle : iv_Handles)
        {
            close(l_handle);
        }
    }

    QuietHandles(const QuietHandles&) = delete;
    QuietHandles& operator=(const QuietHandles&) = delete;

    const std::vector<OS_HANDLE>& all() const
    {
        return iv_Handles;
    }

  private:
    const SocketPair iv_Pair;
    std::vector<OS_HANDLE> iv_Handles;
};

// Every operation that changes a table, on descriptors of its own.
void storm(Dispatcher& io_dispatcher, EventHandler& io_handler,
           const QuietHandles& i_handles)
{
    std::vector<Timer_t> l_timers;
    OS_TIMEOUT l_hour(3600);
    for (const OS_HANDLE l_handle : i_handles.all())
    {
        io_dispatcher.Register(l_handle, io_handler, 0);
        l_timers.push_back(io_dispatcher.AddTimer(io_handler, l_hour));
    }
    for (const OS_HANDLE l_handle : i_handles.all())
    {
        io_dispatcher.EnableCallback(l_handle);
    }
    for (const Timer_t l_timer : l_timers)
    {
        io_dispatcher.UpdateTimer(io_handler, l_timer, l_hour);
        io_dispatcher.EnableCallback(l_timer);
        EXPECT_TRUE(io_dispatcher.ExpireTimer(l_timer));
    }
    for (const OS_HANDLE l_handle : i_handles.all())
    {
        io_dispatcher.Unregister(l_handle);
    }
    for (const Timer_t l_timer : l_timers)
    {
        EXPECT_TRUE(io_dispatcher.CancelTimer(l_timer));
    }
}

// The parameter is the number of threads.
class DispatcherStormTest : public testing::TestWithParam<std::uint32_t>
{
  protected:
    DispatcherStormTest()
    {
        fakeSleep::skip();
    }
};

INSTANTIATE_TEST_SUITE_P(Threads, DispatcherStormTest, testing::Values(1U, 4U),
                         testing::PrintToStringParamName());

} // namespace

TEST_P(DispatcherStormTest, StormInACallbackDoesNotBlockIt)
{
    const QuietHandles l_handles(MANY);
    const SocketPair l_pair;
    CountingHandler l_quiet;
    CountingHandler l_handler;
    std::atomic<int> l_storms(0);
    Dispatcher l_dispatcher(GetParam(), GetParam(), false);
    l_handler.iv_OnRead = [&](OS_HANDLE i_handle)
    {
        takeByte(i_handle);
        storm(l_dispatcher, l_quiet, l_handles);
        ++l_storms;
        return CONTINUE;
    };
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    for (int l_storm = 1; l_storm != 4; ++l_storm)
    {
        l_pair.send();
        EXPECT_TRUE(waitFor([&] { return l_storms == l_storm; }));
    }
    EXPECT_EQ(0, l_quiet.iv_Reads);
    EXPECT_EQ(0, l_quiet.iv_Ticks);
}

TEST_P(DispatcherStormTest, StormsOfThreadsAndCallbacksAtOnceLoseNoEvent)
{
    constexpr int STORMS = 4;
    constexpr int ROUNDS = 10;
    const std::vector<QuietHandles> l_outside(STORMS);
    const std::vector<QuietHandles> l_inside(STORMS);
    const std::vector<SocketPair> l_pairs(STORMS);
    std::vector<CountingHandler> l_quiet(STORMS);
    std::vector<CountingHandler> l_handlers(STORMS);
    std::atomic<int> l_storms(0);
    Dispatcher l_dispatcher(GetParam(), GetParam(), false);
    std::vector<std::thread> l_threads;
    for (std::size_t l_index = 0; l_index != STORMS; ++l_index)
    {
        l_handlers[l_index].iv_OnRead = [&, l_index](OS_HANDLE i_handle)
        {
            takeByte(i_handle);
            storm(l_dispatcher, l_quiet[l_index], l_inside[l_index]);
            ++l_storms;
            return CONTINUE;
        };
        l_dispatcher.Register(l_pairs[l_index].near(), l_handlers[l_index], 0);
        l_threads.emplace_back(
            [&, l_index]
            {
                for (int l_round = 0; l_round != ROUNDS; ++l_round)
                {
                    l_pairs[l_index].send();
                    storm(l_dispatcher, l_quiet[l_index], l_outside[l_index]);
                }
            });
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    EXPECT_TRUE(waitFor([&] { return l_storms == STORMS * ROUNDS; }));
}

TEST_P(DispatcherStormTest, HandlersBeyondCountMayAskForRemovalAtTeardown)
{
    const QuietHandles l_handles(MANY);
    std::atomic<int> l_destroyed(0);
    CountingHandler l_stays;
    {
        Dispatcher l_dispatcher(GetParam(), GetParam(), false);
        OS_TIMEOUT l_hour(3600);
        const Timer_t l_timer = l_dispatcher.AddTimer(l_stays, l_hour);
        for (const OS_HANDLE l_handle : l_handles.all())
        {
            CountingHandler* const l_reader = new CountingHandler;
            CountingHandler* const l_ticker = new CountingHandler;
            for (CountingHandler* l_handler : {l_reader, l_ticker})
            {
                l_handler->iv_OnShutdown = [] { return REMOVE; };
                l_handler->iv_OnDestruction = [&, l_handle]
                {
                    l_dispatcher.Unregister(l_handle);
                    l_dispatcher.CancelTimer(l_timer);
                    ++l_destroyed;
                };
            }
            l_dispatcher.Register(l_handle, *l_reader, 0);
            l_dispatcher.AddTimer(*l_ticker, l_hour);
        }
    }
    EXPECT_EQ(2 * MANY, l_destroyed);
}

TEST_P(DispatcherStormTest, HandlersBeyondCountMayAskForRemovalAtOnce)
{
    std::atomic<int> l_destroyed(0);
    Dispatcher l_dispatcher(GetParam(), GetParam(), false);
    OS_TIMEOUT l_atOnce;
    for (int l_count = 0; l_count != MANY; ++l_count)
    {
        CountingHandler* const l_handler = new CountingHandler;
        l_handler->iv_OnTimer = [](Timer_t) { return REMOVE; };
        l_handler->iv_OnDestruction = [&] { ++l_destroyed; };
        l_dispatcher.AddTimer(*l_handler, l_atOnce);
    }
    EXPECT_TRUE(waitFor([&] { return l_destroyed == MANY; }));
}

TEST_P(DispatcherStormTest, TimerWithoutPeriodBlocksNobody)
{
    const SocketPair l_pair;
    CountingHandler l_handler;
    CountingHandler l_timer;
    Dispatcher l_dispatcher(GetParam(), GetParam(), false);
    OS_TIMEOUT l_atOnce;
    const Timer_t l_id = l_dispatcher.AddTimer(l_timer, l_atOnce);
    EXPECT_TRUE(waitFor([&] { return l_timer.iv_Ticks > 4 * MANY; }));
    for (int l_count = 0; l_count != 2 * MANY; ++l_count)
    {
        l_dispatcher.EnableCallback(OS_INVALID);
    }
    l_dispatcher.Register(l_pair.near(), l_handler, 0);
    const int l_ticks = l_timer.iv_Ticks;
    EXPECT_TRUE(waitFor([&] { return l_timer.iv_Ticks > l_ticks + MANY; }));
    EXPECT_TRUE(l_dispatcher.CancelTimer(l_id));
    l_pair.send();
    EXPECT_TRUE(waitFor([&] { return l_handler.iv_Reads == 1; }));
}

TEST_P(DispatcherStormTest, TimerWithoutPeriodDoesNotDelayAShutdown)
{
    CountingHandler l_timer;
    {
        Dispatcher l_dispatcher(GetParam(), GetParam(), false);
        OS_TIMEOUT l_atOnce;
        l_dispatcher.AddTimer(l_timer, l_atOnce);
        EXPECT_TRUE(waitFor([&] { return l_timer.iv_Ticks > 2 * MANY; }));
    }
    EXPECT_EQ(1, l_timer.iv_Shutdowns);
}

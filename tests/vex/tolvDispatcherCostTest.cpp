#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <atomic>
#include <deque>
#include <memory>
#include <new>
#include <vector>

using namespace tolv;

// Kept apart from the other tests of the engine: it replaces operator new.

namespace
{

constexpr std::size_t DESCRIPTORS = 900;
constexpr std::uint32_t EVENTS = 1000;

std::atomic<int> g_allocations(0);

void* allocate(std::size_t i_size)
{
    ++g_allocations;
    void* const l_memory = std::malloc(i_size);
    if (l_memory == nullptr)
    {
        std::abort();
    }
    return l_memory;
}

} // namespace

void* operator new(std::size_t i_size)
{
    return allocate(i_size);
}

void* operator new[](std::size_t i_size)
{
    return allocate(i_size);
}

void operator delete(void* i_memory) noexcept
{
    std::free(i_memory);
}

void operator delete[](void* i_memory) noexcept
{
    std::free(i_memory);
}

void operator delete(void* i_memory, std::size_t /*i_size*/) noexcept
{
    std::free(i_memory);
}

void operator delete[](void* i_memory, std::size_t /*i_size*/) noexcept
{
    std::free(i_memory);
}

namespace
{

// A descriptor that is readable as often as was added.
class Countdown
{
  public:
    Countdown() : iv_Handle(eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)) {}

    ~Countdown()
    {
        close(iv_Handle);
    }

    Countdown(const Countdown&) = delete;
    Countdown& operator=(const Countdown&) = delete;

    OS_HANDLE handle() const
    {
        return iv_Handle;
    }

    void add(std::uint64_t i_count) const
    {
        EXPECT_EQ(static_cast<ssize_t>(sizeof(i_count)),
                  write(iv_Handle, &i_count, sizeof(i_count)));
    }

  private:
    const int iv_Handle;
};

// Takes one at a time and allocates nothing for it.
struct CountingHandler : EventHandler
{
    using EventHandler::EventHandler;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override
    {
        if (i_event == EVENT_READ)
        {
            std::uint64_t l_count = 0;
            EXPECT_EQ(static_cast<ssize_t>(sizeof(l_count)),
                      ::read(i_handle, &l_count, sizeof(l_count)));
            ++iv_Events;
        }
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(Timer_t /*i_timer*/, EVENT i_event) override
    {
        iv_Ticks += i_event == EVENT_TIMER ? 1 : 0;
        return ACTION_CONTINUE;
    }

    std::atomic<std::uint32_t> iv_Events{0};
    std::atomic<std::uint32_t> iv_Ticks{0};
};

class DispatcherCostTest : public EngineTest
{
  protected:
    void SetUp() override
    {
        rlimit l_limit = {};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &l_limit));
        if (l_limit.rlim_max < 1024)
        {
            GTEST_SKIP() << "no more than " << l_limit.rlim_max
                         << " descriptors";
        }
        l_limit.rlim_cur = 1024;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &l_limit));
    }

    // One handler for each descriptor, all idle.
    void registerAll()
    {
        iv_Idle.reserve(DESCRIPTORS);
        for (std::size_t l_count = 0; l_count != DESCRIPTORS; ++l_count)
        {
            const Countdown& l_handle = iv_Handles.emplace_back();
            iv_Idle.push_back(std::make_unique<CountingHandler>(iv_Unused));
            iv_Engine->Register(l_handle.handle(), *iv_Idle.back(), 0);
        }
    }

    bool serve(std::size_t i_index)
    {
        iv_Handles[i_index].add(EVENTS);
        return waitFor([&] { return iv_Idle[i_index]->iv_Events == EVENTS; }) &&
               loopCalls::waitForIdle();
    }

    void expectTicksAllocateNothing()
    {
        CountingHandler l_handler(iv_Unused);
        addTimer(l_handler, 0, 1);
        EXPECT_TRUE(waitFor([&] { return l_handler.iv_Ticks > EVENTS; }));
        const int l_allocations = g_allocations;
        const std::uint32_t l_ticks = l_handler.iv_Ticks;
        EXPECT_TRUE(
            waitFor([&] { return l_handler.iv_Ticks > l_ticks + EVENTS; }));
        EXPECT_EQ(l_allocations, g_allocations);
        finish(); // before the handler goes
    }

    std::deque<Countdown> iv_Handles;
    std::vector<std::unique_ptr<CountingHandler>> iv_Idle;
};

} // namespace

TEST_F(DispatcherCostTest, EventAmongHundredsOfDescriptorsCostsOneSelectOnly)
{
    start();
    registerAll();
    ASSERT_TRUE(loopCalls::waitForIdle());
    for (const std::size_t l_index :
         {std::size_t(0), DESCRIPTORS / 2, DESCRIPTORS - 1})
    {
        const int l_allocations = g_allocations;
        const int l_waits = loopCalls::calls(loopCalls::SELECT);
        const int l_sent = loopCalls::calls(loopCalls::SEND);
        const int l_received = loopCalls::calls(loopCalls::RECV);
        ASSERT_TRUE(serve(l_index));
        EXPECT_EQ(l_allocations, g_allocations);
        EXPECT_EQ(l_waits + static_cast<int>(EVENTS),
                  loopCalls::calls(loopCalls::SELECT));
        EXPECT_EQ(l_sent, loopCalls::calls(loopCalls::SEND));
        EXPECT_EQ(l_received, loopCalls::calls(loopCalls::RECV));
    }
    finish();
}

TEST_F(DispatcherCostTest, AllDescriptorsReadyAtOnceAreServedInOnePass)
{
    start();
    registerAll();
    hold();
    for (const Countdown& l_handle : iv_Handles)
    {
        l_handle.add(1);
    }
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    const int l_allocations = g_allocations;
    loopCalls::letGo();
    ASSERT_TRUE(waitFor([this] { return iv_Idle.back()->iv_Events == 1; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    for (const auto& l_handler : iv_Idle)
    {
        EXPECT_EQ(1U, l_handler->iv_Events);
    }
    EXPECT_EQ(l_waits + 1, loopCalls::calls(loopCalls::SELECT));
    EXPECT_EQ(l_allocations, g_allocations);
    finish();
}

TEST_F(DispatcherCostTest, EventWithAnIdleTimerAllocatesNothing)
{
    start();
    registerAll();
    const int l_before = g_allocations;
    addTimer(*iv_Idle[0], 1000);
    ASSERT_TRUE(loopCalls::waitForIdle());
    const int l_allocations = g_allocations;
    EXPECT_LT(l_before, l_allocations); // a new timer, so they are counted
    const int l_sent = loopCalls::calls(loopCalls::SEND);
    ASSERT_TRUE(serve(1));
    EXPECT_EQ(l_allocations, g_allocations);
    EXPECT_EQ(l_sent, loopCalls::calls(loopCalls::SEND));
    finish();
}

TEST_F(DispatcherCostTest, TickAllocatesNothing)
{
    start();
    expectTicksAllocateNothing();
}

TEST_F(DispatcherCostTest, TickServedByTwoThreadsAllocatesNothing)
{
    start(2, 2);
    expectTicksAllocateNothing();
}

// The byte that puts the descriptor back costs a wait of its own.
TEST_F(DispatcherCostTest, EventServedByTwoThreadsCostsOneWakeUpMore)
{
    start(2, 2);
    registerAll();
    ASSERT_TRUE(loopCalls::waitForIdle());
    const int l_allocations = g_allocations;
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    const int l_sent = loopCalls::calls(loopCalls::SEND);
    const int l_received = loopCalls::calls(loopCalls::RECV);
    ASSERT_TRUE(serve(DESCRIPTORS / 2));
    EXPECT_EQ(l_allocations, g_allocations);
    constexpr int COUNT = static_cast<int>(EVENTS);
    EXPECT_EQ(l_waits + 2 * COUNT, loopCalls::calls(loopCalls::SELECT));
    EXPECT_EQ(l_sent + COUNT, loopCalls::calls(loopCalls::SEND));
    EXPECT_EQ(l_received + COUNT, loopCalls::calls(loopCalls::RECV));
    finish();
}

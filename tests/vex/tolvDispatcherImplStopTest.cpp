// The teardown while a thread is about to wait: the pair is closed by then.
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include <gtest/gtest.h>
#include <sys/select.h>

#include <chrono>
#include <future>
#include <memory>

namespace
{

constexpr std::chrono::seconds LIMIT(20);

std::promise<void> g_preparing; // a thread has its set and begins to wait
std::promise<void> g_tornDown;

// Holds the only wait until the engine is torn down.
void holdTheWait()
{
    g_preparing.set_value();
    g_tornDown.get_future().wait_for(LIMIT);
}

} // namespace

extern "C"
{
    int __real_select(int i_size, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut);

    int __wrap_select(int i_size, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut)
    {
        holdTheWait();
        return __real_select(i_size, io_read, io_write, io_except, io_timeOut);
    }
}

namespace tolv
{

TEST(DispatcherImplStopTest, ThreadThatBeginsToWaitAfterTheTeardownLeaves)
{
    auto l_engine = std::make_unique<MTDispatcher>(1, 2, false);
    ASSERT_EQ(std::future_status::ready,
              g_preparing.get_future().wait_for(LIMIT));
    EXPECT_TRUE(l_engine->Shutdown(0));
    l_engine->Finish();
    g_tornDown.set_value();
    l_engine.reset(); // the pool's assertion fails if the thread stays
}

} // namespace tolv

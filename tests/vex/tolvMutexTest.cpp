#include "tolv/vex/tolvMutex.hpp"

#include <gtest/gtest.h>

#include <thread>

using namespace tolv;

TEST(MutexTest, OneThreadHoldsItAtATime)
{
    constexpr int ROUNDS = 20000;
    Mutex l_mutex;
    int l_counter = 0;
    const auto l_count = [&]
    {
        for (int l_round = 0; l_round != ROUNDS; ++l_round)
        {
            const MutexLock l_lock(l_mutex);
            ++l_counter;
        }
    };
    std::thread l_other(l_count);
    l_count();
    l_other.join();
    EXPECT_EQ(2 * ROUNDS, l_counter);
}

#include "tolv/vex/tolvTimeValue.hpp"

#include "tolv/vex/tolvTimeBase.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

constexpr std::uint64_t TIME_BASE_HZ = 166666667;

time_t g_wallClock = 0; // what the wrapped time() answers; 0: the real time
timespec g_bootClock = {};
bool g_bootClockReplaced = false;

} // namespace

extern "C"
{
    time_t __real_time(time_t*);
    int __real_clock_gettime(clockid_t, timespec*);

    time_t __wrap_time(time_t* o_time)
    {
        return g_wallClock != 0 ? g_wallClock : __real_time(o_time);
    }

    int __wrap_clock_gettime(clockid_t i_clock, timespec* o_time)
    {
        if (g_bootClockReplaced && i_clock == CLOCK_MONOTONIC)
        {
            *o_time = g_bootClock;
            return 0;
        }
        return __real_clock_gettime(i_clock, o_time);
    }
}

TEST(TimeValueTest, DefaultIsZero)
{
    const TimeValue l_value;
    EXPECT_EQ(0U, l_value.getSeconds());
    EXPECT_EQ(0U, l_value.getMicroSeconds());
}

TEST(TimeValueTest, SettersLeaveTheOtherFieldAlone)
{
    TimeValue l_value(7, 9);
    l_value.setSeconds(30);
    EXPECT_EQ(TimeValue(30, 9), l_value);
    l_value.setMicroSeconds(500);
    EXPECT_EQ(TimeValue(30, 500), l_value);
}

TEST(TimeValueTest, IsTwoWordsOfThirtyTwoBits)
{
    const TimeValue l_value(0x01020304, 0x05060708);
    std::uint32_t l_words[2];
    static_assert(sizeof(l_value) == sizeof(l_words), "object layout");
    memcpy(l_words, &l_value, sizeof(l_words));
    EXPECT_EQ(0x01020304U, l_words[0]);
    EXPECT_EQ(0x05060708U, l_words[1]);
}

TEST(TimeValueTest, ComparesSecondsFirst)
{
    EXPECT_LT(TimeValue(1, 999999), TimeValue(2, 0));
    EXPECT_LT(TimeValue(2, 1), TimeValue(2, 2));
    EXPECT_FALSE(TimeValue(2, 2) < TimeValue(2, 2));
    EXPECT_FALSE(TimeValue(3, 0) < TimeValue(2, 2));
    EXPECT_LE(TimeValue(2, 2), TimeValue(2, 2));
    EXPECT_FALSE(TimeValue(2, 3) <= TimeValue(2, 2));
    EXPECT_GT(TimeValue(3, 0), TimeValue(2, 999999));
    EXPECT_FALSE(TimeValue(2, 2) > TimeValue(2, 2));
    EXPECT_GE(TimeValue(2, 2), TimeValue(2, 2));
    EXPECT_FALSE(TimeValue(1, 2) >= TimeValue(2, 2));
    EXPECT_EQ(TimeValue(2, 2), TimeValue(2, 2));
    EXPECT_NE(TimeValue(2, 2), TimeValue(2, 3));
    EXPECT_NE(TimeValue(2, 2), TimeValue(3, 2));
}

TEST(TimeValueTest, TimeBaseTicksBecomeSecondsAndMicroseconds)
{
    EXPECT_EQ(TimeValue(0, 0), TimeValue::fromTimeBase(0));
    EXPECT_EQ(TimeValue(2, 499999),
              TimeValue::fromTimeBase(TIME_BASE_HZ * 2 + 83333333));
    EXPECT_EQ(TimeValue(0, 999999), TimeValue::fromTimeBase(TIME_BASE_HZ - 1));
    EXPECT_EQ(TimeValue(1, 0), TimeValue::fromTimeBase(TIME_BASE_HZ));
    EXPECT_EQ(TimeValue(0, 0), TimeValue::fromTimeBase(166));
    EXPECT_EQ(TimeValue(0, 1), TimeValue::fromTimeBase(167));
}

TEST(TimeValueTest, TimeBaseOfManyYearsConverts)
{
    // The register's upper half is in use after 25 seconds.
    EXPECT_EQ(TimeValue(4000000000U, 0),
              TimeValue::fromTimeBase(4000000000U * TIME_BASE_HZ));
}

TEST(TimeValueTest, TimeBaseIsReadAgainWhenItsHighHalfMoves)
{
    const std::uint32_t l_halves[] = {1, 0xFFFFFFFF, 2, 2, 0, 2};
    std::size_t l_reads = 0;
    const auto l_read = [&] { return l_halves[l_reads++]; };
    EXPECT_EQ(std::uint64_t(2) << 32, readTimeBase(l_read, l_read));
    EXPECT_EQ(6U, l_reads);
}

TEST(TimeValueTest, TimeBaseHasBothHalves)
{
    const auto l_high = [] { return 0x12345678U; };
    const auto l_low = [] { return 0x9ABCDEF0U; };
    EXPECT_EQ(0x123456789ABCDEF0U, readTimeBase(l_high, l_low));
}

#if !defined(__powerpc__) || defined(__powerpc64__)
TEST(TimeValueTest, UptimeIsTheMonotonicClock)
{
    g_bootClock.tv_sec = 12345;
    g_bootClock.tv_nsec = 678901999;
    g_bootClockReplaced = true;
    TimeValue l_value(1, 1);
    l_value.setToCurrentUptime();
    EXPECT_EQ(TimeValue(12345, 678901), l_value);
    EXPECT_EQ(TimeValue(12345, 678901), TimeValue::getUptime());
}
#endif

TEST(TimeValueTest, UptimeAdvancesAndNeverGoesBack)
{
    const TimeValue l_first = TimeValue::getUptime();
    TimeValue l_last = l_first;
    while (l_last == l_first)
    {
        const TimeValue l_now = TimeValue::getUptime();
        ASSERT_LE(l_last, l_now);
        ASSERT_LT(l_now.getMicroSeconds(), 1000000U);
        l_last = l_now;
    }
}

TEST(TimeValueTest, AbsoluteTimeAddsTheWallClockToTheSecondsOnly)
{
    g_wallClock = 1700000000;
    TimeValue l_value(30, 500);
    l_value.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(1700000030, 500), l_value);
}

TEST(TimeValueTest, AbsoluteTimeSaturates)
{
    g_wallClock = 1700000000;
    TimeValue l_fits(0xFFFFFFFFU - 1700000000U, 7);
    l_fits.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(0xFFFFFFFFU, 7), l_fits);
    TimeValue l_wraps(0xFFFFFFFFU - 1700000000U + 1, 7);
    l_wraps.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(0xFFFFFFFFU, 7), l_wraps);
    g_wallClock = -5; // time_t of 32 bits after 2038
    TimeValue l_stillPast(3, 7);
    l_stillPast.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(0, 7), l_stillPast);
    TimeValue l_ahead(30, 7);
    l_ahead.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(25, 7), l_ahead);
    g_wallClock = 1700000000;
    TimeValue l_largest(0xFFFFFFFFU, 7);
    l_largest.ConvertToAbsolute();
    EXPECT_EQ(TimeValue(0xFFFFFFFFU, 7), l_largest);
}

TEST(IdentifierTest, CountsFromOne)
{
    EXPECT_EQ(1U, nextIdentifier());
    EXPECT_EQ(2U, nextIdentifier());
    EXPECT_EQ(3U, nextIdentifier());
}

TEST(IdentifierTest, ThreadsNeverGetTheSameValue)
{
    constexpr std::size_t EACH = 500000;
    std::atomic<int> l_ready(0);
    const auto l_draw = [&](std::vector<std::uint32_t>& o_values)
    {
        ++l_ready;
        while (l_ready != 2)
        {
        }
        for (std::uint32_t& l_value : o_values)
        {
            l_value = nextIdentifier();
        }
    };
    std::vector<std::uint32_t> l_all(EACH);
    std::vector<std::uint32_t> l_second(EACH);
    std::thread l_other([&] { l_draw(l_second); });
    l_draw(l_all);
    l_other.join();
    l_all.insert(l_all.end(), l_second.begin(), l_second.end());
    std::sort(l_all.begin(), l_all.end());
    EXPECT_EQ(l_all.end(), std::adjacent_find(l_all.begin(), l_all.end()));
    EXPECT_EQ(1U, l_all.front());
    EXPECT_EQ(2 * EACH, l_all.back());
}

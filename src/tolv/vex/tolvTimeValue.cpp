#include "tolv/vex/tolvTimeValue.hpp"

#include "tolv/vex/tolvTimeBase.hpp"

#include <ctime>

#include <algorithm>
#include <atomic>
#include <limits>

namespace
{

// Ticks a second of the deployed processor's time base, and the only rate that
// this library knows: the register itself does not tell it.
constexpr std::uint64_t TIME_BASE_HZ = 166666667;
constexpr std::uint64_t MICROS_PER_SECOND = 1000000;

static_assert(TIME_BASE_HZ <=
                  std::numeric_limits<std::uint64_t>::max() / MICROS_PER_SECOND,
              "a remainder in microseconds fits 64 bits");

#if defined(__powerpc__) && !defined(__powerpc64__)

std::uint32_t readHigh()
{
    std::uint32_t l_half = 0;
    __asm__ volatile("mftbu %0" : "=r"(l_half));
    return l_half;
}

std::uint32_t readLow()
{
    std::uint32_t l_half = 0;
    __asm__ volatile("mftb %0" : "=r"(l_half));
    return l_half;
}

tolv::TimeValue readUptime()
{
    return tolv::TimeValue::fromTimeBase(tolv::readTimeBase(readHigh, readLow));
}

#else

// The clock that select() measures its time-outs with; on Linux it counts from
// the start of the machine.
tolv::TimeValue readUptime()
{
    timespec l_now = {};
    clock_gettime(CLOCK_MONOTONIC, &l_now);
    return tolv::TimeValue(static_cast<std::uint32_t>(l_now.tv_sec),
                           static_cast<std::uint32_t>(l_now.tv_nsec / 1000));
}

#endif

} // namespace

namespace tolv
{

void TimeValue::setToCurrentUptime()
{
    *this = readUptime();
}

TimeValue TimeValue::getUptime()
{
    TimeValue l_uptime;
    l_uptime.setToCurrentUptime();
    return l_uptime;
}

TimeValue TimeValue::fromTimeBase(std::uint64_t i_ticks)
{
    return TimeValue(
        static_cast<std::uint32_t>(i_ticks / TIME_BASE_HZ),
        static_cast<std::uint32_t>(i_ticks % TIME_BASE_HZ * MICROS_PER_SECOND /
                                   TIME_BASE_HZ));
}

// Deliberate: the wall clock, and whole seconds of it.
// Effect: a wait of n seconds lasts between n-1 and n seconds, because the
// current second has already begun; a step of the wall clock moves its end.
// Pinned by: TimeValueTest.AbsoluteTimeAddsTheWallClockToTheSecondsOnly
void TimeValue::ConvertToAbsolute()
{
    constexpr std::int64_t LAST = std::numeric_limits<std::uint32_t>::max();
    const std::int64_t l_sum = std::int64_t(time(nullptr)) + iv_Seconds;
    iv_Seconds =
        static_cast<std::uint32_t>(std::clamp<std::int64_t>(l_sum, 0, LAST));
}

std::uint32_t nextIdentifier()
{
    static std::atomic<std::uint32_t> s_last(0);
    return s_last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace tolv

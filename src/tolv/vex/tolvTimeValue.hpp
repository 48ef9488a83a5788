// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVTIMEVALUE_HPP
#define TOLV_VEX_TOLVTIMEVALUE_HPP

#include "tolv/vex/tolvExport.hpp"

#include <cstdint>

namespace tolv
{

/// Seconds and microseconds: a span, a point of the uptime clock or, after
/// ConvertToAbsolute(), a point of the wall clock.
///
/// Units:   seconds and microseconds, 32 bits each. Nothing carries
///          microseconds into seconds: keep them below 1,000,000.
/// Threads: a plain value; one thread at a time may change it.
class TOLV_EXPORT TimeValue
{
  public:
    /// Zero.
    TimeValue() : iv_Seconds(0), iv_MicroSeconds(0) {}

    explicit TimeValue(unsigned int i_seconds,
                       unsigned int i_microSeconds = 0) :
        iv_Seconds(i_seconds),
        iv_MicroSeconds(i_microSeconds)
    {
    }

    /// Leaves the microseconds as they are.
    void setSeconds(unsigned int i_seconds)
    {
        iv_Seconds = i_seconds;
    }

    /// Leaves the seconds as they are.
    void setMicroSeconds(unsigned int i_microSeconds)
    {
        iv_MicroSeconds = i_microSeconds;
    }

    unsigned int getSeconds() const
    {
        return iv_Seconds;
    }

    unsigned int getMicroSeconds() const
    {
        return iv_MicroSeconds;
    }

    /// Becomes the time since the machine started: the time base register
    /// where the processor has the one this library knows (32-bit PowerPC),
    /// else the system's monotonic clock. Steps of the wall clock do not move
    /// it.
    void setToCurrentUptime();

    /// The time since the machine started, as setToCurrentUptime() reads it.
    static TimeValue getUptime();

    /// Converts a reading of the PowerPC time base; the same on every target.
    ///
    /// Units: i_ticks, ticks of a time base of 166,666,667 Hz; the part below
    ///        a microsecond is dropped.
    static TimeValue fromTimeBase(std::uint64_t i_ticks);

    /// Turns a span into the wall-clock point that lies so far ahead: adds the
    /// current whole seconds of the wall clock, leaves the microseconds.
    ///
    /// A sum above 32 bits becomes the largest value. A span of n seconds ends
    /// between n-1 and n seconds from now, because the current second has
    /// already begun, and a step of the wall clock moves the end.
    void ConvertToAbsolute();

  private:
    // Declared order is the object layout.
    std::uint32_t iv_Seconds;
    std::uint32_t iv_MicroSeconds;
};

inline bool operator==(const TimeValue& i_left, const TimeValue& i_right)
{
    return i_left.getSeconds() == i_right.getSeconds() &&
           i_left.getMicroSeconds() == i_right.getMicroSeconds();
}

inline bool operator<(const TimeValue& i_left, const TimeValue& i_right)
{
    return i_left.getSeconds() < i_right.getSeconds() ||
           (i_left.getSeconds() == i_right.getSeconds() &&
            i_left.getMicroSeconds() < i_right.getMicroSeconds());
}

inline bool operator!=(const TimeValue& i_left, const TimeValue& i_right)
{
    return !(i_left == i_right);
}

inline bool operator<=(const TimeValue& i_left, const TimeValue& i_right)
{
    return !(i_right < i_left);
}

inline bool operator>(const TimeValue& i_left, const TimeValue& i_right)
{
    return i_right < i_left;
}

inline bool operator>=(const TimeValue& i_left, const TimeValue& i_right)
{
    return !(i_left < i_right);
}

/// Internal to the library, not exported: the next value of the counter that
/// numbers this process's timers. The first value is 1; after 32 bits it wraps
/// to 0.
///
/// Threads: any; several dispatchers share the counter.
std::uint32_t nextIdentifier();

} // namespace tolv

#endif

// Watches a dispatcher's loop through its system calls.
#ifndef TOLV_TESTS_SUPPORT_LOOPPROBE_HPP
#define TOLV_TESTS_SUPPORT_LOOPPROBE_HPP

#include "tolv/vex/tolvTimeValue.hpp"

#include <optional>

/// For programs with one dispatcher that list this file's source and wrap
/// TOLV_LOOP_PROBE. The shutdown's sleeps of a second and more take no time.
///
/// Threads: any.
namespace loopProbe
{

/// Waits until the loop waits and finds nothing ready, with every wake-up taken
/// that was sent until now.
///
/// Returns: whether that happened within the limit of waitFor().
bool waitUntilIdle();

/// How many waits have begun.
int waits();

/// The time-out of the last wait, nothing when it waits for ever.
std::optional<tolv::TimeValue> timeOut();

/// How many wake-ups were sent.
int wakeUps();

} // namespace loopProbe

#endif

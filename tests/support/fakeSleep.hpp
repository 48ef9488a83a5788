// Sleeps that last as long as a test says.
#ifndef TOLV_TESTS_SUPPORT_FAKESLEEP_HPP
#define TOLV_TESTS_SUPPORT_FAKESLEEP_HPP

#include <cstddef>
#include <ctime>

#include <functional>
#include <vector>

/// For test programs that list fakeSleep.cpp among their sources and wrap
/// nanosleep. Sleeps below 10 ms, as of a poll, are always real; the others are
/// until a test says otherwise.
///
/// Threads: any.
namespace fakeSleep
{

/// From now on sleeps end at once.
void skip();

/// From now on sleeps last until letGo() or skip().
void hold();

/// Ends one held sleep, the next one when there is none.
void letGo();

/// The next sleep ends at once, interrupted by a signal with i_left to go.
void interruptNext(const timespec& i_left);

/// The next sleep calls i_action and ends when that has ended.
void replaceNext(const std::function<void()>& i_action);

/// The lengths of the sleeps that have begun since skip() or hold() was called
/// first.
std::vector<timespec> begun();

/// Returns: whether as many sleeps have begun, within the limit of waitFor().
bool waitForBegun(std::size_t i_sleeps);

} // namespace fakeSleep

#endif

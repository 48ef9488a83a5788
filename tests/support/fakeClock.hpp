// A wall clock that tests move, so that waits of minutes take milliseconds.
//
// For test programs that list this file's source and wrap time and
// pthread_cond_timedwait. Until it is started the real clock rules.
#ifndef TOLV_TESTS_SUPPORT_FAKECLOCK_HPP
#define TOLV_TESTS_SUPPORT_FAKECLOCK_HPP

#include <ctime>

namespace fakeClock
{

/// Replaces the wall clock by one that stands still at i_now.
void start(time_t i_now);

/// Moves it; timed waits whose deadline it passes end. Their conditions and
/// mutexes must outlive the call.
void advance(time_t i_seconds);

time_t now();

/// Timed waits that have begun since the clock was started, and the deadline
/// of the last one.
int timedWaits();
time_t lastDeadline();

/// From now on a timed wait that is woken reports a time-out all the same, as
/// one does whose deadline passes while it is being woken.
void reportTimeOutWhenWoken();

} // namespace fakeClock

#endif

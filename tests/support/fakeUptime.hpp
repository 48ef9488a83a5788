// Replaces the uptime.
#ifndef TOLV_TESTS_SUPPORT_FAKEUPTIME_HPP
#define TOLV_TESTS_SUPPORT_FAKEUPTIME_HPP

#include "tolv/vex/tolvTimeValue.hpp"

#include <string>

/// A program that has fakeUptime.cpp among its sources and replaces
/// TOLV_FAKE_UPTIME reads what set() was given wherever the library reads the
/// uptime through TimeValue::getUptime(), also where the real one is a
/// register.
///
/// Threads: any.
namespace fakeUptime
{

void set(const tolv::TimeValue& i_now);

/// How often it was read.
int reads();

} // namespace fakeUptime

/// The beginning of a trace line of this process while the uptime is 12 seconds
/// and 345 microseconds, as it is from the start.
std::string traceHeader(const std::string& i_base, int i_line);

#endif

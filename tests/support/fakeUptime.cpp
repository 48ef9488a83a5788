#include "support/fakeUptime.hpp"

#include <unistd.h>

#include <atomic>

namespace
{

std::atomic<int> g_reads(0);

} // namespace

namespace fakeUptime
{

tolv::TimeValue g_Now(12, 345);

int reads()
{
    return g_reads;
}

// The linker sends the calls of TimeValue::getUptime() here.
tolv::TimeValue getUptime() __asm__("__wrap__ZN4tolv9TimeValue9getUptimeEv");

tolv::TimeValue getUptime()
{
    ++g_reads;
    return g_Now;
}

} // namespace fakeUptime

std::string traceHeader(const std::string& i_base, int i_line)
{
    return "[      12.345    ][" + std::to_string(getpid()) + "][" + i_base +
           ":" + std::to_string(i_line) + "] ";
}

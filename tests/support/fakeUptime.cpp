#include "support/fakeUptime.hpp"

#include <unistd.h>

#include <mutex>
#include <shared_mutex>

namespace
{

// Not a plain mutex: some programs count the calls that lock one.
std::shared_mutex g_lock;
tolv::TimeValue g_now(12, 345);
int g_reads(0);

} // namespace

namespace fakeUptime
{

void set(const tolv::TimeValue& i_now)
{
    const std::lock_guard<std::shared_mutex> l_lock(g_lock);
    g_now = i_now;
}

int reads()
{
    const std::lock_guard<std::shared_mutex> l_lock(g_lock);
    return g_reads;
}

// The linker sends the calls of TimeValue::getUptime() here.
tolv::TimeValue getUptime() __asm__("__wrap__ZN4tolv9TimeValue9getUptimeEv");

tolv::TimeValue getUptime()
{
    const std::lock_guard<std::shared_mutex> l_lock(g_lock);
    ++g_reads;
    return g_now;
}

} // namespace fakeUptime

std::string traceHeader(const std::string& i_base, int i_line)
{
    return "[      12.345    ][" + std::to_string(getpid()) + "][" + i_base +
           ":" + std::to_string(i_line) + "] ";
}

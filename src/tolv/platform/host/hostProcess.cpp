#include "tolv/platform/host/hostProcess.hpp"

#include "tolv/platform/host/hostDescriptor.hpp"
#include "tolv/platform/host/hostNumber.hpp"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace tolvhost
{

namespace
{

// Positions in /proc/PID/stat, counted from 1.
constexpr int STATE_FIELD = 3;
constexpr int START_FIELD = 22;

struct ProcessStat
{
    char state = '\0';
    std::uint64_t start = 0;
};

// The entry of the first thread: what it says of state and start is true of
// the process.
bool readStat(pid_t i_pid, ProcessStat& o_stat)
{
    char l_text[1024];
    snprintf(l_text, sizeof(l_text), "/proc/%d/task/%d/stat", i_pid, i_pid);
    const Descriptor l_file(open(l_text, O_RDONLY | O_CLOEXEC));
    std::size_t l_size = 0;
    if (!l_file || !readAll(l_file.get(), l_text, sizeof(l_text) - 1, l_size))
    {
        return false;
    }
    l_text[l_size] = '\0';
    // The second field, a name in parentheses, may hold anything. The fields
    // after it have a blank before each.
    const char* l_field = std::strrchr(l_text, ')');
    for (int l_number = STATE_FIELD; l_field != nullptr; ++l_number)
    {
        l_field = std::strchr(l_field, ' ');
        if (l_field == nullptr)
        {
            return false;
        }
        ++l_field;
        if (l_number == STATE_FIELD)
        {
            o_stat.state = *l_field;
        }
        else if (l_number == START_FIELD)
        {
            return takeNumber(l_field, 10, UINT64_MAX, o_stat.start);
        }
    }
    return false;
}

} // namespace

std::uint64_t processStart(pid_t i_pid)
{
    ProcessStat l_stat;
    return readStat(i_pid, l_stat) ? l_stat.start : 0;
}

bool isRunning(pid_t i_pid, std::uint64_t i_start)
{
    if (kill(i_pid, 0) == -1 && errno == ESRCH)
    {
        return false;
    }
    ProcessStat l_stat;
    if (!readStat(i_pid, l_stat))
    {
        return true;
    }
    if (l_stat.state == 'Z' || l_stat.state == 'X')
    {
        return false;
    }
    return i_start == 0 || l_stat.start == i_start;
}

} // namespace tolvhost

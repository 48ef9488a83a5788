// Private header of the host platform: which process is which.
#ifndef TOLV_PLATFORM_HOST_HOSTPROCESS_HPP
#define TOLV_PLATFORM_HOST_HOSTPROCESS_HPP

#include <sys/types.h>

#include <cstdint>

namespace tolvhost
{

/// When a process started, which together with its number tells it from all
/// others of this boot.
///
/// Units:   clock ticks since the boot.
/// Returns: 0 when it cannot be told.
std::uint64_t processStart(pid_t i_pid);

/// Whether the process of that number and start lives; one that only waits to
/// be reaped does not. In doubt it does.
bool isRunning(pid_t i_pid, std::uint64_t i_start);

} // namespace tolvhost

#endif

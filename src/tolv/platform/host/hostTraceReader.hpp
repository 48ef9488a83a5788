// Private header of the host platform: trace buffers of other processes.
#ifndef TOLV_PLATFORM_HOST_HOSTTRACEREADER_HPP
#define TOLV_PLATFORM_HOST_HOSTTRACEREADER_HPP

#include <sys/types.h>

#include <string>

namespace tolvhost
{

/// What a segment holds.
struct TraceSnapshot
{
    std::string name;
    std::string program;
    pid_t pid = 0;
    std::string text; // whole lines, oldest first
};

/// Reads a segment's file, whether its process runs or is dead. Trusts
/// nothing that the file says.
///
/// Returns: false with errno: what open() and read() report, EBADMSG for
///          anything but an intact segment of a machine with this byte order,
///          EAGAIN when a busy writer left no time to read.
bool readSegment(const char* i_path, TraceSnapshot& o_snapshot);

} // namespace tolvhost

#endif

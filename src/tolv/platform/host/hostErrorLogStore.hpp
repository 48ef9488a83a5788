// Private header of the host platform: the files of the error log.
#ifndef TOLV_PLATFORM_HOST_HOSTERRORLOGSTORE_HPP
#define TOLV_PLATFORM_HOST_HOSTERRORLOGSTORE_HPP

#include <cstddef>

namespace tolvhost
{

/// How many entries the log keeps: each of some hundred bytes, at most 64 KiB.
constexpr unsigned int MAX_LOG_ENTRIES = 256;

/// Room for the name of a file of the log, its NUL included.
constexpr std::size_t LOG_NAME_ROOM = 64;

/// Adds one file to the error log and drops the oldest beyond
/// MAX_LOG_ENTRIES. After a crash the file is there as a whole or not at all.
///
/// Returns: true with the file's name, or false with errno.
/// Blocks:  while the storage does: the file and its folder are synced.
/// Threads: any, and any number of processes of one machine and PID
///          namespace.
bool storeLogEntry(const void* i_bytes, std::size_t i_size,
                   char (&o_name)[LOG_NAME_ROOM]);

} // namespace tolvhost

#endif

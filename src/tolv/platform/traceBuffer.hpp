// Public header: the platform's trace-buffer service.
#ifndef TOLV_PLATFORM_TRACEBUFFER_HPP
#define TOLV_PLATFORM_TRACEBUFFER_HPP

#include "tolv/vex/tolvExport.hpp"

/// Creates the named trace buffer of this process, or attaches to it when it
/// exists.
///
/// Units:   i_size, bytes.
/// Returns: 0 with o_descriptor filled, or -1 with errno. A platform without
///          the service returns -1; callers go on without trace.
/// Threads: any.
TOLV_EXPORT int TraceBufferInit(int* o_descriptor, const char* i_name,
                                unsigned int i_size);

/// Copies the newest entries of the named buffer, oldest of them first, and
/// fills the rest of o_buffer with zeros.
///
/// Units:   i_size, bytes.
/// Returns: bytes copied, or -1 with errno.
/// Threads: any.
TOLV_EXPORT int TraceBufferReadDiff(const char* i_name, unsigned int i_size,
                                    void* o_buffer);

/// Adds one entry: time stamp, thread and the formatted text. The oldest
/// entries make room for it. For daemons; the library itself never writes.
///
/// Returns: 0, or -1 with errno.
/// Threads: any. errno is left unchanged on success.
TOLV_EXPORT int TraceBufferWrite(int i_descriptor, const char* i_format, ...)
    TOLV_PRINTF(2, 3);

#endif

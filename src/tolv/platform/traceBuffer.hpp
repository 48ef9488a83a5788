// Public header: the platform's trace-buffer service.
#ifndef TOLV_PLATFORM_TRACEBUFFER_HPP
#define TOLV_PLATFORM_TRACEBUFFER_HPP

#include "tolv/vex/tolvExport.hpp"

/// Creates the named trace buffer of this process, or attaches to it when it
/// exists; then i_size is without effect.
///
/// May be called before main(). A process made by fork() has buffers of its
/// own under the descriptors that it inherits.
///
/// Units:   i_size, bytes; the platform may round it up. 0 is refused.
/// Returns: 0 with o_descriptor filled (it is above 0), or -1 with errno. A
///          platform without the service returns -1; callers go on without
///          trace.
/// Errors:  EINVAL for a null argument, a name or a size that the platform
///          does not take; ENOSPC when there can be no more buffers; ENOMEM.
/// Threads: any. errno is left unchanged on success.
TOLV_EXPORT int TraceBufferInit(int* o_descriptor, const char* i_name,
                                unsigned int i_size);

/// Copies the newest entries of the named buffer of this process, oldest of
/// them first, and fills the rest of o_buffer with zeros.
///
/// Units:   i_size, bytes.
/// Returns: bytes copied, or -1 with errno and o_buffer untouched. A null
///          o_buffer (the caller's memory was short) gives -1 as well.
/// Errors:  EINVAL for a null argument, ENOENT for an unknown name, ENOMEM.
/// Threads: any. errno is left unchanged on success.
TOLV_EXPORT int TraceBufferReadDiff(const char* i_name, unsigned int i_size,
                                    void* o_buffer);

/// Adds one entry: time stamp, thread and the formatted text. The oldest
/// entries make room for it. For daemons; the library itself never writes.
///
/// Returns: 0, or -1 with errno.
/// Errors:  EBADF for a descriptor that TraceBufferInit() did not give, EINVAL
///          for a null format, ENOMEM.
/// Threads: any. errno is left unchanged on success.
TOLV_EXPORT int TraceBufferWrite(int i_descriptor, const char* i_format, ...)
    TOLV_PRINTF(2, 3);

#endif

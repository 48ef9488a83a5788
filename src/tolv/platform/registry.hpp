// Public header: the platform's registry of configuration values.
#ifndef TOLV_PLATFORM_REGISTRY_HPP
#define TOLV_PLATFORM_REGISTRY_HPP

#include "tolv/vex/tolvExport.hpp"

/// Reads a value by its key path, for example "dscv/VexPosition". The meaning
/// of i_flags is the platform's; 0 is always right.
///
/// Units:   i_size, bytes of the value: 1, 2, 4 or 8, in the host's byte order.
/// Returns: 0 with errno unchanged, or -1 with errno and o_buffer untouched
///          when the value is missing or malformed or does not fit i_size.
/// Threads: any.
TOLV_EXPORT int RegistryRead(const char* i_key, void* o_buffer,
                             unsigned int i_size, int i_flags);

#endif

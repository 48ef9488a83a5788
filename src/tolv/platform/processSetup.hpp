// Public header: the platform's set-up of a daemon process.
#ifndef TOLV_PLATFORM_PROCESSSETUP_HPP
#define TOLV_PLATFORM_PROCESSSETUP_HPP

#include "tolv/vex/tolvExport.hpp"

/// Sets the process up after it has detached from its starter.
///
/// Returns: 0.
TOLV_EXPORT int PlatformProcessSetup(void* i_argument, bool i_flag);

#endif

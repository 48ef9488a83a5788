// Public header: the platform's set-up of a daemon process.
#ifndef TOLV_PLATFORM_PROCESSSETUP_HPP
#define TOLV_PLATFORM_PROCESSSETUP_HPP

#include "tolv/vex/tolvExport.hpp"

/// Sets the process up after it has detached from its starter. What the
/// arguments mean is the platform's; a daemon passes null and true.
///
/// Returns: 0.
/// Threads: called while the process has a single one.
TOLV_EXPORT int PlatformProcessSetup(void* i_argument, bool i_flag);

#endif

// Private header: flags of descriptors.
#ifndef TOLV_VEX_TOLVDESCRIPTOR_HPP
#define TOLV_VEX_TOLVDESCRIPTOR_HPP

#include "tolv/vex/tolvEventHandler.hpp"

namespace tolv
{

/// Keeps a descriptor from the programs that this process starts; none
/// (OS_INVALID) is left alone. An open descriptor always takes it.
void setCloseOnExec(OS_HANDLE i_fd);

/// Makes operations on a descriptor return where they would wait.
///
/// Returns: its file status flags before, for fcntl(F_SETFL).
int setNonBlocking(OS_HANDLE i_fd);

} // namespace tolv

#endif

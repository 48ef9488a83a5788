// Private header: new sockets and flags of descriptors.
#ifndef TOLV_VEX_TOLVDESCRIPTOR_HPP
#define TOLV_VEX_TOLVDESCRIPTOR_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <cstdint>

namespace tolv
{

/// Makes a socket that the programs which this process starts do not get.
///
/// i_row:   family, type and protocol, as LookupSockProperties() returns them.
/// Returns: OS_INVALID when the system has no such socket; errno tells why.
/// Errors:  abort() for null: nobody asks for a type that no table has.
OS_HANDLE openSocket(const std::int32_t* i_row);

/// Keeps a descriptor from the programs that this process starts; none
/// (OS_INVALID) is left alone. An open descriptor always takes it.
void setCloseOnExec(OS_HANDLE i_fd);

/// Makes operations on a descriptor return where they would wait.
///
/// Returns: its file status flags before, for fcntl(F_SETFL).
int setNonBlocking(OS_HANDLE i_fd);

} // namespace tolv

#endif

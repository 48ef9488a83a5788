// Private header: what a peek at a stream needs that came short.
#ifndef TOLV_VEX_TOLVSTREAMPEEK_HPP
#define TOLV_VEX_TOLVSTREAMPEEK_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <sys/time.h>
#include <sys/types.h>

namespace tolv
{

/// Whether nothing more will come: the peer has shut its side, or the
/// connection has failed. What came before may still be unread.
///
/// Blocks: never.
bool streamEnded(OS_HANDLE i_handle);

/// Waits for bytes of a UNIX-domain stream behind the first i_known unread
/// ones. Readiness does not tell of them, because the known ones make the
/// socket ready.
///
/// i_limit: not zero; null for no limit.
///
/// Returns: 1 for more bytes, or at once where the system cannot wait so; 0
///          when the peer has closed; -1 with errno, which is EAGAIN when the
///          limit has passed, and at once when the socket does not block.
ssize_t awaitBytesBehind(OS_HANDLE i_handle, unsigned int i_known,
                         const timeval* i_limit);

} // namespace tolv

#endif

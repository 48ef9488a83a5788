// Private header of the host platform.
#ifndef TOLV_PLATFORM_HOST_HOSTNUMBER_HPP
#define TOLV_PLATFORM_HOST_HOSTNUMBER_HPP

#include <cstdint>

namespace tolvhost
{

/// Takes the digits at the front of io_text, which moves behind them.
///
/// Units:   i_base, 10 or 16.
/// Returns: false with errno EINVAL when there are none, ERANGE when they make
///          more than i_max.
bool takeNumber(const char*& io_text, unsigned int i_base, std::uint64_t i_max,
                std::uint64_t& o_number);

} // namespace tolvhost

#endif

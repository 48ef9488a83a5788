// Private header: how a 64-bit register that is read in halves is read.
#ifndef TOLV_VEX_TOLVTIMEBASE_HPP
#define TOLV_VEX_TOLVTIMEBASE_HPP

#include <cstdint>

namespace tolv
{

/// Reads a counter through two functions that give its halves. The low half
/// may run over between the two reads, which shows in a changed high half.
template <class High, class Low>
std::uint64_t readTimeBase(High i_readHigh, Low i_readLow)
{
    for (;;)
    {
        const std::uint32_t l_high = i_readHigh();
        const std::uint32_t l_low = i_readLow();
        if (i_readHigh() == l_high)
        {
            return (std::uint64_t(l_high) << 32) | l_low;
        }
    }
}

} // namespace tolv

#endif

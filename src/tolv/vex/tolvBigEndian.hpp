// Private header: numbers on the wire, most significant byte first.
#ifndef TOLV_VEX_TOLVBIGENDIAN_HPP
#define TOLV_VEX_TOLVBIGENDIAN_HPP

#include <cstdint>

namespace tolv
{

inline void putBig16(unsigned char* o_bytes, std::uint16_t i_value)
{
    o_bytes[0] = static_cast<unsigned char>(i_value >> 8);
    o_bytes[1] = static_cast<unsigned char>(i_value);
}

inline void putBig32(unsigned char* o_bytes, std::uint32_t i_value)
{
    putBig16(o_bytes, static_cast<std::uint16_t>(i_value >> 16));
    putBig16(o_bytes + 2, static_cast<std::uint16_t>(i_value));
}

inline std::uint16_t getBig16(const unsigned char* i_bytes)
{
    return static_cast<std::uint16_t>((i_bytes[0] << 8) | i_bytes[1]);
}

inline std::uint32_t getBig32(const unsigned char* i_bytes)
{
    return (std::uint32_t(getBig16(i_bytes)) << 16) | getBig16(i_bytes + 2);
}

} // namespace tolv

#endif

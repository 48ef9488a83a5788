// Messages as they travel, made and looked at without the code under test.
#ifndef TOLV_TESTS_SUPPORT_NETMESSAGEBYTES_HPP
#define TOLV_TESTS_SUPPORT_NETMESSAGEBYTES_HPP

#include "support/dataBuffBytes.hpp"
#include "support/hex.hpp"
#include "tolv/vex/tolvNetMessage.hpp"

#include <cstdint>

#include <string>

/// A 32-bit number with the most significant byte first.
inline std::string word(std::uint32_t i_value)
{
    std::string l_bytes;
    for (const int l_shift : {24, 16, 8, 0})
    {
        l_bytes += static_cast<char>((i_value >> l_shift) & 0xFF);
    }
    return l_bytes;
}

/// A header with other lengths and flags than those that fit.
///
/// Units: i_headerLength, bytes, one byte of it travels.
inline std::string headerOf(unsigned int i_headerLength, std::uint32_t i_length,
                            std::uint32_t i_dataLength,
                            const std::string& i_flags = "00 00")
{
    return fromHex("DE CA FF") + static_cast<char>(i_headerLength) +
           word(i_length) + fromHex("01 02 03 04 15 16 " + i_flags) +
           word(i_dataLength) + fromHex("25 26 35 36 45 46 47 48 00 00 00 00");
}

/// A whole message without a profile.
inline std::string messageOf(const std::string& i_body)
{
    const std::uint32_t l_length = static_cast<std::uint32_t>(i_body.size());
    return headerOf(32, 32 + l_length, l_length) + i_body;
}

/// i_count checkpoints as they travel, all different.
inline std::string profileOf(std::uint32_t i_count)
{
    std::string l_bytes = word(i_count);
    for (std::uint32_t l_index = 0; l_index != i_count; ++l_index)
    {
        l_bytes += word(0xC0000000 + l_index) + word(l_index) + word(~l_index);
    }
    return l_bytes;
}

/// A whole message with that many checkpoints, 18 at most.
inline std::string profiledMessageOf(std::uint32_t i_count,
                                     const std::string& i_body)
{
    const std::uint32_t l_length = static_cast<std::uint32_t>(i_body.size());
    const std::uint32_t l_header = 36 + 12 * i_count;
    return headerOf(l_header, l_header + l_length, l_length, "40 00") +
           profileOf(i_count) + i_body;
}

#endif

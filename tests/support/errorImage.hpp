// Makes the serialised form of an error without the code under test.
#ifndef TOLV_TESTS_SUPPORT_ERRORIMAGE_HPP
#define TOLV_TESTS_SUPPORT_ERRORIMAGE_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <memory>
#include <string>

/// What the serialised form of an error holds; the lengths are those of the
/// two blocks.
struct ErrorFields
{
    std::uint8_t origin;
    std::uint16_t reason;
    std::uint32_t position;
    std::uint32_t role;
    std::uint32_t nodeId;
    std::int32_t errnoValue;
    std::string text; // the block: with the NUL and what follows it
    std::string trace;
};

/// Writes a value as it lies in this machine's memory.
template <class T>
void place(std::string& io_image, std::size_t i_at, T i_value)
{
    std::memcpy(&io_image[i_at], &i_value, sizeof(i_value));
}

inline std::string imageOf(const ErrorFields& i_fields)
{
    std::string l_image(40, '\0');
    place(l_image, 4, i_fields.origin);
    place(l_image, 6, i_fields.reason);
    place(l_image, 8, i_fields.position);
    place(l_image, 12, i_fields.role);
    place(l_image, 16, i_fields.nodeId);
    place(l_image, 20, i_fields.errnoValue);
    place(l_image, 24, static_cast<std::uint32_t>(i_fields.text.size()));
    place(l_image, 28, static_cast<std::uint32_t>(i_fields.trace.size()));
    return l_image + i_fields.text + i_fields.trace;
}

/// A heap block of exactly these bytes, so that the address sanitizer sees an
/// access beyond them.
inline std::unique_ptr<char[]> exactBlock(const std::string& i_bytes)
{
    std::unique_ptr<char[]> l_block(new char[i_bytes.size()]);
    std::memcpy(l_block.get(), i_bytes.data(), i_bytes.size());
    return l_block;
}

#endif

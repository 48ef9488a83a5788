// Bytes as hexadecimal text, so that expectations can be read byte by byte.
#ifndef TOLV_TESTS_SUPPORT_HEX_HPP
#define TOLV_TESTS_SUPPORT_HEX_HPP

#include <string>

/// "DE CA FF": two capital digits for each byte, a blank between two bytes.
inline std::string toHex(const std::string& i_bytes)
{
    const char* const DIGITS = "0123456789ABCDEF";
    std::string l_text;
    for (const char l_char : i_bytes)
    {
        const unsigned char l_byte = static_cast<unsigned char>(l_char);
        l_text += l_text.empty() ? "" : " ";
        l_text += DIGITS[l_byte >> 4];
        l_text += DIGITS[l_byte & 0xF];
    }
    return l_text;
}

/// The bytes of such a text; blanks may stand between any two bytes.
inline std::string fromHex(const std::string& i_text)
{
    std::string l_bytes;
    for (std::size_t l_at = 0; l_at < i_text.size();)
    {
        if (i_text[l_at] == ' ')
        {
            ++l_at;
            continue;
        }
        const int l_byte = std::stoi(i_text.substr(l_at, 2), nullptr, 16);
        l_bytes += static_cast<char>(static_cast<unsigned char>(l_byte));
        l_at += 2;
    }
    return l_bytes;
}

#endif

#include "tolv/platform/host/hostNumber.hpp"

#include "tolv/platform/host/hostErrno.hpp"

#include <cstring>

namespace tolvhost
{

namespace
{

// The value of a digit of that base, or the base itself for anything else.
unsigned int digit(char i_letter, unsigned int i_base)
{
    const char DIGITS[] = "0123456789abcdef0123456789ABCDEF";
    const char* l_found =
        i_letter == '\0' ? nullptr : std::strchr(DIGITS, i_letter);
    const unsigned int l_value =
        l_found == nullptr ? i_base
                           : static_cast<unsigned int>(l_found - DIGITS) % 16;
    return l_value < i_base ? l_value : i_base;
}

} // namespace

bool takeNumber(const char*& io_text, unsigned int i_base, std::uint64_t i_max,
                std::uint64_t& o_number)
{
    o_number = 0;
    unsigned int l_digit = digit(*io_text, i_base);
    if (l_digit == i_base)
    {
        return failed(EINVAL);
    }
    while (l_digit != i_base)
    {
        if (l_digit > i_max || o_number > (i_max - l_digit) / i_base)
        {
            return failed(ERANGE);
        }
        o_number = o_number * i_base + l_digit;
        l_digit = digit(*++io_text, i_base);
    }
    return true;
}

} // namespace tolvhost

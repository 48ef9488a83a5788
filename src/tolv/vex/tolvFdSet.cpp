#include "tolv/vex/tolvFdSet.hpp"

namespace tolv
{

FdSet::FdSet() : iv_Set(), iv_Highest(OS_INVALID) {}

void FdSet::clear()
{
    *this = FdSet();
}

void FdSet::set(OS_HANDLE i_handle)
{
    FD_SET(i_handle, &iv_Set);
    if (i_handle > iv_Highest)
    {
        iv_Highest = i_handle;
    }
}

void FdSet::reset(OS_HANDLE i_handle)
{
    FD_CLR(i_handle, &iv_Set);
    if (i_handle == iv_Highest)
    {
        iv_Highest = findHighest();
    }
}

bool FdSet::isSet(OS_HANDLE i_handle) const
{
    return FD_ISSET(i_handle, &iv_Set);
}

OS_HANDLE FdSet::highest() const
{
    return iv_Highest;
}

// Whole words at a time, here and below: a set of one among many costs little.
OS_HANDLE FdSet::next(OS_HANDLE i_from) const
{
    OS_HANDLE l_handle = i_from;
    while (l_handle <= iv_Highest)
    {
        const unsigned long l_rest =
            word(l_handle / WORD_BITS) >> (l_handle % WORD_BITS);
        if (l_rest != 0)
        {
            return l_handle + __builtin_ctzl(l_rest);
        }
        l_handle = (l_handle / WORD_BITS + 1) * WORD_BITS;
    }
    return OS_INVALID;
}

// None is above iv_Highest.
OS_HANDLE FdSet::findHighest() const
{
    for (OS_HANDLE l_index = iv_Highest / WORD_BITS; l_index >= 0; --l_index)
    {
        const unsigned long l_word = word(l_index);
        if (l_word != 0)
        {
            return (l_index + 1) * WORD_BITS - 1 - __builtin_clzl(l_word);
        }
    }
    return OS_INVALID;
}

unsigned long FdSet::word(OS_HANDLE i_index) const
{
    return static_cast<unsigned long>(__FDS_BITS(&iv_Set)[i_index]);
}

fd_set* FdSet::view()
{
    return &iv_Set;
}

} // namespace tolv

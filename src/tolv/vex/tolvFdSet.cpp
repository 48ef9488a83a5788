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
    while (iv_Highest != OS_INVALID && !isSet(iv_Highest))
    {
        --iv_Highest;
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

// Whole words at a time: a set of one among many costs little.
OS_HANDLE FdSet::next(OS_HANDLE i_from) const
{
    OS_HANDLE l_handle = i_from;
    while (l_handle <= iv_Highest)
    {
        const auto l_word = static_cast<unsigned long>(
            __FDS_BITS(&iv_Set)[l_handle / WORD_BITS]);
        const unsigned long l_rest = l_word >> (l_handle % WORD_BITS);
        if (l_rest != 0)
        {
            return l_handle + __builtin_ctzl(l_rest);
        }
        l_handle = (l_handle / WORD_BITS + 1) * WORD_BITS;
    }
    return OS_INVALID;
}

fd_set* FdSet::view()
{
    return &iv_Set;
}

} // namespace tolv

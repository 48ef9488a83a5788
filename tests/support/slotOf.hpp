// Tells where an operation stands in its class's virtual table.
#ifndef TOLV_TESTS_SUPPORT_SLOTOF_HPP
#define TOLV_TESTS_SUPPORT_SLOTOF_HPP

#include <cstddef>
#include <cstring>

/// The slot of a virtual operation, the first is 0. A virtual destructor
/// takes two.
///
/// The C++ ABI of all targets of this library keeps in a pointer to a virtual
/// member function one more than its offset in the table.
template <class T>
std::size_t slotOf(T i_operation)
{
    std::size_t l_offset = 0;
    std::memcpy(&l_offset, &i_operation, sizeof(l_offset));
    return (l_offset - 1) / sizeof(void*);
}

#endif

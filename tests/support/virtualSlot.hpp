// Helper for tests: where a virtual function stands in its class's table.
#ifndef TOLV_TESTS_SUPPORT_VIRTUALSLOT_HPP
#define TOLV_TESTS_SUPPORT_VIRTUALSLOT_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>

/// The slot of a virtual member function, counted from 0.
///
/// In the C++ ABI of the platforms this library runs on a pointer to a virtual
/// member function begins with the function's offset in the table plus one.
template <class MEMBER_FUNCTION>
std::size_t virtualSlot(MEMBER_FUNCTION i_function)
{
    std::uintptr_t l_word = 0;
    static_assert(sizeof(i_function) >= sizeof(l_word), "pointer to member");
    std::memcpy(&l_word, &i_function, sizeof(l_word));
    return (l_word - 1) / sizeof(void*);
}

/// How many slots the table of T has, both of its destructor included: the
/// slot that a derived class's first function of its own gets.
template <class T>
std::size_t virtualSlots()
{
    struct Derived : T
    {
        virtual void first() = 0;
    };
    return virtualSlot(&Derived::first);
}

#endif

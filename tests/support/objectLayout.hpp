// Helper for tests: where the members of a class stand, private ones too.
#ifndef TOLV_TESTS_SUPPORT_OBJECTLAYOUT_HPP
#define TOLV_TESTS_SUPPORT_OBJECTLAYOUT_HPP

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include <tuple>
#include <vector>

#pragma GCC diagnostic push
#ifndef __clang__
// Each class is to have a function of its own here, no template.
#pragma GCC diagnostic ignored "-Wnon-template-friend"
#endif

/// Stands for the members of T in a call.
template <class T>
struct Members
{
    friend auto members(Members<T> /*i_of*/);
};

#pragma GCC diagnostic pop

/// Opens the private members of a class, because the language does not check
/// access in an explicit instantiation. After
///
///     template struct Open<Box, &Box::iv_Width, &Box::iv_Height>;
///
/// members(Members<Box>()) is a tuple of these pointers to members.
template <class T, auto... MEMBERS>
struct Open
{
    friend auto members(Members<T> /*i_of*/)
    {
        return std::make_tuple(MEMBERS...);
    }
};

/// Bytes from the start of an object to its member.
///
/// In the C++ ABI of the platforms this library runs on a pointer to a data
/// member is that offset.
template <class T, class M>
std::size_t memberOffset(M T::*i_member)
{
    std::ptrdiff_t l_offset = 0;
    static_assert(sizeof(i_member) == sizeof(l_offset), "pointer to member");
    std::memcpy(&l_offset, &i_member, sizeof(l_offset));
    return static_cast<std::size_t>(l_offset);
}

/// The offsets of the members of an opened class, in the order given there.
template <class T>
std::vector<std::size_t> memberOffsets()
{
    return std::apply(
        [](auto... i_member)
        { return std::vector<std::size_t>{memberOffset(i_member)...}; },
        members(Members<T>()));
}

/// Where the next member goes when i_size bytes are taken.
inline std::size_t alignedUp(std::size_t i_size, std::size_t i_alignment)
{
    return (i_size + i_alignment - 1) / i_alignment * i_alignment;
}

/// Expects the member to follow what has ended at io_end, with no more padding
/// than its type needs, and moves io_end behind it.
template <class T, class M>
void expectNext(M T::*i_member, std::size_t i_index, std::size_t& io_end)
{
    const std::size_t l_expected = alignedUp(io_end, alignof(M));
    EXPECT_EQ(l_expected, memberOffset(i_member)) << "member " << i_index;
    io_end = l_expected + sizeof(M);
}

/// Expects the members of an opened class to be all that it has behind its
/// first i_base bytes, in the order given there.
template <class T>
void expectLayout(std::size_t i_base)
{
    std::size_t l_end = i_base;
    std::size_t l_index = 0;
    std::apply([&](auto... i_member)
               { (expectNext(i_member, l_index++, l_end), ...); },
               members(Members<T>()));
    EXPECT_EQ(sizeof(T), alignedUp(l_end, alignof(T)));
}

#endif

#include "tolv/vex/tolvFdSet.hpp"

#include <gtest/gtest.h>

#include <sys/select.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <vector>

using namespace tolv;

namespace
{

constexpr std::size_t WORDS = 32;

// What select() gets, as 32-bit words.
std::vector<std::uint32_t> words(FdSet& io_set)
{
    static_assert(sizeof(fd_set) == WORDS * sizeof(std::uint32_t), "1024 bits");
    std::vector<std::uint32_t> l_words(WORDS);
    std::memcpy(l_words.data(), io_set.view(), sizeof(fd_set));
    return l_words;
}

std::vector<OS_HANDLE> members(const FdSet& i_set)
{
    std::vector<OS_HANDLE> l_members;
    for (OS_HANDLE l_handle = i_set.next(0); l_handle != OS_INVALID;
         l_handle = i_set.next(l_handle + 1))
    {
        l_members.push_back(l_handle);
    }
    return l_members;
}

} // namespace

TEST(FdSetTest, IsEmptyAtFirst)
{
    FdSet l_set;
    EXPECT_EQ(OS_INVALID, l_set.highest());
    EXPECT_EQ(OS_INVALID, l_set.next(0));
    EXPECT_EQ(std::vector<std::uint32_t>(WORDS, 0), words(l_set));
}

TEST(FdSetTest, HoldsEveryDescriptorBelow1024)
{
    FdSet l_set;
    for (OS_HANDLE l_handle = 0; l_handle != 1024; ++l_handle)
    {
        EXPECT_FALSE(l_set.isSet(l_handle));
        l_set.set(l_handle);
        EXPECT_TRUE(l_set.isSet(l_handle));
        EXPECT_TRUE(FD_ISSET(l_handle, l_set.view()));
        EXPECT_EQ(l_handle, l_set.highest());
    }
    EXPECT_EQ(std::vector<std::uint32_t>(WORDS, 0xFFFFFFFF), words(l_set));
}

TEST(FdSetTest, DescriptorIsABitOfItsWord)
{
    FdSet l_set;
    l_set.set(0);
    l_set.set(37);
    l_set.set(1023);
    std::vector<std::uint32_t> l_expected(WORDS, 0);
    l_expected[0] = 1U;
    l_expected[1] = 1U << 5;
    l_expected[31] = 1U << 31;
    EXPECT_EQ(l_expected, words(l_set));
}

TEST(FdSetTest, LowerDescriptorLeavesTheHighest)
{
    FdSet l_set;
    l_set.set(700);
    l_set.set(3);
    l_set.set(700);
    EXPECT_EQ(700, l_set.highest());
}

TEST(FdSetTest, ResetLowersTheHighestToTheNextOne)
{
    FdSet l_set;
    l_set.set(3);
    l_set.set(500);
    l_set.set(1023);
    l_set.reset(500);
    EXPECT_EQ(1023, l_set.highest());
    l_set.reset(1023);
    EXPECT_EQ(3, l_set.highest());
    l_set.reset(3);
    EXPECT_EQ(OS_INVALID, l_set.highest());
    l_set.reset(3);
    EXPECT_EQ(OS_INVALID, l_set.highest());
}

TEST(FdSetTest, ClearEmpties)
{
    FdSet l_set;
    l_set.set(0);
    l_set.set(1023);
    l_set.clear();
    EXPECT_EQ(OS_INVALID, l_set.highest());
    EXPECT_EQ(std::vector<std::uint32_t>(WORDS, 0), words(l_set));
}

TEST(FdSetTest, NextFindsEveryDescriptorInAscendingOrder)
{
    const std::vector<OS_HANDLE> l_handles{0,   1,   31,  32,  63,   64,
                                           127, 128, 500, 991, 1022, 1023};
    FdSet l_set;
    for (const OS_HANDLE l_handle : l_handles)
    {
        l_set.set(l_handle);
    }
    EXPECT_EQ(l_handles, members(l_set));
    EXPECT_EQ(64, l_set.next(64));
    EXPECT_EQ(127, l_set.next(65));
    EXPECT_EQ(1023, l_set.next(1023));
    EXPECT_EQ(OS_INVALID, l_set.next(1024));
}

TEST(FdSetTest, NextAgreesWithEverySingleDescriptor)
{
    for (OS_HANDLE l_handle = 0; l_handle != FdSet::SIZE; ++l_handle)
    {
        FdSet l_set;
        l_set.set(l_handle);
        EXPECT_EQ(l_handle, l_set.next(0));
        EXPECT_EQ(l_handle, l_set.next(l_handle));
        EXPECT_EQ(OS_INVALID, l_set.next(l_handle + 1));
    }
}

TEST(FdSetTest, ShowsWhatSelectLeft)
{
    FdSet l_set;
    l_set.set(5);
    l_set.set(900);
    l_set.set(1000);
    FD_CLR(5, l_set.view()); // as select() does for what is not ready
    FD_CLR(1000, l_set.view());
    EXPECT_EQ((std::vector<OS_HANDLE>{900}), members(l_set));
    EXPECT_FALSE(l_set.isSet(5));
    EXPECT_EQ(1000, l_set.highest());
}

TEST(FdSetTest, CopyIsASetOfItsOwn)
{
    FdSet l_set;
    l_set.set(8);
    FdSet l_copy(l_set);
    l_copy.set(9);
    l_copy.reset(8);
    EXPECT_EQ((std::vector<OS_HANDLE>{8}), members(l_set));
    EXPECT_EQ((std::vector<OS_HANDLE>{9}), members(l_copy));
}

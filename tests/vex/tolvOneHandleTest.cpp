#include "tolv/vex/tolvOneHandle.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>

#include <algorithm>
#include <limits>

using namespace tolv;

namespace
{

// Whether the set has this bit and no other below it.
bool hasOnly(OneHandle& io_set, OS_HANDLE i_handle)
{
    const fd_mask* const l_words =
        reinterpret_cast<const fd_mask*>(io_set.view());
    for (OS_HANDLE l_handle = 0; l_handle <= i_handle; ++l_handle)
    {
        const unsigned long l_bit = 1UL << (l_handle % NFDBITS);
        const auto l_word =
            static_cast<unsigned long>(l_words[l_handle / NFDBITS]);
        if (((l_word & l_bit) != 0) != (l_handle == i_handle))
        {
            return false;
        }
    }
    return true;
}

} // namespace

TEST(OneHandleTest, SetHasTheHandleAndNoOther)
{
    for (const OS_HANDLE l_handle :
         {0, 1, 31, 32, 63, 64, 1023, 1024, 1025, 2047, 70000})
    {
        OneHandle l_set(l_handle);
        EXPECT_TRUE(l_set.isSet()) << l_handle;
        EXPECT_TRUE(hasOnly(l_set, l_handle)) << l_handle;
    }
}

TEST(OneHandleTest, HandleThatSelectTookOutIsNotSet)
{
    for (const OS_HANDLE l_handle : {5, 1500})
    {
        OneHandle l_set(l_handle);
        const auto l_word = static_cast<std::size_t>(l_handle / NFDBITS);
        std::memset(l_set.view(), 0, l_word * sizeof(fd_mask));
        EXPECT_TRUE(l_set.isSet());
        std::memset(l_set.view(), 0, (l_word + 1) * sizeof(fd_mask));
        EXPECT_FALSE(l_set.isSet());
    }
}

TEST(OneHandleTest, NegativeHandleMakesAnEmptySet)
{
    OneHandle l_set(-1);
    EXPECT_FALSE(l_set.isSet());
    const fd_set l_empty = {};
    EXPECT_EQ(0, std::memcmp(&l_empty, l_set.view(), sizeof(l_empty)));
}

TEST(OneHandleTest, TimeOutKeepsItsSecondsAndMicroseconds)
{
    const timeval l_span = toTimeval(TimeValue(0x7FFFFFFF, 999999));
    EXPECT_EQ(0x7FFFFFFF, l_span.tv_sec);
    EXPECT_EQ(999999, l_span.tv_usec);
}

TEST(OneHandleTest, TimeOutThatATimeDoesNotHoldIsTheLongest)
{
    const std::int64_t l_longest = std::numeric_limits<time_t>::max();
    for (const std::uint32_t l_seconds : {0x80000000U, 0xFFFFFFFFU})
    {
        EXPECT_EQ(std::min<std::int64_t>(l_seconds, l_longest),
                  toTimeval(TimeValue(l_seconds)).tv_sec);
    }
}

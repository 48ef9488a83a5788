#include "tolv/vex/tolvDataBuff.hpp"

#include "support/dataBuffBytes.hpp"
#include "support/expectAbort.hpp"
#include "support/fakePlatform.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <string>

using namespace tolv;

namespace
{

constexpr unsigned int MOST = 0xFFFFFFFF;

std::size_t g_lastSize = 0; // of the block allocated last
bool g_outOfMemory = false;

} // namespace

extern "C"
{
    void* __real_malloc(std::size_t i_size);
    void* __real_realloc(void* i_block, std::size_t i_size);

    void* __wrap_malloc(std::size_t i_size)
    {
        g_lastSize = i_size;
        return g_outOfMemory ? nullptr : __real_malloc(i_size);
    }

    void* __wrap_realloc(void* i_block, std::size_t i_size)
    {
        g_lastSize = i_size;
        return g_outOfMemory ? nullptr : __real_realloc(i_block, i_size);
    }
}

TEST(DataBuffTest, NewBufferHoldsUnwrittenBytes)
{
    const DataBuff l_buffer(4);
    EXPECT_EQ(4U, l_buffer.getSize());
    EXPECT_EQ(0U, l_buffer.getOffset());
    EXPECT_EQ("\x43\x43\x43\x43", bytesOf(l_buffer));
    EXPECT_EQ(0, std::memcmp("CCCC", l_buffer.getData(), 4));
}

TEST(DataBuffTest, BlockIsExactlyAsLargeAsTheBuffer)
{
    DataBuff l_buffer(37);
    EXPECT_EQ(37U, g_lastSize);
    l_buffer.Resize(53);
    EXPECT_EQ(53U, g_lastSize);
    l_buffer.Append(DataBuff(10), 50);
    EXPECT_EQ(60U, g_lastSize);
    l_buffer.TrimFront(41);
    EXPECT_EQ(19U, g_lastSize);
    l_buffer.Resize(3);
    EXPECT_EQ(3U, g_lastSize);
    l_buffer = DataBuff(71);
    EXPECT_EQ(71U, g_lastSize);
}

TEST(DataBuffTest, EmptyBufferTakesPartInEverything)
{
    DataBuff l_empty(0);
    EXPECT_EQ(0U, l_empty.getSize());
    EXPECT_EQ(0U, l_empty.getOffset());
    EXPECT_EQ(nullptr, l_empty.getData());
    l_empty.Reset('x');
    l_empty.Resize(0);
    l_empty.TrimFront(0);
    l_empty.setOffset(0);
    l_empty.Peek(0, nullptr, 0);
    l_empty.Poke(0, nullptr, 0);
    l_empty.Append(DataBuff(0), 0);
    l_empty.Copy(l_empty, 0, 0, 0);
    const DataBuff l_copy(l_empty);
    EXPECT_TRUE(l_copy == l_empty);
    DataBuff l_assigned(3);
    l_assigned = l_empty;
    EXPECT_EQ(0U, l_assigned.getSize());
    EXPECT_EQ(nullptr, l_assigned.getData());
    EXPECT_EQ(0U, l_empty.getSize());
}

TEST(DataBuffTest, CopyHasTheBytesAndTheOffset)
{
    const DataBuff l_source = bufferOf("abcdef", 4);
    const DataBuff l_copy(l_source);
    EXPECT_EQ("abcdef", bytesOf(l_copy));
    EXPECT_EQ(4U, l_copy.getOffset());
    EXPECT_NE(l_source.getData(), l_copy.getData());
}

TEST(DataBuffTest, AssignmentTakesSizeBytesAndOffset)
{
    DataBuff l_buffer = bufferOf("0123456789", 9);
    l_buffer = bufferOf("abc", 2);
    EXPECT_EQ("abc", bytesOf(l_buffer));
    EXPECT_EQ(2U, l_buffer.getOffset());
    l_buffer = bufferOf("abcdefgh", 8);
    EXPECT_EQ("abcdefgh", bytesOf(l_buffer));
    EXPECT_EQ(8U, l_buffer.getOffset());
}

TEST(DataBuffTest, AssignmentOfTheSameSizeKeepsTheBlock)
{
    DataBuff l_buffer = bufferOf("abc");
    const DataBuff l_other = bufferOf("xyz", 1);
    g_lastSize = 0;
    l_buffer = l_other;
    EXPECT_EQ(0U, g_lastSize) << "a block was allocated";
    EXPECT_EQ("xyz", bytesOf(l_buffer));
    EXPECT_EQ(1U, l_buffer.getOffset());
}

TEST(DataBuffTest, AssigningItselfChangesNothing)
{
    DataBuff l_buffer = bufferOf("abc", 2);
    const DataBuff& l_same = l_buffer;
    DataBuff& l_result = l_buffer = l_same;
    EXPECT_EQ(&l_buffer, &l_result);
    EXPECT_EQ("abc", bytesOf(l_buffer));
    EXPECT_EQ(2U, l_buffer.getOffset());
}

TEST(DataBuffTest, EqualityIsThatOfSizeAndBytes)
{
    EXPECT_TRUE(bufferOf("abc") == bufferOf("abc"));
    EXPECT_TRUE(bufferOf("abc", 0) == bufferOf("abc", 3));
    EXPECT_FALSE(bufferOf("abc") == bufferOf("abd"));
    EXPECT_FALSE(bufferOf("abc") == bufferOf("ab"));
    EXPECT_FALSE(bufferOf(std::string("a\0b", 3)) ==
                 bufferOf(std::string("a\0c", 3)));
    EXPECT_FALSE(DataBuff(0) == DataBuff(1));
}

TEST(DataBuffTest, ShrinkingBelowTheOffsetResetsIt)
{
    DataBuff l_buffer = bufferOf("0123456789", 8);
    l_buffer.Resize(6);
    EXPECT_EQ("012345", bytesOf(l_buffer));
    EXPECT_EQ(0U, l_buffer.getOffset());
}

TEST(DataBuffTest, ShrinkingToTheOffsetKeepsIt)
{
    DataBuff l_buffer = bufferOf("0123456789", 8);
    l_buffer.Resize(8);
    EXPECT_EQ("01234567", bytesOf(l_buffer));
    EXPECT_EQ(8U, l_buffer.getOffset());
}

TEST(DataBuffTest, GrowingKeepsBytesAndOffsetAndFillsUp)
{
    DataBuff l_buffer = bufferOf("abc", 2);
    l_buffer.Resize(100);
    EXPECT_EQ("abc" + std::string(97, 'C'), bytesOf(l_buffer));
    EXPECT_EQ(2U, l_buffer.getOffset());
}

TEST(DataBuffTest, ResizingToItsSizeChangesNothing)
{
    DataBuff l_buffer = bufferOf("abc", 3);
    l_buffer.Resize(3);
    EXPECT_EQ("abc", bytesOf(l_buffer));
    EXPECT_EQ(3U, l_buffer.getOffset());
}

TEST(DataBuffTest, EmptiedBufferGrowsAgainLikeANewOne)
{
    DataBuff l_buffer = bufferOf("abc", 3);
    l_buffer.Resize(0);
    EXPECT_EQ(nullptr, l_buffer.getData());
    EXPECT_EQ(0U, l_buffer.getOffset());
    l_buffer.Resize(5);
    EXPECT_EQ("CCCCC", bytesOf(l_buffer));
    EXPECT_EQ(0U, l_buffer.getOffset());
}

TEST(DataBuffTest, ResetFillsAndRewinds)
{
    DataBuff l_buffer = bufferOf("abc", 3);
    l_buffer.Reset('\xFF');
    EXPECT_EQ("\xFF\xFF\xFF", bytesOf(l_buffer));
    EXPECT_EQ(0U, l_buffer.getOffset());
}

TEST(DataBuffTest, TrimFrontDropsTheFirstBytesAndRewinds)
{
    DataBuff l_buffer = bufferOf("0123456789", 9);
    l_buffer.TrimFront(3);
    EXPECT_EQ("3456789", bytesOf(l_buffer));
    EXPECT_EQ(0U, l_buffer.getOffset());

    l_buffer.setOffset(2);
    l_buffer.TrimFront(0);
    EXPECT_EQ("3456789", bytesOf(l_buffer));
    EXPECT_EQ(0U, l_buffer.getOffset());

    l_buffer.setOffset(7);
    l_buffer.TrimFront(7);
    EXPECT_EQ(0U, l_buffer.getSize());
    EXPECT_EQ(0U, l_buffer.getOffset());
    EXPECT_EQ(nullptr, l_buffer.getData());
}

TEST(DataBuffTest, OffsetGoesUpToTheSize)
{
    DataBuff l_buffer(4);
    l_buffer.setOffset(4);
    EXPECT_EQ(4U, l_buffer.getOffset());
    l_buffer.setOffset(0);
    EXPECT_EQ(0U, l_buffer.getOffset());
}

TEST(DataBuffTest, PeekCopiesOutAndLeavesTheOffset)
{
    const DataBuff l_buffer = bufferOf("abcdef", 1);
    char l_bytes[] = "......";
    l_buffer.Peek(2, l_bytes + 1, 4);
    EXPECT_STREQ(".cdef.", l_bytes);
    l_buffer.Peek(6, nullptr, 0);
    EXPECT_EQ(1U, l_buffer.getOffset());
}

TEST(DataBuffTest, PokeCopiesInAndLeavesTheOffset)
{
    const DataBuff l_buffer = bufferOf("abcdef", 1);
    l_buffer.Poke(2, "1234", 4);
    EXPECT_EQ("ab1234", bytesOf(l_buffer));
    l_buffer.Poke(6, nullptr, 0);
    EXPECT_EQ(1U, l_buffer.getOffset());
}

TEST(DataBuffTest, NumbersAreStoredAsTheyLieInMemory)
{
    DataBuff l_buffer(4);
    const std::uint32_t l_number = 0x01020304;
    l_buffer.Poke(0, &l_number, 4);
    EXPECT_EQ(0, std::memcmp(&l_number, l_buffer.getData(), 4));
}

TEST(DataBuffTest, PokeFromItsOwnBlockMovesInBothDirections)
{
    const DataBuff l_buffer = bufferOf("0123456789");
    l_buffer.Poke(2, l_buffer.getData(), 6);
    EXPECT_EQ("0101234589", bytesOf(l_buffer));
    l_buffer.Poke(0, l_buffer.getData() + 2, 8);
    EXPECT_EQ("0123458989", bytesOf(l_buffer));
}

TEST(DataBuffTest, AppendGrowsWhereNeededAndMovesTheOffsetBehindIt)
{
    DataBuff l_buffer = bufferOf("abcd");
    l_buffer.Append(bufferOf("xyz"), 2);
    EXPECT_EQ("abxyz", bytesOf(l_buffer));
    EXPECT_EQ(5U, l_buffer.getOffset());
}

TEST(DataBuffTest, AppendInsideKeepsTheSize)
{
    DataBuff l_buffer = bufferOf("abcdef", 6);
    l_buffer.Append(bufferOf("xy", 1), 1);
    EXPECT_EQ("axydef", bytesOf(l_buffer));
    EXPECT_EQ(3U, l_buffer.getOffset());
    l_buffer.Append(bufferOf("z"), 5);
    EXPECT_EQ("axydez", bytesOf(l_buffer));
    EXPECT_EQ(6U, l_buffer.getOffset());
}

TEST(DataBuffTest, AppendBeyondTheEndLeavesUnwrittenBytesBetween)
{
    DataBuff l_buffer = bufferOf("abc");
    l_buffer.Append(bufferOf("xyz"), 6);
    EXPECT_EQ("abcCCCxyz", bytesOf(l_buffer));
    EXPECT_EQ(9U, l_buffer.getOffset());
}

TEST(DataBuffTest, AppendOfAnEmptyBufferOnlyMovesTheOffset)
{
    DataBuff l_buffer = bufferOf("abc", 3);
    l_buffer.Append(DataBuff(0), 1);
    EXPECT_EQ("abc", bytesOf(l_buffer));
    EXPECT_EQ(1U, l_buffer.getOffset());
    l_buffer.Append(DataBuff(0), 5);
    EXPECT_EQ("abcCC", bytesOf(l_buffer));
    EXPECT_EQ(5U, l_buffer.getOffset());
}

TEST(DataBuffTest, AppendToAnEmptyBufferMakesIt)
{
    DataBuff l_buffer(0);
    l_buffer.Append(bufferOf("abc"), 0);
    EXPECT_EQ("abc", bytesOf(l_buffer));
    EXPECT_EQ(3U, l_buffer.getOffset());
}

TEST(DataBuffTest, AppendOfItselfTakesTheBytesFromBefore)
{
    DataBuff l_behind = bufferOf("abc");
    l_behind.Append(l_behind, 3);
    EXPECT_EQ("abcabc", bytesOf(l_behind));
    EXPECT_EQ(6U, l_behind.getOffset());

    DataBuff l_overlapping = bufferOf("0123456789");
    l_overlapping.Append(l_overlapping, 3);
    EXPECT_EQ("0120123456789", bytesOf(l_overlapping));
    EXPECT_EQ(13U, l_overlapping.getOffset());
}

TEST(DataBuffTest, CopyLeavesBothOffsets)
{
    DataBuff l_source = bufferOf("abcdef", 1);
    DataBuff l_buffer = bufferOf("0123456789", 2);
    l_buffer.Copy(l_source, 3, 7, 2);
    EXPECT_EQ("0123456cde", bytesOf(l_buffer));
    EXPECT_EQ("abcdef", bytesOf(l_source));
    EXPECT_EQ(1U, l_source.getOffset());
    EXPECT_EQ(2U, l_buffer.getOffset());
    l_buffer.Copy(l_source, 6, 4, 0);
    EXPECT_EQ("0123abcdef", bytesOf(l_buffer));
    l_buffer.Copy(l_source, 0, 10, 6);
    EXPECT_EQ("0123abcdef", bytesOf(l_buffer));
}

TEST(DataBuffTest, CopyWithinItselfMovesInBothDirections)
{
    DataBuff l_buffer = bufferOf("0123456789");
    l_buffer.Copy(l_buffer, 6, 2, 0);
    EXPECT_EQ("0101234589", bytesOf(l_buffer));
    l_buffer.Copy(l_buffer, 8, 0, 2);
    EXPECT_EQ("0123458989", bytesOf(l_buffer));
}

TEST(DataBuffTest, DumpPrintsNothing)
{
    DataBuff l_buffer = bufferOf("abc", 2);
    FILE* l_stream = std::tmpfile();
    ASSERT_NE(nullptr, l_stream);
    l_buffer.Dump(l_stream);
    EXPECT_EQ(0, std::ftell(l_stream));
    std::fclose(l_stream);
    l_buffer.Dump(nullptr);
    EXPECT_EQ(2U, l_buffer.getOffset());
}

TEST(DataBuffDeathTest, OffsetBeyondTheSizeAborts)
{
    DataBuff l_buffer(4);
    EXPECT_ABORT(l_buffer.setOffset(5));
    EXPECT_ABORT(l_buffer.setOffset(MOST));
    EXPECT_ABORT(DataBuff(0).setOffset(1));
}

TEST(DataBuffDeathTest, TrimmingMoreThanThereIsAborts)
{
    DataBuff l_buffer(4);
    EXPECT_ABORT(l_buffer.TrimFront(5));
    EXPECT_ABORT(l_buffer.TrimFront(MOST));
    EXPECT_ABORT(DataBuff(0).TrimFront(1));
}

TEST(DataBuffDeathTest, PeekOutsideAborts)
{
    const DataBuff l_buffer(4);
    char l_bytes[8];
    l_buffer.Peek(0, l_bytes, 4);
    l_buffer.Peek(3, l_bytes, 1);
    EXPECT_ABORT(l_buffer.Peek(0, l_bytes, 5));
    EXPECT_ABORT(l_buffer.Peek(4, l_bytes, 1));
    EXPECT_ABORT(l_buffer.Peek(5, l_bytes, 0));
    EXPECT_ABORT(l_buffer.Peek(MOST, l_bytes, 1));
    EXPECT_ABORT(l_buffer.Peek(MOST, l_bytes, 5));
    EXPECT_ABORT(l_buffer.Peek(4, l_bytes, MOST));
    EXPECT_ABORT(l_buffer.Peek(MOST - 3, l_bytes, 4));
}

TEST(DataBuffDeathTest, PokeOutsideAborts)
{
    const DataBuff l_buffer(4);
    const char l_bytes[8] = "";
    l_buffer.Poke(0, l_bytes, 4);
    l_buffer.Poke(3, l_bytes, 1);
    EXPECT_ABORT(l_buffer.Poke(0, l_bytes, 5));
    EXPECT_ABORT(l_buffer.Poke(4, l_bytes, 1));
    EXPECT_ABORT(l_buffer.Poke(5, l_bytes, 0));
    EXPECT_ABORT(l_buffer.Poke(MOST, l_bytes, 1));
    EXPECT_ABORT(l_buffer.Poke(MOST, l_bytes, 5));
    EXPECT_ABORT(l_buffer.Poke(4, l_bytes, MOST));
    EXPECT_ABORT(l_buffer.Poke(MOST - 3, l_bytes, 4));
}

TEST(DataBuffDeathTest, CopyOutsideEitherBufferAborts)
{
    DataBuff l_source(6);
    DataBuff l_buffer(4);
    l_buffer.Copy(l_source, 4, 0, 2);
    EXPECT_ABORT(l_buffer.Copy(l_source, 5, 0, 0));
    EXPECT_ABORT(l_buffer.Copy(l_source, 1, 4, 0));
    EXPECT_ABORT(l_buffer.Copy(l_source, 4, 0, 3));
    EXPECT_ABORT(l_buffer.Copy(l_source, 1, 0, 6));
    EXPECT_ABORT(l_buffer.Copy(l_source, 0, 5, 0));
    EXPECT_ABORT(l_buffer.Copy(l_source, 0, 0, 7));
    EXPECT_ABORT(l_buffer.Copy(l_source, 2, MOST, 0));
    EXPECT_ABORT(l_buffer.Copy(l_source, 2, 0, MOST));
    EXPECT_ABORT(l_buffer.Copy(l_source, MOST, 1, 1));
}

TEST(DataBuffDeathTest, AppendBeyondTheLargestSizeAborts)
{
    DataBuff l_buffer(4);
    EXPECT_ABORT(l_buffer.Append(DataBuff(3), MOST - 2));
    EXPECT_ABORT(l_buffer.Append(l_buffer, MOST));
}

TEST(DataBuffDeathTest, BlockThatCannotBeAllocatedAborts)
{
    DataBuff l_buffer(4);
    const DataBuff l_larger(5);
    g_outOfMemory = true;
    EXPECT_ABORT(DataBuff(1));
    EXPECT_ABORT(l_buffer.Resize(5));
    EXPECT_ABORT(l_buffer.Append(l_buffer, 1));
    EXPECT_ABORT(l_buffer = l_larger);
    EXPECT_ABORT(DataBuff l_copy(l_larger));
    g_outOfMemory = false;
}

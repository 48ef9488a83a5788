#include "tolv/platform/host/hostTraceRing.hpp"

#include "tolv/platform/host/hostTraceSegment.hpp"

#include <gtest/gtest.h>

#include <cstdint>

#include <algorithm>
#include <memory>
#include <new>
#include <string>

using namespace tolvhost;

namespace
{

constexpr std::uint32_t SIZE = 64;

class TraceRingTest : public testing::Test
{
  protected:
    void append(const std::string& i_line)
    {
        iv_Ring.append(i_line.data(),
                       static_cast<std::uint32_t>(i_line.size()));
    }

    std::string newest(std::uint32_t i_room = SIZE)
    {
        std::string l_text(i_room, '#');
        l_text.resize(iv_Ring.newest(l_text.data(), i_room));
        return l_text;
    }

    std::string allOf() const
    {
        return {ringOf(iv_Segment), SIZE};
    }

    // Of exactly the size, so that a sanitizer sees any step beyond.
    const std::unique_ptr<char[]> iv_Memory{
        new char[sizeof(TraceSegment) + SIZE]()};
    TraceSegment* const iv_Segment = new (iv_Memory.get()) TraceSegment();
    TraceRing iv_Ring{iv_Segment, SIZE};
};

// A line of i_length bytes, its newline included.
std::string line(char i_letter, std::size_t i_length)
{
    return std::string(i_length - 1, i_letter) + '\n';
}

} // namespace

TEST_F(TraceRingTest, NewRingIsEmpty)
{
    EXPECT_EQ("", newest());
}

TEST_F(TraceRingTest, LinesComeOldestFirst)
{
    append("one\n");
    append("two\n");
    append("three\n");
    EXPECT_EQ("one\ntwo\nthree\n", newest());
    EXPECT_EQ("one\ntwo\nthree\n", newest()) << "reading takes nothing away";
}

TEST_F(TraceRingTest, RingHoldsAsManyBytesAsItsSize)
{
    append(line('a', 32));
    append(line('b', 32));
    EXPECT_EQ(line('a', 32) + line('b', 32), newest());
    append("\n");
    EXPECT_EQ(line('b', 32) + "\n", newest());
}

TEST_F(TraceRingTest, OnlyWholeLinesAreDropped)
{
    append(line('a', 20));
    append(line('b', 20));
    append(line('c', 20));
    append(line('d', 5));
    EXPECT_EQ(line('b', 20) + line('c', 20) + line('d', 5), newest());
    append(line('e', 40));
    EXPECT_EQ(line('d', 5) + line('e', 40), newest());
}

TEST_F(TraceRingTest, LineAsLargeAsTheRingTakesAllOfIt)
{
    append("one\n");
    append(line('a', SIZE));
    EXPECT_EQ(line('a', SIZE), newest());
    append("one\n");
    EXPECT_EQ("one\n", newest());
}

TEST_F(TraceRingTest, RoomLimitsTheCopyToWholeLines)
{
    append("one\n");
    append("two\n");
    append("three\n");
    EXPECT_EQ("one\ntwo\nthree\n", newest(14));
    EXPECT_EQ("two\nthree\n", newest(13));
    EXPECT_EQ("two\nthree\n", newest(10));
    EXPECT_EQ("three\n", newest(9));
    EXPECT_EQ("three\n", newest(6));
    EXPECT_EQ("", newest(5));
    EXPECT_EQ("", newest(0));
}

TEST_F(TraceRingTest, AllSequencesOfLengthsKeepTheNewestLines)
{
    std::string l_all;
    for (std::size_t l_round = 0; l_round != 2000; ++l_round)
    {
        const std::string l_line = line(static_cast<char>('a' + l_round % 26),
                                        1 + l_round * l_round % SIZE);
        append(l_line);
        l_all += l_line;
        for (std::uint32_t l_room = 0; l_room <= SIZE; l_room += 16)
        {
            // The model: the longest end of everything that begins at the
            // front of a line.
            std::size_t l_begin =
                l_all.size() - std::min<std::size_t>(l_room, l_all.size());
            while (l_begin != 0 && l_begin != l_all.size() &&
                   l_all[l_begin - 1] != '\n')
            {
                ++l_begin;
            }
            ASSERT_EQ(l_all.substr(l_begin), newest(l_room))
                << "round " << l_round << ", room " << l_room;
        }
    }
}

TEST_F(TraceRingTest, PositionsRunOverTheirLargestValue)
{
    iv_Segment->begin = 0xFFFFFFE0;
    iv_Segment->end = 0xFFFFFFE0;
    append(line('a', 20));
    append(line('b', 20));
    append(line('c', 20));
    EXPECT_EQ(line('a', 20) + line('b', 20) + line('c', 20), newest());
    EXPECT_EQ(line('c', 20), newest(30));
    EXPECT_EQ(0xFFFFFFE0U + 60, iv_Segment->end);
}

TEST_F(TraceRingTest, WriterThatDiesInTheMiddleLeavesWholeLines)
{
    append(line('a', 30));
    append(line('b', 30));
    // It has made room and copied half of its line, but not moved the end.
    iv_Segment->begin = 30;
    ringOf(iv_Segment)[60] = 'c';
    ringOf(iv_Segment)[0] = 'c';
    EXPECT_EQ(line('b', 30), newest());
}

TEST_F(TraceRingTest, PositionsFartherApartThanTheRingCountAsEmpty)
{
    append("one\n");
    iv_Segment->begin = 5;
    EXPECT_EQ("", newest());
    append("two\n");
    EXPECT_EQ("two\n", newest());
    iv_Segment->end = iv_Segment->begin + SIZE + 1;
    EXPECT_EQ("", newest());
    append("three\n");
    EXPECT_EQ("three\n", newest());
}

TEST_F(TraceRingTest, TextWithoutLinesIsDroppedAsAWhole)
{
    iv_Segment->end = SIZE;
    EXPECT_EQ(allOf(), newest());
    EXPECT_EQ("", newest(SIZE - 1));
    append("one\n");
    EXPECT_EQ("one\n", newest());
}

TEST_F(TraceRingTest, NoDamageLeadsOutsideOfTheRing)
{
    std::uint32_t l_random = 1;
    const auto l_next = [&l_random]
    { return l_random = l_random * 1664525 + 1013904223; };
    for (int l_round = 0; l_round != 20000; ++l_round)
    {
        iv_Segment->begin = l_next();
        iv_Segment->end = (l_next() >> 31) != 0
                              ? l_next()
                              : iv_Segment->begin + (l_next() >> 24);
        ringOf(iv_Segment)[l_next() % SIZE] = '\n';
        const std::string l_line = line('x', 1 + (l_next() >> 16) % SIZE);
        EXPECT_GE(SIZE, newest((l_next() >> 16) % (SIZE + 1)).size());
        append(l_line);
        const std::string l_text = newest();
        ASSERT_LE(l_line.size(), l_text.size());
        EXPECT_EQ(l_line, l_text.substr(l_text.size() - l_line.size()));
    }
}

#include "tolv/platform/errorLogEntry.hpp"

#include "support/environment.hpp"
#include "support/tempDir.hpp"
#include "tolv/platform/traceBuffer.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include <new>
#include <string>
#include <vector>

bool g_memoryIsShort = false;

// The platform asks for memory in this way only.
void* operator new(std::size_t i_size, const std::nothrow_t& /*i_tag*/) noexcept
{
    return g_memoryIsShort ? nullptr : ::operator new(i_size);
}

void* operator new[](std::size_t i_size,
                     const std::nothrow_t& /*i_tag*/) noexcept
{
    return g_memoryIsShort ? nullptr : ::operator new[](i_size);
}

namespace
{

using Bytes = std::vector<unsigned char>;

// A committed entry with one trace, made byte by byte with other tools.
const Bytes& golden()
{
    static const Bytes s_golden = {
        0x54, 0x4F, 0x4C, 0x45,                         // magic
        0x00, 0x01, 0x00, 0x01,                         // version, flags
        0x00, 0x00, 0x00, 0x97,                         // length
        0x12, 0x34, 0x56, 0x78,                         // severity
        0x00, 0x00, 0x00, 0x01, 0x65, 0xA0, 0xBC, 0x42, // seconds
        0x3B, 0x9A, 0xC9, 0xFF,                         // nanoseconds
        0x00, 0x00, 0x44, 0x00, 0x00, 0x00, 0x44, 0x01, // fifteen values
        0x00, 0x00, 0x44, 0x02, 0x00, 0x00, 0x44, 0x03, //
        0x00, 0x00, 0x44, 0x04, 0x00, 0x00, 0x44, 0x05, //
        0x00, 0x00, 0x44, 0x06, 0x00, 0x00, 0x44, 0x07, //
        0x00, 0x00, 0x44, 0x08, 0x00, 0x00, 0x44, 0x09, //
        0x00, 0x00, 0x44, 0x0A, 0x00, 0x00, 0x44, 0x0B, //
        0x00, 0x00, 0x44, 0x0C, 0x00, 0x00, 0x44, 0x0D, //
        0xFF, 0xFF, 0xFF, 0xFF,                         //
        0x00, 0x00, 0x44, 0x00, 0x00, 0x00, 0x00, 0x00, // commit
        0x00, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x00, 0x00, //
        0x00, 0x00, 0x00, 0x01,                         // traces
        0x54, 0x4F, 0x4C, 0x56, 0x00, 0x00, 0x00, 0x00, // component
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, //
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, //
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, //
        0x00, 0x00, 0x00, 0x03, 0x61, 0x62, 0x0A,       // its trace
        0x68, 0x17, 0xA6, 0x85};
    return s_golden;
}

// Offsets of its fields.
constexpr std::size_t VERSION = 4;
constexpr std::size_t FLAGS = 6;
constexpr std::size_t LENGTH = 8;
constexpr std::size_t NANO_SECONDS = 24;
constexpr std::size_t TRACE_COUNT = 104;
constexpr std::size_t COMPONENT = 108;
constexpr std::size_t TRACE_LENGTH = 140;
constexpr std::size_t CHECKSUM = 147;

Bytes flat(const ErrorLogEntry& i_entry)
{
    Bytes l_flat(i_entry.flattenedSize());
    EXPECT_EQ(l_flat.size(),
              i_entry.flatten(l_flat.data(), i_entry.flattenedSize()));
    return l_flat;
}

void put32(Bytes& io_bytes, std::size_t i_offset, std::uint32_t i_value)
{
    for (std::size_t l_index = 0; l_index != 4; ++l_index)
    {
        io_bytes[i_offset + l_index] =
            static_cast<unsigned char>(i_value >> (24 - 8 * l_index));
    }
}

// Makes the checksum right again after a field was changed.
void sign(Bytes& io_flat)
{
    std::uint32_t l_crc = 0xFFFFFFFF;
    for (std::size_t l_index = 0; l_index != io_flat.size() - 4; ++l_index)
    {
        for (unsigned int l_bit = 0; l_bit != 8; ++l_bit)
        {
            const std::uint32_t l_byte = io_flat[l_index];
            const bool l_odd = ((l_crc ^ (l_byte >> l_bit)) & 1) != 0;
            l_crc = l_odd ? (l_crc >> 1) ^ 0xEDB88320 : l_crc >> 1;
        }
    }
    put32(io_flat, io_flat.size() - 4, ~l_crc);
}

// Gives the entry exactly these bytes, so that a sanitizer sees any step
// beyond, and expects that it refuses them and stays as it was.
void expectRefused(const Bytes& i_flat)
{
    ErrorLogEntry l_entry(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const Bytes l_before = flat(l_entry);
    EXPECT_FALSE(l_entry.unflatten(i_flat.data(),
                                   static_cast<unsigned int>(i_flat.size())));
    EXPECT_EQ(l_before, flat(l_entry));
}

class ErrorLogEntryTest : public testing::Test
{
  protected:
    ErrorLogEntryTest()
    {
        setVariable("TOLV_TRACE_DIR", iv_Folder.path());
    }

    const TempDir iv_Folder;
};

} // namespace

TEST_F(ErrorLogEntryTest, DefaultEntryHoldsZeros)
{
    const ErrorLogEntry l_entry;
    for (unsigned int l_index = 0; l_index != 15; ++l_index)
    {
        EXPECT_EQ(0U, l_entry.value(l_index));
    }
    EXPECT_EQ(0U, l_entry.getSeverity());
    EXPECT_FALSE(l_entry.isCommitted());
    EXPECT_EQ(0U, l_entry.getTraceCount());
}

TEST_F(ErrorLogEntryTest, ValuesKeepTheirOrder)
{
    const ErrorLogEntry l_entry(0x4400, 0, 1, 0xB1, 0, 0x17, 0x43FF, 0x4424,
                                110, 0, 0, 0, 0x81, 0, 0xF0);
    const unsigned int VALUES[] = {0x4400, 0,      1,      0xB1, 0,
                                   0x17,   0x43FF, 0x4424, 110,  0,
                                   0,      0,      0x81,   0,    0xF0};
    for (unsigned int l_index = 0; l_index != 15; ++l_index)
    {
        EXPECT_EQ(VALUES[l_index], l_entry.value(l_index));
    }
    EXPECT_EQ(0U, l_entry.value(15));
    EXPECT_EQ(0U, l_entry.value(0xFFFFFFFF));
}

TEST_F(ErrorLogEntryTest, TimeIsThatOfConstruction)
{
    const std::int64_t l_before = time(nullptr);
    const ErrorLogEntry l_entry;
    const std::int64_t l_after = time(nullptr);
    // time() may lag by a tick.
    EXPECT_LE(l_before, l_entry.getTime());
    EXPECT_GE(l_after + 1, l_entry.getTime());
    EXPECT_GT(1000000000U, l_entry.getNanoSeconds());
}

TEST_F(ErrorLogEntryTest, FlatFormIsTheDocumentedOne)
{
    ErrorLogEntry l_entry;
    ASSERT_TRUE(l_entry.unflatten(golden().data(), 151));
    EXPECT_EQ(0x12345678U, l_entry.getSeverity());
    EXPECT_EQ(0x165A0BC42, l_entry.getTime());
    EXPECT_EQ(999999999U, l_entry.getNanoSeconds());
    EXPECT_EQ(0x4400U, l_entry.value(0));
    EXPECT_EQ(0x440DU, l_entry.value(13));
    EXPECT_EQ(0xFFFFFFFFU, l_entry.value(14));
    EXPECT_TRUE(l_entry.isCommitted());
    EXPECT_EQ(0x4400U, l_entry.commitValue(0));
    EXPECT_EQ(0U, l_entry.commitValue(1));
    EXPECT_EQ(0xFFU, l_entry.commitValue(2));
    EXPECT_EQ(0U, l_entry.commitValue(3));
    EXPECT_EQ(0U, l_entry.commitValue(4));
    ASSERT_EQ(1U, l_entry.getTraceCount());
    EXPECT_STREQ("TOLV", l_entry.getTraceComponent(0));
    ASSERT_EQ(3U, l_entry.getTraceLength(0));
    EXPECT_EQ(0, std::memcmp("ab\n", l_entry.getTrace(0), 3));
    EXPECT_EQ(golden(), flat(l_entry));
}

TEST_F(ErrorLogEntryTest, FlatFormCarriesTheWholeEntry)
{
    int l_desc = 0;
    ASSERT_EQ(0, TraceBufferInit(&l_desc, "A", 256));
    TraceBufferWrite(l_desc, "text");
    ErrorLogEntry l_sent(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    l_sent.setSev(0xFF);
    l_sent.AddTrace("A", 256);
    ErrorLogEntry l_received;
    ASSERT_TRUE(
        l_received.unflatten(flat(l_sent).data(), l_sent.flattenedSize()));
    EXPECT_EQ(flat(l_sent), flat(l_received));
    EXPECT_EQ(15U, l_received.value(14));
    EXPECT_EQ(0xFFU, l_received.getSeverity());
    EXPECT_FALSE(l_received.isCommitted());
    EXPECT_EQ(l_sent.getTime(), l_received.getTime());
    EXPECT_EQ(1U, l_received.getTraceCount());
}

TEST_F(ErrorLogEntryTest, BytesAfterTheFlatFormAreNotLookedAt)
{
    Bytes l_flat = golden();
    l_flat.resize(l_flat.size() + 100, 0xEE);
    ErrorLogEntry l_entry;
    EXPECT_TRUE(l_entry.unflatten(l_flat.data(), 251));
    EXPECT_EQ(151U, l_entry.flattenedSize());
}

TEST_F(ErrorLogEntryTest, FlattenNeedsTheWholeRoom)
{
    ErrorLogEntry l_entry;
    ASSERT_TRUE(l_entry.unflatten(golden().data(), 151));
    for (unsigned int l_room = 0; l_room != 151; ++l_room)
    {
        Bytes l_buffer(l_room, 0xEE);
        EXPECT_EQ(0U, l_entry.flatten(l_buffer.data(), l_room));
        EXPECT_EQ(Bytes(l_room, 0xEE), l_buffer);
    }
    EXPECT_EQ(0U, l_entry.flatten(nullptr, 151));
}

TEST_F(ErrorLogEntryTest, EveryTruncationIsRefused)
{
    for (std::size_t l_size = 0; l_size != golden().size(); ++l_size)
    {
        expectRefused(Bytes(golden().data(), golden().data() + l_size));
    }
    ErrorLogEntry l_entry;
    EXPECT_FALSE(l_entry.unflatten(nullptr, 151));
}

TEST_F(ErrorLogEntryTest, EveryChangedByteIsRefused)
{
    for (std::size_t l_offset = 0; l_offset != golden().size(); ++l_offset)
    {
        for (const int l_change : {1, 2, 4, 8, 16, 32, 64, 128, 255})
        {
            Bytes l_flat = golden();
            l_flat[l_offset] =
                static_cast<unsigned char>(l_flat[l_offset] ^ l_change);
            expectRefused(l_flat);
        }
    }
}

TEST_F(ErrorLogEntryTest, ImpossibleFieldsAreRefusedInSpiteOfARightChecksum)
{
    const struct
    {
        std::size_t offset;
        std::uint32_t value;
    } CHANGES[] = {
        {0, 0x544F4C46},
        {VERSION, 0x00020001}, // another version
        {VERSION, 0x00000001},
        {VERSION, 0x00010002}, // unknown flags
        {VERSION, 0x00018001},
        {LENGTH, 0},
        {LENGTH, 111},
        {LENGTH, 150},
        {LENGTH, 152},
        {LENGTH, 0xFFFFFFFF},
        {NANO_SECONDS, 1000000000},
        {TRACE_COUNT, 0}, // the trace would be surplus
        {TRACE_COUNT, 2},
        {TRACE_COUNT, 5},
        {TRACE_COUNT, 0xFFFFFFFF},
        {COMPONENT + 28, 0x61616161}, // no end of the name
        {TRACE_LENGTH, 0},
        {TRACE_LENGTH, 2},
        {TRACE_LENGTH, 4},
        {TRACE_LENGTH, 16349},
        {TRACE_LENGTH, 0xFFFFFFFF},
        {TRACE_LENGTH, 0xFFFFFFDC}, // 36 more is 0 modulo 2^32
    };
    for (const auto& l_change : CHANGES)
    {
        SCOPED_TRACE(testing::Message()
                     << l_change.offset << ": " << l_change.value);
        Bytes l_flat = golden();
        put32(l_flat, l_change.offset, l_change.value);
        sign(l_flat);
        expectRefused(l_flat);
    }
    Bytes l_flat = golden();
    sign(l_flat);
    EXPECT_EQ(golden(), l_flat) << "the test's own checksum";
    static_assert(VERSION + 2 == FLAGS && CHECKSUM + 4 == 151, "offsets");
}

TEST_F(ErrorLogEntryTest, LongestTraceFitsAndALongerOneIsRefused)
{
    Bytes l_flat(golden().data(), golden().data() + CHECKSUM - 3);
    l_flat.resize(l_flat.size() + 16348 + 4, 'x');
    put32(l_flat, LENGTH, static_cast<std::uint32_t>(l_flat.size()));
    put32(l_flat, TRACE_LENGTH, 16348);
    sign(l_flat);
    ErrorLogEntry l_entry;
    EXPECT_TRUE(l_entry.unflatten(l_flat.data(),
                                  static_cast<unsigned int>(l_flat.size())));
    EXPECT_EQ(16348U, l_entry.getTraceLength(0));

    l_flat.push_back('x');
    put32(l_flat, LENGTH, static_cast<std::uint32_t>(l_flat.size()));
    put32(l_flat, TRACE_LENGTH, 16349);
    sign(l_flat);
    expectRefused(l_flat);
}

TEST_F(ErrorLogEntryTest, TraceIsASnapshotOfItsMoment)
{
    int l_desc = 0;
    ASSERT_EQ(0, TraceBufferInit(&l_desc, "A", 4096));
    TraceBufferWrite(l_desc, "before");
    ErrorLogEntry l_entry;
    l_entry.AddTrace("A", 256);
    TraceBufferWrite(l_desc, "after");
    ASSERT_EQ(1U, l_entry.getTraceCount());
    const std::string l_trace(static_cast<const char*>(l_entry.getTrace(0)),
                              l_entry.getTraceLength(0));
    EXPECT_NE(std::string::npos, l_trace.find("before\n"));
    EXPECT_EQ(std::string::npos, l_trace.find("after"));
}

TEST_F(ErrorLogEntryTest, TraceTakesNoMoreThanWasAskedFor)
{
    int l_desc = 0;
    ASSERT_EQ(0, TraceBufferInit(&l_desc, "A", 65536));
    for (int l_line = 0; l_line != 1000; ++l_line)
    {
        TraceBufferWrite(l_desc, "line %d of very many that do not fit",
                         l_line);
    }
    ErrorLogEntry l_entry;
    l_entry.AddTrace("A", 256);
    l_entry.AddTrace("A", 0);
    l_entry.AddTrace("A", 0xFFFFFFFF);
    ASSERT_EQ(3U, l_entry.getTraceCount());
    EXPECT_LT(100U, l_entry.getTraceLength(0));
    EXPECT_GE(256U, l_entry.getTraceLength(0));
    EXPECT_EQ(0U, l_entry.getTraceLength(1));
    EXPECT_LT(16000U, l_entry.getTraceLength(2));
    EXPECT_GE(16348U, l_entry.getTraceLength(2));
}

TEST_F(ErrorLogEntryTest, FourTracesAreAttachedAndTheFifthIsNot)
{
    int l_desc = 0;
    const char* const NAMES[] = {"A", "B", "C", "D", "E"};
    ErrorLogEntry l_entry;
    for (const char* l_name : NAMES)
    {
        ASSERT_EQ(0, TraceBufferInit(&l_desc, l_name, 64));
        l_entry.AddTrace(l_name, 64);
    }
    ASSERT_EQ(4U, l_entry.getTraceCount());
    for (unsigned int l_index = 0; l_index != 4; ++l_index)
    {
        EXPECT_STREQ(NAMES[l_index], l_entry.getTraceComponent(l_index));
    }
    EXPECT_EQ(nullptr, l_entry.getTraceComponent(4));
    EXPECT_EQ(nullptr, l_entry.getTrace(4));
    EXPECT_EQ(0U, l_entry.getTraceLength(4));
    ErrorLogEntry l_copy;
    EXPECT_TRUE(
        l_copy.unflatten(flat(l_entry).data(), l_entry.flattenedSize()));
    EXPECT_EQ(flat(l_entry), flat(l_copy));
}

TEST_F(ErrorLogEntryTest, UnknownTraceAttachesNothing)
{
    ErrorLogEntry l_entry;
    errno = EDOM;
    l_entry.AddTrace("NONE", 256);
    l_entry.AddTrace("", 256);
    l_entry.AddTrace(nullptr, 256);
    l_entry.AddTrace(std::string(32, 'N').c_str(), 256);
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(0U, l_entry.getTraceCount());
}

TEST_F(ErrorLogEntryTest, ShortMemoryGivesABlankEntryThatTakesEverything)
{
    g_memoryIsShort = true;
    errno = EDOM;
    ErrorLogEntry l_entry(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    l_entry.AddTrace("A", 1);
    l_entry.setSev(1);
    l_entry.commit(1, 2, 3, 4);
    EXPECT_FALSE(l_entry.unflatten(golden().data(), 151));
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(0U, l_entry.flattenedSize());
    char l_byte = 0;
    EXPECT_EQ(0U, l_entry.flatten(&l_byte, 1));
    EXPECT_EQ(0U, l_entry.value(0));
    EXPECT_EQ(0U, l_entry.getSeverity());
    EXPECT_EQ(0, l_entry.getTime());
    EXPECT_EQ(0U, l_entry.getNanoSeconds());
    EXPECT_FALSE(l_entry.isCommitted());
    EXPECT_EQ(0U, l_entry.commitValue(0));
    EXPECT_EQ(0U, l_entry.getTraceCount());
    g_memoryIsShort = false;
    EXPECT_TRUE(l_entry.unflatten(golden().data(), 151));
    EXPECT_EQ(golden(), flat(l_entry));
}

TEST_F(ErrorLogEntryTest, ShortMemoryLaterLeavesTheEntryAsItWas)
{
    int l_desc = 0;
    ASSERT_EQ(0, TraceBufferInit(&l_desc, "A", 64));
    ErrorLogEntry l_entry(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const Bytes l_before = flat(l_entry);
    g_memoryIsShort = true;
    l_entry.AddTrace("A", 64);
    EXPECT_FALSE(l_entry.unflatten(golden().data(), 151));
    g_memoryIsShort = false;
    EXPECT_EQ(l_before, flat(l_entry));
}

TEST_F(ErrorLogEntryTest, CountsOfValuesKeepTheirValues)
{
    EXPECT_EQ(15, ErrorLogEntry::VALUE_COUNT);
    EXPECT_EQ(4, ErrorLogEntry::COMMIT_VALUE_COUNT);
}

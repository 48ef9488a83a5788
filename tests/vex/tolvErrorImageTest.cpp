#include "tolv/vex/tolvError.hpp"

#include "support/errorImage.hpp"
#include "support/expectAbort.hpp"
#include "support/fakePlatform.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <string>
#include <vector>

using namespace tolv;

namespace
{

constexpr char UNTOUCHED = 0x5A;

bool g_outOfMemory = false; // for blocks of an error that is read

} // namespace

extern "C"
{
    void* __real_malloc(std::size_t i_size);
    void* __real_calloc(std::size_t i_count, std::size_t i_size);

    void* __wrap_malloc(std::size_t i_size)
    {
        return g_outOfMemory ? nullptr : __real_malloc(i_size);
    }

    void* __wrap_calloc(std::size_t i_count, std::size_t i_size)
    {
        return g_outOfMemory ? nullptr : __real_calloc(i_count, i_size);
    }
}

namespace
{

const ErrorFields FIELDS = {0x19,
                            0x4411,
                            0x01020304,
                            0xF0E0D0C0,
                            5,
                            -110,
                            std::string("abc\0", 4),
                            std::string("\x01\0\xFFtrace", 8)};

// Reads from a block of exactly the image's size.
void read(Error& o_error, const std::string& i_image)
{
    const auto l_block = exactBlock(i_image);
    o_error.unflatten(l_block.get(), i_image.size());
}

// Writes into a block of exactly the error's size.
std::string written(const Error& i_error)
{
    std::vector<char> l_block(i_error.getSize(), UNTOUCHED);
    EXPECT_TRUE(i_error.flatten(l_block.data(), l_block.size()));
    return std::string(l_block.begin(), l_block.end());
}

std::string blockOf(const void* i_block, std::uint32_t i_length)
{
    return std::string(static_cast<const char*>(i_block), i_length);
}

void expectFields(const Error& i_error)
{
    EXPECT_EQ(FIELDS.origin, i_error.getOrigin());
    EXPECT_EQ(FIELDS.reason, i_error.getReason());
    EXPECT_EQ(FIELDS.position, i_error.getPosition());
    EXPECT_EQ(FIELDS.role, i_error.getRole());
    EXPECT_EQ(FIELDS.nodeId, i_error.getNodeId());
    EXPECT_EQ(FIELDS.errnoValue, i_error.getErrno());
    EXPECT_EQ(FIELDS.text, blockOf(i_error.getText(), i_error.getTextLength()));
    EXPECT_EQ(FIELDS.trace,
              blockOf(i_error.getTrace(), i_error.getTraceLength()));
}

void expectAbort(const std::string& i_image)
{
    const auto l_block = exactBlock(i_image);
    EXPECT_ABORT(Error(l_block.get(), i_image.size()))
        << i_image.size() << " bytes";
}

// A bare fixed part that announces blocks of these lengths.
std::string announcing(std::uint32_t i_textLength, std::uint32_t i_traceLength)
{
    std::string l_image = imageOf({1, 2, 3, 4, 5, 6, "", ""});
    place(l_image, 24, i_textLength);
    place(l_image, 28, i_traceLength);
    return l_image;
}

} // namespace

TEST(ErrorImageTest, WritesFieldByFieldWithZerosBetween)
{
    fakePlatform::g_RegistryRead =
        [](const std::string& i_key, unsigned char* o_byte)
    {
        *o_byte = static_cast<unsigned char>(i_key.size()); // 16, 12, 14
        return 0;
    };
    fakePlatform::g_TraceBufferReadDiff = [](unsigned char* o_buffer)
    {
        std::memset(o_buffer, 't', 1024);
        return 1024;
    };
    errno = EPIPE;
    const Error l_error(10, 0x440F, "abc");
    EXPECT_EQ(imageOf({10, 0x440F, 16, 12, 14, EPIPE, std::string("abc\0", 4),
                       std::string(1024, 't')}),
              written(l_error));
}

TEST(ErrorImageTest, ErrorWithoutTextIsTheFixedPartAndTheTrace)
{
    errno = 0;
    const Error l_error(1, 2, nullptr);
    EXPECT_EQ(imageOf({1, 2, 0, 0, 0, 0, "", std::string(1024, '\0')}),
              written(l_error));
    EXPECT_EQ(40U + 1024U, l_error.getSize());
}

TEST(ErrorImageTest, DefaultErrorIsFortyZeros)
{
    EXPECT_EQ(std::string(40, '\0'), written(Error()));
}

TEST(ErrorImageTest, TooSmallRoomIsLeftUntouched)
{
    const std::string l_image = imageOf(FIELDS);
    const auto l_block = exactBlock(l_image);
    const Error l_error(l_block.get(), l_image.size());
    for (std::size_t l_room = 0; l_room != l_image.size(); ++l_room)
    {
        std::vector<char> l_buffer(l_room, UNTOUCHED);
        EXPECT_FALSE(l_error.flatten(l_buffer.data(), l_room)) << l_room;
        EXPECT_EQ(std::vector<char>(l_room, UNTOUCHED), l_buffer);
    }
}

TEST(ErrorImageTest, MoreRoomThanNeededIsLeftUntouched)
{
    const std::string l_image = imageOf(FIELDS);
    const auto l_block = exactBlock(l_image);
    const Error l_error(l_block.get(), l_image.size());
    std::string l_buffer(l_image.size() + 3, UNTOUCHED);
    EXPECT_TRUE(l_error.flatten(l_buffer.data(), l_buffer.size()));
    EXPECT_EQ(l_image + std::string(3, UNTOUCHED), l_buffer);
}

TEST(ErrorImageTest, ReadingGivesEveryField)
{
    Error l_error;
    read(l_error, imageOf(FIELDS));
    expectFields(l_error);
    EXPECT_EQ(52U, l_error.getSize());

    const std::string l_image = imageOf(FIELDS);
    expectFields(Error(l_image.data(), l_image.size()));
}

TEST(ErrorImageTest, WrittenThenReadErrorIsTheSame)
{
    fakePlatform::g_RegistryRead =
        [](const std::string& /*i_key*/, unsigned char* o_byte)
    {
        *o_byte = static_cast<unsigned char>(*o_byte * 3 + 1);
        return 0;
    };
    fakePlatform::g_TraceBufferReadDiff = [](unsigned char* o_buffer)
    {
        std::memset(o_buffer, 0x80, 1000);
        return 1000;
    };
    errno = ETIMEDOUT;
    const Error l_error(9, 0x440D, "Connection Closed");
    Error l_read;
    read(l_read, written(l_error));
    EXPECT_EQ(9, l_read.getOrigin());
    EXPECT_EQ(0x440D, l_read.getReason());
    EXPECT_EQ(1U, l_read.getPosition());
    EXPECT_EQ(4U, l_read.getRole());
    EXPECT_EQ(13U, l_read.getNodeId());
    EXPECT_EQ(ETIMEDOUT, l_read.getErrno());
    EXPECT_STREQ("Connection Closed", l_read.getText());
    EXPECT_EQ(written(l_error), written(l_read));
}

TEST(ErrorImageTest, PointersAndPaddingAreNotRead)
{
    std::string l_image = imageOf(FIELDS);
    place(l_image, 0, std::uint32_t(0xDEADBEEF));
    place(l_image, 5, std::uint8_t(0xEE));
    place(l_image, 32, std::uint32_t(0xDEADBEEF));
    place(l_image, 36, std::uint32_t(0xDEADBEEF));
    Error l_error;
    read(l_error, l_image);
    expectFields(l_error);
    EXPECT_EQ(imageOf(FIELDS), written(l_error));
}

TEST(ErrorImageTest, BytesBehindTheErrorAreNotRead)
{
    Error l_error;
    read(l_error, imageOf(FIELDS) + "more");
    expectFields(l_error);
}

TEST(ErrorImageTest, ErrnoStaysWhenAnErrorIsRead)
{
    errno = EPIPE;
    Error l_error;
    read(l_error, imageOf(FIELDS));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_TRUE(fakePlatform::callsOf("RegistryRead").empty());
    EXPECT_TRUE(fakePlatform::callsOf("TraceBufferReadDiff").empty());
}

TEST(ErrorImageTest, TraceFollowsTheFixedPartWhereThereIsNoText)
{
    Error l_error;
    read(l_error, imageOf({1, 2, 3, 4, 5, 6, "", "trace"}));
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(0U, l_error.getTextLength());
    EXPECT_EQ("trace", blockOf(l_error.getTrace(), l_error.getTraceLength()));
}

TEST(ErrorImageTest, TraceOfNoLengthIsNull)
{
    Error l_error;
    read(l_error, imageOf({1, 2, 3, 4, 5, 6, std::string("abc\0", 4), ""}));
    EXPECT_STREQ("abc", l_error.getText());
    EXPECT_EQ(nullptr, l_error.getTrace());
    EXPECT_EQ(0U, l_error.getTraceLength());
}

TEST(ErrorImageTest, TextBlockIsZeroBehindItsString)
{
    const ErrorFields l_padded = {1, 2, 3, 4, 5, 6, "", "trace"};
    ErrorFields l_sent = l_padded;
    l_sent.text = std::string("ab\0secret", 9);
    Error l_error;
    read(l_error, imageOf(l_sent));
    EXPECT_STREQ("ab", l_error.getText());
    EXPECT_EQ(9U, l_error.getTextLength());
    EXPECT_EQ(std::string("ab\0\0\0\0\0\0\0", 9),
              blockOf(l_error.getText(), 9));

    ErrorFields l_kept = l_padded;
    l_kept.text = std::string("ab\0\0\0\0\0\0\0", 9);
    EXPECT_EQ(imageOf(l_kept), written(l_error));
}

TEST(ErrorImageTest, TextWithoutNulKeepsItsLengthAndIsEnded)
{
    const ErrorFields l_fields = {1, 2, 3, 4, 5, 6, "abcd", "trace"};
    Error l_error;
    read(l_error, imageOf(l_fields));
    EXPECT_STREQ("abcd", l_error.getText());
    EXPECT_EQ(4U, l_error.getTextLength());
    EXPECT_EQ(imageOf(l_fields), written(l_error));
}

TEST(ErrorImageTest, ReadingAgainReplacesEverything)
{
    Error l_error(10, 0x440F, "an earlier text");
    read(l_error, imageOf({1, 2, 3, 4, 5, 6, "", ""}));
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(nullptr, l_error.getTrace());
    read(l_error, imageOf(FIELDS));
    expectFields(l_error);
}

TEST(ErrorImageTest, BlocksWithoutMemoryAreWrittenAsZeros)
{
    const std::string l_image = imageOf(FIELDS);
    Error l_error;
    g_outOfMemory = true;
    l_error.unflatten(l_image.data(), l_image.size());
    g_outOfMemory = false;
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(nullptr, l_error.getTrace());
    ErrorFields l_empty = FIELDS;
    l_empty.text.assign(4, '\0');
    l_empty.trace.assign(8, '\0');
    EXPECT_EQ(imageOf(l_empty), written(l_error));
}

TEST(ErrorImageDeathTest, EveryTruncationAborts)
{
    const std::string l_image = imageOf(FIELDS);
    for (std::size_t l_length = 0; l_length != l_image.size(); ++l_length)
    {
        expectAbort(l_image.substr(0, l_length));
    }
}

TEST(ErrorImageDeathTest, FixedPartAloneIsEnoughForNoBlocks)
{
    const std::string l_image = announcing(0, 0);
    Error l_error;
    read(l_error, l_image);
    EXPECT_EQ(40U, l_error.getSize());
    expectAbort(announcing(1, 0));
    expectAbort(announcing(0, 1));
}

TEST(ErrorImageDeathTest, LengthsWhoseSumWrapsIn32BitsAbort)
{
    expectAbort(announcing(0xFFFFFFFF, 0));
    expectAbort(announcing(0, 0xFFFFFFFF));
    expectAbort(announcing(0xFFFFFFFF, 1));          // 40 + 0
    expectAbort(announcing(0xFFFFFFD8, 0));          // 0
    expectAbort(announcing(0, 0xFFFFFFD8));          // 0
    expectAbort(announcing(0x80000000, 0x80000000)); // 40 + 0
    expectAbort(announcing(0xFFFFFFFF, 0xFFFFFFFF));
}

#include "tolv/vex/tolvError.hpp"

#include "support/fakePlatform.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <string>
#include <type_traits>

using namespace tolv;

namespace
{

constexpr unsigned int SNAPSHOT = 1024;
constexpr unsigned char STALE = 0xA5; // what fresh memory holds

bool g_failText = false;
bool g_failTrace = false;
const void* g_watched[2] = {nullptr, nullptr};
int g_watchedFrees = 0;

} // namespace

extern "C"
{
    char* __real_strdup(const char* i_text);
    void* __real_calloc(std::size_t i_count, std::size_t i_size);
    void* __real_malloc(std::size_t i_size);
    void __real_free(void* i_block);

    char* __wrap_strdup(const char* i_text)
    {
        char* l_copy = g_failText ? nullptr : __real_strdup(i_text);
        errno = ENOMEM; // also a success may leave something there
        return l_copy;
    }

    void* __wrap_calloc(std::size_t i_count, std::size_t i_size)
    {
        const bool l_fails = g_failTrace && i_count * i_size == SNAPSHOT;
        void* l_block = l_fails ? nullptr : __real_calloc(i_count, i_size);
        errno = ENOMEM;
        return l_block;
    }

    void* __wrap_malloc(std::size_t i_size)
    {
        const bool l_fails = g_failTrace && i_size == SNAPSHOT;
        void* l_block = l_fails ? nullptr : __real_malloc(i_size);
        if (l_block != nullptr)
        {
            std::memset(l_block, STALE, i_size);
        }
        errno = ENOMEM;
        return l_block;
    }

    void __wrap_free(void* i_block)
    {
        if (i_block != nullptr)
        {
            g_watchedFrees +=
                static_cast<int>(std::count(g_watched, g_watched + 2, i_block));
        }
        __real_free(i_block);
    }
}

namespace
{

class ErrorTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakePlatform::forgetCalls();
    }
};

// The snapshot as text, zeros included.
std::string traceOf(const Error& i_error)
{
    return std::string(static_cast<const char*>(i_error.getTrace()),
                       i_error.getTraceLength());
}

int answerPosition(const std::string& i_key, unsigned char* o_byte)
{
    if (i_key != "dscv/VexPosition")
    {
        return -1;
    }
    *o_byte = 7;
    return 0;
}

int answerEach(const std::string& i_key, unsigned char* o_byte)
{
    *o_byte = i_key == "dscv/VexPosition" ? 1
              : i_key == "dscv/VexRole"   ? 128
                                          : 255;
    return 0;
}

int answerAndFail(const std::string& i_key, unsigned char* o_byte)
{
    answerEach(i_key, o_byte);
    return -1;
}

int answerWithSuccessor(const std::string& /*i_key*/, unsigned char* o_byte)
{
    ++*o_byte;
    return 0;
}

int fillSnapshot(unsigned char* o_buffer)
{
    for (unsigned int l_at = 0; l_at != SNAPSHOT; ++l_at)
    {
        o_buffer[l_at] = static_cast<unsigned char>(l_at % 251);
    }
    return SNAPSHOT;
}

int fillTenBytes(unsigned char* o_buffer)
{
    std::memset(o_buffer, 'x', 10);
    return 10;
}

} // namespace

TEST_F(ErrorTest, DefaultIsZeroThroughout)
{
    errno = EPIPE;
    alignas(Error) unsigned char l_memory[sizeof(Error)];
    std::memset(l_memory, 0xA5, sizeof(l_memory));
    const Error& l_error = *new (l_memory) Error;
    EXPECT_EQ(0, l_error.getOrigin());
    EXPECT_EQ(0, l_error.getReason());
    EXPECT_EQ(0U, l_error.getPosition());
    EXPECT_EQ(0U, l_error.getRole());
    EXPECT_EQ(0U, l_error.getNodeId());
    EXPECT_EQ(0, l_error.getErrno());
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(0U, l_error.getTextLength());
    EXPECT_EQ(nullptr, l_error.getTrace());
    EXPECT_EQ(0U, l_error.getTraceLength());
    EXPECT_EQ(40U, l_error.getSize());
    EXPECT_TRUE(fakePlatform::calls().empty());
}

TEST_F(ErrorTest, TakesOriginReasonAndACopyOfTheText)
{
    char l_text[] = "abc";
    const Error l_error(255, 0xFFFF, l_text);
    l_text[0] = 'x';
    EXPECT_EQ(255, l_error.getOrigin());
    EXPECT_EQ(0xFFFF, l_error.getReason());
    EXPECT_STREQ("abc", l_error.getText());
    EXPECT_EQ(4U, l_error.getTextLength());
    EXPECT_EQ(1024U, l_error.getTraceLength());
    EXPECT_EQ(1068U, l_error.getSize());
}

TEST_F(ErrorTest, TextIsNotAFormat)
{
    const Error l_error(25, 0x4411, "failed sd[%i] Errno[%i]");
    EXPECT_STREQ("failed sd[%i] Errno[%i]", l_error.getText());
}

TEST_F(ErrorTest, NullTextHasNoLength)
{
    const Error l_error(1, 2, nullptr);
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(0U, l_error.getTextLength());
    EXPECT_EQ(1064U, l_error.getSize());
}

TEST_F(ErrorTest, EmptyTextHasTheLengthOfItsNul)
{
    const Error l_error(1, 2, "");
    EXPECT_STREQ("", l_error.getText());
    EXPECT_EQ(1U, l_error.getTextLength());
    EXPECT_EQ(1065U, l_error.getSize());
}

TEST_F(ErrorTest, RegistryIsReadThenTheTrace)
{
    const Error l_error(1, 2, "abc");
    const auto l_calls = fakePlatform::calls();
    ASSERT_EQ(4U, l_calls.size());
    const char* const l_keys[] = {"dscv/VexPosition", "dscv/VexRole",
                                  "dscv/VexNodeId"};
    for (std::size_t l_at = 0; l_at != 3; ++l_at)
    {
        EXPECT_STREQ("RegistryRead", l_calls[l_at].service);
        EXPECT_STREQ(l_keys[l_at], l_calls[l_at].name);
        EXPECT_EQ(1U, l_calls[l_at].values[0]) << "size";
        EXPECT_EQ(0U, l_calls[l_at].values[1]) << "flags";
    }
    EXPECT_STREQ("TraceBufferReadDiff", l_calls[3].service);
    EXPECT_STREQ("TOLV", l_calls[3].name);
    EXPECT_EQ(SNAPSHOT, l_calls[3].values[0]);
    EXPECT_EQ(l_error.getTrace(), l_calls[3].target);
}

TEST_F(ErrorTest, RegistryBytesAreWidenedWithoutSign)
{
    fakePlatform::g_RegistryRead = answerEach;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(1U, l_error.getPosition());
    EXPECT_EQ(128U, l_error.getRole());
    EXPECT_EQ(255U, l_error.getNodeId());
}

TEST_F(ErrorTest, UnreadableRegistryGivesZeros)
{
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(0U, l_error.getPosition());
    EXPECT_EQ(0U, l_error.getRole());
    EXPECT_EQ(0U, l_error.getNodeId());
}

TEST_F(ErrorTest, FailedRegistryReadRepeatsTheValueBefore)
{
    fakePlatform::g_RegistryRead = answerPosition;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(7U, l_error.getPosition());
    EXPECT_EQ(7U, l_error.getRole());
    EXPECT_EQ(7U, l_error.getNodeId());
}

TEST_F(ErrorTest, RegistryByteIsZeroOnlyBeforeTheFirstRead)
{
    fakePlatform::g_RegistryRead = answerWithSuccessor;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(1U, l_error.getPosition());
    EXPECT_EQ(2U, l_error.getRole());
    EXPECT_EQ(3U, l_error.getNodeId());
}

TEST_F(ErrorTest, RegistryByteIsZeroAgainForTheNextError)
{
    fakePlatform::g_RegistryRead = answerEach;
    const Error l_first(1, 2, "abc");
    EXPECT_EQ(255U, l_first.getNodeId());
    fakePlatform::g_RegistryRead = nullptr;
    const Error l_second(1, 2, "abc");
    EXPECT_EQ(0U, l_second.getPosition());
    EXPECT_EQ(0U, l_second.getRole());
    EXPECT_EQ(0U, l_second.getNodeId());
}

TEST_F(ErrorTest, ResultOfARegistryReadIsIgnored)
{
    fakePlatform::g_RegistryRead = answerAndFail;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(1U, l_error.getPosition());
    EXPECT_EQ(128U, l_error.getRole());
    EXPECT_EQ(255U, l_error.getNodeId());
}

TEST_F(ErrorTest, SnapshotIsWhatTheTraceBufferGives)
{
    fakePlatform::g_TraceBufferReadDiff = fillSnapshot;
    const Error l_error(1, 2, "abc");
    unsigned char l_expected[SNAPSHOT];
    fillSnapshot(l_expected);
    ASSERT_EQ(SNAPSHOT, l_error.getTraceLength());
    EXPECT_EQ(0, std::memcmp(l_expected, l_error.getTrace(), SNAPSHOT));
}

TEST_F(ErrorTest, FailedSnapshotIsZero)
{
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(std::string(SNAPSHOT, '\0'), traceOf(l_error));
}

TEST_F(ErrorTest, ShortSnapshotIsFilledUpWithZeros)
{
    fakePlatform::g_TraceBufferReadDiff = fillTenBytes;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(std::string(10, 'x') + std::string(SNAPSHOT - 10, '\0'),
              traceOf(l_error));
}

TEST_F(ErrorTest, ErrnoIsRecordedAndStays)
{
    errno = EPIPE;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(EPIPE, l_error.getErrno());

    errno = -5;
    const Error l_negative(1, 2, nullptr);
    EXPECT_EQ(-5, errno);
    EXPECT_EQ(-5, l_negative.getErrno());
}

TEST_F(ErrorTest, TextThatCannotBeCopiedCountsAsZeros)
{
    g_failText = true;
    errno = EPIPE;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(nullptr, l_error.getText());
    EXPECT_EQ(4U, l_error.getTextLength());

    char l_image[1068];
    std::memset(l_image, STALE, sizeof(l_image));
    ASSERT_TRUE(l_error.flatten(l_image, sizeof(l_image)));
    EXPECT_EQ(std::string(4, '\0'), std::string(l_image + 40, 4));
}

TEST_F(ErrorTest, TraceWithoutMemoryIsANullSnapshotForThePlatform)
{
    g_failTrace = true;
    errno = EPIPE;
    const Error l_error(1, 2, "abc");
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(nullptr, l_error.getTrace());
    EXPECT_EQ(SNAPSHOT, l_error.getTraceLength());
    const auto l_reads = fakePlatform::callsOf("TraceBufferReadDiff");
    ASSERT_EQ(1U, l_reads.size());
    EXPECT_EQ(nullptr, l_reads[0].target);
    EXPECT_EQ(SNAPSHOT, l_reads[0].values[0]);

    char l_image[1068];
    std::memset(l_image, STALE, sizeof(l_image));
    ASSERT_TRUE(l_error.flatten(l_image, sizeof(l_image)));
    EXPECT_EQ(std::string("abc\0", 4), std::string(l_image + 40, 4));
    EXPECT_EQ(std::string(SNAPSHOT, '\0'), std::string(l_image + 44, SNAPSHOT));
}

TEST_F(ErrorTest, DestructorFreesTextAndTrace)
{
    {
        const Error l_error(1, 2, "abc");
        g_watched[0] = l_error.getText();
        g_watched[1] = l_error.getTrace();
    }
    EXPECT_EQ(2, g_watchedFrees);
}

TEST_F(ErrorTest, DestructorIsVirtual)
{
    EXPECT_TRUE(std::has_virtual_destructor<Error>::value);
}

#include "tolv/vex/tolvDataBuff.hpp"

#include "support/dataBuffBytes.hpp"
#include "support/errorImage.hpp"
#include "support/expectAbort.hpp"
#include "support/fakePlatform.hpp"
#include "tolv/platform/errorLogEntry.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <memory>
#include <string>

using namespace tolv;

namespace
{

const std::string AB("ab\0", 3);

// A short error: 40 + 4 + 3 bytes.
const ErrorFields FIELDS = {
    9, 0x440D, 1, 2, 3, ECONNRESET, std::string("abc\0", 4), "xyz"};
constexpr unsigned int ERROR_SIZE = 47;

// Knows whether one of its kind exists.
class CountedError : public Error
{
  public:
    explicit CountedError(const std::string& i_image) :
        Error(i_image.data(), i_image.size())
    {
        ++s_alive;
    }

    ~CountedError() override
    {
        --s_alive;
    }

    static int s_alive;
};

int CountedError::s_alive = 0;

pError_t shortError()
{
    return pError_t(new CountedError(imageOf(FIELDS)));
}

void expectEntryCall(const char* i_service, const ErrorLogEntry& i_entry,
                     const char* i_bytes, unsigned int i_room)
{
    const auto l_calls = fakePlatform::callsOf(i_service);
    ASSERT_EQ(1U, l_calls.size());
    EXPECT_EQ(&i_entry, l_calls[0].entry);
    EXPECT_EQ(i_bytes, l_calls[0].target);
    EXPECT_EQ(i_room, l_calls[0].values[0]);
}

} // namespace

TEST(DataBuffStreamTest, StringIsReadUpToItsNul)
{
    DataBuff l_buffer = bufferOf("#" + AB + "rest", 1);
    std::string l_string = "earlier";
    EXPECT_EQ(&l_buffer, &(l_buffer >> l_string));
    EXPECT_EQ("ab", l_string);
    EXPECT_EQ(4U, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, StringsAreReadOneAfterTheOther)
{
    DataBuff l_buffer = bufferOf(AB + std::string("\0", 1) + AB);
    std::string l_first;
    std::string l_second = "earlier";
    std::string l_third;
    l_buffer >> l_first >> l_second >> l_third;
    EXPECT_EQ("ab", l_first);
    EXPECT_EQ("", l_second);
    EXPECT_EQ("ab", l_third);
    EXPECT_EQ(l_buffer.getSize(), l_buffer.getOffset());
}

TEST(DataBuffStreamTest, WrittenErrorIsItsSerialisedFormAtTheOffset)
{
    DataBuff l_buffer(ERROR_SIZE + 5);
    l_buffer.setOffset(2);
    EXPECT_EQ(&l_buffer, &(l_buffer << shortError()));
    EXPECT_EQ("CC" + imageOf(FIELDS) + "CCC", bytesOf(l_buffer));
    EXPECT_EQ(2 + ERROR_SIZE, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, WrittenErrorIsDeleted)
{
    DataBuff l_buffer(2 * ERROR_SIZE);
    pError_t l_error = shortError();
    l_buffer << l_error;
    EXPECT_FALSE(l_error);
    EXPECT_EQ(0, CountedError::s_alive);
    l_buffer << shortError();
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST(DataBuffStreamTest, ErrorFillsTheBufferExactly)
{
    DataBuff l_buffer(ERROR_SIZE);
    l_buffer << shortError();
    EXPECT_EQ(imageOf(FIELDS), bytesOf(l_buffer));
    EXPECT_EQ(ERROR_SIZE, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, ReadErrorReplacesTheEarlierOne)
{
    DataBuff l_buffer = bufferOf("#" + imageOf(FIELDS) + "#", 1);
    pError_t l_error = shortError();
    EXPECT_EQ(&l_buffer, &(l_buffer >> l_error));
    EXPECT_EQ(0, CountedError::s_alive);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(9, l_error->getOrigin());
    EXPECT_EQ(0x440D, l_error->getReason());
    EXPECT_EQ(ECONNRESET, l_error->getErrno());
    EXPECT_STREQ("abc", l_error->getText());
    EXPECT_EQ(ERROR_SIZE, l_error->getSize());
    EXPECT_EQ(1 + ERROR_SIZE, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, ErrorsGoThroughABufferUnchanged)
{
    fakePlatform::g_RegistryRead =
        [](const std::string& /*i_key*/, unsigned char* o_byte)
    {
        *o_byte = static_cast<unsigned char>(*o_byte + 100);
        return 0;
    };
    fakePlatform::g_TraceBufferReadDiff = [](unsigned char* o_buffer)
    {
        std::memset(o_buffer, 't', 1024);
        return 1024;
    };
    DataBuff l_buffer(1068 + 40);
    errno = EHOSTUNREACH;
    l_buffer << l_buffer.BuildLog(10, 0x440F, 0, "%s", "abc")
             << pError_t(new Error);
    EXPECT_EQ(1108U, l_buffer.getOffset());

    l_buffer.setOffset(0);
    pError_t l_error;
    pError_t l_default;
    l_buffer >> l_error >> l_default;
    EXPECT_EQ(1108U, l_buffer.getOffset());
    EXPECT_EQ(10, l_error->getOrigin());
    EXPECT_EQ(0x440F, l_error->getReason());
    EXPECT_EQ(100U, l_error->getPosition());
    EXPECT_EQ(200U, l_error->getRole());
    EXPECT_EQ(44U, l_error->getNodeId());
    EXPECT_EQ(EHOSTUNREACH, l_error->getErrno());
    EXPECT_STREQ("abc", l_error->getText());
    ASSERT_EQ(1024U, l_error->getTraceLength());
    EXPECT_EQ(std::string(1024, 't'),
              std::string(static_cast<const char*>(l_error->getTrace()), 1024));
    EXPECT_EQ(40U, l_default->getSize());
}

TEST(DataBuffStreamTest, EntryFlattensItselfIntoItsOwnRoom)
{
    fakePlatform::g_FlattenedSize = 5;
    ErrorLogEntry l_entry;
    DataBuff l_buffer(10);
    l_buffer.setOffset(3);
    EXPECT_EQ(&l_buffer, &(l_buffer << &l_entry));
    expectEntryCall("flatten", l_entry, l_buffer.getData() + 3, 5);
    EXPECT_EQ("CCC" + std::string(5, fakePlatform::FLAT_BYTE) + "CC",
              bytesOf(l_buffer));
    EXPECT_EQ(8U, l_buffer.getOffset());
    EXPECT_TRUE(fakePlatform::callsOf("~ErrorLogEntry").empty())
        << "the entry is the caller's";
}

TEST(DataBuffStreamTest, EntryFillsTheBufferExactly)
{
    fakePlatform::g_FlattenedSize = 5;
    ErrorLogEntry l_entry;
    DataBuff l_buffer(5);
    l_buffer << &l_entry;
    EXPECT_EQ(5U, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, EntryIsReadFromTheRestOfTheBuffer)
{
    fakePlatform::g_FlattenedSize = 5;
    DataBuff l_buffer(10);
    l_buffer.setOffset(3);
    ErrorLogEntry* l_entry = nullptr;
    EXPECT_EQ(&l_buffer, &(l_buffer >> l_entry));
    ASSERT_NE(nullptr, l_entry);
    const std::unique_ptr<ErrorLogEntry> l_owner(l_entry);
    expectEntryCall("unflatten", *l_entry, l_buffer.getData() + 3, 7);
    EXPECT_EQ(8U, l_buffer.getOffset());
}

TEST(DataBuffStreamTest, EntryThatEndsTheBufferIsRead)
{
    fakePlatform::g_FlattenedSize = 7;
    DataBuff l_buffer(10);
    l_buffer.setOffset(3);
    ErrorLogEntry* l_entry = nullptr;
    l_buffer >> l_entry;
    const std::unique_ptr<ErrorLogEntry> l_owner(l_entry);
    EXPECT_EQ(10U, l_buffer.getOffset());
}

TEST(DataBuffStreamDeathTest, StringWithoutNulAborts)
{
    std::string l_string;
    DataBuff l_buffer = bufferOf(AB + "rest", 3);
    EXPECT_ABORT(l_buffer >> l_string);
    DataBuff l_atEnd = bufferOf(AB, 3);
    EXPECT_ABORT(l_atEnd >> l_string);
    DataBuff l_empty(0);
    EXPECT_ABORT(l_empty >> l_string);
}

TEST(DataBuffStreamDeathTest, ErrorThatDoesNotFitAborts)
{
    DataBuff l_small(ERROR_SIZE - 1);
    EXPECT_ABORT(l_small << shortError());
    DataBuff l_buffer(ERROR_SIZE);
    l_buffer.setOffset(1);
    EXPECT_ABORT(l_buffer << shortError());
    DataBuff l_empty(0);
    EXPECT_ABORT(l_empty << shortError());
}

TEST(DataBuffStreamDeathTest, EmptyErrorAborts)
{
    DataBuff l_buffer(2000);
    EXPECT_ABORT(l_buffer << pError_t());
}

TEST(DataBuffStreamDeathTest, EveryTruncatedErrorAborts)
{
    const std::string l_image = "#" + imageOf(FIELDS);
    pError_t l_error;
    for (std::size_t l_length = 1; l_length != l_image.size(); ++l_length)
    {
        DataBuff l_buffer = bufferOf(l_image.substr(0, l_length), 1);
        EXPECT_ABORT(l_buffer >> l_error) << l_length << " bytes";
    }
    DataBuff l_empty(0);
    EXPECT_ABORT(l_empty >> l_error);
}

TEST(DataBuffStreamDeathTest, ErrorWithLengthsThatWrapAborts)
{
    std::string l_image = imageOf(FIELDS);
    place(l_image, 24, std::uint32_t(0xFFFFFFFF));
    place(l_image, 28, std::uint32_t(1));
    DataBuff l_buffer = bufferOf(l_image);
    pError_t l_error;
    EXPECT_ABORT(l_buffer >> l_error);
}

TEST(DataBuffStreamDeathTest, EntryThatDoesNotFitAborts)
{
    ErrorLogEntry l_entry;
    DataBuff l_buffer(10);
    l_buffer.setOffset(3);
    fakePlatform::g_FlattenedSize = 8;
    EXPECT_ABORT(l_buffer << &l_entry);
    fakePlatform::g_FlattenedSize = 0xFFFFFFFF; // 2, were it to wrap
    EXPECT_ABORT(l_buffer << &l_entry);
}

TEST(DataBuffStreamDeathTest, NullEntryAborts)
{
    DataBuff l_buffer(10);
    ErrorLogEntry* const l_none = nullptr;
    EXPECT_ABORT(l_buffer << l_none);
}

TEST(DataBuffStreamDeathTest, ReadingIntoAPresentEntryAborts)
{
    DataBuff l_buffer(10);
    ErrorLogEntry l_present;
    ErrorLogEntry* l_entry = &l_present;
    EXPECT_ABORT(l_buffer >> l_entry);
}

TEST(DataBuffStreamDeathTest, EntryBeyondTheEndAborts)
{
    DataBuff l_buffer(10);
    l_buffer.setOffset(3);
    ErrorLogEntry* l_entry = nullptr;
    fakePlatform::g_FlattenedSize = 8;
    EXPECT_ABORT(l_buffer >> l_entry);
    fakePlatform::g_FlattenedSize = 0xFFFFFFFF;
    EXPECT_ABORT(l_buffer >> l_entry);
}

TEST(DataBuffStreamDeathTest, BytesThatAreNoEntryAbort)
{
    DataBuff l_buffer(10);
    ErrorLogEntry* l_entry = nullptr;
    fakePlatform::g_RefuseEntry = true;
    EXPECT_ABORT(l_buffer >> l_entry);
}

#include "tolv/vex/tolvDataBuff.hpp"

#include "support/dataBuffBytes.hpp"
#include "support/expectAbort.hpp"
#include "tolv/platform/errorLogEntry.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace tolv;

// Error-log entries of the stock-Linux platform, which knows a malformed one.

namespace
{

// A buffer that holds one entry and is exactly filled by it.
DataBuff bufferWithEntry()
{
    ErrorLogEntry l_entry(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14,
                          0xFFFFFFFF);
    l_entry.setSev(0x40);
    DataBuff l_buffer(l_entry.flattenedSize());
    l_buffer << &l_entry;
    l_buffer.setOffset(0);
    return l_buffer;
}

} // namespace

TEST(DataBuffEntryTest, EntryGoesThroughABufferUnchanged)
{
    DataBuff l_buffer = bufferWithEntry();
    ErrorLogEntry* l_read = nullptr;
    l_buffer >> l_read;
    const std::unique_ptr<ErrorLogEntry> l_owner(l_read);
    EXPECT_EQ(l_buffer.getSize(), l_buffer.getOffset());
    EXPECT_EQ(1U, l_read->value(0));
    EXPECT_EQ(14U, l_read->value(13));
    EXPECT_EQ(0xFFFFFFFFU, l_read->value(14));
    EXPECT_EQ(0x40U, l_read->getSeverity());
}

TEST(DataBuffEntryTest, EntriesAreReadOneAfterTheOther)
{
    const DataBuff l_one = bufferWithEntry();
    DataBuff l_buffer = l_one;
    l_buffer.Append(l_one, l_one.getSize());
    l_buffer.setOffset(0);
    ErrorLogEntry* l_first = nullptr;
    ErrorLogEntry* l_second = nullptr;
    l_buffer >> l_first >> l_second;
    const std::unique_ptr<ErrorLogEntry> l_owners[] = {
        std::unique_ptr<ErrorLogEntry>(l_first),
        std::unique_ptr<ErrorLogEntry>(l_second)};
    EXPECT_EQ(2 * l_one.getSize(), l_buffer.getOffset());
    EXPECT_EQ(14U, l_second->value(13));
}

TEST(DataBuffEntryDeathTest, EveryTruncatedEntryAborts)
{
    const std::string l_bytes = bytesOf(bufferWithEntry());
    ErrorLogEntry* l_entry = nullptr;
    for (std::size_t l_length = 0; l_length != l_bytes.size(); ++l_length)
    {
        DataBuff l_buffer = bufferOf(l_bytes.substr(0, l_length));
        EXPECT_ABORT(l_buffer >> l_entry) << l_length << " bytes";
    }
}

TEST(DataBuffEntryDeathTest, DamagedEntryAborts)
{
    std::string l_bytes = bytesOf(bufferWithEntry());
    l_bytes.back() = static_cast<char>(~l_bytes.back());
    DataBuff l_buffer = bufferOf(l_bytes);
    ErrorLogEntry* l_entry = nullptr;
    EXPECT_ABORT(l_buffer >> l_entry);
}

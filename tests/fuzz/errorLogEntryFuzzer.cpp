// An error-log entry read from foreign bytes: it is decoded, or the process
// ends with abort(), and no byte outside the buffer is touched.

#include "fuzz/fuzzing.hpp"
#include "support/dataBuffBytes.hpp"
#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/host/hostErrorLogFlat.hpp"
#include "tolv/vex/tolvBigEndian.hpp"
#include "tolv/vex/tolvDataBuff.hpp"

#include <memory>
#include <string>

using namespace tolv;

namespace
{

std::uint32_t checksum(const unsigned char* i_bytes, std::size_t i_length)
{
    std::uint32_t l_sum = 0xFFFFFFFF;
    for (std::size_t l_at = 0; l_at != i_length; ++l_at)
    {
        l_sum ^= i_bytes[l_at];
        for (int l_bit = 0; l_bit != 8; ++l_bit)
        {
            l_sum = l_sum >> 1 ^ ((l_sum & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~l_sum;
}

// With the length and the checksum that the bytes should have: chance alone
// does not find them.
std::string sealed(std::string i_bytes)
{
    if (i_bytes.size() >= tolvhost::FIXED_PART + tolvhost::CHECKSUM)
    {
        unsigned char* l_bytes =
            reinterpret_cast<unsigned char*>(i_bytes.data());
        const std::size_t l_summed = i_bytes.size() - tolvhost::CHECKSUM;
        putBig32(l_bytes + tolvhost::OFF_MAGIC, tolvhost::FLAT_MAGIC);
        putBig16(l_bytes + tolvhost::OFF_VERSION, tolvhost::FLAT_VERSION);
        putBig32(l_bytes + tolvhost::OFF_LENGTH,
                 static_cast<std::uint32_t>(i_bytes.size()));
        putBig32(l_bytes + l_summed, checksum(l_bytes, l_summed));
    }
    return i_bytes;
}

void read(const std::string& i_bytes)
{
    DataBuff l_buffer = bufferOf(i_bytes);
    ErrorLogEntry* l_read = nullptr;
    const bool l_ends = endsWithoutAbort([&] { l_buffer >> l_read; });
    const std::unique_ptr<ErrorLogEntry> l_entry(l_read);
    if (!l_ends)
    {
        return;
    }
    const unsigned int l_size = l_entry->flattenedSize();
    require(l_buffer.getOffset() == l_size);

    // Written and read once more it has the same form.
    std::string l_first(l_size, '\0');
    require(l_entry->flatten(l_first.data(), l_size) == l_size);
    ErrorLogEntry l_again;
    require(l_again.unflatten(l_first.data(), l_size));
    std::string l_second(l_size, '\0');
    require(l_again.flatten(l_second.data(), l_size) == l_size);
    require(l_first == l_second);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* i_data, std::size_t i_size)
{
    const std::string l_bytes(reinterpret_cast<const char*>(i_data), i_size);
    read(l_bytes);
    read(sealed(l_bytes));
    return 0;
}

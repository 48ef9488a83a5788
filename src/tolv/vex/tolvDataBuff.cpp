#include "tolv/vex/tolvDataBuff.hpp"

#include "tolv/platform/errorLogEntry.hpp"

#include <cstdlib>
#include <cstring>

#include <limits>
#include <new>

namespace
{

// Deliberate: new bytes hold "C", not zeros.
// Effect: bytes that nobody wrote are recognised in a dump and on the wire.
// Pinned by: DataBuffTest.NewBufferHoldsUnwrittenBytes
constexpr char UNWRITTEN = 0x43;

// The sum is made in 64 bits, so that it cannot wrap into the block.
void requireInside(std::uint64_t i_at, std::uint64_t i_length,
                   std::uint64_t i_size)
{
    if (i_at + i_length > i_size)
    {
        std::abort();
    }
}

// What could not be allocated ends the process, as a block does.
template <class T>
T* required(T* i_object)
{
    if (i_object == nullptr)
    {
        std::abort();
    }
    return i_object;
}

// An empty block may be a null pointer, which the C functions do not take.
void move(char* o_to, const void* i_from, unsigned int i_length)
{
    if (i_length != 0)
    {
        std::memmove(o_to, i_from, i_length);
    }
}

} // namespace

namespace tolv
{

DataBuff::DataBuff(unsigned int i_size) :
    iv_Size(0), iv_Offset(0), iv_Data(nullptr)
{
    Resize(i_size);
}

DataBuff::DataBuff(const DataBuff& i_other) :
    Base(i_other), iv_Size(0), iv_Offset(0), iv_Data(nullptr)
{
    *this = i_other;
}

DataBuff& DataBuff::operator=(const DataBuff& i_other)
{
    if (this != &i_other)
    {
        if (iv_Size != i_other.iv_Size)
        {
            reallocate(i_other.iv_Size);
        }
        iv_Offset = i_other.iv_Offset;
        move(iv_Data, i_other.iv_Data, iv_Size);
    }
    return *this;
}

DataBuff::~DataBuff()
{
    std::free(iv_Data);
}

bool DataBuff::operator==(const DataBuff& i_other) const
{
    return iv_Size == i_other.iv_Size &&
           (iv_Size == 0 ||
            std::memcmp(iv_Data, i_other.iv_Data, iv_Size) == 0);
}

// Makes the block exactly i_size bytes; bytes gained are not initialised.
void DataBuff::reallocate(unsigned int i_size)
{
    if (i_size == 0)
    {
        std::free(iv_Data);
        iv_Data = nullptr;
    }
    else
    {
        iv_Data = static_cast<char*>(required(std::realloc(iv_Data, i_size)));
    }
    iv_Size = i_size;
}

void DataBuff::Resize(unsigned int i_size)
{
    const unsigned int l_before = iv_Size;
    if (iv_Offset > i_size)
    {
        iv_Offset = 0;
    }
    reallocate(i_size);
    if (i_size > l_before)
    {
        std::memset(iv_Data + l_before, UNWRITTEN, i_size - l_before);
    }
}

void DataBuff::Reset(char i_fill)
{
    iv_Offset = 0;
    if (iv_Size != 0)
    {
        std::memset(iv_Data, i_fill, iv_Size);
    }
}

void DataBuff::TrimFront(unsigned int i_bytes)
{
    iv_Offset = 0;
    requireInside(i_bytes, 0, iv_Size);
    const unsigned int l_left = iv_Size - i_bytes;
    move(iv_Data, iv_Data + i_bytes, l_left);
    reallocate(l_left);
}

unsigned int DataBuff::getOffset() const
{
    return iv_Offset;
}

void DataBuff::setOffset(unsigned int i_offset)
{
    requireInside(i_offset, 0, iv_Size);
    iv_Offset = i_offset;
}

void DataBuff::Peek(unsigned int i_at, void* o_bytes,
                    unsigned int i_length) const
{
    requireInside(i_at, i_length, iv_Size);
    move(static_cast<char*>(o_bytes), iv_Data + i_at, i_length);
}

// Deliberate: a constant buffer can be written to.
// Effect: const protects the size and the offset, not the bytes.
// Pinned by: DataBuffTest.PokeCopiesInAndLeavesTheOffset
void DataBuff::Poke(unsigned int i_at, const void* i_bytes,
                    unsigned int i_length) const
{
    requireInside(i_at, i_length, iv_Size);
    move(iv_Data + i_at, i_bytes, i_length);
}

void DataBuff::Append(const DataBuff& i_other, unsigned int i_at)
{
    const unsigned int l_length = i_other.iv_Size; // it may be this buffer
    requireInside(i_at, l_length, std::numeric_limits<std::uint32_t>::max());
    if (i_at + l_length > iv_Size)
    {
        Resize(i_at + l_length);
    }
    move(iv_Data + i_at, i_other.iv_Data, l_length);
    iv_Offset = i_at + l_length;
}

void DataBuff::Copy(DataBuff& io_src, unsigned int i_length,
                    unsigned int i_dstOffset, unsigned int i_srcOffset)
{
    requireInside(i_dstOffset, i_length, iv_Size);
    requireInside(i_srcOffset, i_length, io_src.iv_Size);
    move(iv_Data + i_dstOffset, io_src.iv_Data + i_srcOffset, i_length);
}

DataBuff& DataBuff::operator>>(std::string& o_string)
{
    const char* l_begin = iv_Data + iv_Offset;
    const std::size_t l_length = room() == 0 ? 0 : strnlen(l_begin, room());
    requireInside(iv_Offset, std::uint64_t(l_length) + 1, iv_Size);
    o_string.assign(l_begin, l_length);
    iv_Offset += static_cast<unsigned int>(l_length) + 1;
    return *this;
}

DataBuff& DataBuff::operator<<(pError_t i_error)
{
    if (!i_error || !i_error->flatten(iv_Data + iv_Offset, room()))
    {
        std::abort();
    }
    iv_Offset += static_cast<unsigned int>(i_error->getSize());
    return *this;
}

DataBuff& DataBuff::operator>>(pError_t& io_error)
{
    io_error.reset(required(new (std::nothrow) Error));
    io_error->unflatten(iv_Data + iv_Offset, room());
    iv_Offset += static_cast<unsigned int>(io_error->getSize());
    return *this;
}

DataBuff& DataBuff::operator<<(ErrorLogEntry* i_entry)
{
    if (i_entry == nullptr)
    {
        std::abort();
    }
    const unsigned int l_length = i_entry->flattenedSize();
    requireInside(iv_Offset, l_length, iv_Size);
    i_entry->flatten(iv_Data + iv_Offset, l_length);
    iv_Offset += l_length;
    return *this;
}

DataBuff& DataBuff::operator>>(ErrorLogEntry*& io_entry)
{
    if (io_entry != nullptr)
    {
        std::abort();
    }
    io_entry = required(new (std::nothrow) ErrorLogEntry);
    if (!io_entry->unflatten(iv_Data + iv_Offset, room()))
    {
        std::abort();
    }
    const unsigned int l_length = io_entry->flattenedSize();
    requireInside(iv_Offset, l_length, iv_Size);
    iv_Offset += l_length;
    return *this;
}

void DataBuff::Dump(FILE* /*o_stream*/) {}

unsigned int DataBuff::getSize() const
{
    return iv_Size;
}

const char* DataBuff::getData() const
{
    return iv_Data;
}

bool DataBuff::replaceBlock(unsigned int i_size)
{
    void* l_block = i_size == 0 ? nullptr : std::malloc(i_size);
    if (l_block == nullptr && i_size != 0)
    {
        return false;
    }
    std::free(iv_Data);
    iv_Data = static_cast<char*>(l_block);
    iv_Size = i_size;
    iv_Offset = 0;
    return true;
}

char* DataBuff::getBlock()
{
    return iv_Data;
}

unsigned int DataBuff::room() const
{
    return iv_Size - iv_Offset;
}

} // namespace tolv

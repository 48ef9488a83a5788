#include "tolv/platform/host/hostErrorLogFlat.hpp"

#include <cstring>

#include <new>

namespace tolvhost
{

namespace
{

template <class T>
void put(unsigned char* o_bytes, T i_value)
{
    for (std::size_t l_index = sizeof(T); l_index-- != 0;)
    {
        o_bytes[l_index] = static_cast<unsigned char>(i_value & 0xFF);
        i_value = static_cast<T>(i_value >> 4 >> 4);
    }
}

template <class T>
T fetch(const unsigned char* i_bytes)
{
    std::uint64_t l_value = 0;
    for (std::size_t l_index = 0; l_index != sizeof(T); ++l_index)
    {
        l_value = l_value << 8 | i_bytes[l_index];
    }
    return static_cast<T>(l_value);
}

std::uint32_t checksum(const unsigned char* i_bytes, std::size_t i_count)
{
    std::uint32_t l_crc = 0xFFFFFFFF;
    for (std::size_t l_index = 0; l_index != i_count; ++l_index)
    {
        l_crc ^= i_bytes[l_index];
        for (int l_bit = 0; l_bit != 8; ++l_bit)
        {
            l_crc = (l_crc >> 1) ^ ((l_crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~l_crc;
}

// Takes the trace at the front of [io_next, i_end) and moves io_next behind it.
bool decodeTrace(const unsigned char*& io_next, const unsigned char* i_end,
                 LogTrace& o_trace)
{
    const std::uint64_t l_room = static_cast<std::uint64_t>(i_end - io_next);
    if (l_room < TRACE_FIXED_PART)
    {
        return false;
    }
    const std::uint32_t l_length =
        fetch<std::uint32_t>(io_next + OFF_TRACE_LENGTH);
    if (l_length > MAX_TRACE || TRACE_FIXED_PART + l_length > l_room ||
        io_next[OFF_COMPONENT + COMPONENT_ROOM - 1] != '\0')
    {
        return false;
    }
    o_trace.bytes.reset(new (std::nothrow) unsigned char[l_length]);
    if (o_trace.bytes == nullptr)
    {
        return false;
    }
    std::memcpy(o_trace.component, io_next + OFF_COMPONENT, COMPONENT_ROOM);
    std::memcpy(o_trace.bytes.get(), io_next + TRACE_FIXED_PART, l_length);
    o_trace.length = l_length;
    io_next += TRACE_FIXED_PART + l_length;
    return true;
}

// Returns: the length of the form, 0 when it is not a whole and intact one.
std::uint32_t checkedLength(const unsigned char* i_flat, std::uint64_t i_room)
{
    if (i_room < FIXED_PART + CHECKSUM ||
        fetch<std::uint32_t>(i_flat + OFF_MAGIC) != FLAT_MAGIC ||
        fetch<std::uint16_t>(i_flat + OFF_VERSION) != FLAT_VERSION)
    {
        return 0;
    }
    const std::uint32_t l_length = fetch<std::uint32_t>(i_flat + OFF_LENGTH);
    if (l_length < FIXED_PART + CHECKSUM || l_length > i_room ||
        checksum(i_flat, l_length - CHECKSUM) !=
            fetch<std::uint32_t>(i_flat + l_length - CHECKSUM))
    {
        return 0;
    }
    return l_length;
}

} // namespace

std::uint32_t flatSize(const LogRecord& i_record)
{
    std::size_t l_size = FIXED_PART + CHECKSUM;
    for (std::uint32_t l_index = 0; l_index != i_record.traceCount; ++l_index)
    {
        l_size += TRACE_FIXED_PART + i_record.traces[l_index].length;
    }
    return static_cast<std::uint32_t>(l_size);
}

void encode(const LogRecord& i_record, unsigned char* o_flat)
{
    const std::uint32_t l_size = flatSize(i_record);
    put(o_flat + OFF_MAGIC, FLAT_MAGIC);
    put(o_flat + OFF_VERSION, FLAT_VERSION);
    put<std::uint16_t>(o_flat + OFF_FLAGS,
                       i_record.committed ? FLAG_COMMITTED : 0);
    put(o_flat + OFF_LENGTH, l_size);
    put(o_flat + OFF_SEVERITY, i_record.severity);
    put(o_flat + OFF_SECONDS, static_cast<std::uint64_t>(i_record.seconds));
    put(o_flat + OFF_NANO_SECONDS, i_record.nanoSeconds);
    unsigned char* l_next = o_flat + OFF_VALUES;
    for (const std::uint32_t l_value : i_record.values)
    {
        put(l_next, l_value);
        l_next += sizeof(l_value);
    }
    for (const std::uint32_t l_value : i_record.commitValues)
    {
        put(l_next, l_value);
        l_next += sizeof(l_value);
    }
    put(o_flat + OFF_TRACE_COUNT, i_record.traceCount);

    l_next = o_flat + FIXED_PART;
    for (std::uint32_t l_index = 0; l_index != i_record.traceCount; ++l_index)
    {
        const LogTrace& l_trace = i_record.traces[l_index];
        std::memcpy(l_next + OFF_COMPONENT, l_trace.component, COMPONENT_ROOM);
        put(l_next + OFF_TRACE_LENGTH, l_trace.length);
        std::memcpy(l_next + TRACE_FIXED_PART, l_trace.bytes.get(),
                    l_trace.length);
        l_next += TRACE_FIXED_PART + l_trace.length;
    }
    put(l_next, checksum(o_flat, l_size - CHECKSUM));
}

bool decode(const unsigned char* i_flat, std::uint64_t i_room,
            LogRecord& o_record)
{
    const std::uint32_t l_length = checkedLength(i_flat, i_room);
    if (l_length == 0)
    {
        return false;
    }
    const std::uint16_t l_flags = fetch<std::uint16_t>(i_flat + OFF_FLAGS);
    o_record.committed = l_flags == FLAG_COMMITTED;
    o_record.severity = fetch<std::uint32_t>(i_flat + OFF_SEVERITY);
    o_record.seconds = fetch<std::int64_t>(i_flat + OFF_SECONDS);
    o_record.nanoSeconds = fetch<std::uint32_t>(i_flat + OFF_NANO_SECONDS);
    o_record.traceCount = fetch<std::uint32_t>(i_flat + OFF_TRACE_COUNT);
    if (l_flags > FLAG_COMMITTED || o_record.nanoSeconds >= 1000000000 ||
        o_record.traceCount > MAX_TRACES)
    {
        return false;
    }
    const unsigned char* l_next = i_flat + OFF_VALUES;
    for (std::uint32_t& l_value : o_record.values)
    {
        l_value = fetch<std::uint32_t>(l_next);
        l_next += sizeof(l_value);
    }
    for (std::uint32_t& l_value : o_record.commitValues)
    {
        l_value = fetch<std::uint32_t>(l_next);
        l_next += sizeof(l_value);
    }

    l_next = i_flat + FIXED_PART;
    const unsigned char* l_end = i_flat + l_length - CHECKSUM;
    for (std::uint32_t l_index = 0; l_index != o_record.traceCount; ++l_index)
    {
        if (!decodeTrace(l_next, l_end, o_record.traces[l_index]))
        {
            return false;
        }
    }
    return l_next == l_end;
}

} // namespace tolvhost

#include "tolv/platform/errorLogEntry.hpp"

#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostErrorLogFlat.hpp"
#include "tolv/platform/host/hostErrorLogStore.hpp"
#include "tolv/platform/traceBuffer.hpp"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

using tolvhost::ErrnoKeeper;

class ErrorLogEntry::Data
{
  public:
    tolvhost::LogRecord record;
};

namespace
{

// Room for every value in hexadecimal, a blank before each.
constexpr std::size_t VALUES_TEXT = ErrorLogEntry::VALUE_COUNT * 9 + 1;

void printValues(const tolvhost::LogRecord& i_record,
                 char (&o_text)[VALUES_TEXT])
{
    std::size_t l_used = 0;
    for (const std::uint32_t l_value : i_record.values)
    {
        l_used += static_cast<std::size_t>(
            snprintf(o_text + l_used, VALUES_TEXT - l_used, " %X", l_value));
    }
}

// The line stands for the entry where the folder cannot be written.
void logLine(const tolvhost::LogRecord& i_record, const char* i_where)
{
    char l_values[VALUES_TEXT];
    printValues(i_record, l_values);
    const std::uint32_t* l_commit = i_record.commitValues;
    syslog(LOG_DAEMON | LOG_ERR,
           "error log: values%s, severity %u, commit %X %X %X %X, %s", l_values,
           i_record.severity, l_commit[0], l_commit[1], l_commit[2],
           l_commit[3], i_where);
}

// Puts the record into the log's folder. Returns: false with errno.
bool store(const tolvhost::LogRecord& i_record,
           char (&o_name)[tolvhost::LOG_NAME_ROOM])
{
    const std::uint32_t l_size = tolvhost::flatSize(i_record);
    const std::unique_ptr<unsigned char[]> l_flat(
        new (std::nothrow) unsigned char[l_size]);
    if (l_flat == nullptr)
    {
        return tolvhost::failed(ENOMEM);
    }
    tolvhost::encode(i_record, l_flat.get());
    return tolvhost::storeLogEntry(l_flat.get(), l_size, o_name);
}

} // namespace

ErrorLogEntry::ErrorLogEntry() : iv_Data(nullptr)
{
    const ErrnoKeeper l_keeper;
    iv_Data = new (std::nothrow) Data;
    if (iv_Data != nullptr)
    {
        timespec l_now = {};
        clock_gettime(CLOCK_REALTIME, &l_now);
        iv_Data->record.seconds = l_now.tv_sec;
        iv_Data->record.nanoSeconds = static_cast<std::uint32_t>(l_now.tv_nsec);
    }
}

ErrorLogEntry::ErrorLogEntry(unsigned int i_v0, unsigned int i_v1,
                             unsigned int i_v2, unsigned int i_v3,
                             unsigned int i_v4, unsigned int i_v5,
                             unsigned int i_v6, unsigned int i_v7,
                             unsigned int i_v8, unsigned int i_v9,
                             unsigned int i_v10, unsigned int i_v11,
                             unsigned int i_v12, unsigned int i_v13,
                             unsigned int i_v14) :
    ErrorLogEntry()
{
    const std::uint32_t l_values[VALUE_COUNT] = {
        i_v0, i_v1, i_v2,  i_v3,  i_v4,  i_v5,  i_v6, i_v7,
        i_v8, i_v9, i_v10, i_v11, i_v12, i_v13, i_v14};
    if (iv_Data != nullptr)
    {
        std::copy(std::begin(l_values), std::end(l_values),
                  iv_Data->record.values);
    }
}

ErrorLogEntry::~ErrorLogEntry()
{
    delete iv_Data;
}

void ErrorLogEntry::AddTrace(const char* i_component, unsigned int i_bytes)
{
    const ErrnoKeeper l_keeper;
    if (iv_Data == nullptr || i_component == nullptr ||
        std::strlen(i_component) >= tolvhost::COMPONENT_ROOM ||
        iv_Data->record.traceCount == tolvhost::MAX_TRACES)
    {
        return;
    }
    const std::uint32_t l_room = std::min(i_bytes, tolvhost::MAX_TRACE);
    std::unique_ptr<unsigned char[]> l_bytes(
        new (std::nothrow) unsigned char[l_room]);
    const int l_length =
        TraceBufferReadDiff(i_component, l_room, l_bytes.get());
    if (l_length >= 0)
    {
        tolvhost::LogTrace& l_trace =
            iv_Data->record.traces[iv_Data->record.traceCount++];
        std::strncpy(l_trace.component, i_component,
                     tolvhost::COMPONENT_ROOM - 1);
        l_trace.length = static_cast<std::uint32_t>(l_length);
        l_trace.bytes = std::move(l_bytes);
    }
}

void ErrorLogEntry::setSev(unsigned int i_severity)
{
    if (iv_Data != nullptr)
    {
        iv_Data->record.severity = i_severity;
    }
}

void ErrorLogEntry::commit(unsigned int i_a, unsigned int i_b, unsigned int i_c,
                           unsigned int i_d)
{
    const ErrnoKeeper l_keeper;
    if (iv_Data == nullptr)
    {
        return;
    }
    tolvhost::LogRecord& l_record = iv_Data->record;
    const std::uint32_t l_values[COMMIT_VALUE_COUNT] = {i_a, i_b, i_c, i_d};
    std::copy(std::begin(l_values), std::end(l_values), l_record.commitValues);
    l_record.committed = true;

    char l_name[tolvhost::LOG_NAME_ROOM];
    if (!store(l_record, l_name))
    {
        snprintf(l_name, sizeof(l_name), "not stored, errno %d", errno);
    }
    logLine(l_record, l_name);
}

unsigned int ErrorLogEntry::flattenedSize() const
{
    return iv_Data == nullptr ? 0 : tolvhost::flatSize(iv_Data->record);
}

unsigned int ErrorLogEntry::flatten(void* o_buffer, unsigned int i_room) const
{
    const unsigned int l_size = flattenedSize();
    if (l_size == 0 || l_size > i_room || o_buffer == nullptr)
    {
        return 0;
    }
    tolvhost::encode(iv_Data->record, static_cast<unsigned char*>(o_buffer));
    return l_size;
}

bool ErrorLogEntry::unflatten(const void* i_buffer, unsigned int i_room)
{
    const ErrnoKeeper l_keeper;
    std::unique_ptr<Data> l_data(new (std::nothrow) Data);
    if (l_data == nullptr || i_buffer == nullptr ||
        !tolvhost::decode(static_cast<const unsigned char*>(i_buffer), i_room,
                          l_data->record))
    {
        return false;
    }
    delete iv_Data;
    iv_Data = l_data.release();
    return true;
}

unsigned int ErrorLogEntry::value(unsigned int i_index) const
{
    return iv_Data == nullptr || i_index >= VALUE_COUNT
               ? 0
               : iv_Data->record.values[i_index];
}

unsigned int ErrorLogEntry::getSeverity() const
{
    return iv_Data == nullptr ? 0 : iv_Data->record.severity;
}

std::int64_t ErrorLogEntry::getTime() const
{
    return iv_Data == nullptr ? 0 : iv_Data->record.seconds;
}

unsigned int ErrorLogEntry::getNanoSeconds() const
{
    return iv_Data == nullptr ? 0 : iv_Data->record.nanoSeconds;
}

bool ErrorLogEntry::isCommitted() const
{
    return iv_Data != nullptr && iv_Data->record.committed;
}

unsigned int ErrorLogEntry::commitValue(unsigned int i_index) const
{
    return iv_Data == nullptr || i_index >= COMMIT_VALUE_COUNT
               ? 0
               : iv_Data->record.commitValues[i_index];
}

unsigned int ErrorLogEntry::getTraceCount() const
{
    return iv_Data == nullptr ? 0 : iv_Data->record.traceCount;
}

const char* ErrorLogEntry::getTraceComponent(unsigned int i_index) const
{
    return i_index < getTraceCount() ? iv_Data->record.traces[i_index].component
                                     : nullptr;
}

const void* ErrorLogEntry::getTrace(unsigned int i_index) const
{
    return i_index < getTraceCount()
               ? iv_Data->record.traces[i_index].bytes.get()
               : nullptr;
}

unsigned int ErrorLogEntry::getTraceLength(unsigned int i_index) const
{
    return i_index < getTraceCount() ? iv_Data->record.traces[i_index].length
                                     : 0;
}

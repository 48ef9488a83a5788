// Private header of the host platform: an error-log entry and its flat form.
#ifndef TOLV_PLATFORM_HOST_HOSTERRORLOGFLAT_HPP
#define TOLV_PLATFORM_HOST_HOSTERRORLOGFLAT_HPP

#include "tolv/platform/errorLogEntry.hpp"

#include <cstddef>
#include <cstdint>

#include <memory>

namespace tolvhost
{

// Flat form, version 1: offsets in bytes, every field big-endian. A new layout
// takes a new version; files of the error log and messages carry this one.
constexpr std::size_t OFF_MAGIC = 0;          // u32: "TOLE"
constexpr std::size_t OFF_VERSION = 4;        // u16: 1
constexpr std::size_t OFF_FLAGS = 6;          // u16: bit 0 committed, others 0
constexpr std::size_t OFF_LENGTH = 8;         // u32: of the whole form
constexpr std::size_t OFF_SEVERITY = 12;      // u32
constexpr std::size_t OFF_SECONDS = 16;       // s64: since 1970-01-01 UTC
constexpr std::size_t OFF_NANO_SECONDS = 24;  // u32: below 1,000,000,000
constexpr std::size_t OFF_VALUES = 28;        // 15 times u32
constexpr std::size_t OFF_COMMIT_VALUES = 88; // 4 times u32
constexpr std::size_t OFF_TRACE_COUNT = 104;  // u32: 0 to MAX_TRACES
constexpr std::size_t FIXED_PART = 108;       // then the traces, then the CRC
static_assert(OFF_VALUES + std::size_t{4} * ErrorLogEntry::VALUE_COUNT ==
                  OFF_COMMIT_VALUES,
              "flat form");
static_assert(OFF_COMMIT_VALUES +
                      std::size_t{4} * ErrorLogEntry::COMMIT_VALUE_COUNT ==
                  OFF_TRACE_COUNT,
              "flat form");

// Each trace, from its beginning.
constexpr std::size_t OFF_COMPONENT = 0;     // 32 bytes: name, then zeros
constexpr std::size_t OFF_TRACE_LENGTH = 32; // u32: 0 to MAX_TRACE
constexpr std::size_t TRACE_FIXED_PART = 36; // then the trace's bytes
constexpr std::size_t COMPONENT_ROOM = OFF_TRACE_LENGTH;

// Last, u32: the CRC-32 of every byte before it, with the polynomial
// 0x04C11DB7 reflected, started with and finally inverted by 0xFFFFFFFF; that
// of the nine bytes "123456789" is 0xCBF43926.
constexpr std::size_t CHECKSUM = 4;

constexpr std::uint32_t FLAT_MAGIC = 0x544F4C45;
constexpr std::uint16_t FLAT_VERSION = 1;
constexpr std::uint16_t FLAG_COMMITTED = 1;

constexpr unsigned int MAX_TRACES = 4;
constexpr std::uint32_t MAX_TRACE = 16384 - TRACE_FIXED_PART; // bytes

/// A snapshot of a trace buffer.
struct LogTrace
{
    char component[COMPONENT_ROOM] = "";
    std::uint32_t length = 0;
    std::unique_ptr<unsigned char[]> bytes;
};

/// The content of an error-log entry.
struct LogRecord
{
    bool committed = false;
    std::uint32_t severity = 0;
    std::int64_t seconds = 0;
    std::uint32_t nanoSeconds = 0;
    std::uint32_t values[ErrorLogEntry::VALUE_COUNT] = {};
    std::uint32_t commitValues[ErrorLogEntry::COMMIT_VALUE_COUNT] = {};
    std::uint32_t traceCount = 0;
    LogTrace traces[MAX_TRACES];
};

/// Units: bytes.
std::uint32_t flatSize(const LogRecord& i_record);

/// Writes flatSize() bytes.
void encode(const LogRecord& i_record, unsigned char* o_flat);

/// Returns: false when the form is malformed, does not fit i_room, or memory
///          is short; o_record is not to be used then.
bool decode(const unsigned char* i_flat, std::uint64_t i_room,
            LogRecord& o_record);

} // namespace tolvhost

#endif

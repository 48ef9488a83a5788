// Public header: the platform's error-log service.
#ifndef TOLV_PLATFORM_ERRORLOGENTRY_HPP
#define TOLV_PLATFORM_ERRORLOGENTRY_HPP

#include "tolv/vex/tolvExport.hpp"

#include <cstdint>

/// One record of the platform's error log: fifteen values, the time it was
/// made, a severity and snapshots of trace buffers.
///
/// The library calls what stands before value(); a platform may leave out the
/// rest. Its data and its flat form are each platform's own.
///
/// Errors:  no operation fails visibly or changes errno. When memory is short
///          the entry stays or becomes a blank one: every value 0, no trace,
///          flattened size 0.
/// Threads: one thread at a time; independent entries on any threads.
class TOLV_EXPORT ErrorLogEntry
{
  public:
    enum
    {
        VALUE_COUNT = 15,
        COMMIT_VALUE_COUNT = 4
    };

    /// Every value 0, made now.
    ErrorLogEntry();

    ErrorLogEntry(unsigned int i_v0, unsigned int i_v1, unsigned int i_v2,
                  unsigned int i_v3, unsigned int i_v4, unsigned int i_v5,
                  unsigned int i_v6, unsigned int i_v7, unsigned int i_v8,
                  unsigned int i_v9, unsigned int i_v10, unsigned int i_v11,
                  unsigned int i_v12, unsigned int i_v13, unsigned int i_v14);

    ~ErrorLogEntry();
    ErrorLogEntry(const ErrorLogEntry&) = delete;
    ErrorLogEntry& operator=(const ErrorLogEntry&) = delete;

    /// Attaches a snapshot of the trace buffer of that name, taken now. An
    /// unknown name attaches nothing.
    ///
    /// Units: i_bytes, bytes; at most that many of the newest entries.
    void AddTrace(const char* i_component, unsigned int i_bytes);

    /// 0 until set.
    void setSev(unsigned int i_severity);

    /// Puts the entry into the error log, with four more values of the
    /// caller's: two 16-bit identifiers, severity and event type.
    ///
    /// Blocks: while the log's storage does.
    void commit(unsigned int i_a, unsigned int i_b, unsigned int i_c,
                unsigned int i_d);

    /// Units: bytes.
    unsigned int flattenedSize() const;

    /// Writes the flat form.
    ///
    /// Returns: bytes written; 0, and nothing is written, when the flattened
    ///          size exceeds i_room.
    unsigned int flatten(void* o_buffer, unsigned int i_room) const;

    /// Becomes what the flat form at i_buffer says; more bytes may follow it.
    ///
    /// Returns: false, and the entry stays as it was, when the form is
    ///          malformed or does not fit i_room. No byte beyond is touched.
    bool unflatten(const void* i_buffer, unsigned int i_room);

    /// Returns: the value at i_index, 0 beyond the last.
    unsigned int value(unsigned int i_index) const;

    unsigned int getSeverity() const;

    /// When the entry was made. Units: seconds since 1970-01-01 UTC.
    std::int64_t getTime() const;

    /// Units: nanoseconds of the second that getTime() returns.
    unsigned int getNanoSeconds() const;

    bool isCommitted() const;

    /// Returns: commit()'s argument at i_index, 0 beyond the last.
    unsigned int commitValue(unsigned int i_index) const;

    unsigned int getTraceCount() const;

    /// Returns: the name of the trace buffer, null beyond the last trace.
    /// Ownership: the entry's, as long as it is not changed.
    const char* getTraceComponent(unsigned int i_index) const;

    /// Returns: the snapshot, null beyond the last trace.
    /// Ownership: the entry's, as long as it is not changed.
    const void* getTrace(unsigned int i_index) const;

    /// Units: bytes; 0 beyond the last trace.
    unsigned int getTraceLength(unsigned int i_index) const;

  private:
    class Data;

    Data* iv_Data; // owned; null in a blank entry
};

#endif

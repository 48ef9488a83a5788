// Public header: the platform's files, which report failures as error-log
// entries.
#ifndef TOLV_PLATFORM_PLATFORMFILE_HPP
#define TOLV_PLATFORM_PLATFORMFILE_HPP

#include "tolv/vex/tolvExport.hpp"

class ErrorLogEntry;

/// A file to read from.
///
/// Errors:  a failed operation leaves an error-log entry for takeError(), with
///          one of the reasons below as value 7 and errno as value 8. While
///          one waits to be taken, further failures make no other. A file that
///          found no memory when it was made opens and reads nothing;
///          takeError() gives a new entry with REASON_OPEN and ENOMEM each
///          time. Where memory is too short for an entry there is none, or a
///          blank one. Nothing is thrown.
/// Threads: one thread at a time.
class TOLV_EXPORT PlatformFile
{
  public:
    enum REASON
    {
        REASON_OPEN = 0x0101,
        REASON_READ = 0x0102,
        REASON_CLOSE = 0x0103
    };

    /// Touches no file yet. i_path is copied; null counts as an empty path.
    explicit PlatformFile(const char* i_path);

    /// Closes the file if need be and drops an entry that nobody took.
    ~PlatformFile();

    PlatformFile(const PlatformFile&) = delete;
    PlatformFile& operator=(const PlatformFile&) = delete;

    /// Opens the file; i_mode is fopen()'s. The meaning of i_flag is the
    /// platform's; false is always right.
    ///
    /// Errors: besides what open() reports, EINVAL for an unknown mode and
    ///         EBUSY when it is open already (and stays so).
    void Open(const char* i_mode, bool i_flag);

    /// Reads on until i_count bytes are there or the file ends.
    ///
    /// Returns: bytes read; less than i_count at the end of the file, which is
    ///          no failure, or after one.
    /// Errors:  besides what read() reports, EBADF when no file is open.
    unsigned int read(void* o_buffer, unsigned int i_count);

    /// Errors: besides what close() reports, EBADF when no file is open.
    void Close();

    /// Returns:   the entry of the earliest failure since the last call, null
    ///            when there was none.
    /// Ownership: the caller's.
    ErrorLogEntry* takeError();

  private:
    class Data;

    Data* iv_Data; // owned; null when memory was short
};

#endif

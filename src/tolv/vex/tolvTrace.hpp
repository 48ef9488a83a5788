// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVTRACE_HPP
#define TOLV_VEX_TOLVTRACE_HPP

#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"

#include <cstddef>
#include <cstdio>

/// The platform's descriptor of the trace buffer "TOLV", filled when the
/// library is loaded.
extern "C" TOLV_EXPORT int g_TolvTraceDesc;

namespace tolv
{

class Mutex;

/// The process's trace file: plain text for debugging, one line or dump at a
/// time, each flushed. The library itself writes nothing to it.
///
/// Each line begins with the uptime in seconds and microseconds, the process,
/// and the base name of i_path and i_line (pass __FILE__ and __LINE__).
///
/// Errors:  when the file cannot be opened every write is silently skipped.
///          errno is left unchanged.
/// Blocks:  while the file's storage does, and while another thread writes.
/// Threads: any; lines and dumps of different threads never interleave. A
///          child of fork() goes on in its parent's file, so a daemon makes
///          the first call after it has detached.
class TOLV_EXPORT TraceFile
{
  public:
    /// The single instance, made by the first call, which also decides where
    /// it writes: to i_stream, or for null to "/nfs/data/tolv.%i.trac" with
    /// the process id (truncated, mode 0666).
    ///
    /// Ownership: the instance lives as long as the process; i_stream stays
    ///            the caller's and open as long.
    static TraceFile* getInstance(FILE* i_stream = nullptr);

    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    /// Writes one line: the header, the formatted text, a newline.
    void Printf(const char* i_path, int i_line, const char* i_format, ...)
        TOLV_PRINTF(4, 5);

    /// Writes a line with i_text, then i_length bytes in lines of sixteen:
    /// address, hexadecimal in groups of four bytes, printable characters
    /// ("." for the others and for "&", "<" and ">").
    ///
    /// Units: i_length, bytes. The address is the low 32 bits of that of the
    ///        line's first byte.
    void HexDump(const char* i_path, int i_line, const char* i_text,
                 const void* i_data, std::size_t i_length);

  private:
    friend class FunctionTrace;

    explicit TraceFile(FILE* i_stream);

    /// One entry of the file while it is written, see the source.
    class Line;

    // Declared order is the object layout.
    FILE* iv_Stream; // null: nothing is written
    Mutex* iv_Lock;  // owned; held for each line or dump
};

/// Writes a line when a function is entered and one when it is left.
///
/// Threads: made and destroyed by one thread, as a local of the function.
class TOLV_EXPORT FunctionTrace
{
  public:
    /// Writes "HEADER>> NAME( ARGUMENTS )".
    ///
    /// i_stream is passed on to TraceFile::getInstance(). i_path MUST contain
    /// a "/": what stands after the last one is printed, and its absence is
    /// not tested. i_prettyFunction, as from __PRETTY_FUNCTION__, gives the
    /// name: what stands between the first blank and the first "(", or before
    /// the "(" when no blank is; all of it when that is nothing or there is no
    /// "(". i_format is null where no arguments are shown.
    ///
    /// Ownership: i_path stays the caller's and lives as long as the object.
    FunctionTrace(FILE* i_stream, const char* i_path, int i_line,
                  const char* i_prettyFunction, const char* i_format, ...)
        TOLV_PRINTF(6, 7);

    /// Writes "HEADER<< NAME(  )".
    ~FunctionTrace();
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

  private:
    // Declared order is the object layout.
    const char* iv_File; // base name, inside the caller's path
    int iv_Line;
    char* iv_Name; // owned, from new[]
    FILE* iv_Stream;
};

} // namespace tolv

#endif

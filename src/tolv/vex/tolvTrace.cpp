#include "tolv/vex/tolvTrace.hpp"

#include "tolv/platform/traceBuffer.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include <algorithm>
#include <atomic>

int g_TolvTraceDesc = 0;

namespace
{

// Sizes in bytes of the buffers that exist from load to exit.
constexpr unsigned int MAIN_BUFFER = 8192;
constexpr unsigned int DEBUG_BUFFER = 1024;

int g_debugDesc = 0;

// Runs when the library is loaded; results are of no interest: without the
// platform's service there is no trace.
const struct Loaded
{
    Loaded() noexcept
    {
        TraceBufferInit(&g_TolvTraceDesc, "TOLV", MAIN_BUFFER);
        TraceBufferInit(&g_debugDesc, "TOLV_DBG", DEBUG_BUFFER);
    }
} g_loaded;

std::atomic<tolv::TraceFile*> g_instance(nullptr);

// Guards the creation of the instance. Made by the first use and never
// destroyed: a thread may still hold it while the process exits.
tolv::Mutex& instanceLock()
{
    static tolv::Mutex* const s_lock = new tolv::Mutex;
    return *s_lock;
}

// Null when the file cannot be opened. A link at the path is not followed:
// the folder may be writable for others.
//
// Deliberate: the file is for everybody, whatever the umask took away.
// Effect: any user of the machine may read, empty and write a daemon's trace.
// Pinned by: TraceFileTest.EveryoneMayReadAndWriteWhateverTheUmask
FILE* openTraceFile()
{
    char l_path[80];
    snprintf(l_path, sizeof(l_path), "/nfs/data/tolv.%i.trac", getpid());
    const int l_fd = open(
        l_path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (l_fd == -1)
    {
        return nullptr;
    }
    FILE* l_stream = fdopen(l_fd, "w");
    if (l_stream == nullptr)
    {
        close(l_fd);
        return nullptr;
    }
    fchmod(l_fd, 0666);
    __fsetlocking(l_stream, FSETLOCKING_BYCALLER);
    return l_stream;
}

const char* baseName(const char* i_path)
{
    const char* l_slash = std::strrchr(i_path, '/');
    return l_slash == nullptr ? i_path : l_slash + 1;
}

// The qualified name in "TYPE NAME(PARAMETERS)"; the whole text where there is
// no such part. The caller owns the new array.
//
// Deliberate: the name begins after the first blank, not after the last.
// Effect: "virtual void a::b()" and "const char* a::b()" keep a part of their
// type, "void a::b" and "char* a::b".
// Pinned by: FunctionTraceTest.NameBeginsAfterTheFirstBlank
char* functionName(const char* i_pretty)
{
    const char* l_begin = i_pretty;
    const char* l_end = std::strchr(i_pretty, '(');
    if (l_end != nullptr)
    {
        const char* l_blank = std::find(i_pretty, l_end, ' ');
        if (l_blank != l_end)
        {
            l_begin = l_blank + 1;
        }
    }
    if (l_end == nullptr || l_begin == l_end)
    {
        l_begin = i_pretty;
        l_end = i_pretty + std::strlen(i_pretty);
    }
    char* l_name = new char[static_cast<std::size_t>(l_end - l_begin) + 1];
    *std::copy(l_begin, l_end, l_name) = '\0';
    return l_name;
}

constexpr std::size_t DUMP_LINE = 16; // bytes
constexpr std::size_t DUMP_GROUP = 4; // bytes between two gaps
constexpr int HEX_COLUMN = 43;        // characters, padding included
constexpr int ASCII_COLUMN = 19;      // characters, padding included

// Deliberate: what begins markup is not shown either.
// Effect: "&", "<" and ">" are dots, and a dump can stand in a page as it is.
// Pinned by: TraceFileTest.DumpShowsUnprintableAndMarkupBytesAsDots
bool isShown(unsigned char i_byte)
{
    return std::isprint(i_byte) != 0 && i_byte != '&' && i_byte != '<' &&
           i_byte != '>';
}

// Deliberate: the first column is the address in memory, not the offset in the
// data, and as wide as an address of the deployed target.
// Effect: dumps of equal data differ; where addresses are wider than 32 bits
// their low half is shown.
// Pinned by: TraceFileTest.DumpShowsAddressesInMemory
void dumpLine(FILE* o_stream, const unsigned char* i_bytes, std::size_t i_count)
{
    fprintf(o_stream, "|   %08X     ",
            static_cast<unsigned int>(
                reinterpret_cast<std::uintptr_t>(i_bytes) & 0xFFFFFFFFU));
    int l_printed = 0;
    for (std::size_t l_index = 0; l_index != i_count; ++l_index)
    {
        l_printed += fprintf(o_stream, "%02X", i_bytes[l_index]);
        if ((l_index + 1) % DUMP_GROUP == 0)
        {
            l_printed += fprintf(o_stream, "  ");
        }
    }
    fprintf(o_stream, "%-*c", HEX_COLUMN - l_printed, ' ');
    for (std::size_t l_index = 0; l_index != i_count; ++l_index)
    {
        fputc(isShown(i_bytes[l_index]) ? i_bytes[l_index] : '.', o_stream);
    }
    fprintf(o_stream, "%-*c|\n", ASCII_COLUMN - static_cast<int>(i_count), ' ');
}

} // namespace

namespace tolv
{

// Holds the file's lock, has written the header, flushes at its end, and leaves
// errno as it was. With no stream it does nothing and its user writes nothing.
//
// Deliberate: the microseconds have blanks behind, not zeros in front.
// Effect: 50 microseconds after the first second read "1.50".
// Pinned by: TraceFileTest.MicrosecondsAreNotPaddedWithZeros
class TraceFile::Line
{
  public:
    Line(TraceFile& io_file, const char* i_base, int i_line) :
        iv_Errno(errno), iv_Hold(*io_file.iv_Lock), iv_Stream(io_file.iv_Stream)
    {
        if (iv_Stream != nullptr)
        {
            const TimeValue l_now = TimeValue::getUptime();
            fprintf(iv_Stream, "[%8u.%-6u ][%u][%s:%i] ", l_now.getSeconds(),
                    l_now.getMicroSeconds(),
                    static_cast<unsigned int>(getpid()), i_base, i_line);
        }
        errno = iv_Errno; // the text may show it
    }

    ~Line()
    {
        if (iv_Stream != nullptr)
        {
            fflush(iv_Stream);
        }
        errno = iv_Errno;
    }

    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    FILE* stream() const
    {
        return iv_Stream;
    }

  private:
    const int iv_Errno; // the caller's
    const MutexLock iv_Hold;
    FILE* const iv_Stream;
};

TraceFile::TraceFile(FILE* i_stream) :
    iv_Stream(i_stream == nullptr ? openTraceFile() : i_stream),
    iv_Lock(new Mutex)
{
}

TraceFile* TraceFile::getInstance(FILE* i_stream)
{
    TraceFile* l_instance = g_instance.load(std::memory_order_acquire);
    if (l_instance == nullptr)
    {
        const MutexLock l_lock(instanceLock());
        l_instance = g_instance.load(std::memory_order_relaxed);
        if (l_instance == nullptr)
        {
            const int l_errno = errno;
            l_instance = new TraceFile(i_stream);
            g_instance.store(l_instance, std::memory_order_release);
            errno = l_errno;
        }
    }
    return l_instance;
}

void TraceFile::Printf(const char* i_path, int i_line, const char* i_format,
                       ...)
{
    const Line l_line(*this, baseName(i_path), i_line);
    if (l_line.stream() != nullptr)
    {
        va_list l_args;
        va_start(l_args, i_format);
        vfprintf(l_line.stream(), i_format, l_args);
        va_end(l_args);
        fputc('\n', l_line.stream());
    }
}

void TraceFile::HexDump(const char* i_path, int i_line, const char* i_text,
                        const void* i_data, std::size_t i_length)
{
    const Line l_line(*this, baseName(i_path), i_line);
    if (l_line.stream() != nullptr)
    {
        fprintf(l_line.stream(), "%s\n", i_text);
        const unsigned char* l_bytes =
            static_cast<const unsigned char*>(i_data);
        for (std::size_t l_done = 0; l_done < i_length; l_done += DUMP_LINE)
        {
            dumpLine(l_line.stream(), l_bytes + l_done,
                     std::min(DUMP_LINE, i_length - l_done));
        }
    }
}

// Deliberate: the path is not tested for the "/" that it must contain.
// Effect: a path without one ends the process when the line is written; paths
// come from the build and have one.
// Pinned by: FunctionTraceDeathTest.PathWithoutASlashIsNotGuarded
FunctionTrace::FunctionTrace(FILE* i_stream, const char* i_path, int i_line,
                             const char* i_prettyFunction, const char* i_format,
                             ...) :
    iv_File(std::strrchr(i_path, '/') + 1),
    iv_Line(i_line), iv_Name(functionName(i_prettyFunction)),
    iv_Stream(i_stream)
{
    const TraceFile::Line l_line(*TraceFile::getInstance(iv_Stream), iv_File,
                                 iv_Line);
    if (l_line.stream() != nullptr)
    {
        fprintf(l_line.stream(), ">> %s( ", iv_Name);
        if (i_format != nullptr)
        {
            va_list l_args;
            va_start(l_args, i_format);
            vfprintf(l_line.stream(), i_format, l_args);
            va_end(l_args);
        }
        fprintf(l_line.stream(), " )\n");
    }
}

FunctionTrace::~FunctionTrace()
{
    {
        const TraceFile::Line l_line(*TraceFile::getInstance(iv_Stream),
                                     iv_File, iv_Line);
        if (l_line.stream() != nullptr)
        {
            fprintf(l_line.stream(), "<< %s(  )\n", iv_Name);
        }
    }
    delete[] iv_Name;
}

} // namespace tolv

#include "tolv/vex/tolvProfile.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/platformFile.hpp"
#include "tolv/vex/tolvAssert.hpp"
#include "tolv/vex/tolvBigEndian.hpp"
#include "tolv/vex/tolvChannel.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <algorithm>
#include <memory>
#include <new>

namespace
{

// Checkpoints that are there without another allocation.
constexpr std::size_t RESERVED = 20;

constexpr unsigned short STAMP_MAJOR = 0xFFE8;
constexpr unsigned short STAMP_MINOR = 0;

// Wire form: a count, then so many checkpoints of three words (id, seconds,
// microseconds), every word 32 bits with the most significant byte first. DO
// NOT CHANGE: peers built separately speak it. Drawn in docs/wire-format.md.
constexpr unsigned int WORD = 4;               // bytes
constexpr unsigned int CHECK_POINT = 3 * WORD; // bytes
constexpr unsigned int OFF_SECONDS = WORD;
constexpr unsigned int OFF_MICROSECONDS = 8;
static_assert(OFF_MICROSECONDS + WORD == CHECK_POINT, "checkpoint layout");
constexpr unsigned int SMALLEST_RECORD = 2 * WORD; // its length and a count

const char* const COMMAND_OUTPUT = "/tmp/tolvperf.tmp";

// A line that RunCommand() reads, in characters with the terminating NUL.
constexpr int COMMAND_LINE = 4096;

// Whatever goes wrong at opening, reading or closing the progress file goes to
// the platform's error log.
//
// Returns: whether something had gone wrong.
bool commitError(PlatformFile& io_file)
{
    const std::unique_ptr<ErrorLogEntry> l_entry(io_file.takeError());
    if (l_entry == nullptr)
    {
        return false;
    }
    l_entry->setSev(0);
    l_entry->commit(0x4400, 0x4000, 0xFF, 0);
    return true;
}

// Today in UTC.
//
// Deliberate: month and day are padded with blanks, not with zeros.
// Effect: 5 January 2026 reads "2026 1 5".
// Pinned by: ProfilerCsvTest.DateIsPaddedWithBlanks
std::string today()
{
    const time_t l_now = time(nullptr);
    tm l_utc = {};
    char l_date[36] = "20060101";
    if (gmtime_r(&l_now, &l_utc) != nullptr)
    {
        snprintf(l_date, sizeof(l_date), "%4d%2d%2d", l_utc.tm_year + 1900,
                 l_utc.tm_mon + 1, l_utc.tm_mday);
    }
    return l_date;
}

// Empty where the link cannot be read, as that of another user's process.
//
// Deliberate: the executable is the parent's, not the caller's own.
// Effect: a row names the program that started the daemon.
// Pinned by: ProfilerCsvTest.ExecutableIsTheParents
std::string executable()
{
    char l_link[50] = {};
    char l_path[4096] = {};
    snprintf(l_link, sizeof(l_link), "/proc/%d/exe", getppid());
    const ssize_t l_length = readlink(l_link, l_path, sizeof(l_path) - 1);
    const std::string l_text(l_path, l_length > 0 ? std::size_t(l_length) : 0);
    return l_text.substr(l_text.rfind('/') + 1);
}

std::string host()
{
    char l_name[100] = {};
    gethostname(l_name, sizeof(l_name) - 1);
    return l_name;
}

// Deliberate: the two halves of the progress code are printed one behind the
// other without padding.
// Effect: the codes 0x0102 0x0300 read "102300", and some codes read alike.
// Pinned by: ProfilerCsvTest.ProgressHalvesAreNotPadded
//
// Deliberate: a name that is null is printed as the C library prints one.
// Effect: the name column reads "(null)", as no id has a name.
// Pinned by: ProfilerCsvTest.RowNamesProcessDateHostAndProgress
void writeRowHead(FILE* o_stream, const unsigned char* i_progress)
{
    const std::string l_when = today() + ", A, " + host();
    fprintf(o_stream, "\n%s, %d, %d, %s, %s, %x%x,", executable().c_str(),
            getpid(), static_cast<int>(pthread_self()),
            __atomic_load_n(&tolv::g_ProfileName, __ATOMIC_RELAXED),
            l_when.c_str(), tolv::getBig16(i_progress),
            tolv::getBig16(i_progress + 2));
}

tolv::pError_t invalidRecord(std::uint32_t i_length)
{
    char l_text[96];
    snprintf(l_text, sizeof(l_text),
             "Profiler::ReadFromChannel ==> Invalid Record received Length[%u]",
             i_length);
    return tolv::pError_t(new (std::nothrow) tolv::Error(0, 0, l_text));
}

bool isLink(const char* i_path)
{
    struct stat l_status = {};
    return lstat(i_path, &l_status) == 0 && S_ISLNK(l_status.st_mode);
}

// The lines of a file with a blank between them. Lines that are empty add
// nothing, and a longer line counts as several.
std::string joinedLines(FILE* i_stream)
{
    std::string l_result;
    char l_line[COMMAND_LINE];
    while (fgets(l_line, COMMAND_LINE, i_stream) != nullptr)
    {
        l_line[std::strcspn(l_line, "\n")] = '\0';
        if (!l_result.empty() && l_line[0] != '\0')
        {
            l_result += ' ';
        }
        l_result += l_line;
    }
    return l_result;
}

// A lock that lives as long as the process: its destructor does not run, since
// a thread may hold it while the process exits.
union LastingLock
{
    LastingLock() noexcept : lock() {}
    ~LastingLock() {} // NOLINT(modernize-use-equals-default): it would not do
    LastingLock(const LastingLock&) = delete;
    LastingLock& operator=(const LastingLock&) = delete;

    tolv::Mutex lock;
};

// Has a plain name for the linker so that an alias can say it.
LastingLock g_lastingLock __asm__("tolvProfileLock");

} // namespace

namespace tolv
{

const char* g_ProfileCsvPath = "/nfs/test/tolvprofdata/tolvprofile.csv";
const char* g_ProfileName = nullptr;
extern Mutex g_ProfileLock __attribute__((alias("tolvProfileLock")));

Profiler::Profiler() : iv_Id(0), iv_CheckPoints()
{
    iv_CheckPoints.reserve(RESERVED);
}

Profiler::Profiler(const Profiler& i_other) : Profiler()
{
    *this = i_other;
}

// Deliberate: the id is not copied.
// Effect: the copy of a profile has the id 0 until it is begun or ended.
// Pinned by: ProfilerTest.CopyHasTheCheckPointsAndNotTheId
// cppcheck-suppress operatorEqVarError
Profiler& Profiler::operator=(const Profiler& i_other)
{
    if (this != &i_other)
    {
        iv_CheckPoints = i_other.iv_CheckPoints;
    }
    return *this;
}

Profiler::~Profiler() = default;

void Profiler::addCheckPoint(unsigned short i_major, unsigned short i_minor)
{
    const std::uint32_t l_id = (std::uint32_t(i_major) << 16) | i_minor;
    iv_CheckPoints.push_back({l_id, TimeValue::getUptime()});
}

void Profiler::addStamp()
{
    addCheckPoint(STAMP_MAJOR, STAMP_MINOR);
}

void Profiler::begin(unsigned int i_id)
{
    iv_Id = i_id;
    addStamp();
}

// The name is set without the lock, but not torn: a row of another thread may
// carry it.
void Profiler::end(unsigned int i_id)
{
    __atomic_store_n(&g_ProfileName, getProfileName(i_id), __ATOMIC_RELAXED);
    iv_Id = i_id;
    static_cast<void>(udpProfBroadcast());
}

unsigned int Profiler::profileLength() const
{
    const unsigned int l_count =
        static_cast<unsigned int>(iv_CheckPoints.size());
    return WORD + l_count * CHECK_POINT;
}

unsigned int Profiler::PlaceProfile(void* o_bytes) const
{
    unsigned char* l_bytes = static_cast<unsigned char*>(o_bytes);
    putBig32(l_bytes, static_cast<std::uint32_t>(iv_CheckPoints.size()));
    l_bytes += WORD;
    for (const CheckPoint& l_point : iv_CheckPoints)
    {
        putBig32(l_bytes, l_point.id);
        putBig32(l_bytes + OFF_SECONDS, l_point.time.getSeconds());
        putBig32(l_bytes + OFF_MICROSECONDS, l_point.time.getMicroSeconds());
        l_bytes += CHECK_POINT;
    }
    return profileLength();
}

unsigned int Profiler::ExtractProfile(const void* i_bytes)
{
    const unsigned char* l_bytes = static_cast<const unsigned char*>(i_bytes);
    const std::uint32_t l_count = getBig32(l_bytes);
    l_bytes += WORD;
    iv_CheckPoints.clear();
    // The stamp of the arrival follows: it must not double a large profile.
    iv_CheckPoints.reserve(
        std::max(static_cast<std::size_t>(l_count) + 1, RESERVED));
    for (std::uint32_t l_index = 0; l_index != l_count; ++l_index)
    {
        const TimeValue l_time(getBig32(l_bytes + OFF_SECONDS),
                               getBig32(l_bytes + OFF_MICROSECONDS));
        iv_CheckPoints.push_back({getBig32(l_bytes), l_time});
        l_bytes += CHECK_POINT;
    }
    return profileLength();
}

bool Profiler::fits(const void* i_bytes, unsigned int i_room)
{
    return i_room >= WORD &&
           getBig32(static_cast<const unsigned char*>(i_bytes)) <=
               (i_room - WORD) / CHECK_POINT;
}

void Profiler::Dump() {}

// Deliberate: without the file there is no profiling.
// Effect: a folder that is missing or not writable ends the process when the
// first profile ends.
// Pinned by: ProfilerDeathTest.MissingCsvFolderEndsTheProcess
//
// Deliberate: nothing is sent, whatever the name says.
// Effect: profiles reach only the machine's own file.
// Pinned by: ProfilerCsvTest.BroadcastAppendsARowToTheFile
pError_t Profiler::udpProfBroadcast()
{
    FILE* l_file = fopen(g_ProfileCsvPath, "a");
    if (l_file == nullptr)
    {
        assertFailed("iv_pCsvFile != __null", "tolv/vex/tolvProfile", 163,
                     "tolv::pError_t tolv::Profiler::udpProfBroadcast()");
    }
    fcntl(fileno(l_file), F_SETFD, FD_CLOEXEC);
    WriteToCsv(l_file);
    fclose(l_file);
    return pError_t();
}

// Deliberate: a row begins with a newline and does not end with one.
// Effect: the file's first line is empty, and its last line has no end.
// Pinned by: ProfilerCsvTest.BroadcastAppendsARowToTheFile
//
// Deliberate: without a readable progress code there is no head of a row.
// Effect: the checkpoints go on in the line that the file ends with.
// Pinned by: ProfilerCsvTest.WithoutProgressTheCheckPointsExtendTheLastLine
// NOLINTNEXTLINE(readability-make-member-function-const): as callers know it
void Profiler::WriteToCsv(FILE* o_stream)
{
    if (o_stream == nullptr)
    {
        return;
    }
    const MutexLock l_lock(g_ProfileLock);
    PlatformFile l_file("/opt/p0/kelp/LastProgress");
    l_file.Open("r", false);
    if (!commitError(l_file))
    {
        unsigned char l_progress[4] = {}; // the file has three bytes of it
        const unsigned int l_count = l_file.read(l_progress, 3);
        if (!commitError(l_file) && l_count != 0)
        {
            writeRowHead(o_stream, l_progress);
        }
        l_file.Close();
        commitError(l_file);
    }
    for (const CheckPoint& l_point : iv_CheckPoints)
    {
        fprintf(o_stream, "%08X, %i.%06i, ", l_point.id,
                static_cast<int>(l_point.time.getSeconds()),
                static_cast<int>(l_point.time.getMicroSeconds()));
    }
    // Under the lock: fclose() would write the rest of a long row without it.
    fflush(o_stream);
}

pError_t Profiler::ReadFromChannel(Channel& io_channel)
{
    unsigned char l_word[WORD];
    unsigned int l_bytes = WORD;
    pError_t l_error = io_channel.Peek(l_word, l_bytes);
    if (l_error || l_bytes < WORD)
    {
        return l_error;
    }
    const std::uint32_t l_length = getBig32(l_word);
    const std::unique_ptr<void, void (*)(void*)> l_block(
        l_length < SMALLEST_RECORD ? nullptr : std::malloc(l_length),
        &std::free);
    if (l_block == nullptr)
    {
        return invalidRecord(l_length);
    }
    l_bytes = l_length;
    l_error = io_channel.Read(l_block.get(), l_bytes);
    if (l_error)
    {
        return l_error;
    }
    const unsigned char* l_profile =
        static_cast<unsigned char*>(l_block.get()) + WORD;
    if (l_bytes != l_length || !fits(l_profile, l_length - WORD))
    {
        return invalidRecord(l_length);
    }
    ExtractProfile(l_profile);
    return pError_t();
}

std::string Profiler::RunCommand(const char* i_command)
{
    const std::string l_command =
        std::string(i_command) + " >" + COMMAND_OUTPUT;
    // A link that somebody put there would make the shell write elsewhere.
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): its purpose
    if (isLink(COMMAND_OUTPUT) || system(l_command.c_str()) != 0)
    {
        return std::string();
    }
    const int l_fd = open(COMMAND_OUTPUT, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    FILE* l_file = l_fd == -1 ? nullptr : fdopen(l_fd, "r");
    if (l_file == nullptr)
    {
        return std::string();
    }
    std::string l_result = joinedLines(l_file);
    fclose(l_file);
    return l_result;
}

std::string Profiler::StripPattern(const std::string& i_text, int i_mode,
                                   const char* i_pattern)
{
    const bool l_front = i_mode < 2;
    const bool l_once = i_mode == 0 || i_mode == 2;
    std::string l_pattern = i_pattern;
    if (l_front && !l_pattern.empty() && l_pattern.front() == '*')
    {
        l_pattern.erase(0, 1);
    }
    if (!l_front && !l_pattern.empty() && l_pattern.back() == '*')
    {
        l_pattern.pop_back();
    }

    std::string l_result = i_text;
    bool l_more = !l_pattern.empty();
    while (l_more)
    {
        const std::size_t l_at =
            l_front ? l_result.find(l_pattern) : l_result.rfind(l_pattern);
        if (l_at != std::string::npos)
        {
            l_result = l_front ? l_result.substr(l_at + l_pattern.size())
                               : l_result.substr(0, l_at);
        }
        l_more = l_at != std::string::npos && !l_once;
    }
    return l_result;
}

const char* Profiler::getProfileName(unsigned int /*i_id*/)
{
    return nullptr;
}

const std::vector<CheckPoint>& Profiler::getCheckPoints() const
{
    return iv_CheckPoints;
}

std::uint32_t Profiler::getId() const
{
    return iv_Id;
}

} // namespace tolv

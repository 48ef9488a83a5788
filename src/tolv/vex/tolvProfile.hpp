// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVPROFILE_HPP
#define TOLV_VEX_TOLVPROFILE_HPP

#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <cstdint>
#include <cstdio>

#include <string>
#include <vector>

namespace tolv
{

class Channel;

/// The file that profiles are appended to, a modifiable pointer.
///
/// Threads: set it before the first profile ends.
/// Ownership: the text stays the caller's and lives as long as it is set.
TOLV_EXPORT extern const char* g_ProfileCsvPath;

/// The name of the row that is being written, as Profiler::end() set it; null
/// when it has none.
TOLV_EXPORT extern const char* g_ProfileName;

/// Held while a row is written, so that rows of different threads do not
/// interleave; rows of different processes may.
TOLV_EXPORT extern Mutex g_ProfileLock;

/// One point of a message's journey.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): an aggregate
struct CheckPoint
{
    std::uint32_t id; // major * 65536 + minor
    TimeValue time;   // uptime of the machine that passed it
};

/// The timing record of one message: the checkpoints that it passed, in order.
///
/// Threads: one thread at a time; independent profiles on any threads.
class TOLV_EXPORT Profiler
{
  public:
    /// No checkpoints, id 0.
    Profiler();

    /// Copies the checkpoints; the id stays 0.
    Profiler(const Profiler& i_other);

    /// Copies the checkpoints; the id stays as it is.
    Profiler& operator=(const Profiler& i_other);

    ~Profiler();

    /// Adds a checkpoint with the current uptime.
    void addCheckPoint(unsigned short i_major, unsigned short i_minor);

    /// Adds the library's own checkpoint (0xFFE8, 0), which marks the start,
    /// each arrival from the wire and the end.
    void addStamp();

    /// Sets the id and adds a stamp.
    void begin(unsigned int i_id);

    /// Sets the id and appends the profile to the CSV file, as
    /// udpProfBroadcast() does. Adds no stamp.
    void end(unsigned int i_id);

    /// Units: bytes of the wire form: 4, and 12 for each checkpoint.
    unsigned int profileLength() const;

    /// Writes the wire form, profileLength() bytes.
    ///
    /// Returns: profileLength().
    unsigned int PlaceProfile(void* o_bytes) const;

    /// Replaces the checkpoints by those of a wire form, which MUST be whole:
    /// ask fits() first about bytes that came from outside.
    ///
    /// Returns: profileLength().
    unsigned int ExtractProfile(const void* i_bytes);

    /// Returns: whether a whole wire form lies in the i_room bytes at i_bytes;
    ///          more bytes may follow it. No byte beyond is touched.
    static bool fits(const void* i_bytes, unsigned int i_room);

    /// Prints nothing.
    void Dump();

    /// Appends the profile to the file g_ProfileCsvPath. Despite its name it
    /// sends nothing.
    ///
    /// Returns: empty.
    /// Errors:  a file that cannot be opened ends the process with an
    ///          assertion.
    /// Blocks:  while the file's storage does, and for g_ProfileLock.
    pError_t udpProfBroadcast();

    /// Writes one row: a newline, who and when, then each checkpoint as
    /// "ID, SECONDS.MICROSECONDS, ", and flushes the stream. Null writes
    /// nothing. docs/diagnostics.md describes the columns.
    ///
    /// Errors: a failure to read the platform's progress code is put into the
    ///         platform's error log; only the checkpoints are written then.
    /// Blocks: as udpProfBroadcast().
    void WriteToCsv(FILE* o_stream);

    /// Reads a profile that was sent on its own: its length in bytes, 32 bits
    /// with the most significant byte first and counting themselves, then the
    /// wire form.
    ///
    /// Errors: those of the channel; origin 0 and reason 0 for a record that
    ///         is too short for a profile (it stays in the channel), does not
    ///         hold the profile that it announces, comes in only partly or is
    ///         too long for the memory. The checkpoints stay as they were. A
    ///         length of which only a part can be peeked is no error, and
    ///         nothing is read.
    /// Blocks: as Channel::Read().
    pError_t ReadFromChannel(Channel& io_channel);

    /// Runs a shell command.
    ///
    /// Returns: what it printed, with a blank for each line break; empty when
    ///          it failed. At most 4095 characters count as one line.
    /// Errors:  the output goes through the file /tmp/tolvperf.tmp, which is
    ///          left in place; a symbolic link there is refused, with an empty
    ///          result and without running the command.
    /// Blocks:  until the command has ended.
    /// Threads: one in all processes of the machine, because of the file.
    static std::string RunCommand(const char* i_command);

    /// Removes a pattern and what stands before or behind it. Mode 0 leaves
    /// what follows its first occurrence, 1 its last; 2 leaves what precedes
    /// its last occurrence, 3 its first. The pattern is literal; a "*" at its
    /// beginning (modes 0, 1) or end (modes 2, 3) is dropped.
    ///
    /// Returns: i_text where the pattern does not occur or is empty.
    static std::string StripPattern(const std::string& i_text, int i_mode,
                                    const char* i_pattern);

    /// Returns: the name of an id for the CSV row; null for every id.
    static const char* getProfileName(unsigned int i_id);

    /// In the order added.
    const std::vector<CheckPoint>& getCheckPoints() const;

    /// The id given last to begin() or end(); 0 before.
    std::uint32_t getId() const;

  private:
    // Declared order is the object layout.
    std::uint32_t iv_Id;
    std::vector<CheckPoint> iv_CheckPoints;
};

} // namespace tolv

#endif

// Private header of the host platform: the memory of a trace buffer.
#ifndef TOLV_PLATFORM_HOST_HOSTTRACESEGMENT_HPP
#define TOLV_PLATFORM_HOST_HOSTTRACESEGMENT_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tolvhost
{

/// What stands at the front of a segment; the ring of textSize bytes follows
/// at headerSize. Fields have the host's byte order, which shows in the magic.
///
/// The ring holds lines of text, each with its newline. begin and end count
/// bytes and run freely, modulo 2^32: the byte with count c is at
/// c % textSize, and the lines are what lies from begin (the front of the
/// oldest line) up to end, never more than textSize. The one process that
/// writes moves begin forward before it overwrites a line and end only after
/// the new line is there, so that the two enclose whole lines at any moment,
/// also when the writer is killed.
struct TraceSegment
{
    std::atomic<std::uint32_t> magic; // written last
    std::uint32_t version;
    std::uint32_t headerSize;
    std::uint32_t textSize; // a power of two
    std::atomic<std::uint32_t> begin;
    std::atomic<std::uint32_t> end;
    std::uint32_t pid;      // of the process that writes
    std::uint32_t reserved; // 0
    char name[32];          // of the buffer, filled up with zeros
    char program[64];       // that writes, filled up with zeros
};
static_assert(sizeof(TraceSegment) == 128, "segment layout");
static_assert(offsetof(TraceSegment, begin) == 16, "segment layout");
static_assert(offsetof(TraceSegment, name) == 32, "segment layout");
static_assert(std::atomic<std::uint32_t>::is_always_lock_free,
              "shared with other processes");

/// Where the ring of a segment begins.
inline char* ringOf(TraceSegment* i_segment)
{
    return reinterpret_cast<char*>(i_segment + 1);
}

constexpr std::uint32_t SEGMENT_MAGIC = 0x544F4C56; // "TOLV"
constexpr std::uint32_t SEGMENT_VERSION = 1;
constexpr std::uint32_t MIN_TEXT_SIZE = 64;       // bytes
constexpr std::uint32_t MAX_TEXT_SIZE = 1U << 26; // bytes
constexpr std::size_t SEGMENT_NAME_ROOM = sizeof(TraceSegment::name);

/// How many segments of dead processes the folder keeps for each user,
/// program and buffer. A daemon that is started again after a crash and
/// detaches leaves two: that of the crash and that of its starter.
constexpr unsigned int DEAD_SEGMENTS_KEPT = 4;

/// Whether a buffer may have that name: 1 to 31 letters, digits, "_" and "-".
bool isSegmentName(const char* i_name);

/// Makes the segment of this process for the buffer i_name: a file in the
/// folder of the segments, named
/// "tolv-trace.USER.PROGRAM.PID.START.NAME". First removes what dead
/// processes left, but for the newest DEAD_SEGMENTS_KEPT.
///
/// Units:     i_textSize, bytes; a power of two between the limits above.
/// Returns:   null with errno when there is no room or no folder.
/// Ownership: the caller's, until releaseSegment().
TraceSegment* createSharedSegment(const char* i_name, std::uint32_t i_textSize);

/// The same in memory that no other process sees.
TraceSegment* createPrivateSegment(const char* i_name,
                                   std::uint32_t i_textSize);

/// Gives the memory back; a file stays.
void releaseSegment(TraceSegment* i_segment, std::uint32_t i_textSize);

} // namespace tolvhost

#endif

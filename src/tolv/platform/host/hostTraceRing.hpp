// Private header of the host platform: the ring of lines in a segment.
#ifndef TOLV_PLATFORM_HOST_HOSTTRACERING_HPP
#define TOLV_PLATFORM_HOST_HOSTTRACERING_HPP

#include <cstdint>

namespace tolvhost
{

struct TraceSegment;

/// Writes and reads the ring of a segment of this process.
///
/// Other processes may change the segment; whatever they leave in it, nothing
/// outside of the ring is touched.
///
/// Threads: one at a time.
class TraceRing
{
  public:
    /// Units:     i_textSize, bytes: the segment's, from a source that other
    ///            processes do not reach.
    /// Ownership: the segment stays the caller's and outlives the ring.
    TraceRing(TraceSegment* i_segment, std::uint32_t i_textSize);

    /// Adds a line, given with its newline; the oldest lines make room.
    ///
    /// Units: i_length, bytes, at most the ring's.
    void append(const char* i_line, std::uint32_t i_length);

    /// Copies the newest whole lines that fit, oldest of them first.
    ///
    /// Returns: bytes copied.
    std::uint32_t newest(char* o_buffer, std::uint32_t i_room) const;

  private:
    char& at(std::uint32_t i_position) const;
    std::uint32_t nextLine(std::uint32_t i_from, std::uint32_t i_end) const;

    TraceSegment* const iv_Segment;
    const std::uint32_t iv_Size; // a power of two
};

} // namespace tolvhost

#endif

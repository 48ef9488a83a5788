#include "tolv/platform/host/hostTraceRing.hpp"

#include "tolv/platform/host/hostTraceSegment.hpp"

namespace tolvhost
{

namespace
{

// Whoever sees a later store of this process sees the earlier ones as well.
// The thread sanitizer does not know fences and need not know this one: it is
// for readers in other processes.
void orderStores()
{
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
    std::atomic_thread_fence(std::memory_order_release);
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
}

} // namespace

TraceRing::TraceRing(TraceSegment* i_segment, std::uint32_t i_textSize) :
    iv_Segment(i_segment), iv_Size(i_textSize)
{
}

char& TraceRing::at(std::uint32_t i_position) const
{
    return ringOf(iv_Segment)[i_position & (iv_Size - 1)];
}

// Where the line after the one at i_from begins.
std::uint32_t TraceRing::nextLine(std::uint32_t i_from,
                                  std::uint32_t i_end) const
{
    while (i_from != i_end && at(i_from) != '\n')
    {
        ++i_from;
    }
    return i_from == i_end ? i_end : i_from + 1;
}

void TraceRing::append(const char* i_line, std::uint32_t i_length)
{
    const std::uint32_t l_end = iv_Segment->end.load(std::memory_order_relaxed);
    std::uint32_t l_begin = iv_Segment->begin.load(std::memory_order_relaxed);
    if (l_end - l_begin > iv_Size)
    {
        l_begin = l_end; // damaged from outside: start afresh
    }
    while (iv_Size - (l_end - l_begin) < i_length)
    {
        l_begin = nextLine(l_begin, l_end);
    }
    iv_Segment->begin.store(l_begin, std::memory_order_relaxed);
    orderStores();
    for (std::uint32_t l_index = 0; l_index != i_length; ++l_index)
    {
        at(l_end + l_index) = i_line[l_index];
    }
    iv_Segment->end.store(l_end + i_length, std::memory_order_release);
}

std::uint32_t TraceRing::newest(char* o_buffer, std::uint32_t i_room) const
{
    const std::uint32_t l_end = iv_Segment->end.load(std::memory_order_relaxed);
    std::uint32_t l_begin = iv_Segment->begin.load(std::memory_order_relaxed);
    if (l_end - l_begin > iv_Size)
    {
        return 0; // damaged from outside
    }
    if (l_end - l_begin > i_room)
    {
        // From the byte before, so that a line that just fits is found.
        l_begin = nextLine(l_end - i_room - 1, l_end);
    }
    for (std::uint32_t l_at = l_begin; l_at != l_end; ++l_at)
    {
        *o_buffer++ = at(l_at);
    }
    return l_end - l_begin;
}

} // namespace tolvhost

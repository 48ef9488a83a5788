#include "tolv/platform/host/hostTraceReader.hpp"

#include "tolv/platform/host/hostDescriptor.hpp"
#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostTraceSegment.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include <vector>

namespace tolvhost
{

namespace
{

// How often a reader starts again before it leaves a busy writer alone.
constexpr int READ_ATTEMPTS = 16;

// The fields of a header as they were at one moment.
struct Header
{
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t headerSize;
    std::uint32_t textSize;
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t pid;
    std::uint32_t reserved;
    char name[sizeof(TraceSegment::name)];
    char program[sizeof(TraceSegment::program)];
};
static_assert(sizeof(Header) == sizeof(TraceSegment), "segment layout");

// The file is read, not mapped: if somebody cuts it off meanwhile, a read gets
// less, while an access to the mapping would end the process.
bool readAt(int i_fd, void* o_buffer, std::size_t i_size, std::size_t i_offset)
{
    std::size_t l_done = 0;
    if (lseek(i_fd, static_cast<off_t>(i_offset), SEEK_SET) == -1 ||
        !readAll(i_fd, o_buffer, i_size, l_done))
    {
        return false;
    }
    return l_done == i_size || failed(EBADMSG);
}

bool readHeader(int i_fd, Header& o_header)
{
    if (!readAt(i_fd, &o_header, sizeof(o_header), 0))
    {
        return false;
    }
    const std::uint32_t l_size = o_header.textSize;
    return (o_header.magic == SEGMENT_MAGIC &&
            o_header.version == SEGMENT_VERSION &&
            o_header.headerSize == sizeof(Header) && l_size >= MIN_TEXT_SIZE &&
            l_size <= MAX_TEXT_SIZE && (l_size & (l_size - 1)) == 0) ||
           failed(EBADMSG);
}

template <std::size_t N>
std::string stringOf(const char (&i_field)[N])
{
    return std::string(i_field, strnlen(i_field, N));
}

// What lies in the ring from i_begin up to i_end.
std::string unwind(const std::vector<char>& i_ring, std::uint32_t i_begin,
                   std::uint32_t i_end)
{
    const std::size_t l_mask = i_ring.size() - 1;
    std::string l_text;
    l_text.reserve(i_end - i_begin);
    for (std::uint32_t l_at = i_begin; l_at != i_end; ++l_at)
    {
        l_text += i_ring[l_at & l_mask];
    }
    return l_text;
}

} // namespace

bool readSegment(const char* i_path, TraceSnapshot& o_snapshot)
{
    const Descriptor l_file(
        open(i_path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    Header l_before = {};
    if (!l_file || !readHeader(l_file.get(), l_before))
    {
        return false;
    }
    std::vector<char> l_ring(l_before.textSize);
    for (int l_attempt = 0; l_attempt != READ_ATTEMPTS; ++l_attempt)
    {
        // The lines up to the end that was read before the ring are all in
        // it, but for those that the begin read after it has left behind.
        Header l_after = {};
        if (!readAt(l_file.get(), l_ring.data(), l_ring.size(),
                    sizeof(Header)) ||
            !readHeader(l_file.get(), l_after))
        {
            return false;
        }
        // A writer at work may move both while a header is read, so that they
        // seem too far apart, yet never by more than another ring.
        if (l_after.textSize != l_before.textSize ||
            l_after.end - l_after.begin > 2 * l_after.textSize)
        {
            return failed(EBADMSG);
        }
        if (l_before.end - l_after.begin <= l_before.textSize)
        {
            o_snapshot.name = stringOf(l_after.name);
            o_snapshot.program = stringOf(l_after.program);
            o_snapshot.pid = static_cast<pid_t>(l_after.pid);
            o_snapshot.text = unwind(l_ring, l_after.begin, l_before.end);
            return true;
        }
        l_before = l_after;
    }
    return failed(EAGAIN);
}

} // namespace tolvhost

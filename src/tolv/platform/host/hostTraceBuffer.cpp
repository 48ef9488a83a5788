#include "tolv/platform/traceBuffer.hpp"

#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostLock.hpp"
#include "tolv/platform/host/hostTraceRing.hpp"
#include "tolv/platform/host/hostTraceSegment.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <algorithm>

using namespace tolvhost;

namespace
{

constexpr int MAX_BUFFERS = 32;

// Room for one entry, its newline included; longer text is cut off.
constexpr std::size_t MAX_ENTRY = 512;

struct Buffer
{
    TraceSegment* segment; // null when the memory for a new one was short
    char name[SEGMENT_NAME_ROOM];
    std::uint32_t size; // of the ring, bytes
    bool isShared;
};

// All of this is ready before the first constructor runs and stays until the
// process has ended. A buffer's descriptor is its index + 1.
Lock g_lock;
Buffer g_buffers[MAX_BUFFERS] TOLV_GUARDED_BY(g_lock);
int g_bufferCount TOLV_GUARDED_BY(g_lock) = 0;
bool g_watchesForks TOLV_GUARDED_BY(g_lock) = false;

void beforeFork() TOLV_ACQUIRE(g_lock)
{
    g_lock.acquire();
}

void afterForkInParent() TOLV_RELEASE(g_lock)
{
    g_lock.release();
}

// The shared segments are the parent's: the child makes its own when it first
// needs them, which most children never do before they start a program.
void afterForkInChild() TOLV_RELEASE(g_lock)
{
    for (int l_index = 0; l_index != g_bufferCount; ++l_index)
    {
        Buffer& l_buffer = g_buffers[l_index];
        if (l_buffer.isShared)
        {
            releaseSegment(l_buffer.segment, l_buffer.size);
            l_buffer.segment = nullptr;
            l_buffer.isShared = false;
        }
    }
    g_lock.release();
}

// Makes sure of the buffer's memory; false with errno when there is none.
bool provide(Buffer& io_buffer) TOLV_REQUIRES(g_lock)
{
    if (io_buffer.segment == nullptr)
    {
        io_buffer.segment = createSharedSegment(io_buffer.name, io_buffer.size);
        io_buffer.isShared = io_buffer.segment != nullptr;
    }
    if (io_buffer.segment == nullptr)
    {
        io_buffer.segment =
            createPrivateSegment(io_buffer.name, io_buffer.size);
    }
    return io_buffer.segment != nullptr;
}

Buffer* find(const char* i_name) TOLV_REQUIRES(g_lock)
{
    Buffer* l_end = g_buffers + g_bufferCount;
    Buffer* l_found =
        std::find_if(g_buffers, l_end,
                     [i_name](const Buffer& i_buffer)
                     { return std::strcmp(i_buffer.name, i_name) == 0; });
    return l_found == l_end ? nullptr : l_found;
}

// False with errno when there is no room for one more.
bool add(const char* i_name, std::uint32_t i_size) TOLV_REQUIRES(g_lock)
{
    if (g_bufferCount == MAX_BUFFERS)
    {
        return failed(ENOSPC);
    }
    if (!g_watchesForks)
    {
        const int l_error =
            pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
        if (l_error != 0)
        {
            return failed(l_error);
        }
        g_watchesForks = true;
    }
    Buffer& l_buffer = g_buffers[g_bufferCount];
    std::memcpy(l_buffer.name, i_name, std::strlen(i_name) + 1);
    l_buffer.size = i_size;
    if (!provide(l_buffer))
    {
        return false;
    }
    ++g_bufferCount;
    return true;
}

// The next power of two, within what a segment may have.
std::uint32_t ringSize(unsigned int i_size)
{
    std::uint32_t l_size = MIN_TEXT_SIZE;
    while (l_size < i_size)
    {
        l_size *= 2;
    }
    return l_size;
}

// One entry: seconds since 1970 and microseconds, the thread's number, the
// text, a newline. Nothing inside the text ends the line.
class Entry
{
  public:
    Entry() : iv_Line(), iv_Length(0)
    {
        timespec l_now = {};
        clock_gettime(CLOCK_REALTIME, &l_now);
        iv_Length = static_cast<std::size_t>(
            snprintf(iv_Line, sizeof(iv_Line), "%lld.%06ld %ld ",
                     static_cast<long long>(l_now.tv_sec),
                     static_cast<long>(l_now.tv_nsec / 1000),
                     static_cast<long>(syscall(SYS_gettid))));
    }

    // False with errno when the text cannot be formatted.
    bool format(const char* i_format, va_list i_args) TOLV_PRINTF(2, 0)
    {
        char* l_text = iv_Line + iv_Length;
        const std::size_t l_room = sizeof(iv_Line) - iv_Length;
        const int l_wanted = vsnprintf(l_text, l_room, i_format, i_args);
        if (l_wanted < 0)
        {
            return false;
        }
        // The NUL's place is taken by the newline.
        std::size_t l_length =
            std::min(static_cast<std::size_t>(l_wanted), l_room - 1);
        while (l_length != 0 && l_text[l_length - 1] == '\n')
        {
            --l_length;
        }
        std::replace_if(l_text, l_text + l_length, isControl, ' ');
        l_text[l_length] = '\n';
        iv_Length += l_length + 1;
        return true;
    }

    // Cuts the entry to the size of a small ring.
    void fit(std::uint32_t i_size)
    {
        if (iv_Length > i_size)
        {
            iv_Length = i_size;
            iv_Line[i_size - 1] = '\n';
        }
    }

    const char* line() const
    {
        return iv_Line;
    }

    std::uint32_t length() const
    {
        return static_cast<std::uint32_t>(iv_Length);
    }

  private:
    static bool isControl(char i_letter)
    {
        const unsigned char l_code = static_cast<unsigned char>(i_letter);
        return l_code < ' ' || l_code == 0x7F;
    }

    char iv_Line[MAX_ENTRY];
    std::size_t iv_Length;
};

bool init(int* o_descriptor, const char* i_name, unsigned int i_size)
{
    if (o_descriptor == nullptr || i_name == nullptr ||
        !isSegmentName(i_name) || i_size == 0 || i_size > MAX_TEXT_SIZE)
    {
        return failed(EINVAL);
    }
    const LockHold l_hold(g_lock);
    Buffer* l_buffer = find(i_name);
    if (l_buffer == nullptr)
    {
        if (!add(i_name, ringSize(i_size)))
        {
            return false;
        }
        l_buffer = find(i_name);
    }
    *o_descriptor = static_cast<int>(l_buffer - g_buffers) + 1;
    return true;
}

bool readDiff(const char* i_name, unsigned int i_size, void* o_buffer,
              int& o_copied)
{
    if (i_name == nullptr || o_buffer == nullptr)
    {
        return failed(EINVAL);
    }
    char* l_bytes = static_cast<char*>(o_buffer);
    {
        const LockHold l_hold(g_lock);
        Buffer* l_buffer = find(i_name);
        if (l_buffer == nullptr)
        {
            return failed(ENOENT);
        }
        if (!provide(*l_buffer))
        {
            return false;
        }
        const TraceRing l_ring(l_buffer->segment, l_buffer->size);
        o_copied = static_cast<int>(l_ring.newest(l_bytes, i_size));
    }
    std::memset(l_bytes + o_copied, 0,
                i_size - static_cast<unsigned int>(o_copied));
    return true;
}

bool write(int i_descriptor, Entry& io_entry)
{
    const LockHold l_hold(g_lock);
    if (i_descriptor < 1 || i_descriptor > g_bufferCount)
    {
        return failed(EBADF);
    }
    Buffer& l_buffer = g_buffers[i_descriptor - 1];
    if (!provide(l_buffer))
    {
        return false;
    }
    io_entry.fit(l_buffer.size);
    TraceRing(l_buffer.segment, l_buffer.size)
        .append(io_entry.line(), io_entry.length());
    return true;
}

} // namespace

int TraceBufferInit(int* o_descriptor, const char* i_name, unsigned int i_size)
{
    const int l_errno = errno;
    if (!init(o_descriptor, i_name, i_size))
    {
        return -1;
    }
    errno = l_errno;
    return 0;
}

int TraceBufferReadDiff(const char* i_name, unsigned int i_size, void* o_buffer)
{
    const int l_errno = errno;
    int l_copied = 0;
    if (!readDiff(i_name, i_size, o_buffer, l_copied))
    {
        return -1;
    }
    errno = l_errno;
    return l_copied;
}

int TraceBufferWrite(int i_descriptor, const char* i_format, ...)
{
    const int l_errno = errno;
    if (i_format == nullptr)
    {
        errno = EINVAL;
        return -1;
    }
    Entry l_entry;
    va_list l_args;
    va_start(l_args, i_format);
    const bool l_formatted = l_entry.format(i_format, l_args);
    va_end(l_args);
    if (!l_formatted || !write(i_descriptor, l_entry))
    {
        return -1;
    }
    errno = l_errno;
    return 0;
}

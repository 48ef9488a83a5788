#include "tolv/platform/platformFile.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/host/hostDescriptor.hpp"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include <memory>
#include <new>
#include <utility>

using tolvhost::Descriptor;

class PlatformFile::Data
{
  public:
    std::unique_ptr<char[]> path;
    Descriptor file;
    std::unique_ptr<ErrorLogEntry> error; // waits for takeError()
};

namespace
{

constexpr int UNKNOWN_MODE = -1;

ErrorLogEntry* newEntry(PlatformFile::REASON i_reason, int i_errno)
{
    return new (std::nothrow)
        ErrorLogEntry(0, 0, 0, 0, 0, 0, 0, i_reason,
                      static_cast<unsigned int>(i_errno), 0, 0, 0, 0, 0, 0);
}

// Keeps what went wrong, with errno, unless an earlier failure waits.
void fail(std::unique_ptr<ErrorLogEntry>& io_pending,
          PlatformFile::REASON i_reason)
{
    if (io_pending == nullptr)
    {
        io_pending.reset(newEntry(i_reason, errno));
    }
}

// Null when memory is short.
std::unique_ptr<char[]> copyOf(const char* i_text)
{
    const std::size_t l_size = std::strlen(i_text) + 1;
    std::unique_ptr<char[]> l_copy(new (std::nothrow) char[l_size]);
    if (l_copy != nullptr)
    {
        std::memcpy(l_copy.get(), i_text, l_size);
    }
    return l_copy;
}

int firstFlags(char i_letter, bool i_update)
{
    const int l_access = i_update ? O_RDWR : O_WRONLY;
    switch (i_letter)
    {
    case 'r':
        return i_update ? O_RDWR : O_RDONLY;
    case 'w':
        return l_access | O_CREAT | O_TRUNC;
    case 'a':
        return l_access | O_CREAT | O_APPEND;
    default:
        return UNKNOWN_MODE;
    }
}

// open()'s flags for fopen()'s mode, or UNKNOWN_MODE.
int openFlags(const char* i_mode)
{
    if (i_mode == nullptr || *i_mode == '\0')
    {
        return UNKNOWN_MODE;
    }
    const char* l_rest = i_mode + 1;
    int l_flags = firstFlags(*i_mode, std::strchr(l_rest, '+') != nullptr);
    if (l_flags == UNKNOWN_MODE || l_rest[std::strspn(l_rest, "+bex")] != '\0')
    {
        return UNKNOWN_MODE;
    }
    if (std::strchr(l_rest, 'x') != nullptr)
    {
        l_flags |= O_EXCL;
    }
    return l_flags | O_CLOEXEC | O_NOCTTY;
}

} // namespace

PlatformFile::PlatformFile(const char* i_path) : iv_Data(nullptr)
{
    std::unique_ptr<char[]> l_path = copyOf(i_path == nullptr ? "" : i_path);
    if (l_path != nullptr)
    {
        iv_Data = new (std::nothrow) Data;
    }
    if (iv_Data != nullptr)
    {
        iv_Data->path = std::move(l_path);
    }
}

PlatformFile::~PlatformFile()
{
    delete iv_Data;
}

void PlatformFile::Open(const char* i_mode, bool /*i_flag*/)
{
    if (iv_Data == nullptr)
    {
        return;
    }
    const int l_flags = openFlags(i_mode);
    if (iv_Data->file)
    {
        errno = EBUSY;
        fail(iv_Data->error, REASON_OPEN);
        return;
    }
    if (l_flags == UNKNOWN_MODE)
    {
        errno = EINVAL;
        fail(iv_Data->error, REASON_OPEN);
        return;
    }
    iv_Data->file = Descriptor(open(iv_Data->path.get(), l_flags, 0666));
    if (!iv_Data->file)
    {
        fail(iv_Data->error, REASON_OPEN);
    }
}

unsigned int PlatformFile::read(void* o_buffer, unsigned int i_count)
{
    std::size_t l_done = 0;
    if (iv_Data != nullptr &&
        !tolvhost::readAll(iv_Data->file.get(), o_buffer, i_count, l_done))
    {
        fail(iv_Data->error, REASON_READ);
    }
    return static_cast<unsigned int>(l_done);
}

void PlatformFile::Close()
{
    if (iv_Data != nullptr && iv_Data->file.close() != 0)
    {
        fail(iv_Data->error, REASON_CLOSE);
    }
}

ErrorLogEntry* PlatformFile::takeError()
{
    return iv_Data == nullptr ? newEntry(REASON_OPEN, ENOMEM)
                              : iv_Data->error.release();
}

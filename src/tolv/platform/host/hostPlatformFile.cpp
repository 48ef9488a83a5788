#include "tolv/platform/platformFile.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/host/hostDescriptor.hpp"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include <memory>
#include <new>
#include <string>

using tolvhost::Descriptor;

class PlatformFile::Data
{
  public:
    explicit Data(const char* i_path) : path(i_path == nullptr ? "" : i_path) {}

    void fail(REASON i_reason)
    {
        if (error == nullptr)
        {
            const int l_errno = errno;
            error.reset(new (std::nothrow) ErrorLogEntry(
                0, 0, 0, 0, 0, 0, 0, i_reason,
                static_cast<unsigned int>(l_errno), 0, 0, 0, 0, 0, 0));
            errno = l_errno;
        }
    }

    const std::string path;
    Descriptor file;
    std::unique_ptr<ErrorLogEntry> error; // waits for takeError()
};

namespace
{

constexpr int UNKNOWN_MODE = -1;

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

PlatformFile::PlatformFile(const char* i_path) : iv_Data(new Data(i_path)) {}

PlatformFile::~PlatformFile()
{
    delete iv_Data;
}

void PlatformFile::Open(const char* i_mode, bool)
{
    const int l_flags = openFlags(i_mode);
    if (iv_Data->file)
    {
        errno = EBUSY;
        iv_Data->fail(REASON_OPEN);
        return;
    }
    if (l_flags == UNKNOWN_MODE)
    {
        errno = EINVAL;
        iv_Data->fail(REASON_OPEN);
        return;
    }
    iv_Data->file = Descriptor(open(iv_Data->path.c_str(), l_flags, 0666));
    if (!iv_Data->file)
    {
        iv_Data->fail(REASON_OPEN);
    }
}

unsigned int PlatformFile::read(void* o_buffer, unsigned int i_count)
{
    std::size_t l_done = 0;
    if (!tolvhost::readAll(iv_Data->file.get(), o_buffer, i_count, l_done))
    {
        iv_Data->fail(REASON_READ);
    }
    return static_cast<unsigned int>(l_done);
}

void PlatformFile::Close()
{
    if (iv_Data->file.close() != 0)
    {
        iv_Data->fail(REASON_CLOSE);
    }
}

ErrorLogEntry* PlatformFile::takeError()
{
    return iv_Data->error.release();
}

#include "tolv/platform/host/hostDescriptor.hpp"

#include "tolv/platform/host/hostErrno.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

namespace tolvhost
{

Descriptor& Descriptor::operator=(Descriptor&& io_other) noexcept
{
    const Descriptor l_old(release());
    iv_Fd = io_other.release();
    return *this;
}

Descriptor::~Descriptor()
{
    if (iv_Fd != -1)
    {
        const ErrnoKeeper l_keeper;
        close();
    }
}

int Descriptor::close()
{
    return ::close(release());
}

bool readAll(int i_fd, void* o_buffer, std::size_t i_size, std::size_t& o_done)
{
    char* l_bytes = static_cast<char*>(o_buffer);
    o_done = 0;
    while (o_done < i_size)
    {
        const ssize_t l_got = read(i_fd, l_bytes + o_done, i_size - o_done);
        if (l_got == 0)
        {
            return true;
        }
        if (l_got > 0)
        {
            o_done += static_cast<std::size_t>(l_got);
        }
        else if (errno != EINTR)
        {
            return false;
        }
    }
    return true;
}

bool writeAll(int i_fd, const void* i_bytes, std::size_t i_size)
{
    const char* l_bytes = static_cast<const char*>(i_bytes);
    std::size_t l_done = 0;
    while (l_done < i_size)
    {
        const ssize_t l_put = write(i_fd, l_bytes + l_done, i_size - l_done);
        if (l_put >= 0)
        {
            l_done += static_cast<std::size_t>(l_put);
        }
        else if (errno != EINTR)
        {
            return false;
        }
    }
    return true;
}

bool mayGrowTo(std::size_t i_size)
{
    rlimit l_limit = {};
    return getrlimit(RLIMIT_FSIZE, &l_limit) == -1 ||
           i_size <= l_limit.rlim_cur || failed(EFBIG);
}

const char* folderFrom(const char* i_variable, const char* i_default)
{
    const char* l_folder = secure_getenv(i_variable);
    return l_folder == nullptr || *l_folder == '\0' ? i_default : l_folder;
}

} // namespace tolvhost

#include "tolv/platform/processSetup.hpp"

#include "tolv/platform/host/hostErrno.hpp"

#include <fcntl.h>
#include <unistd.h>

int PlatformProcessSetup(void* /*i_argument*/, bool /*i_flag*/)
{
    const tolvhost::ErrnoKeeper l_keeper;
    const int l_null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (l_null == -1)
    {
        return 0; // the streams stay as they are
    }
    for (int l_stream = STDIN_FILENO; l_stream <= STDERR_FILENO; ++l_stream)
    {
        if (l_stream == l_null)
        {
            // It was closed and open() took its number; programs that this
            // one starts need it, too.
            fcntl(l_null, F_SETFD, 0);
        }
        else
        {
            dup2(l_null, l_stream);
        }
    }
    if (l_null > STDERR_FILENO)
    {
        close(l_null);
    }
    return 0;
}

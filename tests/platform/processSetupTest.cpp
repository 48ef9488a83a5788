#include "tolv/platform/processSetup.hpp"

#include "support/childProcess.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

// open() as the platform is compiled; the tests decide whether it works.
bool g_openFails = false;

extern "C" int __real_open64(const char* i_path, int i_flags, ...);
extern "C" int __wrap_open64(const char* i_path, int i_flags, ...);

int __wrap_open64(const char* i_path, int i_flags, ...)
{
    if (g_openFails)
    {
        errno = ENOENT;
        return -1;
    }
    return __real_open64(i_path, i_flags);
}

namespace
{

bool isNull(int i_fd)
{
    struct stat l_stream = {};
    struct stat l_null = {};
    return fstat(i_fd, &l_stream) == 0 && stat("/dev/null", &l_null) == 0 &&
           S_ISCHR(l_stream.st_mode) && l_stream.st_rdev == l_null.st_rdev;
}

// All three take the place of /dev/null, for reading and writing and for
// programs that the daemon starts.
bool streamsAreNull()
{
    char l_byte = 'x';
    return isNull(0) && isNull(1) && isNull(2) && read(0, &l_byte, 1) == 0 &&
           write(1, &l_byte, 1) == 1 && write(2, &l_byte, 1) == 1 &&
           fcntl(0, F_GETFD) == 0 && fcntl(1, F_GETFD) == 0 &&
           fcntl(2, F_GETFD) == 0;
}

} // namespace

TEST(ProcessSetupTest, StandardStreamsLeadToDevNull)
{
    expectInChild(
        [] {
            return PlatformProcessSetup(nullptr, true) == 0 && streamsAreNull();
        });
}

TEST(ProcessSetupTest, ClosedStreamsAreOpenAfterwards)
{
    for (int l_open = 0; l_open != 8; ++l_open)
    {
        expectInChild(
            [l_open]
            {
                for (int l_stream = 0; l_stream != 3; ++l_stream)
                {
                    if ((l_open & 1 << l_stream) == 0)
                    {
                        close(l_stream);
                    }
                }
                return PlatformProcessSetup(nullptr, true) == 0 &&
                       streamsAreNull();
            });
    }
}

TEST(ProcessSetupTest, OtherDescriptorsStayAndNoneIsAdded)
{
    expectInChild(
        []
        {
            int l_pipe[2] = {-1, -1};
            const bool l_made = pipe(l_pipe) == 0;
            const int l_next = dup(0);
            close(l_next);
            PlatformProcessSetup(nullptr, true);
            char l_byte = 'x';
            return l_made && write(l_pipe[1], &l_byte, 1) == 1 &&
                   read(l_pipe[0], &l_byte, 1) == 1 &&
                   fcntl(l_next, F_GETFD) == -1 && errno == EBADF;
        });
}

TEST(ProcessSetupTest, WithoutDevNullTheStreamsStayAndTheResultIsZero)
{
    expectInChild(
        []
        {
            int l_pipe[2] = {-1, -1};
            const bool l_made =
                pipe(l_pipe) == 0 && dup2(l_pipe[1], STDOUT_FILENO) == 1;
            g_openFails = true;
            char l_byte = 'x';
            return l_made && PlatformProcessSetup(nullptr, true) == 0 &&
                   write(STDOUT_FILENO, &l_byte, 1) == 1 &&
                   read(l_pipe[0], &l_byte, 1) == 1;
        });
}

TEST(ProcessSetupTest, ErrnoIsLeftAlone)
{
    expectInChild(
        []
        {
            errno = EDOM;
            g_openFails = true;
            PlatformProcessSetup(nullptr, true);
            return errno == EDOM;
        });
}

// Private header of the host platform.
#ifndef TOLV_PLATFORM_HOST_HOSTDESCRIPTOR_HPP
#define TOLV_PLATFORM_HOST_HOSTDESCRIPTOR_HPP

#include <sys/types.h>

#include <cstddef>

namespace tolvhost
{

/// Owns a file descriptor, or none (-1).
class Descriptor
{
  public:
    explicit Descriptor(int i_fd = -1) : iv_Fd(i_fd) {}

    Descriptor(Descriptor&& io_other) noexcept : iv_Fd(io_other.release()) {}

    Descriptor& operator=(Descriptor&& io_other) noexcept;

    /// errno stays as it is, so that an earlier failure can be told.
    ~Descriptor();

    int get() const
    {
        return iv_Fd;
    }

    explicit operator bool() const
    {
        return iv_Fd != -1;
    }

    int release()
    {
        const int l_fd = iv_Fd;
        iv_Fd = -1;
        return l_fd;
    }

    /// Returns: close()'s result, also when it was none.
    int close();

  private:
    int iv_Fd;
};

/// Reads on until i_size bytes are there or the file ends.
///
/// Returns: false with errno when a read failed; o_done bytes came before.
bool readAll(int i_fd, void* o_buffer, std::size_t i_size, std::size_t& o_done);

/// Returns: false with errno when not everything could be written.
bool writeAll(int i_fd, const void* i_bytes, std::size_t i_size);

/// Whether a file of this process may become so large. Growing one beyond the
/// limit (RLIMIT_FSIZE) would end the process with SIGXFSZ.
///
/// Returns: false with EFBIG.
bool mayGrowTo(std::size_t i_size);

/// Returns: the folder that the environment names, or the default when it
///          names none or the program runs with more rights than its user's.
const char* folderFrom(const char* i_variable, const char* i_default);

} // namespace tolvhost

#endif

// Private header of the host platform.
#ifndef TOLV_PLATFORM_HOST_HOSTERRNO_HPP
#define TOLV_PLATFORM_HOST_HOSTERRNO_HPP

#include <cerrno>

namespace tolvhost
{

/// Gives errno back at its end the value that it had at its beginning.
class ErrnoKeeper
{
  public:
    ErrnoKeeper() : iv_Errno(errno) {}

    ~ErrnoKeeper()
    {
        errno = iv_Errno;
    }

    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  private:
    const int iv_Errno;
};

/// For the end of a failing function. Returns: false, with errno set.
inline bool failed(int i_errno)
{
    errno = i_errno;
    return false;
}

} // namespace tolvhost

#endif

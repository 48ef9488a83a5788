// Private header: a socket option for a while.
#ifndef TOLV_VEX_TOLVSOCKOPTION_HPP
#define TOLV_VEX_TOLVSOCKOPTION_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <sys/socket.h>

#include <cerrno>

namespace tolv
{

/// Sets an option of level SOL_SOCKET until the end of its scope, which puts
/// the old value back and leaves errno as it is.
template <class T>
class SockOption
{
  public:
    SockOption(OS_HANDLE i_handle, int i_name, const T& i_value) :
        iv_Handle(i_handle), iv_Name(i_name), iv_Old(), iv_Set(false)
    {
        socklen_t l_length = sizeof(iv_Old);
        iv_Set =
            getsockopt(i_handle, SOL_SOCKET, i_name, &iv_Old, &l_length) == 0 &&
            setsockopt(i_handle, SOL_SOCKET, i_name, &i_value,
                       sizeof(i_value)) == 0;
    }

    ~SockOption()
    {
        if (iv_Set)
        {
            const int l_errno = errno;
            setsockopt(iv_Handle, SOL_SOCKET, iv_Name, &iv_Old, sizeof(iv_Old));
            errno = l_errno;
        }
    }

    SockOption(const SockOption&) = delete;
    SockOption& operator=(const SockOption&) = delete;

    /// false: the system has no such option for this socket.
    bool isSet() const
    {
        return iv_Set;
    }

  private:
    const OS_HANDLE iv_Handle;
    const int iv_Name;
    T iv_Old;
    bool iv_Set;
};

} // namespace tolv

#endif

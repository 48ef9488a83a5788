#include "tolv/vex/tolvStreamPeek.hpp"

#include "tolv/vex/tolvSockOption.hpp"

#include <poll.h>

#include <optional>

namespace tolv
{

bool streamEnded(OS_HANDLE i_handle)
{
    pollfd l_handle = {i_handle, POLLRDHUP, 0};
    return poll(&l_handle, 1, 0) == 1;
}

ssize_t awaitBytesBehind(OS_HANDLE i_handle, unsigned int i_known,
                         const timeval* i_limit)
{
    const SockOption<int> l_from(i_handle, SO_PEEK_OFF,
                                 static_cast<int>(i_known));
    if (!l_from.isSet())
    {
        return 1;
    }
    std::optional<SockOption<timeval>> l_limit;
    if (i_limit != nullptr)
    {
        l_limit.emplace(i_handle, SO_RCVTIMEO, *i_limit);
        if (!l_limit->isSet())
        {
            return 1; // rather than wait without a limit
        }
    }
    char l_byte = 0;
    return recv(i_handle, &l_byte, sizeof(l_byte), MSG_PEEK | MSG_NOSIGNAL);
}

} // namespace tolv

#include "tolv/vex/tolvOneHandle.hpp"

#include <cstdint>

#include <algorithm>
#include <limits>

namespace tolv
{

OneHandle::OneHandle(OS_HANDLE i_handle) : iv_Handle(i_handle), iv_Small()
{
    if (iv_Handle >= FD_SETSIZE)
    {
        iv_Large.resize(static_cast<std::size_t>(iv_Handle) / NFDBITS + 1);
    }
    if (iv_Handle >= 0)
    {
        *word() |= bit();
    }
}

fd_set* OneHandle::view()
{
    return iv_Large.empty() ? &iv_Small
                            : reinterpret_cast<fd_set*>(iv_Large.data());
}

bool OneHandle::isSet()
{
    return iv_Handle >= 0 && (*word() & bit()) != 0;
}

// Not FD_SET() and its kin, which stop the process at 1024.
fd_mask* OneHandle::word()
{
    fd_mask* l_words =
        iv_Large.empty() ? __FDS_BITS(&iv_Small) : iv_Large.data();
    return l_words + iv_Handle / NFDBITS;
}

fd_mask OneHandle::bit() const
{
    return static_cast<fd_mask>(1UL << (iv_Handle % NFDBITS));
}

timeval toTimeval(const TimeValue& i_span)
{
    constexpr std::uint64_t LAST = std::numeric_limits<time_t>::max();
    timeval l_span = {};
    l_span.tv_sec =
        static_cast<time_t>(std::min<std::uint64_t>(i_span.getSeconds(), LAST));
    l_span.tv_usec = static_cast<suseconds_t>(i_span.getMicroSeconds());
    return l_span;
}

} // namespace tolv

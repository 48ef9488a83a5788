// Private header: what select() takes of one descriptor: set and time-out.
#ifndef TOLV_VEX_TOLVONEHANDLE_HPP
#define TOLV_VEX_TOLVONEHANDLE_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <sys/select.h>

#include <vector>

namespace tolv
{

/// One descriptor of any number as select() takes it: a set of 1024 bits, or
/// as many as the number needs. A negative one makes an empty set.
///
/// Threads: one at a time.
class OneHandle
{
  public:
    explicit OneHandle(OS_HANDLE i_handle);
    OneHandle(const OneHandle&) = delete;
    OneHandle& operator=(const OneHandle&) = delete;

    /// For select(), which leaves in it what is ready.
    fd_set* view();

    /// Whether select() has left the descriptor in the set.
    bool isSet();

  private:
    fd_mask* word();
    fd_mask bit() const;

    const OS_HANDLE iv_Handle;
    fd_set iv_Small;
    std::vector<fd_mask> iv_Large; // in place of iv_Small, if not empty
};

/// A time-out as select() takes it. One with more seconds than a time_t holds,
/// as there are on 32-bit systems, becomes the longest that it holds.
timeval toTimeval(const TimeValue& i_span);

} // namespace tolv

#endif

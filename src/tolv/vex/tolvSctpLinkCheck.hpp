// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSCTPLINKCHECK_HPP
#define TOLV_VEX_TOLVSCTPLINKCHECK_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"

#include <cstdio>

namespace tolv
{

/// Asks for a refresh of all handlers whenever its timer expires, which makes
/// every SCTP Service look at the local addresses of its association again.
///
/// App::EnableSCTP() makes one and its timer. It serves no descriptor.
///
/// Ownership: made with new; belongs to the dispatcher, which destroys it at
///            shutdown.
class TOLV_EXPORT SctpLinkCheckEH : public EventHandler
{
  public:
    /// Adds no timer.
    explicit SctpLinkCheckEH(Dispatcher& io_dispatcher);
    ~SctpLinkCheckEH() override;

    /// Prints nothing.
    void Dump(FILE* o_stream) override;

    /// Returns: ACTION_REMOVE, for it is never registered.
    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override;

    /// Returns: ACTION_REMOVE at shutdown, else ACTION_REFRESH.
    ACTION TimerTick(Timer_t i_timer, EVENT i_event) override;
};

} // namespace tolv

#endif

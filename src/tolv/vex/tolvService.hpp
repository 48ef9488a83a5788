// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSERVICE_HPP
#define TOLV_VEX_TOLVSERVICE_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"

namespace tolv
{

class Channel;

/// What an application derives its connection handlers from: a handler that
/// owns one channel and is called when the channel's descriptor is readable.
///
/// An acceptor or a connector calls setChannel() and Open(). A service ends
/// with ACTION_REMOVE from one of its callbacks, or the application
/// unregisters and deletes it; either closes the connection.
///
/// Threads:   no lock of its own; see EventHandler.
/// Ownership: the channel is the service's.
class TOLV_EXPORT Service : public EventHandler
{
  public:
    /// No channel, nothing registered.
    explicit Service(Dispatcher& io_dispatcher);

    /// Destroys the channel, which closes its descriptor. The dispatcher must
    /// have forgotten it before.
    ~Service() override;

    /// Lets an SCTP channel look at its association's addresses; for any other
    /// and without a channel it does nothing. The arguments are not used.
    void RefreshHandler(OS_HANDLE i_handle, EVENT i_event) override;

    /// Ownership: io_channel becomes the service's; an earlier channel is NOT
    ///            destroyed, so call it once.
    virtual void setChannel(Channel& io_channel);

    /// Registers the channel's descriptor for reading: from here on the
    /// service may be called, and may even be gone when this returns. Without
    /// a channel it does nothing.
    ///
    /// Errors: those of Dispatcher::Register().
    virtual void Open();

    /// Registers a descriptor of the caller's for reading; it stays his to
    /// close, and the channel stays as it is.
    ///
    /// Errors: those of Dispatcher::Register().
    virtual void Open(OS_HANDLE i_handle);

    /// Does nothing; for derived services that can stop before they end.
    virtual void Close();

  protected:
    // NOLINTNEXTLINE(*-non-private-member-variables-in-classes)
    Channel* iv_pChannel; // owned, or null
};

} // namespace tolv

#endif

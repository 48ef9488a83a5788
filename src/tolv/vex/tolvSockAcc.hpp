// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCKACC_HPP
#define TOLV_VEX_TOLVSOCKACC_HPP

#include "tolv/vex/tolvAcc.hpp"
#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"

#include <cstdio>

namespace tolv
{

template <class ACCEPTOR, class FAMILY>
class AccSteps;

/// Listens on TCP or SCTP over IPv4 or on a UNIX-domain socket, and makes a
/// service with a SockChannel for each connection. Over UDP there is one
/// service for the port, made by Open().
///
/// A connection that cannot be accepted ENDS the listening, unless it vanished
/// before it was accepted; so does an SCTP connection that cannot be tuned,
/// which stays open. A connection is closed at once when its descriptor is
/// above 1023 or the factory gives null.
///
/// Ownership: services belong to themselves and the dispatcher, see Service.
///            The listening descriptor is never closed. The acceptor is its
///            maker's: it may be destroyed once the dispatcher has forgotten
///            its descriptor.
/// Threads:   Open() and Close() on one thread at a time.
class TOLV_EXPORT SockAcc : public Acc
{
  public:
    /// i_host:    a dotted quad, null for every address of this machine, or
    ///            the path of a UNIX-domain socket. Whatever file is at that
    ///            path is REMOVED at once.
    /// Units:     i_port, in HOST byte order; SOCK_TYPE_UNIX has none.
    /// Ownership: i_host is not copied and must outlive the acceptor.
    SockAcc(Dispatcher& io_dispatcher, Factory_t i_factory, const char* i_host,
            unsigned short i_port, SockType i_type);

    /// For every address of this machine.
    SockAcc(Dispatcher& io_dispatcher, Factory_t i_factory,
            unsigned short i_port, SockType i_type);

    /// Removes the file of a UNIX-domain socket.
    ~SockAcc() override;

    /// Makes the socket and registers it for reading; over UDP makes the
    /// service. Call it once.
    ///
    /// Errors: those of socketOperation(); those of Dispatcher::Register().
    ///         After an error the descriptor stays open, deliberately.
    pError_t Open();

    /// Binds a socket to the acceptor's address and listens, which UDP does
    /// not.
    ///
    /// Errors: 0x4403 no descriptor, 0x4407 the host is no address or the
    ///         path too long or null, 0x4404 bind, 0x4405 listen; origin 2.
    pError_t socketOperation(OS_HANDLE i_handle);

    /// Does nothing: the acceptor goes on listening.
    pError_t Close();

    /// Prints nothing.
    void Dump(FILE* o_stream) override;

    /// Accepts one connection when EVENT_READ tells of it.
    ///
    /// Errors: abort() for an event that is no EVENT_READ, EVENT_REFRESH or
    ///         EVENT_SHUTDOWN.
    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override;

  private:
    template <class ACCEPTOR, class FAMILY>
    friend class AccSteps;

    // Declared order is the object layout.
    const char* iv_Host;    // the caller's, or null
    unsigned short iv_Port; // in network byte order
    SockType iv_SockType;
};

} // namespace tolv

#endif

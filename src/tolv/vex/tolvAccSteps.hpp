// Private header: what the acceptors of both families do alike.
#ifndef TOLV_VEX_TOLVACCSTEPS_HPP
#define TOLV_VEX_TOLVACCSTEPS_HPP

#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvDescriptor.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvFdSet.hpp"
#include "tolv/vex/tolvReason.hpp"
#include "tolv/vex/tolvService.hpp"
#include "tolv/vex/tolvSocket.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <memory>
#include <utility>

namespace tolv
{

/// The operations of an acceptor. FAMILY says where the two differ:
///
///     Address_t, Channel_t         the address record and the channel
///     lookup(type)                 what socket() takes
///     initAddress(...)             as initSockAddrStruct()
///     setOptions(fd)               options beside SO_REUSEADDR
///     tune(fd, type, peer)         options of an accepted connection
template <class ACCEPTOR, class FAMILY>
class AccSteps
{
  public:
    static pError_t open(ACCEPTOR& io_acc);
    static pError_t socketOperation(ACCEPTOR& io_acc, OS_HANDLE i_fd);
    static EventHandler::ACTION handleEvent(ACCEPTOR& io_acc, OS_HANDLE i_fd,
                                            EventHandler::EVENT i_event);

    /// Removes the file of a UNIX-domain socket.
    static void removeFile(const ACCEPTOR& i_acc);

    /// The port as an acceptor keeps it: in network byte order, none for UNIX.
    static unsigned short storedPort(unsigned short i_port, SockType i_type)
    {
        return i_type == SOCK_TYPE_UNIX ? 0 : htons(i_port);
    }

  private:
    using Address_t = typename FAMILY::Address_t;
    using Channel_t = typename FAMILY::Channel_t;

    static EventHandler::ACTION acceptOne(ACCEPTOR& io_acc, OS_HANDLE i_fd);
    static void serveDatagrams(ACCEPTOR& io_acc, OS_HANDLE i_fd);
    static void serve(ACCEPTOR& io_acc, OS_HANDLE i_fd,
                      const Address_t& i_peer);
    static Service* makeService(ACCEPTOR& io_acc,
                                std::unique_ptr<Channel_t> i_channel);
};

// Deliberate: the descriptor stays open when a step fails.
// Effect: each failed Open() leaks one descriptor.
// Pinned by: SockAccTest.FailedOpenLeavesTheDescriptorOpen
template <class ACCEPTOR, class FAMILY>
pError_t AccSteps<ACCEPTOR, FAMILY>::open(ACCEPTOR& io_acc)
{
    const OS_HANDLE l_fd = openSocket(FAMILY::lookup(io_acc.iv_SockType));
    pError_t l_error = io_acc.socketOperation(l_fd);
    if (l_error)
    {
        return l_error;
    }
    if (io_acc.iv_SockType == SOCK_TYPE_UDP)
    {
        serveDatagrams(io_acc, l_fd);
    }
    else
    {
        io_acc.iv_Dispatcher.Register(l_fd, io_acc, EventHandler::EVENT_READ);
    }
    return pError_t();
}

template <class ACCEPTOR, class FAMILY>
pError_t AccSteps<ACCEPTOR, FAMILY>::socketOperation(ACCEPTOR& io_acc,
                                                     OS_HANDLE i_fd)
{
    if (i_fd == OS_INVALID)
    {
        return io_acc.BuildLog(ORIGIN_ACCEPTOR, REASON_SOCKET, g_TolvTraceDesc,
                               "Socket Create failed");
    }
    Address_t l_address = {};
    if (FAMILY::initAddress(io_acc.iv_Host, io_acc.iv_Port, l_address,
                            io_acc.iv_SockType) < 1)
    {
        return io_acc.BuildLog(
            ORIGIN_ACCEPTOR, REASON_ADDRESS, g_TolvTraceDesc,
            "Socket address structure initialization failed");
    }
    // What these options cannot do is seen where it matters, by bind() or the
    // replies' source.
    const int l_on = 1;
    setsockopt(i_fd, SOL_SOCKET, SO_REUSEADDR, &l_on, sizeof(l_on));
    FAMILY::setOptions(i_fd);
    if (bind(i_fd, &l_address.addr.sa, l_address.length) == -1)
    {
        return io_acc.BuildLog(ORIGIN_ACCEPTOR, REASON_BIND, g_TolvTraceDesc,
                               "System call to bind failed");
    }
    if (io_acc.iv_SockType != SOCK_TYPE_UDP)
    {
        constexpr int BACKLOG = 10; // connections that wait for accept()
        if (listen(i_fd, BACKLOG) == -1)
        {
            return io_acc.BuildLog(ORIGIN_ACCEPTOR, REASON_LISTEN,
                                   g_TolvTraceDesc,
                                   "System call to listen failed");
        }
        // A connection that vanishes before accept() must not hold the loop.
        setNonBlocking(i_fd);
    }
    return pError_t();
}

template <class ACCEPTOR, class FAMILY>
EventHandler::ACTION
AccSteps<ACCEPTOR, FAMILY>::handleEvent(ACCEPTOR& io_acc, OS_HANDLE i_fd,
                                        EventHandler::EVENT i_event)
{
    constexpr int OTHER_SHUTDOWN = 1; // means EVENT_SHUTDOWN here
    switch (static_cast<int>(i_event))
    {
    case EventHandler::EVENT_READ:
        return acceptOne(io_acc, i_fd);
    case EventHandler::EVENT_REFRESH:
        return EventHandler::ACTION_CONTINUE;
    case OTHER_SHUTDOWN:
    case EventHandler::EVENT_SHUTDOWN:
        return EventHandler::ACTION_UNREGISTER;
    default:
        std::abort();
    }
}

// Deliberate: any failure but that of a vanished connection ends listening.
// Effect: a daemon that runs out of descriptors or memory once accepts no
// further connection until it opens another acceptor.
// Pinned by: SockAccTest.FailedAcceptEndsListening
//
// Deliberate: a connection whose options cannot be set is not closed.
// Effect: the peer sees a connection that nobody serves, and listening ends.
// Pinned by: SockAccTest.FailedSctpTuningEndsListeningAndLeaksTheConnection
//
// Deliberate: accept() is told the size of the whole record, not of the area
// in it; no address of the supported families is longer than the area.
// Effect: none.
// Pinned by: SockAccTest.AcceptIsGivenTheSizeOfTheWholeRecord
template <class ACCEPTOR, class FAMILY>
EventHandler::ACTION AccSteps<ACCEPTOR, FAMILY>::acceptOne(ACCEPTOR& io_acc,
                                                           OS_HANDLE i_fd)
{
    Address_t l_peer = {};
    OS_HANDLE l_fd = OS_INVALID;
    do
    {
        l_peer.length = sizeof(l_peer);
        l_fd = accept(i_fd, &l_peer.addr.sa, &l_peer.length);
    } while (l_fd < 0 && errno == EINTR);
    if (l_fd < 0)
    {
        return errno == EAGAIN ? EventHandler::ACTION_CONTINUE
                               : EventHandler::ACTION_UNREGISTER;
    }
    if (l_fd >= FdSet::SIZE) // cannot be watched
    {
        close(l_fd);
        return EventHandler::ACTION_CONTINUE;
    }
    setCloseOnExec(l_fd);
    if (FAMILY::tune(l_fd, io_acc.iv_SockType, l_peer))
    {
        return EventHandler::ACTION_UNREGISTER;
    }
    serve(io_acc, l_fd, l_peer);
    return EventHandler::ACTION_CONTINUE;
}

// Once a service is open another thread may serve and delete it with its
// channel, so that is the last step, here and below.
template <class ACCEPTOR, class FAMILY>
void AccSteps<ACCEPTOR, FAMILY>::serveDatagrams(ACCEPTOR& io_acc,
                                                OS_HANDLE i_fd)
{
    std::unique_ptr<Channel_t> l_channel(new Channel_t(i_fd, SOCK_TYPE_UDP));
    l_channel->setRemoteAddress(Address_t());
    Service* l_service = makeService(io_acc, std::move(l_channel));
    if (l_service != nullptr)
    {
        l_service->Open();
    }
}

template <class ACCEPTOR, class FAMILY>
void AccSteps<ACCEPTOR, FAMILY>::serve(ACCEPTOR& io_acc, OS_HANDLE i_fd,
                                       const Address_t& i_peer)
{
    Channel_t* l_channel = new Channel_t(i_fd, io_acc.iv_SockType);
    Service* l_service =
        makeService(io_acc, std::unique_ptr<Channel_t>(l_channel));
    if (l_service != nullptr)
    {
        l_channel->setRemoteAddress(i_peer);
        l_service->Open();
    }
}

// Without a service the channel goes, and with it the connection.
template <class ACCEPTOR, class FAMILY>
Service*
AccSteps<ACCEPTOR, FAMILY>::makeService(ACCEPTOR& io_acc,
                                        std::unique_ptr<Channel_t> i_channel)
{
    Service* l_service = io_acc.iv_Factory(io_acc.iv_Dispatcher);
    if (l_service != nullptr)
    {
        l_service->setChannel(*i_channel.release());
    }
    return l_service;
}

// Deliberate: a path that is null is passed on as well.
// Effect: none; the system refuses it.
// Pinned by: SockAccTest.NullPathIsPassedOnAtTheEnd
template <class ACCEPTOR, class FAMILY>
void AccSteps<ACCEPTOR, FAMILY>::removeFile(const ACCEPTOR& i_acc)
{
    // Through a pointer: the declaration of unlink() promises a path.
    int (*const l_unlink)(const char*) = unlink;
    if (i_acc.iv_SockType == SOCK_TYPE_UNIX)
    {
        l_unlink(i_acc.iv_Host);
    }
}

} // namespace tolv

#endif

#include "tolv/vex/tolvSockConn.hpp"

#include "tolv/vex/tolvDescriptor.hpp"
#include "tolv/vex/tolvOneHandle.hpp"
#include "tolv/vex/tolvReason.hpp"
#include "tolv/vex/tolvSctp.hpp"
#include "tolv/vex/tolvService.hpp"
#include "tolv/vex/tolvSleep.hpp"
#include "tolv/vex/tolvSockChannel.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <memory>

namespace
{

using namespace tolv;

// The time-out of a connector that was given none, in seconds.
constexpr unsigned int DEFAULT_TIME_OUT = 5;

// Whether a UNIX-domain server may still appear.
bool isWorthRetrying(int i_errno)
{
    switch (i_errno)
    {
    case EAGAIN:       // it has too many connections waiting
    case ENOENT:       // it has no socket yet
    case ECONNREFUSED: // it does not listen yet
    case EINPROGRESS:
    case EALREADY:
        return true;
    default:
        return false;
    }
}

// Returns: whether there is a connection, else errno tells why.
bool connectOnce(OS_HANDLE i_fd, const SockAddr_t& i_address)
{
    int l_result = 0;
    do
    {
        l_result = connect(i_fd, &i_address.addr.sa, i_address.length);
    } while (l_result < 0 && errno == EINTR);
    return l_result >= 0 || errno == EISCONN;
}

// The channel of a connection that was made.
void open(Service& io_service, Channel* i_channel)
{
    if (i_channel != nullptr)
    {
        io_service.setChannel(*i_channel);
        io_service.Open();
    }
}

} // namespace

namespace tolv
{

SockConn::SockConn(SockType i_type) : Conn(i_type)
{
    setTimeOut(TimeValue(DEFAULT_TIME_OUT));
}

SockConn::~SockConn() = default;

void SockConn::Dump(FILE* /*o_stream*/) {}

// Deliberate: the mode is not used.
// Effect: every connection is made the same way.
// Pinned by: SockConnTest.ModeChangesNothing
pError_t SockConn::Connect(const char* i_host, unsigned short i_port,
                           Channel*& o_channel, ConnectMode /*i_mode*/)
{
    OS_HANDLE l_fd = openSocket(LookupSockProperties(iv_SockType));
    SockAddr_t l_address = {};
    pError_t l_error;
    if (initSockAddrStruct(i_host, i_port, l_address, iv_SockType) < 1)
    {
        l_error = BuildLog(ORIGIN_CONNECTION, REASON_ADDRESS, g_TolvTraceDesc,
                           "Failed to initialize socket address structure");
    }
    else if (l_fd == OS_INVALID)
    {
        l_error = BuildLog(ORIGIN_CONNECTION, REASON_SOCKET, g_TolvTraceDesc,
                           "System call to create socket failed");
    }
    else
    {
        l_error = iv_SockType == SOCK_TYPE_UNIX
                      ? connectWithRetries(l_fd, l_address)
                      : connectWithTimeOut(l_fd, l_address);
    }
    if (l_error)
    {
        if (l_fd != OS_INVALID)
        {
            close(l_fd);
        }
        return l_error;
    }
    return makeChannel(l_fd, l_address, o_channel);
}

pError_t SockConn::Connect(const char* i_host, unsigned short i_port,
                           Service& io_service, ConnectMode i_mode)
{
    Channel* l_channel = nullptr;
    pError_t l_error = Connect(i_host, i_port, l_channel, i_mode);
    open(io_service, l_channel);
    return l_error;
}

pError_t SockConn::Connect(const char* i_host1, const char* i_host2,
                           unsigned short i_port, Channel*& o_channel)
{
    const bool l_wasOff = !iv_TimeOutEnabled;
    if (l_wasOff)
    {
        setTimeOut(TimeValue(DEFAULT_TIME_OUT));
    }
    pError_t l_error = Connect(i_host1, i_port, o_channel, CONNECT_DEFAULT);
    if (l_error)
    {
        l_error = Connect(i_host2, i_port, o_channel, CONNECT_DEFAULT);
    }
    if (l_wasOff)
    {
        clearTimeOut();
    }
    return l_error;
}

pError_t SockConn::Connect(const char* i_host1, const char* i_host2,
                           unsigned short i_port, Service& io_service)
{
    Channel* l_channel = nullptr;
    pError_t l_error = Connect(i_host1, i_host2, i_port, l_channel);
    open(io_service, l_channel);
    return l_error;
}

// Deliberate: the time-out counts also while it is off.
// Effect: clearTimeOut() makes nothing but a UNIX-domain connect wait longer.
// Pinned by: SockConnTest.TimeOutThatIsOffStillBoundsTheWait
pError_t SockConn::connectWithTimeOut(OS_HANDLE& io_fd,
                                      const SockAddr_t& i_address)
{
    const int l_flags = setNonBlocking(io_fd);
    pError_t l_error;
    int l_pending = 0; // the connection's own error
    if (connect(io_fd, &i_address.addr.sa, i_address.length) < 0)
    {
        l_error =
            errno == EINPROGRESS
                ? waitForConnection(io_fd, l_pending)
                : BuildLog(ORIGIN_CONNECTION, REASON_CONNECT, g_TolvTraceDesc,
                           "ConnectWithTimeout: Connection to server "
                           "failed");
    }
    if (io_fd != OS_INVALID)
    {
        fcntl(io_fd, F_SETFL, l_flags);
    }
    if (l_pending != 0)
    {
        errno = l_pending;
        l_error = BuildLog(
            ORIGIN_CONNECTION, REASON_PENDING_ERROR, g_TolvTraceDesc,
            "ConnectWithTimeout: getsockopt returned SO_ERROR[%i]", l_pending);
    }
    return l_error;
}

// Deliberate: a signal ends the wait.
// Effect: a daemon that gets signals sees "select failed" with EINTR, and
// connects again.
// Pinned by: SockConnTest.InterruptedSelectIsAnError
pError_t SockConn::waitForConnection(OS_HANDLE& io_fd, int& o_pending)
{
    timeval l_left = toTimeval(iv_TimeOut);
    OneHandle l_read(io_fd);
    OneHandle l_write(io_fd);
    const int l_ready =
        select(io_fd + 1, l_read.view(), l_write.view(), nullptr, &l_left);
    if (l_ready == 0)
    {
        close(io_fd);
        io_fd = OS_INVALID;
        errno = ETIMEDOUT;
        return BuildLog(ORIGIN_CONNECTION, REASON_CONNECT_TIMED_OUT,
                        g_TolvTraceDesc,
                        "ConnectWithTimeout: Connection timed out, timer "
                        "expired on select");
    }
    if (l_ready < 0)
    {
        return BuildLog(ORIGIN_CONNECTION, REASON_SELECT, g_TolvTraceDesc,
                        "ConnectWithTimeout: select failed");
    }
    if (!l_read.isSet() && !l_write.isSet())
    {
        return BuildLog(ORIGIN_CONNECTION, REASON_NOT_SELECTED, g_TolvTraceDesc,
                        "ConnectWithTimeout: Socket descriptor not set");
    }
    socklen_t l_length = sizeof(o_pending);
    if (getsockopt(io_fd, SOL_SOCKET, SO_ERROR, &o_pending, &l_length) < 0)
    {
        return BuildLog(ORIGIN_CONNECTION, REASON_GET_OPTION, g_TolvTraceDesc,
                        "ConnectWithTimeout: getsockopt failed, Errno[%i]",
                        errno);
    }
    return pError_t();
}

// Waits for a server on this machine to start.
pError_t SockConn::connectWithRetries(OS_HANDLE i_fd,
                                      const SockAddr_t& i_address)
{
    const int l_flags = setNonBlocking(i_fd);
    unsigned int l_seconds = iv_TimeOut.getSeconds();
    pError_t l_error;
    while (!connectOnce(i_fd, i_address))
    {
        if (!isWorthRetrying(errno))
        {
            l_error =
                BuildLog(ORIGIN_CONNECT, REASON_CONNECT, g_TolvTraceDesc,
                         "ConnectWithTimeout: System call to connect failed");
            break;
        }
        if (iv_TimeOutEnabled && l_seconds-- == 0)
        {
            l_error = BuildLog(
                ORIGIN_CONNECT, REASON_CONNECT_TIMED_OUT, g_TolvTraceDesc,
                "ConnectWithTimeout: Connection timed out waiting "
                "for server");
            break;
        }
        sleepFully(1);
    }
    fcntl(i_fd, F_SETFL, l_flags);
    return l_error;
}

// The descriptor is closed by whoever owns it: the channel from here on.
pError_t SockConn::makeChannel(OS_HANDLE i_fd, const SockAddr_t& i_address,
                               Channel*& o_channel)
{
    std::unique_ptr<SockChannel> l_channel(new SockChannel(i_fd, iv_SockType));
    l_channel->setRemoteAddress(i_address);
    pError_t l_error = setSocketProperties(i_fd, i_address);
    o_channel = l_error ? nullptr : l_channel.release();
    return l_error;
}

pError_t SockConn::setSocketProperties(OS_HANDLE i_fd,
                                       const SockAddr_t& i_address)
{
    switch (iv_SockType)
    {
    case SOCK_TYPE_SCTP:
        return SetSctpSocketProperties(i_fd, i_address);
    case SOCK_TYPE_TCP:
        return setTcpSocketProperties(i_fd);
    default:
        return pError_t();
    }
}

pError_t SockConn::setTcpSocketProperties(OS_HANDLE i_fd)
{
    const int l_on = 1;
    if (setsockopt(i_fd, SOL_SOCKET, SO_KEEPALIVE, &l_on, sizeof(l_on)) < 0)
    {
        return BuildLog(ORIGIN_CONNECTION, REASON_KEEPALIVE, g_TolvTraceDesc,
                        "SetTcpSocketProperties: System call to activate "
                        "SO_KEEPALIVE failed");
    }
    return pError_t();
}

} // namespace tolv

#include "tolv/vex/tolvChannelIo.hpp"

#include "tolv/vex/tolvOneHandle.hpp"
#include "tolv/vex/tolvReason.hpp"
#include "tolv/vex/tolvSockOption.hpp"
#include "tolv/vex/tolvStreamPeek.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include <algorithm>
#include <optional>

namespace
{

// How long a peek rests that has brought nothing new and cannot be told when
// there is more, in microseconds: short for people, long for a processor.
constexpr std::int64_t PAUSE = 10000;

constexpr std::int64_t MICROS_PER_SECOND = 1000000;

std::int64_t toMicros(const timeval& i_span)
{
    return std::int64_t(i_span.tv_sec) * MICROS_PER_SECOND + i_span.tv_usec;
}

timeval fromMicros(std::int64_t i_micros)
{
    timeval l_span = {};
    l_span.tv_sec = static_cast<time_t>(i_micros / MICROS_PER_SECOND);
    l_span.tv_usec = static_cast<suseconds_t>(i_micros % MICROS_PER_SECOND);
    return l_span;
}

// Takes the time that its scope lasts off what is left, as select() does by
// itself.
class CountDown
{
  public:
    explicit CountDown(timeval& io_left) : iv_Left(io_left), iv_Start(now()) {}

    ~CountDown()
    {
        const std::int64_t l_left = toMicros(iv_Left) - (now() - iv_Start);
        iv_Left = fromMicros(std::max<std::int64_t>(l_left, 0));
    }

    CountDown(const CountDown&) = delete;
    CountDown& operator=(const CountDown&) = delete;

  private:
    static std::int64_t now()
    {
        timespec l_now = {};
        clock_gettime(CLOCK_MONOTONIC, &l_now);
        return std::int64_t(l_now.tv_sec) * MICROS_PER_SECOND +
               l_now.tv_nsec / 1000;
    }

    timeval& iv_Left;
    const std::int64_t iv_Start;
};

} // namespace

namespace tolv
{

ChannelIo::ChannelIo(Channel& io_channel, const char* i_name) :
    iv_Channel(io_channel), iv_Name(i_name), iv_Buf(nullptr), iv_Wanted(0),
    iv_Received(0), iv_Flags(0), iv_Left(), iv_Failed(false)
{
}

OS_HANDLE ChannelIo::handle() const
{
    return iv_Channel.getHandle();
}

SockType ChannelIo::type() const
{
    return iv_Channel.getType();
}

pError_t ChannelIo::receive(void* o_buf, unsigned int& io_Bytes, int i_flags)
{
    iv_Channel.iv_TimedOut = false;
    if (handle() == OS_INVALID)
    {
        io_Bytes = 0;
        return iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_NO_HANDLE, g_TolvTraceDesc,
            "The OS_HANDLE is not currently valid, operation aborted");
    }
    iv_Buf = static_cast<char*>(o_buf);
    iv_Wanted = io_Bytes;
    iv_Flags = i_flags | MSG_NOSIGNAL;
    if (iv_Channel.isTimeOutEnabled())
    {
        receiveWithTimeOut();
    }
    else
    {
        receiveBlocking();
    }
    io_Bytes = iv_Received;
    return iv_Error;
}

void ChannelIo::receiveBlocking()
{
    iv_Flags |= MSG_WAITALL;
    do
    {
        receiveOnce();
    } while (!isDone());
}

void ChannelIo::receiveWithTimeOut()
{
    iv_Left = toTimeval(iv_Channel.getTimeOut());
    do
    {
        if (awaitReadable())
        {
            receiveOnce();
        }
    } while (!isDone());
}

bool ChannelIo::isDone() const
{
    return iv_Channel.isTimedOut() || iv_Failed || iv_Received == iv_Wanted;
}

// What is left is never set anew: the time-out bounds the whole receiving.
bool ChannelIo::awaitReadable()
{
    // Else the bytes that are there already would end the wait at once. For the
    // wait alone: a peek would wait for as many too, but without a limit.
    std::optional<SockOption<int>> l_lowWater;
    if (isFurtherPeek() && type() != SOCK_TYPE_UNIX)
    {
        l_lowWater.emplace(handle(), SO_RCVLOWAT, static_cast<int>(iv_Wanted));
    }
    OneHandle l_readable(handle());
    const int l_urc =
        select(handle() + 1, l_readable.view(), nullptr, nullptr, &iv_Left);
    if (l_urc == 0)
    {
        timeOut();
    }
    else if (l_urc == -1 && errno != EINTR)
    {
        fail(iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_SELECT, g_TolvTraceDesc,
            "%s::select failed, Errno[%i]", iv_Name, errno));
    }
    return l_urc > 0 && checkPendingError();
}

bool ChannelIo::checkPendingError()
{
    int l_pending = 0;
    socklen_t l_length = sizeof(l_pending);
    if (getsockopt(handle(), SOL_SOCKET, SO_ERROR, &l_pending, &l_length) == -1)
    {
        fail(iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_GET_OPTION, g_TolvTraceDesc,
            "%s::getsockopt failed, Errno[%i]", iv_Name, errno));
    }
    else if (l_pending != 0 && type() != SOCK_TYPE_SCTP)
    {
        errno = l_pending;
        fail(iv_Channel.BuildLog(
            ORIGIN_CONNECTION, REASON_PENDING_ERROR, g_TolvTraceDesc,
            "%s: getsockopt returned SO_ERROR[%i]", iv_Name, l_pending));
    }
    return !iv_Failed;
}

// Deliberate: the channel's own time-out becomes zero and stays on.
// Effect: a later read takes what is there and does not wait; set the time-out
// anew for each read that is to wait.
// Pinned by: SockChannelCallsTest.TimeOutIsNoErrorAndLeavesAChannelThatPolls
void ChannelIo::timeOut()
{
    errno = ETIMEDOUT;
    iv_Channel.iv_TimedOut = true;
    iv_Channel.iv_TimeOut = TimeValue();
}

void ChannelIo::receiveOnce()
{
    const bool l_again = isFurtherPeek();
    const ssize_t l_urc = l_again ? peekAgain() : receiveFrom(iv_Received);
    if (l_urc > 0)
    {
        iv_Received =
            (l_again ? 0 : iv_Received) + static_cast<unsigned int>(l_urc);
    }
    else if (l_urc == 0 || errno != EINTR)
    {
        failToReceive(l_urc);
    }
}

ssize_t ChannelIo::receiveFrom(unsigned int i_offset)
{
    char* const l_buf = iv_Buf + i_offset;
    const std::size_t l_room = iv_Wanted - i_offset;
    return type() == SOCK_TYPE_UNIX ? recv(handle(), l_buf, l_room, iv_Flags)
                                    : receiveInet(l_buf, l_room, iv_Flags);
}

void ChannelIo::failToReceive(ssize_t i_urc)
{
    const unsigned int l_flags = static_cast<unsigned int>(iv_Flags);
    const int l_wanted = static_cast<int>(iv_Wanted);
    const int l_received = static_cast<int>(iv_Received);
    if (i_urc == 0)
    {
        // Deliberate: no bytes end the connection, whatever the reason.
        // Effect: an empty datagram, and reading 0 bytes over TCP, read as
        // "Connection Closed".
        // Pinned by: SockChannelTest.EmptyDatagramReadsAsClosed,
        // SockChannelTest.ReadOfNoBytesOverTcpReadsAsClosed
        fail(iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_CLOSED, g_TolvTraceDesc,
            "%s::Connection Closed Fd[%i] Flags[%08X] Req[%i] Recv[%i]",
            iv_Name, handle(), l_flags, l_wanted, l_received));
    }
    else if (errno == EHOSTDOWN)
    {
        fail(iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_CLOSED, g_TolvTraceDesc,
            "%s::Peer unreachable, connection closed "
            "Fd[%i] Flags[%08X] Req[%i] Recv[%i]",
            iv_Name, handle(), l_flags, l_wanted, l_received));
    }
    else
    {
        fail(iv_Channel.BuildLog(
            ORIGIN_CHANNEL_READ, REASON_RECEIVE, g_TolvTraceDesc,
            "%s::Receive Error Fd[%i] Flags[%08X] Req[%i] Recv[%i]", iv_Name,
            handle(), l_flags, l_wanted, l_received));
        // Deliberate: what came before the error is reported as nothing.
        // Effect: io_Bytes is 0, although these bytes have left the socket and
        // lie in the caller's buffer.
        // Pinned by: SockChannelCallsTest.ReceiveErrorReportsThePartAsNothing
        iv_Received = 0;
    }
}

// On a stream each peek begins at the first unread byte. Where messages keep
// their bounds a further peek would not see more than the one before.
//
// Deliberate: over UDP and SCTP a peek longer than the first message reads
// that message again and again until the count is reached.
// Effect: its bytes stand in the buffer more than once.
// Pinned by: SockChannelTest.PeekBeyondADatagramRepeatsIt
bool ChannelIo::isFurtherPeek() const
{
    return (iv_Flags & MSG_PEEK) != 0 && iv_Received > 0 &&
           (type() == SOCK_TYPE_TCP || type() == SOCK_TYPE_UNIX);
}

// From the first unread byte on, so that no byte is reported twice. Whether
// the stream has ended is asked before: what is short after that stays so.
ssize_t ChannelIo::peekAgain()
{
    const bool l_ended = streamEnded(handle());
    const ssize_t l_more = l_ended ? 1 : awaitMore();
    if (l_more <= 0)
    {
        return l_more;
    }
    const ssize_t l_urc = receiveFrom(0);
    if (l_urc <= 0 || static_cast<unsigned int>(l_urc) == iv_Wanted)
    {
        return l_urc;
    }
    if (l_ended)
    {
        iv_Received = static_cast<unsigned int>(l_urc);
        return endOfStream();
    }
    if (static_cast<unsigned int>(l_urc) <= iv_Received)
    {
        pause(); // a signal, no more in time, or none that can be waited for
    }
    return l_urc;
}

// As recv() of the bytes behind those that are known, except that 1 does not
// promise any: the time may be over, or the socket one that does not block.
// TCP waits elsewhere: in the peek itself or, with the time-out on, in
// select().
ssize_t ChannelIo::awaitMore()
{
    if (type() != SOCK_TYPE_UNIX)
    {
        return 1;
    }
    if (!iv_Channel.isTimeOutEnabled())
    {
        return awaitBytesBehind(handle(), iv_Received, nullptr);
    }
    if (toMicros(iv_Left) == 0)
    {
        return 1;
    }
    const CountDown l_countDown(iv_Left);
    const ssize_t l_urc = awaitBytesBehind(handle(), iv_Received, &iv_Left);
    return l_urc == -1 && errno == EAGAIN ? 1 : l_urc;
}

// The unread bytes hide an error from the system call that would report it.
ssize_t ChannelIo::endOfStream()
{
    int l_pending = 0;
    socklen_t l_length = sizeof(l_pending);
    getsockopt(handle(), SOL_SOCKET, SO_ERROR, &l_pending, &l_length);
    if (l_pending == 0)
    {
        return 0;
    }
    errno = l_pending;
    return -1;
}

void ChannelIo::pause()
{
    std::int64_t l_length = PAUSE;
    if (iv_Channel.isTimeOutEnabled())
    {
        l_length = std::min(l_length, toMicros(iv_Left));
        if (l_length == 0)
        {
            timeOut();
            return;
        }
    }
    const CountDown l_countDown(iv_Left);
    timeval l_pause = fromMicros(l_length);
    select(0, nullptr, nullptr, nullptr, &l_pause);
}

void ChannelIo::fail(pError_t i_error)
{
    iv_Failed = true;
    iv_Error = i_error;
}

// Deliberate: neither the time-out nor readiness is looked at.
// Effect: a send blocks its thread while the peer does not read.
// Pinned by: SockChannelTest.WriteToAPeerThatNeverReadsBlocks
pError_t ChannelIo::send(const void* i_buf, unsigned int& io_Bytes)
{
    if (handle() == OS_INVALID)
    {
        return iv_Channel.BuildLog(
            ORIGIN_CHANNEL_WRITE, REASON_NO_HANDLE, g_TolvTraceDesc,
            "The OS_HANDLE is not currently valid, write not attempted");
    }
    ssize_t l_urc = -1;
    do
    {
        l_urc = type() == SOCK_TYPE_UNIX
                    ? ::send(handle(), i_buf, io_Bytes, MSG_NOSIGNAL)
                    : sendInet(i_buf, io_Bytes);
    } while (l_urc == -1 && errno == EINTR);
    if (l_urc != -1)
    {
        // Deliberate: a short send is no error and is not continued.
        // Effect: callers compare io_Bytes with what they gave.
        // Pinned by: SockChannelCallsTest.ShortSendIsNoError
        io_Bytes = static_cast<unsigned int>(l_urc);
        return pError_t();
    }
    pError_t l_error =
        iv_Channel.BuildLog(ORIGIN_CHANNEL_WRITE, REASON_WRITE, g_TolvTraceDesc,
                            "%s::Write failed fd[%i] io_Bytes[%i]", iv_Name,
                            handle(), static_cast<int>(io_Bytes));
    io_Bytes = 0; // only now: the message carries the requested count
    return l_error;
}

// Deliberate: liveness is a peek of two bytes with the channel's own time-out,
// or none.
// Effect: it blocks until two bytes are there or the connection ends.
// Pinned by: SockChannelTest.IsAliveBlocksUntilTwoBytesAreThere
bool ChannelIo::isAlive(Channel& io_channel)
{
    char l_bytes[2] = {};
    unsigned int l_count = sizeof(l_bytes);
    const pError_t l_ignored = io_channel.Peek(l_bytes, l_count);
    return l_count > 0;
}

void ChannelIo::format(int i_family, const void* i_address, unsigned int i_room,
                       std::string& io_text)
{
    char l_text[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(i_family, i_address, l_text, i_room) != nullptr)
    {
        io_text = l_text;
    }
}

} // namespace tolv

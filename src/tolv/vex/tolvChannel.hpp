// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVCHANNEL_HPP
#define TOLV_VEX_TOLVCHANNEL_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <cstdio>

namespace tolv
{

class ChannelIo;

/// One descriptor over which counted numbers of bytes go both ways, with the
/// peer's address.
///
/// A channel can be used after any error; what to do with it is its user's
/// matter. Most destroy it.
///
/// Ownership: the channel owns its descriptor; destroying it closes the
///            connection.
/// Threads:   one at a time; a channel has no lock.
class TOLV_EXPORT Channel : public Base
{
  public:
    /// The time-out is zero and off.
    Channel(OS_HANDLE i_handle, SockType i_type);
    ~Channel() override;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Prints the channel for people.
    virtual void Dump(FILE* o_stream) = 0;

    /// As Read(), but the bytes stay in the socket.
    ///
    /// On a stream a peek that gets its bytes in several steps reports each of
    /// them once, in order from the first unread byte on. For headers: what
    /// does not fit the socket's buffer never gets there.
    virtual pError_t Peek(void* o_buf, unsigned int& io_Bytes) = 0;

    /// Receives exactly io_Bytes bytes into o_buf.
    ///
    /// Units:  io_Bytes, bytes; in: wanted, out: received.
    /// Blocks: until all have arrived or the connection ends; with the
    ///         time-out on, at most that long for the whole call. A time-out
    ///         is NO ERROR: the result is empty, io_Bytes is short,
    ///         isTimedOut() is true, errno is ETIMEDOUT, and the channel's
    ///         time-out has become zero, so that a later read does not wait.
    virtual pError_t Read(void* o_buf, unsigned int& io_Bytes) = 0;

    /// Sends io_Bytes bytes with one system call.
    ///
    /// Units:  io_Bytes, bytes; in: to send, out: sent, which may be FEWER
    ///         without an error; 0 after a failed call.
    /// Blocks: while the socket's buffer is full; no time-out applies.
    virtual pError_t Write(void* i_buf, unsigned int& io_Bytes) = 0;

    /// Returns: whether at least one byte can still be read.
    /// Blocks:  as a Peek() of two bytes does.
    virtual bool isAlive() = 0;

    /// Returns:   the peer's address as text, or the path of a UNIX-domain
    ///            peer.
    /// Ownership: the channel's, until the next operation on it.
    virtual const char* getRemoteAddress() = 0;

    /// Returns: the peer's port in NETWORK byte order, 0 for SOCK_TYPE_UNIX.
    virtual int getPort() = 0;

    /// Looks at the local addresses of the association again; does nothing
    /// where the transport has none.
    ///
    /// Returns: the status of its last system call, negative for a failure.
    /// Threads: with several workers the dispatcher calls it while another
    ///          thread is inside a different operation of the channel; the
    ///          descriptor and the type are all that it may use.
    virtual int RefreshChannel() = 0;

    /// OS_INVALID when there is none.
    OS_HANDLE getHandle() const
    {
        return iv_Fd;
    }

    SockType getType() const
    {
        return iv_Type;
    }

    /// Sets the time-out of Peek() and Read() and turns it on.
    ///
    /// Units: a span; it bounds a whole call.
    void setTimeOut(const TimeValue& i_timeOut)
    {
        iv_TimeOut = i_timeOut;
        iv_TimeOutEnabled = true;
    }

    /// Turns the time-out off; its value stays.
    void clearTimeOut()
    {
        iv_TimeOutEnabled = false;
    }

    const TimeValue& getTimeOut() const
    {
        return iv_TimeOut;
    }

    bool isTimeOutEnabled() const
    {
        return iv_TimeOutEnabled;
    }

    /// Whether the last Peek() or Read() ended because its time ran out.
    bool isTimedOut() const
    {
        return iv_TimedOut;
    }

  protected:
    // Declared order is the object layout. Channels of a daemon's own use them
    // as the library's do.
    // NOLINTBEGIN(*-non-private-member-variables-in-classes)
    SockType iv_Type;
    TimeValue iv_TimeOut;   // of receiving
    bool iv_TimeOutEnabled; // whether receiving waits with iv_TimeOut
    bool iv_TimedOut;       // how the last receiving ended
    OS_HANDLE iv_Fd;        // owned, or OS_INVALID
    // NOLINTEND(*-non-private-member-variables-in-classes)

  private:
    friend class ChannelIo;
};

} // namespace tolv

#endif

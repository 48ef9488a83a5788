// Private header: receiving and sending, which the socket channels share.
#ifndef TOLV_VEX_TOLVCHANNELIO_HPP
#define TOLV_VEX_TOLVCHANNELIO_HPP

#include "tolv/vex/tolvChannel.hpp"

#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>

#include <string>

namespace tolv
{

/// One receiving or sending on a socket channel: the loop around the system
/// call, the time-out and the errors. A derived class brings the system calls
/// of its channel; those of UNIX-domain sockets are the same for all.
///
/// Threads:   one at a time, as its channel.
/// Ownership: lives for one call; the channel outlives it.
class ChannelIo
{
  public:
    /// i_name: the channel's class, as the messages have it.
    ChannelIo(Channel& io_channel, const char* i_name);
    virtual ~ChannelIo() = default;
    ChannelIo(const ChannelIo&) = delete;
    ChannelIo& operator=(const ChannelIo&) = delete;

    /// As Channel::Read(), with MSG_PEEK in the flags as Channel::Peek().
    pError_t receive(void* o_buf, unsigned int& io_Bytes, int i_flags);

    /// As Channel::Write().
    pError_t send(const void* i_buf, unsigned int& io_Bytes);

    /// As Channel::isAlive().
    static bool isAlive(Channel& io_channel);

    /// Formats an IPv4 or IPv6 address within i_room bytes, at most 46, the
    /// NUL included; a text that does not fit leaves io_text as it was.
    static void format(int i_family, const void* i_address, unsigned int i_room,
                       std::string& io_text);

  protected:
    OS_HANDLE handle() const;
    SockType type() const;

  private:
    // As recv() and send(), for other types than SOCK_TYPE_UNIX.
    virtual ssize_t receiveInet(void* o_buf, std::size_t i_room,
                                int i_flags) = 0;
    virtual ssize_t sendInet(const void* i_buf, std::size_t i_bytes) = 0;

    void receiveBlocking();
    void receiveWithTimeOut();
    bool isDone() const;

    bool awaitReadable();
    bool checkPendingError();
    void timeOut();

    void receiveOnce();
    ssize_t receiveFrom(unsigned int i_offset);
    void failToReceive(ssize_t i_urc);
    bool isFurtherPeek() const;
    ssize_t peekAgain();
    ssize_t awaitMore();
    ssize_t endOfStream();
    void pause();

    void fail(pError_t i_error);

    Channel& iv_Channel;
    const char* const iv_Name;

    // Of the receiving under way.
    char* iv_Buf;
    unsigned int iv_Wanted;
    unsigned int iv_Received;
    int iv_Flags;
    timeval iv_Left; // of the time-out, while it is on
    bool iv_Failed;  // also when memory was short for iv_Error
    pError_t iv_Error;
};

} // namespace tolv

#endif

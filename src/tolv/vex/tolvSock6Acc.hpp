// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVSOCK6ACC_HPP
#define TOLV_VEX_TOLVSOCK6ACC_HPP

#include "tolv/vex/tolvAcc.hpp"
#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"

#include <cstdint>
#include <cstdio>

namespace tolv
{

template <class ACCEPTOR, class FAMILY>
class AccSteps;

/// As SockAcc, over IPv6 or on a UNIX-domain socket, with a Sock6Channel for
/// each connection. There is no SCTP. Replies leave from the local address at
/// which a packet arrived. With the host null, IPv4 peers are served too,
/// under mapped addresses, unless the system forbids it.
class TOLV_EXPORT Sock6Acc : public Acc
{
  public:
    /// What socket() takes for TCP, UDP and UNIX, and how many rows these are.
    static const SockProperties_t ST6Array[3];
    static const std::int32_t ST6Asz;

    /// Returns: family, type and protocol as socket() takes them, or null when
    ///          the table has no such type.
    static const std::int32_t* LookupSock6Properties(SockType i_type);

    /// Fills an address. No name is resolved.
    ///
    /// Units:   i_port, in NETWORK byte order; SOCK_TYPE_UNIX takes no notice
    ///          of it.
    /// i_host:  an IPv6 text, or null for any address; for SOCK_TYPE_UNIX a
    ///          path.
    /// o_addr:  zeroed by the caller.
    /// Returns: 1; 0 for a text that is no IPv6 address, the empty one
    ///          included, and for a path that is null or has more than 108
    ///          characters.
    static int initSock6AddrStruct(const char* i_host, unsigned short i_port,
                                   Sock6Addr_t& o_addr, SockType i_type);

    /// i_host:    an IPv6 text, null for every address of this machine, or the
    ///            path of a UNIX-domain socket. Whatever file is at that path
    ///            is REMOVED at once.
    /// Units:     i_port, in HOST byte order; SOCK_TYPE_UNIX has none.
    /// Ownership: i_host is not copied and must outlive the acceptor.
    Sock6Acc(Dispatcher& io_dispatcher, Factory_t i_factory, const char* i_host,
             unsigned short i_port, SockType i_type);

    /// For every address of this machine.
    Sock6Acc(Dispatcher& io_dispatcher, Factory_t i_factory,
             unsigned short i_port, SockType i_type);

    /// Removes the file of a UNIX-domain socket.
    ~Sock6Acc() override;

    /// As SockAcc::Open(). SOCK_TYPE_SCTP ends the process with abort().
    pError_t Open();

    /// As SockAcc::socketOperation().
    pError_t socketOperation(OS_HANDLE i_handle);

    /// Does nothing: the acceptor goes on listening.
    pError_t Close();

    /// Prints nothing.
    void Dump(FILE* o_stream) override;

    /// As SockAcc::HandleEvent().
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

// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVACC_HPP
#define TOLV_VEX_TOLVACC_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"

namespace tolv
{

class Service;

/// What acceptors have in common: the factory that makes a service for each
/// connection.
class TOLV_EXPORT Acc : public EventHandler
{
  public:
    /// Makes a service with new. Null refuses the connection, which is closed.
    ///
    /// Threads: called on a dispatcher thread, or on the one that opens a UDP
    ///          acceptor; for one acceptor never twice at once.
    using Factory_t = Service* (*)(Dispatcher&);

    Acc(Dispatcher& io_dispatcher, Factory_t i_factory);
    ~Acc() override;

  protected:
    // NOLINTNEXTLINE(*-non-private-member-variables-in-classes)
    Factory_t iv_Factory;
};

} // namespace tolv

#endif

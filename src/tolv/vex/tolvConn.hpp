// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVCONN_HPP
#define TOLV_VEX_TOLVCONN_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvSocket.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <cstdio>

namespace tolv
{

/// What connectors have in common: the kind of socket that they make and how
/// long a connection may take.
///
/// Threads: one thread at a time.
class TOLV_EXPORT Conn : public Base
{
  public:
    /// How a connection is made; there is one way.
    enum ConnectMode
    {
        CONNECT_DEFAULT = 0
    };

    /// No time-out.
    explicit Conn(SockType i_type);
    ~Conn() override;

    /// Prints the connector for people.
    virtual void Dump(FILE* o_stream) = 0;

    /// Sets the time-out and switches it on.
    void setTimeOut(const TimeValue& i_timeOut);

    const TimeValue& getTimeOut() const
    {
        return iv_TimeOut;
    }

    bool isTimeOutEnabled() const
    {
        return iv_TimeOutEnabled;
    }

    /// Switches the time-out off; its value stays.
    void clearTimeOut()
    {
        iv_TimeOutEnabled = false;
    }

  protected:
    // Declared order is the object layout.
    // NOLINTBEGIN(*-non-private-member-variables-in-classes)
    SockType iv_SockType;
    TimeValue iv_TimeOut;
    bool iv_TimeOutEnabled;
    // NOLINTEND(*-non-private-member-variables-in-classes)
};

} // namespace tolv

#endif

// Private header: one timer.
#ifndef TOLV_VEX_TOLVTIMERPROPERTIES_HPP
#define TOLV_VEX_TOLVTIMERPROPERTIES_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvTimeValue.hpp"

#include <cstdint>

namespace tolv
{

/// A periodic timer of one handler.
///
/// Ownership: the handler is not owned.
/// Threads:   the registration lock of the engine guards it; IssueCallback()
///            alone runs without it, and the thread count keeps the timer.
class TimerProperties
{
  public:
    /// No handler, no interval, enabled.
    explicit TimerProperties(Timer_t i_id);

    Timer_t getId() const
    {
        return iv_Id;
    }

    EventHandler* getHandler() const
    {
        return iv_pHandler;
    }

    void setHandler(EventHandler& io_handler)
    {
        iv_pHandler = &io_handler;
    }

    /// Sets the period; the next expiry is one period after i_now.
    void setInterval(const TimeValue& i_interval, const TimeValue& i_now);

    /// The next expiry is one period after i_now. It never wraps: a sum that
    /// does not fit is the largest time.
    void restart(const TimeValue& i_now);

    const TimeValue& getExpiry() const
    {
        return iv_Expiry;
    }

    void setEnabled(bool i_enabled)
    {
        iv_Enabled = i_enabled;
    }

    void setRemoved()
    {
        iv_Removed = true;
    }

    bool isRemoved() const
    {
        return iv_Removed;
    }

    /// Whether it may fire.
    bool isArmed() const;

    bool isBusy() const
    {
        return iv_ThreadRefCount != 0;
    }

    /// Calls the handler's TimerTick(). Blocks: as long as that does.
    EventHandler::ACTION IssueCallback();

    /// Counts the calling thread into timer and handler.
    void IncreaseThreadCount();

    /// Counts the calling thread out again.
    void DecreaseThreadCount();

  private:
    const Timer_t iv_Id;
    EventHandler* iv_pHandler;
    TimeValue iv_Interval;
    TimeValue iv_Expiry;            // on the uptime clock
    bool iv_Enabled;                // cleared while its callback runs
    bool iv_Removed;                // cancelled, erased with the last thread
    std::int32_t iv_ThreadRefCount; // threads inside its callback
};

} // namespace tolv

#endif

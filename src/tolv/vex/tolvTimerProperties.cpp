#include "tolv/vex/tolvTimerProperties.hpp"

#include "tolv/vex/tolvAssert.hpp"

#include <limits>

namespace
{

const char* const SOURCE = "tolv/vex/tolvTimerProperties";

constexpr std::uint64_t MICROSECONDS = 1000000;

tolv::TimeValue sum(const tolv::TimeValue& i_left,
                    const tolv::TimeValue& i_right)
{
    const std::uint64_t l_micros =
        std::uint64_t{i_left.getMicroSeconds()} + i_right.getMicroSeconds();
    const std::uint64_t l_seconds = std::uint64_t{i_left.getSeconds()} +
                                    i_right.getSeconds() +
                                    l_micros / MICROSECONDS;
    constexpr std::uint32_t LATEST = std::numeric_limits<std::uint32_t>::max();
    if (l_seconds > LATEST)
    {
        return tolv::TimeValue(LATEST, MICROSECONDS - 1);
    }
    return tolv::TimeValue(static_cast<std::uint32_t>(l_seconds),
                           static_cast<std::uint32_t>(l_micros % MICROSECONDS));
}

} // namespace

namespace tolv
{

TimerProperties::TimerProperties(Timer_t i_id) :
    iv_Id(i_id), iv_pHandler(nullptr), iv_Interval(), iv_Expiry(),
    iv_Enabled(true), iv_Removed(false), iv_ThreadRefCount(0)
{
}

void TimerProperties::setInterval(const TimeValue& i_interval,
                                  const TimeValue& i_now)
{
    iv_Interval = i_interval;
    restart(i_now);
}

void TimerProperties::restart(const TimeValue& i_now)
{
    iv_Expiry = sum(i_now, iv_Interval);
}

bool TimerProperties::isArmed() const
{
    return iv_Enabled && !iv_Removed && iv_pHandler->isLive();
}

EventHandler::ACTION TimerProperties::IssueCallback()
{
    if (iv_pHandler == nullptr)
    {
        assertFailed("iv_pHandler != __null", SOURCE, 130,
                     "tolv::EventHandler::ACTION "
                     "tolv::TimerProperties::IssueCallback()");
    }
    return iv_pHandler->TimerTick(iv_Id, EventHandler::EVENT_TIMER);
}

void TimerProperties::IncreaseThreadCount()
{
    ++iv_ThreadRefCount;
    iv_pHandler->IncreaseThreadCount();
}

void TimerProperties::DecreaseThreadCount()
{
    --iv_ThreadRefCount;
    if (iv_ThreadRefCount < 0)
    {
        assertFailed("iv_ThreadRefCount >= 0", SOURCE, 150,
                     "void tolv::TimerProperties::DecreaseThreadCount()");
    }
    iv_pHandler->DecreaseThreadCount();
}

} // namespace tolv

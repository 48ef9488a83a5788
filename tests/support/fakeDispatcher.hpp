// A dispatcher that records what is asked of it and calls nobody.
#ifndef TOLV_TESTS_SUPPORT_FAKEDISPATCHER_HPP
#define TOLV_TESTS_SUPPORT_FAKEDISPATCHER_HPP

#include "tolv/vex/tolvDispatcher.hpp"

#include <functional>
#include <vector>

/// Has no engine. What it does not override fails the front's assertion.
class FakeDispatcher : public tolv::Dispatcher
{
  public:
    struct Registration
    {
        tolv::OS_HANDLE handle;
        tolv::EventHandler* handler;
        tolv::EVENT_MASK mask;
    };

    struct Timer
    {
        tolv::EventHandler* handler;
        tolv::OS_TIMEOUT timeOut;
    };

    FakeDispatcher() : Dispatcher(true) {}

    void Register(tolv::OS_HANDLE i_handle, tolv::EventHandler& io_handler,
                  tolv::EVENT_MASK i_mask) override
    {
        registrations.push_back({i_handle, &io_handler, i_mask});
        if (onRegister)
        {
            onRegister();
        }
    }

    /// The identifiers are 1, 2 and so on.
    tolv::Timer_t AddTimer(tolv::EventHandler& io_handler,
                           tolv::OS_TIMEOUT& io_timeOut) override
    {
        timers.push_back({&io_handler, io_timeOut});
        return static_cast<tolv::Timer_t>(timers.size());
    }

    void ProcessEvents() override
    {
        ++processEventsCalls;
    }

    std::vector<Registration> registrations;
    std::vector<Timer> timers;
    int processEventsCalls = 0;
    std::function<void()> onRegister; // called by Register(), if it is set
};

#endif

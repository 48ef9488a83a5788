// Something that holds callbacks up until the test says so.
#ifndef TOLV_TESTS_SUPPORT_GATE_HPP
#define TOLV_TESTS_SUPPORT_GATE_HPP

#include "support/waitFor.hpp"

#include <atomic>

/// Holds callbacks up until it is opened.
class Gate
{
  public:
    void pass()
    {
        ++iv_Arrived;
        waitFor([this] { return iv_Open.load(); });
    }

    void open()
    {
        iv_Open = true;
    }

    int arrived() const
    {
        return iv_Arrived;
    }

    bool waitForArrived(int i_callbacks = 1) const
    {
        return waitFor([=] { return iv_Arrived >= i_callbacks; });
    }

  private:
    std::atomic<bool> iv_Open{false};
    std::atomic<int> iv_Arrived{0};
};

#endif

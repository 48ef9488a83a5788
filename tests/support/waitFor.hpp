// Waits for a condition with a limit.
#ifndef TOLV_TESTS_SUPPORT_WAITFOR_HPP
#define TOLV_TESTS_SUPPORT_WAITFOR_HPP

#include <chrono>
#include <thread>

/// Polls i_condition every millisecond until it holds.
///
/// Returns: whether it held within 20 seconds, a limit for machines that are
///          busy with other work.
template <class Condition>
bool waitFor(Condition i_condition)
{
    const auto l_limit =
        std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!i_condition())
    {
        if (std::chrono::steady_clock::now() > l_limit)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif

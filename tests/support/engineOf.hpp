// Reaches the engine behind a dispatcher.
#ifndef TOLV_TESTS_SUPPORT_ENGINEOF_HPP
#define TOLV_TESTS_SUPPORT_ENGINEOF_HPP

#include "support/privateMember.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include <memory>

TOLV_PRIVATE_MEMBER(EnginePointer, tolv::Dispatcher, tolv::MTDispatcher*,
                    pImpl);

inline tolv::MTDispatcher& engineOf(tolv::Dispatcher& io_dispatcher)
{
    return *(io_dispatcher.*get(EnginePointer()));
}

/// A dispatcher that is shut down by a test: its engine goes although the
/// dispatcher would fail an assertion or leave it, so that nothing is leaked.
///
/// Blocks: the destructor, until all threads have left the engine.
template <class Front = tolv::Dispatcher>
class ShutDownDispatcher : public Front
{
  public:
    using Front::Front;

    ~ShutDownDispatcher() override
    {
        this->*get(EnginePointer()) = nullptr;
    }

    ShutDownDispatcher(const ShutDownDispatcher&) = delete;
    ShutDownDispatcher& operator=(const ShutDownDispatcher&) = delete;

  private:
    const std::unique_ptr<tolv::MTDispatcher> iv_Engine{
        this->*get(EnginePointer())};
};

#endif

#include "tolv/vex/tolvAcc.hpp"

namespace tolv
{

Acc::Acc(Dispatcher& io_dispatcher, Factory_t i_factory) :
    EventHandler(io_dispatcher), iv_Factory(i_factory)
{
}

Acc::~Acc() = default;

} // namespace tolv

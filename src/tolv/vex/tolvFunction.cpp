#include "tolv/vex/tolvFunction.hpp"

namespace
{

tolv::function_base* cloneOf(const tolv::function_base* i_callable)
{
    return i_callable == nullptr ? nullptr : i_callable->clone();
}

} // namespace

namespace tolv
{

function_base::~function_base() = default;

Function::Function(const Function& i_other) :
    iv_Callable(cloneOf(i_other.iv_Callable))
{
}

Function& Function::operator=(const Function& i_other)
{
    if (this != &i_other)
    {
        delete iv_Callable;
        iv_Callable = nullptr;
        iv_Callable = cloneOf(i_other.iv_Callable);
    }
    return *this;
}

Function::~Function()
{
    delete iv_Callable;
    iv_Callable = nullptr;
}

} // namespace tolv

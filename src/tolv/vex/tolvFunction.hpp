// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVFUNCTION_HPP
#define TOLV_VEX_TOLVFUNCTION_HPP

#include "tolv/vex/tolvExport.hpp"

namespace tolv
{

/// What a Function owns: something that can be called and copied.
class TOLV_EXPORT function_base
{
  public:
    virtual ~function_base();

    /// Calls what is held.
    virtual void invoke() = 0;

    /// A new copy of the same dynamic type.
    ///
    /// Ownership: the caller's.
    virtual function_base* clone() const = 0;
};

/// Holds any callable F by value; F takes no arguments, its result is ignored.
template <class F>
class function_caller : public function_base
{
  public:
    explicit function_caller(const F& i_callable) : iv_Callable(i_callable) {}

    void invoke() override
    {
        iv_Callable();
    }

    function_base* clone() const override
    {
        return new function_caller<F>(*this);
    }

  private:
    F iv_Callable;
};

/// An object and one of its member functions without arguments.
///
/// Ownership: the object stays the caller's and outlives every call.
template <class T, class R = void>
class FunctionRef
{
  public:
    FunctionRef(T* i_object, R (T::*i_method)()) :
        iv_Object(i_object), iv_Method(i_method)
    {
    }

    /// Calls the method, through the virtual table when it is virtual.
    void operator()()
    {
        (iv_Object->*iv_Method)();
    }

  private:
    // Declared order is the object layout.
    T* iv_Object; // not owned
    R (T::*iv_Method)();
};

/// An owning handle to a callable without arguments; may be empty.
///
/// Threads: a plain value; one thread at a time.
class TOLV_EXPORT Function
{
  public:
    /// Empty: there is nothing to call.
    Function() : iv_Callable(nullptr) {}

    /// Holds a copy of i_ref. Implicit, so that a FunctionRef is passed where
    /// a Function is asked for.
    template <class T, class R>
    // cppcheck-suppress noExplicitConstructor
    Function(const FunctionRef<T, R>& i_ref) :
        iv_Callable(new function_caller<FunctionRef<T, R>>(i_ref))
    {
    }

    /// A copy of what the other holds.
    Function(const Function& i_other);
    Function& operator=(const Function& i_other);
    ~Function();

    /// Calls what is held. Calling an empty Function is a programming fault
    /// that nothing guards.
    void operator()()
    {
        iv_Callable->invoke();
    }

  private:
    function_base* iv_Callable; // owned, null when empty
};

} // namespace tolv

#endif

#include "tolv/vex/tolvThread.hpp"

#include "tolv/vex/tolvAssert.hpp"

namespace
{

const char* const SOURCE = "tolv/vex/tolvThread";

thread_local tolv::Thread* t_current = nullptr;

// Makes a Thread the current one of this POSIX thread for a while.
class CurrentScope
{
  public:
    explicit CurrentScope(tolv::Thread* i_thread) : iv_Outer(t_current)
    {
        t_current = i_thread;
    }

    ~CurrentScope()
    {
        t_current = iv_Outer;
    }

    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

  private:
    tolv::Thread* iv_Outer;
};

} // namespace

namespace tolv
{

Thread::Thread() :
    iv_Function(), iv_Tid(pthread_self()), iv_Running(true), iv_Spawns(false),
    iv_UserPtr(nullptr)
{
}

Thread::Thread(Function i_function) :
    iv_Function(i_function), iv_Tid(), iv_Running(false), iv_Spawns(true),
    iv_UserPtr(nullptr)
{
}

Thread::~Thread()
{
    Join();
}

void Thread::Start()
{
    if (!iv_Spawns)
    {
        // The object may be gone before the function returns.
        Function l_function(iv_Function);
        const CurrentScope l_scope(this);
        l_function();
        return;
    }
    if (!iv_Running)
    {
        if (pthread_create(&iv_Tid, nullptr, entry, this) != 0)
        {
            assertFailed("false", SOURCE, 130, "void tolv::Thread::Start()");
        }
        iv_Running = true;
    }
}

void Thread::Start(Function i_function)
{
    if (!iv_Spawns || !iv_Running)
    {
        iv_Function = i_function;
    }
    Start();
}

void Thread::Join()
{
    if (iv_Spawns && iv_Running)
    {
        if (pthread_join(iv_Tid, nullptr) != 0)
        {
            assertFailed("false", SOURCE, 95, "void tolv::Thread::Join()");
        }
        iv_Running = false;
    }
}

void Thread::setUserPtr(void* i_userPtr)
{
    iv_UserPtr = i_userPtr;
}

void* Thread::getUserPtr() const
{
    return iv_UserPtr;
}

pthread_t Thread::getTid() const
{
    return iv_Tid;
}

// Not noexcept, and nothing here catches everything: the unwinding that
// pthread_exit() begins would end the process there.
void* Thread::entry(void* i_thread)
{
    Thread* l_self = static_cast<Thread*>(i_thread);
    {
        const CurrentScope l_scope(l_self);
        l_self->iv_Function();
    }
    pthread_exit(nullptr);
}

Thread* Thread::current()
{
    return t_current;
}

} // namespace tolv

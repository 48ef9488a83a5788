// A small user of the library, in the part of the language that every standard
// from C++11 on has: reaches each kind of thing that the library exports.
#include <tolv/platform/registry.hpp>
#include <tolv/tolv.hpp>

#include <cstdio>
#include <cstring>

#include <typeinfo>

namespace
{

// Derives across the library's border: needs its virtual table and type.
class Counter : public tolv::Base
{
  public:
    Counter() : iv_Runs(0) {}

    void run()
    {
        const tolv::MutexLock l_lock(iv_Lock);
        ++iv_Runs;
        iv_Ran.NotifyAll();
    }

    bool waitForRuns(unsigned int i_runs)
    {
        tolv::TimeValue l_deadline(20);
        l_deadline.ConvertToAbsolute();
        const tolv::MutexLock l_lock(iv_Lock);
        while (iv_Runs < i_runs)
        {
            if (iv_Ran.TimedWait(iv_Lock, l_deadline))
            {
                return false;
            }
        }
        return true;
    }

  private:
    unsigned int iv_Runs;
    tolv::Mutex iv_Lock;
    tolv::Condition iv_Ran;
};

bool runsJobs(Counter& io_counter)
{
    tolv::ThreadPool l_pool;
    l_pool.StartUp(1, 2, tolv::FunctionRef<Counter>(&io_counter, &Counter::run),
                   false);
    l_pool.Dispatch();
    l_pool.Dispatch();
    return io_counter.waitForRuns(2) && !l_pool.Shutdown(20);
}

bool carriesErrors(Counter& io_counter)
{
    tolv::pError_t l_error =
        io_counter.BuildLog(5, 0x4403, g_TolvTraceDesc, "failed[%i]", 7);
    if (!l_error || std::strcmp(l_error->getText(), "failed[7]") != 0)
    {
        return false;
    }
    const std::size_t l_size = l_error->getSize();
    tolv::DataBuff l_buffer(static_cast<unsigned int>(l_size));
    l_buffer << l_error;
    l_buffer.setOffset(0);
    tolv::pError_t l_read;
    l_buffer >> l_read;
    return !l_error && l_read->getReason() == 0x4403;
}

bool knowsTypes(tolv::Base& i_base)
{
    return dynamic_cast<Counter*>(&i_base) != nullptr &&
           typeid(tolv::Base) != typeid(tolv::DataBuff);
}

bool reachesThePlatform()
{
    char l_unused = 0;
    return RegistryRead("consumer/no/such/key", &l_unused, 1, 0) == -1;
}

} // namespace

int main()
{
    Counter l_counter;
    if (!runsJobs(l_counter) || !carriesErrors(l_counter) ||
        !knowsTypes(l_counter) || !reachesThePlatform())
    {
        std::puts("the library does not work here");
        return 1;
    }
    return 0;
}

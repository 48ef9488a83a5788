#include "tolv/vex/tolvMutex.hpp"

#include "tolv/vex/tolvAssert.hpp"

namespace
{

const char* const SOURCE = "tolv/vex/tolvMutex";

} // namespace

namespace tolv
{

Mutex::Mutex() : iv_Mutex()
{
    if (pthread_mutex_init(&iv_Mutex, nullptr) != 0)
    {
        assertFailed("false", SOURCE, 66, "tolv::Mutex::Mutex()");
    }
}

Mutex::~Mutex()
{
    if (pthread_mutex_destroy(&iv_Mutex) != 0)
    {
        assertFailed("false", SOURCE, 78, "tolv::Mutex::~Mutex()");
    }
}

void Mutex::Lock()
{
    if (pthread_mutex_lock(&iv_Mutex) != 0)
    {
        assertFailed("false", SOURCE, 90, "void tolv::Mutex::Lock()");
    }
}

void Mutex::Unlock()
{
    if (pthread_mutex_unlock(&iv_Mutex) != 0)
    {
        assertFailed("false", SOURCE, 102, "void tolv::Mutex::Unlock()");
    }
}

MutexLock::MutexLock(Mutex& io_mutex) : iv_Mutex(io_mutex)
{
    iv_Mutex.Lock();
}

MutexLock::~MutexLock()
{
    iv_Mutex.Unlock();
}

} // namespace tolv

#include "tolv/vex/tolvMutex.hpp"

#include "support/assertion.hpp"

#include <gtest/gtest.h>

#include <cerrno>

#include <thread>
#include <type_traits>

using namespace tolv;

namespace
{

const char* const SOURCE = "tolv/vex/tolvMutex";

template <class T>
constexpr bool isCopyable()
{
    return std::is_copy_constructible<T>::value ||
           std::is_copy_assignable<T>::value;
}

static_assert(!isCopyable<Mutex>(), "a copy would be another lock");
static_assert(!isCopyable<MutexLock>(), "a copy would unlock twice");

// What the wrapped functions answer instead of doing their work; 0: they work.
int g_initResult = 0;
int g_destroyResult = 0;
int g_lockResult = 0;
int g_unlockResult = 0;
bool g_initAttributesGiven = false;

} // namespace

extern "C"
{
    int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
    int __real_pthread_mutex_destroy(pthread_mutex_t*);
    int __real_pthread_mutex_lock(pthread_mutex_t*);
    int __real_pthread_mutex_unlock(pthread_mutex_t*);

    int __wrap_pthread_mutex_init(pthread_mutex_t* io_mutex,
                                  const pthread_mutexattr_t* i_attributes)
    {
        g_initAttributesGiven = i_attributes != nullptr;
        return g_initResult != 0
                   ? g_initResult
                   : __real_pthread_mutex_init(io_mutex, i_attributes);
    }

    int __wrap_pthread_mutex_destroy(pthread_mutex_t* io_mutex)
    {
        return g_destroyResult != 0 ? g_destroyResult
                                    : __real_pthread_mutex_destroy(io_mutex);
    }

    int __wrap_pthread_mutex_lock(pthread_mutex_t* io_mutex)
    {
        return g_lockResult != 0 ? g_lockResult
                                 : __real_pthread_mutex_lock(io_mutex);
    }

    int __wrap_pthread_mutex_unlock(pthread_mutex_t* io_mutex)
    {
        return g_unlockResult != 0 ? g_unlockResult
                                   : __real_pthread_mutex_unlock(io_mutex);
    }
}

TEST(MutexTest, OneThreadHoldsItAtATime)
{
    constexpr int ROUNDS = 20000;
    Mutex l_mutex;
    int l_counter = 0;
    const auto l_count = [&]
    {
        for (int l_round = 0; l_round != ROUNDS; ++l_round)
        {
            const MutexLock l_lock(l_mutex);
            ++l_counter;
        }
    };
    std::thread l_other(l_count);
    l_count();
    l_other.join();
    EXPECT_EQ(2 * ROUNDS, l_counter);
}

TEST(MutexTest, HasDefaultAttributes)
{
    g_initAttributesGiven = true;
    const Mutex l_mutex;
    EXPECT_FALSE(g_initAttributesGiven);
}

TEST(MutexTest, GuardHoldsTheMutexAsLongAsItLives)
{
    Mutex l_mutex;
    const auto l_isFree = [&]
    {
        pthread_mutex_t& l_posix = reinterpret_cast<pthread_mutex_t&>(l_mutex);
        const bool l_free = pthread_mutex_trylock(&l_posix) == 0;
        if (l_free)
        {
            pthread_mutex_unlock(&l_posix);
        }
        return l_free;
    };
    EXPECT_TRUE(l_isFree());
    {
        const MutexLock l_lock(l_mutex);
        EXPECT_FALSE(l_isFree());
    }
    EXPECT_TRUE(l_isFree());
}

TEST(MutexDeathTest, FailingInitialisationFailsItsAssertion)
{
    const auto l_construct = []
    {
        g_initResult = ENOMEM;
        const Mutex l_mutex;
    };
    EXPECT_ASSERTION(l_construct(), SOURCE, 66, "tolv::Mutex::Mutex()",
                     "false");
}

TEST(MutexDeathTest, FailingDestructionFailsItsAssertion)
{
    const auto l_destroy = []
    {
        const Mutex l_mutex;
        g_destroyResult = EINVAL;
    };
    EXPECT_ASSERTION(l_destroy(), SOURCE, 78, "tolv::Mutex::~Mutex()", "false");
}

#if !defined(__SANITIZE_THREAD__) // it reports the fault itself
TEST(MutexDeathTest, DestroyingALockedMutexFailsItsAssertion)
{
    const auto l_destroy = []() TOLV_NO_THREAD_SAFETY_ANALYSIS
    {
        Mutex l_mutex;
        l_mutex.Lock();
    };
    EXPECT_ASSERTION(l_destroy(), SOURCE, 78, "tolv::Mutex::~Mutex()", "false");
}
#endif

TEST(MutexDeathTest, FailingLockFailsItsAssertion)
{
    const auto l_take = []() TOLV_NO_THREAD_SAFETY_ANALYSIS
    {
        Mutex l_mutex;
        g_lockResult = EINVAL;
        l_mutex.Lock();
    };
    EXPECT_ASSERTION(l_take(), SOURCE, 90, "void tolv::Mutex::Lock()", "false");
}

TEST(MutexDeathTest, FailingUnlockFailsItsAssertion)
{
    const auto l_release = []() TOLV_NO_THREAD_SAFETY_ANALYSIS
    {
        Mutex l_mutex;
        l_mutex.Lock();
        g_unlockResult = EPERM;
        l_mutex.Unlock();
    };
    EXPECT_ASSERTION(l_release(), SOURCE, 102, "void tolv::Mutex::Unlock()",
                     "false");
}

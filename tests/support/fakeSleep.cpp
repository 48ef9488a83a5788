#include "support/fakeSleep.hpp"

#include "support/waitFor.hpp"

#include <cerrno>

#include <condition_variable>
#include <mutex>

namespace
{

enum class Mode
{
    REAL,
    SKIP,
    HOLD
};

std::mutex g_lock;
std::condition_variable g_changed;
Mode g_mode = Mode::REAL;
int g_letGo = 0;
bool g_interrupt = false;
timespec g_left = {};
std::function<void()> g_action; // of the next sleep
std::vector<timespec> g_begun;

// Returns false when the sleep is to be a real one.
bool sleepFake(const timespec& i_length, timespec* o_left, int& o_result)
{
    std::unique_lock<std::mutex> l_lock(g_lock);
    if (g_mode == Mode::REAL)
    {
        return false;
    }
    g_begun.push_back(i_length);
    o_result = 0;
    if (g_interrupt)
    {
        g_interrupt = false;
        *o_left = g_left;
        errno = EINTR;
        o_result = -1;
        return true;
    }
    if (g_action)
    {
        std::function<void()> l_action;
        l_action.swap(g_action);
        l_lock.unlock();
        l_action();
        return true;
    }
    g_changed.wait(l_lock, [] { return g_mode == Mode::SKIP || g_letGo != 0; });
    if (g_mode == Mode::HOLD)
    {
        --g_letGo;
    }
    return true;
}

} // namespace

extern "C"
{
    int __real_nanosleep(const timespec* i_length, timespec* o_left);
    int __wrap_nanosleep(const timespec* i_length, timespec* o_left);

    int __wrap_nanosleep(const timespec* i_length, timespec* o_left)
    {
        constexpr long SHORTEST = 10000000;
        const bool l_poll =
            i_length->tv_sec == 0 && i_length->tv_nsec < SHORTEST;
        int l_result = 0;
        if (l_poll || !sleepFake(*i_length, o_left, l_result))
        {
            return __real_nanosleep(i_length, o_left);
        }
        return l_result;
    }
}

namespace fakeSleep
{

void skip()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_mode = Mode::SKIP;
    g_changed.notify_all();
}

void hold()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_mode = Mode::HOLD;
    g_letGo = 0;
}

void letGo()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    ++g_letGo;
    g_changed.notify_all();
}

void interruptNext(const timespec& i_left)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_interrupt = true;
    g_left = i_left;
}

void replaceNext(const std::function<void()>& i_action)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_action = i_action;
}

std::vector<timespec> begun()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_begun;
}

bool waitForBegun(std::size_t i_sleeps)
{
    return waitFor([=] { return begun().size() >= i_sleeps; });
}

} // namespace fakeSleep

#include "support/loopCalls.hpp"

#include "support/waitFor.hpp"

#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include <condition_variable>
#include <mutex>

namespace
{

using loopCalls::Function;

constexpr int FUNCTIONS = loopCalls::SLEEP + 1;
constexpr int ERRNOS = 200;

enum class Hold
{
    NONE,
    BEFORE,
    AFTER
};

struct State
{
    int calls[FUNCTIONS];
    int failures[FUNCTIONS][ERRNOS];
    int answers[FUNCTIONS]; // calls still to be answered
    int results[FUNCTIONS];
    int errnos[FUNCTIONS];
    bool interrupt;
    bool interrupted[FUNCTIONS]; // the call before
    loopCalls::Transfer send;
    loopCalls::Transfer recv;
    loopCalls::Pair pair;
    Hold hold;
    bool held;
    bool waiting; // inside select()
    bool timed;
    int size;
    fd_set watched;
};

std::mutex g_lock;
std::condition_variable g_changed;
State g_state;

// Counts a call. Returns true when it is answered here.
bool begin(Function i_function, int& o_result)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    ++g_state.calls[i_function];
    if (g_state.answers[i_function] != 0)
    {
        --g_state.answers[i_function];
        o_result = g_state.results[i_function];
        errno = g_state.errnos[i_function];
        return true;
    }
    bool& l_interrupted = g_state.interrupted[i_function];
    l_interrupted =
        g_state.interrupt && i_function <= loopCalls::RECV && !l_interrupted;
    if (l_interrupted)
    {
        o_result = -1;
        errno = EINTR;
    }
    return l_interrupted;
}

// Counts a failure and passes the result on, errno as well.
template <class Result>
Result end(Function i_function, Result i_result)
{
    const int l_errno = errno;
    if (i_result == -1 && l_errno > 0 && l_errno < ERRNOS)
    {
        const std::lock_guard<std::mutex> l_lock(g_lock);
        ++g_state.failures[i_function][l_errno];
    }
    errno = l_errno;
    return i_result;
}

void pass(Hold i_place)
{
    const int l_errno = errno;
    std::unique_lock<std::mutex> l_lock(g_lock);
    g_state.held = g_state.hold == i_place;
    g_changed.wait(l_lock, [=] { return g_state.hold != i_place; });
    g_state.held = false;
    errno = l_errno;
}

void setWaiting(bool i_waiting)
{
    const int l_errno = errno;
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_state.waiting = i_waiting;
    errno = l_errno;
}

void noteWait(int i_size, const fd_set& i_watched, bool i_timed)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_state.size = i_size;
    g_state.watched = i_watched;
    g_state.timed = i_timed;
}

void setHold(Hold i_hold)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_state.hold = i_hold;
    g_changed.notify_all();
}

} // namespace

extern "C"
{
    int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
    ssize_t __real_send(int, const void*, size_t, int);
    ssize_t __real_recv(int, void*, size_t, int);
    int __real_socketpair(int, int, int, int*);
    int __real_nanosleep(const timespec*, timespec*);

    int __wrap_select(int i_size, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut)
    {
        noteWait(i_size, *io_read, io_timeOut != nullptr);
        int l_result = 0;
        const bool l_answered = begin(loopCalls::SELECT, l_result);
        pass(Hold::BEFORE);
        if (!l_answered)
        {
            setWaiting(true);
            l_result =
                __real_select(i_size, io_read, io_write, io_except, io_timeOut);
            setWaiting(false);
        }
        pass(Hold::AFTER);
        return end(loopCalls::SELECT, l_result);
    }

    ssize_t __wrap_send(int i_handle, const void* i_bytes, size_t i_length,
                        int i_flags)
    {
        int l_result = 0;
        const bool l_answered = begin(loopCalls::SEND, l_result);
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            g_state.send = {i_handle, i_length, i_flags,
                            *static_cast<const char*>(i_bytes)};
        }
        return end(loopCalls::SEND,
                   l_answered
                       ? l_result
                       : __real_send(i_handle, i_bytes, i_length, i_flags));
    }

    ssize_t __wrap_recv(int i_handle, void* o_bytes, size_t i_length,
                        int i_flags)
    {
        int l_result = 0;
        const bool l_answered = begin(loopCalls::RECV, l_result);
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            g_state.recv = {i_handle, i_length, i_flags, 0};
        }
        return end(loopCalls::RECV,
                   l_answered
                       ? l_result
                       : __real_recv(i_handle, o_bytes, i_length, i_flags));
    }

    int __wrap_socketpair(int i_domain, int i_type, int i_protocol,
                          int* o_handles)
    {
        int l_result = 0;
        if (!begin(loopCalls::SOCKETPAIR, l_result))
        {
            l_result =
                __real_socketpair(i_domain, i_type, i_protocol, o_handles);
            const std::lock_guard<std::mutex> l_lock(g_lock);
            g_state.pair = {
                i_domain, i_type, i_protocol, {o_handles[0], o_handles[1]}};
        }
        return end(loopCalls::SOCKETPAIR, l_result);
    }

    int __wrap_nanosleep(const timespec* i_length, timespec* o_left)
    {
        int l_result = 0;
        if (i_length->tv_sec == 0)
        {
            return __real_nanosleep(i_length, o_left);
        }
        return begin(loopCalls::SLEEP, l_result) ? l_result : 0;
    }
}

namespace loopCalls
{

int calls(Function i_function)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.calls[i_function];
}

int failures(Function i_function, int i_errno)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.failures[i_function][i_errno];
}

Transfer lastSend()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.send;
}

Transfer lastRecv()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.recv;
}

Pair lastPair()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.pair;
}

int lastSize()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.size;
}

bool hadTimeOut()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_state.timed;
}

void answer(Function i_function, int i_result, int i_errno, int i_times)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_state.answers[i_function] = i_times;
    g_state.results[i_function] = i_result;
    g_state.errnos[i_function] = i_errno;
}

void interruptEveryOther()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_state.interrupt = true;
}

void holdBefore()
{
    setHold(Hold::BEFORE);
}

void holdAfter()
{
    setHold(Hold::AFTER);
}

bool waitForHeld()
{
    return waitFor(
        []
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            return g_state.held;
        });
}

void letGo()
{
    setHold(Hold::NONE);
}

// Under the lock, without which the loop does not come out of its wait: what
// is readable has not been taken.
bool waitForIdle()
{
    return waitFor(
        []
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            fd_set l_watched = g_state.watched;
            timeval l_now = {};
            return g_state.waiting &&
                   __real_select(g_state.size, &l_watched, nullptr, nullptr,
                                 &l_now) == 0;
        });
}

} // namespace loopCalls

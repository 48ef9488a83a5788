// Watches and steers the system calls of an engine's loop.
#ifndef TOLV_TESTS_SUPPORT_LOOPCALLS_HPP
#define TOLV_TESTS_SUPPORT_LOOPCALLS_HPP

#include <cstddef>

/// For test programs that list loopCalls.cpp among their sources and wrap what
/// TOLV_LOOP_CALLS names. One engine at a time; it is the only one to call
/// select(). Sleeps of a second and more end at once.
///
/// Nothing here allocates memory.
///
/// Threads: any.
namespace loopCalls
{

enum Function
{
    SELECT,
    SEND,
    RECV,
    SOCKETPAIR,
    SLEEP // of a second and more
};

/// One call of send() or recv().
struct Transfer
{
    int handle;
    std::size_t length;
    int flags;
    char byte; // the first one sent
};

/// One call of socketpair() and what it made.
struct Pair
{
    int domain;
    int type;
    int protocol;
    int handles[2];
};

/// How often it has been called, and how often it has failed with an errno.
int calls(Function i_function);
int failures(Function i_function, int i_errno);

Transfer lastSend();
Transfer lastRecv();
Pair lastPair();

/// The size that the last select() was told, and whether it had a time-out.
int lastSize();
bool hadTimeOut();

/// The next calls do nothing but return i_result with i_errno set.
void answer(Function i_function, int i_result, int i_errno, int i_times = 1);

/// From now on every other call of select(), send() and recv() is interrupted
/// by a signal.
void interruptEveryOther();

/// Holds the loop up before its next select(), whose set is built by then, or
/// after the one that is under way or next.
void holdBefore();
void holdAfter();

/// Returns: whether the loop is held up, within the limit of waitFor().
bool waitForHeld();

/// Ends the hold, and lets no later call be held.
void letGo();

/// Waits until the loop has nothing to do any more: it is inside select(), and
/// nothing of what it watches is readable.
///
/// Returns: whether it got there, within the limit of waitFor().
bool waitForIdle();

} // namespace loopCalls

#endif

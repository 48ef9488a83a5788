// Replaces the system calls on sockets: records each call and answers it as
// the test has said.
//
// For test programs that list this file's source and wrap what
// TOLV_FAKE_SOCKETS in tests/CMakeLists.txt names. A call that no answer is
// left for is recorded and made for real.
#ifndef TOLV_TESTS_SUPPORT_FAKESOCKETS_HPP
#define TOLV_TESTS_SUPPORT_FAKESOCKETS_HPP

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <cstring>

#include <string>
#include <vector>

namespace fakeSockets
{

/// One call. What the function does not take is zero or empty.
struct Call
{
    std::string function;
    int handle;
    const void* buffer;  ///< where bytes go to or come from
    std::size_t length;  ///< bytes wanted or sent
    int flags;           ///< of a message; select(): the number of descriptors
    std::string bytes;   ///< sent, or the value of an option that is set
    std::string peer;    ///< the address sent to, or the room for one
    std::string control; ///< the control messages sent, or the room for them
    int level;
    int option;
    timeval limit; ///< of select(); poll(): its milliseconds
    bool limited;  ///< whether select() has a limit
    short events;  ///< of poll()
};

/// What a call does. Bytes beyond the room that it gives are left out.
struct Answer
{
    ssize_t result;
    int error = 0;            ///< errno, when the result is -1
    std::string bytes = {};   ///< received, the value of an option, or the
                              ///< timeval that select() leaves of its limit
    std::string peer = {};    ///< the sender's address
    std::string control = {}; ///< the control messages of a received message
    int flags = 0;            ///< of a received message
    int micros = 0; ///< how far the monotonic clock of the library goes on
};

/// An answer that leaves i_bytes in the caller's buffer.
Answer received(const std::string& i_bytes);

/// An answer that fails.
Answer failed(int i_error);

/// The bytes of a value, for options and addresses.
template <class T>
std::string bytesOf(const T& i_value)
{
    return std::string(reinterpret_cast<const char*>(&i_value),
                       sizeof(i_value));
}

/// The value that bytes hold; zeros where there are fewer.
template <class T>
T valueOf(const std::string& i_bytes)
{
    T l_value = {};
    std::memcpy(&l_value, i_bytes.data(),
                i_bytes.size() < sizeof(l_value) ? i_bytes.size()
                                                 : sizeof(l_value));
    return l_value;
}

/// Adds an answer behind those that the function has.
void answer(const std::string& i_function, const Answer& i_answer);

/// Answers that no call has used.
std::size_t answersLeft();

/// All calls since the program was loaded or forget(), oldest first.
std::vector<Call> calls();
std::vector<Call> callsOf(const std::string& i_function);

/// The names of the functions that were called, with blanks between.
std::string sequence();

/// Forgets calls and answers.
void forget();

} // namespace fakeSockets

#endif

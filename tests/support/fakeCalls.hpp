// Records the system calls of sockets and answers them as a test says.
#ifndef TOLV_TESTS_SUPPORT_FAKECALLS_HPP
#define TOLV_TESTS_SUPPORT_FAKECALLS_HPP

#include <iosfwd>
#include <string>
#include <vector>

/// For test programs that list fakeCalls.cpp and wrap TOLV_FAKE_CALLS. Until
/// start() every call goes to the system and none is recorded.
///
/// Threads: calls of the thread that called start() are recorded and
///          answered, those of others go to the system.
namespace fakeCalls
{

/// One call: its arguments that are numbers, in order, and what its pointer to
/// an option, an address or a path pointed at.
struct Call
{
    std::string name;
    std::vector<long> arguments;
    std::string bytes;
};

bool operator==(const Call& i_left, const Call& i_right);
std::ostream& operator<<(std::ostream& o_stream, const Call& i_call);

/// Records from now on; forgets what was recorded and answered before.
void start();

/// The system's calls again; what was recorded stays.
void stop();

/// Every call since start(), oldest first.
std::vector<Call> calls();

/// The calls of one function only.
std::vector<Call> callsOf(const std::string& i_name);

/// How a call of i_name ends in place of the system's, each answer once, in
/// order.
///
/// i_error: goes to errno when i_result is negative.
/// i_bytes: what the call delivers: an option's value, the peer's address, the
///          interfaces, the address of one, the list of addresses.
void answer(const std::string& i_name, long i_result, int i_error = 0,
            const std::string& i_bytes = "");

/// As answer(), whenever no single answer is left.
void answerAlways(const std::string& i_name, long i_result, int i_error = 0,
                  const std::string& i_bytes = "");

/// An answered select() leaves its sets as they are, or from now on empty.
void clearSets();

/// The bytes of a value, for Call::bytes and answer().
template <class T>
std::string bytesOf(const T& i_value)
{
    return std::string(reinterpret_cast<const char*>(&i_value),
                       sizeof(i_value));
}

} // namespace fakeCalls

#endif

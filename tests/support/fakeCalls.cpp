#include "support/fakeCalls.hpp"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <algorithm>
#include <iterator>
#include <list>
#include <map>
#include <ostream>

namespace
{

struct Answer
{
    long result = 0;
    int error = 0;
    std::string bytes;
};

struct State
{
    std::vector<fakeCalls::Call> calls;
    std::map<std::string, std::list<Answer>> once;
    std::map<std::string, Answer> always;
    bool clearSets = false;
};

thread_local State* t_state = nullptr; // null: not recording
State g_state;

void record(const char* i_name, const std::vector<long>& i_arguments,
            const std::string& i_bytes = "")
{
    t_state->calls.push_back({i_name, i_arguments, i_bytes});
}

// Whether the test answers the call; if so errno is set.
bool answered(const char* i_name, Answer& o_answer)
{
    std::list<Answer>& l_once = t_state->once[i_name];
    if (!l_once.empty())
    {
        o_answer = l_once.front();
        l_once.pop_front();
    }
    else if (t_state->always.count(i_name) != 0)
    {
        o_answer = t_state->always[i_name];
    }
    else
    {
        return false;
    }
    if (o_answer.result < 0)
    {
        errno = o_answer.error;
    }
    return true;
}

void deliver(const Answer& i_answer, void* o_target, std::size_t i_room)
{
    if (o_target != nullptr)
    {
        std::memcpy(o_target, i_answer.bytes.data(),
                    std::min(i_room, i_answer.bytes.size()));
    }
}

std::string bytesAt(const void* i_bytes, std::size_t i_length)
{
    return std::string(static_cast<const char*>(i_bytes), i_length);
}

} // namespace

namespace fakeCalls
{

bool operator==(const Call& i_left, const Call& i_right)
{
    return i_left.name == i_right.name &&
           i_left.arguments == i_right.arguments &&
           i_left.bytes == i_right.bytes;
}

std::ostream& operator<<(std::ostream& o_stream, const Call& i_call)
{
    o_stream << i_call.name;
    for (const long l_argument : i_call.arguments)
    {
        o_stream << ' ' << l_argument;
    }
    o_stream << " [" << std::hex;
    for (const char l_byte : i_call.bytes)
    {
        o_stream << ' ' << (static_cast<unsigned int>(l_byte) & 0xFFU);
    }
    return o_stream << std::dec << " ]";
}

void start()
{
    g_state = State();
    t_state = &g_state;
}

void stop()
{
    t_state = nullptr;
}

std::vector<Call> calls()
{
    return g_state.calls;
}

std::vector<Call> callsOf(const std::string& i_name)
{
    std::vector<Call> l_calls;
    std::copy_if(g_state.calls.begin(), g_state.calls.end(),
                 std::back_inserter(l_calls),
                 [&](const Call& i_call) { return i_call.name == i_name; });
    return l_calls;
}

void answer(const std::string& i_name, long i_result, int i_error,
            const std::string& i_bytes)
{
    g_state.once[i_name].push_back({i_result, i_error, i_bytes});
}

void answerAlways(const std::string& i_name, long i_result, int i_error,
                  const std::string& i_bytes)
{
    g_state.always[i_name] = {i_result, i_error, i_bytes};
}

void clearSets()
{
    g_state.clearSets = true;
}

} // namespace fakeCalls

namespace
{

// One replaced call: the system's own while nothing is recorded or the test
// has no answer; i_deliver hands out what an answer carries.
template <class REAL, class DELIVER>
int replace(const char* i_name, const std::vector<long>& i_arguments,
            const std::string& i_bytes, REAL i_real, DELIVER i_deliver)
{
    if (t_state == nullptr)
    {
        return i_real();
    }
    record(i_name, i_arguments, i_bytes);
    Answer l_answer;
    if (!answered(i_name, l_answer))
    {
        return i_real();
    }
    i_deliver(l_answer);
    return static_cast<int>(l_answer.result);
}

template <class REAL>
int replace(const char* i_name, const std::vector<long>& i_arguments,
            const std::string& i_bytes, REAL i_real)
{
    return replace(i_name, i_arguments, i_bytes, i_real, [](const Answer&) {});
}

// Whether a set for select() holds a descriptor, of any number.
long holds(const fd_set* i_set, int i_fd)
{
    return (__FDS_BITS(i_set)[i_fd / NFDBITS] >> (i_fd % NFDBITS)) & 1;
}

} // namespace

extern "C"
{
    int __real_socket(int i_family, int i_type, int i_protocol);
    int __real_bind(int i_fd, const sockaddr* i_address, socklen_t i_length);
    int __real_listen(int i_fd, int i_backlog);
    int __real_accept(int i_fd, sockaddr* o_address, socklen_t* io_length);
    int __real_connect(int i_fd, const sockaddr* i_address, socklen_t i_length);
    int __real_setsockopt(int i_fd, int i_level, int i_name,
                          const void* i_value, socklen_t i_length);
    int __real_getsockopt(int i_fd, int i_level, int i_name, void* o_value,
                          socklen_t* io_length);
    int __real_fcntl(int i_fd, int i_command, ...);
    int __real_close(int i_fd);
    int __real_unlink(const char* i_path);
    int __real_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut);
    int __real_nanosleep(const timespec* i_span, timespec* o_left);
    int __real_ioctl(int i_fd, unsigned long i_request, ...);

    int __wrap_socket(int i_family, int i_type, int i_protocol)
    {
        return replace("socket", {i_family, i_type, i_protocol}, "",
                       [=]
                       { return __real_socket(i_family, i_type, i_protocol); });
    }

    int __wrap_bind(int i_fd, const sockaddr* i_address, socklen_t i_length)
    {
        return replace("bind", {i_fd, static_cast<long>(i_length)},
                       bytesAt(i_address, i_length),
                       [=] { return __real_bind(i_fd, i_address, i_length); });
    }

    int __wrap_listen(int i_fd, int i_backlog)
    {
        return replace("listen", {i_fd, i_backlog}, "",
                       [=] { return __real_listen(i_fd, i_backlog); });
    }

    int __wrap_accept(int i_fd, sockaddr* o_address, socklen_t* io_length)
    {
        if (t_state == nullptr)
        {
            return __real_accept(i_fd, o_address, io_length);
        }
        return replace(
            "accept", {i_fd, static_cast<long>(*io_length)}, "",
            [=] { return __real_accept(i_fd, o_address, io_length); },
            [=](const Answer& i_answer)
            {
                deliver(i_answer, o_address, *io_length);
                *io_length = static_cast<socklen_t>(i_answer.bytes.size());
            });
    }

    int __wrap_connect(int i_fd, const sockaddr* i_address, socklen_t i_length)
    {
        return replace("connect", {i_fd, static_cast<long>(i_length)},
                       bytesAt(i_address, i_length),
                       [=]
                       { return __real_connect(i_fd, i_address, i_length); });
    }

    int __wrap_setsockopt(int i_fd, int i_level, int i_name,
                          const void* i_value, socklen_t i_length)
    {
        return replace("setsockopt",
                       {i_fd, i_level, i_name, static_cast<long>(i_length)},
                       bytesAt(i_value, i_length),
                       [=] {
                           return __real_setsockopt(i_fd, i_level, i_name,
                                                    i_value, i_length);
                       });
    }

    int __wrap_getsockopt(int i_fd, int i_level, int i_name, void* o_value,
                          socklen_t* io_length)
    {
        return replace(
            "getsockopt",
            {i_fd, i_level, i_name, static_cast<long>(*io_length)}, "",
            [=] {
                return __real_getsockopt(i_fd, i_level, i_name, o_value,
                                         io_length);
            },
            [=](const Answer& i_answer)
            { deliver(i_answer, o_value, *io_length); });
    }

    int __wrap_fcntl(int i_fd, int i_command, ...)
    {
        va_list l_arguments;
        va_start(l_arguments, i_command);
        const int l_argument =
            i_command == F_GETFL ? 0 : va_arg(l_arguments, int);
        va_end(l_arguments);
        return replace("fcntl", {i_fd, i_command, l_argument}, "",
                       [=]
                       { return __real_fcntl(i_fd, i_command, l_argument); });
    }

    int __wrap_close(int i_fd)
    {
        return replace("close", {i_fd}, "", [=] { return __real_close(i_fd); });
    }

    int __wrap_unlink(const char* i_path)
    {
        return replace("unlink", {}, i_path == nullptr ? "(null)" : i_path,
                       [=] { return __real_unlink(i_path); });
    }

    // Recorded: whether the last descriptor is in the sets, and the time-out.
    int __wrap_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_timeOut)
    {
        const auto l_real = [=] {
            return __real_select(i_count, io_read, io_write, io_except,
                                 io_timeOut);
        };
        if (t_state == nullptr)
        {
            return l_real();
        }
        return replace("select",
                       {i_count, holds(io_read, i_count - 1),
                        holds(io_write, i_count - 1),
                        io_except == nullptr ? 0 : 1, io_timeOut->tv_sec,
                        io_timeOut->tv_usec},
                       "", l_real,
                       [=](const Answer&)
                       {
                           if (t_state->clearSets)
                           {
                               FD_ZERO(io_read);
                               FD_ZERO(io_write);
                           }
                       });
    }

    int __wrap_nanosleep(const timespec* i_span, timespec* o_left)
    {
        return replace(
            "nanosleep", {i_span->tv_sec, i_span->tv_nsec}, "",
            [=] { return __real_nanosleep(i_span, o_left); },
            [=](const Answer& i_answer)
            { deliver(i_answer, o_left, sizeof(*o_left)); });
    }

    int __wrap_ioctl(int i_fd, unsigned long i_request, ...)
    {
        va_list l_arguments;
        va_start(l_arguments, i_request);
        void* const l_argument = va_arg(l_arguments, void*);
        va_end(l_arguments);
        const auto l_real = [=]
        { return __real_ioctl(i_fd, i_request, l_argument); };
        if (i_request == SIOCGIFCONF)
        {
            ifconf* const l_list = static_cast<ifconf*>(l_argument);
            return replace(
                "SIOCGIFCONF", {i_fd, l_list->ifc_len}, "", l_real,
                [=](const Answer& i_answer)
                {
                    deliver(i_answer, l_list->ifc_buf,
                            static_cast<std::size_t>(l_list->ifc_len));
                    l_list->ifc_len = static_cast<int>(i_answer.bytes.size());
                });
        }
        if (i_request == SIOCGIFADDR)
        {
            ifreq* const l_entry = static_cast<ifreq*>(l_argument);
            return replace("SIOCGIFADDR", {i_fd},
                           bytesAt(l_entry, sizeof(*l_entry)), l_real,
                           [=](const Answer& i_answer) {
                               deliver(i_answer, &l_entry->ifr_addr,
                                       sizeof(l_entry->ifr_addr));
                           });
        }
        return l_real();
    }

    // Those of libsctp fail unless the test answers them: their kernel may not
    // be there.
    int __wrap_sctp_getladdrs(int i_fd, sctp_assoc_t i_id, sockaddr** o_list)
    {
        return replace(
            "sctp_getladdrs", {i_fd, i_id}, "", [] { return -1; },
            [=](const Answer& i_answer)
            {
                if (i_answer.result > 0)
                {
                    void* const l_list = std::malloc(i_answer.bytes.size());
                    deliver(i_answer, l_list, i_answer.bytes.size());
                    *o_list = static_cast<sockaddr*>(l_list);
                }
            });
    }

    int __wrap_sctp_freeladdrs(sockaddr* i_list)
    {
        std::free(i_list);
        return replace("sctp_freeladdrs", {}, "", [] { return 0; });
    }

    int __wrap_sctp_bindx(int i_fd, sockaddr* i_list, int i_count, int i_flags)
    {
        return replace("sctp_bindx", {i_fd, i_count, i_flags},
                       bytesAt(i_list, sizeof(sockaddr_in)), [] { return -1; });
    }
}

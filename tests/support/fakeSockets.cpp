#include "support/fakeSockets.hpp"

#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>

namespace
{

using fakeSockets::Answer;
using fakeSockets::Call;

std::mutex g_lock;
std::vector<Call> g_calls;
std::map<std::string, std::deque<Answer>> g_answers;
std::int64_t g_ahead(0); // how far the clock is, in microseconds

std::string copyOf(const void* i_bytes, std::size_t i_length)
{
    return i_bytes == nullptr
               ? std::string()
               : std::string(static_cast<const char*>(i_bytes), i_length);
}

void put(const std::string& i_bytes, void* o_room, std::size_t i_room)
{
    if (o_room != nullptr)
    {
        std::memcpy(o_room, i_bytes.data(), std::min(i_room, i_bytes.size()));
    }
}

// Records a call and takes its answer.
//
// Returns: false when it is to be made for real.
bool record(const Call& i_call, Answer& o_answer)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_calls.push_back(i_call);
    std::deque<Answer>& l_answers = g_answers[i_call.function];
    if (l_answers.empty())
    {
        return false;
    }
    o_answer = l_answers.front();
    l_answers.pop_front();
    g_ahead += o_answer.micros;
    if (o_answer.result == -1)
    {
        errno = o_answer.error;
    }
    return true;
}

Call callOf(const char* i_function, int i_handle)
{
    Call l_call = {};
    l_call.function = i_function;
    l_call.handle = i_handle;
    return l_call;
}

Call receiving(const char* i_function, int i_handle, void* o_buffer,
               std::size_t i_room, int i_flags)
{
    Call l_call = callOf(i_function, i_handle);
    l_call.buffer = o_buffer;
    l_call.length = i_room;
    l_call.flags = i_flags;
    return l_call;
}

Call sending(const char* i_function, int i_handle, const void* i_buffer,
             std::size_t i_length, int i_flags)
{
    Call l_call = callOf(i_function, i_handle);
    l_call.buffer = i_buffer;
    l_call.length = i_length;
    l_call.flags = i_flags;
    l_call.bytes = copyOf(i_buffer, i_length);
    return l_call;
}

// With the first part of the buffer: the library uses no more.
Call messaging(const char* i_function, int i_handle, const msghdr& i_message,
               int i_flags)
{
    Call l_call = receiving(i_function, i_handle, i_message.msg_iov[0].iov_base,
                            i_message.msg_iov[0].iov_len, i_flags);
    l_call.peer = copyOf(i_message.msg_name, i_message.msg_namelen);
    l_call.control = copyOf(i_message.msg_control, i_message.msg_controllen);
    l_call.option = static_cast<int>(i_message.msg_iovlen);
    return l_call;
}

int answerSelect(const Answer& i_answer, fd_set* io_read, timeval* io_limit)
{
    put(i_answer.bytes, io_limit, sizeof(*io_limit));
    if (i_answer.result == 0 && io_read != nullptr)
    {
        FD_ZERO(io_read);
    }
    return static_cast<int>(i_answer.result);
}

} // namespace

extern "C"
{
    ssize_t __real_recv(int, void*, size_t, int);
    ssize_t __real_recvfrom(int, void*, size_t, int, sockaddr*, socklen_t*);
    ssize_t __real_recvmsg(int, msghdr*, int);
    ssize_t __real_send(int, const void*, size_t, int);
    ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*,
                          socklen_t);
    ssize_t __real_sendmsg(int, const msghdr*, int);
    int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
    int __real_poll(pollfd*, nfds_t, int);
    int __real_getsockopt(int, int, int, void*, socklen_t*);
    int __real_setsockopt(int, int, int, const void*, socklen_t);
    int __real_close(int);
    int __real_clock_gettime(clockid_t, timespec*);

    ssize_t __wrap_recv(int i_handle, void* o_buffer, size_t i_room,
                        int i_flags)
    {
        Answer l_answer = {};
        if (!record(receiving("recv", i_handle, o_buffer, i_room, i_flags),
                    l_answer))
        {
            return __real_recv(i_handle, o_buffer, i_room, i_flags);
        }
        put(l_answer.bytes, o_buffer, i_room);
        return l_answer.result;
    }

    ssize_t __wrap_recvfrom(int i_handle, void* o_buffer, size_t i_room,
                            int i_flags, sockaddr* o_peer, socklen_t* io_length)
    {
        Call l_call =
            receiving("recvfrom", i_handle, o_buffer, i_room, i_flags);
        l_call.peer = copyOf(o_peer, *io_length);
        Answer l_answer = {};
        if (!record(l_call, l_answer))
        {
            return __real_recvfrom(i_handle, o_buffer, i_room, i_flags, o_peer,
                                   io_length);
        }
        put(l_answer.bytes, o_buffer, i_room);
        put(l_answer.peer, o_peer, *io_length);
        *io_length = static_cast<socklen_t>(l_answer.peer.size());
        return l_answer.result;
    }

    ssize_t __wrap_recvmsg(int i_handle, msghdr* io_message, int i_flags)
    {
        Answer l_answer = {};
        if (!record(messaging("recvmsg", i_handle, *io_message, i_flags),
                    l_answer))
        {
            return __real_recvmsg(i_handle, io_message, i_flags);
        }
        const iovec& l_part = io_message->msg_iov[0];
        put(l_answer.bytes, l_part.iov_base, l_part.iov_len);
        put(l_answer.peer, io_message->msg_name, io_message->msg_namelen);
        put(l_answer.control, io_message->msg_control,
            io_message->msg_controllen);
        io_message->msg_namelen = static_cast<socklen_t>(l_answer.peer.size());
        io_message->msg_controllen = l_answer.control.size();
        io_message->msg_flags = l_answer.flags;
        return l_answer.result;
    }

    ssize_t __wrap_send(int i_handle, const void* i_buffer, size_t i_length,
                        int i_flags)
    {
        Answer l_answer = {};
        return record(sending("send", i_handle, i_buffer, i_length, i_flags),
                      l_answer)
                   ? l_answer.result
                   : __real_send(i_handle, i_buffer, i_length, i_flags);
    }

    ssize_t __wrap_sendto(int i_handle, const void* i_buffer, size_t i_length,
                          int i_flags, const sockaddr* i_peer,
                          socklen_t i_peerLength)
    {
        Call l_call = sending("sendto", i_handle, i_buffer, i_length, i_flags);
        l_call.peer = copyOf(i_peer, i_peerLength);
        Answer l_answer = {};
        return record(l_call, l_answer)
                   ? l_answer.result
                   : __real_sendto(i_handle, i_buffer, i_length, i_flags,
                                   i_peer, i_peerLength);
    }

    ssize_t __wrap_sendmsg(int i_handle, const msghdr* i_message, int i_flags)
    {
        Call l_call = messaging("sendmsg", i_handle, *i_message, i_flags);
        l_call.bytes = copyOf(l_call.buffer, l_call.length);
        Answer l_answer = {};
        return record(l_call, l_answer)
                   ? l_answer.result
                   : __real_sendmsg(i_handle, i_message, i_flags);
    }

    int __wrap_select(int i_count, fd_set* io_read, fd_set* io_write,
                      fd_set* io_except, timeval* io_limit)
    {
        Call l_call = callOf("select", i_count - 1);
        l_call.flags = i_count;
        l_call.limited = io_limit != nullptr;
        l_call.limit = io_limit == nullptr ? timeval() : *io_limit;
        Answer l_answer = {};
        return record(l_call, l_answer)
                   ? answerSelect(l_answer, io_read, io_limit)
                   : __real_select(i_count, io_read, io_write, io_except,
                                   io_limit);
    }

    int __wrap_poll(pollfd* io_handles, nfds_t i_count, int i_limit)
    {
        Call l_call = callOf("poll", io_handles[0].fd);
        l_call.events = io_handles[0].events;
        l_call.limit.tv_usec = i_limit * suseconds_t(1000);
        l_call.limited = i_limit >= 0;
        Answer l_answer = {};
        return record(l_call, l_answer)
                   ? static_cast<int>(l_answer.result)
                   : __real_poll(io_handles, i_count, i_limit);
    }

    int __wrap_getsockopt(int i_handle, int i_level, int i_option,
                          void* o_value, socklen_t* io_length)
    {
        Call l_call = callOf("getsockopt", i_handle);
        l_call.level = i_level;
        l_call.option = i_option;
        l_call.length = *io_length;
        Answer l_answer = {};
        if (!record(l_call, l_answer))
        {
            return __real_getsockopt(i_handle, i_level, i_option, o_value,
                                     io_length);
        }
        put(l_answer.bytes, o_value, *io_length);
        return static_cast<int>(l_answer.result);
    }

    int __wrap_setsockopt(int i_handle, int i_level, int i_option,
                          const void* i_value, socklen_t i_length)
    {
        Call l_call = callOf("setsockopt", i_handle);
        l_call.level = i_level;
        l_call.option = i_option;
        l_call.length = i_length;
        l_call.bytes = copyOf(i_value, i_length);
        Answer l_answer = {};
        return record(l_call, l_answer)
                   ? static_cast<int>(l_answer.result)
                   : __real_setsockopt(i_handle, i_level, i_option, i_value,
                                       i_length);
    }

    int __wrap_close(int i_handle)
    {
        Answer l_answer = {};
        return record(callOf("close", i_handle), l_answer)
                   ? static_cast<int>(l_answer.result)
                   : __real_close(i_handle);
    }

    int __wrap_clock_gettime(clockid_t i_clock, timespec* o_now)
    {
        const int l_urc = __real_clock_gettime(i_clock, o_now);
        if (i_clock == CLOCK_MONOTONIC)
        {
            const std::lock_guard<std::mutex> l_lock(g_lock);
            const std::int64_t l_nanos = o_now->tv_nsec + g_ahead * 1000;
            o_now->tv_sec += static_cast<time_t>(l_nanos / 1000000000);
            o_now->tv_nsec = static_cast<long>(l_nanos % 1000000000);
        }
        return l_urc;
    }
}

namespace fakeSockets
{

Answer received(const std::string& i_bytes)
{
    Answer l_answer = {};
    l_answer.result = static_cast<ssize_t>(i_bytes.size());
    l_answer.bytes = i_bytes;
    return l_answer;
}

Answer failed(int i_error)
{
    Answer l_answer = {};
    l_answer.result = -1;
    l_answer.error = i_error;
    return l_answer;
}

void answer(const std::string& i_function, const Answer& i_answer)
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_answers[i_function].push_back(i_answer);
}

std::size_t answersLeft()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    std::size_t l_left = 0;
    for (const auto& l_entry : g_answers)
    {
        l_left += l_entry.second.size();
    }
    return l_left;
}

std::vector<Call> calls()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    return g_calls;
}

std::vector<Call> callsOf(const std::string& i_function)
{
    std::vector<Call> l_calls = calls();
    l_calls.erase(std::remove_if(l_calls.begin(), l_calls.end(),
                                 [&](const Call& i_call)
                                 { return i_call.function != i_function; }),
                  l_calls.end());
    return l_calls;
}

std::string sequence()
{
    std::string l_names;
    for (const Call& l_call : calls())
    {
        l_names += (l_names.empty() ? "" : " ") + l_call.function;
    }
    return l_names;
}

void forget()
{
    const std::lock_guard<std::mutex> l_lock(g_lock);
    g_calls.clear();
    g_answers.clear();
}

} // namespace fakeSockets

#include "support/fakePlatform.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/registry.hpp"
#include "tolv/platform/traceBuffer.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <mutex>

namespace
{

// Zero or constant from the start: the library's own constructors call before
// any constructor of this file would run.
constexpr unsigned int MOST_CALLS = 4096;
std::mutex g_lock;
fakePlatform::Call g_calls[MOST_CALLS];
unsigned int g_callCount = 0;
int g_inits = 0;

void record(const fakePlatform::Call& i_call)
{
    const std::lock_guard<std::mutex> l_hold(g_lock);
    if (g_callCount == MOST_CALLS)
    {
        std::abort(); // a test that needs more forgets what it has seen
    }
    g_calls[g_callCount++] = i_call;
    errno = fakePlatform::STRANGE_ERRNO;
}

} // namespace

namespace fakePlatform
{

int (*g_RegistryRead)(const std::string&, unsigned char*) = nullptr;
int (*g_TraceBufferReadDiff)(unsigned char*) = nullptr;
unsigned int g_FlattenedSize = 0;
bool g_RefuseEntry = false;

std::vector<Call> calls()
{
    const std::lock_guard<std::mutex> l_hold(g_lock);
    return std::vector<Call>(g_calls, g_calls + g_callCount);
}

std::vector<Call> callsOf(const std::string& i_service)
{
    std::vector<Call> l_calls = calls();
    l_calls.erase(std::remove_if(l_calls.begin(), l_calls.end(),
                                 [&](const Call& i_call)
                                 { return i_service != i_call.service; }),
                  l_calls.end());
    return l_calls;
}

void forgetCalls()
{
    const std::lock_guard<std::mutex> l_hold(g_lock);
    g_callCount = 0;
}

} // namespace fakePlatform

int TraceBufferInit(int* o_descriptor, const char* i_name, unsigned int i_size)
{
    record({"TraceBufferInit", i_name, o_descriptor, nullptr, {i_size}});
    *o_descriptor = fakePlatform::FIRST_DESCRIPTOR + g_inits++;
    return -1;
}

int TraceBufferReadDiff(const char* i_name, unsigned int i_size, void* o_buffer)
{
    record({"TraceBufferReadDiff", i_name, o_buffer, nullptr, {i_size}});
    return fakePlatform::g_TraceBufferReadDiff == nullptr
               ? -1
               : fakePlatform::g_TraceBufferReadDiff(
                     static_cast<unsigned char*>(o_buffer));
}

int TraceBufferWrite(int i_descriptor, const char* i_format, ...)
{
    record({"TraceBufferWrite",
            i_format,
            nullptr,
            nullptr,
            {static_cast<unsigned int>(i_descriptor)}});
    return 0;
}

int RegistryRead(const char* i_key, void* o_buffer, unsigned int i_size,
                 int i_flags)
{
    record({"RegistryRead",
            i_key,
            o_buffer,
            nullptr,
            {i_size, static_cast<unsigned int>(i_flags)}});
    return fakePlatform::g_RegistryRead == nullptr
               ? -1
               : fakePlatform::g_RegistryRead(
                     i_key, static_cast<unsigned char*>(o_buffer));
}

ErrorLogEntry::ErrorLogEntry() : iv_Data(nullptr)
{
    record({"ErrorLogEntry", nullptr, nullptr, this, {}});
}

ErrorLogEntry::ErrorLogEntry(unsigned int i_v0, unsigned int i_v1,
                             unsigned int i_v2, unsigned int i_v3,
                             unsigned int i_v4, unsigned int i_v5,
                             unsigned int i_v6, unsigned int i_v7,
                             unsigned int i_v8, unsigned int i_v9,
                             unsigned int i_v10, unsigned int i_v11,
                             unsigned int i_v12, unsigned int i_v13,
                             unsigned int i_v14) :
    iv_Data(nullptr)
{
    record({"ErrorLogEntry",
            nullptr,
            nullptr,
            this,
            {i_v0, i_v1, i_v2, i_v3, i_v4, i_v5, i_v6, i_v7, i_v8, i_v9, i_v10,
             i_v11, i_v12, i_v13, i_v14}});
}

ErrorLogEntry::~ErrorLogEntry()
{
    record({"~ErrorLogEntry", nullptr, nullptr, this, {}});
}

void ErrorLogEntry::AddTrace(const char* i_component, unsigned int i_bytes)
{
    record({"AddTrace", i_component, nullptr, this, {i_bytes}});
}

void ErrorLogEntry::setSev(unsigned int i_severity)
{
    record({"setSev", nullptr, nullptr, this, {i_severity}});
}

void ErrorLogEntry::commit(unsigned int i_a, unsigned int i_b, unsigned int i_c,
                           unsigned int i_d)
{
    record({"commit", nullptr, nullptr, this, {i_a, i_b, i_c, i_d}});
}

unsigned int ErrorLogEntry::flattenedSize() const
{
    return fakePlatform::g_FlattenedSize;
}

unsigned int ErrorLogEntry::flatten(void* o_buffer, unsigned int i_room) const
{
    record({"flatten", nullptr, o_buffer, this, {i_room}});
    const unsigned int l_length =
        std::min(i_room, fakePlatform::g_FlattenedSize);
    if (l_length != 0)
    {
        std::memset(o_buffer, fakePlatform::FLAT_BYTE, l_length);
    }
    return l_length;
}

bool ErrorLogEntry::unflatten(const void* i_buffer, unsigned int i_room)
{
    record({"unflatten", nullptr, i_buffer, this, {i_room}});
    return !fakePlatform::g_RefuseEntry;
}

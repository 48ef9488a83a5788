#include "tolv/vex/tolvBase.hpp"

#include "tolv/vex/tolvTrace.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <new>

namespace tolv
{

Base::~Base() = default;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// Deliberate: the text is passed on as a format.
// Effect: a "%" in it is a conversion; "%%" gives one percent sign.
// Pinned by: BaseTest.TextFormIsAFormat
pError_t Base::BuildLog(unsigned char i_origin, unsigned short i_reason,
                        const char* i_text)
{
    return BuildLog(i_origin, i_reason, g_TolvTraceDesc, i_text);
}

#pragma GCC diagnostic pop

// Deliberate: an empty message makes no error.
// Effect: the caller sees success.
// Pinned by: BaseTest.EmptyMessageIsNoError
//
// Deliberate: the trace descriptor is not used.
// Effect: an error leaves no entry in any trace buffer.
// Pinned by: BaseTest.TraceDescriptorIsNotUsed
pError_t Base::BuildLog(unsigned char i_origin, unsigned short i_reason,
                        int /*i_traceDesc*/, const char* i_format, ...)
{
    const int l_errno = errno;
    pError_t l_result;
    char* l_text = nullptr;
    va_list l_args;
    va_start(l_args, i_format);
    const int l_length = vasprintf(&l_text, i_format, l_args);
    va_end(l_args);
    if (l_length >= 1)
    {
        errno = l_errno; // the error records it
        l_result.reset(new (std::nothrow) Error(i_origin, i_reason, l_text));
    }
    if (l_length >= 0)
    {
        std::free(l_text);
    }
    errno = l_errno;
    return l_result;
}

} // namespace tolv

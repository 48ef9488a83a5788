#include "tolv/platform/traceBuffer.hpp"

#include <cerrno>

int TraceBufferInit(int*, const char*, unsigned int)
{
    errno = ENOSYS;
    return -1;
}

int TraceBufferReadDiff(const char*, unsigned int, void*)
{
    errno = ENOSYS;
    return -1;
}

int TraceBufferWrite(int, const char*, ...)
{
    errno = ENOSYS;
    return -1;
}

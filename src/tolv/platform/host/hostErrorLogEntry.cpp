#include "tolv/platform/errorLogEntry.hpp"

ErrorLogEntry::ErrorLogEntry() = default;

unsigned int ErrorLogEntry::flattenedSize() const
{
    return 0;
}

unsigned int ErrorLogEntry::flatten(void*, unsigned int) const
{
    return 0;
}

bool ErrorLogEntry::unflatten(const void*, unsigned int)
{
    return false;
}

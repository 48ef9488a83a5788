#include "tolv/platform/registry.hpp"

#include <cerrno>

int RegistryRead(const char*, void*, unsigned int, int)
{
    errno = ENOSYS;
    return -1;
}

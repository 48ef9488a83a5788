#include "tolv/platform/processSetup.hpp"

int PlatformProcessSetup(void*, bool)
{
    return 0;
}

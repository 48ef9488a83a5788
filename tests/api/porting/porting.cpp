// The library on a platform of the user's own.
#include <tolv/tolv.hpp>

#include <cstdio>

int main()
{
    const tolv::Error l_error(1, 0x4400, "ported");
    // The platform knows the role alone; the node repeats what was read last.
    if (l_error.getPosition() != 0 || l_error.getRole() != 42 ||
        l_error.getNodeId() != 42)
    {
        std::puts("the library does not use the platform it was built for");
        return 1;
    }
    return 0;
}

#include "tolv/vex/tolvAssert.hpp"

// The C library declares its reporting function only where assert() is on.
#undef NDEBUG
#include <cassert>

namespace tolv
{

void assertFailed(const char* i_expression, const char* i_file,
                  unsigned int i_line, const char* i_function)
{
    // Also leaves the message where a core dump shows it.
    __assert_fail(i_expression, i_file, i_line, i_function);
}

} // namespace tolv

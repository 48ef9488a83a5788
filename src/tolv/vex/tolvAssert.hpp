// Private header: the assertion that stays on in every build type.
#ifndef TOLV_VEX_TOLVASSERT_HPP
#define TOLV_VEX_TOLVASSERT_HPP

namespace tolv
{

/// Ends the process as a failed assert() of the C library does: prints
/// "PROGRAM: FILE:LINE: FUNCTION: Assertion `EXPR' failed." to standard error
/// and raises SIGABRT, whatever NDEBUG says.
///
/// Expression, file, line and function are fixed texts: what an assertion
/// prints is behaviour and does not change when code moves.
///
/// Threads: any.
[[noreturn]] void assertFailed(const char* i_expression, const char* i_file,
                               unsigned int i_line, const char* i_function);

} // namespace tolv

#endif

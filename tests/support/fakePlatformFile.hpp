// A platform file that answers what a test says.
#ifndef TOLV_TESTS_SUPPORT_FAKEPLATFORMFILE_HPP
#define TOLV_TESTS_SUPPORT_FAKEPLATFORMFILE_HPP

#include <string>
#include <vector>

/// A program that has fakePlatformFile.cpp and fakePlatform.cpp among its
/// sources opens this file in place of any other.
namespace fakePlatformFile
{

extern std::string g_Content;

/// The operation that fails: "Open", "read", "Close", or none.
extern std::string g_Failing;

/// What was called, with its arguments, for example "read 3".
extern std::vector<std::string> g_Calls;

} // namespace fakePlatformFile

#endif

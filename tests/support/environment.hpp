// Sets what programs find in their environment.
#ifndef TOLV_TESTS_SUPPORT_ENVIRONMENT_HPP
#define TOLV_TESTS_SUPPORT_ENVIRONMENT_HPP

#include <cstdlib>

#include <string>

/// Threads: while the test has no other thread.
inline void setVariable(const std::string& i_name, const std::string& i_value)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    setenv(i_name.c_str(), i_value.c_str(), 1);
}

/// Threads: while the test has no other thread.
inline void unsetVariable(const std::string& i_name)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    unsetenv(i_name.c_str());
}

#endif

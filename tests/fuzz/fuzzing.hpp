// What the fuzzing programs have in common. Each is one source file.
#ifndef TOLV_TESTS_FUZZ_FUZZING_HPP
#define TOLV_TESTS_FUZZ_FUZZING_HPP

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C"
{
    int LLVMFuzzerTestOneInput(const std::uint8_t* i_data, std::size_t i_size);
    [[noreturn]] void __real_abort();
    [[noreturn]] void __wrap_abort();
}

/// Where __wrap_abort() goes while a job runs that may end the process.
inline std::jmp_buf* g_instead = nullptr;

/// A program is linked so that the library's abort() comes here.
inline void leaveOrAbort()
{
    if (g_instead != nullptr)
    {
        std::jmp_buf* const l_instead = g_instead;
        g_instead = nullptr;
        std::longjmp(*l_instead, 1); // NOLINT(cert-err52-cpp)
    }
    __real_abort();
}

/// Runs a job for which abort() is a right answer to wrong bytes.
///
/// Nothing between here and the abort() may have a destructor to run.
///
/// Returns: whether the job came to its end.
template <class Job>
bool endsWithoutAbort(Job i_job)
{
    std::jmp_buf l_instead;
    // NOLINTNEXTLINE(cert-err52-cpp)
    if (setjmp(l_instead) != 0)
    {
        return false;
    }
    g_instead = &l_instead;
    i_job();
    g_instead = nullptr;
    return true;
}

/// What must hold for every input.
inline void require(bool i_condition)
{
    if (!i_condition)
    {
        __real_abort();
    }
}

void __wrap_abort()
{
    leaveOrAbort();
    __real_abort();
}

#endif

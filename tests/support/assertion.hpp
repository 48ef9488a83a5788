// Expects that a statement fails one of the library's assertions.
#ifndef TOLV_TESTS_SUPPORT_ASSERTION_HPP
#define TOLV_TESTS_SUPPORT_ASSERTION_HPP

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include <string>

/// The text of a failed assertion as a regular expression that matches only
/// that text.
inline std::string assertionPattern(const std::string& i_file,
                                    unsigned int i_line,
                                    const std::string& i_function,
                                    const std::string& i_expression)
{
    const std::string l_text = std::string(program_invocation_short_name) +
                               ": " + i_file + ":" + std::to_string(i_line) +
                               ": " + i_function + ": Assertion `" +
                               i_expression + "' failed.";
    std::string l_pattern;
    for (const char l_character : l_text)
    {
        if (std::string("()*+?.[]{}|\\^$").find(l_character) !=
            std::string::npos)
        {
            l_pattern += '\\';
        }
        l_pattern += l_character;
    }
    return l_pattern;
}

#define EXPECT_ASSERTION(statement, file, line, function, expression)          \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT),                 \
                assertionPattern(file, line, function, expression))

#endif

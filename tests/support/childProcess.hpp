// Runs parts of a test in processes of their own.
#ifndef TOLV_TESTS_SUPPORT_CHILDPROCESS_HPP
#define TOLV_TESTS_SUPPORT_CHILDPROCESS_HPP

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <functional>

/// Runs the job in a forked child, which then ends at once with status 0, or
/// 1 when an expectation failed.
inline pid_t startChild(const std::function<void()>& i_job)
{
    const pid_t l_child = fork();
    if (l_child == 0)
    {
        i_job();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    EXPECT_NE(-1, l_child);
    return l_child;
}

/// Blocks:  until the child has ended.
/// Returns: its status as waitpid() reports it.
inline int waitForChild(pid_t i_child)
{
    int l_status = -1;
    EXPECT_EQ(i_child, waitpid(i_child, &l_status, 0));
    return l_status;
}

/// Expects that the check holds in a child.
inline void expectInChild(const std::function<bool()>& i_check)
{
    EXPECT_EQ(0, waitForChild(startChild([&] { EXPECT_TRUE(i_check()); })));
}

/// Ends a child that does not end by itself.
inline void killChild(pid_t i_child)
{
    kill(i_child, SIGKILL);
    const int l_status = waitForChild(i_child);
    EXPECT_TRUE(WIFSIGNALED(l_status) && WTERMSIG(l_status) == SIGKILL);
}

#endif

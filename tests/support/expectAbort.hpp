// Expects that a statement ends the process with abort().
#ifndef TOLV_TESTS_SUPPORT_EXPECTABORT_HPP
#define TOLV_TESTS_SUPPORT_EXPECTABORT_HPP

#include <gtest/gtest.h>

#include <csignal>

/// The process prints nothing: a message tells of another end, for example of
/// a damaged heap. Only the emulator of a processor reports each signal.
#define EXPECT_ABORT(statement)                                                \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), "^$|qemu")

#endif

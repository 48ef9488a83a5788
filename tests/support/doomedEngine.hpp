// An engine in a process that is to die.
#ifndef TOLV_TESTS_SUPPORT_DOOMEDENGINE_HPP
#define TOLV_TESTS_SUPPORT_DOOMEDENGINE_HPP

#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

/// In a process that is to die from what the engine's thread does.
[[noreturn]] inline void waitForTheEnd()
{
    waitFor([] { return false; });
    _exit(0);
}

/// The engine of a process that is to die; nothing of it is destroyed.
struct Doomed
{
    Doomed() : engine(*new tolv::MTDispatcher(1, 1, false))
    {
        EXPECT_TRUE(loopCalls::waitForIdle());
    }

    RecordingHandler& newHandler()
    {
        return *new RecordingHandler(*new tolv::Dispatcher(false), *new CallLog,
                                     "");
    }

    tolv::MTDispatcher& engine;
};

#endif

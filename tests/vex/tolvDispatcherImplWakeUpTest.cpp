#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "support/assertion.hpp"
#include "support/doomedEngine.hpp"
#include "support/engineTest.hpp"
#include "support/loopCalls.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

// The wait and the bytes that wake it.

using namespace tolv;

namespace
{

const char* const SOURCE = "tolv/vex/tolvDispatcherImpl";
const char* const INTERRUPT = "void tolv::MTDispatcher::Interrupt()";
const char* const SERVICE_PIPE = "void tolv::MTDispatcher::ServicePipe()";
const char* const THREAD_MAIN = "void tolv::MTDispatcher::ThreadMain()";
const char* const ONE_BYTE = "l_urc == sizeof(tmp)";

using DispatcherImplTest = EngineTest;

} // namespace

// --- wake-up bytes

TEST_F(DispatcherImplTest, WakeUpIsOneZeroByteThatDoesNotBlock)
{
    start();
    wake();
    const loopCalls::Transfer l_send = loopCalls::lastSend();
    EXPECT_EQ(loopCalls::lastPair().handles[0], l_send.handle);
    EXPECT_EQ(1U, l_send.length);
    EXPECT_EQ(0, l_send.byte);
    EXPECT_EQ(MSG_NOSIGNAL | MSG_DONTWAIT, l_send.flags);
}

TEST_F(DispatcherImplTest, WakeUpIsReceivedAsOneByte)
{
    start();
    wake();
    ASSERT_TRUE(waitFor([] { return loopCalls::calls(loopCalls::RECV) == 1; }));
    const loopCalls::Transfer l_recv = loopCalls::lastRecv();
    EXPECT_EQ(loopCalls::lastPair().handles[1], l_recv.handle);
    EXPECT_EQ(1U, l_recv.length);
    EXPECT_EQ(MSG_WAITALL | MSG_NOSIGNAL, l_recv.flags);
}

TEST_F(DispatcherImplTest, EveryWakeUpCausesAPassOfItsOwn)
{
    start();
    hold(); // sends the first one
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    const int l_received = loopCalls::calls(loopCalls::RECV);
    for (int l_count = 0; l_count != 5; ++l_count)
    {
        wake();
    }
    loopCalls::letGo();
    ASSERT_TRUE(waitFor(
        [=] { return loopCalls::calls(loopCalls::RECV) == l_received + 5; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(l_received + 5, loopCalls::calls(loopCalls::RECV));
    EXPECT_EQ(l_waits + 5, loopCalls::calls(loopCalls::SELECT));
}

TEST_F(DispatcherImplTest, InterruptedWakeUpIsSentAgain)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SEND, -1, EINTR, 3);
    const Pipe& l_pipe = addPipe(handler("a"));
    EXPECT_EQ(4, loopCalls::calls(loopCalls::SEND));
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, WakeUpThatDoesNotFitCountsAsSent)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SEND, -1, EAGAIN);
    wake();
    EXPECT_EQ(1, loopCalls::calls(loopCalls::SEND));
}

TEST_F(DispatcherImplTest, InterruptedReceptionIsRepeated)
{
    start();
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::RECV, -1, EINTR, 3);
    wake();
    ASSERT_TRUE(waitFor([] { return loopCalls::calls(loopCalls::RECV) == 4; }));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_EQ(4, loopCalls::calls(loopCalls::RECV));
}

TEST_F(DispatcherImplTest, CallbackThatAddsTimersByTheHundredDoesNotHang)
{
    start();
    RecordingHandler& l_handler = handler("a");
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        for (int l_count = 0; l_count != 1000; ++l_count)
        {
            addTimer(l_handler, 1000);
        }
        return Handler::ACTION_CONTINUE;
    };
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_LT(0, loopCalls::failures(loopCalls::SEND, EAGAIN));
    iv_Log.clear();
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, CallbackThatRegistersByTheHundredDoesNotHang)
{
    start();
    RecordingHandler& l_handler = handler("a");
    const Pipe& l_many = addPipe();
    l_handler.iv_OnRead = [&](OS_HANDLE)
    {
        for (int l_count = 0; l_count != 300; ++l_count)
        {
            Pipe& l_pipe = iv_Pipes.emplace_back(l_many);
            add(l_pipe, l_handler);
            iv_Engine->Unregister(l_pipe.handle());
            add(l_pipe, l_handler);
        }
        return Handler::ACTION_CONTINUE;
    };
    const Pipe& l_pipe = addPipe(l_handler);
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    ASSERT_TRUE(loopCalls::waitForIdle());
    EXPECT_LT(0, loopCalls::failures(loopCalls::SEND, EAGAIN));
    iv_Log.clear();
    finish();
    EXPECT_EQ(301U, iv_Log.calls().size());
}

// --- waiting

TEST_F(DispatcherImplTest, InterruptedWaitIsRepeated)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SELECT, -1, EINTR, 5);
    wake();
    ASSERT_TRUE(waitFor(
        [] { return loopCalls::failures(loopCalls::SELECT, EINTR) == 5; }));
    l_pipe.write();
    EXPECT_TRUE(iv_Log.waitForCalls(1));
}

TEST_F(DispatcherImplTest, WaitInterruptedByTheShutdownServesNothing)
{
    start();
    const Pipe& l_pipe = addPipe(handler("a"));
    ASSERT_TRUE(loopCalls::waitForIdle());
    loopCalls::answer(loopCalls::SELECT, -1, EINTR);
    hold();
    l_pipe.write();
    EXPECT_TRUE(iv_Engine->Shutdown(0)); // the loop is held
    const int l_waits = loopCalls::calls(loopCalls::SELECT);
    loopCalls::letGo();
    finish();
    EXPECT_EQ(1, loopCalls::failures(loopCalls::SELECT, EINTR));
    EXPECT_EQ(l_waits, loopCalls::calls(loopCalls::SELECT));
    EXPECT_EQ((Calls{shutdown("a", l_pipe.handle())}), iv_Log.calls());
}

TEST_F(DispatcherImplTest, EveryCallMayBeInterrupted)
{
    loopCalls::interruptEveryOther();
    start();
    RecordingHandler& l_handler = handler("a");
    int l_ticks = 0;
    l_handler.iv_OnTick = [&](Timer_t)
    {
        return ++l_ticks == 20 ? Handler::ACTION_UNREGISTER
                               : Handler::ACTION_CONTINUE;
    };
    addTimer(l_handler, 0, 1);
    for (int l_count = 0; l_count != 50; ++l_count)
    {
        addPipe(l_handler).write();
    }
    ASSERT_TRUE(iv_Log.waitForCalls(70));
    finish();
    EXPECT_EQ(70U + 50U, iv_Log.calls().size());
    EXPECT_LT(10, loopCalls::failures(loopCalls::SELECT, EINTR));
    EXPECT_LT(10, loopCalls::failures(loopCalls::SEND, EINTR));
    EXPECT_LT(10, loopCalls::failures(loopCalls::RECV, EINTR));
}

TEST_F(DispatcherImplTest, DescriptorClosedAfterItWasUnregisteredIsNoFailure)
{
    start();
    Pipe& l_closed = addPipe(handler("closed"));
    const Pipe& l_pipe = addPipe(handler("a"));
    hold();
    iv_Engine->Unregister(l_closed.handle());
    l_closed.close();
    loopCalls::letGo();
    l_pipe.write();
    ASSERT_TRUE(iv_Log.waitForCalls(1));
    EXPECT_EQ(1, loopCalls::failures(loopCalls::SELECT, EBADF));
}

// --- what ends the process

TEST(DispatcherImplDeathTest, WakeUpThatCannotBeSentFails)
{
    for (const int l_errno : {EPIPE, EBADF, ENOBUFS})
    {
        EXPECT_ASSERTION(
            {
                const Doomed l_doomed;
                loopCalls::answer(loopCalls::SEND, -1, l_errno);
                l_doomed.engine.EnableCallback(OS_INVALID);
            },
            SOURCE, 560, INTERRUPT, ONE_BYTE);
    }
}

TEST(DispatcherImplDeathTest, WakeUpOfNoByteFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::SEND, 0, 0);
            l_doomed.engine.EnableCallback(OS_INVALID);
        },
        SOURCE, 560, INTERRUPT, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WakeUpThatCannotBeReceivedFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::RECV, -1, EIO);
            l_doomed.engine.EnableCallback(OS_INVALID);
            waitForTheEnd();
        },
        SOURCE, 580, SERVICE_PIPE, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WakeUpPairThatHasEndedFails)
{
    EXPECT_ASSERTION(
        {
            const Doomed l_doomed;
            loopCalls::answer(loopCalls::RECV, 0, 0);
            l_doomed.engine.EnableCallback(OS_INVALID);
            waitForTheEnd();
        },
        SOURCE, 580, SERVICE_PIPE, ONE_BYTE);
}

TEST(DispatcherImplDeathTest, WaitThatFailsFails)
{
    for (const int l_errno : {EINVAL, ENOMEM, EBADF})
    {
        EXPECT_ASSERTION(
            {
                const Doomed l_doomed;
                loopCalls::answer(loopCalls::SELECT, -1, l_errno);
                l_doomed.engine.EnableCallback(OS_INVALID);
                waitForTheEnd();
            },
            SOURCE, 300, THREAD_MAIN, "l_urc >= 0");
    }
}

TEST(DispatcherImplDeathTest, DescriptorClosedWhileItIsRegisteredFails)
{
    EXPECT_ASSERTION(
        {
            Doomed l_doomed;
            const int l_handle = dup(STDIN_FILENO);
            close(l_handle);
            l_doomed.engine.Register(l_handle, l_doomed.newHandler(), 0);
            waitForTheEnd();
        },
        SOURCE, 300, THREAD_MAIN, "l_urc >= 0");
}

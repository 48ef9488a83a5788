// An event handler that counts its callbacks and does what a test says.
#ifndef TOLV_TESTS_SUPPORT_COUNTINGHANDLER_HPP
#define TOLV_TESTS_SUPPORT_COUNTINGHANDLER_HPP

#include "support/gate.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvEventHandler.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>

/// Two connected sockets: the near one is for a dispatcher, the far one
/// belongs to the test.
class SocketPair
{
  public:
    SocketPair() : iv_Ends{-1, -1}
    {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, iv_Ends));
    }

    ~SocketPair()
    {
        close(iv_Ends[0]);
        close(iv_Ends[1]);
    }

    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    tolv::OS_HANDLE near() const
    {
        return iv_Ends[0];
    }

    /// Makes the near end readable.
    void send(char i_byte = 'x') const
    {
        EXPECT_EQ(1, ::send(iv_Ends[1], &i_byte, 1, MSG_NOSIGNAL));
    }

  private:
    int iv_Ends[2];
};

/// Takes one byte that has arrived.
inline char takeByte(tolv::OS_HANDLE i_handle)
{
    char l_byte = 0;
    EXPECT_EQ(1, recv(i_handle, &l_byte, 1, MSG_DONTWAIT));
    return l_byte;
}

/// What is set before the first callback is called back; what is not set
/// carries on, after taking one byte.
struct CountingHandler : tolv::EventHandler
{
    CountingHandler() : EventHandler(unused()) {}

    explicit CountingHandler(tolv::Dispatcher& io_dispatcher) :
        EventHandler(io_dispatcher)
    {
    }

    ~CountingHandler() override
    {
        if (iv_OnDestruction)
        {
            iv_OnDestruction();
        }
    }

    CountingHandler(const CountingHandler&) = delete;
    CountingHandler& operator=(const CountingHandler&) = delete;

    void Dump(FILE*) override {}

    ACTION HandleEvent(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            return shutDown();
        }
        EXPECT_EQ(EVENT_READ, i_event);
        ++iv_Reads;
        if (iv_OnRead)
        {
            return iv_OnRead(i_handle);
        }
        takeByte(i_handle);
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t i_timer, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            return shutDown();
        }
        EXPECT_EQ(EVENT_TIMER, i_event);
        ++iv_Ticks;
        return iv_OnTimer ? iv_OnTimer(i_timer) : ACTION_CONTINUE;
    }

    void RefreshHandler(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        EXPECT_EQ(EVENT_REFRESH, i_event);
        if (iv_OnRefresh)
        {
            iv_OnRefresh(i_handle);
        }
    }

    std::function<ACTION(tolv::OS_HANDLE)> iv_OnRead;
    std::function<ACTION(tolv::Timer_t)> iv_OnTimer;
    std::function<void(tolv::OS_HANDLE)> iv_OnRefresh;
    std::function<ACTION()> iv_OnShutdown;
    std::function<void()> iv_OnDestruction;
    std::atomic<int> iv_Reads{0};
    std::atomic<int> iv_Ticks{0};
    std::atomic<int> iv_Shutdowns{0};

  private:
    // Most handlers of tests stand before their dispatcher, so that it goes
    // first.
    static tolv::Dispatcher& unused()
    {
        static tolv::Dispatcher s_unused(false);
        return s_unused;
    }

    ACTION shutDown()
    {
        ++iv_Shutdowns;
        return iv_OnShutdown ? iv_OnShutdown() : ACTION_CONTINUE;
    }
};

#endif

// An engine of its own for every test, with handlers that record their calls.
#ifndef TOLV_TESTS_SUPPORT_ENGINETEST_HPP
#define TOLV_TESTS_SUPPORT_ENGINETEST_HPP

#include "support/gate.hpp"
#include "support/loopCalls.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"
#include "tolv/vex/tolvEventHandler.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

/// A descriptor for the engine, readable when the test says so.
class Pipe
{
  public:
    Pipe() : iv_Ends{-1, -1}
    {
        EXPECT_EQ(0, pipe(iv_Ends));
    }

    /// Another descriptor of the same pipe.
    explicit Pipe(const Pipe& i_pipe) :
        iv_Ends{dup(i_pipe.iv_Ends[0]), dup(i_pipe.iv_Ends[1])}
    {
    }

    ~Pipe()
    {
        close();
        ::close(iv_Ends[1]);
    }

    Pipe& operator=(const Pipe&) = delete;

    tolv::OS_HANDLE handle() const
    {
        return iv_Ends[0];
    }

    /// Closes the descriptor of the engine.
    void close()
    {
        if (iv_Ends[0] != -1)
        {
            ::close(iv_Ends[0]);
            iv_Ends[0] = -1;
        }
    }

    /// Gives the descriptor another number, closing what had it.
    void moveTo(tolv::OS_HANDLE i_handle)
    {
        EXPECT_EQ(i_handle, dup2(iv_Ends[0], i_handle));
        ::close(iv_Ends[0]);
        iv_Ends[0] = i_handle;
    }

    /// Makes it readable.
    void write(std::size_t i_bytes = 1) const
    {
        const std::string l_bytes(i_bytes, 'x');
        EXPECT_EQ(static_cast<ssize_t>(i_bytes),
                  ::write(iv_Ends[1], l_bytes.data(), i_bytes));
    }

    static void takeByte(tolv::OS_HANDLE i_handle)
    {
        char l_byte = 0;
        EXPECT_EQ(1, ::read(i_handle, &l_byte, 1));
    }

  private:
    int iv_Ends[2];
};

/// One call of a handler.
struct Call
{
    std::string who;
    std::int64_t what; // descriptor or timer
    int event;

    bool operator==(const Call& i_other) const
    {
        return who == i_other.who && what == i_other.what &&
               event == i_other.event;
    }

    friend std::ostream& operator<<(std::ostream& io_stream, const Call& i_call)
    {
        return io_stream << i_call.who << ' ' << i_call.what << ' '
                         << i_call.event;
    }
};

using Calls = std::vector<Call>;

/// All calls of a test's handlers, and how many waits had begun before each.
///
/// Threads: any.
class CallLog
{
  public:
    void add(const Call& i_call)
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        iv_Calls.push_back(i_call);
        iv_Waits.push_back(loopCalls::calls(loopCalls::SELECT));
    }

    Calls calls() const
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        return iv_Calls;
    }

    /// The waits that had begun, counted from the first call on.
    std::vector<int> waits() const
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        std::vector<int> l_waits;
        for (const int l_wait : iv_Waits)
        {
            l_waits.push_back(l_wait - iv_Waits.front());
        }
        return l_waits;
    }

    void clear()
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        iv_Calls.clear();
        iv_Waits.clear();
    }

    bool waitForCalls(std::size_t i_calls) const
    {
        return waitFor([&] { return calls().size() >= i_calls; });
    }

  private:
    mutable std::mutex iv_Lock;
    Calls iv_Calls;
    std::vector<int> iv_Waits;
};

/// Records its calls and answers what the test has set before.
class RecordingHandler : public tolv::EventHandler
{
  public:
    RecordingHandler(tolv::Dispatcher& io_dispatcher, CallLog& io_log,
                     std::string i_name) :
        EventHandler(io_dispatcher),
        iv_Log(io_log), iv_Name(std::move(i_name))
    {
    }

    ~RecordingHandler() override
    {
        if (iv_OnDestruction)
        {
            iv_OnDestruction();
        }
    }

    RecordingHandler(const RecordingHandler&) = delete;
    RecordingHandler& operator=(const RecordingHandler&) = delete;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        iv_Log.add({iv_Name, i_handle, i_event});
        if (i_event == EVENT_SHUTDOWN)
        {
            return iv_OnShutdown ? iv_OnShutdown() : ACTION_CONTINUE;
        }
        Pipe::takeByte(i_handle);
        return iv_OnRead ? iv_OnRead(i_handle) : ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t i_timer, EVENT i_event) override
    {
        iv_Log.add({iv_Name, i_timer, i_event});
        if (i_event == EVENT_SHUTDOWN)
        {
            return iv_OnShutdown ? iv_OnShutdown() : ACTION_CONTINUE;
        }
        return iv_OnTick ? iv_OnTick(i_timer) : ACTION_UNREGISTER;
    }

    void RefreshHandler(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        iv_Log.add({iv_Name, i_handle, i_event});
        if (iv_OnRefresh)
        {
            iv_OnRefresh();
        }
    }

    // Called after a byte has been taken.
    std::function<ACTION(tolv::OS_HANDLE)> iv_OnRead;
    std::function<ACTION(tolv::Timer_t)> iv_OnTick;
    std::function<void()> iv_OnRefresh;
    std::function<ACTION()> iv_OnShutdown;
    std::function<void()> iv_OnDestruction;

  private:
    CallLog& iv_Log;
    const std::string iv_Name;
};

/// Starts an engine; one that the test has not torn down is torn down in the
/// end.
class EngineTest : public testing::Test
{
  public:
    EngineTest(const EngineTest&) = delete;
    EngineTest& operator=(const EngineTest&) = delete;

  protected:
    using Handler = tolv::EventHandler;

    EngineTest() = default;

    ~EngineTest() override
    {
        loopCalls::letGo();
        iv_Gate.open();
        if (iv_Engine != nullptr && !iv_Finished)
        {
            finish();
        }
    }

    void start(std::uint32_t i_minThreads = 1, std::uint32_t i_maxThreads = 1,
               bool i_retireIdle = false)
    {
        iv_Engine = std::make_unique<tolv::MTDispatcher>(
            i_minThreads, i_maxThreads, i_retireIdle);
    }

    void finish()
    {
        iv_Finished = true;
        EXPECT_FALSE(iv_Engine->Shutdown(20));
        iv_Engine->Finish();
    }

    /// A handler that stays the test's.
    RecordingHandler& handler(const std::string& i_name)
    {
        iv_Handlers.push_back(make(i_name));
        return *iv_Handlers.back();
    }

    /// A handler for the engine to destroy; iv_Destroyed counts.
    RecordingHandler& ownedHandler(const std::string& i_name)
    {
        RecordingHandler* const l_handler = make(i_name).release();
        l_handler->iv_OnDestruction = [this] { ++iv_Destroyed; };
        return *l_handler;
    }

    Pipe& addPipe()
    {
        return iv_Pipes.emplace_back();
    }

    /// A pipe whose descriptor is registered.
    Pipe& addPipe(tolv::EventHandler& io_handler)
    {
        Pipe& l_pipe = addPipe();
        add(l_pipe, io_handler);
        return l_pipe;
    }

    void add(const Pipe& i_pipe, tolv::EventHandler& io_handler)
    {
        iv_Engine->Register(i_pipe.handle(), io_handler, 0);
    }

    tolv::Timer_t addTimer(tolv::EventHandler& io_handler,
                           std::uint32_t i_seconds,
                           std::uint32_t i_microSeconds = 0)
    {
        tolv::OS_TIMEOUT l_timeOut(i_seconds, i_microSeconds);
        return iv_Engine->AddTimer(io_handler, l_timeOut);
    }

    /// Only wakes the loop.
    void wake()
    {
        iv_Engine->EnableCallback(tolv::OS_INVALID);
    }

    /// Holds the loop up before a wait that watches what is registered now.
    void hold()
    {
        ASSERT_TRUE(loopCalls::waitForIdle());
        loopCalls::holdBefore();
        wake();
        ASSERT_TRUE(loopCalls::waitForHeld());
    }

    /// Lets one wait find all these descriptors ready.
    void writeAtOnce(const std::vector<const Pipe*>& i_pipes)
    {
        hold();
        for (const Pipe* l_pipe : i_pipes)
        {
            l_pipe->write();
        }
        loopCalls::letGo();
    }

    static Call read(const std::string& i_who, const Pipe& i_pipe)
    {
        return {i_who, i_pipe.handle(), 2};
    }

    static Call shutdown(const std::string& i_who, std::int64_t i_what)
    {
        return {i_who, i_what, 64};
    }

    tolv::Dispatcher iv_Unused{false}; // what handlers are made with
    CallLog iv_Log;
    Gate iv_Gate;
    std::atomic<int> iv_Destroyed{0};
    std::deque<Pipe> iv_Pipes;
    std::deque<std::unique_ptr<RecordingHandler>> iv_Handlers;
    std::unique_ptr<tolv::MTDispatcher> iv_Engine; // goes first
    bool iv_Finished = false;

  private:
    std::unique_ptr<RecordingHandler> make(const std::string& i_name)
    {
        return std::make_unique<RecordingHandler>(iv_Unused, iv_Log, i_name);
    }
};

#endif

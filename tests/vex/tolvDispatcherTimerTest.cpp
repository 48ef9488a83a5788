#include "tolv/vex/tolvDispatcher.hpp"

#include "support/assertion.hpp"
#include "support/fakeUptime.hpp"
#include "support/loopProbe.hpp"
#include "support/privateMember.hpp"
#include "support/scriptedHandler.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(Engine, Dispatcher, MTDispatcher*, pImpl);
TOLV_PRIVATE_MEMBER(HandlerThreads, EventHandler, std::int32_t,
                    iv_ThreadRefCount);
TOLV_PRIVATE_MEMBER(Handles, MTDispatcher, HandleTable, iv_Handles);
TOLV_PRIVATE_MEMBER(RegLock, MTDispatcher, Mutex, iv_RegLock);

namespace
{

const char* const FILE_NAME = "tolv/vex/tolvDispatcherImpl";
const char* const INTERRUPT = "void tolv::MTDispatcher::Interrupt()";
const char* const SENT_ONE = "l_urc == sizeof(tmp)";

constexpr std::uint32_t LATEST = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t DAY = 24 * 60 * 60;

// Where the uptime stands when a test begins. Only a test moves it, so spans
// are long enough that no wait ends by its time-out unless a test wants that.
constexpr std::uint32_t START = 5000;

// The next identifiers; then the real ones go on. Changed while no timer is
// added.
std::deque<std::uint32_t> g_identifiers;

using Lines = std::vector<std::string>;

// What happened, in order.
class Log
{
  public:
    void add(const std::string& i_line)
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        iv_Lines.push_back(i_line);
    }

    Lines lines() const
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        return iv_Lines;
    }

    std::size_t size() const
    {
        return lines().size();
    }

    // Waits for the first lines.
    bool has(std::size_t i_count) const
    {
        return waitFor([&] { return size() >= i_count; });
    }

  private:
    mutable std::mutex iv_Lock;
    Lines iv_Lines;
};

// Something that a callback waits for until the test says so. It is not used
// any more when open() or the destructor has returned.
class Gate
{
  public:
    Gate() = default;

    ~Gate()
    {
        open();
    }

    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    // Called by the callback.
    void pass()
    {
        iv_Reached = true;
        waitFor([this] { return iv_Open.load(); });
        iv_Left = true;
    }

    bool reached() const
    {
        return waitFor([this] { return iv_Reached.load(); });
    }

    void open()
    {
        iv_Open = true;
        if (iv_Reached)
        {
            waitFor([this] { return iv_Left.load(); });
        }
    }

    bool isOpen() const
    {
        return iv_Open;
    }

  private:
    std::atomic<bool> iv_Reached{false};
    std::atomic<bool> iv_Open{false};
    std::atomic<bool> iv_Left{false};
};

// A pipe of which the dispatcher watches the reading end.
class Pipe
{
  public:
    Pipe()
    {
        EXPECT_EQ(0, pipe2(iv_Ends, O_CLOEXEC | O_NONBLOCK));
    }

    ~Pipe()
    {
        close(iv_Ends[0]);
        close(iv_Ends[1]);
    }

    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    OS_HANDLE handle() const
    {
        return iv_Ends[0];
    }

    void fill()
    {
        EXPECT_EQ(1, write(iv_Ends[1], "", 1));
    }

    void drain()
    {
        char l_byte = 0;
        EXPECT_EQ(1, read(iv_Ends[0], &l_byte, 1));
    }

  private:
    int iv_Ends[2] = {-1, -1};
};

// A dispatcher whose uptime stands still until the test moves it. Handlers
// outlive it.
class DispatcherTimerTest : public testing::Test
{
  protected:
    DispatcherTimerTest() : iv_Now(START), iv_Handler(iv_None)
    {
        fakeUptime::set(TimeValue(START));
        iv_Handler.iv_OnTick = logTicks();
    }

    void SetUp() override
    {
        start(1);
    }

    void start(std::uint32_t i_threads)
    {
        iv_Dispatcher =
            std::make_unique<Dispatcher>(i_threads, i_threads, false);
        iv_Started = iv_Dispatcher.get();
        EXPECT_TRUE(loopProbe::waitUntilIdle());
    }

    // While it is being destroyed, too.
    Dispatcher& dispatcher()
    {
        return *iv_Started;
    }

    void stop()
    {
        iv_Dispatcher.reset();
    }

    // A tick is logged as its timer and, unless that is EVENT_TIMER, its
    // event.
    std::function<EventHandler::ACTION(Timer_t, EventHandler::EVENT)>
    logTicks(int i_answer = EventHandler::ACTION_CONTINUE)
    {
        return [this, i_answer](Timer_t i_timer, EventHandler::EVENT i_event)
        {
            iv_Log.add(std::to_string(i_timer) +
                       (i_event == EventHandler::EVENT_TIMER
                            ? ""
                            : " " + std::to_string(i_event)));
            return static_cast<EventHandler::ACTION>(i_answer);
        };
    }

    Timer_t add(EventHandler& io_handler, std::uint32_t i_seconds,
                std::uint32_t i_micros = 0)
    {
        TimeValue l_span(i_seconds, i_micros);
        return dispatcher().AddTimer(io_handler, l_span);
    }

    Timer_t add(std::uint32_t i_seconds, std::uint32_t i_micros = 0)
    {
        return add(iv_Handler, i_seconds, i_micros);
    }

    void update(Timer_t i_timer, std::uint32_t i_seconds)
    {
        TimeValue l_span(i_seconds);
        dispatcher().UpdateTimer(iv_Handler, i_timer, l_span);
    }

    // Moves the uptime without waking the loop.
    void pass(std::uint32_t i_seconds)
    {
        iv_Now += i_seconds;
        fakeUptime::set(TimeValue(iv_Now));
    }

    // Lets the loop look at the clock and the descriptors again.
    void wake()
    {
        dispatcher().EnableCallback(Timer_t{0});
    }

    // Moves the uptime and waits until everything that is due was served.
    void advance(std::uint32_t i_seconds)
    {
        pass(i_seconds);
        wake();
        ASSERT_TRUE(loopProbe::waitUntilIdle());
    }

    TimeValue timeOut()
    {
        EXPECT_TRUE(loopProbe::waitUntilIdle());
        EXPECT_TRUE(loopProbe::timeOut().has_value());
        return loopProbe::timeOut().value_or(TimeValue());
    }

    bool waitsForEver()
    {
        EXPECT_TRUE(loopProbe::waitUntilIdle());
        return !loopProbe::timeOut().has_value();
    }

    std::int32_t threadsIn(const EventHandler& i_handler)
    {
        MTDispatcher& l_engine = *(dispatcher().*get(Engine()));
        Mutex& l_mutex = l_engine.*get(RegLock());
        const MutexLock l_lock(l_mutex);
        return i_handler.*get(HandlerThreads());
    }

    std::atomic<std::uint32_t> iv_Now;
    Log iv_Log;
    Dispatcher iv_None{true};
    ScriptedHandler iv_Handler;
    std::unique_ptr<Dispatcher> iv_Dispatcher;
    Dispatcher* iv_Started = nullptr;
};

class DispatcherTimerThreadsTest : public DispatcherTimerTest
{
  protected:
    void SetUp() override
    {
        start(3);
    }

    // A handler that the dispatcher destroys, which is logged.
    ScriptedHandler& makeHandler()
    {
        ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
        l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
        return *l_handler;
    }
};

} // namespace

// nextIdentifier(), which the linker sends here.
std::uint32_t realNextIdentifier() __asm__("__real__ZN4tolv14nextIdentifierEv");
std::uint32_t
wrappedNextIdentifier() __asm__("__wrap__ZN4tolv14nextIdentifierEv");

std::uint32_t wrappedNextIdentifier()
{
    if (g_identifiers.empty())
    {
        return realNextIdentifier();
    }
    const std::uint32_t l_identifier = g_identifiers.front();
    g_identifiers.pop_front();
    return l_identifier;
}

// Order

TEST_F(DispatcherTimerTest, FiresInOrderOfExpiry)
{
    EXPECT_EQ(1U, add(300));
    EXPECT_EQ(2U, add(100));
    EXPECT_EQ(3U, add(200));
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    advance(300);
    EXPECT_EQ((Lines{"2", "3", "1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, EqualExpiriesFireInOrderOfInsertion)
{
    add(100);
    add(100);
    add(100);
    update(1, 100);
    advance(100);
    EXPECT_EQ((Lines{"2", "3", "1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, FiresAtItsExpiryAndNotBefore)
{
    add(100);
    advance(99);
    EXPECT_EQ(Lines{}, iv_Log.lines());
    advance(1);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

// The time-out passes while the uptime stands still.
TEST_F(DispatcherTimerTest, WaitThatEndsBeforeTheExpiryServesNothing)
{
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    add(0, 1);
    const int l_waits = loopProbe::waits();
    ASSERT_TRUE(waitFor([&] { return loopProbe::waits() >= l_waits + 3; }));
    EXPECT_EQ(TimeValue(0, 1), timeOut());
    EXPECT_EQ(Lines{}, iv_Log.lines());
    pass(1);
    EXPECT_TRUE(iv_Log.has(1));
}

TEST_F(DispatcherTimerTest, ServesOneTimerAPass)
{
    std::vector<int> l_waits;
    iv_Handler.iv_OnTick = [&](Timer_t, EventHandler::EVENT)
    {
        l_waits.push_back(loopProbe::waits());
        return EventHandler::ACTION_UNREGISTER;
    };
    add(100);
    add(100);
    add(100);
    advance(100);
    ASSERT_EQ(3U, l_waits.size());
    EXPECT_LT(l_waits[0], l_waits[1]);
    EXPECT_LT(l_waits[1], l_waits[2]);
}

// All that is ready at once is made so in a callback of the only thread.
TEST_F(DispatcherTimerTest, TimersComeBeforeReadyDescriptors)
{
    Pipe l_pipe;
    iv_Handler.iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_pipe.drain();
        iv_Log.add("read");
        return EventHandler::ACTION_CONTINUE;
    };
    ScriptedHandler l_first(iv_None);
    l_first.iv_OnTick = [&](Timer_t, EventHandler::EVENT)
    {
        l_pipe.fill();
        iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
        add(0);
        add(0);
        return EventHandler::ACTION_UNREGISTER;
    };
    dispatcher().Register(l_pipe.handle(), iv_Handler,
                          EventHandler::EVENT_READ);
    add(l_first, 100);
    advance(100);
    EXPECT_EQ((Lines{"2", "3", "read"}), iv_Log.lines());
    dispatcher().Unregister(l_pipe.handle());
}

TEST_F(DispatcherTimerTest, ZeroIsDueAtOnceAndAgainAtEveryPass)
{
    int l_left = 5;
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        logTicks()(i_timer, i_event);
        return --l_left == 0 ? EventHandler::ACTION_UNREGISTER
                             : EventHandler::ACTION_CONTINUE;
    };
    add(0);
    EXPECT_TRUE(waitsForEver());
    EXPECT_EQ((Lines{"1", "1", "1", "1", "1"}), iv_Log.lines());
}

// The pipe is made readable by the first tick of the only thread.
TEST_F(DispatcherTimerTest, ZeroPeriodLetsNoDescriptorBeServed)
{
    constexpr int TICKS = 500;
    Pipe l_pipe;
    std::atomic<int> l_ticks(0);
    iv_Handler.iv_OnTick = [&](Timer_t, EventHandler::EVENT)
    {
        if (++l_ticks == 1)
        {
            l_pipe.fill();
        }
        return l_ticks == TICKS ? EventHandler::ACTION_UNREGISTER
                                : EventHandler::ACTION_CONTINUE;
    };
    iv_Handler.iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_pipe.drain();
        iv_Log.add("read after " + std::to_string(l_ticks));
        return EventHandler::ACTION_CONTINUE;
    };
    dispatcher().Register(l_pipe.handle(), iv_Handler,
                          EventHandler::EVENT_READ);
    add(0);
    EXPECT_TRUE(iv_Log.has(1));
    EXPECT_EQ((Lines{"read after 500"}), iv_Log.lines());
    dispatcher().Unregister(l_pipe.handle());
}

// The pair for the wake-ups holds fewer than these.
TEST_F(DispatcherTimerTest, CallbackMayAddAThousandTimers)
{
    ScriptedHandler l_adder(iv_None);
    l_adder.iv_OnTick = [&](Timer_t, EventHandler::EVENT)
    {
        for (int l_count = 0; l_count != 1000; ++l_count)
        {
            add(0);
        }
        return EventHandler::ACTION_UNREGISTER;
    };
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    add(l_adder, 0);
    ASSERT_TRUE(iv_Log.has(1000));
    EXPECT_TRUE(waitsForEver());
    const Lines l_lines = iv_Log.lines();
    ASSERT_EQ(1000U, l_lines.size());
    for (std::size_t l_index = 0; l_index != l_lines.size(); ++l_index)
    {
        EXPECT_EQ(std::to_string(l_index + 2), l_lines[l_index]);
    }
}

TEST_F(DispatcherTimerTest, ServesAmongAHundredThousand)
{
    constexpr Timer_t COUNT = 100000;
    for (Timer_t l_timer = 1; l_timer <= COUNT; ++l_timer)
    {
        ASSERT_EQ(l_timer, add(1000 + l_timer % 1000));
    }
    EXPECT_EQ(TimeValue(1000), timeOut());
    update(COUNT / 2 + 3, 500);
    update(COUNT / 2 + 1, 400);
    for (Timer_t l_timer = 1; l_timer <= COUNT; l_timer += 10)
    {
        ASSERT_TRUE(dispatcher().CancelTimer(l_timer));
    }
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    advance(500);
    EXPECT_EQ((Lines{"50003"}), iv_Log.lines());
    advance(500);
    EXPECT_EQ(101U, iv_Log.size());
}

// Period

TEST_F(DispatcherTimerTest, RepeatsWithItsPeriod)
{
    add(100);
    advance(100);
    EXPECT_EQ(TimeValue(100), timeOut());
    advance(100);
    advance(100);
    EXPECT_EQ((Lines{"1", "1", "1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, PeriodBeginsAfterTheCallback)
{
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        pass(50);
        return logTicks()(i_timer, i_event);
    };
    add(100);
    advance(130);
    EXPECT_EQ(TimeValue(100), timeOut());
    advance(99);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    advance(1);
    EXPECT_EQ((Lines{"1", "1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, CallbackLongerThanThePeriodMakesNoBurst)
{
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        pass(1000);
        return logTicks()(i_timer, i_event);
    };
    add(100);
    advance(5000);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    EXPECT_EQ(TimeValue(100), timeOut());
}

TEST_F(DispatcherTimerTest, UnregisterAnswerEndsTheTimer)
{
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    add(100);
    advance(100);
    EXPECT_TRUE(waitsForEver());
    EXPECT_FALSE(dispatcher().ExpireTimer(1));
    advance(1000);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, AnyOtherAnswerContinues)
{
    for (const int l_answer : {1, 3, 16, -1})
    {
        iv_Handler.iv_OnTick = logTicks(l_answer);
        const Timer_t l_timer = add(100);
        advance(100);
        EXPECT_EQ(TimeValue(100), timeOut()) << l_answer;
        EXPECT_TRUE(dispatcher().CancelTimer(l_timer));
    }
    EXPECT_EQ(4U, iv_Log.size());
}

TEST_F(DispatcherTimerTest, RemoveAnswerDestroysTheHandlerWithAllItHas)
{
    Pipe l_pipe;
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
    dispatcher().Register(l_pipe.handle(), *l_handler,
                          EventHandler::EVENT_READ);
    add(*l_handler, 100);
    add(*l_handler, 200);
    add(300);
    advance(100);
    EXPECT_EQ((Lines{"1", "destroyed"}), iv_Log.lines());
    EXPECT_FALSE(dispatcher().ExpireTimer(1));
    EXPECT_FALSE(dispatcher().ExpireTimer(2));
    EXPECT_TRUE(dispatcher().ExpireTimer(3));
    EXPECT_EQ(TimeValue(200), timeOut());
    // The number is free again.
    dispatcher().Register(l_pipe.handle(), iv_Handler,
                          EventHandler::EVENT_READ);
    dispatcher().Unregister(l_pipe.handle());
}

TEST_F(DispatcherTimerTest, DestructorOfARemovedHandlerMayUseTheDispatcher)
{
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    l_handler->iv_OnDestruction = [this]
    {
        iv_Log.add(dispatcher().CancelTimer(1) ? "found" : "gone");
        iv_Log.add(dispatcher().CancelTimer(2) ? "found" : "gone");
        add(0);
    };
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    add(*l_handler, 100);
    add(200);
    advance(100);
    EXPECT_EQ((Lines{"1", "gone", "found", "3"}), iv_Log.lines());
}

// Operations

TEST_F(DispatcherTimerTest, UpdateBeginsANewPeriodNow)
{
    add(100);
    advance(50);
    update(1, 200);
    EXPECT_EQ(TimeValue(200), timeOut());
    advance(199);
    EXPECT_EQ(Lines{}, iv_Log.lines());
    advance(1);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    EXPECT_EQ(TimeValue(200), timeOut());
    update(1, 20);
    EXPECT_EQ(TimeValue(20), timeOut());
}

TEST_F(DispatcherTimerTest, UpdateDoesNotChangeTheOwner)
{
    ScriptedHandler l_other(iv_None);
    l_other.iv_OnTick = [this](Timer_t, EventHandler::EVENT)
    {
        iv_Log.add("other");
        return EventHandler::ACTION_CONTINUE;
    };
    add(100);
    TimeValue l_span(50);
    dispatcher().UpdateTimer(l_other, 1, l_span);
    advance(50);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, UpdateOfAnUnknownTimerIsIgnored)
{
    add(100);
    update(2, 10);
    update(0, 10);
    EXPECT_EQ(TimeValue(100), timeOut());
    EXPECT_FALSE(dispatcher().ExpireTimer(2));
}

TEST_F(DispatcherTimerTest, UpdateInItsCallbackCountsFromTheEndOfIt)
{
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        update(i_timer, 30);
        pass(70);
        return logTicks()(i_timer, i_event);
    };
    add(100);
    advance(100);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    EXPECT_EQ(TimeValue(30), timeOut());
}

TEST_F(DispatcherTimerTest, CancelledTimerDoesNotFire)
{
    add(100);
    add(200);
    EXPECT_TRUE(dispatcher().CancelTimer(1));
    EXPECT_EQ(TimeValue(200), timeOut());
    EXPECT_FALSE(dispatcher().CancelTimer(1));
    EXPECT_FALSE(dispatcher().CancelTimer(99));
    EXPECT_FALSE(dispatcher().CancelTimer(0));
    advance(200);
    EXPECT_EQ((Lines{"2"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, CancelInItsOwnCallbackEndsItWhateverTheAnswer)
{
    for (const int l_answer : {0, 2, 4, 1})
    {
        iv_Handler.iv_OnTick =
            [&, l_answer](Timer_t i_timer, EventHandler::EVENT i_event)
        {
            EXPECT_TRUE(dispatcher().CancelTimer(i_timer));
            EXPECT_TRUE(dispatcher().ExpireTimer(i_timer)) << "until it ends";
            EXPECT_TRUE(dispatcher().CancelTimer(i_timer));
            return logTicks(l_answer)(i_timer, i_event);
        };
        const Timer_t l_timer = add(100);
        advance(100);
        EXPECT_FALSE(dispatcher().ExpireTimer(l_timer));
        EXPECT_TRUE(waitsForEver());
        advance(1000);
    }
    EXPECT_EQ((Lines{"1", "2", "3", "4"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, CancelInItsOwnCallbackDoesNotSaveTheHandler)
{
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnTick = [this](Timer_t i_timer, EventHandler::EVENT)
    {
        EXPECT_TRUE(dispatcher().CancelTimer(i_timer));
        return EventHandler::ACTION_REMOVE;
    };
    l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
    add(*l_handler, 100);
    advance(100);
    EXPECT_EQ((Lines{"destroyed"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, CallbackMayCancelAnotherTimer)
{
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        dispatcher().CancelTimer(2);
        return logTicks()(i_timer, i_event);
    };
    add(100);
    add(100);
    advance(100);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, ExpireTimerOnlyTells)
{
    add(100);
    EXPECT_TRUE(dispatcher().ExpireTimer(1));
    EXPECT_FALSE(dispatcher().ExpireTimer(2));
    wake();
    EXPECT_EQ(TimeValue(100), timeOut());
    EXPECT_EQ(Lines{}, iv_Log.lines());
    advance(100);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, EnableCallbackOfAnIdleTimerChangesNothing)
{
    add(100);
    add(100);
    dispatcher().EnableCallback(Timer_t{1});
    EXPECT_EQ(TimeValue(100), timeOut());
    advance(100);
    EXPECT_EQ((Lines{"1", "2"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, OperationsWakeTheLoopAsTheySay)
{
    int l_before = loopProbe::wakeUps();
    const auto l_wakeUps = [&]
    {
        const int l_sent = loopProbe::wakeUps() - l_before;
        l_before += l_sent;
        return l_sent;
    };
    add(100);
    EXPECT_EQ(1, l_wakeUps());
    update(1, 200);
    EXPECT_EQ(1, l_wakeUps());
    update(2, 200);
    EXPECT_EQ(1, l_wakeUps()) << "also for an unknown timer";
    dispatcher().EnableCallback(Timer_t{1});
    EXPECT_EQ(1, l_wakeUps());
    dispatcher().EnableCallback(Timer_t{2});
    EXPECT_EQ(1, l_wakeUps()) << "also for an unknown timer";
    EXPECT_TRUE(dispatcher().ExpireTimer(1));
    EXPECT_FALSE(dispatcher().ExpireTimer(2));
    EXPECT_EQ(0, l_wakeUps());
    EXPECT_FALSE(dispatcher().CancelTimer(2));
    EXPECT_EQ(0, l_wakeUps()) << "not for an unknown timer";
    EXPECT_TRUE(dispatcher().CancelTimer(1));
    EXPECT_EQ(1, l_wakeUps());
}

TEST_F(DispatcherTimerTest, ServedTimerWakesTheLoopWhenItIsRearmed)
{
    add(100);
    ASSERT_TRUE(loopProbe::waitUntilIdle());
    const int l_before = loopProbe::wakeUps();
    advance(100);
    EXPECT_EQ(l_before + 2, loopProbe::wakeUps())
        << "advance() and the re-arming";
}

TEST_F(DispatcherTimerTest, AnswersThatEndATimerWakeTheLoop)
{
    iv_Handler.iv_OnTick = logTicks(EventHandler::ACTION_UNREGISTER);
    ScriptedHandler* const l_going = new ScriptedHandler(iv_None);
    l_going->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    add(iv_Handler, 100);
    add(*l_going, 200);
    for (const char* l_timer : {"1", "2"})
    {
        ASSERT_TRUE(loopProbe::waitUntilIdle());
        const int l_before = loopProbe::wakeUps();
        advance(100);
        EXPECT_EQ(l_timer, iv_Log.lines().back());
        EXPECT_EQ(l_before + 2, loopProbe::wakeUps())
            << "advance() and the answer";
    }
}

// Time-out of the wait

TEST_F(DispatcherTimerTest, WaitsForEverWithoutAnArmedTimer)
{
    EXPECT_TRUE(waitsForEver());
    add(100);
    EXPECT_FALSE(waitsForEver());
    EXPECT_TRUE(dispatcher().CancelTimer(1));
    EXPECT_TRUE(waitsForEver());
}

TEST_F(DispatcherTimerTest, WaitsUntilTheNearestExpiry)
{
    add(300);
    add(100, 7);
    add(200);
    EXPECT_EQ(TimeValue(100, 7), timeOut());
}

TEST_F(DispatcherTimerTest, TimeOutBorrowsASecondForItsMicroseconds)
{
    add(100, 200000);
    fakeUptime::set(TimeValue(START + 1, 300000));
    wake();
    EXPECT_EQ(TimeValue(98, 900000), timeOut());
}

TEST_F(DispatcherTimerTest, WaitsForADayAtTheLongest)
{
    add(DAY - 1, 999999);
    EXPECT_EQ(TimeValue(DAY - 1, 999999), timeOut());
    update(1, DAY);
    EXPECT_EQ(TimeValue(DAY), timeOut());
    EXPECT_TRUE(dispatcher().CancelTimer(1));
    add(DAY, 1);
    EXPECT_EQ(TimeValue(DAY), timeOut());
    advance(1);
    EXPECT_EQ(TimeValue(DAY - 1, 1), timeOut());
    EXPECT_EQ(Lines{}, iv_Log.lines());
    EXPECT_TRUE(dispatcher().CancelTimer(2));
}

TEST_F(DispatcherTimerTest, LongestSpanDoesNotWrap)
{
    add(LATEST, 999999);
    EXPECT_EQ(TimeValue(DAY), timeOut());
    pass(LATEST - START - 1);
    wake();
    EXPECT_EQ(TimeValue(1, 999999), timeOut());
    EXPECT_EQ(Lines{}, iv_Log.lines());
}

// Identifiers

TEST_F(DispatcherTimerTest, IdentifiersCountFromOneOverAllDispatchers)
{
    Dispatcher l_other(1, 1, false);
    TimeValue l_span(100);
    EXPECT_EQ(1U, dispatcher().AddTimer(iv_Handler, l_span));
    EXPECT_EQ(2U, l_other.AddTimer(iv_Handler, l_span));
    EXPECT_EQ(3U, dispatcher().AddTimer(iv_Handler, l_span));
    EXPECT_TRUE(dispatcher().CancelTimer(3));
    EXPECT_EQ(4U, l_other.AddTimer(iv_Handler, l_span));
    EXPECT_FALSE(l_other.ExpireTimer(1));
}

TEST_F(DispatcherTimerTest, WrappedIdentifiersSkipZeroAndThoseInUse)
{
    EXPECT_EQ(1U, add(100));
    EXPECT_EQ(2U, add(100));
    EXPECT_EQ(3U, add(100));
    EXPECT_TRUE(dispatcher().CancelTimer(2));
    g_identifiers = {LATEST, 0, 1, 2, 3, LATEST, 0, 1, 2, 3};
    EXPECT_EQ(LATEST, add(100));
    EXPECT_EQ(2U, add(100));
    EXPECT_EQ(4U, add(100)) << "the real counter goes on";
    EXPECT_TRUE(g_identifiers.empty());
}

// Refresh

namespace
{

// Three registered pipes: the second belongs to iv_Other, the others to
// iv_Handler; timer 1, of a handler of its own, asks for the refresh.
class DispatcherRefreshTest : public DispatcherTimerTest
{
  protected:
    void SetUp() override
    {
        DispatcherTimerTest::SetUp();
        registerHandle(0, iv_Handler);
        registerHandle(1, iv_Other);
        registerHandle(2, iv_Handler);
        iv_Handler.iv_OnRefresh = logRefresh();
        iv_Other.iv_OnRefresh = logRefresh();
        iv_Asking.iv_OnTick = logTicks(EventHandler::ACTION_REFRESH);
        add(iv_Asking, 100);
    }

    void TearDown() override
    {
        stop();
    }

    void registerHandle(int i_pipe, EventHandler& io_handler)
    {
        dispatcher().Register(iv_Pipes[i_pipe].handle(), io_handler,
                              EventHandler::EVENT_READ);
    }

    void unregisterHandle(int i_pipe)
    {
        dispatcher().Unregister(iv_Pipes[i_pipe].handle());
    }

    std::string name(OS_HANDLE i_handle) const
    {
        std::size_t l_pipe = 0;
        while (iv_Pipes[l_pipe].handle() != i_handle)
        {
            ++l_pipe;
        }
        return std::string("abcd").substr(l_pipe, 1);
    }

    // Logged as the name of the pipe, with the event unless that is
    // EVENT_REFRESH.
    std::function<void(OS_HANDLE, EventHandler::EVENT)> logRefresh()
    {
        return [this](OS_HANDLE i_handle, EventHandler::EVENT i_event)
        {
            iv_Log.add(name(i_handle) + (i_event == EventHandler::EVENT_REFRESH
                                             ? ""
                                             : " " + std::to_string(i_event)));
        };
    }

    // The first call of the handler's RefreshHandler() does this as well.
    void onFirstRefresh(ScriptedHandler& io_handler,
                        const std::function<void()>& i_action)
    {
        io_handler.iv_OnRefresh =
            [this, i_action, l_first = true](
                OS_HANDLE i_handle, EventHandler::EVENT i_event) mutable
        {
            logRefresh()(i_handle, i_event);
            if (l_first)
            {
                l_first = false;
                i_action();
            }
        };
    }

    Pipe iv_Pipes[4];
    ScriptedHandler iv_Other{iv_None};
    ScriptedHandler iv_Asking{iv_None};
};

} // namespace

TEST_F(DispatcherRefreshTest, CallsEveryRecordInListOrderThenRearms)
{
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c", "b"}), iv_Log.lines());
    EXPECT_EQ(TimeValue(100), timeOut());
    advance(100);
    EXPECT_EQ(8U, iv_Log.size());
}

TEST_F(DispatcherRefreshTest, OtherAnswersRefreshNothing)
{
    for (const int l_answer : {0, 1, 3, 6, 10, 16, -1})
    {
        iv_Asking.iv_OnTick = logTicks(l_answer);
        advance(100);
    }
    EXPECT_EQ(Lines(7, "1"), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, WakesTheLoopOnceMore)
{
    ASSERT_TRUE(loopProbe::waitUntilIdle());
    const int l_before = loopProbe::wakeUps();
    advance(100);
    EXPECT_EQ(l_before + 3, loopProbe::wakeUps())
        << "advance(), the refresh and the re-arming";
}

TEST_F(DispatcherRefreshTest, PeriodBeginsAfterTheRefresh)
{
    onFirstRefresh(iv_Handler, [this] { pass(70); });
    advance(100);
    EXPECT_EQ(TimeValue(100), timeOut());
}

TEST_F(DispatcherRefreshTest, WithoutDescriptorsOnlyRearms)
{
    unregisterHandle(0);
    unregisterHandle(1);
    unregisterHandle(2);
    advance(100);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    EXPECT_EQ(TimeValue(100), timeOut());
}

TEST_F(DispatcherRefreshTest, SkipsWhatIsUnregisteredMeanwhile)
{
    onFirstRefresh(iv_Handler,
                   [this]
                   {
                       unregisterHandle(0);
                       unregisterHandle(2);
                   });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "b"}), iv_Log.lines());
    registerHandle(0, iv_Handler);
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "b", "1", "b", "a"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, DoesNotCallWhatIsRegisteredMeanwhile)
{
    onFirstRefresh(iv_Handler,
                   [this]
                   {
                       registerHandle(3, iv_Other);
                       unregisterHandle(1);
                       registerHandle(1, iv_Other);
                   });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c"}), iv_Log.lines());
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c", "1", "a", "c", "d", "b"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, SkipsARecordWhoseNumberWasRegisteredAnew)
{
    onFirstRefresh(iv_Handler,
                   [this]
                   {
                       unregisterHandle(1);
                       registerHandle(1, iv_Handler);
                   });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, RefreshMayUseEveryTimerOperation)
{
    onFirstRefresh(iv_Handler,
                   [this]
                   {
                       EXPECT_EQ(2U, add(500));
                       update(2, 400);
                       EXPECT_TRUE(dispatcher().ExpireTimer(2));
                       EXPECT_TRUE(dispatcher().CancelTimer(2));
                   });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c", "b"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, TimerThatTheRefreshCancelsIsNotRearmed)
{
    onFirstRefresh(iv_Handler,
                   [this] { EXPECT_TRUE(dispatcher().CancelTimer(1)); });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c", "b"}), iv_Log.lines());
    EXPECT_TRUE(waitsForEver());
    EXPECT_FALSE(dispatcher().ExpireTimer(1));
}

TEST_F(DispatcherRefreshTest, TimerCancelledInTheCallbackRefreshesNothing)
{
    iv_Asking.iv_OnTick = [this](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        dispatcher().CancelTimer(i_timer);
        return logTicks(EventHandler::ACTION_REFRESH)(i_timer, i_event);
    };
    advance(100);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshTest, DescriptorsAreServedAfterwards)
{
    iv_Handler.iv_OnEvent = [this](OS_HANDLE i_handle, EventHandler::EVENT)
    {
        iv_Log.add("read " + name(i_handle));
        return EventHandler::ACTION_UNREGISTER;
    };
    onFirstRefresh(iv_Handler, [this] { iv_Pipes[2].fill(); });
    advance(100);
    EXPECT_EQ((Lines{"1", "a", "c", "b", "read c"}), iv_Log.lines());
}

namespace
{

class DispatcherRefreshThreadsTest : public DispatcherRefreshTest
{
  protected:
    void SetUp() override
    {
        start(3);
        iv_Asking.iv_OnTick = logTicks(EventHandler::ACTION_REFRESH);
        add(iv_Asking, 100);
    }
};

} // namespace

TEST_F(DispatcherRefreshThreadsTest, HandlerRemovedMeanwhileLivesUntilItReturns)
{
    Gate l_gate;
    std::atomic<bool> l_destroyed(false);
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnDestruction = [&] { l_destroyed = true; };
    l_handler->iv_OnRefresh = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_gate.pass();
        EXPECT_FALSE(l_destroyed);
        iv_Log.add("refreshed");
    };
    l_handler->iv_OnEvent = [](OS_HANDLE, EventHandler::EVENT)
    { return EventHandler::ACTION_REMOVE; };
    registerHandle(0, *l_handler);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    iv_Pipes[0].fill();
    // Its number is free as soon as the answer was acted on.
    ASSERT_TRUE(waitFor(
        [&]
        {
            MTDispatcher& l_engine = *(dispatcher().*get(Engine()));
            Mutex& l_mutex = l_engine.*get(RegLock());
            const MutexLock l_lock(l_mutex);
            return (l_engine.*get(Handles())).find(iv_Pipes[0].handle()) ==
                   nullptr;
        }));
    EXPECT_FALSE(l_destroyed);
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return l_destroyed.load(); }));
    EXPECT_EQ((Lines{"1", "refreshed"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshThreadsTest, CallbackThatEndsMeanwhileIsWatchedAgain)
{
    Gate l_gate;
    iv_Handler.iv_OnRefresh = [&](OS_HANDLE, EventHandler::EVENT)
    { l_gate.pass(); };
    iv_Handler.iv_OnEvent = [this](OS_HANDLE, EventHandler::EVENT i_event)
    {
        if (i_event == EventHandler::EVENT_READ)
        {
            iv_Pipes[0].drain();
            iv_Log.add("read");
        }
        return EventHandler::ACTION_CONTINUE;
    };
    registerHandle(0, iv_Handler);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    iv_Pipes[0].fill();
    ASSERT_TRUE(iv_Log.has(2));
    iv_Pipes[0].fill();
    EXPECT_TRUE(iv_Log.has(3));
    l_gate.open();
    EXPECT_EQ((Lines{"1", "read", "read"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshThreadsTest, DescriptorWhoseCallbackRunsIsRefreshed)
{
    Gate l_gate;
    iv_Handler.iv_OnRefresh = logRefresh();
    iv_Handler.iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_gate.pass();
        return EventHandler::ACTION_UNREGISTER;
    };
    registerHandle(0, iv_Handler);
    iv_Pipes[0].fill();
    ASSERT_TRUE(l_gate.reached());
    pass(100);
    wake();
    EXPECT_TRUE(iv_Log.has(2));
    l_gate.open();
    EXPECT_EQ((Lines{"1", "a"}), iv_Log.lines());
}

TEST_F(DispatcherRefreshThreadsTest, HandlerThatIsToGoIsNotRefreshed)
{
    Gate l_gate;
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
    l_handler->iv_OnRefresh = logRefresh();
    l_handler->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    l_handler->iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_gate.pass();
        return EventHandler::ACTION_CONTINUE;
    };
    iv_Other.iv_OnRefresh = logRefresh();
    registerHandle(0, *l_handler);
    registerHandle(1, *l_handler);
    registerHandle(2, iv_Other);
    iv_Pipes[0].fill();
    ASSERT_TRUE(l_gate.reached());
    add(*l_handler, 50);
    pass(50);
    wake();
    ASSERT_TRUE(iv_Log.has(1));
    ASSERT_TRUE(waitFor([&] { return threadsIn(*l_handler) == 1; }));
    pass(50);
    wake();
    EXPECT_TRUE(iv_Log.has(3));
    l_gate.open();
    EXPECT_TRUE(iv_Log.has(4));
    EXPECT_EQ((Lines{"2", "1", "c", "destroyed"}), iv_Log.lines());
}

// Several threads

TEST_F(DispatcherTimerThreadsTest, RunningTimerDoesNotFireAgain)
{
    Gate l_gate;
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        if (l_gate.isOpen())
        {
            return logTicks(EventHandler::ACTION_UNREGISTER)(i_timer, i_event);
        }
        logTicks()(i_timer, i_event);
        update(i_timer, 0);
        l_gate.pass();
        return EventHandler::ACTION_CONTINUE;
    };
    add(100);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    EXPECT_TRUE(waitsForEver());
    EXPECT_EQ(1U, iv_Log.size());
    l_gate.open();
    EXPECT_TRUE(iv_Log.has(2)) << "due at once after the callback";
}

TEST_F(DispatcherTimerThreadsTest, EnableCallbackLetsARunningTimerFire)
{
    Gate l_gate;
    std::atomic<int> l_ticks(0);
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT)
    {
        if (++l_ticks == 1)
        {
            update(i_timer, 0);
            dispatcher().EnableCallback(i_timer);
            l_gate.pass();
        }
        return EventHandler::ACTION_UNREGISTER;
    };
    add(100);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    ASSERT_TRUE(waitFor([&] { return l_ticks == 2; }));
    // The second one's answer: the timer stays for the first one to finish.
    ASSERT_TRUE(waitFor([&] { return threadsIn(iv_Handler) == 1; }));
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return !dispatcher().ExpireTimer(1); }));
    EXPECT_EQ(2, l_ticks);
}

TEST_F(DispatcherTimerThreadsTest, TimersOfOneHandlerRunAtTheSameTime)
{
    Gate l_gates[2];
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT)
    {
        l_gates[i_timer - 1].pass();
        return EventHandler::ACTION_UNREGISTER;
    };
    add(100);
    add(100);
    pass(100);
    wake();
    EXPECT_TRUE(l_gates[0].reached());
    EXPECT_TRUE(l_gates[1].reached());
    l_gates[0].open();
    l_gates[1].open();
}

TEST_F(DispatcherTimerThreadsTest, CancelFromAnotherThreadEndsARunningTimer)
{
    Gate l_gate;
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        l_gate.pass();
        return logTicks()(i_timer, i_event);
    };
    add(100);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    EXPECT_TRUE(dispatcher().CancelTimer(1));
    l_gate.open();
    EXPECT_TRUE(waitFor([&] { return !dispatcher().ExpireTimer(1); }));
    advance(1000);
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
}

TEST_F(DispatcherTimerThreadsTest, RemoveFromATimerWaitsForAnEventCallback)
{
    Gate l_gate;
    Pipe l_pipe;
    ScriptedHandler& l_handler = makeHandler();
    l_handler.iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        l_gate.pass();
        iv_Log.add("event ends");
        return EventHandler::ACTION_CONTINUE;
    };
    l_handler.iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    dispatcher().Register(l_pipe.handle(), l_handler, EventHandler::EVENT_READ);
    add(l_handler, 100);
    l_pipe.fill();
    ASSERT_TRUE(l_gate.reached());
    pass(100);
    wake();
    ASSERT_TRUE(iv_Log.has(1));
    ASSERT_TRUE(waitFor([&] { return threadsIn(l_handler) == 1; }));
    EXPECT_TRUE(waitsForEver());
    l_gate.open();
    ASSERT_TRUE(iv_Log.has(3));
    EXPECT_EQ((Lines{"1", "event ends", "destroyed"}), iv_Log.lines());
    EXPECT_FALSE(dispatcher().ExpireTimer(1));
}

TEST_F(DispatcherTimerThreadsTest, RemoveFromAnEventWaitsForATimerCallback)
{
    Gate l_gate;
    Pipe l_pipe;
    ScriptedHandler& l_handler = makeHandler();
    l_handler.iv_OnEvent = [&](OS_HANDLE, EventHandler::EVENT)
    {
        iv_Log.add("event");
        return EventHandler::ACTION_REMOVE;
    };
    l_handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        l_gate.pass();
        return logTicks()(i_timer, i_event);
    };
    dispatcher().Register(l_pipe.handle(), l_handler, EventHandler::EVENT_READ);
    add(l_handler, 100);
    add(l_handler, 200);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    l_pipe.fill();
    ASSERT_TRUE(iv_Log.has(1));
    ASSERT_TRUE(waitFor([&] { return threadsIn(l_handler) == 1; }));
    EXPECT_TRUE(waitsForEver()) << "its other timer does not fire any more";
    l_gate.open();
    ASSERT_TRUE(iv_Log.has(3));
    EXPECT_EQ((Lines{"event", "1", "destroyed"}), iv_Log.lines());
    EXPECT_FALSE(dispatcher().ExpireTimer(2));
}

TEST_F(DispatcherTimerThreadsTest, RemoveFromATimerWaitsForAnotherTimer)
{
    Gate l_gates[2];
    ScriptedHandler& l_handler = makeHandler();
    l_handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        l_gates[i_timer - 1].pass();
        return logTicks(i_timer == 1
                            ? EventHandler::ACTION_REMOVE
                            : EventHandler::ACTION_CONTINUE)(i_timer, i_event);
    };
    add(l_handler, 100);
    add(l_handler, 100);
    pass(100);
    wake();
    ASSERT_TRUE(l_gates[0].reached());
    ASSERT_TRUE(l_gates[1].reached());
    l_gates[0].open();
    ASSERT_TRUE(waitFor([&] { return threadsIn(l_handler) == 1; }));
    EXPECT_EQ((Lines{"1"}), iv_Log.lines());
    l_gates[1].open();
    ASSERT_TRUE(iv_Log.has(3));
    EXPECT_EQ((Lines{"1", "2", "destroyed"}), iv_Log.lines());
}

TEST_F(DispatcherTimerThreadsTest, RemoveFromATimerWaitsForItsOtherCallback)
{
    Gate l_gate;
    std::atomic<int> l_ticks(0);
    ScriptedHandler& l_handler = makeHandler();
    l_handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        if (++l_ticks == 2)
        {
            return logTicks(EventHandler::ACTION_REMOVE)(i_timer, i_event);
        }
        update(i_timer, 0);
        dispatcher().EnableCallback(i_timer);
        l_gate.pass();
        return logTicks()(i_timer, i_event);
    };
    add(l_handler, 100);
    pass(100);
    wake();
    ASSERT_TRUE(l_gate.reached());
    ASSERT_TRUE(iv_Log.has(1));
    ASSERT_TRUE(waitFor([&] { return threadsIn(l_handler) == 1; }));
    EXPECT_TRUE(waitsForEver()) << "it does not fire any more";
    l_gate.open();
    ASSERT_TRUE(iv_Log.has(3));
    EXPECT_EQ((Lines{"1", "1", "destroyed"}), iv_Log.lines());
    EXPECT_FALSE(dispatcher().ExpireTimer(1));
}

TEST_F(DispatcherTimerThreadsTest, ServesEveryTimerOnceUnderLoad)
{
    constexpr Timer_t COUNT = 2000;
    std::vector<std::atomic<int>> l_ticks(COUNT + 1);
    std::atomic<Timer_t> l_served(0);
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT)
    {
        ++l_ticks[i_timer];
        ++l_served;
        return EventHandler::ACTION_UNREGISTER;
    };
    for (Timer_t l_timer = 1; l_timer <= COUNT; ++l_timer)
    {
        add(l_timer % 3 * 100);
    }
    pass(200);
    wake();
    ASSERT_TRUE(waitFor([&] { return l_served == COUNT; }));
    ASSERT_TRUE(waitFor([&] { return threadsIn(iv_Handler) == 0; }));
    for (Timer_t l_timer = 1; l_timer <= COUNT; ++l_timer)
    {
        ASSERT_EQ(1, l_ticks[l_timer]) << l_timer;
    }
    stop();
}

// Shutdown

TEST_F(DispatcherTimerTest, EveryTimerGetsTheShutdownEventOnce)
{
    add(200);
    add(100);
    stop();
    EXPECT_EQ((Lines{"2 64", "1 64"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, RemoveAnswerToTheShutdownDestroysTheHandler)
{
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
    add(*l_handler, 100);
    add(*l_handler, 200);
    add(300);
    stop();
    EXPECT_EQ((Lines{"1 64", "2 64", "3 64", "destroyed"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, TimerAddedDuringTheShutdownIsPending)
{
    ScriptedHandler l_adder(iv_None);
    l_adder.iv_OnTick = [this](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        logTicks()(i_timer, i_event);
        const Timer_t l_added = add(0);
        EXPECT_EQ(2U, l_added);
        EXPECT_FALSE(dispatcher().ExpireTimer(l_added));
        EXPECT_FALSE(dispatcher().CancelTimer(l_added));
        update(l_added, 10);
        dispatcher().EnableCallback(l_added);
        g_identifiers = {l_added};
        EXPECT_EQ(3U, add(0)) << "a pending timer's identifier is in use";
        return EventHandler::ACTION_CONTINUE;
    };
    add(l_adder, 100);
    stop();
    EXPECT_EQ((Lines{"1 64", "2 64", "3 64"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, PendingTimerMayRemoveItsHandler)
{
    ScriptedHandler* const l_handler = new ScriptedHandler(iv_None);
    l_handler->iv_OnTick = logTicks(EventHandler::ACTION_REMOVE);
    l_handler->iv_OnDestruction = [this] { iv_Log.add("destroyed"); };
    ScriptedHandler l_adder(iv_None);
    l_adder.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        add(*l_handler, 0);
        add(*l_handler, 0);
        return logTicks()(i_timer, i_event);
    };
    add(l_adder, 100);
    stop();
    EXPECT_EQ((Lines{"1 64", "2 64", "3 64", "destroyed"}), iv_Log.lines());
}

TEST_F(DispatcherTimerTest, ShutdownMayCancelTimers)
{
    iv_Handler.iv_OnTick = [&](Timer_t i_timer, EventHandler::EVENT i_event)
    {
        EXPECT_TRUE(dispatcher().CancelTimer(i_timer));
        dispatcher().CancelTimer(2);
        return logTicks()(i_timer, i_event);
    };
    add(100);
    add(200);
    add(300);
    stop();
    EXPECT_EQ((Lines{"1 64", "3 64"}), iv_Log.lines());
}

namespace
{

// An engine that has been torn down. Never freed: the process ends with it.
MTDispatcher& tornDownEngine(EventHandler& io_handler)
{
    MTDispatcher* const l_engine = new MTDispatcher(1, 1, false);
    TimeValue l_span(100);
    l_engine->AddTimer(io_handler, l_span);
    l_engine->Shutdown(30);
    l_engine->Finish();
    return *l_engine;
}

class DispatcherTimerDeathTest : public testing::Test
{
  protected:
    Dispatcher iv_None{true};
    ScriptedHandler iv_Handler{iv_None};
    TimeValue iv_Span{100};
};

} // namespace

TEST_F(DispatcherTimerDeathTest, AddTimerAfterTheTeardownFails)
{
    EXPECT_ASSERTION(tornDownEngine(iv_Handler).AddTimer(iv_Handler, iv_Span),
                     FILE_NAME, 560, INTERRUPT, SENT_ONE);
}

TEST_F(DispatcherTimerDeathTest, UpdateTimerAfterTheTeardownFails)
{
    EXPECT_ASSERTION(
        tornDownEngine(iv_Handler).UpdateTimer(iv_Handler, 1, iv_Span),
        FILE_NAME, 560, INTERRUPT, SENT_ONE);
}

TEST_F(DispatcherTimerDeathTest, EnableCallbackAfterTheTeardownFails)
{
    EXPECT_ASSERTION(tornDownEngine(iv_Handler).EnableCallback(Timer_t{1}),
                     FILE_NAME, 560, INTERRUPT, SENT_ONE);
}

TEST_F(DispatcherTimerDeathTest, CancelAndExpireAfterTheTeardownFindNothing)
{
    MTDispatcher l_engine(1, 1, false);
    EXPECT_EQ(1U, l_engine.AddTimer(iv_Handler, iv_Span));
    l_engine.Shutdown(30);
    l_engine.Finish();
    EXPECT_FALSE(l_engine.CancelTimer(1));
    EXPECT_FALSE(l_engine.ExpireTimer(1));
}

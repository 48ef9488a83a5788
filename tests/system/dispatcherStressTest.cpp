#include "support/waitFor.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvEventHandler.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

// Descriptors that are opened, served, unregistered and closed on several
// threads at once, with numbers that are reused all the time.

using namespace tolv;

namespace
{

constexpr std::chrono::seconds DURATION(20);
// At least: numbers of descriptors are used again and again.
constexpr std::uint32_t CONNECTIONS = 200;
constexpr int THREADS = 4;              // of the dispatcher
constexpr int MOST_OPEN = 40;           // connections of one feeder
constexpr unsigned int MOST_BYTES = 40; // of a connection

// In microseconds. Timers come before descriptors: if one of them were always
// due, no descriptor would ever be served.
constexpr std::uint32_t TIMER_PERIOD = 250000;

std::atomic<std::uint32_t> g_sent(0);
std::atomic<std::uint32_t> g_served(0);
std::atomic<std::uint32_t> g_connections(0);
std::atomic<int> g_faults(0); // bytes out of order, callbacks without a byte

std::atomic<bool> g_stop(false);

unsigned int draw(std::mt19937& io_random, unsigned int i_below)
{
    return static_cast<unsigned int>(io_random() % i_below);
}

// One end of a new pair of sockets is returned, the other one stored.
OS_HANDLE openPair(int& o_far)
{
    int l_ends[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, l_ends));
    o_far = l_ends[1];
    return l_ends[0];
}

// Bytes count up from 0.
void sendBytes(int i_far, unsigned int i_from, unsigned int i_count)
{
    for (unsigned int l_byte = i_from; l_byte != i_from + i_count; ++l_byte)
    {
        const auto l_value = static_cast<unsigned char>(l_byte);
        EXPECT_EQ(1, send(i_far, &l_value, 1, MSG_NOSIGNAL));
    }
    g_sent += i_count;
}

// Belongs to the dispatcher: takes one byte in each callback and goes when its
// peer has closed. A timer that runs all the while enables the descriptor,
// which otherwise stays disabled when both are served at once.
class Connection : public EventHandler
{
  public:
    Connection(Dispatcher& io_dispatcher, OS_HANDLE i_handle,
               std::atomic<int>& io_open) :
        EventHandler(io_dispatcher),
        iv_Handle(i_handle), iv_Open(io_open), iv_Next(0)
    {
        ++iv_Open;
    }

    ~Connection() override
    {
        close(iv_Handle);
        --iv_Open;
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Dump(FILE*) override {}

    // No lock: two threads in one descriptor are a data race.
    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override
    {
        unsigned char l_byte = 0;
        const ssize_t l_count = recv(i_handle, &l_byte, 1, MSG_DONTWAIT);
        if (i_event != EVENT_READ || i_handle != iv_Handle || l_count < 0)
        {
            ++g_faults;
            return ACTION_CONTINUE;
        }
        if (l_count == 0)
        {
            return ACTION_REMOVE;
        }
        g_faults += l_byte == static_cast<unsigned char>(iv_Next) ? 0 : 1;
        ++iv_Next;
        ++g_served;
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(Timer_t, EVENT) override
    {
        iv_Dispatcher.EnableCallback(iv_Handle);
        return ACTION_CONTINUE;
    }

  private:
    const OS_HANDLE iv_Handle;
    std::atomic<int>& iv_Open;
    unsigned int iv_Next;
};

// Opens connections, sends on them in turn and closes them.
void feed(Dispatcher& io_dispatcher, unsigned int i_seed)
{
    std::mt19937 l_random(i_seed);
    std::atomic<int> l_open(0);
    while (!g_stop)
    {
        int l_far = -1;
        const OS_HANDLE l_near = openPair(l_far);
        auto* const l_connection =
            new Connection(io_dispatcher, l_near, l_open);
        const unsigned int l_count = draw(l_random, MOST_BYTES);
        const unsigned int l_before = draw(l_random, l_count + 1);
        sendBytes(l_far, 0, l_before);
        if (draw(l_random, 2) == 0)
        {
            OS_TIMEOUT l_period(0, TIMER_PERIOD);
            io_dispatcher.AddTimer(*l_connection, l_period);
        }
        io_dispatcher.Register(l_near, *l_connection, 0);
        sendBytes(l_far, l_before, l_count - l_before);
        close(l_far);
        ++g_connections;
        ASSERT_TRUE(waitFor([&] { return l_open < MOST_OPEN; }));
    }
    EXPECT_TRUE(waitFor([&] { return l_open == 0; }));
}

// Belongs to the test: its descriptor is unregistered and closed while
// callbacks run, and it gets another one, often under the same number.
class Visitor : public EventHandler
{
  public:
    explicit Visitor(Dispatcher& io_dispatcher) :
        EventHandler(io_dispatcher), iv_Lock(), iv_Near(-1), iv_Far(-1),
        iv_Next(0)
    {
    }

    void Dump(FILE*) override {}

    // A callback that began for the number's former owner may find nothing.
    ACTION HandleEvent(OS_HANDLE i_handle, EVENT i_event) override
    {
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        g_faults += i_event == EVENT_READ ? 0 : 1;
        if (i_handle == iv_Near)
        {
            take();
        }
        return ACTION_CONTINUE;
    }

    void visit(unsigned int i_bytes)
    {
        {
            const std::lock_guard<std::mutex> l_lock(iv_Lock);
            iv_Near = openPair(iv_Far);
            iv_Next = 0;
        }
        iv_Dispatcher.Register(iv_Near, *this, 0);
        sendBytes(iv_Far, 0, i_bytes);
    }

    // The descriptor is disabled when the callback for the one before it was
    // still running: asking for it again is the handler's business.
    // Not at every look, for the same reason as with timers.
    bool hasServed(unsigned int i_bytes)
    {
        if (++iv_Looks % 50 == 0)
        {
            iv_Dispatcher.EnableCallback(iv_Near);
        }
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        return iv_Next >= i_bytes;
    }

    // What has not been served by now is served here.
    void leave()
    {
        iv_Dispatcher.Unregister(iv_Near);
        const std::lock_guard<std::mutex> l_lock(iv_Lock);
        while (take())
        {
        }
        close(iv_Near);
        close(iv_Far);
        iv_Near = -1;
        ++g_connections;
    }

  private:
    bool take()
    {
        unsigned char l_byte = 0;
        if (recv(iv_Near, &l_byte, 1, MSG_DONTWAIT) != 1)
        {
            return false;
        }
        g_faults += l_byte == static_cast<unsigned char>(iv_Next) ? 0 : 1;
        ++iv_Next;
        ++g_served;
        return true;
    }

    std::mutex iv_Lock;
    OS_HANDLE iv_Near;
    int iv_Far;
    unsigned int iv_Next;
    unsigned int iv_Looks = 0;
};

// The visitors stay until the dispatcher is gone.
void comeAndGo(std::vector<std::unique_ptr<Visitor>>& io_visitors,
               unsigned int i_seed)
{
    std::mt19937 l_random(i_seed);
    while (!g_stop)
    {
        for (const std::unique_ptr<Visitor>& l_visitor : io_visitors)
        {
            l_visitor->visit(MOST_BYTES);
        }
        for (const std::unique_ptr<Visitor>& l_visitor : io_visitors)
        {
            const unsigned int l_bytes = draw(l_random, MOST_BYTES);
            EXPECT_TRUE(waitFor([&] { return l_visitor->hasServed(l_bytes); }));
            l_visitor->leave();
        }
    }
}

} // namespace

TEST(DispatcherStressTest, EveryByteIsServedOnceWhileDescriptorsComeAndGo)
{
    // cppcheck-suppress variableScope ; they outlive the dispatcher
    std::vector<std::unique_ptr<Visitor>> l_visitors;
    {
        Dispatcher l_dispatcher(THREADS, THREADS, false);
        for (int l_count = 0; l_count != 10; ++l_count)
        {
            l_visitors.push_back(std::make_unique<Visitor>(l_dispatcher));
        }
        std::vector<std::thread> l_feeders;
        for (unsigned int l_seed = 1; l_seed != 4; ++l_seed)
        {
            l_feeders.emplace_back([&l_dispatcher, l_seed]
                                   { feed(l_dispatcher, l_seed); });
        }
        l_feeders.emplace_back([&] { comeAndGo(l_visitors, 4); });
        // Not a wait for anything: this is how long the load lasts.
        std::this_thread::sleep_for(DURATION);
        EXPECT_TRUE(waitFor([] { return g_connections >= CONNECTIONS; }));
        g_stop = true;
        for (std::thread& l_feeder : l_feeders)
        {
            l_feeder.join();
        }
    }
    EXPECT_EQ(g_sent, g_served);
    EXPECT_EQ(0, g_faults);
    RecordProperty("connections", std::to_string(g_connections));
    RecordProperty("bytes", std::to_string(g_served));
}

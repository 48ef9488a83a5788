// Serves several gauges with one dispatcher: each one has a timer that sends
// its next reading and a descriptor on which the readings arrive. When all
// have sent what they had, a deferred shutdown ends the program.
//
// Usage: gauges GAUGES READINGS
#include <tolv/tolv.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace
{

std::atomic<unsigned int> g_live(0); // gauges that have not gone

/// Timer and descriptor may be served by two threads at once: they share only
/// the socket pair.
class Gauge : public tolv::EventHandler
{
  public:
    Gauge(tolv::Dispatcher& io_dispatcher, unsigned int i_number,
          unsigned int i_readings) :
        EventHandler(io_dispatcher),
        iv_Number(i_number), iv_Unsent(i_readings)
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, iv_Handles) != 0)
        {
            std::perror("socketpair");
            std::abort();
        }
        ++g_live;
        tolv::OS_TIMEOUT l_period(0, 5000 * (i_number + 1));
        iv_Dispatcher.Register(iv_Handles[0], *this, EVENT_READ);
        iv_Dispatcher.AddTimer(*this, l_period);
    }

    /// Called by the dispatcher, after the answer ACTION_REMOVE.
    ~Gauge() override
    {
        close(iv_Handles[0]);
        close(iv_Handles[1]);
        std::printf("gauge %u: %u readings, sum %u\n", iv_Number, iv_Received,
                    iv_Sum);
        --g_live;
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "gauge %u\n", iv_Number);
    }

    ACTION TimerTick(tolv::Timer_t, EVENT i_event) override
    {
        const unsigned char l_reading =
            static_cast<unsigned char>(iv_Unsent * 7);
        if (i_event == EVENT_TIMER && iv_Unsent != 0 &&
            write(iv_Handles[1], &l_reading, 1) == 1)
        {
            --iv_Unsent;
            return ACTION_CONTINUE;
        }
        shutdown(iv_Handles[1], SHUT_WR);
        return ACTION_UNREGISTER;
    }

    ACTION HandleEvent(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        unsigned char l_reading = 0;
        if (i_event == EVENT_READ && read(i_handle, &l_reading, 1) == 1)
        {
            ++iv_Received;
            iv_Sum += l_reading;
            // With the timer's callback under way on another thread the answer
            // alone would leave the descriptor disabled.
            iv_Dispatcher.EnableCallback(i_handle);
            return ACTION_CONTINUE;
        }
        return ACTION_REMOVE;
    }

  private:
    const unsigned int iv_Number;
    unsigned int iv_Unsent;       // the timer's
    unsigned int iv_Received = 0; // the descriptor's
    unsigned int iv_Sum = 0;      // the descriptor's
    int iv_Handles[2];
};

/// Looks every now and then whether all gauges have gone.
class Caretaker : public tolv::EventHandler
{
  public:
    explicit Caretaker(tolv::Dispatcher& io_dispatcher) :
        EventHandler(io_dispatcher)
    {
        tolv::OS_TIMEOUT l_period(0, 50000);
        iv_Dispatcher.AddTimer(*this, l_period);
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "caretaker\n");
    }

    ACTION HandleEvent(tolv::OS_HANDLE, EVENT) override
    {
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            std::printf("shutting down\n");
        }
        else if (g_live == 0)
        {
            // Shutdown() would wait for this very thread.
            iv_Dispatcher.DeferredShutdown(10);
        }
        return ACTION_CONTINUE;
    }
};

unsigned int number(const char* i_text)
{
    return static_cast<unsigned int>(std::strtoul(i_text, nullptr, 10));
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    const unsigned int l_gauges = i_count == 3 ? number(i_arguments[1]) : 0;
    if (l_gauges == 0 || l_gauges > 400)
    {
        std::fprintf(stderr, "usage: %s GAUGES READINGS\n", i_arguments[0]);
        return 2;
    }
    tolv::Dispatcher l_dispatcher(2, 4, true);
    for (unsigned int l_gauge = 0; l_gauge != l_gauges; ++l_gauge)
    {
        // The dispatcher's from its answer ACTION_REMOVE on.
        new Gauge(l_dispatcher, l_gauge, number(i_arguments[2]));
    }
    // cppcheck-suppress unreadVariable ; it lives as long as the loop
    Caretaker l_caretaker(l_dispatcher);
    l_dispatcher.ProcessEvents();
    std::printf("%u gauges left\n", g_live.load());
    return g_live == 0 ? 0 : 1;
}

// Takes errors that other processes send as messages and puts them into this
// machine's error log. Writing there waits for the disk, so several threads
// serve; a connection that stays silent for two seconds is closed.
//
// Usage: errorCollector PORT ERRORS
//
// Listens on 127.0.0.1 and ends after so many errors. The bytes of an error
// must be in order: whoever may connect can end the process otherwise.
#include <tolv/platform/errorLogEntry.hpp>
#include <tolv/platform/traceBuffer.hpp>
#include <tolv/tolv.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace
{

constexpr unsigned short ERROR_REPORT = 0x0E01; // the type of a message

std::atomic<unsigned int> g_expected(0); // errors still to come

void logError(const tolv::Error& i_error)
{
    std::printf("from node %u, reason %04X: %s\n",
                static_cast<unsigned int>(i_error.getNodeId()),
                static_cast<unsigned int>(i_error.getReason()),
                i_error.getText());
    TraceBufferWrite(g_TolvTraceDesc, "%s", i_error.getText());
    ErrorLogEntry l_entry(0x5000, 0, 1, 0, 0, 0, 0, i_error.getReason(),
                          static_cast<unsigned int>(i_error.getErrno()), 0, 0,
                          0, 0, 0, 0);
    l_entry.AddTrace("TOLV", 1024);
    l_entry.commit(0x5000, 0, 0xFF, 0);
}

/// One connection. Its descriptor and its timer may be served by two threads
/// at once; the two share iv_Heard only.
class Reporter : public tolv::Service
{
  public:
    explicit Reporter(tolv::Dispatcher& io_dispatcher) :
        Service(io_dispatcher), iv_Message(0)
    {
    }

    static tolv::Service* make(tolv::Dispatcher& io_dispatcher)
    {
        return new Reporter(io_dispatcher);
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "reporter\n");
    }

    using Service::Open;

    void Open() override
    {
        tolv::OS_TIMEOUT l_patience(2);
        iv_Dispatcher.AddTimer(*this, l_patience);
        Service::Open(); // the last step: from here on it may be gone
    }

    ACTION HandleEvent(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        if (i_event != EVENT_READ)
        {
            return ACTION_REMOVE;
        }
        iv_pChannel->setTimeOut(tolv::TimeValue(0, 200000));
        const tolv::pError_t l_error = iv_Message.Receive(*iv_pChannel);
        if (l_error || (!iv_pChannel->isTimedOut() && !serve()))
        {
            return ACTION_REMOVE;
        }
        // With the timer's callback under way on another thread the answer
        // alone would leave the descriptor disabled.
        iv_Dispatcher.EnableCallback(i_handle);
        return ACTION_CONTINUE;
    }

    ACTION TimerTick(tolv::Timer_t, EVENT i_event) override
    {
        const bool l_heard = iv_Heard.exchange(false);
        return i_event == EVENT_TIMER && l_heard ? ACTION_CONTINUE
                                                 : ACTION_REMOVE;
    }

  private:
    // Logs what the message carries and sends its header back as a receipt.
    bool serve()
    {
        iv_Heard = true;
        if (iv_Message.getMsgType() != ERROR_REPORT)
        {
            return false;
        }
        tolv::pError_t l_reported;
        iv_Message >> l_reported;
        logError(*l_reported);
        iv_Message.Resize(0);
        const tolv::pError_t l_error = iv_Message.Send(*iv_pChannel);
        iv_Message = tolv::NetMessage(0);
        if (--g_expected == 0)
        {
            iv_Dispatcher.DeferredShutdown(10);
        }
        return !l_error;
    }

    tolv::NetMessage iv_Message;      // the descriptor's
    std::atomic<bool> iv_Heard{true}; // since the last tick
};

unsigned int number(const char* i_text)
{
    return static_cast<unsigned int>(std::strtoul(i_text, nullptr, 10));
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    if (i_count != 3)
    {
        std::fprintf(stderr, "usage: %s PORT ERRORS\n", i_arguments[0]);
        return 2;
    }
    g_expected = number(i_arguments[2]);
    tolv::Dispatcher l_dispatcher(2, 8, true);
    tolv::SockAcc l_acceptor(
        l_dispatcher, Reporter::make, "127.0.0.1",
        static_cast<unsigned short>(number(i_arguments[1])),
        tolv::SOCK_TYPE_TCP);
    const tolv::pError_t l_error = l_acceptor.Open();
    if (l_error)
    {
        std::printf("%s\n", l_error->getText());
        return 1;
    }
    std::printf("listening\n");
    std::fflush(stdout);
    l_dispatcher.ProcessEvents();
    return 0;
}

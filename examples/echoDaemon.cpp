// A daemon that sends every message back, over each transport that this
// machine has: TCP and UDP on both loopback addresses, a UNIX-domain socket
// and SCTP. SIGTERM ends it in good order.
//
// Usage: echoDaemon [-f] FOLDER PORT
//
// -f stays in the foreground. FOLDER holds what it leaves: "echo.socket",
// "echo.trace", and "echo.ready" from when it serves until it ends, with its
// process and its transports. PORT is the same for all transports.
#include <tolv/platform/errorLogEntry.hpp>
#include <tolv/platform/traceBuffer.hpp>
#include <tolv/tolv.hpp>

#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <string>

namespace
{

constexpr unsigned short NO_SUCH_SOCKET = 0x4403;    // an acceptor's reason
constexpr unsigned short CONNECTION_CLOSED = 0x440D; // a channel's reason
constexpr unsigned short CHECKPOINT = 0x0E00;        // ours in a profile
constexpr unsigned int LONGEST_MESSAGE = 16 << 20;   // bytes

std::atomic<unsigned int> g_echoed(0); // messages

void trace(const std::string& i_text)
{
    tolv::TraceFile::getInstance()->Printf(__FILE__, __LINE__, "%s",
                                           i_text.c_str());
}

/// Puts an error into the platform's log; the newest trace goes with it.
void logError(const tolv::Error& i_error)
{
    TraceBufferWrite(g_TolvTraceDesc, "%s", i_error.getText());
    ErrorLogEntry l_entry(0x5000, 0, 1, 0, 0, 0, 0, i_error.getReason(),
                          static_cast<unsigned int>(i_error.getErrno()), 0, 0,
                          0, 0, 0, 0);
    l_entry.AddTrace("TOLV", 1024);
    l_entry.commit(0x5000, 0, 0xFF, 0);
}

/// One connection; over UDP all peers of the port.
class Echo : public tolv::Service
{
  public:
    explicit Echo(tolv::Dispatcher& io_dispatcher) :
        Service(io_dispatcher), iv_Message(0)
    {
    }

    static tolv::Service* make(tolv::Dispatcher& io_dispatcher)
    {
        return new Echo(io_dispatcher);
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "echo\n");
    }

    ACTION HandleEvent(tolv::OS_HANDLE, EVENT i_event) override
    {
        if (i_event != EVENT_READ)
        {
            return ACTION_REMOVE;
        }
        // A slow peer keeps a thread for so long only. Set before each read,
        // because a time-out that has run out does not come back by itself.
        iv_pChannel->setTimeOut(tolv::TimeValue(0, 200000));
        tolv::pError_t l_error = iv_Message.Receive(*iv_pChannel);
        const bool l_whole = !l_error && !iv_pChannel->isTimedOut();
        if (l_whole)
        {
            iv_Message.addProfileCheckPoint(CHECKPOINT, 0);
            l_error = iv_Message.Send(*iv_pChannel); // with the same header
            // A profile would stay for a next message that has none.
            iv_Message = tolv::NetMessage(0);
            ++g_echoed;
        }
        if (l_error && l_error->getReason() != CONNECTION_CLOSED)
        {
            logError(*l_error);
        }
        if (iv_pChannel->getType() == tolv::SOCK_TYPE_UDP)
        {
            return l_whole ? ACTION_CONTINUE : dropDatagram();
        }
        return l_error ? ACTION_REMOVE : ACTION_CONTINUE;
    }

  private:
    // The port's only service stays, whatever one of its peers sends. An
    // invalid header was only peeked at, and no datagram completes another;
    // that a good one behind it may be lost is in the nature of datagrams.
    ACTION dropDatagram()
    {
        char l_byte = 0;
        unsigned int l_count = 1;
        iv_pChannel->setTimeOut(tolv::TimeValue());
        const tolv::pError_t l_ignored = iv_pChannel->Read(&l_byte, l_count);
        iv_Message = tolv::NetMessage(0);
        return ACTION_CONTINUE;
    }

    tolv::NetMessage iv_Message; // perhaps received in part
};

/// Ends the dispatcher on SIGTERM or SIGINT, which must be blocked in every
/// thread, and traces every second what went on.
class Caretaker : public tolv::EventHandler
{
  public:
    Caretaker(tolv::Dispatcher& io_dispatcher, const sigset_t& i_signals) :
        EventHandler(io_dispatcher),
        iv_Signals(signalfd(-1, &i_signals, SFD_CLOEXEC))
    {
        tolv::OS_TIMEOUT l_second(1);
        iv_Dispatcher.Register(iv_Signals, *this, EVENT_READ);
        iv_Dispatcher.AddTimer(*this, l_second);
    }

    ~Caretaker() override
    {
        close(iv_Signals);
    }

    void Dump(FILE* o_stream) override
    {
        std::fprintf(o_stream, "caretaker\n");
    }

    ACTION HandleEvent(tolv::OS_HANDLE, EVENT i_event) override
    {
        if (i_event == EVENT_READ)
        {
            trace("told to stop");
            // Shutdown() would wait for this very thread.
            iv_Dispatcher.DeferredShutdown(10);
        }
        return ACTION_UNREGISTER;
    }

    ACTION TimerTick(tolv::Timer_t, EVENT) override
    {
        const unsigned int l_echoed = g_echoed;
        if (l_echoed != iv_Traced)
        {
            trace("messages echoed: " + std::to_string(l_echoed));
            iv_Traced = l_echoed;
        }
        return ACTION_CONTINUE;
    }

  private:
    const int iv_Signals;
    unsigned int iv_Traced = 0; // the timer's
};

/// Opens an acceptor and notes its name; false when it should have worked.
template <class ACCEPTOR>
bool open(ACCEPTOR& io_acceptor, const char* i_name, std::string& io_open)
{
    const tolv::pError_t l_error = io_acceptor.Open();
    if (!l_error)
    {
        io_open += std::string(" ") + i_name;
        return true;
    }
    trace(std::string(i_name) + ": " + l_error->getText());
    if (l_error->getReason() == NO_SUCH_SOCKET ||
        l_error->getErrno() == EADDRNOTAVAIL)
    {
        return true; // this machine has no such transport, or not the address
    }
    logError(*l_error);
    return false;
}

/// Tells that the daemon serves. Renamed, so that whoever finds the file finds
/// all of it.
bool writeReady(const std::string& i_path, const std::string& i_transports)
{
    const std::string l_new = i_path + ".new";
    FILE* l_file = std::fopen(l_new.c_str(), "w");
    if (l_file == nullptr)
    {
        return false;
    }
    std::fprintf(l_file, "%i%s\n", static_cast<int>(getpid()),
                 i_transports.c_str());
    return std::fclose(l_file) == 0 &&
           std::rename(l_new.c_str(), i_path.c_str()) == 0;
}

bool serve(tolv::App& io_app, const std::string& i_folder,
           unsigned short i_port)
{
    using namespace tolv;
    // Blocked before there are threads, which inherit it.
    sigset_t l_signals;
    sigemptyset(&l_signals);
    sigaddset(&l_signals, SIGTERM);
    sigaddset(&l_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &l_signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a Sock6Channel's peer may close any time
    NetMessage::setMaxMessageLength(LONGEST_MESSAGE);

    Dispatcher l_dispatcher(1, 4, true);
    Caretaker l_caretaker(l_dispatcher, l_signals);
    const std::string l_path = i_folder + "/echo.socket";
    SockAcc l_tcp(l_dispatcher, Echo::make, "127.0.0.1", i_port, SOCK_TYPE_TCP);
    SockAcc l_udp(l_dispatcher, Echo::make, "127.0.0.1", i_port, SOCK_TYPE_UDP);
    SockAcc l_sctp(l_dispatcher, Echo::make, "127.0.0.1", i_port,
                   SOCK_TYPE_SCTP);
    SockAcc l_unix(l_dispatcher, Echo::make, l_path.c_str(), 0, SOCK_TYPE_UNIX);
    Sock6Acc l_tcp6(l_dispatcher, Echo::make, "::1", i_port, SOCK_TYPE_TCP);
    Sock6Acc l_udp6(l_dispatcher, Echo::make, "::1", i_port, SOCK_TYPE_UDP);

    std::string l_open;
    const std::string l_ready = i_folder + "/echo.ready";
    const bool l_good =
        open(l_tcp, "tcp", l_open) && open(l_tcp6, "tcp6", l_open) &&
        open(l_udp, "udp", l_open) && open(l_udp6, "udp6", l_open) &&
        open(l_unix, "unix", l_open) && open(l_sctp, "sctp", l_open) &&
        writeReady(l_ready, l_open);
    trace((l_good ? "serving" : "cannot serve; open:") + l_open);
    if (!l_good)
    {
        l_dispatcher.DeferredShutdown(10); // Run() returns when it is done
    }
    io_app.Run(l_dispatcher);
    std::remove(l_ready.c_str());
    trace("stopped after messages: " + std::to_string(g_echoed));
    return l_good;
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    const bool l_foreground =
        i_count == 4 && std::strcmp(i_arguments[1], "-f") == 0;
    const unsigned long l_port =
        l_foreground || i_count == 3
            ? std::strtoul(i_arguments[i_count - 1], nullptr, 10)
            : 0;
    if (l_port == 0 || l_port > 65535)
    {
        std::fprintf(stderr, "usage: %s [-f] FOLDER PORT\n", i_arguments[0]);
        return 2;
    }
    // A daemon's folder is "/", where a relative path would lead elsewhere.
    char l_folder[PATH_MAX];
    if (realpath(i_arguments[i_count - 2], l_folder) == nullptr)
    {
        std::perror(i_arguments[i_count - 2]);
        return 1;
    }
    tolv::App l_app;
    if (!l_foreground)
    {
        l_app.Daemonize(); // only the new process comes back
    }
    umask(S_IRWXG | S_IRWXO); // what it makes, the socket too, is its own
    FILE* const l_trace =
        std::fopen((std::string(l_folder) + "/echo.trace").c_str(), "we");
    if (l_trace == nullptr)
    {
        return 1;
    }
    tolv::TraceFile::getInstance(l_trace);
    return serve(l_app, l_folder, static_cast<unsigned short>(l_port)) ? 0 : 1;
}

// Tries to read files and reports those that it cannot read to an
// errorCollector: the error itself travels, with errno and a trace of this
// process. The collector is on one of two addresses; the first one that
// answers is taken.
//
// Usage: errorReporter ADDRESS1 ADDRESS2 PORT FILE...
#include <tolv/platform/traceBuffer.hpp>
#include <tolv/tolv.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <memory>

namespace
{

constexpr unsigned char ORIGIN_READ = 1;
constexpr unsigned short REASON_UNREADABLE = 0x5002;
constexpr unsigned short ERROR_REPORT = 0x0E01; // the type of a message

class FileReader : public tolv::Base
{
  public:
    tolv::pError_t read(const char* i_path)
    {
        const int l_fd = open(i_path, O_RDONLY | O_CLOEXEC);
        if (l_fd == -1)
        {
            TraceBufferWrite(g_TolvTraceDesc, "cannot open %s", i_path);
            return BuildLog(ORIGIN_READ, REASON_UNREADABLE, g_TolvTraceDesc,
                            "Cannot open %s, errno %i", i_path, errno);
        }
        close(l_fd);
        return tolv::pError_t();
    }
};

/// Sends an error and waits for the receipt.
///
/// Its bytes are in the byte order of this machine, as in any DataBuff: the
/// collector runs on one of the same kind.
tolv::pError_t report(tolv::Channel& io_channel, tolv::pError_t i_error)
{
    tolv::NetMessage l_message(1, ERROR_REPORT, 0, tolv::NetMessage::FLAG_NONE,
                               static_cast<unsigned int>(i_error->getSize()));
    l_message << i_error;
    tolv::pError_t l_failure = l_message.Send(io_channel);
    if (!l_failure)
    {
        l_failure = l_message.Receive(io_channel);
    }
    return l_failure;
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    if (i_count < 5)
    {
        std::fprintf(stderr, "usage: %s ADDRESS1 ADDRESS2 PORT FILE...\n",
                     i_arguments[0]);
        return 2;
    }
    tolv::SockConn l_connector(tolv::SOCK_TYPE_TCP);
    tolv::Channel* l_connected = nullptr;
    tolv::pError_t l_failure =
        l_connector.Connect(i_arguments[1], i_arguments[2],
                            htons(static_cast<unsigned short>(
                                std::strtoul(i_arguments[3], nullptr, 10))),
                            l_connected);
    const std::unique_ptr<tolv::Channel> l_channel(l_connected);
    if (!l_failure)
    {
        std::printf("connected to %s\n", l_channel->getRemoteAddress());
    }
    FileReader l_reader;
    for (int l_file = 4; l_file != i_count && !l_failure; ++l_file)
    {
        tolv::pError_t l_error = l_reader.read(i_arguments[l_file]);
        if (l_error)
        {
            l_failure = report(*l_channel, l_error);
        }
    }
    if (l_failure)
    {
        std::fprintf(stderr, "%s\n", l_failure->getText());
    }
    return l_failure ? 1 : 0;
}

// Sends a file through an echoDaemon, message by message, over each transport
// that is named, compares what comes back and prints how long it took.
//
// Usage: echoClient [-s BYTES] FOLDER PORT FILE TRANSPORT...
//
// FOLDER is the daemon's; TRANSPORT is tcp, tcp6, udp, udp6, unix or sctp.
// What came back is left in "echo.TRANSPORT" below FOLDER, the profile of the
// last message in "profile.TRANSPORT.csv". A message has BYTES of the file,
// 8192 unless said.
#include <tolv/tolv.hpp>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace
{

using pChannel_t = std::unique_ptr<tolv::Channel>;
using Latencies_t = std::vector<double>; // microseconds

constexpr unsigned int MESSAGE_ID = 1000; // of the first
constexpr unsigned short MESSAGE_TYPE = 7;

struct Options
{
    std::size_t messageSize = 8192; // bytes of the file
    std::string folder;
    unsigned short port = 0; // in network byte order
    std::string content;     // of the file
    std::string profile;     // where the next profile goes
};

/// What a failed Connect() leaves at null, it has told why.
pChannel_t connect(tolv::SockType i_type, const char* i_host,
                   unsigned short i_port)
{
    tolv::SockConn l_connector(i_type);
    tolv::Channel* l_channel = nullptr;
    const tolv::pError_t l_error =
        l_connector.Connect(i_host, i_port, l_channel);
    if (l_error)
    {
        std::printf("%s\n", l_error->getText());
    }
    return pChannel_t(l_channel);
}

/// The connector knows IPv4; a socket of any other kind becomes a channel by
/// itself.
pChannel_t connect6(tolv::SockType i_type, const char* i_host,
                    unsigned short i_port)
{
    const std::int32_t* l_row = tolv::Sock6Acc::LookupSock6Properties(i_type);
    tolv::Sock6Addr_t l_address = {};
    tolv::Sock6Acc::initSock6AddrStruct(i_host, i_port, l_address, i_type);
    std::unique_ptr<tolv::Sock6Channel> l_channel(
        new tolv::Sock6Channel(socket(l_row[0], l_row[1], l_row[2]), i_type));
    l_channel->setRemoteAddress(l_address);
    if (connect(l_channel->getHandle(), &l_address.addr.sa, l_address.length) !=
        0)
    {
        std::perror(i_host);
        return nullptr;
    }
    return l_channel;
}

pChannel_t connectTo(const std::string& i_transport, const Options& i_options)
{
    using namespace tolv;
    const std::string l_path = i_options.folder + "/echo.socket";
    const unsigned short l_port = i_options.port;
    return i_transport == "tcp"   ? connect(SOCK_TYPE_TCP, "127.0.0.1", l_port)
           : i_transport == "udp" ? connect(SOCK_TYPE_UDP, "127.0.0.1", l_port)
           : i_transport == "sctp"
               ? connect(SOCK_TYPE_SCTP, "127.0.0.1", l_port)
           : i_transport == "unix" ? connect(SOCK_TYPE_UNIX, l_path.c_str(), 0)
           : i_transport == "tcp6" ? connect6(SOCK_TYPE_TCP, "::1", l_port)
           : i_transport == "udp6" ? connect6(SOCK_TYPE_UDP, "::1", l_port)
                                   : nullptr;
}

/// Sends io_message and receives the answer into it.
bool exchange(tolv::Channel& io_channel, tolv::NetMessage& io_message)
{
    const unsigned int l_id = io_message.getMsgId();
    tolv::pError_t l_error = io_message.Send(io_channel);
    if (!l_error)
    {
        io_channel.setTimeOut(tolv::TimeValue(10));
        l_error = io_message.Receive(io_channel);
    }
    if (l_error)
    {
        std::printf("%s\n", l_error->getText());
        return false;
    }
    if (io_channel.isTimedOut() || io_message.getMsgId() != l_id)
    {
        std::printf("no answer to message %u\n", l_id);
        return false;
    }
    return true;
}

/// One part of the file there and back, the last one with a profile.
bool sendPart(tolv::Channel& io_channel, const Options& i_options,
              std::size_t i_at, std::ofstream& o_echo, Latencies_t& o_latencies)
{
    const std::size_t l_size =
        std::min(i_options.messageSize, i_options.content.size() - i_at);
    const unsigned int l_id =
        MESSAGE_ID + static_cast<unsigned int>(i_at / i_options.messageSize);
    tolv::NetMessage l_message(l_id, MESSAGE_TYPE, 0,
                               tolv::NetMessage::FLAG_NONE, 0);
    l_message.setData(i_options.content.data() + i_at,
                      static_cast<unsigned int>(l_size));

    using Clock_t = std::chrono::steady_clock;
    const Clock_t::time_point l_start = Clock_t::now();
    if (i_at + l_size == i_options.content.size())
    {
        l_message.beginProfile();
    }
    if (!exchange(io_channel, l_message))
    {
        return false;
    }
    l_message.endProfile(l_id); // the row for the CSV file
    const std::chrono::duration<double, std::micro> l_taken =
        Clock_t::now() - l_start;
    o_latencies.push_back(l_taken.count());

    o_echo.write(l_message.getData(),
                 static_cast<std::streamsize>(l_message.getSize()));
    return l_message.getSize() == l_size &&
           i_options.content.compare(i_at, l_size, l_message.getData(),
                                     l_size) == 0;
}

/// The latency that so many hundredths of the messages do not exceed.
double percentile(const Latencies_t& i_sorted, std::size_t i_hundredths)
{
    return i_sorted[(i_sorted.size() - 1) * i_hundredths / 100];
}

void report(const std::string& i_transport, Latencies_t& io_latencies)
{
    double l_sum = 0;
    for (const double l_latency : io_latencies)
    {
        l_sum += l_latency;
    }
    std::sort(io_latencies.begin(), io_latencies.end());
    std::printf("%-9s %8zu %10.0f %8.0f %8.0f %8.0f %8.0f\n",
                i_transport.c_str(), io_latencies.size(),
                static_cast<double>(io_latencies.size()) * 1e6 / l_sum,
                percentile(io_latencies, 50), percentile(io_latencies, 90),
                percentile(io_latencies, 99), io_latencies.back());
}

bool sendFile(const std::string& i_transport, Options& io_options)
{
    const pChannel_t l_channel = connectTo(i_transport, io_options);
    if (l_channel == nullptr)
    {
        std::printf("%s: no connection\n", i_transport.c_str());
        return false;
    }
    // The library keeps the pointer.
    io_options.profile = io_options.folder + "/profile." + i_transport + ".csv";
    tolv::g_ProfileCsvPath = io_options.profile.c_str();
    std::ofstream l_echo(io_options.folder + "/echo." + i_transport,
                         std::ios::binary);
    Latencies_t l_latencies;
    for (std::size_t l_at = 0; l_at < io_options.content.size();
         l_at += io_options.messageSize)
    {
        if (!sendPart(*l_channel, io_options, l_at, l_echo, l_latencies))
        {
            std::printf("%s: no good echo of byte %zu on\n",
                        i_transport.c_str(), l_at);
            return false;
        }
    }
    report(i_transport, l_latencies);
    return !l_echo.fail();
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    Options l_options;
    int l_next = 1;
    if (i_count > 2 && std::strcmp(i_arguments[1], "-s") == 0)
    {
        l_options.messageSize = std::strtoul(i_arguments[2], nullptr, 10);
        l_next = 3;
    }
    if (i_count < l_next + 4 || l_options.messageSize == 0)
    {
        std::fprintf(stderr,
                     "usage: %s [-s BYTES] FOLDER PORT FILE TRANSPORT...\n",
                     i_arguments[0]);
        return 2;
    }
    l_options.folder = i_arguments[l_next];
    l_options.port = htons(static_cast<unsigned short>(
        std::strtoul(i_arguments[l_next + 1], nullptr, 10)));
    std::ifstream l_file(i_arguments[l_next + 2], std::ios::binary);
    l_options.content.assign(std::istreambuf_iterator<char>(l_file),
                             std::istreambuf_iterator<char>());
    if (l_options.content.empty())
    {
        std::fprintf(stderr, "%s: nothing to send\n", i_arguments[l_next + 2]);
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN); // a Sock6Channel's peer may close any time
    std::printf("transport messages  per second  latency in us: "
                "50%%      90%%      99%%      max\n");
    bool l_good = true;
    for (int l_name = l_next + 3; l_name < i_count; ++l_name)
    {
        l_good = sendFile(i_arguments[l_name], l_options) && l_good;
    }
    return l_good ? 0 : 1;
}

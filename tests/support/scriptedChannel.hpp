// A channel without a socket that does what a test says.
#ifndef TOLV_TESTS_SUPPORT_SCRIPTEDCHANNEL_HPP
#define TOLV_TESTS_SUPPORT_SCRIPTEDCHANNEL_HPP

#include "tolv/vex/tolvChannel.hpp"

#include <algorithm>
#include <climits>
#include <cstring>

#include <functional>
#include <string>
#include <vector>

/// Hands out `incoming` as a stream with the time-out on does: a call that
/// asks for more gets what is there, without an error unless `error` is set.
/// Keeps what was written in `sent`.
class ScriptedChannel : public tolv::Channel
{
  public:
    ScriptedChannel() : Channel(tolv::OS_INVALID, tolv::SOCK_TYPE_TCP) {}

    explicit ScriptedChannel(const std::string& i_incoming) : ScriptedChannel()
    {
        incoming = i_incoming;
    }

    void Dump(FILE* /*o_stream*/) override {}

    tolv::pError_t Peek(void* o_buf, unsigned int& io_bytes) override
    {
        peeks.push_back(io_bytes);
        return receive(o_buf, io_bytes);
    }

    tolv::pError_t Read(void* o_buf, unsigned int& io_bytes) override
    {
        reads.push_back(io_bytes);
        tolv::pError_t l_error = receive(o_buf, io_bytes);
        incoming.erase(0, io_bytes);
        if (onRead)
        {
            onRead(static_cast<char*>(o_buf), io_bytes);
        }
        return l_error;
    }

    tolv::pError_t Write(void* i_buf, unsigned int& io_bytes) override
    {
        writes.push_back(io_bytes);
        if (writeError != 0)
        {
            io_bytes = 0;
            return failure(writeError);
        }
        io_bytes = std::min(io_bytes, mostToWrite);
        sent.append(static_cast<const char*>(i_buf), io_bytes);
        return tolv::pError_t();
    }

    bool isAlive() override
    {
        return true;
    }

    const char* getRemoteAddress() override
    {
        return "";
    }

    int getPort() override
    {
        return 0;
    }

    int RefreshChannel() override
    {
        return 0;
    }

    std::string incoming; // not read yet
    std::string sent;
    unsigned short error = 0;      // reason of receiving less than asked for
    unsigned short writeError = 0; // reason, before anything is written
    unsigned int mostToWrite = UINT_MAX; // bytes in each call
    std::vector<unsigned int> peeks;     // bytes asked for, call by call
    std::vector<unsigned int> reads;
    std::vector<unsigned int> writes;
    std::function<void(char* o_buf, unsigned int& io_bytes)> onRead;

  private:
    tolv::pError_t failure(unsigned short i_reason)
    {
        return BuildLog(9, i_reason, 0, "scripted");
    }

    tolv::pError_t receive(void* o_buf, unsigned int& io_bytes)
    {
        const unsigned int l_asked = io_bytes;
        io_bytes =
            std::min(l_asked, static_cast<unsigned int>(std::min<std::size_t>(
                                  incoming.size(), UINT_MAX)));
        std::memcpy(o_buf, incoming.data(), io_bytes);
        return io_bytes < l_asked && error != 0 ? failure(error)
                                                : tolv::pError_t();
    }
};

#endif

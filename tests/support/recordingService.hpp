// Services that acceptors and connectors are given, and what happened to them.
#ifndef TOLV_TESTS_SUPPORT_RECORDINGSERVICE_HPP
#define TOLV_TESTS_SUPPORT_RECORDINGSERVICE_HPP

#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvService.hpp"

#include <string>
#include <vector>

/// Records in which order it is set up, and the peer that its channel knows
/// at each step.
class RecordingService : public tolv::Service
{
  public:
    explicit RecordingService(tolv::Dispatcher& io_dispatcher) :
        Service(io_dispatcher)
    {
        s_last = this;
        ++s_made;
    }

    ~RecordingService() override
    {
        s_last = nullptr;
        ++s_destroyed;
    }

    RecordingService(const RecordingService&) = delete;
    RecordingService& operator=(const RecordingService&) = delete;

    /// Destroys the last one and forgets all.
    static void forget()
    {
        delete s_last;
        s_made = 0;
        s_destroyed = 0;
    }

    /// A factory for acceptors.
    static tolv::Service* make(tolv::Dispatcher& io_dispatcher)
    {
        return new RecordingService(io_dispatcher);
    }

    /// A factory that refuses.
    static tolv::Service* refuse(tolv::Dispatcher& /*io_dispatcher*/)
    {
        return nullptr;
    }

    using Service::Open;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        return ACTION_CONTINUE;
    }

    void setChannel(tolv::Channel& io_channel) override
    {
        Service::setChannel(io_channel);
        steps.push_back("setChannel " + peer());
    }

    void Open() override
    {
        steps.push_back("Open " + peer());
        Service::Open();
    }

    tolv::Channel* channel() const
    {
        return iv_pChannel;
    }

    std::vector<std::string> steps;

    static inline RecordingService* s_last = nullptr; // null: destroyed
    static inline int s_made = 0;
    static inline int s_destroyed = 0;

  private:
    std::string peer() const
    {
        return iv_pChannel->getRemoteAddress() + std::string(" ") +
               std::to_string(iv_pChannel->getPort());
    }
};

#endif

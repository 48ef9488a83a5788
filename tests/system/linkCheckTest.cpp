#include "support/countingHandler.hpp"
#include "support/fakeUptime.hpp"
#include "support/loopProbe.hpp"
#include "tolv/vex/tolvApp.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvSctpLinkCheck.hpp"
#include "tolv/vex/tolvService.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <optional>

// A link check, from its timer to the channels of all services.

using namespace tolv;

namespace
{

constexpr std::uint32_t START = 5000; // the uptime when a test begins
const TimeValue MINUTE(60, 0);

/// Counts how often it is asked to look at its addresses.
class CountingChannel : public SockChannel
{
  public:
    using SockChannel::SockChannel;

    int RefreshChannel() override
    {
        ++refreshes;
        return -1; // of no account
    }

    std::atomic<int> refreshes{0};
};

class QuietService : public Service
{
  public:
    using Service::Service;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT i_event) override
    {
        EXPECT_EQ(EVENT_SHUTDOWN, i_event);
        return ACTION_UNREGISTER;
    }
};

class LinkCheckTest : public ::testing::Test
{
  protected:
    // A channel whose descriptor is never readable.
    CountingChannel& serve(QuietService& io_service, SockType i_type)
    {
        CountingChannel* const l_channel =
            new CountingChannel(dup(iv_Quiet.near()), i_type);
        io_service.setChannel(*l_channel);
        io_service.Open();
        return *l_channel;
    }

    // Lets the loop go round until it has nothing to do.
    void goTo(std::uint32_t i_seconds)
    {
        fakeUptime::set(TimeValue(START + i_seconds));
        const int l_reads = iv_Waker.iv_Reads;
        iv_Wake.send();
        EXPECT_TRUE(waitFor([&] { return iv_Waker.iv_Reads > l_reads; }));
        EXPECT_TRUE(loopProbe::waitUntilIdle());
    }

    void startAt(std::uint32_t i_uptime)
    {
        fakeUptime::set(TimeValue(i_uptime));
        iv_Waker.iv_OnRefresh = [this](OS_HANDLE) { ++iv_Refreshes; };
        iv_Dispatcher.emplace(1U, 1U, false);
        iv_Dispatcher->Register(iv_Wake.near(), iv_Waker, 2);
    }

    SocketPair iv_Quiet;
    SocketPair iv_Wake;
    CountingHandler iv_Waker;
    std::atomic<int> iv_Refreshes{0}; // of iv_Waker
    std::optional<Dispatcher> iv_Dispatcher;
};

} // namespace

TEST_F(LinkCheckTest, EveryMinuteSctpChannelsAloneAreRefreshed)
{
    startAt(START);
    QuietService l_first(*iv_Dispatcher);
    QuietService l_second(*iv_Dispatcher);
    QuietService l_other(*iv_Dispatcher);
    CountingChannel& l_sctp = serve(l_first, SOCK_TYPE_SCTP);
    CountingChannel& l_sctpToo = serve(l_second, SOCK_TYPE_SCTP);
    CountingChannel& l_tcp = serve(l_other, SOCK_TYPE_TCP);
    App().EnableSCTP(*iv_Dispatcher);
    EXPECT_TRUE(loopProbe::waitUntilIdle());
    EXPECT_EQ(MINUTE, loopProbe::timeOut());
    goTo(59);
    EXPECT_EQ(0, l_sctp.refreshes);
    for (int l_minute = 1; l_minute != 4; ++l_minute)
    {
        goTo(60U * static_cast<std::uint32_t>(l_minute));
        EXPECT_EQ(l_minute, l_sctp.refreshes);
        EXPECT_EQ(l_minute, l_sctpToo.refreshes);
        EXPECT_EQ(l_minute, iv_Refreshes) << "handlers of any kind are asked";
        EXPECT_EQ(MINUTE, loopProbe::timeOut());
    }
    EXPECT_EQ(0, l_tcp.refreshes);
    iv_Dispatcher.reset();
}

TEST_F(LinkCheckTest, TwoChecksGoOnIndependently)
{
    startAt(START);
    const Timer_t l_first = App().EnableSCTP(*iv_Dispatcher);
    const Timer_t l_second = App().EnableSCTP(*iv_Dispatcher);
    EXPECT_NE(l_first, l_second);
    goTo(60);
    EXPECT_EQ(2, iv_Refreshes);
    OS_TIMEOUT l_longer(90);
    iv_Dispatcher->UpdateTimer(iv_Waker, l_first, l_longer);
    goTo(120);
    EXPECT_EQ(3, iv_Refreshes);
    goTo(150);
    EXPECT_EQ(4, iv_Refreshes);
    iv_Dispatcher.reset();
}

TEST_F(LinkCheckTest, DispatcherDestroysTheCheckAtItsShutdown)
{
    static bool s_destroyed = false;
    class Check : public SctpLinkCheckEH
    {
      public:
        using SctpLinkCheckEH::SctpLinkCheckEH;

        ~Check() override
        {
            s_destroyed = true;
        }
    };
    startAt(START);
    OS_TIMEOUT l_minute = MINUTE;
    iv_Dispatcher->AddTimer(*new Check(*iv_Dispatcher), l_minute);
    goTo(60);
    EXPECT_EQ(1, iv_Refreshes);
    EXPECT_FALSE(s_destroyed);
    iv_Dispatcher.reset();
    EXPECT_TRUE(s_destroyed);
}

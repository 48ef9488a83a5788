#include "tolv/vex/tolvService.hpp"

#include "support/fakeDispatcher.hpp"
#include "tolv/vex/tolvChannel.hpp"

#include <gtest/gtest.h>

using namespace tolv;

namespace
{

constexpr OS_HANDLE HANDLE = 700; // of no open file: closing it does nothing

/// Counts what a service does with it.
class FakeChannel : public Channel
{
  public:
    explicit FakeChannel(SockType i_type, int* o_destroyed = nullptr) :
        Channel(HANDLE, i_type), iv_Destroyed(o_destroyed)
    {
    }
    ~FakeChannel() override
    {
        if (iv_Destroyed != nullptr)
        {
            ++*iv_Destroyed;
        }
    }
    FakeChannel(const FakeChannel&) = delete;
    FakeChannel& operator=(const FakeChannel&) = delete;

    void Dump(FILE*) override
    {
        ++calls;
    }
    pError_t Peek(void*, unsigned int&) override
    {
        ++calls;
        return pError_t();
    }
    pError_t Read(void*, unsigned int&) override
    {
        ++calls;
        return pError_t();
    }
    pError_t Write(void*, unsigned int&) override
    {
        ++calls;
        return pError_t();
    }
    bool isAlive() override
    {
        ++calls;
        return true;
    }
    const char* getRemoteAddress() override
    {
        ++calls;
        return "";
    }
    int getPort() override
    {
        ++calls;
        return 0;
    }
    int RefreshChannel() override
    {
        ++refreshes;
        return -1;
    }

    int calls = 0;
    int refreshes = 0;

  private:
    int* iv_Destroyed;
};

class TestService : public Service
{
  public:
    using Service::Service;

    void Dump(FILE*) override {}
    ACTION HandleEvent(OS_HANDLE, EVENT) override
    {
        return ACTION_CONTINUE;
    }

    Channel* channel() const
    {
        return iv_pChannel;
    }
};

class ServiceTest : public ::testing::Test
{
  protected:
    FakeDispatcher iv_Dispatcher;
    TestService iv_Service{iv_Dispatcher};
};

} // namespace

TEST_F(ServiceTest, NewServiceHasNoChannelAndRegistersNothing)
{
    EXPECT_EQ(nullptr, iv_Service.channel());
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(ServiceTest, OpenRegistersTheDescriptorOfItsChannelForReading)
{
    FakeChannel* l_channel = new FakeChannel(SOCK_TYPE_TCP);
    iv_Service.setChannel(*l_channel);
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
    iv_Service.Open();
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(HANDLE, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(&iv_Service, iv_Dispatcher.registrations[0].handler);
    EXPECT_EQ(2U, iv_Dispatcher.registrations[0].mask);
    EXPECT_EQ(0, l_channel->calls);
}

TEST_F(ServiceTest, OpenWithoutAChannelDoesNothing)
{
    iv_Service.Open();
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(ServiceTest, OpenOfADescriptorRegistersItAndLeavesTheChannel)
{
    iv_Service.Open(12);
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(12, iv_Dispatcher.registrations[0].handle);
    EXPECT_EQ(&iv_Service, iv_Dispatcher.registrations[0].handler);
    EXPECT_EQ(2U, iv_Dispatcher.registrations[0].mask);
    EXPECT_EQ(nullptr, iv_Service.channel());
}

TEST_F(ServiceTest, OpenDoesNotGoThroughAnOverriddenOpen)
{
    class Overrides : public TestService
    {
      public:
        using TestService::Open;
        using TestService::TestService;

        void Open(OS_HANDLE) override
        {
            Open(); // were it called by this one, it would never end
        }
    };
    Overrides l_service(iv_Dispatcher);
    l_service.setChannel(*new FakeChannel(SOCK_TYPE_TCP));
    l_service.Open(5);
    ASSERT_EQ(1U, iv_Dispatcher.registrations.size());
    EXPECT_EQ(HANDLE, iv_Dispatcher.registrations[0].handle);
}

TEST_F(ServiceTest, DestructorDestroysTheChannel)
{
    int l_destroyed = 0;
    {
        TestService l_service(iv_Dispatcher);
        l_service.setChannel(*new FakeChannel(SOCK_TYPE_TCP, &l_destroyed));
        EXPECT_EQ(0, l_destroyed);
    }
    EXPECT_EQ(1, l_destroyed);
}

TEST_F(ServiceTest, SecondChannelLeavesTheFirstAlone)
{
    int l_destroyed = 0;
    FakeChannel l_first(SOCK_TYPE_TCP, &l_destroyed);
    iv_Service.setChannel(l_first);
    FakeChannel* l_second = new FakeChannel(SOCK_TYPE_TCP);
    iv_Service.setChannel(*l_second);
    EXPECT_EQ(0, l_destroyed);
    EXPECT_EQ(l_second, iv_Service.channel());
}

TEST_F(ServiceTest, CloseDoesNothing)
{
    FakeChannel* l_channel = new FakeChannel(SOCK_TYPE_TCP);
    iv_Service.setChannel(*l_channel);
    iv_Service.Close();
    EXPECT_EQ(l_channel, iv_Service.channel());
    EXPECT_EQ(0, l_channel->calls);
    EXPECT_TRUE(iv_Dispatcher.registrations.empty());
}

TEST_F(ServiceTest, RefreshReachesAnSctpChannelWhateverTheArguments)
{
    FakeChannel* l_channel = new FakeChannel(SOCK_TYPE_SCTP);
    iv_Service.setChannel(*l_channel);
    iv_Service.RefreshHandler(HANDLE, EventHandler::EVENT_REFRESH);
    iv_Service.RefreshHandler(OS_INVALID, EventHandler::EVENT_READ);
    EXPECT_EQ(2, l_channel->refreshes);
    EXPECT_EQ(0, l_channel->calls);
}

TEST_F(ServiceTest, RefreshMakesNoCallOnAnyOtherChannel)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        TestService l_service(iv_Dispatcher);
        FakeChannel* l_channel = new FakeChannel(l_type);
        l_service.setChannel(*l_channel);
        l_service.RefreshHandler(HANDLE, EventHandler::EVENT_REFRESH);
        EXPECT_EQ(0, l_channel->refreshes) << l_type;
        EXPECT_EQ(0, l_channel->calls) << l_type;
    }
}

TEST_F(ServiceTest, RefreshWithoutAChannelDoesNothing)
{
    iv_Service.RefreshHandler(HANDLE, EventHandler::EVENT_REFRESH);
    EXPECT_EQ(nullptr, iv_Service.channel());
}

#include "tolv/vex/tolvNetMessage.hpp"

#include "support/netMessageBytes.hpp"
#include "support/waitFor.hpp"
#include "tolv/tolv.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

using namespace tolv;

// Messages over an association on the loopback, from a connector's channel to
// a service that sends back what it receives.

namespace
{

constexpr unsigned short PORT = 4567;
const std::string BODY = "0123456789ABCDEF";

/// Sends each message back and remembers why it ended.
class MessageEcho : public Service
{
  public:
    explicit MessageEcho(Dispatcher& io_dispatcher) : Service(io_dispatcher) {}

    static Service* make(Dispatcher& io_dispatcher)
    {
        return new MessageEcho(io_dispatcher);
    }

    void Dump(FILE*) override {}

    ACTION HandleEvent(OS_HANDLE, EVENT i_event) override
    {
        if (i_event == EVENT_SHUTDOWN)
        {
            return ACTION_REMOVE;
        }
        NetMessage l_message(0);
        pError_t l_error = l_message.Receive(*iv_pChannel);
        if (!l_error)
        {
            l_error = l_message.Send(*iv_pChannel);
        }
        if (l_error)
        {
            s_reason = l_error->getReason();
            return ACTION_REMOVE;
        }
        return ACTION_CONTINUE;
    }

    static constexpr int NONE = -1;
    static inline std::atomic<int> s_reason{NONE}; // of its end
};

class SctpMessageTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        iv_Dispatcher = std::make_unique<Dispatcher>(1U, 1U, false);
        iv_Acceptor =
            std::make_unique<SockAcc>(*iv_Dispatcher, MessageEcho::make,
                                      "127.0.0.1", PORT, SOCK_TYPE_SCTP);
        ASSERT_FALSE(iv_Acceptor->Open());
        connect();
    }

    void connect()
    {
        SockConn l_connector(SOCK_TYPE_SCTP);
        l_connector.setTimeOut(TimeValue(20)); // the machine is slow
        Channel* l_channel = nullptr;
        ASSERT_FALSE(l_connector.Connect("127.0.0.1", htons(PORT), l_channel));
        iv_Channel.reset(l_channel);
    }

    // With one send.
    void put(std::string i_bytes) const
    {
        unsigned int l_count = static_cast<unsigned int>(i_bytes.size());
        ASSERT_FALSE(iv_Channel->Write(i_bytes.data(), l_count));
        EXPECT_EQ(i_bytes.size(), l_count);
    }

    void expectAnswer(NetMessage& o_answer) const
    {
        iv_Channel->setTimeOut(TimeValue(30));
        const pError_t l_error = o_answer.Receive(*iv_Channel);
        ASSERT_FALSE(l_error) << l_error->getText();
        ASSERT_FALSE(iv_Channel->isTimedOut());
        EXPECT_FALSE(o_answer.isReceiving());
    }

    // Expects the message that messageOf() and profiledMessageOf() make.
    void expectEcho(const std::string& i_body) const
    {
        NetMessage l_answer(0);
        ASSERT_NO_FATAL_FAILURE(expectAnswer(l_answer));
        EXPECT_EQ(0x01020304U, l_answer.getMsgId());
        EXPECT_TRUE(i_body == bytesOf(l_answer)) << l_answer.getSize();
    }

    // Units: bytes.
    unsigned int sendBuffer() const
    {
        int l_size = 0;
        socklen_t l_length = sizeof(l_size);
        EXPECT_EQ(0, getsockopt(iv_Channel->getHandle(), SOL_SOCKET, SO_SNDBUF,
                                &l_size, &l_length));
        return static_cast<unsigned int>(l_size);
    }

    static void expectEnd(int i_reason)
    {
        EXPECT_TRUE(
            waitFor([] { return MessageEcho::s_reason != MessageEcho::NONE; }));
        EXPECT_EQ(i_reason, MessageEcho::s_reason);
    }

    std::unique_ptr<SockAcc> iv_Acceptor; // outlives the dispatcher
    std::unique_ptr<Dispatcher> iv_Dispatcher;
    std::unique_ptr<Channel> iv_Channel;
};

} // namespace

TEST_F(SctpMessageTest, PlainMessageGoesBothWays)
{
    NetMessage l_message(0x01020304, 0x1516, 0x2526, 0x0008, 0);
    l_message.setMsgAux(0x3536);
    l_message.setData(BODY.data(), static_cast<unsigned int>(BODY.size()));
    ASSERT_FALSE(l_message.Send(*iv_Channel));
    NetMessage l_answer(0);
    ASSERT_NO_FATAL_FAILURE(expectAnswer(l_answer));
    EXPECT_EQ(BODY, bytesOf(l_answer));
    EXPECT_EQ(0x01020304U, l_answer.getMsgId());
    EXPECT_EQ(0x1516, l_answer.getMsgType());
    EXPECT_EQ(0x2526, l_answer.getMsgSubType());
    EXPECT_EQ(0x3536, l_answer.getMsgAux());
    EXPECT_EQ(0x0008, l_answer.getFlags());
    EXPECT_EQ(nullptr, l_answer.getProfiler());
}

TEST_F(SctpMessageTest, ProfiledMessageIsStampedAtEachArrival)
{
    NetMessage l_message(0x01020304, 0x1516, 0x2526, NetMessage::FLAG_NONE, 0);
    l_message.setData(BODY.data(), static_cast<unsigned int>(BODY.size()));
    l_message.beginProfile();
    l_message.addProfileCheckPoint(7, 8);
    ASSERT_FALSE(l_message.Send(*iv_Channel));
    NetMessage l_answer(0);
    ASSERT_NO_FATAL_FAILURE(expectAnswer(l_answer));
    EXPECT_EQ(BODY, bytesOf(l_answer));
    ASSERT_NE(nullptr, l_answer.getProfiler());
    std::vector<std::uint32_t> l_ids;
    for (const CheckPoint& l_point : l_answer.getProfiler()->getCheckPoints())
    {
        l_ids.push_back(l_point.id);
    }
    constexpr std::uint32_t STAMP = 0xFFE80000;
    EXPECT_EQ((std::vector<std::uint32_t>{STAMP, 0x00070008, STAMP, STAMP}),
              l_ids);
}

TEST_F(SctpMessageTest, MessageSplitOverSendsBehindItsHeaderArrivesWhole)
{
    for (const std::string& l_whole :
         {messageOf(BODY), profiledMessageOf(2, BODY)})
    {
        put(l_whole.substr(0, 32));
        for (const char l_byte : l_whole.substr(32))
        {
            put(std::string(1, l_byte));
        }
        expectEcho(BODY);

        put(l_whole.substr(0, 40));
        put(l_whole.substr(40));
        expectEcho(BODY);
    }
}

// A peek does not look beyond the first send.
TEST_F(SctpMessageTest, HeaderSplitOverSendsIsNoMessage)
{
    const std::string l_whole = messageOf(BODY);
    put(l_whole.substr(0, 10));
    put(l_whole.substr(10));
    expectEnd(0);
}

TEST_F(SctpMessageTest, MessagesInOneSendAreReceivedOneByOne)
{
    put(messageOf(BODY) + messageOf("") + profiledMessageOf(2, BODY));
    expectEcho(BODY);
    expectEcho("");
    expectEcho(BODY);
}

TEST_F(SctpMessageTest, MessagesOfSeveralSendsAreReceivedOneByOne)
{
    put(messageOf(""));
    put(profiledMessageOf(2, BODY));
    put(messageOf(BODY));
    expectEcho("");
    expectEcho(BODY);
    expectEcho(BODY);
}

TEST_F(SctpMessageTest, MessageAsLongAsTheSendBufferGoesBothWays)
{
    std::string l_body;
    while (l_body.size() < sendBuffer())
    {
        l_body += std::to_string(l_body.size());
    }
    l_body.resize(sendBuffer() - 32);
    put(messageOf(l_body));
    expectEcho(l_body);
}

TEST_F(SctpMessageTest, MessageLongerThanTheSendBufferIsRefusedWhole)
{
    NetMessage l_message(sendBuffer() - 31);
    const pError_t l_error = l_message.Send(*iv_Channel);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x440F, l_error->getReason());
    EXPECT_EQ(EMSGSIZE, l_error->getErrno());
    put(messageOf(BODY));
    expectEcho(BODY);
}

TEST_F(SctpMessageTest, EndOfTheAssociationBetweenMessagesIsReported)
{
    put(messageOf(BODY));
    expectEcho(BODY);
    iv_Channel.reset();
    expectEnd(0x440D);
}

TEST_F(SctpMessageTest, AbortOfTheAssociationBetweenMessagesIsReported)
{
    put(messageOf(BODY));
    expectEcho(BODY);
    const linger l_linger = {1, 0};
    ASSERT_EQ(0, setsockopt(iv_Channel->getHandle(), SOL_SOCKET, SO_LINGER,
                            &l_linger, sizeof(l_linger)));
    iv_Channel.reset();
    expectEnd(0x440D);
}

TEST_F(SctpMessageTest, EndOfTheAssociationWithinAMessageIsReported)
{
    const std::string l_whole = messageOf(std::string(100, 'x'));
    for (const std::size_t l_part : {std::size_t(32), l_whole.size() - 1})
    {
        put(l_whole.substr(0, l_part));
        iv_Channel.reset();
        expectEnd(0x440D);
        MessageEcho::s_reason = MessageEcho::NONE;
        connect();
    }
}

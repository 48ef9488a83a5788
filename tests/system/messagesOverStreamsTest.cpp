#include "tolv/vex/tolvNetMessage.hpp"

#include "support/messageSocket.hpp"
#include "support/netMessageBytes.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include <cstddef>

#include <memory>
#include <string>
#include <thread>
#include <utility>

using namespace tolv;

// Messages over real streams, cut at every byte.

namespace
{

const std::string BODY = "0123456789ABCDEF";

class MessagesOverStreamsTest : public testing::TestWithParam<Transport>
{
  protected:
    void SetUp() override
    {
        if (!isAvailable(GetParam()))
        {
            GTEST_SKIP() << "this machine has no " << nameOf(GetParam());
        }
    }
};

// One stream: the library's channel and, as a plain socket, its peer.
class Stream
{
  public:
    explicit Stream(Transport i_transport) :
        Stream(i_transport, openStream(i_transport))
    {
    }

    ~Stream()
    {
        endPeer();
    }

    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    Channel& channel()
    {
        return *iv_Channel;
    }

    void send(const std::string& i_bytes) const
    {
        EXPECT_EQ(
            static_cast<ssize_t>(i_bytes.size()),
            ::send(iv_Peer, i_bytes.data(), i_bytes.size(), MSG_NOSIGNAL));
    }

    void endPeer()
    {
        if (iv_Peer != -1)
        {
            close(iv_Peer);
            iv_Peer = -1;
        }
    }

    // Bytes that have come and were not read.
    std::size_t waiting() const
    {
        int l_count = -1;
        EXPECT_EQ(0, ioctl(iv_Channel->getHandle(), FIONREAD, &l_count));
        return static_cast<std::size_t>(l_count);
    }

    // What was sent to the peer, until the channel has closed.
    std::string received()
    {
        iv_Channel.reset();
        std::string l_bytes;
        char l_part[512];
        ssize_t l_count = 0;
        while ((l_count = recv(iv_Peer, l_part, sizeof(l_part), 0)) > 0)
        {
            l_bytes.append(l_part, static_cast<std::size_t>(l_count));
        }
        return l_bytes;
    }

  private:
    Stream(Transport i_transport, const std::pair<int, int>& i_ends) :
        iv_Channel(channelOn(i_transport, i_ends.first)), iv_Peer(i_ends.second)
    {
    }

    std::unique_ptr<Channel> iv_Channel;
    int iv_Peer;
};

void expectWhole(const NetMessage& i_message)
{
    EXPECT_FALSE(i_message.isReceiving());
    EXPECT_EQ(BODY, bytesOf(i_message));
    EXPECT_EQ(0x01020304U, i_message.getMsgId());
    EXPECT_EQ(0x45464748U, i_message.getSeqNum());
    ASSERT_NE(nullptr, i_message.getProfiler());
    EXPECT_EQ(3U, i_message.getProfiler()->getCheckPoints().size());
}

const std::string MESSAGE = profiledMessageOf(2, BODY);

} // namespace

TEST_P(MessagesOverStreamsTest, TimeOutAtAnyByteIsGoneOnFrom)
{
    for (std::size_t l_split = 0; l_split != MESSAGE.size(); ++l_split)
    {
        SCOPED_TRACE(l_split);
        Stream l_stream(GetParam());
        l_stream.send(MESSAGE.substr(0, l_split));
        ASSERT_TRUE(waitFor([&] { return l_stream.waiting() == l_split; }));
        l_stream.channel().setTimeOut(TimeValue(0, 1000));
        NetMessage l_message(0);
        EXPECT_FALSE(l_message.Receive(l_stream.channel()));
        EXPECT_TRUE(l_stream.channel().isTimedOut());
        EXPECT_EQ(l_split >= 32, l_message.isReceiving());
        EXPECT_EQ(l_split >= 32 ? l_split : 0, l_message.getOffset());

        l_stream.send(MESSAGE.substr(l_split));
        l_stream.channel().setTimeOut(TimeValue(20));
        EXPECT_FALSE(l_message.Receive(l_stream.channel()));
        expectWhole(l_message);
    }
}

TEST_P(MessagesOverStreamsTest, PeerThatClosesAtAnyByteIsAnError)
{
    for (std::size_t l_split = 0; l_split != MESSAGE.size(); ++l_split)
    {
        SCOPED_TRACE(l_split);
        Stream l_stream(GetParam());
        l_stream.send(MESSAGE.substr(0, l_split));
        l_stream.endPeer();
        NetMessage l_message(0);
        const pError_t l_error = l_message.Receive(l_stream.channel());
        ASSERT_TRUE(l_error);
        EXPECT_EQ(0x440D, l_error->getReason());
        EXPECT_EQ(l_split >= 32, l_message.isReceiving());
        EXPECT_EQ(l_split >= 32 ? l_split : 0, l_message.getOffset());
    }
}

TEST_P(MessagesOverStreamsTest, OneCallWaitsForAMessageThatComesByteByByte)
{
    Stream l_stream(GetParam());
    std::thread l_peer(
        [&]
        {
            for (const char l_byte : MESSAGE)
            {
                l_stream.send(std::string(1, l_byte));
                std::this_thread::yield();
            }
        });
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_stream.channel()));
    l_peer.join();
    expectWhole(l_message);
}

TEST_P(MessagesOverStreamsTest, MessagesInOnePacketAreReceivedOneByOne)
{
    Stream l_stream(GetParam());
    l_stream.send(MESSAGE + messageOf("") + MESSAGE);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_stream.channel()));
    expectWhole(l_message);
    NetMessage l_empty(0);
    EXPECT_FALSE(l_empty.Receive(l_stream.channel()));
    EXPECT_EQ(0U, l_empty.getSize());
    EXPECT_FALSE(l_message.Receive(l_stream.channel()));
    expectWhole(l_message);
}

TEST_P(MessagesOverStreamsTest, InvalidBytesStayInTheSocket)
{
    Stream l_stream(GetParam());
    const std::string l_bytes(40, 'x');
    l_stream.send(l_bytes);
    NetMessage l_message(0);
    for (int l_count = 0; l_count != 3; ++l_count)
    {
        const pError_t l_error = l_message.Receive(l_stream.channel());
        ASSERT_TRUE(l_error);
        EXPECT_EQ(0, l_error->getReason());
    }
    EXPECT_EQ(40U, l_stream.waiting());
    char l_read[40];
    unsigned int l_count = sizeof(l_read);
    EXPECT_FALSE(l_stream.channel().Read(l_read, l_count));
    EXPECT_EQ(l_bytes, std::string(l_read, sizeof(l_read)));
}

TEST_P(MessagesOverStreamsTest, SentBytesAreThoseOfTheMessage)
{
    Stream l_stream(GetParam());
    NetMessage l_message(0x01020304, 0x1516, 0x2526, 0, 0);
    l_message.setMsgAux(0x3536);
    l_message.setData(BODY.data(), static_cast<unsigned int>(BODY.size()));
    g_MsgSeqNum = 0x45464747;
    EXPECT_FALSE(l_message.Send(l_stream.channel()));
    EXPECT_EQ(toHex(messageOf(BODY)), toHex(l_stream.received()));
}

TEST_P(MessagesOverStreamsTest, HeaderOfFourGigabytesAndACloseAreRefused)
{
    NetMessage::setMaxMessageLength(1U << 20);
    Stream l_stream(GetParam());
    l_stream.send(headerOf(32, 0xFFFFFFFF, 0xFFFFFFDF) + BODY);
    l_stream.endPeer();
    NetMessage l_message(0);
    const pError_t l_error = l_message.Receive(l_stream.channel());
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0, l_error->getReason());
    EXPECT_FALSE(l_message.isReceiving());
}

INSTANTIATE_TEST_SUITE_P(Over, MessagesOverStreamsTest,
                         testing::Values(Transport::TCP, Transport::TCP6,
                                         Transport::UNIX),
                         nameOfParameter);

#include "tolv/vex/tolvSockChannel.hpp"

#include "support/loopback.hpp"
#include "tolv/vex/tolvSctp.hpp"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/socket.h>

#include <cerrno>

#include <memory>

using namespace tolv;

// What the kernel's own notification of an association's end is to a channel:
// its flags tell whether it was read whole.

namespace
{

PeerSocket sctpSocket()
{
    return PeerSocket(socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP));
}

/// A tuned channel whose peer has aborted the association.
class SctpNotificationTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        SockAddr_t l_peer = {};
        l_peer.addr.in = loopback4();
        l_peer.length = sizeof(l_peer.addr.in);
        const PeerSocket l_listener = sctpSocket();
        PeerSocket l_client = sctpSocket();
        ASSERT_EQ(0, bind(l_listener.handle(), &l_peer.addr.sa, l_peer.length));
        ASSERT_EQ(0, listen(l_listener.handle(), 1));
        ASSERT_EQ(0, getsockname(l_listener.handle(), &l_peer.addr.sa,
                                 &l_peer.length));
        ASSERT_EQ(0,
                  connect(l_client.handle(), &l_peer.addr.sa, l_peer.length));
        l_peer.length = sizeof(l_peer.addr);
        iv_Channel = std::make_unique<SockChannel>(
            accept(l_listener.handle(), &l_peer.addr.sa, &l_peer.length),
            SOCK_TYPE_SCTP);
        ASSERT_FALSE(SetSctpSocketProperties(iv_Channel->getHandle(), l_peer));
        l_client.reset();
    }

    // Of the notification that comes next, in bytes; waits for it.
    unsigned int length() const
    {
        char l_room[sizeof(iv_Buffer)];
        const ssize_t l_length =
            recv(iv_Channel->getHandle(), l_room, sizeof(l_room), MSG_PEEK);
        EXPECT_LE(static_cast<ssize_t>(sizeof(sctp_assoc_change)), l_length);
        return static_cast<unsigned int>(l_length);
    }

    void expectUnreachable(unsigned int i_bytes)
    {
        const pError_t l_error = iv_Channel->Read(iv_Buffer, i_bytes);
        ASSERT_TRUE(l_error);
        EXPECT_EQ(0x440D, l_error->getReason());
        EXPECT_EQ(EHOSTDOWN, l_error->getErrno());
        EXPECT_EQ(0U, i_bytes);
    }

    std::unique_ptr<SockChannel> iv_Channel;
    alignas(sctp_assoc_change) char iv_Buffer[256] = {};
};

} // namespace

TEST_F(SctpNotificationTest, ReadInPartItIsAnUnreachablePeer)
{
    expectUnreachable(length() - 1);
}

TEST_F(SctpNotificationTest, OfOneByteItIsAnUnreachablePeer)
{
    expectUnreachable(1);
}

TEST_F(SctpNotificationTest, PeekedAtInPartItIsAnUnreachablePeer)
{
    EXPECT_FALSE(iv_Channel->isAlive());
}

TEST_F(SctpNotificationTest, ReadWholeItIsData)
{
    unsigned int l_bytes = length();
    const unsigned int l_whole = l_bytes;
    const pError_t l_error = iv_Channel->Read(iv_Buffer, l_bytes);
    ASSERT_FALSE(l_error) << l_error->getText();
    EXPECT_EQ(l_whole, l_bytes);
    const auto* l_change = reinterpret_cast<sctp_assoc_change*>(iv_Buffer);
    EXPECT_EQ(SCTP_ASSOC_CHANGE, l_change->sac_type);
    EXPECT_EQ(SCTP_COMM_LOST, l_change->sac_state);
}

#include "tolv/vex/tolvSctp.hpp"

#include "support/fakeCalls.hpp"
#include "tolv/vex/tolvSockChannel.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include <string>
#include <vector>

using namespace tolv;
using fakeCalls::bytesOf;
using fakeCalls::Call;

namespace
{

constexpr int FD = 500; // of no open file: closing it does nothing
constexpr std::uint32_t ELSEWHERE = 0xC0A80000;
const unsigned short PORT = htons(4567);

sockaddr_in address(std::uint32_t i_subnet, std::uint32_t i_host)
{
    sockaddr_in l_address = {};
    l_address.sin_family = AF_INET;
    l_address.sin_port = PORT;
    l_address.sin_addr.s_addr = htonl(i_subnet + i_host);
    return l_address;
}

std::vector<std::string> namesOf(const std::vector<Call>& i_calls)
{
    std::vector<std::string> l_names;
    for (const Call& l_call : i_calls)
    {
        l_names.push_back(l_call.name);
    }
    return l_names;
}

/// Bytes of which each is another, so that every one is seen to stay.
std::string pattern(std::size_t i_length)
{
    std::string l_bytes;
    for (std::size_t l_byte = 0; l_byte != i_length; ++l_byte)
    {
        l_bytes += static_cast<char>(0x40 + l_byte);
    }
    return l_bytes;
}

template <class T>
void put(std::string& io_bytes, std::size_t i_offset, T i_value)
{
    std::memcpy(&io_bytes[i_offset], &i_value, sizeof(i_value));
}

class SctpTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakeCalls::start();
        fakeCalls::answerAlways("getsockopt", 0);
        fakeCalls::answerAlways("setsockopt", 0);
        iv_Peer.addr.in = address(ELSEWHERE, 9);
        iv_Peer.length = sizeof(iv_Peer.addr.in);
    }

    void TearDown() override
    {
        fakeCalls::stop();
    }

    // Fails the call of i_name after i_before that succeed, and expects what
    // is reported and that i_calls calls were made in all.
    void expectFailure(const std::string& i_name, int i_before,
                       std::size_t i_calls, unsigned short i_reason,
                       const char* i_text)
    {
        for (int l_call = 0; l_call != i_before; ++l_call)
        {
            fakeCalls::answer(i_name, 0);
        }
        fakeCalls::answer(i_name, -1, ENOPROTOOPT);
        const pError_t l_error = SetSctpSocketProperties(FD, iv_Peer);
        ASSERT_TRUE(l_error);
        EXPECT_EQ(25, l_error->getOrigin());
        EXPECT_EQ(i_reason, l_error->getReason());
        EXPECT_STREQ(i_text, l_error->getText());
        EXPECT_EQ(ENOPROTOOPT, l_error->getErrno());
        EXPECT_EQ(i_calls, fakeCalls::calls().size());
    }

    SockAddr_t iv_Peer = {};
};

} // namespace

TEST_F(SctpTest, SubnetsAreThoseThatTheBuildNames)
{
    EXPECT_EQ(inet_addr(TOLV_SUBNET_A_TEXT), htonl(SCTP_SUBNET_A));
    EXPECT_EQ(inet_addr(TOLV_SUBNET_B_TEXT), htonl(SCTP_SUBNET_B));
}

TEST_F(SctpTest, OptionsAreReadAndSetInOrderWithTheirLengths)
{
    EXPECT_FALSE(SetSctpSocketProperties(FD, iv_Peer));
    std::vector<std::vector<long>> l_arguments;
    for (const Call& l_call : fakeCalls::calls())
    {
        l_arguments.push_back(l_call.arguments);
    }
    EXPECT_EQ((std::vector<std::string>{
                  "getsockopt", "setsockopt", "getsockopt", "setsockopt",
                  "getsockopt", "setsockopt", "setsockopt"}),
              namesOf(fakeCalls::calls()));
    EXPECT_EQ((std::vector<std::vector<long>>{
                  {FD, IPPROTO_SCTP, SCTP_EVENTS, 9},
                  {FD, IPPROTO_SCTP, SCTP_EVENTS, 9},
                  {FD, IPPROTO_SCTP, SCTP_RTOINFO, 16},
                  {FD, IPPROTO_SCTP, SCTP_RTOINFO, 16},
                  {FD, IPPROTO_SCTP, SCTP_ASSOCINFO, 20},
                  {FD, IPPROTO_SCTP, SCTP_ASSOCINFO, 20},
                  {FD, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, 152}}),
              l_arguments);
}

TEST_F(SctpTest, ValuesAreSetAmongThoseThatWereRead)
{
    fakeCalls::answer("getsockopt", 0, 0, pattern(9));
    fakeCalls::answer("getsockopt", 0, 0, pattern(16));
    fakeCalls::answer("getsockopt", 0, 0, pattern(20));
    EXPECT_FALSE(SetSctpSocketProperties(FD, iv_Peer));
    const auto l_set = fakeCalls::callsOf("setsockopt");
    ASSERT_EQ(4U, l_set.size());

    std::string l_events = pattern(9);
    l_events[1] = 1; // changes of the association
    EXPECT_EQ(l_events, l_set[0].bytes);

    std::string l_times = pattern(16);
    put(l_times, 4, std::uint32_t{1000});
    put(l_times, 8, std::uint32_t{1500});
    put(l_times, 12, std::uint32_t{500});
    EXPECT_EQ(l_times, l_set[1].bytes);

    std::string l_limits = pattern(20);
    put(l_limits, 4, std::uint16_t{10});
    EXPECT_EQ(l_limits, l_set[2].bytes);
}

TEST_F(SctpTest, PeerAddressOptionCarriesNoFlags)
{
    EXPECT_FALSE(SetSctpSocketProperties(FD, iv_Peer));
    std::string l_path(152, '\0');
    put(l_path, 4, iv_Peer.addr.in);
    put(l_path, 132, std::uint32_t{3000});
    put(l_path, 136, std::uint16_t{5});
    EXPECT_EQ(l_path, fakeCalls::callsOf("setsockopt")[3].bytes);
}

TEST_F(SctpTest, PeerAddressIsTakenForItsLengthAtMostTheRecords)
{
    std::memset(&iv_Peer.addr, 0x5A, sizeof(iv_Peer.addr));
    iv_Peer.length = 8;
    EXPECT_FALSE(SetSctpSocketProperties(FD, iv_Peer));
    std::string l_path(128, '\0');
    l_path.replace(0, 8, std::string(8, 0x5A));
    EXPECT_EQ(l_path, fakeCalls::callsOf("setsockopt")[3].bytes.substr(4, 128));

    iv_Peer.length = 100000;
    EXPECT_FALSE(SetSctpSocketProperties(FD, iv_Peer));
    l_path.replace(0, sizeof(iv_Peer.addr),
                   std::string(sizeof(iv_Peer.addr), 0x5A));
    EXPECT_EQ(l_path, fakeCalls::callsOf("setsockopt")[7].bytes.substr(4, 128));
}

TEST_F(SctpTest, UnreadableEventsEndTheTuning)
{
    expectFailure("getsockopt", 0, 1, 0x4411,
                  "SetSctpSocketProperties: getsockopt for SCTP_EVENTS failed");
}

TEST_F(SctpTest, UnsettableEventsEndTheTuning)
{
    expectFailure("setsockopt", 0, 2, 0x4412,
                  "SetSctpSocketProperties: setsockopt for SCTP_EVENTS failed");
}

TEST_F(SctpTest, UnreadableRetransmissionTimesEndTheTuning)
{
    expectFailure("getsockopt", 1, 3, 0x4411,
                  "SetSctpSocketProperties: getsockopt for SCTP_RTOINFO failed "
                  "sd[%i] Errno[%i]");
}

TEST_F(SctpTest, UnsettableRetransmissionTimesLeaveTheRestUntouched)
{
    expectFailure(
        "setsockopt", 1, 4, 0x4412,
        "SetSctpSocketProperties: setsockopt for SCTP_RTOINFO failed");
}

TEST_F(SctpTest, UnreadableAssociationLimitsEndTheTuning)
{
    expectFailure(
        "getsockopt", 2, 5, 0x4411,
        "SetSctpSocketProperties: getsockopt for SCTP_ASSOCINFO failed");
}

TEST_F(SctpTest, UnsettableAssociationLimitsEndTheTuning)
{
    expectFailure(
        "setsockopt", 2, 6, 0x4412,
        "SetSctpSocketProperties: setsockopt for SCTP_ASSOCINFO failed");
}

TEST_F(SctpTest, UnsettablePeerPathIsReported)
{
    expectFailure(
        "setsockopt", 3, 7, 0x4412,
        "SetSctpSocketProperties: setsockopt for SCTP_PEER_ADDR_PARAMS failed");
}

namespace
{

constexpr sctp_assoc_t ASSOCIATION = 77;

std::string interface(const char* i_name, const sockaddr_in& i_address = {})
{
    ifreq l_entry = {};
    std::strncpy(l_entry.ifr_name, i_name, sizeof(l_entry.ifr_name) - 1);
    std::memcpy(&l_entry.ifr_addr, &i_address, sizeof(i_address));
    return bytesOf(l_entry);
}

/// Refreshes an SCTP channel whose association the test describes.
class SctpRefreshTest : public SctpTest
{
  protected:
    void SetUp() override
    {
        SctpTest::SetUp();
        fakeCalls::answerAlways("close", 0);
        sctp_assocparams l_parameters = {};
        l_parameters.sasoc_assoc_id = ASSOCIATION;
        fakeCalls::answerAlways("getsockopt", 0, 0,
                                bytesOf(l_parameters).substr(0, 20));
    }

    // The local addresses of the association.
    static void local(const std::vector<sockaddr_in>& i_addresses)
    {
        std::string l_list;
        for (const sockaddr_in& l_address : i_addresses)
        {
            l_list += bytesOf(l_address);
        }
        fakeCalls::answer("sctp_getladdrs",
                          static_cast<long>(i_addresses.size()), 0, l_list);
    }

    // The interfaces of this machine.
    static void interfaces(const std::vector<sockaddr_in>& i_addresses)
    {
        std::string l_list;
        for (std::size_t l_index = 0; l_index != i_addresses.size(); ++l_index)
        {
            l_list += interface(("eth" + std::to_string(l_index)).c_str());
            fakeCalls::answer("SIOCGIFADDR", 0, 0,
                              bytesOf(i_addresses[l_index]));
        }
        fakeCalls::answer("SIOCGIFCONF", 0, 0, l_list);
    }

    // The address that was added to the association.
    static void expectAdded(const sockaddr_in& i_address)
    {
        EXPECT_EQ((std::vector<Call>{{"sctp_bindx",
                                      {FD, 1, SCTP_BINDX_ADD_ADDR},
                                      bytesOf(i_address)}}),
                  fakeCalls::callsOf("sctp_bindx"));
    }

    SockChannel iv_Channel{FD, SOCK_TYPE_SCTP};
};

} // namespace

TEST_F(SctpRefreshTest, AddressOfTheOtherSubnetIsAdded)
{
    sockaddr_in l_elsewhere = address(ELSEWHERE, 1);
    l_elsewhere.sin_port = htons(1); // the port is that of the match
    local({l_elsewhere, address(SCTP_SUBNET_A, 1), l_elsewhere});
    interfaces({address(ELSEWHERE, 1), address(SCTP_SUBNET_A, 1),
                address(SCTP_SUBNET_B, 3), address(SCTP_SUBNET_B, 4)});
    fakeCalls::answer("sctp_bindx", 0);
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_EQ((std::vector<Call>{
                  {"getsockopt", {FD, IPPROTO_SCTP, SCTP_ASSOCINFO, 20}, ""},
                  {"sctp_getladdrs", {FD, ASSOCIATION}, ""},
                  {"SIOCGIFCONF", {FD, 2048}, ""},
                  {"SIOCGIFADDR", {FD}, interface("eth0")},
                  {"SIOCGIFADDR", {FD}, interface("eth1")},
                  {"SIOCGIFADDR", {FD}, interface("eth2")},
                  {"sctp_bindx",
                   {FD, 1, SCTP_BINDX_ADD_ADDR},
                   bytesOf(address(SCTP_SUBNET_B, 3))},
                  {"sctp_freeladdrs", {}, ""}}),
              fakeCalls::calls());
}

TEST_F(SctpRefreshTest, FromSubnetBThatOfSubnetAIsAdded)
{
    local({address(SCTP_SUBNET_B, 255)});
    interfaces({address(SCTP_SUBNET_B, 255), address(SCTP_SUBNET_A, 0x7F)});
    fakeCalls::answer("sctp_bindx", 0);
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    expectAdded(address(SCTP_SUBNET_A, 0x7F));
}

TEST_F(SctpRefreshTest, FailureToAddIsTheStatus)
{
    local({address(SCTP_SUBNET_A, 1)});
    interfaces({address(SCTP_SUBNET_B, 3)});
    fakeCalls::answer("sctp_bindx", -1, EACCES);
    EXPECT_EQ(-1, iv_Channel.RefreshChannel());
    EXPECT_EQ(1U, fakeCalls::callsOf("sctp_freeladdrs").size());
}

TEST_F(SctpRefreshTest, AssociationInNeitherSubnetIsLeftAlone)
{
    local({address(ELSEWHERE, 1), address(SCTP_SUBNET_A + 0x8000, 1)});
    EXPECT_EQ(2, iv_Channel.RefreshChannel());
    EXPECT_EQ((std::vector<std::string>{"getsockopt", "sctp_getladdrs",
                                        "sctp_freeladdrs"}),
              namesOf(fakeCalls::calls()));
}

TEST_F(SctpRefreshTest, AssociationInBothSubnetsIsLeftAlone)
{
    local({address(SCTP_SUBNET_A, 1), address(SCTP_SUBNET_B, 1)});
    EXPECT_EQ(2, iv_Channel.RefreshChannel());
    EXPECT_EQ(3U, fakeCalls::calls().size());
}

TEST_F(SctpRefreshTest, TwoAddressesInOneSubnetAreLeftAlone)
{
    local({address(SCTP_SUBNET_A, 1), address(SCTP_SUBNET_A, 2)});
    EXPECT_EQ(2, iv_Channel.RefreshChannel());
    EXPECT_EQ(3U, fakeCalls::calls().size());
}

TEST_F(SctpRefreshTest, EmptyListIsNotReleased)
{
    local({});
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_TRUE(fakeCalls::callsOf("sctp_freeladdrs").empty());
}

TEST_F(SctpRefreshTest, NoInterfaceInTheOtherSubnetIsSuccess)
{
    local({address(SCTP_SUBNET_A, 1)});
    interfaces({address(SCTP_SUBNET_A, 1), address(ELSEWHERE, 1)});
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_TRUE(fakeCalls::callsOf("sctp_bindx").empty());
    EXPECT_EQ(1U, fakeCalls::callsOf("sctp_freeladdrs").size());
}

TEST_F(SctpRefreshTest, InterfaceOfAnotherFamilyIsSkipped)
{
    local({address(SCTP_SUBNET_A, 1)});
    sockaddr_in l_other = address(SCTP_SUBNET_B, 2);
    l_other.sin_family = AF_INET6;
    interfaces({l_other, address(SCTP_SUBNET_B, 3)});
    fakeCalls::answer("sctp_bindx", 0);
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    expectAdded(address(SCTP_SUBNET_B, 3));
}

// Else the kernel tells the first of an interface's addresses each time.
TEST_F(SctpRefreshTest, InterfaceIsAskedForTheAddressThatWasListed)
{
    local({address(SCTP_SUBNET_A, 1)});
    const std::string l_entry = interface("eth0", address(SCTP_SUBNET_B, 3));
    fakeCalls::answer("SIOCGIFCONF", 0, 0, l_entry);
    fakeCalls::answer("SIOCGIFADDR", 0);
    fakeCalls::answer("sctp_bindx", 0);
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_EQ((std::vector<Call>{{"SIOCGIFADDR", {FD}, l_entry}}),
              fakeCalls::callsOf("SIOCGIFADDR"));
}

TEST_F(SctpRefreshTest, InterfaceThatCannotBeAskedEndsTheSearch)
{
    local({address(SCTP_SUBNET_A, 1)});
    fakeCalls::answer("SIOCGIFCONF", 0, 0,
                      interface("eth0") + interface("eth1"));
    fakeCalls::answer("SIOCGIFADDR", -1, ENODEV);
    EXPECT_EQ(-1, iv_Channel.RefreshChannel());
    EXPECT_EQ(1U, fakeCalls::callsOf("SIOCGIFADDR").size());
    EXPECT_TRUE(fakeCalls::callsOf("sctp_bindx").empty());
}

TEST_F(SctpRefreshTest, UnlistableInterfacesAddNothing)
{
    local({address(SCTP_SUBNET_A, 1)});
    fakeCalls::answer("SIOCGIFCONF", -1, EINVAL);
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_TRUE(fakeCalls::callsOf("sctp_bindx").empty());
}

TEST_F(SctpRefreshTest, AsManyInterfacesAsFitAreLookedAt)
{
    local({address(SCTP_SUBNET_A, 1)});
    std::string l_list;
    const std::size_t l_most = 2048 / sizeof(ifreq);
    for (std::size_t l_index = 0; l_index != l_most; ++l_index)
    {
        l_list += interface("eth0");
    }
    fakeCalls::answer("SIOCGIFCONF", 0, 0,
                      l_list + std::string(2048 - l_list.size(), '\0'));
    fakeCalls::answerAlways("SIOCGIFADDR", 0, 0,
                            bytesOf(address(ELSEWHERE, 1)));
    EXPECT_EQ(0, iv_Channel.RefreshChannel());
    EXPECT_EQ(l_most, fakeCalls::callsOf("SIOCGIFADDR").size());
}

TEST_F(SctpRefreshTest, UnknownAssociationIsAFailure)
{
    fakeCalls::answer("getsockopt", -1, ENOTCONN);
    EXPECT_GT(0, iv_Channel.RefreshChannel());
    EXPECT_EQ(1U, fakeCalls::calls().size());
}

TEST_F(SctpRefreshTest, UnknownAddressesAreAFailure)
{
    fakeCalls::answer("sctp_getladdrs", -1, ENOTCONN);
    EXPECT_EQ(-1, iv_Channel.RefreshChannel());
    EXPECT_EQ(2U, fakeCalls::calls().size());
}

TEST_F(SctpRefreshTest, OtherChannelsAreLeftAlone)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_UNIX})
    {
        SockChannel l_channel(OS_INVALID, l_type);
        EXPECT_EQ(0, l_channel.RefreshChannel());
    }
    EXPECT_TRUE(fakeCalls::calls().empty());
}

#include "tolv/vex/tolvSocket.hpp"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include <string>
#include <vector>

using namespace tolv;

namespace
{

const unsigned short PORT = htons(4660);

std::vector<std::int32_t> properties(SockType i_type)
{
    const std::int32_t* const l_row = LookupSockProperties(i_type);
    return l_row == nullptr ? std::vector<std::int32_t>()
                            : std::vector<std::int32_t>(l_row, l_row + 3);
}

std::string imageOf(const SockAddr_t& i_addr)
{
    return std::string(reinterpret_cast<const char*>(&i_addr), sizeof(i_addr));
}

// The path as a reader of text sees it, through the whole address area.
std::string pathOf(const SockAddr_t& i_addr)
{
    return reinterpret_cast<const char*>(&i_addr.addr) +
           offsetof(sockaddr_un, sun_path);
}

} // namespace

TEST(SocketTest, TypesAreFixedNumbersOf32Bits)
{
    EXPECT_EQ(0, SOCK_TYPE_TCP);
    EXPECT_EQ(1, SOCK_TYPE_UDP);
    EXPECT_EQ(2, SOCK_TYPE_UNIX);
    EXPECT_EQ(3, SOCK_TYPE_SCTP);
    EXPECT_EQ(4U, sizeof(SockType));
}

TEST(SocketTest, RecordsHoldAnAddressAreaThenItsLength)
{
    EXPECT_EQ(112U, offsetof(SockAddr_t, length));
    EXPECT_EQ(116U, sizeof(SockAddr_t));
    EXPECT_EQ(112U, offsetof(Sock6Addr_t, length));
    EXPECT_EQ(116U, sizeof(Sock6Addr_t));
    EXPECT_EQ(16U, sizeof(SockProperties_t));
    EXPECT_EQ(0U, offsetof(SockProperties_t, key));
    EXPECT_EQ(4U, offsetof(SockProperties_t, family));
    EXPECT_EQ(8U, offsetof(SockProperties_t, type));
    EXPECT_EQ(12U, offsetof(SockProperties_t, protocol));
}

TEST(SocketTest, EachTypeHasItsFamilyTypeAndProtocol)
{
    EXPECT_EQ((std::vector<std::int32_t>{2, 1, 0}), properties(SOCK_TYPE_TCP));
    EXPECT_EQ((std::vector<std::int32_t>{2, 2, 0}), properties(SOCK_TYPE_UDP));
    EXPECT_EQ((std::vector<std::int32_t>{1, 1, 0}), properties(SOCK_TYPE_UNIX));
    EXPECT_EQ((std::vector<std::int32_t>{2, 1, 132}),
              properties(SOCK_TYPE_SCTP));
}

TEST(SocketTest, TableKeepsItsOrder)
{
    // The values of a row are followed by the next row.
    const std::int32_t* const l_tcp = LookupSockProperties(SOCK_TYPE_TCP);
    EXPECT_EQ(l_tcp + 4, LookupSockProperties(SOCK_TYPE_UDP));
    EXPECT_EQ(l_tcp + 8, LookupSockProperties(SOCK_TYPE_SCTP));
    EXPECT_EQ(l_tcp + 12, LookupSockProperties(SOCK_TYPE_UNIX));
}

TEST(SocketTest, UnknownTypeHasNoRow)
{
    EXPECT_EQ(nullptr, LookupSockProperties(static_cast<SockType>(4)));
    EXPECT_EQ(nullptr, LookupSockProperties(static_cast<SockType>(-1)));
}

TEST(SocketTest, NoHostIsAnyAddress)
{
    for (const SockType l_type : {SOCK_TYPE_TCP, SOCK_TYPE_UDP, SOCK_TYPE_SCTP})
    {
        SockAddr_t l_addr = {};
        EXPECT_EQ(1, initSockAddrStruct(nullptr, PORT, l_addr, l_type));
        EXPECT_EQ(AF_INET, l_addr.addr.in.sin_family);
        EXPECT_EQ(htonl(INADDR_ANY), l_addr.addr.in.sin_addr.s_addr);
        EXPECT_EQ(PORT, l_addr.addr.in.sin_port);
        EXPECT_EQ(16U, l_addr.length);
    }
}

TEST(SocketTest, DottedQuadIsTakenAndThePortStoredUnchanged)
{
    SockAddr_t l_addr = {};
    EXPECT_EQ(1, initSockAddrStruct("192.0.2.7", PORT, l_addr, SOCK_TYPE_TCP));
    EXPECT_EQ(AF_INET, l_addr.addr.in.sin_family);
    EXPECT_EQ(htonl(0xC0000207), l_addr.addr.in.sin_addr.s_addr);
    EXPECT_EQ(PORT, l_addr.addr.in.sin_port);
    EXPECT_EQ(16U, l_addr.length);
}

TEST(SocketTest, TextThatIsNoDottedQuadIsRefusedWithTheRestFilled)
{
    for (const char* const l_host :
         {"", "localhost", "192.0.2", "192.0.2.256", "192.0.2.7 ", "::1"})
    {
        SockAddr_t l_addr = {};
        EXPECT_EQ(0, initSockAddrStruct(l_host, PORT, l_addr, SOCK_TYPE_UDP))
            << l_host;
        EXPECT_EQ(AF_INET, l_addr.addr.in.sin_family);
        EXPECT_EQ(PORT, l_addr.addr.in.sin_port);
        EXPECT_EQ(16U, l_addr.length);
    }
}

TEST(SocketTest, UnixPathHasAlwaysTheLengthOfTheWholeRecord)
{
    for (const std::size_t l_length : {0U, 1U, 20U, 107U, 108U})
    {
        const std::string l_path(l_length, 'p');
        SockAddr_t l_addr = {};
        EXPECT_EQ(1, initSockAddrStruct(l_path.c_str(), PORT, l_addr,
                                        SOCK_TYPE_UNIX));
        EXPECT_EQ(AF_UNIX, l_addr.addr.un.sun_family);
        EXPECT_EQ(110U, l_addr.length);
        EXPECT_EQ(l_path, pathOf(l_addr));
    }
}

TEST(SocketTest, UnixPathIsFollowedByZeros)
{
    SockAddr_t l_addr = {};
    std::memset(&l_addr, 0xFF, sizeof(l_addr));
    EXPECT_EQ(1, initSockAddrStruct("ab", 0, l_addr, SOCK_TYPE_UNIX));
    const std::string l_area(reinterpret_cast<const char*>(&l_addr.addr) +
                                 offsetof(sockaddr_un, sun_path),
                             sizeof(l_addr.addr) -
                                 offsetof(sockaddr_un, sun_path));
    EXPECT_EQ("ab" + std::string(108, '\0'), l_area);
}

TEST(SocketTest, PathThatDoesNotFitIsRefusedAndWritesNothing)
{
    const std::string l_path(109, 'p');
    SockAddr_t l_addr = {};
    EXPECT_EQ(0, initSockAddrStruct(l_path.c_str(), 0, l_addr, SOCK_TYPE_UNIX));
    EXPECT_EQ(std::string(sizeof(l_addr), '\0'), imageOf(l_addr));
    EXPECT_EQ(0, initSockAddrStruct(std::string(100000, 'p').c_str(), 0, l_addr,
                                    SOCK_TYPE_UNIX));
    EXPECT_EQ(std::string(sizeof(l_addr), '\0'), imageOf(l_addr));
}

TEST(SocketTest, MissingPathIsRefused)
{
    SockAddr_t l_addr = {};
    EXPECT_EQ(0, initSockAddrStruct(nullptr, 0, l_addr, SOCK_TYPE_UNIX));
}

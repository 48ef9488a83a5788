#include "tolv/vex/tolvNetMessage.hpp"

#include "support/assertion.hpp"
#include "support/fakeUptime.hpp"
#include "support/hex.hpp"
#include "support/netMessageBytes.hpp"
#include "support/scriptedChannel.hpp"
#include "support/tempDir.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <cstdint>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace tolv;

namespace
{

// What the CSV file of a profile is read by.
class NetMessageProfileTest : public testing::Test
{
  protected:
    NetMessageProfileTest()
    {
        g_ProfileCsvPath = iv_Path.c_str();
    }

    std::string csv() const
    {
        std::ifstream l_file(iv_Path);
        return {std::istreambuf_iterator<char>(l_file), {}};
    }

    const TempDir iv_Folder;
    const std::string iv_Path = iv_Folder.path("profile.csv");
};

std::string sent(NetMessage& io_message)
{
    ScriptedChannel l_channel;
    EXPECT_FALSE(io_message.Send(l_channel));
    return l_channel.sent;
}

NetMessage withCheckPoints(unsigned short i_count)
{
    NetMessage l_message(7, 1, 2, 0, 0);
    l_message.setData("body", 4);
    l_message.beginProfile(); // the first one
    for (unsigned short l_minor = 1; l_minor != i_count; ++l_minor)
    {
        l_message.addProfileCheckPoint(5, l_minor);
    }
    return l_message;
}

std::vector<std::uint32_t> idsOf(const NetMessage& i_message)
{
    std::vector<std::uint32_t> l_ids;
    for (const CheckPoint& l_point : i_message.getProfiler()->getCheckPoints())
    {
        l_ids.push_back(l_point.id);
    }
    return l_ids;
}

// What arrives of a message with so many checkpoints: whether it is taken.
bool arrives(unsigned short i_count)
{
    NetMessage l_message = withCheckPoints(i_count);
    ScriptedChannel l_channel(sent(l_message));
    NetMessage l_received(0);
    if (l_received.Receive(l_channel))
    {
        EXPECT_FALSE(l_received.isReceiving());
        return false;
    }
    EXPECT_EQ("body", bytesOf(l_received)) << i_count;
    std::vector<std::uint32_t> l_ids = idsOf(l_message);
    l_ids.push_back(0xFFE80000); // arrival
    EXPECT_EQ(l_ids, idsOf(l_received)) << i_count;
    return true;
}

} // namespace

TEST_F(NetMessageProfileTest, ProfileTravelsBetweenHeaderAndBody)
{
    NetMessage l_message(7, 1, 2, 0, 0);
    l_message.setData("\x0A\x0B\x0C", 3);
    l_message.beginProfile();
    fakeUptime::set(TimeValue(0x01020304, 0x000F423F));
    l_message.addProfileCheckPoint(0x1112, 0x1314);
    EXPECT_EQ(60U, l_message.hdrLength());
    EXPECT_EQ(63U, l_message.msgLength());
    EXPECT_EQ("DE CA FF 3C 00 00 00 3F 00 00 00 07 00 01 40 00 "
              "00 00 00 03 00 02 00 00 00 00 00 01 00 00 00 00 "
              "00 00 00 02 "
              "FF E8 00 00 00 00 00 0C 00 00 01 59 "
              "11 12 13 14 01 02 03 04 00 0F 42 3F "
              "0A 0B 0C",
              toHex(sent(l_message)));
}

TEST_F(NetMessageProfileTest, FlagIsSetInTheHeaderOnly)
{
    NetMessage l_message(0, 0, 0, 0x8001, 0);
    l_message.beginProfile();
    const std::string l_sent = sent(l_message);
    EXPECT_EQ(60 - 12, l_sent[3]);
    EXPECT_EQ("C0 01", toHex(l_sent.substr(14, 2)));
    EXPECT_EQ(0x8001, l_message.getFlags());
}

TEST_F(NetMessageProfileTest, ProfileWithoutCheckPointsIsFourBytes)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    *l_message.getProfiler() = Profiler();
    EXPECT_EQ("DE CA FF 24 00 00 00 24 00 00 00 00 00 00 40 00 "
              "00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00",
              toHex(sent(l_message)));
}

TEST_F(NetMessageProfileTest, ReceivedProfileHasOneMoreStamp)
{
    ScriptedChannel l_channel(profiledMessageOf(2, "body"));
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_FALSE(l_message.isReceiving());
    EXPECT_EQ("body", bytesOf(l_message));
    EXPECT_EQ(0U, l_message.getOffset());
    EXPECT_EQ(0x4000, l_message.getFlags());
    ASSERT_NE(nullptr, l_message.getProfiler());
    const std::vector<CheckPoint>& l_points =
        l_message.getProfiler()->getCheckPoints();
    ASSERT_EQ(3U, l_points.size());
    EXPECT_EQ(0xC0000000U, l_points[0].id);
    EXPECT_EQ(TimeValue(0, 0xFFFFFFFF), l_points[0].time);
    EXPECT_EQ(0xC0000001U, l_points[1].id);
    EXPECT_EQ(TimeValue(1, 0xFFFFFFFE), l_points[1].time);
    EXPECT_EQ(0xFFE80000U, l_points[2].id);
    EXPECT_EQ(TimeValue(12, 345), l_points[2].time);
}

TEST_F(NetMessageProfileTest, ReceivedProfileReplacesTheOwn)
{
    ScriptedChannel l_channel(profiledMessageOf(0, ""));
    NetMessage l_message(0);
    l_message.beginProfile();
    l_message.addProfileCheckPoint(1, 1);
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFE80000}), idsOf(l_message));
}

TEST_F(NetMessageProfileTest, MessageWithoutProfileLeavesTheOwn)
{
    ScriptedChannel l_channel(messageOf(""));
    NetMessage l_message(0);
    l_message.beginProfile();
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFE80000}), idsOf(l_message));
}

TEST_F(NetMessageProfileTest, EighteenCheckPointsAreTheLargestHeader)
{
    NetMessage l_message = withCheckPoints(18);
    const std::string l_sent = sent(l_message);
    EXPECT_EQ("DE CA FF FC 00 00 01 00", toHex(l_sent.substr(0, 8)));
    EXPECT_EQ("00 00 00 04", toHex(l_sent.substr(16, 4)));
    EXPECT_EQ(256U, l_sent.size());
    EXPECT_TRUE(arrives(18));
}

TEST_F(NetMessageProfileTest, HeaderLengthWrapsAboveEighteenCheckPoints)
{
    NetMessage l_message = withCheckPoints(19);
    const std::string l_sent = sent(l_message);
    // 264 bytes of header: the length byte says 8, and the body seems longer.
    EXPECT_EQ("DE CA FF 08 00 00 01 0C", toHex(l_sent.substr(0, 8)));
    EXPECT_EQ("00 00 01 04", toHex(l_sent.substr(16, 4)));
    EXPECT_EQ(268U, l_sent.size());

    std::vector<unsigned short> l_refused;
    for (unsigned short l_count = 1; l_count != 64; ++l_count)
    {
        if (!arrives(l_count))
        {
            l_refused.push_back(l_count);
        }
    }
    EXPECT_EQ((std::vector<unsigned short>{19, 20, 40, 41, 42, 61, 62, 63}),
              l_refused);
}

TEST_F(NetMessageProfileTest, EndedProfileIsStillAnnounced)
{
    ScriptedChannel l_channel(
        profiledMessageOf(1, fromHex("00 00 00 00") + "rest"));
    NetMessage l_relay(0);
    EXPECT_FALSE(l_relay.Receive(l_channel));
    l_relay.endProfile(1);
    EXPECT_EQ(nullptr, l_relay.getProfiler());
    EXPECT_EQ(0x4000, l_relay.getFlags());

    ScriptedChannel l_next(sent(l_relay));
    EXPECT_EQ("DE CA FF 20", toHex(l_next.incoming.substr(0, 4)));
    EXPECT_EQ("40 00", toHex(l_next.incoming.substr(14, 2)));
    NetMessage l_received(0);
    EXPECT_FALSE(l_received.Receive(l_next));
    // The first four bytes of the body have become a profile of no checkpoint.
    EXPECT_EQ("rest", bytesOf(l_received));
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFE80000}), idsOf(l_received));
}

TEST_F(NetMessageProfileTest, BeginStampsAndEndStampsAndWritesTheRow)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    fakeUptime::set(TimeValue(13, 0));
    l_message.addProfileCheckPoint(1, 2);
    fakeUptime::set(TimeValue(14, 0));
    l_message.endProfile(99);
    EXPECT_EQ(nullptr, l_message.getProfiler());
    const std::string l_csv = csv();
    const std::string l_points = "FFE80000, 12.000345, 00010002, 13.000000, "
                                 "FFE80000, 14.000000, ";
    ASSERT_LE(l_points.size(), l_csv.size());
    EXPECT_EQ(l_points, l_csv.substr(l_csv.size() - l_points.size()));
}

TEST_F(NetMessageProfileTest, WithoutAProfileCheckPointAndEndDoNothing)
{
    NetMessage l_message(0);
    l_message.addProfileCheckPoint(1, 2);
    l_message.endProfile(1);
    EXPECT_EQ(nullptr, l_message.getProfiler());
    EXPECT_TRUE(namesIn(iv_Folder.path()).empty());
}

TEST_F(NetMessageProfileTest, ProfileCanBeginAgainAfterItsEnd)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    l_message.endProfile(1);
    l_message.beginProfile();
    EXPECT_EQ(1U, l_message.getProfiler()->getCheckPoints().size());
}

TEST(NetMessageProfileDeathTest, BeginningTwiceFails)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    EXPECT_ASSERTION(l_message.beginProfile(), "tolv/vex/tolvNetMessage", 344,
                     "void tolv::NetMessage::beginProfile()",
                     "iv_pProfiler == __null");
}

#include "tolv/vex/tolvProfile.hpp"

#include "support/assertion.hpp"
#include "support/errorImage.hpp"
#include "support/fakeUptime.hpp"
#include "support/hex.hpp"
#include "support/netMessageBytes.hpp"
#include "support/scriptedChannel.hpp"
#include "support/tempDir.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include <memory>
#include <string>
#include <vector>

using namespace tolv;

namespace
{

// There is no memory for a larger block, in bytes.
constexpr std::size_t LARGEST_BLOCK = 1U << 30;

// Two checkpoints, 16843009.16909060 and 5.6, as they travel.
const char* const TWO_CHECK_POINTS = "00 00 00 02 "
                                     "FF E8 00 00 01 01 01 01 01 02 03 04 "
                                     "00 01 00 02 00 00 00 05 00 00 00 06";

std::string placed(const Profiler& i_profile)
{
    std::string l_bytes(i_profile.profileLength(), '\xEE');
    EXPECT_EQ(l_bytes.size(), i_profile.PlaceProfile(l_bytes.data()));
    return toHex(l_bytes);
}

std::vector<std::uint32_t> idsOf(const Profiler& i_profile)
{
    std::vector<std::uint32_t> l_ids;
    for (const CheckPoint& l_point : i_profile.getCheckPoints())
    {
        l_ids.push_back(l_point.id);
    }
    return l_ids;
}

bool fitsInto(const std::string& i_bytes)
{
    const std::unique_ptr<char[]> l_block = exactBlock(i_bytes);
    return Profiler::fits(l_block.get(),
                          static_cast<unsigned int>(i_bytes.size()));
}

void expectInvalidRecord(const pError_t& i_error, const std::string& i_length)
{
    ASSERT_TRUE(i_error);
    EXPECT_EQ(0, i_error->getOrigin());
    EXPECT_EQ(0, i_error->getReason());
    EXPECT_EQ("Profiler::ReadFromChannel ==> Invalid Record received Length[" +
                  i_length + "]",
              std::string(i_error->getText()));
}

} // namespace

extern "C"
{
    void* __real_malloc(std::size_t i_size);

    void* __wrap_malloc(std::size_t i_size)
    {
        return i_size > LARGEST_BLOCK ? nullptr : __real_malloc(i_size);
    }
}

TEST(ProfilerTest, BeginsWithoutCheckPointsAndWithRoomForTwenty)
{
    const Profiler l_profile;
    EXPECT_EQ(0U, l_profile.getId());
    EXPECT_TRUE(l_profile.getCheckPoints().empty());
    EXPECT_EQ(20U, l_profile.getCheckPoints().capacity());
    EXPECT_EQ(4U, l_profile.profileLength());
}

TEST(ProfilerTest, CheckPointIsMajorAndMinorAtTheCurrentUptime)
{
    Profiler l_profile;
    fakeUptime::set(TimeValue(7, 8));
    l_profile.addCheckPoint(0x0102, 0x8304);
    ASSERT_EQ(1U, l_profile.getCheckPoints().size());
    EXPECT_EQ(0x01028304U, l_profile.getCheckPoints()[0].id);
    EXPECT_EQ(TimeValue(7, 8), l_profile.getCheckPoints()[0].time);
}

TEST(ProfilerTest, CheckPointsStayInTheOrderAdded)
{
    Profiler l_profile;
    l_profile.addCheckPoint(2, 1);
    l_profile.addStamp();
    l_profile.addCheckPoint(0xFFFF, 0xFFFF);
    EXPECT_EQ((std::vector<std::uint32_t>{0x20001, 0xFFE80000, 0xFFFFFFFF}),
              idsOf(l_profile));
}

TEST(ProfilerTest, BeginSetsTheIdAndAddsTheStamp)
{
    Profiler l_profile;
    l_profile.begin(0x89ABCDEF);
    EXPECT_EQ(0x89ABCDEFU, l_profile.getId());
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFE80000}), idsOf(l_profile));
}

TEST(ProfilerTest, CopyHasTheCheckPointsAndNotTheId)
{
    Profiler l_profile;
    l_profile.begin(5);
    Profiler l_copy(l_profile);
    EXPECT_EQ(0U, l_copy.getId());
    EXPECT_EQ(idsOf(l_profile), idsOf(l_copy));
    EXPECT_EQ(20U, l_copy.getCheckPoints().capacity());
    l_copy.addStamp();
    EXPECT_EQ(1U, l_profile.getCheckPoints().size());

    Profiler l_assigned;
    l_assigned.begin(6);
    l_assigned = l_copy;
    EXPECT_EQ(6U, l_assigned.getId());
    EXPECT_EQ(2U, l_assigned.getCheckPoints().size());
    const Profiler& l_same = l_assigned;
    l_assigned = l_same;
    EXPECT_EQ(2U, l_assigned.getCheckPoints().size());
}

TEST(ProfilerTest, WireFormIsCountThenIdSecondsMicroseconds)
{
    Profiler l_profile;
    EXPECT_EQ("00 00 00 00", placed(l_profile));
    fakeUptime::set(TimeValue(0x01010101, 0x01020304));
    l_profile.addStamp();
    fakeUptime::set(TimeValue(5, 6));
    l_profile.addCheckPoint(1, 2);
    EXPECT_EQ(TWO_CHECK_POINTS, placed(l_profile));
}

TEST(ProfilerTest, ExtractReplacesTheCheckPoints)
{
    Profiler l_profile;
    l_profile.begin(9);
    l_profile.addCheckPoint(3, 3);
    l_profile.addCheckPoint(3, 4);
    const std::string l_bytes = fromHex(TWO_CHECK_POINTS);
    EXPECT_EQ(28U, l_profile.ExtractProfile(l_bytes.data()));
    EXPECT_EQ(9U, l_profile.getId());
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFE80000, 0x10002}),
              idsOf(l_profile));
    EXPECT_EQ(TimeValue(0x01010101, 0x01020304),
              l_profile.getCheckPoints()[0].time);
    EXPECT_EQ(TimeValue(5, 6), l_profile.getCheckPoints()[1].time);
    EXPECT_EQ(TWO_CHECK_POINTS, placed(l_profile));
}

TEST(ProfilerTest, ExtractedProfileHasRoomForTheStampOfItsArrival)
{
    constexpr std::uint32_t COUNT = 1000;
    Profiler l_profile;
    l_profile.ExtractProfile(profileOf(COUNT).data());
    ASSERT_EQ(COUNT, l_profile.getCheckPoints().size());
    const CheckPoint* const l_before = l_profile.getCheckPoints().data();
    l_profile.addStamp();
    EXPECT_EQ(l_before, l_profile.getCheckPoints().data());
}

TEST(ProfilerTest, FitsOnlyWhereTheWholeFormLies)
{
    const std::string l_bytes = fromHex(TWO_CHECK_POINTS);
    for (std::size_t l_room = 0; l_room != l_bytes.size(); ++l_room)
    {
        EXPECT_FALSE(fitsInto(l_bytes.substr(0, l_room))) << l_room;
    }
    EXPECT_TRUE(fitsInto(l_bytes));
    EXPECT_TRUE(fitsInto(l_bytes + "more"));
    EXPECT_TRUE(fitsInto(fromHex("00 00 00 00")));
}

TEST(ProfilerTest, CountThatWrapsWhenMultipliedDoesNotFit)
{
    const std::string l_body(28, '\0');
    // 0x15555556 checkpoints of 12 bytes are 2^32 + 8 bytes.
    EXPECT_FALSE(fitsInto(fromHex("15 55 55 56") + l_body));
    EXPECT_FALSE(fitsInto(fromHex("40 00 00 00") + l_body));
    EXPECT_FALSE(fitsInto(fromHex("FF FF FF FF") + l_body));
}

TEST(ProfilerTest, NoIdHasAName)
{
    EXPECT_EQ(nullptr, Profiler::getProfileName(0));
    EXPECT_EQ(nullptr, Profiler::getProfileName(0xFFFFFFFF));
}

TEST(ProfilerTest, DumpPrintsNothing)
{
    Profiler l_profile;
    l_profile.addStamp();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    l_profile.Dump();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(ProfilerDeathTest, MissingCsvFolderEndsTheProcess)
{
    const TempDir l_folder;
    const std::string l_path = l_folder.path("missing/tolvprofile.csv");
    g_ProfileCsvPath = l_path.c_str();
    EXPECT_ASSERTION(Profiler().end(1), "tolv/vex/tolvProfile", 163,
                     "tolv::pError_t tolv::Profiler::udpProfBroadcast()",
                     "iv_pCsvFile != __null");
}

TEST(ProfilerTest, CsvPathIsTheStatedOneUntilItIsSet)
{
    EXPECT_STREQ("/nfs/test/tolvprofdata/tolvprofile.csv", g_ProfileCsvPath);
    EXPECT_EQ(nullptr, g_ProfileName);
}

TEST(ProfilerTest, ProfileComesFromAChannelBehindItsLength)
{
    ScriptedChannel l_channel(fromHex("00 00 00 20") +
                              fromHex(TWO_CHECK_POINTS) + "next");
    Profiler l_profile;
    l_profile.addStamp();
    EXPECT_FALSE(l_profile.ReadFromChannel(l_channel));
    EXPECT_EQ(TWO_CHECK_POINTS, placed(l_profile));
    EXPECT_EQ("next", l_channel.incoming);
    EXPECT_EQ((std::vector<unsigned int>{4}), l_channel.peeks);
    EXPECT_EQ((std::vector<unsigned int>{32}), l_channel.reads);
}

TEST(ProfilerTest, RecordMayBeLongerThanItsProfile)
{
    ScriptedChannel l_channel(fromHex("00 00 00 0A 00 00 00 00 11 22"));
    Profiler l_profile;
    l_profile.addStamp();
    EXPECT_FALSE(l_profile.ReadFromChannel(l_channel));
    EXPECT_TRUE(l_profile.getCheckPoints().empty());
    EXPECT_EQ("", l_channel.incoming);
}

TEST(ProfilerTest, ShortPeekOfALengthReadsNothing)
{
    ScriptedChannel l_channel(fromHex("00 00 00"));
    Profiler l_profile;
    EXPECT_FALSE(l_profile.ReadFromChannel(l_channel));
    EXPECT_EQ(3U, l_channel.incoming.size());
    EXPECT_TRUE(l_channel.reads.empty());
}

TEST(ProfilerTest, ChannelErrorsAreReturned)
{
    ScriptedChannel l_channel(fromHex("00 00"));
    l_channel.error = 0x440D;
    Profiler l_profile;
    l_profile.addStamp();
    const pError_t l_peek = l_profile.ReadFromChannel(l_channel);
    ASSERT_TRUE(l_peek);
    EXPECT_EQ(0x440D, l_peek->getReason());

    l_channel.incoming = fromHex("00 00 00 08 00 00");
    l_channel.error = 0x440B;
    const pError_t l_read = l_profile.ReadFromChannel(l_channel);
    ASSERT_TRUE(l_read);
    EXPECT_EQ(0x440B, l_read->getReason());
    EXPECT_EQ(1U, l_profile.getCheckPoints().size());
}

TEST(ProfilerTest, RecordTooShortForAProfileStaysInTheChannel)
{
    for (const char* l_length : {"00", "04", "07"})
    {
        ScriptedChannel l_channel(
            fromHex(std::string("00 00 00 ") + l_length + " 00 00 00 00"));
        expectInvalidRecord(Profiler().ReadFromChannel(l_channel),
                            std::string(1, l_length[1]));
        EXPECT_EQ(8U, l_channel.incoming.size());
    }
}

TEST(ProfilerTest, RecordWithoutItsCheckPointsIsInvalid)
{
    ScriptedChannel l_channel(fromHex("00 00 00 13 00 00 00 01") +
                              std::string(11, '\0'));
    Profiler l_profile;
    l_profile.addStamp();
    expectInvalidRecord(l_profile.ReadFromChannel(l_channel), "19");
    EXPECT_EQ(1U, l_profile.getCheckPoints().size());
    EXPECT_EQ("", l_channel.incoming);
}

TEST(ProfilerTest, RecordThatComesOnlyInPartIsInvalid)
{
    ScriptedChannel l_channel(fromHex("00 00 00 08 00 00 00"));
    expectInvalidRecord(Profiler().ReadFromChannel(l_channel), "8");
}

TEST(ProfilerTest, RecordThatNoMemoryIsForIsInvalid)
{
    ScriptedChannel l_channel(fromHex("FF FF FF FF 00 00 00 00"));
    const pError_t l_error = Profiler().ReadFromChannel(l_channel);
    expectInvalidRecord(l_error, "4294967295");
    EXPECT_TRUE(l_channel.reads.empty());
}

TEST(ProfilerTest, StripPatternLeavesWhatFollowsOrPrecedes)
{
    EXPECT_EQ("y/z", Profiler::StripPattern("x/y/z", 0, "/"));
    EXPECT_EQ("z", Profiler::StripPattern("x/y/z", 1, "/"));
    EXPECT_EQ("x/y", Profiler::StripPattern("x/y/z", 2, "/"));
    EXPECT_EQ("x", Profiler::StripPattern("x/y/z", 3, "/"));
    EXPECT_EQ("z", Profiler::StripPattern("x/y/z", -1, "/"));
    EXPECT_EQ("x", Profiler::StripPattern("x/y/z", 4, "/"));
}

TEST(ProfilerTest, StripPatternDropsTheAsteriskOfItsSide)
{
    EXPECT_EQ("y/z", Profiler::StripPattern("x/y/z", 0, "*/"));
    EXPECT_EQ("z", Profiler::StripPattern("x/y/z", 1, "*/"));
    EXPECT_EQ("x/y", Profiler::StripPattern("x/y/z", 2, "/*"));
    EXPECT_EQ("x", Profiler::StripPattern("x/y/z", 3, "/*"));
    // Only one, only there; elsewhere it is a character like any other.
    EXPECT_EQ("b", Profiler::StripPattern("a*b", 0, "**"));
    EXPECT_EQ("x/y/z", Profiler::StripPattern("x/y/z", 0, "/*"));
    EXPECT_EQ("x/y/z", Profiler::StripPattern("x/y/z", 2, "*/"));
    EXPECT_EQ("c", Profiler::StripPattern("a/*c", 0, "/*"));
}

TEST(ProfilerTest, StripPatternRepeatsOnWhatIsLeft)
{
    EXPECT_EQ("a", Profiler::StripPattern("aaa", 1, "aa"));
    EXPECT_EQ("a", Profiler::StripPattern("aaa", 3, "aa"));
    EXPECT_EQ("", Profiler::StripPattern("aaaa", 1, "aa"));
    EXPECT_EQ("", Profiler::StripPattern("aaaa", 3, "aa"));
}

TEST(ProfilerTest, StripPatternWithoutAMatchReturnsTheText)
{
    for (int l_mode = 0; l_mode != 4; ++l_mode)
    {
        EXPECT_EQ("x/y", Profiler::StripPattern("x/y", l_mode, "z")) << l_mode;
        EXPECT_EQ("x/y", Profiler::StripPattern("x/y", l_mode, "")) << l_mode;
        EXPECT_EQ("x/y", Profiler::StripPattern("x/y", l_mode, "*")) << l_mode;
        EXPECT_EQ("", Profiler::StripPattern("", l_mode, "z")) << l_mode;
    }
}

#include "tolv/vex/tolvNetMessage.hpp"

#include "support/assertion.hpp"
#include "support/dataBuffBytes.hpp"
#include "support/expectAbort.hpp"
#include "support/hex.hpp"
#include "support/scriptedChannel.hpp"
#include "support/waitFor.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <cstdio>

#include <string>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

std::string sent(NetMessage& io_message)
{
    ScriptedChannel l_channel;
    EXPECT_FALSE(io_message.Send(l_channel));
    EXPECT_EQ((std::vector<unsigned int>{io_message.msgLength()}),
              l_channel.writes);
    return toHex(l_channel.sent);
}

// Says when it was dumped.
class Dumped : public NetMessage
{
  public:
    Dumped() : NetMessage(0) {}

    void Dump(FILE* o_stream) override
    {
        EXPECT_EQ(nullptr, o_stream);
        ++dumps;
        NetMessage::Dump(o_stream);
    }

    int dumps = 0;
};

// A derived class may put more in front of the body.
class Larger : public NetMessage
{
  public:
    explicit Larger(unsigned int i_claims) : NetMessage(2), iv_Claims(i_claims)
    {
    }

    unsigned int hdrLength() const override
    {
        return 34;
    }

    unsigned int PlaceHeader(void* o_header, unsigned int i_size) const override
    {
        EXPECT_EQ(36U, i_size);
        EXPECT_EQ(32U, NetMessage::PlaceHeader(o_header, i_size));
        static_cast<char*>(o_header)[32] = 'x';
        static_cast<char*>(o_header)[33] = 'y';
        return iv_Claims;
    }

  private:
    unsigned int iv_Claims;
};

void expectHeader(const NetMessage& i_message, std::uint32_t i_id,
                  unsigned int i_type, unsigned int i_subType,
                  unsigned int i_flags)
{
    EXPECT_EQ(i_id, i_message.getMsgId());
    EXPECT_EQ(i_type, i_message.getMsgType());
    EXPECT_EQ(i_subType, i_message.getMsgSubType());
    EXPECT_EQ(i_flags, i_message.getFlags());
}

NetMessage filled()
{
    NetMessage l_message(0x89ABCDEF, 1, 2, 0x3, 0);
    l_message.setMsgAux(4);
    l_message.setData("abcdef", 6);
    return l_message;
}

} // namespace

TEST(NetMessageTest, NewMessageHasAnUnwrittenBodyAndAnEmptyHeader)
{
    const NetMessage l_message(3);
    EXPECT_EQ("CCC", bytesOf(l_message));
    expectHeader(l_message, 0, 0, 0, 0);
    EXPECT_EQ(0, l_message.getMsgAux());
    EXPECT_EQ(0U, l_message.getSeqNum());
    EXPECT_FALSE(l_message.isReceiving());
    EXPECT_EQ(nullptr, l_message.getProfiler());
    EXPECT_EQ(32U, l_message.hdrLength());
    EXPECT_EQ(35U, l_message.msgLength());
}

TEST(NetMessageTest, ArgumentsAreIdTypeSubTypeFlagsSize)
{
    const NetMessage l_message(0x89ABCDEF, 0x8001, 0x8002,
                               NetMessage::FLAG_PROFILE, 2);
    expectHeader(l_message, 0x89ABCDEF, 0x8001, 0x8002, 0x4000);
    EXPECT_EQ(0, l_message.getMsgAux());
    EXPECT_EQ(0U, l_message.getSeqNum());
    EXPECT_EQ("CC", bytesOf(l_message));
    const NetMessage l_number(7, 1, 2, 0xBFFF, 0);
    expectHeader(l_number, 7, 1, 2, 0xBFFF);
}

TEST(NetMessageTest, FieldsCanBeSet)
{
    NetMessage l_message(0);
    l_message.setMsgId(0xFFFFFFFF);
    l_message.setMsgType(0xFFFE);
    l_message.setMsgSubType(0xFFFD);
    l_message.setMsgAux(0xFFFC);
    l_message.setFlags(NetMessage::FLAG_PROFILE);
    expectHeader(l_message, 0xFFFFFFFF, 0xFFFE, 0xFFFD, 0x4000);
    EXPECT_EQ(0xFFFC, l_message.getMsgAux());
}

TEST(NetMessageTest, SentBytesAreHeaderThenBody)
{
    NetMessage l_message(7, 1, 2, 0, 0);
    l_message.setData("\x0A\x0B\x0C", 3);
    EXPECT_EQ("DE CA FF 20 00 00 00 23 00 00 00 07 00 01 00 00 "
              "00 00 00 03 00 02 00 00 00 00 00 01 00 00 00 00 "
              "0A 0B 0C",
              sent(l_message));
}

TEST(NetMessageTest, EveryFieldIsSentMostSignificantByteFirst)
{
    g_MsgSeqNum = 0x51525353;
    NetMessage l_message(0x01020304, 0x1112, 0x3132, 0x2122, 0x0102);
    l_message.setMsgAux(0x4142);
    const std::string l_sent = sent(l_message);
    EXPECT_EQ("DE CA FF 20 00 00 01 22 01 02 03 04 11 12 21 22 "
              "00 00 01 02 31 32 41 42 51 52 53 54 00 00 00 00 43",
              l_sent.substr(0, std::size_t(33) * 3 - 1));
    EXPECT_EQ(std::size_t(0x122) * 3 - 1, l_sent.size());
}

TEST(NetMessageTest, EmptyBodyIsSentAsTheHeaderAlone)
{
    NetMessage l_message(0);
    EXPECT_EQ("DE CA FF 20 00 00 00 20 00 00 00 00 00 00 00 00 "
              "00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00",
              sent(l_message));
}

TEST(NetMessageTest, WholeBodyIsSentWhateverTheOffset)
{
    NetMessage l_message = filled();
    EXPECT_EQ(6U, l_message.getOffset());
    const std::string l_atEnd = sent(l_message);
    g_MsgSeqNum = 0;
    l_message.setOffset(2);
    EXPECT_EQ(l_atEnd, sent(l_message));
    EXPECT_EQ(2U, l_message.getOffset());
}

TEST(NetMessageTest, FirstMessagePlacedHasSequenceNumberOneTheNextTwo)
{
    EXPECT_EQ(0U, g_MsgSeqNum);
    NetMessage l_first(0);
    NetMessage l_second(0);
    sent(l_first);
    sent(l_second);
    EXPECT_EQ(1U, l_first.getSeqNum());
    EXPECT_EQ(2U, l_second.getSeqNum());
    EXPECT_EQ(2U, g_MsgSeqNum);
    sent(l_first);
    EXPECT_EQ(3U, l_first.getSeqNum());
}

TEST(NetMessageTest, SequenceNumberWrapsToZero)
{
    g_MsgSeqNum = 0xFFFFFFFF;
    NetMessage l_message(0);
    sent(l_message);
    EXPECT_EQ(0U, l_message.getSeqNum());
}

TEST(NetMessageTest, PlaceHeaderNumbersAConstantMessage)
{
    const NetMessage l_message(1);
    std::string l_header(40, '\xEE');
    // The room is not checked.
    EXPECT_EQ(32U, l_message.PlaceHeader(l_header.data(), 0));
    EXPECT_EQ(1U, l_message.getSeqNum());
    EXPECT_EQ("00 00 00 01 00 00 00 00 EE EE EE EE EE EE EE EE",
              toHex(l_header.substr(24)));
}

TEST(NetMessageTest, ShortWriteIsNoError)
{
    ScriptedChannel l_channel;
    l_channel.mostToWrite = 33;
    NetMessage l_message = filled();
    EXPECT_FALSE(l_message.Send(l_channel));
    EXPECT_EQ(33U, l_channel.sent.size());
    EXPECT_EQ((std::vector<unsigned int>{38}), l_channel.writes);
}

TEST(NetMessageTest, ErrorOfTheWriteIsReturned)
{
    ScriptedChannel l_channel;
    l_channel.writeError = 0x440F;
    NetMessage l_message = filled();
    const pError_t l_error = l_message.Send(l_channel);
    ASSERT_TRUE(l_error);
    EXPECT_EQ(0x440F, l_error->getReason());
    EXPECT_EQ("abcdef", bytesOf(l_message));
}

TEST(NetMessageTest, MessageIsDumpedAfterItWasSent)
{
    Dumped l_message;
    ScriptedChannel l_channel;
    EXPECT_FALSE(l_message.Send(l_channel));
    EXPECT_EQ(1, l_message.dumps);
    l_channel.writeError = 0x440F;
    EXPECT_TRUE(l_message.Send(l_channel));
    EXPECT_EQ(1, l_message.dumps);
}

TEST(NetMessageTest, DumpPrintsNothing)
{
    NetMessage l_message = filled();
    l_message.beginProfile();
    testing::internal::CaptureStdout();
    l_message.Dump(stdout);
    fflush(stdout);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(NetMessageTest, DerivedHeaderIsSentInFrontOfTheBody)
{
    Larger l_message(34);
    EXPECT_EQ("DE CA FF 22 00 00 00 24 00 00 00 00 00 00 00 00 "
              "00 00 00 02 00 00 00 00 00 00 00 01 00 00 00 00 78 79 43 43",
              sent(l_message));
}

TEST(NetMessageDeathTest, DerivedHeaderLongerThanItSaidAborts)
{
    Larger l_message(35);
    ScriptedChannel l_channel;
    EXPECT_ABORT(static_cast<void>(l_message.Send(l_channel)));
}

TEST(NetMessageTest, SetDataReplacesTheBody)
{
    NetMessage l_message(10);
    l_message.setOffset(9);
    l_message.setData("abc", 3);
    EXPECT_EQ("abc", bytesOf(l_message));
    EXPECT_EQ(3U, l_message.getOffset());
    l_message.setData(nullptr, 0);
    EXPECT_EQ(0U, l_message.getSize());
    EXPECT_EQ(0U, l_message.getOffset());
}

TEST(NetMessageTest, CopyHasBodyHeaderAndSequenceNumber)
{
    NetMessage l_message = filled();
    sent(l_message);
    l_message.setOffset(3);
    const NetMessage l_copy(l_message);
    expectHeader(l_copy, 0x89ABCDEF, 1, 2, 3);
    EXPECT_EQ(4, l_copy.getMsgAux());
    EXPECT_EQ(1U, l_copy.getSeqNum());
    EXPECT_EQ("abcdef", bytesOf(l_copy));
    EXPECT_EQ(3U, l_copy.getOffset());

    NetMessage l_assigned(17);
    l_assigned = l_copy;
    expectHeader(l_assigned, 0x89ABCDEF, 1, 2, 3);
    EXPECT_EQ(4, l_assigned.getMsgAux());
    EXPECT_EQ(1U, l_assigned.getSeqNum());
    EXPECT_EQ("abcdef", bytesOf(l_assigned));
    EXPECT_EQ(3U, l_assigned.getOffset());
}

TEST(NetMessageTest, CopyHasAProfileOfItsOwn)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    NetMessage l_copy(l_message);
    NetMessage l_assigned(0);
    l_assigned.beginProfile();
    l_assigned.addProfileCheckPoint(1, 1);
    l_assigned = l_message;
    l_message.addProfileCheckPoint(1, 2);
    EXPECT_EQ(2U, l_message.getProfiler()->getCheckPoints().size());
    EXPECT_EQ(1U, l_copy.getProfiler()->getCheckPoints().size());
    EXPECT_EQ(1U, l_assigned.getProfiler()->getCheckPoints().size());
    l_assigned = NetMessage(0);
    EXPECT_EQ(nullptr, l_assigned.getProfiler());
}

TEST(NetMessageTest, SelfAssignmentChangesNothing)
{
    NetMessage l_message = filled();
    l_message.beginProfile();
    const Profiler* const l_profile = l_message.getProfiler();
    const NetMessage& l_same = l_message;
    l_message = l_same;
    l_message.copyHeader(l_same);
    EXPECT_EQ("abcdef", bytesOf(l_message));
    EXPECT_EQ(l_profile, l_message.getProfiler());
    EXPECT_EQ(1U, l_profile->getCheckPoints().size());
}

TEST(NetMessageTest, CopyHeaderLeavesBodyAndSequenceNumber)
{
    NetMessage l_request = filled();
    l_request.beginProfile();
    sent(l_request);
    NetMessage l_answer(9, 9, 9, 9, 2);
    sent(l_answer);
    l_answer.copyHeader(l_request);
    expectHeader(l_answer, 0x89ABCDEF, 1, 2, 3);
    EXPECT_EQ(4, l_answer.getMsgAux());
    EXPECT_EQ(2U, l_answer.getSeqNum());
    EXPECT_EQ("CC", bytesOf(l_answer));
    ASSERT_NE(nullptr, l_answer.getProfiler());
    EXPECT_NE(l_request.getProfiler(), l_answer.getProfiler());
    l_answer.copyHeader(NetMessage(0));
    EXPECT_EQ(nullptr, l_answer.getProfiler());
    EXPECT_EQ(0, l_answer.getMsgAux());
}

#if __SIZEOF_POINTER__ == 8
// A body that is all but 4 GiB long, never written, so nearly without memory.
TEST(NetMessageDeathTest, MessageOfFourGigabytesCannotBeSent)
{
    struct Unwritten : NetMessage
    {
        Unwritten() : NetMessage(0) {}

        using DataBuff::replaceBlock;
    };

    Unwritten l_message;
    if (!l_message.replaceBlock(0xFFFFFFFF - 31))
    {
        GTEST_SKIP() << "no 4 GiB of address space here";
    }
    ScriptedChannel l_channel;
    EXPECT_ABORT(static_cast<void>(l_message.Send(l_channel)));
}
#endif

TEST(NetMessageTest, TwoThreadsMayGetEqualSequenceNumbers)
{
    constexpr unsigned int MESSAGES = 100000;
    const auto l_place = []
    {
        const NetMessage l_message(0);
        char l_header[32];
        for (unsigned int l_count = 0; l_count != MESSAGES; ++l_count)
        {
            l_message.PlaceHeader(l_header, sizeof(l_header));
        }
    };
    EXPECT_TRUE(waitFor(
        [&]
        {
            g_MsgSeqNum = 0;
            std::thread l_other(l_place);
            l_place();
            l_other.join();
            return g_MsgSeqNum < 2 * MESSAGES;
        }));
}

#include "tolv/vex/tolvNetMessage.hpp"

#include "support/assertion.hpp"
#include "support/expectAbort.hpp"
#include "support/hex.hpp"
#include "support/netMessageBytes.hpp"
#include "support/scriptedChannel.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using namespace tolv;

namespace
{

// There is no memory for a larger block, in bytes.
constexpr std::size_t LARGEST_BLOCK = 1U << 30;

const std::string BODY = "0123456789ABCDEF";

void expectReceived(const NetMessage& i_message, const std::string& i_body)
{
    EXPECT_FALSE(i_message.isReceiving());
    EXPECT_EQ(i_body, bytesOf(i_message));
    EXPECT_EQ(0U, i_message.getOffset());
    EXPECT_EQ(0x01020304U, i_message.getMsgId());
    EXPECT_EQ(0x1516, i_message.getMsgType());
    EXPECT_EQ(0x2526, i_message.getMsgSubType());
    EXPECT_EQ(0x3536, i_message.getMsgAux());
    EXPECT_EQ(0x45464748U, i_message.getSeqNum());
}

// The text of the error that these bytes are refused with; empty when they are
// not. Nothing may have changed, and the bytes stay in the channel.
std::string refusal(const std::string& i_bytes)
{
    ScriptedChannel l_channel(i_bytes);
    NetMessage l_message(7, 1, 2, 3, 0);
    l_message.setData("old", 3);
    const pError_t l_error = l_message.Receive(l_channel);
    if (!l_error)
    {
        return std::string();
    }
    EXPECT_EQ(0, l_error->getOrigin());
    EXPECT_EQ(0, l_error->getReason());
    EXPECT_EQ(i_bytes, l_channel.incoming);
    EXPECT_TRUE(l_channel.reads.empty());
    EXPECT_FALSE(l_message.isReceiving());
    EXPECT_EQ("old", bytesOf(l_message));
    EXPECT_EQ(3U, l_message.getOffset());
    EXPECT_EQ(7U, l_message.getMsgId());
    EXPECT_EQ(3, l_message.getFlags());
    return l_error->getText();
}

std::string refusalText(const std::string& i_values)
{
    return "NetMessage::Peek ==> Invalid Message received " + i_values;
}

// A part of a message, and 0x43 where nothing has come.
std::string partOf(const std::string& i_message, std::size_t i_received)
{
    return i_message.substr(0, i_received) +
           std::string(i_message.size() - i_received, 0x43);
}

// Receives a message that comes in two parts, with a time-out or an error
// between them.
void receiveInTwo(const std::string& i_message, std::size_t i_split,
                  unsigned short i_error)
{
    ScriptedChannel l_channel(i_message.substr(0, i_split));
    l_channel.error = i_error;
    NetMessage l_message(0);
    const pError_t l_error = l_message.Receive(l_channel);
    ASSERT_EQ(i_error != 0, bool(l_error));
    EXPECT_TRUE(!l_error || l_error->getReason() == i_error);
    const bool l_accepted = i_split >= 32;
    EXPECT_EQ(l_accepted, l_message.isReceiving());
    EXPECT_EQ(l_accepted ? 0 : i_split, l_channel.incoming.size());
    EXPECT_EQ(l_accepted ? i_split : 0, l_message.getOffset());
    EXPECT_EQ(l_accepted ? partOf(i_message, i_split) : "", bytesOf(l_message));
    EXPECT_EQ(l_accepted ? 0x01020304U : 0U, l_message.getMsgId());
    EXPECT_EQ(l_accepted ? 0x45464748U : 0U, l_message.getSeqNum());
    EXPECT_EQ(nullptr, l_message.getProfiler());

    l_channel.error = 0;
    l_channel.incoming += i_message.substr(i_split);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, BODY);
    EXPECT_EQ(l_accepted ? 1U : 2U, l_channel.peeks.size());
    const unsigned int l_rest = static_cast<unsigned int>(
        i_message.size() - (l_accepted ? i_split : 0));
    EXPECT_EQ(l_rest, l_channel.reads.back());
}

// Receives what may be anything, until it is refused or ends; returns how many
// messages were taken.
int receiveAll(const std::string& i_bytes)
{
    ScriptedChannel l_channel(i_bytes);
    l_channel.error = 0x440D;
    int l_taken = 0;
    for (;;)
    {
        NetMessage l_message(0);
        if (l_message.Receive(l_channel))
        {
            return l_taken;
        }
        ++l_taken;
    }
}

// Says what became of it.
class Watched : public NetMessage
{
  public:
    Watched() : NetMessage(0) {}

    void ExtractHeader() override
    {
        EXPECT_FALSE(isReceiving());
        steps += "extract ";
        NetMessage::ExtractHeader();
    }

    void Dump(FILE* o_stream) override
    {
        EXPECT_EQ(nullptr, o_stream);
        steps += "dump " + bytesOf(*this);
    }

    std::string steps;
};

// A channel that has written one byte more than the 32 that were asked for.
class Overfull : public ScriptedChannel
{
  public:
    pError_t Peek(void* o_buf, unsigned int& io_bytes) override
    {
        pError_t l_error = ScriptedChannel::Peek(o_buf, io_bytes);
        ++io_bytes;
        return l_error;
    }
};

// Pages of the i_bytes at i_block that are in memory.
std::size_t residentPages(const char* i_block, std::size_t i_bytes)
{
    const std::size_t l_page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t l_begin =
        (reinterpret_cast<std::uintptr_t>(i_block) + l_page - 1) &
        ~(l_page - 1);
    const std::size_t l_pages = i_bytes / l_page - 1;
    std::vector<unsigned char> l_resident(l_pages);
    EXPECT_EQ(0, mincore(reinterpret_cast<void*>(l_begin), l_pages * l_page,
                         l_resident.data()));
    return static_cast<std::size_t>(
        std::count_if(l_resident.begin(), l_resident.end(),
                      [](unsigned char i_page) { return (i_page & 1) != 0; }));
}

} // namespace

extern "C"
{
    void* __real_malloc(std::size_t i_size);

    void* __wrap_malloc(std::size_t i_size)
    {
        if (i_size > LARGEST_BLOCK)
        {
            errno = ENOMEM;
            return nullptr;
        }
        return __real_malloc(i_size);
    }
}

TEST(NetMessageReceiveTest, WholeMessageIsPeekedOnceAndReadOnce)
{
    ScriptedChannel l_channel(messageOf(BODY) + "next");
    NetMessage l_message(3);
    l_message.setOffset(3);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, BODY);
    EXPECT_EQ(0, l_message.getFlags());
    EXPECT_EQ(nullptr, l_message.getProfiler());
    EXPECT_EQ("next", l_channel.incoming);
    EXPECT_EQ((std::vector<unsigned int>{32}), l_channel.peeks);
    EXPECT_EQ((std::vector<unsigned int>{48}), l_channel.reads);
}

TEST(NetMessageReceiveTest, SentMessageArrivesAsItWas)
{
    NetMessage l_sent(0xFFFEFDFC, 0xFFFB, 0xFFFA, 0xBFFF, 0);
    l_sent.setMsgAux(0xFFF9);
    const std::string l_body = fromHex("00 FF 80 7F 43 0A 0D 00");
    l_sent.setData(l_body.data(), static_cast<unsigned int>(l_body.size()));
    ScriptedChannel l_out;
    EXPECT_FALSE(l_sent.Send(l_out));
    ScriptedChannel l_in(l_out.sent);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_in));
    EXPECT_EQ(0xFFFEFDFCU, l_message.getMsgId());
    EXPECT_EQ(0xFFFB, l_message.getMsgType());
    EXPECT_EQ(0xFFFA, l_message.getMsgSubType());
    EXPECT_EQ(0xBFFF, l_message.getFlags());
    EXPECT_EQ(0xFFF9, l_message.getMsgAux());
    EXPECT_EQ(1U, l_message.getSeqNum());
    EXPECT_EQ(l_body, bytesOf(l_message));
}

TEST(NetMessageReceiveTest, EmptyBodyIsValid)
{
    ScriptedChannel l_channel(messageOf(""));
    NetMessage l_message(5);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, "");
}

TEST(NetMessageReceiveTest, ReservedWordIsIgnored)
{
    std::string l_bytes = messageOf(BODY);
    l_bytes.replace(28, 4, "\xFF\xFF\xFF\xFF");
    ScriptedChannel l_channel(l_bytes);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, BODY);
}

TEST(NetMessageReceiveTest, MessageThatComesInTwoPartsIsWholeAfterBoth)
{
    const std::string l_message = messageOf(BODY);
    for (std::size_t l_split = 0; l_split != l_message.size(); ++l_split)
    {
        SCOPED_TRACE(l_split);
        receiveInTwo(l_message, l_split, 0);
    }
}

TEST(NetMessageReceiveTest, ProfiledMessageThatComesInTwoPartsIsWholeAfterBoth)
{
    const std::string l_message = profiledMessageOf(2, BODY);
    for (std::size_t l_split = 0; l_split != l_message.size(); ++l_split)
    {
        SCOPED_TRACE(l_split);
        receiveInTwo(l_message, l_split, 0);
    }
}

TEST(NetMessageReceiveTest, ReceivingGoesOnAfterAnErrorAtAnyByte)
{
    const std::string l_message = profiledMessageOf(1, BODY);
    for (std::size_t l_split = 0; l_split != l_message.size(); ++l_split)
    {
        SCOPED_TRACE(l_split);
        receiveInTwo(l_message, l_split, 0x440D);
    }
}

TEST(NetMessageReceiveTest, MessageMayComeByteByByte)
{
    const std::string l_bytes = messageOf(BODY);
    ScriptedChannel l_channel;
    NetMessage l_message(0);
    for (const char l_byte : l_bytes)
    {
        l_channel.incoming += l_byte;
        EXPECT_FALSE(l_message.Receive(l_channel));
    }
    expectReceived(l_message, BODY);
    EXPECT_EQ(l_bytes.size(),
              l_channel.peeks.size() + l_channel.reads.size() - 1);
}

TEST(NetMessageReceiveTest, BytesThatAreNotReportedAreUnwrittenAgain)
{
    const std::string l_bytes = messageOf(BODY);
    ScriptedChannel l_channel(l_bytes.substr(0, 40));
    l_channel.error = 0x440B;
    // As a socket channel does whose receive failed after a part had come.
    l_channel.onRead = [](char*, unsigned int& io_bytes) { io_bytes = 0; };
    NetMessage l_message(0);
    EXPECT_TRUE(l_message.Receive(l_channel));
    EXPECT_TRUE(l_message.isReceiving());
    EXPECT_EQ(std::string(48, 0x43), bytesOf(l_message));
    l_channel.incoming = l_bytes.substr(0, 33);
    EXPECT_TRUE(l_message.Receive(l_channel));
    EXPECT_EQ(std::string(48, 0x43), bytesOf(l_message));
    l_channel.onRead = nullptr;
    l_channel.incoming = l_bytes;
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, BODY);
}

TEST(NetMessageReceiveTest, CopyOfAReceivingMessageGoesOnByItself)
{
    const std::string l_bytes = messageOf(BODY);
    ScriptedChannel l_channel(l_bytes.substr(0, 40));
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    NetMessage l_copy(l_message);
    EXPECT_TRUE(l_copy.isReceiving());
    for (NetMessage* l_each : {&l_message, &l_copy})
    {
        l_channel.incoming = l_bytes.substr(40);
        EXPECT_FALSE(l_each->Receive(l_channel));
        expectReceived(*l_each, BODY);
    }
}

TEST(NetMessageReceiveTest, SetDataGivesUpAReception)
{
    ScriptedChannel l_channel(messageOf(BODY).substr(0, 40));
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    l_message.setData("x", 1);
    EXPECT_FALSE(l_message.isReceiving());
    l_channel.incoming = messageOf("next");
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, "next");
}

TEST(NetMessageReceiveTest, WholeMessageIsTakenApartThenDumped)
{
    const std::string l_bytes = messageOf(BODY);
    ScriptedChannel l_channel(l_bytes.substr(0, 40));
    Watched l_message;
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_EQ("", l_message.steps);
    l_channel.incoming = l_bytes.substr(40);
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_EQ("extract dump " + BODY, l_message.steps);
}

TEST(NetMessageReceiveTest, LaterMessagesReplaceEarlierOnes)
{
    ScriptedChannel l_channel(messageOf("first one") + messageOf("2") +
                              messageOf("the third message"));
    NetMessage l_message(0);
    for (const char* l_body : {"first one", "2", "the third message"})
    {
        EXPECT_FALSE(l_message.Receive(l_channel));
        expectReceived(l_message, l_body);
    }
}

TEST(NetMessageReceiveTest, InvalidMessageHasNeitherOriginNorReason)
{
    EXPECT_EQ(refusalText("EyeCatcher[00414243] HeaderLen[68] "
                          "MessageLen[1162233672]"),
              refusal("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghij"));
}

TEST(NetMessageReceiveTest, InvalidMessageRecordsErrnoAsItIs)
{
    // Refused by its header, and by the profile that it does not have.
    for (const std::string& l_bytes :
         {std::string(32, '\0'), headerOf(32, 35, 3, "40 00") + "abc"})
    {
        for (const int l_errno : {0, EXDEV})
        {
            ScriptedChannel l_channel(l_bytes);
            NetMessage l_message(0);
            errno = l_errno;
            const pError_t l_error = l_message.Receive(l_channel);
            ASSERT_TRUE(l_error);
            EXPECT_EQ(l_errno, l_error->getErrno());
            EXPECT_EQ(l_errno, errno);
        }
    }
}

TEST(NetMessageReceiveTest, EachBitOfTheEyecatcherCounts)
{
    for (std::size_t l_bit = 0; l_bit != 24; ++l_bit)
    {
        std::string l_bytes = messageOf(BODY);
        l_bytes[l_bit / 8] =
            static_cast<char>(l_bytes[l_bit / 8] ^ (1 << l_bit % 8));
        EXPECT_NE("", refusal(l_bytes)) << l_bit;
    }
}

TEST(NetMessageReceiveTest, HeaderLengthBelowThirtyTwoIsInvalid)
{
    for (unsigned int l_length = 0; l_length != 32; ++l_length)
    {
        EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[" +
                              std::to_string(l_length) + "] MessageLen[" +
                              std::to_string(l_length + 16) + "]"),
                  refusal(headerOf(l_length, l_length + 16, 16) + BODY));
    }
}

TEST(NetMessageReceiveTest, LengthsThatDoNotAddUpAreInvalid)
{
    EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[32] MessageLen[47]"),
              refusal(headerOf(32, 47, 16) + BODY));
    EXPECT_NE("", refusal(headerOf(32, 49, 16) + BODY));
    EXPECT_NE("", refusal(headerOf(33, 48, 16) + BODY));
    EXPECT_NE("", refusal(headerOf(32, 0, 0) + BODY));
}

TEST(NetMessageReceiveTest, LengthsAreNotAddedModuloFourGigabytes)
{
    // 32 + 0xFFFFFFF0 is 16 in 32 bits: shorter than its own header.
    EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[32] MessageLen[16]"),
              refusal(headerOf(32, 16, 0xFFFFFFF0) + BODY));
    EXPECT_NE("", refusal(headerOf(32, 0, 0xFFFFFFE0) + BODY));
    EXPECT_NE("", refusal(headerOf(255, 254, 0xFFFFFFFF) + BODY));
}

TEST(NetMessageReceiveTest, InvalidHeaderIsReportedAgain)
{
    ScriptedChannel l_channel(std::string(32, '\0') + messageOf(BODY));
    NetMessage l_message(0);
    for (int l_count = 0; l_count != 3; ++l_count)
    {
        EXPECT_TRUE(l_message.Receive(l_channel));
    }
    EXPECT_EQ(80U, l_channel.incoming.size());
    EXPECT_EQ(3U, l_channel.peeks.size());
}

TEST(NetMessageReceiveTest, LongerHeaderArrivesInFrontOfTheBody)
{
    ScriptedChannel l_channel(headerOf(36, 52, 16) + "more" + BODY);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, "more" + BODY);
}

TEST(NetMessageReceiveTest, LargestHeaderWithoutAProfileIsValid)
{
    const std::string l_more(255 - 32, 'm');
    ScriptedChannel l_channel(headerOf(255, 255 + 16, 16) + l_more + BODY);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, l_more + BODY);
}

TEST(NetMessageReceiveTest, ProfileThatDoesNotFitItsMessageIsInvalid)
{
    // With fewer bytes than a count, and with one checkpoint too many.
    for (const std::string& l_body :
         {std::string("abc"), word(1) + std::string(11, 'x'),
          word(0x15555556) + BODY, word(0xFFFFFFFF) + BODY})
    {
        const std::uint32_t l_length =
            static_cast<std::uint32_t>(l_body.size());
        const std::string l_bytes =
            headerOf(32, 32 + l_length, l_length, "40 00") + l_body;
        ScriptedChannel l_channel(l_bytes + messageOf("next"));
        NetMessage l_message(0);
        l_message.beginProfile();
        const pError_t l_error = l_message.Receive(l_channel);
        ASSERT_TRUE(l_error);
        EXPECT_EQ(0, l_error->getOrigin());
        EXPECT_EQ(0, l_error->getReason());
        EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[32] "
                              "MessageLen[" +
                              std::to_string(l_bytes.size()) + "]"),
                  l_error->getText());
        EXPECT_FALSE(l_message.isReceiving());
        EXPECT_EQ(nullptr, l_message.getProfiler());
        EXPECT_FALSE(l_message.Receive(l_channel));
        expectReceived(l_message, "next");
    }
}

TEST(NetMessageReceiveTest, ProfileMayTakeTheWholeBody)
{
    const std::string l_body = profileOf(1);
    ScriptedChannel l_channel(headerOf(32, 48, 16, "40 00") + l_body);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    expectReceived(l_message, "");
    EXPECT_EQ(2U, l_message.getProfiler()->getCheckPoints().size());
}

TEST(NetMessageReceiveTest, MessageOfFourGigabytesWithoutMemoryIsInvalid)
{
    const std::string l_bytes = headerOf(32, 0xFFFFFFFF, 0xFFFFFFDF);
    EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[32] MessageLen[-1]"),
              refusal(l_bytes));
    ScriptedChannel l_channel(l_bytes);
    NetMessage l_message(0);
    errno = 0;
    EXPECT_EQ(ENOMEM, l_message.Receive(l_channel)->getErrno());
}

TEST(NetMessageReceiveTest, MessageLongerThanTheLimitIsInvalid)
{
    NetMessage::setMaxMessageLength(48);
    EXPECT_EQ("", refusal(messageOf(BODY)));
    EXPECT_EQ(refusalText("EyeCatcher[00DECAFF] HeaderLen[32] MessageLen[49]"),
              refusal(messageOf(BODY + "1")));
    EXPECT_NE("", refusal(headerOf(32, 0xFFFFFFFF, 0xFFFFFFDF)));
}

TEST(NetMessageReceiveTest, AnnouncedBytesTakeNoMemoryBeforeTheyCome)
{
    constexpr std::uint32_t BYTES = 64U << 20;
    ScriptedChannel l_channel(headerOf(32, BYTES, BYTES - 32) + BODY);
    std::size_t l_pages = SIZE_MAX;
    l_channel.onRead = [&](char* i_block, unsigned int&)
    { l_pages = residentPages(i_block, BYTES); };
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    EXPECT_TRUE(l_message.isReceiving());
    EXPECT_GE(2U, l_pages);
    // What has not come can be looked at all the same.
    EXPECT_EQ(0x43, l_message.getData()[48]);
    EXPECT_EQ(0x43, l_message.getData()[BYTES - 1]);
}

TEST(NetMessageReceiveTest, RandomBytesAreRefused)
{
    // Seeded, so that a failure can be seen again.
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp)
    std::mt19937 l_random(20260105);
    for (int l_round = 0; l_round != 2000; ++l_round)
    {
        std::string l_bytes(l_random() % 300, '\0');
        std::generate(l_bytes.begin(), l_bytes.end(),
                      [&] { return static_cast<char>(l_random() & 0xFF); });
        EXPECT_EQ(0, receiveAll(l_bytes));
    }
}

TEST(NetMessageReceiveTest, RandomBytesBehindAValidHeaderAreTakenOrRefused)
{
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp)
    std::mt19937 l_random(20260106);
    int l_taken = 0;
    for (int l_round = 0; l_round != 2000; ++l_round)
    {
        const std::uint32_t l_length =
            static_cast<std::uint32_t>(l_random() % 300);
        std::string l_body(l_length, '\0');
        std::generate(l_body.begin(), l_body.end(),
                      [&] { return static_cast<char>(l_random() & 0xFF); });
        // Small counts fit from time to time.
        l_body.replace(0, std::min<std::size_t>(4, l_length),
                       word(static_cast<std::uint32_t>(l_random() % 40)), 0,
                       std::min<std::size_t>(4, l_length));
        l_taken +=
            receiveAll(headerOf(32, 32 + l_length, l_length, "40 00") + l_body);
    }
    EXPECT_LT(100, l_taken);
    EXPECT_GT(1900, l_taken);
}

TEST(NetMessageReceiveDeathTest, ReceivingWithNothingMissingFails)
{
    ScriptedChannel l_channel(messageOf(BODY).substr(0, 40));
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    l_message.setOffset(l_message.getSize());
    EXPECT_ASSERTION(
        static_cast<void>(l_message.Receive(l_channel)),
        "tolv/vex/tolvNetMessage", 268,
        "virtual tolv::pError_t tolv::NetMessage::Receive(tolv::Channel&)",
        "l_BytesRead != 0");
}

TEST(NetMessageReceiveDeathTest, ChannelThatReportsMoreThanWasAskedForAborts)
{
    ScriptedChannel l_channel(messageOf(BODY));
    l_channel.onRead = [](char*, unsigned int& io_bytes) { ++io_bytes; };
    NetMessage l_message(0);
    EXPECT_ABORT(static_cast<void>(l_message.Receive(l_channel)));
    Overfull l_overfull;
    l_overfull.incoming = messageOf(BODY);
    EXPECT_ABORT(static_cast<void>(l_message.Receive(l_overfull)));
}

TEST(NetMessageReceiveDeathTest, BufferMadeShorterThanAHeaderMeanwhileAborts)
{
    ScriptedChannel l_channel(profiledMessageOf(1, BODY).substr(0, 40));
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(l_channel));
    l_message.Resize(31);
    l_channel.incoming = std::string(31, '\0');
    EXPECT_ABORT(static_cast<void>(l_message.Receive(l_channel)));
}

TEST(NetMessageReceiveDeathTest, ExtractHeaderOfAShorterBufferAborts)
{
    NetMessage l_short(31);
    EXPECT_ABORT(l_short.ExtractHeader());
    NetMessage l_noProfile(0, 0, 0, NetMessage::FLAG_PROFILE, 35);
    EXPECT_ABORT(l_noProfile.ExtractHeader());
    NetMessage l_unwritten(0, 0, 0, NetMessage::FLAG_PROFILE, 100);
    EXPECT_ABORT(l_unwritten.ExtractHeader());
}

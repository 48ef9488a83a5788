#include "tolv/vex/tolvNetMessage.hpp"

#include "tolv/vex/tolvAssert.hpp"
#include "tolv/vex/tolvBigEndian.hpp"
#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvProfile.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <cstdlib>
#include <cstring>

#include <atomic>
#include <limits>
#include <memory>

namespace
{

const char* const SOURCE = "tolv/vex/tolvNetMessage";

// Wire header: offsets in bytes, every field with its most significant byte
// first. DO NOT CHANGE: peers built separately speak it. Drawn in
// docs/wire-format.md.
constexpr std::size_t OFF_EYECATCHER = 0;   // 3 bytes
constexpr std::size_t OFF_HEADER_LEN = 3;   // u8: fixed header + profile
constexpr std::size_t OFF_MESSAGE_LEN = 4;  // u32: header + body
constexpr std::size_t OFF_MSG_ID = 8;       // u32
constexpr std::size_t OFF_MSG_TYPE = 12;    // u16
constexpr std::size_t OFF_FLAGS = 14;       // u16
constexpr std::size_t OFF_DATA_LEN = 16;    // u32: body
constexpr std::size_t OFF_MSG_SUBTYPE = 20; // u16
constexpr std::size_t OFF_MSG_AUX = 22;     // u16
constexpr std::size_t OFF_SEQ_NUM = 24;     // u32
constexpr std::size_t OFF_RESERVED = 28;    // u32: 0 when sent, then ignored
constexpr unsigned int FIXED_HEADER = 32;
static_assert(OFF_RESERVED + sizeof(std::uint32_t) == FIXED_HEADER,
              "header layout");

constexpr std::uint32_t EYECATCHER = 0xDECAFF;
constexpr int UNWRITTEN = 0x43; // as in every DataBuff

std::atomic<std::uint32_t>
    g_maxLength(std::numeric_limits<std::uint32_t>::max());

std::uint32_t eyeCatcher(const unsigned char* i_header)
{
    return tolv::getBig32(i_header + OFF_EYECATCHER) >> 8;
}

// The lengths are added in 64 bits, so that they cannot wrap into a match.
bool isValid(const unsigned char* i_header)
{
    const std::uint32_t l_length = tolv::getBig32(i_header + OFF_MESSAGE_LEN);
    const unsigned int l_headerLength = i_header[OFF_HEADER_LEN];
    return eyeCatcher(i_header) == EYECATCHER &&
           l_headerLength >= FIXED_HEADER &&
           l_length == std::uint64_t(l_headerLength) +
                           tolv::getBig32(i_header + OFF_DATA_LEN) &&
           l_length <= g_maxLength.load(std::memory_order_relaxed);
}

// A channel that reports more bytes than it was asked for has written beyond
// the block.
void requireAtMost(unsigned int i_reported, unsigned int i_asked)
{
    if (i_reported > i_asked)
    {
        std::abort();
    }
}

// Deliberate: counted without a lock, as one load and one store.
// Effect: messages that two threads send at once may have the same number.
// Pinned by: NetMessageTest.TwoThreadsMayGetEqualSequenceNumbers
std::uint32_t nextSeqNum()
{
    const std::uint32_t l_next =
        __atomic_load_n(&tolv::g_MsgSeqNum, __ATOMIC_RELAXED) + 1;
    __atomic_store_n(&tolv::g_MsgSeqNum, l_next, __ATOMIC_RELAXED);
    return l_next;
}

} // namespace

namespace tolv
{

std::uint32_t g_MsgSeqNum = 0;

NetMessage::NetMessage(unsigned int i_size) :
    NetMessage(0, 0, 0, FLAG_NONE, i_size)
{
}

NetMessage::NetMessage(unsigned int i_id, unsigned short i_type,
                       unsigned short i_subType, Flags i_flags,
                       unsigned int i_size) :
    DataBuff(i_size),
    iv_MsgId(i_id), iv_MsgType(i_type), iv_Flags(i_flags),
    iv_MsgSubType(i_subType), iv_MsgAux(0), iv_SeqNum(0), iv_Receiving(false),
    iv_pProfiler(nullptr)
{
}

NetMessage::NetMessage(unsigned int i_id, unsigned short i_type,
                       unsigned short i_subType, unsigned short i_flags,
                       unsigned int i_size) :
    NetMessage(i_id, i_type, i_subType, static_cast<Flags>(i_flags), i_size)
{
}

NetMessage::NetMessage(const NetMessage& i_other) : NetMessage(0)
{
    *this = i_other;
}

NetMessage& NetMessage::operator=(const NetMessage& i_other)
{
    if (this != &i_other)
    {
        DataBuff::operator=(i_other);
        copyFields(i_other);
        iv_SeqNum = i_other.iv_SeqNum;
        iv_Receiving = i_other.iv_Receiving;
    }
    return *this;
}

NetMessage::~NetMessage()
{
    delete iv_pProfiler;
}

void NetMessage::setData(const void* i_bytes, unsigned int i_length)
{
    Resize(i_length);
    Poke(0, i_bytes, i_length);
    setOffset(i_length);
    iv_Receiving = false;
}

void NetMessage::copyHeader(const NetMessage& i_other)
{
    copyFields(i_other);
}

// What an answer takes over from its request.
void NetMessage::copyFields(const NetMessage& i_other)
{
    iv_MsgId = i_other.iv_MsgId;
    iv_MsgType = i_other.iv_MsgType;
    iv_Flags = i_other.iv_Flags;
    iv_MsgSubType = i_other.iv_MsgSubType;
    iv_MsgAux = i_other.iv_MsgAux;
    if (this != &i_other)
    {
        attach(i_other.iv_pProfiler == nullptr
                   ? nullptr
                   : new Profiler(*i_other.iv_pProfiler));
    }
}

// Replaces the profile; null leaves none.
void NetMessage::attach(Profiler* i_profiler)
{
    delete iv_pProfiler;
    iv_pProfiler = i_profiler;
}

void NetMessage::Dump(FILE* o_stream)
{
    if (iv_pProfiler != nullptr)
    {
        iv_pProfiler->Dump();
    }
    DataBuff::Dump(o_stream);
}

unsigned int NetMessage::hdrLength() const
{
    return FIXED_HEADER +
           (iv_pProfiler == nullptr ? 0 : iv_pProfiler->profileLength());
}

// Deliberate: the header length is one byte and is not checked; with more than
// 18 checkpoints it wraps.
// Effect: messages with 19 or 20 checkpoints are refused by the receiver as
// invalid; 21 to 39 wrap back to 32 or more and arrive whole.
// Pinned by: NetMessageProfileTest.HeaderLengthWrapsAboveEighteenCheckPoints
//
// Deliberate: the flag is set in the header only, not in the message.
// Effect: the sender's flags do not show that the message has a profile.
// Pinned by: NetMessageProfileTest.FlagIsSetInTheHeaderOnly
unsigned int NetMessage::PlaceHeader(void* o_header,
                                     unsigned int /*i_size*/) const
{
    iv_SeqNum = nextSeqNum();
    unsigned char* l_header = static_cast<unsigned char*>(o_header);
    const unsigned int l_length = msgLength();
    const unsigned char l_headerLength =
        static_cast<unsigned char>(hdrLength());
    const bool l_profiled = iv_pProfiler != nullptr;
    const unsigned int l_flags =
        l_profiled ? iv_Flags | FLAG_PROFILE : iv_Flags;

    // One word: three bytes of eyecatcher and the header length.
    putBig32(l_header + OFF_EYECATCHER, EYECATCHER << 8 | l_headerLength);
    putBig32(l_header + OFF_MESSAGE_LEN, l_length);
    putBig32(l_header + OFF_MSG_ID, iv_MsgId);
    putBig16(l_header + OFF_MSG_TYPE, iv_MsgType);
    putBig16(l_header + OFF_FLAGS, static_cast<std::uint16_t>(l_flags));
    putBig32(l_header + OFF_DATA_LEN, l_length - l_headerLength);
    putBig16(l_header + OFF_MSG_SUBTYPE, iv_MsgSubType);
    putBig16(l_header + OFF_MSG_AUX, iv_MsgAux);
    putBig32(l_header + OFF_SEQ_NUM, iv_SeqNum);
    putBig32(l_header + OFF_RESERVED, 0);
    return FIXED_HEADER +
           (l_profiled ? iv_pProfiler->PlaceProfile(l_header + FIXED_HEADER)
                       : 0);
}

// Deliberate: what the channel has written is not compared with the length.
// Effect: a message that is sent in part counts as sent.
// Pinned by: NetMessageTest.ShortWriteIsNoError
pError_t NetMessage::Send(Channel& io_channel)
{
    const std::uint64_t l_whole = std::uint64_t(hdrLength()) + getSize();
    unsigned int l_length = msgLength();
    const std::unique_ptr<char, void (*)(void*)> l_block(
        static_cast<char*>(std::malloc(l_length)), &std::free);
    if (l_whole != l_length || l_block == nullptr)
    {
        std::abort();
    }
    const unsigned int l_header = PlaceHeader(l_block.get(), l_length);
    requireAtMost(l_header, l_length - getSize());
    Peek(0, l_block.get() + l_header, getSize());

    pError_t l_error = io_channel.Write(l_block.get(), l_length);
    if (!l_error)
    {
        Dump(nullptr);
    }
    return l_error;
}

pError_t NetMessage::Receive(Channel& io_channel)
{
    const bool l_first = !iv_Receiving;
    if (l_first)
    {
        pError_t l_error = acceptHeader(io_channel);
        if (!iv_Receiving)
        {
            return l_error;
        }
    }
    return receiveRest(io_channel, l_first);
}

// The header stays in the channel: the message is read from its first byte.
//
// Deliberate: an invalid header is not taken from the channel.
// Effect: each further call reports it again, until the channel is closed.
// Pinned by: NetMessageReceiveTest.InvalidHeaderIsReportedAgain
pError_t NetMessage::acceptHeader(Channel& io_channel)
{
    unsigned char l_header[FIXED_HEADER];
    unsigned int l_bytes = FIXED_HEADER;
    pError_t l_error = io_channel.Peek(l_header, l_bytes);
    requireAtMost(l_bytes, FIXED_HEADER);
    if (l_error || l_bytes < FIXED_HEADER)
    {
        return l_error;
    }
    if (!isValid(l_header) ||
        !replaceBlock(getBig32(l_header + OFF_MESSAGE_LEN)))
    {
        return invalidMessage(l_header);
    }
    iv_MsgId = getBig32(l_header + OFF_MSG_ID);
    iv_MsgType = getBig16(l_header + OFF_MSG_TYPE);
    iv_Flags = static_cast<Flags>(getBig16(l_header + OFF_FLAGS));
    iv_MsgSubType = getBig16(l_header + OFF_MSG_SUBTYPE);
    iv_MsgAux = getBig16(l_header + OFF_MSG_AUX);
    iv_SeqNum = getBig32(l_header + OFF_SEQ_NUM);
    iv_Receiving = true;
    return l_error;
}

// What arrives is written once, into a block that takes memory only as far as
// it is written; the rest is filled when the call ends without it. Later calls
// find it filled, unless the channel wrote bytes that it did not report, as it
// may do with an error.
pError_t NetMessage::receiveRest(Channel& io_channel, bool i_first)
{
    const unsigned int l_missing = getSize() - getOffset();
    if (l_missing == 0)
    {
        assertFailed(
            "l_BytesRead != 0", SOURCE, 268,
            "virtual tolv::pError_t tolv::NetMessage::Receive(tolv::Channel&)");
    }
    unsigned int l_bytes = l_missing;
    pError_t l_error = io_channel.Read(getBlock() + getOffset(), l_bytes);
    requireAtMost(l_bytes, l_missing);
    setOffset(getOffset() + l_bytes);
    if (i_first || l_error)
    {
        std::memset(getBlock() + getOffset(), UNWRITTEN, l_missing - l_bytes);
    }
    if (l_error || l_bytes != l_missing)
    {
        return l_error;
    }
    return takeApart();
}

pError_t NetMessage::takeApart()
{
    iv_Receiving = false;
    const unsigned char* l_bytes =
        reinterpret_cast<const unsigned char*>(getData());
    if (getSize() >= FIXED_HEADER && (iv_Flags & FLAG_PROFILE) != 0 &&
        !Profiler::fits(l_bytes + FIXED_HEADER, getSize() - FIXED_HEADER))
    {
        attach(nullptr);
        return invalidMessage(l_bytes);
    }
    ExtractHeader();
    Dump(nullptr);
    return pError_t();
}

// Deliberate: the header length of the wire is not used here; what is removed
// is the fixed header and the profile that the flag announces.
// Effect: bytes between a longer header and the body arrive in front of the
// body.
// Pinned by: NetMessageReceiveTest.LongerHeaderArrivesInFrontOfTheBody
//
// Deliberate: the flag stays set.
// Effect: a received profiled message whose profile has ended announces one
// when it is sent on, and the receiver takes the first bytes of its body for
// it.
// Pinned by: NetMessageProfileTest.EndedProfileIsStillAnnounced
//
// Deliberate: without the flag a profile that the object has stays.
// Effect: an object that receives one message after the other keeps the profile
// of an earlier one until it is ended or replaced, and sends it along.
// Pinned by: NetMessageProfileTest.MessageWithoutProfileLeavesTheOwn
void NetMessage::ExtractHeader()
{
    unsigned int l_header = FIXED_HEADER;
    if ((iv_Flags & FLAG_PROFILE) != 0)
    {
        const char* l_profile = getData() + FIXED_HEADER;
        if (getSize() < FIXED_HEADER ||
            !Profiler::fits(l_profile, getSize() - FIXED_HEADER))
        {
            std::abort();
        }
        attach(new Profiler);
        l_header += iv_pProfiler->ExtractProfile(l_profile);
        iv_pProfiler->addStamp();
    }
    TrimFront(l_header);
}

// Deliberate: origin and reason are 0.
// Effect: an invalid message is told from other errors by its text only.
// Pinned by: NetMessageReceiveTest.InvalidMessageHasNeitherOriginNorReason
//
// Deliberate: the error records errno as it is, though no call has failed,
// unless there was no memory for the message.
// Effect: its errno may be that of any earlier failure of the thread.
// Pinned by: NetMessageReceiveTest.InvalidMessageRecordsErrnoAsItIs
pError_t NetMessage::invalidMessage(const unsigned char* i_header)
{
    return BuildLog(0, 0, g_TolvTraceDesc,
                    "NetMessage::Peek ==> Invalid Message received "
                    "EyeCatcher[%08X] HeaderLen[%i] MessageLen[%i]",
                    eyeCatcher(i_header), i_header[OFF_HEADER_LEN],
                    static_cast<int>(getBig32(i_header + OFF_MESSAGE_LEN)));
}

void NetMessage::beginProfile()
{
    if (iv_pProfiler != nullptr)
    {
        assertFailed("iv_pProfiler == __null", SOURCE, 344,
                     "void tolv::NetMessage::beginProfile()");
    }
    attach(new Profiler);
    iv_pProfiler->addStamp();
}

void NetMessage::endProfile(unsigned int i_id)
{
    if (iv_pProfiler != nullptr)
    {
        iv_pProfiler->addStamp();
        iv_pProfiler->end(i_id);
        attach(nullptr);
    }
}

void NetMessage::addProfileCheckPoint(unsigned short i_major,
                                      unsigned short i_minor)
{
    if (iv_pProfiler != nullptr)
    {
        iv_pProfiler->addCheckPoint(i_major, i_minor);
    }
}

void NetMessage::setMaxMessageLength(unsigned int i_bytes)
{
    g_maxLength.store(i_bytes, std::memory_order_relaxed);
}

} // namespace tolv

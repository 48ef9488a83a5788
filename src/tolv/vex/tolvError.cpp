#include "tolv/vex/tolvError.hpp"

#include "tolv/platform/registry.hpp"
#include "tolv/platform/traceBuffer.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

// Serialised form: offsets in bytes, fields in the host's byte order. The
// images of the three pointers (of the type at 0, text at 32, trace at 36) and
// the padding at 5 are written as zero and never read.
constexpr std::size_t OFF_ORIGIN = 4;        // u8
constexpr std::size_t OFF_REASON = 6;        // u16
constexpr std::size_t OFF_POSITION = 8;      // u32
constexpr std::size_t OFF_ROLE = 12;         // u32
constexpr std::size_t OFF_NODE_ID = 16;      // u32
constexpr std::size_t OFF_ERRNO = 20;        // s32
constexpr std::size_t OFF_TEXT_LENGTH = 24;  // u32
constexpr std::size_t OFF_TRACE_LENGTH = 28; // u32
constexpr std::size_t FIXED_PART = 40;

// How much of the trace buffer an error takes along, in bytes.
constexpr std::uint32_t TRACE_SNAPSHOT = 1024;

template <class T>
void put(unsigned char* o_image, std::size_t i_offset, T i_value)
{
    std::memcpy(o_image + i_offset, &i_value, sizeof(i_value));
}

template <class T>
void fetch(const unsigned char* i_image, std::size_t i_offset, T& o_value)
{
    std::memcpy(&o_value, i_image + i_offset, sizeof(o_value));
}

// A block that could not be allocated when the error was made counts as zeros.
void putBlock(unsigned char* o_image, const void* i_block, std::size_t i_length)
{
    if (i_block != nullptr)
    {
        std::memcpy(o_image, i_block, i_length);
    }
    else
    {
        std::memset(o_image, 0, i_length);
    }
}

// Null for no text. Only the string itself is taken from the text: a short one
// with a long length must not carry foreign bytes along. The byte behind the
// block ends a text that came without its NUL.
char* copyText(const unsigned char* i_image, std::uint32_t i_length)
{
    if (i_length == 0)
    {
        return nullptr;
    }
    char* l_text =
        static_cast<char*>(std::calloc(std::size_t(i_length) + 1, 1));
    if (l_text != nullptr)
    {
        const char* l_string = reinterpret_cast<const char*>(i_image);
        std::memcpy(l_text, l_string, strnlen(l_string, i_length));
    }
    return l_text;
}

// Null for no block.
unsigned char* copyBlock(const unsigned char* i_image, std::uint32_t i_length)
{
    if (i_length == 0)
    {
        return nullptr;
    }
    void* l_block = std::malloc(i_length);
    if (l_block != nullptr)
    {
        std::memcpy(l_block, i_image, i_length);
    }
    return static_cast<unsigned char*>(l_block);
}

} // namespace

namespace tolv
{

Error::Error() :
    iv_Origin(0), iv_Reason(0), iv_Position(0), iv_Role(0), iv_NodeId(0),
    iv_Errno(0), iv_TextLength(0), iv_TraceLength(0), iv_Text(nullptr),
    iv_Trace(nullptr)
{
}

Error::Error(unsigned char i_origin, unsigned short i_reason,
             const char* i_text) :
    Error()
{
    const int l_errno = errno;
    iv_Origin = i_origin;
    iv_Reason = i_reason;
    if (i_text != nullptr)
    {
        iv_Text = strdup(i_text);
        iv_TextLength = static_cast<std::uint32_t>(std::strlen(i_text) + 1);
    }

    // Deliberate: the byte is not cleared between the reads.
    // Effect: a value that cannot be read repeats the one before it.
    // Pinned by: ErrorTest.FailedRegistryReadRepeatsTheValueBefore
    unsigned char l_byte = 0;
    RegistryRead("dscv/VexPosition", &l_byte, 1, 0);
    iv_Position = l_byte;
    RegistryRead("dscv/VexRole", &l_byte, 1, 0);
    iv_Role = l_byte;
    RegistryRead("dscv/VexNodeId", &l_byte, 1, 0);
    iv_NodeId = l_byte;
    iv_Errno = l_errno;

    iv_TraceLength = TRACE_SNAPSHOT;
    // Zeros: a platform without the service leaves the snapshot untouched.
    iv_Trace = static_cast<unsigned char*>(std::calloc(TRACE_SNAPSHOT, 1));
    TraceBufferReadDiff("TOLV", TRACE_SNAPSHOT, iv_Trace);
    errno = l_errno;
}

Error::Error(const void* i_image, std::size_t i_room) : Error()
{
    unflatten(i_image, i_room);
}

Error::~Error()
{
    freeBlocks();
}

void Error::freeBlocks()
{
    std::free(iv_Text);
    std::free(iv_Trace);
    iv_Text = nullptr;
    iv_Trace = nullptr;
}

unsigned char Error::getOrigin() const
{
    return iv_Origin;
}

unsigned short Error::getReason() const
{
    return iv_Reason;
}

std::uint32_t Error::getPosition() const
{
    return iv_Position;
}

std::uint32_t Error::getRole() const
{
    return iv_Role;
}

std::uint32_t Error::getNodeId() const
{
    return iv_NodeId;
}

std::int32_t Error::getErrno() const
{
    return iv_Errno;
}

const char* Error::getText() const
{
    return iv_Text;
}

std::uint32_t Error::getTextLength() const
{
    return iv_TextLength;
}

const void* Error::getTrace() const
{
    return iv_Trace;
}

std::uint32_t Error::getTraceLength() const
{
    return iv_TraceLength;
}

std::size_t Error::getSize() const
{
    return FIXED_PART + iv_TextLength + iv_TraceLength;
}

bool Error::flatten(void* o_buffer, std::size_t i_room) const
{
    if (getSize() > i_room)
    {
        return false;
    }
    unsigned char* l_image = static_cast<unsigned char*>(o_buffer);
    std::memset(l_image, 0, FIXED_PART);
    put(l_image, OFF_ORIGIN, iv_Origin);
    put(l_image, OFF_REASON, iv_Reason);
    put(l_image, OFF_POSITION, iv_Position);
    put(l_image, OFF_ROLE, iv_Role);
    put(l_image, OFF_NODE_ID, iv_NodeId);
    put(l_image, OFF_ERRNO, iv_Errno);
    put(l_image, OFF_TEXT_LENGTH, iv_TextLength);
    put(l_image, OFF_TRACE_LENGTH, iv_TraceLength);
    putBlock(l_image + FIXED_PART, iv_Text, iv_TextLength);
    putBlock(l_image + FIXED_PART + iv_TextLength, iv_Trace, iv_TraceLength);
    return true;
}

void Error::unflatten(const void* i_image, std::size_t i_room)
{
    const unsigned char* l_image = static_cast<const unsigned char*>(i_image);
    if (i_room < FIXED_PART)
    {
        std::abort();
    }
    std::uint32_t l_textLength = 0;
    std::uint32_t l_traceLength = 0;
    fetch(l_image, OFF_TEXT_LENGTH, l_textLength);
    fetch(l_image, OFF_TRACE_LENGTH, l_traceLength);
    if (std::uint64_t(FIXED_PART) + l_textLength + l_traceLength > i_room)
    {
        std::abort();
    }

    fetch(l_image, OFF_ORIGIN, iv_Origin);
    fetch(l_image, OFF_REASON, iv_Reason);
    fetch(l_image, OFF_POSITION, iv_Position);
    fetch(l_image, OFF_ROLE, iv_Role);
    fetch(l_image, OFF_NODE_ID, iv_NodeId);
    fetch(l_image, OFF_ERRNO, iv_Errno);
    char* l_text = copyText(l_image + FIXED_PART, l_textLength);
    unsigned char* l_trace =
        copyBlock(l_image + FIXED_PART + l_textLength, l_traceLength);
    freeBlocks(); // only now: the image may lie in one of them
    iv_Text = l_text;
    iv_Trace = l_trace;
    iv_TextLength = l_textLength;
    iv_TraceLength = l_traceLength;
}

pError_t::~pError_t()
{
    delete iv_Error;
}

void pError_t::reset(Error* i_error)
{
    if (iv_Error != i_error)
    {
        delete iv_Error;
        iv_Error = i_error;
    }
}

} // namespace tolv

// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVNETMESSAGE_HPP
#define TOLV_VEX_TOLVNETMESSAGE_HPP

#include "tolv/vex/tolvDataBuff.hpp"
#include "tolv/vex/tolvExport.hpp"

#include <cstdint>
#include <cstdio>

namespace tolv
{

class Channel;
class Profiler;

/// The sequence number of the message that was placed last in this process; 0
/// when none was.
///
/// Threads: counted without a lock, so two threads that send at once may give
///          equal numbers.
TOLV_EXPORT extern std::uint32_t g_MsgSeqNum;

/// A message: a body, which is the DataBuff, a header of 32 bytes and where
/// wanted a profile, which travels between the two.
///
/// docs/wire-format.md draws the bytes. A message is sent with one write of
/// its channel; it is received over as many calls as the channel needs.
///
/// Threads:   one thread at a time.
/// Ownership: a message owns its profile; copies have copies of it.
class TOLV_EXPORT NetMessage : public DataBuff
{
  public:
    /// The bits of the header's flags that the library knows. All others are
    /// the application's and travel unchanged.
    enum Flags : unsigned short
    {
        FLAG_NONE = 0,
        FLAG_PROFILE = 0x4000 // a profile follows the header
    };

    /// Every header field 0, no profile; for receiving.
    ///
    /// Units: i_size, bytes of the body, each 0x43 as in any DataBuff.
    explicit NetMessage(unsigned int i_size);

    NetMessage(unsigned int i_id, unsigned short i_type,
               unsigned short i_subType, Flags i_flags, unsigned int i_size);

    /// As the other form; takes any bits as flags.
    NetMessage(unsigned int i_id, unsigned short i_type,
               unsigned short i_subType, unsigned short i_flags,
               unsigned int i_size);

    /// Copies everything, a reception under way included.
    NetMessage(const NetMessage& i_other);

    /// As the copy constructor.
    NetMessage& operator=(const NetMessage& i_other);

    ~NetMessage() override;

    /// Makes the body a copy of i_length bytes and sets the offset behind
    /// them. A reception under way is given up. i_bytes is not the own body.
    void setData(const void* i_bytes, unsigned int i_length);

    /// Prints nothing.
    void Dump(FILE* o_stream) override;

    /// Sends the whole message, whatever the offset, with one write.
    ///
    /// Errors: those of Channel::Write(). A SHORT write is none. A message of
    ///         4 GiB or more cannot be told on the wire and ends the process
    ///         with abort(), and so does a shortage of memory.
    /// Blocks: as Channel::Write().
    virtual pError_t Send(Channel& io_channel);

    /// Receives what is missing of a message, and so goes on where an earlier
    /// call had to stop. isReceiving() tells whether the message is whole.
    ///
    /// The body is then at offset 0 and the header fields and profile are set;
    /// a profile has one more stamp, for its arrival. Until then the buffer
    /// holds the message with its header, 0x43 where nothing was received.
    ///
    /// Returns: empty with isReceiving() true when only a part came before the
    ///          channel's time-out; EMPTY TOO, with nothing changed, when fewer
    ///          than 32 bytes could be peeked.
    /// Errors:  those of the channel, with what was received kept; origin 0
    ///          and reason 0 for bytes that are no message, and for a message
    ///          that memory is too short for. That one has errno ENOMEM; errno
    ///          of the others means nothing. An invalid header stays in the
    ///          channel, so that each further call finds it again: close the
    ///          channel. A message whose profile does not fit into it is taken
    ///          from the channel and its bytes are left in the buffer.
    /// Blocks:  as Channel::Peek() and Channel::Read().
    virtual pError_t Receive(Channel& io_channel);

    /// Units: bytes of the header: 32, and those of the profile.
    virtual unsigned int hdrLength() const;

    /// Copies id, types, flags, auxiliary word and profile, as an answer needs
    /// them. Sequence number and body stay.
    virtual void copyHeader(const NetMessage& i_other);

    /// Numbers the message and writes header and profile for it.
    ///
    /// i_size is not checked: o_header has room for hdrLength() bytes.
    ///
    /// Returns: bytes written.
    virtual unsigned int PlaceHeader(void* o_header, unsigned int i_size) const;

    /// Takes the profile that the flags announce, adds the stamp, and removes
    /// header and profile from the buffer, which holds a received message.
    ///
    /// Errors: a message that is shorter than that ends the process with
    ///         abort(); Receive() has looked before it calls.
    virtual void ExtractHeader();

    /// Attaches a profile, with a stamp.
    ///
    /// Errors: a message that has one already is a programming fault and ends
    ///         the process with an assertion.
    void beginProfile();

    /// Adds a stamp, appends the profile to the CSV file (see Profiler) and
    /// deletes it; nothing without a profile.
    void endProfile(unsigned int i_id);

    /// Adds a checkpoint with the current uptime; nothing without a profile.
    /// At most 18 checkpoints travel safely, see docs/wire-format.md.
    void addProfileCheckPoint(unsigned short i_major, unsigned short i_minor);

    std::uint32_t getMsgId() const
    {
        return iv_MsgId;
    }

    void setMsgId(std::uint32_t i_id)
    {
        iv_MsgId = i_id;
    }

    std::uint16_t getMsgType() const
    {
        return iv_MsgType;
    }

    void setMsgType(std::uint16_t i_type)
    {
        iv_MsgType = i_type;
    }

    std::uint16_t getMsgSubType() const
    {
        return iv_MsgSubType;
    }

    void setMsgSubType(std::uint16_t i_subType)
    {
        iv_MsgSubType = i_subType;
    }

    std::uint16_t getMsgAux() const
    {
        return iv_MsgAux;
    }

    void setMsgAux(std::uint16_t i_aux)
    {
        iv_MsgAux = i_aux;
    }

    Flags getFlags() const
    {
        return iv_Flags;
    }

    void setFlags(Flags i_flags)
    {
        iv_Flags = i_flags;
    }

    /// The number that the message got when it was placed last, or came with.
    std::uint32_t getSeqNum() const
    {
        return iv_SeqNum;
    }

    /// true: a header was accepted and the message is NOT whole yet.
    bool isReceiving() const
    {
        return iv_Receiving;
    }

    /// Units: bytes on the wire: header, profile and body.
    unsigned int msgLength() const
    {
        return hdrLength() + getSize();
    }

    /// Ownership: the message's; null when there is none.
    Profiler* getProfiler() const
    {
        return iv_pProfiler;
    }

    /// Makes Receive() refuse, as invalid, messages that announce more bytes,
    /// header included. There is no limit unless one is set.
    ///
    /// Set one where peers are not trusted: the memory for a message is asked
    /// for when its header has arrived. It is in use only as far as bytes have
    /// arrived, until a call ends with a part of the message. A profile takes
    /// as many bytes again.
    ///
    /// Threads: any; holds for all messages of the process.
    static void setMaxMessageLength(unsigned int i_bytes);

  private:
    pError_t acceptHeader(Channel& io_channel);
    pError_t receiveRest(Channel& io_channel, bool i_first);
    pError_t takeApart();
    pError_t invalidMessage(const unsigned char* i_header);
    void copyFields(const NetMessage& i_other);
    void attach(Profiler* i_profiler);

    // Declared order is the object layout.
    std::uint32_t iv_MsgId;
    std::uint16_t iv_MsgType;
    Flags iv_Flags;
    std::uint16_t iv_MsgSubType;
    std::uint16_t iv_MsgAux;
    mutable std::uint32_t iv_SeqNum;
    bool iv_Receiving;
    Profiler* iv_pProfiler; // owned, or null
};

} // namespace tolv

#endif

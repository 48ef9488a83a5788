// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVERROR_HPP
#define TOLV_VEX_TOLVERROR_HPP

#include "tolv/vex/tolvExport.hpp"

#include <cstddef>
#include <cstdint>

namespace tolv
{

/// One failure: who reported it and why, the node's identity, errno, a message
/// and a snapshot of the library's trace buffer.
///
/// A text or trace that memory was short for is null although its length is
/// not 0; it is serialised as zeros.
///
/// Threads: one thread at a time; independent objects on any threads. Never
///          made in a signal handler.
class TOLV_EXPORT Error
{
  public:
    /// Every field zero, no text, no trace.
    Error();

    /// Captures a failure where it happens.
    ///
    /// Reads the node's identity from the registry (a value that cannot be
    /// read repeats the one before it, the first one is 0) and the newest 1024
    /// bytes of the trace buffer "TOLV". errno is recorded and left unchanged.
    ///
    /// Blocks:    for the platform's four reads, on stock Linux of small files
    ///            and of memory.
    /// Ownership: i_text is copied; null means no text.
    Error(unsigned char i_origin, unsigned short i_reason, const char* i_text);

    /// Decodes the serialised form, as unflatten() does.
    Error(const void* i_image, std::size_t i_room);

    virtual ~Error();
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;

    /// The code of the reporting site.
    unsigned char getOrigin() const;

    /// The reason code, 0x44xx for this library's own.
    unsigned short getReason() const;

    std::uint32_t getPosition() const;
    std::uint32_t getRole() const;
    std::uint32_t getNodeId() const;

    /// errno at construction.
    std::int32_t getErrno() const;

    /// The message, or null. Ownership: the object's.
    const char* getText() const;

    /// Units: bytes, the terminating NUL included; 0 without a text.
    std::uint32_t getTextLength() const;

    /// The trace snapshot, or null. Ownership: the object's.
    const void* getTrace() const;

    /// Units: bytes.
    std::uint32_t getTraceLength() const;

    /// Units: bytes of the serialised form: 40, the text and the trace.
    std::size_t getSize() const;

    /// Writes the serialised form: 40 bytes of fields in the host's byte
    /// order, the same on 32- and 64-bit machines, then text, then trace.
    ///
    /// Returns: false, with nothing written, when getSize() exceeds i_room.
    bool flatten(void* o_buffer, std::size_t i_room) const;

    /// Becomes what a serialised form says; earlier content is freed. A text
    /// whose string is shorter than its length is filled up with zeros.
    ///
    /// Errors:    an image that does not fit i_room ends the process with
    ///            abort(); no byte beyond i_room is touched.
    /// Ownership: i_image is copied; it may lie in this object's own blocks.
    void unflatten(const void* i_image, std::size_t i_room);

  private:
    void freeBlocks();

    // Declared order is the object layout; on a 32-bit machine it is that of
    // the serialised form.
    std::uint8_t iv_Origin;
    std::uint16_t iv_Reason;
    std::uint32_t iv_Position;
    std::uint32_t iv_Role;
    std::uint32_t iv_NodeId;
    std::int32_t iv_Errno;
    std::uint32_t iv_TextLength;
    std::uint32_t iv_TraceLength;
    char* iv_Text;           // owned, malloc family, or null
    unsigned char* iv_Trace; // owned, malloc family, or null
};

/// Owns at most one Error; empty means success.
///
/// Ownership: copying and assigning TRANSFER the error and leave the source
///            empty, also when a value is passed or returned.
/// Threads:   one thread at a time.
class TOLV_NODISCARD TOLV_EXPORT pError_t
{
  public:
    /// Empty: no error.
    pError_t() : iv_Error(nullptr) {}

    /// Takes ownership.
    explicit pError_t(Error* i_error) : iv_Error(i_error) {}

    pError_t(pError_t& io_other) : iv_Error(io_other.release()) {}

    pError_t(pError_t&& io_other) noexcept : iv_Error(io_other.release()) {}

    pError_t& operator=(pError_t& io_other)
    {
        if (this != &io_other)
        {
            reset(io_other.release());
        }
        return *this;
    }

    pError_t& operator=(pError_t&& io_other) noexcept
    {
        reset(io_other.release());
        return *this;
    }

    ~pError_t();

    Error* get() const
    {
        return iv_Error;
    }

    Error* operator->() const
    {
        return iv_Error;
    }

    Error& operator*() const
    {
        return *iv_Error;
    }

    /// Hands the error to the caller; this one is empty afterwards.
    Error* release()
    {
        Error* l_error = iv_Error;
        iv_Error = nullptr;
        return l_error;
    }

    /// Deletes what it owned and takes the argument.
    void reset(Error* i_error = nullptr);

    /// true: there is an ERROR.
    explicit operator bool() const
    {
        return iv_Error != nullptr;
    }

  private:
    Error* iv_Error; // owned, or null
};

} // namespace tolv

#endif

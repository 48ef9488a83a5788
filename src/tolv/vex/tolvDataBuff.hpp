// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVDATABUFF_HPP
#define TOLV_VEX_TOLVDATABUFF_HPP

#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvExport.hpp"

#include <cstdint>
#include <cstdio>

#include <string>

class ErrorLogEntry;

namespace tolv
{

/// A block of bytes of an exact size with a cursor, the offset.
///
/// Multi-byte values are stored as they lie in memory, in the host's byte
/// order. The streaming operators start at the offset and move it on; they
/// never grow the block. A string is its bytes and one NUL; writers place it
/// with Poke() or Append().
///
/// Units:   sizes and offsets in bytes.
/// Errors:  an access outside the block is a programming fault and ends the
///          process with abort(), and so does a block that cannot be
///          allocated.
/// Threads: one thread at a time.
class TOLV_EXPORT DataBuff : public Base
{
  public:
    /// A block filled with 0x43 ("C"), so that unwritten bytes stand out.
    explicit DataBuff(unsigned int i_size);

    DataBuff(const DataBuff& i_other);
    DataBuff& operator=(const DataBuff& i_other);
    ~DataBuff() override;

    /// Equal sizes and bytes; the offsets do not count.
    bool operator==(const DataBuff& i_other) const;

    /// Changes the size and keeps what fits; bytes gained are 0x43. An offset
    /// beyond the new size becomes 0.
    void Resize(unsigned int i_size);

    /// Sets the offset to 0 and every byte to i_fill.
    void Reset(char i_fill);

    /// Drops the first i_bytes and sets the offset to 0.
    void TrimFront(unsigned int i_bytes);

    unsigned int getOffset() const;

    /// 0 to the size, the size included.
    void setOffset(unsigned int i_offset);

    /// Copies bytes out; the offset stays.
    void Peek(unsigned int i_at, void* o_bytes, unsigned int i_length) const;

    /// Copies bytes in; the offset stays. i_bytes may lie in this block.
    void Poke(unsigned int i_at, const void* i_bytes,
              unsigned int i_length) const;

    /// Copies all of i_other to i_at, growing the block where needed, and sets
    /// the offset behind it. i_other may be this buffer. Bytes between the old
    /// end and i_at are 0x43.
    void Append(const DataBuff& i_other, unsigned int i_at);

    /// Copies i_length bytes from i_srcOffset of io_src to i_dstOffset here;
    /// the offsets stay. io_src may be this buffer.
    void Copy(DataBuff& io_src, unsigned int i_length, unsigned int i_dstOffset,
              unsigned int i_srcOffset);

    /// Reads a string. A string that does not end inside the block ends the
    /// process with abort().
    DataBuff& operator>>(std::string& o_string);

    /// Writes an error in its serialised form.
    ///
    /// Ownership: taken; the error is deleted. An empty i_error ends the
    ///            process with abort().
    DataBuff& operator<<(pError_t i_error);

    /// Reads an error; what io_error owned before is deleted.
    DataBuff& operator>>(pError_t& io_error);

    /// Writes an error-log entry in the platform's flat form.
    ///
    /// Ownership: stays the caller's. Null ends the process with abort().
    DataBuff& operator<<(ErrorLogEntry* i_entry);

    /// Reads an error-log entry. io_entry must be null before; bytes that are
    /// no entry end the process with abort().
    ///
    /// Ownership: the new entry is the caller's, from new.
    DataBuff& operator>>(ErrorLogEntry*& io_entry);

    /// Prints the buffer; here nothing, derived classes print themselves.
    virtual void Dump(FILE* o_stream);

    unsigned int getSize() const;

    /// The block; null when the size is 0. Valid until the size changes.
    const char* getData() const;

  protected:
    /// Makes the block exactly i_size bytes, which are NOT initialised and so
    /// take no memory before they are written, and sets the offset to 0.
    ///
    /// Returns: false, with the buffer as it was, when memory is short.
    bool replaceBlock(unsigned int i_size);

    /// The block to write to; as getData().
    char* getBlock();

  private:
    void reallocate(unsigned int i_size);
    unsigned int room() const;

    // Declared order is the object layout.
    std::uint32_t iv_Size;
    std::uint32_t iv_Offset; // 0 to iv_Size
    char* iv_Data;           // owned, malloc family
};

} // namespace tolv

#endif

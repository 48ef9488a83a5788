// Makes buffers from bytes and looks at all their bytes.
#ifndef TOLV_TESTS_SUPPORT_DATABUFFBYTES_HPP
#define TOLV_TESTS_SUPPORT_DATABUFFBYTES_HPP

#include "tolv/vex/tolvDataBuff.hpp"

#include <string>

/// A buffer of exactly these bytes.
inline tolv::DataBuff bufferOf(const std::string& i_bytes,
                               unsigned int i_offset = 0)
{
    tolv::DataBuff l_buffer(static_cast<unsigned int>(i_bytes.size()));
    l_buffer.Poke(0, i_bytes.data(), l_buffer.getSize());
    l_buffer.setOffset(i_offset);
    return l_buffer;
}

inline std::string bytesOf(const tolv::DataBuff& i_buffer)
{
    std::string l_bytes(i_buffer.getSize(), '\0');
    i_buffer.Peek(0, l_bytes.data(), i_buffer.getSize());
    return l_bytes;
}

#endif

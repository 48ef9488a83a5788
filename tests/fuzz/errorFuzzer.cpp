// An error read from foreign bytes: it is decoded, or the process ends with
// abort(), and no byte outside the buffer is touched.

#include "fuzz/fuzzing.hpp"
#include "support/dataBuffBytes.hpp"
#include "tolv/vex/tolvDataBuff.hpp"
#include "tolv/vex/tolvError.hpp"

#include <string>

using namespace tolv;

int LLVMFuzzerTestOneInput(const std::uint8_t* i_data, std::size_t i_size)
{
    DataBuff l_buffer =
        bufferOf(std::string(reinterpret_cast<const char*>(i_data), i_size));
    pError_t l_error;
    if (!endsWithoutAbort([&] { l_buffer >> l_error; }))
    {
        return 0;
    }
    const unsigned int l_size = static_cast<unsigned int>(l_error->getSize());
    require(l_buffer.getOffset() == l_size);

    // Written and read once more it has the same form.
    std::string l_first(l_size, '\0');
    require(l_error->flatten(l_first.data(), l_first.size()));
    const Error l_again(l_first.data(), l_first.size());
    std::string l_second(l_size, '\0');
    require(l_again.flatten(l_second.data(), l_second.size()));
    require(l_first == l_second);
    return 0;
}

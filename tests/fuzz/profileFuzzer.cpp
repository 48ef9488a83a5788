// A profile in foreign bytes, inside a message and shipped on its own.

#include "fuzz/fuzzing.hpp"
#include "support/scriptedChannel.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <cstring>

#include <string>

using namespace tolv;

namespace
{

// Longer records are refused only for want of memory, which takes long here.
constexpr std::size_t LONGEST = 1 << 20;

std::string placed(const Profiler& i_profile)
{
    std::string l_bytes(i_profile.profileLength(), '\0');
    require(i_profile.PlaceProfile(l_bytes.data()) == l_bytes.size());
    return l_bytes;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* i_data, std::size_t i_size)
{
    Profiler l_profile;
    if (Profiler::fits(i_data, static_cast<unsigned int>(i_size)))
    {
        const unsigned int l_length = l_profile.ExtractProfile(i_data);
        require(l_length <= i_size);
        const std::string l_placed = placed(l_profile);
        require(l_placed.size() == l_length);
        require(std::memcmp(i_data, l_placed.data(), l_length) == 0);
    }

    ScriptedChannel l_channel(
        std::string(reinterpret_cast<const char*>(i_data), i_size));
    const bool l_short =
        i_size < 4 || (i_data[0] == 0 && i_data[1] < (LONGEST >> 16));
    if (l_short)
    {
        Profiler l_shipped;
        const pError_t l_error = l_shipped.ReadFromChannel(l_channel);
        require(!l_error || l_shipped.getCheckPoints().empty());
        require(l_error || l_channel.reads.empty() ||
                l_shipped.profileLength() + 4 <= i_size);
    }
    return 0;
}

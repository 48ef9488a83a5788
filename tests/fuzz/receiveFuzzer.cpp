// NetMessage::Receive() with whatever a peer sends, in parts of any size.

#include "fuzz/fuzzing.hpp"
#include "support/dataBuffBytes.hpp"
#include "support/scriptedChannel.hpp"
#include "tolv/vex/tolvNetMessage.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <algorithm>
#include <string>

using namespace tolv;

namespace
{

// What was received and is sent again is received again as it was; with more
// checkpoints a message may be refused.
void sendAgain(NetMessage& io_message)
{
    const bool l_profiled = io_message.getProfiler() != nullptr;
    if (l_profiled && io_message.getProfiler()->getCheckPoints().size() > 18)
    {
        return;
    }
    ScriptedChannel l_out;
    require(!io_message.Send(l_out));
    ScriptedChannel l_in(l_out.sent);
    NetMessage l_again(0);
    require(!l_again.Receive(l_in));
    require(!l_again.isReceiving());
    require(l_again == io_message);
    require(l_again.getMsgId() == io_message.getMsgId());
    const unsigned int l_flags = io_message.getFlags();
    require(l_again.getFlags() ==
            (l_profiled ? l_flags | NetMessage::FLAG_PROFILE : l_flags));
    require((l_again.getProfiler() != nullptr) == l_profiled);
}

} // namespace

// The first byte says how many bytes arrive at a time, 0 for all.
int LLVMFuzzerTestOneInput(const std::uint8_t* i_data, std::size_t i_size)
{
    NetMessage::setMaxMessageLength(1U << 16);
    const std::size_t l_part =
        i_size == 0 || i_data[0] == 0 ? i_size : i_data[0];
    ScriptedChannel l_channel;
    NetMessage l_message(0);
    for (std::size_t l_at = 1; l_at < i_size; l_at += l_part)
    {
        l_channel.incoming.append(reinterpret_cast<const char*>(i_data) + l_at,
                                  std::min(l_part, i_size - l_at));
        bool l_more = true;
        while (l_more)
        {
            const std::size_t l_before = l_channel.incoming.size();
            if (l_message.Receive(l_channel))
            {
                require(!l_message.isReceiving());
                return 0;
            }
            l_more = l_channel.incoming.size() != l_before;
            if (l_more && !l_message.isReceiving())
            {
                sendAgain(l_message);
            }
        }
    }
    return 0;
}

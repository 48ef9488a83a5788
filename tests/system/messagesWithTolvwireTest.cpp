#include "tolv/vex/tolvNetMessage.hpp"

#include "support/fakeUptime.hpp"
#include "support/messageSocket.hpp"
#include "support/netMessageBytes.hpp"
#include "support/scriptedChannel.hpp"
#include "support/tempDir.hpp"
#include "tolv/vex/tolvProfile.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using namespace tolv;

// Messages between the library and tools/tolvwire.py, which shares nothing
// with it but the format.

namespace
{

std::string toolPath()
{
    const std::filesystem::path l_tests =
        std::filesystem::path(__FILE__).parent_path().parent_path();
    return l_tests.parent_path() / "tools" / "tolvwire.py";
}

// The tool, running. What it prints comes line by line, errors as well.
class Tool
{
  public:
    explicit Tool(const std::string& i_arguments) :
        iv_Output(started(i_arguments))
    {
        EXPECT_NE(nullptr, iv_Output);
    }

    ~Tool()
    {
        if (iv_Output != nullptr)
        {
            pclose(iv_Output);
        }
    }

    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;

    // The next line without its end; empty when there is none.
    std::string line()
    {
        std::string l_line;
        int l_char = 0;
        while ((l_char = fgetc(iv_Output)) != EOF && l_char != '\n')
        {
            l_line += static_cast<char>(l_char);
        }
        return l_line;
    }

    // All that is still to come.
    std::string rest()
    {
        std::string l_bytes;
        char l_part[4096];
        std::size_t l_count = 0;
        while ((l_count = fread(l_part, 1, sizeof(l_part), iv_Output)) != 0)
        {
            l_bytes.append(l_part, l_count);
        }
        return l_bytes;
    }

    // Waits for its end.
    int status()
    {
        const int l_status = pclose(iv_Output);
        iv_Output = nullptr;
        return WIFEXITED(l_status) ? WEXITSTATUS(l_status) : -1;
    }

  private:
    static FILE* started(const std::string& i_arguments)
    {
        const std::string l_command =
            "exec python3 '" + toolPath() + "' " + i_arguments + " 2>&1";
        return popen(l_command.c_str(), "re"); // NOLINT(cert-env33-c)
    }

    FILE* iv_Output;
};

bool hasPython()
{
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    return std::system("python3 -c '' >/dev/null 2>&1") == 0;
}

class TolvwireTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (!hasPython())
        {
            GTEST_SKIP() << "there is no python3";
        }
    }

    void write(const std::string& i_bytes) const
    {
        std::ofstream(iv_File, std::ios::binary) << i_bytes;
    }

    // What the tool says about a file with these bytes, and how it ends.
    std::string decoded(const std::string& i_bytes, int i_status) const
    {
        write(i_bytes);
        Tool l_tool("decode " + iv_File);
        const std::string l_text = l_tool.rest();
        EXPECT_EQ(i_status, l_tool.status());
        return l_text;
    }

    const TempDir iv_Folder;
    const std::string iv_File = iv_Folder.path("message");
    const std::string iv_Path = iv_Folder.path("socket");
};

class MessagesWithTolvwireTest : public TolvwireTest,
                                 public testing::WithParamInterface<Transport>
{
  protected:
    void SetUp() override
    {
        TolvwireTest::SetUp();
        if (!isAvailable(GetParam()))
        {
            GTEST_SKIP() << "this machine has no " << nameOf(GetParam());
        }
    }

    // How the tool is told where i_port or the socket's path is.
    std::string told(unsigned short i_port) const
    {
        const std::string l_port = std::to_string(i_port);
        switch (GetParam())
        {
        case Transport::UNIX:
            return "unix:" + iv_Path;
        case Transport::TCP:
            return "tcp:127.0.0.1:" + l_port;
        case Transport::TCP6:
            return "tcp:[::1]:" + l_port;
        default:
            return "udp:127.0.0.1:" + l_port;
        }
    }

    // A channel to where the tool says that it listens.
    std::unique_ptr<Channel> channelTo(Tool& io_tool) const
    {
        const std::string l_line = io_tool.line();
        EXPECT_EQ(0U, l_line.find("listening on ")) << l_line;
        const unsigned short l_port =
            GetParam() == Transport::UNIX
                ? static_cast<unsigned short>(0)
                : static_cast<unsigned short>(
                      std::stoi(l_line.substr(l_line.rfind(':') + 1)));
        LocalAddress l_address = localAddress(GetParam(), iv_Path, l_port);
        auto l_channel =
            channelOn(GetParam(), openClient(GetParam(), l_address));
        if (GetParam() == Transport::UDP)
        {
            SockAddr_t l_peer = {};
            EXPECT_EQ(1, initSockAddrStruct("127.0.0.1", htons(l_port), l_peer,
                                            SOCK_TYPE_UDP));
            dynamic_cast<SockChannel&>(*l_channel).setRemoteAddress(l_peer);
        }
        return l_channel;
    }

    // A channel on what the tool sends to the server.
    std::unique_ptr<Channel> channelFrom(int i_server) const
    {
        if (GetParam() == Transport::UDP)
        {
            return channelOn(GetParam(), i_server);
        }
        const int l_fd = checked(accept(i_server, nullptr, nullptr));
        close(i_server);
        return channelOn(GetParam(), l_fd);
    }
};

const std::string LIMIT = " --time-out 20 ";

} // namespace

TEST_P(MessagesWithTolvwireTest, LibraryAsksAndToolAnswersWithTheSame)
{
    Tool l_tool("recv " + told(0) + " --json --echo" + LIMIT);
    const auto l_channel = channelTo(l_tool);
    NetMessage l_message(7, 1, 2, 0x0101, 0);
    l_message.setMsgAux(0x8005);
    l_message.setData("hello\0\xFF", 7);
    EXPECT_FALSE(l_message.Send(*l_channel));
    EXPECT_EQ("{\"id\": 7, \"type\": 1, \"subType\": 2, \"aux\": 32773, "
              "\"flags\": 257, \"seq\": 1, \"checkPoints\": null, "
              "\"body\": \"68656c6c6f00ff\", \"notes\": []}",
              l_tool.line());
    NetMessage l_answer(0);
    EXPECT_FALSE(l_answer.Receive(*l_channel));
    EXPECT_TRUE(l_answer == NetMessage(l_message));
    EXPECT_EQ(7U, l_answer.getMsgId());
    EXPECT_EQ(0x8005, l_answer.getMsgAux());
    EXPECT_EQ(0x0101, l_answer.getFlags());
    EXPECT_EQ(nullptr, l_answer.getProfiler());
    EXPECT_EQ(0, l_tool.status());
}

TEST_P(MessagesWithTolvwireTest, LibraryAsksWithAProfile)
{
    Tool l_tool("recv " + told(0) + " --json --echo" + LIMIT);
    const auto l_channel = channelTo(l_tool);
    NetMessage l_message(0xFFFFFFFF, 0xFFFF, 0x8000, 0, 0);
    l_message.beginProfile();
    fakeUptime::set(TimeValue(0xFFFFFFFF, 999999));
    l_message.addProfileCheckPoint(1, 2);
    EXPECT_FALSE(l_message.Send(*l_channel));
    EXPECT_EQ("{\"id\": 4294967295, \"type\": 65535, \"subType\": 32768, "
              "\"aux\": 0, \"flags\": 16384, \"seq\": 1, \"checkPoints\": "
              "[[4293394432, 12, 345], [65538, 4294967295, 999999]], "
              "\"body\": \"\", \"notes\": []}",
              l_tool.line());
    NetMessage l_answer(0);
    EXPECT_FALSE(l_answer.Receive(*l_channel));
    ASSERT_NE(nullptr, l_answer.getProfiler());
    EXPECT_EQ(3U, l_answer.getProfiler()->getCheckPoints().size());
    EXPECT_EQ(0, l_tool.status());
}

TEST_P(MessagesWithTolvwireTest, ToolAsksAndLibraryAnswers)
{
    LocalAddress l_address = {};
    const int l_server = openServer(GetParam(), iv_Path, l_address);
    Tool l_tool("send " + told(l_address.port()) +
                " --json --reply --id 0x01020304 --type 0x1516 --sub-type "
                "0x2526 --aux 0x3536 --flags 0x8001 --seq 0x45464748 --body "
                "question" +
                LIMIT);
    const auto l_channel = channelFrom(l_server);
    NetMessage l_message(0);
    EXPECT_FALSE(l_message.Receive(*l_channel));
    EXPECT_EQ("question", bytesOf(l_message));
    EXPECT_EQ(0x01020304U, l_message.getMsgId());
    EXPECT_EQ(0x1516, l_message.getMsgType());
    EXPECT_EQ(0x2526, l_message.getMsgSubType());
    EXPECT_EQ(0x3536, l_message.getMsgAux());
    EXPECT_EQ(0x8001, l_message.getFlags());
    EXPECT_EQ(0x45464748U, l_message.getSeqNum());
    EXPECT_EQ(nullptr, l_message.getProfiler());

    NetMessage l_answer(0);
    l_answer.copyHeader(l_message);
    l_answer.setData("answer", 6);
    EXPECT_FALSE(l_answer.Send(*l_channel));
    EXPECT_EQ("{\"id\": 16909060, \"type\": 5398, \"subType\": 9510, "
              "\"aux\": 13622, \"flags\": 32769, \"seq\": 1, "
              "\"checkPoints\": null, \"body\": \"616e73776572\", "
              "\"notes\": []}",
              l_tool.line());
    EXPECT_EQ(0, l_tool.status());
}

TEST_P(MessagesWithTolvwireTest, ToolAsksWithAProfile)
{
    LocalAddress l_address = {};
    const int l_server = openServer(GetParam(), iv_Path, l_address);
    Tool l_tool("send " + told(l_address.port()) +
                " --json --reply --checkpoint 0xFFE80000@12.000345 "
                "--checkpoint 7@4294967295.5" +
                LIMIT);
    const auto l_channel = channelFrom(l_server);
    NetMessage l_message(0);
    fakeUptime::set(TimeValue(99, 1));
    EXPECT_FALSE(l_message.Receive(*l_channel));
    EXPECT_EQ(0U, l_message.getSize());
    ASSERT_NE(nullptr, l_message.getProfiler());
    const auto& l_points = l_message.getProfiler()->getCheckPoints();
    ASSERT_EQ(3U, l_points.size());
    EXPECT_EQ(0xFFE80000U, l_points[0].id);
    EXPECT_EQ(TimeValue(12, 345), l_points[0].time);
    EXPECT_EQ(7U, l_points[1].id);
    EXPECT_EQ(TimeValue(0xFFFFFFFF, 500000), l_points[1].time);
    EXPECT_EQ(TimeValue(99, 1), l_points[2].time);

    EXPECT_FALSE(l_message.Send(*l_channel));
    EXPECT_EQ("{\"id\": 0, \"type\": 0, \"subType\": 0, \"aux\": 0, "
              "\"flags\": 16384, \"seq\": 1, \"checkPoints\": "
              "[[4293394432, 12, 345], [7, 4294967295, 500000], "
              "[4293394432, 99, 1]], \"body\": \"\", \"notes\": []}",
              l_tool.line());
    EXPECT_EQ(0, l_tool.status());
}

TEST_P(MessagesWithTolvwireTest, LargeBodyComesBackWhole)
{
    const unsigned int l_size =
        GetParam() == Transport::UDP ? 65507 - 32 : 4U << 20;
    std::string l_body(l_size, '\0');
    for (unsigned int l_at = 0; l_at != l_size; ++l_at)
    {
        l_body[l_at] = static_cast<char>((l_at * 2654435761U) >> 24);
    }
    Tool l_tool("recv " + told(0) + " --json --echo" + LIMIT);
    const auto l_channel = channelTo(l_tool);
    NetMessage l_message(0);
    l_message.setData(l_body.data(), l_size);
    EXPECT_FALSE(l_message.Send(*l_channel));
    EXPECT_LT(std::size_t(l_size) * 2, l_tool.line().size());
    NetMessage l_answer(0);
    EXPECT_FALSE(l_answer.Receive(*l_channel));
    EXPECT_TRUE(l_body == bytesOf(l_answer));
    EXPECT_EQ(0, l_tool.status());
}

TEST_P(MessagesWithTolvwireTest, MessagesFollowEachOther)
{
    Tool l_tool("recv " + told(0) + " --json --count 3" + LIMIT);
    const auto l_channel = channelTo(l_tool);
    NetMessage l_message(0);
    for (const char* l_seq : {"\"seq\": 1,", "\"seq\": 2,", "\"seq\": 3,"})
    {
        EXPECT_FALSE(l_message.Send(*l_channel));
        EXPECT_NE(std::string::npos, l_tool.line().find(l_seq));
    }
    EXPECT_EQ(0, l_tool.status());
}

INSTANTIATE_TEST_SUITE_P(Over, MessagesWithTolvwireTest,
                         testing::Values(Transport::TCP, Transport::TCP6,
                                         Transport::UNIX, Transport::UDP),
                         nameOfParameter);

TEST_F(TolvwireTest, EncodedBytesAreThoseThatTheLibrarySends)
{
    NetMessage l_message(0x01020304, 0x1516, 0x2526, 0x0708, 0);
    l_message.setMsgAux(0x3536);
    l_message.beginProfile();
    l_message.setData("body", 4);
    g_MsgSeqNum = 0x45464747;
    ScriptedChannel l_channel;
    EXPECT_FALSE(l_message.Send(l_channel));
    Tool l_tool("encode --id 0x01020304 --type 0x1516 --sub-type 0x2526 --aux "
                "0x3536 --flags 0x0708 --seq 0x45464748 --checkpoint "
                "0xFFE80000@12.000345 --body body");
    EXPECT_EQ(toHex(l_channel.sent), toHex(l_tool.rest()));
    EXPECT_EQ(0, l_tool.status());
}

TEST_F(TolvwireTest, BodyIsTakenAsTheBytesThatItIsGivenIn)
{
    Tool l_tool("encode --body \"$(printf 'a\\303\\244\\377')\"");
    const std::string l_sent = l_tool.rest();
    EXPECT_EQ(0, l_tool.status());
    EXPECT_EQ("61 C3 A4 FF", toHex(l_sent.substr(32)));
}

TEST_F(TolvwireTest, DecodeShowsTheMessagesOfAFile)
{
    EXPECT_EQ(
        "message 1\n"
        "id          16909060\n"
        "type        5398\n"
        "sub-type    9510\n"
        "auxiliary   13622\n"
        "flags       0x0000\n"
        "sequence    1162233672\n"
        "body        18 bytes\n"
        "  00000000  30 31 32 33 34 35 36 37 38 39 41 42 43 44 45 46  "
        "0123456789ABCDEF\n"
        "  00000010  0A FF                                            "
        "..\n\n"
        "message 2\n"
        "id          16909060\n"
        "type        5398\n"
        "sub-type    9510\n"
        "auxiliary   13622\n"
        "flags       0x4000\n"
        "sequence    1162233672\n"
        "checkpoint  C0000000 at 0.4294967295\n"
        "body        0 bytes\n\n",
        decoded(messageOf("0123456789ABCDEF\n\xFF") + profiledMessageOf(1, ""),
                0));
}

TEST_F(TolvwireTest, MessagesOfTheLibraryWithTooManyCheckPointsAreTold)
{
    NetMessage l_message(0);
    l_message.beginProfile();
    for (unsigned short l_count = 1; l_count != 19; ++l_count)
    {
        l_message.addProfileCheckPoint(0, l_count);
    }
    ScriptedChannel l_nineteen;
    EXPECT_FALSE(l_message.Send(l_nineteen));
    EXPECT_EQ("tolvwire.py: at byte 0: no valid message: its header length is "
              "8, below 32\n",
              decoded(l_nineteen.sent, 1));
    l_message.addProfileCheckPoint(0, 19);
    l_message.addProfileCheckPoint(0, 20);
    ScriptedChannel l_twentyOne;
    EXPECT_FALSE(l_message.Send(l_twentyOne));
    const std::string l_shown = decoded(l_twentyOne.sent, 0);
    EXPECT_NE(std::string::npos, l_shown.find("note        too many "
                                              "checkpoints"))
        << l_shown;
}

TEST_F(TolvwireTest, DecodeSaysWhatIsWrongWithAFile)
{
    const auto l_error = [](const std::string& i_text)
    { return "tolvwire.py: " + i_text + "\n"; };
    EXPECT_EQ(l_error(iv_File + " is empty"), decoded("", 1));
    EXPECT_EQ(l_error("at byte 0: a header has 32 bytes, here are only 5"),
              decoded("short", 1));
    EXPECT_EQ(l_error("at byte 0: no message: it begins with 787878, not with "
                      "decaff"),
              decoded(std::string(32, 'x'), 1));
    EXPECT_EQ(l_error("at byte 0: the message is 37 bytes long, here are 36"),
              decoded(messageOf("12345").substr(0, 36), 1));
    EXPECT_EQ(l_error("at byte 0: no valid message: its length is 40, but "
                      "header and body are 32 + 9"),
              decoded(headerOf(32, 40, 9) + "12345678", 1));
    EXPECT_EQ(
        l_error("at byte 0: the message announces 3 checkpoints, which "
                "do not fit into its 60 bytes"),
        decoded(headerOf(32, 60, 28, "40 00") + word(3) + std::string(24, '\0'),
                1));
    EXPECT_EQ(l_error("at byte 0: the message announces a profile, but ends "
                      "before it"),
              decoded(headerOf(32, 32, 0, "40 00"), 1));
    Tool l_missing("decode " + iv_Folder.path("missing"));
    EXPECT_EQ(
        l_error(iv_Folder.path("missing") + ": No such file or directory"),
        l_missing.rest());
    EXPECT_EQ(1, l_missing.status());
}

TEST_F(TolvwireTest, WrongCallsAreToldWithTheUsage)
{
    for (const char* l_call :
         {"", "send", "send nowhere", "send tcp:127.0.0.1:65536",
          "recv udp:127.0.0.1:0 --count 0", "recv udp:127.0.0.1:0 --count -1",
          "encode --id 4294967296", "encode --type -1", "encode --aux x",
          "encode --checkpoint 1@2.1234567", "recv unix:", "decode",
          "send udp:127.0.0.1:1 --time-out -1",
          "send udp:127.0.0.1:1 --time-out 0",
          "recv udp:127.0.0.1:0 --time-out nan",
          "recv udp:127.0.0.1:0 --time-out inf"})
    {
        Tool l_tool(l_call);
        const std::string l_text = l_tool.rest();
        EXPECT_EQ(0U, l_text.find("usage: tolvwire.py")) << l_text;
        EXPECT_NE(std::string::npos, l_text.find("error: ")) << l_text;
        EXPECT_EQ(2, l_tool.status()) << l_call;
    }
    Tool l_help("--help");
    EXPECT_NE(std::string::npos, l_help.rest().find("examples:"));
    EXPECT_EQ(0, l_help.status());
}

TEST_F(TolvwireTest, NetworkFailuresAreTold)
{
    LocalAddress l_address = {};
    close(openServer(Transport::UNIX, iv_Path, l_address));
    Tool l_refused("send unix:" + iv_Path);
    EXPECT_EQ("tolvwire.py: unix:" + iv_Path + ": Connection refused\n",
              l_refused.rest());
    EXPECT_EQ(1, l_refused.status());

    Tool l_noName("send tcp:a..b:1");
    EXPECT_EQ("tolvwire.py: 'a..b' is no name of a host\n", l_noName.rest());
    EXPECT_EQ(1, l_noName.status());

    Tool l_late("recv udp:127.0.0.1:0 --time-out 0.01");
    l_late.line();
    EXPECT_EQ("tolvwire.py: nothing came within 0.01 seconds\n", l_late.rest());
    EXPECT_EQ(1, l_late.status());
}

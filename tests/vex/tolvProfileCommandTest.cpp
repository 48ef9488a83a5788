#include "tolv/vex/tolvProfile.hpp"

#include "support/tempDir.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <filesystem>
#include <fstream>
#include <string>

using namespace tolv;

// The output's path is the same for the whole machine. Here it leads into a
// folder of the test, so that tests may run at the same time.

namespace
{

const std::string OUTPUT = "/tmp/tolvperf.tmp";
std::string g_output;  // where it leads to
std::string g_command; // the last one, as it was given to the shell
bool g_replaceByLink = false;

std::string redirected(const char* i_text)
{
    std::string l_text = i_text;
    const std::size_t l_at = l_text.find(OUTPUT);
    return l_at == std::string::npos
               ? l_text
               : l_text.replace(l_at, OUTPUT.size(), g_output);
}

class ProfilerCommandTest : public testing::Test
{
  protected:
    ProfilerCommandTest()
    {
        g_output = iv_Folder.path("output");
    }

    const TempDir iv_Folder;
};

} // namespace

extern "C"
{
    int __real_system(const char* i_command);
    int __real_open(const char* i_path, int i_flags, ...);
    int __real_lstat(const char* i_path, struct stat* o_status);

    int __wrap_system(const char* i_command)
    {
        g_command = i_command;
        const int l_status = __real_system(redirected(i_command).c_str());
        if (g_replaceByLink)
        {
            std::filesystem::rename(g_output, g_output + "2");
            std::filesystem::create_symlink(g_output + "2", g_output);
        }
        return l_status;
    }

    int __wrap_open(const char* i_path, int i_flags, ...)
    {
        return __real_open(redirected(i_path).c_str(), i_flags, 0600);
    }

    int __wrap_lstat(const char* i_path, struct stat* o_status)
    {
        return __real_lstat(redirected(i_path).c_str(), o_status);
    }
}

TEST_F(ProfilerCommandTest, OutputGoesThroughTheFileThatStays)
{
    EXPECT_EQ("hello", Profiler::RunCommand("echo hello"));
    EXPECT_EQ("echo hello >/tmp/tolvperf.tmp", g_command);
    std::ifstream l_file(g_output);
    std::string l_line;
    std::getline(l_file, l_line);
    EXPECT_EQ("hello", l_line);
}

TEST_F(ProfilerCommandTest, LinesAreJoinedByOneBlank)
{
    EXPECT_EQ("a b c", Profiler::RunCommand("printf 'a\\nb\\nc\\n'"));
    EXPECT_EQ("a b", Profiler::RunCommand("printf '\\n\\na\\n\\n\\nb'"));
    EXPECT_EQ(" a  b", Profiler::RunCommand("printf ' a\\n b\\n'"));
    EXPECT_EQ("", Profiler::RunCommand("true"));
    EXPECT_EQ("", Profiler::RunCommand("printf '\\n\\n'"));
}

TEST_F(ProfilerCommandTest, LongLineCountsAsSeveral)
{
    const std::string l_zeros(4095, '0');
    EXPECT_EQ(l_zeros, Profiler::RunCommand("printf '%04095d\\n' 0"));
    EXPECT_EQ(l_zeros + " 0", Profiler::RunCommand("printf '%04096d\\n' 0"));
}

TEST_F(ProfilerCommandTest, FailedCommandGivesNothing)
{
    EXPECT_EQ("", Profiler::RunCommand("false"));
    EXPECT_EQ("", Profiler::RunCommand("exit 3; echo"));
}

TEST_F(ProfilerCommandTest, LinkIsNeitherWrittenThroughNorRun)
{
    const std::string l_target = iv_Folder.path("target");
    std::ofstream(l_target) << "precious";
    std::filesystem::create_symlink(l_target, g_output);
    EXPECT_EQ("", Profiler::RunCommand("echo hello"));
    EXPECT_EQ("", g_command);
    EXPECT_EQ(8U, std::filesystem::file_size(l_target));
}

TEST_F(ProfilerCommandTest, LinkThatComesLaterIsNotReadThrough)
{
    g_replaceByLink = true;
    EXPECT_EQ("", Profiler::RunCommand("echo hello"));
}

#include "tolv/vex/tolvProfile.hpp"

#include "support/fakePlatform.hpp"
#include "support/fakePlatformFile.hpp"
#include "support/fakeUptime.hpp"
#include "support/tempDir.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

constexpr time_t FIFTH_OF_JANUARY_2026 = 1767603600; // 09:00 UTC
constexpr const char* STAMP = "FFE80000, 12.000345, ";
constexpr std::size_t STAMP_SIZE = 21; // as that of every checkpoint then

time_t g_now = FIFTH_OF_JANUARY_2026;
bool g_noDate = false;
std::string g_executable = "/usr/sbin/myd"; // empty: the link cannot be read
std::string g_link;
std::atomic<int> g_csvFlags(-1); // of the descriptor that is closed

// The columns of a row up to the date.
std::string columns(const std::string& i_executable)
{
    return "\n" + i_executable + ", " + std::to_string(getpid()) + ", " +
           std::to_string(static_cast<int>(pthread_self())) + ", (null), ";
}

std::string repeated(const std::string& i_text, std::size_t i_count)
{
    std::string l_texts;
    for (std::size_t l_done = 0; l_done != i_count; ++l_done)
    {
        l_texts += i_text;
    }
    return l_texts;
}

class ProfilerCsvTest : public testing::Test
{
  protected:
    ProfilerCsvTest()
    {
        g_ProfileCsvPath = iv_Path.c_str();
        fakePlatformFile::g_Content = std::string("\x00\x1C\x02", 3);
        fakePlatform::forgetCalls();
    }

    std::string content() const
    {
        std::ifstream l_file(iv_Path);
        return {std::istreambuf_iterator<char>(l_file), {}};
    }

    // The profile of one stamp as a row.
    std::string row()
    {
        Profiler l_profile;
        l_profile.addStamp();
        l_profile.end(1);
        return content();
    }

    const TempDir iv_Folder;
    const std::string iv_Path = iv_Folder.path("profile.csv");
};

void expectOneCommittedEntry()
{
    std::vector<std::string> l_services;
    const void* l_entry = nullptr;
    for (const fakePlatform::Call& l_call : fakePlatform::calls())
    {
        l_services.emplace_back(l_call.service);
        l_entry = l_entry == nullptr ? l_call.entry : l_entry;
        EXPECT_EQ(l_entry, l_call.entry);
    }
    EXPECT_EQ((std::vector<std::string>{"ErrorLogEntry", "setSev", "commit",
                                        "~ErrorLogEntry"}),
              l_services);
    const auto l_commits = fakePlatform::callsOf("commit");
    ASSERT_EQ(1U, l_commits.size());
    EXPECT_EQ(0x4400U, l_commits[0].values[0]);
    EXPECT_EQ(0x4000U, l_commits[0].values[1]);
    EXPECT_EQ(0xFFU, l_commits[0].values[2]);
    EXPECT_EQ(0U, l_commits[0].values[3]);
    EXPECT_EQ(0U, fakePlatform::callsOf("setSev")[0].values[0]);
}

} // namespace

extern "C"
{
    tm* __real_gmtime_r(const time_t* i_time, tm* o_utc);
    int __real_fclose(FILE* i_stream);

    time_t __wrap_time(time_t* /*o_time*/)
    {
        return g_now;
    }

    tm* __wrap_gmtime_r(const time_t* i_time, tm* o_utc)
    {
        return g_noDate ? nullptr : __real_gmtime_r(i_time, o_utc);
    }

    int __wrap_gethostname(char* o_name, size_t i_size)
    {
        EXPECT_LT(64U, i_size);
        std::copy_n("node1", 5, o_name);
        return 0;
    }

    // As the system does, without a NUL.
    ssize_t __wrap_readlink(const char* i_link, char* o_path, size_t i_size)
    {
        g_link = i_link;
        if (g_executable.empty())
        {
            return -1;
        }
        EXPECT_LE(g_executable.size(), i_size);
        std::copy(g_executable.begin(), g_executable.end(), o_path);
        return static_cast<ssize_t>(g_executable.size());
    }

    int __wrap_fclose(FILE* i_stream)
    {
        g_csvFlags = fcntl(fileno(i_stream), F_GETFD);
        return __real_fclose(i_stream);
    }
}

TEST_F(ProfilerCsvTest, RowNamesProcessDateHostAndProgress)
{
    fakePlatformFile::g_Content = std::string("\x00\x1C\xD3", 3);
    EXPECT_EQ(columns("myd") + "2026 1 5, A, node1, 1cd300," + STAMP, row());
    EXPECT_EQ(
        (std::vector<std::string>{"PlatformFile /opt/p0/kelp/LastProgress",
                                  "Open r false", "read 3", "Close "}),
        fakePlatformFile::g_Calls);
    EXPECT_TRUE(fakePlatform::calls().empty());
    EXPECT_EQ(FD_CLOEXEC, g_csvFlags);
}

TEST_F(ProfilerCsvTest, ProgressHalvesAreNotPadded)
{
    fakePlatformFile::g_Content = "\x01\x02\x03";
    EXPECT_EQ(columns("myd") + "2026 1 5, A, node1, 102300," + STAMP, row());
}

TEST_F(ProfilerCsvTest, ShortProgressCountsAsZerosBehind)
{
    fakePlatformFile::g_Content = "\x01";
    EXPECT_EQ(columns("myd") + "2026 1 5, A, node1, 1000," + STAMP, row());
}

TEST_F(ProfilerCsvTest, DateIsPaddedWithBlanks)
{
    EXPECT_NE(std::string::npos, row().find(", 2026 1 5, A, "));
    g_now = 1797379199; // 2026-12-15 23:59:59
    EXPECT_NE(std::string::npos, row().find(", 20261215, A, "));
}

TEST_F(ProfilerCsvTest, DateThatCannotBeToldIsTheFirstOf2006)
{
    g_noDate = true;
    EXPECT_NE(std::string::npos, row().find(", 20060101, A, node1, "));
}

TEST_F(ProfilerCsvTest, ExecutableIsTheParents)
{
    row();
    EXPECT_EQ("/proc/" + std::to_string(getppid()) + "/exe", g_link);
}

TEST_F(ProfilerCsvTest, ExecutableThatCannotBeReadIsAnEmptyColumn)
{
    g_executable.clear();
    EXPECT_EQ(0U, row().find(columns("")));
}

TEST_F(ProfilerCsvTest, LongestExecutableIsWhole)
{
    g_executable = "/" + std::string(4094, 'x');
    EXPECT_EQ(0U, row().find(columns(std::string(4094, 'x'))));
}

TEST_F(ProfilerCsvTest, EachCheckPointIsIdAndTime)
{
    Profiler l_profile;
    l_profile.addStamp();
    fakeUptime::set(TimeValue(1234, 567));
    l_profile.addCheckPoint(0x0A, 0xB);
    fakeUptime::set(TimeValue(0xFFFFFFFF, 1000000));
    l_profile.addStamp();
    l_profile.end(1);
    const std::string l_points = "FFE80000, 12.000345, 000A000B, 1234.000567, "
                                 "FFE80000, -1.1000000, ";
    EXPECT_EQ(columns("myd") + "2026 1 5, A, node1, 1c200," + l_points,
              content());
}

TEST_F(ProfilerCsvTest, BroadcastAppendsARowToTheFile)
{
    Profiler l_profile;
    l_profile.addStamp();
    EXPECT_FALSE(l_profile.udpProfBroadcast());
    const std::string l_first = content();
    EXPECT_EQ('\n', l_first.front());
    EXPECT_EQ(' ', l_first.back());
    EXPECT_FALSE(l_profile.udpProfBroadcast());
    EXPECT_EQ(l_first + l_first, content());
}

TEST_F(ProfilerCsvTest, EndSetsTheIdAndAddsNoStamp)
{
    Profiler l_profile;
    l_profile.begin(3);
    l_profile.end(77);
    EXPECT_EQ(77U, l_profile.getId());
    EXPECT_EQ(1U, l_profile.getCheckPoints().size());
    EXPECT_EQ(nullptr, g_ProfileName);
}

TEST_F(ProfilerCsvTest, EndClearsTheNameOfAnEarlierRow)
{
    g_ProfileName = "earlier";
    EXPECT_NE(std::string::npos, row().find(", (null), "));
}

TEST_F(ProfilerCsvTest, RowHasTheNameThatIsSet)
{
    g_ProfileName = "journey";
    EXPECT_FALSE(Profiler().udpProfBroadcast());
    EXPECT_NE(std::string::npos, content().find(", journey, 2026 1 5, A, "));
}

TEST_F(ProfilerCsvTest, NoStreamWritesNothing)
{
    Profiler().WriteToCsv(nullptr);
    EXPECT_TRUE(fakePlatformFile::g_Calls.empty());
}

TEST_F(ProfilerCsvTest, WithoutProgressTheCheckPointsExtendTheLastLine)
{
    std::ofstream(iv_Path) << "last line";
    fakePlatformFile::g_Content.clear();
    EXPECT_EQ(std::string("last line") + STAMP, row());
    EXPECT_TRUE(fakePlatform::calls().empty());
}

TEST_F(ProfilerCsvTest, FailedOpenIsCommittedAndSkipsReadAndClose)
{
    fakePlatformFile::g_Failing = "Open";
    EXPECT_EQ(STAMP, row());
    EXPECT_EQ(2U, fakePlatformFile::g_Calls.size());
    expectOneCommittedEntry();
}

TEST_F(ProfilerCsvTest, FailedReadIsCommittedAndSkipsTheHead)
{
    fakePlatformFile::g_Failing = "read";
    EXPECT_EQ(STAMP, row());
    EXPECT_EQ("Close ", fakePlatformFile::g_Calls.back());
    expectOneCommittedEntry();
}

TEST_F(ProfilerCsvTest, FailedCloseIsCommitted)
{
    fakePlatformFile::g_Failing = "Close";
    EXPECT_EQ(0U, row().find(columns("myd")));
    expectOneCommittedEntry();
}

TEST_F(ProfilerCsvTest, RowWaitsForTheLock)
{
    std::atomic<bool> l_written(false);
    g_ProfileLock.Lock();
    std::thread l_other(
        [&]
        {
            row();
            l_written = true;
        });
    // The file is opened before the lock is asked for.
    EXPECT_TRUE(waitFor([&] { return access(iv_Path.c_str(), F_OK) == 0; }));
    EXPECT_FALSE(l_written);
    EXPECT_EQ("", content());
    g_ProfileLock.Unlock();
    l_other.join();
    EXPECT_TRUE(l_written);
}

// A row of 21,000 characters leaves a stream's buffer in several parts.
TEST_F(ProfilerCsvTest, LongRowsOfSeveralThreadsDoNotInterleave)
{
    constexpr unsigned short THREADS = 4;
    constexpr int ROWS = 20;
    constexpr std::size_t POINTS = 1000;
    fakePlatformFile::g_Content = "\x01\x02\x03";
    std::vector<std::thread> l_threads;
    for (unsigned short l_thread = 0; l_thread != THREADS; ++l_thread)
    {
        l_threads.emplace_back(
            [l_thread]
            {
                Profiler l_profile;
                while (l_profile.getCheckPoints().size() != POINTS)
                {
                    l_profile.addCheckPoint(l_thread, 0);
                }
                for (int l_row = 0; l_row != ROWS; ++l_row)
                {
                    EXPECT_FALSE(l_profile.udpProfBroadcast());
                }
            });
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    std::ifstream l_file(iv_Path);
    std::string l_row;
    std::getline(l_file, l_row); // the empty one before the first row
    int l_whole = 0;
    while (std::getline(l_file, l_row))
    {
        // Behind the head of one thread come the checkpoints of the same.
        const std::string l_points = l_row.substr(l_row.find(" 102300,") + 8);
        const std::string l_first = l_points.substr(0, STAMP_SIZE);
        EXPECT_TRUE(l_points == repeated(l_first, POINTS)) << l_whole;
        ++l_whole;
    }
    EXPECT_EQ(THREADS * ROWS, l_whole);
}

TEST(ProfilerCsvDeathTest, LockThatIsHeldDoesNotDisturbTheExit)
{
    EXPECT_EXIT(
        {
            g_ProfileLock.Lock();
            std::exit(3); // NOLINT(concurrency-mt-unsafe)
        },
        testing::ExitedWithCode(3), "");
}

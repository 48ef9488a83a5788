#include "tolv/vex/tolvTrace.hpp"

#include "support/fakeUptime.hpp"
#include "support/streamContent.hpp"
#include "support/tempDir.hpp"
#include "support/waitFor.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

// One call of open() for a path in the folder of trace files.
struct Opening
{
    std::string path;
    int flags;
    mode_t mode;
    int result;
};

const char* const FOLDER = "/nfs/data/";

std::mutex g_openingsLock;
std::vector<Opening> g_openings;
std::string g_folder; // stands in for FOLDER
bool g_failOpen = false;
bool g_failStream = false;
std::vector<int> g_lockings; // types given to __fsetlocking()
thread_local int t_locks = 0;
std::atomic<int> g_locks(0);       // of all threads
std::function<void()> g_onOpening; // called before a file is opened

int openElsewhere(const char* i_path, int i_flags, mode_t i_mode,
                  int (*i_open)(const char*, int, ...))
{
    const std::string l_path(i_path);
    if (l_path.rfind(FOLDER, 0) != 0)
    {
        return i_open(i_path, i_flags, i_mode);
    }
    if (g_onOpening)
    {
        g_onOpening();
    }
    int l_result = -1;
    if (g_failOpen)
    {
        errno = EACCES;
    }
    else
    {
        const std::string l_there =
            g_folder + l_path.substr(std::strlen(FOLDER));
        l_result = i_open(l_there.c_str(), i_flags, i_mode);
    }
    const std::lock_guard<std::mutex> l_hold(g_openingsLock);
    g_openings.push_back({l_path, i_flags, i_mode, l_result});
    return l_result;
}

} // namespace

extern "C"
{
    int __real_open(const char* i_path, int i_flags, ...);
    int __real_open64(const char* i_path, int i_flags, ...);
    FILE* __real_fdopen(int i_fd, const char* i_mode);
    int __real___fsetlocking(FILE* i_stream, int i_type);
    int __real_pthread_mutex_lock(pthread_mutex_t* io_mutex);

    int __wrap_open(const char* i_path, int i_flags, ...)
    {
        va_list l_args;
        va_start(l_args, i_flags);
        const mode_t l_mode =
            (i_flags & O_CREAT) == 0 ? 0 : va_arg(l_args, mode_t);
        va_end(l_args);
        return openElsewhere(i_path, i_flags, l_mode, __real_open);
    }

    int __wrap_open64(const char* i_path, int i_flags, ...)
    {
        va_list l_args;
        va_start(l_args, i_flags);
        const mode_t l_mode =
            (i_flags & O_CREAT) == 0 ? 0 : va_arg(l_args, mode_t);
        va_end(l_args);
        return openElsewhere(i_path, i_flags, l_mode, __real_open64);
    }

    FILE* __wrap_fdopen(int i_fd, const char* i_mode)
    {
        return g_failStream ? nullptr : __real_fdopen(i_fd, i_mode);
    }

    int __wrap___fsetlocking(FILE* i_stream, int i_type)
    {
        g_lockings.push_back(i_type);
        return __real___fsetlocking(i_stream, i_type);
    }

    int __wrap_pthread_mutex_lock(pthread_mutex_t* io_mutex)
    {
        ++t_locks;
        ++g_locks;
        return __real_pthread_mutex_lock(io_mutex);
    }
}

namespace
{

// The single instance lasts as long as the process: every test is one.
class TraceFileTest : public ::testing::Test
{
  protected:
    TraceFileTest()
    {
        g_folder = iv_Folder.path() + "/";
        iv_Own = g_folder + "tolv." + std::to_string(getpid()) + ".trac";
    }

    ~TraceFileTest() override
    {
        std::fclose(iv_Stream);
    }

    // What was written to the file of this process.
    std::string own() const
    {
        std::ifstream l_file(iv_Own);
        return std::string(std::istreambuf_iterator<char>(l_file), {});
    }

    // What was written to the stream of this test.
    std::string written() const
    {
        return contentOf(iv_Stream);
    }

    const TempDir iv_Folder;
    FILE* iv_Stream = std::tmpfile();
    std::string iv_Own;
};

// The row of a dump.
std::string row(const void* i_address, const std::string& i_hex,
                const std::string& i_shown)
{
    char l_address[32];
    std::snprintf(
        l_address, sizeof(l_address), "|   %08X     ",
        static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(i_address)));
    return l_address + i_hex + std::string(43 - i_hex.size(), ' ') + i_shown +
           std::string(19 - i_shown.size(), ' ') + "|\n";
}

const char DATA[] = "0123456789abcdefghijklmnopqrstuvwxyz";

const std::string FULL_ROW = "30313233  34353637  38396162  63646566  ";

} // namespace

TEST_F(TraceFileTest, FirstCallMakesTheOnlyInstance)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    ASSERT_NE(nullptr, l_instance);
    EXPECT_EQ(l_instance, TraceFile::getInstance());
    EXPECT_EQ(l_instance, TraceFile::getInstance(stdout));
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "here");
    EXPECT_EQ(traceHeader("b.cpp", 1) + "here\n", written());
    EXPECT_TRUE(g_openings.empty());
}

TEST_F(TraceFileTest, PresentInstanceIsReturnedWithoutALock)
{
    TraceFile::getInstance(iv_Stream);
    const int l_before = t_locks;
    TraceFile::getInstance();
    EXPECT_EQ(l_before, t_locks);
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "here");
    EXPECT_EQ(l_before + 1, t_locks) << "a line holds the file's lock";
}

TEST_F(TraceFileTest, RacingThreadsGetOneInstance)
{
    constexpr int THREADS = 8;
    std::atomic<int> l_ready(0);
    std::mutex l_lock;
    std::set<TraceFile*> l_instances;
    // The first one lets all others come as far as the instance's lock.
    const int l_before = g_locks;
    g_onOpening = [&]
    { EXPECT_TRUE(waitFor([&] { return g_locks >= l_before + THREADS; })); };
    std::vector<std::thread> l_threads;
    for (int l_number = 0; l_number != THREADS; ++l_number)
    {
        l_threads.emplace_back(
            [&]
            {
                ++l_ready;
                while (l_ready != THREADS)
                {
                    std::this_thread::yield();
                }
                TraceFile* l_instance = TraceFile::getInstance();
                const std::lock_guard<std::mutex> l_hold(l_lock);
                l_instances.insert(l_instance);
            });
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    EXPECT_EQ(1U, l_instances.size());
    EXPECT_EQ(1U, g_openings.size());
}

TEST_F(TraceFileTest, ThreadThatFindsTheInstanceFindsItWhole)
{
    // Nothing but the instance's pointer orders the two threads.
    std::atomic<bool> l_made(false);
    std::thread l_maker(
        [&]
        {
            TraceFile::getInstance();
            l_made.store(true, std::memory_order_relaxed);
        });
    while (!l_made.load(std::memory_order_relaxed))
    {
        std::this_thread::yield();
    }
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "found");
    l_maker.join();
    EXPECT_EQ(traceHeader("b.cpp", 1) + "found\n", own());
}

TEST_F(TraceFileTest, ExitDoesNotWaitForAThreadThatOpensTheFile)
{
    const auto l_exit = []
    {
        std::atomic<bool> l_opening(false);
        g_onOpening = [&]
        {
            l_opening = true;
            pause();
        };
        std::thread([] { TraceFile::getInstance(); }).detach();
        waitFor([&] { return l_opening.load(); });
        exit(0);
    };
    EXPECT_EXIT(l_exit(), testing::ExitedWithCode(0), "");
}

TEST_F(TraceFileTest, LeavesErrno)
{
    g_failOpen = true;
    errno = 104;
    TraceFile::getInstance();
    EXPECT_EQ(104, errno);
}

TEST_F(TraceFileTest, WritesLeaveErrnoAndMayShowIt)
{
    errno = 104;
    FILE* l_full = fopen("/dev/full", "w"); // every flush fails
    ASSERT_NE(nullptr, l_full);
    setvbuf(l_full, nullptr, _IONBF, 0);
    TraceFile::getInstance(l_full)->Printf("a/b.cpp", 1, "%s", "text");
    EXPECT_EQ(104, errno);
    TraceFile::getInstance()->HexDump("a/b.cpp", 1, "text", "data", 4);
    EXPECT_EQ(104, errno);
    {
        const FunctionTrace l_trace(nullptr, "a/b.cpp", 1, "f()", nullptr);
        EXPECT_EQ(104, errno);
    }
    EXPECT_EQ(104, errno);
    fclose(l_full);
}

TEST_F(TraceFileTest, WithoutAStreamTheFileOfTheProcessIsOpenedOnFirstUse)
{
    EXPECT_TRUE(g_openings.empty());
    TraceFile::getInstance();
    ASSERT_EQ(1U, g_openings.size());
    EXPECT_EQ("/nfs/data/tolv." + std::to_string(getpid()) + ".trac",
              g_openings[0].path);
    EXPECT_EQ(O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
              g_openings[0].flags);
    EXPECT_EQ(0666U, g_openings[0].mode);
    ASSERT_NE(-1, g_openings[0].result);
    EXPECT_EQ(FD_CLOEXEC, fcntl(g_openings[0].result, F_GETFD));
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "here");
    EXPECT_EQ(traceHeader("b.cpp", 1) + "here\n", own());
    EXPECT_EQ(1U, g_openings.size());
}

TEST_F(TraceFileTest, EarlierFileOfTheSameProcessIsTruncated)
{
    std::ofstream(iv_Own) << "much older text than the new line is long "
                          << std::string(200, '.');
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "here");
    EXPECT_EQ(traceHeader("b.cpp", 1) + "here\n", own());
}

TEST_F(TraceFileTest, EveryoneMayReadAndWriteWhateverTheUmask)
{
    const mode_t l_before = umask(077);
    TraceFile::getInstance();
    umask(l_before);
    struct stat l_status = {};
    ASSERT_EQ(0, stat(iv_Own.c_str(), &l_status));
    EXPECT_EQ(0666U, l_status.st_mode & 07777U);
}

TEST_F(TraceFileTest, SymbolicLinkIsNotFollowed)
{
    const std::string l_target = g_folder + "precious";
    std::ofstream(l_target) << "kept";
    std::filesystem::create_symlink(l_target, iv_Own);
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%s", "here");
    ASSERT_EQ(1U, g_openings.size());
    EXPECT_EQ(-1, g_openings[0].result);
    EXPECT_EQ("kept", own());
}

TEST_F(TraceFileTest, FileThatCannotBeOpenedIsSilentlyDoneWithout)
{
    g_failOpen = true;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    TraceFile* l_instance = TraceFile::getInstance();
    ASSERT_NE(nullptr, l_instance);
    for (int l_round = 0; l_round != 2; ++l_round)
    {
        l_instance->Printf("a/b.cpp", 1, "%i", 3);
        l_instance->HexDump("a/b.cpp", 1, "text", DATA, 20);
        const FunctionTrace l_trace(nullptr, "a/b.cpp", 1, "main()", "%i", 3);
    }
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
    EXPECT_EQ(1U, g_openings.size()) << "the file is not tried again";
    EXPECT_EQ(0, fakeUptime::reads());
    EXPECT_EQ(l_instance, TraceFile::getInstance(iv_Stream));
    EXPECT_EQ("", written());
}

TEST_F(TraceFileTest, FileWithoutAStreamIsClosedAgain)
{
    g_failStream = true;
    TraceFile::getInstance()->Printf("a/b.cpp", 1, "%i", 3);
    ASSERT_EQ(1U, g_openings.size());
    EXPECT_EQ(-1, fcntl(g_openings[0].result, F_GETFD));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ("", own());
}

TEST_F(TraceFileTest, OnlyItsOwnFileGoesWithoutTheLocksOfStdio)
{
    TraceFile::getInstance();
    EXPECT_EQ(std::vector<int>{FSETLOCKING_BYCALLER}, g_lockings);
}

TEST_F(TraceFileTest, StreamOfTheCallerKeepsTheLocksOfStdio)
{
    TraceFile::getInstance(iv_Stream);
    EXPECT_TRUE(g_lockings.empty());
}

TEST_F(TraceFileTest, EveryWriteIsFlushed)
{
    char l_buffer[BUFSIZ];
    ASSERT_EQ(0, setvbuf(iv_Stream, l_buffer, _IOFBF, sizeof(l_buffer)));
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    l_instance->Printf("a/b.cpp", 1, "%s", "one");
    const std::string l_line = traceHeader("b.cpp", 1) + "one\n";
    EXPECT_EQ(l_line, written());
    l_instance->HexDump("a/b.cpp", 2, "two", nullptr, 0);
    EXPECT_EQ(l_line + traceHeader("b.cpp", 2) + "two\n", written());
    setvbuf(iv_Stream, nullptr, _IONBF, 0);
}

TEST_F(TraceFileTest, HeaderHasUptimeProcessFileAndLine)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    const std::string l_process = "[" + std::to_string(getpid()) + "]";
    const auto l_headerAt = [&](unsigned int i_seconds, unsigned int i_micros)
    {
        const std::size_t l_before = written().size();
        fakeUptime::set(TimeValue(i_seconds, i_micros));
        l_instance->Printf("src/tolv/vex/tolvApp.cpp", -17, "%s", "");
        return written().substr(l_before);
    };
    EXPECT_EQ("[       0.0      ]" + l_process + "[tolvApp.cpp:-17] \n",
              l_headerAt(0, 0));
    EXPECT_EQ("[       7.5      ]" + l_process + "[tolvApp.cpp:-17] \n",
              l_headerAt(7, 5));
    EXPECT_EQ("[12345678.123456 ]" + l_process + "[tolvApp.cpp:-17] \n",
              l_headerAt(12345678, 123456));
    EXPECT_EQ("[4294967295.999999 ]" + l_process + "[tolvApp.cpp:-17] \n",
              l_headerAt(4294967295, 999999));
}

TEST_F(TraceFileTest, MicrosecondsAreNotPaddedWithZeros)
{
    fakeUptime::set(TimeValue(1, 50));
    TraceFile::getInstance(iv_Stream)->Printf("a/b.cpp", 1, "%s", "");
    EXPECT_EQ(0U, written().find("[       1.50     ]"));
}

TEST_F(TraceFileTest, BaseNameIsWhatFollowsTheLastSlash)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    l_instance->Printf("/a/b/c.cpp", 1, "%i", 1);
    l_instance->Printf("c.cpp", 2, "%i", 2);
    l_instance->Printf("a/b/", 3, "%i", 3);
    l_instance->Printf("", 4, "%i", 4);
    EXPECT_EQ(traceHeader("c.cpp", 1) + "1\n" + traceHeader("c.cpp", 2) +
                  "2\n" + traceHeader("", 3) + "3\n" + traceHeader("", 4) +
                  "4\n",
              written());
}

TEST_F(TraceFileTest, PrintfWritesOneFormattedLine)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    const std::string l_long(5000, 'x');
    l_instance->Printf("a/b.cpp", 1, "plain");
    l_instance->Printf("a/b.cpp", 2, "%s %i%%", l_long.c_str(), -3);
    EXPECT_EQ(traceHeader("b.cpp", 1) + "plain\n" + traceHeader("b.cpp", 2) +
                  l_long + " -3%\n",
              written());
}

TEST_F(TraceFileTest, DumpOfNothingIsTheHeaderLine)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    l_instance->HexDump("a/b.cpp", 9, "100%", DATA, 0);
    l_instance->HexDump("a/b.cpp", 9, "none", nullptr, 0);
    EXPECT_EQ(traceHeader("b.cpp", 9) + "100%\n" + traceHeader("b.cpp", 9) +
                  "none\n",
              written());
}

TEST_F(TraceFileTest, DumpHasRowsOfSixteenBytes)
{
    const struct
    {
        std::size_t length;
        std::string rows;
    } l_samples[] = {
        {1, row(DATA, "30", "0")},
        {3, row(DATA, "303132", "012")},
        {4, row(DATA, "30313233  ", "0123")},
        {5, row(DATA, "30313233  34", "01234")},
        {15,
         row(DATA, "30313233  34353637  38396162  636465", "0123456789abcde")},
        {16, row(DATA, FULL_ROW, "0123456789abcdef")},
        {17,
         row(DATA, FULL_ROW, "0123456789abcdef") + row(DATA + 16, "67", "g")},
        {32, row(DATA, FULL_ROW, "0123456789abcdef") +
                 row(DATA + 16, "6768696A  6B6C6D6E  6F707172  73747576  ",
                     "ghijklmnopqrstuv")},
        {36, row(DATA, FULL_ROW, "0123456789abcdef") +
                 row(DATA + 16, "6768696A  6B6C6D6E  6F707172  73747576  ",
                     "ghijklmnopqrstuv") +
                 row(DATA + 32, "7778797A  ", "wxyz")},
    };
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    for (const auto& l_sample : l_samples)
    {
        const std::size_t l_before = written().size();
        l_instance->HexDump("a/b.cpp", 9, "data", DATA, l_sample.length);
        EXPECT_EQ(traceHeader("b.cpp", 9) + "data\n" + l_sample.rows,
                  written().substr(l_before))
            << l_sample.length << " bytes";
    }
}

TEST_F(TraceFileTest, DumpColumnsStandAtFixedPlaces)
{
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    l_instance->HexDump("a/b.cpp", 9, "data", DATA, 21);
    std::istringstream l_lines(written());
    std::string l_line;
    std::getline(l_lines, l_line);
    std::getline(l_lines, l_line);
    EXPECT_EQ(FULL_ROW + "   0123456789abcdef   |", l_line.substr(17));
    std::getline(l_lines, l_line);
    EXPECT_EQ("6768696A  6B                               "
              "ghijk              |",
              l_line.substr(17));
    EXPECT_FALSE(std::getline(l_lines, l_line));
}

TEST_F(TraceFileTest, DumpShowsAddressesInMemory)
{
    // The same bytes at another place give another first column.
    const std::string l_first(17, 'x');
    const std::string l_second(17, 'x');
    TraceFile* l_instance = TraceFile::getInstance(iv_Stream);
    l_instance->HexDump("a/b.cpp", 9, "data", l_first.data(), 17);
    l_instance->HexDump("a/b.cpp", 9, "data", l_second.data(), 17);
    const std::string l_header = traceHeader("b.cpp", 9) + "data\n";
    const std::string l_hex = "78787878  78787878  78787878  78787878  ";
    const std::string l_shown(16, 'x');
    EXPECT_EQ(l_header + row(l_first.data(), l_hex, l_shown) +
                  row(l_first.data() + 16, "78", "x") + l_header +
                  row(l_second.data(), l_hex, l_shown) +
                  row(l_second.data() + 16, "78", "x"),
              written());
}

TEST_F(TraceFileTest, DumpShowsUnprintableAndMarkupBytesAsDots)
{
    const char l_bytes[] = "<>& ~A\0\n\x1F\x7F\x80\xFF\x9F\"'.";
    ASSERT_EQ(17U, sizeof(l_bytes));
    TraceFile::getInstance(iv_Stream)->HexDump("a/b.cpp", 9, "data", l_bytes,
                                               16);
    EXPECT_EQ(traceHeader("b.cpp", 9) + "data\n" +
                  row(l_bytes, "3C3E2620  7E41000A  1F7F80FF  9F22272E  ",
                      "... ~A.......\"'."),
              written());
}

TEST_F(TraceFileTest, LinesAndDumpsOfThreadsDoNotInterleave)
{
    constexpr std::size_t THREADS = 4;
    constexpr int ROUNDS = 200;
    const std::string l_data[THREADS] = {
        std::string(16, 'a'), std::string(16, 'b'), std::string(16, 'c'),
        std::string(16, 'd')};
    const char* const l_hex[THREADS] = {
        "61616161  61616161  61616161  61616161  ",
        "62626262  62626262  62626262  62626262  ",
        "63636363  63636363  63636363  63636363  ",
        "64646464  64646464  64646464  64646464  "};
    TraceFile* l_instance = TraceFile::getInstance();
    const auto l_write = [&](std::size_t i_number)
    {
        const int l_line = static_cast<int>(i_number);
        const char* l_text = l_data[i_number].c_str();
        for (int l_round = 0; l_round != ROUNDS; ++l_round)
        {
            l_instance->Printf("a/b.cpp", l_line, "%s %i", l_text, l_round);
            l_instance->HexDump("a/b.cpp", l_line, "dump", l_text, 16);
            const FunctionTrace l_trace(nullptr, "a/b.cpp", l_line, l_text,
                                        "%i", l_round);
        }
    };
    std::vector<std::thread> l_threads;
    for (std::size_t l_number = 0; l_number != THREADS; ++l_number)
    {
        l_threads.emplace_back(l_write, l_number);
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }

    // The file is a sequence of whole entries, those of a thread in order.
    std::vector<std::string> l_entries[THREADS];
    for (std::size_t l_number = 0; l_number != THREADS; ++l_number)
    {
        const std::string l_header =
            traceHeader("b.cpp", static_cast<int>(l_number));
        const std::string& l_text = l_data[l_number];
        for (int l_round = ROUNDS; l_round-- != 0;) // the next one is last
        {
            const std::string l_shown = std::to_string(l_round);
            l_entries[l_number].push_back(l_header + "<< " + l_text + "(  )\n");
            l_entries[l_number].push_back(l_header + ">> " + l_text + "( " +
                                          l_shown + " )\n");
            l_entries[l_number].push_back(
                l_header + "dump\n" +
                row(l_text.data(), l_hex[l_number], l_text));
            l_entries[l_number].push_back(l_header + l_text + " " + l_shown +
                                          "\n");
        }
    }
    const std::string l_content = own();
    for (std::size_t l_at = 0; l_at != l_content.size();)
    {
        const auto l_found = std::find_if(
            std::begin(l_entries), std::end(l_entries),
            [&](const std::vector<std::string>& i_entries)
            {
                return !i_entries.empty() &&
                       l_content.compare(l_at, i_entries.back().size(),
                                         i_entries.back()) == 0;
            });
        ASSERT_NE(std::end(l_entries), l_found)
            << "at " << l_at << ": " << l_content.substr(l_at, 200);
        l_at += l_found->back().size();
        l_found->pop_back();
    }
    for (const std::vector<std::string>& l_left : l_entries)
    {
        EXPECT_TRUE(l_left.empty());
    }
}

#include "tolv/platform/traceBuffer.hpp"

#include "support/childProcess.hpp"
#include "support/environment.hpp"
#include "support/tempDir.hpp"
#include "tolv/platform/host/hostTraceReader.hpp"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace tolvhost;

// The memory of buffers, as the platform is compiled.
bool g_mappingFails = false;

extern "C" void* __real_mmap64(void* i_at, size_t i_size, int i_protection,
                               int i_flags, int i_fd, off64_t i_from);
extern "C" void* __wrap_mmap64(void* i_at, size_t i_size, int i_protection,
                               int i_flags, int i_fd, off64_t i_from);

void* __wrap_mmap64(void* i_at, size_t i_size, int i_protection, int i_flags,
                    int i_fd, off64_t i_from)
{
    if (g_mappingFails)
    {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return __real_mmap64(i_at, i_size, i_protection, i_flags, i_fd, i_from);
}

namespace
{

class TraceBufferTest : public testing::Test
{
  protected:
    TraceBufferTest()
    {
        setVariable("TOLV_TRACE_DIR", iv_Folder.path());
    }

    // The descriptor of a buffer, made or attached to.
    static int init(const char* i_name, unsigned int i_size = 8192)
    {
        int l_desc = -1;
        EXPECT_EQ(0, TraceBufferInit(&l_desc, i_name, i_size));
        return l_desc;
    }

    // The newest entries of this process as text.
    static std::string read(const char* i_name, unsigned int i_room = 65536)
    {
        std::string l_text(i_room, '#');
        const int l_copied = TraceBufferReadDiff(i_name, i_room, l_text.data());
        EXPECT_LE(0, l_copied);
        EXPECT_EQ(
            std::string::npos,
            l_text.find_first_not_of('\0', static_cast<std::size_t>(l_copied)));
        l_text.resize(static_cast<std::size_t>(l_copied));
        return l_text;
    }

    // What the segments of that buffer in the folder hold, one each.
    std::vector<std::string> segments(const std::string& i_name) const
    {
        std::vector<std::string> l_texts;
        for (const auto& l_entry :
             std::filesystem::directory_iterator(iv_Folder.path()))
        {
            TraceSnapshot l_snapshot;
            EXPECT_TRUE(readSegment(l_entry.path().c_str(), l_snapshot));
            if (l_snapshot.name == i_name)
            {
                l_texts.push_back(l_snapshot.text);
            }
        }
        return l_texts;
    }

    const TempDir iv_Folder;
};

struct Entry
{
    long long seconds = 0;
    long thread = 0;
    std::string text;
};

// Takes "SECONDS.MICROSECONDS THREAD TEXT" apart.
bool parse(const std::string& i_line, Entry& o_entry)
{
    char* l_end = nullptr;
    o_entry.seconds = std::strtoll(i_line.c_str(), &l_end, 10);
    if (std::strspn(l_end + 1, "0123456789") != 6 || *l_end != '.' ||
        l_end[7] != ' ')
    {
        return false;
    }
    o_entry.thread = std::strtol(l_end + 8, &l_end, 10);
    if (*l_end != ' ')
    {
        return false;
    }
    o_entry.text = l_end + 1;
    return true;
}

// The texts of the entries, without time and thread, one blank after each.
std::string textsOf(const std::string& i_entries)
{
    std::string l_texts;
    std::istringstream l_lines(i_entries);
    for (std::string l_line; std::getline(l_lines, l_line);)
    {
        Entry l_entry;
        EXPECT_TRUE(parse(l_line, l_entry)) << l_line;
        l_texts += l_entry.text + " ";
    }
    EXPECT_TRUE(i_entries.empty() || i_entries.back() == '\n') << i_entries;
    return l_texts;
}

void expectInitRefused(int* o_descriptor, const char* i_name,
                       unsigned int i_size, int i_errno)
{
    errno = 0;
    EXPECT_EQ(-1, TraceBufferInit(o_descriptor, i_name, i_size));
    EXPECT_EQ(i_errno, errno);
}

long openDescriptors()
{
    const std::filesystem::directory_iterator l_all("/proc/self/fd");
    return std::distance(l_all, std::filesystem::directory_iterator());
}

} // namespace

TEST_F(TraceBufferTest, EntryIsTimeThreadAndText)
{
    const int l_desc = init("A");
    const long l_before = time(nullptr);
    EXPECT_EQ(0, TraceBufferWrite(l_desc, "%s %d", "answer", 42));
    const std::string l_line = read("A");
    Entry l_entry;
    ASSERT_TRUE(parse(l_line, l_entry)) << l_line;
    EXPECT_LE(l_before, l_entry.seconds);
    EXPECT_GE(time(nullptr) + 1, l_entry.seconds);
    EXPECT_EQ(syscall(SYS_gettid), l_entry.thread);
    EXPECT_EQ("answer 42\n", l_entry.text);
}

TEST_F(TraceBufferTest, EntriesOfAThreadCarryItsNumber)
{
    const int l_desc = init("A");
    long l_thread = 0;
    std::thread(
        [&]
        {
            l_thread = syscall(SYS_gettid);
            TraceBufferWrite(l_desc, "text");
        })
        .join();
    EXPECT_NE(syscall(SYS_gettid), l_thread);
    EXPECT_NE(std::string::npos,
              read("A").find(" " + std::to_string(l_thread) + " text\n"));
}

TEST_F(TraceBufferTest, DescriptorsAreAboveZeroAndDiffer)
{
    const int l_first = init("A");
    const int l_second = init("B");
    EXPECT_LT(0, l_first);
    EXPECT_LT(0, l_second);
    EXPECT_NE(l_first, l_second);
}

TEST_F(TraceBufferTest, ExistingBufferIsAttachedToAsItIs)
{
    const int l_desc = init("A", 1024);
    TraceBufferWrite(l_desc, "text");
    EXPECT_EQ(l_desc, init("A", 8192));
    EXPECT_EQ("text ", textsOf(read("A")));
    EXPECT_EQ(1U, segments("A").size());
}

TEST_F(TraceBufferTest, BuffersAreApart)
{
    const int l_first = init("A");
    const int l_second = init("B");
    TraceBufferWrite(l_first, "one");
    TraceBufferWrite(l_second, "two");
    EXPECT_EQ("one ", textsOf(read("A")));
    EXPECT_EQ("two ", textsOf(read("B")));
}

TEST_F(TraceBufferTest, WrongArgumentsAreRefused)
{
    int l_desc = 77;
    expectInitRefused(nullptr, "A", 1024, EINVAL);
    expectInitRefused(&l_desc, nullptr, 1024, EINVAL);
    expectInitRefused(&l_desc, "", 1024, EINVAL);
    expectInitRefused(&l_desc, "../A", 1024, EINVAL);
    expectInitRefused(&l_desc, std::string(32, 'A').c_str(), 1024, EINVAL);
    expectInitRefused(&l_desc, "A", 0, EINVAL);
    expectInitRefused(&l_desc, "A", (1U << 26) + 1, EINVAL);
    expectInitRefused(&l_desc, "A", 0xFFFFFFFF, EINVAL);
    EXPECT_EQ(77, l_desc);
    for (const int l_wrong : {0, -1, 1000, init("A") + 1, INT32_MIN})
    {
        errno = 0;
        EXPECT_EQ(-1, TraceBufferWrite(l_wrong, "text"));
        EXPECT_EQ(EBADF, errno);
    }
    const char* volatile l_noFormat = nullptr;
    errno = 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(-1, TraceBufferWrite(init("A"), l_noFormat));
#pragma GCC diagnostic pop
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(TraceBufferTest, WrongReadsAreRefusedAndTouchNothing)
{
    init("A");
    char l_buffer[4] = {1, 2, 3, 4};
    errno = 0;
    EXPECT_EQ(-1, TraceBufferReadDiff("NONE", 4, l_buffer));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, TraceBufferReadDiff(nullptr, 4, l_buffer));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, std::memcmp("\1\2\3\4", l_buffer, 4));
    errno = 0;
    EXPECT_EQ(-1, TraceBufferReadDiff("A", 1024, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, TraceBufferReadDiff("NONE", 0, nullptr));
    EXPECT_EQ(0, TraceBufferReadDiff("A", 0, l_buffer));
    EXPECT_EQ(1, l_buffer[0]);
}

TEST_F(TraceBufferTest, SuccessLeavesErrnoAlone)
{
    setVariable("TOLV_TRACE_DIR", iv_Folder.path("none"));
    errno = EDOM;
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "text");
    read("A");
    EXPECT_EQ(EDOM, errno);
}

TEST_F(TraceBufferTest, ThirtyTwoBuffersExistAndNotOneMore)
{
    int l_desc = 0;
    // The first is that of g_early.
    for (int l_buffer = 1; l_buffer != 32; ++l_buffer)
    {
        init(("A" + std::to_string(l_buffer)).c_str(), 64);
    }
    expectInitRefused(&l_desc, "B", 64, ENOSPC);
    EXPECT_LT(0, init("A31"));
}

TEST_F(TraceBufferTest, NoMemoryIsReported)
{
    int l_desc = 0;
    g_mappingFails = true;
    expectInitRefused(&l_desc, "A", 64, ENOMEM);
    g_mappingFails = false;
    TraceBufferWrite(init("A"), "text");
    EXPECT_EQ("text ", textsOf(read("A")));
}

TEST_F(TraceBufferTest, TextStaysOnOneLine)
{
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "one\n");
    TraceBufferWrite(l_desc, "two\nlines\t\x1B\x7F \xC3\xA4\n\n");
    TraceBufferWrite(l_desc, "%s", "");
    TraceBufferWrite(l_desc, "\n");
    EXPECT_EQ("one two lines    \xC3\xA4   ", textsOf(read("A")));
}

TEST_F(TraceBufferTest, LongTextIsCutOff)
{
    const int l_desc = init("A");
    EXPECT_EQ(0,
              TraceBufferWrite(l_desc, "%s", std::string(100000, 'x').c_str()));
    TraceBufferWrite(l_desc, "next");
    const std::string l_entries = read("A");
    EXPECT_EQ(511U, l_entries.find('\n'));
    EXPECT_EQ('x', l_entries[510]);
    EXPECT_EQ("next ", textsOf(l_entries.substr(512)));
}

TEST_F(TraceBufferTest, EntryIsCutToASmallRing)
{
    const int l_desc = init("A", 1);
    TraceBufferWrite(l_desc, "%s", std::string(200, 'x').c_str());
    const std::string l_entry = read("A");
    EXPECT_EQ(64U, l_entry.size());
    EXPECT_EQ('x', l_entry[62]);
    EXPECT_EQ('\n', l_entry[63]);
}

TEST_F(TraceBufferTest, OldestEntriesMakeRoom)
{
    const int l_desc = init("A", 1000);
    for (int l_entry = 0; l_entry != 500; ++l_entry)
    {
        TraceBufferWrite(l_desc, "%d", l_entry);
    }
    const std::string l_entries = read("A");
    EXPECT_LT(950U, l_entries.size());
    EXPECT_GE(1024U, l_entries.size());
    const std::string l_texts = textsOf(l_entries);
    int l_next = std::stoi(l_texts);
    std::string l_expected;
    for (; l_next != 500; ++l_next)
    {
        l_expected += std::to_string(l_next) + " ";
    }
    EXPECT_EQ(l_expected, l_texts);
}

TEST_F(TraceBufferTest, ReadTakesTheNewestWholeEntriesThatFit)
{
    const int l_desc = init("A");
    for (int l_entry = 0; l_entry != 100; ++l_entry)
    {
        TraceBufferWrite(l_desc, "%d", l_entry);
    }
    const std::string l_all = read("A");
    for (unsigned int l_room = 0; l_room != 200; ++l_room)
    {
        const std::string l_entries = read("A", l_room);
        EXPECT_EQ(l_all.substr(l_all.size() - l_entries.size()), l_entries);
        textsOf(l_entries);
    }
    EXPECT_EQ("99 ", textsOf(read("A", 40)));
}

TEST_F(TraceBufferTest, UnusableFolderStillGivesTraceInTheProcess)
{
    std::ofstream(iv_Folder.path("file")) << "text";
    const char* const NAMES[] = {"A", "B", "C"};
    int l_index = 0;
    for (const std::string& l_folder :
         {iv_Folder.path("none"), iv_Folder.path("file"), std::string("/proc")})
    {
        const char* l_name = NAMES[l_index++];
        setVariable("TOLV_TRACE_DIR", l_folder);
        const int l_desc = init(l_name);
        TraceBufferWrite(l_desc, "text");
        EXPECT_EQ("text ", textsOf(read(l_name)));
    }
}

TEST_F(TraceBufferTest, NoDescriptorStaysOpen)
{
    const long l_before = openDescriptors();
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "text");
    read("A");
    EXPECT_EQ(l_before, openDescriptors());
}

TEST_F(TraceBufferTest, ThreadsWriteAndReadWholeEntries)
{
    constexpr int WRITERS = 4;
    constexpr int EACH = 500;
    init("A", 4096);
    std::atomic<int> l_running(WRITERS);
    std::vector<std::thread> l_threads;
    for (int l_writer = 0; l_writer != WRITERS; ++l_writer)
    {
        l_threads.emplace_back(
            [l_writer, &l_running]
            {
                const int l_desc = init("A");
                for (int l_entry = 0; l_entry != EACH; ++l_entry)
                {
                    TraceBufferWrite(
                        l_desc, "%s%d",
                        std::string(static_cast<std::size_t>(l_writer), 'x')
                            .c_str(),
                        l_entry);
                }
                --l_running;
            });
    }
    do
    {
        textsOf(read("A", 2048));
    } while (l_running != 0);
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    const std::string l_texts = textsOf(read("A"));
    EXPECT_NE(std::string::npos, l_texts.find(std::to_string(EACH - 1)));
}

TEST_F(TraceBufferTest, ForkedChildHasARingOfItsOwn)
{
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "parent");
    expectInChild(
        [l_desc, this]
        {
            EXPECT_EQ("", read("A"));
            EXPECT_EQ(0, TraceBufferWrite(l_desc, "child"));
            EXPECT_EQ("child ", textsOf(read("A")));
            EXPECT_EQ(l_desc, init("A"));
            EXPECT_EQ(2U, segments("A").size());
            expectInChild(
                [l_desc]
                {
                    TraceBufferWrite(l_desc, "grandchild");
                    EXPECT_EQ("grandchild ", textsOf(read("A")));
                    return true;
                });
            EXPECT_EQ("child ", textsOf(read("A")));
            return true;
        });
    TraceBufferWrite(l_desc, "again");
    EXPECT_EQ("parent again ", textsOf(read("A")));
    std::vector<std::string> l_texts = segments("A");
    std::transform(l_texts.begin(), l_texts.end(), l_texts.begin(), textsOf);
    std::sort(l_texts.begin(), l_texts.end());
    EXPECT_EQ(
        (std::vector<std::string>{"child ", "grandchild ", "parent again "}),
        l_texts);
}

TEST_F(TraceBufferTest, ChildOfAProcessWithoutAFolderHasARingOfItsOwn)
{
    setVariable("TOLV_TRACE_DIR", iv_Folder.path("none"));
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "parent");
    expectInChild(
        [l_desc]
        {
            TraceBufferWrite(l_desc, "child");
            EXPECT_EQ("parent child ", textsOf(read("A")));
            return true;
        });
    EXPECT_EQ("parent ", textsOf(read("A")));
}

TEST_F(TraceBufferTest, ChildThatFindsNoMemoryReportsIt)
{
    const int l_desc = init("A");
    expectInChild(
        [l_desc]
        {
            char l_byte = 0;
            g_mappingFails = true;
            EXPECT_EQ(-1, TraceBufferWrite(l_desc, "text"));
            EXPECT_EQ(ENOMEM, errno);
            EXPECT_EQ(-1, TraceBufferReadDiff("A", 1, &l_byte));
            EXPECT_EQ(ENOMEM, errno);
            g_mappingFails = false;
            EXPECT_EQ(0, TraceBufferWrite(l_desc, "text"));
            EXPECT_EQ("text ", textsOf(read("A")));
            return true;
        });
}

TEST_F(TraceBufferTest, ChildThatDoesNotTraceLeavesNoSegment)
{
    init("A");
    expectInChild([] { return true; });
    EXPECT_EQ(1U, segments("A").size());
}

TEST_F(TraceBufferTest, ChildrenLeaveABoundedNumberOfSegments)
{
    const int l_desc = init("A", 64);
    for (int l_child = 0; l_child != 20; ++l_child)
    {
        expectInChild([l_desc]
                      { return TraceBufferWrite(l_desc, "text") == 0; });
    }
    EXPECT_EQ(6U, segments("A").size());
}

TEST_F(TraceBufferTest, ChildForkedWhileThreadsWriteCanTrace)
{
    const int l_desc = init("A");
    std::atomic<bool> l_done(false);
    std::vector<std::thread> l_threads;
    for (int l_thread = 0; l_thread != 2; ++l_thread)
    {
        l_threads.emplace_back(
            [&]
            {
                while (!l_done)
                {
                    TraceBufferWrite(l_desc, "parent");
                }
            });
    }
    for (int l_child = 0; l_child != 20; ++l_child)
    {
        expectInChild(
            [l_desc]
            {
                char l_buffer[64];
                return TraceBufferWrite(l_desc, "child") == 0 &&
                       TraceBufferReadDiff("A", sizeof(l_buffer), l_buffer) >
                           0 &&
                       std::strstr(l_buffer, " child\n") != nullptr &&
                       std::strstr(l_buffer, "parent") == nullptr;
            });
    }
    l_done = true;
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    EXPECT_EQ(std::string::npos, read("A").find("child"));
}

TEST_F(TraceBufferTest, ProcessesOfOneProgramDoNotDisturbEachOther)
{
    std::vector<pid_t> l_children(4);
    for (pid_t& l_child : l_children)
    {
        l_child = startChild(
            []
            {
                const int l_desc = init("A");
                std::string l_expected;
                for (int l_entry = 0; l_entry != 100; ++l_entry)
                {
                    TraceBufferWrite(l_desc, "%d", getpid());
                    l_expected += std::to_string(getpid()) + " ";
                }
                EXPECT_EQ(l_expected, textsOf(read("A")));
            });
    }
    for (const pid_t l_child : l_children)
    {
        EXPECT_EQ(0, waitForChild(l_child));
    }
    EXPECT_EQ(4U, segments("A").size());
}

TEST_F(TraceBufferTest, TraceOfAKilledProcessCanBeRead)
{
    waitForChild(startChild(
        []
        {
            TraceBufferWrite(init("A"), "last words");
            raise(SIGKILL);
        }));
    ASSERT_EQ(1U, segments("A").size());
    EXPECT_EQ("last words ", textsOf(segments("A")[0]));
    init("A");
    EXPECT_EQ(2U, segments("A").size()) << "kept at the next start";
}

TEST_F(TraceBufferTest, SegmentDamagedFromOutsideStartsAfresh)
{
    const int l_desc = init("A");
    TraceBufferWrite(l_desc, "one");
    const std::filesystem::directory_iterator l_file(iv_Folder.path());
    {
        std::fstream l_segment(l_file->path(),
                               std::ios::in | std::ios::out | std::ios::binary);
        l_segment << std::string(128, '\xFF');
        l_segment.seekp(16);
        l_segment << std::string("\x12\x34\x56\x78\x9A\xBC\xDE\xF0");
    }
    EXPECT_EQ("", read("A"));
    EXPECT_EQ(0, TraceBufferWrite(l_desc, "two"));
    EXPECT_EQ("two ", textsOf(read("A")));
}

namespace
{

// A user that is constructed before main() and still there after it.
class Early
{
  public:
    Early()
    {
        setVariable("TOLV_TRACE_DIR", iv_Folder.path());
        iv_Result = TraceBufferInit(&iv_Desc, "EARLY", 1024);
        TraceBufferWrite(iv_Desc, "early");
    }

    ~Early()
    {
        char l_text[256] = "";
        TraceBufferWrite(iv_Desc, "late");
        TraceBufferReadDiff("EARLY", sizeof(l_text), l_text);
        if (iv_Judge)
        {
            _exit(std::strstr(l_text, "late\n") != nullptr ? 0 : 1);
        }
    }

    TempDir iv_Folder;
    int iv_Desc = 0;
    int iv_Result = -1;
    bool iv_Judge = false;
};

// NOLINTNEXTLINE(cert-err58-cpp): a test that has no folder may end at once
Early g_early;

} // namespace

TEST_F(TraceBufferTest, BufferWorksBeforeMain)
{
    EXPECT_EQ(0, g_early.iv_Result);
    EXPECT_EQ("early ", textsOf(read("EARLY")));
}

TEST_F(TraceBufferTest, BufferWorksWhileStaticObjectsAreDestroyed)
{
    EXPECT_EQ(0, waitForChild(startChild(
                     []
                     {
                         g_early.iv_Judge = true;
                         // NOLINTNEXTLINE(concurrency-mt-unsafe)
                         exit(77); // replaced by the verdict
                     })));
}

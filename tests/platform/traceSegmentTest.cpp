#include "tolv/platform/host/hostTraceSegment.hpp"

#include "support/childProcess.hpp"
#include "support/environment.hpp"
#include "support/tempDir.hpp"
#include "support/waitFor.hpp"
#include "tolv/platform/host/hostProcess.hpp"
#include "tolv/platform/host/hostTraceReader.hpp"
#include "tolv/platform/host/hostTraceRing.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace tolvhost;

// The room for a segment and its mapping, as the platform is compiled.
int g_allocationError = 0;
int g_interruptions = 0; // before the room is given
bool g_mappingFails = false;

extern "C"
{
    int __real_posix_fallocate64(int i_fd, off64_t i_from, off64_t i_size);
    int __wrap_posix_fallocate64(int i_fd, off64_t i_from, off64_t i_size);
    void* __real_mmap64(void* i_at, size_t i_size, int i_protection,
                        int i_flags, int i_fd, off64_t i_from);
    void* __wrap_mmap64(void* i_at, size_t i_size, int i_protection,
                        int i_flags, int i_fd, off64_t i_from);
}

int __wrap_posix_fallocate64(int i_fd, off64_t i_from, off64_t i_size)
{
    if (g_interruptions > 0)
    {
        --g_interruptions;
        return EINTR;
    }
    return g_allocationError != 0
               ? g_allocationError
               : __real_posix_fallocate64(i_fd, i_from, i_size);
}

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

constexpr std::uint32_t SIZE = 1024;

// No process has this number.
constexpr pid_t NOBODY = 99999999;

class TraceSegmentTest : public testing::Test
{
  protected:
    TraceSegmentTest()
    {
        setVariable("TOLV_TRACE_DIR", iv_Folder.path());
    }

    static std::string
    fileName(pid_t i_pid, std::uint64_t i_start,
             const std::string& i_name = "A",
             const std::string& i_program = "traceSegmentTest")
    {
        return "tolv-trace." + std::to_string(geteuid()) + "." + i_program +
               "." + std::to_string(i_pid) + "." + std::to_string(i_start) +
               "." + i_name;
    }

    // The segment "A" of a process.
    std::string path(pid_t i_pid) const
    {
        return iv_Folder.path(fileName(i_pid, processStart(i_pid)));
    }

    std::string ownPath() const
    {
        return path(getpid());
    }

    // A file of that name, made i_age seconds ago.
    void addFile(const std::string& i_name, int i_age) const
    {
        std::ofstream(iv_Folder.path(i_name)) << "text";
        std::filesystem::last_write_time(
            iv_Folder.path(i_name),
            std::filesystem::file_time_type::clock::now() -
                std::chrono::seconds(i_age));
    }

    std::vector<std::string> names() const
    {
        return namesIn(iv_Folder.path());
    }

    static void append(TraceSegment* i_segment, const std::string& i_line)
    {
        TraceRing(i_segment, SIZE)
            .append(i_line.data(), static_cast<std::uint32_t>(i_line.size()));
    }

    static std::string contentOf(const std::string& i_path)
    {
        std::ifstream l_file(i_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(l_file), {}};
    }

    // Expects that the file cannot be read as a segment.
    static void expectRefused(const std::string& i_path, int i_errno)
    {
        TraceSnapshot l_snapshot;
        l_snapshot.text = "untouched";
        errno = 0;
        EXPECT_FALSE(readSegment(i_path.c_str(), l_snapshot));
        EXPECT_EQ(i_errno, errno);
        EXPECT_EQ("untouched", l_snapshot.text);
    }

    const TempDir iv_Folder;
};

} // namespace

TEST_F(TraceSegmentTest, NamesAreLettersDigitsUnderscoreAndMinus)
{
    EXPECT_TRUE(isSegmentName("TOLV_DBG"));
    EXPECT_TRUE(isSegmentName("a-9"));
    EXPECT_TRUE(isSegmentName(std::string(31, 'N').c_str()));
    EXPECT_FALSE(isSegmentName(std::string(32, 'N').c_str()));
    for (const char* l_name : {"", ".", "..", "a/b", "a b", "a.b", "\xC3\xA4"})
    {
        EXPECT_FALSE(isSegmentName(l_name)) << l_name;
    }
}

TEST_F(TraceSegmentTest, SegmentIsAFileOfTheUserOnly)
{
    umask(0);
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    ASSERT_NE(nullptr, l_segment);
    EXPECT_NE(0U, processStart(getpid()));
    EXPECT_EQ(
        std::vector<std::string>{fileName(getpid(), processStart(getpid()))},
        names());
    struct stat l_stat = {};
    ASSERT_EQ(0, stat(ownPath().c_str(), &l_stat));
    EXPECT_EQ(0600U, l_stat.st_mode & 07777);
    EXPECT_EQ(128 + 1024, l_stat.st_size);
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, LayoutIsTheDocumentedOne)
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    append(l_segment, "one\n");
    append(l_segment, "three\n");
    const std::string l_file = contentOf(ownPath());
    ASSERT_EQ(128U + 1024U, l_file.size());
    const std::uint32_t FIELDS[] = {
        0x544F4C56, 1, 128, 1024, 0, 10, static_cast<std::uint32_t>(getpid()),
        0};
    EXPECT_EQ(0, std::memcmp(FIELDS, l_file.data(), sizeof(FIELDS)));
    EXPECT_EQ("A" + std::string(31, '\0'), l_file.substr(32, 32));
    EXPECT_EQ("traceSegmentTest" + std::string(48, '\0'),
              l_file.substr(64, 64));
    EXPECT_EQ("one\nthree\n" + std::string(1014, '\0'), l_file.substr(128));
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, ReaderSeesWhatTheProcessWrote)
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    TraceSnapshot l_snapshot;
    ASSERT_TRUE(readSegment(ownPath().c_str(), l_snapshot));
    EXPECT_EQ("A", l_snapshot.name);
    EXPECT_EQ("traceSegmentTest", l_snapshot.program);
    EXPECT_EQ(getpid(), l_snapshot.pid);
    EXPECT_EQ("", l_snapshot.text);
    for (int l_line = 0; l_line != 500; ++l_line)
    {
        append(l_segment, std::to_string(l_line) + "\n");
        std::string l_ring(SIZE, ' ');
        l_ring.resize(TraceRing(l_segment, SIZE).newest(l_ring.data(), SIZE));
        ASSERT_TRUE(readSegment(ownPath().c_str(), l_snapshot));
        ASSERT_EQ(l_ring, l_snapshot.text);
    }
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, MissingFolderOrNoFolderGivesNoSegment)
{
    setVariable("TOLV_TRACE_DIR", iv_Folder.path("none"));
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
    std::ofstream(iv_Folder.path("file")) << "text";
    setVariable("TOLV_TRACE_DIR", iv_Folder.path("file"));
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
    setVariable("TOLV_TRACE_DIR", "/proc"); // takes no files from anybody
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
}

TEST_F(TraceSegmentTest, FullFolderGivesNoSegmentAndKeepsNoFile)
{
    g_allocationError = ENOSPC;
    errno = 0;
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(names().empty());
}

TEST_F(TraceSegmentTest, FailedMappingGivesNoSegmentAndKeepsNoFile)
{
    g_mappingFails = true;
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(nullptr, createPrivateSegment("A", SIZE));
}

TEST_F(TraceSegmentTest, LinkAtTheNameIsReplacedAndNotFollowed)
{
    std::ofstream(iv_Folder.path("victim")) << "untouched";
    std::filesystem::create_symlink(iv_Folder.path("victim"), ownPath());
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    ASSERT_NE(nullptr, l_segment);
    EXPECT_EQ("untouched", contentOf(iv_Folder.path("victim")));
    EXPECT_TRUE(std::filesystem::is_regular_file(
        std::filesystem::symlink_status(ownPath())));
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, NameThatCannotBeTakenGivesNoSegment)
{
    std::filesystem::create_directory(ownPath());
    EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
    EXPECT_TRUE(std::filesystem::is_directory(ownPath()));
}

TEST_F(TraceSegmentTest, InterruptedAllocationIsTriedAgain)
{
    g_interruptions = 2;
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    ASSERT_NE(nullptr, l_segment);
    EXPECT_EQ(0, g_interruptions);
    EXPECT_EQ(128U + SIZE, std::filesystem::file_size(ownPath()));
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, LimitOfFileSizesGivesNoSegmentAndEndsNoProcess)
{
    const pid_t l_child = startChild(
        [this]
        {
            rlimit l_limit = {};
            EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &l_limit));
            l_limit.rlim_cur = 128 + SIZE - 1;
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &l_limit));
            EXPECT_EQ(nullptr, createSharedSegment("A", SIZE));
            EXPECT_EQ(EFBIG, errno);
            EXPECT_TRUE(names().empty());
            l_limit.rlim_cur = 128 + SIZE;
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &l_limit));
            EXPECT_NE(nullptr, createSharedSegment("A", SIZE));
        });
    EXPECT_EQ(0, waitForChild(l_child));
}

TEST_F(TraceSegmentTest, FileFromBeforeAnExecIsReplaced)
{
    TraceSegment* l_first = createSharedSegment("A", SIZE);
    append(l_first, "one\n");
    TraceSegment* l_second = createSharedSegment("A", SIZE);
    ASSERT_NE(nullptr, l_second);
    TraceSnapshot l_snapshot;
    ASSERT_TRUE(readSegment(ownPath().c_str(), l_snapshot));
    EXPECT_EQ("", l_snapshot.text);
    releaseSegment(l_first, SIZE);
    releaseSegment(l_second, SIZE);
}

TEST_F(TraceSegmentTest, NewestSegmentsOfTheDeadStayAndOlderOnesGo)
{
    for (int l_dead = 1; l_dead != 10; ++l_dead)
    {
        // The numbers are not in the order of age.
        addFile(fileName(NOBODY, static_cast<unsigned>(l_dead * 7 % 10)),
                l_dead);
    }
    releaseSegment(createSharedSegment("A", SIZE), SIZE);
    std::vector<std::string> l_expected = {
        fileName(NOBODY, 7), fileName(NOBODY, 4), fileName(NOBODY, 1),
        fileName(NOBODY, 8), fileName(getpid(), processStart(getpid()))};
    std::sort(l_expected.begin(), l_expected.end());
    EXPECT_EQ(l_expected, names());
}

TEST_F(TraceSegmentTest, OnlyDeadSegmentsOfTheSameProgramAndBufferGo)
{
    // Newer ones, so that all of the following would have to go.
    for (unsigned int l_dead = 1; l_dead <= DEAD_SEGMENTS_KEPT; ++l_dead)
    {
        addFile(fileName(NOBODY, l_dead), 1);
    }
    const pid_t l_parent = getppid();
    const std::string OTHERS[] = {
        fileName(l_parent, processStart(l_parent)),
        fileName(l_parent, 0), // started when nobody could tell
        fileName(NOBODY, 9, "B"),
        fileName(NOBODY, 9, "A", "other"),
        fileName(NOBODY, 9, "A.A"),
        fileName(NOBODY, 9) + "A",
        "tolv-trace.12345.traceSegmentTest.99999999.9.A",
        "tolv-trace." + std::to_string(geteuid()) + ".traceSegmentTest.x.9.A",
        "tolv-trace." + std::to_string(geteuid()) + ".traceSegmentTest.9.A",
        "notes"};
    for (const std::string& l_name : OTHERS)
    {
        addFile(l_name, 1000);
    }
    addFile(fileName(l_parent, processStart(l_parent) + 1), 1000);
    addFile(fileName(getpid(), 1), 1000);
    std::filesystem::create_directory(iv_Folder.path(fileName(NOBODY, 9)));
    releaseSegment(createSharedSegment("A", SIZE), SIZE);

    const auto l_names = names();
    for (const std::string& l_name : OTHERS)
    {
        EXPECT_EQ(1, std::count(l_names.begin(), l_names.end(), l_name))
            << l_name;
    }
    // Numbers that were used again, for other processes.
    EXPECT_FALSE(std::filesystem::exists(
        iv_Folder.path(fileName(l_parent, processStart(l_parent) + 1))));
    EXPECT_FALSE(
        std::filesystem::exists(iv_Folder.path(fileName(getpid(), 1))));
    EXPECT_EQ(std::size(OTHERS) + DEAD_SEGMENTS_KEPT + 2, l_names.size());
}

TEST_F(TraceSegmentTest, RestartsLeaveABoundedNumberOfSegments)
{
    for (int l_start = 0; l_start != 20; ++l_start)
    {
        waitForChild(startChild(
            []
            {
                createSharedSegment("A", SIZE);
                raise(SIGKILL);
            }));
    }
    EXPECT_EQ(DEAD_SEGMENTS_KEPT + 1, names().size());
}

TEST_F(TraceSegmentTest, ProcessThatWaitsToBeReapedIsDead)
{
    const pid_t l_child = startChild([] { raise(SIGKILL); });
    siginfo_t l_info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(l_child), &l_info,
                        WEXITED | WNOWAIT));
    EXPECT_FALSE(isRunning(l_child, processStart(l_child)));
    waitForChild(l_child);
    EXPECT_FALSE(isRunning(l_child, 0));
    EXPECT_TRUE(isRunning(getpid(), processStart(getpid())));
    EXPECT_TRUE(isRunning(getpid(), 0));
    EXPECT_FALSE(isRunning(getpid(), processStart(getpid()) + 1));
}

TEST_F(TraceSegmentTest, DeadProcessCanBeRead)
{
    const pid_t l_child = startChild(
        []
        {
            append(createSharedSegment("A", SIZE), "last words\n");
            for (;;)
            {
                pause();
            }
        });
    const std::string l_path = path(l_child);
    TraceSnapshot l_snapshot;
    EXPECT_TRUE(waitFor(
        [&]
        {
            return readSegment(l_path.c_str(), l_snapshot) &&
                   !l_snapshot.text.empty();
        }));
    killChild(l_child);
    ASSERT_TRUE(readSegment(l_path.c_str(), l_snapshot));
    EXPECT_EQ("last words\n", l_snapshot.text);
    EXPECT_EQ(l_child, l_snapshot.pid);
}

// Lines that are each a number of varying length, one more than that before.
bool isConsecutive(const std::string& i_text)
{
    std::size_t l_begin = 0;
    unsigned long l_last = 0;
    while (l_begin != i_text.size())
    {
        const std::size_t l_end = i_text.find('\n', l_begin);
        if (l_end == std::string::npos)
        {
            return false;
        }
        const unsigned long l_number =
            std::strtoul(&i_text[l_begin], nullptr, 10);
        const std::string l_digits = std::to_string(l_number);
        std::string l_line;
        for (unsigned long l_times = 0; l_times <= l_number % 5; ++l_times)
        {
            l_line += l_digits + " ";
        }
        if (i_text.substr(l_begin, l_end - l_begin) != l_line ||
            (l_last != 0 && l_number != l_last + 1))
        {
            return false;
        }
        l_last = l_number;
        l_begin = l_end + 1;
    }
    return true;
}

void writeConsecutiveLines()
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    TraceRing l_ring(l_segment, SIZE);
    for (unsigned long l_number = 1;; ++l_number)
    {
        std::string l_line;
        for (unsigned long l_times = 0; l_times <= l_number % 5; ++l_times)
        {
            l_line += std::to_string(l_number) + " ";
        }
        l_line += '\n';
        l_ring.append(l_line.data(), static_cast<std::uint32_t>(l_line.size()));
    }
}

TEST_F(TraceSegmentTest, BusyProcessIsReadInWholeLines)
{
    const pid_t l_child = startChild(writeConsecutiveLines);
    const std::string l_path = path(l_child);
    TraceSnapshot l_snapshot;
    int l_reads = 0;
    EXPECT_TRUE(waitFor(
        [&]
        {
            if (readSegment(l_path.c_str(), l_snapshot) &&
                !l_snapshot.text.empty())
            {
                EXPECT_TRUE(isConsecutive(l_snapshot.text)) << l_snapshot.text;
                ++l_reads;
            }
            return l_reads == 200;
        }));
    killChild(l_child);
}

TEST_F(TraceSegmentTest, KilledWriterLeavesWholeLines)
{
    for (int l_round = 0; l_round != 20; ++l_round)
    {
        const pid_t l_child = startChild(writeConsecutiveLines);
        const std::string l_path = path(l_child);
        TraceSnapshot l_snapshot;
        EXPECT_TRUE(waitFor(
            [&]
            {
                return readSegment(l_path.c_str(), l_snapshot) &&
                       l_snapshot.text.size() > SIZE / 2;
            }));
        killChild(l_child);
        ASSERT_TRUE(readSegment(l_path.c_str(), l_snapshot));
        EXPECT_LT(SIZE / 2, l_snapshot.text.size());
        EXPECT_TRUE(isConsecutive(l_snapshot.text)) << l_snapshot.text;
    }
}

TEST_F(TraceSegmentTest, ReaderRefusesWhatIsNoSegment)
{
    expectRefused(iv_Folder.path("none"), ENOENT);
    expectRefused(iv_Folder.path(), EISDIR);
    std::ofstream(iv_Folder.path("text")) << std::string(4096, 'x');
    expectRefused(iv_Folder.path("text"), EBADMSG);
    ASSERT_EQ(0, mkfifo(iv_Folder.path("fifo").c_str(), 0600));
    expectRefused(iv_Folder.path("fifo"), ESPIPE);
    releaseSegment(createSharedSegment("A", SIZE), SIZE);
    std::filesystem::create_symlink(ownPath(), iv_Folder.path("link"));
    expectRefused(iv_Folder.path("link"), ELOOP);
}

TEST_F(TraceSegmentTest, ReaderRefusesEveryCutOffSegment)
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    append(l_segment, "one\n");
    const std::string l_path = ownPath() + ".copy";
    std::filesystem::copy_file(ownPath(), l_path);
    for (std::size_t l_size = 128 + SIZE; l_size-- != 0;)
    {
        std::filesystem::resize_file(l_path, l_size);
        expectRefused(l_path, EBADMSG);
    }
    releaseSegment(l_segment, SIZE);
}

TEST_F(TraceSegmentTest, ReaderSurvivesEveryDamagedHeader)
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    append(l_segment, "one\n");
    const std::string l_whole = contentOf(ownPath());
    releaseSegment(l_segment, SIZE);
    const std::string l_path = ownPath() + ".copy";
    std::filesystem::copy_file(ownPath(), l_path);
    for (std::size_t l_offset = 0; l_offset != 128; ++l_offset)
    {
        for (const int l_value : {0, 1, 0x7F, 0x80, 0xFF})
        {
            std::string l_damaged = l_whole;
            l_damaged[l_offset] = static_cast<char>(l_value);
            std::fstream(l_path,
                         std::ios::in | std::ios::out | std::ios::binary)
                << l_damaged;
            TraceSnapshot l_snapshot;
            if (readSegment(l_path.c_str(), l_snapshot))
            {
                EXPECT_GE(SIZE, l_snapshot.text.size());
                EXPECT_GE(32U, l_snapshot.name.size());
                EXPECT_GE(64U, l_snapshot.program.size());
            }
            else
            {
                EXPECT_TRUE(errno == EBADMSG || errno == EAGAIN) << errno;
            }
        }
    }
}

TEST_F(TraceSegmentTest, ReaderRefusesImpossibleFields)
{
    TraceSegment* l_segment = createSharedSegment("A", SIZE);
    l_segment->magic = 0x564C4F54; // the other byte order
    expectRefused(ownPath(), EBADMSG);
    l_segment->magic = SEGMENT_MAGIC;
    l_segment->version = 2;
    expectRefused(ownPath(), EBADMSG);
    l_segment->version = 1;
    for (const std::uint32_t l_size : {0U, 32U, 1000U, 2048U, 0x80000000U})
    {
        l_segment->textSize = l_size;
        expectRefused(ownPath(), EBADMSG);
    }
    l_segment->textSize = SIZE;
    l_segment->headerSize = 64;
    expectRefused(ownPath(), EBADMSG);
    l_segment->headerSize = 128;
    l_segment->begin = 1;
    expectRefused(ownPath(), EBADMSG);
    l_segment->begin = 0;
    l_segment->end = SIZE + 1; // as in the middle of a write
    expectRefused(ownPath(), EAGAIN);
    l_segment->end = SIZE;
    TraceSnapshot l_snapshot;
    EXPECT_TRUE(readSegment(ownPath().c_str(), l_snapshot));
    releaseSegment(l_segment, SIZE);
}

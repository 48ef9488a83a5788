#include "tolv/platform/host/hostErrorLogStore.hpp"

#include "support/childProcess.hpp"
#include "support/environment.hpp"
#include "support/tempDir.hpp"
#include "support/waitFor.hpp"
#include "tolv/platform/errorLogEntry.hpp"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

// What the platform asked the system for, in order, and what of it is to fail
// or to end the process.
enum class Call
{
    NONE,
    WRITE,
    SYNC_FILE,
    RENAME,
    SYNC_FOLDER,
    REMOVE
};

std::vector<Call> g_calls;
std::vector<std::string> g_syncedFolders;
bool g_recordCalls = false; // calls of one thread
Call g_failing = Call::NONE;
Call g_deadlyBefore = Call::NONE;
Call g_deadlyAfter = Call::NONE;
std::string g_logLine;
int g_logPriority = -1;
int g_openlogCalls = 0;

extern "C"
{
    ssize_t __real_write(int i_fd, const void* i_bytes, size_t i_size);
    ssize_t __wrap_write(int i_fd, const void* i_bytes, size_t i_size);
    int __real_fsync(int i_fd);
    int __wrap_fsync(int i_fd);
    int __real_renameat(int i_from, const char* i_old, int i_to,
                        const char* i_new);
    int __wrap_renameat(int i_from, const char* i_old, int i_to,
                        const char* i_new);
    int __real_unlinkat(int i_folder, const char* i_name, int i_flags);
    int __wrap_unlinkat(int i_folder, const char* i_name, int i_flags);
    void __wrap_syslog(int i_priority, const char* i_format, ...)
        __attribute__((format(printf, 2, 3)));
    void __wrap_openlog(const char* i_name, int i_option, int i_facility);
}

namespace
{

int call(Call i_call, const std::function<int()>& i_real)
{
    if (g_recordCalls)
    {
        g_calls.push_back(i_call);
    }
    if (g_failing == i_call)
    {
        errno = EIO;
        return -1;
    }
    if (g_deadlyBefore == i_call)
    {
        kill(getpid(), SIGKILL);
    }
    const int l_result = i_real();
    if (g_deadlyAfter == i_call)
    {
        kill(getpid(), SIGKILL);
    }
    return l_result;
}

bool isFolder(int i_fd)
{
    struct stat l_stat = {};
    return fstat(i_fd, &l_stat) == 0 && S_ISDIR(l_stat.st_mode);
}

} // namespace

// Writes in small pieces, so that a writer can die in the middle.
ssize_t __wrap_write(int i_fd, const void* i_bytes, size_t i_size)
{
    return call(Call::WRITE,
                [=]
                {
                    return static_cast<int>(__real_write(
                        i_fd, i_bytes, std::min<size_t>(i_size, 50)));
                });
}

int __wrap_fsync(int i_fd)
{
    if (!isFolder(i_fd))
    {
        return call(Call::SYNC_FILE, [=] { return __real_fsync(i_fd); });
    }
    if (g_recordCalls)
    {
        g_syncedFolders.push_back(std::filesystem::read_symlink(
            "/proc/self/fd/" + std::to_string(i_fd)));
    }
    return call(Call::SYNC_FOLDER, [=] { return __real_fsync(i_fd); });
}

int __wrap_renameat(int i_from, const char* i_old, int i_to, const char* i_new)
{
    return call(Call::RENAME,
                [=] { return __real_renameat(i_from, i_old, i_to, i_new); });
}

int __wrap_unlinkat(int i_folder, const char* i_name, int i_flags)
{
    return call(Call::REMOVE,
                [=] { return __real_unlinkat(i_folder, i_name, i_flags); });
}

// Not recorded in the tests with threads: they do not look at it.
void __wrap_syslog(int i_priority, const char* i_format, ...)
{
    char l_line[1024];
    va_list l_args;
    va_start(l_args, i_format);
    vsnprintf(l_line, sizeof(l_line), i_format, l_args);
    va_end(l_args);
    if (g_recordCalls)
    {
        g_logPriority = i_priority;
        g_logLine = l_line;
    }
}

void __wrap_openlog(const char* /*i_name*/, int /*i_option*/,
                    int /*i_facility*/)
{
    ++g_openlogCalls;
}

namespace
{

std::string contentOf(const std::string& i_path)
{
    std::ifstream l_file(i_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(l_file), {}};
}

class ErrorLogStoreTest : public testing::Test
{
  protected:
    ErrorLogStoreTest()
    {
        setVariable("TOLV_ERRORLOG", iv_Log);
    }

    std::vector<std::string> names() const
    {
        return namesIn(iv_Log);
    }

    // How many of the files are entries; expects that these are whole.
    std::size_t wholeEntries() const
    {
        std::size_t l_entries = 0;
        for (const std::string& l_name : names())
        {
            if (l_name.find("entry.") == 0)
            {
                valueIn(l_name);
                ++l_entries;
            }
        }
        return l_entries;
    }

    std::string path(const std::string& i_name) const
    {
        return iv_Log + "/" + i_name;
    }

    // A file as if it had been committed with that sequence.
    void addOld(unsigned int i_sequence) const
    {
        std::filesystem::create_directories(iv_Log);
        std::ofstream(path(oldName(i_sequence))) << "old";
    }

    static std::string oldName(unsigned int i_sequence)
    {
        char l_name[64];
        snprintf(l_name, sizeof(l_name), "entry.%016u.1.1", i_sequence);
        return l_name;
    }

    // The first value of the entry in that file; expects a whole one.
    unsigned int valueIn(const std::string& i_name) const
    {
        const std::string l_content = contentOf(path(i_name));
        ErrorLogEntry l_entry;
        EXPECT_TRUE(l_entry.unflatten(
            l_content.data(), static_cast<unsigned int>(l_content.size())))
            << i_name;
        EXPECT_EQ(l_content.size(), l_entry.flattenedSize()) << i_name;
        return l_entry.value(0);
    }

    static void commitOne(unsigned int i_value)
    {
        ErrorLogEntry l_entry(i_value, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                              0);
        l_entry.commit(1, 2, 3, 4);
    }

    const TempDir iv_Folder;
    const std::string iv_Log = iv_Folder.path("var/log");
};

} // namespace

TEST_F(ErrorLogStoreTest, CommitStoresTheFlatFormWithItsArguments)
{
    ErrorLogEntry l_entry(0x4400, 0, 1, 0xB1, 0, 0x17, 0x43FF, 0x4424, 110, 0,
                          0, 0, 0x81, 0, 0xF0);
    EXPECT_FALSE(l_entry.isCommitted());
    l_entry.commit(0x4400, 0x4000, 0xFF, 7);
    EXPECT_TRUE(l_entry.isCommitted());
    ASSERT_EQ(1U, names().size());
    const std::string l_content = contentOf(path(names()[0]));
    std::string l_flat(l_entry.flattenedSize(), ' ');
    l_entry.flatten(l_flat.data(), l_entry.flattenedSize());
    EXPECT_EQ(l_flat, l_content);

    ErrorLogEntry l_read;
    ASSERT_TRUE(l_read.unflatten(l_content.data(),
                                 static_cast<unsigned int>(l_content.size())));
    EXPECT_TRUE(l_read.isCommitted());
    EXPECT_EQ(0x4400U, l_read.commitValue(0));
    EXPECT_EQ(0x4000U, l_read.commitValue(1));
    EXPECT_EQ(0xFFU, l_read.commitValue(2));
    EXPECT_EQ(7U, l_read.commitValue(3));
    EXPECT_EQ(0x4424U, l_read.value(7));
}

TEST_F(ErrorLogStoreTest, NamesAreInTheOrderOfCommits)
{
    for (unsigned int l_value = 0; l_value != 12; ++l_value)
    {
        commitOne(l_value);
    }
    const auto l_names = names();
    ASSERT_EQ(12U, l_names.size());
    EXPECT_EQ(0U, l_names[0].find("entry.0000000000000001."));
    for (unsigned int l_value = 0; l_value != 12; ++l_value)
    {
        EXPECT_EQ(l_value, valueIn(l_names[l_value]));
    }
}

TEST_F(ErrorLogStoreTest, MissingFoldersAreMadeAndOthersCannotReadTheFile)
{
    umask(0); // as a daemon has it
    commitOne(1);
    ASSERT_EQ(1U, names().size());
    struct stat l_stat = {};
    ASSERT_EQ(0, stat(path(names()[0]).c_str(), &l_stat));
    EXPECT_EQ(0600U, l_stat.st_mode & 07777);
    ASSERT_EQ(0, stat(iv_Log.c_str(), &l_stat));
    EXPECT_EQ(0755U, l_stat.st_mode & 07777);
}

TEST_F(ErrorLogStoreTest, OneLineGoesToTheSystemLogWithoutAnIdentity)
{
    g_recordCalls = true;
    ErrorLogEntry l_entry(0x4400, 0, 1, 0xB1, 0, 0x17, 0x43FF, 0x4424, 110, 0,
                          0, 0, 0x81, 0, 0xF0);
    l_entry.setSev(9);
    l_entry.commit(0x4400, 0, 0xFF, 0);
    EXPECT_EQ(LOG_DAEMON | LOG_ERR, g_logPriority);
    EXPECT_EQ("error log: values 4400 0 1 B1 0 17 43FF 4424 6E 0 0 0 81 0 F0, "
              "severity 9, commit 4400 0 FF 0, " +
                  names().at(0),
              g_logLine);
    EXPECT_EQ(0, g_openlogCalls);
}

TEST_F(ErrorLogStoreTest, LargestValuesFitIntoTheLine)
{
    g_recordCalls = true;
    const unsigned int MAX = 0xFFFFFFFF;
    ErrorLogEntry l_entry(MAX, MAX, MAX, MAX, MAX, MAX, MAX, MAX, MAX, MAX, MAX,
                          MAX, MAX, MAX, MAX);
    l_entry.commit(MAX, MAX, MAX, MAX);
    EXPECT_NE(std::string::npos,
              g_logLine.find("values FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF "
                             "FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF "
                             "FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF "
                             "FFFFFFFF, severity"));
}

TEST_F(ErrorLogStoreTest, UnusableFolderIsQuietAndToldToTheSystemLog)
{
    g_recordCalls = true;
    std::ofstream(iv_Folder.path("file")) << "text";
    for (const std::string& l_folder :
         {iv_Folder.path("file"), iv_Folder.path("file/below"),
          std::string("/proc/none/log"), std::string(5000, 'n')})
    {
        setVariable("TOLV_ERRORLOG", l_folder);
        g_logLine.clear();
        errno = EDOM;
        commitOne(1);
        EXPECT_EQ(EDOM, errno);
        EXPECT_NE(std::string::npos, g_logLine.find(", not stored, errno "))
            << g_logLine;
    }
}

TEST_F(ErrorLogStoreTest, EntryIsSafeBeforeTheOldestIsDropped)
{
    for (unsigned int l_old = 1; l_old <= tolvhost::MAX_LOG_ENTRIES; ++l_old)
    {
        addOld(l_old);
    }
    g_recordCalls = true;
    commitOne(1);
    std::vector<Call> l_calls = g_calls;
    l_calls.erase(std::unique(l_calls.begin(), l_calls.end()), l_calls.end());
    EXPECT_EQ((std::vector<Call>{Call::WRITE, Call::SYNC_FILE, Call::RENAME,
                                 Call::SYNC_FOLDER, Call::REMOVE}),
              l_calls);
    EXPECT_LT(4U, g_calls.size()) << "short writes go on";
}

TEST_F(ErrorLogStoreTest, FoldersThatAreMadeAreSyncedIntoTheirParents)
{
    g_recordCalls = true;
    commitOne(1);
    const std::string l_top = std::filesystem::canonical(iv_Folder.path());
    EXPECT_EQ(
        (std::vector<std::string>{l_top, l_top + "/var", l_top + "/var/log"}),
        g_syncedFolders);
    ASSERT_LE(2U, g_calls.size());
    EXPECT_EQ(Call::SYNC_FOLDER, g_calls[1]) << "before the entry is written";
}

TEST_F(ErrorLogStoreTest, FailedStepLeavesNothingAndErrnoAlone)
{
    commitOne(1);
    for (const Call l_call : {Call::WRITE, Call::SYNC_FILE, Call::RENAME})
    {
        g_failing = l_call;
        errno = EDOM;
        commitOne(2);
        EXPECT_EQ(EDOM, errno);
        ASSERT_EQ(1U, names().size());
        EXPECT_EQ(1U, valueIn(names()[0]));
    }
    g_failing = Call::NONE;
    commitOne(3);
    ASSERT_EQ(2U, names().size());
    EXPECT_EQ(3U, valueIn(names()[1]));
}

TEST_F(ErrorLogStoreTest, LimitOfFileSizesStoresNothingAndEndsNoProcess)
{
    const pid_t l_child = startChild(
        []
        {
            g_recordCalls = true;
            rlimit l_limit = {};
            EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &l_limit));
            l_limit.rlim_cur = ErrorLogEntry().flattenedSize() - 1;
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &l_limit));
            commitOne(1);
            EXPECT_NE(std::string::npos, g_logLine.find(", not stored, errno " +
                                                        std::to_string(EFBIG)))
                << g_logLine;
            l_limit.rlim_cur += 1;
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &l_limit));
            commitOne(2);
        });
    EXPECT_EQ(0, waitForChild(l_child));
    ASSERT_EQ(1U, names().size());
    EXPECT_EQ(2U, valueIn(names()[0]));
}

TEST_F(ErrorLogStoreTest, OldestIsDroppedWhenTheLogIsFull)
{
    for (unsigned int l_old = 1; l_old <= tolvhost::MAX_LOG_ENTRIES; ++l_old)
    {
        addOld(l_old);
    }
    commitOne(1);
    const auto l_names = names();
    ASSERT_EQ(tolvhost::MAX_LOG_ENTRIES, l_names.size());
    EXPECT_EQ(oldName(2), l_names.front());
    EXPECT_EQ(0U, l_names.back().find("entry.0000000000000257."));
    EXPECT_EQ(1U, valueIn(l_names.back()));
}

TEST_F(ErrorLogStoreTest, OverfullLogShrinks)
{
    for (unsigned int l_old = 1; l_old <= tolvhost::MAX_LOG_ENTRIES + 10;
         ++l_old)
    {
        addOld(l_old);
    }
    commitOne(1);
    EXPECT_EQ(tolvhost::MAX_LOG_ENTRIES + 3, names().size());
    commitOne(2);
    EXPECT_EQ(tolvhost::MAX_LOG_ENTRIES, names().size());
    EXPECT_EQ(oldName(13), names().front());
}

TEST_F(ErrorLogStoreTest, ForeignFilesStayAndAreNotCounted)
{
    addOld(41);
    const std::string FOREIGN[] = {"notes",
                                   "entry.1.1.1",
                                   "entry.00000000000000000001.1.1",
                                   "entry.000000000000000x.1.1",
                                   "entry.0000000000000099",
                                   "new.",
                                   "new.x.1",
                                   "new.99999999999999999999.1",
                                   "new." + std::to_string(getppid()) + ".1"};
    for (const std::string& l_name : FOREIGN)
    {
        std::ofstream(path(l_name)) << "text";
    }
    commitOne(1);
    const auto l_names = names();
    EXPECT_EQ(std::size(FOREIGN) + 2, l_names.size());
    EXPECT_TRUE(
        std::any_of(l_names.begin(), l_names.end(),
                    [](const std::string& i_name)
                    { return i_name.find("entry.0000000000000042.") == 0; }));
}

TEST_F(ErrorLogStoreTest, LastSequenceIsUsedAgain)
{
    addOld(1);
    std::filesystem::rename(path(oldName(1)),
                            path("entry.9999999999999999.1.1"));
    commitOne(1);
    ASSERT_EQ(2U, names().size());
    EXPECT_EQ(0U, names()[1].find("entry.9999999999999999."));
}

TEST_F(ErrorLogStoreTest, LinkAtTheNameToBeWrittenIsNotFollowed)
{
    addOld(1);
    std::ofstream(iv_Folder.path("victim")) << "untouched";
    for (int l_count = 1; l_count != 100; ++l_count)
    {
        std::filesystem::create_symlink(iv_Folder.path("victim"),
                                        path("new." + std::to_string(getpid()) +
                                             "." + std::to_string(l_count)));
    }
    commitOne(5);
    EXPECT_EQ("untouched", contentOf(iv_Folder.path("victim")));
    EXPECT_EQ(5U, valueIn(names()[1]));
    EXPECT_FALSE(std::filesystem::is_symlink(path(names()[1])));
}

TEST_F(ErrorLogStoreTest, KilledWriterLeavesTheOldOrTheNewState)
{
    commitOne(1);
    const struct
    {
        Call before;
        Call after;
        std::size_t entries;
    } DEATHS[] = {
        {Call::WRITE, Call::NONE, 1},       {Call::NONE, Call::WRITE, 1},
        {Call::SYNC_FILE, Call::NONE, 1},   {Call::NONE, Call::SYNC_FILE, 1},
        {Call::RENAME, Call::NONE, 1},      {Call::NONE, Call::RENAME, 2},
        {Call::SYNC_FOLDER, Call::NONE, 3}, {Call::NONE, Call::SYNC_FOLDER, 4}};
    for (const auto& l_death : DEATHS)
    {
        const pid_t l_child = startChild(
            [&l_death]
            {
                g_deadlyBefore = l_death.before;
                g_deadlyAfter = l_death.after;
                commitOne(2);
            });
        EXPECT_TRUE(WIFSIGNALED(waitForChild(l_child)));
        EXPECT_EQ(l_death.entries, wholeEntries());
    }
    commitOne(3);
    EXPECT_EQ(5U, names().size()) << "what the dead were writing is removed";
}

TEST_F(ErrorLogStoreTest, WriterKilledAtAnyMomentLeavesOnlyWholeEntries)
{
    for (unsigned int l_round = 1; l_round != 6; ++l_round)
    {
        const std::size_t l_before = wholeEntries();
        const pid_t l_child = startChild(
            []
            {
                for (;;)
                {
                    commitOne(1);
                }
            });
        EXPECT_TRUE(
            waitFor([&] { return wholeEntries() >= l_before + l_round; }));
        killChild(l_child);
        EXPECT_LE(l_before + l_round, wholeEntries());
        commitOne(1);
        EXPECT_EQ(wholeEntries(), names().size());
    }
}

TEST_F(ErrorLogStoreTest, ProcessesAndThreadsCommitAtOnce)
{
    constexpr unsigned int EACH = 10;
    const auto l_commit = [](unsigned int i_first)
    {
        for (unsigned int l_value = 0; l_value != EACH; ++l_value)
        {
            commitOne(i_first + l_value);
        }
    };
    std::vector<pid_t> l_children;
    for (unsigned int l_child = 0; l_child != 4; ++l_child)
    {
        l_children.push_back(startChild([&] { l_commit(l_child * EACH); }));
    }
    std::vector<std::thread> l_threads;
    for (unsigned int l_thread = 4; l_thread != 8; ++l_thread)
    {
        l_threads.emplace_back(l_commit, l_thread * EACH);
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
    for (const pid_t l_child : l_children)
    {
        EXPECT_EQ(0, waitForChild(l_child));
    }
    const auto l_names = names();
    std::vector<unsigned int> l_values(l_names.size());
    std::transform(l_names.begin(), l_names.end(), l_values.begin(),
                   [this](const std::string& i_name)
                   { return valueIn(i_name); });
    std::sort(l_values.begin(), l_values.end());
    ASSERT_EQ(8 * EACH, l_values.size());
    for (unsigned int l_value = 0; l_value != 8 * EACH; ++l_value)
    {
        EXPECT_EQ(l_value, l_values[l_value]);
    }
}

TEST_F(ErrorLogStoreTest, WritersThatDropAtOnceLeaveAFullLogOfTheNewest)
{
    constexpr unsigned int OLD = tolvhost::MAX_LOG_ENTRIES - 5;
    for (unsigned int l_old = 1; l_old <= OLD; ++l_old)
    {
        addOld(l_old);
    }
    std::vector<pid_t> l_children;
    for (int l_child = 0; l_child != 4; ++l_child)
    {
        l_children.push_back(startChild(
            []
            {
                for (int l_round = 0; l_round != 10; ++l_round)
                {
                    commitOne(1);
                }
            }));
    }
    for (const pid_t l_child : l_children)
    {
        EXPECT_EQ(0, waitForChild(l_child));
    }
    const auto l_names = names();
    EXPECT_EQ(tolvhost::MAX_LOG_ENTRIES, l_names.size());
    EXPECT_EQ(oldName(OLD + 40 - tolvhost::MAX_LOG_ENTRIES + 1),
              l_names.front());
}

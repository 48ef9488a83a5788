#include "tolv/platform/platformFile.hpp"

#include "support/childProcess.hpp"
#include "support/tempDir.hpp"
#include "tolv/platform/errorLogEntry.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>

// How many requests for memory still succeed.
unsigned int g_requestsLeft = UINT_MAX;

// The platform asks for memory in this way only.
void* operator new(std::size_t i_size, const std::nothrow_t& /*i_tag*/) noexcept
{
    return g_requestsLeft == 0 ? nullptr
                               : (--g_requestsLeft, ::operator new(i_size));
}

void* operator new[](std::size_t i_size,
                     const std::nothrow_t& /*i_tag*/) noexcept
{
    return g_requestsLeft == 0 ? nullptr
                               : (--g_requestsLeft, ::operator new[](i_size));
}

namespace
{

std::unique_ptr<ErrorLogEntry> taken(PlatformFile& io_file)
{
    return std::unique_ptr<ErrorLogEntry>(io_file.takeError());
}

void expectError(PlatformFile& io_file, unsigned int i_reason, int i_errno)
{
    const auto l_entry = taken(io_file);
    ASSERT_NE(nullptr, l_entry);
    EXPECT_EQ(i_reason, l_entry->value(7));
    EXPECT_EQ(static_cast<unsigned int>(i_errno), l_entry->value(8));
    EXPECT_EQ(nullptr, taken(io_file)) << "handed over twice";
}

class PlatformFileTest : public testing::Test
{
  protected:
    void write(const std::string& i_text)
    {
        std::ofstream(iv_Path) << i_text;
    }

    std::string content() const
    {
        std::ifstream l_file(iv_Path);
        return {std::istreambuf_iterator<char>(l_file), {}};
    }

    const TempDir iv_Folder;
    const std::string iv_Path = iv_Folder.path("file");
};

// Descriptors that are open now.
long openDescriptors()
{
    const std::filesystem::directory_iterator l_all("/proc/self/fd");
    return std::distance(l_all, std::filesystem::directory_iterator());
}

} // namespace

TEST_F(PlatformFileTest, ReadReturnsTheBytesRead)
{
    write("\x01\x02\x03\x04");
    PlatformFile l_file(iv_Path.c_str());
    char l_buffer[4] = {};
    l_file.Open("r", false);
    EXPECT_EQ(nullptr, taken(l_file));
    EXPECT_EQ(3U, l_file.read(l_buffer, 3));
    EXPECT_EQ(std::string("\x01\x02\x03\0", 4), std::string(l_buffer, 4));
    EXPECT_EQ(1U, l_file.read(l_buffer, 4));
    EXPECT_EQ(4, l_buffer[0]);
    EXPECT_EQ(0U, l_file.read(l_buffer, 4));
    l_file.Close();
    EXPECT_EQ(nullptr, taken(l_file)) << "the end of the file is no failure";
}

TEST_F(PlatformFileTest, ReadGoesOnUntilTheCountIsThere)
{
    int l_pipe[2] = {-1, -1};
    ASSERT_EQ(0, pipe(l_pipe));
    const std::string l_path = "/dev/fd/" + std::to_string(l_pipe[0]);
    PlatformFile l_file(l_path.c_str());
    l_file.Open("r", false);
    ASSERT_EQ(nullptr, taken(l_file));
    const pid_t l_writer = startChild(
        [&l_pipe]
        {
            // The second half only goes in when the first is taken out.
            const std::string l_half(65536, 'x');
            EXPECT_EQ(65536, ::write(l_pipe[1], l_half.data(), 65536));
            EXPECT_EQ(65536, ::write(l_pipe[1], l_half.data(), 65536));
        });
    std::string l_buffer(131072, ' ');
    EXPECT_EQ(131072U, l_file.read(l_buffer.data(), 131072));
    EXPECT_EQ(std::string(131072, 'x'), l_buffer);
    close(l_pipe[0]);
    close(l_pipe[1]);
    EXPECT_EQ(0, waitForChild(l_writer));
}

TEST_F(PlatformFileTest, MissingFileLeavesAnEntry)
{
    PlatformFile l_file(iv_Path.c_str());
    EXPECT_EQ(nullptr, taken(l_file));
    l_file.Open("r", false);
    expectError(l_file, PlatformFile::REASON_OPEN, ENOENT);
}

TEST_F(PlatformFileTest, NullAndEmptyPathsLeaveAnEntry)
{
    for (const char* l_path : {static_cast<const char*>(nullptr), ""})
    {
        PlatformFile l_file(l_path);
        l_file.Open("r", false);
        expectError(l_file, PlatformFile::REASON_OPEN, ENOENT);
    }
}

TEST_F(PlatformFileTest, FailedReadLeavesAnEntry)
{
    PlatformFile l_file(iv_Folder.path().c_str());
    l_file.Open("r", false);
    char l_byte = 0;
    EXPECT_EQ(0U, l_file.read(&l_byte, 1));
    expectError(l_file, PlatformFile::REASON_READ, EISDIR);
}

TEST_F(PlatformFileTest, OperationsOnAFileThatIsNotOpenLeaveAnEntry)
{
    write("text");
    PlatformFile l_file(iv_Path.c_str());
    char l_byte = 0;
    EXPECT_EQ(0U, l_file.read(&l_byte, 1));
    expectError(l_file, PlatformFile::REASON_READ, EBADF);
    l_file.Close();
    expectError(l_file, PlatformFile::REASON_CLOSE, EBADF);
    l_file.Open("r", false);
    l_file.Close();
    EXPECT_EQ(nullptr, taken(l_file));
    l_file.Close();
    expectError(l_file, PlatformFile::REASON_CLOSE, EBADF);
}

TEST_F(PlatformFileTest, EarliestFailureIsTheOneKept)
{
    PlatformFile l_file(iv_Path.c_str());
    l_file.Open("r", false);
    char l_byte = 0;
    l_file.read(&l_byte, 1);
    l_file.Close();
    expectError(l_file, PlatformFile::REASON_OPEN, ENOENT);
}

TEST_F(PlatformFileTest, SecondOpenFailsAndLeavesTheFileOpen)
{
    write("text");
    PlatformFile l_file(iv_Path.c_str());
    l_file.Open("r", false);
    l_file.Open("w", false);
    expectError(l_file, PlatformFile::REASON_OPEN, EBUSY);
    char l_byte = 0;
    EXPECT_EQ(1U, l_file.read(&l_byte, 1));
    EXPECT_EQ('t', l_byte);
}

TEST_F(PlatformFileTest, UnknownModesAreRefused)
{
    write("text");
    for (const char* l_mode : {static_cast<const char*>(nullptr), "", "q", "rw",
                               "r ", "+", "R", "rb+z"})
    {
        PlatformFile l_file(iv_Path.c_str());
        l_file.Open(l_mode, false);
        expectError(l_file, PlatformFile::REASON_OPEN, EINVAL);
    }
    EXPECT_EQ("text", content());
}

TEST_F(PlatformFileTest, ModesDoWhatTheyDoForFopen)
{
    write("text");
    char l_byte = 0;
    for (const char* l_mode : {"r", "rb", "r+", "rb+", "r+b", "re", "a+"})
    {
        PlatformFile l_file(iv_Path.c_str());
        l_file.Open(l_mode, true);
        EXPECT_EQ(1U, l_file.read(&l_byte, 1)) << l_mode;
        EXPECT_EQ(nullptr, taken(l_file)) << l_mode;
    }
    {
        PlatformFile l_file(iv_Path.c_str());
        l_file.Open("a", false);
        EXPECT_EQ(0U, l_file.read(&l_byte, 1));
        expectError(l_file, PlatformFile::REASON_READ, EBADF);
        EXPECT_EQ("text", content());
    }
    {
        PlatformFile l_file(iv_Path.c_str());
        l_file.Open("wx", false);
        expectError(l_file, PlatformFile::REASON_OPEN, EEXIST);
        EXPECT_EQ("text", content());
        l_file.Open("w+", false);
        EXPECT_EQ(0U, l_file.read(&l_byte, 1));
        EXPECT_EQ(nullptr, taken(l_file));
        EXPECT_EQ("", content());
    }
}

TEST_F(PlatformFileTest, DescriptorIsClosedOnExecAndAtTheEnd)
{
    write("text");
    const long l_before = openDescriptors();
    {
        const int l_next = dup(0);
        close(l_next);
        PlatformFile l_file(iv_Path.c_str());
        l_file.Open("r", false);
        EXPECT_EQ(FD_CLOEXEC, fcntl(l_next, F_GETFD));
        EXPECT_EQ(l_before + 1, openDescriptors());
    }
    EXPECT_EQ(l_before, openDescriptors());
}

TEST_F(PlatformFileTest, FileThatFoundNoMemoryFailsWithAnEntry)
{
    write("text");
    for (const unsigned int l_requests : {0U, 1U})
    {
        g_requestsLeft = l_requests;
        PlatformFile l_file(iv_Path.c_str());
        EXPECT_EQ(0U, g_requestsLeft);
        g_requestsLeft = UINT_MAX;
        l_file.Open("r", false);
        char l_byte = 0;
        EXPECT_EQ(0U, l_file.read(&l_byte, 1));
        l_file.Close();
        const auto l_entry = taken(l_file);
        ASSERT_NE(nullptr, l_entry);
        EXPECT_EQ(PlatformFile::REASON_OPEN, l_entry->value(7));
        EXPECT_EQ(static_cast<unsigned int>(ENOMEM), l_entry->value(8));
    }
}

TEST_F(PlatformFileTest, FailureWithoutMemoryForItsEntryIsSurvived)
{
    PlatformFile l_file(iv_Path.c_str());
    g_requestsLeft = 0;
    l_file.Open("r", false);
    g_requestsLeft = UINT_MAX;
    EXPECT_EQ(nullptr, taken(l_file));
    char l_byte = 0;
    EXPECT_EQ(0U, l_file.read(&l_byte, 1));
    expectError(l_file, PlatformFile::REASON_READ, EBADF);
}

TEST_F(PlatformFileTest, ReasonsKeepTheirValues)
{
    EXPECT_EQ(0x0101, PlatformFile::REASON_OPEN);
    EXPECT_EQ(0x0102, PlatformFile::REASON_READ);
    EXPECT_EQ(0x0103, PlatformFile::REASON_CLOSE);
}

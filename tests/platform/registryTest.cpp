#include "tolv/platform/registry.hpp"

#include "support/environment.hpp"
#include "support/tempDir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include <filesystem>
#include <fstream>
#include <string>

// What the platform opened last.
std::string g_openedPath;

// open() as the platform is compiled.
extern "C" int __real_open64(const char* i_path, int i_flags, ...);
extern "C" int __wrap_open64(const char* i_path, int i_flags, ...);

int __wrap_open64(const char* i_path, int i_flags, ...)
{
    g_openedPath = i_path;
    return __real_open64(i_path, i_flags);
}

namespace
{

class RegistryTest : public testing::Test
{
  protected:
    RegistryTest()
    {
        setVariable("TOLV_REGISTRY", iv_Folder.path());
        std::filesystem::create_directory(iv_Folder.path("dscv"));
    }

    void write(const std::string& i_key, const std::string& i_text)
    {
        std::ofstream(iv_Folder.path(i_key)) << i_text;
    }

    // Expects that the value dscv/Value cannot be read from the text.
    void expectRefused(const std::string& i_text, unsigned int i_size,
                       int i_errno)
    {
        SCOPED_TRACE(i_text);
        write("dscv/Value", i_text);
        expectRefusedKey("dscv/Value", i_size, i_errno);
    }

    void expectRefusedKey(const char* i_key, unsigned int i_size, int i_errno)
    {
        unsigned char l_buffer[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        errno = 0;
        EXPECT_EQ(-1, RegistryRead(i_key, l_buffer, i_size, 0));
        EXPECT_EQ(i_errno, errno);
        for (unsigned char l_index = 0; l_index != 9; ++l_index)
        {
            EXPECT_EQ(l_index + 1, l_buffer[l_index]);
        }
    }

    template <class T>
    T read(const std::string& i_text)
    {
        write("dscv/Value", i_text);
        T l_value[2] = {T(77), T(78)};
        EXPECT_EQ(0, RegistryRead("dscv/Value", l_value, sizeof(T), 0));
        EXPECT_EQ(T(78), l_value[1]) << "written beyond the value";
        return l_value[0];
    }

    const TempDir iv_Folder;
};

} // namespace

TEST_F(RegistryTest, KeyIsThePathOfAFileBelowTheFolder)
{
    write("dscv/VexPosition", "3\n");
    unsigned char l_byte = 0;
    EXPECT_EQ(0, RegistryRead("dscv/VexPosition", &l_byte, 1, 0));
    EXPECT_EQ(3, l_byte);
}

TEST_F(RegistryTest, DecimalIsRead)
{
    EXPECT_EQ(0U, read<std::uint8_t>("0"));
    EXPECT_EQ(200U, read<std::uint8_t>("200"));
    EXPECT_EQ(10U, read<std::uint8_t>("010")) << "no octal numbers";
}

TEST_F(RegistryTest, HexadecimalIsRead)
{
    EXPECT_EQ(0xFEU, read<std::uint8_t>("0xFe"));
    EXPECT_EQ(0xABCDEFU, read<std::uint32_t>("0XabcDEF"));
}

TEST_F(RegistryTest, WhiteSpaceAroundTheValueIsSkipped)
{
    EXPECT_EQ(7U, read<std::uint8_t>(" \t\r\n\v\f7 \t\r\n\v\f"));
}

TEST_F(RegistryTest, EverySizeHoldsItsLargestValue)
{
    EXPECT_EQ(0xFFU, read<std::uint8_t>("255"));
    EXPECT_EQ(0xFFFFU, read<std::uint16_t>("65535"));
    EXPECT_EQ(0xFFFFFFFFU, read<std::uint32_t>("4294967295"));
    EXPECT_EQ(UINT64_MAX, read<std::uint64_t>("18446744073709551615"));
    EXPECT_EQ(UINT64_MAX, read<std::uint64_t>("0xFFFFFFFFFFFFFFFF"));
}

TEST_F(RegistryTest, ValueBeyondItsSizeIsRefused)
{
    expectRefused("256", 1, ERANGE);
    expectRefused("0x100", 1, ERANGE);
    expectRefused("65536", 2, ERANGE);
    expectRefused("4294967296", 4, ERANGE);
    expectRefused("18446744073709551616", 8, ERANGE);
    expectRefused("0x10000000000000000", 8, ERANGE);
}

TEST_F(RegistryTest, AnythingButANumberIsRefused)
{
    for (const char* l_text : {"", " ", "\n", "-1", "+1", "x", "0x", "0xG",
                               "1x", "1 2", "A", "1.0", "0x-1", "\xFF"})
    {
        expectRefused(l_text, 4, EINVAL);
    }
    expectRefused(std::string("1\0", 2), 4, EINVAL);
    expectRefused(std::string("1\0002", 3), 4, EINVAL);
}

TEST_F(RegistryTest, TextOf128BytesIsReadAndALongerOneRefused)
{
    EXPECT_EQ(5U, read<std::uint8_t>(std::string(127, ' ') + "5"));
    expectRefused(std::string(128, ' ') + "5", 1, EINVAL);
}

TEST_F(RegistryTest, OtherSizesAreRefused)
{
    for (const unsigned int l_size : {0U, 3U, 5U, 6U, 7U, 9U, 0xFFFFFFFFU})
    {
        expectRefused("1", l_size, EINVAL);
    }
}

TEST_F(RegistryTest, KeyThatLeavesTheFolderIsRefused)
{
    write("Outside", "1");
    setVariable("TOLV_REGISTRY", iv_Folder.path("dscv"));
    for (const char* l_key :
         {"../Outside", "..", "a/../../Outside", "a/..", "/etc/hostname", "/",
          "", "..//Outside", "a//../b"})
    {
        SCOPED_TRACE(l_key);
        expectRefusedKey(l_key, 1, EINVAL);
    }
    expectRefusedKey(nullptr, 1, EINVAL);
}

TEST_F(RegistryTest, DotsInsideANameAreNoWayUp)
{
    write("..a", "1");
    write("a..", "2");
    unsigned char l_byte = 0;
    EXPECT_EQ(0, RegistryRead("..a", &l_byte, 1, 0));
    EXPECT_EQ(1, l_byte);
    EXPECT_EQ(0, RegistryRead("a..", &l_byte, 1, 0));
    EXPECT_EQ(2, l_byte);
}

TEST_F(RegistryTest, MissingFileOrFolderIsReported)
{
    expectRefusedKey("dscv/None", 1, ENOENT);
    setVariable("TOLV_REGISTRY", iv_Folder.path("none"));
    expectRefusedKey("dscv/Value", 1, ENOENT);
}

TEST_F(RegistryTest, AnythingButAFileIsRefusedWithoutWaiting)
{
    expectRefusedKey("dscv", 1, EINVAL);
    ASSERT_EQ(0, mkfifo(iv_Folder.path("fifo").c_str(), 0600));
    expectRefusedKey("fifo", 1, EINVAL);
}

TEST_F(RegistryTest, OverlongKeyIsRefused)
{
    expectRefusedKey(std::string(5000, 'k').c_str(), 1, ENAMETOOLONG);
}

TEST_F(RegistryTest, NullBufferIsRefused)
{
    write("dscv/Value", "1");
    errno = 0;
    EXPECT_EQ(-1, RegistryRead("dscv/Value", nullptr, 1, 0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(RegistryTest, SuccessLeavesErrnoAlone)
{
    write("dscv/Value", "1");
    unsigned char l_byte = 0;
    errno = EDOM;
    EXPECT_EQ(0, RegistryRead("dscv/Value", &l_byte, 1, 0));
    EXPECT_EQ(EDOM, errno);
}

TEST_F(RegistryTest, UnsetOrEmptyVariableMeansTheDefaultFolder)
{
    unsigned char l_byte = 0;
    setVariable("TOLV_REGISTRY", "");
    RegistryRead("dscv/VexRole", &l_byte, 1, 0);
    EXPECT_EQ("/etc/tolv/registry/dscv/VexRole", g_openedPath);
    g_openedPath.clear();
    unsetVariable("TOLV_REGISTRY");
    RegistryRead("dscv/VexRole", &l_byte, 1, 0);
    EXPECT_EQ("/etc/tolv/registry/dscv/VexRole", g_openedPath);
}

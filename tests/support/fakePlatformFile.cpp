#include "support/fakePlatformFile.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/platformFile.hpp"

#include <algorithm>
#include <cstring>

namespace
{

bool g_failed = false;

void record(const std::string& i_operation, const std::string& i_arguments)
{
    fakePlatformFile::g_Calls.push_back(i_operation + " " + i_arguments);
    g_failed = i_operation == fakePlatformFile::g_Failing;
}

} // namespace

namespace fakePlatformFile
{

std::string g_Content;
std::string g_Failing;
std::vector<std::string> g_Calls;

} // namespace fakePlatformFile

PlatformFile::PlatformFile(const char* i_path) : iv_Data(nullptr)
{
    record("PlatformFile", i_path);
}

PlatformFile::~PlatformFile() = default;

void PlatformFile::Open(const char* i_mode, bool i_flag)
{
    record("Open", std::string(i_mode) + (i_flag ? " true" : " false"));
}

// A failed read has read something all the same.
unsigned int PlatformFile::read(void* o_buffer, unsigned int i_count)
{
    record("read", std::to_string(i_count));
    const std::size_t l_count =
        std::min<std::size_t>(i_count, fakePlatformFile::g_Content.size());
    std::memcpy(o_buffer, fakePlatformFile::g_Content.data(), l_count);
    return static_cast<unsigned int>(l_count);
}

void PlatformFile::Close()
{
    record("Close", "");
}

ErrorLogEntry* PlatformFile::takeError()
{
    ErrorLogEntry* l_entry = g_failed ? new ErrorLogEntry : nullptr;
    g_failed = false;
    return l_entry;
}

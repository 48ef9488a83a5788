// A platform with one service, the registry: what a port supplies at least.
// The others answer as a platform without them does.
#include <tolv/platform/errorLogEntry.hpp>
#include <tolv/platform/platformFile.hpp>
#include <tolv/platform/processSetup.hpp>
#include <tolv/platform/registry.hpp>
#include <tolv/platform/traceBuffer.hpp>

#include <cerrno>
#include <cstring>

int RegistryRead(const char* i_key, void* o_buffer, unsigned int i_size,
                 int /*i_flags*/)
{
    const unsigned char l_role = 42;
    if (i_size != sizeof(l_role) || std::strcmp(i_key, "dscv/VexRole") != 0)
    {
        errno = ENOENT;
        return -1;
    }
    std::memcpy(o_buffer, &l_role, sizeof(l_role));
    return 0;
}

int TraceBufferInit(int* /*o_descriptor*/, const char* /*i_name*/,
                    unsigned int /*i_size*/)
{
    errno = ENOSYS;
    return -1;
}

int TraceBufferReadDiff(const char* /*i_name*/, unsigned int /*i_size*/,
                        void* /*o_buffer*/)
{
    errno = ENOSYS;
    return -1;
}

int PlatformProcessSetup(void* /*i_argument*/, bool /*i_flag*/)
{
    return 0;
}

ErrorLogEntry::ErrorLogEntry() : iv_Data(nullptr) {}

ErrorLogEntry::ErrorLogEntry(unsigned int, unsigned int, unsigned int,
                             unsigned int, unsigned int, unsigned int,
                             unsigned int, unsigned int, unsigned int,
                             unsigned int, unsigned int, unsigned int,
                             unsigned int, unsigned int, unsigned int) :
    iv_Data(nullptr)
{
}

ErrorLogEntry::~ErrorLogEntry() = default;

void ErrorLogEntry::AddTrace(const char* /*i_component*/,
                             unsigned int /*i_bytes*/)
{
}

void ErrorLogEntry::setSev(unsigned int /*i_severity*/) {}

void ErrorLogEntry::commit(unsigned int, unsigned int, unsigned int,
                           unsigned int)
{
}

unsigned int ErrorLogEntry::flattenedSize() const
{
    return 0;
}

unsigned int ErrorLogEntry::flatten(void* /*o_buffer*/,
                                    unsigned int /*i_room*/) const
{
    return 0;
}

bool ErrorLogEntry::unflatten(const void* /*i_buffer*/, unsigned int /*i_room*/)
{
    return true;
}

PlatformFile::PlatformFile(const char* /*i_path*/) : iv_Data(nullptr) {}

PlatformFile::~PlatformFile() = default;

void PlatformFile::Open(const char* /*i_mode*/, bool /*i_flag*/) {}

unsigned int PlatformFile::read(void* /*o_buffer*/, unsigned int /*i_count*/)
{
    return 0;
}

void PlatformFile::Close() {}

ErrorLogEntry* PlatformFile::takeError()
{
    return nullptr;
}

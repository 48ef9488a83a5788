#include "tolv/platform/registry.hpp"

#include "tolv/platform/host/hostDescriptor.hpp"
#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostNumber.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

using tolvhost::Descriptor;
using tolvhost::failed;

namespace
{

constexpr char FOLDER_VARIABLE[] = "TOLV_REGISTRY";
constexpr char DEFAULT_FOLDER[] = "/etc/tolv/registry";

// Room for a value's text: a file with more is none of the registry.
constexpr std::size_t MAX_TEXT = 128;

constexpr char WHITE_SPACE[] = " \t\n\v\f\r";

// A key names a file below the folder, never beside it.
bool isKey(const char* i_key)
{
    if (i_key == nullptr || *i_key == '\0' || *i_key == '/')
    {
        return false;
    }
    while (*i_key != '\0')
    {
        const std::size_t l_length = std::strcspn(i_key, "/");
        if (l_length == 2 && std::strncmp(i_key, "..", 2) == 0)
        {
            return false;
        }
        i_key += l_length;
        i_key += std::strspn(i_key, "/");
    }
    return true;
}

// False with errno when there is no such file or it holds too much.
bool readText(const char* i_key, char (&o_text)[MAX_TEXT + 1])
{
    char l_path[PATH_MAX];
    const int l_length =
        snprintf(l_path, sizeof(l_path), "%s/%s",
                 tolvhost::folderFrom(FOLDER_VARIABLE, DEFAULT_FOLDER), i_key);
    if (l_length < 0 || static_cast<std::size_t>(l_length) >= sizeof(l_path))
    {
        return failed(ENAMETOOLONG);
    }
    // Opening anything else than a file may block or do harm.
    const Descriptor l_file(
        open(l_path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat l_stat = {};
    if (!l_file || fstat(l_file.get(), &l_stat) == -1)
    {
        return false;
    }
    if (!S_ISREG(l_stat.st_mode))
    {
        return failed(EINVAL);
    }
    std::size_t l_size = 0;
    if (!tolvhost::readAll(l_file.get(), o_text, sizeof(o_text), l_size))
    {
        return false;
    }
    if (l_size > MAX_TEXT || std::memchr(o_text, '\0', l_size) != nullptr)
    {
        return failed(EINVAL);
    }
    o_text[l_size] = '\0';
    return true;
}

// Decimal, or hexadecimal after 0x; false with errno when the text is no
// number or one above i_max.
bool parse(const char* i_text, std::uint64_t i_max, std::uint64_t& o_value)
{
    i_text += std::strspn(i_text, WHITE_SPACE);
    unsigned int l_base = 10;
    if (i_text[0] == '0' && (i_text[1] == 'x' || i_text[1] == 'X'))
    {
        l_base = 16;
        i_text += 2;
    }
    if (!tolvhost::takeNumber(i_text, l_base, i_max, o_value))
    {
        return false;
    }
    i_text += std::strspn(i_text, WHITE_SPACE);
    return *i_text == '\0' || failed(EINVAL);
}

template <class T>
bool readValue(const char* i_key, void* o_buffer)
{
    char l_text[MAX_TEXT + 1];
    std::uint64_t l_value = 0;
    if (!readText(i_key, l_text) ||
        !parse(l_text, static_cast<T>(~T(0)), l_value))
    {
        return false;
    }
    const T l_stored = static_cast<T>(l_value);
    std::memcpy(o_buffer, &l_stored, sizeof(l_stored));
    return true;
}

bool readSized(const char* i_key, void* o_buffer, unsigned int i_size)
{
    switch (i_size)
    {
    case 1:
        return readValue<std::uint8_t>(i_key, o_buffer);
    case 2:
        return readValue<std::uint16_t>(i_key, o_buffer);
    case 4:
        return readValue<std::uint32_t>(i_key, o_buffer);
    case 8:
        return readValue<std::uint64_t>(i_key, o_buffer);
    default:
        return failed(EINVAL);
    }
}

} // namespace

int RegistryRead(const char* i_key, void* o_buffer, unsigned int i_size,
                 int /*i_flags*/)
{
    const int l_errno = errno;
    if (!isKey(i_key) || o_buffer == nullptr)
    {
        errno = EINVAL;
        return -1;
    }
    if (!readSized(i_key, o_buffer, i_size))
    {
        return -1;
    }
    errno = l_errno;
    return 0;
}

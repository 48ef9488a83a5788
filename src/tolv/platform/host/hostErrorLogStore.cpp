#include "tolv/platform/host/hostErrorLogStore.hpp"

#include "tolv/platform/host/hostDescriptor.hpp"
#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostNumber.hpp"
#include "tolv/platform/host/hostProcess.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <algorithm>
#include <atomic>
#include <memory>

namespace tolvhost
{

namespace
{

constexpr char FOLDER_VARIABLE[] = "TOLV_ERRORLOG";
constexpr char DEFAULT_FOLDER[] = "/var/lib/tolv/errorlog";
constexpr int FOLDER_MODE = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Names in the folder: "entry.SEQUENCE.PID.COUNT" and, while it is written,
// "new.PID.COUNT". The sequence has a fixed width, so that the order of the
// names is that of the entries.
constexpr char ENTRY_PREFIX[] = "entry.";
constexpr char NEW_PREFIX[] = "new.";
constexpr int SEQUENCE_DIGITS = 16;
constexpr std::uint64_t MAX_SEQUENCE = 9999999999999999U;

// Entries that one call drops at most.
constexpr unsigned int MAX_DROPS = 8;

// Makes the names of this process differ from each other.
std::atomic<unsigned int> g_count(0);

struct Listing
{
    unsigned int count = 0;
    std::uint64_t newest = 0; // sequence
    char oldest[LOG_NAME_ROOM] = "";
};

bool hasPrefix(const char* i_name, const char* i_prefix)
{
    return std::strncmp(i_name, i_prefix, std::strlen(i_prefix)) == 0;
}

// False for anything that is no entry of the log.
bool parseSequence(const char* i_name, std::uint64_t& o_sequence)
{
    if (!hasPrefix(i_name, ENTRY_PREFIX) ||
        std::strlen(i_name) >= LOG_NAME_ROOM)
    {
        return false;
    }
    const char* l_digits = i_name + std::strlen(ENTRY_PREFIX);
    const char* l_rest = l_digits;
    return takeNumber(l_rest, 10, MAX_SEQUENCE, o_sequence) &&
           l_rest - l_digits == SEQUENCE_DIGITS && *l_rest == '.';
}

// What a process was writing when it died.
bool isLeftOver(const char* i_name)
{
    if (!hasPrefix(i_name, NEW_PREFIX))
    {
        return false;
    }
    const char* l_rest = i_name + std::strlen(NEW_PREFIX);
    std::uint64_t l_pid = 0;
    std::uint64_t l_count = 0;
    return takeNumber(l_rest, 10, INT_MAX, l_pid) && *l_rest++ == '.' &&
           takeNumber(l_rest, 10, UINT_MAX, l_count) && *l_rest == '\0' &&
           l_pid != 0 && !isRunning(static_cast<pid_t>(l_pid), 0);
}

// Looks at every name of the folder and removes what dead writers left.
bool list(int i_folder, Listing& o_listing)
{
    Descriptor l_fd(openat(i_folder, ".", FOLDER_MODE));
    if (!l_fd)
    {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> l_names(fdopendir(l_fd.get()),
                                                      closedir);
    if (l_names == nullptr)
    {
        return false;
    }
    l_fd.release(); // closedir() closes it

    o_listing = Listing();
    // Nobody else reads this stream.
    // cppcheck-suppress readdirCalled
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent* l_entry = readdir(l_names.get()))
    {
        std::uint64_t l_sequence = 0;
        if (parseSequence(l_entry->d_name, l_sequence))
        {
            if (o_listing.count == 0 ||
                std::strcmp(l_entry->d_name, o_listing.oldest) < 0)
            {
                std::memcpy(o_listing.oldest, l_entry->d_name,
                            std::strlen(l_entry->d_name) + 1);
            }
            o_listing.newest = std::max(o_listing.newest, l_sequence);
            ++o_listing.count;
        }
        else if (isLeftOver(l_entry->d_name))
        {
            unlinkat(i_folder, l_entry->d_name, 0);
        }
    }
    return true;
}

// Makes the folder if it is missing, so that it is there after a crash.
void makeFolder(const char* i_path)
{
    if (mkdir(i_path, 0755) == 0)
    {
        const Descriptor l_folder(open(i_path, FOLDER_MODE));
        const Descriptor l_parent(openat(l_folder.get(), "..", FOLDER_MODE));
        fsync(l_parent.get());
    }
}

// Makes every missing folder of the path; whether that was enough shows when
// the last one is opened.
void makeFolders(const char* i_path)
{
    char l_path[PATH_MAX];
    const std::size_t l_length = std::strlen(i_path);
    if (l_length >= sizeof(l_path))
    {
        return;
    }
    std::memcpy(l_path, i_path, l_length + 1);
    for (char* l_slash = std::strchr(l_path + 1, '/'); l_slash != nullptr;
         l_slash = std::strchr(l_slash + 1, '/'))
    {
        *l_slash = '\0';
        makeFolder(l_path);
        *l_slash = '/';
    }
    makeFolder(l_path);
}

Descriptor openFolder()
{
    const char* l_path = folderFrom(FOLDER_VARIABLE, DEFAULT_FOLDER);
    Descriptor l_folder(open(l_path, FOLDER_MODE));
    if (!l_folder && errno == ENOENT)
    {
        makeFolders(l_path);
        l_folder = Descriptor(open(l_path, FOLDER_MODE));
    }
    return l_folder;
}

// A file of that name can only be what an earlier process with the same
// number left.
Descriptor createNew(int i_folder, const char* i_name)
{
    const int MODE = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor l_file(openat(i_folder, i_name, MODE, 0600));
    if (!l_file && errno == EEXIST && unlinkat(i_folder, i_name, 0) == 0)
    {
        l_file = Descriptor(openat(i_folder, i_name, MODE, 0600));
    }
    return l_file;
}

bool writeSynced(Descriptor i_file, const void* i_bytes, std::size_t i_size)
{
    return writeAll(i_file.get(), i_bytes, i_size) &&
           fsync(i_file.get()) == 0 && i_file.close() == 0;
}

// Several processes may drop at once: each removes only what is the oldest of
// too many, so that never less than the newest MAX_LOG_ENTRIES remain. A folder
// that holds far too many shrinks with every call.
void dropOldest(int i_folder)
{
    Listing l_listing;
    for (unsigned int l_drop = 0; l_drop != MAX_DROPS; ++l_drop)
    {
        if (!list(i_folder, l_listing) || l_listing.count <= MAX_LOG_ENTRIES)
        {
            return;
        }
        unlinkat(i_folder, l_listing.oldest, 0);
    }
}

} // namespace

bool storeLogEntry(const void* i_bytes, std::size_t i_size,
                   char (&o_name)[LOG_NAME_ROOM])
{
    if (!mayGrowTo(i_size))
    {
        return false;
    }
    const Descriptor l_folder = openFolder();
    if (!l_folder)
    {
        return false;
    }
    const int l_pid = getpid();
    const unsigned int l_count = ++g_count;
    char l_temporary[LOG_NAME_ROOM];
    snprintf(l_temporary, sizeof(l_temporary), "%s%d.%u", NEW_PREFIX, l_pid,
             l_count);
    Descriptor l_file = createNew(l_folder.get(), l_temporary);
    if (!l_file)
    {
        return false;
    }

    // Two processes may choose the same sequence; the rest of the name is
    // each one's own.
    Listing l_listing;
    bool l_stored = writeSynced(std::move(l_file), i_bytes, i_size) &&
                    list(l_folder.get(), l_listing);
    if (l_stored)
    {
        snprintf(o_name, sizeof(o_name), "%s%0*" PRIu64 ".%d.%u", ENTRY_PREFIX,
                 SEQUENCE_DIGITS, std::min(l_listing.newest + 1, MAX_SEQUENCE),
                 l_pid, l_count);
        l_stored =
            renameat(l_folder.get(), l_temporary, l_folder.get(), o_name) == 0;
    }
    if (!l_stored)
    {
        const ErrnoKeeper l_keeper;
        unlinkat(l_folder.get(), l_temporary, 0);
        return false;
    }
    // In this order: a crash between the two must not lose both the oldest
    // entry and this one.
    fsync(l_folder.get());
    dropOldest(l_folder.get());
    return true;
}

} // namespace tolvhost

#include "tolv/platform/host/hostTraceSegment.hpp"

#include "tolv/platform/host/hostDescriptor.hpp"
#include "tolv/platform/host/hostErrno.hpp"
#include "tolv/platform/host/hostNumber.hpp"
#include "tolv/platform/host/hostProcess.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>

#include <memory>
#include <new>
#include <utility>

namespace tolvhost
{

namespace
{

constexpr char FOLDER_VARIABLE[] = "TOLV_TRACE_DIR";
constexpr char DEFAULT_FOLDER[] = "/dev/shm";

constexpr char NAME_LETTERS[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";

// Room for the name of a file in the folder, and for what the names of one
// user and program begin with, the NUL included.
constexpr std::size_t FILE_ROOM = NAME_MAX + 1;
constexpr std::size_t PREFIX_ROOM = 32 + sizeof(TraceSegment::program);

// The program's name with "_" for every letter that separates parts of a
// file's name or is not welcome in one, cut to what the header holds.
void programName(char (&o_name)[sizeof(TraceSegment::program)])
{
    snprintf(o_name, sizeof(o_name), "%s", program_invocation_short_name);
    for (char* l_at = o_name + std::strspn(o_name, NAME_LETTERS); *l_at != '\0';
         l_at += std::strspn(l_at, NAME_LETTERS))
    {
        *l_at = '_';
    }
}

void filePrefix(char (&o_prefix)[PREFIX_ROOM])
{
    char l_program[sizeof(TraceSegment::program)];
    programName(l_program);
    snprintf(o_prefix, sizeof(o_prefix), "tolv-trace.%u.%s.", geteuid(),
             l_program);
}

// Whether i_file is the segment i_name of a dead process.
bool isDead(const char* i_file, const char* i_prefix, const char* i_name)
{
    const std::size_t l_prefix = std::strlen(i_prefix);
    if (std::strncmp(i_file, i_prefix, l_prefix) != 0)
    {
        return false;
    }
    const char* l_rest = i_file + l_prefix;
    std::uint64_t l_pid = 0;
    std::uint64_t l_start = 0;
    return takeNumber(l_rest, 10, INT_MAX, l_pid) && *l_rest++ == '.' &&
           takeNumber(l_rest, 10, UINT64_MAX, l_start) && *l_rest++ == '.' &&
           std::strcmp(l_rest, i_name) == 0 && l_pid != 0 &&
           !isRunning(static_cast<pid_t>(l_pid), l_start);
}

bool isNewer(const timespec& i_left, const timespec& i_right)
{
    return i_left.tv_sec != i_right.tv_sec ? i_left.tv_sec > i_right.tv_sec
                                           : i_left.tv_nsec > i_right.tv_nsec;
}

// Takes the files of dead processes one by one, spares the newest and removes
// the others.
class DeadSegments
{
  public:
    explicit DeadSegments(int i_folder) : iv_Folder(i_folder) {}

    // Removes i_file, or the oldest spared so far when i_file is newer.
    void add(const char* i_file)
    {
        struct stat l_stat = {};
        if (fstatat(iv_Folder, i_file, &l_stat, AT_SYMLINK_NOFOLLOW) == -1 ||
            !S_ISREG(l_stat.st_mode) || l_stat.st_uid != geteuid())
        {
            return;
        }
        Dead l_dead;
        l_dead.made = l_stat.st_mtim;
        snprintf(l_dead.file, sizeof(l_dead.file), "%s", i_file);
        for (Dead& l_spared : iv_Spared)
        {
            if (l_spared.file[0] == '\0' || isNewer(l_dead.made, l_spared.made))
            {
                std::swap(l_dead, l_spared);
            }
        }
        if (l_dead.file[0] != '\0')
        {
            unlinkat(iv_Folder, l_dead.file, 0);
        }
    }

  private:
    struct Dead
    {
        timespec made = {};
        char file[FILE_ROOM] = "";
    };

    const int iv_Folder;
    Dead iv_Spared[DEAD_SEGMENTS_KEPT]; // newest first
};

void removeDead(int i_folder, const char* i_name)
{
    Descriptor l_fd(openat(i_folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> l_files(fdopendir(l_fd.get()),
                                                      closedir);
    if (l_files == nullptr)
    {
        return;
    }
    l_fd.release(); // closedir() closes it
    char l_prefix[PREFIX_ROOM];
    filePrefix(l_prefix);
    DeadSegments l_dead(i_folder);
    // Nobody else reads this stream.
    // cppcheck-suppress readdirCalled
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent* l_entry = readdir(l_files.get()))
    {
        if (isDead(l_entry->d_name, l_prefix, i_name))
        {
            l_dead.add(l_entry->d_name);
        }
    }
}

// A file of that name is this process's own, from before an exec(); one of
// somebody else cannot be removed and stays.
Descriptor createFile(int i_folder, const char* i_file)
{
    const int MODE = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor l_file(openat(i_folder, i_file, MODE, 0600));
    if (!l_file && errno == EEXIST && unlinkat(i_folder, i_file, 0) == 0)
    {
        l_file = Descriptor(openat(i_folder, i_file, MODE, 0600));
    }
    return l_file;
}

std::size_t segmentSize(std::uint32_t i_textSize)
{
    return sizeof(TraceSegment) + i_textSize;
}

// All of the room is taken now: a store into a file that has none behind it
// would end the process.
void* mapFile(const Descriptor& i_file, std::size_t i_size)
{
    int l_error = EINTR;
    while (l_error == EINTR)
    {
        l_error = posix_fallocate(i_file.get(), 0, static_cast<off_t>(i_size));
    }
    if (l_error != 0)
    {
        errno = l_error;
        return MAP_FAILED;
    }
    return mmap(nullptr, i_size, PROT_READ | PROT_WRITE, MAP_SHARED,
                i_file.get(), 0);
}

TraceSegment* makeSegment(void* i_memory, const char* i_name,
                          std::uint32_t i_textSize)
{
    TraceSegment* l_segment = new (i_memory) TraceSegment();
    l_segment->version = SEGMENT_VERSION;
    l_segment->headerSize = sizeof(TraceSegment);
    l_segment->textSize = i_textSize;
    l_segment->reserved = 0;
    l_segment->pid = static_cast<std::uint32_t>(getpid());
    std::strncpy(l_segment->name, i_name, sizeof(l_segment->name) - 1);
    programName(l_segment->program);
    l_segment->magic.store(SEGMENT_MAGIC, std::memory_order_release);
    return l_segment;
}

} // namespace

bool isSegmentName(const char* i_name)
{
    const std::size_t l_length = std::strspn(i_name, NAME_LETTERS);
    return l_length > 0 && l_length < SEGMENT_NAME_ROOM &&
           i_name[l_length] == '\0';
}

TraceSegment* createSharedSegment(const char* i_name, std::uint32_t i_textSize)
{
    const std::size_t l_size = segmentSize(i_textSize);
    if (!mayGrowTo(l_size))
    {
        return nullptr;
    }
    const Descriptor l_folder(open(folderFrom(FOLDER_VARIABLE, DEFAULT_FOLDER),
                                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!l_folder)
    {
        return nullptr;
    }
    removeDead(l_folder.get(), i_name);

    char l_prefix[PREFIX_ROOM];
    filePrefix(l_prefix);
    char l_path[FILE_ROOM];
    const pid_t l_pid = getpid();
    snprintf(l_path, sizeof(l_path), "%s%d.%" PRIu64 ".%s", l_prefix, l_pid,
             processStart(l_pid), i_name);
    const Descriptor l_file = createFile(l_folder.get(), l_path);
    if (!l_file)
    {
        return nullptr;
    }
    void* l_memory = mapFile(l_file, l_size);
    if (l_memory == MAP_FAILED)
    {
        const ErrnoKeeper l_keeper;
        unlinkat(l_folder.get(), l_path, 0);
        return nullptr;
    }
    return makeSegment(l_memory, i_name, i_textSize);
}

TraceSegment* createPrivateSegment(const char* i_name, std::uint32_t i_textSize)
{
    void* l_memory =
        mmap(nullptr, segmentSize(i_textSize), PROT_READ | PROT_WRITE,
             // cppcheck-suppress invalidFunctionArg ; no file
             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return l_memory == MAP_FAILED ? nullptr
                                  : makeSegment(l_memory, i_name, i_textSize);
}

void releaseSegment(TraceSegment* i_segment, std::uint32_t i_textSize)
{
    munmap(i_segment, segmentSize(i_textSize));
}

} // namespace tolvhost

// Counts the lines and bytes of files on a thread pool. Shows the pool, the
// two kinds of trace, and what becomes of a failure: an Error with a snapshot
// of the trace, carried through a byte buffer and written to the error log.
//
// Usage: fileCounts TRACE_FILE FILE...
#include <tolv/platform/errorLogEntry.hpp>
#include <tolv/platform/traceBuffer.hpp>
#include <tolv/tolv.hpp>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr unsigned char ORIGIN_COUNT = 1;
constexpr unsigned short REASON_UNREADABLE = 0x5001;

struct Counts
{
    std::uint64_t lines = 0;
    std::uint64_t bytes = 0;
};

class FileCounter : public tolv::Base
{
  public:
    explicit FileCounter(const std::vector<std::string>& i_paths) :
        iv_Paths(i_paths), iv_Counts(i_paths.size()), iv_Errors(i_paths.size())
    {
    }

    /// The pool's job: one run takes one file.
    void countNext()
    {
        std::size_t l_index = 0;
        {
            const tolv::MutexLock l_lock(iv_Lock);
            l_index = iv_Taken++;
        }
        const std::string& l_path = iv_Paths[l_index];
        const tolv::FunctionTrace l_trace(nullptr, __FILE__, __LINE__,
                                          __PRETTY_FUNCTION__, "%s",
                                          l_path.c_str());
        iv_Errors[l_index] = count(l_path, iv_Counts[l_index]);

        const tolv::MutexLock l_lock(iv_Lock);
        ++iv_Done;
        iv_AllDone.NotifyAll();
    }

    void waitForAll()
    {
        const tolv::MutexLock l_lock(iv_Lock);
        while (iv_Done != iv_Paths.size())
        {
            iv_AllDone.Wait(iv_Lock);
        }
    }

    /// Prints the counts and returns the errors, which are the caller's now.
    std::vector<tolv::pError_t> report()
    {
        for (std::size_t l_index = 0; l_index != iv_Paths.size(); ++l_index)
        {
            if (!iv_Errors[l_index])
            {
                std::printf("%8" PRIu64 " %10" PRIu64 " %s\n",
                            iv_Counts[l_index].lines, iv_Counts[l_index].bytes,
                            iv_Paths[l_index].c_str());
            }
        }
        return std::move(iv_Errors);
    }

  private:
    tolv::pError_t count(const std::string& i_path, Counts& o_counts)
    {
        FILE* l_file = std::fopen(i_path.c_str(), "rb");
        if (l_file == nullptr)
        {
            TraceBufferWrite(g_TolvTraceDesc, "cannot open %s, errno %i",
                             i_path.c_str(), errno);
            return BuildLog(ORIGIN_COUNT, REASON_UNREADABLE, g_TolvTraceDesc,
                            "Cannot open %s", i_path.c_str());
        }
        for (int l_byte = std::fgetc(l_file); l_byte != EOF;
             l_byte = std::fgetc(l_file))
        {
            ++o_counts.bytes;
            o_counts.lines += l_byte == '\n' ? 1 : 0;
        }
        std::fclose(l_file);
        TraceBufferWrite(g_TolvTraceDesc, "counted %s: %" PRIu64 " bytes",
                         i_path.c_str(), o_counts.bytes);
        return tolv::pError_t();
    }

    const std::vector<std::string> iv_Paths;
    std::vector<Counts> iv_Counts;         // each entry by its run alone
    std::vector<tolv::pError_t> iv_Errors; // each entry by its run alone
    tolv::Mutex iv_Lock;
    tolv::Condition iv_AllDone;
    std::size_t iv_Taken TOLV_GUARDED_BY(iv_Lock) = 0;
    std::size_t iv_Done TOLV_GUARDED_BY(iv_Lock) = 0;
};

// An error travels between processes as bytes; here it goes in and out of one
// buffer.
tolv::pError_t throughABuffer(tolv::pError_t i_error)
{
    tolv::DataBuff l_buffer(static_cast<unsigned int>(i_error->getSize()));
    l_buffer << i_error;
    l_buffer.setOffset(0);
    tolv::pError_t l_copy;
    l_buffer >> l_copy;
    return l_copy;
}

void logError(const tolv::Error& i_error)
{
    std::printf("error %04X: %s (errno %" PRId32 ")\n",
                static_cast<unsigned int>(i_error.getReason()),
                i_error.getText(), i_error.getErrno());
    ErrorLogEntry l_entry(0x5000, 0, 1, 0, 0, 0, 0, i_error.getReason(),
                          static_cast<unsigned int>(i_error.getErrno()), 0, 0,
                          0, 0, 0, 0);
    l_entry.AddTrace("TOLV", 1024);
    l_entry.commit(0x5000, 0, 0xFF, 0);
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    if (i_count < 3)
    {
        std::fprintf(stderr, "usage: %s TRACE_FILE FILE...\n", i_arguments[0]);
        return 2;
    }
    FILE* l_traceFile = std::fopen(i_arguments[1], "w");
    if (l_traceFile == nullptr)
    {
        std::perror(i_arguments[1]);
        return 1;
    }
    tolv::TraceFile::getInstance(l_traceFile);

    FileCounter l_counter(
        std::vector<std::string>(i_arguments + 2, i_arguments + i_count));
    tolv::ThreadPool l_pool;
    l_pool.StartUp(
        1, 4,
        tolv::FunctionRef<FileCounter>(&l_counter, &FileCounter::countNext),
        true);
    for (int l_file = 2; l_file != i_count; ++l_file)
    {
        l_pool.Dispatch();
    }
    l_counter.waitForAll();
    std::printf("%u threads in the pool\n", l_pool.getPoolDepth());
    l_pool.Shutdown(10);

    bool l_failed = false;
    for (tolv::pError_t& l_error : l_counter.report())
    {
        if (l_error)
        {
            logError(*throughABuffer(l_error));
            l_failed = true;
        }
    }
    return l_failed ? 3 : 0;
}

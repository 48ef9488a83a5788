// Prints entries of the error log with their trace.
//
// Usage: showErrorLog FILE...
#include <tolv/platform/errorLogEntry.hpp>

#include <cinttypes>
#include <cstdio>

#include <fstream>
#include <iterator>
#include <string>

namespace
{

bool show(const char* i_path)
{
    std::ifstream l_file(i_path, std::ios::binary);
    const std::string l_bytes((std::istreambuf_iterator<char>(l_file)),
                              std::istreambuf_iterator<char>());
    ErrorLogEntry l_entry;
    if (!l_entry.unflatten(l_bytes.data(),
                           static_cast<unsigned int>(l_bytes.size())))
    {
        std::fprintf(stderr, "%s is not an error-log entry\n", i_path);
        return false;
    }
    std::printf("reason %04X, errno %u, at %" PRId64 ".%09u\n",
                l_entry.value(7), l_entry.value(8), l_entry.getTime(),
                l_entry.getNanoSeconds());
    for (unsigned int l_index = 0; l_index != l_entry.getTraceCount();
         ++l_index)
    {
        // On stock Linux a trace is lines of text.
        std::printf("trace %s:\n%.*s", l_entry.getTraceComponent(l_index),
                    static_cast<int>(l_entry.getTraceLength(l_index)),
                    static_cast<const char*>(l_entry.getTrace(l_index)));
    }
    return true;
}

} // namespace

int main(int i_count, char* i_arguments[])
{
    bool l_good = true;
    for (int l_file = 1; l_file < i_count; ++l_file)
    {
        l_good = show(i_arguments[l_file]) && l_good;
    }
    return l_good ? 0 : 1;
}

// Looks at what reached the file behind a stream.
#ifndef TOLV_TESTS_SUPPORT_STREAMCONTENT_HPP
#define TOLV_TESTS_SUPPORT_STREAMCONTENT_HPP

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>

#include <string>

/// The content of the file, without what the stream still holds back.
inline std::string contentOf(FILE* i_stream)
{
    std::string l_content;
    char l_part[4096];
    ssize_t l_count = 0;
    while ((l_count = pread(fileno(i_stream), l_part, sizeof(l_part),
                            static_cast<off_t>(l_content.size()))) > 0)
    {
        l_content.append(l_part, static_cast<std::size_t>(l_count));
    }
    return l_content;
}

#endif

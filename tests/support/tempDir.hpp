// A folder of its own for a test.
#ifndef TOLV_TESTS_SUPPORT_TEMPDIR_HPP
#define TOLV_TESTS_SUPPORT_TEMPDIR_HPP

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

/// A new folder with a short path, removed with everything in it at the end
/// of its scope by the process that made it (not by its forked children).
///
/// Errors: throws std::system_error when it cannot be made.
class TempDir
{
  public:
    TempDir() : iv_Owner(getpid())
    {
        char l_path[] = "/tmp/tolv.XXXXXX";
        if (mkdtemp(l_path) == nullptr)
        {
            throw std::system_error(errno, std::generic_category(), l_path);
        }
        iv_Path = l_path;
    }

    ~TempDir()
    {
        if (getpid() == iv_Owner)
        {
            std::error_code l_ignored;
            std::filesystem::remove_all(iv_Path, l_ignored);
        }
    }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const
    {
        return iv_Path;
    }

    /// Returns: the path of i_name inside the folder; makes nothing.
    std::string path(const std::string& i_name) const
    {
        return iv_Path + "/" + i_name;
    }

  private:
    const pid_t iv_Owner;
    std::string iv_Path;
};

/// The names in a folder, sorted; none when there is no such folder.
inline std::vector<std::string> namesIn(const std::string& i_folder)
{
    std::error_code l_ignored;
    const std::filesystem::directory_iterator l_entries(i_folder, l_ignored);
    std::vector<std::string> l_names;
    std::transform(begin(l_entries), end(l_entries),
                   std::back_inserter(l_names),
                   [](const std::filesystem::directory_entry& i_entry)
                   { return i_entry.path().filename().string(); });
    std::sort(l_names.begin(), l_names.end());
    return l_names;
}

#endif

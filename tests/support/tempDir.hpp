#ifndef TESTS_SUPPORT_TEMPDIR_HPP
#define TESTS_SUPPORT_TEMPDIR_HPP

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

#include <filesystem>
#include <string>
#include <system_error>

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

#endif

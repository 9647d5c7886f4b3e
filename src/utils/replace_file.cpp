#include "utils/replace_file.hpp"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/unique_fd.hpp"

namespace {

int write_all(int fd, std::string_view contents)
{
    while (!contents.empty()) {
        const ssize_t count = write(fd, contents.data(), contents.size());
        if (count < 0 && errno != EINTR) {
            return -errno;
        }
        if (count == 0) {
            return -EIO;
        }
        if (count > 0) {
            contents.remove_prefix(static_cast<size_t>(count));
        }
    }
    return 0;
}

/** Makes a file that must not exist. What was begun and failed is left to the caller. */
int write_new_file(const std::string& path, std::string_view contents, mode_t mode)
{
    // Nobody else may open it before it has its mode.
    constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

    UniqueFd file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly & mode));
    if (!file || fchmod(file.get(), mode) != 0) {
        return -errno;
    }
    const int result = write_all(file.get(), contents);
    // Some file systems notice only now that there is no room for what was written.
    return file.reset() != 0 && result == 0 ? -errno : result;
}

} // namespace

int utils_replace_file(const std::string& path, std::string_view contents, mode_t mode)
{
    const std::string temporary = path + ".tmp";
    // One that an earlier process left behind when it was killed.
    if (unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        return -errno;
    }
    int result = write_new_file(temporary, contents, mode);
    if (result == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
        result = -errno;
    }
    if (result != 0) {
        unlink(temporary.c_str());
    }
    return result;
}

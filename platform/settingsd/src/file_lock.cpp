#include "file_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace settingsd {

int FileLock::take(const std::string& path)
{
    // Whoever removes the folder and makes it anew lets another process lock the new file.
    struct stat status = {};
    if (file_ && ::fstat(file_.get(), &status) == 0 && status.st_nlink > 0) {
        return 0;
    }
    constexpr mode_t kFileMode = 0600; // whoever can open it can hold the lock, and nobody else is to
    UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (!file) {
        return -errno;
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? -EBUSY : -errno;
    }
    file_ = std::move(file);
    return 0;
}

} // namespace settingsd

#include "atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "support/unique_fd.hpp"

namespace settingsd {

namespace {

using vantora::UniqueFd;

constexpr mode_t kFileMode = 0640;

int write_all(int fd, std::string_view contents)
{
    while (!contents.empty()) {
        const ssize_t count = ::write(fd, contents.data(), contents.size());
        if (count < 0 && errno != EINTR) {
            return -errno;
        }
        if (count > 0) {
            contents.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    return 0;
}

/** Creates the file, which must not exist, with its contents synced to the disk. */
int write_new_file(const std::string& path, std::string_view contents)
{
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (!file) {
        return -errno;
    }
    int r = write_all(file.get(), contents);
    if (r == 0 && ::fsync(file.get()) != 0) {
        r = -errno;
    }
    if (file.reset() != 0 && r == 0) {
        r = -errno;
    }
    if (r < 0) {
        ::unlink(path.c_str());
    }
    return r;
}

int sync_folder_of(const std::string& path)
{
    const auto folder = std::filesystem::path(path).parent_path();
    const UniqueFd fd(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return !fd || ::fsync(fd.get()) != 0 ? -errno : 0;
}

/** Makes `aside` the same file as `path`, or a copy of it where the file system knows no links. */
int link_or_copy(const std::string& path, const std::string& aside)
{
    if (::link(path.c_str(), aside.c_str()) == 0) {
        return 0;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != EMLINK) {
        return -errno;
    }
    std::string contents;
    const int r = read_file(path, contents.max_size(), contents);
    return r < 0 ? r : write_new_file(aside, contents);
}

} // namespace

int replace_file(const std::string& path, std::string_view contents)
{
    const std::string temporary = path + ".tmp";
    // One that a power cut left behind. Only this process writes here, so it belongs to nobody.
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        return -errno;
    }
    const int r = write_new_file(temporary, contents);
    if (r < 0) {
        return r;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return -error;
    }
    return sync_folder_of(path);
}

int read_file(const std::string& path, std::size_t limit, std::string& contents)
{
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return -errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? -EISDIR : -EINVAL;
    }
    std::string readSoFar;
    std::array<char, std::size_t{16}* 1024> buffer = {};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == 0) {
            contents = std::move(readSoFar);
            return 0;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        if (static_cast<std::size_t>(count) > limit - readSoFar.size()) {
            return -EFBIG;
        }
        readSoFar.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

int keep_aside(const std::string& path, std::string& kept)
{
    constexpr int kMost = 1000;
    for (int number = 1; number <= kMost; ++number) {
        const std::string aside = path + ".damaged-" + std::to_string(number);
        const int r = link_or_copy(path, aside);
        if (r == 0) {
            kept = aside;
            return sync_folder_of(path);
        }
        if (r != -EEXIST) {
            return r;
        }
    }
    return -EEXIST;
}

} // namespace settingsd

#include "atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>

#include "support/unique_fd.hpp"

namespace settingsd {

namespace {

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

UniqueFd open_folder_of(const std::string& path)
{
    const auto folder = std::filesystem::path(path).parent_path();
    return UniqueFd(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/** Gives the file a second name; a copy of it where the file system knows no links. */
int link_or_copy(const std::string& path, const std::string& second)
{
    if (::link(path.c_str(), second.c_str()) == 0) {
        return 0;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != EMLINK) {
        return -errno;
    }
    std::string contents;
    const int r = read_file(path, contents.max_size(), contents);
    return r < 0 ? r : write_new_file(second, contents);
}

/** Removes a file that may be there. Returns 0, or a negative errno. */
int remove_if_there(const std::string& path)
{
    return ::unlink(path.c_str()) != 0 && errno != ENOENT ? -errno : 0;
}

bool are_the_same_file(const std::string& first, const std::string& second)
{
    struct stat one = {};
    struct stat other = {};
    return ::lstat(first.c_str(), &one) == 0 && ::lstat(second.c_str(), &other) == 0 &&
           one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/** Puts the temporary file in the path's place. Returns 0, or a negative errno with the old one there. */
int exchange(const std::string& path, const std::string& temporary, const std::string& old, bool& settled)
{
    // Opened before anything is touched, so that of the steps after the exchange only one can fail.
    const UniqueFd folder = open_folder_of(path);
    if (!folder) {
        return -errno;
    }
    int r = link_or_copy(path, old);
    const bool hasOld = r == 0;
    if (r < 0 && r != -ENOENT) {
        return r;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        return -errno;
    }
    if (::fsync(folder.get()) == 0) {
        settled = true;
        return 0;
    }
    r = -errno;
    const bool isBack = hasOld ? ::rename(old.c_str(), path.c_str()) == 0 : remove_if_there(path) == 0;
    settled = ::fsync(folder.get()) == 0 && isBack;
    return r;
}

} // namespace

int replace_file(const std::string& path, std::string_view contents, bool& settled)
{
    const std::string temporary = path + ".tmp";
    const std::string old = path + ".old";
    // Those that a power cut left behind. Only this process writes here, so they belong to nobody.
    for (const std::string& leftover : {temporary, old}) {
        const int r = remove_if_there(leftover);
        if (r < 0) {
            return r;
        }
    }
    int r = write_new_file(temporary, contents);
    if (r < 0) {
        return r;
    }
    r = exchange(path, temporary, old, settled);
    if (r < 0) {
        ::unlink(temporary.c_str());
    }
    ::unlink(old.c_str());
    return r;
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
    const UniqueFd folder = open_folder_of(path);
    if (!folder) {
        return -errno;
    }
    for (int number = 1; number <= kMost; ++number) {
        const std::string aside = path + ".damaged-" + std::to_string(number);
        int r = link_or_copy(path, aside);
        if (r == -EEXIST && are_the_same_file(path, aside)) {
            r = 0;
        }
        if (r == 0 && ::fsync(folder.get()) != 0) {
            r = -errno;
            ::unlink(aside.c_str());
        }
        if (r == 0) {
            kept = aside;
        }
        if (r != -EEXIST) {
            return r;
        }
    }
    return -EEXIST;
}

int follow_links(const std::string& path, std::string& target)
{
    constexpr int kMostLinks = 40; // as the kernel has it
    std::filesystem::path place = path;
    for (int followed = 0; followed <= kMostLinks; ++followed) {
        std::array<char, PATH_MAX> contents = {};
        const ssize_t size = ::readlink(place.c_str(), contents.data(), contents.size());
        if (size < 0) {
            if (errno != EINVAL && errno != ENOENT) {
                return -errno;
            }
            target = place.string(); // no link, or nothing at all
            return 0;
        }
        place = place.parent_path() / std::string_view(contents.data(), static_cast<std::size_t>(size));
    }
    return -ELOOP;
}

} // namespace settingsd

#include "files.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/sd_bus_owners.hpp"
#include "support/unique_fd.hpp"

namespace doctor {

namespace {

using Folder = std::unique_ptr<DIR, ReleaseWith<closedir>>;

} // namespace

Files::Contents Files::read(const std::string& path, std::size_t limit) const
{
    const UniqueFd file(::open((root_ + path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat kind = {};
    if (!file || ::fstat(file.get(), &kind) < 0) {
        return {errno, ""};
    }
    if (!S_ISREG(kind.st_mode)) {
        return {EINVAL, ""};
    }
    std::string text(limit, '\0');
    std::size_t size = 0;
    while (size < limit) {
        const ssize_t got = ::read(file.get(), text.data() + size, limit - size);
        if (got < 0 && errno != EINTR) {
            return {errno, ""};
        }
        if (got == 0) {
            break;
        }
        size += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    text.resize(size);
    return {0, std::move(text)};
}

std::optional<struct stat> Files::status(const std::string& path) const
{
    struct stat status = {};
    return ::stat((root_ + path).c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

std::vector<std::string> Files::names(const std::string& folder) const
{
    std::vector<std::string> names;
    const Folder opened(::opendir((root_ + folder).c_str()));
    while (const dirent* const entry = opened ? ::readdir(opened.get()) : nullptr) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    std::ranges::sort(names);
    return names;
}

bool Files::is_abandoned_socket(const std::string& path) const
{
    const std::string full = root_ + path;
    const auto found = status(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (!found || !S_ISSOCK(found->st_mode) || full.size() >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, full.c_str(), full.size());
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return socket &&
           ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 &&
           errno == ECONNREFUSED;
}

int Files::remove(const std::string& path) const
{
    return ::unlink((root_ + path).c_str()) == 0 ? 0 : errno;
}

} // namespace doctor

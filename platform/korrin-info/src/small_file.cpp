#include "small_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "support/unique_fd.hpp"

namespace KorrinInfo::detail {

namespace {

constexpr std::size_t kMaxSize = std::size_t{64} * 1024;

} // namespace

std::optional<std::string> read_small_file(const std::string& path)
{
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    // The size that the kernel reports for its own files says nothing, so read until the end.
    std::string contents;
    std::array<char, 4096> buffer = {};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == 0) {
            return contents;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        contents.append(buffer.data(), static_cast<std::size_t>(count));
        if (contents.size() > kMaxSize) {
            return std::nullopt;
        }
    }
}

std::string_view trim(std::string_view text)
{
    constexpr std::string_view kBlanks = " \t\r\n\v\f";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

} // namespace KorrinInfo::detail

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace doctor {

/**
 * The files of the system, below a root that is another one in tests. Nothing here waits: what is no regular
 * file is not read, and a pipe in the place of a file is not waited for.
 */
class Files
{
public:
    /** What reading a file came to. */
    struct Contents
    {
        int error = 0; /**< 0, or the errno of what went wrong; EINVAL for what is no regular file */
        std::string text;

        explicit operator bool() const { return error == 0; }
    };

    /** @param root what stands in front of every path; empty for the real one */
    explicit Files(std::string root = "") : root_(std::move(root)) {}

    /** Reads a file, up to so many bytes. */
    Contents read(const std::string& path, std::size_t limit = std::size_t{256} * 1024) const;

    /** What stat(2) says of it, links followed; nothing when it is not there or cannot be asked. */
    std::optional<struct stat> status(const std::string& path) const;

    bool exists(const std::string& path) const { return status(path).has_value(); }

    /** The names in a folder, sorted; none when it cannot be read. */
    std::vector<std::string> names(const std::string& folder) const;

    /** Whether it is the socket of a datagram server that has ended: it is there, and nobody listens. */
    bool is_abandoned_socket(const std::string& path) const;

    /** Removes a file. Returns 0, or the errno. */
    int remove(const std::string& path) const;

private:
    std::string root_;
};

} // namespace doctor

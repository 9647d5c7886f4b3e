#pragma once

// Replaces read(2) and write(2) in the program of the test that includes it, for regular files.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace testing_support {

/** A disk that takes and gives files in pieces, and some calls of which fail, as long as it lives. */
class DiskInPieces
{
public:
    /**
     * @param piece how many bytes a call writes or reads at most
     * @param failures how many calls fail before one does anything
     * @param error why they do
     */
    explicit DiskInPieces(std::size_t piece, int failures = 3, int error = EINTR)
    {
        mostBytes = piece;
        failuresLeft = failures;
        failure = error;
    }
    ~DiskInPieces()
    {
        mostBytes = SIZE_MAX;
        failuresLeft = 0;
    }
    DiskInPieces(const DiskInPieces&) = delete;
    DiskInPieces& operator=(const DiskInPieces&) = delete;

    /** How much of so many bytes a call takes now, or -1 where it fails. */
    static ssize_t taken(int fd, std::size_t size)
    {
        struct stat status = {};
        if (mostBytes == SIZE_MAX || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
            return static_cast<ssize_t>(size);
        }
        if (failuresLeft > 0) {
            --failuresLeft;
            errno = failure;
            return -1;
        }
        return static_cast<ssize_t>(std::min(size, mostBytes));
    }

private:
    static inline std::size_t mostBytes = SIZE_MAX;
    static inline int failuresLeft = 0;
    static inline int failure = EINTR;
};

} // namespace testing_support

extern "C" ssize_t write(int fd, const void* data, std::size_t size)
{
    const ssize_t now = testing_support::DiskInPieces::taken(fd, size);
    return now < 0 ? now : ::syscall(SYS_write, fd, data, now);
}

// Under another name: where the C library checks sizes, its header defines this function itself.
extern "C" ssize_t read_in_pieces(int fd, void* data, std::size_t size) __asm__("read");

extern "C" ssize_t read_in_pieces(int fd, void* data, std::size_t size)
{
    const ssize_t now = testing_support::DiskInPieces::taken(fd, size);
    return now < 0 ? now : ::syscall(SYS_read, fd, data, now);
}

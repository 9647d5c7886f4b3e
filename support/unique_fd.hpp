#pragma once

#include <unistd.h>
#include <utility>

/** Owns one file descriptor and closes it at the end of its scope; -1 stands for none. */
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /** Gives the descriptor away; the caller closes it. */
    int release() { return std::exchange(fd_, -1); }

    /**
     * Closes the descriptor and takes another one in its place.
     *
     * @param fd the descriptor to own from now on; -1 for none
     * @return what close(2) said: 0, or -1 with errno set; 0 when there was nothing to close
     */
    int reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        return old >= 0 ? ::close(old) : 0;
    }

private:
    int fd_ = -1;
};

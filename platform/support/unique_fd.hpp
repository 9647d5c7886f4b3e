#pragma once

#include <unistd.h>

#include <utility>

namespace vantora {

/** Owns one file descriptor; -1 stands for none. */
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /** Closes now and returns what close(2) said: 0, or -1 with errno set. No descriptor: 0. */
    int reset()
    {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 ? 0 : ::close(fd);
    }

private:
    int fd_ = -1;
};

} // namespace vantora

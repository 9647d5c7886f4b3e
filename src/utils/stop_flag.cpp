#include "utils/stop_flag.hpp"

#include <cerrno>

#include <poll.h>
#include <sys/eventfd.h>

StopFlag::StopFlag() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

void StopFlag::set()
{
    stopped_ = true;
    if (event_) {
        eventfd_write(event_.get(), 1);
    }
}

void StopFlag::clear()
{
    stopped_ = false;
    eventfd_t count = 0;
    if (event_) {
        eventfd_read(event_.get(), &count);
    }
}

bool StopFlag::wait_for(std::chrono::milliseconds time) const
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + time;

    while (!is_set()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd wait = {.fd = event_.get(), .events = POLLIN, .revents = 0};
        if (poll(&wait, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            break;
        }
    }
    return is_set();
}

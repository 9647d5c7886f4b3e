#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <stdexcept>

#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

namespace testing_support {

/**
 * A monotonic clock that a test drives, for sd-event loops: where a loop would sleep, the clock jumps to the
 * time for which it set its timer, and the timer goes off. Nothing else is replaced: descriptors, timers and
 * epoll are the kernel's, and the loop is libsystemd's own.
 *
 * It works by functions of the C library that are defined below and so take the place of the library's in the
 * whole program; while no DrivenClock exists they pass everything on. For one file of a program, and loops of
 * one thread.
 */
class DrivenClock
{
public:
    DrivenClock() { current() = this; }
    ~DrivenClock() { current() = nullptr; }
    DrivenClock(const DrivenClock&) = delete;
    DrivenClock& operator=(const DrivenClock&) = delete;

    /** Microseconds since some time before the clock was made. */
    uint64_t now_usec() const { return now_ / 1000; }

    /** How many times a loop has slept and was woken up by a timer. */
    uint64_t wake_ups() const { return wakeUps_; }

    static DrivenClock*& current()
    {
        static DrivenClock* clock = nullptr;
        return clock;
    }

    /** The C library's own function of this name. */
    template <typename Function>
    static Function* real(const char* name, Function*)
    {
        return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    }

    timespec now() const
    {
        timespec time{};
        time.tv_sec = static_cast<time_t>(now_ / kNsecPerSec);
        time.tv_nsec = static_cast<long>(now_ % kNsecPerSec);
        return time;
    }

    int set_timer(int fd, int flags, const itimerspec& setting)
    {
        if (flags != TFD_TIMER_ABSTIME || setting.it_interval.tv_sec != 0 ||
            setting.it_interval.tv_nsec != 0) {
            throw std::logic_error("a loop uses its timer in a way that the driven clock does not know");
        }
        const uint64_t due = static_cast<uint64_t>(setting.it_value.tv_sec) * kNsecPerSec +
                             static_cast<uint64_t>(setting.it_value.tv_nsec);
        timers_.erase(fd);
        if (due == 0) {
            return set_real_timer(fd, 0);
        }
        if (due <= now_) {
            return set_real_timer(fd, 1);
        }
        timers_[fd] = due;
        return set_real_timer(fd, 0);
    }

    int wait(int epoll, epoll_event* events, int room, int timeoutMsec)
    {
        static auto* const kRealWait = real("epoll_wait", &::epoll_wait);
        const int ready = kRealWait(epoll, events, room, 0);
        if (ready != 0 || timeoutMsec == 0) {
            return ready;
        }
        auto next = timers_.end();
        for (auto timer = timers_.begin(); timer != timers_.end(); ++timer) {
            if (next == timers_.end() || timer->second < next->second) {
                next = timer;
            }
        }
        if (next == timers_.end()) {
            throw std::logic_error("the loop sleeps for ever");
        }
        now_ = next->second;
        set_real_timer(next->first, 1);
        timers_.erase(next);
        ++wakeUps_;
        return kRealWait(epoll, events, room, -1);
    }

private:
    static constexpr uint64_t kNsecPerSec = 1'000'000'000;

    /** Sets the kernel's timer to a time long past, so that it goes off at once; 0 disarms it. */
    static int set_real_timer(int fd, long nsec)
    {
        static auto* const kRealSet = real("timerfd_settime", &::timerfd_settime);
        itimerspec setting{};
        setting.it_value.tv_nsec = nsec;
        return kRealSet(fd, TFD_TIMER_ABSTIME, &setting, nullptr);
    }

    uint64_t now_ = 1000 * kNsecPerSec;
    uint64_t wakeUps_ = 0;
    std::map<int, uint64_t> timers_; // descriptor and time, in nanoseconds
};

} // namespace testing_support

// What libsystemd calls. The parameters' names and exception specifications are those of the C library.

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    using testing_support::DrivenClock;
    static auto* const kRealGet = DrivenClock::real("clock_gettime", &::clock_gettime);
    if (DrivenClock::current() == nullptr || (clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME)) {
        return kRealGet(clock, time);
    }
    *time = DrivenClock::current()->now();
    return 0;
}

int timerfd_settime(int fd, int flags, const itimerspec* setting, itimerspec* old) noexcept
{
    using testing_support::DrivenClock;
    static auto* const kRealSet = DrivenClock::real("timerfd_settime", &::timerfd_settime);
    DrivenClock* const driven = DrivenClock::current();
    return driven != nullptr ? driven->set_timer(fd, flags, *setting) : kRealSet(fd, flags, setting, old);
}

int epoll_wait(int epoll, epoll_event* events, int room, int timeoutMsec)
{
    using testing_support::DrivenClock;
    static auto* const kRealWait = DrivenClock::real("epoll_wait", &::epoll_wait);
    DrivenClock* const driven = DrivenClock::current();
    return driven != nullptr ? driven->wait(epoll, events, room, timeoutMsec)
                             : kRealWait(epoll, events, room, timeoutMsec);
}

} // extern "C"

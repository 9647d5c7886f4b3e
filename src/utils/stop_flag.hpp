#pragma once

#include <atomic>
#include <chrono>

#include "support/unique_fd.hpp"

/**
 * A request to a thread to end that the thread can also wait for: a flag, and a descriptor that is readable
 * while the flag is set (eventfd(2)). All functions may be called from any thread.
 */
class StopFlag
{
public:
    StopFlag();

    void set();
    void clear();
    bool is_set() const { return stopped_; }

    /** Readable while the flag is set; -1 when the system had no descriptor left, the flag then works
     * without. */
    int fd() const { return event_.get(); }

    /**
     * Waits until the flag is set, but no longer than the given time; signals do not shorten the wait.
     *
     * @return true when the flag is set
     */
    bool wait_for(std::chrono::milliseconds time) const;

private:
    std::atomic<bool> stopped_ = false;
    UniqueFd event_;
};

#pragma once

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <systemd/sd-event.h>

#include "utils/sd_bus_owners.hpp"
#include "utils/unique_fd.hpp"

/**
 * Hands work to the thread that runs the event loop. Neither sd-bus nor sd-event may be touched by two
 * threads, so whatever a listener thread wants of them is posted here.
 */
class MainLoopQueue
{
public:
    using Work = std::function<void()>;

    /** The creating thread is the one whose loop will serve the queue. */
    MainLoopQueue();

    /**
     * Serves the queue from the given loop, beginning with what has been posted before.
     *
     * @return 0 or a positive number, or a negative errno
     */
    int attach(sd_event* event);

    /** Stops serving the queue. Work that is still in it is dropped. */
    void detach();

    /**
     * Runs the work on the loop's thread: at once when called there, otherwise on one of the loop's next
     * iterations, in the order posted. Never blocks for the loop.
     */
    void post(Work work);

private:
    void run_posted();

    const std::thread::id loopThread_ = std::this_thread::get_id();
    UniqueFd wakeUp_; // eventfd(2)
    EventSourcePtr source_;
    std::mutex mutex_;
    std::vector<Work> posted_;
};

#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <systemd/sd-event.h>

#include "support/sd_bus_owners.hpp"
#include "support/unique_fd.hpp"

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
     * @return 0 or a positive number, or a negative errno, that of a queue without a descriptor included
     */
    int attach(sd_event* event);

    /** Stops serving the queue. Work that is still in it is dropped. */
    void detach();

    /**
     * Runs the work on the loop's thread: at once when called there, otherwise on one of the loop's next
     * iterations, one piece in each, in the order posted. Never blocks for the loop.
     *
     * One piece in each, because each may wait for a neighbour: requests get their turn between them, and the
     * loop gets to tell the service manager that it is alive.
     */
    void post(Work work);

private:
    void run_next();

    const std::thread::id loopThread_ = std::this_thread::get_id();
    UniqueFd wakeUp_;     // eventfd(2) that counts the pieces of work posted
    const int openError_; // why there is none
    EventSourcePtr source_;
    std::mutex mutex_;
    std::deque<Work> posted_;
};

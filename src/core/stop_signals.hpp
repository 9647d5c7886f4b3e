#pragma once

#include <functional>
#include <thread>

#include "support/unique_fd.hpp"
#include "utils/stop_flag.hpp"

/**
 * Turns SIGTERM and SIGINT into a call, on a thread of its own, and sees to it that the process then ends in
 * time: when this object is still there 800 milliseconds later, because the main thread or a listener waits
 * for a neighbour that does not answer, the process is ended with status 0 all the same.
 *
 * To be created before any other thread, so that all of them inherit the blocked signals.
 */
class StopSignals
{
public:
    /** Blocks the signals and takes the descriptors. */
    StopSignals();

    /** Ends the thread, and the limit with it; the signals stay blocked. */
    ~StopSignals();

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /**
     * Waits for the signals from now on.
     *
     * @param stop called once, on another thread
     * @return 0, or a negative errno when the descriptors for it could not be had
     */
    int watch(std::function<void()> stop);

    /** Sets the same limit to an end that no signal has asked for, from now on. */
    void end_in_time();

private:
    void wait_for_end();

    UniqueFd arrived_; // signalfd(2)
    int error_ = 0;    // why a descriptor is missing
    std::function<void()> stop_;
    StopFlag ending_; // asked for without a signal
    StopFlag ended_;
    std::thread thread_;
};

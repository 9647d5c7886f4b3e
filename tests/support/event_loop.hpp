#pragma once

#include <chrono>
#include <cstdint>

#include <systemd/sd-event.h>

#include "support/sd_bus_owners.hpp"

namespace testing_support {

/** How long a test waits for what must come: far longer than it takes, on the slowest machine. */
inline constexpr std::chrono::seconds kPatience(30);

/** An sd-event loop that a test runs until what it waits for is there. */
class EventLoop
{
public:
    EventLoop()
    {
        sd_event* event = nullptr;
        sd_event_new(&event);
        event_.reset(event);
    }

    sd_event* get() const { return event_.get(); }

    /** Runs the loop until `done()`; false when it did not come about in time. */
    template <typename Done>
    bool run_until(Done done) const
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            sd_event_run(event_.get(), std::uint64_t{100} * 1000);
        }
        return true;
    }

private:
    EventPtr event_;
};

} // namespace testing_support

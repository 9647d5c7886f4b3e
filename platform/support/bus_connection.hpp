#pragma once

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace vantora {

/**
 * Works a connection that has just been opened until the bus has let it in. A bus that refuses to, or does
 * not within the time-out of a call (25 s), is given up: the connection is closed, and calls over it fail at
 * once. The library would wait for 90 s.
 */
inline void await_letting_in(sd_bus* bus)
{
    using namespace std::chrono;
    constexpr std::uint64_t longest_usec =
        microseconds(hours(1)).count(); // an environment can ask for any time-out

    std::uint64_t timeout_usec = 0;
    sd_bus_get_method_call_timeout(bus, &timeout_usec);
    const auto deadline = steady_clock::now() + microseconds(std::min(timeout_usec, longest_usec));
    while (sd_bus_is_ready(bus) == 0) {
        int progress = sd_bus_process(bus, nullptr);
        if (progress == 0) {
            const auto left = duration_cast<microseconds>(deadline - steady_clock::now());
            progress =
                left.count() > 0 ? sd_bus_wait(bus, static_cast<std::uint64_t>(left.count())) : -ETIMEDOUT;
        }
        if (progress < 0 && progress != -EINTR) {
            sd_bus_close(bus);
            return;
        }
    }
}

} // namespace vantora

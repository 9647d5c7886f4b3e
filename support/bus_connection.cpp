#include "support/bus_connection.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace {

using namespace std::chrono;

/** An environment can set the time-out of a call to any value, even to none. */
constexpr microseconds kLongest = 1h;

microseconds call_timeout(sd_bus* bus)
{
    uint64_t timeoutUsec = 0;
    sd_bus_get_method_call_timeout(bus, &timeoutUsec);
    return microseconds(std::min<uint64_t>(timeoutUsec, kLongest.count()));
}

int open_with(int (*open)(sd_bus**), BusPtr& bus)
{
    sd_bus* opened = nullptr;
    const int result = open(&opened);
    bus.reset(opened);
    return result;
}

} // namespace

int await_letting_in(sd_bus* bus, microseconds time)
{
    const auto deadline = steady_clock::now() + std::min(time, kLongest);
    int ready = sd_bus_is_ready(bus);
    while (ready == 0) {
        int progress = sd_bus_process(bus, nullptr);
        if (progress == 0) {
            const auto left = duration_cast<microseconds>(deadline - steady_clock::now());
            progress = left.count() > 0 ? sd_bus_wait(bus, static_cast<uint64_t>(left.count())) : -ETIMEDOUT;
        }
        ready = progress < 0 && progress != -EINTR ? progress : sd_bus_is_ready(bus);
    }
    if (ready < 0) {
        sd_bus_close(bus);
    }
    return std::min(ready, 0);
}

int await_letting_in(sd_bus* bus)
{
    return await_letting_in(bus, call_timeout(bus));
}

int open_system_bus(BusPtr& bus, LetIn letIn)
{
    const int result = open_with(sd_bus_open_system, bus);
    if (result >= 0 && letIn == LetIn::Awaited) {
        await_letting_in(bus.get());
    }
    return result;
}

int open_system_bus(BusPtr& bus, microseconds time)
{
    const int result = open_with(sd_bus_open_system, bus);
    if (result >= 0) {
        await_letting_in(bus.get(), std::min(time, call_timeout(bus.get())));
    }
    return result;
}

int open_user_bus(BusPtr& bus, LetIn letIn)
{
    const int result = open_with(sd_bus_open_user, bus);
    if (result >= 0 && letIn == LetIn::Awaited) {
        await_letting_in(bus.get());
    }
    return result;
}

#include "utils/bus_connection.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace {

using namespace std::chrono;

/** The time-out of a call, which an environment can set to any value, even to none. */
microseconds call_timeout(sd_bus* bus)
{
    constexpr uint64_t kLongestUsec = microseconds(1h).count();

    uint64_t timeoutUsec = 0;
    sd_bus_get_method_call_timeout(bus, &timeoutUsec);
    return microseconds(std::min(timeoutUsec, kLongestUsec));
}

/** Works the connection until the bus has let it in, or closes it. */
void await_letting_in(sd_bus* bus)
{
    const auto deadline = steady_clock::now() + call_timeout(bus);
    while (sd_bus_is_ready(bus) == 0) {
        int progress = sd_bus_process(bus, nullptr);
        if (progress == 0) {
            const auto left = duration_cast<microseconds>(deadline - steady_clock::now());
            progress = left.count() > 0 ? sd_bus_wait(bus, static_cast<uint64_t>(left.count())) : -ETIMEDOUT;
        }
        if (progress < 0 && progress != -EINTR) {
            sd_bus_close(bus);
            return;
        }
    }
}

} // namespace

int open_system_bus(BusPtr& bus, LetIn letIn)
{
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    bus.reset(opened);
    if (result >= 0 && letIn == LetIn::Awaited) {
        await_letting_in(opened);
    }
    return result;
}

int open_user_bus(BusPtr& bus)
{
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_user(&opened);
    bus.reset(opened);
    if (result >= 0) {
        await_letting_in(opened);
    }
    return result;
}

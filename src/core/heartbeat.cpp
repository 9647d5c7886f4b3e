#include "core/heartbeat.hpp"

#include <ctime>

#include "support/sd_bus_owners.hpp"
#include "utils/event_time.hpp"

namespace {

constexpr int32_t kPeriodSec = 1;

EventSourcePtr heartbeat;

int beat(sd_event_source* source, uint64_t, void*)
{
    sd_event_source_set_time(source, utils_event_time_after(sd_event_source_get_event(source), kPeriodSec));
    sd_event_source_set_enabled(source, SD_EVENT_ON);
    return 0;
}

} // namespace

void start_heartbeat(sd_event* event)
{
    sd_event_source* source = nullptr;
    sd_event_add_time(event, &source, CLOCK_MONOTONIC, utils_event_time_after(event, kPeriodSec), 0, beat,
                      nullptr);
    heartbeat.reset(source);
}

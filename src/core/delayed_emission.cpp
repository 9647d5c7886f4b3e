#include "core/delayed_emission.hpp"

#include <ctime>
#include <utility>

#include <systemd/sd-event.h>

#include "core/service.hpp"
#include "support/sd_bus_owners.hpp"
#include "utils/event_time.hpp"

namespace {

/** The pending emission: its timer, and its own copy of the names. */
struct
{
    EventSourcePtr timer;
    std::vector<const char*> properties;
} pending;

int emit_pending(sd_event_source*, uint64_t, void*)
{
    for (const char* property : std::exchange(pending.properties, {})) {
        emit_property_changed(property);
    }
    pending.timer.reset();
    return 0;
}

} // namespace

void emit_properties_later(std::vector<const char*> properties, int32_t delaySec)
{
    pending.properties = std::move(properties);

    sd_event_source* source = nullptr;
    const uint64_t when = utils_event_time_after(service_event(), delaySec);
    sd_event_add_time(service_event(), &source, CLOCK_MONOTONIC, when, 0, emit_pending, nullptr);
    pending.timer.reset(source);
}

// The floor under reading a property, and under the memory of a service: one object with one property on the
// user bus, on an event loop, and nothing else.

#include <cstdlib>

#include "bare_bus.hpp"
#include "names.hpp"

namespace {

int get_initialised(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                    sd_bus_error*)
{
    return sd_bus_message_append(reply, "b", 1);
}

// The macros below are made for a plain array. NOLINTNEXTLINE(modernize-avoid-c-arrays)
const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("WiFiAccessPointInitialised", "b", get_initialised, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

} // namespace

int main()
{
    const BareBusPtr bus = open_bare_bus(sd_bus_open_user);
    sd_event* taken = nullptr;
    if (!bus || sd_event_default(&taken) < 0) {
        return EXIT_FAILURE;
    }
    const EventPtr event(taken);
    if (sd_bus_attach_event(bus.get(), event.get(), SD_EVENT_PRIORITY_NORMAL) < 0 ||
        sd_bus_add_object_vtable(bus.get(), nullptr, kObjectPath, kInterface, kVtable, nullptr) < 0 ||
        sd_bus_request_name(bus.get(), kBareService, 0) < 0) {
        return EXIT_FAILURE;
    }
    return sd_event_loop(event.get()) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

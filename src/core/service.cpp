#include "core/service.hpp"

#include <utility>

#include "core/main_loop.hpp"
#include "core/network_interface.hpp"
#include "support/bus_connection.hpp"

namespace {

/** A plain unreference, as for any bus that a loop has worked: what was sent has been written by then. */
using PublishedBusPtr = std::unique_ptr<sd_bus, ReleaseWith<sd_bus_unref>>;

EventPtr event;
PublishedBusPtr bus;
SlotPtr objectSlot;
MainLoopQueue mainLoop;
std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settings;

int take_default_event()
{
    sd_event* taken = nullptr;
    const int result = sd_event_default(&taken);
    event.reset(taken);
    return result;
}

int register_object()
{
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_add_object_vtable(bus.get(), &slot, kNetworkPath, kNetworkInterface,
                                                network_interface_vtable(), nullptr);
    objectSlot.reset(slot);
    return result;
}

} // namespace

int service_set_up()
{
    BusPtr opened;
    int result = open_user_bus(opened);
    bus = PublishedBusPtr(opened.release());
    if (result >= 0) {
        result = take_default_event();
    }
    if (result >= 0) {
        result = mainLoop.attach(event.get());
    }
    if (result >= 0) {
        result = sd_bus_attach_event(bus.get(), event.get(), SD_EVENT_PRIORITY_NORMAL);
    }
    if (result >= 0) {
        result = register_object();
    }
    if (result >= 0) {
        result = sd_bus_request_name(bus.get(), kNetworkService, 0);
    }
    if (result >= 0) {
        // A daemon that nobody can reach is worth nothing: the service manager starts it anew. Not asked for
        // any earlier: of a connection that is closed already, the library ends the process there and then.
        sd_bus_set_exit_on_disconnect(bus.get(), 1);
    }
    return result;
}

void service_tear_down()
{
    mainLoop.detach();
    objectSlot.reset();
    bus.reset();
}

sd_bus* service_bus()
{
    return bus.get();
}

sd_event* service_event()
{
    return event.get();
}

Settingsd::SettingsDaemonDbusHandler& service_create_settings()
{
    settings = std::make_shared<Settingsd::SettingsDaemonDbusHandler>(event.get());
    return *settings;
}

void post_to_main_loop(std::function<void()> work)
{
    mainLoop.post(std::move(work));
}

void emit_property_changed(const char* property)
{
    post_to_main_loop([property] {
        sd_bus_emit_properties_changed(bus.get(), kNetworkPath, kNetworkInterface, property, nullptr);
    });
}

void announce_access_point_initialised(bool ready)
{
    post_to_main_loop([ready] {
        sd_bus_emit_signal(bus.get(), kNetworkPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                           "sa{sv}as", kNetworkInterface, 1, "WiFiAccessPointInitialised", "b",
                           static_cast<int>(ready), 0);
    });
}

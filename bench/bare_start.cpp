// The floor under the daemon's start: the calls that it makes and waits for until it is ready, and nothing
// else. It ends as soon as it has told that it is ready.

#include <cstdlib>
#include <string>

#include <systemd/sd-daemon.h>

#include "bare_bus.hpp"
#include "names.hpp"

namespace {

int ignore_signal(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

/** A connection of a listener: it watches one signal of a service, and who that service is. */
int follow(sd_bus* bus, const char* service, const char* interface)
{
    const char* name = nullptr;
    const std::string owner =
        std::string("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
        service + "'";
    const std::string changes = std::string("type='signal',sender='") + service + "',interface='" +
                                interface + "',member='PropertiesChanged'";
    int result = sd_bus_get_unique_name(bus, &name);
    if (result >= 0) {
        result = sd_bus_add_match(bus, nullptr, owner.c_str(), ignore_signal, nullptr);
    }
    if (result >= 0) {
        result = sd_bus_add_match(bus, nullptr, changes.c_str(), ignore_signal, nullptr);
    }
    return result;
}

int read_setting(const char* section, const char* key)
{
    const BareBusPtr bus = open_bare_bus(sd_bus_open_user);
    const std::string path = std::string("/com/vantora/common/Settings1/") + section;
    BusError error;
    int value = 0;
    return sd_bus_get_property_trivial(bus.get(), kSettings, path.c_str(), kSettings, key, error.get(), 'b',
                                       &value);
}

} // namespace

int main()
{
    const BareBusPtr published = open_bare_bus(sd_bus_open_user);
    if (!published || sd_bus_request_name(published.get(), kBareService, 0) < 0) {
        return EXIT_FAILURE;
    }
    const BareBusPtr settings = open_bare_bus(sd_bus_open_user);
    if (!settings || follow(settings.get(), kSettings, kPropertiesInterface) < 0) {
        return EXIT_FAILURE;
    }
    const BareBusPtr station = open_bare_bus(sd_bus_open_system);
    if (!station || follow(station.get(), kStationName, kStationInterface) < 0 ||
        read_setting("development", "killWifiOnBoot") < 0) {
        return EXIT_FAILURE;
    }
    return sd_notify(0, "READY=1") < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

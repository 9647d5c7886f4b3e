#include "core/network_interface.hpp"

#include <syslog.h>

#include "core/client_operations.hpp"
#include "core/network_properties.hpp"
#include "core/wifi_control.hpp"

namespace {

int connect_dbus(sd_bus_message* message, void*, sd_bus_error*)
{
    return connect_to_ap(message);
}

int scan_dbus(sd_bus_message* message, void*, sd_bus_error*)
{
    return scan_access_points(message);
}

int disconnect_dbus(sd_bus_message* message, void*, sd_bus_error*)
{
    return disconnect_from_ap(message);
}

int get_access_points(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                      sd_bus_error*)
{
    return get_wifi_access_points(reply);
}

constexpr uint64_t kProperty = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;

/** Says that callers need not wait; every method answers all the same. */
constexpr uint64_t kMethod = SD_BUS_VTABLE_METHOD_NO_REPLY;

// The macros below are made for a plain array. NOLINTNEXTLINE(modernize-avoid-c-arrays)
const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Connect", "ss", SD_BUS_NO_RESULT, connect_dbus, kMethod),
    SD_BUS_METHOD("Scan", SD_BUS_NO_ARGS, SD_BUS_NO_RESULT, scan_dbus, kMethod),
    SD_BUS_METHOD("Disconnect", SD_BUS_NO_ARGS, SD_BUS_NO_RESULT, disconnect_dbus, kMethod),
    SD_BUS_PROPERTY("IPAddress", "s", get_ip_address, 0, kProperty),
    SD_BUS_PROPERTY("MacAddress", "s", get_mac_address, 0, kProperty),
    SD_BUS_PROPERTY("AccessPoints", "a(siib)", get_access_points, 0, kProperty),
    SD_BUS_PROPERTY("WiFiSignal", "s", get_wifi_signal, 0, kProperty),
    SD_BUS_PROPERTY("WiFiAvailableFrequencies", "as", get_wifi_available_frequencies, 0, kProperty),
    SD_BUS_PROPERTY("WiFiConnectedClients", "u", get_wifi_connected_clients, 0, kProperty),
    SD_BUS_PROPERTY("WiFiClientState", "s", get_wifi_client_state, 0, kProperty),
    SD_BUS_PROPERTY("WiFiAccessPointInitialised", "b", get_wifi_access_point_initialised, 0, kProperty),
    SD_BUS_PROPERTY("ClientSSID", "s", get_wifi_client_ssid, 0, kProperty),
    SD_BUS_WRITABLE_PROPERTY("WiFiState", "u", get_wifi_state, set_wifi_state_dbus, 0, kProperty),
    SD_BUS_WRITABLE_PROPERTY("Mode", "s", get_wifi_mode, change_wifi_mode_dbus, 0, kProperty),
    SD_BUS_WRITABLE_PROPERTY("WiFiFrequency", "s", get_wifi_frequency, set_wifi_frequency_dbus, 0, kProperty),
    SD_BUS_WRITABLE_PROPERTY("SSID", "s", get_wifi_ssid, set_wifi_ssid_dbus, 0, kProperty),
    // Announced as one access point; the body is an array of them, which clients have always read.
    SD_BUS_SIGNAL("AccessPointsChanged", "(siib)", 0),
    SD_BUS_VTABLE_END,
};

constexpr int kRefused = -1;

} // namespace

const sd_bus_vtable* network_interface_vtable()
{
    return kVtable;
}

int set_wifi_state_dbus(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void*,
                        sd_bus_error*)
{
    uint32_t state = 0;
    if (sd_bus_message_read(value, "u", &state) < 0) {
        syslog(LOG_ERR, "%s: Failed to parse msg.", "set_wifi_state_dbus");
        return sd_bus_reply_method_errorf(value, SD_BUS_ERROR_FAILED, "Failed to parse msg");
    }
    return set_wifi_state(state);
}

int change_wifi_mode_dbus(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void*,
                          sd_bus_error*)
{
    syslog(LOG_INFO, "[Main] 'ChangeMode' d-bus method called");
    const char* mode = nullptr;
    if (sd_bus_message_read(value, "s", &mode) < 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to parse d-bus message", "change_wifi_mode_dbus");
        return kRefused;
    }
    return set_wifi_mode(mode, WriteThrough::On);
}

int set_wifi_frequency_dbus(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void*,
                            sd_bus_error*)
{
    syslog(LOG_INFO, "[Main] Set WiFi frequency called");
    const char* frequency = nullptr;
    if (sd_bus_message_read(value, "s", &frequency) < 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to parse dbus message", "set_wifi_frequency_dbus");
        return kRefused;
    }
    return set_wifi_frequency(frequency, WriteThrough::On);
}

int set_wifi_ssid_dbus(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void*,
                       sd_bus_error*)
{
    syslog(LOG_INFO, "Set 'SSID' property");
    const char* ssid = nullptr;
    if (sd_bus_message_read(value, "s", &ssid) < 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to parse d-bus message", "set_wifi_ssid_dbus");
        return kRefused;
    }
    return set_wifi_ssid(ssid, WriteThrough::On);
}

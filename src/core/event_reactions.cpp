#include "core/event_reactions.hpp"

#include <any>

#include <sigc++/sigc++.h>
#include <syslog.h>

#include "config/wifi_config.hpp"
#include "core/client_operations.hpp"
#include "core/delayed_emission.hpp"
#include "core/service.hpp"
#include "core/wifi_control.hpp"
#include "core/wired_dhcp_server.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "listeners/kernel_netlink_listener.hpp"
#include "radio/access_points.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/sd_bus_owners.hpp"

namespace {

constexpr const char* kWireless = "wlan0";

/** SSID and address of a fresh association take a moment to become readable. */
constexpr int32_t kSsidDelaySec = 2;

/** The pending restart of the hostapd listener; a later one takes its place. */
EventSourcePtr listenerRestart;

int restart_wifi_host_listener_callback(sd_event_source*, void*)
{
    syslog(LOG_INFO, "%s: Restarting...", "restart_wifi_host_listener_callback");
    hostapd_listener()->follow_successor_of_terminated();
    return 0;
}

void schedule_listener_restart()
{
    sd_event_source* source = nullptr;
    sd_event_add_defer(service_event(), &source, restart_wifi_host_listener_callback, nullptr);
    listenerRestart.reset(source);
}

using Operation = int(const std::string& value, WriteThrough writeThrough);

/** What a change of this setting asks for; null for a setting that asks for nothing, or is no text. */
Operation* operation_of(const std::string& setting)
{
    if (setting == "frequency") {
        return set_wifi_frequency;
    }
    if (setting == "mode") {
        return set_wifi_mode;
    }
    return setting == "deviceName" ? set_wifi_ssid : nullptr;
}

} // namespace

void connect_event_reactions()
{
    wpa_supplicant_get_access_points_signal().connect(sigc::ptr_fun(access_points_changed));

    WpaSupplicantDbusListener& station = *wpa_supplicant_get_listener();
    station.stateChanged.connect(sigc::ptr_fun(client_state_changed));
    station.connectFailed.connect(sigc::ptr_fun(client_connect_failed));

    HostapdSocketListner& accessPoint = *hostapd_listener();
    accessPoint.StationConnectedSignal.connect(sigc::ptr_fun(wifi_host_station_connected));
    accessPoint.StationDisconnectedSignal.connect(sigc::ptr_fun(wifi_host_station_disconnected));
    accessPoint.TerminatingSignal.connect(sigc::ptr_fun(wifi_host_terminated));
    accessPoint.ApEnabledSignal.connect(sigc::ptr_fun(wifi_host_ap_initialised));

    KernelNetlinkListener& addresses = *kernel_address_listener();
    addresses.AddressEventSignal.connect(sigc::ptr_fun(address_changed));
    addresses.AddressEventSignal.connect(sigc::ptr_fun(wired_dhcp_server_address_changed));
}

void wifi_host_ap_initialised(bool ready)
{
    syslog(LOG_INFO, "%s: AP State: %s", "wifi_host_ap_initialised", ready ? "READY" : "NOT READY");
    announce_access_point_initialised(ready);
}

void wifi_host_station_connected(const std::string& station)
{
    syslog(LOG_INFO, "%s: %s", "wifi_host_station_connected", station.c_str());
    emit_property_changed("WiFiConnectedClients");
}

void wifi_host_station_disconnected(const std::string& station)
{
    syslog(LOG_INFO, "%s: %s", "wifi_host_station_disconnected", station.c_str());
    emit_property_changed("WiFiConnectedClients");
}

void wifi_host_terminated()
{
    constexpr const char* kFunction = "wifi_host_terminated";

    syslog(LOG_ERR, "%s: hostapd terminated.", kFunction);
    WifiConfig config;
    if (!read_wifi_config(config)) {
        syslog(LOG_ERR, "Failed to read initial wifi configuration, use safe config");
        set_safe_wifi_config(config);
    }
    if (config.mode == WifiMode::Host) {
        syslog(LOG_ERR, "%s: We are supposed to be in host mode. Restart hostapd listener", kFunction);
        post_to_main_loop(schedule_listener_restart);
    }
}

void client_state_changed(const std::string& state, const std::string&)
{
    emit_property_changed("WiFiClientState");
    if (state == "completed") {
        emit_properties_later({"SSID"}, kSsidDelaySec);
    }
}

void address_changed(const std::string& interface, const std::string&, bool)
{
    if (interface == kWireless) {
        emit_property_changed("IPAddress");
    }
}

void settings_changed(const Settingsd::PropertyMap& settings)
{
    for (const auto& [name, typedValue] : settings) {
        const auto& [type, value] = typedValue;
        if (name == "enabled" && type == "b") {
            set_wifi_state(std::any_cast<bool>(value) ? 1 : 0);
        } else if (const auto take = operation_of(name); take != nullptr && type == "s") {
            const auto& text = std::any_cast<const std::string&>(value);
            // The echo of a first write must not undo a second one that has been taken meanwhile.
            if (!settings_is_outdated(name, text)) {
                take(text, WriteThrough::Off);
            }
        }
    }
}

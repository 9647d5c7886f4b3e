#include "core/network_properties.hpp"

#include <array>
#include <string>

#include <syslog.h>

#include "core/radio_state.hpp"
#include "korrin-info/korrin_info.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "radio/hostapd.hpp"
#include "radio/wifi_controller.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/utf8.hpp"
#include "utils/interface_queries.hpp"

namespace {

constexpr const char* kWireless = "wlan0";

int append_text(sd_bus_message* reply, const std::string& text)
{
    return sd_bus_message_append(reply, "s", utf8_text(text).c_str());
}

/** Reads the state and logs a mode that can not be read, as all getters that ask for the mode do. */
RadioState read_logged_radio_state()
{
    const RadioState state = read_radio_state();
    if (state == RadioState::Unknown) {
        syslog(LOG_ERR, "[Main] Failed to read wifi mode");
    }
    return state;
}

} // namespace

int get_ip_address(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                   sd_bus_error*)
{
    std::array<char, kIpAddressBufferSize> address{};
    if (wifi_get_enabled() != 0 && utils_get_ip_address(kWireless, address.data()) == 0) {
        syslog(LOG_WARNING, "[Main] Interface does not have IP address");
        address.front() = '\0';
    }
    return append_text(reply, address.data());
}

int get_mac_address(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                    sd_bus_error*)
{
    std::array<char, kMacAddressBufferSize> address{};
    if (utils_get_mac_address(kWireless, address.data()) == 0) {
        syslog(LOG_WARNING, "[Main] Interface does not have MAC address");
        address.front() = '\0';
    }
    return append_text(reply, address.data());
}

int get_wifi_signal(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                    sd_bus_error*)
{
    std::array<char, kSignalStrengthBufferSize> power{};
    utils_get_signal_strength(power.data());
    return append_text(reply, power.data());
}

int get_wifi_available_frequencies(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                   void*, sd_bus_error*)
{
    switch (KorrinInfo::ThisKorrin::RadioType()) {
    case 0:
        return sd_bus_message_append(reply, "as", 1, "2.4");
    case 1:
        return sd_bus_message_append(reply, "as", 2, "5", "2.4");
    default:
        return -1;
    }
}

int get_wifi_connected_clients(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                               sd_bus_error*)
{
    syslog(LOG_INFO, "Get 'WiFiConnectedClients' property");
    uint32_t count = 0;
    if (read_logged_radio_state() == RadioState::Host && hostapd_get_num_connected_clients(count) == 0) {
        // The text names another property; those who watch the log know it by this one.
        syslog(LOG_ERR, "[Main] Reading 'WiFiFrequency' while not in Host mode");
        count = 0;
    }
    return sd_bus_message_append(reply, "u", count);
}

int get_wifi_client_state(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                          sd_bus_error*)
{
    syslog(LOG_INFO, "Get 'WiFiClientState' property");
    const bool client = read_logged_radio_state() == RadioState::Client;
    return append_text(reply, client ? wpa_supplicant_get_listener()->GetState() : "off");
}

int get_wifi_access_point_initialised(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                      void*, sd_bus_error*)
{
    return sd_bus_message_append(reply, "b", static_cast<int>(hostapd_listener()->IsApEnabled()));
}

int get_wifi_client_ssid(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                         sd_bus_error*)
{
    syslog(LOG_INFO, "Get 'WiFiClientSSID' property");
    const bool client = read_logged_radio_state() == RadioState::Client;
    return append_text(reply, client ? wpa_supplicant_get_ssid() : "");
}

int get_wifi_state(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                   sd_bus_error*)
{
    const uint32_t state = wifi_get_enabled() != 0 ? 1 : 0;
    return sd_bus_message_append(reply, "u", state);
}

int get_wifi_mode(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*)
{
    switch (read_logged_radio_state()) {
    case RadioState::Host:
        return append_text(reply, "Host");
    case RadioState::Client:
        return append_text(reply, "Client");
    default:
        return append_text(reply, "unknown");
    }
}

int get_wifi_frequency(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                       sd_bus_error*)
{
    std::string frequency;
    if (read_logged_radio_state() == RadioState::Host) {
        hostapd_get_frequency(frequency);
    }
    return append_text(reply, frequency);
}

int get_wifi_ssid(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*)
{
    std::string ssid;
    if (read_logged_radio_state() == RadioState::Host && hostapd_get_ssid(ssid) == 0) {
        ssid.clear();
    }
    return append_text(reply, ssid);
}

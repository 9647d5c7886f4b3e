#include "core/wifi_control.hpp"

#include <syslog.h>

#include "config/wifi_config.hpp"
#include "core/service.hpp"
#include "radio/hostapd.hpp"
#include "radio/hostapd_config.hpp"
#include "radio/wifi_controller.hpp"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;

/** Starts the stored mode on a radio that has just been switched on. */
void start_mode(const char* function, WifiMode mode)
{
    if (wifi_mode_switch(mode) != 0) {
        emit_property_changed("Mode");
    } else {
        syslog(LOG_ERR, "[Main] %s: Failed to switch wifi mode", function);
    }
}

/** Stops the stored mode's services on a radio that has just been switched off. */
void stop_mode(const char* function, WifiMode mode)
{
    if (mode == WifiMode::Host) {
        if (wifi_host_stop() == 0) {
            syslog(LOG_ERR, "[WiFi] %s: Failed to stop Host mode", function);
        }
    } else if (wifi_client_stop() == 0) {
        syslog(LOG_ERR, "[WiFi] %s: Failed to stop Client mode", function);
    }
}

} // namespace

int set_wifi_state(uint32_t state)
{
    constexpr const char* kFunction = "set_wifi_state";

    if (state >= 2) {
        syslog(LOG_ERR, "[Main] %s: Unsupported state: %u", kFunction, state);
        return kFailed;
    }
    const bool on = state != 0;
    if (wifi_get_enabled() == static_cast<int>(state)) {
        syslog(LOG_ERR, "[Main] %s: already in wifi state %d", kFunction, static_cast<int>(state));
        return kDone;
    }

    WifiConfig config;
    if (!read_wifi_config(config)) {
        set_safe_wifi_config(config);
    }
    if (wifi_set_enabled(on) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to set wifi state", kFunction);
        return kFailed;
    }
    if (on) {
        start_mode(kFunction, config.mode);
    } else {
        stop_mode(kFunction, config.mode);
    }
    emit_property_changed("WiFiState");
    return kDone;
}

int set_wifi_mode(const std::string& mode, WriteThrough writeThrough)
{
    constexpr const char* kFunction = "set_wifi_mode";

    if (mode != "Host" && mode != "Client") {
        syslog(LOG_ERR, "[Main] %s: Unknown mode:%s", kFunction, mode.c_str());
        return kFailed;
    }
    const WifiMode target = mode == "Client" ? WifiMode::Client : WifiMode::Host;

    WifiMode current = WifiMode::Host;
    if (wifi_get_mode(current) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to read wifi mode", kFunction);
    } else if (current == target) {
        syslog(LOG_ERR, "[Main] %s: already in wifi mode %s", kFunction, mode.c_str());
        return kDone;
    }

    if (writeThrough == WriteThrough::On) {
        settings_set_wifi_mode(target);
    }
    if (wifi_get_enabled() == 0) {
        syslog(LOG_ERR, "[Main] %s: Cannot change mode, wifi is disabled", kFunction);
        return kDone;
    }
    if (wifi_mode_switch(target) == 0) {
        syslog(LOG_ERR, "[Main] %s: Mode switch failed", kFunction);
        return kFailed;
    }
    emit_property_changed("Mode");
    return kDone;
}

int set_wifi_frequency(const std::string& frequency, WriteThrough writeThrough)
{
    constexpr const char* kFunction = "set_wifi_frequency";

    if (frequency != "2.4" && frequency != "5") {
        syslog(LOG_ERR, "[Main] %s: Invalid WiFi requency", kFunction);
        return kFailed;
    }
    if (frequency == "5" && !radio_supports_5ghz()) {
        syslog(LOG_ERR, "[Main] %s: This device do not support 5GHz", kFunction);
        return kFailed;
    }

    std::string current;
    if (hostapd_get_frequency(current) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to read wifi frequency", kFunction);
    } else if (current == frequency) {
        syslog(LOG_ERR, "[Main] %s: already on wifi frequency %s", kFunction, frequency.c_str());
        return kDone;
    }

    if (writeThrough == WriteThrough::On) {
        settings_set_frequency(frequency);
    }
    if (wifi_get_enabled() == 0) {
        syslog(LOG_INFO, "[Main] %s: Changing frequency, while wifi is disabled", kFunction);
        return kDone;
    }
    WifiMode mode = WifiMode::Host;
    if (wifi_get_mode(mode) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to read wifi mode", kFunction);
        return kFailed;
    }
    if (mode == WifiMode::Client) {
        syslog(LOG_ERR, "[Main] %s: Failed, Wifi is not in host mode", kFunction);
        return kFailed;
    }
    if (hostapd_set_frequency(frequency) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to restart hostapd - with new wifi frequency", kFunction);
        return kFailed;
    }
    emit_property_changed("WiFiFrequency");
    return kDone;
}

int set_wifi_ssid(const std::string& ssid, WriteThrough writeThrough)
{
    constexpr const char* kFunction = "set_wifi_ssid";

    std::string current;
    if (hostapd_get_ssid(current) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to get wifi ssid", kFunction);
    } else if (current == ssid || (ssid.size() <= kMaxSsidLength && current == hostapd_value_of(ssid))) {
        return kDone;
    }
    if (ssid.size() > kMaxSsidLength) {
        syslog(LOG_ERR, "[Main] %s: SSID is too long", kFunction);
        return kFailed;
    }

    if (writeThrough == WriteThrough::On) {
        settings_set_device_name(ssid);
    }
    if (wifi_get_enabled() == 0) {
        syslog(LOG_INFO, "[Main] %s: Changing SSID, while wifi is disabled", kFunction);
        return kDone;
    }
    if (hostapd_set_ssid(ssid) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to restart hostapd - with new SSID", kFunction);
        return kFailed;
    }
    emit_property_changed("SSID");
    return kDone;
}

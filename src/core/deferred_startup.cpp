#include "core/deferred_startup.hpp"

#include <syslog.h>

#include "config/wifi_config.hpp"
#include "core/event_reactions.hpp"
#include "core/service.hpp"
#include "listeners/kernel_netlink_listener.hpp"
#include "radio/wifi_controller.hpp"

namespace {

constexpr const char* kFunction = "init_wifi_callback";

WifiConfig initial_config()
{
    WifiConfig config;
    if (!read_wifi_config(config)) {
        syslog(LOG_ERR, "[Main] Failed to read initial wifi configuration, use safe config");
        set_safe_wifi_config(config);
    }
    return config;
}

void start_initial_mode(WifiMode mode)
{
    syslog(LOG_INFO, "[Main] WiFi is on, start in '%s' mode", mode == WifiMode::Client ? "Client" : "Host");
    if (wifi_mode_switch(mode) != 0) {
        emit_property_changed("Mode");
    } else {
        syslog(LOG_INFO, "[Main] %s: Failed to change wifi mode, hope for best and continue", kFunction);
    }
}

} // namespace

int init_wifi_callback(sd_event_source*, void*)
{
    syslog(LOG_INFO, "Setup initial WiFi mode");
    const WifiConfig config = initial_config();
    dump_wifi_config(config);

    if (wifi_set_enabled(config.enabled) == 0) {
        syslog(LOG_INFO, "[Main] %s: Failed to change wifi state, hope for best and continue", kFunction);
    }
    const bool on = wifi_get_enabled() != 0;
    emit_property_changed("WiFiState");
    if (on) {
        start_initial_mode(config.mode);
    } else {
        syslog(LOG_INFO, "[Main] WiFi is disabled, do nothing...");
    }

    // Only now: what the first switch causes has been announced above.
    connect_event_reactions();
    kernel_address_listener()->Start();
    return 0;
}

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

void defer_startup(sd_event* event)
{
    // Before all else that the loop may find waiting by then: a change of settings that was told meanwhile
    // must find the radio set up, and not be undone by that.
    constexpr int64_t kFirst = SD_EVENT_PRIORITY_IMPORTANT;

    sd_event_source* source = nullptr;
    sd_event_add_defer(event, &source, init_wifi_callback, nullptr);
    if (source != nullptr) {
        sd_event_source_set_priority(source, kFirst);
        sd_event_source_set_floating(source, 1);
        sd_event_source_unref(source);
    }
}

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

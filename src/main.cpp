#include <cstdlib>

#include <sigc++/sigc++.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include "config/settings_client.hpp"
#include "core/deferred_startup.hpp"
#include "core/event_reactions.hpp"
#include "core/heartbeat.hpp"
#include "core/service.hpp"
#include "core/stop_signals.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "listeners/kernel_netlink_listener.hpp"
#include "radio/wifi_controller.hpp"
#include "radio/wpa_supplicant.hpp"

namespace {

/**
 * The log's connection comes first of all, before the objects that are made ahead of main() take descriptors:
 * where there are too few, the line that says so must not be what lacks one.
 */
[[gnu::constructor(101)]] void open_log()
{
    openlog(nullptr, LOG_NDELAY, LOG_USER);
}

/** For those who hold a binary in their hands: strings(1) finds it. The program itself takes no arguments. */
[[gnu::used, gnu::retain]] const char* const kVersionText = "vantora-network " VANTORA_VERSION;

void start_settings()
{
    auto& settings = service_create_settings();
    settings.Listen();
    for (const char* section : {"network", "device"}) {
        settings.section_signal(section)->connect(sigc::ptr_fun(settings_changed));
    }
}

void kill_wifi_when_asked_to()
{
    constexpr const char* kKey = "killWifiOnBoot";

    bool kill = false;
    if (Settingsd::SettingsDaemonDbusHandler::GetSetting("development", kKey, kill) < 0) {
        syslog(LOG_WARNING, "Failed to get '%s' setting", kKey);
        kill = false;
    }
    if (kill) {
        syslog(LOG_INFO, "[Main] %s: Killing Wi-Fi on boot", "main");
        wifi_set_enabled(false);
    }
}

/** Whether a step of the start went well. What could not be set up ends the start, for another one. */
bool set_up(const char* what, int result)
{
    if (result < 0) {
        syslog(LOG_ERR, "[Main] Failed to set up %s: %d, exiting ...", what, result);
    }
    return result >= 0;
}

} // namespace

int main()
{
    // hostapd's configuration holds a passphrase: from its first moment on nobody else may open it, whatever
    // umask this program was started with.
    umask(S_IRWXG | S_IRWXO);

    StopSignals stopSignals;

    syslog(LOG_INFO, "[Main] Starting Vantora Network service");
    const auto endLoop = [] { sd_event_exit(service_event(), EXIT_SUCCESS); };
    if (!set_up("the stop signals", stopSignals.watch([endLoop] { post_to_main_loop(endLoop); }))) {
        return EXIT_FAILURE;
    }

    const int result = service_set_up();
    if (result < 0) {
        syslog(LOG_ERR, "[Main] Failed to connect to dbus: %d, exiting ...", result);
        return EXIT_FAILURE;
    }

    start_settings();
    wpa_supplicant_init(service_event());
    kill_wifi_when_asked_to();
    defer_startup(service_event());
    start_heartbeat(service_event());
    // Where the unit wants it (WatchdogSec=), the loop tells the service manager from now on that it is
    // alive.
    if (!set_up("the watchdog", sd_event_set_watchdog(service_event(), 1)) ||
        !set_up("the word that the start is over", sd_notify(0, "READY=1"))) {
        return EXIT_FAILURE;
    }

    sd_event_loop(service_event());

    stopSignals.end_in_time();
    kernel_address_listener()->Stop();
    hostapd_listener()->Stop();
    service_tear_down();
    return EXIT_SUCCESS;
}

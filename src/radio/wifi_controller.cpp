#include "radio/wifi_controller.hpp"

#include <string>
#include <string_view>

#include <syslog.h>

#include "radio/hostapd.hpp"
#include "radio/wpa_supplicant.hpp"
#include "utils/dhcp_units.hpp"
#include "utils/shell_commands.hpp"
#include "utils/shell_process.hpp"

namespace {

constexpr size_t kPipeLimit = 256;
constexpr const char* kAccessPointAddress = "192.168.8.1/24";

void log_separator()
{
    syslog(LOG_INFO, "--------------------------------------------");
}

void log_heading(const char* text)
{
    log_separator();
    syslog(LOG_INFO, "%s", text);
    log_separator();
}

void flush_addresses()
{
    if (!utils_flush_ip()) {
        syslog(LOG_WARNING, "[WiFi] Failed to flush IP, interface might have inavlid IP");
    }
}

bool contains(std::string_view text, std::string_view word)
{
    return text.find(word) != std::string_view::npos;
}

} // namespace

int wifi_get_enabled()
{
    ShellPipe pipe("rfkill list wlan | tail -n +2 ");
    if (!pipe) {
        return 0;
    }
    const std::string output = pipe.read(kPipeLimit);
    return contains(text_of(output), "yes") ? 0 : 1;
}

int wifi_get_state()
{
    return wifi_get_enabled();
}

int wifi_set_enabled(bool on)
{
    constexpr const char* kFunction = "wifi_set_enabled";

    syslog(LOG_INFO, "[WiFi] Enable wifi: %s", on ? "True" : "False");
    const int status = utils_do_system_call(on ? "rfkill unblock wlan" : "rfkill block wlan");
    if (status == 0) {
        return 1;
    }
    if (on) {
        syslog(LOG_ERR, "[WiFi] %s: Unable to power on wifi, error: %d", kFunction, status);
    } else {
        syslog(LOG_ERR, "%s: Unable to power off wifi, error: %d", kFunction, status);
    }
    return 0;
}

int wifi_get_mode(WifiMode& mode)
{
    ShellPipe pipe("iw dev wlan0 info | grep type");
    if (!pipe) {
        return 0;
    }
    const std::string output = pipe.read(kPipeLimit);
    const std::string_view type = text_of(output);
    if (contains(type, "AP")) {
        mode = WifiMode::Host;
        return 1;
    }
    if (contains(type, "managed")) {
        mode = WifiMode::Client;
        return 1;
    }
    return 0;
}

int wifi_client_start()
{
    log_heading("[WiFi] Start Client mode");
    const int result = wpa_supplicant_start();
    if (result == 0) {
        syslog(LOG_ERR, "[WiFi] %s: Failed to start WPA supplicant", "wifi_client_start");
        return result;
    }
    flush_addresses();
    log_separator();
    return result;
}

int wifi_client_stop()
{
    log_heading("[WiFi] Stop Client mode");
    if (dhcp_client_stop() == 0) {
        syslog(LOG_ERR, "%s: Unable to stop udhcpc", "wifi_client_stop");
        return 0;
    }
    const int result = wpa_supplicant_stop();
    if (result != 0) {
        log_separator();
    } else {
        syslog(LOG_ERR, "Failed to stop WPE Supplicant service");
    }
    return result;
}

int wifi_host_start()
{
    log_heading("[WiFi] Start Host mode");
    flush_addresses();
    if (!utils_add_ip(kAccessPointAddress)) {
        syslog(LOG_ERR, "[WiFi] %s: Failed to add IP address", "wifi_host_start");
        return 0;
    }
    if (hostapd_start() == 0) {
        syslog(LOG_WARNING, "[WiFi] Failed to start hostapd service");
        return 0;
    }
    if (dhcp_server_start() == 0) {
        syslog(LOG_WARNING, "[WiFi] Failed to start udhcpd service");
        return 0;
    }
    log_separator();
    return 1;
}

int wifi_host_stop()
{
    log_heading("[WiFi] Stop Host mode");
    if (dhcp_server_stop() == 0) {
        syslog(LOG_WARNING, "[WiFi] Failed to stop udhcpd service");
        return 0;
    }
    const int result = hostapd_stop();
    if (result != 0) {
        log_separator();
    } else {
        syslog(LOG_WARNING, "[WiFi] Failed to stop hostapd service");
    }
    return result;
}

int wifi_mode_switch(WifiMode target)
{
    constexpr const char* kFunction = "wifi_mode_switch";

    syslog(LOG_INFO, "[WiFi] Switch wifi mode to %d", static_cast<int>(target));
    if (target != WifiMode::Host) {
        if (wifi_host_stop() == 0) {
            syslog(LOG_ERR, "[WiFi] %s: Failed to stop Host mode", kFunction);
            return 0;
        }
        if (wifi_client_start() == 0) {
            syslog(LOG_ERR, "[WiFi] %s: Failed to start Client mode", kFunction);
            return 0;
        }
    } else {
        if (wifi_client_stop() == 0) {
            syslog(LOG_ERR, "[WiFi] %s: Failed to stop Client mode", kFunction);
            return 0;
        }
        if (wifi_host_start() == 0) {
            syslog(LOG_ERR, "[WiFi] %s: Failed to start Host mode", kFunction);
            return 0;
        }
    }
    return 1;
}

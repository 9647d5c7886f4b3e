#include "core/client_operations.hpp"

#include <string>

#include <syslog.h>

#include "core/radio_state.hpp"
#include "core/service.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/sd_bus_owners.hpp"
#include "support/utf8.hpp"
#include "utils/shell_commands.hpp"

namespace {

constexpr const char* kAccessPointType = "siib";
constexpr const char* kAccessPointArrayType = "(siib)";

int reply_success(sd_bus_message* message)
{
    return sd_bus_reply_method_return(message, "");
}

int reply_failure(sd_bus_message* message, const char* text)
{
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "%s", text);
}

/** Logs why a radio that is on is no station. Returns the text of the method's error; null for a station. */
const char* refusal_unless_client(const char* function, RadioState state)
{
    if (state == RadioState::Unknown) {
        syslog(LOG_ERR, "[Main] %s: Failed to read wifi mode", function);
        return "WiFi is in unknown mode";
    }
    if (state == RadioState::Host) {
        syslog(LOG_ERR, "[Main] %s: Wifi must be in client mode", function);
        return "WiFi is not in client mode";
    }
    return nullptr;
}

void flush_addresses()
{
    if (!utils_flush_ip()) {
        syslog(LOG_WARNING, "[Main] Failed to flush IP, interface might have inavlid IP");
    }
}

/**
 * wpa_supplicant keeps every network that it was given; without this each connect would leave one behind.
 * After a disconnect there is no current network any more: that one stays until wpa_supplicant's next start.
 */
void remove_current_network()
{
    std::string path;
    if (wpa_supplicant_get_current_network(path)) {
        wpa_supplicant_remove_network(path);
    }
}

/** Appends the fields of one access point to the struct that is open. */
void append_access_point(sd_bus_message* message, const AccessPoint& accessPoint)
{
    sd_bus_message_append(message, kAccessPointType, utf8_text(accessPoint.ssid).c_str(), accessPoint.privacy,
                          accessPoint.signal, static_cast<int>(accessPoint.wpa_psk));
}

/** Fills the body of the signal. Returns false, with the failed step logged, when it can not be sent. */
bool append_signal_body(sd_bus_message* signal, const AccessPoints& accessPoints)
{
    constexpr const char* kFunction = "access_points_changed";

    if (sd_bus_message_open_container(signal, SD_BUS_TYPE_ARRAY, kAccessPointArrayType) < 0) {
        syslog(LOG_ERR, "[Main] %s: sd_bus_open_container array failed", kFunction);
        return false;
    }
    for (const AccessPoint& accessPoint : accessPoints) {
        if (sd_bus_message_open_container(signal, SD_BUS_TYPE_STRUCT, kAccessPointType) < 0) {
            syslog(LOG_ERR, "[Main] %s: sd_bus_open_container struct failed", kFunction);
            return false;
        }
        append_access_point(signal, accessPoint);
        if (sd_bus_message_close_container(signal) < 0) {
            syslog(LOG_ERR, "[Main] %s: sd_bus_close_container struct failed", kFunction);
            return false;
        }
    }
    if (sd_bus_message_close_container(signal) < 0) {
        syslog(LOG_ERR, "[Main] %s: sd_bus_close_container failed", kFunction);
        return false;
    }
    return true;
}

} // namespace

int scan_access_points(sd_bus_message* message)
{
    if (wpa_supplicant_scan() == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to start AP scan", "scan_access_points");
        return reply_failure(message, "Failed to start AP scan");
    }
    return reply_success(message);
}

int connect_to_ap(sd_bus_message* message)
{
    constexpr const char* kFunction = "connect_to_ap";

    syslog(LOG_INFO, "[Main] Connect to the AP");
    const RadioState state = read_radio_state();
    if (state == RadioState::Off) {
        syslog(LOG_ERR, "[Main] %s: Wifi is disabled", kFunction);
        return reply_failure(message, "Wifi is off");
    }
    if (const char* refusal = refusal_unless_client(kFunction, state)) {
        return reply_failure(message, refusal);
    }
    const char* ssid = nullptr;
    const char* passphrase = nullptr;
    if (sd_bus_message_read(message, "ss", &ssid, &passphrase) < 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to parse d-bus message", kFunction);
        return reply_failure(message, "Failed to parse d-bus message");
    }

    syslog(LOG_INFO, "[Main] Flush IP address");
    flush_addresses();
    remove_current_network();

    syslog(LOG_INFO, "[Main] Add new network");
    std::string path;
    if (wpa_supplicant_add_network(ssid, passphrase, path) == 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to add network to WPE supplicant", kFunction);
        return reply_failure(message, "Failed to add network");
    }

    syslog(LOG_INFO, "[Main] Select just added network");
    if (!wpa_supplicant_select_network(path)) {
        syslog(LOG_ERR, "[Main] %s: Failed to connect to AP", kFunction);
        wpa_supplicant_remove_network(path);
        emit_property_changed("WiFiClientState");
        return reply_failure(message, "Failed to connect to AP");
    }
    return reply_success(message);
}

int disconnect_from_ap(sd_bus_message* message)
{
    constexpr const char* kFunction = "disconnect_from_ap";

    syslog(LOG_INFO, "[Main] Disconnect from AP called");
    const RadioState state = read_radio_state();
    if (state == RadioState::Off) {
        syslog(LOG_ERR, "[Main] %s: Wifi is off", kFunction);
        return reply_failure(message, "Wifi is off");
    }
    if (const char* refusal = refusal_unless_client(kFunction, state)) {
        return reply_failure(message, refusal);
    }
    if (!wpa_supplicant_disconnect_network()) {
        // The same words as for a failed connect, in the log as in the answer.
        syslog(LOG_ERR, "[Main] %s: Failed to connect to AP", kFunction);
        return reply_failure(message, "Failed to connect to AP");
    }
    flush_addresses();
    emit_property_changed("SSID");
    emit_property_changed("IPAddress");
    return reply_success(message);
}

int get_wifi_access_points(sd_bus_message* reply)
{
    AccessPoints accessPoints;
    switch (read_radio_state()) {
    case RadioState::Off:
        syslog(LOG_ERR, "[Main] %s: Wifi is not enabled", "get_wifi_access_points");
        break;
    case RadioState::Unknown:
        syslog(LOG_ERR, "[Main] Failed to read wifi mode");
        break;
    case RadioState::Host:
        break;
    case RadioState::Client:
        if (wpa_supplicant_get_access_points(accessPoints) == 0) {
            syslog(LOG_ERR, "[Main]  Something went wrong with getting APs");
            accessPoints.clear();
        }
        break;
    }
    sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, kAccessPointArrayType);
    for (const AccessPoint& accessPoint : accessPoints) {
        sd_bus_message_open_container(reply, SD_BUS_TYPE_STRUCT, kAccessPointType);
        append_access_point(reply, accessPoint);
        sd_bus_message_close_container(reply);
    }
    return sd_bus_message_close_container(reply);
}

void access_points_changed(const AccessPoints& accessPoints)
{
    constexpr const char* kFunction = "access_points_changed";

    syslog(LOG_INFO, "[Main] Access points changed");
    sd_bus_message* created = nullptr;
    if (sd_bus_message_new_signal(service_bus(), &created, kNetworkPath, kNetworkInterface,
                                  "AccessPointsChanged") < 0) {
        syslog(LOG_ERR, "[Main] %s: Failed to create new signal message", kFunction);
        return;
    }
    const MessagePtr signal(created);
    if (!append_signal_body(signal.get(), accessPoints)) {
        return;
    }
    if (sd_bus_send(service_bus(), signal.get(), nullptr) < 0) {
        syslog(LOG_ERR, "[Main] %s: sd_bus_send failed", kFunction);
    }
}

void client_connect_failed()
{
    syslog(LOG_ERR, "Failed to connect to AP");
    remove_current_network();
}

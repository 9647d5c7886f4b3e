#include "radio/wpa_supplicant.hpp"

#include <cerrno>

#include <syslog.h>

#include "listeners/wpa_supplicant_names.hpp"
#include "radio/access_points.hpp"
#include "support/bus_connection.hpp"
#include "utils/shell_process.hpp"
#include "utils/systemd_units.hpp"
#include "utils/unit_job.hpp"

namespace {

using namespace wpa_supplicant_names;

constexpr const char* kUnit = "wpa_supplicant-nl80211@wlan0.service";
constexpr size_t kPipeLimit = 256;

/** Never destroyed: its slots may be called as long as the loop exists. */
WpaSupplicantDbusListener* listener = nullptr;

/** A network by its object path, which means something to the process that gave it and to no other. */
struct Network
{
    std::string path;  // empty: none
    std::string giver; // the bus name that this process alone has; empty where it is not known
};

Network addedNetwork;   // by the last call that added one
Network currentNetwork; // last selected

/**
 * Opens the bus and calls a method of the interface object, whose reply carries nothing. Both failures are
 * logged with the caller's name. Returns the last result code; `opened` tells whether the bus could be
 * opened.
 */
template <typename... Arguments>
int call_interface(const char* function, bool& opened, const char* method, const char* types,
                   Arguments... arguments)
{
    BusPtr bus;
    int result = open_system_bus(bus);
    opened = result >= 0;
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to open system bus", function);
        return result;
    }
    BusError error;
    sd_bus_message* received = nullptr;
    result = sd_bus_call_method(bus.get(), kCallService, kInterfacePath, kInterface, method, error.get(),
                                &received, types, arguments...);
    const MessagePtr reply(received);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to call dbus method", function);
    }
    return result;
}

/** Appends the description of a network. Returns what sd_bus_message_append(3) returns. */
int append_network(sd_bus_message* message, const std::string& ssid, const std::string& passphrase)
{
    if (passphrase.empty()) {
        return sd_bus_message_append(message, "a{sv}", 2, "ssid", "s", ssid.c_str(), "key_mgmt", "s", "NONE");
    }
    return sd_bus_message_append(message, "a{sv}", 3, "ssid", "s", ssid.c_str(), "key_mgmt", "s", "WPA-PSK",
                                 "psk", "s", passphrase.c_str());
}

/** Sends AddNetwork and reads the new network's path. Returns the last result code. */
int add_network(const std::string& ssid, const std::string& passphrase, std::string& path)
{
    constexpr const char* kFunction = "wpa_supplicant_add_network";

    BusPtr bus;
    int result = open_system_bus(bus);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to open system bus", kFunction);
        return result;
    }
    sd_bus_message* created = nullptr;
    result = sd_bus_message_new_method_call(bus.get(), &created, kCallService, kInterfacePath, kInterface,
                                            "AddNetwork");
    const MessagePtr message(created);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to init new dbus method", kFunction);
        return result;
    }
    result = append_network(message.get(), ssid, passphrase);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to build request message", kFunction);
        return result;
    }
    BusError error;
    sd_bus_message* received = nullptr;
    result = sd_bus_call(bus.get(), message.get(), 0, error.get(), &received);
    const MessagePtr reply(received);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Method call failed", kFunction);
        return result;
    }
    const char* added = nullptr;
    result = sd_bus_message_read(reply.get(), "o", &added);
    if (result < 0) {
        syslog(LOG_ERR, "[WPA] %s: Failed to read response", kFunction);
        return result;
    }
    path = added != nullptr ? added : "";
    const char* giver = sd_bus_message_get_sender(reply.get());
    addedNetwork = {path, giver != nullptr ? giver : ""};
    syslog(LOG_INFO, "[WPA] Network object added '%s'", path.c_str());
    return result;
}

/** Whether wpa_supplicant's name belongs to another process than the one that gave the network's path, or to
 * none. Where the bus does not tell, it is taken to be the same. */
bool has_gone_with_its_giver(const Network& network)
{
    BusPtr bus;
    if (network.giver.empty() || open_system_bus(bus) < 0) {
        return false;
    }
    sd_bus_creds* received = nullptr;
    const int result = sd_bus_get_name_creds(bus.get(), kCallService, SD_BUS_CREDS_UNIQUE_NAME, &received);
    const CredsPtr creds(received);
    const char* owner = nullptr;
    if (result < 0 || sd_bus_creds_get_unique_name(creds.get(), &owner) < 0) {
        return result == -ENXIO;
    }
    return network.giver != owner;
}

} // namespace

int wpa_supplicant_init(sd_event* event)
{
    syslog(LOG_INFO, "[WPA] Initialize WPA Supplicant");
    listener = new WpaSupplicantDbusListener(event);
    listener->Start();
    wpa_supplicant_follow_access_points(*listener);
    return 1;
}

WpaSupplicantDbusListener* wpa_supplicant_get_listener()
{
    return listener;
}

int wpa_supplicant_start()
{
    currentNetwork = {};
    return wpa_supplicant_start_service();
}

int wpa_supplicant_stop()
{
    currentNetwork = {};
    return wpa_supplicant_stop_service();
}

int wpa_supplicant_start_service()
{
    syslog(LOG_INFO, "Starting WPA Supplicant daemon service");
    return run_unit_job(kUnit, utils_start_service);
}

int wpa_supplicant_restart_service()
{
    syslog(LOG_INFO, "Re-Starting WPA Supplicant daemon service");
    return run_unit_job(kUnit, utils_restart_service);
}

int wpa_supplicant_stop_service()
{
    syslog(LOG_INFO, "Stoping WPA Supplicant daemon service");
    return run_unit_job(kUnit, utils_stop_service);
}

int wpa_supplicant_scan()
{
    syslog(LOG_INFO, "[WPA] Scan APs");
    bool opened = false;
    return call_interface("wpa_supplicant_scan", opened, "Scan", "a{sv}", 1, "Type", "s", "active") != 0 ? 1
                                                                                                         : 0;
}

int wpa_supplicant_add_network(const std::string& ssid, const std::string& passphrase, std::string& path)
{
    syslog(LOG_INFO, "[WPA] Add network '%s', passphrase '%s'", ssid.c_str(), passphrase.c_str());
    return add_network(ssid, passphrase, path) != 0 ? 1 : 0;
}

bool wpa_supplicant_select_network(const std::string& path)
{
    syslog(LOG_INFO, "[WPA] Select network:%s", path.c_str());
    currentNetwork = {path, path == addedNetwork.path ? addedNetwork.giver : ""};
    bool opened = false;
    return call_interface("wpa_supplicant_select_network", opened, "SelectNetwork", "o", path.c_str()) >= 0;
}

bool wpa_supplicant_remove_network(const std::string& path)
{
    syslog(LOG_INFO, "[WPA] Remove network: %s", path.c_str());
    bool opened = false;
    const int result =
        call_interface("wpa_supplicant_remove_network", opened, "RemoveNetwork", "o", path.c_str());
    if (opened) {
        currentNetwork = {};
    }
    return result >= 0;
}

bool wpa_supplicant_disconnect_network()
{
    bool opened = false;
    const int result = call_interface("wpa_supplicant_disconnect_network", opened, "Disconnect", "");
    if (opened) {
        currentNetwork = {};
    }
    return result >= 0;
}

bool wpa_supplicant_get_current_network(std::string& path)
{
    if (has_gone_with_its_giver(currentNetwork)) {
        currentNetwork = {};
    }
    if (currentNetwork.path.empty()) {
        return false;
    }
    path = currentNetwork.path;
    return true;
}

std::string wpa_supplicant_get_ssid()
{
    ShellPipe pipe(R"(wpa_cli status | grep -w ssid=* | cut -d'=' -f2 | tr -d '\n')");
    return std::string(text_of(pipe.read(kPipeLimit)));
}

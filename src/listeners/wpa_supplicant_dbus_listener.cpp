#include "listeners/wpa_supplicant_dbus_listener.hpp"

#include <any>
#include <utility>

#include <syslog.h>

#include "dbus-helper/sdbus_utils.hpp"
#include "listeners/wpa_supplicant_names.hpp"
#include "support/bus_connection.hpp"
#include "utils/dhcp_units.hpp"

namespace {

using namespace wpa_supplicant_names;

constexpr const char* kCompleted = "completed";
constexpr const char* kDisconnected = "disconnected";
constexpr const char* kHandshake = "4way_handshake";

/** A state of this program's own: wpa_supplicant reports a refused passphrase as "disconnected". */
constexpr const char* kFailed = "failed";

/** wpa_supplicant's path for "no BSS". */
constexpr const char* kNoBss = "/";

} // namespace

WpaSupplicantDbusListener::WpaSupplicantDbusListener(sd_event* event)
    : DbusHelper::DbusListener(event, DbusHelper::BusType::System)
{
}

int32_t WpaSupplicantDbusListener::Start()
{
    constexpr const char* kFunction = "Start";

    syslog(LOG_INFO, "[WPA Listener] Start. %p", static_cast<void*>(this));
    int32_t result = Connect();
    if (result < 0) {
        syslog(LOG_ERR, "%s: Could not connect to DBus: %d", kFunction, result);
    } else {
        syslog(LOG_INFO, "[WPA Listener] Start listening");
        result =
            ListenSignal(kSignalService, "", kInterface, "PropertiesChanged", PropertyChangedCallback, this);
    }
    if (result < 0) {
        syslog(LOG_ERR, "%s: Could not listen to signal: %d", kFunction, result);
    }
    syslog(LOG_INFO, "[WPA Listener] Start completed");
    return result;
}

int32_t WpaSupplicantDbusListener::Stop()
{
    syslog(LOG_INFO, "[WPA Listener] Stop");
    Disconnect();
    return 0;
}

int WpaSupplicantDbusListener::PropertyChangedCallback(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<WpaSupplicantDbusListener*>(userdata);

    syslog(LOG_INFO, "[WPA Supplicant] Properties changed");

    const bool sameReporter = self->take_reporter(sd_bus_message_get_sender(message));
    const std::string oldState = self->currentState_;
    std::string newState;
    std::string ssid;
    sdbus_utils::PropertyMap properties;
    if (sdbus_utils::ParseProperties(message, properties) < 0) {
        properties.clear();
    }
    // In key order, so "CurrentBSS" has told the SSID before "State" is handled.
    for (const auto& [name, value] : properties) {
        if (name == "State") {
            newState = std::any_cast<const std::string&>(value);
            self->handle_state_property(newState, oldState, sameReporter);
        } else if (name == "CurrentBSS") {
            const auto& path = std::any_cast<const std::string&>(value);
            ssid = GetBssSsid(path);
            syslog(LOG_INFO, "[WPE supplicant] BSS changed: %s SSID: %s", path.c_str(),
                   ssid.empty() ? "<none>" : ssid.c_str());
        } else if (name == "BSSs") {
            self->bssListChanged.emit(std::any_cast<const std::vector<std::string>&>(value));
        }
    }
    if (!newState.empty() && newState != oldState) {
        self->StateChangeHandler(newState, ssid);
    }
    return 0;
}

bool WpaSupplicantDbusListener::take_reporter(const char* sender)
{
    const std::string before = std::exchange(reporter_, sender != nullptr ? sender : "");
    return before == reporter_;
}

void WpaSupplicantDbusListener::handle_state_property(std::string& newState, const std::string& oldState,
                                                      bool sameReporter)
{
    constexpr const char* kFunction = "PropertyChangedCallback";

    syslog(LOG_INFO, "[WPA Supplicant] State change: '%s' -> '%s'", oldState.c_str(), newState.c_str());
    if (newState == kCompleted) {
        syslog(LOG_INFO, "[WPA Supplicant] Restarting udhcpc");
        if (dhcp_client_restart() == 0) {
            syslog(LOG_WARNING, "[WPE supplicant] %s: Failed to restart UDHCPC", kFunction);
        }
    } else if (newState == kDisconnected && oldState == kHandshake && sameReporter) {
        syslog(LOG_WARNING, "[WPE supplicant] %s: Failed to connect to the accesspoint", kFunction);
        newState = kFailed;
        connectFailed.emit();
    }
}

void WpaSupplicantDbusListener::StateChangeHandler(const std::string& state, const std::string& ssid)
{
    currentState_ = state;
    if (state != kCompleted && state != kDisconnected && state != kFailed) {
        return;
    }
    syslog(LOG_INFO, "%s: Emitting state change: state = %s ssid = %s", "StateChangeHandler", state.c_str(),
           ssid.c_str());
    stateChanged.emit(currentState_, ssid);
}

std::string WpaSupplicantDbusListener::GetBssSsid(const std::string& path)
{
    if (path == kNoBss) {
        return {};
    }
    BusPtr bus;
    if (open_system_bus(bus) < 0) {
        return {};
    }
    BusError error;
    sd_bus_message* received = nullptr;
    const int result = sd_bus_get_property(bus.get(), kSignalService, path.c_str(), kBssInterface, "SSID",
                                           error.get(), &received, "ay");
    const MessagePtr reply(received);
    if (result < 0) {
        return {};
    }
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(reply.get(), 'y', &bytes, &size) < 0) {
        return {};
    }
    return {static_cast<const char*>(bytes), size};
}

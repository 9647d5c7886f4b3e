#include "radio/hostapd.hpp"

#include <array>
#include <chrono>
#include <cstdio>

#include <syslog.h>

#include "config/wifi_config.hpp"
#include "listeners/control_request.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "listeners/wpa_socket_command.hpp"
#include "radio/hostapd_config.hpp"
#include "utils/pause.hpp"
#include "utils/systemd_units.hpp"
#include "utils/unit_job.hpp"

namespace {

constexpr const char* kUnit = "hostapd.service";
constexpr const char* kInterface = "wlan0";
constexpr long kLetGoPauseNsec = 500'000'000;

/** More stations than this no access point can have, so a socket that names more is not to be believed. */
constexpr int kMaxStations = 2007;

/** Of a station's record only the beginning is wanted: its address. One more byte stays NUL. */
constexpr size_t kRecordSize = 32;
using StationRecord = std::array<char, kRecordSize + 1>;

/** What the access point was last started or reconfigured with. */
struct
{
    std::string ssid;
    std::string frequency;
} running;

/** What start and restart share: configuration, then a start job. Returns its result. */
int32_t configure_and_start()
{
    HostapdConfig overrides;
    hostapd_get_overrides(overrides);
    running.ssid = hostapd_value_of(overrides[kHostapdSsid]);
    running.frequency = hostapd_frequency_of(overrides[kHostapdHwMode]);
    if (hostapd_set_conf(overrides) == 0) {
        syslog(LOG_WARNING, "[WiFi] Failed to set hostapd configuration");
    }
    return run_unit_job(kUnit, utils_start_service);
}

/** What the two setters share: configuration with one key replaced, then a restart job. Returns its result.
 */
int32_t reconfigure(const char* key, const std::string& value)
{
    HostapdConfig overrides;
    hostapd_get_overrides(overrides);
    overrides[key] = value;
    hostapd_set_conf(overrides);
    return run_unit_job(kUnit, utils_restart_service);
}

/** Asks for one station's record. Returns false at the first failure, and when there is no further station.
 */
bool ask_for_station(wpa_ctrl* connection, const char* command, StationRecord& record,
                     std::chrono::steady_clock::time_point until)
{
    record.fill('\0');
    return wpa_socket_cmd(connection, command, record.data(), kRecordSize, until) == 0 &&
           record.front() != '\0';
}

} // namespace

int32_t hostapd_start()
{
    syslog(LOG_INFO, "Starting Hostapd daemon service");
    const int32_t result = configure_and_start();
    if (result != 0) {
        hostapd_listener()->Start();
    }
    return result;
}

int32_t hostapd_restart()
{
    syslog(LOG_INFO, "Re-Starting Hostapd daemon service");
    const int32_t result = configure_and_start();
    if (result != 0) {
        hostapd_listener()->Restart();
    }
    return result;
}

int32_t hostapd_stop()
{
    syslog(LOG_INFO, "Stopping Hostapd daemon service");
    hostapd_listener()->Reset();
    const int32_t result = run_unit_job(kUnit, utils_stop_service);
    if (result != 0) {
        pause_for(0, kLetGoPauseNsec);
    }
    return result;
}

int32_t hostapd_set_ssid(const std::string& ssid)
{
    const int32_t result = reconfigure(kHostapdSsid, ssid);
    if (result != 0) {
        running.ssid = hostapd_value_of(ssid);
    }
    return result;
}

int32_t hostapd_set_frequency(const std::string& frequency)
{
    const std::string wanted = frequency.empty() ? default_frequency() : frequency;
    if (wanted != "5" && wanted != "2.4") {
        return 0;
    }
    const int32_t result = reconfigure(kHostapdHwMode, hostapd_hw_mode_of(wanted));
    if (result != 0) {
        running.frequency = wanted;
        hostapd_listener()->Restart();
    }
    return result;
}

int32_t hostapd_get_ssid(std::string& ssid)
{
    ssid = running.ssid;
    return 1;
}

int32_t hostapd_get_frequency(std::string& frequency)
{
    frequency = running.frequency;
    return 1;
}

int32_t hostapd_get_num_connected_clients(uint32_t& count)
{
    count = 0;
    const WpaCtrlPtr connection = HostapdSocketListner::ConnectSocket(kInterface);
    if (!connection) {
        syslog(LOG_ERR, "%s: Could not connect to hostapd socket.", "hostapd_get_num_connected_clients");
        return 0;
    }
    // One time for all questions: a hostapd that takes nine seconds over each would hold the loop for hours.
    const auto until = std::chrono::steady_clock::now() + kControlAnswerTime;
    StationRecord record{};
    bool listed = ask_for_station(connection.get(), "STA-FIRST", record, until);
    for (int asked = 1; listed && asked <= kMaxStations; ++asked) {
        if (hostapd_listener()->IsStationDisconnected(record.data()) == 0) {
            ++count;
        }
        // hostapd reads the address at the start of the argument and ignores the rest of the record.
        std::array<char, 64> command{};
        std::snprintf(command.data(), command.size(), "STA-NEXT %s", record.data());
        listed = asked < kMaxStations && ask_for_station(connection.get(), command.data(), record, until);
    }
    return 1;
}

#include "radio/access_points.hpp"

#include <algorithm>
#include <any>
#include <cerrno>
#include <map>
#include <set>

#include <syslog.h>

#include "dbus-helper/sdbus_utils.hpp"
#include "listeners/wpa_supplicant_names.hpp"
#include "support/bus_connection.hpp"

namespace {

using namespace wpa_supplicant_names;

/** So many calls in a row without an answer, and wpa_supplicant hangs: the other BSSs are not asked for. */
constexpr int kTimeoutsOfAHang = 2;

bool offers_wpa_psk(const std::any& rsn)
{
    const auto& elements = std::any_cast<const std::map<std::string, std::any>&>(rsn);
    const auto keyMgmt = elements.find("KeyMgmt");
    if (keyMgmt == elements.end()) {
        return false;
    }
    const auto& methods = std::any_cast<const std::vector<std::string>&>(keyMgmt->second);
    return std::find(methods.begin(), methods.end(), "wpa-psk") != methods.end();
}

AccessPoint record_of(const std::string& path, const sdbus_utils::TypedPropertyMap& properties)
{
    AccessPoint record;
    record.path = path;
    for (const auto& [name, typedValue] : properties) {
        const std::any& value = typedValue.second;
        if (name == "SSID") {
            const auto& bytes = std::any_cast<const std::vector<uint8_t>&>(value);
            record.ssid.assign(bytes.begin(), bytes.end());
        } else if (name == "Signal") {
            record.signal = std::any_cast<int16_t>(value);
        } else if (name == "Privacy") {
            record.privacy = std::any_cast<bool>(value) ? 1 : 0;
        } else if (name == "RSN") {
            record.wpa_psk = offers_wpa_psk(value);
        }
    }
    return record;
}

/** Strongest first, and of each name only the first. */
void sort_and_deduplicate(AccessPoints& accessPoints)
{
    std::sort(accessPoints.begin(), accessPoints.end(),
              [](const AccessPoint& a, const AccessPoint& b) { return a.signal > b.signal; });
    std::set<std::string> names;
    std::erase_if(accessPoints,
                  [&names](const AccessPoint& record) { return !names.insert(record.ssid).second; });
}

void refresh_access_points(const std::vector<std::string>& paths)
{
    AccessPoints accessPoints;
    if (wpa_supplicant_get_access_point_details(paths, accessPoints) != 0) {
        wpa_supplicant_get_access_points_signal().emit(accessPoints);
    }
}

} // namespace

int wpa_supplicant_get_access_points(AccessPoints& accessPoints)
{
    syslog(LOG_INFO, "[WPA] Get access points");
    std::vector<std::string> paths;
    {
        BusPtr bus;
        if (open_system_bus(bus) < 0) {
            syslog(LOG_ERR, "%s: Failed to open system bus", "wpa_supplicant_get_access_points");
            return 0;
        }
        std::string error;
        if (sdbus_utils::GetProperty(bus.get(), kCallService, kInterfacePath, kInterface, "BSSs", paths,
                                     error) < 0) {
            return 0;
        }
    }
    return wpa_supplicant_get_access_point_details(paths, accessPoints);
}

int wpa_supplicant_get_access_point_details(const std::vector<std::string>& paths, AccessPoints& accessPoints)
{
    BusPtr bus;
    if (open_system_bus(bus) < 0) {
        syslog(LOG_ERR, "%s: Failed to open system bus", "wpa_supplicant_get_access_point_details");
        return 0;
    }
    int timeouts = 0;
    for (const std::string& path : paths) {
        sdbus_utils::TypedPropertyMap properties;
        const int result =
            sdbus_utils::GetAllProperties(bus.get(), kCallService, path, kBssInterface, properties);
        timeouts = result == -ETIMEDOUT ? timeouts + 1 : 0;
        if (timeouts == kTimeoutsOfAHang) {
            break;
        }
        if (result < 0) {
            continue;
        }
        AccessPoint record = record_of(path, properties);
        if (!record.ssid.empty()) {
            accessPoints.push_back(std::move(record));
        }
    }
    sort_and_deduplicate(accessPoints);
    return 1;
}

sigc::signal<void, const AccessPoints&>& wpa_supplicant_get_access_points_signal()
{
    static sigc::signal<void, const AccessPoints&> accessPointsChanged;
    return accessPointsChanged;
}

void wpa_supplicant_follow_access_points(WpaSupplicantDbusListener& listener)
{
    listener.bssListChanged.connect(sigc::ptr_fun(refresh_access_points));
}

bool wpa_supplicant_is_network_supported(const std::string& ssid)
{
    AccessPoints accessPoints;
    if (wpa_supplicant_get_access_points(accessPoints) == 0) {
        return false;
    }
    bool supported = false;
    for (const AccessPoint& record : accessPoints) {
        if (record.ssid == ssid) {
            supported = record.wpa_psk || record.privacy == 0;
        }
    }
    return supported;
}

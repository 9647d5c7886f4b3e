#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sigc++/sigc++.h>

#include "listeners/wpa_supplicant_dbus_listener.hpp"

/**
 * The access points that wpa_supplicant has found, one record to a name, strongest first. Nothing is cached.
 * For the main thread.
 */

/** One scanned network. */
struct AccessPoint
{
    std::string path;     ///< the BSS's object path
    std::string ssid;     ///< the name's bytes, whatever they are
    int32_t privacy = 0;  ///< 1 when encryption is required
    int32_t signal = 0;   ///< dBm
    bool wpa_psk = false; ///< its RSN element offers WPA-PSK
};

using AccessPoints = std::vector<AccessPoint>;

/**
 * Asks wpa_supplicant for all BSSs and their properties.
 *
 * @param accessPoints passed in empty
 * @return 1 on success; 0 when the bus could not be opened or the list not be read
 *
 * Logs "[WPA] Get access points" (INFO) and "%s: Failed to open system bus" (ERR).
 */
int wpa_supplicant_get_access_points(AccessPoints& accessPoints);

/**
 * Asks for the properties of the given BSSs. One that can not be read, or whose name is empty, is left out;
 * after two time-outs in a row the rest is, so that a hanging wpa_supplicant holds the caller for less than a
 * minute and not for one time-out for each BSS.
 *
 * @param paths object paths of the BSSs
 * @param accessPoints receives the records, strongest first; of equal names the strongest. The order of
 * equally strong ones is not defined.
 * @return 1, or 0 when the bus could not be opened
 *
 * Logs "%s: Failed to open system bus" (ERR).
 */
int wpa_supplicant_get_access_point_details(const std::vector<std::string>& paths,
                                            AccessPoints& accessPoints);

/** Emitted with the new list whenever wpa_supplicant's list of BSSs has changed. */
sigc::signal<void, const AccessPoints&>& wpa_supplicant_get_access_points_signal();

/** Has the signal above follow the listener's list of BSSs. */
void wpa_supplicant_follow_access_points(WpaSupplicantDbusListener& listener);

/** True when the network is listed, and is open or offers WPA-PSK. */
bool wpa_supplicant_is_network_supported(const std::string& ssid);

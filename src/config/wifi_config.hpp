#pragma once

#include <string>

#include "config/wifi_types.hpp"

/**
 * The Wi-Fi configuration kept in the settings daemon. Nothing is cached: every call asks the daemon anew, on
 * the thread that calls. The writers are for the main thread.
 */

/** One snapshot of the stored configuration. Meaningful only after read_wifi_config or set_safe_wifi_config.
 */
struct WifiConfig
{
    bool enabled = false;                 ///< radio on
    WifiMode mode = WifiMode::Host;       ///< access point or station
    WifiBand band = WifiBand::Band2_4GHz; ///< band of the access point
    std::string hostSsid;                 ///< SSID of the access point, setting "deviceName"
    std::string clientSsid;               ///< SSID of the network joined as a station; for the dump only
};

/**
 * Fills the record from the settings daemon and stops at the first failure; what was read until then stays.
 *
 * @return true on success. An unset (empty) or unknown band is a failure.
 *
 * Logs "Read settings from Settings Daemon" (INFO), then what failed (WARNING).
 */
bool read_wifi_config(WifiConfig& config);

/**
 * Makes the record one that always works: radio on, access point, default SSID, the best band of the radio.
 * The station's SSID is left as it is.
 */
void set_safe_wifi_config(WifiConfig& config);

/** Writes the record to the log, eight lines (INFO). */
void dump_wifi_config(const WifiConfig& config);

/**
 * Reads the stored mode.
 *
 * @param mode Client for exactly "Client", Host for every other text; untouched on failure
 * @return true when the setting could be read
 *
 * Logs "Failed to get '%s' setting" (WARNING).
 */
bool settings_get_wifi_mode(WifiMode& mode);

/**
 * Reads the stored band; an empty value stands for the default one.
 *
 * @param frequency "2.4" or "5"; untouched on failure
 * @return true on success
 *
 * Logs "Failed to get '%s' setting" or "Got invalid value of '%s' setting" (WARNING).
 */
bool settings_get_frequency(std::string& frequency);

/**
 * Reads the stored SSID of the access point; it may be empty.
 *
 * @param name untouched on failure
 * @return true when the setting could be read
 *
 * Logs "Failed to get '%s' setting" (WARNING).
 */
bool settings_get_device_name(std::string& name);

/**
 * The writers store one value each, without looking at it.
 *
 * @return true on success
 *
 * Log "Failed to set '%s' setting" (WARNING).
 */
bool settings_set_wifi_enabled(bool enabled);
bool settings_set_wifi_mode(WifiMode mode); ///< stores "Client" for Client and "Host" for any other value
bool settings_set_frequency(const std::string& frequency);
bool settings_set_device_name(const std::string& name);

/**
 * Whether a text that the settings daemon tells of is only the echo of a write of this program that another
 * one has followed since. Where it could be, the stored value is asked for, and decides. For the main thread,
 * once for each value that is told.
 *
 * @param key "mode", "frequency" or "deviceName"; anything else is never outdated
 * @param value what is told
 * @return true when it is outdated, and so also when the stored value could not be read
 *
 * Logs what reading a setting logs (ERR), when that fails.
 */
bool settings_is_outdated(const std::string& key, const std::string& value);

/** "5" on a radio of type 1, else "2.4". */
std::string default_frequency();

/** True on a radio of type 1. */
bool radio_supports_5ghz();

/**
 * The SSID of a device that was given none: its model, "-", and its serial number without what stands up to
 * the first "-" in it. May be longer than the 32 bytes that 802.11 allows.
 *
 * Logs "model name: %s", "serial number : %s" and "default ssid: %s" (INFO).
 */
std::string get_default_ssid();

#pragma once

#include <cstdint>
#include <string>

/**
 * The operations that change the radio's configuration, for writes of the D-Bus properties and for changes of
 * the stored settings by others. Each validates, compares with the live state, stores, applies and announces.
 * For the main thread.
 *
 * All return 0 on success, and where there was nothing to do or nothing to apply now; -1 on failure. What
 * was stored before a failure stays stored.
 */

/** Whether an operation stores its value in the settings daemon: not when the value comes from there. */
enum class WriteThrough : bool {
    Off,
    On,
};

/**
 * Powers the radio on, in the stored mode, or off. The power state is never stored.
 *
 * @param state 0 off, 1 on; anything else is refused
 *
 * Announces `Mode` (when switched on and the mode could be started), then `WiFiState`. Logs "[Main] %s:
 * Unsupported state: %u", "[Main] %s: already in wifi state %d", "[Main] %s: Failed to set wifi state",
 * "[Main] %s: Failed to switch wifi mode", "[WiFi] %s: Failed to stop Host mode" and "[WiFi] %s: Failed to
 * stop Client mode" (ERR).
 */
int set_wifi_state(uint32_t state);

/**
 * Makes the radio an access point or a station; while it is off the mode is only stored.
 *
 * @param mode "Host" or "Client"
 *
 * Announces `Mode`. Logs "[Main] %s: Unknown mode:%s", "[Main] %s: Failed to read wifi mode", "[Main] %s:
 * already in wifi mode %s", "[Main] %s: Cannot change mode, wifi is disabled" and "[Main] %s: Mode switch
 * failed" (ERR).
 */
int set_wifi_mode(const std::string& mode, WriteThrough writeThrough);

/**
 * Moves the access point to another band. The band is stored also when it can not be applied because the
 * radio is off (success) or the interface a station (failure).
 *
 * @param frequency "2.4" or, on a radio of type 1, "5"
 *
 * Announces `WiFiFrequency`. Logs "[Main] %s: Invalid WiFi requency", "[Main] %s: This device do not support
 * 5GHz", "[Main] %s: Failed to read wifi frequency", "[Main] %s: already on wifi frequency %s", "[Main] %s:
 * Failed to read wifi mode", "[Main] %s: Failed, Wifi is not in host mode" and "[Main] %s: Failed to restart
 * hostapd - with new wifi frequency" (ERR), "[Main] %s: Changing frequency, while wifi is disabled" (INFO).
 */
int set_wifi_frequency(const std::string& frequency, WriteThrough writeThrough);

/**
 * Gives the access point another SSID, in whatever mode the interface is.
 *
 * @param ssid at most 32 bytes, and may be empty
 *
 * Announces `SSID`. Logs "[Main] %s: Failed to get wifi ssid", "[Main] %s: SSID is too long" and "[Main] %s:
 * Failed to restart hostapd - with new SSID" (ERR), "[Main] %s: Changing SSID, while wifi is disabled"
 * (INFO).
 */
int set_wifi_ssid(const std::string& ssid, WriteThrough writeThrough);

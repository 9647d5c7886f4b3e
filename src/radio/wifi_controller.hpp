#pragma once

#include "config/wifi_types.hpp"

/**
 * Power and mode of the radio. Both are read back from the system on every call; nothing is remembered. All
 * functions block while their commands run, log what fails, and undo nothing. Truth values are 1 and 0.
 */

/**
 * Reads the power state ("rfkill list wlan", its first 256 bytes).
 *
 * @return 1 when no WLAN is blocked, also when there is none; 0 when one is, or when the command can not be
 * run
 */
int wifi_get_enabled();

/** The same, for callers that speak of a state. */
int wifi_get_state();

/**
 * Powers the radio on or off (rfkill(8)). Neither mode is started or stopped by it.
 *
 * @return 1 on success, 0 otherwise
 *
 * Logs "[WiFi] Enable wifi: %s" (INFO), "[WiFi] %s: Unable to power on wifi, error: %d" and
 * "%s: Unable to power off wifi, error: %d" (ERR).
 */
int wifi_set_enabled(bool on);

/**
 * Reads the mode, which is the type of the interface (iw(8)): "AP" or "managed".
 *
 * @param mode untouched on failure
 * @return 1 on success, 0 for any other type and when the command can not be run. Logs nothing.
 */
int wifi_get_mode(WifiMode& mode);

/**
 * Starts the station side: wpa_supplicant, then no address on wlan0. The DHCP client follows when an
 * association completes.
 *
 * @return the result of wpa_supplicant_start
 */
int wifi_client_start();

/** Stops the station side: DHCP client, then wpa_supplicant. Returns 1 or 0; 0 at the first failure. */
int wifi_client_stop();

/** Starts the access point: 192.168.8.1/24 on wlan0, hostapd, DHCP server. Returns 1, or 0 at the first
 * failure. */
int wifi_host_start();

/** Stops the access point: DHCP server, then hostapd; the address stays. Returns 1, or 0 at the first
 * failure. */
int wifi_host_stop();

/**
 * Stops the other mode, running or not, and starts the target.
 *
 * @return 1 on success; 0 when the stop failed, and then nothing was started, or when the start failed
 *
 * Logs "[WiFi] Switch wifi mode to %d" (INFO) and which of the two failed (ERR).
 */
int wifi_mode_switch(WifiMode target);

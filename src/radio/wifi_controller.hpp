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

/*
 * The four sequences below end at their first failure and log it: "[WiFi] Start Client mode" and the like
 * between two lines of 44 hyphens when they begin, one such line when they have succeeded (all INFO).
 */

/**
 * Starts the station side: wpa_supplicant, then no address on wlan0. The DHCP client follows when an
 * association completes.
 *
 * @return the result of wpa_supplicant_start
 *
 * Logs "[WiFi] %s: Failed to start WPA supplicant" (ERR); addresses that could not be removed are no failure:
 * "[WiFi] Failed to flush IP, interface might have inavlid IP" (WARNING).
 */
int wifi_client_start();

/**
 * Stops the station side: DHCP client, then wpa_supplicant.
 *
 * @return 1 on success, 0 otherwise
 *
 * Logs "%s: Unable to stop udhcpc" or "Failed to stop WPE Supplicant service" (ERR).
 */
int wifi_client_stop();

/**
 * Starts the access point: 192.168.8.1/24 as the only address of wlan0, hostapd, DHCP server.
 *
 * @return 1 on success, 0 otherwise
 *
 * Logs "[WiFi] %s: Failed to add IP address" (ERR), "[WiFi] Failed to start hostapd service" or
 * "[WiFi] Failed to start udhcpd service" (WARNING); other addresses that could not be removed are no
 * failure: "[WiFi] Failed to flush IP, interface might have inavlid IP" (WARNING).
 */
int wifi_host_start();

/**
 * Stops the access point: DHCP server, then hostapd. The address stays.
 *
 * @return 1 on success, 0 otherwise
 *
 * Logs "[WiFi] Failed to stop udhcpd service" or "[WiFi] Failed to stop hostapd service" (WARNING).
 */
int wifi_host_stop();

/**
 * Stops the other mode, running or not, and starts the target.
 *
 * @return 1 on success; 0 when the stop failed, and then nothing was started, or when the start failed
 *
 * Logs "[WiFi] Switch wifi mode to %d" (INFO), then "[WiFi] %s: Failed to stop Host mode",
 * "[WiFi] %s: Failed to start Client mode" or the same of the other mode (ERR).
 */
int wifi_mode_switch(WifiMode target);

#pragma once

#include <systemd/sd-bus.h>

#include "radio/access_points.hpp"

/**
 * The device as a station: scan, connect, disconnect, and the list of access points. For the main thread;
 * each call of wpa_supplicant blocks it for the time of the call.
 *
 * The methods answer every call: with an empty reply, or with the error "org.freedesktop.DBus.Error.Failed"
 * and the text given here, and then also with one line in the log (ERR). They return what sending that
 * returned.
 */

/**
 * Method `Scan`: asks for a scan, in whatever mode. The results arrive through `AccessPointsChanged`.
 *
 * Error: "Failed to start AP scan".
 */
int scan_access_points(sd_bus_message* message);

/**
 * Method `Connect` (ssid, passphrase): replaces the network that was last selected by a new one and selects
 * it. An empty passphrase stands for an open network; nothing is checked here. The association goes on by
 * itself and is announced through `WiFiClientState`.
 *
 * Errors: "Wifi is off", "WiFi is in unknown mode", "WiFi is not in client mode", "Failed to parse d-bus
 * message", "Failed to add network", "Failed to connect to AP" (and then `WiFiClientState` is announced).
 */
int connect_to_ap(sd_bus_message* message);

/**
 * Method `Disconnect`: leaves the network, which stays configured in wpa_supplicant. Announces `SSID`, then
 * `IPAddress`.
 *
 * Errors: "Wifi is off", "WiFi is in unknown mode", "WiFi is not in client mode", "Failed to connect to AP".
 */
int disconnect_from_ap(sd_bus_message* message);

/**
 * Getter of `AccessPoints`: appends the list, an empty one unless the device is a station.
 *
 * @return what closing the array returned, negative on failure
 *
 * Logs "[Main] %s: Wifi is not enabled", "[Main] Failed to read wifi mode" and "[Main]  Something went wrong
 * with getting APs" (ERR).
 */
int get_wifi_access_points(sd_bus_message* reply);

/**
 * Sends the signal `AccessPointsChanged` with the list, which may be empty.
 *
 * Logs "[Main] Access points changed" (INFO) and the step that failed (ERR); nothing is sent then.
 */
void access_points_changed(const AccessPoints& accessPoints);

/**
 * Reaction to a failed association: removes the current network, if there is one.
 *
 * Logs "Failed to connect to AP" (ERR).
 */
void client_connect_failed();

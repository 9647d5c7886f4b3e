#pragma once

#include <string>

#include "config/settings_client.hpp"

/**
 * What the service does about events: each reaction is small, logs, and announces or acts. Those of hostapd
 * and of the kernel run on the thread of their listener, all others on the main thread.
 */

/** Connects the reactions to the listeners, for the life of the process. */
void connect_event_reactions();

/** Logs "%s: AP State: %s" (INFO) with "READY" or "NOT READY"; announces `WiFiAccessPointInitialised` with
 * this value. */
void wifi_host_ap_initialised(bool ready);

/** Log "%s: %s" (INFO) with the function's name and the station; announce `WiFiConnectedClients`. */
void wifi_host_station_connected(const std::string& station);
void wifi_host_station_disconnected(const std::string& station);

/**
 * hostapd has ended. Where the stored configuration (or the safe one, when it can not be read) has the device
 * as an access point, its listener is started anew from the main loop; hostapd itself is systemd's business.
 *
 * Logs "%s: hostapd terminated." and "%s: We are supposed to be in host mode. Restart hostapd listener"
 * (ERR), "Failed to read initial wifi configuration, use safe config" (ERR), "%s: Restarting..." (INFO).
 */
void wifi_host_terminated();

/** Announces `WiFiClientState`; for "completed" also `SSID`, two seconds later. */
void client_state_changed(const std::string& state, const std::string& ssid);

/** Announces `IPAddress` for an address of "wlan0". */
void address_changed(const std::string& interface, const std::string& address, bool added);

/**
 * Another client has changed stored settings: brings the radio in line with "enabled" (b), "frequency",
 * "mode" and "deviceName" (s), in key order. What is only the echo of a write of this program that another
 * one has followed is passed over. Other settings, and these with another type, are ignored; a value that is
 * not of the type it says raises std::bad_any_cast.
 */
void settings_changed(const Settingsd::PropertyMap& settings);

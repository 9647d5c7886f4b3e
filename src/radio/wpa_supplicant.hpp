#pragma once

#include <string>

#include <systemd/sd-event.h>

#include "listeners/wpa_supplicant_dbus_listener.hpp"

/**
 * Control of wpa_supplicant, which makes wlan0 a station: its unit "wpa_supplicant-nl80211@wlan0.service" and
 * its D-Bus interface on the system bus ("wpa_supplicant D-Bus API", fi.w1.wpa_supplicant1.Interface), one
 * private connection and one synchronous call at a time. For the main thread.
 */

/**
 * Creates and starts the listener of wpa_supplicant's signals, which lives as long as the process, and has
 * the list of access points follow it.
 *
 * @param event the loop on which the listener works
 * @return always 1
 *
 * Logs "[WPA] Initialize WPA Supplicant" (INFO).
 */
int wpa_supplicant_init(sd_event* event);

/** The listener, or null before wpa_supplicant_init. */
WpaSupplicantDbusListener* wpa_supplicant_get_listener();

/** Forgets the current network and starts the unit. Returns the start job's result (utils/systemd_units.hpp).
 */
int wpa_supplicant_start();

/** Forgets the current network and stops the unit. Returns the stop job's result (utils/systemd_units.hpp).
 */
int wpa_supplicant_stop();

int wpa_supplicant_start_service();   /**< logs "Starting WPA Supplicant daemon service" (INFO) */
int wpa_supplicant_restart_service(); /**< logs "Re-Starting WPA Supplicant daemon service" (INFO) */
int wpa_supplicant_stop_service();    /**< logs "Stoping WPA Supplicant daemon service" (INFO) */

/**
 * Asks for an active scan; its results arrive as a change of the list of BSSs.
 *
 * @return nonzero when the last result code was not zero, which it also is when the bus or the call failed
 *
 * Logs "[WPA] Scan APs" (INFO), "[WPA] %s: Failed to open system bus" and "[WPA] %s: Failed to call dbus
 * method" (ERR).
 */
int wpa_supplicant_scan();

/**
 * Adds a network; an empty passphrase stands for an open one. Nothing is checked or converted.
 *
 * @param path receives the network's object path; untouched on failure
 * @return nonzero when the last result code was not zero, which it also is after a failure
 *
 * Logs "[WPA] Add network '%s', passphrase '%s'" and "[WPA] Network object added '%s'" (INFO); "[WPA] %s:
 * Failed to open system bus", "... Failed to init new dbus method", "... Failed to build request message",
 * "... Method call failed" and "... Failed to read response" (ERR).
 */
int wpa_supplicant_add_network(const std::string& ssid, const std::string& passphrase, std::string& path);

/**
 * Selects a network, which becomes the current one even when the call fails.
 *
 * @return true on success
 *
 * Logs "[WPA] Select network:%s" (INFO) and, as all calls below, "[WPA] %s: Failed to open system bus" and
 * "[WPA] %s: Failed to call dbus method" (ERR).
 */
bool wpa_supplicant_select_network(const std::string& path);

/**
 * Removes a network. There is no current network afterwards, unless the bus could not be opened.
 *
 * @return true unless the bus could not be opened or the call failed
 *
 * Logs "[WPA] Remove network: %s" (INFO).
 */
bool wpa_supplicant_remove_network(const std::string& path);

/**
 * Disconnects from the access point. There is no current network afterwards, unless the bus could not be
 * opened.
 *
 * @return true unless the bus could not be opened or the call failed
 */
bool wpa_supplicant_disconnect_network();

/**
 * Copies the object path of the network that was last selected. It is forgotten once wpa_supplicant's name
 * has changed its owner since the network was added: in another process the path, if it is there at all, is
 * somebody else's network. The bus is asked for the owner, which may take the time-out of a call.
 *
 * @return true when there is one
 */
bool wpa_supplicant_get_current_network(std::string& path);

/**
 * The SSID of the current association, as wpa_cli(8) prints it, at most 256 bytes; empty when there is none
 * or wpa_supplicant does not run.
 */
std::string wpa_supplicant_get_ssid();

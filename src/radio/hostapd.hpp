#pragma once

#include <cstdint>
#include <string>

/**
 * Control of hostapd, which makes wlan0 an access point: its unit "hostapd.service", its runtime
 * configuration, and the SSID (as hostapd was given it: up to its first line break) and band that it was last
 * started or reconfigured with, which are remembered for the life of the process. For the main thread.
 *
 * Results of unit jobs are those of utils/systemd_units.hpp: nonzero, which stands for success, also after a
 * refused job; 0 only when the look-up or the job ended with exactly zero.
 */

/**
 * Writes the runtime configuration (a failure is logged and the unit started all the same), starts the unit
 * and, when that returned nonzero, the listener of the control socket. SSID and band are remembered before.
 *
 * @return 0 when the unit can not be loaded, else the result of the start job
 *
 * Logs "Starting Hostapd daemon service" (INFO) and "[WiFi] Failed to set hostapd configuration" (WARNING).
 */
int32_t hostapd_start();

/**
 * As hostapd_start, with the listener restarted instead of started. It too queues a start job.
 *
 * Logs "Re-Starting Hostapd daemon service" (INFO) first.
 */
int32_t hostapd_restart();

/**
 * Stops the listener and forgets its disconnected stations, then stops the unit. After a stop that returned
 * nonzero, gives hostapd half a second to let go of the interface.
 *
 * @return 0 when the unit can not be loaded, else the result of the stop job
 *
 * Logs "Stopping Hostapd daemon service" (INFO).
 */
int32_t hostapd_stop();

/**
 * Writes the runtime configuration with another SSID, restarts the unit and, when that returned nonzero,
 * remembers the SSID. The listener is left alone.
 *
 * @return 0 when the unit can not be loaded, else the result of the restart job
 */
int32_t hostapd_set_ssid(const std::string& ssid);

/**
 * Writes the runtime configuration with another band, restarts the unit and, when that returned nonzero,
 * remembers the band and restarts the listener.
 *
 * @param frequency "2.4", "5", or empty for the default band of the radio
 * @return 0 for any other text, which changes nothing, and when the unit can not be loaded; else the result
 * of the restart job
 */
int32_t hostapd_set_frequency(const std::string& frequency);

/** Copies the remembered SSID, empty before the first start. Always returns 1. */
int32_t hostapd_get_ssid(std::string& ssid);

/** Copies the remembered band ("2.4" or "5", empty before the first start). Always returns 1. */
int32_t hostapd_get_frequency(std::string& frequency);

/**
 * Counts the stations that are associated, over a control connection of its own (STA-FIRST, STA-NEXT of
 * hostapd's control interface), leaving out those that have disconnected and are still listed. The questions
 * have ten seconds in all; what has been counted by then counts.
 *
 * @param count receives the number; 0 on failure
 * @return 1, or 0 when the control socket can not be opened, which takes up to two seconds
 *
 * Logs "%s: Could not connect to hostapd socket." (ERR).
 */
int32_t hostapd_get_num_connected_clients(uint32_t& count);

#pragma once

#include <string>

/** Shell commands that change the system. They block until the command has ended. */

/**
 * Runs a command line, up to three times in all, until it succeeds. There is no pause between the runs.
 *
 * @param command trusted text: nothing is quoted or escaped
 * @return 0 for success, otherwise the raw wait status of the last run (256 for exit status 1)
 *
 * "killall udhcpc" with status 256 (there was no process) is returned at once and not counted as a failure.
 *
 * Logs `%s: trying "%s"...` (INFO) once, and after each failed run, the last one included,
 * "%s: system call failed: %d" and `%s: retrying "%s"...` (both ERR).
 */
int utils_do_system_call(const std::string& command);

/**
 * Removes all addresses of wlan0 ("ip addr flush dev wlan0").
 *
 * @return true on success
 *
 * Logs "[Utils] Flush IP addr of wlan0" (INFO), then "%s: wlan0 ip address deleted successfully" (INFO) or
 * "%s: Unable to flush wlan0 address, error: %d" (ERR).
 */
bool utils_flush_ip();

/**
 * Adds an address to wlan0 ("ip addr add ... dev wlan0"); nothing is flushed before.
 *
 * @param address address with prefix length, such as "192.168.8.1/24"; trusted text
 * @return true on success
 *
 * Logs "[Utils] Add IP addr of wlan0: %s" (INFO), then "%s: wlan0 ip address added successfully" (INFO) or
 * "%s: Unable to add wlan0 address, error: %d" (ERR).
 */
bool utils_add_ip(const std::string& address);

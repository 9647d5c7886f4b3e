#pragma once

#include <string>

/**
 * Control of systemd units over D-Bus (org.freedesktop.systemd1 on the system bus, see
 * org.freedesktop.systemd1(5)). Each function opens a private connection, makes one call, logs the outcome
 * and closes the connection again. May be called from any thread.
 */

/**
 * Enables a unit file persistently (Manager.EnableUnitFiles, runtime and force false). It takes 5 s at most,
 * a bus that does not let us in included.
 *
 * @param unit unit file name or absolute path
 * @return true when the call did not end with a negative error, also when its result was 0
 *
 * Logs "[Utils] Trying to enable %s" (INFO), then "[Utils] %s should've been successfully enabled" (INFO) or,
 * all ERR: "[Utils] Failed to open system bus. ret %d"; "[Utils], failed to open container. ret %d",
 * "[Utils], failed to append message with %s", "[Utils] %s: sd_bus_close_container failed" and "[Utils],
 * failed to append message with %d", after which the call is tried all the same unless it was the last flag;
 * "[Utils] Failed to send bus enable call"; and at the end of every failed call "[Utils] %s Error
 * building/calling EnableUnitFiles: %d".
 */
bool utils_enable_service(const std::string& unit);

/**
 * Disables a unit file (Manager.DisableUnitFiles, runtime false), in 5 s at most.
 *
 * @param unit unit file name; systemd refuses an absolute path here
 * @return as utils_enable_service
 *
 * Logs "[Utils] %s should've been successfully disabled" (INFO) or what utils_enable_service logs of a
 * failure, with two differences: "[Main] %s: sd_bus_close_container failed" and "[Utils] %s Error
 * building/calling DisableUnitFiles: %d".
 */
bool utils_disable_service(const std::string& unit);

/**
 * Looks a unit up that systemd has loaded already (Manager.GetUnit).
 *
 * @param name unit name such as "udhcpd.service"
 * @param path receives the unit's object path; untouched on failure
 * @return 1 when the last result code was not zero, a negative one included; 0 when it was exactly zero. So a
 *         refused look-up returns 1 and leaves `path` as it was: callers go on, and the unit job that follows
 *         fails and logs.
 *
 * Logs "[Utils] Got unit name '%s' for the service '%s'" (INFO), or "[Utils] Failed to get unit name of '%s'
 * service. %s (r = %d)" or "%s: Failed to read response" (ERR); nothing when the bus can not be opened.
 */
int utils_get_service_unit(const std::string& name, std::string& path);

/**
 * As utils_get_service_unit, with Manager.LoadUnit, which also serves units that are not loaded yet. Logs a
 * failure as "[Utils] Failed to load unit name of '%s' service. %s (r = %d)".
 */
int utils_load_service_unit(const std::string& name, std::string& path);

/**
 * Queues a start job for a unit (Unit.Start, mode "replace") and does not wait for it.
 *
 * @param path the unit's object path
 * @return 1 when the last result code was not zero, a negative one included; 0 when it was exactly zero
 *
 * Logs "[Utils] Started '%s' unit with job id:%s" (INFO), or "[Utils] Failed to start '%s' unit. %s (r = %d)"
 * or
 * "%s: Failed to read response" (ERR); nothing when the bus can not be opened.
 */
int utils_start_service(const std::string& path);

/**
 * As utils_start_service, with Unit.Restart, which also starts a unit that is not running. Logs "[Utils]
 * Restarted
 * '%s' unit with job id:%s" or "[Utils]  Failed to re-start '%s' unit. %s (r = %d)".
 */
int utils_restart_service(const std::string& path);

/**
 * As utils_start_service, with Unit.Stop, which succeeds for a unit that is not running. Logs "[Utils]
 * Stopped '%s' unit with job id:%s" or "[Utils] Failed to stop '%s' unit. %s (r = %d)".
 */
int utils_stop_service(const std::string& path);

#pragma once

#include <string>

/**
 * Control of systemd units over D-Bus (org.freedesktop.systemd1 on the system bus, see
 * org.freedesktop.systemd1(5)). Each function opens a private connection, makes one call, logs the outcome
 * and closes the connection again. May be called from any thread.
 */

/**
 * Enables a unit file persistently (Manager.EnableUnitFiles, runtime and force false, time-out 5 s).
 *
 * @param unit unit file name or absolute path
 * @return true when the call did not end with a negative error, also when its result was 0
 *
 * Logs "[Utils] Trying to enable %s" (INFO), then "[Utils] %s should've been successfully enabled" (INFO) or
 * the failing step (ERR).
 */
bool utils_enable_service(const std::string& unit);

/**
 * Disables a unit file (Manager.DisableUnitFiles, runtime false, time-out 5 s).
 *
 * @param unit unit file name; systemd refuses an absolute path here
 * @return as utils_enable_service
 *
 * Logs "[Utils] %s should've been successfully disabled" (INFO) or the failing step (ERR).
 */
bool utils_disable_service(const std::string& unit);

/**
 * Looks a unit up that systemd has loaded already (Manager.GetUnit).
 *
 * @param name unit name such as "udhcpd.service"
 * @param path receives the unit's object path; untouched on failure
 * @return 1 when the last result code was not zero, a negative one included; 0 when it was exactly zero. A
 *         refused look-up therefore returns 1 and leaves `path` as it was: callers go on, and the unit job
 * that follows fails and logs.
 *
 * Logs "[Utils] Got unit name '%s' for the service '%s'" (INFO) or
 * "[Utils] Failed to get unit name of '%s' service. %s (r = %d)" (ERR); nothing when the bus can not be
 * opened.
 */
int utils_get_service_unit(const std::string& name, std::string& path);

/** As utils_get_service_unit, with Manager.LoadUnit, which also serves units that are not loaded yet. */
int utils_load_service_unit(const std::string& name, std::string& path);

/**
 * Queues a start job for a unit (Unit.Start, mode "replace") and does not wait for it.
 *
 * @param path the unit's object path
 * @return 1 when the last result code was not zero, a negative one included; 0 when it was exactly zero
 *
 * Logs "[Utils] Started '%s' unit with job id:%s" (INFO) or "[Utils] Failed to start '%s' unit. %s (r = %d)"
 * (ERR); nothing when the bus can not be opened.
 */
int utils_start_service(const std::string& path);

/** As utils_start_service, with Unit.Restart, which also starts a unit that is not running. */
int utils_restart_service(const std::string& path);

/** As utils_start_service, with Unit.Stop, which succeeds for a unit that is not running. */
int utils_stop_service(const std::string& path);

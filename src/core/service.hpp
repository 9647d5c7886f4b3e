#pragma once

#include <functional>
#include <memory>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "config/settings_client.hpp"

/**
 * What the whole service shares for the life of the process: the connection to the user bus on which the
 * network object is published, the event loop, and the client of the settings daemon. Only the loop's thread
 * may touch the bus and the loop; other threads go through post_to_main_loop or emit_property_changed.
 */

constexpr const char* kNetworkService = "com.vantora.Network1";
constexpr const char* kNetworkPath = "/com/vantora/Network1";
constexpr const char* kNetworkInterface = "com.vantora.Network1.WiFi";

/**
 * Opens the user bus, takes the thread's default loop, attaches the bus to it at priority 0, registers the
 * network object and requests its name. Each step is taken only if all before it succeeded. When the
 * connection is lost later on, the loop ends.
 *
 * @return 0 or a positive number, or the negative errno of the step that failed
 */
int service_set_up();

/** Releases the object and then the bus (a plain unreference, nothing is flushed). */
void service_tear_down();

/** The connection; null before service_set_up and after service_tear_down. */
sd_bus* service_bus();

/** The loop; null before service_set_up. */
sd_event* service_event();

/** Creates the client of the settings daemon on the loop and makes it the shared one. */
Settingsd::SettingsDaemonDbusHandler& service_create_settings();

/** Runs the work on the loop's thread: at once when called there. May be called from any thread. */
void post_to_main_loop(std::function<void()> work);

/**
 * Announces one property of the network object as changed, with the value that its getter yields at that time
 * (sd_bus_emit_properties_changed(3)). May be called from any thread.
 *
 * @param property name of the property; a literal
 */
void emit_property_changed(const char* property);

/**
 * Announces `WiFiAccessPointInitialised` with the given value instead of the one that it has by the time the
 * loop gets to it: two events of one wake-up of the listener are then announced as what they are. May be
 * called from any thread.
 */
void announce_access_point_initialised(bool ready);

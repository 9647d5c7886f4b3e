#pragma once

#include <systemd/sd-bus.h>

/**
 * The D-Bus face of the daemon, interface "com.vantora.Network1.WiFi": the member table and its handlers,
 * which unmarshal, log the call and answer. The work is done by the control and client operations.
 *
 * The handlers have sd-bus's own signatures and results (sd_bus_add_object_vtable(3)): negative means that
 * the bus library answers with its error for that number.
 */

/** The member table, in introspection order. */
const sd_bus_vtable* network_interface_vtable();

/**
 * Writes to `WiFiState`, `Mode`, `WiFiFrequency` and `SSID`. Each reads one value from the message.
 *
 * @return 0 on success; -1 when the value was refused or could not be read. Only set_wifi_state_dbus answers
 * an unreadable value itself, with "Failed to parse msg", and returns what sending that returned.
 *
 * Log the call (INFO, all but set_wifi_state_dbus) and an unreadable value (ERR).
 */
int set_wifi_state_dbus(sd_bus* bus, const char* path, const char* interface, const char* property,
                        sd_bus_message* value, void* userdata, sd_bus_error* error);
int change_wifi_mode_dbus(sd_bus* bus, const char* path, const char* interface, const char* property,
                          sd_bus_message* value, void* userdata, sd_bus_error* error);
int set_wifi_frequency_dbus(sd_bus* bus, const char* path, const char* interface, const char* property,
                            sd_bus_message* value, void* userdata, sd_bus_error* error);
int set_wifi_ssid_dbus(sd_bus* bus, const char* path, const char* interface, const char* property,
                       sd_bus_message* value, void* userdata, sd_bus_error* error);

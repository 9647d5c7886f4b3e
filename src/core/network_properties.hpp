#pragma once

#include <systemd/sd-bus.h>

/**
 * Getters of the interface's properties. Each appends one value to the reply; where a property does not apply
 * to the state of the radio that is a neutral value (an empty text, 0, "off", "unknown"), never an error.
 *
 * They have sd-bus's own signature and result: what appending returned, or a negative number that becomes the
 * bus library's error for it, which only get_wifi_available_frequencies yields by itself (-1 for a radio of
 * unknown type).
 */

using PropertyGetter = int(sd_bus* bus, const char* path, const char* interface, const char* property,
                           sd_bus_message* reply, void* userdata, sd_bus_error* error);

PropertyGetter get_ip_address;
PropertyGetter get_mac_address;
PropertyGetter get_wifi_signal;
PropertyGetter get_wifi_available_frequencies;
PropertyGetter get_wifi_connected_clients;
PropertyGetter get_wifi_client_state;
PropertyGetter get_wifi_access_point_initialised;
PropertyGetter get_wifi_client_ssid;
PropertyGetter get_wifi_state;
PropertyGetter get_wifi_mode;
PropertyGetter get_wifi_frequency;
PropertyGetter get_wifi_ssid;

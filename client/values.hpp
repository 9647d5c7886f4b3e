#pragma once

#include <string>

#include <nlohmann/json.hpp>
#include <systemd/sd-bus.h>

namespace client {

using Json = nlohmann::json;

/**
 * The type of the next value of a message, and of what it holds where it is a container: a copy, since the
 * library's text goes with the container that is left.
 *
 * @return 1, or a negative errno: -ENXIO where there is no further value
 */
int next_type(sd_bus_message* message, char& type, std::string& contents);

/**
 * Reads the next value of a message, of the types that the daemon's properties have: s, u, b, i, as, a(siib),
 * and a variant around one of them.
 *
 * @return 1, or a negative errno when the message holds something else; `value` is then unspecified. Each
 * element of a(siib) becomes an object, see network_value().
 */
int read_value(sd_bus_message* message, Json& value);

/** Reads an a{sv} into an object; an entry of another type makes the whole unreadable. Returns 1 or a
 * negative errno. */
int read_dictionary(sd_bus_message* message, Json& values);

/** One network in range as programs get it. */
Json network_value(const std::string& ssid, bool encrypted, int signal, bool passphrase);

/** Appends the value as a variant of this type: "s" or "u". Returns 1 or more, or a negative errno. */
int append_variant(sd_bus_message* message, char type, const Json& value);

} // namespace client

#pragma once

#include <any>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

/**
 * Property calls and parsers on top of sd-bus.
 *
 * Values travel as std::any and are held as:
 *
 *     y uint8_t    b bool      n int16_t   q uint16_t   i int32_t   u uint32_t   x int64_t   t uint64_t
 *     d double     s, o, g std::string
 *     ay std::vector<uint8_t>              as, ao, ag std::vector<std::string>
 *     other arrays of a basic type T       std::vector<T> (ab: std::vector<bool>)
 *     a{sv}                                std::map<std::string, std::any>, each value by these same rules
 *     v (a variant inside a variant)       the inner value, by these same rules
 *
 * A property whose type is not in this list (file descriptors, structures, other dictionaries) is skipped: it
 * does not appear in the result and does not make the call fail.
 *
 * Every function returns 0 or a positive number on success and a negative errno on failure. Where a bus may
 * be null the user bus is opened for the one call and closed again.
 */
namespace sdbus_utils {

/** Property name to value. */
using PropertyMap = std::map<std::string, std::any>;

/** Property name to (D-Bus type signature, value). */
using TypedPropertyMap = std::map<std::string, std::pair<std::string, std::any>>;

/** Reads one property. On failure `value` is untouched and `error` holds a text for people. */
int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, bool& value, std::string& error);
int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, std::string& value, std::string& error);
/** The same for an array of object paths ("ao"), in the order received. */
int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, std::vector<std::string>& value, std::string& error);

/** Writes one property. On failure `error` holds a text for people. */
int SetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, bool value, std::string& error);
int SetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, const std::string& value, std::string& error);

/** Reads all properties of an interface into `properties`, which is left empty on failure. */
int GetAllProperties(sd_bus* bus, const std::string& service, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties);

/** Reads an "a{sv}" from the message's current position. A negative result leaves `properties` empty. */
int ParseProperties(sd_bus_message* message, PropertyMap& properties);
int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties);

} // namespace sdbus_utils

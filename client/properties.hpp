#pragma once

#include <span>
#include <string>

#include "values.hpp"

namespace client {

/** A property of the daemon as this program shows it. */
struct PropertyName
{
    const char* daemon; /**< in the interface */
    const char* field;  /**< in JSON; these names do not change */
    const char* label;  /**< for people */
    const char* type;   /**< its D-Bus signature */
};

/** All of them, in the order in which people see them. */
std::span<const PropertyName> known_properties();

/** Whether a value is of the type that the property of this name has; true for a property that is not known.
 */
bool fits(const std::string& daemonName, const Json& value);

/** What is known about a property of this name; null for one that is not shown. */
const PropertyName* find_property(const std::string& daemonName);

/**
 * Turns the daemon's properties into the fields of JSON, in which the radio is "on" or "off". A field whose
 * property is missing is null, so that every object has all fields.
 */
Json status_fields(const Json& properties);

/** The value of one property as its field has it. */
Json field_value(const PropertyName& property, const Json& value);

} // namespace client

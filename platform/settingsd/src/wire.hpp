#pragma once

#include <systemd/sd-bus.h>

#include "schema.hpp"

namespace settingsd {

/** Appends the value. Returns a negative errno on failure. */
int append_value(sd_bus_message* message, const Value& value);

/** Reads a value of the same type as `example`. Returns a positive number, or a negative errno. */
int read_value(sd_bus_message* message, const Value& example, Value& value);

} // namespace settingsd

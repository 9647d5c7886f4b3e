#pragma once

#include <nlohmann/json.hpp>
#include <systemd/sd-bus.h>

namespace doctor {

/**
 * Reads all values of a message, of whatever types they are: numbers, texts and paths as such, arrays and
 * structures as arrays, dictionaries as objects whose keys are texts, a variant as what it holds, a
 * descriptor as null.
 *
 * @param values an array, to which they are added
 * @return 0 or more, or a negative errno for a message that cannot be read
 */
int read_values(sd_bus_message* message, nlohmann::json& values);

} // namespace doctor

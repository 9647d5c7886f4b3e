#pragma once

#include <any>

#include <systemd/sd-bus.h>

namespace sdbus_utils::detail {

/** What became of one value: the message's position is behind it in both cases. */
enum class Decoded { Value, Skipped };

/**
 * Reads the value of the single complete type `signature` from the message's current position. A type that
 * the header of this library does not list is passed over and `value` left alone. Returns 0, or a negative
 * errno when the message is malformed; then its position is undefined.
 */
int decode_value(sd_bus_message* message, const char* signature, std::any& value, Decoded& decoded);

} // namespace sdbus_utils::detail

#pragma once

#include <any>
#include <cerrno>

#include <systemd/sd-bus.h>

namespace sdbus_utils::detail {

/** sd-bus yields 0 at the end of an array: where something must follow, that is as bad as no message. */
inline int required(int r)
{
    return r == 0 ? -EBADMSG : r;
}

/**
 * Enters the variant at the message's current position, which must be one by the signature around it.
 * `contents` is then the signature of its value, and lives as long as the message. Returns a negative errno
 * when the message is malformed.
 */
int enter_variant(sd_bus_message* message, const char*& contents);

/** What became of one value: the message's position is behind it in both cases. */
enum class Decoded { Value, Skipped };

/**
 * Reads the value of the single complete type `signature` from the message's current position. A type that
 * the header of this library does not list is passed over and `value` left alone. Returns 0 or more, or a
 * negative errno when the message is malformed; then its position and `value` are undefined.
 */
int decode_value(sd_bus_message* message, const char* signature, std::any& value, Decoded& decoded);

} // namespace sdbus_utils::detail

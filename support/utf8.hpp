#pragma once

#include <string>
#include <string_view>

/*
 * The texts that libsystemd sends as "s": valid UTF-8 (RFC 3629) without NUL and without Unicode's
 * non-characters, for which sd-bus refuses the whole message (sd_bus_message_append_basic(3): -EINVAL).
 */

/** Whether the bytes are such a text: true or false. */
bool is_bus_text(std::string_view bytes);

/**
 * Makes any bytes into such a text.
 *
 * @param replacement stands in the text for each byte that is not part of such a sequence, and for each NUL:
 * U+FFFD, or nothing when they are to be left out
 * @return the text; one that is such a text already comes back unchanged
 */
std::string utf8_text(std::string_view bytes, std::string_view replacement = "\xEF\xBF\xBD");

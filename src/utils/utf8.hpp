#pragma once

#include <string>
#include <string_view>

/**
 * Makes any bytes into a text that libsystemd sends as "s": valid UTF-8 (RFC 3629) without NUL and without
 * Unicode's non-characters, for which sd-bus would refuse the whole message.
 *
 * @return the text; each byte that is not part of such a sequence, and each NUL, becomes U+FFFD. A text that
 * is valid already comes back unchanged.
 */
std::string utf8_text(std::string_view bytes);

#pragma once

#include <string_view>

namespace doctor {

/**
 * Whether a list of shell patterns, with blanks or commas between them, has one that matches the name of an
 * interface: what ifupdown and dhcpcd are told to leave alone is written like that.
 */
bool has_pattern_for(std::string_view list, const char* interface);

} // namespace doctor

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/** The lines of a text, without their line ends; a last line needs none. */
std::vector<std::string> lines_of(std::string_view text);

/** The text without blanks and tabs at both ends. */
std::string_view trimmed(std::string_view text);

/** The first line, trimmed; empty for an empty text. */
std::string first_line(std::string_view text);

/** The first word of a text that looks like a version: digits, with dots between; empty when there is none.
 */
std::string version_in(std::string_view text);

} // namespace doctor

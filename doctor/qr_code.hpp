#pragma once

#include <string>

#include "client/terminal.hpp"

namespace doctor {

/**
 * Draws a text as a code that a camera reads, with the bright edge that it needs, line by line: two rows of
 * squares to a line where the terminal has half blocks, else two letters to a square. On a terminal with
 * colours it is black on white; without, the terminal is taken for a dark one.
 *
 * @return the lines, or an empty text when the text is too long for a code
 */
std::string drawn_code(const std::string& text, const client::Terminal& terminal);

} // namespace doctor

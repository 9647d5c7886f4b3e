#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace client {

/**
 * Makes any text harmless to a terminal, and unambiguous.
 *
 * The name of a network is whatever a stranger chose: it may move the cursor, set the window's title, turn
 * the direction of writing around or hide behind characters without a width.
 *
 * @return the text on one line: control characters, characters that the locale cannot show, invisible ones
 * and those that change the direction become `\n`, `\t`, `\xHH` or `\u{H...}`, a backslash becomes two.
 */
std::string escaped(std::string_view bytes);

/** Columns that an escaped text takes on the terminal, in the locale of the process. */
std::size_t display_width(std::string_view text);

/** As much of an escaped text as takes no more than so many columns; no character is cut. */
std::string fitted(std::string_view text, std::size_t columns);

/** The text with blanks behind it up to so many columns; a wider one comes back as it is. */
std::string padded(std::string_view text, std::size_t columns);

} // namespace client

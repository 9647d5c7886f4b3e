#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "screen_model.hpp"
#include "terminal.hpp"

namespace client {

/** A piece of a line: text that is harmless to the terminal, and how it looks. */
struct ScreenSpan
{
    std::string text;
    Style style = Style::Plain;
    bool inverse = false;
};

using ScreenLine = std::vector<ScreenSpan>;

/**
 * What the model looks like in a window of this size: exactly so many lines, each no wider than the window.
 * The network chosen is always among those that are shown.
 *
 * @param unicode whether more than ASCII can be shown.
 */
std::vector<ScreenLine> draw_screen(const ScreenModel& model, std::size_t rows, std::size_t columns,
                                    bool unicode);

} // namespace client

#include "terminal.hpp"

#include <cstdlib>
#include <string_view>

#include <langinfo.h>
#include <unistd.h>

namespace client {

namespace {

/** The variable's text; empty when it is not set. */
std::string_view variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool knows_colours(int descriptor)
{
    return Terminal::can_move(descriptor) && variable("NO_COLOR").empty();
}

} // namespace

bool Terminal::can_move(int descriptor)
{
    return ::isatty(descriptor) != 0 && !variable("TERM").empty() && variable("TERM") != "dumb";
}

Terminal Terminal::of(int descriptor)
{
    return {knows_colours(descriptor), ::nl_langinfo(CODESET) == std::string_view("UTF-8")};
}

std::string Terminal::before(Style style) const
{
    if (!coloured_) {
        return {};
    }
    switch (style) {
    case Style::Heading:
        return "\033[1m";
    case Style::Good:
        return "\033[32m";
    case Style::Bad:
        return "\033[31m";
    case Style::Faint:
        return "\033[2m";
    case Style::Plain:
        break;
    }
    return {};
}

std::string Terminal::after(Style style) const
{
    return coloured_ && style != Style::Plain ? "\033[0m" : "";
}

std::string Terminal::styled(Style style, const std::string& text) const
{
    return before(style) + text + after(style);
}

} // namespace client

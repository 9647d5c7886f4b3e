#include "screen_view.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "networks.hpp"
#include "properties.hpp"
#include "signal_bars.hpp"
#include "status.hpp"
#include "text.hpp"

namespace client {

namespace {

using Page = ScreenModel::Page;

constexpr std::size_t kLabel = 16;

ScreenLine plain(const std::string& text, Style style = Style::Plain)
{
    return {{text, style}};
}

/** The mode as the daemon has it; empty as long as it has not said. */
std::string mode_of(const ScreenState& state)
{
    const auto mode = state.fields.find("mode");
    return mode != state.fields.end() && mode->is_string() ? mode->get<std::string>() : "";
}

ScreenLine title_line(std::size_t columns)
{
    return {{padded(fitted(" vantora-wifi", columns), columns), Style::Heading, true}};
}

/** What the device is, a label and a value in each line. */
std::vector<ScreenLine> state_lines(const ScreenState& state)
{
    std::vector<ScreenLine> lines;
    const std::string mode = mode_of(state);
    if (mode.empty()) {
        lines.push_back(plain(state.running ? "Asking the daemon..." : "", Style::Faint));
        return lines;
    }
    for (const PropertyName& property : known_properties()) {
        const Json& value = state.fields.at(property.field);
        // What has not been told yet is not there; what will not be told is unknown.
        if (is_shown(property.field, mode) && (!value.is_null() || state.complete)) {
            lines.push_back({{padded(property.label, kLabel), Style::Heading},
                             {field_text(property.field, value), field_style(value)}});
        }
    }
    return lines;
}

/** A lock for what wants a passphrase, a cross for what cannot be joined. */
std::string lock_of(const Json& network, bool unicode)
{
    if (network["joinable"] == false) {
        return unicode ? "✗ " : "x ";
    }
    if (network["encrypted"] == false) {
        return "  ";
    }
    return unicode ? "🔒" : "* ";
}

ScreenLine network_line(const Json& network, bool chosen, std::size_t columns, bool unicode)
{
    const int bars = network["bars"].get<int>();
    const std::string number = network["signal"].dump();
    const std::string dbm = std::string(number.size() < 5 ? 5 - number.size() : 0, ' ') + number;
    std::string rest =
        "  " + dbm + "  " + lock_of(network, unicode) + " " + escaped(network["ssid"].get<std::string>());
    if (network.value("joined", false)) {
        rest += "  (joined)";
    }
    const Style style = bars >= 3 ? Style::Good : bars >= 1 ? Style::Plain : Style::Bad;
    const std::size_t used = 6;
    const std::size_t left = columns > used ? columns - used : 0;
    return {{(chosen ? "> " : "  ") + drawn_bars(bars, unicode), style, chosen},
            {chosen ? padded(fitted(rest, left), left) : fitted(rest, left),
             network["joinable"] == false ? Style::Faint : Style::Plain, chosen}};
}

/** As many networks as fit, with the one chosen among them. */
std::vector<ScreenLine> network_lines(const ScreenModel& model, std::size_t rows, std::size_t columns,
                                      bool unicode)
{
    const ScreenState& state = model.state();
    if (state.networks.empty()) {
        const bool station = mode_of(state) == "Client";
        return {plain(station ? "No networks in range; r looks for some."
                      : state.complete
                          ? "An access point does not look for networks; m makes the device a station."
                          : "",
                      Style::Faint)};
    }
    const std::size_t count = state.networks.size();
    const std::size_t first = model.chosen() < rows ? 0 : model.chosen() - rows + 1;
    std::vector<ScreenLine> lines;
    for (std::size_t index = first; index < std::min(count, first + rows); ++index) {
        lines.push_back(network_line(state.networks[index], index == model.chosen(), columns, unicode));
    }
    return lines;
}

std::vector<ScreenLine> help_lines()
{
    constexpr auto kHelp = std::to_array<std::pair<const char*, const char*>>({
        {"Up, Down, k, j", "choose a network"},
        {"Enter", "join it; asks for the passphrase where it wants one"},
        {"d", "leave the network"},
        {"m", "become a station, or an access point"},
        {"o", "switch the radio on or off"},
        {"r", "look for networks"},
        {"q", "leave; Ctrl-Z leaves for a while"},
    });
    std::vector<ScreenLine> lines = {plain("Keys", Style::Heading), {}};
    for (const auto& [key, meaning] : kHelp) {
        lines.push_back({{padded(key, kLabel), Style::Heading}, {meaning}});
    }
    lines.emplace_back();
    lines.push_back(plain("Everything here can be had by sub-commands, too: vantora-wifi --help"));
    lines.push_back(plain("Any key leads back.", Style::Faint));
    return lines;
}

std::vector<ScreenLine> passphrase_lines(const ScreenModel& model)
{
    return {plain("Passphrase for \"" + escaped(model.ssid()) + "\": " + std::string(model.typed(), '*')),
            plain("Enter joins, Esc leads back.", Style::Faint)};
}

std::string hint(Page page)
{
    switch (page) {
    case Page::Passphrase:
        return " Enter join  Esc back";
    case Page::Help:
        return " any key back";
    case Page::Networks:
        break;
    }
    return " Enter join  d disconnect  m mode  r scan  ? help  q quit";
}

void cut_to(ScreenLine& line, std::size_t columns)
{
    std::size_t left = columns;
    for (ScreenSpan& span : line) {
        span.text = fitted(span.text, left);
        left -= std::min(left, display_width(span.text));
    }
}

} // namespace

std::vector<ScreenLine> draw_screen(const ScreenModel& model, std::size_t rows, std::size_t columns,
                                    bool unicode)
{
    std::vector<ScreenLine> lines = {title_line(columns)};
    // Title, message and hint always; at least two lines for the networks where there is any room at all.
    const std::size_t body = rows > 3 ? rows - 3 : 0;
    if (model.page() == Page::Help) {
        auto help = help_lines();
        help.resize(std::min(help.size(), body));
        std::ranges::move(help, std::back_inserter(lines));
    } else {
        auto state = state_lines(model.state());
        state.resize(std::min(state.size(), body > 3 ? body - 3 : 0));
        std::ranges::move(state, std::back_inserter(lines));
        lines.emplace_back();
        const std::size_t left = rows > lines.size() + 2 ? rows - lines.size() - 2 : 0;
        auto below = model.page() == Page::Passphrase ? passphrase_lines(model)
                                                      : network_lines(model, left, columns, unicode);
        below.resize(std::min(below.size(), left));
        std::ranges::move(below, std::back_inserter(lines));
    }
    lines.resize(rows > 2 ? rows - 2 : 0);
    lines.push_back(plain(" " + escaped(model.message()), model.is_bad() ? Style::Bad : Style::Good));
    lines.push_back({{padded(fitted(hint(model.page()), columns), columns), Style::Plain, true}});
    lines.resize(rows);
    for (ScreenLine& line : lines) {
        cut_to(line, columns);
    }
    return lines;
}

} // namespace client

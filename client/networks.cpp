#include "networks.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

#include "signal_bars.hpp"
#include "text.hpp"

namespace client {

namespace {

Style style_of(int bars)
{
    return bars >= 3 ? Style::Good : bars >= 1 ? Style::Plain : Style::Bad;
}

std::string spelled(unsigned char byte)
{
    switch (byte) {
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '\033':
        return "\\e";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        break;
    }
    if (byte >= 0x20 && byte < 0x7f) {
        return {static_cast<char>(byte)};
    }
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "\\x%02x", static_cast<unsigned int>(byte));
    return text.data();
}

} // namespace

const Json* find_network(const Json& networks, const std::string& ssid)
{
    const auto found =
        std::ranges::find_if(networks, [&ssid](const Json& network) { return network["ssid"] == ssid; });
    return found == networks.end() ? nullptr : &*found;
}

std::string station_spelling(const std::string& ssid)
{
    std::string text;
    for (const char byte : ssid) {
        if (byte == '=') {
            break;
        }
        text += spelled(static_cast<unsigned char>(byte));
    }
    return text;
}

void mark_joined(Json& networks, const std::string& clientSsid)
{
    const auto fits = [&clientSsid](const Json& network) {
        return !clientSsid.empty() && station_spelling(network["ssid"].get<std::string>()) == clientSsid;
    };
    const bool unique = std::ranges::count_if(networks, fits) == 1;
    for (Json& network : networks) {
        network["joined"] = unique && fits(network);
    }
}

std::string security_of(const Json& network)
{
    if (network["wpa_psk"] == true) {
        return "WPA-PSK";
    }
    return network["encrypted"] == true ? "other" : "open";
}

Table networks_table(const Json& networks, const Terminal& terminal)
{
    const auto head = [&terminal](const char* text) {
        return Table::Cell{text, terminal.before(Style::Heading), terminal.after(Style::Heading)};
    };
    Table table;
    table.add({head("SIGNAL"), head("DBM"), head("SECURITY"), head("NETWORK")});
    for (const Json& network : networks) {
        const int bars = network["bars"].get<int>();
        const Style style = network["joinable"] == true ? style_of(bars) : Style::Faint;
        const bool joined = network.value("joined", false);
        table.add({{drawn_bars(bars, terminal.unicode()), terminal.before(style), terminal.after(style)},
                   {network["signal"].dump(), "", ""},
                   {security_of(network), "", ""},
                   {escaped(network["ssid"].get<std::string>()), "", ""},
                   {joined ? "(joined)" : "", terminal.before(Style::Good), terminal.after(Style::Good)}});
    }
    return table;
}

} // namespace client

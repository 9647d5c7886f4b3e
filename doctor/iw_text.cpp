#include "iw_text.hpp"

#include <charconv>

#include "text_lines.hpp"

namespace doctor {

namespace {

/** Counts a line such as "* 5180 MHz [36] (20.0 dBm)"; what is no such line changes nothing. */
void count_channel(std::string_view line, Radio& radio)
{
    int frequency = 0;
    const auto [end, error] = std::from_chars(line.data() + 2, line.data() + line.size(), frequency);
    const auto holds = [line](std::string_view word) { return line.find(word) != std::string_view::npos; };
    if (error != std::errc() || !holds(" MHz [") || holds("disabled") || holds("no IR") || holds("no IBSS") ||
        holds("passive scan") || holds("radar")) {
        return;
    }
    radio.usableLow += frequency >= 2400 && frequency < 2500 ? 1 : 0;
    radio.usableHigh += frequency >= 5000 && frequency < 5900 ? 1 : 0;
}

} // namespace

std::vector<Radio> radios_in(std::string_view text)
{
    std::vector<Radio> radios;
    bool modes = false; // are these the lines below "Supported interface modes:"?
    for (const std::string& whole : lines_of(text)) {
        const std::string_view line = trimmed(whole);
        if (whole.starts_with("Wiphy ")) {
            radios.emplace_back();
            radios.back().name = trimmed(std::string_view(whole).substr(6));
            modes = false;
            continue;
        }
        if (radios.empty()) {
            continue;
        }
        if (!line.starts_with("* ")) {
            modes = line == "Supported interface modes:";
            continue;
        }
        if (modes) {
            radios.back().accessPoint = radios.back().accessPoint || line == "* AP";
        } else {
            count_channel(line, radios.back());
        }
    }
    return radios;
}

std::string iw_value(std::string_view text, std::string_view word)
{
    for (const std::string& whole : lines_of(text)) {
        const std::string_view line = trimmed(whole);
        if (line.starts_with(word) && line.size() > word.size() && line[word.size()] == ' ') {
            return std::string(trimmed(line.substr(word.size())));
        }
    }
    return {};
}

std::string regulatory_country(std::string_view text)
{
    const std::string told = iw_value(text, "country");
    return told.substr(0, told.find(':'));
}

std::vector<std::string> wireless_interfaces(std::string_view text)
{
    std::vector<std::string> names;
    for (const std::string& whole : lines_of(text)) {
        const std::string_view line = trimmed(whole);
        if (line.starts_with("Interface ")) {
            names.emplace_back(trimmed(line.substr(10)));
        }
    }
    return names;
}

} // namespace doctor

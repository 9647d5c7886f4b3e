#include "connman_options.hpp"

#include <algorithm>
#include <cstddef>

#include <fnmatch.h>

#include "text_lines.hpp"

namespace doctor {

namespace {

/** Its short options that have a value: the next word, never the rest of the same one. */
constexpr std::string_view kWithValue = "cipPIW";

/** The long name of a short option that matters here; empty for any other. */
std::string_view long_name(char option)
{
    switch (option) {
    case 'I':
        return "nodevice";
    case 'i':
        return "device";
    case 'c':
        return "config";
    default:
        return {};
    }
}

/** What stands between the commas of a list, blanks included; an empty entry at the end is none. */
std::vector<std::string_view> entries_of(std::string_view list)
{
    std::vector<std::string_view> entries;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(','), list.size());
        entries.push_back(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return entries;
}

/** Whether a pattern of its command line matches, in which only "*" and "?" mean more than themselves. */
bool matches(std::string_view pattern, std::string_view name)
{
    std::string escaped;
    for (const char character : pattern) {
        if (character == '[' || character == '\\') {
            escaped += '\\';
        }
        escaped += character;
    }
    return ::fnmatch(escaped.c_str(), std::string(name).c_str(), 0) == 0;
}

bool has_match(std::string_view list, std::string_view name)
{
    return std::ranges::any_of(entries_of(list),
                               [name](std::string_view pattern) { return matches(pattern, name); });
}

} // namespace

void ConnmanOptions::add(std::string_view option, std::string_view value)
{
    if (option == "nodevice") {
        never_ = value;
    } else if (option == "device") {
        only_ = value;
    } else if (option == "config") {
        file_ = value;
    }
}

void ConnmanOptions::add_command_line(const std::vector<std::string>& words)
{
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string_view word = words[i];
        const std::string_view next = i + 1 < words.size() ? std::string_view(words[i + 1]) : "";
        if (word.starts_with("--")) {
            const std::size_t equals = word.find('=');
            const bool here = equals != std::string_view::npos;
            add(word.substr(2, here ? equals - 2 : equals), here ? word.substr(equals + 1) : next);
        } else if (word.size() > 1 && word.front() == '-' &&
                   kWithValue.find(word.back()) != std::string_view::npos) {
            add(long_name(word.back()), next);
            // A value is no option, whatever it looks like.
            ++i;
        }
    }
}

void ConnmanOptions::add_file(std::string_view text)
{
    bool general = false;
    for (const std::string& line : lines_of(text)) {
        const std::string_view bare = trimmed(line);
        const std::size_t equals = bare.find('=');
        if (bare.starts_with("[")) {
            general = bare == "[General]";
        } else if (general && equals != std::string_view::npos &&
                   trimmed(bare.substr(0, equals)) == "NetworkInterfaceBlacklist") {
            blacklist_ = trimmed(bare.substr(equals + 1));
        }
    }
}

bool ConnmanOptions::leaves_alone(std::string_view interface) const
{
    return (only_ && !has_match(*only_, interface)) || has_match(never_, interface) ||
           std::ranges::any_of(entries_of(blacklist_), [interface](std::string_view entry) {
               return interface.starts_with(trimmed(entry));
           });
}

} // namespace doctor

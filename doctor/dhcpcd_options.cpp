#include "dhcpcd_options.hpp"

#include <algorithm>
#include <cstddef>

#include "interface_patterns.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

/** Its short options that have a value: the rest of the word, or the next one. */
constexpr std::string_view kWithValue = "cefhijlmorstuvyzCFIOQSWXZ";

/** The long name of a short option that matters here; empty for any other. */
std::string_view long_name(char option)
{
    switch (option) {
    case 'Z':
        return "denyinterfaces";
    case 'z':
        return "allowinterfaces";
    case 'f':
        return "config";
    default:
        return {};
    }
}

} // namespace

void DhcpcdOptions::add(std::string_view option, std::string_view value)
{
    if (option == "denyinterfaces") {
        denied_.append(" ").append(value);
    } else if (option == "allowinterfaces") {
        allowed_.append(" ").append(value);
    } else if (option == "config") {
        file_ = value;
    }
}

void DhcpcdOptions::add_command_line(const std::vector<std::string>& words)
{
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string_view word = words[i];
        const std::string_view next = i + 1 < words.size() ? std::string_view(words[i + 1]) : "";
        if (word.starts_with("--")) {
            const std::size_t equals = word.find('=');
            add(word.substr(2, equals == std::string_view::npos ? equals : equals - 2),
                equals == std::string_view::npos ? next : word.substr(equals + 1));
            continue;
        }
        if (!word.starts_with("-")) {
            continue;
        }
        const std::size_t at = word.find_first_of(kWithValue, 1);
        if (at == std::string_view::npos) {
            continue;
        }
        const std::string_view rest = word.substr(at + 1);
        add(long_name(word[at]), rest.empty() ? next : rest);
        // A value is no option, whatever it looks like.
        i += rest.empty() ? 1 : 0;
    }
}

void DhcpcdOptions::add_file(std::string_view text)
{
    for (const std::string& line : lines_of(text)) {
        const std::string_view bare = trimmed(line);
        const std::size_t end = std::min(bare.find_first_of(" \t"), bare.size());
        const std::string_view option = bare.substr(0, end);
        if (option == "interface" || option == "ssid" || option == "profile") {
            return;
        }
        if (option != "config") {
            add(option, bare.substr(end));
        }
    }
}

bool DhcpcdOptions::leaves_alone(const char* interface) const
{
    return has_pattern_for(denied_, interface) ||
           (!allowed_.empty() && !has_pattern_for(allowed_, interface));
}

} // namespace doctor

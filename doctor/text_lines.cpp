#include "text_lines.hpp"

#include <algorithm>

namespace doctor {

namespace {

bool is_digit(char letter)
{
    return letter >= '0' && letter <= '9';
}

bool is_of_version(char letter)
{
    return is_digit(letter) || letter == '.';
}

} // namespace

std::vector<std::string> lines_of(std::string_view text)
{
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string first_line(std::string_view text)
{
    return std::string(trimmed(text.substr(0, text.find('\n'))));
}

std::string version_in(std::string_view text)
{
    const char* const last = text.data() + text.size();
    for (const char* begin = text.data(); begin != last;) {
        begin = std::find_if(begin, last, is_digit);
        const char* const end = std::find_if_not(begin, last, is_of_version);
        if (std::find(begin, end, '.') != end) {
            std::string version(begin, end);
            version.erase(version.find_last_not_of('.') + 1);
            return version;
        }
        begin = end;
    }
    return {};
}

} // namespace doctor
